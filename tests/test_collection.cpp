// Every file of the shared matrix folder, as a user meets it: read by the
// Matrix Market reader of velmora-solve, solved through the public call with
// the matrix type its header implies (symmetric and Hermitian files try the
// positive definite type first and fall back to the indefinite one at a
// non-positive pivot), checked by the normwise backward error and, for
// symmetric types small enough, by the inertia of a dense LAPACK
// eigendecomposition.  Broken files must be refused by the reader with one
// line naming the file, the line and the problem.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <complex>
#include <filesystem>
#include <string>
#include <vector>

#include "matrix_folder.h"
#include "mm_reader.h"
#include "velmora.h"

extern "C" {
void dsyev_(const char *, const char *, const int *, double *, const int *, double *, double *,
            const int *, int *);
void zheev_(const char *, const char *, const int *, void *, const int *, double *, void *,
            const int *, double *, int *);
}

namespace {

using zc = std::complex<double>;

std::vector<std::string> collection_files() {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto &e : std::filesystem::directory_iterator(VELMORA_MATRIX_DIR, ec)) {
    if (e.path().extension() == ".mtx") names.push_back(e.path().stem().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string path_of(const std::string &name) {
  return std::string(VELMORA_MATRIX_DIR) + "/" + name + ".mtx";
}

// Files the folder's README lists as broken: the reader must refuse them.
bool listed_broken(const std::string &name) {
  return name.rfind("mangle", 0) == 0;
}

// The matrix types to try, in order, for a file's header.
std::vector<int> types_for(const vmcli::MmData &m) {
  const bool sym = m.symmetry == vmcli::MmSymmetry::kSymmetric;
  if (m.is_complex()) {
    if (m.symmetry == vmcli::MmSymmetry::kHermitian) return {4, -4};
    return {sym ? 6 : 13};
  }
  if (sym) return {2, -2};
  return {11};
}

vmcli::Storage storage_for(int mtype) {
  switch (mtype) {
    case 2:
    case -2:
    case 6:
      return vmcli::Storage::kUpperSymmetric;
    case 4:
    case -4:
      return vmcli::Storage::kUpperHermitian;
    default:
      return vmcli::Storage::kFull;
  }
}

zc value(const vmcli::CsrMatrix &m, int64_t k) {
  return m.complex ? zc(m.a[2 * k], m.a[2 * k + 1]) : zc(m.a[k], 0.0);
}

// Normwise backward error ||b - A x||_inf / (||A||_inf ||x||_inf + ||b||_inf)
// on the whole matrix.
double backward_error(const vmcli::CsrMatrix &full, const std::vector<zc> &x,
                      const std::vector<zc> &b) {
  double rn = 0, an = 0, xn = 0, bn = 0;
  for (int i = 0; i < full.n; ++i) {
    zc r = b[i];
    double row = 0;
    for (int k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k) {
      const zc v = value(full, k);
      r -= v * x[full.ja[k] - 1];
      row += std::abs(v);
    }
    rn = std::max(rn, std::abs(r));
    an = std::max(an, row);
    xn = std::max(xn, std::abs(x[i]));
    bn = std::max(bn, std::abs(b[i]));
  }
  return rn / (an * xn + bn);
}

// Positive and negative eigenvalues of the whole (symmetric or Hermitian)
// matrix; false when an eigenvalue is too close to zero to have a sign.
bool dense_inertia(const vmcli::CsrMatrix &full, int *pos, int *neg) {
  const int n = full.n;
  std::vector<double> w(n);
  int info = 0, lwork = -1;
  if (full.complex) {
    std::vector<zc> d(static_cast<size_t>(n) * n);
    for (int i = 0; i < n; ++i)
      for (int k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k)
        d[static_cast<size_t>(full.ja[k] - 1) * n + i] = value(full, k);
    std::vector<double> rwork(std::max(1, 3 * n - 2));
    zc query;
    zheev_("N", "L", &n, d.data(), &n, w.data(), &query, &lwork, rwork.data(), &info);
    lwork = static_cast<int>(query.real());
    std::vector<zc> work(lwork);
    zheev_("N", "L", &n, d.data(), &n, w.data(), work.data(), &lwork, rwork.data(), &info);
  } else {
    std::vector<double> d(static_cast<size_t>(n) * n);
    for (int i = 0; i < n; ++i)
      for (int k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k)
        d[static_cast<size_t>(full.ja[k] - 1) * n + i] = full.a[k];
    double query = 0;
    dsyev_("N", "L", &n, d.data(), &n, w.data(), &query, &lwork, &info);
    lwork = static_cast<int>(query);
    std::vector<double> work(lwork);
    dsyev_("N", "L", &n, d.data(), &n, w.data(), work.data(), &lwork, &info);
  }
  if (info != 0) return false;
  double big = 0;
  for (double v : w) big = std::max(big, std::abs(v));
  *pos = *neg = 0;
  for (double v : w) {
    if (std::abs(v) <= 1e-10 * big) return false;
    (v > 0 ? *pos : *neg) += 1;
  }
  return true;
}

// Structural rank: the size of a maximum matching of rows to columns on the
// pattern (augmenting paths by depth-first search; the files are small).
int structural_rank(const vmcli::CsrMatrix &full) {
  const int n = full.n;
  std::vector<int> row_of(n, -1), seen(n, -1);
  auto augment = [&](auto &&self, int i, int stamp) -> bool {
    for (int k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k) {
      const int j = full.ja[k] - 1;
      if (seen[j] == stamp) continue;
      seen[j] = stamp;
      if (row_of[j] < 0 || self(self, row_of[j], stamp)) {
        row_of[j] = i;
        return true;
      }
    }
    return false;
  };
  int rank = 0;
  for (int i = 0; i < n; ++i) rank += augment(augment, i, i) ? 1 : 0;
  return rank;
}

struct Solved {
  int error = 0;
  int phase = 0;  // the phase that failed
  int pos = 0, neg = 0, perturbed = 0;
  std::vector<zc> x;
};

// Analysis, factorization and solve of A x = b with default controls (a
// team of `threads` when it is above 0), each phase a call of its own; the
// handle is released at the end.
Solved solve(const vmcli::CsrMatrix &stored, int mtype, const std::vector<zc> &b, int threads = 0) {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int solver = 0, error = 0, maxfct = 1, mnum = 1, msglvl = 0, nrhs = 1, n = stored.n;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  // Up to three refinement steps: perturbed pivots of badly scaled files
  // need more than the two automatic ones.
  iparm[7] = 3;
  if (threads > 0) iparm[2] = threads;
  const int width = stored.complex ? 2 : 1;
  std::vector<double> a = stored.a, bb(static_cast<size_t>(width) * n),
                      xx(static_cast<size_t>(width) * n);
  for (int i = 0; i < n; ++i) {
    if (stored.complex) {
      bb[2 * i] = b[i].real();
      bb[2 * i + 1] = b[i].imag();
    } else {
      bb[i] = b[i].real();
    }
  }
  std::vector<int> ia = stored.ia, ja = stored.ja, perm(n);
  Solved out;
  for (int phase : {11, 22, 33}) {
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), ia.data(), ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, bb.data(), xx.data(), &error, dparm.data());
    if (error != 0) {
      out.error = error;
      out.phase = phase;
      break;
    }
  }
  out.pos = iparm[21];
  out.neg = iparm[22];
  out.perturbed = iparm[13];
  out.x.resize(n);
  for (int i = 0; i < n; ++i) out.x[i] = stored.complex ? zc(xx[2 * i], xx[2 * i + 1]) : xx[i];
  int phase = -1;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), ia.data(), ja.data(),
          perm.data(), &nrhs, iparm.data(), &msglvl, bb.data(), xx.data(), &error, dparm.data());
  EXPECT_EQ(error, 0) << "release";
  return out;
}

class Collection : public ::testing::TestWithParam<std::string> {};

TEST_P(Collection, ReadAndSolve) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  const std::string name = GetParam();
  vmcli::MmData m;
  std::string why;
  const bool read = vmcli::read_matrix_market(path_of(name), &m, &why);
  if (listed_broken(name)) {
    ASSERT_FALSE(read) << name << " is broken but was read";
    // "path:line: what", on one line
    const std::string prefix = path_of(name) + ":";
    ASSERT_EQ(why.rfind(prefix, 0), 0u) << why;
    EXPECT_EQ(why.find('\n'), std::string::npos) << why;
    const size_t colon = why.find(": ", prefix.size());
    ASSERT_NE(colon, std::string::npos) << why;
    EXPECT_GT(why.size(), colon + 4) << why;
    return;
  }
  ASSERT_TRUE(read) << why;

  if (m.rows != m.cols || m.rows == 0) {
    // Degenerate files: the library must refuse such a system cleanly.
    std::array<void *, 64> pt{};
    std::array<int, 64> iparm{};
    std::array<double, 64> dparm{};
    int mtype = 11, solver = 0, error = 0, maxfct = 1, mnum = 1, msglvl = 0, nrhs = 1, phase = 13;
    int n = std::min(m.rows, m.cols) == 0 ? 0 : -m.rows;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    std::vector<int> ia{1}, ja{1};
    std::vector<double> a{0.0}, b{0.0}, x{0.0};
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), ia.data(), ja.data(), nullptr,
            &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
    EXPECT_TRUE(error == VELMORA_ERR_INPUT || error == VELMORA_ERR_SILENT) << error;
    // The refused call still set up the handle; releasing it must work.
    phase = -1;
    n = 1;
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), ia.data(), ja.data(), nullptr,
            &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
    EXPECT_EQ(error, 0);
    return;
  }

  vmcli::CsrMatrix full;
  vmcli::FullNotes notes;
  ASSERT_TRUE(vmcli::to_full_csr(m, m.is_complex(), &full, &notes, &why)) << why;
  const int n = full.n;
  // A known solution; b = A x.
  std::vector<zc> xt(n), b(n);
  for (int i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / n;
    xt[i] = full.complex ? zc(1.0 + t, 0.5 - t) : zc(1.0 + t, 0.0);
  }
  for (int i = 0; i < n; ++i)
    for (int k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k)
      b[i] += value(full, k) * xt[full.ja[k] - 1];

  Solved r;
  int mtype = 0;
  vmcli::CsrMatrix stored;
  for (int t : types_for(m)) {
    mtype = t;
    ASSERT_TRUE(vmcli::to_storage(full, storage_for(t), &stored, &why)) << why;
    r = solve(stored, t, b);
    // Positive definite types give way at a non-positive pivot.
    if (!(r.error == VELMORA_ERR_FACTOR && r.phase == 22 && (t == 2 || t == 4))) break;
  }
  if (structural_rank(full) < n) {
    // No factorization can exist: the analysis must say so.
    EXPECT_EQ(r.error, VELMORA_ERR_PREORDER) << name << " mtype " << mtype;
    EXPECT_EQ(r.phase, 11) << name;
    return;
  }
  ASSERT_EQ(r.error, 0) << name << " mtype " << mtype << " phase " << r.phase;
  const double berr = backward_error(full, r.x, b);
  EXPECT_LT(berr, 1e-13) << name << " mtype " << mtype;
  RecordProperty("mtype", mtype);

  // The same answer on teams of every size: the subtrees and the top of
  // the tree go to other threads, in another order.
  for (int threads : {1, 2, 3, 4}) {
    const Solved t = solve(stored, mtype, b, threads);
    ASSERT_EQ(t.error, 0) << name << " mtype " << mtype << " threads " << threads;
    EXPECT_LT(backward_error(full, t.x, b), 1e-13) << name << " threads " << threads;
    EXPECT_EQ(t.pos, r.pos) << name << " threads " << threads;
    EXPECT_EQ(t.neg, r.neg) << name << " threads " << threads;
  }

  if (mtype == -2 || mtype == -4 || mtype == 2 || mtype == 4) {
    int pos = 0, neg = 0;
    if (n <= 1200 && dense_inertia(full, &pos, &neg)) {
      if (mtype == 2 || mtype == 4) {
        EXPECT_EQ(neg, 0) << name << ": a positive definite type succeeded on an indefinite matrix";
      } else {
        EXPECT_EQ(r.pos, pos) << name;
        EXPECT_EQ(r.neg, neg) << name;
      }
    }
  }
}

// The matrices of the folder are small enough that a call keeps its
// analysis and solve on the calling thread; a generated 3D convection-
// diffusion problem is large enough for every region to run on the team.
TEST(CollectionTeams, LargeProblemOnEveryTeam) {
  const int m = 32, n = m * m * m;
  vmcli::CsrMatrix full;
  full.n = n;
  full.ia.assign(1, 1);
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        const int i = x + m * (y + m * z);
        const int step[3] = {1, m, m * m};
        const int at[3] = {x, y, z};
        std::vector<std::pair<int, double>> row{{i, 6.0}};
        for (int d = 0; d < 3; ++d) {
          if (at[d] > 0) row.push_back({i - step[d], -1.2});
          if (at[d] + 1 < m) row.push_back({i + step[d], -0.8});
        }
        std::sort(row.begin(), row.end());
        for (const auto &e : row) {
          full.ja.push_back(e.first + 1);
          full.a.push_back(e.second);
        }
        full.ia.push_back(static_cast<int>(full.ja.size()) + 1);
      }
  std::vector<zc> b(n);
  for (int i = 0; i < n; ++i) b[i] = zc(1.0 + (i % 7), 0.0);
  for (int threads : {1, 2, 4}) {
    const Solved t = solve(full, 11, b, threads);
    ASSERT_EQ(t.error, 0) << "threads " << threads;
    EXPECT_LT(backward_error(full, t.x, b), 1e-13) << "threads " << threads;
  }
}

// Without the folder there is nothing to instantiate; HoldsTheMatrices says so.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(Collection);
INSTANTIATE_TEST_SUITE_P(SharedMatrices, Collection, ::testing::ValuesIn(collection_files()),
                         [](const ::testing::TestParamInfo<std::string> &p) {
                           std::string s = p.param;
                           for (char &c : s)
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           return s;
                         });

// The folder is where the build says: an empty listing would pass vacuously.
TEST(CollectionFolder, HoldsTheMatrices) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  const auto names = collection_files();
  EXPECT_GE(names.size(), 30u);
  for (const char *expected : {"west0479", "bcsstk13", "reorientation_1", "w156", "cha"})
    EXPECT_NE(std::find(names.begin(), names.end(), expected), names.end()) << expected;
}

}  // namespace
