// order_bench.cpp - wall time and nnz(L) of each ordering on 3D grids.
//
//   order_bench [k ...]         7-point grids of k^3 nodes (default 40)
//   order_bench -r n m seed     a random symmetric pattern, n nodes, m edges
//
// Each ordering runs three times; the best time is printed.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "analysis/ordering.h"

namespace {

struct Graph {
  int n = 0;
  std::vector<int> xadj;
  std::vector<int> adj;
};

Graph from_edges(int n, const std::vector<std::pair<int, int>> &edges) {
  std::vector<std::vector<int>> rows(n);
  for (const auto &e : edges) {
    if (e.first == e.second) continue;
    rows[e.first].push_back(e.second);
    rows[e.second].push_back(e.first);
  }
  Graph g;
  g.n = n;
  g.xadj.assign(1, 1);
  for (auto &r : rows) {
    std::sort(r.begin(), r.end());
    r.erase(std::unique(r.begin(), r.end()), r.end());
    for (int j : r) g.adj.push_back(j + 1);
    g.xadj.push_back(static_cast<int>(g.adj.size()) + 1);
  }
  return g;
}

Graph grid3d(int k) {
  std::vector<std::pair<int, int>> e;
  auto id = [k](int x, int y, int z) { return x + k * (y + k * z); };
  for (int z = 0; z < k; ++z) {
    for (int y = 0; y < k; ++y) {
      for (int x = 0; x < k; ++x) {
        if (x + 1 < k) e.emplace_back(id(x, y, z), id(x + 1, y, z));
        if (y + 1 < k) e.emplace_back(id(x, y, z), id(x, y + 1, z));
        if (z + 1 < k) e.emplace_back(id(x, y, z), id(x, y, z + 1));
      }
    }
  }
  return from_edges(k * k * k, e);
}

Graph random_graph(int n, int m, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> pick(0, n - 1);
  std::vector<std::pair<int, int>> e;
  for (int k = 0; k < m; ++k) e.emplace_back(pick(rng), pick(rng));
  return from_edges(n, e);
}

// nnz(L) with diagonal, by row subtrees of the elimination tree.
int64_t fill_count(const Graph &g, const std::vector<int> &perm, const std::vector<int> &invp) {
  const int n = g.n;
  std::vector<int> parent(n, -1);
  std::vector<int> mark(n, -1);
  int64_t count = n;
  for (int k = 0; k < n; ++k) {
    mark[k] = k;
    const int v = perm[k] - 1;
    for (int q = g.xadj[v] - 1; q < g.xadj[v + 1] - 1; ++q) {
      int r = invp[g.adj[q] - 1] - 1;
      if (r >= k) continue;
      while (mark[r] != k) {
        mark[r] = k;
        ++count;
        if (parent[r] == -1) {
          parent[r] = k;
          break;
        }
        r = parent[r];
      }
    }
  }
  return count;
}

using Runner = std::function<int(const Graph &, std::vector<int> &, std::vector<int> &)>;

void measure(const char *name, const Graph &g, const Runner &run) {
  std::vector<int> perm(g.n);
  std::vector<int> invp(g.n);
  double best = 1e30;
  int status = 0;
  for (int rep = 0; rep < 3; ++rep) {
    const auto t0 = std::chrono::steady_clock::now();
    status = run(g, perm, invp);
    const auto t1 = std::chrono::steady_clock::now();
    best = std::min(best, std::chrono::duration<double>(t1 - t0).count());
  }
  if (status != 0) {
    std::printf("  %-22s status %d\n", name, status);
    return;
  }
  std::printf("  %-22s %9.3f s   nnz(L) %12lld\n", name, best,
              static_cast<long long>(fill_count(g, perm, invp)));
}

void bench(const Graph &g) {
  const int64_t nadj = static_cast<int64_t>(g.adj.size());
  measure("MMD", g, [nadj](const Graph &h, std::vector<int> &p, std::vector<int> &q) {
    std::vector<int> w(static_cast<std::size_t>(vm::order_mmd_work_size(h.n, nadj)));
    return vm::ORDER_MMD_VELMORA(h.n, h.xadj.data(), h.adj.data(), p.data(), q.data(), w.data(),
                                 static_cast<int64_t>(w.size()));
  });
  measure("AMD", g, [nadj](const Graph &h, std::vector<int> &p, std::vector<int> &q) {
    std::vector<int> w(static_cast<std::size_t>(vm::order_amd_work_size(h.n, nadj)));
    return vm::ORDER_AMD_VELMORA(h.n, h.xadj.data(), h.adj.data(), p.data(), q.data(), w.data(),
                                 static_cast<int64_t>(w.size()));
  });
  for (int flag = 0; flag <= 1; ++flag) {
    const char *name = flag == 0 ? "CMD (separator natural)" : "CMD (separator MMD)";
    measure(name, g, [nadj, flag](const Graph &h, std::vector<int> &p, std::vector<int> &q) {
      std::vector<int> w(static_cast<std::size_t>(vm::order_cmd_work_size(h.n, nadj)));
      return vm::ORDER_CMD_VELMORA(h.n, h.xadj.data(), h.adj.data(), flag, p.data(), q.data(),
                                   w.data(), static_cast<int64_t>(w.size()));
    });
  }
  for (int target : {1, 2, 4, 8}) {
    const std::string name = "METIS5 target " + std::to_string(target);
    measure(name.c_str(), g, [target](const Graph &h, std::vector<int> &p, std::vector<int> &q) {
      std::vector<int> domains(2 * target);
      int ndom = 0;
      return vm::ORDER_METIS5_VELMORA(h.n, h.xadj.data(), h.adj.data(), nullptr, target, p.data(),
                                      q.data(), domains.data(), &ndom);
    });
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (argc >= 2 && std::string(argv[1]) == "-r") {
    if (argc < 5) {
      std::fprintf(stderr, "usage: %s -r n m seed\n", argv[0]);
      return 2;
    }
    const int n = std::atoi(argv[2]);
    const int m = std::atoi(argv[3]);
    const Graph g = random_graph(n, m, static_cast<unsigned>(std::atoi(argv[4])));
    std::printf("random pattern: n %d, %zu adjacency entries\n", g.n, g.adj.size());
    bench(g);
    return 0;
  }
  std::vector<int> sizes;
  for (int a = 1; a < argc; ++a) sizes.push_back(std::atoi(argv[a]));
  if (sizes.empty()) sizes.push_back(40);
  for (int k : sizes) {
    const Graph g = grid3d(k);
    std::printf("3D 7-point grid %d^3: n %d, %zu adjacency entries\n", k, g.n, g.adj.size());
    bench(g);
  }
  return 0;
}
