// update_kernels_unsym.h - the sparse update kernels of the LU family, where
// an update is the product of two different factors: a descendant's L rows
// times its U rows, into the target's lnz, and its U rows times its L rows,
// into the target's unz.  Addressing as in update_kernels.h: the row at
// position i of a list of len rows has indmap value len - i, and the entry
// of that row in column c of a factor array lies at xptr(c+1) - 1 - value.
// The same formula serves lnz (xlnz) and unz (xunz): column c of unz holds
// the rows of the list after the supernode's own columns, in list order,
// and ends where the next column starts.
#ifndef VELMORA_FACTOR_UPDATE_KERNELS_UNSYM_H
#define VELMORA_FACTOR_UPDATE_KERNELS_UNSYM_H

#include <cstdint>

#include "factor/update_kernels.h"

namespace vm {

// scatter_rank1 of two vectors: update by a descendant of one column.
// rows[0..L) are the tail rows, the first m of them columns of the target.
// For each such column c, the rows r in [r0, L) get b(r) * -a(c) added in
// dst (lnz with xptr = xlnz, or unz with xptr = xunz).
//   into lnz: b = the L column of the descendant, a = its U row, r0 = 0;
//   into unz: b = the U row, a = the L column, r0 = m (rows below the
//   target's columns only).
template <class T>
inline void scatter_rank1_pair(int m, int r0, int L, const T *b, const T *a, const int *rows,
                               const std::int64_t *xptr, const int *indmap, T *dst) {
  for (int c = 0; c < m; ++c) {
    T *end = dst + (xptr[rows[c]] - 2);  // last entry of column rows[c]
    const T mult = -a[c];
    for (int r = r0; r < L; ++r) end[-indmap[rows[r] - 1]] += b[r] * mult;
  }
}

// scatter_add_rows: adds the nrows x m block temp (leading dimension
// nrows) to the target supernode whose first column is `first` and whose
// list has len rows, in lnz (xptr = xlnz) or unz (xptr = xunz).
// row_rel[0..nrows) holds indmap of the block's rows, col_rel[0..m) that
// of its columns (target columns, whose ends xptr(first + len - col_rel)
// gives).
template <class T>
inline void scatter_add_rows(int nrows, int m, const int *row_rel, const int *col_rel, int first,
                             int len, const std::int64_t *xptr, T *dst, const T *temp) {
  for (int c = 0; c < m; ++c) {
    T *end = dst + (xptr[first + len - col_rel[c] - 1] - 2);
    add_through(nrows, row_rel, end, temp + static_cast<std::int64_t>(c) * nrows);
  }
}

}  // namespace vm

#endif  // VELMORA_FACTOR_UPDATE_KERNELS_UNSYM_H
