// mpssym.cpp - symmetric weighted matching: candidates, compression,
// ordering of the compressed graph, expansion, filled structure.
#include "analysis/mpssym.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "analysis/ordering.h"
#include "analysis/sparse_assert.h"
#include "quor/corelib/quor_log.h"

namespace vm {

namespace {

pint *new_ints(std::size_t count) {
  return static_cast<pint *>(quor_malloc(std::max<std::size_t>(count, 1) * sizeof(pint)));
}

// Magnitude of the stored diagonal of row i, or -1 when it is not stored.
double diagonal_magnitude(const smat *A, pint i) {
  for (pint k = A->ia[i]; k < A->ia[i + 1]; ++k) {
    if (A->ja[k] != i) continue;
    if (A->a == nullptr) return 0.0;
    return A->is_complex ? std::hypot(A->a[2 * k], A->a[2 * k + 1]) : std::fabs(A->a[k]);
  }
  return -1.0;
}

bool usable_diagonal(const smat *A, pint i) {
  return diagonal_magnitude(A, i) > kUsableDiagonal;
}

}  // namespace

// ---------------------------------------------------------------- candidates

void mpssym_candidates(const smat *A, const perm *match, perm *sym_perm, bitvec *pivots) {
  const pint n = static_cast<pint>(match->n);
  VM_SPARSE_ASSERT(sym_perm->n == match->n, "perm");
  VM_SPARSE_ASSERT(pivots->size == match->n, "bitvec");
  bitvec_clear_all(pivots);
  perm_cycle_list *cycles = perm_cycles(match);
  pint *place = sym_perm->p;  // place[k]: member at candidate position k
  pint k = 0, tail = n - 1;
  for (pint c = 0; c < cycles->n; ++c) {  // singletons first
    if (cycles->ptr[c + 1] - cycles->ptr[c] != 1) continue;
    place[k] = cycles->members[cycles->ptr[c]];
    bitvec_set(pivots, static_cast<uint32_t>(k++));
  }
  for (pint c = 0; c < cycles->n; ++c) {
    const pint *mem = cycles->members + cycles->ptr[c];
    const pint len = cycles->ptr[c + 1] - cycles->ptr[c];
    if (len == 1) continue;
    pint first = 0;
    if (len % 2 == 1) {  // an odd cycle leaves its first member alone, last
      place[tail] = mem[0];
      bitvec_set(pivots, static_cast<uint32_t>(tail--));
      first = 1;
    }
    for (pint t = first; t + 1 < len; t += 2) {
      place[k] = mem[t];
      place[k + 1] = mem[t + 1];
      if (usable_diagonal(A, mem[t]) && usable_diagonal(A, mem[t + 1])) {
        bitvec_set(pivots, static_cast<uint32_t>(k));
        bitvec_set(pivots, static_cast<uint32_t>(k + 1));
      }
      k += 2;
    }
  }
  VM_SPARSE_ASSERT_TEXT(k == tail + 1, "candidate positions fill 0..n-1", "perm");
  perm_cycles_free(cycles);
  perm_invert_in_place(sym_perm);
}

// ---------------------------------------------------------------- compression

smat *mpssym_compress(const smat *B, const bitvec *pivots, perm **map) {
  // Rows may be empty and lack their diagonal (the zero block of a saddle
  // point matrix is often not stored): only sorted columns in the upper
  // triangle are needed here.
  VM_SPARSE_ASSERT(smat_check_cols(B) && smat_check_triangle(B), "smat");
  VM_SPARSE_ASSERT(B->sym, "smat");
  const pint n = static_cast<pint>(B->m);
  const pint *ia = B->ia, *ja = B->ja;
  constexpr pint kExhausted = 2147483647;

  pint *node_of = new_ints(static_cast<std::size_t>(n));
  pint *first = new_ints(static_cast<std::size_t>(n));
  pint *cia = new_ints(static_cast<std::size_t>(n) + 1);
  pint *cja = new_ints(B->nnz);
  pint nodes = 0, cnt = 0;
  cia[0] = 0;
  for (pint i = 0; i < n;) {
    first[nodes] = i;
    node_of[i] = nodes;
    if (bitvec_test(pivots, static_cast<uint32_t>(i)) || i + 1 == n) {
      for (pint k = ia[i]; k < ia[i + 1]; ++k)
        if (ja[k] >= i) cja[cnt++] = ja[k];
      i += 1;
    } else {  // the pair (i, i+1): both rows from column i+1 on, merged
      node_of[i + 1] = nodes;
      pint a = ia[i], b = ia[i + 1];
      const pint a_end = ia[i + 1], b_end = ia[i + 2];
      while (a < a_end && ja[a] < i + 1) ++a;
      while (b < b_end && ja[b] < i + 1) ++b;
      for (;;) {
        const pint ca = a < a_end ? ja[a] : kExhausted;
        const pint cb = b < b_end ? ja[b] : kExhausted;
        if (ca == kExhausted && cb == kExhausted) break;
        const pint col = std::min(ca, cb);
        cja[cnt++] = col;
        if (ca == col) ++a;
        if (cb == col) ++b;
      }
      i += 2;
    }
    cia[++nodes] = cnt;
  }
  // Columns to nodes; a pair's two columns become one.
  pint out = 0;
  for (pint g = 0; g < nodes; ++g) {
    const pint start = out;
    pint prev_col = -1;
    for (pint k = cia[g]; k < cia[g + 1]; ++k) {
      const pint col = node_of[cja[k]];
      VM_SPARSE_ASSERT(col >= prev_col, "smat");
      if (col != prev_col) cja[out++] = col;
      prev_col = col;
    }
    cia[g] = start;
  }
  cia[nodes] = out;

  smat *C = smat_new(static_cast<uint32_t>(nodes), static_cast<uint32_t>(nodes), 1);
  std::free(C->ia);
  C->ia = cia;
  C->ja = cja;
  C->nnz = static_cast<uint32_t>(out);
  *map = perm_new(static_cast<uint32_t>(nodes));
  std::memcpy((*map)->p, first, static_cast<std::size_t>(nodes) * sizeof(pint));
  std::free(first);
  std::free(node_of);
  return C;
}

// ---------------------------------------------------------------- ordering

int mpssym_order(const smat *C, int ordering, perm *order, perm *ddist, int *target) {
  VM_SPARSE_ASSERT(order != NULL, "perm");
  VM_SPARSE_ASSERT(C != NULL, "smat");
  VM_SPARSE_ASSERT(order->n == C->m, "perm");
  VM_SPARSE_ASSERT(ddist != NULL, "perm");
  VM_SPARSE_ASSERT((ddist->n & 1) == 0, "perm");
  const int n = static_cast<int>(C->m);
  ddist->p[0] = 0;
  ddist->p[1] = n - 1;
  ddist->p[2] = n;
  ddist->p[3] = n;
  ddist->n = 2;
  const int wanted = std::max(1, *target);
  *target = 1;
  const bool dissection = ordering == 2 || ordering == 3;
  if (n == 0 || (dissection && n < 9)) {
    perm_identity(order);
    return kOrderOk;
  }

  // The graph without its diagonal, one-based.
  smat *full = smat_copy_pattern(C);
  smat_expand_sym(full, nullptr);
  int *xadj = new_ints(static_cast<std::size_t>(n) + 1);
  int *adj = new_ints(full->nnz);
  int cnt = 0;
  xadj[0] = 1;
  for (int i = 0; i < n; ++i) {
    for (pint k = full->ia[i]; k < full->ia[i + 1]; ++k)
      if (full->ja[k] != i) adj[cnt++] = full->ja[k] + 1;
    xadj[i + 1] = cnt + 1;
  }
  smat_free(full);

  int *pv = new_ints(static_cast<std::size_t>(n));
  int *invp = new_ints(static_cast<std::size_t>(n));
  int status = kOrderOk;
  if (dissection) {
    int domains_wanted = 1;
    while (domains_wanted * 2 <= std::min(wanted, n)) domains_wanted *= 2;
    int options[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    if (ordering == 2) metis_options_for_route2(n, xadj, options);
    int *domains = new_ints(2 * static_cast<std::size_t>(domains_wanted));
    int ndom = 1;
    status = ORDER_METIS5_VELMORA(n, xadj, adj, options, domains_wanted, pv, invp, domains, &ndom);
    if (status == kOrderOk && ndom >= 1) {
      for (int d = 0; d < 2 * ndom; ++d) ddist->p[d] = domains[d] - 1;
      ddist->n = static_cast<uint32_t>(2 * ndom);
      *target = ndom;
    }
    std::free(domains);
  } else {
    std::int64_t lwork = 0;
    if (ordering == 0 || ordering == 1)
      lwork = ordering == 0 ? order_mmd_work_size(n, cnt) : order_cmd_work_size(n, cnt);
    else
      lwork = order_amd_work_size(n, cnt);
    int *work = new_ints(static_cast<std::size_t>(lwork));
    if (ordering == 0) {
      status = ORDER_MMD_VELMORA(n, xadj, adj, pv, invp, work, lwork);
    } else if (ordering == 1) {
      status = ORDER_CMD_VELMORA(n, xadj, adj, 1, pv, invp, work, lwork);
    } else {
      status = ORDER_AMD_VELMORA(n, xadj, adj, pv, invp, work, lwork);
    }
    std::free(work);
  }
  if (status == kOrderOk) {
    for (int i = 0; i < n; ++i) order->p[i] = invp[i] - 1;
  } else {
    perm_identity(order);
  }
  std::free(pv);
  std::free(invp);
  std::free(xadj);
  std::free(adj);
  VM_SPARSE_ASSERT(perm_is_consistent(order), "perm");
  return status;
}

// ---------------------------------------------------------------- filled structure

namespace {

// A sorted list of extra columns of one row, grown by doubling from 5.
// All zero is the empty list.
struct Extra {
  pint len, room;
  pint *col;
  bool has(pint c) const { return std::binary_search(col, col + len, c); }
  void add(pint c) {
    if (len == room) {
      room = room == 0 ? 5 : 2 * room;
      col = static_cast<pint *>(quor_realloc(col, static_cast<std::size_t>(room) * sizeof(pint)));
    }
    pint *at = std::lower_bound(col, col + len, c);
    std::memmove(at + 1, at, static_cast<std::size_t>(col + len - at) * sizeof(pint));
    *at = c;
    ++len;
  }
};

// The full pattern of row i: the upper row of A, the row of AT (the lower
// part) and the extras, merged in ascending order without repeats.
void full_row(const smat *A, const smat *AT, const Extra &x, pint i, pint *out, pint *len) {
  const pint *lists[3] = {A->ja + A->ia[i], AT->ja + AT->ia[i], x.col};
  const pint ends[3] = {A->ia[i + 1] - A->ia[i], AT->ia[i + 1] - AT->ia[i], x.len};
  pint at[3] = {0, 0, 0};
  pint n = 0;
  for (;;) {
    pint best = 2147483647;
    for (int l = 0; l < 3; ++l)
      if (at[l] < ends[l]) best = std::min(best, lists[l][at[l]]);
    if (best == 2147483647) break;
    for (int l = 0; l < 3; ++l)
      if (at[l] < ends[l] && lists[l][at[l]] == best) ++at[l];
    out[n++] = best;
  }
  *len = n;
}

}  // namespace

smat *mpssym_filled(const smat *A, const int *cand, const bitvec *pivots, perm **map_o2f) {
  VM_SPARSE_ASSERT(A->sym, "smat");
  const pint n = static_cast<pint>(A->m);
  smat *AT = smat_new(A->m, A->n, 0);  // the lower triangle by rows
  for (uint32_t k = 0; k < A->nnz; ++k) ++AT->ia[A->ja[k] + 1];
  for (pint i = 0; i < n; ++i) AT->ia[i + 1] += AT->ia[i];
  AT->nnz = A->nnz;
  VM_SPARSE_ASSERT_TEXT(static_cast<pint>(AT->nnz) == AT->ia[AT->m],
                        "(pint) AT->nnz == AT->ia[AT->m]", "smat");
  AT->ja = new_ints(AT->nnz);
  pint *next = new_ints(static_cast<std::size_t>(n));
  std::memcpy(next, AT->ia, static_cast<std::size_t>(n) * sizeof(pint));
  for (pint i = 0; i < n; ++i)  // rows in order: columns of AT ascend
    for (pint k = A->ia[i]; k < A->ia[i + 1]; ++k) AT->ja[next[A->ja[k]]++] = i;
  std::free(next);

  Extra *extra =
      static_cast<Extra *>(quor_calloc(static_cast<std::size_t>(std::max(n, 1)), sizeof(Extra)));
  pint *row_r = new_ints(static_cast<std::size_t>(n)),
       *row_s = new_ints(static_cast<std::size_t>(n));
  pint *add_r = new_ints(static_cast<std::size_t>(n)),
       *add_s = new_ints(static_cast<std::size_t>(n));
  for (pint k = 0; k + 1 < n; ++k) {
    if (bitvec_test(pivots, static_cast<uint32_t>(k))) continue;
    const pint r = cand[k], s = cand[k + 1];
    pint lr = 0, ls = 0, nr = 0, ns = 0;
    full_row(A, AT, extra[r], r, row_r, &lr);
    full_row(A, AT, extra[s], s, row_s, &ls);
    for (pint a = 0, b = 0; a < lr || b < ls;) {  // what one has and the other lacks
      if (b == ls || (a < lr && row_r[a] < row_s[b])) {
        add_s[ns++] = row_r[a++];
      } else if (a == lr || row_s[b] < row_r[a]) {
        add_r[nr++] = row_s[b++];
      } else {
        ++a, ++b;
      }
    }
    for (pint t = 0; t < ns; ++t) {
      extra[s].add(add_s[t]);
      if (!extra[add_s[t]].has(s)) extra[add_s[t]].add(s);
    }
    for (pint t = 0; t < nr; ++t) {
      extra[r].add(add_r[t]);
      if (!extra[add_r[t]].has(r)) extra[add_r[t]].add(r);
    }
    ++k;
  }
  std::free(row_r);
  std::free(row_s);
  std::free(add_r);
  std::free(add_s);

  // Af: old entries and new zero entries of the upper triangle, merged.
  pint zero_cnt = 0;
  for (pint i = 0; i < n; ++i)
    for (pint t = 0; t < extra[i].len; ++t) zero_cnt += extra[i].col[t] >= i;
  smat *Af = smat_new(A->m, A->n, 1);
  Af->ja = new_ints(static_cast<std::size_t>(A->nnz) + static_cast<std::size_t>(zero_cnt));
  *map_o2f = perm_new(A->nnz);
  pint Af_nnz = 0, o2f_cnt = 0;
  for (pint i = 0; i < n; ++i) {
    pint k = A->ia[i], t = 0;
    const Extra &x = extra[i];
    while (t < x.len && x.col[t] < i) ++t;
    pint diag_ind = -1;
    while (k < A->ia[i + 1] || t < x.len) {
      if (t == x.len || (k < A->ia[i + 1] && A->ja[k] < x.col[t])) {
        if (A->ja[k] == i) diag_ind = k;
        (*map_o2f)->p[o2f_cnt++] = Af_nnz;
        Af->ja[Af_nnz++] = A->ja[k++];
      } else {
        Af->ja[Af_nnz++] = x.col[t++];
      }
    }
    VM_SPARSE_ASSERT(diag_ind >= 0, "smat");
    VM_SPARSE_ASSERT(A->ja[diag_ind] == i, "smat");
    Af->ia[i + 1] = Af_nnz;
  }
  VM_SPARSE_ASSERT(o2f_cnt == static_cast<pint>(A->nnz), "smat");
  VM_SPARSE_ASSERT((*map_o2f)->n == A->nnz, "smat");
  VM_SPARSE_ASSERT(Af_nnz <= static_cast<pint>(A->nnz) + zero_cnt, "smat");
  Af->nnz = static_cast<uint32_t>(Af_nnz);
  Af->is_complex = A->is_complex;
  Af->a = static_cast<double *>(quor_calloc(
      std::max<std::size_t>(static_cast<std::size_t>(Af_nnz) * (A->is_complex ? 2 : 1), 1),
      sizeof(double)));
  VM_SPARSE_ASSERT(smat_check(Af), "smat");
  for (pint i = 0; i < n; ++i) std::free(extra[i].col);
  std::free(extra);
  smat_free(AT);
  return Af;
}

// ---------------------------------------------------------------- entry

int MPSSYM_VELMORA(MpssymArgs *args) {
  const pint n = args->n;
  const smat *A = args->A;
  VM_SPARSE_ASSERT(A != NULL, "smat");
  VM_SPARSE_ASSERT(A->m == static_cast<uint32_t>(n), "smat");

  // Candidates, in candidate positions.
  perm *match = perm_new(static_cast<uint32_t>(n));
  std::memcpy(match->p, args->perm, static_cast<std::size_t>(n) * sizeof(pint));
  perm *sym_perm = perm_new(static_cast<uint32_t>(n));
  args->pivots = bitvec_new(static_cast<uint32_t>(n));
  mpssym_candidates(A, match, sym_perm, args->pivots);
  perm_free(match);

  if (args->fill) {
    perm *cand = perm_invert(nullptr, sym_perm);
    smat *Af = mpssym_filled(A, cand->p, args->pivots, &args->map_o2f);
    smat_to_one_base(Af);
    args->Af = Af;
    perm_free(cand);
  }

  // Compression and ordering of the compressed graph.
  smat *B = smat_perm_sym(A, sym_perm, 0);
  perm *map = nullptr;
  smat *C = mpssym_compress(B, args->pivots, &map);
  smat_free(B);
  const pint nc = static_cast<pint>(C->m);
  perm *order = perm_new(static_cast<uint32_t>(nc));
  const int wanted = std::max(1, args->target);
  args->ddist = perm_new(static_cast<uint32_t>(std::max(4, 2 * wanted)));
  args->ddist->n = 4;
  args->status = mpssym_order(C, args->ordering, order, args->ddist, &args->target);
  smat_free(C);

  // Expansion: compressed positions in order, a pair giving two places.
  perm *seq = perm_invert(nullptr, order);  // seq[t]: node at position t
  perm *expanded = perm_new(static_cast<uint32_t>(n));
  pint *cmark = nullptr;
  if (args->nnodes > 1) {  // nodes outside every domain are marked
    cmark = new_ints(static_cast<std::size_t>(nc));
    std::fill(cmark, cmark + nc, -1);
    for (uint32_t d = 0; d + 1 < args->ddist->n; d += 2)
      for (pint t = args->ddist->p[d]; t <= args->ddist->p[d + 1]; ++t) cmark[seq->p[t]] = 0;
  }
  if (args->marks != nullptr) std::fill(args->marks, args->marks + n, 0);
  pint pos = 0;
  uint32_t jd = 0;
  perm *dd = args->ddist;
  for (pint t = 0; t < nc; ++t) {
    const pint g = seq->p[t];
    const pint b = map->p[g];
    const bool pair = !bitvec_test(args->pivots, static_cast<uint32_t>(b));
    const bool marked = cmark != nullptr && cmark[g] != 0;
    while (jd < dd->n && dd->p[jd] == t) {
      dd->p[jd] = pos + ((pair && (jd & 1)) ? 1 : 0);
      ++jd;
    }
    expanded->p[pos] = b;
    if (marked && args->marks != nullptr) args->marks[pos] = -1;
    ++pos;
    if (pair) {
      expanded->p[pos] = b + 1;
      if (marked && args->marks != nullptr) args->marks[pos] = -1;
      ++pos;
    }
  }
  // Entries behind the last node (the closing pair of a reset list).
  for (; jd < std::max<uint32_t>(dd->n, 4); ++jd)
    if (dd->p[jd] >= nc) dd->p[jd] = n + (dd->p[jd] - nc);
  args->ndom = static_cast<int>(dd->n / 2);
  std::free(cmark);

  // expanded[pos] = candidate position; invert, compose with sym_perm.
  perm_invert_in_place(expanded);  // candidate position -> final position
  perm *composed = perm_copy(nullptr, sym_perm);
  perm_compose(composed, expanded);  // original -> final position
  bitvec_permute(args->pivots, expanded);
  for (pint i = 0; i < n; ++i) args->perm[composed->p[i]] = i;
  VM_SPARSE_ASSERT(perm_is_consistent(composed), "perm");

  perm_free(composed);
  perm_free(expanded);
  perm_free(seq);
  perm_free(order);
  perm_free(map);
  perm_free(sym_perm);
  return 1;
}

}  // namespace vm
