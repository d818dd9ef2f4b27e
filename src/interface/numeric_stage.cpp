// numeric_stage.cpp - stage 4: the numeric factorization of row mnum of the
// factor table and the solve with it, on the arrays the phase driver
// allocated in named groups.  Nothing here allocates.
//
// Group pt(10), the work group, holds the factorization's integer maps
// (indmap, relind per thread, link, length) and update buffers (temp per
// thread), or the solve's work for the call's right-hand sides; the phase
// driver regrows it when a call needs more than it holds.
#include "interface/numeric_stage.h"

#include <omp.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "common/matrix_type.h"
#include "factor/factor_args.h"
#include "factor/factor_shell.h"
#include "factor/scalar_traits.h"
#include "factor/workspace.h"
#include "interface/numeric_driver.h"
#include "interface/report_error.h"
#include "interface/velmora_c.h"
#include "solve/pre_cgs.h"
#include "solve/refine.h"
#include "solve/selinv.h"
#include "solve/solve.h"
#include "velmora_smat.h"

namespace vm {

namespace {

constexpr std::int64_t align8(std::int64_t bytes) {
  return (bytes + 7) / 8 * 8;
}

// Bytes of one scalar of the working type (the caller's vectors, the
// solve's gathered right-hand sides).
std::int64_t scalar_bytes(const ControlBlock *cb) {
  return 8 * std::int64_t{cb->s.complex_factor};
}

// Bytes of one entry of a factor made with this call's settings: a float
// in single-precision mode.
std::int64_t factor_scalar_bytes(const ControlBlock *cb) {
  return cb->s.single_precision != 0 ? 4 : scalar_bytes(cb);
}

struct RowLayout {
  std::int64_t unz, pivot, pivot_col, bytes;
};

// The factor block of a row: lnz, unz, then pivot and pivot_col.  A
// single-precision factor takes the double count of its values halved,
// rounded up, plus one.
RowLayout row_layout(const ControlBlock *cb, bool single) {
  const ControlState &s = cb->s;
  const std::int64_t w = single ? 4 : scalar_bytes(cb), n = s.neqns;
  const std::int64_t nnz_u = stores_u(s.mtype) ? s.nnz_u : 0;
  RowLayout l{};
  l.unz = align8(s.nnz_l * w);
  l.pivot = single ? 8 * ((s.nnz_l + nnz_u + 1) / 2 + 1) : align8(l.unz + nnz_u * w);
  l.pivot_col = align8(l.pivot + 4 * n);
  l.bytes = align8(l.pivot_col + 4 * n) + 8;
  return l;
}

// Threads that factor, and so the slices of the factorization's workspace
// (indmap, relind, temp): the team when the analysis wrote the update
// lists of the two-level loop and the parallel member runs, else one.
int factor_threads(const ControlBlock *cb) {
  return factor_runs_parallel(cb->s) ? cb->s.nthreads : 1;
}

// Whether the factorization walks the analysis' update lists.
bool factor_uses_lists(const ControlBlock *cb) {
  return factor_runs_parallel(cb->s) || factor_runs_fixed_order(cb->s);
}

// Integers of the factorization's work: the task slices and chains, then
// the state of the two-level loop when it runs.
std::int64_t factor_ints(const ControlBlock *cb) {
  const ControlState &s = cb->s;
  std::int64_t ints = factor_work_ints(s.neqns, s.nsuper, factor_threads(cb));
  if (factor_runs_distributed(s)) {
    ints += top_work_ints(s.list_buckets, s.list_sources);
  } else if (factor_uses_lists(cb)) {
    ints += s.list_form == 2 ? top_work_ints(s.list_buckets, s.ndom + 1)
                             : queue_work_ints(s.nsuper, s.list_total);
  }
  return ints;
}

}  // namespace

SolveInput solve_input(const CallArgs &c, const ControlBlock *cb) {
  void **pt = c.pt;
  const ControlState &s = cb->s;
  int *iparm = c.iparm;
  SolveInput in;
  in.n = s.neqns;
  in.nrhs = c.nrhs ? *c.nrhs : 1;
  in.mtype = s.mtype;
  in.to_b = ip(iparm, 6) == 1 ? 1 : 0;
  in.selector = ip(iparm, 26);
  in.parallel = s.two_level_solve;
  in.partial = s.sparse_rhs;
  in.k = s.marked_rows;
  in.fwnodes = s.sparse_rhs ? s.marked_rows : 0;
  in.bwnodes = in.fwnodes;
  in.transposed = s.transposed;
  in.scaling_on = s.scaling_on;
  const bool matching = pt_slot(pt, kPtScaling) != nullptr;
  in.scale = matching ? static_cast<const double *>(pt_slot(pt, kPtScaling)) : nullptr;
  if (!in.scale) in.scaling_on = 0;
  in.perm = carved<int>(pt, cb, kPtSymbolic, kSymPerm);
  in.q = s.mtype > 10 && pt_slot(pt, kPtMatching)
             ? static_cast<const int *>(pt_slot(pt, kPtMatching))
             : nullptr;
  in.unselected = s.sparse_rhs > 0 ? carved<int>(pt, cb, kPtSymbolic, kSymUnselected) : nullptr;
  in.ntasks = s.ndom;
  in.taskrange = carved<int>(pt, cb, kPtSymbolic, kSymDomains);
  in.nthreads = std::max(1, s.nthreads);
  in.iparm21 = s.unit_pivots == 1 ? 1 : s.iparm21;  // unit pivots are stored as 1x1 blocks
  in.partitioned = factor_runs_distributed(s) ? 1 : 0;
  return in;
}

namespace {

// The symbolic factor of the handle's analysis, carved from pt(8).
SymbolicFactor symbolic_factor(void **pt, const ControlBlock *cb) {
  const ControlState &s = cb->s;
  SymbolicFactor sf;
  sf.n = s.neqns;
  sf.nsuper = s.nsuper;
  sf.xsuper = carved<int>(pt, cb, kPtSymbolic, kSymXsuper);
  sf.snode = carved<int>(pt, cb, kPtSymbolic, kSymSnode);
  sf.xlindx = carved<std::int64_t>(pt, cb, kPtSymbolic, kSymXlindx);
  sf.lindx = carved<int>(pt, cb, kPtSymbolic, kSymLindx);
  sf.xlnz = carved<std::int64_t>(pt, cb, kPtSymbolic, kSymXlnz);
  sf.xunz = stores_u(s.mtype) ? carved<std::int64_t>(pt, cb, kPtSymbolic, kSymXunz) : nullptr;
  sf.nschur = s.schur_size;
  return sf;
}

// The numeric factor of row `row` over it, in the precision it was made in.
template <class T>
FactorView<T> factor_view(void **pt, const ControlBlock *cb, std::intptr_t *row) {
  const ControlState &s = cb->s;
  const RowLayout l = row_layout(cb, row[kRowSingle] != 0);
  char *block = reinterpret_cast<char *>(row[kRowValues]);
  return numeric_factor<T>(symbolic_factor(pt, cb), reinterpret_cast<T *>(block),
                           stores_u(s.mtype) ? reinterpret_cast<T *>(block + l.unz) : nullptr,
                           reinterpret_cast<int *>(block + l.pivot),
                           reinterpret_cast<int *>(block + l.pivot_col));
}

ScatterMap scatter_map(void **pt, const ControlBlock *cb, bool u) {
  ScatterMap m;
  m.ptr = carved<int>(pt, cb, kPtSymbolic, u ? kSymUmapPtr : kSymLmapPtr);
  m.dest = carved<std::int64_t>(pt, cb, kPtSymbolic, u ? kSymUmapDest : kSymLmapDest);
  m.src = carved<int>(pt, cb, kPtSymbolic, u ? kSymUmapSrc : kSymLmapSrc);
  m.row =
      cb->s.scaling_on ? carved<int>(pt, cb, kPtSymbolic, u ? kSymUmapRow : kSymLmapRow) : nullptr;
  return m;
}

// ||A|| of the report: the largest magnitude of the nnz entries of a
// (width 2: complex pairs).
double max_magnitude(const double *a, std::int64_t nnz, int width) {
  double big = 0.0;
  for (std::int64_t k = 0; k < nnz; ++k) {
    const double m = width == 2 ? std::hypot(a[2 * k], a[2 * k + 1]) : std::fabs(a[k]);
    if (m > big) big = m;
  }
  return big;
}

// The factorization of row mnum; returns 0 or the member's flag.
int factorize(const CallArgs &c, ControlBlock *cb, std::intptr_t *row, double phase_start) {
  void **pt = c.pt;
  ControlState &s = cb->s;
  int *iparm = c.iparm;
  const int n = s.neqns;

  // A factorization must not change what analysis fixed: the fields it
  // touches are taken back from this image afterwards.
  const ControlState saved = s;
  ip(iparm, 20) = 0;
  if (ip(iparm, 40) > 0 && c.perm)
    std::memcpy(c.perm, carved<int>(pt, cb, kPtSymbolic, kSymPerm), sizeof(int) * n);
  rctl(cb, kRctlLogDet1) = 0.0;
  rctl(cb, kRctlLogDet2) = 0.0;
  rctl(cb, kRctlNormA) = max_magnitude(static_cast<const double *>(c.a), s.nnz, s.complex_factor);

  FactorOptions opt;
  opt.mtype = s.mtype;
  opt.symmetric_pattern = s.symmetric_pattern;
  opt.sequential = s.sequential;
  opt.schur_size = s.schur_size;
  opt.eps_exponent = s.eps_exponent;
  opt.iparm21 = ip(iparm, 21);
  opt.unit_pivots = s.unit_pivots;
  opt.determinant = s.determinant;
  opt.single_precision = s.single_precision;
  opt.distributed = s.distributed;
  opt.perm_mode = ip(iparm, 40);
  opt.perm_out = c.perm;
  opt.phase_start = phase_start;

  MatrixInput in;
  in.a = static_cast<const double *>(c.a);
  in.ia = c.ia;
  in.ja = c.ja;
  // A symmetric matching with a filled structure: the values of A go to
  // their places in Af (the other entries of Af stay zero), and the
  // factorization reads Af, for which the maps were made.
  void *record = pt_slot(pt, kPtMatrixRecord);
  if (holds_block(record)) {
    smat *af = static_cast<smat *>(record);
    const int *place = static_cast<const int *>(pt_slot(pt, kPtBlockA));
    const int width = s.complex_factor;
    const double *a = static_cast<const double *>(c.a);
    for (std::int64_t k = 0; k < s.nnz; ++k)
      for (int w = 0; w < width; ++w) af->a[std::int64_t{place[k]} * width + w] = a[k * width + w];
    in.a = af->a;
    in.ia = af->ia;
    in.ja = af->ja;
  }
  in.scale = static_cast<const double *>(pt_slot(pt, kPtScaling));
  in.scaling_on = in.scale ? s.scaling_on : 0;
  in.perm = carved<int>(pt, cb, kPtSymbolic, kSymPerm);
  in.q = s.mtype > 10 ? static_cast<const int *>(pt_slot(pt, kPtMatching)) : nullptr;
  in.lmap = scatter_map(pt, cb, false);
  if (stores_u(s.mtype)) in.umap = scatter_map(pt, cb, true);

  row[kRowSingle] = s.single_precision != 0 ? 1 : 0;
  int *ints = static_cast<int *>(pt_slot(pt, kPtPivotWork));
  const std::int64_t nn = n, nt = factor_threads(cb);
  FactorWork<void> w;
  w.nthreads = static_cast<int>(nt);
  w.indmap = ints;
  w.relind = ints + nn * nt;
  w.link = ints + 2 * nn * nt;
  w.length = ints + 2 * nn * nt + nn;
  w.temp = reinterpret_cast<char *>(ints) + align8(4 * factor_ints(cb));
  w.tmpsiz = s.tmpsiz;
  w.nmod = carved<int>(pt, cb, kPtSymbolic, kSymNmod);
  w.ndom = s.ndom;
  w.domains = carved<int>(pt, cb, kPtSymbolic, kSymDomains);
  int *loop_state = ints + factor_work_ints(n, s.nsuper, static_cast<int>(nt));
  w.fixed_order = factor_runs_fixed_order(s);
  if (factor_runs_distributed(s)) {
    // The block-partitioned member reads its sets from the lists; the loop
    // state serves one set at a time.
    w.node_lists = static_cast<const int *>(pt_slot(pt, kPtUpdateLists));
    w.top.state = loop_state;
    w.top.cursor = w.top.state + s.list_buckets;
    w.top.domain_done = w.top.cursor + std::int64_t{s.list_buckets} * s.list_sources;
  } else if (factor_uses_lists(cb) && s.list_form == 2) {
    w.top = top_lists(pt);
    w.top.state = loop_state;
    w.top.cursor = w.top.state + w.top.ntop;
    w.top.domain_done = w.top.cursor + std::int64_t{w.top.ntop} * w.top.nsrc;
  } else if (factor_uses_lists(cb)) {
    w.queues = target_queues(pt, cb);
    w.queues.upd_tail = loop_state;
    w.queues.queue = loop_state + s.nsuper;
    w.queues.queue_off = w.queues.queue + w.queues.total;
  }

  const FactorView<void> f = factor_view<void>(pt, cb, row);
  FactorScalars sc;
  FactorTimes times;
  const int status = FACTOR_SHELL_VELMORA(opt, f, in, w, &times, &sc);
  rctl(cb, kRctlTimers + kTimeAtoLU) = times.a_to_lu;
  cb->timer_flags[kTimeAtoLU] |= 1;
  if (times.numfct >= 0) {
    rctl(cb, kRctlTimers + kTimeNumFct) = times.numfct;
    cb->timer_flags[kTimeNumFct] |= 1;
  }
  rctl(cb, kRctlLogDet2) = times.logdet;
  rctl(cb, kRctlLogDet1) = times.logdet_im;
  s = saved;
  s.perturbed_pivots = sc.perturbed;
  s.inertia_pos = sc.npos;
  s.inertia_neg = sc.nneg;
  s.nnz_schur = status == 0 ? sc.schur_nnz : 0;
  row[kRowFactored] = status == 0 ? 1 : 0;
  if (status == 0 && is_spd_type(s.mtype) && sc.npos == 0 && sc.nneg == 0)
    s.inertia_pos = n - s.schur_size;  // every pivot of a Cholesky factor is positive
  if (s.mtype == 6) {
    // The pivots of a complex symmetric matrix have no sign: no inertia.
    s.inertia_pos = 0;
    s.inertia_neg = 0;
  }
  return status;
}

// One substitution with the stored factor of `row` (element type F) on the
// work group, for vectors of the working type W; the solve converts as it
// gathers and scatters.  rhs == out solves in place.
template <class F, class W>
class Substitution {
 public:
  Substitution(const CallArgs &c, const ControlBlock *cb, const SolveInput &in, std::intptr_t *row)
      : in_(in), w_(carve(c.pt, in)), f_(factor_view<F>(c.pt, cb, row)) {}
  int operator()(const W *rhs, W *out) const {
    SolveInput one = in_;
    one.to_b = rhs == out ? 1 : 0;
    int error = 0;
    SOLVE_VELMORA<F>(f_, one, reinterpret_cast<double *>(const_cast<W *>(rhs)),
                     reinterpret_cast<double *>(out), w_, &error);
    return error;
  }

 private:
  static SolveWork<F> carve(void **pt, const SolveInput &in) {
    const SolveWorkSize sz = solve_work_size(in);
    char *base = static_cast<char *>(pt_slot(pt, kPtPivotWork));
    return solve_work_carve<F>(sz, reinterpret_cast<F *>(base + align8(4 * sz.starts)),
                               reinterpret_cast<int *>(base));
  }
  const SolveInput &in_;
  const SolveWork<F> w_;
  const FactorView<F> f_;
};

// The solve of phase 33 with its refinement: the refinement loop runs the
// first solve itself and then corrects, when it is asked for or pivots
// were perturbed, in the work group pt(11).  F is the element type of the
// factor, W the working type of the caller's vectors, of the residuals and
// of the refinement (double, or zcomplex on the caller's pairs of
// doubles).  The substitution takes and gives W vectors and converts to F
// and back as it gathers and scatters them, so a factor held in single
// precision is refined in double.
template <class F, class W>
int solve(const CallArgs &c, ControlBlock *cb, const SolveInput &in, std::intptr_t *row) {
  static_assert(sizeof(W) >= sizeof(F), "refinement works at least at the factor's precision");
  void **pt = c.pt;
  ControlState &s = cb->s;
  const Substitution<F, W> substitute(c, cb, in, row);
  const RefineSettings rs =
      refine_settings(c.iparm, in.n, in.nrhs, s.mtype, s.transposed, s.perturbed_pivots,
                      in.nthreads, c.msglvl && *c.msglvl != 0 ? 1 : 0);
  const RefineMatrix<W> m{c.ia, c.ja, static_cast<const W *>(c.a)};
  double *work = static_cast<double *>(pt_slot(pt, kPtRefineWork));
  const double t0 = omp_get_wtime();
  const RefineResult rr = REFINE_VELMORA<W>(rs, m, static_cast<W *>(c.b), static_cast<W *>(c.x),
                                            work, work ? s.refine_bytes / 8 : 0, substitute);
  add_time(cb, kTimeSolve, omp_get_wtime() - t0);
  s.refine_steps = rr.steps;
  if (rr.iparm20 != 0) ip(c.iparm, 20) = rr.iparm20;
  return rr.error;
}

// The settings of the hybrid iteration for the solve `in`.
HybridSettings hybrid_settings(const CallArgs &c, const ControlBlock *cb, const SolveInput &in) {
  const ControlState &s = cb->s;
  HybridSettings h;
  h.n = in.n;
  h.nrhs = in.nrhs;
  h.mtype = s.mtype;
  h.transposed = s.transposed;
  h.nthreads = in.nthreads;
  h.msglvl = c.msglvl && *c.msglvl > 0 ? 1 : 0;
  // CG for the positive definite types, CGS for every other.
  h.method = std::abs(s.hybrid_mode) == 2 && is_spd_type(s.mtype) ? 2 : 1;
  h.tol = rctl(const_cast<ControlBlock *>(cb), kRctlHybridTol);
  h.budget = s.hybrid_budget;
  h.check = s.hybrid_check;
  return h;
}

template <class F, class W>
int hybrid(const CallArgs &c, ControlBlock *cb, const SolveInput &in, std::intptr_t *row,
           int (*budget_of)(ControlBlock *, double), HybridRun *run) {
  void **pt = c.pt;
  const Substitution<F, W> substitute(c, cb, in, row);
  const HybridSettings first = hybrid_settings(c, cb, in);
  double *work = static_cast<double *>(pt_slot(pt, kPtRefineWork));
  const std::int64_t len = std::int64_t{in.n} * in.nrhs;
  const std::int64_t iteration_doubles = hybrid_work_doubles(first);
  // With iparm(6) 1 the iterate lives in pt(11), after the iteration's
  // work, and b stays the caller's until the end.
  W *b = static_cast<W *>(c.b);
  W *x = in.to_b ? reinterpret_cast<W *>(work + iteration_doubles) : static_cast<W *>(c.x);
  const double t0 = omp_get_wtime();
  const int error = substitute(b, x);
  run->solve_seconds = omp_get_wtime() - t0;
  add_time(cb, kTimeSolve, run->solve_seconds);
  if (error != 0) return error;
  if (budget_of(cb, run->solve_seconds) < 1) {  // no iteration allowed
    run->allowed = false;
    run->code = -3;
    return 0;
  }
  const HybridSettings h = hybrid_settings(c, cb, in);
  const RefineMatrix<W> m{c.ia, c.ja, static_cast<const W *>(c.a)};
  const double t1 = omp_get_wtime();
  const HybridResult r = PRE_CGS_VELMORA<W>(h, m, b, x, work, iteration_doubles, substitute);
  add_time(cb, kTimeCgs, omp_get_wtime() - t1);
  run->code = r.code;
  run->iterations = r.iterations;
  if (r.solve_error != 0) return r.solve_error;
  if (r.code == 0 && in.to_b) std::copy(x, x + len, b);
  return 0;
}

}  // namespace

std::int64_t hybrid_work_bytes(const CallArgs &c, const ControlBlock *cb, const SolveInput &in) {
  const std::int64_t extra = in.to_b ? std::int64_t{cb->s.complex_factor} * in.n * in.nrhs : 0;
  return 8 * (hybrid_work_doubles(hybrid_settings(c, cb, in)) + extra);
}

int numeric_hybrid(const CallArgs &c, ControlBlock *cb, const SolveInput &in,
                   int (*budget_of)(ControlBlock *, double), HybridRun *run) {
  std::intptr_t *row = factor_row(c.pt, *c.mnum);
  if (row[kRowFactored] != 1) return 10000;
  if (cb->s.complex_factor == 2) return hybrid<zcomplex, zcomplex>(c, cb, in, row, budget_of, run);
  return row[kRowSingle] != 0 ? hybrid<float, double>(c, cb, in, row, budget_of, run)
                              : hybrid<double, double>(c, cb, in, row, budget_of, run);
}

bool stored_factor(void **pt, int mnum, FactorView<void> *f) {
  if (pt == nullptr || !has_block(pt, kPtControl) || !has_block(pt, kPtSymbolic) ||
      !has_block(pt, kPtFactors))
    return false;
  const ControlBlock *cb = control_of(pt);
  if (mnum < 1 || mnum > cb->factor_rows) return false;
  std::intptr_t *row = factor_row(pt, mnum);
  if (row[kRowFactored] != 1 || !holds_block(reinterpret_cast<void *>(row[kRowValues])))
    return false;
  *f = factor_view<void>(pt, cb, row);
  return true;
}

namespace {

// One factor array as one record: its length in bytes (32 bits, little
// endian), the values, the length again.  The file is replaced.
bool write_record(const char *name, const void *data, std::int64_t bytes) {
  std::FILE *file = std::fopen(name, "wb");
  if (file == nullptr) return false;
  const std::int32_t mark = bytes <= INT32_MAX ? static_cast<std::int32_t>(bytes) : -1;
  bool ok = std::fwrite(&mark, 4, 1, file) == 1;
  ok = ok && (bytes == 0 || std::fwrite(data, 1, static_cast<std::size_t>(bytes), file) ==
                                static_cast<std::size_t>(bytes));
  ok = ok && std::fwrite(&mark, 4, 1, file) == 1;
  if (std::fclose(file) != 0) ok = false;
  return ok;
}

bool read_record(const char *name, void *data, std::int64_t bytes) {
  std::FILE *file = std::fopen(name, "rb");
  if (file == nullptr) return false;
  std::int32_t mark = 0;
  bool ok = std::fread(&mark, 4, 1, file) == 1;
  ok = ok && (bytes == 0 || std::fread(data, 1, static_cast<std::size_t>(bytes), file) ==
                                static_cast<std::size_t>(bytes));
  std::fclose(file);
  return ok;
}

template <class T>
int run_inverse_kernel(const FactorView<void> &v, const InverseInput &in, int mtype, int n,
                       void *work, const InverseWorkSize &sz) {
  const FactorView<T> f =
      numeric_factor<T>(v, static_cast<T *>(v.lnz), static_cast<T *>(v.unz), v.pivot, v.pivot_col);
  const InverseWork<T> w = selinv_work_carve<T>(sz, work);
  if (mtype == -2 || mtype == 6) return BLKLDL_INVERSE_COM<T>(f, in, n, w);
  if (mtype == 1 || mtype == 3) return BLKLU_INVERSE_COM<T>(f, in, n, w);
  return BLKLU_UNSYM_INVERSE_COM<T>(f, in, n, w);
}

}  // namespace

std::int64_t inverse_work_bytes(void **pt, const ControlBlock *cb) {
  const InverseWorkSize sz = selinv_work_size(symbolic_factor(pt, cb));
  return (4 * sz.ints() + 15) / 16 * 16 + sz.scalars() * scalar_bytes(cb) + 16;
}

std::int64_t inverse_copy_bytes(const ControlBlock *cb) {
  const ControlState &s = cb->s;
  return (s.nnz_l + (stores_u(s.mtype) ? s.nnz_u : 0)) * scalar_bytes(cb);
}

int numeric_inverse(const CallArgs &c, ControlBlock *cb, void *work, void *copy,
                    InverseFailure *fe) {
  void **pt = c.pt;
  const ControlState &s = cb->s;
  const double t0 = omp_get_wtime();
  FactorView<void> v;
  stored_factor(pt, *c.mnum, &v);
  const bool lu = stores_u(s.mtype);
  const std::int64_t lbytes = s.nnz_l * scalar_bytes(cb);
  const std::int64_t ubytes = lu ? s.nnz_u * scalar_bytes(cb) : 0;
  const int keep = ip(c.iparm, 36);
  const char *lname = lu ? "velmora_inverse_L.dat" : "velmora_inverse.dat";
  const char *uname = "velmora_inverse_U.dat";
  if (keep == 1) {
    std::memcpy(copy, v.lnz, static_cast<std::size_t>(lbytes));
    if (lu)
      std::memcpy(static_cast<char *>(copy) + lbytes, v.unz, static_cast<std::size_t>(ubytes));
  } else if (keep == 2) {
    const bool l_ok = write_record(lname, v.lnz, lbytes);
    if (!l_ok || (lu && !write_record(uname, v.unz, ubytes))) {
      *fe = InverseFailure{l_ok ? uname : lname, errno, false};
      return 1;
    }
  }

  InverseInput in;
  in.ia = c.ia;
  in.ja = c.ja;
  in.a = static_cast<double *>(c.a);
  in.perm = carved<int>(pt, cb, kPtSymbolic, kSymPerm);
  in.invp = carved<int>(pt, cb, kPtSymbolic, kSymInvp);
  in.scale = static_cast<const double *>(pt_slot(pt, kPtScaling));
  in.scaling_on = in.scale != nullptr ? s.scaling_on : 0;
  in.q = s.mtype > 10 ? static_cast<const int *>(pt_slot(pt, kPtMatching)) : nullptr;
  in.bunch_kaufman = s.iparm21 != 0;
  in.verbose = message_level(c.msglvl) > 0;
  const InverseWorkSize sz = selinv_work_size(v);
  fe->kernel = s.complex_factor == 2
                   ? run_inverse_kernel<zcomplex>(v, in, s.mtype, s.neqns, work, sz)
                   : run_inverse_kernel<double>(v, in, s.mtype, s.neqns, work, sz);

  int status = fe->kernel != kInverseDone ? 2 : 0;
  if (keep == 1) {
    std::memcpy(v.lnz, copy, static_cast<std::size_t>(lbytes));
    if (lu)
      std::memcpy(v.unz, static_cast<char *>(copy) + lbytes, static_cast<std::size_t>(ubytes));
  } else if (keep == 2) {
    const bool l_ok = read_record(lname, v.lnz, lbytes);
    if (!l_ok || (lu && !read_record(uname, v.unz, ubytes))) {
      *fe = InverseFailure{l_ok ? uname : lname, errno, true, fe->kernel};
      status = 1;
    }
  }
  if (in.verbose) {
    std::printf("%s%f s\n",
                lu ? "[VELMORA]: Time selected inversion           "
                   : "[VELMORA]: Time inverse inversion           ",
                omp_get_wtime() - t0);
    std::fflush(stdout);
  }
  return status;
}

std::int64_t factor_row_bytes(const ControlBlock *cb) {
  return row_layout(cb, cb->s.single_precision != 0).bytes;
}

std::int64_t numeric_work_bytes(const ControlBlock *cb, bool factor, const SolveInput *solve) {
  std::int64_t bytes = 8;
  if (factor)
    bytes = std::max(bytes, align8(4 * factor_ints(cb)) +
                                cb->s.tmpsiz * factor_threads(cb) * factor_scalar_bytes(cb) + 8);
  if (solve != nullptr) {
    const SolveWorkSize sz = solve_work_size(*solve);
    bytes = std::max(bytes, align8(4 * sz.starts) + sz.scalars() * scalar_bytes(cb) + 8);
  }
  return bytes;
}

std::int64_t refine_work_bytes(const CallArgs &c, const ControlBlock *cb, const SolveInput &in) {
  const ControlState &s = cb->s;
  const RefineSettings rs = refine_settings(c.iparm, in.n, in.nrhs, s.mtype, s.transposed,
                                            s.perturbed_pivots, in.nthreads, 0);
  if (!refine_enabled(rs)) return 0;
  // complex_factor * nrhs * (n*m + 2*nthreads) doubles, m = 2, or 3 with
  // residuals in extended precision, 5 when the product also needs
  // accumulators of its own (symmetric or transposed); at least what runs
  // the products on the full team.
  const int ext = ip(c.iparm, 8) < 0;
  const int m = !ext ? 2 : (s.symmetric_pattern == 1 || s.transposed == 1) ? 5 : 3;
  const std::int64_t formula = std::int64_t{s.complex_factor} * in.nrhs *
                               (std::int64_t{in.n} * m + 2 * std::int64_t{in.nthreads});
  return 8 * std::max(formula, refine_work_doubles(rs));
}

int numeric_factorize(const CallArgs &c, ControlBlock *cb, int *stage) {
  std::intptr_t *row = factor_row(c.pt, *c.mnum);
  const double phase_start = omp_get_wtime();
  const int status = factorize(c, cb, row, phase_start);
  if (status == kFactorNotAvailable) {
    *stage = -1;
    return kCodeNotAvailable;
  }
  if (status != 0) {
    *stage = -4;
    return status;
  }
  return 0;
}

int numeric_solve(const CallArgs &c, ControlBlock *cb, const SolveInput &in, int *stage) {
  std::intptr_t *row = factor_row(c.pt, *c.mnum);
  if (row[kRowFactored] != 1) {
    *stage = -1;
    return 10000;  // a solve with no factorization in this row
  }
  // The factor's precision is the one it was made in, whatever this call's
  // iparm(29) says.
  const int error = cb->s.complex_factor == 2 ? solve<zcomplex, zcomplex>(c, cb, in, row)
                    : row[kRowSingle] != 0    ? solve<float, double>(c, cb, in, row)
                                              : solve<double, double>(c, cb, in, row);
  if (error == kSolveTypeNotAvailable) {
    *stage = -1;
    return kCodeNotAvailable;
  }
  if (error != 0) {
    *stage = -4;  // refinement did not contract, or its work was short
    return error;
  }
  return 0;
}

int stage_numeric(const CallArgs &c, ControlBlock *cb, int *stage) {
  const int phase = *c.phase;
  if (phase < 30) {
    const int status = numeric_factorize(c, cb, stage);
    if (status != 0) return status;
  }
  return phase % 10 == 3 ? numeric_solve(c, cb, solve_input(c, cb), stage) : 0;
}

}  // namespace vm
