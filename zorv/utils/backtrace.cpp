#include "zorv/utils/backtrace.h"

#include <dlfcn.h>
#include <unwind.h>

#include <algorithm>
#include <cstdint>

namespace zorvek {
namespace {

using UnwBacktrace = int (*)(void**, int);

// Loaded once and never unloaded: the handle lives as long as the process.
UnwBacktrace load_private_unwinder() {
  void* handle = dlopen("libunwind.so.8", RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return nullptr;
  return reinterpret_cast<UnwBacktrace>(dlsym(handle, "unw_backtrace"));
}

struct RuntimeWalk {
  void** frames;
  int max_frames;
  int count;
};

_Unwind_Reason_Code on_runtime_frame(struct _Unwind_Context* context, void* arg) {
  auto* walk = static_cast<RuntimeWalk*>(arg);
  const uintptr_t ip = _Unwind_GetIP(context);
  if (ip == 0) return _URC_END_OF_STACK;
  walk->frames[walk->count++] = reinterpret_cast<void*>(ip);
  return walk->count < walk->max_frames ? _URC_NO_REASON : _URC_END_OF_STACK;
}

}  // namespace

__attribute__((noinline)) int capture_backtrace(void** frames, int max_frames) {
  static const UnwBacktrace unw_backtrace = load_private_unwinder();
  const int wanted = std::min(max_frames, kMaxBacktraceFrames);
  if (wanted <= 0) return 0;
  // Both unwinders report this function's own frame first; it is left out.
  void* walked[kMaxBacktraceFrames + 1];
  int depth = 0;
  if (unw_backtrace != nullptr) {
    depth = unw_backtrace(walked, wanted + 1);
  } else {
    RuntimeWalk walk{walked, wanted + 1, 0};
    _Unwind_Backtrace(on_runtime_frame, &walk);
    depth = walk.count;
  }
  if (depth <= 1) return 0;
  std::copy(walked + 1, walked + depth, frames);
  return depth - 1;
}

}  // namespace zorvek
