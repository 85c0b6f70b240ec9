#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "zorv/format/file.h"
#include "zorv/io/zvkbuffer.h"
#include "zorv/io/zvkqueue.h"

namespace zorvek {
namespace testing_support {

// A fresh directory under /tmp, removed with everything in it at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return m_path; }
  std::string file(const std::string& name) const { return m_path + "/" + name; }
  std::vector<std::string> list() const;  // names, sorted
  static std::vector<std::string> list_of(const std::string& path);

 private:
  std::string m_path;
};

// Sets an environment variable for a scope, restoring the old value after.
class ScopedEnv {
 public:
  ScopedEnv(const std::string& name, const char* value);
  ~ScopedEnv();

 private:
  std::string m_name;
  bool m_had_value;
  std::string m_old;
};

// Runs `body` in a forked child and returns its exit status (0 when no gtest
// assertion failed in it). For what must happen once per process: the controller
// singleton, the log level read once, the metadata read once. `exit_normally`
// runs static destructors in the child (std::exit) instead of _exit.
int run_in_child(const std::function<void()>& body, bool exit_normally = false);

// Runs the current test again in a new process started from this binary, with
// `env` ("NAME=value") added to the environment; returns its exit status. Inside
// that process in_fresh_process() is true. For state that a fork would inherit:
// values read once per process, like the log levels.
int rerun_in_fresh_process(const std::vector<std::string>& env);
bool in_fresh_process();

// The lines of captured stderr that are log lines, with the time stamp taken out:
// "LOG(INFO) [ 12:00:00.000 ] @ f.cpp:1| text" becomes "INFO| text".
std::vector<std::string> log_messages(const std::string& captured);

// Whether `lines` (as log_messages gives them) hold `line` exactly.
bool contains(const std::vector<std::string>& lines, const std::string& line);

// What the hook search logs when no loaded library carries the annotation hooks,
// at a capture's start and at its stop.
extern const char kNoHookLibraryAtStart[];
extern const char kNoHookLibraryAtStop[];

// A decoded record of a capture file or buffer.
struct DecodedRecord {
  uint64_t timestamp;
  uint32_t hw_type;
  uint32_t device_id;
  uint32_t event_type;
  uint32_t pid;
  uint32_t tid;
  uint16_t call_chain_size;
  uint16_t payload_size;
  std::string payload;
  // The call chain's 2 * call_chain_size 64-bit slots.
  std::vector<uint64_t> callchain;
};

struct DecodedBucket {
  uint64_t tmin;
  uint64_t tmax;
  uint64_t number_of_records;
  uint32_t compressed_size;
  uint32_t uncompressed_size;
  std::vector<DecodedRecord> records;
};

struct DecodedFile {
  std::vector<char> header_bytes;
  const ZVKFileHeader* header() const {
    return reinterpret_cast<const ZVKFileHeader*>(header_bytes.data());
  }
  std::vector<DecodedBucket> buckets;
  bool torn = false;
  uint64_t file_size = 0;
};

// Reads a whole capture file through the reader; fails the test on damage.
DecodedFile read_capture(const std::string& path);

// The records of a run of bytes, walked as the format says.
std::vector<DecodedRecord> walk_records(const char* data, uint32_t size);

// The records of every buffer waiting on `to_write`, in order; each buffer goes
// back to `to_fill` empty, as the writer would send it.
std::vector<DecodedRecord> take_written(ZVKQueue<ZVKBuffer>& to_write,
                                        ZVKQueue<ZVKBuffer>& to_fill);

std::string read_text_file(const std::string& path);

// A configuration that keeps a capture small (4 buffers of 1 MiB) and names its
// files by `pattern`: the sections of Zorv::configure.
std::map<std::string, std::map<std::string, std::string>> small_capture_config(
    const std::string& pattern);

}  // namespace testing_support
}  // namespace zorvek
