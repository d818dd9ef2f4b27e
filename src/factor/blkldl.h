// blkldl.h - supernodal left-looking LDL^T of symmetric indefinite
// matrices, with pivots sought only inside the diagonal block of each
// supernode and small pivots perturbed instead of refused.
#ifndef VELMORA_FACTOR_BLKLDL_H
#define VELMORA_FACTOR_BLKLDL_H

#include <cstdint>

#include "factor/blkl.h"
#include "factor/factor_args.h"

namespace vm {

// BLKLDL_SEQ_VELMORA: the loop of BLKL_SEQ_VELMORA (panel preparation,
// chains of descendants, Schur block) with updates L21 D L21^T, where one
// factor of each product is a D-scaled copy of the descendant's rows kept
// in temp, and with the diagonal block factored by pivoting:
//   sc.pivot_mode bit 0 set (diagonal pivoting): the block is mirrored to
//     a full square and factored by dgetf2_diagpiv; the rows below get its
//     column exchanges and L21 = A21 P U^-1 (trsm).  The block then holds D
//     on its diagonal, unit L below it and D L^T above it.
//   bit 0 clear (Bunch-Kaufman): dsytf2_pert on the lower triangle; the
//     rows below are solved through temp by dsytrs_half_rows (level 3):
//     L21 = A21 P L^-T D^-1.  The block holds the LAPACK dsytrf layout in
//     its lower triangle; the strict upper triangle is scratch.
//   f.pivot(first+i-1) receives the block-relative exchanges (negative
//   pairs for 2x2 pivots).
//   in/out: sc.eps (threshold), sc.perturbed, sc.npos, sc.nneg (added to),
//   sc.iflag (0; -1 an argument error of a kernel; -2 tmpsiz too small for
//   an update or for the transposed rows of a Bunch-Kaufman panel), with
//   sc.determinant 1 *sc.logdet gains log|det D| (less the scaling terms).
//   Returns sc.schur_nnz, the entries of the Schur block.
// The chains are cleared here; temp is scratch (factor_args.h).  Nothing
// is allocated.
template <class T>
std::int64_t BLKLDL_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                                FactorScalars &sc);

// On float T these are the single-precision members (BLKLDL_32_...,
// iparm(29)): eps stays a double, and the diagonal mode factors the block
// with SGETRF_P (dense_kernels.h), which walks blocks wider than 80
// columns in panels.
//
// BLKLDL_RISC_VELMORA: the parallel member, same arguments and results;
// the team runs as for BLKL_RISC_VELMORA (blkl.h).
template <class T>
std::int64_t BLKLDL_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                                 FactorScalars &sc);

// BLKLDL_EXACT_VELMORA: the member of identical results at every team
// size (iparm(34)), taken instead of the parallel member when the work
// record has the top lists of a fixed-order analysis: the two-level loop
// in the fixed order (left_looking.h, run_two_level), on any team, one
// thread included.  Same kernels and rules as the other members; "exact"
// means reproducible, nothing stricter.
template <class T>
std::int64_t BLKLDL_EXACT_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                  FactorWork<T> &work, FactorScalars &sc);

// CH_BLKLDL_SEQ_VELMORA, CH_BLKLDL_RISC_VELMORA: the Hermitian members
// (complex T), A = P L D L^H P^T with D real (1x1 pivots) or Hermitian
// (2x2): entries of A landing in the lower triangle transposed are
// conjugated, the updates take L21 D L21^H, the diagonal mode mirrors the
// block with conjugates and the Bunch-Kaufman mode runs the Hermitian
// kernels.  Arguments and results as above; BLKLDL_SEQ_VELMORA on a
// complex T is the complex symmetric member (L D L^T, no conjugation).
template <class T>
std::int64_t CH_BLKLDL_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                   FactorWork<T> &work, FactorScalars &sc);
template <class T>
std::int64_t CH_BLKLDL_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                    FactorWork<T> &work, FactorScalars &sc);
template <class T>
std::int64_t CH_BLKLDL_EXACT_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                     FactorWork<T> &work, FactorScalars &sc);

// Counts the update kernels of the LDL^T loop while a record is installed
// (tests and tuning); not synchronised.
void set_ldl_update_kernel_counts(UpdateKernelCounts *counts);

}  // namespace vm

#endif  // VELMORA_FACTOR_BLKLDL_H
