// ublkslv1_unsym.h - substitution kernels of the LU family (blklu.h): the
// forward pass with L (lnz: unit L11 and L21), the backward pass with U
// (lnz: U11; unz: U12 transposed), and the exchanges of the pivoting inside
// each diagonal block:
//   row exchanges (f.pivot, both families) are applied to the block's
//   entries before its L step, ascending;
//   column exchanges (f.pivot_col, general family only) after its U step,
//   descending.
// With in.transposed (iparm(12)) the factors exchange roles to solve with
// A^T: the forward pass takes U^T (column exchanges ascending, U11^T, then
// unz for the rows below), the backward pass L^T (L21^T, L11^T, then the row
// exchanges descending).
//
// x is the working vector in elimination order: x[i - 1 - base] is position
// i, with base = n - k in the compressed partial modes and 0 otherwise.
// Selector s = iparm(26): forward for 0, 1, -1 (and -12 with one right-hand
// side), backward for 0, 2, -3 (and -23 with one); the family has no
// diagonal step.  Limits as in ublkslvs1.h: supernodes of the Schur block
// (last column beyond n - nschur) are outside the solve and their rows are
// dropped from the others; a partial solve cuts the columns before its first
// forward (backward) column off a supernode, and an exchange of such a
// column is not applied.
#ifndef VELMORA_SOLVE_UBLKSLV1_UNSYM_H
#define VELMORA_SOLVE_UBLKSLV1_UNSYM_H

#include "factor/factor_args.h"
#include "solve/solve.h"

namespace vm {

// BLKSLV1_VELMORA: one right-hand side of a structurally symmetric LU factor
// (row exchanges only), x in place.  Parallel form (in.ntasks > 1 and
// in.parallel != 0): the forward pass runs the subtrees of in.taskrange as
// tasks, each adding its updates of the top of the tree into its own slice
// of temp (n entries each), added into x after the join; the top then runs
// serially, and the backward pass goes the other way.  Serial form: one
// region in which only the first thread to arrive runs the substitution;
// the forward pass starts at the first supernode holding a nonzero of x.
template <class T>
void BLKSLV1_VELMORA(const FactorView<T> &f, const SolveInput &in, T *x, T *temp);

// BLKSLV1_UNSYM_VELMORA: the same for a general LU factor, with the column
// exchanges of f.pivot_col.
template <class T>
void BLKSLV1_UNSYM_VELMORA(const FactorView<T> &f, const SolveInput &in, T *x, T *temp);

// BLKSLV1M_VELMORA: m right-hand sides, columns of x ldx apart, serial.  Per
// supernode forward: the exchanges on every column, trsm on the diagonal
// block, gemm of the rows below into temp, temp added into x at those rows
// and cleared; backward the reverse (x gathered at the rows below, gemm with
// the transposed panel, trsm, exchanges).  Panels of at most 1024 used
// entries are solved column by column instead.  The forward pass starts at
// the first supernode where any of the m right-hand sides is nonzero.
// temp: m*ldx elements, left zero.
template <class T>
void BLKSLV1M_VELMORA(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx, T *temp);

// BLKSLV1M_UNSYM_VELMORA: the block kernel of a general LU factor.
template <class T>
void BLKSLV1M_UNSYM_VELMORA(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx,
                            T *temp);

}  // namespace vm

#endif  // VELMORA_SOLVE_UBLKSLV1_UNSYM_H
