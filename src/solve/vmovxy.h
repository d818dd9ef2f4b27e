// vmovxy.h - parallel kernels on dense vectors.
//
// Each kernel forks one parallel region (or runs serially when the runtime
// does not fork) and splits the vector over the team in static chunks; no
// kernel has a size threshold of its own.  All arguments by address, the
// length first; a length below 1 does nothing and reductions return 0.
// Complex vectors are (re, im) pairs of doubles, n pairs long.
#ifndef VELMORA_SOLVE_VMOVXY_H
#define VELMORA_SOLVE_VMOVXY_H

#include <complex>
#include <cstdint>

namespace vm {

void PVCLRI(const int *n, int *x);                                   // x = 0
void PVCLRR(const int *n, double *x);                                // x = 0
void PVMOVXY(const int *n, const double *x, double *y);              // y = x
void PIMOVXY(const int *n, const std::int64_t *x, std::int64_t *y);  // y = x
void PJMOVXY(const std::int64_t *n, const std::int64_t *x, std::int64_t *y);
void PI4MOVXY(const int *n, const int *x, int *y);                            // y = x
void PJ4MOVXY(const std::int64_t *n, const int *x, int *y);                   // y = x
double PDSCAP1(const int *n, const double *x, const double *y);               // x . y
double PVNORM2(const int *n, const double *x);                                // sum x^2, no root
void PVRMXAY(const int *n, const double *a, const double *x, double *y);      // y += a x
void PVRXAYX(const int *n, const double *a, double *x, const double *y);      // x = x a + y
void PVAXYRZ(const int *n, const double *x, const double *y, double *z);      // z = x + y
void PVSXYRY(const int *n, const double *x, double *y);                       // y -= x
void PVAXYRY(const int *n, const double *x, double *y);                       // y += x
void PVCLRR_32(const int *n, float *x);                                       // x = 0
void PVMOVXY_32(const int *n, const float *x, float *y);                      // y = x
void CMOVXY(const int *n, const double *x, double *y);                        // y = x, complex
void CCLRR(const int *n, double *x);                                          // x = 0, complex
std::complex<double> ZSCAP1(const int *n, const double *x, const double *y);  // sum x y
double CNORM2(const int *n, const double *x);                                 // sum re^2 + im^2

// Serial copies for short index arrays: a plain loop up to 12 (64-bit) or
// 24 (32-bit) entries, the library block move above; overlap is allowed.
void IMOVXY_SERIAL(const std::int64_t *n, const std::int64_t *x, std::int64_t *y);
void I4MOVXY_SERIAL(const std::int64_t *n, const int *x, int *y);

}  // namespace vm

#endif  // VELMORA_SOLVE_VMOVXY_H
