// Analysis through the main call (phase 11), checked on what it leaves in
// the handle: the ordering, the domains, the supernodes and the figures in
// iparm.
#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <vector>

#include "interface/control.h"
#include "matrix_folder.h"
#include "test_matrices.h"
#include "velmora.h"

namespace {

struct Analysis {
  testmat::Csr m;
  int mtype, n;
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  std::vector<int> perm;
  int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, error = 0;

  Analysis(testmat::Csr matrix, int type) : m(std::move(matrix)), mtype(type), n(m.n), perm(m.n) {
    int solver = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    iparm[2] = 1;
  }
  ~Analysis() { call(-1); }
  int call(int phase) {
    double dummy = 0;
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, &dummy, &dummy, &error, dparm.data());
    return error;
  }
  const vm::ControlBlock &cb() const { return *vm::control_of(const_cast<void **>(pt.data())); }
  template <class T>
  std::vector<T> array(int k, std::int64_t count) const {
    const T *p = vm::carved<T>(const_cast<void **>(pt.data()), &cb(), vm::kPtSymbolic, k);
    return std::vector<T>(p, p + count);
  }
};

bool is_permutation(const std::vector<int> &p) {
  std::vector<int> sorted(p);
  std::sort(sorted.begin(), sorted.end());
  for (size_t k = 0; k < sorted.size(); ++k)
    if (sorted[k] != static_cast<int>(k) + 1) return false;
  return true;
}

// nnz(L) of the symmetrised pattern under perm, diagonal included, by the
// elimination tree and row subtrees, written independently here.
std::int64_t fill_of(const testmat::Csr &m, const std::vector<int> &perm) {
  const int n = m.n;
  std::vector<int> invp(n);
  for (int k = 0; k < n; ++k) invp[perm[k] - 1] = k;
  std::vector<std::vector<int>> lower(n);  // neighbours at smaller position
  for (int i = 0; i < n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
      const int a = invp[i], b = invp[m.ja[k] - 1];
      if (a > b) lower[a].push_back(b);
      if (b > a) lower[b].push_back(a);
    }
  std::vector<int> parent(n, -1), anc(n, -1), mark(n, -1);
  std::int64_t count = n;
  for (int j = 0; j < n; ++j)
    for (int i : lower[j])
      for (int r = i; r != -1 && r < j;) {  // tree with path compression
        const int next = anc[r];
        anc[r] = j;
        if (next == -1) parent[r] = j;
        r = next == j ? -1 : next;
      }
  for (int j = 0; j < n; ++j)
    for (int i : lower[j])
      for (int r = i; r != -1 && r < j && mark[r] != j; r = parent[r]) {
        mark[r] = j;
        ++count;
      }
  return count;
}

TEST(Analysis, EveryOrderingGivesAPermutationAndTheFactorItImplies) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  const std::vector<std::pair<std::string, testmat::Csr>> cases = {
      {"3D grid 8^3", testmat::grid_laplacian(8, 8, 8, true)},
      {"2D grid 30^2", testmat::grid_laplacian(30, 30, 1, true)},
      {"bcsstk13", testmat::from_file("bcsstk13.mtx", true)},
      {"dwt_992", testmat::from_file("dwt_992.mtx", true)}};
  for (const auto &c : cases) {
    const std::string &name = c.first;
    const testmat::Csr &m = c.second;  // a lambda below captures it: no structured binding
    ASSERT_GT(m.n, 0) << name;
    const std::vector<int> natural = [&] {
      std::vector<int> p(m.n);
      std::iota(p.begin(), p.end(), 1);
      return p;
    }();
    const std::int64_t natural_fill = fill_of(m, natural);
    for (int ordering : {0, 1, 2, 3, 4}) {
      SCOPED_TRACE(name + " ordering " + std::to_string(ordering));
      Analysis an(m, 2);
      an.iparm[1] = ordering;
      an.iparm[4] = -1;  // return the ordering
      ASSERT_EQ(an.call(11), 0);
      const auto &s = an.cb().s;
      const auto perm = an.array<int>(vm::kSymPerm, m.n);
      const auto invp = an.array<int>(vm::kSymInvp, m.n);
      ASSERT_TRUE(is_permutation(perm));
      for (int k = 0; k < m.n; ++k) ASSERT_EQ(invp[perm[k] - 1], k + 1);
      EXPECT_EQ(an.perm, perm);
      // Column counts add up to the fill the ordering implies.
      const auto colcnt = an.array<int>(vm::kSymColcnt, m.n);
      const std::int64_t fill = fill_of(m, perm);
      EXPECT_EQ(std::accumulate(colcnt.begin(), colcnt.end(), std::int64_t{0}), fill);
      EXPECT_LT(fill, natural_fill);
      // Panels hold every column's entries, the diagonal blocks whole.
      EXPECT_GE(s.nnz_l, fill);
      // iparm(18) is the report's L+U; a symmetric matrix counts U as 1.
      EXPECT_EQ(s.nnz_u, 1);
      EXPECT_EQ(an.iparm[17], s.nnz_l + 1);
      EXPECT_GT(an.iparm[14], 0);
      EXPECT_GT(an.iparm[15], 0);
      EXPECT_GT(an.iparm[16], 0);
      EXPECT_GE(an.iparm[18], 0);
    }
  }
}

TEST(Analysis, CallerOrderingIsTakenOrRefused) {
  const testmat::Csr m = testmat::grid_laplacian(6, 6, 1, true);
  std::vector<int> reversed(m.n);
  for (int k = 0; k < m.n; ++k) reversed[k] = m.n - k;
  Analysis an(m, 2);
  an.iparm[1] = 3;
  an.iparm[4] = 1;
  an.perm = reversed;
  ASSERT_EQ(an.call(11), 0);
  EXPECT_EQ(an.array<int>(vm::kSymPerm, m.n), reversed);
  EXPECT_EQ(an.cb().s.ndom, 1);
  an.perm[3] = an.perm[4];  // a repeat: no permutation
  EXPECT_EQ(an.call(11), -3);
}

TEST(Analysis, CorruptPatternsAreRefusedOrSurvived) {
  testmat::Csr m = testmat::grid_laplacian(5, 5, 1, false);
  {
    testmat::Csr bad = m;
    bad.ja[3] = 999;  // a column outside 1..n names no unknown
    Analysis an(bad, 11);
    EXPECT_EQ(an.call(11), -3);
  }
  {
    testmat::Csr bad = m;
    std::swap(bad.ia[3], bad.ia[4]);  // decreasing row pointers
    Analysis an(bad, 11);
    EXPECT_EQ(an.call(11), -3);
  }
}

}  // namespace
