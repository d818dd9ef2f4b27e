// c_vmovxy.cpp - the complex vector kernels; a complex vector of length n
// is 2n doubles, (re, im) pairs.
#include "solve/vector_region.h"
#include "solve/vmovxy.h"

namespace vm {

void CMOVXY(const int *n, const double *x, double *y) {
  if (*n < 1) return;
  parallel_copy(2 * static_cast<std::int64_t>(*n), x, y);
}

void CCLRR(const int *n, double *x) {
  if (*n < 1) return;
  for_each_range(2 * static_cast<std::int64_t>(*n), [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t i = lo; i < hi; ++i) x[i] = 0.0;
  });
}

std::complex<double> ZSCAP1(const int *n, const double *x, const double *y) {
  const double re = parallel_sum(
      *n, [=](std::int64_t i) { return x[2 * i] * y[2 * i] - x[2 * i + 1] * y[2 * i + 1]; });
  const double im = parallel_sum(
      *n, [=](std::int64_t i) { return x[2 * i] * y[2 * i + 1] + x[2 * i + 1] * y[2 * i]; });
  return {re, im};
}

double CNORM2(const int *n, const double *x) {
  return parallel_sum(
      *n, [=](std::int64_t i) { return x[2 * i] * x[2 * i] + x[2 * i + 1] * x[2 * i + 1]; });
}

}  // namespace vm
