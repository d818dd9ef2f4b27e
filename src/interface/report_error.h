// report_error.h - the failure report printed at msglvl above 0.
#ifndef VELMORA_INTERFACE_REPORT_ERROR_H
#define VELMORA_INTERFACE_REPORT_ERROR_H

#include "interface/control.h"

namespace vm {

// Codes of this library beyond the input check's table.
enum FailureCode : int {
  kCodeNullArgument = 31,  // a required argument is a null pointer
  kCodeWrongMatrixNumber = 100,
  kCodeDiagSymbolicOnly = 999,
  kCodeInitContradiction = 1000,
  kCodeNoAnalysis = 100000,
  kCodeNotAvailable = 998,   // a path of the library that this build lacks
  kCodeBadPattern = 32,      // the caller's ia/ja (the fault's words in text, row in arg1)
  kCodeInverseMode = 33,     // iparm(36) outside 0..2 (the value in arg1)
  kCodeInverseWrite = 34,    // a factor file of phase -22 not written (file in text, errno in arg1)
  kCodeInverseRead = 35,     // ... not read back: the factor is lost
  kCodeInverseStopped = 36,  // phase -22: the factor cannot be inverted (kernel status in arg1)
};

// One failure: `result` is what `error` receives, `code` the detailed code,
// arg1/arg2/text the values its message shows.
struct Failure {
  int result = 0;
  int code = 0;
  int arg1 = 0;
  int arg2 = 0;
  const char *text = "";
  long long bytes = 0;  // size of a failed allocation
};

// Prints the class line and the message lines of `f` on standard output.
// cb may be null (the control block could not be allocated); iparm gives
// the memory figures and the refinement and iteration counts.
void report_failure(const Failure &f, const ControlBlock *cb, const int *iparm, int phase);

// Prints one line (printf format, newline added) and flushes, so that the
// report interleaves correctly with the caller's own output.
void report_line(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace vm

#endif  // VELMORA_INTERFACE_REPORT_ERROR_H
