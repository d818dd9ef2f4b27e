/*
 * sched.cpp - work list of the supernodal elimination tree.
 */
#include <cstdint>

#include "analysis/parallel_fill.h"
#include "analysis/symbolic.h"

namespace vm {

std::int64_t sched_work_size(int nsuper) {
  return nsuper > 0 ? nsuper : 0;
}

/*
 * SCHED_VELMORA
 *
 * In:   nsuper; sparent[nsuper], the supernodal parent (0 at a root); every
 *       parent is numbered above its children.
 * Out:  tasklist[nsuper].  Leaves enter negated (-k), in increasing order:
 *       they need no update and are ready at once.  Every other supernode
 *       enters positive right after its last child was listed, so a thread
 *       that takes it knows that all of its children are at least taken.
 * Work: nchild[nsuper], the children of each supernode not yet listed.
 * Returns the number of entries written: nsuper for a proper tree.
 */
int SCHED_VELMORA(int nsuper, const int *sparent, int *nchild, int *tasklist) {
  if (nsuper < 1) return 0;
  parallel_fill(tasklist, nsuper, 0);
  parallel_fill(nchild, nsuper, 0);

  /*
   * Children carry lower numbers than their parent, so when k is reached
   * all its children have been counted: a zero count is final.
   */
  int count = 0;
  for (int k = 1; k <= nsuper; ++k) {
    const int p = sparent[k - 1];
    if (p != 0) ++nchild[p - 1];
    if (nchild[k - 1] == 0) tasklist[count++] = -k;
  }

  /* Breadth-first: a parent enters when its last child has been listed. */
  for (int pos = 0; pos < count; ++pos) {
    const int s = tasklist[pos] < 0 ? -tasklist[pos] : tasklist[pos];
    const int t = sparent[s - 1];
    if (t == 0) continue;
    if (nchild[t - 1]-- == 1 && count < nsuper) tasklist[count++] = t;
  }
  return count;
}

}  // namespace vm
