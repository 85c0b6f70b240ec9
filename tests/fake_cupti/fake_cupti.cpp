// A fake CUPTI for tests: a shared library that stands in for NVIDIA's libcupti
// where there is no GPU. It exports the ten CUPTI functions the GPU collector
// resolves at run time, declared by CUPTI's own header so that the compiler holds
// them to CUPTI's signatures, and nothing else of CUPTI's. It models only what the
// collector relies on; the activity records it hands out are the ones a test built
// from CUPTI's real structures and passed to fake_cupti_emit. The control API that
// tests use is in fake_cupti.h.
//
// All state sits under one mutex. It is never held while the collector's code runs
// (buffer callbacks, subscriber callback): bufferRequested may block until another
// thread gives a buffer back, and both take locks of their own, so each such call
// copies what it needs, unlocks, and then calls.

#include "tests/fake_cupti/fake_cupti.h"

#include <cupti.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

const char* const kFunctionNames[] = {
    "cuptiActivityEnable",        "cuptiActivityDisable",       "cuptiSubscribe",
    "cuptiUnsubscribe",           "cuptiEnableDomain",          "cuptiActivityRegisterCallbacks",
    "cuptiActivityFlushAll",      "cuptiActivityGetNextRecord", "cuptiGetTimestamp",
    "cuptiGetResultString",
};

struct Failure {
  CUptiResult result;
  int remaining;  // < 0: every call
};

// What the fake knows of one buffer it obtained through bufferRequested: its size,
// and where each record it placed there starts and how long it is, in the order
// placed. That list is what cuptiActivityGetNextRecord walks.
struct KnownBuffer {
  size_t capacity = 0;
  std::vector<std::pair<size_t, size_t>> records;  // offset, size
};

struct State {
  std::mutex mutex;

  std::vector<std::string> calls;
  std::map<std::string, Failure> failures;

  bool next_record_error_armed = false;
  size_t next_record_error_index = 0;
  CUptiResult next_record_error_result = CUPTI_SUCCESS;

  bool subscribed = false;
  uintptr_t subscriber = 0;
  // Never reset, so that no handle is ever given out twice and an ended one
  // stays invalid after a reset too.
  uint64_t subscriptions = 0;
  CUpti_CallbackFunc callback = nullptr;
  void* userdata = nullptr;
  std::set<int> domains;

  CUpti_BuffersCallbackRequestFunc requested = nullptr;
  CUpti_BuffersCallbackCompleteFunc completed = nullptr;
  std::set<int> kinds;

  uint8_t* held = nullptr;
  size_t held_capacity = 0;
  size_t held_used = 0;
  size_t held_max_records = 0;  // 0: as many as fit
  std::unordered_map<uint8_t*, KnownBuffer> buffers;

  size_t next_record_calls = 0;
  size_t timestamp_calls = 0;
  size_t buffers_requested = 0;
  size_t buffers_completed = 0;
};

// Never destroyed: the collector's threads may still call in while the process
// exits, after static destructors have run.
State& state() {
  static State* s = new State;
  return *s;
}

// Logs `call` (unless empty) and takes one armed failure of `function`, if any.
// The caller holds the mutex.
CUptiResult enter_locked(State& s, const char* function, std::string call) {
  if (!call.empty()) s.calls.push_back(std::move(call));
  auto it = s.failures.find(function);
  if (it == s.failures.end()) return CUPTI_SUCCESS;
  CUptiResult result = it->second.result;
  if (it->second.remaining > 0 && --it->second.remaining == 0) s.failures.erase(it);
  return result;
}

const char* result_name(CUptiResult result) {
  switch (result) {
#define FAKE_CUPTI_NAME(r) \
  case r:                  \
    return #r;
    FAKE_CUPTI_NAME(CUPTI_SUCCESS)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_PARAMETER)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_DEVICE)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_CONTEXT)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_EVENT_DOMAIN_ID)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_EVENT_ID)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_EVENT_NAME)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_OPERATION)
    FAKE_CUPTI_NAME(CUPTI_ERROR_OUT_OF_MEMORY)
    FAKE_CUPTI_NAME(CUPTI_ERROR_HARDWARE)
    FAKE_CUPTI_NAME(CUPTI_ERROR_PARAMETER_SIZE_NOT_SUFFICIENT)
    FAKE_CUPTI_NAME(CUPTI_ERROR_API_NOT_IMPLEMENTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_MAX_LIMIT_REACHED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_NOT_READY)
    FAKE_CUPTI_NAME(CUPTI_ERROR_NOT_COMPATIBLE)
    FAKE_CUPTI_NAME(CUPTI_ERROR_NOT_INITIALIZED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_METRIC_ID)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_METRIC_NAME)
    FAKE_CUPTI_NAME(CUPTI_ERROR_QUEUE_EMPTY)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_HANDLE)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_STREAM)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_KIND)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_EVENT_VALUE)
    FAKE_CUPTI_NAME(CUPTI_ERROR_DISABLED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_MODULE)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_METRIC_VALUE)
    FAKE_CUPTI_NAME(CUPTI_ERROR_HARDWARE_BUSY)
    FAKE_CUPTI_NAME(CUPTI_ERROR_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_UM_PROFILING_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_UM_PROFILING_NOT_SUPPORTED_ON_DEVICE)
    FAKE_CUPTI_NAME(CUPTI_ERROR_UM_PROFILING_NOT_SUPPORTED_ON_NON_P2P_DEVICES)
    FAKE_CUPTI_NAME(CUPTI_ERROR_UM_PROFILING_NOT_SUPPORTED_WITH_MPS)
    FAKE_CUPTI_NAME(CUPTI_ERROR_CDP_TRACING_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_VIRTUALIZED_DEVICE_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_CUDA_COMPILER_NOT_COMPATIBLE)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INSUFFICIENT_PRIVILEGES)
    FAKE_CUPTI_NAME(CUPTI_ERROR_OLD_PROFILER_API_INITIALIZED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_OPENACC_UNDEFINED_ROUTINE)
    FAKE_CUPTI_NAME(CUPTI_ERROR_LEGACY_PROFILER_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_MULTIPLE_SUBSCRIBERS_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_VIRTUALIZED_DEVICE_INSUFFICIENT_PRIVILEGES)
    FAKE_CUPTI_NAME(CUPTI_ERROR_CONFIDENTIAL_COMPUTING_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_CMP_DEVICE_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_MIG_DEVICE_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_SLI_DEVICE_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_WSL_DEVICE_NOT_SUPPORTED)
    FAKE_CUPTI_NAME(CUPTI_ERROR_INVALID_CHIP_NAME)
    FAKE_CUPTI_NAME(CUPTI_ERROR_HES_TRACE_NOT_SUPPORTED_ON_MPS)
    FAKE_CUPTI_NAME(CUPTI_ERROR_UNKNOWN)
#undef FAKE_CUPTI_NAME
    default:
      return nullptr;
  }
}

CUpti_SubscriberHandle as_handle(uintptr_t value) {
  return reinterpret_cast<CUpti_SubscriberHandle>(value);
}

bool valid_subscriber_locked(const State& s, CUpti_SubscriberHandle subscriber) {
  return s.subscribed && subscriber != nullptr &&
         reinterpret_cast<uintptr_t>(subscriber) == s.subscriber;
}

// A fresh buffer from bufferRequested replaces whatever the fake knew under that
// address: the collector hands the same buffers out again and again.
void know_buffer_locked(State& s, uint8_t* buffer, size_t capacity) {
  KnownBuffer& known = s.buffers[buffer];
  known.capacity = capacity;
  known.records.clear();
}

size_t align8(size_t n) { return (n + 7) & ~size_t{7}; }

// Takes the held buffer out of the state and completes it through bufferCompleted,
// with the mutex released for the call. Returns whether one was held.
bool complete_held(State& s, std::unique_lock<std::mutex>& lock) {
  if (s.held == nullptr) return false;
  uint8_t* buffer = s.held;
  size_t capacity = s.held_capacity;
  size_t used = s.held_used;
  CUpti_BuffersCallbackCompleteFunc completed = s.completed;
  s.held = nullptr;
  s.held_capacity = s.held_used = s.held_max_records = 0;
  if (completed != nullptr) ++s.buffers_completed;
  lock.unlock();
  if (completed != nullptr) completed(nullptr, 0, buffer, capacity, used);
  lock.lock();
  return true;
}

bool fire(CUpti_CallbackDomain domain, CUpti_CallbackId cbid, const char* symbol_name,
          const char* function_name, uint32_t correlation_id, fake_cupti_between_fn between,
          void* arg) {
  State& s = state();
  CUpti_CallbackFunc callback;
  void* userdata;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.subscribed || s.callback == nullptr || s.domains.count(domain) == 0) return false;
    callback = s.callback;
    userdata = s.userdata;
  }
  // CUPTI keeps one slot per API call from its enter to its exit; so does this
  // frame.
  uint64_t slot = 0;
  CUpti_CallbackData data;
  std::memset(&data, 0, sizeof data);
  data.functionName = function_name;
  data.symbolName = symbol_name;
  data.correlationData = &slot;
  data.correlationId = correlation_id;
  data.callbackSite = CUPTI_API_ENTER;
  callback(userdata, domain, cbid, &data);
  if (between != nullptr) between(arg, &slot);
  data.callbackSite = CUPTI_API_EXIT;
  callback(userdata, domain, cbid, &data);
  return true;
}

}  // namespace

// --- The CUPTI functions -------------------------------------------------------

extern "C" {

CUptiResult CUPTIAPI cuptiActivityEnable(CUpti_ActivityKind kind) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  CUptiResult r = enter_locked(
      s, "cuptiActivityEnable",
      "cuptiActivityEnable(" + std::to_string(static_cast<int>(kind)) + ")");
  if (r != CUPTI_SUCCESS) return r;
  if (kind <= CUPTI_ACTIVITY_KIND_INVALID || kind >= CUPTI_ACTIVITY_KIND_COUNT) {
    return CUPTI_ERROR_INVALID_KIND;
  }
  s.kinds.insert(kind);
  return CUPTI_SUCCESS;
}

CUptiResult CUPTIAPI cuptiActivityDisable(CUpti_ActivityKind kind) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  CUptiResult r = enter_locked(
      s, "cuptiActivityDisable",
      "cuptiActivityDisable(" + std::to_string(static_cast<int>(kind)) + ")");
  if (r != CUPTI_SUCCESS) return r;
  if (kind <= CUPTI_ACTIVITY_KIND_INVALID || kind >= CUPTI_ACTIVITY_KIND_COUNT) {
    return CUPTI_ERROR_INVALID_KIND;
  }
  s.kinds.erase(kind);
  return CUPTI_SUCCESS;
}

CUptiResult CUPTIAPI cuptiSubscribe(CUpti_SubscriberHandle* subscriber, CUpti_CallbackFunc callback,
                                    void* userdata) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  CUptiResult r = enter_locked(s, "cuptiSubscribe", "cuptiSubscribe");
  if (r != CUPTI_SUCCESS) return r;
  if (subscriber == nullptr) return CUPTI_ERROR_INVALID_PARAMETER;
  // CUPTI allows one subscriber at a time.
  if (s.subscribed) return CUPTI_ERROR_MULTIPLE_SUBSCRIBERS_NOT_SUPPORTED;
  ++s.subscriptions;
  // An opaque value, never dereferenced: distinct per subscription and never null.
  s.subscriber = uintptr_t{0x5c0b0000} + s.subscriptions * 16;
  s.subscribed = true;
  s.callback = callback;
  s.userdata = userdata;
  s.domains.clear();
  *subscriber = as_handle(s.subscriber);
  return CUPTI_SUCCESS;
}

CUptiResult CUPTIAPI cuptiUnsubscribe(CUpti_SubscriberHandle subscriber) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  CUptiResult r = enter_locked(s, "cuptiUnsubscribe", "cuptiUnsubscribe");
  if (r != CUPTI_SUCCESS) return r;
  if (!valid_subscriber_locked(s, subscriber)) return CUPTI_ERROR_INVALID_PARAMETER;
  s.subscribed = false;
  s.subscriber = 0;
  s.callback = nullptr;
  s.userdata = nullptr;
  s.domains.clear();
  return CUPTI_SUCCESS;
}

CUptiResult CUPTIAPI cuptiEnableDomain(uint32_t enable, CUpti_SubscriberHandle subscriber,
                                       CUpti_CallbackDomain domain) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  CUptiResult r = enter_locked(s, "cuptiEnableDomain",
                               "cuptiEnableDomain(" + std::to_string(enable) + "," +
                                   std::to_string(static_cast<int>(domain)) + ")");
  if (r != CUPTI_SUCCESS) return r;
  if (!valid_subscriber_locked(s, subscriber)) return CUPTI_ERROR_INVALID_PARAMETER;
  if (domain <= CUPTI_CB_DOMAIN_INVALID || domain >= CUPTI_CB_DOMAIN_SIZE) {
    return CUPTI_ERROR_INVALID_PARAMETER;
  }
  if (enable != 0) {
    s.domains.insert(domain);
  } else {
    s.domains.erase(domain);
  }
  return CUPTI_SUCCESS;
}

CUptiResult CUPTIAPI cuptiActivityRegisterCallbacks(
    CUpti_BuffersCallbackRequestFunc funcBufferRequested,
    CUpti_BuffersCallbackCompleteFunc funcBufferCompleted) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  CUptiResult r =
      enter_locked(s, "cuptiActivityRegisterCallbacks", "cuptiActivityRegisterCallbacks");
  if (r != CUPTI_SUCCESS) return r;
  if (funcBufferRequested == nullptr || funcBufferCompleted == nullptr) {
    return CUPTI_ERROR_INVALID_PARAMETER;
  }
  s.requested = funcBufferRequested;
  s.completed = funcBufferCompleted;
  return CUPTI_SUCCESS;
}

CUptiResult CUPTIAPI cuptiActivityFlushAll(uint32_t flag) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  CUptiResult r = enter_locked(s, "cuptiActivityFlushAll",
                               "cuptiActivityFlushAll(" + std::to_string(flag) + ")");
  if (r != CUPTI_SUCCESS) return r;
  // Every record the fake holds is complete, so with either flag the held buffer
  // goes back, before this returns.
  complete_held(s, lock);
  return CUPTI_SUCCESS;
}

CUptiResult CUPTIAPI cuptiActivityGetNextRecord(uint8_t* buffer, size_t validBufferSizeBytes,
                                                CUpti_Activity** record) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  ++s.next_record_calls;
  CUptiResult r = enter_locked(s, "cuptiActivityGetNextRecord", "");
  if (r != CUPTI_SUCCESS) return r;
  if (record == nullptr) return CUPTI_ERROR_INVALID_PARAMETER;
  auto it = s.buffers.find(buffer);
  if (buffer == nullptr || validBufferSizeBytes == 0 || it == s.buffers.end()) {
    return CUPTI_ERROR_MAX_LIMIT_REACHED;
  }
  const auto& records = it->second.records;
  size_t next = 0;
  if (*record != nullptr) {
    auto* at = reinterpret_cast<uint8_t*>(*record);
    if (at < buffer) return CUPTI_ERROR_INVALID_PARAMETER;
    size_t offset = static_cast<size_t>(at - buffer);
    auto found = std::lower_bound(
        records.begin(), records.end(), offset,
        [](const std::pair<size_t, size_t>& rec, size_t off) { return rec.first < off; });
    if (found == records.end() || found->first != offset) return CUPTI_ERROR_INVALID_PARAMETER;
    next = static_cast<size_t>(found - records.begin()) + 1;
  }
  if (s.next_record_error_armed && s.next_record_error_index == next) {
    s.next_record_error_armed = false;
    return s.next_record_error_result;
  }
  if (next >= records.size()) return CUPTI_ERROR_MAX_LIMIT_REACHED;
  if (records[next].first + records[next].second > validBufferSizeBytes) {
    return CUPTI_ERROR_MAX_LIMIT_REACHED;
  }
  *record = reinterpret_cast<CUpti_Activity*>(buffer + records[next].first);
  return CUPTI_SUCCESS;
}

CUptiResult CUPTIAPI cuptiGetTimestamp(uint64_t* timestamp) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  uint64_t value = FAKE_CUPTI_TIMESTAMP_BASE + s.timestamp_calls * FAKE_CUPTI_TIMESTAMP_STEP;
  ++s.timestamp_calls;
  CUptiResult r = enter_locked(s, "cuptiGetTimestamp", "");
  if (r != CUPTI_SUCCESS) return r;
  if (timestamp == nullptr) return CUPTI_ERROR_INVALID_PARAMETER;
  *timestamp = value;
  return CUPTI_SUCCESS;
}

CUptiResult CUPTIAPI cuptiGetResultString(CUptiResult result, const char** str) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  CUptiResult r = enter_locked(
      s, "cuptiGetResultString",
      "cuptiGetResultString(" + std::to_string(static_cast<int>(result)) + ")");
  if (r != CUPTI_SUCCESS) return r;
  if (str == nullptr) return CUPTI_ERROR_INVALID_PARAMETER;
  const char* name = result_name(result);
  if (name == nullptr) {
    *str = "CUPTI_ERROR_INVALID_PARAMETER";
    return CUPTI_ERROR_INVALID_PARAMETER;
  }
  *str = name;
  return CUPTI_SUCCESS;
}

// --- The control API -------------------------------------------------------------

void fake_cupti_reset(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.calls.clear();
  s.failures.clear();
  s.next_record_error_armed = false;
  s.next_record_error_index = 0;
  s.next_record_error_result = CUPTI_SUCCESS;
  s.subscribed = false;
  s.subscriber = 0;
  s.callback = nullptr;
  s.userdata = nullptr;
  s.domains.clear();
  s.requested = nullptr;
  s.completed = nullptr;
  s.kinds.clear();
  s.held = nullptr;
  s.held_capacity = s.held_used = s.held_max_records = 0;
  s.buffers.clear();
  s.next_record_calls = 0;
  s.timestamp_calls = 0;
  s.buffers_requested = 0;
  s.buffers_completed = 0;
}

size_t fake_cupti_call_count(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.calls.size();
}

size_t fake_cupti_call(size_t index, char* out, size_t out_size) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  const char* text = index < s.calls.size() ? s.calls[index].c_str() : "";
  size_t len = std::strlen(text);
  if (out != nullptr && out_size > 0) {
    size_t n = std::min(len, out_size - 1);
    std::memcpy(out, text, n);
    out[n] = '\0';
  }
  return len;
}

void fake_cupti_clear_calls(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.calls.clear();
}

bool fake_cupti_fail(const char* function, CUptiResult result, int count) {
  if (function == nullptr) return false;
  bool known = std::any_of(std::begin(kFunctionNames), std::end(kFunctionNames),
                           [&](const char* name) { return std::strcmp(name, function) == 0; });
  if (!known) return false;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (count == 0) {
    s.failures.erase(function);
  } else {
    s.failures[function] = Failure{result, count < 0 ? -1 : count};
  }
  return true;
}

void fake_cupti_next_record_error(size_t index, CUptiResult result) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.next_record_error_armed = true;
  s.next_record_error_index = index;
  s.next_record_error_result = result;
}

bool fake_cupti_emit(const void* record, size_t size) {
  if (record == nullptr || size == 0) return false;
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  for (;;) {
    if (s.held != nullptr) {
      size_t offset = align8(s.held_used);
      KnownBuffer& known = s.buffers[s.held];
      bool room = offset <= s.held_capacity && size <= s.held_capacity - offset &&
                  (s.held_max_records == 0 || known.records.size() < s.held_max_records);
      if (room) {
        std::memcpy(s.held + offset, record, size);
        known.records.emplace_back(offset, size);
        s.held_used = offset + size;
        return true;
      }
      // A record too large for an empty buffer would fit no other either.
      if (known.records.empty()) return false;
      complete_held(s, lock);
      continue;
    }
    CUpti_BuffersCallbackRequestFunc requested = s.requested;
    CUpti_BuffersCallbackCompleteFunc completed = s.completed;
    if (requested == nullptr || completed == nullptr) return false;
    ++s.buffers_requested;
    lock.unlock();
    uint8_t* buffer = nullptr;
    size_t capacity = 0;
    size_t max_records = 0;
    requested(&buffer, &capacity, &max_records);
    lock.lock();
    if (buffer == nullptr || capacity == 0) return false;
    know_buffer_locked(s, buffer, capacity);
    if (s.held != nullptr) {
      // Another thread obtained a buffer meanwhile; give this one back unused, as
      // CUPTI gives back buffers it didn't fill.
      ++s.buffers_completed;
      lock.unlock();
      completed(nullptr, 0, buffer, capacity, 0);
      lock.lock();
      continue;
    }
    s.held = buffer;
    s.held_capacity = capacity;
    s.held_used = 0;
    s.held_max_records = max_records;
  }
}

bool fake_cupti_complete_held(void) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  return complete_held(s, lock);
}

bool fake_cupti_holds_buffer(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.held != nullptr;
}

size_t fake_cupti_held_records(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.held == nullptr) return 0;
  auto it = s.buffers.find(s.held);
  return it == s.buffers.end() ? 0 : it->second.records.size();
}

bool fake_cupti_request_buffer(uint8_t** buffer, size_t* size) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  CUpti_BuffersCallbackRequestFunc requested = s.requested;
  if (requested == nullptr) return false;
  ++s.buffers_requested;
  lock.unlock();
  uint8_t* got = nullptr;
  size_t capacity = 0;
  size_t max_records = 0;
  requested(&got, &capacity, &max_records);
  lock.lock();
  if (got != nullptr) know_buffer_locked(s, got, capacity);
  lock.unlock();
  if (buffer != nullptr) *buffer = got;
  if (size != nullptr) *size = capacity;
  return true;
}

bool fake_cupti_complete_buffer(uint8_t* buffer, size_t valid_size) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  CUpti_BuffersCallbackCompleteFunc completed = s.completed;
  if (completed == nullptr) return false;
  auto it = s.buffers.find(buffer);
  size_t capacity = it != s.buffers.end() ? it->second.capacity : valid_size;
  ++s.buffers_completed;
  lock.unlock();
  completed(nullptr, 0, buffer, capacity, valid_size);
  return true;
}

size_t fake_cupti_buffers_requested(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.buffers_requested;
}

size_t fake_cupti_buffers_completed(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.buffers_completed;
}

bool fake_cupti_kind_enabled(CUpti_ActivityKind kind) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.kinds.count(kind) != 0;
}

bool fake_cupti_callbacks_registered(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.requested != nullptr && s.completed != nullptr;
}

size_t fake_cupti_next_record_calls(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.next_record_calls;
}

size_t fake_cupti_timestamp_calls(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.timestamp_calls;
}

bool fake_cupti_subscribed(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.subscribed;
}

void* fake_cupti_userdata(void) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.userdata;
}

bool fake_cupti_domain_enabled(CUpti_CallbackDomain domain) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.subscribed && s.domains.count(domain) != 0;
}

bool fake_cupti_fire_api(CUpti_CallbackDomain domain, CUpti_CallbackId cbid,
                         const char* symbol_name, const char* function_name,
                         uint32_t correlation_id) {
  return fire(domain, cbid, symbol_name, function_name, correlation_id, nullptr, nullptr);
}

bool fake_cupti_fire_api_between(CUpti_CallbackDomain domain, CUpti_CallbackId cbid,
                                 const char* symbol_name, const char* function_name,
                                 uint32_t correlation_id, fake_cupti_between_fn between,
                                 void* arg) {
  return fire(domain, cbid, symbol_name, function_name, correlation_id, between, arg);
}

}  // extern "C"

bool fake_cupti_emit_kernel(const char* name, uint32_t device_id, uint32_t stream_id,
                            uint32_t correlation_id, uint64_t start, uint64_t end) {
  static std::mutex names_lock;
  static std::set<std::string>* names = new std::set<std::string>();  // never freed
  const char* kept = nullptr;
  if (name != nullptr) {
    std::lock_guard<std::mutex> guard(names_lock);
    kept = names->insert(name).first->c_str();
  }
  CUpti_ActivityKernel13 kernel;
  std::memset(&kernel, 0, sizeof(kernel));
  kernel.kind = CUPTI_ACTIVITY_KIND_KERNEL;
  kernel.name = kept;
  kernel.deviceId = device_id;
  kernel.streamId = stream_id;
  kernel.correlationId = correlation_id;
  kernel.start = start;
  kernel.end = end;
  kernel.completed = end;
  kernel.gridX = kernel.gridY = kernel.gridZ = 1;
  kernel.blockX = 128;
  kernel.blockY = kernel.blockZ = 1;
  return fake_cupti_emit(&kernel, sizeof(kernel));
}

bool fake_cupti_emit_memcpy(uint8_t copy_kind, uint64_t bytes, uint32_t device_id,
                            uint32_t stream_id, uint32_t correlation_id, uint64_t start,
                            uint64_t end) {
  CUpti_ActivityMemcpy7 copy;
  std::memset(&copy, 0, sizeof(copy));
  copy.kind = CUPTI_ACTIVITY_KIND_MEMCPY;
  copy.copyKind = copy_kind;
  copy.bytes = bytes;
  copy.deviceId = device_id;
  copy.streamId = stream_id;
  copy.correlationId = correlation_id;
  copy.start = start;
  copy.end = end;
  return fake_cupti_emit(&copy, sizeof(copy));
}
