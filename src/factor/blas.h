// blas.h - typed wrappers over BLAS and LAPACK, one name per operation for
// every element type, so that the templated families call blas::gemm<T>
// and the right routine (d, s, z, c) is chosen at compile time.  All
// matrices are column-major; sizes and leading dimensions are ints, as the
// Fortran interfaces take them.
#ifndef VELMORA_FACTOR_BLAS_H
#define VELMORA_FACTOR_BLAS_H

#include <cstddef>
#include <cstring>

#include "factor/scalar_traits.h"

extern "C" {
void dgemm_(const char *, const char *, const int *, const int *, const int *, const double *,
            const double *, const int *, const double *, const int *, const double *, double *,
            const int *);
void sgemm_(const char *, const char *, const int *, const int *, const int *, const float *,
            const float *, const int *, const float *, const int *, const float *, float *,
            const int *);
void zgemm_(const char *, const char *, const int *, const int *, const int *, const void *,
            const void *, const int *, const void *, const int *, const void *, void *,
            const int *);
void cgemm_(const char *, const char *, const int *, const int *, const int *, const void *,
            const void *, const int *, const void *, const int *, const void *, void *,
            const int *);
void dtrsm_(const char *, const char *, const char *, const char *, const int *, const int *,
            const double *, const double *, const int *, double *, const int *);
void strsm_(const char *, const char *, const char *, const char *, const int *, const int *,
            const float *, const float *, const int *, float *, const int *);
void ztrsm_(const char *, const char *, const char *, const char *, const int *, const int *,
            const void *, const void *, const int *, void *, const int *);
void ctrsm_(const char *, const char *, const char *, const char *, const int *, const int *,
            const void *, const void *, const int *, void *, const int *);
void dgemv_(const char *, const int *, const int *, const double *, const double *, const int *,
            const double *, const int *, const double *, double *, const int *);
void sgemv_(const char *, const int *, const int *, const float *, const float *, const int *,
            const float *, const int *, const float *, float *, const int *);
void zgemv_(const char *, const int *, const int *, const void *, const void *, const int *,
            const void *, const int *, const void *, void *, const int *);
void cgemv_(const char *, const int *, const int *, const void *, const void *, const int *,
            const void *, const int *, const void *, void *, const int *);
void dtrsv_(const char *, const char *, const char *, const int *, const double *, const int *,
            double *, const int *);
void strsv_(const char *, const char *, const char *, const int *, const float *, const int *,
            float *, const int *);
void ztrsv_(const char *, const char *, const char *, const int *, const void *, const int *,
            void *, const int *);
void ctrsv_(const char *, const char *, const char *, const int *, const void *, const int *,
            void *, const int *);
void dgetrf_(const int *, const int *, double *, const int *, int *, int *);
void dsyrk_(const char *, const char *, const int *, const int *, const double *, const double *,
            const int *, const double *, double *, const int *);
void ssyrk_(const char *, const char *, const int *, const int *, const float *, const float *,
            const int *, const float *, float *, const int *);
void zsyrk_(const char *, const char *, const int *, const int *, const void *, const void *,
            const int *, const void *, void *, const int *);
void csyrk_(const char *, const char *, const int *, const int *, const void *, const void *,
            const int *, const void *, void *, const int *);
void zherk_(const char *, const char *, const int *, const int *, const double *, const void *,
            const int *, const double *, void *, const int *);
void cherk_(const char *, const char *, const int *, const int *, const float *, const void *,
            const int *, const float *, void *, const int *);
void dpotrf_(const char *, const int *, double *, const int *, int *);
void spotrf_(const char *, const int *, float *, const int *, int *);
void zpotrf_(const char *, const int *, void *, const int *, int *);
void cpotrf_(const char *, const int *, void *, const int *, int *);
// The math library's error reporter; the trailing argument is the length
// of the routine name, as Fortran passes it.
void xerbla_(const char *, const int *, std::size_t);

void sgetrf_(const int *, const int *, float *, const int *, int *, int *);
void zgetrf_(const int *, const int *, void *, const int *, int *, int *);
void cgetrf_(const int *, const int *, void *, const int *, int *, int *);

// Level 1 and 2 routines of the pivoting kernels.
void dger_(const int *, const int *, const double *, const double *, const int *, const double *,
           const int *, double *, const int *);
void sger_(const int *, const int *, const float *, const float *, const int *, const float *,
           const int *, float *, const int *);
void zgeru_(const int *, const int *, const void *, const void *, const int *, const void *,
            const int *, void *, const int *);
void cgeru_(const int *, const int *, const void *, const void *, const int *, const void *,
            const int *, void *, const int *);
void dsyr_(const char *, const int *, const double *, const double *, const int *, double *,
           const int *);
void ssyr_(const char *, const int *, const float *, const float *, const int *, float *,
           const int *);
void zsyr_(const char *, const int *, const void *, const void *, const int *, void *, const int *);
void csyr_(const char *, const int *, const void *, const void *, const int *, void *, const int *);
void zher_(const char *, const int *, const double *, const void *, const int *, void *,
           const int *);
void cher_(const char *, const int *, const float *, const void *, const int *, void *,
           const int *);
void dscal_(const int *, const double *, double *, const int *);
void sscal_(const int *, const float *, float *, const int *);
void zscal_(const int *, const void *, void *, const int *);
void cscal_(const int *, const void *, void *, const int *);
void dswap_(const int *, double *, const int *, double *, const int *);
void sswap_(const int *, float *, const int *, float *, const int *);
void zswap_(const int *, void *, const int *, void *, const int *);
void cswap_(const int *, void *, const int *, void *, const int *);
int idamax_(const int *, const double *, const int *);
int isamax_(const int *, const float *, const int *);
int izamax_(const int *, const void *, const int *);
int icamax_(const int *, const void *, const int *);
}

namespace vm::blas {

// C := alpha op(A) op(B) + beta C
template <class T>
void gemm(char ta, char tb, int m, int n, int k, T alpha, const T *a, int lda, const T *b, int ldb,
          T beta, T *c, int ldc) {
  if (m <= 0 || n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dgemm_(&ta, &tb, &m, &n, &k, &alpha, a, &lda, b, &ldb, &beta, c, &ldc);
  } else if constexpr (std::is_same_v<T, float>) {
    sgemm_(&ta, &tb, &m, &n, &k, &alpha, a, &lda, b, &ldb, &beta, c, &ldc);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zgemm_(&ta, &tb, &m, &n, &k, &alpha, a, &lda, b, &ldb, &beta, c, &ldc);
  } else {
    cgemm_(&ta, &tb, &m, &n, &k, &alpha, a, &lda, b, &ldb, &beta, c, &ldc);
  }
}

// B := alpha op(A)^-1 B (side 'L') or alpha B op(A)^-1 (side 'R')
template <class T>
void trsm(char side, char uplo, char ta, char diag, int m, int n, T alpha, const T *a, int lda,
          T *b, int ldb) {
  if (m <= 0 || n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dtrsm_(&side, &uplo, &ta, &diag, &m, &n, &alpha, a, &lda, b, &ldb);
  } else if constexpr (std::is_same_v<T, float>) {
    strsm_(&side, &uplo, &ta, &diag, &m, &n, &alpha, a, &lda, b, &ldb);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    ztrsm_(&side, &uplo, &ta, &diag, &m, &n, &alpha, a, &lda, b, &ldb);
  } else {
    ctrsm_(&side, &uplo, &ta, &diag, &m, &n, &alpha, a, &lda, b, &ldb);
  }
}

// y := alpha op(A) x + beta y
template <class T>
void gemv(char ta, int m, int n, T alpha, const T *a, int lda, const T *x, int incx, T beta, T *y,
          int incy) {
  if (m <= 0 || n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dgemv_(&ta, &m, &n, &alpha, a, &lda, x, &incx, &beta, y, &incy);
  } else if constexpr (std::is_same_v<T, float>) {
    sgemv_(&ta, &m, &n, &alpha, a, &lda, x, &incx, &beta, y, &incy);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zgemv_(&ta, &m, &n, &alpha, a, &lda, x, &incx, &beta, y, &incy);
  } else {
    cgemv_(&ta, &m, &n, &alpha, a, &lda, x, &incx, &beta, y, &incy);
  }
}

// x := op(A)^-1 x, A triangular
template <class T>
void trsv(char uplo, char ta, char diag, int n, const T *a, int lda, T *x, int incx) {
  if (n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dtrsv_(&uplo, &ta, &diag, &n, a, &lda, x, &incx);
  } else if constexpr (std::is_same_v<T, float>) {
    strsv_(&uplo, &ta, &diag, &n, a, &lda, x, &incx);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    ztrsv_(&uplo, &ta, &diag, &n, a, &lda, x, &incx);
  } else {
    ctrsv_(&uplo, &ta, &diag, &n, a, &lda, x, &incx);
  }
}

// LU with partial pivoting of an m x n block; info > 0: zero pivot there.
template <class T>
int getrf(int m, int n, T *a, int lda, int *ipiv) {
  int info = 0;
  if (m <= 0 || n <= 0) return 0;
  if constexpr (std::is_same_v<T, double>) {
    dgetrf_(&m, &n, a, &lda, ipiv, &info);
  } else if constexpr (std::is_same_v<T, float>) {
    sgetrf_(&m, &n, a, &lda, ipiv, &info);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zgetrf_(&m, &n, a, &lda, ipiv, &info);
  } else {
    cgetrf_(&m, &n, a, &lda, ipiv, &info);
  }
  return info;
}

// C := alpha op(A) op(A)^T + beta C, lower or upper triangle of C only
// (complex types: the plain transpose, no conjugation).
template <class T>
void syrk(char uplo, char trans, int n, int k, T alpha, const T *a, int lda, T beta, T *c,
          int ldc) {
  if (n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dsyrk_(&uplo, &trans, &n, &k, &alpha, a, &lda, &beta, c, &ldc);
  } else if constexpr (std::is_same_v<T, float>) {
    ssyrk_(&uplo, &trans, &n, &k, &alpha, a, &lda, &beta, c, &ldc);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zsyrk_(&uplo, &trans, &n, &k, &alpha, a, &lda, &beta, c, &ldc);
  } else {
    csyrk_(&uplo, &trans, &n, &k, &alpha, a, &lda, &beta, c, &ldc);
  }
}

// C := alpha op(A) op(A)^H + beta C with real alpha and beta, one triangle
// of C.  On real types this is syrk ('C' reads as 'T').
template <class T>
void herk(char uplo, char trans, int n, int k, real_of<T> alpha, const T *a, int lda,
          real_of<T> beta, T *c, int ldc) {
  if (n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dsyrk_(&uplo, &trans, &n, &k, &alpha, a, &lda, &beta, c, &ldc);
  } else if constexpr (std::is_same_v<T, float>) {
    ssyrk_(&uplo, &trans, &n, &k, &alpha, a, &lda, &beta, c, &ldc);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zherk_(&uplo, &trans, &n, &k, &alpha, a, &lda, &beta, c, &ldc);
  } else {
    cherk_(&uplo, &trans, &n, &k, &alpha, a, &lda, &beta, c, &ldc);
  }
}

// Cholesky factor of a positive definite block (Hermitian for complex
// types); info > 0: the leading minor of that order is not positive.
template <class T>
int potrf(char uplo, int n, T *a, int lda) {
  int info = 0;
  if (n <= 0) return 0;
  if constexpr (std::is_same_v<T, double>) {
    dpotrf_(&uplo, &n, a, &lda, &info);
  } else if constexpr (std::is_same_v<T, float>) {
    spotrf_(&uplo, &n, a, &lda, &info);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zpotrf_(&uplo, &n, a, &lda, &info);
  } else {
    cpotrf_(&uplo, &n, a, &lda, &info);
  }
  return info;
}

// A := alpha x y^T + A, the rank-one update without conjugation (geru on
// complex types).
template <class T>
void ger(int m, int n, T alpha, const T *x, int incx, const T *y, int incy, T *a, int lda) {
  if (m <= 0 || n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dger_(&m, &n, &alpha, x, &incx, y, &incy, a, &lda);
  } else if constexpr (std::is_same_v<T, float>) {
    sger_(&m, &n, &alpha, x, &incx, y, &incy, a, &lda);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zgeru_(&m, &n, &alpha, x, &incx, y, &incy, a, &lda);
  } else {
    cgeru_(&m, &n, &alpha, x, &incx, y, &incy, a, &lda);
  }
}

// Reports a bad argument (its position `arg`) of the routine `name` the
// way the math library does for its own routines.
inline void xerbla(const char *name, int arg) {
  xerbla_(name, &arg, std::strlen(name));
}

// The transpose letter of the adjoint for the element type: 'T' on real
// types, 'C' on complex ones (the Hermitian families).
template <class T>
constexpr char adjoint_letter() {
  return scalar_traits<T>::is_complex ? 'C' : 'T';
}

// The type letter of BLAS and LAPACK names: d, s, z, c.
template <class T>
constexpr char type_letter_upper() {
  if constexpr (std::is_same_v<T, double>) {
    return 'D';
  } else if constexpr (std::is_same_v<T, float>) {
    return 'S';
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    return 'Z';
  } else {
    return 'C';
  }
}

// A := alpha x x^T + A, one triangle (complex types: no conjugation)
template <class T>
void syr(char uplo, int n, T alpha, const T *x, int incx, T *a, int lda) {
  if (n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dsyr_(&uplo, &n, &alpha, x, &incx, a, &lda);
  } else if constexpr (std::is_same_v<T, float>) {
    ssyr_(&uplo, &n, &alpha, x, &incx, a, &lda);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zsyr_(&uplo, &n, &alpha, x, &incx, a, &lda);
  } else {
    csyr_(&uplo, &n, &alpha, x, &incx, a, &lda);
  }
}

// A := alpha x x^H + A with real alpha, one triangle; syr on real types.
template <class T>
void her(char uplo, int n, real_of<T> alpha, const T *x, int incx, T *a, int lda) {
  if (n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dsyr_(&uplo, &n, &alpha, x, &incx, a, &lda);
  } else if constexpr (std::is_same_v<T, float>) {
    ssyr_(&uplo, &n, &alpha, x, &incx, a, &lda);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zher_(&uplo, &n, &alpha, x, &incx, a, &lda);
  } else {
    cher_(&uplo, &n, &alpha, x, &incx, a, &lda);
  }
}

// x := alpha x
template <class T>
void scal(int n, T alpha, T *x, int incx) {
  if (n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dscal_(&n, &alpha, x, &incx);
  } else if constexpr (std::is_same_v<T, float>) {
    sscal_(&n, &alpha, x, &incx);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zscal_(&n, &alpha, x, &incx);
  } else {
    cscal_(&n, &alpha, x, &incx);
  }
}

// x <-> y
template <class T>
void swap(int n, T *x, int incx, T *y, int incy) {
  if (n <= 0) return;
  if constexpr (std::is_same_v<T, double>) {
    dswap_(&n, x, &incx, y, &incy);
  } else if constexpr (std::is_same_v<T, float>) {
    sswap_(&n, x, &incx, y, &incy);
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    zswap_(&n, x, &incx, y, &incy);
  } else {
    cswap_(&n, x, &incx, y, &incy);
  }
}

// Zero-based position of the first entry of largest magnitude among n
// entries of x (|re| + |im| on complex types); 0 when n < 1.
template <class T>
int iamax(int n, const T *x, int incx) {
  if (n <= 0) return 0;
  if constexpr (std::is_same_v<T, double>) {
    return idamax_(&n, x, &incx) - 1;
  } else if constexpr (std::is_same_v<T, float>) {
    return isamax_(&n, x, &incx) - 1;
  } else if constexpr (std::is_same_v<T, zcomplex>) {
    return izamax_(&n, x, &incx) - 1;
  } else {
    return icamax_(&n, x, &incx) - 1;
  }
}

}  // namespace vm::blas

#endif  // VELMORA_FACTOR_BLAS_H
