// check_input_fc.cpp - the input check of every call that reaches the
// phase driver.
#include "interface/check_input_fc.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "analysis/domains.h"
#include "interface/diag.h"

namespace vm {

namespace {

// iparm(51) and iparm(52): distributed mode and compute nodes.  1 in
// iparm(51) is rewritten to 2 in place.
void take_distribution(int *iparm, ControlState &s) {
  if (ip(iparm, 51) == 1) ip(iparm, 51) = 2;
  int distributed = ip(iparm, 51);
  int nnodes = ip(iparm, 52);
  if (distributed == 0 || nnodes < 1) nnodes = 1;
  if (ip(iparm, 3) == 1 && nnodes == 1) distributed = 0;
  s.distributed = distributed;
  s.nnodes = nnodes;
}

// Moves the slots that iparm(1) == 1 honours into the control block.
void take_all_controls(const CallArgs &c, ControlBlock *cb) {
  int *iparm = c.iparm;
  ControlState &s = cb->s;
  const int n = *c.n;
  const int mtype = *c.mtype;
  s.transposed = ip(iparm, 12) == 1 ? 1 : 0;
  s.schur_size = (ip(iparm, 38) >= 1 && ip(iparm, 38) <= n) ? ip(iparm, 38) : 0;
  take_distribution(iparm, s);
  s.two_level_fact = ip(iparm, 24);
  s.two_level_solve = ip(iparm, 25);
  s.iparm28 = ip(iparm, 28);
  s.single_precision = (mtype == 1 || mtype == -2 || mtype == 11) ? ip(iparm, 29) : 0;
  s.sparse_rhs = ip(iparm, 31);
  if (s.distributed != 0) {
    s.two_level_fact = 1;
    s.two_level_solve = 1;
    s.iparm28 = 0;
    s.single_precision = 0;
    s.sparse_rhs = 0;
  }
  if (s.sparse_rhs != 0) {
    s.two_level_fact = 0;
    s.two_level_solve = 0;
  }
  // Reproducible results need the nested-dissection orderings and both
  // two-level schemes.
  s.identical_results =
      (ip(iparm, 2) >= 2 && ip(iparm, 24) == 1 && ip(iparm, 25) == 1) ? ip(iparm, 34) : 0;
  s.determinant = ip(iparm, 33);
  // iparm(4) = sign * (10*L + K): K the hybrid mode, 10^-L its tolerance.
  const int hybrid = ip(iparm, 4);
  const long long magnitude = std::llabs(static_cast<long long>(hybrid));
  const int mode = static_cast<int>(magnitude % 10);
  const long long digits = magnitude / 10 > 300 ? 300 : magnitude / 10;
  s.hybrid_mode = hybrid < 0 ? -mode : mode;
  if (digits != 0) rctl(cb, kRctlHybridTol) = std::pow(10.0, -static_cast<double>(digits));
  s.eps_exponent = ip(iparm, 10);
  s.perm_mode = ip(iparm, 5);
}

void take_few_controls(const CallArgs &c, ControlBlock *cb) {
  int *iparm = c.iparm;
  cb->s.eps_exponent = ip(iparm, 10);
  cb->s.transposed = ip(iparm, 12) == 1 ? 1 : 0;
  cb->s.perm_mode = ip(iparm, 5);
  take_distribution(iparm, cb->s);
}

bool is_valid_phase(int phase) {
  return phase == 11 || phase == 12 || phase == 13 || phase == 22 || phase == 23 || phase == 33;
}

// The tests of the table, in their order; the first that fails decides.
int run_tests(const CallArgs &c, const CheckMemory &old, int nnz, Failure *f) {
  const int phase = *c.phase, maxfct = *c.maxfct, mnum = *c.mnum, mtype = *c.mtype, n = *c.n;
  const int nrhs = c.nrhs ? *c.nrhs : 0;
  const int *iparm = c.iparm;
  auto fail = [f](int code, int a1, int a2 = 0) {
    f->code = code;
    f->arg1 = a1;
    f->arg2 = a2;
    return code;
  };
  if (phase < -1 || phase >= 34) return fail(1, phase);
  if (maxfct > old.maxfct && old.maxfct >= 1) return fail(2, maxfct, old.maxfct);
  if (mnum > maxfct) return fail(3, maxfct, mnum);
  if (mnum < 1 && phase >= 22) return fail(4, mnum, phase);
  const int amt = std::abs(mtype);
  if (!(amt >= 1 && amt <= 6) && amt != 11 && mtype != 13) return fail(15, mtype);
  if (mtype != old.mtype && old.mtype != 0 && mtype != -old.mtype &&
      amt / 2 != std::abs(old.mtype) / 2)
    return fail(5, mtype, old.mtype);
  if (n != old.n && old.n >= 1) return fail(6, n, old.n);
  if (n <= 0) return fail(7, n);
  if ((nnz != old.nnz && old.nnz >= 1) || n > nnz) return fail(8, nnz, old.nnz);
  if ((phase == 13 || phase == 23 || phase == 33) && nrhs <= 0) return fail(9, nrhs, phase);
  if (iparm[5] < 0 || iparm[5] > 1) return fail(10, iparm[5]);
  if (iparm[29] == 0 && (iparm[1] < 0 || iparm[1] > 4)) return fail(11, iparm[1]);
  if (!is_valid_phase(phase)) return fail(20, phase);
  return 0;
}

int panel_width(int mtype, int nthreads, int iparm30, int iparm53) {
  int width = iparm30;
  if (width < 1) {
    if (stores_u(mtype))
      width = nthreads < 5 ? 128 : 112;
    else
      width = nthreads < 5 ? 80 : 64;
  }
  if (iparm53 > 0) width = width >= iparm53 ? width - width % iparm53 : iparm53;
  return width;
}

// Solves a diagonal matrix that the front did not see as such (a solve-only
// call whose ia no longer says so).  Returns kCheckDiagonalDone or -row.
int solve_diagonal(const CallArgs &c) {
  int *iparm = c.iparm;
  ip(iparm, 12) = -1;
  const int phase = *c.phase;
  if (phase % 10 != 3) return kCheckDiagonalDone;
  const int solve = 1;
  int error = 0;
  if (is_complex_type(*c.mtype)) {
    C_DIAG_VELMORA(c.n, c.nrhs, c.ia, c.ja, static_cast<const double *>(c.a),
                   static_cast<double *>(c.b), static_cast<double *>(c.x), &error, &iparm[5],
                   &solve);
  } else {
    DIAG_VELMORA(c.n, c.nrhs, c.ia, c.ja, static_cast<const double *>(c.a),
                 static_cast<double *>(c.b), static_cast<double *>(c.x), &error, &iparm[5], &solve,
                 &iparm[21], &iparm[22]);
  }
  return error == 0 ? kCheckDiagonalDone : -std::abs(error);
}

}  // namespace

int count_threads() {
  int counted = 0;
  int team = 1;
#pragma omp parallel shared(counted, team)
  {
#pragma omp critical(velmora_count_threads)
    ++counted;
#pragma omp single
    team = omp_get_num_threads();
  }
  // A runtime that refused to fork ran the body once, serialised.
  return team > 0 ? team : (counted > 0 ? counted : 1);
}

int usable_team(int asked) {
  const int cap = std::min(omp_get_thread_limit(), std::max(64, 8 * omp_get_num_procs()));
  return std::clamp(asked, 1, std::max(cap, 1));
}

int CHECK_INPUT_FC(const CallArgs &c, ControlBlock *cb, int nnz, Failure *f) {
  int *iparm = c.iparm;
  const int phase = *c.phase;
  auto &count = reinterpret_cast<std::intptr_t &>(pt_slot(c.pt, kPtCount));
  count += 1;
  if (count == 1) {
    for (int k = 0; k < kTimers; ++k) {
      rctl(cb, kRctlTimers + k) = 0.0;
      cb->timer_flags[k] = 0;
    }
  }

  if (ip(iparm, 1) == 1)
    take_all_controls(c, cb);
  else
    take_few_controls(c, cb);

  if (phase >= -1 && phase <= 33) {
    if (ip(iparm, 3) <= 0) ip(iparm, 3) = count_threads();
  }
  cb->s.nthreads = usable_team(ip(iparm, 3));

  const int code = run_tests(c, cb->s.check, nnz, f);
  if (code != 0) return code;
  cb->s.check = CheckMemory{*c.maxfct, *c.mnum, *c.mtype, phase, *c.n, nnz, c.nrhs ? *c.nrhs : 0};

  if (nnz == *c.n) return solve_diagonal(c);

  ControlState &s = cb->s;
  const int mtype = *c.mtype;
  s.neqns = *c.n;
  s.neqns_plus_1 = *c.n + 1;
  s.mtype = mtype;
  s.maxfct = *c.maxfct;
  s.complex_factor = is_complex_type(mtype) ? 2 : 1;
  s.iparm6_copy = ip(iparm, 6);
  s.iparm21 = ip(iparm, 21);
  if (phase / 10 == 1) {
    const int offdiag = nnz - *c.n;
    if (std::abs(mtype) % 2 == 1) {
      s.adj_size = offdiag / 2;
    } else {
      s.adj_size = offdiag;
      s.symmetric_pattern = 1;
      s.transposed = 0;
    }
    const std::int64_t alloc =
        mtype > 10 ? static_cast<std::int64_t>(*c.n) + 3LL * nnz : 2LL * s.adj_size;
    s.adj_size_alloc = alloc > 0x7fffffff ? 0x7fffffff : static_cast<int>(alloc);
  }
  // Ordering: with iparm(30) set, values outside the known range mean the
  // default nested dissection.
  s.ordering = ip(iparm, 2);
  if (ip(iparm, 30) >= 1 && (s.ordering < 0 || s.ordering > 2)) s.ordering = 2;
  s.panel_size = panel_width(mtype, analysis_team(s.nthreads, s.identical_results), ip(iparm, 30),
                             ip(iparm, 53));
  // One-column supernodes of a symmetric type are computed as runs: the
  // automatic width for the structure, pivots one column at a time.
  s.unit_pivots = (s.panel_size == 1 && !stores_u(mtype)) ? 1 : 0;
  if (s.unit_pivots == 1)
    s.panel_size = panel_width(mtype, analysis_team(s.nthreads, s.identical_results), 0, 0);
  s.block_nodes = ip(iparm, 53);
  s.block_tail = ip(iparm, 54);
  s.sequential = (s.nthreads == 1 && s.nnodes == 1) ? 1 : 0;
  // A symmetric pattern has no transposed system of its own.
  if (s.symmetric_pattern == 1) s.transposed = 0;
  return 0;
}

PatternFault pattern_fault(int mtype, int n, const int *ia, const int *ja, int nnz, int *row) {
  *row = 0;
  if (ia[0] != 1 || ia[n] - 1 != nnz) return PatternFault::kRowPointers;
  for (int i = 0; i < n; ++i) {
    if (ia[i + 1] < ia[i]) {
      *row = i + 1;
      return PatternFault::kRowPointers;
    }
  }
  const bool upper = is_symmetric_storage(mtype);
  for (int i = 0; i < n; ++i) {
    *row = i + 1;
    int prev = 0;
    for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k) {
      const int col = ja[k];
      if (col < 1 || col > n) return PatternFault::kColumnRange;
      if (col <= prev) return PatternFault::kColumnOrder;
      if (upper && col < i + 1) return PatternFault::kLowerEntry;
      prev = col;
    }
  }
  *row = 0;
  return PatternFault::kNone;
}

const char *pattern_fault_text(PatternFault fault) {
  switch (fault) {
    case PatternFault::kRowPointers:
      return "row pointers ia do not start at 1, decrease, or do not end at the number of nonzeros";
    case PatternFault::kColumnRange:
      return "a column index lies outside 1..n";
    case PatternFault::kColumnOrder:
      return "column indices of a row are not strictly increasing (unsorted or repeated)";
    case PatternFault::kLowerEntry:
      return "an entry lies below the diagonal, where a symmetric type gives the upper triangle "
             "only";
    case PatternFault::kNone:
      break;
  }
  return "";
}

}  // namespace vm
