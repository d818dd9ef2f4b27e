// amuxy.h - products of the caller's matrix with blocks of vectors, for
// refinement and the residual call.
//
// The matrix is the caller's (ia, ja, a): compressed rows, one-based.  Two
// structural forms, by the type:
//   general (odd mtype: 1, 3, 11, 13): the whole matrix is stored; y = A x
//     row by row, or y = A^T x with the transpose flag, which scatters
//     each row into y;
//   symmetric (even mtype: 2, -2, 4, -4, 6): the upper triangle is stored;
//     the first entry of a row is taken as its diagonal and acts once,
//     every other entry (i, j) acts on row i and on row j.  The Hermitian
//     types 4 and -4 use the conjugate for the mirrored entry.
// The transpose flag is ignored for symmetric types.
//
// Threads: par[0] is the team size asked for, par[1] the smallest n*nrhs
// that gets a parallel region (0: always).  One right-hand side is split
// by rows, balanced by nonzeros; the scattering forms (symmetric, or
// transposed general) give each thread a private accumulator of n values,
// summed in thread order at the end of the region.  A block of right-hand
// sides runs whole columns on the threads, each column in one thread.  For
// a fixed team the results do not depend on the schedule.
//
// Vectors are nrhs columns of n values; complex values are std::complex
// <double>, the caller's (re, im) pairs.  Nothing here allocates.
#ifndef VELMORA_SOLVE_AMUXY_H
#define VELMORA_SOLVE_AMUXY_H

#include <algorithm>
#include <cstdint>

#include "factor/scalar_traits.h"

namespace vm {

// True when the product of this type and flag scatters into y.
inline bool product_scatters(int mtype, int trans) {
  return mtype % 2 == 0 || trans != 0;
}

// Elements of T that the work of AMUXY_VELMORA needs for `threads`: one
// accumulator of n per thread for one scattering right-hand side, else 0.
std::int64_t amuxy_work_size(int trans, int n, int nrhs, int mtype, int threads);

// Doubles that the work of AMUXY_RES_VELMORA needs for `threads`, with
// `width` 1 (real) or 2 (complex): `threads` partial sums, then for the
// scattering forms one extended accumulator (2*width*n doubles) per column
// in flight: `threads` for one right-hand side, min(threads, nrhs) for a
// block, at least one.
std::int64_t amuxy_res_work_doubles(int trans, int n, int nrhs, int mtype, int threads, int width);

// y := A x, or A^T x when *trans is nonzero (general types only).
//   work: amuxy_work_size(*trans, *n, *nrhs, *mtype, par[0]) elements
template <class T>
void AMUXY_VELMORA(const int *trans, const int *n, const int *nrhs, const int *mtype,
                   const int *par, const int *ia, const int *ja, const T *a, const T *x, T *y,
                   T *work);

// r := b - A x (or b - A^T x) with x given in extended precision (x16,
// double-double pairs, convert.h), each entry of A x accumulated in
// extended precision and the difference rounded once; *sumres := sum of
// the absolute values of every double of r, formed in the same pass.
//   work: amuxy_res_work_doubles(*trans, *n, *nrhs, *mtype, par[0], width)
template <class T>
void AMUXY_RES_VELMORA(const int *trans, const int *n, const int *nrhs, const int *mtype,
                       const int *par, const int *ia, const int *ja, const T *a, const double *x16,
                       const T *b, T *r, double *sumres, double *work);

// The complex twins.
inline void C_AMUXY_VELMORA(const int *trans, const int *n, const int *nrhs, const int *mtype,
                            const int *par, const int *ia, const int *ja, const zcomplex *a,
                            const zcomplex *x, zcomplex *y, zcomplex *work) {
  AMUXY_VELMORA<zcomplex>(trans, n, nrhs, mtype, par, ia, ja, a, x, y, work);
}
inline void C_AMUXY_RES_VELMORA(const int *trans, const int *n, const int *nrhs, const int *mtype,
                                const int *par, const int *ia, const int *ja, const zcomplex *a,
                                const double *x16, const zcomplex *b, zcomplex *r, double *sumres,
                                double *work) {
  AMUXY_RES_VELMORA<zcomplex>(trans, n, nrhs, mtype, par, ia, ja, a, x16, b, r, sumres, work);
}

namespace amuxy_detail {

// First row of part `part` out of `parts` when the rows of (ia) are split
// into runs of about equal nonzero counts; part `parts` gives n.
inline int row_split(const int *ia, int n, int part, int parts) {
  if (part >= parts) return n;
  const std::int64_t nnz = ia[n] - ia[0];
  const std::int64_t target = ia[0] + nnz * part / parts;
  return static_cast<int>(std::lower_bound(ia, ia + n, target) - ia);
}

// Share [lo, hi) of thread `me` out of `team` in a static split of [0, n).
inline void static_share(std::int64_t n, int me, int team, std::int64_t &lo, std::int64_t &hi) {
  const std::int64_t chunk = n / team, extra = n % team;
  lo = me * chunk + std::min<std::int64_t>(me, extra);
  hi = lo + chunk + (me < extra ? 1 : 0);
}

}  // namespace amuxy_detail

}  // namespace vm

#endif  // VELMORA_SOLVE_AMUXY_H
