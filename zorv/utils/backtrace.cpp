#include "zorv/utils/backtrace.h"

#include <dlfcn.h>
#include <link.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace zorvek {
namespace {

using UnwBacktrace = int (*)(void**, int);
using UnwInitLocal2 = int (*)(unw_cursor_t*, unw_context_t*, int);
using UnwStep = int (*)(unw_cursor_t*);
using UnwGetReg = int (*)(unw_cursor_t*, unw_regnum_t, unw_word_t*);

// The entry points of the private libunwind; the names are its local-only ones.
struct PrivateUnwinder {
  UnwBacktrace backtrace = nullptr;
  UnwInitLocal2 init_local2 = nullptr;
  UnwStep step = nullptr;
  UnwGetReg get_reg = nullptr;
};

// Loaded once and never unloaded: the handle lives as long as the process.
PrivateUnwinder load_private_unwinder() {
  PrivateUnwinder unwinder;
  void* handle = dlopen("libunwind.so.8", RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return unwinder;
  unwinder.backtrace = reinterpret_cast<UnwBacktrace>(dlsym(handle, "unw_backtrace"));
  unwinder.init_local2 = reinterpret_cast<UnwInitLocal2>(dlsym(handle, "_ULx86_64_init_local2"));
  unwinder.step = reinterpret_cast<UnwStep>(dlsym(handle, "_ULx86_64_step"));
  unwinder.get_reg = reinterpret_cast<UnwGetReg>(dlsym(handle, "_ULx86_64_get_reg"));
  return unwinder;
}

const PrivateUnwinder& private_unwinder() {
  static const PrivateUnwinder unwinder = load_private_unwinder();
  return unwinder;
}

// Set once prepare_context_unwinder has loaded the context walk: a signal handler
// must find it ready, never load it.
std::atomic<const PrivateUnwinder*> context_unwinder{nullptr};

// Set while this thread is inside the unwinder: a signal that lands there must not
// unwind again over state the interrupted walk is changing. Initial-exec, so that
// a signal handler reads it without a call into the dynamic loader.
thread_local bool inside_unwinder __attribute__((tls_model("initial-exec"))) = false;

class InsideUnwinder {
 public:
  InsideUnwinder() { __atomic_store_n(&inside_unwinder, true, __ATOMIC_RELAXED); }
  ~InsideUnwinder() { __atomic_store_n(&inside_unwinder, false, __ATOMIC_RELAXED); }
  InsideUnwinder(const InsideUnwinder&) = delete;
  InsideUnwinder& operator=(const InsideUnwinder&) = delete;
};

// The frames a signal handler may put ahead of the interrupted code: its own
// calls down to the unwinder, and the signal trampoline.
constexpr int kHandlerFrames = kContextScratchFrames;

// unw_backtrace keeps its per-thread cache behind a thread-local variable of
// libunwind's, which a dlopen'ed library's threads get allocated with malloc on
// their first use of it, and again after any later dlopen of a library with
// thread-local storage. So a fast walk is made only where the signal interrupted
// code outside the C library, the dynamic loader and whichever object provides
// malloc: an allocation there can't meet the allocator's or the loader's own locks
// held by the same thread. Elsewhere the walk steps from the context, which uses
// no thread-local state.
struct CodeRange {
  uintptr_t start;
  uintptr_t end;
};
constexpr int kMaxUnsafeRanges = 16;
CodeRange unsafe_ranges[kMaxUnsafeRanges];
int unsafe_range_count = 0;

// Adds the executable segments of the object that holds `address`.
void add_object_code(const void* address) {
  if (address == nullptr) return;
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* data) {
        const auto wanted = reinterpret_cast<uintptr_t>(data);
        bool holds = false;
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const ElfW(Phdr)& segment = info->dlpi_phdr[i];
          const uintptr_t start = info->dlpi_addr + segment.p_vaddr;
          holds |= segment.p_type == PT_LOAD && wanted >= start &&
                   wanted < start + segment.p_memsz;
        }
        if (!holds) return 0;
        for (int i = 0; i < info->dlpi_phnum && unsafe_range_count < kMaxUnsafeRanges; ++i) {
          const ElfW(Phdr)& segment = info->dlpi_phdr[i];
          if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
          const uintptr_t start = info->dlpi_addr + segment.p_vaddr;
          unsafe_ranges[unsafe_range_count++] = {start, start + segment.p_memsz};
        }
        return 1;
      },
      const_cast<void*>(address));
}

bool in_unsafe_code(uint64_t ip) {
  for (int i = 0; i < unsafe_range_count; ++i) {
    if (ip >= unsafe_ranges[i].start && ip < unsafe_ranges[i].end) return true;
  }
  return false;
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

uint64_t interrupted_ip(const void* ucontext) {
  const auto* context = static_cast<const ucontext_t*>(ucontext);
  return static_cast<uint64_t>(context->uc_mcontext.gregs[REG_RIP]);
}

}  // namespace

__attribute__((noinline)) int capture_backtrace(void** frames, int max_frames) {
  const UnwBacktrace unw_backtrace = private_unwinder().backtrace;
  const int wanted = std::min(max_frames, kMaxBacktraceFrames);
  if (wanted <= 0) return 0;
  // Both unwinders report this function's own frame first; it is left out.
  void* walked[kMaxBacktraceFrames + 1];
  int depth = 0;
  if (unw_backtrace != nullptr) {
    const InsideUnwinder inside;
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

bool prepare_context_unwinder() {
  const PrivateUnwinder& unwinder = private_unwinder();
  if (unwinder.init_local2 == nullptr || unwinder.step == nullptr || unwinder.get_reg == nullptr) {
    return false;
  }
  // One walk here sets up libunwind's own state, which a handler must not be the first to do.
  void* frames[4];
  capture_backtrace(frames, 4);
  static const bool ranges_known = [] {
    add_object_code(dlsym(RTLD_DEFAULT, "malloc"));
    add_object_code(reinterpret_cast<const void*>(&getpid));
    add_object_code(dlsym(RTLD_DEFAULT, "__tls_get_addr"));
    return true;
  }();
  context_unwinder.store(ranges_known ? &unwinder : nullptr, std::memory_order_release);
  return true;
}

int capture_backtrace_from_context(const void* ucontext, uint64_t* ips, int max) {
  if (max <= 0) return 0;
  if (__atomic_load_n(&inside_unwinder, __ATOMIC_RELAXED)) return kUnwinderBusy;
  const uint64_t leaf = interrupted_ip(ucontext);
  const PrivateUnwinder* unwinder = context_unwinder.load(std::memory_order_acquire);
  if (unwinder == nullptr) {
    ips[0] = leaf;
    return 1;
  }
  max = std::min(max, kMaxContextFrames);
  const InsideUnwinder inside;
  // This thread's own stack, from here through the signal frame into the
  // interrupted code: unw_backtrace keeps a per-thread cache of frame layouts and
  // takes no lock, where stepping a cursor from the context costs a lock and two
  // signal-mask system calls per frame, about a hundred times as much. The
  // handler's frames and the signal trampoline stand ahead of the interrupted
  // instruction, which ends them.
  if (!in_unsafe_code(leaf)) {
    // Walked into `ips` itself, whose scratch room holds the handler's frames.
    void** walked = reinterpret_cast<void**>(ips);
    static_assert(sizeof(void*) == sizeof(uint64_t), "a frame address fills an ips entry");
    const int depth = unwinder->backtrace(walked, max + kHandlerFrames);
    for (int i = 0; i < std::min(depth, kHandlerFrames); ++i) {
      if (reinterpret_cast<uint64_t>(walked[i]) != leaf) continue;
      const int count = std::min(depth - i, max);
      std::memmove(ips, ips + i, static_cast<size_t>(count) * sizeof(uint64_t));
      return count;
    }
  }
  // Interrupted in unsafe code, or the trampoline wasn't crossed: step from the signal's context. The
  // signal frame flag makes the first address the interrupted instruction, not a
  // return address to step back from.
  unw_cursor_t cursor;
  if (unwinder->init_local2(&cursor, static_cast<unw_context_t*>(const_cast<void*>(ucontext)),
                            UNW_INIT_SIGNAL_FRAME) < 0) {
    ips[0] = leaf;
    return 1;
  }
  int count = 0;
  do {
    unw_word_t ip = 0;
    if (unwinder->get_reg(&cursor, UNW_REG_IP, &ip) < 0 || ip == 0) break;
    ips[count++] = static_cast<uint64_t>(ip);
  } while (count < max && unwinder->step(&cursor) > 0);
  return count;
}

}  // namespace zorvek
