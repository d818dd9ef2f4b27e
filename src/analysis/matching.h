// matching.h - the weighted matching and scaling step of the analysis.
//
// The analysis calls run_matching once, before the ordering, when a
// matching is asked for.  It takes the caller's one-based matrix as it is
// (upper triangle for the symmetric types, full rows otherwise) and leaves
// it untouched.
#ifndef VELMORA_ANALYSIS_MATCHING_H
#define VELMORA_ANALYSIS_MATCHING_H

#include <cstdint>

struct bitvec;
struct perm;
struct smat;

namespace vm {

// Returned when memory for the work arrays could not be had.
constexpr int kMatchNoMemory = 1;
// Returned for a structurally singular matrix of rank 0 (no nonzero value).
constexpr int kMatchRankZero = -2147483647 - 1;

// Matching and scale factors of the leading n-nschur rows and columns.
//   mtype       the matrix type; 2, -2, 4, -4, 6 are given by their upper
//               triangle, the others by full rows; 3, 4, -4, 6, 13 hold
//               (re, im) pairs in a and are matched by modulus
//   n, ia, ja, a  the caller's matrix, one-based
//   nschur      trailing rows and columns left out (identity, unit scale)
//   mode        1 or 2: maximum-product matching of the whole matrix.
//               3 or 4: the trailing rows with a zero diagonal are
//               constraints; only their block B (constraint rows, other
//               columns) is matched, and each constraint row k trades
//               places with its matched column q (q <-> k in match_perm)
//   match_perm  n entries out, one-based: row i of the permuted matrix is
//               row match_perm(i) of A (a permutation in every case)
//   scale       2n doubles out: column factors, then row factors, in the
//               original order.  For the symmetric types (and for modes 3
//               and 4) both halves hold the same factors: the geometric
//               mean of the row and column factors of the matching, so
//               that every scaled entry is at most 1 in magnitude and the
//               matched ones are 1.  Modes 3 and 4 take the column factors
//               of B for the other rows and the row factors of B for the
//               matched constraint rows; the rest get 1.
//   rank        out: the structural rank (matched pairs plus nschur; for
//               modes 3 and 4 the rows outside B plus the matched
//               constraint rows)
// Returns 0; -rank when modes 1 and 2 find a rank below n (kMatchRankZero
// for rank 0); kMatchNoMemory.  The outputs are complete in every case but
// the last.
int run_matching(int mtype, int n, const int *ia, const int *ja, const double *a, int nschur,
                 int mode, int *match_perm, double *scale, int *rank);

// The pivots of a symmetric indefinite matrix (mtype -2, -4, 6) from its
// matching: 1x1 and 2x2 candidates, the ordering of iparm(2) on the graph
// with every pair compressed to one node, and its expansion.  The leading
// n-nschur rows and columns take part; the Schur rows follow last, in
// order, as 1x1 pivots.
struct SymmetricMatching {
  int *perm;             // in: n entries; out, one-based: perm(k) is the
                         // original index of the k-th pivot
  bitvec *pivots;        // out, n bits by pivot position: set 1x1; clear at k:
                         // k and k+1 are one 2x2 pivot
  struct perm *ddist;    // out: domains as zero-based (first, last) pairs
  int ndom;              // out: number of pairs in ddist
  int target;            // in: domains wanted; out: domains delivered
  smat *Af;              // out with fill: the filled pattern, one-based,
                         // zero values (null otherwise)
  struct perm *map_o2f;  // out with fill: entry k of A is entry p[k] of Af
  int status;            // out: status of the ordering (ordering.h)
};

// match_perm: one-based from run_matching.  ordering: iparm(2);
// parallel_nd: iparm(28); fill: 1 for iparm(13) 2 and 4.  The caller
// releases pivots, ddist, Af and map_o2f (bitvec_free, perm_free,
// smat_free).  Returns 0.
int run_symmetric_matching(int mtype, int n, const int *ia, const int *ja, const double *a,
                           int nschur, const int *match_perm, int ordering, int parallel_nd,
                           int fill, SymmetricMatching *out);

// What a symmetric matching leaves for the rest of the analysis and for the
// numeric phases, kept in one block of the handle until the next analysis:
//   perm     n ints, one-based: perm(k) is the original index of pivot k
//   pivots   (n+31)/32 words: bit k set, pivot k is 1x1; clear, pivots k
//            and k+1 form a 2x2 candidate
//   ndom     the number of domains of the ordering (1 when it has none)
//   domains  ndom one-based (first, last) pairs of pivot positions; a 2x2
//            pair never straddles two domains
struct KeptSymmetricMatching {
  int *perm;
  std::uint32_t *pivots;
  int *ndom;
  int *domains;
};

// Bytes of the block for n unknowns and at most max_domains domains.
std::int64_t kept_matching_bytes(int n, int max_domains);

// The arrays inside a block of kept_matching_bytes(n, ...) bytes.
KeptSymmetricMatching kept_matching_view(void *block, int n);

// Stores pivots and domains of `out` into the block (out->perm is already
// the block's perm array).  out->ndom must not exceed the max_domains the
// block was sized for.
void keep_symmetric_matching(const SymmetricMatching &out, int n, void *block);

}  // namespace vm

#endif  // VELMORA_ANALYSIS_MATCHING_H
