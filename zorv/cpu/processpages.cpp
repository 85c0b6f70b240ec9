#include "zorv/cpu/processpages.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "zorv/format/perf.h"
#include "zorv/format/record.h"
#include "zorv/utils/clock.h"
#include "zorv/utils/logging.h"

namespace zorvek {
namespace {

using namespace perfevent;

// Kernel records are read at fixed offsets from the start of their header. Fields
// go through memcpy: a scratch copy promises no alignment, and memcpy of a word
// compiles to one load.
inline uint64_t u64_at(const char* record, size_t offset) {
  uint64_t value;
  std::memcpy(&value, record + offset, sizeof(value));
  return value;
}

inline uint32_t u32_at(const char* record, size_t offset) {
  uint32_t value;
  std::memcpy(&value, record + offset, sizeof(value));
  return value;
}

// The PERF_RECORD_SAMPLE layout of sample type 743: IP, TID, TIME, ID, STREAM_ID,
// CPU, CALLCHAIN, in the kernel's order.
constexpr size_t kSampleIp = 8;
constexpr size_t kSamplePid = 16;
constexpr size_t kSampleTid = 20;
constexpr size_t kSampleTime = 24;
constexpr size_t kSampleId = 32;
constexpr size_t kSampleStreamId = 40;
constexpr size_t kSampleCpu = 48;
constexpr size_t kSampleNr = 56;
constexpr size_t kSampleChain = 64;

// The sample_id_all trailer that ends every other record.
constexpr size_t kTrailerSize = 40;
constexpr size_t kTrailerPid = 0;
constexpr size_t kTrailerTid = 4;
constexpr size_t kTrailerTime = 8;
constexpr size_t kTrailerId = 16;
constexpr size_t kTrailerStreamId = 24;
constexpr size_t kTrailerCpu = 32;

// Where the trailer starts in the fixed-size records.
constexpr size_t kLostTrailer = 24;      // header, id, lost
constexpr size_t kThrottleTrailer = 32;  // header, time, id, stream_id
constexpr size_t kForkExitTrailer = 32;  // header, pid, ppid, tid, ptid, time
constexpr size_t kMmapName = 40;         // header, pid, tid, addr, len, pgoff

inline uint32_t cpu_event_word(uint32_t kernel_cpu, uint32_t event) {
  return make_event_word(CPU, kernel_cpu & 0xffu, event);
}

struct Trailer {
  uint32_t pid;
  uint32_t tid;
  uint64_t time;
  uint64_t id;
  uint64_t stream_id;
  uint32_t cpu;
};

inline Trailer trailer_at(const char* record, size_t offset) {
  return Trailer{u32_at(record, offset + kTrailerPid),  u32_at(record, offset + kTrailerTid),
                 u64_at(record, offset + kTrailerTime), u64_at(record, offset + kTrailerId),
                 u64_at(record, offset + kTrailerStreamId), u32_at(record, offset + kTrailerCpu)};
}

template <typename Payload>
inline void store_payload(const ZVKBufferRecordHelper::RecordWriter& writer, const Payload& payload) {
  std::memcpy(writer.get_payload_store(), &payload, sizeof(payload));
}

void parse_sample(const char* record, uint16_t size, ZVKBufferRecordHelper* rh) {
  const uint64_t nr = u64_at(record, kSampleNr);
  // The chain must lie within the record; the ring's 16-bit sizes bound nr far
  // below what a 16-bit entry count holds.
  if (nr > (size - kSampleChain) / sizeof(uint64_t)) return;
  const uint16_t call_chain_size = static_cast<uint16_t>((nr + 1) / 2);
  auto writer = rh->new_record(u64_at(record, kSampleTime),
                               cpu_event_word(u32_at(record, kSampleCpu), SAMPLE),
                               static_cast<int32_t>(u32_at(record, kSamplePid)),
                               static_cast<int32_t>(u32_at(record, kSampleTid)), call_chain_size,
                               sizeof(ZVKPerfSample));
  // Two addresses to an entry, verbatim: the context markers stay. For an odd nr
  // the last entry's second slot is left as the buffer held it.
  std::memcpy(writer.get_callchain_array(), record + kSampleChain, nr * sizeof(uint64_t));
  store_payload(writer, ZVKPerfSample{u64_at(record, kSampleIp), u64_at(record, kSampleId),
                                      u64_at(record, kSampleStreamId)});
}

void parse_mmap(const char* record, uint16_t size, ZVKBufferRecordHelper* rh) {
  if (size < kMmapName + kTrailerSize) return;
  const size_t trailer_offset = size - kTrailerSize;
  const Trailer trailer = trailer_at(record, trailer_offset);
  const char* name = record + kMmapName;
  const size_t name_length = strnlen(name, trailer_offset - kMmapName);
  const uint16_t payload_size = mmap_payload_size(name_length);
  auto writer = rh->new_record(trailer.time, cpu_event_word(trailer.cpu, MMAP),
                               static_cast<int32_t>(trailer.pid), static_cast<int32_t>(trailer.tid),
                               0, payload_size);
  ZVKPerfMMap fixed = {trailer.id,           trailer.stream_id,     u64_at(record, 16),
                       u64_at(record, 24),   u64_at(record, 32),    name_length};
  store_payload(writer, fixed);
  char* filename = static_cast<char*>(writer.get_payload_store()) + sizeof(ZVKPerfMMap);
  std::memcpy(filename, name, name_length);
  filename[name_length] = '\0';
}

void parse_lost(const char* record, uint16_t size, ZVKBufferRecordHelper* rh) {
  if (size < kLostTrailer + kTrailerSize) return;
  const Trailer trailer = trailer_at(record, kLostTrailer);
  auto writer = rh->new_record(trailer.time, cpu_event_word(trailer.cpu, LOST),
                               static_cast<int32_t>(trailer.pid), static_cast<int32_t>(trailer.tid),
                               0, sizeof(ZVKPerfLost));
  store_payload(writer, ZVKPerfLost{trailer.id, trailer.stream_id, u64_at(record, 16)});
}

void parse_throttle(const char* record, uint16_t size, uint32_t event, ZVKBufferRecordHelper* rh) {
  if (size < kThrottleTrailer + kTrailerSize) return;
  const Trailer trailer = trailer_at(record, kThrottleTrailer);
  auto writer = rh->new_record(trailer.time, cpu_event_word(trailer.cpu, event),
                               static_cast<int32_t>(trailer.pid), static_cast<int32_t>(trailer.tid),
                               0, sizeof(ZVKPerfThrottle));
  store_payload(writer, ZVKPerfThrottle{trailer.id, trailer.stream_id});
}

// The process and thread are the body's, the one forked or exited, not the trailer's.
void parse_fork_exit(const char* record, uint16_t size, uint32_t event, ZVKBufferRecordHelper* rh) {
  if (size < kForkExitTrailer + kTrailerSize) return;
  const Trailer trailer = trailer_at(record, kForkExitTrailer);
  auto writer = rh->new_record(trailer.time, cpu_event_word(trailer.cpu, event),
                               static_cast<int32_t>(u32_at(record, 8)),
                               static_cast<int32_t>(u32_at(record, 16)), 0,
                               sizeof(ZVKPerfExitFork));
  store_payload(writer, ZVKPerfExitFork{trailer.id, trailer.stream_id, u32_at(record, 12),
                                        u32_at(record, 20)});
}

// One whole, contiguous kernel record into at most one record of `rh`. Records too
// short for their type are stepped over.
void parse_event(int /*cpu*/, uint64_t /*sample_mask*/, uint32_t /*index*/,
                 const perf_event_header* ehdr, ZVKBufferRecordHelper* rh) {
  const char* record = reinterpret_cast<const char*>(ehdr);
  switch (ehdr->type) {
    case PERF_RECORD_SAMPLE:
      if (ehdr->size >= kSampleChain) parse_sample(record, ehdr->size, rh);
      break;
    case PERF_RECORD_MMAP:
      parse_mmap(record, ehdr->size, rh);
      break;
    case PERF_RECORD_LOST:
      parse_lost(record, ehdr->size, rh);
      break;
    case PERF_RECORD_THROTTLE:
      parse_throttle(record, ehdr->size, THROTTLE, rh);
      break;
    case PERF_RECORD_UNTHROTTLE:
      parse_throttle(record, ehdr->size, UNTHROTTLE, rh);
      break;
    case PERF_RECORD_FORK:
      parse_fork_exit(record, ehdr->size, FORK, rh);
      break;
    case PERF_RECORD_EXIT:
      parse_fork_exit(record, ehdr->size, EXIT, rh);
      break;
    default:  // COMM, READ and the rest say nothing a reader of samples needs
      break;
  }
}

// The fewest bytes a sample of the decoded layout takes: header through nr.
constexpr uint64_t kSmallestSample = kSampleChain;

// A header the kernel can't have written: too short to step over, longer than
// what the kernel has published or than the ring, or off the 8-byte grid all
// records keep.
inline bool malformed(uint16_t esize, uint64_t available, uint64_t data_size) {
  return esize < sizeof(perf_event_header) || esize > available || esize > data_size ||
         (esize & 7u) != 0;
}

// Nothing behind a malformed header can be found: everything the kernel has
// published is given up, and the tail jumps to the head, where the next record
// will start. The loss is counted as a LOST record with no event id, for at most
// as many samples as the skipped bytes could have held. The perf clock can't be
// read here; CLOCK_MONOTONIC runs close to it.
void resynchronize(perf_event_mmap_page* page, uint64_t tail, uint64_t head,
                   ZVKBufferRecordHelper* rh) {
  static std::atomic<bool> told{false};
  const uint64_t skipped = head - tail;
  if (!told.exchange(true)) {
    LOG(WARNING) << "A perf ring held a malformed record header; " << skipped
                 << " bytes of it were skipped and counted as lost";
  }
  zvk_store_release(&page->data_tail, head);
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int32_t pid = static_cast<int32_t>(getpid());
  auto writer = rh->new_record(timespec_to_ns(now),
                               cpu_event_word(static_cast<uint32_t>(sched_getcpu()), LOST), pid,
                               pid, 0, sizeof(ZVKPerfLost));
  const uint64_t lost = (skipped + kSmallestSample - 1) / kSmallestSample;
  store_payload(writer, ZVKPerfLost{0, 0, lost});
}

}  // namespace

void process_pages(int cpu, perf_event_mmap_page* page, uint64_t sample_mask, void** page_buffer,
                   size_t* page_buffer_size, ZVKBufferRecordHelper* rh) {
  uint64_t tail = page->data_tail;
  const uint64_t head = zvk_load_acquire(&page->data_head);
  static const int page_size = static_cast<int>(sysconf(_SC_PAGESIZE));
  char* const base = reinterpret_cast<char*>(page) + page_size;
  const uint64_t rbmask = page->data_size - 1;
  const char* const rb_end = base + page->data_size;
  while (tail < head) {
    const perf_event_header* ehdr =
        reinterpret_cast<const perf_event_header*>(base + (tail & rbmask));
    const uint16_t esize = ehdr->size;
    if (malformed(esize, head - tail, page->data_size)) {
      resynchronize(page, tail, head, rh);
      return;
    }
    const char* evt_end = reinterpret_cast<const char*>(ehdr) + esize;
    if (evt_end <= rb_end) {
      parse_event(cpu, sample_mask, 0, ehdr, rh);
    } else {
      if (*page_buffer_size < esize) {
        free(*page_buffer);
        *page_buffer_size = esize;
        *page_buffer = malloc(esize);
        if (*page_buffer == nullptr) {
          LOG(ERROR) << "Failed to allocate page buffer!";
          *page_buffer_size = 0;
          return;
        }
      }
      const size_t chunk1 = page->data_size - (tail & rbmask);
      char* copy = static_cast<char*>(*page_buffer);
      std::memcpy(copy, ehdr, chunk1);
      std::memcpy(copy + chunk1, base, static_cast<size_t>(evt_end - rb_end));
      parse_event(cpu, sample_mask, 0, reinterpret_cast<const perf_event_header*>(copy), rh);
    }
    tail += esize;
    // At once, so the kernel has the space back while the drain goes on.
    zvk_store_release(&page->data_tail, tail);
  }
}

}  // namespace zorvek
