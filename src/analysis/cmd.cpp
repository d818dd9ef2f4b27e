// cmd.cpp - minimum degree with constraints from a vertex separator.
//
// ORDER_CMD_VELMORA(n, xadj, adjncy, mmd_on_separator, perm, invp, work,
//                   lwork)
//   in:   n >= 0; xadj (n+1), adjncy (xadj[n]-1): symmetric one-based
//         adjacency without diagonal; mmd_on_separator: 1 orders the
//         separator nodes by minimum degree among themselves at the end,
//         0 in increasing original index.
//   out:  perm (n), invp (n), one-based inverse permutations; status as in
//         ordering.h (kOrderNoMemory when METIS runs out of memory,
//         kOrderLibraryError for any other METIS failure).
//   work: lwork >= order_cmd_work_size(n, nadj) = n + order_mmd_work_size
//         ints: the separator marks (n), then the work of the minimum degree
//         code, whose front first holds the zero-based graph handed to
//         METIS (n+1 pointers, at most nadj indices).  METIS allocates its
//         own memory.
//
// Method.  METIS_ComputeVertexSeparator (default options) splits the graph
// into two parts and a separator.  The separator nodes are barred: the
// minimum degree loop never picks them while an unbarred node is left, so
// both parts are ordered first and the separator last.  Graphs of at most
// two nodes or without edges are not split.
#include <metis.h>

#include <cstdint>

#include "analysis/metis_calls.h"
#include "analysis/ordering.h"

namespace vm {

static_assert(sizeof(idx_t) == sizeof(int), "METIS must be built with 32-bit indices");

int64_t order_cmd_work_size(int n, int64_t nadj) {
  if (n < 0 || nadj < 0) return 0;
  return static_cast<int64_t>(n) + order_mmd_work_size(n, nadj);
}

int ORDER_CMD_VELMORA(int n, const int *xadj, const int *adjncy, int mmd_on_separator, int *perm,
                      int *invp, int *work, int64_t lwork) {
  if (n < 0) return kOrderBadArgument;
  if (n == 0) return kOrderOk;
  if (xadj == nullptr || perm == nullptr || invp == nullptr || work == nullptr) {
    return kOrderBadArgument;
  }
  int status = order_check_graph(n, xadj, adjncy, 0, nullptr);
  if (status != kOrderOk) return status;
  const int64_t nadj = static_cast<int64_t>(xadj[n]) - 1;
  if (lwork < order_cmd_work_size(n, nadj)) return kOrderShortWork;

  int *mark = work;
  int *rest = work + n;
  const int64_t lrest = lwork - n;
  // METIS trusts its input: test symmetry before handing it over.
  status = order_check_graph(n, xadj, adjncy, 1, rest);
  if (status != kOrderOk) return status;

  // Zero-based copy without self loops or repeated entries.
  idx_t *x0 = rest;
  idx_t *a0 = rest + n + 1;
  for (int i = 0; i < n; ++i) mark[i] = -1;
  idx_t ne = 0;
  x0[0] = 0;
  for (int i = 0; i < n; ++i) {
    for (int k = xadj[i] - 1; k < xadj[i + 1] - 1; ++k) {
      const int j = adjncy[k] - 1;
      if (j == i || mark[j] == i) continue;
      mark[j] = i;
      a0[ne++] = j;
    }
    x0[i + 1] = ne;
  }

  if (n <= 2 || ne == 0) {
    for (int i = 0; i < n; ++i) mark[i] = 0;
  } else {
    idx_t options[METIS_NOPTIONS];
    METIS_SetDefaultOptions(options);
    options[METIS_OPTION_NUMBERING] = 0;
    idx_t nvtxs = n;
    idx_t sepsize = 0;
    const int rc = metis_vertex_separator(&nvtxs, x0, a0, options, &sepsize, mark);
    if (rc == METIS_ERROR_MEMORY) return kOrderNoMemory;
    if (rc != METIS_OK) return kOrderLibraryError;
    // METIS labels the separator nodes 2
    for (int i = 0; i < n; ++i) mark[i] = mark[i] == 2 ? 1 : 0;
  }
  return ORDER_MMD_BARRED_VELMORA(n, xadj, adjncy, mark, mmd_on_separator != 0 ? 1 : 0, perm, invp,
                                  rest, lrest);
}

}  // namespace vm
