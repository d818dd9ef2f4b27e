// velmora.cpp - the front of the library: query phases, diagonal matrices,
// the initialiser, and the hand-over to the phase driver.
//
// The front answers everything that needs no state.  A matrix with as many
// nonzeros as rows is solved here without any allocation, so such a call
// leaves the handle empty.
#include <omp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "interface/check_input_fc.h"
#include "interface/control.h"
#include "interface/defaults.h"
#include "interface/diag.h"
#include "interface/entry.h"
#include "interface/velmora_c.h"
#include "quor/corelib/quor_log.h"

namespace vm::entry {

namespace {

bool is_diagonal(const CallArgs &c) {
  return ip(c.iparm, 32) == 0 && *c.phase >= 1 && *c.n >= 1 && c.ia && c.ia[*c.n] - 1 == *c.n;
}

// Diagonal matrix: solve (phase ending in 3) or test only, then the
// statistics such a matrix has.
void diagonal_front(const CallArgs &c) {
  int *iparm = c.iparm;
  const int phase = *c.phase;
  ip(iparm, 12) = -1;
  if (phase != 11) {
    const int solve = phase % 10 == 3 ? 1 : 0;
    const int nrhs = c.nrhs ? *c.nrhs : 0;
    if (!c.a || (solve == 1 && (!c.b || !c.x))) {
      fail_without_handle(c, Failure{-1, kCodeNullArgument, 0, 0, !c.a ? "a" : !c.b ? "b" : "x"});
      return;
    }
    if (is_complex_type(*c.mtype)) {
      C_DIAG_VELMORA(c.n, &nrhs, c.ia, c.ja, static_cast<const double *>(c.a),
                     static_cast<double *>(c.b), static_cast<double *>(c.x), c.error, &iparm[5],
                     &solve);
    } else {
      DIAG_VELMORA(c.n, &nrhs, c.ia, c.ja, static_cast<const double *>(c.a),
                   static_cast<double *>(c.b), static_cast<double *>(c.x), c.error, &iparm[5],
                   &solve, &iparm[21], &iparm[22]);
    }
  }
  ip(iparm, 18) = *c.n;
  ip(iparm, 15) = 0;
  ip(iparm, 16) = 0;
  ip(iparm, 17) = 0;
  ip(iparm, 19) = *c.n / 1000000;
  ip(iparm, 20) = 0;
  if ((phase == 11 || phase == 23 || phase == 33) && *c.error != 0) *c.error = -7;
}

// Every parallel region of a call, those of the vector kernels and of the
// threaded BLAS among them, forks at most the team the call asks for: the
// caller's iparm(3) when it is honoured (iparm(1) 1) and positive, within
// the bounds of usable_team, or the runtime's count.  Called from inside a
// caller's active parallel region, every region of the call (analysis,
// factorization, solve) runs on the caller's thread alone, even where the
// caller allows nested teams: the caller's team already holds the cores,
// and teams of our own on each of its threads would oversubscribe them.
// The caller's thread count is put back at the end of the call.
class CallTeam {
 public:
  explicit CallTeam(int *iparm) : saved_(omp_get_max_threads()) {
    int team = saved_;
    if (omp_in_parallel() != 0)
      team = 1;
    else if (ip(iparm, 1) == 1 && ip(iparm, 3) > 0)
      team = usable_team(ip(iparm, 3));
    changed_ = team != saved_;
    if (changed_) omp_set_num_threads(team);
  }
  ~CallTeam() {
    if (changed_) omp_set_num_threads(saved_);
  }
  CallTeam(const CallTeam &) = delete;
  CallTeam &operator=(const CallTeam &) = delete;

 private:
  int saved_;
  bool changed_ = false;
};

}  // namespace

void velmora(void **pt, const int *maxfct, const int *mnum, const int *mtype, const int *phase,
             const int *n, void *a, const int *ia, const int *ja, int *perm, const int *nrhs,
             int *iparm, const int *msglvl, void *b, void *x, int *error, double *dparm) {
  if (!error) return;
  if (!phase) {
    *error = -1;
    return;
  }
  if (*phase == -2) {
    *error = 18;
    if (iparm) ip(iparm, 1) = 23;
    return;
  }
  if (*phase == -3) {
    *error = 500000;
    return;
  }
  *error = 0;
  const CallArgs c{pt,   maxfct, mnum,  mtype,  phase, n, a,     ia,   ja,
                   perm, nrhs,   iparm, msglvl, b,     x, error, dparm};
  if (const char *missing = missing_argument(c)) {
    if (!iparm) {
      *error = message_level(msglvl) > 0 ? -1 : -7;
      if (message_level(msglvl) > 0)
        std::printf("*** Input check: argument iparm is a null pointer\n");
      return;
    }
    fail_without_handle(c, Failure{-1, kCodeNullArgument, 0, 0, missing});
    return;
  }
  if (is_diagonal(c)) {
    diagonal_front(c);
    return;
  }
  if (*phase == -22 && *n >= 1 && ia && ia[*n] - 1 == *n) {
    if (a) {
      if (is_complex_type(*mtype))
        C_DIAG_INVERSE_VELMORA(n, nrhs, ia, ja, static_cast<double *>(a), error);
      else
        DIAG_INVERSE_VELMORA(n, nrhs, ia, ja, static_cast<double *>(a), error);
    }
    return;
  }
  {
    const CallTeam team(iparm);
    // No exception leaves the library.  The layers that use containers
    // catch their own std::bad_alloc and report the memory class; this is
    // the last guard of a C caller.
    try {
      VELMORA_CCC(c);
    } catch (const std::bad_alloc &) {
      *error = -2;
    } catch (...) {
      *error = -5;
    }
  }
  // A plain direct solve (phase 33 without the hybrid or iterative path)
  // reports no failure to the caller: what went wrong has been printed at
  // msglvl 1, and the caller keeps the best solution found.
  if (ip(iparm, 32) == 0 && *phase == 33 && ip(iparm, 4) == 0) *error = 0;
}

void velmorainit(void **pt, const int *mtype, const int *solver, int *iparm, double *dparm,
                 int *error) {
  if (error) *error = 0;
  if (pt)
    for (int k = 0; k < kHandleSlots; ++k) pt[k] = nullptr;
  if (!iparm || !mtype) {
    if (error) *error = -1;
    return;
  }
  const int solver_kind = solver ? *solver : 0;
  init_iparm(iparm, *mtype, solver_kind);
  if (iterative_solver_serves(*mtype, solver_kind)) {
    quor_log_startup();
    if (dparm) init_dparm_iterative(dparm);
  }
}

void velmora_exist_parallel() {}

void velmora_ipopt_newinterface() {}

int get_proc_velmora(int *nproc) {
  const char *value = std::getenv("OMP_NUM_THREADS");
  if (!value) {
    std::printf("Please set environment variable OMP_NUM_THREADS\n");
    return 0;
  }
  const int count = static_cast<int>(std::strtol(value, nullptr, 10));
  std::printf("Using %d CPUS for the factorization \n ", count);
  std::fflush(stdout);
  if (nproc) *nproc = count;
  return count;
}

}  // namespace vm::entry
