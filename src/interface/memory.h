// memory.h - the named memory groups of a handle.
//
// All memory behind the handle is taken here, by the phase driver alone.
// A group is identified by its failure code (-100 "BASIC" .. -1300
// "CGS_ARR"); a failed request leaves the slot as it was and returns the
// code, so that the driver can report it and the caller can still release
// the handle with phase -1.  Each request passes the test hook of
// common/allocation.h.
#ifndef VELMORA_INTERFACE_MEMORY_H
#define VELMORA_INTERFACE_MEMORY_H

#include <cstdint>

#include "common/allocation.h"
#include "interface/control.h"

namespace vm {

// Name of the group with failure code `code` (entry abs(code)/100), or "".
const char *group_name(int code);

// Allocates `bytes` zeroed bytes into *slot for the group `code`.  Returns 0,
// or `code` when the size is negative, too large, or the allocator refuses;
// then cb->fail_bytes holds the size asked for.  cb may be null (the
// control block itself); the kilobytes are counted into cb->mem_kb.
int group_alloc(ControlBlock *cb, void **slot, std::int64_t bytes, int code);

// Grows or shrinks *slot to `bytes`, keeping its contents (used to shrink
// the symbolic block to its final size).  Returns 0 or `code`.
int group_realloc(ControlBlock *cb, void **slot, std::int64_t bytes, int code);

// Releases a slot by the sentinel rule: freed unless it holds the sentinel
// or nothing, then set to 0.
void group_release(void **slot);

// Kilobytes a group of `bytes` counts for in the memory figures.  Requests
// beyond kMaxGroupBytes are refused before they reach the allocator: no
// shared-memory machine holds 2^46 bytes, and sizes computed from corrupt
// input must not overflow further arithmetic.
std::int64_t group_kilobytes(std::int64_t bytes);

// Largest request a group accepts; larger sizes fail with the group's code.
constexpr std::int64_t kMaxGroupBytes = std::int64_t{1} << 46;

}  // namespace vm

#endif  // VELMORA_INTERFACE_MEMORY_H
