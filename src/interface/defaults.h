// defaults.h - the default columns of iparm and dparm.
#ifndef VELMORA_INTERFACE_DEFAULTS_H
#define VELMORA_INTERFACE_DEFAULTS_H

namespace vm {

// The values `velmorainit` writes: all 64 slots, by mtype.
void init_iparm(int *iparm, int mtype, int solver);

// The values an analysis writes when it finds iparm(1) == 0; slots with no
// reset value keep what the caller had.
void reset_iparm(int *iparm, int mtype);

// The iterative solver's defaults: all 64 slots zeroed, then slots 1..9.
void init_dparm_iterative(double *dparm);

// Whether velmorainit hands the matrix type to the iterative solver.
bool iterative_solver_serves(int mtype, int solver);

}  // namespace vm

#endif  // VELMORA_INTERFACE_DEFAULTS_H
