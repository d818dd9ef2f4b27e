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

#include <algorithm>
#include <atomic>
#include <cassert>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <thread>

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

// Supernodes first..last (one-based, inclusive) of the postorder.  A
// column chain (the pieces of a supernode split by the panel width, or a
// subtree's root whose rows are the list of the top supernode after it)
// may go on beyond a range: the loop fills panels, and lets updates reach,
// only inside its range, and a piece that leaves the range or waits for
// the last piece beyond it is the caller's (the top's update lists name
// every piece).
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
  // target's chain (false), or left to the caller, whose lists name it
  // (true).
  bool leave = false;
  // Set by another task that failed: the loop stops at its next supernode.
  const std::atomic<int> *stop = nullptr;
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

// An update applied inside a range reaches no panel beyond it.  Records
// without reach (LU) are left as they are.
template <class K>
auto clamp_reach(K &k, int last_col, int) -> decltype(k.reach, void()) {
  if (k.reach > last_col) k.reach = last_col;
}
template <class K>
void clamp_reach(K &, int, long) {}

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
    if (task.stop != nullptr && task.stop->load(std::memory_order_relaxed) != 0) return;
    auto k = make(ksup);
    clamp_reach(k, f.xsuper[r.last] - 1, 0);
    if (ksup > filled) {
      filled = ksup;
      while (filled < r.last && continues(f, filled)) ++filled;
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
// supernode, and the top range after them up to the last supernode.
template <class T>
bool subtrees_usable(const FactorView<T> &f, const FactorWork<T> &work) {
  if ((work.nthreads < 2 && !work.fixed_order) || work.ndom < 2 || work.domains == nullptr)
    return false;
  int next = 1;
  for (int d = 0; d <= work.ndom; ++d) {
    const int first = work.domains[2 * d], last = work.domains[2 * d + 1];
    if (first != next || last < first - 1 || last > f.nsuper) return false;
    next = last + 1;
  }
  return next == f.nsuper + 1;
}

// A top supernode's target record as the two-level loop wants it: its
// updates reach its own columns only and a descendant's pieces come one
// by one (each stands in the lists on its own).  Records without reach
// (LU) are left as they are.
template <class K>
auto alone_in_top(K &k, int) -> decltype(k.reach, k.alone, void()) {
  k.reach = k.last;
  k.alone = true;
}
template <class K>
void alone_in_top(K &, long) {}

// Runs a family's loop records on task: ops(task, visit) calls
// visit(make, update, factor) with the family's callables bound to task.
template <class T, class Ops>
void run_range(const FactorView<T> &f, const MatrixInput &in, const LoopOptions &opt,
               LoopTask<T> &task, Ops &ops) {
  ops(task, [&](auto &make, auto &update, auto &factor) {
    left_looking(f, in, opt, task, make, update, factor);
  });
}

// The first failure of a team: the smallest position of a failing range
// (subtrees by index, the top after them) and its status.
struct FirstFailure {
  int where = INT_MAX;
  int status = 0;
  void note(int at, int st) {
    if (st != 0 && at < where) {
      where = at;
      status = st;
    }
  }
};

// At the end of a team's region, a thread's sums and first failure join
// the team's.
inline void end_of_region(FactorScalars &sc, FirstFailure *team, const PivotSums &sums,
                          const FirstFailure &mine) {
#pragma omp critical(velmora_loop_sums)
  {
    sc.add(0, sums);
    team->note(mine.where, mine.status);
  }
}

// Waits, in the fixed-order scheme, until ready() holds or another task
// has failed; says whether it holds.  Outside that scheme it does not wait.
template <class Ready>
bool wait_for(bool fixed_order, const std::atomic<int> *stop, Ready ready) {
  for (;;) {
    if (ready()) return true;
    if (!fixed_order || (stop != nullptr && stop->load(std::memory_order_relaxed) != 0))
      return false;
    std::this_thread::yield();
  }
}

// One visit of top supernode s by a thread of the two-level loop: applies
// what its buckets hold from their cursors on, as long as the source is
// done (a finished subtree, a finished top supernode), and factors s when
// nothing is missing.  Returns 1 when s was factored, 0 when it was left
// for later with what it has received, or a failing status below 0.  In
// the fixed-order scheme a missing source is waited for, so that the
// updates reach s in the order of its buckets (domains in order, each
// ascending, then the top ascending) whatever the team.
template <class T, class Ops>
int visit_top(const FactorView<T> &f, const TopLists &top, int s, bool fixed_order,
              LoopTask<T> &task, Ops &ops) {
  int result = 0;
  ops(task, [&](auto &make, auto &update, auto &factor) {
    auto k = make(s);
    alone_in_top(k, 0);
    set_panel_indmap(s, f, task.work.indmap);
    for (int c = 0; c < top.nsrc; ++c) {
      const int b = (s - top.ftop) * top.nsrc + c;
      const int end = top.ptr[b + 1] - 1;
      const bool from_top = c == top.nsrc - 1;
      if (!from_top && top.cursor[b] < end) {
        const bool done = wait_for(fixed_order, task.stop, [&] {
          int flag = 0;
#pragma omp critical(velmora_update)
          flag = top.domain_done[c];
          return flag != 0;
        });
        if (!done) return;
      }
      for (; top.cursor[b] < end; ++top.cursor[b]) {
        const int e = top.cursor[b];
        if (from_top) {
          const bool done = wait_for(fixed_order, task.stop, [&] {
            int state = 0;
#pragma omp critical(velmora_update)
            state = top.state[top.des[e] - top.ftop];
            return state == 1;
          });
          if (!done) return;
        }
        update(k, top.des[e], top.off[e]);
        if (task.status != 0) {
          result = task.status;
          return;
        }
      }
    }
    const int status = factor(k);
    result = status != 0 ? status : 1;
  });
  return result;
}

// The two-level loop: on a team, the panels of the top are filled first,
// then the subtrees are tasks of a dynamic schedule, and each thread that
// has no subtree left claims top supernodes round robin, applies what is
// ready and factors those whose updates have all come, leaving the others
// to whoever claims them next.  A failure stops every thread at its next
// supernode or claim.  The top is the top.ntop supernodes from top.ftop
// (a part of the tree's top, in the block-partitioned variant).
// With work.fixed_order the top supernodes are claimed in order, once
// each, and a claimed one waits for its missing sources instead of being
// left (visit_top): a subtree is factored by one task alone in its own
// order and a top supernode receives its updates in the lists' order, so
// the factor has the same bits on every team.  The wait ends: every
// subtree is taken before any thread reaches the top, and a top source
// was claimed before its target by a thread that waits only on sources
// claimed before.
template <class T, class Ops>
void run_two_level(const FactorView<T> &f, const MatrixInput &in, const FactorWork<T> &work,
                   const LoopOptions &opt, FactorScalars &sc, Ops &ops) {
  const TopLists &top = work.top;
  std::fill_n(top.state, top.ntop, 0);
  for (int b = 0; b < top.ntop * top.nsrc; ++b) top.cursor[b] = top.ptr[b] - 1;
  // A source that is no subtree of this run was factored before it.
  for (int c = 0; c < top.nsrc - 1; ++c) top.domain_done[c] = c < work.ndom ? 0 : 1;
  std::atomic<int> stop{0};
  FirstFailure failure;
  int top_next = 0, top_done = 0;
  run_on_team(work.nthreads, [&](int t, int) {
    LoopTask<T> mine;
    mine.chains = Chains{work.link, work.length};
    mine.work = work.task(f.n, t);
    mine.leave = true;
    mine.stop = &stop;
    FirstFailure my_failure;
#pragma omp for schedule(dynamic, 1)
    for (int s = top.ftop; s < top.ftop + top.ntop; ++s)
      fill_panel(s, f, in, opt.hermitian, opt.determinant ? &mine.sums.logdet : nullptr);
#pragma omp for schedule(dynamic, 1) nowait
    for (int d = 0; d < work.ndom; ++d) {
      if (stop.load(std::memory_order_relaxed) != 0) continue;
      mine.range = SupernodeRange{work.domains[2 * d], work.domains[2 * d + 1]};
      mine.status = 0;
      run_range(f, in, opt, mine, ops);
      my_failure.note(d, mine.status);
      if (mine.status != 0) stop.store(1);
#pragma omp critical(velmora_update)
      top.domain_done[d] = 1;
    }
    for (;;) {
      int s = 0;
      bool exit = false;
#pragma omp critical(velmora_update)
      {
        if (top_done == top.ntop || stop.load(std::memory_order_relaxed) != 0 ||
            (work.fixed_order && top_next == top.ntop)) {
          exit = true;
        } else {
          const int i = top_next;
          top_next = work.fixed_order ? top_next + 1 : (top_next + 1) % top.ntop;
          if (top.state[i] == 0) {
            top.state[i] = -1;
            s = top.ftop + i;
          }
        }
      }
      if (exit) break;
      if (s == 0) continue;
      mine.status = 0;
      const int r = visit_top(f, top, s, work.fixed_order, mine, ops);
      if (r < 0) {
        my_failure.note(work.ndom + s, r);
        stop.store(1);
        break;
      }
#pragma omp critical(velmora_update)
      {
        top.state[s - top.ftop] = r == 1 ? 1 : 0;
        top_done += r == 1 ? 1 : 0;
      }
    }
    end_of_region(sc, &failure, mine.sums, my_failure);
  });
  sc.add(failure.status, PivotSums{});
}

// The classical loop: on a team, the tasks of the analysis' work order
// (queues.task_range) by a dynamic schedule.  The light subtrees come
// first, each the range loop of one thread on its chains with no queue or
// wait, and a finished subtree puts each of its supernodes into the
// queues of its targets outside it; then every other supernode alone.  A
// thread takes a single supernode, fills its panel, applies the finished
// descendants its queue receives, waiting for the rest (the tasks before
// it in the order are taken or done, so the wait ends), factors it, and
// puts it into the queues of its targets.  Producers append under the
// update section; the waiting thread reads its tail without it.
template <class T, class Ops>
void run_classical(const FactorView<T> &f, const MatrixInput &in, const FactorWork<T> &work,
                   const LoopOptions &opt, FactorScalars &sc, Ops &ops) {
  const TargetQueues &q = work.queues;
  for (int s = 0; s < f.nsuper; ++s) q.upd_tail[s] = q.upd_head[s];
  if (q.nsub > 0) clear_chains(f, Chains{work.link, work.length});
  std::atomic<int> stop{0};
  FirstFailure failure;
  // Appends supernode s to the queues of its targets from supernode
  // `beyond` on (the targets of a subtree's supernodes outside it).
  auto publish = [&](int s, int beyond) {
    for (int e = q.tgt_ptr[s - 1] - 1; e < q.tgt_ptr[s] - 1; ++e) {
      const int target = f.snode[q.tgt_col[e] - 1];
      if (target < beyond) continue;
      const int at = q.upd_tail[target - 1];
      q.queue[at] = s;
      q.queue_off[at] = q.tgt_off[e];
      __atomic_store_n(&q.upd_tail[target - 1], at + 1, __ATOMIC_RELEASE);
    }
  };
  run_on_team(work.nthreads, [&](int t, int) {
    LoopTask<T> mine;
    mine.chains = Chains{work.link, work.length};
    mine.work = work.task(f.n, t);
    mine.leave = true;
    mine.stop = &stop;
    FirstFailure my_failure;
    double *logdet = opt.determinant ? &mine.sums.logdet : nullptr;
#pragma omp for schedule(dynamic, 1)
    for (int i = 0; i < q.ntasks; ++i) {
      if (stop.load(std::memory_order_relaxed) != 0) continue;
      mine.status = 0;
      if (i < q.nsub) {
        const SupernodeRange r{q.task_range[2 * i], q.task_range[2 * i + 1]};
        mine.range = r;
        run_range(f, in, opt, mine, ops);
        if (mine.status != 0) {
          my_failure.note(i, mine.status);
          stop.store(1);
          continue;
        }
#pragma omp critical(velmora_update)
        for (int s = r.first; s <= r.last; ++s) publish(s, r.last + 1);
        continue;
      }
      const int s = q.task_range[2 * i];
      ops(mine, [&](auto &make, auto &update, auto &factor) {
        auto k = make(s);
        alone_in_top(k, 0);
        fill_panel(s, f, in, opt.hermitian, logdet);
        set_panel_indmap(s, f, mine.work.indmap);
        int next = q.upd_head[s - 1];
        const int end = q.upd_head[s];
        while (next < end) {
          // The tail is published by a release store after the entries
          // and the descendant's panel: an acquire load sees both.
          const int tail = __atomic_load_n(&q.upd_tail[s - 1], __ATOMIC_ACQUIRE);
          if (stop.load(std::memory_order_relaxed) != 0) return;
          if (tail == next) std::this_thread::yield();
          for (; next < tail; ++next) {
            update(k, q.queue[next], q.queue_off[next]);
            if (mine.status != 0) return;
          }
        }
        mine.status = factor(k);
      });
      if (mine.status != 0) {
        my_failure.note(i, mine.status);
        stop.store(1);
        continue;
      }
      if (stop.load(std::memory_order_relaxed) != 0) continue;
#pragma omp critical(velmora_update)
      publish(s, s + 1);
    }
    end_of_region(sc, &failure, mine.sums, my_failure);
  });
  sc.add(failure.status, PivotSums{});
}

// The loop over every supernode of f: ops(task, visit) gives the family's
// callables for a task (see run_range).  On a team of work.nthreads with
// the analysis' lists, the classical loop (work.queues) or the two-level
// loop (work.top, over usable subtrees; with work.fixed_order on any team,
// one thread included); otherwise one task takes every supernode in order
// on one thread.
template <class T, class Ops>
void run_loop(const FactorView<T> &f, const MatrixInput &in, const FactorWork<T> &work,
              const LoopOptions &opt, FactorScalars &sc, Ops ops) {
  if (work.nthreads > 1 && work.top.ntop == 0 && work.queues.total > 0 && f.nschur == 0) {
    run_classical(f, in, work, opt, sc, ops);
    return;
  }
  LoopTask<T> whole = whole_loop(f, work);
  clear_chains(f, whole.chains);
  if (work.top.ntop > 0 && f.nschur == 0 && subtrees_usable(f, work) &&
      work.top.ftop == work.domains[2 * work.ndom]) {
    run_two_level(f, in, work, opt, sc, ops);
    return;
  }
  run_on_team(1, [&](int, int) { run_range(f, in, opt, whole, ops); });
  sc.add(whole.status, whole.sums);
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
