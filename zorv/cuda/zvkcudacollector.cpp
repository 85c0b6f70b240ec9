#include "zorv/cuda/zvkcudacollector.h"

#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "zorv/cpu/pyframes.h"
#include "zorv/cpu/pythonlayout.h"
#include "zorv/cuda/zvkcupti.h"
#include "zorv/format/cuda.h"
#include "zorv/format/record.h"
#include "zorv/format/stack.h"
#include "zorv/io/zvkforklocks.h"
#include "zorv/utils/backtrace.h"
#include "zorv/utils/clock.h"
#include "zorv/utils/config_values.h"
#include "zorv/utils/identity.h"
#include "zorv/utils/logging.h"
#include "zorv/utils/signals.h"

namespace zorvek {

// ---- What CUPTI's records are read through ----------------------------------------
//
// CUPTI hands out the newest version of each record its release knows; the fields
// kept here are read through the oldest definition, and sit at the same offset in
// the newest, so one build reads CUPTI 11, 12 and 13 alike.

#define ZVK_SAME_OFFSET(OLDEST, NEWEST, FIELD)                                \
  static_assert(offsetof(OLDEST, FIELD) == offsetof(NEWEST, FIELD),           \
                #FIELD " lies where it did from " #OLDEST " to " #NEWEST)

using KernelRecord = CUpti_ActivityKernel4;
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, kind);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, sharedMemoryConfig);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, registersPerThread);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, start);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, end);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, completed);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, deviceId);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, streamId);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, gridX);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, gridY);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, gridZ);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, blockX);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, blockY);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, blockZ);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, staticSharedMemory);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, correlationId);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, gridId);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, name);
ZVK_SAME_OFFSET(CUpti_ActivityKernel4, CUpti_ActivityKernel13, launchType);

using MemcpyRecord = CUpti_ActivityMemcpy;
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, copyKind);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, srcKind);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, dstKind);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, flags);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, bytes);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, start);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, end);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, deviceId);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, contextId);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, streamId);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, correlationId);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpy, CUpti_ActivityMemcpy7, runtimeCorrelationId);

using PeerCopyRecord = CUpti_ActivityMemcpyPtoP;
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, copyKind);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, srcKind);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, dstKind);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, flags);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, bytes);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, start);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, end);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, deviceId);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, streamId);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, srcDeviceId);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, srcContextId);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, dstDeviceId);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, dstContextId);
ZVK_SAME_OFFSET(CUpti_ActivityMemcpyPtoP, CUpti_ActivityMemcpyPtoP4, correlationId);

using MemsetRecord = CUpti_ActivityMemset;
ZVK_SAME_OFFSET(CUpti_ActivityMemset, CUpti_ActivityMemset5, value);
ZVK_SAME_OFFSET(CUpti_ActivityMemset, CUpti_ActivityMemset5, bytes);
ZVK_SAME_OFFSET(CUpti_ActivityMemset, CUpti_ActivityMemset5, start);
ZVK_SAME_OFFSET(CUpti_ActivityMemset, CUpti_ActivityMemset5, end);
ZVK_SAME_OFFSET(CUpti_ActivityMemset, CUpti_ActivityMemset5, deviceId);
ZVK_SAME_OFFSET(CUpti_ActivityMemset, CUpti_ActivityMemset5, streamId);
ZVK_SAME_OFFSET(CUpti_ActivityMemset, CUpti_ActivityMemset5, correlationId);
ZVK_SAME_OFFSET(CUpti_ActivityMemset, CUpti_ActivityMemset5, flags);
ZVK_SAME_OFFSET(CUpti_ActivityMemset, CUpti_ActivityMemset5, memoryKind);

using SyncRecord = CUpti_ActivitySynchronization;
ZVK_SAME_OFFSET(CUpti_ActivitySynchronization, CUpti_ActivitySynchronization2, type);
ZVK_SAME_OFFSET(CUpti_ActivitySynchronization, CUpti_ActivitySynchronization2, start);
ZVK_SAME_OFFSET(CUpti_ActivitySynchronization, CUpti_ActivitySynchronization2, end);
ZVK_SAME_OFFSET(CUpti_ActivitySynchronization, CUpti_ActivitySynchronization2, correlationId);
ZVK_SAME_OFFSET(CUpti_ActivitySynchronization, CUpti_ActivitySynchronization2, streamId);
ZVK_SAME_OFFSET(CUpti_ActivitySynchronization, CUpti_ActivitySynchronization2, cudaEventId);

using ApiRecord = CUpti_ActivityAPI;  // one version since CUPTI 11

#undef ZVK_SAME_OFFSET

namespace {

// ---- What the callbacks share -------------------------------------------------------
//
// CUPTI's buffer callbacks carry no user argument, so the collector publishes what
// they and the driver API callback need here.

// Read on CUPTI's and the application's threads while a collector comes or goes,
// or a start writes them.
std::atomic<ZVKQueue<ZVKCuptiActivityBuffer>*> to_send{nullptr};
std::atomic<ZVKQueue<ZVKCuptiActivityBuffer>*> to_parse{nullptr};
std::atomic<ZVKBufferRecordHelper*> helper{nullptr};
std::atomic<uint32_t> pid{0};
std::atomic<bool> rotator_switch{false};
std::atomic<bool> time_limit_switch{false};
// Activity buffers CUPTI holds: only those can hold records that a flush would
// bring out.
std::atomic<int> buffers_with_cupti{0};
// Requests bufferRequested answered with no buffer, since the last stop, because
// the running rotator handed none back in time.
std::atomic<uint64_t> refused_buffer_requests{0};

// Names by id, counted from 0 in order of first sight, for the life of the process.
class NameTable {
 public:
  NameTable() { ZVKForkLocks::add(&m_lock, ZVKForkLocks::LEAF); }

  // The name's id, and whether this is its first sight. A name seen before costs
  // a lookup and no allocation: this runs on every traced call and kernel.
  std::pair<uint32_t, bool> intern(std::string_view name) {
    std::lock_guard<std::mutex> guard(m_lock);
    auto known = m_ids.find(name);
    if (known != m_ids.end()) return {known->second, false};
    const uint32_t id = static_cast<uint32_t>(m_ids.size());
    m_names.emplace_back(name);
    m_ids.emplace(m_names.back(), id);
    return {id, true};
  }

 private:
  std::mutex m_lock;
  std::deque<std::string> m_names;  // the keys' storage, which never moves
  std::unordered_map<std::string_view, uint32_t> m_ids;
};

// Never destroyed: CUPTI may call back while the process exits.
NameTable& kernel_names() {
  static NameTable* table = new NameTable();
  return *table;
}

NameTable& function_names() {
  static NameTable* table = new NameTable();
  return *table;
}

// The longest name a record holds: 8 bytes of id and length plus the name and its
// NUL, rounded to 8, must stay within a 16-bit payload.
constexpr size_t kMaxNameLength = 65519;

uint32_t gpu_event_word(uint32_t atype, uint32_t akind) {
  return make_event_word(GPU, 0, cuda_event_value(atype, akind));
}

// Copies `len` bytes of `name` and a NUL behind the name record's fixed fields.
void write_name_record(uint32_t akind, uint64_t timestamp, uint32_t tid, uint32_t id,
                       const char* name, size_t len, uint32_t len_name) {
  ZVKBufferRecordHelper* rh = helper.load(std::memory_order_acquire);
  if (rh == nullptr) return;
  const uint32_t stored = static_cast<uint32_t>(len < kMaxNameLength ? len : kMaxNameLength);
  const uint16_t payload_size =
      static_cast<uint16_t>(cudaevent::aligned_name_size(stored) + sizeof(cudaevent::kernel_name));
  auto writer = rh->new_record(timestamp, gpu_event_word(cudaevent::KERNEL_NAME, akind),
                               static_cast<int32_t>(pid.load()), static_cast<int32_t>(tid), 0,
                               payload_size);
  auto* record = static_cast<cudaevent::kernel_name*>(writer.get_payload_store());
  record->id = id;
  record->len_name = len_name < stored ? len_name : stored;
  std::memcpy(record->name, name, stored);
  record->name[stored] = '\0';
}

// The kernel's name id, after its name record when this is its first sight.
uint32_t kernel_name_id(const KernelRecord* kernel) {
  // A null name is an empty one: nothing on this thread may end the process.
  const char* name = kernel->name != nullptr ? kernel->name : "";
  const auto id = kernel_names().intern(name);
  if (id.second) {
    const size_t len = strlen(name);
    write_name_record(cudaevent::kKernelNameKind, kernel->start, kernel->deviceId, id.first, name,
                      len, static_cast<uint32_t>(len));
  }
  return id.first;
}

void record_kernel(const KernelRecord* k, uint32_t atype, ZVKBufferRecordHelper* rh) {
  const uint32_t name_id = kernel_name_id(k);
  auto writer = rh->new_record(k->start, gpu_event_word(atype, 0), static_cast<int32_t>(pid.load()),
                               static_cast<int32_t>(k->deviceId), 0, sizeof(cudaevent::kernel));
  cudaevent::kernel payload;
  payload.end = k->end;
  payload.completed = k->completed;
  payload.gridX = k->gridX;
  payload.gridY = k->gridY;
  payload.gridZ = k->gridZ;
  payload.blockX = k->blockX;
  payload.blockY = k->blockY;
  payload.blockZ = k->blockZ;
  payload.gridId = k->gridId;
  payload.pack.nameId = name_id;
  payload.pack.registersPerThread = k->registersPerThread;
  payload.pack.shmConfig = k->sharedMemoryConfig;
  payload.pack.launchType = k->launchType;
  payload.deviceId = k->deviceId;
  payload.staticSharedMem = static_cast<uint32_t>(k->staticSharedMemory);
  payload.correlationId = k->correlationId;
  payload.streamId = k->streamId;
  std::memcpy(writer.get_payload_store(), &payload, sizeof(payload));
}

// Only the four kind bytes of a copy's attribute word are written; the other four
// stay as the buffer held them.
template <typename Copy>
void store_copy_attr(void* payload_attr, const Copy* c) {
  const cudaevent::copy_attr attr = {c->copyKind, c->srcKind, c->dstKind, c->flags};
  std::memcpy(payload_attr, &attr, sizeof(attr));
}

void record_memcpy(const MemcpyRecord* c, ZVKBufferRecordHelper* rh) {
  auto writer = rh->new_record(c->start, gpu_event_word(cudaevent::MEMCOPY, c->copyKind),
                               static_cast<int32_t>(pid.load()), static_cast<int32_t>(c->deviceId),
                               0, sizeof(cudaevent::memcopy));
  char* out = static_cast<char*>(writer.get_payload_store());
  const uint64_t times[2] = {c->end, c->bytes};
  std::memcpy(out + offsetof(cudaevent::memcopy, end), times, sizeof(times));
  store_copy_attr(out + offsetof(cudaevent::memcopy, attr), c);
  const uint32_t ids[4] = {c->correlationId, c->streamId, c->runtimeCorrelationId, c->contextId};
  std::memcpy(out + offsetof(cudaevent::memcopy, correlationId), ids, sizeof(ids));
}

void record_peer_copy(const PeerCopyRecord* c, ZVKBufferRecordHelper* rh) {
  auto writer = rh->new_record(c->start, gpu_event_word(cudaevent::MEMCOPY_P2P, c->copyKind),
                               static_cast<int32_t>(pid.load()), static_cast<int32_t>(c->deviceId),
                               0, sizeof(cudaevent::memcopy_p2p));
  char* out = static_cast<char*>(writer.get_payload_store());
  const uint64_t times[2] = {c->end, c->bytes};
  std::memcpy(out + offsetof(cudaevent::memcopy_p2p, end), times, sizeof(times));
  store_copy_attr(out + offsetof(cudaevent::memcopy_p2p, attr), c);
  const uint32_t ids[6] = {c->srcDeviceId, c->dstDeviceId,  c->correlationId,
                           c->streamId,    c->srcContextId, c->dstContextId};
  std::memcpy(out + offsetof(cudaevent::memcopy_p2p, srcDevice), ids, sizeof(ids));
}

void record_memset(const MemsetRecord* m, ZVKBufferRecordHelper* rh) {
  auto writer = rh->new_record(m->start, gpu_event_word(cudaevent::MEMSET, cudaevent::kMemsetKind),
                               static_cast<int32_t>(pid.load()), static_cast<int32_t>(m->deviceId),
                               0, sizeof(cudaevent::memset));
  const cudaevent::memset payload = {m->end,      m->bytes,    m->value,
                                     m->correlationId, m->streamId, m->flags,
                                     m->memoryKind};
  std::memcpy(writer.get_payload_store(), &payload, sizeof(payload));
}

void record_api(const ApiRecord* a, uint32_t atype, ZVKBufferRecordHelper* rh) {
  auto writer = rh->new_record(a->start, gpu_event_word(atype, 0), static_cast<int32_t>(pid.load()),
                               static_cast<int32_t>(a->threadId), 0, sizeof(cudaevent::driver));
  const cudaevent::driver payload = {a->end, a->processId, a->threadId, a->correlationId,
                                     a->returnValue};
  std::memcpy(writer.get_payload_store(), &payload, sizeof(payload));
}

void record_sync(const SyncRecord* s, ZVKBufferRecordHelper* rh) {
  auto writer = rh->new_record(s->start, gpu_event_word(cudaevent::SYNCRONIZATION, s->type),
                               static_cast<int32_t>(pid.load()), static_cast<int32_t>(s->cudaEventId),
                               0, sizeof(cudaevent::sync));
  const cudaevent::sync payload = {s->end, s->correlationId, s->streamId};
  std::memcpy(writer.get_payload_store(), &payload, sizeof(payload));
}

// Failures of the walk in a row after which a buffer is given up: a failure that
// kept coming back would hold the rotator, and every buffer behind it, for ever.
constexpr int kMaxWalkFailuresInARow = 8;

// Walks one completed buffer into records.
void walk_buffer(ZVKCuptiActivityBuffer* buffer) {
  if (buffer->valid_size == 0) return;
  CUpti_Activity* record = nullptr;
  for (int failures = 0; failures < kMaxWalkFailuresInARow;) {
    const CUptiResult result =
        cupti().cuptiActivityGetNextRecord(buffer->buffer, buffer->valid_size, &record);
    if (result == CUPTI_SUCCESS) {
      record_activity(record);
      failures = 0;
    } else if (result == CUPTI_ERROR_MAX_LIMIT_REACHED) {
      return;
    } else {
      LOG(ERROR) << "Cupti call " << "status" << " failed with " << cupti_result_text(result);
      ++failures;
    }
  }
}

void return_buffer(ZVKCuptiActivityBuffer* buffer) {
  buffer->valid_size = 0;
  to_send.load()->push(buffer);
}

// CUPTI keeps records in a buffer until the buffer is full, which at a few kernels
// a step can take minutes. Forcing the buffers out this often bounds what a
// process that ends without a stop (os._exit, SIGKILL) loses, as the writer's
// flush does for the record helpers.
constexpr auto kActivityFlushPeriod = std::chrono::seconds(1);

// A failure is not logged: without a driver every CUPTI call fails, and this one
// would say so every second. The stop's own flush reports.
void force_activity_flush(std::chrono::steady_clock::time_point* next_flush) {
  const auto now = std::chrono::steady_clock::now();
  if (now < *next_flush) return;
  *next_flush = now + kActivityFlushPeriod;
  if (buffers_with_cupti.load() > 0) cupti().cuptiActivityFlushAll(CUPTI_ACTIVITY_FLAG_FLUSH_FORCED);
}

void rotator_loop() {
  ZVKQueue<ZVKCuptiActivityBuffer>* const completed = to_parse.load();
  auto next_flush = std::chrono::steady_clock::now() + kActivityFlushPeriod;
  while (rotator_switch) {
    ZVKCuptiActivityBuffer* buffer = nullptr;
    completed->pop(&buffer);
    while (buffer == nullptr) {
      timespec pause = {0, 1000000};
      nanosleep(&pause, nullptr);
      if (!rotator_switch) break;
      force_activity_flush(&next_flush);
      completed->pop(&buffer);
    }
    if (buffer == nullptr) break;
    walk_buffer(buffer);
    return_buffer(buffer);
  }
  // A suspend or stop loses no completed buffer.
  ZVKCuptiActivityBuffer* buffer = nullptr;
  for (completed->pop(&buffer); buffer != nullptr; completed->pop(&buffer)) {
    walk_buffer(buffer);
    return_buffer(buffer);
    buffer = nullptr;
  }
}

// ---- Driver API callbacks ----------------------------------------------------------

constexpr int kMaxFrames = 32;

// Cached per thread, and right in a forked child: a system call here would cost as
// much as the rest of the record.
uint32_t current_tid() { return static_cast<uint32_t>(current_identity().tid); }

bool is_filtered(CUpti_CallbackDomain domain, uint32_t cbid) {
  return domain == CUPTI_CB_DOMAIN_DRIVER_API &&
         (cbid == CUPTI_DRIVER_TRACE_CBID_cuCtxGetDevice ||
          cbid == CUPTI_DRIVER_TRACE_CBID_cuFuncGetAttribute ||
          cbid == CUPTI_DRIVER_TRACE_CBID_cuOccupancyMaxActiveBlocksPerMultiprocessorWithFlags);
}

// The id of "Unknown", which most calls have, once it is known: read without the
// table's lock.
constexpr uint32_t kNoId = UINT32_MAX;
std::atomic<uint32_t> unknown_function_id{kNoId};

// The name's id in the function table, after its name record on first sight.
uint32_t function_name_id(const char* symbol_name, uint64_t start, uint32_t tid) {
  static const char kUnknown[] = "Unknown";
  if (symbol_name == nullptr) {
    const uint32_t known = unknown_function_id.load(std::memory_order_relaxed);
    if (known != kNoId) return known;
  }
  const auto id = function_names().intern(symbol_name != nullptr ? symbol_name : kUnknown);
  if (symbol_name == nullptr) unknown_function_id.store(id.first, std::memory_order_relaxed);
  if (id.second) {
    if (symbol_name != nullptr) {
      const size_t len = strlen(symbol_name);
      write_name_record(cudaevent::kFunctionNameKind, start, tid, id.first, symbol_name, len,
                        static_cast<uint32_t>(len));
    } else {
      // The fixed text is stored with a length of 0.
      write_name_record(cudaevent::kFunctionNameKind, start, tid, id.first, kUnknown,
                        sizeof(kUnknown) - 1, 0);
    }
  }
  return id.first;
}

// ---- The Python line behind each driver API call ---------------------------------
//
// Each traced call's record is followed by the Python frames of the thread that
// made it, so that the views name the line that launched a kernel or a copy. The
// code objects are announced the first time a call meets them, through the same
// record helper, so they reach the capture before the stacks that name them.

class ApiCodeSink final : public PythonCodeSink {
 public:
  bool on_new_code(const perfevent::ZVKPythonCode& header, const char* qualname,
                   const char* filename, const uint8_t* linetable) override {
    ZVKBufferRecordHelper* rh = helper.load(std::memory_order_acquire);
    if (rh == nullptr) return false;
    const uint32_t size = perfevent::python_code_payload_size(
        header.qualname_size, header.filename_size, header.linetable_size);
    auto writer = rh->new_record(now_ns(), make_event_word(CPU, 0, perfevent::PYTHON_CODE),
                                 static_cast<int32_t>(pid.load()),
                                 static_cast<int32_t>(current_tid()), 0,
                                 static_cast<uint16_t>(size));
    char* out = static_cast<char*>(writer.get_payload_store());
    std::memset(out, 0, size);
    std::memcpy(out, &header, sizeof(header));
    out += sizeof(header);
    std::memcpy(out, qualname, header.qualname_size);
    out += header.qualname_size;
    std::memcpy(out, filename, header.filename_size);
    out += header.filename_size;
    std::memcpy(out, linetable, header.linetable_size);
    return true;
  }
};

ApiCodeSink api_code_sink;
// Made at the first start in a process with an interpreter; never freed, as a
// callback may still be walking when a stop returns.
std::atomic<PythonFrameWalker*> api_walker{nullptr};

constexpr size_t kMaxApiPythonFrames = 128;

void write_api_python_stack(ZVKBufferRecordHelper* rh, uint64_t start, uint32_t tid,
                            uint32_t correlation_id) {
  PythonFrameWalker* walker = api_walker.load(std::memory_order_acquire);
  if (walker == nullptr) return;
  const uintptr_t state = walker->current_thread_state();
  if (state == 0) return;
  perfevent::ZVKPythonFrame frames[kMaxApiPythonFrames];
  bool cut = false;
  const size_t count = walker->walk(state, frames, kMaxApiPythonFrames, &cut);
  if (count == 0) return;
  const uint32_t size = sizeof(perfevent::ZVKApiPythonStack) +
                        static_cast<uint32_t>(count * sizeof(perfevent::ZVKPythonFrame));
  auto writer = rh->new_record(start, make_event_word(CPU, 0, perfevent::API_PYTHON_STACK),
                               static_cast<int32_t>(pid.load()), static_cast<int32_t>(tid), 0,
                               static_cast<uint16_t>(size));
  char* out = static_cast<char*>(writer.get_payload_store());
  perfevent::ZVKApiPythonStack head = {};
  head.correlation_id = correlation_id;
  head.python_count = static_cast<uint16_t>(count);
  std::memcpy(out, &head, sizeof(head));
  std::memcpy(out + sizeof(head), frames, count * sizeof(perfevent::ZVKPythonFrame));
}

void start_api_python_stacks() {
  const PythonLayout* layout = python_layout();
  if (layout == nullptr) return;
  PythonFrameWalker* walker = api_walker.load(std::memory_order_acquire);
  if (walker != nullptr) {
    // Each start begins a new capture, which must name its codes again.
    walker->forget_codes();
    return;
  }
  api_walker.store(new PythonFrameWalker(*layout, &api_code_sink), std::memory_order_release);
}

void OnDriverApiExit(CUpti_CallbackDomain domain, uint32_t cbid, const CUpti_CallbackData* info) {
  uint64_t end = 0;
  cupti().cuptiGetTimestamp(&end);
  if (is_filtered(domain, cbid)) return;
  void* frames[kMaxFrames];
  const int depth = capture_backtrace(frames, kMaxFrames);
  // Before the name is interned: a name marked seen whose record was never written
  // would leave later records naming an id that nothing names.
  ZVKBufferRecordHelper* rh = helper.load(std::memory_order_acquire);
  if (rh == nullptr) return;
  const uint64_t start = info->correlationData != nullptr ? *info->correlationData : 0;
  const uint32_t tid = current_tid();
  const uint32_t name_id = function_name_id(info->symbolName, start, tid);
  const uint16_t entries = static_cast<uint16_t>((depth + 1) / 2);
  {
    auto writer = rh->new_record(start, gpu_event_word(cudaevent::CUDA_API, 0),
                                 static_cast<int32_t>(pid.load()), static_cast<int32_t>(tid),
                                 entries, sizeof(cudaevent::callback));
    CallChain* chain = writer.get_callchain_array();
    for (int i = 0; i < depth; i += 2) {
      chain[i / 2].from = reinterpret_cast<uint64_t>(frames[i]);
      chain[i / 2].to = i + 1 < depth ? reinterpret_cast<uint64_t>(frames[i + 1]) : 0;
    }
    const cudaevent::callback payload = {end, static_cast<uint32_t>(domain), cbid,
                                         info->correlationId, name_id};
    std::memcpy(writer.get_payload_store(), &payload, sizeof(payload));
  }
  // After the call's record is let go: the walk may write code records, which
  // must not wait for a buffer while this record pins the old one.
  write_api_python_stack(rh, start, tid, info->correlationId);
}

// The collector's operations, as written in their failure lines.
void check(CUptiResult result, const char* call) {
  if (result == CUPTI_SUCCESS) return;
  LOG(ERROR) << "Cupti call " << call << " failed with " << cupti_result_text(result);
}

struct ActivityFlag {
  uint64_t flag;
  CUpti_ActivityKind kind;
  const char* enable;
  const char* disable;
};

const ActivityFlag kActivityFlags[] = {
    {A_KERNEL, CUPTI_ACTIVITY_KIND_KERNEL, "cuptiActivityEnable(CUPTI_ACTIVITY_KIND_KERNEL)",
     "cuptiActivityDisable(CUPTI_ACTIVITY_KIND_KERNEL)"},
    {A_CONTEXT, CUPTI_ACTIVITY_KIND_CONTEXT, "cuptiActivityEnable(CUPTI_ACTIVITY_KIND_CONTEXT)",
     "cuptiActivityDisable(CUPTI_ACTIVITY_KIND_CONTEXT)"},
    {A_DRIVER, CUPTI_ACTIVITY_KIND_DRIVER, "cuptiActivityEnable(CUPTI_ACTIVITY_KIND_DRIVER)",
     "cuptiActivityDisable(CUPTI_ACTIVITY_KIND_DRIVER)"},
    {A_RUNTIME, CUPTI_ACTIVITY_KIND_RUNTIME, "cuptiActivityEnable(CUPTI_ACTIVITY_KIND_RUNTIME)",
     "cuptiActivityDisable(CUPTI_ACTIVITY_KIND_RUNTIME)"},
    {A_MEMCOPY, CUPTI_ACTIVITY_KIND_MEMCPY, "cuptiActivityEnable(CUPTI_ACTIVITY_KIND_MEMCPY)",
     "cuptiActivityDisable(CUPTI_ACTIVITY_KIND_MEMCPY)"},
    {A_MEMSET, CUPTI_ACTIVITY_KIND_MEMSET, "cuptiActivityEnable(CUPTI_ACTIVITY_KIND_MEMSET)",
     "cuptiActivityDisable(CUPTI_ACTIVITY_KIND_MEMSET)"},
    {A_NAME, CUPTI_ACTIVITY_KIND_NAME, "cuptiActivityEnable(CUPTI_ACTIVITY_KIND_NAME)",
     "cuptiActivityDisable(CUPTI_ACTIVITY_KIND_NAME)"},
    {A_SYNC, CUPTI_ACTIVITY_KIND_SYNCHRONIZATION,
     "cuptiActivityEnable(CUPTI_ACTIVITY_KIND_SYNCHRONIZATION)",
     "cuptiActivityDisable(CUPTI_ACTIVITY_KIND_SYNCHRONIZATION)"},
};

constexpr uint64_t kDefaultCaptureLimitSeconds = 315360000;  // 3650 days

}  // namespace

// ---- Buffer callbacks ------------------------------------------------------------------

void bufferRequested(uint8_t** buffer, size_t* size, size_t* maxNumRecords) {
  ZVKCuptiActivityBuffer* free_buffer = nullptr;
  ZVKQueue<ZVKCuptiActivityBuffer>* const free_buffers = to_send.load();
  if (free_buffers != nullptr) free_buffers->pop(&free_buffer);
  // Every buffer is out: wait for the rotator to hand one back, but only while a
  // rotator runs, and not for ever. Without a rotator (suspended, or a child that
  // doesn't follow) nothing would hand one back; with one that is held up (a
  // writer stuck on a hung disk) the thread CUPTI called on, an application
  // thread, must not stay held. CUPTI drops what it can't place.
  const auto give_up = std::chrono::steady_clock::now() + kBufferRequestPatience;
  while (free_buffer == nullptr && free_buffers != nullptr && rotator_switch &&
         std::chrono::steady_clock::now() < give_up) {
    free_buffers->pop_wait_for(&free_buffer, std::chrono::milliseconds(10), rotator_switch);
  }
  if (free_buffer != nullptr) {
    buffers_with_cupti.fetch_add(1);
  } else if (rotator_switch) {
    refused_buffer_requests.fetch_add(1);
  }
  *buffer = free_buffer != nullptr ? free_buffer->buffer : nullptr;
  *size = free_buffer != nullptr ? free_buffer->size : 0;
  *maxNumRecords = 0;
}

void bufferCompleted(CUctx_st* /*ctx*/, uint32_t /*streamId*/, uint8_t* buffer, size_t /*size*/,
                     size_t validSize) {
  ZVKQueue<ZVKCuptiActivityBuffer>* const completed = to_parse.load();
  if (buffer == nullptr || completed == nullptr) return;
  auto* owner = reinterpret_cast<ZVKCuptiActivityBuffer*>(buffer -
                                                          offsetof(ZVKCuptiActivityBuffer, buffer));
  owner->valid_size = validSize;
  buffers_with_cupti.fetch_sub(1);
  completed->push(owner);
}

void record_activity(CUpti_Activity* record) {
  ZVKBufferRecordHelper* rh = helper.load(std::memory_order_acquire);
  if (rh == nullptr) return;
  switch (record->kind) {
    case CUPTI_ACTIVITY_KIND_MEMCPY:
      record_memcpy(reinterpret_cast<const MemcpyRecord*>(record), rh);
      break;
    case CUPTI_ACTIVITY_KIND_MEMSET:
      record_memset(reinterpret_cast<const MemsetRecord*>(record), rh);
      break;
    case CUPTI_ACTIVITY_KIND_KERNEL:
      record_kernel(reinterpret_cast<const KernelRecord*>(record), cudaevent::KERNEL, rh);
      break;
    case CUPTI_ACTIVITY_KIND_DRIVER:
      record_api(reinterpret_cast<const ApiRecord*>(record), cudaevent::DRIVER, rh);
      break;
    case CUPTI_ACTIVITY_KIND_RUNTIME:
      record_api(reinterpret_cast<const ApiRecord*>(record), cudaevent::RUNTIME, rh);
      break;
    case CUPTI_ACTIVITY_KIND_CONCURRENT_KERNEL:
      record_kernel(reinterpret_cast<const KernelRecord*>(record), cudaevent::CONCURRENT_KERNEL, rh);
      break;
    case CUPTI_ACTIVITY_KIND_MEMCPY2:
      record_peer_copy(reinterpret_cast<const PeerCopyRecord*>(record), rh);
      break;
    case CUPTI_ACTIVITY_KIND_SYNCHRONIZATION:
      record_sync(reinterpret_cast<const SyncRecord*>(record), rh);
      break;
    default:  // CONTEXT, NAME and every other kind say nothing kept here
      break;
  }
}

void CUPTIAPI trace_callback(void* /*userdata*/, CUpti_CallbackDomain domain, CUpti_CallbackId cbid,
                             const void* cbdata) {
  const auto* info = static_cast<const CUpti_CallbackData*>(cbdata);
  if (info->callbackSite == CUPTI_API_ENTER) {
    cupti().cuptiGetTimestamp(info->correlationData);
    return;
  }
  OnDriverApiExit(domain, cbid, info);
}

// ---- The collector ---------------------------------------------------------------------

namespace {

std::unique_ptr<ZVKQueue<ZVKCuptiActivityBuffer>> make_activity_pool() {
  ZVKCuptiActivityBuffer prototype = {kActivityBufferSize, 0};
  return std::make_unique<ZVKQueue<ZVKCuptiActivityBuffer>>(kActivityBufferCount,
                                                            kActivityBufferSize, prototype);
}

}  // namespace

ZVKCudaCollector::ZVKCudaCollector(const std::string& name, ZVKQueue<ZVKBuffer>* to_fill,
                                   ZVKQueue<ZVKBuffer>* to_write)
    : ZVKDataCollectorBase(name, to_fill, to_write),
      m_to_send(make_activity_pool()),
      m_to_parse(std::make_unique<ZVKQueue<ZVKCuptiActivityBuffer>>()),
      m_own_helper(std::make_unique<ZVKBufferRecordHelper>(to_fill, to_write)),
      m_max_capture_duration(
          get_env_value_as<uint64_t>("ZVK_CAPTURE_LIMIT_SECONDS", kDefaultCaptureLimitSeconds)),
      m_current_config(DEFAULT_CUPTI_CONFIG) {
  helper = m_own_helper.get();
  to_send = m_to_send.get();
  to_parse = m_to_parse.get();
}

ZVKCudaCollector::ZVKCudaCollector(const std::string& name,
                                   std::shared_ptr<ZVKBufferRecordHelper> shared_helper)
    : ZVKDataCollectorBase(name, std::move(shared_helper)),
      m_to_send(make_activity_pool()),
      m_to_parse(std::make_unique<ZVKQueue<ZVKCuptiActivityBuffer>>()),
      m_max_capture_duration(
          get_env_value_as<uint64_t>("ZVK_CAPTURE_LIMIT_SECONDS", kDefaultCaptureLimitSeconds)) {
  helper = m_helper.get();
  to_send = m_to_send.get();
  to_parse = m_to_parse.get();
}

ZVKCudaCollector::~ZVKCudaCollector() {
  end_time_limiter();
  // CUPTI still tracing (suspended, or never stopped) would go on writing into the
  // buffers freed below and calling back into the helper: it is stopped first.
  stop_if_tracing();
  std::lock_guard<std::mutex> lifecycle(m_lifecycle_mutex);
  end_buffer_rotator();
  helper = nullptr;
  to_send = nullptr;
  to_parse = nullptr;
}

Status ZVKCudaCollector::stop_if_tracing() {
  return m_cupti_on.load() ? stop_profiling() : Status::OK();
}

ZVKBufferRecordHelper* ZVKCudaCollector::record_helper() const {
  return m_own_helper ? m_own_helper.get() : m_helper.get();
}

Status ZVKCudaCollector::configure(const std::map<std::string, std::string>& /*config*/) {
  return Status::OK();
}

Status ZVKCudaCollector::start_profiling() {
  std::lock_guard<std::mutex> lifecycle(m_lifecycle_mutex);
  m_pid = getpid();
  pid = static_cast<uint32_t>(m_pid);
  helper = record_helper();
  // Loads the unwinder here rather than in the first driver API callback.
  void* warm_up[1];
  capture_backtrace(warm_up, 1);
  start_api_python_stacks();
  // The last stop's forced flush took every buffer back from CUPTI.
  buffers_with_cupti = 0;
  const auto deadline = limit_deadline(m_first_capture, m_max_capture_duration);
  if (m_time_limiter_started && LimiterClock::now() < deadline) {
    return Status(error::UNSUPPORTED, "Capture beyond time threshold of " +
                                          std::to_string(m_max_capture_duration) +
                                          " is not possible!");
  }
  if (!m_time_limiter_started) {
    m_first_capture = LimiterClock::now();
    m_time_limiter = start_time_limiter();
    m_time_limiter_started = true;
  }
  m_current_config = get_env_value_as<uint64_t>("ZVK_CUDA_CONFIG", DEFAULT_CUPTI_CONFIG);
  const ZVKCuptiFunctions& api = cupti();
  for (const ActivityFlag& flag : kActivityFlags) {
    if (m_current_config & flag.flag) check(api.cuptiActivityEnable(flag.kind), flag.enable);
  }
  check(api.cuptiSubscribe(&m_subscriber, reinterpret_cast<CUpti_CallbackFunc>(trace_callback), this),
        "cuptiSubscribe(&m_subscriber, (CUpti_CallbackFunc)trace_callback, this)");
  if (m_current_config & CB_DRIVER) {
    check(api.cuptiEnableDomain(1, m_subscriber, CUPTI_CB_DOMAIN_DRIVER_API),
          "cuptiEnableDomain(1, m_subscriber, CUPTI_CB_DOMAIN_DRIVER_API)");
  }
  check(api.cuptiActivityRegisterCallbacks(bufferRequested, bufferCompleted),
        "cuptiActivityRegisterCallbacks(bufferRequested, bufferCompleted)");
  m_cupti_on = true;
  if (m_buffer_rotator == nullptr) m_buffer_rotator = start_buffer_rotator();
  return Status::OK();
}

Status ZVKCudaCollector::stop_profiling() {
  std::lock_guard<std::mutex> lifecycle(m_lifecycle_mutex);
  m_cupti_on = false;
  const ZVKCuptiFunctions& api = cupti();
  if (m_current_config & CB_DRIVER) {
    check(api.cuptiEnableDomain(0, m_subscriber, CUPTI_CB_DOMAIN_DRIVER_API),
          "cuptiEnableDomain(0, m_subscriber, CUPTI_CB_DOMAIN_DRIVER_API)");
  }
  check(api.cuptiUnsubscribe(m_subscriber), "cuptiUnsubscribe(m_subscriber)");
  for (const ActivityFlag& flag : kActivityFlags) {
    if (m_current_config & flag.flag) check(api.cuptiActivityDisable(flag.kind), flag.disable);
  }
  check(api.cuptiActivityFlushAll(1), "cuptiActivityFlushAll(1)");
  end_buffer_rotator();
  ZVK_LOG_NOT_OK(ERROR, record_helper()->flush(), "flushing buffer helper returned not OK");
  const uint64_t refused = refused_buffer_requests.exchange(0);
  if (refused != 0) {
    LOG(WARNING) << m_name << " refused CUPTI " << refused
                 << " activity buffers: all were waiting to be written, and CUPTI dropped "
                    "what it could not place";
  }
  return Status::OK();
}

Status ZVKCudaCollector::suspend_profiling() {
  {
    std::lock_guard<std::mutex> lifecycle(m_lifecycle_mutex);
    end_buffer_rotator();
  }
  // Not under the lifecycle lock: a limiter whose deadline came is inside a stop
  // that needs it, and the join below waits for that stop.
  end_time_limiter();
  return Status::OK();
}

Status ZVKCudaCollector::resume_profiling() {
  std::lock_guard<std::mutex> lifecycle(m_lifecycle_mutex);
  if (m_pid != getpid()) discard_parents_activity();
  m_pid = getpid();
  pid = static_cast<uint32_t>(m_pid);
  m_buffer_rotator = start_buffer_rotator();
  // A new limiter (its start clears the cancel) for the old deadline, where a
  // suspend ended the last one.
  if (m_time_limiter_started && m_time_limiter == nullptr) m_time_limiter = start_time_limiter();
  return Status::OK();
}

void ZVKCudaCollector::discard_parents_activity() {
  // Completed buffers copied over at the fork hold the parent's GPU work, which
  // the parent writes itself; walked here they would be written twice, under the
  // child's pid. The buffers CUPTI held at the fork never come back to the child.
  ZVKQueue<ZVKCuptiActivityBuffer>* const completed = to_parse.load();
  ZVKCuptiActivityBuffer* buffer = nullptr;
  for (completed->pop(&buffer); buffer != nullptr; completed->pop(&buffer)) {
    return_buffer(buffer);
    buffer = nullptr;
  }
  buffers_with_cupti = 0;
  // The codes the parent announced are in the parent's capture, not the child's.
  PythonFrameWalker* walker = api_walker.load(std::memory_order_acquire);
  if (walker != nullptr) walker->forget_codes();
}

std::thread* ZVKCudaCollector::start_buffer_rotator() {
  if (m_buffer_rotator != nullptr) {
    LOG(WARNING) << "Buffer rotator is already active! Returning same rotator";
    return m_buffer_rotator;
  }
  rotator_switch = true;
  ScopedSignalsBlocked blocked;
  return new std::thread(rotator_loop);
}

void ZVKCudaCollector::end_buffer_rotator() {
  rotator_switch = false;
  if (m_buffer_rotator == nullptr) return;
  // A bufferRequested waiting for the rotator's buffers gives up now.
  m_to_send->wake_consumers();
  m_buffer_rotator->join();
  delete m_buffer_rotator;
  m_buffer_rotator = nullptr;
}

std::thread* ZVKCudaCollector::start_time_limiter() {
  // Not under the limiter's lock: the callers hold the lifecycle lock, and a limiter
  // takes its own lock first and the lifecycle lock in its stop, so taking them in
  // the other order here would invert the two. No limiter runs at this point (a
  // suspend joined the last one), and the new thread sees the store through its
  // start.
  time_limit_switch = false;
  const auto deadline = limit_deadline(m_first_capture, m_max_capture_duration);
  ScopedSignalsBlocked blocked;
  return new std::thread([this, deadline] {
    std::unique_lock<std::mutex> lock(m_time_limiter_mutex);
    m_cv.wait_until(lock, deadline, [] { return time_limit_switch.load(); });
    if (time_limit_switch) return;
    if (LimiterClock::now() >= deadline) {
      VLOG(1) << "Cuda capture time limit reached. Stopping capture";
    }
    stop_profiling();
  });
}

ZVKCudaCollector::LimiterClock::time_point ZVKCudaCollector::limit_deadline(
    LimiterClock::time_point first_capture, uint64_t limit_s) {
  const auto room = std::chrono::duration_cast<std::chrono::seconds>(
      LimiterClock::time_point::max() - first_capture);
  if (limit_s >= static_cast<uint64_t>(room.count())) return LimiterClock::time_point::max();
  return first_capture + std::chrono::seconds(limit_s);
}

void ZVKCudaCollector::end_time_limiter() {
  {
    // Under the limiter's lock, so that the flag can't fall between its test and
    // its wait: the cancel always lands.
    std::lock_guard<std::mutex> guard(m_time_limiter_mutex);
    time_limit_switch = true;
  }
  m_cv.notify_all();
  if (m_time_limiter == nullptr) return;
  m_time_limiter->join();
  delete m_time_limiter;
  m_time_limiter = nullptr;
}

}  // namespace zorvek
