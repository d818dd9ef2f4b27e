// ublkldl_risc.cpp - supernodal left-looking LDL^T with pivoting inside the
// diagonal blocks (see blkldl.h).
//
// The loop is that of the Cholesky family (ublkl_risc.cpp): a target's
// panel is prepared from A, the descendants waiting on its chain apply
// their updates, the diagonal block is factored, the rows below solved, and
// the supernode linked on to the next target its rows reach.  What differs:
//  - an update is L21 D L21^T.  The descendant's first m tail rows are
//    copied, scaled by D (1x1 or 2x2 blocks), into temp, and the product
//    reads that copy as its second factor.  On the buffered path the copy
//    sits behind the L x m result block; otherwise at the start of temp.
//    A buffered update is split along long runs of the target's rows:
//    blocks that are dense in the target panel are written there directly.
//    Products into temp overwrite it (beta 0), so temp is not kept zero
//    between updates; it is cleared once at the end.
//  - an update applied at the first piece of a supernode split by the
//    panel width covers the pieces after it too, and beyond a split
//    supernode its pieces, which then share their tail, are applied
//    together: their products through temp are summed there and scattered
//    once.
//  - the diagonal block is factored by a pivoting kernel that perturbs
//    small pivots and counts inertia, and the pivots stay inside the block,
//    so the symbolic structure never changes.
#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstdlib>

#include "analysis/parallel_fill.h"
#include "factor/blas.h"
#include "factor/blkldl.h"
#include "factor/dense_kernels.h"
#include "factor/left_looking.h"
#include "factor/panel.h"
#include "factor/update_kernels.h"

namespace vm {

namespace {

UpdateKernelCounts *g_ldl_counts = nullptr;

inline void count(std::int64_t UpdateKernelCounts::*field) {
  if (g_ldl_counts != nullptr) ++(g_ldl_counts->*field);
}

template <class T>
struct Target {
  int first = 0;
  int last = 0;
  int ncols = 0;
  int len = 0;  // rows of its list and leading dimension of its panel
  T *panel = nullptr;
  int *pivot = nullptr;  // its block-relative exchanges
  int reach = 0;         // last column an update applied at this target covers
};

// An update applied at a target covers the target's columns and those of
// the supernodes after it on its column chain (the pieces of a wide
// supernode split by the panel width), up to kReachCols columns in all:
// one product of that width instead of one per piece, and the
// descendant's tail read once for them.
constexpr int kReachCols = 160;

template <class T>
int reach_of(const FactorView<T> &f, int ksup) {
  const int first = f.xsuper[ksup - 1];
  int reach = f.xsuper[ksup] - 1;
  for (int s = ksup; continues(f, s) && f.xsuper[s + 1] - first <= kReachCols; ++s)
    reach = f.xsuper[s + 1] - 1;
  return reach;
}

// Adds -X W^T for the tail positions [c0, m) as target columns, when the
// tail rows from c0 on are one contiguous run of the target's list: each
// panel of the chain that the columns fall in gets its dense block by one
// product.  W (leading dimension ldw) holds the scaled copy of the first
// ldw tail rows.
template <class T, bool kHermitian>
void contiguous_update(const FactorView<T> &f, int c0, int m, int L, const int *tail, int ncolj,
                       const T *x, int lenj, const T *w, int ldw) {
  constexpr char kAdj = kHermitian ? 'C' : 'T';
  for (int c = c0; c < m;) {
    const int col = tail[c];
    const int s = f.snode[col - 1];
    const int pfirst = f.xsuper[s - 1];
    const int e = c + std::min(f.xsuper[s] - col, m - c);
    const int ld = static_cast<int>(f.xlnz[pfirst] - f.xlnz[pfirst - 1]);
    T *dst = f.lnz + (f.xlnz[col - 1] - 1) + (col - pfirst);
    blas::gemm<T>('N', kAdj, L - c, e - c, ncolj, T(-1), x + c, lenj, w + c, ldw, T(1), dst, ld);
    c = e;
  }
}

// W = X D for the first m rows X of a descendant's tail (leading dimension
// ldx) and its pivots D, read from its diagonal block (leading dimension
// ldx) and pivots; W is m x ncolj with leading dimension m.  A 2x2 pivot
// on columns c, c+1 has d11, d21, d22 on the diagonal and first
// subdiagonal; its upper entry is d21 (conj(d21) on the Hermitian form).
template <class T, bool kHermitian>
void scaled_copy(int m, int ncolj, const T *x, std::int64_t ldx, const T *blk, const int *piv,
                 bool diagonal_mode, T *w) {
  for (int c = 0; c < ncolj;) {
    const T *xc = x + c * ldx;
    T *wc = w + static_cast<std::int64_t>(c) * m;
    const T d11 = blk[c + c * ldx];
    if (diagonal_mode || piv[c] > 0 || c + 1 == ncolj) {
      for (int i = 0; i < m; ++i) wc[i] = xc[i] * d11;
      c += 1;
    } else {
      const T d21 = blk[c + 1 + c * ldx], d12 = conj_if<kHermitian>(d21);
      const T d22 = blk[c + 1 + (c + 1) * ldx];
      const T *xd = xc + ldx;
      T *wd = wc + m;
      for (int i = 0; i < m; ++i) {
        const T a = xc[i], b = xd[i];
        wc[i] = a * d11 + b * d21;
        wd[i] = a * d12 + b * d22;
      }
      c += 2;
    }
  }
}

// Long runs of a descendant's tail whose rows follow each other in the
// target's list: rows[0..nrows) of at least kRunRows rows, and cols[0..ncols)
// of at least kRunCols rows among the first m (the target's columns),
// cut at m.  Each is a range [first, end) of tail positions, in order.  A
// block of the update whose rows are such a row run and whose columns such
// a column run is a dense block of the target panel and is written there
// directly; the rest goes through temp.  Runs beyond the capacity are
// left to temp.
constexpr int kRunRows = 32;
constexpr int kRunCols = 8;
constexpr int kMaxRowRuns = 64;
constexpr int kMaxColRuns = 16;

struct BlockRuns {
  int nrows = 0, ncols = 0;
  int rows[kMaxRowRuns][2];
  int cols[kMaxColRuns][2];
};

// Gathers relind(i) = indmap(tail row i) for the L tail rows and records
// the long runs; a column run also ends where the columns pass from one
// panel of a chain to the next (snode, by column).
inline void find_runs(int L, int m, const int *tail, const int *indmap, const int *snode,
                      int *relind, BlockRuns *runs) {
  int rstart = 0, cstart = 0;
  for (int i = 0; i <= L; ++i) {
    if (i < L) relind[i] = indmap[tail[i] - 1];
    if (i == 0) continue;
    const bool gap = i == L || relind[i] != relind[i - 1] - 1;
    if (gap) {
      if (i - rstart >= kRunRows && runs->nrows < kMaxRowRuns) {
        runs->rows[runs->nrows][0] = rstart;
        runs->rows[runs->nrows][1] = i;
        ++runs->nrows;
      }
      rstart = i;
    }
    if (cstart < m && (gap || i >= m || snode[tail[i] - 1] != snode[tail[i - 1] - 1])) {
      const int cend = i < m ? i : m;
      if (cend - cstart >= kRunCols && runs->ncols < kMaxColRuns) {
        runs->cols[runs->ncols][0] = cstart;
        runs->cols[runs->ncols][1] = cend;
        ++runs->ncols;
      }
      cstart = i;
    }
  }
}

// The parts of a buffered update, split along the long runs: for each long
// column run, its blocks with long row runs go straight into the panel
// (direct(a, b, gs, ge): tail rows [a, b), target columns [gs, ge)), the
// rows between them through temp (buffered(r0, r1, c0, c1)); the columns
// outside long runs through temp for all rows from their first.  Without
// long row runs the whole block goes through temp.
template <class Buffered, class Direct>
void for_each_part(int L, int m, const BlockRuns &runs, Buffered buffered, Direct direct) {
  if (runs.nrows == 0 || runs.ncols == 0) {
    buffered(0, L, 0, m);
    return;
  }
  int c0 = 0;
  for (int g = 0; g <= runs.ncols; ++g) {
    const int cshort = g < runs.ncols ? runs.cols[g][0] : m;
    if (cshort > c0) buffered(c0, L, c0, cshort);
    if (g == runs.ncols) break;
    const int gs = runs.cols[g][0], ge = runs.cols[g][1];
    int r = gs;
    for (int q = 0; q < runs.nrows; ++q) {
      if (runs.rows[q][1] <= gs) continue;
      const int a = runs.rows[q][0] > gs ? runs.rows[q][0] : gs;
      const int b = runs.rows[q][1];
      if (a > r) buffered(r, a, gs, ge);
      direct(a, b, gs, ge);
      r = b;
    }
    if (r < L) buffered(r, L, gs, ge);
    c0 = ge;
  }
}

// Adds a part held in temp (tail rows [r0, r1), target columns [c0, c1),
// leading dimension r1 - r0) to the panels: the entries on and below each
// target column's diagonal, two columns to a pass over the rows.
template <class T>
void scatter_part(const FactorView<T> &f, const Target<T> &k, int r0, int r1, int c0, int c1,
                  const int *relind, const T *part) {
  const int nr = r1 - r0, nc = c1 - c0;
  auto column_end = [&](int c) { return f.lnz + (f.xlnz[k.first + k.len - relind[c] - 1] - 2); };
  int j = 0;
  for (; j + 1 < nc; j += 2) {
    const int c = c0 + j;
    T *end0 = column_end(c), *end1 = column_end(c + 1);
    const T *t0 = part + static_cast<std::int64_t>(j) * nr - r0;
    const T *t1 = t0 + nr;
    int i = c + 1 > r0 ? c + 1 : r0;
    if (c >= r0) end0[-relind[c]] += t0[c];  // the row on column c's diagonal
    for (; i < r1; ++i) {
      const int v = relind[i];
      end0[-v] += t0[i];
      end1[-v] += t1[i];
    }
  }
  if (j < nc) {
    const int c = c0 + j;
    T *end = column_end(c);
    const T *t = part + static_cast<std::int64_t>(j) * nr - r0;
    for (int i = c > r0 ? c : r0; i < r1; ++i) end[-relind[i]] += t[i];
  }
}

// One piece of a descendant: a supernode, or one of the pieces of a
// supernode split by the panel width, which share the rows below the
// split supernode and so every tail from there on.
template <class T>
struct Piece {
  int ncolj = 0;
  int lenj = 0;
  const T *blk = nullptr;  // its diagonal block (leading dimension lenj)
  const T *x = nullptr;    // its first tail row (leading dimension lenj)
  const int *piv = nullptr;
};

template <class T>
Piece<T> piece_of(const FactorView<T> &f, int s, int L) {
  Piece<T> p;
  const int first = f.xsuper[s - 1];
  p.ncolj = f.xsuper[s] - first;
  p.lenj = static_cast<int>(f.xlindx[s] - f.xlindx[s - 1]);
  p.blk = f.lnz + (f.xlnz[first - 1] - 1);
  p.x = p.blk + (p.lenj - L);
  p.piv = f.pivot + (first - 1);
  return p;
}

// The update of the pieces [s0, s1] through their common tail of L rows
// with gaps in the target's list: the parts through temp get the products
// of every piece summed there (the first overwrites what temp held) and go
// to the panels once; the direct parts take each piece's product in turn.
// temp holds the parts one after another, then the scaled copy of the
// piece at hand (offset L m).
template <class T, bool kHermitian>
void buffered_update(const FactorView<T> &f, const Target<T> &k, int s0, int s1, int L, int m,
                     int first_schur, bool diagonal_mode, const int *relind, const BlockRuns &runs,
                     T *temp) {
  constexpr char kAdj = kHermitian ? 'C' : 'T';
  T *wc = temp + static_cast<std::int64_t>(L) * m;
  bool first = true;
  for (int s = s0; s <= s1; ++s) {
    if (f.xsuper[s] - 1 > first_schur) continue;  // an unfactored Schur panel
    const Piece<T> p = piece_of(f, s, L);
    scaled_copy<T, kHermitian>(m, p.ncolj, p.x, p.lenj, p.blk, p.piv, diagonal_mode, wc);
    const T beta = first ? T(0) : T(1);
    std::int64_t off = 0;
    for_each_part(
        L, m, runs,
        [&](int r0, int r1, int c0, int c1) {
          const int nr = r1 - r0;
          blas::gemm<T>('N', kAdj, nr, c1 - c0, p.ncolj, T(-1), p.x + r0, p.lenj, wc + c0, m, beta,
                        temp + off, nr);
          off += static_cast<std::int64_t>(nr) * (c1 - c0);
        },
        [&](int a, int b, int gs, int ge) {
          const int col = k.first + k.len - 1 - relind[gs];   // the run's first column
          const int pfirst = f.xsuper[f.snode[col - 1] - 1];  // and its panel
          const int ld = static_cast<int>(f.xlnz[pfirst] - f.xlnz[pfirst - 1]);
          T *c = f.lnz + (f.xlnz[col - 1] - 1) + (ld - 1 - relind[a]);
          blas::gemm<T>('N', kAdj, b - a, ge - gs, p.ncolj, T(-1), p.x + a, p.lenj, wc + gs, m,
                        T(1), c, ld);
        });
    first = false;
  }
  if (first) return;
  std::int64_t off = 0;
  for_each_part(
      L, m, runs,
      [&](int r0, int r1, int c0, int c1) {
        scatter_part(f, k, r0, r1, c0, c1, relind, temp + off);
        off += static_cast<std::int64_t>(r1 - r0) * (c1 - c0);
      },
      [](int, int, int, int) {});
}

// Applies the update of descendant jsup through the L rows of its tail to
// the target and the panels after it up to k.reach.  When jsup is the last
// piece of a supernode split by the panel width, the pieces before it
// come along: they share its tail and wait for it (see ldl_loop).  Returns
// m, the rows of the tail that were applied as columns: all those up to
// k.reach, fewer when temp cannot hold them, but never fewer than the
// target's own.  Sets *iflag to -2 when temp cannot hold the scaled copy
// of those (and the result block on the buffered path).
template <class T, bool kHermitian>
int apply_update(const FactorView<T> &f, const Target<T> &k, int jsup, int L, int first_schur,
                 bool diagonal_mode, FactorWork<T> &w, int *iflag) {
  // The pieces that come along: only the last piece travels beyond its
  // split supernode; an earlier one is still applying its own update to
  // the pieces after it.
  int s0 = jsup;
  if (!continues(f, jsup))
    while (s0 > 1 && continues(f, s0 - 1)) --s0;
  int ncolj = 0;  // the widest piece
  for (int s = s0; s <= jsup; ++s) ncolj = std::max(ncolj, f.xsuper[s] - f.xsuper[s - 1]);
  const int *tail = f.lindx + (f.xlindx[jsup] - 1 - L);

  // own: the rows that are the target's columns; m: those up to the reach.
  int own = 0, m = 0;
  if (L == k.len) {
    own = k.ncols;
    m = k.reach - k.first + 1;
  } else {
    while (own < L && tail[own] <= k.last) ++own;
    m = own;
    while (m < L && tail[m] <= k.reach) ++m;
  }
  if (f.xsuper[s0] - 1 > first_schur) {  // unfactored Schur panels update nothing
    count(&UpdateKernelCounts::skipped);
    return own;
  }
  const int *indmap = w.indmap;
  const bool gaps = L != k.len && indmap[tail[0] - 1] - indmap[tail[L - 1] - 1] >= L;
  const bool rank1 = s0 == jsup && ncolj == 1;
  // Entries of temp per applied row: the scaled copy, and on the buffered
  // path the result block's row.
  const std::int64_t per_row = rank1 ? 1 : gaps ? static_cast<std::int64_t>(L) + ncolj : ncolj;
  if (static_cast<std::int64_t>(m) * per_row > w.tmpsiz) {
    m = static_cast<int>(w.tmpsiz / per_row);
    if (m < own) {
      *iflag = -2;
      return own;
    }
    count(&UpdateKernelCounts::cut);
  }
  if (m > own) count(&UpdateKernelCounts::reach);
  if (s0 < jsup) count(&UpdateKernelCounts::pieces);
  if (rank1) {
    count(&UpdateKernelCounts::rank1);
    const Piece<T> p = piece_of(f, jsup, L);
    const T d = p.blk[0];
    for (int c = 0; c < m; ++c) w.temp[c] = d * conj_if<kHermitian>(p.x[c]);
    scatter_rank1<true>(m, L, p.x, w.temp, tail, f.xlnz, indmap, f.lnz);
    return m;
  }
  if (gaps) {
    // Gaps in the target's list: through the buffer, the long runs apart.
    count(&UpdateKernelCounts::buffered);
    BlockRuns runs;
    find_runs(L, m, tail, indmap, f.snode, w.relind, &runs);
    if (runs.nrows > 0 && runs.ncols > 0) count(&UpdateKernelCounts::split);
    buffered_update<T, kHermitian>(f, k, s0, jsup, L, m, first_schur, diagonal_mode, w.relind, runs,
                                   w.temp);
    return m;
  }
  // The tail is the target's list (coinciding) or a contiguous run of it:
  // straight into the panels, piece by piece.
  count(L == k.len ? &UpdateKernelCounts::coinciding : &UpdateKernelCounts::direct);
  for (int s = s0; s <= jsup; ++s) {
    if (f.xsuper[s] - 1 > first_schur) continue;
    const Piece<T> p = piece_of(f, s, L);
    scaled_copy<T, kHermitian>(m, p.ncolj, p.x, p.lenj, p.blk, p.piv, diagonal_mode, w.temp);
    contiguous_update<T, kHermitian>(f, 0, m, L, tail, p.ncolj, p.x, p.lenj, w.temp, m);
  }
  return m;
}

// Diagonal pivoting: the block as a full square, LU with diagonal pivots
// (U = D L^T), then the rows below through the same column exchanges and
// L21 = A21 P U^-1.  Returns the kernel's info.
template <class T, bool kHermitian>
int factor_diagonal_mode(const Target<T> &k, FactorScalars &sc, double *logdet) {
  const int nc = k.ncols;
  const std::int64_t ld = k.len;
  T *a = k.panel;
  for (int j = 0; j < nc; ++j)
    for (int i = j + 1; i < nc; ++i) a[j + i * ld] = conj_if<kHermitian>(a[i + j * ld]);
  int info = 0;
  if (logdet != nullptr) {
    dgetf2_diagpiv_logdet<T, kHermitian>(nc, nc, a, k.len, k.pivot, &info, &sc.perturbed, &sc.npos,
                                         &sc.nneg, sc.eps, logdet);
  } else {
    dgetf2_diagpiv<T, kHermitian>(nc, nc, a, k.len, k.pivot, &info, &sc.perturbed, &sc.npos,
                                  &sc.nneg, sc.eps);
  }
  const int below = k.len - nc;
  if (info != 0 || below == 0) return info;
  for (int j = 0; j + 1 < nc; ++j) {
    const int p = std::abs(k.pivot[j]) - 1;
    if (p != j) blas::swap<T>(below, a + nc + j * ld, 1, a + nc + p * ld, 1);
  }
  blas::trsm<T>('R', 'U', 'N', 'N', below, nc, T(1), a, k.len, a + nc, k.len);
  return 0;
}

// Bunch-Kaufman: dsytf2_pert on the lower triangle, then the rows below
// through temp: L21 = A21 P L^-T D^-1 by dsytrs_half_rows (level 3; the
// strict upper triangle of the block, unused by this layout, receives the
// transposed unit factor).  Returns 0, the kernels' info, or -2 when temp
// is too small for the rows below.
template <class T, bool kHermitian>
int factor_bunch_kaufman(const Target<T> &k, FactorScalars &sc, double *logdet, T *temp,
                         std::int64_t tmpsiz, int *iwork) {
  const int nc = k.ncols;
  T *a = k.panel;
  int info = 0;
  if (logdet != nullptr) {
    dsytf2_pert_logdet<T, kHermitian>('L', nc, a, k.len, k.pivot, &info, &sc.perturbed, &sc.npos,
                                      &sc.nneg, sc.eps, logdet);
  } else {
    dsytf2_pert<T, kHermitian>('L', nc, a, k.len, k.pivot, &info, &sc.perturbed, &sc.npos, &sc.nneg,
                               sc.eps);
  }
  const int below = k.len - nc;
  if (info != 0 || below == 0) return info;
  if (static_cast<std::int64_t>(nc) * below > tmpsiz) return -2;
  dsytrs_half_rows<T, kHermitian>(nc, below, a, k.len, k.pivot, a + nc, k.len, temp, below, iwork,
                                  &info);
  return info;
}

template <class T, bool kHermitian>
std::int64_t ldl_loop(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                      FactorScalars &sc) {
  const int first_schur = f.n - f.nschur;
  const bool diagonal_mode = (sc.pivot_mode & 1) != 0;
  double *logdet = sc.determinant == 1 ? sc.logdet : nullptr;
  auto make = [&](int ksup) {
    Target<T> k;
    k.first = f.xsuper[ksup - 1];
    k.last = f.xsuper[ksup] - 1;
    k.ncols = k.last - k.first + 1;
    k.len = static_cast<int>(f.xlnz[k.first] - f.xlnz[k.first - 1]);
    k.panel = f.lnz + (f.xlnz[k.first - 1] - 1);
    k.pivot = f.pivot + (k.first - 1);
    k.reach = reach_of(f, ksup);
    return k;
  };
  auto update = [&](const Target<T> &k, int jsup, int L) {
    return apply_update<T, kHermitian>(f, k, jsup, L, first_schur, diagonal_mode, work, &sc.iflag);
  };
  auto factor = [&](const Target<T> &k) {
    const int status = diagonal_mode ? factor_diagonal_mode<T, kHermitian>(k, sc, logdet)
                                     : factor_bunch_kaufman<T, kHermitian>(
                                           k, sc, logdet, work.temp, work.tmpsiz, work.relind);
    return status == 0 ? 0 : status == -2 ? -2 : -1;
  };
  left_looking(f, in, work, sc, kHermitian, true, logdet, make, update, factor);

  // The products write temp over whatever it held; it is left zero for
  // the next user.
  parallel_fill(work.temp, work.tmpsiz, T(0));

  const std::int64_t schur = symmetric_schur_entries(f);
  sc.schur_nnz = schur;
  return schur;
}

}  // namespace

void set_ldl_update_kernel_counts(UpdateKernelCounts *counts) {
  g_ldl_counts = counts;
}

template <class T>
std::int64_t BLKLDL_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                                FactorScalars &sc) {
  return ldl_loop<T, false>(f, in, work, sc);
}

template <class T>
std::int64_t BLKLDL_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                                 FactorScalars &sc) {
  return BLKLDL_SEQ_VELMORA(f, in, work, sc);
}

template <class T>
std::int64_t CH_BLKLDL_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                   FactorWork<T> &work, FactorScalars &sc) {
  static_assert(scalar_traits<T>::is_complex, "the Hermitian member takes a complex type");
  return ldl_loop<T, true>(f, in, work, sc);
}

template <class T>
std::int64_t CH_BLKLDL_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                    FactorWork<T> &work, FactorScalars &sc) {
  return CH_BLKLDL_SEQ_VELMORA(f, in, work, sc);
}

#define VELMORA_LDL_MEMBER(NAME, T)                                                          \
  template std::int64_t NAME<T>(const FactorView<T> &, const MatrixInput &, FactorWork<T> &, \
                                FactorScalars &);

// Real symmetric (double), complex symmetric (zcomplex, no conjugation) and
// complex Hermitian.
VELMORA_LDL_MEMBER(BLKLDL_SEQ_VELMORA, double)
VELMORA_LDL_MEMBER(BLKLDL_RISC_VELMORA, double)
VELMORA_LDL_MEMBER(BLKLDL_SEQ_VELMORA, zcomplex)
VELMORA_LDL_MEMBER(BLKLDL_RISC_VELMORA, zcomplex)
VELMORA_LDL_MEMBER(CH_BLKLDL_SEQ_VELMORA, zcomplex)
VELMORA_LDL_MEMBER(CH_BLKLDL_RISC_VELMORA, zcomplex)

#undef VELMORA_LDL_MEMBER

}  // namespace vm
