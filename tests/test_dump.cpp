// Debug dumps through the public interface: the environment variables, the
// names with their per-kind counters, what each phase writes, the Matrix
// Market file read back by velmora-solve's reader, the solution file, and
// a file that cannot be written leaving the call's result alone.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "mm_reader.h"
#include "test_matrices.h"
#include "velmora.h"

namespace fs = std::filesystem;

namespace {

struct Dumps : testing::Test {
  fs::path dir;
  void SetUp() override {
    dir = fs::temp_directory_path() / ("velmora-dump-" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    ::setenv("VELMORA_WRITE_PREFIX", (dir / "d").c_str(), 1);
  }
  void TearDown() override {
    for (const char *v :
         {"VELMORA_WRITE_MAT", "VELMORA_WRITE_MTX", "VELMORA_WRITE_SOL", "VELMORA_WRITE_PREFIX"})
      ::unsetenv(v);
    fs::remove_all(dir);
  }
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto &e : fs::directory_iterator(dir)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  // The one file whose name ends with `tail`, e.g. "-phase-12.mtx".
  std::string named(const std::string &tail) const {
    std::string found;
    for (const std::string &f : files())
      if (f.size() >= tail.size() && f.compare(f.size() - tail.size(), tail.size(), tail) == 0) {
        EXPECT_EQ(found, "") << "two files end with " << tail;
        found = f;
      }
    EXPECT_NE(found, "") << "no file ends with " << tail;
    return found;
  }
  std::vector<std::string> lines_of(const std::string &name) const {
    std::ifstream in(dir / name);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
  }
};

struct Call {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype, maxfct = 1, mnum = 1, msglvl = 0, error = 0, n, nrhs = 1;
  testmat::Csr m;
  std::vector<double> a, b, x;
  std::vector<int> perm;
  Call(testmat::Csr mat, int type, int width = 1) : mtype(type), n(mat.n), m(std::move(mat)) {
    int solver = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    a.assign(m.a.size() * width, 0.0);
    for (size_t k = 0; k < m.a.size(); ++k) a[k * width] = m.a[k];
    b.assign(static_cast<size_t>(n) * width, 1.0);
    x.assign(b.size(), 0.0);
    perm.assign(n, 0);
  }
  int run(int phase) {
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
    return error;
  }
};

TEST_F(Dumps, EachPhaseWritesWhatItUses) {
  ::setenv("VELMORA_WRITE_MAT", "", 1);  // presence counts, not the value
  ::setenv("VELMORA_WRITE_MTX", "0", 1);
  const testmat::Csr m = testmat::grid_laplacian(4, 3, 1, true);
  const int n = m.n, nnz = m.ia[n] - 1;
  Call c(m, 2);
  for (int phase : {11, 22, 33, 0, -1}) ASSERT_EQ(c.run(phase), 0) << phase;
  EXPECT_EQ(files().size(), 6u) << "phases 0 and -1 write nothing";
  // "d_<counter>-phase-<phase>.<kind>": the counter of each kind rises by
  // one per file.
  for (const char *kind : {".iajaa", ".mtx"}) {
    const std::string first = named(std::string("-phase-11") + kind);
    ASSERT_EQ(first.size(), std::string("d_000-phase-11").size() + std::string(kind).size());
    const int k = std::stoi(first.substr(2, 3));
    char want[64];
    std::snprintf(want, sizeof want, "d_%03d-phase-22%s", k + 1, kind);
    EXPECT_EQ(named(std::string("-phase-22") + kind), want);
    std::snprintf(want, sizeof want, "d_%03d-phase-33%s", k + 2, kind);
    EXPECT_EQ(named(std::string("-phase-33") + kind), want);
  }
  // Plain file: n, nnz, ia, ja, then values (factorizing phases) and the
  // right-hand side (solving phases).
  const auto p11 = lines_of(named("-phase-11.iajaa")), p22 = lines_of(named("-phase-22.iajaa")),
             p33 = lines_of(named("-phase-33.iajaa"));
  EXPECT_EQ(p11.size(), size_t(2 + n + 1 + nnz));
  EXPECT_EQ(p22.size(), size_t(2 + n + 1 + 2 * nnz));
  EXPECT_EQ(p33.size(), size_t(2 + n + 1 + 2 * nnz + n));
  EXPECT_EQ(p11[0], std::to_string(n));
  EXPECT_EQ(p11[1], std::to_string(nnz));
  EXPECT_EQ(p11[2 + n], std::to_string(m.ia[n]));
  EXPECT_EQ(p11.back(), std::to_string(m.ja[nnz - 1]));
  char value[64];
  std::snprintf(value, sizeof value, "%32.24e", m.a[0]);
  EXPECT_EQ(p22[3 + n + nnz], value);
  EXPECT_EQ(lines_of(named("-phase-11.mtx"))[0],
            "%%MatrixMarket matrix coordinate pattern general");
  EXPECT_EQ(lines_of(named("-phase-22.mtx"))[0], "%%MatrixMarket matrix coordinate real general");
}

TEST_F(Dumps, CoordinateFileReadsBackAsTheWholeSymmetricMatrix) {
  ::setenv("VELMORA_WRITE_MTX", "1", 1);
  const testmat::Csr m = testmat::grid_laplacian(5, 4, 2, true);
  Call c(m, -2);
  ASSERT_EQ(c.run(12), 0);
  c.run(-1);
  vmcli::MmData d;
  std::string why;
  ASSERT_TRUE(vmcli::read_matrix_market((dir / named("-phase-12.mtx")).string(), &d, &why)) << why;
  ASSERT_EQ(d.rows, m.n);
  std::map<std::pair<int, int>, double> got, want;
  for (int64_t k = 0; k < d.size(); ++k) got[{d.row[k], d.col[k]}] += d.re[k];
  for (int i = 0; i < m.n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
      const int j = m.ja[k] - 1;
      want[{i, j}] = m.a[k];
      want[{j, i}] = m.a[k];
    }
  EXPECT_EQ(got, want);
}

TEST_F(Dumps, SolutionFileAndComplexPairs) {
  ::setenv("VELMORA_WRITE_SOL", "1", 1);
  const testmat::Csr m = testmat::grid_laplacian(3, 3, 1, false);
  {
    Call c(m, 11);
    c.iparm[5] = 1;  // the solution replaces b, which the real dump writes
    ASSERT_EQ(c.run(13), 0);
    const auto sol = lines_of(named("-phase-13.iajaa"));
    ASSERT_EQ(sol.size(), size_t(m.n));
    for (int i = 0; i < m.n; ++i) EXPECT_EQ(std::strtod(sol[i].c_str(), nullptr), c.b[i]) << i;
    c.run(-1);
  }
  fs::remove(dir / named("-phase-13.iajaa"));
  ::setenv("VELMORA_WRITE_MAT", "1", 1);
  {
    Call c(m, 13, 2);  // complex: value pairs in both files, the solution from x
    ASSERT_EQ(c.run(13), 0);
    // Both kinds end alike; the solution is the file of n lines.
    ASSERT_EQ(files().size(), 2u);
    auto mat = lines_of(files()[0]), sol = lines_of(files()[1]);
    if (mat.size() == size_t(m.n)) std::swap(mat, sol);
    ASSERT_EQ(sol.size(), size_t(m.n));
    std::istringstream first(sol[0]);
    double re = 0, im = 1;
    first >> re >> im;
    EXPECT_EQ(re, c.x[0]);
    EXPECT_EQ(im, c.x[1]);
    const int nnz = m.ia[m.n] - 1;
    ASSERT_EQ(mat.size(), size_t(2 + m.n + 1 + nnz + nnz + m.n));
    EXPECT_EQ(mat.back().back(), ' ') << "a complex right-hand side line ends in a blank";
    c.run(-1);
  }
}

TEST_F(Dumps, UnwritableFileLeavesTheCallAlone) {
  ::setenv("VELMORA_WRITE_MAT", "1", 1);
  ::setenv("VELMORA_WRITE_PREFIX", (dir / "no-such-folder" / "d").c_str(), 1);
  const testmat::Csr m = testmat::grid_laplacian(4, 4, 1, true);
  Call c(m, 2);
  c.msglvl = 1;
  testing::internal::CaptureStdout();
  const int error = c.run(13);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(error, 0);
  EXPECT_LT(testmat::backward_error(m, c.x.data(), c.b.data(), 1, true), 1e-14);
  EXPECT_NE(out.find("*** warning velmora: cannot write the debug dump " +
                     (dir / "no-such-folder").string()),
            std::string::npos)
      << out;
  c.msglvl = 0;
  c.run(-1);
}

}  // namespace
