// ldlt_bench - speed of the supernodal LDL^T (BLKLDL_SEQ_VELMORA) on the KKT
// matrix of the solver benchmark, [[H, J^T], [J, 0]]: H the 7-point
// Laplacian of an m^3 grid, m^3/4 local constraints, ordered by METIS.
// Run by hand:
//   ldlt_bench [m [width [runs [mode]]]]      defaults 43 80 3 both
// mode 0 diagonal pivoting, 1 Bunch-Kaufman, anything else both.  Prints the
// size of L, the flops (the symmetric count of the Cholesky bench, so the
// two compare) and the best time of the numeric loop alone in each pivot
// mode, with the perturbed pivots and the inertia.
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "analysis/symbolic.h"
#include "factor/blkldl.h"
#include "factor_setup.h"
#include "test_matrices.h"

int main(int argc, char **argv) {
  const int m = argc > 1 ? std::atoi(argv[1]) : 43;
  const int width = argc > 2 ? std::atoi(argv[2]) : 80;
  const int runs = argc > 3 ? std::atoi(argv[3]) : 3;
  const int mode = argc > 4 ? std::atoi(argv[4]) : -1;
  const int nc = m * m * m / 4;
  const testmat::Csr a = testmat::kkt_local(m, nc, 7);

  double t0 = omp_get_wtime();
  const factor_setup::Symbolic s = factor_setup::analyse(a, factor_setup::Ordering::kMetis, width);
  const double t_analyse = omp_get_wtime() - t0;
  if (s.status != 0) {
    std::printf("analysis failed: %d\n", s.status);
    return 1;
  }
  const double flops = vm::factor_flops(s.n, s.nsuper, s.xsuper.data(), s.xlindx.data(), 0);
  std::printf(
      "KKT %d^3 + %d: n %d, nsuper %d, width %d, nnz(L) %lld, tmpsiz %lld (analysis %.2f s)\n", m,
      nc, s.n, s.nsuper, width, static_cast<long long>(s.xlnz[s.n] - 1),
      static_cast<long long>(s.tmpsiz), t_analyse);
  std::vector<double> lnz;
  factor_setup::Records rec = factor_setup::records(s, a, &lnz);
  for (int iparm21 : {0, 1}) {
    if (mode == 1 - iparm21) continue;
    double best = 1e300;
    vm::FactorScalars sc;
    for (int r = 0; r < runs; ++r) {
      sc = vm::FactorScalars{};
      sc.eps = 1e-8;
      sc.pivot_mode = iparm21 == 0 ? -1 : 0;
      t0 = omp_get_wtime();
      vm::BLKLDL_SEQ_VELMORA(rec.view, rec.input, rec.work, sc);
      best = std::min(best, omp_get_wtime() - t0);
      if (sc.iflag != 0) {
        std::printf("factorization failed: %d\n", sc.iflag);
        return 1;
      }
    }
    std::printf(
        "%s: best of %d %.3f s, %.2f GFLOP/s (flops %.3e, OMP threads %d); "
        "perturbed %d, inertia (%d, %d)\n",
        iparm21 == 0 ? "diagonal pivoting" : "Bunch-Kaufman    ", runs, best, flops / best * 1e-9,
        flops, omp_get_max_threads(), sc.perturbed, sc.npos, sc.nneg);
  }
  return 0;
}
