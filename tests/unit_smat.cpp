// White-box tests of the analysis layer's sparse records (smat and perm)
// and of the iterative layer's log file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <complex>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "analysis/perm.h"
#include "analysis/smat.h"
#include "matrix_folder.h"
#include "mm_read.h"
#include "quor/corelib/quor_log.h"

namespace {

using cplx = std::complex<double>;
using ivec = std::vector<pint>;

// ---------------------------------------------------------------- helpers

// Dense image of a matrix: value and number of stored entries per position.
struct Dense {
  uint32_t m = 0, n = 0;
  std::vector<cplx> v;
  std::vector<int> count;
  Dense(uint32_t rows, uint32_t cols) : m(rows), n(cols), v(size_t{rows} * cols), count(v.size()) {}
  cplx &at(uint32_t i, uint32_t j) { return v[size_t{i} * n + j]; }
  int &cnt(uint32_t i, uint32_t j) { return count[size_t{i} * n + j]; }
};

// A malloc'ed copy, for constructors that take arrays over.
template <class T>
T *owned(const std::vector<T> &v) {
  T *p = static_cast<T *>(std::malloc(v.empty() ? 1 : v.size() * sizeof(T)));
  std::copy(v.begin(), v.end(), p);
  return p;
}

cplx value_of(const smat *A, pint k) {
  if (A->a == nullptr) return 0.0;
  return A->is_complex ? cplx(A->a[2 * k], A->a[2 * k + 1]) : cplx(A->a[k]);
}

// Stored entries, or with the upper triangle of a `sym` matrix mirrored.
Dense to_dense(const smat *A, bool mirror = false) {
  Dense D(A->m, A->n);
  for (uint32_t i = 0; i < A->m; ++i) {
    for (pint k = A->ia[i]; k < A->ia[i + 1]; ++k) {
      const uint32_t j = static_cast<uint32_t>(A->ja[k]);
      D.at(i, j) += value_of(A, k), ++D.cnt(i, j);
      if (mirror && A->sym && j != i) D.at(j, i) += value_of(A, k), ++D.cnt(j, i);
    }
  }
  return D;
}

// A matrix on the pattern of D (its upper part when sym), via smat_new_from.
smat *from_dense(const Dense &D, bool sym, bool is_complex, bool values) {
  ivec ia{0}, ja;
  std::vector<double> a;
  for (uint32_t i = 0; i < D.m; ++i) {
    for (uint32_t j = sym ? i : 0; j < D.n; ++j) {
      if (D.count[size_t{i} * D.n + j] == 0) continue;
      ja.push_back(static_cast<pint>(j));
      a.push_back(D.v[size_t{i} * D.n + j].real());
      if (is_complex) a.push_back(D.v[size_t{i} * D.n + j].imag());
    }
    ia.push_back(static_cast<pint>(ja.size()));
  }
  return smat_new_from(D.m, D.n, owned(ia), owned(ja), values ? owned(a) : nullptr,
                       (sym ? 1 : 0) + (is_complex ? 2 : 0), 0);
}

// Random pattern and values (imaginary part 0 unless complex); symmetric
// in full when sym.
Dense random_dense(uint32_t m, uint32_t n, double density, bool sym, bool full_diag,
                   bool is_complex, std::mt19937 &rng) {
  std::uniform_real_distribution<double> u(-1.0, 1.0), coin(0.0, 1.0);
  Dense D(m, n);
  for (uint32_t i = 0; i < m; ++i) {
    for (uint32_t j = sym ? i : 0; j < n; ++j) {
      if (!(coin(rng) < density || (full_diag && i == j))) continue;
      D.at(i, j) = cplx(u(rng), is_complex ? u(rng) : 0.0), D.cnt(i, j) = 1;
      if (sym) D.at(j, i) = D.at(i, j), D.cnt(j, i) = 1;
    }
  }
  return D;
}

Dense upper_of(Dense D) {
  for (uint32_t i = 0; i < D.m; ++i) {
    for (uint32_t j = 0; j < i && j < D.n; ++j) D.at(i, j) = 0.0, D.cnt(i, j) = 0;
  }
  return D;
}

// Rows strictly increasing; pattern and (when present) values equal to D.
void expect_matches(const smat *A, const Dense &D) {
  ASSERT_EQ(A->m, D.m);
  ASSERT_EQ(A->n, D.n);
  ASSERT_EQ(A->ia[A->m], static_cast<pint>(A->nnz));
  for (uint32_t i = 0; i < A->m; ++i) {
    for (pint k = A->ia[i] + 1; k < A->ia[i + 1]; ++k) ASSERT_LT(A->ja[k - 1], A->ja[k]) << i;
  }
  const Dense S = to_dense(A);
  for (size_t p = 0; p < S.v.size(); ++p) {
    ASSERT_EQ(S.count[p], D.count[p] > 0 ? 1 : 0) << "position " << p;
    if (A->a != nullptr) {
      EXPECT_LE(std::abs(S.v[p] - D.v[p]), 1e-12 * (1 + std::abs(D.v[p]))) << "position " << p;
    }
  }
}

void expect_same(const smat *X, const smat *Y) {
  ASSERT_EQ(X->m, Y->m);
  ASSERT_EQ(X->n, Y->n);
  ASSERT_EQ(X->nnz, Y->nnz);
  EXPECT_EQ(X->sym, Y->sym);
  EXPECT_EQ(X->is_complex, Y->is_complex);
  EXPECT_TRUE(std::equal(X->ia, X->ia + X->m + 1, Y->ia));
  EXPECT_TRUE(std::equal(X->ja, X->ja + X->nnz, Y->ja));
  ASSERT_EQ(X->a == nullptr, Y->a == nullptr);
  if (X->a != nullptr) {
    EXPECT_TRUE(std::equal(X->a, X->a + X->nnz * (X->is_complex + 1), Y->a));
  }
}

smat *load(const char *name) {
  mm::Triplets t;
  std::string error;
  const bool ok = mm::read(std::string(VELMORA_MATRIX_DIR) + "/" + name, &t, &error);
  EXPECT_TRUE(ok) << error;
  if (!ok) return nullptr;
  return smat_new_from_coord(static_cast<uint32_t>(t.n), static_cast<uint32_t>(t.size()),
                             t.rows.data(), t.cols.data(), t.re.empty() ? nullptr : t.re.data(),
                             t.im.empty() ? nullptr : t.im.data(), 0);
}

perm *make_perm(const ivec &p) {
  return perm_new_from(static_cast<uint32_t>(p.size()), owned(p));
}

perm *random_perm(uint32_t n, std::mt19937 &rng) {
  ivec p(n);
  std::iota(p.begin(), p.end(), 0);
  std::shuffle(p.begin(), p.end(), rng);
  return make_perm(p);
}

// Put the entries of every row in random order, values along.
void shuffle_rows(smat *A, std::mt19937 &rng) {
  const int w = A->is_complex ? 2 : 1;
  for (uint32_t i = 0; i < A->m; ++i) {
    for (pint k = A->ia[i + 1] - 1; k > A->ia[i]; --k) {
      const pint t = A->ia[i] + static_cast<pint>(rng() % static_cast<uint32_t>(k - A->ia[i] + 1));
      std::swap(A->ja[k], A->ja[t]);
      for (int s = 0; A->a != nullptr && s < w; ++s) std::swap(A->a[k * w + s], A->a[t * w + s]);
    }
  }
}

// --------------------------------------------------- construction, checks

TEST(SmatConstruct, OneBasedArraysAreTakenOverAndShifted) {
  pint *ia = owned(ivec{1, 3, 4});
  smat *A = smat_new_from(2, 2, ia, owned(ivec{1, 2, 2}), owned(std::vector<double>(6, 1.0)), 3, 1);
  EXPECT_EQ(A->ia, ia);  // taken over, not copied
  EXPECT_EQ(A->nnz + A->sym + A->is_complex, 5u);
  EXPECT_EQ(ivec(A->ia, A->ia + 3), (ivec{0, 2, 3}));
  EXPECT_EQ(ivec(A->ja, A->ja + 3), (ivec{0, 1, 1}));
  EXPECT_TRUE(smat_check(A));
  smat_to_one_base(A);
  EXPECT_EQ(ivec(A->ja, A->ja + 3), (ivec{1, 2, 2}));
  smat_to_zero_base(A);
  EXPECT_EQ(ivec(A->ia, A->ia + 3), (ivec{0, 2, 3}));
  smat_free(A);
}

TEST(SmatConstruct, FromCoordDecidesTheTriangle) {
  // Lower-only triplets are read transposed and upper-only ones kept: both
  // give the same `sym` matrix.  Entries on both sides give a general one.
  const pint lo_r[] = {0, 2, 1, 2}, lo_c[] = {0, 0, 1, 2};
  const double val[] = {4, 1, 5, 6};
  smat *L = smat_new_from_coord(3, 4, lo_r, lo_c, val, nullptr, 0);
  smat *U = smat_new_from_coord(3, 4, lo_c, lo_r, val, nullptr, 0);
  EXPECT_EQ(L->sym, 1);
  expect_same(L, U);
  EXPECT_TRUE(smat_check(L));
  const pint g_r[] = {1, 1, 2, 3, 3, 1}, g_c[] = {1, 3, 2, 1, 3, 1};  // one-based, (1,1) twice
  const double re[] = {1, 2, 3, 4, 5, 10}, im[] = {-1, 0, 0, 0, 0, -10};
  smat *G = smat_new_from_coord(3, 6, g_r, g_c, re, im, 1);
  Dense D(3, 3);
  D.at(0, 0) = cplx(11, -11), D.at(0, 2) = 2, D.at(1, 1) = 3, D.at(2, 0) = 4, D.at(2, 2) = 5;
  for (int p : {0, 2, 4, 6, 8}) D.count[p] = 1;
  EXPECT_EQ(G->sym, 0);
  EXPECT_EQ(G->is_complex, 1);
  expect_matches(G, D);
  smat *P = smat_new_from_coord(3, 6, g_r, g_c, nullptr, nullptr, 1);
  EXPECT_EQ(P->a, nullptr);
  EXPECT_EQ(P->nnz, 5u);
  for (smat *X : {L, U, G, P}) smat_free(X);
}

TEST(SmatChecks, BrokenMatricesAreCaught) {
  struct Case {
    ivec ia, ja;
    int sym, rows, cols, diag, tri;  // flag, then the expected results
  } cases[] = {
      {{0, 2, 3}, {0, 1, 1}, 0, 1, 1, 1, 1},  // sound
      {{0, 2, 2}, {0, 1}, 0, 0, 1, 0, 1},     // empty row
      {{0, 2, 3}, {1, 0, 1}, 0, 1, 0, 1, 1},  // unsorted row
      {{0, 2, 3}, {0, 0, 1}, 0, 1, 0, 1, 1},  // repeated column
      {{0, 2, 3}, {2, 3, 1}, 0, 1, 0, 0, 1},  // column beyond n
      {{0, 1, 3}, {1, 0, 1}, 1, 1, 1, 0, 0},  // lower entry in a sym matrix
      {{1, 2, 3}, {9, 0, 1}, 0, 0, 1, 1, 1},  // ia[0] not 0
      {{0, 1, 2}, {0, 1, 1}, 0, 0, 1, 1, 1},  // ia[m] below nnz
  };
  for (Case &c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.ia) + testing::PrintToString(c.ja));
    smat A{2, 2, static_cast<uint32_t>(c.ja.size()), c.sym, 0, c.ia.data(), c.ja.data(), nullptr};
    EXPECT_EQ(smat_check_rows(&A), c.rows);
    EXPECT_EQ(smat_check_cols(&A), c.cols);
    EXPECT_EQ(smat_check_diag(&A), c.diag);
    EXPECT_EQ(smat_check_triangle(&A), c.tri);
    EXPECT_EQ(smat_check(&A), c.rows && c.cols && c.diag && c.tri);
  }
}

// ------------------------------------------------------------- row sort

// -------------------------------------------- symmetric structure, transpose

// Expanding U (rows shuffled first when rng is given) gives the full
// symmetric matrix with a correct entry map; compressing it gives back U.
void expect_sym_round_trip(const smat *U, std::mt19937 *rng = nullptr) {
  ASSERT_EQ(U->sym, 1);
  smat *S = smat_copy(U);
  if (rng != nullptr) shuffle_rows(S, *rng);
  smat *E = smat_copy(S);
  pint *map = nullptr;
  smat_expand_sym(E, &map);
  EXPECT_EQ(E->sym, 0);
  expect_matches(E, to_dense(U, true));
  auto row_of = [](const smat *A, pint k) {
    return static_cast<pint>(std::upper_bound(A->ia, A->ia + A->m + 1, k) - A->ia - 1);
  };
  for (pint k = 0; k < static_cast<pint>(E->nnz); ++k) {
    ASSERT_EQ(value_of(E, k), value_of(S, map[k])) << k;
    const pint r = row_of(S, map[k]), c = S->ja[map[k]];  // the entry or its mirror
    ASSERT_TRUE((r == row_of(E, k) && c == E->ja[k]) || (c == row_of(E, k) && r == E->ja[k]));
  }
  smat *T = smat_copy_trans(E);  // a full symmetric matrix is its own transpose
  expect_same(T, E);
  smat_to_symmetric_structure(E);
  expect_same(E, U);
  std::free(map);
  for (smat *X : {S, T, E}) smat_free(X);
}

TEST(SmatSymmetric, ExpandThenCompressGivesBackGeneratedMatrices) {
  std::mt19937 rng(11);
  for (uint32_t n : {0u, 1u, 5u, 200u}) {
    for (int is_complex : {0, 1}) {
      for (bool full_diag : {true, false}) {
        const Dense D = random_dense(n, n, 0.2, true, full_diag, is_complex, rng);
        smat *U = from_dense(D, true, is_complex, true);
        expect_sym_round_trip(U, &rng);
        smat_free(U);
      }
    }
  }
  smat *Z = smat_new(0, 0, 1);  // nothing to cut from an empty `sym` matrix
  smat_to_symmetric_structure(Z);
  EXPECT_EQ(Z->sym, 1);
  EXPECT_EQ(Z->nnz, 0u);
  smat_free(Z);
}

TEST(SmatSymmetric, ExpandThenCompressGivesBackRealMatrices) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  for (const char *name :
       {"bcsstk13.mtx", "494_bus.mtx", "LFAT5.mtx", "dwt_992.mtx", "west0479.mtx", "w156.mtx"}) {
    SCOPED_TRACE(name);
    smat *A = load(name);
    ASSERT_NE(A, nullptr);
    smat *T = smat_copy_trans(A);
    smat *TT = smat_copy_trans(T);
    expect_same(TT, A);
    if (!A->sym) smat_to_symmetric_structure(A);  // of a general one, keep the upper part
    EXPECT_TRUE(smat_check_triangle(A));
    expect_sym_round_trip(A);
    for (smat *X : {A, T, TT}) smat_free(X);
  }
}

// ------------------------------------------------------- add, scale, permute

TEST(SmatPermSym, MatchesDensePermutation) {
  std::mt19937 rng(17);
  for (int is_complex : {0, 1}) {
    for (bool sym : {false, true}) {
      for (uint32_t n : {1u, 8u, 60u}) {
        const Dense D = random_dense(n, n, 0.3, sym, sym, is_complex, rng);
        smat *A = from_dense(D, sym, is_complex, true);
        perm *P = random_perm(n, rng);
        smat *B = smat_perm_sym(A, P, 1);
        Dense R(n, n);  // entry (i, j) moves to (p[i], p[j])
        for (uint32_t p = 0; p < n * n; ++p) {
          R.at(P->p[p / n], P->p[p % n]) = D.v[p], R.cnt(P->p[p / n], P->p[p % n]) = D.count[p];
        }
        EXPECT_EQ(B->sym, sym ? 1 : 0);
        expect_matches(B, sym ? upper_of(R) : R);
        smat *N = smat_perm_sym(A, P, 0);  // values not wanted
        smat *pattern = smat_copy_pattern(A);
        smat *NP = smat_perm_sym(pattern, P, 1);  // pattern in, pattern out
        EXPECT_EQ(N->a, nullptr);
        expect_same(N, NP);
        perm_free(P);
        for (smat *X : {A, B, N, pattern, NP}) smat_free(X);
      }
    }
  }
}

// ------------------------------------------------------------------ perm

TEST(Perm, InvertComposeReverseEqual) {
  std::mt19937 rng(23);
  perm *P = random_perm(100, rng), *I = perm_new(100);
  perm *Q = perm_invert(nullptr, P), *PQ = perm_copy(nullptr, P);
  perm_compose(PQ, Q);  // Q after P
  perm_identity(I);
  EXPECT_TRUE(perm_equal(PQ, I));
  const pint *array = Q->p;
  perm_invert_in_place(Q);
  EXPECT_EQ(Q->p, array);
  EXPECT_TRUE(perm_equal(Q, P));
  perm_reverse(I);
  EXPECT_EQ(I->p[0], 99);
  EXPECT_EQ(I->p[99], 0);
  EXPECT_FALSE(perm_equal(I, P));
  perm *E1 = perm_new(0), *E2 = perm_new(0);
  EXPECT_TRUE(perm_equal(E1, E2));
  for (perm *X : {P, Q, PQ, I, E1, E2}) perm_free(X);
}

TEST(Perm, CyclesStartAtTheirSmallestMember) {
  perm *P = make_perm({2, 0, 1, 3, 5, 4, 7, 8, 6});
  perm_cycle_list *c = perm_cycles(P);
  EXPECT_EQ(c->n, 4);
  EXPECT_EQ(ivec(c->ptr, c->ptr + 5), (ivec{0, 3, 4, 6, 9}));
  EXPECT_EQ(ivec(c->members, c->members + 9), (ivec{0, 2, 1, 3, 4, 5, 6, 7, 8}));
  perm_cycles_free(c);
  perm_free(P);
}

TEST(Perm, ConsistencyMessages) {
  perm *E = perm_new(0), *P = make_perm({0, 7, 1, 1, -1, 1});
  perm_identity(E);
  testing::internal::CaptureStdout();
  EXPECT_EQ(perm_is_consistent(E), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  testing::internal::CaptureStdout();
  EXPECT_EQ(perm_is_consistent(P), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Permutation contains 2 out-of-range elements (first:  1 -> 7)\n"
            "Permutation contains 2 multiple element pairs (first: 3 -> 1)\n"
            "Permutation is inconsistent!\n");
  perm_free(E);
  perm_free(P);
}

// ------------------------------------------------------ reader, log, misuse

TEST(QuorLog, LevelDecidesWhatReachesTheFile) {
  // A private folder: other tests may write the log of the build folder.
  char dir[] = "/tmp/velmora-log-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  char *old = getcwd(nullptr, 0);
  ASSERT_EQ(chdir(dir), 0);
  quor_log_startup();
  const int level = quor_log_get_level();
  smat *A = smat_new(2, 2, 0);
  quor_log_set_level(0);
  smat_to_symmetric_structure(A);  // "Cutting off ..." stays out of the file
  quor_log_set_level(1);
  smat_to_symmetric_structure(A);
  quor_log_set_level(level);
  std::stringstream text;
  text << std::ifstream(QUOR_LOG_FILE).rdbuf();
  EXPECT_EQ(text.str(), "[VELMORA/ML]>> Matrix is already symmetric.\n");
  smat_free(A);
  std::remove(QUOR_LOG_FILE);
  EXPECT_EQ(chdir(old), 0);
  rmdir(dir);
  std::free(old);
}

}  // namespace
