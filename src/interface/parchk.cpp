// parchk.cpp - the stand-alone checkers of a matrix and of right-hand sides,
// and the statistics print that runs both.
//
// Inputs (all by address, none kept): mtype, n, the values a (doubles, or
// pairs of doubles in the complex bodies), the one-based row pointers ia
// (n+1 entries) and column indices ja, nrhs and the right-hand sides b (n
// values per right-hand side, one after the other).  Output: `error`, 0 when
// the input is valid, otherwise the code of the first failed test; that
// test's message goes to standard error.  The statistics go to standard
// output.
//
// No test reads beyond the ia(n+1)-1 entries of ja and a that the row
// pointers announce, and a null pointer or a size below 1 is a reported
// failure, never a read.
#include <cfloat>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "analysis/sparse_assert.h"
#include "common/matrix_type.h"
#include "interface/entry.h"

namespace vm {

namespace {

enum Code : int {
  kValid = 0,
  kArgument = 10,
  kRowPointer = 100,
  kColumnIndex = 101,
  kColumnOrder = 200,
  kNoDiagonal = 201,
  kLowerEntry = 202,
  kNaN = 300,
  kInfinity = 301,
};

// One message line on standard error: the formatted text and a newline, or
// for the vector tests the text behind "[VELMORA]: CHK: ".
void say_line(const char *prefix, const char *format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  std::fprintf(stderr, "%s%s\n", prefix, text);
  std::fflush(stderr);
}

__attribute__((format(printf, 1, 2))) void say(const char *format, ...) {
  va_list args;
  va_start(args, format);
  say_line("", format, args);
  va_end(args);
}

__attribute__((format(printf, 1, 2))) void say_vector(const char *format, ...) {
  va_list args;
  va_start(args, format);
  say_line("[VELMORA]: CHK: ", format, args);
  va_end(args);
}

// Types stored as the upper triangle with every diagonal entry present.
bool is_triangular_storage(int mtype) {
  return mtype != 11 && mtype != 13;
}

const char *type_name(int mtype) {
  switch (mtype) {
    case -4:
      return "complex Hermitian";
    case -2:
      return "real symmetric";
    case 1:
      return "real structurally symmetric";
    case 2:
      return "real symmetric positive definite";
    case 3:
      return "complex structurally symmetric";
    case 4:
      return "complex Hermitian positive definite";
    case 6:
      return "complex symmetric";
    case 11:
      return "general real";
    case 13:
      return "general complex";
    default:
      return "unknown";
  }
}

// The structure of (ia, ja): pointers, column range, column order, and for
// upper-triangular storage the diagonal and the empty lower triangle.
int check_structure(int mtype, const int *n_in, const int *ia, const int *ja) {
  if (n_in == nullptr || ia == nullptr || ja == nullptr) {
    say("Invalid NULL pointer argument");
    return kArgument;
  }
  const int n = *n_in;
  if (n < 1) {
    say("Invalid dimension argument: %d (required: >1)", n);
    return kArgument;
  }
  for (int i = 0; i <= n; ++i) {
    if (ia[i] < 1) {
      say("CSR pointer array entry not ge 1;first error at row index %d", i + 1);
      return kRowPointer;
    }
  }
  for (int i = 0; i < n; ++i) {
    if (ia[i] > ia[i + 1]) {
      say("CSR pointer array not monotonic; first error at row index %d", i + 1);
      return kRowPointer;
    }
  }
  // From here every row lies inside ja(1 .. ia(n+1)-1).
  const int nnz = ia[n] - 1;
  for (int p = 0; p < nnz; ++p) {
    if (ja[p] < 1 || ja[p] > n) {
      say("CSR column index out-of-bounds; first error at position %d (index: %d)", p + 1, ja[p]);
      return kColumnIndex;
    }
  }
  int unsorted_row = 0;  // the last offending row
  for (int i = 0; i < n; ++i) {
    for (int p = ia[i] - 1; p + 1 < ia[i + 1] - 1; ++p) {
      if (ja[p] >= ja[p + 1]) {
        unsorted_row = i + 1;
        break;
      }
    }
  }
  if (unsorted_row != 0) {
    say("Column indices in row %d not strictly increasing", unsorted_row);
    return kColumnOrder;
  }
  if (!is_triangular_storage(mtype)) return kValid;
  for (int i = 0; i < n; ++i) {
    bool diagonal = false;
    for (int p = ia[i] - 1; p < ia[i + 1] - 1 && !diagonal; ++p) diagonal = ja[p] == i + 1;
    if (!diagonal) {
      say("Missing diagonal element; first error in row %d", i + 1);
      return kNoDiagonal;
    }
  }
  for (int i = 0; i < n; ++i) {
    for (int p = ia[i] - 1; p < ia[i + 1] - 1; ++p) {
      if (ja[p] < i + 1) {
        say("Matrix is not given in upper triangular form. First offending row: %d", i + 1);
        return kLowerEntry;
      }
    }
  }
  return kValid;
}

// Scans `count` entries of `width` doubles each (1 real, 2 complex) for the
// first NaN and, only if there is none, for the first infinity.  Returns
// kNaN, kInfinity or kValid, and the entry in *where (from 0).
int scan_values(const double *v, long long count, int width, long long *where) {
  const long long doubles = count * width;
  for (long long k = 0; k < doubles; ++k) {
    if (v[k] != v[k]) {
      *where = k / width;
      return kNaN;
    }
  }
  for (long long k = 0; k < doubles; ++k) {
    if (std::fabs(v[k]) > DBL_MAX) {
      *where = k / width;
      return kInfinity;
    }
  }
  return kValid;
}

int check_matrix(bool complex_values, const int *mtype, const int *n, const void *a, const int *ia,
                 const int *ja) {
  if (mtype == nullptr) {
    say("Invalid NULL pointer argument");
    return kArgument;
  }
  if (!complex_values && !is_real_type(*mtype)) {
    say("[VELMORA]: CHK Given matrix type is not real: %d", *mtype);
    return kArgument;
  }
  if (complex_values && !is_complex_type(*mtype)) {
    char text[64];
    std::snprintf(text, sizeof text, "Given matrix type is not complex: %d", *mtype);
    say("[VELMORA]: CHK %s", text);
    return kArgument;
  }
  const int code = check_structure(*mtype, n, ia, ja);
  if (code != kValid) return code;
  if (a == nullptr) {
    say("[VELMORA]: CHK Invalid NULL pointer argument");
    return kArgument;
  }
  long long where = 0;
  const int found =
      scan_values(static_cast<const double *>(a), ia[*n] - 1, complex_values ? 2 : 1, &where);
  if (found == kNaN) {
    say("Matrix contains NaN elements; first Nan at index %d ", static_cast<int>(where + 1));
  } else if (found == kInfinity) {
    say("Matrix contains inf elements; first inf at index %d ", static_cast<int>(where + 1));
  }
  return found;
}

int check_vector(bool complex_values, const int *n, const int *nrhs, const void *b) {
  if (n == nullptr || nrhs == nullptr || b == nullptr) return kValid;
  const long long count = static_cast<long long>(*n) * *nrhs;
  if (count < 1) return kValid;
  if (*n < 1) {
    say_vector("Invalid dimension: %d (must be >=1)", *n);
    return kArgument;
  }
  long long where = 0;
  const int found =
      scan_values(static_cast<const double *>(b), count, complex_values ? 2 : 1, &where);
  const int rhs = static_cast<int>(where / *n + 1), row = static_cast<int>(where % *n + 1);
  if (found == kNaN) {
    say_vector("RHS contains NaN elements; first inf in RHS %d at index %d ", rhs, row);
  } else if (found == kInfinity) {
    say_vector("RHS contains inf elements; first inf in RHS %d at index %d ", rhs, row);
  }
  return found;
}

// Smallest and largest absolute value (modulus of complex entries) of
// `count` entries; a zero counts in the minimum.
void abs_range(const double *v, long long count, int width, double *lo, double *hi) {
  *lo = HUGE_VAL;
  *hi = 0.0;
  for (long long k = 0; k < count; ++k) {
    const double m = width == 2 ? std::hypot(v[2 * k], v[2 * k + 1]) : std::fabs(v[k]);
    if (m < *lo) *lo = m;
    if (m > *hi) *hi = m;
  }
}

int print_stats(bool complex_values, const int *mtype, const int *n, const void *a, const int *ia,
                const int *ja, const int *nrhs, const void *b) {
  int code = check_matrix(complex_values, mtype, n, a, ia, ja);
  if (code != kValid) return code;
  code = check_vector(complex_values, n, nrhs, b);
  if (code != kValid) return code;

  const int width = complex_values ? 2 : 1;
  const int len_a = ia[*n] - 1;
  VM_SPARSE_ASSERT_TEXT(len_a > 0, "len_a > 0", "velmora_printstats");
  std::printf("[VELMORA]: Matrix type      : %s\n", type_name(*mtype));
  std::printf("[VELMORA]: Matrix dimension : %d\n", *n);
  std::printf("[VELMORA]: Matrix non-zeros : %d\n", len_a);
  double lo = 0.0, hi = 0.0;
  abs_range(static_cast<const double *>(a), len_a, width, &lo, &hi);
  std::printf("[VELMORA]: Abs. coeff. range: min %8.2e  max %8.2e\n", lo, hi);
  if (b != nullptr && nrhs != nullptr) {
    const double *column = static_cast<const double *>(b);
    for (int k = 0; k < *nrhs; ++k, column += static_cast<long long>(width) * *n) {
      abs_range(column, *n, width, &lo, &hi);
      std::printf("[VELMORA]: RHS no. %d:  min %8.2e  max %8.2e\n", k + 1, lo, hi);
    }
  }
  std::fflush(stdout);
  return kValid;
}

void store(int *error, int code) {
  if (error != nullptr) *error = code;
}

}  // namespace

namespace entry {

void velmora_chkmatrix(const int *mtype, const int *n, const void *a, const int *ia, const int *ja,
                       int *error) {
  store(error, check_matrix(false, mtype, n, a, ia, ja));
}

void velmora_chkmatrix_z(const int *mtype, const int *n, const void *a, const int *ia,
                         const int *ja, int *error) {
  store(error, check_matrix(true, mtype, n, a, ia, ja));
}

void velmora_chkvec(const int *n, const int *nrhs, const void *b, int *error) {
  store(error, check_vector(false, n, nrhs, b));
}

void velmora_chkvec_z(const int *n, const int *nrhs, const void *b, int *error) {
  store(error, check_vector(true, n, nrhs, b));
}

void velmora_printstats(const int *mtype, const int *n, const void *a, const int *ia, const int *ja,
                        const int *nrhs, const void *b, int *error) {
  store(error, print_stats(false, mtype, n, a, ia, ja, nrhs, b));
}

void velmora_printstats_z(const int *mtype, const int *n, const void *a, const int *ia,
                          const int *ja, const int *nrhs, const void *b, int *error) {
  store(error, print_stats(true, mtype, n, a, ia, ja, nrhs, b));
}

}  // namespace entry

}  // namespace vm
