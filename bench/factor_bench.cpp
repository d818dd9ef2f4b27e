// factor_bench - speed of the supernodal Cholesky (BLKL_SEQ_VELMORA) on the
// 7-point Laplacian of an m^3 grid ordered by METIS.  Run by hand:
//   factor_bench [m [width [runs]]]        defaults 40 80 3
// Prints the size of L, the flops and the best time of the numeric loop
// alone (analysis and scatter map excluded), with the update kernels taken.
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "analysis/symbolic.h"
#include "factor/blkl.h"
#include "factor_setup.h"
#include "test_matrices.h"

int main(int argc, char **argv) {
  const int m = argc > 1 ? std::atoi(argv[1]) : 40;
  const int width = argc > 2 ? std::atoi(argv[2]) : 80;
  const int runs = argc > 3 ? std::atoi(argv[3]) : 3;
  const testmat::Csr a = testmat::grid_laplacian(m, m, m, true);
  double t0 = omp_get_wtime();
  const factor_setup::Symbolic s = factor_setup::analyse(a, factor_setup::Ordering::kMetis, width);
  const double t_analyse = omp_get_wtime() - t0;
  if (s.status != 0) {
    std::printf("analysis failed: %d\n", s.status);
    return 1;
  }
  const double flops = vm::factor_flops(s.n, s.nsuper, s.xsuper.data(), s.xlindx.data(), 0);
  std::vector<double> lnz;
  factor_setup::Records rec = factor_setup::records(s, a, &lnz);
  double best = 1e300;
  vm::UpdateKernelCounts counts;
  for (int r = 0; r < runs; ++r) {
    vm::FactorScalars sc;
    vm::set_update_kernel_counts(r == 0 ? &counts : nullptr);
    t0 = omp_get_wtime();
    vm::BLKL_SEQ_VELMORA(rec.view, rec.input, rec.work, sc);
    best = std::min(best, omp_get_wtime() - t0);
    if (sc.iflag != 0) {
      std::printf("factorization failed: %d\n", sc.iflag);
      return 1;
    }
  }
  vm::set_update_kernel_counts(nullptr);
  std::printf("grid %d^3: n %d, nsuper %d, width %d, nnz(L) %lld, tmpsiz %lld (analysis %.2f s)\n",
              m, s.n, s.nsuper, width, static_cast<long long>(s.xlnz[s.n] - 1),
              static_cast<long long>(s.tmpsiz), t_analyse);
  std::printf("flops %.3e, best of %d: %.3f s, %.2f GFLOP/s (OMP threads %d)\n", flops, runs, best,
              flops / best * 1e-9, omp_get_max_threads());
  std::printf("updates: coinciding %lld, rank-1 %lld, buffered %lld, direct %lld\n",
              static_cast<long long>(counts.coinciding), static_cast<long long>(counts.rank1),
              static_cast<long long>(counts.buffered), static_cast<long long>(counts.direct));
  return 0;
}
