// mm_reader.cpp - Matrix Market reading, conversion to compressed rows, and
// writing of dense arrays, for velmora-solve.
#include "mm_reader.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <system_error>
#include <utility>

namespace vmcli {

const char *to_string(MmFormat format) {
  return format == MmFormat::kCoordinate ? "coordinate" : "array";
}

const char *to_string(MmField field) {
  switch (field) {
    case MmField::kReal:
      return "real";
    case MmField::kComplex:
      return "complex";
    case MmField::kInteger:
      return "integer";
    case MmField::kPattern:
      return "pattern";
  }
  return "?";
}

const char *to_string(MmSymmetry symmetry) {
  switch (symmetry) {
    case MmSymmetry::kGeneral:
      return "general";
    case MmSymmetry::kSymmetric:
      return "symmetric";
    case MmSymmetry::kSkewSymmetric:
      return "skew-symmetric";
    case MmSymmetry::kHermitian:
      return "hermitian";
  }
  return "?";
}

namespace {

// The largest order: n + 1 row pointers must fit the library's int.
constexpr int64_t kMaxOrder = std::numeric_limits<int32_t>::max() - 1;
// The largest count of stored entries, for the same reason.
constexpr int64_t kMaxNonzeros = std::numeric_limits<int32_t>::max() - 1;

bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

std::vector<std::string> split(const std::string &line) {
  std::vector<std::string> words;
  size_t k = 0;
  while (k < line.size()) {
    while (k < line.size() && is_space(line[k])) ++k;
    const size_t start = k;
    while (k < line.size() && !is_space(line[k])) ++k;
    if (k > start) words.push_back(line.substr(start, k - start));
  }
  return words;
}

std::string lower(std::string s) {
  for (char &c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

// Text of the file, quoted for a one-line message: printable characters
// only, at most 40 of them.
std::string quote(const std::string &text) {
  std::string q = "'";
  const size_t limit = 40;
  for (size_t k = 0; k < text.size() && k < limit; ++k) {
    const unsigned char c = static_cast<unsigned char>(text[k]);
    q += (c >= 32 && c < 127) ? static_cast<char>(c) : '?';
  }
  if (text.size() > limit) q += "...";
  return q + "'";
}

std::string trimmed(const std::string &line) {
  size_t a = 0, b = line.size();
  while (a < b && is_space(line[a])) ++a;
  while (b > a && is_space(line[b - 1])) --b;
  return line.substr(a, b - a);
}

bool parse_int(const std::string &word, int64_t *value) {
  if (word.empty()) return false;
  const char *s = word.c_str();
  if (!(std::isdigit(static_cast<unsigned char>(s[0])) || s[0] == '+' || s[0] == '-')) return false;
  errno = 0;
  char *end = nullptr;
  const long long v = std::strtoll(s, &end, 10);
  if (errno != 0 || end != s + word.size()) return false;
  *value = static_cast<int64_t>(v);
  return true;
}

// An integer too large for 64 bits: a sign and digits only.
bool is_long_integer(const std::string &word) {
  size_t k = word.size() > 1 && (word[0] == '+' || word[0] == '-') ? 1 : 0;
  if (k == word.size()) return false;
  for (; k < word.size(); ++k)
    if (!std::isdigit(static_cast<unsigned char>(word[k]))) return false;
  return true;
}

bool parse_real(const std::string &word, double *value) {
  if (word.empty()) return false;
  const char *s = word.c_str();
  char *end = nullptr;
  const double v = std::strtod(s, &end);  // an overflow gives an infinity, refused later
  if (end != s + word.size()) return false;
  *value = v;
  return true;
}

std::string fmt_value(double re, double im, bool complex) {
  char buf[64];
  if (complex)
    std::snprintf(buf, sizeof buf, "(%.6g, %.6g)", re, im);
  else
    std::snprintf(buf, sizeof buf, "%.6g", re);
  return buf;
}

class Reader {
 public:
  Reader(std::istream &in, const std::string &name, std::string *error)
      : in_(in), name_(name), error_(error) {}

  bool run(MmData *out);

 private:
  bool fail(const std::string &what) {
    if (error_ != nullptr) *error_ = name_ + ":" + std::to_string(line_no_) + ": " + what;
    return false;
  }
  // The next line that is neither blank nor a comment.
  bool next_data_line() {
    while (std::getline(in_, line_)) {
      ++line_no_;
      const std::string t = trimmed(line_);
      if (!t.empty() && t[0] != '%') return true;
    }
    return false;
  }
  bool read_banner(MmData *m);
  bool read_size(MmData *m);
  bool read_coordinate(MmData *m);
  bool read_array(MmData *m);
  bool stream_failed() {
    if (in_.bad()) return fail("read error");
    return false;
  }
  // A value of the integer field; one beyond 64 bits is read as a real.
  bool integer_value(const std::string &word, MmData *m, double *v) {
    int64_t iv = 0;
    if (parse_int(word, &iv)) {
      *v = static_cast<double>(iv);
      return true;
    }
    if (!is_long_integer(word) || !parse_real(word, v) || !std::isfinite(*v))
      return fail("value " + quote(word) + " is not an integer (integer field)");
    ++m->integers_as_reals;
    return true;
  }

  std::istream &in_;
  const std::string &name_;
  std::string *error_;
  std::string line_;
  int64_t line_no_ = 0;
};

bool Reader::run(MmData *out) {
  MmData m;
  if (!read_banner(&m) || !read_size(&m)) return false;
  if (!(m.format == MmFormat::kCoordinate ? read_coordinate(&m) : read_array(&m))) return false;
  // Anything but comments and blank lines after the last entry is an error.
  if (next_data_line())
    return fail("more data than the " + std::to_string(m.declared) + " announced " +
                (m.format == MmFormat::kCoordinate ? "entries" : "values") + ": " +
                quote(trimmed(line_)));
  if (in_.bad()) return fail("read error");
  *out = std::move(m);
  return true;
}

bool Reader::read_banner(MmData *m) {
  if (!std::getline(in_, line_)) {
    if (in_.bad()) return fail("read error");
    line_no_ = 1;
    return fail("empty file, no Matrix Market banner");
  }
  line_no_ = 1;
  // Compressed files, named by their first bytes rather than quoted.
  static const struct {
    const char *magic, *kind, *tool;
  } kCompressed[] = {{"\x1f\x8b", "gzip", "gunzip"},
                     {"BZh", "bzip2", "bunzip2"},
                     {"\xfd"
                      "7zXZ",
                      "xz", "unxz"},
                     {"\x28\xb5\x2f\xfd", "zstd", "unzstd"}};
  for (const auto &c : kCompressed)
    if (line_.compare(0, std::strlen(c.magic), c.magic) == 0)
      return fail(std::string("the file is ") + c.kind + "-compressed: decompress it first (" +
                  c.tool + ")");
  const std::vector<std::string> w = split(line_);
  if (w.empty() || lower(w[0]) != "%%matrixmarket")
    return fail("no Matrix Market banner: the first line must begin with %%MatrixMarket, found " +
                quote(trimmed(line_)));
  if (w.size() < 5)
    return fail("incomplete banner " + quote(trimmed(line_)) +
                ": expected %%MatrixMarket matrix <format> <field> <symmetry>");
  const std::string object = lower(w[1]), format = lower(w[2]), field = lower(w[3]),
                    symmetry = lower(w[4]);
  if (object != "matrix") {
    if (object == "vector") return fail("the object 'vector' is not read, only 'matrix'");
    return fail("unknown object " + quote(w[1]) + " in the banner (expected 'matrix')");
  }
  if (format == "coordinate") {
    m->format = MmFormat::kCoordinate;
  } else if (format == "array") {
    m->format = MmFormat::kArray;
  } else {
    return fail("unknown format " + quote(w[2]) + " in the banner (expected coordinate or array)");
  }
  if (field == "real") {
    m->field = MmField::kReal;
  } else if (field == "complex") {
    m->field = MmField::kComplex;
  } else if (field == "integer") {
    m->field = MmField::kInteger;
  } else if (field == "pattern") {
    m->field = MmField::kPattern;
  } else {
    return fail("unknown field " + quote(w[3]) +
                " in the banner (expected real, complex, integer or pattern)");
  }
  if (symmetry == "general") {
    m->symmetry = MmSymmetry::kGeneral;
  } else if (symmetry == "symmetric") {
    m->symmetry = MmSymmetry::kSymmetric;
  } else if (symmetry == "skew-symmetric") {
    m->symmetry = MmSymmetry::kSkewSymmetric;
  } else if (symmetry == "hermitian") {
    m->symmetry = MmSymmetry::kHermitian;
  } else {
    return fail("unknown symmetry " + quote(w[4]) +
                " in the banner (expected general, symmetric, skew-symmetric or hermitian)");
  }
  if (w.size() > 5) return fail("unexpected " + quote(w[5]) + " after the symmetry in the banner");
  if (m->symmetry == MmSymmetry::kHermitian && m->field != MmField::kComplex)
    return fail(std::string("a hermitian matrix needs the complex field, not ") +
                to_string(m->field));
  if (m->symmetry == MmSymmetry::kSkewSymmetric && m->field == MmField::kPattern)
    return fail("a pattern cannot be skew-symmetric");
  if (m->format == MmFormat::kArray && m->field == MmField::kPattern)
    return fail("the array format cannot hold a pattern");
  return true;
}

bool Reader::read_size(MmData *m) {
  if (!next_data_line()) {
    if (stream_failed()) return false;
    return fail("the file ends before the size line");
  }
  const std::vector<std::string> w = split(line_);
  const bool coordinate = m->format == MmFormat::kCoordinate;
  const size_t want = coordinate ? 3 : 2;
  const char *shape = coordinate ? "rows columns entries" : "rows columns";
  if (w.size() != want)
    return fail("the size line needs " + std::to_string(want) + " integers (" + shape +
                "), found " + quote(trimmed(line_)));
  int64_t v[3] = {0, 0, 0};
  for (size_t k = 0; k < want; ++k) {
    if (!parse_int(w[k], &v[k]))
      return fail("the size line needs integers (" + std::string(shape) + "), found " +
                  quote(w[k]));
    if (v[k] < 0) return fail("negative size " + quote(w[k]) + " in the size line");
  }
  if (v[0] > kMaxOrder || v[1] > kMaxOrder)
    return fail("size " + std::to_string(v[0]) + " x " + std::to_string(v[1]) +
                " exceeds the largest order " + std::to_string(kMaxOrder));
  const int64_t rows = v[0], cols = v[1];
  if (m->symmetry != MmSymmetry::kGeneral && rows != cols)
    return fail(std::string("a ") + to_string(m->symmetry) + " matrix must be square, the size " +
                "line says " + std::to_string(rows) + " x " + std::to_string(cols));
  // What the matrix can hold: each position once, one triangle when symmetric.
  int64_t capacity = rows * cols;
  if (m->symmetry == MmSymmetry::kSymmetric || m->symmetry == MmSymmetry::kHermitian)
    capacity = rows * (rows + 1) / 2;
  else if (m->symmetry == MmSymmetry::kSkewSymmetric)
    capacity = rows * (rows - 1) / 2;
  if (capacity < 0) capacity = 0;
  // A symmetric kind may give its entries in either triangle.
  if (coordinate && m->symmetry != MmSymmetry::kGeneral) capacity = rows * cols;
  if (coordinate) {
    if (v[2] > capacity)
      return fail("the size line announces " + std::to_string(v[2]) + " entries, but a " +
                  std::to_string(rows) + " x " + std::to_string(cols) + " " +
                  to_string(m->symmetry) + " matrix holds at most " + std::to_string(capacity));
    m->declared = v[2];
  } else {
    m->declared = capacity;
  }
  m->rows = static_cast<int32_t>(rows);
  m->cols = static_cast<int32_t>(cols);
  // Reserve no more than a modest amount: the file may announce more than it holds.
  const size_t reserve = static_cast<size_t>(std::min<int64_t>(m->declared, int64_t{1} << 20));
  m->row.reserve(reserve);
  m->col.reserve(reserve);
  if (m->field != MmField::kPattern) m->re.reserve(reserve);
  if (m->field == MmField::kComplex) m->im.reserve(reserve);
  return true;
}

bool Reader::read_coordinate(MmData *m) {
  const int nvalues = m->field == MmField::kPattern ? 0 : (m->field == MmField::kComplex ? 2 : 1);
  const char *layout = nvalues == 0   ? "'row column'"
                       : nvalues == 1 ? "'row column value'"
                                      : "'row column real imaginary'";
  const bool lower_only = m->symmetry != MmSymmetry::kGeneral;
  for (int64_t k = 0; k < m->declared; ++k) {
    if (!next_data_line()) {
      if (stream_failed()) return false;
      return fail("the file ends after " + std::to_string(k) + " of the " +
                  std::to_string(m->declared) + " announced entries");
    }
    const std::vector<std::string> w = split(line_);
    if (nvalues == 0 && (w.size() == 3 || w.size() == 4)) {
      m->pattern_values_ignored = true;  // values after a pattern's positions
    } else if (w.size() != static_cast<size_t>(2 + nvalues))
      return fail("entry " + std::to_string(k + 1) + ": expected " + layout + " (" +
                  std::to_string(2 + nvalues) + " numbers), found " + quote(trimmed(line_)));
    int64_t ij[2];
    const char *names[2] = {"row index", "column index"};
    const int64_t bound[2] = {m->rows, m->cols};
    for (int s = 0; s < 2; ++s) {
      if (!parse_int(w[s], &ij[s]))
        return fail(std::string(names[s]) + " " + quote(w[s]) + " is not an integer");
      if (ij[s] < 1 || ij[s] > bound[s])
        return fail(std::string(names[s]) + " " + std::to_string(ij[s]) + " outside 1.." +
                    std::to_string(bound[s]));
    }
    double v[2] = {0.0, 0.0};
    for (int s = 0; s < nvalues; ++s) {
      if (m->field == MmField::kInteger) {
        if (!integer_value(w[2 + s], m, &v[s])) return false;
      } else {
        if (!parse_real(w[2 + s], &v[s]))
          return fail("value " + quote(w[2 + s]) + " is not a number");
        if (!std::isfinite(v[s])) return fail("value " + quote(w[2 + s]) + " is not finite");
      }
    }
    const std::string at = "(" + std::to_string(ij[0]) + ", " + std::to_string(ij[1]) + ")";
    if (lower_only && ij[0] < ij[1]) {  // kept as its mirror below the diagonal
      std::swap(ij[0], ij[1]);
      if (m->symmetry == MmSymmetry::kSkewSymmetric) v[0] = -v[0], v[1] = -v[1];
      if (m->symmetry == MmSymmetry::kHermitian) v[1] = -v[1];
      ++m->upper_entries;
    }
    if (m->symmetry == MmSymmetry::kSkewSymmetric && ij[0] == ij[1] && v[0] != 0.0)
      return fail("diagonal entry " + at + " of a skew-symmetric matrix must be zero");
    m->row.push_back(static_cast<int32_t>(ij[0] - 1));
    m->col.push_back(static_cast<int32_t>(ij[1] - 1));
    if (nvalues > 0) m->re.push_back(v[0]);
    if (nvalues > 1) m->im.push_back(v[1]);
  }
  return true;
}

bool Reader::read_array(MmData *m) {
  const bool complex = m->field == MmField::kComplex;
  const int per_entry = complex ? 2 : 1;
  // Position of the next value: column-major, the lower triangle (without
  // the diagonal when skew-symmetric) for the symmetric kinds.
  int64_t i = 0, j = 0;
  const bool triangle = m->symmetry != MmSymmetry::kGeneral;
  const int64_t first_row_offset = m->symmetry == MmSymmetry::kSkewSymmetric ? 1 : 0;
  if (triangle) i = first_row_offset;
  int64_t entries = 0;
  double pending = 0.0;  // the real part waiting for its imaginary part
  int have = 0;
  while (entries < m->declared) {
    if (!next_data_line()) {
      if (stream_failed()) return false;
      return fail("the file ends after " + std::to_string(entries) + " of the " +
                  std::to_string(m->declared) + " announced values");
    }
    for (const std::string &word : split(line_)) {
      if (entries == m->declared)
        return fail("more data than the " + std::to_string(m->declared) +
                    " announced values: " + quote(word));
      double v = 0.0;
      if (m->field == MmField::kInteger) {
        if (!integer_value(word, m, &v)) return false;
      } else {
        if (!parse_real(word, &v)) return fail("value " + quote(word) + " is not a number");
        if (!std::isfinite(v)) return fail("value " + quote(word) + " is not finite");
      }
      if (++have < per_entry) {
        pending = v;
        continue;
      }
      have = 0;
      const double re = complex ? pending : v;
      const double im = complex ? v : 0.0;
      if (m->symmetry == MmSymmetry::kSkewSymmetric && i == j && re != 0.0)
        return fail("a skew-symmetric matrix has a nonzero diagonal value");
      m->row.push_back(static_cast<int32_t>(i));
      m->col.push_back(static_cast<int32_t>(j));
      m->re.push_back(re);
      if (complex) m->im.push_back(im);
      ++entries;
      if (++i == m->rows) {
        ++j;
        i = triangle ? j + first_row_offset : 0;
      }
    }
  }
  return true;
}

// Builds compressed rows from items emitted twice by `visit` (a first pass
// counts them per row, the second places them); repeated positions are
// summed.  visit(emit) calls emit(row, col, re, im) with zero-based indices.
template <class Visit>
bool build_csr(int32_t n, bool complex, Visit visit, CsrMatrix *out, int64_t *summed,
               std::string *error) {
  struct Item {
    int32_t col;
    double re, im;
  };
  std::vector<int64_t> start(static_cast<size_t>(n) + 1, 0);
  visit([&](int32_t i, int32_t, double, double) { ++start[static_cast<size_t>(i) + 1]; });
  for (int32_t i = 0; i < n; ++i) start[i + 1] += start[i];
  std::vector<Item> items(static_cast<size_t>(start[n]));
  std::vector<int64_t> next(start.begin(), start.end() - 1);
  visit([&](int32_t i, int32_t j, double re, double im) {
    items[static_cast<size_t>(next[i]++)] = Item{j, re, im};
  });
  // Sort each row, then sum repeated columns in place.
  int64_t kept = 0, repeated = 0;
  std::vector<int64_t> row_start(static_cast<size_t>(n) + 1, 0);
  for (int32_t i = 0; i < n; ++i) {
    auto first = items.begin() + start[i], last = items.begin() + start[i + 1];
    std::sort(first, last, [](const Item &x, const Item &y) { return x.col < y.col; });
    row_start[i] = kept;
    for (auto it = first; it != last; ++it) {
      if (kept > row_start[i] && items[static_cast<size_t>(kept - 1)].col == it->col) {
        items[static_cast<size_t>(kept - 1)].re += it->re;
        items[static_cast<size_t>(kept - 1)].im += it->im;
        ++repeated;
      } else {
        items[static_cast<size_t>(kept++)] = *it;
      }
    }
  }
  row_start[n] = kept;
  if (kept > kMaxNonzeros) {
    if (error != nullptr)
      *error = std::to_string(kept) + " nonzeros exceed the 32-bit indices of the library";
    return false;
  }
  CsrMatrix m;
  m.n = n;
  m.complex = complex;
  m.ia.assign(static_cast<size_t>(n) + 1, 1);
  m.ja.resize(static_cast<size_t>(kept));
  m.a.resize(static_cast<size_t>(kept) * (complex ? 2 : 1));
  for (int32_t i = 0; i <= n; ++i) m.ia[i] = static_cast<int32_t>(row_start[i] + 1);
  for (int64_t k = 0; k < kept; ++k) {
    const Item &it = items[static_cast<size_t>(k)];
    m.ja[static_cast<size_t>(k)] = it.col + 1;
    if (complex) {
      m.a[2 * static_cast<size_t>(k)] = it.re;
      m.a[2 * static_cast<size_t>(k) + 1] = it.im;
    } else {
      m.a[static_cast<size_t>(k)] = it.re;
    }
  }
  *out = std::move(m);
  if (summed != nullptr) *summed = repeated;
  return true;
}

// Position of column j (zero-based) in row i, or -1.
int64_t find(const CsrMatrix &m, int32_t i, int32_t j) {
  const auto first = m.ja.begin() + (m.ia[i] - 1), last = m.ja.begin() + (m.ia[i + 1] - 1);
  const auto it = std::lower_bound(first, last, j + 1);
  return (it != last && *it == j + 1) ? static_cast<int64_t>(it - m.ja.begin()) : -1;
}

}  // namespace

bool read_matrix_market(std::istream &in, const std::string &name, MmData *out,
                        std::string *error) {
  Reader reader(in, name, error);
  return reader.run(out);
}

bool read_matrix_market(const std::string &path, MmData *out, std::string *error) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) {
    if (error != nullptr) *error = path + ": is a directory, not a Matrix Market file";
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (error != nullptr) *error = path + ": cannot open: " + std::strerror(errno);
    return false;
  }
  return read_matrix_market(in, path, out, error);
}

bool to_full_csr(const MmData &m, bool as_complex, CsrMatrix *out, FullNotes *notes,
                 std::string *error) {
  if (m.rows != m.cols) {
    if (error != nullptr)
      *error = "the matrix is " + std::to_string(m.rows) + " x " + std::to_string(m.cols) +
               ", not square";
    return false;
  }
  if (m.is_complex() && !as_complex) {
    if (error != nullptr) *error = "complex values need a complex matrix type";
    return false;
  }
  const int32_t n = m.rows;
  const bool pattern = m.field == MmField::kPattern;
  const bool array = m.format == MmFormat::kArray;
  const bool mirror = m.symmetry != MmSymmetry::kGeneral;
  const double mirror_sign = m.symmetry == MmSymmetry::kSkewSymmetric ? -1.0 : 1.0;
  const double mirror_conj = m.symmetry == MmSymmetry::kHermitian ? -1.0 : 1.0;
  FullNotes local;
  auto visit = [&](auto &&emit) {
    for (int64_t k = 0; k < m.size(); ++k) {
      const int32_t i = m.row[static_cast<size_t>(k)], j = m.col[static_cast<size_t>(k)];
      double re = pattern ? 0.0 : m.re[static_cast<size_t>(k)];
      double im = m.is_complex() ? m.im[static_cast<size_t>(k)] : 0.0;
      if (array && i != j && re == 0.0 && im == 0.0) continue;
      if (i == j && m.symmetry == MmSymmetry::kHermitian) im = 0.0;
      emit(i, j, re, im);
      if (mirror && i != j) emit(j, i, mirror_sign * re, mirror_sign * mirror_conj * im);
    }
    // A pattern gets its diagonal; its value is set below.
    if (pattern)
      for (int32_t i = 0; i < n; ++i) emit(i, i, 0.0, 0.0);
  };
  CsrMatrix full;
  int64_t repeated = 0;
  if (!build_csr(n, as_complex, visit, &full, &repeated, error)) return false;
  if (pattern) {
    // The added diagonal is not a repetition of the file's entries.
    int64_t file_diagonal = 0;
    for (int64_t k = 0; k < m.size(); ++k)
      if (m.row[static_cast<size_t>(k)] == m.col[static_cast<size_t>(k)]) ++file_diagonal;
    repeated -= std::min(repeated, file_diagonal);
    std::vector<int64_t> row_count(static_cast<size_t>(n), 0), col_count(row_count);
    for (int32_t i = 0; i < n; ++i)
      for (int32_t k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k) {
        const int32_t j = full.ja[k] - 1;
        if (j == i) continue;
        ++row_count[i];
        ++col_count[j];
      }
    const size_t stride = as_complex ? 2 : 1;
    for (int32_t i = 0; i < n; ++i)
      for (int32_t k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k) {
        const int32_t j = full.ja[k] - 1;
        full.a[stride * k] =
            j == i ? 1.0 + static_cast<double>(std::max(row_count[i], col_count[i])) : -1.0;
      }
    local.pattern_values = true;
  }
  for (int64_t k = 0; k < m.size(); ++k) {
    const size_t s = static_cast<size_t>(k);
    if (array && m.row[s] != m.col[s] && m.re[s] == 0.0 && (!m.is_complex() || m.im[s] == 0.0))
      ++local.dropped_zeros;
    if (m.symmetry == MmSymmetry::kHermitian && m.row[s] == m.col[s] && m.im[s] != 0.0)
      ++local.diagonal_imag;
  }
  local.summed = repeated;
  *out = std::move(full);
  if (notes != nullptr) *notes = local;
  return true;
}

bool to_storage(const CsrMatrix &full, Storage storage, CsrMatrix *out, std::string *error) {
  const int32_t n = full.n;
  const bool complex = full.complex;
  const size_t stride = complex ? 2 : 1;
  auto re = [&](int64_t k) { return full.a[stride * static_cast<size_t>(k)]; };
  auto im = [&](int64_t k) { return complex ? full.a[stride * static_cast<size_t>(k) + 1] : 0.0; };
  if (storage == Storage::kFull) {
    *out = full;
    out->upper = false;
    return true;
  }
  if (storage == Storage::kFullSymmetricPattern) {
    auto visit = [&](auto &&emit) {
      for (int32_t i = 0; i < n; ++i) {
        emit(i, i, 0.0, 0.0);
        for (int32_t k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k) {
          const int32_t j = full.ja[k] - 1;
          emit(i, j, re(k), im(k));
          if (j != i) emit(j, i, 0.0, 0.0);
        }
      }
    };
    if (!build_csr(n, complex, visit, out, nullptr, error)) return false;
    out->upper = false;
    return true;
  }
  const bool hermitian = storage == Storage::kUpperHermitian;
  const char *kind = hermitian ? "Hermitian" : "symmetric";
  for (int32_t i = 0; i < n; ++i)
    for (int32_t k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k) {
      const int32_t j = full.ja[k] - 1;
      if (j == i) {
        if (hermitian && im(k) != 0.0) {
          if (error != nullptr)
            *error = "the matrix is not Hermitian: A(" + std::to_string(i + 1) + "," +
                     std::to_string(i + 1) + ") = " + fmt_value(re(k), im(k), true) +
                     " is not real";
          return false;
        }
        continue;
      }
      const int64_t t = find(full, j, i);
      const double tre = t >= 0 ? re(t) : 0.0, tim = t >= 0 ? im(t) : 0.0;
      const double want_im = hermitian ? -im(k) : im(k);
      if (tre != re(k) || tim != want_im) {
        if (error != nullptr)
          *error = std::string("the matrix is not ") + kind + ": A(" + std::to_string(i + 1) + "," +
                   std::to_string(j + 1) + ") = " + fmt_value(re(k), im(k), complex) + " but A(" +
                   std::to_string(j + 1) + "," + std::to_string(i + 1) +
                   ") = " + fmt_value(tre, tim, complex);
        return false;
      }
    }
  auto visit = [&](auto &&emit) {
    for (int32_t i = 0; i < n; ++i) {
      emit(i, i, 0.0, 0.0);
      for (int32_t k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k) {
        const int32_t j = full.ja[k] - 1;
        if (j >= i) emit(i, j, re(k), im(k));
      }
    }
  };
  if (!build_csr(n, complex, visit, out, nullptr, error)) return false;
  out->upper = true;
  return true;
}

bool to_dense(const MmData &m, bool as_complex, int64_t max_values, std::vector<double> *out,
              std::string *error) {
  if (m.field == MmField::kPattern) {
    if (error != nullptr) *error = "a pattern file holds no values";
    return false;
  }
  if (m.is_complex() && !as_complex) {
    if (error != nullptr) *error = "complex values for a real matrix";
    return false;
  }
  const size_t stride = as_complex ? 2 : 1;
  const int64_t count = static_cast<int64_t>(m.rows) * m.cols * static_cast<int64_t>(stride);
  if (count > max_values) {
    if (error != nullptr)
      *error = "a block of " + std::to_string(m.rows) + " x " + std::to_string(m.cols) +
               " values is too large";
    return false;
  }
  std::vector<double> d(static_cast<size_t>(count), 0.0);
  const double sign = m.symmetry == MmSymmetry::kSkewSymmetric ? -1.0 : 1.0;
  const double conj = m.symmetry == MmSymmetry::kHermitian ? -1.0 : 1.0;
  auto add = [&](int32_t i, int32_t j, double re, double im) {
    const size_t at =
        stride * (static_cast<size_t>(j) * static_cast<size_t>(m.rows) + static_cast<size_t>(i));
    d[at] += re;
    if (as_complex) d[at + 1] += im;
  };
  for (int64_t k = 0; k < m.size(); ++k) {
    const size_t s = static_cast<size_t>(k);
    const double re = m.re[s], im = m.is_complex() ? m.im[s] : 0.0;
    add(m.row[s], m.col[s], re, im);
    if (m.symmetry != MmSymmetry::kGeneral && m.row[s] != m.col[s])
      add(m.col[s], m.row[s], sign * re, sign * conj * im);
  }
  *out = std::move(d);
  return true;
}

bool write_matrix_market_array(const std::string &path, int32_t rows, int32_t cols, bool complex,
                               const double *values, const std::string &comment,
                               std::string *error) {
  std::FILE *f = std::fopen(path.c_str(), "w");
  if (f == nullptr) {
    if (error != nullptr) *error = path + ": cannot write: " + std::strerror(errno);
    return false;
  }
  std::fprintf(f, "%%%%MatrixMarket matrix array %s general\n", complex ? "complex" : "real");
  if (!comment.empty()) std::fprintf(f, "%% %s\n", comment.c_str());
  std::fprintf(f, "%d %d\n", rows, cols);
  const size_t count = static_cast<size_t>(rows) * static_cast<size_t>(cols);
  for (size_t k = 0; k < count; ++k) {
    if (complex)
      std::fprintf(f, "%.17g %.17g\n", values[2 * k], values[2 * k + 1]);
    else
      std::fprintf(f, "%.17g\n", values[k]);
  }
  const bool failed = std::ferror(f) != 0;
  const int closed = std::fclose(f);
  if (failed || closed != 0) {
    if (error != nullptr) *error = path + ": write failed: " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace vmcli
