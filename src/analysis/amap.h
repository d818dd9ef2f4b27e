// amap.h - where every stored entry of A lands in the factor.
//
// A numeric factorization copies a into the supernode panels through these
// maps instead of searching, so a matrix factored many times pays the
// search once, at analysis.  For column j (one-based) of the permuted
// matrix, entries ptr(j) .. ptr(j+1)-1 of the map hold: dest, the one-based
// position in lnz (or unz), negative when the stored entry lands transposed;
// src, the one-based index of the entry in a and ja; row, the row of that
// entry in A (only with scaling: its row factor; the column factor is that
// of ja(src)).
#ifndef VELMORA_ANALYSIS_AMAP_H
#define VELMORA_ANALYSIS_AMAP_H

#include <cstdint>

namespace vm {

// Output arrays of one map: ptr n+1, dest/src/row as many as entries.
struct AmapOut {
  int *ptr;
  std::int64_t *dest;
  int *src;
  int *row;  // null without scaling
};

// Ints of work for either builder.
std::int64_t amap_work_size(int n, std::int64_t nnz);

// Length from which the dense route of the column sort beats a
// comparison sort, and the bound below which the dense route cleans its
// marker by walking the column (single-precision constants, as specified
// for the crossover).
void amap_sort_crossover(int n, int *dense_from, int *walk_clean_below);

// AMAP_SYM_VELMORA: the map of a matrix stored as its upper triangle (or
// any one triangle: each entry lands at (max, min) of its permuted row and
// column).
//   in:   n, ia, ja (one-based), perm, invp, the symbolic arrays xsuper,
//         snode, xlindx, lindx, xlnz
//   out:  map (ptr, dest, src, row when scaling_on)
//   work: amap_work_size(n, nnz) ints.
// Returns the number of entries mapped, or -1 when an entry found no place
// in the factor structure (a pattern changed since analysis).  Entries with
// a column outside 1..n are left out.
std::int64_t AMAP_SYM_VELMORA(int n, const int *ia, const int *ja, const int *perm, const int *invp,
                              const int *xsuper, const int *snode, const std::int64_t *xlindx,
                              const int *lindx, const std::int64_t *xlnz, int scaling_on,
                              AmapOut map, int *work);

// AMAP_UNSYM_VELMORA: the two maps of a general matrix.  Entries on or
// below the diagonal, and those above it inside a diagonal block, go to
// lnz (lmap); the others to unz (umap), whose column j holds row j of U
// beyond the block.  rowmap (or null): row i of the factored matrix is row
// rowmap(i) of A, the permutation of a matching.
//   out: lmap, umap; *ucount the entries of umap.
// Returns the entries of lmap, or -1 as above.
std::int64_t AMAP_UNSYM_VELMORA(int n, const int *ia, const int *ja, const int *rowmap,
                                const int *perm, const int *invp, const int *xsuper,
                                const int *snode, const std::int64_t *xlindx, const int *lindx,
                                const std::int64_t *xlnz, const std::int64_t *xunz, int scaling_on,
                                AmapOut lmap, AmapOut umap, std::int64_t *ucount, int *work);

}  // namespace vm

#endif  // VELMORA_ANALYSIS_AMAP_H
