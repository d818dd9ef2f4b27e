/*
 * mm_reader.h - Matrix Market files for the velmora-solve program.
 *
 * Reading: both formats (coordinate, array), every field (real, complex,
 * integer, pattern) and every symmetry (general, symmetric, skew-symmetric,
 * hermitian).  A file is kept as written: zero-based positions in file order,
 * the lower triangle of a symmetric one (an entry given above the diagonal
 * is stored as its mirror).  Compressed files are named as such.  Anything malformed is refused
 * with one line "file:line: what"; whatever the bytes, nothing is thrown but std::bad_alloc when
 * memory runs out.
 *
 * Conversion: to_full_csr expands the stored triangle into the whole matrix
 * (compressed rows, one-based, columns ascending, repeated entries summed);
 * a pattern gets values that make it strictly diagonally dominant.
 * to_storage then gives the form a matrix type of the library takes: full,
 * full with a symmetric pattern, or the upper triangle by rows.
 *
 * Writing: a dense block as a Matrix Market array (the solution).
 */
#ifndef VELMORA_CLI_MM_READER_H
#define VELMORA_CLI_MM_READER_H

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace vmcli {

enum class MmFormat { kCoordinate, kArray };
enum class MmField { kReal, kComplex, kInteger, kPattern };
enum class MmSymmetry { kGeneral, kSymmetric, kSkewSymmetric, kHermitian };

const char *to_string(MmFormat format);
const char *to_string(MmField field);
const char *to_string(MmSymmetry symmetry);

/* A file as written. */
struct MmData {
  MmFormat format = MmFormat::kCoordinate;
  MmField field = MmField::kReal;
  MmSymmetry symmetry = MmSymmetry::kGeneral;
  int32_t rows = 0;
  int32_t cols = 0;
  int64_t declared = 0;  // entries the file holds: coordinate count, or the array's stored count
  std::vector<int32_t> row;  // zero-based, one per entry, in file order
  std::vector<int32_t> col;
  std::vector<double> re;  // empty for a pattern
  std::vector<double> im;  // complex only
  // What the reader took beyond the letter of the format, as other readers
  // do: entries of a symmetric kind given above the diagonal (stored as
  // their mirror), a value column after pattern entries (ignored), integers
  // too large for 64 bits (read as reals).
  int64_t upper_entries = 0;
  bool pattern_values_ignored = false;
  int64_t integers_as_reals = 0;
  bool is_complex() const { return field == MmField::kComplex; }
  int64_t size() const { return static_cast<int64_t>(row.size()); }
};

/*
 * Reads `path` (or the stream `in`, named `name` in messages).  On failure
 * returns false, leaves *out untouched and puts "name:line: what" (one line)
 * in *error.  Values must be finite; an integer field takes integers only.
 */
bool read_matrix_market(const std::string &path, MmData *out, std::string *error);
bool read_matrix_market(std::istream &in, const std::string &name, MmData *out, std::string *error);

/* A square sparse matrix: compressed rows, one-based, columns ascending. */
struct CsrMatrix {
  int32_t n = 0;
  bool complex = false;  // values are (re, im) pairs
  bool upper = false;    // the upper triangle of a symmetric or Hermitian matrix
  std::vector<int32_t> ia{1};
  std::vector<int32_t> ja;
  std::vector<double> a;
  int64_t nnz() const { return static_cast<int64_t>(ia.back()) - 1; }
};

/* What to_full_csr did beyond the plain expansion. */
struct FullNotes {
  int64_t summed = 0;           // repeated positions added together
  int64_t dropped_zeros = 0;    // zero values of an array file left out of the pattern
  int64_t diagonal_imag = 0;    // Hermitian diagonal entries whose imaginary part was dropped
  bool pattern_values = false;  // a pattern file given diagonally dominant values
};

/*
 * The whole square matrix of `m`: symmetric, skew-symmetric and Hermitian
 * files are mirrored; real values become complex ones when as_complex (a
 * complex file needs as_complex).  A pattern gets -1 off the diagonal and
 * 1 + the larger of the row's and column's off-diagonal counts on it.
 * Array files keep their nonzero values only, and the diagonal.
 */
bool to_full_csr(const MmData &m, bool as_complex, CsrMatrix *out, FullNotes *notes,
                 std::string *error);

enum class Storage {
  kFull,                  // as it is
  kFullSymmetricPattern,  // full, with explicit zeros so that the pattern is symmetric
  kUpperSymmetric,        // upper triangle by rows; A must equal its transpose
  kUpperHermitian,        // upper triangle by rows; A must equal its conjugate transpose
};

/*
 * The storage a matrix type takes, from a full matrix.  Every form but kFull
 * stores each diagonal entry (an explicit zero where there was none).
 * Refuses (false, *error) a matrix that is not symmetric or Hermitian as the
 * storage needs, naming an offending pair.
 */
bool to_storage(const CsrMatrix &full, Storage storage, CsrMatrix *out, std::string *error);

/*
 * A dense rows x cols block, column after column, of `m` (a sparse file
 * fills the rest with zeros, a symmetric one is mirrored); (re, im) pairs
 * when as_complex.  Refuses a complex file when !as_complex and a block of
 * more than max_values values.
 */
bool to_dense(const MmData &m, bool as_complex, int64_t max_values, std::vector<double> *out,
              std::string *error);

/* Writes rows x cols values (column after column, pairs when complex) as an array. */
bool write_matrix_market_array(const std::string &path, int32_t rows, int32_t cols, bool complex,
                               const double *values, const std::string &comment,
                               std::string *error);

}  // namespace vmcli

#endif  // VELMORA_CLI_MM_READER_H
