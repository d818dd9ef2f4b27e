// ublkslvs1.h - substitution kernels of the Cholesky family, A = L L^T
// (L L^H for complex element types, where the backward pass uses the
// conjugate transpose).  The diagonal lies in L, so the family has no
// diagonal step of its own.
//
// x is the working vector in elimination order: x[i - 1 - base] is position
// i, with base = n - k in the compressed partial modes and 0 otherwise.
//
// Phase selector s = iparm(26):
//   s                      0    1   -1  -12    2   -2   -3  -23
//   forward  (one rhs)    yes  yes  yes  yes   no   no   no   no
//   backward (one rhs)    yes   no   no   no  yes   no  yes  yes
//   forward  (block)      yes  yes  yes   no   no   no   no   no
//   backward (block)      yes   no   no   no  yes   no  yes   no
// -12 and -23 differ from 1 and -3 only by the square root of D, which
// this family has already folded into L; the block kernels know neither.
// Any other value runs nothing.
//
// Limits every supernode loop applies:
//   - the last nschur columns (the Schur block, f.nschur when 1..n) are
//     never touched, and rows of a panel beyond n - nschur are dropped;
//   - in a partial solve only the last fwnodes columns take part in the
//     forward pass and the last bwnodes in the backward pass (the entries
//     of the right-hand side before them count as zero, and the solution
//     there is not produced).  With partial 0 all columns take part.
#ifndef VELMORA_SOLVE_UBLKSLVS1_H
#define VELMORA_SOLVE_UBLKSLVS1_H

#include "factor/factor_args.h"
#include "solve/solve.h"

namespace vm {

// BLKSLVS1_VELMORA: one right-hand side, x in place.
//   Parallel form (in.ntasks > 1 and in.parallel != 0): the forward pass
//   runs the subtrees of in.taskrange as tasks of a dynamic schedule, each
//   task adding its updates of the top of the tree into its own slice of
//   temp (n entries each); after the join the slices are added into x and
//   the top is processed serially.  The backward pass goes the other way.
//   Serial form: one region of the default team in which only the first
//   thread to arrive runs the whole substitution; the forward pass starts at
//   the first supernode that holds a nonzero entry of x.
//   temp: ntasks*n elements in the parallel form, unused otherwise.
template <class T>
void BLKSLVS1_VELMORA(const FactorView<T> &f, const SolveInput &in, T *x, T *temp);

// BLKSLVM_VELMORA: m right-hand sides, columns of x ldx apart, serial.  Per
// supernode forward: trsm (lower, no transpose, non-unit) on the diagonal
// block, gemm of the rows below into temp, temp added into x at those rows
// and cleared; backward the reverse, with the (conjugate) transpose.  Panels
// of at most 1024 used entries are solved column by column instead, where a
// BLAS call would cost more than its arithmetic.  The forward pass starts
// at the first supernode that holds a nonzero entry of the block's first
// right-hand side, for all m of them.  temp: m*ldx elements, left zero.
template <class T>
void BLKSLVM_VELMORA(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx, T *temp);

}  // namespace vm

#endif  // VELMORA_SOLVE_UBLKSLVS1_H
