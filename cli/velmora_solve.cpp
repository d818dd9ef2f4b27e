// velmora_solve.cpp - solve A x = b for a Matrix Market file from the shell.
//
//   velmora-solve [options] [MATRIX.mtx]
//
// Reads the matrix (or generates the bundled 3D Laplacian), chooses the
// matrix type from the file's header, builds or reads the right-hand side,
// runs analysis, factorization and solve through the library's one call,
// and prints a summary with the backward error the program computes itself.
// Every failure ends with one line on standard error and a nonzero status.
#include <unistd.h>
#include <velmora.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "accuracy.h"
#include "mm_reader.h"

namespace {

using vmcli::CsrMatrix;
using vmcli::MmData;
using vmcli::MmField;
using vmcli::MmSymmetry;
using vmcli::Storage;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kDefaultGrid = 40;
constexpr int kMaxGrid = 600;
// The largest dense block (right-hand sides, solutions) in doubles: 1 GiB.
constexpr int64_t kMaxBlockValues = int64_t{1} << 27;

const char kUsage[] =
    "usage: velmora-solve [options] [MATRIX.mtx]\n"
    "\n"
    "Solves A x = b for a Matrix Market matrix (coordinate or array; real, integer,\n"
    "pattern or complex; general, symmetric, skew-symmetric or hermitian) with the\n"
    "Velmora direct solver.  Without a file it solves the bundled problem: the 3D\n"
    "7-point Laplacian of a 40 x 40 x 40 grid (64000 unknowns).\n"
    "\n"
    "The matrix type comes from the header: real symmetric tries 2 (positive\n"
    "definite) and falls back to -2 (indefinite) at a non-positive pivot; hermitian\n"
    "4, then -4; complex symmetric 6; general and skew-symmetric 11 (real) or 13\n"
    "(complex).  Pattern files get values that make them diagonally dominant.\n"
    "\n"
    "options:\n"
    "  --rhs FILE      right-hand sides from a Matrix Market file (array or\n"
    "                  coordinate, n rows, one column each); default b = A x for a\n"
    "                  known x, whose error is then reported too\n"
    "  --x-random      the known x is random in [-1, 1] (fixed seed), not all ones\n"
    "  --nrhs K        K right-hand sides (default 1, or the columns of --rhs)\n"
    "  --mtype T       matrix type: 1, 2, -2, 11 (real); 3, 4, -4, 6, 13 (complex)\n"
    "  --ordering O    0 minimum degree, 1 constrained minimum degree, 2 nested\n"
    "                  dissection (default), 3 METIS 5.1, 4 approximate minimum degree\n"
    "  --matching M    1 (on) or 0 (off); on by default for general matrices\n"
    "  --refine N      iterative refinement steps of the first solve, iparm(8)\n"
    "                  (negative: residual in extended precision)\n"
    "  --target E      the backward error to reach (default 1e-14); 0 accepts the\n"
    "                  first solve as it is\n"
    "  --threads N     threads of the library, iparm(3) (default: OMP_NUM_THREADS,\n"
    "                  or every processor)\n"
    "  --grid N        order N^3 of the bundled problem's grid (default 40)\n"
    "  --output FILE   write the solution as a Matrix Market array\n"
    "  --verbose       print the library's own report (msglvl 1) as well\n"
    "  --json          print the summary as one JSON object (not with --verbose)\n"
    "  --quiet         print no summary and no progress: the exit status and, on\n"
    "                  failure, one line on standard error tell the outcome\n"
    "  --version       the version\n"
    "  --help          this text\n"
    "\n"
    "When the first solve misses the target, the program solves again with\n"
    "explicit refinement steps, then continues with flexible GMRES preconditioned\n"
    "by the factor, then refactors with the other matching and scaling choice\n"
    "(types 11, 13, -2, -4, 6, unless --matching is given), and prints what it did.\n"
    "\n"
    "Exit status: 0 on success, 1 when the input or the solve fails or the target\n"
    "is not reached (structurally or numerically singular matrices among them), 2\n"
    "for a wrong command line.\n";

struct Options {
  std::string matrix;
  std::string rhs;
  std::string output;
  bool x_random = false;
  bool verbose = false;
  bool help = false;
  bool version = false;
  bool json = false;
  bool quiet = false;
  bool mtype_given = false;
  int mtype = 0;
  int threads = 0;  // 0: the library counts
  int ordering = -1;
  int matching = -1;
  bool refine_given = false;
  int refine = 0;
  double target = 1e-14;  // 0: no target
  int nrhs = 0;           // 0: not given
  int grid = kDefaultGrid;
  bool grid_given = false;
};

// A failure carried to main: one line for standard error and the status.
struct Failure {
  std::string message;
  int status = kExitFailure;
};

[[noreturn]] void fail(const std::string &message, int status = kExitFailure) {
  throw Failure{message, status};
}

bool parse_int(const std::string &text, long lo, long hi, int *value) {
  if (text.empty()) return false;
  char *end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || end != text.c_str() + text.size() || v < lo || v > hi) return false;
  *value = static_cast<int>(v);
  return true;
}

bool is_valid_mtype(int t) {
  for (int k : {1, 2, -2, 3, 4, -4, 6, 11, 13})
    if (t == k) return true;
  return false;
}

bool is_complex_mtype(int t) {
  return t == 3 || t == 4 || t == -4 || t == 6 || t == 13;
}

const char *mtype_name(int t) {
  switch (t) {
    case 1:
      return "real structurally symmetric";
    case 2:
      return "real symmetric positive definite";
    case -2:
      return "real symmetric indefinite";
    case 3:
      return "complex structurally symmetric";
    case 4:
      return "complex Hermitian positive definite";
    case -4:
      return "complex Hermitian indefinite";
    case 6:
      return "complex symmetric";
    case 11:
      return "real unsymmetric";
    case 13:
      return "complex unsymmetric";
    default:
      return "unknown";
  }
}

const char *ordering_name(int o) {
  switch (o) {
    case 0:
      return "minimum degree";
    case 1:
      return "constrained minimum degree";
    case 2:
      return "nested dissection";
    case 3:
      return "METIS 5.1 nested dissection";
    case 4:
      return "approximate minimum degree";
    default:
      return "unknown";
  }
}

const char *error_meaning(int error) {
  switch (error) {
    case VELMORA_ERR_INPUT:
      return "inconsistent input, or an option not available in this build";
    case VELMORA_ERR_MEMORY:
      return "not enough memory";
    case VELMORA_ERR_REORDER:
      return "the reordering failed";
    case VELMORA_ERR_FACTOR:
      return "zero or negative pivot: the numerical factorization failed";
    case VELMORA_ERR_INTERNAL:
      return "unclassified internal error";
    case VELMORA_ERR_PREORDER:
      return "the preordering failed: the matrix is structurally singular";
    case VELMORA_ERR_SILENT:
      return "inconsistent input, or an option not available in this build; --verbose "
             "prints the library's reason";
    case VELMORA_ERR_OVERFLOW:
      return "the factors overflow the 32-bit integers of the library";
    default:
      return "unknown error";
  }
}

Options parse_options(int argc, char **argv) {
  Options o;
  bool positional_only = false;  // after "--"
  for (int k = 1; k < argc; ++k) {
    const std::string arg = argv[k];
    if (!positional_only && arg == "--") {
      positional_only = true;
      continue;
    }
    if (positional_only || arg.size() < 2 || arg[0] != '-') {
      if (!o.matrix.empty()) fail("more than one matrix file given (see --help)", kExitUsage);
      if (arg.empty()) fail("an empty matrix file name", kExitUsage);
      o.matrix = arg;
      continue;
    }
    if (arg.compare(0, 2, "--") != 0) fail("unknown option '" + arg + "' (see --help)", kExitUsage);
    std::string name = arg, value;
    bool has_value = false;
    const size_t eq = arg.find('=');
    if (eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      has_value = true;
    }
    auto flag = [&]() {
      if (has_value) fail("option " + name + " takes no value (see --help)", kExitUsage);
    };
    auto take = [&]() -> std::string {
      if (has_value) return value;
      if (k + 1 >= argc) fail("option " + name + " needs a value (see --help)", kExitUsage);
      return argv[++k];
    };
    auto number = [&](long lo, long hi) {
      const std::string text = take();
      int v = 0;
      if (!parse_int(text, lo, hi, &v))
        fail("option " + name + " needs an integer in " + std::to_string(lo) + ".." +
                 std::to_string(hi) + ", not '" + text + "'",
             kExitUsage);
      return v;
    };
    if (name == "--help") {
      flag();
      o.help = true;
    } else if (name == "--verbose") {
      flag();
      o.verbose = true;
    } else if (name == "--version") {
      flag();
      o.version = true;
    } else if (name == "--json") {
      flag();
      o.json = true;
    } else if (name == "--quiet") {
      flag();
      o.quiet = true;
    } else if (name == "--x-random") {
      flag();
      o.x_random = true;
    } else if (name == "--rhs") {
      o.rhs = take();
    } else if (name == "--output") {
      o.output = take();
    } else if (name == "--mtype") {
      const std::string text = take();
      if (!parse_int(text, -4, 13, &o.mtype) || !is_valid_mtype(o.mtype))
        fail("option --mtype takes 1, 2, -2, 3, 4, -4, 6, 11 or 13, not '" + text + "'",
             kExitUsage);
      o.mtype_given = true;
    } else if (name == "--threads") {
      o.threads = number(1, 4096);
    } else if (name == "--ordering") {
      o.ordering = number(0, 4);
    } else if (name == "--matching") {
      o.matching = number(0, 1);
    } else if (name == "--refine") {
      o.refine = number(-1000, 1000);
      o.refine_given = true;
    } else if (name == "--target") {
      const std::string text = take();
      char *end = nullptr;
      errno = 0;
      const double v = std::strtod(text.c_str(), &end);
      if (text.empty() || errno != 0 || end != text.c_str() + text.size() || !(v >= 0.0) ||
          !(v < 1.0))
        fail("option --target needs a backward error in [0, 1), not '" + text + "'", kExitUsage);
      o.target = v;
    } else if (name == "--nrhs") {
      o.nrhs = number(1, 1000000);
    } else if (name == "--grid") {
      o.grid = number(1, kMaxGrid);
      o.grid_given = true;
    } else {
      fail("unknown option '" + name + "' (see --help)", kExitUsage);
    }
  }
  if (o.json && o.verbose)
    fail("--json and --verbose both write to standard output: choose one", kExitUsage);
  if (o.grid_given && !o.matrix.empty())
    fail("--grid sizes the bundled problem and does not go with a matrix file", kExitUsage);
  return o;
}

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool g_quiet = false;  // --quiet: no progress lines

// A progress line for a step that took more than a second.
void progress(const char *what, double seconds) {
  if (seconds > 1.0 && !g_quiet) std::fprintf(stderr, "%s ... done in %.1f s\n", what, seconds);
}

// ---- the problem

struct Problem {
  std::string name;    // the file, or the bundled problem's description
  std::string origin;  // what the file says: size, header, entries
  bool bundled = false;
  bool complex = false;
  MmSymmetry symmetry = MmSymmetry::kGeneral;
  CsrMatrix full;  // the whole matrix
  std::vector<std::string> notes;
};

// The 7-point Laplacian of a g x g x g grid, Dirichlet boundary: 6 on the
// diagonal, -1 to each neighbour; symmetric positive definite.
CsrMatrix laplacian(int g) {
  const int64_t n64 = int64_t{g} * g * g;
  CsrMatrix m;
  m.n = static_cast<int32_t>(n64);
  m.ia.assign(static_cast<size_t>(n64) + 1, 1);
  m.ja.reserve(static_cast<size_t>(7 * n64));
  m.a.reserve(static_cast<size_t>(7 * n64));
  const int32_t plane = g * g;
  for (int32_t z = 0, i = 0; z < g; ++z)
    for (int32_t y = 0; y < g; ++y)
      for (int32_t x = 0; x < g; ++x, ++i) {
        auto put = [&](int32_t j, double v) {
          m.ja.push_back(j + 1);
          m.a.push_back(v);
        };
        if (z > 0) put(i - plane, -1.0);
        if (y > 0) put(i - g, -1.0);
        if (x > 0) put(i - 1, -1.0);
        put(i, 6.0);
        if (x + 1 < g) put(i + 1, -1.0);
        if (y + 1 < g) put(i + g, -1.0);
        if (z + 1 < g) put(i + plane, -1.0);
        m.ia[static_cast<size_t>(i) + 1] = static_cast<int32_t>(m.ja.size()) + 1;
      }
  return m;
}

// Bytes of physical memory, 0 when unknown.
double physical_memory() {
  const long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGE_SIZE);
  return pages > 0 && page > 0 ? static_cast<double>(pages) * static_cast<double>(page) : 0.0;
}

std::string gigabytes(double bytes) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f GB", bytes / (1024.0 * 1024.0 * 1024.0));
  return buf;
}

Problem load_problem(const Options &o) {
  Problem p;
  if (o.matrix.empty()) {
    const int g = o.grid;
    p.bundled = true;
    p.name = "bundled default problem (no file given): 3D 7-point Laplacian, " + std::to_string(g) +
             " x " + std::to_string(g) + " x " + std::to_string(g) + " grid";
    p.symmetry = MmSymmetry::kSymmetric;
    p.full = laplacian(g);
    p.origin = "generated";
    return p;
  }
  const auto start = std::chrono::steady_clock::now();
  MmData m;
  std::string error;
  if (!vmcli::read_matrix_market(o.matrix, &m, &error)) fail(error);
  if (m.rows == 0 || m.cols == 0)
    fail(o.matrix + ": the matrix is " + std::to_string(m.rows) + " x " + std::to_string(m.cols) +
         ": nothing to solve");
  if (m.rows != m.cols)
    fail(o.matrix + ": the matrix is " + std::to_string(m.rows) + " x " + std::to_string(m.cols) +
         ", not square: only square systems are solved");
  p.name = o.matrix;
  p.complex = m.is_complex() || (o.mtype_given && is_complex_mtype(o.mtype));
  if (m.is_complex() && o.mtype_given && !is_complex_mtype(o.mtype))
    fail(o.matrix + ": complex values need a complex --mtype (3, 4, -4, 6 or 13), not " +
             std::to_string(o.mtype),
         kExitUsage);
  p.symmetry = m.symmetry;
  // Every row of a nonsingular matrix holds an entry: a file with fewer
  // entries than rows is refused before anything of its order is allocated.
  const int64_t most = m.symmetry == MmSymmetry::kGeneral ? m.size() : 2 * m.size();
  if (m.field != MmField::kPattern && most < m.rows)
    fail(o.matrix + ": " + std::to_string(m.size()) + (m.size() == 1 ? " entry" : " entries") +
         " cannot fill " + std::to_string(m.rows) + " rows: the matrix is singular");
  // A pattern gets a diagonal, so it is never singular; but a file whose
  // entries touch fewer than half its rows declares a size they do not
  // justify (a broken size line, most likely), and the program would
  // allocate and solve a diagonal of that size.
  if (m.field == MmField::kPattern && 2 * most < m.rows)
    fail(o.matrix + ": " + std::to_string(m.size()) + (m.size() == 1 ? " entry" : " entries") +
         " for " + std::to_string(m.rows) +
         " rows: most rows of this pattern would hold only the diagonal the program adds; "
         "check the size line");
  // Refuse what cannot fit in this machine rather than try.
  const int64_t expanded = most + (m.field == MmField::kPattern ? m.rows : 0);
  const double need = 64.0 * static_cast<double>(expanded) + 48.0 * m.rows;
  const double have = physical_memory();
  if (have > 0.0 && need > have)
    fail(o.matrix + ": a matrix of order " + std::to_string(m.rows) + " with " +
         std::to_string(expanded) + " entries needs about " + gigabytes(need) + ", more than the " +
         gigabytes(have) + " of this machine");
  vmcli::FullNotes notes;
  try {
    if (!vmcli::to_full_csr(m, p.complex, &p.full, &notes, &error)) fail(o.matrix + ": " + error);
  } catch (const std::bad_alloc &) {
    fail(o.matrix + ": not enough memory for a matrix of order " + std::to_string(m.rows));
  }
  for (int32_t i = 0; i < p.full.n; ++i)
    if (p.full.ia[i] == p.full.ia[i + 1])
      fail(o.matrix + ": row " + std::to_string(i + 1) + " holds no entry: the matrix is singular");
  char buf[200];
  std::snprintf(buf, sizeof buf, "%d x %d, %s %s %s, %" PRId64 " %s in the file", m.rows, m.cols,
                vmcli::to_string(m.format), vmcli::to_string(m.field), vmcli::to_string(m.symmetry),
                m.declared,
                m.format == vmcli::MmFormat::kArray ? (m.declared == 1 ? "value" : "values")
                                                    : (m.declared == 1 ? "entry" : "entries"));
  p.origin = buf;
  auto many = [](int64_t k, const char *one, const char *more) {
    return std::to_string(k) + (k == 1 ? one : more);
  };
  if (m.upper_entries > 0)
    p.notes.push_back(many(m.upper_entries, " entry", " entries") +
                      " given above the diagonal of a symmetric file, taken as the mirror");
  if (m.pattern_values_ignored) p.notes.push_back("values after the pattern's positions ignored");
  if (m.integers_as_reals > 0)
    p.notes.push_back(many(m.integers_as_reals, " integer", " integers") +
                      " beyond 64 bits read as real");
  if (notes.pattern_values)
    p.notes.push_back("pattern file: values -1 off the diagonal, a dominant diagonal");
  if (notes.summed > 0)
    p.notes.push_back(std::to_string(notes.summed) + " repeated entries summed");
  if (notes.dropped_zeros > 0)
    p.notes.push_back(std::to_string(notes.dropped_zeros) + " zero values of the array left out");
  if (notes.diagonal_imag > 0)
    p.notes.push_back(std::to_string(notes.diagonal_imag) +
                      " imaginary parts of the Hermitian diagonal dropped");
  progress("reading", seconds_since(start));
  return p;
}

// Real values as (re, 0) pairs.
void to_complex(CsrMatrix *m) {
  if (m->complex) return;
  std::vector<double> pairs(2 * m->a.size(), 0.0);
  for (size_t k = 0; k < m->a.size(); ++k) pairs[2 * k] = m->a[k];
  m->a = std::move(pairs);
  m->complex = true;
}

int default_mtype(const Problem &p) {
  if (p.complex) {
    if (p.symmetry == MmSymmetry::kHermitian) return 4;
    if (p.symmetry == MmSymmetry::kSymmetric) return 6;
    return 13;
  }
  return p.symmetry == MmSymmetry::kSymmetric ? 2 : 11;
}

Storage storage_of(int mtype) {
  switch (mtype) {
    case 2:
    case -2:
    case 6:
      return Storage::kUpperSymmetric;
    case 4:
    case -4:
      return Storage::kUpperHermitian;
    case 1:
    case 3:
      return Storage::kFullSymmetricPattern;
    default:
      return Storage::kFull;
  }
}

// The library takes a matrix with as many entries as rows for a diagonal
// one.  A full matrix with one entry per row off the diagonal (a permuted
// diagonal) gets an explicit zero on the diagonal of its first such row.
void keep_off_diagonal_path(CsrMatrix *m) {
  if (m->nnz() != m->n || m->upper) return;
  for (int32_t i = 0; i < m->n; ++i) {
    const int32_t k = m->ia[i] - 1;
    if (m->ia[i + 1] - 1 == k + 1 && m->ja[k] == i + 1) continue;
    const size_t stride = m->complex ? 2 : 1;
    int32_t at = k;
    while (at < m->ia[i + 1] - 1 && m->ja[at] < i + 1) ++at;
    m->ja.insert(m->ja.begin() + at, i + 1);
    m->a.insert(m->a.begin() + static_cast<int64_t>(stride) * at, stride, 0.0);
    for (int32_t r = i + 1; r <= m->n; ++r) ++m->ia[r];
    return;
  }
}

// ---- products and norms on the full matrix; values are pairs when complex

void multiply(const CsrMatrix &m, const double *x, double *y) {
  for (int32_t i = 0; i < m.n; ++i) {
    double re = 0.0, im = 0.0;
    for (int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
      const size_t j = static_cast<size_t>(m.ja[k] - 1);
      if (m.complex) {
        const double ar = m.a[2 * static_cast<size_t>(k)], ai = m.a[2 * static_cast<size_t>(k) + 1];
        re += ar * x[2 * j] - ai * x[2 * j + 1];
        im += ar * x[2 * j + 1] + ai * x[2 * j];
      } else {
        re += m.a[static_cast<size_t>(k)] * x[j];
      }
    }
    if (m.complex) {
      y[2 * static_cast<size_t>(i)] = re;
      y[2 * static_cast<size_t>(i) + 1] = im;
    } else {
      y[i] = re;
    }
  }
}

double magnitude(const double *v, size_t k, bool complex) {
  return complex ? std::hypot(v[2 * k], v[2 * k + 1]) : std::abs(v[k]);
}

double norm_inf(const double *v, int32_t n, bool complex) {
  double r = 0.0;
  for (int32_t i = 0; i < n; ++i) r = std::max(r, magnitude(v, static_cast<size_t>(i), complex));
  return r;
}

double matrix_norm_inf(const CsrMatrix &m) {
  double r = 0.0;
  for (int32_t i = 0; i < m.n; ++i) {
    double row = 0.0;
    for (int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
      row += magnitude(m.a.data(), static_cast<size_t>(k), m.complex);
    r = std::max(r, row);
  }
  return r;
}

// Of the residual b - A x, the largest over the right-hand sides of the
// normwise backward error ||b - A x||_inf / (||A||_inf ||x||_inf + ||b||_inf)
// and of ||b - A x||_inf / ||b||_inf (0 for a zero b); NaN stays.
struct ResidualFigures {
  double backward = 0.0, relative = 0.0;
};

ResidualFigures residual_figures(const CsrMatrix &m, const std::vector<double> &x,
                                 const std::vector<double> &b, int nrhs) {
  const size_t stride = m.complex ? 2 : 1, len = stride * static_cast<size_t>(m.n);
  const double anorm = matrix_norm_inf(m);
  std::vector<double> r(len);
  ResidualFigures worst;
  for (int c = 0; c < nrhs; ++c) {
    const double *xc = x.data() + len * c, *bc = b.data() + len * c;
    multiply(m, xc, r.data());
    for (size_t k = 0; k < len; ++k) r[k] = bc[k] - r[k];
    const double rn = norm_inf(r.data(), m.n, m.complex), bn = norm_inf(bc, m.n, m.complex);
    const double denominator = anorm * norm_inf(xc, m.n, m.complex) + bn;
    const double e = denominator > 0.0 ? rn / denominator : (rn > 0.0 ? INFINITY : 0.0);
    const double q = bn > 0.0 ? rn / bn : 0.0;
    if (!(e <= worst.backward)) worst.backward = e;
    if (!(q <= worst.relative)) worst.relative = q;
  }
  return worst;
}

// ||x - x_known||_inf / ||x_known||_inf, the largest over the right-hand sides.
double forward_error(const std::vector<double> &x, const std::vector<double> &known, int32_t n,
                     int nrhs, bool complex) {
  const size_t stride = complex ? 2 : 1, len = stride * static_cast<size_t>(n);
  std::vector<double> d(len);
  double worst = 0.0;
  for (int c = 0; c < nrhs; ++c) {
    for (size_t k = 0; k < len; ++k) d[k] = x[len * c + k] - known[len * c + k];
    const double kn = norm_inf(known.data() + len * c, n, complex);
    const double dn = norm_inf(d.data(), n, complex);
    const double e = kn > 0.0 ? dn / kn : dn;
    if (std::isnan(e) || e > worst) worst = e;
    if (std::isnan(worst)) break;
  }
  return worst;
}

// ---- the right-hand side

struct RightHandSide {
  int nrhs = 1;
  std::vector<double> b;
  std::vector<double> known;  // empty when b comes from a file
  std::string origin;
};

RightHandSide make_rhs(const Options &o, const Problem &p) {
  RightHandSide r;
  const int32_t n = p.full.n;
  const int64_t stride = p.complex ? 2 : 1;
  if (!o.rhs.empty()) {
    MmData m;
    std::string error;
    if (!vmcli::read_matrix_market(o.rhs, &m, &error)) fail(error);
    if (m.rows != n)
      fail(o.rhs + ": the right-hand side has " + std::to_string(m.rows) + " rows, the matrix " +
           std::to_string(n));
    if (m.cols < 1) fail(o.rhs + ": the right-hand side file has no column");
    if (o.nrhs != 0 && o.nrhs != m.cols)
      fail(o.rhs + ": --nrhs " + std::to_string(o.nrhs) + " but the file holds " +
               std::to_string(m.cols) + " columns",
           kExitUsage);
    if (!vmcli::to_dense(m, p.complex, kMaxBlockValues, &r.b, &error))
      fail(o.rhs + ": " + error +
           (m.is_complex() && !p.complex ? " (give a complex --mtype)" : ""));
    r.nrhs = m.cols;
    r.origin = "from " + o.rhs;
    return r;
  }
  r.nrhs = o.nrhs != 0 ? o.nrhs : 1;
  if (int64_t{n} * r.nrhs * stride > kMaxBlockValues)
    fail(
        std::to_string(r.nrhs) + " right-hand sides of " + std::to_string(n) + " rows are too many",
        kExitUsage);
  const size_t len = static_cast<size_t>(n) * static_cast<size_t>(stride);
  r.known.assign(len * r.nrhs, 0.0);
  if (o.x_random) {
    std::mt19937_64 rng(20240601);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (double &v : r.known) v = u(rng);
  } else {
    for (size_t k = 0; k < r.known.size(); k += static_cast<size_t>(stride)) r.known[k] = 1.0;
  }
  r.b.assign(r.known.size(), 0.0);
  for (int c = 0; c < r.nrhs; ++c) multiply(p.full, r.known.data() + len * c, r.b.data() + len * c);
  r.origin = std::string("b = A x for a known x (") + (o.x_random ? "random" : "all ones") + ")";
  return r;
}

// ---- the solver

struct Outcome {
  int error = 0;
  int phase = 0;                  // the phase that failed
  double seconds[3] = {0, 0, 0};  // analysis, factorization, solve (with the policy)
  std::array<int, 64> iparm{};    // after the last phase run
  int factor_nnz = 0, mflop = 0, perturbed = 0, positive = 0, negative = 0, steps = 0;
  int threads = 0;
  vmcli::AccuracyReport accuracy;
  std::vector<double> x;
};

// Analysis, factorization and the solve to the target on one handle;
// `matching` is iparm(13) and iparm(11), or -1 for the type's defaults.
Outcome run_solver(const Options &o, int mtype, int matching, CsrMatrix *a,
                   const RightHandSide &rhs) {
  Outcome out;
  std::array<void *, 64> pt{};
  std::array<double, 64> dparm{};
  int solver = 0, error = 0;
  velmorainit(pt.data(), &mtype, &solver, out.iparm.data(), dparm.data(), &error);
  if (error != 0) {
    out.error = error;
    return out;
  }
  int *iparm = out.iparm.data();
  if (o.ordering >= 0) iparm[1] = o.ordering;
  iparm[2] = o.threads;
  if (o.refine_given) iparm[7] = o.refine;
  if (matching >= 0) {
    iparm[12] = matching;
    iparm[10] = matching;  // scaling goes with the matching
  }
  const int maxfct = 1, mnum = 1, msglvl = o.verbose ? 1 : 0, n = a->n, nrhs = rhs.nrhs;
  std::vector<int> perm(static_cast<size_t>(n), 0);
  std::vector<double> b = rhs.b;  // the library's copy; rhs.b stays for the residual
  out.x.assign(b.size(), 0.0);
  static const char *const kNames[3] = {"analysis", "factorization", "solve"};
  const int phases[3] = {11, 22, 33};
  for (int s = 0; s < 3; ++s) {
    int phase = phases[s];
    std::fflush(stdout);
    const auto start = std::chrono::steady_clock::now();
    if (phase == 33 && o.target > 0.0) {
      const vmcli::SystemView view{mtype, a->n, a->ia.data(), a->ja.data(), a->a.data()};
      const vmcli::HandleView handle{pt.data(), iparm, dparm.data(), perm.data(), msglvl};
      vmcli::AccuracyGoal goal;
      goal.target = o.target;
      out.accuracy = vmcli::solve_to_target(view, handle, nrhs, b.data(), out.x.data(), goal);
      error = out.accuracy.error;
      iparm[6] = out.accuracy.first_steps;
    } else {
      velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a->a.data(), a->ia.data(),
              a->ja.data(), perm.data(), &nrhs, iparm, &msglvl, b.data(), out.x.data(), &error,
              dparm.data());
    }
    out.seconds[s] = seconds_since(start);
    std::fflush(stdout);
    progress(kNames[s], out.seconds[s]);
    if (s == 0) {
      out.factor_nnz = iparm[17];
      out.mflop = iparm[18];
    } else if (s == 1) {
      out.perturbed = iparm[13];
      out.positive = iparm[21];
      out.negative = iparm[22];
    } else {
      out.steps = iparm[6];
    }
    out.threads = iparm[2];
    if (error != 0) {
      out.error = error;
      out.phase = phase;
      break;
    }
  }
  const std::array<int, 64> kept = out.iparm;  // the release may clear the statistics
  int phase = -1, release_error = 0;
  velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, a->a.data(), a->ia.data(), a->ja.data(),
          perm.data(), &nrhs, iparm, &msglvl, b.data(), out.x.data(), &release_error, dparm.data());
  std::fflush(stdout);
  out.iparm = kept;
  return out;
}

// The types whose matching and scaling can be switched.
bool has_matching_choice(int mtype) {
  return mtype == 11 || mtype == 13 || mtype == -2 || mtype == -4 || mtype == 6;
}

std::string library_failure(const Outcome &r) {
  const char *what = r.phase == 11 ? "analysis" : r.phase == 22 ? "factorization" : "solve";
  std::string text = std::string(what) + " failed with error " + std::to_string(r.error);
  return text + ": " + error_meaning(r.error);
}

// Why the target was missed, and what to try.
std::string shortfall(const Outcome &r, const Options &o, int n, const std::string &retry,
                      bool singular, double unexplained) {
  const vmcli::AccuracyReport &a = r.accuracy;
  char buf[400];
  if (singular) {
    std::snprintf(buf, sizeof buf,
                  "numerically singular: %d of %d pivots perturbed, residual not reduced "
                  "(||b - A x||_inf / ||b||_inf = %.2g): no x solves the system",
                  r.perturbed, n, unexplained);
    return buf;
  }
  std::string did = "after the first solve";
  if (a.refined >= 0.0) did += ", " + std::to_string(a.refined_steps) + " refinement steps";
  if (a.krylov >= 0.0) did += ", " + std::to_string(a.krylov_iterations) + " FGMRES iterations";
  if (!retry.empty()) did += " and a refactorization with the other matching";
  if (o.target < 1e-16) {
    std::snprintf(buf, sizeof buf,
                  "backward error %.1e above the target %.0e: a target below about 1e-16 asks "
                  "for more than the rounding of double precision allows",
                  a.best, o.target);
    return buf;
  }
  std::string tries = "try another --ordering";
  if (o.matching >= 0) tries += o.matching != 0 ? " or --matching 0" : " or --matching 1";
  if (std::isfinite(a.best) && a.best < 1e-3) {
    char accept[64];
    std::snprintf(accept, sizeof accept, ", or --target %.0e to accept the answer",
                  std::pow(10.0, std::ceil(std::log10(a.best))));
    tries += accept;
  }
  std::snprintf(buf, sizeof buf,
                "backward error %.1e above the target %.0e %s: the matrix may be singular or "
                "too ill-conditioned; %s",
                a.best, o.target, did.c_str(), tries.c_str());
  return buf;
}

// Refuses an --output path that cannot be written before anything is
// solved: a directory that does not exist or is not writable, a file that
// is read-only.
void check_writable(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  if (access(path.c_str(), F_OK) == 0 ? access(path.c_str(), W_OK) != 0
                                      : access(dir.c_str(), W_OK | X_OK) != 0)
    fail("cannot write the solution to " + path + ": " + std::strerror(errno), kExitUsage);
}

std::string megabytes(int kb) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f MB", kb / 1024.0);
  return buf;
}

// ---- the summary: a line per figure for people, one JSON object for scripts

std::string json_string(const std::string &text) {
  std::string out = "\"";
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", u);
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

// A finite number as JSON, anything else as null.
std::string json_number(double v) {
  if (!std::isfinite(v)) return "null";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.6g", v);
  return buf;
}

std::string number(const char *format, double v) {
  char buf[48];
  std::snprintf(buf, sizeof buf, format, v);
  return buf;
}

// "1 pivot", "3 pivots".
std::string counted(long long count, const char *noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

class Summary {
 public:
  void text(const char *label, const std::string &value) { lines_.emplace_back(label, value); }
  void field(const std::string &key, const std::string &json) { fields_.emplace_back(key, json); }
  void print(bool json) const {
    if (!json) {
      for (const auto &l : lines_) std::printf("%-16s%s\n", l.first.c_str(), l.second.c_str());
      return;
    }
    std::printf("{");
    for (size_t k = 0; k < fields_.size(); ++k)
      std::printf("%s\n  %s: %s", k ? "," : "", json_string(fields_[k].first).c_str(),
                  fields_[k].second.c_str());
    std::printf("\n}\n");
  }

 private:
  std::vector<std::pair<std::string, std::string>> lines_, fields_;
};

// Inertia is defined for the real symmetric and the Hermitian types.
bool has_inertia(int mtype) {
  return mtype == 2 || mtype == -2 || mtype == 4 || mtype == -4;
}

int run(int argc, char **argv) {
  const Options o = parse_options(argc, argv);
  if (o.help) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  if (o.version) {
    std::printf("velmora-solve %s, built with the library of the same version\n",
                VELMORA_SOLVE_VERSION);
    return kExitOk;
  }
  g_quiet = o.quiet;
  if (!o.output.empty()) check_writable(o.output);
  Problem p = load_problem(o);
  const bool auto_mtype = !o.mtype_given;
  int mtype = auto_mtype ? default_mtype(p) : o.mtype;
  if (!p.complex && is_complex_mtype(mtype)) {
    to_complex(&p.full);
    p.complex = true;
  }

  CsrMatrix stored;
  std::string error;
  if (!vmcli::to_storage(p.full, storage_of(mtype), &stored, &error)) {
    const char *hint = p.complex ? " (give --mtype 3 or 13)" : " (give --mtype 1 or 11)";
    fail(p.name + ": --mtype " + std::to_string(mtype) + ": " + error + hint, kExitUsage);
  }
  keep_off_diagonal_path(&stored);
  const RightHandSide rhs = make_rhs(o, p);

  // No factorization can solve a structurally singular system.
  const vmcli::SystemView whole{11, p.full.n, p.full.ia.data(), p.full.ja.data(), p.full.a.data()};
  const int32_t rank = vmcli::structural_rank(whole);
  if (rank < p.full.n)
    fail(p.name + ": the matrix is structurally singular: its structural rank is " +
         std::to_string(rank) + " of " + std::to_string(p.full.n) +
         " (rows and columns that no pivot order can pair)");

  Outcome r = run_solver(o, mtype, o.matching, &stored, rhs);
  std::string fallback;
  if (auto_mtype && (mtype == 2 || mtype == 4) && r.error == VELMORA_ERR_FACTOR && r.phase == 22) {
    fallback = "; " + std::to_string(mtype) + " stopped at a non-positive pivot";
    mtype = -mtype;
    r = run_solver(o, mtype, o.matching, &stored, rhs);
  } else if (auto_mtype && (mtype == 2 || mtype == 4) && r.error == 0 && r.iparm[11] == -1 &&
             r.negative > 0) {
    // A diagonal matrix is solved entry by entry whatever its signs: the
    // type that names it is the indefinite one.
    fallback = "; " + std::to_string(mtype) + " does not hold with a negative diagonal entry";
    mtype = -mtype;
  }
  // A diagonal matrix with a zero entry: the library answers with the row.
  if (r.error < 0 && r.phase == 22 && r.iparm[11] == -1)
    fail(p.name + ": the diagonal entry of row " + std::to_string(-r.error) +
         " is zero: the matrix is singular");
  if (r.error != 0) fail(p.name + ": " + library_failure(r));

  // The last resort: a new factorization with the other matching and
  // scaling choice, kept when it does better.
  std::string retry;
  if (o.target > 0.0 && !r.accuracy.reached && o.matching < 0 && has_matching_choice(mtype)) {
    const int other = r.iparm[12] != 0 ? 0 : 1;
    Outcome again = run_solver(o, mtype, other, &stored, rhs);
    char buf[300];
    if (again.error != 0) {
      std::snprintf(buf, sizeof buf, "matching %d failed with error %d: the first run kept", other,
                    again.error);
    } else {
      const bool better = again.accuracy.best < r.accuracy.best;
      const int used = std::snprintf(buf, sizeof buf,
                                     "%.2e with matching %d and scaling %d, %d pivots perturbed",
                                     again.accuracy.best, other, again.iparm[10], again.perturbed);
      if (better)
        std::snprintf(buf + used, sizeof buf - used,
                      ": kept, the stages above are its own (the first factorization ended at "
                      "%.2e)",
                      r.accuracy.best);
      else
        std::snprintf(buf + used, sizeof buf - used, ": not kept");
      if (better) {
        for (int s = 0; s < 3; ++s) again.seconds[s] += r.seconds[s];
        r = std::move(again);
      }
    }
    retry = buf;
  }

  const ResidualFigures figures = residual_figures(p.full, r.x, rhs.b, rhs.nrhs);
  const double berr = figures.backward;
  // A tiny backward error can also come from a huge x: on a singular
  // matrix, with b outside its range, the Krylov steps grow x along the
  // kernel.  An x that leaves half of b unexplained solves nothing.
  const double unexplained = figures.relative;
  const bool singular = o.target > 0.0 && unexplained >= 0.5;
  const bool known = !rhs.known.empty();
  const double ferr = known ? forward_error(r.x, rhs.known, p.full.n, rhs.nrhs, p.complex) : 0.0;

  if (!o.output.empty()) {
    if (!vmcli::write_matrix_market_array(o.output, p.full.n, rhs.nrhs, p.complex, r.x.data(),
                                          "solution written by velmora-solve", &error))
      fail(error);
  }

  // ---- the summary
  const int n = p.full.n;
  const int *ip = r.iparm.data();
  const bool diagonal = ip[11] == -1;
  Summary sum;
  sum.text("problem", p.name);
  sum.field("problem", json_string(p.name));
  if (!p.bundled) {
    sum.text("file", p.origin);
    sum.field("file", json_string(p.origin));
  }
  std::string notes = "[";
  for (const std::string &note : p.notes) {
    sum.text("note", note);
    notes += (notes.size() > 1 ? ", " : "") + json_string(note);
  }
  sum.field("notes", notes + "]");
  sum.text("n", std::to_string(n));
  sum.field("n", std::to_string(n));
  sum.text("nnz", std::to_string(stored.nnz()) + " (" +
                      (stored.upper ? "upper triangle" : "full storage") + "), " +
                      std::to_string(p.full.nnz()) + " in the whole matrix");
  sum.field("nnz", std::to_string(stored.nnz()));
  sum.field("nnz_whole_matrix", std::to_string(p.full.nnz()));
  sum.text("mtype", std::to_string(mtype) + " (" + mtype_name(mtype) + fallback + ")");
  sum.field("mtype", std::to_string(mtype));
  sum.field("mtype_name", json_string(mtype_name(mtype)));
  if (diagonal) {
    sum.text("ordering", "- (a diagonal matrix: no analysis, no factorization)");
    sum.text("threads", "- (solved entry by entry)");
    sum.field("diagonal", "true");
  } else {
    sum.text("ordering", std::to_string(ip[1]) + " (" + ordering_name(ip[1]) + ")");
    sum.field("ordering", std::to_string(ip[1]));
    sum.text("matching", std::to_string(ip[12]) + ", scaling " + std::to_string(ip[10]));
    sum.field("matching", std::to_string(ip[12]));
    sum.field("scaling", std::to_string(ip[10]));
    sum.text("threads", std::to_string(r.threads));
    sum.field("threads", std::to_string(r.threads));
    sum.text("factors",
             std::to_string(r.factor_nnz) + " nonzeros, " + std::to_string(r.mflop) + " Mflop");
    sum.field("factor_nonzeros", std::to_string(r.factor_nnz));
    sum.field("mflop", std::to_string(r.mflop));
    sum.text("memory", "analysis " + megabytes(ip[14]) + ", factorization and solve " +
                           megabytes(std::max(ip[15], 0) + ip[16]));
    sum.field("memory_analysis_kb", std::to_string(ip[14]));
    sum.field("memory_factorization_kb", std::to_string(std::max(ip[15], 0) + ip[16]));
    sum.text("perturbed",
             counted(r.perturbed, "pivot") +
                 (r.perturbed > 0 ? " (tiny ones replaced: A may be singular or nearly so)" : ""));
    sum.field("perturbed_pivots", std::to_string(r.perturbed));
  }
  if (has_inertia(mtype)) {
    const int zero = n - r.positive - r.negative;
    sum.text("inertia", std::to_string(r.positive) + " positive, " + std::to_string(r.negative) +
                            " negative, " + std::to_string(zero) + " zero");
    sum.field("inertia", "{\"positive\": " + std::to_string(r.positive) +
                             ", \"negative\": " + std::to_string(r.negative) +
                             ", \"zero\": " + std::to_string(zero) + "}");
  }
  if (!diagonal) {
    sum.text("refinement",
             counted(r.steps, "step") + " (iparm(8) = " + std::to_string(ip[7]) + ")");
    sum.field("refinement_steps", std::to_string(r.steps));
    sum.field("iparm8", std::to_string(ip[7]));
  }
  const vmcli::AccuracyGoal goal;
  if (o.target > 0.0) {
    const vmcli::AccuracyReport &a = r.accuracy;
    for (const auto &line : vmcli::describe(a, goal)) sum.text(line.first.c_str(), line.second);
    if (!retry.empty()) sum.text("refactored", retry);
    const char *verdict = singular             ? "not reached: the residual is not reduced"
                          : r.accuracy.reached ? "reached"
                                               : "not reached";
    sum.text("target", number("%.1e", o.target) + " " + verdict);
    std::string stages = "{\"first_solve\": " + json_number(a.first);
    if (a.refined >= 0.0)
      stages += ", \"refined\": " + json_number(a.refined) +
                ", \"refined_steps\": " + std::to_string(a.refined_steps);
    if (a.krylov >= 0.0)
      stages += ", \"krylov\": " + json_number(a.krylov) +
                ", \"krylov_iterations\": " + std::to_string(a.krylov_iterations);
    if (!retry.empty()) stages += ", \"refactored\": " + json_string(retry);
    sum.field("accuracy", stages + "}");
    sum.field("target", json_number(o.target));
    sum.field("target_reached", !singular && r.accuracy.reached ? "true" : "false");
  }
  sum.text("time", "analysis " + number("%.3f", r.seconds[0]) + " s, factorization " +
                       number("%.3f", r.seconds[1]) + " s, solve " + number("%.3f", r.seconds[2]) +
                       " s");
  sum.field("time", "{\"analysis\": " + json_number(r.seconds[0]) +
                        ", \"factorization\": " + json_number(r.seconds[1]) +
                        ", \"solve\": " + json_number(r.seconds[2]) + "}");
  const bool rated = r.seconds[1] > 0.0 && r.mflop > 0;
  const double gflops = rated ? r.mflop / 1000.0 / r.seconds[1] : NAN;
  sum.text("GFLOP/s", rated ? number("%.2f", gflops) + " (factorization)" : "-");
  sum.field("gflops", json_number(gflops));
  sum.text("right-hand side", std::to_string(rhs.nrhs) + ", " + rhs.origin);
  sum.field("nrhs", std::to_string(rhs.nrhs));
  sum.field("rhs", json_string(rhs.origin));
  sum.text("backward error",
           number("%.2e", berr) + "  ||b - A x||_inf / (||A||_inf ||x||_inf + ||b||_inf)");
  sum.field("backward_error", json_number(berr));
  if (known) {
    sum.text("error", number("%.2e", ferr) + "  ||x - x_known||_inf / ||x_known||_inf");
    sum.field("error", json_number(ferr));
  }
  if (!o.output.empty()) {
    sum.text("solution", "written to " + o.output);
    sum.field("solution", json_string(o.output));
  }
  if (!o.quiet) sum.print(o.json);
  std::fflush(stdout);
  if (singular || (o.target > 0.0 && !r.accuracy.reached))
    fail(p.name + ": " + shortfall(r, o, n, retry, singular, unexplained));
  return kExitOk;
}

// One line on standard error whatever the text holds.
void report(const std::string &message) {
  std::string line = message;
  for (char &c : line)
    if (c == '\n' || c == '\r') c = ' ';
  std::fprintf(stderr, "velmora-solve: %s\n", line.c_str());
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return run(argc, argv);
  } catch (const Failure &f) {
    std::fflush(stdout);
    report(f.message);
    return f.status;
  } catch (const std::bad_alloc &) {
    std::fflush(stdout);
    report("out of memory");
    return kExitFailure;
  } catch (const std::exception &e) {
    std::fflush(stdout);
    report(std::string("unexpected failure: ") + e.what());
    return kExitFailure;
  }
}
