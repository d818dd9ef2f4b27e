// entry.h - the bodies behind the exported spellings.
//
// Each exported call of velmora.h forwards its arguments unchanged to the
// body of the same name here (the _z spellings of the checkers to the
// body with the _z suffix); exports.cpp generates the spellings.
#ifndef VELMORA_INTERFACE_ENTRY_H
#define VELMORA_INTERFACE_ENTRY_H

namespace vm::entry {

void velmora(void **pt, const int *maxfct, const int *mnum, const int *mtype, const int *phase,
             const int *n, void *a, const int *ia, const int *ja, int *perm, const int *nrhs,
             int *iparm, const int *msglvl, void *b, void *x, int *error, double *dparm);
void velmorainit(void **pt, const int *mtype, const int *solver, int *iparm, double *dparm,
                 int *error);
void velmora_exist_parallel();
void velmora_ipopt_newinterface();
int get_proc_velmora(int *nproc);

// Checkers (parchk.cpp): real bodies, and complex ones with the _z suffix.
void velmora_chkmatrix(const int *mtype, const int *n, const void *a, const int *ia, const int *ja,
                       int *error);
void velmora_chkmatrix_z(const int *mtype, const int *n, const void *a, const int *ia,
                         const int *ja, int *error);
void velmora_chkvec(const int *n, const int *nrhs, const void *b, int *error);
void velmora_chkvec_z(const int *n, const int *nrhs, const void *b, int *error);
void velmora_printstats(const int *mtype, const int *n, const void *a, const int *ia, const int *ja,
                        const int *nrhs, const void *b, int *error);
void velmora_printstats_z(const int *mtype, const int *n, const void *a, const int *ia,
                          const int *ja, const int *nrhs, const void *b, int *error);

// y = A x with the 2-norms of b and y - b (src/solve/residual.cpp).
void velmora_residual(const int *mtype, const int *n, const void *a, const int *ia, const int *ja,
                      const void *b, const void *x, void *y, double *normb, double *normr);

// The Schur complement of the factor of row mnum (schur_calls.cpp).
void velmora_get_schur(void **pt, const int *maxfct, const int *mnum, const int *mtype, int *S_ia,
                       int *S_ja, void *S_a);
void velmora_add_schur(const int *i1, const int *j1, const int *i2, const int *j2,
                       const double *alpha, const double *beta, void *dense, const int *ld,
                       void **pt, const int *maxfct, const int *mnum, const int *mtype, int *err);

}  // namespace vm::entry

#endif  // VELMORA_INTERFACE_ENTRY_H
