// workspace.h - the sizes of the factorization's scratch, given by the
// code that uses it.  The dense buffer temp of a task (see TaskWork in
// factor_args.h) serves one use at a time:
//  - an update of a target by a descendant applied through m of its tail
//    rows as the target's columns: on the buffered path the result block,
//    m columns of `rows` entries each (the tail from the first applied
//    row), and for the LDL^T families the D-scaled copy of the m rows
//    behind it, m x `copy` entries (copy: the descendant's width);
//  - the Bunch-Kaufman panel: the rows below the diagonal block of the
//    target, transposed, ncols x below entries.
// The analysis sizes temp as the largest of these over the structure
// (compute_tmpsiz), and an update cuts the columns it applies at one
// target to what temp holds, never below the target's own: both use the
// functions here, so the two cannot disagree.
#ifndef VELMORA_FACTOR_WORKSPACE_H
#define VELMORA_FACTOR_WORKSPACE_H

#include <cstdint>

namespace vm {

// Entries of temp for an update applied through m rows, with `rows`
// entries per column of the result block (0 when the product goes
// straight into the panels) and `copy` columns of the second factor's
// copy (0 when the product reads the descendant in place).
inline std::int64_t update_temp_entries(std::int64_t m, std::int64_t rows, std::int64_t copy) {
  return m * (rows + copy);
}

// Entries of temp for the Bunch-Kaufman solve of the `below` rows under a
// diagonal block of ncols columns.
inline std::int64_t panel_temp_entries(std::int64_t ncols, std::int64_t below) {
  return ncols * below;
}

// The integer scratch of a factorization run by nthreads tasks: a
// position map and a gather of n entries for each task, the chain heads
// (n) and the lengths (nsuper).  Its dense scratch is tmpsiz entries for
// each task.
inline std::int64_t factor_work_ints(std::int64_t n, std::int64_t nsuper, int nthreads) {
  return 2 * n * nthreads + n + nsuper;
}

// The integer state of the two-level loop over ntop top supernodes with
// nsrc sources of updates: a state per supernode, a cursor per bucket, a
// flag per domain.
inline std::int64_t top_work_ints(std::int64_t ntop, std::int64_t nsrc) {
  return ntop + ntop * nsrc + nsrc;
}

// The integer state of the classical loop: a queue tail per supernode,
// and a queue entry and its rows for each of the `total` updates.
inline std::int64_t queue_work_ints(std::int64_t nsuper, std::int64_t total) {
  return nsuper + 2 * total;
}

}  // namespace vm

#endif  // VELMORA_FACTOR_WORKSPACE_H
