// selinv.h - selected inversion: the entries of A^-1 on the pattern of the
// factor, from a stored supernodal factor, without forming A^-1.
//
// The factor is that of M = P S A S P^T (symmetric types) or of
// M = P Q Dr A Dc P^T (general types), see gather_scatter.h.  Each pivot
// block of a supernode K is factored with exchanges inside the block, so
// M = L D U with unit block triangular L, U and D_K the block itself;
// writing B for the rows below K (a clique of the filled graph), the
// inverse satisfies, from the last supernode to the first:
//   M^-1(B, K) = -M^-1(B, B) L(B, K)
//   M^-1(K, B) = -U(K, B) M^-1(B, B)
//   M^-1(K, K) = D_K^-1 + U(K, B) M^-1(B, B) L(B, K)
// The kernels first turn every panel into L(B, K), U(K, B) and D_K^-1 (the
// factor stage), then run this recursion with M^-1(B, B) gathered densely
// from the blocks already inverted (the inversion stage): level-3 BLAS on
// the supernode blocks throughout.  M^-1 overwrites the factor; the
// entries the caller's pattern names are then written into the caller's
// array a, as entries of A^-1.
//
// Kernels, one per family, each a template over the element type:
//   BLKLDL_INVERSE_COM (double, mtype -2), C_BLKLDL_INVERSE_COM (zcomplex,
//   6): LDL^T with 1x1 pivots (exchanges or Bunch-Kaufman storage);
//   BLKLU_INVERSE_COM (1), C_BLKLU_INVERSE_COM (3): LU with row exchanges;
//   BLKLU_UNSYM_INVERSE_COM (11), C_BLKLU_UNSYM_INVERSE_COM (13): LU with
//   row and column exchanges.
// A factor the kernels cannot invert (a 2x2 pivot, a zero pivot, a row
// list that breaks the clique property) gets its message on standard
// output and ends the kernel with a status; the caller's a is then not
// written, and what the kernel did to the factor is for the driver to
// repair (it restores a kept factor).
#ifndef VELMORA_SOLVE_SELINV_H
#define VELMORA_SOLVE_SELINV_H

#include <cstdint>

#include "factor/factor_args.h"

namespace vm {

// What maps M^-1 back to the caller's A^-1, and the caller's matrix.
struct InverseInput {
  const int *ia = nullptr;  // caller's pattern, one-based
  const int *ja = nullptr;
  double *a = nullptr;            // out: A^-1 at the pattern's places (pairs for complex)
  const int *perm = nullptr;      // elimination position -> caller's index
  const int *invp = nullptr;      // its inverse
  const int *q = nullptr;         // matching of a general type, or null
  const double *scale = nullptr;  // 2n factors (columns, then rows), or null
  int scaling_on = 0;
  bool bunch_kaufman = false;  // LDL^T blocks in the storage of dsytf2_pert
  bool verbose = false;        // times of the stages on standard output
};

// The kernels' work, carved from one group by selinv_work_carve.
template <class T>
struct InverseWork {
  int *relpos = nullptr;  // maxb: places of the rows below K in an ancestor's list
  int *qinv = nullptr;    // n: inverse of the matching
  T *G = nullptr;         // maxb * maxb: M^-1(B, B)
  T *Y = nullptr;         // maxb * maxk
  T *Z = nullptr;         // maxb * maxk
  T *D = nullptr;         // maxk * maxk: a block's D_K^-1
};

// Sizes of that work for a factor: widest supernode, longest row list
// below a supernode's columns.
struct InverseWorkSize {
  std::int64_t maxk = 0, maxb = 0, n = 0;
  std::int64_t ints() const { return maxb + n; }
  std::int64_t scalars() const { return maxb * maxb + 2 * maxb * maxk + maxk * maxk; }
};
InverseWorkSize selinv_work_size(const SymbolicFactor &f);

template <class T>
InverseWork<T> selinv_work_carve(const InverseWorkSize &sz, void *base);

// Status of a kernel.
enum InverseStatus : int {
  kInverseDone = 0,
  kInverse2x2 = 1,       // a 2x2 pivot in the factor
  kInverseSingular = 2,  // a pivot block that has no inverse
  kInverseIndex = 3,     // an index check failed
};

// The kernels.  On success the entries of A^-1 replace the caller's a at
// every place whose entry of M^-1 the factor's pattern holds (the others
// keep their value; with a structurally symmetric pattern there are none).
template <class T>
int BLKLDL_INVERSE_COM(const FactorView<T> &f, const InverseInput &in, int n,
                       const InverseWork<T> &w);
template <class T>
int BLKLU_INVERSE_COM(const FactorView<T> &f, const InverseInput &in, int n,
                      const InverseWork<T> &w);
template <class T>
int BLKLU_UNSYM_INVERSE_COM(const FactorView<T> &f, const InverseInput &in, int n,
                            const InverseWork<T> &w);

// The pieces the three kernels share (selinv_common.cpp).
namespace selinv {

// The message of a failed block: what, the error, the supernode and its
// width, on standard output.
void block_message(const char *what, int error, int jpanel, int njcol);

// The inversion stage over every supernode, from the last to the first,
// on normalized panels (lu: unz holds U(K, B)^T).  Returns a status.
template <class T>
int recursion(const FactorView<T> &f, bool lu, const InverseWork<T> &w);

// M^-1 into the caller's a.
template <class T>
void write_result(const FactorView<T> &f, bool lu, const InverseInput &in, int n,
                  const InverseWork<T> &w);

// The LU kernel of both LU families (blklu_inverse.cpp): with
// column_exchanges the block's column exchanges (pivot_col) apply too.
template <class T>
int lu_inverse(const FactorView<T> &f, const InverseInput &in, int n, const InverseWork<T> &w,
               bool column_exchanges);

// Wall-clock line "[VELMORA]: <label> <seconds>" when verbose.
void time_line(bool verbose, const char *label, double seconds);

}  // namespace selinv

}  // namespace vm

#endif  // VELMORA_SOLVE_SELINV_H
