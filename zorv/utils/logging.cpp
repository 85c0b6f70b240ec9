#include "zorv/utils/logging.h"

#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>

namespace zorvek {
namespace {

const char* const LOG_LVL_TO_NAME[] = {"INFO", "WARNING", "ERROR", "FATAL", "SILENT"};

// Unset or empty gives 0; anything else goes through strtoll with no end check.
int read_level_from_env(const char* name) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return 0;
  return static_cast<int>(std::strtoll(text, nullptr, 10));
}

}  // namespace

LogMessage::LogMessage(const char* filename, int lineno, int severity)
    : file_(filename), lineno_(lineno), lvl_(severity < 0 ? 0 : (severity > 4 ? 4 : severity)) {}

LogMessage::~LogMessage() {
  static const int curr_lvl = read_level_from_env("ZORV_MIN_LOG_LEVEL");
  if (lvl_ >= curr_lvl) generate_msg();
}

int LogMessage::max_vlog_level() {
  static const int max_level = read_level_from_env("ZORV_MAX_VLOG_LEVEL");
  return max_level;
}

bool LogMessage::is_quiet() {
  static const bool quiet = read_level_from_env("ZORV_QUIET") == 1;
  return quiet;
}

bool LogMessage::is_vlog_active(const char* /*filename*/, int level) {
  return level <= max_vlog_level();
}

void LogMessage::generate_msg() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  struct tm local;
  localtime_r(&now.tv_sec, &local);
  char time_text[60];
  size_t used = strftime(time_text, sizeof(time_text), "%H:%M:%S", &local);
  snprintf(time_text + used, sizeof(time_text) - used, ".%03ld",
           static_cast<long>(now.tv_usec / 1000));

  std::ostringstream line;
  line << "LOG(" << LOG_LVL_TO_NAME[lvl_] << ") [ " << time_text << " ] @ " << file_ << ":"
       << lineno_ << "| " << str() << "\n";
  std::cerr << line.str() << std::flush;
}

LogMessageFatal::LogMessageFatal(const char* filename, int lineno)
    : LogMessage(filename, lineno, FATAL) {}

LogMessageFatal::~LogMessageFatal() {
  generate_msg();
  std::abort();
}

}  // namespace zorvek
