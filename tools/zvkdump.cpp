// zvkdump: prints capture files (.zvkraw) record by record, as JSON, or as a summary.
//
//   zvkdump [--json | --summary] FILE...
//
// Exit status: 0 when every file was read to its end (a torn last bucket, which a
// killed writer leaves, is reported but is no error); 1 when a file is unreadable,
// not a capture file, or damaged; 2 on a usage error.

#include <iostream>
#include <string>
#include <vector>

#include "tools/zvkdumper.h"

int main(int argc, char** argv) {
  using zorvek::DumpMode;
  DumpMode mode = DumpMode::kText;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--json") {
      mode = DumpMode::kJson;
    } else if (arg == "--summary") {
      mode = DumpMode::kSummary;
    } else if (arg == "-h" || arg == "--help") {
      std::cout << "usage: zvkdump [--json | --summary] FILE...\n";
      return 0;
    } else {
      files.push_back(arg);
    }
  }
  if (files.empty()) {
    std::cerr << "usage: zvkdump [--json | --summary] FILE..." << std::endl;
    return 2;
  }
  bool all_clean = true;
  for (const std::string& file : files) all_clean = zorvek::dump_file(file, mode, std::cout, std::cerr) && all_clean;
  return all_clean ? 0 : 1;
}
