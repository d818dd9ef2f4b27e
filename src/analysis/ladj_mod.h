// ladj_mod.h - the adjacency graph of A + A^T without its diagonal.
#ifndef VELMORA_ANALYSIS_LADJ_MOD_H
#define VELMORA_ANALYSIS_LADJ_MOD_H

#include <cstdint>

namespace vm {

// LADJ_MOD_VELMORA
//   in:   n; ia (n+1), ja (ia(n+1)-1): the pattern, one-based, rows in any
//         order of columns; rowmap (n, one-based, or null for the identity):
//         row i of the graph's matrix B is row rowmap(i) of A; nthreads
//   out:  xadj (n+1), adjncy (capacity ladj_mod_capacity entries): the
//         pattern of B + B^T without diagonal, one-based, each list sorted
//         ascending without repeats.  Returns the number of entries.
//   work: ladj_mod_work_size(n) ints.
// Entries whose column lies outside 1..n are ignored, so a corrupt pattern
// cannot make the routine write outside its arrays.  With one thread a
// serial count-then-fill runs; with more, rows are split into blocks whose
// counts and fills run in parallel.
std::int64_t LADJ_MOD_VELMORA(int n, const int *ia, const int *ja, const int *rowmap, int nthreads,
                              int *xadj, int *adjncy, int *work);

// Entries adjncy may need before repeats are removed: twice the
// off-diagonal entries of A.
std::int64_t ladj_mod_capacity(int n, const int *ia);
std::int64_t ladj_mod_work_size(int n);

}  // namespace vm

#endif  // VELMORA_ANALYSIS_LADJ_MOD_H
