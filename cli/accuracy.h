// accuracy.h - solving to a backward error target on a factored handle.
//
// Static pivoting keeps the factorization fast but leaves some answers
// short of working accuracy: a perturbed pivot is a small change of the
// matrix that refinement may not undo, and a factor without perturbed pivots
// can still leave a residual that the library's default (no refinement then)
// keeps.  The policy here is what the library's own front ends do about it:
//
//   1. the first solve, with the caller's controls;
//   2. when its backward error misses the target: the solve again, asking
//      for explicit refinement steps (iparm(8)), whatever was perturbed;
//   3. when refinement stalls: flexible GMRES on A, each iteration
//      preconditioned by one solve with the factor; a few perturbed pivots
//      are a low-rank change of A, which the Krylov method removes in about
//      as many iterations.
//
// Refactoring with the other matching and scaling choice, the last resort,
// needs a new analysis and is left to the caller (velmora-solve does it).
//
// The backward error is the normwise ||b - A x||_inf / (||A||_inf ||x||_inf +
// ||b||_inf), the largest over the right-hand sides, computed here from the
// matrix as the library holds it.
#ifndef VELMORA_CLI_ACCURACY_H
#define VELMORA_CLI_ACCURACY_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vmcli {

// The system as handed to the library: one-based CSR, the upper triangle for
// the symmetric and Hermitian types, values as (re, im) pairs when complex.
struct SystemView {
  int mtype = 11;
  int32_t n = 0;
  const int32_t *ia = nullptr;
  const int32_t *ja = nullptr;
  const double *a = nullptr;
};

// A handle after analysis and factorization, and what its solves need.
struct HandleView {
  void **pt = nullptr;
  int *iparm = nullptr;
  double *dparm = nullptr;
  int *perm = nullptr;
  int msglvl = 0;
};

struct AccuracyGoal {
  double target = 1e-14;  // backward error to reach
  int refine_steps = 10;  // iparm(8) of the explicit refinement
  int krylov_iterations = 150;
  int krylov_restart = 30;
};

// What the policy did; a stage not run has its backward error below 0.
struct AccuracyReport {
  double first = -1.0;              // after the first solve
  int first_steps = 0;              // refinement steps the library made then (iparm(7))
  double refined = -1.0;            // after the explicit refinement
  int refined_steps = 0;            // iparm(7) of that solve
  bool refine_interrupted = false;  // the library stopped it (contraction)
  double krylov = -1.0;             // after the Krylov continuation
  int krylov_iterations = 0;
  double best = -1.0;  // the backward error of the x handed back
  bool reached = false;
  int error = 0;  // a library error that stopped the policy
  int failed_phase = 0;
};

bool is_complex_type(int mtype);

// ||A||_inf of the whole matrix, and the normwise backward error of x.
double matrix_norm_inf(const SystemView &s);
double backward_error(const SystemView &s, double anorm, const double *x, const double *b,
                      int nrhs);

// Solves with h for the nrhs columns of b into x and applies the policy.
// x holds the best solution found whatever the outcome.  iparm(8) is
// restored on return.
AccuracyReport solve_to_target(const SystemView &s, const HandleView &h, int nrhs, const double *b,
                               double *x, const AccuracyGoal &goal);

// The structural rank: the size of a maximum matching of rows to columns
// of the whole pattern (symmetric storage is mirrored).
int32_t structural_rank(const SystemView &s);

// Lines that tell what the policy did, for a report: a label and a text
// that starts with the backward error of the stage.
std::vector<std::pair<std::string, std::string>> describe(const AccuracyReport &r,
                                                          const AccuracyGoal &goal);

}  // namespace vmcli

#endif  // VELMORA_CLI_ACCURACY_H
