#include "zorv/utils/cpuinfo.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "zorv/utils/logging.h"

namespace zorvek {

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

}  // namespace zorvek
