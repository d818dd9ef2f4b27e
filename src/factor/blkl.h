// blkl.h - supernodal left-looking Cholesky, A = L L^T (L L^H on the
// Hermitian types), the family of positive definite matrices.
#ifndef VELMORA_FACTOR_BLKL_H
#define VELMORA_FACTOR_BLKL_H

#include <cstdint>

#include "factor/factor_args.h"

namespace vm {

// BLKL_SEQ_VELMORA: supernodes in increasing order, each prepared from A,
// updated by its descendants through the chains of work.link and
// work.length, factored and linked on to its next target.
//   in:  f (symbolic arrays, lnz), in (values and scatter map), work
//        (indmap, relind, link, length, temp and tmpsiz, nmod), sc
//        (iflag 0, determinant, logdet)
//   out: lnz holds L (lower triangle of each diagonal block and the rows
//        below it); with f.nschur > 0 the panels of the trailing nschur
//        columns hold the Schur complement, unfactored.  sc.iflag: 0, -1
//        (a pivot not positive: that block stops at its unrooted pivot and
//        later panels are left as they were), -2 (tmpsiz too small for an
//        update).  With sc.determinant 1, *sc.logdet gains the sum of
//        log(l_jj^2).  sc.schur_nnz and the return value: the entries of
//        the Schur block.
// The chains are cleared here; temp is scratch (factor_args.h).  Nothing
// is allocated.
template <class T>
std::int64_t BLKL_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                              FactorScalars &sc);

// BLKL_RISC_VELMORA: the parallel member, same arguments and results.  Both
// members go through run_loop (left_looking.h), which runs on the team of
// work.nthreads with the lists of work.top or work.queues, and on one
// thread when work.nthreads is 1 (the driver gives the sequential member
// one).
template <class T>
std::int64_t BLKL_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                               FactorScalars &sc);

// Which update kernels a run took, counted while a record is installed
// (for tests and tuning; none is by default).  Not synchronised: install
// it only around sequential runs.
struct UpdateKernelCounts {
  std::int64_t coinciding = 0;  // row lists equal: one gemm into the panel
  std::int64_t rank1 = 0;       // descendant of one column: scatter_rank1
  std::int64_t buffered = 0;    // tail with gaps: products through temp, then scattered
  std::int64_t direct = 0;      // contiguous tail: gemm into the panel
  std::int64_t skipped = 0;     // descendant in the Schur block
  std::int64_t split = 0;       // buffered, with blocks of long runs straight into the panel
  std::int64_t reach = 0;       // applied to panels after the target's as well
  std::int64_t cut = 0;         // ... fewer of them than it might: temp too small
  std::int64_t pieces = 0;      // pieces of a split supernode applied together
};
void set_update_kernel_counts(UpdateKernelCounts *counts);

}  // namespace vm

#endif  // VELMORA_FACTOR_BLKL_H
