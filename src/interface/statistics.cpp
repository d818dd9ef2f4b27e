// statistics.cpp - the report of a call: title, times, statistics.
#include "interface/statistics.h"

#include <omp.h>

#include <algorithm>
#include <cstdio>

#include "interface/report_error.h"

namespace vm {

namespace {

const char *stage_name(int stage) {
  switch (stage) {
    case 1:
      return "reorder";
    case 2:
      return "factorize";
    case 3:
      return "solve";
    default:
      return "clean";
  }
}

const char *const kTimerLabels[kTimers] = {
    "fulladj:", "reorder:", "symbfct:", "parlist:", "A to LU:",
    "numfct :", "solve  :", "cgs    :", "malloc :", "total  :"};

void print_title(int phase) {
  if (phase > 0)
    report_line("Summary VELMORA 6.0.0: ( %s to %s)", stage_name(phase / 10),
                stage_name(phase % 10));
  else
    report_line("Summary VELMORA 6.0.0: ( clean )");
  report_line("=======================");
  report_line("%s", "");
}

void print_times(ControlBlock *cb, const int *iparm) {
  report_line("Times:");
  report_line("======");
  report_line("%s", "");
  double &total = rctl(cb, kRctlTimers + kTimeTotal);
  total = omp_get_wtime() - cb->call_start;
  cb->timer_flags[kTimeTotal] |= 1;
  double sum = 0.0;
  for (int k = 0; k < kTimers; ++k) {
    if ((cb->timer_flags[k] & 1) == 0) continue;
    const double t = rctl(cb, kRctlTimers + k);
    if (k == kTimeCgs) {
      report_line("      %s %f s cgx iterations %d", kTimerLabels[k], t, iparm[19]);
    } else if (k == kTimeTotal) {
      report_line("      Time %s %f s total - sum: %f s", kTimerLabels[k], t, t - sum);
      continue;
    } else {
      report_line("      Time %s %f s", kTimerLabels[k], t);
    }
    sum += t;
  }
  report_line("%s", "");
}

void print_ordering(const ControlState &s) {
  if (s.perm_mode > 0) {
    report_line(" < preprocessing with input permutation >");
    return;
  }
  switch (s.ordering) {
    case 1:
      report_line(" < preprocessing with multiple minimum degree with constraints >");
      report_line(s.mmd_on_separator == 0
                      ? " <   no multiple minimum degree on the separator nodes         >"
                      : " < with multiple minimum degree on the separator nodes         >");
      break;
    case 2:
      report_line(" < preprocessing with state of the art partitioning metis>");
      break;
    case 3:
      report_line(" < preprocessing with partitioning metis version 5.1 >");
      break;
    case 4:
      report_line(" < preprocessing with approximate minimum degree  >");
      break;
    default:
      break;
  }
}

// Why a factorization with more than one thread asked for ran on one.
const char *one_core_reason(const ControlState &s) {
  if (s.schur_size > 0) return "a Schur complement";
  if (s.identical_results != 0)
    return s.distributed != 0 ? "iparm(34) 1 in the block-partitioned mode"
                              : "iparm(34) 1 on an ordering with one domain";
  return "a factorization of this size";
}

// Options this build does not serve yet: each one asked for is named, with
// what ran instead, so that no setting is dropped without a word.
void print_requests_not_served(const ControlState &s, const int *iparm) {
  if (s.block_nodes > 0)
    report_line(
        " < iparm(53) %d: block-reordering acceleration is not yet available;"
        " only the panel width was rounded >",
        s.block_nodes);
  if (s.iparm28 == 1 && s.ordering == 2 && s.perm_mode <= 0)
    report_line(
        " < iparm(28) 1: the parallel nested dissection is not yet available;"
        " the sequential nested dissection ran >");
  // The block-partitioned variant on one thread is what one thread asks for.
  const bool asked_one = factor_runs_distributed(s) && s.nthreads == 1;
  if ((s.nthreads > 1 || s.nnodes > 1) && !factor_runs_parallel(s) && !asked_one)
    report_line(" < the parallel factorization does not serve %s; factorized on one core >",
                one_core_reason(s));
}

void print_statistics(const CallArgs &c, const ControlBlock *cb) {
  const ControlState &s = cb->s;
  const int phase = *c.phase;
  const int n = s.neqns;
  const int nrhs = c.nrhs ? *c.nrhs : 0;
  // iparm(51) 1 is held as 2: any distributed mode gets the title.
  report_line(s.distributed != 0 ? "Statistics (Distributed-Memory Version):" : "Statistics:");
  report_line("===========");
  report_line(" < Parallel Direct Factorization with #cores: >              %d", s.nthreads);
  report_line(" <                                and #nodes: >              %d", s.nnodes);
  if (s.single_precision) report_line(" < Using VELMORA in 32-bit for factorization/solve >");
  if (s.schur_size > 0)
    report_line("< Using schur-complement factorization and #nodes: >         %d", s.nnodes);
  // The method line says what ran: the team's factorization, or the
  // supernodes one after another, or the hybrid iteration.  The
  // block-reordering line comes back with that feature.
  if (s.distributed != 0)
    report_line(" < Using block-reordering acceleration #blocknodes >          %d ", s.block_nodes);
  if (s.hybrid_mode > 0)
    report_line(" < Hybrid Solver VELMORA with CGS/CG Iteration >");
  else
    report_line(factor_runs_parallel(s) || factor_runs_distributed(s)
                    ? " < Numerical Factorization with BLAS3 and O(n) synchronization >"
                    : " < Numerical Factorization with Level-3 BLAS performance >");
  print_requests_not_served(s, c.iparm);
  if (s.transposed == 0) report_line(" < Linear system Ax = b> ");
  if (s.transposed == 1) report_line(" < Linear system Ax = b> <transpose> ");
  const double fill = n > 0 ? 100.0 * s.nnz / (static_cast<double>(n) * n) : 0.0;
  report_line("             #equations:                                     %d", n);
  report_line("             #non-zeros in A:                                %d", s.nnz);
  report_line("             non-zeros in A (%%):                             %f", fill);
  report_line("             #right-hand sides:                              %d", nrhs);
  report_line(" < Factors L and U > ");
  if (s.ordering == 0 && s.perm_mode <= 0) {
    report_line(" < preprocessing with multiple minimum degree, tree height >");
    report_line(" < reduction for efficient parallel factorization >");
  }
  const bool unit = s.unit_pivots == 1;  // one-column supernodes, computed in runs
  report_line("             #columns for each panel:                        %d",
              unit ? 1 : s.panel_size);
  report_line("             # of independent subgraphs:                     %d", s.ndom);
  print_ordering(s);
  report_line("             #supernodes:                                    %d",
              unit ? s.neqns : s.nsuper);
  report_line("             size of largest supernode:                      %d",
              unit ? std::min(s.neqns, 1) : s.max_supernode);
  report_line("             number of nonzeros in L                         %li",
              static_cast<long>(unit ? s.fill : s.nnz_l));
  report_line("             number of nonzeros in U                         %li",
              static_cast<long>(s.nnz_u));
  report_line("             number of nonzeros in L+U                       %g",
              static_cast<double>(unit ? s.fill : s.nnz_l) + static_cast<double>(s.nnz_u));
  if (s.distributed != 0) {
    // Columns of the nodes' local tops and of the global top (0 and 0 when
    // the analysis made no node split).
    report_line("             number of local separator nodes                 %d",
                s.local_separators);
    report_line("             number of global separator nodes                %d",
                s.global_separators);
  }
  report_line("             number of perturbed pivots                      %d",
              s.perturbed_pivots);
  if (s.sparse_rhs == 2)
    report_line("             number of (compressed) nodes in solve           %d", s.marked_rows);
  else if (s.sparse_rhs < 2)
    report_line("             number of nodes in solve                        %d",
                s.sparse_rhs ? s.marked_rows : n);
  const double gflop = s.flops / 1.0e9;
  report_line("             Gflop   for the numerical factorization:        %f", gflop);
  if (phase > 11) {
    const double t = cb->rctl[kRctlTimers + kTimeNumFct - 1];
    if ((cb->timer_flags[kTimeNumFct] & 1) && t > 0.0)
      report_line("             Gflop/s for the numerical factorization:        %f", gflop / t);
    const double norm = cb->rctl[kRctlNormA - 1];
    if (norm > 0.0)
      report_line("             ||A||                                          %f", norm);
  }
  if (phase % 10 == 3) report_line("   Number of refinement iterations: %d", s.refine_steps);
}

}  // namespace

void report_statistics(const CallArgs &c, ControlBlock *cb, int released) {
  if (omp_get_thread_num() != 0) return;
#pragma omp critical(velmora_report)
  {
    const int phase = *c.phase;
    print_title(phase);
    if (phase == 0) {
      report_line(" L&U for matrix number %d deleted", *c.mnum);
    } else if (phase < 0) {
      report_line(" cleaned memory, deleted number of L&U-factorizations: %d",
                  released < 0 ? -released : released);
    } else if (cb) {
      print_times(cb, c.iparm);
      print_statistics(c, cb);
    }
  }
}

}  // namespace vm
