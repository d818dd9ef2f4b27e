// ublkldlslvs1.h - substitution kernels of the LDL^T family (mtype -2, 6, -4):
// A = P L D L^T P^T with the exchanges P and the pivots of D local to each
// supernode's diagonal block (see blkldl.h for the factor's layout).
//
// x is the working vector in elimination order, as in ublkslvs1.h (x[i - 1
// - base] is position i), and the limits of the Schur block and of a
// partial solve are the same.
//
// in.iparm21 tells the pivots of the factor:
//   0      1x1 pivots: each supernode applies its row exchanges f.pivot
//          (ascending before the forward step, descending after the
//          backward step), and L is the unit lower part of the block, D its
//          diagonal;
//   else   Bunch-Kaufman: the block and f.pivot go to dsytrs_fwd,
//          dsytrs_diag and dsytrs_bwd.
//
// Phase selector s = iparm(26):
//   s                      0    1   -1  -12    2   -2   -3  -23
//   forward                yes  yes  yes  yes   no   no   no   no
//   D                      yes   no   no   no  yes  yes   no   no
//   square root of D        no   no   no  yes   no   no   no  yes
//   backward               yes   no   no   no  yes   no  yes  yes
// The square-root step (after the forward pass for -12, before the
// backward pass for -23) divides each entry by the square root of its
// pivot, which makes sense for factors whose D is positive; with
// Bunch-Kaufman pivots it prints "Not implemented! (ublkldlslvs1)" once for
// every supernode and leaves the vector as it is.  The block kernel knows
// neither -12 nor -23 and runs nothing for them.  Any other value runs
// nothing.
//
// A supernode that a partial solve cuts (its first columns before the
// selected ones) is solved on its selected columns as a block of its own,
// from the first pivot that starts there; exchanges reaching back before
// the cut are not applied.
#ifndef VELMORA_SOLVE_UBLKLDLSLVS1_H
#define VELMORA_SOLVE_UBLKLDLSLVS1_H

#include "factor/factor_args.h"
#include "solve/solve.h"

namespace vm {

// BLKLDLSLVS1_VELMORA: one right-hand side, x in place.
//   Parallel form (in.ntasks > 1 and in.parallel != 0): the forward pass
//   runs the subtrees of in.taskrange as tasks of a dynamic schedule, each
//   adding its updates of the top of the tree into its own slice of temp
//   (n entries each); after the join the slices are added into x and the
//   top is processed serially; the D step runs serially; the backward pass
//   takes the top serially, then the subtrees as tasks.
//   Serial form: one region of the default team in which only the first
//   thread to arrive runs the whole substitution; the forward pass starts
//   at the first supernode that holds a nonzero entry of x.
//   Columns are taken in groups of eight, then pairs, then one, so that a
//   row below a group is read and written once per group.
//   temp: ntasks*n elements in the parallel form, unused otherwise.
template <class T>
void BLKLDLSLVS1_VELMORA(const FactorView<T> &f, const SolveInput &in, T *x, T *temp);

// BLKLDLSLVS1_MPPL: the substitution with a factor of the block-partitioned
// member (factor/blkldl_mpp.h).  That factor has the layout of every LDL^T
// factor and its domain table is the plain one (the nodes' parts lie in
// the top), so the substitution is BLKLDLSLVS1_VELMORA's; the name stays
// because the solve of that variant is dispatched by it.
template <class T>
void BLKLDLSLVS1_MPPL(const FactorView<T> &f, const SolveInput &in, T *x, T *temp) {
  BLKLDLSLVS1_VELMORA<T>(f, in, x, temp);
}

// BLKLDLSLVM_VELMORA: m right-hand sides, columns of x ldx apart, serial.
// Per supernode forward: the exchanges and trsm (lower, unit) or
// dsytrs_fwd on the block, gemm of the rows below into temp, temp added
// into x at those rows and cleared; D per block; backward the reverse
// (gather, gemm transposed, trsm or dsytrs_bwd, exchanges).  Small panels
// are solved column by column instead.  The forward pass starts at the
// first supernode where any of the m right-hand sides is nonzero.
// temp: m*ldx elements, left zero.
template <class T>
void BLKLDLSLVM_VELMORA(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx,
                        T *temp);

// The Hermitian kernels (mtype -4, complex T): A = P L D L^H P^T, the
// backward pass with the conjugate transpose of L.  On a complex T the two
// kernels above are those of the complex symmetric type (mtype 6), whose
// backward pass takes L^T without conjugation.
template <class T>
void CH_BLKLDLSLVS1_VELMORA(const FactorView<T> &f, const SolveInput &in, T *x, T *temp);
template <class T>
void CH_BLKLDLSLVM_VELMORA(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx,
                           T *temp);

}  // namespace vm

#endif  // VELMORA_SOLVE_UBLKLDLSLVS1_H
