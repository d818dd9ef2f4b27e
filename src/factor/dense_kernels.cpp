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
    } else if (not_a_number(p)) {
      ++*npert;  // counted, left: values that are not numbers reached it
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

// ---- LDL^T kernels ---------------------------------------------------------

namespace {

// Replacement of a small pivot when eps is 0 (1e-8, 0x3E45798EE2308C3A).
constexpr double kDefaultPivot = 1e-8;

// (1 + sqrt(17)) / 8: the Bunch-Kaufman bound that balances the growth of
// a 1x1 and a 2x2 step.
constexpr double kBunchKaufmanAlpha = 0.6403882032022076;

inline double replacement_value(double eps) {
  return eps != 0.0 ? std::fabs(eps) : kDefaultPivot;
}

// Magnitude used by the pivot searches: |re| + |im| on complex types, as
// the math library's index-of-maximum routines measure it.
template <class T>
inline real_of<T> cabs1(T v) {
  if constexpr (scalar_traits<T>::is_complex) {
    return std::abs(v.real()) + std::abs(v.imag());
  } else {
    return std::abs(v);
  }
}

// Column-major element access with a 64-bit stride.
template <class T>
struct Block {
  T *p;
  std::ptrdiff_t ld;
  T &operator()(int i, int j) const { return p[i + j * ld]; }
};

// The replacement of pivot p: -value when p is negative, +value otherwise
// (an exact zero takes the positive sign).
template <class T>
inline T replaced_pivot(T p, real_of<T> value) {
  return real_part(p) < 0 ? T(-value) : T(value);
}

// Counts a pivot by the sign of s (the pivot or its reciprocal).
template <class T>
inline void count_sign(T s, int *npos, int *nneg) {
  if (real_part(s) < 0) {
    ++*nneg;
  } else {
    ++*npos;
  }
}

// With kHermitian the block is Hermitian: its diagonal is real, so the
// search and the pivot read the real part only, and the imaginary rounding
// left by the updates on the diagonal is dropped.
template <class T, bool kHermitian>
void getf2_diagpiv(int m, int n, T *a, int lda, int *ipiv, int *info, int *npert, int *npos,
                   int *nneg, double eps, double *logdet) {
  using R = real_of<T>;
  *info = 0;
  if (m < 0) {
    *info = -1;
  } else if (n < 0) {
    *info = -2;
  } else if (lda < (m > 1 ? m : 1)) {
    *info = -4;
  }
  if (*info != 0) {
    blas::xerbla(KernelName<T>("GETF2").text, -*info);
    return;
  }
  const R value = static_cast<R>(replacement_value(eps));
  const Block<T> A{a, lda};
  const int mn = m < n ? m : n;
  for (int k = 0; k < mn; ++k) {
    // Largest remaining diagonal magnitude; a later equal one wins.
    int kp = k;
    R best = 0;
    for (int j = k; j < mn; ++j) {
      const R v = kHermitian ? std::abs(real_part(A(j, j))) : abs_of(A(j, j));
      if (v >= best) {
        best = v;
        kp = j;
      }
    }
    ipiv[k] = kp + 1;
    if (kp != k) {  // rows, then columns, over the whole block
      blas::swap<T>(n, &A(k, 0), lda, &A(kp, 0), lda);
      blas::swap<T>(m, &A(0, k), 1, &A(0, kp), 1);
    }
    T p = A(k, k);
    if constexpr (kHermitian) {
      p = T(real_part(p));
      A(k, k) = p;
    }
    if (eps >= static_cast<double>(abs_of(p))) {
      ++*npert;
      p = replaced_pivot(p, value);
      A(k, k) = p;
    } else if (not_a_number(p)) {
      ++*npert;  // counted, left: values that are not numbers reached it
    }
    count_sign(p, npos, nneg);
    if (logdet != nullptr) *logdet += std::log(static_cast<double>(abs_of(p)));
    if (k < m - 1) blas::scal<T>(m - k - 1, T(1) / p, &A(k + 1, k), 1);
    if (k < mn - 1) {
      blas::ger<T>(m - k - 1, n - k - 1, T(-1), &A(k + 1, k), 1, &A(k, k + 1), lda,
                   &A(k + 1, k + 1), lda);
    }
  }
}

// Name of the symmetric kernels: "DSYTF2", or "ZHETF2" for the Hermitian form.
template <class T, bool kHermitian>
KernelName<T> sym_name(const char *sy, const char *he) {
  return KernelName<T>(kHermitian && scalar_traits<T>::is_complex ? he : sy);
}

// Exchange of row and column kk with kp (kp > kk) in the trailing lower
// triangle, and in a 2x2 step of a(k+1, k) with a(kp, k).
template <class T, bool kHermitian>
void sym_interchange(const Block<T> &A, int n, int k, int kk, int kp, int kstep) {
  if (kp < n - 1) blas::swap<T>(n - kp - 1, &A(kp + 1, kk), 1, &A(kp + 1, kp), 1);
  if constexpr (kHermitian) {
    for (int j = kk + 1; j < kp; ++j) {
      const T t = conj_of(A(j, kk));
      A(j, kk) = conj_of(A(kp, j));
      A(kp, j) = t;
    }
    A(kp, kk) = conj_of(A(kp, kk));
    const real_of<T> r = real_part(A(kk, kk));
    A(kk, kk) = T(real_part(A(kp, kp)));
    A(kp, kp) = T(r);
    if (kstep == 2) A(k, k) = T(real_part(A(k, k)));
  } else {
    blas::swap<T>(kp - kk - 1, &A(kk + 1, kk), 1, &A(kp, kk + 1), A.ld);
    std::swap(A(kk, kk), A(kp, kp));
  }
  if (kstep == 2) std::swap(A(k + 1, k), A(kp, k));
}

// A 2x2 pivot on columns k, k+1: inertia, log-determinant, and (when rows
// remain below) the rank-two update of the trailing triangle with the new
// multipliers, in the form of the LAPACK routines' lower branch.
template <class T, bool kHermitian>
void sym_pivot2(const Block<T> &A, int n, int k, int *npos, int *nneg, double *logdet) {
  using R = real_of<T>;
  const T a11 = A(k, k), a22 = A(k + 1, k + 1), a21 = A(k + 1, k);
  if constexpr (kHermitian) {
    const R d = std::abs(a21);
    const R d11 = real_part(a22) / d, d22 = real_part(a11) / d;
    const R tt = R(1) / (d11 * d22 - R(1));
    if (tt > 0) {
      *(real_part(a11) > 0 && real_part(a22) > 0 ? npos : nneg) += 2;
    } else {
      ++*npos;
      ++*nneg;
    }
    if (logdet != nullptr) {
      *logdet += std::log(std::abs(static_cast<double>(real_part(a11) * real_part(a22) - d * d)));
    }
    if (k >= n - 2) return;
    const T d21 = a21 / d;
    const R dd = tt / d;
    for (int j = k + 2; j < n; ++j) {
      const T wk = dd * (d11 * A(j, k) - d21 * A(j, k + 1));
      const T wkp1 = dd * (d22 * A(j, k + 1) - conj_of(d21) * A(j, k));
      const T cwk = conj_of(wk), cwkp1 = conj_of(wkp1);
      for (int i = j; i < n; ++i) A(i, j) -= A(i, k) * cwk + A(i, k + 1) * cwkp1;
      A(j, k) = wk;
      A(j, k + 1) = wkp1;
      A(j, j) = T(real_part(A(j, j)));
    }
  } else {
    const T d11 = a22 / a21, d22 = a11 / a21;
    const T t = T(1) / (d11 * d22 - T(1));
    if (real_part(t) > 0) {
      *(real_part(a11) > 0 && real_part(a22) > 0 ? npos : nneg) += 2;
    } else {
      ++*npos;
      ++*nneg;
    }
    if (logdet != nullptr) *logdet += std::log(static_cast<double>(abs_of(a11 * a22 - a21 * a21)));
    if (k >= n - 2) return;
    const T d21 = t / a21;
    for (int j = k + 2; j < n; ++j) {
      const T wk = d21 * (d11 * A(j, k) - A(j, k + 1));
      const T wkp1 = d21 * (d22 * A(j, k + 1) - A(j, k));
      for (int i = j; i < n; ++i) A(i, j) -= A(i, k) * wk + A(i, k + 1) * wkp1;
      A(j, k) = wk;
      A(j, k + 1) = wkp1;
    }
  }
}

template <class T, bool kHermitian>
void sytf2_pert(char uplo, int n, T *a, int lda, int *ipiv, int *info, int *npert, int *npos,
                int *nneg, double eps, double *logdet) {
  using R = real_of<T>;
  *info = 0;
  if (uplo != 'L' && uplo != 'l') {
    *info = -1;
  } else if (n < 0) {
    *info = -2;
  } else if (lda < (n > 1 ? n : 1)) {
    *info = -4;
  }
  if (*info != 0) {
    blas::xerbla(sym_name<T, kHermitian>("SYTF2", "HETF2").text, -*info);
    return;
  }
  const R alpha = static_cast<R>(kBunchKaufmanAlpha);
  const R value = static_cast<R>(replacement_value(eps));
  const Block<T> A{a, lda};
  auto diag_abs = [](T v) { return kHermitian ? std::abs(real_part(v)) : cabs1(v); };
  for (int k = 0; k < n;) {
    int kstep = 1, kp = k;
    const R absakk = diag_abs(A(k, k));
    int imax = k;
    R colmax = 0;
    if (k < n - 1) {
      imax = k + 1 + blas::iamax<T>(n - k - 1, &A(k + 1, k), 1);
      colmax = cabs1(A(imax, k));
    }
    if (eps >= static_cast<double>(absakk > colmax ? absakk : colmax)) {
      // Nothing usable in this column: the pivot is replaced, never paired.
      ++*npert;
      A(k, k) = replaced_pivot(A(k, k), value);
    } else if (absakk < alpha * colmax) {
      // Largest off-diagonal magnitude in row imax: left of the diagonal
      // along the row, then down column imax.
      int jmax = k + blas::iamax<T>(imax - k, &A(imax, k), lda);
      R rowmax = cabs1(A(imax, jmax));
      if (imax < n - 1) {
        jmax = imax + 1 + blas::iamax<T>(n - imax - 1, &A(imax + 1, imax), 1);
        const R v = cabs1(A(jmax, imax));
        if (v > rowmax) rowmax = v;
      }
      if (absakk >= alpha * colmax * (colmax / rowmax)) {
        // 1x1 on k without exchange
      } else if (diag_abs(A(imax, imax)) >= alpha * rowmax) {
        kp = imax;
      } else {
        kp = imax;
        kstep = 2;
      }
    }
    const int kk = k + kstep - 1;
    if (kp != kk) {
      sym_interchange<T, kHermitian>(A, n, k, kk, kp, kstep);
    } else if constexpr (kHermitian) {
      A(k, k) = T(real_part(A(k, k)));
      if (kstep == 2) A(k + 1, k + 1) = T(real_part(A(k + 1, k + 1)));
    }
    // A pivot that values which are not numbers reached is counted with
    // the perturbed ones and left as it is.
    if (not_a_number(A(k, k)) ||
        (kstep == 2 && (not_a_number(A(k + 1, k)) || not_a_number(A(k + 1, k + 1)))))
      *npert += kstep;
    if (kstep == 1) {
      const T d = A(k, k);
      if (logdet != nullptr) *logdet += std::log(static_cast<double>(abs_of(d)));
      if (k == n - 1) {
        count_sign(d, npos, nneg);
      } else {
        const T r = T(1) / d;
        count_sign(r, npos, nneg);
        if constexpr (kHermitian) {
          blas::her<T>('L', n - k - 1, -real_part(r), &A(k + 1, k), 1, &A(k + 1, k + 1), lda);
          blas::scal<T>(n - k - 1, T(real_part(r)), &A(k + 1, k), 1);
        } else {
          blas::syr<T>('L', n - k - 1, -r, &A(k + 1, k), 1, &A(k + 1, k + 1), lda);
          blas::scal<T>(n - k - 1, r, &A(k + 1, k), 1);
        }
      }
      ipiv[k] = kp + 1;
    } else {
      sym_pivot2<T, kHermitian>(A, n, k, npos, nneg, logdet);
      ipiv[k] = ipiv[k + 1] = -(kp + 1);
    }
    k += kstep;
  }
}

// Argument check of the solve stages; false when there is nothing to do.
template <class T, bool kHermitian>
bool sytrs_args(char uplo, int n, int nrhs, int lda, int ldb, int *info) {
  *info = 0;
  if (uplo != 'L' && uplo != 'l') {
    *info = -1;
  } else if (n < 0) {
    *info = -2;
  } else if (nrhs < 0) {
    *info = -3;
  } else if (lda < (n > 1 ? n : 1)) {
    *info = -5;
  } else if (ldb < (n > 1 ? n : 1)) {
    *info = -8;
  }
  if (*info != 0) {
    blas::xerbla(sym_name<T, kHermitian>("SYTRS", "HETRS").text, -*info);
    return false;
  }
  return n > 0 && nrhs > 0;
}

// b(k, :) := b(k, :) / d for a 1x1 pivot d (real on the Hermitian form).
template <class T, bool kHermitian>
inline void solve_d1(const Block<const T> &A, int k, int nrhs, T *b, int ldb) {
  if constexpr (kHermitian) {
    blas::scal<T>(nrhs, T(real_of<T>(1) / real_part(A(k, k))), b + k, ldb);
  } else {
    blas::scal<T>(nrhs, T(1) / A(k, k), b + k, ldb);
  }
}

// The solve with the 2x2 pivot on k, k+1 in the form of the LAPACK
// routine: (x, y) := D^-1 (x, y) through the scaled entries below.
template <class T, bool kHermitian>
struct Pivot2Solve {
  T akm1k, c, akm1, ak, denom;
  Pivot2Solve(const Block<const T> &A, int k)
      : akm1k(A(k + 1, k)),
        c(conj_if<kHermitian>(akm1k)),
        akm1(A(k, k) / c),
        ak(A(k + 1, k + 1) / akm1k),
        denom(akm1 * ak - T(1)) {}
  void apply(T *x, T *y) const {
    const T p = *x / c, q = *y / akm1k;
    *x = (ak * p - q) / denom;
    *y = (akm1 * q - p) / denom;
  }
};

// Rows k, k+1 of b through the 2x2 pivot on k, k+1, right-hand sides in
// pairs.
template <class T, bool kHermitian>
inline void solve_d2(const Block<const T> &A, int k, int nrhs, T *b, std::ptrdiff_t ldb) {
  const Pivot2Solve<T, kHermitian> d(A, k);
  int j = 0;
  for (; j + 1 < nrhs; j += 2) {
    T *b0 = b + j * ldb + k, *b1 = b0 + ldb;
    d.apply(b0, b0 + 1);
    d.apply(b1, b1 + 1);
  }
  if (j < nrhs) {
    T *b0 = b + j * ldb + k;
    d.apply(b0, b0 + 1);
  }
}

// The upward walk of the solve: interchanges and L^-1, and with kWithD
// the D solve of each pivot as it is passed.
template <class T, bool kHermitian, bool kWithD>
void sytrs_forward(int n, int nrhs, const T *a, int lda, const int *ipiv, T *b, int ldb, int base) {
  const Block<const T> A{a, lda};
  for (int k = 0; k < n;) {
    if (ipiv[k] > 0) {
      const int kp = ipiv[k] - 1 - base;
      if (kp != k) blas::swap<T>(nrhs, b + k, ldb, b + kp, ldb);
      if (k < n - 1) {
        blas::ger<T>(n - k - 1, nrhs, T(-1), &A(k + 1, k), 1, b + k, ldb, b + k + 1, ldb);
      }
      if (kWithD) solve_d1<T, kHermitian>(A, k, nrhs, b, ldb);
      k += 1;
    } else {
      const int kp = -ipiv[k] - 1 - base;
      if (kp != k + 1) blas::swap<T>(nrhs, b + k + 1, ldb, b + kp, ldb);
      if (k < n - 2) {
        blas::ger<T>(n - k - 2, nrhs, T(-1), &A(k + 2, k), 1, b + k, ldb, b + k + 2, ldb);
        blas::ger<T>(n - k - 2, nrhs, T(-1), &A(k + 2, k + 1), 1, b + k + 1, ldb, b + k + 2, ldb);
      }
      if (kWithD) solve_d2<T, kHermitian>(A, k, nrhs, b, ldb);
      k += 2;
    }
  }
}

// b(k, :) -= column a(k+1.., k)^T (^H on the Hermitian form) b(k+1.., :)
template <class T, bool kHermitian>
inline void sub_dot(int len, int nrhs, const T *col, const T *below, T *bk, int ldb) {
  if constexpr (kHermitian) {
    for (int j = 0; j < nrhs; ++j) {
      const T *bj = below + static_cast<std::ptrdiff_t>(j) * ldb;
      T s = T(0);
      for (int i = 0; i < len; ++i) s += conj_of(col[i]) * bj[i];
      bk[static_cast<std::ptrdiff_t>(j) * ldb] -= s;
    }
  } else {
    blas::gemv<T>('T', len, nrhs, T(-1), below, ldb, col, 1, T(1), bk, ldb);
  }
}

}  // namespace

template <class T, bool kHermitian>
void dgetf2_diagpiv(int m, int n, T *a, int lda, int *ipiv, int *info, int *npert, int *npos,
                    int *nneg, double eps) {
  getf2_diagpiv<T, kHermitian>(m, n, a, lda, ipiv, info, npert, npos, nneg, eps, nullptr);
}

template <class T, bool kHermitian>
void dgetf2_diagpiv_logdet(int m, int n, T *a, int lda, int *ipiv, int *info, int *npert, int *npos,
                           int *nneg, double eps, double *logdet) {
  getf2_diagpiv<T, kHermitian>(m, n, a, lda, ipiv, info, npert, npos, nneg, eps, logdet);
}

template <class T, bool kHermitian>
void dsytf2_pert(char uplo, int n, T *a, int lda, int *ipiv, int *info, int *npert, int *npos,
                 int *nneg, double eps) {
  sytf2_pert<T, kHermitian>(uplo, n, a, lda, ipiv, info, npert, npos, nneg, eps, nullptr);
}

template <class T, bool kHermitian>
void dsytf2_pert_logdet(char uplo, int n, T *a, int lda, int *ipiv, int *info, int *npert,
                        int *npos, int *nneg, double eps, double *logdet) {
  sytf2_pert<T, kHermitian>(uplo, n, a, lda, ipiv, info, npert, npos, nneg, eps, logdet);
}

template <class T, bool kHermitian>
void dsytrs_half(char uplo, int n, int nrhs, const T *a, int lda, const int *ipiv, T *b, int ldb,
                 int *info) {
  if (!sytrs_args<T, kHermitian>(uplo, n, nrhs, lda, ldb, info)) return;
  sytrs_forward<T, kHermitian, true>(n, nrhs, a, lda, ipiv, b, ldb, 0);
}

template <class T, bool kHermitian>
void dsytrs_half_rows(int n, int nrows, T *a, int lda, const int *ipiv, T *b, int ldb, T *w,
                      int ldw, int *perm, int *info) {
  *info = 0;
  if (n < 0) {
    *info = -1;
  } else if (nrows < 0) {
    *info = -2;
  } else if (lda < (n > 1 ? n : 1)) {
    *info = -4;
  } else if (ldb < (nrows > 1 ? nrows : 1)) {
    *info = -7;
  } else if (ldw < (nrows > 1 ? nrows : 1)) {
    *info = -9;
  }
  if (*info != 0) {
    blas::xerbla(sym_name<T, kHermitian>("SYTRS", "HETRS").text, -*info);
    return;
  }
  if (n == 0 || nrows == 0) return;
  const Block<T> A{a, lda};
  const Block<const T> Ac{a, lda};
  const std::ptrdiff_t lb = ldb, lw = ldw;
  auto reciprocal = [](T d) {
    if constexpr (kHermitian) {
      return T(real_of<T>(1) / real_part(d));
    } else {
      return T(1) / d;
    }
  };
  if (n == 1) {  // no multipliers and no exchange: only the pivot
    blas::scal<T>(nrows, reciprocal(A(0, 0)), b, 1);
    return;
  }
  // The multipliers as a unit lower triangle L' with the exchanges of the
  // later steps applied to the earlier columns, stored transposed (and
  // conjugated on the Hermitian form) above the diagonal; the place of a
  // 2x2 pivot's off-diagonal entry holds 0.  perm gathers the columns of b
  // in the order of all exchanges, taken one after another.
  for (int j = 0; j < n; ++j) {
    perm[j] = j;
    for (int i = j + 1; i < n; ++i) A(j, i) = conj_if<kHermitian>(A(i, j));
  }
  for (int k = 0; k < n;) {
    const bool one = ipiv[k] > 0;
    const int r = one ? k : k + 1;
    const int kp = (one ? ipiv[k] : -ipiv[k]) - 1;
    if (!one) A(k, k + 1) = T(0);
    if (kp != r) {
      if (k > 0) blas::swap<T>(k, &A(0, r), 1, &A(0, kp), 1);
      std::swap(perm[r], perm[kp]);
    }
    k += one ? 1 : 2;
  }
  for (int c = 0; c < n; ++c) {
    const T *src = b + perm[c] * lb;
    T *dst = w + c * lw;
    for (int i = 0; i < nrows; ++i) dst[i] = src[i];
  }
  blas::trsm<T>('R', 'U', 'N', 'U', nrows, n, T(1), a, lda, w, ldw);
  // D^-1 on the way back; w is left zero.
  for (int k = 0; k < n;) {
    T *wk = w + k * lw;
    T *bk = b + k * lb;
    if (ipiv[k] > 0) {
      const T r = reciprocal(A(k, k));
      for (int i = 0; i < nrows; ++i) {
        bk[i] = wk[i] * r;
        wk[i] = T(0);
      }
      k += 1;
    } else {
      const Pivot2Solve<T, kHermitian> d(Ac, k);
      T *wk1 = wk + lw;
      T *bk1 = bk + lb;
      for (int i = 0; i < nrows; ++i) {
        T x = conj_if<kHermitian>(wk[i]), y = conj_if<kHermitian>(wk1[i]);
        d.apply(&x, &y);
        bk[i] = conj_if<kHermitian>(x);
        bk1[i] = conj_if<kHermitian>(y);
        wk[i] = T(0);
        wk1[i] = T(0);
      }
      k += 2;
    }
  }
}

template <class T, bool kHermitian>
void dsytrs_fwd(char uplo, int n, int nrhs, const T *a, int lda, const int *ipiv, T *b, int ldb,
                int *info, int ipiv_base) {
  if (!sytrs_args<T, kHermitian>(uplo, n, nrhs, lda, ldb, info)) return;
  sytrs_forward<T, kHermitian, false>(n, nrhs, a, lda, ipiv, b, ldb, ipiv_base);
}

template <class T, bool kHermitian>
void dsytrs_diag(char uplo, int n, int nrhs, const T *a, int lda, const int *ipiv, T *b, int ldb,
                 int *info) {
  if (!sytrs_args<T, kHermitian>(uplo, n, nrhs, lda, ldb, info)) return;
  const Block<const T> A{a, lda};
  for (int k = 0; k < n;) {
    if (ipiv[k] > 0) {
      solve_d1<T, kHermitian>(A, k, nrhs, b, ldb);
      k += 1;
    } else {
      solve_d2<T, kHermitian>(A, k, nrhs, b, ldb);
      k += 2;
    }
  }
}

template <class T, bool kHermitian>
void dsytrs_bwd(char uplo, int n, int nrhs, const T *a, int lda, const int *ipiv, T *b, int ldb,
                int *info, int ipiv_base) {
  if (!sytrs_args<T, kHermitian>(uplo, n, nrhs, lda, ldb, info)) return;
  const Block<const T> A{a, lda};
  for (int k = n - 1; k >= 0;) {
    if (ipiv[k] > 0) {
      if (k < n - 1) sub_dot<T, kHermitian>(n - k - 1, nrhs, &A(k + 1, k), b + k + 1, b + k, ldb);
      const int kp = ipiv[k] - 1 - ipiv_base;
      if (kp != k) blas::swap<T>(nrhs, b + k, ldb, b + kp, ldb);
      k -= 1;
    } else {
      if (k < n - 1) {
        sub_dot<T, kHermitian>(n - k - 1, nrhs, &A(k + 1, k), b + k + 1, b + k, ldb);
        sub_dot<T, kHermitian>(n - k - 1, nrhs, &A(k + 1, k - 1), b + k + 1, b + k - 1, ldb);
      }
      const int kp = -ipiv[k] - 1 - ipiv_base;
      if (kp != k) blas::swap<T>(nrhs, b + k, ldb, b + kp, ldb);
      k -= 2;
    }
  }
}

namespace {

// Columns of a panel of SGETRF_P.
constexpr int kDiagonalPanel = 80;

// The blocked walk of SGETRF_P (see dense_kernels.h).
template <class T>
void getrf_diagpiv_panels(int m, int n, T *a, int lda, int *ipiv, int *info, int *npert, int *npos,
                          int *nneg, double eps, double *logdet) {
  const int mn = m < n ? m : n;
  if (mn <= kDiagonalPanel || lda < m) {  // the kernel also checks the arguments
    getf2_diagpiv<T, false>(m, n, a, lda, ipiv, info, npert, npos, nneg, eps, logdet);
    return;
  }
  *info = 0;
  const Block<T> A{a, lda};
  for (int j0 = 0; j0 < mn; j0 += kDiagonalPanel) {
    const int nb = mn - j0 < kDiagonalPanel ? mn - j0 : kDiagonalPanel;
    const int right = j0 + nb;  // first column right of the panel
    getf2_diagpiv<T, false>(m - j0, nb, &A(j0, j0), lda, ipiv + j0, info, npert, npos, nneg, eps,
                            logdet);
    if (*info != 0) return;
    // The exchanges of rows (and, the pivots being diagonal, of columns)
    // j0+k and j0+kp, in the order taken, outside the panel's part.
    for (int k = 0; k < nb; ++k) {
      const int kp = ipiv[j0 + k] - 1;
      ipiv[j0 + k] += j0;
      if (kp == k) continue;
      const int r1 = j0 + k, r2 = j0 + kp;
      blas::swap<T>(j0, &A(r1, 0), lda, &A(r2, 0), lda);
      if (right < n) blas::swap<T>(n - right, &A(r1, right), lda, &A(r2, right), lda);
      blas::swap<T>(j0, &A(0, r1), 1, &A(0, r2), 1);
    }
    if (right >= n) continue;
    // U12 = L11^-1 A12, then A22 -= L21 U12.
    blas::trsm<T>('L', 'L', 'N', 'U', nb, n - right, T(1), &A(j0, j0), lda, &A(j0, right), lda);
    if (right < m) {
      blas::gemm<T>('N', 'N', m - right, n - right, nb, T(-1), &A(right, j0), lda, &A(j0, right),
                    lda, T(1), &A(right, right), lda);
    }
  }
}

}  // namespace

void SGETRF_P(int m, int n, float *a, int lda, int *ipiv, int *info, int *npert, int *npos,
              int *nneg, double eps, double *logdet) {
  getrf_diagpiv_panels<float>(m, n, a, lda, ipiv, info, npert, npos, nneg, eps, logdet);
}

#define VELMORA_LDL_KERNELS(T, H)                                                                  \
  template void dgetf2_diagpiv<T, H>(int, int, T *, int, int *, int *, int *, int *, int *,        \
                                     double);                                                      \
  template void dgetf2_diagpiv_logdet<T, H>(int, int, T *, int, int *, int *, int *, int *, int *, \
                                            double, double *);                                     \
  template void dsytf2_pert<T, H>(char, int, T *, int, int *, int *, int *, int *, int *, double); \
  template void dsytf2_pert_logdet<T, H>(char, int, T *, int, int *, int *, int *, int *, int *,   \
                                         double, double *);                                        \
  template void dsytrs_half<T, H>(char, int, int, const T *, int, const int *, T *, int, int *);   \
  template void dsytrs_half_rows<T, H>(int, int, T *, int, const int *, T *, int, T *, int, int *, \
                                       int *);                                                     \
  template void dsytrs_fwd<T, H>(char, int, int, const T *, int, const int *, T *, int, int *,     \
                                 int);                                                             \
  template void dsytrs_diag<T, H>(char, int, int, const T *, int, const int *, T *, int, int *);   \
  template void dsytrs_bwd<T, H>(char, int, int, const T *, int, const int *, T *, int, int *, int);

// Real symmetric (double and single), complex symmetric and complex
// Hermitian forms.
VELMORA_LDL_KERNELS(double, false)
VELMORA_LDL_KERNELS(float, false)
VELMORA_LDL_KERNELS(zcomplex, false)
VELMORA_LDL_KERNELS(zcomplex, true)

#undef VELMORA_LDL_KERNELS

}  // namespace vm
