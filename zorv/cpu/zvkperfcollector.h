#pragma once

#include <map>
#include <memory>
#include <string>

#include "zorv/cpu/zvkperfhandler.h"
#include "zorv/zvkregistry.h"

namespace zorvek {

// CPU sampling as the controller sees it: a collector around one ZVKPerfHandler.
// Sampling isn't suspended: it runs on through a suspension of the profiler.
class ZVKPerfCollector : public ZVKDataCollectorBase {
 public:
  ZVKPerfCollector(const std::string& name, ZVKQueue<ZVKBuffer>* to_fill,
                   ZVKQueue<ZVKBuffer>* to_write, ZVKPerfKernel& kernel = ZVKPerfKernel::real());
  ZVKPerfCollector(const std::string& name, std::shared_ptr<ZVKBufferRecordHelper> helper,
                   ZVKPerfKernel& kernel = ZVKPerfKernel::real());
  ~ZVKPerfCollector() override = default;

  Status start_profiling() override;
  Status stop_profiling() override;
  Status suspend_profiling() override;
  Status resume_profiling() override;
  Status configure(const std::map<std::string, std::string>& config) override;

  const ZVKPerfHandler& handler() const { return *m_handler; }

 private:
  std::unique_ptr<ZVKPerfHandler> m_handler;
};

}  // namespace zorvek
