// allocation.cpp - scratch allocations and the failure hook.
#include "common/allocation.h"

#include <atomic>
#include <cstdlib>

namespace vm {

namespace {
// Handles used at once from several threads all pass here: atomics.
std::atomic<int> g_fail_countdown{0};
std::atomic<std::int64_t> g_seen{0};
}  // namespace

bool injected_allocation_failure() {
  g_seen.fetch_add(1, std::memory_order_relaxed);
  if (g_fail_countdown.load(std::memory_order_relaxed) <= 0) return false;
  return g_fail_countdown.fetch_sub(1, std::memory_order_relaxed) == 1;
}

void *scratch_malloc(std::size_t bytes) {
  if (injected_allocation_failure()) return nullptr;
  return std::malloc(bytes > 0 ? bytes : 1);
}

void *scratch_calloc(std::size_t count, std::size_t size) {
  if (injected_allocation_failure()) return nullptr;
  if (count == 0 || size == 0) count = size = 1;
  return std::calloc(count, size);
}

namespace testing {
void fail_allocation_after(int k) {
  g_fail_countdown.store(k > 0 ? k : 0, std::memory_order_relaxed);
  g_seen.store(0, std::memory_order_relaxed);
}
std::int64_t allocations_seen() {
  return g_seen.load(std::memory_order_relaxed);
}
}  // namespace testing

}  // namespace vm
