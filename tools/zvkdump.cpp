// zvkdump: prints capture files (.zvkraw) record by record, as JSON, or as a summary.
//
//   zvkdump [--json] [--summary] [--progress | --no-progress] [--] FILE...
//
// Exit status: 0 when every file was read whole; 1 when a file is missing,
// unreadable or not a capture file; 2 on a usage error; 3 when every file was
// read but one was damaged or cut. Notes on how a file was read go to stderr.

#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "tools/zvkdumper.h"

int main(int argc, char** argv) {
  // A dump prints millions of small pieces; unsynchronised with stdio, each is a
  // copy into the stream's buffer rather than a call into stdio.
  std::ios::sync_with_stdio(false);
  const std::vector<std::string> args(argv + 1, argv + argc);
  const zorvek::Terminals terminals{isatty(STDOUT_FILENO) == 1, isatty(STDERR_FILENO) == 1};
  return zorvek::zvkdump_main(args, terminals, std::cout, std::cerr);
}
