// schur.cpp - GET_SCHUR_VELMORA and ADD_SCHUR_VELMORA: the Schur complement
// read from the trailing panels of a factor (see schur.h).
#include "factor/schur.h"

#include <cstdio>

#include "factor/scalar_traits.h"

namespace vm {

namespace {

// First supernode of the Schur block (nsuper+1 when there is none): the
// analysis lets no supernode straddle the first Schur column.
template <class T>
int first_schur_supernode(const FactorView<T> &f) {
  const int first_s = f.n - f.nschur;
  int s = f.nsuper;
  while (s >= 1 && f.xsuper[s - 1] > first_s) --s;
  return s + 1;
}

}  // namespace

template <class T, bool kConjugate>
void GET_SCHUR_VELMORA(const FactorView<T> &f, bool symmetric, int *S_ia, int *S_ja, double *S_a) {
  const int nr = f.nschur;
  if (nr < 1 || S_ia == nullptr) return;
  const int first_s = f.n - nr;
  const int s0 = first_schur_supernode(f);
  const bool fill = S_ja != nullptr && S_a != nullptr;

  if (symmetric) {
    // Column c of the lower storage, from its diagonal down, is row c of
    // the upper triangle.
    S_ia[0] = 1;
    std::int64_t k = 0;
    for (int s = s0; s <= f.nsuper; ++s) {
      const SupernodePanel<T> p = supernode_panel(f, s);
      for (int j = 0; j < p.ncols; ++j) {
        for (int r = j; r < p.len; ++r, ++k) {
          if (!fill) continue;
          S_ja[k] = p.rows[r] - first_s;
          store<T>(S_a, k, conj_if<kConjugate>(p.L[r + std::int64_t{j} * p.len]));
        }
        S_ia[p.first + j - first_s] = static_cast<int>(k + 1);
      }
    }
    return;
  }

  // Whole S: row r holds (r, c) from the panels of the columns c and
  // (r, c') from the unz block of r's own supernode.  Counted, summed,
  // then filled supernode by supernode, which keeps each row ascending.
  for (int i = 0; i <= nr; ++i) S_ia[i] = 0;
  for (int s = s0; s <= f.nsuper; ++s) {
    const SupernodePanel<T> p = supernode_panel(f, s);
    for (int r = 0; r < p.len; ++r) S_ia[p.rows[r] - first_s] += p.ncols;
    for (int j = 0; j < p.ncols; ++j) S_ia[p.first + j - first_s] += p.len - p.ncols;
  }
  // Counts of row i in S_ia[i]; the prefix sum makes S_ia[i] the start of
  // row i+1, and S_ia[i-1] serves as row i's cursor while filling, which
  // leaves it at the start of row i+1: one shift gives the starts.
  S_ia[0] = 1;
  for (int i = 1; i <= nr; ++i) S_ia[i] += S_ia[i - 1];
  if (!fill) return;
  for (int i = nr; i >= 1; --i) S_ia[i] = S_ia[i - 1];
  S_ia[0] = 1;
  // Now S_ia[i] is the start of row i (one-based row, S_ia[1] = 1); fill
  // with S_ia[row] as the cursor of row `row`.
  for (int s = s0; s <= f.nsuper; ++s) {
    const SupernodePanel<T> p = supernode_panel(f, s);
    const int below = p.len - p.ncols;
    for (int j = 0; j < p.ncols; ++j) {
      const int c = p.first + j - first_s;
      for (int r = 0; r < p.len; ++r) {
        const int k = S_ia[p.rows[r] - first_s]++ - 1;
        S_ja[k] = c;
        store<T>(S_a, k, p.L[r + std::int64_t{j} * p.len]);
      }
    }
    for (int j = 0; j < p.ncols; ++j) {
      const int row = p.first + j - first_s;
      for (int r = 0; r < below; ++r) {
        const int k = S_ia[row]++ - 1;
        S_ja[k] = p.rows[p.ncols + r] - first_s;
        store<T>(S_a, k, p.U[r + std::int64_t{j} * below]);
      }
    }
  }
  // The cursor of row i stopped at the start of row i+1.
  S_ia[0] = 1;
}

template <class T>
int ADD_SCHUR_VELMORA(const FactorView<T> &f, bool symmetric, std::int64_t nnz_schur, int i1,
                      int j1, int i2, int j2, double alpha, double beta, double *dense, int ld) {
  const std::int64_t nr = f.nschur;
  if (nr < 1) return 0;
  const std::int64_t square = nr * nr, triangle = nr * (nr + 1) / 2;
  if (nnz_schur != square && !(symmetric && nnz_schur == triangle)) {
    std::printf("*** error: SC not full, use velmora_get_schurcomp\n");
    std::printf("nnz_schur=%lld\n", static_cast<long long>(nnz_schur));
    std::printf("nr**2=%lld\n", static_cast<long long>(square));
    std::printf("nr*(nr+1)/2=%lld\n", static_cast<long long>(triangle));
    std::fflush(stdout);
    return 1;
  }
  const int first_s = f.n - f.nschur;
  using R = real_of<T>;
  const T a = T(static_cast<R>(alpha)), b = T(static_cast<R>(beta));
  auto apply = [&](int row, int col, T v) {
    if (row < i1 || row > i2 || col < j1 || col > j2) return;
    const std::int64_t e = (row - i1) + std::int64_t{col - j1} * ld;
    store<T>(dense, e, a * load<T>(dense, e) + b * v);
  };
  for (int s = first_schur_supernode(f); s <= f.nsuper; ++s) {
    const SupernodePanel<T> p = supernode_panel(f, s);
    for (int j = 0; j < p.ncols; ++j) {
      const int col = p.first + j - first_s;
      if (col < j1 || col > j2) continue;
      for (int r = symmetric ? j : 0; r < p.len; ++r)
        apply(p.rows[r] - first_s, col, p.L[r + std::int64_t{j} * p.len]);
    }
    if (symmetric || p.U == nullptr) continue;
    const int below = p.len - p.ncols;
    for (int j = 0; j < p.ncols; ++j) {
      const int row = p.first + j - first_s;
      if (row < i1 || row > i2) continue;
      for (int r = 0; r < below; ++r)
        apply(row, p.rows[p.ncols + r] - first_s, p.U[r + std::int64_t{j} * below]);
    }
  }
  return 0;
}

// The real, complex and Hermitian bodies and the single-precision one.
template void GET_SCHUR_VELMORA<double>(const FactorView<double> &, bool, int *, int *, double *);
template void GET_SCHUR_VELMORA<zcomplex>(const FactorView<zcomplex> &, bool, int *, int *,
                                          double *);
template void GET_SCHUR_VELMORA<zcomplex, true>(const FactorView<zcomplex> &, bool, int *, int *,
                                                double *);
template void GET_SCHUR_VELMORA<float>(const FactorView<float> &, bool, int *, int *, double *);
template int ADD_SCHUR_VELMORA<double>(const FactorView<double> &, bool, std::int64_t, int, int,
                                       int, int, double, double, double *, int);
template int ADD_SCHUR_VELMORA<zcomplex>(const FactorView<zcomplex> &, bool, std::int64_t, int, int,
                                         int, int, double, double, double *, int);
template int ADD_SCHUR_VELMORA<float>(const FactorView<float> &, bool, std::int64_t, int, int, int,
                                      int, double, double, double *, int);

}  // namespace vm
