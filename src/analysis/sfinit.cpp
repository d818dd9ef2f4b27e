/*
 * sfinit.cpp - first half of the symbolic factorization: elimination tree,
 * Schur postorder, first-son lists, column counts, fundamental supernodes,
 * and the domain list in supernode numbers.
 *
 * All contents are one-based; column j of an array `a` is a[j-1].
 */
#include <cstdint>

#include "analysis/parallel_fill.h"
#include "analysis/symbolic.h"

namespace vm {

namespace {

/*
 * True when the (first, last) pairs cover 1..total in order, each pair
 * starting where the previous one ended; empty pairs (last == first-1)
 * are allowed.
 */
bool ranges_tile(int npairs, const int *pairs, int total) {
  int expect = 1;
  for (int d = 0; d < npairs; ++d) {
    const int first = pairs[2 * d];
    const int last = pairs[2 * d + 1];
    if (first != expect || last < first - 1 || last > total) return false;
    expect = last + 1;
  }
  return expect == total + 1;
}

/*
 * Postorder of a forest over the columns lo..hi.
 * In:   lo <= hi (one-based positions), parent[n]; select: when not null,
 *       only columns j with select[j-1] == want belong to the forest.
 *       A column whose parent lies outside lo..hi or is not selected is a
 *       root.  Children and roots are visited in increasing order.
 * Out:  out[*fill], out[*fill+1], ... receive perm of the visited columns
 *       in postorder; *fill advances by their number.
 * Work: head, next, stack, each indexed by column (n entries).
 */
void postorder_range(int lo, int hi, const int *parent, const int *select, int want,
                     const int *perm, int *head, int *next, int *stack, int *out, int *fill) {
  int roots = 0;
  for (int j = lo; j <= hi; ++j) head[j - 1] = 0;
  for (int j = hi; j >= lo; --j) {
    if (select != nullptr && select[j - 1] != want) continue;
    const int p = parent[j - 1];
    if (p >= lo && p <= hi && (select == nullptr || select[p - 1] == want)) {
      next[j - 1] = head[p - 1];
      head[p - 1] = j;
    } else {
      next[j - 1] = roots;
      roots = j;
    }
  }
  for (int r = roots; r != 0; r = next[r - 1]) {
    int top = 0;
    stack[top++] = r;
    while (top > 0) {
      const int j = stack[top - 1];
      const int child = head[j - 1];
      if (child != 0) {
        head[j - 1] = next[child - 1]; /* unlink: each child is pushed once */
        stack[top++] = child;
      } else {
        --top;
        out[(*fill)++] = perm[j - 1];
      }
    }
  }
}

void rebuild_invp(int n, const int *perm, int *invp) {
  for (int k = 1; k <= n; ++k) invp[perm[k - 1] - 1] = k;
}

// The arrays of one call of sfinit, shared by its steps.
struct SfinitState {
  int n;
  std::int64_t nn;
  int *ndom, *domains;
  const int *xadj, *adjncy;
  int *perm, *invp, *parent, *colcnt, *snode, *xsuper, *work;
  int limit, nschur, schur_mode;
  // Views into work, for steps 3 and 4.
  int *fson, *brother, *mark, *rowcnt;
};

/*
 * Step 2: the Schur rows n-s+1..n form the tail in natural order, and the
 * other columns are postordered within each domain range (in closure mode
 * the columns reaching a Schur row last); the tree is rebuilt after any
 * change.  Leaves work and colcnt cleared.
 */
void schur_tail(SfinitState &s) {
  const int n = s.n;
  const std::int64_t nn = s.nn;
  const int nschur = s.nschur, schur_mode = s.schur_mode;
  int *ndom = s.ndom, *domains = s.domains, *perm = s.perm, *invp = s.invp, *parent = s.parent;
  int *colcnt = s.colcnt, *snode = s.snode, *work = s.work;
  const int *xadj = s.xadj, *adjncy = s.adjncy;
  const int ns = n - nschur; /* last non-Schur position */
  int *head = work;
  int *next = work + nn;
  int *stack = work + 2 * nn;
  int *flag = colcnt;    /* scratch until step 4 */
  int *neworder = snode; /* scratch until step 5 */
  bool reordered = false;

  /*
   * The Schur rows n-s+1..n must form the tail, in natural order.  The
   * ordering stage normally puts them there; a caller's permutation may
   * not.  A stable partition moves them, and since the domain ranges no
   * longer hold after that, the list falls back to one domain.
   */
  bool tail_in_place = true;
  for (int i = 1; i <= nschur; ++i) {
    if (perm[ns + i - 1] != ns + i) {
      tail_in_place = false;
      break;
    }
  }
  if (!tail_in_place) {
    int fill = 0;
    for (int k = 1; k <= n; ++k) {
      if (perm[k - 1] <= ns) neworder[fill++] = perm[k - 1];
    }
    for (int i = 1; i <= nschur; ++i) neworder[fill++] = ns + i;
    for (int k = 0; k < n; ++k) perm[k] = neworder[k];
    if (*ndom >= 1) {
      domains[0] = 1;
      domains[1] = n - 1;
      domains[2] = n;
      domains[3] = n;
      *ndom = 1;
    } else {
      domains[0] = 1;
      domains[1] = n;
    }
    rebuild_invp(n, perm, invp);
    etree(n, xadj, adjncy, perm, invp, parent, work);
    reordered = true;
  }

  const int nranges = ranges_tile(*ndom + 1, domains, n) ? *ndom + 1 : 0;
  const int whole[2] = {1, n};
  const int *range = nranges > 0 ? domains : whole;
  const int nr = nranges > 0 ? nranges : 1;

  if (schur_mode != kSchurKeepOrder && ns > 0) {
    /*
     * Postorder of the non-Schur columns, within each range so that the
     * domains keep their columns.  A postorder puts every column's last
     * child right before it, which lengthens the chains that become
     * supernodes; any order in which children precede parents leaves
     * the fill unchanged.
     *
     * In closure mode the columns whose structure in L reaches a Schur
     * row (neighbours of a Schur row and, upward in the tree, all their
     * ancestors) go last in their range, each group postordered.  This
     * is still a topological order: that set is closed upward, so no
     * column outside it has a child inside it.
     */
    const bool closure = schur_mode != kSchurPostorder;
    if (closure) {
      for (int j = 1; j <= ns; ++j) {
        const int node = perm[j - 1];
        flag[j - 1] = 0;
        for (int p = xadj[node - 1]; p < xadj[node]; ++p) {
          if (adjncy[p - 1] > ns) {
            flag[j - 1] = 1;
            break;
          }
        }
      }
      for (int j = 1; j <= ns; ++j) {
        const int p = parent[j - 1];
        if (flag[j - 1] != 0 && p > 0 && p <= ns) flag[p - 1] = 1;
      }
    }
    for (int d = 0; d < nr; ++d) {
      const int lo = range[2 * d];
      const int hi = range[2 * d + 1] < ns ? range[2 * d + 1] : ns;
      if (lo > hi) continue;
      int fill = lo - 1;
      if (closure) {
        postorder_range(lo, hi, parent, flag, 0, perm, head, next, stack, neworder, &fill);
        postorder_range(lo, hi, parent, flag, 1, perm, head, next, stack, neworder, &fill);
      } else {
        postorder_range(lo, hi, parent, nullptr, 0, perm, head, next, stack, neworder, &fill);
      }
      for (int k = lo; k <= hi; ++k) perm[k - 1] = neworder[k - 1];
    }
    reordered = true;
  }

  if (reordered) {
    rebuild_invp(n, perm, invp);
    /* The tree again, each range walked by its own (first, last). */
    int *ancestor = work;
    for (int d = 0; d < nr; ++d) {
      etree_range(range[2 * d], range[2 * d + 1], xadj, adjncy, perm, invp, parent, ancestor);
    }
  }
  parallel_fill(work, sfinit_work_size(n), 0);
  parallel_fill(colcnt, nn, 0);
}

/* Step 3: first-son and brother lists; returns the first root. */
int sons_and_brothers(SfinitState &s) {
  const int n = s.n;
  const int *parent = s.parent;
  int *fson = s.fson, *brother = s.brother;
  /* Sons and roots end in increasing order. */
  int root = 0;
  for (int j = n; j >= 1; --j) {
    const int p = parent[j - 1];
    fson[j - 1] = 0;
    if (p <= 0 || p == j) {
      brother[j - 1] = root;
      root = j;
    } else {
      brother[j - 1] = fson[p - 1];
      fson[p - 1] = j;
    }
  }
  return root;
}

/* Step 4: column counts into colcnt (and rowcnt); returns the entries of L. */
std::int64_t column_counts(SfinitState &s, int root) {
  const int n = s.n;
  const std::int64_t nn = s.nn;
  const int *xadj = s.xadj, *adjncy = s.adjncy, *perm = s.perm, *invp = s.invp, *parent = s.parent;
  int *colcnt = s.colcnt, *work = s.work;
  int *fson = s.fson, *brother = s.brother, *mark = s.mark, *rowcnt = s.rowcnt;
  /*
   * 4. Column and row counts.  Row j of L is the union of the tree paths
   * from each i < j with A(j, i) != 0 up to j (its row subtree).  Instead of
   * walking every path, which costs as much as L has entries, the counts
   * come from the leaves of the row subtrees and their least common
   * ancestors, visited in a postorder of the tree: column j gains one for
   * each row subtree it is a leaf of and loses one for each one it is the
   * meeting point of two leaves of; summed up the tree this gives the
   * column counts, and the tree levels of the leaves give the row counts.
   * Work beyond the lists: post, first, maxfirst, prevleaf, ancestor, level.
   */
  int *post = work + 4 * nn + 1;
  int *first = post + nn;
  int *maxfirst = first + nn;
  int *prevleaf = maxfirst + nn;
  int *ancestor = prevleaf + nn;
  int *level = ancestor + nn;
  auto parent_of = [parent](int j) {
    const int p = parent[j - 1];
    return (p <= 0 || p == j) ? 0 : p;
  };
  {
    int *stack = mark;
    int *next_child = prevleaf;  // scratch during the walk
    int k = 0;
    for (int r = root; r != 0; r = brother[r - 1]) {
      int top = 0;
      stack[top++] = r;
      next_child[r - 1] = fson[r - 1];
      while (top > 0) {
        const int j = stack[top - 1];
        const int c = next_child[j - 1];
        if (c != 0) {
          next_child[j - 1] = brother[c - 1];
          next_child[c - 1] = fson[c - 1];
          stack[top++] = c;
        } else {
          --top;
          post[k++] = j;
        }
      }
    }
  }
  for (int j = n; j >= 1; --j) {
    const int p = parent_of(j);
    level[j - 1] = p != 0 ? level[p - 1] + 1 : 0;
    first[j - 1] = -1;
    maxfirst[j - 1] = -1;
    prevleaf[j - 1] = 0;
    ancestor[j - 1] = j;
    rowcnt[j - 1] = 0;
  }
  for (int k = 0; k < n; ++k) {
    int j = post[k];
    colcnt[j - 1] = first[j - 1] == -1 ? 1 : 0;  // a leaf of the tree
    for (; j != 0 && first[j - 1] == -1; j = parent_of(j)) first[j - 1] = k;
  }
  for (int k = 0; k < n; ++k) {
    const int j = post[k];
    const int p = parent_of(j);
    if (p != 0) --colcnt[p - 1];
    const int node = perm[j - 1];
    for (int q = xadj[node - 1]; q < xadj[node]; ++q) {
      const int i = invp[adjncy[q - 1] - 1];
      if (i <= j || first[j - 1] <= maxfirst[i - 1]) continue;  // no new leaf of row i
      maxfirst[i - 1] = first[j - 1];
      const int jprev = prevleaf[i - 1];
      prevleaf[i - 1] = j;
      ++colcnt[j - 1];
      if (jprev == 0) {
        rowcnt[i - 1] += level[j - 1] - level[i - 1];
      } else {
        int lca = jprev;
        while (lca != ancestor[lca - 1]) lca = ancestor[lca - 1];
        for (int v = jprev; v != lca;) {  // path compression
          const int up = ancestor[v - 1];
          ancestor[v - 1] = lca;
          v = up;
        }
        --colcnt[lca - 1];
        rowcnt[i - 1] += level[j - 1] - level[lca - 1];
      }
    }
    if (p != 0) ancestor[j - 1] = p;
  }
  std::int64_t offdiag = 0;
  for (int j = 1; j <= n; ++j) {
    const int p = parent_of(j);
    if (p != 0) colcnt[p - 1] += colcnt[j - 1];
    offdiag += rowcnt[j - 1];
  }
  return nn + offdiag;
}

/*
 * Steps 5 and 6: fundamental supernodes into snode and xsuper; returns
 * their number and the length of lindx in *nsub.
 */
int supernodes(SfinitState &s, std::int64_t *nsub) {
  const int n = s.n, nschur = s.nschur, limit = s.limit;
  const int *parent = s.parent, *colcnt = s.colcnt;
  int *snode = s.snode, *xsuper = s.xsuper;
  /*
   * 5. Fundamental supernodes: j continues the supernode of j-1 when j-1's
   * only remaining structure is j's (parent(j-1) = j and one more entry),
   * the supernode is narrower than the limit and j is not the first Schur
   * column, so that the Schur block starts a supernode of its own.
   */
  const int first_schur = nschur > 0 ? n - nschur + 1 : 0;
  int ns_count = 1;
  int width = 1;
  std::int64_t sub = colcnt[0];
  snode[0] = 1;
  for (int j = 2; j <= n; ++j) {
    if (parent[j - 2] == j && colcnt[j - 2] == colcnt[j - 1] + 1 && width < limit &&
        j != first_schur) {
      ++width;
    } else {
      ++ns_count;
      width = 1;
      sub += colcnt[j - 1];
    }
    snode[j - 1] = ns_count;
  }
  *nsub = sub;

  /* 6. xsuper: the first column of each supernode, and n+1 behind the last. */
  xsuper[ns_count] = n + 1;
  for (int j = n; j >= 1; --j) xsuper[snode[j - 1] - 1] = j;
  return ns_count;
}

/* Step 7: the domain list from column ranges into supernode ranges. */
void domains_to_supernodes(SfinitState &s, int ns_count) {
  const int n = s.n, npairs = *s.ndom + 1;
  const int *snode = s.snode;
  int *domains = s.domains;

  /*
   * 7. Domains into supernode ranges.  A supernode that runs past the last
   * column of a range (it can only do so into the range above, through the
   * tree) belongs to the range above: the range ends one supernode
   * earlier.  The top pair ends with snode(n) = nsuper.
   */
  for (int d = 0; d < npairs; ++d) {
    const int col_first = domains[2 * d];
    const int col_last = domains[2 * d + 1];
    if (col_first < 1) continue;
    const int sfirst = col_first <= n ? snode[col_first - 1] : ns_count + 1;
    int slast = sfirst - 1;
    if (col_last >= col_first && col_last <= n) {
      slast = snode[col_last - 1];
      if (col_last < n && snode[col_last] == slast) --slast;
    }
    domains[2 * d] = sfirst;
    domains[2 * d + 1] = slast;
  }
}

}  // namespace

std::int64_t etree_work_size(int n) {
  return n > 0 ? n : 0;
}

void etree_range(int first, int last, const int *xadj, const int *adjncy, const int *perm,
                 const int *invp, int *parent, int *ancestor) {
  for (int k = first; k <= last; ++k) {
    parent[k - 1] = 0;
    ancestor[k - 1] = 0;
    const int node = perm[k - 1];
    for (int p = xadj[node - 1]; p < xadj[node]; ++p) {
      int i = invp[adjncy[p - 1] - 1];
      if (i >= k) continue;
      /*
       * Climb from i to the root of its current subtree.  Every node passed
       * gets k as its ancestor, so that later climbs jump straight to k
       * (path compression); a node already pointing to k ends the climb.
       */
      for (;;) {
        const int up = ancestor[i - 1];
        if (up == k) break;
        ancestor[i - 1] = k;
        if (up == 0) {
          parent[i - 1] = k;
          break;
        }
        i = up;
      }
    }
  }
}

void etree(int n, const int *xadj, const int *adjncy, const int *perm, const int *invp, int *parent,
           int *work) {
  etree_range(1, n, xadj, adjncy, perm, invp, parent, work);
}

std::int64_t sfinit_work_size(int n) {
  return 10 * static_cast<std::int64_t>(n > 0 ? n : 0) + 1;
}

/*
 * sfinit
 *
 * In:     n, xadj[n+1], adjncy, width_limit, nschur (s), schur_mode.
 * In/out: *ndom, domains[2*(*ndom+1)], perm[n], invp[n].
 * Out:    parent[n], colcnt[n], *nnzl, *nsub, *nsuper, snode[n],
 *         xsuper[n+1] (nsuper+1 used).
 * Work:   10n+1 ints: work[0..n) first son, work[n..2n) brother,
 *         work[2n..3n) a stack, work[3n..4n) row counts, work[4n] first
 *         root, then six arrays of n for the counts of step 4.
 *         Before step 3 the same space serves the ancestor array and the
 *         Schur postorder (head, next, stack); colcnt and snode, not yet
 *         computed then, serve as its flags and output buffer.
 *
 * Steps, in this order:
 *  1. elimination tree;
 *  2. Schur rows: tail, postorder, positions and tree rebuilt per range;
 *  3. first-son and brother lists;
 *  4. column and row counts from the leaves of the row subtrees;
 *  5. fundamental supernodes split at the width limit and at the first
 *     Schur column;
 *  6. xsuper from snode;
 *  7. domains from column ranges into supernode ranges.
 */
int sfinit(int n, int *ndom, int *domains, const int *xadj, const int *adjncy, int *perm, int *invp,
           int *parent, int *colcnt, std::int64_t *nnzl, std::int64_t *nsub, int *nsuper,
           int *snode, int *xsuper, int *work, int width_limit, int nschur, int schur_mode) {
  if (n < 0 || nschur < 0 || nschur > n || ndom == nullptr || *ndom < 0) {
    return kSymbolicBadArgument;
  }
  *nnzl = 0;
  *nsub = 0;
  *nsuper = 0;
  xsuper[0] = 1;
  if (n == 0) return kSymbolicOk;

  const std::int64_t nn = n;
  SfinitState s{n,
                nn,
                ndom,
                domains,
                xadj,
                adjncy,
                perm,
                invp,
                parent,
                colcnt,
                snode,
                xsuper,
                work,
                width_limit >= 1 ? width_limit : n,
                nschur,
                schur_mode,
                work,
                work + nn,
                work + 2 * nn,
                work + 3 * nn};

  /* The one clearing region: all of the work space. */
  parallel_fill(work, sfinit_work_size(n), 0);

  /* 1. Elimination tree in the given order. */
  etree(n, xadj, adjncy, perm, invp, parent, work);
  /* 2. Schur rows. */
  if (nschur > 0) schur_tail(s);
  /* 3. First-son and brother lists. */
  const int root = sons_and_brothers(s);
  work[4 * nn] = root;
  /* 4. Column and row counts. */
  *nnzl = column_counts(s, root);
  /* 5, 6. Fundamental supernodes, xsuper. */
  *nsuper = supernodes(s, nsub);
  /* 7. Domains into supernode ranges. */
  domains_to_supernodes(s, *nsuper);
  return kSymbolicOk;
}

}  // namespace vm
