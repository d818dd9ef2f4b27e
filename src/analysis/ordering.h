// ordering.h - fill-reducing orderings of a symmetric adjacency graph.
//
// Every routine here takes the graph of A+A^T without its diagonal as two
// ONE-BASED arrays: xadj (n+1 entries, xadj[0] = 1) and adjncy
// (xadj[n]-1 entries, each in 1..n).  Duplicate entries and self loops are
// tolerated and ignored.  Every routine returns a valid permutation on
// success, one-based:
//   perm[k-1] = original index of the k-th pivot,
//   invp[perm[k-1]-1] = k.
//
// Our own routines (multiple minimum degree, its constrained form, the
// graph check) never allocate: they carve their arrays from a caller's work
// array of ints whose length is given by the matching *_work_size function.
// METIS and AMD allocate internally; ORDER_METIS5_VELMORA also keeps its
// subgraphs in std::vector.
//
// Status values returned by every routine:
#ifndef VELMORA_ANALYSIS_ORDERING_H
#define VELMORA_ANALYSIS_ORDERING_H

#include <cstdint>

namespace vm {

constexpr int kOrderOk = 0;
// Out of memory inside METIS or AMD (or for the subgraphs of the METIS route).
constexpr int kOrderNoMemory = 1;
// Bad argument: n < 0, a missing array, xadj[0] != 1, xadj decreasing, an
// index outside 1..n, or a domain target that is not a power of two in 1..n.
constexpr int kOrderBadArgument = -1;
// The work array is shorter than the *_work_size value.
constexpr int kOrderShortWork = -2;
// METIS or AMD refused the input or failed for a reason other than memory.
constexpr int kOrderLibraryError = -3;
// The adjacency structure is not symmetric.
constexpr int kOrderNotSymmetric = -4;
// An internal consistency test of the minimum degree code failed.
constexpr int kOrderInternal = -5;

// ---- graph check (graph_check.cpp)

int64_t order_check_graph_work_size(int n, int64_t nadj);

// Validates xadj/adjncy as described above; with check_symmetry != 0 also
// tests that j is a neighbour of i exactly when i is a neighbour of j.
// work: order_check_graph_work_size(n, nadj) ints, used only when
// check_symmetry != 0 (may then not be NULL).
int order_check_graph(int n, const int *xadj, const int *adjncy, int check_symmetry, int *work);

// ---- multiple minimum degree (genmmd.cpp)

int64_t order_mmd_work_size(int n, int64_t nadj);

// Multiple minimum degree with mass elimination, multiple elimination of
// independent nodes of the minimum degree (delta 0), exact external degrees,
// and the final numbering.  work: order_mmd_work_size(n, xadj[n]-1) ints.
int ORDER_MMD_VELMORA(int n, const int *xadj, const int *adjncy, int *perm, int *invp, int *work,
                      int64_t lwork);

// The same with barred nodes: barred[i] != 0 (i zero-based) keeps node i+1
// out of the minimum degree choice until every other node is numbered.
// Barred nodes are then ordered by minimum degree among themselves, on the
// graph left by the eliminations (order_barred != 0), or in increasing
// original index (order_barred == 0).  barred may be NULL (no barred node).
// work: order_mmd_work_size(n, xadj[n]-1) ints.
int ORDER_MMD_BARRED_VELMORA(int n, const int *xadj, const int *adjncy, const int *barred,
                             int order_barred, int *perm, int *invp, int *work, int64_t lwork);

// ---- minimum degree with constraints (cmd.cpp)

int64_t order_cmd_work_size(int n, int64_t nadj);

// Bisects the graph with METIS_ComputeVertexSeparator, bars the separator
// nodes, and orders with ORDER_MMD_BARRED_VELMORA; mmd_on_separator selects
// minimum degree (1) or natural order (0) for the separator at the end.
// work: order_cmd_work_size(n, xadj[n]-1) ints.
int ORDER_CMD_VELMORA(int n, const int *xadj, const int *adjncy, int mmd_on_separator, int *perm,
                      int *invp, int *work, int64_t lwork);

// ---- METIS 5.1 nested dissection with domains (metis5_order.cpp)

// Nested dissection that stops splitting into independent subgraphs at
// depth log2(target) and orders each of them with METIS_NodeND.
//   options8: NULL, or eight ints in the METIS 4 layout (slot 0 = 0: defaults).
//   target:   number of domains wanted, a power of two in 1..max(n,1).
//   domains:  2*target ints, preset to -1, then (first, last) one-based perm
//             positions of each domain in increasing order; unset pairs are
//             squeezed out and the tail keeps -1.
//   ndom:     number of pairs filled.
// Separator vertices lie outside every range, after the domains they split.
int ORDER_METIS5_VELMORA(int n, const int *xadj, const int *adjncy, const int *options8, int target,
                         int *perm, int *invp, int *domains, int *ndom);

// The eight METIS 4 options for the nested dissection route: 1, 3, 1, 2, 0,
// 1, 200, 1 when the largest row of xadj has at least n/8 entries (integer
// division), else eight zeros.
void metis_options_for_route2(int n, const int *xadj, int *options8);

// ---- approximate minimum degree (amd_order.cpp)

int64_t order_amd_work_size(int n, int64_t nadj);

// amd_order with the defaults of amd_defaults (dense threshold 10,
// aggressive absorption on).  work: order_amd_work_size(n, xadj[n]-1) ints.
int ORDER_AMD_VELMORA(int n, const int *xadj, const int *adjncy, int *perm, int *invp, int *work,
                      int64_t lwork);

}  // namespace vm

#endif  // VELMORA_ANALYSIS_ORDERING_H
