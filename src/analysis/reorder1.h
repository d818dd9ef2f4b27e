// reorder1.h - first half of analysis: adjacency, ordering, domains and
// the column counts and supernodes of the ordered matrix.
#ifndef VELMORA_ANALYSIS_REORDER1_H
#define VELMORA_ANALYSIS_REORDER1_H

#include <cstdint>

namespace vm {

// Arrays REORDER1_VELMORA fills, carved by the caller (one-based contents).
struct Reorder1Arrays {
  int *xadj;     // n+1
  int *adjncy;   // ladj_mod_capacity(n, ia)
  int *perm;     // n
  int *invp;     // n
  int *domains;  // 2*(target+nnodes+2)
  int *colcnt;   // n
  int *snode;    // n
  int *xsuper;   // n+1
  int *parent;   // n
  int *work;     // reorder1_work_size(...)
  std::int64_t lwork;
};

// The settings of an analysis that the first half reads.
struct Reorder1Settings {
  int ordering = 0;          // iparm(2)
  int nthreads = 1;          // team of the analysis
  int domain_team = 1;       // team the domains are cut for (analysis_team)
  int nnodes = 1;            // nodes of the distributed mode
  int distributed = 0;       // iparm(51): the top is split by node
  int perm_mode = 0;         // iparm(5): >= 1 takes user_perm
  int given_order = 0;       // 1: user_perm is the order of a symmetric matching
  int mmd_on_separator = 1;  // of the constrained minimum degree
  int sparse_rhs = 0;        // iparm(31): a partial solve
  int schur_size = 0;        // iparm(38)
  int panel_size = 0;        // width limit of a supernode
};

// What it finds, and the seconds its three parts took (-1: not reached).
struct Reorder1Results {
  int nadj = 0;            // entries of the adjacency graph
  int target_domains = 1;  // domains asked of nested dissection
  int ndom = 1;            // domains below the top pair
  int domain_width = 0;    // largest domain, in columns
  int marked_rows = 0;     // rows of a partial solve
  // The block-partitioned mode: the nodes the top was split for (0: not
  // split), and the columns of their local tops and of the global top.
  int node_split = 0;
  int local_separators = 0;
  int global_separators = 0;
  int nsuper = 0;
  int max_supernode = 0;
  std::int64_t nsub = 0;
  std::int64_t fill = 0;  // entries of L, diagonal included
  double t_adjacency = -1, t_ordering = -1, t_symbolic = -1;
};

// Status values besides 0 and the ordering routines' own.
constexpr int kReorderBadUserPerm = -11;  // the caller's perm is no permutation
constexpr int kReorderOverflow = -182;    // the graph exceeds 32-bit indices
// Largest adjacency (entries of both triangles) the 32-bit indices hold.
constexpr std::int64_t kMaxAdjacency = 0x7ffffffe;

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
//        (the partial-solve marks, read when sparse_rhs > 0); the settings
//   out: the arrays of a, and the results.  domains holds ndom supernode
//        pairs and the top pair; with a node split (distributed mode, at
//        least two domains, no Schur block) node_split pairs follow, each
//        node's local top, then the global top's pair: the top pair is the
//        local tops and the global top after one another.
// Returns 0, kReorderBadUserPerm, kReorderOverflow, or the nonzero status
// of the ordering routine (1: out of memory inside METIS or AMD).
int REORDER1_VELMORA(int n, const int *ia, const int *ja, const int *rowmap, const int *user_perm,
                     const int *given_domains, const int *mask, const Reorder1Settings &set,
                     const Reorder1Arrays &a, Reorder1Results *out);

}  // namespace vm

#endif  // VELMORA_ANALYSIS_REORDER1_H
