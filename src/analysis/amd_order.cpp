// amd_order.cpp - approximate minimum degree through AMD.
//
// ORDER_AMD_VELMORA(n, xadj, adjncy, perm, invp, work, lwork)
//   in:   n >= 0; xadj (n+1), adjncy (xadj[n]-1): one-based adjacency
//         without diagonal (AMD itself orders the pattern of A+A^T, so an
//         unsymmetric structure is accepted).
//   out:  perm (n), invp (n), one-based inverse permutations; status
//         kOrderOk, kOrderBadArgument, kOrderShortWork, kOrderNoMemory
//         (AMD_OUT_OF_MEMORY) or kOrderLibraryError (AMD_INVALID or any
//         other status than AMD_OK and AMD_OK_BUT_JUMBLED).
//   work: lwork >= order_amd_work_size(n, nadj) = n+1+nadj ints: the
//         zero-based copies of xadj and adjncy.  AMD allocates its own
//         workspace.
//
// amd_defaults sets the dense row threshold 10 and aggressive absorption;
// amd_order writes the zero-based pivot sequence straight into perm, which
// is then shifted to one base and inverted into invp.
#include <amd.h>

#include <cstdint>

#include "analysis/ordering.h"

namespace vm {

int64_t order_amd_work_size(int n, int64_t nadj) {
  if (n < 0 || nadj < 0) return 0;
  return static_cast<int64_t>(n) + 1 + nadj;
}

int ORDER_AMD_VELMORA(int n, const int *xadj, const int *adjncy, int *perm, int *invp, int *work,
                      int64_t lwork) {
  if (n < 0) return kOrderBadArgument;
  if (n == 0) return kOrderOk;
  if (xadj == nullptr || perm == nullptr || invp == nullptr || work == nullptr) {
    return kOrderBadArgument;
  }
  const int status = order_check_graph(n, xadj, adjncy, 0, nullptr);
  if (status != kOrderOk) return status;
  const int64_t nadj = static_cast<int64_t>(xadj[n]) - 1;
  if (lwork < order_amd_work_size(n, nadj)) return kOrderShortWork;

  int *ap = work;
  int *ai = work + n + 1;
  for (int i = 0; i <= n; ++i) ap[i] = xadj[i] - 1;
  for (int64_t k = 0; k < nadj; ++k) ai[k] = adjncy[k] - 1;

  double control[AMD_CONTROL];
  double info[AMD_INFO];
  amd_defaults(control);
  const int rc = amd_order(n, ap, ai, perm, control, info);
  if (rc == AMD_OUT_OF_MEMORY) return kOrderNoMemory;
  if (rc != AMD_OK && rc != AMD_OK_BUT_JUMBLED) return kOrderLibraryError;

  for (int k = 0; k < n; ++k) invp[perm[k]] = k + 1;
  for (int k = 0; k < n; ++k) perm[k] += 1;
  return kOrderOk;
}

}  // namespace vm
