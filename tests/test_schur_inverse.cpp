// Schur complements (velmora_get_schur, velmora_add_schur) and selected
// inversion (phase -22) through the public interface, checked against
// dense LAPACK: S = A22 - A21 A11^-1 A12 from zgesv, A^-1 from zgetri.
// Every type works in complex arithmetic in the test; the library gets
// doubles or pairs of doubles.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "velmora.h"

using cplx = std::complex<double>;

extern "C" {
void zgesv_(const int *, const int *, cplx *, const int *, int *, cplx *, const int *, int *);
void zgetrf_(const int *, const int *, cplx *, const int *, int *, int *);
void zgetri_(const int *, cplx *, const int *, const int *, cplx *, const int *, int *);
}

namespace {

bool is_complex(int mtype) {
  return mtype == 3 || mtype == 4 || mtype == -4 || mtype == 6 || mtype == 13;
}
bool one_triangle(int mtype) {
  return mtype % 2 == 0;
}

// A generated matrix: dense (column-major, the test's reference) and the
// library's compressed rows of it (the upper triangle for even types).
struct Problem {
  int mtype = 0, n = 0;
  std::vector<cplx> dense;
  std::vector<int> ia, ja;
  std::vector<double> a;  // doubles, or pairs
  cplx at(int i, int j) const { return dense[i + static_cast<size_t>(j) * n]; }
};

// A 2D grid (nx x ny) with a few random long couplings; values by type:
// dominant diagonals (of mixed sign for -2) so that no pivot is perturbed.
// `swaps` exchanges rows of an odd type (a pattern no longer symmetric,
// which the matching repairs); `detached` unknowns at the end couple to
// nothing but themselves; the last `tail` unknowns all couple to unknown 0,
// whose elimination fills their Schur complement completely.
Problem make_problem(int mtype, int nx, int ny, unsigned seed, bool swaps = false, int detached = 0,
                     int tail = 0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const int core = nx * ny, n = core + detached;
  Problem p;
  p.mtype = mtype;
  p.n = n;
  p.dense.assign(static_cast<size_t>(n) * n, 0.0);
  auto val = [&](bool cx) { return cx ? cplx(u(rng), u(rng)) : cplx(u(rng), 0.0); };
  const bool cx = is_complex(mtype);
  auto couple = [&](int i, int j) {
    cplx v = val(cx), w = val(cx);
    if (mtype == 2 || mtype == -2 || mtype == 6) w = v;
    if (mtype == 4 || mtype == -4) w = std::conj(v);
    p.dense[i + static_cast<size_t>(j) * n] = v;
    p.dense[j + static_cast<size_t>(i) * n] = w;
  };
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const int i = x + nx * y;
      if (x + 1 < nx) couple(i, i + 1);
      if (y + 1 < ny) couple(i, i + nx);
    }
  for (int i = core - tail; i < core; ++i)
    if (i > 0) couple(0, i);
  for (int k = 0; k < core / 6; ++k) {
    const int i = static_cast<int>(rng() % core), j = static_cast<int>(rng() % core);
    if (i != j) couple(i, j);
  }
  for (int i = 0; i < n; ++i) {
    double off = 0.0;
    for (int j = 0; j < n; ++j) off += std::abs(p.dense[j + static_cast<size_t>(i) * n]);
    const double d = off + 1.0 + std::abs(u(rng));
    const bool negative = mtype == -2 && (i % 3 == 1);
    p.dense[i + static_cast<size_t>(i) * n] =
        cx && mtype != 4 && mtype != -4 ? cplx(negative ? -d : d, 0.5) : cplx(negative ? -d : d);
  }
  if (swaps && mtype > 10)
    for (int i = 0; i + 7 < core; i += 11)
      for (int j = 0; j < n; ++j)
        std::swap(p.dense[i + static_cast<size_t>(j) * n],
                  p.dense[i + 7 + static_cast<size_t>(j) * n]);
  p.ia.push_back(1);
  for (int i = 0; i < n; ++i) {
    for (int j = one_triangle(mtype) ? i : 0; j < n; ++j) {
      const cplx v = p.at(i, j);
      if (v == cplx(0.0) && i != j) continue;
      p.ja.push_back(j + 1);
      p.a.push_back(v.real());
      if (cx) p.a.push_back(v.imag());
    }
    p.ia.push_back(static_cast<int>(p.ja.size()) + 1);
  }
  return p;
}

double max_abs(const std::vector<cplx> &m) {
  double big = 0.0;
  for (const cplx &v : m) big = std::max(big, std::abs(v));
  return big;
}

// The handle of one problem: analysis and factorization with the given
// controls, released at the end.
struct Solver {
  const Problem &p;
  void *pt[64] = {};
  int iparm[64] = {};
  double dparm[64] = {};
  int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, error = 0;
  std::vector<int> perm;
  explicit Solver(const Problem &prob) : p(prob), perm(static_cast<size_t>(prob.n)) {
    int solver = 0;
    velmorainit(pt, &p.mtype, &solver, iparm, dparm, &error);
    std::iota(perm.begin(), perm.end(), 1);
  }
  ~Solver() { call(-1, nullptr); }
  Solver(const Solver &) = delete;
  Solver &operator=(const Solver &) = delete;
  int call(int phase, double *a, double *b = nullptr, double *x = nullptr) {
    double dummy[2] = {0, 0};
    velmora(pt, &maxfct, &mnum, &p.mtype, &phase, &p.n, a ? a : dummy, p.ia.data(), p.ja.data(),
            perm.data(), &nrhs, iparm, &msglvl, b ? b : dummy, x ? x : dummy, &error, dparm);
    return error;
  }
  int factor(std::vector<double> &a) { return call(12, a.data()); }
};

// ---- Schur complement --------------------------------------------------

std::vector<cplx> dense_schur(const Problem &p, int ns) {
  const int m = p.n - ns;
  std::vector<cplx> a11(static_cast<size_t>(m) * m), x(static_cast<size_t>(m) * ns);
  for (int j = 0; j < m; ++j)
    for (int i = 0; i < m; ++i) a11[i + static_cast<size_t>(j) * m] = p.at(i, j);
  for (int j = 0; j < ns; ++j)
    for (int i = 0; i < m; ++i) x[i + static_cast<size_t>(j) * m] = p.at(i, m + j);
  std::vector<int> ipiv(static_cast<size_t>(m));
  int info = 0;
  zgesv_(&m, &ns, a11.data(), &m, ipiv.data(), x.data(), &m, &info);
  EXPECT_EQ(info, 0);
  std::vector<cplx> s(static_cast<size_t>(ns) * ns);
  for (int j = 0; j < ns; ++j)
    for (int i = 0; i < ns; ++i) {
      cplx v = p.at(m + i, m + j);
      for (int k = 0; k < m; ++k) v -= p.at(m + i, k) * x[k + static_cast<size_t>(j) * m];
      s[i + static_cast<size_t>(j) * ns] = v;
    }
  return s;
}

// S as velmora_get_schur gives it, spread into a dense ns x ns block (the
// upper triangle of a symmetric type mirrored, conjugated if Hermitian).
std::vector<cplx> library_schur(Solver &s, int ns, int *nnz) {
  std::vector<int> sia(static_cast<size_t>(ns) + 1, 0);
  velmora_get_schur(s.pt, &s.maxfct, &s.mnum, &s.p.mtype, sia.data(), nullptr, nullptr);
  *nnz = sia[static_cast<size_t>(ns)] - 1;
  std::vector<int> sja(static_cast<size_t>(std::max(*nnz, 1)));
  std::vector<double> sa(static_cast<size_t>(std::max(*nnz, 1)) * 2);
  velmora_get_schur(s.pt, &s.maxfct, &s.mnum, &s.p.mtype, sia.data(), sja.data(), sa.data());
  EXPECT_EQ(sia[static_cast<size_t>(ns)] - 1, *nnz);
  const bool cx = is_complex(s.p.mtype);
  std::vector<cplx> d(static_cast<size_t>(ns) * ns, 0.0);
  for (int i = 0; i < ns; ++i)
    for (int k = sia[static_cast<size_t>(i)] - 1; k < sia[static_cast<size_t>(i) + 1] - 1; ++k) {
      const int j = sja[static_cast<size_t>(k)] - 1;
      EXPECT_TRUE(j >= 0 && j < ns);
      if (j < 0 || j >= ns) continue;
      const cplx v = cx ? cplx(sa[2 * static_cast<size_t>(k)], sa[2 * static_cast<size_t>(k) + 1])
                        : cplx(sa[static_cast<size_t>(k)]);
      d[i + static_cast<size_t>(j) * ns] = v;
      if (one_triangle(s.p.mtype)) {
        EXPECT_GE(j, i) << "upper triangle by rows";
        d[j + static_cast<size_t>(i) * ns] = std::abs(s.p.mtype) == 4 ? std::conj(v) : v;
      }
    }
  return d;
}

// Every type, every ordering route of the analysis (minimum degree, the two
// dissections, AMD, a given permutation) and the matchings: S read back
// equals the dense one, and velmora_add_schur folds it in with alpha and
// beta (the lower triangle alone for the one-triangle types).
TEST(Schur, EqualsDenseComplementForEveryTypeAndOrdering) {
  struct Route {
    int ordering, user_perm, matching;
  };
  const Route routes[] = {{0, 0, -1}, {2, 0, -1}, {3, 0, -1}, {4, 0, -1}, {3, 1, -1}, {3, 0, 1}};
  const int types[] = {2, -2, 11, 4, 6, 13, 1, 3};
  unsigned seed = 7;
  for (int mtype : types)
    for (const Route &r : routes) {
      if (r.matching == 1 && mtype != 11 && mtype != 13 && mtype != -2) continue;
      const int ns = 9 + static_cast<int>(seed % 5);
      const Problem p = make_problem(mtype, 9, 8, ++seed, true, 0, ns);
      Solver s(p);
      s.iparm[1] = r.ordering;
      s.iparm[37] = ns;
      if (r.matching >= 0) s.iparm[12] = r.matching;
      if (r.user_perm) {
        s.iparm[4] = 1;
        std::mt19937 rng(seed);
        std::shuffle(s.perm.begin(), s.perm.end(), rng);
      }
      std::vector<double> a = p.a;
      SCOPED_TRACE("mtype " + std::to_string(mtype) + " ordering " + std::to_string(r.ordering) +
                   " perm " + std::to_string(r.user_perm) + " matching " +
                   std::to_string(r.matching) + " ns " + std::to_string(ns));
      ASSERT_EQ(s.factor(a), 0);
      const std::vector<cplx> want = dense_schur(p, ns);
      int nnz = 0;
      const std::vector<cplx> got = library_schur(s, ns, &nnz);
      EXPECT_EQ(nnz, one_triangle(mtype) ? ns * (ns + 1) / 2 : ns * ns);
      double err = 0.0;
      for (size_t k = 0; k < want.size(); ++k) err = std::max(err, std::abs(got[k] - want[k]));
      EXPECT_LT(err / max_abs(want), 1e-12);

      // dense = 2 dense - 3 S over rows 2..ns-1, columns 1..ns-2.
      const int i1 = 2, j1 = 1, i2 = ns - 1, j2 = ns - 2, ld = ns + 3;
      const double alpha = 2.0, beta = -3.0;
      const bool cx = is_complex(mtype);
      std::vector<double> block(static_cast<size_t>(ld) * ns * 2);
      for (size_t k = 0; k < block.size(); ++k) block[k] = 0.25 * static_cast<double>(k % 13);
      const std::vector<double> before = block;
      int err_flag = -1;
      velmora_add_schur(&i1, &j1, &i2, &j2, &alpha, &beta, block.data(), &ld, s.pt, &s.maxfct,
                        &s.mnum, &mtype, &err_flag);
      EXPECT_EQ(err_flag, 0);
      double worst = 0.0;
      for (int c = j1; c <= j2; ++c)
        for (int row = i1; row <= i2; ++row) {
          const size_t e = static_cast<size_t>(row - i1) + static_cast<size_t>(c - j1) * ld;
          const cplx old = cx ? cplx(before[2 * e], before[2 * e + 1]) : cplx(before[e]);
          const cplx now = cx ? cplx(block[2 * e], block[2 * e + 1]) : cplx(block[e]);
          const bool covered = !one_triangle(mtype) || row >= c;
          const cplx expect =
              covered ? alpha * old + beta * want[(row - 1) + static_cast<size_t>(c - 1) * ns]
                      : old;
          worst = std::max(worst, std::abs(now - expect));
        }
      EXPECT_LT(worst / max_abs(want), 1e-11);
    }
}

// A Schur block that the eliminated part does not couple stays sparse: it
// is read back as it is, and velmora_add_schur refuses it with its four
// lines and leaves the dense block alone.  No Schur block: nothing to do.
TEST(Schur, SparseComplementIsRefusedByTheDenseFold) {
  const Problem p = make_problem(11, 6, 6, 3, false, 5);
  Solver s(p);
  s.iparm[37] = 5;
  std::vector<double> a = p.a;
  ASSERT_EQ(s.factor(a), 0);
  int nnz = 0;
  const std::vector<cplx> got = library_schur(s, 5, &nnz);
  EXPECT_LT(nnz, 25);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(got[i + 5 * static_cast<size_t>(i)], p.at(36 + i, 36 + i));

  const int one = 1, five = 5;
  const double alpha = 1.0, beta = 1.0;
  std::vector<double> block(25, 4.0);
  int err = 0;
  testing::internal::CaptureStdout();
  velmora_add_schur(&one, &one, &five, &five, &alpha, &beta, block.data(), &five, s.pt, &s.maxfct,
                    &s.mnum, &p.mtype, &err);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(err, 1);
  EXPECT_EQ(out, "*** error: SC not full, use velmora_get_schurcomp\nnnz_schur=" +
                     std::to_string(nnz) + "\nnr**2=25\nnr*(nr+1)/2=15\n");
  EXPECT_EQ(block, std::vector<double>(25, 4.0));

  // Without a Schur block both calls return at once; err stays 0.
  Solver plain(p);
  std::vector<double> b = p.a;
  ASSERT_EQ(plain.factor(b), 0);
  std::vector<int> sia(6, -3);
  velmora_get_schur(plain.pt, &plain.maxfct, &plain.mnum, &p.mtype, sia.data(), nullptr, nullptr);
  EXPECT_EQ(sia, std::vector<int>(6, -3));
  velmora_add_schur(&one, &one, &five, &five, &alpha, &beta, block.data(), &five, plain.pt,
                    &plain.maxfct, &plain.mnum, &p.mtype, &err);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(block, std::vector<double>(25, 4.0));
}

// ---- selected inversion ------------------------------------------------

std::vector<cplx> dense_inverse(const Problem &p) {
  std::vector<cplx> m = p.dense;
  std::vector<int> ipiv(static_cast<size_t>(p.n));
  int info = 0, lwork = 64 * p.n;
  zgetrf_(&p.n, &p.n, m.data(), &p.n, ipiv.data(), &info);
  EXPECT_EQ(info, 0);
  std::vector<cplx> work(static_cast<size_t>(lwork));
  zgetri_(&p.n, m.data(), &p.n, ipiv.data(), work.data(), &lwork, &info);
  EXPECT_EQ(info, 0);
  return m;
}

// Largest difference, relative to the largest entry of A^-1, between the
// values phase -22 left in a and A^-1 at their places.
double inverse_error(const Problem &p, const std::vector<double> &a, const std::vector<cplx> &inv) {
  const bool cx = is_complex(p.mtype);
  double worst = 0.0;
  for (int i = 0; i < p.n; ++i)
    for (int k = p.ia[static_cast<size_t>(i)] - 1; k < p.ia[static_cast<size_t>(i) + 1] - 1; ++k) {
      const int j = p.ja[static_cast<size_t>(k)] - 1;
      const cplx got = cx ? cplx(a[2 * static_cast<size_t>(k)], a[2 * static_cast<size_t>(k) + 1])
                          : cplx(a[static_cast<size_t>(k)]);
      worst = std::max(worst, std::abs(got - inv[i + static_cast<size_t>(j) * p.n]));
    }
  return worst / max_abs(inv);
}

// Backward error of a phase 33 solve with the factor left by phase -22.
double solve_backward_error(Solver &s, std::vector<double> &a) {
  const Problem &p = s.p;
  const bool cx = is_complex(p.mtype);
  const size_t w = cx ? 2 : 1;
  std::vector<double> b(w * p.n), x(w * p.n);
  for (size_t k = 0; k < b.size(); ++k) b[k] = std::sin(1.0 + static_cast<double>(k));
  EXPECT_EQ(s.call(33, a.data(), b.data(), x.data()), 0);
  double r = 0.0, bn = 0.0, xn = 0.0;
  for (int i = 0; i < p.n; ++i) {
    cplx ax = 0.0;
    for (int j = 0; j < p.n; ++j)
      ax += p.at(i, j) * (cx ? cplx(x[2 * j], x[2 * j + 1]) : cplx(x[static_cast<size_t>(j)]));
    const cplx bi = cx ? cplx(b[2 * i], b[2 * i + 1]) : cplx(b[static_cast<size_t>(i)]);
    r = std::max(r, std::abs(bi - ax));
    bn = std::max(bn, std::abs(bi));
    xn =
        std::max(xn, std::abs(cx ? cplx(x[2 * i], x[2 * i + 1]) : cplx(x[static_cast<size_t>(i)])));
  }
  double anorm = 0.0;
  for (int i = 0; i < p.n; ++i) {
    double row = 0.0;
    for (int j = 0; j < p.n; ++j) row += std::abs(p.at(i, j));
    anorm = std::max(anorm, row);
  }
  return r / (anorm * xn + bn);
}

// A scratch working directory for the factor files, left at the end.
struct InScratchDirectory {
  std::string old, dir;
  InScratchDirectory() {
    char buf[4096];
    old = getcwd(buf, sizeof buf) ? buf : ".";
    char tmpl[] = "/tmp/velmora_selinv_XXXXXX";
    dir = mkdtemp(tmpl);
    EXPECT_EQ(chdir(dir.c_str()), 0);
  }
  ~InScratchDirectory() {
    EXPECT_EQ(chdir(old.c_str()), 0);
    std::system(("rm -rf '" + dir + "'").c_str());
  }
};

// One record: length, values, length; returns the length or -1.
long record_length(const char *name) {
  std::FILE *f = std::fopen(name, "rb");
  if (!f) return -1;
  std::int32_t head = 0, tail = 0;
  const bool ok = std::fread(&head, 4, 1, f) == 1;
  std::fseek(f, 0, SEEK_END);
  const long size = std::ftell(f);
  std::fseek(f, size - 4, SEEK_SET);
  const bool ok2 = std::fread(&tail, 4, 1, f) == 1;
  std::fclose(f);
  return ok && ok2 && head == tail && size == head + 8 ? head : -1;
}

// Every type of phase -22, each with one way of keeping the factor and one
// ordering route: the entries written equal A^-1 there (matching and
// scaling undone), and a kept factor still solves.  The file mode writes
// one record per factor array.
TEST(SelectedInversion, EntriesEqualTheDenseInverseAndTheKeptFactorSolves) {
  struct Case {
    int mtype, keep, ordering, matching;
  };
  const Case cases[] = {{-2, 1, 3, 0}, {1, 2, 4, 0},  {11, 1, 0, 1}, {6, 2, 3, 0}, {3, 1, 2, 0},
                        {13, 2, 3, 1}, {-2, 2, 0, 0}, {11, 0, 4, 0}, {6, 0, 4, 0}, {-2, 1, 4, 1}};
  unsigned seed = 40;
  for (const Case &c : cases) {
    SCOPED_TRACE("mtype " + std::to_string(c.mtype) + " keep " + std::to_string(c.keep));
    const Problem p = make_problem(c.mtype, 11, 9, ++seed);
    const InScratchDirectory scratch;
    Solver s(p);
    s.iparm[1] = c.ordering;
    s.iparm[12] = c.matching;
    if (c.matching == 1) s.iparm[10] = 1;  // scaled
    std::vector<double> a = p.a;
    ASSERT_EQ(s.factor(a), 0);
    s.iparm[35] = c.keep;
    ASSERT_EQ(s.call(-22, a.data()), 0);
    EXPECT_LT(inverse_error(p, a, dense_inverse(p)), 1e-10);
    const bool lu = c.mtype % 2 != 0;
    if (c.keep == 2) {
      const size_t w = is_complex(c.mtype) ? 16 : 8;
      const long l = record_length(lu ? "velmora_inverse_L.dat" : "velmora_inverse.dat");
      EXPECT_GT(l, 0);
      EXPECT_EQ(l % static_cast<long>(w), 0);
      if (lu) {
        const long u = record_length("velmora_inverse_U.dat");
        EXPECT_GT(u, 0);
        EXPECT_EQ(u % static_cast<long>(w), 0);
      }
    }
    if (c.keep == 0) continue;
    std::vector<double> original = p.a;
    EXPECT_LT(solve_backward_error(s, original), 1e-14);
  }
}

// One-column supernodes (iparm(30) 1) are factored in runs and stored as
// 1x1 pivots: the inverse reads them as such.  A single-precision factor
// has no inverse: the call is refused and a is left alone.
TEST(SelectedInversion, OneColumnSupernodesAndSinglePrecision) {
  const Problem p = make_problem(-2, 10, 8, 90);
  {
    Solver s(p);
    s.iparm[29] = 1;
    std::vector<double> a = p.a;
    ASSERT_EQ(s.factor(a), 0);
    s.iparm[35] = 1;
    ASSERT_EQ(s.call(-22, a.data()), 0);
    EXPECT_LT(inverse_error(p, a, dense_inverse(p)), 1e-10);
  }
  Solver s(p);
  s.iparm[28] = 1;
  std::vector<double> a = p.a;
  ASSERT_EQ(s.factor(a), 0);
  EXPECT_EQ(s.call(-22, a.data()), VELMORA_ERR_SILENT);  // an input refusal at msglvl 0
  EXPECT_EQ(a, p.a);
}

// iparm(37) 1: the result keeps the upper triangle of each row, compacted
// in place in ia, ja and a.
TEST(SelectedInversion, UpperTriangleOfTheResultOnRequest) {
  Problem p = make_problem(3, 7, 6, 77);
  const Problem original = p;
  const std::vector<cplx> inv = dense_inverse(p);
  Solver s(p);
  std::vector<double> a = p.a;
  ASSERT_EQ(s.factor(a), 0);
  s.iparm[35] = 1;
  s.iparm[36] = 1;
  ASSERT_EQ(s.call(-22, a.data()), 0);
  ASSERT_EQ(p.ia[0], 1);
  int k = 0;
  for (int i = 0; i < p.n; ++i) {
    for (int e = original.ia[i] - 1; e < original.ia[i + 1] - 1; ++e) {
      const int j = original.ja[e] - 1;
      if (j < i) continue;
      ASSERT_EQ(p.ja[k], j + 1);
      const cplx got(a[2 * static_cast<size_t>(k)], a[2 * static_cast<size_t>(k) + 1]);
      EXPECT_LT(std::abs(got - inv[i + static_cast<size_t>(j) * p.n]), 1e-10 * max_abs(inv));
      ++k;
    }
    EXPECT_EQ(p.ia[i + 1], k + 1);
  }
}

// What phase -22 refuses or cannot do, as the caller sees it: a Cholesky
// type does nothing; a factor file that cannot be written fails the call
// with its message and leaves a and the factor as they were; so does a
// factor with 2x2 pivots.
TEST(SelectedInversion, RefusalsAndStops) {
  const Problem spd = make_problem(2, 6, 5, 9);
  {
    Solver s(spd);
    std::vector<double> a = spd.a;
    ASSERT_EQ(s.factor(a), 0);
    EXPECT_EQ(s.call(-22, a.data()), 0);
    EXPECT_EQ(a, spd.a);
  }
  const Problem p = make_problem(11, 7, 6, 5);
  {
    const InScratchDirectory scratch;
    ASSERT_EQ(mkdir("velmora_inverse_L.dat", 0700), 0);  // a directory: no file of that name
    Solver s(p);
    std::vector<double> a = p.a;
    ASSERT_EQ(s.factor(a), 0);
    s.iparm[35] = 2;
    s.msglvl = 1;
    testing::internal::CaptureStdout();
    const int error = s.call(-22, a.data());
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(error, VELMORA_ERR_INTERNAL);
    EXPECT_NE(out.find("could not write the factor file velmora_inverse_L.dat"), std::string::npos)
        << out;
    EXPECT_EQ(a, p.a);
    s.msglvl = 0;
    EXPECT_LT(solve_backward_error(s, a), 1e-14);
  }
  // [[0, 1], [1, 0]] blocks along the diagonal: Bunch-Kaufman takes 2x2 pivots.
  Problem kkt;
  kkt.mtype = -2;
  kkt.n = 8;
  kkt.dense.assign(64, 0.0);
  kkt.ia.push_back(1);
  for (int i = 0; i < 8; ++i) {
    const int j = i % 2 == 0 ? i + 1 : i;
    const double v = 1.0 + 0.1 * (i - i % 2);
    kkt.dense[i + static_cast<size_t>(i ^ 1) * 8] = v;
    kkt.ja.push_back(i + 1);
    kkt.a.push_back(0.0);
    if (j != i) {
      kkt.ja.push_back(j + 1);
      kkt.a.push_back(v);
    }
    kkt.ia.push_back(static_cast<int>(kkt.ja.size()) + 1);
  }
  Solver s(kkt);
  s.iparm[20] = 1;
  s.iparm[1] = 0;
  s.iparm[35] = 1;
  std::vector<double> a = kkt.a;
  ASSERT_EQ(s.factor(a), 0);
  testing::internal::CaptureStdout();
  const int error = s.call(-22, a.data());
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(error, VELMORA_ERR_FACTOR);
  EXPECT_NE(out.find("Inverse Factorization: \n2x2 pivots are not yet implemented\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(a, kkt.a);
  // The kept factor was put back: it still solves.
  std::vector<double> b(8, 1.0), x(8, 0.0);
  ASSERT_EQ(s.call(33, a.data(), b.data(), x.data()), 0);
  for (int i = 0; i < 8; ++i) {
    double ax = 0.0;
    for (int j = 0; j < 8; ++j) ax += kkt.at(i, j).real() * x[static_cast<size_t>(j)];
    EXPECT_NEAR(ax, 1.0, 1e-13);
  }
}

}  // namespace
