#include "zorv/utils/utils.h"

#include <fcntl.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "zorv/utils/logging.h"

namespace zorvek {

template <>
std::string get_value_as<std::string>(const std::string& value, std::string default_value) {
  return value.empty() ? default_value : value;
}

template <>
double get_value_as<double>(const std::string& value, double default_value) {
  return value.empty() ? default_value : std::strtod(value.c_str(), nullptr);
}

template <>
uint64_t get_value_as<uint64_t>(const std::string& value, uint64_t default_value) {
  return value.empty() ? default_value : std::strtoull(value.c_str(), nullptr, 10);
}

template <>
uint32_t get_value_as<uint32_t>(const std::string& value, uint32_t default_value) {
  return value.empty() ? default_value
                       : static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
}

template <>
int32_t get_value_as<int32_t>(const std::string& value, int32_t default_value) {
  return value.empty() ? default_value
                       : static_cast<int32_t>(std::strtol(value.c_str(), nullptr, 10));
}

template <>
int64_t get_value_as<int64_t>(const std::string& value, int64_t default_value) {
  return value.empty() ? default_value : std::strtoll(value.c_str(), nullptr, 10);
}

template <>
bool get_value_as<bool>(const std::string& value, bool default_value) {
  return value.empty() ? default_value : std::strtol(value.c_str(), nullptr, 10) > 0;
}

template <typename T>
T get_env_value_as(const std::string& env_name, T default_value) {
  const char* text = std::getenv(env_name.c_str());
  if (text == nullptr) return default_value;
  return get_value_as<T>(text, default_value);
}

template uint32_t get_env_value_as<uint32_t>(const std::string&, uint32_t);
template uint64_t get_env_value_as<uint64_t>(const std::string&, uint64_t);
template int64_t get_env_value_as<int64_t>(const std::string&, int64_t);

std::vector<std::string> split(const std::string& text, char delimiter) {
  std::vector<std::string> tokens;
  const char* start = text.data();
  const char* end = text.data() + text.size();
  for (const char* current = start; current != end; ++current) {
    if (*current != delimiter) continue;
    if (current != start + 1) tokens.emplace_back(start, current);
    start = current + 1;
  }
  if (start < end) tokens.emplace_back(start, end);
  return tokens;
}

std::string local_time_text(uint64_t ns, const char* format) {
  const time_t seconds = static_cast<time_t>(ns / 1000000000ULL);
  struct tm local;
  localtime_r(&seconds, &local);
  char text[64];
  size_t used = strftime(text, sizeof(text), format, &local);
  snprintf(text + used, sizeof(text) - used, ".%06ld",
           static_cast<long>((ns % 1000000000ULL) / 1000));
  return text;
}

uint64_t get_clock_offset() {
  constexpr int kRounds = 10;
  timespec tps[kRounds] = {};
  timespec tcs[kRounds] = {};
  for (int i = 0; i < kRounds; ++i) {
    clock_gettime(CLOCK_MONOTONIC_RAW, &tps[i]);
    clock_gettime(CLOCK_REALTIME, &tcs[i]);
  }
  uint64_t sum = 0;
  for (int i = 0; i < kRounds; ++i) sum += timespec_to_ns(tcs[i]) - timespec_to_ns(tps[i]);
  const uint64_t average_offset = sum / kRounds;

  // Five back-to-back reads measure the cost of one call.
  timespec first = {}, last = {};
  clock_gettime(CLOCK_MONOTONIC_RAW, &first);
  for (int i = 0; i < 5; ++i) clock_gettime(CLOCK_MONOTONIC_RAW, &last);
  const uint64_t bias = (timespec_to_ns(last) - timespec_to_ns(first)) / 5;
  return average_offset - bias;
}

std::string get_cpu_model_id() { return get_cpu_model_id("/proc/cpuinfo"); }

std::string get_cpu_model_id(const char* cpuinfo_path) {
  int fd = open(cpuinfo_path, O_RDONLY);
  if (fd < 0) {
    LOG(ERROR) << "Can't find CPU info from /proc/cpuinfo ! " << strerror(errno);
    return std::string();
  }
  char block[2048];
  ssize_t got = read(fd, block, sizeof(block) - 1);
  int read_errno = errno;
  close(fd);
  if (got < 1) {
    LOG(ERROR) << "Can't read /proc/cpuinfo ! " << strerror(read_errno);
    return std::string();
  }
  const char* end = block + got;
  // The search begins behind the first line end: the first line is never looked at.
  const char* line = static_cast<const char*>(memchr(block, '\n', got));
  while (line != nullptr && line < end) {
    ++line;
    const char* line_end = static_cast<const char*>(memchr(line, '\n', end - line));
    if (line_end == nullptr) line_end = end;
    if (line_end - line >= 10 && memcmp(line, "model name", 10) == 0) {
      const char* colon = static_cast<const char*>(memchr(line, ':', line_end - line));
      if (colon == nullptr) return std::string();
      const char* value = colon + 1;
      while (value < line_end && *value == ' ') ++value;
      return std::string(value, line_end);
    }
    line = line_end < end ? line_end : nullptr;
  }
  return std::string();
}

namespace {

uint64_t micros(const timeval& tv) {
  return static_cast<uint64_t>(tv.tv_sec) * 1000000ULL + static_cast<uint64_t>(tv.tv_usec);
}

double seconds_from_micros(uint64_t end, uint64_t start) {
  return static_cast<double>((end - start) / 1000) / 1000.0;
}

}  // namespace

RUsageHelper::RUsageHelper(const std::string& name) : m_rusage(), m_name(name), m_rusage_ok(true) {
  m_rusage.t_start = std::chrono::system_clock::now();
  if (getrusage(RUSAGE_SELF, &m_rusage.at_start) != 0) {
    LOG(WARNING) << "collection of resource usage failed";
    m_rusage_ok = false;
  }
}

RUsageHelper::~RUsageHelper() {
  m_rusage.t_end = std::chrono::system_clock::now();
  std::ostringstream text;
  if (!m_rusage_ok) {
    LOG(WARNING) << "Couldn't collect resource utilization at the beginning. No info available";
  } else if (getrusage(RUSAGE_SELF, &m_rusage.at_end) != 0) {
    LOG(WARNING) << "last collection of resource usage for " << m_name << " failed";
  } else {
    timespec cpu = {};
    if (clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu) != 0) cpu = timespec{};
    const rusage& a = m_rusage.at_start;
    const rusage& b = m_rusage.at_end;
    text << m_name << " Self resource usage=" << "\n"
         << "s" << "\n"
         << "\tCPU user   :" << seconds_from_micros(micros(b.ru_utime), micros(a.ru_utime)) << "s\n"
         << "\tCPU sys    :" << seconds_from_micros(micros(b.ru_stime), micros(a.ru_stime)) << "s\n"
         << "\tMax RSS    :" << b.ru_maxrss << "\n"
         << "\tminflt     :" << b.ru_minflt - a.ru_minflt << "\n"
         << "\tmajflt     :" << b.ru_majflt - a.ru_majflt << "\n"
         << "\tinbloc     :" << b.ru_inblock - a.ru_inblock << "\n"
         << "\toutbloc    :" << b.ru_oublock - a.ru_oublock << "\n"
         << "\tmsgsnd     :" << b.ru_msgsnd - a.ru_msgsnd << "\n"
         << "\tmsgsnd     :" << b.ru_msgrcv - a.ru_msgrcv << "\n"
         << "\tnsignal    :" << b.ru_nsignals - a.ru_nsignals << "\n"
         << "\tvolconsw   :" << b.ru_nvcsw - a.ru_nvcsw << "\n"
         << "\tinvolconsw :" << b.ru_nivcsw - a.ru_nivcsw << "\n"
         << "\tproc_cpu_t :" << static_cast<double>(timespec_to_ns(cpu) / 1000000) / 1000.0 << " (s)"
         << "\n";
  }
  const auto wall_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(m_rusage.t_end -
                                                                            m_rusage.t_start)
                           .count();
  text << "Wallclock time for " << m_name << "= " << static_cast<double>(wall_ns / 1000000) / 1000.0
       << " s";
  LOG(INFO) << text.str();
}

namespace {

std::atomic<uint64_t> g_fork_generation{1};
// initial-exec: no __tls_get_addr, also when loaded as a Python extension.
__thread ProcessIdentity t_identity __attribute__((tls_model("initial-exec"))) = {0, 0, 0};

void bump_fork_generation() { g_fork_generation.fetch_add(1, std::memory_order_relaxed); }

void refresh_identity() {
  static std::once_flag registered;
  std::call_once(registered, [] { pthread_atfork(nullptr, nullptr, bump_fork_generation); });
  t_identity.pid = getpid();
  t_identity.tid = static_cast<pid_t>(syscall(SYS_gettid));
  t_identity.fork_generation = g_fork_generation.load(std::memory_order_relaxed);
}

}  // namespace

const ProcessIdentity& current_identity() {
  if (__builtin_expect(
          t_identity.fork_generation != g_fork_generation.load(std::memory_order_relaxed), 0)) {
    refresh_identity();
  }
  return t_identity;
}

}  // namespace zorvek
