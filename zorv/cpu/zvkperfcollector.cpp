#include "zorv/cpu/zvkperfcollector.h"

#include "zorv/utils/logging.h"

namespace zorvek {

ZVKPerfCollector::ZVKPerfCollector(const std::string& name, ZVKQueue<ZVKBuffer>* to_fill,
                                   ZVKQueue<ZVKBuffer>* to_write, ZVKPerfKernel& kernel)
    : ZVKDataCollectorBase(name, to_fill, to_write),
      m_handler(std::make_unique<ZVKPerfHandler>(to_fill, to_write, kernel)) {}

ZVKPerfCollector::ZVKPerfCollector(const std::string& name,
                                   std::shared_ptr<ZVKBufferRecordHelper> helper,
                                   ZVKPerfKernel& kernel)
    : ZVKDataCollectorBase(name, helper),
      m_handler(std::make_unique<ZVKPerfHandler>(std::move(helper), kernel)) {}

Status ZVKPerfCollector::start_profiling() { return m_handler->start(); }

Status ZVKPerfCollector::stop_profiling() { return m_handler->stop(); }

Status ZVKPerfCollector::suspend_profiling() {
  if (!LogMessage::is_quiet()) LOG(WARNING) << m_name << " Suspend not implemented";
  return Status::OK();
}

Status ZVKPerfCollector::resume_profiling() {
  if (!LogMessage::is_quiet()) LOG(WARNING) << m_name << " Resume not implemented";
  return m_handler->restart_after_fork();
}

Status ZVKPerfCollector::configure(const std::map<std::string, std::string>& config) {
  return m_handler->configure(config);
}

}  // namespace zorvek
