/*
 * indefinite_inertia.c - a symmetric indefinite system (a KKT matrix
 * [[H, J^T], [J, 0]] of an equality-constrained least-squares problem),
 * factored with 2x2 pivots, its inertia read, then solved with refinement.
 * An optimiser checks that the inertia is (unknowns, constraints, 0).
 *
 *   velmora_indefinite_inertia
 */
#include <stdio.h>
#include <velmora.h>

enum { nv = 6, nc = 2, n = nv + nc };

int main(void) {
  /* H = diag(2), J: x1 + x2 + x3 = 1, x4 - x5 + x6 = 0; upper triangle by rows. */
  int ia[n + 1], ja[32], k = 0;
  double a[32];
  const int jrow[nc][3] = {{1, 2, 3}, {4, 5, 6}};
  const double jval[nc][3] = {{1, 1, 1}, {1, -1, 1}};
  for (int i = 1; i <= nv; ++i) {
    ia[i - 1] = k + 1;
    ja[k] = i, a[k++] = 2.0;
    for (int c = 0; c < nc; ++c)
      for (int t = 0; t < 3; ++t)
        if (jrow[c][t] == i) ja[k] = nv + c + 1, a[k++] = jval[c][t];
  }
  for (int c = 0; c < nc; ++c) { /* the zero block: the diagonal entry stands, with 0 */
    ia[nv + c] = k + 1;
    ja[k] = nv + c + 1, a[k++] = 0.0;
  }
  ia[n] = k + 1;
  double b[n] = {1, 2, 3, 4, 5, 6, 1, 0}, x[n];

  void *pt[64];
  int iparm[64], perm[n], error = 0;
  double dparm[64];
  const int mtype = -2, solver = 0, maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, order = n;
  velmorainit(pt, &mtype, &solver, iparm, dparm, &error);
  iparm[20] = 1; /* iparm(21): 2x2 pivots */
  iparm[12] = 1; /* iparm(13): symmetric matching, which keeps 2x2 pairs together */
  iparm[7] = 2;  /* iparm(8): two refinement steps */
  int phase = 12;
  velmora(pt, &maxfct, &mnum, &mtype, &phase, &order, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
          &error, dparm);
  if (error == 0) {
    printf("inertia: %d positive, %d negative, %d perturbed pivots\n", iparm[21], iparm[22],
           iparm[13]);
    phase = 33;
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &order, a, ia, ja, perm, &nrhs, iparm, &msglvl, b,
            x, &error, dparm);
  }
  if (error == 0) {
    printf("x =");
    for (int i = 0; i < nv; ++i) printf(" %.4f", x[i]);
    printf("\nmultipliers = %.4f %.4f (%d refinement steps)\n", x[nv], x[nv + 1], iparm[6]);
  } else {
    printf("velmora failed with error %d\n", error);
  }
  phase = -1;
  int release = 0;
  velmora(pt, &maxfct, &mnum, &mtype, &phase, &order, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
          &release, dparm);
  return error != 0 || iparm[21] != nv || iparm[22] != nc;
}
