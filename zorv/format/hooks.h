#pragma once

// The annotation hook table: the ABI between the capture and the foreign
// libraries (the NVTX library among them) that carry annotation hooks. A library
// exports ZVKI_update_functable(ZVKIFuncTable_t*), which a capture calls with its
// table at the start, and ZVKI_get_default_functable(), the library's own idle
// table, which it is given back at the stop.

#include <cstddef>
#include <cstdint>

namespace zorvek {

// The table handed to foreign libraries that carry annotation hooks.
typedef uint64_t ZVKI_AnnotationToken_t;
typedef ZVKI_AnnotationToken_t (*zvki_annotation_start_fptr_t)(const char* msg, uint64_t msg_len);
typedef void (*zvki_annotation_end_fptr_t)(ZVKI_AnnotationToken_t token);
typedef void (*zvki_marker_fptr_t)(const char* msg, uint64_t msg_len);
typedef void (*ZVKINonCallable_fptr)();

struct ZVKIFuncTable_t {
  uint64_t tableVersion;
  zvki_annotation_start_fptr_t annotation_start_fptr;
  zvki_annotation_end_fptr_t annotation_end_fptr;
  zvki_marker_fptr_t annotation_marker_fptr;
  ZVKINonCallable_fptr* ann_table[5];
};
static_assert(offsetof(ZVKIFuncTable_t, tableVersion) == 0, "tableVersion at 0");
static_assert(offsetof(ZVKIFuncTable_t, annotation_start_fptr) == 8, "start at 8");
static_assert(offsetof(ZVKIFuncTable_t, annotation_end_fptr) == 16, "end at 16");
static_assert(offsetof(ZVKIFuncTable_t, annotation_marker_fptr) == 24, "marker at 24");
static_assert(offsetof(ZVKIFuncTable_t, ann_table) == 32, "ann_table at 32");
static_assert(sizeof(ZVKIFuncTable_t) == 72, "the hook table is 72 bytes");

}  // namespace zorvek
