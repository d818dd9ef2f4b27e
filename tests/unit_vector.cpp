// Parallel vector kernels against plain serial loops, on lengths that do
// and do not split evenly over the team.
#include <gtest/gtest.h>
#include <omp.h>

#include <complex>
#include <cstdint>
#include <numeric>
#include <vector>

#include "solve/vmovxy.h"

namespace {

std::vector<double> ramp(int n, double scale) {
  std::vector<double> v(n);
  for (int i = 0; i < n; ++i) v[i] = scale * (i % 17 - 8) + 0.25 * i;
  return v;
}

TEST(VectorKernels, RealOperationsMatchSerialLoops) {
  for (int threads : {1, 2, 3}) {
    omp_set_num_threads(threads);
    for (int n : {1, 2, 7, 1000, 1001}) {
      SCOPED_TRACE(testing::Message() << "threads " << threads << " n " << n);
      const auto x = ramp(n, 1.0), y0 = ramp(n, -0.5);
      double dot = 0, sq = 0;
      for (int i = 0; i < n; ++i) dot += x[i] * y0[i], sq += x[i] * x[i];
      EXPECT_NEAR(vm::PDSCAP1(&n, x.data(), y0.data()), dot, 1e-9 * (1 + std::abs(dot)));
      EXPECT_NEAR(vm::PVNORM2(&n, x.data()), sq, 1e-9 * sq);

      auto y = y0;
      const double a = 3.0;
      vm::PVRMXAY(&n, &a, x.data(), y.data());
      for (int i = 0; i < n; ++i) ASSERT_DOUBLE_EQ(y[i], y0[i] + 3.0 * x[i]);
      auto xs = x;
      vm::PVRXAYX(&n, &a, xs.data(), y0.data());
      for (int i = 0; i < n; ++i) ASSERT_DOUBLE_EQ(xs[i], x[i] * 3.0 + y0[i]);
      std::vector<double> z(n);
      vm::PVAXYRZ(&n, x.data(), y0.data(), z.data());
      y = y0;
      vm::PVSXYRY(&n, x.data(), y.data());
      for (int i = 0; i < n; ++i) ASSERT_DOUBLE_EQ(y[i], y0[i] - x[i]);
      vm::PVAXYRY(&n, x.data(), y.data());
      for (int i = 0; i < n; ++i) ASSERT_DOUBLE_EQ(z[i], x[i] + y0[i]);
      vm::PVMOVXY(&n, x.data(), y.data());
      EXPECT_EQ(y, x);
      vm::PVCLRR(&n, y.data());
      for (double v : y) ASSERT_EQ(v, 0.0);
    }
  }
  omp_set_num_threads(2);
}

TEST(VectorKernels, EmptyLengthsTouchNothing) {
  std::vector<double> x{1, 2}, y{3, 4};
  std::vector<int> ix{5, 6};
  for (int n : {0, -3}) {
    vm::PVCLRR(&n, x.data());
    vm::PVCLRI(&n, ix.data());
    vm::PVMOVXY(&n, x.data(), y.data());
    vm::CCLRR(&n, x.data());
    EXPECT_EQ(vm::PDSCAP1(&n, x.data(), y.data()), 0.0);
    EXPECT_EQ(vm::PVNORM2(&n, x.data()), 0.0);
    EXPECT_EQ(vm::CNORM2(&n, x.data()), 0.0);
    EXPECT_EQ(vm::ZSCAP1(&n, x.data(), y.data()), std::complex<double>(0.0));
  }
  EXPECT_EQ(x, (std::vector<double>{1, 2}));
  EXPECT_EQ(y, (std::vector<double>{3, 4}));
  EXPECT_EQ(ix, (std::vector<int>{5, 6}));
}

TEST(VectorKernels, ComplexProductHasNoConjugation) {
  int n = 3;
  const std::vector<double> x{1, 2, 0, -1, 3, 0}, y{2, 1, 5, 5, -1, 4};
  std::complex<double> want = 0;
  for (int i = 0; i < n; ++i)
    want +=
        std::complex<double>(x[2 * i], x[2 * i + 1]) * std::complex<double>(y[2 * i], y[2 * i + 1]);
  EXPECT_EQ(vm::ZSCAP1(&n, x.data(), y.data()), want);
  EXPECT_DOUBLE_EQ(vm::CNORM2(&n, x.data()), 1 + 4 + 1 + 9);
  std::vector<double> z(6);
  vm::CMOVXY(&n, x.data(), z.data());
  EXPECT_EQ(z, x);
}

TEST(VectorKernels, SerialCopiesHandleOverlap) {
  for (std::int64_t n : {5, 12, 13, 24, 25, 100}) {
    std::vector<int> v(2 * n);
    std::iota(v.begin(), v.end(), 0);
    std::vector<int> want(v.begin(), v.begin() + n);
    vm::I4MOVXY_SERIAL(&n, v.data(), v.data() + n / 2);  // forward overlap
    EXPECT_TRUE(std::equal(want.begin(), want.end(), v.begin() + n / 2)) << n;
    std::vector<std::int64_t> w(2 * n);
    std::iota(w.begin(), w.end(), 0);
    std::vector<std::int64_t> want64(w.begin() + n / 2, w.begin() + n / 2 + n);
    vm::IMOVXY_SERIAL(&n, w.data() + n / 2, w.data());  // backward overlap
    EXPECT_TRUE(std::equal(want64.begin(), want64.end(), w.begin())) << n;
  }
}

}  // namespace
