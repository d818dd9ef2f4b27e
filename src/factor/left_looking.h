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
//
// The loop runs over a range of supernodes with chains, scratch and sums
// handed to it, so that tasks can run it over disjoint ranges (subtrees)
// at once: within its range a task touches only the chain heads, panels,
// lengths and position map of its own supernodes, and a supernode that
// leaves the range is handed to the caller's exit policy.
#ifndef VELMORA_FACTOR_LEFT_LOOKING_H
#define VELMORA_FACTOR_LEFT_LOOKING_H

#include <cassert>
#include <cstdint>

#include "analysis/parallel_fill.h"
#include "factor/factor_args.h"
#include "factor/panel.h"
#include "factor/team.h"

namespace vm {

// Puts the supernode whose first column is jfirst at the head of the chain
// of the supernode whose first column is tfirst.
inline void push_on_chain(int *link, int tfirst, int jfirst) {
  link[jfirst - 1] = link[tfirst - 1];
  link[tfirst - 1] = jfirst;
}

// The chains of the loop: link (n, by first column) and length (nsuper).
struct Chains {
  int *link = nullptr;
  int *length = nullptr;
};

// Empties every chain; done once per factorization, before any range.
template <class T>
void clear_chains(const FactorView<T> &f, const Chains &c) {
  parallel_fill(c.link, f.n, 0);
  parallel_fill(c.length, f.nsuper, 0);
}

// Supernodes first..last (one-based, inclusive) of the postorder.  A range
// holds whole column chains: it neither starts nor ends inside the pieces
// of a supernode split by the panel width.
struct SupernodeRange {
  int first = 1;
  int last = 0;
};

// One task of the loop: the range it factors, the chains it reads and
// feeds, its own scratch and sums, its exit policy, and how it ended (0,
// or the status a family's update or factor returned).
template <class T>
struct LoopTask {
  SupernodeRange range;
  Chains chains;
  TaskWork<T> work;
  PivotSums sums;
  // A supernode whose next target lies beyond the range: put on that
  // target's chain (false), or left for the caller to link once the
  // tasks running beside this one are done (true).
  bool leave = false;
  int status = 0;
};

// The task of a loop over every supernode, on the chains and task slice 0
// of work.
template <class T>
LoopTask<T> whole_loop(const FactorView<T> &f, const FactorWork<T> &work) {
  LoopTask<T> t;
  t.range = SupernodeRange{1, f.nsuper};
  t.chains = Chains{work.link, work.length};
  t.work = work.task(f.n, 0);
  return t;
}

struct LoopOptions {
  bool hermitian = false;    // conjugate the entries of A that land transposed
  bool pieces = false;       // the pieces of a split supernode travel together
  bool determinant = false;  // take the scaling's share off sums.logdet
};

// The next row of supernode jsup that its update has still to reach, and
// whether jsup waits there for the last piece of its split supernode
// (see left_looking); 0 when its tail is used up.
template <class T>
int next_row_of(const FactorView<T> &f, int jsup, int rows_left, bool pieces, bool *waits) {
  *waits = false;
  if (rows_left <= 0) return 0;
  const int next_row = f.lindx[f.xlindx[jsup] - 1 - rows_left];
  if (pieces && continues(f, jsup)) {
    int last = jsup + 1;  // the last piece
    while (continues(f, last)) ++last;
    *waits = next_row >= f.xsuper[last];
  }
  return next_row;
}

// left_looking: for each supernode ksup of task.range in order,
//   1. k = make(ksup), the family's target record (first, last, ncols,
//      len, panel and what else the family needs);
//   2. its panel is filled from A (entries scattered in, conjugated where
//      they land transposed when `hermitian`, the scaling's share of the
//      determinant taken off task.sums.logdet) - together with the panels
//      of the supernodes that continue its column chain, when ksup starts
//      one, so that a family may apply an update to several panels of a
//      chain at once - and task.work.indmap is set from its row list;
//   3. each descendant jsup on its chain is applied by
//      update(k, jsup, L) -> m, L the tail rows still to apply, m those of
//      them that were applied (columns of k, or of the supernodes after k
//      on its chain); update sets task.status to stop;
//   4. unless k lies beyond the first Schur column, factor(k) -> 0, or the
//      status to stop with;
//   5. k goes on the chain of its first row below its columns.
// A descendant whose tail reaches beyond what it applied moves on to the
// chain of its next row.  With `pieces`, a piece of a supernode split by
// the panel width whose next row lies beyond the split supernode waits
// instead, unless it is the last piece: from there on the pieces share
// their tail, the last piece alone travels the chains, and update applies
// the pieces before it along with it.
// A supernode whose next target lies beyond the range follows the task's
// exit policy.  The chains of the range's targets must hold every
// descendant outside the range before the loop starts.
template <class T, class Make, class Update, class Factor>
void left_looking(const FactorView<T> &f, const MatrixInput &in, const LoopOptions &opt,
                  LoopTask<T> &task, Make make, Update update, Factor factor) {
  const int first_schur = f.n - f.nschur;
  const SupernodeRange r = task.range;
  assert(r.first >= 1 && r.last <= f.nsuper);
  assert(r.first == 1 || r.first > r.last || !continues(f, r.first - 1));
  assert(r.first > r.last || !continues(f, r.last));
  int *link = task.chains.link;
  int *length = task.chains.length;
  double *logdet = opt.determinant ? &task.sums.logdet : nullptr;
  // Sends supernode jfirst on to the target of its next row.
  auto move_on = [&](int next_row, int jfirst) {
    const int target = f.snode[next_row - 1];
    if (target <= r.last || !task.leave) push_on_chain(link, f.xsuper[target - 1], jfirst);
  };

  int filled = r.first - 1;  // the last supernode whose panel holds its entries of A
  for (int ksup = r.first; ksup <= r.last && task.status == 0; ++ksup) {
    auto k = make(ksup);
    if (ksup > filled) {
      filled = ksup;
      while (continues(f, filled)) ++filled;
      for (int s = ksup; s <= filled; ++s) fill_panel(s, f, in, opt.hermitian, logdet);
    }
    set_panel_indmap(ksup, f, task.work.indmap);

    // Every supernode before ksup is done, so its chain is complete.
    while (link[k.first - 1] != 0) {
      const int jfirst = link[k.first - 1];
      link[k.first - 1] = link[jfirst - 1];
      const int jsup = f.snode[jfirst - 1];
      const int L = length[jsup - 1];
      const int m = update(k, jsup, L);
      if (task.status != 0) return;
      length[jsup - 1] = L - m;
      bool waits = false;
      const int next_row = next_row_of(f, jsup, L - m, opt.pieces, &waits);
      if (next_row != 0 && !waits) move_on(next_row, jfirst);
    }

    // A Schur supernode keeps what it has received.
    if (k.last <= first_schur) {
      const int status = factor(k);
      if (status != 0) {
        task.status = status;
        return;
      }
    }
    length[ksup - 1] = k.len - k.ncols;
    if (k.len > k.ncols) move_on(f.lindx[f.xlindx[ksup - 1] - 1 + k.ncols], k.first);
  }
}

// Whether the subtrees of work can be factored as tasks beside each
// other: at least two, ranges that follow each other from the first
// supernode and hold whole column chains, and the top range after them up
// to the last supernode.
template <class T>
bool subtrees_usable(const FactorView<T> &f, const FactorWork<T> &work) {
  if (work.nthreads < 2 || work.ndom < 2 || work.domains == nullptr) return false;
  int next = 1;
  for (int d = 0; d <= work.ndom; ++d) {
    const int first = work.domains[2 * d], last = work.domains[2 * d + 1];
    if (first != next || last < first - 1 || last > f.nsuper) return false;
    if (last >= first && continues(f, last)) return false;
    next = last + 1;
  }
  return next == f.nsuper + 1;
}

// Puts each supernode of range r that left it with rows still to apply on
// the chain of its next target, as the loop would have.
template <class T>
void link_leaving(const FactorView<T> &f, SupernodeRange r, const Chains &c, bool pieces) {
  for (int j = r.first; j <= r.last; ++j) {
    bool waits = false;
    const int next_row = next_row_of(f, j, c.length[j - 1], pieces, &waits);
    if (next_row == 0 || waits) continue;
    assert(f.snode[next_row - 1] > r.last);
    push_on_chain(c.link, f.xsuper[f.snode[next_row - 1] - 1], f.xsuper[j - 1]);
  }
}

// The loop over every supernode of f: run(task) runs left_looking for a
// task with the family's records.  With one thread, or without usable
// subtrees, one task takes every supernode in order.  Otherwise the
// subtrees are tasks of a dynamic schedule over a team of work.nthreads
// threads, each task on the slices of the thread that runs it; those that
// left their subtree are then linked on, and one task takes the top range.
// The team's sums and the status of the first failing subtree (by
// position) go to sc; after a failure the top is not factored.
template <class T, class Run>
void run_loop(const FactorView<T> &f, const FactorWork<T> &work, bool pieces, FactorScalars &sc,
              Run run) {
  LoopTask<T> whole = whole_loop(f, work);
  clear_chains(f, whole.chains);
  if (!subtrees_usable(f, work)) {
    run_on_team(1, [&](int, int) { run(whole); });
    sc.add(whole.status, whole.sums);
    return;
  }
  int failed = work.ndom, status = 0;
  run_on_team(work.nthreads, [&](int t, int) {
    PivotSums mine;
    int my_failed = work.ndom, my_status = 0;
#pragma omp for schedule(dynamic, 1) nowait
    for (int d = 0; d < work.ndom; ++d) {
      LoopTask<T> task;
      task.range = SupernodeRange{work.domains[2 * d], work.domains[2 * d + 1]};
      task.chains = whole.chains;
      task.work = work.task(f.n, t);
      task.leave = true;
      run(task);
      mine.perturbed += task.sums.perturbed;
      mine.npos += task.sums.npos;
      mine.nneg += task.sums.nneg;
      mine.logdet += task.sums.logdet;
      if (task.status != 0 && d < my_failed) {
        my_failed = d;
        my_status = task.status;
      }
    }
#pragma omp critical(velmora_loop_sums)
    {
      sc.add(0, mine);
      if (my_failed < failed) {
        failed = my_failed;
        status = my_status;
      }
    }
  });
  if (status != 0) {
    sc.add(status, PivotSums{});
    return;
  }
  for (int d = 0; d < work.ndom; ++d) {
    link_leaving(f, SupernodeRange{work.domains[2 * d], work.domains[2 * d + 1]}, whole.chains,
                 pieces);
  }
  LoopTask<T> top = whole;
  top.range = SupernodeRange{work.domains[2 * work.ndom], work.domains[2 * work.ndom + 1]};
  run_on_team(1, [&](int, int) { run(top); });
  sc.add(top.status, top.sums);
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
