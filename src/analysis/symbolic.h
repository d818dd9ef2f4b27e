/*
 * symbolic.h - symbolic factorization of the ordered graph: elimination
 * tree, column counts, supernodes, row structure of L, offsets of the
 * factor, task list of the supernodal tree, update counts and sizes.
 *
 * Conventions shared by every routine here:
 *  - All index contents are one-based; arrays are plain C arrays indexed
 *    from 0, so that column j of a length-n array is a[j-1] and, e.g.,
 *    xsuper[0] == 1.
 *  - `xadj` (n+1) and `adjncy` (xadj[n]-1) are the symmetric adjacency of
 *    A+A^T without diagonal, in the ORIGINAL numbering.  `perm[k-1]` is the
 *    original index of pivot k, `invp[perm[k-1]-1] == k`.
 *  - Positions ("columns") are pivot numbers 1..n of the final order.
 *  - `domains` holds (first, last) pairs: ndom domain pairs followed by the
 *    top pair, 2*(ndom+1) ints.  On entry to sfinit they are column
 *    ranges, on return supernode ranges.  An empty range has last ==
 *    first-1.
 *  - Pointers into the value arrays (xlindx, xlnz, xunz) and all entry
 *    counts are 64-bit; everything else is 32-bit.
 *  - No routine allocates.  Every work array is passed in; its size in ints
 *    is given by the companion *_work_size routine.
 */
#ifndef VELMORA_ANALYSIS_SYMBOLIC_H
#define VELMORA_ANALYSIS_SYMBOLIC_H

#include <cstdint>

namespace vm {

/* Status codes of the symbolic stage. */
constexpr int kSymbolicOk = 0;
constexpr int kSymbolicBadArgument = -1; /* negative n, nsuper, s out of 0..n */
constexpr int kSymbolicRowList = -2;     /* a row list did not close at xlindx(k+1) */
constexpr int kSymbolicLimit = -20;      /* an offset passed the caller's limit */

/* Schur postorder modes of sfinit (any other value behaves as kSchurClosure). */
constexpr int kSchurKeepOrder = 0;
constexpr int kSchurPostorder = 1;
constexpr int kSchurClosure = 2;

/*
 * Debug hook: called with a label and the raw array right after the index
 * arrays of the symbolic factor are complete.  length is in elements,
 * width_bytes the size of one element (4 or 8).  The default does nothing.
 */
void debug_dump_array(const char *label, const void *array, std::int64_t length, int width_bytes);

/* ---- elimination tree ------------------------------------------------ */

/* Ints of work needed by etree: n. */
std::int64_t etree_work_size(int n);

/*
 * Elimination tree of the ordered matrix (Liu, path compression).
 * In:  n, xadj, adjncy, perm, invp.
 * Out: parent[n], parent of each column (0 at a root).
 * Work: n ints (the ancestor array).
 * Columns first..last (one-based, inclusive) are processed; the whole tree
 * is etree_range(1, n, ...).  Processing consecutive ranges in increasing
 * order with the same work array gives the same tree as one call.
 */
void etree(int n, const int *xadj, const int *adjncy, const int *perm, const int *invp, int *parent,
           int *work);
void etree_range(int first, int last, const int *xadj, const int *adjncy, const int *perm,
                 const int *invp, int *parent, int *ancestor);

/* ---- sfinit ---------------------------------------------------------- */

/* Ints of work needed by sfinit: 10n+1. */
std::int64_t sfinit_work_size(int n);

/*
 * sfinit: elimination tree, column counts and fundamental supernodes.
 *
 * In:     n >= 0; xadj, adjncy; width_limit (a value below 1 means n);
 *         nschur = s, 0 <= s <= n, the Schur rows n-s+1..n of the original
 *         numbering; schur_mode (kSchurKeepOrder, kSchurPostorder, other).
 * In/out: ndom (count of domain pairs before the top pair), domains
 *         (2*(ndom+1) ints, column ranges in, supernode ranges out),
 *         perm[n], invp[n] (reordered when s > 0, see step 2).
 * Out:    parent[n], colcnt[n] (diagonal included), *nnzl = sum of colcnt,
 *         *nsub = sum over supernodes of colcnt of the first column,
 *         *nsuper, snode[n], xsuper[n+1] (xsuper[nsuper] == n+1).
 * Work:   sfinit_work_size(n) ints.  On return it holds the first-son list
 *         work[0..n), the brother list work[n..2n), the row counts of L
 *         (off-diagonal) work[3n..4n) and the first root work[4n].  The
 *         counts take time near linear in the entries of A, not of L.
 * Returns kSymbolicOk or kSymbolicBadArgument.
 */
int sfinit(int n, int *ndom, int *domains, const int *xadj, const int *adjncy, int *perm, int *invp,
           int *parent, int *colcnt, std::int64_t *nnzl, std::int64_t *nsub, int *nsuper,
           int *snode, int *xsuper, int *work, int width_limit, int nschur, int schur_mode);

/* ---- task list ------------------------------------------------------- */

/* Ints of work needed by SCHED_VELMORA: nsuper (the nchild counters). */
std::int64_t sched_work_size(int nsuper);

/*
 * SCHED_VELMORA: work list of the supernodal tree.
 * In:   nsuper, sparent[nsuper] (0 at a root, sparent(k) > k otherwise).
 * Out:  tasklist[nsuper]: the leaves as -k in increasing order, then every
 *       inner supernode, positive, right after its last child was listed.
 * Work: nchild[nsuper].
 * Returns the number of entries written (nsuper for a proper tree).
 */
int SCHED_VELMORA(int nsuper, const int *sparent, int *nchild, int *tasklist);

/* ---- REORDER2 -------------------------------------------------------- */

/* Scalar results of REORDER2_VELMORA. */
struct SymbolicCounts {
  std::int64_t nnzl;     /* entries of lnz: xlnz(n+1)-1 */
  std::int64_t nnzu;     /* entries of unz: xunz(n+1)-1, 1 when symmetric or empty */
  std::int64_t nsub;     /* length of lindx: xlindx(nsuper+1)-1 */
  std::int64_t lnz_peak; /* largest lnz total of one domain (top pair excluded) */
  std::int64_t unz_peak; /* the same for unz (0 when symmetric) */
  std::int64_t tmpsiz;   /* entries of the dense update buffer */
  int max_width;         /* widest supernode */
  int first_root;        /* first root of the supernodal tree, chained by next_sibling */
};

/* Ints of work needed by REORDER2_VELMORA: 3n+1+nsuper. */
std::int64_t reorder2_work_size(int n, int nsuper);

/* What REORDER2_VELMORA reads: the final order and the results of sfinit. */
struct Reorder2Input {
  int n;
  int nsuper;
  const int *xadj; /* adjacency of A + A^T, original numbering */
  const int *adjncy;
  const int *perm; /* final order from sfinit */
  const int *invp;
  const int *xsuper; /* nsuper+1, from sfinit */
  const int *snode;  /* n */
  const int *colcnt; /* n */
  int ndom;          /* domains: supernode ranges from sfinit, ndom+1 pairs */
  const int *domains;
  int unsym;              /* nonzero when U is stored (xunz is then required) */
  int indefinite;         /* symmetric indefinite and complex symmetric types (only
                             changes the fallback of an empty tmpsiz) */
  std::int64_t lnz_limit; /* entries available for lnz and unz (below 1: none) */
  std::int64_t unz_limit;
  std::int64_t lindx_size; /* ints available in lindx */
  int parent_known = 0;    /* 1: out.parent holds the tree of perm already (sfinit's) */
};

/* The arrays REORDER2_VELMORA writes. */
struct Reorder2Output {
  int *parent;          /* n, recomputed in the final order */
  int *sparent;         /* nsuper */
  int *first_child;     /* nsuper: children in increasing order; the roots are */
  int *next_sibling;    /* chained from counts->first_root */
  int *tasklist;        /* nsuper */
  std::int64_t *xlindx; /* nsuper+1 */
  int *lindx;           /* nsub */
  std::int64_t *xlnz;   /* n+1 */
  std::int64_t *xunz;   /* n+1, only when unsym; may be null otherwise */
  int *upd_first;       /* nsuper: initial update chains, see reorder2.cpp */
  int *upd_next;        /* nsuper */
  int *nmod;            /* nsuper */
};

/*
 * REORDER2_VELMORA: supernodal tree, task list and symbolic factor, from
 * `in` into the arrays of `out` and *counts.
 * Work: reorder2_work_size(n, nsuper) ints.
 * Returns kSymbolicOk, kSymbolicLimit (xlnz, xunz or lindx would pass its
 * limit) or kSymbolicRowList (a row list did not close).  On failure the
 * outputs after the failing step are undefined.
 */
int REORDER2_VELMORA(const Reorder2Input &in, const Reorder2Output &out, SymbolicCounts *counts,
                     int *work);

/* ---- update counts, buffer size, flops --------------------------------- */

/*
 * FNPMOD_VELMORA: nmod(t) = number of other supernodes whose rows below
 * their own columns reach into supernode t.
 * In:  nsuper, xsuper, xlindx, lindx, snode.  Out: nmod[nsuper].  Work: none.
 */
void FNPMOD_VELMORA(int nsuper, const int *xsuper, const std::int64_t *xlindx, const int *lindx,
                    const int *snode, int *nmod);

/*
 * Size in entries of the dense update buffer `temp` of one thread: the
 * largest of, over every supernode J of width wJ and every group of c rows
 * of J that falls in one target supernode with q rows of J from that group
 * to the end, c*(q + wJ); and over every supernode K of width wK with qK
 * rows below its columns, wK*qK.  Zero becomes n, and for indefinite types
 * at least maxw*maxw/2.
 * In: n, nsuper, xsuper, xlindx, lindx, snode, indefinite.  Work: none.
 */
std::int64_t compute_tmpsiz(int n, int nsuper, const int *xsuper, const std::int64_t *xlindx,
                            const int *lindx, const int *snode, int indefinite);

/*
 * Floating-point operations of the numeric factorization.  With c_j the
 * entries of column j of L (diagonal included), m_j = c_j - 1:
 *   Cholesky / LDL^T:  sum_j (1 + m_j + m_j*(m_j+1)) = sum_j c_j^2
 *     (one square root or pivot, m_j divisions, and the m_j*(m_j+1)/2
 *      multiply-adds of the symmetric rank-one update, two flops each);
 *   LU (unsym != 0):   sum_j (m_j + 2*m_j^2)
 *     (m_j divisions, the m_j^2 multiply-adds of the full update).
 * c_j is taken from the supernode's row list: xlindx(k+1)-xlindx(k) minus
 * the columns of k before j.
 * In: nsuper, xsuper, xlindx, unsym.  Work: none.
 */
double factor_flops(int n, int nsuper, const int *xsuper, const std::int64_t *xlindx, int unsym);

}  // namespace vm

#endif /* VELMORA_ANALYSIS_SYMBOLIC_H */
