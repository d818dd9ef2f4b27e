/*
 * velmora_smat.h - the sparse-matrix record and its exported functions.
 *
 * An `smat` is a compressed-sparse-row matrix with zero-based indices once
 * built.  Arrays handed to a constructor are taken over, not copied: they
 * must come from malloc, and smat_free releases them.  Misuse (a wrong base
 * index, inconsistent row pointers, mismatched sizes) is an invariant
 * violation: the library prints the failed condition and stops the program.
 */
#ifndef VELMORA_SMAT_H
#define VELMORA_SMAT_H

#include <stdint.h>

#include "velmora.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Signed 32-bit index type of the sparse layer. */
typedef int32_t pint;

typedef struct smat {
  uint32_t m;         /* rows */
  uint32_t n;         /* columns */
  uint32_t nnz;       /* stored entries; nnz == ia[m] (zero base) */
  int32_t sym;        /* 1: only the upper triangle is stored */
  int32_t is_complex; /* 1: a holds (re, im) pairs */
  pint *ia;           /* m+1 row pointers */
  pint *ja;           /* nnz column indices */
  double *a;          /* nnz values (2*nnz for complex), or NULL */
} smat;

/*
 * Take over ia, ja and a as a new matrix.  type: 0 real general, 1 real
 * symmetric (upper triangle), 2 complex general, 3 complex symmetric.
 * base_index 1 shifts ia and ja to zero base in place.
 */
VELMORA_API smat *smat_new_from(uint32_t m, uint32_t n, pint *ia, pint *ja, double *a, int type,
                                int base_index);

/*
 * A new square matrix of order n from nnz triplets (rows[k], cols[k]) with
 * values re[k] (+ i im[k] when im is given; re may be NULL for a pattern).
 * A matrix with entries on one side of the diagonal only is kept as its
 * upper triangle (`sym` 1); entries on both sides give a general matrix.
 */
VELMORA_API smat *smat_new_from_coord(uint32_t n, uint32_t nnz, const pint *rows, const pint *cols,
                                      const double *re, const double *im, int base);

/* A new matrix holding the transpose of A (of a `sym` matrix: a copy). */
VELMORA_API smat *smat_copy_trans(const smat *A);

/* A new matrix A + B on the merged pattern. */
VELMORA_API smat *smat_add(const smat *A, const smat *B);

/* Release the record and its arrays; NULL prints a notice and returns. */
VELMORA_API void smat_free(smat *mat);

/* Keep only the upper triangle, in place, and mark the matrix `sym`. */
VELMORA_API void smat_to_symmetric_structure(smat *A);

#ifdef __cplusplus
}
#endif

#endif /* VELMORA_SMAT_H */
