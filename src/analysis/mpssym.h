// mpssym.h - symmetric weighted matching: 1x1 and 2x2 pivot candidates
// from a matching, compression of the pairs, ordering of the compressed
// graph, and expansion back to a full ordering.
//
// A matching of a symmetric matrix pairs row i with column p[i]; its
// cycles say which entries should end up in pivots.  A cycle of length one
// is a 1x1 pivot; a 2-cycle (a b) is the 2x2 block of a and b unless both
// diagonals are usable (above 1e-08 in magnitude), in which case both are
// 1x1 pivots kept next to each other; longer cycles are cut into such
// pairs, the first member of an odd cycle going alone to the end.  Every
// pair becomes one node of a smaller graph, which the fill-reducing
// ordering sees instead of the pair, so that the two members stay adjacent.
//
// All indices here are zero-based; every matrix is a `sym` smat (upper
// triangle with every diagonal entry stored).
#ifndef VELMORA_ANALYSIS_MPSSYM_H
#define VELMORA_ANALYSIS_MPSSYM_H

#include "analysis/bitvec.h"
#include "analysis/perm.h"
#include "analysis/smat.h"

namespace vm {

// A diagonal entry is usable for a 1x1 pivot when its magnitude is above.
constexpr double kUsableDiagonal = 1e-08;

// Candidates.  A: the matrix (values used for the diagonal test; complex
// pairs by modulus); match: the matching (cycles of i -> match->p[i]).
// Out: sym_perm, p[i] = candidate position of i; pivots (n bits, candidate
// positions): set = 1x1, clear at k = k and k+1 form a 2x2 pivot.
void mpssym_candidates(const smat *A, const perm *match, perm *sym_perm, bitvec *pivots);

// Compression of B = the pattern of A permuted by sym_perm.  Each pair
// (k, k+1) of `pivots` becomes one node.  Returns the compressed `sym`
// pattern; *map receives, for each compressed node, its first position.
smat *mpssym_compress(const smat *B, const bitvec *pivots, perm **map);

// The fill-reducing ordering of a `sym` pattern by the route of iparm(2)
// (0 minimum degree, 1 its constrained form, 2 and 3 nested dissection
// with domains, identity below 9 nodes, 4 approximate minimum degree).
//   order:  out, p[i] = new place of node i (order->n == C->m)
//   ddist:  out, domain pairs (first, last) as zero-based positions;
//           ddist->n is twice the number of domains.  Its array must hold
//           max(4, 2*target) entries.
//   target: domains wanted (in), domains delivered (out); used by 2 and 3
// Returns the status of the ordering (ordering.h), 0 on success.
int mpssym_order(const smat *C, int ordering, perm *order, perm *ddist, int *target);

// The entry of the analysis.
struct MpssymArgs {
  // in
  int n;
  const smat *A;    // upper triangle, zero-based, with values
  int ordering;     // iparm(2)
  int parallel_nd;  // iparm(28); the nested dissection of this library
                    // stands in for the parallel one
  int nnodes;       // nodes of the distributed mode (1 without it)
  int fill;         // 1: build the filled structure Af (iparm(13) 2, 4)
  // in: the matching (p[i] row matched to column i); out: the ordering,
  // perm[k] = original index of the k-th pivot.  n entries.
  int *perm;
  // out
  bitvec *pivots;        // n bits in final positions: set 1x1, clear 2x2 first
  struct perm *ddist;    // domain pairs in final positions (allocated here)
  int ndom;              // ddist->n / 2
  int target;            // in: domains wanted; out: domains delivered
  int *marks;            // n entries or null: -1 for nodes outside every
                         // domain when nnodes > 1, else 0
  smat *Af;              // fill: the filled pattern, one-based, zero values
  struct perm *map_o2f;  // fill: entry k of A is entry map_o2f->p[k] of Af
  int status;            // status of the ordering route, 0 on success
};

// Runs candidates, compression, ordering and expansion (and the filled
// structure when asked).  Returns 1.
int MPSSYM_VELMORA(MpssymArgs *args);

// The filled structure: for every 2x2 pair (r, s) of the candidate order
// (cand[k] = original index at candidate position k, pivots in candidate
// positions) the rows of r and s get the union of their patterns.  Returns
// Af in zero base with zero values; *map_o2f maps entries of A to Af.
smat *mpssym_filled(const smat *A, const int *cand, const bitvec *pivots, perm **map_o2f);

}  // namespace vm

#endif  // VELMORA_ANALYSIS_MPSSYM_H
