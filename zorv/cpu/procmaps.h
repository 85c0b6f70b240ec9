#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace zorvek {

// One executable mapping of a /proc/PID/maps listing.
struct ExecutableMapping {
  uint64_t start;
  uint64_t end;
  uint64_t offset;        // in the file
  std::string_view name;  // the file, or the kernel's name ("[vdso]", "//anon"); may be empty
};

// Calls `visit` for each executable mapping `maps_path` lists, in its order; the
// name is valid during the call only. False when the listing can't be opened.
bool for_each_executable_mapping(const char* maps_path,
                                 const std::function<void(const ExecutableMapping&)>& visit);

}  // namespace zorvek
