#pragma once

// The payloads of annotation records (hw_type ANNOTATION). These bytes go into the
// capture file unchanged: every size and offset below is file format.

#include <cstddef>
#include <cstdint>

namespace zorvek {
namespace annotations {

enum Types : uint32_t {
  BEGIN = 0,
  END = 1,
  TIME_MARKER = 2,
  MARKER = 3,
  NUM_ANNOTATION_TYPES = 4,
};
static_assert(sizeof(Types) == 4, "Types is a 32-bit enum");

struct msg_begin {
  uint64_t correlation;  // 0 in a MARKER
  char msg[];            // the message and its terminator, padded to a multiple of 8
};
static_assert(offsetof(msg_begin, correlation) == 0, "correlation at 0");
static_assert(offsetof(msg_begin, msg) == 8, "message at 8");
static_assert(sizeof(msg_begin) == 8, "BEGIN's fixed part is 8 bytes");

struct msg_end {
  uint64_t correlation;
};
static_assert(sizeof(msg_end) == 8, "END payload is 8 bytes");
static_assert(offsetof(msg_end, correlation) == 0, "correlation at 0");

constexpr int kClockPairs = 16;
struct time_marker {
  uint64_t monotic[kClockPairs];  // CLOCK_MONOTONIC_RAW, spelled so in the format
  uint64_t realtime[kClockPairs];
};
static_assert(offsetof(time_marker, monotic) == 0, "monotic at 0");
static_assert(offsetof(time_marker, realtime) == 128, "realtime at 128");
static_assert(sizeof(time_marker) == 256, "TIME_MARKER payload is 256 bytes");

// Payload of a BEGIN or MARKER: correlation plus the text padded to a multiple of 8
// with room for at least the terminator. 16-bit, as the record header stores it.
constexpr uint16_t message_payload_size(size_t len) {
  return static_cast<uint16_t>(((len + 8) & ~static_cast<size_t>(7)) + 8);
}

// The longest text a record holds: its payload size is 16-bit, and the largest
// multiple of 8 below 65536 is 65528 = 8 (correlation) + 65519 + 1 (terminator).
constexpr size_t kMaxMessageLength = 65519;
static_assert(message_payload_size(kMaxMessageLength) == 65528, "the longest message fits");

}  // namespace annotations
}  // namespace zorvek
