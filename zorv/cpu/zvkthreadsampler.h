#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "zorv/format/stack.h"
#include "zorv/zvkregistry.h"

namespace zorvek {

class PythonFrameWalker;
class SignalRing;
class ZVKThreadTimers;
class ZVKExecutableMappings;
class ZVKRingCodeSink;
struct ZVKSamplingTarget;

// The most samples a second per thread the sampler takes.
constexpr uint32_t kMaxThreadSamplerHz = 10000;

// "ThreadSamplerHz" and "ThreadSamplerClock" of the "PERF" section, with the
// environment's ZVK_THREAD_SAMPLER_HZ and ZVK_THREAD_SAMPLER_CLOCK over them.
struct ThreadSamplerSettings {
  uint32_t hz = 0;  // 0: no sampler
  perfevent::ZVKSampleClock clock = perfevent::SAMPLE_CLOCK_CPU;

  // INVALID_ARGUMENT, saying which value is wrong, for a rate that isn't a whole
  // number up to kMaxThreadSamplerHz or a clock other than "cpu" and "wall".
  static Status read(const std::map<std::string, std::string>& perf_config,
                     ThreadSamplerSettings* settings);
};

// Samples every thread of the process at a rate, with its native and Python stack.
//
// CPU clock: each thread has a timer on its own CPU-time clock, user and system
// time both, which sends SIGPROF to that very thread; the handler unwinds the
// interrupted stack, walks the thread's Python frames and writes one entry to a
// lock-free ring. Wall clock: no signals; a thread of the sampler's walks each
// interpreter thread's Python frames at the rate, waiting or not.
//
// A drain thread moves the ring's entries into records every 100 ms, and gives new
// threads their timers and gone threads' timers back. Executable mappings are
// written as MMAP records at the start and whenever new ones appear.
//
// The SIGPROF handler, once installed, stays for the life of the process: a signal
// still pending after a stop must find it, not the default action, which would end
// the process. A program that has a SIGPROF handler of its own keeps it, and the
// sampler then takes no samples; one that installs its own while sampling runs
// finds the timers gone at the next drain round.
class ZVKThreadSampler : public ZVKDataCollectorBase {
 public:
  ZVKThreadSampler(const std::string& name, ZVKQueue<ZVKBuffer>* to_fill,
                   ZVKQueue<ZVKBuffer>* to_write);
  ZVKThreadSampler(const std::string& name, std::shared_ptr<ZVKBufferRecordHelper> helper);
  ~ZVKThreadSampler() override;

  Status configure(const std::map<std::string, std::string>& config) override;
  Status start_profiling() override;
  Status stop_profiling() override;
  // Timers, the drain thread and the wall clock's thread stop, after the ring is
  // drained: nothing of the sampler runs through a fork.
  Status suspend_profiling() override;
  // Starts them again. In a forked child, which inherits no timer, the sampler
  // starts over for the child's own threads, with a new mapping snapshot, and names
  // every Python code object again.
  Status resume_profiling() override;

  const ThreadSamplerSettings& settings() const { return m_settings; }
  // Whether samples are being taken: started, not suspended, and SIGPROF is ours.
  bool sampling() const {
    return m_state == State::RUNNING && m_sampling && !m_handler_lost.load();
  }
  // How many threads have a timer now (CPU clock).
  size_t timed_threads() const;

 private:
  enum class State { STOPPED, RUNNING, SUSPENDED };

  // Timers or the wall thread, and the drain thread.
  Status begin_sampling();
  // The reverse, draining the ring to its end.
  void end_sampling();
  // A forked child's copy: the parent's timers, threads and ring entries aren't its own.
  void forget_parent();

  void drain_loop();
  void wall_loop();
  // Moves every published entry into records; rescans mappings for unknown addresses.
  void drain_ring();
  // Timers for new threads, none for gone ones.
  void update_timers();
  void write_lost(uint64_t lost);
  ZVKBufferRecordHelper* helper();

  ThreadSamplerSettings m_settings;
  uint64_t m_period_ns = 0;
  State m_state = State::STOPPED;
  bool m_sampling = false;
  // Set by the drain thread when the program replaced the SIGPROF handler.
  std::atomic<bool> m_handler_lost{false};
  pid_t m_pid = 0;
  // The drain thread's tid: never given a timer.
  std::atomic<pid_t> m_drain_tid{0};

  std::unique_ptr<SignalRing> m_ring;
  std::unique_ptr<ZVKRingCodeSink> m_sink;
  std::unique_ptr<ZVKSamplingTarget> m_target;
  std::unique_ptr<PythonFrameWalker> m_walker;
  std::unique_ptr<ZVKThreadTimers> m_timers;
  std::unique_ptr<ZVKExecutableMappings> m_mappings;
  std::shared_ptr<ZVKBufferRecordHelper> m_own_helper;

  std::mutex m_wake_lock;
  std::condition_variable m_wake;
  bool m_stop_threads = false;
  std::unique_ptr<std::thread> m_drain_thread;
  std::unique_ptr<std::thread> m_wall_thread;
};

}  // namespace zorvek
