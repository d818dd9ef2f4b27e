// fuzz_mm_reader.cpp - the Matrix Market reader of velmora-solve.
//
// The bytes are a file.  What the reader accepts goes on through the
// conversions velmora-solve makes: the whole matrix (real and complex),
// each storage of a matrix type, and a dense block.  A refusal must come
// with its one-line message; a matrix read must be what the header says.
// The conversions are skipped for orders above 2^16: the header names the
// order freely and the row pointers of the whole matrix take memory in
// proportion to it, which is the program's to spend.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "mm_reader.h"

namespace {

[[noreturn]] void fail(const char *what, const std::string &detail) {
  std::fprintf(stderr, "fuzz_mm_reader: %s: %s\n", what, detail.c_str());
  std::abort();
}

void check_refusal(bool ok, const std::string &error, const char *what) {
  if (!ok && (error.empty() || error.find('\n') != std::string::npos))
    fail(what, "a refusal without its one line: '" + error + "'");
}

void check_csr(const vmcli::CsrMatrix &c) {
  if (c.ia.size() != static_cast<std::size_t>(c.n) + 1 || c.ia[0] != 1) fail("csr", "row pointers");
  for (int32_t i = 0; i < c.n; ++i) {
    if (c.ia[i + 1] < c.ia[i]) fail("csr", "row pointers decrease");
    for (int32_t k = c.ia[i] - 1; k + 1 < c.ia[i + 1] - 1; ++k)
      if (c.ja[k] >= c.ja[k + 1]) fail("csr", "columns not ascending");
    for (int32_t k = c.ia[i] - 1; k < c.ia[i + 1] - 1; ++k)
      if (c.ja[k] < 1 || c.ja[k] > c.n || (c.upper && c.ja[k] < i + 1))
        fail("csr", "column out of place");
  }
  if (c.ja.size() != static_cast<std::size_t>(c.nnz()) ||
      c.a.size() != static_cast<std::size_t>(c.nnz()) * (c.complex ? 2 : 1))
    fail("csr", "array lengths");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char *>(data), size));
  vmcli::MmData m;
  std::string error;
  const bool ok = vmcli::read_matrix_market(in, "fuzz", &m, &error);
  check_refusal(ok, error, "read");
  if (!ok) return 0;
  if (m.rows < 0 || m.cols < 0 || m.col.size() != m.row.size()) fail("read", "sizes");
  for (std::size_t k = 0; k < m.row.size(); ++k)
    if (m.row[k] < 0 || m.row[k] >= m.rows || m.col[k] < 0 || m.col[k] >= m.cols)
      fail("read", "an entry outside the matrix");

  std::vector<double> dense;
  error.clear();
  check_refusal(vmcli::to_dense(m, m.is_complex(), 1 << 16, &dense, &error), error, "to_dense");
  if (m.rows > (1 << 16) || m.cols > (1 << 16)) return 0;
  for (bool as_complex : {false, true}) {
    vmcli::CsrMatrix full;
    vmcli::FullNotes notes;
    error.clear();
    const bool made = vmcli::to_full_csr(m, as_complex, &full, &notes, &error);
    check_refusal(made, error, "to_full_csr");
    if (!made) continue;
    check_csr(full);
    for (auto storage : {vmcli::Storage::kFull, vmcli::Storage::kFullSymmetricPattern,
                         vmcli::Storage::kUpperSymmetric, vmcli::Storage::kUpperHermitian}) {
      vmcli::CsrMatrix stored;
      error.clear();
      const bool kept = vmcli::to_storage(full, storage, &stored, &error);
      check_refusal(kept, error, "to_storage");
      if (kept) check_csr(stored);
    }
  }
  return 0;
}
