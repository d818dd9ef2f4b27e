/*
 * spd_solve.c - the most common job: a symmetric positive definite system
 * (the 2D Laplacian of a g x g grid, upper triangle by rows), analysed,
 * factored and solved in one call, then released.
 *
 *   velmora_spd_solve [g]
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <velmora.h>

int main(int argc, char **argv) {
  const int g = argc > 1 ? atoi(argv[1]) : 100;
  if (g < 1 || g > 3000) {
    fprintf(stderr, "usage: velmora_spd_solve [g], 1 <= g <= 3000\n");
    return 2;
  }
  const int n = g * g;
  int *ia = malloc(sizeof(int) * (n + 1)), *ja = malloc(sizeof(int) * 3 * n);
  double *a = malloc(sizeof(double) * 3 * n), *b = malloc(sizeof(double) * n),
         *x = malloc(sizeof(double) * n);
  if (!ia || !ja || !a || !b || !x) return 1;
  /* Row i: the diagonal, then its right and upper neighbours (one-based). */
  int k = 0;
  for (int i = 0; i < n; ++i) {
    ia[i] = k + 1;
    ja[k] = i + 1, a[k++] = 4.0;
    if ((i + 1) % g != 0) ja[k] = i + 2, a[k++] = -1.0;
    if (i + g < n) ja[k] = i + g + 1, a[k++] = -1.0;
    b[i] = 1.0;
  }
  ia[n] = k + 1;

  void *pt[64];
  int iparm[64], perm[1], error = 0;
  double dparm[64];
  const int mtype = 2, solver = 0, maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0;
  velmorainit(pt, &mtype, &solver, iparm, dparm, &error);
  int phase = 13; /* analysis, factorization, solve */
  velmora(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
          &error, dparm);
  if (error != 0)
    printf("velmora failed with error %d\n", error);
  else
    printf("n = %d, factor nonzeros %d, x[0] = %.6f, x[n/2] = %.6f\n", n, iparm[17], x[0],
           x[n / 2]);
  phase = -1; /* release everything behind pt */
  int release = 0;
  velmora(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
          &release, dparm);
  free(ia), free(ja), free(a), free(b), free(x);
  return error != 0;
}
