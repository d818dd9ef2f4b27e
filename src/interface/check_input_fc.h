// check_input_fc.h - validation of one call against what the handle
// remembers, and the transfer of iparm into the control block.
#ifndef VELMORA_INTERFACE_CHECK_INPUT_FC_H
#define VELMORA_INTERFACE_CHECK_INPUT_FC_H

#include "interface/control.h"
#include "interface/report_error.h"

namespace vm {

// Result of CHECK_INPUT_FC besides 0 (passed) and a positive code of the
// table: the matrix is diagonal and was handled here.
constexpr int kCheckDiagonalDone = 99;

// CHECK_INPUT_FC
//   in:  the call c, the control block cb, nnz (nonzeros of this call: the
//        stored count for a solve-only call)
//   out: 0, kCheckDiagonalDone, a code of the table (1..20), or the negated
//        row of a diagonal matrix that could not be solved; f receives the
//        values the message shows.  Moves the honoured iparm slots into cb,
//        counts the threads into iparm(3), sets the panel width.
int CHECK_INPUT_FC(const CallArgs &c, ControlBlock *cb, int nnz, Failure *f);

// The team size of a parallel region of the runtime, counted by the team.
int count_threads();

}  // namespace vm

#endif  // VELMORA_INTERFACE_CHECK_INPUT_FC_H
