// refine.cpp - REFINE_VELMORA: first solve, then iterative refinement.
#include "solve/refine.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "common/matrix_type.h"
#include "solve/amuxy.h"
#include "solve/convert.h"
#include "solve/vector_region.h"

namespace vm {

namespace {

// Sum of |v| over len doubles: two accumulators over pairs, after one
// leading value that brings the pairs to 16-byte alignment.  When copy is
// not null, v is copied to it in the same pass.
double abs_sum(const double *v, std::int64_t len, double *copy) {
  double s0 = 0.0, s1 = 0.0;
  std::int64_t k = 0;
  if (len > 0 && reinterpret_cast<std::uintptr_t>(v) % 16 != 0) {
    s0 = std::fabs(v[0]);
    if (copy) copy[0] = v[0];
    k = 1;
  }
  for (; k + 1 < len; k += 2) {
    s0 += std::fabs(v[k]);
    s1 += std::fabs(v[k + 1]);
    if (copy) {
      copy[k] = v[k];
      copy[k + 1] = v[k + 1];
    }
  }
  if (k < len) {
    s0 += std::fabs(v[k]);
    if (copy) copy[k] = v[k];
  }
  return s0 + s1;
}

// r := b - r over len doubles; returns sum |r|, summed as abs_sum does.
double residual_sum(const double *b, double *r, std::int64_t len) {
  double s0 = 0.0, s1 = 0.0;
  std::int64_t k = 0;
  if (len > 0 && reinterpret_cast<std::uintptr_t>(r) % 16 != 0) {
    r[0] = b[0] - r[0];
    s0 = std::fabs(r[0]);
    k = 1;
  }
  for (; k + 1 < len; k += 2) {
    r[k] = b[k] - r[k];
    r[k + 1] = b[k + 1] - r[k + 1];
    s0 += std::fabs(r[k]);
    s1 += std::fabs(r[k + 1]);
  }
  if (k < len) {
    r[k] = b[k] - r[k];
    s0 += std::fabs(r[k]);
  }
  return s0 + s1;
}

// The text of f3.0 for a step number: " 1.", "12.", "***" above 99.
void edit_f3_0(int it, char *out, std::size_t size) {
  if (it >= 0 && it <= 99) {
    std::snprintf(out, size, "%2d.", it);
  } else {
    std::snprintf(out, size, "***");
  }
}

void print_pair(const char *head, int it, const char *label, double u, double v) {
  char f[8], e1[32], e2[32];
  edit_f3_0(it, f, sizeof f);
  edit_e12_3(u, e1, sizeof e1);
  edit_e12_3(v, e2, sizeof e2);
  std::printf("%s%s%s%s%s\n", head, f, label, e1, e2);
  std::fflush(stdout);
}

// The report of one step; returns the second number of its last line.
double report_step(const RefineSettings &s, int it, const RefineResult &r) {
  if (r.sumrhs == 0.0 || r.sumx == 0.0) {
    if (s.msglvl > 0) {
      print_pair("[VELMORA] ref_it:", it, " sumdx,sumx", r.sumdx, r.sumx);
      print_pair(" ref_it:", it, " sumres,sumrhs", r.sumres, r.sumrhs);
    }
    return r.sumrhs;
  }
  const double relres = r.sumres / r.sumrhs, relerr = r.sumdx / r.sumx;
  if (s.msglvl > 0) {
    char f[8], e1[32], e2[32];
    edit_f3_0(it, f, sizeof f);
    edit_e12_3(relres, e1, sizeof e1);
    edit_e12_3(relerr, e2, sizeof e2);
    std::printf("[VELMORA] ref_it:%s rel res%s rel err%s\n", f, e1, e2);
    std::fflush(stdout);
  }
  return relerr;
}

bool extended_path(const RefineSettings &s) {
  return s.max_steps < 0;
}

// Doubles per value: the complex types 3, 4, -4, 6, 13 take two.
int cwidth(const RefineSettings &s) {
  const int t = s.mtype;
  return is_complex_type(t) ? 2 : 1;
}

std::int64_t fixed_doubles(const RefineSettings &s) {
  const std::int64_t len = std::int64_t{cwidth(s)} * s.n * s.nrhs;
  if (extended_path(s)) return 3 * len;
  return s.to_b == 1 ? 2 * len : len;
}

// Largest team of the product, at most p, whose work fits `room` doubles.
int product_team(const RefineSettings &s, std::int64_t room) {
  // No more than the call's team: a small solve narrows it to one thread.
  const int p = std::clamp(omp_get_max_threads(), 1, std::max(1, s.nthreads)), c = cwidth(s);
  for (int t = p; t > 1; --t) {
    const std::int64_t need = extended_path(s)
                                  ? amuxy_res_work_doubles(s.transposed, s.n, s.nrhs, s.mtype, t, c)
                                  : c * amuxy_work_size(s.transposed, s.n, s.nrhs, s.mtype, t);
    if (need <= room) return t;
  }
  return 1;
}

}  // namespace

// The text of the edit descriptor e12.3: "   0.123E+01", the exponent
// without its letter when it needs three digits.
void edit_e12_3(double v, char *out, std::size_t size) {
  char body[24];
  if (std::isnan(v)) {
    std::snprintf(body, sizeof body, "NaN");
  } else if (std::isinf(v)) {
    std::snprintf(body, sizeof body, "%s", v < 0 ? "-Infinity" : "Infinity");
  } else {
    const char *sign = std::signbit(v) ? "-" : "";
    if (v == 0.0) {
      std::snprintf(body, sizeof body, "%s0.000E+00", sign);
    } else {
      char m[24];  // d.dde+xx: the same three significant digits, rounded once
      std::snprintf(m, sizeof m, "%.2e", std::fabs(v));
      const int e = std::atoi(m + 5) + 1;
      const int ae = std::abs(e);
      if (ae <= 99) {
        std::snprintf(body, sizeof body, "%s0.%c%c%cE%c%02d", sign, m[0], m[2], m[3],
                      e < 0 ? '-' : '+', ae);
      } else {
        std::snprintf(body, sizeof body, "%s0.%c%c%c%c%03d", sign, m[0], m[2], m[3],
                      e < 0 ? '-' : '+', ae);
      }
    }
  }
  std::snprintf(out, size, "%12s", body);
}

RefineSettings refine_settings(const int *iparm, int n, int nrhs, int mtype, int transposed,
                               int perturbed, int nthreads, int msglvl) {
  RefineSettings s;
  s.n = n;
  s.nrhs = nrhs;
  s.mtype = mtype;
  s.transposed = mtype % 2 == 0 ? 0 : transposed;
  s.to_b = iparm[5] == 1 ? 1 : 0;
  s.max_steps = iparm[7];
  s.perturbed = perturbed;
  s.selector = iparm[25];
  s.sparse_rhs = iparm[30];
  s.identical = iparm[33];
  s.schur = iparm[37];
  s.nthreads = std::max(1, nthreads);
  s.msglvl = msglvl;
  return s;
}

bool refine_enabled(const RefineSettings &s) {
  if (s.selector != 0 || s.sparse_rhs != 0 || s.identical != 0 || s.schur != 0) return false;
  return s.max_steps != 0 || s.perturbed > 0;
}

std::int64_t refine_work_min_doubles(const RefineSettings &s) {
  if (!refine_enabled(s) || s.n < 1 || s.nrhs < 1) return 0;
  if (!extended_path(s)) return fixed_doubles(s);
  return fixed_doubles(s) +
         amuxy_res_work_doubles(s.transposed, s.n, s.nrhs, s.mtype, 1, cwidth(s));
}

std::int64_t refine_work_doubles(const RefineSettings &s) {
  if (!refine_enabled(s) || s.n < 1 || s.nrhs < 1) return 0;
  const int p = std::max(1, s.nthreads), c = cwidth(s);
  if (extended_path(s))
    return fixed_doubles(s) + amuxy_res_work_doubles(s.transposed, s.n, s.nrhs, s.mtype, p, c);
  return fixed_doubles(s) + c * amuxy_work_size(s.transposed, s.n, s.nrhs, s.mtype, p);
}

template <class T>
RefineResult REFINE_VELMORA(const RefineSettings &s, const RefineMatrix<T> &m, T *b, T *x,
                            double *work, std::int64_t work_len, SolveRef<T> solve) {
  RefineResult res;
  T *sol = s.to_b == 1 ? b : x;
  if (!refine_enabled(s) || s.n < 1 || s.nrhs < 1) {
    res.error = solve(b, sol);
    return res;
  }
  if (work == nullptr || work_len < refine_work_min_doubles(s)) {
    res.error = kRefineWorkTooSmall;
    return res;
  }

  constexpr int c = scalar_traits<T>::doubles;
  const bool extended = extended_path(s);
  const std::int64_t len = std::int64_t{c} * s.n * s.nrhs;
  double *bd = reinterpret_cast<double *>(b);
  double *sold = reinterpret_cast<double *>(sol);
  double *rd = work;  // residual, then correction
  T *r = reinterpret_cast<T *>(work);
  double *saved = s.to_b == 1 ? work + (extended ? 0 : len) : nullptr;
  double *x16 = extended ? work + len : nullptr;
  double *rest = work + fixed_doubles(s);
  const std::int64_t room = work_len - fixed_doubles(s);
  const int par[2] = {product_team(s, room), 0};
  const int limit = s.max_steps == INT_MIN ? INT_MAX : std::abs(s.max_steps);

  res.sumrhs = abs_sum(bd, len, saved);
  res.error = solve(b, sol);
  if (res.error != 0) return res;
  res.sumx = abs_sum(sold, len, nullptr);
  const double *rhs = saved != nullptr && !extended ? saved : bd;
  double prevres = res.sumrhs;

  int it = 1;
  for (;; ++it) {
    if (!extended) {
      AMUXY_VELMORA<T>(&s.transposed, &s.n, &s.nrhs, &s.mtype, par, m.ia, m.ja, m.a, sol, r,
                       reinterpret_cast<T *>(rest));
      res.sumres = residual_sum(rhs, rd, len);
      res.error = solve(r, r);
      if (res.error != 0) break;
      for_each_range(len, [=](std::int64_t lo, std::int64_t hi) {
        for (std::int64_t k = lo; k < hi; ++k) sold[k] += rd[k];
      });
      res.sumdx = abs_sum(rd, len, nullptr);
    } else {
      if (it == 1) {
        if constexpr (c == 2) {
          C_CONV16_32(&s.n, &s.nrhs, sold, x16);
        } else {
          CONV8_16(&s.n, &s.nrhs, sold, x16);
        }
        if (saved != nullptr) parallel_copy(len, saved, bd);  // b is the right-hand side again
      }
      AMUXY_RES_VELMORA<T>(&s.transposed, &s.n, &s.nrhs, &s.mtype, par, m.ia, m.ja, m.a, x16, b, r,
                           &res.sumres, rest);
      res.error = solve(r, r);
      if (res.error != 0) break;
      res.sumdx = 0.0;
      if constexpr (c == 2) {
        C_SUM16_32(&s.n, &s.nrhs, rd, x16, &res.sumdx);
      } else {
        SUM8_16(&s.n, &s.nrhs, rd, x16, &res.sumdx);
      }
    }

    double tested = report_step(s, it, res);
    if (it == 2 && s.max_steps == 0) {
      res.iparm20 = kRefineStoppedAtTwo;
      break;
    }
    if (it == 1 && res.sumres > res.sumrhs) {
      if (s.msglvl > 0)
        print_pair("*** warning ref_it:", it, " sumres,sumrhs", res.sumres, res.sumrhs);
      prevres = 2.0 * res.sumres;
      tested = res.sumrhs;
    }
    if (it == limit) break;
    if (0.9 * prevres > res.sumres) {
      prevres = res.sumres;
      continue;
    }
    if (it >= 4 || it >= limit) {
      if (std::fabs(tested) > 0.5) res.error = kRefineNoContraction;
      break;
    }
  }
  res.steps = it;

  if (extended) {
    if constexpr (c == 2) {
      C_CONV32_16(&s.n, &s.nrhs, x16, sold);
    } else {
      CONV16_8(&s.n, &s.nrhs, x16, sold);
    }
  }
  return res;
}

template RefineResult REFINE_VELMORA<double>(const RefineSettings &, const RefineMatrix<double> &,
                                             double *, double *, double *, std::int64_t,
                                             SolveRef<double>);
template RefineResult REFINE_VELMORA<zcomplex>(const RefineSettings &,
                                               const RefineMatrix<zcomplex> &, zcomplex *,
                                               zcomplex *, double *, std::int64_t,
                                               SolveRef<zcomplex>);

}  // namespace vm
