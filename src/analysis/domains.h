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

}  // namespace vm

#endif  // VELMORA_ANALYSIS_DOMAINS_H
