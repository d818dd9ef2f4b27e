// psol_bwscat.cpp - PSOL_BWSCAT_VELMORA: the solution back into the
// caller's numbering, scaled, after the substitution.
#include <algorithm>
#include <cstdint>

#include "factor/scalar_traits.h"
#include "solve/gather_scatter.h"
#include "solve/vector_region.h"

namespace vm {

bool scatter_is_plain(int selector) {
  return selector == -12 || selector == -2 || selector == -1 || selector == 1;
}

template <class T>
void PSOL_BWSCAT_VELMORA(int transposed, int to_b, int n, int mtype, int nrhs, double *b,
                         const T *z, double *x, const int *perm, const int *q, const double *scale,
                         const int *unselected, int scaling_on, int selector, int k, int ld,
                         int partial) {
  if (n < 1 || nrhs < 1) return;
  const bool compressed = partial >= 2;
  const int len = compressed ? std::clamp(k, 0, n) : n;
  const int skipped = n - len;
  const std::int64_t stride = ld;
  double *out = to_b != 0 ? b : x;
  using R = real_of<T>;

  if (scatter_is_plain(selector)) {
    // A half-way result stays in elimination order.
    for_each_entry(nrhs, len, [=](int c, int i) {
      const std::int64_t e = c * stride + i;
      store<T>(out, e, z[e]);
    });
    return;
  }
  // Writes v as the caller's node j (one-based) in column col; a node that
  // a compressed vector leaves out is not written.
  auto put = [=](std::int64_t col, int j, T v) {
    const std::int64_t o = caller_offset(j, compressed, unselected);
    if (o >= 0) store<T>(out, col + o, v);
  };
  // The permuted write and the scaling are one pass: out(j) = z(i) * s(j)
  // for j = perm(i) is the same as writing first and scaling afterwards.
  if (!scaling_on) {
    for_each_entry(nrhs, len, [=](int c, int i) {
      const std::int64_t col = c * stride;
      put(col, perm[skipped + i], z[col + i]);
    });
  } else if (mtype < 11 || !transposed) {
    // The symmetric factor, or the column factors of a general matrix.
    for_each_entry(nrhs, len, [=](int c, int i) {
      const std::int64_t col = c * stride;
      const int j = perm[skipped + i];
      put(col, j, z[col + i] * static_cast<R>(scale[j - 1]));
    });
  } else {
    // A^T of a general matrix: position i is unknown q(perm(i)), scaled by
    // that row's factor.
    for_each_entry(nrhs, len, [=](int c, int i) {
      const std::int64_t col = c * stride;
      const int r = q[perm[skipped + i] - 1];
      put(col, r, z[col + i] * static_cast<R>(scale[n + r - 1]));
    });
  }
}

template void PSOL_BWSCAT_VELMORA<double>(int, int, int, int, int, double *, const double *,
                                          double *, const int *, const int *, const double *,
                                          const int *, int, int, int, int, int);
// C_PSOL_BWSCAT_VELMORA: complex values back into the caller's pairs.
template void PSOL_BWSCAT_VELMORA<zcomplex>(int, int, int, int, int, double *, const zcomplex *,
                                            double *, const int *, const int *, const double *,
                                            const int *, int, int, int, int, int);

}  // namespace vm
