// numeric_driver.cpp - the stages of one call: ordering (1), symbolic
// factorization (2), sizing (3), numeric work (4).
//
// The driver keeps nothing between stages but what it writes into the
// handle: array positions as offsets in the control block, counts in its
// fields.  Stage 4 (numeric_stage.cpp) factors row mnum and solves.
#include "interface/numeric_driver.h"

#include <omp.h>

#include <algorithm>
#include <cstring>

#include "analysis/amap.h"
#include "analysis/domains.h"
#include "analysis/ladj_mod.h"
#include "analysis/matching.h"
#include "analysis/ordering.h"
#include "analysis/reorder1.h"
#include "analysis/symbolic.h"
#include "common/matrix_type.h"
#include "interface/memory.h"
#include "interface/numeric_stage.h"
#include "interface/report_error.h"

namespace vm {

namespace {

// Lays arrays one after another, each on an 8-byte boundary.
class Layout {
 public:
  explicit Layout(ControlBlock *cb) : cb_(cb) {}
  void add(int array, std::int64_t count, int width) {
    bytes_ = (bytes_ + 7) / 8 * 8;
    cb_->offsets[array] = static_cast<std::intptr_t>(bytes_);
    if (count < 0 || count > kMaxGroupBytes / 8) overflow_ = true;
    if (!overflow_) bytes_ += count * width;
  }
  std::int64_t bytes() const { return overflow_ ? -1 : bytes_ + 8; }

 private:
  ControlBlock *cb_;
  std::int64_t bytes_ = 0;
  bool overflow_ = false;
};

bool has_matching(void **pt) {
  return has_block(pt, kPtMatching);
}

// The first `domain pairs` the ordering may deliver, with room to close.
// In distributed mode the pairs of the nodes' local tops and the global
// top follow.
// The domain list: the domains, the top, and a pair for each node of a
// split, which has at most one node a domain.
std::int64_t domain_ints(const ControlBlock *cb) {
  const std::int64_t target = cb->s.target_domains;
  return 2 * (target +
              std::clamp<std::int64_t>(cb->s.nnodes, 1, std::max<std::int64_t>(target, 1)) + 3);
}

int stage_ordering(const CallArgs &c, ControlBlock *cb, int *stage) {
  void **pt = c.pt;
  const int n = *c.n;
  Reorder1Arrays a{};
  a.xadj = carved<int>(pt, cb, kPtOrderInt, kOrdXadj);
  a.adjncy = carved<int>(pt, cb, kPtOrderInt, kOrdAdjncy);
  a.perm = carved<int>(pt, cb, kPtOrderInt, kOrdPerm);
  a.invp = carved<int>(pt, cb, kPtOrderInt, kOrdInvp);
  a.domains = carved<int>(pt, cb, kPtOrderInt, kOrdDomains);
  a.colcnt = carved<int>(pt, cb, kPtOrderInt, kOrdColcnt);
  a.snode = carved<int>(pt, cb, kPtOrderInt, kOrdSnode);
  a.xsuper = carved<int>(pt, cb, kPtOrderInt, kOrdXsuper);
  a.parent = carved<int>(pt, cb, kPtOrderInt, kOrdParent);
  a.work = static_cast<int *>(pt_slot(pt, kPtOrderA));
  a.lwork = reorder1_work_size(cb->s.ordering, n, ladj_mod_capacity(n, c.ia));
  for (std::int64_t k = 0; k < domain_ints(cb); ++k) a.domains[k] = -1;
  // The graph is that of the matrix with the matched rows on the diagonal.
  const int *rowmap = cb->s.mtype > 10 && has_matching(pt) && cb->s.matching_mode >= 1
                          ? static_cast<const int *>(pt_slot(pt, kPtMatching))
                          : nullptr;
  // The order of a symmetric matching is taken as given, like a caller's.
  // Its domains come with it.
  const int *given = c.perm;
  const int *given_domains = nullptr;
  if (cb->s.sym_matched) {
    const KeptSymmetricMatching kept = kept_matching_view(pt_slot(pt, kPtSymMatching), n);
    given = kept.perm;
    given_domains = kept.ndom;
  }
  ControlState &s = cb->s;
  Reorder1Settings set;
  set.ordering = s.ordering;
  set.nthreads = s.nthreads;
  set.domain_team = analysis_team(s.nthreads, s.identical_results);
  set.nnodes = s.nnodes;
  set.distributed = s.distributed;
  set.perm_mode = s.perm_mode;
  set.given_order = s.sym_matched;
  set.mmd_on_separator = s.mmd_on_separator;
  set.sparse_rhs = s.sparse_rhs;
  set.schur_size = s.schur_size;
  set.panel_size = s.panel_size;
  Reorder1Results r;
  const int status =
      REORDER1_VELMORA(n, c.ia, c.ja, rowmap, given, given_domains, c.perm, set, a, &r);
  s.nadj = r.nadj;
  s.target_domains = r.target_domains;
  s.ndom = r.ndom;
  s.node_split = r.node_split;
  s.local_separators = r.local_separators;
  s.global_separators = r.global_separators;
  s.domain_width = r.domain_width;
  s.marked_rows = r.marked_rows;
  s.nsuper = r.nsuper;
  s.max_supernode = r.max_supernode;
  s.nsub = r.nsub;
  s.fill = r.fill;
  if (r.t_adjacency >= 0) add_time(cb, kTimeFullAdj, r.t_adjacency);
  if (r.t_ordering >= 0) add_time(cb, kTimeReorder, r.t_ordering);
  if (r.t_symbolic >= 0) add_time(cb, kTimeSymbFct, r.t_symbolic);
  // Out of memory inside the ordering (its scratch, METIS or AMD) is a
  // memory failure, not a failed ordering.
  if (status != 0) *stage = status == kReorderOverflow ? -8 : status == kOrderNoMemory ? -2 : -3;
  return status;
}

int stage_symbolic(const CallArgs &c, ControlBlock *cb, int *stage) {
  void **pt = c.pt;
  ControlState &s = cb->s;
  const int n = *c.n;
  const int unsym = stores_u(s.mtype) ? 1 : 0;
  SymbolicCounts counts{};
  const double t0 = omp_get_wtime();
  const int status = REORDER2_VELMORA(
      Reorder2Input{
          n, s.nsuper, carved<int>(pt, cb, kPtOrderInt, kOrdXadj),
          carved<int>(pt, cb, kPtOrderInt, kOrdAdjncy), carved<int>(pt, cb, kPtOrderInt, kOrdPerm),
          carved<int>(pt, cb, kPtOrderInt, kOrdInvp), carved<int>(pt, cb, kPtOrderInt, kOrdXsuper),
          carved<int>(pt, cb, kPtOrderInt, kOrdSnode), carved<int>(pt, cb, kPtOrderInt, kOrdColcnt),
          s.ndom, carved<int>(pt, cb, kPtOrderInt, kOrdDomains), unsym,
          is_sym_indefinite_group(s.mtype) ? 1 : 0, kMaxGroupBytes / 16, kMaxGroupBytes / 16,
          s.nsub, 1},
      Reorder2Output{carved<int>(pt, cb, kPtOrderInt, kOrdParent),
                     carved<int>(pt, cb, kPtSymbolicWork, kS2Sparent),
                     carved<int>(pt, cb, kPtSymbolicWork, kS2FirstChild),
                     carved<int>(pt, cb, kPtSymbolicWork, kS2NextSibling),
                     carved<int>(pt, cb, kPtSymbolicWork, kS2Tasklist),
                     carved<std::int64_t>(pt, cb, kPtSymbolicWork, kS2Xlindx),
                     carved<int>(pt, cb, kPtSymbolicWork, kS2Lindx),
                     carved<std::int64_t>(pt, cb, kPtSymbolicWork, kS2Xlnz),
                     unsym ? carved<std::int64_t>(pt, cb, kPtSymbolicWork, kS2Xunz) : nullptr,
                     carved<int>(pt, cb, kPtSymbolicWork, kS2UpdFirst),
                     carved<int>(pt, cb, kPtSymbolicWork, kS2UpdNext),
                     carved<int>(pt, cb, kPtSymbolicWork, kS2Nmod)},
      &counts, carved<int>(pt, cb, kPtSymbolicWork, kS2Work));
  add_time(cb, kTimeSymbFct, omp_get_wtime() - t0);
  if (status != 0) {
    *stage = -3;
    return status;
  }
  s.nnz_l = counts.nnzl;
  s.nnz_u = counts.nnzu;
  s.nsub = counts.nsub;
  s.lnz_peak = counts.lnz_peak;
  s.unz_peak = counts.unz_peak;
  s.tmpsiz = counts.tmpsiz;
  s.first_root = counts.first_root;
  s.max_supernode = std::max(s.max_supernode, counts.max_width);
  s.flops = factor_flops(n, s.nsuper, carved<int>(pt, cb, kPtOrderInt, kOrdXsuper),
                         carved<std::int64_t>(pt, cb, kPtSymbolicWork, kS2Xlindx), unsym);
  // iparm(5) below 0: the caller receives the ordering.
  if (s.perm_mode < 0 && c.perm)
    std::memcpy(c.perm, carved<int>(pt, cb, kPtOrderInt, kOrdPerm), sizeof(int) * n);
  return 0;
}

// The symbolic block pt(8), one row an array: its length for the analysis
// at hand, the bytes of an entry, and the analysis workspace stage 3 copies
// it from (none for what stage 3 writes itself: the scatter maps and the
// partial solve's counts).  Offsets, sizes and copies all follow this table.
enum class Extent {
  kN,            // n
  kN1,           // n+1
  kNsuper,       // nsuper
  kNsuper1,      // nsuper+1
  kDomainPairs,  // 2 (ndom+1): the domains and the top; with a node split
                 // 2 (node_split+1) more: the local tops and the global top
  kNsub,         // entries of lindx
  kUN1,          // n+1 for types with U, else 0
  kNnz,          // entries of A
  kNnzScaled,    // entries of A when scaling is on, else 0
  kUNnz,         // entries of A for types with U, else 0
  kUNnzScaled,   // the same when scaling is on, else 0
  kSelected,     // n for a partial solve, else 0
};

std::int64_t extent(Extent e, const ControlState &s) {
  const std::int64_t n = s.neqns, nsup = s.nsuper, nnz = s.nnz;
  const bool u = stores_u(s.mtype);
  switch (e) {
    case Extent::kN:
      return n;
    case Extent::kN1:
      return n + 1;
    case Extent::kNsuper:
      return nsup;
    case Extent::kNsuper1:
      return nsup + 1;
    case Extent::kDomainPairs:
      return 2 * (std::int64_t{s.ndom} + 1) +
             (s.node_split > 0 ? 2 * (std::int64_t{s.node_split} + 1) : 0);
    case Extent::kNsub:
      return s.nsub;
    case Extent::kUN1:
      return u ? n + 1 : 0;
    case Extent::kNnz:
      return nnz;
    case Extent::kNnzScaled:
      return s.scaling_on ? nnz : 0;
    case Extent::kUNnz:
      return u ? nnz : 0;
    case Extent::kUNnzScaled:
      return u && s.scaling_on ? nnz : 0;
    case Extent::kSelected:
      return s.sparse_rhs > 0 ? n : 0;
  }
  return 0;
}

struct SymbolicArray {
  int id;         // its offset word (CarvedArray)
  int width;      // bytes of an entry
  Extent extent;  // entries
  int from_slot;  // workspace group it is copied from, 0 for none
  int from;       // its array there
};

constexpr SymbolicArray kSymbolicLayout[] = {
    {kSymPerm, 4, Extent::kN, kPtOrderInt, kOrdPerm},
    {kSymInvp, 4, Extent::kN, kPtOrderInt, kOrdInvp},
    {kSymXsuper, 4, Extent::kNsuper1, kPtOrderInt, kOrdXsuper},
    {kSymSnode, 4, Extent::kN, kPtOrderInt, kOrdSnode},
    {kSymParent, 4, Extent::kN, kPtOrderInt, kOrdParent},
    {kSymColcnt, 4, Extent::kN, kPtOrderInt, kOrdColcnt},
    {kSymSparent, 4, Extent::kNsuper, kPtSymbolicWork, kS2Sparent},
    {kSymFirstChild, 4, Extent::kNsuper, kPtSymbolicWork, kS2FirstChild},
    {kSymNextSibling, 4, Extent::kNsuper, kPtSymbolicWork, kS2NextSibling},
    {kSymTasklist, 4, Extent::kNsuper, kPtSymbolicWork, kS2Tasklist},
    {kSymUpdFirst, 4, Extent::kNsuper, kPtSymbolicWork, kS2UpdFirst},
    {kSymUpdNext, 4, Extent::kNsuper, kPtSymbolicWork, kS2UpdNext},
    {kSymNmod, 4, Extent::kNsuper, kPtSymbolicWork, kS2Nmod},
    {kSymDomains, 4, Extent::kDomainPairs, kPtOrderInt, kOrdDomains},
    {kSymXlindx, 8, Extent::kNsuper1, kPtSymbolicWork, kS2Xlindx},
    {kSymLindx, 4, Extent::kNsub, kPtSymbolicWork, kS2Lindx},
    {kSymXlnz, 8, Extent::kN1, kPtSymbolicWork, kS2Xlnz},
    {kSymXunz, 8, Extent::kUN1, kPtSymbolicWork, kS2Xunz},
    // Scatter maps of A: at most one place per stored entry in each.
    {kSymLmapPtr, 4, Extent::kN1, 0, 0},
    {kSymLmapDest, 8, Extent::kNnz, 0, 0},
    {kSymLmapSrc, 4, Extent::kNnz, 0, 0},
    {kSymLmapRow, 4, Extent::kNnzScaled, 0, 0},
    {kSymUmapPtr, 4, Extent::kUN1, 0, 0},
    {kSymUmapDest, 8, Extent::kUNnz, 0, 0},
    {kSymUmapSrc, 4, Extent::kUNnz, 0, 0},
    {kSymUmapRow, 4, Extent::kUNnzScaled, 0, 0},
    {kSymUnselected, 4, Extent::kSelected, 0, 0},
};

constexpr int kMapFailed = -13;

AmapOut map_out(void **pt, const ControlBlock *cb, int ptr, int dest, int src, int row) {
  return AmapOut{carved<int>(pt, cb, kPtSymbolic, ptr),
                 carved<std::int64_t>(pt, cb, kPtSymbolic, dest),
                 carved<int>(pt, cb, kPtSymbolic, src),
                 cb->s.scaling_on ? carved<int>(pt, cb, kPtSymbolic, row) : nullptr};
}

// The scatter maps of A into the panels, written once per analysis.
int build_maps(const CallArgs &c, ControlBlock *cb) {
  void **pt = c.pt;
  ControlState &s = cb->s;
  const int n = *c.n;
  int *work = static_cast<int *>(pt_slot(pt, kPtOrderB));
  const int *perm = carved<int>(pt, cb, kPtSymbolic, kSymPerm);
  const int *invp = carved<int>(pt, cb, kPtSymbolic, kSymInvp);
  const int *xsuper = carved<int>(pt, cb, kPtSymbolic, kSymXsuper);
  const int *snode = carved<int>(pt, cb, kPtSymbolic, kSymSnode);
  const auto *xlindx = carved<std::int64_t>(pt, cb, kPtSymbolic, kSymXlindx);
  const int *lindx = carved<int>(pt, cb, kPtSymbolic, kSymLindx);
  const auto *xlnz = carved<std::int64_t>(pt, cb, kPtSymbolic, kSymXlnz);
  const AmapOut lmap = map_out(pt, cb, kSymLmapPtr, kSymLmapDest, kSymLmapSrc, kSymLmapRow);
  if (s.symmetric_pattern == 1) {
    s.lmap_count = AMAP_SYM_VELMORA(n, c.ia, c.ja, perm, invp, xsuper, snode, xlindx, lindx, xlnz,
                                    s.scaling_on, lmap, work);
    s.umap_count = 0;
  } else {
    const AmapOut umap = map_out(pt, cb, kSymUmapPtr, kSymUmapDest, kSymUmapSrc, kSymUmapRow);
    const int *rowmap =
        has_matching(pt) && s.mtype > 10 ? static_cast<int *>(pt_slot(pt, kPtMatching)) : nullptr;
    s.lmap_count =
        AMAP_UNSYM_VELMORA(n, c.ia, c.ja, rowmap, perm, invp, xsuper, snode, xlindx, lindx, xlnz,
                           carved<std::int64_t>(pt, cb, kPtSymbolic, kSymXunz), s.scaling_on, lmap,
                           umap, &s.umap_count, work);
  }
  return s.lmap_count < 0 ? kMapFailed : 0;
}

// A partial solve hands over only the k selected nodes, which the
// ordering put last: node j of the caller is entry j - unselected(j) of a
// compressed vector, unselected(j) counting the nodes at or before j that
// are not selected.
void count_unselected(int n, int k, const int *perm, int *unselected) {
  std::fill(unselected, unselected + n, 1);
  for (int pos = std::max(0, n - k); pos < n; ++pos) unselected[perm[pos] - 1] = 0;
  int running = 0;
  for (int j = 0; j < n; ++j) unselected[j] = running += unselected[j];
}

// Stage 3: the symbolic factor moves into its own block, the maps are
// written, the counts go to iparm.
int stage_sizing(const CallArgs &c, ControlBlock *cb, int *stage) {
  void **pt = c.pt;
  ControlState &s = cb->s;
  const int n = *c.n;
  for (const SymbolicArray &arr : kSymbolicLayout) {
    if (arr.from_slot == 0) continue;
    std::memcpy(carved<char>(pt, cb, kPtSymbolic, arr.id),
                carved<char>(pt, cb, arr.from_slot, arr.from),
                static_cast<std::size_t>(extent(arr.extent, s) * arr.width));
  }
  if (s.sparse_rhs > 0)
    count_unselected(n, s.marked_rows, carved<int>(pt, cb, kPtSymbolic, kSymPerm),
                     carved<int>(pt, cb, kPtSymbolic, kSymUnselected));

  if (build_maps(c, cb) != 0) {
    *stage = -3;
    return kMapFailed;
  }

  int *iparm = c.iparm;
  const std::int64_t entries = s.nnz_l + (stores_u(s.mtype) ? s.nnz_u : 0);
  // The count the caller sees is the report's "L+U": nnz_u is 1 for a
  // symmetric matrix, which stores no U.
  // One-column supernodes count their columns' entries, not the panels of
  // the runs they are computed in.
  const std::int64_t counted = (s.unit_pivots == 1 ? s.fill : s.nnz_l) + s.nnz_u;
  if (ip(iparm, 18) < 0)
    ip(iparm, 18) = counted > 2147483647 ? static_cast<int>(-(counted + 1000) / 1000)
                                         : static_cast<int>(counted);
  const double mflop = s.flops / 1.0e6;
  ip(iparm, 19) = mflop > 2147483647.0 ? 2147483647 : static_cast<int>(mflop);
  // One factorization: the values of L (and U), the update buffer and the
  // substitution's vector.  In single precision the values take the double
  // count halved, rounded up, plus one, and buffer and vector hold floats.
  const std::int64_t word = 8 * std::int64_t{s.complex_factor};
  const std::int64_t factor_bytes =
      s.single_precision != 0 ? 8 * ((entries + 1) / 2 + 1) + 4 * (s.tmpsiz + std::int64_t{n})
                              : (entries + s.tmpsiz + std::int64_t{n}) * word;
  s.factor_kb = static_cast<int>(std::min<std::int64_t>(group_kilobytes(factor_bytes), 2147483647));
  return 0;
}

}  // namespace

std::int64_t layout_ordering_block(const CallArgs &c, ControlBlock *cb) {
  const int n = *c.n;
  // The domain target is fixed before the ordering, the list sized for it.
  cb->s.target_domains =
      domain_target(n, analysis_team(cb->s.nthreads, cb->s.identical_results), cb->s.nnodes);
  Layout l(cb);
  l.add(kOrdXadj, std::int64_t{n} + 1, 4);
  l.add(kOrdAdjncy, ladj_mod_capacity(n, c.ia), 4);
  l.add(kOrdPerm, n, 4);
  l.add(kOrdInvp, n, 4);
  l.add(kOrdDomains, domain_ints(cb), 4);
  l.add(kOrdColcnt, n, 4);
  l.add(kOrdSnode, n, 4);
  l.add(kOrdXsuper, std::int64_t{n} + 1, 4);
  l.add(kOrdParent, n, 4);
  return l.bytes();
}

std::int64_t ordering_work_bytes(const CallArgs &c, ControlBlock *cb) {
  const std::int64_t ints = reorder1_work_size(cb->s.ordering, *c.n, ladj_mod_capacity(*c.n, c.ia));
  return ints < 0 || ints > kMaxGroupBytes / 4 ? -1 : 4 * ints + 8;
}

std::int64_t map_work_bytes(const ControlBlock *cb) {
  const std::int64_t ints = amap_work_size(cb->s.neqns, cb->s.nnz);
  return ints < 0 || ints > kMaxGroupBytes / 4 ? -1 : 4 * ints + 8;
}

std::int64_t layout_symbolic_work(ControlBlock *cb) {
  const ControlState &s = cb->s;
  const std::int64_t n = s.neqns, nsup = s.nsuper;
  Layout l(cb);
  l.add(kS2Sparent, nsup, 4);
  l.add(kS2FirstChild, nsup, 4);
  l.add(kS2NextSibling, nsup, 4);
  l.add(kS2Tasklist, nsup, 4);
  l.add(kS2UpdFirst, nsup, 4);
  l.add(kS2UpdNext, nsup, 4);
  l.add(kS2Nmod, nsup, 4);
  l.add(kS2Xlindx, nsup + 1, 8);
  l.add(kS2Lindx, s.nsub, 4);
  l.add(kS2Xlnz, n + 1, 8);
  l.add(kS2Xunz, stores_u(s.mtype) ? n + 1 : 0, 8);
  l.add(kS2Work, reorder2_work_size(s.neqns, s.nsuper), 4);
  return l.bytes();
}

std::int64_t layout_symbolic_block(ControlBlock *cb) {
  Layout l(cb);
  for (const SymbolicArray &arr : kSymbolicLayout)
    l.add(arr.id, extent(arr.extent, cb->s), arr.width);
  cb->s.symbolic_bytes = l.bytes();
  return l.bytes();
}

int NUMERIC_DRIVER_VELMORA(const CallArgs &c, ControlBlock *cb, int *stage) {
  switch (*stage) {
    case kStageOrdering:
      return stage_ordering(c, cb, stage);
    case kStageSymbolic:
      return stage_symbolic(c, cb, stage);
    case kStageSizing:
      return stage_sizing(c, cb, stage);
    default:
      break;
  }
  return stage_numeric(c, cb, stage);
}

int update_lists_form(void **pt, const ControlBlock *cb) {
  const ControlState &s = cb->s;
  // The fixed-order scheme walks the two-level lists on every team, one
  // thread included.
  const bool fixed_order = s.identical_results != 0 && s.ndom >= 2;
  if ((std::int64_t{s.nthreads} * s.nnodes < 2 && !fixed_order) || s.schur_size > 0 ||
      !has_block(pt, kPtSymbolic))
    return 0;
  // The block-partitioned variant exists for the real LDL^T family; other
  // types, and splits it cannot run, take the lists of the other forms.
  if (s.distributed > 0 && s.mtype == -2 && s.single_precision == 0) {
    const UpdateListsInput in = update_lists_input(pt, cb);
    const NodeSplit split = node_split(pt, cb);
    if (distributed_lists_apply(in, split) && count_distributed_lists(in, split) >= 0)
      return kDistributedListForm;
  }
  if (s.two_level_fact != 0 && s.ndom >= 2 && two_level_lists_apply(update_lists_input(pt, cb)))
    return 2;
  return 1;
}

UpdateListsInput update_lists_input(void **pt, const ControlBlock *cb) {
  UpdateListsInput in;
  in.nsuper = cb->s.nsuper;
  in.xsuper = carved<int>(pt, cb, kPtSymbolic, kSymXsuper);
  in.snode = carved<int>(pt, cb, kPtSymbolic, kSymSnode);
  in.xlindx = carved<std::int64_t>(pt, cb, kPtSymbolic, kSymXlindx);
  in.lindx = carved<int>(pt, cb, kPtSymbolic, kSymLindx);
  in.ndom = cb->s.ndom;
  in.domains = carved<int>(pt, cb, kPtSymbolic, kSymDomains);
  in.nmod = carved<int>(pt, cb, kPtSymbolic, kSymNmod);
  in.sparent = carved<int>(pt, cb, kPtSymbolic, kSymSparent);
  return in;
}

NodeSplit node_split(void **pt, const ControlBlock *cb) {
  NodeSplit split;
  if (cb->s.node_split <= 0) return split;
  split.nnodes = cb->s.node_split;
  split.tops = carved<int>(pt, cb, kPtSymbolic, kSymDomains) + 2 * (cb->s.ndom + 1);
  return split;
}

std::int64_t update_lists_bytes(const UpdateListsInput &in, const NodeSplit &split, int form,
                                std::int64_t total) {
  if (form == kDistributedListForm) return 4 * (distributed_list_ints(in, split) + 2 * total);
  if (form == 2) return 4 * (5 + update_list_buckets(in) + 2 * total);
  return 4 * (5 + 2 * (std::int64_t{in.nsuper} + 1) + 2 * total + 2 * std::int64_t{in.nsuper});
}

void write_update_lists(void **pt, ControlBlock *cb, int form, void *scratch) {
  const UpdateListsInput in = update_lists_input(pt, cb);
  int *group = static_cast<int *>(pt_slot(pt, kPtUpdateLists));
  const std::int64_t total = cb->s.list_total;
  group[0] = form;
  if (form == kDistributedListForm) {
    UPDATE_LISTS_VELMORA(in, node_split(pt, cb), group);
    cb->s.list_buckets = group[2];
    cb->s.list_sources = group[5];
  } else if (form == 2) {
    const std::int64_t buckets = update_list_buckets(in);
    UpdateLists out;
    out.bucket_ptr = group + 5;
    out.bucket_des = out.bucket_ptr + buckets;
    out.bucket_off = out.bucket_des + total;
    UPDATE_LISTS_VELMORA(in, &out);
    group[1] = out.ftop;
    group[2] = out.nsrc;
    group[3] = out.ntop;
    group[4] = out.total;
    cb->s.list_buckets = out.ntop;
  } else {
    TargetLists out;
    out.upd_head = group + 5;
    out.tgt_ptr = out.upd_head + in.nsuper + 1;
    out.tgt_col = out.tgt_ptr + in.nsuper + 1;
    out.tgt_off = out.tgt_col + total;
    target_lists(in, &out);
    group[1] = out.total;
    // The work order of the team: light subtrees, then the rest alone.
    double *weight = static_cast<double *>(scratch);
    int nsub = 0;
    group[2] =
        classical_tasks(in, cb->s.nthreads, weight, reinterpret_cast<int *>(weight + in.nsuper),
                        out.tgt_off + out.total, &nsub);
    group[3] = nsub;
    cb->s.list_buckets = 1;
  }
  cb->s.list_form = form;
}

TopLists top_lists(void **pt) {
  TopLists top;
  if (!has_block(pt, kPtUpdateLists)) return top;
  const int *group = static_cast<const int *>(pt_slot(pt, kPtUpdateLists));
  if (group[0] != 2) return top;
  top.ftop = group[1];
  top.nsrc = group[2];
  top.ntop = group[3];
  const std::int64_t buckets = std::int64_t{top.ntop} * top.nsrc + 1;
  top.ptr = group + 5;
  top.des = top.ptr + buckets;
  top.off = top.des + group[4];
  return top;
}

TargetQueues target_queues(void **pt, const ControlBlock *cb) {
  TargetQueues q;
  if (!has_block(pt, kPtUpdateLists)) return q;
  const int *group = static_cast<const int *>(pt_slot(pt, kPtUpdateLists));
  if (group[0] != 1) return q;
  const int nsuper = cb->s.nsuper;
  q.total = group[1];
  q.upd_head = group + 5;
  q.tgt_ptr = q.upd_head + nsuper + 1;
  q.tgt_col = q.tgt_ptr + nsuper + 1;
  q.tgt_off = q.tgt_col + q.total;
  q.ntasks = group[2];
  q.nsub = group[3];
  q.task_range = q.tgt_off + q.total;
  return q;
}

}  // namespace vm
