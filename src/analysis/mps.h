// mps.h - maximum-product matching and the scaling that comes with it.
//
// The matching finds a row for every column such that the product of the
// magnitudes of the matched entries is as large as possible.  It works on
// the costs C_ij = log|a_ij| (entries of value zero do not exist for it)
// and solves the assignment problem by one shortest augmenting path per
// unmatched row (Dijkstra on reduced costs, with row duals u and column
// duals v).  The duals give log-scale factors r (rows) and c (columns) with
//
//   log|a_ij| + r_i + c_j <= 0   for every entry,   = 0 on matched ones,
//
// so that exp(r_i) |a_ij| exp(c_j) is 1 on the matching and at most 1
// elsewhere.  When max |r|, |c| reaches half of log(DBL_MAX) the scale is
// refused (all log-scales 0) and only the matching is kept.
//
// Conventions of every form here, all zero-based:
//   p[j]  row matched to column j (n entries), -1 for none; on a square
//         matrix an incomplete matching is completed to a permutation
//   u[i]  row log-scale (m entries)
//   v[j]  column log-scale (n entries); with warm start also an input: the
//         column log-scale of an earlier run, taken as the starting duals
//   rank  number of matched pairs before completion: the structural rank
#ifndef VELMORA_ANALYSIS_MPS_H
#define VELMORA_ANALYSIS_MPS_H

#include "analysis/smat.h"

struct perm;

namespace vm {

constexpr int kMpsOk = 0;
constexpr int kMpsNoMemory = -2;

// ---- the heap of the shortest-path search: a binary min-heap over the
// columns 0..capacity-1 keyed by their tentative distance, with the slot of
// every column in `pos` (-1 when absent) so that a key can be lowered.
struct MpsHeap {
  int size;
  int capacity;
  int *node;    // heap order -> column
  double *key;  // heap order -> distance
  int *pos;     // column -> heap slot, or -1
};

// 0, or kMpsNoMemory (the heap is then empty and freeable).
int mps_heap_create(MpsHeap *h, int capacity);
// Empty the heap in time proportional to its size.
void mps_heap_clear(MpsHeap *h);
void mps_heap_insert(MpsHeap *h, int node, double key);
// Lower the key of a node in the heap (a larger key is ignored).
void mps_heap_decrease(MpsHeap *h, int node, double key);
// Remove the node of least key; returns it and its key.  The heap must
// not be empty.
int mps_heap_pop(MpsHeap *h, double *key);
void mps_heap_free(MpsHeap *h);

// ---- array forms (the analysis branch)

// Matching of the m x n matrix (ia, ja, a) in zero base; a holds
// (re, im) pairs when is_complex is 1 and counts by modulus.  Columns in a
// row need not be sorted; repeated columns are allowed (the larger one
// counts).  restart 1: v holds a warm start.  rank may be null.
// Returns kMpsOk or kMpsNoMemory (outputs then undefined).
int MPS_VELMORA(int m, int n, const int *ia, const int *ja, const double *a, int is_complex, int *p,
                double *u, double *v, int restart, int *rank);

// The same on costs the caller built (no logarithm, no entry dropped):
// a restart with the costs of an earlier call.
int MPS_COSTS_VELMORA(int m, int n, const int *ia, const int *ja, const double *cost, int *p,
                      double *u, double *v, int restart, int *rank);

// ---- record forms

// Matching of A (a `sym` matrix is matched on its full structure).  p must
// have A->n entries, u A->m, v A->n.  warm 1: v holds a warm start.
// Returns the structural rank.  Running out of memory stops the process.
int mps_match(const smat *A, perm *p, double *u, double *v, int warm);
// The same with A holding costs: no logarithm, no entry dropped.
int mps_match_costs(const smat *C, perm *p, double *u, double *v, int warm);

// Tolerance of equal costs and of a step of zero length.
constexpr double kMpsEps = 2.220446049250313e-16;

}  // namespace vm

#endif  // VELMORA_ANALYSIS_MPS_H
