// diag.h - matrices with one entry per row, solved without analysis.
//
// A matrix whose nonzero count equals its order is taken as diagonal: only
// the row lengths are tested, `ja` is never read.  These routines allocate
// nothing.  Arrays are one-based in meaning; right-hand sides are stored
// column after column, n values each.
#ifndef VELMORA_INTERFACE_DIAG_H
#define VELMORA_INTERFACE_DIAG_H

namespace vm {

// DIAG_VELMORA
//   in:  n, nrhs, ia (n+1 row pointers), a (n values), b (n*nrhs),
//        iparm6 (1: the solution also overwrites b), solve (1: solve)
//   out: x (n*nrhs) when solving; error: 0, +i for row i without exactly
//        one entry, -i for a zero value in row i; npos, nneg: counts of
//        positive and other values in the rows tested before any failure.
void DIAG_VELMORA(const int *n, const int *nrhs, const int *ia, const int *ja, const double *a,
                  double *b, double *x, int *error, const int *iparm6, const int *solve, int *npos,
                  int *nneg);

// C_DIAG_VELMORA: the same for complex values stored as (re, im) pairs,
// without the counts.
void C_DIAG_VELMORA(const int *n, const int *nrhs, const int *ia, const int *ja, const double *a,
                    double *b, double *x, int *error, const int *iparm6, const int *solve);

// DIAG_INVERSE_VELMORA, C_DIAG_INVERSE_VELMORA: a(i) := 1/a(i) for every
// row.  error as above; a is left untouched when the test fails.
void DIAG_INVERSE_VELMORA(const int *n, const int *nrhs, const int *ia, const int *ja, double *a,
                          int *error);
void C_DIAG_INVERSE_VELMORA(const int *n, const int *nrhs, const int *ia, const int *ja, double *a,
                            int *error);

}  // namespace vm

#endif  // VELMORA_INTERFACE_DIAG_H
