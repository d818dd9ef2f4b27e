// update_lists.h - who updates whom in the top of the supernodal tree,
// written down by the analysis for the parallel factorization.
//
// The two-level form: the top part is the supernodes after the last
// domain, ftop .. nsuper (ntop of them).  For each top supernode t and
// each source d (the domains 1..D, then the top part itself as D+1), the
// bucket (t, d) lists the supernodes j of source d with a row in t, in
// increasing j, each with the count of rows from its first row in t to
// the end of its row list (counted from the end, as the factorization
// counts the rows of a descendant not yet applied).  Bucket (t, d) is at
// index (t - ftop) * (D + 1) + d - 1 of bucket_ptr (zero-based), and its
// entries run from bucket_ptr[b] - 1 to bucket_ptr[b + 1] - 2 of
// bucket_des and bucket_off (zero-based; the contents are one-based).
#ifndef VELMORA_ANALYSIS_UPDATE_LISTS_H
#define VELMORA_ANALYSIS_UPDATE_LISTS_H

#include <cstdint>

namespace vm {

// What the lists are made from: the symbolic factor and the domains
// (ndom (first, last) supernode pairs, then the top pair).
struct UpdateListsInput {
  int nsuper = 0;
  const int *xsuper = nullptr;
  const int *snode = nullptr;
  const std::int64_t *xlindx = nullptr;
  const int *lindx = nullptr;
  int ndom = 0;
  const int *domains = nullptr;
  const int *nmod = nullptr;     // classical form: updates each supernode receives
  const int *sparent = nullptr;  // classical form's work order: supernodal parent, 0 at a root
};

struct UpdateLists {
  int ftop = 0;     // first top supernode
  int nsrc = 0;     // sources: ndom + 1
  int ntop = 0;     // top supernodes
  int total = 0;    // entries of bucket_des and bucket_off
  int *bucket_ptr;  // ntop * nsrc + 1
  int *bucket_des;  // total
  int *bucket_off;  // total
};

// Whether the domains can carry the two-level form: at least two, the
// top pair last and ending at nsuper.
bool two_level_lists_apply(const UpdateListsInput &in);

// Entries of the bucket pointer array, ntop * (ndom + 1) + 1.
std::int64_t update_list_buckets(const UpdateListsInput &in);

// The count pass: counts[0 .. buckets) receives the entries of each
// bucket; returns their total.
std::int64_t count_update_lists(const UpdateListsInput &in, int *counts);

// UPDATE_LISTS_VELMORA, two-level form: fills `out` (its three arrays
// sized by the count pass; it counts again into bucket_ptr itself).
void UPDATE_LISTS_VELMORA(const UpdateListsInput &in, UpdateLists *out);

// The classical form: for each supernode s its targets, the supernodes t
// its rows below its own columns reach, in increasing order, as the first
// column of t and the rows of s from its first row in t to the end of its
// list; entries tgt_ptr[s-1]-1 .. tgt_ptr[s]-2 of tgt_col and tgt_off
// (zero-based; contents one-based).  upd_head[t-1] is where the queue of
// t starts, zero-based: the queues hold nmod(t) entries each, one after
// the other.
struct TargetLists {
  int total = 0;  // entries of tgt_col and tgt_off: the sum of nmod
  int *upd_head;  // nsuper + 1
  int *tgt_ptr;   // nsuper + 1
  int *tgt_col;   // total
  int *tgt_off;   // total
};

// The entries of the classical form (the count pass).
std::int64_t count_target_lists(const UpdateListsInput &in);

// UPDATE_LISTS_VELMORA, classical form, into `out` (arrays sized by the
// count pass).
void target_lists(const UpdateListsInput &in, TargetLists *out);

// The work order of the classical loop on a team of nthreads: first the
// subtrees of the supernodal tree that are light enough to be one
// thread's work without queues (the maximal ones whose estimated work is
// at most 1/(kSubtreesPerThread nthreads) of the whole and whose
// supernodes are the range [first, root]), ascending; then every other
// supernode alone, ascending, so that every task comes after the tasks
// it waits for.  task_range receives (first, last) pairs, one-based.
// Returns the task count; *nsub the subtrees among them.
//   Work: weight (nsuper doubles), first (3 nsuper ints).
constexpr int kSubtreesPerThread = 8;
int classical_tasks(const UpdateListsInput &in, int nthreads, double *weight, int *first,
                    int *task_range, int *nsub);

// The distributed form, for the block-partitioned factorization: the
// domains are grouped by compute node (node_first_domain of domains.h)
// and the top is split into each node's local top and the global top
// after them (REORDER1_VELMORA).  Every node has two sets of buckets: its
// local set, for each supernode t of its local top and each source c, its
// domains then its local top itself, the descendants of c with rows in t;
// and its global set, for each supernode t of the global top, the
// descendants from all of the node (its domains and its local top, in
// increasing order) with rows in t.  A last source of the global top is
// the global top itself.  Entries as in the two-level form.
//
// The group, ints from its start (zero-based; contents one-based unless
// said):
//   [0] 3, the form        [1] m, the nodes      [2] stride: the largest top
//   [3] total entries      [4] ndom              [5] the most sources of a set
//   [6 + 4k .. 9 + 4k]     node k: its first domain (zero-based), its domain
//                          count D_k, the first supernode and the size of
//                          its local top
//   [6 + 4m], [7 + 4m]     the global top: first supernode, size g
//   then the bucket pointers of node 0's local set (ntop_k * (D_k + 1) + 1,
//   bucket (t - first) * (D_k + 1) + c), ..., of node m-1's, then those of
//   the global top (g * (m + 1) + 1, bucket (t - first) * (m + 1) + k, the
//   global top's own source k = m); each pointer a one-based place in
//   des and off, which follow: total entries each.
// The factorization's loop state for one set at a time is sized by the
// stride and the most sources.
struct NodeSplit {
  int nnodes = 0;
  // nnodes (first, last) supernode pairs of the local tops, then the
  // global top's pair.
  const int *tops = nullptr;
};

constexpr int kDistributedListForm = 3;

// Header ints of the distributed form, node table included.
inline std::int64_t distributed_header_ints(int nnodes) {
  return 8 + 4 * std::int64_t{nnodes};
}

// Whether the split can carry the distributed form: at least two domains
// tiling 1.. in the plain list, the nodes' local tops and the global top
// tiling the top pair.
bool distributed_lists_apply(const UpdateListsInput &in, const NodeSplit &split);

// Ints of the group before its entries: header and bucket pointers.
std::int64_t distributed_list_ints(const UpdateListsInput &in, const NodeSplit &split);

// The count pass of the distributed form: its entries, or -1 when a
// supernode has rows in a part of another node (the split is then not
// one the variant can run).
std::int64_t count_distributed_lists(const UpdateListsInput &in, const NodeSplit &split);

// UPDATE_LISTS_VELMORA, distributed form: writes the whole group (sized
// distributed_list_ints + 2 * the count pass's total).
void UPDATE_LISTS_VELMORA(const UpdateListsInput &in, const NodeSplit &split, int *group);

}  // namespace vm

#endif  // VELMORA_ANALYSIS_UPDATE_LISTS_H
