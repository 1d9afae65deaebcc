#pragma once

#include <atomic>

// R's embedding interface. Its functions may leave by a jump: none is called where that would pass a destructor.

#define R_NO_REMAP
#define R_INTERFACE_PTRS 1
#define CSTACK_DEFNS
#include <Rinternals.h>

#include <R_ext/Parse.h>
#include <R_ext/eventloop.h>
#include <Rembedded.h>
#include <Rinterface.h>

extern "C" {

// In R's library, but in no header that can be included here.
extern Rboolean R_Visible;  // whether the console would print the value of what was evaluated last
extern int R_interrupts_pending;
extern Rboolean R_interrupts_suspended;
void Rf_callToplevelHandlers(SEXP expression, SEXP value, Rboolean succeeded, Rboolean visible);
}

// Not 0 when R is to interrupt what it does. Any thread, also from a signal handler.
inline std::atomic_ref<int> PendingInterrupt() { return std::atomic_ref<int>(R_interrupts_pending); }
static_assert(std::atomic_ref<int>::is_always_lock_free);
