#pragma once

#include <sys/resource.h>

#include <chrono>
#include <string>

namespace zorvek {

// Scope guard that logs the process's resource use over its lifetime.
class RUsageHelper {
 public:
  explicit RUsageHelper(const std::string& name);
  ~RUsageHelper();
  RUsageHelper(const RUsageHelper&) = delete;
  RUsageHelper& operator=(const RUsageHelper&) = delete;

 private:
  struct SelfRUsage {
    rusage at_start;
    rusage at_end;
    std::chrono::system_clock::time_point t_start;
    std::chrono::system_clock::time_point t_end;
  };
  SelfRUsage m_rusage;
  std::string m_name;
  bool m_rusage_ok;
};

}  // namespace zorvek
