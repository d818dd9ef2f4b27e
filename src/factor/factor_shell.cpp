// factor_shell.cpp - the shell of the numeric factorization and its two
// dispatchers (see factor_shell.h).
#include "factor/factor_shell.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "analysis/symbolic.h"
#include "common/matrix_type.h"
#include "factor/blkl.h"
#include "factor/blkldl.h"
#include "factor/blkldl_mpp.h"
#include "factor/blklu.h"
#include "factor/scalar_traits.h"

namespace vm {

namespace {

// The storage of a view or work record, typed for a member.
template <class T>
FactorView<T> typed(const FactorView<void> &v) {
  return numeric_factor<T>(v, static_cast<T *>(v.lnz), static_cast<T *>(v.unz), v.pivot,
                           v.pivot_col);
}

template <class T>
FactorWork<T> typed(const FactorWork<void> &w) {
  FactorWork<T> t;
  t.nthreads = w.nthreads;
  t.indmap = w.indmap;
  t.relind = w.relind;
  t.link = w.link;
  t.length = w.length;
  t.temp = static_cast<T *>(w.temp);
  t.tmpsiz = w.tmpsiz;
  t.nmod = w.nmod;
  t.ndom = w.ndom;
  t.domains = w.domains;
  t.top = w.top;
  t.queues = w.queues;
  t.fixed_order = w.fixed_order;
  t.node_lists = w.node_lists;
  return t;
}

// Bytes and count of one factor entry in units of the debug hook: complex
// entries are dumped as pairs of doubles, single-precision ones as floats.
void dump_factor(const char *label, const void *values, std::int64_t entries,
                 const FactorOptions &opt) {
  const int m = opt.mtype;
  if (is_complex_type(m)) {
    debug_dump_array(label, values, 2 * entries, 8);
  } else if (opt.single_precision != 0 && (m == 1 || m == -2 || m == 11)) {
    debug_dump_array(label, values, entries, 4);
  } else {
    debug_dump_array(label, values, entries, 8);
  }
}

void dump_symbolic(const FactorView<void> &f, bool with_u) {
  const std::int64_t ns = f.nsuper;
  const std::int64_t n = f.n;
  debug_dump_array("xsuper before numerical factorization", f.xsuper, ns + 1, 4);
  debug_dump_array("snode before numerical factorization", f.snode, n, 4);
  debug_dump_array("xlindx before numerical factorization", f.xlindx, ns + 1, 8);
  debug_dump_array("lindx before numerical factorization", f.lindx, f.xlindx[ns] - 1, 4);
  debug_dump_array("xlnz before numerical factorization", f.xlnz, n + 1, 8);
  if (with_u && f.xunz != nullptr) {
    debug_dump_array("xunz before numerical factorization", f.xunz, n + 1, 8);
  }
}

// Runs an LU member on factor storage of element type T and, with
// determinant 1, adds the pivots' share of log|det| to *sc.logdet.
// general: the members for unsymmetric patterns (complete pivoting in the
// block); seq: the sequential member rather than the parallel entry.
template <class T>
void run_lu_member(bool general, bool seq, const FactorView<void> &f, const MatrixInput &in,
                   FactorWork<void> &work, FactorScalars *sc) {
  FactorWork<T> w = typed<T>(work);
  const FactorView<T> v = typed<T>(f);
  if (!general) {
    if (seq) {
      BLKLU_SEQ_VELMORA<T>(v, in, w, *sc);
    } else {
      BLKLU_RISC_VELMORA<T>(v, in, w, *sc);
    }
  } else if (seq) {
    BLKLU_UNSYM_SEQ_VELMORA<T>(v, in, w, *sc);
  } else {
    BLKLU_UNSYM_RISC_VELMORA<T>(v, in, w, *sc);
  }
  if (sc->iflag == 0 && sc->determinant == 1) {
    *sc->logdet += lu_log_determinant(v);
    if constexpr (scalar_traits<T>::is_complex) {
      if (sc->logdet_im != nullptr) *sc->logdet_im += lu_log_determinant_arg(v, general);
    }
  }
}

// The members of the LDL^T family on factor storage of element type T:
// The Cholesky member, sequential or the parallel entry (which clears the
// update tails of its scheme when the schedule has one subtree or
// two_level_fact is 0).
template <class T>
void run_cholesky_member(bool seq, const FactorView<void> &f, const MatrixInput &in,
                         FactorWork<void> &work, FactorScalars *sc) {
  FactorWork<T> w = typed<T>(work);
  if (seq) {
    BLKL_SEQ_VELMORA<T>(typed<T>(f), in, w, *sc);
  } else {
    BLKL_RISC_VELMORA<T>(typed<T>(f), in, w, *sc);
  }
}

// kHermitian selects the CH_ members (complex T only).
template <class T, bool kHermitian>
void run_ldl_member(bool seq, const FactorView<void> &f, const MatrixInput &in,
                    FactorWork<void> &work, FactorScalars *sc) {
  FactorWork<T> w = typed<T>(work);
  const FactorView<T> v = typed<T>(f);
  // The fixed-order member runs on whatever team the record has, one
  // thread included, so that every team gives the same bits.
  if constexpr (kHermitian) {
    if (w.fixed_order) {
      CH_BLKLDL_EXACT_VELMORA<T>(v, in, w, *sc);
    } else if (seq) {
      CH_BLKLDL_SEQ_VELMORA<T>(v, in, w, *sc);
    } else {
      CH_BLKLDL_RISC_VELMORA<T>(v, in, w, *sc);
    }
  } else if (w.fixed_order) {
    BLKLDL_EXACT_VELMORA<T>(v, in, w, *sc);
  } else if (seq) {
    BLKLDL_SEQ_VELMORA<T>(v, in, w, *sc);
  } else {
    BLKLDL_RISC_VELMORA<T>(v, in, w, *sc);
  }
}

// The block-partitioned entry (real LDL^T, blkldl_mpp.h).
void run_mpp_member(const FactorView<void> &f, const MatrixInput &in, FactorWork<void> &work,
                    FactorScalars *sc) {
  FactorWork<double> w = typed<double>(work);
  BLKLDL_MPP_ENTRY_VELMORA<double>(typed<double>(f), in, w, *sc);
}

// Runs a member of the symmetric table.  Members this build does not have
// set kFactorNotAvailable.
void run_member(FactorMember member, const FactorView<void> &f, const MatrixInput &in,
                FactorWork<void> &work, FactorScalars *sc) {
  switch (member) {
    case FactorMember::kNone:
      return;
    case FactorMember::kBlklSeq:
    case FactorMember::kBlklRisc:
      run_cholesky_member<double>(member == FactorMember::kBlklSeq, f, in, work, sc);
      return;
    case FactorMember::kBlkldlSeq:
    case FactorMember::kBlkldlRisc:
      run_ldl_member<double, false>(member == FactorMember::kBlkldlSeq, f, in, work, sc);
      return;
    case FactorMember::kBlkldlMppEntry:
      run_mpp_member(f, in, work, sc);
      return;
    case FactorMember::kBlkluSeq:
    case FactorMember::kBlkluRisc:
      run_lu_member<double>(false, member == FactorMember::kBlkluSeq, f, in, work, sc);
      return;
    case FactorMember::kBlkluUnsymSeq:
    case FactorMember::kBlkluUnsymRisc:
      run_lu_member<double>(true, member == FactorMember::kBlkluUnsymSeq, f, in, work, sc);
      return;
    // The single-precision members: the same sources on floats, eps
    // still a double.
    case FactorMember::kBlkldl32Seq:
    case FactorMember::kBlkldl32Risc:
      run_ldl_member<float, false>(member == FactorMember::kBlkldl32Seq, f, in, work, sc);
      return;
    case FactorMember::kBlklu32Seq:
    case FactorMember::kBlklu32Risc:
      run_lu_member<float>(false, member == FactorMember::kBlklu32Seq, f, in, work, sc);
      return;
    case FactorMember::kBlklu32UnsymSeq:
    case FactorMember::kBlklu32UnsymRisc:
      run_lu_member<float>(true, member == FactorMember::kBlklu32UnsymSeq, f, in, work, sc);
      return;
    // The complex members: one source per family, on pairs of doubles.
    case FactorMember::kChBlklSeq:
    case FactorMember::kChBlklRisc:
      run_cholesky_member<zcomplex>(member == FactorMember::kChBlklSeq, f, in, work, sc);
      return;
    case FactorMember::kChBlkldlSeq:
    case FactorMember::kChBlkldlRisc:
      run_ldl_member<zcomplex, true>(member == FactorMember::kChBlkldlSeq, f, in, work, sc);
      return;
    case FactorMember::kCBlkldlSeq:
    case FactorMember::kCBlkldlRisc:
      run_ldl_member<zcomplex, false>(member == FactorMember::kCBlkldlSeq, f, in, work, sc);
      return;
    case FactorMember::kCBlkluSeq:
    case FactorMember::kCBlkluRisc:
      run_lu_member<zcomplex>(false, member == FactorMember::kCBlkluSeq, f, in, work, sc);
      return;
    case FactorMember::kCBlkluUnsymSeq:
    case FactorMember::kCBlkluUnsymRisc:
      run_lu_member<zcomplex>(true, member == FactorMember::kCBlkluUnsymSeq, f, in, work, sc);
      return;
    default:
      sc->iflag = kFactorNotAvailable;
      return;
  }
}

}  // namespace

FactorMember select_factor_member(const FactorOptions &opt) {
  using M = FactorMember;
  const int mode = opt.schur_size > 0 ? 1 : opt.sequential;
  if (mode != 0 && mode != 1) return M::kNone;
  const bool seq = mode == 1;
  const bool single = opt.single_precision != 0;
  switch (opt.mtype) {
    case 2:
      return seq ? M::kBlklSeq : M::kBlklRisc;
    case -2:
      if (single) return seq ? M::kBlkldl32Seq : M::kBlkldl32Risc;
      if (seq) return M::kBlkldlSeq;
      return opt.distributed != 0 ? M::kBlkldlMppEntry : M::kBlkldlRisc;
    case 4:
      return seq ? M::kChBlklSeq : M::kChBlklRisc;
    case -4:
      return seq ? M::kChBlkldlSeq : M::kChBlkldlRisc;
    case 6:
      return seq ? M::kCBlkldlSeq : M::kCBlkldlRisc;
    case 1:
      if (single) return seq ? M::kBlklu32Seq : M::kBlklu32Risc;
      return seq ? M::kBlkluSeq : M::kBlkluRisc;
    case 3:
      return seq ? M::kCBlkluSeq : M::kCBlkluRisc;
    case 11:
      if (single) return seq ? M::kBlklu32UnsymSeq : M::kBlklu32UnsymRisc;
      return seq ? M::kBlkluUnsymSeq : M::kBlkluUnsymRisc;
    case 13:
      return seq ? M::kCBlkluUnsymSeq : M::kCBlkluUnsymRisc;
    default:
      return M::kNone;
  }
}

const char *factor_member_name(FactorMember member) {
  // in the order of FactorMember
  static const char *const kNames[] = {"",
                                       "BLKL_SEQ_VELMORA",
                                       "BLKL_RISC_VELMORA",
                                       "BLKLDL_SEQ_VELMORA",
                                       "BLKLDL_RISC_VELMORA",
                                       "BLKLDL_MPP_ENTRY_VELMORA",
                                       "BLKLDL_32_SEQ_VELMORA",
                                       "BLKLDL_32_RISC_VELMORA",
                                       "CH_BLKL_SEQ_VELMORA",
                                       "CH_BLKL_RISC_VELMORA",
                                       "CH_BLKLDL_SEQ_VELMORA",
                                       "CH_BLKLDL_RISC_VELMORA",
                                       "C_BLKLDL_SEQ_VELMORA",
                                       "C_BLKLDL_RISC_VELMORA",
                                       "BLKLU_SEQ_VELMORA",
                                       "BLKLU_RISC_VELMORA",
                                       "BLKLU_32_SEQ_VELMORA",
                                       "BLKLU_32_RISC_VELMORA",
                                       "C_BLKLU_SEQ_VELMORA",
                                       "C_BLKLU_RISC_VELMORA",
                                       "BLKLU_UNSYM_SEQ_VELMORA",
                                       "BLKLU_UNSYM_RISC_VELMORA",
                                       "BLKLU_32_UNSYM_SEQ_VELMORA",
                                       "BLKLU_32_UNSYM_RISC_VELMORA",
                                       "C_BLKLU_UNSYM_SEQ_VELMORA",
                                       "C_BLKLU_UNSYM_RISC_VELMORA"};
  static_assert(
      sizeof(kNames) / sizeof(kNames[0]) == static_cast<int>(FactorMember::kCBlkluUnsymRisc) + 1,
      "one name per member");
  const int k = static_cast<int>(member);
  return k >= 0 && k <= static_cast<int>(FactorMember::kCBlkluUnsymRisc) ? kNames[k] : "";
}

double pivot_threshold(int eps_exponent) {
  if (eps_exponent == 0) return 0.0;
  const double e = std::fabs(static_cast<double>(eps_exponent));
  return std::exp(e * -2.302585092994046);
}

double fit_threshold(double eps, int n, const int *ia, const double *a) {
  double amax = 0.0;
  if (n >= 1) {
    // Only the first row's entries after its first reach the scan: the
    // bound is the end of row 1 for every row.
    const int bound = ia[1] - 1;
    for (int i = 1; i <= n; ++i) {
      for (int k = ia[i - 1] + 1; k <= bound; ++k) amax = std::max(amax, std::fabs(a[k - 1]));
    }
  }
  if (amax == 0.0) amax = 1.0;
  return amax >= 1.0 ? eps / std::sqrt(amax) : eps * std::sqrt(amax);
}

int NUMFCT_SYM_VELMORA(const FactorOptions &opt, const FactorView<void> &f, const MatrixInput &in,
                       FactorWork<void> &work, FactorScalars *sc) {
  sc->eps = pivot_threshold(opt.eps_exponent);
  const int m = opt.mtype;
  if (sc->eps != 0.0 && is_sym_indefinite_group(m)) {
    sc->eps = fit_threshold(sc->eps, f.n, in.ia, in.a);
  }
  sc->pivot_mode = opt.unit_pivots == 1 ? kUnitPivots : opt.iparm21 == 0 ? -1 : 0;
  sc->determinant = opt.determinant;

  dump_symbolic(f, false);
  run_member(select_factor_member(opt), f, in, work, sc);
  dump_factor("lnz after numerical factorization", f.lnz, f.xlnz[f.n] - 1, opt);
  return sc->iflag;
}

int NUMFCT_UNSYM_VELMORA(const FactorOptions &opt, const FactorView<void> &f, const MatrixInput &in,
                         FactorWork<void> &work, FactorScalars *sc) {
  sc->eps = pivot_threshold(opt.eps_exponent);
  sc->pivot_mode = opt.iparm21 == 0 ? -1 : 0;
  sc->determinant = opt.determinant;

  dump_symbolic(f, true);
  // With determinant 1 the LU members' runner adds log|u_jj| of U's
  // diagonal to *sc.logdet; the complex members also add the arguments of
  // the u_jj, with pi for each exchanged row or column, to *sc.logdet_im.
  run_member(select_factor_member(opt), f, in, work, sc);
  dump_factor("lnz after numerical factorization", f.lnz, f.xlnz[f.n] - 1, opt);
  if (f.xunz != nullptr) {
    dump_factor("unz after numerical factorization", f.unz, f.xunz[f.n] - 1, opt);
  }
  return sc->iflag;
}

int FACTOR_SHELL_VELMORA(const FactorOptions &opt, const FactorView<void> &f, const MatrixInput &in,
                         FactorWork<void> &work, FactorTimes *times, FactorScalars *out) {
  const int n = f.n;
  debug_dump_array("luperm bef. scatter A", in.perm, n, 4);
  const std::int64_t nnz = n > 0 ? in.ia[n] - 1 : 0;
  debug_dump_array("A bef. scatter A", in.a, is_complex_type(opt.mtype) ? 2 * nnz : nnz, 8);

  const double t0 = omp_get_wtime();
  times->a_to_lu = t0 - opt.phase_start;

  *out = FactorScalars{};
  out->logdet = &times->logdet;
  out->logdet_im = &times->logdet_im;
  if (opt.symmetric_pattern == 1) {
    NUMFCT_SYM_VELMORA(opt, f, in, work, out);
  } else {
    NUMFCT_UNSYM_VELMORA(opt, f, in, work, out);
  }
  if (out->iflag != 0) return out->iflag;

  // The order the caller sees for a symmetric indefinite matrix: the
  // fill-reducing order with the exchanges inside each diagonal block.
  if (opt.perm_mode == 1 && opt.mtype == -2 && opt.perm_out != nullptr) {
    int *p = opt.perm_out;
#pragma omp parallel for schedule(static) if (n >= 65536)
    for (int i = 0; i < n; ++i) p[i] = in.perm[i];
    for (int s = 1; s <= f.nsuper; ++s) {
      const int first = f.xsuper[s - 1];
      const int ncols = f.xsuper[s] - first;
      for (int j = 1; j <= ncols - 1; ++j) {
        const int q = std::abs(f.pivot[first + j - 2]);
        if (q != j && q >= 1 && q <= ncols) std::swap(p[first + j - 2], p[first + q - 2]);
      }
    }
  }

  times->numfct = omp_get_wtime() - t0;
  return 0;
}

}  // namespace vm
