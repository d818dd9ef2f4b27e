// update_kernels.h - the sparse kernels that add a descendant's update
// into a target panel whose row list is wider than the descendant's tail,
// and the split of such an update along the long runs of the target's
// rows.  They address the target through indmap (or its gather relind): the row
// at position i of a list of len rows has the value len - i, so that
// xlnz(c+1) - 1 - value is the entry of that row in column c.
#ifndef VELMORA_FACTOR_UPDATE_KERNELS_H
#define VELMORA_FACTOR_UPDATE_KERNELS_H

#include <cstdint>

#include "factor/scalar_traits.h"

namespace vm {

// Places of a gathered tail: relind strictly decreases along the tail (its
// rows go down the target's list), so a block of kRunBlock entries whose
// first and last differ by kRunBlock - 1 lands on consecutive places, and
// is added as one contiguous (vectorised) run; other blocks go entry by
// entry.
constexpr int kRunBlock = 8;

// end[-rel[i]] += t[i] for i < count.
template <class T>
inline void add_through(int count, const int *rel, T *end, const T *t) {
  int i = 0;
  for (; i + kRunBlock <= count; i += kRunBlock) {
    if (rel[i] - rel[i + kRunBlock - 1] == kRunBlock - 1) {
      T *d = end - rel[i];
      for (int q = 0; q < kRunBlock; ++q) d[q] += t[i + q];
    } else {
      for (int q = 0; q < kRunBlock; ++q) end[-rel[i + q]] += t[i + q];
    }
  }
  for (; i < count; ++i) end[-rel[i]] += t[i];
}

// The same for two columns that share the tail: end0 and end1 get t0, t1.
template <class T>
inline void add_through2(int count, const int *rel, T *end0, const T *t0, T *end1, const T *t1) {
  int i = 0;
  for (; i + kRunBlock <= count; i += kRunBlock) {
    if (rel[i] - rel[i + kRunBlock - 1] == kRunBlock - 1) {
      T *d0 = end0 - rel[i];
      T *d1 = end1 - rel[i];
      for (int q = 0; q < kRunBlock; ++q) {
        d0[q] += t0[i + q];
        d1[q] += t1[i + q];
      }
    } else {
      for (int q = 0; q < kRunBlock; ++q) {
        const int v = rel[i + q];
        end0[-v] += t0[i + q];
        end1[-v] += t1[i + q];
      }
    }
  }
  for (; i < count; ++i) {
    const int v = rel[i];
    end0[-v] += t0[i];
    end1[-v] += t1[i];
  }
}

// Long runs of a descendant's tail whose rows follow each other in the
// target's list: rows[0..nrows) of at least kRunRows rows, and cols[0..ncols)
// of at least kRunCols rows among the first m (the target's columns),
// cut at m.  Each is a range [first, end) of tail positions, in order.  A
// block of the update whose rows are such a row run and whose columns such
// a column run is a dense block of the target panel and is written there
// directly; the rest goes through temp.  Runs beyond the capacity are
// left to temp.
constexpr int kRunRows = 32;
constexpr int kRunCols = 8;
constexpr int kMaxRowRuns = 64;
constexpr int kMaxColRuns = 16;

struct BlockRuns {
  int nrows = 0, ncols = 0;
  int rows[kMaxRowRuns][2];
  int cols[kMaxColRuns][2];
};

// Gathers relind(i) = indmap(tail row i) for the L tail rows and records
// the long runs; a column run also ends where the columns pass from one
// panel of a chain to the next (snode, by column).
inline void find_runs(int L, int m, const int *tail, const int *indmap, const int *snode,
                      int *relind, BlockRuns *runs) {
  int rstart = 0, cstart = 0;
  for (int i = 0; i <= L; ++i) {
    if (i < L) relind[i] = indmap[tail[i] - 1];
    if (i == 0) continue;
    const bool gap = i == L || relind[i] != relind[i - 1] - 1;
    if (gap) {
      if (i - rstart >= kRunRows && runs->nrows < kMaxRowRuns) {
        runs->rows[runs->nrows][0] = rstart;
        runs->rows[runs->nrows][1] = i;
        ++runs->nrows;
      }
      rstart = i;
    }
    if (cstart < m && (gap || i >= m || snode[tail[i] - 1] != snode[tail[i - 1] - 1])) {
      const int cend = i < m ? i : m;
      if (cend - cstart >= kRunCols && runs->ncols < kMaxColRuns) {
        runs->cols[runs->ncols][0] = cstart;
        runs->cols[runs->ncols][1] = cend;
        ++runs->ncols;
      }
      cstart = i;
    }
  }
}

// The parts of a buffered update, split along the long runs: for each long
// column run, its blocks with long row runs go straight into the panel
// (direct(a, b, gs, ge): tail rows [a, b), target columns [gs, ge)), the
// rows between them through temp (buffered(r0, r1, c0, c1)); the columns
// outside long runs through temp for all their rows.  Without long row
// runs the whole block goes through temp.  The rows of a column block
// start at row0, or with kFromDiagonal at the block's first column (the
// lower triangle of the symmetric families).
constexpr int kFromDiagonal = -1;

template <class Buffered, class Direct>
void for_each_part(int L, int m, const BlockRuns &runs, int row0, Buffered buffered,
                   Direct direct) {
  auto start = [row0](int c) { return row0 == kFromDiagonal ? c : row0; };
  if (runs.nrows == 0 || runs.ncols == 0) {
    if (start(0) < L) buffered(start(0), L, 0, m);
    return;
  }
  int c0 = 0;
  for (int g = 0; g <= runs.ncols; ++g) {
    const int cshort = g < runs.ncols ? runs.cols[g][0] : m;
    if (cshort > c0 && start(c0) < L) buffered(start(c0), L, c0, cshort);
    if (g == runs.ncols) break;
    const int gs = runs.cols[g][0], ge = runs.cols[g][1];
    int r = start(gs);
    for (int q = 0; q < runs.nrows; ++q) {
      if (runs.rows[q][1] <= r) continue;
      const int a = runs.rows[q][0] > r ? runs.rows[q][0] : r;
      const int b = runs.rows[q][1];
      if (a > r) buffered(r, a, gs, ge);
      direct(a, b, gs, ge);
      r = b;
    }
    if (r < L) buffered(r, L, gs, ge);
    c0 = ge;
  }
}

// scatter_rank1: update by a descendant of one column in the symmetric
// families, which keep only the lower triangle of a diagonal block.  x
// holds the L entries of the descendant's column from its tail on,
// rows[0..L) their row numbers; the first m of them are columns of the
// target.  For each such column c, the tail rows r from c on get
// x(r) * -conj(x(c)) added (A -= x x^H restricted to the target's columns).
template <class T>
inline void scatter_rank1(int m, int L, const T *x, const int *rows, const std::int64_t *xlnz,
                          const int *indmap, T *lnz) {
  for (int c = 0; c < m; ++c) {
    T *end = lnz + (xlnz[rows[c]] - 2);  // last entry of column rows[c]
    const T mult = -conj_of(x[c]);
    for (int r = c; r < L; ++r) end[-indmap[rows[r] - 1]] += x[r] * mult;
  }
}

// scatter_rank1 with the multipliers apart, for the LDL^T families: the
// tail rows r of target column c get x(r) * -y(c) added, where y(c) holds
// the pivot times x(c) (conjugated on the Hermitian types).
template <class T>
inline void scatter_rank1(int m, int L, const T *x, const T *y, const int *rows,
                          const std::int64_t *xlnz, const int *indmap, T *lnz) {
  for (int c = 0; c < m; ++c) {
    T *end = lnz + (xlnz[rows[c]] - 2);
    const T mult = -y[c];
    for (int r = c; r < L; ++r) end[-indmap[rows[r] - 1]] += x[r] * mult;
  }
}

}  // namespace vm

#endif  // VELMORA_FACTOR_UPDATE_KERNELS_H
