/*
 * perm.h - permutations of 0..n-1.
 *
 * By convention p[i] is the new place of i.  Records and arrays come from
 * the checked allocator; a record made from a caller's array takes it over
 * and perm_free releases it.
 */
#ifndef VELMORA_ANALYSIS_PERM_H
#define VELMORA_ANALYSIS_PERM_H

#include <cstdint>

#include "velmora_smat.h" /* pint */

struct perm {
  uint32_t n;
  pint *p;
};

/* The cycles of a permutation: cycle c holds members[ptr[c]..ptr[c+1]-1]. */
struct perm_cycle_list {
  pint n;        /* number of cycles */
  pint *ptr;     /* n+1 offsets into members */
  pint *members; /* every index once, cycle after cycle */
};

/* A new permutation of size n; the contents are undefined. */
perm *perm_new(uint32_t n);
/* A permutation that takes over the caller's array of n entries. */
perm *perm_new_from(uint32_t n, pint *p);
/* Release the record and its array.  NULL is ignored. */
void perm_free(perm *perm);

/* Set every entry to `value`, or to 0. */
void perm_fill(perm *perm, pint value);
void perm_clear(perm *perm);
/* p[i] = i. */
void perm_identity(perm *perm);

/* Copy src into dst, or into a new permutation when dst is NULL; returns dst. */
perm *perm_copy(perm *dst, const perm *src);
/* dst->p[src->p[i]] = i, into dst or a new permutation when dst is NULL. */
perm *perm_invert(perm *dst, const perm *src);
/* Invert without changing the allocation of the array. */
void perm_invert_in_place(perm *perm);
/* Reverse the order of the entries. */
void perm_reverse(perm *perm);
/* p1[i] = p2[p1[i]]: first p1, then p2. */
void perm_compose(perm *p1, const perm *p2);
/* 1 when both hold the same entries; the sizes must agree. */
int perm_equal(const perm *perm1, const perm *perm2);

/*
 * 1 when every value 0..n-1 occurs exactly once.  Otherwise prints to
 * standard output how many entries were out of range and how many repeated
 * an earlier value (each with the first offending position), then
 * "Permutation is inconsistent!", and returns 0.
 */
int perm_is_consistent(const perm *perm);

/*
 * The cycles of i -> p[i], each starting at its smallest member, in order
 * of that member; a fixed point is a cycle of length one.
 */
perm_cycle_list *perm_cycles(const perm *perm);
void perm_cycles_free(perm_cycle_list *cycles);

#endif /* VELMORA_ANALYSIS_PERM_H */
