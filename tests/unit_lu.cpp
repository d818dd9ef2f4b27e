// unit_lu.cpp - the LU families: dgetrf_p, the supernodal loop of both
// members (every update kernel), solves with A and A^T for one and many
// right-hand sides, serial and over subtree tasks, perturbation and
// failures, scaling with a row permutation, the log-determinant.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include "factor/blklu.h"
#include "factor/dense_kernels.h"
#include "factor/factor_shell.h"
#include "factor_setup.h"
#include "interface/control.h"
#include "matrix_folder.h"
#include "solve/solve.h"
#include "test_matrices.h"

extern "C" void dgetrf_(const int *, const int *, double *, const int *, int *, int *);

namespace {

using factor_setup::Ordering;
using std::vector;

using testmat::random_vector;

// Unsymmetric pattern and values, diagonal above the row's other entries.
testmat::Csr random_dominant(int n, double density, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0), coin(0.0, 1.0);
  std::vector<std::pair<std::pair<int, int>, double>> e;
  for (int i = 0; i < n; ++i) {
    double sum = 1.0;
    for (int j = 0; j < n; ++j)
      if (j != i && coin(rng) < density) {
        e.push_back({{i, j}, u(rng)});
        sum += std::fabs(e.back().second);
      }
    e.push_back({{i, i}, sum});
  }
  return testmat::from_entries(n, e, false);
}

struct Lu {
  factor_setup::Symbolic s;
  vector<double> lnz;
  factor_setup::LuStorage lu;
  factor_setup::Records rec;
  vm::FactorScalars sc;
  double logdet = 0.0;
};

// Analyses a (every entry stored) and runs the member of mtype 1 or 11;
// `prepare` may change the records first.
template <class F>
void factor(Lu &r, const testmat::Csr &a, int mtype, Ordering o, int width, F prepare,
            const int *rowmap = nullptr, int nschur = 0) {
  r.s = factor_setup::analyse(a, o, width, nschur, 1, true, rowmap);
  ASSERT_EQ(r.s.status, 0);
  r.rec = factor_setup::records(r.s, a, &r.lnz, &r.lu);
  r.sc.logdet = &r.logdet;
  prepare(r);
  if (mtype == 1) {
    vm::BLKLU_SEQ_VELMORA(r.rec.view, r.rec.input, r.rec.work, r.sc);
  } else {
    vm::BLKLU_UNSYM_SEQ_VELMORA(r.rec.view, r.rec.input, r.rec.work, r.sc);
  }
}
void factor(Lu &r, const testmat::Csr &a, int mtype, Ordering o, int width) {
  factor(r, a, mtype, o, width, [](Lu &) {});
}

// Subtree tasks of the supernodal tree: the children of the highest
// supernode with two or more, each with its subtree, in the layout of the
// analysis' domains; empty when a subtree is not a range of supernodes.
vector<int> subtree_tasks(const factor_setup::Symbolic &s) {
  const int ns = s.nsuper;
  vector<int> parent(ns + 1, 0), size(ns + 1, 1);  // by supernode, from 1
  vector<vector<int>> kids(ns + 1);
  for (int k = 1; k <= ns; ++k) {
    const int ncols = s.xsuper[k] - s.xsuper[k - 1];
    if (s.xlindx[k] - s.xlindx[k - 1] == ncols) continue;
    parent[k] = s.snode[s.lindx[s.xlindx[k - 1] - 1 + ncols] - 1];
    kids[parent[k]].push_back(k);
    size[parent[k]] += size[k];
  }
  for (int k = 1; k <= ns; ++k)
    if (parent[k] == 0) kids[0].push_back(k);  // node 0 stands above the roots
  int top = 0;
  while (kids[top].size() == 1) top = kids[top][0];
  vector<int> range;
  for (int c : kids[top]) range.insert(range.end(), {c - size[c] + 1, c});
  range.insert(range.end(), {top == 0 ? ns + 1 : top, ns});
  for (size_t t = 0; t + 2 < range.size(); t += 2)
    for (int k = range[t]; k <= range[t + 1]; ++k) {
      int p = k;
      while (p != 0 && p != range[t + 1]) p = parent[p];
      if (p == 0) return {};
    }
  return range;
}

struct SolveCase {
  int mtype, nrhs, trans;
  const vector<int> *tasks = nullptr;  // the one-rhs task form when set
  const vm::MatrixInput *scaled = nullptr;
};

// SOLVE_VELMORA on a random right-hand side; returns the backward error.
double solve(Lu &r, const testmat::Csr &a, const SolveCase &c) {
  vm::SolveInput in;
  in.n = a.n;
  in.nrhs = c.nrhs;
  in.mtype = c.mtype;
  in.transposed = c.trans;
  in.perm = r.s.perm.data();
  in.nthreads = 3;
  if (c.tasks != nullptr) {
    in.ntasks = static_cast<int>(c.tasks->size() / 2) - 1;
    in.taskrange = c.tasks->data();
  }
  if (c.scaled != nullptr) {
    in.scaling_on = 1;
    in.scale = c.scaled->scale;
    in.q = c.scaled->q;
  }
  const vm::SolveWorkSize sz = vm::solve_work_size(in);
  vector<double> work(sz.scalars() + 1, std::nan("")), x(a.n * c.nrhs, 7.0);
  vector<int> ints(sz.starts + 1);
  vector<double> b = random_vector(x.size(), 17);
  int error = 1;
  vm::SOLVE_VELMORA<double>(r.rec.view, in, b.data(), x.data(),
                            vm::solve_work_carve<double>(sz, work.data(), ints.data()), &error);
  EXPECT_EQ(error, vm::kSolveOk);
  return testmat::backward_error(a, x.data(), b.data(), static_cast<int>(b.size()) / a.n, false,
                                 c.trans != 0);
}

// ---- dgetrf_p

TEST(DgetrfP, ZeroBlockTiesAndArguments) {
  const int n = 5, lda = 7;
  vector<double> a(lda * n, 0.0);
  vector<int> ipiv(n), jpiv(n);
  int npert = 0, info = 1;
  vm::dgetrf_p<double>(n, n, a.data(), lda, ipiv.data(), jpiv.data(), &npert, 0.0, &info);
  EXPECT_EQ(info, 0);
  EXPECT_EQ(npert, n);
  for (int k = 0; k < n; ++k) {
    EXPECT_EQ(a[k + k * lda], 1e-13);
    EXPECT_EQ(ipiv[k], n);  // the last entry scanned wins every tie
    EXPECT_EQ(jpiv[k], n);
  }
  // |a(3,1)| = |a(1,2)| = 4: the later column wins; a tiny negative pivot
  // stays negative.
  vector<double> t = {1, 0, 4, -4, 1, 0, 0, 0, 1}, tiny = {-1e-9};
  vm::dgetrf_p<double>(3, 3, t.data(), 3, ipiv.data(), jpiv.data(), &npert, 1e-6, &info);
  EXPECT_EQ(ipiv[0], 1);
  EXPECT_EQ(jpiv[0], 2);
  vm::dgetrf_p<double>(1, 1, tiny.data(), 1, ipiv.data(), jpiv.data(), &npert, 1e-6, &info);
  EXPECT_EQ(tiny[0], -1e-6);
  EXPECT_EQ(npert, n + 1);
  vm::dgetrf_p<double>(-1, n, a.data(), lda, ipiv.data(), jpiv.data(), &npert, 0.0, &info);
  EXPECT_EQ(info, -1);
  vm::dgetrf_p<double>(n, -1, a.data(), lda, ipiv.data(), jpiv.data(), &npert, 0.0, &info);
  EXPECT_EQ(info, -2);
  vm::dgetrf_p<double>(n, n, a.data(), n - 1, ipiv.data(), jpiv.data(), &npert, 0.0, &info);
  EXPECT_EQ(info, -4);
}

TEST(DgetrfP, ReconstructsPAQ) {
  const int n = 30, lda = 33;
  vector<double> a = random_vector(lda * n, 3), pa = a;
  vector<int> ipiv(n), jpiv(n);
  int npert = 0, info = 1;
  vm::dgetrf_p<double>(n, n, a.data(), lda, ipiv.data(), jpiv.data(), &npert, 0.0, &info);
  ASSERT_EQ(info, 0);
  EXPECT_EQ(npert, 0);
  for (int k = 0; k < n; ++k) {
    for (int j = 0; j < n; ++j) std::swap(pa[k + j * lda], pa[ipiv[k] - 1 + j * lda]);
    for (int i = 0; i < n; ++i) std::swap(pa[i + k * lda], pa[i + (jpiv[k] - 1) * lda]);
  }
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) {
      double s = i <= j ? a[i + j * lda] : 0.0;
      for (int k = 0; k < std::min(i, j + 1); ++k) s += a[i + k * lda] * a[k + j * lda];
      EXPECT_NEAR(s, pa[i + j * lda], 1e-14 * n);
    }
}

// ---- factorization and solves

TEST(Lu, SolvesWithAAndItsTranspose) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  vm::UpdateKernelCounts counts;
  vm::set_lu_update_kernel_counts(&counts);
  int task_runs = 0;
  struct Case {
    const char *name;
    testmat::Csr a;
    Ordering o;
  };
  const vector<Case> cases = {
      {"convection", testmat::convection_diffusion(8, 7, 6, 3.0), Ordering::kMetis},
      // long runs of the target's rows: blocks written straight into the panels
      {"convection 12^3", testmat::convection_diffusion(12, 12, 12, 3.0), Ordering::kMetis},
      {"random", random_dominant(150, 0.03, 4), Ordering::kAmd},
      {"dense", testmat::dense(60, false), Ordering::kNatural},
      {"olm500", testmat::from_file("olm500.mtx", false), Ordering::kAmd},
      {"cage5", testmat::from_file("cage5.mtx", false), Ordering::kAmd},
      {"temp", testmat::from_file("temp.mtx", false), Ordering::kAmd},
      {"pts5ldd03", testmat::from_file("pts5ldd03.mtx", false), Ordering::kMetis}};
  for (const Case &c : cases) {
    ASSERT_GT(c.a.n, 0) << c.name;
    for (int mtype : {1, 11})
      for (int width : {1, 8, 80}) {
        SCOPED_TRACE(testing::Message() << c.name << " mtype " << mtype << " width " << width);
        Lu r;
        factor(r, c.a, mtype, c.o, width);
        ASSERT_EQ(r.sc.iflag, 0);
        const vector<int> tasks = subtree_tasks(r.s);
        for (int trans : {0, 1}) {
          EXPECT_LT(solve(r, c.a, {mtype, 1, trans}), 1e-13);
          EXPECT_LT(solve(r, c.a, {mtype, 8, trans}), 1e-13);
          if (tasks.size() > 2) {
            EXPECT_LT(solve(r, c.a, {mtype, 1, trans, &tasks}), 1e-13);
            ++task_runs;
          }
        }
      }
  }
  vm::set_lu_update_kernel_counts(nullptr);
  EXPECT_GT(task_runs, 0);
  EXPECT_GT(counts.coinciding, 0);
  EXPECT_GT(counts.rank1, 0);
  EXPECT_GT(counts.buffered, 0);
  EXPECT_GT(counts.split, 0);
  EXPECT_GT(counts.direct, 0);
}

// A zero first pivot: the structurally symmetric member stops, the general
// one replaces it (1e-13 with iparm(10) = 0) and counts it.
TEST(Lu, SingularBlockFailsOnlyWithoutPerturbation) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  testmat::Csr a = testmat::convection_diffusion(5, 4, 1, 1.0);
  a.a[a.ia[0] - 1] = 0.0;  // a(1,1), first in its row
  Lu r1, r11;
  factor(r1, a, 1, Ordering::kNatural, 1);
  EXPECT_EQ(r1.sc.iflag, -1);
  factor(r11, a, 11, Ordering::kNatural, 1);
  EXPECT_EQ(r11.sc.iflag, 0);
  EXPECT_EQ(r11.sc.perturbed, 1);
  EXPECT_EQ(r11.lnz[0], 1e-13);

  // Zero diagonals without a matching: the general member perturbs.
  const testmat::Csr w = testmat::from_file("west0479.mtx", false);
  Lu rw;
  factor(rw, w, 11, Ordering::kAmd, 80);
  EXPECT_EQ(rw.sc.iflag, 0);
  EXPECT_GT(rw.sc.perturbed, 0);
}

TEST(Lu, BufferTooSmallAndSchurCount) {
  const testmat::Csr a = testmat::convection_diffusion(6, 6, 6, 2.0);
  Lu r;
  factor(r, a, 11, Ordering::kMetis, 80, [](Lu &lu) { lu.rec.work.tmpsiz = 1; });
  EXPECT_EQ(r.sc.iflag, -2);
  Lu s;
  const int nschur = 10;
  factor(
      s, a, 1, Ordering::kAmd, 4, [](Lu &) {}, nullptr, nschur);
  ASSERT_EQ(s.sc.iflag, 0);
  std::int64_t expect = 0;
  for (int k = 1; k <= s.s.nsuper; ++k) {
    const std::int64_t c = s.s.xsuper[k] - s.s.xsuper[k - 1],
                       rows = s.s.xlindx[k] - s.s.xlindx[k - 1];
    if (s.s.xsuper[k] - 1 > a.n - nschur) expect += (2 * rows - c) * c;
  }
  EXPECT_GT(expect, 0);
  EXPECT_EQ(s.sc.schur_nnz, expect);
}

// Scaled on both sides, and for the general type with its rows permuted by
// a matching q, factored through the shell with determinant 1: the solves
// still answer A x = b and A^T x = b, and the shell sums log|det A|.  (The
// structurally symmetric type takes one factor per index and no q.)
TEST(Lu, ScaledSolveAndLogDeterminant) {
  const testmat::Csr b = random_dominant(120, 0.05, 8);
  const int n = b.n;
  vector<int> q(n);
  std::iota(q.begin(), q.end(), 1);
  std::shuffle(q.begin(), q.end(), std::mt19937(9));
  std::vector<std::pair<std::pair<int, int>, double>> e;  // row q(i) of A is row i of B
  for (int i = 1; i <= n; ++i)
    for (int k = b.ia[i - 1]; k < b.ia[i]; ++k)
      e.push_back({{q[i - 1] - 1, b.ja[k - 1] - 1}, b.a[k - 1]});
  const testmat::Csr qb = testmat::from_entries(n, e, false);
  vector<double> scale = random_vector(2 * n, 5);
  for (double &v : scale) v = std::exp2(3 * v);

  for (int mtype : {1, 11}) {
    const testmat::Csr &a = mtype == 1 ? b : qb;
    vector<double> sc = scale;
    if (mtype == 1) std::copy(sc.begin(), sc.begin() + n, sc.begin() + n);
    vector<double> dense(n * n, 0.0);
    for (int i = 1; i <= n; ++i)
      for (int k = a.ia[i - 1]; k < a.ia[i]; ++k) dense[i - 1 + (a.ja[k - 1] - 1) * n] = a.a[k - 1];
    vector<int> ipiv(n);
    int info = 0;
    dgetrf_(&n, &n, dense.data(), &n, ipiv.data(), &info);
    double expect = 0.0;
    for (int i = 0; i < n; ++i) expect += std::log(std::fabs(dense[i + i * n]));

    Lu r;
    factor(
        r, a, mtype, Ordering::kAmd, 16, [](Lu &) {}, mtype == 1 ? nullptr : q.data());
    r.rec.input.scale = sc.data();
    r.rec.input.scaling_on = 1;
    r.rec.input.q = mtype == 1 ? nullptr : q.data();
    const vm::FactorView<double> &t = r.rec.view;
    const vm::FactorView<void> view =
        vm::numeric_factor<void>(t, t.lnz, t.unz, t.pivot, t.pivot_col);
    vm::FactorWork<void> work = factor_setup::untyped(r.rec.work);
    vm::FactorOptions opt;
    opt.mtype = mtype;
    opt.symmetric_pattern = 0;
    opt.determinant = 1;
    vm::FactorTimes times;
    ASSERT_EQ(vm::FACTOR_SHELL_VELMORA(opt, view, r.rec.input, work, &times, &r.sc), 0);
    EXPECT_NEAR(times.logdet, expect, 1e-10 * std::fabs(expect));
    for (int trans : {0, 1})
      for (int nrhs : {1, 8}) {
        EXPECT_LT(solve(r, a, {mtype, nrhs, trans, nullptr, &r.rec.input}), 1e-13)
            << mtype << " " << trans << " " << nrhs;
      }
  }
}

}  // namespace
