// solver_bench - velmora against its peers on generated matrices, one
// section per family, on the threads the environment allows (run with
// OMP_NUM_THREADS=1 for one thread).  First the dgemm rate of the machine.
//
//   solver_bench [spd] [kkt] [lu] [matching] [runs] [--quick]
//
// Without a section word every section runs.  Times are medians of `runs`
// runs (3 by default), each run a fresh analysis, factorization and solve.
//
//   spd       symmetric positive definite grids: velmora (mtype 2), CHOLMOD
//             and MUMPS (sym 1), one METIS ordering given to all three.
//   kkt       KKT matrices [[H, J^T], [J, 0]]: velmora (mtype -2, 2x2
//             pivoting) and MUMPS (sym 2, LDL^T), the same METIS ordering;
//             inertia and backward errors.
//   lu        3D convection-diffusion: velmora (mtype 11, default controls,
//             then the METIS ordering given), UMFPACK (default strategy) and
//             SuperLU (its sequential pieces, COLAMD, then the METIS column
//             order).
//   matching  cost of the maximum-product matching in velmora's analysis
//             (iparm(13) 1 against 0) next to the numeric factorization,
//             and its effect on the size of the factors.
//
// The backward error is the normwise ||b - A x||_inf / (||A||_inf ||x||_inf
// + ||b||_inf) with b all ones.
#include <cholmod.h>
#include <dmumps_c.h>
#include <metis.h>
#include <omp.h>
#include <slu_ddefs.h>
#include <umfpack.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "test_matrices.h"
#include "velmora.h"

// dgemm_ (for the machine's rate) comes declared with slu_ddefs.h.

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

// [[H, J^T], [J, 0]], upper triangle: H the 7-point Laplacian of an m^3
// grid (Dirichlet, SPD), J with `nc` rows, row c coupling a node v_c with
// its +x neighbour and, every other row, its +y neighbour.  The v_c are
// distinct and every other node of a row has a larger index, so the columns
// v_c of J form a triangular block with unit diagonal: J has full rank and
// the inertia is (m^3, nc, 0).  The zero block has its diagonal stored.
Matrix kkt(int m, int nc, unsigned seed) {
  const int nh = m * m * m;
  auto id = [=](int x, int y, int z) { return x + m * (y + m * z); };
  Entries e;
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
  return from_csr("KKT " + std::to_string(m) + "^3+" + std::to_string(nc),
                  testmat::from_entries(nh + nc, e, true), false);
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
  res->analyse = median(ta);
  res->factor = median(tf);
  res->solve = median(ts);
}

// velmora with the defaults of `mtype`, then `setup` on iparm; `order`
// (when not null) handed over as the caller's permutation.
Result run_velmora(const Matrix &m, int mtype, const std::vector<int> *order, int runs,
                   const std::function<void(int *)> &setup = nullptr) {
  std::vector<double> ta, tf, ts;
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
      if (error != 0) std::printf("velmora phase %d: error %d\n", ph, error);
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
    phase(-1);
  }
  set_times(ta, tf, ts, &res);
  return res;
}

Result run_cholmod(const Matrix &m, const std::vector<int> &order, int runs) {
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
  Result res;
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
    set_errors(m, x, std::vector<double>(m.n, 1.0), &res);
    res.nnz = c.lnz;
    res.mflop = c.fl / 1e6;
    cholmod_free_dense(&X, &c);
    cholmod_free_factor(&L, &c);
  }
  cholmod_free_dense(&B, &c);
  cholmod_free_sparse(&A, &c);
  cholmod_finish(&c);
  set_times(ta, tf, ts, &res);
  return res;
}

// Sequential MUMPS on the upper triangle, `sym` 1 (SPD) or 2 (general
// symmetric), with the given ordering; INFOG(12) is its count of negative
// pivots.
Result run_mumps(const Matrix &m, const std::vector<int> &order, int runs, int sym) {
  std::vector<int> irn, jcn, perm_in(m.n);
  for (int i = 0; i < m.n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
      irn.push_back(i + 1), jcn.push_back(m.ja[k]);
  for (int k = 0; k < m.n; ++k) perm_in[order[k] - 1] = k + 1;  // position of each variable
  std::vector<double> ta, tf, ts;
  Result res;
  for (int r = 0; r < runs; ++r) {
    DMUMPS_STRUC_C id;
    std::memset(&id, 0, sizeof id);
    id.job = -1;
    id.par = 1;
    id.sym = sym;
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
      // Workspace too small (delayed pivots): more room, again.
      for (int retry = 0; j == 2 && (id.infog[0] == -8 || id.infog[0] == -9) && retry < 4;
           ++retry) {
        id.icntl[13] += 50;
        dmumps_c(&id);
      }
      if (id.infog[0] < 0) std::printf("mumps job %d: %d\n", j, id.infog[0]);
      return omp_get_wtime() - t0;
    };
    ta.push_back(job(1));
    tf.push_back(job(2));
    ts.push_back(job(3));
    set_errors(m, rhs, std::vector<double>(m.n, 1.0), &res);
    res.neg = id.infog[11];
    res.nnz = id.infog[28] >= 0 ? id.infog[28] : -1e6 * id.infog[28];
    res.mflop = id.rinfog[2] / 1e6;
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

void section_spd(bool quick, int runs) {
  std::printf(
      "\n[spd] SPD grids; the same METIS ordering given to all; residual "
      "||b-Ax||/||b||\n");
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
    const Result ours = run_velmora(m, 2, &order, runs);
    const Result chol = run_cholmod(m, order, runs);
    const Result mumps = run_mumps(m, order, runs, 1);
    const double gflop = ours.mflop / 1e3;
    auto line = [&](const char *who, const Result &t) {
      std::printf("%-15s %-8s %9.3f %9.3f %9.4f %8.1f %9.2f %9.2f   (residual %.1e)\n",
                  m.name.c_str(), who, t.analyse, t.factor, t.solve, gflop / t.factor,
                  ours.factor / t.factor, ours.solve / t.solve, t.residual);
    };
    line("velmora", ours);
    line("cholmod", chol);
    line("mumps", mumps);
    std::fflush(stdout);
  }
}

void section_kkt(bool quick, int runs) {
  std::printf(
      "\n[kkt] [[H, J^T], [J, 0]]: H 7-point Laplacian of a grid, J local constraints\n"
      "      (inertia (grid, constraints, 0)); the same METIS ordering of A+A^T given to "
      "both;\n"
      "      velmora mtype -2, iparm(21) 1, default refinement; MUMPS sym 2, no "
      "refinement.\n"
      "      f ratio = factorization time velmora / peer; inertia +pos -neg (MUMPS: "
      "INFOG(12) negative pivots);\n"
      "      GFLOP: each library's own count of the factorization\n");
  std::vector<std::pair<int, int>> sizes;  // grid side, constraints
  if (quick)
    sizes = {{26, 26 * 26 * 26 / 4}};
  else
    sizes = {{43, 43 * 43 * 43 / 4}, {62, 62 * 62 * 62 / 4}};
  std::printf("%-18s %7s %-8s %8s %8s %8s %8s %8s %7s %15s %9s\n", "matrix", "n", "solver",
              "analyse", "factor", "solve", "nnz(F)M", "GFLOP", "f ratio", "inertia", "berr");
  for (const auto &[side, nc] : sizes) {
    const Matrix m = kkt(side, nc, 7);
    const std::vector<int> order = metis_order(m);
    const Result ours = run_velmora(m, -2, &order, runs, [](int *iparm) { iparm[20] = 1; });
    const Result mumps = run_mumps(m, order, runs, 2);
    auto line = [&](const char *who, const Result &t, const std::string &inertia) {
      std::printf("%-18s %7d %-8s %8.3f %8.3f %8.4f %8.2f %8.1f %7.2f %15s %9.1e\n", m.name.c_str(),
                  m.n, who, t.analyse, t.factor, t.solve, t.nnz / 1e6, t.mflop / 1e3,
                  ours.factor / t.factor, inertia.c_str(), t.berr);
    };
    // With the symmetric matching (iparm(13) 1) the constraint rows are
    // paired with grid nodes and the order is that of the compressed graph.
    const Result matched = run_velmora(m, -2, nullptr, runs, [](int *iparm) {
      iparm[20] = 1;
      iparm[12] = 1;
    });
    line("velmora", ours, "+" + std::to_string(ours.pos) + " -" + std::to_string(ours.neg));
    line("vel+mtch", matched,
         "+" + std::to_string(matched.pos) + " -" + std::to_string(matched.neg));
    line("mumps", mumps, "-" + std::to_string(mumps.neg));
    std::printf(
        "%-18s expected inertia +%d -%d; velmora: %d perturbed pivots, %d refinement "
        "steps; with matching: %d perturbed, %d steps\n",
        "", side * side * side, nc, ours.perturbed, ours.steps, matched.perturbed, matched.steps);
    std::fflush(stdout);
  }
}

void section_lu(bool quick, int runs) {
  std::printf(
      "\n[lu] 3D upwind convection-diffusion (Peclet 3, 1.5, 0.75), one right-hand side "
      "of ones;\n"
      "     velmora mtype 11: default controls (METIS, matching, scaling, refinement), "
      "then the\n"
      "     METIS ordering of A+A^T given; UMFPACK default strategy (its refinement); "
      "SuperLU sequential\n"
      "     pieces (COLAMD or the METIS column order, threshold 1.0, no refinement).\n"
      "     f ratio = factorization time velmora (default) / this line; nnz(F) = L+U "
      "entries;\n"
      "     GFLOP: each library's own count of the factorization\n");
  std::vector<int> sides = quick ? std::vector<int>{20} : std::vector<int>{40, 60};
  std::printf("%-18s %-16s %8s %8s %8s %8s %8s %7s %9s\n", "matrix", "solver", "analyse", "factor",
              "solve", "nnz(F)M", "GFLOP", "f ratio", "berr");
  for (int side : sides) {
    const Matrix m = convection_diffusion(side);
    const std::vector<int> order = metis_order(m);
    const Result ours = run_velmora(m, 11, nullptr, runs);
    auto line = [&](const char *who, const Result &t) {
      if (!t.failure.empty()) {
        std::printf("%-18s %-16s failed: %s\n", m.name.c_str(), who, t.failure.c_str());
      } else {
        std::printf("%-18s %-16s %8.3f %8.3f %8.4f %8.2f %8.1f %7.2f %9.1e%s\n", m.name.c_str(),
                    who, t.analyse, t.factor, t.solve, t.nnz / 1e6, t.mflop / 1e3,
                    ours.factor / t.factor, t.berr,
                    t.runs < runs ? ("   (" + std::to_string(t.runs) + " run)").c_str() : "");
      }
      std::fflush(stdout);
    };
    line("velmora", ours);
    line("velmora METIS", run_velmora(m, 11, &order, runs));
    line("umfpack", run_umfpack(m, runs));
    line("superlu COLAMD", run_superlu(m, nullptr, runs));
    line("superlu METIS", run_superlu(m, &order, runs));
  }
}

void section_matching(bool quick, int runs) {
  std::printf(
      "\n[matching] velmora mtype 11, default controls but iparm(13): analysis with matching (1)\n"
      "           and without (0); extra = the difference, against the factorization with\n"
      "           matching (target extra/factor <= 0.3); factor entries iparm(18) (target ratio\n"
      "           <= 1.2); componentwise backward errors.  Rows permuted (*): without matching\n"
      "           no diagonal is left, so the (0) columns are those of the unpermuted matrix,\n"
      "           which the matching restores: extra is then the cost of a nontrivial matching.\n");
  const int side = quick ? 20 : 40;
  std::printf("%-30s %8s %8s %8s %8s %7s %9s %9s %7s %9s %9s\n", "matrix", "an(13=1)", "an(13=0)",
              "extra", "factor", "ex/fac", "nnz(13=1)", "nnz(13=0)", "ratio", "cberr(1)",
              "cberr(0)");
  Result plain_off;
  for (int variant : {0, 1, 2}) {
    const Matrix m = convection_diffusion(side, variant);
    const Result on = run_velmora(m, 11, nullptr, runs, [](int *iparm) { iparm[12] = 1; });
    const Result off = variant == 2
                           ? plain_off
                           : run_velmora(m, 11, nullptr, runs, [](int *iparm) { iparm[12] = 0; });
    if (variant == 0) plain_off = off;
    const double extra = on.analyse - off.analyse;
    std::printf("%-30s %8.3f %8.3f %8.3f %8.3f %7.3f %9.0f %9.0f %7.3f %9.1e %9.1e\n",
                (m.name + (variant == 2 ? " *" : "")).c_str(), on.analyse, off.analyse, extra,
                on.factor, extra / on.factor, on.nnz, off.nnz, on.nnz / off.nnz, on.cberr,
                off.cberr);
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char **argv) {
  int runs = 3;
  bool quick = false;
  std::vector<std::string> sections;
  const std::vector<std::string> all = {"spd", "kkt", "lu", "matching"};
  for (int k = 1; k < argc; ++k) {
    const std::string arg = argv[k];
    if (arg == "--quick") {
      quick = true;
    } else if (std::find(all.begin(), all.end(), arg) != all.end()) {
      sections.push_back(arg);
    } else if (std::atoi(argv[k]) > 0) {
      runs = std::atoi(argv[k]);
    } else {
      std::fprintf(stderr, "usage: solver_bench [spd] [kkt] [lu] [matching] [runs] [--quick]\n");
      return 2;
    }
  }
  if (sections.empty()) sections = all;
  std::printf("threads %d, dgemm %.1f GFLOP/s, medians of %d runs%s\n", omp_get_max_threads(),
              dgemm_rate(), runs, quick ? " (quick)" : "");
  for (const std::string &s : sections) {
    if (s == "spd") section_spd(quick, runs);
    if (s == "kkt") section_kkt(quick, runs);
    if (s == "lu") section_lu(quick, runs);
    if (s == "matching") section_matching(quick, runs);
  }
  return 0;
}
