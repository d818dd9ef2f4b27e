// ladj_mod.cpp - adjacency of A + A^T for the orderings.
#include "analysis/ladj_mod.h"

#include <algorithm>
#include <cstdint>

#include "common/allocation.h"

namespace vm {

namespace {

// Row r of the graph's matrix reads row source(r) of A.
inline int source_row(const int *rowmap, int r) {
  return rowmap ? rowmap[r] - 1 : r;
}

inline bool in_range(int col, int n) {
  return col >= 1 && col <= n;
}

// Sorts each list and removes repeats in place; returns the new length.
// A list filled in order (every list of a triangle filled by one thread)
// is already strictly increasing and is left as it is.
int sort_unique(int *list, int len) {
  if (std::adjacent_find(list, list + len, [](int a, int b) { return a >= b; }) == list + len)
    return len;
  std::sort(list, list + len);
  return static_cast<int>(std::unique(list, list + len) - list);
}

// A list this long (and at least n/64 entries, so that sweeping the
// bitmap costs no more than reading the list) is sorted through a bitmap
// of the n nodes: a dense row of A, whose list holds its row and its
// column, would cost len log len by comparison (and the two copies in
// sequence are a bad case for quicksort).
constexpr int kBitmapList = 512;

inline bool bitmap_list(int len, int n) {
  return len >= kBitmapList && len >= n / 64;
}

// sort_unique through bits (n/64 words, clear on entry and on return).
int bitmap_sort_unique(int *list, int len, std::uint64_t *bits) {
  int lo = list[0] - 1, hi = lo;
  for (int p = 0; p < len; ++p) {
    const int v = list[p] - 1;
    bits[v >> 6] |= std::uint64_t{1} << (v & 63);
    lo = std::min(lo, v);
    hi = std::max(hi, v);
  }
  int out = 0;
  for (int w = lo >> 6; w <= hi >> 6; ++w) {
    for (std::uint64_t b = bits[w]; b != 0; b &= b - 1)
      list[out++] = (w << 6) + __builtin_ctzll(b) + 1;
    bits[w] = 0;
  }
  return out;
}

// One slot of row r: a plain increment on one thread, an atomic one on a
// team.  Returns the old value.
inline int take(int *count, int r, bool parallel) {
  if (!parallel) return count[r]++;
  int at;
#pragma omp atomic capture
  at = count[r]++;
  return at;
}

}  // namespace

std::int64_t ladj_mod_capacity(int n, const int *ia) {
  return 2 * (static_cast<std::int64_t>(ia[n]) - ia[0]);
}

std::int64_t ladj_mod_work_size(int n) {
  return 2 * static_cast<std::int64_t>(n) + 2;
}

std::int64_t LADJ_MOD_VELMORA(int n, const int *ia, const int *ja, const int *rowmap, int nthreads,
                              int *xadj, int *adjncy, int *work) {
  // count(r) and then the fill position of row r live in work[0..n);
  // the deduplicated lengths in work[n..2n).
  int *count = work;
  int *kept = work + n;
  const bool parallel = nthreads > 1;

  // Count: entry (r, c) of B lands in rows r and c.
#pragma omp parallel for schedule(static) if (parallel)
  for (int r = 0; r < n; ++r) count[r] = 0;
#pragma omp parallel for schedule(static) if (parallel)
  for (int r = 0; r < n; ++r) {
    const int s = source_row(rowmap, r);
    for (int k = ia[s] - 1; k < ia[s + 1] - 1; ++k) {
      const int c = ja[k];
      if (!in_range(c, n) || c == r + 1) continue;
      take(count, r, parallel);
      take(count, c - 1, parallel);
    }
  }
  xadj[0] = 1;
  for (int r = 0; r < n; ++r) xadj[r + 1] = xadj[r] + count[r];

    // Fill: positions taken by atomic capture, lists sorted afterwards, so
    // the result does not depend on the thread count.
#pragma omp parallel for schedule(static) if (parallel)
  for (int r = 0; r < n; ++r) count[r] = xadj[r] - 1;
#pragma omp parallel for schedule(static) if (parallel)
  for (int r = 0; r < n; ++r) {
    const int s = source_row(rowmap, r);
    for (int k = ia[s] - 1; k < ia[s + 1] - 1; ++k) {
      const int c = ja[k];
      if (!in_range(c, n) || c == r + 1) continue;
      adjncy[take(count, r, parallel)] = c;
      adjncy[take(count, c - 1, parallel)] = r + 1;
    }
  }

  // Repeats (an entry given in both triangles, or twice) are removed row by
  // row, then the rows are moved together.
  bool long_lists = false;
  for (int r = 0; r < n && !long_lists; ++r) long_lists = bitmap_list(xadj[r + 1] - xadj[r], n);
  scratch_vector<std::uint64_t> bits;
  if (long_lists) {
    bits.assign(static_cast<std::size_t>(n / 64 + 1), 0);
    for (int r = 0; r < n; ++r) {
      const int len = xadj[r + 1] - xadj[r];
      if (bitmap_list(len, n)) kept[r] = bitmap_sort_unique(adjncy + xadj[r] - 1, len, bits.data());
    }
  }
#pragma omp parallel for schedule(dynamic, 256) if (parallel)
  for (int r = 0; r < n; ++r) {
    const int len = xadj[r + 1] - xadj[r];
    if (!long_lists || !bitmap_list(len, n)) kept[r] = sort_unique(adjncy + xadj[r] - 1, len);
  }
  int next = 1;
  for (int r = 0; r < n; ++r) {
    const int from = xadj[r];
    xadj[r] = next;
    if (from != next) std::copy(adjncy + from - 1, adjncy + from - 1 + kept[r], adjncy + next - 1);
    next += kept[r];
  }
  xadj[n] = next;
  return next - 1;
}

}  // namespace vm
