// solver_bench - the same symmetric positive definite matrices through
// velmora, CHOLMOD and sequential MUMPS, with one METIS ordering handed to
// all three as a given permutation, on the threads the environment allows
// (run with OMP_NUM_THREADS=1 for one thread).  Prints per matrix and
// library the analysis, factorization and solve times (medians), the
// factorization's GFLOP/s, and the ratios ours/peer; first the dgemm rate
// of the machine.
//
//   solver_bench [runs] [--quick]
#include <cholmod.h>
#include <dmumps_c.h>
#include <metis.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "velmora.h"

extern "C" void dgemm_(const char *, const char *, const int *, const int *, const int *,
                       const double *, const double *, const int *, const double *, const int *,
                       const double *, double *, const int *);

namespace {

// Upper triangle by rows, one-based.
struct Matrix {
  std::string name;
  int n = 0;
  std::vector<int> ia{1}, ja;
  std::vector<double> a;
};

// Grid of nx*ny*nz with reach-1 neighbours: faces only (7/5-point) or all
// (27-point); diagonally dominant.
Matrix grid(const std::string &name, int nx, int ny, int nz, bool all_neighbours) {
  Matrix m;
  m.name = name;
  m.n = nx * ny * nz;
  auto id = [=](int x, int y, int z) { return x + nx * (y + ny * z); };
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        const int i = id(x, y, z);
        std::vector<int> cols;
        for (int dz = -1; dz <= 1; ++dz)
          for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
              if (!all_neighbours && std::abs(dx) + std::abs(dy) + std::abs(dz) > 1) continue;
              const int X = x + dx, Y = y + dy, Z = z + dz;
              if (X < 0 || Y < 0 || Z < 0 || X >= nx || Y >= ny || Z >= nz) continue;
              if (id(X, Y, Z) >= i) cols.push_back(id(X, Y, Z));
            }
        std::sort(cols.begin(), cols.end());
        for (int j : cols) {
          m.ja.push_back(j + 1);
          m.a.push_back(j == i ? 27.0 : -1.0);
        }
        m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
      }
  return m;
}

// METIS nested dissection of A + A^T: perm(k) = original index (one-based)
// of pivot k.
std::vector<int> metis_order(const Matrix &m) {
  std::vector<std::vector<int>> adj(m.n);
  for (int i = 0; i < m.n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
      const int j = m.ja[k] - 1;
      if (j == i) continue;
      adj[i].push_back(j);
      adj[j].push_back(i);
    }
  std::vector<idx_t> xadj(m.n + 1, 0), adjncy;
  for (int i = 0; i < m.n; ++i) {
    adjncy.insert(adjncy.end(), adj[i].begin(), adj[i].end());
    xadj[i + 1] = static_cast<idx_t>(adjncy.size());
  }
  idx_t n = m.n;
  std::vector<idx_t> perm(m.n), iperm(m.n);
  idx_t options[METIS_NOPTIONS];
  METIS_SetDefaultOptions(options);
  METIS_NodeND(&n, xadj.data(), adjncy.data(), nullptr, options, perm.data(), iperm.data());
  std::vector<int> p(m.n);
  for (int k = 0; k < m.n; ++k) p[k] = perm[k] + 1;
  return p;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

struct Times {
  double analyse = 0, factor = 0, solve = 0, residual = 0;
};

double residual(const Matrix &m, const std::vector<double> &x, const std::vector<double> &b) {
  std::vector<double> r = b;
  for (int i = 0; i < m.n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
      const int j = m.ja[k] - 1;
      r[i] -= m.a[k] * x[j];
      if (j != i) r[j] -= m.a[k] * x[i];
    }
  double rn = 0, bn = 0;
  for (int i = 0; i < m.n; ++i)
    rn = std::max(rn, std::abs(r[i])), bn = std::max(bn, std::abs(b[i]));
  return rn / bn;
}

Times run_velmora(const Matrix &m, const std::vector<int> &order, int runs, double *mflop) {
  std::vector<double> ta, tf, ts;
  Times t;
  for (int r = 0; r < runs; ++r) {
    std::array<void *, 64> pt{};
    std::array<int, 64> iparm{};
    std::array<double, 64> dparm{};
    int mtype = 2, solver = 0, error = 0, maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, n = m.n;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    iparm[4] = 1;  // the given ordering
    std::vector<int> perm = order;
    std::vector<double> b(m.n, 1.0), x(m.n);
    auto phase = [&](int ph) {
      const double t0 = omp_get_wtime();
      velmora(pt.data(), &maxfct, &mnum, &mtype, &ph, &n, const_cast<double *>(m.a.data()),
              m.ia.data(), m.ja.data(), perm.data(), &nrhs, iparm.data(), &msglvl, b.data(),
              x.data(), &error, dparm.data());
      if (error != 0) std::printf("velmora phase %d: error %d\n", ph, error);
      return omp_get_wtime() - t0;
    };
    ta.push_back(phase(11));
    tf.push_back(phase(22));
    ts.push_back(phase(33));
    *mflop = iparm[18];
    t.residual = residual(m, x, b);
    phase(-1);
  }
  t.analyse = median(ta);
  t.factor = median(tf);
  t.solve = median(ts);
  return t;
}

Times run_cholmod(const Matrix &m, const std::vector<int> &order, int runs) {
  cholmod_common c;
  cholmod_start(&c);
  c.nmethods = 1;
  c.method[0].ordering = CHOLMOD_GIVEN;
  c.postorder = 1;
  c.supernodal = CHOLMOD_SUPERNODAL;
  c.print = 0;
  // The rows of the upper triangle are the columns of the lower one.
  const size_t nnz = m.ja.size();
  cholmod_sparse *A = cholmod_allocate_sparse(m.n, m.n, nnz, 1, 1, -1, CHOLMOD_REAL, &c);
  int *p = static_cast<int *>(A->p), *ii = static_cast<int *>(A->i);
  double *ax = static_cast<double *>(A->x);
  for (int j = 0; j <= m.n; ++j) p[j] = m.ia[j] - 1;
  for (size_t k = 0; k < nnz; ++k) ii[k] = m.ja[k] - 1, ax[k] = m.a[k];
  std::vector<int> perm0(m.n);
  for (int k = 0; k < m.n; ++k) perm0[k] = order[k] - 1;
  cholmod_dense *B = cholmod_ones(m.n, 1, CHOLMOD_REAL, &c);
  std::vector<double> ta, tf, ts;
  Times t;
  for (int r = 0; r < runs; ++r) {
    double t0 = omp_get_wtime();
    cholmod_factor *L = cholmod_analyze_p(A, perm0.data(), nullptr, 0, &c);
    ta.push_back(omp_get_wtime() - t0);
    t0 = omp_get_wtime();
    cholmod_factorize(A, L, &c);
    tf.push_back(omp_get_wtime() - t0);
    t0 = omp_get_wtime();
    cholmod_dense *X = cholmod_solve(CHOLMOD_A, L, B, &c);
    ts.push_back(omp_get_wtime() - t0);
    std::vector<double> x(static_cast<double *>(X->x), static_cast<double *>(X->x) + m.n);
    t.residual = residual(m, x, std::vector<double>(m.n, 1.0));
    cholmod_free_dense(&X, &c);
    cholmod_free_factor(&L, &c);
  }
  cholmod_free_dense(&B, &c);
  cholmod_free_sparse(&A, &c);
  cholmod_finish(&c);
  t.analyse = median(ta);
  t.factor = median(tf);
  t.solve = median(ts);
  return t;
}

Times run_mumps(const Matrix &m, const std::vector<int> &order, int runs) {
  std::vector<int> irn, jcn, perm_in(m.n);
  for (int i = 0; i < m.n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
      irn.push_back(i + 1), jcn.push_back(m.ja[k]);
  for (int k = 0; k < m.n; ++k) perm_in[order[k] - 1] = k + 1;  // position of each variable
  std::vector<double> ta, tf, ts;
  Times t;
  for (int r = 0; r < runs; ++r) {
    DMUMPS_STRUC_C id;
    std::memset(&id, 0, sizeof id);
    id.job = -1;
    id.par = 1;
    id.sym = 1;
    id.comm_fortran = -987654;
    dmumps_c(&id);
    id.icntl[0] = id.icntl[1] = id.icntl[2] = -1;
    id.icntl[3] = 0;
    id.icntl[6] = 1;  // the given ordering
    id.n = m.n;
    id.nnz = static_cast<MUMPS_INT8>(irn.size());
    id.irn = irn.data();
    id.jcn = jcn.data();
    id.a = const_cast<double *>(m.a.data());
    id.perm_in = perm_in.data();
    std::vector<double> rhs(m.n, 1.0);
    id.rhs = rhs.data();
    auto job = [&](int j) {
      id.job = j;
      const double t0 = omp_get_wtime();
      dmumps_c(&id);
      if (id.infog[0] < 0) std::printf("mumps job %d: %d\n", j, id.infog[0]);
      return omp_get_wtime() - t0;
    };
    ta.push_back(job(1));
    tf.push_back(job(2));
    ts.push_back(job(3));
    t.residual = residual(m, rhs, std::vector<double>(m.n, 1.0));
    id.job = -2;
    dmumps_c(&id);
  }
  t.analyse = median(ta);
  t.factor = median(tf);
  t.solve = median(ts);
  return t;
}

double dgemm_rate() {
  const int n = 2000;
  std::vector<double> a(static_cast<size_t>(n) * n, 0.5), b(a), c(a.size(), 0.0);
  const double one = 1.0;
  std::vector<double> times;
  for (int r = 0; r < 3; ++r) {
    const double t0 = omp_get_wtime();
    dgemm_("N", "N", &n, &n, &n, &one, a.data(), &n, b.data(), &n, &one, c.data(), &n);
    times.push_back(omp_get_wtime() - t0);
  }
  return 2.0 * n * n * static_cast<double>(n) / median(times) / 1e9;
}

}  // namespace

int main(int argc, char **argv) {
  int runs = 3;
  bool quick = false;
  for (int k = 1; k < argc; ++k) {
    if (std::strcmp(argv[k], "--quick") == 0)
      quick = true;
    else
      runs = std::max(1, std::atoi(argv[k]));
  }
  std::printf("threads %d, dgemm %.1f GFLOP/s, medians of %d runs\n", omp_get_max_threads(),
              dgemm_rate(), runs);
  std::vector<std::function<Matrix()>> cases;
  if (quick) {
    cases = {[] { return grid("7-point 30^3", 30, 30, 30, false); },
             [] { return grid("5-point 300^2", 300, 300, 1, false); }};
  } else {
    cases = {[] { return grid("7-point 50^3", 50, 50, 50, false); },
             [] { return grid("7-point 70^3", 70, 70, 70, false); },
             [] { return grid("27-point 40^3", 40, 40, 40, true); },
             [] { return grid("5-point 1000^2", 1000, 1000, 1, false); }};
  }
  std::printf("%-15s %-8s %9s %9s %9s %8s %9s %9s\n", "matrix", "solver", "analyse", "factor",
              "solve", "GFLOP/s", "f ratio", "s ratio");
  for (const auto &make : cases) {
    const Matrix m = make();
    const std::vector<int> order = metis_order(m);
    double mflop = 0;
    const Times ours = run_velmora(m, order, runs, &mflop);
    const Times chol = run_cholmod(m, order, runs);
    const Times mumps = run_mumps(m, order, runs);
    const double gflop = mflop / 1e3;
    auto line = [&](const char *who, const Times &t) {
      std::printf("%-15s %-8s %9.3f %9.3f %9.4f %8.1f %9.2f %9.2f   (residual %.1e)\n",
                  m.name.c_str(), who, t.analyse, t.factor, t.solve, gflop / t.factor,
                  ours.factor / t.factor, ours.solve / t.solve, t.residual);
    };
    line("velmora", ours);
    line("cholmod", chol);
    line("mumps", mumps);
    std::fflush(stdout);
  }
  return 0;
}
