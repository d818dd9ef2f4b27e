// blkldl_inverse.cpp - BLKLDL_INVERSE_COM and C_BLKLDL_INVERSE_COM:
// selected inversion with an LDL^T factor (mtype -2 and 6), see selinv.h.
//
// A pivot block K holds L11 and D of F S_KK F^T = D with F = L11^-1 P^T:
// with diagonal pivoting the exchanges P come first (ascending, as the
// solve applies them) and D is the diagonal; with Bunch-Kaufman pivoting
// the block is in the storage of dsytf2_pert, whose 1x1 steps the solve
// kernels dsytrs_fwd / _diag / _bwd apply.  The factor stage turns the
// panel into L(B, K) = L21 F and D_K^-1 = F^T D^-1 F.  Only 1x1 pivots are
// inverted: a 2x2 pivot ends the kernel with its message.
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "factor/blas.h"
#include "factor/dense_kernels.h"
#include "factor/scalar_traits.h"
#include "solve/selinv.h"

namespace vm {

namespace {

// D_K^-1 of block K into D (nk x nk) and L21 F in place.  Y serves as the
// transposed copy of L21 in Bunch-Kaufman storage (nk x nb).
template <class T>
int normalize(const FactorView<T> &f, int k, bool bk, T *D, T *Y) {
  const SupernodePanel<T> K = supernode_panel(f, k);
  const int first = K.first, nk = K.ncols, len = K.len, nb = len - nk;
  T *L = K.L;
  const int *piv = f.pivot + (first - 1);
  for (int j = 0; j < nk; ++j) {
    if (bk && piv[j] < 0) {
      std::printf("Inverse Factorization: \n2x2 pivots are not yet implemented\n");
      std::fflush(stdout);
      return kInverse2x2;
    }
    if (L[j + std::int64_t{j} * len] == T(0)) {
      selinv::block_message("GETRI SOLVE FAILED, error = ", j + 1, k, nk);
      return kInverseSingular;
    }
  }
  for (int j = 0; j < nk; ++j)
    for (int i = 0; i < nk; ++i) D[i + std::int64_t{j} * nk] = i == j ? T(1) : T(0);
  if (nk == 1) {
    L[0] = T(1) / L[0];  // F is 1: L(B, K) is L21 as it stands
    return kInverseDone;
  }
  int info = 0;
  if (bk) {
    dsytrs_fwd<T>('L', nk, nk, L, len, piv, D, nk, &info);
    if (info == 0) dsytrs_diag<T>('L', nk, nk, L, len, piv, D, nk, &info);
    if (info == 0) dsytrs_bwd<T>('L', nk, nk, L, len, piv, D, nk, &info);
    if (info != 0) {
      selinv::block_message("TRIANGULAR SOLVE FAILED, error = ", info, k, nk);
      return kInverseSingular;
    }
    if (nb > 0) {
      // (L21 F)^T = F^T L21^T: the backward solve on the rows of L21.
      for (int j = 0; j < nk; ++j)
        for (int r = 0; r < nb; ++r)
          Y[j + std::int64_t{r} * nk] = L[nk + r + std::int64_t{j} * len];
      dsytrs_bwd<T>('L', nk, nb, L, len, piv, Y, nk, &info);
      if (info != 0) {
        selinv::block_message("TRIANGULAR SOLVE FAILED, error = ", info, k, nk);
        return kInverseSingular;
      }
      for (int j = 0; j < nk; ++j)
        for (int r = 0; r < nb; ++r)
          L[nk + r + std::int64_t{j} * len] = Y[j + std::int64_t{r} * nk];
    }
  } else {
    // Exchanges ascending, then L11^-1, D^-1, L11^-T and the exchanges
    // descending, on the identity.
    auto swap_rows = [&](int a, int b) {
      for (int c = 0; c < nk; ++c)
        std::swap(D[a + std::int64_t{c} * nk], D[b + std::int64_t{c} * nk]);
    };
    for (int t = 0; t < nk - 1; ++t)
      if (piv[t] - 1 != t && piv[t] >= 1 && piv[t] - 1 < nk) swap_rows(t, piv[t] - 1);
    blas::trsm<T>('L', 'L', 'N', 'U', nk, nk, T(1), L, len, D, nk);
    for (int c = 0; c < nk; ++c)
      for (int r = 0; r < nk; ++r) D[r + std::int64_t{c} * nk] /= L[r + std::int64_t{r} * len];
    blas::trsm<T>('L', 'L', 'T', 'U', nk, nk, T(1), L, len, D, nk);
    for (int t = nk - 2; t >= 0; --t)
      if (piv[t] - 1 != t && piv[t] >= 1 && piv[t] - 1 < nk) swap_rows(t, piv[t] - 1);
    if (nb > 0) {
      // L21 L11^-1 P^T: the solve, then column exchanges descending.
      T *L21 = L + nk;
      blas::trsm<T>('R', 'L', 'N', 'U', nb, nk, T(1), L, len, L21, len);
      for (int t = nk - 2; t >= 0; --t) {
        const int p = piv[t] - 1;
        if (p == t || p < 0 || p >= nk) continue;
        for (int r = 0; r < nb; ++r)
          std::swap(L21[r + std::int64_t{t} * len], L21[r + std::int64_t{p} * len]);
      }
    }
  }
  for (int j = 0; j < nk; ++j)
    for (int i = 0; i < nk; ++i) L[i + std::int64_t{j} * len] = D[i + std::int64_t{j} * nk];
  return kInverseDone;
}

}  // namespace

template <class T>
int BLKLDL_INVERSE_COM(const FactorView<T> &f, const InverseInput &in, int n,
                       const InverseWork<T> &w) {
  double t0 = omp_get_wtime();
  selinv::time_line(in.verbose, "Time for inverse  preprocessing", omp_get_wtime() - t0);
  t0 = omp_get_wtime();
  for (int k = 1; k <= f.nsuper; ++k) {
    const int status = normalize(f, k, in.bunch_kaufman, w.D, w.Y);
    if (status != kInverseDone) return status;
  }
  selinv::time_line(in.verbose, "Time inverse factorization (nsup)", omp_get_wtime() - t0);
  t0 = omp_get_wtime();
  const int status = selinv::recursion(f, false, w);
  if (status != kInverseDone) return status;
  selinv::write_result(f, false, in, n, w);
  selinv::time_line(in.verbose, "Time inverse inversion stage", omp_get_wtime() - t0);
  return kInverseDone;
}

// BLKLDL_INVERSE_COM (mtype -2) and C_BLKLDL_INVERSE_COM (mtype 6).
template int BLKLDL_INVERSE_COM<double>(const FactorView<double> &, const InverseInput &, int,
                                        const InverseWork<double> &);
template int BLKLDL_INVERSE_COM<zcomplex>(const FactorView<zcomplex> &, const InverseInput &, int,
                                          const InverseWork<zcomplex> &);

}  // namespace vm
