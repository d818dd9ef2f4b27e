// amuxy_res.cpp - AMUXY_RES_VELMORA: r = b - A x with x and the products
// in extended precision (extended.h), and sum |r| in the same pass.
//
// Arrays of extended values hold 2*W doubles per entry, W = 1 for real and
// 2 for complex types: (hi, lo) of the real part, then of the imaginary
// part.
#include <omp.h>

#include <algorithm>
#include <cmath>

#include "solve/amuxy.h"
#include "solve/extended.h"

namespace vm {

namespace {

using amuxy_detail::row_split;
using amuxy_detail::static_share;

enum class Form { kRows, kTransposed, kSymmetric };

template <class T>
constexpr int kW = scalar_traits<T>::doubles;

// s += v * x, s and x extended entries.
template <class T>
inline void mac(double *s, T v, const double *x) {
  if constexpr (scalar_traits<T>::is_complex) {
    const double vr = v.real(), vi = v.imag();
    ext::add_prod(s[0], s[1], vr, x[0], x[1]);
    ext::add_prod(s[0], s[1], -vi, x[2], x[3]);
    ext::add_prod(s[2], s[3], vr, x[2], x[3]);
    ext::add_prod(s[2], s[3], vi, x[0], x[1]);
  } else {
    ext::add_prod(s[0], s[1], v, x[0], x[1]);
  }
}

// r := b - s rounded; returns the sum of |r| over its doubles.
template <class T>
inline double finish(T b, const double *s, T &r) {
  if constexpr (scalar_traits<T>::is_complex) {
    const double re = ext::sub_round(b.real(), s[0], s[1]);
    const double im = ext::sub_round(b.imag(), s[2], s[3]);
    r = T(re, im);
    return std::fabs(re) + std::fabs(im);
  } else {
    r = ext::sub_round(b, s[0], s[1]);
    return std::fabs(r);
  }
}

// Rows [lo, hi) of one column.  kRows finishes r(i) of its rows and
// returns their sum |r|; the other forms add into the extended
// accumulator acc, which the caller cleared, and return 0.
template <class T>
double rows(Form form, bool hermitian, const int *ia, const int *ja, const T *a, const double *x16,
            double *acc, const T *b, T *r, int lo, int hi) {
  constexpr int w = 2 * kW<T>;
  double sum = 0.0;
  for (int i = lo; i < hi; ++i) {
    const int k0 = ia[i] - 1, k1 = ia[i + 1] - 1;
    const double *xi = x16 + std::int64_t{w} * i;
    if (form == Form::kRows) {
      double s[w] = {};
      for (int k = k0; k < k1; ++k) mac(s, a[k], x16 + std::int64_t{w} * (ja[k] - 1));
      sum += finish(b[i], s, r[i]);
    } else if (form == Form::kTransposed) {
      for (int k = k0; k < k1; ++k) mac(acc + std::int64_t{w} * (ja[k] - 1), a[k], xi);
    } else if (k0 < k1) {
      double s[w] = {};
      mac(s, a[k0], x16 + std::int64_t{w} * (ja[k0] - 1));
      for (int k = k0 + 1; k < k1; ++k) {
        const int j = ja[k] - 1;
        mac(s, a[k], x16 + std::int64_t{w} * j);
        mac(acc + std::int64_t{w} * j, hermitian ? conj_of(a[k]) : a[k], xi);
      }
      double *ai = acc + std::int64_t{w} * i;
      for (int c = 0; c < w; c += 2) ext::add(ai[c], ai[c + 1], s[c], s[c + 1]);
    }
  }
  return sum;
}

// Entries [lo, hi): r := b - (sum of the `count` accumulators, `stride`
// doubles apart); returns the sum |r|.
template <class T>
double finish_range(const double *accs, std::int64_t stride, int count, const T *b, T *r,
                    std::int64_t lo, std::int64_t hi) {
  constexpr int w = 2 * kW<T>;
  double sum = 0.0;
  for (std::int64_t i = lo; i < hi; ++i) {
    double s[w];
    std::copy(accs + w * i, accs + w * i + w, s);
    for (int t = 1; t < count; ++t) {
      const double *v = accs + t * stride + w * i;
      for (int c = 0; c < w; c += 2) ext::add(s[c], s[c + 1], v[c], v[c + 1]);
    }
    sum += finish(b[i], s, r[i]);
  }
  return sum;
}

// One column, serially, with the accumulator acc for the scattering forms.
template <class T>
double column(Form form, bool hermitian, int n, const int *ia, const int *ja, const T *a,
              const double *x16, double *acc, const T *b, T *r) {
  if (form == Form::kRows) return rows(form, hermitian, ia, ja, a, x16, acc, b, r, 0, n);
  std::fill(acc, acc + std::int64_t{2} * kW<T> * n, 0.0);
  rows(form, hermitian, ia, ja, a, x16, acc, b, r, 0, n);
  return finish_range(acc, 0, 1, b, r, 0, n);
}

}  // namespace

std::int64_t amuxy_res_work_doubles(int trans, int n, int nrhs, int mtype, int threads, int width) {
  const std::int64_t t = std::max(1, threads);
  if (!product_scatters(mtype, trans) || n < 1) return t;
  const std::int64_t columns = nrhs > 1 ? std::min<std::int64_t>(t, nrhs) : t;
  return t + columns * 2 * width * n;
}

template <class T>
void AMUXY_RES_VELMORA(const int *trans, const int *n, const int *nrhs, const int *mtype,
                       const int *par, const int *ia, const int *ja, const T *a, const double *x16,
                       const T *b, T *r, double *sumres, double *work) {
  constexpr int w = 2 * kW<T>;
  *sumres = 0.0;
  const int nn = *n, nr = *nrhs;
  if (nn < 1 || nr < 1) return;
  const Form form =
      *mtype % 2 == 0 ? Form::kSymmetric : (*trans != 0 ? Form::kTransposed : Form::kRows);
  const bool hermitian = scalar_traits<T>::is_complex && (*mtype == 4 || *mtype == -4);
  const int threads = std::max(1, par[0]);
  const bool parallel = threads > 1 && std::int64_t{nn} * nr >= par[1];
  double *partial = work;         // one sum per thread
  double *accs = work + threads;  // extended accumulators, n entries each
  const std::int64_t stride = std::int64_t{w} * nn;

  if (!parallel) {
    double sum = 0.0;
    for (int c = 0; c < nr; ++c) {
      const std::int64_t off = std::int64_t{c} * nn;
      sum += column(form, hermitian, nn, ia, ja, a, x16 + w * off, accs, b + off, r + off);
    }
    *sumres = sum;
    return;
  }

  int team = 1;
  if (nr > 1) {
    // Whole columns on the threads, column c on thread c mod team, so that
    // each partial sum runs over the same columns in the same order.
#pragma omp parallel num_threads(std::min(threads, nr))
    {
      const int me = omp_get_thread_num(), size = omp_get_num_threads();
      double *acc = form == Form::kRows ? nullptr : accs + me * stride;
      double sum = 0.0;
      for (int c = me; c < nr; c += size) {
        const std::int64_t off = std::int64_t{c} * nn;
        sum += column(form, hermitian, nn, ia, ja, a, x16 + w * off, acc, b + off, r + off);
      }
      partial[me] = sum;
      if (me == 0) team = size;
    }
  } else {
#pragma omp parallel num_threads(threads)
    {
      const int me = omp_get_thread_num(), size = omp_get_num_threads();
      const int lo = row_split(ia, nn, me, size), hi = row_split(ia, nn, me + 1, size);
      if (form == Form::kRows) {
        partial[me] = rows(form, hermitian, ia, ja, a, x16, accs, b, r, lo, hi);
      } else {
        double *acc = accs + me * stride;
        std::fill(acc, acc + stride, 0.0);
        rows(form, hermitian, ia, ja, a, x16, acc, b, r, lo, hi);
#pragma omp barrier
        std::int64_t elo, ehi;
        static_share(nn, me, size, elo, ehi);
        partial[me] = finish_range(accs, stride, size, b, r, elo, ehi);
      }
      if (me == 0) team = size;
    }
  }
  double sum = 0.0;
  for (int t = 0; t < team; ++t) sum += partial[t];
  *sumres = sum;
}

template void AMUXY_RES_VELMORA<double>(const int *, const int *, const int *, const int *,
                                        const int *, const int *, const int *, const double *,
                                        const double *, const double *, double *, double *,
                                        double *);
template void AMUXY_RES_VELMORA<zcomplex>(const int *, const int *, const int *, const int *,
                                          const int *, const int *, const int *, const zcomplex *,
                                          const double *, const zcomplex *, zcomplex *, double *,
                                          double *);

}  // namespace vm
