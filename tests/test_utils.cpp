#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "tests/test_support.h"
#include "zorv/utils/utils.h"

namespace zorvek {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::in_fresh_process;
using testing_support::log_messages;
using testing_support::rerun_in_fresh_process;
using testing_support::ScopedEnv;
using testing_support::TempDir;

using Strings = std::vector<std::string>;

TEST(Split, FirstOneCharacterTokenIsLost) { EXPECT_EQ(split("a,bb,c", ','), (Strings{"bb", "c"})); }

TEST(Split, LeadingEmptyKeptOneCharacterDropped) {
  EXPECT_EQ(split(",x,", ','), (Strings{""}));
}

TEST(Split, EmptyTokenBetweenDelimitersKept) {
  EXPECT_EQ(split("ab,,cd", ','), (Strings{"ab", "", "cd"}));
}

TEST(Split, EmptyTextGivesNothingAndLastTokenAlwaysKept) {
  EXPECT_TRUE(split("", ',').empty());
  EXPECT_EQ(split("ab,c", ','), (Strings{"ab", "c"}));
}

TEST(GetValueAs, Uint32IsCutTo32Bits) { EXPECT_EQ(get_value_as<uint32_t>("4294967296", 5), 0u); }

TEST(GetValueAs, BoolIsNumericOnly) {
  EXPECT_TRUE(get_value_as<bool>("2", false));
  EXPECT_TRUE(get_value_as<bool>("1", false));
  EXPECT_FALSE(get_value_as<bool>("0", true));
  EXPECT_FALSE(get_value_as<bool>("-1", true));
  EXPECT_FALSE(get_value_as<bool>("true", true));
  EXPECT_FALSE(get_value_as<bool>("yes", true));
}

TEST(GetValueAs, EmptyGivesDefault) {
  EXPECT_EQ(get_value_as<int64_t>("", 9), 9);
  EXPECT_EQ(get_value_as<std::string>("", "d"), "d");
}

TEST(GetValueAs, CConversionRules) {
  EXPECT_EQ(get_value_as<uint32_t>("12abc", 5), 12u);
  EXPECT_EQ(get_value_as<uint32_t>("abc", 5), 0u);
  EXPECT_EQ(get_value_as<int32_t>(" 7", 5), 7);
  EXPECT_EQ(get_value_as<uint64_t>("-1", 5), UINT64_MAX);
  EXPECT_DOUBLE_EQ(get_value_as<double>("2.5", 1.0), 2.5);
  EXPECT_EQ(get_value_as<std::string>("x", "d"), "x");
}

TEST(KeyValueAs, AbsentAndEmptyGiveDefault) {
  std::map<std::string, std::string> values{{"Empty", ""}, {"Count", "3"}};
  EXPECT_EQ(key_value_as<uint32_t>(values, "Absent", 32), 32u);
  EXPECT_EQ(key_value_as<uint32_t>(values, "Empty", 32), 32u);
  EXPECT_EQ(key_value_as<uint32_t>(values, "Count", 32), 3u);
}

TEST(GetEnvValueAs, UnsetAndEmptyGiveDefault) {
  {
    ScopedEnv env("ZVK_TEST_VALUE", nullptr);
    EXPECT_EQ(get_env_value_as<uint32_t>("ZVK_TEST_VALUE", 4), 4u);
  }
  {
    ScopedEnv env("ZVK_TEST_VALUE", "");
    EXPECT_EQ(get_env_value_as<uint64_t>("ZVK_TEST_VALUE", 4), 4u);
  }
  ScopedEnv env("ZVK_TEST_VALUE", "-3");
  EXPECT_EQ(get_env_value_as<int64_t>("ZVK_TEST_VALUE", 4), -3);
}

TEST(ZVKHex, LowerCaseWithoutPrefix) {
  unsigned long value = 0xBEEF;
  EXPECT_EQ(static_cast<std::string>(ZVKHex<unsigned long>(value)), "beef");
}

TEST(Clock, NowIsTheSystemClockInNanoseconds) {
  const auto since_epoch = [] {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
  };
  const uint64_t before = since_epoch();
  const uint64_t now = now_ns();
  const uint64_t after = since_epoch();
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

TEST(ClockOffset, MatchesTheTwoClocks) {
  timespec mono;
  clock_gettime(CLOCK_MONOTONIC_RAW, &mono);
  const int64_t expected = static_cast<int64_t>(now_ns() - timespec_to_ns(mono));
  const int64_t offset = static_cast<int64_t>(get_clock_offset());
  EXPECT_LT(std::llabs(offset - expected), 50000000LL);  // within 50 ms: both clocks run
}

// Ten readings of a system clock past 2028-06-15 sum to more than 64 bits hold.
TEST(ClockOffset, AveragesReadingsPast2028WithoutWrapping) {
  const uint64_t in_2030 = 1900000000ULL * 1000000000ULL;  // 2030-03-17
  timespec monotonic[kClockOffsetRounds];
  timespec system[kClockOffsetRounds];
  unsigned __int128 sum = 0;
  for (int i = 0; i < kClockOffsetRounds; ++i) {
    const uint64_t mono_ns = 5000000000ULL + 40ULL * i;
    const uint64_t real_ns = in_2030 + 40ULL * i + 7ULL * i;
    monotonic[i] = {static_cast<time_t>(mono_ns / 1000000000ULL),
                    static_cast<long>(mono_ns % 1000000000ULL)};
    system[i] = {static_cast<time_t>(real_ns / 1000000000ULL),
                 static_cast<long>(real_ns % 1000000000ULL)};
    sum += real_ns - mono_ns;
  }
  ASSERT_GT(sum, static_cast<unsigned __int128>(UINT64_MAX));  // the old sum wrapped here
  const timespec first = {5, 1000};
  const timespec last = {5, 1500};  // five calls of 100 ns
  EXPECT_EQ(clock_offset_from(monotonic, system, first, last),
            static_cast<uint64_t>(sum / kClockOffsetRounds) - 100);
}

// Today's readings give the bytes they always gave: the sum in 64 bits over ten.
TEST(ClockOffset, TodaysReadingsGiveTheSameOffsetAsBefore) {
  timespec monotonic[kClockOffsetRounds];
  timespec system[kClockOffsetRounds];
  uint64_t sum = 0;
  for (int i = 0; i < kClockOffsetRounds; ++i) {
    monotonic[i] = {1234, 999999990L - 37L * i};
    system[i] = {1764000000 + i, 123456789L + 13L * i};
    sum += timespec_to_ns(system[i]) - timespec_to_ns(monotonic[i]);
  }
  const timespec first = {1300, 999999999};
  const timespec last = {1301, 301};  // crosses a second: 302 ns over five calls
  EXPECT_EQ(clock_offset_from(monotonic, system, first, last), sum / 10 - 60);
}

TEST(MeanOf, ExactForAnySize) {
  const uint64_t big[] = {UINT64_MAX, UINT64_MAX, UINT64_MAX - 1};
  EXPECT_EQ(mean_of(big, 3), UINT64_MAX - 1);  // (3 * max - 1) / 3, rounded down
  const uint64_t small[] = {1, 2, 2};
  EXPECT_EQ(mean_of(small, 3), 1u);
  const uint64_t mixed[] = {9, 9, 9, 9, 9, 9, 9, 9, 9, 10};
  EXPECT_EQ(mean_of(mixed, 10), 9u);
  const uint64_t carried[] = {9, 9, 9, 9, 9, 9, 9, 9, 9, 19};
  EXPECT_EQ(mean_of(carried, 10), 10u);
}

class CpuInfo : public ::testing::Test {
 protected:
  std::string write(const std::string& text) {
    const std::string path = dir.file("cpuinfo");
    std::ofstream(path) << text;
    return path;
  }
  TempDir dir;
};

TEST_F(CpuInfo, ModelNameAfterColonAndBlanks) {
  EXPECT_EQ(get_cpu_model_id(write("processor\t: 0\nvendor_id\t: X\nmodel name\t: Zen 9 CPU\n").c_str()),
            "Zen 9 CPU");
}

TEST_F(CpuInfo, ValueWithoutBlankIsTakenWhole) {
  EXPECT_EQ(get_cpu_model_id(write("processor\t: 0\nmodel name\t:Zen\n").c_str()), "Zen");
}

TEST_F(CpuInfo, FirstLineIsNeverTested) {
  EXPECT_EQ(get_cpu_model_id(write("model name\t: first\nflags\t: x\n").c_str()), "");
}

TEST_F(CpuInfo, NoModelNameInFirst2047Bytes) {
  std::string text = "processor\t: 0\n" + std::string(3000, 'x') + "\nmodel name\t: late\n";
  EXPECT_EQ(get_cpu_model_id(write(text).c_str()), "");
}

TEST_F(CpuInfo, MissingFileLogsAndGivesEmpty) {
  CaptureStderr();
  EXPECT_EQ(get_cpu_model_id(dir.file("absent").c_str()), "");
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            Strings{"ERROR| Can't find CPU info from /proc/cpuinfo ! No such file or directory"});
}

TEST_F(CpuInfo, EmptyFileLogsAndGivesEmpty) {
  const std::string path = write("");
  CaptureStderr();
  EXPECT_EQ(get_cpu_model_id(path.c_str()), "");
  const Strings lines = log_messages(GetCapturedStderr());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("ERROR| Can't read /proc/cpuinfo ! ", 0), 0u);
}

TEST(RUsageHelper, LogsUsageAndWallclock) {
  CaptureStderr();
  { RUsageHelper usage("step"); }
  const std::string text = GetCapturedStderr();
  EXPECT_NE(text.find("| step Self resource usage=\ns\n\tCPU user   :"), std::string::npos) << text;
  EXPECT_NE(text.find("\tmsgsnd     :0\n\tmsgsnd     :0\n"), std::string::npos);
  EXPECT_NE(text.find("\tproc_cpu_t :"), std::string::npos);
  EXPECT_NE(text.find("Wallclock time for step= 0 s"), std::string::npos) << text;
}

TEST(ProcessIdentity, MatchesTheSystemCalls) {
  EXPECT_EQ(current_identity().pid, getpid());
  EXPECT_EQ(current_identity().tid, static_cast<pid_t>(syscall(SYS_gettid)));
  pid_t other_tid = 0;
  std::thread([&] { other_tid = current_identity().tid; }).join();
  EXPECT_NE(other_tid, current_identity().tid);
}

TEST(ProcessIdentity, ForkedChildSeesItsOwnIds) {
  ASSERT_EQ(current_identity().pid, getpid());  // cached in the parent first
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t child = fork();
  if (child == 0) {
    const bool ok = current_identity().pid == getpid() &&
                    current_identity().tid == static_cast<pid_t>(syscall(SYS_gettid));
    const char answer = ok ? 'y' : 'n';
    (void)!write(fds[1], &answer, 1);
    _exit(0);
  }
  char answer = 0;
  ASSERT_EQ(read(fds[0], &answer, 1), 1);
  waitpid(child, nullptr, 0);
  close(fds[0]);
  close(fds[1]);
  EXPECT_EQ(answer, 'y');
}

pid_t g_pid_seen_by_child_handler = 0;

void remember_pid_in_child() { g_pid_seen_by_child_handler = current_identity().pid; }

// A fork handler registered after register_identity_fork_handler() runs after the
// cache's own handler, and so already reads the child's ids. In a fresh process,
// where nothing has read the identity yet: left to itself, the cache would register
// its handler at the first read below, behind this test's.
TEST(ProcessIdentity, HandlerRegisteredAfterTheCachesSeesTheChildsIds) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  register_identity_fork_handler();
  register_identity_fork_handler();  // once only, however often it is called
  ASSERT_EQ(pthread_atfork(nullptr, nullptr, remember_pid_in_child), 0);
  ASSERT_EQ(current_identity().pid, getpid());  // cached in the parent
  const pid_t child = fork();
  if (child == 0) _exit(g_pid_seen_by_child_handler == getpid() ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace zorvek
