// velmora_c.h - the phase driver, owner of the handle.
#ifndef VELMORA_INTERFACE_VELMORA_C_H
#define VELMORA_INTERFACE_VELMORA_C_H

#include "interface/control.h"
#include "interface/report_error.h"

namespace vm {

// VELMORA_CCC: runs the stages that `phase` asks for on the handle c.pt,
// allocating and releasing its memory groups; the result goes to *c.error.
// Returns the detailed code of a failure (0 when none), so that the front
// can tell a failed refinement from other failures.
int VELMORA_CCC(const CallArgs &c);

// The name of the first argument that this call needs and lacks, or null.
const char *missing_argument(const CallArgs &c);

// The working message level: 0 silent, 1 report.
inline int message_level(const int *msglvl) {
  return msglvl && *msglvl != 0 ? 1 : 0;
}

// Ends a call that failed before it reached the handle: reports at message
// level 1 and stores the result (-1 becomes -7 when silent).
void fail_without_handle(const CallArgs &c, const Failure &f);

}  // namespace vm

#endif  // VELMORA_INTERFACE_VELMORA_C_H
