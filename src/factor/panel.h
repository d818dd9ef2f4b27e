// panel.h - preparation of a supernode's panel before its updates, shared
// by every factorization family: the panel is cleared, the entries of A
// that land in it are copied in through the scatter map (scaled when a
// scaling is on), and the position map of its row list is set.
#ifndef VELMORA_FACTOR_PANEL_H
#define VELMORA_FACTOR_PANEL_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "factor/factor_args.h"
#include "factor/scalar_traits.h"

namespace vm {

// Position map of a row list: row number i (one-based) of a list of len
// rows gets len - i, so that the value falls along the list and the last
// row maps to 0.  indmap is indexed by the global row (one-based).
inline void set_indmap(const int *rows, int len, int *indmap) {
  for (int i = 0; i < len; ++i) indmap[rows[i] - 1] = len - 1 - i;
}

// Clears count entries from p.  Short runs are cleared in line: the call
// of a block fill costs more than the stores there.
template <class T>
inline void clear_run(T *p, std::int64_t count) {
  if (count < 13) {
    for (std::int64_t i = 0; i < count; ++i) p[i] = T(0);
  } else {
    std::fill_n(p, count, T(0));
  }
}

// Copies the map entries of columns first..last of A into a factor array
// (lnz or unz).  An entry with negative destination lands transposed: its
// value is conjugated when `hermitian` (the Hermitian types).  With scaling
// an entry a(r, c) becomes s_row(r) a(r, c) s_col(c), whichever place it
// lands in: the map records r, and c is ja of its source.  Scale factors:
// scale[0..n) for columns, scale[n..2n) for rows, both by original index
// (a symmetric scaling holds the same factors in both halves).  Values are
// scaled in double precision and rounded once to the factor's type.
template <class T>
void scatter_columns(int n, int first, int last, const ScatterMap &map, const MatrixInput &in,
                     bool hermitian, T *dst) {
  using W = std::conditional_t<scalar_traits<T>::is_complex, zcomplex, double>;
  const double *s_col = in.scale;
  const double *s_row = in.scale != nullptr ? in.scale + n : nullptr;
  const bool scaled = in.scaling_on != 0 && in.scale != nullptr && map.row != nullptr;
  for (int j = first; j <= last; ++j) {
    const int p_end = map.ptr[j] - 1;
    for (int p = map.ptr[j - 1] - 1; p < p_end; ++p) {
      const std::int64_t dest = map.dest[p];
      const int src = map.src[p];
      W v = load<W>(in.a, src - 1);
      if (scaled) v = v * (s_row[map.row[p] - 1] * s_col[in.ja[src - 1] - 1]);
      if (dest < 0 && hermitian) v = conj_of(v);
      dst[(dest < 0 ? -dest : dest) - 1] = static_cast<T>(v);
    }
  }
}

// fill_panel: the panel of supernode ksup (one-based) before any update.
//  1. lnz of the panel (and on LU types, f.unz not null, the unz part of
//     its columns) is cleared;
//  2. the entries of in.lmap (and in.umap on LU types) for its columns are
//     copied in, scaled when in.scaling_on;
//  3. with scale_logdet not null and scaling on, log(s_r(j) s_c(j)) of each
//     column j is taken off *scale_logdet, the scaling's share of the
//     determinant, before any pivot of the supernode is taken.
// hermitian: entries landing transposed are conjugated.
template <class T>
void fill_panel(int ksup, const FactorView<T> &f, const MatrixInput &in, bool hermitian,
                double *scale_logdet) {
  const int first = f.xsuper[ksup - 1];
  const int last = f.xsuper[ksup] - 1;
  const std::int64_t lbeg = f.xlnz[first - 1];
  clear_run(f.lnz + (lbeg - 1), f.xlnz[last] - lbeg);
  scatter_columns(f.n, first, last, in.lmap, in, hermitian, f.lnz);
  if (f.unz != nullptr && in.umap.ptr != nullptr) {
    const std::int64_t ubeg = f.xunz[first - 1];
    clear_run(f.unz + (ubeg - 1), f.xunz[last] - ubeg);
    scatter_columns(f.n, first, last, in.umap, in, hermitian, f.unz);
  }
  if (scale_logdet != nullptr && in.scaling_on != 0 && in.scale != nullptr) {
    for (int j = first; j <= last; ++j) {
      const int o = in.perm[j - 1];
      *scale_logdet -= std::log(in.scale[o - 1] * in.scale[f.n + o - 1]);
    }
  }
}

// The position map of supernode ksup's row list.
template <class T>
void set_panel_indmap(int ksup, const FactorView<T> &f, int *indmap) {
  const std::int64_t rbeg = f.xlindx[ksup - 1];
  set_indmap(f.lindx + (rbeg - 1), static_cast<int>(f.xlindx[ksup] - rbeg), indmap);
}

// Whether supernode s + 1 (one-based) continues the column chain of s: a
// fundamental supernode split by the panel width.  Then the rows of s
// below its columns are exactly the row list of s + 1, so the list of s + 1
// is a tail of the list of s and the position map of s serves both.
template <class T>
bool continues(const FactorView<T> &f, int s) {
  if (s >= f.nsuper) return false;
  const int ncols = f.xsuper[s] - f.xsuper[s - 1];
  const std::int64_t len = f.xlindx[s] - f.xlindx[s - 1];
  const std::int64_t next_len = f.xlindx[s + 1] - f.xlindx[s];
  return len - ncols == next_len && next_len > 0 &&
         f.lindx[f.xlindx[s - 1] - 1 + ncols] == f.xsuper[s];
}

}  // namespace vm

#endif  // VELMORA_FACTOR_PANEL_H
