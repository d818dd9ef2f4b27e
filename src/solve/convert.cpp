// convert.cpp - CONV8_16, SUM8_16, CONV16_8 and their complex twins;
// rhs_to_single and sol_to_double.
#include "solve/convert.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "solve/extended.h"
#include "solve/vector_region.h"

namespace vm {

namespace {

std::int64_t doubles_of(const int *n, const int *nrhs, int width) {
  if (*n < 1 || *nrhs < 1) return 0;
  return std::int64_t{*n} * *nrhs * width;
}

void widen(std::int64_t count, const double *x, double *x16) {
  for_each_range(count, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t k = lo; k < hi; ++k) {
      x16[2 * k] = x[k];
      x16[2 * k + 1] = 0.0;
    }
  });
}

void accumulate(std::int64_t count, const double *d, double *x16, double *sumdx) {
  for_each_range(count, [=](std::int64_t lo, std::int64_t hi) {
    double s0 = 0.0, s1 = 0.0;
    std::int64_t k = lo;
    for (; k + 1 < hi; k += 2) {
      ext::add(x16[2 * k], x16[2 * k + 1], d[k]);
      ext::add(x16[2 * k + 2], x16[2 * k + 3], d[k + 1]);
      s0 += std::fabs(d[k]);
      s1 += std::fabs(d[k + 1]);
    }
    if (k < hi) {
      ext::add(x16[2 * k], x16[2 * k + 1], d[k]);
      s0 += std::fabs(d[k]);
    }
    const double part = s0 + s1;
#pragma omp atomic
    *sumdx += part;
  });
}

void narrow(std::int64_t count, const double *x16, double *x) {
  for_each_range(count, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t k = lo; k < hi; ++k) x[k] = x16[2 * k] + x16[2 * k + 1];
  });
}

}  // namespace

void CONV8_16(const int *n, const int *nrhs, const double *x, double *x16) {
  widen(doubles_of(n, nrhs, 1), x, x16);
}
void C_CONV16_32(const int *n, const int *nrhs, const double *x, double *x16) {
  widen(doubles_of(n, nrhs, 2), x, x16);
}

void SUM8_16(const int *n, const int *nrhs, const double *d, double *x16, double *sumdx) {
  accumulate(doubles_of(n, nrhs, 1), d, x16, sumdx);
}
void C_SUM16_32(const int *n, const int *nrhs, const double *d, double *x16, double *sumdx) {
  accumulate(doubles_of(n, nrhs, 2), d, x16, sumdx);
}

void CONV16_8(const int *n, const int *nrhs, const double *x16, double *x) {
  narrow(doubles_of(n, nrhs, 1), x16, x);
}
void C_CONV32_16(const int *n, const int *nrhs, const double *x16, double *x) {
  narrow(doubles_of(n, nrhs, 2), x16, x);
}

// The array is seen as bytes: double k sits at byte 8k, float k at 4k.
// Float k is written over bytes 4k..4k+3, which belong to double k/2 <= k,
// already read; double k is written over floats 2k and 2k+1 >= k, already
// read when the walk runs downwards.
void rhs_to_single(int count, int nrhs, double *v) {
  if (count < 1 || nrhs < 1) return;
  unsigned char *p = reinterpret_cast<unsigned char *>(v);
  const std::int64_t total = std::int64_t{count} * nrhs;
  for (std::int64_t k = 0; k < total; ++k) {
    double d;
    std::memcpy(&d, p + 8 * k, sizeof d);
    const float f = static_cast<float>(d);
    std::memcpy(p + 4 * k, &f, sizeof f);
  }
}

void sol_to_double(int count, int nrhs, double *v) {
  if (count < 1 || nrhs < 1) return;
  unsigned char *p = reinterpret_cast<unsigned char *>(v);
  for (std::int64_t k = std::int64_t{count} * nrhs - 1; k >= 0; --k) {
    float f;
    std::memcpy(&f, p + 4 * k, sizeof f);
    const double d = f;
    std::memcpy(p + 8 * k, &d, sizeof d);
  }
}

}  // namespace vm
