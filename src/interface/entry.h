// entry.h - the bodies behind the exported spellings.
//
// Each exported call of velmora.h forwards its arguments unchanged to the
// body of the same name here; exports.cpp generates the spellings.
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

}  // namespace vm::entry

#endif  // VELMORA_INTERFACE_ENTRY_H
