// Handles used at once from threads of the caller's own (std::thread, no
// OpenMP region around them), each handle by one thread: every call then
// starts teams of its own on its thread, and the calls share the process'
// critical sections, METIS and the math library.  Each handle must give
// the bits it gives alone.  Label parallel: the ThreadSanitizer build runs
// this too.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "test_matrices.h"
#include "velmora.h"

namespace {

struct Case {
  const char *name;
  int mtype;
  int matching;  // iparm(13)
  testmat::Csr m;
  std::vector<double> a;  // pairs for the complex type
};

struct Result {
  int error = 1;
  std::vector<double> x;
  std::array<int, 4> counts{};  // iparm(7), iparm(14), iparm(22), iparm(23)
  bool operator==(const Result &o) const {
    return error == o.error && counts == o.counts && x.size() == o.x.size() &&
           std::memcmp(x.data(), o.x.data(), sizeof(double) * x.size()) == 0;
  }
};

// Analysis, factorization and solve of two right-hand sides, then a second
// solve, on a team of two, with the results made independent of the team's
// timing (iparm(34)), and the release.
Result solve(const Case &c) {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype = c.mtype, solver = 0, error = 0;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  iparm[1] = 2;  // iparm(2): nested dissection
  iparm[2] = 2;  // iparm(3): a team of two
  iparm[12] = c.matching;
  iparm[23] = 1;  // iparm(24), iparm(25): the two-level schemes
  iparm[24] = 1;
  iparm[33] = 1;  // iparm(34): results independent of the team
  const int n = c.m.n, width = c.mtype == 13 ? 2 : 1, maxfct = 1, mnum = 1, nrhs = 2, msglvl = 0;
  std::vector<double> a = c.a;
  std::vector<double> b = testmat::random_vector(static_cast<size_t>(n) * nrhs * width, 11);
  Result r;
  r.x.assign(b.size(), 0.0);
  for (int phase : {13, 33}) {
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), c.m.ia.data(), c.m.ja.data(),
            nullptr, &nrhs, iparm.data(), &msglvl, b.data(), r.x.data(), &error, dparm.data());
    if (error != 0) break;
  }
  r.error = error;
  r.counts = {iparm[6], iparm[13], iparm[21], iparm[22]};
  const int release = -1;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &release, &n, nullptr, c.m.ia.data(), c.m.ja.data(),
          nullptr, &nrhs, iparm.data(), &msglvl, nullptr, nullptr, &error, dparm.data());
  return r;
}

TEST(ConcurrentHandles, ThreadsOfTheCallerGiveTheBitsOfEachHandleAlone) {
  std::vector<Case> cases;
  cases.push_back({"Cholesky", 2, 0, testmat::grid_laplacian(9, 9, 8, true), {}});
  cases.push_back({"LDL^T with matching", -2, 1, testmat::kkt_local(8, 200, 4), {}});
  cases.push_back({"LU", 11, 1, testmat::convection_diffusion(9, 8, 8, 0.7), {}});
  cases.push_back({"complex LU", 13, 1, testmat::convection_diffusion(8, 8, 8, 0.4), {}});
  for (Case &c : cases) {
    for (size_t k = 0; k < c.m.a.size(); ++k) {
      c.a.push_back(c.m.a[k]);
      if (c.mtype == 13) c.a.push_back(0.1 * static_cast<double>(k % 7) - 0.3);
    }
  }
  std::vector<Result> alone;
  for (const Case &c : cases) {
    alone.push_back(solve(c));
    ASSERT_EQ(alone.back().error, 0) << c.name;
  }
  // Each thread holds one handle at a time and uses it three times over.
  constexpr int kRounds = 3;
  std::vector<std::array<Result, kRounds>> together(cases.size());
  std::vector<std::thread> threads;
  for (size_t t = 0; t < cases.size(); ++t)
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; ++round) together[t][round] = solve(cases[t]);
    });
  for (std::thread &th : threads) th.join();
  for (size_t t = 0; t < cases.size(); ++t)
    for (int round = 0; round < kRounds; ++round)
      EXPECT_TRUE(together[t][round] == alone[t])
          << cases[t].name << ", round " << round << ": error " << together[t][round].error;
}

}  // namespace
