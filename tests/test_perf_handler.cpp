#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/test_support.h"
#include "zorv/cpu/zvkperfcollector.h"
#include "zorv/cpu/zvkperfhandler.h"
#include "zorv/format/perf.h"
#include "zorv/io/zvkforklocks.h"
#include "zorv/utils/clock.h"

namespace zorvek {

struct ZVKPerfHandlerTestPeer {
  static ZVKPerfHandler::Processor processor(const ZVKPerfHandler& handler) {
    return handler.make_processor();
  }
};

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::DecodedRecord;
using testing_support::in_fresh_process;
using testing_support::log_messages;
using testing_support::rerun_in_fresh_process;
using testing_support::take_written;
// Forks as the profiler's fork handlers do: with every lock of the pipeline (and the
// scripted kernel's) held, so the child finds none taken by the worker it lacks.
[[maybe_unused]] int fork_with_locks_held(const std::function<void()>& body) {
  ZVKForkLocks::acquire_all();
  const int status = testing_support::run_in_child([&] {
    ZVKForkLocks::release_all();
    body();
  });
  ZVKForkLocks::release_all();
  return status;
}
using Strings = std::vector<std::string>;
using Settings = std::map<std::string, std::string>;

// The software CPU clock at about 1 kHz: the one event this machine's kernel
// samples without a hardware PMU.
const char* const kCpuClock = "1,0,1000003,743,0,0,0";

// The real kernel, with any call made to fail on demand, or answered by a script,
// and a log of what was asked.
class ScriptedKernel : public ZVKPerfKernel {
 public:
  // Held across a fork like the pipeline's locks, so a forked child never finds
  // it taken by a thread it doesn't have.
  ScriptedKernel() { ZVKForkLocks::add(&m_mutex, ZVKForkLocks::LEAF); }
  ~ScriptedKernel() override { ZVKForkLocks::remove(&m_mutex); }

  struct Open {
    perf_event_attr attr;
    pid_t pid;
    int cpu;
    int group;
    unsigned long flags;
    int fd;
  };

  // The calls named `call` fail with `err`, after `succeed_first` of them succeed.
  void fail(const std::string& call, int err, int succeed_first = 0) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_failures[call] = {err, succeed_first};
  }

  std::function<int(epoll_event*, int)> epoll_wait_script;
  // As perf_event_paranoid 1 and above do for a user without CAP_PERFMON: an
  // event over every task of a CPU is refused, one of a thread is not.
  std::atomic<bool> refuse_cpu_wide{false};
  std::function<void*(int fd, size_t size)> map_ring_script;

  std::vector<Open> opens() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_opens;
  }
  std::vector<int> closed() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_closed;
  }
  int calls(const std::string& call) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_calls.find(call);
    return it == m_calls.end() ? 0 : it->second;
  }
  std::vector<std::string> sequence() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sequence;
  }

  int perf_event_open(perf_event_attr* attr, pid_t pid, int cpu, int group_fd,
                      unsigned long flags) override {
    int fd;
    if (fails("perf_event_open")) {
      fd = -1;
    } else if (pid == -1 && refuse_cpu_wide) {
      errno = EACCES;
      fd = -1;
    } else {
      fd = ZVKPerfKernel::perf_event_open(attr, pid, cpu, group_fd, flags);
    }
    const int err = errno;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_opens.push_back(Open{*attr, pid, cpu, group_fd, flags, fd});
    if (fd >= 0) m_descriptor_log.emplace_back(true, fd);
    errno = err;
    return fd;
  }
  int enable(int fd) override { return note("enable", ZVKPerfKernel::enable(fd)); }
  int disable(int fd) override { return note("disable", ZVKPerfKernel::disable(fd)); }
  int reset(int fd) override { return note("reset", ZVKPerfKernel::reset(fd)); }
  int set_output(int fd, int output_fd) override {
    if (fails("set_output")) return -1;
    return ZVKPerfKernel::set_output(fd, output_fd);
  }
  int close(int fd) override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_closed.push_back(fd);
      m_descriptor_log.emplace_back(false, fd);
    }
    return note("close", ZVKPerfKernel::close(fd));
  }
  void* map_ring(int fd, size_t size) override {
    if (fails("map_ring")) return MAP_FAILED;
    note("map_ring", 0);
    if (map_ring_script) return map_ring_script(fd, size);
    return ZVKPerfKernel::map_ring(fd, size);
  }
  int unmap_ring(void* ring, size_t size) override {
    note("unmap_ring", 0);
    if (map_ring_script) return 0;  // the script's rings are the test's own memory
    return ZVKPerfKernel::unmap_ring(ring, size);
  }
  int epoll_create1(int flags) override {
    if (fails("epoll_create1")) return -1;
    const int fd = ZVKPerfKernel::epoll_create1(flags);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_epoll_fds.push_back(fd);
    m_descriptor_log.emplace_back(true, fd);
    return fd;
  }
  int epoll_ctl(int epfd, int op, int fd, epoll_event* event) override {
    if (fails("epoll_ctl")) return -1;
    return note("epoll_ctl", ZVKPerfKernel::epoll_ctl(epfd, op, fd, event));
  }
  int epoll_wait(int epfd, epoll_event* events, int max_events, int timeout_ms) override {
    note("epoll_wait", 0);
    if (fails("epoll_wait")) return -1;
    if (epoll_wait_script) return epoll_wait_script(events, max_events);
    return ZVKPerfKernel::epoll_wait(epfd, events, max_events, timeout_ms);
  }

  std::vector<int> epoll_fds() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_epoll_fds;
  }

  // How often `fd` was closed since the kernel last gave out that number.
  size_t times_closed_since_opened(int fd) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t closes = 0;
    for (const auto& entry : m_descriptor_log) {
      if (entry.second != fd) continue;
      closes = entry.first ? 0 : closes + 1;
    }
    return closes;
  }

 private:
  struct Failure {
    int err;
    int succeed_first;
  };

  bool fails(const std::string& call) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_calls[call];
    m_sequence.push_back(call);
    auto it = m_failures.find(call);
    if (it == m_failures.end()) return false;
    if (it->second.succeed_first > 0) {
      --it->second.succeed_first;
      return false;
    }
    errno = it->second.err;
    return true;
  }

  int note(const std::string& call, int result) {
    const int err = errno;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (call != "map_ring" && call != "epoll_wait") {
      ++m_calls[call];
      m_sequence.push_back(call);
    }
    errno = err;
    return result;
  }

  mutable std::mutex m_mutex;
  std::map<std::string, Failure> m_failures;
  std::map<std::string, int> m_calls;
  std::vector<std::string> m_sequence;
  std::vector<Open> m_opens;
  std::vector<int> m_closed;
  std::vector<int> m_epoll_fds;
  std::vector<std::pair<bool, int>> m_descriptor_log;  // opened (true) or closed, and the number
};

// The flag word of a perf_event_attr, the 64 bits after read_format.
// The one-time probe's attribute is the only one whose size is left at 0.
bool is_init_probe(const ScriptedKernel::Open& open) { return open.attr.size == 0; }

uint64_t flag_word(const perf_event_attr& attr) {
  uint64_t word;
  std::memcpy(&word, reinterpret_cast<const char*>(&attr) + 40, sizeof(word));
  return word;
}

void spin_for(std::chrono::milliseconds duration) {
  const auto end = std::chrono::steady_clock::now() + duration;
  volatile uint64_t sink = 0;
  while (std::chrono::steady_clock::now() < end) sink = sink + 1;
}

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

// Queues and a shared record helper, as the controller builds them, and the
// records that reached the to-write queue.
struct Pipeline {
  ZVKQueue<ZVKBuffer> to_fill{8, 1 << 20};
  ZVKQueue<ZVKBuffer> to_write;
  std::shared_ptr<ZVKBufferRecordHelper> helper =
      std::make_shared<ZVKBufferRecordHelper>(&to_fill, &to_write);

  std::vector<DecodedRecord> written() { return take_written(to_write, to_fill); }

  ~Pipeline() {
    CaptureStderr();  // the helper's stall line
    helper.reset();
    GetCapturedStderr();
  }
};

std::vector<DecodedRecord> of_event(const std::vector<DecodedRecord>& records, uint32_t event) {
  std::vector<DecodedRecord> chosen;
  for (const DecodedRecord& record : records) {
    if (record.hw_type == CPU && record.event_type == event) chosen.push_back(record);
  }
  return chosen;
}

template <typename Payload>
Payload payload_of(const DecodedRecord& record) {
  Payload payload;
  std::memcpy(&payload, record.payload.data(), sizeof(payload));
  return payload;
}

Status configure_quietly(ZVKPerfHandler& handler, const Settings& settings) {
  CaptureStderr();
  const Status status = handler.configure(settings);
  GetCapturedStderr();
  return status;
}

// ---- Capture configurations --------------------------------------------------------

TEST(CaptureConfig, EmptyStringKeepsEveryDefault) {
  const CaptureConfig parsed("");
  EXPECT_EQ(parsed, CaptureConfig());
  EXPECT_EQ(parsed.type_, 4u);
  EXPECT_EQ(parsed.period_, 100007u);
  EXPECT_EQ(parsed.sample_type_, 2791u);
  EXPECT_EQ(parsed.precise_ip_, 3u);
}

TEST(CaptureConfig, FirstFieldNotANumberGivesTypeZeroAndDefaultsBehind) {
  const CaptureConfig parsed("raw,1,2,3,0,0,0");
  CaptureConfig expected;
  expected.type_ = 0;
  EXPECT_EQ(parsed, expected);
}

TEST(CaptureConfig, AFieldThatDoesNotParseLeavesTheRestAtDefaults) {
  const CaptureConfig parsed("1,0,x,5,0,0,0");
  EXPECT_EQ(parsed.type_, 1u);
  EXPECT_EQ(parsed.config_, 0u);
  EXPECT_EQ(parsed.period_, 0u);
  EXPECT_EQ(parsed.sample_type_, 2791u);
  EXPECT_EQ(parsed.precise_ip_, 3u);
}

TEST(CaptureConfig, ThreeFieldsGiveASoftwareEventWithDefaultsBehind) {
  const CaptureConfig parsed("1,0,1000");
  EXPECT_EQ(parsed.type_, 1u);
  EXPECT_EQ(parsed.config_, 0u);
  EXPECT_EQ(parsed.period_, 1000u);
  EXPECT_EQ(parsed.sample_type_, 2791u);
  EXPECT_EQ(parsed.precise_ip_, 3u);
  EXPECT_EQ(parsed.config1_, 0u);
  EXPECT_EQ(parsed.config2_, 0u);
}

TEST(CaptureConfig, AnyOneCharacterPartsFieldsAndTheStringFormUsesCommas) {
  const CaptureConfig semicolons("4;8401;100007;743;3;20;7");
  const CaptureConfig commas("4,8401,100007,743,3,20,7");
  EXPECT_EQ(semicolons, commas);
  EXPECT_EQ(static_cast<std::string>(semicolons), "4,8401,100007,743,3,20,7");
  EXPECT_EQ(CaptureConfig(" 1, 0, 1000003"), CaptureConfig("1,0,1000003"));
}

TEST(CaptureConfig, StringFormOfADefaultParsesBackToTheSame) {
  const CaptureConfig defaults;
  EXPECT_EQ(static_cast<std::string>(defaults), "4,0,100007,2791,3,0,0");
  EXPECT_EQ(CaptureConfig(static_cast<std::string>(defaults)), defaults);
}

TEST(CaptureConfig, PreciseIpKeepsOnlyTheLowTwoBits) {
  perf_event_attr attr;
  set_event_attr(CaptureConfig("1,0,1000,743,7,0,0"), &attr);
  EXPECT_EQ(attr.precise_ip, 3u);
}

TEST(CaptureConfig, SetEventAttrLeavesNoStaleBitInAStructureFullOfGarbage) {
  const CaptureConfig config("4,8401,100007,743,2,20,9");
  perf_event_attr clean;
  std::memset(&clean, 0, sizeof(clean));
  set_event_attr(config, &clean);
  perf_event_attr garbage;
  std::memset(&garbage, 0xa5, sizeof(garbage));
  set_event_attr(config, &garbage);
  EXPECT_EQ(std::memcmp(&clean, &garbage, sizeof(clean)), 0);

  EXPECT_EQ(garbage.size, 112u);
  EXPECT_EQ(garbage.type, 4u);
  EXPECT_EQ(garbage.config, 8401u);
  EXPECT_EQ(garbage.sample_period, 100007u);
  EXPECT_EQ(garbage.sample_type, 743u);
  EXPECT_EQ(garbage.config1, 20u);
  EXPECT_EQ(garbage.config2, 9u);
  EXPECT_EQ(garbage.read_format, static_cast<uint64_t>(PERF_FORMAT_ID));
  EXPECT_EQ(flag_word(garbage), 0x2421E1u | (2u << 15));
  EXPECT_EQ(garbage.freq, 0u);
  EXPECT_EQ(garbage.branch_sample_type, 0u);
}

TEST(CaptureConfig, BranchStackBitAsksForUserKernelAndCallStackBranches) {
  perf_event_attr attr;
  set_event_attr(CaptureConfig("4,0,1000,2791,0,0,0"), &attr);
  EXPECT_EQ(attr.branch_sample_type, 0xC803u);
}

TEST(CaptureConfig, TestConfigOpensTheEventAsTheCaptureWillOnItsTarget) {
  ScriptedKernel kernel;
  kernel.refuse_cpu_wide = true;
  PerfTarget target;
  target.inherit = true;
  EXPECT_TRUE(test_config(CaptureConfig(kCpuClock), target, kernel));
  const auto opens = kernel.opens();
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].pid, 0);
  EXPECT_EQ(opens[0].cpu, 0);
  EXPECT_EQ(opens[0].group, -1);
  EXPECT_EQ(opens[0].flags, static_cast<unsigned long>(PERF_FLAG_FD_CLOEXEC));
  // The capture's own attribute: its flags with inherit, and the event id to read.
  EXPECT_EQ(flag_word(opens[0].attr), 0x2421E1u | 2u);
  EXPECT_EQ(opens[0].attr.read_format, static_cast<uint64_t>(PERF_FORMAT_ID));
  EXPECT_EQ(kernel.closed(), std::vector<int>{opens[0].fd});

  PerfTarget elsewhere;
  elsewhere.pid = 7;
  elsewhere.cpu = 1;
  elsewhere.flags = PERF_FLAG_FD_CLOEXEC | PERF_FLAG_PID_CGROUP;
  kernel.fail("perf_event_open", EBADF);
  EXPECT_FALSE(test_config(CaptureConfig(kCpuClock), elsewhere, kernel));
  const auto second = kernel.opens().back();
  EXPECT_EQ(second.pid, 7);
  EXPECT_EQ(second.cpu, 1);
  EXPECT_EQ(second.flags, elsewhere.flags);
  EXPECT_EQ(second.attr.inherit, 0u);
}

TEST(CaptureConfig, TestConfigRejectsWhatTheKernelRefuses) {
  // No PMU on this machine takes a raw event; the script makes sure of it anywhere.
  ScriptedKernel kernel;
  kernel.fail("perf_event_open", ENOENT);
  CaptureStderr();
  EXPECT_FALSE(test_config(CaptureConfig("4,8401,100007,743,3,0,0"), PerfTarget{}, kernel));
  EXPECT_TRUE(log_messages(GetCapturedStderr()).empty());  // verbose only
}

TEST(CaptureConfigFresh, TestConfigFailureIsToldAtVerboseLevel) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_MAX_VLOG_LEVEL=1"}));
    return;
  }
  ScriptedKernel kernel;
  kernel.fail("perf_event_open", ENOENT);
  CaptureStderr();
  EXPECT_FALSE(test_config(CaptureConfig("4,8401,100007,743,3,0,0"), PerfTarget{}, kernel));
  const std::string log = GetCapturedStderr();
  EXPECT_NE(log.find("| Failed to open perf handle! No such file or directory\n"
                     "Event config was type= PERF_TYPE_RAW, config= 20d1, period= 100007, "
                     "precise= 3, sample_type_= PERF_SAMPLE_IP | PERF_SAMPLE_TID | "
                     "PERF_SAMPLE_TIME | PERF_SAMPLE_CALLCHAIN | PERF_SAMPLE_ID | "
                     "PERF_SAMPLE_CPU | PERF_SAMPLE_STREAM_ID\n"),
            std::string::npos)
      << log;
}

// ---- Handler configuration ---------------------------------------------------------

uint64_t configured_sample_type(const Settings& settings) {
  Pipeline pipeline;
  ZVKPerfHandler handler(pipeline.helper);
  EXPECT_TRUE(configure_quietly(handler, settings).ok());
  return handler.sample_type();
}

TEST(PerfHandlerConfigure, SampleTypeAlwaysHasCallChainAndNeverBranchStack) {
  EXPECT_EQ(configured_sample_type({}), 743u);
  EXPECT_EQ(configured_sample_type({{"PerfSampleType", "0"}}), 32u);
  EXPECT_EQ(configured_sample_type({{"PerfSampleType", "2048"}}), 32u);
  EXPECT_EQ(configured_sample_type({{"PerfSampleType", "2791"}, {"UseSoftBacktrace", "1"}}),
            configured_sample_type({{"PerfSampleType", "2791"}, {"UseSoftBacktrace", "0"}}));
}

TEST(PerfHandlerConfigure, EmptyEventListGivesTheFourDefaultsUntested) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  ZVKPerfHandler handler(pipeline.helper, kernel);
  ASSERT_TRUE(configure_quietly(handler, {}).ok());
  const std::vector<std::string> expected = {"4,8401,100007,743,3,0,0", "4,25166530,2000003,743,0,0,0",
                                             "4,454,100007,743,3,20,0", "4,448,2000003,743,3,0,0"};
  std::vector<std::string> configs;
  for (const CaptureConfig& config : handler.configs()) configs.push_back(config);
  EXPECT_EQ(configs, expected);
  EXPECT_EQ(kernel.calls("perf_event_open"), 0);
}

TEST(PerfHandlerConfigure, ACustomEventCanOnlyRemoveSampleTypeBits) {
  Pipeline pipeline;
  ZVKPerfHandler handler(pipeline.helper);
  ASSERT_TRUE(configure_quietly(handler, {{"EventConfigs", "1,0,1000003,4095,0,0,0|1,1,2000003"}}).ok());
  ASSERT_EQ(handler.configs().size(), 2u);
  EXPECT_EQ(handler.configs()[0].sample_type_, 743u);
  EXPECT_EQ(handler.configs()[1].sample_type_, 743u & 2791u);
  EXPECT_EQ(handler.configs()[1].config_, 1u);
}

TEST(PerfHandlerConfigure, AnEventTheKernelRefusesFailsConfigure) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  kernel.fail("perf_event_open", ENOENT, 1);
  ZVKPerfHandler handler(pipeline.helper, kernel);
  CaptureStderr();
  const Status status = handler.configure({{"EventConfigs", "1,0,1000003,743,0,0,0|4,8401,100007"}});
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_EQ(status.code_, error::INVALID_ARGUMENT);
  EXPECT_EQ(status.msg_, "Perf event configuration is invalid! Event was 4,8401,100007,743,3,0,0");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "ERROR| Invalid perf configuration 4,8401,100007,743,3,0,0");
}

TEST(PerfHandlerConfigure, ASecondConfigureAppendsAndRetestsTheList) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  ZVKPerfHandler handler(pipeline.helper, kernel);
  ASSERT_TRUE(configure_quietly(handler, {{"EventConfigs", kCpuClock}}).ok());
  ASSERT_TRUE(configure_quietly(handler, {{"EventConfigs", kCpuClock}}).ok());
  EXPECT_EQ(handler.configs().size(), 2u);
  EXPECT_EQ(kernel.calls("perf_event_open"), 3);
}

// The ring size a "Log2NumPages" comes to, and what configure said of it.
std::pair<uint32_t, Strings> ring_size_for(const std::string& log2) {
  Pipeline pipeline;
  ZVKPerfHandler handler(pipeline.helper);
  CaptureStderr();
  EXPECT_TRUE(handler.configure({{"Log2NumPages", log2}}).ok());
  Strings lines = log_messages(GetCapturedStderr());
  lines.pop_back();  // the configuration summary
  return {handler.pages_per_handle(), lines};
}

TEST(PerfHandlerConfigure, RingSizeIsClampedAndToldAsItShouldBe) {
  const long page = sysconf(_SC_PAGESIZE);
  const std::map<std::string, std::pair<uint32_t, Strings>> expected = {
      {"0", {128, {"ERROR| Number of pages per perf handle is 1<128, setting it to 128"}}},
      {"6", {128, {"ERROR| Number of pages per perf handle is 64<128, setting it to 128"}}},
      {"7",
       {128, {"WARNING| Number of pages per perf handle is 128<512, could lead to dropped events"}}},
      {"8",
       {256, {"WARNING| Number of pages per perf handle is 256<512, could lead to dropped events"}}},
      {"9", {512, {}}},
      {"10", {1024, {}}},
      {"", {1024, {}}},
      {"21",
       {2097152,
        {"WARNING| Log2NumPages is 21 which correspond to 2097152 pages or " +
         std::to_string(page << 21) + " bytes per handle!"}}},
      {"31",
       {1048576,
        {"ERROR| Log2NumPages is 31 which correspond to 2147483648 pages or " +
         std::to_string(page << 31) + " bytes per handle! Reducing it to 20"}}},
  };
  for (const auto& entry : expected) EXPECT_EQ(ring_size_for(entry.first), entry.second) << entry.first;
}

TEST(PerfHandlerConfigure, TheSummaryTellsTheSettings) {
  Pipeline pipeline;
  ZVKPerfHandler handler(pipeline.helper);
  CaptureStderr();
  ASSERT_TRUE(handler.configure({{"PID", "7"}, {"CPU", "1"}, {"SharedBuckets", "0"}}).ok());
  const std::string log = GetCapturedStderr();
  EXPECT_NE(log.find("| Perf capture configuration= \n"
                     "\tPID              = 7\n"
                     "\tCPU              = 1\n"
                     "\tEvent Type       = PERF_TYPE_HARDWARE\n"
                     "\tSample Type      = PERF_SAMPLE_IP | PERF_SAMPLE_TID | PERF_SAMPLE_TIME | "
                     "PERF_SAMPLE_CALLCHAIN | PERF_SAMPLE_ID | PERF_SAMPLE_CPU | "
                     "PERF_SAMPLE_STREAM_ID\n"
                     "\tPages per handle = 1024\n"
                     "\tShared buckets   = 0\n"
                     "\tSingle worker    = 1\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(handler.host_cores(), static_cast<uint32_t>(get_nprocs_conf()));
}

TEST(PerfHandlerConfigure, ACgroupThatCannotBeOpenedIsToldAndSamplingFallsBackToThePid) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  ZVKPerfHandler handler(pipeline.helper, kernel);
  CaptureStderr();
  ASSERT_TRUE(handler
                  .configure({{"CgroupDir", "/nonexistent/cgroup"},
                              {"EventConfigs", kCpuClock},
                              {"SingleWorker", "0"},
                              {"CPU", "0"}})
                  .ok());
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_EQ(lines[0],
            "ERROR| Opening cgroup directory /nonexistent/cgroup failed with No such file or directory");
  EXPECT_EQ(handler.cgroup_fd(), -1);
  CaptureStderr();
  ASSERT_TRUE(handler.start().ok());
  GetCapturedStderr();
  const auto opens = kernel.opens();
  ASSERT_FALSE(opens.empty());
  EXPECT_EQ(opens.back().flags, static_cast<unsigned long>(PERF_FLAG_FD_CLOEXEC));
  EXPECT_EQ(opens.back().pid, 0);
  CaptureStderr();
  handler.stop();
  GetCapturedStderr();
}

TEST(PerfHandlerConfigure, ACgroupDirectoryBecomesTheTargetOfEveryGroup) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  kernel.fail("perf_event_open", EBADF);  // "/" is no cgroup
  ZVKPerfHandler handler(pipeline.helper, kernel);
  ASSERT_TRUE(configure_quietly(handler, {{"CgroupDir", "/"}}).ok());
  ASSERT_NE(handler.cgroup_fd(), -1);
  CaptureStderr();
  EXPECT_FALSE(handler.start().ok());
  GetCapturedStderr();
  const auto opens = kernel.opens();
  ASSERT_FALSE(opens.empty());
  for (const auto& open : opens) {  // the one-time probe too, if this process hadn't had it
    EXPECT_EQ(open.pid, handler.cgroup_fd());
    EXPECT_EQ(open.flags, static_cast<unsigned long>(PERF_FLAG_FD_CLOEXEC | PERF_FLAG_PID_CGROUP));
  }
}

TEST(PerfHandlerConfigure, AnEventListIsTriedOnTheCgroup) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  kernel.fail("perf_event_open", EBADF);
  ZVKPerfHandler handler(pipeline.helper, kernel);
  const Status status =
      configure_quietly(handler, {{"CgroupDir", "/"}, {"CPU", "1"}, {"EventConfigs", kCpuClock}});
  EXPECT_EQ(status.code_, error::INVALID_ARGUMENT);
  const auto opens = kernel.opens();
  ASSERT_EQ(opens.size(), 1u);
  EXPECT_EQ(opens[0].pid, handler.cgroup_fd());
  EXPECT_EQ(opens[0].cpu, 1);
  EXPECT_EQ(opens[0].flags, static_cast<unsigned long>(PERF_FLAG_FD_CLOEXEC | PERF_FLAG_PID_CGROUP));
}

// ---- Opening descriptors -------------------------------------------------------------

TEST(PerfHandlerStart, ACpuOfTwoOpensOneGroupOnCpuTwoOnly) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  ZVKPerfHandler handler(pipeline.helper, kernel);
  const Status configured =
      configure_quietly(handler, {{"CPU", "2"}, {"SingleWorker", "0"},
                                  {"EventConfigs", std::string(kCpuClock) + "|1,1,1000003"}});
  const size_t probes = kernel.opens().size();
  ASSERT_GE(probes, 1u);
  // The event list is tried where the capture will open it.
  EXPECT_EQ(kernel.opens()[0].cpu, 2);
  if (get_nprocs_conf() <= 2) {
    // No CPU 2 here: the kernel refuses it, and so the configuration.
    EXPECT_EQ(configured.code_, error::INVALID_ARGUMENT);
    EXPECT_EQ(probes, 1u);
    return;
  }
  ASSERT_TRUE(configured.ok());
  CaptureStderr();
  const Status started = handler.start();
  GetCapturedStderr();
  std::vector<ScriptedKernel::Open> opens = kernel.opens();
  opens.erase(opens.begin(), opens.begin() + static_cast<long>(probes));
  // The one-time probe may come first, on the current CPU.
  if (!opens.empty() && is_init_probe(opens.front())) opens.erase(opens.begin());
  ASSERT_TRUE(started.ok());
  ASSERT_EQ(opens.size(), 2u);
  for (const auto& open : opens) EXPECT_EQ(open.cpu, 2);
  EXPECT_EQ(opens[0].group, -1);
  EXPECT_EQ(opens[1].group, opens[0].fd);
  EXPECT_EQ(opens[0].attr.disabled, 1u);
  EXPECT_EQ(opens[1].attr.disabled, 0u);
  CaptureStderr();
  handler.stop();
  GetCapturedStderr();
}

TEST(PerfHandlerStart, EveryCpuGetsAGroupWithTheFirstEventAsItsDisabledLeader) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  ZVKPerfHandler handler(pipeline.helper, kernel);
  ASSERT_TRUE(configure_quietly(handler, {{"SingleWorker", "0"}, {"InheritEvents", "1"},
                                          {"EventConfigs", std::string(kCpuClock) + "|1,1,1000003"}})
                  .ok());
  const size_t probes = kernel.opens().size();
  CaptureStderr();
  ASSERT_TRUE(handler.start().ok());
  GetCapturedStderr();
  // The calling thread's groups; other threads of the process, if any, get their own.
  std::vector<ScriptedKernel::Open> opens;
  const auto all = kernel.opens();
  for (size_t i = probes; i < all.size(); ++i) {
    if (!is_init_probe(all[i]) && all[i].pid == 0) opens.push_back(all[i]);
  }
  const size_t cpus = static_cast<size_t>(get_nprocs_conf());
  ASSERT_EQ(opens.size(), 2 * cpus);
  for (size_t cpu = 0; cpu < cpus; ++cpu) {
    const auto& leader = opens[2 * cpu];
    const auto& member = opens[2 * cpu + 1];
    EXPECT_EQ(leader.cpu, static_cast<int>(cpu));
    EXPECT_EQ(member.cpu, static_cast<int>(cpu));
    EXPECT_EQ(leader.group, -1);
    EXPECT_EQ(member.group, leader.fd);
    EXPECT_EQ(leader.attr.disabled, 1u);
    EXPECT_EQ(member.attr.disabled, 0u);
    EXPECT_EQ(leader.attr.inherit, 1u);
    // New threads, not child processes: a child samples itself when it follows.
    EXPECT_EQ(leader.attr.inherit_thread, 1u);
    EXPECT_EQ(leader.attr.exclude_callchain_kernel, 1u);
    EXPECT_EQ(leader.pid, 0);
  }
  // One worker per CPU, built and never started: the descriptors stay open.
  ASSERT_EQ(handler.workers().size(), cpus);
  for (size_t cpu = 0; cpu < cpus; ++cpu) {
    const auto& worker = handler.workers()[cpu];
    EXPECT_FALSE(worker.has_run());
    ASSERT_GE(worker.fds().size(), 2u);
    EXPECT_EQ(worker.fds()[0].fd, opens[2 * cpu].fd);
    EXPECT_EQ(worker.fds()[1].fd, opens[2 * cpu + 1].fd);
  }
  for (const PerfConfFD& fd : handler.perf_fds()) EXPECT_TRUE(is_open(static_cast<int>(fd.fd)));
  CaptureStderr();
  handler.stop();
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "ERROR| Worker is not running!"),
            static_cast<long>(cpus));
  for (const auto& open : opens) EXPECT_FALSE(is_open(open.fd));
}

TEST(PerfHandlerStart, AnOfflineCpuFailsTheWholeStartAndClosesWhatItOpened) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  ZVKPerfHandler handler(pipeline.helper, kernel);
  ASSERT_TRUE(configure_quietly(handler, {{"EventConfigs", std::string(kCpuClock) + "|1,1,1000003"}}).ok());
  CaptureStderr();
  ASSERT_TRUE(handler.start().ok());  // the probe runs once per process: take it out of the way
  handler.stop();
  GetCapturedStderr();
  // The second CPU's leader fails as an offline CPU's does.
  const size_t before = kernel.opens().size();
  kernel.fail("perf_event_open", ENODEV, 2);
  CaptureStderr();
  const Status status = handler.start();
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_EQ(status.code_, error::FAILURE);
  EXPECT_EQ(status.msg_, "No such device");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "ERROR| Failed to open perf handle! No such device errno=19");
  const auto opens = kernel.opens();
  EXPECT_EQ(lines[1], "ERROR| PID=0, CPU=1, type=PERF_TYPE_SOFTWARE, config=PERF_COUNT_SW_CPU_CLOCK, "
                      "precise=0, sample_type=PERF_SAMPLE_IP | PERF_SAMPLE_TID | PERF_SAMPLE_TIME | "
                      "PERF_SAMPLE_CALLCHAIN | PERF_SAMPLE_ID | PERF_SAMPLE_CPU | "
                      "PERF_SAMPLE_STREAM_ID, branch_sample_type= -1, group leader= -1");
  EXPECT_TRUE(handler.perf_fds().empty());
  EXPECT_TRUE(handler.workers().empty());
  for (size_t i = before; i < opens.size(); ++i) {
    if (opens[i].fd >= 0) {
      EXPECT_FALSE(is_open(opens[i].fd));
    }
  }
  // Nothing is left behind: the next start succeeds.
  kernel.fail("perf_event_open", 0, 1000000);
  CaptureStderr();
  EXPECT_TRUE(handler.start().ok());
  handler.stop();
  GetCapturedStderr();
}

TEST(PerfHandlerStart, StartingTwiceFailsWithoutOpeningAnything) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  ZVKPerfHandler handler(pipeline.helper, kernel);
  ASSERT_TRUE(configure_quietly(handler, {{"EventConfigs", kCpuClock}}).ok());
  CaptureStderr();
  ASSERT_TRUE(handler.start().ok());
  const size_t opened = kernel.opens().size();
  const Status second = handler.start();
  EXPECT_EQ(second.code_, error::FAILED_PRECONDITION);
  EXPECT_EQ(second.msg_, "There seems to be active workers!");
  EXPECT_EQ(kernel.opens().size(), opened);
  handler.stop();
  GetCapturedStderr();
}

TEST(PerfHandlerStop, StopWithoutStartFails) {
  Pipeline pipeline;
  ZVKPerfHandler handler(pipeline.helper);
  ASSERT_TRUE(configure_quietly(handler, {{"EventConfigs", kCpuClock}}).ok());
  const Status status = handler.stop();
  EXPECT_EQ(status.code_, error::FAILED_PRECONDITION);
  EXPECT_EQ(status.msg_, "No active workers!");
  const Status flushed = handler.flush();
  EXPECT_EQ(flushed.code_, error::FAILED_PRECONDITION);
  EXPECT_EQ(flushed.msg_, "There is nothing to flush!");
}

TEST(PerfHandlerStart, AHandlerBuiltOnAHelperRefusesPerWorkerHelpers) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  ZVKPerfHandler handler(pipeline.helper, kernel);
  ASSERT_TRUE(configure_quietly(handler, {{"EventConfigs", kCpuClock}, {"SingleWorker", "0"},
                                          {"SharedBuckets", "0"}})
                  .ok());
  const size_t probes = kernel.opens().size();
  CaptureStderr();
  const Status status = handler.start();
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_EQ(status.code_, error::INVALID_ARGUMENT);
  EXPECT_EQ(status.msg_,
            "Configuration mismatch! Needs to be constructed with queues instead of helper!");
  EXPECT_EQ(lines.back(), "ERROR| Handler constructed with a bucket helper! needs to be constructed "
                          "with queue pointers instead!");
  // Refused before anything is opened: a retry leaves nothing behind either.
  EXPECT_TRUE(handler.perf_fds().empty());
  EXPECT_TRUE(handler.workers().empty());
  const auto opens = kernel.opens();
  for (size_t i = probes; i < opens.size(); ++i) EXPECT_TRUE(is_init_probe(opens[i]));
}

// ---- A real capture ----------------------------------------------------------------

TEST(PerfCapture, SamplesOfTheCallingThreadFollowTheirConfigurationRecords) {
  Pipeline pipeline;
  ZVKPerfHandler handler(pipeline.helper);
  ASSERT_TRUE(configure_quietly(handler, {{"EventConfigs", kCpuClock}}).ok());
  CaptureStderr();
  ASSERT_TRUE(handler.start().ok());
  const std::vector<PerfConfFD> fds = handler.perf_fds();
  spin_for(std::chrono::milliseconds(300));
  const Status stopped = handler.stop();
  GetCapturedStderr();
  EXPECT_TRUE(stopped.ok()) << stopped.msg_;

  const auto records = pipeline.written();
  const auto configurations = of_event(records, perfevent::CONFIGURATION);
  ASSERT_EQ(configurations.size(), fds.size());
  std::set<uint64_t> ids;
  for (size_t i = 0; i < fds.size(); ++i) {
    const auto config = payload_of<perfevent::ZVKPerfConfigData>(configurations[i]);
    EXPECT_EQ(configurations[i].payload_size, 48u);
    EXPECT_EQ(configurations[i].pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(configurations[i].tid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(config.type, 1u);
    EXPECT_EQ(config.config, 0u);
    EXPECT_EQ(config.sample_period, 1000003u);
    EXPECT_EQ(config.precise, 0u);
    EXPECT_EQ(config.format_id, fds[i].id);
    ids.insert(config.format_id);
  }
  const auto samples = of_event(records, perfevent::SAMPLE);
  // 300 ms at 1 kHz on a thread that never sleeps: even a loaded machine under a
  // sanitizer gives it a good share of that.
  EXPECT_GT(samples.size(), 10u);
  const uint32_t tid = static_cast<uint32_t>(syscall(SYS_gettid));
  for (const auto& sample : samples) {
    const auto payload = payload_of<perfevent::ZVKPerfSample>(sample);
    EXPECT_EQ(sample.pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(sample.tid, tid);
    EXPECT_EQ(sample.payload_size, 24u);
    EXPECT_EQ(ids.count(payload.id), 1u);
    // User chains only: the kernel's marker for the user part comes first.
    ASSERT_GE(sample.call_chain_size, 1u);
    EXPECT_EQ(sample.callchain[0], static_cast<uint64_t>(PERF_CONTEXT_USER));
  }
  // Every descriptor's configuration comes before any of its samples.
  size_t last_configuration = 0;
  size_t first_sample = records.size();
  for (size_t i = 0; i < records.size(); ++i) {
    if (records[i].hw_type != CPU) continue;
    if (records[i].event_type == perfevent::CONFIGURATION) last_configuration = i;
    if (records[i].event_type == perfevent::SAMPLE) first_sample = std::min(first_sample, i);
  }
  EXPECT_LT(last_configuration, first_sample);
}

// ---- Workers ------------------------------------------------------------------------

// Polls until `done` holds, for at most two seconds.
bool eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 400 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return done();
}

// A handler on the scripted kernel with the CPU clock on every CPU, started.
struct StartedCapture {
  // `real_kernel`: the handler goes to the kernel directly, not through the script,
  // whose log allocates on every call of the worker: a fork while the worker is in
  // the allocator can leave a sanitizer's allocator lock taken in the child.
  explicit StartedCapture(const Settings& extra = {}, bool real_kernel = false)
      : handler(pipeline.helper,
                real_kernel ? ZVKPerfKernel::real() : static_cast<ZVKPerfKernel&>(kernel)) {
    Settings settings = {{"EventConfigs", kCpuClock}};
    settings.insert(extra.begin(), extra.end());
    EXPECT_TRUE(configure_quietly(handler, settings).ok());
  }
  Status start() {
    CaptureStderr();
    const Status status = handler.start();
    start_log = GetCapturedStderr();
    fds = handler.perf_fds();
    return status;
  }
  Status stop() {
    CaptureStderr();
    const Status status = handler.stop();
    stop_log = GetCapturedStderr();
    return status;
  }
  // True once the worker has closed every descriptor of the capture.
  bool worker_closed_all() const {
    const auto closed = kernel.closed();
    for (const PerfConfFD& fd : fds) {
      if (std::find(closed.begin(), closed.end(), fd.fd) == closed.end()) return false;
    }
    return true;
  }
  size_t times_closed(int fd) const { return kernel.times_closed_since_opened(fd); }

  Pipeline pipeline;
  ScriptedKernel kernel;
  ZVKPerfHandler handler;
  std::vector<PerfConfFD> fds;
  std::string start_log;
  std::string stop_log;
};

TEST(PerfWorker, AFailedEpollCreationEndsTheWorkerAndItsDescriptorsAreClosedOnce) {
  StartedCapture capture;
  capture.kernel.fail("epoll_create1", EMFILE);
  CaptureStderr();
  ASSERT_TRUE(capture.handler.start().ok());
  capture.fds = capture.handler.perf_fds();
  ASSERT_TRUE(eventually([&] { return capture.worker_closed_all(); }));
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "ERROR| Failed to create epoll file descriptor for handling perf file "
                      "descriptor! Error= Too many open files"),
            lines.end());
  // The job opens a file after the worker has ended: it gets a number that was a
  // perf descriptor. The stop must leave it open.
  const int job_file = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(job_file, 0);
  capture.stop();
  EXPECT_TRUE(is_open(job_file));
  for (const PerfConfFD& fd : capture.fds) EXPECT_EQ(capture.times_closed(static_cast<int>(fd.fd)), 1u);
  close(job_file);
}

TEST(PerfWorker, AFailedEpollRegistrationClosesTheEpollDescriptor) {
  StartedCapture capture;
  capture.kernel.fail("epoll_ctl", EPERM);
  CaptureStderr();
  ASSERT_TRUE(capture.handler.start().ok());
  capture.fds = capture.handler.perf_fds();
  ASSERT_TRUE(eventually([&] { return capture.worker_closed_all(); }));
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "ERROR| Registering file for cpu 0 to epoll failed! Operation not permitted"),
            lines.end());
  ASSERT_EQ(capture.kernel.epoll_fds().size(), 1u);
  EXPECT_EQ(capture.times_closed(capture.kernel.epoll_fds()[0]), 1u);
  EXPECT_EQ(capture.kernel.calls("map_ring"), 0);
  capture.stop();
  // The first descriptor's configuration was written before its registration failed.
  EXPECT_EQ(of_event(capture.pipeline.written(), perfevent::CONFIGURATION).size(), 1u);
}

TEST(PerfWorker, AFailedMappingUnmapsTheRingsMappedSoFar) {
  if (get_nprocs_conf() < 2) GTEST_SKIP() << "needs two descriptors";
  StartedCapture capture;
  capture.kernel.fail("map_ring", ENOMEM, 1);
  CaptureStderr();
  ASSERT_TRUE(capture.handler.start().ok());
  capture.fds = capture.handler.perf_fds();
  ASSERT_TRUE(eventually([&] { return capture.worker_closed_all(); }));
  ASSERT_TRUE(eventually([&] { return capture.kernel.calls("unmap_ring") == 1; }));
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "ERROR| Memory mapping of perf pages for CPU 1 at fd " +
                          std::to_string(capture.fds[1].fd) + " failed with Cannot allocate memory"),
            lines.end());
  EXPECT_EQ(capture.times_closed(capture.kernel.epoll_fds()[0]), 1u);
  EXPECT_EQ(capture.kernel.calls("enable"), 0);
  capture.stop();
}

TEST(PerfWorker, AnInterruptedWaitEndsTheWorkerWithoutAFinalDrain) {
  StartedCapture capture;
  std::atomic<bool> interrupt{false};
  capture.kernel.epoll_wait_script = [&](epoll_event*, int) {
    while (!interrupt) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    errno = EINTR;
    return -1;
  };
  CaptureStderr();
  ASSERT_TRUE(capture.handler.start().ok());
  capture.fds = capture.handler.perf_fds();
  spin_for(std::chrono::milliseconds(200));  // samples wait in the rings
  interrupt = true;
  ASSERT_TRUE(eventually([&] { return capture.worker_closed_all(); }));
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "ERROR| epoll failed with Interrupted system call"),
            lines.end());
  EXPECT_EQ(capture.times_closed(capture.kernel.epoll_fds()[0]), 1u);
  capture.stop();
  const auto records = capture.pipeline.written();
  EXPECT_EQ(of_event(records, perfevent::CONFIGURATION).size(), capture.fds.size());
  EXPECT_TRUE(of_event(records, perfevent::SAMPLE).empty());
}

TEST(PerfWorker, AnExceptionEndsTheWorkerNotTheProcess) {
  StartedCapture capture;
  capture.kernel.epoll_wait_script = [](epoll_event*, int) -> int {
    throw std::runtime_error("no memory for the wait");
  };
  CaptureStderr();
  ASSERT_TRUE(capture.handler.start().ok());
  capture.fds = capture.handler.perf_fds();
  ASSERT_TRUE(eventually([&] { return capture.worker_closed_all(); }));
  // The line comes after the unwinding that closed the descriptors: the join is
  // what makes sure it is written.
  capture.handler.stop();
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "ERROR| Perf worker ended by an exception: no memory for the wait"),
            lines.end());
  for (const PerfConfFD& fd : capture.fds) EXPECT_EQ(capture.times_closed(static_cast<int>(fd.fd)), 1u);
  EXPECT_EQ(capture.times_closed(capture.kernel.epoll_fds()[0]), 1u);
}

TEST(PerfWorker, SamplesWrittenBeforeTheDisableAreRecordedByTheFinalDrain) {
  StartedCapture capture;
  // The rings are never reported ready: only the final drain reads them.
  capture.kernel.epoll_wait_script = [](epoll_event*, int) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return 0;
  };
  ASSERT_TRUE(capture.start().ok());
  ASSERT_TRUE(eventually([&] { return capture.kernel.calls("enable") == static_cast<int>(capture.fds.size()); }));
  spin_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(capture.stop().ok());
  EXPECT_GT(of_event(capture.pipeline.written(), perfevent::SAMPLE).size(), 10u);
  // The worker disabled every descriptor before it drained, then closed each once.
  for (const PerfConfFD& fd : capture.fds) EXPECT_EQ(capture.times_closed(static_cast<int>(fd.fd)), 1u);
}

TEST(PerfWorker, ARingWhoseTargetEndedDoesNotSpinTheWorker) {
  // A thread of its own is the target, and ends while the capture goes on.
  std::atomic<int> target_tid{0};
  std::atomic<bool> go{false};
  std::thread target([&] {
    target_tid = static_cast<int>(syscall(SYS_gettid));
    while (!go) std::this_thread::yield();
    spin_for(std::chrono::milliseconds(100));
  });
  while (target_tid == 0) std::this_thread::yield();
  StartedCapture capture(Settings{{"PID", std::to_string(target_tid.load())}});
  ASSERT_TRUE(capture.start().ok());
  go = true;
  target.join();
  const int waits_at_exit = capture.kernel.calls("epoll_wait");
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const int waits = capture.kernel.calls("epoll_wait") - waits_at_exit;
  EXPECT_TRUE(capture.stop().ok());
  // Woken by its 100 ms time-out, not by the hang-up over and over.
  EXPECT_LE(waits, 12);
  EXPECT_GT(capture.kernel.calls("epoll_ctl"), static_cast<int>(capture.fds.size()));
  const auto samples = of_event(capture.pipeline.written(), perfevent::SAMPLE);
  EXPECT_FALSE(samples.empty());
  for (const auto& sample : samples) EXPECT_EQ(sample.tid, static_cast<uint32_t>(target_tid.load()));
}

TEST(PerfWorker, AWorkerWithNoDescriptorsWaitsUntilItIsStopped) {
  Pipeline pipeline;
  ScriptedKernel kernel;
  ZVKPerfHandler handler(pipeline.helper, kernel);
  ASSERT_TRUE(configure_quietly(handler, {{"EventConfigs", kCpuClock}}).ok());
  ZVKPerfHandler::PerfWorker worker(ZVKPerfHandlerTestPeer::processor(handler), {}, pipeline.helper,
                                    std::make_shared<std::atomic<bool>>(false));
  CaptureStderr();
  ASSERT_TRUE(worker.run().ok());
  const Status again = worker.run();
  std::this_thread::sleep_for(std::chrono::milliseconds(350));
  const int waits = kernel.calls("epoll_wait");
  EXPECT_TRUE(worker.stop().ok());
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_EQ(again.code_, error::FAILED_PRECONDITION);
  EXPECT_EQ(again.msg_, "Worker thread is already running!");
  EXPECT_EQ(lines, Strings{"ERROR| Worker is already active!"});
  EXPECT_GE(waits, 3);  // 100 ms each
}

TEST(PerfWorker, StoppingAWorkerThatNeverRanFails) {
  Pipeline pipeline;
  ZVKPerfHandler handler(pipeline.helper);
  ZVKPerfHandler::PerfWorker worker(ZVKPerfHandlerTestPeer::processor(handler), {}, pipeline.helper,
                                    std::make_shared<std::atomic<bool>>(false));
  CaptureStderr();
  const Status status = worker.stop();
  EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{"ERROR| Worker is not running!"});
  EXPECT_EQ(status.code_, error::FAILED_PRECONDITION);
  EXPECT_EQ(status.msg_, "Worker thread is not running!");
}

// A ring in memory, in the kernel's layout, holding one MMAP record whose name is
// longer than the worker's first wrap buffer, placed across the ring's end.
struct FakeRing {
  explicit FakeRing(size_t data_pages) {
    page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size = page * (data_pages + 1);
    memory = static_cast<char*>(aligned_alloc(page, size));
    std::memset(memory, 0, size);
    control()->data_size = page * data_pages;
  }
  ~FakeRing() { free(memory); }
  perf_event_mmap_page* control() { return reinterpret_cast<perf_event_mmap_page*>(memory); }

  void put_long_mmap(const std::string& name) {
    const uint64_t data_size = control()->data_size;
    const size_t record_size = 40 + ((name.size() + 8) & ~size_t{7}) + 40;
    std::vector<char> record(record_size, 0);
    perf_event_header header = {PERF_RECORD_MMAP, 0, static_cast<uint16_t>(record_size)};
    std::memcpy(record.data(), &header, sizeof(header));
    std::memcpy(record.data() + 40, name.c_str(), name.size() + 1);
    const uint64_t tail = data_size - 1024;  // straddles the end
    for (size_t i = 0; i < record_size; ++i) memory[page + (tail + i) % data_size] = record[i];
    control()->data_tail = tail;
    control()->data_head = tail + record_size;
  }

  size_t page;
  size_t size;
  char* memory;
};

TEST(PerfWorker, AWrapBufferReplacedForALongRecordIsTheOneFreed) {
  StartedCapture capture({{"Log2NumPages", "7"}, {"CPU", "0"}});
  FakeRing ring(128);
  const std::string name(6 * ring.page, 'n');  // more than the first 5 pages of wrap buffer
  ring.put_long_mmap(name);
  capture.kernel.map_ring_script = [&](int, size_t size) -> void* {
    EXPECT_EQ(size, ring.size);
    return ring.memory;
  };
  std::atomic<int> waits{0};
  capture.kernel.epoll_wait_script = [&](epoll_event* events, int) {
    if (waits++ == 0) {
      events[0].events = EPOLLIN;
      events[0].data.u64 = 0;
      return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return 0;
  };
  ASSERT_TRUE(capture.start().ok());
  ASSERT_TRUE(eventually([&] { return waits > 2; }));
  capture.stop();
  const auto mmaps = of_event(capture.pipeline.written(), perfevent::MMAP);
  ASSERT_EQ(mmaps.size(), 1u);
  EXPECT_EQ(std::string(mmaps[0].payload.data() + 48), name);
  // Under the leak checker, a replaced buffer that nobody frees fails this test.
}

TEST(PerfHandlerFlush, SingleWorkerWithUnsharedBucketsFlushesItsOneWorker) {
  for (const char* shared : {"0", "1"}) {
    ZVKQueue<ZVKBuffer> to_fill(8, 1 << 20);
    ZVKQueue<ZVKBuffer> to_write;
    ScriptedKernel kernel;
    kernel.epoll_wait_script = [](epoll_event*, int) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      return 0;
    };
    CaptureStderr();
    {
      ZVKPerfHandler handler(&to_fill, &to_write, kernel);
      ASSERT_TRUE(handler.configure({{"EventConfigs", kCpuClock}, {"SharedBuckets", shared}}).ok());
      ASSERT_TRUE(handler.start().ok());
      const size_t n = handler.perf_fds().size();
      ASSERT_TRUE(eventually([&] { return kernel.calls("enable") == static_cast<int>(n); }));
      // The configuration records are there to flush.
      EXPECT_TRUE(handler.flush().ok()) << shared;
      // Nothing since: the thread sleeps, so its CPU clock doesn't tick.
      const Status stopped = handler.stop();
      EXPECT_EQ(stopped.code_, error::END_OF_DATA) << shared;
      EXPECT_EQ(stopped.msg_, "Buffer is Empty") << shared;
      // All the same, the capture has ended, and another can start.
      EXPECT_TRUE(handler.workers().empty());
      EXPECT_TRUE(handler.start().ok()) << shared;
      EXPECT_TRUE(handler.stop().ok()) << shared;
    }
    GetCapturedStderr();
    ZVKBuffer* buffer = nullptr;
    while (to_write.pop(&buffer), buffer != nullptr) buffer = nullptr;
  }
}

TEST(PerfCollector, SuspendAndResumeOnlySayTheyAreNotImplemented) {
  Pipeline pipeline;
  ZVKPerfCollector collector("PERFCollector", pipeline.helper);
  CaptureStderr();
  EXPECT_TRUE(collector.suspend_profiling().ok());
  EXPECT_TRUE(collector.resume_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            (Strings{"WARNING| PERFCollector Suspend not implemented",
                     "WARNING| PERFCollector Resume not implemented"}));
}

TEST(PerfHandlerFresh, TheProbeRunsOncePerProcessAndASecondHandlerSkipsIt) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  for (int round = 0; round < 2; ++round) {
    StartedCapture capture;
    const size_t before = capture.kernel.opens().size();
    ASSERT_TRUE(capture.start().ok());
    const auto opens = capture.kernel.opens();
    const bool probed = is_init_probe(opens[before]);
    EXPECT_EQ(probed, round == 0) << round;
    if (round == 0) {
      EXPECT_EQ(opens[before].attr.type, static_cast<uint32_t>(PERF_TYPE_SOFTWARE));
      EXPECT_EQ(opens[before].attr.config, static_cast<uint64_t>(PERF_COUNT_SW_CPU_CLOCK));
      EXPECT_EQ(opens[before].attr.exclude_kernel, 1u);
      // On the capture's own target, the calling thread, not every task of the CPU.
      EXPECT_EQ(opens[before].pid, 0);
      EXPECT_NE(capture.start_log.find("| Perf init succesful with FD=" + std::to_string(opens[before].fd)),
                std::string::npos);
    }
    capture.stop();
  }
}

TEST(PerfHandlerFresh, AFailedProbeIsToldAndTheStartGoesOn) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  StartedCapture capture;
  const size_t before = capture.kernel.opens().size();
  capture.kernel.fail("perf_event_open", EACCES);
  CaptureStderr();
  // The probe fails, and so does the open that follows it.
  const Status started = capture.handler.start();
  const Strings lines = log_messages(GetCapturedStderr());
  const auto opens = capture.kernel.opens();
  ASSERT_GT(opens.size(), before + 1);
  EXPECT_TRUE(is_init_probe(opens[before]));
  EXPECT_EQ(opens[before].pid, 0);
  EXPECT_FALSE(is_init_probe(opens[before + 1]));  // the start went on
  EXPECT_EQ(started.code_, error::FAILURE);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[0], "ERROR| Failed to open perf handle! Permission denied size of perfstruct=112 "
                      "enum=112 errno=13");
  EXPECT_EQ(lines[1], "ERROR| PID=0, CPU=" + std::to_string(opens[before].cpu) +
                          ", type=PERF_TYPE_SOFTWARE, config=PERF_COUNT_SW_CPU_CLOCK, sample_type= "
                          "PERF_SAMPLE_IP | PERF_SAMPLE_TID | PERF_SAMPLE_TIME | "
                          "PERF_SAMPLE_CALLCHAIN | PERF_SAMPLE_ID | PERF_SAMPLE_CPU | "
                          "PERF_SAMPLE_STREAM_ID, branch_sample_type= -1");
  EXPECT_EQ(lines[2], "ERROR| Status check failed init_perf() call failed! status= Permission denied");
}

TEST(PerfHandlerFresh, VerboseLevelTellsEveryOpenAndEventId) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_MAX_VLOG_LEVEL=1"}));
    return;
  }
  StartedCapture capture(Settings{{"CPU", "0"}});
  CaptureStderr();
  ASSERT_TRUE(capture.handler.start().ok());
  const PerfConfFD fd = capture.handler.perf_fds()[0];
  ASSERT_TRUE(eventually([&] { return capture.kernel.calls("enable") == 1; }));
  capture.handler.stop();
  const Strings lines = log_messages(GetCapturedStderr());
  const std::string opened =
      "INFO| Opened perf_event at fd=" + std::to_string(fd.fd) +
      " with PID=0, CPU=0, type=PERF_TYPE_SOFTWARE, config=PERF_COUNT_SW_CPU_CLOCK, precise=0, "
      "sample_type= PERF_SAMPLE_IP | PERF_SAMPLE_TID | PERF_SAMPLE_TIME | PERF_SAMPLE_CALLCHAIN | "
      "PERF_SAMPLE_ID | PERF_SAMPLE_CPU | PERF_SAMPLE_STREAM_ID, branch_sample_type= -1, group "
      "leader= -1";
  EXPECT_NE(std::find(lines.begin(), lines.end(), opened), lines.end());
  std::ostringstream id;
  id << "INFO| Event id for " << fd.fd << " is " << fd.id << " 0x" << std::hex << fd.id;
  EXPECT_NE(std::find(lines.begin(), lines.end(), id.str()), lines.end());
}

// ---- Without privileges ------------------------------------------------------------------

TEST(PerfUnprivileged, AKernelThatRefusesCpuWideEventsStillSamplesTheProcess) {
  // Fresh: the one-time probe is part of what must not ask for a whole CPU.
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  Pipeline pipeline;
  ScriptedKernel kernel;
  kernel.refuse_cpu_wide = true;
  ZVKPerfHandler handler(pipeline.helper, kernel);
  // The settings the zorvek package hands over: one event, threads inherited.
  CaptureStderr();
  const Status configured = handler.configure({{"EventConfigs", kCpuClock}, {"InheritEvents", "1"}});
  const Status started = handler.start();
  const std::string start_log = GetCapturedStderr();
  ASSERT_TRUE(configured.ok()) << configured.msg_;
  ASSERT_TRUE(started.ok()) << started.msg_;
  spin_for(std::chrono::milliseconds(300));
  CaptureStderr();
  const Status stopped = handler.stop();
  GetCapturedStderr();
  EXPECT_TRUE(stopped.ok()) << stopped.msg_;
  for (const std::string& line : log_messages(start_log)) {
    EXPECT_NE(line.rfind("ERROR|", 0), 0u) << line;
  }
  for (const auto& open : kernel.opens()) {
    EXPECT_NE(open.pid, -1);
    EXPECT_GE(open.fd, 0);
  }
  const uint32_t tid = static_cast<uint32_t>(syscall(SYS_gettid));
  size_t own = 0;
  for (const auto& sample : of_event(pipeline.written(), perfevent::SAMPLE)) {
    if (sample.tid == tid) ++own;
  }
  EXPECT_GT(own, 10u);
}

// ---- Threads that were there before the start ----------------------------------------------

TEST(PerfThreads, ThreadsRunningBeforeTheStartAreSampledIntoTheTargetsRings) {
  // Two threads spin from before the start to the stop, as a thread pool would.
  std::atomic<bool> stop{false};
  std::atomic<int> ready{0};
  std::vector<uint32_t> tids(2, 0);
  std::vector<std::thread> spinners;
  for (size_t i = 0; i < tids.size(); ++i) {
    spinners.emplace_back([&, i] {
      tids[i] = static_cast<uint32_t>(syscall(SYS_gettid));
      ++ready;
      volatile uint64_t sink = 0;
      while (!stop) sink = sink + 1;
    });
  }
  while (ready < 2) std::this_thread::yield();
  StartedCapture capture(Settings{{"InheritEvents", "1"}});
  ASSERT_TRUE(capture.start().ok());
  spin_for(std::chrono::milliseconds(400));
  EXPECT_TRUE(capture.stop().ok());
  stop = true;
  for (std::thread& spinner : spinners) spinner.join();

  // Their groups write to the target's rings: no ring, no epoll entry of their own.
  size_t routed = 0;
  for (const PerfConfFD& fd : capture.fds) {
    if (fd.output_fd == -1) continue;
    ++routed;
    EXPECT_TRUE(std::any_of(capture.fds.begin(), capture.fds.end(), [&](const PerfConfFD& owner) {
      return owner.fd == fd.output_fd && owner.output_fd == -1;
    }));
  }
  const size_t cpus = static_cast<size_t>(get_nprocs_conf());
  EXPECT_GE(routed, 2 * cpus);
  EXPECT_EQ(capture.kernel.calls("set_output"), static_cast<int>(routed));
  EXPECT_EQ(capture.kernel.calls("map_ring"), static_cast<int>(capture.fds.size() - routed));

  const auto records = capture.pipeline.written();
  // Every descriptor's configuration is there, so every sample's id can be placed.
  std::set<uint64_t> ids;
  for (const auto& config : of_event(records, perfevent::CONFIGURATION)) {
    ids.insert(payload_of<perfevent::ZVKPerfConfigData>(config).format_id);
  }
  EXPECT_EQ(ids.size(), capture.fds.size());
  std::map<uint32_t, size_t> per_thread;
  for (const auto& sample : of_event(records, perfevent::SAMPLE)) {
    ++per_thread[sample.tid];
    EXPECT_EQ(ids.count(payload_of<perfevent::ZVKPerfSample>(sample).id), 1u);
  }
  for (uint32_t tid : tids) EXPECT_GT(per_thread[tid], 10u) << tid;
  EXPECT_GT(per_thread[static_cast<uint32_t>(syscall(SYS_gettid))], 10u);
}

TEST(PerfThreadsFresh, ThreadsTakeAtMostAQuarterOfTheDescriptorsLeft) {
  // Fresh: the descriptor limit is lowered for the whole process.
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  std::atomic<bool> stop{false};
  std::vector<std::thread> sleepers;
  for (int i = 0; i < 8; ++i) {
    sleepers.emplace_back([&] {
      while (!stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
  }
  const size_t cpus = static_cast<size_t>(get_nprocs_conf());
  // A quarter of what is left comes to about two threads' groups, far fewer than
  // the eight threads there are.
  size_t open_now = 0;
  for (int fd = 0; fd < 4096; ++fd) open_now += is_open(fd) ? 1 : 0;
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit lowered = {open_now + 8 + 4 * 2 * cpus, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
  StartedCapture capture(Settings{{"InheritEvents", "1"}});
  ASSERT_TRUE(capture.start().ok());
  size_t routed = 0;
  for (const PerfConfFD& fd : capture.fds) routed += fd.output_fd != -1 ? 1 : 0;
  EXPECT_TRUE(capture.stop().ok());
  stop = true;
  for (std::thread& sleeper : sleepers) sleeper.join();
  // At most a quarter of the 8 + 8 * cpus descriptors left; descriptors the test
  // itself holds at the start (its captured stderr) may leave one thread fewer.
  EXPECT_GE(routed, cpus);
  EXPECT_LE(routed, (8 + 8 * cpus) / 4);
  const Strings lines = log_messages(capture.start_log);
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    return line.rfind("WARNING| CPU sampling leaves out ", 0) == 0 &&
           line.find(" threads that were running before the start: their events would take more "
                     "than a quarter of the file descriptors the process has left") !=
               std::string::npos;
  })) << capture.start_log;
}

TEST(PerfThreads, WithoutInheritOnlyTheCallingThreadIsOpened) {
  std::atomic<bool> stop{false};
  std::thread other([&] {
    while (!stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  StartedCapture capture;
  ASSERT_TRUE(capture.start().ok());
  EXPECT_TRUE(capture.stop().ok());
  stop = true;
  other.join();
  EXPECT_EQ(capture.fds.size(), static_cast<size_t>(get_nprocs_conf()));
  for (const PerfConfFD& fd : capture.fds) EXPECT_EQ(fd.output_fd, -1);
  EXPECT_EQ(capture.kernel.calls("set_output"), 0);
}

TEST(PerfThreads, AnEventThatCannotReachItsRingIsToldAndTheRestSample) {
  std::atomic<bool> stop{false};
  std::thread other([&] {
    while (!stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  StartedCapture capture(Settings{{"InheritEvents", "1"}});
  capture.kernel.fail("set_output", EINVAL);
  CaptureStderr();
  ASSERT_TRUE(capture.handler.start().ok());
  const int opened = static_cast<int>(capture.handler.perf_fds().size());
  ASSERT_TRUE(eventually([&] { return capture.kernel.calls("enable") > 0; }));
  spin_for(std::chrono::milliseconds(200));
  capture.handler.stop();
  const Strings lines = log_messages(GetCapturedStderr());
  stop = true;
  other.join();
  const int failed = capture.kernel.calls("set_output");
  ASSERT_GE(failed, 1);
  // Those that can't reach a ring are never enabled.
  EXPECT_EQ(capture.kernel.calls("enable"), opened - failed);
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "WARNING| Samples of " + std::to_string(failed) +
                          " perf events of threads running before the start have no ring to go "
                          "to: Invalid argument"),
            lines.end());
  EXPECT_GT(of_event(capture.pipeline.written(), perfevent::SAMPLE).size(), 10u);
}

TEST(PerfUnprivileged, RingsShrinkToTheMemoryTheUserMayLock) {
  // The kernel refuses rings beyond what the user may lock with EPERM, as it does
  // for a user without CAP_IPC_LOCK on a host with many CPUs.
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  std::mutex lock;
  std::vector<std::pair<void*, size_t>> mapped;
  StartedCapture capture;
  capture.kernel.map_ring_script = [&](int fd, size_t size) -> void* {
    if (size > page * (256 + 1)) {
      errno = EPERM;
      return MAP_FAILED;
    }
    void* ring = ZVKPerfKernel::real().map_ring(fd, size);
    std::lock_guard<std::mutex> guard(lock);
    mapped.emplace_back(ring, size);
    return ring;
  };
  CaptureStderr();
  ASSERT_TRUE(capture.handler.start().ok());
  capture.fds = capture.handler.perf_fds();
  ASSERT_TRUE(eventually([&] { return capture.kernel.calls("enable") > 0; }));
  spin_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(capture.handler.stop().ok());
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "INFO| Perf rings have 256 data pages instead of 1024: larger ones pass "
                      "the memory this user may lock"),
            lines.end());
  EXPECT_GT(of_event(capture.pipeline.written(), perfevent::SAMPLE).size(), 10u);
  // The script's rings are the test's to unmap.
  ASSERT_EQ(mapped.size(), capture.fds.size());
  for (const auto& ring : mapped) {
    EXPECT_EQ(ring.second, page * (256 + 1));
    munmap(ring.first, ring.second);
  }
}

// ---- Samples reach the file while the capture runs ------------------------------------------

TEST(PerfWorker, RingsAreReadWithoutWaitingForTheKernelsWakeUp) {
  StartedCapture capture;
  // The kernel wakes a reader only once a ring is half full: never, at this rate.
  capture.kernel.epoll_wait_script = [](epoll_event*, int) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return 0;
  };
  ASSERT_TRUE(capture.start().ok());
  // The writer's periodic flush, while the capture goes on, finds samples to send.
  size_t samples = 0;
  EXPECT_TRUE(eventually([&] {
    spin_for(std::chrono::milliseconds(20));
    capture.pipeline.helper->flush();
    samples += of_event(capture.pipeline.written(), perfevent::SAMPLE).size();
    return samples > 0;
  }));
  EXPECT_TRUE(capture.stop().ok());
}

// ---- Mappings at the start --------------------------------------------------------------

TEST(PerfMappings, EachExecutableMappingBecomesAnMmapRecordWithNoEventId) {
  testing_support::TempDir dir;
  const std::string maps = dir.file("maps");
  FILE* file = fopen(maps.c_str(), "w");
  ASSERT_NE(file, nullptr);
  fputs("55d0c0000000-55d0c0001000 r--p 00000000 08:01 100 /usr/bin/python3.11\n"
        "55d0c0001000-55d0c0201000 r-xp 00001000 08:01 100 /usr/bin/python3.11\n"
        "7f0000000000-7f0000002000 rw-p 00000000 00:00 0 \n"
        "7f1000000000-7f1000010000 r-xp 00000000 00:00 0 \n"
        "7ffd00000000-7ffd00002000 r-xp 00000000 00:00 0                          [vdso]\n",
        file);
  fclose(file);
  Pipeline pipeline;
  timespec before;
  clock_gettime(CLOCK_MONOTONIC_RAW, &before);
  save_process_mappings(pipeline.helper.get(), maps.c_str());
  pipeline.helper->flush();
  const auto mmaps = of_event(pipeline.written(), perfevent::MMAP);
  ASSERT_EQ(mmaps.size(), 3u);
  const std::vector<std::string> names = {"/usr/bin/python3.11", "", "[vdso]"};
  const std::vector<uint64_t> starts = {0x55d0c0001000, 0x7f1000000000, 0x7ffd00000000};
  const std::vector<uint64_t> lengths = {0x200000, 0x10000, 0x2000};
  for (size_t i = 0; i < mmaps.size(); ++i) {
    const auto fixed = payload_of<perfevent::ZVKPerfMMap>(mmaps[i]);
    EXPECT_EQ(fixed.id, 0u);
    EXPECT_EQ(fixed.stream_id, 0u);
    EXPECT_EQ(fixed.addr, starts[i]);
    EXPECT_EQ(fixed.len, lengths[i]);
    EXPECT_EQ(fixed.pgoff, i == 0 ? 0x1000u : 0u);
    EXPECT_EQ(fixed.strsize, names[i].size());
    EXPECT_EQ(mmaps[i].payload_size, perfevent::mmap_payload_size(names[i].size()));
    EXPECT_EQ(std::string(mmaps[i].payload.data() + sizeof(fixed)), names[i]);
    EXPECT_EQ(mmaps[i].pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(mmaps[i].tid, static_cast<uint32_t>(getpid()));
    EXPECT_GE(mmaps[i].timestamp, timespec_to_ns(before));
  }
}

TEST(PerfMappings, RecordMappingsPutsTheProcesssCodeAheadOfTheSamples) {
  for (const char* on : {"0", "1"}) {
    StartedCapture capture(Settings{{"RecordMappings", on}, {"CPU", "0"}});
    ASSERT_TRUE(capture.start().ok());
    spin_for(std::chrono::milliseconds(100));
    capture.stop();
    const auto records = capture.pipeline.written();
    std::vector<std::string> at_start;
    for (const auto& record : records) {
      if (record.hw_type != CPU) continue;
      if (record.event_type == perfevent::SAMPLE) break;
      if (record.event_type != perfevent::MMAP) continue;
      if (payload_of<perfevent::ZVKPerfMMap>(record).id == 0) {
        at_start.emplace_back(record.payload.data() + sizeof(perfevent::ZVKPerfMMap));
      }
    }
    if (std::string(on) == "0") {
      EXPECT_TRUE(at_start.empty());
      continue;
    }
    // The test's own program and the C library are among them.
    char self[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    EXPECT_NE(std::find(at_start.begin(), at_start.end(), std::string(self)), at_start.end());
    EXPECT_TRUE(std::any_of(at_start.begin(), at_start.end(), [](const std::string& name) {
      return name.find("libc.so") != std::string::npos;
    }));
  }
}

// Not under the sanitizers: ThreadSanitizer can't follow a threaded process through
// a fork, and AddressSanitizer's allocator keeps locks of its own that a fork can
// leave taken in the child, by the worker that was allocating at that moment.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
TEST(PerfFork, AChildNeitherJoinsItsParentsWorkerNorClosesAnotherFile) {
  StartedCapture capture({}, true);
  ASSERT_TRUE(capture.start().ok());
  const std::vector<PerfConfFD> fds = capture.fds;
  const int status = fork_with_locks_held([&] {
    alarm(10);  // a join of the parent's thread would never return
    CaptureStderr();
    const Status stopped = capture.handler.stop();
    GetCapturedStderr();
    EXPECT_TRUE(stopped.ok()) << stopped.msg_;
    // The child's copies of the descriptors are closed...
    for (const PerfConfFD& fd : fds) EXPECT_FALSE(is_open(static_cast<int>(fd.fd)));
    // ...and a capture of its own can start and stop.
    EXPECT_TRUE(capture.start().ok());
    spin_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(capture.stop().ok());
  });
  EXPECT_EQ(status, 0);
  // The parent's capture never noticed.
  for (const PerfConfFD& fd : fds) EXPECT_TRUE(is_open(static_cast<int>(fd.fd)));
  spin_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(capture.stop().ok());
  EXPECT_FALSE(of_event(capture.pipeline.written(), perfevent::SAMPLE).empty());
}

TEST(PerfFork, AChildThatFollowsSamplesItselfWhileTheParentDoesNot) {
  StartedCapture capture(Settings{{"InheritEvents", "1"}}, true);
  ASSERT_TRUE(capture.start().ok());
  // Nothing to take up again in the process that started sampling.
  ASSERT_TRUE(capture.handler.restart_after_fork().ok());
  const std::vector<PerfConfFD> parents = capture.fds;
  EXPECT_EQ(capture.handler.perf_fds().size(), parents.size());
  const pid_t parent = getpid();
  const int status = fork_with_locks_held([&] {
    alarm(10);
    CaptureStderr();
    const Status restarted = capture.handler.restart_after_fork();
    GetCapturedStderr();
    ASSERT_TRUE(restarted.ok()) << restarted.msg_;
    spin_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(capture.stop().ok());
    const auto samples = of_event(capture.pipeline.written(), perfevent::SAMPLE);
    EXPECT_TRUE(std::any_of(samples.begin(), samples.end(), [](const auto& sample) {
      return sample.pid == static_cast<uint32_t>(getpid());
    }));
  });
  EXPECT_EQ(status, 0);
  spin_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(capture.stop().ok());
  // The parent's rings hold its own samples and none of the child's: the child's
  // went to rings of its own.
  const auto samples = of_event(capture.pipeline.written(), perfevent::SAMPLE);
  EXPECT_FALSE(samples.empty());
  for (const auto& sample : samples) EXPECT_EQ(sample.pid, static_cast<uint32_t>(parent));
}

TEST(PerfFork, AChildClosesOnlyDescriptorsThatAreStillTheParentsEvents) {
  StartedCapture capture(Settings{{"SingleWorker", "0"}}, true);
  ASSERT_TRUE(capture.start().ok());
  const int reused = static_cast<int>(capture.fds[0].fd);
  const int status = fork_with_locks_held([&] {
    // The child puts a file of its own at one inherited number.
    const int file = open("/dev/null", O_RDONLY);
    ASSERT_EQ(dup2(file, reused), reused);
    close(file);
    CaptureStderr();
    capture.handler.stop();
    GetCapturedStderr();
    EXPECT_TRUE(is_open(reused));
    for (size_t i = 1; i < capture.fds.size(); ++i) {
      EXPECT_FALSE(is_open(static_cast<int>(capture.fds[i].fd)));
    }
  });
  EXPECT_EQ(status, 0);
  capture.stop();
}
#endif

}  // namespace
}  // namespace zorvek
