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
// after them. Each note on how a file was read (damage, a torn or cut end, an
// unfinished header) is one line on `err`, naming the file. Returns the exit
// status (kExit* of zvkfilereader.h): kExitNotRead if a file couldn't be read,
// else kExitDamaged if one was damaged or cut, else kExitReadWhole. Any bytes at
// all may be given: damage is reported, never trusted.
int dump_files(const std::vector<std::string>& paths, const DumpOptions& options,
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

// Runs zvkdump. Returns its exit status: that of dump_files, or kExitUsage.
int zvkdump_main(const std::vector<std::string>& args, Terminals terminals, std::ostream& out,
                 std::ostream& err);

}  // namespace zorvek
