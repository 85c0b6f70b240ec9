#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "zorv/format/hooks.h"
#include "zorv/io/zvkbuffer.h"
#include "zorv/io/zvkqueue.h"
#include "zorv/utils/status.h"
#include "zorv/utils/zvkmetadata.h"

namespace zorvek {

class ZVKAnnotator;
class ZVKDataCollectorBase;
class ZVKFileWriter;

// A buffer size must stay below 4 GiB once in bytes.
constexpr uint64_t kMaxBucketSizeMB = 4095;

using ZVKConfigSection = std::map<std::string, std::string>;

// The three string maps a script fills: sections "ZORV", "CUDA" and "PERF".
struct ZVKConfig {
  ZVKConfig() = default;
  ZVKConfig(const ZVKConfig&) = default;
  ~ZVKConfig() = default;

  // GPU tracing with the annotator, no CPU sampling.
  static ZVKConfig default_config();

  ZVKConfigSection self_config;
  ZVKConfigSection cuda_config;
  ZVKConfigSection perf_config;
};

// True while a fork is in progress; keeps a suspended capture marked active.
extern "C" bool fork_suspend;

// The one controller of the process. Owns the queues, the writer, the collectors
// and the annotator, and alone decides the order in which they start and stop.
// Callers serialise themselves (the Python module holds the interpreter lock).
class Zorv {
 public:
  static Zorv& instance();

  Zorv(const Zorv&) = delete;
  Zorv(Zorv&&) = delete;
  Zorv& operator=(const Zorv&) = delete;
  Zorv& operator=(Zorv&&) = delete;

  Status configure(std::map<std::string, ZVKConfigSection> config);
  bool is_configured() const { return m_writer != nullptr; }

  Status start_profiling();
  Status stop_profiling();
  Status suspend_profiling();
  Status resume_profiling();
  // For the fork handlers only.
  Status resume(bool is_children);
  // For the child's fork handler: the buffers it inherited hold its parent's
  // records, which only the parent writes; the child starts with them all empty.
  void discard_inherited_records();
  // For the end of the process, ahead of the static destructors: a capture still
  // running is stopped, and a suspended one's GPU tracing.
  void stop_at_exit();

  uint64_t annotate_begin(const std::string& msg);
  uint64_t annotate_begin(const char* msg, uint64_t len);
  void annotate_end(uint64_t token);
  void annotate_marker(const std::string& msg);
  void annotate_marker(const char* msg, uint64_t len);

  bool is_active() const { return m_active; }
  const std::string& file_pattern() const { return m_filename; }

 private:
  friend struct ZorvTestPeer;

  Zorv();
  ~Zorv();

  Status enable_hooks();
  Status disable_hooks();
  // Logs the records producers dropped since the last report.
  void report_dropped_records();

  // Collectors are reached only through ZVKDataCollectorBase; the concrete GPU
  // collector arrives with that subsystem.
  ZVKDataCollectorBase* m_cuda_collector = nullptr;
  ZVKDataCollectorBase* m_perf_collector = nullptr;
  // Per-thread stack sampling, beside the perf collector: it starts after it and
  // stops before it. Null unless "ThreadSamplerHz" is above 0.
  ZVKDataCollectorBase* m_thread_sampler = nullptr;
  ZVKAnnotator* m_annotator = nullptr;
  ZVKFileWriter* m_writer = nullptr;
  ZVKQueue<ZVKBuffer>* m_to_fill = nullptr;
  ZVKQueue<ZVKBuffer>* m_to_write = nullptr;
  std::string m_filename;
  JobMetadata m_metadata;
  uint32_t m_bucket_count;
  uint32_t m_bucket_size;
  uint32_t m_compression;
  bool m_active;
  bool m_activate_in_children;
  // The libraries were given our table at a start and not yet their own back.
  bool m_hooks_installed = false;
};

extern "C" ZVKIFuncTable_t instrumentation_funcs;

Status update_tables(ZVKIFuncTable_t* table);

}  // namespace zorvek
