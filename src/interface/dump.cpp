// dump.cpp - the debug dumps of the phase driver.
//
// Plain file ("*.iajaa"): n, the nonzero count, ia (n+1 lines), ja, then
// the values when the phase factors or solves, then the right-hand sides
// when it solves.  Coordinate file ("*.mtx"): a Matrix Market header, then
// one line "i j [value]" per entry, every off-diagonal entry also mirrored
// as "j i [value]": the dump takes the rows for the upper triangle of a
// symmetric matrix, so that the file holds the whole matrix.  (For a
// general matrix the mirrored lines add A^T's pattern and values to A's;
// the plain file is the exact copy.)  Values are complex pairs for mtype 3,
// 6 and 13; the Hermitian types are written as if real, their doubles in
// storage order.  The solution file holds n lines: pairs from x for the
// complex types -4, 3, 4, 6, 13, else the doubles of b, where the caller
// keeps the solution with iparm(6) 1.
#include "interface/dump.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "interface/report_error.h"
#include "interface/velmora_c.h"

namespace vm {

namespace {

enum DumpKind { kPlainKind = 0, kCoordinateKind = 1, kSolutionKind = 2 };

// One counter per kind for the life of the process.
std::atomic<int> g_files[3];

bool present(const char *variable) {
  return std::getenv(variable) != nullptr;
}

// The next file name of a kind: "<prefix>_<counter>-phase-<phase>.<ext>".
std::string next_name(DumpKind kind, const char *default_prefix, const char *ext, int phase) {
  const char *given = std::getenv("VELMORA_WRITE_PREFIX");
  const std::string prefix = given ? given : default_prefix;
  const int counter = g_files[kind]++;
  char tail[64];
  std::snprintf(tail, sizeof tail, "_%03d-phase-%02d.%s", counter, phase, ext);
  return prefix + tail;
}

// A file opened for writing, closed on every path.  A failure (at opening
// or while writing) is named at msglvl 1 and leaves the call as it was.
class DumpFile {
 public:
  DumpFile(const std::string &name, const CallArgs &c)
      : name_(name), level_(message_level(c.msglvl)), f_(std::fopen(name.c_str(), "w")) {}
  DumpFile(const DumpFile &) = delete;
  DumpFile &operator=(const DumpFile &) = delete;
  ~DumpFile() {
    const bool closed = f_ != nullptr && std::fclose(f_) == 0;
    if ((!closed || !ok_) && level_ > 0)
      report_line("*** warning velmora: cannot write the debug dump %s", name_.c_str());
  }
  bool open() const { return f_ != nullptr; }
  template <class... Args>
  void put(const char *format, Args... args) {
    if (f_ != nullptr && ok_) ok_ = std::fprintf(f_, format, args...) >= 0;
  }

 private:
  std::string name_;
  int level_;
  std::FILE *f_;
  bool ok_ = true;
};

// The values of the plain and coordinate dumps are pairs for these types.
bool complex_in_dump(int mtype) {
  return mtype == 3 || mtype == 6 || mtype == 13;
}

// A solve-only call need not pass a valid ia: the dump reads the pattern
// only when its pointers and columns stay inside the arrays they index.
bool pattern_readable(int n, const int *ia, const int *ja) {
  if (n < 1 || ia == nullptr || ja == nullptr || ia[0] != 1) return false;
  for (int i = 0; i < n; ++i)
    if (ia[i + 1] < ia[i]) return false;
  return true;
}

void write_plain(const CallArgs &c, int phase, bool values, bool rhs) {
  const int n = *c.n, nnz = c.ia[n] - 1;
  const double *a = static_cast<const double *>(c.a);
  const double *b = static_cast<const double *>(c.b);
  const bool cplx = complex_in_dump(*c.mtype);
  DumpFile f(next_name(kPlainKind, "mat-velmora", "iajaa", phase), c);
  if (!f.open()) return;
  f.put("%d\n", n);
  f.put("%d\n", nnz);
  for (int i = 0; i <= n; ++i) f.put("%d\n", c.ia[i]);
  for (int k = 0; k < nnz; ++k) f.put("%d\n", c.ja[k]);
  if (values) {
    for (std::int64_t k = 0; k < nnz; ++k) {
      if (cplx)
        f.put("%32.24e %32.24e\n", a[2 * k], a[2 * k + 1]);
      else
        f.put("%32.24e\n", a[k]);
    }
  }
  if (rhs) {
    const std::int64_t count = std::int64_t{n} * *c.nrhs;
    for (std::int64_t k = 0; k < count; ++k) {
      if (cplx)
        f.put("%32.24e %32.24e \n", b[2 * k], b[2 * k + 1]);
      else
        f.put("%32.24e\n", b[k]);
    }
  }
}

void write_coordinates(const CallArgs &c, int phase, bool values) {
  const int n = *c.n;
  const double *a = static_cast<const double *>(c.a);
  const bool cplx = complex_in_dump(*c.mtype);
  std::int64_t lines = 0;
  for (int i = 1; i <= n; ++i)
    for (int k = c.ia[i - 1] - 1; k < c.ia[i] - 1; ++k) lines += c.ja[k] == i ? 1 : 2;
  DumpFile f(next_name(kCoordinateKind, "mat-velmora", "mtx", phase), c);
  if (!f.open()) return;
  f.put("%%%%MatrixMarket matrix coordinate %s general\n",
        !values ? "pattern" : (cplx ? "complex" : "real"));
  f.put("%d %d %lld\n", n, n, static_cast<long long>(lines));
  for (int i = 1; i <= n; ++i) {
    for (int k = c.ia[i - 1] - 1; k < c.ia[i] - 1; ++k) {
      const int j = c.ja[k];
      for (int mirror = 0; mirror < (j == i ? 1 : 2); ++mirror) {
        const int r = mirror ? j : i, col = mirror ? i : j;
        if (!values)
          f.put("%d %d\n", r, col);
        else if (cplx)
          f.put("%d %d %32.24e %32.24e\n", r, col, a[2 * std::int64_t{k}],
                a[2 * std::int64_t{k} + 1]);
        else
          f.put("%d %d %32.24e\n", r, col, a[k]);
      }
    }
  }
}

}  // namespace

void dump_input(const CallArgs &c) {
  const int phase = *c.phase;
  const bool plain = present("VELMORA_WRITE_MAT"), coordinates = present("VELMORA_WRITE_MTX");
  if (phase / 10 == 0 || (!plain && !coordinates)) return;
  const int n = c.n ? *c.n : 0;
  if (!pattern_readable(n, c.ia, c.ja)) return;
  // Values from a phase that factors or solves; right-hand sides from one
  // that solves.  What the call did not pass is not written.
  const int last = phase % 10;
  const bool values = (last > 1 || last < -1) && c.a != nullptr;
  const bool rhs = last == 3 && c.b != nullptr && c.nrhs != nullptr && *c.nrhs >= 1;
  if (plain) write_plain(c, phase, values, rhs);
  if (coordinates) write_coordinates(c, phase, values);
}

void dump_solution(const CallArgs &c) {
  const int phase = *c.phase;
  if ((phase != 13 && phase != 23 && phase != 33) || !present("VELMORA_WRITE_SOL")) return;
  const int n = c.n ? *c.n : 0;
  const bool cplx = is_complex_type(*c.mtype);
  const double *v = static_cast<const double *>(cplx ? c.x : c.b);
  if (n < 1 || v == nullptr) return;
  DumpFile f(next_name(kSolutionKind, "sol-velmora", "iajaa", phase), c);
  if (!f.open()) return;
  for (std::int64_t i = 0; i < n; ++i) {
    if (cplx)
      f.put("%32.24e %32.24e \n", v[2 * i], v[2 * i + 1]);
    else
      f.put("%32.24e\n", v[i]);
  }
}

}  // namespace vm
