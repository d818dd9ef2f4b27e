// velmora_c.cpp - VELMORA_CCC, the phase driver.
//
// The driver owns the handle: it is the only place that allocates, grows or
// frees the memory groups behind `pt`.  One call runs, in order: release
// requests (phase 0 and -1), the reset of a new analysis, the input check,
// analysis (stages 1 to 3 of the numeric driver), numeric work (stage 4),
// and the end of the call with its counters and failure report.
#include "interface/velmora_c.h"

#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "analysis/bitvec.h"
#include "analysis/domains.h"
#include "analysis/ladj_mod.h"
#include "analysis/matching.h"
#include "analysis/perm.h"
#include "analysis/reorder1.h"
#include "interface/check_input_fc.h"
#include "interface/defaults.h"
#include "interface/dump.h"
#include "interface/memory.h"
#include "interface/numeric_driver.h"
#include "interface/numeric_stage.h"
#include "interface/statistics.h"
#include "velmora_smat.h"

namespace vm {

namespace {

std::intptr_t &call_count(void **pt) {
  return reinterpret_cast<std::intptr_t &>(pt_slot(pt, kPtCount));
}

void clear_factor_row(std::intptr_t *row) {
  row[0] = 0;
  row[1] = kSentinel;
  for (int k = 2; k < kFactorRowSlots; ++k) row[k] = 0;
}

// Releases row `mnum` of the factor table; returns 1 if it held factors.
int release_factor_row(void **pt, int mnum) {
  std::intptr_t *row = factor_row(pt, mnum);
  int held = 0;
  if (row[0] != 0 && row[0] != kSentinel) {
    std::free(reinterpret_cast<void *>(row[0]));
    held = 1;
  }
  clear_factor_row(row);
  return held;
}

int release_all_factor_rows(void **pt, const ControlBlock *cb) {
  if (!has_block(pt, kPtFactors)) return 0;
  int released = 0;
  for (int r = 1; r <= cb->factor_rows; ++r) released += release_factor_row(pt, r);
  return released;
}

// Releases the groups of analysis and numeric work, pt(20) down to pt(5).
void release_work_groups(void **pt) {
  for (int k = kPtLastUsed; k >= kPtOrderInt; --k) {
    if (k == kPtMatrixRecord) {
      if (has_block(pt, k)) smat_free(static_cast<smat *>(pt_slot(pt, k)));
      pt_slot(pt, k) = nullptr;
    } else {
      group_release(&pt_slot(pt, k));
    }
  }
}

// The factor table holds max(maxfct, 1) rows of six pointer-sized words.
int allocate_factor_table(void **pt, ControlBlock *cb, int maxfct) {
  const int rows = maxfct > 1 ? maxfct : 1;
  const std::int64_t bytes = static_cast<std::int64_t>(rows) * kFactorRowSlots * 8;
  const int code = group_alloc(cb, &pt_slot(pt, kPtFactors), bytes, -200);
  if (code == 0) {
    cb->factor_rows = rows;
    for (int r = 1; r <= rows; ++r) clear_factor_row(factor_row(pt, r));
  }
  return code;
}

// A new handle: control block and factor table.  Returns 0 or the code of
// the group that failed.
int create_handle(const CallArgs &c) {
  void **pt = c.pt;
  for (int k = kPtFactors; k <= kPtLastUsed; ++k)
    if (k != kPtRealWork) pt_slot(pt, k) = nullptr;
  int code = group_alloc(nullptr, &pt_slot(pt, kPtControl), kControlBlockBytes, -100);
  if (code != 0) return code;
  ControlBlock *cb = control_of(pt);
  for (auto &word : cb->offsets) word = kSentinel;
  code = allocate_factor_table(pt, cb, *c.maxfct);
  // The running counter starts with the control block and the table.
  cb->mem_kb = 4 + static_cast<std::int64_t>(cb->factor_rows) * 48 / 1024;
  cb->mem_peak_kb = cb->mem_kb;
  return code;
}

// Start of an analysis: every setting of the control block afresh.
void reset_control(const CallArgs &c, ControlBlock *cb) {
  int *iparm = c.iparm;
  const int mtype = *c.mtype;
  call_count(c.pt) = 0;
  cb->s = ControlState{};
  for (auto &v : cb->rctl) v = 0.0;
  for (auto &word : cb->offsets) word = kSentinel;
  cb->mem_peak_kb = cb->mem_kb;
  if (ip(iparm, 1) == 0) reset_iparm(iparm, mtype);
  if (is_sym_indefinite_group(mtype) || is_unsym_group(mtype)) {
    if (ip(iparm, 13) > 0) cb->s.matching_mode = ip(iparm, 13);
    cb->s.scaling_on =
        ((ip(iparm, 11) == 1 && ip(iparm, 13) >= 1) || (ip(iparm, 11) == 2 && ip(iparm, 30) >= 1))
            ? 1
            : 0;
    cb->s.transposed = ip(iparm, 12) == 1 ? 1 : 0;
  }
  cb->s.mmd_on_separator = 1;
  rctl(cb, kRctlTen) = 10.0;
  rctl(cb, kRctlOne) = 1.0;
  rctl(cb, kRctlHybridTol) = 1e-12;
  rctl(cb, kRctlFloor) = 1e-30;
  cb->s.old_maxfct_marker = 0x7fffffff;
  cb->s.order_consts[0] = 6;
  cb->s.order_consts[1] = 2;
  cb->s.order_consts[2] = 2;
  cb->s.order_consts[3] = 10000;
  if (has_block(c.pt, kPtFactors))
    for (int r = 1; r <= cb->factor_rows; ++r) clear_factor_row(factor_row(c.pt, r));
}

// Allocates a memory group; a refusal becomes the failure -2 with the
// group's code and size.  Returns 0 or the code.
int alloc_group(ControlBlock *cb, void **slot, std::int64_t bytes, int code, Failure *f) {
  const int failed = group_alloc(cb, slot, bytes, code);
  if (failed != 0) {
    *f = Failure{-2, failed};
    f->bytes = bytes;
  }
  return failed;
}

// Allocates a group for the analysis; a negative size (counts beyond what
// the library indexes) fails like a refused allocation.
int analysis_group(const CallArgs &c, ControlBlock *cb, int slot, std::int64_t bytes, int code,
                   Failure *f) {
  group_release(&pt_slot(c.pt, slot));
  return alloc_group(cb, &pt_slot(c.pt, slot), bytes, code, f);
}

// Runs one stage of analysis; a failure becomes result -3 (-8 for an index
// overflow) with the stage's code, or -2 when the ordering ran out of
// memory: reported as the ordering's work group, "STRUC_S1".
int analysis_stage(const CallArgs &c, ControlBlock *cb, int stage, Failure *f) {
  int st = stage;
  const int code = NUMERIC_DRIVER_VELMORA(c, cb, &st);
  if (code != 0 && st == -2) {
    *f = Failure{-2, -600};
  } else if (code != 0) {
    f->result = st == -8 || code == -182 ? -8 : -3;
    f->code = code;
  }
  return code;
}

// The matching permutation and scaling factors of a general matrix: the
// maximum-product matching when iparm(13) asks for it, else the identity
// and unit factors.  A structurally singular matrix ends the analysis with
// result -6.
int unsymmetric_matching(const CallArgs &c, ControlBlock *cb, Failure *f) {
  const std::int64_t n = *c.n;
  const std::int64_t rows = n * (std::int64_t{cb->factor_rows} + 1);
  if (analysis_group(c, cb, kPtMatching, 4 * rows, -403, f) != 0) return -1;
  if (analysis_group(c, cb, kPtScaling, 16 * n, -404, f) != 0) return -1;
  int *match = static_cast<int *>(pt_slot(c.pt, kPtMatching));
  double *scale = static_cast<double *>(pt_slot(c.pt, kPtScaling));
  for (std::int64_t k = 0; k < rows; ++k) match[k] = static_cast<int>(k % n) + 1;
  for (std::int64_t k = 0; k < 2 * n; ++k) scale[k] = 1.0;
  if (cb->s.matching_mode < 1) return 0;
  int rank = 0;
  const int code = run_matching(*c.mtype, *c.n, c.ia, c.ja, static_cast<const double *>(c.a),
                                cb->s.schur_size, cb->s.matching_mode, match, scale, &rank);
  if (code == kMatchNoMemory) {
    *f = Failure{-2, -401};
    return -1;
  }
  if (code != 0) {
    *f = Failure{-6, -rank, rank, *c.n};
    return -1;
  }
  return 0;
}

// The filled structure of a symmetric matching, when analysis kept one.
const smat *filled_matrix(void **pt) {
  return has_block(pt, kPtMatrixRecord) ? static_cast<const smat *>(pt_slot(pt, kPtMatrixRecord))
                                        : nullptr;
}

// Symmetric indefinite matrices with iparm(13) set: a matching pairs rows
// whose 2x2 blocks hold large entries, and the ordering of the compressed
// graph keeps each pair adjacent.  The resulting order goes to pt(15); the
// analysis then takes it as given.
int symmetric_matching(const CallArgs &c, ControlBlock *cb, Failure *f) {
  ControlState &s = cb->s;
  const int n = *c.n;
  const std::int64_t rows = std::int64_t{n} * (std::int64_t{cb->factor_rows} + 1);
  // The ordering of the compressed graph splits it into one domain per
  // thread, as the plain ordering would; a partial solve keeps one.
  const int target =
      s.sparse_rhs > 0 ? 1
                       : domain_target(n, analysis_team(s.nthreads, s.identical_results), s.nnodes);
  if (analysis_group(c, cb, kPtMatching, 4 * rows, -403, f) != 0 ||
      analysis_group(c, cb, kPtScaling, 16 * std::int64_t{n}, -404, f) != 0 ||
      analysis_group(c, cb, kPtSymMatching, kept_matching_bytes(n, target), -400, f) != 0)
    return -1;
  int *match = static_cast<int *>(pt_slot(c.pt, kPtMatching));
  double *scale = static_cast<double *>(pt_slot(c.pt, kPtScaling));
  int rank = 0;
  const int code = run_matching(s.mtype, n, c.ia, c.ja, static_cast<const double *>(c.a),
                                s.schur_size, s.matching_mode, match, scale, &rank);
  if (code == kMatchNoMemory) {
    *f = Failure{-2, -401};
    return -1;
  }
  if (code != 0) {
    *f = Failure{-6, -rank, rank, n};
    return -1;
  }
  SymmetricMatching out{};
  out.perm = static_cast<int *>(pt_slot(c.pt, kPtSymMatching));
  out.target = target;
  // iparm(13) 2 and 4: both rows of every pair get one pattern (the filled
  // structure Af), so that a pair always stays in one supernode.  Af is
  // built on rows that hold their diagonal; without it the pairs are only
  // ordered together.
  bool every_diagonal = true;
  for (int i = 0; every_diagonal && i < n; ++i)
    every_diagonal = c.ia[i] < c.ia[i + 1] && c.ja[c.ia[i] - 1] == i + 1;
  const int fill = (s.matching_mode == 2 || s.matching_mode == 4) && every_diagonal ? 1 : 0;
  run_symmetric_matching(s.mtype, n, c.ia, c.ja, static_cast<const double *>(c.a), s.schur_size,
                         match, s.ordering, ip(c.iparm, 28), fill, &out);
  // The pivot kinds and the domains stay in pt(15) beside the order.
  keep_symmetric_matching(out, n, pt_slot(c.pt, kPtSymMatching));
  if (out.pivots) bitvec_free(out.pivots);
  if (out.ddist) perm_free(out.ddist);
  int failed = 0;
  if (out.Af && out.status == 0) {
    // Af in pt(16) (its own record), the place of each entry of A in Af
    // in pt(18).
    pt_slot(c.pt, kPtMatrixRecord) = out.Af;
    out.Af = nullptr;
    failed = analysis_group(c, cb, kPtBlockA, 4 * std::int64_t{s.nnz}, -400, f);
    if (failed == 0)
      std::memcpy(pt_slot(c.pt, kPtBlockA), out.map_o2f->p, 4 * static_cast<std::size_t>(s.nnz));
  }
  if (out.Af) smat_free(out.Af);
  if (out.map_o2f) perm_free(out.map_o2f);
  if (failed != 0) return -1;
  if (out.status != 0) {
    *f = Failure{-3, out.status};
    return -1;
  }
  s.sym_matched = 1;
  return 0;
}

// Work below which a phase runs its regions on the calling thread: a solve
// of fewer factor entries times right-hand sides, an analysis of fewer
// entries of A.  Either is done in about what waking a sleeping team costs
// for each of its regions.
constexpr double kSerialSolveEntries = 3.0e5;
constexpr double kSerialAnalysisEntries = 2.0e5;

// Narrows the team of the regions of a small piece of work to the calling
// thread for the duration, and restores it.  What the work computes does
// not depend on it: the threads a result is shaped for come from iparm(3).
class SerialIfSmall {
 public:
  SerialIfSmall(double work, double limit) {
    const int team = omp_get_max_threads();
    if (team > 1 && work < limit) {
      saved_ = team;
      omp_set_num_threads(1);
    }
  }
  ~SerialIfSmall() {
    if (saved_ > 0) omp_set_num_threads(saved_);
  }
  SerialIfSmall(const SerialIfSmall &) = delete;
  SerialIfSmall &operator=(const SerialIfSmall &) = delete;

 private:
  int saved_ = 0;
};

double solve_entries(const ControlState &s, int nrhs) {
  return static_cast<double>(s.nnz_l + s.nnz_u) * std::max(nrhs, 1);
}

int analysis_stages(const CallArgs &c, ControlBlock *cb, Failure *f);

// Analysis: the groups of each stage, then stages 1 to 3 of the numeric
// driver.  Returns the result class (0 or negative) and fills f.
int run_analysis(const CallArgs &c, ControlBlock *cb, Failure *f) {
  ControlState &s = cb->s;
  // A graph whose adjacency (both triangles) passes the 32-bit indices is
  // refused from the row pointers alone, before anything walks the columns
  // or allocates for them.
  if (c.ia[0] == 1 && ladj_mod_capacity(*c.n, c.ia) > kMaxAdjacency) {
    *f = Failure{-8, kReorderOverflow};
    return f->result;
  }
  // A pattern that would send a stage outside its arrays, or that the
  // matching and the maps would misread (repeated or unsorted columns,
  // entries below the diagonal of a symmetric type), is refused before any
  // of them sees it.
  int row = 0;
  const PatternFault fault = pattern_fault(s.mtype, *c.n, c.ia, c.ja, s.nnz, &row);
  if (fault != PatternFault::kNone) {
    *f = Failure{-3, kCodeBadPattern, row, 0, pattern_fault_text(fault)};
    return f->result;
  }
  // Leaves of the tree for the threads: the smallest power of two at least
  // nthreads*nnodes, at most n.
  std::int64_t team = std::int64_t{s.nthreads} * s.nnodes, leaves = 1;
  while (leaves < team) leaves *= 2;
  leaves = std::min<std::int64_t>(leaves, *c.n);
  s.stack_size = std::max<std::int64_t>(8 * leaves + 4, 16);

  const SerialIfSmall small(static_cast<double>(s.nnz) + *c.n, kSerialAnalysisEntries);
  if (*c.mtype > 10 && unsymmetric_matching(c, cb, f) != 0) return f->result;
  if (is_sym_indefinite_group(*c.mtype) && s.matching_mode >= 1 &&
      symmetric_matching(c, cb, f) != 0)
    return f->result;

  // With a filled structure the analysis works on Af: its pattern holds A's.
  const smat *af = filled_matrix(c.pt);
  CallArgs ca = c;
  const int user_nnz = s.nnz;
  if (af) {
    ca.ia = af->ia;
    ca.ja = af->ja;
    ca.a = af->a;
    s.nnz = static_cast<int>(af->nnz);
  }
  const int result = analysis_stages(ca, cb, f);
  s.nnz = user_nnz;
  return result;
}

// The update lists of the parallel factorization into pt(12), the
// two-level form counted through a temporary list ("LOC_INT2") first (the
// distributed form counts into its own bucket pointers).
// Lists too long for their 32-bit entries are not made: the factorization
// then runs on one thread.
int update_lists(const CallArgs &c, ControlBlock *cb, Failure *f) {
  ControlState &s = cb->s;
  s.list_form = 0;
  s.list_buckets = 0;
  s.list_sources = 0;
  s.list_total = 0;
  s.list_bytes = 0;
  group_release(&pt_slot(c.pt, kPtUpdateLists));
  const int form = update_lists_form(c.pt, cb);
  if (form == 0) return 0;
  const double t0 = omp_get_wtime();
  const UpdateListsInput in = update_lists_input(c.pt, cb);
  const NodeSplit split = node_split(c.pt, cb);
  std::int64_t total = 0;
  if (form == kDistributedListForm) {
    total = count_distributed_lists(in, split);
  } else if (form == 2) {
    void *counts = nullptr;
    const std::int64_t count_bytes = 4 * update_list_buckets(in);
    const int code = alloc_group(cb, &counts, count_bytes, -900, f);
    if (code != 0) return code;
    total = count_update_lists(in, static_cast<int *>(counts));
    group_release(&counts);
  } else {
    total = count_target_lists(in);
  }
  if (total >= 1000000000) return 0;
  s.list_total = total;
  const std::int64_t bytes = update_lists_bytes(in, split, form, total);
  if (analysis_group(c, cb, kPtUpdateLists, bytes, -1000, f) != 0) return f->result;
  s.list_bytes = bytes;
  // The classical form's work order weighs the subtrees in a temporary
  // list too.
  void *scratch = nullptr;
  if (form == 1) {
    const std::int64_t scratch_bytes = 20 * std::int64_t{in.nsuper} + 8;
    const int code = alloc_group(cb, &scratch, scratch_bytes, -900, f);
    if (code != 0) return code;
  }
  write_update_lists(c.pt, cb, form, scratch);
  group_release(&scratch);
  add_time(cb, kTimeParList, omp_get_wtime() - t0);
  return 0;
}

// Stages 1 to 3 with their groups, on the pattern of c.
int analysis_stages(const CallArgs &c, ControlBlock *cb, Failure *f) {
  ControlState &s = cb->s;
  if (analysis_group(c, cb, kPtOrderInt, layout_ordering_block(c, cb), -400, f) != 0 ||
      analysis_group(c, cb, kPtOrderA, ordering_work_bytes(c, cb), -600, f) != 0)
    return f->result;
  if (analysis_stage(c, cb, kStageOrdering, f) != 0) return f->result;

  if (analysis_group(c, cb, kPtSymbolicWork, layout_symbolic_work(cb), -700, f) != 0)
    return f->result;
  if (analysis_stage(c, cb, kStageSymbolic, f) != 0) return f->result;

  if (analysis_group(c, cb, kPtSymbolic, layout_symbolic_block(cb) + 24, -800, f) != 0 ||
      analysis_group(c, cb, kPtOrderB, map_work_bytes(cb), -600, f) != 0)
    return f->result;
  if (analysis_stage(c, cb, kStageSizing, f) != 0) return f->result;
  if (update_lists(c, cb, f) != 0) return f->result;

  // The workspaces of analysis go; what stays is the permanent memory.
  s.peak_kb = static_cast<int>(std::min<std::int64_t>(cb->mem_peak_kb, 2147483647));
  for (int slot : {kPtOrderInt, kPtOrderA, kPtSymbolicWork, kPtOrderB})
    group_release(&pt_slot(c.pt, slot));
  std::int64_t permanent =
      4 + std::int64_t{cb->factor_rows} * 48 / 1024 + group_kilobytes(s.symbolic_bytes + 24);
  if (s.list_bytes > 0) permanent += group_kilobytes(s.list_bytes);
  if (has_block(c.pt, kPtMatching))
    permanent += group_kilobytes(4 * std::int64_t{*c.n} * (cb->factor_rows + 1)) +
                 group_kilobytes(16 * std::int64_t{*c.n});
  cb->mem_kb = permanent;
  s.perm_kb = static_cast<int>(std::min<std::int64_t>(permanent, 2147483647));
  return 0;
}

// Makes the work group pt(10) hold at least `bytes`.
int grow_work(const CallArgs &c, ControlBlock *cb, std::int64_t bytes, Failure *f) {
  if (has_block(c.pt, kPtPivotWork) && cb->s.work_bytes >= bytes) return 0;
  group_release(&pt_slot(c.pt, kPtPivotWork));
  cb->s.work_bytes = 0;
  const int code = alloc_group(cb, &pt_slot(c.pt, kPtPivotWork), bytes, -1200, f);
  if (code != 0) return code;
  cb->s.work_bytes = bytes;
  return 0;
}

// The factorization of this call: the factor block of row mnum (made or
// regrown), the work group, stage 4's factorization, and its counters in
// iparm.  Returns 0 or the code; *st the result class.
int factor_step(const CallArgs &c, ControlBlock *cb, const SolveInput &in, Failure *f, int *st) {
  void **pt = c.pt;
  int *iparm = c.iparm;
  std::intptr_t *row = factor_row(pt, *c.mnum);
  const std::int64_t need = factor_row_bytes(cb);
  if (row[kRowValues] == 0 || row[kRowBytes] < need) {
    release_factor_row(pt, *c.mnum);
    void *block = nullptr;
    const int code = alloc_group(cb, &block, need, -1100, f);
    if (code != 0) return code;
    row[kRowValues] = reinterpret_cast<std::intptr_t>(block);
    row[kRowTag] = row[kRowValues];
    row[kRowBytes] = need;
    row[kRowFactored] = 0;
  }
  // The work group takes the solve's share too, for the right-hand sides
  // of this call, so that solves after a factorization find it big enough.
  const bool rhs_known = c.nrhs != nullptr && *c.nrhs >= 1;
  if (grow_work(c, cb, numeric_work_bytes(cb, true, rhs_known ? &in : nullptr), f) != 0)
    return f->code;
  const double t0 = omp_get_wtime();
  const int code = numeric_factorize(c, cb, st);
  cb->s.hybrid_factor_seconds = omp_get_wtime() - t0;
  ip(iparm, 14) = cb->s.perturbed_pivots;
  ip(iparm, 22) = cb->s.inertia_pos;
  ip(iparm, 23) = cb->s.inertia_neg;
  if (cb->s.determinant == 1 && c.dparm) {
    c.dparm[32] = rctl(cb, kRctlLogDet2);
    const int t = cb->s.mtype;
    if (t == 3 || t == 6 || t == 13) c.dparm[31] = rctl(cb, kRctlLogDet1);
  }
  return code;
}

// The solve of this call with its refinement, whose right-hand side lives
// in pt(11) only.
int solve_step(const CallArgs &c, ControlBlock *cb, const SolveInput &in, Failure *f, int *st) {
  void **pt = c.pt;
  int *iparm = c.iparm;
  if (*c.phase == 33) {
    // A caller may declare the factor perturbed so that the solve refines.
    if (ip(iparm, 14) > 0) cb->s.perturbed_pivots = ip(iparm, 14);
  }
  if (grow_work(c, cb, numeric_work_bytes(cb, false, &in), f) != 0) return f->code;
  const std::int64_t refine = refine_work_bytes(c, cb, in);
  if (refine > 0) {
    const int failed = alloc_group(cb, &pt_slot(pt, kPtRefineWork), refine, -1300, f);
    if (failed != 0) return failed;
    cb->s.refine_bytes = refine;
  }
  *st = kStageNumeric;
  const SerialIfSmall team(solve_entries(cb->s, in.nrhs), kSerialSolveEntries);
  const int code = numeric_solve(c, cb, in, st);
  group_release(&pt_slot(pt, kPtRefineWork));
  cb->s.refine_bytes = 0;
  ip(iparm, 7) = cb->s.refine_steps;
  return code;
}

// The limit of the next hybrid run from the seconds of a solve, and its
// stagnation check; `after_factor` is the form that follows a
// factorization (at most 100, none for an unmeasurable solve).  A limit
// below 1 makes the next numeric phase factor.  Returns the limit.
int set_hybrid_budget(ControlBlock *cb, double solve_seconds, bool after_factor) {
  ControlState &s = cb->s;
  const int k = s.hybrid_mode;
  int m = 0;
  if (solve_seconds > 1.000000013351432e-10) {
    const double t =
        std::abs(k) * 3.0 * s.hybrid_factor_seconds / solve_seconds * 0.44999998807907104 + 1.0;
    m = t >= 1e9 ? 1000000000 : static_cast<int>(t);
    if (after_factor)
      m = std::min(m, 100);
    else if (m >= 101)
      m = k >= 1 ? 100 : 150;
    else if (k < 0)
      m = 150;
  } else {
    m = after_factor || k >= 0 ? 0 : 150;
  }
  s.hybrid_budget = m;
  s.hybrid_check = static_cast<int>(static_cast<float>(m) * 0.5f + 1.0f);
  if (m < 1) s.hybrid_ready = 0;
  return m;
}

int budget_before_iteration(ControlBlock *cb, double solve_seconds) {
  return set_hybrid_budget(cb, solve_seconds, false);
}

// Numeric work with iparm(4) set: a factorization only when the last run
// asks for it (or no factor is stored); otherwise the iteration on the
// old factor, and when it fails in a factorizing phase, the factorization
// after all, once.
int run_hybrid(const CallArgs &c, ControlBlock *cb, Failure *f) {
  int *iparm = c.iparm;
  ControlState &s = cb->s;
  const int phase = *c.phase;
  const bool solve = phase % 10 == 3;
  const SolveInput in = solve_input(c, cb);
  const bool stored = factor_row(c.pt, *c.mnum)[kRowFactored] == 1;
  bool factor_now = false;
  if (phase < 30) {
    factor_now = s.hybrid_ready == 0 || (s.hybrid_mode > 0 && s.hybrid_budget < 5) ||
                 ip(iparm, 20) < 0 || !stored;
  }
  bool factored = false;
  int code = 0, st = kStageNumeric;
  for (;;) {
    if (factor_now) {
      code = factor_step(c, cb, in, f, &st);
      if (code != 0) break;
      factored = true;
      s.hybrid_ready = 1;
    }
    if (!solve) break;
    if (factored) {  // the plain solve, which also measures the next limit
      const double t0 = omp_get_wtime();
      code = solve_step(c, cb, in, f, &st);
      set_hybrid_budget(cb, omp_get_wtime() - t0, true);
      break;
    }
    if (grow_work(c, cb, numeric_work_bytes(cb, false, &in), f) != 0) return f->result;
    const std::int64_t bytes = hybrid_work_bytes(c, cb, in);
    if (alloc_group(cb, &pt_slot(c.pt, kPtRefineWork), bytes, -1300, f) != 0) return f->result;
    HybridRun run;
    {
      const SerialIfSmall team(solve_entries(s, in.nrhs), kSerialSolveEntries);
      code = numeric_hybrid(c, cb, in, budget_before_iteration, &run);
    }
    group_release(&pt_slot(c.pt, kPtRefineWork));
    ip(iparm, 7) = 0;
    if (code != 0) {
      st = -4;
      break;
    }
    if (!run.allowed) {
      ip(iparm, 20) = -5;  // the limit allowed no iteration
    } else {
      ip(iparm, 20) = run.code != 0 ? run.code - 10 * run.iterations : run.iterations;
    }
    if (run.code == 0) break;
    s.hybrid_ready = 0;
    if (phase < 30 && s.hybrid_mode > 0) {  // once, with the limit kept
      factor_now = true;
      continue;
    }
    *f = Failure{-4, -3};
    return f->result;
  }
  if (code == kCodeNotAvailable) {
    *f = Failure{-1, kCodeNotAvailable, 0, 0, factored ? "numerical factorization" : "solve"};
  } else if (code != 0 && f->result == 0) {
    f->result = st < 0 ? st : -4;
    f->code = code;
  }
  return f->result;
}

// Numeric work: the factor block of row mnum and the work group, then
// stage 4.  Counters of the factorization go to iparm.
int run_numeric(const CallArgs &c, ControlBlock *cb, Failure *f) {
  const int phase = *c.phase;
  const bool factor = phase < 30;
  const bool solve = phase % 10 == 3;
  if (*c.mnum < 1 || *c.mnum > cb->factor_rows) {
    *f = Failure{-1, 3, *c.maxfct, *c.mnum};
    return f->result;
  }
  if (cb->s.hybrid_mode != 0) return run_hybrid(c, cb, f);
  // The factorization runs first, on its own; then the solve with its
  // refinement.
  int code = 0, st = kStageNumeric;
  const SolveInput in = solve_input(c, cb);
  if (factor) code = factor_step(c, cb, in, f, &st);
  if (f->result != 0) return f->result;
  if (code == 0 && solve) code = solve_step(c, cb, in, f, &st);
  if (f->result != 0) return f->result;
  if (code == kCodeNotAvailable) {
    *f = Failure{-1, kCodeNotAvailable, 0, 0, factor ? "numerical factorization" : "solve"};
  } else if (code != 0) {
    f->result = st < 0 ? st : -4;
    f->code = code;
  }
  return f->result;
}

// The end of every call that reached the handle.
void finish_call(const CallArgs &c, ControlBlock *cb, Failure f) {
  int *iparm = c.iparm;
  const int phase = *c.phase;
  const int level = message_level(c.msglvl);
  if (cb) {
    ip(iparm, 15) = cb->s.peak_kb;
    ip(iparm, 16) = cb->s.perm_kb;
    ip(iparm, 17) = cb->s.factor_kb;
  }
  int result = f.result;
  if (result < 0) {
    if (level == 0 && result == -1) result = -7;
    if (level > 0) {
      if (phase < 0) report_line("*** error velmora: internal error ");
      f.result = result;
      report_failure(f, cb, iparm, phase);
    }
  }
  if (level > 0 && cb && (phase > 0 || result == 0)) report_statistics(c, cb, 0);
  if (cb) {
    cb->s.internal_error = f.code;
    if (phase >= 0) cb->s.internal_error = 0;
  }
  *c.error = result;
  dump_solution(c);
}

// Ends a call of phase -22: the memory figures, the failure report at
// msglvl 1 and the result, without the statistics.
int end_inverse(const CallArgs &c, ControlBlock *cb, Failure f) {
  ip(c.iparm, 15) = cb->s.peak_kb;
  ip(c.iparm, 16) = cb->s.perm_kb;
  ip(c.iparm, 17) = cb->s.factor_kb;
  const int level = message_level(c.msglvl);
  if (f.result == -1 && level == 0) f.result = -7;
  if (f.result < 0 && level > 0) report_failure(f, cb, c.iparm, *c.phase);
  *c.error = f.result;
  return f.code;
}

// iparm(37) 1: the result kept as a symmetric matrix is: the upper
// triangle of each row, compacted in place in ia, ja and a.
void keep_upper_triangle(const CallArgs &c, int width) {
  const int n = *c.n;
  int *ia = const_cast<int *>(c.ia);
  int *ja = const_cast<int *>(c.ja);
  double *a = static_cast<double *>(c.a);
  int next = 0;
  int start = ia[0] - 1;
  for (int i = 0; i < n; ++i) {
    const int end = ia[i + 1] - 1;
    ia[i] = next + 1;
    for (int k = start; k < end; ++k) {
      if (ja[k] < i + 1) continue;
      ja[next] = ja[k];
      for (int w = 0; w < width; ++w)
        a[std::int64_t{next} * width + w] = a[std::int64_t{k} * width + w];
      ++next;
    }
    start = end;
  }
  ia[n] = next + 1;
}

// Phase -22: the entries of A^-1 on the caller's pattern from the factor
// of row mnum, in the kernels' own work group pt(19) and, for iparm(36) 1,
// the copy of the factor in pt(20); both are released at the end.
int run_inverse(const CallArgs &c, ControlBlock *cb) {
  void **pt = c.pt;
  if (!c.a || !c.ia || !c.ja)
    return end_inverse(c, cb,
                       Failure{-1, kCodeNullArgument, 0, 0,
                               !c.a    ? "a"
                               : !c.ia ? "ia"
                                       : "ja"});
  FactorView<void> v;
  if (!stored_factor(pt, *c.mnum, &v)) return end_inverse(c, cb, Failure{-1, kCodeNoAnalysis});
  // The result is written at the places of the analysed pattern: the order
  // and the row pointers must still be those (the columns are checked as
  // they are read).
  const int n = cb->s.neqns;
  if (*c.n != n) return end_inverse(c, cb, Failure{-1, 6, *c.n, n});
  bool rows_ok = c.ia[0] == 1 && c.ia[n] - 1 == cb->s.nnz;
  for (int i = 0; rows_ok && i < n; ++i) rows_ok = c.ia[i] <= c.ia[i + 1];
  if (!rows_ok) return end_inverse(c, cb, Failure{-1, 8, c.ia[n] - 1, cb->s.nnz});
  if (cb->s.schur_size > 0)
    return end_inverse(
        c, cb, Failure{-1, kCodeNotAvailable, 0, 0, "inversion of a factor with a Schur block"});
  if (factor_row(pt, *c.mnum)[kRowSingle] != 0)
    return end_inverse(
        c, cb, Failure{-1, kCodeNotAvailable, 0, 0, "inversion of a single-precision factor"});
  const int keep = ip(c.iparm, 36);
  if (keep < 0 || keep > 2) return end_inverse(c, cb, Failure{-1, kCodeInverseMode, keep});
  Failure f;
  const std::int64_t held_kb = cb->mem_kb;
  int code = group_alloc(cb, &pt_slot(pt, kPtBlockB), inverse_work_bytes(pt, cb), -1200);
  if (code == 0 && keep == 1)
    code = group_alloc(cb, &pt_slot(pt, kPtBlockC), inverse_copy_bytes(cb), -1100);
  if (code != 0) {
    std::printf("ALLOCATION ERROR %s\n", has_block(pt, kPtBlockB) ? "MATRIX_L" : "INDMAPNEW");
    std::fflush(stdout);
    f = Failure{-2, code};
    f.bytes = cb->fail_bytes;
  } else {
    InverseFailure fe;
    const int status = numeric_inverse(c, cb, pt_slot(pt, kPtBlockB), pt_slot(pt, kPtBlockC), &fe);
    if (status == 1) {
      f = Failure{-5, fe.reading ? kCodeInverseRead : kCodeInverseWrite, fe.sys_error, 0, fe.file};
    } else if (status == 2) {
      f = Failure{-4, kCodeInverseStopped, fe.kernel};
    } else if (ip(c.iparm, 37) == 1) {
      keep_upper_triangle(c, cb->s.complex_factor);
    }
  }
  group_release(&pt_slot(pt, kPtBlockC));
  group_release(&pt_slot(pt, kPtBlockB));
  cb->mem_kb = held_kb;  // the peak keeps what the call held
  return end_inverse(c, cb, f);
}

}  // namespace

const char *missing_argument(const CallArgs &c) {
  if (!c.pt) return "pt";
  if (!c.maxfct) return "maxfct";
  if (!c.mnum) return "mnum";
  if (!c.mtype) return "mtype";
  if (!c.n) return "n";
  if (!c.iparm) return "iparm";
  const int phase = *c.phase;
  if (phase >= 10 && phase < 30) {
    if (!c.a) return "a";
    if (!c.ia) return "ia";
    if (!c.ja) return "ja";
  }
  if (phase == 13 || phase == 23 || phase == 33) {
    if (!c.nrhs) return "nrhs";
    if (!c.b) return "b";
    if (!c.x) return "x";
  }
  if (phase >= 10 && !c.perm &&
      (ip(c.iparm, 5) != 0 || ip(c.iparm, 31) != 0 || ip(c.iparm, 40) > 0))
    return "perm";
  if (!c.dparm && (ip(c.iparm, 32) == 1 || ip(c.iparm, 33) == 1)) return "dparm";
  return nullptr;
}

void fail_without_handle(const CallArgs &c, const Failure &f) {
  const int level = message_level(c.msglvl);
  Failure g = f;
  if (level == 0 && g.result == -1) g.result = -7;
  if (level > 0) report_failure(g, nullptr, c.iparm, *c.phase);
  *c.error = g.result;
}

int VELMORA_CCC(const CallArgs &c) {
  void **pt = c.pt;
  int *iparm = c.iparm;
  const int phase = *c.phase;
  const int level = message_level(c.msglvl);
  const double call_start = omp_get_wtime();
  ip(iparm, 50) = 0;
  *c.error = 0;
  dump_input(c);
  Failure f;
  ControlBlock *cb = control_of(pt);

  // Selected inversion works on stored factors only.
  if (phase == -22 && cb) {
    static const int kInvertible[] = {1, 3, 6, 11, 13, -2};
    for (int t : kInvertible)
      if (*c.mtype == t) return run_inverse(c, cb);
    return 0;
  }

  if (ip(iparm, 32) == 1) {
    static const int kIterativePhases[] = {-1, 11, 12, 13, 22, 23, 33};
    for (int p : kIterativePhases)
      if (phase == p) {
        fail_without_handle(c, Failure{-1, kCodeNotAvailable, 0, 0, "iterative solver"});
        return kCodeNotAvailable;
      }
    return 0;
  }

  const bool analysis = phase >= 11 && phase <= 13;
  if (!cb) {
    // Release of a diagonal matrix: nothing was ever allocated.
    if (phase < 1 && ip(iparm, 12) == -1) return 0;
    const int code = create_handle(c);
    cb = control_of(pt);
    if (code != 0) {
      f = Failure{-2, code};
      f.bytes = cb ? cb->fail_bytes : kControlBlockBytes;
      finish_call(c, cb, f);
      return code;
    }
    if (phase < 1) {
      // A handle made by a release call is marked as made by mistake.
      cb->s.error_state = -1;
      return 0;
    }
    reset_control(c, cb);
  } else if (phase == 0) {
    const int mnum = *c.mnum;
    if (mnum > cb->factor_rows || mnum < 1 || !has_block(pt, kPtFactors)) {
      f = Failure{-1, kCodeWrongMatrixNumber, mnum};
    } else {
      release_factor_row(pt, mnum);
    }
    finish_call(c, cb, f);
    return f.code;
  } else if (analysis || phase == -1) {
    ip(iparm, 15) = 0;
    ip(iparm, 16) = 0;
    ip(iparm, 17) = 0;
    const int released = release_all_factor_rows(pt, cb);
    release_work_groups(pt);
    if (phase == -1) {
      group_release(&pt_slot(pt, kPtFactors));
      group_release(&pt_slot(pt, kPtControl));
      call_count(pt) = 0;
      if (level > 0) report_statistics(c, nullptr, released);
      return 0;
    }
    if (*c.maxfct > cb->factor_rows) {
      group_release(&pt_slot(pt, kPtFactors));
      const int code = allocate_factor_table(pt, cb, *c.maxfct);
      if (code != 0) {
        f = Failure{-2, code};
        f.bytes = cb->fail_bytes;
        finish_call(c, cb, f);
        return code;
      }
    }
    reset_control(c, cb);
  }

  for (auto &flag : cb->timer_flags) flag = 0;
  cb->call_start = call_start;

  // The nonzero count: taken from ia by analysis and factorization, the
  // stored one by a solve, so that ia need not be valid in a solve.
  const int first = phase / 10;
  const int last = phase % 10;
  if (first == 1 || first == 2) cb->s.nnz = *c.n >= 1 ? c.ia[*c.n] - 1 : 0;
  int check = CHECK_INPUT_FC(c, cb, cb->s.nnz, &f);
  // A solve on a handle that was never analysed has no stored count: the
  // count test fails for want of an analysis, and is reported as such.
  if (check == 8 && first == 3 && !has_block(pt, kPtSymbolic)) {
    f = Failure{};
    check = 0;
  }
  if (check == kCheckDiagonalDone) return 0;
  if (check < 0) {
    f = Failure{-7, check};
  } else if (check > 0) {
    f.result = -1;
  } else if (!has_block(pt, kPtSymbolic) && (first == 2 || first == 3)) {
    f = Failure{-1, kCodeNoAnalysis};
  } else if (first == 1) {
    run_analysis(c, cb, &f);
    if (f.result == 0 && (last > 1 || first > 1)) run_numeric(c, cb, &f);
  } else {
    run_numeric(c, cb, &f);
  }
  finish_call(c, cb, f);
  return f.code;
}

}  // namespace vm
