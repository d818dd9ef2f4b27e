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
#include "graphs.h"

namespace {

using graphs::fill_count;
using graphs::Graph;

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
    const Graph g = graphs::random_edges(n, m, static_cast<unsigned>(std::atoi(argv[4])));
    std::printf("random pattern: n %d, %zu adjacency entries\n", g.n, g.adj.size());
    bench(g);
    return 0;
  }
  std::vector<int> sizes;
  for (int a = 1; a < argc; ++a) sizes.push_back(std::atoi(argv[a]));
  if (sizes.empty()) sizes.push_back(40);
  for (int k : sizes) {
    const Graph g = graphs::grid3d(k, k, k);
    std::printf("3D 7-point grid %d^3: n %d, %zu adjacency entries\n", k, g.n, g.adj.size());
    bench(g);
  }
  return 0;
}
