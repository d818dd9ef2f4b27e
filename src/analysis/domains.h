// domains.h - the independent subgraphs of an ordering.
//
// A domain list holds (first, last) pairs of positions in `perm`, one-based:
// ndom pairs for the domains, then one pair for the separator nodes above
// all of them (the top of the tree).  Parallel factorization gives each
// thread a domain and shares the top.
#ifndef VELMORA_ANALYSIS_DOMAINS_H
#define VELMORA_ANALYSIS_DOMAINS_H

namespace vm {

// Domains asked of nested dissection: the smallest power of two at or
// above nthreads*nnodes, at most n (and at least 1).
int domain_target(int n, int nthreads, int nnodes);

// The team an analysis cuts its domains and sizes its supernodes for.
// Results that must come out the same bits at every team size (iparm(34))
// need an ordering and supernodes that do not depend on the team: they are
// cut for a fixed team of kFixedOrderTeam whatever runs them.
constexpr int kFixedOrderTeam = 4;
inline int analysis_team(int nthreads, int identical_results) {
  return identical_results != 0 ? kFixedOrderTeam : nthreads;
}

// Moves every domain's nodes to the front, domain after domain in the
// order of the list, keeping their relative order, and the nodes outside
// all domains after them in position order.  With nschur > 0 the rows
// n-nschur+1..n of the original numbering leave their domains and go last
// in natural order, so that perm(n-nschur+i) = n-nschur+i.  domains is
// rewritten to the new ranges (ndom pairs; empty domains are dropped, and
// *ndom is updated).  Returns 1 when a domain was left with first not below
// last (the caller then falls back to one domain), else 0.
//   work: 2n ints.
int regroup_domains(int n, int *perm, int *domains, int *ndom, int nschur, int *work);

// Moves the original rows n-nschur+1..n to the end of perm in natural
// order, keeping the order of the others.  work: n ints.
void move_schur_rows_last(int n, int *perm, int nschur, int *work);

// Partial solve: the rows with a zero mask entry first, in perm order, then
// the marked rows.  Returns the number of marked rows.  work: n ints.
int move_marked_rows_last(int n, int *perm, const int *mask, int *work);

// Closes a list of ndom domain pairs with its top pair, giving ndom+1 pairs
// (domains needs room for 2*(ndom+2) ints).  One domain (or none) becomes
// (1, n-1), (n, n); a last domain that ends at n gives up its last node to
// a one-node top.  Returns the final domain count.
int close_domain_list(int n, int *domains, int ndom);

// The block-partitioned mode groups the domains by compute node: node k
// (0-based, of nnodes) owns domains node_first_domain(ndom, nnodes, k) to
// node_first_domain(ndom, nnodes, k+1) - 1 (0-based), consecutive domains
// of the dissection, which hang under one separator of its upper levels.
int node_first_domain(int ndom, int nnodes, int k);

// The top of a closed domain list split by compute node.  A column of the
// top belongs to node k's local top when every domain below it in the
// elimination tree is one of node k's; the others form the global top.
// The top is reordered stably, the local tops of nodes 0..nnodes-1 first,
// then the global top: every column still follows its descendants in the
// elimination tree, so the factor's fill is unchanged.
//   In:     n; xadj, adjncy (the graph, original numbering); domains (ndom
//           column pairs, then the top pair); nnodes >= 1.
//   In/out: perm (n): the top positions reordered.
//   Out:    tops (2 * (nnodes + 1)): each node's local top as a column
//           pair (last = first - 1 when empty), then the global top's pair.
//   Work:   3n ints.
// Returns the columns of the local tops together.
int split_top_by_node(int n, const int *xadj, const int *adjncy, int *perm, const int *domains,
                      int ndom, int nnodes, int *tops, int *work);

}  // namespace vm

#endif  // VELMORA_ANALYSIS_DOMAINS_H
