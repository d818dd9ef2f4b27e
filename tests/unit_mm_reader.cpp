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

#include "matrix_folder.h"
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
  VELMORA_NEEDS_MATRIX_FOLDER();
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

TEST(MmReader, DamagedFilesNeverCrash) {
  VELMORA_NEEDS_MATRIX_FOLDER();
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
