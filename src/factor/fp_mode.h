// fp_mode.h - the floating-point mode of a numeric factorization.
//
// Entries of a sparse factor far from the diagonal can decay below the
// smallest normal double, 2.2e-308 (those of 2D grids of a million
// unknowns do).  Arithmetic on such subnormal numbers takes a slow path in
// the processor, around a hundred times slower per operation, and a
// factorization that meets many of them runs several times slower.  While
// a factorization runs, subnormal results are flushed to zero and
// subnormal operands read as zero: next to entries of the matrix's own
// size they change nothing at working precision.  The caller's two mode
// bits are restored on the way out; the exception flags raised meanwhile
// stay raised, as they would without the change of mode.  The mode is a
// register of each thread: only the thread that makes the object is
// affected, so each worker of the factorization's team makes its own
// (team.h).
#ifndef VELMORA_FACTOR_FP_MODE_H
#define VELMORA_FACTOR_FP_MODE_H

#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#define VELMORA_HAVE_MXCSR 1
#endif

namespace vm {

class SubnormalsFlushed {
 public:
  SubnormalsFlushed() {
#ifdef VELMORA_HAVE_MXCSR
    saved_ = _mm_getcsr() & kBits;
    _mm_setcsr(_mm_getcsr() | kBits);
#endif
  }
  ~SubnormalsFlushed() {
#ifdef VELMORA_HAVE_MXCSR
    _mm_setcsr((_mm_getcsr() & ~kBits) | saved_);
#endif
  }
  SubnormalsFlushed(const SubnormalsFlushed &) = delete;
  SubnormalsFlushed &operator=(const SubnormalsFlushed &) = delete;

 private:
  // Bit 15 of the SSE control word flushes subnormal results to zero,
  // bit 6 reads subnormal operands as zero.
  static constexpr unsigned kBits = 0x8040u;
  unsigned saved_ = 0;
};

}  // namespace vm

#endif  // VELMORA_FACTOR_FP_MODE_H
