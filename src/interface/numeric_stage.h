// numeric_stage.h - stage 4 of the numeric driver: factorization and
// solve on the groups the phase driver allocated.
#ifndef VELMORA_INTERFACE_NUMERIC_STAGE_H
#define VELMORA_INTERFACE_NUMERIC_STAGE_H

#include <cstdint>

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

// Stage 4: factorization for phase below 30, then the solve for phase
// ending in 3.
int stage_numeric(const CallArgs &c, ControlBlock *cb, int *stage);

}  // namespace vm

#endif  // VELMORA_INTERFACE_NUMERIC_STAGE_H
