// schur.h - reading back the Schur complement that a factorization with
// a Schur block left in the trailing panels of the factor.
//
// The last nschur columns of the elimination order were not factored:
// their panels hold S = A22 - A21 A11^-1 A12 (lnz: the columns from the
// diagonal block down; unz of the LU types: the rest of each row,
// transposed).  Rows and columns of S are numbered 1..nschur from the
// first Schur column on.  The Schur rows keep their natural order and a
// unit scale, so S is the Schur complement of the caller's matrix.
//
// One body per element type serves both routines; the named bodies below
// are its instantiations:
//   T double    the real body (mtype 1, 2, -2, 11)
//   T zcomplex  the complex body (3, 6, 13), and with kConjugate the
//               Hermitian one (4, -4), whose upper triangle is the
//               conjugate of the stored lower one
//   T float     the single-precision body, values widened to double
#ifndef VELMORA_FACTOR_SCHUR_H
#define VELMORA_FACTOR_SCHUR_H

#include <cstdint>

#include "factor/factor_args.h"

namespace vm {

// GET_SCHUR_VELMORA: S in compressed rows, one-based.
//   symmetric  true for the types stored as one triangle (even mtype):
//              then the upper triangle of S by rows, each row in the order
//              of the row list of its column; else all of S, each row
//              ascending
//   S_ia       out: nschur+1 row starts
//   S_ja       out: column indices (Schur numbering), or null: then only
//              S_ia is written, so that S_ia[nschur]-1 sizes S_ja and S_a
//   S_a        out: the values (pairs of doubles for complex types), or null
template <class T, bool kConjugate = false>
void GET_SCHUR_VELMORA(const FactorView<T> &f, bool symmetric, int *S_ia, int *S_ja, double *S_a);

// ADD_SCHUR_VELMORA: dense(r - i1, c - j1) = alpha dense(..) + beta S(r, c)
// for the stored entries (r, c) of S with i1 <= r <= i2, j1 <= c <= j2;
// dense is column-major with leading dimension ld (pairs of doubles for
// complex types).  The symmetric types touch the lower triangle of S only.
//   nnz_schur  the entries the factorization counted in the Schur block
//   returns    0, or 1 when S is not full (four lines on standard output,
//              dense untouched)
template <class T>
int ADD_SCHUR_VELMORA(const FactorView<T> &f, bool symmetric, std::int64_t nnz_schur, int i1,
                      int j1, int i2, int j2, double alpha, double beta, double *dense, int ld);

}  // namespace vm

#endif  // VELMORA_FACTOR_SCHUR_H
