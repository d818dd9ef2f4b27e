// scalar_traits.h - what the templated numeric code needs to know of its
// element type: double, float, and their complex forms.
#ifndef VELMORA_FACTOR_SCALAR_TRAITS_H
#define VELMORA_FACTOR_SCALAR_TRAITS_H

#include <cmath>
#include <complex>
#include <type_traits>

namespace vm {

using zcomplex = std::complex<double>;
using ccomplex = std::complex<float>;

template <class T>
struct scalar_traits;

template <>
struct scalar_traits<double> {
  using real = double;
  static constexpr bool is_complex = false;
  static constexpr int doubles = 1;  // width in doubles of the caller's arrays
};
template <>
struct scalar_traits<float> {
  using real = float;
  static constexpr bool is_complex = false;
  static constexpr int doubles = 1;
};
template <>
struct scalar_traits<zcomplex> {
  using real = double;
  static constexpr bool is_complex = true;
  static constexpr int doubles = 2;
};
template <>
struct scalar_traits<ccomplex> {
  using real = float;
  static constexpr bool is_complex = true;
  static constexpr int doubles = 2;
};

template <class T>
using real_of = typename scalar_traits<T>::real;

// Complex conjugate; the identity on real types.
template <class T>
inline T conj_of(T v) {
  if constexpr (scalar_traits<T>::is_complex) {
    return std::conj(v);
  } else {
    return v;
  }
}

// Conjugate when kConj (the Hermitian forms), the value otherwise.
template <bool kConj, class T>
inline T conj_if(T v) {
  if constexpr (kConj) {
    return conj_of(v);
  } else {
    return v;
  }
}

// Magnitude |v|.
template <class T>
inline real_of<T> abs_of(T v) {
  return std::abs(v);
}

// True when v (either part of a complex v) is not a number.
template <class T>
inline bool not_a_number(T v) {
  if constexpr (scalar_traits<T>::is_complex) {
    return std::isnan(v.real()) || std::isnan(v.imag());
  } else {
    return std::isnan(v);
  }
}

// Real part; the value itself on real types.
template <class T>
inline real_of<T> real_part(T v) {
  if constexpr (scalar_traits<T>::is_complex) {
    return v.real();
  } else {
    return v;
  }
}

// Reads element k of a caller's array of doubles (pairs for complex) as T.
template <class T>
inline T load(const double *a, std::ptrdiff_t k) {
  if constexpr (scalar_traits<T>::is_complex) {
    return T(static_cast<real_of<T>>(a[2 * k]), static_cast<real_of<T>>(a[2 * k + 1]));
  } else {
    return static_cast<T>(a[k]);
  }
}

// Writes element k of a caller's array of doubles (pairs for complex).
template <class T>
inline void store(double *a, std::ptrdiff_t k, T v) {
  if constexpr (scalar_traits<T>::is_complex) {
    a[2 * k] = static_cast<double>(v.real());
    a[2 * k + 1] = static_cast<double>(v.imag());
  } else {
    a[k] = static_cast<double>(v);
  }
}

}  // namespace vm

#endif  // VELMORA_FACTOR_SCALAR_TRAITS_H
