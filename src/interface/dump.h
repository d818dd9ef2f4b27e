// dump.h - debug dumps of a call's input and solution, for reproducing a
// run outside the calling program.
//
// The environment decides: VELMORA_WRITE_MAT writes the matrix in the plain
// format, VELMORA_WRITE_MTX as Matrix Market coordinates, VELMORA_WRITE_SOL
// the solution; VELMORA_WRITE_PREFIX replaces the default prefixes
// "mat-velmora" and "sol-velmora".  Presence is what counts, not the value.
// Files are named "<prefix>_<counter>-phase-<phase>.iajaa" (".mtx" for the
// coordinates); each kind has its own counter for the life of the process.
//
// A dump never changes the call's result: a file that cannot be written is
// named at msglvl 1 and skipped.
#ifndef VELMORA_INTERFACE_DUMP_H
#define VELMORA_INTERFACE_DUMP_H

#include "interface/control.h"

namespace vm {

// The matrix (and the right-hand sides of a solving phase) as the call
// received them.  Runs at the start of the phase driver for phases whose
// first digit is not 0.
void dump_input(const CallArgs &c);

// The solution of phases 13, 23 and 33, at the very end of the call.
void dump_solution(const CallArgs &c);

}  // namespace vm

#endif  // VELMORA_INTERFACE_DUMP_H
