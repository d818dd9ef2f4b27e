// gather_scatter.h - moving right-hand sides between the caller's
// numbering and the elimination order, with scaling and the partial solve.
//
// b and x are the caller's arrays of doubles (pairs for complex types); z is
// the working vector of the substitution, in elimination order, of the
// factor's element type T.  Columns of b, x and z are ld apart: n for a full
// solve and for partial mode 1, k for the compressed modes 2 and 3.
//
// Which permutation and which factors apply (perm(i) is the caller's index
// of elimination position i, scale(1..n) the column factors, scale(n+1..2n)
// the row factors):
//   selector -23, -3, -2, 2 (gather)    plain copy, no permutation
//   selector -12, -2, -1, 1 (scatter)   plain copy, no permutation
//   no scaling                          z(i) = b(perm(i)),  x(perm(i)) = z(i)
//   scaling, mtype below 11             both sides by scale(perm(i))
//   scaling, mtype 11 and above         gather b(q(perm(i))) * scale(n+q(perm(i))),
//                                       scatter x(perm(i)) = z(i) * scale(perm(i));
//                                       with the transpose flag the two sides
//                                       swap: the gather takes perm and the
//                                       column factors, the scatter q and the
//                                       row factors.
// The factor is then that of P S A S P^T (symmetric) or of
// P Q Dr A Dc P^T (general, (Q v)(i) = v(q(i))), and x solves A x = b, or
// A^T x = b with the transpose flag.
//
// Partial solve (partial 1, 2, 3): the k selected nodes are the last k
// elimination positions.  In the compressed modes (2, 3) only those move:
// node j is entry j - unselected(j) of the caller's vector and position i
// is entry i - (n - k) of z.  Mode 1 moves all n entries.
//
// Both routines run their loop over the entries in a parallel region with
// a static schedule (one region for all columns); neither can fail.
#ifndef VELMORA_SOLVE_GATHER_SCATTER_H
#define VELMORA_SOLVE_GATHER_SCATTER_H

#include <cstdint>

namespace vm {

// Offset of the caller's node j (one-based) in a column of a caller
// vector.  A compressed vector holds the selected nodes only: an
// unselected node (one whose running count rises at j) has no entry, -1.
// That happens when a matching sends a selected position to another row.
inline std::int64_t caller_offset(int j, bool compressed, const int *unselected) {
  if (!compressed) return j - 1;
  const int before = j > 1 ? unselected[j - 2] : 0;
  return unselected[j - 1] == before ? j - 1 - unselected[j - 1] : -1;
}

// True when the gather of this selector is a plain copy.
bool gather_is_plain(int selector);
// True when the scatter of this selector is a plain copy.
bool scatter_is_plain(int selector);

// PSOL_FWGATH_VELMORA: z = the gathered, permuted and scaled b.
//   in:  transposed (the transpose flag, 0 in the symmetric families), n,
//        mtype, nrhs, b, perm, q (may be null unless scaling with mtype
//        >= 11), scale, unselected (read in the compressed modes only),
//        scaling_on, selector, k, ld, partial
//   out: z (nrhs columns of ld)
template <class T>
void PSOL_FWGATH_VELMORA(int transposed, int n, int mtype, int nrhs, const double *b, T *z,
                         const int *perm, const int *q, const double *scale, const int *unselected,
                         int scaling_on, int selector, int k, int ld, int partial);

// PSOL_BWSCAT_VELMORA: the result of z, permuted back and scaled, into x,
// or into b when to_b (iparm(6)) is 1.  Arguments as for the gather.
template <class T>
void PSOL_BWSCAT_VELMORA(int transposed, int to_b, int n, int mtype, int nrhs, double *b,
                         const T *z, double *x, const int *perm, const int *q, const double *scale,
                         const int *unselected, int scaling_on, int selector, int k, int ld,
                         int partial);

}  // namespace vm

#endif  // VELMORA_SOLVE_GATHER_SCATTER_H
