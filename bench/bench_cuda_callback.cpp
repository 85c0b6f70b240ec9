// Cost of one driver API callback (its enter and its exit) through trace_callback,
// beside a bare capture_backtrace (the C++ runtime's _Unwind_Backtrace) into the same 32-slot array from the same stack depth,
// in one run. Both are called from 20 frames of recursion, so that the unwind walks
// a stack about as deep as a training step's at a driver call.
//
// The collector is started on real queues with its own record helper, and CUPTI is
// the fake one (ZVK_CUPTI_LIBRARY points at it), so that the callback writes real
// CUDA_API records. The callback is called directly with a CUpti_CallbackData of our
// own, as CUPTI would call it, rather than through the fake's firing, whose own
// locking would be measured too. Its two cuptiGetTimestamp calls still go to the
// fake, which takes a lock and looks up a map on each: they are timed on their own
// and the ratio is printed with and without them. The gettid system call the exit
// path makes is timed on its own too, since on a VM it is a large part of the cost.
//
// Full buffers go straight back to the free queue, as a writer would hand them back,
// so that what is timed is the callback and not a wait for a buffer. Five rounds, a
// bare pass right before each callback pass since this VM's speed drifts, and the
// median is printed. Nothing is asserted: the aim is a ratio of at most 1.3.

#include <cupti.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "bench/bench_support.h"
#include "zorv/cuda/zvkcudacollector.h"
#include "zorv/cuda/zvkcupti.h"
#include "zorv/io/zvkqueue.h"
#include "zorv/utils/backtrace.h"

namespace zorvek {
namespace {

using bench::Clock;
using bench::median;
using bench::seconds_since;
constexpr int kStackDepth = 20;
constexpr int kFrames = 32;  // the callback's own array
constexpr uint32_t kBufferBytes = 8u << 20;
constexpr int kBuffers = 4;
constexpr int kCallsPerPass = 200000;
// A record with a 32-frame chain is about 300 bytes: an 8 MiB buffer takes some
// 28,000, so recycling every 1024 calls never leaves the helper without one.
constexpr int kRecycleEvery = 1024;
constexpr int kRounds = 5;

// A kernel launch names its kernel; most other driver calls have no symbol name.
constexpr char kKernelName[] =
    "void at::native::vectorized_elementwise_kernel<4, at::native::CUDAFunctor_add<float>, "
    "std::array<char*, 3ul> >(int, at::native::CUDAFunctor_add<float>, std::array<char*, 3ul>)";

struct Pipeline {
  ZVKQueue<ZVKBuffer> fill{kBuffers, kBufferBytes};
  ZVKQueue<ZVKBuffer> to_write;
  uint64_t record_bytes = 0;

  // The writer's part, played at once.
  void recycle() { record_bytes += bench::recycle_buffers(to_write, fill); }
};

// What one pass does at the bottom of the recursion.
struct Pass {
  enum Kind { kBare, kCallback, kTimestamps, kGettid } kind;
  Pipeline* pipeline;
  const char* symbol_name;  // for kCallback
  double ns_per_call = 0;
  volatile int sink = 0;
};

// The baseline: an unwind from a frame of its own, as the callback's exit path has.
__attribute__((noinline)) int bare_unwind() {
  void* frames[kFrames];
  const int depth = zorvek::capture_backtrace(frames, kFrames);
  asm volatile("" : : "r"(frames) : "memory");  // the frames are used
  return depth;
}

__attribute__((noinline)) void run_pass(Pass* pass) {
  CUpti_CallbackData data = {};
  uint64_t slot = 0;
  data.correlationData = &slot;
  data.functionName = "cuLaunchKernel";
  data.symbolName = pass->symbol_name;
  const auto start = Clock::now();
  switch (pass->kind) {
    case Pass::kBare:
      for (int i = 0; i < kCallsPerPass; ++i) pass->sink = bare_unwind();
      break;
    case Pass::kCallback:
      for (int i = 0; i < kCallsPerPass; ++i) {
        data.correlationId = static_cast<uint32_t>(i);
        data.callbackSite = CUPTI_API_ENTER;
        trace_callback(nullptr, CUPTI_CB_DOMAIN_DRIVER_API,
                       CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel, &data);
        data.callbackSite = CUPTI_API_EXIT;
        trace_callback(nullptr, CUPTI_CB_DOMAIN_DRIVER_API,
                       CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel, &data);
        if (i % kRecycleEvery == 0) pass->pipeline->recycle();
      }
      break;
    case Pass::kTimestamps:
      for (int i = 0; i < kCallsPerPass; ++i) {
        cupti().cuptiGetTimestamp(&slot);
        cupti().cuptiGetTimestamp(&slot);
      }
      break;
    case Pass::kGettid:
      for (int i = 0; i < kCallsPerPass; ++i) pass->sink = static_cast<int>(syscall(SYS_gettid));
      break;
  }
  const double elapsed = seconds_since(start);
  pass->ns_per_call = elapsed * 1e9 / kCallsPerPass;
  pass->pipeline->recycle();
}

// `frames` frames of recursion, then the pass. The barrier after the call keeps
// each frame: without it the compiler would turn the recursion into a jump.
__attribute__((noinline)) void at_depth(int frames, Pass* pass) {
  if (frames <= 1) {
    run_pass(pass);
  } else {
    at_depth(frames - 1, pass);
  }
  asm volatile("" : : : "memory");
}

double timed(Pass::Kind kind, Pipeline& pipeline, const char* symbol_name = nullptr) {
  Pass pass{kind, &pipeline, symbol_name};
  at_depth(kStackDepth, &pass);
  return pass.ns_per_call;
}

struct Variant {
  const char* label;
  const char* symbol_name;
  std::vector<double> ns{};
  std::vector<double> ratios{};
  std::vector<double> ratios_less_clock{};
};

}  // namespace
}  // namespace zorvek

int main() {
  using namespace zorvek;
  setenv("ZORV_MIN_LOG_LEVEL", "1", 0);
  // Before the collector exists: its first use of CUPTI loads what this names, and
  // the dynamic loader hands back the copy this program is linked with.
  setenv("ZVK_CUPTI_LIBRARY", FAKE_CUPTI_LIBRARY, 1);

  Pipeline pipeline;
  auto collector = std::make_unique<ZVKCudaCollector>("bench", &pipeline.fill, &pipeline.to_write);
  if (!collector->start_profiling().ok()) {
    std::fprintf(stderr, "the collector didn't start\n");
    return 1;
  }

  std::vector<Variant> variants = {{"no symbol name (most driver calls)", nullptr},
                                   {"kernel launch, 150-character name", kKernelName}};
  // Every buffer, the name tables and the unwinder's caches touched once before
  // anything is timed.
  timed(Pass::kBare, pipeline);
  for (const Variant& variant : variants) timed(Pass::kCallback, pipeline, variant.symbol_name);
  timed(Pass::kTimestamps, pipeline);
  pipeline.record_bytes = 0;

  std::vector<double> bare_ns, clock_ns, gettid_ns;
  for (int round = 0; round < kRounds; ++round) {
    const double clock = timed(Pass::kTimestamps, pipeline);
    clock_ns.push_back(clock);
    gettid_ns.push_back(timed(Pass::kGettid, pipeline));
    for (Variant& variant : variants) {
      const double bare = timed(Pass::kBare, pipeline);
      const double callback = timed(Pass::kCallback, pipeline, variant.symbol_name);
      bare_ns.push_back(bare);
      variant.ns.push_back(callback);
      variant.ratios.push_back(callback / bare);
      variant.ratios_less_clock.push_back((callback - clock) / bare);
    }
  }

  // The depth the bare unwind saw, for the record's chain length.
  Pass probe{Pass::kBare, &pipeline, nullptr};
  at_depth(kStackDepth, &probe);
  const int depth = probe.sink;

  std::cerr.setstate(std::ios::failbit);  // the helper's closing line
  collector->stop_profiling();
  pipeline.recycle();
  collector.reset();
  std::cerr.clear();

  std::printf("stack: %d frames of recursion, the bare unwind sees %d of at most %d\n",
              kStackDepth, depth, kFrames);
  std::printf("bare capture_backtrace:                    %7.1f ns a call (median of %zu)\n",
              median(bare_ns), bare_ns.size());
  std::printf("two cuptiGetTimestamp of the fake CUPTI:   %7.1f ns (median of %d)\n",
              median(clock_ns), kRounds);
  std::printf("one gettid system call:                    %7.1f ns (median of %d)\n",
              median(gettid_ns), kRounds);
  for (const Variant& variant : variants) {
    std::printf("trace_callback enter+exit, %s:\n", variant.label);
    std::printf("  %7.1f ns a call, ratio %.3f, %.3f without the fake's clock "
                "(median; target <= 1.3)\n",
                median(variant.ns), median(variant.ratios), median(variant.ratios_less_clock));
  }
  std::printf("(the timestamps go to the fake CUPTI in every build: it takes a lock and a "
              "map lookup per call)\n");
  std::printf("record bytes written: %llu, %llu records dropped\n",
              static_cast<unsigned long long>(pipeline.record_bytes),
              static_cast<unsigned long long>(pipeline.fill.take_dropped_records()));
  return 0;
}
