#pragma once

#include <cstdint>

namespace zorvek {

// The most frames capture_backtrace stores.
constexpr int kMaxBacktraceFrames = 128;

// Fills `frames` with the return addresses of the calling thread's stack, the
// caller of this function first, and returns how many it stored (at most
// `max_frames`, itself capped at kMaxBacktraceFrames; 0 when nothing was unwound).
//
// The unwinder is libunwind's unw_backtrace, about sixty times as fast as the C++
// runtime's _Unwind_Backtrace over a training step's stack, loaded with dlopen and
// RTLD_LOCAL: it exports _Unwind_* functions of its own, and were it linked, or
// loaded globally, every C++ library loaded after it would throw through it instead
// of through the C++ runtime's unwinder. Where libunwind is missing the C++ runtime's
// _Unwind_Backtrace does the walk. The first call loads it; call it once before the
// hot path (a collector's start) so that no callback pays for the load.
int capture_backtrace(void** frames, int max_frames);

// Loads the private libunwind for capture_backtrace_from_context and lets it set
// itself up, outside any signal handler. False when libunwind is missing: then
// capture_backtrace_from_context gives the interrupted instruction alone.
bool prepare_context_unwinder();

// Returned by capture_backtrace_from_context when the interrupted thread was
// inside the unwinder already: its state is not to be walked again.
constexpr int kUnwinderBusy = -1;

// The most frames capture_backtrace_from_context stores.
constexpr int kMaxContextFrames = 2 * kMaxBacktraceFrames;

// The room beyond `max` entries that capture_backtrace_from_context may use in
// `ips` as scratch: the handler's own frames, walked before the interrupted ones.
constexpr int kContextScratchFrames = 16;

// For the handler of a signal that interrupted this very thread: fills `ips` with
// the interrupted stack, the interrupted instruction first (exact), then return
// addresses; returns how many it stored, at most `max` (itself capped at
// kMaxContextFrames; 0 when `max` is 0), or kUnwinderBusy. `ips` has room for
// max + kContextScratchFrames entries; those past the count returned are left
// undefined. Async-signal-safe once prepare_context_unwinder has run; before that,
// and without libunwind, it stores the interrupted instruction alone.
//
// An interrupted function without unwind information (hand-written assembly, as
// MKL's BLAS kernels are) stops a DWARF walk at its own frame. Its caller is then
// looked for on the stack above the interrupted stack pointer: the first word
// that returns into code with unwind information right after a direct call to a
// function without any that may hold the interrupted instruction, or after an
// indirect call whose caller's return address follows a call too. A return
// address an earlier indirect call left in the function's unwritten locals can
// pass for it, and then stands as one extra frame between the function and its
// true caller.
int capture_backtrace_from_context(const void* ucontext, uint64_t* ips, int max);

}  // namespace zorvek
