/*
 * velmora.h - the calls of the direct solver.
 *
 * Every argument is passed by address, scalars included, so that C and
 * Fortran programs call the same symbols.  Integers are 32-bit signed;
 * `pt` is an array of 64 pointer-sized slots owned by the caller.
 *
 * Each call exists in several spellings (lower and upper case, with and
 * without a trailing underscore, and for the main calls also with _d and
 * _z).  For the main calls every spelling runs the same body; for the
 * checkers the plain and _d spellings are the real ones and the _z
 * spellings the complex ones.  The spellings are produced from the one
 * table VELMORA_CALL_TABLE below, both here and in the library.
 */
#ifndef VELMORA_H
#define VELMORA_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define VELMORA_API __attribute__((visibility("default")))
#else
#define VELMORA_API
#endif

/*
 * The two calls every program makes, declared plainly (the table below
 * declares them again, with their other spellings).  docs/USAGE.md lists
 * every slot of iparm and dparm.
 */

/*
 * Fills iparm (64 ints) and dparm (64 doubles) with the defaults of `mtype`
 * and clears the handle pt (64 pointer-sized slots, owned by the caller).
 *   pt      out: the handle, all slots zero
 *   mtype   in:  matrix type: 1 real structurally symmetric, 2 real symmetric
 *                positive definite, -2 real symmetric indefinite, 11 real
 *                unsymmetric; 3, 4 (Hermitian positive definite), -4
 *                (Hermitian indefinite), 6 (complex symmetric), 13 complex
 *   solver  in:  0 the direct solver, 1 the iterative one
 *   iparm   out: the integer controls
 *   dparm   out: the double controls, written for the iterative solver only
 *   error   out: 0
 */
VELMORA_API void velmorainit(void **pt, const int *mtype, const int *solver, int *iparm,
                             double *dparm, int *error);

/*
 * Runs the phases `phase` asks for on the handle pt.
 *   pt      in/out: the handle of velmorainit; phase -1 releases it
 *   maxfct  in:  factorizations kept at once (1)
 *   mnum    in:  which of them this call uses (1)
 *   mtype   in:  matrix type, as for velmorainit
 *   phase   in:  11 analysis, 12 analysis and factorization, 13 all three,
 *                22 factorization, 23 factorization and solve, 33 solve,
 *                0 release the factor of mnum, -1 release everything
 *   n       in:  order of the matrix
 *   a       in:  values in compressed rows (interleaved real and imaginary
 *                parts for the complex types); the upper triangle for the
 *                symmetric and Hermitian types
 *   ia      in:  n+1 row starts, one-based: row i is ia[i-1] .. ia[i]-1
 *   ja      in:  column indices, one-based, increasing within a row
 *   perm    in/out: a permutation or mask, by iparm(5) and iparm(31); else unused
 *   nrhs    in:  right-hand sides
 *   iparm   in/out: the integer controls and statistics (iparm(1) is iparm[0])
 *   msglvl  in:  0 silent, 1 a report on standard output
 *   b       in:  nrhs right-hand sides of n values each, one after the other
 *   x       out: the solutions, laid out as b
 *   error   out: 0, or a negative VELMORA_ERR_* code
 *   dparm   in/out: the double controls
 */
VELMORA_API void velmora(void **pt, const int *maxfct, const int *mnum, const int *mtype,
                         const int *phase, const int *n, void *a, const int *ia, const int *ja,
                         int *perm, const int *nrhs, int *iparm, const int *msglvl, void *b,
                         void *x, int *error, double *dparm);

/*
 * The Schur complement S = A22 - A21 A11^-1 A12 of the last iparm(38)
 * unknowns, kept out of the factorization of row mnum, in compressed rows.
 * Rows and columns of S are numbered 1..iparm(38) (the caller's unknowns
 * n-iparm(38)+1..n).  The symmetric and Hermitian types (even mtype) give
 * the upper triangle of S, the others all of S.
 *   pt      in:  the handle, factored with iparm(38) set
 *   maxfct  in:  not read
 *   mnum    in:  which factorization
 *   mtype   in:  not read: the type of the analysis holds
 *   S_ia    out: iparm(38)+1 row starts, one-based
 *   S_ja    out: column indices; NULL (with S_a) writes S_ia alone, whose
 *                last entry less one is the number of entries of S
 *   S_a     out: values (pairs of doubles for the complex types), or NULL
 */
VELMORA_API void velmora_get_schur(void **pt, const int *maxfct, const int *mnum, const int *mtype,
                                   int *S_ia, int *S_ja, void *S_a);

/*
 * Folds a range of a full Schur complement into a dense block:
 * dense(r-i1+1, c-j1+1) = alpha dense(r-i1+1, c-j1+1) + beta S(r, c) for
 * i1 <= r <= i2, j1 <= c <= j2 (Schur numbering).  The symmetric and
 * Hermitian types write the lower triangle of S alone.
 *   i1, j1  in:  first row and column of the range
 *   i2, j2  in:  last row and column of the range
 *   alpha   in:  factor of the block's old values
 *   beta    in:  factor of S
 *   dense   in/out: column-major block (pairs of doubles for complex types)
 *   ld      in:  its leading dimension, at least i2-i1+1
 *   pt      in:  the handle, factored with iparm(38) set
 *   maxfct  in:  not read
 *   mnum    in:  which factorization
 *   mtype   in:  not read: the type of the analysis holds
 *   err     out: 0; 1 when S is not full (four lines on standard output),
 *                the handle holds no such factor, or the range lies outside
 *                S; dense is then untouched
 */
VELMORA_API void velmora_add_schur(const int *i1, const int *j1, const int *i2, const int *j2,
                                   const double *alpha, const double *beta, void *dense,
                                   const int *ld, void **pt, const int *maxfct, const int *mnum,
                                   const int *mtype, int *err);

/* Apply F to every spelling of one call.  F(spelling, name, ret, params, args). */
/* clang-format off */
#define VELMORA_SPELL_1(F, lo, UP, ret, params, args) F(UP, lo, ret, params, args)
#define VELMORA_SPELL_4(F, lo, UP, ret, params, args) \
  F(lo, lo, ret, params, args)                        \
  F(lo##_, lo, ret, params, args)                     \
  F(UP, lo, ret, params, args)                        \
  F(UP##_, lo, ret, params, args)
#define VELMORA_SPELL_8(F, lo, UP, ret, params, args) \
  VELMORA_SPELL_4(F, lo, UP, ret, params, args)       \
  F(lo##_z, lo, ret, params, args)                    \
  F(lo##_z_, lo, ret, params, args)                   \
  F(UP##_Z, lo, ret, params, args)                    \
  F(UP##_Z_, lo, ret, params, args)
#define VELMORA_SPELL_12(F, lo, UP, ret, params, args) \
  VELMORA_SPELL_8(F, lo, UP, ret, params, args)        \
  F(lo##_d, lo, ret, params, args)                     \
  F(lo##_d_, lo, ret, params, args)                    \
  F(UP##_D, lo, ret, params, args)                     \
  F(UP##_D_, lo, ret, params, args)

/*
 * Calls whose real and complex bodies differ: the plain and _d spellings
 * run the real body `lo`, the _z spellings the complex body `lo`_z.
 */
#define VELMORA_SPELL_REAL8(F, lo, UP, ret, params, args) \
  VELMORA_SPELL_4(F, lo, UP, ret, params, args)           \
  F(lo##_d, lo, ret, params, args)                        \
  F(lo##_d_, lo, ret, params, args)                       \
  F(UP##_D, lo, ret, params, args)                        \
  F(UP##_D_, lo, ret, params, args)
#define VELMORA_SPELL_Z4(F, lo, UP, ret, params, args) \
  F(lo##_z, lo##_z, ret, params, args)                 \
  F(lo##_z_, lo##_z, ret, params, args)                \
  F(UP##_Z, lo##_z, ret, params, args)                 \
  F(UP##_Z_, lo##_z, ret, params, args)
#define VELMORA_SPELL_RZ12(F, lo, UP, ret, params, args) \
  VELMORA_SPELL_REAL8(F, lo, UP, ret, params, args)      \
  VELMORA_SPELL_Z4(F, lo, UP, ret, params, args)
#define VELMORA_SPELL_RZ8(F, lo, UP, ret, params, args) \
  VELMORA_SPELL_4(F, lo, UP, ret, params, args)         \
  VELMORA_SPELL_Z4(F, lo, UP, ret, params, args)
/* clang-format on */

/*
 * The table of exported calls: E(set, lower name, upper name, return type,
 * parameter list, argument list).  set names the spellings: 1, 4, 8 or 12
 * spellings of one body, or RZ12 (plain, _d: real body; _z: complex body)
 * and RZ8 (plain: real body; _z: complex body).
 */
#define VELMORA_CALL_TABLE(E)                                                                      \
  /* solve: analysis, factorization, solution, release by `phase` */                               \
  E(12, velmora, VELMORA, void,                                                                    \
    (void **pt, const int *maxfct, const int *mnum, const int *mtype, const int *phase,            \
     const int *n, void *a, const int *ia, const int *ja, int *perm, const int *nrhs, int *iparm,  \
     const int *msglvl, void *b, void *x, int *error, double *dparm),                              \
    (pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, iparm, msglvl, b, x, error, dparm)) \
  /* defaults of iparm (and dparm for the iterative solver), empty handle */                       \
  E(12, velmorainit, VELMORAINIT, void,                                                            \
    (void **pt, const int *mtype, const int *solver, int *iparm, double *dparm, int *error),       \
    (pt, mtype, solver, iparm, dparm, error))                                                      \
  /* the Schur complement of a factorization with iparm(38), in compressed rows */                 \
  E(12, velmora_get_schur, VELMORA_GET_SCHUR, void,                                                \
    (void **pt, const int *maxfct, const int *mnum, const int *mtype, int *S_ia, int *S_ja,        \
     void *S_a),                                                                                   \
    (pt, maxfct, mnum, mtype, S_ia, S_ja, S_a))                                                    \
  /* dense = alpha dense + beta S over a range of a full Schur complement */                       \
  E(12, velmora_add_schur, VELMORA_ADD_SCHUR, void,                                                \
    (const int *i1, const int *j1, const int *i2, const int *j2, const double *alpha,              \
     const double *beta, void *dense, const int *ld, void **pt, const int *maxfct,                 \
     const int *mnum, const int *mtype, int *err),                                                 \
    (i1, j1, i2, j2, alpha, beta, dense, ld, pt, maxfct, mnum, mtype, err))                        \
  /* y = A x, the 2-norms of b and y - b: mtype -2, 2, 11 real, 6, 13 complex; other types */      \
  /* print a message and end the program */                                                        \
  E(12, velmora_residual, VELMORA_RESIDUAL, void,                                                  \
    (const int *mtype, const int *n, const void *a, const int *ia, const int *ja, const void *b,   \
     const void *x, void *y, double *normb, double *normr),                                        \
    (mtype, n, a, ia, ja, b, x, y, normb, normr))                                                  \
  /* symbols whose presence a caller may test for; they do nothing */                              \
  E(4, velmora_exist_parallel, VELMORA_EXIST_PARALLEL, void, (void), ())                           \
  E(4, velmora_ipopt_newinterface, VELMORA_IPOPT_NEWINTERFACE, void, (void), ())                   \
  /* thread count from OMP_NUM_THREADS, printed; 0 when it is unset */                             \
  E(1, get_proc_velmora, GET_PROC_VELMORA, int, (int *nproc), (nproc))                             \
  /* checkers: no handle, no state; messages on standard error, codes below */                     \
  /* is `a` in (ia, ja) a valid matrix of type `mtype`? */                                         \
  E(RZ12, velmora_chkmatrix, VELMORA_CHKMATRIX, void,                                              \
    (const int *mtype, const int *n, const void *a, const int *ia, const int *ja, int *error),     \
    (mtype, n, a, ia, ja, error))                                                                  \
  /* are the n*nrhs values of b (one right-hand side after the other) finite? */                   \
  E(RZ8, velmora_chkvec, VELMORA_CHKVEC, void,                                                     \
    (const int *n, const int *nrhs, const void *b, int *error), (n, nrhs, b, error))               \
  /* both checks, then type, order, nonzeros, value ranges on standard output */                   \
  E(RZ12, velmora_printstats, VELMORA_PRINTSTATS, void,                                            \
    (const int *mtype, const int *n, const void *a, const int *ia, const int *ja, const int *nrhs, \
     const void *b, int *error),                                                                   \
    (mtype, n, a, ia, ja, nrhs, b, error))

#define VELMORA_DECLARE_ONE(spelling, lo, ret, params, args) VELMORA_API ret spelling params;
#define VELMORA_DECLARE(set, lo, UP, ret, params, args) \
  VELMORA_SPELL_##set(VELMORA_DECLARE_ONE, lo, UP, ret, params, args)

VELMORA_CALL_TABLE(VELMORA_DECLARE)

#undef VELMORA_DECLARE
#undef VELMORA_DECLARE_ONE

/* Values of `error`. */
#define VELMORA_OK 0
#define VELMORA_ERR_INPUT (-1)
#define VELMORA_ERR_MEMORY (-2)
#define VELMORA_ERR_REORDER (-3)
#define VELMORA_ERR_FACTOR (-4)
#define VELMORA_ERR_INTERNAL (-5)
#define VELMORA_ERR_PREORDER (-6)
#define VELMORA_ERR_SILENT (-7)
#define VELMORA_ERR_OVERFLOW (-8)

/*
 * Values of `error` of the checkers (0 is valid):
 *   10  argument: type not of the family, order below 1, null pointer
 *  100  row pointer below 1 or decreasing
 *  101  column index outside 1..n
 *  200  column indices of a row not strictly increasing
 *  201  symmetric storage: a row without its diagonal entry
 *  202  symmetric storage: an entry below the diagonal
 *  300  a NaN value
 *  301  an infinite value
 */

#ifdef __cplusplus
}
#endif

#endif /* VELMORA_H */
