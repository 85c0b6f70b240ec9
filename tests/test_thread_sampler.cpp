// The per-thread sampler with real timers, threads, signals and forks. No Python
// runs here, so every sample is native only.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "tests/test_support.h"
#include "zorv/cpu/pythonlayout.h"
#include "zorv/cpu/signalring.h"
#include "zorv/cpu/zvkthreadsampler.h"
#include "zorv/format/perf.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/utils/backtrace.h"
#include "zorv/utils/safememory.h"
#include "zorv/zorv.h"

// The functions whose addresses the samples must show lie in a section of their
// own; the linker marks its bounds.
extern "C" char __start_zvk_sampled[];
extern "C" char __stop_zvk_sampled[];
#define SAMPLED_CODE __attribute__((noinline, section("zvk_sampled")))

namespace zorvek {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using perfevent::ZVKStackSample;
using testing_support::DecodedRecord;
using testing_support::log_messages;
using testing_support::read_capture;
using testing_support::run_in_child;
using testing_support::ScopedEnv;
using testing_support::TempDir;
using testing_support::take_written;

uint64_t thread_cpu_now() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

pid_t gettid_now() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool in_sampled_code(uint64_t ip) {
  return ip >= reinterpret_cast<uintptr_t>(__start_zvk_sampled) &&
         ip < reinterpret_cast<uintptr_t>(__stop_zvk_sampled);
}

// Arithmetic for `cpu_ns` of the thread's CPU time; the clock is read rarely, so
// nearly every interruption lands in this function.
SAMPLED_CODE uint64_t burn_cpu(uint64_t cpu_ns) {
  const uint64_t start = thread_cpu_now();
  uint64_t x = 1;
  do {
    for (int i = 0; i < 200000; ++i) {
      x = x * 6364136223846793005ull + 1442695040888963407ull;
      asm volatile("" : "+r"(x));
    }
  } while (thread_cpu_now() - start < cpu_ns);
  return x;
}

// Asks the kernel for the thread's CPU time until `cpu_ns` of it are spent: most
// of it is system time.
SAMPLED_CODE void ask_the_kernel(uint64_t cpu_ns) {
  const uint64_t start = thread_cpu_now();
  while (thread_cpu_now() - start < cpu_ns) {
    asm volatile("" ::: "memory");
  }
}

struct Times {
  uint64_t user_ns;
  uint64_t system_ns;
};

Times thread_times() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  auto ns = [](const timeval& tv) {
    return static_cast<uint64_t>(tv.tv_sec) * 1000000000u +
           static_cast<uint64_t>(tv.tv_usec) * 1000u;
  };
  return {ns(usage.ru_utime), ns(usage.ru_stime)};
}

struct Sample {
  uint32_t pid;
  uint32_t tid;
  ZVKStackSample header;
  std::vector<uint64_t> ips;
  size_t index;  // among all records
};

std::vector<Sample> samples_of(const std::vector<DecodedRecord>& records) {
  std::vector<Sample> samples;
  for (size_t i = 0; i < records.size(); ++i) {
    const DecodedRecord& record = records[i];
    if (record.hw_type != CPU || record.event_type != perfevent::STACK_SAMPLE) continue;
    Sample sample{record.pid, record.tid, {}, {}, i};
    EXPECT_GE(record.payload.size(), sizeof(ZVKStackSample));
    memcpy(&sample.header, record.payload.data(), sizeof(ZVKStackSample));
    EXPECT_EQ(record.payload.size(), perfevent::stack_sample_payload_size(
                                         sample.header.native_count, sample.header.python_count));
    sample.ips.resize(sample.header.native_count);
    memcpy(sample.ips.data(), record.payload.data() + sizeof(ZVKStackSample),
           sample.ips.size() * sizeof(uint64_t));
    samples.push_back(sample);
  }
  return samples;
}

struct MappedRange {
  uint64_t addr;
  uint64_t len;
  uint64_t id;
};

struct Mapping {
  uint32_t pid;
  MappedRange fixed;
  std::string name;
  size_t index;
};

std::vector<Mapping> mappings_of(const std::vector<DecodedRecord>& records) {
  std::vector<Mapping> mappings;
  for (size_t i = 0; i < records.size(); ++i) {
    const DecodedRecord& record = records[i];
    if (record.hw_type != CPU || record.event_type != perfevent::MMAP) continue;
    Mapping mapping{record.pid, {}, {}, i};
    const char* payload = record.payload.data();
    memcpy(&mapping.fixed.addr, payload + offsetof(perfevent::ZVKPerfMMap, addr), 8);
    memcpy(&mapping.fixed.len, payload + offsetof(perfevent::ZVKPerfMMap, len), 8);
    memcpy(&mapping.fixed.id, payload + offsetof(perfevent::ZVKPerfMMap, id), 8);
    mapping.name = record.payload.c_str() + sizeof(perfevent::ZVKPerfMMap);
    mappings.push_back(mapping);
  }
  return mappings;
}

// Queues, a shared record helper and a sampler over them, as the controller builds
// them; the records that reached the to-write queue.
struct Sampling {
  ZVKQueue<ZVKBuffer> to_fill{16, 4 << 20};
  ZVKQueue<ZVKBuffer> to_write;
  std::shared_ptr<ZVKBufferRecordHelper> helper =
      std::make_shared<ZVKBufferRecordHelper>(&to_fill, &to_write);
  std::unique_ptr<ZVKThreadSampler> owned =
      std::make_unique<ZVKThreadSampler>("ThreadSampler", helper);
  ZVKThreadSampler& sampler = *owned;

  explicit Sampling(const char* hz) {
    unsetenv("ZVK_THREAD_SAMPLER_HZ");
    unsetenv("ZVK_THREAD_SAMPLER_CLOCK");
    EXPECT_TRUE(sampler.configure({{"ThreadSamplerHz", hz}}).ok());
  }

  std::vector<DecodedRecord> written() { return take_written(to_write, to_fill); }

  ~Sampling() {
    CaptureStderr();  // the helper's stall line
    owned.reset();
    helper.reset();
    GetCapturedStderr();
  }
};

uint64_t total_weight(const std::vector<Sample>& samples, uint32_t tid) {
  uint64_t weight = 0;
  for (const Sample& sample : samples) weight += sample.tid == tid ? sample.header.weight_ns : 0;
  return weight;
}

// ---- Settings ----------------------------------------------------------------------

TEST(ThreadSamplerSettings, DefaultsAndValues) {
  unsetenv("ZVK_THREAD_SAMPLER_HZ");
  unsetenv("ZVK_THREAD_SAMPLER_CLOCK");
  ThreadSamplerSettings settings;
  ASSERT_TRUE(ThreadSamplerSettings::read({}, &settings).ok());
  EXPECT_EQ(settings.hz, 0u);
  EXPECT_EQ(settings.clock, perfevent::SAMPLE_CLOCK_CPU);
  ASSERT_TRUE(ThreadSamplerSettings::read(
                  {{"ThreadSamplerHz", "997"}, {"ThreadSamplerClock", "wall"}}, &settings)
                  .ok());
  EXPECT_EQ(settings.hz, 997u);
  EXPECT_EQ(settings.clock, perfevent::SAMPLE_CLOCK_WALL);
}

TEST(ThreadSamplerSettings, EnvironmentHasTheLastWord) {
  ScopedEnv hz("ZVK_THREAD_SAMPLER_HZ", "250");
  ScopedEnv clock("ZVK_THREAD_SAMPLER_CLOCK", "cpu");
  ThreadSamplerSettings settings;
  ASSERT_TRUE(ThreadSamplerSettings::read(
                  {{"ThreadSamplerHz", "1000"}, {"ThreadSamplerClock", "wall"}}, &settings)
                  .ok());
  EXPECT_EQ(settings.hz, 250u);
  EXPECT_EQ(settings.clock, perfevent::SAMPLE_CLOCK_CPU);
}

TEST(ThreadSamplerSettings, BadValuesAreRefusedAndNamed) {
  unsetenv("ZVK_THREAD_SAMPLER_HZ");
  unsetenv("ZVK_THREAD_SAMPLER_CLOCK");
  ThreadSamplerSettings settings;
  for (const char* hz : {"fast", "-5", "1e3", "10001", "99999999999"}) {
    const Status refused = ThreadSamplerSettings::read({{"ThreadSamplerHz", hz}}, &settings);
    EXPECT_EQ(refused.code_, error::INVALID_ARGUMENT) << hz;
    EXPECT_EQ(refused.msg_, std::string("ThreadSamplerHz must be a whole number of samples a "
                                        "second from 0 (off) to 10000; got \"") +
                                hz + "\"");
  }
  const Status clock = ThreadSamplerSettings::read({{"ThreadSamplerClock", "CPU"}}, &settings);
  EXPECT_EQ(clock.code_, error::INVALID_ARGUMENT);
  EXPECT_EQ(clock.msg_, "ThreadSamplerClock must be \"cpu\" or \"wall\"; got \"CPU\"");
  ScopedEnv bad("ZVK_THREAD_SAMPLER_HZ", "often");
  const Status from_environment =
      ThreadSamplerSettings::read({{"ThreadSamplerHz", "100"}}, &settings);
  EXPECT_EQ(from_environment.code_, error::INVALID_ARGUMENT);
  EXPECT_EQ(from_environment.msg_.rfind("ZVK_THREAD_SAMPLER_HZ must be", 0), 0u)
      << from_environment.msg_;

  ZVKQueue<ZVKBuffer> to_fill{2, 1 << 20};
  ZVKQueue<ZVKBuffer> to_write;
  ZVKThreadSampler sampler("ThreadSampler", &to_fill, &to_write);
  CaptureStderr();
  EXPECT_EQ(sampler.configure({}).code_, error::INVALID_ARGUMENT);
  const auto lines = log_messages(GetCapturedStderr());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("ERROR| Configuration refused: ZVK_THREAD_SAMPLER_HZ must be", 0), 0u)
      << lines[0];
}

// ---- Context unwinding -------------------------------------------------------------

std::atomic<int> context_depth{0};
uint64_t context_ips[8 + kContextScratchFrames];

void unwind_in_handler(int, siginfo_t*, void* context) {
  context_depth = capture_backtrace_from_context(context, context_ips, 8);
}

SAMPLED_CODE void raise_here() {
  raise(SIGUSR1);
  asm volatile("" ::: "memory");  // no tail call: this frame stays on the stack
}

TEST(ContextBacktrace, StartsAtTheInterruptedCodeAndWalksOn) {
  ASSERT_TRUE(prepare_context_unwinder());
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_sigaction = unwind_in_handler;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGUSR1, &action, &previous);
  raise_here();
  sigaction(SIGUSR1, &previous, nullptr);
  ASSERT_GE(context_depth.load(), 3);
  // raise runs in libc; raise_here stands among the first frames above it.
  bool caller_seen = false;
  for (int i = 1; i < context_depth.load(); ++i) caller_seen |= in_sampled_code(context_ips[i]);
  EXPECT_TRUE(caller_seen);
  EXPECT_EQ(capture_backtrace_from_context(nullptr, context_ips, 0), 0);
}

// ---- CPU clock ---------------------------------------------------------------------

TEST(ThreadSampler, BurningThreadIsSampledByItsCpuTime) {
  Sampling sampling("1000");
  std::atomic<pid_t> tid{0};
  std::atomic<uint64_t> spent{0};
  std::atomic<bool> go{false};
  // The thread is there at the start, so its timer is made by the start's scan
  // and all of its CPU time is sampled, however busy the machine is.
  std::thread burner([&] {
    tid = gettid_now();
    while (!go.load()) std::this_thread::yield();
    const uint64_t before = thread_cpu_now();
    burn_cpu(400000000);
    spent = thread_cpu_now() - before;
  });
  while (tid.load() == 0) std::this_thread::yield();
  ASSERT_TRUE(sampling.sampler.start_profiling().ok());
  EXPECT_TRUE(sampling.sampler.sampling());
  go = true;
  burner.join();
  ASSERT_TRUE(sampling.sampler.stop_profiling().ok());
  const auto records = sampling.written();
  const auto samples = samples_of(records);
  size_t mine = 0;
  size_t leaf_inside = 0;
  size_t deep = 0;
  for (const Sample& sample : samples) {
    if (sample.tid != static_cast<uint32_t>(tid.load())) continue;
    ++mine;
    EXPECT_EQ(sample.pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(sample.header.clock, perfevent::SAMPLE_CLOCK_CPU);
    EXPECT_EQ(sample.header.python_count, 0);
    EXPECT_EQ(sample.header.weight_ns % 1000000, 0u);
    ASSERT_FALSE(sample.ips.empty());
    leaf_inside += in_sampled_code(sample.ips[0]) ? 1 : 0;
    deep += sample.ips.size() >= 3 ? 1 : 0;
  }
  // Samples come at most one a kernel tick, each weighing the periods it covers.
  const uint64_t weight = total_weight(samples, static_cast<uint32_t>(tid.load()));
  EXPECT_GT(weight, spent.load() * 3 / 4);
  EXPECT_LT(weight, spent.load() * 5 / 4);
  EXPECT_GT(mine, 20u);
  EXPECT_GE(leaf_inside * 10, mine * 9) << leaf_inside << " of " << mine;
  EXPECT_GE(deep * 10, mine * 9) << "unwound beyond the leaf: " << deep << " of " << mine;
  // The mapping snapshot names the code that was sampled.
  bool text_mapped = false;
  for (const Mapping& mapping : mappings_of(records)) {
    EXPECT_EQ(mapping.pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(mapping.fixed.id, 0u);
    const uint64_t burn = reinterpret_cast<uintptr_t>(&burn_cpu);
    text_mapped |= burn >= mapping.fixed.addr && burn < mapping.fixed.addr + mapping.fixed.len;
  }
  EXPECT_TRUE(text_mapped);
  EXPECT_EQ(sampling.sampler.timed_threads(), 0u);
}

TEST(ThreadSampler, SystemTimeIsSampledToo) {
  Sampling sampling("1000");
  std::atomic<bool> go{false};
  std::atomic<pid_t> tid{0};
  Times before{};
  Times after{};
  std::thread asker([&] {
    tid = gettid_now();
    while (!go) std::this_thread::yield();
    before = thread_times();
    ask_the_kernel(400000000);
    after = thread_times();
  });
  while (tid == 0) std::this_thread::yield();
  ASSERT_TRUE(sampling.sampler.start_profiling().ok());
  go = true;
  asker.join();
  ASSERT_TRUE(sampling.sampler.stop_profiling().ok());
  const uint64_t user = after.user_ns - before.user_ns;
  const uint64_t system = after.system_ns - before.system_ns;
  const uint64_t weight =
      total_weight(samples_of(sampling.written()), static_cast<uint32_t>(tid.load()));
  // The loop lives in the kernel mostly; a user-time-only profile would show a fraction.
  EXPECT_GT(system, user) << "user " << user << " system " << system;
  EXPECT_GT(weight, (user + system) * 7 / 10) << "user " << user << " system " << system;
  EXPECT_LT(weight, (user + system) * 13 / 10) << "user " << user << " system " << system;
}

TEST(ThreadSampler, ThreadsStartedLaterAndChurningThreads) {
  Sampling sampling("2000");
  ASSERT_TRUE(sampling.sampler.start_profiling().ok());
  // Thousands of short threads start and end while the timers follow them.
  std::atomic<uint64_t> short_work{0};
  for (int round = 0; round < 250; ++round) {
    std::vector<std::thread> batch;
    for (int i = 0; i < 8; ++i) {
      batch.emplace_back([&, i] { short_work += burn_cpu(20000 + 5000 * i) & 1; });
    }
    for (std::thread& thread : batch) thread.join();
  }
  // A thread born long after the start is found and sampled.
  std::atomic<pid_t> late_tid{0};
  std::thread late([&] {
    late_tid = gettid_now();
    burn_cpu(300000000);
  });
  late.join();
  // Another drain round: the timers of ended threads are gone.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const size_t timed = sampling.sampler.timed_threads();
  ASSERT_TRUE(sampling.sampler.stop_profiling().ok());
  EXPECT_LE(timed, 4u) << "timers kept for ended threads";
  EXPECT_EQ(sampling.sampler.timed_threads(), 0u);
  const auto samples = samples_of(sampling.written());
  EXPECT_GT(total_weight(samples, static_cast<uint32_t>(late_tid.load())), 150000000u);
}

TEST(ThreadSampler, StopWithSignalsPendingLeavesTheProcessAlive) {
  Sampling sampling("1000");
  std::atomic<int> phase{0};
  std::atomic<bool> pending_before_stop{false};
  std::thread blocked([&] {
    sigset_t prof;
    sigemptyset(&prof);
    sigaddset(&prof, SIGPROF);
    pthread_sigmask(SIG_BLOCK, &prof, nullptr);
    phase = 1;
    while (phase != 2) std::this_thread::yield();
    // Burns until the timer has expired (its signal waits, blocked), for two
    // seconds of CPU at most.
    const uint64_t give_up = thread_cpu_now() + 2000000000ull;
    while (!pending_before_stop.load() && thread_cpu_now() < give_up) {
      burn_cpu(1000000);
      sigset_t pending;
      sigpending(&pending);
      pending_before_stop = sigismember(&pending, SIGPROF) == 1;
    }
    phase = 3;
    while (phase != 4) std::this_thread::yield();
    pthread_sigmask(SIG_UNBLOCK, &prof, nullptr);  // delivered now, after the stop
    phase = 5;
  });
  while (phase != 1) std::this_thread::yield();
  ASSERT_TRUE(sampling.sampler.start_profiling().ok());
  phase = 2;
  while (phase != 3) std::this_thread::yield();
  ASSERT_TRUE(sampling.sampler.stop_profiling().ok());
  phase = 4;
  blocked.join();
  EXPECT_TRUE(pending_before_stop.load());
  // A SIGPROF from anyone, after the stop, meets the handler too, not the default action.
  raise(SIGPROF);
  pthread_kill(pthread_self(), SIGPROF);
  EXPECT_EQ(phase.load(), 5);
  struct sigaction now {};
  sigaction(SIGPROF, nullptr, &now);
  EXPECT_NE(now.sa_flags & SA_SIGINFO, 0);
}

void programs_own_handler(int) {}

TEST(ThreadSampler, ProgramsOwnSigprofHandlerIsLeftAlone) {
  EXPECT_EQ(0, run_in_child([] {
    struct sigaction own {};
    own.sa_handler = programs_own_handler;
    sigemptyset(&own.sa_mask);
    ASSERT_EQ(sigaction(SIGPROF, &own, nullptr), 0);
    Sampling sampling("1000");
    CaptureStderr();
    EXPECT_TRUE(sampling.sampler.start_profiling().ok());
    const auto lines = log_messages(GetCapturedStderr());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0],
              "WARNING| ThreadSampler: the program has a SIGPROF handler of its own; it is left "
              "alone, and no thread is sampled");
    EXPECT_FALSE(sampling.sampler.sampling());
    EXPECT_EQ(sampling.sampler.timed_threads(), 0u);
    struct sigaction now {};
    sigaction(SIGPROF, nullptr, &now);
    EXPECT_EQ(now.sa_handler, programs_own_handler);
    EXPECT_TRUE(sampling.sampler.stop_profiling().ok());
    EXPECT_TRUE(samples_of(sampling.written()).empty());
  }));
}

TEST(ThreadSampler, ForkedChildSamplesItself) {
  Sampling sampling("1000");
  ASSERT_TRUE(sampling.sampler.start_profiling().ok());
  burn_cpu(50000000);
  // As the controller's fork handlers do: suspended around the fork, resumed on both sides.
  ASSERT_TRUE(sampling.sampler.suspend_profiling().ok());
  const pid_t parent = getpid();
  EXPECT_EQ(0, run_in_child([&] {
    ASSERT_TRUE(sampling.sampler.resume_profiling().ok());
    EXPECT_GE(sampling.sampler.timed_threads(), 1u);  // a sanitizer may run a thread of its own
    burn_cpu(200000000);
    ASSERT_TRUE(sampling.sampler.stop_profiling().ok());
    const auto records = sampling.written();
    uint64_t own = 0;
    for (const Sample& sample : samples_of(records)) {
      if (sample.pid != static_cast<uint32_t>(getpid())) continue;
      own += sample.header.weight_ns;
      EXPECT_EQ(sample.tid, static_cast<uint32_t>(gettid_now()));
    }
    EXPECT_GT(own, 100000000u);
    size_t own_mappings = 0;
    for (const Mapping& mapping : mappings_of(records)) {
      own_mappings += mapping.pid == static_cast<uint32_t>(getpid()) ? 1 : 0;
    }
    EXPECT_GT(own_mappings, 0u);
  }));
  ASSERT_TRUE(sampling.sampler.resume_profiling().ok());
  burn_cpu(100000000);
  ASSERT_TRUE(sampling.sampler.stop_profiling().ok());
  uint64_t parents = 0;
  for (const Sample& sample : samples_of(sampling.written())) {
    EXPECT_EQ(sample.pid, static_cast<uint32_t>(parent));
    parents += sample.header.weight_ns;
  }
  EXPECT_GT(parents, 75000000u);
}

// Code in anonymous memory, as a JIT makes it: a loop of `count` turns.
using Spin = void (*)(uint64_t count);

TEST(ThreadSampler, CodeMappedAfterTheStartIsNamedBeforeItsSamples) {
  // mov rax, rdi; 1: dec rax; jnz 1b; ret
  const uint8_t code[] = {0x48, 0x89, 0xf8, 0x48, 0xff, 0xc8, 0x75, 0xfb, 0xc3};
  Sampling sampling("1000");
  ASSERT_TRUE(sampling.sampler.start_profiling().ok());
  std::this_thread::sleep_for(std::chrono::milliseconds(150));  // the snapshot is written
  void* memory = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  memcpy(memory, code, sizeof(code));
  ASSERT_EQ(mprotect(memory, 4096, PROT_READ | PROT_EXEC), 0);
  const auto start = reinterpret_cast<uintptr_t>(memory);
  std::thread spinner([memory] {
    const uint64_t before = thread_cpu_now();
    while (thread_cpu_now() - before < 200000000) reinterpret_cast<Spin>(memory)(20000000);
  });
  spinner.join();
  ASSERT_TRUE(sampling.sampler.stop_profiling().ok());
  munmap(memory, 4096);
  const auto records = sampling.written();
  size_t first_sample = records.size();
  for (const Sample& sample : samples_of(records)) {
    if (!sample.ips.empty() && sample.ips[0] >= start && sample.ips[0] < start + 4096) {
      first_sample = std::min(first_sample, sample.index);
    }
  }
  ASSERT_LT(first_sample, records.size()) << "no sample in the mapped code";
  size_t mapping_at = records.size();
  for (const Mapping& mapping : mappings_of(records)) {
    if (mapping.fixed.addr <= start && start < mapping.fixed.addr + mapping.fixed.len) {
      mapping_at = std::min(mapping_at, mapping.index);
    }
  }
  EXPECT_LT(mapping_at, first_sample);
  // Stamped with the time of the sample that brought the rescan, not the drain's.
  EXPECT_LE(records[mapping_at].timestamp, records[first_sample].timestamp);
}

TEST(ThreadSampler, ASecondCaptureWritesTheMappingsAgain) {
  Sampling sampling("1000");
  const uint64_t burn = reinterpret_cast<uintptr_t>(&burn_cpu);
  auto burn_mapped = [&](const std::vector<DecodedRecord>& records) {
    bool mapped = false;
    for (const Mapping& mapping : mappings_of(records)) {
      mapped |= burn >= mapping.fixed.addr && burn < mapping.fixed.addr + mapping.fixed.len;
    }
    return mapped;
  };
  for (int capture = 0; capture < 2; ++capture) {
    ASSERT_TRUE(sampling.sampler.start_profiling().ok());
    EXPECT_TRUE(sampling.sampler.sampling());
    burn_cpu(200000000);
    ASSERT_TRUE(sampling.sampler.stop_profiling().ok());
    const auto records = sampling.written();
    EXPECT_FALSE(samples_of(records).empty()) << "capture " << capture;
    EXPECT_TRUE(burn_mapped(records)) << "capture " << capture;
  }
}

std::atomic<int> replacement_calls{0};
void replacement_handler(int, siginfo_t*, void*) { ++replacement_calls; }

TEST(ThreadSampler, AReplacedSigprofHandlerStopsTheTimers) {
  EXPECT_EQ(0, run_in_child([] {
    Sampling sampling("1000");
    ASSERT_TRUE(sampling.sampler.start_profiling().ok());
    burn_cpu(20000000);
    ASSERT_GE(sampling.sampler.timed_threads(), 1u);
    CaptureStderr();
    struct sigaction own {};
    own.sa_sigaction = replacement_handler;
    own.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&own.sa_mask);
    ASSERT_EQ(sigaction(SIGPROF, &own, nullptr), 0);
    // Burning, so that the timers keep firing until a drain round sees the change.
    for (int i = 0; i < 300 && sampling.sampler.timed_threads() != 0; ++i) burn_cpu(10000000);
    EXPECT_EQ(sampling.sampler.timed_threads(), 0u);
    EXPECT_FALSE(sampling.sampler.sampling());
    burn_cpu(20000000);  // a signal queued before the timers went is delivered by now
    const int calls = replacement_calls.load();
    burn_cpu(100000000);
    EXPECT_EQ(calls, replacement_calls.load());
    const auto lines = log_messages(GetCapturedStderr());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0],
              "WARNING| ThreadSampler: the program replaced the SIGPROF handler; the thread "
              "sampler stops sampling");
    struct sigaction now {};
    sigaction(SIGPROF, nullptr, &now);
    EXPECT_EQ(now.sa_sigaction, replacement_handler);
    EXPECT_TRUE(sampling.sampler.stop_profiling().ok());
  }));
}

// Pages of address space the process holds now.
uint64_t address_space_bytes() {
  unsigned long pages = 0;
  FILE* statm = fopen("/proc/self/statm", "re");
  if (statm == nullptr) return 0;
  if (fscanf(statm, "%lu", &pages) != 1) pages = 0;
  fclose(statm);
  return static_cast<uint64_t>(pages) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

TEST(ThreadSampler, AStartWhoseThreadCannotBeMadeUndoesItself) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's runtime can't live under a tight address space limit";
#endif
  EXPECT_EQ(0, run_in_child([] {
    Sampling sampling("1000");
    // Threads that hold whatever stacks the C library keeps for reuse.
    std::atomic<bool> release{false};
    std::vector<std::thread> holders;
    for (int i = 0; i < 16; ++i) {
      holders.emplace_back([&] {
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      });
    }
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    // Room for small allocations, none for a thread's stack.
    rlimit tight = before;
    tight.rlim_cur = address_space_bytes() + (size_t{2} << 20);
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    const Status refused = sampling.sampler.start_profiling();
    ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
    release = true;
    for (std::thread& holder : holders) holder.join();
    EXPECT_EQ(refused.code_, error::INSUFFICIENT_RESOURCES) << refused.msg_;
    EXPECT_EQ(refused.msg_.rfind("Couldn't start the thread sampler's threads: ", 0), 0u)
        << refused.msg_;
    EXPECT_FALSE(sampling.sampler.sampling());
    EXPECT_EQ(sampling.sampler.timed_threads(), 0u);
    // Nothing of the failed start is left: the gate is free for the next one.
    ASSERT_TRUE(sampling.sampler.start_profiling().ok());
    burn_cpu(100000000);
    ASSERT_TRUE(sampling.sampler.stop_profiling().ok());
    EXPECT_FALSE(samples_of(sampling.written()).empty());
  }));
}

// Makes process_vm_readv fail with EPERM in this process, as a container's
// seccomp profile may.
bool refuse_process_vm_readv() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EPERM & SECCOMP_RET_DATA)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program{static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])), filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(ThreadSampler, RefusedSafeReadsTurnPythonFramesOff) {
  EXPECT_TRUE(safe_reads_allowed());
  EXPECT_EQ(0, run_in_child([] {
    // Any layout gives the sampler a walker; this one's is never used.
    static const PythonLayout layout{};
    set_python_layout(&layout);
    Sampling sampling("1000");
    ASSERT_TRUE(refuse_process_vm_readv());
    EXPECT_FALSE(safe_reads_allowed());
    CaptureStderr();
    ASSERT_TRUE(sampling.sampler.start_profiling().ok());
    burn_cpu(50000000);
    ASSERT_TRUE(sampling.sampler.stop_profiling().ok());
    const auto lines = log_messages(GetCapturedStderr());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0],
              "WARNING| ThreadSampler: Python frames are off: the kernel refuses "
              "process_vm_readv to this process, and the frame walk reads through it");
    const auto samples = samples_of(sampling.written());
    EXPECT_FALSE(samples.empty());  // native stacks go on
    for (const Sample& sample : samples) EXPECT_EQ(sample.header.python_count, 0);
  }));
}

// ---- Through the controller ----------------------------------------------------------

TEST(ThreadSampler, ControllerRunsItWithoutPerf) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_THREAD_SAMPLER_HZ");
    unsetenv("ZVK_THREAD_SAMPLER_CLOCK");
    auto config = testing_support::small_capture_config(dir.file("sampled"));
    config["PERF"] = {{"ThreadSamplerHz", "1000"}};
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    ASSERT_TRUE(zorv.configure(config).ok());
    ASSERT_TRUE(zorv.start_profiling().ok());
    burn_cpu(200000000);
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
  }));
  const auto files = dir.list();
  ASSERT_EQ(files.size(), 1u);
  std::vector<DecodedRecord> records;
  for (const auto& bucket : read_capture(dir.file(files[0])).buckets) {
    records.insert(records.end(), bucket.records.begin(), bucket.records.end());
  }
  uint64_t weight = 0;
  for (const Sample& sample : samples_of(records)) weight += sample.header.weight_ns;
  EXPECT_GT(weight, 100000000u);
  EXPECT_FALSE(mappings_of(records).empty());
}

TEST(ThreadSampler, ControllerRefusesABadRate) {
  EXPECT_EQ(0, run_in_child([] {
    ScopedEnv hz("ZVK_THREAD_SAMPLER_HZ", "lots");
    CaptureStderr();
    const Status refused = Zorv::instance().configure({{"PERF", {{"ThreadSamplerHz", "100"}}}});
    GetCapturedStderr();
    EXPECT_EQ(refused.code_, error::INVALID_ARGUMENT);
    EXPECT_EQ(refused.msg_,
              "ZVK_THREAD_SAMPLER_HZ must be a whole number of samples a second from 0 (off) to "
              "10000; got \"lots\"");
    EXPECT_FALSE(Zorv::instance().is_configured());
  }));
}

}  // namespace
}  // namespace zorvek
