// selinv_common.cpp - what the selected-inversion kernels share: the
// sizes of their work, the recursion of the inversion stage, and the
// results written into the caller's array (see selinv.h).
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "factor/blas.h"
#include "factor/scalar_traits.h"
#include "solve/selinv.h"

namespace vm {

InverseWorkSize selinv_work_size(const SymbolicFactor &f) {
  InverseWorkSize sz;
  sz.n = f.n;
  for (int k = 1; k <= f.nsuper; ++k) {
    const int first = f.xsuper[k - 1];
    const std::int64_t ncols = f.xsuper[k] - first;
    const std::int64_t len = f.xlnz[first] - f.xlnz[first - 1];
    sz.maxk = std::max(sz.maxk, ncols);
    sz.maxb = std::max(sz.maxb, len - ncols);
  }
  return sz;
}

template <class T>
InverseWork<T> selinv_work_carve(const InverseWorkSize &sz, void *base) {
  InverseWork<T> w;
  w.relpos = static_cast<int *>(base);
  w.qinv = w.relpos + sz.maxb;
  const std::int64_t int_bytes = (4 * sz.ints() + 15) / 16 * 16;
  w.G = reinterpret_cast<T *>(static_cast<char *>(base) + int_bytes);
  w.Y = w.G + sz.maxb * sz.maxb;
  w.Z = w.Y + sz.maxb * sz.maxk;
  w.D = w.Z + sz.maxb * sz.maxk;
  return w;
}

template InverseWork<double> selinv_work_carve<double>(const InverseWorkSize &, void *);
template InverseWork<zcomplex> selinv_work_carve<zcomplex>(const InverseWorkSize &, void *);

namespace selinv {

void block_message(const char *what, int error, int jpanel, int njcol) {
  std::printf("%s%d\n", what, error);
  std::printf("jpanel = %d\n", jpanel);
  std::printf("njcol =%d\n", njcol);
  std::fflush(stdout);
}

void time_line(bool verbose, const char *label, double seconds) {
  if (!verbose) return;
  std::printf("[VELMORA]: %s %f s\n", label, seconds);
  std::fflush(stdout);
}

namespace {

// Supernode s as the recursion reads it: no U for the symmetric types.
template <class T>
SupernodePanel<T> block_of(const FactorView<T> &f, bool lu, int s) {
  SupernodePanel<T> b = supernode_panel(f, s);
  if (!lu) b.U = nullptr;
  return b;
}

// G = M^-1(B, B) for the rows B = rows[0..nb) below a supernode, from the
// inverted blocks of the supernodes holding them.  For each such supernode
// J, the rows of B from J's first column on are rows of J's list (B is a
// clique): their columns of G come from J's panel, and for the LU types
// the rows of G of J's columns, beyond J, from J's unz block; the
// symmetric types mirror the columns instead.
template <class T>
bool gather(const FactorView<T> &f, bool lu, const int *B, int nb, T *G, int *relpos) {
  const std::int64_t ldg = nb;
  int i = 0;
  while (i < nb) {
    const SupernodePanel<T> J = block_of(f, lu, f.snode[B[i] - 1]);
    const int end_col = J.first + J.ncols;
    int iend = i;
    while (iend < nb && B[iend] < end_col) ++iend;
    int p = 0;
    for (int t = i; t < nb; ++t) {
      while (p < J.len && J.rows[p] != B[t]) ++p;
      if (p == J.len) {
        std::printf("%s\n", lu ? "SANITY CHECK FAILED" : "SANITY CHECK failed");
        std::fflush(stdout);
        return false;
      }
      relpos[t] = p;
    }
    const std::int64_t uld = J.len - J.ncols;
    for (int t = i; t < iend; ++t) {
      const std::int64_t col = B[t] - J.first;
      const T *Lc = J.L + col * J.len;
      T *Gc = G + t * ldg;
      for (int u = i; u < nb; ++u) Gc[u] = Lc[relpos[u]];
      if (lu) {
        const T *Uc = J.U + col * uld - J.ncols;
        for (int u = iend; u < nb; ++u) G[t + u * ldg] = Uc[relpos[u]];
      } else {
        for (int u = iend; u < nb; ++u) G[t + u * ldg] = Gc[u];
      }
    }
    i = iend;
  }
  return true;
}

// Place of row `row` in the ascending list rows[0..len), or -1.
int find_row(const int *rows, int len, int row) {
  const int *p = std::lower_bound(rows, rows + len, row);
  return p != rows + len && *p == row ? static_cast<int>(p - rows) : -1;
}

}  // namespace

template <class T>
int recursion(const FactorView<T> &f, bool lu, const InverseWork<T> &w) {
  for (int k = f.nsuper; k >= 1; --k) {
    const SupernodePanel<T> K = block_of(f, lu, k);
    const int nb = K.len - K.ncols, nk = K.ncols;
    if (nb == 0) continue;  // M^-1(K, K) = D_K^-1, in place already
    if (!gather(f, lu, K.rows + nk, nb, w.G, w.relpos)) return kInverseIndex;
    T *Lb = K.L + nk;  // L(B, K), leading dimension len
    // Y = G L(B, K); M^-1(K, K) += U(K, B) Y (L(B, K)^T Y when symmetric).
    blas::gemm<T>('N', 'N', nb, nk, nb, T(1), w.G, nb, Lb, K.len, T(0), w.Y, nb);
    if (lu) {
      // Z = G^T U(K, B)^T, that is M^-1(K, B)^T up to the sign.
      blas::gemm<T>('T', 'N', nb, nk, nb, T(1), w.G, nb, K.U, nb, T(0), w.Z, nb);
      blas::gemm<T>('T', 'N', nk, nk, nb, T(1), K.U, nb, w.Y, nb, T(1), K.L, K.len);
    } else {
      blas::gemm<T>('T', 'N', nk, nk, nb, T(1), Lb, K.len, w.Y, nb, T(1), K.L, K.len);
    }
    for (int j = 0; j < nk; ++j) {
      T *dst = Lb + std::int64_t{j} * K.len;
      const T *src = w.Y + std::int64_t{j} * nb;
      for (int r = 0; r < nb; ++r) dst[r] = -src[r];
      if (!lu) continue;
      T *udst = K.U + std::int64_t{j} * nb;
      const T *zsrc = w.Z + std::int64_t{j} * nb;
      for (int r = 0; r < nb; ++r) udst[r] = -zsrc[r];
    }
  }
  return kInverseDone;
}

template <class T>
void write_result(const FactorView<T> &f, bool lu, const InverseInput &in, int n,
                  const InverseWork<T> &w) {
  // The column of M^-1 that caller column v reads: q(perm(j)) = v under a
  // matching with scaling (the solve's gather), perm(j) = v otherwise.
  const bool general = in.q != nullptr && in.scaling_on != 0;
  if (general)
    for (int i = 0; i < n; ++i) w.qinv[in.q[i] - 1] = i + 1;
  using R = real_of<T>;
  for (int u = 1; u <= n; ++u) {
    for (int e = in.ia[u - 1] - 1; e < in.ia[u] - 1; ++e) {
      const int v = in.ja[e];
      if (v < 1 || v > n) continue;
      int i = in.invp[u - 1];
      int j = in.invp[(general ? w.qinv[v - 1] : v) - 1];
      if (!lu && i < j) std::swap(i, j);
      T value;
      if (i >= j) {
        const SupernodePanel<T> J = block_of(f, lu, f.snode[j - 1]);
        const int p = find_row(J.rows, J.len, i);
        if (p < 0) continue;
        value = J.L[p + std::int64_t{j - J.first} * J.len];
      } else {
        const SupernodePanel<T> I = block_of(f, lu, f.snode[i - 1]);
        const std::int64_t row = i - I.first;
        if (j < I.first + I.ncols) {
          value = I.L[row + std::int64_t{j - I.first} * I.len];
        } else {
          const int p = find_row(I.rows, I.len, j);
          if (p < 0) continue;
          value = I.U[(p - I.ncols) + row * (I.len - I.ncols)];
        }
      }
      if (in.scaling_on != 0 && in.scale != nullptr) {
        // A^-1(u, v) = Dc(u) M^-1 Dr(v); one factor per node when symmetric.
        const double du = in.scale[u - 1];
        const double dv = general ? in.scale[n + v - 1] : in.scale[v - 1];
        value *= static_cast<R>(du * dv);
      }
      store<T>(in.a, e, value);
    }
  }
}

template int recursion<double>(const FactorView<double> &, bool, const InverseWork<double> &);
template int recursion<zcomplex>(const FactorView<zcomplex> &, bool, const InverseWork<zcomplex> &);
template void write_result<double>(const FactorView<double> &, bool, const InverseInput &, int,
                                   const InverseWork<double> &);
template void write_result<zcomplex>(const FactorView<zcomplex> &, bool, const InverseInput &, int,
                                     const InverseWork<zcomplex> &);

}  // namespace selinv

}  // namespace vm
