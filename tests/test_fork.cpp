// Fork following with real forks: the controller's fork handlers, the locks held
// across a fork, and a capture that forks at any moment while threads annotate.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/test_support.h"
#include "zorv/utils/identity.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/zorv.h"
#include "zorv/zvkannotator.h"
#include "zorv/zvkregistry.h"

namespace zorvek {

struct ZorvTestPeer {
  static ZVKDataCollectorBase*& cuda(Zorv& zorv) { return zorv.m_cuda_collector; }
};

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::DecodedFile;
using testing_support::log_messages;
using testing_support::read_capture;
using testing_support::run_in_child;
using testing_support::TempDir;
using Strings = std::vector<std::string>;
using Sections = std::map<std::string, ZVKConfigSection>;

Sections capture_config(const std::string& pattern, bool follow) {
  return {{"ZORV",
           {{"BucketCount", "4"},
            {"BucketSizeMB", "1"},
            {"RecordFile", pattern},
            {"EnableForkFollow", follow ? "1" : "0"}}}};
}

void clear_environment() {
  for (const char* name : {"ZV_CURRENT_HOST", "ZVK_OUTPUT_FILE_NAME", "ZVK_BUCKET_COUNT",
                           "ZVK_BUCKET_SIZE_MB", "ZVK_ENABLE_FORK_FOLLOW", "ZVK_BUCKET_COMPRESSION",
                           "ZVK_FLUSH_INTERVAL_MS"}) {
    unsetenv(name);
  }
}

// This fresh process's profiler, configured and capturing, with stderr captured.
Zorv& start_capture(const Sections& config) {
  clear_environment();
  Zorv& zorv = Zorv::instance();
  CaptureStderr();
  EXPECT_TRUE(zorv.configure(config).ok());
  EXPECT_TRUE(zorv.start_profiling().ok());
  return zorv;
}

// The first file of process `pid` under the pattern "cap_%p".
std::string capture_of(const TempDir& dir, pid_t pid) {
  return dir.file("cap_" + std::to_string(pid) + "_0.zvkraw");
}

// Forks; the child runs `body` under a watchdog (a hang fails, it doesn't stall the
// suite) and ends with _exit, as multiprocessing's workers do. Returns the child's
// pid and its exit status.
std::pair<pid_t, int> fork_and_wait(const std::function<int()>& body) {
  fflush(stdout);
  fflush(stderr);
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return {child, WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)};
}

// What `body` writes to stderr, read back through a file: works in a forked child,
// where the parent's capture of stderr can't be shared.
std::string stderr_of(const std::function<void()>& body) {
  fflush(stderr);
  FILE* sink = tmpfile();
  const int saved = dup(2);
  dup2(fileno(sink), 2);
  body();
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  std::string text;
  rewind(sink);
  char block[4096];
  for (size_t got; (got = fread(block, 1, sizeof(block), sink)) != 0;) text.append(block, got);
  fclose(sink);
  return text;
}

// The messages of a capture's BEGIN records, in file order.
Strings begin_messages(const DecodedFile& file) {
  Strings messages;
  for (const auto& bucket : file.buckets) {
    for (const auto& record : bucket.records) {
      if (record.event_type == 0) messages.emplace_back(record.payload.c_str() + 8);
    }
  }
  return messages;
}

// The BEGIN messages of the first file of process `pid`.
Strings messages_of(const TempDir& dir, pid_t pid) {
  return begin_messages(read_capture(capture_of(dir, pid)));
}

void annotate_pair(Zorv& zorv, const char* message) {
  zorv.annotate_end(zorv.annotate_begin(std::string(message)));
}

bool has(const Strings& items, const std::string& item) {
  return std::find(items.begin(), items.end(), item) != items.end();
}

// A GPU collector's stand-in: remembers the ids its resume saw.
class IdentityRecorder : public ZVKDataCollectorBase {
 public:
  IdentityRecorder() : ZVKDataCollectorBase("Recorder", nullptr, nullptr) {}
  Status start_profiling() override { return Status::OK(); }
  Status stop_profiling() override { return Status::OK(); }
  Status suspend_profiling() override { return Status::OK(); }
  Status resume_profiling() override {
    resumed_pid = current_identity().pid;
    return Status::OK();
  }
  Status configure(const std::map<std::string, std::string>&) override { return Status::OK(); }
  pid_t resumed_pid = 0;
};

TEST(Fork, FollowingOnGivesTheChildAFileOfItsOwnAndTheParentKeepsItsFile) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    clear_environment();
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    ASSERT_TRUE(zorv.configure(capture_config(dir.file("cap_%p"), true)).ok());
    auto* recorder = new IdentityRecorder();
    ZorvTestPeer::cuda(zorv) = recorder;
    ASSERT_TRUE(zorv.start_profiling().ok());
    annotate_pair(zorv, "before");
    const auto [child, status] = fork_and_wait([&] {
      // The child handler saw the child's ids, and a new capture began.
      if (recorder->resumed_pid != getpid()) return 2;
      if (!zorv.is_active() || fork_suspend) return 3;
      annotate_pair(zorv, "in child");
      return zorv.stop_profiling().ok() ? 0 : 4;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(recorder->resumed_pid, getpid());  // the parent resumed too
    EXPECT_TRUE(zorv.is_active());
    EXPECT_FALSE(fork_suspend);
    annotate_pair(zorv, "after");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    const Strings parent = messages_of(dir, getpid());
    EXPECT_TRUE(has(parent, "before"));
    EXPECT_TRUE(has(parent, "after"));
    EXPECT_FALSE(has(parent, "in child"));
    EXPECT_TRUE(has(messages_of(dir, child), "in child"));
    EXPECT_EQ(dir.list().size(), 2u);
  }, true));
}

TEST(Fork, FollowingOffLeavesTheChildIdleAndItsAnnotationsNeverBlock) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    Zorv& zorv = start_capture(capture_config(dir.file("cap_%p"), false));
    GetCapturedStderr();
    const auto [child, status] = fork_and_wait([&] {
      if (zorv.is_active()) return 2;
      // Four buffers of 1 MiB hold about 58 000 pairs of 72 bytes: no writer frees
      // them here.
      for (int i = 0; i < 100000; ++i) annotate_pair(zorv, "work");
      // The child can start a capture of its own, which reports what was dropped.
      const Strings lines = log_messages(stderr_of([&] { zorv.start_profiling(); }));
      bool reported = false;
      for (const auto& line : lines) {
        reported |= line.rfind("WARNING| ", 0) == 0 &&
                    line.find(" records were dropped: all buffers were full and no capture was "
                              "running to write them") != std::string::npos;
      }
      if (!reported) return 4;
      return zorv.stop_profiling().ok() ? 0 : 5;
    });
    CaptureStderr();
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(zorv.is_active());
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    EXPECT_TRUE(has(dir.list(), "cap_" + std::to_string(getpid()) + "_0.zvkraw"));
  }, true));
}

TEST(Fork, ASecondForkInAChildBehavesAsTheFirst) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    Zorv& zorv = start_capture(capture_config(dir.file("cap_%p"), true));
    pid_t grandchild = 0;
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    const auto [child, status] = fork_and_wait([&] {
      const auto [inner, inner_status] = fork_and_wait([&] {
        annotate_pair(zorv, "grandchild");
        return zorv.is_active() && zorv.stop_profiling().ok() ? 0 : 2;
      });
      if (write(pipe_fds[1], &inner, sizeof(inner)) != sizeof(inner)) return 5;
      annotate_pair(zorv, "child");
      return inner_status == 0 && zorv.stop_profiling().ok() ? 0 : 3;
    });
    EXPECT_EQ(status, 0);
    ASSERT_EQ(read(pipe_fds[0], &grandchild, sizeof(grandchild)),
              static_cast<ssize_t>(sizeof(grandchild)));
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    EXPECT_TRUE(has(messages_of(dir, child), "child"));
    const Strings inner = messages_of(dir, grandchild);
    EXPECT_TRUE(has(inner, "grandchild"));
    EXPECT_FALSE(has(inner, "child"));
  }, true));
}

TEST(Fork, StopInAChildClosesTheChildsFileOnly) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    Zorv& zorv = start_capture(capture_config(dir.file("cap_%p"), true));
    annotate_pair(zorv, "parent before");
    const auto [child, status] = fork_and_wait([&] {
      annotate_pair(zorv, "child");
      if (!zorv.stop_profiling().ok()) return 2;
      // Stopped: a second stop is refused, and the child can start again.
      if (zorv.stop_profiling().msg_ != "Profiling not running") return 3;
      return 0;
    });
    EXPECT_EQ(status, 0);
    // The parent's capture runs on and takes more records.
    EXPECT_TRUE(zorv.is_active());
    annotate_pair(zorv, "parent after");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    const Strings parent = messages_of(dir, getpid());
    EXPECT_TRUE(has(parent, "parent before"));
    EXPECT_TRUE(has(parent, "parent after"));
    const DecodedFile child_file = read_capture(capture_of(dir, child));
    EXPECT_EQ(child_file.header()->pid, static_cast<uint32_t>(child));
    EXPECT_TRUE(has(begin_messages(child_file), "child"));
  }, true));
}

TEST(Fork, AForkWhileTheUserHasSuspendedChangesNothing) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    Zorv& zorv = start_capture(capture_config(dir.file("cap_%p"), true));
    annotate_pair(zorv, "before");
    ASSERT_TRUE(zorv.suspend_profiling().ok());
    const Strings before = dir.list();
    const auto [child, status] = fork_and_wait([&] {
      if (zorv.is_active() || !dir.list().empty()) return 2;
      if (!zorv.resume_profiling().ok()) return 3;
      annotate_pair(zorv, "child");
      return zorv.stop_profiling().ok() ? 0 : 4;
    });
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(zorv.is_active());
    ASSERT_TRUE(zorv.resume_profiling().ok());
    annotate_pair(zorv, "parent");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    // The suspend had no bucket to write, so no file was left to fork over. The
    // child resumed in a file of its own, named through its pid; the parent's
    // records stayed in the parent's.
    EXPECT_TRUE(before.empty());
    const Strings parent = messages_of(dir, getpid());
    EXPECT_TRUE(has(parent, "before"));
    EXPECT_TRUE(has(parent, "parent"));
    EXPECT_FALSE(has(parent, "child"));
    EXPECT_TRUE(has(messages_of(dir, child), "child"));
  }, true));
}

// The same with a file on disk at the fork: the child must not append to it.
TEST(Fork, AChildResumingAnInheritedSuspendedFileWritesItsOwn) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    Zorv& zorv = start_capture(capture_config(dir.file("cap"), true));
    annotate_pair(zorv, "before");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    ASSERT_TRUE(zorv.start_profiling().ok());
    annotate_pair(zorv, "second");
    ASSERT_TRUE(zorv.suspend_profiling().ok());
    const auto [child, status] = fork_and_wait([&] {
      if (!zorv.resume_profiling().ok()) return 3;
      annotate_pair(zorv, "child");
      return zorv.stop_profiling().ok() ? 0 : 4;
    });
    EXPECT_EQ(status, 0);
    ASSERT_TRUE(zorv.resume_profiling().ok());
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    // No %p in the pattern: the child's file took the next free number.
    const Strings files = dir.list();
    ASSERT_EQ(files.size(), 3u);
    for (const auto& name : files) {
      const DecodedFile file = read_capture(dir.file(name));
      EXPECT_FALSE(file.torn) << name;
      EXPECT_EQ(file.header()->num_buckets, file.buckets.size()) << name;
      const Strings messages = begin_messages(file);
      EXPECT_EQ(has(messages, "child"), file.header()->pid == static_cast<uint32_t>(child)) << name;
    }
  }, true));
}

TEST(Fork, TheParentsFileKeepsItsNameAndTmpStateOverTheFork) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    clear_environment();
    setenv("ZV_CURRENT_HOST", "algo-1", 1);
    setenv("ZVK_OUTPUT_FILE_NAME", dir.file("cap_%p").c_str(), 1);
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    Sections config = capture_config("ignored", false);
    config["ZORV"]["FlushIntervalMs"] = "50";
    ASSERT_TRUE(zorv.configure(config).ok());
    ASSERT_TRUE(zorv.start_profiling().ok());
    annotate_pair(zorv, "before");
    // The periodic flush writes a bucket, so the suspend at the fork has a file to
    // keep rather than an empty one to remove.
    const std::string name = capture_of(dir, getpid());
    for (int i = 0; i < 200 && read_capture(name + ".tmp").buckets.empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const auto [child, status] = fork_and_wait([&] { return 0; });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(dir.list(), Strings{"cap_" + std::to_string(getpid()) + "_0.zvkraw.tmp"});
    EXPECT_TRUE(has(begin_messages(read_capture(name + ".tmp")), "before"));
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    EXPECT_EQ(dir.list(), Strings{"cap_" + std::to_string(getpid()) + "_0.zvkraw"});
    EXPECT_TRUE(has(messages_of(dir, getpid()), "before"));
  }, true));
}

// A data loader's worker ends with _exit, without a stop: what it recorded up to
// the writer's last periodic flush is in its file all the same.
TEST(Fork, AWorkerThatEndsWithExitKeepsWhatItRecorded) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    clear_environment();
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    Sections config = capture_config(dir.file("cap_%p"), true);
    config["ZORV"]["FlushIntervalMs"] = "100";
    ASSERT_TRUE(zorv.configure(config).ok());
    ASSERT_TRUE(zorv.start_profiling().ok());
    const auto [child, status] = fork_and_wait([&] {
      annotate_pair(zorv, "worker");
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      return 0;
    });
    EXPECT_EQ(status, 0);
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    // The header was never rewritten; the bucket is there whole.
    const DecodedFile worker = read_capture(capture_of(dir, child));
    EXPECT_EQ(worker.header()->num_buckets, 0u);
    EXPECT_TRUE(has(begin_messages(worker), "worker"));
  }, true));
}

// All records of a capture, in file order.
std::vector<testing_support::DecodedRecord> records_of(const std::string& path) {
  std::vector<testing_support::DecodedRecord> records;
  for (const auto& bucket : read_capture(path).buckets) {
    records.insert(records.end(), bucket.records.begin(), bucket.records.end());
  }
  return records;
}

size_t count_of(const Strings& items, const std::string& item) {
  return static_cast<size_t>(std::count(items.begin(), items.end(), item));
}

// The parent's records still in the buffers at the fork are the parent's alone: the
// child's file holds the child's records and nothing else, and no record is in
// both files.
TEST(Fork, TheChildsFileHoldsOnlyTheChildsRecords) {
  constexpr size_t kParentPairs = 50;
  constexpr size_t kChildPairs = 30;
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    Sections config = capture_config(dir.file("cap_%p"), true);
    config["ZORV"]["FlushIntervalMs"] = "0";  // nothing is sent on before the fork
    Zorv& zorv = start_capture(config);
    for (size_t i = 0; i < kParentPairs; ++i) annotate_pair(zorv, "parent");
    const auto [child, status] = fork_and_wait([&] {
      for (size_t i = 0; i < kChildPairs; ++i) annotate_pair(zorv, "child");
      return zorv.stop_profiling().ok() ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
    annotate_pair(zorv, "parent after");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();

    const auto child_records = records_of(capture_of(dir, child));
    EXPECT_EQ(child_records.size(), 2 * kChildPairs);
    for (const auto& record : child_records) {
      EXPECT_EQ(record.pid, static_cast<uint32_t>(child));
      EXPECT_NE(record.event_type, static_cast<uint32_t>(annotations::TIME_MARKER));
    }
    const Strings in_child = messages_of(dir, child);
    EXPECT_EQ(count_of(in_child, "child"), kChildPairs);
    EXPECT_EQ(in_child.size(), kChildPairs);

    // The parent's file: its time marker, its pairs from before and after the fork.
    const auto parent_records = records_of(capture_of(dir, getpid()));
    EXPECT_EQ(parent_records.size(), 1 + 2 * (kParentPairs + 1));
    for (const auto& record : parent_records) {
      EXPECT_EQ(record.pid, static_cast<uint32_t>(getpid()));
    }
    const Strings in_parent = messages_of(dir, getpid());
    EXPECT_EQ(count_of(in_parent, "parent"), kParentPairs);
    EXPECT_EQ(count_of(in_parent, "parent after"), 1u);
    EXPECT_EQ(count_of(in_parent, "child"), 0u);
  }, true));
}

// With following off the child starts a capture of its own later: the parent's
// records it inherited are not in it either.
TEST(Fork, AChildThatStartsLaterWritesNoneOfTheParentsRecords) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    Sections config = capture_config(dir.file("cap_%p"), false);
    config["ZORV"]["FlushIntervalMs"] = "0";
    Zorv& zorv = start_capture(config);
    annotate_pair(zorv, "parent");
    const auto [child, status] = fork_and_wait([&] {
      if (zorv.is_active() || !zorv.start_profiling().ok()) return 2;
      annotate_pair(zorv, "child");
      return zorv.stop_profiling().ok() ? 0 : 3;
    });
    EXPECT_EQ(status, 0);
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    EXPECT_EQ(messages_of(dir, child), Strings{"child"});
    EXPECT_EQ(messages_of(dir, getpid()), Strings{"parent"});
  }, true));
}

// What a child does with the buffers it inherited, seen without a fork: a record
// that a thread of the parent was still filling holds its buffer, and the queued
// buffers hold the parent's records. After the discard every buffer is free and
// empty, and the held one, let go later, goes nowhere. Run in a child of its own:
// the discard marks every buffer handed out so far in the process.
TEST(ForkDiscard, EveryBufferComesBackEmptyAndOneHeldAtTheForkGoesNowhere) {
  EXPECT_EQ(0, run_in_child([] {
    ZVKQueue<ZVKBuffer> to_fill(3, 4096);
    ZVKQueue<ZVKBuffer> to_write;
    auto helper = std::make_shared<ZVKBufferRecordHelper>(&to_fill, &to_write);
    helper->new_record(1, 0u, 1, 1, 0, 8);
    ASSERT_TRUE(helper->flush().ok());  // one buffer queued for the writer
    {
      auto held = helper->new_record(2, 0u, 1, 2, 0, 8);
      ASSERT_EQ(to_write.size(), 1u);
      ASSERT_EQ(to_fill.size(), 1u);
      ZVKBufferRecordHelper::discard_inherited(&to_fill, &to_write);
      EXPECT_EQ(to_write.size(), 0u);
      EXPECT_EQ(to_fill.size(), 3u);
    }
    EXPECT_EQ(to_write.size(), 0u);
    EXPECT_EQ(to_fill.size(), 3u);
    // The next record takes an empty buffer, which reaches the writer as usual.
    helper->new_record(3, 0u, 1, 3, 0, 8);
    ASSERT_TRUE(helper->flush().ok());
    ZVKBuffer* sent = nullptr;
    to_write.pop(&sent);
    ASSERT_NE(sent, nullptr);
    EXPECT_EQ(sent->num_bytes, 24u + 8u);
    EXPECT_EQ(reinterpret_cast<const ZVKRecord*>(sent->record_buffer)->timestamp, 3u);
    to_fill.push(sent);
  }));
}

// Threads annotate without pause while the main thread forks again and again: a
// lock held by another thread at a fork must not stay held in the child. Every
// process ends, and every file reads back whole.
void fork_under_load(bool follow, int forks) {
  TempDir dir;
  int report[2];
  ASSERT_EQ(pipe(report), 0);
  EXPECT_EQ(0, run_in_child([&] {
    const pid_t self = getpid();
    if (write(report[1], &self, sizeof(self)) != sizeof(self)) ADD_FAILURE();
    Zorv& zorv = start_capture(capture_config(dir.file("cap_%p"), follow));
    std::atomic<bool> stop{false};
    std::vector<std::thread> annotators;
    for (int t = 0; t < 3; ++t) {
      annotators.emplace_back([&] {
        while (!stop) annotate_pair(zorv, "load");
      });
    }
    int failed = 0;
    for (int i = 0; i < forks; ++i) {
      const auto [child, status] = fork_and_wait([&] {
        for (int j = 0; j < 100; ++j) annotate_pair(zorv, "child");
        if (follow) return zorv.stop_profiling().ok() ? 0 : 2;
        return zorv.is_active() ? 3 : 0;
      });
      failed += status != 0;
    }
    stop = true;
    for (auto& annotator : annotators) annotator.join();
    EXPECT_EQ(failed, 0);
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
  }, true));
  pid_t capturing = 0;
  ASSERT_EQ(read(report[0], &capturing, sizeof(capturing)),
            static_cast<ssize_t>(sizeof(capturing)));
  close(report[0]);
  close(report[1]);
  const uint32_t parent = static_cast<uint32_t>(capturing);
  const Strings files = dir.list();
  EXPECT_EQ(files.size(), follow ? static_cast<size_t>(forks) + 1 : 1u);
  // Each child's own records are all in its file, also when another thread was in
  // the middle of a record at the fork.
  int children_whole = 0;
  for (const auto& name : files) {
    const DecodedFile file = read_capture(dir.file(name));
    EXPECT_FALSE(file.torn) << name;
    EXPECT_EQ(file.header()->num_buckets, file.buckets.size()) << name;
    const Strings messages = begin_messages(file);
    const size_t from_children = count_of(messages, "child");
    if (file.header()->pid != parent) {
      // A child's file: its own 100 pairs and nothing of the parent's load.
      children_whole += from_children == 100 && messages.size() == 100;
    } else {
      EXPECT_EQ(from_children, 0u);
    }
  }
  EXPECT_EQ(children_whole, follow ? forks : 0);
}

// Under AddressSanitizer every fork copies its shadow memory too: fewer forks keep
// the stress inside the test's time limit on a small machine.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kStressForks = 60;
#else
constexpr int kStressForks = 200;
#endif

TEST(Fork, ForksAtAnyMomentWhileThreadsAnnotateWithFollowingOn) {
  fork_under_load(true, kStressForks);
}

TEST(Fork, ForksAtAnyMomentWhileThreadsAnnotateWithFollowingOff) {
  fork_under_load(false, kStressForks);
}

}  // namespace
}  // namespace zorvek
