// left_looking.h - the supernode loop shared by the factorization families
// (Cholesky, LDL^T, LU): left-looking, each supernode pulls the updates of
// its descendants, which wait on linked chains.
//
// Chains: link (n entries, by first column) holds, for the first column of
// each supernode, the first column of the next descendant waiting on it
// (0 ends a chain);
// length (nsuper) holds how many tail rows of a descendant are still to
// be applied.  A descendant whose tail reaches further moves on to the
// chain of the supernode of its next row.
#ifndef VELMORA_FACTOR_LEFT_LOOKING_H
#define VELMORA_FACTOR_LEFT_LOOKING_H

#include <cassert>
#include <cstdint>

#include "analysis/parallel_fill.h"
#include "factor/factor_args.h"
#include "factor/panel.h"

namespace vm {

// Puts the supernode whose first column is jfirst at the head of the chain
// of the supernode whose first column is tfirst.
inline void push_on_chain(int *link, int tfirst, int jfirst) {
  link[jfirst - 1] = link[tfirst - 1];
  link[tfirst - 1] = jfirst;
}

// left_looking: for each supernode ksup in order,
//   1. k = make(ksup), the family's target record (first, last, ncols,
//      len, panel and what else the family needs);
//   2. its panel is filled from A (entries scattered in, conjugated where
//      they land transposed when `hermitian`, the scaling's share of the
//      determinant taken off *logdet) - together with the panels of the
//      supernodes that continue its column chain, when ksup starts one, so
//      that a family may apply an update to several panels of a chain at
//      once - and indmap is set from its row list;
//   3. each descendant jsup on its chain is applied by
//      update(k, jsup, L) -> m, L the tail rows still to apply, m those of
//      them that were applied (columns of k, or of the supernodes after k
//      on its chain); update sets sc.iflag to stop;
//   4. unless k lies beyond the first Schur column, factor(k) -> 0, or the
//      iflag to stop with;
//   5. k goes on the chain of its first row below its columns.
// A descendant whose tail reaches beyond what it applied moves on to the
// chain of its next row.  With `pieces`, a piece of a supernode split by
// the panel width whose next row lies beyond the split supernode waits
// instead, unless it is the last piece: from there on the pieces share
// their tail, the last piece alone travels the chains, and update applies
// the pieces before it along with it.  link, length and temp are cleared
// on entry.
template <class T, class Make, class Update, class Factor>
void left_looking(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                  FactorScalars &sc, bool hermitian, bool pieces, double *logdet, Make make,
                  Update update, Factor factor) {
  const int first_schur = f.n - f.nschur;
  int *link = work.link;
  int *length = work.length;
  parallel_fill(link, f.n, 0);
  parallel_fill(length, f.nsuper, 0);
  parallel_fill(work.temp, work.tmpsiz, T(0));

  int filled = 0;  // the last supernode whose panel holds its entries of A
  for (int ksup = 1; ksup <= f.nsuper && sc.iflag == 0; ++ksup) {
    auto k = make(ksup);
    if (ksup > filled) {
      filled = ksup;
      while (continues(f, filled)) ++filled;
      for (int s = ksup; s <= filled; ++s) fill_panel(s, f, in, hermitian, logdet);
    }
    set_panel_indmap(ksup, f, work.indmap);

    // Every supernode before ksup is done, so its chain is complete.
    while (link[k.first - 1] != 0) {
      const int jfirst = link[k.first - 1];
      link[k.first - 1] = link[jfirst - 1];
      const int jsup = f.snode[jfirst - 1];
      const int L = length[jsup - 1];
      const int m = update(k, jsup, L);
      if (sc.iflag != 0) return;
      length[jsup - 1] = L - m;
      if (L > m) {
        const int next_row = f.lindx[f.xlindx[jsup] - 1 - L + m];
        if (pieces && continues(f, jsup)) {
          int last = jsup + 1;  // the last piece
          while (continues(f, last)) ++last;
          if (next_row >= f.xsuper[last]) continue;  // beyond the split supernode: waits
        }
        push_on_chain(link, f.xsuper[f.snode[next_row - 1] - 1], jfirst);
      }
    }

    // A Schur supernode keeps what it has received.
    if (k.last <= first_schur) {
      const int status = factor(k);
      if (status != 0) {
        sc.iflag = status;
        return;
      }
    }
    length[ksup - 1] = k.len - k.ncols;
    if (k.len > k.ncols) {
      const int next_row = f.lindx[f.xlindx[ksup - 1] - 1 + k.ncols];
      push_on_chain(link, f.xsuper[f.snode[next_row - 1] - 1], k.first);
    }
  }
}

// Entries of the Schur block of a symmetric factor: the lower trapezoid
// of each supernode beyond the first Schur column.
template <class T>
std::int64_t symmetric_schur_entries(const FactorView<T> &f) {
  const int first_schur = f.n - f.nschur;
  std::int64_t schur = 0;
  if (f.nschur == 0) return 0;
  for (int s = 1; s <= f.nsuper; ++s) {
    const std::int64_t c = f.xsuper[s] - f.xsuper[s - 1];
    if (f.xsuper[s] - 1 <= first_schur) continue;
    const std::int64_t r = f.xlindx[s] - f.xlindx[s - 1];
    schur += c * r - c * (c - 1) / 2;
  }
  return schur;
}

}  // namespace vm

#endif  // VELMORA_FACTOR_LEFT_LOOKING_H
