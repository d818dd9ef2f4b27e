// unit_matching.cpp - maximum-product matching, its scale factors, the
// analysis-facing driver, and the 1x1/2x2 pivot candidates built from it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "analysis/matching.h"
#include "analysis/mps.h"
#include "analysis/mpssym.h"
#include "analysis/perm.h"
#include "matrix_folder.h"
#include "test_matrices.h"

namespace {

using Entries = std::vector<std::pair<std::pair<int, int>, double>>;

// Zero-based rows of a testmat::Csr.
struct Zcsr {
  int m, n;
  std::vector<int> ia, ja;
  std::vector<double> a;
};

Zcsr zero_based(const testmat::Csr &c) {
  Zcsr z{c.n, c.n, c.ia, c.ja, c.a};
  for (int &v : z.ia) --v;
  for (int &v : z.ja) --v;
  return z;
}

struct Result {
  std::vector<int> p;
  std::vector<double> u, v;
  int rank = -1;
};

Result match(const Zcsr &A) {
  Result r{std::vector<int>(A.n), std::vector<double>(A.m), std::vector<double>(A.n)};
  EXPECT_EQ(vm::MPS_VELMORA(A.m, A.n, A.ia.data(), A.ja.data(), A.a.data(), 0, r.p.data(),
                            r.u.data(), r.v.data(), 0, &r.rank),
            vm::kMpsOk);
  return r;
}

bool is_permutation(std::vector<int> p, int base) {
  std::vector<int> id(p.size());
  std::iota(id.begin(), id.end(), base);
  return std::is_permutation(p.begin(), p.end(), id.begin());
}

// Scaled entries at most 1 in magnitude, exactly 1 (within rounding) on
// the matched ones.
void expect_scaled(const Zcsr &A, const Result &r) {
  std::vector<int> col_of_row(A.m, -1);
  for (int j = 0; j < A.n; ++j)
    if (r.p[j] >= 0) col_of_row[r.p[j]] = j;
  for (int i = 0; i < A.m; ++i)
    for (int k = A.ia[i]; k < A.ia[i + 1]; ++k) {
      if (A.a[k] == 0.0) continue;
      const double s = std::fabs(A.a[k]) * std::exp(r.u[i] + r.v[A.ja[k]]);
      EXPECT_LE(s, 1.0 + 1e-9) << i << "," << A.ja[k];
      EXPECT_TRUE(col_of_row[i] != A.ja[k] || std::fabs(s - 1.0) < 1e-9);
    }
}

// Random sparse square matrix, entries spread over many magnitudes.
Zcsr random_matrix(int n, double density, std::mt19937 &gen) {
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  Entries e;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      if (unit(gen) < density)
        e.push_back({{i, j}, (unit(gen) < 0.5 ? -1 : 1) * std::pow(10.0, 6 * unit(gen) - 3)});
  return zero_based(testmat::from_entries(n, e, false));
}

// A `sym` smat (zero base) holding a copy of an upper-triangle Csr.
smat *to_smat(const testmat::Csr &M) {
  auto copy = [](const auto &v) {
    auto *p = static_cast<typename std::decay_t<decltype(v)>::value_type *>(
        malloc(std::max<size_t>(v.size(), 1) * sizeof(v[0])));
    std::copy(v.begin(), v.end(), p);
    return p;
  };
  return smat_new_from_arrays(M.n, M.n, copy(M.ia), copy(M.ja), copy(M.a), 1, 1);
}

// ---------------------------------------------------------------- heap

// ---------------------------------------------------------------- matching

TEST(Mps, ProductIsTheMaximumOverAllPermutations) {
  std::mt19937 gen(2024);
  for (int trial = 0; trial < 200; ++trial) {
    const int n = 1 + trial % 7;
    const Zcsr A = random_matrix(n, 0.5, gen);
    std::vector<double> d(size_t(n) * n, 0.0);
    for (int i = 0; i < n; ++i)
      for (int k = A.ia[i]; k < A.ia[i + 1]; ++k) d[size_t(i) * n + A.ja[k]] = std::fabs(A.a[k]);
    std::vector<int> q(n);
    std::iota(q.begin(), q.end(), 0);
    int best_count = 0;
    double best_log = -1e300;
    do {  // q[j]: row of column j; most matched entries first, then product
      int count = 0;
      double lg = 0.0;
      for (int j = 0; j < n; ++j)
        if (d[size_t(q[j]) * n + j] != 0.0) ++count, lg += std::log(d[size_t(q[j]) * n + j]);
      if (count > best_count || (count == best_count && count == n && lg > best_log))
        best_count = count, best_log = lg;
    } while (std::next_permutation(q.begin(), q.end()));
    const Result r = match(A);
    ASSERT_TRUE(is_permutation(r.p, 0));
    EXPECT_EQ(r.rank, best_count);
    if (best_count < n) continue;
    double lg = 0.0;
    for (int j = 0; j < n; ++j) lg += std::log(d[size_t(r.p[j]) * n + j]);
    EXPECT_NEAR(lg, best_log, 1e-9 * (1 + std::fabs(best_log))) << "trial " << trial;
    expect_scaled(A, r);
  }
}

// Rows and columns with nearly every entry (arrowheads and their mixes):
// the searches relax only part of a dense row, and the duals must still
// prove the matching optimal (scaled entries at most 1, matched ones 1).
TEST(Mps, DenseRowsAndColumnsKeepTheDualsFeasible) {
  std::mt19937 gen(77);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int trial = 0; trial < 40; ++trial) {
    const int n = 100 + static_cast<int>(gen() % 300);
    std::vector<std::vector<char>> has(n, std::vector<char>(n, 0));
    for (int i = 0; i < n; ++i) {
      has[i][i] = unit(gen) < 0.8;
      for (int q = static_cast<int>(gen() % 8); q > 0; --q) has[i][gen() % n] = 1;
    }
    for (int d = 1 + trial % 3; d > 0; --d) {
      const int r = static_cast<int>(gen() % n), c = static_cast<int>(gen() % n);
      for (int j = 0; j < n; ++j) has[r][j] |= unit(gen) < 0.9;
      for (int i = 0; i < n; ++i) has[i][c] |= unit(gen) < 0.9;
    }
    Entries e;
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        if (!has[i][j]) continue;
        const double mag = trial % 2 ? 1.0 + gen() % 4 : (i == j ? 1.0 : 10.0 + j % 3);
        e.push_back({{i, j}, (unit(gen) < 0.5 ? -1 : 1) * mag});
      }
    const Zcsr A = zero_based(testmat::from_entries(n, e, false));
    const Result r = match(A);
    SCOPED_TRACE("trial " + std::to_string(trial));
    ASSERT_TRUE(is_permutation(r.p, 0));
    if (r.rank == n) expect_scaled(A, r);
  }
}

TEST(Mps, StructurallySingularMatrixIsCompletedToAPermutation) {
  // Rows 0 and 1 hold only column 0; column 3 is empty.
  const Zcsr A = zero_based(testmat::from_entries(
      4, {{{0, 0}, 1.0}, {{1, 0}, 2.0}, {{2, 1}, 1.0}, {{2, 2}, 1.0}, {{3, 2}, 3.0}}, false));
  const Result r = match(A);
  EXPECT_EQ(r.rank, 3);
  // Column 3 takes the free row at the end of its chain 3 -> 2 -> 1.
  EXPECT_EQ(r.p, (std::vector<int>{0, 2, 3, 1}));
}

TEST(Mps, ScaleWiderThanTheExponentRangeIsRefused) {
  const Zcsr A = zero_based(testmat::from_entries(
      3, {{{0, 0}, 1e300}, {{1, 1}, 1e-300}, {{2, 2}, 1.0}, {{0, 1}, 1.0}}, false));
  const Result r = match(A);
  EXPECT_EQ(r.p, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(r.u, std::vector<double>(3, 0.0));
  EXPECT_EQ(r.v, std::vector<double>(3, 0.0));
}

// ---------------------------------------------------------------- driver

struct Driven {
  int status, rank = 0;
  std::vector<int> q;
  std::vector<double> sc;  // columns, then rows
};

Driven drive(const testmat::Csr &M, int mtype, int nschur = 0, int mode = 1) {
  Driven d{0, 0, std::vector<int>(M.n), std::vector<double>(2 * M.n)};
  d.status = vm::run_matching(mtype, M.n, M.ia.data(), M.ja.data(), M.a.data(), nschur, mode,
                              d.q.data(), d.sc.data(), &d.rank);
  return d;
}

// Every scaled entry of M (one-based, stored part) at most 1 in magnitude.
void expect_bounded(const testmat::Csr &M, const Driven &d) {
  for (int i = 0; i < M.n; ++i)
    for (int k = M.ia[i] - 1; k < M.ia[i + 1] - 1; ++k)
      EXPECT_LE(std::fabs(M.a[k]) * d.sc[M.n + i] * d.sc[M.ja[k] - 1], 1.0 + 1e-8);
}

TEST(RunMatching, HardUnsymmetricMatricesGetAFullMatching) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  for (const char *name : {"west0067", "west0479", "west0497", "rajat19", "bp_1200"}) {
    SCOPED_TRACE(name);
    const testmat::Csr M = testmat::from_file(std::string(name) + ".mtx", false);
    ASSERT_GT(M.n, 0);
    const Driven d = drive(M, 11);
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(d.rank, M.n);
    ASSERT_TRUE(is_permutation(d.q, 1));
    for (int j = 0; j < M.n; ++j) {  // row q(j) holds a nonzero in column j, scaled to 1
      const int i = d.q[j] - 1;
      double diag = 0.0;
      for (int k = M.ia[i] - 1; k < M.ia[i + 1] - 1; ++k)
        if (M.ja[k] == j + 1) diag = std::fabs(M.a[k]);
      EXPECT_NEAR(diag * d.sc[M.n + i] * d.sc[j], 1.0, 1e-8) << j;
    }
    expect_bounded(M, d);
  }
}

TEST(RunMatching, SingularSchurSymmetricAndComplex) {
  // Structurally singular: two rows on one column.
  const testmat::Csr S =
      testmat::from_entries(3, {{{0, 0}, 1.0}, {{1, 0}, 1.0}, {{1, 1}, 0.0}, {{2, 2}, 1.0}}, false);
  Driven d = drive(S, 11);
  EXPECT_EQ(d.status, -2);
  EXPECT_EQ(d.rank, 2);
  EXPECT_TRUE(is_permutation(d.q, 1));
  // The Schur rows are left out: identity and unit scale.
  d = drive(S, 11, 2);
  EXPECT_EQ(d.status, 0);
  EXPECT_EQ(d.q, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(d.sc, (std::vector<double>{1, 1, 1, 1, 1, 1}));
  // Symmetric indefinite with a zero diagonal: one factor for both sides.
  const testmat::Csr T = testmat::from_entries(
      4, {{{0, 1}, 4.0}, {{1, 1}, 0.5}, {{2, 3}, 1e-3}, {{0, 2}, 2.0}, {{3, 3}, 8.0}}, true);
  d = drive(T, -2);
  EXPECT_EQ(d.status, 0);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(d.sc[i], d.sc[4 + i]);
  expect_bounded(T, d);
  // Complex entries count by modulus: |3+4i| = 5 beats 4.5.
  testmat::Csr Z;
  Z.n = 2;
  Z.ia = {1, 3, 5};
  Z.ja = {1, 2, 1, 2};
  Z.a = {3.0, 4.0, 4.5, 0.0, 1.0, 0.0, 1.0, 0.0};
  d = drive(Z, 13);
  EXPECT_EQ(d.q, (std::vector<int>{1, 2}));
  EXPECT_NEAR(d.sc[0] * d.sc[2] * 5.0, 1.0, 1e-12);
}

TEST(RunMatching, ConstraintRowsTradePlacesWithTheirColumns) {
  // [I B^T; B 0] with B = [0 3 1; 2 0 0]: rows 3, 4 are constraints.
  const testmat::Csr K = testmat::from_entries(
      5, {{{0, 0}, 1.0}, {{1, 1}, 1.0}, {{2, 2}, 1.0}, {{1, 3}, 3.0}, {{2, 3}, 1.0}, {{0, 4}, 2.0}},
      true);
  const Driven d = drive(K, -2, 0, 3);
  EXPECT_EQ(d.status, 0);
  EXPECT_EQ(d.rank, 5);
  EXPECT_EQ(d.q, (std::vector<int>{5, 4, 3, 2, 1}));
  EXPECT_NEAR(d.sc[1] * d.sc[3] * 3.0, 1.0, 1e-12);
  EXPECT_NEAR(d.sc[0] * d.sc[4] * 2.0, 1.0, 1e-12);
  EXPECT_EQ(d.sc[2], 1.0);  // a column of B outside the matching
  for (int i = 0; i < 5; ++i) EXPECT_EQ(d.sc[i], d.sc[5 + i]);
}

// ---------------------------------------------------------------- symmetric

// Original index at each candidate position, and the bits ('1' 1x1).
struct Candidates {
  std::vector<int> place;
  std::string bits;
};

Candidates candidates(const testmat::Csr &M, std::vector<int> match) {
  smat *A = to_smat(M);
  perm mp{static_cast<uint32_t>(M.n), match.data()}, *sp = perm_new(M.n);
  bitvec *bv = bitvec_new(M.n);
  vm::mpssym_candidates(A, &mp, sp, bv);
  Candidates c{std::vector<int>(M.n), std::string(M.n, '0')};
  for (int i = 0; i < M.n; ++i) c.place[sp->p[i]] = i;
  for (int k = 0; k < M.n; ++k)
    if (bitvec_test(bv, k)) c.bits[k] = '1';
  bitvec_free(bv);
  perm_free(sp);
  smat_free(A);
  return c;
}

// Diagonal d on 0..5 but (2,2) and (4,4) as given; (2,4) couples them.
testmat::Csr six(double d2, double d4) {
  Entries e{{{2, 4}, 1.0}, {{0, 1}, 1.0}, {{1, 3}, 1.0}, {{0, 3}, 1.0}};
  for (int i = 0; i < 6; ++i) e.push_back({{i, i}, i == 2 ? d2 : i == 4 ? d4 : 1.0});
  return testmat::from_entries(6, e, true);
}

TEST(Mpssym, CandidatesFromCycles) {
  const std::vector<int> two{0, 1, 4, 3, 2, 5};  // the 2-cycle (2 4)
  Candidates c = candidates(six(1e-07, 1e-07), two);
  EXPECT_EQ(c.place, (std::vector<int>{0, 1, 3, 5, 2, 4}));
  EXPECT_EQ(c.bits, "111111");  // both usable: two 1x1, adjacent
  c = candidates(six(1e-07, 1e-09), two);
  EXPECT_EQ(c.bits, "111100");  // one weak diagonal: a 2x2 pivot
  // The 3-cycle (0 1 3): 0 goes last alone, (1 3) forms a pair.
  c = candidates(six(1.0, 1.0), {1, 3, 2, 0, 4, 5});
  EXPECT_EQ(c.place, (std::vector<int>{2, 4, 5, 1, 3, 0}));
  EXPECT_EQ(c.bits, "111111");
  c = candidates(six(1.0, 1.0), {0, 1, 2, 3, 4, 5});
  EXPECT_EQ(c.bits, "111111");
}

// An entry (r, s) stored in the upper-triangle Csr M.
bool stored(const testmat::Csr &M, int r, int s) {
  if (r > s) std::swap(r, s);
  for (int k = M.ia[r] - 1; k < M.ia[r + 1] - 1; ++k)
    if (M.ja[k] == s + 1) return true;
  return false;
}

// Runs the whole entry; checks that perm is a permutation, that every
// 2x2 pair is adjacent and coupled in A, and the domain list.
vm::MpssymArgs run_sym(const testmat::Csr &M, std::vector<int> *p, int ordering, int fill) {
  vm::MpssymArgs args{};
  args.n = M.n;
  args.A = to_smat(M);
  args.ordering = ordering;
  args.nnodes = 1;
  args.fill = fill;
  args.target = 4;
  args.perm = p->data();
  EXPECT_EQ(vm::MPSSYM_VELMORA(&args), 1);
  EXPECT_EQ(args.status, 0);
  EXPECT_TRUE(is_permutation(*p, 0));
  EXPECT_EQ(args.ndom * 2, static_cast<int>(args.ddist->n));
  std::vector<int> dom(M.n, -1), where(M.n);
  for (int d = 0; d < args.ndom; ++d)
    for (int f = args.ddist->p[2 * d]; f <= args.ddist->p[2 * d + 1]; ++f) dom[f] = d;
  int pairs = 0;
  for (int f = 0; f < M.n; ++f) {
    if (bitvec_test(args.pivots, f)) continue;
    ++pairs;
    EXPECT_LT(f + 1, M.n);
    EXPECT_TRUE(stored(M, (*p)[f], (*p)[f + 1])) << "pair at " << f;
    EXPECT_EQ(dom[f], dom[f + 1]);  // no range end cuts a pair
    ++f;
  }
  EXPECT_GT(pairs, 0);
  // No entry joins two domains.
  for (int f = 0; f < M.n; ++f) where[(*p)[f]] = f;
  for (int i = 0; i < M.n; ++i)
    for (int k = M.ia[i] - 1; k < M.ia[i + 1] - 1; ++k) {
      const int da = dom[where[i]], db = dom[where[M.ja[k] - 1]];
      EXPECT_TRUE(da < 0 || db < 0 || da == db);
    }
  return args;
}

void release(vm::MpssymArgs &args) {
  bitvec_free(args.pivots);
  perm_free(args.ddist);
  perm_free(args.map_o2f);
  if (args.Af != nullptr) smat_free(args.Af);
  smat_free(const_cast<smat *>(args.A));
}

TEST(Mpssym, EveryRouteOnAMatchedIndefiniteMatrix) {
  // A 3D grid with zero diagonal in every other node: the matching pairs
  // most of them with a neighbour.
  testmat::Csr M = testmat::grid_laplacian(6, 5, 4, true);
  for (int i = 0; i < M.n; ++i)
    if (i % 2 == 1) M.a[M.ia[i] - 1] = 0.0;
  std::vector<int> q = drive(M, -2).q;
  for (int &x : q) --x;
  for (int ordering = 0; ordering <= 4; ++ordering) {
    SCOPED_TRACE(ordering);
    std::vector<int> p = q;
    vm::MpssymArgs args = run_sym(M, &p, ordering, ordering == 4);
    const smat *A = args.A;
    if (ordering == 4) {  // both rows of a pair share one pattern in Af
      smat *Af = smat_copy(args.Af);
      smat_to_zero_base(Af);
      for (uint32_t k = 0; k < A->nnz; ++k) EXPECT_EQ(Af->ja[args.map_o2f->p[k]], A->ja[k]);
      smat_expand_sym(Af, nullptr);
      for (int f = 0; f + 1 < M.n; ++f) {
        if (bitvec_test(args.pivots, f)) continue;
        const int r = args.perm[f], s = args.perm[f + 1];
        EXPECT_EQ(std::vector<int>(Af->ja + Af->ia[r], Af->ja + Af->ia[r + 1]),
                  std::vector<int>(Af->ja + Af->ia[s], Af->ja + Af->ia[s + 1]));
        ++f;
      }
      smat_free(Af);
    }
    release(args);
  }
}

TEST(Mpssym, SchurRowsStayLastAsSinglePivots) {
  testmat::Csr M = testmat::grid_laplacian(5, 4, 3, true);
  for (int i = 0; i < M.n; i += 2) M.a[M.ia[i] - 1] = 0.0;
  const int n = M.n, s = 7;
  std::vector<int> q = drive(M, -2, s).q, p(n);
  vm::SymmetricMatching out{p.data(), nullptr, nullptr, 0, 2, nullptr, nullptr, 0};
  EXPECT_EQ(vm::run_symmetric_matching(-2, n, M.ia.data(), M.ja.data(), M.a.data(), s, q.data(), 4,
                                       0, 1, &out),
            0);
  EXPECT_TRUE(is_permutation(p, 1));
  for (int k = n - s; k < n; ++k) {
    EXPECT_EQ(p[k], k + 1);
    EXPECT_TRUE(bitvec_test(out.pivots, k));
  }
  smat *Af = smat_copy(out.Af);  // both rows of each pair share one pattern
  smat_to_zero_base(Af);
  smat_expand_sym(Af, nullptr);
  for (int f = 0; f + 1 < n; ++f) {
    if (bitvec_test(out.pivots, f)) continue;
    const int r = p[f] - 1, t = p[f + 1] - 1;
    EXPECT_EQ(Af->ia[r + 1] - Af->ia[r], Af->ia[t + 1] - Af->ia[t]);
    ++f;
  }
  smat_free(Af);
  smat_free(out.Af);
  bitvec_free(out.pivots);
  perm_free(out.ddist);
  perm_free(out.map_o2f);
}

}  // namespace
