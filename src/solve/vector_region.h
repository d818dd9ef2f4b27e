// vector_region.h - the parallel region shared by the vector kernels: one
// fork, a static split of [0, n) over the team, each thread on its own
// contiguous range, and the runtime's barrier at the end.
#ifndef VELMORA_SOLVE_VECTOR_REGION_H
#define VELMORA_SOLVE_VECTOR_REGION_H

#include <omp.h>

#include <cstdint>

namespace vm {

// Calls body(lo, hi) once per thread on its share of [0, n).
template <class Body>
void for_each_range(std::int64_t n, Body body) {
  if (n < 1) return;
#pragma omp parallel
  {
    const std::int64_t team = omp_get_num_threads();
    const std::int64_t me = omp_get_thread_num();
    const std::int64_t chunk = n / team, extra = n % team;
    const std::int64_t lo = me * chunk + (me < extra ? me : extra);
    const std::int64_t hi = lo + chunk + (me < extra ? 1 : 0);
    if (lo < hi) body(lo, hi);
  }
}

template <class T>
void parallel_copy(std::int64_t n, const T *x, T *y) {
  for_each_range(n, [=](std::int64_t lo, std::int64_t hi) {
    for (std::int64_t i = lo; i < hi; ++i) y[i] = x[i];
  });
}

// Calls body(c, i) for every column c < ncols and entry i < len of a block
// of vectors, the ncols*len pairs split statically over one team.
template <class Body>
void for_each_entry(int ncols, int len, Body body) {
  if (ncols < 1 || len < 1) return;
#pragma omp parallel for collapse(2) schedule(static)
  for (int c = 0; c < ncols; ++c)
    for (int i = 0; i < len; ++i) body(c, i);
}

// Sum of term(i) over [0, n): each thread sums its share, the shares are
// combined by the runtime's reduction, so the last bits may depend on the
// team size.
template <class Term>
double parallel_sum(std::int64_t n, Term term) {
  double sum = 0.0;
  if (n < 1) return sum;
#pragma omp parallel for schedule(static) reduction(+ : sum)
  for (std::int64_t i = 0; i < n; ++i) sum += term(i);
  return sum;
}

}  // namespace vm

#endif  // VELMORA_SOLVE_VECTOR_REGION_H
