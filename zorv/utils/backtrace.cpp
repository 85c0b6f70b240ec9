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

#include "zorv/utils/safememory.h"

namespace zorvek {
namespace {

using UnwBacktrace = int (*)(void**, int);
using UnwInitLocal2 = int (*)(unw_cursor_t*, unw_context_t*, int);
using UnwStep = int (*)(unw_cursor_t*);
using UnwGetReg = int (*)(unw_cursor_t*, unw_regnum_t, unw_word_t*);
using UnwGetProcInfo = int (*)(unw_cursor_t*, unw_proc_info_t*);

// The entry points of the private libunwind; the names are its local-only ones.
struct PrivateUnwinder {
  UnwBacktrace backtrace = nullptr;
  UnwInitLocal2 init_local2 = nullptr;
  UnwStep step = nullptr;
  UnwGetReg get_reg = nullptr;
  UnwGetProcInfo get_proc_info = nullptr;
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
  unwinder.get_proc_info =
      reinterpret_cast<UnwGetProcInfo>(dlsym(handle, "_ULx86_64_get_proc_info"));
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

// The most bytes from a function's start to an instruction in it that a direct
// call's target is believed to hold.
constexpr uint64_t kMaxFunctionBytes = 256 * 1024;

// The target of the direct call (E8 rel32) that ends right before `address`, or 0.
uint64_t direct_call_target(uint64_t address) {
  uint8_t call[5];
  if (address < sizeof(call) || !safe_read(call, address - sizeof(call), sizeof(call)) ||
      call[0] != 0xe8) {
    return 0;
  }
  int32_t offset;
  memcpy(&offset, call + 1, sizeof(offset));
  return address + static_cast<uint64_t>(static_cast<int64_t>(offset));
}

// The length of an indirect call (FF /2) that starts with `modrm` after its FF
// byte, `sib` the byte after that.
size_t indirect_call_length(uint8_t modrm, uint8_t sib) {
  const int mod = modrm >> 6;
  const int rm = modrm & 7;
  size_t length = mod == 3 ? 2 : mod == 1 ? 3 : mod == 2 ? 6 : rm == 5 ? 6 : 2;
  if (mod != 3 && rm == 4) length += (mod == 0 && (sib & 7) == 5) ? 5 : 1;
  return length;
}

// Whether an indirect call (FF /2, through a register or memory) ends right
// before `address`.
bool follows_indirect_call(uint64_t address) {
  constexpr size_t kLongest = 7;
  uint8_t code[kLongest + 1] = {};
  if (address < kLongest || !safe_read(code, address - kLongest, kLongest)) return false;
  for (size_t length = 2; length <= kLongest; ++length) {
    const uint8_t* call = code + kLongest - length;
    if (call[0] == 0xff && ((call[1] >> 3) & 7) == 2 &&
        indirect_call_length(call[1], call[2]) == length) {
      return true;
    }
  }
  return false;
}

bool follows_call(uint64_t address) {
  return direct_call_target(address) != 0 || follows_indirect_call(address);
}

// The most stack words above the interrupted stack pointer searched for the
// caller of a function without unwind information, and how many are read at once.
constexpr size_t kScanWords = 512;
constexpr size_t kScanChunk = 32;

// Where user-space code can lie on x86-64 (no page at 0, 47-bit addresses).
constexpr uint64_t kLowestCode = 4096;
constexpr uint64_t kUserSpaceEnd = uint64_t{1} << 47;

// Finds the caller of an interrupted function that has no unwind information
// (hand-written assembly, as the BLAS kernels of MKL are), from its return address
// on the stack above the interrupted stack pointer, and walks on from there.
class UnknownLeafWalk {
 public:
  UnknownLeafWalk(const PrivateUnwinder& unwinder, const ucontext_t& interrupted)
      : m_unwinder(unwinder), m_context(interrupted), m_leaf(interrupted_ip(&interrupted)) {}
  UnknownLeafWalk(const UnknownLeafWalk&) = delete;
  UnknownLeafWalk& operator=(const UnknownLeafWalk&) = delete;

  // Stores the frames after the leaf in `ips`; how many (0 where the leaf has
  // unwind information, or no caller was found).
  int walk(uint64_t* ips, int max) {
    if (m_unwinder.get_proc_info == nullptr || max <= 0 || !at(m_leaf, UNW_INIT_SIGNAL_FRAME) ||
        has_unwind_info(m_leaf)) {
      return 0;
    }
    const auto sp = static_cast<uint64_t>(m_context.uc_mcontext.gregs[REG_RSP]);
    uint64_t words[kScanChunk];
    for (size_t done = 0; done < kScanWords; done += kScanChunk) {
      const uint64_t base = sp + done * sizeof(uint64_t);
      if (!safe_read(words, base, sizeof(words))) return 0;
      for (size_t i = 0; i < kScanChunk; ++i) {
        if (returned_to(words[i], base + (i + 1) * sizeof(uint64_t))) return steps(ips, max);
      }
    }
    return 0;
  }

 private:
  // Puts the cursor at `ip`; flag 0 for a return address, whose call the
  // unwinder looks up, UNW_INIT_SIGNAL_FRAME for an exact instruction.
  bool at(uint64_t ip, int flag) {
    m_context.uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(ip);
    return m_unwinder.init_local2(&m_cursor, &m_context, flag) >= 0;
  }

  // Where code has no unwind information, libunwind makes up a one-byte
  // procedure at the address itself.
  bool has_unwind_info(uint64_t ip) {
    unw_proc_info_t info;
    if (m_unwinder.get_proc_info(&m_cursor, &info) < 0) return false;
    return !(info.start_ip == ip && info.end_ip == ip + 1);
  }

  // Whether `candidate`, found on the stack below `above`, is the leaf's return
  // address, and if so leaves the cursor at it. It follows a call, in code with
  // unwind information: a direct call into a function that may hold the leaf
  // (at most kMaxFunctionBytes before it, without unwind information either),
  // or an indirect one, whose caller has a return address that in turn follows
  // a call.
  // A return address an earlier call left in a local not yet written is told by
  // a direct call to something else; one of an indirect call isn't always.
  bool returned_to(uint64_t candidate, uint64_t above) {
    // Small numbers and floating-point data, which a kernel's frame is mostly
    // full of, are no user-space code address: no read for them.
    if (candidate < kLowestCode || candidate >= kUserSpaceEnd) return false;
    const uint64_t target = direct_call_target(candidate);
    if (target != 0) {
      if (target > m_leaf || m_leaf - target >= kMaxFunctionBytes ||
          !at(target, UNW_INIT_SIGNAL_FRAME) || has_unwind_info(target)) {
        return false;
      }
    } else if (!follows_indirect_call(candidate)) {
      return false;
    }
    m_context.uc_mcontext.gregs[REG_RSP] = static_cast<greg_t>(above);
    if (!at(candidate, 0) || !has_unwind_info(candidate)) return false;
    if (target == 0) {
      unw_word_t next = 0;
      if (m_unwinder.step(&m_cursor) <= 0 ||
          m_unwinder.get_reg(&m_cursor, UNW_REG_IP, &next) < 0 || !follows_call(next)) {
        return false;
      }
      if (!at(candidate, 0)) return false;
    }
    return true;
  }

  // The frames from the cursor on, the stack pointer just above the return
  // address and the other registers as the leaf left them: a caller that finds
  // its frame through a frame pointer the leaf changed ends the walk.
  int steps(uint64_t* ips, int max) {
    int count = 0;
    do {
      unw_word_t ip = 0;
      if (m_unwinder.get_reg(&m_cursor, UNW_REG_IP, &ip) < 0 || ip == 0) break;
      ips[count++] = static_cast<uint64_t>(ip);
    } while (count < max && m_unwinder.step(&m_cursor) > 0);
    return count;
  }

  const PrivateUnwinder& m_unwinder;
  ucontext_t m_context;
  unw_cursor_t m_cursor;
  const uint64_t m_leaf;
};

// The walk stopped at the interrupted function: where that has no unwind
// information, the frames past it, in `ips`; how many.
__attribute__((noinline)) int walk_past_unknown_leaf(const PrivateUnwinder& unwinder,
                                                     const ucontext_t& interrupted, uint64_t* ips,
                                                     int max) {
  UnknownLeafWalk walk(unwinder, interrupted);
  return walk.walk(ips, max);
}

// Steps a cursor from the signal's context. The signal frame flag makes the first
// address the interrupted instruction, not a return address to step back from.
// Out of line, so that its cursor and walk_past_unknown_leaf's never share the
// interrupted thread's stack at once.
__attribute__((noinline)) int step_from_context(const PrivateUnwinder& unwinder,
                                                const void* ucontext, uint64_t* ips, int max) {
  unw_cursor_t cursor;
  if (unwinder.init_local2(&cursor, static_cast<unw_context_t*>(const_cast<void*>(ucontext)),
                           UNW_INIT_SIGNAL_FRAME) < 0) {
    ips[0] = interrupted_ip(ucontext);
    return 1;
  }
  int count = 0;
  do {
    unw_word_t ip = 0;
    if (unwinder.get_reg(&cursor, UNW_REG_IP, &ip) < 0 || ip == 0) break;
    ips[count++] = static_cast<uint64_t>(ip);
  } while (count < max && unwinder.step(&cursor) > 0);
  return count;
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
      if (count == 1) {
        return 1 + walk_past_unknown_leaf(*unwinder, *static_cast<const ucontext_t*>(ucontext),
                                          ips + 1, max - 1);
      }
      return count;
    }
  }
  // Interrupted in unsafe code, or the trampoline wasn't crossed: step from the signal's context.
  int count = step_from_context(*unwinder, ucontext, ips, max);
  if (count == 1) {
    count += walk_past_unknown_leaf(*unwinder, *static_cast<const ucontext_t*>(ucontext), ips + 1,
                                    max - 1);
  }
  return count;
}

}  // namespace zorvek
