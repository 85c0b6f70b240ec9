#pragma once

#include <cupti.h>

#include <string>
#include <vector>

namespace zorvek {

// The CUPTI functions the GPU collector calls, resolved at run time: the capture
// core never links CUPTI, so that a process without CUDA imports, samples and
// annotates as before. The library comes from, in this order: the path in
// ZVK_CUPTI_LIBRARY; the nvidia-cuda-cupti wheel installed beside the module
// (CUDA 13, then 12 layout); the dynamic loader's own search for libcupti.so.13,
// .12, .11. When none loads, one WARNING names what was tried, and every function
// answers kCuptiNotLoaded, whose text says so.
struct ZVKCuptiFunctions {
  CUptiResult (*cuptiActivityEnable)(CUpti_ActivityKind kind);
  CUptiResult (*cuptiActivityDisable)(CUpti_ActivityKind kind);
  CUptiResult (*cuptiSubscribe)(CUpti_SubscriberHandle* subscriber, CUpti_CallbackFunc callback,
                                void* userdata);
  CUptiResult (*cuptiUnsubscribe)(CUpti_SubscriberHandle subscriber);
  CUptiResult (*cuptiEnableDomain)(uint32_t enable, CUpti_SubscriberHandle subscriber,
                                   CUpti_CallbackDomain domain);
  CUptiResult (*cuptiActivityRegisterCallbacks)(CUpti_BuffersCallbackRequestFunc requested,
                                                CUpti_BuffersCallbackCompleteFunc completed);
  CUptiResult (*cuptiActivityFlushAll)(uint32_t flag);
  CUptiResult (*cuptiActivityGetNextRecord)(uint8_t* buffer, size_t valid_size,
                                            CUpti_Activity** record);
  CUptiResult (*cuptiGetTimestamp)(uint64_t* timestamp);
  CUptiResult (*cuptiGetResultString)(CUptiResult result, const char** text);
};

// What every function answers when no CUPTI could be loaded.
constexpr CUptiResult kCuptiNotLoaded = CUPTI_ERROR_NOT_INITIALIZED;

// The process's CUPTI, loaded on first use.
const ZVKCuptiFunctions& cupti();

// Where it came from, empty when none loaded; and the places tried, in order.
const std::string& cupti_library();
const std::vector<std::string>& cupti_places_tried();

// The text of a result, never null: CUPTI's own, or one that says CUPTI is not
// loaded, or the number where CUPTI has no text for it.
std::string cupti_result_text(CUptiResult result);

}  // namespace zorvek
