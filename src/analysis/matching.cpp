// matching.cpp - the matching step of the analysis: the caller's matrix to
// a zero-based matrix of magnitudes, the maximum-product matching, and the
// permutation and scale factors in the form the later stages read.
#include "analysis/matching.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "analysis/bitvec.h"
#include "analysis/mps.h"
#include "analysis/mpssym.h"
#include "analysis/perm.h"
#include "analysis/smat.h"
#include "common/allocation.h"
#include "common/matrix_type.h"
#include "quor/corelib/quor_log.h"

namespace vm {

namespace {

// An array from malloc, released with its owner; no exception on failure.
template <typename T>
struct Buf {
  T *p = nullptr;
  explicit Buf(std::int64_t count) {
    p = static_cast<T *>(
        scratch_malloc(static_cast<std::size_t>(std::max<std::int64_t>(count, 1)) * sizeof(T)));
  }
  Buf(const Buf &) = delete;
  Buf &operator=(const Buf &) = delete;
  ~Buf() { std::free(p); }
  T &operator[](std::int64_t k) { return p[k]; }
};

// Zero-based full rows of the leading ns x ns block, values as magnitudes.
struct Magnitudes {
  int *ia = nullptr;
  int *ja = nullptr;
  double *a = nullptr;
  ~Magnitudes() {
    std::free(ia);
    std::free(ja);
    std::free(a);
  }
};

int build_magnitudes(int mtype, int ns, const int *ia, const int *ja, const double *a,
                     Magnitudes *out) {
  const bool upper = is_symmetric_storage(mtype);
  const bool cplx = is_complex_type(mtype);
  auto mag = [&](int k) {
    return cplx ? std::hypot(a[2 * std::int64_t{k}], a[2 * std::int64_t{k} + 1]) : std::fabs(a[k]);
  };
  out->ia = static_cast<int *>(scratch_calloc(static_cast<std::size_t>(ns) + 1, sizeof(int)));
  if (out->ia == nullptr) return kMatchNoMemory;
  int *count = out->ia + 1;  // count[i]: entries of row i, shifted by one below
  for (int i = 0; i < ns; ++i) {
    for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k) {
      const int j = ja[k] - 1;
      if (j >= ns || j < 0) continue;
      ++count[i];
      if (upper && j != i) ++count[j];
    }
  }
  for (int i = 0; i < ns; ++i) out->ia[i + 1] += out->ia[i];
  const std::size_t nnz = static_cast<std::size_t>(out->ia[ns]);
  out->ja = static_cast<int *>(scratch_malloc(std::max<std::size_t>(nnz, 1) * sizeof(int)));
  out->a = static_cast<double *>(scratch_malloc(std::max<std::size_t>(nnz, 1) * sizeof(double)));
  if (out->ja == nullptr || out->a == nullptr) return kMatchNoMemory;
  Buf<int> cursor(ns);
  if (cursor.p == nullptr) return kMatchNoMemory;
  std::copy(out->ia, out->ia + ns, cursor.p);
  for (int i = 0; i < ns; ++i) {
    for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k) {
      const int j = ja[k] - 1;
      if (j >= ns || j < 0) continue;
      const double v = mag(k);
      out->ja[cursor[i]] = j;
      out->a[cursor[i]++] = v;
      if (upper && j != i) {
        out->ja[cursor[j]] = i;
        out->a[cursor[j]++] = v;
      }
    }
  }
  return 0;
}

// Trailing rows of the block whose diagonal is absent or zero.
int count_constraint_rows(int ns, const Magnitudes &A) {
  int c = 0;
  for (int i = ns - 1; i >= 0; --i) {
    double diag = 0.0;
    for (int k = A.ia[i]; k < A.ia[i + 1]; ++k)
      if (A.ja[k] == i) diag = std::max(diag, A.a[k]);
    if (diag != 0.0) break;
    ++c;
  }
  return c;
}

// Modes 3 and 4: matching of the constraint block B = A(ns-c.., 0..ns-c-1).
int match_constraints(int ns, const Magnitudes &A, int *match_perm, double *col_log,
                      double *row_log, int *rank) {
  const int c = count_constraint_rows(ns, A);
  const int nb = ns - c;
  const std::int64_t room = A.ia[ns] - A.ia[nb];
  Buf<int> bia(c + 1), bja(room), p(nb);
  Buf<double> ba(room), u(c), v(nb);
  if (!bia.p || !bja.p || !p.p || !ba.p || !u.p || !v.p) return kMatchNoMemory;
  bia[0] = 0;
  int cnt = 0;
  for (int k = 0; k < c; ++k) {
    const int i = nb + k;
    for (int e = A.ia[i]; e < A.ia[i + 1]; ++e) {
      if (A.ja[e] >= nb) continue;
      bja[cnt] = A.ja[e];
      ba[cnt++] = A.a[e];
    }
    bia[k + 1] = cnt;
  }
  std::fill(v.p, v.p + nb, 0.0);  // warm start from zero duals
  int matched = 0;
  if (MPS_VELMORA(c, nb, bia.p, bja.p, ba.p, 0, p.p, u.p, v.p, 1, &matched) != kMpsOk)
    return kMatchNoMemory;
  for (int j = 0; j < nb; ++j) col_log[j] = v[j];
  for (int k = 0; k < c; ++k) row_log[nb + k] = 0.0;
  for (int q = 0; q < nb; ++q) {
    const int k = p[q];
    if (k < 0) continue;
    match_perm[q] = nb + k + 1;
    match_perm[nb + k] = q + 1;
    row_log[nb + k] = u[k];
  }
  // Both halves of a symmetric scale: the constraint rows take their own.
  for (int k = 0; k < c; ++k) col_log[nb + k] = row_log[nb + k];
  for (int j = 0; j < nb; ++j) row_log[j] = col_log[j];
  *rank = nb + matched;
  return 0;
}

}  // namespace

int run_matching(int mtype, int n, const int *ia, const int *ja, const double *a, int nschur,
                 int mode, int *match_perm, double *scale, int *rank) {
  const int ns = std::max(0, std::min(n, n - nschur));
  for (int i = 0; i < n; ++i) match_perm[i] = i + 1;
  std::fill(scale, scale + 2 * std::int64_t{n}, 1.0);
  *rank = n;
  if (ns == 0) return 0;

  Magnitudes A;
  if (build_magnitudes(mtype, ns, ia, ja, a, &A) != 0) return kMatchNoMemory;
  Buf<double> col_log(ns), row_log(ns);
  if (col_log.p == nullptr || row_log.p == nullptr) return kMatchNoMemory;
  std::fill(col_log.p, col_log.p + ns, 0.0);
  std::fill(row_log.p, row_log.p + ns, 0.0);
  const bool symmetric = is_symmetric_storage(mtype);
  int status = 0;
  if (mode == 3 || mode == 4) {
    int found = 0;
    if (match_constraints(ns, A, match_perm, col_log.p, row_log.p, &found) != 0)
      return kMatchNoMemory;
    *rank = found + (n - ns);
  } else {
    Buf<int> p(ns);
    int found = 0;
    if (p.p == nullptr ||
        MPS_VELMORA(ns, ns, A.ia, A.ja, A.a, 0, p.p, row_log.p, col_log.p, 0, &found) != kMpsOk)
      return kMatchNoMemory;
    for (int j = 0; j < ns; ++j) match_perm[j] = p[j] + 1;
    if (symmetric) {
      // One factor for both sides: the mean of the two log-scales.
      for (int i = 0; i < ns; ++i) row_log[i] = col_log[i] = 0.5 * (row_log[i] + col_log[i]);
    }
    *rank = found + (n - ns);
    if (*rank < n) status = *rank > 0 ? -*rank : kMatchRankZero;
  }
  for (int i = 0; i < ns; ++i) {
    scale[i] = std::exp(col_log[i]);
    scale[n + i] = std::exp(row_log[i]);
  }
  return status;
}

int run_symmetric_matching(int mtype, int n, const int *ia, const int *ja, const double *a,
                           int nschur, const int *match_perm, int ordering, int parallel_nd,
                           int fill, SymmetricMatching *out) {
  const int ns = std::max(0, std::min(n, n - nschur));
  const bool cplx = is_complex_type(mtype);
  const int stride = cplx ? 2 : 1;
  // The leading block as a zero-based `sym` record of its own.
  pint *bia = static_cast<pint *>(quor_malloc((static_cast<std::size_t>(ns) + 1) * sizeof(pint)));
  bia[0] = 0;
  for (int i = 0; i < ns; ++i) {
    int cnt = 0;
    for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k) cnt += ja[k] <= ns;
    bia[i + 1] = bia[i] + cnt;
  }
  const std::size_t nnz = static_cast<std::size_t>(bia[ns]);
  pint *bja = static_cast<pint *>(quor_malloc(std::max<std::size_t>(nnz, 1) * sizeof(pint)));
  double *ba = static_cast<double *>(quor_malloc(
      std::max<std::size_t>(nnz * static_cast<std::size_t>(stride), 1) * sizeof(double)));
  std::size_t t = 0;
  for (int i = 0; i < ns; ++i)
    for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k) {
      if (ja[k] > ns) continue;
      bja[t] = ja[k] - 1;
      for (int c = 0; c < stride; ++c) ba[t * stride + c] = a[std::int64_t{k} * stride + c];
      ++t;
    }
  smat *B = smat_new_from_arrays_complex(static_cast<uint32_t>(ns), static_cast<uint32_t>(ns), bia,
                                         bja, ba, 1, 0, cplx ? 1 : 0);
  for (int i = 0; i < ns; ++i) out->perm[i] = match_perm[i] - 1;

  MpssymArgs args{};
  args.n = ns;
  args.A = B;
  args.ordering = ordering;
  args.parallel_nd = parallel_nd;
  args.nnodes = 1;
  args.fill = fill && nschur == 0;
  args.perm = out->perm;
  args.target = out->target;
  MPSSYM_VELMORA(&args);
  smat_free(B);

  // Schur rows last, 1x1.
  out->pivots = bitvec_new(static_cast<uint32_t>(n));
  for (int k = 0; k < n; ++k)
    if (k >= ns || bitvec_test(args.pivots, static_cast<uint32_t>(k)))
      bitvec_set(out->pivots, static_cast<uint32_t>(k));
  bitvec_free(args.pivots);
  for (int k = 0; k < n; ++k) out->perm[k] = k < ns ? out->perm[k] + 1 : k + 1;
  out->ddist = args.ddist;
  out->ndom = args.ndom;
  out->target = args.target;
  out->status = args.status;
  out->Af = args.Af;
  out->map_o2f = args.map_o2f;
  if (fill && nschur > 0) {
    // The whole matrix, its pairs taken in pivot order.
    pint *fia = static_cast<pint *>(quor_malloc((static_cast<std::size_t>(n) + 1) * sizeof(pint)));
    const std::size_t fnnz = static_cast<std::size_t>(ia[n] - 1);
    pint *fja = static_cast<pint *>(quor_malloc(std::max<std::size_t>(fnnz, 1) * sizeof(pint)));
    std::copy(ia, ia + n + 1, fia);
    std::copy(ja, ja + fnnz, fja);
    smat *F = smat_new_from_arrays_complex(static_cast<uint32_t>(n), static_cast<uint32_t>(n), fia,
                                           fja, nullptr, 1, 1, cplx ? 1 : 0);
    perm *order = perm_new(static_cast<uint32_t>(n));
    for (int k = 0; k < n; ++k) order->p[k] = out->perm[k] - 1;
    out->Af = mpssym_filled(F, order->p, out->pivots, &out->map_o2f);
    smat_to_one_base(out->Af);
    perm_free(order);
    smat_free(F);
  }
  return 0;
}

std::int64_t kept_matching_bytes(int n, int max_domains) {
  const std::int64_t words = (std::int64_t{n} + 31) / 32;
  return 4 * (std::int64_t{n} + words + 1 + 2 * std::int64_t{std::max(max_domains, 1)});
}

KeptSymmetricMatching kept_matching_view(void *block, int n) {
  KeptSymmetricMatching v{};
  v.perm = static_cast<int *>(block);
  v.pivots = reinterpret_cast<std::uint32_t *>(v.perm + n);
  v.ndom = reinterpret_cast<int *>(v.pivots + (std::int64_t{n} + 31) / 32);
  v.domains = v.ndom + 1;
  return v;
}

void keep_symmetric_matching(const SymmetricMatching &out, int n, void *block) {
  const KeptSymmetricMatching v = kept_matching_view(block, n);
  const std::int64_t words = (std::int64_t{n} + 31) / 32;
  std::copy(out.pivots->bits, out.pivots->bits + words, v.pivots);
  // Domains of a nested dissection of the compressed graph, in pivot
  // positions; anything else (one domain, or a list that does not fit in
  // 1..n in increasing order) leaves the matrix one domain.
  const int nd = out.ddist != nullptr ? out.ndom : 0;
  bool sound = nd >= 2;
  for (int d = 0; sound && d < nd; ++d) {
    const int first = out.ddist->p[2 * d], last = out.ddist->p[2 * d + 1];
    const int prev_last = d > 0 ? out.ddist->p[2 * d - 1] : -1;
    sound = first > prev_last && first <= last && last < n;
  }
  *v.ndom = sound ? nd : 1;
  if (!sound) {
    v.domains[0] = 1;
    v.domains[1] = n;
    return;
  }
  for (int k = 0; k < 2 * nd; ++k) v.domains[k] = out.ddist->p[k] + 1;
}

}  // namespace vm
