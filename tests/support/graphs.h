/*
 * graphs.h - symmetric graphs for the tests of the orderings and of the
 * symbolic factorization: one-based adjacency without diagonal, every row
 * sorted, built from zero-based edge lists.
 */
#ifndef VELMORA_TESTS_GRAPHS_H
#define VELMORA_TESTS_GRAPHS_H

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "mm_read.h"

namespace graphs {

struct Graph {
  int n = 0;
  std::vector<int> xadj{1};
  std::vector<int> adj;
  std::int64_t nadj() const { return static_cast<std::int64_t>(adj.size()); }
};

using Edge = std::pair<int, int>;

// Zero-based edges; repeated edges and loops are dropped.
inline Graph from_edges(int n, const std::vector<Edge> &edges) {
  std::vector<std::vector<int>> rows(n);
  for (const Edge &e : edges) {
    if (e.first == e.second) continue;
    rows[e.first].push_back(e.second);
    rows[e.second].push_back(e.first);
  }
  Graph g;
  g.n = n;
  for (auto &r : rows) {
    std::sort(r.begin(), r.end());
    r.erase(std::unique(r.begin(), r.end()), r.end());
    for (int j : r) g.adj.push_back(j + 1);
    g.xadj.push_back(static_cast<int>(g.adj.size()) + 1);
  }
  return g;
}

inline Graph grid3d(int nx, int ny, int nz) {
  std::vector<Edge> e;
  auto id = [=](int x, int y, int z) { return x + nx * (y + ny * z); };
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        if (x + 1 < nx) e.emplace_back(id(x, y, z), id(x + 1, y, z));
        if (y + 1 < ny) e.emplace_back(id(x, y, z), id(x, y + 1, z));
        if (z + 1 < nz) e.emplace_back(id(x, y, z), id(x, y, z + 1));
      }
  return from_edges(nx * ny * nz, e);
}

inline Graph grid2d(int nx, int ny) {
  return grid3d(nx, ny, 1);
}

// nedges edges drawn at random (loops and repeats dropped).
inline Graph random_edges(int n, int nedges, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> pick(0, n - 1);
  std::vector<Edge> e;
  for (int k = 0; k < nedges; ++k) e.emplace_back(pick(rng), pick(rng));
  return from_edges(n, e);
}

// Every pair joined with probability p; p = 1 gives the complete graph.
inline Graph random_density(int n, double p, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<Edge> e;
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j)
      if (p >= 1.0 || u(rng) < p) e.emplace_back(i, j);
  return from_edges(n, e);
}

inline Graph dense(int n) {
  return random_density(n, 1.0, 0);
}

inline Graph star(int n, int centre) {
  std::vector<Edge> e;
  for (int i = 0; i < n; ++i)
    if (i != centre) e.emplace_back(centre, i);
  return from_edges(n, e);
}

inline Graph path(int n) {
  std::vector<Edge> e;
  for (int i = 0; i + 1 < n; ++i) e.emplace_back(i, i + 1);
  return from_edges(n, e);
}

// nnz(L), diagonal included, of the graph ordered by invp: row k of L is
// the set of nodes met walking up the elimination tree from each earlier
// neighbour of k, and the tree is built during the same sweep.
inline std::int64_t fill_count(const Graph &g, const std::vector<int> &perm,
                               const std::vector<int> &invp) {
  const int n = g.n;
  std::vector<int> parent(n, -1);
  std::vector<int> mark(n, -1);
  std::int64_t count = n;
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

// The pattern of A + A^T without diagonal of a file of the team's folder;
// n 0 when it cannot be read.
inline Graph from_file(const std::string &name) {
  mm::Triplets t;
  std::string error;
  if (!mm::read(std::string(VELMORA_MATRIX_DIR) + "/" + name, &t, &error) || t.m != t.n)
    return Graph{};
  std::vector<Edge> e;
  for (size_t k = 0; k < t.size(); ++k) e.emplace_back(t.rows[k], t.cols[k]);
  return from_edges(t.n, e);
}

}  // namespace graphs

#endif  // VELMORA_TESTS_GRAPHS_H
