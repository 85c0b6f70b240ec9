// libzorv_nvtx.so: NVTX ranges and marks of any library in the process become
// Zorvek annotations, with no change to that library's code.
//
// NVTX-instrumented code loads this library when NVTX_INJECTION64_PATH names it
// and calls InitializeInjectionNvtx2 once per NVTX instance (every shared object
// built with the NVTX v3 headers has its own). That fills the instance's slots
// for push/pop, start/end, marks, domains and registered strings with the
// callbacks below. The callbacks reach the capture through the annotation hook
// table, as any foreign library does: the controller finds ZVKI_update_functable
// when a capture starts and hands over its table, and gives our idle table back
// at the stop. The library never links the capture core, so one process never
// holds two controllers.
//
// Push/pop keep a stack of tokens per thread and per domain (NVTX scopes the
// push/pop level to the domain); start/end ranges carry their token in the range
// id. A domain's name prefixes the message as "domain/message". Entries and
// range ids hold token + 1, and 0 when nothing was recorded (the idle table was
// in place), so that an end is only sent for a begin that reached a capture.

#define NVTX_NO_IMPL  // the types and callback ids only: no NVTX instance of our own
#include <nvtx3/nvToolsExt.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "zorv/format/hooks.h"

#define ZVK_NVTX_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// ---- The hook table --------------------------------------------------------------

using HookTable = zorvek::ZVKIFuncTable_t;
using StartFn = zorvek::zvki_annotation_start_fptr_t;
using EndFn = zorvek::zvki_annotation_end_fptr_t;
using MarkerFn = zorvek::zvki_marker_fptr_t;
using NonCallableFn = zorvek::ZVKINonCallable_fptr;

uint64_t idle_start(const char*, uint64_t) { return 0; }
void idle_end(uint64_t) {}
void idle_marker(const char*, uint64_t) {}

HookTable g_idle_table = {
    0,
    idle_start,
    idle_end,
    idle_marker,
    {nullptr, reinterpret_cast<NonCallableFn*>(&g_idle_table.annotation_start_fptr),
     reinterpret_cast<NonCallableFn*>(&g_idle_table.annotation_end_fptr),
     reinterpret_cast<NonCallableFn*>(&g_idle_table.annotation_marker_fptr), nullptr},
};

// The pointers in use. The controller replaces them while other threads call
// through them, so each is an atomic of its own: a caller sees the old function
// or the new one, never a torn pointer.
std::atomic<StartFn> g_start{idle_start};
std::atomic<EndFn> g_end{idle_end};
std::atomic<MarkerFn> g_marker{idle_marker};

// ---- Domains and registered strings -----------------------------------------------

// Interned by name and never freed: a handle stays valid for every thread and
// every NVTX instance in the process, also after nvtxDomainDestroy, and two
// libraries that name the same domain share its push/pop stacks.
struct Domain {
  std::string name;
  std::string prefix;  // "name/", or empty for an unnamed domain
};

struct RegisteredString {
  const Domain* domain;  // null for the global domain
  std::string text;
  std::string prefixed;  // the text as its own domain shows it
};

struct Registry {
  std::mutex mutex;
  std::map<std::string, Domain*> domains;
  std::map<std::pair<const Domain*, std::string>, RegisteredString*> strings;
};

Registry* g_registry = nullptr;

// A thread may hold the mutex when another one forks; the child has only the
// forking thread, so the mutex would stay locked there and the child's first
// domain or registered string would wait forever. The fork waits for the mutex
// instead, and both sides let it go after.
void lock_registry_before_fork() { g_registry->mutex.lock(); }
void unlock_registry_after_fork() { g_registry->mutex.unlock(); }

// Allocated once and never destroyed: callbacks may still run while the process
// exits, from threads that outlive the static destructors.
Registry& registry() {
  static Registry* instance = [] {
    g_registry = new Registry();
    pthread_atfork(lock_registry_before_fork, unlock_registry_after_fork,
                   unlock_registry_after_fork);
    return g_registry;
  }();
  return *instance;
}

const Domain* as_domain(nvtxDomainHandle_t handle) {
  return reinterpret_cast<const Domain*>(handle);
}

// wchar_t is UTF-32 here; anything that is not a Unicode scalar value becomes
// U+FFFD, so the text in the capture is always valid UTF-8.
void append_utf8(std::string& out, const wchar_t* text) {
  if (text == nullptr) return;
  for (; *text != 0; ++text) {
    uint32_t c = static_cast<uint32_t>(*text);
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
    if (c < 0x80) {
      out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (c >> 12)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (c >> 18)));
      out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
}

nvtxDomainHandle_t create_domain(const std::string& name) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  Domain*& domain = r.domains[name];
  if (domain == nullptr) domain = new Domain{name, name.empty() ? std::string() : name + "/"};
  return reinterpret_cast<nvtxDomainHandle_t>(domain);
}

nvtxStringHandle_t register_string(nvtxDomainHandle_t handle, std::string text) {
  const Domain* domain = as_domain(handle);
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  RegisteredString*& entry = r.strings[std::make_pair(domain, text)];
  if (entry == nullptr) {
    std::string prefixed = domain != nullptr ? domain->prefix + text : text;
    entry = new RegisteredString{domain, std::move(text), std::move(prefixed)};
  }
  return reinterpret_cast<nvtxStringHandle_t>(entry);
}

// ---- Per-thread state -------------------------------------------------------------

struct DomainStack {
  const Domain* domain;
  std::vector<uint64_t> entries;
};

struct ThreadState {
  std::vector<uint64_t> global;       // the global domain's push/pop stack
  std::vector<DomainStack> domains;   // a thread meets few domains: searched in order
  std::string text;                   // where a message is put together

  std::vector<uint64_t>* stack(const Domain* domain, bool create) {
    if (domain == nullptr) return &global;
    for (DomainStack& s : domains) {
      if (s.domain == domain) return &s.entries;
    }
    if (!create) return nullptr;
    domains.push_back(DomainStack{domain, {}});
    return &domains.back().entries;
  }
};

// A plain pointer in thread-local storage: no guard on access and nothing for
// the thread's exit to destroy before a late callback. The state itself is freed
// by a key destructor when the thread ends.
thread_local ThreadState* t_state = nullptr;

pthread_key_t g_state_key;
pthread_once_t g_state_key_once = PTHREAD_ONCE_INIT;

void free_thread_state(void* state) {
  t_state = nullptr;
  delete static_cast<ThreadState*>(state);
}

void create_state_key() { pthread_key_create(&g_state_key, free_thread_state); }

__attribute__((noinline)) ThreadState* new_thread_state() {
  pthread_once(&g_state_key_once, create_state_key);
  auto* state = new ThreadState();
  state->global.reserve(16);
  state->text.reserve(256);
  pthread_setspecific(g_state_key, state);
  t_state = state;
  return state;
}

inline ThreadState& thread_state() {
  ThreadState* state = t_state;
  return __builtin_expect(state != nullptr, 1) ? *state : *new_thread_state();
}

// ---- Messages ---------------------------------------------------------------------

// A message as the hook table wants it: the bytes, their count, and a readable
// NUL right after them (the annotator copies one byte past the text).
struct Text {
  const char* data;
  uint64_t size;
};

Text from_string(const std::string& s) { return Text{s.c_str(), s.size()}; }

Text ascii_text(const Domain* domain, const char* msg) {
  if (msg == nullptr) msg = "";
  if (domain == nullptr || domain->prefix.empty()) return Text{msg, strlen(msg)};
  std::string& buffer = thread_state().text;
  buffer.assign(domain->prefix);
  buffer.append(msg);
  return from_string(buffer);
}

Text wide_text(const Domain* domain, const wchar_t* msg) {
  std::string& buffer = thread_state().text;
  buffer.clear();
  if (domain != nullptr) buffer.append(domain->prefix);
  append_utf8(buffer, msg);
  return from_string(buffer);
}

Text registered_text(const Domain* domain, const RegisteredString* s) {
  if (s == nullptr) return ascii_text(domain, "");
  if (s->domain == domain) return from_string(s->prefixed);
  return ascii_text(domain, s->text.c_str());
}

// The message of an event attribute. One that is missing, too short to hold a
// message or of a type we don't know gives an empty message: the range or mark
// is still recorded.
Text attribute_text(const Domain* domain, const nvtxEventAttributes_t* attr) {
  constexpr size_t kNeeded = offsetof(nvtxEventAttributes_t, message) + sizeof(attr->message);
  if (attr == nullptr || attr->size < kNeeded) return ascii_text(domain, "");
  switch (attr->messageType) {
    case NVTX_MESSAGE_TYPE_ASCII:
      return ascii_text(domain, attr->message.ascii);
    case NVTX_MESSAGE_TYPE_UNICODE:
      return wide_text(domain, attr->message.unicode);
    case NVTX_MESSAGE_TYPE_REGISTERED:
      return registered_text(domain,
                             reinterpret_cast<const RegisteredString*>(attr->message.registered));
    default:
      return ascii_text(domain, "");
  }
}

// ---- The three kinds of event -----------------------------------------------------

// The message is only put together when a capture takes it: with the idle table
// in place a push costs a load, a compare and the stack entry.
template <typename MakeText>
inline uint64_t begin_entry(MakeText make_text) {
  const StartFn start = g_start.load(std::memory_order_acquire);
  if (start == idle_start) return 0;
  const Text text = make_text();
  return start(text.data, text.size) + 1;
}

inline void end_entry(uint64_t entry) {
  if (entry == 0) return;
  g_end.load(std::memory_order_acquire)(entry - 1);
}

template <typename MakeText>
inline int push(const Domain* domain, MakeText make_text) {
  const uint64_t entry = begin_entry(make_text);
  std::vector<uint64_t>& stack = *thread_state().stack(domain, true);
  stack.push_back(entry);
  return static_cast<int>(stack.size() - 1);
}

// A pop with nothing pushed on this thread and domain records nothing.
inline int pop(const Domain* domain) {
  std::vector<uint64_t>* stack = thread_state().stack(domain, false);
  if (stack == nullptr || stack->empty()) return -1;
  const uint64_t entry = stack->back();
  stack->pop_back();
  end_entry(entry);
  return static_cast<int>(stack->size());
}

template <typename MakeText>
inline void mark(MakeText make_text) {
  const MarkerFn marker = g_marker.load(std::memory_order_acquire);
  if (marker == idle_marker) return;
  const Text text = make_text();
  marker(text.data, text.size);
}

// ---- NVTX callbacks ---------------------------------------------------------------

void cb_mark_ex(const nvtxEventAttributes_t* attr) {
  mark([&] { return attribute_text(nullptr, attr); });
}
void cb_mark_a(const char* msg) {
  mark([&] { return ascii_text(nullptr, msg); });
}
void cb_mark_w(const wchar_t* msg) {
  mark([&] { return wide_text(nullptr, msg); });
}

nvtxRangeId_t cb_range_start_ex(const nvtxEventAttributes_t* attr) {
  return begin_entry([&] { return attribute_text(nullptr, attr); });
}
nvtxRangeId_t cb_range_start_a(const char* msg) {
  return begin_entry([&] { return ascii_text(nullptr, msg); });
}
nvtxRangeId_t cb_range_start_w(const wchar_t* msg) {
  return begin_entry([&] { return wide_text(nullptr, msg); });
}
void cb_range_end(nvtxRangeId_t id) { end_entry(id); }

int cb_range_push_ex(const nvtxEventAttributes_t* attr) {
  return push(nullptr, [&] { return attribute_text(nullptr, attr); });
}
int cb_range_push_a(const char* msg) {
  return push(nullptr, [&] { return ascii_text(nullptr, msg); });
}
int cb_range_push_w(const wchar_t* msg) {
  return push(nullptr, [&] { return wide_text(nullptr, msg); });
}
int cb_range_pop() { return pop(nullptr); }

void cb_domain_mark_ex(nvtxDomainHandle_t domain, const nvtxEventAttributes_t* attr) {
  mark([&] { return attribute_text(as_domain(domain), attr); });
}
nvtxRangeId_t cb_domain_range_start_ex(nvtxDomainHandle_t domain,
                                       const nvtxEventAttributes_t* attr) {
  return begin_entry([&] { return attribute_text(as_domain(domain), attr); });
}
void cb_domain_range_end(nvtxDomainHandle_t, nvtxRangeId_t id) { end_entry(id); }
int cb_domain_range_push_ex(nvtxDomainHandle_t domain, const nvtxEventAttributes_t* attr) {
  const Domain* d = as_domain(domain);
  return push(d, [&] { return attribute_text(d, attr); });
}
int cb_domain_range_pop(nvtxDomainHandle_t domain) { return pop(as_domain(domain)); }

nvtxStringHandle_t cb_domain_register_string_a(nvtxDomainHandle_t domain, const char* text) {
  return register_string(domain, text != nullptr ? text : "");
}
nvtxStringHandle_t cb_domain_register_string_w(nvtxDomainHandle_t domain, const wchar_t* text) {
  std::string utf8;
  append_utf8(utf8, text);
  return register_string(domain, std::move(utf8));
}
nvtxDomainHandle_t cb_domain_create_a(const char* name) {
  return create_domain(name != nullptr ? name : "");
}
nvtxDomainHandle_t cb_domain_create_w(const wchar_t* name) {
  std::string utf8;
  append_utf8(utf8, name);
  return create_domain(utf8);
}
// Domains live as long as the process (see Domain): other threads may still hold
// the handle.
void cb_domain_destroy(nvtxDomainHandle_t) {}

// ---- Attaching to one NVTX instance -----------------------------------------------

template <typename Fn>
void set_slot(NvtxFunctionTable table, unsigned int size, unsigned int id, Fn fn) {
  if (id < size && table[id] != nullptr) *table[id] = reinterpret_cast<NvtxFunctionPointer>(fn);
}

bool attach_core(const NvtxExportTableCallbacks* callbacks) {
  NvtxFunctionTable table = nullptr;
  unsigned int size = 0;
  if (callbacks->GetModuleFunctionTable(NVTX_CB_MODULE_CORE, &table, &size) == 0 ||
      table == nullptr) {
    return false;
  }
  set_slot(table, size, NVTX_CBID_CORE_MarkEx, cb_mark_ex);
  set_slot(table, size, NVTX_CBID_CORE_MarkA, cb_mark_a);
  set_slot(table, size, NVTX_CBID_CORE_MarkW, cb_mark_w);
  set_slot(table, size, NVTX_CBID_CORE_RangeStartEx, cb_range_start_ex);
  set_slot(table, size, NVTX_CBID_CORE_RangeStartA, cb_range_start_a);
  set_slot(table, size, NVTX_CBID_CORE_RangeStartW, cb_range_start_w);
  set_slot(table, size, NVTX_CBID_CORE_RangeEnd, cb_range_end);
  set_slot(table, size, NVTX_CBID_CORE_RangePushEx, cb_range_push_ex);
  set_slot(table, size, NVTX_CBID_CORE_RangePushA, cb_range_push_a);
  set_slot(table, size, NVTX_CBID_CORE_RangePushW, cb_range_push_w);
  set_slot(table, size, NVTX_CBID_CORE_RangePop, cb_range_pop);
  return true;
}

// Instances older than domains have no such module; they get the core forms only.
void attach_core2(const NvtxExportTableCallbacks* callbacks) {
  NvtxFunctionTable table = nullptr;
  unsigned int size = 0;
  if (callbacks->GetModuleFunctionTable(NVTX_CB_MODULE_CORE2, &table, &size) == 0 ||
      table == nullptr) {
    return;
  }
  set_slot(table, size, NVTX_CBID_CORE2_DomainMarkEx, cb_domain_mark_ex);
  set_slot(table, size, NVTX_CBID_CORE2_DomainRangeStartEx, cb_domain_range_start_ex);
  set_slot(table, size, NVTX_CBID_CORE2_DomainRangeEnd, cb_domain_range_end);
  set_slot(table, size, NVTX_CBID_CORE2_DomainRangePushEx, cb_domain_range_push_ex);
  set_slot(table, size, NVTX_CBID_CORE2_DomainRangePop, cb_domain_range_pop);
  set_slot(table, size, NVTX_CBID_CORE2_DomainRegisterStringA, cb_domain_register_string_a);
  set_slot(table, size, NVTX_CBID_CORE2_DomainRegisterStringW, cb_domain_register_string_w);
  set_slot(table, size, NVTX_CBID_CORE2_DomainCreateA, cb_domain_create_a);
  set_slot(table, size, NVTX_CBID_CORE2_DomainCreateW, cb_domain_create_w);
  set_slot(table, size, NVTX_CBID_CORE2_DomainDestroy, cb_domain_destroy);
}

}  // namespace

// NVTX calls this once per instance, on that instance's first NVTX call. Slots
// left alone (thread and category names, resources, the CUDA and OpenCL
// modules) become no-ops in NVTX itself.
ZVK_NVTX_EXPORT int InitializeInjectionNvtx2(NvtxGetExportTableFunc_t get_export_table) {
  if (get_export_table == nullptr) return 0;
  const auto* callbacks =
      static_cast<const NvtxExportTableCallbacks*>(get_export_table(NVTX_ETID_CALLBACKS));
  if (callbacks == nullptr ||
      callbacks->struct_size < offsetof(NvtxExportTableCallbacks, GetModuleFunctionTable) +
                                   sizeof(callbacks->GetModuleFunctionTable) ||
      callbacks->GetModuleFunctionTable == nullptr) {
    return 0;
  }
  if (!attach_core(callbacks)) return 0;
  attach_core2(callbacks);
  const auto* version =
      static_cast<const NvtxExportTableVersionInfo*>(get_export_table(NVTX_ETID_VERSIONINFO));
  if (version != nullptr &&
      version->struct_size >= offsetof(NvtxExportTableVersionInfo, SetInjectionNvtxVersion) +
                                  sizeof(version->SetInjectionNvtxVersion) &&
      version->SetInjectionNvtxVersion != nullptr) {
    version->SetInjectionNvtxVersion(NVTX_VERSION);
  }
  return 1;
}

// Called by the controller with its table at a capture's start and with ours at
// the stop, possibly several times with the same table. Other threads push and
// pop while the pointers change one at a time; the order of the stores is what
// keeps a begin that got a real token from meeting the idle end. A capture's
// table goes in end and marker first, start last: a thread that sees the new
// start sees its end too. The idle table goes in start first, end and marker
// last: from the first store on, no push gets a real token, and one that got its
// token just before still finds the real end for a pop that comes before the
// last store. With the stores the other way round, every range begun and ended
// in the window between them would lose its END.
ZVK_NVTX_EXPORT void ZVKI_update_functable(HookTable* table) {
  const HookTable* t = table != nullptr ? table : &g_idle_table;
  const StartFn start = t->annotation_start_fptr != nullptr ? t->annotation_start_fptr : idle_start;
  const EndFn end = t->annotation_end_fptr != nullptr ? t->annotation_end_fptr : idle_end;
  const MarkerFn marker =
      t->annotation_marker_fptr != nullptr ? t->annotation_marker_fptr : idle_marker;
  if (start == idle_start) {
    g_start.store(start, std::memory_order_release);
    g_end.store(end, std::memory_order_release);
    g_marker.store(marker, std::memory_order_release);
  } else {
    g_end.store(end, std::memory_order_release);
    g_marker.store(marker, std::memory_order_release);
    g_start.store(start, std::memory_order_release);
  }
}

ZVK_NVTX_EXPORT HookTable* ZVKI_get_default_functable() { return &g_idle_table; }
