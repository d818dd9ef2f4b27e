// unit_ordering.cpp - the fill-reducing orderings on generated graphs and on
// the shared test matrices.
//
// Every ordering must return inverse permutations.  Quality is judged by
// nnz(L) of the ordered graph, counted here independently of the library:
// the elimination tree and the row subtrees give the count for any size,
// and a brute-force elimination with explicit neighbour sets checks that
// count on small graphs.
#include <gtest/gtest.h>
#include <metis.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "analysis/ladj_mod.h"
#include "analysis/ordering.h"
#include "graphs.h"

namespace {

// ---------------------------------------------------------------- graphs

using graphs::Edge;
using graphs::fill_count;
using graphs::from_edges;
using graphs::Graph;
using graphs::grid2d;
using graphs::grid3d;
using graphs::path;
using graphs::star;

Graph random_graph(int n, int nedges, unsigned seed) {
  return graphs::random_edges(n, nedges, seed);
}

// Isolated nodes scattered among several components: a 6x5 grid, a path
// of 9, a clique of 6 and a star of 8, all interleaved in the numbering.
Graph islands() {
  const int n = 70;
  std::vector<int> slot(n);
  for (int i = 0; i < n; ++i) slot[i] = (i * 37) % n;  // 37 is prime to 70
  int next = 0;
  auto take = [&]() { return slot[next++]; };
  std::vector<Edge> e;
  std::vector<int> g(30);
  for (int &v : g) v = take();
  for (int y = 0; y < 5; ++y) {
    for (int x = 0; x < 6; ++x) {
      if (x + 1 < 6) e.emplace_back(g[x + 6 * y], g[x + 1 + 6 * y]);
      if (y + 1 < 5) e.emplace_back(g[x + 6 * y], g[x + 6 * (y + 1)]);
    }
  }
  int prev = take();
  for (int k = 1; k < 9; ++k) {
    const int v = take();
    e.emplace_back(prev, v);
    prev = v;
  }
  std::vector<int> clique(6);
  for (int &v : clique) v = take();
  for (int a = 0; a < 6; ++a) {
    for (int b = a + 1; b < 6; ++b) e.emplace_back(clique[a], clique[b]);
  }
  const int centre = take();
  for (int k = 0; k < 7; ++k) e.emplace_back(centre, take());
  // the remaining 17 nodes stay isolated
  return from_edges(n, e);
}

// ---------------------------------------------------------------- checks

bool is_inverse_pair(int n, const std::vector<int> &perm, const std::vector<int> &invp) {
  if (static_cast<int>(perm.size()) != n || static_cast<int>(invp.size()) != n) return false;
  std::vector<char> seen(n, 0);
  for (int k = 0; k < n; ++k) {
    const int v = perm[k];
    if (v < 1 || v > n || seen[v - 1]) return false;
    seen[v - 1] = 1;
    if (invp[v - 1] != k + 1) return false;
  }
  return true;
}

// nnz(L) by explicit elimination with neighbour sets (small graphs only).
int64_t fill_by_elimination(const Graph &g, const std::vector<int> &perm) {
  const int n = g.n;
  std::vector<std::set<int>> nb(n);
  for (int v = 0; v < n; ++v) {
    for (int q = g.xadj[v] - 1; q < g.xadj[v + 1] - 1; ++q) nb[v].insert(g.adj[q] - 1);
  }
  std::vector<char> gone(n, 0);
  int64_t count = n;
  for (int k = 0; k < n; ++k) {
    const int v = perm[k] - 1;
    std::vector<int> later;
    for (int u : nb[v]) {
      if (!gone[u]) later.push_back(u);
    }
    count += static_cast<int64_t>(later.size());
    for (int a : later) {
      for (int b : later) {
        if (a != b) nb[a].insert(b);
      }
    }
    gone[v] = 1;
  }
  return count;
}

std::vector<int> identity_order(int n) {
  std::vector<int> p(n);
  for (int i = 0; i < n; ++i) p[i] = i + 1;
  return p;
}

int64_t natural_fill(const Graph &g) {
  const std::vector<int> id = identity_order(g.n);
  return fill_count(g, id, id);
}

// ---------------------------------------------------------------- runners

struct Ordering {
  int status = -100;
  std::vector<int> perm;
  std::vector<int> invp;
  std::vector<int> domains;
  int ndom = 0;
};

enum class Kind { kMmd, kCmd, kAmd };

// MMD, CMD (flag: minimum degree on the separator) or AMD with a work array
// of the announced size plus extra (negative: too short).
Ordering run(Kind kind, const Graph &g, int flag = 0, int64_t extra = 0) {
  Ordering o;
  o.perm.assign(g.n, 0);
  o.invp.assign(g.n, 0);
  const int64_t lw = (kind == Kind::kMmd   ? vm::order_mmd_work_size(g.n, g.nadj())
                      : kind == Kind::kCmd ? vm::order_cmd_work_size(g.n, g.nadj())
                                           : vm::order_amd_work_size(g.n, g.nadj())) +
                     extra;
  std::vector<int> work(static_cast<std::size_t>(std::max<int64_t>(lw, 1)));
  const int *x = g.xadj.data(), *adj = g.adj.data();
  int *perm = o.perm.data(), *invp = o.invp.data();
  if (kind == Kind::kMmd) {
    o.status = vm::ORDER_MMD_VELMORA(g.n, x, adj, perm, invp, work.data(), lw);
  } else if (kind == Kind::kCmd) {
    o.status = vm::ORDER_CMD_VELMORA(g.n, x, adj, flag, perm, invp, work.data(), lw);
  } else {
    o.status = vm::ORDER_AMD_VELMORA(g.n, x, adj, perm, invp, work.data(), lw);
  }
  return o;
}
Ordering run_mmd(const Graph &g) {
  return run(Kind::kMmd, g);
}
Ordering run_cmd(const Graph &g, int flag) {
  return run(Kind::kCmd, g, flag);
}
Ordering run_amd(const Graph &g) {
  return run(Kind::kAmd, g);
}

Ordering run_barred(const Graph &g, const std::vector<int> &barred, int order_barred) {
  Ordering o;
  o.perm.assign(g.n, 0);
  o.invp.assign(g.n, 0);
  const int64_t lw = vm::order_mmd_work_size(g.n, g.nadj());
  std::vector<int> work(static_cast<std::size_t>(lw));
  o.status =
      vm::ORDER_MMD_BARRED_VELMORA(g.n, g.xadj.data(), g.adj.data(), barred.data(), order_barred,
                                   o.perm.data(), o.invp.data(), work.data(), lw);
  return o;
}

Ordering run_metis(const Graph &g, int target, const int *options8 = nullptr) {
  Ordering o;
  o.perm.assign(g.n, 0);
  o.invp.assign(g.n, 0);
  o.domains.assign(2 * target, 12345);
  o.ndom = -7;
  o.status = vm::ORDER_METIS5_VELMORA(g.n, g.xadj.data(), g.adj.data(), options8, target,
                                      o.perm.data(), o.invp.data(), o.domains.data(), &o.ndom);
  return o;
}

const int kDenseOptions[8] = {1, 3, 1, 2, 0, 1, 200, 1};

// Domain ranges: well formed, increasing, disjoint; no edge joins two
// ranges; a node outside every range comes after each range node it
// touches.
void expect_domains(const Graph &g, const Ordering &o, int target) {
  ASSERT_GE(o.ndom, 1);
  ASSERT_LE(o.ndom, target);
  std::vector<int> owner(g.n, -1);  // by zero-based position
  int previous_last = 0;
  for (int d = 0; d < o.ndom; ++d) {
    const int first = o.domains[2 * d];
    const int last = o.domains[2 * d + 1];
    ASSERT_GT(first, previous_last) << "domain " << d;
    ASSERT_GE(last, first) << "domain " << d;
    ASSERT_LE(last, g.n) << "domain " << d;
    for (int k = first; k <= last; ++k) owner[k - 1] = d;
    previous_last = last;
  }
  for (int k = 2 * o.ndom; k < 2 * target; ++k) EXPECT_EQ(o.domains[k], -1) << k;
  for (int v = 0; v < g.n; ++v) {
    const int dv = owner[o.invp[v] - 1];
    for (int q = g.xadj[v] - 1; q < g.xadj[v + 1] - 1; ++q) {
      const int u = g.adj[q] - 1;
      const int du = owner[o.invp[u] - 1];
      if (dv >= 0 && du >= 0) {
        EXPECT_EQ(dv, du) << "edge " << v + 1 << "-" << u + 1 << " joins two domains";
      } else if (dv >= 0 && du < 0) {
        EXPECT_GT(o.invp[u], o.invp[v]) << "separator node " << u + 1 << " before domain node";
      }
    }
  }
}

// The separator METIS computes with default options on g.
std::vector<int> metis_separator(const Graph &g) {
  std::vector<idx_t> x0(g.n + 1);
  std::vector<idx_t> a0(g.adj.size());
  for (int i = 0; i <= g.n; ++i) x0[i] = g.xadj[i] - 1;
  for (std::size_t k = 0; k < g.adj.size(); ++k) a0[k] = g.adj[k] - 1;
  idx_t options[METIS_NOPTIONS];
  METIS_SetDefaultOptions(options);
  options[METIS_OPTION_NUMBERING] = 0;
  idx_t nv = g.n;
  idx_t sepsize = 0;
  std::vector<idx_t> part(g.n);
  EXPECT_EQ(METIS_ComputeVertexSeparator(&nv, x0.data(), a0.data(), nullptr, options, &sepsize,
                                         part.data()),
            METIS_OK);
  std::vector<int> sep;
  for (int i = 0; i < g.n; ++i) {
    if (part[i] == 2) sep.push_back(i);
  }
  return sep;
}

// The named nodes (zero-based) hold the last positions; with ascending set
// they appear in increasing index.
void expect_tail(const Ordering &o, const std::vector<int> &nodes, bool ascending) {
  const int n = static_cast<int>(o.perm.size());
  const int s = static_cast<int>(nodes.size());
  std::vector<int> tail(o.perm.end() - s, o.perm.end());
  std::vector<int> expected;
  for (int v : nodes) expected.push_back(v + 1);
  std::sort(expected.begin(), expected.end());
  if (ascending) {
    EXPECT_EQ(tail, expected);
  } else {
    std::sort(tail.begin(), tail.end());
    EXPECT_EQ(tail, expected);
  }
  EXPECT_LE(s, n);
}

// ---------------------------------------------------------------- the fill counter itself

// ---------------------------------------------------------------- graph check

TEST(GraphCheck, RejectsMalformedAndUnsymmetric) {
  Graph g = grid2d(4, 4);
  std::vector<int> work(static_cast<std::size_t>(vm::order_check_graph_work_size(g.n, g.nadj())));
  EXPECT_EQ(vm::order_check_graph(g.n, g.xadj.data(), g.adj.data(), 1, work.data()), vm::kOrderOk);
  EXPECT_EQ(vm::order_check_graph(-1, g.xadj.data(), g.adj.data(), 0, nullptr),
            vm::kOrderBadArgument);
  EXPECT_EQ(vm::order_check_graph(0, nullptr, nullptr, 1, nullptr), vm::kOrderOk);

  Graph bad = g;
  bad.xadj[0] = 0;
  EXPECT_EQ(vm::order_check_graph(bad.n, bad.xadj.data(), bad.adj.data(), 0, nullptr),
            vm::kOrderBadArgument);
  bad = g;
  std::swap(bad.xadj[3], bad.xadj[4]);
  EXPECT_EQ(vm::order_check_graph(bad.n, bad.xadj.data(), bad.adj.data(), 0, nullptr),
            vm::kOrderBadArgument);
  bad = g;
  bad.adj[5] = g.n + 1;
  EXPECT_EQ(vm::order_check_graph(bad.n, bad.xadj.data(), bad.adj.data(), 0, nullptr),
            vm::kOrderBadArgument);
  bad = g;
  bad.adj[5] = 0;
  EXPECT_EQ(vm::order_check_graph(bad.n, bad.xadj.data(), bad.adj.data(), 0, nullptr),
            vm::kOrderBadArgument);

  // Redirect one entry: row 1 names a node that does not name it back.
  Graph asym = g;
  asym.adj[0] = 16;
  EXPECT_EQ(vm::order_check_graph(asym.n, asym.xadj.data(), asym.adj.data(), 1, work.data()),
            vm::kOrderNotSymmetric);

  // Repetitions and self loops do not break symmetry.
  Graph loops;
  loops.n = 3;
  loops.xadj = {1, 4, 6, 7};
  loops.adj = {1, 2, 2, 1, 1, 3};  // 1: {1,2,2}  2: {1,1}  3: {3}
  std::vector<int> w3(static_cast<std::size_t>(vm::order_check_graph_work_size(3, 6)));
  EXPECT_EQ(vm::order_check_graph(3, loops.xadj.data(), loops.adj.data(), 1, w3.data()),
            vm::kOrderOk);
}

// ---------------------------------------------------------------- adjacency of A + A^T

// The graph of A + A^T, against neighbour sets built here, on a pattern
// with dense rows and columns (their lists take the bitmap sort), entries
// given twice and in both triangles, diagonal entries, and a row map; on
// one thread and on a team.
TEST(Adjacency, SortedUniqueNeighboursOfEveryNode) {
  const int n = 3000;
  std::mt19937 rng(11);
  std::vector<std::vector<int>> rows(n);
  for (int i = 0; i < n; ++i) {
    rows[i].push_back(i + 1);
    for (int k = 0; k < 3; ++k) rows[i].push_back(static_cast<int>(rng() % n) + 1);
    if (i % 700 == 5) rows[i].push_back(rows[i][1]);  // a repeat
  }
  for (int j = 1; j <= n; j += 1 + static_cast<int>(rng() % 3)) rows[17].push_back(j);
  for (int i = 0; i < n; i += 2) rows[i].push_back(2500);  // a dense column
  std::vector<int> ia{1}, ja, rowmap(n);
  for (const auto &r : rows) {
    ja.insert(ja.end(), r.begin(), r.end());
    ia.push_back(static_cast<int>(ja.size()) + 1);
  }
  for (int i = 0; i < n; ++i) rowmap[i] = (i * 7) % n + 1;  // 7 and 3000 are coprime
  const int *no_map = nullptr;
  for (const int *map : {no_map, static_cast<const int *>(rowmap.data())}) {
    std::vector<std::set<int>> want(n);
    for (int r = 0; r < n; ++r) {
      const int s = map ? map[r] - 1 : r;
      for (int k = ia[s] - 1; k < ia[s + 1] - 1; ++k) {
        if (ja[k] == r + 1) continue;
        want[r].insert(ja[k]);
        want[ja[k] - 1].insert(r + 1);
      }
    }
    for (int threads : {1, 2}) {
      SCOPED_TRACE(testing::Message() << "row map " << (map != nullptr) << " threads " << threads);
      std::vector<int> xadj(n + 1), adj(vm::ladj_mod_capacity(n, ia.data()));
      std::vector<int> work(vm::ladj_mod_work_size(n));
      const std::int64_t count = vm::LADJ_MOD_VELMORA(n, ia.data(), ja.data(), map, threads,
                                                      xadj.data(), adj.data(), work.data());
      ASSERT_EQ(count, xadj[n] - 1);
      for (int r = 0; r < n; ++r)
        ASSERT_EQ(std::vector<int>(adj.begin() + xadj[r] - 1, adj.begin() + xadj[r + 1] - 1),
                  std::vector<int>(want[r].begin(), want[r].end()))
            << "node " << r + 1;
    }
  }
}

// ---------------------------------------------------------------- multiple minimum degree

TEST(Mmd, RandomPatternsAgainstExplicitElimination) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    const int n = 40 + 23 * static_cast<int>(seed);
    const Graph g = random_graph(n, n * (1 + static_cast<int>(seed % 4)), seed);
    const Ordering o = run_mmd(g);
    ASSERT_EQ(o.status, vm::kOrderOk) << seed;
    ASSERT_TRUE(is_inverse_pair(g.n, o.perm, o.invp)) << seed;
    const int64_t fill = fill_count(g, o.perm, o.invp);
    EXPECT_EQ(fill, fill_by_elimination(g, o.perm)) << seed;
    const Ordering a = run_amd(g);
    EXPECT_LT(static_cast<double>(fill), 1.5 * static_cast<double>(fill_count(g, a.perm, a.invp)))
        << seed;
  }
}

TEST(Mmd, IslandsSmallAndEmptyGraphs) {
  const Graph g = islands();
  Ordering o = run_mmd(g);
  ASSERT_EQ(o.status, vm::kOrderOk);
  ASSERT_TRUE(is_inverse_pair(g.n, o.perm, o.invp));
  // the only fill can come from the grid; the clique is already full
  const Ordering a = run_amd(g);
  EXPECT_LE(fill_count(g, o.perm, o.invp), fill_count(g, a.perm, a.invp) + 10);

  const Graph one = from_edges(1, {});
  o = run_mmd(one);
  ASSERT_EQ(o.status, vm::kOrderOk);
  EXPECT_EQ(o.perm, std::vector<int>{1});
  EXPECT_EQ(o.invp, std::vector<int>{1});

  const Graph two = from_edges(2, {{0, 1}});
  o = run_mmd(two);
  ASSERT_EQ(o.status, vm::kOrderOk);
  EXPECT_TRUE(is_inverse_pair(2, o.perm, o.invp));

  const Graph edgeless = from_edges(50, {});
  o = run_mmd(edgeless);
  ASSERT_EQ(o.status, vm::kOrderOk);
  EXPECT_TRUE(is_inverse_pair(50, o.perm, o.invp));

  Graph none;
  EXPECT_EQ(vm::ORDER_MMD_VELMORA(0, none.xadj.data(), nullptr, nullptr, nullptr, nullptr, 0),
            vm::kOrderOk);
}

TEST(Mmd, BarredNodesLast) {
  // Bar the middle column of a grid: both halves come first, the column last.
  const int nx = 21;
  const int ny = 15;
  const Graph g = grid2d(nx, ny);
  std::vector<int> barred(g.n, 0);
  std::vector<int> column;
  for (int y = 0; y < ny; ++y) {
    barred[10 + nx * y] = 1;
    column.push_back(10 + nx * y);
  }
  const Ordering natural_tail = run_barred(g, barred, 0);
  ASSERT_EQ(natural_tail.status, vm::kOrderOk);
  ASSERT_TRUE(is_inverse_pair(g.n, natural_tail.perm, natural_tail.invp));
  expect_tail(natural_tail, column, true);

  const Ordering md_tail = run_barred(g, barred, 1);
  ASSERT_EQ(md_tail.status, vm::kOrderOk);
  ASSERT_TRUE(is_inverse_pair(g.n, md_tail.perm, md_tail.invp));
  expect_tail(md_tail, column, false);
  // Minimum degree on the column's elimination graph beats natural order
  // or ties with it; both stay far below the natural order of the grid.
  const int64_t f0 = fill_count(g, natural_tail.perm, natural_tail.invp);
  const int64_t f1 = fill_count(g, md_tail.perm, md_tail.invp);
  EXPECT_LE(f1, f0);
  EXPECT_LT(f0 * 2, natural_fill(g));

  // A scattered barred set, some nodes adjacent to each other.
  std::vector<int> scattered(g.n, 0);
  std::vector<int> chosen;
  for (int v = 0; v < g.n; v += 7) {
    scattered[v] = 1;
    chosen.push_back(v);
  }
  for (int order_barred = 0; order_barred <= 1; ++order_barred) {
    const Ordering o = run_barred(g, scattered, order_barred);
    ASSERT_EQ(o.status, vm::kOrderOk);
    ASSERT_TRUE(is_inverse_pair(g.n, o.perm, o.invp));
    expect_tail(o, chosen, order_barred == 0);
  }

  // Everything barred: natural order, or plain minimum degree.
  std::vector<int> all(g.n, 1);
  const Ordering none_free = run_barred(g, all, 0);
  ASSERT_EQ(none_free.status, vm::kOrderOk);
  EXPECT_EQ(none_free.perm, identity_order(g.n));
  const Ordering md_all = run_barred(g, all, 1);
  ASSERT_EQ(md_all.status, vm::kOrderOk);
  EXPECT_EQ(md_all.perm, run_mmd(g).perm);
}

// ---------------------------------------------------------------- constrained minimum degree

TEST(Cmd, SeparatorLastBothModes) {
  for (const Graph &g : {grid2d(30, 30), grid3d(10, 10, 10), random_graph(800, 2400, 4)}) {
    const std::vector<int> sep = metis_separator(g);
    ASSERT_FALSE(sep.empty());
    const int64_t natural = natural_fill(g);
    int64_t fills[2] = {0, 0};
    for (int flag = 0; flag <= 1; ++flag) {
      const Ordering o = run_cmd(g, flag);
      ASSERT_EQ(o.status, vm::kOrderOk);
      ASSERT_TRUE(is_inverse_pair(g.n, o.perm, o.invp));
      expect_tail(o, sep, flag == 0);
      fills[flag] = fill_count(g, o.perm, o.invp);
    }
    EXPECT_LE(fills[1], fills[0]);
    if (g.n == 900 || g.n == 1000) {
      EXPECT_LT(fills[1] * 2, natural) << g.n;
    }
  }
}

// ---------------------------------------------------------------- METIS 5 nested dissection

TEST(Metis5, DenseNodesOrderedLast) {
  // A grid plus one node joined to every grid node: with the dense options
  // the hub is pruned and ordered last, outside every domain.
  const int nx = 20;
  std::vector<Edge> e;
  const Graph base = grid2d(nx, nx);
  for (int v = 0; v < base.n; ++v) {
    for (int q = base.xadj[v] - 1; q < base.xadj[v + 1] - 1; ++q)
      e.emplace_back(v, base.adj[q] - 1);
    e.emplace_back(v, base.n);
  }
  const Graph g = from_edges(base.n + 1, e);
  int options[8];
  vm::metis_options_for_route2(g.n, g.xadj.data(), options);
  EXPECT_EQ(std::vector<int>(options, options + 8),
            std::vector<int>(kDenseOptions, kDenseOptions + 8));
  for (int target : {1, 4}) {
    const Ordering o = run_metis(g, target, options);
    ASSERT_EQ(o.status, vm::kOrderOk);
    ASSERT_TRUE(is_inverse_pair(g.n, o.perm, o.invp));
    EXPECT_EQ(o.perm[g.n - 1], g.n) << target;
    expect_domains(g, o, target);
  }
}

TEST(Metis5, RouteTwoOptionsThreshold) {
  // n = 80: a row of 10 = n/8 entries selects the dense options, 9 does not.
  for (int width : {9, 10}) {
    std::vector<Edge> e;
    for (int k = 1; k <= width; ++k) e.emplace_back(0, k);
    for (int i = width + 1; i + 1 < 80; ++i) e.emplace_back(i, i + 1);
    const Graph g = from_edges(80, e);
    int options[8];
    vm::metis_options_for_route2(g.n, g.xadj.data(), options);
    const std::vector<int> got(options, options + 8);
    if (width == 10) {
      EXPECT_EQ(got, std::vector<int>(kDenseOptions, kDenseOptions + 8));
    } else {
      EXPECT_EQ(got, std::vector<int>(8, 0));
    }
  }
}

// ---------------------------------------------------------------- AMD

TEST(Orderings, ReportBadInput) {
  const Graph g = grid2d(6, 6);
  Graph asym = g, range = g;
  asym.adj[0] = g.n;  // row 1 names a node that does not name it back
  range.adj[3] = g.n + 5;
  for (Kind kind : {Kind::kMmd, Kind::kCmd, Kind::kAmd}) {
    SCOPED_TRACE("kind " + std::to_string(static_cast<int>(kind)));
    EXPECT_EQ(run(kind, g, 1, -1).status, vm::kOrderShortWork);
    EXPECT_EQ(run(kind, path(4), 1, -1).status, vm::kOrderShortWork);
    if (kind != Kind::kAmd) {  // AMD does not test the symmetry
      EXPECT_EQ(run(kind, asym, 1).status, vm::kOrderNotSymmetric);
    }
    EXPECT_EQ(run(kind, range, 1).status, vm::kOrderBadArgument);
  }
  std::vector<int> perm(g.n), invp(g.n), work(1000);
  EXPECT_EQ(vm::ORDER_MMD_VELMORA(-3, g.xadj.data(), g.adj.data(), perm.data(), invp.data(),
                                  work.data(), 1000),
            vm::kOrderBadArgument);
}

}  // namespace
