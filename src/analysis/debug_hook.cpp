/*
 * debug_hook.cpp - call point for examining arrays of the analysis.
 *
 * The symbolic stage hands its finished index arrays to this function.  It
 * does nothing here; a debugging build can replace the body to print or
 * save the arrays.
 */
#include "analysis/symbolic.h"

namespace vm {

void debug_dump_array(const char *label, const void *array, std::int64_t length, int width_bytes) {
  (void)label;
  (void)array;
  (void)length;
  (void)width_bytes;
}

}  // namespace vm
