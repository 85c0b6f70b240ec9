#include <gtest/gtest.h>
#include <linux/perf_event.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/test_support.h"
#include "zorv/cpu/processpages.h"
#include "zorv/format/perf.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkqueue.h"

// The decoder is fed rings laid out as the kernel lays them out: one control page,
// a power-of-two data area behind it, records at (position & mask), wrapping
// around the end. Its output goes through a real record helper and queue, and is
// compared byte for byte with the capture records it should have produced.

namespace zorvek {
namespace {

using namespace perfevent;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::DecodedRecord;
using testing_support::walk_records;

constexpr uint64_t kSampleType = PERF_SAMPLE_IP | PERF_SAMPLE_TID | PERF_SAMPLE_TIME |
                                 PERF_SAMPLE_ID | PERF_SAMPLE_STREAM_ID | PERF_SAMPLE_CPU |
                                 PERF_SAMPLE_CALLCHAIN;
static_assert(kSampleType == kDecodedSampleType, "the one layout the decoder reads");

// What record buffers hold before the decoder writes: any byte of a record that the
// decoder leaves alone shows up as this.
constexpr char kFill = static_cast<char>(0xa5);
constexpr uint64_t kFillWord = 0xa5a5a5a5a5a5a5a5ull;

const size_t kPageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));

size_t round8(size_t n) { return (n + 7) & ~size_t{7}; }

// The sample_id_all trailer of every non-sample record.
struct SampleId {
  uint32_t pid;
  uint32_t tid;
  uint64_t time;
  uint64_t id;
  uint64_t stream_id;
  uint32_t cpu;
};

// Little-endian bytes, appended field by field.
class Bytes {
 public:
  Bytes& raw(const void* data, size_t size) {
    m_bytes.append(static_cast<const char*>(data), size);
    return *this;
  }
  Bytes& raw(const std::string& bytes) { return raw(bytes.data(), bytes.size()); }
  Bytes& u16(uint16_t value) { return raw(&value, sizeof(value)); }
  Bytes& u32(uint32_t value) { return raw(&value, sizeof(value)); }
  Bytes& u64(uint64_t value) { return raw(&value, sizeof(value)); }
  Bytes& words(const std::vector<uint64_t>& values) {
    for (uint64_t value : values) u64(value);
    return *this;
  }
  // `text`, then NULs up to `field` bytes.
  Bytes& text(const std::string& text, size_t field) {
    m_bytes += text;
    m_bytes.append(field - text.size(), '\0');
    return *this;
  }
  Bytes& untouched(size_t count) {
    m_bytes.append(count, kFill);
    return *this;
  }
  Bytes& trailer(const SampleId& t) {
    return u32(t.pid).u32(t.tid).u64(t.time).u64(t.id).u64(t.stream_id).u32(t.cpu).u32(0);
  }
  const std::string& str() const { return m_bytes; }
  size_t size() const { return m_bytes.size(); }

 private:
  std::string m_bytes;
};

// --- Kernel records: a perf_event_header and a body -------------------------------

std::string kernel_record(uint32_t type, const Bytes& body, uint16_t misc = 0) {
  const size_t size = sizeof(perf_event_header) + body.size();
  EXPECT_LE(size, 0xffffu);
  return Bytes().u32(type).u16(misc).u16(static_cast<uint16_t>(size)).raw(body.str()).str();
}

// The same record cut or padded to `size` bytes, with its header saying so.
std::string resized(std::string record, uint16_t size) {
  record.resize(size, '\0');
  std::memcpy(&record[offsetof(perf_event_header, size)], &size, sizeof(size));
  return record;
}

// --- Capture records: the header, then the chain and payload bytes -----------------

std::string capture_record(uint64_t timestamp, uint32_t event, uint32_t device, uint32_t pid,
                           uint32_t tid, uint16_t call_chain_size, const Bytes& data) {
  const size_t payload = data.size() - 16u * call_chain_size;
  return Bytes()
      .u64(timestamp)
      .u32(make_event_word(CPU, device, event))
      .u32(pid)
      .u32(tid)
      .u16(call_chain_size)
      .u16(static_cast<uint16_t>(payload))
      .raw(data.str())
      .str();
}

// A record whose time, process, thread and CPU are the trailer's.
std::string from_trailer(uint32_t event, const SampleId& t, const Bytes& payload) {
  return capture_record(t.time, event, t.cpu, t.pid, t.tid, 0, payload);
}

// --- One struct per kernel record type: its ring bytes and what it becomes ---------

struct Sample {
  uint64_t ip;
  uint32_t pid;
  uint32_t tid;
  uint64_t time;
  uint64_t id;
  uint64_t stream_id;
  uint32_t cpu;
  std::vector<uint64_t> chain;
};

std::string kernel(const Sample& s) {
  return kernel_record(PERF_RECORD_SAMPLE,
                       Bytes()
                           .u64(s.ip)
                           .u32(s.pid)
                           .u32(s.tid)
                           .u64(s.time)
                           .u64(s.id)
                           .u64(s.stream_id)
                           .u32(s.cpu)
                           .u32(0)
                           .u64(s.chain.size())
                           .words(s.chain),
                       PERF_RECORD_MISC_USER);
}

// Two addresses to an entry; an odd chain leaves its last slot as the buffer held it.
std::string expected(const Sample& s) {
  const uint16_t entries = static_cast<uint16_t>((s.chain.size() + 1) / 2);
  Bytes data;
  data.words(s.chain);
  if (s.chain.size() % 2 != 0) data.untouched(8);
  data.u64(s.ip).u64(s.id).u64(s.stream_id);
  return capture_record(s.time, SAMPLE, s.cpu, s.pid, s.tid, entries, data);
}

struct Mmap {
  uint32_t pid;
  uint32_t tid;
  uint64_t addr;
  uint64_t len;
  uint64_t pgoff;
  std::string name;
  SampleId sample_id;
};

std::string kernel(const Mmap& m) {
  return kernel_record(PERF_RECORD_MMAP, Bytes()
                                             .u32(m.pid)
                                             .u32(m.tid)
                                             .u64(m.addr)
                                             .u64(m.len)
                                             .u64(m.pgoff)
                                             .text(m.name, round8(m.name.size() + 1))
                                             .trailer(m.sample_id));
}

// The name area is the name's length rounded up to 8 with room for the NUL; what
// lies behind the NUL isn't cleared.
std::string expected(const Mmap& m) {
  const size_t area = (m.name.size() + 8) & ~size_t{7};
  return from_trailer(MMAP, m.sample_id,
                      Bytes()
                          .u64(m.sample_id.id)
                          .u64(m.sample_id.stream_id)
                          .u64(m.addr)
                          .u64(m.len)
                          .u64(m.pgoff)
                          .u64(m.name.size())
                          .text(m.name, m.name.size() + 1)
                          .untouched(area - m.name.size() - 1));
}

struct Lost {
  uint64_t id;
  uint64_t lost;
  SampleId sample_id;
};

std::string kernel(const Lost& l) {
  return kernel_record(PERF_RECORD_LOST, Bytes().u64(l.id).u64(l.lost).trailer(l.sample_id));
}

std::string expected(const Lost& l) {
  return from_trailer(LOST, l.sample_id,
                      Bytes().u64(l.sample_id.id).u64(l.sample_id.stream_id).u64(l.lost));
}

struct Throttle {
  uint32_t type;  // PERF_RECORD_THROTTLE or PERF_RECORD_UNTHROTTLE
  uint64_t time;
  uint64_t id;
  uint64_t stream_id;
  SampleId sample_id;
};

std::string kernel(const Throttle& t) {
  return kernel_record(t.type,
                       Bytes().u64(t.time).u64(t.id).u64(t.stream_id).trailer(t.sample_id));
}

std::string expected(const Throttle& t) {
  return from_trailer(t.type == PERF_RECORD_THROTTLE ? THROTTLE : UNTHROTTLE, t.sample_id,
                      Bytes().u64(t.sample_id.id).u64(t.sample_id.stream_id));
}

struct ForkExit {
  uint32_t type;  // PERF_RECORD_FORK or PERF_RECORD_EXIT
  uint32_t pid;
  uint32_t ppid;
  uint32_t tid;
  uint32_t ptid;
  uint64_t time;
  SampleId sample_id;
};

std::string kernel(const ForkExit& f) {
  return kernel_record(
      f.type,
      Bytes().u32(f.pid).u32(f.ppid).u32(f.tid).u32(f.ptid).u64(f.time).trailer(f.sample_id));
}

// The process and thread are the body's; time and CPU the trailer's.
std::string expected(const ForkExit& f) {
  const SampleId& t = f.sample_id;
  return capture_record(t.time, f.type == PERF_RECORD_EXIT ? EXIT : FORK, t.cpu, f.pid, f.tid, 0,
                        Bytes().u64(t.id).u64(t.stream_id).u32(f.ppid).u32(f.ptid));
}

struct Comm {
  uint32_t pid;
  uint32_t tid;
  std::string name;
  SampleId sample_id;
};

std::string kernel(const Comm& c) {
  return kernel_record(PERF_RECORD_COMM, Bytes()
                                             .u32(c.pid)
                                             .u32(c.tid)
                                             .text(c.name, round8(c.name.size() + 1))
                                             .trailer(c.sample_id));
}

std::string expected(const Comm&) { return {}; }

// A read_format of 0: the value alone.
struct Read {
  uint32_t pid;
  uint32_t tid;
  uint64_t value;
  SampleId sample_id;
};

std::string kernel(const Read& r) {
  return kernel_record(PERF_RECORD_READ,
                       Bytes().u32(r.pid).u32(r.tid).u64(r.value).trailer(r.sample_id));
}

std::string expected(const Read&) { return {}; }

// --- Fixtures of every type, with values that tell the fields apart ----------------

SampleId sample_id(uint32_t n) {
  return SampleId{100 + n, 200 + n, 1'000'000'000ull * n + 17, 0x1d00 + n, 0x5d00 + n, n % 16};
}

Sample sample_with_chain(size_t nr, uint32_t n = 1) {
  std::vector<uint64_t> chain;
  // The kernel's context marker leads a user chain, and stays in the record.
  if (nr > 0) chain.push_back(PERF_CONTEXT_USER);
  for (size_t i = 1; i < nr; ++i) chain.push_back(0x7f0000001000ull + 0x40 * i + n);
  return Sample{0x401000ull + n, 4000 + n, 4100 + n, 2'000'000'000ull + n, 0x1d00 + n,
                0x5d00 + n, n % 16, chain};
}

Mmap mmap_named(const std::string& name, uint32_t n = 2) {
  return Mmap{9000 + n, 9100 + n, 0x7f1234560000ull, 0x21000, 0x3000, name, sample_id(n)};
}

Lost lost(uint32_t n = 3) { return Lost{0xdead00 + n, 12 + n, sample_id(n)}; }

Throttle throttle(uint32_t type, uint32_t n = 4) {
  // The body's id and stream_id differ from the trailer's: the trailer's are stored.
  return Throttle{type, 55 + n, 0xb0d1, 0xb0d2, sample_id(n)};
}

ForkExit fork_exit(uint32_t type, uint32_t n = 5) {
  return ForkExit{type, 7000 + n, 6000 + n, 7100 + n, 6100 + n, 77 + n, sample_id(n)};
}

Comm comm(uint32_t n = 6) { return Comm{300 + n, 301 + n, "python3", sample_id(n)}; }

Read read_value(uint32_t n = 7) { return Read{400 + n, 401 + n, 123456 + n, sample_id(n)}; }

// --- The ring ----------------------------------------------------------------------

// A control page and `data_pages` of data behind it, page-aligned as the kernel
// maps them. Positions are counted like the ring words: they only grow, and a
// record lies at (position & mask).
class Ring {
 public:
  explicit Ring(size_t data_pages = 1) : m_bytes(kPageSize * (1 + data_pages)) {
    void* memory = nullptr;
    EXPECT_EQ(posix_memalign(&memory, kPageSize, m_bytes), 0);
    m_memory = static_cast<char*>(memory);
    std::memset(m_memory, 0, m_bytes);
    page()->data_offset = kPageSize;
    page()->data_size = kPageSize * data_pages;
  }
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;
  ~Ring() { free(m_memory); }

  perf_event_mmap_page* page() { return reinterpret_cast<perf_event_mmap_page*>(m_memory); }
  uint64_t data_size() const { return kPageSize * (m_bytes / kPageSize - 1); }
  uint64_t head() { return page()->data_head; }
  uint64_t tail() { return page()->data_tail; }

  // An empty ring whose next record goes at `position`.
  void start_at(uint64_t position) {
    page()->data_head = position;
    page()->data_tail = position;
  }
  void set_head(uint64_t position) { page()->data_head = position; }

  // Copies `bytes` to `position`, the part that runs past the end to the start.
  void put(uint64_t position, const std::string& bytes) {
    ASSERT_LE(bytes.size(), data_size());
    char* data = m_memory + kPageSize;
    const size_t at = position & (data_size() - 1);
    const size_t first = std::min<size_t>(bytes.size(), data_size() - at);
    std::memcpy(data + at, bytes.data(), first);
    std::memcpy(data, bytes.data() + first, bytes.size() - first);
  }

  // Writes a record at the head and publishes it, as the kernel does.
  void push(const std::string& record) {
    put(head(), record);
    set_head(head() + record.size());
  }

  // Control page and data, to show a call changed nothing.
  std::string snapshot() const { return std::string(m_memory, m_bytes); }

 private:
  size_t m_bytes;
  char* m_memory = nullptr;
};

// A position from which a record of `size` bytes runs `past` bytes beyond the end
// of the data area, some laps into the ring's life.
uint64_t straddling(const Ring& ring, size_t size, size_t past) {
  return 3 * ring.data_size() + ring.data_size() - (size - past);
}

// --- The decoder's side: a record helper on a real queue, a worker's scratch -------

class Decoder {
 public:
  static constexpr size_t kBufferBytes = 256 * 1024;

  Decoder() : m_fill(2, kBufferBytes) {
    // Both buffers painted before the helper takes one.
    std::vector<ZVKBuffer*> buffers;
    for (ZVKBuffer* buffer = nullptr; m_fill.pop(&buffer), buffer != nullptr;) {
      buffers.push_back(buffer);
    }
    EXPECT_EQ(buffers.size(), 2u);
    for (ZVKBuffer* buffer : buffers) {
      paint(buffer);
      m_fill.push(buffer);
    }
    m_helper = std::make_unique<ZVKBufferRecordHelper>(&m_fill, &m_to_write);
  }
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;
  ~Decoder() {
    CaptureStderr();  // the helper's closing line
    m_helper.reset();
    GetCapturedStderr();
    free(m_scratch);
  }

  void drain(Ring& ring, int cpu = 0) {
    process_pages(cpu, ring.page(), kSampleType, &m_scratch, &m_scratch_size, m_helper.get());
  }

  // The bytes of the records written since the last call. The buffer goes back
  // painted again, so every call starts from the same memory.
  std::string take() {
    if (!m_helper->flush().ok()) {
      EXPECT_EQ(m_to_write.size(), 0u);
      return {};
    }
    ZVKBuffer* buffer = nullptr;
    m_to_write.pop(&buffer);
    EXPECT_NE(buffer, nullptr);
    if (buffer == nullptr) return {};
    std::string bytes(buffer->record_buffer, buffer->num_bytes);
    paint(buffer);
    m_fill.push(buffer);
    EXPECT_EQ(m_to_write.size(), 0u);
    return bytes;
  }

  std::string drain_and_take(Ring& ring) {
    drain(ring);
    return take();
  }

  void*& scratch() { return m_scratch; }
  size_t& scratch_size() { return m_scratch_size; }

 private:
  static void paint(ZVKBuffer* buffer) {
    buffer->num_bytes = 0;
    std::memset(buffer->record_buffer, kFill, buffer->len_buffer);
  }

  ZVKQueue<ZVKBuffer> m_fill;
  ZVKQueue<ZVKBuffer> m_to_write;
  std::unique_ptr<ZVKBufferRecordHelper> m_helper;
  void* m_scratch = nullptr;
  size_t m_scratch_size = 0;
};

// Exact bytes, naming the first difference, which a dump of two binary strings
// leaves the reader to find.
::testing::AssertionResult same_bytes(const std::string& actual, const std::string& expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  const size_t common = std::min(actual.size(), expected.size());
  size_t at = 0;
  while (at < common && actual[at] == expected[at]) ++at;
  auto around = [at](const std::string& bytes) {
    std::string hex;
    for (size_t i = at; i < std::min(bytes.size(), at + 16); ++i) {
      char digits[4];
      std::snprintf(digits, sizeof(digits), "%02x ", static_cast<unsigned char>(bytes[i]));
      hex += digits;
    }
    return hex;
  };
  return ::testing::AssertionFailure()
         << actual.size() << " bytes, expected " << expected.size()
         << "; first difference at byte " << at << ": " << around(actual) << "instead of "
         << around(expected);
}

template <typename Payload>
Payload payload_as(const DecodedRecord& record) {
  Payload payload{};
  EXPECT_GE(record.payload.size(), sizeof(Payload));
  std::memcpy(&payload, record.payload.data(), std::min(sizeof(Payload), record.payload.size()));
  return payload;
}

uint64_t word_at(const std::string& bytes, size_t offset) {
  uint64_t word = 0;
  if (offset + sizeof(word) <= bytes.size()) std::memcpy(&word, &bytes[offset], sizeof(word));
  return word;
}

// --- Empty drains -------------------------------------------------------------------

TEST(PerfDecoder, TailAtOrPastHeadTouchesNothing) {
  Ring ring;
  Decoder decoder;
  // A whole record lies at the tail, but the head doesn't cover it.
  ring.start_at(ring.data_size() + 64);
  ring.put(ring.tail(), kernel(sample_with_chain(2)));
  for (uint64_t tail : {ring.head(), ring.head() + 8, ring.head() + ring.data_size()}) {
    ring.page()->data_tail = tail;
    const std::string before = ring.snapshot();
    decoder.drain(ring);
    EXPECT_EQ(ring.snapshot(), before) << "tail " << tail;
    EXPECT_EQ(ring.tail(), tail);
    EXPECT_EQ(decoder.scratch(), nullptr);
    EXPECT_EQ(decoder.scratch_size(), 0u);
    EXPECT_EQ(decoder.take(), "");
  }
}

// --- Samples ------------------------------------------------------------------------

TEST(PerfDecoder, ContiguousSampleBecomesOneRecordInPlace) {
  Ring ring;
  Decoder decoder;
  const Sample s = sample_with_chain(4);
  ring.start_at(0);
  ring.push(kernel(s));
  const std::string out = decoder.drain_and_take(ring);
  EXPECT_TRUE(same_bytes(out, expected(s)));
  EXPECT_EQ(ring.tail(), ring.head());
  EXPECT_EQ(decoder.scratch(), nullptr);  // nothing was copied

  const std::vector<DecodedRecord> records = walk_records(out.data(), out.size());
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].timestamp, s.time);
  EXPECT_EQ(records[0].hw_type, static_cast<uint32_t>(CPU));
  EXPECT_EQ(records[0].device_id, s.cpu);
  EXPECT_EQ(records[0].event_type, static_cast<uint32_t>(SAMPLE));
  EXPECT_EQ(records[0].pid, s.pid);
  EXPECT_EQ(records[0].tid, s.tid);
  EXPECT_EQ(records[0].call_chain_size, 2);
  EXPECT_EQ(records[0].payload_size, sizeof(ZVKPerfSample));
  const auto payload = payload_as<ZVKPerfSample>(records[0]);
  EXPECT_EQ(payload.ip, s.ip);
  EXPECT_EQ(payload.id, s.id);
  EXPECT_EQ(payload.stream_id, s.stream_id);
  // The chain verbatim, context marker included.
  for (size_t i = 0; i < s.chain.size(); ++i) EXPECT_EQ(word_at(out, 24 + 8 * i), s.chain[i]);
}

TEST(PerfDecoder, ChainLengthsRoundUpToWholeEntries) {
  for (size_t nr : {0, 1, 2, 3, 127}) {
    Ring ring;
    Decoder decoder;
    const Sample s = sample_with_chain(nr);
    ring.start_at(0);
    ring.push(kernel(s));
    const std::string out = decoder.drain_and_take(ring);
    EXPECT_TRUE(same_bytes(out, expected(s))) << "nr " << nr;
    const std::vector<DecodedRecord> records = walk_records(out.data(), out.size());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].call_chain_size, (nr + 1) / 2) << "nr " << nr;
  }
}

TEST(PerfDecoder, EmptyChainGivesA48ByteRecord) {
  Ring ring;
  Decoder decoder;
  ring.start_at(0);
  ring.push(kernel(sample_with_chain(0)));
  const std::string out = decoder.drain_and_take(ring);
  ASSERT_EQ(out.size(), 48u);
  EXPECT_EQ(walk_records(out.data(), out.size())[0].call_chain_size, 0);
}

TEST(PerfDecoder, OddChainLeavesTheLastSlotAsTheBufferHeldIt) {
  Ring ring;
  Decoder decoder;
  const Sample s = sample_with_chain(3);
  ring.start_at(0);
  ring.push(kernel(s));
  const std::string out = decoder.drain_and_take(ring);
  ASSERT_EQ(out.size(), 24u + 32u + 24u);
  EXPECT_EQ(walk_records(out.data(), out.size())[0].call_chain_size, 2);
  EXPECT_EQ(word_at(out, 24), s.chain[0]);
  EXPECT_EQ(word_at(out, 32), s.chain[1]);
  EXPECT_EQ(word_at(out, 40), s.chain[2]);
  EXPECT_EQ(word_at(out, 48), kFillWord);
  EXPECT_EQ(word_at(out, 56), s.ip);  // the payload follows the rounded-up chain
}

TEST(PerfDecoder, CpuAboveByteIsTruncatedInDeviceIdAndTheArgumentIsIgnored) {
  Ring ring;
  Decoder decoder;
  Sample s = sample_with_chain(2);
  s.cpu = 0x1ab;
  Lost l = lost();
  l.sample_id.cpu = 0x2ff;
  ring.start_at(0);
  ring.push(kernel(s));
  ring.push(kernel(l));
  decoder.drain(ring, /*cpu=*/7);
  const std::string out = decoder.take();
  const std::vector<DecodedRecord> records = walk_records(out.data(), out.size());
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].device_id, 0xabu);
  EXPECT_EQ(records[1].device_id, 0xffu);
  EXPECT_EQ(records[0].hw_type, static_cast<uint32_t>(CPU));
  EXPECT_EQ(records[0].event_type, static_cast<uint32_t>(SAMPLE));
  EXPECT_TRUE(same_bytes(out, expected(s) + expected(l)));
}

// A sample type with PERF_SAMPLE_PERIOD puts the period between cpu and the chain.
// The decoder reads fixed offsets, so it takes the period for nr and the real nr
// for the first address.
std::string sample_with_period(const Sample& s, uint64_t period) {
  std::string record = kernel(s);
  record.insert(56, Bytes().u64(period).str());
  return resized(record, static_cast<uint16_t>(record.size()));
}

TEST(PerfDecoder, ExtraFieldAheadOfTheChainIsMisread) {
  Ring ring;
  Decoder decoder;
  const Sample s = sample_with_chain(3);
  ring.start_at(0);
  ring.push(sample_with_period(s, 4));
  const std::string out = decoder.drain_and_take(ring);
  Sample misread = s;
  misread.chain = {3, s.chain[0], s.chain[1], s.chain[2]};
  EXPECT_TRUE(same_bytes(out, expected(misread)));
}

TEST(PerfDecoder, ChainRunningPastTheRecordIsSteppedOver) {
  // A period that, read as nr, would take the chain beyond the record's end: the
  // decoder writes no record rather than read past it, and goes on.
  Ring ring;
  Decoder decoder;
  const Sample s = sample_with_chain(3);
  const Sample next = sample_with_chain(2, 9);
  ring.start_at(0);
  ring.push(sample_with_period(s, 100000));
  // Four words lie behind the period (the real nr and three addresses): 4 is read
  // as a chain, 5 would be one word past the end.
  ring.push(sample_with_period(s, 5));
  ring.push(kernel(next));
  EXPECT_TRUE(same_bytes(decoder.drain_and_take(ring), expected(next)));
  EXPECT_EQ(ring.tail(), ring.head());
}

// --- Wrapping -----------------------------------------------------------------------

TEST(PerfDecoder, RecordEndingExactlyAtTheEndIsNotWrapped) {
  Ring ring;
  Decoder decoder;
  const Sample s = sample_with_chain(5);
  const std::string record = kernel(s);
  ring.start_at(straddling(ring, record.size(), 0));
  ring.push(record);
  ASSERT_EQ(ring.head() % ring.data_size(), 0u);
  EXPECT_TRUE(same_bytes(decoder.drain_and_take(ring), expected(s)));
  EXPECT_EQ(decoder.scratch(), nullptr);
  EXPECT_EQ(decoder.scratch_size(), 0u);
  EXPECT_EQ(ring.tail(), ring.head());
}

// glibc hands an allocation of a size it has just freed back at once, which would
// hide a needless free and malloc of the scratch behind an unchanged address. Seven
// chunks of that size freed first fill its per-thread cache, so that the scratch,
// if freed, goes elsewhere and a new one comes from those seven.
void crowd_allocator(size_t size) {
  void* chunks[7];
  for (void*& chunk : chunks) {
    chunk = malloc(size);
    asm volatile("" : : "r"(chunk) : "memory");  // so that the pair isn't optimised away
  }
  for (void* chunk : chunks) free(chunk);
}

TEST(PerfDecoder, WrappedRecordReplacesOnlyASmallerScratch) {
  Ring ring;
  Decoder decoder;
  const Sample s = sample_with_chain(6);
  const std::string record = kernel(s);
  void* const small = malloc(record.size() - 8);
  decoder.scratch() = small;
  decoder.scratch_size() = record.size() - 8;

  ring.start_at(straddling(ring, record.size(), 16));
  ring.push(record);
  EXPECT_TRUE(same_bytes(decoder.drain_and_take(ring), expected(s)));
  EXPECT_NE(decoder.scratch(), small);
  EXPECT_NE(decoder.scratch(), nullptr);
  EXPECT_EQ(decoder.scratch_size(), record.size());

  // Now of equal size, then larger than the record: kept.
  for (size_t extra : {0, 64}) {
    if (extra != 0) {
      free(decoder.scratch());
      decoder.scratch() = malloc(record.size() + extra);
      decoder.scratch_size() = record.size() + extra;
    }
    void* const held = decoder.scratch();
    ring.start_at(straddling(ring, record.size(), 40));
    ring.push(record);
    crowd_allocator(record.size());
    EXPECT_TRUE(same_bytes(decoder.drain_and_take(ring), expected(s)));
    EXPECT_EQ(decoder.scratch(), held);
    EXPECT_EQ(decoder.scratch_size(), record.size() + extra);
  }
}

// Every record type placed whole, then straddling the end at every 8-byte split:
// the copy decodes to the same bytes as the record in place.
template <typename Record>
void expect_same_whole_and_wrapped(const Record& r, size_t data_pages) {
  const std::string record = kernel(r);
  Ring ring(data_pages);
  Decoder decoder;
  ring.start_at(0);
  ring.push(record);
  const std::string whole = decoder.drain_and_take(ring);
  EXPECT_TRUE(same_bytes(whole, expected(r)));
  for (size_t past = 8; past < record.size(); past += 8) {
    ring.start_at(straddling(ring, record.size(), past));
    ring.push(record);
    EXPECT_TRUE(same_bytes(decoder.drain_and_take(ring), whole))
        << record.size() << "-byte record, " << past << " bytes past the end";
    EXPECT_EQ(ring.tail(), ring.head());
  }
  EXPECT_GE(decoder.scratch_size(), record.size());
}

TEST(PerfDecoder, WrappedRecordDecodesAsTheWholeOne) {
  for (size_t pages : {1, 4}) {
    for (size_t nr : {0, 1, 3, 127}) expect_same_whole_and_wrapped(sample_with_chain(nr), pages);
    expect_same_whole_and_wrapped(mmap_named("/usr/lib/x86_64-linux-gnu/libcuda.so.1"), pages);
    expect_same_whole_and_wrapped(lost(), pages);
    expect_same_whole_and_wrapped(throttle(PERF_RECORD_THROTTLE), pages);
    expect_same_whole_and_wrapped(throttle(PERF_RECORD_UNTHROTTLE), pages);
    expect_same_whole_and_wrapped(fork_exit(PERF_RECORD_FORK), pages);
    expect_same_whole_and_wrapped(fork_exit(PERF_RECORD_EXIT), pages);
    expect_same_whole_and_wrapped(comm(), pages);
    expect_same_whole_and_wrapped(read_value(), pages);
  }
}

TEST(PerfDecoder, RecordsOnBothSidesOfTheEndComeOutInOrder) {
  Ring ring;
  Decoder decoder;
  const std::vector<Sample> samples = {sample_with_chain(8, 1), sample_with_chain(30, 2),
                                       sample_with_chain(3, 3), sample_with_chain(12, 4)};
  // The second sample straddles the end; the rest lie whole on either side.
  ring.start_at(straddling(ring, kernel(samples[0]).size() + kernel(samples[1]).size(), 100 + 4));
  std::string want;
  for (const Sample& s : samples) {
    ring.push(kernel(s));
    want += expected(s);
  }
  EXPECT_TRUE(same_bytes(decoder.drain_and_take(ring), want));
  EXPECT_EQ(ring.tail(), ring.head());
}

// --- Every kernel record type -------------------------------------------------------

TEST(PerfDecoder, EveryKernelTypeMapsToItsRecord) {
  Ring ring;
  Decoder decoder;
  const Sample s = sample_with_chain(2);
  const Mmap m = mmap_named("/opt/conda/lib/libtorch_cpu.so");
  const Lost l = lost();
  const Throttle th = throttle(PERF_RECORD_THROTTLE);
  const Throttle un = throttle(PERF_RECORD_UNTHROTTLE, 8);
  const ForkExit fk = fork_exit(PERF_RECORD_FORK);
  const ForkExit ex = fork_exit(PERF_RECORD_EXIT, 9);
  ring.start_at(5 * ring.data_size() + 1024);
  ring.push(kernel(s));
  ring.push(kernel(comm()));
  ring.push(kernel(m));
  ring.push(kernel(l));
  ring.push(kernel(read_value()));
  ring.push(kernel(th));
  ring.push(kernel(un));
  ring.push(kernel_record(PERF_RECORD_SAMPLE + 1, Bytes().u64(1).u64(2).trailer(sample_id(10))));
  ring.push(kernel(fk));
  ring.push(kernel(ex));
  const std::string out = decoder.drain_and_take(ring);
  EXPECT_EQ(ring.tail(), ring.head());
  EXPECT_TRUE(same_bytes(out, expected(s) + expected(m) + expected(l) + expected(th) +
                                  expected(un) + expected(fk) + expected(ex)));

  const std::vector<DecodedRecord> r = walk_records(out.data(), out.size());
  ASSERT_EQ(r.size(), 7u);
  const std::vector<uint32_t> events = {SAMPLE, MMAP, LOST, THROTTLE, UNTHROTTLE, FORK, EXIT};
  for (size_t i = 0; i < r.size(); ++i) {
    EXPECT_EQ(r[i].hw_type, static_cast<uint32_t>(CPU)) << i;
    EXPECT_EQ(r[i].event_type, events[i]) << i;
  }

  // MMAP: process and thread from the trailer, not the body.
  EXPECT_EQ(r[1].timestamp, m.sample_id.time);
  EXPECT_EQ(r[1].pid, m.sample_id.pid);
  EXPECT_EQ(r[1].tid, m.sample_id.tid);
  EXPECT_NE(r[1].pid, m.pid);
  EXPECT_EQ(r[1].device_id, m.sample_id.cpu);
  const auto mm = payload_as<ZVKPerfMMap>(r[1]);
  EXPECT_EQ(mm.id, m.sample_id.id);
  EXPECT_EQ(mm.stream_id, m.sample_id.stream_id);
  EXPECT_EQ(mm.addr, m.addr);
  EXPECT_EQ(mm.len, m.len);
  EXPECT_EQ(mm.pgoff, m.pgoff);
  EXPECT_EQ(mm.strsize, m.name.size());
  EXPECT_STREQ(r[1].payload.c_str() + sizeof(ZVKPerfMMap), m.name.c_str());

  // LOST: id from the trailer, the count from the body.
  EXPECT_EQ(r[2].pid, l.sample_id.pid);
  EXPECT_EQ(r[2].tid, l.sample_id.tid);
  const auto lo = payload_as<ZVKPerfLost>(r[2]);
  EXPECT_EQ(lo.id, l.sample_id.id);
  EXPECT_NE(lo.id, l.id);
  EXPECT_EQ(lo.stream_id, l.sample_id.stream_id);
  EXPECT_EQ(lo.lost, l.lost);

  // THROTTLE and UNTHROTTLE: ids and time from the trailer.
  for (const auto& pair : {std::make_pair(&r[3], &th), std::make_pair(&r[4], &un)}) {
    const DecodedRecord& rec = *pair.first;
    const Throttle& t = *pair.second;
    EXPECT_EQ(rec.timestamp, t.sample_id.time);
    EXPECT_EQ(rec.pid, t.sample_id.pid);
    EXPECT_EQ(rec.tid, t.sample_id.tid);
    EXPECT_EQ(rec.device_id, t.sample_id.cpu);
    EXPECT_EQ(rec.payload_size, sizeof(ZVKPerfThrottle));
    const auto p = payload_as<ZVKPerfThrottle>(rec);
    EXPECT_EQ(p.id, t.sample_id.id);
    EXPECT_EQ(p.stream_id, t.sample_id.stream_id);
  }

  // FORK and EXIT: process and thread from the body, the rest from the trailer.
  for (const auto& pair : {std::make_pair(&r[5], &fk), std::make_pair(&r[6], &ex)}) {
    const DecodedRecord& rec = *pair.first;
    const ForkExit& f = *pair.second;
    EXPECT_EQ(rec.timestamp, f.sample_id.time);
    EXPECT_EQ(rec.pid, f.pid);
    EXPECT_EQ(rec.tid, f.tid);
    EXPECT_EQ(rec.device_id, f.sample_id.cpu);
    EXPECT_EQ(rec.payload_size, sizeof(ZVKPerfExitFork));
    const auto p = payload_as<ZVKPerfExitFork>(rec);
    EXPECT_EQ(p.id, f.sample_id.id);
    EXPECT_EQ(p.stream_id, f.sample_id.stream_id);
    EXPECT_EQ(p.ppid, f.ppid);
    EXPECT_EQ(p.ptid, f.ptid);
  }
}

TEST(PerfDecoder, CommReadAndUnknownTypesAdvanceTheTailAndWriteNothing) {
  Ring ring;
  Decoder decoder;
  ring.start_at(2 * ring.data_size() + 512);
  ring.push(kernel(comm()));
  ring.push(kernel(read_value()));
  ring.push(kernel_record(0, Bytes().u64(0)));
  ring.push(kernel_record(PERF_RECORD_SAMPLE + 1, Bytes().u64(1).u64(2)));
  ring.push(kernel_record(200, Bytes().u64(3)));
  decoder.drain(ring);
  EXPECT_EQ(ring.tail(), ring.head());
  EXPECT_EQ(decoder.take(), "");
}

TEST(PerfDecoder, MmapNameAreaIsRoundedWithRoomForTheNul) {
  struct Case {
    std::string name;
    uint64_t strsize;
    uint16_t payload_size;
  };
  for (const Case& c : {Case{"", 0, 56}, Case{"libc.so", 7, 56}, Case{"libm.so6", 8, 64},
                        Case{"libcudart.so.12", 15, 64}, Case{"libcudnn.so.9.0", 15, 64},
                        Case{"libnccl.so.2.21", 15, 64}}) {
    Ring ring;
    Decoder decoder;
    const Mmap m = mmap_named(c.name);
    ring.start_at(0);
    ring.push(kernel(m));
    const std::string out = decoder.drain_and_take(ring);
    EXPECT_TRUE(same_bytes(out, expected(m))) << '"' << c.name << '"';
    const std::vector<DecodedRecord> records = walk_records(out.data(), out.size());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].payload_size, c.payload_size) << '"' << c.name << '"';
    EXPECT_EQ(payload_as<ZVKPerfMMap>(records[0]).strsize, c.strsize) << '"' << c.name << '"';
    // The name and its NUL.
    EXPECT_EQ(records[0].payload.substr(sizeof(ZVKPerfMMap), c.name.size() + 1),
              c.name + std::string(1, '\0'));
  }
}

// --- Malformed rings ----------------------------------------------------------------

// What a drain past a malformed header gives: the records before it, then one
// LOST record for the bytes up to the head, which the tail has jumped to.
void expect_resynchronized(const std::string& written, const std::string& before,
                           uint64_t skipped, const std::string& what) {
  ASSERT_GE(written.size(), before.size()) << what;
  EXPECT_TRUE(same_bytes(written.substr(0, before.size()), before)) << what;
  const auto records = walk_records(written.data() + before.size(),
                                    static_cast<uint32_t>(written.size() - before.size()));
  ASSERT_EQ(records.size(), 1u) << what;
  EXPECT_EQ(records[0].hw_type, static_cast<uint32_t>(CPU)) << what;
  EXPECT_EQ(records[0].event_type, static_cast<uint32_t>(LOST)) << what;
  EXPECT_EQ(records[0].pid, static_cast<uint32_t>(getpid())) << what;
  EXPECT_EQ(records[0].call_chain_size, 0u) << what;
  ASSERT_EQ(records[0].payload_size, sizeof(ZVKPerfLost)) << what;
  const auto payload = payload_as<ZVKPerfLost>(records[0]);
  EXPECT_EQ(payload.id, 0u) << what;
  EXPECT_EQ(payload.stream_id, 0u) << what;
  // At most as many samples as the skipped bytes could hold, and at least one.
  EXPECT_EQ(payload.lost, (skipped + 63) / 64) << what;
}

TEST(PerfDecoder, AMalformedHeaderIsSkippedToTheHeadAndCountedAsLost) {
  struct Case {
    uint16_t size;
    const char* what;
  };
  // The header's size is under a header, off the 8-byte grid, beyond what was
  // published, or beyond the whole ring (one data page here).
  const Case cases[] = {{0, "size 0"},       {4, "size 4"},      {7, "size 7"},
                        {12, "size 12"},     {512, "past the head"}, {65528, "past the ring"}};
  std::string log;
  for (const Case& c : cases) {
    Ring ring;
    Decoder decoder;
    CaptureStderr();
    const Sample first = sample_with_chain(2, 1);
    ring.start_at(ring.data_size() + 128);
    ring.push(kernel(first));
    const uint64_t bad = ring.head();
    ring.push(Bytes().u32(PERF_RECORD_SAMPLE).u16(0).u16(c.size).str());
    ring.push(kernel(sample_with_chain(2, 2)));
    const uint64_t head = ring.head();
    expect_resynchronized(decoder.drain_and_take(ring), expected(first), head - bad, c.what);
    EXPECT_EQ(ring.tail(), head) << c.what;
    // The kernel goes on writing at its head: the ring is read as before.
    const Sample later = sample_with_chain(3, 3);
    ring.push(kernel(later));
    EXPECT_TRUE(same_bytes(decoder.drain_and_take(ring), expected(later))) << c.what;
    EXPECT_EQ(ring.tail(), ring.head()) << c.what;
    log += GetCapturedStderr();
  }
  // Said once in the process, with what the first loss skipped.
  const std::string line = "A perf ring held a malformed record header";
  const size_t told = log.find(line + "; 88 bytes of it were skipped and counted as lost");
  EXPECT_NE(told, std::string::npos) << log;
  EXPECT_EQ(log.find(line, told + 1), std::string::npos) << log;
}

TEST(PerfDecoder, RecordsTooShortForTheirTypeAreSteppedOver) {
  Ring ring;
  Decoder decoder;
  const Lost good = lost();
  ring.start_at(7 * ring.data_size() + 2048);
  // Each cut 8 bytes below the least its type needs, and then to its header alone.
  const std::vector<std::string> short_records = {
      resized(kernel(sample_with_chain(0)), 56),
      resized(kernel(sample_with_chain(4)), 64 + 3 * 8),  // nr 4 with room for 3
      resized(kernel(mmap_named("x")), 72),
      resized(kernel(lost()), 56),
      resized(kernel(throttle(PERF_RECORD_THROTTLE)), 64),
      resized(kernel(throttle(PERF_RECORD_UNTHROTTLE)), 64),
      resized(kernel(fork_exit(PERF_RECORD_FORK)), 64),
      resized(kernel(fork_exit(PERF_RECORD_EXIT)), 64),
  };
  for (const std::string& record : short_records) {
    ring.push(record);
    ring.push(resized(record, 8));
  }
  ring.push(kernel(good));
  EXPECT_TRUE(same_bytes(decoder.drain_and_take(ring), expected(good)));
  EXPECT_EQ(ring.tail(), ring.head());
}

// --- The ring words -----------------------------------------------------------------

TEST(PerfDecoder, DrainStopsAtTheHeadReadOnEntry) {
  Ring ring;
  Decoder decoder;
  const Sample a = sample_with_chain(2, 1);
  const Sample b = sample_with_chain(3, 2);
  ring.start_at(ring.data_size() - 64);
  ring.push(kernel(a));
  // Written but not yet published: left for the next call.
  const std::string later = kernel(b);
  ring.put(ring.head(), later);
  EXPECT_TRUE(same_bytes(decoder.drain_and_take(ring), expected(a)));
  EXPECT_EQ(ring.tail(), ring.head());
  ring.set_head(ring.head() + later.size());
  EXPECT_TRUE(same_bytes(decoder.drain_and_take(ring), expected(b)));
  EXPECT_EQ(ring.tail(), ring.head());
}

TEST(PerfDecoder, ManyLapsOfMixedRecordsAllArriveAndTheTailFollows) {
  Ring ring;
  Decoder decoder;
  ring.start_at(0);
  std::string want;
  uint32_t n = 0;
  int wrapped = 0;
  // Roughly a third of a ring per call, so records straddle the end on some laps.
  for (int call = 0; call < 24; ++call) {
    size_t pushed = 0;
    auto add = [&](const auto& record) {
      const std::string bytes = kernel(record);
      if ((ring.head() & (ring.data_size() - 1)) + bytes.size() > ring.data_size()) ++wrapped;
      ring.push(bytes);
      pushed += bytes.size();
      want += expected(record);
    };
    while (pushed < ring.data_size() / 3) {
      ++n;
      if (n % 4 == 0) {
        add(lost(n));
      } else if (n % 4 == 1) {
        add(mmap_named(std::string(n % 23, 'm'), n));
      } else {
        add(sample_with_chain(n % 40, n));
      }
    }
    decoder.drain(ring);
    ASSERT_EQ(ring.tail(), ring.head()) << "call " << call;
  }
  EXPECT_GT(ring.head(), 7 * ring.data_size());
  EXPECT_GE(wrapped, 4);
  EXPECT_TRUE(same_bytes(decoder.take(), want));
}

}  // namespace
}  // namespace zorvek
