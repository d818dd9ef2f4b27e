/*
 * bitvec.h - a fixed-size set of bits.
 *
 * Bit k lives in bit (k & 31) of word (k >> 5).  The word count is always
 * ((size - 1) >> 5) + 1, so a vector of size 0 still holds one word.  A
 * vector normally owns its words; one made by bitvec_wrap only borrows them.
 * Every operation that names a bit asserts that the bit is below `size`.
 */
#ifndef VELMORA_ANALYSIS_BITVEC_H
#define VELMORA_ANALYSIS_BITVEC_H

#include <cstdint>
#include <cstdio>

struct perm;

struct bitvec {
  uint32_t size;   /* number of bits */
  uint32_t nwords; /* number of 32-bit words */
  int32_t owned;   /* 1: `bits` belongs to this record */
  uint32_t *bits;
};

/* Number of words that hold `size` bits (at least one). */
uint32_t bitvec_word_count(uint32_t size);

/* A new vector of `size` bits, all clear. */
bitvec *bitvec_new(uint32_t size);
/* A vector over the caller's words, which it does not free. */
bitvec *bitvec_wrap(uint32_t size, uint32_t *bits);
/* Release the record, and its words when it owns them.  NULL is ignored. */
void bitvec_free(bitvec *bv);

void bitvec_set(bitvec *bv, uint32_t bit);
void bitvec_clear(bitvec *bv, uint32_t bit);
/* 1 when the bit is set, 0 otherwise. */
int bitvec_test(const bitvec *bv, uint32_t bit);
/* Clear the whole 32-bit word holding `bit`: retires a group of 32 at once. */
void bitvec_clear_word(bitvec *bv, uint32_t bit);
/* Clear every bit. */
void bitvec_clear_all(bitvec *bv);

/* Print "[", one digit per bit, "]\n". */
void bitvec_print(const bitvec *bv, FILE *out);

/* A new vector with dst[perm->p[i]] = src[i]. */
bitvec *bitvec_permuted_copy(const bitvec *src, const perm *perm);
/* The same permutation applied to `src` itself. */
void bitvec_permute(bitvec *src, const perm *perm);
/* Copy the bits of `src` into `dst` of the same size. */
void bitvec_copy(bitvec *dst, const bitvec *src);

#endif /* VELMORA_ANALYSIS_BITVEC_H */
