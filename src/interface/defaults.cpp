// defaults.cpp - the Init and Reset columns of iparm, and dparm defaults.
#include "interface/defaults.h"

#include "interface/control.h"

namespace vm {

void init_iparm(int *iparm, int mtype, int solver) {
  for (int k = 1; k <= 64; ++k) ip(iparm, k) = 0;
  ip(iparm, 1) = 1;
  ip(iparm, 2) = 2;
  // Perturbation exponent: tight for the unsymmetric types, loose where
  // 2x2 pivots and refinement are there to repair.
  if (is_sym_indefinite_group(mtype))
    ip(iparm, 10) = 8;
  else if (is_struct_sym_group(mtype))
    ip(iparm, 10) = 13;
  else if (is_unsym_group(mtype))
    ip(iparm, 10) = 12;
  if (mtype == -4 || mtype == 6 || is_unsym_group(mtype)) ip(iparm, 11) = 1;
  if (is_unsym_group(mtype)) ip(iparm, 13) = 1;
  ip(iparm, 18) = -1;
  ip(iparm, 19) = -1;
  if (mtype == -4 || mtype == 6) ip(iparm, 21) = 1;
  ip(iparm, 24) = 1;
  ip(iparm, 25) = 1;
  if (iterative_solver_serves(mtype, solver)) ip(iparm, 32) = 1;
}

void reset_iparm(int *iparm, int mtype) {
  // Slots 1, 26, 27, 30, 32, 34-37, 39-49 and 53-64 keep the caller's values.
  static const int kZeroed[] = {3,  4,  5,  6,  7,  8,  9,  12, 14, 15, 16, 17,
                                20, 22, 23, 24, 25, 28, 29, 31, 33, 38, 50, 51};
  for (int k : kZeroed) ip(iparm, k) = 0;
  ip(iparm, 2) = 2;
  ip(iparm, 10) = is_sym_indefinite_group(mtype)                          ? 8
                  : (is_struct_sym_group(mtype) || is_unsym_group(mtype)) ? 13
                                                                          : 0;
  ip(iparm, 11) = is_unsym_group(mtype) ? 1 : 0;
  ip(iparm, 13) = is_unsym_group(mtype) ? 1 : 0;
  ip(iparm, 18) = -1;
  ip(iparm, 19) = -1;
  ip(iparm, 21) = is_sym_indefinite_group(mtype) ? 1 : 0;
  ip(iparm, 52) = 1;
}

void init_dparm_iterative(double *dparm) {
  for (int k = 0; k < 64; ++k) dparm[k] = 0.0;
  // Stored as the double images of single-precision constants.
  dparm[0] = static_cast<double>(300.0f);   // maximal Krylov iterations
  dparm[1] = static_cast<double>(1.0e-6f);  // relative residual tolerance
  dparm[2] = static_cast<double>(5000.0f);  // size of a directly factored level
  dparm[3] = static_cast<double>(10.0f);    // maximal levels
  dparm[4] = static_cast<double>(1.0e-2f);  // dropping threshold
  dparm[5] = static_cast<double>(5.0e-3f);  // Schur dropping threshold
  dparm[6] = static_cast<double>(10.0f);    // inverse bound
  dparm[7] = static_cast<double>(500.0f);   // fill bound
  dparm[8] = static_cast<double>(25.0f);    // iterations without improvement
}

bool iterative_solver_serves(int mtype, int solver) {
  return solver == 1 && (mtype == -2 || mtype == 6 || mtype == 11);
}

}  // namespace vm
