#pragma once

// The one decoding of a record's payload by its kind, shared by zvkdump and the
// Python reader, so that both read exactly the same fields out of the same bytes
// and agree on which payloads are too short to read.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "tools/zvkbucketreader.h"
#include "zorv/format/annotation.h"
#include "zorv/format/cuda.h"
#include "zorv/format/perf.h"
#include "zorv/format/stack.h"

namespace zorvek {

// Names of the codes, "UNKNOWN" for a code without one.
const char* hardware_name(uint32_t hw);
const char* annotation_name(uint32_t type);
const char* cpu_event_name(uint32_t type);
const char* gpu_type_name(uint32_t type);
// CUPTI's enumerations by the names NVIDIA's headers give them, less the common
// prefix.
const char* copy_kind_name(uint32_t kind);
const char* memory_kind_name(uint32_t kind);
const char* sync_type_name(uint32_t type);
const char* callback_domain_name(uint32_t domain);
// A stack sample's clock: "cpu", "wall", or "UNKNOWN".
const char* sample_clock_name(uint32_t clock);

// GPU records: the low 12 bits of the event type say which payload follows, the
// 8 bits above them a kind within it.
inline uint32_t gpu_type(const ZVKRecordReader& record) { return record.event_type() & 0xfffu; }
inline uint32_t gpu_kind(const ZVKRecordReader& record) { return record.event_type() >> 12; }

// The name of the record's event within its hardware type: "BEGIN", "SAMPLE",
// "KERNEL"... ("UNKNOWN" for a code without one).
const char* event_name(const ZVKRecordReader& record);

// Slot `index` of the record's call chain read as 2 x call_chain_size addresses.
inline uint64_t chain_slot(const ZVKRecordReader& record, int index) {
  uint64_t value;
  std::memcpy(&value, reinterpret_cast<const char*>(record.callchain_at(0)) + 8 * index,
              sizeof(value));
  return value;
}

// A payload of at least T's size, copied out: payloads may be unaligned.
template <typename T>
bool read_payload(const ZVKRecordReader& record, T* out) {
  if (record.payload_size() < sizeof(T)) return false;
  std::memcpy(out, record.payload(), sizeof(T));
  return true;
}

// A record's payload decoded by its kind. `layout` says which member of `fixed`
// holds it; kRaw when the kind has no payload format (an unknown code, CPU READ,
// a name record of a kind without a table) or the payload is too short for it,
// and a reader then has only the bytes. `text` points into the record, so it
// lives as long as the record's bucket does.
struct DecodedRecord {
  enum Layout : uint8_t {
    kRaw,
    kBegin,       // BEGIN and MARKER: token, text (the message)
    kEnd,         // token
    kTimeMarker,  // marker
    kCpuConfiguration,
    kCpuSample,  // the call chain stands in the record
    kCpuThrottle,
    kCpuLost,
    kCpuMmap,      // text: the file name
    kCpuForkExit,  // FORK and EXIT
    kCpuStack,     // STACK_SAMPLE: the frames in `frames`
    kCpuPythonCode,  // PYTHON_CODE: text: the qualified name; the rest in `frames`
    kCpuApiStack,    // API_PYTHON_STACK: the frames in `frames`
    kGpuName,      // text: the name; kind in gpu_kind
    kGpuKernel,    // KERNEL and CONCURRENT_KERNEL
    kGpuSync,
    kGpuMemcopy,
    kGpuMemcopyP2P,
    kGpuMemset,
    kGpuActivity,  // DRIVER and RUNTIME
    kGpuCall,      // CUDA_API; the call chain stands in the record
  };

  // The fixed parts of MMAP and KERNEL_NAME, without the flexible array member
  // that keeps their own structures out of a union.
  struct Mmap {
    uint64_t id;
    uint64_t stream_id;
    uint64_t addr;
    uint64_t len;
    uint64_t pgoff;
    uint64_t strsize;
  };
  struct Name {
    uint32_t id;
    uint32_t len_name;
  };

  union Fixed {
    Fixed() : token(0) {}
    uint64_t token;
    annotations::time_marker marker;
    perfevent::ZVKPerfConfigData config;
    perfevent::ZVKPerfSample sample;
    perfevent::ZVKPerfThrottle throttle;
    perfevent::ZVKPerfLost lost;
    Mmap mmap;
    perfevent::ZVKPerfExitFork fork;
    Name name;
    cudaevent::kernel kernel;
    cudaevent::sync sync;
    cudaevent::memcopy memcopy;
    cudaevent::memcopy_p2p p2p;
    cudaevent::memset memset;
    cudaevent::driver activity;
    cudaevent::callback call;
    perfevent::ZVKStackSample stack;
    perfevent::ZVKPythonCode code;
    perfevent::ZVKApiPythonStack api_stack;
  };

  // What follows the fixed part of the stack sampler's records, checked to lie
  // inside the payload. The arrays point into the record, unaligned: read them
  // with native_frame and python_frame.
  struct Frames {
    const char* native = nullptr;  // native_count addresses, leaf first
    const char* python = nullptr;  // python_count ZVKPythonFrame, leaf first
    uint32_t native_count = 0;
    uint32_t python_count = 0;
    std::string_view filename;   // PYTHON_CODE
    std::string_view linetable;  // PYTHON_CODE: co_linetable's bytes, as many as were kept
  };

  Layout layout = kRaw;
  Fixed fixed;
  std::string_view text;
  Frames frames;
};

inline uint64_t native_frame(const DecodedRecord& decoded, uint32_t index) {
  uint64_t address;
  std::memcpy(&address, decoded.frames.native + 8 * static_cast<size_t>(index), sizeof(address));
  return address;
}

inline perfevent::ZVKPythonFrame python_frame(const DecodedRecord& decoded, uint32_t index) {
  perfevent::ZVKPythonFrame frame;
  std::memcpy(&frame, decoded.frames.python + sizeof(frame) * static_cast<size_t>(index),
              sizeof(frame));
  return frame;
}

static_assert(sizeof(DecodedRecord::Mmap) == sizeof(perfevent::ZVKPerfMMap) &&
                  offsetof(DecodedRecord::Mmap, pgoff) == offsetof(perfevent::ZVKPerfMMap, pgoff),
              "MMAP's fixed part");
static_assert(sizeof(DecodedRecord::Name) == sizeof(cudaevent::kernel_name),
              "KERNEL_NAME's fixed part");

// Decodes the record's payload into `out`; false (layout kRaw) when it can't.
bool decode_record(const ZVKRecordReader& record, DecodedRecord* out);

// How long an activity took, from the record's timestamp, its start. An end
// before the start, which CUPTI can report for an activity it never saw finish,
// counts as no time rather than as a wrapped huge one.
inline uint64_t duration_of(const ZVKRecordReader& record, uint64_t end) {
  return end > record.timestamp() ? end - record.timestamp() : 0;
}

// Count, bytes and time of a group of GPU activities: what zvkdump's summary and
// the Python reader's both add up per kernel, copy kind, call and so on.
struct GpuTotals {
  uint64_t count = 0;
  uint64_t bytes = 0;
  uint64_t total_ns = 0;

  void add(uint64_t duration_ns, uint64_t size = 0) {
    ++count;
    bytes += size;
    total_ns += duration_ns;
  }
  void merge(const GpuTotals& other) {
    count += other.count;
    bytes += other.bytes;
    total_ns += other.total_ns;
  }
};

// The names that GPU records give by id, learnt from KERNEL_NAME records. A
// process names each kernel and each traced call's function once, in the first
// record that uses it, so the name may lie in an earlier file; and a forked child
// goes on with its parent's ids without naming them again.
class GpuNames {
 public:
  // Learns from KERNEL_NAME records and from the FORK records of new processes;
  // any other record is passed over at the cost of two compares.
  void learn(const ZVKRecordReader& record);

  // The name of `id` in table `kind` (kKernelNameKind or kFunctionNameKind) for
  // process `pid`, or for the process it was forked from; null when unknown.
  const std::string* find(uint32_t kind, uint32_t pid, uint32_t id) const;

  // The process `pid` was forked from, or 0 when no FORK record said.
  uint32_t parent_of(uint32_t pid) const {
    const auto parent = m_parents.find(pid);
    return parent == m_parents.end() ? 0 : parent->second;
  }

 private:
  static constexpr int kMaxGenerations = 64;

  std::map<std::pair<uint32_t, uint32_t>, std::unordered_map<uint32_t, std::string>>
      m_tables;                                      // (kind, pid) -> id -> name
  std::unordered_map<uint32_t, uint32_t> m_parents;  // forked pid -> parent pid
};

}  // namespace zorvek
