/* The frame walker's view of the interpreter this module is built for: field
   offsets from the interpreter's own internal headers, so that a layout change
   between versions shows at build time instead of as wrong stacks. */

#define Py_BUILD_CORE 1

#include <Python.h>

#include <stdio.h>
#include <string.h>

#if PY_VERSION_HEX >= 0x030b0000
#include "internal/pycore_frame.h"
#else
#include "frameobject.h"
#endif
#include "internal/pycore_interp.h"
#if PY_VERSION_HEX >= 0x030d0000
#include "internal/pycore_runtime.h"
#endif

#include "zorv/cpu/pythonlayout.h"

#if PY_VERSION_HEX < 0x030a0000 || PY_VERSION_HEX >= 0x030e0000
#error "the frame walker knows CPython 3.10 to 3.13"
#endif

#define FIELD_SIZE(type, member) sizeof(((type*)0)->member)

/* What the walker reads each field as. */
_Static_assert(FIELD_SIZE(PyObject, ob_type) == sizeof(void*), "ob_type is a pointer");
_Static_assert(FIELD_SIZE(PyVarObject, ob_size) == sizeof(Py_ssize_t), "ob_size is a Py_ssize_t");
_Static_assert(FIELD_SIZE(PyThreadState, next) == sizeof(void*), "tstate->next is a pointer");
_Static_assert(FIELD_SIZE(PyCodeObject, co_filename) == sizeof(void*), "co_filename is a pointer");
_Static_assert(FIELD_SIZE(PyCodeObject, co_linetable) == sizeof(void*),
               "co_linetable is a pointer");
_Static_assert(FIELD_SIZE(PyCodeObject, co_firstlineno) == 4, "co_firstlineno is an int");
_Static_assert(FIELD_SIZE(PyASCIIObject, length) == sizeof(Py_ssize_t), "length is a Py_ssize_t");
_Static_assert(FIELD_SIZE(PyASCIIObject, state) == 4, "the string state is one word");

#if PY_VERSION_HEX >= 0x030b0000
_Static_assert(FIELD_SIZE(PyCodeObject, co_qualname) == sizeof(void*), "co_qualname is a pointer");
_Static_assert(FIELD_SIZE(PyCodeObject, _co_firsttraceable) == 4, "_co_firsttraceable is an int");
_Static_assert(FIELD_SIZE(_PyInterpreterFrame, previous) == sizeof(void*), "previous is a pointer");
_Static_assert(FIELD_SIZE(_PyInterpreterFrame, owner) == 1, "owner is a char");
_Static_assert(FIELD_SIZE(PyThreadState, native_thread_id) == sizeof(unsigned long),
               "native_thread_id is an unsigned long");
_Static_assert(FIELD_SIZE(PyThreadState, datastack_chunk) == sizeof(void*),
               "datastack_chunk is a pointer");
_Static_assert(FIELD_SIZE(PyThreadState, datastack_top) == sizeof(void*),
               "datastack_top is a pointer");
_Static_assert(offsetof(_PyStackChunk, data) > 0, "a chunk's frames follow its header");
#else
_Static_assert(FIELD_SIZE(PyCodeObject, co_name) == sizeof(void*), "co_name is a pointer");
_Static_assert(FIELD_SIZE(PyFrameObject, f_back) == sizeof(void*), "f_back is a pointer");
_Static_assert(FIELD_SIZE(PyFrameObject, f_code) == sizeof(void*), "f_code is a pointer");
_Static_assert(FIELD_SIZE(PyFrameObject, f_lasti) == 4, "f_lasti is an int");
#endif

#if PY_VERSION_HEX >= 0x030d0000
_Static_assert(FIELD_SIZE(_PyInterpreterFrame, f_executable) == sizeof(void*),
               "f_executable is a pointer");
_Static_assert(FIELD_SIZE(_PyInterpreterFrame, instr_ptr) == sizeof(void*),
               "instr_ptr is a pointer");
_Static_assert(FIELD_SIZE(PyThreadState, current_frame) == sizeof(void*),
               "current_frame is a pointer");
#elif PY_VERSION_HEX >= 0x030b0000
_Static_assert(FIELD_SIZE(_PyInterpreterFrame, f_code) == sizeof(void*), "f_code is a pointer");
_Static_assert(FIELD_SIZE(_PyInterpreterFrame, prev_instr) == sizeof(void*),
               "prev_instr is a pointer");
_Static_assert(FIELD_SIZE(_PyCFrame, current_frame) == sizeof(void*), "current_frame is a pointer");
_Static_assert(FIELD_SIZE(PyThreadState, cframe) == sizeof(void*), "cframe is a pointer");
#endif
#if PY_VERSION_HEX >= 0x030c0000
_Static_assert(FIELD_SIZE(_PyInterpreterFrame, f_funcobj) == sizeof(void*),
               "f_funcobj is a pointer");
#elif PY_VERSION_HEX >= 0x030b0000
_Static_assert(FIELD_SIZE(_PyInterpreterFrame, f_func) == sizeof(void*), "f_func is a pointer");
#endif
#if PY_VERSION_HEX >= 0x030b0000 && PY_VERSION_HEX < 0x030c0000
_Static_assert(FIELD_SIZE(_PyInterpreterFrame, is_entry) == 1, "is_entry is a bool");
#endif

static void* this_thread_state(void) { return PyGILState_GetThisThreadState(); }

static uint32_t state_word(const PyASCIIObject* string) {
  uint32_t word;
  memcpy(&word, (const char*)string + offsetof(PyASCIIObject, state), sizeof(word));
  return word;
}

/* Bit-field positions are the compiler's: set each field alone and look. */
static void fill_string_state(struct PythonLayout* layout) {
  PyASCIIObject probe;
  memset(&probe, 0, sizeof(probe));
  probe.state.kind = 7;
  uint32_t kind = state_word(&probe);
  layout->unicode_kind_shift = (uint32_t)__builtin_ctz(kind);
  layout->unicode_kind_mask = kind >> layout->unicode_kind_shift;
  memset(&probe, 0, sizeof(probe));
  probe.state.compact = 1;
  layout->unicode_compact_bit = state_word(&probe);
  memset(&probe, 0, sizeof(probe));
  probe.state.ascii = 1;
  layout->unicode_ascii_bit = state_word(&probe);
}

#if PY_VERSION_HEX >= 0x030d0000
/* The offsets the running interpreter publishes, where they cover what the walker
   reads: a patch release that moved a field turns the walker off instead of
   reading the wrong one. */
static int check_debug_offsets(const struct PythonLayout* layout, char* mismatch, size_t size) {
  const _Py_DebugOffsets* published = (const _Py_DebugOffsets*)&_PyRuntime;
  struct {
    const char* name;
    uint64_t published;
    int64_t built;
  } fields[] = {
      {"interpreter_state.threads_head", published->interpreter_state.threads_head,
       layout->interpreter_threads_head},
      {"thread_state.next", published->thread_state.next, layout->thread_next},
      {"thread_state.current_frame", published->thread_state.current_frame, layout->thread_frame},
      {"thread_state.native_thread_id", published->thread_state.native_thread_id,
       layout->thread_native_id},
      {"thread_state.datastack_chunk", published->thread_state.datastack_chunk,
       layout->thread_datastack_chunk},
      {"interpreter_frame.previous", published->interpreter_frame.previous, layout->frame_previous},
      {"interpreter_frame.executable", published->interpreter_frame.executable, layout->frame_code},
      {"interpreter_frame.instr_ptr", published->interpreter_frame.instr_ptr,
       layout->frame_instruction},
      {"interpreter_frame.owner", published->interpreter_frame.owner, layout->frame_owner},
      {"code_object.filename", published->code_object.filename, layout->code_filename},
      {"code_object.qualname", published->code_object.qualname, layout->code_qualname},
      {"code_object.linetable", published->code_object.linetable, layout->code_linetable},
      {"code_object.firstlineno", published->code_object.firstlineno, layout->code_first_line},
      {"code_object.co_code_adaptive", published->code_object.co_code_adaptive,
       layout->code_bytecode},
      {"pyobject.ob_type", published->pyobject.ob_type, layout->object_type},
      {"bytes_object.ob_size", published->bytes_object.ob_size, layout->varobject_size},
      {"bytes_object.ob_sval", published->bytes_object.ob_sval, layout->bytes_data},
      {"unicode_object.state", published->unicode_object.state, layout->unicode_state},
      {"unicode_object.length", published->unicode_object.length, layout->unicode_length},
      {"unicode_object.asciiobject_size", published->unicode_object.asciiobject_size,
       layout->unicode_ascii_size},
  };
  if (memcmp(published->cookie, _Py_Debug_Cookie, sizeof(published->cookie)) != 0) {
    snprintf(mismatch, size, "cookie");
    return 0;
  }
  for (size_t i = 0; i < sizeof(fields) / sizeof(fields[0]); ++i) {
    if (fields[i].built < 0 || fields[i].published != (uint64_t)fields[i].built) {
      snprintf(mismatch, size, "%s", fields[i].name);
      return 0;
    }
  }
  return 1;
}
#endif

int zorv_fill_python_layout(struct PythonLayout* layout, char* mismatch, size_t mismatch_size) {
  memset(layout, 0, sizeof(*layout));
  layout->python_version = PY_VERSION_HEX;

  layout->object_type = offsetof(PyObject, ob_type);
  layout->varobject_size = offsetof(PyVarObject, ob_size);
  layout->bytes_data = offsetof(PyBytesObject, ob_sval);
  layout->code_type = (uintptr_t)&PyCode_Type;
  layout->unicode_type = (uintptr_t)&PyUnicode_Type;
  layout->bytes_type = (uintptr_t)&PyBytes_Type;

  layout->thread_next = offsetof(PyThreadState, next);
  layout->interpreter = (uintptr_t)PyInterpreterState_Main();
  layout->this_thread_state = this_thread_state;

  layout->code_filename = offsetof(PyCodeObject, co_filename);
  layout->code_first_line = offsetof(PyCodeObject, co_firstlineno);
  layout->code_linetable = offsetof(PyCodeObject, co_linetable);

#if PY_VERSION_HEX >= 0x030b0000
  layout->thread_native_id = offsetof(PyThreadState, native_thread_id);
  layout->thread_pthread = -1;
  layout->pthread_tid = -1;
  layout->interpreter_threads_head = offsetof(PyInterpreterState, threads.head);
  layout->frame_previous = offsetof(_PyInterpreterFrame, previous);
  layout->frame_owner = offsetof(_PyInterpreterFrame, owner);
  layout->owner_generator = FRAME_OWNED_BY_GENERATOR;
  layout->code_qualname = offsetof(PyCodeObject, co_qualname);
  layout->code_bytecode = offsetof(PyCodeObject, co_code_adaptive);
  layout->code_first_traceable = offsetof(PyCodeObject, _co_firsttraceable);
  layout->thread_datastack_chunk = offsetof(PyThreadState, datastack_chunk);
  layout->thread_datastack_top = offsetof(PyThreadState, datastack_top);
  layout->chunk_data = offsetof(_PyStackChunk, data);
#else
  layout->thread_native_id = -1;
  layout->thread_pthread = offsetof(PyThreadState, thread_id);
  _Static_assert(FIELD_SIZE(PyThreadState, thread_id) == sizeof(pthread_t),
                 "thread_id holds a pthread_t");
  layout->pthread_tid = -1;  // probed by the module, which can start threads
  layout->interpreter_threads_head = offsetof(PyInterpreterState, tstate_head);
  layout->thread_frame = offsetof(PyThreadState, frame);
  layout->thread_cframe = -1;
  layout->frame_previous = offsetof(PyFrameObject, f_back);
  layout->frame_code = offsetof(PyFrameObject, f_code);
  layout->frame_instruction = offsetof(PyFrameObject, f_lasti);
  layout->frame_owner = -1;
  layout->owner_generator = -1;
  layout->code_qualname = offsetof(PyCodeObject, co_name);
  layout->code_bytecode = -1;
  layout->code_first_traceable = -1;
  layout->thread_datastack_chunk = -1;
  layout->thread_datastack_top = -1;
  layout->chunk_data = -1;
  layout->frame_function = -1;
#endif

#if PY_VERSION_HEX >= 0x030d0000
  layout->thread_frame = offsetof(PyThreadState, current_frame);
  layout->thread_cframe = -1;
  layout->frame_code = offsetof(_PyInterpreterFrame, f_executable);
  layout->frame_instruction = offsetof(_PyInterpreterFrame, instr_ptr);
  layout->frame_function = offsetof(_PyInterpreterFrame, f_funcobj);
#elif PY_VERSION_HEX >= 0x030b0000
  layout->thread_frame = offsetof(_PyCFrame, current_frame);
  layout->thread_cframe = offsetof(PyThreadState, cframe);
  layout->frame_code = offsetof(_PyInterpreterFrame, f_code);
  layout->frame_instruction = offsetof(_PyInterpreterFrame, prev_instr);
#if PY_VERSION_HEX >= 0x030c0000
  layout->frame_function = offsetof(_PyInterpreterFrame, f_funcobj);
#else
  layout->frame_function = offsetof(_PyInterpreterFrame, f_func);
#endif
#endif

#if PY_VERSION_HEX >= 0x030b0000 && PY_VERSION_HEX < 0x030c0000
  layout->frame_is_entry = offsetof(_PyInterpreterFrame, is_entry);
#else
  layout->frame_is_entry = -1;
#endif
#if PY_VERSION_HEX >= 0x030c0000
  layout->owner_cstack = FRAME_OWNED_BY_CSTACK;
#else
  layout->owner_cstack = -1;
#endif

  layout->unicode_length = offsetof(PyASCIIObject, length);
  layout->unicode_state = offsetof(PyASCIIObject, state);
  layout->unicode_ascii_size = sizeof(PyASCIIObject);
  layout->unicode_compact_size = sizeof(PyCompactUnicodeObject);
  fill_string_state(layout);

#if PY_VERSION_HEX >= 0x030d0000
  return check_debug_offsets(layout, mismatch, mismatch_size);
#else
  (void)mismatch;
  (void)mismatch_size;
  return 1;
#endif
}
