// matrix_type.h - what a matrix type (`mtype`) implies, defined once for
// every layer.
//
//   1  real structurally symmetric     11  real general
//   2  real symmetric definite         13  complex general
//  -2  real symmetric indefinite        3  complex structurally symmetric
//   4  complex Hermitian definite       6  complex symmetric
//  -4  complex Hermitian indefinite
#ifndef VELMORA_COMMON_MATRIX_TYPE_H
#define VELMORA_COMMON_MATRIX_TYPE_H

namespace vm {

// Values are (re, im) pairs of doubles.
inline bool is_complex_type(int mtype) {
  return mtype == 3 || mtype == 4 || mtype == -4 || mtype == 6 || mtype == 13;
}
inline bool is_real_type(int mtype) {
  return mtype == 1 || mtype == 2 || mtype == -2 || mtype == 11;
}
// Given by the upper triangle of its rows; factored as L D L^T or L L^T.
inline bool is_symmetric_storage(int mtype) {
  return mtype == 2 || mtype == -2 || mtype == 4 || mtype == -4 || mtype == 6;
}
// Factored as L U, with a U of its own.
inline bool stores_u(int mtype) {
  return mtype == 1 || mtype == 3 || mtype == 11 || mtype == 13;
}
// Symmetric indefinite: pivots of either sign, 2x2 pivots, the symmetric matching.
inline bool is_sym_indefinite_group(int mtype) {
  return mtype == -2 || mtype == -4 || mtype == 6;
}
inline bool is_struct_sym_group(int mtype) {
  return mtype == 1 || mtype == 3;
}
inline bool is_unsym_group(int mtype) {
  return mtype == 11 || mtype == 13;
}
// Positive definite: Cholesky, a non-positive pivot is a failure.
inline bool is_spd_type(int mtype) {
  return mtype == 2 || mtype == 4;
}

}  // namespace vm

#endif  // VELMORA_COMMON_MATRIX_TYPE_H
