/*
 * sparse_assert.h - invariants of the sparse records (smat, perm, bitvec).
 *
 * Misuse of these records is a programming error, not a condition a caller
 * can recover from: a failed invariant prints the condition as written and
 * the record family it belongs to, then stops the process.
 */
#ifndef VELMORA_ANALYSIS_SPARSE_ASSERT_H
#define VELMORA_ANALYSIS_SPARSE_ASSERT_H

#include <cstdio>
#include <cstdlib>

[[noreturn]] inline void vm_sparse_assert_fail(const char *text, const char *family,
                                               const char *file, int line) {
  std::fprintf(stderr, "Assertion \"%s\" failed in %s (%s:%d)\n", text, family, file, line);
  std::fflush(stderr);
  std::abort();
}

/* Check `expr`; on failure print it as spelled here. */
#define VM_SPARSE_ASSERT(expr, family) VM_SPARSE_ASSERT_TEXT(expr, #expr, family)

/*
 * Check `expr`; on failure print `text`.  Used where the source spelling of
 * the condition differs from the form it is known by (casts, spacing).
 */
#define VM_SPARSE_ASSERT_TEXT(expr, text, family) \
  ((expr) ? (void)0 : vm_sparse_assert_fail(text, family, __FILE__, __LINE__))

#endif /* VELMORA_ANALYSIS_SPARSE_ASSERT_H */
