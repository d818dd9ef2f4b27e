// blklu_inverse.cpp - BLKLU_INVERSE_COM and C_BLKLU_INVERSE_COM: selected
// inversion with the LU factor of a structurally symmetric matrix (mtype
// 1 and 3), and the LU kernel that the general family shares (see
// selinv.h, blklu_unsym_inverse.cpp).
//
// A pivot block K holds L11\U11 of Er S_KK Ec = L11 U11, the row
// exchanges Er taken ascending before the forward solve and the column
// exchanges Ec descending after the backward one, as the solve applies
// them.  The factor stage makes L(B, K) = L21 L11^-1 Er of the panel,
// U(K, B)^T = U12^T U11^-T Ec^T of the unz block and
// D_K^-1 = Ec U11^-1 L11^-1 Er of the diagonal block.
#include <omp.h>

#include <algorithm>
#include <utility>

#include "factor/blas.h"
#include "factor/scalar_traits.h"
#include "solve/selinv.h"

namespace vm {

namespace {

// Exchanges of the columns of an m x nk block (leading dimension ld) by
// the list x, descending: the block times a product of exchanges applied
// ascending to a vector.
template <class T>
void exchange_columns(T *M, std::int64_t ld, int m, int nk, const int *x) {
  for (int t = nk - 2; t >= 0; --t) {
    const int p = x[t] - 1;
    if (p == t || p < 0 || p >= nk) continue;
    for (int r = 0; r < m; ++r) std::swap(M[r + t * ld], M[r + p * ld]);
  }
}

// Exchanges of the rows of an nk x nk block (leading dimension nk).
template <class T>
void exchange_rows(T *M, int nk, const int *x, bool ascending) {
  for (int s = 0; s + 1 < nk; ++s) {
    const int t = ascending ? s : nk - 2 - s;
    const int p = x[t] - 1;
    if (p == t || p < 0 || p >= nk) continue;
    for (int c = 0; c < nk; ++c)
      std::swap(M[t + std::int64_t{c} * nk], M[p + std::int64_t{c} * nk]);
  }
}

template <class T>
int normalize(const FactorView<T> &f, int k, const int *colx, T *D) {
  const SupernodePanel<T> K = supernode_panel(f, k);
  const int first = K.first, nk = K.ncols, len = K.len, nb = len - nk;
  T *L = K.L;
  T *U = K.U;
  const int *rowx = f.pivot + (first - 1);
  const int *cx = colx != nullptr ? colx + (first - 1) : nullptr;
  for (int j = 0; j < nk; ++j)
    if (L[j + std::int64_t{j} * len] == T(0)) {
      selinv::block_message("GETRI SOLVE FAILED, error = ", j + 1, k, nk);
      return kInverseSingular;
    }
  for (int j = 0; j < nk; ++j)
    for (int i = 0; i < nk; ++i) D[i + std::int64_t{j} * nk] = i == j ? T(1) : T(0);
  exchange_rows(D, nk, rowx, true);
  blas::trsm<T>('L', 'L', 'N', 'U', nk, nk, T(1), L, len, D, nk);
  blas::trsm<T>('L', 'U', 'N', 'N', nk, nk, T(1), L, len, D, nk);
  if (cx != nullptr) exchange_rows(D, nk, cx, false);
  if (nb > 0) {
    T *L21 = L + nk;
    blas::trsm<T>('R', 'L', 'N', 'U', nb, nk, T(1), L, len, L21, len);
    exchange_columns(L21, len, nb, nk, rowx);
    blas::trsm<T>('R', 'U', 'T', 'N', nb, nk, T(1), L, len, U, nb);
    if (cx != nullptr) exchange_columns(U, nb, nb, nk, cx);
  }
  for (int j = 0; j < nk; ++j)
    for (int i = 0; i < nk; ++i) L[i + std::int64_t{j} * len] = D[i + std::int64_t{j} * nk];
  return kInverseDone;
}

}  // namespace

namespace selinv {

template <class T>
int lu_inverse(const FactorView<T> &f, const InverseInput &in, int n, const InverseWork<T> &w,
               bool column_exchanges) {
  double t0 = omp_get_wtime();
  const int *colx = column_exchanges ? f.pivot_col : nullptr;
  selinv::time_line(in.verbose, "Time for inverse  preprocessing", omp_get_wtime() - t0);
  t0 = omp_get_wtime();
  for (int k = 1; k <= f.nsuper; ++k) {
    const int status = normalize(f, k, colx, w.D);
    if (status != kInverseDone) return status;
  }
  selinv::time_line(in.verbose, "Time inverse factorization (nsup)", omp_get_wtime() - t0);
  t0 = omp_get_wtime();
  const int status = recursion(f, true, w);
  if (status != kInverseDone) return status;
  write_result(f, true, in, n, w);
  selinv::time_line(in.verbose, "Time inverse inversion stage", omp_get_wtime() - t0);
  return kInverseDone;
}

template int lu_inverse<double>(const FactorView<double> &, const InverseInput &, int,
                                const InverseWork<double> &, bool);
template int lu_inverse<zcomplex>(const FactorView<zcomplex> &, const InverseInput &, int,
                                  const InverseWork<zcomplex> &, bool);

}  // namespace selinv

template <class T>
int BLKLU_INVERSE_COM(const FactorView<T> &f, const InverseInput &in, int n,
                      const InverseWork<T> &w) {
  return selinv::lu_inverse(f, in, n, w, false);
}

// BLKLU_INVERSE_COM (mtype 1) and C_BLKLU_INVERSE_COM (mtype 3).
template int BLKLU_INVERSE_COM<double>(const FactorView<double> &, const InverseInput &, int,
                                       const InverseWork<double> &);
template int BLKLU_INVERSE_COM<zcomplex>(const FactorView<zcomplex> &, const InverseInput &, int,
                                         const InverseWork<zcomplex> &);

}  // namespace vm
