/*
 * diag_example.c - solve a small diagonal system, real and complex, through
 * the public interface, and print what was done.
 *
 *   velmora_diag_example
 */
#include <math.h>
#include <stdio.h>
#include <velmora.h>

static int solve(int mtype, int n, double *a, double *b, double *x) {
  void *pt[64];
  int iparm[64], ia[16], ja[16], perm[16], error = 0;
  double dparm[64];
  const int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, solver = 0;
  for (int i = 0; i < n; ++i) {
    ia[i] = i + 1;
    ja[i] = i + 1;
  }
  ia[n] = n + 1;
  velmorainit(pt, &mtype, &solver, iparm, dparm, &error);
  const int phases[] = {13, -1};
  for (int k = 0; k < 2 && error == 0; ++k)
    velmora(pt, &maxfct, &mnum, &mtype, &phases[k], &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b,
            x, &error, dparm);
  return error;
}

int main(void) {
  enum { n = 5 };
  double a[n] = {4.0, -2.0, 8.0, 0.5, 10.0}, b[n] = {1.0, 2.0, 3.0, 4.0, 5.0}, x[n];
  int error = solve(11, n, a, b, x);
  printf("real diagonal system, n = %d, mtype 11: error %d\n", n, error);
  double worst = 0.0;
  for (int i = 0; i < n; ++i) {
    printf("  x(%d) = %10.6f\n", i + 1, x[i]);
    worst = fmax(worst, fabs(a[i] * x[i] - b[i]));
  }
  printf("  max |a(i) x(i) - b(i)| = %.3e\n", worst);

  /* complex values as (re, im) pairs */
  double za[2 * n] = {1, 1, 2, 0, 0, 3, -1, 2, 5, -5}, zb[2 * n], zx[2 * n];
  for (int i = 0; i < 2 * n; ++i) zb[i] = 1.0 + i;
  int zerror = solve(13, n, za, zb, zx);
  printf("complex diagonal system, n = %d, mtype 13: error %d\n", n, zerror);
  double zworst = 0.0;
  for (int i = 0; i < n; ++i) {
    const double re = za[2 * i] * zx[2 * i] - za[2 * i + 1] * zx[2 * i + 1];
    const double im = za[2 * i] * zx[2 * i + 1] + za[2 * i + 1] * zx[2 * i];
    printf("  x(%d) = %10.6f %+10.6fi\n", i + 1, zx[2 * i], zx[2 * i + 1]);
    zworst = fmax(zworst, hypot(re - zb[2 * i], im - zb[2 * i + 1]));
  }
  printf("  max |a(i) x(i) - b(i)| = %.3e\n", zworst);
  return (error == 0 && zerror == 0 && worst < 1e-14 && zworst < 1e-14) ? 0 : 1;
}
