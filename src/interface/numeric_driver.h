// numeric_driver.h - one stage of analysis or numeric work.
#ifndef VELMORA_INTERFACE_NUMERIC_DRIVER_H
#define VELMORA_INTERFACE_NUMERIC_DRIVER_H

#include "interface/control.h"

namespace vm {

// Stages handed to the numeric driver.
enum Stage : int { kStageOrdering = 1, kStageSymbolic = 2, kStageSizing = 3, kStageNumeric = 4 };

// NUMERIC_DRIVER_VELMORA
//   in:  the call c, its control block cb, *stage (1..4)
//   out: 0, or a nonzero code of the stage; then *stage holds the negated
//        result class for the phase driver.
int NUMERIC_DRIVER_VELMORA(const CallArgs &c, ControlBlock *cb, int *stage);

}  // namespace vm

#endif  // VELMORA_INTERFACE_NUMERIC_DRIVER_H
