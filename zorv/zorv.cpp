#include "zorv/zorv.h"

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "zorv/io/zvkbufferrecordhelper.h"
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

constexpr const char* kDefaultFilePattern = "zorvek_%h_%p_%t";
constexpr const char* kKelvaneFilePattern = "/opt/kv/output/profiler/framework/zorvek_%h_%p_%t";

void atfork_prep() {
  fork_suspend = true;
  ZVK_LOG_NOT_OK(ERROR, Zorv::instance().suspend_profiling(), "Suspending profiling failed!");
}

void atfork_parent() {
  ZVK_LOG_NOT_OK(ERROR, Zorv::instance().resume(false), "Resuming profiling for parent failed!");
  fork_suspend = false;
}

void atfork_children() {
  ZVK_LOG_NOT_OK(ERROR, Zorv::instance().resume(true), "Resuming profiling for children failed!");
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
  const int result = pthread_atfork(atfork_prep, atfork_parent, atfork_children);
  if (result != 0) {
    LOG(WARNING) << "Registering fork handlers failed! error was " << result
                 << " strerror= " << strerror(result);
  }
  m_metadata = resolve_metadata();
}

Zorv::~Zorv() {
  delete m_annotator;
  // Cleared so the stop below skips the flush of the annotator that is gone; its
  // record helper has already delivered the last buffer on destruction.
  m_annotator = nullptr;
  if (m_active) ZVK_LOG_NOT_OK(ERROR, stop_profiling(), "Stopping Failed!");
  delete m_cuda_collector;
  delete m_perf_collector;
  delete m_writer;
  delete m_to_write;
  delete m_to_fill;  // owns the buffer memory: last
}

Status Zorv::configure(std::map<std::string, ZVKConfigSection> config) {
  if (m_writer != nullptr) return Status(error::FAILED_PRECONDITION, "Already configured!");

  bool enable_cuda = false;
  bool enable_perf = false;
  bool shared_buffers = false;
  bool shared_annotations = true;
  auto zorv_section = config.find("ZORV");
  if (zorv_section != config.end()) {
    const ZVKConfigSection& keys = zorv_section->second;
    m_bucket_count = key_value_as<uint32_t>(keys, "BucketCount", m_bucket_count);
    m_bucket_size = static_cast<uint32_t>(
        key_value_as<uint64_t>(keys, "BucketSizeMB", static_cast<uint64_t>(m_bucket_size)));
    m_compression = key_value_as<uint32_t>(keys, "Compression", m_compression);
    enable_cuda = key_value_as<bool>(keys, "EnableCuda", false);
    enable_perf = key_value_as<bool>(keys, "EnablePerf", false);
    shared_buffers = key_value_as<bool>(keys, "SharedBuffers", false);
    shared_annotations = key_value_as<bool>(keys, "SharedAnnotations", true);
    m_activate_in_children = key_value_as<bool>(keys, "EnableForkFollow", m_activate_in_children);
    if (getenv("ZV_CURRENT_HOST") != nullptr) {
      LOG(WARNING) << "Setting output file in Kelvane environment is not allowed!";
      m_filename = kKelvaneFilePattern;
    } else {
      m_filename = key_value_as<std::string>(keys, "RecordFile", m_filename);
      if (m_filename.empty()) {
        m_filename = kDefaultFilePattern;
        LOG(ERROR) << "Got empty file name! Reverting it back to default! \"" << m_filename << "\"";
      }
    }
  }

  m_bucket_count = get_env_value_as<uint32_t>("ZVK_BUCKET_COUNT", m_bucket_count);
  m_bucket_size = static_cast<uint32_t>(
      get_env_value_as<uint64_t>("ZVK_BUCKET_SIZE_MB", static_cast<uint64_t>(m_bucket_size)));
  if (const char* follow = getenv("ZVK_ENABLE_FORK_FOLLOW")) {
    m_activate_in_children = get_value_as<bool>(follow, m_activate_in_children);
  }
  m_bucket_size <<= 20;  // from here on in bytes; 4096 MiB and its multiples wrap to 0
  m_compression = get_env_value_as<uint32_t>("ZVK_BUCKET_COMPRESSION", m_compression);
  if (const char* name = getenv("ZVK_OUTPUT_FILE_NAME")) {
    m_filename = get_value_as<std::string>(name, m_filename);
  }

  m_to_fill = new ZVKQueue<ZVKBuffer>(static_cast<int>(m_bucket_count), m_bucket_size);
  m_to_write = new ZVKQueue<ZVKBuffer>();
  if (m_bucket_count != 0 && m_to_fill->storage() == nullptr) {
    delete m_to_write;
    delete m_to_fill;
    m_to_write = m_to_fill = nullptr;
    return Status(error::INSUFFICIENT_RESOURCES, "Couldn't allocate the buffer memory!");
  }

  const bool shared = shared_buffers || shared_annotations;
  std::shared_ptr<ZVKBufferRecordHelper> helper;
  if (shared) helper = std::make_shared<ZVKBufferRecordHelper>(m_to_fill, m_to_write);

  if (enable_perf) {
    LOG(INFO) << "CPU capture enabled " << "\n";
    LOG(WARNING) << "CPU sampling is not part of this build yet; the capture runs without it";
  }
  if (enable_cuda) {
    LOG(INFO) << "CUDA capture enabled " << "\n";
    LOG(WARNING) << "GPU tracing is not part of this build yet; the capture runs without it";
  }

  // The annotator writes its time marker now, ahead of every later record.
  m_annotator = shared ? new ZVKAnnotator("SharedAnnotator", helper)
                       : new ZVKAnnotator("Annotator", m_to_fill, m_to_write);
  m_writer = new ZVKFileWriter(m_to_fill, m_to_write, m_metadata, m_compression);

  const ZVKConfigSection no_keys;
  if (m_cuda_collector != nullptr) {
    auto section = config.find("CUDA");
    ZVK_RETURN_NOT_OK(m_cuda_collector->configure(section != config.end() ? section->second : no_keys));
  }
  if (m_perf_collector != nullptr) {
    auto section = config.find("PERF");
    ZVK_RETURN_NOT_OK(m_perf_collector->configure(section != config.end() ? section->second : no_keys));
  }
  return Status::OK();
}

Status Zorv::start_profiling() {
  if (m_writer == nullptr) {
    return Status(error::FAILURE, "Profiler is not configured. Call configure(...) first");
  }
  if (m_active) return Status(error::FAILED_PRECONDITION, "Profiling is still running");
  ZVK_RETURN_NOT_OK(m_writer->start(m_filename));
  if (m_cuda_collector != nullptr) ZVK_RETURN_NOT_OK(m_cuda_collector->start_profiling());
  if (m_perf_collector != nullptr) ZVK_RETURN_NOT_OK(m_perf_collector->start_profiling());
  ZVK_LOG_NOT_OK(INFO, enable_hooks(), "Couldn't find any library with annotations");
  m_active = true;
  return Status::OK();
}

Status Zorv::stop_profiling() {
  if (!m_active) return Status(error::FAILED_PRECONDITION, "Profiling not running");
  if (m_cuda_collector != nullptr) {
    ZVK_LOG_NOT_OK(ERROR, m_cuda_collector->stop_profiling(), "Stopping cuda capture failed!");
  }
  if (m_perf_collector != nullptr) {
    ZVK_LOG_NOT_OK(ERROR, m_perf_collector->stop_profiling(), "Stopping perf capture failed!");
  }
  if (m_annotator != nullptr) {
    ZVK_LOG_NOT_OK(INFO, m_annotator->flush(), "Annotator flush failed!");
  }
  ZVK_LOG_NOT_OK(INFO, disable_hooks(), "Can't find libraries with annotations");
  // Active with no writer only after resume_profiling on an unconfigured profiler:
  // answer as a writer that isn't running would.
  if (m_writer == nullptr) {
    return Status(error::FAILED_PRECONDITION, "There is no recording ongoing to stop!");
  }
  ZVK_RETURN_NOT_OK(m_writer->stop());
  m_active = false;
  return Status::OK();
}

Status Zorv::suspend_profiling() {
  if (!m_active) return Status::OK();
  if (m_cuda_collector != nullptr) ZVK_RETURN_NOT_OK(m_cuda_collector->suspend_profiling());
  if (m_perf_collector != nullptr) ZVK_RETURN_NOT_OK(m_perf_collector->suspend_profiling());
  if (m_writer != nullptr) ZVK_RETURN_NOT_OK(m_writer->suspend());
  // During a fork m_active is the only record that a capture must come back.
  if (!fork_suspend) m_active = false;
  return Status::OK();
}

Status Zorv::resume_profiling() {
  if (m_active) return Status(error::FAILED_PRECONDITION, "Profiling is already active!");
  if (m_writer != nullptr) ZVK_RETURN_NOT_OK(m_writer->resume());
  if (m_cuda_collector != nullptr) ZVK_RETURN_NOT_OK(m_cuda_collector->resume_profiling());
  if (m_perf_collector != nullptr) ZVK_RETURN_NOT_OK(m_perf_collector->resume_profiling());
  m_active = true;
  return Status::OK();
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
  if (m_cuda_collector != nullptr) ZVK_RETURN_NOT_OK(m_cuda_collector->resume_profiling());
  if (m_perf_collector != nullptr) ZVK_RETURN_NOT_OK(m_perf_collector->resume_profiling());
  m_active = true;
  return Status::OK();
}

uint64_t Zorv::annotate_begin(const std::string& msg) { return m_annotator->annotate_begin(msg); }

uint64_t Zorv::annotate_begin(const char* msg, uint64_t len) {
  return m_annotator->annotate_begin(msg, len);
}

void Zorv::annotate_end(uint64_t token) { m_annotator->annotate_end(token); }

void Zorv::annotate_marker(const std::string& msg) { m_annotator->annotate_marker(msg); }

void Zorv::annotate_marker(const char* msg, uint64_t len) {
  m_annotator->annotate_marker(msg, len);
}

// ---- Hook tables for foreign libraries --------------------------------------------

namespace {

extern "C" ZVKI_AnnotationToken_t ann_begin(const char* msg, uint64_t msg_len) {
  static Zorv& inst = Zorv::instance();
  return inst.annotate_begin(msg, msg_len);
}

extern "C" void ann_end(ZVKI_AnnotationToken_t token) {
  static Zorv& inst = Zorv::instance();
  inst.annotate_end(token);
}

extern "C" void ann_marker(const char* msg, uint64_t msg_len) {
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

}  // extern "C"

namespace {

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
