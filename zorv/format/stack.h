#pragma once

// The payloads of the stack sampler's records (hw_type CPU). These bytes go into the
// capture file unchanged: every size and offset below is file format.

#include <cstddef>
#include <cstdint>

namespace zorvek {
namespace perfevent {

// Record kinds of the per-thread stack sampler, on hardware type CPU. They come
// after the kernel's kinds with room between, so that a reader which doesn't know
// them skips them by their size, as it skips any unknown kind.
enum ZVKSampleEventTypes : uint32_t {
  STACK_SAMPLE = 16,        // one sample of one thread: native and Python frames
  PYTHON_CODE = 17,         // a code object, the first time a sample meets it
  API_PYTHON_STACK = 18,    // the Python frames that made a traced CUDA driver API call
};
static_assert(sizeof(ZVKSampleEventTypes) == 4, "ZVKSampleEventTypes is a 32-bit enum");

enum ZVKSampleClock : uint8_t {
  SAMPLE_CLOCK_CPU = 0,   // the thread's own CPU time, user and system
  SAMPLE_CLOCK_WALL = 1,  // elapsed time, running or not
};
static_assert(sizeof(ZVKSampleClock) == 1, "ZVKSampleClock is one byte");

enum ZVKStackSampleFlags : uint8_t {
  STACK_WAITING = 1,      // wall clock: the thread used no CPU since its last sample
  STACK_NATIVE_CUT = 2,   // more native frames than were kept (the root side is lost)
  STACK_PYTHON_CUT = 4,   // more Python frames than were kept (the root side is lost)
  STACK_NO_NATIVE = 8,    // no native walk was made (another thread's sample, or a busy unwinder)
};
static_assert(sizeof(ZVKStackSampleFlags) == 1, "ZVKStackSampleFlags is one byte");

// Payload of STACK_SAMPLE: this header, `native_count` 64-bit addresses, leaf
// first (the leaf the interrupted instruction, the others return addresses), then
// `python_count` ZVKPythonFrame, leaf first. The record's timestamp is on the
// system clock, like an annotation's; its call chain is empty.
struct ZVKStackSample {
  uint64_t weight_ns;  // the time this sample stands for: the period times the expirations it covers
  uint16_t native_count;
  uint16_t python_count;
  uint8_t clock;  // ZVKSampleClock
  uint8_t flags;  // ZVKStackSampleFlags
  uint16_t reserved;
};
static_assert(sizeof(ZVKStackSample) == 16, "ZVKStackSample is 16 bytes");
static_assert(offsetof(ZVKStackSample, weight_ns) == 0, "weight_ns at 0");
static_assert(offsetof(ZVKStackSample, native_count) == 8, "native_count at 8");
static_assert(offsetof(ZVKStackSample, python_count) == 10, "python_count at 10");
static_assert(offsetof(ZVKStackSample, clock) == 12, "clock at 12");
static_assert(offsetof(ZVKStackSample, flags) == 13, "flags at 13");
static_assert(offsetof(ZVKStackSample, reserved) == 14, "reserved at 14");

// One Python frame: the code object, by the id its PYTHON_CODE record gives it in
// this process, and the byte offset of the instruction the frame stands at.
struct ZVKPythonFrame {
  uint32_t code_id;
  uint32_t instruction;  // low 31 bits: byte offset into the code's bytecode; kPythonFrameEntry
};
static_assert(sizeof(ZVKPythonFrame) == 8, "ZVKPythonFrame is 8 bytes");
static_assert(offsetof(ZVKPythonFrame, code_id) == 0, "code_id at 0");
static_assert(offsetof(ZVKPythonFrame, instruction) == 4, "instruction at 4");

// Set on the first frame an evaluation call of the interpreter ran (entered from
// C): walking leaf first, the frames up to and including one with this bit are the
// Python frames of one native _PyEval_EvalFrameDefault frame.
constexpr uint32_t kPythonFrameEntry = 0x80000000u;
constexpr uint32_t kPythonInstructionMask = 0x7fffffffu;

constexpr uint32_t stack_sample_payload_size(uint32_t native_count, uint32_t python_count) {
  return static_cast<uint32_t>(sizeof(ZVKStackSample)) + 8u * native_count +
         static_cast<uint32_t>(sizeof(ZVKPythonFrame)) * python_count;
}
static_assert(stack_sample_payload_size(2, 3) == 56, "16 + 2*8 + 3*8");

enum ZVKPythonCodeFlags : uint32_t {
  PYTHON_CODE_LINETABLE_CUT = 1,  // the line table was cut to fit the record
};

// Payload of PYTHON_CODE: this header, then the qualified name (UTF-8, the plain
// name where the interpreter keeps no qualified one), the file name, and the code's
// line table as the interpreter keeps it (co_linetable), zero-padded to a multiple
// of 8. Lines are computed when reading, from the frame's instruction offset.
struct ZVKPythonCode {
  uint32_t code_id;
  int32_t first_line;
  uint32_t python_version;  // PY_VERSION_HEX of the interpreter: it fixes the table's format
  uint16_t qualname_size;
  uint16_t filename_size;
  uint32_t linetable_size;
  uint32_t flags;  // ZVKPythonCodeFlags
};
static_assert(sizeof(ZVKPythonCode) == 24, "ZVKPythonCode is 24 bytes");
static_assert(offsetof(ZVKPythonCode, code_id) == 0, "code_id at 0");
static_assert(offsetof(ZVKPythonCode, first_line) == 4, "first_line at 4");
static_assert(offsetof(ZVKPythonCode, python_version) == 8, "python_version at 8");
static_assert(offsetof(ZVKPythonCode, qualname_size) == 12, "qualname_size at 12");
static_assert(offsetof(ZVKPythonCode, filename_size) == 14, "filename_size at 14");
static_assert(offsetof(ZVKPythonCode, linetable_size) == 16, "linetable_size at 16");
static_assert(offsetof(ZVKPythonCode, flags) == 20, "flags at 20");

constexpr uint32_t python_code_payload_size(uint32_t qualname_size, uint32_t filename_size,
                                            uint32_t linetable_size) {
  return (static_cast<uint32_t>(sizeof(ZVKPythonCode)) + qualname_size + filename_size +
          linetable_size + 7u) & ~7u;
}
static_assert(python_code_payload_size(3, 4, 0) == 32, "24 + 7 rounded up to 8");

// Payload of API_PYTHON_STACK: the correlation id of the driver API call whose
// record it follows, then `python_count` ZVKPythonFrame, leaf first. Same thread
// and timestamp as that call's record.
struct ZVKApiPythonStack {
  uint64_t correlation_id;
  uint16_t python_count;
  uint16_t reserved[3];
};
static_assert(sizeof(ZVKApiPythonStack) == 16, "ZVKApiPythonStack is 16 bytes");
static_assert(offsetof(ZVKApiPythonStack, correlation_id) == 0, "correlation_id at 0");
static_assert(offsetof(ZVKApiPythonStack, python_count) == 8, "python_count at 8");
static_assert(offsetof(ZVKApiPythonStack, reserved) == 10, "reserved at 10");

}  // namespace perfevent
}  // namespace zorvek
