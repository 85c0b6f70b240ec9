// Translation rate of the buffer rotator, record_activity over a full CUPTI activity
// buffer into a real record helper, beside memcpy of the same bytes, in one run.
//
// The buffer is filled once, as CUPTI fills one during training, with records of
// CUPTI's own newest layouts: kernels (CUpti_ActivityKernel13) of six distinct names
// as a training step's kernels repeat, and every eighth record a host-device copy
// (CUpti_ActivityMemcpy7). The records lie at 8-byte aligned offsets and are walked
// here in order, as cuptiActivityGetNextRecord hands them to the rotator; that call
// itself is CUPTI's and not timed.
//
// The collector is built on a real record helper, shared so that its last buffer
// can be flushed here; it is not started, since record_activity needs only the
// helper. Full buffers go back to the
// free queue after every pass, as a writer would hand them back, so that what is
// timed is translation and not a wait. memcpy copies the same bytes per pass into
// the same buffers. Five rounds, a memcpy pass right before a translation pass since
// this VM's speed drifts, and the median is printed. Nothing is asserted.

#include <cupti.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <vector>

#include "bench/bench_support.h"
#include "zorv/cuda/zvkcudacollector.h"
#include "zorv/io/zvkqueue.h"

namespace zorvek {
namespace {

using bench::Clock;
using bench::median;
using bench::seconds_since;
constexpr uint32_t kBufferBytes = 8u << 20;
// One pass writes under half of one buffer; the helper holds one and the rest wait.
constexpr int kBuffers = 4;
constexpr int kPassesPerRound = 32;
constexpr int kRounds = 5;
constexpr int kCopyEvery = 8;

// Names as a PyTorch training step's kernels carry them: a handful, repeated.
const char* const kKernelNames[] = {
    "void at::native::vectorized_elementwise_kernel<4, at::native::CUDAFunctor_add<float>, "
    "std::array<char*, 3ul> >(int, at::native::CUDAFunctor_add<float>, std::array<char*, 3ul>)",
    "ampere_sgemm_128x64_tn",
    "ampere_sgemm_64x32_sliced1x4_nn",
    "void at::native::(anonymous namespace)::cunn_SoftMaxForward<4, float, float, float, "
    "at::native::(anonymous namespace)::LogSoftMaxForwardEpilogue>(float*, float const*, int)",
    "void at::native::reduce_kernel<512, 1, at::native::ReduceOp<float, "
    "at::native::func_wrapper_t<float, at::native::sum_functor<float, float, float>::operator()"
    "(at::TensorIterator&)::{lambda(float, float)#1}>, unsigned int, float, 4, 4> >"
    "(at::native::ReduceOp<float, at::native::func_wrapper_t<float, at::native::sum_functor"
    "<float, float, float>::operator()(at::TensorIterator&)::{lambda(float, float)#1}>, "
    "unsigned int, float, 4, 4>)",
    "void at::native::elementwise_kernel<128, 2, at::native::gpu_kernel_impl_nocast<"
    "at::native::(anonymous namespace)::launch_clamp_scalar(at::TensorIteratorBase&, "
    "c10::Scalar, c10::Scalar, at::native::detail::ClampLimits)::{lambda()#1}::operator()() "
    "const::{lambda()#7}::operator()() const::{lambda(float)#1}> >(at::TensorIteratorBase&)",
};
constexpr size_t kNameCount = sizeof(kKernelNames) / sizeof(kKernelNames[0]);

// A CUPTI activity buffer of the collector's size, full of records.
struct ActivityBuffer {
  std::vector<uint64_t> words = std::vector<uint64_t>(kActivityBufferSize / 8);
  std::vector<size_t> offsets;  // where each record starts, in order
  size_t used = 0;
  size_t kernels = 0;
  size_t copies = 0;

  uint8_t* bytes() { return reinterpret_cast<uint8_t*>(words.data()); }

  void fill() {
    uint64_t time = 1'700'000'000'000'000'000ull;
    uint32_t correlation = 1;
    for (size_t i = 0;; ++i) {
      const bool copy = i % kCopyEvery == kCopyEvery - 1;
      const size_t size = copy ? sizeof(CUpti_ActivityMemcpy7) : sizeof(CUpti_ActivityKernel13);
      if (used + size > kActivityBufferSize) break;
      time += 5'000 + i % 7 * 1'000;
      if (copy) {
        CUpti_ActivityMemcpy7 record = {};
        record.kind = CUPTI_ACTIVITY_KIND_MEMCPY;
        record.copyKind =
            i % 16 == 7 ? CUPTI_ACTIVITY_MEMCPY_KIND_HTOD : CUPTI_ACTIVITY_MEMCPY_KIND_DTOH;
        record.srcKind = CUPTI_ACTIVITY_MEMORY_KIND_PAGEABLE;
        record.dstKind = CUPTI_ACTIVITY_MEMORY_KIND_DEVICE;
        record.bytes = 4096 << (i % 5);
        record.start = time;
        record.end = time + 3'000;
        record.deviceId = 0;
        record.contextId = 1;
        record.streamId = 7;
        record.correlationId = correlation++;
        record.runtimeCorrelationId = 0;
        std::memcpy(bytes() + used, &record, sizeof(record));
        ++copies;
      } else {
        CUpti_ActivityKernel13 record = {};
        record.kind = CUPTI_ACTIVITY_KIND_CONCURRENT_KERNEL;
        record.registersPerThread = 32 + i % 4 * 8;
        record.start = time;
        record.end = time + 4'000;
        record.completed = record.end;
        record.deviceId = 0;
        record.contextId = 1;
        record.streamId = 7;
        record.gridX = 128 + static_cast<int32_t>(i % 64);
        record.gridY = 1;
        record.gridZ = 1;
        record.blockX = 256;
        record.blockY = 1;
        record.blockZ = 1;
        record.staticSharedMemory = 4096;
        record.correlationId = correlation++;
        record.gridId = static_cast<int64_t>(i);
        record.name = kKernelNames[i * 7 % kNameCount];
        std::memcpy(bytes() + used, &record, sizeof(record));
        ++kernels;
      }
      offsets.push_back(used);
      used += (size + 7) & ~size_t{7};
    }
  }
};

struct Pipeline {
  ZVKQueue<ZVKBuffer> fill{kBuffers, kBufferBytes};
  ZVKQueue<ZVKBuffer> to_write;
  std::shared_ptr<ZVKBufferRecordHelper> helper =
      std::make_shared<ZVKBufferRecordHelper>(&fill, &to_write);
  uint64_t record_bytes = 0;

  ~Pipeline() {
    std::cerr.setstate(std::ios::failbit);  // the helper's closing line
    helper.reset();
    std::cerr.clear();
  }

  // The writer's part, played at once.
  void recycle() { record_bytes += bench::recycle_buffers(to_write, fill); }
};

double translate_mb_s(ActivityBuffer& activity, Pipeline& pipeline) {
  const auto start = Clock::now();
  for (int pass = 0; pass < kPassesPerRound; ++pass) {
    for (size_t offset : activity.offsets) {
      record_activity(reinterpret_cast<CUpti_Activity*>(activity.bytes() + offset));
    }
    pipeline.recycle();
  }
  return activity.used * kPassesPerRound / seconds_since(start) / 1048576.0;
}

// The same bytes per pass, into the pipeline's free buffers in turn.
double memcpy_mb_s(ActivityBuffer& activity, Pipeline& pipeline) {
  const auto start = Clock::now();
  for (int pass = 0; pass < kPassesPerRound; ++pass) {
    bench::copy_into_free_buffer(pipeline.fill, activity.bytes(), activity.used);
  }
  return activity.used * kPassesPerRound / seconds_since(start) / 1048576.0;
}

}  // namespace
}  // namespace zorvek

int main() {
  using namespace zorvek;
  setenv("ZORV_MIN_LOG_LEVEL", "1", 0);
  ActivityBuffer activity;
  activity.fill();
  Pipeline pipeline;
  // Publishes the helper that record_activity writes through.
  ZVKCudaCollector collector("bench", pipeline.helper);

  // Every buffer and the name table touched once before anything is timed.
  translate_mb_s(activity, pipeline);
  memcpy_mb_s(activity, pipeline);
  pipeline.helper->flush();
  pipeline.recycle();
  pipeline.record_bytes = 0;

  std::vector<double> translate_rates, copy_rates, ratios;
  for (int round = 0; round < kRounds; ++round) {
    const double copy = memcpy_mb_s(activity, pipeline);
    const double translate = translate_mb_s(activity, pipeline);
    copy_rates.push_back(copy);
    translate_rates.push_back(translate);
    ratios.push_back(translate / copy);
  }
  pipeline.helper->flush();
  pipeline.recycle();
  const double records = static_cast<double>(activity.offsets.size());
  const double per_mb = records / (activity.used / 1048576.0);  // records per MiB of input
  const double copy = median(copy_rates);
  const double translate = median(translate_rates);

  std::printf("activity buffer: %.1f MiB, %zu kernels (%zu names) and %zu copies\n",
              activity.used / 1048576.0, activity.kernels, kNameCount, activity.copies);
  std::printf("memcpy of the buffer:          %8.1f MB/s, %6.2f M records/s (median of %d)\n",
              copy, copy * per_mb / 1e6, kRounds);
  std::printf("record_activity into a helper: %8.1f MB/s, %6.2f M records/s, %.1f ns a record\n",
              translate, translate * per_mb / 1e6, 1e9 / (translate * per_mb));
  std::printf("ratio to memcpy:               %8.3f (median)\n", median(ratios));
  std::printf("records written: %.3f bytes per CUPTI byte, %llu dropped\n",
              static_cast<double>(pipeline.record_bytes) /
                  (static_cast<double>(activity.used) * kRounds * kPassesPerRound),
              static_cast<unsigned long long>(pipeline.fill.take_dropped_records()));
  return 0;
}
