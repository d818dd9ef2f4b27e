// lu_bench - speed of the supernodal LU (BLKLU_UNSYM_SEQ_VELMORA and
// BLKLU_SEQ_VELMORA) on the upwind convection-diffusion matrix of an m^3
// grid ordered by METIS.  Run by hand:
//   lu_bench [m [width [runs]]]        defaults 40 80 3
// Prints the size of the factor, the flops and the best time of the
// numeric loop alone (analysis and scatter maps excluded) for each member.
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "analysis/symbolic.h"
#include "factor/blklu.h"
#include "factor_setup.h"
#include "test_matrices.h"

int main(int argc, char **argv) {
  const int m = argc > 1 ? std::atoi(argv[1]) : 40;
  const int width = argc > 2 ? std::atoi(argv[2]) : 80;
  const int runs = argc > 3 ? std::atoi(argv[3]) : 3;
  const testmat::Csr a = testmat::convection_diffusion(m, m, m, 3.0);
  double t0 = omp_get_wtime();
  const factor_setup::Symbolic s =
      factor_setup::analyse(a, factor_setup::Ordering::kMetis, width, 0, 1, true);
  const double t_analyse = omp_get_wtime() - t0;
  if (s.status != 0) {
    std::printf("analysis failed: %d\n", s.status);
    return 1;
  }
  const double flops = vm::factor_flops(s.n, s.nsuper, s.xsuper.data(), s.xlindx.data(), 1);
  std::vector<double> lnz;
  factor_setup::LuStorage lu;
  factor_setup::Records rec = factor_setup::records(s, a, &lnz, &lu);
  std::printf("grid %d^3: n %d, nsuper %d, width %d, nnz(L) %lld, nnz(U) %lld (analysis %.2f s)\n",
              m, s.n, s.nsuper, width, static_cast<long long>(s.xlnz[s.n] - 1),
              static_cast<long long>(s.xunz[s.n] - 1), t_analyse);
  for (int mtype : {11, 1}) {
    double best = 1e300;
    vm::FactorScalars sc;
    for (int r = 0; r < runs; ++r) {
      sc = vm::FactorScalars{};
      t0 = omp_get_wtime();
      if (mtype == 11) {
        vm::BLKLU_UNSYM_SEQ_VELMORA(rec.view, rec.input, rec.work, sc);
      } else {
        vm::BLKLU_SEQ_VELMORA(rec.view, rec.input, rec.work, sc);
      }
      best = std::min(best, omp_get_wtime() - t0);
      if (sc.iflag != 0) {
        std::printf("factorization failed: %d\n", sc.iflag);
        return 1;
      }
    }
    std::printf("mtype %2d: flops %.3e, best of %d: %.3f s, %.2f GFLOP/s (OMP threads %d)\n", mtype,
                flops, runs, best, flops / best * 1e-9, omp_get_max_threads());
  }
  return 0;
}
