// fuzz_checkers.cpp - velmora_chkmatrix, velmora_chkvec and
// velmora_printstats, real and complex, on decoded input.
//
// The bytes choose the call, the type (valid or not), the order (the
// decoded one, or 0 or -1), null pointers, the matrix (fuzz_input.h) and
// the right-hand sides.  Every answer must be one of the checkers' codes.
// velmora_printstats is given only matrices with at least one entry: a
// matrix without any stops on the assertion "len_a > 0" by design.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "fuzz_input.h"
#include "velmora.h"

namespace {

constexpr int kTypes[] = {1, 2, -2, 3, 4, -4, 6, 11, 13, 0, 5, -1, 12, 99};

bool checker_code(int code) {
  switch (code) {
    case 0:
    case 10:
    case 100:
    case 101:
    case 200:
    case 201:
    case 202:
    case 300:
    case 301:
      return true;
    default:
      return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  vmfuzz::ByteReader r(data, size);
  const int call = r.below(6);
  const bool complex_values = call % 2 == 1;
  const int mtype = r.pick(kTypes);
  // The decoder's storage follows the values' kind, whatever the type says.
  vmfuzz::Matrix m = vmfuzz::decode_matrix(r, complex_values ? 13 : 11);
  if (r.below(2)) m = vmfuzz::decode_matrix(r, complex_values ? 4 : 2);
  int n = m.n;
  switch (r.below(8)) {
    case 0:
      n = 0;
      break;
    case 1:
      n = -1;
      break;
    default:
      break;
  }
  const unsigned nulls = r.below(16) == 0 ? r.byte() : 0;
  const int *ia = nulls & 1 ? nullptr : m.ia.data();
  const int *ja = nulls & 2 ? nullptr : m.ja.data();
  const double *a = nulls & 4 ? nullptr : m.a.data();

  int nrhs = r.below(4);
  if (r.below(8) == 0) nrhs -= 2;
  const std::size_t len =
      static_cast<std::size_t>(m.n) * static_cast<std::size_t>(nrhs > 0 ? nrhs : 0) * m.width;
  std::vector<double> b(len + 1);
  for (double &v : b) v = vmfuzz::decode_value(r.byte() ^ 8);
  const double *bp = nulls & 8 ? nullptr : b.data();
  // The vector calls read n*nrhs values: n from the matrix or below 1.
  int vn = n;

  int error = -12345;
  switch (call) {
    case 0:
      velmora_chkmatrix(&mtype, &n, a, ia, ja, &error);
      break;
    case 1:
      velmora_chkmatrix_z(&mtype, &n, a, ia, ja, &error);
      break;
    case 2:
      velmora_chkvec(&vn, &nrhs, bp, &error);
      break;
    case 3:
      velmora_chkvec_z(&vn, &nrhs, bp, &error);
      break;
    default: {
      int check = 0;
      if (complex_values)
        velmora_chkmatrix_z(&mtype, &n, a, ia, ja, &check);
      else
        velmora_chkmatrix(&mtype, &n, a, ia, ja, &check);
      if (check == 0 && m.ia[static_cast<std::size_t>(n)] - 1 <= 0) return 0;
      if (complex_values)
        velmora_printstats_z(&mtype, &n, a, ia, ja, &nrhs, bp, &error);
      else
        velmora_printstats(&mtype, &n, a, ia, ja, &nrhs, bp, &error);
      break;
    }
  }
  if (!checker_code(error)) {
    std::fprintf(stderr, "fuzz_checkers: call %d answered %d\n", call, error);
    std::abort();
  }
  return 0;
}
