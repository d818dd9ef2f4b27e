// symmetric_update.h - the update of a target panel by a descendant in
// the symmetric families (Cholesky L L^T / L L^H and LDL^T), the second
// factor of the product given by the family: the descendant's own rows
// for Cholesky, their D-scaled copy for LDL^T.
//
// What an update covers:
//  - the target's columns and those of the supernodes after it on its
//    column chain (the pieces of a supernode split by the panel width), up
//    to kReachCols columns, as far as temp holds them;
//  - when the descendant is the last piece of a split supernode, the
//    pieces before it too: beyond the split supernode they share their
//    tail, so their products through temp are summed there and scattered
//    once (left_looking with `pieces` holds them back until then).
// How it lands: straight into the panels where the tail is the target's
// list or a contiguous run of it; otherwise through temp, split along long
// runs of the target's rows so that blocks dense in a panel are written
// there directly.  Products into temp overwrite it (beta 0), as the
// contract of temp asks (factor_args.h).
#ifndef VELMORA_FACTOR_SYMMETRIC_UPDATE_H
#define VELMORA_FACTOR_SYMMETRIC_UPDATE_H

#include <algorithm>
#include <cstdint>
#include <utility>

#include "factor/blas.h"
#include "factor/blkl.h"
#include "factor/factor_args.h"
#include "factor/panel.h"
#include "factor/update_kernels.h"
#include "factor/workspace.h"

namespace vm {

// An update applied at a target covers the target's columns and those of
// the supernodes after it on its column chain (the pieces of a wide
// supernode split by the panel width), up to kReachCols columns in all:
// one product of that width instead of one per piece, and the
// descendant's tail read once for them.
constexpr int kReachCols = 160;

template <class T>
int reach_of(const FactorView<T> &f, int ksup) {
  const int first = f.xsuper[ksup - 1];
  int reach = f.xsuper[ksup] - 1;
  for (int s = ksup; continues(f, s) && f.xsuper[s + 1] - first <= kReachCols; ++s)
    reach = f.xsuper[s + 1] - 1;
  return reach;
}

// Adds -X W^H (W^T with kAdj 'T') for the tail positions [c0, m) as
// target columns, when the tail rows from c0 on are one contiguous run of
// the target's list: each panel of the chain that the columns fall in gets
// its dense block by one product.  W (leading dimension ldw) holds the
// second factor's first m tail rows.
template <class T, char kAdj>
void contiguous_update(const FactorView<T> &f, int c0, int m, int L, const int *tail, int ncolj,
                       const T *x, int lenj, const T *w, int ldw) {
  for (int c = c0; c < m;) {
    const int col = tail[c];
    const int s = f.snode[col - 1];
    const int pfirst = f.xsuper[s - 1];
    const int e = c + std::min(f.xsuper[s] - col, m - c);
    const int ld = static_cast<int>(f.xlnz[pfirst] - f.xlnz[pfirst - 1]);
    T *dst = f.lnz + (f.xlnz[col - 1] - 1) + (col - pfirst);
    blas::gemm<T>('N', kAdj, L - c, e - c, ncolj, T(-1), x + c, lenj, w + c, ldw, T(1), dst, ld);
    c = e;
  }
}

// Adds a part held in temp (tail rows [r0, r1), target columns [c0, c1),
// leading dimension r1 - r0) to the panels: the entries on and below each
// target column's diagonal, two columns to a pass over the rows.
template <class T, class K>
void scatter_part(const FactorView<T> &f, const K &k, int r0, int r1, int c0, int c1,
                  const int *relind, const T *part) {
  const int nr = r1 - r0, nc = c1 - c0;
  auto column_end = [&](int c) { return f.lnz + (f.xlnz[k.first + k.len - relind[c] - 1] - 2); };
  int j = 0;
  for (; j + 1 < nc; j += 2) {
    const int c = c0 + j;
    T *end0 = column_end(c), *end1 = column_end(c + 1);
    const T *t0 = part + static_cast<std::int64_t>(j) * nr - r0;
    const T *t1 = t0 + nr;
    const int i = c + 1 > r0 ? c + 1 : r0;
    if (c >= r0) end0[-relind[c]] += t0[c];  // the row on column c's diagonal
    if (i < r1) add_through2(r1 - i, relind + i, end0, t0 + i, end1, t1 + i);
  }
  if (j < nc) {
    const int c = c0 + j;
    T *end = column_end(c);
    const T *t = part + static_cast<std::int64_t>(j) * nr - r0;
    const int i = c > r0 ? c : r0;
    if (i < r1) add_through(r1 - i, relind + i, end, t + i);
  }
}

// One piece of a descendant: a supernode, or one of the pieces of a
// supernode split by the panel width, which share the rows below the
// split supernode and so every tail from there on.
template <class T>
struct Piece {
  int ncolj = 0;
  int lenj = 0;
  int L = 0;                  // rows of the tail
  const int *tail = nullptr;  // their row numbers
  const T *blk = nullptr;     // its diagonal block (leading dimension lenj)
  const T *x = nullptr;       // its first tail row (leading dimension lenj)
  const int *piv = nullptr;   // its pivots (LDL^T)
};

template <class T>
Piece<T> piece_of(const FactorView<T> &f, int s, int L) {
  Piece<T> p;
  const int first = f.xsuper[s - 1];
  p.ncolj = f.xsuper[s] - first;
  p.lenj = static_cast<int>(f.xlindx[s] - f.xlindx[s - 1]);
  p.L = L;
  p.tail = f.lindx + (f.xlindx[s] - 1 - L);
  p.blk = f.lnz + (f.xlnz[first - 1] - 1);
  p.x = p.blk + (p.lenj - L);
  p.piv = f.pivot + (first - 1);
  return p;
}

// The update of the pieces [s0, s1] through their common tail of L rows
// with gaps in the target's list: the parts through temp get the products
// of every piece summed there (the first overwrites what temp held) and go
// to the panels once; the direct parts take each piece's product in turn.
// temp holds the parts one after another, then (offset L m) whatever
// `second` writes: second(piece, m, buffer) -> the second factor of the
// piece's product over the first m tail rows and its leading dimension.
template <class T, char kAdj, class K, class Second>
void buffered_update(const FactorView<T> &f, const K &k, int s0, int s1, int L, int m,
                     int first_schur, const int *relind, const BlockRuns &runs, T *temp,
                     Second second) {
  T *buffer = temp + static_cast<std::int64_t>(L) * m;
  bool first = true;
  for (int s = s0; s <= s1; ++s) {
    if (f.xsuper[s] - 1 > first_schur) continue;  // an unfactored Schur panel
    const Piece<T> p = piece_of(f, s, L);
    const std::pair<const T *, int> w = second(p, m, buffer);
    const T beta = first ? T(0) : T(1);
    std::int64_t off = 0;
    for_each_part(
        L, m, runs, kFromDiagonal,
        [&](int r0, int r1, int c0, int c1) {
          const int nr = r1 - r0;
          blas::gemm<T>('N', kAdj, nr, c1 - c0, p.ncolj, T(-1), p.x + r0, p.lenj, w.first + c0,
                        w.second, beta, temp + off, nr);
          off += static_cast<std::int64_t>(nr) * (c1 - c0);
        },
        [&](int a, int b, int gs, int ge) {
          const int col = k.first + k.len - 1 - relind[gs];   // the run's first column
          const int pfirst = f.xsuper[f.snode[col - 1] - 1];  // and its panel
          const int ld = static_cast<int>(f.xlnz[pfirst] - f.xlnz[pfirst - 1]);
          T *c = f.lnz + (f.xlnz[col - 1] - 1) + (ld - 1 - relind[a]);
          blas::gemm<T>('N', kAdj, b - a, ge - gs, p.ncolj, T(-1), p.x + a, p.lenj, w.first + gs,
                        w.second, T(1), c, ld);
        });
    first = false;
  }
  if (first) return;
  std::int64_t off = 0;
  for_each_part(
      L, m, runs, kFromDiagonal,
      [&](int r0, int r1, int c0, int c1) {
        scatter_part(f, k, r0, r1, c0, c1, relind, temp + off);
        off += static_cast<std::int64_t>(r1 - r0) * (c1 - c0);
      },
      [](int, int, int, int) {});
}

// Applies the update of descendant jsup through the L rows of its tail to
// target k and the panels after it up to k.reach.  When jsup is the last
// piece of a supernode split by the panel width, the pieces before it
// come along: they share its tail and wait for it (left_looking with
// `pieces`).  Returns m, the rows of the tail that were applied as
// columns: all those up to k.reach, fewer when temp cannot hold them, but
// never fewer than the target's own.  Sets *iflag to -2 when temp cannot
// hold what the update needs there: the result block on the buffered path
// and, when `copies`, what `second` writes (m x ncolj).
//   second(piece, m, buffer) -> (W, ldw): the second factor of a piece's
//     product over the first m tail rows;
//   rank1_update(piece, m, buffer): the whole update of a lone one-column
//     descendant (buffer: temp);
//   counts: the family's kernel counters, or null.
template <class T, char kAdj, class K, class Second, class Rank1>
int apply_symmetric_update(const FactorView<T> &f, const K &k, int jsup, int L, int first_schur,
                           bool copies, const TaskWork<T> &w, int *iflag,
                           UpdateKernelCounts *counts, Second second, Rank1 rank1_update) {
  auto count = [counts](std::int64_t UpdateKernelCounts::*field) {
    if (counts != nullptr) ++(counts->*field);
  };
  // The pieces that come along: only the last piece travels beyond its
  // split supernode; an earlier one is still applying its own update to
  // the pieces after it.  A target that takes each piece on its own
  // (k.alone, the top of the two-level loop) gets jsup alone.
  int s0 = jsup;
  if (!k.alone && !continues(f, jsup))
    while (s0 > 1 && continues(f, s0 - 1)) --s0;
  int ncolj = 0;  // the widest piece
  for (int s = s0; s <= jsup; ++s) ncolj = std::max(ncolj, f.xsuper[s] - f.xsuper[s - 1]);
  const int *tail = f.lindx + (f.xlindx[jsup] - 1 - L);

  // own: the rows that are the target's columns; m: those up to the reach.
  int own = 0, m = 0;
  if (L == k.len) {
    own = k.ncols;
    m = k.reach - k.first + 1;
  } else {
    while (own < L && tail[own] <= k.last) ++own;
    m = own;
    while (m < L && tail[m] <= k.reach) ++m;
  }
  if (f.xsuper[s0] - 1 > first_schur) {  // unfactored Schur panels update nothing
    count(&UpdateKernelCounts::skipped);
    return own;
  }
  const int *indmap = w.indmap;
  const bool gaps = L != k.len && indmap[tail[0] - 1] - indmap[tail[L - 1] - 1] >= L;
  const bool rank1 = s0 == jsup && ncolj == 1;
  // Entries of temp per applied row: the second factor's copy, and on the
  // buffered path the result block's row.
  const int copy = copies ? ncolj : 0;
  const int buffered_rows = rank1 || !gaps ? 0 : L;
  const std::int64_t per_row = update_temp_entries(1, buffered_rows, copy);
  if (per_row > 0 && update_temp_entries(m, buffered_rows, copy) > w.tmpsiz) {
    m = static_cast<int>(w.tmpsiz / per_row);
    if (m < own) {
      *iflag = -2;
      return own;
    }
    count(&UpdateKernelCounts::cut);
  }
  if (m > own) count(&UpdateKernelCounts::reach);
  if (s0 < jsup) count(&UpdateKernelCounts::pieces);
  if (rank1) {
    count(&UpdateKernelCounts::rank1);
    rank1_update(piece_of(f, jsup, L), m, w.temp);
    return m;
  }
  if (gaps) {
    // Gaps in the target's list: through the buffer, the long runs apart.
    count(&UpdateKernelCounts::buffered);
    BlockRuns runs;
    find_runs(L, m, tail, indmap, f.snode, w.relind, &runs);
    if (runs.nrows > 0 && runs.ncols > 0) count(&UpdateKernelCounts::split);
    buffered_update<T, kAdj>(f, k, s0, jsup, L, m, first_schur, w.relind, runs, w.temp, second);
    return m;
  }
  // The tail is the target's list (coinciding) or a contiguous run of it:
  // straight into the panels, piece by piece.
  count(L == k.len ? &UpdateKernelCounts::coinciding : &UpdateKernelCounts::direct);
  for (int s = s0; s <= jsup; ++s) {
    if (f.xsuper[s] - 1 > first_schur) continue;
    const Piece<T> p = piece_of(f, s, L);
    const std::pair<const T *, int> wp = second(p, m, w.temp);
    contiguous_update<T, kAdj>(f, 0, m, L, tail, p.ncolj, p.x, p.lenj, wp.first, wp.second);
  }
  return m;
}

}  // namespace vm

#endif  // VELMORA_FACTOR_SYMMETRIC_UPDATE_H
