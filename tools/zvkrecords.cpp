#include "tools/zvkrecords.h"

#include <cupti_activity.h>
#include <cupti_callbacks.h>

namespace zorvek {
namespace {

template <size_t N>
const char* name_in(const char* const (&names)[N], uint64_t value) {
  return value < N ? names[value] : "UNKNOWN";
}

// The text from `offset` of the payload up to its terminator, which must lie
// inside the payload. False when the payload ends first.
bool terminated_text(const ZVKRecordReader& record, size_t offset, std::string_view* text) {
  if (record.payload_size() < offset) return false;
  const char* start = static_cast<const char*>(record.payload()) + offset;
  const void* nul = std::memchr(start, '\0', record.payload_size() - offset);
  if (nul == nullptr) return false;
  *text = std::string_view(start, static_cast<size_t>(static_cast<const char*>(nul) - start));
  return true;
}

// The message of a BEGIN or MARKER: up to its terminator, or to the end of the
// payload when the terminator is missing, as a cut message may leave it.
std::string_view message_of(const ZVKRecordReader& record) {
  const uint16_t size = record.payload_size();
  if (size <= 8) return std::string_view();
  const char* text = static_cast<const char*>(record.payload()) + 8;
  const void* nul = std::memchr(text, '\0', size - 8u);
  return std::string_view(
      text, nul != nullptr ? static_cast<size_t>(static_cast<const char*>(nul) - text) : size - 8u);
}

bool decode_annotation(const ZVKRecordReader& record, DecodedRecord* out) {
  const uint32_t type = record.event_type();
  if (type == annotations::TIME_MARKER) {
    if (!read_payload(record, &out->fixed.marker)) return false;
    out->layout = DecodedRecord::kTimeMarker;
    return true;
  }
  if (type != annotations::BEGIN && type != annotations::MARKER && type != annotations::END) {
    return false;
  }
  if (!read_payload(record, &out->fixed.token)) return false;
  if (type == annotations::END) {
    out->layout = DecodedRecord::kEnd;
  } else {
    out->layout = DecodedRecord::kBegin;
    out->text = message_of(record);
  }
  return true;
}

// The stack sampler's records: a fixed header whose counts and sizes say how
// much follows, all of which must lie inside the payload.
bool decode_stack(const ZVKRecordReader& record, DecodedRecord* out) {
  DecodedRecord::Fixed& fixed = out->fixed;
  DecodedRecord::Frames& frames = out->frames;
  const char* payload = static_cast<const char*>(record.payload());
  if (!read_payload(record, &fixed.stack)) return false;
  frames.native_count = fixed.stack.native_count;
  frames.python_count = fixed.stack.python_count;
  if (record.payload_size() <
      perfevent::stack_sample_payload_size(frames.native_count, frames.python_count)) {
    return false;
  }
  frames.native = payload + sizeof(perfevent::ZVKStackSample);
  frames.python = frames.native + 8 * static_cast<size_t>(frames.native_count);
  return true;
}

bool decode_api_stack(const ZVKRecordReader& record, DecodedRecord* out) {
  DecodedRecord::Fixed& fixed = out->fixed;
  DecodedRecord::Frames& frames = out->frames;
  if (!read_payload(record, &fixed.api_stack)) return false;
  frames.python_count = fixed.api_stack.python_count;
  if (record.payload_size() < sizeof(perfevent::ZVKApiPythonStack) +
                                  sizeof(perfevent::ZVKPythonFrame) * frames.python_count) {
    return false;
  }
  frames.python = static_cast<const char*>(record.payload()) + sizeof(perfevent::ZVKApiPythonStack);
  return true;
}

bool decode_python_code(const ZVKRecordReader& record, DecodedRecord* out) {
  const perfevent::ZVKPythonCode& code = out->fixed.code;
  if (!read_payload(record, &out->fixed.code)) return false;
  // In 64 bits: linetable_size alone may be anything up to 4 GiB.
  const uint64_t needed = uint64_t{sizeof(perfevent::ZVKPythonCode)} + code.qualname_size +
                          code.filename_size + code.linetable_size;
  if (record.payload_size() < needed) return false;
  const char* at = static_cast<const char*>(record.payload()) + sizeof(perfevent::ZVKPythonCode);
  out->text = std::string_view(at, code.qualname_size);
  at += code.qualname_size;
  out->frames.filename = std::string_view(at, code.filename_size);
  at += code.filename_size;
  out->frames.linetable = std::string_view(at, code.linetable_size);
  return true;
}

bool decode_cpu(const ZVKRecordReader& record, DecodedRecord* out) {
  DecodedRecord::Fixed& fixed = out->fixed;
  bool read = false;
  DecodedRecord::Layout layout = DecodedRecord::kRaw;
  switch (record.event_type()) {
    case perfevent::CONFIGURATION:
      read = read_payload(record, &fixed.config);
      layout = DecodedRecord::kCpuConfiguration;
      break;
    case perfevent::SAMPLE:
      read = read_payload(record, &fixed.sample);
      layout = DecodedRecord::kCpuSample;
      break;
    case perfevent::THROTTLE:
    case perfevent::UNTHROTTLE:
      read = read_payload(record, &fixed.throttle);
      layout = DecodedRecord::kCpuThrottle;
      break;
    case perfevent::LOST:
      read = read_payload(record, &fixed.lost);
      layout = DecodedRecord::kCpuLost;
      break;
    case perfevent::MMAP:
      // The file name must end inside the payload: strsize isn't trusted, since it
      // could point past the record.
      read = read_payload(record, &fixed.mmap) &&
             terminated_text(record, sizeof(perfevent::ZVKPerfMMap), &out->text);
      layout = DecodedRecord::kCpuMmap;
      break;
    case perfevent::FORK:
    case perfevent::EXIT:
      read = read_payload(record, &fixed.fork);
      layout = DecodedRecord::kCpuForkExit;
      break;
    case perfevent::STACK_SAMPLE:
      read = decode_stack(record, out);
      layout = DecodedRecord::kCpuStack;
      break;
    case perfevent::PYTHON_CODE:
      read = decode_python_code(record, out);
      layout = DecodedRecord::kCpuPythonCode;
      break;
    case perfevent::API_PYTHON_STACK:
      read = decode_api_stack(record, out);
      layout = DecodedRecord::kCpuApiStack;
      break;
    default:  // READ is reserved and never written; anything else is unknown
      return false;
  }
  if (!read) {
    out->text = std::string_view();
    out->frames = DecodedRecord::Frames();
    return false;
  }
  out->layout = layout;
  return true;
}

// A KERNEL_NAME's name ends at its terminator, which must lie inside the payload:
// len_name isn't trusted, and a traced call's fixed "Unknown" is stored with
// len_name 0.
bool decode_gpu(const ZVKRecordReader& record, DecodedRecord* out) {
  DecodedRecord::Fixed& fixed = out->fixed;
  bool read = false;
  DecodedRecord::Layout layout = DecodedRecord::kRaw;
  switch (gpu_type(record)) {
    case cudaevent::KERNEL_NAME:
      read = gpu_kind(record) <= cudaevent::kFunctionNameKind &&
             read_payload(record, &fixed.name) &&
             terminated_text(record, sizeof(cudaevent::kernel_name), &out->text);
      layout = DecodedRecord::kGpuName;
      break;
    case cudaevent::KERNEL:
    case cudaevent::CONCURRENT_KERNEL:
      read = read_payload(record, &fixed.kernel);
      layout = DecodedRecord::kGpuKernel;
      break;
    case cudaevent::SYNCRONIZATION:
      read = read_payload(record, &fixed.sync);
      layout = DecodedRecord::kGpuSync;
      break;
    case cudaevent::MEMCOPY:
      read = read_payload(record, &fixed.memcopy);
      layout = DecodedRecord::kGpuMemcopy;
      break;
    case cudaevent::MEMCOPY_P2P:
      read = read_payload(record, &fixed.p2p);
      layout = DecodedRecord::kGpuMemcopyP2P;
      break;
    case cudaevent::MEMSET:
      read = read_payload(record, &fixed.memset);
      layout = DecodedRecord::kGpuMemset;
      break;
    case cudaevent::DRIVER:
    case cudaevent::RUNTIME:
      read = read_payload(record, &fixed.activity);
      layout = DecodedRecord::kGpuActivity;
      break;
    case cudaevent::CUDA_API:
      read = read_payload(record, &fixed.call);
      layout = DecodedRecord::kGpuCall;
      break;
    default:
      return false;
  }
  if (!read) return false;
  out->layout = layout;
  return true;
}

}  // namespace

const char* hardware_name(uint32_t hw) {
  static const char* const kNames[] = {"CPU", "GPU", "GAUDI", "TESSERA", "LUMENIA", "ANNOTATION"};
  static_assert(sizeof(kNames) / sizeof(kNames[0]) == NUM_HW_TYPES, "a name for every source");
  return name_in(kNames, hw);
}

const char* annotation_name(uint32_t type) {
  static const char* const kNames[] = {"BEGIN", "END", "TIME_MARKER", "MARKER"};
  static_assert(sizeof(kNames) / sizeof(kNames[0]) == annotations::NUM_ANNOTATION_TYPES,
                "a name for every annotation type");
  return name_in(kNames, type);
}

const char* cpu_event_name(uint32_t type) {
  static const char* const kNames[] = {"CONFIGURATION", "SAMPLE", "THROTTLE", "UNTHROTTLE", "LOST",
                                       "READ",          "MMAP",   "FORK",     "EXIT"};
  static_assert(sizeof(kNames) / sizeof(kNames[0]) == perfevent::PERF_EVENT_MAX,
                "a name for every CPU event");
  switch (type) {
    case perfevent::STACK_SAMPLE: return "STACK";
    case perfevent::PYTHON_CODE: return "PYCODE";
    case perfevent::API_PYTHON_STACK: return "APISTACK";
    default: return name_in(kNames, type);
  }
}

const char* gpu_type_name(uint32_t type) {
  static const char* const kNames[] = {
      "KERNEL_NAME", "KERNEL", "CONCURRENT_KERNEL", "SYNCRONIZATION", "MEMCOPY",
      "MEMCOPY_P2P", "MEMSET", "DRIVER",            "RUNTIME",        "CUDA_API"};
  static_assert(sizeof(kNames) / sizeof(kNames[0]) == cudaevent::NUM_CUDA_RECORD_TYPES,
                "a name for every GPU record type");
  return name_in(kNames, type);
}

// Kept here rather than taken from CUPTI at run time, which a machine reading
// captures needn't have; the asserts hold the tables to the headers.
const char* copy_kind_name(uint32_t kind) {
  static const char* const kNames[] = {"UNKNOWN", "HTOD", "DTOH", "HTOA", "ATOH", "ATOA",
                                       "ATOD",    "DTOA", "DTOD", "HTOH", "PTOP"};
  static_assert(CUPTI_ACTIVITY_MEMCPY_KIND_HTOD == 1 && CUPTI_ACTIVITY_MEMCPY_KIND_DTOD == 8 &&
                    sizeof(kNames) / sizeof(kNames[0]) == CUPTI_ACTIVITY_MEMCPY_KIND_PTOP + 1,
                "CUpti_ActivityMemcpyKind");
  return name_in(kNames, kind);
}

const char* memory_kind_name(uint32_t kind) {
  static const char* const kNames[] = {"UNKNOWN", "PAGEABLE", "PINNED",        "DEVICE",
                                       "ARRAY",   "MANAGED",  "DEVICE_STATIC", "MANAGED_STATIC"};
  static_assert(CUPTI_ACTIVITY_MEMORY_KIND_DEVICE == 3 &&
                    sizeof(kNames) / sizeof(kNames[0]) ==
                        CUPTI_ACTIVITY_MEMORY_KIND_MANAGED_STATIC + 1,
                "CUpti_ActivityMemoryKind");
  return name_in(kNames, kind);
}

const char* sync_type_name(uint32_t type) {
  static const char* const kNames[] = {"UNKNOWN", "EVENT_SYNCHRONIZE", "STREAM_WAIT_EVENT",
                                       "STREAM_SYNCHRONIZE", "CONTEXT_SYNCHRONIZE"};
  static_assert(CUPTI_ACTIVITY_SYNCHRONIZATION_TYPE_STREAM_SYNCHRONIZE == 3 &&
                    sizeof(kNames) / sizeof(kNames[0]) ==
                        CUPTI_ACTIVITY_SYNCHRONIZATION_TYPE_CONTEXT_SYNCHRONIZE + 1,
                "CUpti_ActivitySynchronizationType");
  return name_in(kNames, type);
}

const char* callback_domain_name(uint32_t domain) {
  static const char* const kNames[] = {"INVALID",     "DRIVER_API", "RUNTIME_API", "RESOURCE",
                                       "SYNCHRONIZE", "NVTX",       "STATE"};
  static_assert(CUPTI_CB_DOMAIN_DRIVER_API == 1 && CUPTI_CB_DOMAIN_NVTX == 5,
                "CUpti_CallbackDomain");
  return name_in(kNames, domain);
}

const char* sample_clock_name(uint32_t clock) {
  static const char* const kNames[] = {"cpu", "wall"};
  static_assert(perfevent::SAMPLE_CLOCK_CPU == 0 && perfevent::SAMPLE_CLOCK_WALL == 1,
                "ZVKSampleClock");
  return name_in(kNames, clock);
}

const char* event_name(const ZVKRecordReader& record) {
  switch (record.hardware_type()) {
    case ANNOTATION: return annotation_name(record.event_type());
    case CPU: return cpu_event_name(record.event_type());
    case GPU: return gpu_type_name(gpu_type(record));
    default: return "UNKNOWN";
  }
}

bool decode_record(const ZVKRecordReader& record, DecodedRecord* out) {
  out->layout = DecodedRecord::kRaw;
  out->text = std::string_view();
  out->frames = DecodedRecord::Frames();
  switch (record.hardware_type()) {
    case ANNOTATION: return decode_annotation(record, out);
    case CPU: return decode_cpu(record, out);
    case GPU: return decode_gpu(record, out);
    default: return false;
  }
}

void GpuNames::learn(const ZVKRecordReader& record) {
  const uint32_t hw = record.hardware_type();
  const bool name = hw == GPU && gpu_type(record) == cudaevent::KERNEL_NAME;
  const bool fork = hw == CPU && record.event_type() == perfevent::FORK;
  if (!name && !fork) return;
  DecodedRecord decoded;
  if (!decode_record(record, &decoded)) return;
  if (name) {
    m_tables[{gpu_kind(record), record.pid()}][decoded.fixed.name.id] = std::string(decoded.text);
  } else if (decoded.fixed.fork.ppid != record.pid()) {
    // A FORK of a new process, not of a thread: the record is the child's.
    m_parents[record.pid()] = decoded.fixed.fork.ppid;
  }
}

const std::string* GpuNames::find(uint32_t kind, uint32_t pid, uint32_t id) const {
  // Bounded: pids are reused, so the parent links could loop.
  for (int generation = 0; generation < kMaxGenerations; ++generation) {
    const auto table = m_tables.find({kind, pid});
    if (table != m_tables.end()) {
      const auto name = table->second.find(id);
      if (name != table->second.end()) return &name->second;
    }
    const auto parent = m_parents.find(pid);
    if (parent == m_parents.end()) return nullptr;
    pid = parent->second;
  }
  return nullptr;
}

}  // namespace zorvek
