// dense_kernels.h - factorization kernels of the diagonal block of a
// supernode.  They keep the calling sequences of the LAPACK routines whose
// names they bear (one-based `info`, leading dimension `lda`, arguments
// checked and reported to the math library's error routine under that
// name) but add what the supernodal families need: a log-determinant sum,
// and, in the pivoting kernels, perturbation of small pivots and inertia
// counts instead of failure.
//
// Every kernel is one template over the element type (double, float,
// zcomplex, ccomplex), defined in dense_kernels.cpp and instantiated there
// for the types that use it.  On complex types the Cholesky kernel is the
// Hermitian one (A = L L^H); it reports as "ZPOTF2" / "CPOTF2".
#ifndef VELMORA_FACTOR_DENSE_KERNELS_H
#define VELMORA_FACTOR_DENSE_KERNELS_H

namespace vm {

// ---- Cholesky ------------------------------------------------------------

// dpotf2_logdet: Cholesky factor of the n x n block a (leading dimension
// lda), lower (uplo 'L': A = L L^T, L^H on complex types) or upper ('U':
// A = U^T U).  Only the triangle named by uplo is read and written.
//   info = 0 on success; -1, -2 or -4 for a bad uplo, n or lda (reported
//   as "DPOTF2" etc.); j > 0 when the pivot d of column j is not positive
//   (or is NaN): d is stored unrooted in a(j, j), the leading j-1 by j-1
//   triangle holds its factor, and the rest of the block is left partly
//   updated.
//   logdet: when not null, the lower branch adds log(a(j,j)^2) of every
//   pivot taken; null skips the sum.
// The lower branch is blocked: diagonal pieces of up to 16 columns are
// factored in place by an unblocked kernel, and all other flops go through
// trsm and herk (syrk) of the math library.
template <class T>
void dpotf2_logdet(char uplo, int n, T *a, int lda, int *info, double *logdet);

// ---- LU with complete pivoting inside the block ------------------------

// dgetrf_p: P A Q = L U of the m x n block a (leading dimension lda), L
// unit lower (stored below the diagonal), U upper, by complete pivoting:
// step k takes the entry of largest magnitude of the trailing block (rows
// and columns k..), scanning column by column and row by row, a later
// equal magnitude winning; its row is exchanged with row k over the whole
// width of the block and its column with column k over the whole height.
//   ipiv(k), pivot_col(k): the row and column exchanged with k, one-based
//   and block-relative (always at least k).
//   A pivot p with |p| <= eps is replaced by value (or -value when p is
//   negative; the real part decides on complex types), value = |eps|, or
//   1e-13 when eps is 0, and *npert is incremented: with eps 0 only exact
//   zeros are replaced.  The step then divides the column below the pivot
//   by it entry by entry and takes the rank-one product off the trailing
//   block (ger).
//   info = 0, or -1, -2, -4 for a bad m, n or lda; nothing is reported to
//   the math library's error routine.
template <class T>
void dgetrf_p(int m, int n, T *a, int lda, int *ipiv, int *pivot_col, int *npert, double eps,
              int *info);

// ---- LDL^T and LU kernels of the other families --------------------------
// (dgetf2_diagpiv, dsytf2_pert, dsytrs_half and its three stages,
// dgetrf_p follow here, with the same conventions.)

}  // namespace vm

#endif  // VELMORA_FACTOR_DENSE_KERNELS_H
