/*
 * reorder2.cpp - second half of the symbolic factorization: elimination
 * tree in the final order, supernodal tree and its child lists, task list,
 * offsets of L and U, row structure of every supernode, update chains,
 * update counts and the size of the update buffer.
 *
 * All contents are one-based; column j of an array `a` is a[j-1].
 */
#include <algorithm>
#include <cstdint>

#include "analysis/parallel_fill.h"
#include "analysis/symbolic.h"

namespace vm {

std::int64_t reorder2_work_size(int n, int nsuper) {
  const std::int64_t nn = n > 0 ? n : 0;
  return 3 * nn + 1 + (nsuper > 0 ? nsuper : 0);
}

namespace {

/*
 * Offsets of the factor (step 5a, 5b).
 *
 * A supernode k with columns f..l (width w) and a row list of len rows is
 * one dense column-major panel of len x w in lnz, leading dimension len:
 * every one of its columns advances xlnz by len, the rows of the diagonal
 * block above the diagonal included.  U keeps only the rows below the
 * supernode (its diagonal block lies in the panel), len-w per column.
 * Supernodes are walked in order; since the domain ranges tile 1..nsuper
 * in increasing order, the walk by domains visits them in this same order,
 * and the per-domain totals are differences of the offsets.
 *
 * Returns kSymbolicLimit when an offset passes its limit (entries used
 * above the limit), kSymbolicRowList when a supernode is wider than its
 * row list.
 */
int factor_offsets(int n, int nsuper, const int *xsuper, const int *colcnt, int unsym,
                   std::int64_t lnz_limit, std::int64_t unz_limit, std::int64_t *xlnz,
                   std::int64_t *xunz, int *max_width) {
  std::int64_t lnz = 1;
  std::int64_t unz = 1;
  int maxw = 0;
  for (int k = 1; k <= nsuper; ++k) {
    const int first = xsuper[k - 1];
    const int last = xsuper[k] - 1;
    const int width = last - first + 1;
    const std::int64_t len = colcnt[first - 1];
    const std::int64_t below = len - width;
    if (below < 0) return kSymbolicRowList;
    if (width > maxw) maxw = width;
    for (int j = first; j <= last; ++j) {
      xlnz[j - 1] = lnz;
      lnz += len;
      if (lnz_limit > 0 && lnz - 1 > lnz_limit) return kSymbolicLimit;
      if (unsym) {
        xunz[j - 1] = unz;
        unz += below;
        if (unz_limit > 0 && unz - 1 > unz_limit) return kSymbolicLimit;
      }
    }
  }
  xlnz[n] = lnz;
  if (unsym) xunz[n] = unz;
  *max_width = maxw;
  return kSymbolicOk;
}

/*
 * Insert the ascending rows rows[0..count) into the sorted linked list
 * `rowlist` (head at rowlist[0], end marker n+1) in one walk, skipping rows
 * already marked for supernode k.  Returns the number of rows inserted.
 */
int merge_rows(int k, const int *rows, std::int64_t count, int *rowlist, int *mark) {
  int added = 0;
  int prev = 0;
  for (std::int64_t p = 0; p < count; ++p) {
    const int r = rows[p];
    if (mark[r - 1] != k) {
      while (rowlist[prev] < r) prev = rowlist[prev];
      rowlist[r] = rowlist[prev];
      rowlist[prev] = r;
      mark[r - 1] = k;
      ++added;
    }
    prev = r; /* r is in the list now: later rows go after it */
  }
  return added;
}

// Step 3: the supernodal tree.  The parent of supernode k owns the parent
// of k's last column.  Children lists are built from the top down, so that
// children and roots come out in increasing order.  Returns the first root.
int supernodal_tree(int nsuper, const int *parent, const int *xsuper, const int *snode,
                    int *sparent, int *first_child, int *next_sibling) {
  parallel_fill(sparent, nsuper, 0);
  parallel_fill(first_child, nsuper, 0);
  parallel_fill(next_sibling, nsuper, 0);
  int root = 0;
  for (int k = nsuper; k >= 1; --k) {
    const int p = parent[xsuper[k] - 2];
    if (p > 0) {
      const int s = snode[p - 1];
      sparent[k - 1] = s;
      next_sibling[k - 1] = first_child[s - 1];
      first_child[s - 1] = k;
    } else {
      sparent[k - 1] = 0;
      next_sibling[k - 1] = root;
      root = k;
    }
  }
  return root;
}

// Step 5b: the largest lnz (and unz, when xunz is given) of one domain.
void domain_peaks(int ndom, const int *domains, int nsuper, const int *xsuper,
                  const std::int64_t *xlnz, const std::int64_t *xunz, SymbolicCounts *counts) {
  for (int d = 0; d < ndom; ++d) {
    const int sf = domains[2 * d];
    const int sl = domains[2 * d + 1];
    if (sf < 1 || sl < sf || sl > nsuper) continue;
    const int cf = xsuper[sf - 1];
    const int ce = xsuper[sl]; /* first column after the domain */
    counts->lnz_peak = std::max(counts->lnz_peak, xlnz[ce - 1] - xlnz[cf - 1]);
    if (xunz) counts->unz_peak = std::max(counts->unz_peak, xunz[ce - 1] - xunz[cf - 1]);
  }
}

// What step 5d reads and writes.
struct RowStructure {
  int n, nsuper;
  const int *xadj, *adjncy, *perm, *invp, *xsuper, *snode, *first_child, *next_sibling;
  const std::int64_t *xlindx;
  int *lindx, *upd_first, *upd_next;
  int *work;  // 4n+1: marks, the row list, A's rows
};

// Steps 5d and 5e: the row structure of every supernode and the initial
// update chains (see REORDER2_VELMORA).  Returns kSymbolicOk, or
// kSymbolicRowList for a list that does not come out as announced.
int row_structure(const RowStructure &rs) {
  const int n = rs.n, nsuper = rs.nsuper;
  const std::int64_t nn = n;
  const int *xadj = rs.xadj, *adjncy = rs.adjncy, *perm = rs.perm, *invp = rs.invp;
  const int *xsuper = rs.xsuper, *snode = rs.snode, *first_child = rs.first_child,
            *next_sibling = rs.next_sibling;
  const std::int64_t *xlindx = rs.xlindx;
  int *lindx = rs.lindx, *upd_first = rs.upd_first, *upd_next = rs.upd_next;
  int *mark = rs.work;
  int *rowlist = rs.work + nn;
  int *arows = rs.work + 2 * nn + 1;
  const int end_of_list = n + 1;
  parallel_fill(upd_first, nsuper, 0);
  parallel_fill(upd_next, nsuper, 0);
  for (std::int64_t j = 0; j < nn; ++j) mark[j] = 0;
  for (int k = 1; k <= nsuper; ++k) {
    const int first = xsuper[k - 1];
    const int width = xsuper[k] - first;
    const std::int64_t len = xlindx[k] - xlindx[k - 1];
    rowlist[0] = end_of_list;
    std::int64_t count = 0;
    /* f is certainly in the list: it counts even before it is inserted. */
    auto complete = [&]() { return count + (mark[first - 1] != k ? 1 : 0) >= len; };

    for (int c = first_child[k - 1]; c != 0 && !complete(); c = next_sibling[c - 1]) {
      const int cwidth = xsuper[c] - xsuper[c - 1];
      const std::int64_t from = xlindx[c - 1] + cwidth;
      count += merge_rows(k, lindx + (from - 1), xlindx[c] - from, rowlist, mark);
    }
    if (!complete()) {
      const int node = perm[first - 1];
      std::int64_t na = 0;
      for (int p = xadj[node - 1]; p < xadj[node]; ++p) {
        const int i = invp[adjncy[p - 1] - 1];
        if (i > first && mark[i - 1] != k) arows[na++] = i;
      }
      std::sort(arows, arows + na);
      na = std::unique(arows, arows + na) - arows;
      count += merge_rows(k, arows, na, rowlist, mark);
    }
    if (mark[first - 1] != k) {
      rowlist[first] = rowlist[0];
      rowlist[0] = first;
      mark[first - 1] = k;
      ++count;
    }
    if (count != len) return kSymbolicRowList;

    std::int64_t pos = xlindx[k - 1];
    for (int r = rowlist[0]; r != end_of_list; r = rowlist[r]) {
      if (pos - xlindx[k - 1] < width && r != first + (pos - xlindx[k - 1])) {
        return kSymbolicRowList;
      }
      lindx[pos - 1] = r;
      ++pos;
    }

    if (len > width) {
      const int target = snode[lindx[xlindx[k - 1] + width - 1] - 1];
      upd_next[k - 1] = upd_first[target - 1];
      upd_first[target - 1] = k;
    }
  }

  return kSymbolicOk;
}

}  // namespace

/*
 * REORDER2_VELMORA
 *
 * In:   n, nsuper, xadj[n+1], adjncy, perm[n], invp[n], xsuper[nsuper+1],
 *       snode[n], colcnt[n], ndom, domains[2*(ndom+1)] (supernode ranges),
 *       unsym, indefinite, lnz_limit, unz_limit, lindx_size.
 * Out:  parent[n], sparent[nsuper], first_child[nsuper],
 *       next_sibling[nsuper], tasklist[nsuper], xlindx[nsuper+1],
 *       lindx[xlindx(nsuper+1)-1], xlnz[n+1], xunz[n+1] (when unsym),
 *       upd_first[nsuper], upd_next[nsuper], nmod[nsuper], *counts.
 * Work: 3n+1+nsuper ints: work[0..n) ancestors, then row marks;
 *       work[n..2n+1) the sorted row list (head at its entry 0);
 *       work[2n+1..3n+1) rows of A awaiting their merge;
 *       work[3n+1..3n+1+nsuper) the child counters of SCHED_VELMORA.
 */
int REORDER2_VELMORA(const Reorder2Input &in, const Reorder2Output &out, SymbolicCounts *counts,
                     int *work) {
  const int n = in.n, nsuper = in.nsuper, unsym = in.unsym;
  const int *xsuper = in.xsuper, *snode = in.snode, *colcnt = in.colcnt;
  int *parent = out.parent, *sparent = out.sparent, *lindx = out.lindx;
  std::int64_t *xlindx = out.xlindx, *xlnz = out.xlnz, *xunz = out.xunz;
  *counts = SymbolicCounts{0, 1, 0, 0, 0, 0, 0, 0};
  if (n < 0 || nsuper < 0 || nsuper > n || (n > 0 && nsuper == 0) || (unsym && !xunz)) {
    return kSymbolicBadArgument;
  }
  const std::int64_t nn = n;
  int *mark = work;
  int *nchild = work + 3 * nn + 1;

  /* 1. Clear the offsets and the marks. */
  parallel_fill(xlnz, nn + 1, std::int64_t{0});
  if (unsym) parallel_fill(xunz, nn + 1, std::int64_t{0});
  parallel_fill(work, nn, 0);

  /* 2. Elimination tree in the final order, unless the caller has it. */
  if (in.parent_known == 0) etree(n, in.xadj, in.adjncy, in.perm, in.invp, parent, mark);

  /* 3. Supernodal tree. */
  const int root =
      supernodal_tree(nsuper, parent, xsuper, snode, sparent, out.first_child, out.next_sibling);
  counts->first_root = root;

  /* 4. Task list. */
  SCHED_VELMORA(nsuper, sparent, nchild, out.tasklist);

  /* 5a, 5b. Offsets of L and U and the largest totals of one domain. */
  int status = factor_offsets(n, nsuper, xsuper, colcnt, unsym, in.lnz_limit, in.unz_limit, xlnz,
                              xunz, &counts->max_width);
  if (status != kSymbolicOk) return status;
  domain_peaks(in.ndom, in.domains, nsuper, xsuper, xlnz, unsym ? xunz : nullptr, counts);

  /* 5c. Row list pointers: a supernode holds the rows of its first column. */
  xlindx[0] = 1;
  for (int k = 1; k <= nsuper; ++k) xlindx[k] = xlindx[k - 1] + colcnt[xsuper[k - 1] - 1];
  if (xlindx[nsuper] - 1 > in.lindx_size) return kSymbolicLimit;

  /*
   * 5d. Row structure.  The structure of a supernode is that of its first
   * column f: f itself, the rows of A below f in column f, and the rows of
   * every child supernode below the child's own columns (each child's
   * rows lie in the structure of the column its last column hangs from,
   * which is contained in f's).  Children's lists are sorted, so each is
   * merged by one walk of the sorted list; A's rows come in original order
   * and are sorted first.  A mark per row and supernode lets a row enter
   * once.  The merging stops as soon as the list holds as many rows as
   * colcnt(f) announces; a list that does not reach exactly that length,
   * or does not start with the supernode's own columns, is an error.
   *
   * 5e. Update chains.  A left-looking factorization, when it comes to
   * supernode J, must apply the updates of every earlier supernode K with
   * a row in J.  It keeps each finished K on the chain of the one
   * supernode K must update next; the chain of J thus lists exactly the
   * K whose next target is J.  Before any update, the next target of K is
   * the owner of its first row below its own columns, which is its parent
   * in the supernodal tree; so each K with rows below its columns starts on
   * its parent's chain.  After applying K to J, the factorization moves K
   * to the owner of its first row beyond J.  upd_first/upd_next are that
   * initial state.  They hold the same sets as the child lists of step 3,
   * but are a separate copy because the factorization consumes and
   * relinks them, while the child lists describe the tree for the
   * scheduler and must stay intact.
   */
  status = row_structure(RowStructure{n, nsuper, in.xadj, in.adjncy, in.perm, in.invp, xsuper,
                                      snode, out.first_child, out.next_sibling, xlindx, lindx,
                                      out.upd_first, out.upd_next, work});
  if (status != kSymbolicOk) return status;

  /* 6. Entry counts.  U: 1 when not stored or empty. */
  counts->nnzl = xlnz[n] - 1;
  counts->nnzu = unsym ? xunz[n] - 1 : 1;
  if (counts->nnzu == 0) counts->nnzu = 1;
  counts->nsub = xlindx[nsuper] - 1;

  /* 7. Debug hook. */
  debug_dump_array("index pointer xlindx", xlindx, std::int64_t{nsuper} + 1, 8);
  debug_dump_array("index pointer xlnz", xlnz, nn + 1, 8);
  debug_dump_array("index pointer xunz", xunz, unsym ? nn + 1 : 0, 8);
  debug_dump_array("index array lindx", lindx, counts->nsub, 4);

  /* 8. Update buffer size and update counts. */
  counts->tmpsiz = compute_tmpsiz(n, nsuper, xsuper, xlindx, lindx, snode, in.indefinite);
  FNPMOD_VELMORA(nsuper, xsuper, xlindx, lindx, snode, out.nmod);
  return kSymbolicOk;
}

}  // namespace vm
