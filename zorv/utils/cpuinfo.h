#pragma once

#include <string>

namespace zorvek {

// The "model name" of the first CPU in /proc/cpuinfo, or empty.
std::string get_cpu_model_id();
// Same, over a given path; lets tests feed machines that aren't this one.
std::string get_cpu_model_id(const char* cpuinfo_path);

}  // namespace zorvek
