#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "tests/test_support.h"
#include "zorv/utils/zvkmetadata.h"

namespace zorvek {
namespace {

using testing_support::run_in_child;

TEST(ReadKey, BlankBehindColonOrNotGiveTheSameValue) {
  ZVTrainingJobConfiguration with_blank(R"({"current_host": "algo-1", "x": "y"})");
  ZVTrainingJobConfiguration without_blank(R"({"current_host":"algo-1","x":"y"})");
  EXPECT_EQ(with_blank.read_key("current_host"), "algo-1");
  EXPECT_EQ(without_blank.read_key("current_host"), "algo-1");
}

TEST(ReadKey, TwoBlanksGiveASingleBlank) {
  ZVTrainingJobConfiguration config(R"({"current_host":  "algo-1"})");
  EXPECT_EQ(config.read_key("current_host"), " ");
}

TEST(ReadKey, AbsentKeyIsEmpty) {
  EXPECT_EQ(ZVTrainingJobConfiguration("{}").read_key("job_name"), "");
}

TEST(ReadKey, UnquotedValueRunsToTheNextQuote) {
  ZVTrainingJobConfiguration config(R"({"count": 12, "job_name": "j"})");
  EXPECT_EQ(config.read_key("count"), "12, ");
}

TEST(ReadKey, EmptyValueGivesTheRestOfTheDocument) {
  ZVTrainingJobConfiguration config(R"({"job_name":"", "x": "y"})");
  EXPECT_EQ(config.read_key("job_name"), R"(", "x": "y"})");
}

TEST(ReadKey, NestedKeyEarlierInTheTextWins) {
  ZVTrainingJobConfiguration config(R"({"a": {"job_name": "inner"}, "job_name": "outer"})");
  EXPECT_EQ(config.read_key("job_name"), "inner");
}

TEST(Resolve, FallsBackOnEnvironmentThenSystem) {
  EXPECT_EQ(0, run_in_child([] {
    ZVTrainingJobConfiguration empty("{}");
    setenv("ZV_JOB_RID", "rid-7", 1);
    setenv("ZV_CURRENT_HOST", "host-7", 1);
    EXPECT_EQ(resolve_job_rid(empty), "rid-7");
    EXPECT_EQ(resolve_hostname(empty), "host-7");
    unsetenv("ZV_JOB_RID");
    unsetenv("ZV_CURRENT_HOST");
    char name[256] = {};
    gethostname(name, sizeof(name) - 1);
    EXPECT_EQ(resolve_job_rid(empty), "");
    EXPECT_EQ(resolve_hostname(empty), name);
    ZVTrainingJobConfiguration full(R"({"job_name": "j1", "current_host": "h1"})");
    EXPECT_EQ(resolve_job_rid(full), "j1");
    EXPECT_EQ(resolve_hostname(full), "h1");
  }));
}

// The job description lives at a fixed path under /opt. Each test gets a private
// mount namespace with a tmpfs on /opt, so the real machine's /opt is never touched.
bool private_opt() {
  if (unshare(CLONE_NEWNS) != 0) return false;
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  mkdir("/opt", 0755);
  if (mount("tmpfs", "/opt", "tmpfs", 0, nullptr) != 0) return false;
  return mkdir("/opt/kv", 0755) == 0 && mkdir("/opt/kv/input", 0755) == 0 &&
         mkdir("/opt/kv/input/config", 0755) == 0;
}

void write_job_file(const std::string& text) { std::ofstream(kResourceConfigPath) << text; }

class JobFile : public ::testing::Test {
 protected:
  void SetUp() override {
    if (getuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
  }
};

TEST_F(JobFile, NoFileNoEnvironment) {
  EXPECT_EQ(0, run_in_child([] {
    ASSERT_TRUE(private_opt());
    unsetenv("ZV_TRAINING_ENV");
    unsetenv("ZV_CURRENT_HOST");
    unsetenv("ZV_JOB_RID");
    EXPECT_EQ(ZVTrainingJobConfiguration::fetch(), "{}");
    const JobMetadata metadata = resolve_metadata();
    char name[256] = {};
    gethostname(name, sizeof(name) - 1);
    EXPECT_EQ(metadata.hostname, name);
    EXPECT_EQ(metadata.job_rid, "");
    EXPECT_EQ(metadata.instance_type, "");
  }));
}

TEST_F(JobFile, FileIsReadOnce) {
  EXPECT_EQ(0, run_in_child([] {
    ASSERT_TRUE(private_opt());
    write_job_file(R"({"current_host": "algo-1", "instance_type": "ml.p5", "job_name": "run-3"})");
    setenv("ZV_TRAINING_ENV", R"({"current_host": "env-host"})", 1);
    const JobMetadata metadata = resolve_metadata();
    EXPECT_EQ(metadata.hostname, "algo-1");
    EXPECT_EQ(metadata.instance_type, "ml.p5");
    EXPECT_EQ(metadata.job_rid, "run-3");
    write_job_file(R"({"current_host": "changed"})");
    setenv("ZV_TRAINING_ENV", R"({"current_host": "changed-env"})", 1);
    EXPECT_EQ(ZVTrainingJobConfiguration().read_key("current_host"), "algo-1");
  }));
}

TEST_F(JobFile, EmptyFileCountsAsAbsentAndEnvironmentIsReadAnew) {
  EXPECT_EQ(0, run_in_child([] {
    ASSERT_TRUE(private_opt());
    write_job_file("");
    setenv("ZV_TRAINING_ENV", R"({"current_host": "env-1"})", 1);
    EXPECT_EQ(ZVTrainingJobConfiguration().read_key("current_host"), "env-1");
    setenv("ZV_TRAINING_ENV", R"({"current_host": "env-2"})", 1);
    EXPECT_EQ(ZVTrainingJobConfiguration().read_key("current_host"), "env-2");
  }));
}

}  // namespace
}  // namespace zorvek
