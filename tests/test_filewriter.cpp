#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/test_support.h"
#include "tools/zvkfileheader.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkfilewriter.h"

namespace zorvek {

struct ZVKFileWriterTestPeer {
  static std::chrono::steady_clock::time_point& rotation_time(ZVKFileWriter& writer) {
    return writer.m_rotation_time;
  }
  static ZVKWriteFunction& write_function(ZVKFileWriter& writer) { return writer.m_write; }
};

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::contains;
using testing_support::log_messages;
using testing_support::read_capture;
using testing_support::run_in_child;
using testing_support::ScopedEnv;
using testing_support::TempDir;
using Strings = std::vector<std::string>;

bool exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

// A file the writer has begun: its header is in, and with it the mode it set first.
bool begun(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && info.st_size > 0;
}

// The writer's queues, and a way to hand it a buffer of records and wait until the
// writer thread has given the buffer back.
class Pipeline {
 public:
  Pipeline() : fill(4, 4096) {}

  void send(int records, uint64_t first_timestamp = 1) {
    ZVKBuffer* buffer = nullptr;
    fill.pop(&buffer);
    ASSERT_NE(buffer, nullptr);
    for (int i = 0; i < records; ++i) {
      ZVKRecord header{};
      header.timestamp = first_timestamp + i;
      header.event_type = make_event_word(ANNOTATION, 0, 3);
      std::memcpy(buffer->record_buffer + buffer->num_bytes, &header, sizeof(header));
      buffer->num_bytes += sizeof(header);
    }
    to_write.push(buffer);
    wait_until_returned();
  }

  // A buffer of records whose payloads are random, so that it doesn't compress.
  void send_incompressible(uint64_t timestamp) {
    ZVKBuffer* buffer = nullptr;
    fill.pop(&buffer);
    ASSERT_NE(buffer, nullptr);
    constexpr uint16_t kPayload = 1000;
    for (int i = 0; i < 4; ++i) {
      ZVKRecord header{};
      header.timestamp = timestamp;
      header.event_type = make_event_word(ANNOTATION, 0, 3);
      header.payload_size = kPayload;
      std::memcpy(buffer->record_buffer + buffer->num_bytes, &header, sizeof(header));
      for (uint16_t b = 0; b < kPayload; ++b) {
        buffer->record_buffer[buffer->num_bytes + sizeof(header) + b] = static_cast<char>(rand());
      }
      buffer->num_bytes += sizeof(header) + kPayload;
    }
    to_write.push(buffer);
    wait_until_returned();
  }

  void wait_until_returned() {
    for (int i = 0; i < 5000 && (fill.size() != 4 || to_write.size() != 0); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // The buffer is back before the rotation check of the same pass.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  ZVKQueue<ZVKBuffer> fill;
  ZVKQueue<ZVKBuffer> to_write;
};

// The writer checks its timer once per pass, and an idle pass lasts up to a second.
bool wait_for_files(const TempDir& dir, const Strings& expected) {
  for (int i = 0; i < 300; ++i) {
    if (dir.list() == expected) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

const JobMetadata kMetadata{"ml.p5", "", "rid-1"};

// Context switches of the threads not in `before` (a sanitizer's own threads are).
uint64_t new_threads_context_switches(const Strings& before) {
  uint64_t total = 0;
  for (const auto& task : testing_support::TempDir::list_of("/proc/self/task")) {
    if (std::find(before.begin(), before.end(), task) != before.end()) continue;
    std::istringstream status(testing_support::read_text_file("/proc/self/task/" + task + "/status"));
    std::string line;
    while (std::getline(status, line)) {
      if (line.find("ctxt_switches:") != std::string::npos) {
        total += std::stoull(line.substr(line.find(':') + 1));
      }
    }
  }
  return total;
}

TEST(FileWriter, PatternTokensFirstOccurrenceOnly) {
  ZVKFileWriter writer(nullptr, nullptr, JobMetadata{"", "h%p", ""}, 1000001);
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(writer.parse_file_pattern("a%pb%pc"), "a" + pid + "b%pc_0.zvkraw");
  EXPECT_EQ(writer.parse_file_pattern(""), "_0.zvkraw");
  EXPECT_EQ(writer.parse_file_pattern("%h"), "h%p_0.zvkraw");  // %p was done first
  const std::string timed = writer.parse_file_pattern("t%t");
  EXPECT_EQ(timed.size(), std::string("t_0.zvkraw").size() + 19);
}

TEST(FileWriter, EmptyHostNameBecomesUnknownHost) {
  ZVKFileWriter writer(nullptr, nullptr, kMetadata, 1000001);
  EXPECT_EQ(writer.parse_file_pattern("%h"), "Unknown_host_0.zvkraw");
}

TEST(FileWriter, RotationTimerIsNextWholeMinutePlusPeriod) {
  const uint64_t noon_30 = (12ULL * 3600 + 30) * 1000000000ULL;  // 12:00:30 UTC
  EXPECT_EQ(ZVKFileWriter::first_rotation_time_ns(noon_30, 60), (12ULL * 3600 + 120) * 1000000000ULL);
  EXPECT_EQ(ZVKFileWriter::first_rotation_time_ns(noon_30, 0), (12ULL * 3600 + 60) * 1000000000ULL);
}

TEST(FileWriter, RotationPeriodFromTheEnvironment) {
  ScopedEnv period("ZVK_FILE_ROTATION_DURATION_SECONDS", "7");
  EXPECT_EQ(ZVKFileWriter(nullptr, nullptr, kMetadata, 1).rotation_duration_s(), 7u);
  ScopedEnv empty("ZVK_FILE_ROTATION_DURATION_SECONDS", "");
  EXPECT_EQ(ZVKFileWriter(nullptr, nullptr, kMetadata, 1).rotation_duration_s(), 31536000u);
}

TEST(FileWriter, StopWithoutStart) {
  ZVKFileWriter writer(nullptr, nullptr, kMetadata, 1000001);
  Status status = writer.stop();
  EXPECT_EQ(status.code_, error::FAILED_PRECONDITION);
  EXPECT_EQ(status.msg_, "There is no recording ongoing to stop!");
}

// The rotation timer is set once per process: each scenario runs in a child.
TEST(FileWriter, HeaderOnlyWhileRunningAndNothingRecordedLeavesNoFile) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    ASSERT_TRUE(writer.start(dir.file("run_%p")).ok());
    const std::string name = writer.current_filename();
    EXPECT_EQ(name, dir.file("run_" + std::to_string(getpid()) + "_0.zvkraw"));
    auto file = read_capture(name);
    EXPECT_EQ(file.file_size, kZVKFileHeaderSize + get_header_payload_size(file.header()));
    EXPECT_EQ(get_hostname(file.header()), "Unknown_host");
    EXPECT_EQ(get_jobuid(file.header()), "rid-1");
    EXPECT_EQ(get_instance_type(file.header()), "ml.p5");
    EXPECT_EQ(file.header()->compression, 1000001u);
    EXPECT_EQ(file.header()->pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(file.header()->end_time, 0u);
    CaptureStderr();
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(writer.stop().ok());
    // The idle loop notices the flag within its 1 ms sleep, not after its 1 s round.
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(500));
    EXPECT_TRUE(log_messages(GetCapturedStderr()).empty());
    EXPECT_FALSE(exists(name));
  }));
}

TEST(FileWriter, BucketsReportAndFinalHeader) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000009);
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    pipe.send(3, 100);
    pipe.send(5, 10);
    CaptureStderr();
    pipe.send(0);  // an empty buffer circulates without a bucket
    Strings lines = log_messages(GetCapturedStderr());
    EXPECT_EQ(lines, Strings{"WARNING| Received empty bucket!"});
    EXPECT_EQ(pipe.fill.size(), 4u);
    CaptureStderr();
    ASSERT_TRUE(writer.stop().ok());
    lines = log_messages(GetCapturedStderr());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("INFO| Writer thread spin duration= ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find("us, number of buckets= 2, number of records= 8, total time= "),
              std::string::npos);
    EXPECT_NE(lines[0].find(", max uncompressed bucket size =128, max compressed bucket size= "),
              std::string::npos);
    EXPECT_NE(lines[0].find(" MB/s,  average uncompressed bandwidth= "), std::string::npos);
    EXPECT_NE(lines[0].find(" MB/s. Last file rotation id= 0"), std::string::npos);

    auto file = read_capture(dir.file("run_0.zvkraw"));
    EXPECT_EQ(file.header()->num_buckets, 2u);
    EXPECT_EQ(file.header()->compression, 1000009u);
    EXPECT_EQ(file.header()->max_uncompressed_size, 5u * 24 + 8);
    ASSERT_EQ(file.buckets.size(), 2u);
    EXPECT_EQ(file.header()->max_bucket_size,
              std::max(file.buckets[0].compressed_size, file.buckets[1].compressed_size));
    EXPECT_GE(file.header()->end_time, file.header()->start_time);
    EXPECT_EQ(file.buckets[0].tmin, 100u);
    EXPECT_EQ(file.buckets[0].tmax, 102u);
    EXPECT_EQ(file.buckets[1].number_of_records, 5u);
  }));
}

TEST(FileWriter, SuspendAndResumeAppendToTheSameFile) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    pipe.send(2, 1);
    CaptureStderr();
    ASSERT_TRUE(writer.suspend().ok());
    EXPECT_FALSE(writer.is_running());
    ASSERT_TRUE(writer.resume().ok());
    pipe.send(3, 50);
    ASSERT_TRUE(writer.suspend().ok());
    ASSERT_TRUE(writer.resume().ok());
    pipe.send(1, 90);
    ASSERT_TRUE(writer.stop().ok());
    GetCapturedStderr();
    EXPECT_EQ(dir.list(), Strings{"run_0.zvkraw"});
    auto file = read_capture(dir.file("run_0.zvkraw"));
    EXPECT_EQ(file.header()->num_buckets, 3u);
    ASSERT_EQ(file.buckets.size(), 3u);
    EXPECT_EQ(file.buckets[1].tmin, 50u);
    EXPECT_EQ(file.buckets[2].tmin, 90u);
  }));
}

TEST(FileWriter, ResumeAfterAnEmptySuspendStartsTheFileAnew) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    CaptureStderr();
    ASSERT_TRUE(writer.suspend().ok());
    EXPECT_FALSE(exists(dir.file("run_0.zvkraw")));  // unlinked: no buckets
    ASSERT_TRUE(writer.resume().ok());
    pipe.send(1, 5);
    ASSERT_TRUE(writer.stop().ok());
    GetCapturedStderr();
    EXPECT_EQ(read_capture(dir.file("run_0.zvkraw")).header()->num_buckets, 1u);
  }));
}

TEST(FileWriter, StartWhileRunningStopsTheThreadAndKeepsTheEarlierFile) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    pipe.send(2);
    CaptureStderr();
    EXPECT_TRUE(writer.start(dir.file("run")).ok());
    const Strings lines = log_messages(GetCapturedStderr());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "ERROR| [DEPRECATED][TODO] Should never be called!");
    EXPECT_TRUE(writer.is_running());
    // The same pattern names the same file: the new capture takes the next number.
    EXPECT_EQ(writer.current_filename(), dir.file("run_1.zvkraw"));
    EXPECT_EQ(read_capture(dir.file("run_0.zvkraw")).buckets.size(), 1u);
    pipe.send(3);
    CaptureStderr();
    writer.stop();
    GetCapturedStderr();
    EXPECT_EQ(read_capture(dir.file("run_1.zvkraw")).buckets.at(0).number_of_records, 3u);
  }));
}

TEST(FileWriter, CapturesWithTheSameNameNeverOverwriteEachOther) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    CaptureStderr();
    for (int capture = 1; capture <= 3; ++capture) {
      ASSERT_TRUE(writer.start(dir.file("run")).ok());
      pipe.send(capture);
      ASSERT_TRUE(writer.stop().ok());
    }
    // A file that is not ours holds the next number: it is skipped, not truncated.
    { std::ofstream(dir.file("run_3.zvkraw")) << "someone else's"; }
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    pipe.send(4);
    ASSERT_TRUE(writer.stop().ok());
    GetCapturedStderr();
    EXPECT_EQ(dir.list(), (Strings{"run_0.zvkraw", "run_1.zvkraw", "run_2.zvkraw", "run_3.zvkraw",
                                   "run_4.zvkraw"}));
    for (int capture = 1; capture <= 4; ++capture) {
      const int number = capture == 4 ? 4 : capture - 1;
      auto file = read_capture(dir.file("run_" + std::to_string(number) + ".zvkraw"));
      EXPECT_EQ(file.buckets.at(0).number_of_records, static_cast<uint64_t>(capture));
    }
    EXPECT_EQ(testing_support::read_text_file(dir.file("run_3.zvkraw")), "someone else's");
  }));
}

// A writer made after another one joins the process's timetable: it is not due
// at once, and doesn't log a rotation for each period since the epoch.
TEST(FileWriter, ALaterWriterKeepsTheProcesssTimetable) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    Pipeline pipe;
    CaptureStderr();
    {
      ZVKFileWriter first(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
      ASSERT_TRUE(first.start(dir.file("first")).ok());
      first.stop();
    }
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    pipe.send(2);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    pipe.send(2);
    ASSERT_TRUE(writer.stop().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    for (const auto& line : lines) EXPECT_EQ(line.find("rotation is up"), std::string::npos) << line;
    EXPECT_EQ(dir.list(), Strings{"run_0.zvkraw"});
    EXPECT_EQ(read_capture(dir.file("run_0.zvkraw")).buckets.size(), 2u);
  }));
}

TEST(FileWriter, OpenFailureIsReported) {
  EXPECT_EQ(0, run_in_child([] {
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    CaptureStderr();
    Status status = writer.start("/nonexistent-dir/run");
    EXPECT_EQ(log_messages(GetCapturedStderr()),
              Strings{"ERROR| Failed to open file /nonexistent-dir/run_0.zvkraw error was No such "
                      "file or directory"});
    EXPECT_EQ(status.code_, error::FAILURE);
    EXPECT_EQ(status.msg_, "Failed to open file No such file or directory");
  }));
}

// With a period of 0 the timer is due at every check: the writer rotates after
// every pass with a bucket. The timer is put in the past to begin with.
TEST(FileWriter, RotationOnKelvaneRenamesFinishedFiles) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    setenv("ZV_CURRENT_HOST", "algo-1", 1);
    setenv("ZVK_FILE_ROTATION_DURATION_SECONDS", "0", 1);
    Pipeline pipe;
    CaptureStderr();
    {
      ZVKFileWriter first(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
      ASSERT_TRUE(first.start(dir.file("first")).ok());
      first.stop();
    }
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    ZVKFileWriterTestPeer::rotation_time(writer) = std::chrono::steady_clock::now();
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    EXPECT_TRUE(exists(dir.file("run_0.zvkraw.tmp")));
    pipe.send(2, 1);
    ASSERT_TRUE(wait_for_files(dir, {"run_0.zvkraw", "run_1.zvkraw.tmp"}));
    // A whole idle pass with no buckets: the timer moves on, no file is made.
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(dir.list(), (Strings{"run_0.zvkraw", "run_1.zvkraw.tmp"}));
    pipe.send(3, 10);
    ASSERT_TRUE(wait_for_files(dir, {"run_0.zvkraw", "run_1.zvkraw", "run_2.zvkraw.tmp"}));
    ASSERT_TRUE(writer.stop().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    EXPECT_TRUE(contains(lines, "INFO| Rename " + dir.file("run_0.zvkraw.tmp") + " to " +
                                    dir.file("run_0.zvkraw")));
    // The last file never got a bucket: it was unlinked, so the rename at stop fails.
    EXPECT_TRUE(contains(lines, "ERROR| Can't rename " + dir.file("run_2.zvkraw.tmp") + " to " +
                                    dir.file("run_2.zvkraw")));
    // The empty first capture was unlinked too: its rename failed the same way.
    EXPECT_TRUE(contains(lines, "ERROR| Can't rename " + dir.file("first_0.zvkraw.tmp") + " to " +
                                    dir.file("first_0.zvkraw")));
    EXPECT_EQ(dir.list(), (Strings{"run_0.zvkraw", "run_1.zvkraw"}));
    EXPECT_EQ(read_capture(dir.file("run_0.zvkraw")).header()->num_buckets, 1u);
    auto second = read_capture(dir.file("run_1.zvkraw"));
    EXPECT_EQ(second.header()->num_buckets, 1u);
    EXPECT_EQ(second.buckets.at(0).tmin, 10u);
    bool rotation_logged = false;
    for (const auto& line : lines) {
      rotation_logged |= line.find(" - rotation is upnum_buckets=1num_total_records2") !=
                         std::string::npos;
    }
    EXPECT_TRUE(rotation_logged);
  }));
}

TEST(FileWriter, KelvaneStopRenamesTheFinishedFile) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    setenv("ZV_CURRENT_HOST", "algo-1", 1);
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    pipe.send(1);
    CaptureStderr();
    ASSERT_TRUE(writer.suspend().ok());
    EXPECT_EQ(dir.list(), Strings{"run_0.zvkraw.tmp"});  // a suspend keeps ".tmp"
    ASSERT_TRUE(writer.resume().ok());
    ASSERT_TRUE(writer.stop().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    EXPECT_TRUE(contains(lines, "INFO| Rename " + dir.file("run_0.zvkraw.tmp") + " to " +
                                    dir.file("run_0.zvkraw")));
    EXPECT_EQ(dir.list(), Strings{"run_0.zvkraw"});
  }));
}

// A file size limit mid-capture (as a full disk would): the process survives, the
// first failure is logged, the torn bucket is cut away, and what is written once
// there is room again follows the last whole bucket.
TEST(FileWriter, AFileSizeLimitLosesBucketsButNotTheFile) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    CaptureStderr();
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small = {10000, limit.rlim_max};  // two buckets of about 4 KiB fit
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    for (uint64_t t = 1; t <= 5; ++t) pipe.send_incompressible(t);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    pipe.send_incompressible(6);
    pipe.send_incompressible(7);
    ASSERT_TRUE(writer.stop().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    int failures = 0;
    for (const auto& line : lines) failures += line.rfind("ERROR| Failed to write to file! ", 0) == 0;
    EXPECT_EQ(failures, 1);  // the first failure of the run, not one per bucket
    EXPECT_TRUE(contains(lines, "WARNING| Writing to the file works again; 3 buckets with 12 "
                                "records were lost"));
    const auto file = read_capture(dir.file("run_0.zvkraw"));
    EXPECT_FALSE(file.torn);
    ASSERT_EQ(file.buckets.size(), 4u);
    EXPECT_EQ(file.header()->num_buckets, 4u);  // only what is there
    const uint64_t kept[] = {1, 2, 6, 7};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(file.buckets[i].tmin, kept[i]);
  }));
}

// A writer that rotates after every pass with a bucket (a period of 0, the timer in
// the past), into a folder the test can take away from under it.
struct RotatingWriter {
  explicit RotatingWriter(const std::string& folder_path)
      : folder(folder_path),
        made_folder(mkdir(folder.c_str(), 0775) == 0),
        period("ZVK_FILE_ROTATION_DURATION_SECONDS", "0"),
        writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001) {
    EXPECT_TRUE(made_folder);
    ZVKFileWriterTestPeer::rotation_time(writer) = std::chrono::steady_clock::now();
  }
  void remove_folder() { EXPECT_EQ(system(("rm -rf '" + folder + "'").c_str()), 0); }

  const std::string folder;
  const bool made_folder;
  ScopedEnv period;
  Pipeline pipe;
  ZVKFileWriter writer;
};

// A rotation whose new file can't be opened: the writer drops buffers, says so,
// tries again at the next bucket, and a stop leaves it able to start again.
TEST(FileWriter, ARotationThatCantOpenItsFileIsRetriedAtTheNextBucket) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    const std::string folder = dir.file("out");
    RotatingWriter rotating(folder);
    Pipeline& pipe = rotating.pipe;
    ZVKFileWriter& writer = rotating.writer;
    CaptureStderr();
    ASSERT_TRUE(writer.start(folder + "/run").ok());
    rotating.remove_folder();
    pipe.send(1, 1);   // written to the unlinked file
    pipe.send(2, 10);  // the same, and the rotation after it fails
    pipe.send(3, 20);  // no file: dropped
    ASSERT_EQ(mkdir(folder.c_str(), 0775), 0);
    pipe.send(4, 30);
    ASSERT_TRUE(writer.stop().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    EXPECT_TRUE(contains(lines, "ERROR| Failed to open file " + folder +
                                    "/run_1.zvkraw error was No such file or directory"));
    bool reopened = false;
    std::string log;
    for (const auto& line : lines) {
      log += line + "\n";
      reopened |= line.rfind("WARNING| Opened " + folder + "/run_", 0) == 0 &&
                  line.find(" after 1 buffers with 72 bytes of records were dropped for want of a "
                            "file") != std::string::npos;
    }
    EXPECT_TRUE(reopened) << log;
    const Strings files = testing_support::TempDir::list_of(folder);
    ASSERT_FALSE(files.empty());
    EXPECT_EQ(read_capture(folder + "/" + files[0]).buckets.at(0).tmin, 30u);
    ASSERT_TRUE(writer.start(folder + "/again").ok());
    ASSERT_TRUE(writer.stop().ok());
  }));
}

TEST(FileWriter, AStopWithNoFileOpenStillEndsTheCapture) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    const std::string folder = dir.file("out");
    RotatingWriter rotating(folder);
    Pipeline& pipe = rotating.pipe;
    ZVKFileWriter& writer = rotating.writer;
    CaptureStderr();
    ASSERT_TRUE(writer.start(folder + "/run").ok());
    rotating.remove_folder();
    pipe.send(1);
    const Status stopped = writer.stop();
    EXPECT_EQ(stopped.msg_, "No file is Open");
    EXPECT_FALSE(writer.is_running());
    EXPECT_TRUE(writer.start(dir.file("again")).ok());
    pipe.send(2);
    EXPECT_TRUE(writer.stop().ok());
    GetCapturedStderr();
    EXPECT_EQ(read_capture(dir.file("again_1.zvkraw")).buckets.size(), 1u);
  }));
}

// An idle capture costs next to nothing: the writer sleeps until there is work.
TEST(FileWriter, AnIdleWriterWakesOnlyForItsFlushes) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    CaptureStderr();
    const Strings threads = testing_support::TempDir::list_of("/proc/self/task");
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    pipe.send(1);
    const uint64_t before = new_threads_context_switches(threads);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const uint64_t wakeups = new_threads_context_switches(threads) - before;
    EXPECT_LE(wakeups, 100u);  // a flush check a second (more under a sanitizer); polling made thousands
    // ...and still answers a stop at once.
    const auto stop_start = std::chrono::steady_clock::now();
    ASSERT_TRUE(writer.stop().ok());
    EXPECT_LT(std::chrono::steady_clock::now() - stop_start, std::chrono::milliseconds(200));
    GetCapturedStderr();
  }));
}

mode_t file_mode(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return 0;
  return info.st_mode & 07777;
}

// Starts a capture under `mask`, sends a bucket and stops, checking the mode of
// every file on the way: the one being written (".tmp" on Kelvane), the one that
// a rotation begins when `rotate`, and the finished one.
void expect_file_modes(bool kelvane, mode_t mask, bool share, bool rotate) {
  EXPECT_EQ(0, run_in_child([&] {
    TempDir dir;
    if (kelvane) setenv("ZV_CURRENT_HOST", "algo-1", 1);
    if (rotate) setenv("ZVK_FILE_ROTATION_DURATION_SECONDS", "0", 1);
    umask(mask);
    const mode_t expected = share ? 0644 : 0600;
    const std::string suffix = kelvane ? ".tmp" : "";
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001,
                         ZVKFileWriter::kDefaultFlushIntervalMs, share);
    if (rotate) ZVKFileWriterTestPeer::rotation_time(writer) = std::chrono::steady_clock::now();
    CaptureStderr();
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    EXPECT_EQ(file_mode(dir.file("run_0.zvkraw" + suffix)), expected);
    pipe.send(1);
    if (rotate) {
      for (int i = 0; i < 5000 && !begun(dir.file("run_1.zvkraw" + suffix)); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      EXPECT_EQ(file_mode(dir.file("run_1.zvkraw" + suffix)), expected);
      pipe.send(1);
    }
    ASSERT_TRUE(writer.stop().ok());
    GetCapturedStderr();
    EXPECT_EQ(file_mode(dir.file("run_0.zvkraw")), expected);
  })) << "kelvane " << kelvane << ", umask " << std::oct << mask << ", share " << share;
}

// Capture files are the owner's alone whatever the umask, and readable by all when
// sharing is asked for.
TEST(FileWriter, CaptureFilesArePrivateWhateverTheUmask) {
  expect_file_modes(false, 0000, false, false);
  expect_file_modes(false, 0022, false, false);
  expect_file_modes(true, 0000, false, true);
}

TEST(FileWriter, SharedCaptureFilesAreReadableByAll) {
  expect_file_modes(false, 0000, true, false);
  expect_file_modes(false, 0022, true, false);
  expect_file_modes(false, 0077, true, false);
  expect_file_modes(true, 0022, true, true);
}

// A capture that can't write its first header (a full disk, here a file size
// limit of 10 bytes) fails to start and leaves no file, under either name.
TEST(FileWriter, ACaptureThatCouldNotStartLeavesNoFile) {
  for (const bool kelvane : {false, true}) {
    EXPECT_EQ(0, run_in_child([&] {
      TempDir dir;
      if (kelvane) setenv("ZV_CURRENT_HOST", "algo-1", 1);
      signal(SIGXFSZ, SIG_IGN);  // the write fails with EFBIG instead
      Pipeline pipe;
      ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
      rlimit limit;
      ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
      const rlimit tiny = {10, limit.rlim_max};
      ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tiny), 0);
      CaptureStderr();
      const Status status = writer.start(dir.file("run"));
      GetCapturedStderr();
      EXPECT_EQ(status.code_, error::FAILURE);
      EXPECT_EQ(status.msg_, "Couldn't write the header!");
      EXPECT_FALSE(writer.is_running());
      EXPECT_EQ(dir.list(), Strings{});
      // Room again: the same writer starts.
      ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
      CaptureStderr();
      ASSERT_TRUE(writer.start(dir.file("run")).ok());
      pipe.send(1);
      ASSERT_TRUE(writer.stop().ok());
      GetCapturedStderr();
      EXPECT_EQ(read_capture(dir.file("run_0.zvkraw")).buckets.size(), 1u);
    }));
  }
}

// A disk that stops answering: write() doesn't return until the test lets it.
std::atomic<bool> g_disk_hangs{false};
std::atomic<bool> g_writer_hung{false};

ssize_t hanging_write(int fd, const void* data, size_t size) {
  while (g_disk_hangs) {
    g_writer_hung = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return write(fd, data, size);
}

size_t count_records(const std::string& path) {
  size_t records = 0;
  for (const auto& bucket : read_capture(path).buckets) records += bucket.records.size();
  return records;
}

// Producers on a writer stuck in write(): each waits a bounded while for a buffer,
// then their records are dropped and counted, and the writer tells the loss once
// its disk answers again.
TEST(FileWriter, AWriterOnAHungDiskNeverHoldsAProducerForEver) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    ZVKFileWriterTestPeer::write_function(writer) = &hanging_write;
    CaptureStderr();
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    g_disk_hangs = true;
    auto helper = std::make_unique<ZVKBufferRecordHelper>(&pipe.fill, &pipe.to_write);
    constexpr int kThreads = 2;
    constexpr int kPerThread = 100;  // 128-byte records, 31 to a buffer: far more than fit
    std::atomic<int> done{0};
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
      producers.emplace_back([&, t] {
        for (int i = 0; i < kPerThread; ++i) {
          auto record = helper->new_record(static_cast<uint64_t>(t * kPerThread + i),
                                           make_event_word(ANNOTATION, 0, 3), 1, 2, 0, 104);
          std::memset(record.get_payload_store(), 0, 104);
        }
        ++done;
      });
    }
    for (int i = 0; i < 60000 && done.load() < kThreads; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const bool all_done = done.load() == kThreads;
    const bool still_hung = g_disk_hangs && g_writer_hung;
    g_disk_hangs = false;  // the disk answers again
    for (auto& producer : producers) producer.join();
    EXPECT_TRUE(all_done);
    EXPECT_TRUE(still_hung);  // they got through while the writer was stuck
    helper.reset();
    ASSERT_TRUE(writer.stop().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    EXPECT_TRUE(contains(lines, "WARNING| No buffer came free in 5 s: the writer is stuck or far "
                                "behind, records are dropped until it frees a buffer"));
    const size_t kept = count_records(dir.file("run_0.zvkraw"));
    EXPECT_LT(kept, static_cast<size_t>(kThreads * kPerThread));
    EXPECT_TRUE(contains(lines, "WARNING| " + std::to_string(kThreads * kPerThread - kept) +
                                    " records were dropped: no buffer came free within 5 s while "
                                    "the writer was behind"))
        << ::testing::PrintToString(lines);
  }));
}

// The pipeline's system clock, moved by an offset the test steps; the steady
// clock stays the real one.
std::atomic<int64_t> g_system_shift_ns{0};

std::chrono::system_clock::time_point shifted_system() {
  return std::chrono::system_clock::now() + std::chrono::nanoseconds(g_system_shift_ns.load());
}

// Set before the writer's thread starts; the test runs in a child of its own.
void use_shifted_system_clock(int64_t shift_ns) {
  g_system_shift_ns = shift_ns;
  ZVKPipelineClock::system_now = &shifted_system;
}

constexpr int64_t kDayNs = 86400LL * 1000000000LL;

// The system clock steps back a day after the rotation timer was set: the
// rotation still comes when it was due.
TEST(FileWriter, AStepOfTheSystemClockDoesntHoldTheRotationBack) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    setenv("ZVK_FILE_ROTATION_DURATION_SECONDS", "1", 1);
    // The wall clock at second 59 of a minute: the first rotation is due 2 s later.
    const int64_t real_ns = static_cast<int64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::system_clock::now().time_since_epoch())
            .count());
    const int64_t minute_ns = 60LL * 1000000000LL;
    use_shifted_system_clock(real_ns / minute_ns * minute_ns + 59LL * 1000000000LL - real_ns);
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001);
    CaptureStderr();
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    g_system_shift_ns -= kDayNs;
    pipe.send(1);
    bool rotated = false;
    for (int i = 0; i < 30000 && !rotated; ++i) {
      rotated = dir.list() == Strings{"run_0.zvkraw", "run_1.zvkraw"};
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(rotated) << ::testing::PrintToString(dir.list());
    ASSERT_TRUE(writer.stop().ok());
    GetCapturedStderr();
    EXPECT_EQ(read_capture(dir.file("run_0.zvkraw")).buckets.size(), 1u);
  }));
}

// ...nor the periodic flush that brings a quiet producer's records to the file.
TEST(FileWriter, AStepOfTheSystemClockDoesntStopThePeriodicFlush) {
  EXPECT_EQ(0, run_in_child([] {
    TempDir dir;
    use_shifted_system_clock(0);
    Pipeline pipe;
    ZVKFileWriter writer(&pipe.fill, &pipe.to_write, kMetadata, 1000001, 50);
    CaptureStderr();
    ASSERT_TRUE(writer.start(dir.file("run")).ok());
    const std::string name = writer.current_filename();
    const off_t header_only = static_cast<off_t>(read_capture(name).file_size);
    g_system_shift_ns -= kDayNs;
    auto helper = std::make_unique<ZVKBufferRecordHelper>(&pipe.fill, &pipe.to_write);
    helper->new_record(7, make_event_word(ANNOTATION, 0, 3), 1, 2, 0, 0);
    bool flushed = false;
    for (int i = 0; i < 30000 && !flushed; ++i) {
      struct stat info;
      flushed = stat(name.c_str(), &info) == 0 && info.st_size > header_only;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(flushed);
    helper.reset();
    ASSERT_TRUE(writer.stop().ok());
    GetCapturedStderr();
    EXPECT_EQ(read_capture(name).buckets.at(0).tmin, 7u);
  }));
}

}  // namespace
}  // namespace zorvek
