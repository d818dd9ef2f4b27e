// vmovxy.cpp - the real, integer and single-precision vector kernels.
#include "solve/vmovxy.h"

#include <cstring>

#include "solve/vector_region.h"

namespace vm {

void PVCLRI(const int *n, int *x) {
  for_each_range(*n, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t i = lo; i < hi; ++i) x[i] = 0;
  });
}

void PVCLRR(const int *n, double *x) {
  for_each_range(*n, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t i = lo; i < hi; ++i) x[i] = 0.0;
  });
}

void PVMOVXY(const int *n, const double *x, double *y) {
  parallel_copy(*n, x, y);
}
void PIMOVXY(const int *n, const std::int64_t *x, std::int64_t *y) {
  parallel_copy(*n, x, y);
}
void PJMOVXY(const std::int64_t *n, const std::int64_t *x, std::int64_t *y) {
  parallel_copy(*n, x, y);
}
void PI4MOVXY(const int *n, const int *x, int *y) {
  parallel_copy(*n, x, y);
}
void PJ4MOVXY(const std::int64_t *n, const int *x, int *y) {
  parallel_copy(*n, x, y);
}
void PVMOVXY_32(const int *n, const float *x, float *y) {
  parallel_copy(*n, x, y);
}

void PVCLRR_32(const int *n, float *x) {
  for_each_range(*n, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t i = lo; i < hi; ++i) x[i] = 0.0f;
  });
}

double PDSCAP1(const int *n, const double *x, const double *y) {
  return parallel_sum(*n, [=](std::int64_t i) { return x[i] * y[i]; });
}

double PVNORM2(const int *n, const double *x) {
  return parallel_sum(*n, [=](std::int64_t i) { return x[i] * x[i]; });
}

void PVRMXAY(const int *n, const double *a, const double *x, double *y) {
  const double s = *a;
  for_each_range(*n, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t i = lo; i < hi; ++i) y[i] += s * x[i];
  });
}

void PVRXAYX(const int *n, const double *a, double *x, const double *y) {
  const double s = *a;
  for_each_range(*n, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t i = lo; i < hi; ++i) x[i] = x[i] * s + y[i];
  });
}

void PVAXYRZ(const int *n, const double *x, const double *y, double *z) {
  for_each_range(*n, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t i = lo; i < hi; ++i) z[i] = x[i] + y[i];
  });
}

void PVSXYRY(const int *n, const double *x, double *y) {
  for_each_range(*n, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t i = lo; i < hi; ++i) y[i] -= x[i];
  });
}

void PVAXYRY(const int *n, const double *x, double *y) {
  for_each_range(*n, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t i = lo; i < hi; ++i) y[i] += x[i];
  });
}

namespace {

template <class T, int kShort>
void serial_copy(std::int64_t n, const T *x, T *y) {
  if (n < 1 || x == y) return;
  if (n <= kShort) {
    if (y < x) {
      for (std::int64_t i = 0; i < n; ++i) y[i] = x[i];
    } else {
      for (std::int64_t i = n - 1; i >= 0; --i) y[i] = x[i];
    }
    return;
  }
  std::memmove(y, x, static_cast<std::size_t>(n) * sizeof(T));
}

}  // namespace

void IMOVXY_SERIAL(const std::int64_t *n, const std::int64_t *x, std::int64_t *y) {
  serial_copy<std::int64_t, 12>(*n, x, y);
}

void I4MOVXY_SERIAL(const std::int64_t *n, const int *x, int *y) {
  serial_copy<int, 24>(*n, x, y);
}

}  // namespace vm
