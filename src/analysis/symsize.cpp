/*
 * symsize.cpp - figures derived from the row structure of the supernodes:
 * update counts (FNPMOD_VELMORA), the size of the dense update buffer, and
 * the flop count of the factorization.
 */
#include <algorithm>
#include <cstdint>

#include "analysis/parallel_fill.h"
#include "analysis/symbolic.h"
#include "factor/workspace.h"

namespace vm {

/*
 * FNPMOD_VELMORA
 *
 * In:   nsuper, xsuper[nsuper+1], xlindx[nsuper+1], lindx, snode[n].
 * Out:  nmod[nsuper]: for each supernode, the number of other supernodes
 *       that update it.  Supernode k updates every supernode owning one of
 *       its rows below its own columns; the rows are sorted, so the rows
 *       owned by one target are consecutive and a change of owner along
 *       the list marks a new target.
 * Work: none.
 */
void FNPMOD_VELMORA(int nsuper, const int *xsuper, const std::int64_t *xlindx, const int *lindx,
                    const int *snode, int *nmod) {
  if (nsuper < 1) return;
  parallel_fill(nmod, nsuper, 0);
  for (int k = 1; k <= nsuper; ++k) {
    const int width = xsuper[k] - xsuper[k - 1];
    int previous = 0;
    for (std::int64_t p = xlindx[k - 1] + width; p < xlindx[k]; ++p) {
      const int target = snode[lindx[p - 1] - 1];
      if (target != previous) {
        ++nmod[target - 1];
        previous = target;
      }
    }
  }
}

/*
 * compute_tmpsiz: entries of the dense buffer `temp` one task needs: the
 * largest use the factorization makes of it (see factor/workspace.h),
 *  - update of target T by supernode J (width wJ) through the c rows of J
 *    inside T, the result block reaching the q rows of J from the first
 *    one in T to the end, with the copy of the c rows (wJ wide) behind it;
 *  - the Bunch-Kaufman panel of supernode K: wK x qK for the qK rows
 *    below its wK columns;
 * over all supernodes and all their target groups.
 *
 * In:   n, nsuper, xsuper, xlindx, lindx, snode, indefinite.  Work: none.
 *
 * Supernodes are scanned from the last one with a running best; a
 * supernode's walk stops as soon as the rows left (q) cannot produce a
 * larger term, since c <= q.  A size of zero (no supernode has rows below
 * its columns) becomes n, and for indefinite types at least maxw*maxw/2,
 * maxw being the widest supernode.
 */
std::int64_t compute_tmpsiz(int n, int nsuper, const int *xsuper, const std::int64_t *xlindx,
                            const int *lindx, const int *snode, int indefinite) {
  std::int64_t best = 0;
  std::int64_t maxw = 0;
  for (int k = nsuper; k >= 1; --k) {
    const std::int64_t width = xsuper[k] - xsuper[k - 1];
    const std::int64_t below = xlindx[k] - xlindx[k - 1] - width;
    maxw = std::max(maxw, width);
    best = std::max(best, panel_temp_entries(width, below));
    if (update_temp_entries(below, below, width) <= best) continue;
    std::int64_t p = xlindx[k - 1] + width;
    const std::int64_t end = xlindx[k];
    while (p < end) {
      const std::int64_t q = end - p;
      if (update_temp_entries(q, q, width) <= best) break;
      const int target = snode[lindx[p - 1] - 1];
      std::int64_t c = 0;
      while (p < end && snode[lindx[p - 1] - 1] == target) {
        ++c;
        ++p;
      }
      best = std::max(best, update_temp_entries(c, q, width));
    }
  }
  if (best == 0) {
    best = n;
    if (indefinite) best = std::max(best, maxw * maxw / 2);
  }
  return best;
}

/*
 * factor_flops
 *
 * In:  n, nsuper, xsuper[nsuper+1], xlindx[nsuper+1], unsym.  Work: none.
 * Column j of supernode k (first column f) has c_j = len_k - (j - f)
 * entries in L, diagonal included, len_k = xlindx(k+1) - xlindx(k); with
 * m_j = c_j - 1 the count is
 *   symmetric:  sum_j c_j^2 = sum_j (1 + m_j + m_j (m_j + 1)),
 *               one pivot, m_j divisions, m_j (m_j + 1) / 2 multiply-adds;
 *   LU:         sum_j (m_j + 2 m_j^2),
 *               m_j divisions, m_j^2 multiply-adds of the full update.
 */
double factor_flops(int n, int nsuper, const int *xsuper, const std::int64_t *xlindx, int unsym) {
  (void)n;
  double total = 0.0;
  for (int k = 1; k <= nsuper; ++k) {
    const int first = xsuper[k - 1];
    const int last = xsuper[k] - 1;
    const std::int64_t len = xlindx[k] - xlindx[k - 1];
    for (int j = first; j <= last; ++j) {
      const double c = static_cast<double>(len - (j - first));
      const double m = c - 1.0;
      total += unsym ? m + 2.0 * m * m : c * c;
    }
  }
  return total;
}

}  // namespace vm
