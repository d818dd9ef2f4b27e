/*
 * A C99 program built against the installed library, through its CMake
 * package or its pkg-config file.  It uses nothing but the public header.
 */
#include <stdio.h>
#include <velmora.h>

static int failures = 0;

#define CHECK(cond)                                                     \
  do {                                                                  \
    if (!(cond)) {                                                      \
      printf("consumer: line %d: check failed: %s\n", __LINE__, #cond); \
      failures++;                                                       \
    }                                                                   \
  } while (0)

enum { N = 6 };

static double absval(double v) {
  return v < 0.0 ? -v : v;
}

static int handle_empty(void *const *pt) {
  int i;
  for (i = 0; i < 64; i++) {
    if (pt[i] != NULL) return 0;
  }
  return 1;
}

/* Solves a diagonal system of order N through all phases; values are pairs
   of doubles for complex types. */
static void diagonal_system(int mtype, int cx) {
  static const int phases[] = {11, 12, 13, 22, 23, 33, 0, -1};
  void *pt[64];
  int iparm[64], ia[N + 1], ja[N], perm[N];
  double dparm[64], a[2 * N], b[2 * N], x[2 * N];
  int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, error = 0, solver = 0, n = N, phase;
  int i, k;

  velmorainit(pt, &mtype, &solver, iparm, dparm, &error);
  CHECK(error == 0);
  for (i = 0; i < N; i++) {
    ia[i] = i + 1;
    ja[i] = i + 1;
    perm[i] = 0;
    if (cx) {
      a[2 * i] = 1.0 + i;
      a[2 * i + 1] = 0.5 - i;
      b[2 * i] = 3.0;
      b[2 * i + 1] = i;
    } else {
      a[i] = (i % 2) ? -(1.0 + i) : 2.0 + i;
      b[i] = 1.0 + 0.5 * i;
    }
  }
  ia[N] = N + 1;

  for (k = 0; k < (int)(sizeof phases / sizeof phases[0]); k++) {
    phase = phases[k];
    for (i = 0; i < 2 * N; i++) x[i] = -999.0;
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
            &error, dparm);
    if (error != 0) printf("consumer: mtype %d phase %d: error %d\n", mtype, phase, error);
    CHECK(error == 0);
    CHECK(handle_empty(pt));
    if (phase > 0) CHECK(iparm[11] == -1);
    if (phase != 13 && phase != 23 && phase != 33) continue;
    for (i = 0; i < N; i++) {
      if (cx) {
        /* x = b / a, written out */
        double ar = a[2 * i], ai = a[2 * i + 1], br = b[2 * i], bi = b[2 * i + 1];
        double d = ar * ar + ai * ai;
        double wr = (br * ar + bi * ai) / d, wi = (bi * ar - br * ai) / d;
        CHECK(absval(x[2 * i] - wr) <= 1e-14 * (1.0 + absval(wr)));
        CHECK(absval(x[2 * i + 1] - wi) <= 1e-14 * (1.0 + absval(wi)));
      } else {
        double w = b[i] / a[i];
        CHECK(absval(x[i] - w) <= 1e-15 * absval(w));
      }
    }
  }
}

/* A tridiagonal matrix of order N, one-based. */
static void tridiagonal(int *ia, int *ja, double *a) {
  int i, j, k = 0;
  ia[0] = 1;
  for (i = 1; i <= N; i++) {
    for (j = i - 1; j <= i + 1; j++) {
      if (j < 1 || j > N) continue;
      ja[k] = j;
      a[k] = (i == j) ? 4.0 : -1.0;
      k++;
    }
    ia[i] = k + 1;
  }
}

int main(void) {
  void *pt[64];
  int iparm[64], ia[N + 1], ja[3 * N], perm[N];
  double dparm[64], a[6 * N], b[2 * N], x[2 * N];
  int maxfct = 1, mnum = 1, mtype = 11, nrhs = 1, msglvl = 0, error = -5, solver = 0, n = N;
  int phase, i;

  /* defaults of the initialiser */
  for (i = 0; i < 64; i++) pt[i] = &error;
  velmorainit(pt, &mtype, &solver, iparm, dparm, &error);
  CHECK(error == 0);
  CHECK(handle_empty(pt));
  CHECK(iparm[0] == 1);
  CHECK(iparm[9] == 12);
  CHECK(iparm[23] == 1 && iparm[24] == 1);

  /* the query answers without touching the handle */
  phase = -2;
  velmora(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
          &error, dparm);
  CHECK(error == 18);
  CHECK(iparm[0] == 23);
  CHECK(handle_empty(pt));

  /* a zeroed iparm takes the reset values at the first analysis */
  tridiagonal(ia, ja, a);
  for (i = 0; i < N; i++) {
    b[i] = 1.0;
    perm[i] = 0;
  }
  for (i = 0; i < 64; i++) iparm[i] = 0;
  phase = 11;
  velmora(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
          &error, dparm);
  CHECK(iparm[9] == 13);
  CHECK(iparm[23] == 0 && iparm[24] == 0);
  phase = -1;
  velmora(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
          &error, dparm);
  CHECK(error == 0);
  CHECK(handle_empty(pt));

  /* an input check: an order of 0 is refused, silently at msglvl 0 */
  velmorainit(pt, &mtype, &solver, iparm, dparm, &error);
  n = 0;
  phase = 11;
  velmora(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
          &error, dparm);
  CHECK(error == -7);
  n = N;
  if (!handle_empty(pt)) {
    phase = -1;
    velmora(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
            &error, dparm);
    CHECK(error == 0);
    CHECK(handle_empty(pt));
  }

  diagonal_system(11, 0);
  diagonal_system(-2, 0);
  diagonal_system(13, 1);
  diagonal_system(6, 1);

  if (failures != 0) {
    printf("consumer: %d failure(s)\n", failures);
    return 1;
  }
  printf("consumer: ok\n");
  return 0;
}
