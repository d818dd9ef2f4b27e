// Black-box tests of the public interface: defaults of velmorainit, the query
// phases, the diagonal front, the input check with its messages, and the
// behaviour on malformed calls.  Only the public header is used.

#include <gtest/gtest.h>
#include <velmora.h>

#include <array>
#include <climits>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

// The memory-failure test asks for a factor table far larger than the
// machine; the sanitizer allocator must hand back NULL as malloc does.
#if defined(__SANITIZE_ADDRESS__)
extern "C" const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}
#endif

namespace {

using IntArray = std::array<int, 64>;
using DoubleArray = std::array<double, 64>;
using Handle = std::array<void *, 64>;
using cplx = std::complex<double>;

const int kAllTypes[] = {1, 2, -2, 3, 4, -4, 6, 11, 13};

bool IsComplexType(int mtype) {
  return mtype == 3 || mtype == 4 || mtype == -4 || mtype == 6 || mtype == 13;
}

bool IsEmpty(const Handle &pt) {
  for (void *p : pt) {
    if (p != nullptr) return false;
  }
  return true;
}

// ---- sparsity patterns (one-based) ----

struct Pattern {
  int n = 0;
  std::vector<int> ia, ja;
};

Pattern Tridiagonal(int n) {
  Pattern p;
  p.n = n;
  p.ia.push_back(1);
  for (int i = 1; i <= n; ++i) {
    for (int j = i - 1; j <= i + 1; ++j) {
      if (j >= 1 && j <= n) p.ja.push_back(j);
    }
    p.ia.push_back(static_cast<int>(p.ja.size()) + 1);
  }
  return p;
}

Pattern Diagonal(int n) {
  Pattern p;
  p.n = n;
  for (int i = 1; i <= n + 1; ++i) p.ia.push_back(i);
  for (int i = 1; i <= n; ++i) p.ja.push_back(i);
  return p;
}

// Symmetric and Hermitian types are given by their upper triangle.
Pattern ForType(int mtype, const Pattern &full) {
  if (mtype != 2 && mtype != -2 && mtype != 4 && mtype != -4 && mtype != 6) return full;
  Pattern p;
  p.n = full.n;
  p.ia.push_back(1);
  for (int i = 1; i <= full.n; ++i) {
    for (int k = full.ia[static_cast<size_t>(i - 1)]; k < full.ia[static_cast<size_t>(i)]; ++k) {
      const int j = full.ja[static_cast<size_t>(k - 1)];
      if (j >= i) p.ja.push_back(j);
    }
    p.ia.push_back(static_cast<int>(p.ja.size()) + 1);
  }
  return p;
}

// ---- one handle with all seventeen arguments of the main call ----

struct Args {
  void **pt;
  const int *maxfct, *mnum, *mtype, *phase, *n;
  void *a;
  const int *ia, *ja;
  int *perm;
  const int *nrhs;
  int *iparm;
  const int *msglvl;
  void *b, *x;
  int *error;
  double *dparm;
};

void Invoke(const Args &g) {
  velmora(g.pt, g.maxfct, g.mnum, g.mtype, g.phase, g.n, g.a, g.ia, g.ja, g.perm, g.nrhs, g.iparm,
          g.msglvl, g.b, g.x, g.error, g.dparm);
}

struct Solver {
  Handle pt{};
  int maxfct = 1, mnum = 1, mtype = 11, phase = 0, n = 0, nrhs = 1, msglvl = 0, error = 0;
  IntArray iparm{};
  DoubleArray dparm{};
  std::vector<int> ia, ja, perm;
  std::vector<double> a, b, x;
  int mtype0, n0;

  Solver(int type, const Pattern &p, int max_rhs = 4) : mtype(type), n(p.n), mtype0(type), n0(p.n) {
    ia = p.ia;
    ja = p.ja;
    perm.assign(static_cast<size_t>(p.n) + 1, 0);
    // diagonally dominant values, in case a later call factors them
    const bool cx = IsComplexType(type);
    a.assign(2 * p.ja.size() + 2, 0.0);
    for (int i = 1; i <= p.n && static_cast<size_t>(i) < p.ia.size(); ++i) {
      for (int k = p.ia[static_cast<size_t>(i - 1)]; k < p.ia[static_cast<size_t>(i)]; ++k) {
        if (k < 1 || static_cast<size_t>(k) > p.ja.size()) continue;
        const size_t at = static_cast<size_t>(k - 1);
        const bool diag = p.ja[at] == i;
        if (cx) {
          a[2 * at] = diag ? 4.0 : -1.0;
          a[2 * at + 1] = diag ? 0.0 : 0.25;
        } else {
          a[at] = diag ? 4.0 : -1.0;
        }
      }
    }
    b.assign(2 * static_cast<size_t>(p.n) * max_rhs + 2, 1.0);
    x.assign(2 * static_cast<size_t>(p.n) * max_rhs + 2, 0.0);
    int solver = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  }
  Solver(const Solver &) = delete;
  Solver &operator=(const Solver &) = delete;
  ~Solver() { Release(); }

  int &ip(int k) { return iparm[static_cast<size_t>(k - 1)]; }

  Args ArgsFor(int ph) {
    phase = ph;
    return Args{pt.data(), &maxfct,   &mnum,     &mtype,      &phase,      &n,
                a.data(),  ia.data(), ja.data(), perm.data(), &nrhs,       iparm.data(),
                &msglvl,   b.data(),  x.data(),  &error,      dparm.data()};
  }
  void Call(int ph) { Invoke(ArgsFor(ph)); }
  std::string Captured(int ph) {
    testing::internal::CaptureStdout();
    Call(ph);
    return testing::internal::GetCapturedStdout();
  }
  // Releases whatever the handle holds (also a handle that was only marked).
  void Release() {
    if (IsEmpty(pt)) return;
    mtype = mtype0;
    n = n0;
    maxfct = 1;
    mnum = 1;
    const int keep = msglvl;
    msglvl = 0;
    Call(-1);
    msglvl = keep;
    EXPECT_EQ(error, 0) << "phase -1";
    EXPECT_TRUE(IsEmpty(pt)) << "phase -1 must leave an empty handle";
  }
};

// ---- output helpers ----

std::vector<std::string> Lines(const std::string &out) {
  std::vector<std::string> lines;
  std::string line;
  std::istringstream in(out);
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

testing::AssertionResult HasLine(const std::string &out, const std::string &line) {
  for (const std::string &l : Lines(out)) {
    if (l == line) return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "no line \"" << line << "\" in output:\n" << out;
}

std::string ClassLine(const char *cls, int code) {
  char buf[160];
  std::snprintf(buf, sizeof buf, "*** error VELMORA  (%-24s) error_num= %d", cls, code);
  return buf;
}

const char kSequence[] = "sequence_ido,parameters";

int ExpectedTeamSize() {
  const char *s = std::getenv("OMP_NUM_THREADS");
  return (s != nullptr && std::atoi(s) > 0) ? std::atoi(s) : 0;
}

// ---- expected control arrays ----

IntArray InitDefaults(int mtype, int solver) {
  IntArray e{};
  auto at = [&e](int k) -> int & { return e[static_cast<size_t>(k - 1)]; };
  const bool sym = mtype == -2 || mtype == -4 || mtype == 6;
  const bool u1 = mtype == 1 || mtype == 3;
  const bool u2 = mtype == 11 || mtype == 13;
  at(1) = 1;
  at(2) = 2;
  at(10) = sym ? 8 : u1 ? 13 : u2 ? 12 : 0;
  at(11) = (mtype == -4 || mtype == 6 || u2) ? 1 : 0;
  at(13) = u2 ? 1 : 0;
  at(18) = -1;
  at(19) = -1;
  at(21) = (mtype == -4 || mtype == 6) ? 1 : 0;
  at(24) = 1;
  at(25) = 1;
  at(32) = (solver == 1 && (mtype == -2 || mtype == 6 || mtype == 11)) ? 1 : 0;
  return e;
}

// Slots written by the reset of a zeroed iparm, and their values.
std::vector<std::pair<int, int>> ResetValues(int mtype) {
  const bool sym = mtype == -2 || mtype == -4 || mtype == 6;
  const bool u2 = mtype == 11 || mtype == 13;
  const bool spd = mtype == 2 || mtype == 4;
  std::vector<std::pair<int, int>> v;
  for (int k : {4, 5, 6, 7, 8, 9, 12, 14, 20, 22, 23, 24, 25, 28, 29, 31, 33, 38, 50, 51}) {
    v.emplace_back(k, 0);
  }
  v.emplace_back(2, 2);
  v.emplace_back(10, sym ? 8 : spd ? 0 : 13);
  v.emplace_back(11, u2 ? 1 : 0);
  v.emplace_back(13, u2 ? 1 : 0);
  v.emplace_back(18, -1);
  v.emplace_back(19, -1);
  v.emplace_back(21, sym ? 1 : 0);
  v.emplace_back(52, 1);
  return v;
}

// Slots that nothing in a call without numeric work reads or writes.
const int kUntouchedSlots[] = {27, 35, 36, 37, 39, 41, 42, 43, 44, 45, 46, 47,
                               48, 49, 55, 56, 57, 58, 59, 60, 61, 62, 63, 64};

// ======================================================================
// Init
// ======================================================================

TEST(Init, DefaultsForEveryTypeAndSolver) {
  for (int mtype : kAllTypes) {
    for (int solver : {0, 1}) {
      SCOPED_TRACE("mtype " + std::to_string(mtype) + " solver " + std::to_string(solver));
      Handle pt;
      for (size_t i = 0; i < pt.size(); ++i) pt[i] = reinterpret_cast<void *>(0x1000 + i);
      IntArray iparm;
      iparm.fill(-77);
      DoubleArray dparm;
      dparm.fill(42.5);
      int error = 99;
      velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
      EXPECT_EQ(error, 0);
      EXPECT_TRUE(IsEmpty(pt));
      const IntArray want = InitDefaults(mtype, solver);
      for (int k = 1; k <= 64; ++k) {
        EXPECT_EQ(iparm[static_cast<size_t>(k - 1)], want[static_cast<size_t>(k - 1)])
            << "iparm(" << k << ")";
      }
      const bool iterative = solver == 1 && (mtype == -2 || mtype == 6 || mtype == 11);
      if (!iterative) {
        for (int k = 1; k <= 64; ++k) {
          EXPECT_EQ(dparm[static_cast<size_t>(k - 1)], 42.5) << "dparm(" << k << ") touched";
        }
      } else {
        const double want_d[9] = {300.0,
                                  9.999999974752427e-07,
                                  5000.0,
                                  10.0,
                                  0.009999999776482582,
                                  0.004999999888241291,
                                  10.0,
                                  500.0,
                                  25.0};
        for (int k = 1; k <= 64; ++k) {
          const double w = k <= 9 ? want_d[k - 1] : 0.0;
          EXPECT_EQ(dparm[static_cast<size_t>(k - 1)], w) << "dparm(" << k << ")";
        }
      }
    }
  }
}

// A zeroed iparm takes the Reset column at the first analysis.  A numeric
// phase on an empty handle resets, passes the check and stops before any
// numeric work, so every slot can be compared exactly.
TEST(Init, ResetColumnForEveryType) {
  const Pattern tri = Tridiagonal(5);
  for (int mtype : kAllTypes) {
    SCOPED_TRACE("mtype " + std::to_string(mtype));
    Solver s(mtype, tri);
    s.iparm.fill(0);
    // values the reset must overwrite before the check would reject them
    for (const auto &kv : ResetValues(mtype)) s.ip(kv.first) = 5;
    s.ip(2) = 9;   // code 11 if it survived
    s.ip(6) = 7;   // code 10 if it survived
    s.ip(3) = -3;  // replaced by the team size after the reset
    for (int k : kUntouchedSlots) s.ip(k) = 1000 + k;
    s.ip(1) = 0;
    s.msglvl = 1;
    const std::string out = s.Captured(22);
    EXPECT_EQ(s.error, -1);
    EXPECT_TRUE(HasLine(out, "*** error velmora: clean impossible (ido?)"));
    EXPECT_EQ(s.ip(1), 0);
    for (const auto &kv : ResetValues(mtype)) {
      EXPECT_EQ(s.ip(kv.first), kv.second) << "iparm(" << kv.first << ")";
    }
    for (int k : kUntouchedSlots) EXPECT_EQ(s.ip(k), 1000 + k) << "iparm(" << k << ")";
    if (ExpectedTeamSize() > 0) {
      EXPECT_EQ(s.ip(3), ExpectedTeamSize());
    } else {
      EXPECT_GE(s.ip(3), 1);
    }
  }
}

// The diagonal front returns before any reset: a zeroed iparm stays as it is
// apart from the slots the front writes.
TEST(Init, DiagonalFrontDoesNotReset) {
  Solver s(11, Diagonal(4));
  s.iparm.fill(0);
  for (int i = 0; i < 4; ++i) {
    s.a[static_cast<size_t>(i)] = 2.0 + i;
    s.b[static_cast<size_t>(i)] = 1.0;
  }
  s.Call(13);
  EXPECT_EQ(s.error, 0);
  EXPECT_EQ(s.ip(10), 0);
  EXPECT_EQ(s.ip(24), 0);
  EXPECT_EQ(s.ip(52), 0);
  EXPECT_EQ(s.ip(12), -1);
  EXPECT_EQ(s.ip(18), 4);
  EXPECT_DOUBLE_EQ(s.x[3], 1.0 / 5.0);
  EXPECT_TRUE(IsEmpty(s.pt));
}

using InitFn = void (*)(void **, const int *, const int *, int *, double *, int *);
using SolveFn = void (*)(void **, const int *, const int *, const int *, const int *, const int *,
                         void *, const int *, const int *, int *, const int *, int *, const int *,
                         void *, void *, int *, double *);

TEST(Init, ProcessorCountFromEnvironment) {
  const char *old = std::getenv("OMP_NUM_THREADS");
  const std::string saved = old != nullptr ? old : "";

  setenv("OMP_NUM_THREADS", "3", 1);
  int nproc = -9;
  testing::internal::CaptureStdout();
  GET_PROC_VELMORA(&nproc);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(nproc, 3);
  EXPECT_NE(out.find("Using 3 CPUS for the factorization"), std::string::npos) << out;

  unsetenv("OMP_NUM_THREADS");
  nproc = -9;
  testing::internal::CaptureStdout();
  const int r = GET_PROC_VELMORA(&nproc);
  out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(r, 0);
  EXPECT_EQ(nproc, -9);
  EXPECT_NE(out.find("Please set environment variable OMP_NUM_THREADS"), std::string::npos) << out;

  if (old != nullptr) setenv("OMP_NUM_THREADS", saved.c_str(), 1);
}

// ======================================================================
// Query
// ======================================================================

void ExpectQueryTouchesNothing(Solver &s) {
  for (int phase : {-2, -3}) {
    SCOPED_TRACE("phase " + std::to_string(phase));
    const Handle pt0 = s.pt;
    IntArray ip0 = s.iparm;
    const DoubleArray dp0 = s.dparm;
    const std::vector<double> b0 = s.b, x0 = s.x;
    s.error = -12345;
    s.msglvl = 1;
    const std::string out = s.Captured(phase);
    s.msglvl = 0;
    EXPECT_EQ(out, "");
    if (phase == -2) {
      EXPECT_EQ(s.error, 18);
      ip0[0] = 23;
    } else {
      EXPECT_EQ(s.error, 500000);
    }
    EXPECT_EQ(s.iparm, ip0);
    EXPECT_EQ(s.pt, pt0);
    EXPECT_EQ(s.dparm, dp0);
    EXPECT_EQ(s.b, b0);
    EXPECT_EQ(s.x, x0);
    s.ip(1) = 1;
  }
}

// On an empty handle, after an analysis, on a handle filled without one and
// on a marked handle.
TEST(Query, TouchesNothingInAnyState) {
  const struct {
    int mtype, prepare, error;
  } states[] = {{11, 0, 0}, {-2, 11, 0}, {13, 22, -7}, {11, 0, 0}};
  for (size_t k = 0; k < 4; ++k) {
    SCOPED_TRACE("state " + std::to_string(k));
    Solver s(states[k].mtype, ForType(states[k].mtype, Tridiagonal(5)));
    if (k > 0) {
      s.Call(states[k].prepare);
      EXPECT_EQ(s.error, states[k].error);
      EXPECT_FALSE(IsEmpty(s.pt));
    }
    ExpectQueryTouchesNothing(s);
    if (k == 0) {
      EXPECT_TRUE(IsEmpty(s.pt));
    }
    s.Release();
  }
}

// ======================================================================
// Diagonal systems
// ======================================================================

class DiagonalSystem : public testing::TestWithParam<int> {
 protected:
  static constexpr int kN = 7;

  // row values: real ones with both signs, complex ones with both parts
  static cplx Value(int i) {
    if (IsComplexType(GetParam())) return cplx(1.5 + i, (i % 2) ? -0.75 * i : 0.5);
    return cplx((i % 3 == 0) ? -(0.5 + i) : 1.25 * i, 0.0);
  }
  static cplx Rhs(int i, int k) {
    if (IsComplexType(GetParam())) return cplx(i - 3.0 + k, 2.0 - 0.5 * i);
    return cplx((i + 1.0) * (k + 1.0) + 0.25, 0.0);
  }

  static void Fill(Solver &s, int nrhs, int zero_row = 0) {
    const bool cx = IsComplexType(s.mtype);
    const int n = s.n;
    for (int i = 1; i <= n; ++i) {
      const cplx v = i == zero_row ? cplx(0.0, 0.0) : Value(i);
      Put(s.a, i - 1, v, cx);
    }
    s.nrhs = nrhs;
    for (int k = 0; k < nrhs; ++k) {
      for (int i = 1; i <= n; ++i) Put(s.b, k * n + i - 1, Rhs(i, k), cx);
    }
  }
  static void Put(std::vector<double> &v, int idx, cplx z, bool cx) {
    if (cx) {
      v[2 * static_cast<size_t>(idx)] = z.real();
      v[2 * static_cast<size_t>(idx) + 1] = z.imag();
    } else {
      v[static_cast<size_t>(idx)] = z.real();
    }
  }
  static cplx Get(const std::vector<double> &v, int idx, bool cx) {
    if (cx) return cplx(v[2 * static_cast<size_t>(idx)], v[2 * static_cast<size_t>(idx) + 1]);
    return cplx(v[static_cast<size_t>(idx)], 0.0);
  }
  static void ExpectSolution(const std::vector<double> &got, int n, int nrhs, bool cx) {
    for (int k = 0; k < nrhs; ++k) {
      for (int i = 1; i <= n; ++i) {
        const cplx want = Rhs(i, k) / Value(i);
        const cplx have = Get(got, k * n + i - 1, cx);
        if (cx) {
          const double tol = 1e-14 * (1.0 + std::abs(want));
          EXPECT_NEAR(have.real(), want.real(), tol) << "row " << i << " rhs " << k;
          EXPECT_NEAR(have.imag(), want.imag(), tol) << "row " << i << " rhs " << k;
        } else {
          EXPECT_DOUBLE_EQ(have.real(), want.real()) << "row " << i << " rhs " << k;
        }
      }
    }
  }
  static void Poison(std::vector<double> &v) {
    for (double &d : v) d = -999.0;
  }
  static int CountPositive(int rows) {
    int c = 0;
    for (int i = 1; i <= rows; ++i) c += Value(i).real() > 0 ? 1 : 0;
    return c;
  }
  static void ExpectFrontCounters(Solver &s) {
    EXPECT_EQ(s.ip(12), -1);
    EXPECT_EQ(s.ip(15), 0);
    EXPECT_EQ(s.ip(16), 0);
    EXPECT_EQ(s.ip(17), 0);
    EXPECT_EQ(s.ip(18), s.n);
    EXPECT_EQ(s.ip(19), 0);
    EXPECT_EQ(s.ip(20), 0);
  }
};

TEST_P(DiagonalSystem, AllPhasesAllocateNothing) {
  const int mtype = GetParam();
  const bool cx = IsComplexType(mtype);
  for (int nrhs : {1, 3}) {
    SCOPED_TRACE("nrhs " + std::to_string(nrhs));
    Solver s(mtype, Diagonal(kN));
    s.ip(15) = s.ip(16) = s.ip(17) = s.ip(20) = 55;
    Fill(s, nrhs);
    const std::vector<double> b0 = s.b;
    for (int phase : {11, 12, 13, 22, 23, 33, 0, -1}) {
      SCOPED_TRACE("phase " + std::to_string(phase));
      Poison(s.x);
      s.error = 77;
      s.Call(phase);
      EXPECT_EQ(s.error, 0);
      EXPECT_TRUE(IsEmpty(s.pt));
      EXPECT_EQ(s.b, b0) << "b changed with iparm(6) 0";
      if (phase >= 11) ExpectFrontCounters(s);
      if (phase == 13 || phase == 23 || phase == 33) {
        ExpectSolution(s.x, kN, nrhs, cx);
      } else {
        EXPECT_EQ(s.x[0], -999.0) << "x written without a solve";
      }
      if (!cx) {
        // the counts of the routine; phase 11 runs no test and counts nothing
        const int pos = phase == 11 ? 0 : CountPositive(kN);
        EXPECT_EQ(s.ip(22), pos);
        EXPECT_EQ(s.ip(23), phase == 11 ? 0 : kN - pos);
      } else {
        EXPECT_EQ(s.ip(22), 0);
        EXPECT_EQ(s.ip(23), 0);
      }
    }
  }
}

TEST_P(DiagonalSystem, SolutionIntoRightHandSide) {
  const int mtype = GetParam();
  const bool cx = IsComplexType(mtype);
  for (int nrhs : {1, 3}) {
    SCOPED_TRACE("nrhs " + std::to_string(nrhs));
    Solver s(mtype, Diagonal(kN));
    s.ip(6) = 1;
    Fill(s, nrhs);
    Poison(s.x);
    s.Call(13);
    EXPECT_EQ(s.error, 0);
    ExpectSolution(s.b, kN, nrhs, cx);
    ExpectSolution(s.x, kN, nrhs, cx);
    EXPECT_TRUE(IsEmpty(s.pt));
    s.Call(-1);
    EXPECT_EQ(s.error, 0);
    EXPECT_TRUE(IsEmpty(s.pt));
  }
}

TEST_P(DiagonalSystem, ZeroAtRowFive) {
  const int mtype = GetParam();
  const bool cx = IsComplexType(mtype);
  const struct {
    int phase, error;
  } cases[] = {{11, 0}, {12, -5}, {13, -5}, {22, -5}, {23, -7}, {33, -7}};
  for (const auto &c : cases) {
    SCOPED_TRACE("phase " + std::to_string(c.phase));
    Solver s(mtype, Diagonal(kN));
    Fill(s, 1, 5);
    s.Call(c.phase);
    EXPECT_EQ(s.error, c.error);
    ExpectFrontCounters(s);
    EXPECT_TRUE(IsEmpty(s.pt));
    if (!cx && c.phase != 11) {
      EXPECT_EQ(s.ip(22), CountPositive(4));
      EXPECT_EQ(s.ip(23), 4 - CountPositive(4));
    }
    s.Call(-1);
    EXPECT_EQ(s.error, 0);
    EXPECT_TRUE(IsEmpty(s.pt));
  }
}

TEST_P(DiagonalSystem, RowWithTwoEntries) {
  const int mtype = GetParam();
  const bool cx = IsComplexType(mtype);
  // five rows, five entries: row 2 empty, row 3 holds two
  Pattern p;
  p.n = 5;
  p.ia = {1, 2, 2, 4, 5, 6};
  p.ja = {1, 2, 3, 4, 5};
  const struct {
    int phase, error;
  } cases[] = {{11, 0}, {12, 2}, {13, 2}, {22, 2}, {23, -7}, {33, -7}};
  for (const auto &c : cases) {
    SCOPED_TRACE("phase " + std::to_string(c.phase));
    Solver s(mtype, p);
    Fill(s, 1);
    s.Call(c.phase);
    EXPECT_EQ(s.error, c.error);
    EXPECT_EQ(s.ip(12), -1);
    EXPECT_EQ(s.ip(18), 5);
    EXPECT_TRUE(IsEmpty(s.pt));
    if (!cx && c.phase != 11) {
      EXPECT_EQ(s.ip(22) + s.ip(23), 1) << "only row 1 is counted";
    }
    s.Call(-1);
    EXPECT_EQ(s.error, 0);
    EXPECT_TRUE(IsEmpty(s.pt));
  }
}

class ComplexDiagonal : public DiagonalSystem {};

TEST_P(ComplexDiagonal, ZeroNeedsBothParts) {
  const int mtype = GetParam();
  Solver s(mtype, Diagonal(kN));
  Fill(s, 1);
  s.a[2 * 4] = 0.0;  // row 5: purely imaginary
  s.a[2 * 4 + 1] = 2.0;
  s.Call(13);
  EXPECT_EQ(s.error, 0);
  s.a[2 * 4 + 1] = 0.0;
  s.Call(13);
  EXPECT_EQ(s.error, -5);
}

std::string TypeName(const testing::TestParamInfo<int> &pi) {
  return pi.param < 0 ? "minus" + std::to_string(-pi.param) : "mtype" + std::to_string(pi.param);
}

INSTANTIATE_TEST_SUITE_P(Types, DiagonalSystem, testing::ValuesIn(kAllTypes), TypeName);
INSTANTIATE_TEST_SUITE_P(Types, ComplexDiagonal, testing::Values(3, 4, -4, 6, 13), TypeName);

// ======================================================================
// Input checks
// ======================================================================

struct CheckCase {
  std::function<void(Solver &)> prepare;  // silent calls before the checked one
  std::function<void(Solver &)> call;     // the checked call
  int code;
  std::string line;
  bool quiet_at_zero = true;  // nothing printed at msglvl 0
  // A plain solve (phase 33) tells its failure in words only: error is 0.
  bool plain_solve = false;
};

void RunCheckCase(const CheckCase &c, int mtype = 11, const Pattern &pat = Tridiagonal(5)) {
  for (int msglvl : {1, 0}) {
    SCOPED_TRACE("msglvl " + std::to_string(msglvl));
    Solver s(mtype, pat);
    if (c.prepare) c.prepare(s);
    s.msglvl = msglvl;
    testing::internal::CaptureStdout();
    c.call(s);
    const std::string out = testing::internal::GetCapturedStdout();
    if (msglvl == 1) {
      EXPECT_EQ(s.error, c.plain_solve ? 0 : -1);
      EXPECT_TRUE(HasLine(out, ClassLine(kSequence, c.code)));
      EXPECT_TRUE(HasLine(out, c.line));
    } else {
      EXPECT_EQ(s.error, c.plain_solve ? 0 : -7);
      if (c.quiet_at_zero) {
        EXPECT_EQ(out, "");
      }
    }
    s.Release();
  }
}

// A call that passes the check and leaves the handle filled with the
// check's memory updated (analysis may or may not succeed).
void Analyse(Solver &s) {
  s.msglvl = 0;
  s.Call(11);
  EXPECT_NE(s.error, -7) << "the preparing analysis failed its check";
  EXPECT_FALSE(IsEmpty(s.pt));
}

// The same without any analysis: the check passes, the numeric phase then
// finds no symbolic factor.
void FillWithoutAnalysis(Solver &s) {
  s.msglvl = 0;
  s.Call(22);
  EXPECT_EQ(s.error, -7);
  EXPECT_FALSE(IsEmpty(s.pt));
}

// One row of the check table: the silent preparation, the type (its
// tridiagonal pattern of order 5 unless the pattern is given), what the
// checked call changes, its phase, and the code and line it reports.
struct CheckRow {
  void (*prepare)(Solver &);
  int mtype;
  std::function<void(Solver &)> change;
  int phase, code;
  std::string line;
  bool quiet_at_zero = true;
  const Pattern *pattern = nullptr;
};

std::string Msg(const std::string &what) {
  return "*** Input check: " + what;
}

TEST(InputCheck, CodesAndMessages) {
  auto nothing = [](Solver &) {};
  Pattern sparse;  // more rows than nonzeros: 8, not 7
  sparse.n = 5;
  sparse.ia = {1, 2, 3, 4, 5, 5};
  sparse.ja = {1, 2, 3, 4};
  std::vector<CheckRow> rows = {
      {nullptr, 11, nothing, 34, 1, Msg("ido_new 34 (out of bounds)")},
      {nullptr, 11, nothing, 99, 1, Msg("ido_new 99 (out of bounds)")},
      // a negative phase reaches the check only on a filled handle; the
      // driver may add its own line for negative phases
      {FillWithoutAnalysis, 11, nothing, -5, 1, Msg("ido_new -5 (out of bounds)"), false},
      {Analyse, 11, [](Solver &s) { s.maxfct = 2; }, 22, 2,
       Msg("max_fac_store_new 2 _old 1 are incompatible")},
      {FillWithoutAnalysis, 11, [](Solver &s) { s.maxfct = 3; }, 22, 2,
       Msg("max_fac_store_new 3 _old 1 are incompatible")},
      {nullptr, 11, [](Solver &s) { s.mnum = 2; }, 11, 3,
       Msg("max_fac_store_in 1 matrix_number_in 2")},
      {nullptr, 11, [](Solver &s) { s.maxfct = 2, s.mnum = 3; }, 13, 3,
       Msg("max_fac_store_in 2 matrix_number_in 3")},
      {nullptr, 11, [](Solver &s) { s.mnum = 0; }, 22, 4,
       Msg("matrix_number_new 0 ido 22 are incompatible")},
      {FillWithoutAnalysis, 11, [](Solver &s) { s.mnum = -1; }, 33, 4,
       Msg("matrix_number_new -1 ido 33 are incompatible")},
      // 2 after 4: 2/2 and 4/2 differ; 1 after 3: 1/2 is 0, 3/2 is 1
      {Analyse, 4, [](Solver &s) { s.mtype = 2; }, 22, 5,
       Msg("matrix_type_new 2 _old 4 are incompatible")},
      {FillWithoutAnalysis, 3, [](Solver &s) { s.mtype = 1; }, 22, 5,
       Msg("matrix_type_new 1 _old 3 are incompatible")},
      {FillWithoutAnalysis, 11, [](Solver &s) { s.mtype = 13; }, 22, 5,
       Msg("matrix_type_new 13 _old 11 are incompatible")},
      {Analyse, 11, [](Solver &s) { s.n = 4; }, 22, 6, Msg("neqns_new 4 _old 5 are incompatible")},
      {nullptr, 11, nothing, 11, 8, Msg("ia(neqns+1)_new 4 _old 0 are incompatible"), true,
       &sparse},
      {Analyse, 11, [](Solver &s) { s.ia[5] = 13; }, 22, 8,
       Msg("ia(neqns+1)_new 12 _old 13 are incompatible")},
      {nullptr, 11, [](Solver &s) { s.nrhs = 0; }, 13, 9,
       Msg("nb_new  0  ido 13 are incompatible")},
      {nullptr, 11, [](Solver &s) { s.nrhs = -2; }, 23, 9,
       Msg("nb_new  -2  ido 23 are incompatible")},
      {FillWithoutAnalysis, 11, [](Solver &s) { s.nrhs = 0; }, 33, 9,
       Msg("nb_new  0  ido 33 are incompatible")},
      // the first failing test decides: 1 before 3, 4 before 15, 15 before
      // 7, 5 before 6, 7 before 10, 9 before 10, 10 before 11, 11 before 20
      {nullptr, 11, [](Solver &s) { s.mnum = 5; }, 40, 1, Msg("ido_new 40 (out of bounds)")},
      {nullptr, 11, [](Solver &s) { s.mnum = 0, s.mtype = 9; }, 22, 4,
       Msg("matrix_number_new 0 ido 22 are incompatible")},
      {nullptr, 11, [](Solver &s) { s.mtype = 8, s.n = 0; }, 11, 15,
       Msg("matrix_type_new 8 (out of bounds)")},
      {Analyse, 11, [](Solver &s) { s.mtype = 1, s.n = 4; }, 22, 5,
       Msg("matrix_type_new 1 _old 11 are incompatible")},
      {nullptr, 11, [](Solver &s) { s.n = 0, s.ip(6) = 3; }, 11, 7, Msg("neqns_new 0 ")},
      {nullptr, 11, [](Solver &s) { s.nrhs = 0, s.ip(6) = 3; }, 13, 9,
       Msg("nb_new  0  ido 13 are incompatible")},
      {nullptr, 11, [](Solver &s) { s.ip(6) = 3, s.ip(2) = 7; }, 11, 10,
       Msg("iparam(6) 3 (out of bounds)")},
      {nullptr, 11, [](Solver &s) { s.ip(2) = 7; }, 15, 11, Msg("preprocessing 7 (out of bounds)")},
  };
  for (int bad : {0, 7, 12, -13, 14})
    rows.push_back({nullptr, 11, [bad](Solver &s) { s.mtype = bad; }, 11, 15,
                    Msg("matrix_type_new " + std::to_string(bad) + " (out of bounds)")});
  for (int bad : {0, -3})
    rows.push_back({nullptr, 11, [bad](Solver &s) { s.n = bad; }, 11, 7,
                    Msg("neqns_new " + std::to_string(bad) + " ")});
  for (int bad : {2, -1})
    rows.push_back({nullptr, 11, [bad](Solver &s) { s.ip(6) = bad; }, 11, 10,
                    Msg("iparam(6) " + std::to_string(bad) + " (out of bounds)")});
  for (int bad : {5, -1})
    rows.push_back({nullptr, 11, [bad](Solver &s) { s.ip(2) = bad; }, 11, 11,
                    Msg("preprocessing " + std::to_string(bad) + " (out of bounds)")});
  // phases 3x take the stored nonzero count: on a filled handle they reach 20
  for (int bad : {14, 19, 21, 24, 29, 30, 31, 32})
    rows.push_back({bad >= 30 ? FillWithoutAnalysis : nullptr, 11, nothing, bad, 20,
                    "*** wrong controlstep parameter ido " + std::to_string(bad)});
  for (int phase : {22, 23})
    rows.push_back(
        {nullptr, 11, nothing, phase, 100000, "*** error velmora: clean impossible (ido?)"});
  for (int mnum : {0, 2})
    rows.push_back({FillWithoutAnalysis, 11, [mnum](Solver &s) { s.mnum = mnum; }, 0, 100,
                    "*** error velmora: wrong matrix number, clean " + std::to_string(mnum)});
  for (const CheckRow &r : rows) {
    SCOPED_TRACE("phase " + std::to_string(r.phase) + ": " + r.line);
    const int phase = r.phase;
    const auto change = r.change;
    RunCheckCase({r.prepare,
                  [phase, change](Solver &s) {
                    change(s);
                    s.Call(phase);
                  },
                  r.code, r.line, r.quiet_at_zero, phase == 33},
                 r.mtype, r.pattern != nullptr ? *r.pattern : ForType(r.mtype, Tridiagonal(5)));
  }
}

TEST(InputCheck, CompatibleMatrixTypesPass) {
  // 2 after 3 and 3 after 2 (2/2 == 3/2), a type after its negative
  const struct {
    int first, second;
  } ok[] = {{3, 2}, {2, 3}, {4, -4}, {-4, 4}, {-2, 2}, {2, -2}, {4, 5}};
  for (const auto &c : ok) {
    SCOPED_TRACE("mtype " + std::to_string(c.second) + " after " + std::to_string(c.first));
    Solver s(c.first, Tridiagonal(5));
    FillWithoutAnalysis(s);
    s.mtype = c.second;
    s.msglvl = 1;
    const std::string out = s.Captured(22);
    EXPECT_EQ(s.error, -1);
    EXPECT_TRUE(HasLine(out, ClassLine(kSequence, 100000)));
    EXPECT_TRUE(HasLine(out, "*** error velmora: clean impossible (ido?)"));
    EXPECT_EQ(out.find("matrix_type_new"), std::string::npos) << out;
    s.Release();
  }
}

TEST(InputCheck, OrderingAcceptedWithPanelWidth) {
  Solver s(11, Tridiagonal(5));
  s.ip(30) = 1;
  s.ip(2) = 9;
  s.msglvl = 1;
  const std::string out = s.Captured(22);
  EXPECT_EQ(s.error, -1);
  EXPECT_TRUE(HasLine(out, "*** error velmora: clean impossible (ido?)"));
  EXPECT_EQ(out.find("*** Input check: preprocessing"), std::string::npos) << out;
  s.Release();
}

TEST(InputCheck, Code20KeepsTheHandle) {
  Solver s(11, Tridiagonal(5));
  FillWithoutAnalysis(s);
  const Handle before = s.pt;
  s.Call(27);
  EXPECT_EQ(s.error, -7);
  for (size_t k = 1; k < 64; ++k) EXPECT_EQ(s.pt[k], before[k]) << "pt(" << k + 1 << ")";
  s.Release();
}

TEST(InputCheck, MessageLevelIsReducedToOne) {
  for (int msglvl : {5, -1, -30}) {
    SCOPED_TRACE("msglvl " + std::to_string(msglvl));
    Solver s(11, Tridiagonal(5));
    s.ip(6) = 4;
    s.msglvl = msglvl;
    const std::string out = s.Captured(11);
    EXPECT_EQ(s.error, -1);
    EXPECT_TRUE(HasLine(out, ClassLine(kSequence, 10)));
    EXPECT_TRUE(HasLine(out, "*** Input check: iparam(6) 4 (out of bounds)"));
    s.Release();
  }
}

// A solve-only call takes the nonzero count from the handle, which is 0 on
// an empty one: the call fails for want of an analysis, an input failure
// that a plain solve reports in words only (error 0).
TEST(InputCheck, SolveOnEmptyHandle) {
  for (int msglvl : {1, 0}) {
    SCOPED_TRACE("msglvl " + std::to_string(msglvl));
    Solver s(11, Tridiagonal(5));
    s.msglvl = msglvl;
    const std::string out = s.Captured(33);
    EXPECT_EQ(s.error, 0);
    if (msglvl == 0) {
      EXPECT_EQ(out, "");
    } else {
      EXPECT_TRUE(HasLine(out, ClassLine(kSequence, 100000))) << out;
      EXPECT_TRUE(HasLine(out, "*** error velmora: clean impossible (ido?)")) << out;
    }
    s.Release();
  }
}

TEST(InputCheck, ReleaseOfOneFactorization) {
  Solver s(11, Tridiagonal(5));
  FillWithoutAnalysis(s);
  s.msglvl = 1;
  const std::string out = s.Captured(0);
  EXPECT_EQ(s.error, 0);
  EXPECT_TRUE(HasLine(out, " L&U for matrix number 1 deleted"));
  EXPECT_FALSE(IsEmpty(s.pt));
  s.Release();
}

TEST(InputCheck, ReleaseOfEverything) {
  Solver s(11, Tridiagonal(5));
  Analyse(s);
  s.msglvl = 1;
  const std::string out = s.Captured(-1);
  EXPECT_EQ(s.error, 0);
  EXPECT_TRUE(HasLine(out, " cleaned memory, deleted number of L&U-factorizations: 0"));
  EXPECT_TRUE(IsEmpty(s.pt));
}

TEST(InputCheck, MarkedHandleIsContradictory) {
  for (int marking_phase : {0, -1}) {
    SCOPED_TRACE("marked by phase " + std::to_string(marking_phase));
    Solver s(11, Tridiagonal(5));
    s.Call(marking_phase);
    EXPECT_EQ(s.error, 0);
    EXPECT_FALSE(IsEmpty(s.pt)) << "a call below 1 on an empty handle marks it";
    s.msglvl = 1;
    const std::string out = s.Captured(22);
    EXPECT_LT(s.error, 0);
    EXPECT_TRUE(HasLine(out, "*** error VELMORA  (contradictory input, initialization failed)"));
    EXPECT_TRUE(HasLine(out, "handle=0 ?? ido= 22"));
    s.Release();
  }
}

TEST(InputCheck, ThreadCountReplacesNonPositive) {
  for (int given : {0, -4}) {
    SCOPED_TRACE("iparm(3) " + std::to_string(given));
    Solver s(11, Tridiagonal(5));
    s.ip(3) = given;
    FillWithoutAnalysis(s);
    if (ExpectedTeamSize() > 0) {
      EXPECT_EQ(s.ip(3), ExpectedTeamSize());
    } else {
      EXPECT_GE(s.ip(3), 1);
    }
    s.Release();
  }
  // a positive value is kept, never compared with the count
  Solver s(11, Tridiagonal(5));
  s.ip(3) = 7;
  FillWithoutAnalysis(s);
  EXPECT_EQ(s.ip(3), 7);
  s.Release();

  // a phase outside -1..33 does not count the threads
  Solver t(11, Tridiagonal(5));
  t.ip(3) = 0;
  t.Call(34);
  EXPECT_EQ(t.error, -7);
  EXPECT_EQ(t.ip(3), 0);
  t.Release();
}

TEST(InputCheck, CallerValueOfSlot50IsCleared) {
  Solver s(11, Tridiagonal(5));
  s.ip(50) = 6;
  FillWithoutAnalysis(s);
  EXPECT_EQ(s.ip(50), 0);
  s.Release();
}

// ======================================================================
// Robustness: malformed calls come back with a negative error
// ======================================================================

void ExpectNegative(const std::function<void(Args &)> &spoil, int phase, const Pattern &p,
                    int mtype = 11) {
  Solver s(mtype, p);
  Args g = s.ArgsFor(phase);
  spoil(g);
  s.error = 0;
  Invoke(g);
  EXPECT_LT(s.error, 0);
  s.Release();
}

TEST(Robustness, NullPointers) {
  const Pattern tri = Tridiagonal(5);
  const Pattern dia = Diagonal(5);
  const struct {
    const char *name;
    std::function<void(Args &)> spoil;
    int phase;
    bool diagonal_too;
  } cases[] = {
      {"pt", [](Args &g) { g.pt = nullptr; }, 11, false},
      {"iparm", [](Args &g) { g.iparm = nullptr; }, 11, true},
      {"ia", [](Args &g) { g.ia = nullptr; }, 11, true},
      {"ja", [](Args &g) { g.ja = nullptr; }, 11, false},
      {"a", [](Args &g) { g.a = nullptr; }, 13, true},
      {"b", [](Args &g) { g.b = nullptr; }, 13, true},
      {"x", [](Args &g) { g.x = nullptr; }, 13, true},
      {"maxfct", [](Args &g) { g.maxfct = nullptr; }, 13, false},
      {"mnum", [](Args &g) { g.mnum = nullptr; }, 13, false},
      {"mtype", [](Args &g) { g.mtype = nullptr; }, 13, true},
      {"phase", [](Args &g) { g.phase = nullptr; }, 13, true},
      {"n", [](Args &g) { g.n = nullptr; }, 13, true},
      {"nrhs", [](Args &g) { g.nrhs = nullptr; }, 13, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string("null ") + c.name);
    ExpectNegative(c.spoil, c.phase, tri);
    if (c.diagonal_too) {
      SCOPED_TRACE("diagonal");
      ExpectNegative(c.spoil, c.phase, dia);
      ExpectNegative(c.spoil, c.phase, dia, 13);
    }
  }
}

TEST(Robustness, NullErrorJustReturns) {
  for (const Pattern &p : {Tridiagonal(5), Diagonal(5)}) {
    Solver s(11, p);
    Args g = s.ArgsFor(13);
    g.error = nullptr;
    Invoke(g);
    EXPECT_TRUE(IsEmpty(s.pt));
  }
}

// The message of a negative order is checked with the other input checks.
TEST(Robustness, NegativeOrderDoesNotReadRowPointers) {
  Solver t(11, Tridiagonal(5));
  Args g = t.ArgsFor(13);
  const int n = -7;
  g.n = &n;
  g.ia = nullptr;
  Invoke(g);
  EXPECT_LT(t.error, 0);
  t.Release();
}

TEST(Robustness, HugeMaximalFactorizationCount) {
  for (int msglvl : {0, 1}) {
    Solver s(11, Tridiagonal(5));
    s.maxfct = INT_MAX;
    s.msglvl = msglvl;
    const std::string out = s.Captured(11);
    EXPECT_LT(s.error, 0) << out;
    s.Release();
  }
}

TEST(Robustness, GarbageRowPointers) {
  const Pattern tri = Tridiagonal(5);  // ia 1 3 6 9 12 14
  std::vector<std::vector<int>> bad_ia = {
      {1, 6, 3, 9, 12, 14},   // decreasing
      {1, 3, 6, 9, 15, 14},   // decreasing at the end
      {0, 3, 6, 9, 12, 14},   // below one
      {-4, 3, 6, 9, 12, 14},  // negative
      {3, 3, 6, 9, 12, 14},   // first row does not start at one
  };
  for (const auto &ia : bad_ia) {
    for (int phase : {11, 13}) {
      SCOPED_TRACE("phase " + std::to_string(phase) + " ia " + std::to_string(ia[1]) + "," +
                   std::to_string(ia[2]) + "," + std::to_string(ia[4]));
      Pattern p = tri;
      p.ia = ia;
      ExpectNegative([](Args &) {}, phase, p);
      ExpectNegative([](Args &) {}, phase, p, 13);
    }
  }
}

TEST(Robustness, GarbageColumnIndices) {
  for (int bad : {0, -1, 6, 1000000}) {
    SCOPED_TRACE("ja entry " + std::to_string(bad));
    Pattern p = Tridiagonal(5);
    p.ja[4] = bad;
    ExpectNegative([](Args &) {}, 13, p);
    ExpectNegative([](Args &) {}, 13, p, 1);
  }
}

}  // namespace
