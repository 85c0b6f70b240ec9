#include <gtest/gtest.h>

#include <cctype>

#include "tests/test_support.h"
#include "zorv/cpu/zvkperfcollector.h"
#include "zorv/cpu/zvkperfkernel.h"
#include "zorv/utils/logging.h"
#include "zorv/utils/status.h"

namespace zorvek {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::log_messages;
using testing_support::in_fresh_process;
using testing_support::rerun_in_fresh_process;

TEST(Status, OkIsOkAndSaysOK) {
  EXPECT_TRUE(Status::OK().ok());
  EXPECT_EQ(Status::OK().msg_, "OK");
  EXPECT_EQ(Status::OK().code_, error::OK);
}

TEST(Status, EndOfDataIsNotOk) {
  Status status(error::END_OF_DATA, "Buffer is Empty");
  EXPECT_FALSE(status.ok());
  EXPECT_EQ(status.code_, error::END_OF_DATA);
  EXPECT_EQ(status.msg_, "Buffer is Empty");
}

TEST(Status, CodesHaveTheirValues) {
  EXPECT_EQ(error::INVALID_ARGUMENT, 1);
  EXPECT_EQ(error::FAILURE, 7);
  EXPECT_EQ(error::END_OF_DATA, 8);
  EXPECT_EQ(error::NUM_ERROR_CODES, 9);
}

Status fails_then_continues(int* reached) {
  ZVK_RETURN_NOT_OK(Status(error::FAILURE, "first"));
  *reached = 1;
  return Status::OK();
}

TEST(Status, ReturnNotOkReturnsTheFailure) {
  int reached = 0;
  Status status = fails_then_continues(&reached);
  EXPECT_EQ(status.msg_, "first");
  EXPECT_EQ(reached, 0);
}

TEST(Status, LogNotOkWritesTheStatusCheckLineAndGoesOn) {
  int calls = 0;
  auto failing = [&] {
    ++calls;
    return Status(error::FAILURE, "Failed to find hook functions");
  };
  CaptureStderr();
  ZVK_LOG_NOT_OK(INFO, failing(), "Couldn't find any library with annotations");
  ZVK_LOG_NOT_OK(ERROR, Status::OK(), "never printed");
  const auto lines = log_messages(GetCapturedStderr());
  EXPECT_EQ(calls, 1);  // evaluated once
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "INFO| Status check failed Couldn't find any library with annotations status= Failed "
            "to find hook functions");
}

TEST(Logging, LineFormat) {
  CaptureStderr();
  const int line = __LINE__ + 1;
  LOG(WARNING) << "Received empty bucket!";
  const std::string text = GetCapturedStderr();
  // "LOG(WARNING) [ HH:MM:SS.mmm ] @ file:line| message\n"
  ASSERT_EQ(text.size(), 29u + 33u + std::to_string(line).size() + 25u) << text;
  EXPECT_EQ(text.substr(0, 15), "LOG(WARNING) [ ");
  const std::string clock = text.substr(15, 12);
  for (size_t i : {0, 1, 3, 4, 6, 7, 9, 10, 11}) EXPECT_TRUE(isdigit(clock[i])) << clock;
  EXPECT_EQ(clock[2], ':');
  EXPECT_EQ(clock[5], ':');
  EXPECT_EQ(clock[8], '.');
  EXPECT_EQ(text.substr(27), " ] @ tests/test_status_logging.cpp:" + std::to_string(line) +
                                 "| Received empty bucket!\n");
}

TEST(Logging, SeverityIsClamped) {
  LogMessage high(__FILE__, 1, 7);
  LogMessage low(__FILE__, 1, -1);
  EXPECT_EQ(high.severity(), 4);
  EXPECT_EQ(low.severity(), 0);
  CaptureStderr();
  { LogMessage(__FILE__, 1, 7) << "loud"; }
  EXPECT_EQ(log_messages(GetCapturedStderr()), std::vector<std::string>{"SILENT| loud"});
}

TEST(Logging, OwnLineEndsAreKept) {
  CaptureStderr();
  LOG(INFO) << "CUDA capture enabled " << "\n";
  const std::string text = GetCapturedStderr();
  EXPECT_EQ(text.substr(text.size() - 23), "CUDA capture enabled \n\n");
}

// The levels are read once per process: each case runs in a process of its own.
TEST(LoggingFresh, NonNumericMinLevelFiltersNothing) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_MIN_LOG_LEVEL=loud"}));
    return;
  }
  CaptureStderr();
  LOG(INFO) << "shown";
  EXPECT_EQ(log_messages(GetCapturedStderr()), std::vector<std::string>{"INFO| shown"});
}

TEST(LoggingFresh, EmptyMinLevelIsTheDefault) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_MIN_LOG_LEVEL="}));
    return;
  }
  CaptureStderr();
  LOG(INFO) << "shown";
  EXPECT_EQ(log_messages(GetCapturedStderr()), std::vector<std::string>{"INFO| shown"});
}

TEST(LoggingFresh, MinLevelFiltersLowerSeverities) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_MIN_LOG_LEVEL=2"}));
    return;
  }
  CaptureStderr();
  LOG(WARNING) << "hidden";
  LOG(ERROR) << "shown";
  EXPECT_EQ(log_messages(GetCapturedStderr()), std::vector<std::string>{"ERROR| shown"});
}

TEST(LoggingFresh, MinLevelFourLetsNothingOut) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_MIN_LOG_LEVEL=4"}));
    return;
  }
  CaptureStderr();
  LOG(ERROR) << "hidden";
  EXPECT_TRUE(log_messages(GetCapturedStderr()).empty());
}

TEST(LoggingFresh, EnvironmentIsReadOnce) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  unsetenv("ZORV_MIN_LOG_LEVEL");
  CaptureStderr();
  LOG(INFO) << "first";
  setenv("ZORV_MIN_LOG_LEVEL", "4", 1);
  LOG(INFO) << "second";
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            (std::vector<std::string>{"INFO| first", "INFO| second"}));
}

TEST(LoggingFresh, VerboseLinesAreOffByDefault) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  unsetenv("ZORV_MAX_VLOG_LEVEL");
  CaptureStderr();
  VLOG(1) << "hidden";
  EXPECT_TRUE(log_messages(GetCapturedStderr()).empty());
}

TEST(LoggingFresh, VerboseLinesAtLevelOne) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_MAX_VLOG_LEVEL=1"}));
    return;
  }
  CaptureStderr();
  VLOG(1) << "shown";
  EXPECT_EQ(log_messages(GetCapturedStderr()), std::vector<std::string>{"INFO| shown"});
}

// What a quiet run leaves out: the perf collector's warnings of a fork, which
// report nothing done.
std::vector<std::string> perf_fork_lines() {
  ZVKQueue<ZVKBuffer> fill(4, 4096), to_write;
  CaptureStderr();
  {
    ZVKPerfCollector collector("PERFCollector", &fill, &to_write, ZVKPerfKernel::real());
    GetCapturedStderr();
    CaptureStderr();
    EXPECT_TRUE(collector.suspend_profiling().ok());
    EXPECT_TRUE(collector.resume_profiling().ok());
  }
  std::vector<std::string> lines = log_messages(GetCapturedStderr());
  return lines;
}

TEST(LoggingFresh, QuietIsOffWithoutTheVariable) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  unsetenv("ZORV_QUIET");
  EXPECT_FALSE(LogMessage::is_quiet());
  EXPECT_EQ(perf_fork_lines(),
            (std::vector<std::string>{"WARNING| PERFCollector Suspend not implemented",
                                      "WARNING| PERFCollector Resume not implemented"}));
}

TEST(LoggingFresh, QuietIsOnlyOne) {
  for (const char* value : {"0", "2", "yes", ""}) {
    if (!in_fresh_process()) {
      EXPECT_EQ(0, rerun_in_fresh_process({std::string("ZORV_QUIET=") + value})) << value;
      continue;
    }
    EXPECT_FALSE(LogMessage::is_quiet());
    EXPECT_EQ(perf_fork_lines().size(), 2u);
    return;
  }
}

TEST(LoggingFresh, QuietLeavesOutTheForkWarningsAndIsReadOnce) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_QUIET=1"}));
    return;
  }
  EXPECT_TRUE(LogMessage::is_quiet());
  EXPECT_TRUE(perf_fork_lines().empty());
  setenv("ZORV_QUIET", "0", 1);
  EXPECT_TRUE(LogMessage::is_quiet());
  // Other lines are not touched.
  CaptureStderr();
  LOG(INFO) << "shown";
  EXPECT_EQ(log_messages(GetCapturedStderr()), std::vector<std::string>{"INFO| shown"});
}

TEST(Logging, FatalPrintsAndAborts) {
  EXPECT_DEATH({ LOG_FATAL << "the end"; }, "LOG\\(FATAL\\).*\\| the end");
}

}  // namespace
}  // namespace zorvek
