// factor_shell.h - entry of the numeric factorization: the shell called by
// the numeric driver, and the two dispatchers that choose the family
// member by matrix type, precision and parallel mode.
//
// The factor storage comes in untyped (FactorView<void>, FactorWork<void>):
// lnz, unz and temp hold elements of the chosen member's type (double,
// float, or complex pairs), and the dispatcher hands them on typed.
#ifndef VELMORA_FACTOR_FACTOR_SHELL_H
#define VELMORA_FACTOR_FACTOR_SHELL_H

#include <cstdint>

#include "factor/factor_args.h"

namespace vm {

// Status of a member that this build does not provide; the driver reports
// it as an option that is not available.
constexpr int kFactorNotAvailable = -99;

// What the numeric phase knows of the call and of the analysis.
struct FactorOptions {
  int mtype = 2;
  int symmetric_pattern = 1;  // 1: NUMFCT_SYM_VELMORA, else NUMFCT_UNSYM_VELMORA
  int sequential = 1;         // 1: sequential member, 0: parallel one
  int schur_size = 0;         // > 0 forces the sequential member
  int eps_exponent = 0;       // iparm(10)
  int iparm21 = 0;            // 0: diagonal pivoting, else Bunch-Kaufman
  int unit_pivots = 0;        // 1: one-column pivot blocks, whatever iparm21
  int determinant = 0;        // 1: sum the log-determinant
  int single_precision = 0;   // iparm(29)
  int distributed = 0;        // iparm(51)
  int perm_mode = 0;          // the caller's iparm(5)
  int *perm_out = nullptr;    // n: receives the pivoted order (mtype -2, perm_mode 1)
  double phase_start = 0.0;   // wall clock (omp_get_wtime) at the phase's start
};

// Family members of the dispatch table.
enum class FactorMember : int {
  kNone = 0,  // a mode other than 0 or 1: nothing runs
  kBlklSeq,
  kBlklRisc,
  kBlkldlSeq,
  kBlkldlRisc,
  kBlkldlMppEntry,
  kBlkldl32Seq,
  kBlkldl32Risc,
  kChBlklSeq,
  kChBlklRisc,
  kChBlkldlSeq,
  kChBlkldlRisc,
  kCBlkldlSeq,
  kCBlkldlRisc,
  kBlkluSeq,
  kBlkluRisc,
  kBlklu32Seq,
  kBlklu32Risc,
  kCBlkluSeq,
  kCBlkluRisc,
  kBlkluUnsymSeq,
  kBlkluUnsymRisc,
  kBlklu32UnsymSeq,
  kBlklu32UnsymRisc,
  kCBlkluUnsymSeq,
  kCBlkluUnsymRisc,
};

// The member that factors a matrix of type opt.mtype: mode 1 (schur_size
// above 0, or sequential 1) takes the sequential member, mode 0 the
// parallel one, any other mode none.  kNone also for an unknown mtype.
FactorMember select_factor_member(const FactorOptions &opt);

// Routine name of a member, e.g. "BLKL_SEQ_VELMORA"; "" for kNone.
const char *factor_member_name(FactorMember member);

// Pivot threshold 10^-|eps_exponent| (0 when the exponent is 0).
double pivot_threshold(int eps_exponent);

// The threshold fitted to the size of A for the indefinite types: amax is
// the largest magnitude among a(ia(i)+1 .. ia(2)-1) over all rows i, the
// values read as plain doubles (so only the entries of the first row after
// its first take part); amax 0 counts as 1; eps is divided by sqrt(amax)
// when amax >= 1, else multiplied by it.
double fit_threshold(double eps, int n, const int *ia, const double *a);

// NUMFCT_SYM_VELMORA: factorization of mtype 2, -2, 4, -4, 6.  Sets
// sc->eps (fitted for -4, -2, 6), sc->pivot_mode (-1 when iparm21 is 0,
// else 0) and sc->determinant, runs the member and returns sc->iflag:
// 0, -1, -2, or kFactorNotAvailable.  sc->logdet must point at the sum.
int NUMFCT_SYM_VELMORA(const FactorOptions &opt, const FactorView<void> &f, const MatrixInput &in,
                       FactorWork<void> &work, FactorScalars *sc);

// NUMFCT_UNSYM_VELMORA: the same for mtype 1, 3, 11, 13 (LU), with the
// unfitted threshold.
int NUMFCT_UNSYM_VELMORA(const FactorOptions &opt, const FactorView<void> &f, const MatrixInput &in,
                         FactorWork<void> &work, FactorScalars *sc);

// What the shell measures and sums for the caller's report.
struct FactorTimes {
  double a_to_lu = -1;   // seconds from opt.phase_start to the factorization
  double numfct = -1;    // seconds of the factorization; -1 when it failed
  double logdet = 0;     // log |det| (real part), with opt.determinant 1
  double logdet_im = 0;  // its imaginary part (complex LU)
};

// FACTOR_SHELL_VELMORA: the numeric factorization of one call.
//   times: filled as FactorTimes says (its sums start from what it holds).
//   out: iflag (the internal error: 0, -1, -2, kFactorNotAvailable),
//   perturbed, npos, nneg, schur_nnz.  With mtype -2 and perm_mode 1 the
//   fill-reducing order, with the block pivots applied, goes to
//   opt.perm_out.  Returns out->iflag.
int FACTOR_SHELL_VELMORA(const FactorOptions &opt, const FactorView<void> &f, const MatrixInput &in,
                         FactorWork<void> &work, FactorTimes *times, FactorScalars *out);

}  // namespace vm

#endif  // VELMORA_FACTOR_FACTOR_SHELL_H
