// exports.cpp - every exported spelling of every call, generated from the
// one table of velmora.h.  Nothing else in the library has default
// visibility.
#include "interface/entry.h"
#include "velmora.h"

#define VM_DEFINE_ONE(spelling, lo, ret, params, args) \
  extern "C" VELMORA_API ret spelling params {         \
    return vm::entry::lo args;                         \
  }
#define VM_DEFINE(set, lo, UP, ret, params, args) \
  VELMORA_SPELL_##set(VM_DEFINE_ONE, lo, UP, ret, params, args)

VELMORA_CALL_TABLE(VM_DEFINE)
