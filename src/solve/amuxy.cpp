// amuxy.cpp - AMUXY_VELMORA: y = A x or A^T x in working precision.
#include "solve/amuxy.h"

#include <omp.h>

#include <algorithm>

namespace vm {

namespace {

using amuxy_detail::row_split;
using amuxy_detail::static_share;

// What one row does, by the structural form of the product.
enum class Form { kRows, kTransposed, kSymmetric };

Form form_of(int mtype, int trans) {
  if (mtype % 2 == 0) return Form::kSymmetric;
  return trans != 0 ? Form::kTransposed : Form::kRows;
}

// Rows [lo, hi) of one column.  kRows writes y(i) of its rows; the other
// forms add into acc, which the caller cleared.
template <class T>
void rows(Form form, bool hermitian, const int *ia, const int *ja, const T *a, const T *x, T *acc,
          int lo, int hi) {
  for (int i = lo; i < hi; ++i) {
    const int k0 = ia[i] - 1, k1 = ia[i + 1] - 1;
    if (form == Form::kRows) {
      T s{};
      for (int k = k0; k < k1; ++k) s += a[k] * x[ja[k] - 1];
      acc[i] = s;
    } else if (form == Form::kTransposed) {
      const T xi = x[i];
      for (int k = k0; k < k1; ++k) acc[ja[k] - 1] += a[k] * xi;
    } else if (k0 < k1) {
      const T xi = x[i];
      T s = a[k0] * x[ja[k0] - 1];
      for (int k = k0 + 1; k < k1; ++k) {
        const int j = ja[k] - 1;
        s += a[k] * x[j];
        acc[j] += (hermitian ? conj_of(a[k]) : a[k]) * xi;
      }
      acc[i] += s;
    }
  }
}

// One column, serially.
template <class T>
void column(Form form, bool hermitian, int n, const int *ia, const int *ja, const T *a, const T *x,
            T *y) {
  if (form != Form::kRows) std::fill(y, y + n, T{});
  rows(form, hermitian, ia, ja, a, x, y, 0, n);
}

}  // namespace

std::int64_t amuxy_work_size(int trans, int n, int nrhs, int mtype, int threads) {
  if (!product_scatters(mtype, trans) || nrhs != 1 || threads < 2 || n < 1) return 0;
  return std::int64_t{threads} * n;
}

template <class T>
void AMUXY_VELMORA(const int *trans, const int *n, const int *nrhs, const int *mtype,
                   const int *par, const int *ia, const int *ja, const T *a, const T *x, T *y,
                   T *work) {
  const int nn = *n, nr = *nrhs;
  if (nn < 1 || nr < 1) return;
  const Form form = form_of(*mtype, *trans);
  const bool hermitian = scalar_traits<T>::is_complex && (*mtype == 4 || *mtype == -4);
  const int threads = std::max(1, par[0]);
  const bool parallel = threads > 1 && std::int64_t{nn} * nr >= par[1];

  if (!parallel) {
    for (int c = 0; c < nr; ++c) {
      const std::int64_t off = std::int64_t{c} * nn;
      column(form, hermitian, nn, ia, ja, a, x + off, y + off);
    }
    return;
  }

  if (nr > 1) {
#pragma omp parallel for schedule(static, 1) num_threads(std::min(threads, nr))
    for (int c = 0; c < nr; ++c) {
      const std::int64_t off = std::int64_t{c} * nn;
      column(form, hermitian, nn, ia, ja, a, x + off, y + off);
    }
    return;
  }

  if (form == Form::kRows) {
#pragma omp parallel num_threads(threads)
    {
      const int team = omp_get_num_threads(), me = omp_get_thread_num();
      rows(form, hermitian, ia, ja, a, x, y, row_split(ia, nn, me, team),
           row_split(ia, nn, me + 1, team));
    }
    return;
  }

  // One scattering column: private accumulators, then their sum.
#pragma omp parallel num_threads(threads)
  {
    const int team = omp_get_num_threads(), me = omp_get_thread_num();
    T *acc = work + std::int64_t{me} * nn;
    std::fill(acc, acc + nn, T{});
    rows(form, hermitian, ia, ja, a, x, acc, row_split(ia, nn, me, team),
         row_split(ia, nn, me + 1, team));
#pragma omp barrier
    std::int64_t lo, hi;
    static_share(nn, me, team, lo, hi);
    for (std::int64_t i = lo; i < hi; ++i) {
      T s = work[i];
      for (int t = 1; t < team; ++t) s += work[std::int64_t{t} * nn + i];
      y[i] = s;
    }
  }
}

template void AMUXY_VELMORA<double>(const int *, const int *, const int *, const int *, const int *,
                                    const int *, const int *, const double *, const double *,
                                    double *, double *);
template void AMUXY_VELMORA<zcomplex>(const int *, const int *, const int *, const int *,
                                      const int *, const int *, const int *, const zcomplex *,
                                      const zcomplex *, zcomplex *, zcomplex *);

}  // namespace vm
