// domains.cpp - regrouping and closing of the domain list.
#include "analysis/domains.h"

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

}  // namespace vm
