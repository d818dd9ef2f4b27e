// control.h - the handle, the control block and the call arguments.
//
// The caller's handle `pt` is an array of 64 pointer-sized slots; the
// library uses slots 1..20 (one-based, as in messages).  Slot 1 is a call
// counter, slot 2 the control block below, slot 4 the factor table; the
// other slots hold the memory groups of analysis and factorization.
#ifndef VELMORA_INTERFACE_CONTROL_H
#define VELMORA_INTERFACE_CONTROL_H

#include <cstddef>
#include <cstdint>

#include "common/matrix_type.h"

namespace vm {

// Marks a pointer slot that was never allocated; it is never freed.
constexpr std::intptr_t kSentinel = 777777777;

// One-based handle slots.
enum HandleSlot : int {
  kPtCount = 1,         // calls that passed the input check; not a pointer
  kPtControl = 2,       // ControlBlock ("BASIC")
  kPtFactors = 4,       // factor table, maxfct rows of kFactorRowSlots
  kPtOrderInt = 5,      // ordering workspace ("STRUC_S0")
  kPtOrderA = 6,        // ordering workspace ("STRUC_S1")
  kPtSymbolicWork = 7,  // "STRUC_S2"
  kPtSymbolic = 8,      // symbolic factor block ("STRUC_FI")
  kPtOrderB = 9,        // ordering workspace ("STRUC_S1")
  kPtPivotWork = 10,    // "WORK_R0"
  kPtRefineWork = 11,   // "CGS_ARR"
  kPtUpdateLists = 12,  // "UP_UPLEN"
  kPtMatching = 13,     // matching permutations ("STRUC_S0")
  kPtScaling = 14,      // scaling factors ("STRUC_S0")
  kPtSymMatching = 15,
  kPtMatrixRecord = 16,  // owned smat record with its permuted matrix
  kPtRealWork = 17,
  kPtBlockA = 18,
  kPtBlockB = 19,
  kPtBlockC = 20,
  kPtLastUsed = 20,
};

constexpr int kHandleSlots = 64;
constexpr int kFactorRowSlots = 6;  // value block, size tag, 4 bookkeeping words
constexpr int kControlBlockBytes = 2560;
constexpr int kTimers = 10;
constexpr int kRctlSize = 40;
constexpr int kOffsetWords = 100;

// What the input check remembers from the last accepted call; 0 disables
// the comparison with the next call.
struct CheckMemory {
  std::int32_t maxfct, mnum, mtype, phase, n, nnz, nrhs;
};

// The part of the control block that every analysis starts afresh.
struct ControlState {
  std::int32_t neqns;
  std::int32_t neqns_plus_1;
  std::int32_t adj_size;
  std::int32_t adj_size_alloc;
  std::int32_t complex_factor;  // 1 real, 2 complex
  std::int32_t reserved_a;
  std::int32_t reserved_b;
  std::int32_t iparm6_copy;
  std::int32_t old_maxfct_marker;
  std::int32_t error_state;  // -1: handle made by a call with phase below 1
  std::int32_t msg_flag;
  std::int32_t mtype;
  std::int32_t reserved_c;
  std::int32_t ordering;
  std::int32_t nthreads;
  std::int32_t panel_size;
  std::int32_t mmd_on_separator;
  std::int32_t hybrid_mode;
  std::int32_t symmetric_pattern;
  std::int32_t sequential;
  std::int32_t perm_mode;
  std::int32_t maxfct;
  std::int32_t mnum_marker;
  std::int32_t iparm21;
  std::int32_t nsuper;
  std::int32_t max_supernode;
  std::int32_t internal_error;
  std::int32_t nnz;
  std::int32_t perturbed_pivots;
  std::int32_t inertia_pos;
  std::int32_t inertia_neg;
  std::int32_t refine_steps;
  std::int32_t eps_exponent;
  std::int32_t matching_mode;
  std::int32_t transposed;
  std::int32_t scaling_on;
  std::int32_t two_level_fact;
  std::int32_t two_level_solve;
  std::int32_t partial_solve;
  std::int32_t iparm50;
  std::int32_t peak_kb;
  std::int32_t perm_kb;
  std::int32_t nodes_in_solve;
  std::int32_t iparm28;
  std::int32_t single_precision;
  std::int32_t sparse_rhs;
  std::int32_t identical_results;
  std::int32_t distributed;
  std::int32_t nnodes;
  std::int32_t determinant;
  std::int32_t schur_size;
  std::int32_t block_nodes;
  std::int32_t block_tail;
  // Further settings of this library.
  std::int32_t factor_kb;  // kilobytes of one factorization
  // 1 when every pivot block is one column (iparm(30) 1 on a symmetric
  // type): the supernodes stay those of the automatic width for the
  // arithmetic, and a block factors column by column without exchanges;
  // reports show the one-column supernodes.
  std::int32_t unit_pivots;
  std::int32_t order_consts[4];  // controls of the ordering dispatch
  CheckMemory check;
  std::int64_t nnz_l;
  std::int64_t nnz_u;
  std::int64_t stack_size;
  // Results of analysis.
  std::int32_t ndom;          // domains below the top pair
  std::int32_t domain_width;  // largest domain, in columns
  std::int32_t target_domains;
  std::int32_t marked_rows;        // rows of a partial solve
  std::int32_t first_root;         // first root of the supernodal tree
  std::int32_t nadj;               // entries of the adjacency graph
  std::int32_t sym_matched;        // 1: the order in pt(15) came from a symmetric matching
  std::int32_t node_split;         // distributed mode: nodes the top was split for, or 0
  std::int32_t local_separators;   // columns of the nodes' local tops
  std::int32_t global_separators;  // columns of the global top
  std::int32_t list_form;          // update lists in pt(12): 0 none, 1 classical, 2 two-level,
                                   // 3 distributed
  std::int32_t list_buckets;       // buckets per call: ntop (two-level), 1 (classical), 0 (none),
                                   // the largest top of a bucket set (distributed)
  std::int32_t list_sources;       // distributed: the most sources of a bucket set
  std::int64_t list_total;         // entries of the update lists
  std::int64_t list_bytes;         // size of the group pt(12)
  std::int64_t nsub;               // length of lindx
  std::int64_t fill;               // entries of L by columns, diagonal included
  std::int64_t tmpsiz;             // entries of the dense update buffer
  std::int64_t lnz_peak;           // largest lnz of one domain
  std::int64_t unz_peak;
  std::int64_t symbolic_bytes;  // size of the symbolic block pt(8)
  std::int64_t lmap_count;      // entries of the scatter maps
  std::int64_t umap_count;
  std::int64_t work_bytes;    // size of the work group pt(10)
  std::int64_t refine_bytes;  // size of the refinement group pt(11)
  double flops;               // of one numeric factorization
  // The hybrid iteration (iparm(4)), kept from call to call: the limit and
  // the stagnation check of the next run, whether the next numeric phase
  // may iterate (0 after an analysis or a failed run: it factors), and the
  // seconds of the last factorization.
  std::int32_t hybrid_budget;
  std::int32_t hybrid_check;
  std::int32_t hybrid_ready;
  double hybrid_factor_seconds;
  // Entries of the Schur block of the last factorization (0 without one).
  std::int64_t nnz_schur;
};

// rctl slots (one-based).
enum RctlSlot : int {
  kRctlTen = 1,
  kRctlOne = 2,
  kRctlHybridTol = 13,
  kRctlFloor = 14,
  kRctlLogDet1 = 17,
  kRctlLogDet2 = 18,
  kRctlNormA = 19,   // largest magnitude of an entry of A, at the last factorization
  kRctlTimers = 21,  // kTimers timers from here on
};

// Timers of the report, in its order.
enum Timer : int {
  kTimeFullAdj = 0,
  kTimeReorder,
  kTimeSymbFct,
  kTimeParList,
  kTimeAtoLU,
  kTimeNumFct,
  kTimeSolve,
  kTimeCgs,
  kTimeMalloc,
  kTimeTotal,
};

// Arrays carved from the handle's groups; cb->offsets[k] holds the byte
// offset of array k inside its group (the sentinel while it has none).
enum CarvedArray : int {
  // the symbolic factor, pt(8)
  kSymPerm = 0,
  kSymInvp,
  kSymXsuper,
  kSymSnode,
  kSymParent,
  kSymColcnt,
  kSymSparent,
  kSymFirstChild,
  kSymNextSibling,
  kSymTasklist,
  kSymUpdFirst,
  kSymUpdNext,
  kSymNmod,
  kSymDomains,
  kSymXlindx,
  kSymLindx,
  kSymXlnz,
  kSymXunz,
  kSymLmapPtr,  // scatter maps of A into lnz and unz
  kSymLmapDest,
  kSymLmapSrc,
  kSymLmapRow,
  kSymUmapPtr,
  kSymUmapDest,
  kSymUmapSrc,
  kSymUmapRow,
  kSymUnselected,  // partial solve: unselected nodes at or before each caller index
  kSymCount,
  // ordering block, pt(5)
  kOrdXadj = 40,
  kOrdAdjncy,
  kOrdPerm,
  kOrdInvp,
  kOrdDomains,
  kOrdColcnt,
  kOrdSnode,
  kOrdXsuper,
  kOrdParent,
  // symbolic workspace, pt(7)
  kS2Sparent = 60,
  kS2FirstChild,
  kS2NextSibling,
  kS2Tasklist,
  kS2UpdFirst,
  kS2UpdNext,
  kS2Nmod,
  kS2Xlindx,
  kS2Lindx,
  kS2Xlnz,
  kS2Xunz,
  kS2Work,
};

struct ControlBlock {
  ControlState s;                       // zeroed at each analysis
  double rctl[kRctlSize];               // zeroed at each analysis
  std::intptr_t offsets[kOffsetWords];  // sentinel at each analysis
  std::int32_t timer_flags[kTimers];    // bit 0: the timer ran in this call
  double call_start;                    // wall clock at the start of this call
  // Kept over analyses: memory accounting and the factor table's true size.
  std::int32_t factor_rows;  // rows allocated in the factor table
  std::int64_t mem_kb;       // running kilobyte counter of the groups held
  std::int64_t mem_peak_kb;  // its peak since the last analysis started
  // The last failure, for the reporter.
  std::int32_t fail_arg1;
  std::int32_t fail_arg2;
  std::int64_t fail_bytes;  // size of a failed allocation
};
static_assert(sizeof(ControlBlock) <= kControlBlockBytes, "control block outgrew its 2560 bytes");

inline double &rctl(ControlBlock *cb, int k) {
  return cb->rctl[k - 1];
}

// Whether a factorization runs the fixed-order scheme (iparm(34)): the
// analysis cut domains for a fixed team and wrote the two-level lists, and
// the subtrees and the top are factored with every update reaching its
// target in one order whatever the team, one thread included.  With one
// domain the supernodes go one after another on one thread, which gives
// the same bits too.
inline bool factor_runs_fixed_order(const ControlState &s) {
  return s.identical_results != 0 && s.list_form == 2 && s.list_buckets > 0 && s.schur_size == 0 &&
         s.distributed == 0;
}

// Whether the block-partitioned factorization runs (BLKLDL_MPP_ENTRY_VELMORA
// with the distributed form of the lists): the caller asked for it, so it
// runs whatever the size, on the team or, with one thread or iparm(34), on
// one thread node after node.
inline bool factor_runs_distributed(const ControlState &s) {
  return s.list_form == 3 && s.sequential == 0 && s.schur_size == 0;
}

// Whether a factorization runs on the team: the analysis wrote update
// lists, the parallel member runs (more than one thread, no Schur block)
// and the factorization is large enough to gain from it; the fixed-order
// scheme whenever it runs on more than one thread.  The distributed form
// takes the team whenever its variant runs with more than one thread and
// without iparm(34) (which it serves on one thread, node after node).
inline bool factor_runs_parallel(const ControlState &s) {
  if (s.list_form == 3)
    return factor_runs_distributed(s) && s.nthreads > 1 && s.identical_results == 0;
  if (s.identical_results != 0) return factor_runs_fixed_order(s) && s.nthreads > 1;
  // Below this many operations a factorization takes less than a few
  // milliseconds on one core, less than starting a team and its waits.
  constexpr double kTeamFlops = 2.0e7;
  // The classical loop costs a queue and a wait per supernode: with
  // supernodes this small on average (2D grids) one thread is faster.
  constexpr double kClassicalFlopsPerSupernode = 1.0e5;
  if (s.list_form == 1 && s.flops < kClassicalFlopsPerSupernode * s.nsuper) return false;
  return s.list_buckets > 0 && s.sequential == 0 && s.schur_size == 0 && s.nthreads > 1 &&
         s.flops >= kTeamFlops;
}

// Adds seconds to a timer of the report: the first addition in a call
// replaces what an earlier call left, later ones accumulate.
inline void add_time(ControlBlock *cb, int timer, double seconds) {
  double &t = cb->rctl[kRctlTimers + timer - 1];
  t = (cb->timer_flags[timer] & 1) ? t + seconds : seconds;
  cb->timer_flags[timer] |= 1;
}

// Array `k` carved from the group in handle slot `slot`.
template <class T>
T *carved(void **pt, const ControlBlock *cb, int slot, int k) {
  return reinterpret_cast<T *>(static_cast<char *>(pt[slot - 1]) + cb->offsets[k]);
}

// Everything the caller passed to one call of `velmora`, by address.
struct CallArgs {
  void **pt;
  const int *maxfct;
  const int *mnum;
  const int *mtype;
  const int *phase;
  const int *n;
  void *a;
  const int *ia;
  const int *ja;
  int *perm;
  const int *nrhs;
  int *iparm;
  const int *msglvl;
  void *b;
  void *x;
  int *error;
  double *dparm;
};

// Handle and array access with one-based slots.
inline void *&pt_slot(void **pt, int k) {
  return pt[k - 1];
}
// A pointer word that holds memory: neither empty nor the sentinel.
inline bool holds_block(const void *p) {
  return p != nullptr && reinterpret_cast<std::intptr_t>(p) != kSentinel;
}
inline bool has_block(void **pt, int slot) {
  return holds_block(pt_slot(pt, slot));
}
inline int &ip(int *iparm, int k) {
  return iparm[k - 1];
}
inline ControlBlock *control_of(void **pt) {
  return static_cast<ControlBlock *>(pt_slot(pt, kPtControl));
}
inline std::intptr_t *factor_row(void **pt, int mnum) {
  return static_cast<std::intptr_t *>(pt_slot(pt, kPtFactors)) +
         static_cast<std::ptrdiff_t>(mnum - 1) * kFactorRowSlots;
}

}  // namespace vm

#endif  // VELMORA_INTERFACE_CONTROL_H
