// metis_calls.h - the calls into METIS, one at a time in the process.
//
// METIS keeps its random generator in process-wide state and seeds it at
// the start of each call: two handles ordering at once (from the threads
// of a caller's parallel region) would draw from one sequence and get
// orderings that depend on timing.  Every call of the analysis goes
// through these, under one named critical section, so that a matrix gets
// the same ordering whatever else the process is doing.
#ifndef VELMORA_ANALYSIS_METIS_CALLS_H
#define VELMORA_ANALYSIS_METIS_CALLS_H

#include <metis.h>

namespace vm {

inline int metis_node_nd(idx_t *nvtxs, idx_t *xadj, idx_t *adjncy, idx_t *options, idx_t *perm,
                         idx_t *iperm) {
  int rc = 0;
#pragma omp critical(velmora_metis)
  rc = METIS_NodeND(nvtxs, xadj, adjncy, nullptr, options, perm, iperm);
  return rc;
}

inline int metis_vertex_separator(idx_t *nvtxs, idx_t *xadj, idx_t *adjncy, idx_t *options,
                                  idx_t *sepsize, idx_t *part) {
  int rc = 0;
#pragma omp critical(velmora_metis)
  rc = METIS_ComputeVertexSeparator(nvtxs, xadj, adjncy, nullptr, options, sepsize, part);
  return rc;
}

}  // namespace vm

#endif  // VELMORA_ANALYSIS_METIS_CALLS_H
