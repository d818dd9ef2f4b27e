// unit_solve.cpp - the solve on a supernodal Cholesky factor made here: the
// symbolic factor from the analysis routines, the panels filled from a
// dense LAPACK factor of P S A S^T P^T.  Entries of a panel the solve must
// not read (upper triangles, Schur rows and columns) hold NaN, and so does
// every work array on entry.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "analysis/domains.h"
#include "analysis/ladj_mod.h"
#include "analysis/ordering.h"
#include "analysis/symbolic.h"
#include "solve/gather_scatter.h"
#include "solve/solve.h"
#include "test_matrices.h"

extern "C" void dpotrf_(const char *, const int *, double *, const int *, int *);
extern "C" void dgesv_(const int *, const int *, double *, const int *, int *, double *,
                       const int *, int *);

namespace {

using std::int64_t;
using std::vector;
const double kNaN = std::numeric_limits<double>::quiet_NaN();

vector<double> random_vector(size_t n, double lo, double hi, unsigned seed) {
  return testmat::random_vector(n, seed, lo, hi);
}

struct Options {
  int target = 1;  // domains asked of nested dissection
  int nschur = 0;
  bool scaled = false;
  const vector<int> *mask = nullptr;  // partial solve
};

struct Problem {
  int n = 0, nschur = 0, ntasks = 1, nsuper = 0, k = 0;
  bool scaled = false;
  vector<double> A;  // dense, column-major
  vector<int> perm, xsuper, snode, lindx, domains, unselected;
  vector<int64_t> xlindx, xlnz;
  vector<double> lnz, scale;

  vm::FactorView<double> view() {
    vm::FactorView<double> f;
    f.n = n;
    f.nsuper = nsuper;
    f.xsuper = xsuper.data();
    f.snode = snode.data();
    f.xlindx = xlindx.data();
    f.lindx = lindx.data();
    f.xlnz = xlnz.data();
    f.lnz = lnz.data();
    f.nschur = nschur;
    return f;
  }
  double a(int i, int j) const { return A[(i - 1) + static_cast<size_t>(j - 1) * n]; }
};

// The analysis as the driver runs it (ordering, domains, Schur rows or
// marked rows last, sfinit, REORDER2), then the numeric factor.
Problem make_problem(const testmat::Csr &m, const Options &o) {
  Problem P;
  const int n = m.n;
  P.n = n;
  P.nschur = o.nschur;
  P.scaled = o.scaled;
  P.A.assign(static_cast<size_t>(n) * n, 0.0);
  for (int i = 1; i <= n; ++i)
    for (int p = m.ia[i - 1]; p < m.ia[i]; ++p) {
      const int j = m.ja[p - 1];
      P.A[(i - 1) + (j - 1) * static_cast<size_t>(n)] = m.a[p - 1];
      P.A[(j - 1) + (i - 1) * static_cast<size_t>(n)] = m.a[p - 1];
    }
  vector<int> xadj(n + 1), adjncy(vm::ladj_mod_capacity(n, m.ia.data()));
  vector<int> work(std::max<int64_t>(vm::sfinit_work_size(n), vm::ladj_mod_work_size(n)));
  vm::LADJ_MOD_VELMORA(n, m.ia.data(), m.ja.data(), nullptr, 1, xadj.data(), adjncy.data(),
                       work.data());
  vector<int> invp(n);
  P.perm.resize(n);
  P.domains.assign(2 * (o.target + 2), -1);
  int ndom = 1;
  EXPECT_EQ(vm::ORDER_METIS5_VELMORA(n, xadj.data(), adjncy.data(), nullptr, o.target,
                                     P.perm.data(), invp.data(), P.domains.data(), &ndom),
            0);
  if (o.mask != nullptr || ndom < 2) {
    ndom = 1;
    vm::move_schur_rows_last(n, P.perm.data(), o.nschur, work.data());
  } else if (vm::regroup_domains(n, P.perm.data(), P.domains.data(), &ndom, o.nschur,
                                 work.data()) != 0) {
    ndom = 1;
  }
  P.unselected.assign(n, 0);
  if (o.mask != nullptr) {
    P.k = vm::move_marked_rows_last(n, P.perm.data(), o.mask->data(), work.data());
    for (int j = 1, c = 0; j <= n; ++j) P.unselected[j - 1] = c += (*o.mask)[j - 1] == 0;
  }
  ndom = vm::close_domain_list(n, P.domains.data(), ndom);
  for (int i = 0; i < n; ++i) invp[P.perm[i] - 1] = i + 1;
  vector<int> parent(n), colcnt(n);
  P.snode.resize(n);
  P.xsuper.resize(n + 1);
  int64_t nnzl = 0, nsub = 0;
  EXPECT_EQ(
      vm::sfinit(n, &ndom, P.domains.data(), xadj.data(), adjncy.data(), P.perm.data(), invp.data(),
                 parent.data(), colcnt.data(), &nnzl, &nsub, &P.nsuper, P.snode.data(),
                 P.xsuper.data(), work.data(), 12, o.nschur, vm::kSchurPostorder),
      0);
  P.ntasks = ndom;
  const int ns = P.nsuper;
  vector<int> sp(ns), fc(ns), nx(ns), tl(ns), uf(ns), un(ns), nmod(ns);
  vector<int> w2(vm::reorder2_work_size(n, ns));
  P.xlindx.resize(ns + 1);
  P.lindx.resize(nsub);
  P.xlnz.resize(n + 1);
  vm::SymbolicCounts counts{};
  EXPECT_EQ(vm::REORDER2_VELMORA(
                vm::Reorder2Input{n, ns, xadj.data(), adjncy.data(), P.perm.data(), invp.data(),
                                  P.xsuper.data(), P.snode.data(), colcnt.data(), ndom,
                                  P.domains.data(), 0, 0, 0, 0, nsub},
                vm::Reorder2Output{parent.data(), sp.data(), fc.data(), nx.data(), tl.data(),
                                   P.xlindx.data(), P.lindx.data(), P.xlnz.data(), nullptr,
                                   uf.data(), un.data(), nmod.data()},
                &counts, w2.data()),
            0);

  // B = P S A S P^T, its leading n - nschur block factored densely.
  P.scale = o.scaled ? random_vector(2 * n, 0.5, 2.0, 11) : vector<double>(2 * n, 1.0);
  vector<double> B(static_cast<size_t>(n) * n);
  for (int c = 1; c <= n; ++c)
    for (int r = 1; r <= n; ++r) {
      const int i = P.perm[r - 1], j = P.perm[c - 1];
      B[(r - 1) + (c - 1) * static_cast<size_t>(n)] = P.scale[i - 1] * P.a(i, j) * P.scale[j - 1];
    }
  const int m1 = n - o.nschur;
  int info = 0;
  if (m1 > 0) dpotrf_("L", &m1, B.data(), &n, &info);
  EXPECT_EQ(info, 0);
  P.lnz.assign(P.xlnz[n] - 1, kNaN);
  for (int s = 1; s <= ns; ++s) {
    const int first = P.xsuper[s - 1];
    const int64_t len = P.xlnz[first] - P.xlnz[first - 1];
    const int *rows = P.lindx.data() + P.xlindx[s - 1] - 1;
    for (int c = 0; first + c < P.xsuper[s]; ++c)
      for (int r = c; r < len; ++r)
        if (first + c <= m1 && rows[r] <= m1)
          P.lnz[P.xlnz[first - 1] - 1 + r + c * len] =
              B[(rows[r] - 1) + (first + c - 1) * static_cast<size_t>(n)];
  }
  return P;
}

vm::SolveInput input_for(const Problem &P, int nrhs) {
  vm::SolveInput in;
  in.n = P.n;
  in.nrhs = nrhs;
  in.scaling_on = P.scaled;
  in.scale = P.scale.data();
  in.perm = P.perm.data();
  in.unselected = P.unselected.data();
  in.ntasks = P.ntasks;
  in.taskrange = P.domains.data();
  return in;
}

struct Result {
  vector<double> x, b;
};

// One call with work arrays full of NaN; x starts at 7.
Result run(Problem &P, const vm::SolveInput &in, vector<double> b) {
  const vm::SolveWorkSize sz = vm::solve_work_size(in);
  vector<double> scalars(sz.scalars(), kNaN);
  vector<int> ints(sz.starts, -7);
  const auto w = vm::solve_work_carve<double>(sz, scalars.data(), ints.data());
  Result r{vector<double>(b.size(), 7.0), std::move(b)};
  int error = 1;
  vm::SOLVE_VELMORA<double>(P.view(), in, r.b.data(), r.x.data(), w, &error);
  EXPECT_EQ(error, vm::kSolveOk);
  return r;
}

// max over columns of |A x - b| / (|A| |x| + |b|), infinity norms, over
// the original indices 1..rows.
double backward_error(const Problem &P, const vector<double> &x, const vector<double> &b,
                      int rows) {
  double anorm = 0, eta = 0;
  for (int i = 1; i <= rows; ++i) {
    double s = 0;
    for (int j = 1; j <= rows; ++j) s += std::abs(P.a(i, j));
    anorm = std::max(anorm, s);
  }
  for (size_t c = 0; c < b.size() / P.n; ++c) {
    const double *xc = x.data() + c * P.n, *bc = b.data() + c * P.n;
    double rmax = 0, xmax = 0, bmax = 0;
    for (int i = 1; i <= rows; ++i) {
      double r = -bc[i - 1];
      for (int j = 1; j <= rows; ++j) r += P.a(i, j) * xc[j - 1];
      rmax = std::max(rmax, std::abs(r));
      xmax = std::max(xmax, std::abs(xc[i - 1]));
      bmax = std::max(bmax, std::abs(bc[i - 1]));
    }
    eta = std::max(eta, rmax / (anorm * xmax + bmax));
  }
  return eta;
}

const testmat::Csr &grid() {
  static const testmat::Csr m = testmat::grid_laplacian(9, 8, 7, true);
  return m;
}

TEST(Solve, OneRightHandSideSerialAndOverTasks) {
  for (int target : {1, 2, 4}) {
    Problem P = make_problem(grid(), {target});
    EXPECT_EQ(P.ntasks, target);
    const auto b = random_vector(P.n, -1, 1, target);
    for (int parallel : {0, 1})
      for (int to_b : {0, 1}) {
        SCOPED_TRACE(testing::Message() << target << " tasks, parallel " << parallel);
        vm::SolveInput in = input_for(P, 1);
        in.parallel = parallel;
        in.to_b = to_b;
        const Result r = run(P, in, b);
        EXPECT_LT(backward_error(P, to_b ? r.b : r.x, b, P.n), 1e-14);
        if (to_b) {
          EXPECT_EQ(r.x, vector<double>(P.n, 7.0));
        }
      }
  }
}

TEST(Solve, SelectorsSplitTheSolve) {
  Problem P = make_problem(grid(), {2, 0, true});
  for (int nrhs : {1, 16})
    for (int parallel : {0, 1}) {
      SCOPED_TRACE(testing::Message() << nrhs << " rhs, parallel " << parallel);
      vm::SolveInput in = input_for(P, nrhs);
      in.parallel = parallel;
      in.nthreads = 3;
      const auto b = random_vector(static_cast<size_t>(nrhs) * P.n, -1, 1, 9);
      const auto full = run(P, in, b).x;
      in.selector = 1;
      const auto half = run(P, in, b).x;
      in.to_b = 1;
      EXPECT_EQ(run(P, in, b).b, half);  // b takes the forward result
      in.to_b = 0;
      in.selector = 2;
      EXPECT_EQ(run(P, in, half).x, full);
      in.selector = -2;
      EXPECT_EQ(run(P, in, b).x, b);
      if (nrhs == 1) {  // the square root of D is folded into L
        in.selector = -12;
        EXPECT_EQ(run(P, in, b).x, half);
        in.selector = -23;
        EXPECT_EQ(run(P, in, half).x, full);
      } else {  // the block kernels know neither -12 nor -23
        in.selector = -12;
        const auto x = run(P, in, b).x;
        for (int i = 1; i <= P.n; ++i) {
          const int j = P.perm[i - 1];
          EXPECT_EQ(x[i - 1], b[j - 1] * P.scale[j - 1]);
        }
      }
    }
}

// A right-hand side that is zero in its leading elimination positions: the
// serial form and the block kernels start the forward pass at the first
// supernode where a right-hand side is nonzero, so NaN in the panels before
// it cannot show.
TEST(Solve, LeadingZeroSkip) {
  Problem P = make_problem(grid(), {1});
  const int cut = P.n / 2, nrhs = 16;
  auto b = random_vector(static_cast<size_t>(nrhs) * P.n, -1, 1, 3);
  for (int c = 0; c < nrhs; ++c)
    for (int i = 1; i < cut; ++i) b[c * P.n + P.perm[i - 1] - 1] = 0.0;
  for (int m : {1, nrhs}) {
    const vector<double> bm(b.begin(), b.begin() + m * P.n);
    vm::SolveInput in = input_for(P, m);
    EXPECT_LT(backward_error(P, run(P, in, bm).x, bm, P.n), 1e-14);
    in.selector = 1;
    const auto forward = run(P, in, bm).x;
    Problem poisoned = P;
    const int skip_to = P.xsuper[P.snode[cut - 1] - 1];
    std::fill(poisoned.lnz.begin(), poisoned.lnz.begin() + (P.xlnz[skip_to - 1] - 1), kNaN);
    EXPECT_EQ(run(poisoned, in, bm).x, forward);
    if (m > 1) {  // a later right-hand side without leading zeros moves the start
      vector<double> dense_second = bm;
      for (int i = 0; i < P.n; ++i) dense_second[P.n + i] = 1.0;
      vm::SolveInput full = input_for(P, m);
      EXPECT_LT(backward_error(P, run(P, full, dense_second).x, dense_second, P.n), 1e-14);
    }
  }
}

TEST(Solve, PartialSolve) {
  // All nodes marked: the same as a full solve.
  const vector<int> ones(grid().n, 1);
  Problem P = make_problem(grid(), {1, 0, true, &ones});
  ASSERT_EQ(P.k, P.n);
  for (int nrhs : {1, 16}) {
    vm::SolveInput in = input_for(P, nrhs);
    const auto b = random_vector(static_cast<size_t>(nrhs) * P.n, -1, 1, 6);
    const auto full = run(P, in, b).x;
    in.partial = 1;
    in.k = in.fwnodes = in.bwnodes = P.k;
    in.parallel = 0;
    EXPECT_EQ(run(P, in, b).x, full);
  }

  // A third of the nodes marked, compressed vectors: the marked entries of
  // the full solution of a right-hand side that lives on the marked nodes.
  vector<int> mask(grid().n, 0);
  for (size_t j = 0; j < mask.size(); j += 3) mask[j] = 1;
  Problem Q = make_problem(grid(), {1, 0, true, &mask});
  const int k = Q.k;
  ASSERT_GT(k, 0);
  for (int nrhs : {1, 3}) {
    vm::SolveInput in = input_for(Q, nrhs);
    vector<double> b(static_cast<size_t>(nrhs) * Q.n, 0.0), bc(static_cast<size_t>(nrhs) * k);
    const auto v = random_vector(b.size(), -1, 1, 8);
    for (int c = 0; c < nrhs; ++c)
      for (int j = 1; j <= Q.n; ++j)
        if (mask[j - 1]) {
          b[c * Q.n + j - 1] = v[c * Q.n + j - 1];
          bc[c * k + j - 1 - Q.unselected[j - 1]] = b[c * Q.n + j - 1];
        }
    const auto full = run(Q, in, b).x;
    in.partial = 2;
    in.k = in.fwnodes = in.bwnodes = k;
    in.parallel = 0;
    const auto xc = run(Q, in, bc).x;
    for (int c = 0; c < nrhs; ++c)
      for (int j = 1; j <= Q.n; ++j)
        if (mask[j - 1]) {
          EXPECT_NEAR(xc[c * k + j - 1 - Q.unselected[j - 1]], full[c * Q.n + j - 1], 1e-13);
        }
  }
}

}  // namespace
