// convert.h - the solution in extended precision for the residual path of
// refinement: into the extended array, corrections added to it, and back;
// and the narrowing and widening of a gathered vector around the
// substitution with a single-precision factor.
//
// The extended array holds each double of the solution as a double-double
// pair (extended.h), so it is twice the solution's size.  Counts are
// n*nrhs entries; the complex twins take n*nrhs complex entries (pairs of
// doubles) and treat real and imaginary parts alike.  Each routine is one
// parallel loop with a static split over the runtime's team.
#ifndef VELMORA_SOLVE_CONVERT_H
#define VELMORA_SOLVE_CONVERT_H

#include <cstdint>

namespace vm {

// x16 := x, with zero low parts.
void CONV8_16(const int *n, const int *nrhs, const double *x, double *x16);
void C_CONV16_32(const int *n, const int *nrhs, const double *x, double *x16);

// x16 := x16 + d in extended precision, and *sumdx += sum |d| over every
// double of d.  The threads' partial sums are added to *sumdx atomically,
// so the last bits of *sumdx may change from run to run.
void SUM8_16(const int *n, const int *nrhs, const double *d, double *x16, double *sumdx);
void C_SUM16_32(const int *n, const int *nrhs, const double *d, double *x16, double *sumdx);

// x := x16 rounded to double.
void CONV16_8(const int *n, const int *nrhs, const double *x16, double *x);
void C_CONV32_16(const int *n, const int *nrhs, const double *x16, double *x);

// rhs_to_single: the count x nrhs doubles of v (nrhs columns of count,
// as the gather leaves them) become floats at the front of the same array,
// column c at float offset c * count.  sol_to_double: the reverse, the
// floats at the front back to doubles over the whole array.  Both work in
// place, entry by entry (narrowing from the front, widening from the back,
// so that no entry is overwritten before it is read), on the calling
// thread: no vector of singles besides the array itself is needed.
void rhs_to_single(int count, int nrhs, double *v);
void sol_to_double(int count, int nrhs, double *v);

}  // namespace vm

#endif  // VELMORA_SOLVE_CONVERT_H
