// Adjacency of A + A^T and the domain-list helpers of the analysis.
#include <gtest/gtest.h>
#include <omp.h>

#include <random>
#include <set>
#include <vector>

#include "analysis/domains.h"
#include "analysis/ladj_mod.h"

namespace {

struct Pattern {
  int n;
  std::vector<int> ia, ja;  // one-based
};

// Random pattern with diagonal, entries in both triangles, repeats and,
// when asked, columns outside 1..n.
Pattern random_pattern(int n, int per_row, unsigned seed, bool corrupt) {
  std::mt19937 rng(seed);
  Pattern p{n, {1}, {}};
  for (int i = 1; i <= n; ++i) {
    p.ja.push_back(i);
    for (int k = 0; k < per_row; ++k) p.ja.push_back(1 + static_cast<int>(rng() % n));
    if (corrupt && i % 7 == 0) p.ja.push_back(i % 2 ? 0 : n + 5);
    p.ia.push_back(static_cast<int>(p.ja.size()) + 1);
  }
  return p;
}

std::vector<std::set<int>> brute_graph(const Pattern &p, const std::vector<int> &rowmap) {
  std::vector<std::set<int>> g(p.n);
  for (int r = 0; r < p.n; ++r) {
    const int s = rowmap.empty() ? r : rowmap[r] - 1;
    for (int k = p.ia[s] - 1; k < p.ia[s + 1] - 1; ++k) {
      const int c = p.ja[k];
      if (c < 1 || c > p.n || c == r + 1) continue;
      g[r].insert(c);
      g[c - 1].insert(r + 1);
    }
  }
  return g;
}

TEST(Adjacency, EqualsSymmetrisedPatternForEveryThreadCount) {
  for (bool corrupt : {false, true}) {
    const Pattern p = random_pattern(300, 4, 7, corrupt);
    std::vector<int> rowmap(p.n);
    for (int i = 0; i < p.n; ++i) rowmap[i] = p.n - i;  // reversed rows
    for (const auto &map : {std::vector<int>{}, rowmap}) {
      const auto want = brute_graph(p, map);
      for (int threads : {1, 2, 4}) {
        omp_set_num_threads(threads);
        std::vector<int> xadj(p.n + 1), adjncy(vm::ladj_mod_capacity(p.n, p.ia.data()));
        std::vector<int> work(vm::ladj_mod_work_size(p.n));
        const auto nadj =
            vm::LADJ_MOD_VELMORA(p.n, p.ia.data(), p.ja.data(), map.empty() ? nullptr : map.data(),
                                 threads, xadj.data(), adjncy.data(), work.data());
        ASSERT_EQ(nadj, xadj[p.n] - 1);
        for (int r = 0; r < p.n; ++r) {
          std::vector<int> row(adjncy.begin() + xadj[r] - 1, adjncy.begin() + xadj[r + 1] - 1);
          ASSERT_EQ(row, std::vector<int>(want[r].begin(), want[r].end()))
              << "row " << r + 1 << " threads " << threads;
        }
      }
    }
  }
  omp_set_num_threads(2);
}

TEST(Domains, TargetIsPowerOfTwoCappedByOrder) {
  EXPECT_EQ(vm::domain_target(100, 1, 1), 1);
  EXPECT_EQ(vm::domain_target(100, 3, 1), 4);
  EXPECT_EQ(vm::domain_target(100, 4, 2), 8);
  EXPECT_EQ(vm::domain_target(3, 8, 1), 3);
  EXPECT_EQ(vm::domain_target(1, 0, 0), 1);
}

TEST(Domains, RegroupMovesSeparatorsLastKeepingOrder) {
  // positions: [1 2] sep 3 [4 5] sep 6 7 ; perm holds original nodes
  std::vector<int> perm{10, 20, 30, 40, 50, 60, 70};
  for (int &v : perm) v /= 10;
  std::vector<int> dom{1, 2, 4, 5, -1, -1, -1, -1}, work(14);
  int ndom = 2;
  EXPECT_EQ(vm::regroup_domains(7, perm.data(), dom.data(), &ndom, 0, work.data()), 0);
  EXPECT_EQ(perm, (std::vector<int>{1, 2, 4, 5, 3, 6, 7}));
  EXPECT_EQ(ndom, 2);
  EXPECT_EQ(vm::close_domain_list(7, dom.data(), ndom), 2);
  EXPECT_EQ(std::vector<int>(dom.begin(), dom.begin() + 6), (std::vector<int>{1, 2, 3, 4, 5, 7}));
}

TEST(Domains, SchurRowsGoLastAndEmptiedDomainsFallBack) {
  std::vector<int> perm{3, 1, 2, 4, 7, 6, 8, 5}, dom{1, 3, 4, 6, -1, -1, -1, -1}, work(16);
  int ndom = 2;
  EXPECT_EQ(vm::regroup_domains(8, perm.data(), dom.data(), &ndom, 2, work.data()), 0);
  EXPECT_EQ(perm, (std::vector<int>{3, 1, 2, 4, 6, 5, 7, 8}));
  EXPECT_EQ(ndom, 2);
  EXPECT_EQ(std::vector<int>(dom.begin(), dom.begin() + 4), (std::vector<int>{1, 3, 4, 5}));
  // With n-1 Schur rows every domain keeps at most one node.
  std::vector<int> p2{1, 2, 3, 4, 5, 6}, d2{1, 3, 4, 6, -1, -1, -1, -1};
  ndom = 2;
  EXPECT_EQ(vm::regroup_domains(6, p2.data(), d2.data(), &ndom, 5, work.data()), 1);
  EXPECT_EQ(p2, (std::vector<int>{1, 2, 3, 4, 5, 6}));
}

TEST(Domains, ClosingOfTheList) {
  std::vector<int> one{1, 1, -1, -1};
  EXPECT_EQ(vm::close_domain_list(1, one.data(), 1), 1);
  EXPECT_EQ(one, (std::vector<int>{1, 0, 1, 1}));
  std::vector<int> two{1, 4, 5, 9, -1, -1};
  EXPECT_EQ(vm::close_domain_list(9, two.data(), 2), 2);
  EXPECT_EQ(two, (std::vector<int>{1, 4, 5, 8, 9, 9}));
}

TEST(Domains, MarkedRowsFinishLast) {
  std::vector<int> perm{4, 2, 1, 3}, mask{1, 0, 0, 1}, work(5);
  EXPECT_EQ(vm::move_marked_rows_last(4, perm.data(), mask.data(), work.data()), 2);
  EXPECT_EQ(perm, (std::vector<int>{2, 3, 4, 1}));
  std::vector<int> p2{5, 1, 4, 2, 3};
  vm::move_schur_rows_last(5, p2.data(), 2, work.data());
  EXPECT_EQ(p2, (std::vector<int>{1, 2, 3, 4, 5}));
}

}  // namespace
