// capture_backtrace: the caller's frame first, at most the frames asked for, and the
// unwinder it uses kept out of the process's global symbol scope.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "zorv/utils/backtrace.h"

namespace zorvek {
namespace {

// Returns the depth and leaves the frames in `frames`, from a known function.
__attribute__((noinline)) int unwind_here(void** frames, int max_frames) {
  const int depth = capture_backtrace(frames, max_frames);
  asm volatile("" : : "r"(frames) : "memory");  // keeps this a frame of its own
  return depth;
}

__attribute__((noinline)) int nested(int levels, void** frames, int max_frames) {
  if (levels == 0) return unwind_here(frames, max_frames);
  const int depth = nested(levels - 1, frames, max_frames);
  asm volatile("" : : "r"(levels) : "memory");
  return depth;
}

TEST(Backtrace, FirstFrameIsTheCaller) {
  void* frames[8] = {};
  const int depth = unwind_here(frames, 8);
  ASSERT_GT(depth, 1);
  const auto caller = reinterpret_cast<uintptr_t>(frames[0]);
  const auto start = reinterpret_cast<uintptr_t>(&unwind_here);
  EXPECT_GT(caller, start);
  EXPECT_LT(caller - start, 256u) << "the first frame is not inside unwind_here";
}

TEST(Backtrace, StopsAtTheFramesAskedFor) {
  void* frames[kMaxBacktraceFrames + 8] = {};
  EXPECT_EQ(nested(20, frames, 5), 5);
  EXPECT_EQ(nested(20, frames, 1), 1);
  EXPECT_EQ(nested(20, frames, 0), 0);
  EXPECT_EQ(nested(20, frames, -3), 0);
  EXPECT_LE(nested(200, frames, kMaxBacktraceFrames + 8), kMaxBacktraceFrames);
}

TEST(Backtrace, WalksTheWholeRecursion) {
  void* frames[64] = {};
  const int depth = nested(20, frames, 64);
  EXPECT_GE(depth, 22);  // unwind_here, 21 levels of nested, the test body
}

TEST(Backtrace, UnwinderStaysOutOfTheGlobalScope) {
  void* frames[4];
  ASSERT_GT(capture_backtrace(frames, 4), 0);
  // Loaded with RTLD_LOCAL: a lookup in the global scope must not find libunwind's
  // own entry points, which is what keeps other libraries from binding to them.
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "unw_backtrace"), nullptr);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "_ULx86_64_step"), nullptr);
  void* runtime_raise = dlsym(RTLD_DEFAULT, "_Unwind_RaiseException");
  ASSERT_NE(runtime_raise, nullptr);
  Dl_info provider{};
  ASSERT_NE(dladdr(runtime_raise, &provider), 0);
  EXPECT_EQ(std::string(provider.dli_fname).find("libunwind"), std::string::npos)
      << provider.dli_fname;
}

}  // namespace
}  // namespace zorvek
