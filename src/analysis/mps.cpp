// mps.cpp - maximum-product matching: costs, cheap assignment, shortest
// augmenting paths, completion, scale factors.
//
// Internally the costs are shifted by D (below) and the duals satisfy
//
//   u_i - c_ij + v_j >= 0   for every entry,   = 0 on matched entries
//
// (the reduced cost of an entry).  A shortest augmenting path from a free
// row runs on these reduced costs; a matched entry costs nothing, so the
// path lengths are those of Dijkstra's algorithm on the columns.  At the
// end r_i = D - u_i and c_j = -v_j are the log-scales of the header.
#include "analysis/mps.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "analysis/perm.h"
#include "analysis/sparse_assert.h"
#include "common/allocation.h"

namespace vm {

// ---------------------------------------------------------------- heap

int mps_heap_create(MpsHeap *h, int capacity) {
  const std::size_t cap = static_cast<std::size_t>(std::max(capacity, 1));
  h->size = 0;
  h->capacity = capacity;
  h->node = static_cast<int *>(scratch_malloc(cap * sizeof(int)));
  h->key = static_cast<double *>(scratch_malloc(cap * sizeof(double)));
  h->pos = static_cast<int *>(scratch_malloc(cap * sizeof(int)));
  if (h->node == nullptr || h->key == nullptr || h->pos == nullptr) {
    mps_heap_free(h);
    return kMpsNoMemory;
  }
  std::fill(h->pos, h->pos + cap, -1);
  return kMpsOk;
}

void mps_heap_clear(MpsHeap *h) {
  for (int s = 0; s < h->size; ++s) h->pos[h->node[s]] = -1;
  h->size = 0;
}

namespace {

// Moves (node, key) from slot s towards the root until its parent is not
// larger, and stores it there.
void heap_sift_up(MpsHeap *h, int s, int node, double key) {
  while (s > 0) {
    const int parent = (s - 1) / 2;
    if (h->key[parent] <= key) break;
    h->node[s] = h->node[parent];
    h->key[s] = h->key[parent];
    h->pos[h->node[s]] = s;
    s = parent;
  }
  h->node[s] = node;
  h->key[s] = key;
  h->pos[node] = s;
}

// Moves (node, key) from slot s towards the leaves until no child is smaller.
void heap_sift_down(MpsHeap *h, int s, int node, double key) {
  const int size = h->size;
  for (;;) {
    int child = 2 * s + 1;
    if (child >= size) break;
    if (child + 1 < size && h->key[child + 1] < h->key[child]) ++child;
    if (h->key[child] >= key) break;
    h->node[s] = h->node[child];
    h->key[s] = h->key[child];
    h->pos[h->node[s]] = s;
    s = child;
  }
  h->node[s] = node;
  h->key[s] = key;
  h->pos[node] = s;
}

}  // namespace

void mps_heap_insert(MpsHeap *h, int node, double key) {
  heap_sift_up(h, h->size++, node, key);
}

void mps_heap_decrease(MpsHeap *h, int node, double key) {
  const int s = h->pos[node];
  if (key < h->key[s]) heap_sift_up(h, s, node, key);
}

int mps_heap_pop(MpsHeap *h, double *key) {
  const int top = h->node[0];
  *key = h->key[0];
  h->pos[top] = -1;
  if (--h->size > 0) heap_sift_down(h, 0, h->node[h->size], h->key[h->size]);
  return top;
}

void mps_heap_free(MpsHeap *h) {
  std::free(h->node);
  std::free(h->key);
  std::free(h->pos);
  h->node = nullptr;
  h->key = nullptr;
  h->pos = nullptr;
  h->size = 0;
}

// ---------------------------------------------------------------- matching

namespace {

// Column states of one search.
constexpr int kFresh = 0;    // not reached
constexpr int kReached = 1;  // tentative distance in dist
constexpr int kClosed = 2;   // final distance in dist

// Everything the search reads about a column, in one place: relaxing an
// entry then costs one cache line instead of four.
struct Column {
  double v;     // dual
  double dist;  // distance in the current search
  int row;      // matched row, or -1
  int pred;     // row from which the column was reached
  int state;    // kFresh, kReached, kClosed
  int unused;
};

// An entry of a dense row in the order of its key c_ij - v_j, largest
// first.  The key is taken when the row is first expanded; v_j only grows
// afterwards, so the stored key stays an upper bound of the current one.
struct RankedEntry {
  double key;
  int k;
};

// Dense rows (a row of an arrowhead, say) reached by many searches would
// cost their whole length in each.  Their entries are ranked once, and a
// search relaxes only those whose bound can still beat the best path found.
struct DenseRows {
  int *first = nullptr;    // m: offset of the row's ranked entries, or -1
  bool *ranked = nullptr;  // m: the ranking is built
  RankedEntry *entry = nullptr;
  int *candidate = nullptr;  // widest dense row

  // The rows with at least this many entries are ranked.
  static int threshold(int m, int nnz) {
    const int average = m > 0 ? nnz / m : 0;
    return std::max(64, 8 * average);
  }
};

struct Work {
  Column *col = nullptr;      // n
  int *col_of_row = nullptr;  // m
  int *touched = nullptr;     // n: columns reached in this search
  int *closed = nullptr;      // n: columns closed in this search
  int *stack = nullptr;       // m: rows waiting to be expanded
  MpsHeap heap{0, 0, nullptr, nullptr, nullptr};
  DenseRows dense;

  int allocate(int m, int n, const int *ia) {
    const std::size_t sm = static_cast<std::size_t>(std::max(m, 1));
    const std::size_t sn = static_cast<std::size_t>(std::max(n, 1));
    col = static_cast<Column *>(scratch_malloc(sn * sizeof(Column)));
    col_of_row = static_cast<int *>(scratch_malloc(sm * sizeof(int)));
    stack = static_cast<int *>(scratch_malloc(sm * sizeof(int)));
    touched = static_cast<int *>(scratch_malloc(sn * sizeof(int)));
    closed = static_cast<int *>(scratch_malloc(sn * sizeof(int)));
    if (!col || !col_of_row || !stack || !touched || !closed) return kMpsNoMemory;
    if (allocate_dense(m, ia) != kMpsOk) return kMpsNoMemory;
    return mps_heap_create(&heap, n);
  }

  int allocate_dense(int m, const int *ia) {
    const int limit = DenseRows::threshold(m, ia[m]);
    std::size_t total = 0;
    int widest = 0;
    for (int i = 0; i < m; ++i) {
      const int len = ia[i + 1] - ia[i];
      if (len < limit) continue;
      total += static_cast<std::size_t>(len);
      widest = std::max(widest, len);
    }
    if (total == 0) return kMpsOk;
    dense.first = static_cast<int *>(scratch_malloc(static_cast<std::size_t>(m) * sizeof(int)));
    dense.ranked = static_cast<bool *>(scratch_malloc(static_cast<std::size_t>(m) * sizeof(bool)));
    dense.entry = static_cast<RankedEntry *>(scratch_malloc(total * sizeof(RankedEntry)));
    dense.candidate =
        static_cast<int *>(scratch_malloc(static_cast<std::size_t>(widest) * sizeof(int)));
    if (!dense.first || !dense.ranked || !dense.entry || !dense.candidate) return kMpsNoMemory;
    int offset = 0;
    for (int i = 0; i < m; ++i) {
      const int len = ia[i + 1] - ia[i];
      dense.ranked[i] = false;
      dense.first[i] = len >= limit ? offset : -1;
      if (len >= limit) offset += len;
    }
    return kMpsOk;
  }

  ~Work() {
    std::free(col);
    std::free(col_of_row);
    std::free(stack);
    std::free(touched);
    std::free(closed);
    std::free(dense.first);
    std::free(dense.ranked);
    std::free(dense.entry);
    std::free(dense.candidate);
    mps_heap_free(&heap);
  }
};

// The entries of the dense row r that a search may still relax, in row
// order: those with c_rj - v_j >= need.  Returns their count in
// w->dense.candidate.
int dense_candidates(int r, const int *ia, const int *ja, const double *c, double need, Work *w) {
  DenseRows &d = w->dense;
  RankedEntry *e = d.entry + d.first[r];
  const int len = ia[r + 1] - ia[r];
  if (!d.ranked[r]) {
    for (int t = 0; t < len; ++t) {
      const int k = ia[r] + t;
      e[t] = RankedEntry{c[k] - w->col[ja[k]].v, k};
    }
    std::sort(e, e + len, [](const RankedEntry &x, const RankedEntry &y) {
      return x.key > y.key || (x.key == y.key && x.k < y.k);
    });
    d.ranked[r] = true;
  }
  int count = 0;
  for (int t = 0; t < len && e[t].key >= need; ++t) d.candidate[count++] = e[t].k;
  std::sort(d.candidate, d.candidate + count);
  return count;
}

// One shortest augmenting path from the free row r0.  Costs are c[k] +
// shift.  On success the path is augmented, the duals are updated and 1
// returned; without a path nothing changes and 0 is returned.
int augment_from(int r0, const int *ia, const int *ja, const double *c, double shift, double *u,
                 Work *w) {
  Column *col = w->col;
  MpsHeap *heap = &w->heap;
  int ntouched = 0, nclosed = 0, top = 0;
  double best = DBL_MAX, len = 0.0;
  int found = -1;
  w->stack[top++] = r0;

  while (found < 0) {
    // Expand the rows whose column was just closed.
    while (top > 0 && found < 0) {
      const int r = w->stack[--top];
      const double base = len + u[r] - shift;
      // A dense row hands over only the entries with d = base - c + v at
      // or below best (a little more, against rounding); the others would
      // be skipped below anyway.
      const bool dense = w->dense.first != nullptr && w->dense.first[r] >= 0 && best < DBL_MAX;
      const int count =
          dense ? dense_candidates(r, ia, ja, c, base - best - 1e-12 * (1.0 + std::fabs(base)), w)
                : ia[r + 1] - ia[r];
      for (int t = 0; t < count; ++t) {
        const int k = dense ? w->dense.candidate[t] : ia[r] + t;
        const int j = ja[k];
        Column &cj = col[j];
        if (cj.state == kClosed) continue;
        const double d = base - c[k] + cj.v;
        if (d > best) continue;
        if (cj.state == kFresh) {
          cj.state = kReached;
          cj.dist = DBL_MAX;
          w->touched[ntouched++] = j;
        }
        if (d >= cj.dist) continue;
        const bool free_col = cj.row < 0;
        if (free_col) best = d;
        const bool in_heap = cj.dist < DBL_MAX;
        cj.dist = d;
        cj.pred = r;
        if (d > kMpsEps) {
          if (in_heap) {
            mps_heap_decrease(heap, j, d);
          } else {
            mps_heap_insert(heap, j, d);
          }
        } else if (free_col) {  // a step of zero length to a free column
          found = j;
          break;
        } else {  // a step of zero length: j is final at once
          cj.state = kClosed;
          w->closed[nclosed++] = j;
          w->stack[top++] = cj.row;
        }
      }
    }
    if (found >= 0) break;
    // The nearest column not yet closed.
    int j = -1;
    double dj = DBL_MAX;
    while (heap->size > 0) {
      j = mps_heap_pop(heap, &dj);
      if (col[j].state != kClosed) break;
      j = -1;
    }
    if (j < 0 || dj == DBL_MAX) break;
    len = dj;
    if (col[j].row < 0) {
      found = j;
      break;
    }
    col[j].state = kClosed;
    w->closed[nclosed++] = j;
    w->stack[top++] = col[j].row;
  }

  if (found >= 0) {
    // Duals: a row reached at distance d_i loses L - d_i, a closed column
    // at distance d_j gains L - d_j.  Reduced costs become
    // old + d_i - d_j >= 0 and zero along the path.
    const double L = col[found].dist;
    if (L > 0.0) {
      u[r0] -= L;
      for (int t = 0; t < nclosed; ++t) {
        Column &cj = col[w->closed[t]];
        const double delta = L - cj.dist;
        u[cj.row] -= delta;
        cj.v += delta;
      }
    }
    int j = found;
    for (;;) {
      const int r = col[j].pred;
      const int next = w->col_of_row[r];
      col[j].row = r;
      w->col_of_row[r] = j;
      if (r == r0) break;
      j = next;
    }
  }
  mps_heap_clear(heap);
  for (int t = 0; t < ntouched; ++t) col[w->touched[t]].state = kFresh;
  return found >= 0 ? 1 : 0;
}

// The matching on costs c (entry k of row i: c[k], column ja[k]).  v holds
// the warm start when warm is 1.
int mps_core(int m, int n, const int *ia, const int *ja, const double *c, int *p, double *u,
             double *v, int warm, int *rank) {
  Work w;
  if (w.allocate(m, n, ia) != kMpsOk) return kMpsNoMemory;
  Column *col = w.col;
  // Internally v_j is the negated column log-scale.
  for (int j = 0; j < n; ++j) col[j] = Column{warm ? -v[j] : 0.0, DBL_MAX, -1, -1, kFresh, 0};
  std::fill(w.col_of_row, w.col_of_row + m, -1);

  // The shift: the sum of the row maxima, none counted below 0, rounded up.
  double shift = 0.0;
  for (int i = 0; i < m; ++i) {
    double best = 0.0;
    for (int k = ia[i]; k < ia[i + 1]; ++k) best = std::max(best, c[k] - col[ja[k]].v);
    shift += best;
  }
  shift = std::ceil(shift);

  // Cheap assignment: u_i is the row maximum (the first one wins); from
  // there, the first free column whose cost is within eps of it is taken.
  int matched = 0;
  for (int i = 0; i < m; ++i) {
    if (ia[i] == ia[i + 1]) {
      u[i] = shift;  // an empty row: log-scale 0
      continue;
    }
    int kbest = ia[i];
    double ubest = c[kbest] + shift - col[ja[kbest]].v;
    for (int k = ia[i] + 1; k < ia[i + 1]; ++k) {
      const double val = c[k] + shift - col[ja[k]].v;
      if (val > ubest) {
        ubest = val;
        kbest = k;
      }
    }
    u[i] = ubest;
    for (int k = kbest; k < ia[i + 1]; ++k) {
      Column &cj = col[ja[k]];
      if (cj.row < 0 && ubest - (c[k] + shift - cj.v) <= kMpsEps) {
        cj.row = i;
        w.col_of_row[i] = ja[k];
        ++matched;
        break;
      }
    }
  }

  // One shortest augmenting path for each row left over.
  for (int i = 0; i < m && matched < n; ++i) {
    if (w.col_of_row[i] >= 0 || ia[i] == ia[i + 1]) continue;
    matched += augment_from(i, ia, ja, c, shift, u, &w);
  }
  if (rank != nullptr) *rank = matched;
  for (int j = 0; j < n; ++j) {
    p[j] = col[j].row;
    v[j] = col[j].v;
  }

  // A square matrix gets a permutation: the chain i -> col_of_row(i) ->
  // ... that starts at the index of a free column ends at a free row, and
  // the chains of different free columns are disjoint.
  if (m == n && matched < n) {
    int *end = w.stack;
    for (int j = 0; j < n; ++j) {
      if (p[j] >= 0) continue;
      int i = j;
      while (w.col_of_row[i] >= 0) i = w.col_of_row[i];
      end[j] = i;
    }
    for (int j = 0; j < n; ++j) {
      if (p[j] >= 0) continue;
      p[j] = end[j];
      w.col_of_row[end[j]] = j;
    }
  }

  // Undo the shift, and refuse a scale wider than half the exponent range.
  double widest = 0.0;
  for (int i = 0; i < m; ++i) {
    u[i] = -(u[i] - shift);
    widest = std::max(widest, std::fabs(u[i]));
  }
  for (int j = 0; j < n; ++j) {
    v[j] = -v[j];
    widest = std::max(widest, std::fabs(v[j]));
  }
  if (widest >= 0.5 * std::log(DBL_MAX)) {
    std::fill(u, u + m, 0.0);
    std::fill(v, v + n, 0.0);
  }
  return kMpsOk;
}

// Magnitude of entry k.
inline double magnitude(const double *a, std::int64_t k, int is_complex) {
  return is_complex ? std::hypot(a[2 * k], a[2 * k + 1]) : std::fabs(a[k]);
}

}  // namespace

int MPS_VELMORA(int m, int n, const int *ia, const int *ja, const double *a, int is_complex, int *p,
                double *u, double *v, int restart, int *rank) {
  // The cost matrix: log|a_ij| of the entries that are not zero (nor
  // infinite or NaN, which no scale could balance).
  const std::size_t nnz = static_cast<std::size_t>(ia[m]);
  int *cia = static_cast<int *>(scratch_malloc((static_cast<std::size_t>(m) + 1) * sizeof(int)));
  int *cja = static_cast<int *>(scratch_malloc(std::max<std::size_t>(nnz, 1) * sizeof(int)));
  double *cost =
      static_cast<double *>(scratch_malloc(std::max<std::size_t>(nnz, 1) * sizeof(double)));
  int status = kMpsNoMemory;
  if (cia != nullptr && cja != nullptr && cost != nullptr) {
    int cnt = 0;
    cia[0] = 0;
    for (int i = 0; i < m; ++i) {
      for (int k = ia[i]; k < ia[i + 1]; ++k) {
        const double mag = magnitude(a, k, is_complex);
        if (!(mag > 0.0 && mag <= DBL_MAX)) continue;
        cja[cnt] = ja[k];
        cost[cnt++] = std::log(mag);
      }
      cia[i + 1] = cnt;
    }
    status = mps_core(m, n, cia, cja, cost, p, u, v, restart, rank);
  }
  std::free(cia);
  std::free(cja);
  std::free(cost);
  return status;
}

int MPS_COSTS_VELMORA(int m, int n, const int *ia, const int *ja, const double *cost, int *p,
                      double *u, double *v, int restart, int *rank) {
  return mps_core(m, n, ia, ja, cost, p, u, v, restart, rank);
}

namespace {

int match_record(const smat *A, perm *p, double *u, double *v, int warm, bool costs) {
  VM_SPARSE_ASSERT(A != NULL, "smat");
  VM_SPARSE_ASSERT(p != NULL && p->n == A->n, "perm");
  smat *full = nullptr;
  if (A->sym) {
    full = smat_copy(A);
    smat_expand_sym(full, nullptr);
    A = full;
  }
  const int m = static_cast<int>(A->m), n = static_cast<int>(A->n);
  int rank = 0, status;
  if (costs) {
    VM_SPARSE_ASSERT(A->a != NULL && !A->is_complex, "smat");
    status = MPS_COSTS_VELMORA(m, n, A->ia, A->ja, A->a, p->p, u, v, warm, &rank);
  } else {
    VM_SPARSE_ASSERT(A->a != NULL, "smat");
    status = MPS_VELMORA(m, n, A->ia, A->ja, A->a, A->is_complex, p->p, u, v, warm, &rank);
  }
  if (full != nullptr) smat_free(full);
  VM_SPARSE_ASSERT_TEXT(status == kMpsOk, "memory for the matching", "smat");
  return rank;
}

}  // namespace

int mps_match(const smat *A, perm *p, double *u, double *v, int warm) {
  return match_record(A, p, u, v, warm, false);
}

int mps_match_costs(const smat *C, perm *p, double *u, double *v, int warm) {
  return match_record(C, p, u, v, warm, true);
}

}  // namespace vm
