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
#include "analysis/ladj_mod.h"
#include "analysis/matching.h"
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
std::int64_t domain_ints(const ControlBlock *cb) {
  return 2 * (std::int64_t{cb->s.target_domains} + 2);
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
  const int status = REORDER1_VELMORA(n, c.ia, c.ja, rowmap, given, given_domains, c.perm, cb, a);
  if (status != 0) *stage = status == kReorderOverflow ? -8 : -3;
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
      n, s.nsuper, carved<int>(pt, cb, kPtOrderInt, kOrdXadj),
      carved<int>(pt, cb, kPtOrderInt, kOrdAdjncy), carved<int>(pt, cb, kPtOrderInt, kOrdPerm),
      carved<int>(pt, cb, kPtOrderInt, kOrdInvp), carved<int>(pt, cb, kPtOrderInt, kOrdXsuper),
      carved<int>(pt, cb, kPtOrderInt, kOrdSnode), carved<int>(pt, cb, kPtOrderInt, kOrdColcnt),
      s.ndom, carved<int>(pt, cb, kPtOrderInt, kOrdDomains), unsym,
      is_sym_indefinite_group(s.mtype) ? 1 : 0, kMaxGroupBytes / 16, kMaxGroupBytes / 16, s.nsub,
      carved<int>(pt, cb, kPtOrderInt, kOrdParent),
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
      carved<int>(pt, cb, kPtSymbolicWork, kS2Nmod), &counts,
      carved<int>(pt, cb, kPtSymbolicWork, kS2Work));
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

template <class T>
void copy_array(void **pt, ControlBlock *cb, int from_slot, int from, int to, std::int64_t count) {
  std::memcpy(carved<T>(pt, cb, kPtSymbolic, to), carved<T>(pt, cb, from_slot, from),
              sizeof(T) * static_cast<std::size_t>(count));
}

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
  const std::int64_t nsup = s.nsuper;
  copy_array<int>(pt, cb, kPtOrderInt, kOrdPerm, kSymPerm, n);
  copy_array<int>(pt, cb, kPtOrderInt, kOrdInvp, kSymInvp, n);
  copy_array<int>(pt, cb, kPtOrderInt, kOrdXsuper, kSymXsuper, nsup + 1);
  copy_array<int>(pt, cb, kPtOrderInt, kOrdSnode, kSymSnode, n);
  copy_array<int>(pt, cb, kPtOrderInt, kOrdParent, kSymParent, n);
  copy_array<int>(pt, cb, kPtOrderInt, kOrdColcnt, kSymColcnt, n);
  copy_array<int>(pt, cb, kPtOrderInt, kOrdDomains, kSymDomains, 2 * (std::int64_t{s.ndom} + 1));
  if (s.sparse_rhs > 0)
    count_unselected(n, s.marked_rows, carved<int>(pt, cb, kPtSymbolic, kSymPerm),
                     carved<int>(pt, cb, kPtSymbolic, kSymUnselected));
  copy_array<int>(pt, cb, kPtSymbolicWork, kS2Sparent, kSymSparent, nsup);
  copy_array<int>(pt, cb, kPtSymbolicWork, kS2FirstChild, kSymFirstChild, nsup);
  copy_array<int>(pt, cb, kPtSymbolicWork, kS2NextSibling, kSymNextSibling, nsup);
  copy_array<int>(pt, cb, kPtSymbolicWork, kS2Tasklist, kSymTasklist, nsup);
  copy_array<int>(pt, cb, kPtSymbolicWork, kS2UpdFirst, kSymUpdFirst, nsup);
  copy_array<int>(pt, cb, kPtSymbolicWork, kS2UpdNext, kSymUpdNext, nsup);
  copy_array<int>(pt, cb, kPtSymbolicWork, kS2Nmod, kSymNmod, nsup);
  copy_array<std::int64_t>(pt, cb, kPtSymbolicWork, kS2Xlindx, kSymXlindx, nsup + 1);
  copy_array<int>(pt, cb, kPtSymbolicWork, kS2Lindx, kSymLindx, s.nsub);
  copy_array<std::int64_t>(pt, cb, kPtSymbolicWork, kS2Xlnz, kSymXlnz, std::int64_t{n} + 1);
  if (stores_u(s.mtype))
    copy_array<std::int64_t>(pt, cb, kPtSymbolicWork, kS2Xunz, kSymXunz, std::int64_t{n} + 1);

  if (build_maps(c, cb) != 0) {
    *stage = -3;
    return kMapFailed;
  }

  int *iparm = c.iparm;
  const std::int64_t entries = s.nnz_l + (stores_u(s.mtype) ? s.nnz_u : 0);
  // The count the caller sees is the report's "L+U": nnz_u is 1 for a
  // symmetric matrix, which stores no U.
  const std::int64_t counted = s.nnz_l + s.nnz_u;
  if (ip(iparm, 18) < 0)
    ip(iparm, 18) = counted > 2147483647 ? static_cast<int>(-(counted + 1000) / 1000)
                                         : static_cast<int>(counted);
  const double mflop = s.flops / 1.0e6;
  ip(iparm, 19) = mflop > 2147483647.0 ? 2147483647 : static_cast<int>(mflop);
  // One factorization: the values of L (and U) and the update buffer.
  const std::int64_t word = 8 * std::int64_t{s.complex_factor};
  const std::int64_t factor_bytes = entries * word + s.tmpsiz * word + std::int64_t{n} * word;
  s.factor_kb = static_cast<int>(std::min<std::int64_t>(group_kilobytes(factor_bytes), 2147483647));
  return 0;
}

}  // namespace

std::int64_t layout_ordering_block(const CallArgs &c, ControlBlock *cb) {
  const int n = *c.n;
  cb->s.target_domains = 1;
  // The domain target is fixed before the ordering, the list sized for it.
  std::int64_t want = std::int64_t{cb->s.nthreads > 0 ? cb->s.nthreads : 1} *
                      std::int64_t{cb->s.nnodes > 0 ? cb->s.nnodes : 1};
  std::int64_t target = 1;
  while (target < want) target *= 2;
  cb->s.target_domains = static_cast<int>(std::min<std::int64_t>(target, std::max(n, 1)));
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
  const ControlState &s = cb->s;
  const std::int64_t n = s.neqns, nsup = s.nsuper;
  Layout l(cb);
  l.add(kSymPerm, n, 4);
  l.add(kSymInvp, n, 4);
  l.add(kSymXsuper, nsup + 1, 4);
  l.add(kSymSnode, n, 4);
  l.add(kSymParent, n, 4);
  l.add(kSymColcnt, n, 4);
  l.add(kSymSparent, nsup, 4);
  l.add(kSymFirstChild, nsup, 4);
  l.add(kSymNextSibling, nsup, 4);
  l.add(kSymTasklist, nsup, 4);
  l.add(kSymUpdFirst, nsup, 4);
  l.add(kSymUpdNext, nsup, 4);
  l.add(kSymNmod, nsup, 4);
  l.add(kSymDomains, 2 * (std::int64_t{s.ndom} + 1), 4);
  l.add(kSymXlindx, nsup + 1, 8);
  l.add(kSymLindx, s.nsub, 4);
  l.add(kSymXlnz, n + 1, 8);
  l.add(kSymXunz, stores_u(s.mtype) ? n + 1 : 0, 8);
  // Scatter maps: at most one place per stored entry in each.
  const std::int64_t nnz = s.nnz;
  const std::int64_t unnz = stores_u(s.mtype) ? nnz : 0;
  l.add(kSymLmapPtr, n + 1, 4);
  l.add(kSymLmapDest, nnz, 8);
  l.add(kSymLmapSrc, nnz, 4);
  l.add(kSymLmapRow, s.scaling_on ? nnz : 0, 4);
  l.add(kSymUmapPtr, stores_u(s.mtype) ? n + 1 : 0, 4);
  l.add(kSymUmapDest, unnz, 8);
  l.add(kSymUmapSrc, unnz, 4);
  l.add(kSymUmapRow, s.scaling_on ? unnz : 0, 4);
  l.add(kSymUnselected, s.sparse_rhs > 0 ? n : 0, 4);
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

}  // namespace vm
