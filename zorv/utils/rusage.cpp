#include "zorv/utils/rusage.h"

#include <time.h>

#include <cstdint>
#include <sstream>

#include "zorv/utils/clock.h"
#include "zorv/utils/logging.h"

namespace zorvek {
namespace {

uint64_t micros(const timeval& tv) {
  return static_cast<uint64_t>(tv.tv_sec) * 1000000ULL + static_cast<uint64_t>(tv.tv_usec);
}

double seconds_from_micros(uint64_t end, uint64_t start) {
  return static_cast<double>((end - start) / 1000) / 1000.0;
}

}  // namespace

RUsageHelper::RUsageHelper(const std::string& name) : m_rusage(), m_name(name), m_rusage_ok(true) {
  m_rusage.t_start = std::chrono::system_clock::now();
  if (getrusage(RUSAGE_SELF, &m_rusage.at_start) != 0) {
    LOG(WARNING) << "collection of resource usage failed";
    m_rusage_ok = false;
  }
}

RUsageHelper::~RUsageHelper() {
  m_rusage.t_end = std::chrono::system_clock::now();
  std::ostringstream text;
  if (!m_rusage_ok) {
    LOG(WARNING) << "Couldn't collect resource utilization at the beginning. No info available";
  } else if (getrusage(RUSAGE_SELF, &m_rusage.at_end) != 0) {
    LOG(WARNING) << "last collection of resource usage for " << m_name << " failed";
  } else {
    timespec cpu = {};
    if (clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu) != 0) cpu = timespec{};
    const rusage& a = m_rusage.at_start;
    const rusage& b = m_rusage.at_end;
    text << m_name << " Self resource usage=" << "\n"
         << "s" << "\n"
         << "\tCPU user   :" << seconds_from_micros(micros(b.ru_utime), micros(a.ru_utime)) << "s\n"
         << "\tCPU sys    :" << seconds_from_micros(micros(b.ru_stime), micros(a.ru_stime)) << "s\n"
         << "\tMax RSS    :" << b.ru_maxrss << "\n"
         << "\tminflt     :" << b.ru_minflt - a.ru_minflt << "\n"
         << "\tmajflt     :" << b.ru_majflt - a.ru_majflt << "\n"
         << "\tinbloc     :" << b.ru_inblock - a.ru_inblock << "\n"
         << "\toutbloc    :" << b.ru_oublock - a.ru_oublock << "\n"
         << "\tmsgsnd     :" << b.ru_msgsnd - a.ru_msgsnd << "\n"
         << "\tmsgsnd     :" << b.ru_msgrcv - a.ru_msgrcv << "\n"
         << "\tnsignal    :" << b.ru_nsignals - a.ru_nsignals << "\n"
         << "\tvolconsw   :" << b.ru_nvcsw - a.ru_nvcsw << "\n"
         << "\tinvolconsw :" << b.ru_nivcsw - a.ru_nivcsw << "\n"
         << "\tproc_cpu_t :" << static_cast<double>(timespec_to_ns(cpu) / 1000000) / 1000.0 << " (s)"
         << "\n";
  }
  const auto wall_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(m_rusage.t_end -
                                                                            m_rusage.t_start)
                           .count();
  text << "Wallclock time for " << m_name << "= " << static_cast<double>(wall_ns / 1000000) / 1000.0
       << " s";
  LOG(INFO) << text.str();
}

}  // namespace zorvek
