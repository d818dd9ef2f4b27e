// analysis_bench - phase 11 against cholmod_analyze on 3D grids: fill of L
// and time, for the METIS and AMD routes.  Run by hand:
//   analysis_bench [runs]
// Prints one line per grid and ordering with the ratios velmora/cholmod.
#include <cholmod.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "interface/control.h"
#include "velmora.h"

namespace {

// Upper triangle by rows (one-based) of an nx^3 grid with the 7-point
// (reach 1, faces only) or 27-point (reach 1, all neighbours) stencil.
struct Grid {
  int n = 0;
  std::vector<int> ia{1}, ja;
  std::vector<double> a;
};

Grid make_grid(int m, bool full_stencil) {
  Grid g;
  g.n = m * m * m;
  auto id = [m](int x, int y, int z) { return x + m * (y + m * z); };
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        const int i = id(x, y, z);
        std::vector<int> cols;
        for (int dz = -1; dz <= 1; ++dz)
          for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
              const int faces = (dx != 0) + (dy != 0) + (dz != 0);
              if (!full_stencil && faces > 1) continue;
              const int X = x + dx, Y = y + dy, Z = z + dz;
              if (X < 0 || Y < 0 || Z < 0 || X >= m || Y >= m || Z >= m) continue;
              const int j = id(X, Y, Z);
              if (j >= i) cols.push_back(j);
            }
        std::sort(cols.begin(), cols.end());
        for (int j : cols) {
          g.ja.push_back(j + 1);
          g.a.push_back(j == i ? 30.0 : -1.0);
        }
        g.ia.push_back(static_cast<int>(g.ja.size()) + 1);
      }
  return g;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

struct Result {
  double fill = 0, seconds = 0;
};

Result velmora_analysis(const Grid &g, int ordering, int runs) {
  Result r;
  std::vector<double> times;
  for (int k = 0; k < runs; ++k) {
    std::array<void *, 64> pt{};
    std::array<int, 64> iparm{};
    std::array<double, 64> dparm{};
    int mtype = 2, solver = 0, error = 0, phase = 11, maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0;
    int n = g.n;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    iparm[1] = ordering;
    double dummy = 0;
    const double t0 = omp_get_wtime();
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, const_cast<double *>(g.a.data()),
            g.ia.data(), g.ja.data(), nullptr, &nrhs, iparm.data(), &msglvl, &dummy, &dummy, &error,
            dparm.data());
    times.push_back(omp_get_wtime() - t0);
    if (error != 0) std::printf("velmora phase 11 failed: %d\n", error);
    r.fill = static_cast<double>(vm::control_of(pt.data())->s.fill);
    phase = -1;
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr,
            &nrhs, iparm.data(), &msglvl, nullptr, nullptr, &error, dparm.data());
  }
  r.seconds = median(times);
  return r;
}

Result cholmod_analysis(const Grid &g, int ordering, int runs) {
  cholmod_common c;
  cholmod_start(&c);
  c.nmethods = 1;
  c.method[0].ordering = ordering;
  c.postorder = 1;
  c.supernodal = CHOLMOD_SUPERNODAL;
  // Rows of the upper triangle are the columns of the lower one.
  const size_t nnz = g.ja.size();
  cholmod_sparse *A = cholmod_allocate_sparse(g.n, g.n, nnz, 1, 1, -1, CHOLMOD_PATTERN, &c);
  int *p = static_cast<int *>(A->p), *ii = static_cast<int *>(A->i);
  for (int j = 0; j <= g.n; ++j) p[j] = g.ia[j] - 1;
  for (size_t k = 0; k < nnz; ++k) ii[k] = g.ja[k] - 1;
  Result r;
  std::vector<double> times;
  for (int k = 0; k < runs; ++k) {
    const double t0 = omp_get_wtime();
    cholmod_factor *L = cholmod_analyze(A, &c);
    times.push_back(omp_get_wtime() - t0);
    r.fill = c.lnz;
    cholmod_free_factor(&L, &c);
  }
  r.seconds = median(times);
  cholmod_free_sparse(&A, &c);
  cholmod_finish(&c);
  return r;
}

}  // namespace

int main(int argc, char **argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  struct Case {
    const char *name;
    int m;
    bool full;
  };
  const Case cases[] = {
      {"7-point 50^3", 50, false}, {"27-point 30^3", 30, true}, {"7-point 60^3", 60, false}};
  std::printf("%-14s %-6s %14s %14s %7s %9s %9s %7s\n", "grid", "order", "nnz(L) ours",
              "nnz(L) cholmod", "ratio", "ours s", "cholmod s", "ratio");
  for (const Case &cs : cases) {
    const Grid g = make_grid(cs.m, cs.full);
    const struct {
      const char *name;
      int ours, theirs;
    } routes[] = {{"METIS", 3, CHOLMOD_METIS}, {"AMD", 4, CHOLMOD_AMD}};
    for (const auto &route : routes) {
      const Result ours = velmora_analysis(g, route.ours, runs);
      const Result theirs = cholmod_analysis(g, route.theirs, runs);
      std::printf("%-14s %-6s %14.0f %14.0f %7.3f %9.3f %9.3f %7.2f\n", cs.name, route.name,
                  ours.fill, theirs.fill, ours.fill / theirs.fill, ours.seconds, theirs.seconds,
                  ours.seconds / theirs.seconds);
    }
  }
  return 0;
}
