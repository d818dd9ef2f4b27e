// reorder1.h - first half of analysis: adjacency, ordering, domains and
// the column counts and supernodes of the ordered matrix.
#ifndef VELMORA_ANALYSIS_REORDER1_H
#define VELMORA_ANALYSIS_REORDER1_H

#include <cstdint>

#include "interface/control.h"

namespace vm {

// Arrays REORDER1_VELMORA fills, carved by the caller (one-based contents).
struct Reorder1Arrays {
  int *xadj;     // n+1
  int *adjncy;   // ladj_mod_capacity(n, ia)
  int *perm;     // n
  int *invp;     // n
  int *domains;  // 2*(target+2)
  int *colcnt;   // n
  int *snode;    // n
  int *xsuper;   // n+1
  int *parent;   // n
  int *work;     // reorder1_work_size(...)
  std::int64_t lwork;
};

// Status values besides 0 and the ordering routines' own.
constexpr int kReorderBadUserPerm = -11;  // the caller's perm is no permutation
constexpr int kReorderOverflow = -182;    // the graph exceeds 32-bit indices

// Ints of work: enough for the adjacency, the chosen ordering, the domain
// regrouping and sfinit.
std::int64_t reorder1_work_size(int ordering, int n, std::int64_t adjacency_capacity);

// REORDER1_VELMORA
//   in:  n; ia, ja (the pattern, one-based); rowmap (n, one-based: row i of
//        the graph's matrix is row rowmap(i) of A; null for the identity);
//        user_perm (the caller's ordering, read when perm_mode >= 1, or the
//        order of a symmetric matching); given_domains (with the order of a
//        symmetric matching: its domain count, then that many one-based
//        (first, last) pairs of positions; null otherwise); mask
//        (the partial-solve marks, read when sparse_rhs > 0); cb: ordering,
//        nthreads, nnodes, perm_mode, schur_size, sparse_rhs, panel_size,
//        mmd_on_separator, mtype
//   out: the arrays of a; in cb: nadj, target_domains, ndom, domain_width,
//        nsuper, max_supernode, nsub, marked_rows, and the timers
//        "fulladj", "reorder", "symbfct"
// Returns 0, kReorderBadUserPerm, kReorderOverflow, or the nonzero status
// of the ordering routine (1: out of memory inside METIS or AMD).
int REORDER1_VELMORA(int n, const int *ia, const int *ja, const int *rowmap, const int *user_perm,
                     const int *given_domains, const int *mask, ControlBlock *cb,
                     const Reorder1Arrays &a);

}  // namespace vm

#endif  // VELMORA_ANALYSIS_REORDER1_H
