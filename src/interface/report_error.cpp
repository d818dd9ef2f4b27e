// report_error.cpp - the failure report: a class line, then the message of
// the code in fixed words.  "ido" in messages is the phase, "nb" nrhs and
// "neqns" the order n.
#include "interface/report_error.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "interface/memory.h"

namespace vm {

namespace {

const char *class_name(int result) {
  switch (result) {
    case -1:
      return "sequence_ido,parameters";
    case -2:
      return "insufficient_memory";
    case -3:
      return "reordering_phase";
    case -4:
      return "numerical_factorization";
    case -6:
      return "prereordering_mtype11,13";
    case -8:
      return "32-bit overflow problem";
    default:
      return "internal_error,unclass.";
  }
}

void check_message(const Failure &f) {
  switch (f.code) {
    case 1:
      report_line("*** Input check: ido_new %d (out of bounds)", f.arg1);
      break;
    case 2:
      report_line("*** Input check: max_fac_store_new %d _old %d are incompatible", f.arg1, f.arg2);
      break;
    case 3:
      report_line("*** Input check: max_fac_store_in %d matrix_number_in %d", f.arg1, f.arg2);
      break;
    case 4:
      report_line("*** Input check: matrix_number_new %d ido %d are incompatible", f.arg1, f.arg2);
      break;
    case 5:
      report_line("*** Input check: matrix_type_new %d _old %d are incompatible", f.arg1, f.arg2);
      break;
    case 6:
      report_line("*** Input check: neqns_new %d _old %d are incompatible", f.arg1, f.arg2);
      break;
    case 7:
      report_line("*** Input check: neqns_new %d ", f.arg1);
      break;
    case 8:
      report_line("*** Input check: ia(neqns+1)_new %d _old %d are incompatible", f.arg1, f.arg2);
      break;
    case 9:
      report_line("*** Input check: nb_new  %d  ido %d are incompatible", f.arg1, f.arg2);
      break;
    case 10:
      report_line("*** Input check: iparam(6) %d (out of bounds)", f.arg1);
      break;
    case 11:
      report_line("*** Input check: preprocessing %d (out of bounds)", f.arg1);
      break;
    case 12:
      report_line("*** Input check: internal error, counted # threads %d", f.arg1);
      break;
    case 13:
      report_line("*** Input check: nproc %d <> counted # threads %d", f.arg1, f.arg2);
      break;
    case 15:
      report_line("*** Input check: matrix_type_new %d (out of bounds)", f.arg1);
      break;
    case 20:
      report_line("*** wrong controlstep parameter ido %d", f.arg1);
      break;
    case kCodeNullArgument:
      report_line("*** Input check: argument %s is a null pointer", f.text);
      break;
    case kCodeWrongMatrixNumber:
      report_line("*** error velmora: wrong matrix number, clean %d", f.arg1);
      break;
    case kCodeDiagSymbolicOnly:
      report_line("*** error velmora: only symb. fact. diagonal matrix case %d", f.arg1);
      break;
    case kCodeInitContradiction:
      report_line("*** error velmora: ido < 1 and initialization - contradiction (set ido >0 !) %d",
                  f.arg1);
      break;
    case 10000:
    case kCodeNoAnalysis:
      report_line("*** error velmora: clean impossible (ido?)");
      break;
    case kCodeNotAvailable:
      report_line("*** error velmora: this option is not yet available (%s)", f.text);
      break;
    case kCodeInverseMode:
      report_line("*** Input check: iparm(36) %d (out of bounds)", f.arg1);
      break;
    default:
      break;
  }
}

void memory_message(const Failure &f, const ControlBlock *cb, const int *iparm) {
  const long long bytes = f.bytes;
  const long long held = cb ? static_cast<long long>(cb->mem_kb) : 0;
  const long long kb = held + (bytes + 1023) / 1024;
  report_line("*** error velmora (memory allocation) %s, size to allocate: %lld bytes",
              group_name(f.code), bytes);
  report_line("total memory wanted here: %lld kbyte", kb);
  report_line("symbolic (max): %d symbolic (permanent): %d real(incl. 1 factor): %d",
              iparm ? ip(const_cast<int *>(iparm), 15) : 0,
              iparm ? ip(const_cast<int *>(iparm), 16) : 0,
              iparm ? ip(const_cast<int *>(iparm), 17) : 0);
}

void factorization_message(const Failure &f, const ControlBlock *cb, const int *iparm) {
  const int iparm8 = iparm ? iparm[7] : 0;
  const int iparm20 = iparm ? iparm[19] : 0;
  if (f.code == kCodeInverseStopped) {
    report_line("*** error velmora: selected inversion stopped: %s",
                f.arg1 == 1   ? "2x2 pivots in the factor"
                : f.arg1 == 2 ? "a pivot block without inverse"
                              : "an index check failed");
    return;
  }
  if (f.code == -112) {
    report_line("*** error velmora: iterative refinement contraction rate greater 0.9, interrupt");
  }
  if (f.code == -111) {
    report_line("*** error velmora: iterative refinement exceeds max. iteration number %d",
                std::abs(iparm8));
  } else if (f.code == -3 || iparm20 < 0) {
    report_line("*** error velmora: cgs error iparam(20) %d", iparm20);
  } else if (f.code == -2) {
    report_line("*** error velmora: internal error, insuff. memory factorization");
  } else if (cb && is_spd_type(cb->s.mtype)) {
    report_line("*** error velmora: zero or neg. pivot, A not spd");
  } else {
    report_line("*** error velmora: zero pivot");
  }
}

}  // namespace

void report_line(const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void report_failure(const Failure &f, const ControlBlock *cb, const int *iparm, int phase) {
  if (cb && cb->s.error_state == -1) {
    report_line("*** error VELMORA  (contradictory input, initialization failed)");
    report_line("handle=0 ?? ido= %d", phase);
    return;
  }
  char line[80];
  std::snprintf(line, sizeof line, "*** error VELMORA  (%-24s) error_num= %d", class_name(f.result),
                f.code);
  report_line("%s", line);
  switch (f.result) {
    case -1:
      check_message(f);
      break;
    case -2:
      memory_message(f, cb, iparm);
      break;
    case -3:
    case -8:
      report_line("*** error velmora: reordering, symb. factorization");
      if (f.code == kCodeBadPattern) {
        if (f.arg1 > 0)
          report_line("*** error velmora: malformed matrix, row %d: %s", f.arg1, f.text);
        else
          report_line("*** error velmora: malformed matrix: %s", f.text);
      }
      break;
    case -4:
      factorization_message(f, cb, iparm);
      break;
    case -6:
      report_line("*** error velmora: preordering failed after %d neqns out of %d", f.arg1, f.arg2);
      report_line("struct. sing. or input/parameter problem (matrixtype 11,13)");
      break;
    case -7:
      report_line("*** something wrong with diagonal matrix row %d", std::abs(f.code));
      break;
    case -5:
      if (f.code == kCodeInverseWrite || f.code == kCodeInverseRead) {
        report_line("*** error velmora: selected inversion could not %s the factor file %s: %s",
                    f.code == kCodeInverseWrite ? "write" : "read back", f.text,
                    std::strerror(f.arg1));
        if (f.code == kCodeInverseRead) report_line("*** error velmora: the factor is lost");
        break;
      }
      report_line("*** error velmora: unclassified error");
      break;
    default:
      report_line("*** error velmora: unclassified error");
      break;
  }
}

}  // namespace vm
