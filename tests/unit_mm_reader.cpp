// The Matrix Market reader of velmora-solve (cli/mm_reader.cpp): every file
// of the matrix folder read with its size and count or refused with one
// line; both formats and every field and symmetry on small texts; the
// conversions to the storage of each matrix type; damaged files never crash.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "mm_reader.h"

namespace {

using vmcli::CsrMatrix;
using vmcli::MmData;
using vmcli::MmField;
using vmcli::MmFormat;
using vmcli::MmSymmetry;
using vmcli::Storage;

const std::string kDir = VELMORA_MATRIX_DIR;

struct Good {
  int32_t rows, cols;
  int64_t entries;
  MmField field;
  MmSymmetry symmetry;
};

const std::map<std::string, Good> &good_files() {
  static const std::map<std::string, Good> files = {
      {"494_bus.mtx", {494, 494, 1080, MmField::kReal, MmSymmetry::kSymmetric}},
      {"GD99_cc.mtx", {105, 105, 149, MmField::kComplex, MmSymmetry::kGeneral}},
      {"LFAT5.mtx", {14, 14, 30, MmField::kReal, MmSymmetry::kSymmetric}},
      {"a0.mtx", {0, 0, 0, MmField::kPattern, MmSymmetry::kGeneral}},
      {"adder_dcop_05.mtx", {1813, 1813, 11097, MmField::kReal, MmSymmetry::kGeneral}},
      {"arrowc.mtx", {100, 100, 298, MmField::kComplex, MmSymmetry::kGeneral}},
      {"bcsstk13.mtx", {2003, 2003, 42943, MmField::kReal, MmSymmetry::kSymmetric}},
      {"bp_1200.mtx", {822, 822, 4726, MmField::kReal, MmSymmetry::kGeneral}},
      {"c.mtx", {3, 3, 5, MmField::kComplex, MmSymmetry::kHermitian}},
      {"cage5.mtx", {37, 37, 233, MmField::kReal, MmSymmetry::kGeneral}},
      {"cha.mtx", {3, 3, 6, MmField::kComplex, MmSymmetry::kHermitian}},
      {"ctina.mtx", {11, 11, 36, MmField::kComplex, MmSymmetry::kGeneral}},
      {"dwt_992.mtx", {992, 992, 8868, MmField::kPattern, MmSymmetry::kSymmetric}},
      {"empty.mtx", {3, 4, 0, MmField::kReal, MmSymmetry::kGeneral}},
      {"impcol_a.mtx", {207, 207, 572, MmField::kReal, MmSymmetry::kGeneral}},
      {"jagmesh7.mtx", {1138, 1138, 4294, MmField::kPattern, MmSymmetry::kSymmetric}},
      {"lfat5b.mtx", {14, 14, 46, MmField::kReal, MmSymmetry::kGeneral}},
      {"olm500.mtx", {500, 500, 1996, MmField::kReal, MmSymmetry::kGeneral}},
      {"pts5ldd03.mtx", {161, 161, 745, MmField::kReal, MmSymmetry::kGeneral}},
      {"rajat19.mtx", {1157, 1157, 5399, MmField::kReal, MmSymmetry::kGeneral}},
      {"reorientation_1.mtx", {677, 677, 3861, MmField::kReal, MmSymmetry::kSymmetric}},
      {"temp.mtx", {180, 180, 2659, MmField::kReal, MmSymmetry::kGeneral}},
      {"w156.mtx", {156, 156, 362, MmField::kComplex, MmSymmetry::kGeneral}},
      {"west0067.mtx", {67, 67, 294, MmField::kReal, MmSymmetry::kGeneral}},
      {"west0479.mtx", {479, 479, 1910, MmField::kReal, MmSymmetry::kGeneral}},
      {"west0497.mtx", {497, 497, 1727, MmField::kReal, MmSymmetry::kGeneral}},
  };
  return files;
}

// The broken files: the line the message names and a piece of its text.
const std::map<std::string, std::pair<int, std::string>> &broken_files() {
  static const std::map<std::string, std::pair<int, std::string>> files = {
      {"mangle1.mtx", {1, "unknown object 'junk'"}},
      {"mangle2.mtx", {1, "unknown format 'junk'"}},
      {"mangle3.mtx", {1, "unknown field 'junk'"}},
      {"mangle4.mtx", {1, "unknown symmetry 'junk'"}},
      {"mangled5.mtx", {1, "hermitian matrix needs the complex field"}},
      {"mangled8.mtx", {4, "the size line needs 3 integers"}},
      {"mangled9.mtx", {4, "must be square"}},
  };
  return files;
}

bool read_text(const std::string &text, MmData *m, std::string *error) {
  std::istringstream in(text);
  return vmcli::read_matrix_market(in, "t.mtx", m, error);
}

// Reads a text that must be refused; returns the message.
std::string refusal(const std::string &text) {
  MmData m;
  std::string error;
  EXPECT_FALSE(read_text(text, &m, &error)) << text;
  EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  return error;
}

MmData must_read(const std::string &text) {
  MmData m;
  std::string error;
  EXPECT_TRUE(read_text(text, &m, &error)) << error;
  return m;
}

CsrMatrix full_of(const MmData &m, bool as_complex = false) {
  CsrMatrix c;
  std::string error;
  EXPECT_TRUE(vmcli::to_full_csr(m, as_complex, &c, nullptr, &error)) << error;
  return c;
}

// Value at (i, j), one-based, of a real matrix; 0 when not stored.
double at(const CsrMatrix &c, int i, int j) {
  for (int k = c.ia[i - 1] - 1; k < c.ia[i] - 1; ++k)
    if (c.ja[k] == j) return c.a[c.complex ? 2 * k : k];
  return 0.0;
}

double at_im(const CsrMatrix &c, int i, int j) {
  for (int k = c.ia[i - 1] - 1; k < c.ia[i] - 1; ++k)
    if (c.ja[k] == j) return c.a[2 * k + 1];
  return 0.0;
}

// Rows ascending, columns strictly ascending in each row, within 1..n.
void expect_valid(const CsrMatrix &c) {
  ASSERT_EQ(c.ia.size(), static_cast<size_t>(c.n) + 1);
  ASSERT_EQ(c.ia[0], 1);
  for (int i = 0; i < c.n; ++i) {
    ASSERT_LE(c.ia[i], c.ia[i + 1]);
    for (int k = c.ia[i] - 1; k < c.ia[i + 1] - 1; ++k) {
      ASSERT_GE(c.ja[k], c.upper ? i + 1 : 1);
      ASSERT_LE(c.ja[k], c.n);
      if (k > c.ia[i] - 1) {
        ASSERT_LT(c.ja[k - 1], c.ja[k]);
      }
    }
  }
  ASSERT_EQ(c.a.size(), c.ja.size() * (c.complex ? 2 : 1));
}

TEST(MmReader, EveryFileOfTheFolder) {
  ASSERT_TRUE(std::filesystem::is_directory(kDir)) << kDir;
  int good = 0, broken = 0;
  for (const auto &entry : std::filesystem::directory_iterator(kDir)) {
    if (entry.path().extension() != ".mtx") continue;
    const std::string name = entry.path().filename().string();
    SCOPED_TRACE(name);
    MmData m;
    std::string error;
    const bool ok = vmcli::read_matrix_market(entry.path().string(), &m, &error);
    if (auto g = good_files().find(name); g != good_files().end()) {
      ++good;
      ASSERT_TRUE(ok) << error;
      EXPECT_EQ(m.rows, g->second.rows);
      EXPECT_EQ(m.cols, g->second.cols);
      EXPECT_EQ(m.declared, g->second.entries);
      EXPECT_EQ(m.size(), g->second.entries);
      EXPECT_EQ(m.field, g->second.field);
      EXPECT_EQ(m.symmetry, g->second.symmetry);
      EXPECT_EQ(m.re.size(), m.field == MmField::kPattern ? 0u : m.row.size());
      EXPECT_EQ(m.im.size(), m.is_complex() ? m.row.size() : 0u);
      if (m.rows != m.cols) continue;
      // The whole matrix and the storage of its matrix types.
      CsrMatrix full;
      ASSERT_TRUE(vmcli::to_full_csr(m, m.is_complex(), &full, nullptr, &error)) << error;
      expect_valid(full);
      EXPECT_EQ(full.n, m.rows);
      if (m.symmetry == MmSymmetry::kGeneral && m.field != MmField::kPattern) {
        EXPECT_EQ(full.nnz(), m.declared);
      }
      if (m.symmetry != MmSymmetry::kGeneral) {
        CsrMatrix upper;
        const Storage s = m.symmetry == MmSymmetry::kHermitian ? Storage::kUpperHermitian
                                                               : Storage::kUpperSymmetric;
        ASSERT_TRUE(vmcli::to_storage(full, s, &upper, &error)) << error;
        expect_valid(upper);
        EXPECT_TRUE(upper.upper);
        int64_t diagonal = 0;
        for (int64_t k = 0; k < m.size(); ++k) diagonal += m.row[k] == m.col[k];
        // The stored triangle, transposed, plus the diagonal entries it lacked.
        EXPECT_EQ(upper.nnz(), m.declared + (m.rows - diagonal));
        int64_t full_diagonal = 0;
        for (int i = 0; i < full.n; ++i)
          for (int k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k)
            full_diagonal += full.ja[k] == i + 1;
        EXPECT_EQ(full.nnz(), 2 * (upper.nnz() - m.rows) + full_diagonal);
      }
      CsrMatrix sym;
      ASSERT_TRUE(vmcli::to_storage(full, Storage::kFullSymmetricPattern, &sym, &error)) << error;
      expect_valid(sym);
    } else if (auto b = broken_files().find(name); b != broken_files().end()) {
      ++broken;
      ASSERT_FALSE(ok);
      EXPECT_EQ(error.find('\n'), std::string::npos) << error;
      const std::string where = entry.path().string() + ":" + std::to_string(b->second.first) + ":";
      EXPECT_EQ(error.rfind(where, 0), 0u) << error;
      EXPECT_NE(error.find(b->second.second), std::string::npos) << error;
    } else {
      ADD_FAILURE() << "a file this test does not know: " << name;
    }
  }
  EXPECT_EQ(good, static_cast<int>(good_files().size()));
  EXPECT_EQ(broken, static_cast<int>(broken_files().size()));
}

TEST(MmReader, HermitianDiagonalImaginaryPartIsDropped) {
  MmData m;
  std::string error;
  ASSERT_TRUE(vmcli::read_matrix_market(kDir + "/cha.mtx", &m, &error)) << error;
  CsrMatrix full;
  vmcli::FullNotes notes;
  ASSERT_TRUE(vmcli::to_full_csr(m, true, &full, &notes, &error)) << error;
  EXPECT_EQ(notes.diagonal_imag, 1);
  EXPECT_EQ(at_im(full, 2, 2), 0.0);
  CsrMatrix upper;
  EXPECT_TRUE(vmcli::to_storage(full, Storage::kUpperHermitian, &upper, &error)) << error;
}

TEST(MmReader, PatternBecomesDiagonallyDominant) {
  for (const char *name : {"dwt_992.mtx", "jagmesh7.mtx"}) {
    SCOPED_TRACE(name);
    MmData m;
    std::string error;
    ASSERT_TRUE(vmcli::read_matrix_market(kDir + "/" + name, &m, &error)) << error;
    CsrMatrix full;
    vmcli::FullNotes notes;
    ASSERT_TRUE(vmcli::to_full_csr(m, false, &full, &notes, &error)) << error;
    EXPECT_TRUE(notes.pattern_values);
    EXPECT_EQ(notes.summed, 0);
    std::vector<double> col_sum(full.n, 0.0);
    for (int i = 0; i < full.n; ++i) {
      double diagonal = 0.0, off = 0.0;
      for (int k = full.ia[i] - 1; k < full.ia[i + 1] - 1; ++k) {
        if (full.ja[k] == i + 1) {
          diagonal = full.a[k];
        } else {
          off += std::abs(full.a[k]);
          col_sum[full.ja[k] - 1] += std::abs(full.a[k]);
        }
      }
      ASSERT_GT(diagonal, off) << "row " << i + 1;
    }
    for (int j = 0; j < full.n; ++j) ASSERT_GT(at(full, j + 1, j + 1), col_sum[j]);
  }
  // A general pattern: dominant by rows and by columns.
  const CsrMatrix g = full_of(
      must_read("%%MatrixMarket matrix coordinate pattern general\n3 3 4\n1 2\n1 3\n2 3\n3 1\n"));
  EXPECT_EQ(g.nnz(), 7);
  EXPECT_EQ(at(g, 1, 1), 3.0);  // two in row 1
  EXPECT_EQ(at(g, 3, 3), 3.0);  // two in column 3
  EXPECT_EQ(at(g, 2, 2), 2.0);
  EXPECT_EQ(at(g, 1, 2), -1.0);
}

TEST(MmReader, CoordinateFieldsAndSymmetries) {
  MmData m = must_read(
      "%%MatrixMarket matrix coordinate integer skew-symmetric\n% comment\n\n3 3 2\n2 1 5\n3 "
      "2 -7\n");
  EXPECT_EQ(m.field, MmField::kInteger);
  CsrMatrix c = full_of(m);
  EXPECT_EQ(c.nnz(), 4);
  EXPECT_EQ(at(c, 2, 1), 5.0);
  EXPECT_EQ(at(c, 1, 2), -5.0);
  EXPECT_EQ(at(c, 2, 3), 7.0);
  std::string error;
  CsrMatrix upper;
  EXPECT_FALSE(vmcli::to_storage(c, Storage::kUpperSymmetric, &upper, &error));
  EXPECT_NE(error.find("not symmetric"), std::string::npos) << error;

  // Repeated entries are summed; CRLF lines and tabs are fine.
  m = must_read(
      "%%MatrixMarket matrix coordinate real general\r\n2 2 3\r\n1\t1 1.5\r\n1 1 2.5\r\n2 1 "
      "-1e-3\r\n");
  vmcli::FullNotes notes;
  ASSERT_TRUE(vmcli::to_full_csr(m, false, &c, &notes, &error)) << error;
  EXPECT_EQ(notes.summed, 1);
  EXPECT_EQ(at(c, 1, 1), 4.0);
  EXPECT_EQ(at(c, 2, 1), -1e-3);

  // A general file with symmetric values serves a symmetric type.
  m = must_read("%%MatrixMarket matrix coordinate real general\n2 2 3\n1 1 4\n1 2 1\n2 1 1\n");
  c = full_of(m);
  ASSERT_TRUE(vmcli::to_storage(c, Storage::kUpperSymmetric, &upper, &error)) << error;
  EXPECT_EQ(upper.nnz(), 3);  // (1,1), (1,2) and an explicit (2,2)
  EXPECT_EQ(at(upper, 2, 2), 0.0);

  // Full storage with a symmetric pattern.
  m = must_read("%%MatrixMarket matrix coordinate real general\n3 3 2\n1 3 2\n2 2 1\n");
  c = full_of(m);
  CsrMatrix sym;
  ASSERT_TRUE(vmcli::to_storage(c, Storage::kFullSymmetricPattern, &sym, &error)) << error;
  expect_valid(sym);
  EXPECT_EQ(sym.nnz(), 5);  // three diagonal, (1,3) and (3,1)
  EXPECT_EQ(at(sym, 1, 3), 2.0);
  EXPECT_EQ(at(sym, 3, 1), 0.0);

  // Upper-case banner words.
  m = must_read("%%MatrixMarket MATRIX Coordinate Complex Hermitian\n2 2 2\n1 1 2 0\n2 1 1 1\n");
  c = full_of(m, true);
  EXPECT_EQ(at_im(c, 1, 2), -1.0);
}

TEST(MmReader, ArrayFormat) {
  // Column-major, general.
  MmData m = must_read("%%MatrixMarket matrix array real general\n2 3\n1\n2\n3\n4\n5\n6\n");
  EXPECT_EQ(m.format, MmFormat::kArray);
  EXPECT_EQ(m.declared, 6);
  std::vector<double> d;
  std::string error;
  ASSERT_TRUE(vmcli::to_dense(m, false, 100, &d, &error)) << error;
  EXPECT_EQ(d, (std::vector<double>{1, 2, 3, 4, 5, 6}));
  EXPECT_FALSE(vmcli::to_dense(m, false, 5, &d, &error));  // larger than allowed

  // Symmetric: the lower triangle by columns; zeros off the diagonal leave the pattern.
  m = must_read("%%MatrixMarket matrix array real symmetric\n3 3\n4\n0\n1\n5\n0\n6\n");
  EXPECT_EQ(m.declared, 6);
  vmcli::FullNotes notes;
  CsrMatrix c;
  ASSERT_TRUE(vmcli::to_full_csr(m, false, &c, &notes, &error)) << error;
  EXPECT_EQ(notes.dropped_zeros, 2);
  EXPECT_EQ(c.nnz(), 5);
  EXPECT_EQ(at(c, 1, 3), 1.0);
  EXPECT_EQ(at(c, 3, 1), 1.0);
  EXPECT_EQ(at(c, 3, 3), 6.0);

  // Skew-symmetric: the strict lower triangle.
  m = must_read("%%MatrixMarket matrix array real skew-symmetric\n3 3\n1\n2\n3\n");
  c = full_of(m);
  EXPECT_EQ(at(c, 2, 1), 1.0);
  EXPECT_EQ(at(c, 1, 2), -1.0);
  EXPECT_EQ(at(c, 3, 2), 3.0);
  EXPECT_EQ(at(c, 2, 3), -3.0);

  // Complex, several values on a line.
  m = must_read("%%MatrixMarket matrix array complex general\n2 1\n1 2 3 4\n");
  ASSERT_TRUE(vmcli::to_dense(m, true, 100, &d, &error)) << error;
  EXPECT_EQ(d, (std::vector<double>{1, 2, 3, 4}));
  EXPECT_FALSE(vmcli::to_dense(m, false, 100, &d, &error));
}

TEST(MmReader, BrokenTextsAreRefusedWithTheirLine) {
  const std::string head = "%%MatrixMarket matrix coordinate real general\n";
  struct Case {
    std::string text, want;
  };
  const std::vector<Case> cases = {
      {"", "t.mtx:1: empty file"},
      {"hello\n", "t.mtx:1: no Matrix Market banner"},
      {"%%MatrixMarket matrix coordinate real\n", "t.mtx:1: incomplete banner"},
      {"%%MatrixMarket vector coordinate real general\n", "'vector' is not read"},
      {"%%MatrixMarket matrix coordinate real general extra\n1 1 0\n", "unexpected 'extra'"},
      {"%%MatrixMarket matrix array pattern general\n1 1\n", "cannot hold a pattern"},
      {"%%MatrixMarket matrix coordinate pattern skew-symmetric\n1 1 0\n", "skew"},
      {"%%MatrixMarket matrix coordinate real hermitian\n1 1 0\n", "needs the complex field"},
      {head, "t.mtx:1: the file ends before the size line"},
      {head + "% only comments\n\n", "ends before the size line"},
      {head + "2 2\n", "t.mtx:2: the size line needs 3 integers"},
      {head + "2 2 1 1\n", "the size line needs 3 integers"},
      {head + "2 x 1\n", "needs integers"},
      {head + "2 2.0 1\n", "needs integers"},
      {head + "-2 2 1\n", "negative size"},
      {head + "99999999999 2 1\n", "exceeds the largest order"},
      {head + "2 2 5\n", "holds at most 4"},
      {"%%MatrixMarket matrix coordinate real symmetric\n2 2 4\n", "holds at most 3"},
      {head + "2 2 2\n1 1 1\n", "t.mtx:3: the file ends after 1 of the 2 announced entries"},
      {head + "2 2 1\n1 1 1\n2 2 2\n", "t.mtx:4: more data than the 1 announced entries"},
      {head + "2 2 1\n1 1\n", "t.mtx:3: entry 1: expected 'row column value'"},
      {head + "2 2 1\n1 1 1 1\n", "expected 'row column value'"},
      {head + "2 2 1\n0 1 1\n", "row index 0 outside 1..2"},
      {head + "2 2 1\n1 3 1\n", "column index 3 outside 1..2"},
      {head + "2 2 1\n1.5 1 1\n", "row index '1.5' is not an integer"},
      {head + "2 2 1\n99999999999999999999 1 1\n", "is not an integer"},
      {head + "2 2 1\n1 1 abc\n", "value 'abc' is not a number"},
      {head + "2 2 1\n1 1 nan\n", "value 'nan' is not finite"},
      {head + "2 2 1\n1 1 1e999\n", "value '1e999' is not finite"},
      {head + "2 2 1\n1 1 1.0x\n", "is not a number"},
      {"%%MatrixMarket matrix coordinate integer general\n1 1 1\n1 1 2.5\n", "not an integer"},
      {"%%MatrixMarket matrix coordinate real symmetric\n2 2 1\n1 2 1\n", "above the diagonal"},
      {"%%MatrixMarket matrix coordinate real skew-symmetric\n2 2 1\n1 1 1\n", "must be zero"},
      {"%%MatrixMarket matrix coordinate real symmetric\n2 3 0\n", "must be square"},
      {"%%MatrixMarket matrix array real general\n2 2\n1\n2\n3\n", "ends after 3 of the 4"},
      {"%%MatrixMarket matrix array real general\n1 1\n1 2\n", "more data than the 1"},
      {"%%MatrixMarket matrix array complex general\n1 1\n1\n", "ends after 0 of the 1"},
      {"%%MatrixMarket matrix array real skew-symmetric\n2 2\n1\n5\n", "more data"},
      {head + std::string("2 2 1\n1 1 \0\n", 12), "t.mtx:3: value '?' is not a number"},
      {head + "2 2 1\n1 1 " + std::string(500, 'x') + "\n", "'xxxxxxxxxx"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.text);
    const std::string error = refusal(c.text);
    EXPECT_NE(error.find(c.want), std::string::npos) << error;
    EXPECT_LT(error.size(), 300u) << error;
  }
  MmData m;
  std::string error;
  EXPECT_FALSE(vmcli::read_matrix_market(kDir + "/no-such-file.mtx", &m, &error));
  EXPECT_NE(error.find("cannot open"), std::string::npos) << error;
  EXPECT_FALSE(vmcli::read_matrix_market(kDir, &m, &error));
  EXPECT_NE(error.find("is a directory"), std::string::npos) << error;
  // A non-square matrix has no full square form.
  ASSERT_TRUE(vmcli::read_matrix_market(kDir + "/empty.mtx", &m, &error)) << error;
  CsrMatrix c;
  EXPECT_FALSE(vmcli::to_full_csr(m, false, &c, nullptr, &error));
  EXPECT_NE(error.find("not square"), std::string::npos) << error;
}

TEST(MmReader, DamagedFilesNeverCrash) {
  std::ifstream in(kDir + "/west0067.mtx", std::ios::binary);
  ASSERT_TRUE(in);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_GT(text.size(), 1000u);
  auto attempt = [](const std::string &t) {
    MmData m;
    std::string error;
    std::istringstream s(t);
    if (vmcli::read_matrix_market(s, "t.mtx", &m, &error)) {
      CsrMatrix c;
      if (vmcli::to_full_csr(m, m.is_complex(), &c, nullptr, &error)) expect_valid(c);
    } else {
      EXPECT_EQ(error.rfind("t.mtx:", 0), 0u) << error;
      EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
  };
  // Every prefix: cut anywhere.
  for (size_t len = 0; len < text.size(); len += 7) attempt(text.substr(0, len));
  // Random bytes changed, lines dropped or doubled.
  std::mt19937 rng(11);
  for (int trial = 0; trial < 3000; ++trial) {
    std::string t = text;
    const int edits = 1 + static_cast<int>(rng() % 4);
    for (int e = 0; e < edits; ++e) {
      const size_t at_pos = rng() % t.size();
      switch (rng() % 4) {
        case 0:
          t[at_pos] = static_cast<char>(rng() % 256);
          break;
        case 1:
          t[at_pos] = "0123456789-+.e \n%"[rng() % 17];
          break;
        case 2:
          t.erase(at_pos, 1 + rng() % 20);
          break;
        default:
          t.insert(at_pos, t.substr(at_pos, 1 + rng() % 40));
          break;
      }
      if (t.empty()) break;
    }
    attempt(t);
  }
}

}  // namespace
