// Random calls of the public entry, with fixed seeds: small matrices of
// every type, often mangled (unsorted or repeated columns, indices out of
// range, broken row pointers, a missing diagonal, entries below the
// diagonal of a symmetric type, NaN and infinity), random control slots,
// masks and permutations in perm, and random phase sequences on one handle,
// always released at the end.  Whatever comes in, the library answers with
// one of its result codes, never touches the caller's matrix, and (the
// sanitizer build runs this too) never reads or writes outside an array.
// Sound matrices with default settings must be solved.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "velmora.h"

namespace {

const int kTypes[] = {1, 2, -2, 3, 4, -4, 6, 11, 13};

bool symmetric_storage(int mtype) {
  return mtype == 2 || mtype == -2 || mtype == 4 || mtype == -4 || mtype == 6;
}

struct Case {
  int mtype, n, width;
  std::vector<int> ia, ja;
  std::vector<double> a;
  bool mangled = false;
};

// A diagonally dominant matrix of the type's storage: with positive
// diagonal for the definite types, either sign otherwise.
Case generate(std::mt19937 &rng) {
  Case c;
  c.mtype = kTypes[rng() % 9];
  c.n = 1 + static_cast<int>(rng() % 40);
  c.width =
      (c.mtype == 3 || c.mtype == 4 || c.mtype == -4 || c.mtype == 6 || c.mtype == 13) ? 2 : 1;
  std::uniform_real_distribution<double> u(-1, 1);
  const bool upper = symmetric_storage(c.mtype);
  const bool definite = c.mtype == 2 || c.mtype == 4;
  c.ia.push_back(1);
  for (int i = 0; i < c.n; ++i) {
    std::set<int> cols = {i};
    for (int k = 0; k < 3; ++k) {
      const int j = static_cast<int>(rng() % c.n);
      if (!upper || j > i) cols.insert(j);
    }
    // Symmetric storage gives each row its mirror: keep the dominance.
    for (int j : cols) {
      c.ja.push_back(j + 1);
      const bool diagonal = j == i;
      const double re =
          diagonal ? (definite || rng() % 2 ? 1.0 : -1.0) * (10.0 + 2.0 * cols.size()) : u(rng);
      c.a.push_back(re);
      if (c.width == 2) c.a.push_back(diagonal && (c.mtype == 4 || c.mtype == -4) ? 0.0 : u(rng));
    }
    c.ia.push_back(static_cast<int>(c.ja.size()) + 1);
  }
  return c;
}

// One fault of the kinds callers make.
void mangle(Case &c, std::mt19937 &rng) {
  const int nnz = c.ia[c.n] - 1;
  const int k = static_cast<int>(rng() % nnz);
  const int row = static_cast<int>(rng() % c.n);
  c.mangled = true;
  switch (rng() % 9) {
    case 0:  // a column repeated
      if (k > 0) c.ja[k] = c.ja[k - 1];
      break;
    case 1:  // two columns exchanged
      if (k > 0) std::swap(c.ja[k], c.ja[k - 1]);
      break;
    case 2:
      c.ja[k] = rng() % 2 ? 0 : c.n + 1 + static_cast<int>(rng() % 3);
      break;
    case 3:  // row pointers that decrease
      if (row > 0) std::swap(c.ia[row], c.ia[row + 1]);
      break;
    case 4:
      c.ia[0] = rng() % 2 ? 0 : 2;
      break;
    case 5:  // an entry below the diagonal (or anywhere for general types)
      c.ja[k] = 1;
      break;
    case 6:
      c.a[static_cast<size_t>(k) * c.width] = std::numeric_limits<double>::quiet_NaN();
      break;
    case 7:
      c.a[static_cast<size_t>(k) * c.width] = -std::numeric_limits<double>::infinity();
      break;
    default:  // the last row pointer beyond the arrays' count
      c.ia[c.n] += 1 + static_cast<int>(rng() % 5);
      c.ja.resize(c.ja.size() + 8, 1);
      c.a.resize(c.a.size() + 8 * c.width, 1.0);
      break;
  }
}

// Slots a caller sets, with values in and out of their ranges.
void randomize_controls(std::array<int, 64> &iparm, std::mt19937 &rng) {
  static const int kSlots[] = {2,  3,  4,  5,  6,  8,  10, 11, 12, 13, 21, 24, 25, 26,
                               27, 28, 29, 31, 33, 34, 36, 38, 40, 51, 52, 53, 54, 60};
  const int count = 1 + static_cast<int>(rng() % 4);
  for (int t = 0; t < count; ++t) {
    const int slot = kSlots[rng() % (sizeof kSlots / sizeof kSlots[0])];
    const int value = static_cast<int>(rng() % 7) - 2;
    iparm[slot - 1] = slot == 38 || slot == 54 ? value * 3 : value;
  }
}

double backward_error(const Case &c, const std::vector<double> &x, const std::vector<double> &b) {
  const int n = c.n, w = c.width;
  std::vector<double> r(b), rows(n, 0.0);
  auto mul = [&](int i, int j, int k, bool mirror) {
    const double are = c.a[static_cast<size_t>(k) * w],
                 aim = w == 2 ? c.a[static_cast<size_t>(k) * w + 1] : 0.0;
    const double conj = mirror && (c.mtype == 4 || c.mtype == -4) ? -1.0 : 1.0;
    const double xr = x[static_cast<size_t>(j) * w],
                 xi = w == 2 ? x[static_cast<size_t>(j) * w + 1] : 0.0;
    r[static_cast<size_t>(i) * w] -= are * xr - conj * aim * xi;
    if (w == 2) r[static_cast<size_t>(i) * w + 1] -= are * xi + conj * aim * xr;
    rows[i] += std::hypot(are, aim);
  };
  for (int i = 0; i < n; ++i)
    for (int k = c.ia[i] - 1; k < c.ia[i + 1] - 1; ++k) {
      const int j = c.ja[k] - 1;
      mul(i, j, k, false);
      if (symmetric_storage(c.mtype) && j != i) mul(j, i, k, true);
    }
  double rn = 0, xn = 0, bn = 0, an = 0;
  for (int i = 0; i < n; ++i) {
    for (int p = 0; p < w; ++p) {
      rn = std::max(rn, std::abs(r[static_cast<size_t>(i) * w + p]));
      xn = std::max(xn, std::abs(x[static_cast<size_t>(i) * w + p]));
      bn = std::max(bn, std::abs(b[static_cast<size_t>(i) * w + p]));
    }
    an = std::max(an, rows[i]);
  }
  return rn / (an * xn + bn);
}

// Each fault of a pattern is refused by the analysis with -3 and a line
// naming the row, before the matching or any later layer reads it: also
// where the symmetric matching runs (iparm(13) 1 to 4).
TEST(RandomCalls, MalformedPatternsAreRefusedWithTheirRow) {
  // 1D Laplacian of 6 rows, upper triangle: row i holds (i, i), (i, i+1).
  const std::vector<int> ia = {1, 3, 5, 7, 9, 11, 12};
  const std::vector<int> ja = {1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6};
  struct Fault {
    const char *what;
    int entry, column;  // ja[entry] = column
    const char *line;
  };
  const Fault faults[] = {
      {"repeated column", 3, 2,
       "*** error velmora: malformed matrix, row 2: column indices of a row are not strictly "
       "increasing (unsorted or repeated)"},
      {"below the diagonal", 2, 1,
       "*** error velmora: malformed matrix, row 2: an entry lies below the diagonal, where a "
       "symmetric type gives the upper triangle only"},
      {"column out of range", 5, 7,
       "*** error velmora: malformed matrix, row 3: a column index lies outside 1..n"}};
  for (const Fault &f : faults) {
    for (int mtype : {2, -2}) {
      for (int matching : {0, 1, 2, 3, 4}) {
        if (mtype == 2 && matching > 0) continue;
        SCOPED_TRACE(std::string(f.what) + " mtype " + std::to_string(mtype) + " iparm(13) " +
                     std::to_string(matching));
        std::vector<int> bad = ja;
        bad[f.entry] = f.column;
        std::vector<double> a(ja.size(), -1.0), b(6, 1.0), x(6);
        for (int i = 0; i < 6; ++i) a[ia[i] - 1] = 4.0;
        std::array<void *, 64> pt{};
        std::array<int, 64> iparm{};
        std::array<double, 64> dparm{};
        int type = mtype, solver = 0, error = 0, maxfct = 1, mnum = 1, n = 6, nrhs = 1, msglvl = 1;
        velmorainit(pt.data(), &type, &solver, iparm.data(), dparm.data(), &error);
        iparm[12] = matching;
        std::vector<int> perm(6);
        int phase = 13;
        testing::internal::CaptureStdout();
        velmora(pt.data(), &maxfct, &mnum, &type, &phase, &n, a.data(), ia.data(), bad.data(),
                perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error,
                dparm.data());
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(error, -3);
        EXPECT_NE(out.find(std::string(f.line) + "\n"), std::string::npos) << out;
        phase = -1;
        msglvl = 0;
        velmora(pt.data(), &maxfct, &mnum, &type, &phase, &n, a.data(), ia.data(), bad.data(),
                perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error,
                dparm.data());
      }
    }
  }
}

TEST(RandomCalls, AnyInputGetsAResultCode) {
  const std::set<int> results = {0, -1, -2, -3, -4, -5, -6, -7, -8, -10};
  const int kPhases[] = {11, 12, 13, 22, 23, 33, 0, -1, -22, 7, 44, 13, 33, 22};
  int solved = 0;
  for (unsigned seed = 1; seed <= 2500; ++seed) {
    std::mt19937 rng(seed);
    Case c = generate(rng);
    const bool clean = rng() % 4 == 0;
    if (!clean && rng() % 2 == 0) mangle(c, rng);
    std::array<void *, 64> pt{};
    std::array<int, 64> iparm{};
    std::array<double, 64> dparm{};
    const int nrhs0 = 1 + static_cast<int>(rng() % 2);
    int mtype = c.mtype, n = c.n, nrhs = nrhs0, solver = 0, error = 0;
    int maxfct = 1, mnum = 1, msglvl = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    if (!clean) randomize_controls(iparm, rng);
    std::vector<int> perm(n);
    for (int i = 0; i < n; ++i) perm[i] = i + 1;
    if (!clean && rng() % 3 == 0) {
      for (int &v : perm) v = static_cast<int>(rng() % 3) == 0 ? 1 : 0;  // a mask
    } else {
      std::shuffle(perm.begin(), perm.end(), rng);
    }
    const std::vector<int> ia = c.ia, ja = c.ja;
    std::vector<double> a = c.a;
    const size_t len = static_cast<size_t>(n) * nrhs0 * c.width;
    std::vector<double> b(len), x(len, 0.0);
    for (size_t k = 0; k < len; ++k) b[k] = std::cos(0.3 * static_cast<double>(k)) + 0.5;
    const std::vector<double> b0 = b;
    auto call = [&](int phase) {
      velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, c.a.data(), c.ia.data(), c.ja.data(),
              perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
      SCOPED_TRACE("seed " + std::to_string(seed) + " mtype " + std::to_string(mtype) + " n " +
                   std::to_string(n) + " phase " + std::to_string(phase));
      // A diagonal matrix (as many entries as rows) may answer with the
      // row that failed, either sign.
      const bool row_code = c.ia[n] - 1 == n && std::abs(error) <= n;
      EXPECT_TRUE(results.count(error) || row_code) << "error " << error;
      EXPECT_TRUE(c.ia == ia && c.ja == ja) << "the caller's pattern changed";
      // Selected inversion of a diagonal matrix returns the inverse in a.
      if (phase == -22) a = c.a;
      EXPECT_TRUE(std::equal(a.begin(), a.end(), c.a.begin(), [](double p, double q) {
        return p == q || (std::isnan(p) && std::isnan(q));
      })) << "the caller's values changed";
      return error;
    };
    if (clean) {
      // Sound input, default settings: solved.
      ASSERT_EQ(call(13), 0) << "seed " << seed;
      EXPECT_LT(backward_error(c, x, b0), 1e-12) << "seed " << seed << " mtype " << mtype;
      ++solved;
    } else {
      const int steps = 2 + static_cast<int>(rng() % 4);
      for (int s = 0; s < steps; ++s) {
        msglvl = rng() % 8 == 0 ? 1 : 0;
        if (msglvl) testing::internal::CaptureStdout();
        call(kPhases[rng() % (sizeof kPhases / sizeof kPhases[0])]);
        if (msglvl) testing::internal::GetCapturedStdout();
        // A careless count, never more than the arrays hold.
        if (rng() % 6 == 0) nrhs = static_cast<int>(rng() % (nrhs0 + 1));
      }
    }
    // Released at the end.  (A release of an empty handle makes a marked
    // one, which the caller releases in turn: only a filled handle is
    // released here.)
    msglvl = 0;
    if (pt[1] != nullptr) call(-1);
    EXPECT_EQ(pt[1], nullptr) << "seed " << seed;
    if (HasFailure()) return;
  }
  EXPECT_GT(solved, 500);
}

}  // namespace
