/*
 * test_matrices.h - matrices for tests in the form the library takes:
 * compressed sparse rows, one-based, columns ascending in each row; for
 * symmetric types the upper triangle only.
 */
#ifndef VELMORA_TESTS_TEST_MATRICES_H
#define VELMORA_TESTS_TEST_MATRICES_H

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "mm_read.h"

namespace testmat {

struct Csr {
  int n = 0;
  std::vector<int> ia{1}, ja;  // one-based
  std::vector<double> a;       // values (pairs when complex)
  int nnz() const { return ia[n] - 1; }
};

// Builds a CSR matrix from zero-based (row, col, value) entries; with
// upper_only the entries below the diagonal are mirrored above it.
inline Csr from_entries(int n, std::vector<std::pair<std::pair<int, int>, double>> e,
                        bool upper_only) {
  if (upper_only)
    for (auto &x : e)
      if (x.first.first > x.first.second) std::swap(x.first.first, x.first.second);
  std::sort(e.begin(), e.end());
  Csr m;
  m.n = n;
  m.ia.assign(n + 1, 0);
  for (size_t k = 0; k < e.size(); ++k) {
    if (k > 0 && e[k].first == e[k - 1].first) {  // repeated entry: add up
      m.a.back() += e[k].second;
      continue;
    }
    ++m.ia[e[k].first.first + 1];
    m.ja.push_back(e[k].first.second + 1);
    m.a.push_back(e[k].second);
  }
  m.ia[0] = 1;
  for (int i = 0; i < n; ++i) m.ia[i + 1] += m.ia[i];
  return m;
}

// The 7-point Laplacian of an nx*ny*nz grid (nz = 1: the 5-point one),
// diagonally dominant, upper triangle or full.
inline Csr grid_laplacian(int nx, int ny, int nz, bool upper_only) {
  const int n = nx * ny * nz;
  std::vector<std::pair<std::pair<int, int>, double>> e;
  auto id = [=](int x, int y, int z) { return x + nx * (y + ny * z); };
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        const int i = id(x, y, z);
        e.push_back({{i, i}, 6.5});
        const int nb[3][3] = {{x + 1, y, z}, {x, y + 1, z}, {x, y, z + 1}};
        for (const auto &q : nb) {
          if (q[0] >= nx || q[1] >= ny || q[2] >= nz) continue;
          const int j = id(q[0], q[1], q[2]);
          e.push_back({{i, j}, -1.0});
          if (!upper_only) e.push_back({{j, i}, -1.0});
        }
      }
  return from_entries(n, e, upper_only);
}

// Convection-diffusion on an nx*ny*nz grid: the 7-point diffusion stencil
// with first-order upwind convection of cell Peclet numbers (beta, beta/2,
// beta/4) along x, y, z: the upwind neighbour takes -1 - b, the downwind -1,
// the diagonal 6 + the sum of the b.  Structurally symmetric, unsymmetric in
// value, every entry stored.
inline Csr convection_diffusion(int nx, int ny, int nz, double beta) {
  const int n = nx * ny * nz;
  const double b[3] = {beta, beta / 2, beta / 4};
  std::vector<std::pair<std::pair<int, int>, double>> e;
  auto id = [=](int x, int y, int z) { return x + nx * (y + ny * z); };
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        const int i = id(x, y, z);
        e.push_back({{i, i}, 6.0 + b[0] + b[1] + b[2]});
        const int nb[3][3] = {{x + 1, y, z}, {x, y + 1, z}, {x, y, z + 1}};
        for (int d = 0; d < 3; ++d) {
          const int *q = nb[d];
          if (q[0] >= nx || q[1] >= ny || q[2] >= nz) continue;
          const int j = id(q[0], q[1], q[2]);
          e.push_back({{i, j}, -1.0});  // i is upwind of j: j takes -1 - b from i
          e.push_back({{j, i}, -1.0 - b[d]});
        }
      }
  return from_entries(n, e, false);
}

// [[H, J^T], [J, 0]], upper triangle: H the 7-point Laplacian of an m^3
// grid (Dirichlet, SPD), J with `nc` rows, row c coupling a node v_c with
// its +x neighbour and, every other row, its +y neighbour.  The v_c are
// distinct and every other node of a row has a larger index, so the columns
// v_c of J form a triangular block with unit diagonal: J has full rank and
// the inertia is (m^3, nc, 0).  The zero block has its diagonal stored.
inline Csr kkt_local(int m, int nc, unsigned seed) {
  const int nh = m * m * m;
  auto id = [=](int x, int y, int z) { return x + m * (y + m * z); };
  std::vector<std::pair<std::pair<int, int>, double>> e;
  std::vector<int> first;
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        const int i = id(x, y, z);
        e.push_back({{i, i}, 6.0});
        if (x + 1 < m) e.push_back({{i, id(x + 1, y, z)}, -1.0});
        if (y + 1 < m) e.push_back({{i, id(x, y + 1, z)}, -1.0});
        if (z + 1 < m) e.push_back({{i, id(x, y, z + 1)}, -1.0});
        if (x + 1 < m && y + 1 < m) first.push_back(i);
      }
  std::shuffle(first.begin(), first.end(), std::mt19937(seed));
  for (int c = 0; c < nc; ++c) {
    const int v = first[c], row = nh + c;
    e.push_back({{v, row}, 1.0});
    e.push_back({{v + 1, row}, -0.5});
    if (c % 2 == 0) e.push_back({{v + m, row}, 0.25});
    e.push_back({{row, row}, 0.0});
  }
  return from_entries(nh + nc, e, true);
}

inline Csr dense(int n, bool upper_only) {
  std::vector<std::pair<std::pair<int, int>, double>> e;
  for (int i = 0; i < n; ++i)
    for (int j = upper_only ? i : 0; j < n; ++j) e.push_back({{i, j}, i == j ? n : 0.5});
  return from_entries(n, e, upper_only);
}

// A matrix file of the team's folder; symmetric files become their upper
// triangle, pattern files get values 1 off the diagonal and a dominant
// diagonal.  Returns an empty matrix (n 0) when the file cannot be read.
inline Csr from_file(const std::string &name, bool upper_only) {
  mm::Triplets t;
  std::string error;
  if (!mm::read(std::string(VELMORA_MATRIX_DIR) + "/" + name, &t, &error)) return Csr{};
  std::vector<std::pair<std::pair<int, int>, double>> e;
  const bool pattern = t.re.empty();
  for (size_t k = 0; k < t.size(); ++k) {
    const double v = pattern ? (t.rows[k] == t.cols[k] ? 100.0 : 1.0) : t.re[k];
    e.push_back({{t.rows[k], t.cols[k]}, v});
    if (!upper_only && t.symmetry != mm::Symmetry::kGeneral && t.rows[k] != t.cols[k])
      e.push_back({{t.cols[k], t.rows[k]}, v});
  }
  return from_entries(t.n, e, upper_only);
}

// n values drawn uniformly from [lo, hi).
inline std::vector<double> random_vector(size_t n, unsigned seed, double lo = -1.0,
                                         double hi = 1.0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(lo, hi);
  std::vector<double> v(n);
  for (double &e : v) e = u(rng);
  return v;
}

// The largest normwise backward error ||b - op(A) x|| / (||op(A)|| ||x|| +
// ||b||), infinity norms, over nrhs columns; op(A) is A^T with trans, and
// with upper the stored triangle stands for the whole symmetric matrix.
inline double backward_error(const Csr &m, const double *x, const double *b, int nrhs = 1,
                             bool upper = false, bool trans = false) {
  const size_t n = static_cast<size_t>(m.n);
  double worst = 0.0;
  for (int c = 0; c < nrhs; ++c) {
    const double *xc = x + c * n, *bc = b + c * n;
    std::vector<double> r(bc, bc + n), rows(n, 0.0);
    auto add = [&](int i, int j, double v) {
      if (trans) std::swap(i, j);
      r[i] -= v * xc[j];
      rows[i] += std::abs(v);
    };
    for (int i = 0; i < m.n; ++i)
      for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
        add(i, m.ja[k] - 1, m.a[k]);
        if (upper && m.ja[k] - 1 != i) add(m.ja[k] - 1, i, m.a[k]);
      }
    double rn = 0, xn = 0, bn = 0, an = 0;
    for (size_t i = 0; i < n; ++i) {
      rn = std::max(rn, std::abs(r[i]));
      xn = std::max(xn, std::abs(xc[i]));
      bn = std::max(bn, std::abs(bc[i]));
      an = std::max(an, rows[i]);
    }
    worst = std::max(worst, rn / (an * xn + bn));
  }
  return worst;
}

}  // namespace testmat

#endif  // VELMORA_TESTS_TEST_MATRICES_H
