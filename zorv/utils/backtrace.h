#pragma once

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

}  // namespace zorvek
