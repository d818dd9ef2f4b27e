// numeric_driver.cpp - dispatch of the stages of analysis and numeric work.
//
// The stages of analysis (ordering, symbolic factorization, sizing) and of
// numeric work are not part of this build yet: every stage reports failure,
// so a matrix that is not diagonal is refused cleanly instead of reaching
// code that does not exist.
#include "interface/numeric_driver.h"

namespace vm {

int NUMERIC_DRIVER_VELMORA(const CallArgs &c, ControlBlock *cb, int *stage) {
  const int code = -1;
  *stage = *stage == kStageNumeric ? -4 : -3;
  return code;
}

}  // namespace vm
