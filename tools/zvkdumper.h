#pragma once

#include <ostream>
#include <string>

namespace zorvek {

enum class DumpMode { kText, kJson, kSummary };

// Prints one capture file to `out`: its header, then every bucket and record
// decoded (kText), the same as one JSON object (kJson), or records by kind and
// annotation ranges (kSummary). Returns false if the file couldn't be read to its
// end, after one line on `err` naming the file and the reason; a torn last bucket,
// which a killed writer leaves, is noted in `out` and is no failure. Any bytes at
// all may be given: damage is reported, never trusted.
bool dump_file(const std::string& path, DumpMode mode, std::ostream& out, std::ostream& err);

}  // namespace zorvek
