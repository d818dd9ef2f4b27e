// accuracy.cpp - the solve-to-target policy: explicit refinement, then
// flexible GMRES preconditioned by the factor.
#include "accuracy.h"

#include <velmora.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <vector>

namespace vmcli {
namespace {

using Complex = std::complex<double>;

bool is_symmetric_storage(int mtype) {
  return mtype == 2 || mtype == -2 || mtype == 4 || mtype == -4 || mtype == 6;
}
bool is_hermitian(int mtype) {
  return mtype == 4 || mtype == -4;
}

double magnitude(double v) {
  return std::abs(v);
}
double magnitude(const Complex &v) {
  return std::abs(v);
}
double conj_of(double v) {
  return v;
}
Complex conj_of(const Complex &v) {
  return std::conj(v);
}

template <class T>
const T *values(const SystemView &s) {
  return reinterpret_cast<const T *>(s.a);
}

// y = A x over the stored form: a symmetric entry acts on its row and its
// column, conjugated there for the Hermitian types.
template <class T>
void multiply(const SystemView &s, const T *x, T *y) {
  const T *a = values<T>(s);
  const bool sym = is_symmetric_storage(s.mtype), herm = is_hermitian(s.mtype);
  std::fill(y, y + s.n, T(0));
  for (int32_t i = 0; i < s.n; ++i) {
    T sum(0);
    for (int32_t k = s.ia[i] - 1; k < s.ia[i + 1] - 1; ++k) {
      const int32_t j = s.ja[k] - 1;
      sum += a[k] * x[j];
      if (sym && j != i) y[j] += (herm ? conj_of(a[k]) : a[k]) * x[i];
    }
    y[i] += sum;
  }
}

template <class T>
double norm_inf(const T *v, int32_t n) {
  double r = 0.0;
  for (int32_t i = 0; i < n; ++i) r = std::max(r, magnitude(v[i]));
  return r;
}

template <class T>
double norm_2(const T *v, int32_t n) {
  double r = 0.0;
  for (int32_t i = 0; i < n; ++i) r += std::norm(Complex(v[i]));
  return std::sqrt(r);
}

// <u, v> with the first argument conjugated.
template <class T>
T dot(const T *u, const T *v, int32_t n) {
  T r(0);
  for (int32_t i = 0; i < n; ++i) r += conj_of(u[i]) * v[i];
  return r;
}

// b - A x into r; returns the backward error of this column.
template <class T>
double residual(const SystemView &s, double anorm, const T *x, const T *b, T *r) {
  multiply(s, x, r);
  for (int32_t i = 0; i < s.n; ++i) r[i] = b[i] - r[i];
  const double rn = norm_inf(r, s.n);
  const double den = anorm * norm_inf(x, s.n) + norm_inf(b, s.n);
  if (std::isnan(rn) || std::isnan(den)) return NAN;
  return den > 0.0 ? rn / den : (rn > 0.0 ? INFINITY : 0.0);
}

template <class T>
bool finite(const T *v, int32_t n) {
  for (int32_t i = 0; i < n; ++i)
    if (!std::isfinite(magnitude(v[i]))) return false;
  return true;
}

// One call of phase 33 with the handle.  A plain direct solve reports no
// failure of its refinement: the caller keeps the best solution found.
int solve_phase(const SystemView &s, const HandleView &h, int nrhs, const double *b, double *x,
                int msglvl) {
  int maxfct = 1, mnum = 1, mtype = s.mtype, phase = 33, n = s.n, error = 0;
  velmora(h.pt, &maxfct, &mnum, &mtype, &phase, &n, const_cast<double *>(s.a),
          const_cast<int *>(s.ia), const_cast<int *>(s.ja), h.perm, &nrhs, h.iparm, &msglvl,
          const_cast<double *>(b), x, &error, h.dparm);
  return error;
}

// Givens rotation that zeroes b against a: [c s; -conj(s) c] [a; b] = [r; 0].
template <class T>
void rotation(const T &a, double b, double *c, T *s) {
  const double aa = magnitude(a);
  if (b == 0.0) {
    *c = 1.0;
    *s = T(0);
  } else if (aa == 0.0) {
    *c = 0.0;
    *s = T(1);
  } else {
    const double r = std::hypot(aa, b);
    *c = aa / r;
    *s = (a / aa) * (b / r);
  }
}

// Flexible GMRES(m) on A x = b from the given x, each iteration
// preconditioned by a solve with the factor.  Returns a library error, or 0;
// *berr is the backward error of x on return.
template <class T>
int fgmres(const SystemView &s, const HandleView &h, const AccuracyGoal &goal, double anorm,
           const T *b, T *x, int *iterations, double *berr) {
  const int32_t n = s.n;
  const int m = std::max(1, std::min<int>(goal.krylov_restart, n));
  std::vector<T> v(static_cast<size_t>(n) * (m + 1)), z(static_cast<size_t>(n) * m), r(n),
      best(x, x + n);
  std::vector<T> hess(static_cast<size_t>(m + 1) * m), g(m + 1), sn(m), y(m);
  std::vector<double> cs(m);
  auto H = [&](int i, int j) -> T & { return hess[static_cast<size_t>(j) * (m + 1) + i]; };
  const double bnorm = norm_inf(b, n);
  double current = residual(s, anorm, x, b, r.data());
  double best_berr = current;
  *iterations = 0;
  while (*iterations < goal.krylov_iterations && current > goal.target) {
    const double beta = norm_2(r.data(), n);
    if (!(beta > 0.0)) break;
    // ||r||_inf <= ||r||_2: the estimate below this meets the target.
    const double tol = 0.5 * goal.target * (anorm * norm_inf(x, n) + bnorm);
    for (int32_t i = 0; i < n; ++i) v[i] = r[i] / beta;
    std::fill(g.begin(), g.end(), T(0));
    g[0] = beta;
    int k = 0;
    while (k < m && *iterations < goal.krylov_iterations) {
      T *vk = &v[static_cast<size_t>(k) * n], *zk = &z[static_cast<size_t>(k) * n];
      const int error = solve_phase(s, h, 1, reinterpret_cast<const double *>(vk),
                                    reinterpret_cast<double *>(zk), 0);
      if (error != 0) return error;
      if (!finite(zk, n)) break;
      ++*iterations;
      T *w = &v[static_cast<size_t>(k + 1) * n];
      multiply(s, zk, w);
      for (int i = 0; i <= k; ++i) {  // modified Gram-Schmidt
        const T *vi = &v[static_cast<size_t>(i) * n];
        const T hik = dot(vi, w, n);
        H(i, k) = hik;
        for (int32_t t = 0; t < n; ++t) w[t] -= hik * vi[t];
      }
      const double hnext = norm_2(w, n);
      for (int i = 0; i < k; ++i) {
        const T t = cs[i] * H(i, k) + sn[i] * H(i + 1, k);
        H(i + 1, k) = -conj_of(sn[i]) * H(i, k) + cs[i] * H(i + 1, k);
        H(i, k) = t;
      }
      rotation(H(k, k), hnext, &cs[k], &sn[k]);
      H(k, k) = cs[k] * H(k, k) + sn[k] * hnext;
      g[k + 1] = -conj_of(sn[k]) * g[k];
      g[k] = cs[k] * g[k];
      ++k;
      if (!(hnext > 1e-300) || magnitude(g[k]) <= tol) break;
      for (int32_t t = 0; t < n; ++t) w[t] /= hnext;
    }
    if (k == 0) break;
    for (int i = k - 1; i >= 0; --i) {  // H y = g, upper triangular
      T sum = g[i];
      for (int j = i + 1; j < k; ++j) sum -= H(i, j) * y[j];
      y[i] = magnitude(H(i, i)) > 0.0 ? sum / H(i, i) : T(0);
    }
    for (int j = 0; j < k; ++j) {
      const T *zj = &z[static_cast<size_t>(j) * n];
      for (int32_t t = 0; t < n; ++t) x[t] += y[j] * zj[t];
    }
    const double previous = current;
    current = residual(s, anorm, x, b, r.data());
    if (current < best_berr) {
      best_berr = current;
      std::copy(x, x + n, best.begin());
    }
    if (!(current < 0.5 * previous)) break;  // a cycle that gains little: stalled
  }
  std::copy(best.begin(), best.end(), x);
  *berr = best_berr;
  return 0;
}

template <class T>
double column_berr(const SystemView &s, double anorm, const double *x, const double *b, int c,
                   std::vector<T> *r) {
  const size_t len = static_cast<size_t>(s.n);
  return residual(s, anorm, reinterpret_cast<const T *>(x) + len * c,
                  reinterpret_cast<const T *>(b) + len * c, r->data());
}

template <class T>
double worst_berr(const SystemView &s, double anorm, const double *x, const double *b, int nrhs) {
  std::vector<T> r(static_cast<size_t>(s.n));
  double worst = 0.0;
  for (int c = 0; c < nrhs; ++c) {
    const double e = column_berr<T>(s, anorm, x, b, c, &r);
    if (std::isnan(e)) return NAN;
    worst = std::max(worst, e);
  }
  return worst;
}

template <class T>
AccuracyReport run_policy(const SystemView &s, const HandleView &h, int nrhs, const double *b,
                          double *x, const AccuracyGoal &goal) {
  AccuracyReport rep;
  const double anorm = matrix_norm_inf(s);
  const size_t len = static_cast<size_t>(s.n) * (is_complex_type(s.mtype) ? 2 : 1);
  const size_t all = len * static_cast<size_t>(nrhs);
  const int saved_overwrite = h.iparm[5], saved_refine = h.iparm[7];
  h.iparm[5] = 0;  // the solution goes to x: b stays the caller's
  auto done = [&](AccuracyReport &r) {
    h.iparm[5] = saved_overwrite;
    h.iparm[7] = saved_refine;
    r.reached = r.best >= 0.0 && r.best <= goal.target;
    return r;
  };
  auto berr_of = [&](const double *xs) {
    const double e = worst_berr<T>(s, anorm, xs, b, nrhs);
    return std::isnan(e) ? INFINITY : e;
  };

  int error = solve_phase(s, h, nrhs, b, x, h.msglvl);
  rep.first_steps = h.iparm[6];
  if (error != 0) {
    rep.error = error;
    rep.failed_phase = 33;
    return done(rep);
  }
  rep.first = rep.best = berr_of(x);
  if (rep.best <= goal.target) return done(rep);

  // Refinement asked for explicitly, from a fresh first solve.
  std::vector<double> trial(all);
  const int steps = std::max(goal.refine_steps, std::abs(saved_refine));
  h.iparm[7] = saved_refine < 0 ? -steps : steps;
  error = solve_phase(s, h, nrhs, b, trial.data(), h.msglvl);
  if (error != 0) {
    rep.error = error;
    rep.failed_phase = 33;
    return done(rep);
  }
  rep.refined_steps = h.iparm[6];
  rep.refine_interrupted = rep.refined_steps < steps;
  rep.refined = berr_of(trial.data());
  if (rep.refined < rep.best) {
    rep.best = rep.refined;
    std::copy(trial.begin(), trial.end(), x);
  }
  if (rep.best <= goal.target) return done(rep);

  // The Krylov continuation, column by column, from the best x so far; the
  // preconditioning solves use the library's default refinement.
  h.iparm[7] = 0;
  std::vector<T> r(static_cast<size_t>(s.n));
  for (int c = 0; c < nrhs; ++c) {
    if (column_berr<T>(s, anorm, x, b, c, &r) <= goal.target) continue;
    int iterations = 0;
    double e = 0.0;
    error = fgmres(s, h, goal, anorm, reinterpret_cast<const T *>(b) + static_cast<size_t>(s.n) * c,
                   reinterpret_cast<T *>(x) + static_cast<size_t>(s.n) * c, &iterations, &e);
    rep.krylov_iterations += iterations;
    if (error != 0) {
      rep.error = error;
      rep.failed_phase = 33;
      break;
    }
  }
  rep.krylov = rep.best = berr_of(x);
  return done(rep);
}

}  // namespace

bool is_complex_type(int mtype) {
  return mtype == 3 || mtype == 4 || mtype == -4 || mtype == 6 || mtype == 13;
}

double matrix_norm_inf(const SystemView &s) {
  const bool cplx = is_complex_type(s.mtype);
  std::vector<double> row(static_cast<size_t>(s.n), 0.0);
  for (int32_t i = 0; i < s.n; ++i)
    for (int32_t k = s.ia[i] - 1; k < s.ia[i + 1] - 1; ++k) {
      const int32_t j = s.ja[k] - 1;
      const double m =
          cplx ? std::hypot(s.a[2 * static_cast<size_t>(k)], s.a[2 * static_cast<size_t>(k) + 1])
               : std::abs(s.a[k]);
      row[i] += m;
      if (is_symmetric_storage(s.mtype) && j != i) row[j] += m;
    }
  double r = 0.0;
  for (double v : row) r = std::max(r, v);
  return r;
}

double backward_error(const SystemView &s, double anorm, const double *x, const double *b,
                      int nrhs) {
  return is_complex_type(s.mtype) ? worst_berr<Complex>(s, anorm, x, b, nrhs)
                                  : worst_berr<double>(s, anorm, x, b, nrhs);
}

AccuracyReport solve_to_target(const SystemView &s, const HandleView &h, int nrhs, const double *b,
                               double *x, const AccuracyGoal &goal) {
  return is_complex_type(s.mtype) ? run_policy<Complex>(s, h, nrhs, b, x, goal)
                                  : run_policy<double>(s, h, nrhs, b, x, goal);
}

int32_t structural_rank(const SystemView &s) {
  const int32_t n = s.n;
  // The whole pattern by rows: stored entries, mirrored for symmetric storage.
  std::vector<int64_t> start(static_cast<size_t>(n) + 1, 0);
  const bool sym = is_symmetric_storage(s.mtype);
  for (int32_t i = 0; i < n; ++i)
    for (int32_t k = s.ia[i] - 1; k < s.ia[i + 1] - 1; ++k) {
      ++start[i + 1];
      if (sym && s.ja[k] - 1 != i) ++start[s.ja[k]];
    }
  for (int32_t i = 0; i < n; ++i) start[i + 1] += start[i];
  std::vector<int32_t> adj(static_cast<size_t>(start[n]));
  std::vector<int64_t> fill(start.begin(), start.end() - 1);
  for (int32_t i = 0; i < n; ++i)
    for (int32_t k = s.ia[i] - 1; k < s.ia[i + 1] - 1; ++k) {
      const int32_t j = s.ja[k] - 1;
      adj[fill[i]++] = j;
      if (sym && j != i) adj[fill[j]++] = i;
    }
  std::vector<int32_t> row_of(n, -1), col_of(n, -1), seen(n, -1);
  int32_t rank = 0;
  for (int32_t i = 0; i < n; ++i)  // cheap pass: any free column
    for (int64_t k = start[i]; k < start[i + 1]; ++k)
      if (row_of[adj[k]] < 0) {
        row_of[adj[k]] = i;
        col_of[i] = adj[k];
        ++rank;
        break;
      }
  // Augmenting paths by depth-first search, one stamp per root row.
  std::vector<int32_t> stack, via;
  std::vector<int64_t> next(n);
  for (int32_t root = 0; root < n; ++root) {
    if (col_of[root] >= 0) continue;
    stack.assign(1, root);
    via.clear();
    next[root] = start[root];
    bool found = false;
    while (!stack.empty() && !found) {
      const int32_t i = stack.back();
      if (next[i] == start[i + 1]) {
        stack.pop_back();
        if (!via.empty()) via.pop_back();
        continue;
      }
      const int32_t j = adj[next[i]++];
      if (seen[j] == root) continue;
      seen[j] = root;
      via.push_back(j);
      if (row_of[j] < 0) {
        found = true;
      } else {
        stack.push_back(row_of[j]);
        next[row_of[j]] = start[row_of[j]];
      }
    }
    if (!found) continue;
    for (size_t t = 0; t < stack.size(); ++t) {
      row_of[via[t]] = stack[t];
      col_of[stack[t]] = via[t];
    }
    ++rank;
  }
  return rank;
}

std::vector<std::pair<std::string, std::string>> describe(const AccuracyReport &r,
                                                          const AccuracyGoal &goal) {
  std::vector<std::pair<std::string, std::string>> lines;
  char buf[200];
  if (r.first >= 0.0) {
    std::snprintf(buf, sizeof buf, "%.2e backward error of the first solve (%d refinement step%s)",
                  r.first, r.first_steps, r.first_steps == 1 ? "" : "s");
    lines.emplace_back("first solve", buf);
  }
  if (r.refined >= 0.0) {
    std::snprintf(buf, sizeof buf, "%.2e after %d refinement step%s asked for (up to %d)%s",
                  r.refined, r.refined_steps, r.refined_steps == 1 ? "" : "s", goal.refine_steps,
                  r.refine_interrupted ? ", stopped without contraction" : "");
    lines.emplace_back("refined", buf);
  }
  if (r.krylov >= 0.0) {
    std::snprintf(buf, sizeof buf, "%.2e after %d FGMRES iteration%s preconditioned by the factor",
                  r.krylov, r.krylov_iterations, r.krylov_iterations == 1 ? "" : "s");
    lines.emplace_back("krylov", buf);
  }
  return lines;
}

}  // namespace vmcli
