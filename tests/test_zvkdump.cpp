// zvkdump: its decoder against damaged input (every truncation and every flipped
// byte of a real capture, buckets whose stream is sound but whose records aren't,
// damage in the middle of a file), its decoding of CPU sampling records, whole or
// cut short, its JSON, its summary, its progress, its command line and its exit
// status. Under the sanitizers a stray read fails the run; here each result must
// be a clean answer: read whole with nothing on err but an unfinished header's
// note, or a status saying what went wrong with lines naming the file.

#include <gtest/gtest.h>
#include <linux/perf_event.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/test_support.h"
#include "tools/zvkdumper.h"
#include "tools/zvkfilereader.h"
#include "zorv/format/cuda.h"
#include "zorv/format/perf.h"
#include "zorv/format/stack.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkfilewriter.h"
#include "zorv/zvkannotator.h"

namespace zorvek {
namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using testing_support::read_text_file;
using testing_support::TempDir;

DumpOptions mode(DumpFormat format, bool summary) {
  DumpOptions options;
  options.format = format;
  options.summary = summary;
  return options;
}

const DumpOptions kModes[] = {mode(DumpFormat::kText, false), mode(DumpFormat::kJson, false),
                              mode(DumpFormat::kText, true), mode(DumpFormat::kJson, true)};

void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), bytes.size());
}

struct Dumped {
  int status;
  bool whole;
  std::string out;
  std::string err;
};

Dumped dump(const std::vector<std::string>& paths, const DumpOptions& options) {
  std::ostringstream out, err;
  const int status = dump_files(paths, options, out, err);
  return {status, status == kExitReadWhole, out.str(), err.str()};
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Whether `text` is exactly one JSON document (RFC 8259) in valid UTF-8. Written
// apart from the dumper's escaping, so that the two check each other.
class JsonChecker {
 public:
  explicit JsonChecker(const std::string& text) : m_text(text) {}

  bool one_document() {
    space();
    if (!value()) return false;
    space();
    return m_at == m_text.size();
  }

 private:
  bool value() {
    if (m_at == m_text.size()) return false;
    switch (m_text[m_at]) {
      case '{': return members('}', true);
      case '[': return members(']', false);
      case '"': return string();
      case 't': return word("true");
      case 'f': return word("false");
      case 'n': return word("null");
      default: return number();
    }
  }

  // An object's or an array's members, from the opening bracket.
  bool members(char close, bool named) {
    ++m_at;
    space();
    if (take(close)) return true;
    for (;;) {
      space();
      if (named) {
        if (!string()) return false;
        space();
        if (!take(':')) return false;
        space();
      }
      if (!value()) return false;
      space();
      if (take(close)) return true;
      if (!take(',')) return false;
    }
  }

  bool string() {
    if (!take('"')) return false;
    while (m_at < m_text.size()) {
      const auto c = static_cast<unsigned char>(m_text[m_at++]);
      if (c == '"') return true;
      if (c < 0x20) return false;
      if (c == '\\') {
        if (m_at == m_text.size()) return false;
        const char escaped = m_text[m_at++];
        if (escaped == 'u') {
          for (int i = 0; i < 4; ++i) {
            if (m_at == m_text.size() || !isxdigit(static_cast<unsigned char>(m_text[m_at++]))) {
              return false;
            }
          }
        } else if (std::string("\"\\/bfnrt").find(escaped) == std::string::npos) {
          return false;
        }
      } else if (c >= 0x80 && !code_point(c)) {
        return false;
      }
    }
    return false;
  }

  // The rest of a multi-byte UTF-8 sequence whose lead byte was `lead`: decoded,
  // then refused if overlong, a surrogate, or past U+10FFFF.
  bool code_point(unsigned char lead) {
    int more = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : lead >= 0xc0 ? 1 : -1;
    if (more < 0 || lead >= 0xf8) return false;
    uint32_t value = lead & (0x3fu >> more);
    for (int i = 0; i < more; ++i) {
      if (m_at == m_text.size()) return false;
      const auto c = static_cast<unsigned char>(m_text[m_at++]);
      if ((c & 0xc0) != 0x80) return false;
      value = (value << 6) | (c & 0x3fu);
    }
    static const uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    return value >= kSmallest[more] && value <= 0x10ffff && (value < 0xd800 || value > 0xdfff);
  }

  bool number() {
    take('-');
    if (take('0')) {
      if (m_at < m_text.size() && isdigit(static_cast<unsigned char>(m_text[m_at]))) return false;
    } else if (!digits()) {
      return false;
    }
    if (take('.') && !digits()) return false;
    if (take('e') || take('E')) {
      if (!take('+')) take('-');
      if (!digits()) return false;
    }
    return true;
  }

  bool digits() {
    const size_t start = m_at;
    while (m_at < m_text.size() && isdigit(static_cast<unsigned char>(m_text[m_at]))) ++m_at;
    return m_at > start;
  }

  bool word(const std::string& expected) {
    if (m_text.compare(m_at, expected.size(), expected) != 0) return false;
    m_at += expected.size();
    return true;
  }

  bool take(char c) {
    if (m_at == m_text.size() || m_text[m_at] != c) return false;
    ++m_at;
    return true;
  }

  void space() {
    while (m_at < m_text.size() && std::string(" \t\r\n").find(m_text[m_at]) != std::string::npos) {
      ++m_at;
    }
  }

  const std::string& m_text;
  size_t m_at = 0;
};

bool is_one_json_document(const std::string& text) { return JsonChecker(text).one_document(); }

TEST(JsonChecker, TellsDocumentsFromTheRest) {
  EXPECT_TRUE(is_one_json_document("{\"a\":[1,-2.5e3,true,null,\"\xc3\xbc\\u00e9\"]}\n"));
  EXPECT_TRUE(is_one_json_document("[\n{},\n[]\n]\n"));
  EXPECT_FALSE(is_one_json_document("{}\n{}\n"));
  EXPECT_FALSE(is_one_json_document("{\"a\":1,}"));
  EXPECT_FALSE(is_one_json_document("\"\xc3\x83\xc2\"") );  // cut sequence
  EXPECT_FALSE(is_one_json_document("\"\xc0\xaf\""));       // overlong
  EXPECT_FALSE(is_one_json_document("\"\xed\xa0\x80\""));   // surrogate
  EXPECT_FALSE(is_one_json_document("\"a\tb\""));
  EXPECT_FALSE(is_one_json_document("01"));
}

// A capture of several small buckets with every kind of record the dump decodes:
// the time marker, begin, end, marker, and raw records of other sources.
std::string make_capture() {
  TempDir dir;
  ZVKQueue<ZVKBuffer> fill(4, 1024), to_write;
  // The writer's thread and the record helper log to std::cerr; taking file
  // descriptor 2 aside keeps their lines out of the test's output, and touches no
  // stream that another thread may be writing to.
  CaptureStderr();
  {
    ZVKFileWriter writer(&fill, &to_write, JobMetadata{"job-1", "host", "m5.large"}, 1000001);
    EXPECT_TRUE(writer.start(dir.file("source_%t")).ok());
    {
      auto helper = std::make_shared<ZVKBufferRecordHelper>(&fill, &to_write);
      ZVKAnnotator annotator("SharedAnnotator", helper);
      for (int i = 0; i < 12; ++i) {
        const std::string name = "step \"" + std::to_string(i) + "\"\n";
        annotator.annotate_end(annotator.annotate_begin(name));
        annotator.annotate_marker(std::string(i, 'm'));
        auto cpu = helper->new_record(1000 + i, make_event_word(CPU, 3, 7), 1, 2, 2, 8);
        const CallChain chain[2] = {{0x1000, 0x2000}, {0x3000, 0x4000}};
        std::memcpy(cpu.get_callchain_array(), chain, sizeof(chain));
        std::memcpy(cpu.get_payload_store(), "rawbytes", 8);
      }
    }
    EXPECT_TRUE(writer.stop().ok());
  }
  GetCapturedStderr();
  const auto files = dir.list();
  EXPECT_EQ(files.size(), 1u);
  return files.empty() ? std::string() : read_text_file(dir.file(files[0]));
}

// Made once, by the process's only writer; every test reads the same bytes.
const std::string& capture_bytes() {
  static const std::string bytes = make_capture();
  return bytes;
}

size_t header_size_of(const std::string& capture) {
  ZVKFileHeader header;
  std::memcpy(&header, capture.data(), sizeof(header));
  return kZVKFileHeaderSize + get_header_payload_size(&header);
}

// Where each bucket of an undamaged capture starts, and the file's end.
std::vector<size_t> bucket_offsets(const std::string& capture) {
  std::vector<size_t> offsets;
  for (size_t at = header_size_of(capture); at < capture.size();) {
    offsets.push_back(at);
    ZVKFileBucket bucket;
    std::memcpy(&bucket, capture.data() + at, sizeof(bucket));
    at += kZVKBucketHeaderSize + bucket.compressed_size;
  }
  offsets.push_back(capture.size());
  return offsets;
}

// Dumps `bytes` as a file in every mode; checks the answer is a clean one: read
// whole with nothing on err but an unfinished header's note, or one line on err
// naming the file and the status of a file not read or of one damaged or cut;
// every JSON answer one valid document, and the modes agreeing. Returns whether
// the dump read it whole; `status`, the exit status.
bool dump_cleanly(const TempDir& dir, const std::string& bytes, std::string* error = nullptr,
                  int* status = nullptr) {
  const std::string path = dir.file("probe.zvkraw");
  write_bytes(path, bytes);
  bool first = true;
  int first_status = kExitReadWhole;
  for (const DumpOptions& options : kModes) {
    const Dumped result = dump({path}, options);
    if (result.whole && result.err.find(": unfinished capture: ") == std::string::npos) {
      EXPECT_EQ(result.err, "");
    } else {
      EXPECT_EQ(result.err.rfind("zvkdump: " + path + ": ", 0), 0u) << result.err;
      EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
      if (error != nullptr) *error = result.err;
    }
    EXPECT_TRUE(result.status == kExitReadWhole || result.status == kExitNotRead ||
                result.status == kExitDamaged)
        << result.status;
    if (options.format == DumpFormat::kJson) {
      EXPECT_TRUE(is_one_json_document(result.out)) << result.out;
    }
    if (!first) {
      EXPECT_EQ(result.status, first_status) << "modes disagree";
    }
    first = false;
    first_status = result.status;
  }
  if (status != nullptr) *status = first_status;
  return first_status == kExitReadWhole;
}

TEST(ZvkdumpDamage, TheCaptureItselfReadsWhole) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  EXPECT_TRUE(dump_cleanly(dir, capture));
  const std::string path = dir.file("whole.zvkraw");
  write_bytes(path, capture);
  const Dumped text = dump({path}, mode(DumpFormat::kText, false));
  ASSERT_TRUE(text.whole);
  EXPECT_NE(text.out.find("\n3 whole buckets\n"), std::string::npos) << text.out;
}

TEST(ZvkdumpDamage, EveryTruncationGetsAnAnswer) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  size_t read_whole = 0;
  const size_t header_size = header_size_of(capture);
  for (size_t length = 0; length < capture.size(); ++length) {
    SCOPED_TRACE("length " + std::to_string(length));
    int status = 0;
    read_whole += dump_cleanly(dir, capture.substr(0, length), nullptr, &status);
    // Without its whole header a file is no capture; after it, a cut inside a
    // bucket leaves it torn, and one at a bucket's end leaves fewer buckets than
    // the finished header counts.
    EXPECT_EQ(status, length < header_size ? kExitNotRead : kExitDamaged);
  }
  EXPECT_EQ(read_whole, 0u);
}

TEST(ZvkdumpDamage, EveryFlippedByteGetsAnAnswer) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  size_t failures = 0;
  for (size_t at = 0; at < capture.size(); ++at) {
    for (unsigned char pattern : {0xffu, 0x80u, 0x01u}) {
      SCOPED_TRACE("byte " + std::to_string(at) + " ^ " + std::to_string(pattern));
      std::string damaged = capture;
      damaged[at] = static_cast<char>(damaged[at] ^ pattern);
      failures += !dump_cleanly(dir, damaged);
    }
  }
  EXPECT_GT(failures, 0u);
}

// Each bucket the reader finds whole, as its inflated bytes; the problems on the
// way, in order.
std::vector<std::string> whole_buckets(const std::string& path,
                                       std::vector<std::string>* problems) {
  std::vector<std::string> buckets;
  ZVKFileReader file;
  EXPECT_TRUE(file.open(path).ok());
  std::unique_ptr<ZVKBucketReader> bucket;
  for (Status next; (next = file.next_bucket(&bucket)).code_ != error::END_OF_DATA;) {
    if (!next.ok()) {
      problems->push_back(next.msg_);
      continue;
    }
    std::string records;
    ZVKRecordReader record;
    while (bucket->get_next_record(record).ok()) records.append(record.bytes(), record.size());
    buckets.push_back(records);
  }
  return buckets;
}

TEST(ZvkdumpDamage, BucketsAfterADamagedOneAreReadWhole) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  const std::vector<size_t> offsets = bucket_offsets(capture);
  ASSERT_EQ(offsets.size(), 4u);  // three buckets and the end
  const std::string path = dir.file("damaged.zvkraw");
  write_bytes(path, capture);
  std::vector<std::string> problems;
  const std::vector<std::string> intact = whole_buckets(path, &problems);
  ASSERT_EQ(intact.size(), 3u);

  const size_t middle = offsets[1];
  const size_t middle_size = offsets[2] - middle;
  std::string zeroed_stream = capture;
  std::fill(zeroed_stream.begin() + middle + 40, zeroed_stream.begin() + offsets[2], '\0');
  std::string long_claim = capture;
  long_claim[middle + 27] = '\x7f';  // compressed_size: past the end of the file
  std::string scrambled = capture;
  for (size_t i = middle; i < offsets[2]; ++i) scrambled[i] = static_cast<char>(i * 131 + 7);
  for (const std::string* damaged : {&zeroed_stream, &long_claim, &scrambled}) {
    SCOPED_TRACE(damaged == &zeroed_stream ? "zeroed stream"
                 : damaged == &long_claim  ? "long claim"
                                           : "scrambled");
    write_bytes(path, *damaged);
    problems.clear();
    EXPECT_EQ(whole_buckets(path, &problems), (std::vector<std::string>{intact[0], intact[2]}));
    ASSERT_EQ(problems.size(), 1u);
    const std::string skipped = "bucket 1 at offset " + std::to_string(middle) + " is damaged (";
    EXPECT_EQ(problems[0].rfind(skipped, 0), 0u) << problems[0];
    EXPECT_NE(problems[0].find("): skipped " + std::to_string(middle_size) +
                               " bytes to the next whole bucket at offset " +
                               std::to_string(offsets[2])),
              std::string::npos)
        << problems[0];

    for (const DumpOptions& options : kModes) {
      const Dumped result = dump({path}, options);
      EXPECT_FALSE(result.whole);
      EXPECT_EQ(result.err, "zvkdump: " + path + ": " + problems[0] + "\n");
    }
    const Dumped text = dump({path}, mode(DumpFormat::kText, false));
    EXPECT_EQ(text.status, kExitDamaged);
    EXPECT_NE(text.out.find("\n2 whole buckets\n"), std::string::npos) << text.out;
    EXPECT_EQ(text.out.find(problems[0]), std::string::npos) << "notes go to err only";
  }
}

TEST(ZvkdumpDamage, DamageBeforeATornEndIsStillDamage) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  const std::vector<size_t> offsets = bucket_offsets(capture);
  ASSERT_EQ(offsets.size(), 4u);
  std::string damaged = capture.substr(0, offsets[3] - 5);
  damaged[offsets[0] + 40] = static_cast<char>(damaged[offsets[0] + 40] ^ 0x55);
  const std::string path = dir.file("damaged.zvkraw");
  write_bytes(path, damaged);
  std::vector<std::string> problems;
  EXPECT_EQ(whole_buckets(path, &problems).size(), 1u);
  ASSERT_EQ(problems.size(), 2u);
  EXPECT_NE(problems[0].find("bucket 0 at offset " + std::to_string(offsets[0]) + " is damaged"),
            std::string::npos)
      << problems[0];
  EXPECT_NE(problems[1].find("bucket 1 at offset " + std::to_string(offsets[2]) + " is torn"),
            std::string::npos)
      << problems[1];
  const Dumped text = dump({path}, mode(DumpFormat::kText, false));
  EXPECT_EQ(text.status, kExitDamaged);
  const std::string said = "zvkdump: " + path + ": ";
  EXPECT_EQ(lines_of(text.err),
            (std::vector<std::string>{said + problems[0], said + problems[1]}));
}

// A finished capture whose one bucket is a sound zlib stream of `records`.
std::string capture_with_bucket(const std::string& capture, const std::string& records,
                                uint64_t number_of_records) {
  std::string stream(compressBound(records.size()), '\0');
  uLongf length = stream.size();
  EXPECT_EQ(compress2(reinterpret_cast<Bytef*>(&stream[0]), &length,
                      reinterpret_cast<const Bytef*>(records.data()), records.size(), 1),
            Z_OK);
  stream.resize(length);
  ZVKFileBucket bucket = {};
  bucket.number_of_records_in_bucket = number_of_records;
  bucket.compressed_size = static_cast<uint32_t>(length);
  bucket.uncompressed_size = static_cast<uint32_t>(records.size());
  std::string header = capture.substr(0, header_size_of(capture));
  const uint32_t one = 1;  // the header counts the one bucket
  header.replace(offsetof(ZVKFileHeader, num_buckets), sizeof(one),
                 reinterpret_cast<const char*>(&one), sizeof(one));
  return header + std::string(reinterpret_cast<const char*>(&bucket), sizeof(bucket)) + stream;
}

std::string record_bytes(uint32_t event_word, uint16_t call_chain_size, uint16_t payload_size,
                         const std::string& body, uint64_t timestamp = 42) {
  ZVKRecord record = {};
  record.timestamp = timestamp;
  record.event_type = event_word;
  record.call_chain_size = call_chain_size;
  record.payload_size = payload_size;
  return std::string(reinterpret_cast<const char*>(&record), sizeof(record)) + body;
}

// A BEGIN or MARKER as the annotator writes it: token, text, terminator, padding.
std::string annotation(uint32_t type, uint64_t token, const std::string& text, uint64_t timestamp) {
  std::string payload(reinterpret_cast<const char*>(&token), sizeof(token));
  if (type != annotations::END) payload += text + std::string(8 - text.size() % 8, '\0');
  return record_bytes(make_event_word(ANNOTATION, 0, type), 0,
                      static_cast<uint16_t>(payload.size()), payload, timestamp);
}

TEST(ZvkdumpDamage, RecordsThatDontFitTheirBucketAreReported) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  const uint32_t begin = make_event_word(ANNOTATION, 0, annotations::BEGIN);
  std::string error;

  // A record header cut short can't hold a record: the bucket's sizes are
  // implausible before anything is inflated.
  const std::string cut_header = record_bytes(begin, 0, 0, "").substr(0, 10);
  EXPECT_FALSE(dump_cleanly(dir, capture_with_bucket(capture, cut_header, 1), &error));
  EXPECT_NE(error.find("it claims more records than its size can hold"), std::string::npos)
      << error;

  const std::string cut_second =
      record_bytes(begin, 0, 0, "") + record_bytes(begin, 0, 0, "").substr(0, 10);
  EXPECT_FALSE(dump_cleanly(dir, capture_with_bucket(capture, cut_second, 1), &error));
  EXPECT_NE(error.find("truncated record header at offset 24"), std::string::npos) << error;

  const std::string overrun = record_bytes(begin, 0, 64, std::string(16, 'x'));
  EXPECT_FALSE(dump_cleanly(dir, capture_with_bucket(capture, overrun, 1), &error));
  EXPECT_NE(error.find("record at offset 0 runs past the end of the bucket"), std::string::npos)
      << error;

  const std::string chains = record_bytes(make_event_word(CPU, 0, 0), 0xffff, 0, "");
  EXPECT_FALSE(dump_cleanly(dir, capture_with_bucket(capture, chains, 1), &error));
  EXPECT_NE(error.find("runs past the end of the bucket"), std::string::npos) << error;

  const std::string miscounted = record_bytes(begin, 0, 0, "") + record_bytes(begin, 0, 0, "");
  EXPECT_FALSE(dump_cleanly(dir, capture_with_bucket(capture, miscounted, 1), &error));
  EXPECT_NE(error.find("it holds 2 records but its header says 1"), std::string::npos) << error;
  EXPECT_NE(error.find("bytes to the end of the file"), std::string::npos) << error;
}

TEST(ZvkdumpDamage, OddPayloadsInsideTheirRecordsAreShownAsTheyAre) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  const std::string odd =
      // A BEGIN too short for its token, one whose text has no terminator, a time
      // marker cut short, and an event of a source this build doesn't know.
      record_bytes(make_event_word(ANNOTATION, 0, annotations::BEGIN), 0, 4, "abcd") +
      record_bytes(make_event_word(ANNOTATION, 0, annotations::BEGIN), 0, 16,
                   std::string(8, '\0') + "unending") +
      record_bytes(make_event_word(ANNOTATION, 0, annotations::TIME_MARKER), 0, 8,
                   std::string(8, '\1')) +
      record_bytes(make_event_word(ANNOTATION, 0, 77), 0, 0, "") +
      record_bytes(0xf0000000u, 0, 0, "");
  const std::string path = dir.file("odd.zvkraw");
  write_bytes(path, capture_with_bucket(capture, odd, 5));
  const Dumped result = dump({path}, mode(DumpFormat::kText, false));
  ASSERT_TRUE(result.whole) << result.err;
  const std::string& text = result.out;
  EXPECT_NE(text.find("BEGIN cpu=0 pid=0 tid=0 payload=61626364"), std::string::npos) << text;
  EXPECT_NE(text.find("msg=\"unending\""), std::string::npos) << text;
  EXPECT_NE(text.find("TIME_MARKER cpu=0 pid=0 tid=0 payload=0101010101010101"), std::string::npos)
      << text;
  EXPECT_NE(text.find("UNKNOWN cpu=0"), std::string::npos) << text;
  EXPECT_NE(text.find("42 UNKNOWN device=0 event=0"), std::string::npos) << text;
  EXPECT_TRUE(dump_cleanly(dir, capture_with_bucket(capture, odd, 5)));
}

template <typename T>
std::string bytes_of(const T& value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

std::string hex_of(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const char byte : bytes) {
    hex += kDigits[static_cast<unsigned char>(byte) >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

// An MMAP payload as the sampler writes it: the fixed fields, the name and its
// terminator, zeros up to the rounded size.
std::string mmap_payload(uint64_t addr, uint64_t len, uint64_t pgoff, const std::string& name) {
  perfevent::ZVKPerfMMap fixed = {};
  fixed.id = 77;
  fixed.stream_id = 77;
  fixed.addr = addr;
  fixed.len = len;
  fixed.pgoff = pgoff;
  fixed.strsize = name.size();
  std::string payload = bytes_of(fixed) + name;
  payload.resize(perfevent::mmap_payload_size(name.size()), '\0');
  return payload;
}

// One CPU record through the record helper; `chain` is every slot, two per entry.
void write_cpu_record(ZVKBufferRecordHelper& helper, uint64_t timestamp, uint32_t type,
                      uint32_t cpu, uint32_t pid, uint32_t tid, const std::vector<uint64_t>& chain,
                      const std::string& payload) {
  auto record = helper.new_record(timestamp, make_event_word(CPU, cpu, type), pid, tid,
                                  static_cast<uint16_t>(chain.size() / 2),
                                  static_cast<uint16_t>(payload.size()));
  // An empty vector's data() may be null, which memcpy may not be given even for
  // no bytes.
  if (!chain.empty()) {
    std::memcpy(record.get_callchain_array(), chain.data(), chain.size() * sizeof(uint64_t));
  }
  std::memcpy(record.get_payload_store(), payload.data(), payload.size());
}

// Two event configurations and one record of every other CPU kind, written by the
// real record helper and file writer. The first sample's chain has three
// addresses, so its fourth slot is left over; here it holds 0xdeadbeef.
std::string make_cpu_capture() {
  using namespace perfevent;
  TempDir dir;
  ZVKQueue<ZVKBuffer> fill(4, 4096), to_write;
  CaptureStderr();  // as in make_capture: the writer's log lines stay out of the output
  {
    ZVKFileWriter writer(&fill, &to_write, JobMetadata{"job-1", "host", "m5.large"}, 1000001);
    EXPECT_TRUE(writer.start(dir.file("cpu_%t")).ok());
    {
      ZVKBufferRecordHelper helper(&fill, &to_write);
      write_cpu_record(helper, 100, CONFIGURATION, 2, 10, 10, {},
                       bytes_of(ZVKPerfConfigData{0, 0, 0, 0, 2, 100000, 77}));
      write_cpu_record(helper, 101, CONFIGURATION, 2, 10, 10, {},
                       bytes_of(ZVKPerfConfigData{0x20d1, 1, 2, 4, 0, 5000, 78}));
      write_cpu_record(helper, 200, SAMPLE, 3, 10, 11,
                       {PERF_CONTEXT_USER, 0x401000, 0x401234, 0xdeadbeef},
                       bytes_of(ZVKPerfSample{0x401000, 77, 77}));
      write_cpu_record(helper, 201, SAMPLE, 1, 10, 12, {PERF_CONTEXT_KERNEL, 0xffffffff81000010},
                       bytes_of(ZVKPerfSample{0xffffffff81000010, 78, 77}));
      write_cpu_record(helper, 202, SAMPLE, 3, 10, 11, {},
                       bytes_of(ZVKPerfSample{0x401100, 77, 77}));
      write_cpu_record(helper, 300, MMAP, 3, 10, 10, {},
                       mmap_payload(0x7f0000001000, 0x2000, 0x1000, "/usr/lib/libm.so.6"));
      write_cpu_record(helper, 400, LOST, 3, 10, 11, {}, bytes_of(ZVKPerfLost{77, 77, 5}));
      write_cpu_record(helper, 500, THROTTLE, 3, 10, 11, {}, bytes_of(ZVKPerfThrottle{77, 77}));
      write_cpu_record(helper, 600, UNTHROTTLE, 3, 10, 11, {}, bytes_of(ZVKPerfThrottle{77, 77}));
      write_cpu_record(helper, 700, FORK, 3, 13, 13, {}, bytes_of(ZVKPerfExitFork{77, 77, 10, 11}));
      write_cpu_record(helper, 800, EXIT, 3, 13, 13, {}, bytes_of(ZVKPerfExitFork{77, 77, 10, 11}));
    }
    EXPECT_TRUE(writer.stop().ok());
  }
  GetCapturedStderr();
  const auto files = dir.list();
  EXPECT_EQ(files.size(), 1u);
  return files.empty() ? std::string() : read_text_file(dir.file(files[0]));
}

// The lines of a text dump that are records.
std::vector<std::string> record_lines(const std::string& text) {
  std::vector<std::string> records;
  for (const std::string& line : lines_of(text)) {
    if (line.rfind("    ", 0) == 0) records.push_back(line);
  }
  return records;
}

// The summary's lines from the line `first` to the end.
std::vector<std::string> summary_section(const std::string& text, const std::string& first) {
  const std::vector<std::string> lines = lines_of(text);
  return std::vector<std::string>(std::find(lines.begin(), lines.end(), first), lines.end());
}

// One whole capture in a folder of the test's own, and its dump with the checks
// every dump of a whole capture passes: no damage, nothing on stderr, and JSON
// that is one document.
class ZvkdumpCapture : public testing::Test {
 protected:
  void write_capture(const std::string& name, const std::string& bytes) {
    m_path = m_dir.file(name);
    write_bytes(m_path, bytes);
  }

  Dumped dump_capture(DumpFormat format, bool summary) const {
    const Dumped result = dump({m_path}, mode(format, summary));
    EXPECT_TRUE(result.whole) << result.err;
    EXPECT_EQ(result.err, "");
    if (format == DumpFormat::kJson) {
      EXPECT_TRUE(is_one_json_document(result.out)) << result.out;
    }
    return result;
  }

  TempDir m_dir;
  std::string m_path;
};

class ZvkdumpCpu : public ZvkdumpCapture {
 protected:
  void SetUp() override {
    static const std::string capture = make_cpu_capture();
    write_capture("cpu.zvkraw", capture);
  }
};

TEST_F(ZvkdumpCpu, EveryKindIsDecodedInText) {
  const Dumped result = dump_capture(DumpFormat::kText, false);
  const std::vector<std::string> expected = {
      "    100 CPU CONFIGURATION cpu=2 pid=10 tid=10 type=PERF_TYPE_HARDWARE(0) "
      "config=PERF_COUNT_HW_CPU_CYCLES(0x0) config1=0x0 config2=0x0 precise=2 period=100000 "
      "format_id=77",
      "    101 CPU CONFIGURATION cpu=2 pid=10 tid=10 type=PERF_TYPE_RAW(4) config=20d1(0x20d1) "
      "config1=0x1 config2=0x2 precise=0 period=5000 format_id=78",
      "    200 CPU SAMPLE cpu=3 pid=10 tid=11 ip=0x401000 id=77 stream_id=77 "
      "call_chain=[user 0x401000 0x401234 0xdeadbeef]",
      "    201 CPU SAMPLE cpu=1 pid=10 tid=12 ip=0xffffffff81000010 id=78 stream_id=77 "
      "call_chain=[kernel 0xffffffff81000010]",
      "    202 CPU SAMPLE cpu=3 pid=10 tid=11 ip=0x401100 id=77 stream_id=77 call_chain=[]",
      "    300 CPU MMAP cpu=3 pid=10 tid=10 id=77 stream_id=77 addr=0x7f0000001000 len=0x2000 "
      "pgoff=0x1000 file=\"/usr/lib/libm.so.6\"",
      "    400 CPU LOST cpu=3 pid=10 tid=11 id=77 stream_id=77 lost=5",
      "    500 CPU THROTTLE cpu=3 pid=10 tid=11 id=77 stream_id=77",
      "    600 CPU UNTHROTTLE cpu=3 pid=10 tid=11 id=77 stream_id=77",
      "    700 CPU FORK cpu=3 pid=13 tid=13 id=77 stream_id=77 ppid=10 ptid=11",
      "    800 CPU EXIT cpu=3 pid=13 tid=13 id=77 stream_id=77 ppid=10 ptid=11",
  };
  EXPECT_EQ(record_lines(result.out), expected) << result.out;
  EXPECT_NE(result.out.find("\n1 whole buckets\n"), std::string::npos) << result.out;
}

TEST_F(ZvkdumpCpu, EveryKindIsDecodedInJson) {
  const Dumped result = dump_capture(DumpFormat::kJson, false);
  for (const char* record : {
           "{\"timestamp\":100,\"hw_type\":0,\"device_id\":2,\"event_type\":0,\"pid\":10,"
           "\"tid\":10,\"call_chain_size\":0,\"payload_size\":48,\"event\":\"CONFIGURATION\","
           "\"type\":0,\"type_name\":\"PERF_TYPE_HARDWARE\",\"config\":\"0x0\","
           "\"config_name\":\"PERF_COUNT_HW_CPU_CYCLES\",\"config1\":\"0x0\",\"config2\":\"0x0\","
           "\"precise\":2,\"period\":100000,\"format_id\":77,\"payload_hex\":\"",
           "\"event\":\"CONFIGURATION\",\"type\":4,\"type_name\":\"PERF_TYPE_RAW\","
           "\"config\":\"0x20d1\",\"config_name\":\"20d1\",",
           "{\"timestamp\":200,\"hw_type\":0,\"device_id\":3,\"event_type\":1,\"pid\":10,"
           "\"tid\":11,\"call_chain_size\":2,\"payload_size\":24,\"event\":\"SAMPLE\","
           "\"ip\":\"0x401000\",\"id\":77,\"stream_id\":77,"
           "\"call_chain\":[\"user\",\"0x401000\",\"0x401234\",\"0xdeadbeef\"],"
           "\"payload_hex\":\"0010400000000000",
           "\"event\":\"SAMPLE\",\"ip\":\"0x401100\",\"id\":77,\"stream_id\":77,"
           "\"call_chain\":[],",
           "\"payload_size\":72,\"event\":\"MMAP\",\"id\":77,\"stream_id\":77,"
           "\"addr\":\"0x7f0000001000\",\"len\":\"0x2000\",\"pgoff\":\"0x1000\","
           "\"file\":\"/usr/lib/libm.so.6\",\"payload_hex\":\"",
           "\"event\":\"LOST\",\"id\":77,\"stream_id\":77,\"lost\":5,\"payload_hex\":\"",
           "\"event\":\"THROTTLE\",\"id\":77,\"stream_id\":77,\"payload_hex\":\"",
           "\"event\":\"UNTHROTTLE\",\"id\":77,\"stream_id\":77,\"payload_hex\":\"",
           "\"pid\":13,\"tid\":13,\"call_chain_size\":0,\"payload_size\":24,\"event\":\"FORK\","
           "\"id\":77,\"stream_id\":77,\"ppid\":10,\"ptid\":11,\"payload_hex\":\"",
           "\"event\":\"EXIT\",\"id\":77,\"stream_id\":77,\"ppid\":10,\"ptid\":11,"}) {
    EXPECT_NE(result.out.find(record), std::string::npos) << record << "\n" << result.out;
  }
}

TEST_F(ZvkdumpCpu, TheSummaryHasACpuSection) {
  const Dumped result = dump_capture(DumpFormat::kText, true);
  const std::vector<std::string> expected = {
      "CPU records by event:",
      "  CONFIGURATION                       2",
      "  SAMPLE                              3",
      "  THROTTLE                            1",
      "  UNTHROTTLE                          1",
      "  LOST                                1",
      "  MMAP                                1",
      "  FORK                                1",
      "  EXIT                                1",
      "CPU samples by thread:",
      "         pid        tid      samples",
      "          10         11            2",
      "          10         12            1",
      "CPU lost: 5 in 1 LOST records",
      "CPU throttles: 1, unthrottles: 1",
      "CPU mappings: 1",
      "  0x7f0000001000-0x7f0000003000 pgoff=0x1000 \"/usr/lib/libm.so.6\"",
      "CPU configurations: 2",
      "  type=PERF_TYPE_HARDWARE(0) config=PERF_COUNT_HW_CPU_CYCLES(0x0) config1=0x0 "
      "config2=0x0 precise=2 period=100000 format_id=77 samples=2",
      "  type=PERF_TYPE_RAW(4) config=20d1(0x20d1) config1=0x1 config2=0x2 precise=0 "
      "period=5000 format_id=78 samples=1",
  };
  EXPECT_EQ(summary_section(result.out, "CPU records by event:"), expected) << result.out;
  // The sections before it stay as they were.
  EXPECT_NE(result.out.find("Records by kind:\n  CPU                                11\n"
                            "Annotation ranges:\n"),
            std::string::npos)
      << result.out;
}

TEST_F(ZvkdumpCpu, TheJsonSummaryHasACpuMember) {
  const Dumped result = dump_capture(DumpFormat::kJson, true);
  const std::string expected =
      "\"records_by_kind\":{\"CPU\":11},\"cpu\":{\"record_count\":11,\"undecoded\":0,"
      "\"events\":{\"CONFIGURATION\":2,\"SAMPLE\":3,\"THROTTLE\":1,\"UNTHROTTLE\":1,\"LOST\":1,"
      "\"MMAP\":1,\"FORK\":1,\"EXIT\":1},"
      "\"samples_by_thread\":[{\"pid\":10,\"tid\":11,\"samples\":2},"
      "{\"pid\":10,\"tid\":12,\"samples\":1}],"
      "\"lost\":5,\"lost_records\":1,\"throttles\":1,\"unthrottles\":1,\"mapping_count\":1,"
      "\"mappings\":[{\"addr\":\"0x7f0000001000\",\"len\":\"0x2000\",\"pgoff\":\"0x1000\","
      "\"file\":\"/usr/lib/libm.so.6\"}],"
      "\"configurations\":[{\"type\":0,\"type_name\":\"PERF_TYPE_HARDWARE\",\"config\":\"0x0\","
      "\"config_name\":\"PERF_COUNT_HW_CPU_CYCLES\",\"config1\":\"0x0\",\"config2\":\"0x0\","
      "\"precise\":2,\"period\":100000,\"format_id\":77,\"samples\":2},"
      "{\"type\":4,\"type_name\":\"PERF_TYPE_RAW\",\"config\":\"0x20d1\",\"config_name\":\"20d1\","
      "\"config1\":\"0x1\",\"config2\":\"0x2\",\"precise\":0,\"period\":5000,\"format_id\":78,"
      "\"samples\":1}],"
      // A capture without the stack sampler has its member all the same, empty.
      "\"stacks\":{\"samples\":0,\"cpu\":0,\"wall\":0,\"waiting\":0,\"weight_ns\":0,"
      "\"native_frames\":0,\"python_frames\":0,\"native_cut\":0,\"python_cut\":0,"
      "\"samples_by_thread\":[],\"python_codes\":0,\"api_python_stacks\":0}},"
      // A capture without GPU records has the member all the same, empty.
      "\"gpu\":{\"record_count\":0,\"undecoded\":0,\"types\":{},\"kernels\":[],"
      "\"copies\":[],\"memsets\":{\"count\":0,\"bytes\":0,\"total_ns\":0},\"syncs\":[],"
      "\"driver\":{\"count\":0,\"total_ns\":0},\"runtime\":{\"count\":0,\"total_ns\":0},"
      "\"calls\":[],\"kernel_names\":0,\"function_names\":0},\"ranges\":[],";
  EXPECT_NE(result.out.find(expected), std::string::npos) << result.out;
}

TEST(ZvkdumpCpuOdd, PayloadsThatDontFitTheirFormatAreShownAsBytes) {
  using namespace perfevent;
  TempDir dir;
  const std::string& capture = capture_bytes();
  const auto cpu = [](uint32_t type) { return make_event_word(CPU, 0, type); };
  std::string unterminated = mmap_payload(0x1000, 0x1000, 0, "abcdefg");  // 56 bytes
  unterminated.back() = 'h';  // the name's terminator, and the payload has no other
  perfevent::ZVKPerfMMap lying = {};
  lying.strsize = 1000000;  // far past the payload; the name ends well before
  const std::string lying_name = bytes_of(lying) + "ok.so" + std::string(3, '\0');
  const std::string odd_name = mmap_payload(0x2000, 0x10, 0, "bad \xff\nname");
  const std::vector<std::string> records = {
      record_bytes(cpu(SAMPLE), 1, 8, std::string(16, '\1') + "short!!!"),
      record_bytes(cpu(MMAP), 0, 56, unterminated),
      record_bytes(cpu(MMAP), 0, 47, unterminated.substr(0, 47)),
      record_bytes(cpu(MMAP), 0, 56, lying_name),
      record_bytes(cpu(MMAP), 0, static_cast<uint16_t>(odd_name.size()), odd_name),
      record_bytes(cpu(CONFIGURATION), 0, 47, std::string(47, '\0')),
      record_bytes(cpu(LOST), 0, 16, std::string(16, '\2')),
      record_bytes(cpu(THROTTLE), 0, 8, std::string(8, '\3')),
      record_bytes(cpu(FORK), 0, 0, ""),
      record_bytes(cpu(READ), 0, 16, std::string(16, '\4')),
      record_bytes(cpu(PERF_EVENT_MAX), 0, 0, ""),
      record_bytes(cpu(0xfffff), 0, 0, ""),
      // Longer than its format: the format's bytes are read, the rest only shown.
      record_bytes(cpu(SAMPLE), 0, 32, bytes_of(ZVKPerfSample{0x10, 1, 1}) + "trailing"),
  };
  std::string bytes;
  for (const std::string& record : records) bytes += record;
  const std::string probe = capture_with_bucket(capture, bytes, records.size());
  EXPECT_TRUE(dump_cleanly(dir, probe));

  const std::string path = dir.file("odd_cpu.zvkraw");
  write_bytes(path, probe);
  const Dumped text = dump({path}, mode(DumpFormat::kText, false));
  ASSERT_TRUE(text.whole) << text.err;
  const std::vector<std::string> expected = {
      "    42 CPU device=0 event=1 pid=0 tid=0 callchain=1 payload=8 73686f7274212121",
      "    42 CPU device=0 event=6 pid=0 tid=0 callchain=0 payload=56 " + hex_of(unterminated),
      "    42 CPU device=0 event=6 pid=0 tid=0 callchain=0 payload=47 " +
          hex_of(unterminated.substr(0, 47)),
      "    42 CPU MMAP cpu=0 pid=0 tid=0 id=0 stream_id=0 addr=0x0 len=0x0 pgoff=0x0 "
      "file=\"ok.so\"",
      "    42 CPU MMAP cpu=0 pid=0 tid=0 id=77 stream_id=77 addr=0x2000 len=0x10 pgoff=0x0 "
      "file=\"bad \\ufffd\\u000aname\"",
      "    42 CPU device=0 event=0 pid=0 tid=0 callchain=0 payload=47 " + std::string(94, '0'),
      "    42 CPU device=0 event=4 pid=0 tid=0 callchain=0 payload=16 " +
          hex_of(std::string(16, '\2')),
      "    42 CPU device=0 event=2 pid=0 tid=0 callchain=0 payload=8 " +
          hex_of(std::string(8, '\3')),
      "    42 CPU device=0 event=7 pid=0 tid=0 callchain=0 payload=0 ",
      "    42 CPU device=0 event=5 pid=0 tid=0 callchain=0 payload=16 " +
          hex_of(std::string(16, '\4')),
      "    42 CPU device=0 event=9 pid=0 tid=0 callchain=0 payload=0 ",
      "    42 CPU device=0 event=1048575 pid=0 tid=0 callchain=0 payload=0 ",
      "    42 CPU SAMPLE cpu=0 pid=0 tid=0 ip=0x10 id=1 stream_id=1 call_chain=[]",
  };
  EXPECT_EQ(record_lines(text.out), expected) << text.out;

  const Dumped summary = dump({path}, mode(DumpFormat::kText, true));
  ASSERT_TRUE(summary.whole) << summary.err;
  EXPECT_NE(summary.out.find("  (10 not decoded: payload too short or event unknown)\n"),
            std::string::npos)
      << summary.out;
  EXPECT_NE(summary.out.find("  event 9                             1\n"
                             "  event 1048575                       1\n"),
            std::string::npos)
      << summary.out;
  EXPECT_NE(summary.out.find("CPU mappings: 2\n"), std::string::npos) << summary.out;
}

// ---- The stack sampler's records ----------------------------------------------

perfevent::ZVKPythonFrame python_frame_of(uint32_t code_id, uint32_t offset, bool entry) {
  return {code_id, offset | (entry ? perfevent::kPythonFrameEntry : 0u)};
}

// A STACK_SAMPLE payload: the header, the addresses, the Python frames.
std::string stack_payload(uint64_t weight_ns, uint8_t clock, uint8_t flags,
                          const std::vector<uint64_t>& native,
                          const std::vector<perfevent::ZVKPythonFrame>& python) {
  perfevent::ZVKStackSample header = {};
  header.weight_ns = weight_ns;
  header.native_count = static_cast<uint16_t>(native.size());
  header.python_count = static_cast<uint16_t>(python.size());
  header.clock = clock;
  header.flags = flags;
  std::string payload = bytes_of(header);
  for (uint64_t address : native) payload += bytes_of(address);
  for (const perfevent::ZVKPythonFrame& frame : python) payload += bytes_of(frame);
  EXPECT_EQ(payload.size(), perfevent::stack_sample_payload_size(native.size(), python.size()));
  return payload;
}

// A PYTHON_CODE payload: the header, the names and the table, zeros up to the
// rounded size.
std::string code_payload(uint32_t code_id, int32_t first_line, uint32_t version,
                         const std::string& qualname, const std::string& filename,
                         const std::string& linetable, uint32_t flags) {
  const perfevent::ZVKPythonCode header = {code_id,
                                           first_line,
                                           version,
                                           static_cast<uint16_t>(qualname.size()),
                                           static_cast<uint16_t>(filename.size()),
                                           static_cast<uint32_t>(linetable.size()),
                                           flags};
  std::string payload = bytes_of(header) + qualname + filename + linetable;
  payload.resize(
      perfevent::python_code_payload_size(qualname.size(), filename.size(), linetable.size()),
      '\0');
  return payload;
}

std::string api_stack_payload(uint64_t correlation,
                              const std::vector<perfevent::ZVKPythonFrame>& python) {
  perfevent::ZVKApiPythonStack header = {};
  header.correlation_id = correlation;
  header.python_count = static_cast<uint16_t>(python.size());
  std::string payload = bytes_of(header);
  for (const perfevent::ZVKPythonFrame& frame : python) payload += bytes_of(frame);
  return payload;
}

// Two code objects, three stack samples of two threads (a CPU one with native
// and Python frames, a waiting wall clock one without a native walk, a cut one
// with a flag this build has no name for) and an API call's stack, written by
// the real record helper and file writer.
std::string make_stack_capture() {
  using namespace perfevent;
  TempDir dir;
  ZVKQueue<ZVKBuffer> fill(4, 4096), to_write;
  CaptureStderr();
  {
    ZVKFileWriter writer(&fill, &to_write, JobMetadata{"job-1", "host", "m5.large"}, 1000001);
    EXPECT_TRUE(writer.start(dir.file("stack_%t")).ok());
    {
      ZVKBufferRecordHelper helper(&fill, &to_write);
      write_cpu_record(helper, 100, PYTHON_CODE, 0, 10, 11, {},
                       code_payload(1, 12, 0x030b07f0, "Klass.method", "/src/app.py",
                                    std::string("\xea\x02", 2), 0));
      write_cpu_record(helper, 101, PYTHON_CODE, 0, 10, 11, {},
                       code_payload(2, -1, 0x030d00c1, "<module>", "/src/\xc3\xa9t\xc3\xa9.py",
                                    "\x01\x02\x03\x04\x05", PYTHON_CODE_LINETABLE_CUT));
      write_cpu_record(helper, 200, STACK_SAMPLE, 3, 10, 11, {},
                       stack_payload(1000000, SAMPLE_CLOCK_CPU, 0, {0x401000, 0x7f0000001234},
                                     {python_frame_of(1, 26, false), python_frame_of(2, 4, true)}));
      write_cpu_record(helper, 201, STACK_SAMPLE, 3, 10, 12, {},
                       stack_payload(10000000, SAMPLE_CLOCK_WALL, STACK_WAITING | STACK_NO_NATIVE,
                                     {}, {python_frame_of(2, 0, true)}));
      write_cpu_record(helper, 202, STACK_SAMPLE, 3, 10, 11, {},
                       stack_payload(1000000, SAMPLE_CLOCK_CPU,
                                     STACK_NATIVE_CUT | STACK_PYTHON_CUT | 0x40, {0x401000}, {}));
      write_cpu_record(helper, 300, API_PYTHON_STACK, 3, 10, 11, {},
                       api_stack_payload(77, {python_frame_of(1, 8, false),
                                              python_frame_of(2, 0x7ffffffe, true)}));
    }
    EXPECT_TRUE(writer.stop().ok());
  }
  GetCapturedStderr();
  const auto files = dir.list();
  EXPECT_EQ(files.size(), 1u);
  return files.empty() ? std::string() : read_text_file(dir.file(files[0]));
}

class ZvkdumpStacks : public ZvkdumpCapture {
 protected:
  void SetUp() override {
    static const std::string capture = make_stack_capture();
    write_capture("stacks.zvkraw", capture);
  }
};

TEST_F(ZvkdumpStacks, EveryKindIsDecodedInText) {
  const Dumped result = dump_capture(DumpFormat::kText, false);
  const std::vector<std::string> expected = {
      "    100 CPU PYCODE cpu=0 pid=10 tid=11 code_id=1 first_line=12 "
      "py_version=3.11.7(0x30b07f0) qualname=\"Klass.method\" filename=\"/src/app.py\" "
      "flags=none(0x0) linetable_size=2 linetable=ea02",
      "    101 CPU PYCODE cpu=0 pid=10 tid=11 code_id=2 first_line=-1 "
      "py_version=3.13.0rc1(0x30d00c1) qualname=\"<module>\" filename=\"/src/\xc3\xa9t\xc3\xa9.py\" "
      "flags=LINETABLE_CUT(0x1) linetable_size=5 linetable=0102030405",
      "    200 CPU STACK cpu=3 pid=10 tid=11 weight_ns=1000000 clock=cpu flags=none(0x0) "
      "native=[0x401000 0x7f0000001234] python=[1@26 2@4(entry)]",
      "    201 CPU STACK cpu=3 pid=10 tid=12 weight_ns=10000000 clock=wall "
      "flags=WAITING|NO_NATIVE(0x9) native=[] python=[2@0(entry)]",
      "    202 CPU STACK cpu=3 pid=10 tid=11 weight_ns=1000000 clock=cpu "
      "flags=NATIVE_CUT|PYTHON_CUT|0x40(0x46) native=[0x401000] python=[]",
      "    300 CPU APISTACK cpu=3 pid=10 tid=11 correlation=77 python=[1@8 2@2147483646(entry)]",
  };
  EXPECT_EQ(record_lines(result.out), expected) << result.out;
}

TEST_F(ZvkdumpStacks, EveryKindIsDecodedInJson) {
  const Dumped result = dump_capture(DumpFormat::kJson, false);
  for (const char* record : {
           "{\"timestamp\":100,\"hw_type\":0,\"device_id\":0,\"event_type\":17,\"pid\":10,"
           "\"tid\":11,\"call_chain_size\":0,\"payload_size\":56,\"event\":\"PYCODE\","
           "\"code_id\":1,\"first_line\":12,\"py_version\":51054576,"
           "\"py_version_name\":\"3.11.7\",\"qualname\":\"Klass.method\","
           "\"filename\":\"/src/app.py\",\"flags\":\"0x0\",\"flags_name\":\"none\","
           "\"linetable_size\":2,\"linetable\":\"ea02\",\"payload_hex\":\"01000000",
           "\"event\":\"PYCODE\",\"code_id\":2,\"first_line\":-1,\"py_version\":51183809,"
           "\"py_version_name\":\"3.13.0rc1\",\"qualname\":\"<module>\","
           "\"filename\":\"/src/\xc3\xa9t\xc3\xa9.py\",\"flags\":\"0x1\","
           "\"flags_name\":\"LINETABLE_CUT\",\"linetable_size\":5,\"linetable\":\"0102030405\",",
           "{\"timestamp\":200,\"hw_type\":0,\"device_id\":3,\"event_type\":16,\"pid\":10,"
           "\"tid\":11,\"call_chain_size\":0,\"payload_size\":48,\"event\":\"STACK\","
           "\"weight_ns\":1000000,\"clock\":\"cpu\",\"flags\":\"0x0\",\"flags_name\":\"none\","
           "\"native\":[\"0x401000\",\"0x7f0000001234\"],"
           "\"python\":[{\"code_id\":1,\"offset\":26,\"entry\":false},"
           "{\"code_id\":2,\"offset\":4,\"entry\":true}],\"payload_hex\":\"40420f0000000000",
           "\"event\":\"STACK\",\"weight_ns\":10000000,\"clock\":\"wall\",\"flags\":\"0x9\","
           "\"flags_name\":\"WAITING|NO_NATIVE\",\"native\":[],"
           "\"python\":[{\"code_id\":2,\"offset\":0,\"entry\":true}],",
           "\"flags\":\"0x46\",\"flags_name\":\"NATIVE_CUT|PYTHON_CUT|0x40\","
           "\"native\":[\"0x401000\"],\"python\":[],",
           "\"event_type\":18,\"pid\":10,\"tid\":11,\"call_chain_size\":0,\"payload_size\":32,"
           "\"event\":\"APISTACK\",\"correlation\":77,"
           "\"python\":[{\"code_id\":1,\"offset\":8,\"entry\":false},"
           "{\"code_id\":2,\"offset\":2147483646,\"entry\":true}],"}) {
    EXPECT_NE(result.out.find(record), std::string::npos) << record << "\n" << result.out;
  }
}

TEST_F(ZvkdumpStacks, TheSummaryCountsThem) {
  const Dumped result = dump_capture(DumpFormat::kText, true);
  const std::vector<std::string> expected = {
      "CPU records by event:",
      "  STACK                               3",
      "  PYCODE                              2",
      "  APISTACK                            1",
      "CPU samples by thread:",
      "         pid        tid      samples",
      "CPU lost: 0 in 0 LOST records",
      "CPU throttles: 0, unthrottles: 0",
      "CPU mappings: 0",
      "CPU configurations: 0",
      "CPU stack samples: 3 (2 cpu, 1 wall, 1 waiting), 12.000 ms",
      "CPU stack frames: 3 native, 3 Python; samples cut: 1 native, 1 Python",
      "CPU stack samples by thread:",
      "         pid        tid      samples",
      "          10         11            2",
      "          10         12            1",
      "CPU Python code objects: 2, API Python stacks: 1",
  };
  EXPECT_EQ(summary_section(result.out, "CPU records by event:"), expected) << result.out;
}

TEST_F(ZvkdumpStacks, TheJsonSummaryCountsThem) {
  const Dumped result = dump_capture(DumpFormat::kJson, true);
  const std::string expected =
      "\"cpu\":{\"record_count\":6,\"undecoded\":0,"
      "\"events\":{\"STACK\":3,\"PYCODE\":2,\"APISTACK\":1},\"samples_by_thread\":[],"
      "\"lost\":0,\"lost_records\":0,\"throttles\":0,\"unthrottles\":0,\"mapping_count\":0,"
      "\"mappings\":[],\"configurations\":[],"
      "\"stacks\":{\"samples\":3,\"cpu\":2,\"wall\":1,\"waiting\":1,\"weight_ns\":12000000,"
      "\"native_frames\":3,\"python_frames\":3,\"native_cut\":1,\"python_cut\":1,"
      "\"samples_by_thread\":[{\"pid\":10,\"tid\":11,\"samples\":2},"
      "{\"pid\":10,\"tid\":12,\"samples\":1}],\"python_codes\":2,\"api_python_stacks\":1}},";
  EXPECT_NE(result.out.find(expected), std::string::npos) << result.out;
}

TEST(ZvkdumpStacksOdd, RecordsWhoseCountsOrSizesDontFitAreShownAsBytes) {
  using namespace perfevent;
  TempDir dir;
  const std::string& capture = capture_bytes();
  const auto cpu = [](uint32_t type) { return make_event_word(CPU, 0, type); };
  const auto record = [&](uint32_t type, const std::string& payload) {
    return record_bytes(cpu(type), 0, static_cast<uint16_t>(payload.size()), payload);
  };
  const std::string stack = stack_payload(5, SAMPLE_CLOCK_CPU, 0, {0x10, 0x20},
                                          {python_frame_of(3, 2, false)});
  const std::string code = code_payload(3, 1, 0x030b07f0, "f", "g.py", "\x80\x81\x82", 0);
  const std::string api = api_stack_payload(9, {python_frame_of(3, 2, true)});
  // Each count or size one past what the payload holds.
  std::string more_native = stack, more_python = stack, all_frames = stack.substr(0, 16);
  more_native[8] = 3;
  more_python[10] = 2;
  all_frames[8] = all_frames[9] = all_frames[10] = all_frames[11] = '\xff';
  std::string long_name = code, long_file = code, long_table = code, huge_table = code;
  long_name[12] = 9;  // each of the three sizes: together more than the 32 bytes there are
  long_file[14] = 9;
  long_table[16] = 8;
  huge_table[16] = huge_table[17] = huge_table[18] = huge_table[19] = '\xff';
  std::string more_api = api;
  more_api[8] = 2;
  const std::vector<std::string> records = {
      record(STACK_SAMPLE, stack.substr(0, 8)),
      record(STACK_SAMPLE, more_native),
      record(STACK_SAMPLE, more_python),
      record(STACK_SAMPLE, all_frames),
      record(PYTHON_CODE, code.substr(0, 20)),
      record(PYTHON_CODE, long_name),
      record(PYTHON_CODE, long_file),
      record(PYTHON_CODE, long_table),
      record(PYTHON_CODE, huge_table),
      record(API_PYTHON_STACK, api.substr(0, 15)),
      record(API_PYTHON_STACK, more_api),
      // Longer than their format: the format's bytes are read, the rest only shown.
      record(STACK_SAMPLE, stack_payload(5, 7, 0, {0x10}, {}) + "trailing"),
      record(PYTHON_CODE, code),
      record(API_PYTHON_STACK, api + "trailing"),
  };
  std::string bytes;
  for (const std::string& one : records) bytes += one;
  const std::string probe = capture_with_bucket(capture, bytes, records.size());
  EXPECT_TRUE(dump_cleanly(dir, probe));

  const std::string path = dir.file("odd_stacks.zvkraw");
  write_bytes(path, probe);
  const Dumped text = dump({path}, mode(DumpFormat::kText, false));
  ASSERT_TRUE(text.whole) << text.err;
  const auto raw = [](uint32_t type, const std::string& payload) {
    return "    42 CPU device=0 event=" + std::to_string(type) +
           " pid=0 tid=0 callchain=0 payload=" + std::to_string(payload.size()) + " " +
           hex_of(payload);
  };
  const std::vector<std::string> expected = {
      raw(STACK_SAMPLE, stack.substr(0, 8)),
      raw(STACK_SAMPLE, more_native),
      raw(STACK_SAMPLE, more_python),
      raw(STACK_SAMPLE, all_frames),
      raw(PYTHON_CODE, code.substr(0, 20)),
      raw(PYTHON_CODE, long_name),
      raw(PYTHON_CODE, long_file),
      raw(PYTHON_CODE, long_table),
      raw(PYTHON_CODE, huge_table),
      raw(API_PYTHON_STACK, api.substr(0, 15)),
      raw(API_PYTHON_STACK, more_api),
      "    42 CPU STACK cpu=0 pid=0 tid=0 weight_ns=5 clock=7 flags=none(0x0) native=[0x10] "
      "python=[]",
      "    42 CPU PYCODE cpu=0 pid=0 tid=0 code_id=3 first_line=1 py_version=3.11.7(0x30b07f0) "
      "qualname=\"f\" filename=\"g.py\" flags=none(0x0) linetable_size=3 linetable=808182",
      "    42 CPU APISTACK cpu=0 pid=0 tid=0 correlation=9 python=[3@2(entry)]",
  };
  EXPECT_EQ(record_lines(text.out), expected) << text.out;

  const Dumped summary = dump({path}, mode(DumpFormat::kText, true));
  ASSERT_TRUE(summary.whole) << summary.err;
  EXPECT_NE(summary.out.find("  STACK                               5\n"
                             "  PYCODE                              6\n"
                             "  APISTACK                            3\n"
                             "  (11 not decoded: payload too short or event unknown)\n"),
            std::string::npos)
      << summary.out;
  EXPECT_NE(summary.out.find("CPU stack samples: 1 (1 cpu, 0 wall, 0 waiting), 0.000 ms\n"),
            std::string::npos)
      << summary.out;
  EXPECT_NE(summary.out.find("CPU Python code objects: 1, API Python stacks: 1\n"),
            std::string::npos)
      << summary.out;
}

// The event word of a GPU record: atype and akind as the collector packs them.
uint32_t gpu_event(uint32_t type, uint32_t kind) {
  return make_event_word(GPU, 0, cuda_event_value(type, kind));
}

// A KERNEL_NAME payload as the collector writes it: id, len_name, the stored text
// and its terminator, zeros up to the aligned size.
std::string name_payload(uint32_t id, uint32_t len_name, const std::string& stored) {
  const uint32_t fixed[2] = {id, len_name};
  std::string payload = bytes_of(fixed) + stored;
  payload.resize(sizeof(cudaevent::kernel_name) + cudaevent::aligned_name_size(stored.size()),
                 '\0');
  return payload;
}

// One GPU record through the record helper, with the event type in the form the
// collector passes it; `frames` go two to a call chain entry, and an odd count's
// last `to` is 0, as a traced call leaves it.
void write_gpu_record(ZVKBufferRecordHelper& helper, uint64_t timestamp, uint32_t type,
                      uint32_t kind, uint32_t pid, uint32_t tid, const std::string& payload,
                      const std::vector<uint64_t>& frames = {}) {
  ZVKRecordEventType event = {};
  event.hw_type = GPU;
  event.event_type = cuda_event_value(type, kind);
  std::vector<uint64_t> slots = frames;
  slots.resize((frames.size() + 1) / 2 * 2, 0);
  auto record = helper.new_record(timestamp, event, pid, tid,
                                  static_cast<uint16_t>(slots.size() / 2),
                                  static_cast<uint16_t>(payload.size()));
  if (!slots.empty()) {
    std::memcpy(record.get_callchain_array(), slots.data(), slots.size() * sizeof(uint64_t));
  }
  std::memcpy(record.get_payload_store(), payload.data(), payload.size());
}

cudaevent::kernel kernel_payload(uint64_t end, int32_t grid_x, int32_t block_x, int64_t grid_id,
                                 uint32_t name_id, uint16_t registers, uint32_t device,
                                 uint32_t shared, uint32_t correlation, uint32_t stream) {
  cudaevent::kernel kernel = {};
  kernel.end = end;
  kernel.completed = end + 100;
  kernel.gridX = grid_x;
  kernel.gridY = 2;
  kernel.gridZ = 1;
  kernel.blockX = block_x;
  kernel.blockY = 1;
  kernel.blockZ = 1;
  kernel.gridId = grid_id;
  kernel.pack = {name_id, registers, 1, 0};
  kernel.deviceId = device;
  kernel.staticSharedMem = shared;
  kernel.correlationId = correlation;
  kernel.streamId = stream;
  return kernel;
}

// The four attr bytes of a copy, over a slot whose other four bytes hold junk,
// as the collector leaves them.
template <typename Copy>
void set_copy_attr(Copy* copy, uint8_t kind, uint8_t src, uint8_t dst, uint8_t flags) {
  copy->v = 0xdeadbeef00000000u;
  copy->attr = {kind, src, dst, flags};
}

// One record of every GPU kind, written by the real record helper and file
// writer: three kernels with names, one without, each kind of activity, and
// traced calls with function names of their own id space.
std::string make_gpu_capture() {
  using namespace cudaevent;
  TempDir dir;
  ZVKQueue<ZVKBuffer> fill(4, 4096), to_write;
  CaptureStderr();  // as in make_capture: the writer's log lines stay out of the output
  {
    ZVKFileWriter writer(&fill, &to_write, JobMetadata{"job-1", "host", "m5.large"}, 1000001);
    EXPECT_TRUE(writer.start(dir.file("gpu_%t")).ok());
    {
      ZVKBufferRecordHelper helper(&fill, &to_write);
      write_gpu_record(helper, 1000, KERNEL_NAME, kKernelNameKind, 10, 0,
                       name_payload(0, 10, "vector_add"));
      write_gpu_record(helper, 1000, KERNEL, 0, 10, 0,
                       bytes_of(kernel_payload(3000, 128, 256, 5, 0, 32, 0, 1024, 7, 13)));
      write_gpu_record(helper, 4000, CONCURRENT_KERNEL, 0, 10, 1,
                       bytes_of(kernel_payload(5000, 64, 128, 6, 0, 16, 1, 0, 8, 14)));
      write_gpu_record(helper, 4500, KERNEL_NAME, kKernelNameKind, 10, 1,
                       name_payload(1, 10, "reduce_sum"));
      write_gpu_record(helper, 4500, CONCURRENT_KERNEL, 0, 10, 1,
                       bytes_of(kernel_payload(9500, 32, 1024, 7, 1, 64, 1, 4096, 9, 14)));
      write_gpu_record(helper, 9600, KERNEL, 0, 10, 0,
                       bytes_of(kernel_payload(9700, 1, 32, 8, 9, 8, 0, 0, 10, 13)));
      write_gpu_record(helper, 10000, SYNCRONIZATION, 3, 10, 21, bytes_of(sync{10400, 11, 13}));
      memcopy copy = {};
      copy.end = 11400;
      copy.bytes = 4096;
      set_copy_attr(&copy, 1, 1, 3, 1);
      copy.correlationId = 12;
      copy.streamId = 13;
      copy.runtimeCorrId = 12;
      copy.contextId = 1;
      write_gpu_record(helper, 11000, MEMCOPY, 1, 10, 0, bytes_of(copy));
      memcopy_p2p p2p = {};
      p2p.end = 12800;
      p2p.bytes = 1 << 20;
      set_copy_attr(&p2p, 10, 3, 3, 0);
      p2p.srcDevice = 0;
      p2p.dstDevice = 1;
      p2p.correlationId = 13;
      p2p.streamId = 13;
      p2p.srcContext = 1;
      p2p.dstContext = 2;
      write_gpu_record(helper, 12000, MEMCOPY_P2P, 10, 10, 0, bytes_of(p2p));
      write_gpu_record(helper, 13000, MEMSET, kMemsetKind, 10, 0,
                       bytes_of(cudaevent::memset{13100, 1024, 255, 14, 13, 1, 3}));
      write_gpu_record(helper, 14000, DRIVER, 0, 10, 11, bytes_of(driver{14200, 10, 11, 15, 0}));
      write_gpu_record(helper, 15000, RUNTIME, 0, 10, 11, bytes_of(driver{15300, 10, 11, 16, 2}));
      write_gpu_record(helper, 16000, KERNEL_NAME, kFunctionNameKind, 10, 11,
                       name_payload(0, 0, "Unknown"));
      write_gpu_record(helper, 16000, CUDA_API, 0, 10, 11, bytes_of(callback{16500, 1, 307, 17, 0}),
                       {0x401000, 0x401100, 0x401200, 0x401300, 0x401400});
      write_gpu_record(helper, 17000, CUDA_API, 0, 10, 12, bytes_of(callback{17100, 1, 17, 18, 0}));
      write_gpu_record(helper, 18000, KERNEL_NAME, kFunctionNameKind, 10, 12,
                       name_payload(1, 10, "vector_add"));
      write_gpu_record(helper, 18000, CUDA_API, 0, 10, 12, bytes_of(callback{18200, 1, 307, 19, 1}),
                       {0x402000, 0x402100});
      write_gpu_record(helper, 19000, CUDA_API, 0, 10, 11, bytes_of(callback{19050, 1, 307, 20, 0}),
                       {0x403000});
    }
    EXPECT_TRUE(writer.stop().ok());
  }
  GetCapturedStderr();
  const auto files = dir.list();
  EXPECT_EQ(files.size(), 1u);
  return files.empty() ? std::string() : read_text_file(dir.file(files[0]));
}

class ZvkdumpGpu : public ZvkdumpCapture {
 protected:
  void SetUp() override {
    static const std::string capture = make_gpu_capture();
    write_capture("gpu.zvkraw", capture);
  }
};

TEST_F(ZvkdumpGpu, EveryKindIsDecodedInText) {
  const Dumped result = dump_capture(DumpFormat::kText, false);
  const std::vector<std::string> expected = {
      "    1000 GPU KERNEL_NAME pid=10 table=kernel device=0 id=0 len_name=10 "
      "name=\"vector_add\"",
      "    1000 GPU KERNEL pid=10 device=0 end=3000 duration=2000 completed=3100 grid=128x2x1 "
      "block=256x1x1 grid_id=5 registers=32 static_shared_mem=1024 shm_config=1 launch_type=0 "
      "stream=13 correlation=7 name_id=0 name=\"vector_add\"",
      "    4000 GPU CONCURRENT_KERNEL pid=10 device=1 end=5000 duration=1000 completed=5100 "
      "grid=64x2x1 block=128x1x1 grid_id=6 registers=16 static_shared_mem=0 shm_config=1 "
      "launch_type=0 stream=14 correlation=8 name_id=0 name=\"vector_add\"",
      "    4500 GPU KERNEL_NAME pid=10 table=kernel device=1 id=1 len_name=10 "
      "name=\"reduce_sum\"",
      "    4500 GPU CONCURRENT_KERNEL pid=10 device=1 end=9500 duration=5000 completed=9600 "
      "grid=32x2x1 block=1024x1x1 grid_id=7 registers=64 static_shared_mem=4096 shm_config=1 "
      "launch_type=0 stream=14 correlation=9 name_id=1 name=\"reduce_sum\"",
      "    9600 GPU KERNEL pid=10 device=0 end=9700 duration=100 completed=9800 grid=1x2x1 "
      "block=32x1x1 grid_id=8 registers=8 static_shared_mem=0 shm_config=1 launch_type=0 "
      "stream=13 correlation=10 name_id=9",
      "    10000 GPU SYNCRONIZATION pid=10 event_id=21 type=STREAM_SYNCHRONIZE(3) end=10400 "
      "duration=400 stream=13 correlation=11",
      "    11000 GPU MEMCOPY pid=10 device=0 end=11400 duration=400 kind=HTOD(1) "
      "src_kind=PAGEABLE(1) dst_kind=DEVICE(3) flags=0x1 bytes=4096 stream=13 correlation=12 "
      "runtime_correlation=12 context=1",
      "    12000 GPU MEMCOPY_P2P pid=10 device=0 end=12800 duration=800 kind=PTOP(10) "
      "src_kind=DEVICE(3) dst_kind=DEVICE(3) flags=0x0 bytes=1048576 src_device=0 dst_device=1 "
      "src_context=1 dst_context=2 stream=13 correlation=13",
      "    13000 GPU MEMSET pid=10 device=0 end=13100 duration=100 bytes=1024 value=255 "
      "memkind=DEVICE(3) flags=0x1 stream=13 correlation=14",
      "    14000 GPU DRIVER pid=10 thread=11 end=14200 duration=200 process_id=10 thread_id=11 "
      "correlation=15 return_value=0",
      "    15000 GPU RUNTIME pid=10 thread=11 end=15300 duration=300 process_id=10 thread_id=11 "
      "correlation=16 return_value=2",
      "    16000 GPU KERNEL_NAME pid=10 table=function thread=11 id=0 len_name=0 "
      "name=\"Unknown\"",
      "    16000 GPU CUDA_API pid=10 thread=11 end=16500 duration=500 domain=DRIVER_API(1) "
      "cbid=307 correlation=17 function_id=0 function=\"Unknown\" "
      "call_chain=[0x401000 0x401100 0x401200 0x401300 0x401400 0x0]",
      "    17000 GPU CUDA_API pid=10 thread=12 end=17100 duration=100 domain=DRIVER_API(1) "
      "cbid=17 correlation=18 function_id=0 function=\"Unknown\" call_chain=[]",
      "    18000 GPU KERNEL_NAME pid=10 table=function thread=12 id=1 len_name=10 "
      "name=\"vector_add\"",
      "    18000 GPU CUDA_API pid=10 thread=12 end=18200 duration=200 domain=DRIVER_API(1) "
      "cbid=307 correlation=19 function_id=1 function=\"vector_add\" "
      "call_chain=[0x402000 0x402100]",
      "    19000 GPU CUDA_API pid=10 thread=11 end=19050 duration=50 domain=DRIVER_API(1) "
      "cbid=307 correlation=20 function_id=0 function=\"Unknown\" call_chain=[0x403000 0x0]",
  };
  EXPECT_EQ(record_lines(result.out), expected) << result.out;
}

TEST_F(ZvkdumpGpu, EveryKindIsDecodedInJson) {
  const Dumped result = dump_capture(DumpFormat::kJson, false);
  for (const char* record : {
           "{\"timestamp\":1000,\"hw_type\":1,\"device_id\":0,\"event_type\":0,\"pid\":10,"
           "\"tid\":0,\"call_chain_size\":0,\"payload_size\":24,\"event\":\"KERNEL_NAME\","
           "\"table\":\"kernel\",\"device\":0,\"id\":0,\"len_name\":10,\"name\":\"vector_add\","
           "\"payload_hex\":\"000000000a000000766563746f725f616464000000000000\"}",
           "{\"timestamp\":1000,\"hw_type\":1,\"device_id\":0,\"event_type\":1,\"pid\":10,"
           "\"tid\":0,\"call_chain_size\":0,\"payload_size\":72,\"event\":\"KERNEL\","
           "\"device\":0,\"end\":3000,\"duration\":2000,\"completed\":3100,\"grid\":[128,2,1],"
           "\"block\":[256,1,1],\"grid_id\":5,\"registers\":32,\"static_shared_mem\":1024,"
           "\"shm_config\":1,\"launch_type\":0,\"stream\":13,\"correlation\":7,\"name_id\":0,"
           "\"name\":\"vector_add\",\"payload_hex\":\"",
           "\"event\":\"KERNEL\",\"device\":0,\"end\":9700,\"duration\":100,\"completed\":9800,"
           "\"grid\":[1,2,1],\"block\":[32,1,1],\"grid_id\":8,\"registers\":8,"
           "\"static_shared_mem\":0,\"shm_config\":1,\"launch_type\":0,\"stream\":13,"
           "\"correlation\":10,\"name_id\":9,\"payload_hex\":\"",
           "\"event_type\":12291,\"pid\":10,\"tid\":21,\"call_chain_size\":0,\"payload_size\":16,"
           "\"event\":\"SYNCRONIZATION\",\"event_id\":21,\"type\":3,"
           "\"type_name\":\"STREAM_SYNCHRONIZE\",\"end\":10400,\"duration\":400,\"stream\":13,"
           "\"correlation\":11,",
           // The junk beside the attr bytes shows only among the payload's bytes.
           "\"event_type\":4100,\"pid\":10,\"tid\":0,\"call_chain_size\":0,\"payload_size\":40,"
           "\"event\":\"MEMCOPY\",\"device\":0,\"end\":11400,\"duration\":400,\"kind\":1,"
           "\"kind_name\":\"HTOD\",\"src_kind\":1,\"src_kind_name\":\"PAGEABLE\",\"dst_kind\":3,"
           "\"dst_kind_name\":\"DEVICE\",\"flags\":\"0x1\",\"bytes\":4096,\"stream\":13,"
           "\"correlation\":12,\"runtime_correlation\":12,\"context\":1,"
           "\"payload_hex\":\"882c0000000000000010000000000000" "01010301efbeadde",
           "\"event_type\":40965,\"pid\":10,\"tid\":0,\"call_chain_size\":0,\"payload_size\":48,"
           "\"event\":\"MEMCOPY_P2P\",\"device\":0,\"end\":12800,\"duration\":800,\"kind\":10,"
           "\"kind_name\":\"PTOP\",\"src_kind\":3,\"src_kind_name\":\"DEVICE\",\"dst_kind\":3,"
           "\"dst_kind_name\":\"DEVICE\",\"flags\":\"0x0\",\"bytes\":1048576,\"src_device\":0,"
           "\"dst_device\":1,\"src_context\":1,\"dst_context\":2,\"stream\":13,"
           "\"correlation\":13,",
           "\"event_type\":8198,\"pid\":10,\"tid\":0,\"call_chain_size\":0,\"payload_size\":32,"
           "\"event\":\"MEMSET\",\"device\":0,\"end\":13100,\"duration\":100,\"bytes\":1024,"
           "\"value\":255,\"memkind\":3,\"memkind_name\":\"DEVICE\",\"flags\":\"0x1\","
           "\"stream\":13,\"correlation\":14,",
           "\"event\":\"DRIVER\",\"thread\":11,\"end\":14200,\"duration\":200,\"process_id\":10,"
           "\"thread_id\":11,\"correlation\":15,\"return_value\":0,",
           "\"event\":\"RUNTIME\",\"thread\":11,\"end\":15300,\"duration\":300,\"process_id\":10,"
           "\"thread_id\":11,\"correlation\":16,\"return_value\":2,",
           "\"event_type\":4096,\"pid\":10,\"tid\":11,\"call_chain_size\":0,\"payload_size\":16,"
           "\"event\":\"KERNEL_NAME\",\"table\":\"function\",\"thread\":11,\"id\":0,"
           "\"len_name\":0,\"name\":\"Unknown\",",
           "{\"timestamp\":16000,\"hw_type\":1,\"device_id\":0,\"event_type\":9,\"pid\":10,"
           "\"tid\":11,\"call_chain_size\":3,\"payload_size\":24,\"event\":\"CUDA_API\","
           "\"thread\":11,\"end\":16500,\"duration\":500,\"domain\":1,"
           "\"domain_name\":\"DRIVER_API\",\"cbid\":307,\"correlation\":17,\"function_id\":0,"
           "\"function\":\"Unknown\",\"call_chain\":[\"0x401000\",\"0x401100\",\"0x401200\","
           "\"0x401300\",\"0x401400\",\"0x0\"],\"payload_hex\":\"",
           "\"call_chain_size\":0,\"payload_size\":24,\"event\":\"CUDA_API\",\"thread\":12,"
           "\"end\":17100,\"duration\":100,\"domain\":1,\"domain_name\":\"DRIVER_API\","
           "\"cbid\":17,\"correlation\":18,\"function_id\":0,\"function\":\"Unknown\","
           "\"call_chain\":[],",
           "\"function_id\":1,\"function\":\"vector_add\","
           "\"call_chain\":[\"0x402000\",\"0x402100\"],"}) {
    EXPECT_NE(result.out.find(record), std::string::npos) << record << "\n" << result.out;
  }
}

TEST_F(ZvkdumpGpu, TheSummaryHasAGpuSection) {
  const Dumped result = dump_capture(DumpFormat::kText, true);
  const std::vector<std::string> expected = {
      "GPU records by type:",
      "  KERNEL_NAME                         4",
      "  KERNEL                              2",
      "  CONCURRENT_KERNEL                   2",
      "  SYNCRONIZATION                      1",
      "  MEMCOPY                             1",
      "  MEMCOPY_P2P                         1",
      "  MEMSET                              1",
      "  DRIVER                              1",
      "  RUNTIME                             1",
      "  CUDA_API                            4",
      "GPU kernels:",
      "  name                                count       total ms        mean us",
      "  reduce_sum                              1          0.005          5.000",
      "  vector_add                              2          0.003          1.500",
      "  (name id 9)                             1          0.000          0.100",
      "GPU copies by kind:",
      "  kind                                count          bytes       total ms",
      "  HTOD                                    1           4096          0.000",
      "  PTOP                                    1        1048576          0.001",
      "GPU memsets: 1, 1024 bytes, 0.000 ms",
      "GPU synchronizations by type:",
      "  type                                count       total ms",
      "  STREAM_SYNCHRONIZE                      1          0.000",
      "GPU driver activity: 1, 0.000 ms",
      "GPU runtime activity: 1, 0.000 ms",
      "GPU traced calls by function:",
      "  function                            count           cbid       total ms",
      "  Unknown                                 2            307          0.001",
      "  Unknown                                 1             17          0.000",
      "  vector_add                              1            307          0.000",
      "GPU names: 2 kernel, 2 function",
  };
  EXPECT_EQ(summary_section(result.out, "GPU records by type:"), expected) << result.out;
  // The sections before it stay as they were, and a capture without CPU records
  // has no CPU section.
  EXPECT_NE(result.out.find("Records by kind:\n  GPU                                18\n"
                            "Annotation ranges:\n"
                            "  name                                count       total ms        "
                            "mean us\nGPU records by type:\n"),
            std::string::npos)
      << result.out;
}

TEST_F(ZvkdumpGpu, TheJsonSummaryHasAGpuMember) {
  const Dumped result = dump_capture(DumpFormat::kJson, true);
  EXPECT_NE(result.out.find("\"records_by_kind\":{\"GPU\":18},\"cpu\":{\"record_count\":0,"),
            std::string::npos)
      << result.out;
  const std::string gpu =
          "\"gpu\":{\"record_count\":18,\"undecoded\":0,"
          "\"types\":{\"KERNEL_NAME\":4,\"KERNEL\":2,\"CONCURRENT_KERNEL\":2,"
          "\"SYNCRONIZATION\":1,\"MEMCOPY\":1,\"MEMCOPY_P2P\":1,\"MEMSET\":1,\"DRIVER\":1,"
          "\"RUNTIME\":1,\"CUDA_API\":4},"
          "\"kernels\":[{\"name\":\"reduce_sum\",\"count\":1,\"total_ns\":5000,\"mean_ns\":5000},"
          "{\"name\":\"vector_add\",\"count\":2,\"total_ns\":3000,\"mean_ns\":1500},"
          "{\"name\":null,\"name_id\":9,\"count\":1,\"total_ns\":100,\"mean_ns\":100}],"
          "\"copies\":[{\"kind\":1,\"kind_name\":\"HTOD\",\"count\":1,\"bytes\":4096,"
          "\"total_ns\":400},{\"kind\":10,\"kind_name\":\"PTOP\",\"count\":1,"
          "\"bytes\":1048576,\"total_ns\":800}],"
          "\"memsets\":{\"count\":1,\"bytes\":1024,\"total_ns\":100},"
          "\"syncs\":[{\"type\":3,\"type_name\":\"STREAM_SYNCHRONIZE\",\"count\":1,"
          "\"total_ns\":400}],"
          "\"driver\":{\"count\":1,\"total_ns\":200},\"runtime\":{\"count\":1,\"total_ns\":300},"
          "\"calls\":[{\"function\":\"Unknown\",\"cbid\":307,\"count\":2,\"total_ns\":550},"
          "{\"function\":\"Unknown\",\"cbid\":17,\"count\":1,\"total_ns\":100},"
          "{\"function\":\"vector_add\",\"cbid\":307,\"count\":1,\"total_ns\":200}],"
          "\"kernel_names\":2,\"function_names\":2},\"ranges\":[],";
  EXPECT_NE(result.out.find(gpu), std::string::npos) << result.out;
}

// A capture of one bucket of hand-made records, as a file in `dir`.
std::string write_records(const TempDir& dir, const std::string& name,
                          const std::vector<std::string>& records) {
  std::string bytes;
  for (const std::string& record : records) bytes += record;
  const std::string path = dir.file(name);
  write_bytes(path, capture_with_bucket(capture_bytes(), bytes, records.size()));
  return path;
}

std::string with_pid(std::string record, uint32_t pid) {
  std::memcpy(&record[offsetof(ZVKRecord, pid)], &pid, sizeof(pid));
  return record;
}

// A kernel of 100 ns in process `pid`.
std::string kernel_record(uint32_t pid, uint32_t name_id) {
  return with_pid(record_bytes(gpu_event(cudaevent::KERNEL, 0), 0, sizeof(cudaevent::kernel),
                               bytes_of(kernel_payload(142, 1, 1, 1, name_id, 1, 0, 0, 1, 1))),
                  pid);
}

std::string kernel_name_record(uint32_t pid, uint32_t id, const std::string& name) {
  const std::string payload = name_payload(id, name.size(), name);
  return with_pid(record_bytes(gpu_event(cudaevent::KERNEL_NAME, cudaevent::kKernelNameKind), 0,
                               static_cast<uint16_t>(payload.size()), payload),
                  pid);
}

// A FORK record of a new process, as the sampler writes it: the child's.
std::string fork_record(uint32_t child, uint32_t parent) {
  return with_pid(record_bytes(make_event_word(CPU, 0, perfevent::FORK), 0, 24,
                               bytes_of(perfevent::ZVKPerfExitFork{77, 77, parent, parent})),
                  child);
}

// The name each KERNEL line of a text dump resolved, by its pid; "-" for none.
std::vector<std::string> kernel_names_of(const std::string& text) {
  std::vector<std::string> names;
  for (const std::string& line : record_lines(text)) {
    if (line.find(" GPU KERNEL ") == std::string::npos) continue;
    const size_t pid = line.find(" pid=");
    const size_t name = line.find(" name=");
    names.push_back(line.substr(pid + 5, line.find(' ', pid + 1) - pid - 5) + ' ' +
                    (name == std::string::npos ? "-" : line.substr(name + 6)));
  }
  return names;
}

TEST(ZvkdumpGpuNames, ComeFromEarlierFilesOfTheRunPerProcessAndFromAForkedParent) {
  TempDir dir;
  const std::string first = write_records(
      dir, "first.zvkraw",
      {kernel_name_record(10, 0, "parent_kernel"), kernel_name_record(20, 0, "other_process")});
  const std::string second = write_records(
      dir, "second.zvkraw",
      {kernel_record(10, 0), kernel_record(20, 0), fork_record(13, 10), kernel_record(13, 0),
       kernel_name_record(13, 1, "child_kernel"), kernel_record(13, 1),
       // The child's id 1 isn't the parent's, and an unrelated process has none.
       kernel_record(10, 1), kernel_record(14, 0),
       // A thread's FORK links nothing; forks that loop end the search all the same.
       fork_record(10, 10), fork_record(30, 31), fork_record(31, 30), kernel_record(30, 0)});

  const Dumped both = dump({first, second}, mode(DumpFormat::kText, false));
  ASSERT_TRUE(both.whole) << both.err;
  const std::vector<std::string> resolved = {
      "10 \"parent_kernel\"", "20 \"other_process\"", "13 \"parent_kernel\"",
      "13 \"child_kernel\"",  "10 -",                 "14 -",
      "30 -"};
  EXPECT_EQ(kernel_names_of(both.out), resolved) << both.out;

  const Dumped alone = dump({second}, mode(DumpFormat::kText, false));
  ASSERT_TRUE(alone.whole) << alone.err;
  const std::vector<std::string> unresolved = {"10 -", "20 -", "13 -", "13 \"child_kernel\"",
                                               "10 -", "14 -", "30 -"};
  EXPECT_EQ(kernel_names_of(alone.out), unresolved) << alone.out;

  // The summary groups by the names the run knows; the rest by id.
  const Dumped summary = dump({first, second}, mode(DumpFormat::kJson, true));
  ASSERT_TRUE(summary.whole) << summary.err;
  EXPECT_TRUE(is_one_json_document(summary.out)) << summary.out;
  EXPECT_NE(summary.out.find("\"kernels\":[{\"name\":\"parent_kernel\",\"count\":2,"
                             "\"total_ns\":200,\"mean_ns\":100},"
                             "{\"name\":null,\"name_id\":0,\"count\":2,\"total_ns\":200,"
                             "\"mean_ns\":100},"
                             "{\"name\":\"child_kernel\",\"count\":1,\"total_ns\":100,"
                             "\"mean_ns\":100},{\"name\":\"other_process\",\"count\":1,"
                             "\"total_ns\":100,\"mean_ns\":100},"
                             "{\"name\":null,\"name_id\":1,\"count\":1,"
                             "\"total_ns\":100,\"mean_ns\":100}]"),
            std::string::npos)
      << summary.out;
}

TEST(ZvkdumpGpuOdd, PayloadsThatDontFitTheirFormatAreShownAsBytes) {
  using namespace cudaevent;
  TempDir dir;
  const std::string unterminated = bytes_of(std::array<uint32_t, 2>{3, 8}) + "no_nul!!";
  const std::string odd_name = name_payload(4, 12, "bad \xff\"name\n");
  cudaevent::memcopy unknown_kinds = {};
  unknown_kinds.end = 10;  // before the start: no time
  set_copy_attr(&unknown_kinds, 200, 9, 0, 0xff);
  const std::vector<std::string> records = {
      record_bytes(gpu_event(KERNEL_NAME, 0), 0, 7, std::string(7, '\0')),
      record_bytes(gpu_event(KERNEL_NAME, 0), 0, 16, unterminated),
      record_bytes(gpu_event(KERNEL_NAME, 2), 0, 16, name_payload(5, 3, "abc")),
      record_bytes(gpu_event(KERNEL, 0), 0, 71, std::string(71, '\1')),
      record_bytes(gpu_event(CONCURRENT_KERNEL, 0), 0, 0, ""),
      record_bytes(gpu_event(SYNCRONIZATION, 1), 0, 15, std::string(15, '\2')),
      record_bytes(gpu_event(MEMCOPY, 1), 0, 39, std::string(39, '\3')),
      record_bytes(gpu_event(MEMCOPY_P2P, 10), 0, 47, std::string(47, '\4')),
      record_bytes(gpu_event(MEMSET, 2), 0, 31, std::string(31, '\5')),
      record_bytes(gpu_event(DRIVER, 0), 0, 23, std::string(23, '\6')),
      record_bytes(gpu_event(RUNTIME, 0), 0, 0, ""),
      record_bytes(gpu_event(CUDA_API, 0), 1, 23, std::string(16, '\7') + std::string(23, '\7')),
      record_bytes(gpu_event(NUM_CUDA_RECORD_TYPES, 0), 0, 0, ""),
      record_bytes(make_event_word(GPU, 0, 0xfffff), 0, 8, "abcdefgh"),
      // These decode: a name with bytes JSON must escape, kinds no table names, and
      // a kernel longer than its format, whose format's bytes are read.
      record_bytes(gpu_event(KERNEL_NAME, 0), 0, static_cast<uint16_t>(odd_name.size()), odd_name),
      record_bytes(gpu_event(MEMCOPY, 200), 0, 40, bytes_of(unknown_kinds)),
      record_bytes(gpu_event(KERNEL, 0), 0, 80,
                   bytes_of(kernel_payload(50, 1, 1, -1, 4, 1, 0, 0, 1, 1)) + "trailing"),
  };
  const std::string path = write_records(dir, "odd_gpu.zvkraw", records);
  EXPECT_TRUE(dump_cleanly(dir, read_text_file(path)));

  const Dumped text = dump({path}, mode(DumpFormat::kText, false));
  ASSERT_TRUE(text.whole) << text.err;
  const auto raw = [](uint32_t event, int chains, size_t size, const std::string& bytes) {
    return "    42 GPU device=0 event=" + std::to_string(event) + " pid=0 tid=0 callchain=" +
           std::to_string(chains) + " payload=" + std::to_string(size) + " " + hex_of(bytes);
  };
  const std::vector<std::string> expected = {
      raw(0, 0, 7, std::string(7, '\0')),
      raw(0, 0, 16, unterminated),
      raw(0x2000, 0, 16, name_payload(5, 3, "abc")),
      raw(1, 0, 71, std::string(71, '\1')),
      raw(2, 0, 0, ""),
      raw(0x1003, 0, 15, std::string(15, '\2')),
      raw(0x1004, 0, 39, std::string(39, '\3')),
      raw(0xa005, 0, 47, std::string(47, '\4')),
      raw(0x2006, 0, 31, std::string(31, '\5')),
      raw(7, 0, 23, std::string(23, '\6')),
      raw(8, 0, 0, ""),
      raw(9, 1, 23, std::string(23, '\7')),
      raw(10, 0, 0, ""),
      raw(0xfffff, 0, 8, "abcdefgh"),
      "    42 GPU KERNEL_NAME pid=0 table=kernel device=0 id=4 len_name=12 "
      "name=\"bad \\ufffd\\\"name\\u000a\"",
      "    42 GPU MEMCOPY pid=0 device=0 end=10 duration=0 kind=UNKNOWN(200) "
      "src_kind=UNKNOWN(9) dst_kind=UNKNOWN(0) flags=0xff bytes=0 stream=0 correlation=0 "
      "runtime_correlation=0 context=0",
      "    42 GPU KERNEL pid=0 device=0 end=50 duration=8 completed=150 grid=1x2x1 block=1x1x1 "
      "grid_id=-1 registers=1 static_shared_mem=0 shm_config=1 launch_type=0 stream=1 "
      "correlation=1 name_id=4 name=\"bad \\ufffd\\\"name\\u000a\"",
  };
  EXPECT_EQ(record_lines(text.out), expected) << text.out;

  const Dumped json = dump({path}, mode(DumpFormat::kJson, false));
  EXPECT_NE(json.out.find("\"name\":\"bad \\ufffd\\\"name\\u000a\""), std::string::npos)
      << json.out;

  const Dumped summary = dump({path}, mode(DumpFormat::kText, true));
  ASSERT_TRUE(summary.whole) << summary.err;
  EXPECT_NE(summary.out.find("  (14 not decoded: payload too short or type unknown)\n"),
            std::string::npos)
      << summary.out;
  EXPECT_NE(summary.out.find("  CUDA_API                            1\n"
                             "  type 10                             1\n"
                             "  type 4095                           1\n"),
            std::string::npos)
      << summary.out;
  EXPECT_NE(summary.out.find("  UNKNOWN                                 1              0"
                             "          0.000\n"),
            std::string::npos)
      << summary.out;
}

TEST(ZvkdumpJson, KeepsUtf8AndEscapesOnlyWhatJsonNeeds) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  const std::vector<std::string> names = {
      "\xc3\xbc\xc3\xb1\xc3\xad \xe2\x82\xac \xf0\x9f\x98\x80",  // üñí € and an emoji
      "quote\" backslash\\ tab\t newline\n escape\x1b del\x7f",
      "lone \xff, cut \xc3, overlong \xc0\xaf, surrogate \xed\xa0\x80, "
      "past U+10FFFF \xf4\x90\x80\x80",
  };
  std::string records;
  for (size_t i = 0; i < names.size(); ++i) {
    records += annotation(annotations::MARKER, i, names[i], 1);
  }
  const std::string path = dir.file("names.zvkraw");
  write_bytes(path, capture_with_bucket(capture, records, names.size()));
  const Dumped result = dump({path}, mode(DumpFormat::kJson, false));
  ASSERT_TRUE(result.whole) << result.err;
  EXPECT_TRUE(is_one_json_document(result.out)) << result.out;
  EXPECT_NE(result.out.find("\"msg\":\"" + names[0] + "\""), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("\"msg\":\"quote\\\" backslash\\\\ tab\\u0009 newline\\u000a "
                            "escape\\u001b del\x7f\""),
            std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find("\"msg\":\"lone \\ufffd, cut \\ufffd, overlong \\ufffd\\ufffd, "
                            "surrogate \\ufffd\\ufffd\\ufffd, "
                            "past U+10FFFF \\ufffd\\ufffd\\ufffd\\ufffd\""),
            std::string::npos)
      << result.out;
}

TEST(ZvkdumpJson, SeveralFilesMakeOneDocument) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  const std::vector<std::string> paths = {dir.file("a.zvkraw"), dir.file("b.zvkraw"),
                                          dir.file("absent.zvkraw")};
  write_bytes(paths[0], capture);
  write_bytes(paths[1], capture);
  for (bool summary : {false, true}) {
    SCOPED_TRACE(summary ? "summary" : "records");
    const Dumped one = dump({paths[0]}, mode(DumpFormat::kJson, summary));
    EXPECT_TRUE(one.whole);
    EXPECT_TRUE(is_one_json_document(one.out)) << one.out;
    EXPECT_EQ(one.out.rfind("{\"file\":", 0), 0u) << one.out;

    const Dumped several = dump(paths, mode(DumpFormat::kJson, summary));
    EXPECT_FALSE(several.whole);  // the absent file
    EXPECT_TRUE(is_one_json_document(several.out)) << several.out;
    const std::string object = one.out.substr(0, one.out.size() - 1);
    const size_t second_path = object.find(paths[0]);
    const std::string second =
        object.substr(0, second_path) + paths[1] + object.substr(second_path + paths[0].size());
    const std::string absent = "{\"file\":\"" + paths[2] +
                               "\",\"problem\":\"No such file or directory\",\"clean\":false}";
    EXPECT_EQ(several.out, "[\n" + object + ",\n" + second + ",\n" + absent + "\n]\n");
    EXPECT_EQ(several.err, "zvkdump: " + paths[2] + ": No such file or directory\n");
  }
}

TEST(ZvkdumpJson, TheSummaryComesAsJsonToo) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  const std::string path = dir.file("capture.zvkraw");
  write_bytes(path, capture);
  const CommandLine line = parse_command_line({"--json", "--summary", path}, Terminals{});
  EXPECT_EQ(line.error, "");
  EXPECT_EQ(line.options.format, DumpFormat::kJson);
  EXPECT_TRUE(line.options.summary);
  EXPECT_EQ(parse_command_line({"--summary", "--json", path}, Terminals{}).options.summary, true);

  const Dumped result = dump({path}, line.options);
  ASSERT_TRUE(result.whole) << result.err;
  EXPECT_TRUE(is_one_json_document(result.out)) << result.out;
  for (const char* member :
       {"\"whole_buckets\":3,", "\"ANNOTATION BEGIN\":12,", "\"ANNOTATION MARKER\":12,",
        "\"CPU\":12", "{\"name\":\"step \\\"11\\\"\\u000a\",\"count\":1,\"total_ns\":",
        "\"begins_without_end\":0,\"ends_without_begin\":0,\"problem\":\"\",\"unfinished\":false,"
        "\"clean\":true}\n"}) {
    EXPECT_NE(result.out.find(member), std::string::npos) << member << "\n" << result.out;
  }
  EXPECT_EQ(result.out.find("\"records\""), std::string::npos) << result.out;
}

TEST(ZvkdumpSummary, ALongNameWidensOnlyItsOwnRow) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  const std::string long_name(1000, 'n');
  std::string records;
  uint64_t count = 0;
  for (uint64_t token = 0; token < 3; ++token, count += 2) {
    records += annotation(annotations::BEGIN, token, long_name, 1000 * token);
    records += annotation(annotations::END, token, "", 1000 * token + 2000);
  }
  for (uint64_t token = 3; token < 5; ++token, count += 2) {
    records += annotation(annotations::BEGIN, token, "short", 1000 * token);
    records += annotation(annotations::END, token, "", 1000 * token + 500);
  }
  const std::string path = dir.file("long.zvkraw");
  write_bytes(path, capture_with_bucket(capture, records, count));
  const Dumped result = dump({path}, mode(DumpFormat::kText, true));
  ASSERT_TRUE(result.whole) << result.err;
  const std::vector<std::string> lines = lines_of(result.out);
  const std::vector<std::string> expected = {
      "File " + path + ": 1 buckets",
      "Records by kind:",
      "  ANNOTATION BEGIN                    5",
      "  ANNOTATION END                      5",
      "Annotation ranges:",
      "  name                                count       total ms        mean us",
      "  " + long_name + "        3          0.006          2.000",
      "  short                                   2          0.001          0.500",
  };
  EXPECT_EQ(lines, expected) << result.out;
}

// The annotation `type` of process `pid`.
std::string annotation_of(uint32_t pid, uint32_t type, uint64_t token, const std::string& text,
                          uint64_t timestamp) {
  std::string bytes = annotation(type, token, text, timestamp);
  std::memcpy(&bytes[offsetof(ZVKRecord, pid)], &pid, sizeof(pid));
  return bytes;
}

// The summary is `zorvek summary`'s engine: tokens pair within their process
// (each process counts its own from 0), and an END read before its BEGIN still
// ends it.
TEST(ZvkdumpSummary, RangesPairPerProcessWhateverTheOrder) {
  TempDir dir;
  const std::string records =
      annotation_of(1, annotations::BEGIN, 0, "a", 1000) +
      annotation_of(2, annotations::BEGIN, 0, "b", 1500) +
      annotation_of(1, annotations::END, 0, "", 3000) +
      annotation_of(2, annotations::END, 0, "", 2500) +
      annotation_of(1, annotations::END, 1, "", 5000) +
      annotation_of(1, annotations::BEGIN, 1, "c", 4000) +
      annotation_of(2, annotations::BEGIN, 1, "open", 6000);
  const std::string path = dir.file("pids.zvkraw");
  write_bytes(path, capture_with_bucket(capture_bytes(), records, 7));
  const Dumped text = dump({path}, mode(DumpFormat::kText, true));
  ASSERT_TRUE(text.whole) << text.err;
  const std::vector<std::string> expected = {
      "File " + path + ": 1 buckets",
      "Records by kind:",
      "  ANNOTATION BEGIN                    4",
      "  ANNOTATION END                      3",
      "Annotation ranges:",
      "  name                                count       total ms        mean us",
      "  a                                       1          0.002          2.000",
      "  b                                       1          0.001          1.000",
      "  c                                       1          0.001          1.000",
      "  (1 begins without an end)",
  };
  EXPECT_EQ(lines_of(text.out), expected) << text.out;
  const Dumped json = dump({path}, mode(DumpFormat::kJson, true));
  ASSERT_TRUE(json.whole) << json.err;
  EXPECT_NE(json.out.find("\"ranges\":[{\"name\":\"a\",\"count\":1,\"total_ns\":2000},"
                          "{\"name\":\"b\",\"count\":1,\"total_ns\":1000},"
                          "{\"name\":\"c\",\"count\":1,\"total_ns\":1000}],"
                          "\"begins_without_end\":1,\"ends_without_begin\":0"),
            std::string::npos)
      << json.out;
}

// "zvkdump: PATH: P% (N buckets)" for the file read up to `offset`.
std::string progress_line(const std::string& path, size_t offset, size_t size, size_t buckets) {
  return "zvkdump: " + path + ": " + std::to_string(offset * 100 / size) + "% (" +
         std::to_string(buckets) + (buckets == 1 ? " bucket)" : " buckets)");
}

TEST(ZvkdumpProgress, GoesToErrAndLeavesOutAlone) {
  TempDir dir;
  const std::string& capture = capture_bytes();
  const std::vector<size_t> offsets = bucket_offsets(capture);
  const std::vector<std::string> paths = {dir.file("a.zvkraw"), dir.file("b.zvkraw")};
  write_bytes(paths[0], capture);
  write_bytes(paths[1], capture);
  std::vector<std::string> every_bucket;
  for (const std::string& path : paths) {
    for (size_t i = 1; i < offsets.size(); ++i) {
      every_bucket.push_back(progress_line(path, offsets[i], capture.size(), i));
    }
  }
  // The first file's first bucket, then its end; the run is then too young for more.
  const std::vector<std::string> first_and_end = {every_bucket[0], every_bucket[2]};
  ASSERT_EQ(every_bucket.back(), "zvkdump: " + paths[1] + ": 100% (3 buckets)");

  for (const DumpOptions& quiet : kModes) {
    const Dumped plain = dump(paths, quiet);
    EXPECT_EQ(plain.err, "");
    DumpOptions shown = quiet;
    shown.progress.enabled = true;
    shown.progress.quiet_for = std::chrono::milliseconds(0);
    shown.progress.every = std::chrono::milliseconds(0);
    const Dumped lines = dump(paths, shown);
    EXPECT_EQ(lines.out, plain.out);
    EXPECT_EQ(lines_of(lines.err), every_bucket) << lines.err;

    // An hour between updates: the first file's first bucket shows, then its end,
    // which a file whose line was shown always gets; nothing of the second file.
    shown.progress.every = std::chrono::hours(1);
    const Dumped throttled = dump(paths, shown);
    EXPECT_EQ(throttled.out, plain.out);
    EXPECT_EQ(lines_of(throttled.err), first_and_end) << throttled.err;

    shown.progress.every = std::chrono::milliseconds(0);
    shown.progress.in_place = true;
    const Dumped in_place = dump(paths, shown);
    EXPECT_EQ(in_place.out, plain.out);
    std::string rewritten;
    for (size_t i = 0; i < every_bucket.size(); ++i) {
      rewritten += "\r" + every_bucket[i] + (i % 3 == 2 ? "\n" : "");
    }
    EXPECT_EQ(in_place.err, rewritten);
  }
}

TEST(ZvkdumpProgress, QuickRunsStayQuiet) {
  TempDir dir;
  const std::string path = dir.file("a.zvkraw");
  write_bytes(path, capture_bytes());
  DumpOptions options;
  options.progress.enabled = true;
  options.progress.quiet_for = std::chrono::hours(1);
  EXPECT_EQ(dump({path}, options).err, "");
}

TEST(ZvkdumpCommandLine, ProgressByDefaultOnlyWhereItCantCutIntoTheOutput) {
  const auto progress = [](std::vector<std::string> args, Terminals terminals) {
    args.push_back("file");
    const CommandLine line = parse_command_line(args, terminals);
    EXPECT_EQ(line.error, "");
    return line.options.progress;
  };
  EXPECT_FALSE(progress({}, Terminals{false, false}).enabled);
  EXPECT_TRUE(progress({}, Terminals{false, true}).enabled);
  EXPECT_TRUE(progress({}, Terminals{false, true}).in_place);
  EXPECT_FALSE(progress({}, Terminals{true, true}).enabled);
  EXPECT_FALSE(progress({"--json"}, Terminals{true, true}).enabled);
  EXPECT_TRUE(progress({"--summary"}, Terminals{true, true}).enabled);
  EXPECT_TRUE(progress({"--progress"}, Terminals{false, false}).enabled);
  EXPECT_FALSE(progress({"--progress"}, Terminals{false, false}).in_place);
  EXPECT_FALSE(progress({"--no-progress"}, Terminals{false, true}).enabled);
  EXPECT_FALSE(progress({"--progress", "--no-progress"}, Terminals{}).enabled);
}

struct Ran {
  int status;
  std::string out;
  std::string err;
};

Ran run_zvkdump(const std::vector<std::string>& args) {
  std::ostringstream out, err;
  const int status = zvkdump_main(args, Terminals{}, out, err);
  return {status, out.str(), err.str()};
}

TEST(ZvkdumpCommandLine, AnUnknownOptionIsAUsageError) {
  const Ran run = run_zvkdump({"--bogus", "file.zvkraw"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err.rfind("zvkdump: unknown option '--bogus'\nusage: zvkdump ", 0), 0u) << run.err;
  EXPECT_EQ(run_zvkdump({"file.zvkraw", "-x"}).status, 2);
}

TEST(ZvkdumpCommandLine, NoFileIsAUsageError) {
  const Ran run = run_zvkdump({"--json"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err.rfind("zvkdump: no capture file given\nusage: zvkdump ", 0), 0u) << run.err;
}

TEST(ZvkdumpCommandLine, HelpGoesToOut) {
  for (const char* help : {"-h", "--help"}) {
    const Ran run = run_zvkdump({help});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out.rfind("usage: zvkdump ", 0), 0u) << run.out;
    EXPECT_NE(run.out.find("--no-progress"), std::string::npos) << run.out;
    EXPECT_EQ(run.err, "");
  }
}

TEST(ZvkdumpCommandLine, DoubleDashEndsTheOptions) {
  const CommandLine line =
      parse_command_line({"--summary", "--", "--json", "-h", "-"}, Terminals{});
  EXPECT_EQ(line.error, "");
  EXPECT_FALSE(line.help);
  EXPECT_EQ(line.options.format, DumpFormat::kText);
  EXPECT_EQ(line.files, (std::vector<std::string>{"--json", "-h", "-"}));
  const Ran absent = run_zvkdump({"--", "--json"});
  EXPECT_EQ(absent.status, 1);
  EXPECT_EQ(absent.err, "zvkdump: --json: No such file or directory\n");
}


// ---- Exit status and notes: one status for a file read but damaged or cut --------

// The capture's bytes with its header's bucket count and end time set.
std::string with_header_count(std::string capture, uint32_t num_buckets, uint64_t end_time) {
  std::memcpy(&capture[offsetof(ZVKFileHeader, num_buckets)], &num_buckets, sizeof(num_buckets));
  std::memcpy(&capture[offsetof(ZVKFileHeader, end_time)], &end_time, sizeof(end_time));
  return capture;
}

uint64_t end_time_of(const std::string& capture) {
  uint64_t end_time;
  std::memcpy(&end_time, capture.data() + offsetof(ZVKFileHeader, end_time), sizeof(end_time));
  return end_time;
}

class ZvkdumpExitStatus : public testing::Test {
 protected:
  // zvkdump on `bytes` as one file, in text and then in each other mode: the
  // status and err must be the same in every mode, and no note may reach out.
  Ran run_on(const std::string& bytes, const std::string& name = "capture.zvkraw") {
    m_path = m_dir.file(name);
    write_bytes(m_path, bytes);
    const Ran text = run_zvkdump({m_path});
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"--json", m_path}, {"--summary", m_path},
          {"--json", "--summary", m_path}}) {
      const Ran other = run_zvkdump(args);
      EXPECT_EQ(other.status, text.status) << args[0];
      EXPECT_EQ(other.err, text.err) << args[0];
    }
    for (const std::string& line : lines_of(text.err)) {
      EXPECT_EQ(line.rfind("zvkdump: " + m_path + ": ", 0), 0u) << line;
      EXPECT_EQ(text.out.find(line.substr(line.find(": ") + 2)), std::string::npos)
          << "a note on out: " << line;
    }
    return text;
  }

  TempDir m_dir;
  std::string m_path;
  const std::string& m_capture = capture_bytes();
  const std::vector<size_t> m_offsets = bucket_offsets(m_capture);
};

TEST_F(ZvkdumpExitStatus, AWholeFileIsZeroWithNothingOnErr) {
  const Ran run = run_on(m_capture);
  EXPECT_EQ(run.status, kExitReadWhole);
  EXPECT_EQ(run.err, "");
  EXPECT_NE(run.out.find("\n3 whole buckets\n"), std::string::npos) << run.out;
}

TEST_F(ZvkdumpExitStatus, AFileCutInsideABucketIsDamaged) {
  ASSERT_EQ(m_offsets.size(), 4u);
  const Ran run = run_on(m_capture.substr(0, m_offsets[2] + 20));
  EXPECT_EQ(run.status, kExitDamaged);
  ASSERT_EQ(lines_of(run.err).size(), 1u) << run.err;
  EXPECT_NE(run.err.find("bucket 2 at offset " + std::to_string(m_offsets[2]) + " is torn"),
            std::string::npos)
      << run.err;
  EXPECT_NE(run.out.find("\n2 whole buckets\n"), std::string::npos) << run.out;
}

TEST_F(ZvkdumpExitStatus, ACorruptedBucketIsDamaged) {
  std::string damaged = m_capture;
  for (size_t i = m_offsets[1] + 40; i < m_offsets[1] + 60; ++i) damaged[i] ^= '\xff';
  const Ran run = run_on(damaged);
  EXPECT_EQ(run.status, kExitDamaged);
  ASSERT_EQ(lines_of(run.err).size(), 1u) << run.err;
  EXPECT_NE(run.err.find("bucket 1 at offset " + std::to_string(m_offsets[1]) + " is damaged"),
            std::string::npos)
      << run.err;
}

TEST_F(ZvkdumpExitStatus, AHeaderCountingMoreBucketsThanTheFileHoldsMeansCut) {
  // Cut at a bucket's end, the bytes left are all whole: only the count tells.
  const Ran cut = run_on(m_capture.substr(0, m_offsets[2]));
  EXPECT_EQ(cut.status, kExitDamaged);
  EXPECT_EQ(cut.err, "zvkdump: " + m_path +
                         ": cut short: its header counts 3 buckets, the file holds 2 whole\n");
  const Ran claims_more = run_on(with_header_count(m_capture, 4, end_time_of(m_capture)));
  EXPECT_EQ(claims_more.status, kExitDamaged);
  EXPECT_EQ(claims_more.err, "zvkdump: " + m_path +
                                 ": cut short: its header counts 4 buckets, the file holds 3 "
                                 "whole\n");
  const Ran json = run_zvkdump({"--json", m_path});
  EXPECT_NE(json.out.find("\"unfinished\":false,\"clean\":false}"), std::string::npos) << json.out;
}

TEST_F(ZvkdumpExitStatus, AnUnfinishedCaptureIsReadWholeAndSaidSo) {
  // As a killed process leaves it: the header as it was opened, whole buckets.
  const Ran killed = run_on(with_header_count(m_capture, 0, 0));
  EXPECT_EQ(killed.status, kExitReadWhole);
  ASSERT_EQ(lines_of(killed.err).size(), 1u) << killed.err;
  EXPECT_NE(killed.err.find(": unfinished capture: its header counts 0 buckets, the file holds 3 "
                            "whole"),
            std::string::npos)
      << killed.err;
  EXPECT_NE(killed.out.find("\n3 whole buckets\n"), std::string::npos) << killed.out;
  const Ran json = run_zvkdump({"--json", m_path});
  EXPECT_NE(json.out.find("\"unfinished\":true,\"clean\":true}"), std::string::npos) << json.out;

  // Killed after a suspend and resume: the header counts the buckets before the
  // suspend, and the file holds more.
  const Ran resumed = run_on(with_header_count(m_capture, 2, end_time_of(m_capture)));
  EXPECT_EQ(resumed.status, kExitReadWhole);
  EXPECT_NE(resumed.err.find(": unfinished capture: its header counts 2 buckets, the file holds 3 "
                             "whole"),
            std::string::npos)
      << resumed.err;

  // Killed while writing a bucket: unfinished, and torn.
  const Ran torn = run_on(with_header_count(m_capture, 0, 0).substr(0, m_offsets[3] - 5));
  EXPECT_EQ(torn.status, kExitDamaged);
  const std::vector<std::string> lines = lines_of(torn.err);
  ASSERT_EQ(lines.size(), 2u) << torn.err;
  EXPECT_NE(lines[0].find(" is torn: "), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find(": unfinished capture: "), std::string::npos) << lines[1];
}

TEST_F(ZvkdumpExitStatus, WhatIsNotACaptureIsOneAndWeighsMoreThanDamage) {
  const Ran text = run_on(std::string(200, 'x'), "notes.zvkraw");
  EXPECT_EQ(text.status, kExitNotRead);
  EXPECT_EQ(text.err, "zvkdump: " + m_path + ": not a capture file (no ZVKRAWDF magic)\n");
  const std::string not_capture = m_path;
  const std::string cut = m_dir.file("cut.zvkraw");
  write_bytes(cut, m_capture.substr(0, m_offsets[2]));
  const std::string whole = m_dir.file("whole.zvkraw");
  write_bytes(whole, m_capture);
  EXPECT_EQ(run_zvkdump({whole, cut}).status, kExitDamaged);
  EXPECT_EQ(run_zvkdump({cut, not_capture, whole}).status, kExitNotRead);
  EXPECT_EQ(run_zvkdump({not_capture, cut}).status, kExitNotRead);
  EXPECT_EQ(run_zvkdump({whole, whole}).status, kExitReadWhole);
}

TEST(ZvkdumpCommandLine, HelpTellsTheExitStatuses) {
  const Ran run = run_zvkdump({"--help"});
  EXPECT_NE(run.out.find("Notes on how a file was read go to stderr"), std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("Exit status: 0 every file read whole, an unfinished capture included"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("); 1 a file missing, unreadable or not a capture; 2 a usage\nerror; 3 "
                         "every file read, but one damaged or cut"),
            std::string::npos)
      << run.out;
}

}  // namespace
}  // namespace zorvek
