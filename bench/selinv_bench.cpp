// selinv_bench.cpp - the diagonal of A^-1 and a Schur complement, velmora
// against sequential MUMPS, on one thread (OpenMP and OpenBLAS); run by
// hand, the table goes to standard output (bench/RESULTS.md keeps it).
//
// Diagonal of A^-1 (Laplacians of the 500^2 and 40^3 grids): velmora
// `mtype` -2 (LDL^T) with its METIS order, phase 12 then phase -22 with
// iparm(36) 1 (the factor kept); MUMPS sym 1 with its own order, job 4,
// then job 3 with ICNTL(30) 1 and the n diagonal entries requested.  Times
// of the inversion alone (phase -22, job 3) and of the whole (analysis,
// factorization and inversion); values compared entry by entry.
//
// Schur complement of the last 1000 unknowns of the 40^3 Laplacian:
// velmora `mtype` 2, phase 12 with iparm(38) 1000 and velmora_add_schur
// into a dense block; MUMPS sym 1, job 4 with ICNTL(19) 1 (the Schur
// complement centralized, by rows).  Times of the whole; values compared.
//
//   selinv_bench [runs] [schur]   median of `runs` (default 3); schur:
//                                 that part alone, with a few entries
#include <dmumps_c.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "test_matrices.h"
#include "velmora.h"

extern "C" void openblas_set_num_threads(int num_threads);

namespace {

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}

struct Timing {
  std::vector<double> part, total;
  std::vector<double> values;  // the last run's diagonal or Schur complement
};

// velmora: analysis and factorization, then the diagonal of A^-1 (phase
// -22 writes the inverse's entries over a; the diagonal leads each row).
Timing velmora_diagonal(const testmat::Csr &m, int runs) {
  Timing t;
  for (int r = 0; r < runs; ++r) {
    void *pt[64] = {};
    int iparm[64] = {}, error = 0, solver = 0, mtype = -2, maxfct = 1, mnum = 1, nrhs = 1;
    int msglvl = 0, phase = 12;
    double dparm[64] = {}, dummy = 0.0;
    velmorainit(pt, &mtype, &solver, iparm, dparm, &error);
    iparm[1] = 3;   // METIS
    iparm[35] = 1;  // the factor kept in memory
    std::vector<double> a = m.a;
    std::vector<int> perm(m.n);
    const double t0 = omp_get_wtime();
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &m.n, a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm, &msglvl, &dummy, &dummy, &error, dparm);
    if (error != 0) std::fprintf(stderr, "velmora phase 12: error %d\n", error);
    const double t1 = omp_get_wtime();
    phase = -22;
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &m.n, a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm, &msglvl, &dummy, &dummy, &error, dparm);
    if (error != 0) std::fprintf(stderr, "velmora phase -22: error %d\n", error);
    const double t2 = omp_get_wtime();
    t.part.push_back(t2 - t1);
    t.total.push_back(t2 - t0);
    t.values.assign(m.n, 0.0);
    for (int i = 0; i < m.n; ++i) t.values[i] = a[m.ia[i] - 1];
    phase = -1;
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &m.n, a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm, &msglvl, &dummy, &dummy, &error, dparm);
  }
  return t;
}

// One MUMPS instance (sym 1) on the upper triangle.
struct Mumps {
  DMUMPS_STRUC_C id;
  std::vector<int> irn, jcn;
  std::vector<double> a;
  explicit Mumps(const testmat::Csr &m) : a(m.a) {
    for (int i = 0; i < m.n; ++i)
      for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
        irn.push_back(i + 1), jcn.push_back(m.ja[k]);
    std::memset(&id, 0, sizeof id);
    id.job = -1;
    id.par = 1;
    id.sym = 1;
    id.comm_fortran = -987654;
    dmumps_c(&id);
    id.icntl[0] = id.icntl[1] = id.icntl[2] = -1;
    id.icntl[3] = 0;
    id.n = m.n;
    id.nnz = static_cast<MUMPS_INT8>(irn.size());
    id.irn = irn.data();
    id.jcn = jcn.data();
    id.a = a.data();
  }
  ~Mumps() {
    id.job = -2;
    dmumps_c(&id);
  }
  Mumps(const Mumps &) = delete;
  Mumps &operator=(const Mumps &) = delete;
  bool run(int job) {
    id.job = job;
    dmumps_c(&id);
    if (id.infog[0] < 0) std::fprintf(stderr, "MUMPS job %d: INFOG(1) %d\n", job, id.infog[0]);
    return id.infog[0] >= 0;
  }
};

Timing mumps_diagonal(const testmat::Csr &m, int runs) {
  Timing t;
  for (int r = 0; r < runs; ++r) {
    Mumps mu(m);
    const double t0 = omp_get_wtime();
    if (!mu.run(4)) break;
    const double t1 = omp_get_wtime();
    std::vector<int> ptr(m.n + 1), rows(m.n);
    std::vector<double> vals(m.n);
    for (int j = 0; j < m.n; ++j) ptr[j] = j + 1, rows[j] = j + 1;
    ptr[m.n] = m.n + 1;
    mu.id.icntl[29] = 1;  // entries of A^-1
    mu.id.nz_rhs = m.n;
    mu.id.nrhs = m.n;
    mu.id.irhs_ptr = ptr.data();
    mu.id.irhs_sparse = rows.data();
    mu.id.rhs_sparse = vals.data();
    if (!mu.run(3)) break;
    const double t2 = omp_get_wtime();
    t.part.push_back(t2 - t1);
    t.total.push_back(t2 - t0);
    t.values = vals;
  }
  return t;
}

// velmora: phase 12 with the Schur block, then the dense complement.
Timing velmora_schur(const testmat::Csr &m, int ns, int runs) {
  Timing t;
  for (int r = 0; r < runs; ++r) {
    void *pt[64] = {};
    int iparm[64] = {}, error = 0, solver = 0, mtype = 2, maxfct = 1, mnum = 1, nrhs = 1;
    int msglvl = 0, phase = 12;
    double dparm[64] = {}, dummy = 0.0;
    velmorainit(pt, &mtype, &solver, iparm, dparm, &error);
    iparm[1] = 3;
    iparm[37] = ns;
    std::vector<int> perm(m.n);
    std::vector<double> dense(static_cast<size_t>(ns) * ns, 0.0);
    const double t0 = omp_get_wtime();
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &m.n, const_cast<double *>(m.a.data()), m.ia.data(),
            m.ja.data(), perm.data(), &nrhs, iparm, &msglvl, &dummy, &dummy, &error, dparm);
    if (error != 0) std::fprintf(stderr, "velmora Schur phase 12: error %d\n", error);
    const int one = 1;
    const double alpha = 0.0, beta = 1.0;
    int err = 0;
    velmora_add_schur(&one, &one, &ns, &ns, &alpha, &beta, dense.data(), &ns, pt, &maxfct, &mnum,
                      &mtype, &err);
    if (err != 0) std::fprintf(stderr, "velmora_add_schur: err %d\n", err);
    t.total.push_back(omp_get_wtime() - t0);
    t.values = dense;  // lower triangle, by columns
    phase = -1;
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &m.n, const_cast<double *>(m.a.data()), m.ia.data(),
            m.ja.data(), perm.data(), &nrhs, iparm, &msglvl, &dummy, &dummy, &error, dparm);
  }
  return t;
}

Timing mumps_schur(const testmat::Csr &m, int ns, int runs) {
  Timing t;
  for (int r = 0; r < runs; ++r) {
    Mumps mu(m);
    std::vector<int> vars(ns);
    for (int i = 0; i < ns; ++i) vars[i] = m.n - ns + 1 + i;
    std::vector<double> schur(static_cast<size_t>(ns) * ns, 0.0);
    mu.id.icntl[18] = 1;  // the Schur complement, centralized by rows
    mu.id.size_schur = ns;
    mu.id.listvar_schur = vars.data();
    mu.id.schur = schur.data();
    const double t0 = omp_get_wtime();
    if (!mu.run(4)) break;
    t.total.push_back(omp_get_wtime() - t0);
    t.values = schur;  // the lower triangle by rows
  }
  return t;
}

double max_relative_difference(const std::vector<double> &x, const std::vector<double> &y) {
  double worst = 0.0;
  for (size_t k = 0; k < x.size() && k < y.size(); ++k)
    worst = std::max(worst, std::fabs(x[k] - y[k]) / std::max(std::fabs(y[k]), 1e-300));
  return x.size() == y.size() ? worst : INFINITY;
}

}  // namespace

int main(int argc, char **argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  omp_set_num_threads(1);
  openblas_set_num_threads(1);
  std::printf(
      "| Matrix | n | velmora inversion s | MUMPS inversion s | ratio | velmora total s "
      "| MUMPS total s | ratio | max rel. diff. |\n|---|---|---|---|---|---|---|---|---|\n");
  struct Grid {
    const char *name;
    int nx, ny, nz;
  };
  const bool schur_only = argc > 2 && std::strcmp(argv[2], "schur") == 0;
  std::vector<Grid> grids;
  if (!schur_only) grids = {{"2D Laplacian 500^2", 500, 500, 1}, {"3D Laplacian 40^3", 40, 40, 40}};
  for (const Grid &g : grids) {
    const testmat::Csr m = testmat::grid_laplacian(g.nx, g.ny, g.nz, true);
    const Timing ours = velmora_diagonal(m, runs), theirs = mumps_diagonal(m, runs);
    const double po = median(ours.part), pm = median(theirs.part);
    const double to = median(ours.total), tm = median(theirs.total);
    std::printf("| %s | %d | %.3f | %.3f | %.2f | %.3f | %.3f | %.2f | %.1e |\n", g.name, m.n, po,
                pm, po / pm, to, tm, to / tm, max_relative_difference(ours.values, theirs.values));
    std::fflush(stdout);
  }
  const testmat::Csr m = testmat::grid_laplacian(40, 40, 40, true);
  const int ns = 1000;
  const Timing ours = velmora_schur(m, ns, runs), theirs = mumps_schur(m, ns, runs);
  // Ours: the lower triangle by columns; MUMPS: the lower triangle by rows.
  double worst = 0.0, big = 0.0;
  for (int j = 0; j < ns && ours.values.size() == theirs.values.size(); ++j)
    for (int i = j; i < ns; ++i) {
      const double o = ours.values[i + static_cast<size_t>(j) * ns];
      const double p = theirs.values[static_cast<size_t>(i) * ns + j];
      worst = std::max(worst, std::fabs(o - p));
      big = std::max(big, std::fabs(p));
    }
  if (schur_only)
    for (int k : {0, 1, 2, 40, 999})
      std::printf("S(%d,0): ours %g, MUMPS row %d col 0 %g, row 0 col %d %g\n", k, ours.values[k],
                  k, theirs.values[static_cast<size_t>(k) * ns], k, theirs.values[k]);
  const double to = median(ours.total), tm = median(theirs.total);
  std::printf(
      "\n| Schur complement | n | size | velmora s | MUMPS s | ratio | max diff / max |S| |\n"
      "|---|---|---|---|---|---|---|\n| 3D Laplacian 40^3, last 1000 | %d | %d | %.3f | "
      "%.3f | %.2f | %.1e |\n",
      m.n, ns, to, tm, to / tm, big > 0 ? worst / big : INFINITY);
  return 0;
}
