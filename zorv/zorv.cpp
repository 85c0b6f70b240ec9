#include "zorv/zorv.h"

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "zorv/cpu/zvkperfcollector.h"
#include "zorv/cpu/zvkthreadsampler.h"
#include "zorv/cuda/zvkcudacollector.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkforklocks.h"
#include "zorv/io/zvkfilewriter.h"
#include "zorv/utils/logging.h"
#include "zorv/utils/utils.h"
#include "zorv/zvkannotator.h"
#include "zorv/zvkregistry.h"

namespace zorvek {

extern "C" {
bool fork_suspend = false;
}

namespace {

// Annotation calls come from any thread, through the hook tables too, and may still
// come while the process exits, from exit handlers and from threads that exit
// doesn't stop. They reach the annotator only through this gate, which knows how
// many are inside. So the controller's destructor can close it and wait for those
// inside before the annotator goes, and a fork can hold new calls back and wait,
// so that no other thread is inside the record path at the fork: none then holds a
// buffer, or a lock, that the child would inherit held by a thread it doesn't have.
// Plain atomics with constant initialisers: they outlive every destructor. All
// sequentially consistent: the counter's change and the flag's read on one side,
// the flag's change and the counter's read on the other, can't both miss.
class AnnotationGate {
 public:
  // One call's passage: the annotator it may use, or null once the gate is closed.
  class Pass {
   public:
    Pass() {
      s_in_flight.fetch_add(1);
      while (__builtin_expect(s_held.load(), 0)) {
        s_in_flight.fetch_sub(1);
        while (s_held.load()) std::this_thread::sleep_for(kPoll);
        s_in_flight.fetch_add(1);
      }
      m_annotator = s_annotator.load();
    }
    ~Pass() { s_in_flight.fetch_sub(1); }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    ZVKAnnotator* annotator() const { return m_annotator; }

   private:
    ZVKAnnotator* m_annotator;
  };

  static void open(ZVKAnnotator* target) { s_annotator.store(target); }

  // Later calls find no annotator; those inside finish first. Bounded: a call waits
  // for a buffer only while the writer runs to free one, and for a while at most.
  static void close() {
    s_annotator.store(nullptr);
    wait_until_empty();
  }

  // For the fork: new calls wait, those inside finish. With the writer suspended
  // before, no call waits for a buffer, so this is short.
  static void hold() {
    s_held.store(true);
    wait_until_empty();
  }
  static void release() { s_held.store(false); }
  // In a forked child: the calls other threads had under way don't exist there.
  static void release_in_child() {
    s_in_flight.store(0);
    release();
  }

 private:
  static constexpr std::chrono::microseconds kPoll{50};

  static void wait_until_empty() {
    while (s_in_flight.load() != 0) std::this_thread::sleep_for(kPoll);
  }

  static std::atomic<ZVKAnnotator*> s_annotator;
  static std::atomic<uint32_t> s_in_flight;
  static std::atomic<bool> s_held;
};

std::atomic<ZVKAnnotator*> AnnotationGate::s_annotator{nullptr};
std::atomic<uint32_t> AnnotationGate::s_in_flight{0};
std::atomic<bool> AnnotationGate::s_held{false};

constexpr const char* kDefaultFilePattern = "zorvek_%h_%p_%t";
constexpr const char* kKelvaneFilePattern = "/opt/kv/output/profiler/framework/zorvek_%h_%p_%t";

// Around a fork: the capture is suspended, which joins the writer thread; then
// annotations are held back until none is under way; then the pipeline's locks are
// taken, for the producers that don't annotate (CPU sampling's workers, GPU
// callbacks): a lock that another thread held at the fork would stay held for ever
// in the child. The locks are let go before anything resumes; annotations go on
// once the writer runs again.
void atfork_prep() {
  fork_suspend = true;
  ZVK_LOG_NOT_OK(ERROR, Zorv::instance().suspend_profiling(), "Suspending profiling failed!");
  AnnotationGate::hold();
  ZVKForkLocks::acquire_all();
}

void atfork_parent() {
  ZVKForkLocks::release_all();
  ZVK_LOG_NOT_OK(ERROR, Zorv::instance().resume(false), "Resuming profiling for parent failed!");
  AnnotationGate::release();
  fork_suspend = false;
}

// The child's buffers go back to empty before its writer starts: what they held
// are the parent's records, which the parent writes.
void atfork_children() {
  ZVKForkLocks::release_all();
  Zorv::instance().discard_inherited_records();
  ZVK_LOG_NOT_OK(ERROR, Zorv::instance().resume(true), "Resuming profiling for children failed!");
  AnnotationGate::release_in_child();
  fork_suspend = false;
}

}  // namespace

ZVKConfig ZVKConfig::default_config() {
  ZVKConfig config;
  config.self_config["EnableCuda"] = "1";
  return config;
}

Zorv& Zorv::instance() {
  static Zorv zorv;
  return zorv;
}

Zorv::Zorv()
    : m_filename(kDefaultFilePattern),
      m_bucket_count(32),
      m_bucket_size(64),
      m_compression(1000001),
      m_active(false),
      m_activate_in_children(false) {
  // Child handlers run in the order of registration: the identity cache's comes
  // first, so that ours already sees the child's process and thread ids.
  register_identity_fork_handler();
  const int result = pthread_atfork(atfork_prep, atfork_parent, atfork_children);
  if (result != 0) {
    LOG(WARNING) << "Registering fork handlers failed! error was " << result
                 << " strerror= " << strerror(result);
  }
  m_metadata = resolve_metadata();
}

Zorv::~Zorv() {
  // First no annotation gets through any more, then the capture stops, which takes
  // the hooks back from the libraries, and only then does the annotator go.
  AnnotationGate::close();
  if (m_active) {
    ZVK_LOG_NOT_OK(ERROR, stop_profiling(), "Stopping Failed!");
  } else if (m_hooks_installed) {
    disable_hooks();
  }
  delete m_annotator;
  m_annotator = nullptr;
  delete m_cuda_collector;
  delete m_thread_sampler;
  delete m_perf_collector;
  delete m_writer;
  delete m_to_write;
  delete m_to_fill;  // owns the buffer memory: last
}

namespace {

// Settings that can only hang the job or lose every record are refused here,
// before anything is built.
Status check_settings(uint32_t bucket_count, uint32_t minimum_bucket_count, uint64_t bucket_size_mb,
                      uint32_t compression) {
  if (bucket_count < minimum_bucket_count) {
    return Status(error::INVALID_ARGUMENT,
                  "BucketCount must be at least " + std::to_string(minimum_bucket_count) +
                      ", one buffer for each record producer and one for the writer; got " +
                      std::to_string(bucket_count));
  }
  if (bucket_size_mb < 1 || bucket_size_mb > kMaxBucketSizeMB) {
    return Status(error::INVALID_ARGUMENT, "BucketSizeMB must be between 1 and " +
                                               std::to_string(kMaxBucketSizeMB) + "; got " +
                                               std::to_string(bucket_size_mb));
  }
  const uint32_t level = compression % ZVKFileWriter::ZLIB;
  if (level > 9 || (compression != level && compression != ZVKFileWriter::ZLIB + level)) {
    return Status(error::INVALID_ARGUMENT,
                  "Compression must be 1000000 plus a zlib level from 0 to 9 (1000001 is level "
                  "1), or the level alone; got " +
                      std::to_string(compression));
  }
  return Status::OK();
}

}  // namespace

Status Zorv::configure(std::map<std::string, ZVKConfigSection> config) {
  if (m_writer != nullptr) return Status(error::FAILED_PRECONDITION, "Already configured!");

  // Settled into locals and kept only once everything is built, so that a refused
  // or failed configure leaves the profiler as it found it.
  uint32_t bucket_count = m_bucket_count;
  uint64_t bucket_size_mb = m_bucket_size;
  uint32_t compression = m_compression;
  uint32_t flush_interval_ms = ZVKFileWriter::kDefaultFlushIntervalMs;
  bool share_files = false;
  bool activate_in_children = m_activate_in_children;
  std::string filename = m_filename;
  bool enable_cuda = false;
  bool enable_perf = false;
  bool shared_buffers = false;
  bool shared_annotations = true;
  auto zorv_section = config.find("ZORV");
  if (zorv_section != config.end()) {
    const ZVKConfigSection& keys = zorv_section->second;
    bucket_count = key_value_as<uint32_t>(keys, "BucketCount", bucket_count);
    bucket_size_mb = key_value_as<uint64_t>(keys, "BucketSizeMB", bucket_size_mb);
    compression = key_value_as<uint32_t>(keys, "Compression", compression);
    enable_cuda = key_value_as<bool>(keys, "EnableCuda", false);
    enable_perf = key_value_as<bool>(keys, "EnablePerf", false);
    shared_buffers = key_value_as<bool>(keys, "SharedBuffers", false);
    shared_annotations = key_value_as<bool>(keys, "SharedAnnotations", true);
    activate_in_children = key_value_as<bool>(keys, "EnableForkFollow", activate_in_children);
    flush_interval_ms = key_value_as<uint32_t>(keys, "FlushIntervalMs", flush_interval_ms);
    share_files = key_value_as<bool>(keys, "ShareFiles", share_files);
    if (getenv("ZV_CURRENT_HOST") != nullptr) {
      LOG(WARNING) << "Setting output file in Kelvane environment is not allowed!";
      filename = kKelvaneFilePattern;
    } else {
      filename = key_value_as<std::string>(keys, "RecordFile", filename);
      if (filename.empty()) {
        filename = kDefaultFilePattern;
        LOG(ERROR) << "Got empty file name! Reverting it back to default! \"" << filename << "\"";
      }
    }
  }

  bucket_count = get_env_value_as<uint32_t>("ZVK_BUCKET_COUNT", bucket_count);
  bucket_size_mb = get_env_value_as<uint64_t>("ZVK_BUCKET_SIZE_MB", bucket_size_mb);
  if (const char* follow = getenv("ZVK_ENABLE_FORK_FOLLOW")) {
    activate_in_children = get_value_as<bool>(follow, activate_in_children);
  }
  compression = get_env_value_as<uint32_t>("ZVK_BUCKET_COMPRESSION", compression);
  if (const char* name = getenv("ZVK_OUTPUT_FILE_NAME")) {
    filename = get_value_as<std::string>(name, filename);
  }
  flush_interval_ms = get_env_value_as<uint32_t>("ZVK_FLUSH_INTERVAL_MS", flush_interval_ms);
  if (const char* share = getenv("ZVK_SHARE_FILES")) {
    share_files = get_value_as<bool>(share, share_files);
  }

  const bool shared = shared_buffers || shared_annotations;
  // Without sharing, each producer holds a buffer of its own: the annotator, CPU
  // sampling's workers and GPU tracing.
  const auto perf_section = config.find("PERF");
  const uint32_t perf_helpers =
      !enable_perf ? 0
                   : ZVKPerfHandler::record_helpers_for(
                         perf_section != config.end() ? perf_section->second : ZVKConfigSection());
  ThreadSamplerSettings sampler_settings;
  const Status sampler_read = ThreadSamplerSettings::read(
      perf_section != config.end() ? perf_section->second : ZVKConfigSection(), &sampler_settings);
  if (!sampler_read.ok()) {
    LOG(ERROR) << "Configuration refused: " << sampler_read.msg_;
    return sampler_read;
  }
  const bool enable_sampler = sampler_settings.hz > 0;
  const uint32_t record_helpers =
      shared ? 1 : 1 + perf_helpers + (enable_sampler ? 1 : 0) + (enable_cuda ? 1 : 0);
  const Status settings =
      check_settings(bucket_count, record_helpers + 1, bucket_size_mb, compression);
  if (!settings.ok()) {
    LOG(ERROR) << "Configuration refused: " << settings.msg_;
    return settings;
  }
  const uint32_t bucket_size = static_cast<uint32_t>(bucket_size_mb << 20);

  auto to_fill = std::make_unique<ZVKQueue<ZVKBuffer>>(bucket_count, bucket_size);
  if (to_fill->storage() == nullptr) {
    return Status(error::INSUFFICIENT_RESOURCES, "Couldn't allocate the buffer memory!");
  }
  m_to_fill = to_fill.release();
  m_to_write = new ZVKQueue<ZVKBuffer>();
  m_bucket_count = bucket_count;
  m_bucket_size = bucket_size;
  m_compression = compression;
  m_activate_in_children = activate_in_children;
  m_filename = filename;

  std::shared_ptr<ZVKBufferRecordHelper> helper;
  if (shared) helper = std::make_shared<ZVKBufferRecordHelper>(m_to_fill, m_to_write);

  if (enable_perf) {
    LOG(INFO) << "CPU capture enabled " << "\n";
    m_perf_collector = shared ? new ZVKPerfCollector("PERFCollector", helper)
                              : new ZVKPerfCollector("PERFCollector", m_to_fill, m_to_write);
  }
  if (enable_sampler) {
    m_thread_sampler = shared ? new ZVKThreadSampler("ThreadSampler", helper)
                              : new ZVKThreadSampler("ThreadSampler", m_to_fill, m_to_write);
  }
  if (enable_cuda) {
    LOG(INFO) << "CUDA capture enabled " << "\n";
    m_cuda_collector = shared ? new ZVKCudaCollector("CUDACollector", helper)
                              : new ZVKCudaCollector("CUDACollector", m_to_fill, m_to_write);
  }

  // The annotator writes its time marker now, ahead of every later record.
  m_annotator = shared ? new ZVKAnnotator("SharedAnnotator", helper)
                       : new ZVKAnnotator("Annotator", m_to_fill, m_to_write);
  AnnotationGate::open(m_annotator);
  m_writer = new ZVKFileWriter(m_to_fill, m_to_write, m_metadata, m_compression, flush_interval_ms,
                               share_files);

  const ZVKConfigSection no_keys;
  if (m_cuda_collector != nullptr) {
    auto section = config.find("CUDA");
    ZVK_RETURN_NOT_OK(m_cuda_collector->configure(section != config.end() ? section->second : no_keys));
  }
  if (m_perf_collector != nullptr) {
    auto section = config.find("PERF");
    ZVK_RETURN_NOT_OK(m_perf_collector->configure(section != config.end() ? section->second : no_keys));
  }
  if (m_thread_sampler != nullptr) {
    auto section = config.find("PERF");
    ZVK_RETURN_NOT_OK(m_thread_sampler->configure(section != config.end() ? section->second : no_keys));
  }
  return Status::OK();
}

void Zorv::report_dropped_records() {
  if (m_to_fill == nullptr) return;
  const uint64_t dropped = m_to_fill->take_dropped_records();
  if (dropped != 0) {
    LOG(WARNING) << dropped
                 << " records were dropped: all buffers were full and no capture was running "
                    "to write them";
  }
}

namespace {

// Exit handlers run in the reverse order of their registration. CUPTI, loaded by
// the first GPU start, registers its own teardown then: this one, registered right
// after, runs before it, while CUPTI can still be called; the controller's static
// destructor would come after CUPTI's.
void stop_at_exit() { Zorv::instance().stop_at_exit(); }

}  // namespace

void Zorv::stop_at_exit() {
  if (m_active) {
    ZVK_LOG_NOT_OK(ERROR, stop_profiling(), "Stopping Failed!");
  } else if (auto* gpu = dynamic_cast<ZVKCudaCollector*>(m_cuda_collector)) {
    gpu->stop_if_tracing();
  }
}

Status Zorv::start_profiling() {
  if (m_writer == nullptr) {
    return Status(error::FAILURE, "Profiler is not configured. Call configure(...) first");
  }
  if (m_active) return Status(error::FAILED_PRECONDITION, "Profiling is still running");
  ZVK_RETURN_NOT_OK(m_writer->start(m_filename));
  report_dropped_records();
  if (m_cuda_collector != nullptr) {
    const Status started = m_cuda_collector->start_profiling();
    static std::once_flag registered;
    std::call_once(registered, [] { atexit(zorvek::stop_at_exit); });
    ZVK_RETURN_NOT_OK(started);
  }
  if (m_perf_collector != nullptr) ZVK_RETURN_NOT_OK(m_perf_collector->start_profiling());
  if (m_thread_sampler != nullptr) ZVK_RETURN_NOT_OK(m_thread_sampler->start_profiling());
  m_hooks_installed = true;
  ZVK_LOG_NOT_OK(INFO, enable_hooks(), "Couldn't find any library with annotations");
  m_active = true;
  return Status::OK();
}

Status Zorv::stop_profiling() {
  if (!m_active) return Status(error::FAILED_PRECONDITION, "Profiling not running");
  if (m_cuda_collector != nullptr) {
    ZVK_LOG_NOT_OK(ERROR, m_cuda_collector->stop_profiling(), "Stopping cuda capture failed!");
  }
  if (m_thread_sampler != nullptr) {
    ZVK_LOG_NOT_OK(ERROR, m_thread_sampler->stop_profiling(), "Stopping thread sampling failed!");
  }
  if (m_perf_collector != nullptr) {
    ZVK_LOG_NOT_OK(ERROR, m_perf_collector->stop_profiling(), "Stopping perf capture failed!");
  }
  if (m_annotator != nullptr) {
    ZVK_LOG_NOT_OK(INFO, m_annotator->flush(), "Annotator flush failed!");
  }
  ZVK_LOG_NOT_OK(INFO, disable_hooks(), "Can't find libraries with annotations");
  m_hooks_installed = false;
  // Whatever the writer answers, its thread has ended: the capture is over and a
  // new one can start. Active with no writer only after resume_profiling on an
  // unconfigured profiler: answer as a writer that isn't running would.
  m_active = false;
  report_dropped_records();
  if (m_writer == nullptr) {
    return Status(error::FAILED_PRECONDITION, "There is no recording ongoing to stop!");
  }
  return m_writer->stop();
}

Status Zorv::suspend_profiling() {
  if (!m_active) return Status::OK();
  if (m_cuda_collector != nullptr) ZVK_RETURN_NOT_OK(m_cuda_collector->suspend_profiling());
  if (m_thread_sampler != nullptr) ZVK_RETURN_NOT_OK(m_thread_sampler->suspend_profiling());
  if (m_perf_collector != nullptr) ZVK_RETURN_NOT_OK(m_perf_collector->suspend_profiling());
  if (m_writer != nullptr) ZVK_RETURN_NOT_OK(m_writer->suspend());
  // During a fork m_active is the only record that a capture must come back.
  if (!fork_suspend) m_active = false;
  return Status::OK();
}

Status Zorv::resume_profiling() {
  if (m_active) return Status(error::FAILED_PRECONDITION, "Profiling is already active!");
  if (m_writer != nullptr) ZVK_RETURN_NOT_OK(m_writer->resume());
  report_dropped_records();
  if (m_cuda_collector != nullptr) ZVK_RETURN_NOT_OK(m_cuda_collector->resume_profiling());
  if (m_perf_collector != nullptr) ZVK_RETURN_NOT_OK(m_perf_collector->resume_profiling());
  if (m_thread_sampler != nullptr) ZVK_RETURN_NOT_OK(m_thread_sampler->resume_profiling());
  m_active = true;
  return Status::OK();
}

void Zorv::discard_inherited_records() {
  if (m_to_fill == nullptr) return;
  ZVKBufferRecordHelper::discard_inherited(m_to_fill, m_to_write);
}

Status Zorv::resume(bool is_children) {
  if (!m_active) return Status::OK();
  if (is_children && !m_activate_in_children) {
    m_active = false;
    return Status::OK();
  }
  if (m_writer != nullptr) {
    // The status is dropped: a child whose file can't be opened still counts as active.
    if (is_children) {
      m_writer->start(m_filename);
    } else {
      m_writer->resume();
    }
  }
  report_dropped_records();
  if (m_cuda_collector != nullptr) ZVK_RETURN_NOT_OK(m_cuda_collector->resume_profiling());
  if (m_perf_collector != nullptr) ZVK_RETURN_NOT_OK(m_perf_collector->resume_profiling());
  if (m_thread_sampler != nullptr) ZVK_RETURN_NOT_OK(m_thread_sampler->resume_profiling());
  m_active = true;
  return Status::OK();
}

// An annotation on a profiler that was never configured, or whose configure
// failed, has nowhere to go: it is dropped, and token 0 handed out.
uint64_t Zorv::annotate_begin(const std::string& msg) {
  return annotate_begin(msg.data(), msg.size());
}

uint64_t Zorv::annotate_begin(const char* msg, uint64_t len) {
  const AnnotationGate::Pass pass;
  if (__builtin_expect(pass.annotator() == nullptr, 0)) return 0;
  return pass.annotator()->annotate_begin(msg, len);
}

void Zorv::annotate_end(uint64_t token) {
  const AnnotationGate::Pass pass;
  if (__builtin_expect(pass.annotator() != nullptr, 1)) pass.annotator()->annotate_end(token);
}

void Zorv::annotate_marker(const std::string& msg) { annotate_marker(msg.data(), msg.size()); }

void Zorv::annotate_marker(const char* msg, uint64_t len) {
  const AnnotationGate::Pass pass;
  if (__builtin_expect(pass.annotator() != nullptr, 1)) {
    pass.annotator()->annotate_marker(msg, len);
  }
}

// ---- Hook tables for foreign libraries --------------------------------------------

namespace {

ZVKI_AnnotationToken_t ann_begin(const char* msg, uint64_t msg_len) {
  static Zorv& inst = Zorv::instance();
  return inst.annotate_begin(msg, msg_len);
}

void ann_end(ZVKI_AnnotationToken_t token) {
  static Zorv& inst = Zorv::instance();
  inst.annotate_end(token);
}

void ann_marker(const char* msg, uint64_t msg_len) {
  static Zorv& inst = Zorv::instance();
  inst.annotate_marker(msg, msg_len);
}

using UpdateTableFn = void (*)(ZVKIFuncTable_t*);
using DefaultTableFn = ZVKIFuncTable_t* (*)();

}  // namespace

extern "C" {

ZVKIFuncTable_t instrumentation_funcs = {
    0,
    ann_begin,
    ann_end,
    ann_marker,
    {nullptr, reinterpret_cast<ZVKINonCallable_fptr*>(&instrumentation_funcs.annotation_start_fptr),
     reinterpret_cast<ZVKINonCallable_fptr*>(&instrumentation_funcs.annotation_end_fptr),
     reinterpret_cast<ZVKINonCallable_fptr*>(&instrumentation_funcs.annotation_marker_fptr),
     nullptr},
};

}  // extern "C"

namespace {

// Lists every loaded object with a dynamic section, except the main program.
int dl_iterate_callback(dl_phdr_info* info, size_t /*size*/, void* data) {
  auto* names = static_cast<std::vector<std::string>*>(data);
  bool has_dynamic = false;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    if (info->dlpi_phdr[i].p_type == PT_DYNAMIC) {
      has_dynamic = true;
      break;
    }
  }
  if (has_dynamic && info->dlpi_name != nullptr && info->dlpi_name[0] != '\0') {
    names->emplace_back(info->dlpi_name);
  }
  return 0;
}

std::vector<std::string> loaded_libraries() {
  std::vector<std::string> names;
  names.reserve(300);
  dl_iterate_phdr(dl_iterate_callback, &names);
  return names;
}

}  // namespace

Status update_tables(ZVKIFuncTable_t* table) {
  bool found = false;
  for (const std::string& name : loaded_libraries()) {
    dlerror();
    // RTLD_NOLOAD: only find what is loaded already, never load.
    void* handle = dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (dlerror() != nullptr || handle == nullptr) continue;
    void* update = dlsym(handle, "ZVKI_update_functable");
    if (dlerror() != nullptr) continue;
    reinterpret_cast<UpdateTableFn>(update)(table);
    found = true;
  }
  return found ? Status::OK() : Status(error::FAILURE, "Failed to find hook functions");
}

Status Zorv::enable_hooks() { return update_tables(&instrumentation_funcs); }

Status Zorv::disable_hooks() {
  bool found = false;
  for (const std::string& name : loaded_libraries()) {
    dlerror();
    void* handle = dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle == nullptr) continue;
    void* get_default = dlsym(handle, "ZVKI_get_default_functable");
    if (dlerror() != nullptr) continue;
    void* update = dlsym(handle, "ZVKI_update_functable");
    if (update == nullptr) {
      // A library with a default table but no update function: nothing to call.
      continue;
    }
    reinterpret_cast<UpdateTableFn>(update)(reinterpret_cast<DefaultTableFn>(get_default)());
    found = true;
  }
  return found ? Status::OK() : Status(error::FAILURE, "Failed to find hook functions");
}

}  // namespace zorvek
