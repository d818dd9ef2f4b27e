// fuzz_velmora.cpp - the public call on one handle with a decoded matrix.
//
// The bytes give the type, the matrix (fuzz_input.h), the number of
// right-hand sides and of factor rows, changes to the control slots (in
// and out of their ranges), the contents of perm (a permutation, a mask or
// anything), and a sequence of phases (legal, query, release, unknown),
// each at msglvl 0 or 1, with values changed between some calls.  The
// handle is always released with phase -1 at the end.
//
// Besides what the sanitizers see, each call must leave the caller's
// pattern and values as they were (perm, b and x may change as the
// control slots allow) and answer with one of the result codes.
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "velmora.h"

namespace {

// Slots a caller sets, and values in and out of their ranges.
constexpr int kSlots[] = {1,  2,  3,  4,  5,  6,  8,  10, 11, 12, 13, 18, 21, 24, 25, 26, 27,
                          28, 29, 30, 31, 32, 33, 34, 35, 36, 38, 40, 51, 52, 53, 54, 56, 60};
constexpr int kValues[] = {0,  1,   2,   3,    4,    5,          -1,
                           -2, 8,   10,  13,   16,   20,         31,
                           61, -61, 100, -100, 1000, 2147483647, -2147483647 - 1};
constexpr int kPhases[] = {11, 12, 13, 22, 23, 33, 13, 33, 0, -1, -2, -3, -22, 1, 7, 21, 34, 44};

bool known_result(int error, int n, bool diagonal) {
  if (error == 0 || (error <= -1 && error >= -10)) return true;
  // A diagonal matrix answers with its failing row, either sign.
  return diagonal && std::abs(error) <= n;
}

[[noreturn]] void fail(const char *what, int phase, int error) {
  std::fprintf(stderr, "fuzz_velmora: %s (phase %d, error %d)\n", what, phase, error);
  std::abort();
}

bool same_values(const std::vector<double> &p, const std::vector<double> &q) {
  if (p.size() != q.size()) return false;
  for (std::size_t k = 0; k < p.size(); ++k)
    if (!(p[k] == q[k] || (std::isnan(p[k]) && std::isnan(q[k])))) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  vmfuzz::ByteReader r(data, size);
  int mtype = r.pick(vmfuzz::kTypes);
  vmfuzz::Matrix m = vmfuzz::decode_matrix(r, mtype);
  int n = m.n;
  const int nrhs_max = 1 + r.below(3);
  int nrhs = nrhs_max;
  int maxfct = 1 + r.below(2);
  int mnum = 1 + r.below(maxfct);

  // FUZZ_TRACE set: each call is listed on standard error, for triage.
  static const bool trace = std::getenv("FUZZ_TRACE") != nullptr;
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int solver = 0, error = 0, msglvl = 0;
  velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  const int changes = r.below(6);
  for (int k = 0; k < changes; ++k) {
    const int slot = r.pick(kSlots);
    iparm[static_cast<std::size_t>(slot - 1)] = r.pick(kValues);
    if (trace)
      std::fprintf(stderr, "iparm(%d) = %d\n", slot, iparm[static_cast<std::size_t>(slot - 1)]);
  }

  std::vector<int> perm(static_cast<std::size_t>(n));
  switch (r.below(3)) {
    case 0:  // a permutation
      for (int i = 0; i < n; ++i) perm[static_cast<std::size_t>(i)] = i + 1;
      for (int i = n - 1; i > 0; --i)
        std::swap(perm[static_cast<std::size_t>(i)], perm[r.below(i + 1)]);
      break;
    case 1:  // a mask
      for (auto &v : perm) v = r.below(2);
      break;
    default:  // anything
      for (auto &v : perm) v = r.below(n + 3) - 1;
      break;
  }

  const std::size_t len = static_cast<std::size_t>(n) * nrhs_max * m.width;
  std::vector<double> b(len), x(len, 0.0);
  for (std::size_t k = 0; k < len; ++k)
    b[k] = vmfuzz::decode_value(r.byte() ^ 8);  // spent bytes: ordinary values
  const std::vector<int> ia0 = m.ia, ja0 = m.ja;
  const bool diagonal = m.ia[static_cast<std::size_t>(n)] - 1 == n;

  auto call = [&](int phase) {
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
            perm.data(), &nrhs, iparm.data(), &msglvl, b.data(), x.data(), &error, dparm.data());
    if (trace)
      std::fprintf(stderr, "mtype %d n %d nnz %d nrhs %d maxfct %d mnum %d phase %d: error %d\n",
                   mtype, n, m.ia[static_cast<std::size_t>(n)] - 1, nrhs, maxfct, mnum, phase,
                   error);
    if (m.ia != ia0 || m.ja != ja0) fail("the caller's pattern changed", phase, error);
    if (phase != -2 && phase != -3 && !known_result(error, n, diagonal))
      fail("unknown result code", phase, error);
  };

  const int steps = 1 + r.below(6);
  for (int s = 0; s < steps; ++s) {
    const int phase = r.pick(kPhases);
    msglvl = r.below(8) == 0 ? 1 : 0;
    const int what = r.below(8);
    if (what == 0) nrhs = r.below(nrhs_max + 1);  // a careless count, within the arrays
    if (what == 1 && !m.a.empty())
      m.a[static_cast<std::size_t>(r.byte()) % m.a.size()] = vmfuzz::decode_value(r.byte());
    const std::vector<double> a0 = m.a;
    call(phase);
    // Selected inversion of a diagonal matrix returns the inverse in a.
    if (phase != -22 && !same_values(m.a, a0)) fail("the caller's values changed", phase, error);
  }
  // Release; a release of an empty handle marks it, and that is released too.
  msglvl = 0;
  call(-1);
  if (pt[1] != nullptr) call(-1);
  if (pt[1] != nullptr) fail("the handle was not released", -1, error);
  return 0;
}
