/*
 * bitvec.cpp - a fixed-size set of bits.
 */
#include "analysis/bitvec.h"

#include <cstring>

#include "analysis/perm.h"
#include "analysis/sparse_assert.h"
#include "quor/corelib/quor_log.h"

namespace {

inline uint32_t word_of(uint32_t bit) {
  return bit >> 5;
}
inline uint32_t mask_of(uint32_t bit) {
  return 1u << (bit & 31u);
}

}  // namespace

uint32_t bitvec_word_count(uint32_t size) {
  return size == 0 ? 1u : ((size - 1) >> 5) + 1;
}

bitvec *bitvec_new(uint32_t size) {
  bitvec *bv = static_cast<bitvec *>(quor_malloc(sizeof(bitvec)));
  bv->size = size;
  bv->nwords = bitvec_word_count(size);
  bv->owned = 1;
  bv->bits = static_cast<uint32_t *>(quor_calloc(bv->nwords, sizeof(uint32_t)));
  return bv;
}

bitvec *bitvec_wrap(uint32_t size, uint32_t *bits) {
  VM_SPARSE_ASSERT(bits != NULL, "bitvec");
  bitvec *bv = static_cast<bitvec *>(quor_malloc(sizeof(bitvec)));
  bv->size = size;
  bv->nwords = bitvec_word_count(size);
  bv->owned = 0;
  bv->bits = bits;
  return bv;
}

void bitvec_free(bitvec *bv) {
  if (bv == nullptr) return;
  if (bv->owned) std::free(bv->bits);
  std::free(bv);
}

void bitvec_set(bitvec *bv, uint32_t bit) {
  VM_SPARSE_ASSERT(bit < bv->size, "bitvec");
  bv->bits[word_of(bit)] |= mask_of(bit);
}

void bitvec_clear(bitvec *bv, uint32_t bit) {
  VM_SPARSE_ASSERT(bit < bv->size, "bitvec");
  bv->bits[word_of(bit)] &= ~mask_of(bit);
}

int bitvec_test(const bitvec *bv, uint32_t bit) {
  VM_SPARSE_ASSERT(bit < bv->size, "bitvec");
  return (bv->bits[word_of(bit)] & mask_of(bit)) != 0;
}

void bitvec_clear_word(bitvec *bv, uint32_t bit) {
  VM_SPARSE_ASSERT(bit < bv->size, "bitvec");
  bv->bits[word_of(bit)] = 0;
}

void bitvec_clear_all(bitvec *bv) {
  std::memset(bv->bits, 0, bv->nwords * sizeof(uint32_t));
}

void bitvec_print(const bitvec *bv, FILE *out) {
  std::fputc('[', out);
  for (uint32_t k = 0; k < bv->size; ++k) std::fputc(bitvec_test(bv, k) ? '1' : '0', out);
  std::fputs("]\n", out);
}

bitvec *bitvec_permuted_copy(const bitvec *src, const perm *perm) {
  VM_SPARSE_ASSERT(src->size == perm->n, "bitvec");
  bitvec *dst = bitvec_new(src->size);
  for (uint32_t i = 0; i < src->size; ++i) {
    if (bitvec_test(src, i)) bitvec_set(dst, static_cast<uint32_t>(perm->p[i]));
  }
  return dst;
}

void bitvec_permute(bitvec *src, const perm *perm) {
  bitvec *scratch = bitvec_permuted_copy(src, perm);
  std::memcpy(src->bits, scratch->bits, src->nwords * sizeof(uint32_t));
  bitvec_free(scratch);
}

void bitvec_copy(bitvec *dst, const bitvec *src) {
  VM_SPARSE_ASSERT(dst->size == src->size, "bitvec");
  std::memcpy(dst->bits, src->bits, src->nwords * sizeof(uint32_t));
}
