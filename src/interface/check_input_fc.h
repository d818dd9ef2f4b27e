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

// Faults of a caller's pattern that no later stage survives, in the order
// they are looked for.
enum class PatternFault : int {
  kNone = 0,
  kRowPointers,  // ia(1) is not 1, ia decreases, or ia(n+1)-1 is not nnz
  kColumnRange,  // a column index outside 1..n
  kColumnOrder,  // columns of a row not strictly increasing (unsorted or repeated)
  kLowerEntry,   // an entry below the diagonal in the upper-triangle storage
};

// Looks at the pattern of an analysis before any layer reads it: one pass
// over ia and ja.  The symmetric types (2, -2, 4, -4, 6) give the upper
// triangle only.  Returns the first fault and its one-based row in *row.
PatternFault pattern_fault(int mtype, int n, const int *ia, const int *ja, int nnz, int *row);

// The words of a fault, for the failure report.
const char *pattern_fault_text(PatternFault fault);

// The team size of a parallel region of the runtime, counted by the team.
int count_threads();

// The team a call works with when iparm(3) asks for `asked` threads (at
// least 1): as asked, but never beyond the runtime's thread limit nor
// beyond 8 threads a core (at least 64), so that an absurd count cannot
// make the runtime start, or size work for, billions of threads.
int usable_team(int asked);

}  // namespace vm

#endif  // VELMORA_INTERFACE_CHECK_INPUT_FC_H
