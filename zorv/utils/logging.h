#pragma once

#include <ostream>
#include <sstream>

namespace zorvek {

enum LogSeverity : int { INFO = 0, WARNING = 1, ERROR = 2, FATAL = 3, SILENT = 4 };

// One stream-style log line: built for one message, emitted by its destructor
// to std::cerr in a single insertion so lines of different threads don't mix.
class LogMessage : public std::ostringstream {
 public:
  LogMessage(const char* filename, int lineno, int severity);
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;
  virtual ~LogMessage();

  static int max_vlog_level();
  static bool is_vlog_active(const char* filename, int level);
  // ZORV_QUIET, read once like the levels ("1": on): lines that report nothing
  // (a stall of 0 s, an operation with nothing to do) are left out.
  static bool is_quiet();

  int severity() const { return lvl_; }

 protected:
  void generate_msg();

 private:
  const char* file_;
  int lineno_;
  int lvl_;
};

// Prints whatever the minimum level says, then aborts. Stands ready for fatal checks.
class LogMessageFatal : public LogMessage {
 public:
  LogMessageFatal(const char* filename, int lineno);
  ~LogMessageFatal() override;  // never returns: aborts
};

// Swallows the stream in the discarded arm of a conditional so a LOG stays one statement.
struct asVoid {
  void operator&(const std::ostream&) {}
};

}  // namespace zorvek

#define LOG(severity) ::zorvek::LogMessage(__FILE__, __LINE__, (severity))
#define LOG_FATAL ::zorvek::LogMessageFatal(__FILE__, __LINE__)
#define VLOG(level)                                                \
  !::zorvek::LogMessage::is_vlog_active(__FILE__, (level)) ? (void)0 \
                                                          : ::zorvek::asVoid() & LOG(::zorvek::INFO)
