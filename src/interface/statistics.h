// statistics.h - the report printed after every call at msglvl 1.
#ifndef VELMORA_INTERFACE_STATISTICS_H
#define VELMORA_INTERFACE_STATISTICS_H

#include "interface/control.h"

namespace vm {

// Prints the report of the call c on standard output: title, the timers
// that ran in this call, and the statistics of the matrix and its factors.
// For phase 0 and -1 the title and the release line only (released: rows
// freed by phase -1).  Runs under one lock of the process, on the master
// thread only; it changes nothing but the "total" timer.
void report_statistics(const CallArgs &c, ControlBlock *cb, int released);

}  // namespace vm

#endif  // VELMORA_INTERFACE_STATISTICS_H
