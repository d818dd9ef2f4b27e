// Scatter maps of A into the factor panels, read back from the handle
// after analysis: every stored entry has exactly one place, and the place
// is its (row, column) in the permuted matrix.
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

#include "analysis/amap.h"
#include "interface/control.h"
#include "test_matrices.h"
#include "velmora.h"

namespace {

struct Handle {
  testmat::Csr m;
  int mtype, n;
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, error = 0;
  Handle(testmat::Csr matrix, int type, int scaling) : m(std::move(matrix)), mtype(type), n(m.n) {
    int solver = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
    iparm[10] = scaling;
    iparm[12] = scaling;  // scaling is on with matching
    iparm[1] = 3;
    call(11);
  }
  ~Handle() { call(-1); }
  void call(int phase) {
    double d = 0;
    std::vector<int> perm(n);
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, &d, &d, &error, dparm.data());
  }
  template <class T>
  const T *arr(int k) const {
    return vm::carved<T>(const_cast<void **>(pt.data()),
                         vm::control_of(const_cast<void **>(pt.data())), vm::kPtSymbolic, k);
  }
};

// (row, column) of every position of lnz (or unz), from the symbolic arrays.
struct Places {
  std::vector<int> row, col;
};

Places places(const Handle &h, bool unz) {
  const auto &s = vm::control_of(const_cast<void **>(h.pt.data()))->s;
  const int *xsuper = h.arr<int>(vm::kSymXsuper);
  const auto *xlindx = h.arr<std::int64_t>(vm::kSymXlindx);
  const int *lindx = h.arr<int>(vm::kSymLindx);
  const auto *xptr = h.arr<std::int64_t>(unz ? vm::kSymXunz : vm::kSymXlnz);
  Places p;
  const std::int64_t total = xptr[h.n] - 1;
  p.row.assign(total + 1, 0);
  p.col.assign(total + 1, 0);
  for (int k = 1; k <= s.nsuper; ++k) {
    const int ncols = xsuper[k] - xsuper[k - 1];
    for (int j = xsuper[k - 1]; j < xsuper[k]; ++j) {
      std::int64_t d = xptr[j - 1];
      for (std::int64_t q = xlindx[k - 1] + (unz ? ncols : 0); q < xlindx[k]; ++q, ++d) {
        p.row[d] = lindx[q - 1];
        p.col[d] = j;
      }
    }
  }
  return p;
}

void check_map(const Handle &h, bool unz, bool symmetric, std::vector<int> &seen) {
  const int *invp = h.arr<int>(vm::kSymInvp);
  const int *ptr = h.arr<int>(unz ? vm::kSymUmapPtr : vm::kSymLmapPtr);
  const auto *dest = h.arr<std::int64_t>(unz ? vm::kSymUmapDest : vm::kSymLmapDest);
  const int *src = h.arr<int>(unz ? vm::kSymUmapSrc : vm::kSymLmapSrc);
  const int *orow = h.arr<int>(unz ? vm::kSymUmapRow : vm::kSymLmapRow);
  const Places p = places(h, unz);
  std::vector<int> row_of(h.m.nnz() + 1);
  for (int r = 1; r <= h.n; ++r)
    for (int k = h.m.ia[r - 1]; k < h.m.ia[r]; ++k) row_of[k] = r;
  // A general matrix is factored with its matched rows on the diagonal:
  // row r of A is row matched[r] of the factored matrix.
  std::vector<int> matched(h.n + 1);
  for (int r = 1; r <= h.n; ++r) matched[r] = r;
  if (h.mtype > 10)
    for (int i = 1; i <= h.n; ++i) matched[static_cast<const int *>(h.pt[12])[i - 1]] = i;
  for (int j = 1; j <= h.n; ++j) {
    int last_row = 0;
    for (int e = ptr[j - 1]; e < ptr[j]; ++e) {
      const int k = src[e - 1];
      const std::int64_t d = dest[e - 1] < 0 ? -dest[e - 1] : dest[e - 1];
      const int pr = invp[matched[row_of[k]] - 1], pc = invp[h.m.ja[k - 1] - 1];
      ASSERT_EQ(p.col[d], j);
      ASSERT_GT(p.row[d], last_row) << "column " << j << " not sorted";
      last_row = p.row[d];
      if (unz) {  // column j of unz holds row j of U
        EXPECT_EQ(pr, j);
        EXPECT_EQ(p.row[d], pc);
      } else if (symmetric) {
        EXPECT_EQ(p.row[d], std::max(pr, pc));
        EXPECT_EQ(j, std::min(pr, pc));
        EXPECT_EQ(dest[e - 1] < 0, pr < pc);
      } else {
        EXPECT_EQ(p.row[d], pr);
        EXPECT_EQ(j, pc);
        EXPECT_GT(dest[e - 1], 0);
      }
      if (vm::control_of(const_cast<void **>(h.pt.data()))->s.scaling_on) {
        EXPECT_EQ(orow[e - 1], row_of[k]);
      }
      ++seen[k];
    }
  }
}

TEST(ScatterMap, EveryEntryFindsItsPlace) {
  for (const auto &[m, mtype] : {std::pair{testmat::grid_laplacian(9, 9, 3, true), 2},
                                 std::pair{testmat::from_file("bcsstk13.mtx", true), -2},
                                 std::pair{testmat::grid_laplacian(7, 6, 5, false), 11},
                                 std::pair{testmat::from_file("west0479.mtx", false), 11},
                                 std::pair{testmat::from_file("rajat19.mtx", false), 1}}) {
    SCOPED_TRACE("mtype " + std::to_string(mtype) + " n " + std::to_string(m.n));
    ASSERT_GT(m.n, 0);
    Handle h(m, mtype, 1);
    ASSERT_EQ(h.error, 0);
    std::vector<int> seen(m.nnz() + 1, 0);
    const bool symmetric = mtype == 2 || mtype == -2;
    check_map(h, false, symmetric, seen);
    if (!symmetric) check_map(h, true, false, seen);
    for (int k = 1; k <= m.nnz(); ++k) ASSERT_EQ(seen[k], 1) << "entry " << k;
  }
}

TEST(ScatterMap, SortCrossoverUsesSinglePrecisionSteps) {
  int dense_from = 0, walk = 0;
  vm::amap_sort_crossover(1000, &dense_from, &walk);
  EXPECT_GT(dense_from, 0);
  EXPECT_LE(dense_from, 1000);
  EXPECT_EQ(walk, 250);
  // The k-loop stops at the first k with 3 v ln v + 1 <= 5n.
  float k = 1000.0f, v = 0.0f;
  do {
    v = k;
    k = std::trunc(0.8f * k);
  } while (3.0f * v * std::log(v) + 1.0f > 5000.0f);
  EXPECT_EQ(dense_from, static_cast<int>(std::min(1000.0f, std::trunc(k / 0.8f))));
}

}  // namespace
