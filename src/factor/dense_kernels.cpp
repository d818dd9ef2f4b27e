// dense_kernels.cpp - kernels of the diagonal block (see dense_kernels.h).
#include "factor/dense_kernels.h"

#include <cmath>
#include <cstddef>
#include <utility>

#include "factor/blas.h"
#include "factor/scalar_traits.h"

namespace vm {

namespace {

// Name under which a kernel reports a bad argument: the type letter and
// the LAPACK stem, e.g. "DPOTF2".
template <class T>
struct KernelName {
  char text[8];
  explicit KernelName(const char *stem) {
    text[0] = blas::type_letter_upper<T>();
    int i = 1;
    for (; stem[i - 1] != '\0' && i < 7; ++i) text[i] = stem[i - 1];
    text[i] = '\0';
  }
};

// Width at and below which a diagonal piece is factored by the unblocked
// kernel.  The pieces are small enough to stay in the first-level cache,
// and large enough that the trsm and herk calls between them do real work.
constexpr int kCholeskyLeaf = 16;

// True when d cannot be a pivot of a Cholesky factor: not above zero, or
// NaN (which fails every comparison).
template <class R>
inline bool bad_pivot(R d) {
  return !(d > R(0));
}

// Unblocked lower Cholesky of an n x n block, right-looking: after column j
// is scaled, its outer product is taken off the trailing lower triangle at
// once, so every inner loop runs down a column.  Returns 0 or the one-based
// column of the first pivot that is not positive, stored unrooted.
template <class T>
int potf2_lower_unblocked(int n, T *a, std::ptrdiff_t lda, double *logdet) {
  using R = real_of<T>;
  for (int j = 0; j < n; ++j) {
    T *cj = a + j * lda;
    const R d = real_part(cj[j]);
    if (bad_pivot(d)) {
      cj[j] = T(d);
      return j + 1;
    }
    const R ajj = std::sqrt(d);
    cj[j] = T(ajj);
    if (logdet != nullptr) *logdet += std::log(std::abs(static_cast<double>(ajj * ajj)));
    const R r = R(1) / ajj;
    for (int i = j + 1; i < n; ++i) cj[i] *= r;
    for (int k = j + 1; k < n; ++k) {
      T *ck = a + k * lda;
      const T t = conj_of(cj[k]);
      for (int i = k; i < n; ++i) ck[i] -= cj[i] * t;
    }
  }
  return 0;
}

// Lower Cholesky by halves: factor the leading half, solve the block
// below it (trsm), take its product off the trailing half (herk) and
// factor that.  A failure in the leading half leaves the trailing half as
// it came in.
template <class T>
int potf2_lower(int n, T *a, int lda, double *logdet) {
  if (n <= kCholeskyLeaf) return potf2_lower_unblocked(n, a, lda, logdet);
  // split on a multiple of the leaf width, so that leaves stay full
  const int n1 = ((n / 2 + kCholeskyLeaf - 1) / kCholeskyLeaf) * kCholeskyLeaf;
  const int n2 = n - n1;
  int info = potf2_lower(n1, a, lda, logdet);
  if (info != 0) return info;
  T *a21 = a + n1;
  T *a22 = a + n1 + static_cast<std::ptrdiff_t>(n1) * lda;
  blas::trsm<T>('R', 'L', blas::adjoint_letter<T>(), 'N', n2, n1, T(1), a, lda, a21, lda);
  blas::herk<T>('L', 'N', n2, n1, real_of<T>(-1), a21, lda, real_of<T>(1), a22, lda);
  info = potf2_lower(n2, a22, lda, logdet);
  return info != 0 ? info + n1 : 0;
}

// Upper Cholesky, A = U^H U, column by column as the reference routine
// does it.  No caller in the library takes this branch.
template <class T>
int potf2_upper(int n, T *a, std::ptrdiff_t lda) {
  using R = real_of<T>;
  for (int j = 0; j < n; ++j) {
    T *cj = a + j * lda;
    R d = real_part(cj[j]);
    for (int i = 0; i < j; ++i) d -= real_part(conj_of(cj[i]) * cj[i]);
    if (bad_pivot(d)) {
      cj[j] = T(d);
      return j + 1;
    }
    const R ajj = std::sqrt(d);
    cj[j] = T(ajj);
    const R r = R(1) / ajj;
    for (int k = j + 1; k < n; ++k) {
      T *ck = a + k * lda;
      T s = ck[j];
      for (int i = 0; i < j; ++i) s -= conj_of(cj[i]) * ck[i];
      ck[j] = s * r;
    }
  }
  return 0;
}

}  // namespace

template <class T>
void dpotf2_logdet(char uplo, int n, T *a, int lda, int *info, double *logdet) {
  const bool lower = uplo == 'L' || uplo == 'l';
  const bool upper = uplo == 'U' || uplo == 'u';
  *info = 0;
  if (!lower && !upper) {
    *info = -1;
  } else if (n < 0) {
    *info = -2;
  } else if (lda < (n > 1 ? n : 1)) {
    *info = -4;
  }
  if (*info != 0) {
    blas::xerbla(KernelName<T>("POTF2").text, -*info);
    return;
  }
  if (n == 0) return;
  *info = lower ? potf2_lower(n, a, lda, logdet) : potf2_upper(n, a, lda);
}

// Replacement value of a perturbed LU pivot when the threshold is 0.
constexpr double kLuDefaultPivot = 1e-13;

template <class T>
void dgetrf_p(int m, int n, T *a, int lda, int *ipiv, int *pivot_col, int *npert, double eps,
              int *info) {
  using R = real_of<T>;
  *info = 0;
  if (m < 0) {
    *info = -1;
  } else if (n < 0) {
    *info = -2;
  } else if (lda < (m > 1 ? m : 1)) {
    *info = -4;
  }
  if (*info != 0 || m == 0 || n == 0) return;
  const std::ptrdiff_t ld = lda;
  const R value = static_cast<R>(eps != 0.0 ? std::fabs(eps) : kLuDefaultPivot);
  auto at = [a, ld](int i, int j) -> T & { return a[i + j * ld]; };
  const int steps = m < n ? m : n;
  for (int k = 0; k < steps; ++k) {
    // Largest magnitude of the trailing block; ties go to the later entry.
    int ip = k, jp = k;
    R amax = R(0);
    for (int j = k; j < n; ++j) {
      const T *col = a + j * ld;
      for (int i = k; i < m; ++i) {
        const R v = abs_of(col[i]);
        if (v >= amax) {
          amax = v;
          ip = i;
          jp = j;
        }
      }
    }
    if (ip != k) {
      for (int j = 0; j < n; ++j) std::swap(at(k, j), at(ip, j));
    }
    ipiv[k] = ip + 1;
    if (jp != k) {
      T *ck = a + k * ld;
      T *cp = a + jp * ld;
      for (int i = 0; i < m; ++i) std::swap(ck[i], cp[i]);
    }
    pivot_col[k] = jp + 1;

    T &p = at(k, k);
    if (eps >= static_cast<double>(abs_of(p))) {
      ++*npert;
      p = real_part(p) < R(0) ? T(-value) : T(value);
    }
    const T pk = p;
    T *below = a + k * ld + k + 1;
    for (int i = 0; i < m - k - 1; ++i) below[i] /= pk;
    blas::ger<T>(m - k - 1, n - k - 1, T(-1), below, 1, a + (k + 1) * ld + k, lda,
                 a + (k + 1) * ld + k + 1, lda);
  }
}

template void dgetrf_p<double>(int, int, double *, int, int *, int *, int *, double, int *);
template void dgetrf_p<float>(int, int, float *, int, int *, int *, int *, double, int *);
template void dgetrf_p<zcomplex>(int, int, zcomplex *, int, int *, int *, int *, double, int *);
template void dgetrf_p<ccomplex>(int, int, ccomplex *, int, int *, int *, int *, double, int *);

template void dpotf2_logdet<double>(char, int, double *, int, int *, double *);
template void dpotf2_logdet<float>(char, int, float *, int, int *, double *);
template void dpotf2_logdet<zcomplex>(char, int, zcomplex *, int, int *, double *);
template void dpotf2_logdet<ccomplex>(char, int, ccomplex *, int, int *, double *);

}  // namespace vm
