#include <gtest/gtest.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/test_support.h"
#include "zorv/io/zvkfilewriter.h"
#include "zorv/zorv.h"
#include "zorv/zvkannotator.h"
#include "zorv/zvkregistry.h"

namespace zorvek {

struct ZorvTestPeer {
  static ZVKDataCollectorBase*& cuda(Zorv& zorv) { return zorv.m_cuda_collector; }
  static ZVKDataCollectorBase*& perf(Zorv& zorv) { return zorv.m_perf_collector; }
  static ZVKAnnotator* annotator(Zorv& zorv) { return zorv.m_annotator; }
  static uint32_t bucket_size(Zorv& zorv) { return zorv.m_bucket_size; }
  static uint32_t bucket_count(Zorv& zorv) { return zorv.m_bucket_count; }
  static bool follows_forks(Zorv& zorv) { return zorv.m_activate_in_children; }
};

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::kNoHookLibraryAtStart;
using testing_support::kNoHookLibraryAtStop;
using testing_support::log_messages;
using testing_support::read_capture;
using testing_support::run_in_child;
using testing_support::small_capture_config;
using testing_support::TempDir;
using Strings = std::vector<std::string>;
using Sections = std::map<std::string, ZVKConfigSection>;

// A collector that records its calls and fails where told to.
class FakeCollector : public ZVKDataCollectorBase {
 public:
  explicit FakeCollector(Strings* calls) : ZVKDataCollectorBase("Fake", nullptr, nullptr), m_calls(calls) {}
  Status start_profiling() override { return answer("start", m_fail_start); }
  Status stop_profiling() override { return answer("stop", false); }
  Status suspend_profiling() override { return answer("suspend", false); }
  Status resume_profiling() override { return answer("resume", false); }
  Status configure(const std::map<std::string, std::string>& config) override {
    return answer("configure " + std::to_string(config.size()), m_fail_configure);
  }
  bool m_fail_start = false;
  bool m_fail_configure = false;

 private:
  Status answer(const std::string& call, bool fail) {
    m_calls->push_back(call);
    return fail ? Status(error::FAILURE, call + " failed") : Status::OK();
  }
  Strings* m_calls;
};

void clear_environment() {
  for (const char* name : {"ZV_CURRENT_HOST", "ZVK_OUTPUT_FILE_NAME", "ZVK_BUCKET_COUNT",
                           "ZVK_BUCKET_SIZE_MB", "ZVK_ENABLE_FORK_FOLLOW", "ZVK_BUCKET_COMPRESSION"}) {
    unsetenv(name);
  }
}

TEST(Controller, UnconfiguredAnswersByTheStateTable) {
  EXPECT_EQ(0, run_in_child([] {
    Zorv& zorv = Zorv::instance();
    EXPECT_FALSE(zorv.is_configured());
    Status start = zorv.start_profiling();
    EXPECT_EQ(start.code_, error::FAILURE);
    EXPECT_EQ(start.msg_, "Profiler is not configured. Call configure(...) first");
    Status stop = zorv.stop_profiling();
    EXPECT_EQ(stop.code_, error::FAILED_PRECONDITION);
    EXPECT_EQ(stop.msg_, "Profiling not running");
    EXPECT_TRUE(zorv.suspend_profiling().ok());
    EXPECT_TRUE(zorv.resume(false).ok());
    EXPECT_FALSE(zorv.is_active());
    // Resume with nothing to resume marks the profiler active...
    EXPECT_TRUE(zorv.resume_profiling().ok());
    EXPECT_TRUE(zorv.is_active());
    Status again = zorv.resume_profiling();
    EXPECT_EQ(again.msg_, "Profiling is already active!");
    // ...and the stop that follows goes through its steps to the missing writer.
    CaptureStderr();
    Status missing = zorv.stop_profiling();
    EXPECT_EQ(missing.code_, error::FAILED_PRECONDITION);
    EXPECT_EQ(missing.msg_, "There is no recording ongoing to stop!");
    EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{kNoHookLibraryAtStop});
    // Whatever the writer answers, a stop ends the capture.
    EXPECT_FALSE(zorv.is_active());
  }, /*exit_normally=*/true));
}

TEST(Controller, LifecycleWritesFilesAndTheMarkerOnce) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    clear_environment();
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("cap_%t"))).ok());
    EXPECT_EQ(zorv.configure({}).msg_, "Already configured!");
    EXPECT_EQ(ZorvTestPeer::annotator(zorv)->name(), "SharedAnnotator");
    EXPECT_EQ(ZorvTestPeer::cuda(zorv), nullptr);
    EXPECT_EQ(ZorvTestPeer::perf(zorv), nullptr);
    EXPECT_EQ(zorv.stop_profiling().msg_, "Profiling not running");
    ASSERT_TRUE(zorv.start_profiling().ok());
    EXPECT_EQ(zorv.start_profiling().msg_, "Profiling is still running");
    zorv.annotate_end(zorv.annotate_begin(std::string("first")));
    zorv.annotate_marker(std::string("mark"));
    ASSERT_TRUE(zorv.stop_profiling().ok());
    Strings lines = log_messages(GetCapturedStderr());
    EXPECT_EQ(lines.front(), kNoHookLibraryAtStart);

    // Suspend leaves the capture Idle: stop then answers "not running".
    ASSERT_TRUE(zorv.start_profiling().ok());
    CaptureStderr();
    ASSERT_TRUE(zorv.suspend_profiling().ok());
    EXPECT_FALSE(zorv.is_active());
    EXPECT_EQ(zorv.stop_profiling().msg_, "Profiling not running");
    ASSERT_TRUE(zorv.resume_profiling().ok());
    // A stop with nothing annotated: the annotator's buffer is empty.
    ASSERT_TRUE(zorv.stop_profiling().ok());
    lines = log_messages(GetCapturedStderr());
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "INFO| Status check failed Annotator flush failed! status= Buffer is Empty"),
              lines.end());
  }, true));
  const Strings files = dir.list();
  ASSERT_EQ(files.size(), 1u);  // the second capture had no bucket and left no file
  auto file = read_capture(dir.file(files[0]));
  ASSERT_EQ(file.buckets.size(), 1u);
  const auto& records = file.buckets[0].records;
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0].event_type, annotations::TIME_MARKER);
  EXPECT_EQ(records[1].event_type, annotations::BEGIN);
  EXPECT_EQ(records[2].event_type, annotations::END);
  EXPECT_EQ(records[3].event_type, annotations::MARKER);
}

TEST(Controller, ProcessExitStopsTheCaptureFromTheDestructor) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    clear_environment();
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("exit"))).ok());
    ASSERT_TRUE(zorv.start_profiling().ok());
    zorv.annotate_begin(std::string("unfinished"));
  }, /*exit_normally=*/true));
  auto file = read_capture(dir.file("exit_0.zvkraw"));
  EXPECT_EQ(file.header()->num_buckets, 1u);
  ASSERT_EQ(file.buckets.size(), 1u);
  ASSERT_EQ(file.buckets[0].records.size(), 2u);
  EXPECT_STREQ(file.buckets[0].records[1].payload.data() + 8, "unfinished");
}

TEST(Controller, ResumeOfANeverStartedCaptureAsksTheWriter) {
  EXPECT_EQ(0, run_in_child([] {
    clear_environment();
    Zorv& zorv = Zorv::instance();
    Strings calls;
    ZorvTestPeer::cuda(zorv) = new FakeCollector(&calls);
    CaptureStderr();
    ASSERT_TRUE(zorv.configure(small_capture_config("never")).ok());
    // The writer has no file name yet: its resume tries to open "" and fails.
    Status status = zorv.resume_profiling();
    GetCapturedStderr();
    EXPECT_EQ(status.msg_, "Failed to open file No such file or directory");
    EXPECT_EQ(calls, Strings{"configure 0"});
    EXPECT_FALSE(zorv.is_active());
  }));
}

TEST(Controller, FailingCollectorStartUndoesNothing) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    clear_environment();
    Zorv& zorv = Zorv::instance();
    Strings calls;
    auto* fake = new FakeCollector(&calls);
    fake->m_fail_configure = true;
    fake->m_fail_start = true;
    ZorvTestPeer::cuda(zorv) = fake;
    Sections config = small_capture_config(dir.file("fail"));
    config["CUDA"] = {{"k", "v"}};
    CaptureStderr();
    EXPECT_EQ(zorv.configure(config).msg_, "configure 1 failed");
    EXPECT_TRUE(zorv.is_configured());  // the writer exists: start proceeds
    EXPECT_EQ(zorv.start_profiling().msg_, "start failed");
    EXPECT_FALSE(zorv.is_active());
    // The writer started and stays started: a second start restarts it.
    EXPECT_EQ(zorv.start_profiling().msg_, "start failed");
    Strings lines = log_messages(GetCapturedStderr());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "ERROR| [DEPRECATED][TODO] Should never be called!"),
              lines.end());
    fake->m_fail_start = false;
    CaptureStderr();
    ASSERT_TRUE(zorv.start_profiling().ok());
    ASSERT_TRUE(zorv.suspend_profiling().ok());
    ASSERT_TRUE(zorv.resume_profiling().ok());
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    EXPECT_EQ(calls, (Strings{"configure 1", "start", "start", "start", "suspend", "resume", "stop"}));
  }));
}

TEST(Configure, EmptyConfigBuildsOnlyAnnotatorAndWriter) {
  EXPECT_EQ(0, run_in_child([] {
    clear_environment();
    setenv("ZVK_BUCKET_COUNT", "2", 1);
    setenv("ZVK_BUCKET_SIZE_MB", "1", 1);
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    ASSERT_TRUE(zorv.configure({{"CUDA", {{"a", "b"}}}, {"PERF", {{"c", "d"}}}}).ok());
    EXPECT_TRUE(log_messages(GetCapturedStderr()).empty());
    EXPECT_EQ(ZorvTestPeer::cuda(zorv), nullptr);
    EXPECT_EQ(ZorvTestPeer::perf(zorv), nullptr);
    EXPECT_EQ(ZorvTestPeer::annotator(zorv)->name(), "SharedAnnotator");
    EXPECT_EQ(zorv.file_pattern(), "zorvek_%h_%p_%t");
    EXPECT_EQ(ZorvTestPeer::bucket_count(zorv), 2u);
    EXPECT_EQ(ZorvTestPeer::bucket_size(zorv), 1u << 20);
  }));
}

// "EnablePerf" with no "PERF" section, and "EnableCuda" with no "CUDA": both are
// announced and configure goes on. The CPU collector is configured with an empty
// map, which gives the default sampling summary. Unshared, each collector and the
// annotator hold a buffer of their own, and the writer one more.
TEST(Configure, CollectorsAreAnnouncedAndUnsharedAnnotatorNamed) {
  EXPECT_EQ(0, run_in_child([] {
    clear_environment();
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    ASSERT_TRUE(zorv.configure({{"ZORV",
                                 {{"BucketCount", "4"}, {"BucketSizeMB", "1"}, {"EnableCuda", "1"},
                                  {"EnablePerf", "1"}, {"SharedBuffers", "0"},
                                  {"SharedAnnotations", "0"}, {"EnableForkFollow", "1"}}}})
                    .ok());
    const Strings lines = log_messages(GetCapturedStderr());
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "INFO| CPU capture enabled ");
    EXPECT_EQ(lines[1], "INFO| CUDA capture enabled ");
    EXPECT_EQ(lines[2], "INFO| Perf capture configuration= ");
    ASSERT_NE(ZorvTestPeer::cuda(zorv), nullptr);
    EXPECT_EQ(ZorvTestPeer::cuda(zorv)->name(), "CUDACollector");
    ASSERT_NE(ZorvTestPeer::perf(zorv), nullptr);
    EXPECT_EQ(ZorvTestPeer::perf(zorv)->name(), "PERFCollector");
    EXPECT_EQ(ZorvTestPeer::annotator(zorv)->name(), "Annotator");
    EXPECT_TRUE(ZorvTestPeer::follows_forks(zorv));
  }));
}

// Each refused setting: the status, its one log line, and a profiler left as it
// was, so that a corrected configure then succeeds with the settings it is given.
void expect_refused(const Sections& sections, const char* env_name, const char* env_value,
                    const std::string& message) {
  EXPECT_EQ(0, run_in_child([&] {
    clear_environment();
    if (env_name != nullptr) setenv(env_name, env_value, 1);
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    const Status refused = zorv.configure(sections);
    EXPECT_EQ(refused.code_, error::INVALID_ARGUMENT);
    EXPECT_EQ(refused.msg_, message);
    EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{"ERROR| Configuration refused: " + message});
    EXPECT_FALSE(zorv.is_configured());
    EXPECT_EQ(zorv.annotate_begin(std::string("nowhere to go")), 0u);  // and no crash
    if (env_name != nullptr) unsetenv(env_name);
    CaptureStderr();
    ASSERT_TRUE(zorv.configure({{"ZORV", {{"BucketCount", "3"}, {"BucketSizeMB", "2"}}}}).ok());
    GetCapturedStderr();
    EXPECT_EQ(ZorvTestPeer::bucket_count(zorv), 3u);
    EXPECT_EQ(ZorvTestPeer::bucket_size(zorv), 2u << 20);
  }));
}

TEST(Configure, SettingsThatCanOnlyHangOrLoseEverythingAreRefused) {
  const std::string too_few =
      "BucketCount must be at least 2, one buffer for each record producer and one for the "
      "writer; got ";
  expect_refused({{"ZORV", {{"BucketCount", "1"}}}}, nullptr, nullptr, too_few + "1");
  expect_refused({{"ZORV", {{"BucketCount", "0"}}}}, nullptr, nullptr, too_few + "0");
  expect_refused({}, "ZVK_BUCKET_COUNT", "abc", too_few + "0");
  const std::string size = "BucketSizeMB must be between 1 and 4095; got ";
  expect_refused({{"ZORV", {{"BucketSizeMB", "0"}}}}, nullptr, nullptr, size + "0");
  expect_refused({{"ZORV", {{"BucketSizeMB", "4096"}}}}, nullptr, nullptr, size + "4096");
  expect_refused({}, "ZVK_BUCKET_SIZE_MB", "4097", size + "4097");
  const std::string compression =
      "Compression must be 1000000 plus a zlib level from 0 to 9 (1000001 is level 1), or the "
      "level alone; got ";
  expect_refused({}, "ZVK_BUCKET_COMPRESSION", "1000042", compression + "1000042");
  expect_refused({{"ZORV", {{"Compression", "10"}}}}, nullptr, nullptr, compression + "10");
  // Unshared, every producer holds a buffer: per-CPU sampling workers one per CPU.
  const std::string cpus = std::to_string(get_nprocs_conf());
  const std::string needed = std::to_string(get_nprocs_conf() + 3);
  expect_refused({{"ZORV",
                   {{"BucketCount", cpus}, {"EnablePerf", "1"}, {"EnableCuda", "1"},
                    {"SharedBuffers", "0"}, {"SharedAnnotations", "0"}}},
                  {"PERF", {{"SingleWorker", "0"}, {"SharedBuckets", "0"}}}},
                 nullptr, nullptr,
                 "BucketCount must be at least " + needed +
                     ", one buffer for each record producer and one for the writer; got " + cpus);
}

TEST(Configure, AFailedAllocationLeavesTheProfilerUnconfiguredAndSound) {
  for (const char* count : {"-1", "100000"}) {
    EXPECT_EQ(0, run_in_child([&] {
      clear_environment();
      setenv("ZVK_BUCKET_COUNT", count, 1);
      Zorv& zorv = Zorv::instance();
      CaptureStderr();
      const Status failed = zorv.configure({{"ZORV", {{"BucketSizeMB", "4095"}}}});
      EXPECT_EQ(failed.code_, error::INSUFFICIENT_RESOURCES);
      EXPECT_EQ(failed.msg_, "Couldn't allocate the buffer memory!");
      const Strings lines = log_messages(GetCapturedStderr());
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0].rfind("ERROR| Failed to allocate ", 0), 0u) << lines[0];
      EXPECT_FALSE(zorv.is_configured());
      zorv.annotate_end(zorv.annotate_begin(std::string("dropped")));
      zorv.annotate_marker(std::string("dropped too"));
      EXPECT_EQ(zorv.start_profiling().msg_,
                "Profiler is not configured. Call configure(...) first");
      // The second configure sees the settings the first one saw, not a shifted size.
      unsetenv("ZVK_BUCKET_COUNT");
      CaptureStderr();
      ASSERT_TRUE(zorv.configure({{"ZORV", {{"BucketCount", "2"}, {"BucketSizeMB", "1"}}}}).ok());
      GetCapturedStderr();
      EXPECT_EQ(ZorvTestPeer::bucket_size(zorv), 1u << 20);
    }));
  }
}

TEST(Configure, KelvaneFixesTheFileNameUnlessTheEnvironmentSaysOtherwise) {
  EXPECT_EQ(0, run_in_child([] {
    clear_environment();
    setenv("ZV_CURRENT_HOST", "algo-1", 1);
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    ASSERT_TRUE(zorv.configure(small_capture_config("mine")).ok());
    EXPECT_EQ(log_messages(GetCapturedStderr()),
              Strings{"WARNING| Setting output file in Kelvane environment is not allowed!"});
    EXPECT_EQ(zorv.file_pattern(), "/opt/kv/output/profiler/framework/zorvek_%h_%p_%t");
  }));
  EXPECT_EQ(0, run_in_child([] {
    clear_environment();
    setenv("ZV_CURRENT_HOST", "algo-1", 1);
    setenv("ZVK_OUTPUT_FILE_NAME", "env_%p", 1);
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    ASSERT_TRUE(zorv.configure(small_capture_config("mine")).ok());
    EXPECT_EQ(log_messages(GetCapturedStderr()),
              Strings{"WARNING| Setting output file in Kelvane environment is not allowed!"});
    EXPECT_EQ(zorv.file_pattern(), "env_%p");
  }));
  EXPECT_EQ(0, run_in_child([] {
    clear_environment();
    setenv("ZV_CURRENT_HOST", "algo-1", 1);
    setenv("ZVK_BUCKET_COUNT", "2", 1);
    setenv("ZVK_BUCKET_SIZE_MB", "1", 1);
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    ASSERT_TRUE(zorv.configure({}).ok());
    EXPECT_TRUE(log_messages(GetCapturedStderr()).empty());
    EXPECT_EQ(zorv.file_pattern(), "zorvek_%h_%p_%t");
  }));
}

// Configures from `config`, captures one marker and stops: the file's header then
// holds the compression the capture was configured with.
void capture_one_marker(const Sections& config) {
  Zorv& zorv = Zorv::instance();
  CaptureStderr();
  ASSERT_TRUE(zorv.configure(config).ok());
  ASSERT_TRUE(zorv.start_profiling().ok());
  zorv.annotate_marker(std::string("mark"));
  ASSERT_TRUE(zorv.stop_profiling().ok());
  GetCapturedStderr();
}

uint32_t compression_in_the_only_file(const TempDir& dir) {
  const Strings files = dir.list();
  EXPECT_EQ(files.size(), 1u);
  if (files.size() != 1) return 0;
  const auto file = read_capture(dir.file(files[0]));
  EXPECT_EQ(file.buckets.size(), 1u);
  return file.header()->compression;
}

TEST(Configure, CompressionKeyReachesTheFileHeader) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    clear_environment();
    Sections config = small_capture_config(dir.file("key_%t"));
    config["ZORV"]["Compression"] = "1000007";
    capture_one_marker(config);
  }));
  EXPECT_EQ(compression_in_the_only_file(dir), 1000007u);
}

TEST(Configure, CompressionFromTheEnvironmentReachesTheFileHeader) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    clear_environment();
    setenv("ZVK_BUCKET_COMPRESSION", "4", 1);
    capture_one_marker(small_capture_config(dir.file("env_%t")));
  }));
  EXPECT_EQ(compression_in_the_only_file(dir), 4u);
}

TEST(Configure, ForkFollowingFromTheEnvironmentAlone) {
  EXPECT_EQ(0, run_in_child([] {
    clear_environment();
    setenv("ZVK_ENABLE_FORK_FOLLOW", "1", 1);
    setenv("ZVK_BUCKET_COUNT", "2", 1);
    setenv("ZVK_BUCKET_SIZE_MB", "1", 1);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure({}).ok());
    EXPECT_TRUE(ZorvTestPeer::follows_forks(zorv));
  }));
  EXPECT_EQ(0, run_in_child([] {
    clear_environment();
    setenv("ZVK_ENABLE_FORK_FOLLOW", "1", 1);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config("follow")).ok());
    EXPECT_TRUE(ZorvTestPeer::follows_forks(zorv));
  }));
}

TEST(Configure, EnvironmentBeatsTheKeyBesideIt) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    clear_environment();
    setenv("ZVK_BUCKET_COUNT", "3", 1);
    setenv("ZVK_BUCKET_SIZE_MB", "2", 1);
    setenv("ZVK_BUCKET_COMPRESSION", "1000002", 1);
    setenv("ZVK_ENABLE_FORK_FOLLOW", "1", 1);
    setenv("ZVK_OUTPUT_FILE_NAME", dir.file("from_env_%t").c_str(), 1);
    Sections config = {{"ZORV",
                        {{"BucketCount", "5"},
                         {"BucketSizeMB", "1"},
                         {"Compression", "1000009"},
                         {"EnableForkFollow", "0"},
                         {"RecordFile", dir.file("from_key_%t")}}}};
    capture_one_marker(config);
    Zorv& zorv = Zorv::instance();
    EXPECT_EQ(ZorvTestPeer::bucket_count(zorv), 3u);
    EXPECT_EQ(ZorvTestPeer::bucket_size(zorv), 2u << 20);
    EXPECT_TRUE(ZorvTestPeer::follows_forks(zorv));
    EXPECT_EQ(zorv.file_pattern(), dir.file("from_env_%t"));
  }));
  const Strings files = dir.list();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].rfind("from_env_", 0), 0u) << files[0];
  EXPECT_EQ(compression_in_the_only_file(dir), 1000002u);
}

// A false from the environment wins over a true key; an empty variable leaves the
// key's value in place.
TEST(Configure, ForkFollowingFromTheEnvironmentOverridesTheKeyBothWays) {
  EXPECT_EQ(0, run_in_child([] {
    clear_environment();
    setenv("ZVK_ENABLE_FORK_FOLLOW", "0", 1);
    Sections config = small_capture_config("follow");
    config["ZORV"]["EnableForkFollow"] = "1";
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(config).ok());
    EXPECT_FALSE(ZorvTestPeer::follows_forks(zorv));
  }));
  EXPECT_EQ(0, run_in_child([] {
    clear_environment();
    setenv("ZVK_ENABLE_FORK_FOLLOW", "", 1);
    Sections config = small_capture_config("follow");
    config["ZORV"]["EnableForkFollow"] = "1";
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(config).ok());
    EXPECT_TRUE(ZorvTestPeer::follows_forks(zorv));
  }));
}

}  // namespace
}  // namespace zorvek
