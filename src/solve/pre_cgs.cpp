// pre_cgs.cpp - PRE_CGS_VELMORA: CGS and CG preconditioned by the stored
// factor.
#include "solve/pre_cgs.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "solve/amuxy.h"
#include "solve/vector_region.h"

namespace vm {

namespace {

double conj_of(double v) {
  return v;
}
zcomplex conj_of(const zcomplex &v) {
  return std::conj(v);
}
double real_of(double v) {
  return v;
}
double real_of(const zcomplex &v) {
  return v.real();
}

// <u, v> over one column of n.
template <class T>
T dot(const T *u, const T *v, int n) {
  T s(0);
  for (int i = 0; i < n; ++i) s += conj_of(u[i]) * v[i];
  return s;
}

// The text of f4.0 for a count: "  1.", " 12.", "****" above 999.
void edit_f4_0(int it, char *out, std::size_t size) {
  if (it >= 0 && it <= 999)
    std::snprintf(out, size, "%3d.", it);
  else
    std::snprintf(out, size, "****");
}

void print_step(const char *head, int it, double res) {
  char f[8], e[32];
  edit_f4_0(it, f, sizeof f);
  edit_e12_3(res, e, sizeof e);
  std::printf("%s%s%s\n", head, f, e);
  std::fflush(stdout);
}

// The iteration's vectors and scalars, carved from the work array.
template <class T>
struct Vectors {
  T *r, *r0, *u, *p, *q, *v, *w;
  double *norm0;  // |r(x = 0)|^2 per right-hand side
  T *rho;         // per right-hand side
  T *acc;         // accumulators of the product
};

template <class T>
class Iteration {
 public:
  Iteration(const HybridSettings &s, const RefineMatrix<T> &m, SolveRef<T> solve, Vectors<T> v)
      : s_(s), m_(m), solve_(solve), v_(v), len_(std::int64_t{s.n} * s.nrhs) {
    par_[0] = std::clamp(omp_get_max_threads(), 1, std::max(1, s.nthreads));
    par_[1] = 0;
  }

  // y := A x.
  void product(const T *x, T *y) const {
    AMUXY_VELMORA<T>(&s_.transposed, &s_.n, &s_.nrhs, &s_.mtype, par_, m_.ia, m_.ja, m_.a, x, y,
                     v_.acc);
  }
  // y := M^-1 y, in place.
  int precondition(T *y) const { return solve_(y, y); }
  // res of the vector r against norm0.
  double measure(const T *r) const {
    double worst = 0.0;
    for (int c = 0; c < s_.nrhs; ++c) {
      const T *rc = r + std::int64_t{s_.n} * c;
      const double rr = real_of(dot(rc, rc, s_.n));
      const double q = v_.norm0[c] > 0.0 ? rr / v_.norm0[c] : (rr > 0.0 ? INFINITY : 0.0);
      if (!(q <= worst)) worst = q;  // NaN stays
    }
    return std::sqrt(worst);
  }
  // Tests 2 to 5 of a step; 0 to go on.
  int verdict(int count, double res, double *best, bool cg) const {
    if (!(res <= s_.div)) return -1;
    *best = std::min(*best, res);
    const bool at_check = cg ? count >= s_.check : count == s_.check;
    if (at_check && *best > std::sqrt(s_.tol)) return -2;
    if (count >= s_.budget) return -3;
    return 0;
  }
  // y := b - A x, column by column.
  void residual(const T *b, const T *x, T *y) const {
    product(x, y);
    for_each_range(len_, [=](std::int64_t lo, std::int64_t hi) {
      for (std::int64_t k = lo; k < hi; ++k) y[k] = b[k] - y[k];
    });
  }

  const HybridSettings &s_;
  const RefineMatrix<T> &m_;
  SolveRef<T> solve_;
  Vectors<T> v_;
  std::int64_t len_;
  int par_[2];
};

template <class T>
HybridResult run_cg(const Iteration<T> &it, const T *b, T *x) {
  const HybridSettings &s = it.s_;
  const Vectors<T> &v = it.v_;
  const int n = s.n, nrhs = s.nrhs;
  HybridResult out;
  for (int c = 0; c < nrhs; ++c) {
    const T *bc = b + std::int64_t{n} * c;
    v.norm0[c] = real_of(dot(bc, bc, n));
  }
  it.residual(b, x, v.r);
  double res = it.measure(v.r), best = 1e30;
  out.iterations = 1;
  if (s.msglvl > 0) {
    char e1[32], e2[32];
    edit_e12_3(s.tol, e1, sizeof e1);
    edit_e12_3(res, e2, sizeof e2);
    std::printf("[VELMORA] cg-iteration:%s%s\n", e1, e2);
  }
  if (s.tol > res) return out;
  T *z = v.u, *p = v.p, *w = v.w;
  std::copy(v.r, v.r + it.len_, z);
  if ((out.solve_error = it.precondition(z)) != 0) return out;
  std::copy(z, z + it.len_, p);
  for (int c = 0; c < nrhs; ++c) {
    const std::int64_t o = std::int64_t{n} * c;
    v.rho[c] = dot(v.r + o, z + o, n);
  }
  for (;;) {
    it.product(p, w);
    for (int c = 0; c < nrhs; ++c) {
      const std::int64_t o = std::int64_t{n} * c;
      const T pw = dot(p + o, w + o, n);
      const T alpha = pw != T(0) ? v.rho[c] / pw : T(0);
      for (int i = 0; i < n; ++i) {
        x[o + i] += alpha * p[o + i];
        v.r[o + i] -= alpha * w[o + i];
      }
    }
    ++out.iterations;
    res = it.measure(v.r);
    if (s.msglvl > 0) print_step("[VELMORA] cg-iteration:", out.iterations, res);
    if (s.tol > res) return out;
    if ((out.code = it.verdict(out.iterations, res, &best, true)) != 0) return out;
    std::copy(v.r, v.r + it.len_, z);
    if ((out.solve_error = it.precondition(z)) != 0) return out;
    for (int c = 0; c < nrhs; ++c) {
      const std::int64_t o = std::int64_t{n} * c;
      const T rz = dot(v.r + o, z + o, n);
      const T beta = v.rho[c] != T(0) ? rz / v.rho[c] : T(0);
      v.rho[c] = rz;
      for (int i = 0; i < n; ++i) p[o + i] = z[o + i] + beta * p[o + i];
    }
  }
}

template <class T>
HybridResult run_cgs(const Iteration<T> &it, const T *b, T *x) {
  const HybridSettings &s = it.s_;
  const Vectors<T> &v = it.v_;
  const int n = s.n, nrhs = s.nrhs;
  const std::int64_t len = it.len_;
  HybridResult out;
  // The preconditioned system M^-1 A x = M^-1 b; the residual of x = 0 is
  // M^-1 b, which the first solve already gave as x.
  for (int c = 0; c < nrhs; ++c) {
    const T *xc = x + std::int64_t{n} * c;
    v.norm0[c] = real_of(dot(xc, xc, n));
  }
  it.residual(b, x, v.r);
  if ((out.solve_error = it.precondition(v.r)) != 0) return out;
  std::copy(v.r, v.r + len, v.r0);
  double res = it.measure(v.r), best = 1e30;
  out.iterations = 0;
  if (s.msglvl > 0) {
    char f[8], e1[32], e2[32];
    edit_f4_0(0, f, sizeof f);
    edit_e12_3(res, e1, sizeof e1);
    edit_e12_3(s.tol, e2, sizeof e2);
    std::printf(" cgs-init:%s%s%s\n", f, e1, e2);
  }
  if (s.tol > res) {
    out.iterations = 1;
    return out;
  }
  std::fill(v.q, v.q + len, T(0));
  std::fill(v.p, v.p + len, T(0));
  for (int c = 0; c < nrhs; ++c) v.rho[c] = T(1);
  for (;;) {
    // u = r + beta q, p = u + beta (q + beta p)
    for (int c = 0; c < nrhs; ++c) {
      const std::int64_t o = std::int64_t{n} * c;
      const T rho = dot(v.r0 + o, v.r + o, n);
      if (rho == T(0) || v.rho[c] == T(0)) {
        out.code = -1;  // breakdown
        return out;
      }
      const T beta = rho / v.rho[c];
      v.rho[c] = rho;
      for (int i = 0; i < n; ++i) {
        const T u = v.r[o + i] + beta * v.q[o + i];
        v.u[o + i] = u;
        v.p[o + i] = u + beta * (v.q[o + i] + beta * v.p[o + i]);
      }
    }
    it.product(v.p, v.v);  // v = M^-1 A p: the product first, then the solve
    if ((out.solve_error = it.precondition(v.v)) != 0) return out;
    for (int c = 0; c < nrhs; ++c) {
      const std::int64_t o = std::int64_t{n} * c;
      const T sigma = dot(v.r0 + o, v.v + o, n);
      if (sigma == T(0)) {
        out.code = -1;
        return out;
      }
      const T alpha = v.rho[c] / sigma;
      for (int i = 0; i < n; ++i) {
        v.q[o + i] = v.u[o + i] - alpha * v.v[o + i];
        v.w[o + i] = v.u[o + i] + v.q[o + i];
        x[o + i] += alpha * v.w[o + i];
      }
      v.rho[nrhs + c] = alpha;
    }
    it.product(v.w, v.v);  // r -= alpha M^-1 A (u + q)
    if ((out.solve_error = it.precondition(v.v)) != 0) return out;
    for (int c = 0; c < nrhs; ++c) {
      const std::int64_t o = std::int64_t{n} * c;
      const T alpha = v.rho[nrhs + c];
      for (int i = 0; i < n; ++i) v.r[o + i] -= alpha * v.v[o + i];
    }
    ++out.iterations;
    res = it.measure(v.r);
    if (s.msglvl > 0) print_step("[VELMORA] cgs-iteration:", out.iterations, res);
    if (s.tol > res) return out;
    if ((out.code = it.verdict(out.iterations, res, &best, false)) != 0) return out;
  }
}

}  // namespace

std::int64_t hybrid_work_doubles(const HybridSettings &s) {
  const std::int64_t c =
      s.mtype == 3 || s.mtype == 4 || s.mtype == -4 || s.mtype == 6 || s.mtype == 13 ? 2 : 1;
  const std::int64_t len = std::int64_t{s.n} * s.nrhs;
  // r r0 u p q v w, then norm0 and rho (two per right-hand side each), then
  // the product's accumulators.
  return 7 * c * len + 2 * s.nrhs + 2 * c * s.nrhs +
         c * amuxy_work_size(s.transposed, s.n, s.nrhs, s.mtype, s.nthreads) + 2;
}

template <class T>
HybridResult PRE_CGS_VELMORA(const HybridSettings &s, const RefineMatrix<T> &m, const T *b, T *x,
                             double *work, std::int64_t work_len, SolveRef<T> solve) {
  HybridResult out;
  if (work == nullptr || work_len < hybrid_work_doubles(s)) {
    out.code = -4;
    return out;
  }
  const std::int64_t len = std::int64_t{s.n} * s.nrhs;
  T *t = reinterpret_cast<T *>(work);
  Vectors<T> v;
  v.r = t;
  v.r0 = t + len;
  v.u = t + 2 * len;
  v.p = t + 3 * len;
  v.q = t + 4 * len;
  v.v = t + 5 * len;
  v.w = t + 6 * len;
  v.rho = t + 7 * len;  // 2 nrhs values: rho, then alpha
  v.norm0 = reinterpret_cast<double *>(v.rho + 2 * s.nrhs);
  v.acc = reinterpret_cast<T *>(v.norm0 + 2 * s.nrhs);
  const Iteration<T> it(s, m, solve, v);
  return s.method == 2 ? run_cg(it, b, x) : run_cgs(it, b, x);
}

template HybridResult PRE_CGS_VELMORA<double>(const HybridSettings &, const RefineMatrix<double> &,
                                              const double *, double *, double *, std::int64_t,
                                              SolveRef<double>);
template HybridResult PRE_CGS_VELMORA<zcomplex>(const HybridSettings &,
                                                const RefineMatrix<zcomplex> &, const zcomplex *,
                                                zcomplex *, double *, std::int64_t,
                                                SolveRef<zcomplex>);

}  // namespace vm
