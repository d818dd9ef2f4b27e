// solve.h - SOLVE_VELMORA: one solve of phase 33 or one correction step of
// refinement.  Three stages in this order: the right-hand sides are
// gathered into elimination order (psol_fwgath), substituted by the family
// of the matrix type (ublkslvs1 for the Cholesky family, ublkldlslvs1 for
// LDL^T), and scattered back (psol_bwscat).  Nothing is allocated here:
// every work array comes from the caller, who learns the sizes from
// solve_work_size.
#ifndef VELMORA_SOLVE_SOLVE_H
#define VELMORA_SOLVE_SOLVE_H

#include <cstdint>
#include <type_traits>

#include "factor/factor_args.h"

namespace vm {

// Status written to the error argument of SOLVE_VELMORA.
constexpr int kSolveOk = 0;
// The matrix type (or its combination with the element type) has no
// substitution family in this build; nothing was written.
constexpr int kSolveTypeNotAvailable = -1;

// What one solve is asked to do.  Index contents are one-based.
struct SolveInput {
  int n = 0;
  int nrhs = 1;
  int mtype = 2;
  int to_b = 0;                     // iparm(6): 1 writes the result into b instead of x
  int selector = 0;                 // iparm(26): which substitution steps run (see ublkslvs1.h)
  int parallel = 1;                 // iparm(25): nonzero runs one right-hand side over the tasks
  int partial = 0;                  // iparm(31): 0 full; 1 partial, length n; 2, 3 compressed to k
  int k = 0;                        // selected nodes of a partial solve (the last k positions)
  int fwnodes = 0;                  // columns the forward pass needs (k in a partial solve)
  int bwnodes = 0;                  // columns the backward pass produces (k in a partial solve)
  const int *unselected = nullptr;  // n: unselected nodes at or before each caller index
  int transposed = 0;               // iparm(12): solve with A^T (general types)
  int scaling_on = 0;               // the scale vector applies
  const double *scale = nullptr;    // 2n: column factors, then row factors
  const int *perm = nullptr;        // n: elimination position -> caller index
  const int *q = nullptr;           // n: matching permutation of general types, or null
  int ntasks = 1;                   // independent subtrees; 1: no partition
  const int *taskrange = nullptr;   // 2*ntasks: (first, last) supernode of each subtree
  int nthreads = 1;                 // iparm(3): blocks of right-hand sides for nrhs > 1
  int iparm21 = 0;                  // pivots of an LDL^T factor: 0 diagonal, else Bunch-Kaufman
  int partitioned = 0;              // 1: the factor came from the block-partitioned member
};

// Elements of T per entry of z.  The gather and the scatter work in double
// precision, so with a single-precision factor each entry of z takes two
// floats: the gathered doubles are narrowed in place (rhs_to_single) into
// the front half, which the substitution uses, and widened back after it.
template <class T>
constexpr std::int64_t kGatherWidth = std::is_same_v<T, float> ? 2 : 1;

// Work of one solve, in elements of the factor's type T (ints for starts).
template <class T>
struct SolveWork {
  T *z = nullptr;         // nrhs*len*kGatherWidth: the right-hand sides in elimination order
  T *temp = nullptr;      // ntasks*n: per-task accumulators, one right-hand side
  T *block = nullptr;     // nrhs*len: update buffers of the block kernels
  int *starts = nullptr;  // p+1: first right-hand side of each block, running from 1
};

// Sizes of the arrays of SolveWork; an array of size 0 may be null.
struct SolveWorkSize {
  std::int64_t z = 0;
  std::int64_t temp = 0;
  std::int64_t block = 0;
  std::int64_t starts = 0;
  std::int64_t scalars() const { return z + temp + block; }
};

// Length of one right-hand side as the solve stores it: k in the compressed
// partial modes, n otherwise.
int solve_vector_length(const SolveInput &in);

// The work SOLVE_VELMORA needs for in (n, nrhs, partial, k, ntasks,
// parallel, nthreads are read):
//   z      nrhs*len
//   temp   ntasks*n when nrhs is 1 and the parallel form runs, else 0
//   block  nrhs*len when nrhs > 1, else 0
//   starts p+1 ints when nrhs > 1 (p = max(1, nthreads)), else 0
SolveWorkSize solve_work_size(const SolveInput &in);

// Cuts SolveWork from one array of sz.scalars() doubles (pairs for complex
// types) and one of sz.starts ints, in the order z, temp, block.  A
// single-precision solve takes 2 sz.z + sz.temp + sz.block floats of it.
template <class T>
SolveWork<T> solve_work_carve(const SolveWorkSize &sz, T *scalars, int *ints) {
  SolveWork<T> w;
  const std::int64_t z = sz.z * kGatherWidth<T>;
  w.z = sz.z > 0 ? scalars : nullptr;
  w.temp = sz.temp > 0 ? scalars + z : nullptr;
  w.block = sz.block > 0 ? scalars + z + sz.temp : nullptr;
  w.starts = sz.starts > 0 ? ints : nullptr;
  return w;
}

// SOLVE_VELMORA
//   in:   f, the factor (read only); in; b, the caller's right-hand sides
//         (nrhs columns of len values, pairs for complex types)
//   out:  x (nrhs columns of len values), or b when in.to_b is 1;
//         *error: kSolveOk or kSolveTypeNotAvailable
//   work: w, sized by solve_work_size(in)
// nrhs 1 runs one substitution whose parallelism is the kernel's own;
// nrhs > 1 splits the right-hand sides into p = iparm(3) blocks (nrhs/p
// each, one more for the first nrhs mod p), run in one parallel region with
// a dynamic schedule of chunk 1, each block through the block kernels on
// its own slice of b, x and the work arrays.
template <class T>
void SOLVE_VELMORA(const FactorView<T> &f, const SolveInput &in, double *b, double *x,
                   const SolveWork<T> &w, int *error);

}  // namespace vm

#endif  // VELMORA_SOLVE_SOLVE_H
