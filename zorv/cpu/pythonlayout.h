#pragma once

// Also read by a C file of the Python module, which fills the struct from the
// interpreter's own headers: plain C here, the C++ names inside the namespace.
#ifdef __cplusplus
#include <cstddef>
#include <cstdint>
namespace zorvek {
extern "C" {
#else
#include <stddef.h>
#include <stdint.h>
#endif

// What the frame walker needs to know about the running CPython: field offsets
// and a few addresses. No Python header is needed to read it. An offset of -1
// means the interpreter has no such field, and the walker reads the layout's
// version from which fields are there:
//   thread_cframe >= 0        the current frame hangs off tstate->cframe (3.11, 3.12)
//   code_bytecode < 0         frames are PyFrameObjects whose f_lasti counts code units (3.10)
//   frame_is_entry >= 0       the frame itself says whether it is an evaluation's first (3.11)
//   owner_cstack >= 0         evaluations push a shim frame of that owner (3.12 on)
struct PythonLayout {
  uint32_t python_version;  // PY_VERSION_HEX

  // Objects: PyObject, PyVarObject, bytes, and the types the walker trusts.
  int32_t object_type;     // ob_type
  int32_t varobject_size;  // ob_size
  int32_t bytes_data;      // ob_sval
  uintptr_t code_type;     // &PyCode_Type
  uintptr_t unicode_type;  // &PyUnicode_Type
  uintptr_t bytes_type;    // &PyBytes_Type

  // Thread states: the current frame is *(tstate + thread_frame) where thread_cframe
  // is -1, else *(*(tstate + thread_cframe) + thread_frame).
  int32_t thread_frame;
  int32_t thread_cframe;
  int32_t thread_next;
  int32_t thread_native_id;  // an unsigned long; -1 where the interpreter keeps none (3.10)
  // Where it keeps none: thread_id, the pthread_t of the thread (3.10), and the
  // offset of the kernel's thread id inside the C library's thread descriptor that
  // a pthread_t points to, as find_pthread_tid_offset found it; -1 when unknown.
  int32_t thread_pthread;
  int32_t pthread_tid;
  uintptr_t interpreter;     // the main interpreter
  int32_t interpreter_threads_head;
  // The calling thread's thread state, NULL when it has none: a thread-specific
  // storage lookup, safe in a signal handler.
  void* (*this_thread_state)(void);

  // The thread's frame stack (3.11 on), where its frames lie side by side in chunks:
  // the chunk in use and the top of its used part (tstate->datastack_chunk,
  // datastack_top), and where a chunk's frames begin (offsetof _PyStackChunk data).
  // chunk_data <= 0 where there are none (3.10).
  int32_t thread_datastack_chunk;
  int32_t thread_datastack_top;
  int32_t chunk_data;

  // Frames: a PyFrameObject (3.10) or a _PyInterpreterFrame (3.11 on).
  int32_t frame_previous;     // f_back / previous
  int32_t frame_code;         // f_code / f_executable
  int32_t frame_instruction;  // f_lasti (an int) / prev_instr / instr_ptr (pointers)
  int32_t frame_owner;        // a char; -1 before 3.11
  int32_t frame_is_entry;     // a bool; 3.11 only
  int32_t frame_function;     // f_func / f_funcobj, the function the frame runs; -1 in 3.10
  int32_t owner_generator;    // owner values; -1 where absent
  int32_t owner_cstack;

  // Code objects.
  int32_t code_qualname;         // co_qualname, co_name before 3.11
  int32_t code_filename;
  int32_t code_first_line;       // an int
  int32_t code_linetable;        // a bytes object
  int32_t code_bytecode;         // co_code_adaptive (3.11 on), -1 in 3.10
  int32_t code_first_traceable;  // an int (3.11 on): a frame before it is incomplete

  // Strings: compact ASCII data follows the PyASCIIObject header, other compact
  // data the PyCompactUnicodeObject header. The state bit field is read as a word.
  int32_t unicode_length;
  int32_t unicode_state;
  int32_t unicode_ascii_size;    // sizeof(PyASCIIObject)
  int32_t unicode_compact_size;  // sizeof(PyCompactUnicodeObject)
  uint32_t unicode_kind_shift;
  uint32_t unicode_kind_mask;    // after the shift
  uint32_t unicode_compact_bit;
  uint32_t unicode_ascii_bit;
};

// Defined only in the Python module (pylayout.c): fills `layout` for the running
// interpreter and returns 1, or returns 0 and names in `mismatch` a field where
// the offsets the interpreter publishes disagree with the headers it was built from.
int zorv_fill_python_layout(struct PythonLayout* layout, char* mismatch, size_t mismatch_size);

#ifdef __cplusplus
}  // extern "C"

// The layout of the interpreter this process runs, or nullptr when there is none
// (a core without Python, a layout that didn't pass the import checks). Set once
// at import, before any sampler starts; the pointee must outlive the process's samplers.
void set_python_layout(const PythonLayout* layout);
const PythonLayout* python_layout();

// The offset of the kernel's thread id inside the thread descriptor a pthread_t
// points to, found by looking for it in two threads' own descriptors, or -1. For
// an interpreter that keeps only pthread_t (3.10), it tells which thread a state
// belongs to; the descriptor is read through safe reads, so a thread that is gone
// reads as gone.
int32_t find_pthread_tid_offset();

}  // namespace zorvek
#endif
