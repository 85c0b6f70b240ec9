// A stand-in for a foreign library that carries the annotation hook table. Like a
// real one it doesn't link the profiler: it has its own copy of the table's layout,
// defaults that record nothing, and exports the functions the profiler looks for.
// Built three ways: whole, without the default table (HOOKED_WITHOUT_DEFAULT_TABLE)
// and without the update function (HOOKED_WITHOUT_UPDATE). The hooked_* functions
// are the test's handles on it.

#include <cstddef>
#include <cstdint>
#include <cstring>

#define HOOKED_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct FuncTable {
  uint64_t tableVersion;
  uint64_t (*annotation_start)(const char* msg, uint64_t msg_len);
  void (*annotation_end)(uint64_t token);
  void (*annotation_marker)(const char* msg, uint64_t msg_len);
  void (**ann_table[5])();
};
static_assert(sizeof(FuncTable) == 72, "the hook table is 72 bytes");
static_assert(offsetof(FuncTable, annotation_start) == 8, "start at 8");
static_assert(offsetof(FuncTable, ann_table) == 32, "ann_table at 32");

uint64_t default_start(const char*, uint64_t) { return 0; }
void default_end(uint64_t) {}
void default_marker(const char*, uint64_t) {}

FuncTable g_defaults = {0, default_start, default_end, default_marker, {}};
FuncTable* g_current = &g_defaults;
const char* g_annotation_on_restore = nullptr;
int g_update_calls = 0;
int g_default_requests = 0;

void annotate_through(const FuncTable* table, const char* msg) {
  table->annotation_end(table->annotation_start(msg, strlen(msg)));
}

}  // namespace

#ifndef HOOKED_WITHOUT_UPDATE
HOOKED_EXPORT void ZVKI_update_functable(FuncTable* table) {
  ++g_update_calls;
  if (table == &g_defaults && g_current != &g_defaults && g_annotation_on_restore != nullptr) {
    // One of the library's threads annotates just before the defaults take over.
    annotate_through(g_current, g_annotation_on_restore);
  }
  g_current = table;
}
#endif

#ifndef HOOKED_WITHOUT_DEFAULT_TABLE
HOOKED_EXPORT FuncTable* ZVKI_get_default_functable() {
  ++g_default_requests;
  return &g_defaults;
}
#endif

HOOKED_EXPORT void hooked_annotate(const char* msg) { annotate_through(g_current, msg); }

HOOKED_EXPORT bool hooked_has_defaults() { return g_current == &g_defaults; }

HOOKED_EXPORT int hooked_update_calls() { return g_update_calls; }

HOOKED_EXPORT int hooked_default_requests() { return g_default_requests; }

// `msg` is annotated through the profiler's table when the defaults come back;
// null turns that off.
HOOKED_EXPORT void hooked_annotate_on_restore(const char* msg) { g_annotation_on_restore = msg; }
