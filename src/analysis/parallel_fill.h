/*
 * parallel_fill.h - clearing loops of the symbolic stage.
 *
 * The arrays of the symbolic factor are cleared by a static parallel loop so
 * that their pages are first touched by the threads that later work on the
 * same chunks.  Short arrays are cleared by the calling thread: starting a
 * team costs more than it saves there.
 */
#ifndef VELMORA_ANALYSIS_PARALLEL_FILL_H
#define VELMORA_ANALYSIS_PARALLEL_FILL_H

#include <cstdint>

namespace vm {

constexpr std::int64_t kParallelFillMin = 1 << 16;

template <typename T>
inline void parallel_fill(T *a, std::int64_t len, T value) {
  if (a == nullptr || len <= 0) return;
#pragma omp parallel for schedule(static) if (len >= kParallelFillMin)
  for (std::int64_t i = 0; i < len; ++i) a[i] = value;
}

}  // namespace vm

#endif /* VELMORA_ANALYSIS_PARALLEL_FILL_H */
