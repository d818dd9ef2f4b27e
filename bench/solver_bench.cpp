// solver_bench - velmora against its peers (CHOLMOD, UMFPACK, sequential
// MUMPS, SuperLU) on generated and real matrices, at 1 and 2 threads in the
// same run.
//
//   solver_bench [spd] [elast] [kkt] [lu] [real] [matching] [kkt-large] [spd-large]
//                [optimiser] [arrowhead] [runs]
//                [--quick]
//                [--threads 1,2] [--out DIR] [--commit ID] [--rows FILE]
//
// Without a section word the sections spd, elast, kkt, lu and real run.
// Times are medians of `runs` runs (3 by default), each run a fresh
// analysis, factorization and solve with b all ones.  The solvers of a
// matrix take turns, one run each per round, so that a slow spell of the
// machine falls on all of them.
//
//   spd       2D and 3D Laplacians (5-, 7- and 27-point): velmora (mtype 2),
//             CHOLMOD and MUMPS (sym 1), one METIS ordering given to all.
//   elast     3D elasticity, 3 unknowns per node: the same three solvers.
//   kkt       KKT matrices [[H, J^T], [J, 0]] from a 3D grid: velmora
//             (mtype -2, 2x2 pivoting; the METIS ordering given, then its
//             symmetric matching) and MUMPS (sym 2, LDL^T, the same order).
//   lu        3D convection-diffusion: velmora (mtype 11, default controls,
//             then the METIS ordering given), UMFPACK (its defaults),
//             SuperLU (COLAMD, then the METIS column order) and MUMPS
//             (sym 0, its own ordering).
//   real      the real matrices of the team's folder: positive definite
//             ones as in spd, indefinite ones as in kkt, general ones as in
//             lu.  Complex, degenerate and unreadable files are skipped.
//             Generated ones with the same traits join them: stiffness
//             matrices (elasticity 8^3, 11^3), arrowheads, circuit-like.
//   kkt-large the kkt section on grids of 43^3 and 62^3 (about 100k and 300k
//             unknowns); on request only.
//   spd-large the spd section on the 7-point 70^3 and the 27-point 40^3
//             Laplacians; on request only.
//   optimiser optimal-control KKT matrices under an interior-point optimiser's
//             iparm (one-column supernodes) against the automatic width and
//             MUMPS; console only, one thread, on request.
//   arrowhead analysis of arrowheads with the matching on against UMFPACK and
//             MUMPS; console only, one thread, on request.
//   matching  cost of the maximum-product matching in velmora's analysis
//             (iparm(13) 1 against 0); console only, one thread, on request.
//
// Every solver runs at each thread count of --threads: the OpenMP team and
// the OpenBLAS team are both set to it.  The program records the kernels
// OpenBLAS chose; when they are older than the best the processor supports
// (from the flags of /proc/cpuinfo) it runs itself again as a child with
// OPENBLAS_CORETYPE set to the best one, and reports both runs.
//
// With --out DIR it writes DIR/RESULTS.md (date, machine, dgemm rate,
// summary of the ratios, the table) and DIR/factor_time.dat (factorization
// time against n, one block per solver and thread count, for gnuplot).
// --rows FILE is how the child hands its rows back.
//
// The backward error is the normwise ||b - A x||_inf / (||A||_inf ||x||_inf
// + ||b||_inf).
#include <cholmod.h>
#include <dirent.h>
#include <dmumps_c.h>
#include <metis.h>
#include <omp.h>
#include <slu_ddefs.h>
#include <spawn.h>
#include <sys/wait.h>
#include <umfpack.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "accuracy.h"
#include "mm_read.h"
#include "test_matrices.h"
#include "velmora.h"

// dgemm_ (for the machine's rate) comes declared with slu_ddefs.h.
extern "C" {
char *openblas_get_corename(void);
char *openblas_get_config(void);
void openblas_set_num_threads(int num_threads);
}
extern char **environ;

namespace {

using Entries = std::vector<std::pair<std::pair<int, int>, double>>;

// Compressed rows, one-based: the upper triangle (symmetric types) or every
// entry (`full`, general matrices).
struct Matrix {
  std::string name;
  int n = 0;
  bool full = false;
  std::vector<int> ia{1}, ja;
  std::vector<double> a;
};

Matrix from_csr(const std::string &name, const testmat::Csr &c, bool full) {
  Matrix m;
  m.name = name;
  m.n = c.n;
  m.full = full;
  m.ia = c.ia;
  m.ja = c.ja;
  m.a = c.a;
  return m;
}

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

// 3D linear elasticity on an m^3 grid of nodes, 3 unknowns (displacements)
// per node, as a network of bars: every node is tied to its 26 neighbours
// by a bar whose 3x3 block is (d d^T + 0.1 I) / length, d the unit
// direction, so the components are coupled wherever d is off an axis.  The
// bar blocks are positive semidefinite; the nodes of the plane z = 0 are
// held by a spring to the ground (I on their block), which makes the sum
// positive definite.  Upper triangle, 81 entries in an inner row.
Matrix elasticity(int m) {
  const int nodes = m * m * m;
  auto id = [=](int x, int y, int z) { return x + m * (y + m * z); };
  std::vector<std::map<int, double>> rows(3 * static_cast<size_t>(nodes));
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        const int i = id(x, y, z);
        if (z == 0)
          for (int a = 0; a < 3; ++a) rows[3 * i + a][3 * i + a] += 1.0;
        for (int dz = 0; dz <= 1; ++dz)
          for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
              // Half of the neighbours, those of larger index: each bar once.
              if (dz == 0 && (dy < 0 || (dy == 0 && dx <= 0))) continue;
              const int X = x + dx, Y = y + dy, Z = z + dz;
              if (X < 0 || Y < 0 || X >= m || Y >= m || Z >= m) continue;
              const int j = id(X, Y, Z);
              const double len = std::sqrt(static_cast<double>(dx * dx + dy * dy + dz * dz));
              const double d[3] = {dx / len, dy / len, dz / len};
              for (int a = 0; a < 3; ++a)
                for (int b = 0; b < 3; ++b) {
                  const double v = (d[a] * d[b] + (a == b ? 0.1 : 0.0)) / len;
                  if (a <= b) {
                    rows[3 * i + a][3 * i + b] += v;
                    rows[3 * j + a][3 * j + b] += v;
                  }
                  rows[3 * i + a][3 * j + b] -= v;
                }
            }
      }
  Matrix k;
  k.name = "elasticity 3x" + std::to_string(m) + "^3";
  k.n = 3 * nodes;
  for (const auto &row : rows) {
    for (const auto &[j, v] : row) {
      k.ja.push_back(j + 1);
      k.a.push_back(v);
    }
    k.ia.push_back(static_cast<int>(k.ja.size()) + 1);
  }
  return k;
}

// The KKT matrix of the tests' generator (local constraints, inertia
// (m^3, nc, 0)).
Matrix kkt(int m, int nc, unsigned seed) {
  return from_csr("KKT " + std::to_string(m) + "^3+" + std::to_string(nc),
                  testmat::kkt_local(m, nc, seed), false);
}

// Upwind convection-diffusion of an m^3 grid (cell Peclet 3, 1.5, 0.75),
// every entry; variant 1: its rows and columns scaled by 10^u, u uniform in
// [-3, 3]; variant 2: its rows in a random order (no diagonal left).
Matrix convection_diffusion(int m, int variant = 0, unsigned seed = 11) {
  testmat::Csr c = testmat::convection_diffusion(m, m, m, 3.0);
  std::string name = "conv-diff " + std::to_string(m) + "^3";
  if (variant == 2) {
    std::vector<int> p(c.n);
    for (int i = 0; i < c.n; ++i) p[i] = i;
    std::shuffle(p.begin(), p.end(), std::mt19937(seed));
    Entries e;
    for (int i = 0; i < c.n; ++i)
      for (int k = c.ia[i] - 1; k < c.ia[i + 1] - 1; ++k)
        e.push_back({{p[i], c.ja[k] - 1}, c.a[k]});
    return from_csr(name + " rows permuted", testmat::from_entries(c.n, e, false), true);
  }
  if (variant == 1) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-3.0, 3.0);
    std::vector<double> r(c.n), s(c.n);
    for (int i = 0; i < c.n; ++i) r[i] = std::pow(10.0, u(rng)), s[i] = std::pow(10.0, u(rng));
    for (int i = 0; i < c.n; ++i)
      for (int k = c.ia[i] - 1; k < c.ia[i + 1] - 1; ++k) c.a[k] *= r[i] * s[c.ja[k] - 1];
    name += " scaled";
  }
  return from_csr(name, c, true);
}

// METIS nested dissection of the pattern of A + A^T: perm(k) = original
// index (one-based) of pivot k.
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
    std::sort(adj[i].begin(), adj[i].end());
    adj[i].erase(std::unique(adj[i].begin(), adj[i].end()), adj[i].end());
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

// Zero-based compressed columns of a general matrix, for UMFPACK and SuperLU.
struct Csc {
  std::vector<int> p, i;
  std::vector<double> x;
};

Csc to_csc(const Matrix &m) {
  Csc c;
  const int nnz = m.ia[m.n] - 1;
  c.p.assign(m.n + 1, 0);
  c.i.resize(nnz);
  c.x.resize(nnz);
  for (int k = 0; k < nnz; ++k) ++c.p[m.ja[k]];
  for (int j = 0; j < m.n; ++j) c.p[j + 1] += c.p[j];
  std::vector<int> next(c.p.begin(), c.p.end() - 1);
  for (int r = 0; r < m.n; ++r)
    for (int k = m.ia[r] - 1; k < m.ia[r + 1] - 1; ++k) {
      const int q = next[m.ja[k] - 1]++;
      c.i[q] = r;
      c.x[q] = m.a[k];
    }
  return c;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// What one library did on one matrix: median times and what the last run
// reported.
struct Result {
  double analyse = 0, factor = 0, solve = 0;
  double residual = 0;  // ||b - A x||_inf / ||b||_inf
  double berr = 0;      // normwise backward error
  double cberr = 0;     // componentwise: max_i |b - A x|_i / (|A| |x| + |b|)_i
  double nnz = 0;       // entries of the factors
  double mflop = 0;     // operations of the factorization, as reported
  int pos = -1, neg = -1, perturbed = 0, steps = 0;
  double policy = 0;  // velmora: the solve to the backward error target 1e-14 instead
  double policy_berr = std::nan("");
  int runs = 0;         // runs behind the medians
  std::string failure;  // empty when every call succeeded
};

// A peer whose analysis and factorization took over a minute is not run
// again: the machine is shared and the figure is clear from one run.
bool long_run(const std::vector<double> &ta, const std::vector<double> &tf) {
  return !ta.empty() && !tf.empty() && ta.back() + tf.back() > 60.0;
}

void set_errors(const Matrix &m, const std::vector<double> &x, const std::vector<double> &b,
                Result *res) {
  std::vector<double> r = b, row(m.n, 0.0), ax(m.n, 0.0);
  for (int i = 0; i < m.n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
      const int j = m.ja[k] - 1;
      r[i] -= m.a[k] * x[j];
      row[i] += std::abs(m.a[k]);
      ax[i] += std::abs(m.a[k] * x[j]);
      if (!m.full && j != i) {
        r[j] -= m.a[k] * x[i];
        row[j] += std::abs(m.a[k]);
        ax[j] += std::abs(m.a[k] * x[i]);
      }
    }
  double rn = 0, bn = 0, xn = 0, an = 0, cw = 0;
  for (int i = 0; i < m.n; ++i) {
    rn = std::max(rn, std::abs(r[i]));
    bn = std::max(bn, std::abs(b[i]));
    xn = std::max(xn, std::abs(x[i]));
    an = std::max(an, row[i]);
    cw = std::max(cw, std::abs(r[i]) / (ax[i] + std::abs(b[i])));
  }
  res->residual = rn / bn;
  res->berr = rn / (an * xn + bn);
  res->cberr = cw;
  for (int i = 0; i < m.n; ++i)
    if (!std::isfinite(x[i])) {  // a failed solve shows as NaN, not as a small error
      res->residual = res->berr = res->cberr = std::nan("");
      break;
    }
}

void set_times(const std::vector<double> &ta, const std::vector<double> &tf,
               const std::vector<double> &ts, Result *res) {
  res->runs = static_cast<int>(ta.size());
  if (ta.empty() || tf.empty() || ts.empty()) return;
  res->analyse = median(ta);
  res->factor = median(tf);
  res->solve = median(ts);
}

// velmora with the defaults of `mtype`, then `setup` on iparm; `order`
// (when not null) handed over as the caller's permutation.
Result run_velmora(const Matrix &m, int mtype, const std::vector<int> *order, int runs,
                   const std::function<void(int *)> &setup = nullptr) {
  std::vector<double> ta, tf, ts, tp;
  Result res;
  for (int r = 0; r < runs; ++r) {
    std::array<void *, 64> pt{};
    std::array<int, 64> iparm{};
    std::array<double, 64> dparm{};
    int solver = 0, error = 0, maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, n = m.n;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    std::vector<int> perm(m.n, 0);
    if (order) {
      iparm[4] = 1;
      perm = *order;
    }
    if (setup) setup(iparm.data());
    std::vector<double> b(m.n, 1.0), x(m.n);
    auto phase = [&](int ph) {
      const double t0 = omp_get_wtime();
      velmora(pt.data(), &maxfct, &mnum, &mtype, &ph, &n, const_cast<double *>(m.a.data()),
              m.ia.data(), m.ja.data(), perm.data(), &nrhs, iparm.data(), &msglvl, b.data(),
              x.data(), &error, dparm.data());
      if (error != 0 && res.failure.empty())
        res.failure = "phase " + std::to_string(ph) + " error " + std::to_string(error);
      return omp_get_wtime() - t0;
    };
    ta.push_back(phase(11));
    tf.push_back(phase(22));
    ts.push_back(phase(33));
    res.nnz = iparm[17] >= 0 ? iparm[17] : -1000.0 * iparm[17];
    res.mflop = iparm[18];
    res.perturbed = iparm[13];
    res.pos = iparm[21];
    res.neg = iparm[22];
    res.steps = iparm[6];
    set_errors(m, x, b, &res);
    if (res.failure.empty()) {  // the accuracy policy of velmora-solve on the same factor
      const vmcli::SystemView view{mtype, m.n, m.ia.data(), m.ja.data(), m.a.data()};
      const vmcli::HandleView handle{pt.data(), iparm.data(), dparm.data(), perm.data(), 0};
      std::vector<double> xp(m.n);
      const double t0 = omp_get_wtime();
      const vmcli::AccuracyReport acc =
          vmcli::solve_to_target(view, handle, 1, b.data(), xp.data(), vmcli::AccuracyGoal{});
      tp.push_back(omp_get_wtime() - t0);
      res.policy_berr = acc.error == 0 ? acc.best : std::nan("");
    }
    phase(-1);
    if (!res.failure.empty()) break;
  }
  set_times(ta, tf, ts, &res);
  if (!tp.empty()) res.policy = median(tp);
  return res;
}

// The upper triangle by rows is the lower one by columns, what CHOLMOD
// takes with stype -1.
cholmod_sparse *cholmod_lower(const Matrix &m, cholmod_common *c) {
  const size_t nnz = m.ja.size();
  cholmod_sparse *A = cholmod_allocate_sparse(m.n, m.n, nnz, 1, 1, -1, CHOLMOD_REAL, c);
  int *p = static_cast<int *>(A->p), *ii = static_cast<int *>(A->i);
  double *ax = static_cast<double *>(A->x);
  for (int j = 0; j <= m.n; ++j) p[j] = m.ia[j] - 1;
  for (size_t k = 0; k < nnz; ++k) ii[k] = m.ja[k] - 1, ax[k] = m.a[k];
  return A;
}

// Whether a symmetric matrix (upper triangle) is positive definite: a
// Cholesky factorization of CHOLMOD with its own ordering either completes
// or stops at a nonpositive pivot.
bool positive_definite(const Matrix &m) {
  cholmod_common c;
  cholmod_start(&c);
  c.print = 0;
  c.error_handler = nullptr;
  cholmod_sparse *A = cholmod_lower(m, &c);
  cholmod_factor *L = cholmod_analyze(A, &c);
  cholmod_factorize(A, L, &c);
  const bool pd = c.status == CHOLMOD_OK && L->minor == static_cast<size_t>(m.n);
  cholmod_free_factor(&L, &c);
  cholmod_free_sparse(&A, &c);
  cholmod_finish(&c);
  return pd;
}

Result run_cholmod(const Matrix &m, const std::vector<int> &order, int runs) {
  cholmod_common c;
  cholmod_start(&c);
  c.nmethods = 1;
  c.method[0].ordering = CHOLMOD_GIVEN;
  c.postorder = 1;
  c.supernodal = CHOLMOD_SUPERNODAL;
  c.print = 0;
  c.error_handler = nullptr;
  cholmod_sparse *A = cholmod_lower(m, &c);
  std::vector<int> perm0(m.n);
  for (int k = 0; k < m.n; ++k) perm0[k] = order[k] - 1;
  cholmod_dense *B = cholmod_ones(m.n, 1, CHOLMOD_REAL, &c);
  std::vector<double> ta, tf, ts;
  Result res;
  for (int r = 0; r < runs && res.failure.empty(); ++r) {
    double t0 = omp_get_wtime();
    cholmod_factor *L = cholmod_analyze_p(A, perm0.data(), nullptr, 0, &c);
    ta.push_back(omp_get_wtime() - t0);
    t0 = omp_get_wtime();
    cholmod_factorize(A, L, &c);
    tf.push_back(omp_get_wtime() - t0);
    if (c.status != CHOLMOD_OK) {
      res.failure = "CHOLMOD status " + std::to_string(c.status);
    } else {
      t0 = omp_get_wtime();
      cholmod_dense *X = cholmod_solve(CHOLMOD_A, L, B, &c);
      ts.push_back(omp_get_wtime() - t0);
      std::vector<double> x(static_cast<double *>(X->x), static_cast<double *>(X->x) + m.n);
      set_errors(m, x, std::vector<double>(m.n, 1.0), &res);
      res.nnz = c.lnz;
      res.mflop = c.fl / 1e6;
      res.pos = m.n;  // a completed Cholesky factorization: every pivot positive
      res.neg = 0;
      cholmod_free_dense(&X, &c);
    }
    cholmod_free_factor(&L, &c);
  }
  cholmod_free_dense(&B, &c);
  cholmod_free_sparse(&A, &c);
  cholmod_finish(&c);
  set_times(ta, tf, ts, &res);
  return res;
}

// Sequential MUMPS: `sym` 1 (SPD) or 2 (general symmetric) on the upper
// triangle, 0 (unsymmetric) on every entry; the given ordering (`order` not
// null) or its own choice.  INFOG(12) is its count of negative pivots.
Result run_mumps(const Matrix &m, const std::vector<int> *order, int runs, int sym) {
  std::vector<int> irn, jcn, perm_in(m.n);
  for (int i = 0; i < m.n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
      irn.push_back(i + 1), jcn.push_back(m.ja[k]);
  if (order)
    for (int k = 0; k < m.n; ++k) perm_in[(*order)[k] - 1] = k + 1;  // position of each variable
  std::vector<double> ta, tf, ts;
  Result res;
  for (int r = 0; r < runs && res.failure.empty() && !long_run(ta, tf); ++r) {
    DMUMPS_STRUC_C id;
    std::memset(&id, 0, sizeof id);
    id.job = -1;
    id.par = 1;
    id.sym = sym;
    id.comm_fortran = -987654;
    dmumps_c(&id);
    id.icntl[0] = id.icntl[1] = id.icntl[2] = -1;
    id.icntl[3] = 0;
    if (order) id.icntl[6] = 1;  // the given ordering
    id.n = m.n;
    id.nnz = static_cast<MUMPS_INT8>(irn.size());
    id.irn = irn.data();
    id.jcn = jcn.data();
    id.a = const_cast<double *>(m.a.data());
    if (order) id.perm_in = perm_in.data();
    std::vector<double> rhs(m.n, 1.0);
    id.rhs = rhs.data();
    auto job = [&](int j) {
      id.job = j;
      const double t0 = omp_get_wtime();
      dmumps_c(&id);
      // Workspace too small (delayed pivots): more room, again.
      for (int retry = 0; j == 2 && (id.infog[0] == -8 || id.infog[0] == -9) && retry < 4;
           ++retry) {
        id.icntl[13] += 50;
        dmumps_c(&id);
      }
      if (id.infog[0] < 0 && res.failure.empty())
        res.failure = "MUMPS job " + std::to_string(j) + " INFOG(1) " + std::to_string(id.infog[0]);
      return omp_get_wtime() - t0;
    };
    ta.push_back(job(1));
    if (res.failure.empty()) tf.push_back(job(2));
    if (res.failure.empty()) ts.push_back(job(3));
    if (res.failure.empty()) {
      set_errors(m, rhs, std::vector<double>(m.n, 1.0), &res);
      res.neg = id.infog[11];
      res.nnz = id.infog[28] >= 0 ? id.infog[28] : -1e6 * id.infog[28];
      res.mflop = id.rinfog[2] / 1e6;
    }
    id.job = -2;
    dmumps_c(&id);
  }
  set_times(ta, tf, ts, &res);
  return res;
}

// UMFPACK with its default controls (strategy, ordering, refinement); the
// long-integer flavour, whose memory is not bounded by 32-bit offsets.
Result run_umfpack(const Matrix &m, int runs) {
  const Csc c = to_csc(m);
  const std::vector<SuiteSparse_long> p(c.p.begin(), c.p.end()), i(c.i.begin(), c.i.end());
  double control[UMFPACK_CONTROL], info[UMFPACK_INFO], solve_info[UMFPACK_INFO];
  umfpack_dl_defaults(control);
  std::vector<double> ta, tf, ts;
  Result res;
  for (int r = 0; r < runs && !long_run(ta, tf); ++r) {
    void *symbolic = nullptr, *numeric = nullptr;
    std::vector<double> b(m.n, 1.0), x(m.n);
    double t0 = omp_get_wtime();
    SuiteSparse_long status =
        umfpack_dl_symbolic(m.n, m.n, p.data(), i.data(), c.x.data(), &symbolic, control, info);
    ta.push_back(omp_get_wtime() - t0);
    if (status == UMFPACK_OK) {
      t0 = omp_get_wtime();
      status =
          umfpack_dl_numeric(p.data(), i.data(), c.x.data(), symbolic, &numeric, control, info);
      tf.push_back(omp_get_wtime() - t0);
    }
    if (status == UMFPACK_OK) {
      t0 = omp_get_wtime();
      status = umfpack_dl_solve(UMFPACK_A, p.data(), i.data(), c.x.data(), x.data(), b.data(),
                                numeric, control, solve_info);
      ts.push_back(omp_get_wtime() - t0);
    }
    umfpack_dl_free_numeric(&numeric);
    umfpack_dl_free_symbolic(&symbolic);
    if (status != UMFPACK_OK) {
      res.failure = "UMFPACK status " + std::to_string(status);
      return res;
    }
    set_errors(m, x, b, &res);
    res.nnz = info[UMFPACK_LNZ] + info[UMFPACK_UNZ] - m.n;
    res.mflop = info[UMFPACK_FLOPS] / 1e6;
    res.steps = static_cast<int>(solve_info[UMFPACK_IR_TAKEN]);
  }
  set_times(ta, tf, ts, &res);
  return res;
}

// SuperLU through the pieces of its simple driver: the column ordering
// (COLAMD, or `order` when given) and the elimination tree, dgstrf with the
// sp_ienv panel and relaxation sizes and partial pivoting, dgstrs.  No
// refinement.
Result run_superlu(const Matrix &m, const std::vector<int> *order, int runs) {
  Csc c = to_csc(m);
  const int nnz = static_cast<int>(c.x.size());
  std::vector<double> ta, tf, ts;
  Result res;
  for (int r = 0; r < runs && !long_run(ta, tf); ++r) {
    superlu_options_t options;
    set_default_options(&options);
    options.ColPerm = order ? MY_PERMC : COLAMD;
    SuperLUStat_t stat;
    StatInit(&stat);
    SuperMatrix A, AC, L, U, B;
    GlobalLU_t glu;
    dCreate_CompCol_Matrix(&A, m.n, m.n, nnz, c.x.data(), c.i.data(), c.p.data(), SLU_NC, SLU_D,
                           SLU_GE);
    std::vector<int> perm_c(m.n), perm_r(m.n), etree(m.n);
    double t0 = omp_get_wtime();
    if (order) {
      for (int k = 0; k < m.n; ++k) perm_c[(*order)[k] - 1] = k;  // new place of each column
    } else {
      get_perm_c(options.ColPerm, &A, perm_c.data());
    }
    sp_preorder(&options, &A, perm_c.data(), etree.data(), &AC);
    ta.push_back(omp_get_wtime() - t0);
    int info = 0;
    t0 = omp_get_wtime();
    dgstrf(&options, &AC, sp_ienv(2), sp_ienv(1), etree.data(), nullptr, 0, perm_c.data(),
           perm_r.data(), &L, &U, &glu, &stat, &info);
    tf.push_back(omp_get_wtime() - t0);
    if (info != 0) {  // a zero pivot (factors complete) or, above n, a failed allocation
      res.failure = "dgstrf info " + std::to_string(info);
      if (info <= m.n) {
        Destroy_SuperNode_Matrix(&L);
        Destroy_CompCol_Matrix(&U);
      }
      Destroy_CompCol_Permuted(&AC);
      Destroy_SuperMatrix_Store(&A);
      StatFree(&stat);
      return res;
    }
    std::vector<double> b(m.n, 1.0), x = b;
    dCreate_Dense_Matrix(&B, m.n, 1, x.data(), m.n, SLU_DN, SLU_D, SLU_GE);
    t0 = omp_get_wtime();
    dgstrs(NOTRANS, &L, &U, perm_c.data(), perm_r.data(), &B, &stat, &info);
    ts.push_back(omp_get_wtime() - t0);
    set_errors(m, x, b, &res);
    res.nnz = static_cast<double>(static_cast<SCformat *>(L.Store)->nnz) +
              static_cast<NCformat *>(U.Store)->nnz - m.n;
    res.mflop = stat.ops[FACT] / 1e6;
    Destroy_SuperMatrix_Store(&B);
    Destroy_SuperNode_Matrix(&L);
    Destroy_CompCol_Matrix(&U);
    Destroy_CompCol_Permuted(&AC);
    Destroy_SuperMatrix_Store(&A);
    StatFree(&stat);
  }
  set_times(ta, tf, ts, &res);
  return res;
}

// The OpenMP team and the OpenBLAS team (which, built for OpenMP, follows
// the OpenMP setting too) of the solvers that come next.
void set_threads(int t) {
  omp_set_num_threads(t);
  openblas_set_num_threads(t);
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

// ---------------------------------------------------------------------------
// Rows of the table.

struct Row {
  std::string section, matrix, solver, inertia, note;
  int n = 0, threads = 1;
  bool ours = false;  // a velmora row (no ratio)
  bool plot = false;  // a point of the plot (the main line of each library)
  Result r;
  double f_ratio = std::nan(""), s_ratio = std::nan("");
};

struct Options {
  int runs = 3;
  bool quick = false;
  std::vector<int> threads = {1, 2};
};

std::vector<Row> g_rows;
int g_runs = 3;  // runs asked for; a row with fewer says so

std::string fmt(const char *f, double v) {
  if (!std::isfinite(v)) return "-";
  char buf[64];
  std::snprintf(buf, sizeof buf, f, v);
  return buf;
}

std::string gflops(const Result &r) {
  return r.mflop > 0 && r.factor > 0 ? fmt("%.2f", r.mflop / 1e3 / r.factor) : "-";
}

void print_header() {
  std::printf("%-22s %8s %-15s %3s %8s %8s %8s %8s %7s %8s %14s %7s %7s\n", "matrix", "n", "solver",
              "thr", "analyse", "factor", "solve", "nnz(F)M", "GFLOP/s", "berr", "inertia",
              "f ratio", "s ratio");
}

void print_row(const Row &w) {
  const Result &t = w.r;
  if (!t.failure.empty()) {
    std::printf("%-22s %8d %-15s %3d failed: %s\n", w.matrix.c_str(), w.n, w.solver.c_str(),
                w.threads, t.failure.c_str());
  } else {
    std::printf("%-22s %8d %-15s %3d %8.3f %8.3f %8.4f %8.3f %7s %8.1e %14s %7s %7s%s\n",
                w.matrix.c_str(), w.n, w.solver.c_str(), w.threads, t.analyse, t.factor, t.solve,
                t.nnz / 1e6, gflops(t).c_str(), t.berr, w.inertia.c_str(),
                fmt("%.2f", w.f_ratio).c_str(), fmt("%.2f", w.s_ratio).c_str(),
                w.note.empty() ? "" : ("  " + w.note).c_str());
  }
  std::fflush(stdout);
}

std::string inertia_of(const Result &r, bool with_pos) {
  if (!r.failure.empty() || r.neg < 0) return "-";
  if (!with_pos) return "-" + std::to_string(r.neg);
  return "+" + std::to_string(r.pos) + " -" + std::to_string(r.neg);
}

// One line of the table; the ratios are those of the main velmora line of
// the same matrix and thread count (`ours`), for peers only.
void add_row(const std::string &section, const Matrix &m, int threads, const std::string &solver,
             const Result &r, bool ours_row, bool plot, const Result *ours,
             const std::string &inertia, const std::string &note = "") {
  Row w;
  w.section = section;
  w.matrix = m.name;
  w.n = m.n;
  w.threads = threads;
  w.solver = solver;
  w.r = r;
  w.ours = ours_row;
  w.plot = plot;
  w.inertia = inertia;
  w.note = note;
  if (r.runs > 0 && r.runs < g_runs && r.failure.empty())
    w.note += (w.note.empty() ? "" : "; ") + std::to_string(r.runs) + " run";
  if (!ours_row && ours && ours->failure.empty() && r.failure.empty() && r.factor > 0 &&
      r.solve > 0) {
    w.f_ratio = ours->factor / r.factor;
    w.s_ratio = ours->solve / r.solve;
  }
  print_row(w);
  g_rows.push_back(w);
}

// ---------------------------------------------------------------------------
// The three families, each at every thread count.

// Symmetric positive definite: velmora, CHOLMOD, MUMPS, one METIS order.
// Each solver once per round, `runs` rounds: a slow spell of the shared
// machine then falls on every solver of a row alike, and the ratios
// compare runs made side by side.  A result holds the medians of its
// rounds and what its last run reported; a solver that failed, or whose
// analysis and factorization took over a minute, is not run again.
std::vector<Result> in_rounds(int runs, const std::vector<std::function<Result()>> &solvers) {
  const size_t ns = solvers.size();
  std::vector<Result> out(ns);
  std::vector<std::vector<double>> ta(ns), tf(ns), ts(ns), tp(ns);
  std::vector<bool> done(ns, false);
  for (int r = 0; r < runs; ++r)
    for (size_t s = 0; s < ns; ++s) {
      if (done[s]) continue;
      out[s] = solvers[s]();
      if (out[s].runs > 0) {
        ta[s].push_back(out[s].analyse);
        tf[s].push_back(out[s].factor);
        ts[s].push_back(out[s].solve);
        if (out[s].policy > 0) tp[s].push_back(out[s].policy);
      }
      done[s] = !out[s].failure.empty() || long_run(ta[s], tf[s]);
    }
  for (size_t s = 0; s < ns; ++s) {
    set_times(ta[s], tf[s], ts[s], &out[s]);
    if (!tp[s].empty()) out[s].policy = median(tp[s]);
  }
  return out;
}

void bench_spd(const std::string &section, const Matrix &m, const Options &o) {
  const std::vector<int> order = metis_order(m);
  for (int t : o.threads) {
    set_threads(t);
    const std::vector<Result> r = in_rounds(o.runs, {[&] { return run_velmora(m, 2, &order, 1); },
                                                     [&] { return run_cholmod(m, order, 1); },
                                                     [&] { return run_mumps(m, &order, 1, 1); }});
    add_row(section, m, t, "velmora", r[0], true, true, nullptr, inertia_of(r[0], true));
    add_row(section, m, t, "cholmod", r[1], false, true, &r[0], inertia_of(r[1], true));
    add_row(section, m, t, "mumps", r[2], false, true, &r[0], "-");
  }
}

// Symmetric indefinite: velmora LDL^T (2x2 pivots, iparm(21) 1) with the
// METIS order given, then with its symmetric matching (iparm(13) 1) and its
// own order; MUMPS LDL^T (sym 2) with the METIS order.
void bench_indefinite(const std::string &section, const Matrix &m, const Options &o,
                      const std::string &expected = "") {
  const std::vector<int> order = metis_order(m);
  for (int t : o.threads) {
    set_threads(t);
    const std::vector<Result> r = in_rounds(
        o.runs, {[&] { return run_velmora(m, -2, &order, 1, [](int *iparm) { iparm[20] = 1; }); },
                 [&] {
                   return run_velmora(m, -2, nullptr, 1, [](int *iparm) {
                     iparm[20] = 1;
                     iparm[12] = 1;
                   });
                 },
                 [&] { return run_mumps(m, &order, 1, 2); }});
    auto note = [](const Result &v) {
      return "perturbed " + std::to_string(v.perturbed) + ", refinement " + std::to_string(v.steps);
    };
    add_row(section, m, t, "velmora", r[0], true, true, nullptr, inertia_of(r[0], true),
            note(r[0]) + expected);
    add_row(section, m, t, "velmora+match", r[1], true, false, nullptr, inertia_of(r[1], true),
            note(r[1]));
    add_row(section, m, t, "mumps", r[2], false, true, &r[0], inertia_of(r[2], false));
  }
}

// General: velmora mtype 11 with its defaults (METIS, matching, scaling,
// refinement), UMFPACK, SuperLU with COLAMD and MUMPS unsymmetric with
// their own orderings; with `same_order` also velmora and SuperLU given the
// METIS order of A + A^T.
void bench_general(const std::string &section, const Matrix &m, const Options &o, bool same_order) {
  const std::vector<int> order = same_order ? metis_order(m) : std::vector<int>();
  for (int t : o.threads) {
    set_threads(t);
    std::vector<std::function<Result()>> solvers = {
        [&] { return run_velmora(m, 11, nullptr, 1); }, [&] { return run_umfpack(m, 1); },
        [&] { return run_superlu(m, nullptr, 1); }, [&] { return run_mumps(m, nullptr, 1, 0); }};
    if (same_order) {
      solvers.push_back([&] { return run_velmora(m, 11, &order, 1); });
      solvers.push_back([&] { return run_superlu(m, &order, 1); });
    }
    const std::vector<Result> r = in_rounds(o.runs, solvers);
    const Result &ours = r[0];
    add_row(section, m, t, "velmora", ours, true, true, nullptr, "-",
            "perturbed " + std::to_string(ours.perturbed) + ", refinement " +
                std::to_string(ours.steps));
    if (same_order) add_row(section, m, t, "velmora METIS", r[4], true, false, nullptr, "-");
    add_row(section, m, t, "umfpack", r[1], false, true, &ours, "-");
    add_row(section, m, t, "superlu", r[2], false, true, &ours, "-", "COLAMD");
    if (same_order) add_row(section, m, t, "superlu METIS", r[5], false, false, &ours, "-");
    add_row(section, m, t, "mumps", r[3], false, true, &ours, "-");
  }
}

// ---------------------------------------------------------------------------
// Sections.

void section_spd(const Options &o) {
  std::printf("\n[spd] Laplacians: velmora mtype 2, CHOLMOD, MUMPS sym 1, one METIS order\n");
  print_header();
  std::vector<std::function<Matrix()>> cases;
  if (o.quick) {
    cases = {[] { return grid("5-point 300^2", 300, 300, 1, false); },
             [] { return grid("7-point 25^3", 25, 25, 25, false); },
             [] { return grid("27-point 15^3", 15, 15, 15, true); }};
  } else {
    cases = {[] { return grid("5-point 300^2", 300, 300, 1, false); },
             [] { return grid("5-point 1000^2", 1000, 1000, 1, false); },
             [] { return grid("7-point 30^3", 30, 30, 30, false); },
             [] { return grid("7-point 40^3", 40, 40, 40, false); },
             [] { return grid("27-point 30^3", 30, 30, 30, true); }};
  }
  for (const auto &make : cases) bench_spd("spd", make(), o);
}

// The large Laplacians of the parallel factorization's bars: the 7-point
// 70^3 and the 27-point 40^3; on request only.
void section_spd_large(const Options &o) {
  std::printf(
      "\n[spd-large] large Laplacians: velmora mtype 2, CHOLMOD, MUMPS sym 1, one METIS order\n");
  print_header();
  bench_spd("spd-large", grid("7-point 70^3", 70, 70, 70, false), o);
  bench_spd("spd-large", grid("27-point 40^3", 40, 40, 40, true), o);
}

void section_elast(const Options &o) {
  std::printf("\n[elast] 3D elasticity, 3 unknowns per node (bars to the 26 neighbours):\n");
  std::printf("        velmora mtype 2, CHOLMOD, MUMPS sym 1, one METIS order\n");
  print_header();
  for (int m : o.quick ? std::vector<int>{10} : std::vector<int>{15, 21})
    bench_spd("elast", elasticity(m), o);
}

// KKT sides 30 and 36 for the whole run; `large` the sides 43 and 62
// (about 100k and 300k unknowns), on request only.
void section_kkt(const Options &o, bool large = false) {
  std::printf(
      "\n[kkt] [[H, J^T], [J, 0]]: H 7-point Laplacian of a grid, J local constraints\n"
      "      (inertia (grid, constraints, 0)); velmora mtype -2, iparm(21) 1, the METIS\n"
      "      order given (then its symmetric matching); MUMPS sym 2 with the same order\n"
      "      (inertia: its count of negative pivots)\n");
  print_header();
  std::vector<int> sides = o.quick ? std::vector<int>{20}
                           : large ? std::vector<int>{43, 62}
                                   : std::vector<int>{30, 36};
  for (int side : sides) {
    const int nc = side * side * side / 4;
    bench_indefinite(
        "kkt", kkt(side, nc, 7), o,
        "; expected +" + std::to_string(side * side * side) + " -" + std::to_string(nc));
  }
}

void section_lu(const Options &o) {
  std::printf(
      "\n[lu] 3D upwind convection-diffusion (Peclet 3, 1.5, 0.75): velmora mtype 11\n"
      "     (defaults: METIS, matching, scaling, refinement; then the METIS order of\n"
      "     A+A^T given), UMFPACK (defaults), SuperLU (COLAMD, then the METIS column\n"
      "     order; threshold 1.0, no refinement), MUMPS sym 0 (its own ordering)\n");
  print_header();
  for (int side : o.quick ? std::vector<int>{15} : std::vector<int>{25, 32})
    bench_general("lu", convection_diffusion(side), o, true);
}

// A circuit-like unsymmetric matrix: conductances between nodes that are
// mostly near each other in numbering, a few supply nets touching many
// nodes (dense rows and columns), values over six orders of magnitude, and
// a diagonal that dominates its column (each node's own conductance).
Matrix circuit(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::vector<std::map<int, double>> rows(n);
  auto conductance = [&] { return std::pow(10.0, 6.0 * unit(rng) - 3.0); };
  auto tie = [&](int i, int j) {
    if (i == j) return;
    const double g = conductance();
    rows[i][j] -= g;
    rows[j][i] -= g * (0.5 + unit(rng));  // controlled sources make it unsymmetric
    rows[i][i] += g;
    rows[j][j] += g;
  };
  for (int i = 0; i < n; ++i) {
    const int near = 1 + static_cast<int>(rng() % 3);
    for (int k = 0; k < near; ++k) tie(i, std::min(n - 1, i + 1 + static_cast<int>(rng() % 20)));
    if (rng() % 10 == 0) tie(i, static_cast<int>(rng() % n));
  }
  for (int net = 0; net < 3; ++net) {
    const int hub = static_cast<int>(rng() % n);
    for (int i = 0; i < n; ++i)
      if (unit(rng) < 0.05) tie(hub, i);
  }
  Matrix m;
  m.name = "circuit-like " + std::to_string(n);
  m.n = n;
  m.full = true;
  for (int i = 0; i < n; ++i) {
    rows[i][i] += 1e-3;
    for (const auto &[j, v] : rows[i]) {
      m.ja.push_back(j + 1);
      m.a.push_back(v);
    }
    m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
  }
  return m;
}

Matrix arrowhead(int n);

// The real matrices of the team's folder, by what their header says:
// symmetric ones by a trial Cholesky factorization, positive definite or
// indefinite; pattern files get a dominant diagonal (as the tests give
// them); complex, degenerate and unreadable files are skipped.
void section_real(const Options &o) {
  const std::string dir = VELMORA_MATRIX_DIR;
  std::printf("\n[real] matrices of %s\n", dir.c_str());
  std::vector<std::string> files;
  if (DIR *d = opendir(dir.c_str())) {
    while (const dirent *e = readdir(d)) {
      const std::string f = e->d_name;
      if (f.size() > 4 && f.compare(f.size() - 4, 4, ".mtx") == 0) files.push_back(f);
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  std::vector<std::string> skipped;
  struct Item {
    Matrix m;
    int kind;  // 0 positive definite, 1 indefinite, 2 general
  };
  std::vector<Item> items;
  for (const std::string &f : files) {
    mm::Triplets t;
    std::string error;
    const std::string stem = f.substr(0, f.size() - 4);
    if (!mm::read(dir + "/" + f, &t, &error)) {
      skipped.push_back(stem + " (unreadable)");
      continue;
    }
    if (t.field == mm::Field::kComplex || t.symmetry == mm::Symmetry::kHermitian) {
      skipped.push_back(stem + " (complex)");
      continue;
    }
    if (t.m != t.n || t.n == 0 || t.size() == 0) {
      skipped.push_back(stem + " (degenerate)");
      continue;
    }
    if (t.symmetry == mm::Symmetry::kSkew) {
      skipped.push_back(stem + " (skew-symmetric)");
      continue;
    }
    const bool general = t.symmetry == mm::Symmetry::kGeneral;
    const std::string label = stem + (t.re.empty() ? " (pattern)" : "");
    Matrix m = from_csr(label, testmat::from_file(f, !general), general);
    if (m.n == 0) {
      skipped.push_back(stem + " (unreadable)");
      continue;
    }
    items.push_back({m, general ? 2 : positive_definite(m) ? 0 : 1});
  }
  // Generated with the traits of the collection's hard cases: stiffness
  // matrices of narrow supernodes, arrowheads, circuits.
  for (int m : o.quick ? std::vector<int>{8} : std::vector<int>{8, 11})
    items.push_back({elasticity(m), 0});
  for (int n : o.quick ? std::vector<int>{10000} : std::vector<int>{10000, 40000})
    items.push_back({arrowhead(n), 2});
  for (int n : o.quick ? std::vector<int>{5000} : std::vector<int>{5000, 30000})
    items.push_back({circuit(n, 5), 2});
  std::printf("       skipped: ");
  for (const std::string &s : skipped) std::printf("%s ", s.c_str());
  std::printf("\n");
  print_header();
  for (int kind : {0, 1, 2})
    for (const Item &it : items) {
      if (it.kind != kind) continue;
      if (kind == 0) bench_spd("real spd", it.m, o);
      if (kind == 1) bench_indefinite("real indef", it.m, o);
      if (kind == 2) bench_general("real general", it.m, o, false);
    }
}

// KKT matrix of an elliptic optimal-control problem on an N x N grid:
// state y, control u (one per node), multipliers of the discretised
// Laplacian constraint L y - u = 0, Hessian diag(1 on y, 1e-4 on u), zero
// block for the multipliers.  Upper triangle by rows, 3 N^2 unknowns.
Matrix optimal_control(int N) {
  Matrix m;
  m.name = "optimal control " + std::to_string(N) + "^2";
  const int g = N * N;
  m.n = 3 * g;
  const double h2 = static_cast<double>(N) * N;
  for (int i = 0; i < m.n; ++i) {
    std::vector<std::pair<int, double>> row;
    if (i < g) {
      const int x = i % N, y = i / N;
      row.push_back({i, 1.0});
      row.push_back({2 * g + i, 4.0 * h2});
      if (x > 0) row.push_back({2 * g + i - 1, -h2});
      if (x + 1 < N) row.push_back({2 * g + i + 1, -h2});
      if (y > 0) row.push_back({2 * g + i - N, -h2});
      if (y + 1 < N) row.push_back({2 * g + i + N, -h2});
    } else if (i < 2 * g) {
      row.push_back({i, 1e-4});
      row.push_back({i + g, -1.0});
    } else {
      row.push_back({i, 0.0});
    }
    std::sort(row.begin(), row.end());
    for (const auto &e : row) {
      m.ja.push_back(e.first + 1);
      m.a.push_back(e.second);
    }
    m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
  }
  return m;
}

// The controls an interior-point optimiser passes (one-column supernodes,
// the symmetric matching, 2x2 pivots asked for, perturbation 1e-12), but
// iparm(6): the optimiser has the solution written over b, the benchmark
// reads it from x.
void optimiser_controls(int *iparm) {
  iparm[0] = 1;
  iparm[1] = 5;
  iparm[2] = 1;
  iparm[9] = 12;
  iparm[10] = 2;
  iparm[12] = 1;
  iparm[20] = 3;
  iparm[23] = 1;
  iparm[24] = 1;
  iparm[29] = 1;
}

void print_times(const char *solver, const Result &r, double base_factor) {
  std::printf("  %-28s analyse %8.4f  factor %8.4f  solve %8.5f  factor/base %5.2f  berr %.1e %s\n",
              solver, r.analyse, r.factor, r.solve, r.factor / base_factor, r.berr,
              r.failure.c_str());
}

// Optimal-control KKT matrices under the optimiser's controls, one thread:
// velmora with them, velmora with the automatic width, and MUMPS (sym 2,
// its own ordering).  Console only, on request.
void section_optimiser(const Options &o) {
  set_threads(1);
  std::printf(
      "\n[optimiser] KKT of an optimal-control problem, one thread: velmora with an\n"
      "            interior-point optimiser's iparm (30 = 1: one-column supernodes), the\n"
      "            same with the automatic width, MUMPS sym 2 (its ordering); factor/base\n"
      "            is the factorization time over velmora's automatic width\n");
  for (int N : o.quick ? std::vector<int>{60} : std::vector<int>{200, 250}) {
    const Matrix m = optimal_control(N);
    std::printf("%s, n = %d\n", m.name.c_str(), m.n);
    const Result unit = run_velmora(m, -2, nullptr, o.runs, optimiser_controls);
    const Result wide = run_velmora(m, -2, nullptr, o.runs, [](int *iparm) {
      optimiser_controls(iparm);
      iparm[1] = 2;
      iparm[29] = 0;
    });
    const Result mumps = run_mumps(m, nullptr, o.runs, 2);
    print_times("velmora, optimiser's iparm", unit, wide.factor);
    print_times("velmora, automatic width", wide, wide.factor);
    print_times("mumps", mumps, wide.factor);
    std::printf("  one-column over automatic %.2f, over MUMPS %.2f (factorization)\n",
                unit.factor / wide.factor, unit.factor / mumps.factor);
  }
}

// Arrowheads: a dense first row and column on a diagonal, unsymmetric
// values that keep the weighted matching busy.
Matrix arrowhead(int n) {
  Matrix m;
  m.name = "arrowhead " + std::to_string(n);
  m.n = n;
  m.full = true;
  for (int i = 0; i < n; ++i) {
    if (i == 0) {
      for (int j = 0; j < n; ++j) {
        m.ja.push_back(j + 1);
        m.a.push_back(j == 0 ? n : 1.0 + j % 7);
      }
    } else {
      m.ja.push_back(1);
      m.a.push_back(0.5 + i % 5);
      m.ja.push_back(i + 1);
      m.a.push_back(4.0 + i % 3);
    }
    m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
  }
  return m;
}

// Analysis of arrowheads with the matching on (velmora mtype 11 defaults)
// against UMFPACK and MUMPS (sym 0), one thread.  Console only, on request.
void section_arrowhead(const Options &o) {
  set_threads(1);
  std::printf(
      "\n[arrowhead] analysis (and the rest) of arrowheads, one thread: velmora mtype 11\n"
      "            (defaults: matching and scaling on), UMFPACK, MUMPS sym 0\n");
  for (int n : o.quick ? std::vector<int>{10000} : std::vector<int>{10000, 30000, 100000}) {
    const Matrix m = arrowhead(n);
    std::printf("%s\n", m.name.c_str());
    const Result ours = run_velmora(m, 11, nullptr, o.runs);
    print_times("velmora", ours, ours.factor);
    print_times("umfpack", run_umfpack(m, o.runs), ours.factor);
    print_times("mumps", run_mumps(m, nullptr, o.runs, 0), ours.factor);
  }
}

void section_matching(const Options &o) {
  set_threads(1);
  std::printf(
      "\n[matching] velmora mtype 11, one thread, default controls but iparm(13): analysis\n"
      "           with matching (1) and without (0); extra = the difference, against the\n"
      "           factorization with matching; factor entries iparm(18); componentwise\n"
      "           backward errors.  Rows permuted (*): without matching no diagonal is\n"
      "           left, so the (0) columns are those of the unpermuted matrix.\n");
  const int side = o.quick ? 15 : 40;
  std::printf("%-30s %8s %8s %8s %8s %7s %9s %9s %7s %9s %9s\n", "matrix", "an(13=1)", "an(13=0)",
              "extra", "factor", "ex/fac", "nnz(13=1)", "nnz(13=0)", "ratio", "cberr(1)",
              "cberr(0)");
  Result plain_off;
  for (int variant : {0, 1, 2}) {
    const Matrix m = convection_diffusion(side, variant);
    const Result on = run_velmora(m, 11, nullptr, o.runs, [](int *iparm) { iparm[12] = 1; });
    const Result off = variant == 2
                           ? plain_off
                           : run_velmora(m, 11, nullptr, o.runs, [](int *iparm) { iparm[12] = 0; });
    if (variant == 0) plain_off = off;
    const double extra = on.analyse - off.analyse;
    std::printf("%-30s %8.3f %8.3f %8.3f %8.3f %7.3f %9.0f %9.0f %7.3f %9.1e %9.1e\n",
                (m.name + (variant == 2 ? " *" : "")).c_str(), on.analyse, off.analyse, extra,
                on.factor, extra / on.factor, on.nnz, off.nnz, on.nnz / off.nnz, on.cberr,
                off.cberr);
    std::fflush(stdout);
  }
}

// ---------------------------------------------------------------------------
// The machine and OpenBLAS's kernels.

std::string lower(std::string s) {
  for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string cpuinfo_field(const std::string &key) {
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line))
    if (line.compare(0, key.size(), key) == 0) {
      const size_t colon = line.find(':');
      if (colon != std::string::npos) {
        const size_t first = line.find_first_not_of(" \t", colon + 1);
        return first == std::string::npos ? "" : line.substr(first);
      }
    }
  return "";
}

// The newest OpenBLAS core type whose double kernels the processor can run,
// from the flags of /proc/cpuinfo; empty when none is known.
std::string best_coretype() {
  std::istringstream in(cpuinfo_field("flags"));
  std::set<std::string> flags;
  for (std::string f; in >> f;) flags.insert(f);
  auto has = [&](const char *f) { return flags.count(f) > 0; };
  if (has("avx512f") && has("avx512bw") && has("avx512vl") && has("avx512dq") && has("avx512cd"))
    return "SkylakeX";
  if (has("avx2") && has("fma")) return "Haswell";
  if (has("avx")) return "Sandybridge";
  return "";
}

// A rank of the double-precision kernels of an OpenBLAS core type: AVX-512,
// AVX2 with FMA, AVX, older.  Cooper Lake and Sapphire Rapids run the
// SkylakeX double kernels, the Zen family the Haswell ones.
int core_rank(const std::string &name) {
  const std::string c = lower(name);
  for (const char *k : {"skylakex", "cooperlake", "sapphirerapids"})
    if (c == k) return 3;
  for (const char *k : {"haswell", "zen", "excavator", "skylake"})
    if (c == k) return 2;
  for (const char *k : {"sandybridge", "bulldozer", "piledriver", "steamroller"})
    if (c == k) return 1;
  return 0;
}

int cpu_count() {
  const long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<int>(n) : 1;
}

struct RunInfo {
  std::string corename, config;
  std::map<int, double> dgemm;  // GFLOP/s by thread count
};

// ---------------------------------------------------------------------------
// Rows through a file (from the child run) and the outputs.

void write_rows(const std::string &path, const RunInfo &info) {
  std::FILE *f = std::fopen(path.c_str(), "w");
  if (!f) return;
  std::fprintf(f, "corename\t%s\n", info.corename.c_str());
  for (const auto &[t, rate] : info.dgemm) std::fprintf(f, "dgemm\t%d\t%.17g\n", t, rate);
  for (const Row &w : g_rows) {
    const Result &r = w.r;
    std::fprintf(f,
                 "row\t%s\t%s\t%s\t%s\t%s\t%d\t%d\t%d\t%d\t%.17g\t%.17g\t%.17g\t%.17g\t%.17g\t%"
                 ".17g\t%.17g\t%.17g\t%d\t%s\t%.17g\t%.17g\n",
                 w.section.c_str(), w.matrix.c_str(), w.solver.c_str(), w.inertia.c_str(),
                 w.note.empty() ? "." : w.note.c_str(), w.n, w.threads, w.ours ? 1 : 0,
                 w.plot ? 1 : 0, r.analyse, r.factor, r.solve, r.nnz, r.mflop, r.berr, w.f_ratio,
                 w.s_ratio, r.runs, r.failure.empty() ? "." : r.failure.c_str(), r.policy,
                 r.policy_berr);
  }
  std::fclose(f);
}

bool read_rows(const std::string &path, RunInfo *info, std::vector<Row> *rows) {
  std::ifstream in(path);
  if (!in) return false;
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> v;
    std::stringstream ss(line);
    for (std::string field; std::getline(ss, field, '\t');) v.push_back(field);
    if (v.size() == 2 && v[0] == "corename") info->corename = v[1];
    if (v.size() == 3 && v[0] == "dgemm")
      info->dgemm[std::atoi(v[1].c_str())] = std::atof(v[2].c_str());
    if (v.size() != 22 || v[0] != "row") continue;
    Row w;
    w.section = v[1];
    w.matrix = v[2];
    w.solver = v[3];
    w.inertia = v[4];
    w.note = v[5] == "." ? "" : v[5];
    w.n = std::atoi(v[6].c_str());
    w.threads = std::atoi(v[7].c_str());
    w.ours = v[8] == "1";
    w.plot = v[9] == "1";
    w.r.analyse = std::atof(v[10].c_str());
    w.r.factor = std::atof(v[11].c_str());
    w.r.solve = std::atof(v[12].c_str());
    w.r.nnz = std::atof(v[13].c_str());
    w.r.mflop = std::atof(v[14].c_str());
    w.r.berr = std::atof(v[15].c_str());
    w.f_ratio = std::atof(v[16].c_str());
    w.s_ratio = std::atof(v[17].c_str());
    w.r.runs = std::atoi(v[18].c_str());
    w.r.failure = v[19] == "." ? "" : v[19];
    w.r.policy = std::atof(v[20].c_str());
    w.r.policy_berr = std::atof(v[21].c_str());
    rows->push_back(w);
  }
  return true;
}

std::string table(const std::vector<Row> &rows) {
  std::ostringstream s;
  s << "| section | matrix | n | solver | threads | analyse s | factor s | solve s | nnz(factor) "
       "| GFLOP/s | backward error | inertia | factor ours/peer | solve ours/peer | note |\n"
       "|---|---|--:|---|--:|--:|--:|--:|--:|--:|--:|---|--:|--:|---|\n";
  for (const Row &w : rows) {
    const Result &r = w.r;
    s << "| " << w.section << " | " << w.matrix << " | " << w.n << " | " << w.solver << " | "
      << w.threads << " | ";
    if (!r.failure.empty()) {
      s << "failed | | | | | | | | | " << r.failure << " |\n";
      continue;
    }
    s << fmt("%.4f", r.analyse) << " | " << fmt("%.4f", r.factor) << " | " << fmt("%.5f", r.solve)
      << " | " << fmt("%.0f", r.nnz) << " | " << gflops(r) << " | " << fmt("%.1e", r.berr) << " | "
      << w.inertia << " | " << fmt("%.2f", w.f_ratio) << " | " << fmt("%.2f", w.s_ratio) << " | "
      << w.note << " |\n";
  }
  return s.str();
}

// Geometric means of the ratios ours/peer, by section and peer, for each
// thread count, over the matrices where both succeeded.
std::string summary(const std::vector<Row> &rows, const std::vector<int> &threads) {
  std::vector<std::pair<std::string, std::string>> keys;
  std::map<std::tuple<std::string, std::string, int>, std::vector<std::pair<double, double>>> r;
  for (const Row &w : rows) {
    if (w.ours || !std::isfinite(w.f_ratio)) continue;
    const auto key = std::make_pair(w.section, w.solver);
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
    r[{w.section, w.solver, w.threads}].push_back({w.f_ratio, w.s_ratio});
  }
  std::ostringstream s;
  s << "| section | peer |";
  for (int t : threads)
    s << " factor ours/peer, " << t << " thr | solve ours/peer, " << t << " thr |";
  s << " matrices |\n|---|---|";
  for (size_t k = 0; k < threads.size(); ++k) s << "--:|--:|";
  s << "--:|\n";
  for (const auto &[section, peer] : keys) {
    s << "| " << section << " | " << peer << " |";
    size_t count = 0;
    for (int t : threads) {
      const auto &v = r[{section, peer, t}];
      count = std::max(count, v.size());
      double lf = 0, ls = 0, fmin = 1e300, fmax = 0;
      for (const auto &[f, sv] : v) {
        lf += std::log(f);
        ls += std::log(sv);
        fmin = std::min(fmin, f);
        fmax = std::max(fmax, f);
      }
      if (v.empty()) {
        s << " - | - |";
      } else {
        s << " " << fmt("%.2f", std::exp(lf / v.size()));
        if (v.size() > 1) s << " (" << fmt("%.2f", fmin) << "-" << fmt("%.2f", fmax) << ")";
        s << " | " << fmt("%.2f", std::exp(ls / v.size())) << " |";
      }
    }
    s << " " << count << " |\n";
  }
  return s.str();
}

// End to end: velmora's main line (analysis + factorization + solve) over
// the fastest peer's total on the same matrix and thread count, and the
// same for the analysis alone; geometric means and the largest ratio.
std::string end_to_end_summary(const std::vector<Row> &rows, const std::vector<int> &threads) {
  std::vector<std::string> sections;
  std::map<std::tuple<std::string, std::string, int>, std::pair<double, double>> ours, best;
  for (const Row &w : rows) {
    if (!w.r.failure.empty() || !(w.r.factor > 0)) continue;
    if (w.ours && !w.plot) continue;
    if (std::find(sections.begin(), sections.end(), w.section) == sections.end())
      sections.push_back(w.section);
    const auto key = std::make_tuple(w.section, w.matrix, w.threads);
    const double total = w.r.analyse + w.r.factor + w.r.solve;
    if (w.ours) {
      ours[key] = {total, w.r.analyse};
    } else {
      auto it = best.find(key);
      if (it == best.end()) it = best.insert({key, {1e300, 1e300}}).first;
      it->second.first = std::min(it->second.first, total);
      it->second.second = std::min(it->second.second, w.r.analyse);
    }
  }
  std::ostringstream s;
  s << "| section |";
  for (int t : threads)
    s << " total ours/best peer, " << t << " thr | largest | analysis ours/best peer, " << t
      << " thr |";
  s << " matrices |\n|---|";
  for (size_t k = 0; k < threads.size(); ++k) s << "--:|--:|--:|";
  s << "--:|\n";
  for (const std::string &section : sections) {
    s << "| " << section << " |";
    size_t count = 0;
    for (int t : threads) {
      double lt = 0, la = 0, top = 0;
      size_t m = 0, ma = 0;
      for (const auto &[key, o] : ours) {
        if (std::get<0>(key) != section || std::get<2>(key) != t) continue;
        const auto it = best.find(key);
        if (it == best.end()) continue;
        const double r = o.first / it->second.first;
        lt += std::log(r), top = std::max(top, r), ++m;
        // An analysis below the clock's resolution has no ratio.
        if (o.second > 0 && it->second.second > 0)
          la += std::log(o.second / it->second.second), ++ma;
      }
      count = std::max(count, m);
      if (m == 0) {
        s << " - | - | - |";
      } else {
        s << " " << fmt("%.2f", std::exp(lt / m)) << " | " << fmt("%.2f", top) << " | "
          << (ma > 0 ? fmt("%.2f", std::exp(la / ma)) : "-") << " |";
      }
    }
    s << " " << count << " |\n";
  }
  return s.str();
}

// What the backward error target of velmora-solve costs end to end: the
// total with the policy's solve over the total with the library's default
// solve, on velmora's main line of each matrix (geometric mean and largest).
std::string policy_summary(const std::vector<Row> &rows, const std::vector<int> &threads) {
  std::vector<std::string> sections;
  std::map<std::pair<std::string, int>, std::vector<double>> ratios;
  std::map<std::pair<std::string, int>, int> missed;
  for (const Row &w : rows) {
    if (!w.plot || !w.ours || !w.r.failure.empty() || !(w.r.policy > 0)) continue;
    if (std::find(sections.begin(), sections.end(), w.section) == sections.end())
      sections.push_back(w.section);
    const double base = w.r.analyse + w.r.factor + w.r.solve;
    ratios[{w.section, w.threads}].push_back((w.r.analyse + w.r.factor + w.r.policy) / base);
    if (!(w.r.policy_berr <= 1e-14)) ++missed[{w.section, w.threads}];
  }
  std::ostringstream s;
  s << "| section |";
  for (int t : threads) s << " total with target / default, " << t << " thr | largest |";
  s << " missed the target |\n|---|";
  for (size_t k = 0; k < threads.size(); ++k) s << "--:|--:|";
  s << "--:|\n";
  for (const std::string &section : sections) {
    s << "| " << section << " |";
    int miss = 0;
    for (int t : threads) {
      const auto &v = ratios[{section, t}];
      double l = 0, top = 0;
      for (double r : v) l += std::log(r), top = std::max(top, r);
      if (v.empty())
        s << " - | - |";
      else
        s << " " << fmt("%.3f", std::exp(l / v.size())) << " | " << fmt("%.3f", top) << " |";
      miss += missed[{section, t}];
    }
    s << " " << miss << " |\n";
  }
  return s.str();
}

// Factorization time against n, one block per library line and thread
// count: a comment with the thread count, then the title (gnuplot: index,
// columnheader), then the points.
void write_plot_data(const std::string &path, const std::vector<Row> &rows,
                     const std::vector<int> &threads) {
  std::FILE *f = std::fopen(path.c_str(), "w");
  if (!f) return;
  std::vector<std::string> solvers;
  for (const Row &w : rows)
    if (w.plot && std::find(solvers.begin(), solvers.end(), w.solver) == solvers.end())
      solvers.push_back(w.solver);
  bool first = true;
  for (int t : threads)
    for (const std::string &solver : solvers) {
      std::vector<std::pair<int, double>> pts;
      for (const Row &w : rows)
        if (w.plot && w.solver == solver && w.threads == t && w.r.failure.empty() && w.r.factor > 0)
          pts.push_back({w.n, w.r.factor});
      if (pts.empty()) continue;
      std::sort(pts.begin(), pts.end());
      if (!first) std::fprintf(f, "\n\n");
      first = false;
      std::fprintf(f, "# threads %d\n\"%s\"\n", t, solver.c_str());
      for (const auto &[n, time] : pts) std::fprintf(f, "%d %.6g\n", n, time);
    }
  std::fclose(f);
}

std::string dgemm_line(const RunInfo &info) {
  std::ostringstream s;
  bool first = true;
  for (const auto &[t, rate] : info.dgemm) {
    s << (first ? "" : ", ") << fmt("%.1f", rate) << " GFLOP/s at " << t << " thread"
      << (t > 1 ? "s" : "");
    first = false;
  }
  return s.str();
}

void write_results(const std::string &dir, const Options &o, const std::string &args,
                   const std::string &commit, const RunInfo &info, const std::string &best,
                   const std::string &rerun_note, const RunInfo *child,
                   const std::vector<Row> *child_rows, double wall) {
  const std::string path = dir + "/RESULTS.md";
  std::ofstream out(path);
  if (!out) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    return;
  }
  char date[64];
  const std::time_t now = std::time(nullptr);
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  const char *policy = std::getenv("OMP_WAIT_POLICY");
  std::string threads;
  for (int t : o.threads) threads += (threads.empty() ? "" : ", ") + std::to_string(t);
  out << "# Benchmark: velmora against CHOLMOD, UMFPACK, MUMPS and SuperLU\n\n"
      << "Date: " << date << (commit.empty() ? "" : ", commit " + commit) << "\n\n"
      << "Machine: " << cpuinfo_field("model name") << ", " << cpu_count() << " cores, "
      << info.config << ", kernels " << info.corename << "\n\n"
      << "dgemm (n = 2000) in this run: " << dgemm_line(info) << "\n\n"
      << "OpenBLAS kernels: " << rerun_note << "\n\n"
      << "Run: `bash tools/bench.sh" << args << "`; medians of " << o.runs << " runs at " << threads
      << " thread(s); OMP_WAIT_POLICY " << (policy ? policy : "unset") << "; wall time "
      << fmt("%.0f", wall) << " s" << (child ? " (both runs)" : "") << ".\n\n";
  out << "How to read it:\n\n"
         "- Times in seconds, each the median of the runs of a fresh analysis, factorization "
         "and solve of one right-hand side of ones; the solvers of a row take turns, one run "
         "each per round.  The thread count is the OpenMP team and "
         "the OpenBLAS team, both set for every solver.\n"
         "- velmora's factorization runs on the team: with its own nested dissection the "
         "subtrees and the top of the tree (two-level loop), with a given ordering light "
         "subtrees of the tree, then the supernodes above them (classical loop), the math "
         "library on one thread inside "
         "each; small factorizations, and the classical loop on small supernodes, stay on one "
         "thread.  The peers use the threaded OpenBLAS (and MUMPS its OpenMP loops).\n"
         "- spd, elast, real spd: velmora `mtype` 2, CHOLMOD (supernodal) and MUMPS (sym 1) "
         "get one METIS ordering.  kkt, real indef: velmora `mtype` -2 with 2x2 pivots and "
         "MUMPS (sym 2, LDL^T) get one METIS ordering; velmora+match is the symmetric matching "
         "with velmora's own ordering.  lu, real general: velmora `mtype` 11 with its defaults "
         "(METIS, matching, scaling, refinement), UMFPACK defaults, SuperLU COLAMD (threshold "
         "1.0, no refinement) and MUMPS sym 0 with their own orderings; velmora METIS and "
         "superlu METIS are given the METIS ordering of A+A^T.\n"
         "- nnz(factor): entries of the factors as each library reports them (L for Cholesky "
         "and LDL^T, L+U for LU).  GFLOP/s: each library's own operation count of the "
         "factorization over its factorization time.\n"
         "- backward error: ||b - A x||_inf / (||A||_inf ||x||_inf + ||b||_inf).  inertia: "
         "+positive -negative pivots (velmora; CHOLMOD when it completes); MUMPS gives its "
         "count of negative pivots.\n"
         "- factor (solve) ours/peer: velmora's main line over the peer's time, same matrix "
         "and thread count; below 1 velmora is faster.\n\n";
  out << "## Ratios ours/peer (geometric means; factorization range in brackets)\n\n"
      << summary(g_rows, o.threads) << "\n";
  out << "## End to end against the fastest peer\n\n"
         "Total time (analysis + factorization + solve) of velmora's main line over the "
         "smallest total of the peers on the same matrix and thread count, and the same for "
         "the analysis alone; geometric means over the matrices where both succeeded.  Where "
         "the peers get a METIS ordering (spd, elast, kkt, real spd, real indef) so does "
         "velmora, and neither analysis includes it.\n\n"
      << end_to_end_summary(g_rows, o.threads) << "\n";
  out << "## Cost of the backward error target\n\n"
         "velmora-solve solves to a backward error of 1e-14: after the library's solve it "
         "computes the backward error, and when it misses, asks for explicit refinement, then "
         "runs FGMRES on the factor.  Here that policy runs on velmora's factor of each main "
         "line after the timed default solve; the ratio is (analysis + factorization + policy) "
         "over (analysis + factorization + default solve), medians.\n\n"
      << policy_summary(g_rows, o.threads) << "\n";
  out << "## Factorization time against n\n\n![factorization time](factor_time.png)\n\n";
  out << "## Table\n\n" << table(g_rows);
  if (child && child_rows) {
    out << "\n## Second run with OPENBLAS_CORETYPE=" << best << "\n\n"
        << "Kernels " << child->corename << "; dgemm " << dgemm_line(*child) << "\n\n"
        << summary(*child_rows, o.threads) << "\n"
        << table(*child_rows);
  }
  std::printf("\nwrote %s\n", path.c_str());
}

// Runs this program again with OPENBLAS_CORETYPE=`core`, its rows to `rows`.
int run_child(const std::string &core, const std::vector<std::string> &args,
              const std::string &rows) {
  std::vector<std::string> a = {"solver_bench"};
  a.insert(a.end(), args.begin(), args.end());
  a.push_back("--rows");
  a.push_back(rows);
  std::vector<char *> argv;
  for (std::string &s : a) argv.push_back(&s[0]);
  argv.push_back(nullptr);
  setenv("OPENBLAS_CORETYPE", core.c_str(), 1);
  std::fflush(stdout);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv.data(), environ);
  unsetenv("OPENBLAS_CORETYPE");
  if (rc != 0) return -1;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int main(int argc, char **argv) {
  Options o;
  std::string out_dir, commit, rows_file;
  std::vector<std::string> sections, child_args;
  const std::vector<std::string> all = {"spd", "elast", "kkt", "lu", "real"};
  const char *usage =
      "usage: solver_bench [spd] [elast] [kkt] [lu] [real] [matching] [kkt-large] [spd-large]\n"
      "                    [optimiser] [arrowhead]\n"
      "                    [runs] [--quick] [--threads 1,2] [--out DIR] [--commit ID]\n"
      "                    [--rows FILE]\n";
  for (int k = 1; k < argc; ++k) {
    const std::string arg = argv[k];
    const bool has_value = k + 1 < argc;
    if (arg == "--quick") {
      o.quick = true;
    } else if (arg == "--threads" && has_value) {
      o.threads.clear();
      std::stringstream ss(argv[++k]);
      for (std::string t; std::getline(ss, t, ',');)
        if (std::atoi(t.c_str()) > 0) o.threads.push_back(std::atoi(t.c_str()));
      if (o.threads.empty()) o.threads = {1};
      child_args.push_back(arg);
      child_args.push_back(argv[k]);
      continue;
    } else if (arg == "--out" && has_value) {
      out_dir = argv[++k];
      continue;
    } else if (arg == "--commit" && has_value) {
      commit = argv[++k];
      continue;
    } else if (arg == "--rows" && has_value) {
      rows_file = argv[++k];
      continue;
    } else if (arg == "matching" || arg == "kkt-large" || arg == "spd-large" ||
               arg == "optimiser" || arg == "arrowhead" ||
               std::find(all.begin(), all.end(), arg) != all.end()) {
      sections.push_back(arg);
    } else if (std::atoi(argv[k]) > 0) {
      o.runs = std::atoi(argv[k]);
    } else {
      std::fprintf(stderr, "%s", usage);
      return 2;
    }
    child_args.push_back(arg);
  }
  if (sections.empty()) sections = all;
  g_runs = o.runs;
  const double t_start = omp_get_wtime();

  RunInfo info;
  info.corename = openblas_get_corename();
  info.config = openblas_get_config();
  const std::string best = best_coretype();
  const bool child = !rows_file.empty();
  const char *forced = std::getenv("OPENBLAS_CORETYPE");
  std::printf("%s; %d cores; %s; kernels %s%s%s\n", cpuinfo_field("model name").c_str(),
              cpu_count(), info.config.c_str(), info.corename.c_str(),
              forced ? ", OPENBLAS_CORETYPE=" : "", forced ? forced : "");
  for (int t : o.threads) {
    set_threads(t);
    info.dgemm[t] = dgemm_rate();
    std::printf("dgemm %.1f GFLOP/s at %d thread(s)\n", info.dgemm[t], t);
  }
  std::printf("medians of %d runs%s\n", o.runs, o.quick ? " (quick)" : "");

  for (const std::string &s : sections) {
    if (s == "spd") section_spd(o);
    if (s == "elast") section_elast(o);
    if (s == "kkt") section_kkt(o);
    if (s == "lu") section_lu(o);
    if (s == "real") section_real(o);
    if (s == "matching") section_matching(o);
    if (s == "kkt-large") section_kkt(o, true);
    if (s == "spd-large") section_spd_large(o);
    if (s == "optimiser") section_optimiser(o);
    if (s == "arrowhead") section_arrowhead(o);
  }

  if (child) {
    write_rows(rows_file, info);
    return 0;
  }

  // Older kernels than the processor runs: everything again with the best.
  std::string rerun_note;
  RunInfo child_info;
  std::vector<Row> child_rows;
  bool reran = false;
  if (best.empty()) {
    rerun_note = "chosen " + info.corename + "; no better core type known for this processor";
  } else if (core_rank(info.corename) >= core_rank(best)) {
    rerun_note = "chosen " + info.corename + ", as good as the best for the processor's flags (" +
                 best + "): no second run";
  } else {
    std::printf(
        "\nOpenBLAS chose %s, older than %s: the whole run again with "
        "OPENBLAS_CORETYPE=%s\n",
        info.corename.c_str(), best.c_str(), best.c_str());
    const std::string path =
        (out_dir.empty() ? std::string("/tmp") : out_dir) + "/.solver_bench_rows.tsv";
    const int rc = run_child(best, child_args, path);
    reran = rc == 0 && read_rows(path, &child_info, &child_rows);
    std::remove(path.c_str());
    rerun_note = "chosen " + info.corename + ", older than what the processor runs (" + best +
                 "); " +
                 (reran ? "every solver ran a second time with OPENBLAS_CORETYPE=" + best +
                              " (kernels " + child_info.corename + "), below the table"
                        : "the second run with OPENBLAS_CORETYPE=" + best + " failed");
  }
  const double wall = omp_get_wtime() - t_start;
  std::printf("\n%s\nwall time %.0f s\n", rerun_note.c_str(), wall);

  if (!out_dir.empty()) {
    std::string args;
    for (const std::string &a : child_args) args += " " + a;
    write_results(out_dir, o, args, commit, info, best, rerun_note, reran ? &child_info : nullptr,
                  reran ? &child_rows : nullptr, wall);
    write_plot_data(out_dir + "/factor_time.dat", g_rows, o.threads);
  }
  return 0;
}
