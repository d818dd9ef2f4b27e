// graph_check.cpp - validation of a one-based adjacency structure.
//
// order_check_graph(n, xadj, adjncy, check_symmetry, work)
//   in:   n >= 0; xadj (n+1), one-based row pointers, xadj[0] = 1 and
//         non-decreasing; adjncy (xadj[n]-1), entries in 1..n; duplicates
//         and self loops allowed.
//   out:  kOrderOk, kOrderBadArgument for a malformed structure,
//         kOrderNotSymmetric when check_symmetry != 0 and some j lies in the
//         row of i without i lying in the row of j (self loops and
//         repetitions do not count).
//   work: order_check_graph_work_size(n, nadj) = 2n+1+nadj ints when
//         check_symmetry != 0: the transposed structure (n+1 pointers and
//         nadj indices) and one marker per node.  Nothing is allocated.
//   time: O(n + nadj).
#include <cstdint>

#include "analysis/ordering.h"

namespace vm {

int64_t order_check_graph_work_size(int n, int64_t nadj) {
  if (n < 0 || nadj < 0) return 0;
  return 2 * static_cast<int64_t>(n) + 1 + nadj;
}

int order_check_graph(int n, const int *xadj, const int *adjncy, int check_symmetry, int *work) {
  if (n < 0) return kOrderBadArgument;
  if (n == 0) return kOrderOk;
  if (xadj == nullptr || xadj[0] != 1) return kOrderBadArgument;
  for (int i = 0; i < n; ++i) {
    if (xadj[i + 1] < xadj[i]) return kOrderBadArgument;
  }
  const int nadj = xadj[n] - 1;
  if (nadj > 0 && adjncy == nullptr) return kOrderBadArgument;
  for (int k = 0; k < nadj; ++k) {
    if (adjncy[k] < 1 || adjncy[k] > n) return kOrderBadArgument;
  }
  if (check_symmetry == 0) return kOrderOk;
  if (work == nullptr) return kOrderBadArgument;

  // Transpose without self loops: tp (n+1 pointers), ti (indices).  Rows are
  // filled in increasing order of the source node, so each transposed row
  // is sorted and its repetitions are adjacent.
  int *tp = work;
  int *mark = work + n + 1;
  int *ti = work + 2 * static_cast<int64_t>(n) + 1;
  for (int i = 0; i <= n; ++i) tp[i] = 0;
  for (int i = 0; i < n; ++i) {
    for (int k = xadj[i] - 1; k < xadj[i + 1] - 1; ++k) {
      const int j = adjncy[k] - 1;
      if (j != i) ++tp[j + 1];
    }
  }
  for (int i = 0; i < n; ++i) tp[i + 1] += tp[i];
  for (int i = 0; i < n; ++i) mark[i] = tp[i];
  for (int i = 0; i < n; ++i) {
    for (int k = xadj[i] - 1; k < xadj[i + 1] - 1; ++k) {
      const int j = adjncy[k] - 1;
      if (j != i) ti[mark[j]++] = i;
    }
  }

  // Row i and transposed row i must hold the same set: the transposed row
  // lies inside the marked row and both have as many distinct entries.
  for (int i = 0; i < n; ++i) mark[i] = -1;
  for (int i = 0; i < n; ++i) {
    int distinct_row = 0;
    for (int k = xadj[i] - 1; k < xadj[i + 1] - 1; ++k) {
      const int j = adjncy[k] - 1;
      if (j != i && mark[j] != i) {
        mark[j] = i;
        ++distinct_row;
      }
    }
    int distinct_col = 0;
    int previous = -1;
    for (int k = tp[i]; k < tp[i + 1]; ++k) {
      const int r = ti[k];
      if (mark[r] != i) return kOrderNotSymmetric;
      if (r != previous) {
        ++distinct_col;
        previous = r;
      }
    }
    if (distinct_row != distinct_col) return kOrderNotSymmetric;
  }
  return kOrderOk;
}

}  // namespace vm
