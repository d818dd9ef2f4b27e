/*
 * factor_setup.h - the symbolic factor of a test matrix, built with the
 * analysis routines of the library (adjacency, AMD or METIS, sfinit,
 * REORDER2_VELMORA), and a scatter map of A into the panels made by plain
 * search, for tests and benchmarks of the numeric factorization.  With
 * unsym the factor also gets U (xunz) and the maps of a general matrix
 * (AMAP_UNSYM_VELMORA) of a CSR matrix holding all its entries.
 */
#ifndef VELMORA_TESTS_FACTOR_SETUP_H
#define VELMORA_TESTS_FACTOR_SETUP_H

#include <algorithm>
#include <cstdint>
#include <vector>

#include "analysis/amap.h"
#include "analysis/domains.h"
#include "analysis/ladj_mod.h"
#include "analysis/ordering.h"
#include "analysis/symbolic.h"
#include "analysis/update_lists.h"
#include "factor/factor_args.h"
#include "factor/workspace.h"
#include "test_matrices.h"

namespace factor_setup {

enum class Ordering { kNatural, kAmd, kMetis };

struct Symbolic {
  int n = 0, nsuper = 0, nschur = 0;
  int ntasks = 1;            // independent subtrees (tasks > 1 with METIS)
  std::vector<int> domains;  // their (first, last) supernode pairs, then the top
  std::vector<int> perm, invp, xsuper, snode, lindx, nmod, tasklist, sparent;
  std::vector<std::int64_t> xlindx, xlnz;
  std::int64_t tmpsiz = 0;
  // scatter map of the upper triangle of A into lnz
  std::vector<int> map_ptr, map_src, map_row;
  std::vector<std::int64_t> map_dest;
  // general matrices: offsets of unz and the map of the entries landing there
  std::vector<std::int64_t> xunz, umap_dest;
  std::vector<int> umap_ptr, umap_src, umap_row;
  int status = 0;  // nonzero when a stage failed
};

// Place of row r (permuted) in the panel column c (permuted): one-based
// position in lnz, or 0 when r is not in the list of c's supernode.
inline std::int64_t place(const Symbolic &s, int r, int c) {
  const int k = s.snode[c - 1];
  const int *b = s.lindx.data() + s.xlindx[k - 1] - 1;
  const int *e = s.lindx.data() + s.xlindx[k] - 1;
  const int *p = std::lower_bound(b, e, r);
  if (p == e || *p != r) return 0;
  return s.xlnz[c - 1] + (p - b);
}

// Symbolic factor of an upper-triangle CSR matrix; width limits the
// supernodes, nschur keeps the last rows out of the factorization; with
// METIS, tasks > 1 asks nested dissection for that many independent
// subtrees (Symbolic::domains, as the task-parallel solve takes them).
// With unsym, a general matrix whose row i of the factored matrix is row
// rowmap(i) of a (rowmap null: the identity), for the LU families.
inline Symbolic analyse(const testmat::Csr &a, Ordering ordering, int width, int nschur = 0,
                        int tasks = 1, bool unsym = false, const int *rowmap = nullptr) {
  Symbolic s;
  const int n = a.n;
  s.n = n;
  s.nschur = nschur;
  std::vector<int> xadj(n + 1),
      adjncy(std::max<std::int64_t>(1, vm::ladj_mod_capacity(n, a.ia.data())));
  std::vector<int> work(vm::ladj_mod_work_size(n) + 1);
  vm::LADJ_MOD_VELMORA(n, a.ia.data(), a.ja.data(), rowmap, 1, xadj.data(), adjncy.data(),
                       work.data());
  s.perm.resize(n);
  s.invp.resize(n);
  if (ordering == Ordering::kAmd) {
    std::vector<int> w(vm::order_amd_work_size(n, xadj[n] - 1) + 1);
    s.status = vm::ORDER_AMD_VELMORA(n, xadj.data(), adjncy.data(), s.perm.data(), s.invp.data(),
                                     w.data(), static_cast<std::int64_t>(w.size()));
  } else if (ordering == Ordering::kMetis) {
    s.domains.assign(2 * (std::max(tasks, 1) + 2), -1);
    s.status = vm::ORDER_METIS5_VELMORA(n, xadj.data(), adjncy.data(), nullptr, std::max(tasks, 1),
                                        s.perm.data(), s.invp.data(), s.domains.data(), &s.ntasks);
  } else {
    for (int i = 0; i < n; ++i) s.perm[i] = s.invp[i] = i + 1;
  }
  if (s.status != 0) return s;

  int ndom = 0;
  std::vector<int> domains{1, n}, parent(n), colcnt(n);
  if (tasks > 1 && ordering == Ordering::kMetis && s.ntasks >= 2) {
    std::vector<int> w(2 * static_cast<size_t>(n));
    ndom = s.ntasks;
    if (vm::regroup_domains(n, s.perm.data(), s.domains.data(), &ndom, nschur, w.data()) != 0)
      ndom = 1;
    ndom = vm::close_domain_list(n, s.domains.data(), ndom);
    for (int i = 0; i < n; ++i) s.invp[s.perm[i] - 1] = i + 1;
    domains = s.domains;
  }
  std::int64_t nnzl = 0, nsub = 0;
  s.snode.resize(n);
  s.xsuper.resize(n + 1);
  work.assign(vm::sfinit_work_size(n), 0);
  s.status =
      vm::sfinit(n, &ndom, domains.data(), xadj.data(), adjncy.data(), s.perm.data(), s.invp.data(),
                 parent.data(), colcnt.data(), &nnzl, &nsub, &s.nsuper, s.snode.data(),
                 s.xsuper.data(), work.data(), width, nschur, vm::kSchurPostorder);
  if (s.status != 0) return s;

  const int ns = s.nsuper;
  s.sparent.resize(ns);
  std::vector<int> first_child(ns), next_sibling(ns), upd_first(ns), upd_next(ns);
  s.tasklist.resize(ns);
  s.nmod.resize(ns);
  s.xlindx.resize(ns + 1);
  s.lindx.resize(nsub);
  s.xlnz.resize(n + 1);
  s.xsuper.resize(ns + 1);
  if (unsym) s.xunz.resize(n + 1);
  vm::SymbolicCounts counts{};
  work.assign(vm::reorder2_work_size(n, ns), 0);
  s.status = vm::REORDER2_VELMORA(
      vm::Reorder2Input{n, ns, xadj.data(), adjncy.data(), s.perm.data(), s.invp.data(),
                        s.xsuper.data(), s.snode.data(), colcnt.data(), ndom, domains.data(),
                        unsym ? 1 : 0, 0, 0, 0, nsub},
      vm::Reorder2Output{parent.data(), s.sparent.data(), first_child.data(), next_sibling.data(),
                         s.tasklist.data(), s.xlindx.data(), s.lindx.data(), s.xlnz.data(),
                         unsym ? s.xunz.data() : nullptr, upd_first.data(), upd_next.data(),
                         s.nmod.data()},
      &counts, work.data());
  s.tmpsiz = counts.tmpsiz;
  s.ntasks = ndom > 1 ? ndom : 1;
  s.domains = domains;
  if (s.status != 0) return s;
  if (unsym) {
    const std::int64_t nnz = a.nnz() + 1;
    s.map_ptr.resize(n + 1);
    s.map_dest.resize(nnz);
    s.map_src.resize(nnz);
    s.map_row.resize(nnz);
    s.umap_ptr.resize(n + 1);
    s.umap_dest.resize(nnz);
    s.umap_src.resize(nnz);
    s.umap_row.resize(nnz);
    work.assign(vm::amap_work_size(n, nnz), 0);
    std::int64_t ucount = 0;
    const vm::AmapOut lmap{s.map_ptr.data(), s.map_dest.data(), s.map_src.data(), s.map_row.data()};
    const vm::AmapOut umap{s.umap_ptr.data(), s.umap_dest.data(), s.umap_src.data(),
                           s.umap_row.data()};
    if (vm::AMAP_UNSYM_VELMORA(n, a.ia.data(), a.ja.data(), rowmap, s.perm.data(), s.invp.data(),
                               s.xsuper.data(), s.snode.data(), s.xlindx.data(), s.lindx.data(),
                               s.xlnz.data(), s.xunz.data(), 1, lmap, umap, &ucount,
                               work.data()) < 0)
      s.status = -100;
    return s;
  }

  // Each stored entry (r, c) of the upper triangle goes to column
  // min(invp r, invp c); it lands transposed when invp r < invp c.
  // The row kept for scaling is the entry's own row in A.
  struct Entry {
    std::int64_t dest;
    int src, row;
  };
  std::vector<std::vector<Entry>> cols(n);
  for (int i = 1; i <= n; ++i) {
    for (int k = a.ia[i - 1]; k < a.ia[i]; ++k) {
      const int pr = s.invp[i - 1], pc = s.invp[a.ja[k - 1] - 1];
      const std::int64_t d = place(s, std::max(pr, pc), std::min(pr, pc));
      if (d == 0) s.status = -100;  // the structure misses an entry of A
      cols[std::min(pr, pc) - 1].push_back({pr >= pc ? d : -d, k, i});
    }
  }
  s.map_ptr.assign(1, 1);
  for (int j = 0; j < n; ++j) {
    for (const auto &e : cols[j]) {
      s.map_dest.push_back(e.dest);
      s.map_src.push_back(e.src);
      s.map_row.push_back(e.row);
    }
    s.map_ptr.push_back(static_cast<int>(s.map_dest.size()) + 1);
  }
  return s;
}

// What an LU factor adds to lnz: U beyond the diagonal blocks and the
// exchanges inside them.
struct LuStorage {
  std::vector<double> unz;
  std::vector<int> pivot, pivot_col;
};

// The records the factorization takes, over the arrays of s and of a
// caller's lnz (and, for the LU families, lu) and work space.
struct Records {
  vm::FactorView<double> view;
  vm::MatrixInput input;
  vm::FactorWork<double> work;
  std::vector<int> iwork;
  std::vector<double> temp;
  std::vector<int> pivot;  // block exchanges of the LDL^T families
  std::vector<int> lists;  // the top's update lists: pointers, descendants, offsets
  std::vector<int> top_state;
};

// What the update lists of s are made from, with the subtrees of r.work.
inline vm::UpdateListsInput lists_input(const Symbolic &s, const Records &r) {
  vm::UpdateListsInput in;
  in.nsuper = s.nsuper;
  in.xsuper = s.xsuper.data();
  in.snode = s.snode.data();
  in.xlindx = s.xlindx.data();
  in.lindx = s.lindx.data();
  in.nmod = s.nmod.data();
  in.sparent = s.sparent.data();
  in.ndom = r.work.ndom;
  in.domains = r.work.domains;
  return in;
}

// The classical lists (the targets of every supernode) for r.work, with
// the queues of the classical loop.
inline void add_target_queues(const Symbolic &s, Records *r) {
  const vm::UpdateListsInput in = lists_input(s, *r);
  const std::int64_t total = vm::count_target_lists(in);
  const std::int64_t ns = s.nsuper;
  r->lists.assign(2 * (ns + 1) + 2 * total + 2 * ns + 1, -7);
  vm::TargetLists out;
  out.upd_head = r->lists.data();
  out.tgt_ptr = out.upd_head + ns + 1;
  out.tgt_col = out.tgt_ptr + ns + 1;
  out.tgt_off = out.tgt_col + total;
  vm::target_lists(in, &out);
  vm::TargetQueues &q = r->work.queues;
  std::vector<double> weight(ns);
  std::vector<int> first(3 * ns);
  q.task_range = out.tgt_off + total;
  q.ntasks = vm::classical_tasks(in, r->work.nthreads, weight.data(), first.data(),
                                 out.tgt_off + total, &q.nsub);
  q.total = out.total;
  q.upd_head = out.upd_head;
  q.tgt_ptr = out.tgt_ptr;
  q.tgt_col = out.tgt_col;
  q.tgt_off = out.tgt_off;
  r->top_state.assign(vm::queue_work_ints(ns, total) + 1, -7);
  q.upd_tail = r->top_state.data();
  q.queue = q.upd_tail + ns;
  q.queue_off = q.queue + total;
}

// The two-level update lists of the top for r.work (which must have its
// subtrees), and the state of the loop over them.
inline void add_top_lists(const Symbolic &s, Records *r) {
  const vm::UpdateListsInput in = lists_input(s, *r);
  if (!vm::two_level_lists_apply(in)) return;
  const std::int64_t buckets = vm::update_list_buckets(in);
  std::vector<int> counts(buckets);
  const std::int64_t total = vm::count_update_lists(in, counts.data());
  r->lists.assign(buckets + 2 * total + 1, -7);
  vm::UpdateLists out;
  out.bucket_ptr = r->lists.data();
  out.bucket_des = r->lists.data() + buckets;
  out.bucket_off = r->lists.data() + buckets + total;
  vm::UPDATE_LISTS_VELMORA(in, &out);
  vm::TopLists &top = r->work.top;
  top.ftop = out.ftop;
  top.nsrc = out.nsrc;
  top.ntop = out.ntop;
  top.ptr = out.bucket_ptr;
  top.des = out.bucket_des;
  top.off = out.bucket_off;
  r->top_state.assign(vm::top_work_ints(out.ntop, out.nsrc), -7);
  top.state = r->top_state.data();
  top.cursor = top.state + out.ntop;
  top.domain_done = top.cursor + std::int64_t{out.ntop} * out.nsrc;
}

// nthreads: the task slices of the work space; with 2 or more the
// analysis' subtrees go to the work record, for the loop to run them as
// tasks.
inline Records records(const Symbolic &s, const testmat::Csr &a, std::vector<double> *lnz,
                       LuStorage *lu = nullptr, int nthreads = 1) {
  Records r;
  const int n = s.n;
  lnz->assign(std::max<std::int64_t>(1, s.xlnz[n] - 1), 0.0);
  r.view.n = n;
  r.view.nsuper = s.nsuper;
  r.view.xsuper = s.xsuper.data();
  r.view.snode = s.snode.data();
  r.view.xlindx = s.xlindx.data();
  r.view.lindx = s.lindx.data();
  r.view.xlnz = s.xlnz.data();
  r.view.lnz = lnz->data();
  r.view.nschur = s.nschur;
  r.pivot.assign(std::max(1, n), 0);
  r.view.pivot = r.pivot.data();
  r.input.a = a.a.data();
  r.input.ia = a.ia.data();
  r.input.ja = a.ja.data();
  r.input.perm = s.perm.data();
  r.input.lmap.ptr = s.map_ptr.data();
  r.input.lmap.dest = s.map_dest.data();
  r.input.lmap.src = s.map_src.data();
  r.input.lmap.row = s.map_row.data();
  const size_t nt = static_cast<size_t>(nthreads);
  r.iwork.assign((2 * nt + 1) * n + s.nsuper + 1, -7);
  r.temp.assign(std::max<std::int64_t>(1, s.tmpsiz) * nt, 0.0);
  r.work.nthreads = nthreads;
  r.work.indmap = r.iwork.data();
  r.work.relind = r.iwork.data() + nt * n;
  r.work.link = r.iwork.data() + 2 * nt * n;
  r.work.length = r.iwork.data() + (2 * nt + 1) * n;
  r.work.temp = r.temp.data();
  r.work.tmpsiz = s.tmpsiz;
  r.work.nmod = s.nmod.data();
  if (nthreads > 1 && s.ntasks > 1) {
    r.work.ndom = s.ntasks;
    r.work.domains = s.domains.data();
  }
  if (lu != nullptr) {
    lu->unz.assign(std::max<std::int64_t>(1, s.xunz[n] - 1), 0.0);
    lu->pivot.assign(n, 0);
    lu->pivot_col.assign(n, 0);
    r.view.xunz = s.xunz.data();
    r.view.unz = lu->unz.data();
    r.view.pivot = lu->pivot.data();
    r.view.pivot_col = lu->pivot_col.data();
    r.input.umap.ptr = s.umap_ptr.data();
    r.input.umap.dest = s.umap_dest.data();
    r.input.umap.src = s.umap_src.data();
    r.input.umap.row = s.umap_row.data();
  }
  return r;
}

// The records as the shell takes them, untyped.
inline vm::FactorView<void> untyped(const vm::FactorView<double> &t) {
  return vm::numeric_factor<void>(t, t.lnz, t.unz, t.pivot, t.pivot_col);
}

inline vm::FactorWork<void> untyped(const vm::FactorWork<double> &t) {
  vm::FactorWork<void> w;
  w.indmap = t.indmap;
  w.relind = t.relind;
  w.link = t.link;
  w.length = t.length;
  w.temp = t.temp;
  w.tmpsiz = t.tmpsiz;
  w.nthreads = t.nthreads;
  w.nmod = t.nmod;
  w.ndom = t.ndom;
  w.domains = t.domains;
  w.top = t.top;
  w.queues = t.queues;
  return w;
}

}  // namespace factor_setup

#endif  // VELMORA_TESTS_FACTOR_SETUP_H
