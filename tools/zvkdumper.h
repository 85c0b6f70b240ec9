#pragma once

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

namespace zorvek {

enum class DumpFormat { kText, kJson };

// Progress on the error stream while files are read, for runs long enough to
// want it: "zvkdump: FILE: 40% (12 buckets)".
struct ProgressOptions {
  bool enabled = false;
  // One line rewritten in place with '\r', as on a terminal; otherwise a line per
  // update, as in a log.
  bool in_place = false;
  // Nothing is shown before the run is this old, so quick runs stay quiet...
  std::chrono::milliseconds quiet_for{1000};
  // ...and then at most one update per this long.
  std::chrono::milliseconds every{250};
};

struct DumpOptions {
  DumpFormat format = DumpFormat::kText;
  // Records by kind, annotation ranges and what CPU sampling and GPU tracing
  // recorded, instead of every bucket and record.
  bool summary = false;
  ProgressOptions progress;
};

// Prints capture files to `out`: each one's header, then every bucket and record
// decoded, or its summary; as text, or as JSON. JSON is one document whatever the
// number of files: the file's object for one file, an array of them for several.
// Damaged bytes in a file are skipped, and reading goes on at the next whole bucket
// after them. Returns false if a file couldn't be read or had damage, after one line
// on `err` per failure, naming the file; a torn last bucket, which a killed writer
// leaves, is noted in `out` and is no failure. Any bytes at all may be given:
// damage is reported, never trusted.
bool dump_files(const std::vector<std::string>& paths, const DumpOptions& options,
                std::ostream& out, std::ostream& err);

// Which of the standard streams are terminals: progress is shown by default only
// where it can't land among the output.
struct Terminals {
  bool out = false;
  bool err = false;
};

// zvkdump's command line, the arguments after the program's name.
struct CommandLine {
  DumpOptions options;
  std::vector<std::string> files;
  bool help = false;
  std::string error;  // a usage error, empty when there is none
};
CommandLine parse_command_line(const std::vector<std::string>& args, Terminals terminals);

// Runs zvkdump. Returns its exit status: 0 when every file was read whole, 1 when
// one couldn't be read or had damage, 2 on a usage error.
int zvkdump_main(const std::vector<std::string>& args, Terminals terminals, std::ostream& out,
                 std::ostream& err);

}  // namespace zorvek
