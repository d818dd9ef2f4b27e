// make_seeds.cpp - the seed corpora of the fuzz targets, from the matrix
// folder.
//
// Usage: make_seeds <matrix folder> <corpus folder>
// Writes <corpus>/mm_reader (files of at most 4 KB as they are, and of
// every readable file its leading block of order at most 24 as a Matrix
// Market file of the same kind), <corpus>/velmora (that block for each
// matrix type of its field, encoded for fuzz_velmora with a solve and a
// second solve, and once with its own values and no diagonal added) and
// <corpus>/checkers (the block for each checker).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "mm_reader.h"

namespace fs = std::filesystem;

namespace {

void write(const fs::path &path, const std::vector<std::uint8_t> &bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

// The leading block of order k of a file, as a Matrix Market file.
std::string leading_block_file(const vmcli::MmData &m, int32_t k) {
  std::string body;
  std::int64_t count = 0;
  for (std::size_t e = 0; e < m.row.size(); ++e) {
    if (m.row[e] >= k || m.col[e] >= k) continue;
    char line[128];
    int len = std::snprintf(line, sizeof line, "%d %d", m.row[e] + 1, m.col[e] + 1);
    if (!m.re.empty()) len += std::snprintf(line + len, sizeof line - len, " %.17g", m.re[e]);
    if (!m.im.empty()) std::snprintf(line + len, sizeof line - len, " %.17g", m.im[e]);
    body += line;
    body += '\n';
    ++count;
  }
  return std::string("%%MatrixMarket matrix coordinate ") + vmcli::to_string(m.field) + " " +
         vmcli::to_string(m.symmetry) + "\n% leading block\n" + std::to_string(k) + " " +
         std::to_string(k) + " " + std::to_string(count) + "\n" + body;
}

// Index of a type in vmfuzz::kTypes.
std::uint8_t type_index(int mtype) {
  const auto *end = std::end(vmfuzz::kTypes);
  return static_cast<std::uint8_t>(std::find(std::begin(vmfuzz::kTypes), end, mtype) -
                                   std::begin(vmfuzz::kTypes));
}

vmfuzz::Matrix as_fuzz_matrix(const vmcli::CsrMatrix &c, int mtype) {
  vmfuzz::Matrix m;
  m.mtype = mtype;
  m.n = c.n;
  m.width = c.complex ? 2 : 1;
  m.ia = c.ia;
  m.ja = c.ja;
  m.a = c.a;
  return m;
}

// fuzz_velmora: type, matrix, two right-hand sides, one factor row, no
// control changed, the identity, then phase 13 and phase 33.
std::vector<std::uint8_t> velmora_seed(const vmfuzz::Matrix &m, int repairs = vmfuzz::kAllRepairs) {
  std::vector<std::uint8_t> s{type_index(m.mtype)};
  vmfuzz::encode_matrix(m, repairs, &s);
  const int n = std::min(m.n, vmfuzz::kMaxOrder);
  s.insert(s.end(), {1, 0, 0, 0, 0});  // nrhs 2, maxfct 1, mnum 1, no change, a permutation
  for (int i = n - 1; i > 0; --i) s.push_back(static_cast<std::uint8_t>(i));  // kept in place
  for (int k = 0; k < n * 2 * m.width; ++k) s.push_back(static_cast<std::uint8_t>(40 + 7 * k));
  s.insert(s.end(), {1, 2, 1, 2, 5, 1, 2});  // two steps: phase 13, phase 33
  return s;
}

// fuzz_checkers: the call, the type, the matrix, no second matrix, the
// order kept, no null pointer, one right-hand side.
std::vector<std::uint8_t> checker_seed(int call, std::uint8_t type, const vmfuzz::Matrix &m) {
  std::vector<std::uint8_t> s{static_cast<std::uint8_t>(call), type};
  vmfuzz::encode_matrix(m, vmfuzz::kAllRepairs, &s);
  s.insert(s.end(), {0, 2, 1, 1, 1});
  for (int k = 0; k < std::min(m.n, vmfuzz::kMaxOrder) * m.width; ++k)
    s.push_back(static_cast<std::uint8_t>(30 + 5 * k));
  return s;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <matrix folder> <corpus folder>\n", argv[0]);
    return 2;
  }
  const fs::path from(argv[1]), to(argv[2]);
  for (const char *sub : {"mm_reader", "velmora", "checkers"}) fs::create_directories(to / sub);
  std::vector<fs::path> files;
  std::error_code ec;
  for (const auto &entry : fs::directory_iterator(from, ec))
    if (entry.path().extension() == ".mtx") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  int written = 0;
  for (const fs::path &file : files) {
    const std::string stem = file.stem().string();
    if (fs::file_size(file, ec) <= 4096)
      fs::copy_file(file, to / "mm_reader" / (stem + ".mtx"), fs::copy_options::overwrite_existing,
                    ec);
    vmcli::MmData m;
    std::string error;
    if (!vmcli::read_matrix_market(file.string(), &m, &error) || m.rows != m.cols || m.rows < 1)
      continue;
    const int32_t k = std::min<int32_t>(m.rows, vmfuzz::kMaxOrder);
    std::ofstream(to / "mm_reader" / (stem + "_block.mtx")) << leading_block_file(m, k);
    vmcli::MmData block;
    std::istringstream in(leading_block_file(m, k));
    if (!vmcli::read_matrix_market(in, stem, &block, &error)) continue;
    const bool complex = block.is_complex();
    vmcli::CsrMatrix full;
    vmcli::FullNotes notes;
    if (!vmcli::to_full_csr(block, complex, &full, &notes, &error)) continue;
    // The decoder's repairs give each type its storage: the whole matrix
    // is written, and a symmetric type keeps its upper triangle.
    const int real_types[] = {11, 1, 2, -2};
    const int complex_types[] = {13, 3, 6, 4, -4};
    const int *types = complex ? complex_types : real_types;
    for (int t = 0; t < (complex ? 5 : 4); ++t) {
      const vmfuzz::Matrix fm = as_fuzz_matrix(full, types[t]);
      write(to / "velmora" / (stem + "_" + std::to_string(types[t])), velmora_seed(fm));
      ++written;
    }
    // As given: only the columns sorted and the storage of the type.
    const vmfuzz::Matrix fm = as_fuzz_matrix(full, types[0]);
    write(to / "velmora" / (stem + "_raw"), velmora_seed(fm, vmfuzz::kSortUnique | vmfuzz::kUpper));
    const std::uint8_t general = complex ? 8 : 7, symmetric = complex ? 4 : 1;
    write(to / "checkers" / (stem + "_matrix"), checker_seed(complex ? 1 : 0, general, fm));
    write(to / "checkers" / (stem + "_sym"), checker_seed(complex ? 1 : 0, symmetric, fm));
    write(to / "checkers" / (stem + "_vector"), checker_seed(complex ? 3 : 2, general, fm));
  }
  std::printf("%d seeds of fuzz_velmora from %zu files\n", written, files.size());
  return 0;
}
