// amap.cpp - scatter maps of the input matrix into the factor panels.
//
// Both builders gather, for each column of the permuted matrix, the list of
// (row, source) pairs of the entries that land in it, sort each list by
// row, and merge it with the supernode's sorted row list, stepping the
// destination along the panel column.
#include "analysis/amap.h"

#include <algorithm>
#include <cmath>

namespace vm {

namespace {

// Column lists: start (n+1), fill pointer (n), and per entry its row in
// the list, its source and its original row; for the dense sort a marker
// and a by-row buffer; the inverse of the matching permutation.
struct Lists {
  int n;
  int *start, *next, *rows, *srcs, *orows, *marker, *by_row, *by_row2, *row_of;
};

Lists carve(int n, std::int64_t nnz, int *work) {
  Lists l;
  l.n = n;
  l.start = work;
  l.next = l.start + n + 1;
  l.marker = l.next + n;
  l.by_row = l.marker + n;
  l.by_row2 = l.by_row + n;
  l.row_of = l.by_row2 + n;
  l.rows = l.row_of + n;
  l.srcs = l.rows + nnz;
  l.orows = l.srcs + nnz;
  return l;
}

// Sorts every list by row.  Lists shorter than the crossover by insertion,
// full ones by placing, the rest through a marker array swept in row order.
void sort_lists(Lists &l) {
  int dense_from = 0, walk_below = 0;
  amap_sort_crossover(l.n, &dense_from, &walk_below);
  bool marker_clean = false;
  for (int j = 0; j < l.n; ++j) {
    const int b = l.start[j], len = l.start[j + 1] - l.start[j];
    int *rows = l.rows + b, *srcs = l.srcs + b, *orows = l.orows + b;
    if (len < 2) continue;
    if (len < dense_from) {
      for (int p = 1; p < len; ++p) {
        const int r = rows[p], s = srcs[p], o = orows[p];
        int q = p - 1;
        while (q >= 0 && rows[q] > r) {
          rows[q + 1] = rows[q];
          srcs[q + 1] = srcs[q];
          orows[q + 1] = orows[q];
          --q;
        }
        rows[q + 1] = r;
        srcs[q + 1] = s;
        orows[q + 1] = o;
      }
      continue;
    }
    if (!marker_clean) std::fill(l.marker, l.marker + l.n, 0);
    for (int p = 0; p < len; ++p) {
      l.marker[rows[p] - 1] = 1;
      l.by_row[rows[p] - 1] = srcs[p];
      l.by_row2[rows[p] - 1] = orows[p];
    }
    int out = 0;
    for (int r = 1; r <= l.n && out < len; ++r) {
      if (len < l.n && l.marker[r - 1] == 0) continue;  // a full column needs no test
      rows[out] = r;
      srcs[out] = l.by_row[r - 1];
      orows[out] = l.by_row2[r - 1];
      ++out;
    }
    if (len < walk_below) {
      for (int p = 0; p < len; ++p) l.marker[rows[p] - 1] = 0;
    } else {
      std::fill(l.marker, l.marker + l.n, 0);
    }
    marker_clean = true;
  }
}

// Turns counts in start[1..n] into list starts and resets the fill pointers.
void open_lists(Lists &l) {
  l.start[0] = 0;
  for (int j = 0; j < l.n; ++j) l.start[j + 1] += l.start[j];
  for (int j = 0; j < l.n; ++j) l.next[j] = l.start[j];
}

void push(Lists &l, int col, int row, int src, int orow) {
  const int at = l.next[col - 1]++;
  l.rows[at] = row;
  l.srcs[at] = src;
  l.orows[at] = orow;
}

// Merges column j's sorted list with a sorted row list, destinations from
// d0 in step with it.  Returns false when an entry finds no place.
bool merge_column(const Lists &l, int j, const int *list, std::int64_t list_len, std::int64_t d0,
                  AmapOut map, std::int64_t *out) {
  std::int64_t pos = 0;
  for (int p = l.start[j - 1]; p < l.start[j]; ++p) {
    const int row = l.rows[p];
    while (pos < list_len && list[pos] < row) ++pos;
    if (pos >= list_len || list[pos] != row) return false;
    const int src = l.srcs[p];
    const std::int64_t d = d0 + pos;
    map.dest[*out] = src > 0 ? d : -d;
    map.src[*out] = src > 0 ? src : -src;
    if (map.row) map.row[*out] = l.orows[p];
    ++*out;
  }
  return true;
}

inline bool valid_column(int c, int n) {
  return c >= 1 && c <= n;
}

// Writes the map of every column from the sorted lists; `beyond_block`
// merges with the part of the row list after the supernode's own columns
// (the unz columns) and destinations from xptr.
bool write_map(const Lists &l, const int *xsuper, const int *snode, const std::int64_t *xlindx,
               const int *lindx, const std::int64_t *xptr, bool beyond_block, AmapOut map,
               std::int64_t *count) {
  std::int64_t out = 0;
  map.ptr[0] = 1;
  for (int j = 1; j <= l.n; ++j) {
    const int s = snode[j - 1];
    const int skip = beyond_block ? xsuper[s] - xsuper[s - 1] : 0;
    const int *list = lindx + xlindx[s - 1] - 1 + skip;
    const std::int64_t list_len = xlindx[s] - xlindx[s - 1] - skip;
    if (!merge_column(l, j, list, list_len, xptr[j - 1], map, &out)) return false;
    map.ptr[j] = static_cast<int>(out + 1);
  }
  *count = out;
  return true;
}

}  // namespace

std::int64_t amap_work_size(int n, std::int64_t nnz) {
  return 6 * static_cast<std::int64_t>(n) + 1 + 3 * nnz;
}

void amap_sort_crossover(int n, int *dense_from, int *walk_clean_below) {
  // k shrinks by 0.8 until 3 v ln v + 1 fits in 5n; T = min(n, k / 0.8).
  float k = static_cast<float>(n);
  const float limit = 5.0f * static_cast<float>(n);
  for (;;) {
    const float v = k;
    k = std::trunc(0.8f * k);
    if (3.0f * v * std::log(v > 1.0f ? v : 1.0f) + 1.0f <= limit || k < 1.0f) break;
  }
  const float t = std::trunc(k / 0.8f);
  *dense_from = static_cast<int>(std::min(static_cast<float>(n), t));
  *walk_clean_below = static_cast<int>(std::trunc(0.25f * static_cast<float>(n)));
}

std::int64_t AMAP_SYM_VELMORA(int n, const int *ia, const int *ja, const int *perm, const int *invp,
                              const int *xsuper, const int *snode, const std::int64_t *xlindx,
                              const int *lindx, const std::int64_t *xlnz, int scaling_on,
                              AmapOut map, int *work) {
  (void)perm;
  const std::int64_t nnz = ia[n] - 1;
  Lists l = carve(n, nnz, work);
  std::fill(l.start, l.start + n + 1, 0);
  // Entry (r, c) at permuted (pr, pc) lands in column min(pr, pc) at row
  // max(pr, pc); the source is negative when that is the transposed place.
  for (int r = 1; r <= n; ++r)
    for (int k = ia[r - 1]; k < ia[r]; ++k) {
      if (!valid_column(ja[k - 1], n)) continue;
      const int pr = invp[r - 1], pc = invp[ja[k - 1] - 1];
      ++l.start[std::min(pr, pc)];
    }
  open_lists(l);
  for (int r = 1; r <= n; ++r)
    for (int k = ia[r - 1]; k < ia[r]; ++k) {
      if (!valid_column(ja[k - 1], n)) continue;
      const int pr = invp[r - 1], pc = invp[ja[k - 1] - 1];
      if (pr >= pc)
        push(l, pc, pr, k, r);
      else
        push(l, pr, pc, -k, r);
    }
  sort_lists(l);
  if (!scaling_on) map.row = nullptr;
  std::int64_t count = 0;
  if (!write_map(l, xsuper, snode, xlindx, lindx, xlnz, false, map, &count)) return -1;
  return count;
}

std::int64_t AMAP_UNSYM_VELMORA(int n, const int *ia, const int *ja, const int *rowmap,
                                const int *perm, const int *invp, const int *xsuper,
                                const int *snode, const std::int64_t *xlindx, const int *lindx,
                                const std::int64_t *xlnz, const std::int64_t *xunz, int scaling_on,
                                AmapOut lmap, AmapOut umap, std::int64_t *ucount, int *work) {
  (void)perm;
  const std::int64_t nnz = ia[n] - 1;
  Lists l = carve(n, nnz, work);
  // Row r of A is row i of the factored matrix when rowmap(i) = r.
  for (int r = 1; r <= n; ++r) l.row_of[r - 1] = r;
  if (rowmap)
    for (int i = 1; i <= n; ++i) l.row_of[rowmap[i - 1] - 1] = i;
  auto in_lnz = [snode](int pr, int pc) { return pr >= pc || snode[pr - 1] == snode[pc - 1]; };
  if (!scaling_on) {
    lmap.row = nullptr;
    umap.row = nullptr;
  }
  std::int64_t lcount = 0;
  // The same gather twice: entries of lnz listed by column, entries of unz
  // by row (the columns of U transposed).
  for (int pass = 0; pass < 2; ++pass) {
    const bool lower = pass == 0;
    std::fill(l.start, l.start + n + 1, 0);
    for (int r = 1; r <= n; ++r)
      for (int k = ia[r - 1]; k < ia[r]; ++k) {
        if (!valid_column(ja[k - 1], n)) continue;
        const int pr = invp[l.row_of[r - 1] - 1], pc = invp[ja[k - 1] - 1];
        if (in_lnz(pr, pc) == lower) ++l.start[lower ? pc : pr];
      }
    open_lists(l);
    for (int r = 1; r <= n; ++r)
      for (int k = ia[r - 1]; k < ia[r]; ++k) {
        if (!valid_column(ja[k - 1], n)) continue;
        const int pr = invp[l.row_of[r - 1] - 1], pc = invp[ja[k - 1] - 1];
        if (in_lnz(pr, pc) != lower) continue;
        if (lower)
          push(l, pc, pr, k, r);
        else
          push(l, pr, pc, k, r);
      }
    sort_lists(l);
    std::int64_t count = 0;
    const bool ok = lower ? write_map(l, xsuper, snode, xlindx, lindx, xlnz, false, lmap, &count)
                          : write_map(l, xsuper, snode, xlindx, lindx, xunz, true, umap, &count);
    if (!ok) return -1;
    if (lower)
      lcount = count;
    else if (ucount)
      *ucount = count;
  }
  return lcount;
}

}  // namespace vm
