/*
 * smat.h - operations on the compressed-sparse-row record `smat`.
 *
 * The record itself and the six exported functions are declared in
 * velmora_smat.h.  Internally a matrix is in zero base: ia[0] == 0 and
 * nnz == ia[m]; the shifts to and from one base exist for the stages that
 * hand arrays to one-based code.  `a` may be absent (a pattern); complex
 * values are stored as interleaved (re, im) pairs.  A `sym` matrix stores
 * only its upper triangle (every column at or right of its row).
 *
 * Arrays are allocated through the checked allocator and released with
 * free(); arrays handed to a constructor are taken over.  Misuse stops the
 * process with the failed condition (see sparse_assert.h).
 */
#ifndef VELMORA_ANALYSIS_SMAT_H
#define VELMORA_ANALYSIS_SMAT_H

#include <cstdint>

#include "velmora_smat.h"

struct perm;

/* Entries of a matrix listed column by column. */
struct smat_colindex {
  pint *col_start; /* entries of column j: col_start[j] .. col_start[j+1]-1 */
  pint *row;       /* row of each listed entry */
  pint *pos;       /* position of each listed entry in ja and a */
};

/* ---- construction */

/* An m x n matrix with no entries: ia zeroed, ja and a absent. */
smat *smat_new(uint32_t m, uint32_t n, int sym);
/* Take over ia, ja and a (real values, or NULL); base_index 0 or 1. */
smat *smat_new_from_arrays(uint32_t m, uint32_t n, pint *ia, pint *ja, double *a, int sym,
                           int base_index);
/* The same with is_complex chosen by the caller (a read as pairs when 1). */
smat *smat_new_from_arrays_complex(uint32_t m, uint32_t n, pint *ia, pint *ja, double *a, int sym,
                                   int base_index, int is_complex);
/* Deep copy, values included when present. */
smat *smat_copy(const smat *src);
/* Deep copy of ia and ja only. */
smat *smat_copy_pattern(const smat *src);

/* ---- base index, in place */

void smat_to_zero_base(smat *mat);
void smat_to_one_base(smat *mat);

/* ---- checks: 1 sound, 0 otherwise; nothing is printed */

/* ia[0] == 0, no empty row, ia[m] == nnz. */
int smat_check_rows(const smat *mat);
/* Columns strictly increasing within each row and below n (the last
 * column of a row is not compared with n). */
int smat_check_cols(const smat *mat);
/* Every row holds its diagonal entry. */
int smat_check_diag(const smat *mat);
/* A `sym` matrix holds no entry left of the diagonal. */
int smat_check_triangle(const smat *mat);
/* The four checks in that order; stops at the first failure. */
int smat_check(const smat *mat);

/* ---- ordering of rows */

/* Sort one row by column; with_values 1 carries the values along. */
void smat_sort_row(smat *mat, pint row, int with_values);
void smat_sort_rows(smat *mat, int with_values);

/* ---- scaling, in place */

/* a[k] *= r[i] * c[ja[k]] for every entry k of row i. */
void smat_scale(smat *mat, const double *r, const double *c);
/* a[k] *= exp(r[i] + c[ja[k]]) for every entry k of row i. */
void smat_scale_log(smat *mat, const double *r, const double *c);

/* ---- symmetric structure */

/*
 * Turn a `sym` matrix into its full symmetric structure in place (rows
 * sorted, `sym` cleared).  When map is not NULL, *map receives a new array
 * giving for each entry of the result the position it had (an entry and
 * its mirror share one).  A matrix that is not `sym` is left as it is.
 */
void smat_expand_sym(smat *dst, pint **map);

/* Entries listed column by column; release with smat_colindex_free. */
smat_colindex *smat_colindex_new(const smat *A);
void smat_colindex_free(smat_colindex *ci);

/*
 * dst = P A P^T for p[i] the new place of i: entry (i, j) of src becomes
 * entry (p[i], p[j]).  A `sym` source gives a `sym` result.  Values are
 * carried only when with_values is 1 and src has them.
 */
smat *smat_perm_sym(const smat *src, const perm *perm, int with_values);

#endif /* VELMORA_ANALYSIS_SMAT_H */
