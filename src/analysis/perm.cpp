/*
 * perm.cpp - permutations of 0..n-1.
 */
#include "analysis/perm.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "analysis/bitvec.h"
#include "analysis/sparse_assert.h"
#include "quor/corelib/quor_log.h"

perm *perm_new(uint32_t n) {
  perm *out = static_cast<perm *>(quor_malloc(sizeof(perm)));
  out->n = n;
  out->p = static_cast<pint *>(quor_malloc(static_cast<std::size_t>(n) * sizeof(pint)));
  return out;
}

perm *perm_new_from(uint32_t n, pint *p) {
  perm *out = static_cast<perm *>(quor_malloc(sizeof(perm)));
  out->n = n;
  out->p = p;
  return out;
}

void perm_free(perm *perm) {
  if (perm == nullptr) return;
  std::free(perm->p);
  std::free(perm);
}

void perm_fill(perm *perm, pint value) {
  VM_SPARSE_ASSERT(perm != NULL, "perm");
  for (uint32_t i = 0; i < perm->n; ++i) perm->p[i] = value;
}

void perm_clear(perm *perm) {
  perm_fill(perm, 0);
}

void perm_identity(perm *perm) {
  VM_SPARSE_ASSERT(perm, "perm");
  for (uint32_t i = 0; i < perm->n; ++i) perm->p[i] = static_cast<pint>(i);
}

perm *perm_copy(perm *dst, const perm *src) {
  VM_SPARSE_ASSERT(src != NULL, "perm");
  if (dst == nullptr) dst = perm_new(src->n);
  VM_SPARSE_ASSERT(dst->n == src->n, "perm");
  if (src->n > 0) std::memcpy(dst->p, src->p, src->n * sizeof(pint));
  return dst;
}

perm *perm_invert(perm *dst, const perm *src) {
  VM_SPARSE_ASSERT(src != NULL, "perm");
  if (dst == nullptr) dst = perm_new(src->n);
  VM_SPARSE_ASSERT(dst->n == src->n, "perm");
  VM_SPARSE_ASSERT(dst != src, "perm");
  for (uint32_t i = 0; i < src->n; ++i) dst->p[src->p[i]] = static_cast<pint>(i);
  return dst;
}

void perm_invert_in_place(perm *perm) {
  VM_SPARSE_ASSERT(perm != NULL, "perm");
  struct perm *old = perm_copy(nullptr, perm);
  perm_invert(perm, old);
  perm_free(old);
}

void perm_reverse(perm *perm) {
  VM_SPARSE_ASSERT(perm != NULL, "perm");
  const uint32_t n = perm->n;
  for (uint32_t i = 0; i < n / 2; ++i) {
    const pint t = perm->p[i];
    perm->p[i] = perm->p[n - 1 - i];
    perm->p[n - 1 - i] = t;
  }
}

void perm_compose(perm *p1, const perm *p2) {
  VM_SPARSE_ASSERT(p1->n == p2->n, "perm");
  for (uint32_t i = 0; i < p1->n; ++i) p1->p[i] = p2->p[p1->p[i]];
}

int perm_equal(const perm *perm1, const perm *perm2) {
  VM_SPARSE_ASSERT(perm1->n == perm2->n, "perm");
  for (uint32_t i = 0; i < perm1->n; ++i) {
    if (perm1->p[i] != perm2->p[i]) return 0;
  }
  return 1;
}

int perm_is_consistent(const perm *perm) {
  VM_SPARSE_ASSERT(perm != NULL, "perm");
  const pint n = static_cast<pint>(perm->n);
  bitvec *seen = bitvec_new(perm->n);
  pint out_of_range = 0, first_out = -1;
  pint repeated = 0, first_repeat = -1;
  for (pint i = 0; i < n; ++i) {
    const pint v = perm->p[i];
    if (v < 0 || v >= n) {
      if (out_of_range++ == 0) first_out = i;
    } else if (bitvec_test(seen, static_cast<uint32_t>(v))) {
      if (repeated++ == 0) first_repeat = i;
    } else {
      bitvec_set(seen, static_cast<uint32_t>(v));
    }
  }
  bitvec_free(seen);
  if (out_of_range > 0) {
    std::printf("Permutation contains %d out-of-range elements (first:  %d -> %ld)\n", out_of_range,
                first_out, static_cast<long>(perm->p[first_out]));
  }
  if (repeated > 0) {
    std::printf("Permutation contains %d multiple element pairs (first: %d -> %ld)\n", repeated,
                first_repeat, static_cast<long>(perm->p[first_repeat]));
  }
  if (out_of_range > 0 || repeated > 0) {
    std::printf("Permutation is inconsistent!\n");
    return 0;
  }
  return 1;
}

perm_cycle_list *perm_cycles(const perm *perm) {
  VM_SPARSE_ASSERT(perm != NULL, "perm");
  const uint32_t n = perm->n;
  perm_cycle_list *cycles = static_cast<perm_cycle_list *>(quor_malloc(sizeof(perm_cycle_list)));
  cycles->n = 0;
  cycles->ptr = static_cast<pint *>(quor_malloc((static_cast<std::size_t>(n) + 1) * sizeof(pint)));
  cycles->members = static_cast<pint *>(quor_malloc(static_cast<std::size_t>(n) * sizeof(pint)));
  bitvec *seen = bitvec_new(n);
  pint count = 0;
  cycles->ptr[0] = 0;
  // Starting each walk at the smallest index not yet seen makes that index
  // the smallest member of its cycle, and orders the cycles by it.
  for (uint32_t start = 0; start < n; ++start) {
    if (bitvec_test(seen, start)) continue;
    uint32_t i = start;
    do {
      bitvec_set(seen, i);
      cycles->members[count++] = static_cast<pint>(i);
      const pint next = perm->p[i];
      VM_SPARSE_ASSERT_TEXT(next >= 0 && static_cast<uint32_t>(next) < n,
                            "permutation entry within 0..n-1", "perm");
      i = static_cast<uint32_t>(next);
      VM_SPARSE_ASSERT_TEXT(i == start || !bitvec_test(seen, i),
                            "cycle returns to its first member", "perm");
    } while (i != start);
    cycles->ptr[++cycles->n] = count;
  }
  bitvec_free(seen);
  return cycles;
}

void perm_cycles_free(perm_cycle_list *cycles) {
  if (cycles == nullptr) return;
  std::free(cycles->ptr);
  std::free(cycles->members);
  std::free(cycles);
}
