// domains.cpp - regrouping and closing of the domain list.
#include "analysis/domains.h"

#include <algorithm>
#include <cstdint>

#include "analysis/symbolic.h"

namespace vm {

int domain_target(int n, int nthreads, int nnodes) {
  const long long want = static_cast<long long>(nthreads > 0 ? nthreads : 1) *
                         static_cast<long long>(nnodes > 0 ? nnodes : 1);
  long long p = 1;
  while (p < want) p *= 2;
  if (p > n) p = n;
  return p < 1 ? 1 : static_cast<int>(p);
}

int regroup_domains(int n, int *perm, int *domains, int *ndom, int nschur, int *work) {
  const int nd = *ndom;
  int *label = work;      // label of each original node, one-based index
  int *order = work + n;  // the new sequence
  const int schur_first = nschur > 0 ? n - nschur + 1 : n + 1;
  for (int k = 0; k < n; ++k) label[perm[k] - 1] = nd + 1;
  for (int d = 0; d < nd; ++d) {
    const int first = domains[2 * d], last = domains[2 * d + 1];
    for (int k = first; k <= last && k >= 1 && k <= n; ++k) label[perm[k - 1] - 1] = d + 1;
  }
  int next = 0, kept = 0, degenerate = 0;
  for (int d = 1; d <= nd; ++d) {
    const int first = next + 1;
    for (int k = 0; k < n; ++k) {
      const int node = perm[k];
      if (label[node - 1] == d && node < schur_first) order[next++] = node;
    }
    // Schur rows taken out may leave a domain empty or with one node: no
    // independent subgraph worth a thread.
    if (nschur > 0 && next - first + 1 <= 1) degenerate = 1;
    if (next >= first) {
      domains[2 * kept] = first;
      domains[2 * kept + 1] = next;
      ++kept;
    }
  }
  for (int k = 0; k < n; ++k) {
    const int node = perm[k];
    if (label[node - 1] == nd + 1 && node < schur_first) order[next++] = node;
  }
  for (int node = schur_first; node <= n; ++node) order[next++] = node;
  for (int k = 0; k < n; ++k) perm[k] = order[k];
  *ndom = kept;
  return degenerate;
}

void move_schur_rows_last(int n, int *perm, int nschur, int *work) {
  if (nschur <= 0) return;
  const int schur_first = n - nschur + 1;
  int next = 0;
  for (int k = 0; k < n; ++k)
    if (perm[k] < schur_first) work[next++] = perm[k];
  for (int node = schur_first; node <= n; ++node) work[next++] = node;
  for (int k = 0; k < n; ++k) perm[k] = work[k];
}

int move_marked_rows_last(int n, int *perm, const int *mask, int *work) {
  int next = 0;
  for (int k = 0; k < n; ++k)
    if (mask[perm[k] - 1] == 0) work[next++] = perm[k];
  const int unmarked = next;
  for (int k = 0; k < n; ++k)
    if (mask[perm[k] - 1] != 0) work[next++] = perm[k];
  for (int k = 0; k < n; ++k) perm[k] = work[k];
  return n - unmarked;
}

int close_domain_list(int n, int *domains, int ndom) {
  if (ndom <= 1) {
    domains[0] = 1;
    domains[1] = n - 1;
    domains[2] = n;
    domains[3] = n;
    return 1;
  }
  const int last_end = domains[2 * ndom - 1];
  if (last_end >= n) {
    domains[2 * ndom - 1] = n - 1;
    domains[2 * ndom] = n;
    domains[2 * ndom + 1] = n;
  } else {
    domains[2 * ndom] = last_end + 1;
    domains[2 * ndom + 1] = n;
  }
  return ndom;
}

int node_first_domain(int ndom, int nnodes, int k) {
  if (nnodes < 1) return 0;
  return static_cast<int>(std::int64_t{ndom} * k / nnodes);
}

int split_top_by_node(int n, const int *xadj, const int *adjncy, int *perm, const int *domains,
                      int ndom, int nnodes, int *tops, int *work) {
  const int kGlobal = nnodes;  // label of the global top
  const int kFree = -1;        // a top column with no domain below it (yet)
  int *invp = work;
  int *parent = work + n;
  int *label = work + 2 * n;  // by position; the elimination tree's scratch first
  const int xtop = domains[2 * ndom];
  for (int k = 0; k < n; ++k) invp[perm[k] - 1] = k + 1;
  etree(n, xadj, adjncy, perm, invp, parent, label);

  // Labels: a domain column its node's; a top column the common label of
  // its children (kGlobal when they differ), children before parents.
  std::fill(label + xtop - 1, label + n, kFree);
  for (int node = 0; node < nnodes; ++node) {
    for (int d = node_first_domain(ndom, nnodes, node);
         d < node_first_domain(ndom, nnodes, node + 1); ++d)
      for (int j = domains[2 * d]; j <= domains[2 * d + 1]; ++j) label[j - 1] = node;
  }
  for (int j = 1; j <= n; ++j) {
    const int p = parent[j - 1];
    if (p < xtop || label[j - 1] == kFree) continue;
    int &lp = label[p - 1];
    lp = lp == kFree ? label[j - 1] : lp == label[j - 1] ? lp : kGlobal;
  }
  // A top column without a domain below it goes with its parent (parents
  // first); a root of that kind is global.
  for (int j = n; j >= xtop; --j) {
    if (label[j - 1] != kFree) continue;
    const int p = parent[j - 1];
    label[j - 1] = p == 0 ? kGlobal : label[p - 1];
  }

  // Stable reorder of the top by label; invp serves as the new sequence.
  int *order = invp;
  int next = 0, local = 0;
  for (int node = 0; node <= nnodes; ++node) {
    tops[2 * node] = xtop + next;
    for (int j = xtop; j <= n; ++j)
      if (label[j - 1] == node) order[next++] = perm[j - 1];
    tops[2 * node + 1] = xtop + next - 1;
    if (node < nnodes) local = next;
  }
  std::copy(order, order + next, perm + xtop - 1);
  return local;
}

}  // namespace vm
