#pragma once

#include <cupti.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkqueue.h"
#include "zorv/utils/status.h"
#include "zorv/zvkregistry.h"

namespace zorvek {

// What a capture turns on: activity kinds, and the driver API callback domain.
enum ZVK_CUDA_CONFIGS : uint64_t {
  A_KERNEL = 1,  // CUPTI_ACTIVITY_KIND_KERNEL, not CONCURRENT_KERNEL
  A_CONTEXT = 2,
  A_DRIVER = 4,
  A_RUNTIME = 8,
  A_MEMCOPY = 16,  // CUPTI_ACTIVITY_KIND_MEMCPY, not MEMCPY2
  A_MEMSET = 32,
  A_NAME = 64,
  A_SYNC = 128,
  CB_DRIVER = 4294967296ull,
  CB_RUNTIME = 8589934592ull,  // read by nothing
  DEFAULT_CUPTI_CONFIG = 0x3000000FFull,
};

// One buffer handed to CUPTI; the object is found again from `buffer` alone.
struct ZVKCuptiActivityBuffer {
  uint64_t size;
  uint64_t valid_size;
  uint8_t buffer[];
};
static_assert(offsetof(ZVKCuptiActivityBuffer, buffer) == 16, "buffer follows the two fields");

constexpr uint32_t kActivityBufferCount = 20;
constexpr uint64_t kActivityBufferSize = 5242880;
// How long bufferRequested waits for a buffer to come back before it answers none.
constexpr std::chrono::milliseconds kBufferRequestPatience{2000};

// CUPTI's buffer callbacks: they only move a buffer between the two queues.
void bufferRequested(uint8_t** buffer, size_t* size, size_t* maxNumRecords);
void bufferCompleted(CUctx_st* ctx, uint32_t streamId, uint8_t* buffer, size_t size,
                     size_t validSize);
// One CUPTI activity record into at most one capture record (and its name record).
void record_activity(CUpti_Activity* record);
// The driver API callback: the start time on entry; on exit the call's record with
// its host call chain.
void CUPTIAPI trace_callback(void* userdata, CUpti_CallbackDomain domain, CUpti_CallbackId cbid,
                             const void* cbdata);

// GPU tracing: drives CUPTI, moves its activity buffers, translates them on a
// rotator thread, and bounds the capture in time on a limiter thread. One per
// process: CUPTI's buffer callbacks carry no user argument, so what they need is
// published in file-scope globals.
class ZVKCudaCollector : public ZVKDataCollectorBase {
 public:
  ZVKCudaCollector(const std::string& name, ZVKQueue<ZVKBuffer>* to_fill,
                   ZVKQueue<ZVKBuffer>* to_write);
  ZVKCudaCollector(const std::string& name, std::shared_ptr<ZVKBufferRecordHelper> helper);
  // Ends the limiter, and the rotator if a stop didn't.
  ~ZVKCudaCollector() override;

  Status start_profiling() override;
  Status stop_profiling() override;
  Status suspend_profiling() override;
  Status resume_profiling() override;
  Status configure(const std::map<std::string, std::string>& config) override;

  std::thread* start_buffer_rotator();
  std::thread* start_time_limiter();

  // Stops CUPTI's tracing if a start left it on: for the end of the process, and
  // for a collector that goes without its stop.
  Status stop_if_tracing();

  uint64_t current_config() const { return m_current_config; }
  bool time_limiter_started() const { return m_time_limiter_started; }

  // The capture time limit is an interval, measured on the monotonic clock: a step
  // of the system clock can neither stretch nor cut it.
  using LimiterClock = std::chrono::steady_clock;
  // `first_capture` plus `limit_s` seconds; a limit too long for the clock is one
  // that never comes.
  static LimiterClock::time_point limit_deadline(LimiterClock::time_point first_capture,
                                                 uint64_t limit_s);

 private:
  // The record helper the callbacks write through: the shared one, or our own.
  ZVKBufferRecordHelper* record_helper() const;
  // Cancels the limiter's wait and joins it; safe to call any number of times.
  void end_time_limiter();
  // Stops and joins the rotator, which first drains what CUPTI completed.
  void end_buffer_rotator();
  // In a forked child: frees the completed buffers inherited from the parent unread.
  void discard_parents_activity();

  pid_t m_pid = 0;
  CUpti_SubscriberHandle m_subscriber = nullptr;
  std::unique_ptr<ZVKQueue<ZVKCuptiActivityBuffer>> m_to_send;
  std::unique_ptr<ZVKQueue<ZVKCuptiActivityBuffer>> m_to_parse;
  // A helper of our own when built on the two queues.
  std::unique_ptr<ZVKBufferRecordHelper> m_own_helper;
  std::thread* m_buffer_rotator = nullptr;
  std::thread* m_time_limiter = nullptr;
  // Set at the first start and never cleared: the mark that a limiter was started,
  // which decides whether a later start is within the capture time limit.
  bool m_time_limiter_started = false;
  uint64_t m_max_capture_duration;
  LimiterClock::time_point m_first_capture;
  std::condition_variable m_cv;
  std::mutex m_time_limiter_mutex;
  uint64_t m_current_config = 0;
  // From a start's enabling of CUPTI to the next stop.
  std::atomic<bool> m_cupti_on{false};
  // The controller's thread and the limiter's may both stop: one at a time.
  std::mutex m_lifecycle_mutex;
};

}  // namespace zorvek
