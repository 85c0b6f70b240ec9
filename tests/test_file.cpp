#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <sstream>
#include <vector>

#include "tests/test_support.h"
#include "tools/zvkbucketreader.h"
#include "tools/zvkfileheader.h"
#include "tools/zvkfilereader.h"
#include "zorv/io/zvkfile.h"
#include "zorv/io/zvkfilewriter.h"
#include "zorv/utils/cpuinfo.h"

namespace zorvek {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::log_messages;
using testing_support::read_text_file;
using testing_support::run_in_child;
using testing_support::TempDir;

// A header block with the given strings, as the writer lays it out.
std::vector<uint64_t> make_header(const std::string& cpu, const std::string& job,
                                  const std::string& host, const std::string& instance) {
  std::vector<uint64_t> block((kZVKFileHeaderSize + cpu.size() + job.size() + host.size() +
                               instance.size() + 7) / 8, 0);
  auto* hdr = reinterpret_cast<ZVKFileHeader*>(block.data());
  std::memcpy(hdr->key, kZVKFileKey, 8);
  hdr->ZVKVersion = 3;
  hdr->compression = 1000001;
  hdr->ZVKConfig = 1;
  hdr->clock_shift = 42;
  hdr->pid = 1234;
  hdr->max_bucket_size = 10;
  hdr->max_uncompressed_size = 20;
  hdr->num_buckets = 2;
  hdr->cpu_model_str_len = static_cast<uint16_t>(cpu.size());
  hdr->job_uid_size = static_cast<uint16_t>(job.size());
  hdr->hostname_str_len = static_cast<uint16_t>(host.size());
  hdr->instance_str_len = static_cast<uint16_t>(instance.size());
  std::string strings = cpu + job + host + instance;
  std::memcpy(hdr->data, strings.data(), strings.size());
  return block;
}

std::string local(uint64_t ns) {
  time_t seconds = static_cast<time_t>(ns / 1000000000ULL);
  struct tm tm;
  localtime_r(&seconds, &tm);
  char text[64];
  size_t used = strftime(text, sizeof(text), "%F %H:%M:%S", &tm);
  snprintf(text + used, sizeof(text) - used, ".%06ld", static_cast<long>(ns % 1000000000ULL / 1000));
  return text;
}

TEST(FileHeader, AccessorsFollowTheLengths) {
  auto block = make_header("Zen", "job-1", "algo-1", "ml.p5");
  const auto* hdr = reinterpret_cast<const ZVKFileHeader*>(block.data());
  EXPECT_EQ(get_header_payload_size(hdr), 3u + 5 + 6 + 5);
  EXPECT_EQ(get_cpu_model_id(hdr), "Zen");
  EXPECT_EQ(get_jobuid(hdr), "job-1");
  EXPECT_EQ(get_hostname(hdr), "algo-1");
  EXPECT_EQ(get_instance_type(hdr), "ml.p5");
}

TEST(FileHeader, DumpText) {
  auto block = make_header("Zen", "job-1", "algo-1", "ml.p5");
  auto* hdr = reinterpret_cast<ZVKFileHeader*>(block.data());
  hdr->start_time = 1700000000123456789ULL;
  hdr->end_time = 1700000001000000000ULL;
  std::ostringstream out;
  ASSERT_TRUE(dump_zvkfile_header(hdr, out).ok());
  const std::string expected =
      "\tMagic= 'ZVKRAWDF'\n\tZVKVersion=          3,\n\tcompression= 1000001,\n\tConfig= 1,\n\t"
      "start= " + local(hdr->start_time) + ",\n\tend= " + local(hdr->end_time) +
      ",\n\tclock_offset= 42,\n\tpid= 1234,\n\tmax_bucket= 10,\n\tmax_uncompressed= 20,\n\t"
      "num_buckets= 2,\n\tcomp_dict_size= 0,\n\tcpu_model= 0,\n\tcpu_model_name_size= 3,\n\t"
      "job_uid_size= 5,\n\thostname_size= 6,\n\tinstance_size= 5,\n\treserved= 0,\n\t"
      "CPU Model Name= 'Zen'\n\tJob UID= 'job-1'\n\tHostname= \"algo-1\"\n\tInstance Type= \"ml.p5\"\n";
  EXPECT_EQ(out.str(), expected);
}

TEST(FileHeader, NoJobOrInstanceLinesWhenEmptyAndEpochEnd) {
  auto block = make_header("Zen", "", "algo-1", "");
  const auto* hdr = reinterpret_cast<const ZVKFileHeader*>(block.data());
  EXPECT_EQ(get_cpu_model_id(hdr), "Zen");
  EXPECT_EQ(get_hostname(hdr), "algo-1");
  std::ostringstream out;
  dump_zvkfile_header(hdr, out);
  const std::string text = out.str();
  EXPECT_EQ(text.find("Job UID"), std::string::npos);
  EXPECT_EQ(text.find("Instance Type"), std::string::npos);
  EXPECT_NE(text.find("\tend= " + local(0) + ",\n"), std::string::npos);  // the epoch
  const std::string tail = "reserved= 0,\n\tCPU Model Name= 'Zen'\n\tHostname= \"algo-1\"\n";
  ASSERT_GE(text.size(), tail.size());
  EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
}

TEST(FileHeader, NullHeaderIsAFailedPrecondition) {
  std::ostringstream out;
  Status status = dump_zvkfile_header(nullptr, out);
  EXPECT_EQ(status.code_, error::FAILED_PRECONDITION);
  EXPECT_EQ(status.msg_, "File header is nullptr!");
}

// A buffer in its own block, filled with records of the given payload sizes.
class TestBuffer {
 public:
  explicit TestBuffer(uint32_t capacity) : m_block((capacity + 8 + 7) / 8, 0) {
    buffer()->len_buffer = capacity;
  }
  ZVKBuffer* buffer() { return reinterpret_cast<ZVKBuffer*>(m_block.data()); }
  void add(uint64_t timestamp, uint16_t payload) {
    ZVKRecord header{};
    header.timestamp = timestamp;
    header.event_type = make_event_word(ANNOTATION, 0, 3);
    header.payload_size = payload;
    char* at = buffer()->record_buffer + buffer()->num_bytes;
    std::memcpy(at, &header, sizeof(header));
    std::memset(at + sizeof(header), 'p', payload);
    buffer()->num_bytes += record_size(0, payload);
  }

 private:
  std::vector<uint64_t> m_block;
};

class BucketWriterTest : public ::testing::Test {
 protected:
  BucketWriterTest() {
    path = dir.file("buckets.zvkraw");
    fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0664);
  }
  ~BucketWriterTest() override { close(fd); }

  std::vector<char> contents() {
    std::vector<char> bytes(lseek(fd, 0, SEEK_END));
    pread(fd, bytes.data(), bytes.size(), 0);
    return bytes;
  }

  TempDir dir;
  std::string path;
  int fd;
};

TEST_F(BucketWriterTest, EmptyBufferGivesNoBucketAndNoCounts) {
  ZVKBucketWriter writer(fd, 1);
  TestBuffer empty(256);
  CaptureStderr();
  EXPECT_TRUE(writer.write_bucket(empty.buffer()).ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            std::vector<std::string>{"WARNING| Received empty bucket!"});
  EXPECT_EQ(contents().size(), 0u);
  EXPECT_EQ(writer.get_max_bucket_size(), 0u);
  EXPECT_EQ(writer.get_uncompressed_bytes(), 0u);
  EXPECT_EQ(writer.get_total_records_written(), 0u);
  EXPECT_EQ(writer.get_scratch_capacity(), 0u);
  EXPECT_TRUE(writer.get_ip_list().empty());
}

TEST_F(BucketWriterTest, ScratchGrowsOnlyForALargerBound) {
  ZVKBucketWriter writer(fd, 1);
  TestBuffer a(512), b(512), c(512);
  a.add(1, 100 - 24);
  b.add(2, 300 - 24);
  c.add(3, 200 - 24);
  ASSERT_TRUE(writer.write_bucket(a.buffer()).ok());
  EXPECT_EQ(writer.get_scratch_capacity(), compressBound(100));
  ASSERT_TRUE(writer.write_bucket(b.buffer()).ok());
  EXPECT_EQ(writer.get_scratch_capacity(), compressBound(300));
  ASSERT_TRUE(writer.write_bucket(c.buffer()).ok());
  EXPECT_EQ(writer.get_scratch_capacity(), compressBound(300));
  EXPECT_EQ(writer.get_max_bucket_size(), 308u);
  EXPECT_EQ(writer.get_uncompressed_bytes(), 600u + 3 * 32);
  EXPECT_EQ(writer.get_total_records_written(), 3u);
  EXPECT_EQ(writer.get_written_bytes(), contents().size());
}

TEST_F(BucketWriterTest, BucketHeaderAndStreamRoundTrip) {
  ZVKBucketWriter writer(fd, 1);
  TestBuffer records(1024);
  records.add(50, 8);
  records.add(20, 0);
  records.add(90, 3);  // unaligned neighbours are fine
  records.add(70, 0);
  ASSERT_TRUE(writer.write_bucket(records.buffer()).ok());
  std::vector<char> bytes = contents();
  ZVKFileBucket bucket;
  std::memcpy(&bucket, bytes.data(), sizeof(bucket));
  EXPECT_EQ(bucket.tmin, 20u);
  EXPECT_EQ(bucket.tmax, 90u);
  EXPECT_EQ(bucket.number_of_records_in_bucket, 4u);
  EXPECT_EQ(bucket.uncompressed_size, records.buffer()->num_bytes);
  EXPECT_EQ(bytes.size(), 32u + bucket.compressed_size);
  EXPECT_EQ(writer.get_max_compressed_size(), bucket.compressed_size);

  std::vector<char> inflated(bucket.uncompressed_size);
  ZVKBucketReader reader(reinterpret_cast<const ZVKFileBucket*>(bytes.data()), inflated.data(),
                         static_cast<int32_t>(inflated.size()));
  ASSERT_TRUE(reader.decompress().ok());
  EXPECT_EQ(std::memcmp(inflated.data(), records.buffer()->record_buffer, inflated.size()), 0);
  std::vector<uint64_t> stamps;
  ZVKRecordReader record;
  Status next;
  while ((next = reader.get_next_record(record)).ok()) stamps.push_back(record.timestamp());
  EXPECT_EQ(next.code_, error::END_OF_DATA);
  EXPECT_EQ(stamps, (std::vector<uint64_t>{50, 20, 90, 70}));
  EXPECT_EQ(reader.get_current_offset(), bucket.uncompressed_size);
  std::unique_ptr<ZVKRecordReader> after;
  EXPECT_EQ(reader.get_next_record(&after).code_, error::END_OF_DATA);
}

TEST_F(BucketWriterTest, OneRecordHasEqualBounds) {
  ZVKBucketWriter writer(fd, 1);
  TestBuffer one(64);
  one.add(33, 0);
  ASSERT_TRUE(writer.write_bucket(one.buffer()).ok());
  ZVKFileBucket bucket;
  std::memcpy(&bucket, contents().data(), sizeof(bucket));
  EXPECT_EQ(bucket.tmin, 33u);
  EXPECT_EQ(bucket.tmax, 33u);
}

TEST_F(BucketWriterTest, ReadOnlyDescriptorFailsWithTheSystemsText) {
  const int read_only = open(path.c_str(), O_RDONLY);
  ZVKBucketWriter writer(read_only, 1);
  TestBuffer one(64);
  one.add(1, 0);
  CaptureStderr();
  Status status = writer.write_bucket(one.buffer());
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            std::vector<std::string>{"ERROR| Failed to write to file! Bad file descriptor"});
  EXPECT_EQ(status.code_, error::FAILURE);
  EXPECT_EQ(status.msg_, "Bad file descriptor");
  EXPECT_EQ(writer.get_written_bytes(), 0u);
  EXPECT_EQ(writer.get_total_records_written(), 1u);  // counted before the write
  close(read_only);
}

TEST_F(BucketWriterTest, LevelZeroStoresAValidStream) {
  ZVKBucketWriter writer(fd, 0);
  TestBuffer records(256);
  records.add(1, 100);
  ASSERT_TRUE(writer.write_bucket(records.buffer()).ok());
  std::vector<char> bytes = contents();
  ZVKFileBucket bucket;
  std::memcpy(&bucket, bytes.data(), sizeof(bucket));
  EXPECT_GT(bucket.compressed_size, bucket.uncompressed_size);  // stored, with zlib framing
  std::vector<char> inflated(bucket.uncompressed_size);
  uLongf length = inflated.size();
  EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(inflated.data()), &length,
                       reinterpret_cast<const Bytef*>(bytes.data() + 32), bucket.compressed_size),
            Z_OK);
}

TEST_F(BucketWriterTest, KilledWriterFileReadsBucketByBucket) {
  auto block = make_header("Zen", "", "host", "");
  auto* hdr = reinterpret_cast<ZVKFileHeader*>(block.data());
  hdr->num_buckets = 0;  // never rewritten
  const size_t header_size = kZVKFileHeaderSize + get_header_payload_size(hdr);
  ASSERT_EQ(write(fd, hdr, header_size), static_cast<ssize_t>(header_size));
  ZVKBucketWriter writer(fd, 1);
  for (int i = 0; i < 3; ++i) {
    TestBuffer records(256);
    records.add(10 + i, 8);
    records.add(20 + i, 8);
    ASSERT_TRUE(writer.write_bucket(records.buffer()).ok());
  }
  auto file = testing_support::read_capture(path);
  EXPECT_EQ(file.header()->num_buckets, 0u);
  ASSERT_EQ(file.buckets.size(), 3u);
  EXPECT_FALSE(file.torn);
  EXPECT_EQ(file.buckets[2].records[1].timestamp, 22u);

  ASSERT_EQ(ftruncate(fd, lseek(fd, 0, SEEK_END) - 5), 0);
  auto torn = testing_support::read_capture(path);
  EXPECT_EQ(torn.buckets.size(), 2u);
  EXPECT_TRUE(torn.torn);
}

// A write that takes at most a few bytes a call and is interrupted every third
// call, as a pipe, a network file system or a signal can make write(2) do.
std::atomic<int> g_write_calls{0};
std::atomic<int> g_fail_after_bytes{-1};
std::atomic<int> g_bytes_written{0};

ssize_t short_write(int fd, const void* data, size_t size) {
  if (++g_write_calls % 3 == 0) {
    errno = EINTR;
    return -1;
  }
  if (g_fail_after_bytes >= 0 && g_bytes_written >= g_fail_after_bytes) {
    errno = ENOSPC;
    return -1;
  }
  const ssize_t wrote = write(fd, data, std::min<size_t>(size, 7));
  if (wrote > 0) g_bytes_written += static_cast<int>(wrote);
  return wrote;
}

void reset_short_write(int fail_after_bytes = -1) {
  g_write_calls = 0;
  g_bytes_written = 0;
  g_fail_after_bytes = fail_after_bytes;
}

TEST_F(BucketWriterTest, WriteFullyContinuesShortWritesAndRetriesInterruptions) {
  reset_short_write();
  const std::string text = "a record that takes several short writes to get out";
  int error_number = -1;
  EXPECT_EQ(write_fully(fd, text.data(), text.size(), &error_number, &short_write), text.size());
  EXPECT_EQ(error_number, 0);
  EXPECT_GT(g_write_calls.load(), 9);  // it did take several calls, some interrupted
  const std::vector<char> bytes = contents();
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), text);
}

TEST_F(BucketWriterTest, WriteFullyStopsAtARealErrorAndSaysHowFarItGot) {
  reset_short_write(14);
  const std::string text(40, 'x');
  int error_number = 0;
  EXPECT_EQ(write_fully(fd, text.data(), text.size(), &error_number, &short_write), 14u);
  EXPECT_EQ(error_number, ENOSPC);
}

TEST_F(BucketWriterTest, AShortWriteDoesntLoseTheBucket) {
  reset_short_write();
  ZVKBucketWriter writer(fd, 1, &short_write);
  TestBuffer first(1024), second(1024);
  for (uint64_t t = 1; t <= 5; ++t) first.add(t, 40);
  for (uint64_t t = 6; t <= 8; ++t) second.add(t, 10);
  CaptureStderr();
  ASSERT_TRUE(writer.write_bucket(first.buffer()).ok());
  ASSERT_TRUE(writer.write_bucket(second.buffer()).ok());
  EXPECT_TRUE(log_messages(GetCapturedStderr()).empty());
  EXPECT_EQ(writer.get_lost_buckets(), 0u);
  EXPECT_EQ(writer.get_written_bytes(), static_cast<uint64_t>(contents().size()));

  // Both buckets whole and back to back, the second right after the first.
  const std::vector<char> bytes = contents();
  size_t at = 0;
  std::vector<uint64_t> stamps;
  for (int i = 0; i < 2; ++i) {
    ASSERT_LE(at + sizeof(ZVKFileBucket), bytes.size());
    ZVKFileBucket bucket;
    std::memcpy(&bucket, bytes.data() + at, sizeof(bucket));
    ASSERT_LE(at + 32 + bucket.compressed_size, bytes.size());
    std::vector<char> inflated(bucket.uncompressed_size);
    ZVKBucketReader reader(reinterpret_cast<const ZVKFileBucket*>(bytes.data() + at),
                           inflated.data(), static_cast<int32_t>(inflated.size()));
    ASSERT_TRUE(reader.decompress().ok());
    ZVKRecordReader record;
    while (reader.get_next_record(record).ok()) stamps.push_back(record.timestamp());
    at += 32 + bucket.compressed_size;
  }
  EXPECT_EQ(at, bytes.size());
  EXPECT_EQ(stamps, (std::vector<uint64_t>{1, 2, 3, 4, 5, 6, 7, 8}));
}

// Out of room part-way through a bucket: the part written is cut away again, and
// the loss is told with the system's reason.
TEST_F(BucketWriterTest, AnErrorPartWayThroughABucketCutsItAway) {
  reset_short_write();
  ZVKBucketWriter writer(fd, 1, &short_write);
  TestBuffer first(1024), second(1024);
  first.add(1, 40);
  second.add(2, 40);
  ASSERT_TRUE(writer.write_bucket(first.buffer()).ok());
  const size_t whole = contents().size();
  reset_short_write(10);
  CaptureStderr();
  const Status status = writer.write_bucket(second.buffer());
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            std::vector<std::string>{"ERROR| Failed to write to file! No space left on device"});
  EXPECT_EQ(status.msg_, "No space left on device");
  EXPECT_EQ(contents().size(), whole);
  EXPECT_EQ(writer.get_lost_buckets(), 1u);
}

TEST(FileReader, RejectsWhatIsNotACaptureFile) {
  TempDir dir;
  const std::string path = dir.file("x");
  std::FILE* f = std::fopen(path.c_str(), "w");
  std::fputs("ZVK", f);
  std::fclose(f);
  ZVKFileReader reader;
  Status status = reader.open(path);
  EXPECT_FALSE(status.ok());
  EXPECT_EQ(status.msg_, "too short to be a capture file (3 bytes, the header alone is 88)");
  auto block = make_header("", "", "h", "");
  reinterpret_cast<ZVKFileHeader*>(block.data())->hostname_str_len = 5000;
  f = std::fopen(path.c_str(), "w");
  std::fwrite(block.data(), 1, 89, f);
  std::fclose(f);
  ZVKFileReader second;
  EXPECT_EQ(second.open(path).msg_, "header claims 5088 bytes but the file has 89");
}

// The lengths are stored in 16 bits while the strings go into the header block
// whole, and the writer writes as many payload bytes as the stored lengths add up
// to. A host name of 65,541 bytes keeps 5 as its length; the next bytes of the name
// stand where the instance type is looked for, and the first bucket follows the
// header that the stored lengths describe.
TEST(FileHeader, StringLengthWrapsAtSixteenBits) {
  TempDir dir;
  std::string host(65536 + 5, ' ');
  for (size_t i = 0; i < host.size(); ++i) host[i] = static_cast<char>('a' + i % 26);
  // The rotation timer is set once per process.
  EXPECT_EQ(0, run_in_child([&] {
    ZVKQueue<ZVKBuffer> fill(2, 4096), to_write;
    ZVKFileWriter writer(&fill, &to_write, JobMetadata{"ml.p5", host, "job-1"}, 1000001);
    ASSERT_TRUE(writer.start(dir.file("wrapped")).ok());
    ZVKBuffer* buffer = nullptr;
    fill.pop(&buffer);
    ASSERT_NE(buffer, nullptr);
    ZVKRecord record{};
    record.timestamp = 77;
    std::memcpy(buffer->record_buffer, &record, sizeof(record));
    buffer->num_bytes = sizeof(record);
    to_write.push(buffer);
    CaptureStderr();
    ASSERT_TRUE(writer.stop().ok());
    GetCapturedStderr();
  }));
  const std::string bytes = read_text_file(dir.file("wrapped_0.zvkraw"));
  ASSERT_GE(bytes.size(), kZVKFileHeaderSize);
  ZVKFileHeader hdr;
  std::memcpy(&hdr, bytes.data(), sizeof(hdr));
  const std::string cpu = get_cpu_model_id();
  EXPECT_EQ(hdr.cpu_model_str_len, cpu.size());
  EXPECT_EQ(hdr.job_uid_size, 5u);
  EXPECT_EQ(hdr.hostname_str_len, 5u);
  EXPECT_EQ(hdr.instance_str_len, 5u);
  EXPECT_EQ(hdr.num_buckets, 1u);
  const size_t payload = cpu.size() + 5 + 5 + 5;
  ASSERT_EQ(get_header_payload_size(&hdr), payload);
  ASSERT_GE(bytes.size(), kZVKFileHeaderSize + payload + sizeof(ZVKFileBucket));
  EXPECT_EQ(bytes.substr(82, payload), cpu + "job-1" + host.substr(0, 10));
  // Where six zero bytes stand in a sound header, the name goes on.
  EXPECT_EQ(bytes.substr(82 + payload, 6), host.substr(10, 6));

  ZVKFileBucket bucket;
  std::memcpy(&bucket, bytes.data() + kZVKFileHeaderSize + payload, sizeof(bucket));
  EXPECT_EQ(bucket.tmin, 77u);
  EXPECT_EQ(bucket.number_of_records_in_bucket, 1u);
  EXPECT_EQ(bucket.uncompressed_size, sizeof(ZVKRecord));
  EXPECT_EQ(bytes.size(), kZVKFileHeaderSize + payload + sizeof(bucket) + bucket.compressed_size);

  std::vector<char> block(kZVKFileHeaderSize + payload);
  std::memcpy(block.data(), bytes.data(), block.size());
  const auto* read_back = reinterpret_cast<const ZVKFileHeader*>(block.data());
  EXPECT_EQ(get_hostname(read_back), "abcde");
  EXPECT_EQ(get_instance_type(read_back), "fghij");
}

}  // namespace
}  // namespace zorvek
