// zvkdump's decoder against damaged input: every truncation and every flipped byte
// of a real capture, and buckets whose stream is sound but whose records aren't.
// Under the sanitizers a stray read fails the run; here each result must be a
// clean answer: true with nothing on err, or false with one line naming the file.

#include <gtest/gtest.h>
#include <zlib.h>

#include <fstream>
#include <sstream>

#include "tests/test_support.h"
#include "tools/zvkdumper.h"
#include "zorv/io/zvkfilewriter.h"
#include "zorv/zvkannotator.h"

namespace zorvek {
namespace {

using testing_support::read_text_file;
using testing_support::TempDir;

constexpr DumpMode kModes[] = {DumpMode::kText, DumpMode::kJson, DumpMode::kSummary};

void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), bytes.size());
}

// A capture of several small buckets with every kind of record the dump decodes:
// the time marker, begin, end, marker, and raw records of other sources.
std::string make_capture(const TempDir& dir) {
  ZVKQueue<ZVKBuffer> fill(4, 1024), to_write;
  {
    ZVKFileWriter writer(&fill, &to_write, JobMetadata{"job-1", "host", "m5.large"}, 1000001);
    EXPECT_TRUE(writer.start(dir.file("source_%t")).ok());
    std::ostringstream quiet;
    auto* saved = std::cerr.rdbuf(quiet.rdbuf());  // the helper's closing line
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
    std::cerr.rdbuf(saved);
    EXPECT_TRUE(writer.stop().ok());
  }
  const auto files = dir.list();
  EXPECT_EQ(files.size(), 1u);
  const std::string bytes = read_text_file(dir.file(files[0]));
  std::remove(dir.file(files[0]).c_str());
  return bytes;
}

// Dumps `bytes` as a file in every mode; checks the answer is a clean one.
// Returns whether the dump read it to its end.
bool dump_cleanly(const TempDir& dir, const std::string& bytes, std::string* error = nullptr) {
  const std::string path = dir.file("probe.zvkraw");
  write_bytes(path, bytes);
  bool first = true;
  bool read_whole = false;
  for (DumpMode mode : kModes) {
    std::ostringstream out, err;
    const bool whole = dump_file(path, mode, out, err);
    const std::string said = err.str();
    if (whole) {
      EXPECT_EQ(said, "");
    } else {
      EXPECT_EQ(said.rfind("zvkdump: " + path + ": ", 0), 0u) << said;
      EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
      if (error != nullptr) *error = said;
    }
    if (!first) {
      EXPECT_EQ(whole, read_whole) << "modes disagree";
    }
    first = false;
    read_whole = whole;
  }
  return read_whole;
}

TEST(ZvkdumpDamage, TheCaptureItselfReadsWhole) {
  TempDir dir;
  const std::string capture = make_capture(dir);
  EXPECT_TRUE(dump_cleanly(dir, capture));
  const std::string path = dir.file("whole.zvkraw");
  write_bytes(path, capture);
  std::ostringstream out, err;
  ASSERT_TRUE(dump_file(path, DumpMode::kText, out, err));
  EXPECT_NE(out.str().find("\n3 whole buckets\n"), std::string::npos) << out.str();
}

TEST(ZvkdumpDamage, EveryTruncationGetsAnAnswer) {
  TempDir dir;
  const std::string capture = make_capture(dir);
  size_t read_whole = 0;
  for (size_t length = 0; length < capture.size(); ++length) {
    SCOPED_TRACE("length " + std::to_string(length));
    read_whole += dump_cleanly(dir, capture.substr(0, length));
  }
  // Cuts at a bucket's end read whole, and so do cuts inside the last bucket,
  // which a killed writer leaves: torn, reported, no failure.
  EXPECT_GT(read_whole, 0u);
  EXPECT_LT(read_whole, capture.size());
}

TEST(ZvkdumpDamage, EveryFlippedByteGetsAnAnswer) {
  TempDir dir;
  const std::string capture = make_capture(dir);
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

// A capture whose one bucket is a sound zlib stream of `records`.
std::string capture_with_bucket(const std::string& capture, const std::string& records,
                                uint64_t number_of_records) {
  ZVKFileHeader header;
  std::memcpy(&header, capture.data(), sizeof(header));
  const size_t header_size = kZVKFileHeaderSize + get_header_payload_size(&header);
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
  return capture.substr(0, header_size) +
         std::string(reinterpret_cast<const char*>(&bucket), sizeof(bucket)) + stream;
}

std::string record_bytes(uint32_t event_word, uint16_t call_chain_size, uint16_t payload_size,
                         const std::string& body) {
  ZVKRecord record = {};
  record.timestamp = 42;
  record.event_type = event_word;
  record.call_chain_size = call_chain_size;
  record.payload_size = payload_size;
  return std::string(reinterpret_cast<const char*>(&record), sizeof(record)) + body;
}

TEST(ZvkdumpDamage, RecordsThatDontFitTheirBucketAreReported) {
  TempDir dir;
  const std::string capture = make_capture(dir);
  const uint32_t begin = make_event_word(ANNOTATION, 0, annotations::BEGIN);
  std::string error;

  const std::string cut_header = record_bytes(begin, 0, 0, "").substr(0, 10);
  EXPECT_FALSE(dump_cleanly(dir, capture_with_bucket(capture, cut_header, 1), &error));
  EXPECT_NE(error.find("Truncated record header at offset 0"), std::string::npos) << error;

  const std::string overrun = record_bytes(begin, 0, 64, std::string(16, 'x'));
  EXPECT_FALSE(dump_cleanly(dir, capture_with_bucket(capture, overrun, 1), &error));
  EXPECT_NE(error.find("runs past the end of the bucket"), std::string::npos) << error;

  const std::string chains = record_bytes(make_event_word(CPU, 0, 0), 0xffff, 0, "");
  EXPECT_FALSE(dump_cleanly(dir, capture_with_bucket(capture, chains, 1), &error));
  EXPECT_NE(error.find("runs past the end of the bucket"), std::string::npos) << error;

  const std::string miscounted = record_bytes(begin, 0, 0, "");
  EXPECT_FALSE(dump_cleanly(dir, capture_with_bucket(capture, miscounted, 2), &error));
  EXPECT_NE(error.find("holds 1 records but its header says 2"), std::string::npos) << error;
}

TEST(ZvkdumpDamage, OddPayloadsInsideTheirRecordsAreShownAsTheyAre) {
  TempDir dir;
  const std::string capture = make_capture(dir);
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
  std::ostringstream out, err;
  ASSERT_TRUE(dump_file(path, DumpMode::kText, out, err)) << err.str();
  const std::string text = out.str();
  EXPECT_NE(text.find("BEGIN cpu=0 pid=0 tid=0 payload=61626364"), std::string::npos) << text;
  EXPECT_NE(text.find("msg=\"unending\""), std::string::npos) << text;
  EXPECT_NE(text.find("TIME_MARKER cpu=0 pid=0 tid=0 payload=0101010101010101"), std::string::npos)
      << text;
  EXPECT_NE(text.find("UNKNOWN cpu=0"), std::string::npos) << text;
  EXPECT_NE(text.find("42 UNKNOWN device=0 event=0"), std::string::npos) << text;
  EXPECT_TRUE(dump_cleanly(dir, capture_with_bucket(capture, odd, 5)));
}

}  // namespace
}  // namespace zorvek
