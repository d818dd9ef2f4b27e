// reorder1.cpp - REORDER1_VELMORA: from the pattern of A to an ordering
// with its domains, column counts and supernodes.
//
//   1. adjacency of A + A^T without diagonal (LADJ_MOD_VELMORA)
//   2. the fill-reducing ordering chosen by iparm(2), or the caller's
//   3. domains: regrouping of nested-dissection subgraphs, Schur rows and
//      partial-solve rows last, the closing top pair
//   4. invp, then sfinit: elimination tree, column counts, supernodes
#include "analysis/reorder1.h"

#include <omp.h>

#include <algorithm>

#include "analysis/domains.h"
#include "analysis/ladj_mod.h"
#include "analysis/ordering.h"
#include "analysis/symbolic.h"

namespace vm {

namespace {

int largest_power_of_two_at_most(int v) {
  int p = 1;
  while (p <= v / 2) p *= 2;
  return p;
}

// Copies the caller's ordering after checking that it is a permutation;
// a corrupt one would send every later stage out of its arrays.
int take_user_perm(int n, const int *user_perm, int *perm, int *seen) {
  std::fill(seen, seen + n, 0);
  for (int k = 0; k < n; ++k) {
    const int v = user_perm[k];
    if (v < 1 || v > n || seen[v - 1]) return kReorderBadUserPerm;
    seen[v - 1] = 1;
  }
#pragma omp parallel for schedule(static)
  for (int k = 0; k < n; ++k) perm[k] = user_perm[k];
  return 0;
}

// Runs the ordering of s.ordering; nested dissection fills domains.
int run_ordering(int n, const Reorder1Settings &s, const Reorder1Arrays &a, int target, int *ndom) {
  *ndom = 1;
  switch (s.ordering) {
    case 0:
      return ORDER_MMD_VELMORA(n, a.xadj, a.adjncy, a.perm, a.invp, a.work, a.lwork);
    case 1:
      return ORDER_CMD_VELMORA(n, a.xadj, a.adjncy, s.mmd_on_separator, a.perm, a.invp, a.work,
                               a.lwork);
    case 4:
      return ORDER_AMD_VELMORA(n, a.xadj, a.adjncy, a.perm, a.invp, a.work, a.lwork);
    default:
      break;
  }
  // Nested dissection (2 and 3).  Route 2 sets its options from the widest
  // row; until the multilevel bisection of this library exists both take
  // the METIS 5.1 route with domains.
  int options[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  if (s.ordering == 2) metis_options_for_route2(n, a.xadj, options);
  const int want = s.sparse_rhs > 0 ? 1 : largest_power_of_two_at_most(std::max(1, target));
  return ORDER_METIS5_VELMORA(n, a.xadj, a.adjncy, options, want, a.perm, a.invp, a.domains, ndom);
}

// Makes column c (one-based) the first of a supernode, splitting the one
// that runs across it.  A partial solve needs this at its first selected
// position: the substitutions then start and stop at a supernode boundary,
// so that no exchange inside a block mixes selected and unselected rows.
//   In/out: snode[n], xsuper[nsuper+1] (room for one more), nsuper, nsub
//           (colcnt of the new first column is added), domains as supernode
//           ranges (npairs pairs; a range holding the split supernode
//           holds both halves).
void start_supernode_at(int c, int n, const int *colcnt, int *snode, int *xsuper, int *nsuper,
                        std::int64_t *nsub, int *domains, int npairs) {
  if (c <= 1 || c > n || snode[c - 1] != snode[c - 2]) return;
  const int s = snode[c - 1];  // split into s (columns < c) and s+1
  for (int j = c; j <= n; ++j) ++snode[j - 1];
  for (int t = *nsuper; t >= s; --t) xsuper[t + 1] = xsuper[t];
  xsuper[s] = c;
  ++*nsuper;
  *nsub += colcnt[c - 1];
  for (int d = 0; d < npairs; ++d) {
    if (domains[2 * d] > s) ++domains[2 * d];
    if (domains[2 * d + 1] >= s) ++domains[2 * d + 1];
  }
}

}  // namespace

std::int64_t reorder1_work_size(int ordering, int n, std::int64_t adjacency_capacity) {
  std::int64_t need = std::max<std::int64_t>(ladj_mod_work_size(n), 2 * std::int64_t{n});
  need = std::max(need, sfinit_work_size(n));
  if (ordering == 0) need = std::max(need, order_mmd_work_size(n, adjacency_capacity));
  if (ordering == 1) need = std::max(need, order_cmd_work_size(n, adjacency_capacity));
  if (ordering == 4) need = std::max(need, order_amd_work_size(n, adjacency_capacity));
  return need;
}

int REORDER1_VELMORA(int n, const int *ia, const int *ja, const int *rowmap, const int *user_perm,
                     const int *given_domains, const int *mask, const Reorder1Settings &s,
                     const Reorder1Arrays &a, Reorder1Results *out) {
  Reorder1Results &r = *out;
  r = Reorder1Results{};

  double t0 = omp_get_wtime();
  if (ladj_mod_capacity(n, ia) > kMaxAdjacency) return kReorderOverflow;
  // The adjacency is the same on any team; a call narrowed to its own
  // thread builds it without atomics.
  const int team = std::min(s.nthreads, omp_get_max_threads());
  r.nadj = static_cast<int>(LADJ_MOD_VELMORA(n, ia, ja, rowmap, team, a.xadj, a.adjncy, a.work));
  debug_dump_array("xadj", a.xadj, n + 1, 4);
  debug_dump_array("adjncy", a.adjncy, r.nadj, 4);
  r.t_adjacency = omp_get_wtime() - t0;

  t0 = omp_get_wtime();
  r.target_domains = domain_target(n, s.domain_team, s.nnodes);
  int ndom = 1;
  int status = 0;
  if (s.perm_mode >= 1 || s.given_order) {
    status = take_user_perm(n, user_perm, a.perm, a.work);
    // A symmetric matching ordered its compressed graph by nested
    // dissection: its domains hold whole 2x2 pairs and are taken as they
    // come (never more than the list was sized for).
    if (status == 0 && given_domains && s.given_order && given_domains[0] >= 2 &&
        given_domains[0] <= r.target_domains) {
      ndom = given_domains[0];
      std::copy(given_domains + 1, given_domains + 1 + 2 * ndom, a.domains);
    }
  } else {
    status = run_ordering(n, s, a, r.target_domains, &ndom);
  }
  debug_dump_array("invp after sssord", a.invp, n, 4);
  debug_dump_array("perm after sssord", a.perm, n, 4);
  if (status != 0) return status;
  const bool dissection =
      s.perm_mode < 1 && (s.given_order ? ndom >= 2 : (s.ordering == 2 || s.ordering == 3));

  // Domains: nested dissection hands its subgraphs over; everything else,
  // and any partial solve, is one domain.
  if (!dissection || s.sparse_rhs > 0 || ndom < 2) {
    ndom = 1;
    move_schur_rows_last(n, a.perm, s.schur_size, a.work);
  } else if (regroup_domains(n, a.perm, a.domains, &ndom, s.schur_size, a.work) != 0) {
    ndom = 1;
  }
  if (s.sparse_rhs > 0 && mask) r.marked_rows = move_marked_rows_last(n, a.perm, mask, a.work);
  r.ndom = close_domain_list(n, a.domains, ndom);
  r.domain_width = 0;
  for (int d = 0; d < r.ndom; ++d)
    r.domain_width = std::max(r.domain_width, a.domains[2 * d + 1] - a.domains[2 * d] + 1);
  // Distributed mode: the top splits into each node's local top and the
  // global top; sfinit takes their pairs in place of the top pair.
  // A node without a domain would have nothing to factor: the split has at
  // most as many nodes as there are domains, whatever iparm(52) asks.
  int npairs = r.ndom;
  const int nodes = std::min(s.nnodes, r.ndom);
  if (s.distributed != 0 && nodes >= 1 && s.schur_size == 0 && s.sparse_rhs == 0 && r.ndom >= 2) {
    r.local_separators = split_top_by_node(n, a.xadj, a.adjncy, a.perm, a.domains, r.ndom, nodes,
                                           a.domains + 2 * r.ndom, a.work);
    r.global_separators = n - a.domains[2 * r.ndom] + 1 - r.local_separators;
    r.node_split = nodes;
    npairs = r.ndom + nodes;
  }

#pragma omp parallel for schedule(static)
  for (int k = 0; k < n; ++k) a.invp[a.perm[k] - 1] = k + 1;
  r.t_ordering = omp_get_wtime() - t0;

  t0 = omp_get_wtime();
  std::int64_t nnzl = 0, nsub = 0;
  int nsuper = 0;
  status = sfinit(n, &npairs, a.domains, a.xadj, a.adjncy, a.perm, a.invp, a.parent, a.colcnt,
                  &nnzl, &nsub, &nsuper, a.snode, a.xsuper, a.work, s.panel_size, s.schur_size,
                  kSchurPostorder);
  if (r.node_split == 0) r.ndom = npairs;
  debug_dump_array("invp after sfinit", a.invp, n, 4);
  debug_dump_array("perm after sfinit", a.perm, n, 4);
  r.t_symbolic = omp_get_wtime() - t0;
  if (status != 0) return status;
  if (r.node_split > 0) {
    // [domains][local tops][global top] -> [domains][top][local tops][global top]
    int *tops = a.domains + 2 * r.ndom;
    std::copy_backward(tops, tops + 2 * (r.node_split + 1), tops + 2 * (r.node_split + 2));
    tops[0] = tops[2];
    tops[1] = nsuper;
  }
  if (s.sparse_rhs > 0 && r.marked_rows > 0)
    start_supernode_at(n - r.marked_rows + 1, n, a.colcnt, a.snode, a.xsuper, &nsuper, &nsub,
                       a.domains, r.ndom + 1);
  r.nsuper = nsuper;
  r.nsub = nsub;
  r.fill = nnzl;
  r.max_supernode = 0;
  for (int k = 0; k < nsuper; ++k)
    r.max_supernode = std::max(r.max_supernode, a.xsuper[k + 1] - a.xsuper[k]);
  return 0;
}

}  // namespace vm
