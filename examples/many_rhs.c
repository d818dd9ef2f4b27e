/*
 * many_rhs.c - one factorization, many right-hand sides: an unsymmetric
 * system (1D convection-diffusion) factored once, then solved for a block
 * of right-hand sides in one call and for one more later, and refactored
 * with new values of the same pattern without a new analysis.
 *
 *   velmora_many_rhs
 */
#include <math.h>
#include <stdio.h>
#include <velmora.h>

enum { n = 1000, nrhs = 8 };

static int ia[n + 1], ja[3 * n], perm[n];
static double a[3 * n], b[n * nrhs], x[n * nrhs];

static void values(double wind) {
  for (int i = 0, k = 0; i < n; ++i) {
    if (i > 0) a[k++] = -1.0 - wind;
    a[k++] = 2.0 + 0.01;
    if (i + 1 < n) a[k++] = -1.0 + wind;
  }
}

int main(void) {
  int k = 0;
  for (int i = 0; i < n; ++i) {
    ia[i] = k + 1;
    if (i > 0) ja[k++] = i;
    ja[k++] = i + 1;
    if (i + 1 < n) ja[k++] = i + 2;
  }
  ia[n] = k + 1;
  values(0.3);
  for (int c = 0; c < nrhs; ++c)
    for (int i = 0; i < n; ++i) b[c * n + i] = sin(0.01 * (c + 1) * i);

  void *pt[64];
  int iparm[64], error = 0;
  double dparm[64];
  const int mtype = 11, solver = 0, maxfct = 1, mnum = 1, msglvl = 0, one = 1, order = n,
            block = nrhs;
  velmorainit(pt, &mtype, &solver, iparm, dparm, &error);
  int phase = 12; /* analysis and factorization, once */
  velmora(pt, &maxfct, &mnum, &mtype, &phase, &order, a, ia, ja, perm, &block, iparm, &msglvl, b, x,
          &error, dparm);
  phase = 33; /* all right-hand sides, one after the other in b and x */
  if (error == 0)
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &order, a, ia, ja, perm, &block, iparm, &msglvl, b,
            x, &error, dparm);
  if (error == 0) /* and one more, later, on the same factor */
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &order, a, ia, ja, perm, &one, iparm, &msglvl, b, x,
            &error, dparm);
  values(0.1);
  phase = 23; /* new values, same pattern: factorization and solve, no analysis */
  if (error == 0)
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &order, a, ia, ja, perm, &block, iparm, &msglvl, b,
            x, &error, dparm);
  if (error == 0)
    printf("%d right-hand sides solved twice on %d unknowns; x[0] of the last: %.6f\n", nrhs, n,
           x[(nrhs - 1) * n]);
  else
    printf("velmora failed with error %d\n", error);
  phase = -1;
  int release = 0;
  velmora(pt, &maxfct, &mnum, &mtype, &phase, &order, a, ia, ja, perm, &block, iparm, &msglvl, b, x,
          &release, dparm);
  return error != 0;
}
