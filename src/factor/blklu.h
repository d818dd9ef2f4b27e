// blklu.h - supernodal left-looking LU, A = L U on the symmetric pattern of
// A + A^T, with pivoting restricted to the diagonal block of a supernode so
// that the symbolic factor stands.
//
// Storage (factor_args.h): the lnz panel of a supernode holds L11 (unit,
// below the diagonal) and U11 of its diagonal block and L21 below it; unz
// holds U12 transposed, len-ncols rows by ncols columns with leading
// dimension len-ncols, rows in the order of lindx.  pivot(first+k-1) is
// the block-relative row exchanged with row k of the block; the general
// members also record column exchanges in pivot_col.
//
// Element types: double; float, the single-precision members
// (BLKLU_32_..., iparm(29)), whose eps stays a double; zcomplex, the
// complex ones (C_...).
#ifndef VELMORA_FACTOR_BLKLU_H
#define VELMORA_FACTOR_BLKLU_H

#include <cstdint>

#include "factor/blkl.h"
#include "factor/factor_args.h"

namespace vm {

// BLKLU_SEQ_VELMORA: structurally symmetric matrices (mtype 1).  Each
// diagonal block is factored by the math library's getrf (partial pivoting
// inside the block, no perturbation, eps unused).
//   in:  f (symbolic arrays, xunz; lnz, unz, pivot written), in (values,
//        lmap and umap), work (indmap, relind, link, length, temp and
//        tmpsiz, nmod), sc (iflag 0, determinant, logdet)
//   out: the factor; with f.nschur > 0 the panels of the trailing nschur
//        columns hold the Schur complement, unfactored.  sc.iflag: 0, -1 (a
//        block is exactly singular: the run stops there, later panels as
//        they were), -2 (tmpsiz too small for an update).  With
//        sc.determinant 1 and scaling on, the scaling's share of log|det| is
//        taken off *sc.logdet (the pivots' share is added by the
//        dispatcher, see lu_log_determinant).  sc.schur_nnz and the return
//        value: the entries of the Schur block, sum of (2 r - c) c over its
//        supernodes of c columns and r rows.
// The chains are cleared here; temp is scratch (factor_args.h).  Nothing
// is allocated.
template <class T>
std::int64_t BLKLU_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                               FactorScalars &sc);

// BLKLU_UNSYM_SEQ_VELMORA: general matrices (mtype 11).  The same loop with
// each block factored by dgetrf_p: complete pivoting inside the block, row
// exchanges in f.pivot, column exchanges in f.pivot_col, pivots of
// magnitude at most sc.eps replaced (1e-13 when eps is 0) and counted in
// sc.perturbed.  A small pivot is not a failure: iflag -1 only on a bad
// argument, -2 as above.
template <class T>
std::int64_t BLKLU_UNSYM_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                     FactorWork<T> &work, FactorScalars &sc);

// The parallel members, same arguments and results; the team runs as for
// BLKL_RISC_VELMORA (blkl.h).
template <class T>
std::int64_t BLKLU_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                                FactorScalars &sc);
template <class T>
std::int64_t BLKLU_UNSYM_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                      FactorWork<T> &work, FactorScalars &sc);

// Sum of log|u_jj| over the diagonal of U in every factored supernode (the
// Schur block, unfactored, is left out): the pivots' share of log|det A|.
template <class T>
double lu_log_determinant(const FactorView<T> &f);

// Imaginary part of the complex log-determinant of a complex LU factor:
// the sum of arg(u_jj) over the factored supernodes, plus pi (rounded to
// single precision, 3.1415927410125732) for each column whose row
// exchange names another row, and with `general` also for each column
// whose column exchange names another column (each exchange flips the
// sign of the determinant).
template <class T>
double lu_log_determinant_arg(const FactorView<T> &f, bool general);

// Counts of the update kernels the LU loop takes, as set_update_kernel_counts
// does for the Cholesky loop (one count per descendant update, covering
// both products).  Not synchronised; null switches counting off.
void set_lu_update_kernel_counts(UpdateKernelCounts *counts);

}  // namespace vm

#endif  // VELMORA_FACTOR_BLKLU_H
