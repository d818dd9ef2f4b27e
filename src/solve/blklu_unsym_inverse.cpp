// blklu_unsym_inverse.cpp - BLKLU_UNSYM_INVERSE_COM and
// C_BLKLU_UNSYM_INVERSE_COM: selected inversion with the LU factor of a
// general matrix (mtype 11 and 13), whose pivot blocks exchange rows and
// columns; the LU kernel of blklu_inverse.cpp with the column exchanges.
#include "factor/scalar_traits.h"
#include "solve/selinv.h"

namespace vm {

template <class T>
int BLKLU_UNSYM_INVERSE_COM(const FactorView<T> &f, const InverseInput &in, int n,
                            const InverseWork<T> &w) {
  return selinv::lu_inverse(f, in, n, w, true);
}

// BLKLU_UNSYM_INVERSE_COM (mtype 11) and C_BLKLU_UNSYM_INVERSE_COM (13).
template int BLKLU_UNSYM_INVERSE_COM<double>(const FactorView<double> &, const InverseInput &, int,
                                             const InverseWork<double> &);
template int BLKLU_UNSYM_INVERSE_COM<zcomplex>(const FactorView<zcomplex> &, const InverseInput &,
                                               int, const InverseWork<zcomplex> &);

}  // namespace vm
