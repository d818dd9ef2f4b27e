// allocation.h - the library's own allocations outside the named groups,
// and the test hook that makes any allocation fail.
//
// The named groups (interface/memory.h) hold everything a handle keeps.
// Some layers of the analysis also take short-lived scratch (the matching,
// the subgraphs of the nested dissection); they take it here, so that a
// refusal is an answer they can report (null, or std::bad_alloc caught by
// the layer) and so that a test can make the k-th allocation of a call
// fail, whichever of the two kinds it is.
#ifndef VELMORA_COMMON_ALLOCATION_H
#define VELMORA_COMMON_ALLOCATION_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

namespace vm {

// True when the allocation about to be made is to fail (the test hook);
// every allocation of the library, group or scratch, asks once.
bool injected_allocation_failure();

// malloc and calloc for scratch: null when refused.  Released by std::free.
void *scratch_malloc(std::size_t bytes);
void *scratch_calloc(std::size_t count, std::size_t size);

// Allocator of scratch vectors: a refusal throws std::bad_alloc, which the
// layer that uses them catches and reports.
template <class T>
struct ScratchAllocator {
  using value_type = T;
  ScratchAllocator() = default;
  template <class U>
  ScratchAllocator(const ScratchAllocator<U> &) {}
  T *allocate(std::size_t n) {
    if (injected_allocation_failure()) throw std::bad_alloc();
    return std::allocator<T>().allocate(n);
  }
  void deallocate(T *p, std::size_t n) { std::allocator<T>().deallocate(p, n); }
  template <class U>
  bool operator==(const ScratchAllocator<U> &) const {
    return true;
  }
  template <class U>
  bool operator!=(const ScratchAllocator<U> &) const {
    return false;
  }
};

template <class T>
using scratch_vector = std::vector<T, ScratchAllocator<T>>;

namespace testing {
// Makes the k-th allocation from now on fail (k >= 1), group or scratch;
// 0 disarms.  Either way the count of allocations starts again at 0.
void fail_allocation_after(int k);
// Allocations asked for since the last fail_allocation_after.
std::int64_t allocations_seen();
}  // namespace testing

}  // namespace vm

#endif  // VELMORA_COMMON_ALLOCATION_H
