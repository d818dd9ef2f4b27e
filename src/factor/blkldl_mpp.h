// blkldl_mpp.h - the block-partitioned ("distributed") variant of the
// real LDL^T family, for mtype -2 with iparm(51) set: the supernodes are
// split between compute nodes, and the factorization runs in two stages.
//
// The split (REORDER1_VELMORA, analysis/domains.h): the domains of the
// dissection are grouped by node, consecutive domains to a node; a top
// supernode all of whose descendant domains are one node's is that node's
// local top; the rest, above the nodes, is the global top.  The analysis
// orders the top as the local tops of nodes 1..m, then the global top, so
// every part is a range of supernodes:
//
//   [domains of node 1 | ... | of node m][local top 1 | ... | m][global top]
//
// and writes the distributed form of the update lists (two bucket sets
// per node, analysis/update_lists.h).
//
// Local stage, BLKLDL_RISC_MPPTEST_VELMORAL: node after node, the
// two-level loop of left_looking.h restricted to the node's domains (its
// subtrees) and its local top (its top, with the node's local bucket set).
// Global stage, BLKLDL_RISC_MPPTEST_VELMORAG: the same loop with no
// subtrees over the global top; its sources are the nodes, done before it
// starts, and the global top itself.  Both run the family's callables
// (make, update, factor) unchanged, on the whole team: the nodes live in
// one process and share its threads, so a node's stage takes every thread
// rather than a slice of them.  Nothing here allocates: the loop state is
// the two-level loop's, sized for the largest set.
#ifndef VELMORA_FACTOR_BLKLDL_MPP_H
#define VELMORA_FACTOR_BLKLDL_MPP_H

#include <cstdint>

#include "analysis/update_lists.h"
#include "factor/factor_args.h"
#include "factor/left_looking.h"

namespace vm {

// One part of the partition read from the distributed lists: the
// subtrees it runs (ndom domain pairs from the domain table's pair dfirst,
// zero-based) and its top with its bucket set; the loop state is state's.
struct MppPart {
  int dfirst = 0;
  int ndom = 0;
  TopLists top;
};

// Part k of the lists' partition: k < nodes the local part of node k,
// k == nodes the global part.
inline MppPart mpp_part(const int *lists, int k, const TopLists &state) {
  const int m = lists[1];
  MppPart p;
  p.top.state = state.state;
  p.top.cursor = state.cursor;
  p.top.domain_done = state.domain_done;
  // The sets' bucket pointers one after another, node 0's local set first,
  // the global set last; des and off after them.
  const int *ptr = lists + distributed_header_ints(m);
  for (int j = 0; j <= m; ++j) {
    const int *part = lists + 6 + 4 * j;
    const int ndom = j < m ? part[1] : 0;
    const int ftop = j < m ? part[2] : part[0];
    const int ntop = j < m ? part[3] : part[1];
    const int nsrc = j < m ? ndom + 1 : m + 1;
    if (j == k) {
      p.dfirst = j < m ? part[0] : 0;
      p.ndom = ndom;
      p.top.ftop = ftop;
      p.top.ntop = ntop;
      p.top.nsrc = nsrc;
      p.top.ptr = ptr;
    }
    ptr += std::int64_t{ntop} * nsrc + 1;
  }
  p.top.des = ptr;
  p.top.off = ptr + lists[3];
  return p;
}

// The two-level loop over one part.
template <class T, class Ops>
void run_mpp_part(const FactorView<T> &f, const MatrixInput &in, const FactorWork<T> &work,
                  const MppPart &part, const LoopOptions &opt, FactorScalars &sc, Ops &ops) {
  if (part.ndom == 0 && part.top.ntop == 0) return;
  FactorWork<T> w = work;
  w.ndom = part.ndom;
  w.domains = work.domains + 2 * part.dfirst;
  w.top = part.top;
  run_two_level(f, in, w, opt, sc, ops);
}

// BLKLDL_RISC_MPPTEST_VELMORAL: the local stage, every node's domains and
// local top, node after node.  Stops at the first failing node.
template <class T, class Ops>
void BLKLDL_RISC_MPPTEST_VELMORAL(const FactorView<T> &f, const MatrixInput &in,
                                  const FactorWork<T> &work, const LoopOptions &opt,
                                  FactorScalars &sc, Ops &ops) {
  const int m = work.node_lists[1];
  for (int k = 0; k < m && sc.iflag == 0; ++k)
    run_mpp_part(f, in, work, mpp_part(work.node_lists, k, work.top), opt, sc, ops);
}

// BLKLDL_RISC_MPPTEST_VELMORAG: the global stage, the global top once
// every node is done.
template <class T, class Ops>
void BLKLDL_RISC_MPPTEST_VELMORAG(const FactorView<T> &f, const MatrixInput &in,
                                  const FactorWork<T> &work, const LoopOptions &opt,
                                  FactorScalars &sc, Ops &ops) {
  const int m = work.node_lists[1];
  run_mpp_part(f, in, work, mpp_part(work.node_lists, m, work.top), opt, sc, ops);
}

// The driver of BLKLDL_MPP_ENTRY_VELMORA: nothing without supernodes; the
// partition has nnodes local parts and the global part, the local member
// runs the first nnodes and the global member the last.  Without the
// distributed lists (a split the analysis could not make: one domain, or
// a type the variant does not take) the family's own loop runs.
template <class T, class Ops>
void run_block_partitioned(const FactorView<T> &f, const MatrixInput &in, const FactorWork<T> &work,
                           const LoopOptions &opt, FactorScalars &sc, Ops ops) {
  if (f.nsuper < 1) return;
  const int *lists = work.node_lists;
  if (lists == nullptr || lists[0] != kDistributedListForm || f.nschur > 0) {
    run_loop(f, in, work, opt, sc, ops);
    return;
  }
  clear_chains(f, Chains{work.link, work.length});
  BLKLDL_RISC_MPPTEST_VELMORAL(f, in, work, opt, sc, ops);
  if (sc.iflag == 0) BLKLDL_RISC_MPPTEST_VELMORAG(f, in, work, opt, sc, ops);
}

// BLKLDL_MPP_ENTRY_VELMORA: the block-partitioned member of the real LDL^T
// family (ublkldl_risc.cpp), arguments and results as BLKLDL_RISC_VELMORA
// (blkldl.h); work.node_lists and work.top's loop state come from the
// numeric stage.
template <class T>
std::int64_t BLKLDL_MPP_ENTRY_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                      FactorWork<T> &work, FactorScalars &sc);

}  // namespace vm

#endif  // VELMORA_FACTOR_BLKLDL_MPP_H
