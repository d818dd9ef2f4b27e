// Reliability through the public call: inputs the fuzz targets found
// (each replayed here), sizes at the edge of the 32-bit indices, and
// values that are not finite.
//
// The size cases hand the library arrays of billions of entries that are
// only reserved address space (pages of zeros that are never written): the
// library must refuse them from the row pointers alone, before it walks or
// allocates anything in proportion to them.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "test_matrices.h"
#include "velmora.h"

namespace {

// One handle of the public call.
struct Handle {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype, maxfct = 1, mnum = 1, msglvl = 0, nrhs = 1;
  explicit Handle(int type) : mtype(type) {
    int solver = 0, error = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  }
  ~Handle() {
    msglvl = 0;
    call(-1, 1, nullptr, nullptr, nullptr, nullptr, nullptr);
  }
  int call(int phase, int n, const void *a, const int *ia, const int *ja, double *b, double *x,
           int *perm = nullptr) {
    int error = 0;
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, const_cast<void *>(a), ia, ja, perm,
            &nrhs, iparm.data(), &msglvl, b, x, &error, dparm.data());
    return error;
  }
};

// Address space of `count` T, all zero until written; nothing is committed
// for pages that are never written.
template <class T>
class Reserved {
 public:
  explicit Reserved(std::size_t count) : bytes_(count * sizeof(T)) {
    void *p = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    data_ = p == MAP_FAILED ? nullptr : static_cast<T *>(p);
  }
  ~Reserved() {
    if (data_) munmap(data_, bytes_);
  }
  Reserved(const Reserved &) = delete;
  Reserved &operator=(const Reserved &) = delete;
  T *data() const { return data_; }
  T &operator[](std::size_t k) { return data_[k]; }

 private:
  std::size_t bytes_;
  T *data_;
};

// iparm(3) names the team, whatever the cores; a solve of several
// right-hand sides cut them into one block a thread, and with a team of
// 2^31 - 1 the count of blocks overflowed.  Any team now solves.
TEST(FuzzFindings, SeveralRightHandSidesWithAnyTeam) {
  const testmat::Csr upper = testmat::grid_laplacian(5, 4, 3, true);
  const testmat::Csr full = testmat::convection_diffusion(5, 4, 3, 0.5);
  for (int team : {INT_MAX, 1000}) {
    for (int mtype : {2, -2, 11}) {
      SCOPED_TRACE("iparm(3) " + std::to_string(team) + " mtype " + std::to_string(mtype));
      const testmat::Csr &m = mtype == 11 ? full : upper;
      Handle h(mtype);
      h.iparm[2] = team;
      h.nrhs = 3;
      std::vector<double> b = testmat::random_vector(3 * static_cast<size_t>(m.n), 5), x(b.size());
      ASSERT_EQ(h.call(13, m.n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x.data()), 0);
      EXPECT_LT(testmat::backward_error(m, x.data(), b.data(), 3, mtype != 11), 1e-13);
    }
  }
}

// The block-partitioned variant with more compute nodes (iparm(52)) than
// the ordering has domains: the node split sized its list by iparm(52) and
// walked every node, 2^31 - 1 of them.  Nodes beyond the domains are not
// made.
TEST(FuzzFindings, MoreComputeNodesThanDomains) {
  const testmat::Csr m = testmat::kkt_local(6, 120, 3);
  for (int nodes : {INT_MAX, 64, 3}) {
    SCOPED_TRACE("iparm(52) " + std::to_string(nodes));
    Handle h(-2);
    h.iparm[2] = 2;
    h.iparm[50] = 1;
    h.iparm[51] = nodes;
    std::vector<double> b = testmat::random_vector(static_cast<size_t>(m.n), 9), x(b.size());
    ASSERT_EQ(h.call(13, m.n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x.data()), 0);
    EXPECT_LT(testmat::backward_error(m, x.data(), b.data(), 1, true), 1e-10);
  }
}

// n and the nonzero count at the edge of 32-bit indices: the graph of both
// triangles passes them, -8 with the overflow class at msglvl 1, decided
// from ia(1) and ia(n+1) before the columns are read.
TEST(Sizes, GraphsBeyondThirtyTwoBitIndicesAreRefusedFromTheRowPointers) {
  struct Case {
    const char *what;
    int n, nnz;
  };
  const Case cases[] = {{"n 2^31-3, one entry off the diagonal", INT_MAX - 2, INT_MAX - 1},
                        {"n 2^15, 2^31-2 entries", 1 << 15, INT_MAX - 1},
                        {"n 2^20, 2^30 entries", 1 << 20, 1 << 30}};
  for (const Case &c : cases) {
    for (int mtype : {2, 11, 13}) {
      SCOPED_TRACE(std::string(c.what) + ", mtype " + std::to_string(mtype));
      const std::size_t n = static_cast<std::size_t>(c.n), nnz = static_cast<std::size_t>(c.nnz);
      Reserved<int> ia(n + 1), ja(nnz);
      Reserved<double> a(nnz * (mtype == 13 ? 2 : 1));
      ASSERT_TRUE(ia.data() && ja.data() && a.data());
      ia[0] = 1;
      ia[n] = c.nnz + 1;
      Handle h(mtype);
      h.msglvl = 1;
      testing::internal::CaptureStdout();
      const int error = h.call(11, c.n, a.data(), ia.data(), ja.data(), nullptr, nullptr);
      const std::string out = testing::internal::GetCapturedStdout();
      EXPECT_EQ(error, -8);
      EXPECT_NE(out.find("*** error VELMORA  (32-bit overflow problem ) error_num="),
                std::string::npos)
          << out;
    }
  }
}

// A factor of more than 2^31 entries from a matrix of 2n entries: a star
// whose centre is eliminated first (the caller's order) fills completely.
// The analysis works with 64-bit pointers into the values and reports the
// count in thousands, negative, as iparm(18) does beyond 2^31 - 1.  (The
// factorization itself would take 17 GB and is not run.)
TEST(Sizes, AnalysisOfAFactorBeyondTwoToTheThirtyOneEntries) {
  const int n = 66000;
  std::vector<int> ia(n + 1), ja, perm(n);
  std::vector<double> a;
  ia[0] = 1;
  for (int j = 1; j <= n; ++j) {
    ja.push_back(j);
    a.push_back(j == 1 ? n : 1.0);
  }
  for (int i = 2; i <= n; ++i) {
    ja.push_back(i);
    a.push_back(2.0);
  }
  ia[1] = n + 1;
  for (int i = 2; i <= n; ++i) ia[i] = ia[i - 1] + 1;
  for (int i = 0; i < n; ++i) perm[i] = i + 1;
  Handle h(2);
  h.iparm[4] = 1;  // iparm(5): the order is the caller's
  ASSERT_EQ(h.call(11, n, a.data(), ia.data(), ja.data(), nullptr, nullptr, perm.data()), 0);
  const double lower_bound = 0.5 * n * (n + 1.0);  // the dense lower triangle
  ASSERT_LT(h.iparm[17], 0);
  EXPECT_GE(-1000.0 * h.iparm[17], lower_bound - 1000.0);
  EXPECT_LT(-1000.0 * h.iparm[17], 1.1 * lower_bound);
  EXPECT_GT(h.iparm[16], 16000000);  // iparm(17): kilobytes of one factorization
}

// A NaN or an infinity in A or b reaches one of three outcomes, in every
// family: -4 (Cholesky: the value fails the test of a positive pivot); a
// solution holding values that are not finite, with iparm(14) counting the
// pivots they reached when they came from A; or a finite solution, that of
// the limit: the same as with 1e300 in its place.
TEST(NonFinite, ValuesReachADefinedOutcome) {
  const double kNaN = std::numeric_limits<double>::quiet_NaN();
  const double kInf = std::numeric_limits<double>::infinity();
  for (int mtype : {2, -2, 11, 13}) {
    const bool upper = mtype == 2 || mtype == -2;
    const int width = mtype == 13 ? 2 : 1;
    const testmat::Csr m = testmat::grid_laplacian(4, 4, 2, upper);
    const std::size_t diag = static_cast<std::size_t>(m.ia[5] - 1) * width;  // row 6
    for (const char *where : {"diagonal", "off the diagonal", "b"}) {
      for (double bad : {kNaN, kInf}) {
        SCOPED_TRACE("mtype " + std::to_string(mtype) + ", " + std::to_string(bad) + " " + where);
        auto solve = [&](double value, std::vector<double> *x, int *perturbed) {
          std::vector<double> a;
          for (double v : m.a) {
            a.push_back(v);
            if (width == 2) a.push_back(0.25);
          }
          std::vector<double> b(static_cast<std::size_t>(m.n) * width, 1.0);
          if (where[0] == 'd') a[diag] = value;
          if (where[0] == 'o') a[diag + width] = value;
          if (where[0] == 'b') b[5 * width] = value;
          x->assign(b.size(), 0.0);
          Handle h(mtype);
          const int error =
              h.call(13, m.n, a.data(), m.ia.data(), m.ja.data(), b.data(), x->data());
          *perturbed = h.iparm[13];
          return error;
        };
        std::vector<double> x, limit;
        int perturbed = 0, unused = 0;
        const int error = solve(bad, &x, &perturbed);
        if (error == -4) {
          EXPECT_EQ(mtype, 2);
          continue;
        }
        ASSERT_EQ(error, 0);
        const bool finite =
            std::all_of(x.begin(), x.end(), [](double v) { return std::isfinite(v); });
        if (!finite) {
          EXPECT_TRUE(where[0] == 'b' || perturbed > 0);
          continue;
        }
        ASSERT_EQ(solve(1e300, &limit, &unused), 0);
        for (std::size_t k = 0; k < x.size(); ++k) {
          EXPECT_NEAR(x[k], limit[k], 1e-12) << k;
        }
      }
    }
  }
}

}  // namespace
