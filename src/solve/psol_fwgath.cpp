// psol_fwgath.cpp - PSOL_FWGATH_VELMORA: the right-hand sides into
// elimination order, scaled, before the substitution.
#include <algorithm>
#include <cstdint>

#include "factor/scalar_traits.h"
#include "solve/gather_scatter.h"
#include "solve/vector_region.h"

namespace vm {

bool gather_is_plain(int selector) {
  return selector == -23 || selector == -3 || selector == -2 || selector == 2;
}

template <class T>
void PSOL_FWGATH_VELMORA(int transposed, int n, int mtype, int nrhs, const double *b, T *z,
                         const int *perm, const int *q, const double *scale, const int *unselected,
                         int scaling_on, int selector, int k, int ld, int partial) {
  if (n < 1 || nrhs < 1) return;
  const bool compressed = partial >= 2;
  const int len = compressed ? std::clamp(k, 0, n) : n;
  const int skipped = n - len;  // elimination positions in front of z[0]
  const std::int64_t stride = ld;
  using R = real_of<T>;

  if (gather_is_plain(selector)) {
    for_each_entry(nrhs, len, [=](int c, int i) {
      const std::int64_t e = c * stride + i;
      z[e] = load<T>(b, e);
    });
    return;
  }
  // Entry of the caller's node j (one-based) in column col of b; a node
  // that a compressed b leaves out is zero.
  auto entry = [=](std::int64_t col, int j) -> T {
    const std::int64_t o = caller_offset(j, compressed, unselected);
    return o < 0 ? T(0) : load<T>(b, col + o);
  };
  if (!scaling_on) {
    for_each_entry(nrhs, len, [=](int c, int i) {
      const std::int64_t col = c * stride;
      z[col + i] = entry(col, perm[skipped + i]);
    });
  } else if (mtype < 11 || transposed) {
    // One factor per node: the symmetric scaling, or the column factors of
    // a general matrix when A^T is solved.
    for_each_entry(nrhs, len, [=](int c, int i) {
      const std::int64_t col = c * stride;
      const int j = perm[skipped + i];
      z[col + i] = entry(col, j) * static_cast<R>(scale[j - 1]);
    });
  } else {
    // General matrix: position i stands for row q(perm(i)) of A, scaled by
    // that row's factor.
    for_each_entry(nrhs, len, [=](int c, int i) {
      const std::int64_t col = c * stride;
      const int r = q[perm[skipped + i] - 1];
      z[col + i] = entry(col, r) * static_cast<R>(scale[n + r - 1]);
    });
  }
}

template void PSOL_FWGATH_VELMORA<double>(int, int, int, int, const double *, double *, const int *,
                                          const int *, const double *, const int *, int, int, int,
                                          int, int);
// C_PSOL_FWGATH_VELMORA: the caller's pairs of doubles into complex values.
template void PSOL_FWGATH_VELMORA<zcomplex>(int, int, int, int, const double *, zcomplex *,
                                            const int *, const int *, const double *, const int *,
                                            int, int, int, int, int);

}  // namespace vm
