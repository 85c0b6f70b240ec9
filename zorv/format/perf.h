#pragma once

#include <cstddef>
#include <cstdint>

// The payloads of CPU sampling records (hw_type CPU). These bytes go into the
// capture file unchanged: every size and offset below is file format.

namespace zorvek {
namespace perfevent {

// event_type of a CPU record. Not the kernel's perf_event_type numbers: the
// decoder maps them explicitly.
enum ZVKPerfEventTypes : uint32_t {
  CONFIGURATION = 0,  // one per descriptor, written before sampling is enabled
  SAMPLE = 1,
  THROTTLE = 2,
  UNTHROTTLE = 3,
  LOST = 4,
  READ = 5,  // reserved: PERF_RECORD_READ is stepped over, never stored
  MMAP = 6,
  FORK = 7,
  EXIT = 8,
  PERF_EVENT_MAX = 9,
};
static_assert(sizeof(ZVKPerfEventTypes) == 4, "ZVKPerfEventTypes is a 32-bit enum");

// Payload of CONFIGURATION: what a descriptor was opened with, and the kernel id
// that the `id` of every later record refers to.
struct ZVKPerfConfigData {
  uint64_t config;
  uint64_t config1;
  uint64_t config2;
  uint32_t type;
  uint32_t precise;
  uint64_t sample_period;
  uint64_t format_id;
};
static_assert(sizeof(ZVKPerfConfigData) == 48, "ZVKPerfConfigData is 48 bytes");
static_assert(offsetof(ZVKPerfConfigData, config) == 0, "config at 0");
static_assert(offsetof(ZVKPerfConfigData, config1) == 8, "config1 at 8");
static_assert(offsetof(ZVKPerfConfigData, config2) == 16, "config2 at 16");
static_assert(offsetof(ZVKPerfConfigData, type) == 24, "type at 24");
static_assert(offsetof(ZVKPerfConfigData, precise) == 28, "precise at 28");
static_assert(offsetof(ZVKPerfConfigData, sample_period) == 32, "sample_period at 32");
static_assert(offsetof(ZVKPerfConfigData, format_id) == 40, "format_id at 40");

// Payload of SAMPLE; the call chain stands ahead of it in the record.
struct ZVKPerfSample {
  uint64_t ip;
  uint64_t id;
  uint64_t stream_id;
};
static_assert(sizeof(ZVKPerfSample) == 24, "ZVKPerfSample is 24 bytes");
static_assert(offsetof(ZVKPerfSample, ip) == 0, "ip at 0");
static_assert(offsetof(ZVKPerfSample, id) == 8, "id at 8");
static_assert(offsetof(ZVKPerfSample, stream_id) == 16, "stream_id at 16");

// Payload of MMAP: 48 fixed bytes, then the file name with its NUL, in a payload
// rounded up to a multiple of 8 with room for the NUL.
struct ZVKPerfMMap {
  uint64_t id;
  uint64_t stream_id;
  uint64_t addr;
  uint64_t len;
  uint64_t pgoff;
  uint64_t strsize;  // the name's length without its NUL, not rounded
  char filename[];
};
static_assert(sizeof(ZVKPerfMMap) == 48, "ZVKPerfMMap's fixed part is 48 bytes");
static_assert(offsetof(ZVKPerfMMap, id) == 0, "id at 0");
static_assert(offsetof(ZVKPerfMMap, stream_id) == 8, "stream_id at 8");
static_assert(offsetof(ZVKPerfMMap, addr) == 16, "addr at 16");
static_assert(offsetof(ZVKPerfMMap, len) == 24, "len at 24");
static_assert(offsetof(ZVKPerfMMap, pgoff) == 32, "pgoff at 32");
static_assert(offsetof(ZVKPerfMMap, strsize) == 40, "strsize at 40");
static_assert(offsetof(ZVKPerfMMap, filename) == 48, "filename at 48");

// The payload size of an MMAP record whose name has `name_length` characters, cut
// to 16 bits as the record header stores it.
constexpr uint16_t mmap_payload_size(uint64_t name_length) {
  return static_cast<uint16_t>(sizeof(ZVKPerfMMap) + ((name_length + 8) & ~uint64_t{7}));
}
static_assert(mmap_payload_size(7) == 56, "a 7-character name takes 8 bytes");
static_assert(mmap_payload_size(8) == 64, "an 8-character name takes 16 bytes");

// Payload of LOST: how many records the kernel dropped.
struct ZVKPerfLost {
  uint64_t id;
  uint64_t stream_id;
  uint64_t lost;
};
static_assert(sizeof(ZVKPerfLost) == 24, "ZVKPerfLost is 24 bytes");
static_assert(offsetof(ZVKPerfLost, id) == 0, "id at 0");
static_assert(offsetof(ZVKPerfLost, stream_id) == 8, "stream_id at 8");
static_assert(offsetof(ZVKPerfLost, lost) == 16, "lost at 16");

// Payload of FORK and EXIT.
struct ZVKPerfExitFork {
  uint64_t id;
  uint64_t stream_id;
  uint32_t ppid;
  uint32_t ptid;
};
static_assert(sizeof(ZVKPerfExitFork) == 24, "ZVKPerfExitFork is 24 bytes");
static_assert(offsetof(ZVKPerfExitFork, id) == 0, "id at 0");
static_assert(offsetof(ZVKPerfExitFork, stream_id) == 8, "stream_id at 8");
static_assert(offsetof(ZVKPerfExitFork, ppid) == 16, "ppid at 16");
static_assert(offsetof(ZVKPerfExitFork, ptid) == 20, "ptid at 20");

// Payload of THROTTLE and UNTHROTTLE.
struct ZVKPerfThrottle {
  uint64_t id;
  uint64_t stream_id;
};
static_assert(sizeof(ZVKPerfThrottle) == 16, "ZVKPerfThrottle is 16 bytes");
static_assert(offsetof(ZVKPerfThrottle, id) == 0, "id at 0");
static_assert(offsetof(ZVKPerfThrottle, stream_id) == 8, "stream_id at 8");

// The sample type every descriptor is opened with, and the only layout the
// decoder reads: IP | TID | TIME | ID | STREAM_ID | CPU | CALLCHAIN.
constexpr uint64_t kDecodedSampleType = 743;

}  // namespace perfevent
}  // namespace zorvek
