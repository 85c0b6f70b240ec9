#pragma once

#include <map>
#include <memory>
#include <string>

#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkqueue.h"
#include "zorv/utils/status.h"

namespace zorvek {

// What the controller sees of a data source. Built either on the two queues (the
// collector makes record helpers of its own) or on one shared record helper.
//
// Calling order a collector can rely on: construction, configure once, then
// start_profiling, any number of suspend/resume, stop_profiling, and start again
// or destruction. A forked child gets resume_profiling on its inherited copy.
class ZVKDataCollectorBase {
 public:
  ZVKDataCollectorBase(const std::string& name, ZVKQueue<ZVKBuffer>* to_fill,
                       ZVKQueue<ZVKBuffer>* to_write)
      : m_name(name), m_fill(to_fill), m_write(to_write) {}
  ZVKDataCollectorBase(const std::string& name, std::shared_ptr<ZVKBufferRecordHelper> helper)
      : m_name(name), m_fill(nullptr), m_write(nullptr), m_helper(std::move(helper)) {}
  ZVKDataCollectorBase(const ZVKDataCollectorBase&) = delete;
  ZVKDataCollectorBase& operator=(const ZVKDataCollectorBase&) = delete;
  virtual ~ZVKDataCollectorBase() = default;

  virtual Status start_profiling() = 0;
  // A failure is only logged by the controller: release what can be released anyway.
  virtual Status stop_profiling() = 0;
  virtual Status suspend_profiling() = 0;
  virtual Status resume_profiling() = 0;
  virtual Status configure(const std::map<std::string, std::string>& config) = 0;

  const std::string& name() const { return m_name; }

 protected:
  const std::string m_name;
  ZVKQueue<ZVKBuffer>* m_fill;
  ZVKQueue<ZVKBuffer>* m_write;
  std::shared_ptr<ZVKBufferRecordHelper> m_helper;
};

}  // namespace zorvek
