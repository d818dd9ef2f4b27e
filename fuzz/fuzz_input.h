// fuzz_input.h - turns fuzz bytes into the arguments of a call.
//
// A ByteReader hands out the bytes one at a time (zeros once they run out),
// so that every byte string decodes to some input and a mutation of one
// byte changes one decision.  decode_matrix reads a small CSR matrix of a
// given type: row lengths, columns (one past each end of 1..n included),
// value codes (NaN, infinities, zero, extremes, ordinary values), then the
// repairs a sound caller would have made (sorted unique columns, the
// diagonal present and dominant, the upper triangle of a symmetric type)
// as chosen by one byte, then up to three faults of the kinds callers make.
// encode_matrix writes the bytes that decode, with chosen repairs and no
// fault, to a given matrix; the seed corpus is made with it.
//
// The arrays are always as long as the row pointers say (and longer), so
// that everything the library reads lies inside them: reading beyond the
// caller's arrays is the caller's fault, not the library's.
#ifndef VELMORA_FUZZ_INPUT_H
#define VELMORA_FUZZ_INPUT_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace vmfuzz {

class ByteReader {
 public:
  ByteReader(const std::uint8_t *data, std::size_t size) : data_(data), size_(size) {}
  std::uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  // A number in 0..count-1.
  int below(int count) { return count > 0 ? byte() % count : 0; }
  template <typename T, std::size_t N>
  T pick(const T (&table)[N]) {
    return table[byte() % N];
  }
  bool done() const { return pos_ >= size_; }

 private:
  const std::uint8_t *data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

constexpr int kMaxOrder = 24;  // largest n of a decoded matrix
constexpr int kMaxRowLen = 8;  // entries a row is given before repairs
constexpr int kTypes[] = {1, 2, -2, 3, 4, -4, 6, 11, 13};

inline bool complex_type(int mtype) {
  return mtype == 3 || mtype == 4 || mtype == -4 || mtype == 6 || mtype == 13;
}
inline bool upper_storage(int mtype) {
  return mtype == 2 || mtype == -2 || mtype == 4 || mtype == -4 || mtype == 6;
}

// Value codes 0..7 are the special values, the rest (c - 136) / 16.
inline double decode_value(std::uint8_t c) {
  switch (c) {
    case 0:
      return std::numeric_limits<double>::quiet_NaN();
    case 1:
      return std::numeric_limits<double>::infinity();
    case 2:
      return -std::numeric_limits<double>::infinity();
    case 3:
      return 0.0;
    case 4:
      return 1e-300;
    case 5:
      return -1e300;
    case 6:
      return std::numeric_limits<double>::denorm_min();
    case 7:
      return 1e300;
    default:
      return (static_cast<int>(c) - 136) / 16.0;
  }
}
inline std::uint8_t encode_value(double v) {
  const double code = std::round(v * 16.0) + 136.0;
  if (!(code >= 8.0)) return 8;
  return static_cast<std::uint8_t>(std::min(code, 255.0));
}

// Repairs chosen by the repair byte.
enum Repair : std::uint8_t {
  kSortUnique = 1,  // columns sorted, repeats dropped, those out of range dropped
  kDiagonal = 2,    // every row holds its diagonal
  kUpper = 4,       // symmetric types: entries below the diagonal moved to their mirror
  kDominant = 8,    // finite values, the diagonal larger than the rest of its row
  kAllRepairs = 15,
};

struct Matrix {
  int mtype = 11;
  int n = 1;
  int width = 1;  // doubles per value
  std::vector<int> ia, ja;
  std::vector<double> a;
};

namespace detail {

struct Entry {
  int col;
  double re, im;
};

inline void repair(Matrix &m, std::vector<std::vector<Entry>> &rows, int flags) {
  const int n = m.n;
  if ((flags & kUpper) && upper_storage(m.mtype)) {
    for (int i = 0; i < n; ++i) {
      auto &row = rows[i];
      for (std::size_t k = 0; k < row.size();) {
        const int j = row[k].col - 1;
        if (j >= 0 && j < i) {
          rows[j].push_back(Entry{i + 1, row[k].re, row[k].im});
          row.erase(row.begin() + static_cast<std::ptrdiff_t>(k));
        } else {
          ++k;
        }
      }
    }
  }
  if (flags & kDiagonal)
    for (int i = 0; i < n; ++i) {
      auto &row = rows[i];
      if (std::none_of(row.begin(), row.end(), [&](const Entry &e) { return e.col == i + 1; }))
        row.push_back(Entry{i + 1, 1.0, 0.0});
    }
  if (flags & kSortUnique)
    for (auto &row : rows) {
      row.erase(std::remove_if(row.begin(), row.end(),
                               [&](const Entry &e) { return e.col < 1 || e.col > n; }),
                row.end());
      std::stable_sort(row.begin(), row.end(),
                       [](const Entry &x, const Entry &y) { return x.col < y.col; });
      row.erase(std::unique(row.begin(), row.end(),
                            [](const Entry &x, const Entry &y) { return x.col == y.col; }),
                row.end());
    }
  if (flags & kDominant) {
    // Both the row and, for symmetric storage, the mirrored column count.
    std::vector<double> sum(static_cast<std::size_t>(n), 0.0);
    for (int i = 0; i < n; ++i)
      for (auto &e : rows[i]) {
        if (!std::isfinite(e.re) || std::abs(e.re) > 1e3) e.re = 0.5;
        if (!std::isfinite(e.im) || std::abs(e.im) > 1e3) e.im = 0.25;
        if (e.col == i + 1 || e.col < 1 || e.col > n) continue;
        const double mod = std::hypot(e.re, e.im);
        sum[static_cast<std::size_t>(i)] += mod;
        if (upper_storage(m.mtype)) sum[static_cast<std::size_t>(e.col - 1)] += mod;
      }
    const bool definite = m.mtype == 2 || m.mtype == 4;
    const bool hermitian = m.mtype == 4 || m.mtype == -4;
    for (int i = 0; i < n; ++i)
      for (auto &e : rows[i])
        if (e.col == i + 1) {
          const double sign = definite || e.re >= 0 ? 1.0 : -1.0;
          e.re = sign * (sum[static_cast<std::size_t>(i)] + 1.0 + std::abs(e.re));
          if (hermitian) e.im = 0.0;
        }
  }
}

}  // namespace detail

// Fault kinds that follow the repairs.
inline void apply_fault(Matrix &m, int kind, int where) {
  const int n = m.n;
  // Entries as written (an earlier fault may have moved the row pointers).
  const int nnz = static_cast<int>(m.ja.size());
  const int row = where % n;
  const int k = nnz > 0 ? where % nnz : 0;
  switch (kind % 9) {
    case 0:  // a column repeated
      if (k > 0) m.ja[static_cast<std::size_t>(k)] = m.ja[static_cast<std::size_t>(k) - 1];
      break;
    case 1:  // two columns exchanged
      if (k > 0)
        std::swap(m.ja[static_cast<std::size_t>(k)], m.ja[static_cast<std::size_t>(k) - 1]);
      break;
    case 2:  // a column outside 1..n
      if (nnz > 0) m.ja[static_cast<std::size_t>(k)] = where % 2 ? 0 : n + 1 + where % 3;
      break;
    case 3:  // row pointers that decrease
      std::swap(m.ia[static_cast<std::size_t>(row)], m.ia[static_cast<std::size_t>(row) + 1]);
      break;
    case 4:  // the first row pointer not 1
      m.ia[0] = where % 3;
      break;
    case 5:  // the first entry of a row moved to column 1
      if (nnz > 0) m.ja[static_cast<std::size_t>(k)] = 1;
      break;
    case 6:  // a NaN or an infinity
      if (nnz > 0)
        m.a[static_cast<std::size_t>(k) * m.width + (where / 8) % m.width] =
            where % 2 ? std::numeric_limits<double>::quiet_NaN()
                      : -std::numeric_limits<double>::infinity();
      break;
    case 7: {  // the last row pointer beyond the entries written
      const int extra = 1 + where % 5;
      m.ia[static_cast<std::size_t>(n)] += extra;
      m.ja.resize(m.ja.size() + static_cast<std::size_t>(extra), 1 + where % n);
      m.a.resize(m.a.size() + static_cast<std::size_t>(extra * m.width), 1.0);
      break;
    }
    default:  // a whole row emptied into its neighbour (a missing diagonal)
      if (row + 1 < n)
        m.ia[static_cast<std::size_t>(row) + 1] = m.ia[static_cast<std::size_t>(row)];
      break;
  }
}

// Reads a matrix of type mtype from r.
inline Matrix decode_matrix(ByteReader &r, int mtype) {
  Matrix m;
  m.mtype = mtype;
  m.width = complex_type(mtype) ? 2 : 1;
  m.n = 1 + r.below(kMaxOrder);
  const int n = m.n;
  std::vector<std::vector<detail::Entry>> rows(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) {
    const int len = r.below(kMaxRowLen + 1);
    for (int k = 0; k < len; ++k) {
      const int col = r.below(n + 2);  // 0 and n+1 lie outside
      const double re = decode_value(r.byte());
      const double im = m.width == 2 ? decode_value(r.byte()) : 0.0;
      rows[static_cast<std::size_t>(i)].push_back(detail::Entry{col, re, im});
    }
  }
  detail::repair(m, rows, r.byte());
  m.ia.push_back(1);
  for (const auto &row : rows) {
    for (const auto &e : row) {
      m.ja.push_back(e.col);
      m.a.push_back(e.re);
      if (m.width == 2) m.a.push_back(e.im);
    }
    m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
  }
  const int faults = r.below(4);
  for (int f = 0; f < faults; ++f) {
    const int kind = r.byte();
    apply_fault(m, kind, r.byte());
  }
  // Room for every entry any row pointer names, and never empty.
  const int top = *std::max_element(m.ia.begin(), m.ia.end());
  const std::size_t room = static_cast<std::size_t>(std::max(top, 2));
  if (m.ja.size() < room) m.ja.resize(room, 1);
  if (m.a.size() < room * m.width) m.a.resize(room * m.width, 1.0);
  return m;
}

// The bytes decode_matrix reads for `m` (sorted rows, n <= kMaxOrder, at
// most kMaxRowLen entries a row kept), with the given repairs and no fault.
inline void encode_matrix(const Matrix &m, int repairs, std::vector<std::uint8_t> *out) {
  const int n = std::min(m.n, kMaxOrder);
  out->push_back(static_cast<std::uint8_t>(n - 1));
  for (int i = 0; i < n; ++i) {
    std::vector<std::pair<int, std::size_t>> kept;
    for (int k = m.ia[static_cast<std::size_t>(i)] - 1;
         k < m.ia[static_cast<std::size_t>(i) + 1] - 1; ++k)
      if (m.ja[static_cast<std::size_t>(k)] <= n && kept.size() < kMaxRowLen)
        kept.emplace_back(m.ja[static_cast<std::size_t>(k)], static_cast<std::size_t>(k));
    out->push_back(static_cast<std::uint8_t>(kept.size()));
    for (const auto &e : kept) {
      out->push_back(static_cast<std::uint8_t>(e.first));
      out->push_back(encode_value(m.a[e.second * m.width]));
      if (m.width == 2) out->push_back(encode_value(m.a[e.second * m.width + 1]));
    }
  }
  out->push_back(static_cast<std::uint8_t>(repairs));
  out->push_back(0);  // no fault
}

}  // namespace vmfuzz

#endif  // VELMORA_FUZZ_INPUT_H
