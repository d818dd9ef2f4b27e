// residual.cpp - velmora_residual: y = A x and the 2-norms of b and of
// y - b, for a caller who checks a solution.  Real for mtype -2, 2, 11,
// complex for 6, 13; any other type ends the program.
#include <omp.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "interface/entry.h"
#include "solve/amuxy.h"

namespace vm::entry {

namespace {

template <class T>
void residual(int mtype, int n, const void *a, const int *ia, const int *ja, const void *b,
              const void *x, void *y, double *normb, double *normr) {
  if (n < 1) return;
  const T *bv = static_cast<const T *>(b);
  T *yv = static_cast<T *>(y);
  // The row form needs no work, so it takes the team; the symmetric form
  // runs serially rather than ask for accumulators.
  const int trans = 0, nrhs = 1;
  const int par[2] = {product_scatters(mtype, trans) ? 1 : omp_get_max_threads(), 0};
  for (int i = 0; i < n; ++i) yv[i] = T{};
  AMUXY_VELMORA<T>(&trans, &n, &nrhs, &mtype, par, ia, ja, static_cast<const T *>(a),
                   static_cast<const T *>(x), yv, nullptr);
  double sb = 0.0, sr = 0.0;
  for (int i = 0; i < n; ++i) {
    sb += std::norm(bv[i]);
    sr += std::norm(yv[i] - bv[i]);
  }
  *normb = std::sqrt(sb);
  *normr = std::sqrt(sr);
}

}  // namespace

void velmora_residual(const int *mtype, const int *n, const void *a, const int *ia, const int *ja,
                      const void *b, const void *x, void *y, double *normb, double *normr) {
  *normb = 0.0;
  *normr = 0.0;
  switch (*mtype) {
    case -2:
    case 2:
    case 11:
      residual<double>(*mtype, *n, a, ia, ja, b, x, y, normb, normr);
      return;
    case 6:
    case 13:
      residual<zcomplex>(*mtype, *n, a, ia, ja, b, x, y, normb, normr);
      return;
    default:
      std::printf("[VELMORA] This option is not yet available\n");
      std::fflush(stdout);
      std::exit(1);
  }
}

}  // namespace vm::entry
