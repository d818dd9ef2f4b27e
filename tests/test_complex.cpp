// Complex and Hermitian systems through the public interface: mtype 3, 4,
// -4, 6 and 13 on generated matrices and on the complex files of the
// matrix folder.  One checker serves every type: it runs the phases,
// forms the residual in complex arithmetic from the stored triangle or the
// whole matrix, and reports the backward error
// ||b - A x||_inf / (||A||_inf ||x||_inf + ||b||_inf) over all right-hand
// sides; inertia is compared with the eigenvalues of LAPACK's zheev.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "velmora.h"

using cplx = std::complex<double>;

extern "C" void zheev_(const char *, const char *, const int *, cplx *, const int *, double *,
                       cplx *, const int *, double *, int *);
extern "C" void zgetrf_(const int *, const int *, cplx *, const int *, int *, int *);

namespace {

// How a type stores its matrix: the whole matrix (3, 13), or the upper
// triangle by rows of a Hermitian (4, -4) or complex symmetric (6) one.
enum class Storage { kFull, kHermitian, kSymmetric };

struct Entry {
  int i, j;
  cplx v;
};

// Compressed rows, one-based, values as complex numbers (the library reads
// them as pairs of doubles).
struct ZCsr {
  int n = 0;
  Storage storage = Storage::kFull;
  std::vector<int> ia{1}, ja;
  std::vector<cplx> a;
};

// From zero-based entries of the whole matrix or of either triangle: for a
// triangular storage an entry below the diagonal moves to its mirror place
// above, conjugated when Hermitian.  Repeated entries add up.
ZCsr from_entries(int n, std::vector<Entry> e, Storage storage) {
  if (storage != Storage::kFull)
    for (Entry &x : e)
      if (x.i > x.j) {
        std::swap(x.i, x.j);
        if (storage == Storage::kHermitian) x.v = std::conj(x.v);
      }
  std::sort(e.begin(), e.end(),
            [](const Entry &p, const Entry &q) { return std::tie(p.i, p.j) < std::tie(q.i, q.j); });
  ZCsr m;
  m.n = n;
  m.storage = storage;
  m.ia.assign(n + 1, 0);
  for (size_t k = 0; k < e.size(); ++k) {
    if (k > 0 && e[k].i == e[k - 1].i && e[k].j == e[k - 1].j) {
      m.a.back() += e[k].v;
      continue;
    }
    ++m.ia[e[k].i + 1];
    m.ja.push_back(e[k].j + 1);
    m.a.push_back(e[k].v);
  }
  m.ia[0] = 1;
  for (int i = 0; i < n; ++i) m.ia[i + 1] += m.ia[i];
  return m;
}

// Calls f(i, j, v) for every entry of the whole matrix, mirrored ones
// included (zero-based).
template <class F>
void for_each_entry(const ZCsr &m, F f) {
  for (int i = 0; i < m.n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
      const int j = m.ja[k] - 1;
      f(i, j, m.a[k]);
      if (i == j || m.storage == Storage::kFull) continue;
      f(j, i, m.storage == Storage::kHermitian ? std::conj(m.a[k]) : m.a[k]);
    }
}

// ---- generated matrices ------------------------------------------------

// Grid of nx*ny*nz nodes; calls edge(i, j, d) for each neighbour pair i < j
// along direction d and node(i) for each node.
template <class Node, class Edge>
void grid(int nx, int ny, int nz, Node node, Edge edge) {
  auto id = [=](int x, int y, int z) { return x + nx * (y + ny * z); };
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        const int i = id(x, y, z);
        node(i);
        if (x + 1 < nx) edge(i, id(x + 1, y, z), 0);
        if (y + 1 < ny) edge(i, id(x, y + 1, z), 1);
        if (z + 1 < nz) edge(i, id(x, y, z + 1), 2);
      }
}

// Hermitian grid Laplacian with complex couplings and a real diagonal:
// positive definite for diag 6.5 (the couplings of a row sum to at most
// 6.33 in magnitude), indefinite for a smaller one.
ZCsr hermitian_grid(int nx, int ny, int nz, double diag) {
  const cplx off[3] = {{-1.0, 0.5}, {-1.0, -0.3}, {-0.8, 0.6}};
  std::vector<Entry> e;
  grid(
      nx, ny, nz,
      [&](int i) {
        e.push_back({i, i, diag});
      },
      [&](int i, int j, int d) {
        e.push_back({i, j, off[d]});
      });
  return from_entries(nx * ny * nz, e, Storage::kHermitian);
}

// [[H, J^H], [J, 0]]: H the Hermitian 2D grid above, each constraint row
// coupling two or three neighbouring nodes from its own first node (full
// row rank); the constraint rows store no diagonal.
ZCsr hermitian_kkt(int m, int constraints, unsigned seed) {
  const ZCsr h = hermitian_grid(m, m, 1, 6.5);
  const int nh = h.n;
  std::vector<Entry> e;
  for (int i = 0; i < nh; ++i)
    for (int k = h.ia[i] - 1; k < h.ia[i + 1] - 1; ++k) e.push_back({i, h.ja[k] - 1, h.a[k]});
  std::vector<int> nodes(nh - 2);
  for (int i = 0; i < nh - 2; ++i) nodes[i] = i;
  std::shuffle(nodes.begin(), nodes.end(), std::mt19937(seed));
  for (int c = 0; c < constraints; ++c) {
    const int node = nodes[c];
    e.push_back({node, nh + c, {1.0, 0.5}});
    e.push_back({node + 1, nh + c, {-0.5, 0.25}});
    if (c % 2 == 0) e.push_back({node + 2, nh + c, {0.0, 0.25}});
  }
  return from_entries(nh + constraints, e, Storage::kHermitian);
}

// Random sparse matrix with about 4 entries a row: a real diagonal of
// either sign for the Hermitian storage, complex values elsewhere.
ZCsr random_matrix(int n, unsigned seed, Storage storage) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1, 1);
  std::vector<Entry> e;
  for (int i = 0; i < n; ++i) {
    const double d = 3.0 * u(rng);
    e.push_back({i, i, storage == Storage::kHermitian ? cplx(d) : cplx(d, u(rng))});
    for (int k = 0; k < 3; ++k) {
      const int j = static_cast<int>(rng() % n);
      e.push_back(
          {i, j, j == i && storage == Storage::kHermitian ? cplx(u(rng)) : cplx(u(rng), u(rng))});
    }
  }
  return from_entries(n, e, storage);
}

// Complex symmetric Helmholtz-like operator on a grid: the Laplacian less
// a shift, with absorption on the diagonal; indefinite real part.
ZCsr helmholtz(int nx, int ny, int nz) {
  std::vector<Entry> e;
  grid(
      nx, ny, nz,
      [&](int i) {
        e.push_back({i, i, {2.5, 0.05 * (i % 7)}});
      },
      [&](int i, int j, int d) {
        e.push_back({i, j, {-1.0, 0.1 * d}});
      });
  return from_entries(nx * ny * nz, e, Storage::kSymmetric);
}

// Convection-diffusion with complex coefficients on a grid: upwind
// couplings -1 - b + 0.3i, downwind -1 + 0.1i, a dominant complex diagonal.
// Structurally symmetric, unsymmetric in value.  With shuffle_rows the rows
// come in a random order, so that the diagonal is mostly empty and only a
// matching makes the matrix factorable without pivoting outside a block.
ZCsr complex_convection(int nx, int ny, int nz, double beta, bool shuffle_rows = false) {
  const double b[3] = {beta, beta / 2, beta / 4};
  const int n = nx * ny * nz;
  std::vector<int> row(n);
  for (int i = 0; i < n; ++i) row[i] = i;
  if (shuffle_rows) std::shuffle(row.begin(), row.end(), std::mt19937(7));
  std::vector<Entry> e;
  grid(
      nx, ny, nz,
      [&](int i) {
        e.push_back({row[i], i, {6.0 + b[0] + b[1] + b[2], 1.0}});
      },
      [&](int i, int j, int d) {
        e.push_back({row[i], j, {-1.0, 0.1}});
        e.push_back({row[j], i, {-1.0 - b[d], 0.3}});
      });
  return from_entries(n, e, Storage::kFull);
}

// ---- independent references --------------------------------------------

std::vector<cplx> dense(const ZCsr &m) {
  std::vector<cplx> d(static_cast<size_t>(m.n) * m.n);
  for_each_entry(m, [&](int i, int j, cplx v) { d[i + static_cast<size_t>(j) * m.n] += v; });
  return d;
}

// Positive and negative eigenvalues of a Hermitian matrix.
std::pair<int, int> dense_inertia(const ZCsr &m) {
  const int n = m.n;
  std::vector<cplx> d = dense(m);
  std::vector<double> w(n), rwork(std::max(1, 3 * n - 2));
  int lwork = -1, info = 0;
  cplx query;
  zheev_("N", "L", &n, d.data(), &n, w.data(), &query, &lwork, rwork.data(), &info);
  lwork = static_cast<int>(query.real());
  std::vector<cplx> work(lwork);
  zheev_("N", "L", &n, d.data(), &n, w.data(), work.data(), &lwork, rwork.data(), &info);
  int pos = 0, neg = 0;
  for (double v : w) (v > 0 ? pos : neg) += 1;
  return {pos, neg};
}

// log(det A) by a dense LU: the sum of log|u_ii| and the argument of det.
std::pair<double, double> dense_log_det(const ZCsr &m) {
  const int n = m.n;
  std::vector<cplx> d = dense(m);
  std::vector<int> ipiv(n);
  int info = 0;
  zgetrf_(&n, &n, d.data(), &n, ipiv.data(), &info);
  double mag = 0, arg = 0;
  for (int i = 0; i < n; ++i) {
    const cplx u = d[i + static_cast<size_t>(i) * n];
    mag += std::log(std::abs(u));
    arg += std::arg(u) + (ipiv[i] != i + 1 ? M_PI : 0.0);
  }
  return {mag, arg};
}

// Backward error of the nrhs columns of x for A x = b, or A^T x = b.
double backward_error(const ZCsr &m, const std::vector<cplx> &x, const std::vector<cplx> &b,
                      int nrhs, bool transposed) {
  const int n = m.n;
  std::vector<double> rowsum(n, 0.0);
  for_each_entry(m, [&](int i, int j, cplx v) { rowsum[transposed ? j : i] += std::abs(v); });
  const double anorm = *std::max_element(rowsum.begin(), rowsum.end());
  double worst = 0;
  for (int c = 0; c < nrhs; ++c) {
    const cplx *xc = x.data() + static_cast<size_t>(c) * n;
    const cplx *bc = b.data() + static_cast<size_t>(c) * n;
    std::vector<cplx> r(bc, bc + n);
    for_each_entry(m, [&](int i, int j, cplx v) {
      if (transposed) std::swap(i, j);
      r[i] -= v * xc[j];
    });
    double rn = 0, xn = 0, bn = 0;
    for (int i = 0; i < n; ++i) {
      rn = std::max(rn, std::abs(r[i]));
      xn = std::max(xn, std::abs(xc[i]));
      bn = std::max(bn, std::abs(bc[i]));
    }
    worst = std::max(worst, rn / (anorm * xn + bn));
  }
  return worst;
}

// ---- the checker -------------------------------------------------------

struct Result {
  int error = 0, perturbed = 0, pos = 0, neg = 0, steps = 0;
  double berr = 1.0;
  double dparm32 = 0.0, dparm33 = 0.0;
  std::vector<cplx> x;
};

// Solves A x = b (A^T x = b with iparm(12) 1) for nrhs right-hand sides by
// the phases 11, 22, 33 (or phase 13 when `one_call`), with the slots of
// `set` (one-based) changed from the defaults of velmorainit.
Result solve(int mtype, const ZCsr &m, int nrhs, const std::map<int, int> &set = {},
             bool one_call = false) {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int type = mtype, solver = 0, error = 0, maxfct = 1, mnum = 1, msglvl = 0, n = m.n;
  velmorainit(pt.data(), &type, &solver, iparm.data(), dparm.data(), &error);
  for (const auto &[slot, value] : set) iparm[slot - 1] = value;
  std::vector<cplx> a = m.a, b(static_cast<size_t>(n) * nrhs), x(b.size());
  for (int c = 0; c < nrhs; ++c)
    for (int i = 0; i < n; ++i)
      b[static_cast<size_t>(c) * n + i] =
          cplx(std::sin(0.3 * i + c) + 0.5, std::cos(0.7 * i) - 0.1 * c);
  std::vector<int> perm(n);
  Result r;
  auto call = [&](int phase) {
    velmora(pt.data(), &maxfct, &mnum, &type, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
    return error;
  };
  if (one_call) {
    r.error = call(13);
  } else {
    r.error = call(11);
    if (r.error == 0) r.error = call(22);
    if (r.error == 0) r.error = call(33);
  }
  r.perturbed = iparm[13];
  r.pos = iparm[21];
  r.neg = iparm[22];
  r.steps = iparm[6];
  r.dparm32 = dparm[31];
  r.dparm33 = dparm[32];
  if (r.error == 0) r.berr = backward_error(m, x, b, nrhs, iparm[11] == 1 && mtype % 2 != 0);
  r.x = x;
  call(-1);
  return r;
}

std::string trace(const std::string &name, int mtype, const std::map<int, int> &set, int nrhs) {
  std::string s = name + ", mtype " + std::to_string(mtype) + ", nrhs " + std::to_string(nrhs);
  for (const auto &[slot, value] : set)
    s += ", iparm(" + std::to_string(slot) + ") " + std::to_string(value);
  return s;
}

// Expects a clean solve below `bound`, and the inertia of zheev for the
// Hermitian indefinite type (n positive pivots for the positive definite
// one, whose generated matrices are diagonally dominant).
void expect_solved(const std::string &name, int mtype, const ZCsr &m, double bound,
                   const std::map<int, int> &set = {}) {
  const bool hermitian = mtype == 4 || mtype == -4;
  const std::pair<int, int> want = mtype == -4  ? dense_inertia(m)
                                   : mtype == 4 ? std::pair<int, int>{m.n, 0}
                                                : std::pair<int, int>{0, 0};
  for (int nrhs : {1, 3}) {
    SCOPED_TRACE(trace(name, mtype, set, nrhs));
    const Result r = solve(mtype, m, nrhs, set);
    ASSERT_EQ(r.error, 0);
    EXPECT_LT(r.berr, bound) << "perturbed " << r.perturbed << ", refinement steps " << r.steps;
    if (hermitian) {
      EXPECT_EQ(r.pos, want.first);
      EXPECT_EQ(r.neg, want.second);
    }
    if (mtype == 6) {
      EXPECT_EQ(r.pos + r.neg, 0) << "no inertia for a complex symmetric matrix";
    }
  }
}

// ---- tests ---------------------------------------------------------------

TEST(Complex, GeneralMatricesWithMatching) {
  expect_solved("convection 12x12x6", 13, complex_convection(12, 12, 6, 2.0), 1e-14);
  expect_solved("convection 20x20, beta 30", 13, complex_convection(20, 20, 1, 30.0), 1e-14);
  // The rows shuffled: the matching on complex magnitudes restores the
  // diagonal; without it the blocks hold zero pivots.
  const ZCsr shuffled = complex_convection(10, 10, 5, 1.0, true);
  expect_solved("shuffled convection", 13, shuffled, 1e-13);
  expect_solved("shuffled convection, ordering 4", 13, shuffled, 1e-13, {{2, 4}});
  expect_solved("random general 300", 13, random_matrix(300, 11, Storage::kFull), 1e-13);
}

TEST(Complex, GeneralTransposedSolves) {
  for (int mtype : {13, 3}) {
    for (const auto &[name, m] :
         {std::pair{std::string("convection 10x10x4"), complex_convection(10, 10, 4, 5.0)},
          std::pair{std::string("random 200"), random_matrix(200, 5, Storage::kFull)}}) {
      if (mtype == 3 && name != "convection 10x10x4") continue;  // 3 needs a symmetric pattern
      expect_solved(name + " transposed", mtype, m, 1e-13, {{12, 1}});
      // A^T x = b and A x = b differ: the transposed result is not the plain one.
      const Result plain = solve(mtype, m, 1), trans = solve(mtype, m, 1, {{12, 1}});
      ASSERT_EQ(plain.error, 0);
      ASSERT_EQ(trans.error, 0);
      EXPECT_GT(std::abs(plain.x[3] - trans.x[3]), 1e-6);
    }
  }
}

TEST(Complex, HermitianPositiveDefinite) {
  expect_solved("Hermitian grid 10x10x10", 4, hermitian_grid(10, 10, 10, 6.5), 1e-14);
  expect_solved("Hermitian grid 40x40", 4, hermitian_grid(40, 40, 1, 6.5), 1e-14);
  expect_solved("Hermitian grid, ordering 0", 4, hermitian_grid(9, 9, 9, 6.5), 1e-14, {{2, 0}});
  expect_solved("Hermitian grid, extended refinement", 4, hermitian_grid(8, 8, 8, 6.5), 1e-14,
                {{8, -2}});
}

TEST(Complex, HermitianNonPositivePivotIsReported) {
  // Indefinite: some pivot of the Cholesky factor is not positive.
  const ZCsr m = hermitian_grid(8, 8, 4, 1.0);
  const Result r = solve(4, m, 1, {}, true);
  EXPECT_EQ(r.error, VELMORA_ERR_FACTOR);
  {
    // The report names it as for a real matrix, and no solve runs after it.
    std::array<void *, 64> pt{};
    std::array<int, 64> iparm{};
    std::array<double, 64> dparm{};
    int type = 4, solver = 0, error = 0, maxfct = 1, mnum = 1, msglvl = 1, n = m.n, nrhs = 1;
    velmorainit(pt.data(), &type, &solver, iparm.data(), dparm.data(), &error);
    std::vector<cplx> a = m.a, b(n, cplx(1.0, 0.5)), x(n);
    std::vector<int> perm(n);
    auto call = [&](int phase) {
      velmora(pt.data(), &maxfct, &mnum, &type, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
              perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
      return error;
    };
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(13), VELMORA_ERR_FACTOR);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("*** error velmora: zero or neg. pivot, A not spd\n"), std::string::npos)
        << out;
    // A plain solve reports the missing factor in words, with error 0.
    testing::internal::CaptureStdout();
    const int solved = call(33);
    const std::string refused = testing::internal::GetCapturedStdout();
    EXPECT_EQ(solved, 0);
    EXPECT_NE(refused.find("*** error VELMORA"), std::string::npos) << refused;
    msglvl = 0;
    call(-1);
  }
  // The same matrix as Hermitian indefinite goes through, with the
  // matching: ordered without it (one thread), some pivots of the diagonal
  // blocks come out near 1e-12, and their perturbation to the threshold is
  // a change that refinement cannot undo.
  expect_solved("indefinite Hermitian grid", -4, m, 1e-14, {{13, 1}});
}

TEST(Complex, HermitianIndefiniteInBothPivotModes) {
  const std::vector<std::pair<std::string, ZCsr>> cases = {
      {"KKT 12x12, 40 constraints", hermitian_kkt(12, 40, 1)},
      {"KKT 15x15, 90 constraints", hermitian_kkt(15, 90, 2)},
      {"random Hermitian 250", random_matrix(250, 3, Storage::kHermitian)},
      {"Hermitian grid 6x6x6, diagonal 0.5", hermitian_grid(6, 6, 6, 0.5)},
      // large separators: updates split along long runs of target rows
      {"Hermitian grid 12x12x12, diagonal 0.5", hermitian_grid(12, 12, 12, 0.5)}};
  for (const auto &[name, m] : cases)
    // No pivot is perturbed, so nothing is refined: the backward error of
    // the plain solve is a few 1e-14 and moves with the ordering (thread
    // count) and the BLAS kernels.  A wrong pivot or a lost update lands
    // far above 1e-12.
    for (int pivoting : {0, 1}) expect_solved(name, -4, m, 1e-12, {{21, pivoting}});
  // One-column supernodes (iparm(30) 1): nothing pivots; the blocks of
  // their runs are Hermitian.
  for (int c = 0; c < 3; ++c) expect_solved(cases[c].first, -4, cases[c].second, 1e-12, {{30, 1}});
}

TEST(Complex, HermitianSymmetricMatching) {
  // Constraint rows have no diagonal: the symmetric matching pairs each
  // with a node, and the filled structure (iparm(13) 2) as well.
  const ZCsr m = hermitian_kkt(14, 60, 4);
  for (int matching : {1, 2}) {
    expect_solved("KKT 14x14, 60", -4, m, 1e-14, {{21, 1}, {13, matching}});
    const Result with = solve(-4, m, 1, {{21, 1}, {13, matching}});
    const Result without = solve(-4, m, 1, {{21, 1}});
    EXPECT_LE(with.perturbed, without.perturbed);
  }
}

TEST(Complex, ComplexSymmetricInBothPivotModes) {
  const std::vector<std::pair<std::string, ZCsr>> cases = {
      {"Helmholtz 10x10x8", helmholtz(10, 10, 8)},
      {"Helmholtz 35x35", helmholtz(35, 35, 1)},
      {"Helmholtz 14x14x12", helmholtz(14, 14, 12)},
      {"random complex symmetric 250", random_matrix(250, 9, Storage::kSymmetric)}};
  for (const auto &[name, m] : cases)
    for (int pivoting : {0, 1}) expect_solved(name, 6, m, 1e-14, {{21, pivoting}});
  expect_solved("Helmholtz with matching", 6, helmholtz(8, 8, 8), 1e-14, {{21, 1}, {13, 1}});
  expect_solved("Helmholtz, one-column supernodes", 6, helmholtz(14, 14, 12), 1e-13, {{30, 1}});
}

TEST(Complex, LogDeterminant) {
  // Small matrices, so that a dense factor gives the reference.
  const ZCsr general = random_matrix(60, 21, Storage::kFull);
  const ZCsr structural = complex_convection(5, 5, 2, 2.0);
  const ZCsr hpd = hermitian_grid(5, 5, 2, 6.5);
  const ZCsr herm = random_matrix(60, 22, Storage::kHermitian);
  const ZCsr sym = helmholtz(5, 5, 2);
  for (const auto &[mtype, m, set] : {std::tuple{13, general, std::map<int, int>{{33, 1}, {13, 0}}},
                                      std::tuple{13, general, std::map<int, int>{{33, 1}}},
                                      std::tuple{3, structural, std::map<int, int>{{33, 1}}},
                                      std::tuple{4, hpd, std::map<int, int>{{33, 1}}},
                                      std::tuple{-4, herm, std::map<int, int>{{33, 1}, {21, 1}}},
                                      std::tuple{-4, herm, std::map<int, int>{{33, 1}, {21, 0}}},
                                      std::tuple{6, sym, std::map<int, int>{{33, 1}, {21, 1}}}}) {
    SCOPED_TRACE(trace("log-determinant", mtype, set, 1));
    const Result r = solve(mtype, m, 1, set);
    ASSERT_EQ(r.error, 0);
    const auto [mag, arg] = dense_log_det(m);
    EXPECT_NEAR(r.dparm33, mag, 1e-9 * std::max(1.0, std::abs(mag)));
    if (mtype == 3 || mtype == 13) {
      // The argument of det A: exact modulo 2 pi without a matching, which
      // exchanges rows outside the blocks, and modulo pi with it.  The
      // pi of an exchange is the single-precision one.
      const bool matched = mtype == 13 && set.count(13) == 0;
      const double turns = matched ? 2.0 : 1.0;
      const cplx got = std::exp(cplx(0, turns * r.dparm32));
      const cplx want = std::exp(cplx(0, turns * arg));
      EXPECT_LT(std::abs(got - want), 1e-5) << r.dparm32 << " vs " << arg;
    }
  }
}

TEST(Complex, ResidualCallAgreesForGeneralAndSymmetric) {
  for (int mtype : {13, 6}) {
    const ZCsr m = mtype == 13 ? complex_convection(6, 6, 3, 1.0) : helmholtz(6, 6, 3);
    const Result r = solve(mtype, m, 1);
    ASSERT_EQ(r.error, 0);
    std::vector<cplx> b(m.n), y(m.n);
    for (int i = 0; i < m.n; ++i) b[i] = cplx(std::sin(0.3 * i) + 0.5, std::cos(0.7 * i));
    double normb = 0, normr = 0;
    int n = m.n;
    velmora_residual(&mtype, &n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), r.x.data(),
                     y.data(), &normb, &normr);
    EXPECT_GT(normb, 1.0);
    EXPECT_LT(normr / normb, 1e-13);
  }
}

}  // namespace
