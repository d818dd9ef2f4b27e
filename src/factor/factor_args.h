// factor_args.h - the arrays and scalars every factorization family and
// every solve kernel receive.  All index contents are one-based; arrays
// are C arrays indexed from 0 (xsuper[0] == 1).  Nothing here owns memory:
// the phase driver carves every array from the handle's groups.
#ifndef VELMORA_FACTOR_FACTOR_ARGS_H
#define VELMORA_FACTOR_FACTOR_ARGS_H

#include <cstdint>

namespace vm {

// The symbolic factor and the numeric factor of one factorization.
//   Supernode s (1-based) has columns xsuper[s-1] .. xsuper[s]-1, its row
//   list lindx[xlindx[s-1]-1 .. xlindx[s]-2] (its own columns first), and
//   its panel lnz[xlnz[first-1]-1 ..] a dense column-major len x ncols
//   matrix with leading dimension len = xlnz[first] - xlnz[first-1], the
//   diagonal block on top.  LU types keep the rest of U transposed in unz:
//   for each column, len-ncols entries from xunz[col-1]-1, leading
//   dimension len-ncols, rows in the order of lindx.
//
// SymbolicFactor is what the analysis fixed, typed on the index only; the
// numeric factor (FactorView) adds the values of one factorization, typed
// on the element, and the pivots.
struct SymbolicFactor {
  int n = 0;
  int nsuper = 0;
  const int *xsuper = nullptr;           // nsuper+1
  const int *snode = nullptr;            // n
  const std::int64_t *xlindx = nullptr;  // nsuper+1
  const int *lindx = nullptr;            // xlindx[nsuper]-1
  const std::int64_t *xlnz = nullptr;    // n+1
  const std::int64_t *xunz = nullptr;    // n+1, LU only
  int nschur = 0;                        // trailing columns kept out (Schur block)
};

template <class T>
struct FactorView : SymbolicFactor {
  T *lnz = nullptr;          // xlnz[n]-1
  T *unz = nullptr;          // xunz[n]-1, LU only
  int *pivot = nullptr;      // n: row exchanges inside a block
  int *pivot_col = nullptr;  // n: column exchanges (general LU)
};

// The numeric factor over a symbolic one and its storage.
template <class T>
FactorView<T> numeric_factor(const SymbolicFactor &s, T *lnz, T *unz, int *pivot, int *pivot_col) {
  FactorView<T> f;
  static_cast<SymbolicFactor &>(f) = s;
  f.lnz = lnz;
  f.unz = unz;
  f.pivot = pivot;
  f.pivot_col = pivot_col;
  return f;
}

// Supernode s (one-based) of a numeric factor as its panels: its first
// column, its width, its row list in lindx (own columns first), the lnz
// panel (leading dimension len) and, where U is stored, the unz block
// (leading dimension len - ncols).
template <class T>
struct SupernodePanel {
  int first = 0, ncols = 0, len = 0;
  const int *rows = nullptr;
  T *L = nullptr;
  T *U = nullptr;
};

template <class T>
SupernodePanel<T> supernode_panel(const FactorView<T> &f, int s) {
  SupernodePanel<T> p;
  p.first = f.xsuper[s - 1];
  p.ncols = f.xsuper[s] - p.first;
  p.len = static_cast<int>(f.xlnz[p.first] - f.xlnz[p.first - 1]);
  p.rows = f.lindx + (f.xlindx[s - 1] - 1);
  p.L = f.lnz + (f.xlnz[p.first - 1] - 1);
  if (f.unz != nullptr && f.xunz != nullptr) p.U = f.unz + (f.xunz[p.first - 1] - 1);
  return p;
}

// Where each stored entry of A lands in the factor (see amap.h): for
// column j (1-based) the entries ptr[j-1] .. ptr[j]-1 (one-based) of
// dest/src/row.  dest is a one-based position in lnz (or unz for the U
// set), negative when the entry lands transposed; src the one-based index
// of the entry in a; row the original row index (only with scaling).
struct ScatterMap {
  const int *ptr = nullptr;
  const std::int64_t *dest = nullptr;
  const int *src = nullptr;
  const int *row = nullptr;
};

// The matrix values and what turns them into the permuted, scaled matrix.
struct MatrixInput {
  const double *a = nullptr;      // values (pairs for complex types)
  const int *ia = nullptr;        // row pointers, one-based
  const int *ja = nullptr;        // column indices, one-based
  const double *scale = nullptr;  // 2n factors: columns 1..n, rows n+1..2n
  int scaling_on = 0;
  const int *perm = nullptr;  // elimination position -> original index
  const int *q = nullptr;     // matching permutation (general types) or null
  ScatterMap lmap;            // entries landing in lnz
  ScatterMap umap;            // entries landing in unz (LU types)
};

// The scratch of one task of the factorization: its own slices of the
// position map, its gather and the dense buffer.  The contract of temp:
// it is scratch, every use writes the part it reads first (products into
// it take beta 0) and nothing is kept in it or assumed of it between uses;
// its size, tmpsiz, comes from the functions of workspace.h, which the
// analysis calls to size it and the update calls to cut what it applies.
template <class T>
struct TaskWork {
  int *indmap = nullptr;  // n: position of each row in the current target's list
  int *relind = nullptr;  // n: a descendant's tail gathered through indmap
  T *temp = nullptr;      // tmpsiz entries
  std::int64_t tmpsiz = 0;
};

// The top of the tree as the two-level loop takes it: the analysis' update
// lists (analysis/update_lists.h: for top supernode t and source c, the
// domains then the top itself, bucket b = (t - ftop) * nsrc + c holds the
// entries ptr[b]-1 .. ptr[b+1]-2 of des, the descendants, and off, their
// rows from the first one in t to the end of their lists) and the loop's
// state, which it resets at each run.
struct TopLists {
  int ftop = 0;
  int nsrc = 0;
  int ntop = 0;
  const int *ptr = nullptr;
  const int *des = nullptr;
  const int *off = nullptr;
  int *state = nullptr;        // ntop: 0 free, -1 claimed, 1 finished
  int *cursor = nullptr;       // ntop * nsrc: next entry of each bucket, zero-based
  int *domain_done = nullptr;  // nsrc - 1: 1 once the domain's subtree is factored
};

// The classical loop's lists (analysis/update_lists.h, classical form: the
// targets of each supernode with the rows of it from its first row in the
// target on, and where each supernode's queue starts) and its state, which
// it resets at each run: the queues of finished descendants, with their
// rows, and the next free place of each queue.
struct TargetQueues {
  int total = 0;
  const int *upd_head = nullptr;  // nsuper + 1, zero-based starts
  const int *tgt_ptr = nullptr;   // nsuper + 1
  const int *tgt_col = nullptr;   // total
  const int *tgt_off = nullptr;   // total
  int *upd_tail = nullptr;        // nsuper
  int *queue = nullptr;           // total: finished descendants
  int *queue_off = nullptr;       // total: their rows from the target on
  // The work order of the team: nsub subtree ranges, then single
  // supernodes, as (first, last) pairs (classical_tasks).
  int ntasks = 0;
  int nsub = 0;
  const int *task_range = nullptr;
};

// Scratch of one factorization, cut from the work group: nthreads task
// slices, which follow each other with stride n (indmap, relind) or tmpsiz
// (temp), and the chains of the supernode loop.
template <class T>
struct FactorWork {
  int nthreads = 1;
  int *indmap = nullptr;  // n per thread
  int *relind = nullptr;  // n per thread
  int *link = nullptr;    // n
  int *length = nullptr;  // nsuper
  T *temp = nullptr;      // tmpsiz per thread
  std::int64_t tmpsiz = 0;
  const int *nmod = nullptr;  // nsuper
  // The subtrees the tasks may factor at once: ndom (first, last)
  // supernode pairs, then the top pair (the analysis' domains).
  int ndom = 0;
  const int *domains = nullptr;
  TopLists top;         // with ntop 0 the subtrees' leavers go on chains to the top
  TargetQueues queues;  // with total above 0 and no top lists: the classical loop
  // The subtrees and the top on the top lists with every update reaching
  // its target in the lists' order, on a team of nthreads (one included).
  bool fixed_order = false;
  // The distributed form of the lists (analysis/update_lists.h), or null;
  // the block-partitioned member runs its sets with top's loop state.
  const int *node_lists = nullptr;

  // The slices of task t (0 <= t < nthreads) of a factor of order n.
  TaskWork<T> task(int n, int t) const {
    TaskWork<T> w;
    w.indmap = indmap + std::int64_t{n} * t;
    w.relind = relind + std::int64_t{n} * t;
    w.temp = temp + tmpsiz * t;
    w.tmpsiz = tmpsiz;
    return w;
  }
};

// What the pivots of one task add up to.  Each task sums into its own
// record and the records are added together once the tasks are done, so
// no counter is shared while tasks run.
struct PivotSums {
  int perturbed = 0;    // pivots replaced
  int npos = 0;         // positive pivots
  int nneg = 0;         // negative pivots
  double logdet = 0.0;  // log |det| of the pivots, less the scaling's share
};

// pivot_mode of LDL^T factors whose pivot blocks are single columns inside
// wider supernodes: no exchanges, no 2x2 blocks, stored as 1x1 pivots.
constexpr int kUnitPivots = 2;

// Scalars handed to every member and returned by it.
struct FactorScalars {
  int iflag = 0;                // 0; -1 bad pivot or argument; -2 temp too small
  int perturbed = 0;            // pivots replaced
  double eps = 0.0;             // perturbation threshold
  int pivot_mode = 0;           // -1: diagonal pivoting; 0: Bunch-Kaufman; kUnitPivots
  int npos = 0;                 // positive pivots
  int nneg = 0;                 // negative pivots
  int determinant = 0;          // 1: accumulate the log-determinant
  double *logdet = nullptr;     // log |det| (real part), summed into
  double *logdet_im = nullptr;  // its imaginary part (complex LU)
  std::int64_t schur_nnz = 0;   // entries of the Schur block

  // Adds a task's results: its status when none failed before, its sums.
  void add(int status, const PivotSums &s) {
    if (iflag == 0) iflag = status;
    perturbed += s.perturbed;
    npos += s.npos;
    nneg += s.nneg;
    if (determinant == 1 && logdet != nullptr) *logdet += s.logdet;
  }
};

}  // namespace vm

#endif  // VELMORA_FACTOR_FACTOR_ARGS_H
