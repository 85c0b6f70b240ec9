#pragma once

#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace zorvek {

// Text to typed value. Never fails: an empty text gives the default, anything else
// is whatever the C conversion makes of it (no end-pointer or errno test).
template <typename T>
T get_value_as(const std::string& value, T default_value);

template <typename T>
T key_value_as(const std::map<std::string, std::string>& values, const std::string& key,
               T default_value) {
  auto it = values.find(key);
  return get_value_as<T>(it == values.end() ? std::string() : it->second, default_value);
}

template <typename T>
T get_env_value_as(const std::string& env_name, T default_value);

// Splits at `delimiter`. A one-character token followed by a delimiter is dropped,
// empty tokens are kept, and the last token is kept unless empty.
std::vector<std::string> split(const std::string& text, char delimiter);

// Lower-case hexadecimal text of a value, for readable log lines.
template <typename T>
struct ZVKHex {
  explicit ZVKHex(const T& t) : t_(t) {}
  operator std::string() const {
    std::ostringstream out;
    out << std::hex << t_ << std::dec;
    return out.str();
  }
  const T& t_;
};

inline uint64_t timespec_to_ns(const timespec& ts) {
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

// Local time of `ns` since the epoch: `format` for strftime, then ".%06ld" microseconds.
std::string local_time_text(uint64_t ns, const char* format);

// Nanoseconds to add to a CLOCK_MONOTONIC_RAW time to get a system-clock time,
// less the cost of one clock_gettime call.
uint64_t get_clock_offset();

// The "model name" of the first CPU in /proc/cpuinfo, or empty.
std::string get_cpu_model_id();
// Same, over a given path; lets tests feed machines that aren't this one.
std::string get_cpu_model_id(const char* cpuinfo_path);

// Scope guard that logs the process's resource use over its lifetime.
class RUsageHelper {
 public:
  explicit RUsageHelper(const std::string& name);
  ~RUsageHelper();
  RUsageHelper(const RUsageHelper&) = delete;
  RUsageHelper& operator=(const RUsageHelper&) = delete;

 private:
  struct SelfRUsage {
    rusage at_start;
    rusage at_end;
    std::chrono::system_clock::time_point t_start;
    std::chrono::system_clock::time_point t_end;
  };
  SelfRUsage m_rusage;
  std::string m_name;
  bool m_rusage_ok;
};

// The calling thread's pid and tid, without a system call on the hot path.
// glibc caches neither, and each costs a real system call. The values are cached
// per thread and refreshed after a fork, so a child's records carry the child's
// pid and the forking thread's new tid.
struct ProcessIdentity {
  uint64_t fork_generation;
  pid_t pid;
  pid_t tid;
};

// One TLS read and one relaxed load when nothing changed.
const ProcessIdentity& current_identity();

}  // namespace zorvek
