// team.h - the team a numeric factorization runs on.
//
// The factorization's threads are a team of its own, started here, and
// each worker sets what it needs for itself only:
//  - one thread for everything it calls: the math library (the OpenMP
//    build of the BLAS sizes its team from the calling task's thread
//    count) and any parallel region it meets.  The count is that of the
//    worker's own task, so the caller's OpenMP settings are untouched and
//    nothing has to be put back; the team itself never has more threads
//    than asked;
//  - subnormals flushed to zero (fp_mode.h): the mode is a register of
//    each thread, so each worker sets and restores its own.
// Called from inside a caller's active parallel region, the team is the
// caller's thread alone, whatever the nesting allows: the caller's team
// already holds the cores.
#ifndef VELMORA_FACTOR_TEAM_H
#define VELMORA_FACTOR_TEAM_H

#include <omp.h>

#include "factor/fp_mode.h"

namespace vm {

// Runs work(t, nt) on each thread t of a team of nt <= nthreads threads.
// work must not throw.
// A worker's number is its place of arrival, taken in the thread-number
// section: it names the worker's slices of the work space.
template <class Work>
void run_on_team(int nthreads, Work work) {
  int arrived = 0;
  const int team = omp_in_parallel() || nthreads < 1 ? 1 : nthreads;
#pragma omp parallel num_threads(team) shared(arrived)
  {
    int t = 0;
#pragma omp critical(velmora_thread_number)
    t = arrived++;
    omp_set_num_threads(1);
    const SubnormalsFlushed flushed;
    work(t, omp_get_num_threads());
  }
}

}  // namespace vm

#endif  // VELMORA_FACTOR_TEAM_H
