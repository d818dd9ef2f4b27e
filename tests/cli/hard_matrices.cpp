// hard_matrices - writes Matrix Market files of the classes on which a
// static-pivoting factorization can miss working accuracy, for the shell
// tests of velmora-solve.
//
//   hard_matrices DIR
//
//   near_singular   2D convection-diffusion whose rows come in a few nearly
//                   dependent pairs (differences 1e-14): tiny pivots that the
//                   matching cannot avoid, perturbed; condition about 4e14
//   near_singular_sym  the symmetric indefinite counterpart (a shifted
//                   Laplacian), where the perturbation of a tiny pivot is
//                   larger, so refinement stalls higher
//   kkt_deficient   [[H, B^T], [B, 0]] with repeated constraint rows: a rank
//                   deficient constraint block (symmetric indefinite)
//   kkt_growth      a full-rank B and -1e-6 I in the corner: nothing
//                   perturbed, but the first solve leaves about 1e-11
//   neumann         the 2D Laplacian with natural boundaries: singular,
//                   the constant vector spans the kernel
//   half_rank       [[C, C], [C, C]] with C nonsingular: rank n/2
//   struct_singular rows 3 and 4 hold entries in column 3 only
//   rhs_N           a random right-hand side of N rows (array), which lies
//                   outside the range of the singular matrices
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Entries = std::map<std::pair<int, int>, double>;  // (row, column) from 0

bool write(const std::string &path, int n, const Entries &e, bool symmetric) {
  FILE *f = std::fopen(path.c_str(), "w");
  if (!f) return false;
  std::fprintf(f, "%%%%MatrixMarket matrix coordinate real %s\n",
               symmetric ? "symmetric" : "general");
  size_t count = 0;
  for (const auto &kv : e)
    if (!symmetric || kv.first.first >= kv.first.second) ++count;
  std::fprintf(f, "%d %d %zu\n", n, n, count);
  for (const auto &kv : e)
    if (!symmetric || kv.first.first >= kv.first.second)
      std::fprintf(f, "%d %d %.17g\n", kv.first.first + 1, kv.first.second + 1, kv.second);
  return std::fclose(f) == 0;
}

// Upwind convection-diffusion on a g x g grid, unsymmetric, well conditioned.
Entries convection(int g) {
  Entries e;
  for (int y = 0; y < g; ++y)
    for (int x = 0; x < g; ++x) {
      const int i = y * g + x;
      e[{i, i}] = 4.5;
      if (x > 0) e[{i, i - 1}] = -1.3;
      if (x + 1 < g) e[{i, i + 1}] = -0.7;
      if (y > 0) e[{i, i - g}] = -1.1;
      if (y + 1 < g) e[{i, i + g}] = -0.9;
    }
  return e;
}

// Row q becomes row p plus delta in column q, for each pair: the two rows
// are dependent up to delta.
Entries with_dependent_rows(Entries e, const std::vector<std::pair<int, int>> &pairs,
                            double delta) {
  for (const auto &pq : pairs) {
    const int p = pq.first, q = pq.second;
    for (auto it = e.begin(); it != e.end();)
      it = it->first.first == q ? e.erase(it) : std::next(it);
    Entries row;
    for (const auto &kv : e)
      if (kv.first.first == p) row[{q, kv.first.second}] = kv.second;
    row[{q, q}] += delta;
    e.insert(row.begin(), row.end());
  }
  return e;
}

// The symmetric counterpart: row and column q become row and column p, and
// the diagonal of q is that of p less delta.
Entries with_dependent_pairs(Entries e, const std::vector<std::pair<int, int>> &pairs,
                             double delta) {
  for (const auto &pq : pairs) {
    const int p = pq.first, q = pq.second;
    for (auto it = e.begin(); it != e.end();)
      it = it->first.first == q || it->first.second == q ? e.erase(it) : std::next(it);
    Entries copy;
    for (const auto &kv : e)
      if (kv.first.first == p) {
        const int k = kv.first.second;
        copy[{q, k}] = copy[{k, q}] = kv.second;
      }
    copy[{q, q}] = e[{p, p}] - delta;
    e.insert(copy.begin(), copy.end());
  }
  return e;
}

// The 2D Laplacian; `natural` leaves the boundary rows summing to zero.
Entries laplacian(int g, bool natural, double diagonal = 4.0) {
  Entries e;
  for (int y = 0; y < g; ++y)
    for (int x = 0; x < g; ++x) {
      const int i = y * g + x;
      double d = 0.0;
      auto link = [&](int j) {
        e[{i, j}] = -1.0;
        d += 1.0;
      };
      if (x > 0) link(i - 1);
      if (x + 1 < g) link(i + 1);
      if (y > 0) link(i - g);
      if (y + 1 < g) link(i + g);
      e[{i, i}] = natural ? d : diagonal;
    }
  return e;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: hard_matrices DIR\n");
    return 2;
  }
  const std::string dir = std::string(argv[1]) + "/";
  bool ok = true;
  const int g = 40, n = g * g;
  const std::vector<std::pair<int, int>> pairs = {{205, 206}, {830, 831}, {1412, 1413}};
  ok &=
      write(dir + "near_singular.mtx", n, with_dependent_rows(convection(g), pairs, 1e-14), false);
  ok &= write(dir + "near_singular_sym.mtx", n,
              with_dependent_pairs(laplacian(g, false, 3.5), pairs, 1e-13), true);

  // H: the Laplacian plus the identity; B: differences of neighbours, the
  // first five of them repeated.
  const int h = 30, nh = h * h, nb = 205;
  Entries kkt = laplacian(h, false);
  for (int k = 0; k < nb; ++k) {
    const int c = k < 200 ? 4 * k : 4 * (k - 200), row = nh + k;
    kkt[{row, c}] = 1.0;
    kkt[{row, c + 1}] = -1.0;
    kkt[{c, row}] = 1.0;
    kkt[{c + 1, row}] = -1.0;
  }
  ok &= write(dir + "kkt_deficient.mtx", nh + nb, kkt, true);
  // The same with a full-rank B and a small negative diagonal block: no
  // pivot is tiny enough to be perturbed, but one-by-one pivots of -1e-6
  // before their neighbours make the factor grow.
  Entries reg = laplacian(h, false);
  for (int k = 0; k < 200; ++k) {
    const int row = nh + k;
    reg[{row, 4 * k}] = reg[{4 * k, row}] = 1.0;
    reg[{row, 4 * k + 1}] = reg[{4 * k + 1, row}] = -1.0;
    reg[{row, row}] = -1e-6;
  }
  ok &= write(dir + "kkt_growth.mtx", nh + 200, reg, true);
  ok &= write(dir + "neumann.mtx", n, laplacian(g, true), true);

  const int c = 20 * 20;
  Entries half;
  for (const auto &kv : convection(20))
    for (int bi = 0; bi < 2; ++bi)
      for (int bj = 0; bj < 2; ++bj)
        half[{kv.first.first + bi * c, kv.first.second + bj * c}] = kv.second;
  ok &= write(dir + "half_rank.mtx", 2 * c, half, false);

  Entries ss = convection(10);
  for (auto it = ss.begin(); it != ss.end();)
    it = it->first.first == 3 || it->first.first == 4 ? ss.erase(it) : std::next(it);
  ss[{3, 3}] = 1.0;
  ss[{4, 3}] = 2.0;
  ok &= write(dir + "struct_singular.mtx", 100, ss, false);

  std::mt19937_64 rng(4242);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int rows : {n, nh + nb, 2 * c}) {
    FILE *f = std::fopen((dir + "rhs_" + std::to_string(rows) + ".mtx").c_str(), "w");
    if (!f) return 1;
    std::fprintf(f, "%%%%MatrixMarket matrix array real general\n%d 1\n", rows);
    for (int i = 0; i < rows; ++i) std::fprintf(f, "%.17g\n", u(rng));
    ok &= std::fclose(f) == 0;
  }
  if (!ok) std::fprintf(stderr, "hard_matrices: cannot write into %s\n", argv[1]);
  return ok ? 0 : 1;
}
