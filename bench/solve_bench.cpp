// solve_bench - time of SOLVE_VELMORA on the Cholesky factor structure of a
// 3D grid (7-point stencil, METIS ordering, supernodes of width up to 80).
// The panel values are made up (unit diagonal, small off-diagonal entries):
// the time of a substitution does not depend on them.  Run by hand:
//   solve_bench [m] [runs]        (grid m^3, default 40, 10 runs)
// Prints the best and the median time of one right-hand side (serial form, and over the
// subtree tasks of a 2-domain ordering) and of 16 right-hand sides.
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "analysis/domains.h"
#include "analysis/ladj_mod.h"
#include "analysis/ordering.h"
#include "analysis/symbolic.h"
#include "solve/solve.h"

namespace {

using std::int64_t;
using std::vector;

struct Factor {
  int n = 0, nsuper = 0, ntasks = 1;
  vector<int> perm, xsuper, snode, lindx, domains;
  vector<int64_t> xlindx, xlnz;
  vector<double> lnz, scale;
  vm::FactorView<double> view() {
    vm::FactorView<double> f;
    f.n = n;
    f.nsuper = nsuper;
    f.xsuper = xsuper.data();
    f.snode = snode.data();
    f.xlindx = xlindx.data();
    f.lindx = lindx.data();
    f.xlnz = xlnz.data();
    f.lnz = lnz.data();
    return f;
  }
};

Factor make_factor(int m, int target) {
  Factor F;
  const int n = m * m * m;
  F.n = n;
  vector<int> ia{1}, ja;
  auto id = [m](int x, int y, int z) { return x + m * (y + m * z); };
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        ja.push_back(id(x, y, z) + 1);
        if (x + 1 < m) ja.push_back(id(x + 1, y, z) + 1);
        if (y + 1 < m) ja.push_back(id(x, y + 1, z) + 1);
        if (z + 1 < m) ja.push_back(id(x, y, z + 1) + 1);
        ia.push_back(static_cast<int>(ja.size()) + 1);
      }
  vector<int> xadj(n + 1), adjncy(vm::ladj_mod_capacity(n, ia.data()));
  vector<int> work(std::max<int64_t>(vm::sfinit_work_size(n), vm::ladj_mod_work_size(n)));
  vm::LADJ_MOD_VELMORA(n, ia.data(), ja.data(), nullptr, 1, xadj.data(), adjncy.data(),
                       work.data());
  vector<int> invp(n);
  F.perm.resize(n);
  F.domains.assign(2 * (target + 2), -1);
  int ndom = 1;
  vm::ORDER_METIS5_VELMORA(n, xadj.data(), adjncy.data(), nullptr, target, F.perm.data(),
                           invp.data(), F.domains.data(), &ndom);
  if (ndom < 2 ||
      vm::regroup_domains(n, F.perm.data(), F.domains.data(), &ndom, 0, work.data()) != 0)
    ndom = 1;
  ndom = vm::close_domain_list(n, F.domains.data(), ndom);
  for (int i = 0; i < n; ++i) invp[F.perm[i] - 1] = i + 1;
  vector<int> parent(n), colcnt(n);
  F.snode.resize(n);
  F.xsuper.resize(n + 1);
  int64_t nnzl = 0, nsub = 0;
  vm::sfinit(n, &ndom, F.domains.data(), xadj.data(), adjncy.data(), F.perm.data(), invp.data(),
             parent.data(), colcnt.data(), &nnzl, &nsub, &F.nsuper, F.snode.data(), F.xsuper.data(),
             work.data(), 80, 0, vm::kSchurPostorder);
  F.ntasks = ndom;
  const int ns = F.nsuper;
  vector<int> sp(ns), fc(ns), nx(ns), tl(ns), uf(ns), un(ns), nmod(ns);
  vector<int> w2(vm::reorder2_work_size(n, ns));
  F.xlindx.resize(ns + 1);
  F.lindx.resize(nsub);
  F.xlnz.resize(n + 1);
  vm::SymbolicCounts counts{};
  vm::REORDER2_VELMORA(
      vm::Reorder2Input{n, ns, xadj.data(), adjncy.data(), F.perm.data(), invp.data(),
                        F.xsuper.data(), F.snode.data(), colcnt.data(), ndom, F.domains.data(), 0,
                        0, 0, 0, nsub},
      vm::Reorder2Output{parent.data(), sp.data(), fc.data(), nx.data(), tl.data(), F.xlindx.data(),
                         F.lindx.data(), F.xlnz.data(), nullptr, uf.data(), un.data(), nmod.data()},
      &counts, w2.data());
  F.lnz.resize(F.xlnz[n] - 1);
  std::mt19937 gen(1);
  std::uniform_real_distribution<double> d(-1e-4, 1e-4);
  for (auto &v : F.lnz) v = d(gen);
  for (int j = 1; j <= n; ++j) {  // the diagonal: first row of column j below its own
    const int s = F.snode[j - 1], first = F.xsuper[s - 1];
    const int64_t len = F.xlnz[first] - F.xlnz[first - 1];
    F.lnz[F.xlnz[first - 1] - 1 + (j - first) * (len + 1)] = 1.0;
  }
  F.scale.assign(2 * n, 1.0);
  return F;
}

struct Times {
  double best, median;
};

Times time_solve(Factor &F, int nrhs, int parallel, int blocks, int runs) {
  vm::SolveInput in;
  in.n = F.n;
  in.nrhs = nrhs;
  in.perm = F.perm.data();
  in.scale = F.scale.data();
  in.ntasks = F.ntasks;
  in.taskrange = F.domains.data();
  in.parallel = parallel;
  in.nthreads = blocks;
  const vm::SolveWorkSize sz = vm::solve_work_size(in);
  vector<double> scalars(sz.scalars()), b(static_cast<size_t>(nrhs) * F.n, 1.0), x(b.size());
  vector<int> ints(sz.starts);
  const auto w = vm::solve_work_carve<double>(sz, scalars.data(), ints.data());
  vector<double> t;
  for (int r = 0; r < runs; ++r) {
    int error = 0;
    const double t0 = omp_get_wtime();
    vm::SOLVE_VELMORA<double>(F.view(), in, b.data(), x.data(), w, &error);
    t.push_back(omp_get_wtime() - t0);
  }
  std::sort(t.begin(), t.end());
  return {t.front(), t[t.size() / 2]};
}

}  // namespace

int main(int argc, char **argv) {
  const int m = argc > 1 ? std::atoi(argv[1]) : 40;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 10;
  Factor one = make_factor(m, 1), two = make_factor(m, 2);
  std::printf("grid %d^3, n %d, nnz(L) %lld, %d supernodes, threads %d\n", m, one.n,
              static_cast<long long>(one.xlnz[one.n] - 1), one.nsuper, omp_get_max_threads());
  const double flops = 4.0 * static_cast<double>(one.xlnz[one.n] - 1);
  auto line = [&](const char *what, Factor &F, int nrhs, int parallel, int blocks) {
    const Times t = time_solve(F, nrhs, parallel, blocks, runs);
    std::printf("%-36s best %8.2f ms (%5.2f Gflop/s), median %8.2f ms\n", what, 1e3 * t.best,
                nrhs * flops / t.best * 1e-9, 1e3 * t.median);
  };
  line("1 rhs, serial form", one, 1, 0, 1);
  line("1 rhs, 2 subtree tasks", two, 1, 1, 1);
  line("16 rhs, block kernels, iparm(3) 1", one, 16, 0, 1);
  line("16 rhs, block kernels, iparm(3) 2", one, 16, 0, 2);
  return 0;
}
