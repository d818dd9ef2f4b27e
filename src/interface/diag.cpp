// diag.cpp - solve and invert diagonal matrices in one pass.
#include "interface/diag.h"

#include <complex>
#include <cstdint>
#include <type_traits>

namespace vm {

namespace {

using zcomplex = std::complex<double>;

template <class T>
T value_at(const double *a, std::int64_t k) {
  if constexpr (std::is_same_v<T, double>) {
    return a[k];
  } else {
    return T(a[2 * k], a[2 * k + 1]);
  }
}

template <class T>
void store_at(double *v, std::int64_t k, T t) {
  if constexpr (std::is_same_v<T, double>) {
    v[k] = t;
  } else {
    v[2 * k] = t.real();
    v[2 * k + 1] = t.imag();
  }
}

// Tests every row: one entry, placed inside a(1..n), not zero.  Returns 0,
// +i or -i as the routines report it; counts signs for real values.
template <class T>
int test_rows(int n, const int *ia, const double *a, int *npos, int *nneg) {
  int pos = 0, neg = 0, result = 0;
  for (int i = 0; i < n; ++i) {
    const std::int64_t start = ia[i] - 1;
    if (static_cast<std::int64_t>(ia[i + 1]) - ia[i] != 1 || start < 0 || start >= n) {
      result = i + 1;
      break;
    }
    const T v = value_at<T>(a, start);
    if (v == T(0)) {
      result = -(i + 1);
      break;
    }
    if constexpr (std::is_same_v<T, double>) {
      if (v > 0.0)
        ++pos;
      else
        ++neg;
    }
  }
  if (npos) *npos = pos;
  if (nneg) *nneg = neg;
  return result;
}

template <class T>
void diag_solve(const int *n, const int *nrhs, const int *ia, const double *a, double *b, double *x,
                int *error, const int *iparm6, const int *solve, int *npos, int *nneg) {
  const int nn = *n;
  *error = test_rows<T>(nn, ia, a, npos, nneg);
  if (*error != 0 || *solve != 1) return;
  *error = 0;
  const std::int64_t rows = nn;
  const std::int64_t cols = *nrhs > 0 ? *nrhs : 0;
  const bool overwrite_b = *iparm6 == 1;
  if (cols == 1) {
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < rows; ++i) {
      const T xi = value_at<T>(b, i) / value_at<T>(a, ia[i] - 1);
      store_at<T>(x, i, xi);
      if (overwrite_b) store_at<T>(b, i, xi);
    }
  } else if (cols > 1) {
#pragma omp parallel for collapse(2) schedule(static)
    for (std::int64_t k = 0; k < cols; ++k) {
      for (std::int64_t i = 0; i < rows; ++i) {
        const std::int64_t at = k * rows + i;
        const T xi = value_at<T>(b, at) / value_at<T>(a, ia[i] - 1);
        store_at<T>(x, at, xi);
        if (overwrite_b) store_at<T>(b, at, xi);
      }
    }
  }
}

template <class T>
void diag_invert(const int *n, const int *ia, double *a, int *error) {
  const int nn = *n;
  *error = test_rows<T>(nn, ia, a, nullptr, nullptr);
  if (*error != 0) return;
  for (int i = 0; i < nn; ++i) {
    const std::int64_t k = ia[i] - 1;
    store_at<T>(a, k, T(1) / value_at<T>(a, k));
  }
}

}  // namespace

void DIAG_VELMORA(const int *n, const int *nrhs, const int *ia, const int *ja, const double *a,
                  double *b, double *x, int *error, const int *iparm6, const int *solve, int *npos,
                  int *nneg) {
  diag_solve<double>(n, nrhs, ia, a, b, x, error, iparm6, solve, npos, nneg);
}

void C_DIAG_VELMORA(const int *n, const int *nrhs, const int *ia, const int *ja, const double *a,
                    double *b, double *x, int *error, const int *iparm6, const int *solve) {
  diag_solve<zcomplex>(n, nrhs, ia, a, b, x, error, iparm6, solve, nullptr, nullptr);
}

void DIAG_INVERSE_VELMORA(const int *n, const int *nrhs, const int *ia, const int *ja, double *a,
                          int *error) {
  diag_invert<double>(n, ia, a, error);
}

void C_DIAG_INVERSE_VELMORA(const int *n, const int *nrhs, const int *ia, const int *ja, double *a,
                            int *error) {
  diag_invert<zcomplex>(n, ia, a, error);
}

}  // namespace vm
