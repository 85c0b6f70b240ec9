#include "zorv/cpu/zvkthreadsampler.h"

#include <dirent.h>
#include <errno.h>
#include <link.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <set>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "zorv/cpu/procmaps.h"
#include "zorv/cpu/pyframes.h"
#include "zorv/cpu/pythonlayout.h"
#include "zorv/cpu/signalring.h"
#include "zorv/format/perf.h"
#include "zorv/utils/backtrace.h"
#include "zorv/utils/clock.h"
#include "zorv/utils/logging.h"
#include "zorv/utils/safememory.h"
#include "zorv/utils/signals.h"

namespace zorvek {

using perfevent::ZVKPythonFrame;
using perfevent::ZVKStackSample;

// What the signal handler and the wall clock's thread sample into.
struct ZVKSamplingTarget {
  SignalRing* ring;
  PythonFrameWalker* walker;
  uint64_t period_ns;
  int32_t pid;
};

namespace {

using SamplingTarget = ZVKSamplingTarget;

constexpr int kMaxNativeFrames = kMaxBacktraceFrames;
constexpr size_t kMaxPythonFrames = 128;
// The wall clock's thread samples at most this many interpreter threads a round.
constexpr size_t kMaxWallThreads = 1024;
constexpr size_t kRingBytes = size_t{8} << 20;
constexpr std::chrono::milliseconds kDrainInterval{100};
// A record's payload size is 16 bits; entries stay at a multiple of 8 below that.
constexpr uint32_t kMaxRecordPayload = 0xfff8;
// Tells our timers' signals from any other SIGPROF: the high half of the value
// each timer sends, the thread's tid being the low half.
constexpr uint64_t kTimerCookie = 0x5a564b54;  // "ZVKT"
// Addresses in no mapping after a rescan are remembered by page, up to this many,
// so that a stray one doesn't bring a rescan every round.
constexpr size_t kMaxUnmappedPages = 4096;

pid_t current_tid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// The CPU-time clock of another thread of this process.
clockid_t thread_cpu_clock(pid_t tid) {
  return static_cast<clockid_t>((~static_cast<uint32_t>(tid) << 3) | 6u);
}

bool thread_cpu_ns(pid_t tid, uint64_t* ns) {
  timespec now;
  if (clock_gettime(thread_cpu_clock(tid), &now) != 0) return false;
  *ns = timespec_to_ns(now);
  return true;
}

std::vector<pid_t> threads_of_process() {
  std::vector<pid_t> threads;
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return threads;
  while (const dirent* entry = readdir(tasks)) {
    char* end = nullptr;
    const long tid = strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || tid <= 0) continue;
    threads.push_back(static_cast<pid_t>(tid));
  }
  closedir(tasks);
  std::sort(threads.begin(), threads.end());
  return threads;
}

// ---- What the signal handler sees ------------------------------------------------

// The handler reaches the sampler only through this gate, which counts those
// inside: closing it waits for them, so that after close() no handler writes to
// the ring, and a sampler can go. Plain atomics with constant initialisers: a late
// signal may come at any time, during static destruction too.
class SamplingGate {
 public:
  // False while another sampler has it open: one SIGPROF handler serves one sampler.
  static bool open(const SamplingTarget* target) {
    const SamplingTarget* none = nullptr;
    return s_target.compare_exchange_strong(none, target);
  }
  static void close() {
    s_target.store(nullptr);
    while (s_inside.load() != 0) sched_yield();
  }
  // In a forked child: handlers that other threads had under way aren't there.
  static void forget_inside() { s_inside.store(0); }

  class Pass {
   public:
    Pass() : m_target((s_inside.fetch_add(1), s_target.load())) {}
    ~Pass() { s_inside.fetch_sub(1); }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    const SamplingTarget* target() const { return m_target; }

   private:
    const SamplingTarget* m_target;
  };

 private:
  static std::atomic<const SamplingTarget*> s_target;
  static std::atomic<uint32_t> s_inside;
};

std::atomic<const SamplingTarget*> SamplingGate::s_target{nullptr};
std::atomic<uint32_t> SamplingGate::s_inside{0};

// One CPU-clock sample of the interrupted thread into the ring. Python frames are
// walked first, so that the code objects they name enter the ring ahead of the sample.
void take_cpu_sample(const SamplingTarget& target, int32_t tid, int overrun, const void* context) {
  ZVKPythonFrame python[kMaxPythonFrames];
  size_t python_count = 0;
  bool python_cut = false;
  if (target.walker != nullptr) {
    const uintptr_t thread_state = target.walker->current_thread_state();
    if (thread_state != 0) {
      python_count = target.walker->walk(thread_state, python, kMaxPythonFrames, &python_cut);
    }
  }
  // One native frame more than is kept: it tells a cut stack. The unwinder uses
  // the room past it as scratch.
  const SignalRing::Slot slot = target.ring->reserve(perfevent::stack_sample_payload_size(
      kMaxNativeFrames + 1 + kContextScratchFrames, static_cast<uint32_t>(python_count)));
  if (!slot) return;
  auto* ips = reinterpret_cast<uint64_t*>(slot.payload + sizeof(ZVKStackSample));
  int native = capture_backtrace_from_context(context, ips, kMaxNativeFrames + 1);
  uint8_t flags = python_cut ? perfevent::STACK_PYTHON_CUT : 0;
  if (native == kUnwinderBusy) {
    native = 0;
    flags |= perfevent::STACK_NO_NATIVE;
  } else if (native > kMaxNativeFrames) {
    native = kMaxNativeFrames;
    flags |= perfevent::STACK_NATIVE_CUT;
  }
  memcpy(ips + native, python, python_count * sizeof(ZVKPythonFrame));
  ZVKStackSample header{};
  header.weight_ns = target.period_ns * (1 + static_cast<uint64_t>(overrun > 0 ? overrun : 0));
  header.native_count = static_cast<uint16_t>(native);
  header.python_count = static_cast<uint16_t>(python_count);
  header.clock = perfevent::SAMPLE_CLOCK_CPU;
  header.flags = flags;
  memcpy(slot.payload, &header, sizeof(header));
  target.ring->publish(slot, perfevent::STACK_SAMPLE, target.pid, tid, now_ns(),
                       perfevent::stack_sample_payload_size(static_cast<uint32_t>(native),
                                                            static_cast<uint32_t>(python_count)));
}

void on_sigprof(int, siginfo_t* info, void* context) {
  const int saved_errno = errno;
  {
    const SamplingGate::Pass pass;
    const SamplingTarget* target = pass.target();
    if (target != nullptr && info != nullptr && info->si_code == SI_TIMER) {
      const auto value = reinterpret_cast<uint64_t>(info->si_value.sival_ptr);
      if ((value >> 32) == kTimerCookie) {
        take_cpu_sample(*target, static_cast<int32_t>(value & 0xffffffffu), info->si_overrun,
                        context);
      }
    }
  }
  errno = saved_errno;
}

// Installs on_sigprof unless the program has a SIGPROF handler of its own. Once
// installed it is never taken back: a signal still pending would meet the default
// action, which ends the process.
bool install_sigprof_handler() {
  struct sigaction current {};
  if (sigaction(SIGPROF, nullptr, &current) != 0) return false;
  if ((current.sa_flags & SA_SIGINFO) != 0) return current.sa_sigaction == on_sigprof;
  if (current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN) return false;
  struct sigaction action {};
  action.sa_sigaction = on_sigprof;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGPROF, &action, nullptr) == 0;
}

bool sigprof_handler_is_ours() {
  struct sigaction current {};
  return sigaction(SIGPROF, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) != 0 &&
         current.sa_sigaction == on_sigprof;
}

// Threads lost to a fork: a std::thread can't be destroyed while it looks joinable,
// nor joined in a process it isn't part of. Kept here for the life of the process.
void keep_lost_thread(std::unique_ptr<std::thread> thread) {
  static auto* lost = new std::vector<std::unique_ptr<std::thread>>();
  if (thread != nullptr && thread->joinable()) lost->push_back(std::move(thread));
}

Status parse_hz(const std::string& text, const char* source, uint32_t* hz) {
  const bool digits = !text.empty() && text.size() <= 6 &&
                      text.find_first_not_of("0123456789") == std::string::npos;
  const unsigned long value = digits ? std::strtoul(text.c_str(), nullptr, 10) : 0;
  if (!digits || value > kMaxThreadSamplerHz) {
    return Status(error::INVALID_ARGUMENT,
                  std::string(source) +
                      " must be a whole number of samples a second from 0 (off) to " +
                      std::to_string(kMaxThreadSamplerHz) + "; got \"" + text + "\"");
  }
  *hz = static_cast<uint32_t>(value);
  return Status::OK();
}

Status parse_clock(const std::string& text, const char* source, perfevent::ZVKSampleClock* clock) {
  if (text == "cpu") {
    *clock = perfevent::SAMPLE_CLOCK_CPU;
  } else if (text == "wall") {
    *clock = perfevent::SAMPLE_CLOCK_WALL;
  } else {
    return Status(error::INVALID_ARGUMENT,
                  std::string(source) + " must be \"cpu\" or \"wall\"; got \"" + text + "\"");
  }
  return Status::OK();
}

// The value of `key`, or of `variable` where that is set and not empty; `source`
// names where it came from. Empty when neither gives one.
std::string setting(const std::map<std::string, std::string>& config, const char* key,
                    const char* variable, const char** source) {
  *source = key;
  const char* from_environment = getenv(variable);
  if (from_environment != nullptr && from_environment[0] != '\0') {
    *source = variable;
    return from_environment;
  }
  const auto it = config.find(key);
  return it == config.end() ? std::string() : it->second;
}

}  // namespace

// ---- Settings ----------------------------------------------------------------------

Status ThreadSamplerSettings::read(const std::map<std::string, std::string>& perf_config,
                                   ThreadSamplerSettings* settings) {
  ThreadSamplerSettings read;
  const char* source = nullptr;
  const std::string hz = setting(perf_config, "ThreadSamplerHz", "ZVK_THREAD_SAMPLER_HZ", &source);
  if (!hz.empty()) ZVK_RETURN_NOT_OK(parse_hz(hz, source, &read.hz));
  const std::string clock =
      setting(perf_config, "ThreadSamplerClock", "ZVK_THREAD_SAMPLER_CLOCK", &source);
  if (!clock.empty()) ZVK_RETURN_NOT_OK(parse_clock(clock, source, &read.clock));
  *settings = read;
  return Status::OK();
}

// ---- Per-thread timers -----------------------------------------------------------

// One timer per sampled thread, on that thread's CPU-time clock, signalling that
// thread. Used by one thread at a time.
class ZVKThreadTimers {
 public:
  explicit ZVKThreadTimers(uint64_t period_ns) : m_period_ns(period_ns) {}
  ~ZVKThreadTimers() { delete_all(); }
  ZVKThreadTimers(const ZVKThreadTimers&) = delete;
  ZVKThreadTimers& operator=(const ZVKThreadTimers&) = delete;

  // `threads` sorted. A timer for each of them but `skip` that has none; the
  // timers of threads gone are deleted. A thread whose timer no longer runs is
  // gone too, whatever its tid says: its number was given to a new thread.
  void update(const std::vector<pid_t>& threads, pid_t skip) {
    for (auto it = m_timers.begin(); it != m_timers.end();) {
      if (std::binary_search(threads.begin(), threads.end(), it->first) && it->first != skip &&
          running(it->second)) {
        ++it;
      } else {
        timer_delete(it->second);
        it = m_timers.erase(it);
      }
    }
    for (pid_t tid : threads) {
      if (tid != skip && m_timers.count(tid) == 0) create(tid);
    }
    m_count.store(m_timers.size(), std::memory_order_relaxed);
  }

  void delete_all() {
    for (const auto& timer : m_timers) timer_delete(timer.second);
    forget();
  }

  // A forked child inherits no timer: the ids are the parent's.
  void forget() {
    m_timers.clear();
    m_count.store(0, std::memory_order_relaxed);
  }

  size_t count() const { return m_count.load(std::memory_order_relaxed); }

 private:
  static bool running(timer_t timer) {
    itimerspec left{};
    return timer_gettime(timer, &left) == 0 &&
           (left.it_value.tv_sec != 0 || left.it_value.tv_nsec != 0);
  }

  void create(pid_t tid) {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGPROF;
    event._sigev_un._tid = tid;  // sigev_notify_thread_id, which glibc's headers don't name
    event.sigev_value.sival_ptr =
        reinterpret_cast<void*>((kTimerCookie << 32) | static_cast<uint32_t>(tid));
    timer_t timer;
    if (timer_create(thread_cpu_clock(tid), &event, &timer) != 0) {
      // A thread that ended meanwhile is no failure.
      if (errno != EINVAL && errno != ESRCH && !m_reported_failure) {
        m_reported_failure = true;
        LOG(WARNING) << "The thread sampler can't give thread " << tid
                     << " a timer, and others may go unsampled too: " << strerror(errno);
      }
      return;
    }
    itimerspec period{};
    period.it_value.tv_sec = static_cast<time_t>(m_period_ns / 1000000000u);
    period.it_value.tv_nsec = static_cast<long>(m_period_ns % 1000000000u);
    period.it_interval = period.it_value;
    if (timer_settime(timer, 0, &period, nullptr) != 0) {
      timer_delete(timer);
      return;
    }
    m_timers.emplace(tid, timer);
  }

  const uint64_t m_period_ns;
  std::map<pid_t, timer_t> m_timers;
  std::atomic<size_t> m_count{0};
  bool m_reported_failure = false;
};

// ---- Executable mappings ---------------------------------------------------------

// The executable mappings of the process, each written once as an MMAP record.
class ZVKExecutableMappings {
 public:
  // Reads /proc/self/maps and writes an MMAP record, stamped `timestamp`, for each
  // executable mapping not written before.
  void scan(ZVKBufferRecordHelper* rh, int32_t pid, int32_t tid, uint64_t timestamp) {
    m_objects_seen = loaded_objects();
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    const bool listed = for_each_executable_mapping(
        "/proc/self/maps", [&](const ExecutableMapping& mapping) {
          ranges.emplace_back(mapping.start, mapping.end);
          const std::string name(mapping.name);
          if (!m_written.emplace(mapping.start, mapping.end, mapping.offset, name).second) return;
          write_mapping(rh, timestamp, pid, tid, mapping.start, mapping.end, mapping.offset, name);
        });
    if (!listed) return;
    m_ranges = std::move(ranges);
    std::sort(m_ranges.begin(), m_ranges.end());
    m_unmapped_pages.clear();
  }

  // Whether `ip` lies in a mapping of the last scan, or in a page that stayed
  // unknown after a scan.
  bool known(uint64_t ip) const {
    auto after = std::upper_bound(m_ranges.begin(), m_ranges.end(),
                                  std::make_pair(ip, ~uint64_t{0}));
    if (after != m_ranges.begin() && ip < std::prev(after)->second) return true;
    return m_unmapped_pages.count(ip >> 12) != 0;
  }

  // After a scan: the addresses still unknown are not to bring another.
  void remember_unmapped(uint64_t ip) {
    if (m_unmapped_pages.size() < kMaxUnmappedPages) m_unmapped_pages.insert(ip >> 12);
  }

  // Whether objects were loaded or unloaded since the last scan.
  bool objects_changed() const { return loaded_objects() != m_objects_seen; }

  // A forked child writes to a file of its own: every mapping is written again.
  void forget() {
    m_written.clear();
    m_ranges.clear();
    m_unmapped_pages.clear();
  }

 private:
  using Objects = std::pair<unsigned long long, unsigned long long>;

  static Objects loaded_objects() {
    Objects counts{0, 0};
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t size, void* data) {
          if (size >= offsetof(dl_phdr_info, dlpi_subs) + sizeof(info->dlpi_subs)) {
            *static_cast<Objects*>(data) = {info->dlpi_adds, info->dlpi_subs};
          }
          return 1;
        },
        &counts);
    return counts;
  }

  static void write_mapping(ZVKBufferRecordHelper* rh, uint64_t timestamp, int32_t pid,
                            int32_t tid, uint64_t start, uint64_t end, uint64_t offset,
                            const std::string& name) {
    const uint16_t payload_size = perfevent::mmap_payload_size(name.size());
    // A name too long for a record's 16-bit size.
    if (sizeof(perfevent::ZVKPerfMMap) + name.size() + 1 > payload_size) return;
    auto writer = rh->new_record(timestamp, make_event_word(CPU, 0, perfevent::MMAP), pid, tid,
                                 0, payload_size);
    char* payload = static_cast<char*>(writer.get_payload_store());
    const perfevent::ZVKPerfMMap fixed = {0, 0, start, end - start, offset, name.size()};
    memcpy(payload, &fixed, sizeof(fixed));
    memset(payload + sizeof(fixed), 0, payload_size - sizeof(fixed));
    memcpy(payload + sizeof(fixed), name.data(), name.size());
  }

  std::vector<std::pair<uint64_t, uint64_t>> m_ranges;
  std::set<std::tuple<uint64_t, uint64_t, uint64_t, std::string>> m_written;
  std::unordered_set<uint64_t> m_unmapped_pages;
  Objects m_objects_seen{0, 0};
};

// ---- Code objects into the ring --------------------------------------------------

// Writes each code object the walker meets for the first time into the ring,
// from a signal handler or the wall clock's thread.
class ZVKRingCodeSink final : public PythonCodeSink {
 public:
  explicit ZVKRingCodeSink(SignalRing* ring) : m_ring(ring) {}
  void set_pid(int32_t pid) { m_pid.store(pid, std::memory_order_relaxed); }

  bool on_new_code(const perfevent::ZVKPythonCode& header, const char* qualname,
                   const char* filename, const uint8_t* linetable) override {
    perfevent::ZVKPythonCode code = header;
    const uint32_t names = sizeof(code) + uint32_t{code.qualname_size} + code.filename_size;
    if (names > kMaxRecordPayload) return false;
    if (perfevent::python_code_payload_size(code.qualname_size, code.filename_size,
                                            code.linetable_size) > kMaxRecordPayload) {
      code.linetable_size = kMaxRecordPayload - names;
      code.flags |= perfevent::PYTHON_CODE_LINETABLE_CUT;
    }
    const uint32_t size = perfevent::python_code_payload_size(
        code.qualname_size, code.filename_size, code.linetable_size);
    const SignalRing::Slot slot = m_ring->reserve(size);
    if (!slot) return false;
    uint8_t* out = slot.payload;
    memcpy(out, &code, sizeof(code));
    out += sizeof(code);
    memcpy(out, qualname, code.qualname_size);
    out += code.qualname_size;
    memcpy(out, filename, code.filename_size);
    out += code.filename_size;
    memcpy(out, linetable, code.linetable_size);
    out += code.linetable_size;
    memset(out, 0, static_cast<size_t>(slot.payload + size - out));
    m_ring->publish(slot, perfevent::PYTHON_CODE, m_pid.load(std::memory_order_relaxed),
                    current_tid(), now_ns(), size);
    return true;
  }

 private:
  SignalRing* const m_ring;
  std::atomic<int32_t> m_pid{0};
};

// ---- The collector ---------------------------------------------------------------

ZVKThreadSampler::ZVKThreadSampler(const std::string& name, ZVKQueue<ZVKBuffer>* to_fill,
                                   ZVKQueue<ZVKBuffer>* to_write)
    : ZVKDataCollectorBase(name, to_fill, to_write) {}

ZVKThreadSampler::ZVKThreadSampler(const std::string& name,
                                   std::shared_ptr<ZVKBufferRecordHelper> helper)
    : ZVKDataCollectorBase(name, std::move(helper)) {}

ZVKThreadSampler::~ZVKThreadSampler() {
  if (m_state == State::RUNNING) stop_profiling();
  if (m_pid != 0 && m_pid != getpid()) forget_parent();
}

Status ZVKThreadSampler::configure(const std::map<std::string, std::string>& config) {
  if (m_state != State::STOPPED) {
    return Status(error::FAILED_PRECONDITION, "The thread sampler is running");
  }
  ThreadSamplerSettings settings;
  const Status read = ThreadSamplerSettings::read(config, &settings);
  if (!read.ok()) {
    LOG(ERROR) << "Configuration refused: " << read.msg_;
    return read;
  }
  m_settings = settings;
  if (m_settings.hz == 0) return Status::OK();
  m_period_ns = 1000000000u / m_settings.hz;
  m_ring = std::make_unique<SignalRing>(kRingBytes);
  if (!m_ring->valid()) {
    return Status(error::INSUFFICIENT_RESOURCES, "Couldn't allocate the thread sampler's ring");
  }
  m_sink = std::make_unique<ZVKRingCodeSink>(m_ring.get());
  m_target = std::make_unique<ZVKSamplingTarget>();
  if (const PythonLayout* layout = python_layout()) {
    m_walker = std::make_unique<PythonFrameWalker>(*layout, m_sink.get());
  }
  m_timers = std::make_unique<ZVKThreadTimers>(m_period_ns);
  m_mappings = std::make_unique<ZVKExecutableMappings>();
  return Status::OK();
}

ZVKBufferRecordHelper* ZVKThreadSampler::helper() {
  if (m_helper) return m_helper.get();
  if (!m_own_helper) m_own_helper = std::make_shared<ZVKBufferRecordHelper>(m_fill, m_write);
  return m_own_helper.get();
}

size_t ZVKThreadSampler::timed_threads() const { return m_timers ? m_timers->count() : 0; }

Status ZVKThreadSampler::start_profiling() {
  if (m_pid != 0 && m_pid != getpid()) forget_parent();
  if (m_state == State::RUNNING) {
    return Status(error::FAILED_PRECONDITION, "The thread sampler is already running");
  }
  if (m_ring == nullptr) {
    return m_settings.hz == 0
               ? Status::OK()
               : Status(error::FAILED_PRECONDITION, "The thread sampler is not configured");
  }
  end_sampling();  // after a suspension: what the suspension kept goes
  // A new capture: its mappings and code objects are written again, as in a new file.
  m_mappings->forget();
  if (m_walker != nullptr) m_walker->forget_codes();
  ZVK_RETURN_NOT_OK(begin_sampling());
  m_state = State::RUNNING;
  return Status::OK();
}

Status ZVKThreadSampler::stop_profiling() {
  if (m_pid != 0 && m_pid != getpid()) forget_parent();
  if (m_state == State::STOPPED) {
    return Status(error::FAILED_PRECONDITION, "The thread sampler is not running");
  }
  end_sampling();
  m_state = State::STOPPED;
  // What the last rounds wrote goes on to the writer now; an empty buffer is no failure.
  helper()->flush();
  return Status::OK();
}

Status ZVKThreadSampler::suspend_profiling() {
  if (m_state != State::RUNNING) return Status::OK();
  end_sampling();
  m_state = State::SUSPENDED;
  return Status::OK();
}

Status ZVKThreadSampler::resume_profiling() {
  if (m_pid != 0 && m_pid != getpid()) forget_parent();
  if (m_state != State::SUSPENDED) return Status::OK();
  ZVK_RETURN_NOT_OK(begin_sampling());
  m_state = State::RUNNING;
  return Status::OK();
}

Status ZVKThreadSampler::begin_sampling() {
  const bool cpu_clock = m_settings.clock == perfevent::SAMPLE_CLOCK_CPU;
  PythonFrameWalker* walker = m_walker.get();
  if (walker != nullptr && !safe_reads_allowed()) {
    static bool told = false;
    if (!told) {
      told = true;
      LOG(WARNING) << m_name
                   << ": Python frames are off: the kernel refuses process_vm_readv to this "
                      "process, and the frame walk reads through it";
    }
    walker = nullptr;
  }
  if (cpu_clock) {
    static const bool unwinder_ready = prepare_context_unwinder();
    static bool told = false;
    if (!unwinder_ready && !told) {
      told = true;
      LOG(WARNING) << m_name
                   << ": libunwind.so.8 is missing; a CPU sample's native stack is the "
                      "interrupted instruction alone";
    }
    if (!install_sigprof_handler()) {
      LOG(WARNING) << m_name
                   << ": the program has a SIGPROF handler of its own; it is left alone, and "
                      "no thread is sampled";
      return Status::OK();
    }
  } else if (walker == nullptr) {
    LOG(WARNING) << m_name
                 << ": the wall clock samples Python threads, and this process runs no Python "
                    "the sampler can read; no thread is sampled";
    return Status::OK();
  }
  m_pid = getpid();
  m_sink->set_pid(m_pid);
  *m_target = ZVKSamplingTarget{m_ring.get(), walker, m_period_ns, m_pid};
  if (!SamplingGate::open(m_target.get())) {
    return Status(error::FAILED_PRECONDITION, "Another thread sampler samples this process");
  }
  // From here end_sampling undoes whatever was begun, a failed start's part too.
  m_sampling = true;
  m_handler_lost.store(false);
  helper();
  {
    std::lock_guard<std::mutex> lock(m_wake_lock);
    m_stop_threads = false;
  }
  try {
    // The timers of the threads running now come first, so that sampling has begun
    // when the start returns; the drain thread, made after, has none.
    if (cpu_clock) m_timers->update(threads_of_process(), 0);
    const ScopedSignalsBlocked blocked;
    m_drain_thread = std::make_unique<std::thread>([this] { drain_loop(); });
    if (!cpu_clock) m_wall_thread = std::make_unique<std::thread>([this] { wall_loop(); });
  } catch (const std::exception& e) {
    end_sampling();
    return Status(error::INSUFFICIENT_RESOURCES,
                  std::string("Couldn't start the thread sampler's threads: ") + e.what());
  }
  return Status::OK();
}

void ZVKThreadSampler::end_sampling() {
  if (!m_sampling) return;
  {
    std::lock_guard<std::mutex> lock(m_wake_lock);
    m_stop_threads = true;
  }
  m_wake.notify_all();
  for (std::unique_ptr<std::thread>* thread : {&m_drain_thread, &m_wall_thread}) {
    if (*thread != nullptr && (*thread)->joinable()) (*thread)->join();
    thread->reset();
  }
  m_timers->delete_all();
  // Signals may still be pending: they find the gate closed. Once it is closed no
  // handler is inside, so every entry reserved is published, and the drain gets all.
  SamplingGate::close();
  drain_ring();
  m_sampling = false;
}

void ZVKThreadSampler::forget_parent() {
  keep_lost_thread(std::move(m_drain_thread));
  keep_lost_thread(std::move(m_wall_thread));
  SamplingGate::forget_inside();
  if (m_sampling) SamplingGate::close();
  m_sampling = false;
  m_stop_threads = false;
  if (m_timers != nullptr) m_timers->forget();
  if (m_ring != nullptr) m_ring->reset();
  if (m_walker != nullptr) m_walker->forget_codes();
  if (m_mappings != nullptr) m_mappings->forget();
  if (m_state == State::RUNNING) m_state = State::SUSPENDED;
  m_pid = getpid();
}

void ZVKThreadSampler::drain_loop() {
  const pid_t self = current_tid();
  m_drain_tid.store(self);
  m_mappings->scan(helper(), m_pid, self, now_ns());
  std::unique_lock<std::mutex> lock(m_wake_lock);
  while (!m_wake.wait_for(lock, kDrainInterval, [this] { return m_stop_threads; })) {
    lock.unlock();
    drain_ring();
    if (m_settings.clock == perfevent::SAMPLE_CLOCK_CPU && !m_handler_lost.load()) {
      if (sigprof_handler_is_ours()) {
        update_timers();
      } else {
        // The program put a SIGPROF handler of its own in place of ours: its
        // handler is not to get our timers' signals.
        m_handler_lost.store(true);
        m_timers->delete_all();
        LOG(WARNING) << m_name
                     << ": the program replaced the SIGPROF handler; the thread sampler "
                        "stops sampling";
      }
    }
    if (m_mappings->objects_changed()) m_mappings->scan(helper(), m_pid, self, now_ns());
    lock.lock();
  }
}

void ZVKThreadSampler::update_timers() {
  m_timers->update(threads_of_process(), m_drain_tid.load());
}

void ZVKThreadSampler::drain_ring() {
  ZVKBufferRecordHelper* rh = helper();
  const int32_t self = current_tid();
  bool rescanned = false;
  m_ring->drain([&](const SignalRingEntry& entry, const uint8_t* payload, uint32_t size) {
    if (size > kMaxRecordPayload) return;
    if (entry.kind == perfevent::STACK_SAMPLE && size >= sizeof(ZVKStackSample)) {
      ZVKStackSample header;
      memcpy(&header, payload, sizeof(header));
      const size_t native = std::min<size_t>(header.native_count,
                                             (size - sizeof(ZVKStackSample)) / sizeof(uint64_t));
      for (size_t i = 0; i < native; ++i) {
        uint64_t ip;
        memcpy(&ip, payload + sizeof(ZVKStackSample) + i * sizeof(uint64_t), sizeof(ip));
        if (m_mappings->known(ip)) continue;
        // New code was mapped, a library or a JIT's: its mapping goes ahead of the sample.
        if (!rescanned) {
          m_mappings->scan(rh, m_pid, self, entry.timestamp);
          rescanned = true;
        }
        if (!m_mappings->known(ip)) m_mappings->remember_unmapped(ip);
      }
    }
    auto writer = rh->new_record(entry.timestamp, make_event_word(CPU, 0, entry.kind), entry.pid,
                                 entry.tid, 0, static_cast<uint16_t>(size));
    memcpy(writer.get_payload_store(), payload, size);
  });
  write_lost(m_ring->take_dropped());
}

void ZVKThreadSampler::write_lost(uint64_t lost) {
  if (lost == 0) return;
  const perfevent::ZVKPerfLost payload = {0, 0, lost};
  auto writer = helper()->new_record(now_ns(), make_event_word(CPU, 0, perfevent::LOST), m_pid,
                                     current_tid(), 0, sizeof(payload));
  memcpy(writer.get_payload_store(), &payload, sizeof(payload));
}

void ZVKThreadSampler::wall_loop() {
  std::vector<uintptr_t> states(kMaxWallThreads);
  std::vector<int32_t> tids(kMaxWallThreads);
  // Each thread's CPU time at its last sample: a thread whose clock stood still waited.
  std::map<int32_t, uint64_t> last_cpu;
  std::map<int32_t, uint64_t> this_round;
  const std::chrono::nanoseconds period(m_period_ns);
  auto next = std::chrono::steady_clock::now() + period;
  std::unique_lock<std::mutex> lock(m_wake_lock);
  while (!m_wake.wait_until(lock, next, [this] { return m_stop_threads; })) {
    lock.unlock();
    // A round that came late stands for the periods it missed.
    const auto late = std::chrono::steady_clock::now() - next;
    const uint64_t periods = 1 + static_cast<uint64_t>(late > period ? late / period : 0);
    next += period * periods;
    const size_t count = m_walker->list_threads(states.data(), tids.data(), states.size());
    this_round.clear();
    for (size_t i = 0; i < count; ++i) {
      uint64_t cpu = 0;
      const bool has_clock = tids[i] > 0 && thread_cpu_ns(tids[i], &cpu);
      const auto last = last_cpu.find(tids[i]);
      const bool waiting = has_clock && last != last_cpu.end() && last->second == cpu;
      if (has_clock) this_round[tids[i]] = cpu;
      ZVKPythonFrame python[kMaxPythonFrames];
      bool cut = false;
      const size_t frames = m_walker->walk_settled(states[i], python, kMaxPythonFrames, &cut);
      const uint32_t size = perfevent::stack_sample_payload_size(0, static_cast<uint32_t>(frames));
      const SignalRing::Slot slot = m_ring->reserve(size);
      if (!slot) continue;
      ZVKStackSample header{};
      header.weight_ns = m_period_ns * periods;
      header.python_count = static_cast<uint16_t>(frames);
      header.clock = perfevent::SAMPLE_CLOCK_WALL;
      header.flags = static_cast<uint8_t>(perfevent::STACK_NO_NATIVE |
                                          (waiting ? perfevent::STACK_WAITING : 0) |
                                          (cut ? perfevent::STACK_PYTHON_CUT : 0));
      memcpy(slot.payload, &header, sizeof(header));
      memcpy(slot.payload + sizeof(header), python, frames * sizeof(ZVKPythonFrame));
      m_ring->publish(slot, perfevent::STACK_SAMPLE, m_pid, tids[i], now_ns(), size);
    }
    last_cpu.swap(this_round);
    lock.lock();
  }
}

}  // namespace zorvek
