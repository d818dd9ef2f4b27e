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

// ---- LDL^T kernels ---------------------------------------------------------
// A pivot is never refused.  A pivot p with |p| <= eps (the test) is
// replaced by +value, or -value when p is negative, and counted in *npert;
// value is |eps|, or 1e-8 when eps is 0, so that eps 0 replaces exact zeros
// only.  Every pivot taken is counted in *npos or *nneg.  The counters are
// added to, never reset.  logdet, when not null, gains log|pivot| of each
// pivot taken (after replacement); the forms without logdet pass null.
// ipiv is one-based and relative to the block.  On complex types the sign
// tests read the real part.

// dgetf2_diagpiv: LU of an m x n block whose pivots are taken from the
// diagonal only, for a symmetric block stored as a full square.  At step k
// the largest diagonal magnitude among a(k..min(m,n), same) is found (the
// search starts at k with maximum 0 and a later equal magnitude wins), rows
// and then columns kp and k of the whole block are exchanged and
// ipiv(k) = kp; the pivot is tested, replaced and counted, the column
// below it scaled by 1/p, and the trailing block updated by a rank-one
// product.  The block ends as L (unit, strict lower) and U = D L^T (upper,
// the pivots D on the diagonal) of P^T A P.
//   info: 0, or -1, -2, -4 for a bad m, n or lda (reported as "DGETF2").
//   kHermitian: the block is Hermitian (mirrored with conjugates); its
//   diagonal is real, and the search and the pivots read the real part.
template <class T, bool kHermitian = false>
void dgetf2_diagpiv(int m, int n, T *a, int lda, int *ipiv, int *info, int *npert, int *npos,
                    int *nneg, double eps);
template <class T, bool kHermitian = false>
void dgetf2_diagpiv_logdet(int m, int n, T *a, int lda, int *ipiv, int *info, int *npert, int *npos,
                           int *nneg, double eps, double *logdet);

// SGETRF_P: dgetf2_diagpiv for the single-precision family, blocked for
// wide blocks.  When min(m, n) is at most 80 it is the kernel itself.
// Otherwise the block is walked in panels of 80 columns: the kernel factors
// the panel (its pivots taken from the panel's part of the diagonal), the
// panel's exchanges are applied to the rows left and right of it and to
// the columns of the panel in the rows above it, the rows of the panel to
// the right are solved with its unit L (trsm) and the trailing block takes
// the product (gemm).  The result has the kernel's layout, L and D L^T of
// P^T A P with ipiv relative to the whole block; only the search of each
// pivot is cut to its panel.  Counters, eps and logdet (null: no sum) as
// for dgetf2_diagpiv; info: 0, or -1, -2, -4 for a bad m, n or lda
// (reported as "SGETF2").
void SGETRF_P(int m, int n, float *a, int lda, int *ipiv, int *info, int *npert, int *npos,
              int *nneg, double eps, double *logdet);

// dsytf2_pert: Bunch-Kaufman factorization P^T A P = L D L^T of the lower
// triangle of an n x n symmetric block (L D L^H with kHermitian, whose
// diagonal is real), in the storage of the LAPACK routine of that name:
// D (1x1 and 2x2 blocks) on the diagonal and first subdiagonal, the unit
// L's multipliers below, ipiv(k) = kp > 0 for a 1x1 pivot exchanged with
// row kp, ipiv(k) = ipiv(k+1) = -kp for a 2x2 pivot whose second row was
// exchanged with kp.  The threshold test comes first: when eps is at
// least max(|a(k,k)|, largest magnitude below it), a(k,k) is replaced and
// taken as a 1x1 pivot without exchange, so a replaced pivot is never
// paired.  Otherwise the choice, exchanges and updates are those of the
// LAPACK routine (alpha = (1 + sqrt(17)) / 8; magnitudes |re| + |im| on
// complex types).  Inertia of a 2x2 pivot: two positive when its
// determinant is positive and both diagonal entries are, two negative when
// the determinant is positive otherwise, one of each when it is not
// positive.  logdet gains log|d| for 1x1 and log|a11 a22 - a21^2| for 2x2.
//   Only the lower form exists: uplo must be 'L' (callers never store the
//   upper triangle).  info: 0, or -1, -2, -4 for a bad uplo, n or lda
//   (reported as "DSYTF2", "ZHETF2" ...).
template <class T, bool kHermitian = false>
void dsytf2_pert(char uplo, int n, T *a, int lda, int *ipiv, int *info, int *npert, int *npos,
                 int *nneg, double eps);
template <class T, bool kHermitian = false>
void dsytf2_pert_logdet(char uplo, int n, T *a, int lda, int *ipiv, int *info, int *npert,
                        int *npos, int *nneg, double eps, double *logdet);

// Solves with a factor of dsytf2_pert (lower form, nrhs columns of b with
// leading dimension ldb), in the stages of the LAPACK routine dsytrs:
//   dsytrs_fwd   b := L^-1 P^T b (the interchanges and the unit factor)
//   dsytrs_diag  b := D^-1 b (1x1 and 2x2 blocks)
//   dsytrs_bwd   b := P L^-T b (L^-H with kHermitian)
//   dsytrs_half  b := D^-1 L^-1 P^T b: fwd and diag in one walk; there is
//                no backward pass, so b is not A^-1 b.
// info: 0, or -1, -2, -3, -5, -8 for a bad uplo, n, nrhs, lda or ldb
// (reported as "DSYTRS", "ZHETRS" ...).  Only uplo 'L' is accepted.
// ipiv_base (fwd, bwd): the block is the trailing part, from column
// ipiv_base on, of a factor whose ipiv counts from that factor's first
// column; exchanges are read as ipiv - ipiv_base.  0 for a whole factor.
template <class T, bool kHermitian = false>
void dsytrs_half(char uplo, int n, int nrhs, const T *a, int lda, const int *ipiv, T *b, int ldb,
                 int *info);

// dsytrs_half_rows: the solve of dsytrs_half for right-hand sides held as
// the rows of b (nrows x n, leading dimension ldb): b := b P L^-T D^-1
// (L^-H on the Hermitian form), that is dsytrs_half applied to b^T (b^H)
// and transposed (conjugated) back, by level-3 BLAS.  The exchanges of
// later steps are carried over to the multipliers of earlier ones, which
// gives a unit lower L' with P^T A P = L' D L'^T, and its transpose
// (conjugate transpose) is written into the strict upper triangle of a,
// which the lower form leaves unused; the columns of b are gathered in
// exchange order into w (nrows x n, leading dimension ldw), solved with
// L'^T there (trsm), and written back through D^-1.  w must come in with
// room for that and is left zero; perm takes n integers.  With n = 1, b is
// scaled by 1/a(1,1) in place and neither w nor perm is touched.
// Rounding differs from dsytrs_half only in the order of the sums of the
// unit-factor solve.
//   info: 0, or -1, -2, -4, -7, -9 for a bad n, nrows, lda, ldb or ldw
//   (reported as "DSYTRS", "ZHETRS" ...).
template <class T, bool kHermitian = false>
void dsytrs_half_rows(int n, int nrows, T *a, int lda, const int *ipiv, T *b, int ldb, T *w,
                      int ldw, int *perm, int *info);
template <class T, bool kHermitian = false>
void dsytrs_fwd(char uplo, int n, int nrhs, const T *a, int lda, const int *ipiv, T *b, int ldb,
                int *info, int ipiv_base = 0);
template <class T, bool kHermitian = false>
void dsytrs_diag(char uplo, int n, int nrhs, const T *a, int lda, const int *ipiv, T *b, int ldb,
                 int *info);
template <class T, bool kHermitian = false>
void dsytrs_bwd(char uplo, int n, int nrhs, const T *a, int lda, const int *ipiv, T *b, int ldb,
                int *info, int ipiv_base = 0);
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

}  // namespace vm

#endif  // VELMORA_FACTOR_DENSE_KERNELS_H
