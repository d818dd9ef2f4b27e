// The report printed at msglvl 1, compared line by line with the expected
// text, times masked; and its variable lines chosen by the settings.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "test_matrices.h"
#include "velmora.h"

namespace {

struct Session {
  testmat::Csr m;
  int mtype, n;
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  std::vector<double> b, x;
  std::vector<int> perm;
  int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 1, error = 0;
  Session(testmat::Csr matrix, int type) : m(std::move(matrix)), mtype(type), n(m.n) {
    int solver = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    iparm[1] = 4;  // AMD: the same ordering whatever the thread count
    b.assign(n, 1.0);
    x.assign(n, 0.0);
    perm.assign(n, 0);
  }
  ~Session() {
    msglvl = 0;
    if (pt[1] != nullptr) call(-1);  // -1 on an empty handle would mark it
  }
  std::string call(int phase) {
    testing::internal::CaptureStdout();
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
    return testing::internal::GetCapturedStdout();
  }
};

// Replaces every time and rate by "T".
std::string masked(const std::string &out) {
  static const std::regex seconds("(Time [^:]+: |total - sum: )[0-9.]+");
  static const std::regex rate("(Gflop/s for the numerical factorization: +)[0-9.]+");
  return std::regex_replace(std::regex_replace(out, seconds, "$1T"), rate, "$1T");
}

std::string lines(std::initializer_list<const char *> l) {
  std::string s;
  for (const char *line : l) s += std::string(line) + "\n";
  return s;
}

const std::string kStatistics = lines({
    "Statistics:",
    "===========",
    " < Parallel Direct Factorization with #cores: >              1",
    " <                                and #nodes: >              1",
    " < Numerical Factorization with Level-3 BLAS performance >",
    " < Linear system Ax = b> ",
    "             #equations:                                     25",
    "             #non-zeros in A:                                65",
    "             non-zeros in A (%):                             10.400000",
    "             #right-hand sides:                              1",
    " < Factors L and U > ",
    "             #columns for each panel:                        80",
    "             # of independent subgraphs:                     1",
    " < preprocessing with approximate minimum degree  >",
});

TEST(Report, EveryPhaseInItsOrder) {
  Session r(testmat::grid_laplacian(5, 5, 1, true), 2);
  r.iparm[2] = 1;  // one thread: the sequential method line
  const std::string analysis = masked(r.call(11));
  const std::string head =
      lines({"Summary VELMORA 6.0.0: ( reorder to reorder)", "=======================", "",
             "Times:", "======", "", "      Time fulladj: T s", "      Time reorder: T s",
             "      Time symbfct: T s", "      Time total  : T s total - sum: T s", ""});
  ASSERT_EQ(analysis.substr(0, head.size()), head) << analysis;
  const std::string rest = analysis.substr(head.size());
  ASSERT_EQ(rest.substr(0, kStatistics.size()), kStatistics) << rest;
  EXPECT_NE(rest.find("             #supernodes:                                    "),
            std::string::npos);
  EXPECT_NE(rest.find("             Gflop   for the numerical factorization:        "),
            std::string::npos);
  EXPECT_EQ(rest.find("Gflop/s"), std::string::npos) << "no rate without a factorization";

  // iparm(18) is the count the report gives for L+U.
  const size_t lu = rest.find("number of nonzeros in L+U");
  ASSERT_NE(lu, std::string::npos);
  EXPECT_EQ(std::atol(rest.c_str() + lu + 25), r.iparm[17]) << rest.substr(lu, 60);

  const std::string factor = masked(r.call(12));
  EXPECT_NE(factor.find("\n             ||A||                                          6.500000\n"),
            std::string::npos)
      << factor;
  EXPECT_EQ(factor.rfind("Summary VELMORA 6.0.0: ( reorder to factorize)\n", 0), 0u);
  EXPECT_NE(factor.find("      Time A to LU: T s\n      Time numfct : T s\n"), std::string::npos);
  EXPECT_NE(factor.find("Gflop/s for the numerical factorization:        T\n"), std::string::npos)
      << factor;

  const std::string solve = masked(r.call(33));
  EXPECT_EQ(
      solve.rfind(lines({"Summary VELMORA 6.0.0: ( solve to solve)", "=======================", "",
                         "Times:", "======", "", "      Time solve  : T s",
                         "      Time total  : T s total - sum: T s", ""}),
                  0),
      0u)
      << solve;
  EXPECT_EQ(solve.find("Gflop/s"), std::string::npos) << "no factorization in this call";
  EXPECT_NE(solve.find("\n   Number of refinement iterations: 0\n"), std::string::npos) << solve;
  EXPECT_EQ(factor.find("Number of refinement iterations"), std::string::npos);

  EXPECT_EQ(masked(r.call(13)).rfind("Summary VELMORA 6.0.0: ( reorder to solve)\n", 0), 0u);
  EXPECT_EQ(r.call(0), lines({"Summary VELMORA 6.0.0: ( clean )", "=======================", "",
                              " L&U for matrix number 1 deleted"}));
  EXPECT_EQ(r.call(-1), lines({"Summary VELMORA 6.0.0: ( clean )", "=======================", "",
                               " cleaned memory, deleted number of L&U-factorizations: 0"}));
}

TEST(Report, LinesChosenBySettings) {
  const auto m = testmat::grid_laplacian(6, 6, 1, true);
  struct Case {
    int ordering, perm_mode, threads, hybrid;
    std::vector<const char *> want;
    int block = 0, parallel_nd = 0, two_level = 1;
  };
  const std::vector<Case> cases = {
      {0,
       0,
       1,
       0,
       {" < preprocessing with multiple minimum degree, tree height >",
        " < reduction for efficient parallel factorization >"}},
      {1,
       0,
       1,
       0,
       {" < preprocessing with multiple minimum degree with constraints >",
        " < with multiple minimum degree on the separator nodes         >"}},
      {2,
       0,
       2,
       0,
       {" < preprocessing with state of the art partitioning metis>",
        " < Numerical Factorization with Level-3 BLAS performance >",
        " < the parallel factorization does not serve a factorization of this size; factorized "
        "on one core >",
        " < iparm(28) 1: the parallel nested dissection is not yet available; the sequential "
        "nested dissection ran >"},
       0,
       1},
      {3, 0, 1, 0, {" < preprocessing with partitioning metis version 5.1 >"}},
      {4,
       0,
       1,
       31,
       {" < preprocessing with approximate minimum degree  >",
        " < Hybrid Solver VELMORA with CGS/CG Iteration >",
        " < iparm(53) 2: block-reordering acceleration is not yet available; only the panel "
        "width was rounded >"},
       2},
      {3, 1, 1, 0, {" < preprocessing with input permutation >"}},
  };
  for (const Case &c : cases) {
    Session r(m, 2);
    r.iparm[1] = c.ordering;
    r.iparm[2] = c.threads;
    r.iparm[3] = c.hybrid;
    r.iparm[4] = c.perm_mode;
    r.iparm[27] = c.parallel_nd;
    r.iparm[52] = c.block;
    r.iparm[23] = c.two_level;
    for (int k = 0; k < r.n; ++k) r.perm[k] = k + 1;
    const std::string out = r.call(12);
    for (const char *line : c.want)
      EXPECT_NE(out.find(std::string(line) + "\n"), std::string::npos)
          << "ordering " << c.ordering << " missing: " << line << "\n"
          << out;
    // What did not run is never claimed.
    for (const char *claim :
         {"BLAS3 and O(n) synchronization", "Using block-reordering acceleration"})
      EXPECT_EQ(out.find(claim), std::string::npos) << out;
    if (c.hybrid == 0) {
      EXPECT_EQ(out.find("Hybrid Solver"), std::string::npos) << out;
    }
  }
  // A factorization large enough for the team, with and without domains.
  for (int two_level : {1, 0}) {
    Session big(testmat::grid_laplacian(30, 30, 30, true), 2);
    big.iparm[1] = 2;
    big.iparm[2] = 2;
    big.iparm[23] = two_level;
    const std::string out = big.call(12);
    EXPECT_NE(out.find(" < Numerical Factorization with BLAS3 and O(n) synchronization >\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(out.find("factorized on one core"), std::string::npos) << out;
  }
  // The transpose line of a general matrix solved with A^T.
  Session t(testmat::grid_laplacian(6, 6, 1, false), 11);
  t.iparm[11] = 1;
  EXPECT_NE(t.call(11).find(" < Linear system Ax = b> <transpose> \n"), std::string::npos);
}

TEST(Report, SilentAtLevelZero) {
  Session r(testmat::grid_laplacian(5, 5, 1, true), 2);
  r.msglvl = 0;
  for (int phase : {11, 22, 33, 13, 0, -1, 22}) EXPECT_EQ(r.call(phase), "") << phase;
}

}  // namespace
