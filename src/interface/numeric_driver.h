// numeric_driver.h - one stage of analysis or numeric work.
//
// The phase driver allocates the groups of each stage with the sizes the
// layout functions below return; the layout functions also record where
// each array lies inside its group (the offsets of the control block), so
// that a later stage or call finds the arrays again.
#ifndef VELMORA_INTERFACE_NUMERIC_DRIVER_H
#define VELMORA_INTERFACE_NUMERIC_DRIVER_H

#include <cstdint>

#include "analysis/update_lists.h"
#include "factor/factor_args.h"
#include "interface/control.h"

namespace vm {

// Stages handed to the numeric driver.
enum Stage : int { kStageOrdering = 1, kStageSymbolic = 2, kStageSizing = 3, kStageNumeric = 4 };

// Byte sizes of the groups of analysis; a negative size means the counts
// overflow what the library can index.
std::int64_t layout_ordering_block(const CallArgs &c, ControlBlock *cb);  // pt(5)
std::int64_t ordering_work_bytes(const CallArgs &c, ControlBlock *cb);    // pt(6)
std::int64_t layout_symbolic_work(ControlBlock *cb);                      // pt(7)
std::int64_t layout_symbolic_block(ControlBlock *cb);                     // pt(8)
std::int64_t map_work_bytes(const ControlBlock *cb);                      // pt(9)

// The update lists of the parallel factorization, group pt(12): the form
// this analysis makes (0 none: one thread or a Schur block; 3 distributed:
// the block-partitioned mode of mtype -2 with its node split; 2 two-level:
// iparm(24) 1 and domains that carry it; else 1, classical), what they are
// made from (the symbolic block), the group's size for a total of list
// entries, and the lists written into the group (results into the control
// block).  The group holds five header ints (the form, then for the
// two-level form ftop, sources, top supernodes and the total, for the
// classical form the total), then the arrays; the distributed form's
// layout is in analysis/update_lists.h.
int update_lists_form(void **pt, const ControlBlock *cb);
UpdateListsInput update_lists_input(void **pt, const ControlBlock *cb);
// The node split of the analysis (nnodes 0 without one).
NodeSplit node_split(void **pt, const ControlBlock *cb);
std::int64_t update_lists_bytes(const UpdateListsInput &in, const NodeSplit &split, int form,
                                std::int64_t total);
void write_update_lists(void **pt, ControlBlock *cb, int form, void *scratch);

// The lists of pt(12) as the factorization takes them, without the loops'
// state: empty records (ntop 0, total 0) when the group holds the other
// form or nothing.
TopLists top_lists(void **pt);
TargetQueues target_queues(void **pt, const ControlBlock *cb);

// NUMERIC_DRIVER_VELMORA
//   in:  the call c, its control block cb, *stage (1..4); the groups of the
//        stage allocated by the phase driver
//   out: 0, or a nonzero code of the stage; then *stage holds the negative
//        result of the call (-3 analysis, -8 index overflow, -4 numeric).
int NUMERIC_DRIVER_VELMORA(const CallArgs &c, ControlBlock *cb, int *stage);

}  // namespace vm

#endif  // VELMORA_INTERFACE_NUMERIC_DRIVER_H
