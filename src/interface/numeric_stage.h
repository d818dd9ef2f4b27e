// numeric_stage.h - stage 4 of the numeric driver: factorization and
// solve on the groups the phase driver allocated.
#ifndef VELMORA_INTERFACE_NUMERIC_STAGE_H
#define VELMORA_INTERFACE_NUMERIC_STAGE_H

#include <cstdint>

#include "factor/factor_args.h"
#include "interface/control.h"
#include "solve/solve.h"

namespace vm {

// Slots of a factor-table row.
enum FactorRowSlot : int {
  kRowValues = 0,    // the block: lnz, unz, pivot, pivot_col
  kRowTag = 1,       // 777777777 until allocated, then the block's address
  kRowBytes = 2,     // its size
  kRowFactored = 3,  // 1 once a factorization completed in it
  kRowSingle = 4,    // 1 when its factor is held in single precision
};

// Bytes of the factor block of one factorization row, in the precision the
// control block asks for.
std::int64_t factor_row_bytes(const ControlBlock *cb);

// What a solve of this call reads from the handle and the call, built
// once per call: it points into the symbolic block, which a call that
// solves does not move.
SolveInput solve_input(const CallArgs &c, const ControlBlock *cb);

// Bytes of the work group pt(10) that a call needs: the factorization's
// integer maps and update buffers when it factors, the solve's work for
// the right-hand sides of `solve` unless it is null.
std::int64_t numeric_work_bytes(const ControlBlock *cb, bool factor, const SolveInput *solve);

// Bytes of the refinement group pt(11) for the solve `in` of this call; 0
// when no refinement runs.
std::int64_t refine_work_bytes(const CallArgs &c, const ControlBlock *cb, const SolveInput &in);

// The factorization of row mnum, and the solve `in` with its refinement
// on it.  Each returns 0 or a code; *stage receives the result class.
int numeric_factorize(const CallArgs &c, ControlBlock *cb, int *stage);
int numeric_solve(const CallArgs &c, ControlBlock *cb, const SolveInput &in, int *stage);

// Bytes of pt(11) for the hybrid iteration of the solve `in`.
std::int64_t hybrid_work_bytes(const CallArgs &c, const ControlBlock *cb, const SolveInput &in);

// The hybrid solve on the stored factor of row mnum: x0 by one
// substitution (its seconds in *solve_seconds), the limit of the run from
// `budget_of`, then the iteration on the caller's matrix in pt(11).
// Returns 0 or a code of the solve; *code and *iterations are the run's.
struct HybridRun {
  bool allowed = true;  // false: the limit allowed no iteration (code -3)
  int code = 0;
  int iterations = 0;
  double solve_seconds = 0.0;
};
int numeric_hybrid(const CallArgs &c, ControlBlock *cb, const SolveInput &in,
                   int (*budget_of)(ControlBlock *, double), HybridRun *run);

// The factor of row mnum with what the analysis fixed, untyped (the
// element type follows from cb->s), when the handle holds a completed
// factorization there; false otherwise (no handle, no analysis, mnum out
// of range, a row never factored or whose factorization failed).
bool stored_factor(void **pt, int mnum, FactorView<void> *f);

// Selected inversion (phase -22) of the factor of row mnum, which
// stored_factor found.  Bytes of the kernels' work group, and of the copy
// of the factor that iparm(36) 1 keeps.
std::int64_t inverse_work_bytes(void **pt, const ControlBlock *cb);
std::int64_t inverse_copy_bytes(const ControlBlock *cb);

// What stopped an inversion: a factor file that could not be written or
// read back, or the kernel's status (selinv.h).
struct InverseFailure {
  const char *file = "";
  int sys_error = 0;  // errno
  bool reading = false;
  int kernel = 0;
};

// The inversion with the factor kept as iparm(36) asks: 0 not kept, 1 in
// `copy`, 2 in the files of the working directory.  The entries of A^-1
// on the caller's pattern replace a.  Returns 0, or 1 when a factor file
// failed (*fe says which; written before the inversion, the factor is
// intact; read back after it, the factor is lost), or 2 when the kernel
// could not invert the factor (a untouched, a kept factor restored).
int numeric_inverse(const CallArgs &c, ControlBlock *cb, void *work, void *copy,
                    InverseFailure *fe);

// Stage 4: factorization for phase below 30, then the solve for phase
// ending in 3.
int stage_numeric(const CallArgs &c, ControlBlock *cb, int *stage);

}  // namespace vm

#endif  // VELMORA_INTERFACE_NUMERIC_STAGE_H
