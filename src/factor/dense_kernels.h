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

// ---- LDL^T and LU kernels of the other families --------------------------
// (dgetf2_diagpiv, dsytf2_pert, dsytrs_half and its three stages,
// dgetrf_p follow here, with the same conventions.)

}  // namespace vm

#endif  // VELMORA_FACTOR_DENSE_KERNELS_H
