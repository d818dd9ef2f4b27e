// schur_calls.cpp - velmora_get_schur and velmora_add_schur: the handle's
// factor of row mnum handed to one of four bodies of factor/schur.cpp by
// the type the analysis recorded (mtype and maxfct of the caller are not
// read).
#include <cstdio>
#include <cstdlib>

#include "factor/factor_args.h"
#include "factor/scalar_traits.h"
#include "factor/schur.h"
#include "interface/control.h"
#include "interface/entry.h"
#include "interface/numeric_stage.h"

namespace vm::entry {

namespace {

enum class Body { kNone, kReal, kComplex, kHermitian, kFloat };

// The body for the handle's factor, with the factor in *f.  A single
// precision flag on a complex type names a call no run can have set up:
// it is refused with its message.
Body body_of(void **pt, const int *mnum, FactorView<void> *f, const ControlBlock **cb) {
  if (pt == nullptr || mnum == nullptr || !stored_factor(pt, *mnum, f)) return Body::kNone;
  *cb = control_of(pt);
  const int mtype = (*cb)->s.mtype;
  if ((*cb)->s.single_precision != 0) {
    if (std::abs(mtype) == 4 || std::abs(mtype) == 6) {
      std::printf("32bit complex not done yet\n");
      std::fflush(stdout);
      return Body::kNone;
    }
    return Body::kFloat;
  }
  if (std::abs(mtype) == 4) return Body::kHermitian;
  if (mtype == 3 || mtype == 6 || mtype == 13) return Body::kComplex;
  return Body::kReal;
}

template <class T>
FactorView<T> typed(const FactorView<void> &f) {
  return numeric_factor<T>(f, static_cast<T *>(f.lnz), static_cast<T *>(f.unz), f.pivot,
                           f.pivot_col);
}

}  // namespace

void velmora_get_schur(void **pt, const int * /*maxfct*/, const int *mnum, const int * /*mtype*/,
                       int *S_ia, int *S_ja, void *S_a) {
  FactorView<void> f;
  const ControlBlock *cb = nullptr;
  const Body body = body_of(pt, mnum, &f, &cb);
  if (body == Body::kNone || f.nschur < 1 || S_ia == nullptr) return;
  const bool symmetric = cb->s.mtype % 2 == 0;
  double *a = static_cast<double *>(S_a);
  switch (body) {
    case Body::kReal:
      GET_SCHUR_VELMORA<double>(typed<double>(f), symmetric, S_ia, S_ja, a);
      break;
    case Body::kComplex:
      GET_SCHUR_VELMORA<zcomplex>(typed<zcomplex>(f), symmetric, S_ia, S_ja, a);
      break;
    case Body::kHermitian:
      GET_SCHUR_VELMORA<zcomplex, true>(typed<zcomplex>(f), symmetric, S_ia, S_ja, a);
      break;
    case Body::kFloat:
      GET_SCHUR_VELMORA<float>(typed<float>(f), symmetric, S_ia, S_ja, a);
      break;
    case Body::kNone:
      break;
  }
}

void velmora_add_schur(const int *i1, const int *j1, const int *i2, const int *j2,
                       const double *alpha, const double *beta, void *dense, const int *ld,
                       void **pt, const int * /*maxfct*/, const int *mnum, const int * /*mtype*/,
                       int *err) {
  if (err == nullptr) return;
  *err = 0;
  FactorView<void> f;
  const ControlBlock *cb = nullptr;
  const Body body = body_of(pt, mnum, &f, &cb);
  if (body == Body::kNone) {
    *err = 1;
    return;
  }
  if (f.nschur < 1) return;
  // A range outside S, or a block too small for it, is refused untouched.
  if (!i1 || !j1 || !i2 || !j2 || !alpha || !beta || !dense || !ld || *i1 < 1 || *j1 < 1 ||
      *i2 > f.nschur || *j2 > f.nschur || *i1 > *i2 || *j1 > *j2 || *ld < *i2 - *i1 + 1) {
    *err = 1;
    return;
  }
  const bool symmetric = cb->s.mtype % 2 == 0;
  const std::int64_t nnz = cb->s.nnz_schur;
  double *d = static_cast<double *>(dense);
  switch (body) {
    case Body::kReal:
      *err = ADD_SCHUR_VELMORA<double>(typed<double>(f), symmetric, nnz, *i1, *j1, *i2, *j2, *alpha,
                                       *beta, d, *ld);
      break;
    case Body::kComplex:
    case Body::kHermitian:
      *err = ADD_SCHUR_VELMORA<zcomplex>(typed<zcomplex>(f), symmetric, nnz, *i1, *j1, *i2, *j2,
                                         *alpha, *beta, d, *ld);
      break;
    case Body::kFloat:
      *err = ADD_SCHUR_VELMORA<float>(typed<float>(f), symmetric, nnz, *i1, *j1, *i2, *j2, *alpha,
                                      *beta, d, *ld);
      break;
    case Body::kNone:
      break;
  }
}

}  // namespace vm::entry
