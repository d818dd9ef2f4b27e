/*
 * smat.cpp - operations on the compressed-sparse-row record `smat`.
 */
#include "analysis/smat.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "analysis/perm.h"
#include "analysis/sparse_assert.h"
#include "quor/corelib/quor_log.h"

namespace {

/* ---- allocation */

pint *new_index_array(std::size_t count) {
  return static_cast<pint *>(quor_malloc(count * sizeof(pint)));
}

pint *new_zeroed_index_array(std::size_t count) {
  return static_cast<pint *>(quor_calloc(count, sizeof(pint)));
}

/* Doubles per stored value. */
inline int value_stride(const smat *mat) {
  return mat->is_complex ? 2 : 1;
}

double *new_value_array(std::size_t nnz, int stride) {
  return static_cast<double *>(
      quor_malloc(nnz * static_cast<std::size_t>(stride) * sizeof(double)));
}

double *new_zeroed_value_array(std::size_t nnz, int stride) {
  return static_cast<double *>(quor_calloc(nnz * static_cast<std::size_t>(stride), sizeof(double)));
}

inline void copy_value(double *dst, pint to, const double *src, pint from, int stride) {
  dst[static_cast<std::size_t>(to) * stride] = src[static_cast<std::size_t>(from) * stride];
  if (stride == 2)
    dst[2 * static_cast<std::size_t>(to) + 1] = src[2 * static_cast<std::size_t>(from) + 1];
}

inline void add_value(double *dst, pint to, const double *src, pint from, int stride) {
  dst[static_cast<std::size_t>(to) * stride] += src[static_cast<std::size_t>(from) * stride];
  if (stride == 2)
    dst[2 * static_cast<std::size_t>(to) + 1] += src[2 * static_cast<std::size_t>(from) + 1];
}

/* ---- sorting one row by column
 *
 * A quicksort without recursion: segments wait on an explicit stack of
 * (left, right) pairs.  The pivot is the median of the first, middle and
 * last entries, parked next to the right end.  Segments of at most
 * kSortCutoff entries are not pushed; one insertion sort over the whole row
 * finishes them, which costs little because every entry is by then within
 * its small segment.  Pushing the larger side first keeps the stack below
 * log2(len) pairs, far inside its fixed size.
 */

constexpr pint kSortCutoff = 40;
constexpr int kSortStackPairs = 2048;

/* The arrays that move with the column indices of one row. */
struct RowView {
  pint *ja;
  double *a;   /* values of the row, or nullptr */
  int stride;  /* doubles per value: 1 real, 2 complex */
  pint *extra; /* an integer per entry carried along, or nullptr */

  void swap(pint i, pint j) const {
    std::swap(ja[i], ja[j]);
    if (a != nullptr) {
      for (int s = 0; s < stride; ++s) std::swap(a[i * stride + s], a[j * stride + s]);
    }
    if (extra != nullptr) std::swap(extra[i], extra[j]);
  }
};

bool row_is_sorted(const pint *ja, pint len) {
  for (pint k = 1; k < len; ++k) {
    if (ja[k - 1] > ja[k]) return false;
  }
  return true;
}

void insertion_sort_row(const RowView &v, pint len) {
  for (pint k = 1; k < len; ++k) {
    const pint key = v.ja[k];
    if (v.ja[k - 1] <= key) continue;
    double val[2] = {0.0, 0.0};
    if (v.a != nullptr) {
      for (int s = 0; s < v.stride; ++s) val[s] = v.a[k * v.stride + s];
    }
    const pint extra = v.extra != nullptr ? v.extra[k] : 0;
    pint j = k;
    for (; j > 0 && v.ja[j - 1] > key; --j) {
      v.ja[j] = v.ja[j - 1];
      if (v.a != nullptr) {
        for (int s = 0; s < v.stride; ++s) v.a[j * v.stride + s] = v.a[(j - 1) * v.stride + s];
      }
      if (v.extra != nullptr) v.extra[j] = v.extra[j - 1];
    }
    v.ja[j] = key;
    if (v.a != nullptr) {
      for (int s = 0; s < v.stride; ++s) v.a[j * v.stride + s] = val[s];
    }
    if (v.extra != nullptr) v.extra[j] = extra;
  }
}

void sort_row(const RowView &v, pint len) {
  if (row_is_sorted(v.ja, len)) return;
  pint stack[2 * kSortStackPairs];
  int top = 0;
  auto push = [&](pint left, pint right) {
    VM_SPARSE_ASSERT(top < kSortStackPairs, "smat");
    stack[2 * top] = left;
    stack[2 * top + 1] = right;
    ++top;
  };
  if (len > kSortCutoff) push(0, len - 1);
  pint *ja = v.ja;
  while (top > 0) {
    --top;
    const pint left = stack[2 * top];
    const pint right = stack[2 * top + 1];
    const pint mid = left + (right - left) / 2;
    // Order left, mid, right; the median then sits at mid and the two ends
    // stop the partition scans without bounds tests.
    if (ja[mid] < ja[left]) v.swap(left, mid);
    if (ja[right] < ja[left]) v.swap(left, right);
    if (ja[right] < ja[mid]) v.swap(mid, right);
    v.swap(mid, right - 1);
    const pint pivot = ja[right - 1];
    pint i = left;
    pint j = right - 1;
    for (;;) {
      while (ja[++i] < pivot) {
      }
      while (ja[--j] > pivot) {
      }
      if (j < i) break;
      v.swap(i, j);
    }
    v.swap(i, right - 1);
    // Now [left, i-1] <= pivot == ja[i] <= [i+1, right].
    const pint left_len = i - left;
    const pint right_len = right - i;
    if (left_len > right_len) {
      if (left_len > kSortCutoff) push(left, i - 1);
      if (right_len > kSortCutoff) push(i + 1, right);
    } else {
      if (right_len > kSortCutoff) push(i + 1, right);
      if (left_len > kSortCutoff) push(left, i - 1);
    }
  }
  insertion_sort_row(v, len);
}

/* Sort every row, carrying values when `values` is set and an integer per
 * entry when `extra` is given. */
void sort_all_rows(smat *mat, bool values, pint *extra) {
  const int stride = value_stride(mat);
  const bool carry = values && mat->a != nullptr;
  for (uint32_t i = 0; i < mat->m; ++i) {
    const pint begin = mat->ia[i];
    const pint len = mat->ia[i + 1] - begin;
    RowView v{mat->ja + begin, carry ? mat->a + static_cast<std::size_t>(begin) * stride : nullptr,
              stride, extra != nullptr ? extra + begin : nullptr};
    sort_row(v, len);
  }
}

/* Merge neighbouring entries with the same column in sorted rows, adding
 * their values; returns the new entry count. */
pint sum_duplicates(smat *mat) {
  const int stride = value_stride(mat);
  pint out = 0;
  pint begin = 0;
  for (uint32_t i = 0; i < mat->m; ++i) {
    const pint end = mat->ia[i + 1];
    const pint row_start = out;
    for (pint k = begin; k < end; ++k) {
      if (out > row_start && mat->ja[out - 1] == mat->ja[k]) {
        if (mat->a != nullptr) add_value(mat->a, out - 1, mat->a, k, stride);
        continue;
      }
      mat->ja[out] = mat->ja[k];
      if (mat->a != nullptr) copy_value(mat->a, out, mat->a, k, stride);
      ++out;
    }
    begin = end;
    mat->ia[i + 1] = out;
  }
  mat->nnz = static_cast<uint32_t>(out);
  return out;
}

}  // namespace

/* ======================================================================
 * construction
 */

smat *smat_new(uint32_t m, uint32_t n, int sym) {
  smat *mat = static_cast<smat *>(quor_malloc(sizeof(smat)));
  mat->m = m;
  mat->n = n;
  mat->nnz = 0;
  mat->sym = sym ? 1 : 0;
  mat->is_complex = 0;
  mat->ia = new_zeroed_index_array(static_cast<std::size_t>(m) + 1);
  mat->ja = nullptr;
  mat->a = nullptr;
  return mat;
}

smat *smat_new_from_arrays_complex(uint32_t m, uint32_t n, pint *ia, pint *ja, double *a, int sym,
                                   int base_index, int is_complex) {
  VM_SPARSE_ASSERT(base_index == 0 || base_index == 1, "smat");
  VM_SPARSE_ASSERT(ia != NULL, "smat");
  smat *mat = smat_new(m, n, sym);
  std::free(mat->ia);
  mat->ia = ia;
  mat->ja = ja;
  mat->a = a;
  mat->is_complex = is_complex ? 1 : 0;
  if (base_index == 1) {
    VM_SPARSE_ASSERT(mat->ia[0] == 1, "smat");
    mat->nnz = static_cast<uint32_t>(mat->ia[m] - 1);
    smat_to_zero_base(mat);
  } else {
    mat->nnz = static_cast<uint32_t>(mat->ia[m]);
  }
  VM_SPARSE_ASSERT_TEXT(static_cast<pint>(mat->nnz) == mat->ia[mat->m],
                        "(pint) mat->nnz == mat->ia[mat->m]", "smat");
  return mat;
}

smat *smat_new_from_arrays(uint32_t m, uint32_t n, pint *ia, pint *ja, double *a, int sym,
                           int base_index) {
  return smat_new_from_arrays_complex(m, n, ia, ja, a, sym, base_index, 0);
}

smat *smat_copy_pattern(const smat *src) {
  VM_SPARSE_ASSERT(src != NULL, "smat");
  smat *dst = smat_new(src->m, src->n, src->sym);
  dst->is_complex = src->is_complex;
  dst->nnz = src->nnz;
  std::memcpy(dst->ia, src->ia, (static_cast<std::size_t>(src->m) + 1) * sizeof(pint));
  dst->ja = new_index_array(src->nnz);
  if (src->nnz > 0) std::memcpy(dst->ja, src->ja, src->nnz * sizeof(pint));
  return dst;
}

smat *smat_copy(const smat *src) {
  smat *dst = smat_copy_pattern(src);
  if (src->a != nullptr) {
    // A complex copy keeps one spare pair beyond the values.
    const std::size_t count = src->is_complex ? 2 * static_cast<std::size_t>(src->nnz) : src->nnz;
    dst->a =
        static_cast<double *>(quor_malloc((src->is_complex ? count + 2 : count) * sizeof(double)));
    if (count > 0) std::memcpy(dst->a, src->a, count * sizeof(double));
  }
  return dst;
}

/* ======================================================================
 * base index
 */

void smat_to_zero_base(smat *mat) {
  VM_SPARSE_ASSERT(mat->ia[0] == 1, "smat");
  for (uint32_t k = 0; k < mat->nnz; ++k) --mat->ja[k];
  for (uint32_t i = 0; i <= mat->m; ++i) --mat->ia[i];
  VM_SPARSE_ASSERT_TEXT(static_cast<pint>(mat->nnz) == mat->ia[mat->m],
                        "(pint) mat->nnz == mat->ia[mat->m]", "smat");
}

void smat_to_one_base(smat *mat) {
  VM_SPARSE_ASSERT(mat->ia[0] == 0, "smat");
  for (uint32_t k = 0; k < mat->nnz; ++k) ++mat->ja[k];
  for (uint32_t i = 0; i <= mat->m; ++i) ++mat->ia[i];
  VM_SPARSE_ASSERT_TEXT(static_cast<pint>(mat->nnz) == mat->ia[mat->m] - 1,
                        "(pint) mat->nnz == mat->ia[mat->m]-1", "smat");
}

/* ======================================================================
 * checks
 */

int smat_check_rows(const smat *mat) {
  if (mat->ia[0] != 0) return 0;
  for (uint32_t i = 0; i < mat->m; ++i) {
    if (mat->ia[i] >= mat->ia[i + 1]) return 0;
  }
  return mat->ia[mat->m] == static_cast<pint>(mat->nnz);
}

int smat_check_cols(const smat *mat) {
  const pint n = static_cast<pint>(mat->n);
  for (uint32_t i = 0; i < mat->m; ++i) {
    for (pint k = mat->ia[i]; k + 1 < mat->ia[i + 1]; ++k) {
      if (mat->ja[k] >= mat->ja[k + 1] || mat->ja[k] >= n) return 0;
    }
  }
  return 1;
}

int smat_check_diag(const smat *mat) {
  for (uint32_t i = 0; i < mat->m; ++i) {
    bool found = false;
    for (pint k = mat->ia[i]; k < mat->ia[i + 1] && !found; ++k) {
      found = mat->ja[k] == static_cast<pint>(i);
    }
    if (!found) return 0;
  }
  return 1;
}

int smat_check_triangle(const smat *mat) {
  if (!mat->sym) return 1;
  for (uint32_t i = 0; i < mat->m; ++i) {
    for (pint k = mat->ia[i]; k < mat->ia[i + 1]; ++k) {
      if (mat->ja[k] < static_cast<pint>(i)) return 0;
    }
  }
  return 1;
}

int smat_check(const smat *mat) {
  // Later checks read ia, so they only run once the row pointers are sound.
  return smat_check_rows(mat) && smat_check_cols(mat) && smat_check_diag(mat) &&
         smat_check_triangle(mat);
}

/* ======================================================================
 * row sorting and scaling
 */

void smat_sort_row(smat *mat, pint row, int with_values) {
  VM_SPARSE_ASSERT(row >= 0 && static_cast<uint32_t>(row) < mat->m, "smat");
  const int stride = value_stride(mat);
  const pint begin = mat->ia[row];
  const bool carry = with_values && mat->a != nullptr;
  RowView v{mat->ja + begin, carry ? mat->a + static_cast<std::size_t>(begin) * stride : nullptr,
            stride, nullptr};
  sort_row(v, mat->ia[row + 1] - begin);
}

void smat_sort_rows(smat *mat, int with_values) {
  sort_all_rows(mat, with_values != 0, nullptr);
}

void smat_scale(smat *mat, const double *r, const double *c) {
  if (mat->a == nullptr) return;
  const int stride = value_stride(mat);
  for (uint32_t i = 0; i < mat->m; ++i) {
    for (pint k = mat->ia[i]; k < mat->ia[i + 1]; ++k) {
      const double f = r[i] * c[mat->ja[k]];
      for (int s = 0; s < stride; ++s) mat->a[static_cast<std::size_t>(k) * stride + s] *= f;
    }
  }
}

void smat_scale_log(smat *mat, const double *r, const double *c) {
  if (mat->a == nullptr) return;
  const int stride = value_stride(mat);
  for (uint32_t i = 0; i < mat->m; ++i) {
    for (pint k = mat->ia[i]; k < mat->ia[i + 1]; ++k) {
      const double f = std::exp(r[i] + c[mat->ja[k]]);
      for (int s = 0; s < stride; ++s) mat->a[static_cast<std::size_t>(k) * stride + s] *= f;
    }
  }
}

/* ======================================================================
 * symmetric structure
 */

void smat_expand_sym(smat *dst, pint **map) {
  VM_SPARSE_ASSERT(dst != NULL, "smat");
  const pint m = static_cast<pint>(dst->m);
  const uint32_t old_nnz = dst->nnz;
  if (!dst->sym) {
    if (map != nullptr) {
      *map = new_index_array(old_nnz);
      for (uint32_t k = 0; k < old_nnz; ++k) (*map)[k] = static_cast<pint>(k);
    }
    return;
  }
  VM_SPARSE_ASSERT(dst->m == dst->n, "smat");

  // Row i of the result: its mirrored entries (columns below i) first, then
  // its own entries.  mirrors[i] counts the strictly upper entries of column i.
  pint *new_ia = new_zeroed_index_array(static_cast<std::size_t>(m) + 1);
  pint *mirrors = new_zeroed_index_array(static_cast<std::size_t>(m) + 1);
  uint32_t upper = 0;
  for (pint i = 0; i < m; ++i) {
    for (pint k = dst->ia[i]; k < dst->ia[i + 1]; ++k) {
      const pint c = dst->ja[k];
      if (c > i) {
        ++mirrors[c];
        ++upper;
      }
    }
  }
  // Every diagonal entry stored: this is 2*nnz - m.
  const uint32_t nnz = old_nnz + upper;
  for (pint i = 0; i < m; ++i)
    new_ia[i + 1] = new_ia[i] + (dst->ia[i + 1] - dst->ia[i]) + mirrors[i];
  VM_SPARSE_ASSERT_TEXT(new_ia[dst->m] == static_cast<pint>(nnz), "new_ia[dst->m] == (pint) nnz",
                        "smat");

  const int stride = value_stride(dst);
  dst->ja = static_cast<pint *>(quor_realloc(dst->ja, nnz * sizeof(pint)));
  if (dst->a != nullptr) {
    dst->a = static_cast<double *>(
        quor_realloc(dst->a, static_cast<std::size_t>(nnz) * stride * sizeof(double)));
  }
  pint *origin = map != nullptr ? new_index_array(nnz) : nullptr;
  // mirrors[c] becomes the end of the free part of row c's mirror block;
  // the block fills backwards.
  for (pint i = 0; i < m; ++i) mirrors[i] += new_ia[i];

  // From the last row to the first: each row moves to or right of its old
  // place, and the mirror blocks written lie beyond every row not yet moved,
  // so nothing unread is overwritten.
  pint *ja = dst->ja;
  double *a = dst->a;
  for (pint i = m - 1; i >= 0; --i) {
    const pint old_begin = dst->ia[i];
    const pint len = dst->ia[i + 1] - old_begin;
    const pint begin = new_ia[i + 1] - len;
    for (pint k = len - 1; k >= 0; --k) {
      ja[begin + k] = ja[old_begin + k];
      if (a != nullptr) copy_value(a, begin + k, a, old_begin + k, stride);
      if (origin != nullptr) origin[begin + k] = old_begin + k;
    }
    for (pint t = begin; t < begin + len; ++t) {
      const pint c = ja[t];
      if (c <= i) continue;
      const pint slot = --mirrors[c];
      ja[slot] = i;
      if (a != nullptr) copy_value(a, slot, a, t, stride);
      if (origin != nullptr) origin[slot] = origin[t];
    }
  }
  std::free(mirrors);
  std::free(dst->ia);
  dst->ia = new_ia;
  dst->nnz = nnz;
  dst->sym = 0;
  // Mirrored columns arrive in ascending order; own entries keep the order
  // they had, so a row only needs work when its input row was unsorted.
  sort_all_rows(dst, true, origin);
  if (map != nullptr) *map = origin;
}

void smat_to_symmetric_structure(smat *A) {
  VM_SPARSE_ASSERT(A != NULL, "smat");
  if (A->sym) {
    quor_log("Matrix is already symmetric.");
    return;
  }
  quor_log("Cutting off lower triangular part of matrix...");
  const int stride = value_stride(A);
  pint kept = 0;
  pint begin = A->ia[0];
  for (uint32_t i = 0; i < A->m; ++i) {
    const pint end = A->ia[i + 1];
    A->ia[i] = kept;
    for (pint k = begin; k < end; ++k) {
      if (A->ja[k] < static_cast<pint>(i)) continue;
      A->ja[kept] = A->ja[k];
      if (A->a != nullptr) copy_value(A->a, kept, A->a, k, stride);
      ++kept;
    }
    begin = end;
  }
  A->ia[A->m] = kept;
  A->nnz = static_cast<uint32_t>(kept);
  A->sym = 1;
}

smat_colindex *smat_colindex_new(const smat *A) {
  VM_SPARSE_ASSERT(A != NULL, "smat");
  smat_colindex *ci = static_cast<smat_colindex *>(quor_malloc(sizeof(smat_colindex)));
  const std::size_t starts = static_cast<std::size_t>(A->n) + 1;
  ci->col_start = new_zeroed_index_array(starts);
  ci->row = new_index_array(A->nnz);
  ci->pos = new_index_array(A->nnz);
  for (uint32_t k = 0; k < A->nnz; ++k) ++ci->col_start[A->ja[k] + 1];
  for (std::size_t j = 1; j < starts; ++j) ci->col_start[j] += ci->col_start[j - 1];
  pint *next = new_index_array(starts);
  std::memcpy(next, ci->col_start, starts * sizeof(pint));
  // Rows in ascending order leave the rows of every column ascending.
  for (uint32_t i = 0; i < A->m; ++i) {
    for (pint k = A->ia[i]; k < A->ia[i + 1]; ++k) {
      const pint t = next[A->ja[k]]++;
      ci->row[t] = static_cast<pint>(i);
      ci->pos[t] = k;
    }
  }
  std::free(next);
  // The last start closes the last column: it must account for every entry.
  VM_SPARSE_ASSERT_TEXT(A->nnz == static_cast<unsigned>(ci->col_start[A->n]),
                        "A->nnz == (unsigned) ci->col_start[A->n]", "smat");
  return ci;
}

void smat_colindex_free(smat_colindex *ci) {
  if (ci == nullptr) return;
  std::free(ci->col_start);
  std::free(ci->row);
  std::free(ci->pos);
  std::free(ci);
}

/* ======================================================================
 * symmetric permutation
 */

namespace {

smat *perm_sym_general(const smat *src, const perm *perm, bool carry) {
  const pint *p = perm->p;
  const int stride = value_stride(src);
  smat *dst = smat_new(src->m, src->n, 0);
  dst->is_complex = src->is_complex;
  dst->nnz = src->nnz;
  for (uint32_t i = 0; i < src->m; ++i) dst->ia[p[i] + 1] = src->ia[i + 1] - src->ia[i];
  for (uint32_t i = 0; i < dst->m; ++i) dst->ia[i + 1] += dst->ia[i];
  VM_SPARSE_ASSERT_TEXT(dst->ia[dst->m] == static_cast<pint>(dst->nnz),
                        "dst->ia[dst->m] == (pint) dst->nnz", "smat");
  dst->ja = new_index_array(dst->nnz);
  if (carry) dst->a = new_value_array(dst->nnz, stride);
  for (uint32_t i = 0; i < src->m; ++i) {
    pint t = dst->ia[p[i]];
    for (pint k = src->ia[i]; k < src->ia[i + 1]; ++k, ++t) {
      dst->ja[t] = p[src->ja[k]];
      if (carry) copy_value(dst->a, t, src->a, k, stride);
    }
  }
  sort_all_rows(dst, carry, nullptr);
  return dst;
}

smat *perm_sym_upper(const smat *src, const perm *perm, bool carry) {
  const pint *p = perm->p;
  const int stride = value_stride(src);
  smat *full = smat_copy_pattern(src);
  pint *map = nullptr;
  smat_expand_sym(full, &map);
  struct perm *inverse = perm_invert(nullptr, perm);

  // New row r is old row inverse[r]; of each pair (i, j), (j, i) the one
  // landing on or above the new diagonal is kept.
  smat *dst = smat_new(src->m, src->n, 1);
  dst->is_complex = src->is_complex;
  for (uint32_t r = 0; r < full->m; ++r) {
    const pint i = inverse->p[r];
    pint count = 0;
    for (pint k = full->ia[i]; k < full->ia[i + 1]; ++k)
      count += p[full->ja[k]] >= static_cast<pint>(r);
    dst->ia[r + 1] = dst->ia[r] + count;
  }
  dst->nnz = static_cast<uint32_t>(dst->ia[dst->m]);
  dst->ja = new_index_array(dst->nnz);
  if (carry) dst->a = new_value_array(dst->nnz, stride);
  for (uint32_t r = 0; r < full->m; ++r) {
    const pint i = inverse->p[r];
    pint t = dst->ia[r];
    for (pint k = full->ia[i]; k < full->ia[i + 1]; ++k) {
      const pint c = p[full->ja[k]];
      if (c < static_cast<pint>(r)) continue;
      dst->ja[t] = c;
      if (carry) copy_value(dst->a, t, src->a, map[k], stride);
      ++t;
    }
  }
  sort_all_rows(dst, carry, nullptr);
  perm_free(inverse);
  std::free(map);
  smat_free(full);
  return dst;
}

}  // namespace

smat *smat_perm_sym(const smat *src, const perm *perm, int with_values) {
  VM_SPARSE_ASSERT(src->m == perm->n, "smat");
  VM_SPARSE_ASSERT(src->n == perm->n, "smat");
  const bool carry = with_values && src->a != nullptr;
  return src->sym ? perm_sym_upper(src, perm, carry) : perm_sym_general(src, perm, carry);
}

/* ======================================================================
 * exported functions
 */

extern "C" {

VELMORA_API smat *smat_new_from(uint32_t m, uint32_t n, pint *ia, pint *ja, double *a, int type,
                                int base_index) {
  VM_SPARSE_ASSERT(type == 0 || type == 1 || type == 2 || type == 3, "smat");
  return smat_new_from_arrays_complex(m, n, ia, ja, a, type & 1, base_index, type >= 2);
}

VELMORA_API smat *smat_new_from_coord(uint32_t n, uint32_t nnz, const pint *rows, const pint *cols,
                                      const double *re, const double *im, int base) {
  const int base_index = base;
  VM_SPARSE_ASSERT(base_index == 0 || base_index == 1, "smat");
  VM_SPARSE_ASSERT(nnz == 0 || (rows != NULL && cols != NULL), "smat");
  const pint order = static_cast<pint>(n);
  uint32_t above = 0;
  uint32_t below = 0;
  for (uint32_t k = 0; k < nnz; ++k) {
    const pint r = rows[k] - base_index;
    const pint c = cols[k] - base_index;
    VM_SPARSE_ASSERT_TEXT(r >= 0 && r < order && c >= 0 && c < order,
                          "triplet row and column within the matrix", "smat");
    above += c > r;
    below += c < r;
  }
  // Entries on one side only are kept as an upper triangle: a lower one is
  // read transposed.  Entries on both sides make a general matrix.
  const bool transpose = above == 0;
  const pint *row_of = transpose ? cols : rows;
  const pint *col_of = transpose ? rows : cols;
  const bool complex_values = re != nullptr && im != nullptr;
  const int stride = complex_values ? 2 : 1;

  smat *A = smat_new(n, n, 1);
  A->is_complex = complex_values ? 1 : 0;
  A->nnz = nnz;
  for (uint32_t k = 0; k < nnz; ++k) ++A->ia[row_of[k] - base_index + 1];
  for (uint32_t i = 0; i < n; ++i) A->ia[i + 1] += A->ia[i];
  VM_SPARSE_ASSERT_TEXT(A->ia[A->m] == static_cast<pint>(A->nnz), "A->ia[A->m] == A->nnz", "smat");
  A->ja = new_index_array(nnz);
  if (re != nullptr) A->a = new_value_array(nnz, stride);
  pint *next = new_index_array(n);
  if (n > 0) std::memcpy(next, A->ia, n * sizeof(pint));
  for (uint32_t k = 0; k < nnz; ++k) {
    const pint t = next[row_of[k] - base_index]++;
    A->ja[t] = col_of[k] - base_index;
    if (re != nullptr) {
      A->a[static_cast<std::size_t>(t) * stride] = re[k];
      if (complex_values) A->a[2 * static_cast<std::size_t>(t) + 1] = im[k];
    }
  }
  std::free(next);
  sort_all_rows(A, true, nullptr);
  sum_duplicates(A);
  A->sym = (above > 0 && below > 0) ? 0 : 1;
  return A;
}

VELMORA_API smat *smat_copy_trans(const smat *A) {
  VM_SPARSE_ASSERT(A != NULL, "smat");
  // A symmetric matrix stored by its upper triangle is its own transpose.
  if (A->sym) return smat_copy(A);
  const int stride = value_stride(A);
  smat *T = smat_new(A->n, A->m, 0);
  T->is_complex = A->is_complex;
  T->nnz = A->nnz;
  for (uint32_t k = 0; k < A->nnz; ++k) ++T->ia[A->ja[k] + 1];
  for (uint32_t j = 0; j < T->m; ++j) T->ia[j + 1] += T->ia[j];
  T->ja = new_index_array(T->nnz);
  if (A->a != nullptr) T->a = new_value_array(T->nnz, stride);
  pint *next = new_index_array(T->m);
  if (T->m > 0) std::memcpy(next, T->ia, T->m * sizeof(pint));
  // Rows of A in ascending order leave every row of T sorted.
  for (uint32_t i = 0; i < A->m; ++i) {
    for (pint k = A->ia[i]; k < A->ia[i + 1]; ++k) {
      const pint t = next[A->ja[k]]++;
      T->ja[t] = static_cast<pint>(i);
      if (A->a != nullptr) copy_value(T->a, t, A->a, k, stride);
    }
  }
  std::free(next);
  return T;
}

VELMORA_API smat *smat_add(const smat *A, const smat *B) {
  VM_SPARSE_ASSERT(A != NULL, "smat");
  VM_SPARSE_ASSERT(B != NULL, "smat");
  VM_SPARSE_ASSERT(A->m == B->m, "smat");
  VM_SPARSE_ASSERT(A->n == B->n, "smat");
  VM_SPARSE_ASSERT_TEXT(
      (B->is_complex == 0 && A->is_complex == 0) || (B->is_complex == 1 && A->is_complex == 1),
      "(B->is_complex == 0 && A->is_complex == 0) || "
      "(B->is_complex == 1 && A->is_complex == 1)",
      "smat");
  const bool carry = A->a != nullptr && B->a != nullptr;
  // A symmetric operand next to a general one enters with its full structure.
  smat *expanded = nullptr;
  const smat *left = A;
  const smat *right = B;
  if (A->sym != B->sym) {
    const smat *upper = A->sym ? A : B;
    expanded = carry ? smat_copy(upper) : smat_copy_pattern(upper);
    smat_expand_sym(expanded, nullptr);
    if (A->sym) {
      left = expanded;
    } else {
      right = expanded;
    }
  }
  const smat *const operands[2] = {left, right};
  const int stride = value_stride(A);
  const uint32_t m = A->m;
  smat *C = smat_new(m, A->n, A->sym && B->sym);
  C->is_complex = A->is_complex;

  // place[c]: where column c sits in the row being built; a value before
  // the row's start is left over from an earlier row.
  pint *place = new_index_array(A->n);
  for (uint32_t j = 0; j < A->n; ++j) place[j] = -1;
  for (uint32_t i = 0; i < m; ++i) {
    pint count = 0;
    for (const smat *X : operands) {
      for (pint k = X->ia[i]; k < X->ia[i + 1]; ++k) {
        const pint c = X->ja[k];
        if (place[c] != static_cast<pint>(i)) {
          place[c] = static_cast<pint>(i);
          ++count;
        }
      }
    }
    C->ia[i + 1] = C->ia[i] + count;
  }
  C->nnz = static_cast<uint32_t>(C->ia[m]);
  C->ja = new_index_array(C->nnz);
  if (carry) C->a = new_zeroed_value_array(C->nnz, stride);
  for (uint32_t j = 0; j < A->n; ++j) place[j] = -1;
  for (uint32_t i = 0; i < m; ++i) {
    const pint start = C->ia[i];
    pint fill = start;
    for (const smat *X : operands) {
      for (pint k = X->ia[i]; k < X->ia[i + 1]; ++k) {
        const pint c = X->ja[k];
        if (place[c] < start) {
          place[c] = fill;
          C->ja[fill++] = c;
        }
        if (carry) add_value(C->a, place[c], X->a, k, stride);
      }
    }
  }
  std::free(place);
  if (expanded != nullptr) smat_free(expanded);
  sort_all_rows(C, carry, nullptr);
  return C;
}

VELMORA_API void smat_free(smat *mat) {
  if (mat == nullptr) {
    std::fprintf(stderr, "Trying to free NULL matrix.\n");
    return;
  }
  std::free(mat->ia);
  std::free(mat->ja);
  std::free(mat->a);
  mat->ia = nullptr;
  mat->ja = nullptr;
  mat->a = nullptr;
  std::free(mat);
}

}  // extern "C"
