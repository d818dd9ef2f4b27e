// A numeric call allocates nothing beyond the named groups of the handle:
// once a factorization row and the work group exist, repeating phase 22
// and 33 makes the library call the allocator not at all.  Every
// allocation of the process passes through the counting functions below
// (they take the place of the C library's and of operator new, and call
// the originals); those made by code of the library itself are counted.
// The math library's own buffers are its business and are not counted.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "test_matrices.h"
#include "velmora.h"

#if !defined(__SANITIZE_ADDRESS__)

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
}

namespace {
bool g_counting = false;
int g_allocations = 0;

// Counts an allocation whose immediate caller lies in the library.
void count(void *caller) {
  if (!g_counting) return;
  g_counting = false;  // dladdr itself may allocate
  Dl_info info;
  if (dladdr(caller, &info) != 0 && info.dli_fname && std::strstr(info.dli_fname, "libvelmora"))
    ++g_allocations;
  g_counting = true;
}
}  // namespace

extern "C" void *malloc(size_t size) {
  count(__builtin_return_address(0));
  return __libc_malloc(size);
}
extern "C" void *calloc(size_t n, size_t size) {
  count(__builtin_return_address(0));
  return __libc_calloc(n, size);
}
extern "C" void *realloc(void *p, size_t size) {
  count(__builtin_return_address(0));
  return __libc_realloc(p, size);
}
void *operator new(size_t size) {
  count(__builtin_return_address(0));
  if (void *p = __libc_malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void *p) noexcept {
  __libc_free(p);
}
void operator delete(void *p, size_t) noexcept {
  __libc_free(p);
}

namespace {

TEST(NumericCalls, AllocateOnlyTheirGroups) {
  const auto m = testmat::grid_laplacian(14, 14, 14, true);
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype = 2, solver = 0, error = 0, maxfct = 1, mnum = 1, nrhs = 4, msglvl = 0, n = m.n;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  std::vector<double> a = m.a, b(static_cast<size_t>(n) * nrhs, 1.0), x(b.size());
  std::vector<int> perm(n);
  auto call = [&](int phase) {
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
    return error;
  };
  ASSERT_EQ(call(11), 0);
  g_allocations = 0;
  g_counting = true;
  ASSERT_EQ(call(22), 0);
  const int first = g_allocations;
  g_counting = false;
  EXPECT_EQ(first, 2) << "the factor block and the work group, counted";

  g_allocations = 0;
  g_counting = true;
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(call(22), 0);
    ASSERT_EQ(call(33), 0);
  }
  g_counting = false;
  EXPECT_EQ(g_allocations, 0);
  call(-1);
}

}  // namespace

#endif
