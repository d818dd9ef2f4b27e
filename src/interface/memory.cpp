// memory.cpp - allocation and release of the named memory groups.
#include "interface/memory.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace vm {

namespace {

// Each allocation counts its kilobytes rounded down, plus one.
std::int64_t kilobytes(std::int64_t bytes) {
  return bytes / 1024 + 1;
}

// Large groups (the factor, its update buffers) are walked by the
// numeric phase in scattered steps: on Linux they are offered to
// transparent huge pages, which cuts first-touch faults and TLB misses.
// Only a hint; nothing depends on it being taken.
void advise_huge_pages(void *p, std::int64_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  constexpr std::uintptr_t kHuge = std::uintptr_t{1} << 21;
  if (bytes < std::int64_t{8} << 20) return;
  const std::uintptr_t begin = (reinterpret_cast<std::uintptr_t>(p) + kHuge - 1) & ~(kHuge - 1);
  const std::uintptr_t end =
      (reinterpret_cast<std::uintptr_t>(p) + static_cast<std::uintptr_t>(bytes)) & ~(kHuge - 1);
  if (end > begin) madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE);
#else
  (void)p;
  (void)bytes;
#endif
}

}  // namespace

std::int64_t group_kilobytes(std::int64_t bytes) {
  return kilobytes(bytes);
}

const char *group_name(int code) {
  static const char *const kNames[] = {"BASIC",    "FACT_ADR", "LOC_INT1", "STRUC_S0", "WORK_I0",
                                       "STRUC_S1", "STRUC_S2", "STRUC_FI", "LOC_INT2", "UP_UPLEN",
                                       "FACT_L&U", "WORK_R0",  "CGS_ARR"};
  int k = (code < 0 ? -code : code) / 100;
  if (k < 1 || k > 13) return "";
  return kNames[k - 1];
}

int group_alloc(ControlBlock *cb, void **slot, std::int64_t bytes, int code) {
  if (bytes < 0 || bytes > kMaxGroupBytes || injected_allocation_failure()) {
    if (cb) cb->fail_bytes = bytes;
    return code;
  }
  void *p = std::calloc(1, bytes > 0 ? static_cast<std::size_t>(bytes) : 1);
  if (!p) {
    if (cb) cb->fail_bytes = bytes;
    return code;
  }
  advise_huge_pages(p, bytes);
  *slot = p;
  if (cb) {
    cb->mem_kb += kilobytes(bytes);
    if (cb->mem_kb > cb->mem_peak_kb) cb->mem_peak_kb = cb->mem_kb;
  }
  return 0;
}

int group_realloc(ControlBlock *cb, void **slot, std::int64_t bytes, int code) {
  if (bytes < 0 || bytes > kMaxGroupBytes || injected_allocation_failure()) {
    if (cb) cb->fail_bytes = bytes;
    return code;
  }
  void *old = holds_block(*slot) ? *slot : nullptr;
  void *p = std::realloc(old, bytes > 0 ? static_cast<std::size_t>(bytes) : 1);
  if (!p) {
    if (cb) cb->fail_bytes = bytes;
    return code;
  }
  advise_huge_pages(p, bytes);
  *slot = p;
  return 0;
}

void group_release(void **slot) {
  if (holds_block(*slot)) std::free(*slot);
  *slot = nullptr;
}

}  // namespace vm
