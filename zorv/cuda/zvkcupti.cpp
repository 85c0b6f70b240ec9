#include "zorv/cuda/zvkcupti.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "zorv/utils/logging.h"

namespace zorvek {
namespace {

// What every function answers while no CUPTI is loaded.
CUptiResult not_loaded_activity(CUpti_ActivityKind) { return kCuptiNotLoaded; }
CUptiResult not_loaded_subscribe(CUpti_SubscriberHandle*, CUpti_CallbackFunc, void*) {
  return kCuptiNotLoaded;
}
CUptiResult not_loaded_unsubscribe(CUpti_SubscriberHandle) { return kCuptiNotLoaded; }
CUptiResult not_loaded_enable_domain(uint32_t, CUpti_SubscriberHandle, CUpti_CallbackDomain) {
  return kCuptiNotLoaded;
}
CUptiResult not_loaded_register(CUpti_BuffersCallbackRequestFunc, CUpti_BuffersCallbackCompleteFunc) {
  return kCuptiNotLoaded;
}
CUptiResult not_loaded_flush(uint32_t) { return kCuptiNotLoaded; }
CUptiResult not_loaded_next_record(uint8_t*, size_t, CUpti_Activity**) { return kCuptiNotLoaded; }
CUptiResult not_loaded_timestamp(uint64_t* timestamp) {
  if (timestamp != nullptr) *timestamp = 0;
  return kCuptiNotLoaded;
}

const char* const kNotLoadedText = "CUPTI is not loaded";

CUptiResult not_loaded_result_string(CUptiResult, const char** text) {
  if (text != nullptr) *text = kNotLoadedText;
  return CUPTI_SUCCESS;
}

constexpr ZVKCuptiFunctions kNotLoaded = {
    not_loaded_activity,    not_loaded_activity,      not_loaded_subscribe,
    not_loaded_unsubscribe, not_loaded_enable_domain, not_loaded_register,
    not_loaded_flush,       not_loaded_next_record,   not_loaded_timestamp,
    not_loaded_result_string,
};

struct LoadedCupti {
  ZVKCuptiFunctions functions = kNotLoaded;
  std::string library;
  std::vector<std::string> tried;
};

template <typename Function>
bool resolve(void* handle, const char* name, Function* slot, std::string* missing) {
  void* symbol = dlsym(handle, name);
  if (symbol == nullptr) {
    *missing = name;
    return false;
  }
  *slot = reinterpret_cast<Function>(symbol);
  return true;
}

// All ten functions from one library, or none: a library that lacks one is not
// a CUPTI the collector can drive.
bool resolve_all(void* handle, ZVKCuptiFunctions* f, std::string* missing) {
  return resolve(handle, "cuptiActivityEnable", &f->cuptiActivityEnable, missing) &&
         resolve(handle, "cuptiActivityDisable", &f->cuptiActivityDisable, missing) &&
         resolve(handle, "cuptiSubscribe", &f->cuptiSubscribe, missing) &&
         resolve(handle, "cuptiUnsubscribe", &f->cuptiUnsubscribe, missing) &&
         resolve(handle, "cuptiEnableDomain", &f->cuptiEnableDomain, missing) &&
         resolve(handle, "cuptiActivityRegisterCallbacks", &f->cuptiActivityRegisterCallbacks,
                 missing) &&
         resolve(handle, "cuptiActivityFlushAll", &f->cuptiActivityFlushAll, missing) &&
         resolve(handle, "cuptiActivityGetNextRecord", &f->cuptiActivityGetNextRecord, missing) &&
         resolve(handle, "cuptiGetTimestamp", &f->cuptiGetTimestamp, missing) &&
         resolve(handle, "cuptiGetResultString", &f->cuptiGetResultString, missing);
}

std::string directory_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

bool file_exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

// The wheels install beside the module: site-packages/nvidia/... next to _zorv.
std::vector<std::string> wheel_candidates() {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&cupti), &info) == 0 || info.dli_fname == nullptr) return {};
  const std::string site = directory_of(info.dli_fname);
  std::vector<std::string> found;
  for (const char* relative : {"/nvidia/cu13/lib/libcupti.so.13", "/nvidia/cuda_cupti/lib/libcupti.so.12"}) {
    const std::string path = site + relative;
    if (file_exists(path)) found.push_back(path);
  }
  return found;
}

std::vector<std::string> candidates() {
  std::vector<std::string> places;
  const char* configured = getenv("ZVK_CUPTI_LIBRARY");
  if (configured != nullptr && configured[0] != '\0') places.emplace_back(configured);
  for (const std::string& wheel : wheel_candidates()) places.push_back(wheel);
  for (const char* soname : {"libcupti.so.13", "libcupti.so.12", "libcupti.so.11"}) {
    places.emplace_back(soname);
  }
  return places;
}

LoadedCupti load() {
  LoadedCupti loaded;
  for (const std::string& place : candidates()) {
    void* handle = dlopen(place.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      const char* why = dlerror();
      loaded.tried.push_back(place + " (" + (why != nullptr ? why : "not loaded") + ")");
      continue;
    }
    ZVKCuptiFunctions functions;
    std::string missing;
    if (!resolve_all(handle, &functions, &missing)) {
      loaded.tried.push_back(place + " (no " + missing + ")");
      dlclose(handle);
      continue;
    }
    loaded.functions = functions;
    loaded.library = place;
    return loaded;
  }
  std::string tried;
  for (const std::string& place : loaded.tried) tried += (tried.empty() ? "" : "; ") + place;
  LOG(WARNING) << "GPU tracing is off: no CUPTI library could be loaded. Tried: " << tried;
  return loaded;
}

// Loaded once, on first use, and never unloaded: CUPTI may call back into us
// until the process ends.
const LoadedCupti& loaded_cupti() {
  static const LoadedCupti* loaded = new LoadedCupti(load());
  return *loaded;
}

}  // namespace

const ZVKCuptiFunctions& cupti() { return loaded_cupti().functions; }

const std::string& cupti_library() { return loaded_cupti().library; }

const std::vector<std::string>& cupti_places_tried() { return loaded_cupti().tried; }

std::string cupti_result_text(CUptiResult result) {
  const char* text = nullptr;
  if (cupti().cuptiGetResultString(result, &text) == CUPTI_SUCCESS && text != nullptr) return text;
  return "CUPTI result " + std::to_string(static_cast<int>(result));
}

}  // namespace zorvek
