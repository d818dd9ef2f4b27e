// update_kernels.h - the two sparse kernels that add a descendant's update
// into a target panel whose row list is wider than the descendant's tail.
// Both address the target through indmap (or its gather relind): the row
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

// scatter_add: adds an L x m block (temp, leading dimension L) to the
// target supernode of the LU family whose first column is `first` and
// whose list has len rows.  relind[0..L) holds indmap of the block's
// rows; its first m entries are the target's columns, whose ends
// xlnz(first + len - relind) gives.
template <class T>
inline void scatter_add(int L, int m, const int *relind, int first, int len,
                        const std::int64_t *xlnz, T *lnz, const T *temp) {
  for (int c = 0; c < m; ++c) {
    T *end = lnz + (xlnz[first + len - relind[c] - 1] - 2);
    add_through(L, relind, end, temp + static_cast<std::int64_t>(c) * L);
  }
}

}  // namespace vm

#endif  // VELMORA_FACTOR_UPDATE_KERNELS_H
