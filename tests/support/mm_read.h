/*
 * mm_read.h - a small Matrix Market reader for tests.
 *
 * Reads the coordinate format (real, complex, pattern, integer; general,
 * symmetric, hermitian, skew-symmetric) into zero-based triplets exactly as
 * stored: a symmetric file gives its lower triangle.  Anything malformed (a
 * wrong banner, a missing size, an entry outside the matrix or on the wrong
 * side of a symmetric one, too few or too many entries) is refused with a
 * message.
 */
#ifndef VELMORA_TESTS_MM_READ_H
#define VELMORA_TESTS_MM_READ_H

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace mm {

enum class Field { kReal, kComplex, kPattern, kInteger };
enum class Symmetry { kGeneral, kSymmetric, kHermitian, kSkew };

struct Triplets {
  int32_t m = 0;
  int32_t n = 0;
  Field field = Field::kReal;
  Symmetry symmetry = Symmetry::kGeneral;
  std::vector<int32_t> rows;  // zero-based
  std::vector<int32_t> cols;
  std::vector<double> re;  // empty for a pattern
  std::vector<double> im;  // complex only
  size_t size() const { return rows.size(); }
};

namespace detail {

inline std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

inline bool fail(std::string *error, const std::string &path, const std::string &why) {
  if (error != nullptr) *error = path + ": " + why;
  return false;
}

/* The next line that is neither a comment nor blank. */
inline bool next_data_line(std::istream &in, std::string *line) {
  while (std::getline(in, *line)) {
    const size_t first = line->find_first_not_of(" \t\r");
    if (first != std::string::npos && (*line)[first] != '%') return true;
  }
  return false;
}

}  // namespace detail

/* Read `path`; on failure returns false with a message in *error. */
inline bool read(const std::string &path, Triplets *out, std::string *error) {
  std::ifstream in(path);
  if (!in) return detail::fail(error, path, "cannot open");
  std::string line;
  if (!std::getline(in, line)) return detail::fail(error, path, "empty file");
  std::istringstream banner(line);
  std::string tag, object, format, field, symmetry, extra;
  banner >> tag >> object >> format >> field >> symmetry;
  if (tag != "%%MatrixMarket" || detail::lower(object) != "matrix")
    return detail::fail(error, path, "not a Matrix Market matrix banner");
  if (detail::lower(format) != "coordinate")
    return detail::fail(error, path, "only the coordinate format is read");
  if (banner >> extra) return detail::fail(error, path, "trailing words in the banner");

  Triplets t;
  field = detail::lower(field);
  if (field == "real") {
    t.field = Field::kReal;
  } else if (field == "complex") {
    t.field = Field::kComplex;
  } else if (field == "pattern") {
    t.field = Field::kPattern;
  } else if (field == "integer") {
    t.field = Field::kInteger;
  } else {
    return detail::fail(error, path, "unknown field '" + field + "'");
  }
  symmetry = detail::lower(symmetry);
  if (symmetry == "general") {
    t.symmetry = Symmetry::kGeneral;
  } else if (symmetry == "symmetric") {
    t.symmetry = Symmetry::kSymmetric;
  } else if (symmetry == "hermitian") {
    t.symmetry = Symmetry::kHermitian;
  } else if (symmetry == "skew-symmetric") {
    t.symmetry = Symmetry::kSkew;
  } else {
    return detail::fail(error, path, "unknown symmetry '" + symmetry + "'");
  }
  if (t.symmetry == Symmetry::kHermitian && t.field != Field::kComplex)
    return detail::fail(error, path, "hermitian needs complex values");
  if (t.symmetry == Symmetry::kSkew && t.field == Field::kPattern)
    return detail::fail(error, path, "a pattern cannot be skew-symmetric");

  if (!detail::next_data_line(in, &line)) return detail::fail(error, path, "missing size line");
  std::istringstream size_line(line);
  long long m = -1, n = -1, nnz = -1;
  if (!(size_line >> m >> n >> nnz) || (size_line >> extra))
    return detail::fail(error, path, "size line needs exactly three integers");
  if (m < 0 || n < 0 || nnz < 0 || m > INT32_MAX || n > INT32_MAX || nnz > INT32_MAX)
    return detail::fail(error, path, "size out of range");
  if (t.symmetry != Symmetry::kGeneral && m != n)
    return detail::fail(error, path, "a symmetric matrix must be square");
  t.m = static_cast<int32_t>(m);
  t.n = static_cast<int32_t>(n);

  const int values = t.field == Field::kPattern ? 0 : (t.field == Field::kComplex ? 2 : 1);
  for (long long k = 0; k < nnz; ++k) {
    if (!detail::next_data_line(in, &line))
      return detail::fail(error, path, "fewer entries than announced");
    std::istringstream entry(line);
    long long i = 0, j = 0;
    double v[2] = {0.0, 0.0};
    if (!(entry >> i >> j)) return detail::fail(error, path, "bad entry: " + line);
    for (int s = 0; s < values; ++s) {
      if (!(entry >> v[s])) return detail::fail(error, path, "missing value: " + line);
    }
    if (entry >> extra) return detail::fail(error, path, "trailing data: " + line);
    if (i < 1 || i > m || j < 1 || j > n)
      return detail::fail(error, path, "index outside: " + line);
    if (t.symmetry != Symmetry::kGeneral && i < j)
      return detail::fail(error, path, "entry above the diagonal: " + line);
    if (t.symmetry == Symmetry::kSkew && i == j)
      return detail::fail(error, path, "diagonal entry in a skew matrix: " + line);
    t.rows.push_back(static_cast<int32_t>(i - 1));
    t.cols.push_back(static_cast<int32_t>(j - 1));
    if (values > 0) t.re.push_back(v[0]);
    if (values > 1) t.im.push_back(v[1]);
  }
  if (detail::next_data_line(in, &line))
    return detail::fail(error, path, "more entries than announced");
  *out = std::move(t);
  return true;
}

}  // namespace mm

#endif /* VELMORA_TESTS_MM_READ_H */
