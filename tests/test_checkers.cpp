// Black-box tests of the checkers velmora_chkmatrix, velmora_chkvec and
// velmora_printstats: codes and messages on crafted inputs, the real and
// complex spellings, and the statistics of two matrices of the collection.

#include <gtest/gtest.h>
#include <velmora.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "matrix_folder.h"
#include "mm_read.h"

namespace {

using cplx = std::complex<double>;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

using ChkMatrixFn = void (*)(const int *, const int *, const void *, const int *, const int *,
                             int *);
using ChkVecFn = void (*)(const int *, const int *, const void *, int *);
using StatsFn = void (*)(const int *, const int *, const void *, const int *, const int *,
                         const int *, const void *, int *);

// What a call left: its code and both streams.
struct Outcome {
  int error;
  std::string out, err;
};

template <class Call>
Outcome Captured(Call call) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  int error = -12345;
  call(&error);
  Outcome r;
  r.err = testing::internal::GetCapturedStderr();
  r.out = testing::internal::GetCapturedStdout();
  r.error = error;
  return r;
}

// A one-based CSR matrix with `width` doubles per value.  Vectors are sized
// exactly, so the sanitizer sees any read past ia(n+1)-1 entries.
struct Csr {
  int n = 0;
  std::vector<int> ia, ja;
  std::vector<double> a;
};

// Rows of column indices as given; value k (from 1) is k, imaginary part -k.
Csr Rows(const std::vector<std::vector<int>> &rows, int width = 1) {
  Csr m;
  m.n = static_cast<int>(rows.size());
  m.ia.push_back(1);
  for (const auto &row : rows) {
    for (int j : row) {
      m.ja.push_back(j);
      m.a.push_back(static_cast<double>(m.ja.size()));
      if (width == 2) m.a.push_back(-static_cast<double>(m.ja.size()));
    }
    m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
  }
  m.ja.shrink_to_fit();
  m.a.shrink_to_fit();
  return m;
}

Outcome Check(int mtype, const Csr &m, ChkMatrixFn f = velmora_chkmatrix) {
  return Captured(
      [&](int *error) { f(&mtype, &m.n, m.a.data(), m.ia.data(), m.ja.data(), error); });
}

Outcome CheckVec(int n, int nrhs, const std::vector<double> &b, ChkVecFn f = velmora_chkvec) {
  return Captured([&](int *error) { f(&n, &nrhs, b.empty() ? nullptr : b.data(), error); });
}

Outcome Stats(int mtype, const Csr &m, int nrhs, const std::vector<double> &b,
              StatsFn f = velmora_printstats) {
  return Captured([&](int *error) {
    f(&mtype, &m.n, m.a.data(), m.ia.data(), m.ja.data(), &nrhs, b.empty() ? nullptr : b.data(),
      error);
  });
}

void ExpectFailure(const Outcome &r, int code, const std::string &err) {
  EXPECT_EQ(r.error, code);
  EXPECT_EQ(r.err, err);
  EXPECT_EQ(r.out, "");
}

const Csr kUpper = Rows({{1, 2}, {2, 3}, {3}});  // valid for every type

TEST(Checkers, DimensionAndNullPointers) {
  Csr m = kUpper;
  m.n = 0;
  ExpectFailure(Check(11, m), 10, "Invalid dimension argument: 0 (required: >1)\n");
  m.n = -3;
  ExpectFailure(Check(11, m), 10, "Invalid dimension argument: -3 (required: >1)\n");
  const int n = 3, mtype = 11;
  const std::string null_line = "Invalid NULL pointer argument\n";
  for (int which = 0; which < 4; ++which) {
    const Outcome r = Captured([&](int *error) {
      velmora_chkmatrix(which == 0 ? nullptr : &mtype, which == 1 ? nullptr : &n, kUpper.a.data(),
                        which == 2 ? nullptr : kUpper.ia.data(),
                        which == 3 ? nullptr : kUpper.ja.data(), error);
    });
    ExpectFailure(r, 10, null_line);
  }
  const Outcome no_a = Captured([&](int *error) {
    velmora_chkmatrix_z(&mtype, &n, nullptr, kUpper.ia.data(), kUpper.ja.data(), error);
  });
  EXPECT_EQ(no_a.error, 10);  // type first: 11 is not complex
  const int z = 13;
  const Outcome no_az = Captured([&](int *error) {
    velmora_chkmatrix_z(&z, &n, nullptr, kUpper.ia.data(), kUpper.ja.data(), error);
  });
  ExpectFailure(no_az, 10, "[VELMORA]: CHK Invalid NULL pointer argument\n");
  // a null `error` is not written; nothing else happens
  velmora_chkmatrix(&mtype, &n, kUpper.a.data(), kUpper.ia.data(), kUpper.ja.data(), nullptr);
  velmora_chkvec(&n, &n, nullptr, nullptr);
  velmora_printstats(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(Stats(11, Csr{}, 1, {}).error, 10);
}

TEST(Checkers, StructureCodesInOrder) {
  Csr m = Rows({{1}, {2}, {3}});
  m.ia = {2, 1, 0, 4};  // decreasing at row 1, but an entry below 1 is found first
  ExpectFailure(Check(11, m), 100, "CSR pointer array entry not ge 1;first error at row index 3\n");
  m.ia = {1, 3, 2, 4};
  ExpectFailure(Check(11, m), 100, "CSR pointer array not monotonic; first error at row index 2\n");
  m = Rows({{1}, {4, 0}});
  ExpectFailure(Check(11, m), 101,
                "CSR column index out-of-bounds; first error at position 2 (index: 4)\n");
  // only ia(n+1)-1 column indices count, wherever the rows start
  m = Rows({{1}, {2}});
  m.ia = {2, 2, 2};
  m.ja = std::vector<int>{1};
  m.a = std::vector<double>{1.0};
  EXPECT_EQ(Check(11, m).error, 0);
  // unsorted rows 1 and 3: the last is reported; a duplicate is unsorted too
  ExpectFailure(Check(11, Rows({{2, 1}, {1, 2}, {3, 1}})), 200,
                "Column indices in row 3 not strictly increasing\n");
  ExpectFailure(Check(2, Rows({{1, 2, 2}, {2}})), 200,
                "Column indices in row 1 not strictly increasing\n");
}

TEST(Checkers, SymmetricStorageOnlyForSymmetricTypes) {
  const Csr lower = Rows({{1, 2}, {1, 2}});
  EXPECT_EQ(Check(11, lower).error, 0);
  ExpectFailure(Check(2, lower), 202,
                "Matrix is not given in upper triangular form. First offending row: 2\n");
  // the diagonal of every row is tested before the lower triangle
  const Csr both = Rows({{1}, {1, 2}, {1}});
  for (int t : {1, 2, -2}) {
    ExpectFailure(Check(t, both), 201, "Missing diagonal element; first error in row 3\n");
  }
  EXPECT_EQ(Check(11, both).error, 0);
  const Csr both_z = Rows({{1}, {1, 2}, {1}}, 2);
  for (int t : {3, 4, -4, 6}) EXPECT_EQ(Check(t, both_z, velmora_chkmatrix_z).error, 201);
  EXPECT_EQ(Check(13, both_z, velmora_chkmatrix_z).error, 0);
}

TEST(Checkers, MatrixValuesNaNBeforeInfinity) {
  Csr m = kUpper;
  m.a = {1.0, -kInf, 2.0, kNaN, 3.0};
  ExpectFailure(Check(11, m), 300, "Matrix contains NaN elements; first Nan at index 4 \n");
  m.a = {1.0, 2.0, -kInf, 4.0, kInf};
  ExpectFailure(Check(-2, m), 301, "Matrix contains inf elements; first inf at index 3 \n");
  Csr z = Rows({{1, 2}, {2, 3}, {3}}, 2);
  z.a[1] = kInf;  // imaginary part of entry 1
  z.a[8] = kNaN;  // real part of entry 5
  ExpectFailure(Check(13, z, velmora_chkmatrix_z), 300,
                "Matrix contains NaN elements; first Nan at index 5 \n");
  z.a[8] = 5.0;
  z.a[5] = -kInf;  // imaginary part of entry 3, after the infinity of entry 1
  ExpectFailure(Check(6, z, velmora_chkmatrix_z), 301,
                "Matrix contains inf elements; first inf at index 1 \n");
}

TEST(Checkers, Vectors) {
  ExpectFailure(CheckVec(3, 0, {1.0}), 0, "");
  ExpectFailure(CheckVec(0, 2, {1.0}), 0, "");  // no values to test
  ExpectFailure(CheckVec(3, 2, {}), 0, "");     // null b
  ExpectFailure(CheckVec(-2, -1, {1.0, 2.0}), 10,
                "[VELMORA]: CHK: Invalid dimension: -2 (must be >=1)\n");
  // three rows, two right-hand sides: infinity in RHS 1 row 2, NaN in RHS 2 row 3
  ExpectFailure(CheckVec(3, 2, {0.0, kInf, 1.0, 2.0, 3.0, kNaN}), 300,
                "[VELMORA]: CHK: RHS contains NaN elements; first inf in RHS 2 at index 3 \n");
  ExpectFailure(CheckVec(3, 2, {0.0, 1.0, 1.0, 2.0, -kInf, 4.0}, VELMORA_CHKVEC_), 301,
                "[VELMORA]: CHK: RHS contains inf elements; first inf in RHS 2 at index 2 \n");
  ExpectFailure(CheckVec(2, 2, {1, 0, 1, 0, 1, 0, 1, kInf}, velmora_chkvec_z), 301,
                "[VELMORA]: CHK: RHS contains inf elements; first inf in RHS 2 at index 2 \n");
}

TEST(Checkers, PrintStatsRunsBothChecksFirst) {
  ExpectFailure(Stats(2, Rows({{1, 2}, {1, 2}}), 1, {1.0, 1.0}), 202,
                "Matrix is not given in upper triangular form. First offending row: 2\n");
  ExpectFailure(Stats(11, kUpper, 1, {1.0, kNaN, 1.0}), 300,
                "[VELMORA]: CHK: RHS contains NaN elements; first inf in RHS 1 at index 2 \n");
  Csr m = kUpper;
  m.a = {-4.0, 0.0, 2.5, 1e-3, -300.0};
  const Outcome r = Stats(-2, m, 0, {});
  EXPECT_EQ(r.error, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out,
            "[VELMORA]: Matrix type      : real symmetric\n"
            "[VELMORA]: Matrix dimension : 3\n"
            "[VELMORA]: Matrix non-zeros : 5\n"
            "[VELMORA]: Abs. coeff. range: min 0.00e+00  max 3.00e+02\n");
}

// A matrix of the collection as CSR; symmetric files are turned to the
// upper triangle.  Also gives the smallest and largest modulus of its values.
Csr Load(const char *file, double *lo, double *hi) {
  mm::Triplets t;
  std::string why;
  EXPECT_TRUE(mm::read(std::string(VELMORA_MATRIX_DIR) + "/" + file, &t, &why)) << why;
  std::vector<std::tuple<int, int, cplx>> e;
  *lo = std::numeric_limits<double>::infinity();
  *hi = 0.0;
  for (size_t k = 0; k < t.size(); ++k) {
    const cplx v(t.re[k], t.im.empty() ? 0.0 : t.im[k]);
    const bool swap = t.symmetry != mm::Symmetry::kGeneral;
    e.emplace_back(swap ? t.cols[k] : t.rows[k], swap ? t.rows[k] : t.cols[k], v);
    *lo = std::min(*lo, std::abs(v));
    *hi = std::max(*hi, std::abs(v));
  }
  std::sort(e.begin(), e.end(), [](const auto &x, const auto &y) {
    return std::make_pair(std::get<0>(x), std::get<1>(x)) <
           std::make_pair(std::get<0>(y), std::get<1>(y));
  });
  Csr m;
  m.n = t.n;
  m.ia.assign(t.n + 1, 0);
  for (const auto &[i, j, v] : e) {
    ++m.ia[i + 1];
    m.ja.push_back(j + 1);
    m.a.push_back(v.real());
    if (t.field == mm::Field::kComplex) m.a.push_back(v.imag());
  }
  m.ia[0] = 1;
  for (int i = 0; i < t.n; ++i) m.ia[i + 1] += m.ia[i];
  m.ja.shrink_to_fit();
  m.a.shrink_to_fit();
  return m;
}

std::string Line(const char *format, double x, double y, int k = 0) {
  char buf[160];
  if (k == 0) {
    std::snprintf(buf, sizeof buf, format, x, y);
  } else {
    std::snprintf(buf, sizeof buf, format, k, x, y);
  }
  return buf;
}

void ExpectStatistics(const char *file, int mtype, const char *name, StatsFn f, bool cx) {
  double lo = 0, hi = 0;
  const Csr m = Load(file, &lo, &hi);
  const int nrhs = 2, width = cx ? 2 : 1;
  std::vector<double> b(static_cast<size_t>(width) * m.n * nrhs);
  for (size_t k = 0; k < b.size(); ++k) b[k] = std::cos(0.37 * k) * (1.0 + k % 17) - 0.5;
  std::string want = std::string("[VELMORA]: Matrix type      : ") + name + "\n" +
                     "[VELMORA]: Matrix dimension : " + std::to_string(m.n) + "\n" +
                     "[VELMORA]: Matrix non-zeros : " + std::to_string(m.ia[m.n] - 1) + "\n" +
                     Line("[VELMORA]: Abs. coeff. range: min %8.2e  max %8.2e\n", lo, hi);
  for (int r = 0; r < nrhs; ++r) {
    double rlo = std::numeric_limits<double>::infinity(), rhi = 0.0;
    for (int i = 0; i < m.n; ++i) {
      const size_t at = static_cast<size_t>(width) * (static_cast<size_t>(r) * m.n + i);
      const double v = std::abs(cplx(b[at], cx ? b[at + 1] : 0.0));
      rlo = std::min(rlo, v);
      rhi = std::max(rhi, v);
    }
    want += Line("[VELMORA]: RHS no. %d:  min %8.2e  max %8.2e\n", rlo, rhi, r + 1);
  }
  const Outcome run = Stats(mtype, m, nrhs, b, f);
  EXPECT_EQ(run.error, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, want);
}

TEST(Checkers, StatisticsOfCollectionMatrices) {
  VELMORA_NEEDS_MATRIX_FOLDER();
  ExpectStatistics("bcsstk13.mtx", 2, "real symmetric positive definite", VELMORA_PRINTSTATS_D,
                   false);
  ExpectStatistics("w156.mtx", 13, "general complex", velmora_printstats_z_, true);
}

}  // namespace
