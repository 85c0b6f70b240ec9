#include "tests/test_support.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tools/zvkfilereader.h"

namespace zorvek {
namespace testing_support {

TempDir::TempDir() {
  char pattern[] = "/tmp/zorvek-test-XXXXXX";
  const char* made = mkdtemp(pattern);
  EXPECT_NE(made, nullptr);
  m_path = made != nullptr ? made : "/tmp";
}

TempDir::~TempDir() {
  const std::string command = "rm -rf '" + m_path + "'";
  if (m_path.rfind("/tmp/zorvek-test-", 0) == 0) {
    EXPECT_EQ(0, system(command.c_str()));
  }
}

std::vector<std::string> TempDir::list() const { return list_of(m_path); }

std::vector<std::string> TempDir::list_of(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

ScopedEnv::ScopedEnv(const std::string& name, const char* value) : m_name(name) {
  const char* old = getenv(name.c_str());
  m_had_value = old != nullptr;
  if (m_had_value) m_old = old;
  if (value == nullptr) {
    unsetenv(name.c_str());
  } else {
    setenv(name.c_str(), value, 1);
  }
}

ScopedEnv::~ScopedEnv() {
  if (m_had_value) {
    setenv(m_name.c_str(), m_old.c_str(), 1);
  } else {
    unsetenv(m_name.c_str());
  }
}

int run_in_child(const std::function<void()>& body, bool exit_normally) {
  fflush(stdout);
  fflush(stderr);
  const pid_t child = fork();
  if (child == 0) {
    body();
    const int code = ::testing::Test::HasFailure() ? 1 : 0;
    fflush(stdout);
    if (exit_normally) std::exit(code);
    _exit(code);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

bool in_fresh_process() { return getenv("ZORV_TEST_FRESH_PROCESS") != nullptr; }

int rerun_in_fresh_process(const std::vector<std::string>& env) {
  const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter =
      std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
  fflush(stdout);
  fflush(stderr);
  const pid_t child = fork();
  if (child == 0) {
    std::vector<std::string> storage(env);
    storage.push_back("ZORV_TEST_FRESH_PROCESS=1");
    for (char** entry = environ; *entry != nullptr; ++entry) storage.push_back(*entry);
    std::vector<char*> envp;
    for (auto& entry : storage) envp.push_back(entry.data());
    envp.push_back(nullptr);
    char* argv[] = {const_cast<char*>("test"), const_cast<char*>(filter.c_str()), nullptr};
    execve("/proc/self/exe", argv, envp.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

std::vector<std::string> log_messages(const std::string& captured) {
  std::vector<std::string> messages;
  std::istringstream lines(captured);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("LOG(", 0) != 0) continue;
    const size_t name_end = line.find(')');
    const size_t bar = line.find("| ");
    if (name_end == std::string::npos || bar == std::string::npos) continue;
    messages.push_back(line.substr(4, name_end - 4) + "| " + line.substr(bar + 2));
  }
  return messages;
}

bool contains(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

const char kNoHookLibraryAtStart[] =
    "INFO| Status check failed Couldn't find any library with annotations status= Failed to "
    "find hook functions";
const char kNoHookLibraryAtStop[] =
    "INFO| Status check failed Can't find libraries with annotations status= Failed to find "
    "hook functions";

std::vector<DecodedRecord> walk_records(const char* data, uint32_t size) {
  std::vector<DecodedRecord> records;
  for (uint32_t offset = 0; offset < size;) {
    ZVKRecordReader record(data + offset);
    DecodedRecord decoded{record.timestamp(), record.hardware_type(), record.device_id(),
                          record.event_type(), record.pid(), record.tid(),
                          record.num_callchains(), record.payload_size(),
                          std::string(static_cast<const char*>(record.payload()),
                                      record.payload_size()),
                          {}};
    decoded.callchain.resize(2u * record.num_callchains());
    if (!decoded.callchain.empty()) {
      std::memcpy(decoded.callchain.data(), data + offset + kRecordHeaderSize,
                  decoded.callchain.size() * sizeof(uint64_t));
    }
    records.push_back(decoded);
    offset += record.size();
  }
  return records;
}

std::vector<DecodedRecord> take_written(ZVKQueue<ZVKBuffer>& to_write,
                                        ZVKQueue<ZVKBuffer>& to_fill) {
  std::vector<DecodedRecord> records;
  ZVKBuffer* buffer = nullptr;
  while (to_write.pop(&buffer), buffer != nullptr) {
    auto some = walk_records(buffer->record_buffer, buffer->num_bytes);
    records.insert(records.end(), some.begin(), some.end());
    buffer->num_bytes = 0;
    to_fill.push(buffer);
    buffer = nullptr;
  }
  return records;
}

DecodedFile read_capture(const std::string& path) {
  DecodedFile decoded;
  ZVKFileReader file;
  Status opened = file.open(path);
  EXPECT_TRUE(opened.ok()) << path << ": " << opened.msg_;
  if (!opened.ok()) return decoded;
  decoded.file_size = file.file_size();
  const size_t header_size = kZVKFileHeaderSize + get_header_payload_size(file.header());
  decoded.header_bytes.assign(reinterpret_cast<const char*>(file.header()),
                              reinterpret_cast<const char*>(file.header()) + header_size);
  std::unique_ptr<ZVKBucketReader> bucket;
  for (;;) {
    Status next = file.next_bucket(&bucket);
    if (next.code_ == error::END_OF_DATA) break;
    if (!next.ok()) {
      decoded.torn = file.torn();
      EXPECT_TRUE(file.torn()) << next.msg_;
      break;
    }
    DecodedBucket out{bucket->get_bucket_start_time(), bucket->get_bucket_end_time(),
                      bucket->get_number_of_records_in_bucket(), bucket->get_compressed_size(),
                      bucket->get_uncompressed_size(), {}};
    ZVKRecordReader record;
    Status walked;
    while ((walked = bucket->get_next_record(record)).ok()) {
      out.records.push_back(walk_records(record.bytes(), record.size())[0]);
    }
    EXPECT_EQ(walked.code_, error::END_OF_DATA) << walked.msg_;
    decoded.buckets.push_back(std::move(out));
  }
  return decoded;
}

std::string read_text_file(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::map<std::string, std::map<std::string, std::string>> small_capture_config(
    const std::string& pattern) {
  return {{"ZORV", {{"BucketCount", "4"}, {"BucketSizeMB", "1"}, {"RecordFile", pattern}}}};
}

}  // namespace testing_support
}  // namespace zorvek
