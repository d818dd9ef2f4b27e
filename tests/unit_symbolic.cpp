// unit_symbolic.cpp - symbolic factorization (sfinit, REORDER2_VELMORA,
// SCHED_VELMORA, FNPMOD_VELMORA, update buffer size, flop count) checked
// against a brute-force elimination on bit sets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "analysis/symbolic.h"
#include "graphs.h"

namespace {

using std::int64_t;
using std::vector;

// ---------------------------------------------------------------------------
// Graphs: one-based symmetric adjacency without diagonal.

using graphs::Graph;
using graphs::grid2d;
using graphs::grid3d;

Graph random_graph(int n, double p, unsigned seed) {
  return graphs::random_density(n, p, seed);
}
Graph path_graph(int n) {
  return graphs::path(n);
}
// center one-based
Graph star_graph(int n, int center) {
  return graphs::star(n, center - 1);
}
Graph dense_graph(int n) {
  return graphs::dense(n);
}
// Reverse Cuthill-McKee-like band ordering, enough to keep the fill of the
// real matrices moderate.
vector<int> band_order(const Graph &g) {
  vector<int> order;
  vector<char> seen(g.n, 0);
  for (int s = 1; s <= g.n; ++s) {
    if (seen[s - 1]) continue;
    size_t head = order.size();
    order.push_back(s);
    seen[s - 1] = 1;
    while (head < order.size()) {
      const int v = order[head++];
      for (int p = g.xadj[v - 1]; p < g.xadj[v]; ++p) {
        const int w = g.adj[p - 1];
        if (!seen[w - 1]) {
          seen[w - 1] = 1;
          order.push_back(w);
        }
      }
    }
  }
  std::reverse(order.begin(), order.end());
  return order;
}

// ---------------------------------------------------------------------------
// Orderings: perm[k-1] = original index of pivot k.

enum class Order { kNatural, kReverse, kRandom };

vector<int> make_perm(int n, Order o, unsigned seed = 7) {
  vector<int> p(n);
  std::iota(p.begin(), p.end(), 1);
  if (o == Order::kReverse) std::reverse(p.begin(), p.end());
  if (o == Order::kRandom) {
    std::mt19937 rng(seed);
    std::shuffle(p.begin(), p.end(), rng);
  }
  return p;
}

vector<int> inverse(const vector<int> &perm) {
  vector<int> invp(perm.size());
  for (size_t k = 0; k < perm.size(); ++k) invp[perm[k] - 1] = static_cast<int>(k) + 1;
  return invp;
}

// ---------------------------------------------------------------------------
// Brute force: dense boolean elimination on bit sets, columns in positions.

struct BruteL {
  int n = 0;
  int words = 0;
  vector<uint64_t> bits;  // column j (one-based): rows below j, bit i-1 for row i
  vector<int> parent, colcnt;
  int64_t nnz = 0;

  bool has(int j, int i) const {
    return (bits[static_cast<size_t>(j - 1) * words + (i - 1) / 64] >> ((i - 1) % 64)) & 1u;
  }
  vector<int> rows(int j) const {  // rows below j, ascending
    vector<int> r;
    for (int i = j + 1; i <= n; ++i) {
      if (has(j, i)) r.push_back(i);
    }
    return r;
  }
};

BruteL brute_force(const Graph &g, const vector<int> &perm) {
  BruteL b;
  const int n = g.n;
  b.n = n;
  b.words = (n + 63) / 64;
  b.bits.assign(static_cast<size_t>(n) * b.words, 0);
  const vector<int> invp = inverse(perm);
  auto col = [&](int j) { return &b.bits[static_cast<size_t>(j - 1) * b.words]; };
  for (int u = 1; u <= n; ++u) {
    for (int p = g.xadj[u - 1]; p < g.xadj[u]; ++p) {
      const int iu = invp[u - 1];
      const int iv = invp[g.adj[p - 1] - 1];
      if (iv > iu) col(iu)[(iv - 1) / 64] |= uint64_t{1} << ((iv - 1) % 64);
    }
  }
  // Eliminating column j: every row i below j in column j receives the
  // rows of column j below i.
  for (int j = 1; j <= n; ++j) {
    const uint64_t *cj = col(j);
    for (int i = j + 1; i <= n; ++i) {
      if (!((cj[(i - 1) / 64] >> ((i - 1) % 64)) & 1u)) continue;
      uint64_t *ci = col(i);
      const int w0 = (i - 1) / 64;
      const int bit = (i - 1) % 64;
      const uint64_t keep = bit == 63 ? 0 : ~uint64_t{0} << (bit + 1);
      ci[w0] |= cj[w0] & keep;
      for (int w = w0 + 1; w < b.words; ++w) ci[w] |= cj[w];
    }
  }
  b.parent.assign(n, 0);
  b.colcnt.assign(n, 1);
  for (int j = 1; j <= n; ++j) {
    const uint64_t *cj = col(j);
    for (int w = 0; w < b.words; ++w) {
      b.colcnt[j - 1] += __builtin_popcountll(cj[w]);
      if (cj[w] != 0 && b.parent[j - 1] == 0) b.parent[j - 1] = 64 * w + __builtin_ctzll(cj[w]) + 1;
    }
    b.nnz += b.colcnt[j - 1];
  }
  return b;
}

// ---------------------------------------------------------------------------
// Running the two routines with work arrays of exactly the announced size.

vector<int> prefix(const vector<int> &v, int count) {
  return vector<int>(v.begin(), v.begin() + count);
}

vector<int> one_domain(int n) {
  return {1, n - 1, n, n};
}

struct Analysis {
  int n = 0;
  int ndom = 0;
  vector<int> domains, domains_in;
  vector<int> perm, invp;
  vector<int> parent, colcnt, snode, xsuper;
  int64_t nnzl = 0, nsub = 0;
  int nsuper = 0;
  vector<int> sfinit_work;
  int sfinit_status = 0;

  // REORDER2
  vector<int> parent2, sparent, first_child, next_sibling, tasklist, lindx, upd_first, upd_next,
      nmod;
  vector<int64_t> xlindx, xlnz, xunz;
  vm::SymbolicCounts counts{};
  int r2_status = 0;
};

Analysis run_sfinit(const Graph &g, const vector<int> &perm, int width, int nschur = 0,
                    int mode = vm::kSchurPostorder, vector<int> domains = {}, int ndom = 1) {
  Analysis a;
  a.n = g.n;
  a.perm = perm;
  a.invp = inverse(perm);
  a.domains = domains.empty() ? one_domain(g.n) : domains;
  a.domains_in = a.domains;
  a.ndom = ndom;
  a.parent.assign(g.n, -7);
  a.colcnt.assign(g.n, -7);
  a.snode.assign(g.n, -7);
  a.xsuper.assign(g.n + 1, -7);
  a.sfinit_work.assign(static_cast<size_t>(vm::sfinit_work_size(g.n)), -7);
  a.sfinit_status =
      vm::sfinit(g.n, &a.ndom, a.domains.data(), g.xadj.data(), g.adj.data(), a.perm.data(),
                 a.invp.data(), a.parent.data(), a.colcnt.data(), &a.nnzl, &a.nsub, &a.nsuper,
                 a.snode.data(), a.xsuper.data(), a.sfinit_work.data(), width, nschur, mode);
  return a;
}

void run_reorder2(const Graph &g, Analysis *a, int unsym, int64_t lnz_limit = 0,
                  int64_t unz_limit = 0, int indefinite = 0) {
  const int n = g.n, ns = a->nsuper;
  a->parent2.assign(n, -7);
  a->sparent.assign(ns, -7);
  a->first_child.assign(ns, -7);
  a->next_sibling.assign(ns, -7);
  a->tasklist.assign(ns, -7);
  a->upd_first.assign(ns, -7);
  a->upd_next.assign(ns, -7);
  a->nmod.assign(ns, -7);
  a->xlindx.assign(ns + 1, -7);
  a->lindx.assign(static_cast<size_t>(a->nsub), -7);
  a->xlnz.assign(n + 1, -7);
  a->xunz.assign(unsym ? n + 1 : 0, -7);
  vector<int> work(static_cast<size_t>(vm::reorder2_work_size(n, ns)), -7);
  a->r2_status = vm::REORDER2_VELMORA(
      vm::Reorder2Input{n, ns, g.xadj.data(), g.adj.data(), a->perm.data(), a->invp.data(),
                        a->xsuper.data(), a->snode.data(), a->colcnt.data(), a->ndom,
                        a->domains.data(), unsym, indefinite, lnz_limit, unz_limit, a->nsub},
      vm::Reorder2Output{a->parent2.data(), a->sparent.data(), a->first_child.data(),
                         a->next_sibling.data(), a->tasklist.data(), a->xlindx.data(),
                         a->lindx.data(), a->xlnz.data(), unsym ? a->xunz.data() : nullptr,
                         a->upd_first.data(), a->upd_next.data(), a->nmod.data()},
      &a->counts, work.data());
}

// ---------------------------------------------------------------------------
// Checks.

// The task list: every supernode once; the leaves first, negative and
// increasing; every inner supernode positive, after all of its children,
// and in the order in which their last children were listed.
void check_tasklist(int nsuper, const vector<int> &sparent, const vector<int> &tasklist) {
  ASSERT_EQ(static_cast<int>(tasklist.size()), nsuper);
  vector<int> nchild(nsuper, 0);
  for (int k = 1; k <= nsuper; ++k) {
    if (sparent[k - 1] != 0) ++nchild[sparent[k - 1] - 1];
  }
  vector<int> expect;
  for (int k = 1; k <= nsuper; ++k) {
    if (nchild[k - 1] == 0) expect.push_back(-k);
  }
  // Independent formulation: a queue of the supernodes in list order.
  vector<int> left = nchild;
  for (size_t p = 0; p < expect.size(); ++p) {
    const int s = std::abs(expect[p]);
    const int t = sparent[s - 1];
    if (t != 0 && --left[t - 1] == 0) expect.push_back(t);
  }
  EXPECT_EQ(tasklist, expect);
  vector<int> seen(nsuper, 0);
  for (size_t p = 0; p < tasklist.size(); ++p) {
    const int s = std::abs(tasklist[p]);
    ASSERT_GE(s, 1);
    ASSERT_LE(s, nsuper);
    EXPECT_EQ(seen[s - 1], 0);
    seen[s - 1] = 1;
    EXPECT_EQ(tasklist[p] < 0, nchild[s - 1] == 0);
    if (sparent[s - 1] != 0) {
      EXPECT_EQ(seen[sparent[s - 1] - 1], 0) << "parent before child";
    }
  }
}

void check_sfinit(const Graph &g, const Analysis &a, const BruteL &b, int width, int nschur) {
  const int n = g.n;
  ASSERT_EQ(a.sfinit_status, vm::kSymbolicOk);
  EXPECT_EQ(a.parent, b.parent);
  EXPECT_EQ(a.colcnt, b.colcnt);
  EXPECT_EQ(a.nnzl, b.nnz);
  EXPECT_EQ(inverse(a.perm), a.invp);

  // First-son and brother lists left in the work space describe the tree.
  {
    const int64_t nn = n;
    vector<int> parent_from_lists(n, -1);
    for (int p = 1; p <= n; ++p) {
      int last = 0;
      for (int c = a.sfinit_work[p - 1]; c != 0; c = a.sfinit_work[nn + c - 1]) {
        EXPECT_GT(c, last);
        last = c;
        parent_from_lists[c - 1] = p;
      }
    }
    for (int r = a.sfinit_work[4 * nn]; r != 0; r = a.sfinit_work[nn + r - 1]) {
      parent_from_lists[r - 1] = 0;
    }
    EXPECT_EQ(parent_from_lists, a.parent);
    int64_t rows = 0;
    for (int j = 0; j < n; ++j) rows += a.sfinit_work[3 * nn + j];
    EXPECT_EQ(rows + n, b.nnz);
  }

  // Fundamental supernodes split at the width limit and the Schur boundary.
  const int limit = width >= 1 ? width : n;
  const int first_schur = nschur > 0 ? n - nschur + 1 : 0;
  ASSERT_EQ(a.snode[0], 1);
  int w = 1;
  for (int j = 2; j <= n; ++j) {
    const bool join = b.parent[j - 2] == j && b.colcnt[j - 2] == b.colcnt[j - 1] + 1 && w < limit &&
                      j != first_schur;
    EXPECT_EQ(a.snode[j - 1], a.snode[j - 2] + (join ? 0 : 1)) << "column " << j;
    w = join ? w + 1 : 1;
  }
  EXPECT_EQ(a.nsuper, a.snode[n - 1]);
  ASSERT_EQ(a.xsuper[0], 1);
  EXPECT_EQ(a.xsuper[a.nsuper], n + 1);
  int64_t nsub = 0;
  for (int k = 1; k <= a.nsuper; ++k) {
    ASSERT_LT(a.xsuper[k - 1], a.xsuper[k]);
    EXPECT_LE(a.xsuper[k] - a.xsuper[k - 1], limit);
    for (int j = a.xsuper[k - 1]; j < a.xsuper[k]; ++j) EXPECT_EQ(a.snode[j - 1], k);
    nsub += b.colcnt[a.xsuper[k - 1] - 1];
  }
  EXPECT_EQ(a.nsub, nsub);
  if (nschur > 0 && nschur < n) {
    EXPECT_NE(a.snode[n - nschur - 1], a.snode[n - nschur]) << "supernode across n-s";
  }

  // Domains: supernode ranges tiling 1..nsuper.
  int expect = 1;
  for (int d = 0; d <= a.ndom; ++d) {
    EXPECT_EQ(a.domains[2 * d], expect) << "pair " << d;
    EXPECT_GE(a.domains[2 * d + 1], a.domains[2 * d] - 1);
    expect = a.domains[2 * d + 1] + 1;
  }
  EXPECT_EQ(expect, a.nsuper + 1);
}

void check_reorder2(const Graph &g, const Analysis &a, const BruteL &b, int unsym) {
  const int n = g.n, ns = a.nsuper;
  ASSERT_EQ(a.r2_status, vm::kSymbolicOk);
  EXPECT_EQ(a.parent2, b.parent);

  // Row lists: every column j of supernode k has as its structure the rows
  // of k's list from j on.
  ASSERT_EQ(a.xlindx[0], 1);
  EXPECT_EQ(a.xlindx[ns] - 1, a.nsub);
  EXPECT_EQ(a.counts.nsub, a.nsub);
  int64_t nnzl = 0, nnzu = 0;
  int maxw = 0;
  for (int k = 1; k <= ns; ++k) {
    const int f = a.xsuper[k - 1], l = a.xsuper[k] - 1, w = l - f + 1;
    maxw = std::max(maxw, w);
    vector<int> list(a.lindx.begin() + (a.xlindx[k - 1] - 1), a.lindx.begin() + (a.xlindx[k] - 1));
    ASSERT_TRUE(std::is_sorted(list.begin(), list.end()));
    const int len = static_cast<int>(list.size());
    for (int j = f; j <= l; ++j) {
      vector<int> expect{j};
      for (int r : b.rows(j)) expect.push_back(r);
      vector<int> got(list.begin() + (j - f), list.end());
      ASSERT_EQ(got, expect) << "supernode " << k << " column " << j;
      EXPECT_EQ(a.xlnz[j] - a.xlnz[j - 1], len);
      if (unsym) {
        EXPECT_EQ(a.xunz[j] - a.xunz[j - 1], len - w);
      }
    }
    nnzl += static_cast<int64_t>(w) * len;
    nnzu += static_cast<int64_t>(w) * (len - w);
  }
  EXPECT_EQ(a.xlnz[0], 1);
  EXPECT_EQ(a.counts.nnzl, nnzl);
  EXPECT_EQ(a.xlnz[n] - 1, nnzl);
  EXPECT_EQ(a.counts.nnzu, unsym && nnzu > 0 ? nnzu : 1);
  EXPECT_EQ(a.counts.max_width, maxw);

  // Supernodal tree, child lists, roots.
  vector<int> sparent(ns, 0);
  for (int k = 1; k <= ns; ++k) {
    const int p = b.parent[a.xsuper[k] - 2];
    sparent[k - 1] = p == 0 ? 0 : a.snode[p - 1];
    if (sparent[k - 1] != 0) {
      EXPECT_GT(sparent[k - 1], k);
    }
  }
  EXPECT_EQ(a.sparent, sparent);
  vector<int> from_lists(ns, -1);
  for (int p = 1; p <= ns; ++p) {
    int last = 0;
    for (int c = a.first_child[p - 1]; c != 0; c = a.next_sibling[c - 1]) {
      EXPECT_GT(c, last);
      last = c;
      from_lists[c - 1] = p;
    }
  }
  for (int r = a.counts.first_root; r != 0; r = a.next_sibling[r - 1]) from_lists[r - 1] = 0;
  EXPECT_EQ(from_lists, sparent);
  check_tasklist(ns, a.sparent, a.tasklist);

  // Update chains: each supernode with rows below its columns on the
  // chain of its parent, the others on none.
  vector<int> on_chain(ns, 0);
  for (int t = 1; t <= ns; ++t) {
    for (int k = a.upd_first[t - 1]; k != 0; k = a.upd_next[k - 1]) {
      EXPECT_EQ(sparent[k - 1], t);
      ++on_chain[k - 1];
    }
  }
  for (int k = 1; k <= ns; ++k) {
    const bool below = a.xlindx[k] - a.xlindx[k - 1] > a.xsuper[k] - a.xsuper[k - 1];
    EXPECT_EQ(on_chain[k - 1], below ? 1 : 0) << "supernode " << k;
  }

  // nmod, the update buffer and flops, recounted with sets.
  vector<int> nmod(ns, 0);
  int64_t need = 0;
  double flops = 0;
  for (int k = 1; k <= ns; ++k) {
    const int w = a.xsuper[k] - a.xsuper[k - 1];
    const int64_t from = a.xlindx[k - 1] + w, end = a.xlindx[k];
    need = std::max<int64_t>(need, w * (end - from));
    std::set<int> targets;
    for (int64_t p = from; p < end; ++p) {
      const int t = a.snode[a.lindx[p - 1] - 1];
      if (targets.insert(t).second) {
        int64_t c = 0;
        for (int64_t q = p; q < end; ++q) c += a.snode[a.lindx[q - 1] - 1] == t;
        need = std::max<int64_t>(need, c * (end - p + w));
        EXPECT_LE(c * (end - p), a.counts.tmpsiz);
      }
    }
    for (int t : targets) ++nmod[t - 1];
  }
  for (int j = 0; j < n; ++j) {
    flops += unsym ? (b.colcnt[j] - 1.0) * (2.0 * (b.colcnt[j] - 1.0) + 1.0)
                   : static_cast<double>(b.colcnt[j]) * b.colcnt[j];
  }
  EXPECT_EQ(a.nmod, nmod);
  EXPECT_EQ(a.counts.tmpsiz, need > 0 ? need : n);
  EXPECT_DOUBLE_EQ(vm::factor_flops(n, ns, a.xsuper.data(), a.xlindx.data(), unsym), flops);

  // Per-domain peaks.
  int64_t lpeak = 0, upeak = 0;
  for (int d = 0; d < a.ndom; ++d) {
    int64_t lsum = 0, usum = 0;
    for (int k = a.domains[2 * d]; k <= a.domains[2 * d + 1]; ++k) {
      const int64_t w = a.xsuper[k] - a.xsuper[k - 1];
      const int64_t len = a.xlindx[k] - a.xlindx[k - 1];
      lsum += w * len;
      usum += w * (len - w);
    }
    lpeak = std::max(lpeak, lsum);
    upeak = std::max(upeak, usum);
  }
  EXPECT_EQ(a.counts.lnz_peak, lpeak);
  EXPECT_EQ(a.counts.unz_peak, unsym ? upeak : 0);
}

// Full run and all checks for one pattern, order, width and Schur setting.
void check_case(const Graph &g, const vector<int> &perm, int width, int nschur = 0,
                int mode = vm::kSchurPostorder) {
  SCOPED_TRACE("n=" + std::to_string(g.n) + " width=" + std::to_string(width) +
               " nschur=" + std::to_string(nschur) + " mode=" + std::to_string(mode));
  Analysis a = run_sfinit(g, perm, width, nschur, mode);
  const BruteL b = brute_force(g, a.perm);
  check_sfinit(g, a, b, width, nschur);
  if (::testing::Test::HasFatalFailure()) return;
  for (int unsym = 0; unsym <= 1; ++unsym) {
    run_reorder2(g, &a, unsym);
    check_reorder2(g, a, b, unsym);
  }
}

void check_orders(const Graph &g, const vector<int> &widths) {
  for (Order o : {Order::kNatural, Order::kReverse, Order::kRandom}) {
    SCOPED_TRACE("order " + std::to_string(static_cast<int>(o)));
    const vector<int> perm = make_perm(g.n, o);
    for (int w : widths) check_case(g, perm, w);
  }
}

// ---------------------------------------------------------------------------
// Patterns and orderings against the brute force.

TEST(SymbolicBruteForce, GeneratedPatterns) {
  const std::pair<Graph, vector<int>> cases[] = {
      {grid2d(15, 15), {1, 4, 80, 0}},
      {grid3d(6, 6, 6), {1, 3, 64, 0}},
      {random_graph(300, 0.01, 11), {2, 80, 0}},
      {random_graph(120, 0.08, 5), {5, 0}},
      {path_graph(50), {1, 2, 0}},
      {star_graph(40, 1), {3, 0}},  // centre first and last
      {star_graph(40, 40), {3, 0}},
      {dense_graph(60), {7, 128, 0}},
      // disconnected
      {graphs::from_edges(30, {{0, 1}, {1, 2}, {9, 10}, {10, 11}, {11, 9}, {19, 28}, {28, 29}}),
       {2, 0}}};
  for (size_t k = 0; k < sizeof cases / sizeof cases[0]; ++k) {
    SCOPED_TRACE("case " + std::to_string(k));
    check_orders(cases[k].first, cases[k].second);
  }
}

// ---------------------------------------------------------------------------
// Edge cases.

TEST(SymbolicEdge, DenseOrder200Width128) {
  const Graph g = dense_graph(200);
  Analysis a = run_sfinit(g, make_perm(200, Order::kRandom), 128);
  ASSERT_EQ(a.sfinit_status, vm::kSymbolicOk);
  ASSERT_EQ(a.nsuper, 2);
  EXPECT_EQ(prefix(a.xsuper, a.nsuper + 1), (vector<int>{1, 129, 201}));
  EXPECT_EQ(a.nnzl, 200 * 201 / 2);
  run_reorder2(g, &a, 0);
  ASSERT_EQ(a.r2_status, vm::kSymbolicOk);
  EXPECT_EQ(a.counts.nnzl, 128 * 200 + 72 * 72);
  EXPECT_EQ(a.tasklist, (vector<int>{-1, 2}));
  EXPECT_EQ(a.nmod, (vector<int>{0, 1}));
  // The one update: 72 rows below times the 72 rows of the target, plus
  // the scaled copy 72 x 128; the panel term 128 x 72 is smaller.
  EXPECT_EQ(a.counts.tmpsiz, 72 * (72 + 128));
  EXPECT_EQ(vm::factor_flops(200, 2, a.xsuper.data(), a.xlindx.data(), 0),
            200.0 * 201.0 * 401.0 / 6.0);
}

// ---------------------------------------------------------------------------
// Failures of REORDER2.

TEST(SymbolicFailure, LnzLimitGivesMinus20) {
  const Graph g = grid2d(10, 10);
  Analysis a = run_sfinit(g, make_perm(100, Order::kNatural), 16);
  ASSERT_EQ(a.sfinit_status, vm::kSymbolicOk);
  run_reorder2(g, &a, 1);
  ASSERT_EQ(a.r2_status, vm::kSymbolicOk);
  const int64_t nnzl = a.counts.nnzl, nnzu = a.counts.nnzu;
  run_reorder2(g, &a, 1, nnzl, nnzu);
  EXPECT_EQ(a.r2_status, vm::kSymbolicOk);
  run_reorder2(g, &a, 1, nnzl - 1, nnzu);
  EXPECT_EQ(a.r2_status, vm::kSymbolicLimit);
  run_reorder2(g, &a, 1, nnzl, nnzu - 1);
  EXPECT_EQ(a.r2_status, vm::kSymbolicLimit);
  run_reorder2(g, &a, 0, nnzl, 1);  // the U limit is not read when U is not stored
  EXPECT_EQ(a.r2_status, vm::kSymbolicOk);
}

TEST(SymbolicFailure, RowListNotClosingGivesMinus2) {
  const Graph g = grid2d(6, 6);
  {
    Analysis a = run_sfinit(g, make_perm(36, Order::kNatural), 80);
    // Announce one row more than the structure has.
    const int f = a.xsuper[a.nsuper / 2];
    a.colcnt[f - 1] += 1;
    a.nsub += 1;
    run_reorder2(g, &a, 0);
    EXPECT_EQ(a.r2_status, vm::kSymbolicRowList);
  }
  {
    Analysis a = run_sfinit(g, make_perm(36, Order::kNatural), 80);
    // A list shorter than the supernode is wide.
    int k = 1;
    while (a.xsuper[k] - a.xsuper[k - 1] < 2) ++k;
    a.colcnt[a.xsuper[k - 1] - 1] = 1;
    run_reorder2(g, &a, 0);
    EXPECT_EQ(a.r2_status, vm::kSymbolicRowList);
  }
}

// ---------------------------------------------------------------------------
// Schur rows.

// A permutation of the given order with the last s original rows moved to
// the tail in natural order, as the ordering stage delivers it.
vector<int> with_schur_tail(vector<int> perm, int s) {
  const int n = static_cast<int>(perm.size());
  vector<int> out;
  for (int v : perm) {
    if (v <= n - s) out.push_back(v);
  }
  for (int i = n - s + 1; i <= n; ++i) out.push_back(i);
  return out;
}

void check_schur(const Graph &g, const vector<int> &perm_in, int s, int mode, int width) {
  SCOPED_TRACE("schur s=" + std::to_string(s) + " mode=" + std::to_string(mode));
  const int n = g.n;
  Analysis a = run_sfinit(g, perm_in, width, s, mode);
  ASSERT_EQ(a.sfinit_status, vm::kSymbolicOk);
  for (int i = 1; i <= s; ++i) EXPECT_EQ(a.perm[n - s + i - 1], n - s + i);
  const BruteL b = brute_force(g, a.perm);
  check_sfinit(g, a, b, width, s);
  // The reordering is an equivalent one: the fill of the order with the
  // Schur tail is unchanged, and each domain keeps its columns.
  const vector<int> tail_order = with_schur_tail(perm_in, s);
  EXPECT_EQ(a.nnzl, brute_force(g, tail_order).nnz);
  if (tail_order == perm_in) {
    for (int d = 0; d <= a.ndom; ++d) {
      const int lo = a.domains_in[2 * d], hi = a.domains_in[2 * d + 1];
      std::multiset<int> before(perm_in.begin() + (lo - 1), perm_in.begin() + hi);
      std::multiset<int> after(a.perm.begin() + (lo - 1), a.perm.begin() + hi);
      EXPECT_EQ(before, after);
    }
  }
  for (int unsym = 0; unsym <= 1; ++unsym) {
    run_reorder2(g, &a, unsym);
    check_reorder2(g, a, b, unsym);
  }
}

TEST(SymbolicSchur, TailMovedFromCallersOrder) {
  const Graph g = random_graph(150, 0.03, 3);
  for (int mode : {0, 1, 2}) {
    Analysis a = run_sfinit(g, make_perm(g.n, Order::kRandom), 80, 10, mode);
    ASSERT_EQ(a.sfinit_status, vm::kSymbolicOk);
    EXPECT_EQ(a.ndom, 1);
    check_schur(g, make_perm(g.n, Order::kRandom), 10, mode, 80);
  }
}

TEST(SymbolicSchur, NestedDissectionDomainsKeepTheirColumns) {
  // One level of dissection of a 9 x 7 grid whose last grid row is the
  // Schur block: it is taken out of every domain and closes the order.
  const int nx = 9, ny = 7, mid = 4, n = nx * ny, s = nx;
  const Graph g = grid2d(nx, ny);
  vector<int> left, right, sep;
  for (int y = 0; y < ny - 1; ++y) {
    for (int x = 0; x < nx; ++x) {
      const int id = 1 + x + nx * y;
      (x < mid ? left : x > mid ? right : sep).push_back(id);
    }
  }
  std::reverse(left.begin(), left.end());  // not a postorder of the grid
  vector<int> perm = left;
  perm.insert(perm.end(), right.begin(), right.end());
  perm.insert(perm.end(), sep.begin(), sep.end());
  for (int i = n - s + 1; i <= n; ++i) perm.push_back(i);
  const int l = static_cast<int>(left.size()), r = static_cast<int>(right.size());
  const vector<int> cols{1, l, l + 1, l + r, l + r + 1, n};
  for (int mode : {0, 1, 2}) {
    SCOPED_TRACE("mode " + std::to_string(mode));
    Analysis a = run_sfinit(g, perm, 80, s, mode, cols, 2);
    ASSERT_EQ(a.sfinit_status, vm::kSymbolicOk);
    EXPECT_EQ(a.ndom, 2);
    for (int d = 0; d < 3; ++d) {
      std::multiset<int> before(perm.begin() + (cols[2 * d] - 1), perm.begin() + cols[2 * d + 1]);
      std::multiset<int> after(a.perm.begin() + (cols[2 * d] - 1),
                               a.perm.begin() + cols[2 * d + 1]);
      EXPECT_EQ(before, after) << "range " << d;
    }
    if (mode == 0) {
      EXPECT_EQ(a.perm, perm);
    }
    const BruteL b = brute_force(g, a.perm);
    EXPECT_EQ(a.nnzl, brute_force(g, perm).nnz);
    check_sfinit(g, a, b, 80, s);
    for (int unsym = 0; unsym <= 1; ++unsym) {
      run_reorder2(g, &a, unsym);
      check_reorder2(g, a, b, unsym);
    }
  }
}

// ---------------------------------------------------------------------------
// Real matrices.

class SymbolicRealMatrix : public ::testing::TestWithParam<const char *> {};

TEST_P(SymbolicRealMatrix, MatchesBruteForce) {
  const Graph g = graphs::from_file(GetParam());
  if (g.n == 0) GTEST_SKIP() << "no matrix " << GetParam();
  const vector<int> band = band_order(g);
  check_case(g, band, 80);
  check_case(g, band, 128, 0);
  check_case(g, make_perm(g.n, Order::kNatural), 64);
  check_case(g, make_perm(g.n, Order::kReverse), 80);
  check_case(g, make_perm(g.n, Order::kRandom), 80);
  check_schur(g, with_schur_tail(band, 12), 12, 1, 80);
}

INSTANTIATE_TEST_SUITE_P(Matrices, SymbolicRealMatrix,
                         ::testing::Values("bcsstk13.mtx", "494_bus.mtx", "dwt_992.mtx"));

}  // namespace
