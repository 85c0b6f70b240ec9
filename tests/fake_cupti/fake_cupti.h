#pragma once

// Control API of the fake CUPTI (libzorv_fake_cupti.so), for tests.
//
// The fake is a stand-in for NVIDIA's CUPTI library in tests that have no GPU. It
// exports the ten CUPTI functions the GPU collector resolves at run time, with
// CUPTI's own signatures, and models only the part of CUPTI that the collector
// uses: activity kinds switched on and off, one callback subscriber with its
// domains, the two activity buffer callbacks, records walked in completed buffers,
// a clock, and result texts. The records it hands out are ones a test built from
// CUPTI's real structures and passed to fake_cupti_emit.
//
// A test links this library and points ZVK_CUPTI_LIBRARY at the same file, so that
// the collector's dlopen finds the copy already loaded and both see one state.
//
// Every function here is thread-safe. None holds the fake's lock while it calls
// into the collector (its buffer callbacks, its subscriber callback), since those
// may block or take locks of their own.

#include <cupti.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// --- State -------------------------------------------------------------------

// Back to the state of a freshly loaded library: no calls logged, no failures
// armed, no subscriber, no buffer callbacks, no kinds or domains enabled, no buffer
// held and none known, every counter 0, the clock at its base. Calls no callback:
// a buffer held is forgotten, not completed. Handles given out before stay invalid.
void fake_cupti_reset(void);

// --- Call log ----------------------------------------------------------------
// Each call of the CUPTI functions is logged in order, before it succeeds or
// fails, as: "cuptiActivityEnable(3)", "cuptiActivityDisable(3)" (the kind's
// number), "cuptiSubscribe", "cuptiUnsubscribe", "cuptiEnableDomain(1,1)" (enable,
// then the domain's number), "cuptiActivityRegisterCallbacks",
// "cuptiActivityFlushAll(1)" (the flag), "cuptiGetResultString(12)" (the result's
// number). cuptiActivityGetNextRecord and cuptiGetTimestamp are only counted.

size_t fake_cupti_call_count(void);

// Copies call `index` into `out` (NUL-terminated, cut to `out_size`) and returns
// its full length, as snprintf does; 0, and an empty `out`, when there is no such
// call. No logged call is empty.
size_t fake_cupti_call(size_t index, char* out, size_t out_size);

// Empties the log only, so that a test can look at what one step does.
void fake_cupti_clear_calls(void);

// --- Failures ----------------------------------------------------------------

// The next `count` calls of the CUPTI function named `function` (for instance
// "cuptiActivityEnable") return `result` and have no other effect than being
// logged or counted; `count` < 0 means every call until reset, 0 disarms. Arming a
// function again replaces what was armed. Returns false, arming nothing, for a name
// that is not one of the ten functions.
bool fake_cupti_fail(const char* function, CUptiResult result, int count);

// Once: the first cuptiActivityGetNextRecord that would return the record at
// `index` of a buffer (counting from 0 in the order emitted; an index equal to the
// buffer's record count stands for its end, where CUPTI_ERROR_MAX_LIMIT_REACHED
// would come) returns `result` instead and leaves *record as it was, so that the
// next call returns what it would have. Arming again replaces what was armed.
void fake_cupti_next_record_error(size_t index, CUptiResult result);

// --- Activity ----------------------------------------------------------------
// Records go into the buffer the fake holds, each at an 8-byte aligned offset. With
// none held, the fake asks for one through the registered bufferRequested. A record
// that doesn't fit (or one past the buffer's maxNumRecords, when that is not 0)
// completes the held buffer through bufferCompleted with its valid size, and a new
// one is asked for. Kinds are not filtered: a record is placed whether or not its
// kind is enabled, so the test decides what CUPTI would have produced.

// Appends one record of `size` bytes, a copy of `record`, which a test builds from
// CUPTI's structures (CUpti_ActivityKernel13, CUpti_ActivityMemcpy7, ...). Returns
// false, placing nothing, when no callbacks are registered, bufferRequested gave a
// null or empty buffer, or the record is larger than a whole buffer. When two
// threads each obtain a buffer at the same moment, the one that loses the race is
// completed at once with valid size 0.
bool fake_cupti_emit(const void* record, size_t size);

// Completes the held buffer through bufferCompleted, as cuptiActivityFlushAll
// does but without logging. Returns whether a buffer was held.
bool fake_cupti_complete_held(void);

// Whether a buffer is held, and how many records are in it.
bool fake_cupti_holds_buffer(void);
size_t fake_cupti_held_records(void);

// Drive the registered buffer callbacks directly, on the calling thread.
// fake_cupti_request_buffer calls bufferRequested and returns what it gave (the
// fake neither holds nor fills that buffer, and knows it as one without records);
// false when no callback is registered. fake_cupti_complete_buffer calls
// bufferCompleted for `buffer` with `valid_size` (its size argument is the size
// bufferRequested gave for it, when the fake knows it, else `valid_size`); false
// when no callback is registered.
bool fake_cupti_request_buffer(uint8_t** buffer, size_t* size);
bool fake_cupti_complete_buffer(uint8_t* buffer, size_t valid_size);

// How many times the fake has called bufferRequested and bufferCompleted, by any
// path.
size_t fake_cupti_buffers_requested(void);
size_t fake_cupti_buffers_completed(void);

bool fake_cupti_kind_enabled(CUpti_ActivityKind kind);
bool fake_cupti_callbacks_registered(void);
size_t fake_cupti_next_record_calls(void);

// For callers without CUPTI's C structures (the Python tests): one record each,
// built from the newest structure of its kind and given to fake_cupti_emit. The
// kernel's name is copied into storage the fake keeps for its life, as CUPTI's
// names outlive the records that point at them.
bool fake_cupti_emit_kernel(const char* name, uint32_t device_id, uint32_t stream_id,
                            uint32_t correlation_id, uint64_t start, uint64_t end);
bool fake_cupti_emit_memcpy(uint8_t copy_kind, uint64_t bytes, uint32_t device_id,
                            uint32_t stream_id, uint32_t correlation_id, uint64_t start,
                            uint64_t end);

// --- Clock -------------------------------------------------------------------
// cuptiGetTimestamp call number n, counting from 1 since load or reset, returns
// FAKE_CUPTI_TIMESTAMP_BASE + (n - 1) * FAKE_CUPTI_TIMESTAMP_STEP, so the clock is
// strictly increasing across all threads. A failed call writes nothing but is
// still counted and still advances the clock.

#define FAKE_CUPTI_TIMESTAMP_BASE 1000000000ull
#define FAKE_CUPTI_TIMESTAMP_STEP 1000ull

size_t fake_cupti_timestamp_calls(void);

// --- Callbacks ---------------------------------------------------------------

bool fake_cupti_subscribed(void);
// The userdata given to the current subscription; null when none.
void* fake_cupti_userdata(void);
// Whether `domain` is enabled for the current subscriber; false when none.
bool fake_cupti_domain_enabled(CUpti_CallbackDomain domain);

// Runs between the enter and the exit callbacks, with the 64-bit slot that
// correlationData points to in both.
typedef void (*fake_cupti_between_fn)(void* arg, uint64_t* correlation_data);

// Calls the subscriber's callback as CUPTI does for one API call, on the calling
// thread: first with callbackSite CUPTI_API_ENTER, then CUPTI_API_EXIT, passing
// the subscription's userdata, `domain`, `cbid` and one CUpti_CallbackData with
// `function_name`, `symbol_name` and `correlation_id`, correlationData pointing at
// a slot that starts at 0 and is kept from enter to exit, and every other field
// zero or null. Fires only when subscribed and `domain` is enabled; returns whether
// it fired. fake_cupti_fire_api_between also calls `between` (when not null) after
// the enter callback and before the exit one.
bool fake_cupti_fire_api(CUpti_CallbackDomain domain, CUpti_CallbackId cbid,
                         const char* symbol_name, const char* function_name,
                         uint32_t correlation_id);
bool fake_cupti_fire_api_between(CUpti_CallbackDomain domain, CUpti_CallbackId cbid,
                                 const char* symbol_name, const char* function_name,
                                 uint32_t correlation_id, fake_cupti_between_fn between,
                                 void* arg);

#ifdef __cplusplus
}  // extern "C"

#include <string>
#include <vector>

namespace fake_cupti {

// The call log as strings.
inline std::vector<std::string> calls() {
  std::vector<std::string> result;
  for (size_t i = 0, n = fake_cupti_call_count(); i < n; ++i) {
    char text[256];
    size_t len = fake_cupti_call(i, text, sizeof text);
    if (len == 0) break;  // the log was cleared meanwhile
    if (len < sizeof text) {
      result.emplace_back(text, len);
    } else {
      std::string whole(len + 1, '\0');
      fake_cupti_call(i, &whole[0], whole.size());
      whole.resize(len);
      result.push_back(whole);
    }
  }
  return result;
}

}  // namespace fake_cupti
#endif
