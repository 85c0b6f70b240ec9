#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <unordered_set>

#include "zorv/io/zvkbuffer.h"
#include "zorv/io/zvkrecord.h"
#include "zorv/utils/status.h"

namespace zorvek {

constexpr char kZVKFileKey[8] = {'Z', 'V', 'K', 'R', 'A', 'W', 'D', 'F'};
constexpr uint32_t kZVKFileVersion = 3;
constexpr uint64_t kZVKFileConfig = 1;
// Declared size of the header; its string payload starts at 82, and the 6 bytes
// between the payload's end and the first bucket are zero.
constexpr uint32_t kZVKFileHeaderSize = 88;
constexpr uint32_t kZVKFileHeaderPayloadOffset = 82;

struct ZVKFileHeader {
  char key[8];
  uint32_t ZVKVersion;
  uint32_t compression;
  uint64_t ZVKConfig;
  uint64_t start_time;
  uint64_t end_time;
  uint64_t clock_shift;
  uint32_t pid;
  uint32_t max_bucket_size;
  uint32_t max_uncompressed_size;
  uint32_t num_buckets;
  uint32_t compression_dict_size;
  uint32_t cpu_model;
  uint16_t cpu_model_str_len;
  uint16_t job_uid_size;
  uint16_t hostname_str_len;
  uint16_t instance_str_len;
  uint16_t reserved;
  char data[];
};
static_assert(offsetof(ZVKFileHeader, key) == 0, "key at 0");
static_assert(offsetof(ZVKFileHeader, ZVKVersion) == 8, "ZVKVersion at 8");
static_assert(offsetof(ZVKFileHeader, compression) == 12, "compression at 12");
static_assert(offsetof(ZVKFileHeader, ZVKConfig) == 16, "ZVKConfig at 16");
static_assert(offsetof(ZVKFileHeader, start_time) == 24, "start_time at 24");
static_assert(offsetof(ZVKFileHeader, end_time) == 32, "end_time at 32");
static_assert(offsetof(ZVKFileHeader, clock_shift) == 40, "clock_shift at 40");
static_assert(offsetof(ZVKFileHeader, pid) == 48, "pid at 48");
static_assert(offsetof(ZVKFileHeader, max_bucket_size) == 52, "max_bucket_size at 52");
static_assert(offsetof(ZVKFileHeader, max_uncompressed_size) == 56, "max_uncompressed at 56");
static_assert(offsetof(ZVKFileHeader, num_buckets) == 60, "num_buckets at 60");
static_assert(offsetof(ZVKFileHeader, compression_dict_size) == 64, "dict size at 64");
static_assert(offsetof(ZVKFileHeader, cpu_model) == 68, "cpu_model at 68");
static_assert(offsetof(ZVKFileHeader, cpu_model_str_len) == 72, "cpu_model_str_len at 72");
static_assert(offsetof(ZVKFileHeader, job_uid_size) == 74, "job_uid_size at 74");
static_assert(offsetof(ZVKFileHeader, hostname_str_len) == 76, "hostname_str_len at 76");
static_assert(offsetof(ZVKFileHeader, instance_str_len) == 78, "instance_str_len at 78");
static_assert(offsetof(ZVKFileHeader, reserved) == 80, "reserved at 80");
static_assert(offsetof(ZVKFileHeader, data) == kZVKFileHeaderPayloadOffset, "payload at 82");
static_assert(sizeof(ZVKFileHeader) == kZVKFileHeaderSize, "header block is 88 bytes");

struct ZVKFileBucket {
  uint64_t tmin;
  uint64_t tmax;
  uint64_t number_of_records_in_bucket;
  uint32_t compressed_size;
  uint32_t uncompressed_size;
  char buffer[];  // a zlib stream, as compress2 writes it
};
static_assert(offsetof(ZVKFileBucket, tmin) == 0, "tmin at 0");
static_assert(offsetof(ZVKFileBucket, tmax) == 8, "tmax at 8");
static_assert(offsetof(ZVKFileBucket, number_of_records_in_bucket) == 16, "count at 16");
static_assert(offsetof(ZVKFileBucket, compressed_size) == 24, "compressed_size at 24");
static_assert(offsetof(ZVKFileBucket, uncompressed_size) == 28, "uncompressed_size at 28");
static_assert(offsetof(ZVKFileBucket, buffer) == 32, "stream at 32");
static_assert(sizeof(ZVKFileBucket) == 32, "bucket header is 32 bytes");

constexpr uint32_t kZVKBucketHeaderSize = sizeof(ZVKFileBucket);

uint32_t get_header_payload_size(const ZVKFileHeader* hdr);
std::string get_cpu_model_id(const ZVKFileHeader* hdr);
std::string get_jobuid(const ZVKFileHeader* hdr);
std::string get_hostname(const ZVKFileHeader* hdr);
std::string get_instance_type(const ZVKFileHeader* hdr);
Status dump_zvkfile_header(const ZVKFileHeader* hdr, std::ostream& out);

// The system's write(2), or a stand-in with its contract.
using ZVKWriteFunction = ssize_t (*)(int fd, const void* data, size_t size);

// Writes all `size` bytes, continuing after a short write and retrying after
// EINTR. Returns the bytes written; fewer than `size` only on failure, with the
// reason in `*error` (0 when `write` wrote nothing and reported nothing).
size_t write_fully(int fd, const void* data, size_t size, int* error,
                   ZVKWriteFunction write_function);

// Turns one buffer into one bucket of the open file: walks its records for the time
// range and count, compresses, appends in one write. Lives on the writer thread only.
class ZVKBucketWriter {
 public:
  ZVKBucketWriter(int file_handle, int compression_level,
                  ZVKWriteFunction write_function = &::write);
  ~ZVKBucketWriter();
  ZVKBucketWriter(const ZVKBucketWriter&) = delete;
  ZVKBucketWriter& operator=(const ZVKBucketWriter&) = delete;

  // A bucket that can't be written whole leaves the file at its last whole bucket;
  // the first failure of a run is logged, and the loss when writing works again.
  Status write_bucket(const ZVKBuffer* buffer);

  uint32_t get_max_bucket_size() const { return m_max_bucket_size; }
  uint32_t get_max_compressed_size() const { return m_max_compressed_size; }
  uint64_t get_written_bytes() const { return m_written_bytes; }
  uint64_t get_uncompressed_bytes() const { return m_uncompressed_bytes; }
  uint64_t get_total_records_written() const { return m_total_records_written; }
  const std::unordered_set<uint64_t>& get_ip_list() const { return m_ip_list; }
  // Capacity of the scratch block's data area; it only ever grows.
  uint64_t get_scratch_capacity() const { return m_buffer_size; }
  // Buckets, and their records, lost since the last one that was written whole.
  uint64_t get_lost_buckets() const { return m_lost_buckets; }
  uint64_t get_lost_records() const { return m_lost_records; }

 private:
  Status lost_bucket(uint64_t records, Status why);
  void release_written_pages(off_t start, size_t length);

  std::unordered_set<uint64_t> m_ip_list;
  int m_file_handle;
  int m_comp_level;
  ZVKWriteFunction m_write;
  uint32_t m_max_bucket_size = 0;
  uint32_t m_max_compressed_size = 0;
  uint64_t m_written_bytes = 0;
  uint64_t m_uncompressed_bytes = 0;
  uint64_t m_total_records_written = 0;
  ZVKFileBucket* m_compressed_bucket = nullptr;
  uint64_t m_buffer_size = 0;
  uint32_t m_io_wait = 0;
  uint32_t m_compression_wait = 0;
  uint64_t m_lost_buckets = 0;
  uint64_t m_lost_records = 0;
  // The last bucket written whose pages are still cached.
  off_t m_unreleased_start = 0;
  size_t m_unreleased_length = 0;
};

// Reads one bucket held in memory: inflates it, then hands out its records in order.
class ZVKBucketReader {
 public:
  // A view of one record; fields are read with memcpy since records are packed
  // and need not be aligned.
  class ZVKRecordReader {
   public:
    explicit ZVKRecordReader(const char* data = nullptr)
        : record(reinterpret_cast<const ZVKRecord*>(data)) {}

    uint64_t timestamp() const { return read<uint64_t>(offsetof(ZVKRecord, timestamp)); }
    uint32_t pid() const { return read<uint32_t>(offsetof(ZVKRecord, pid)); }
    uint32_t tid() const { return read<uint32_t>(offsetof(ZVKRecord, tid)); }
    uint16_t num_callchains() const { return read<uint16_t>(offsetof(ZVKRecord, call_chain_size)); }
    // The entry's bytes; copy them out before use, the entry may be unaligned.
    const CallChain* callchain_at(int index) const {
      return reinterpret_cast<const CallChain*>(bytes() + kRecordHeaderSize + 16 * index);
    }
    uint16_t payload_size() const { return read<uint16_t>(offsetof(ZVKRecord, payload_size)); }
    uint32_t event_word() const { return read<uint32_t>(offsetof(ZVKRecord, event_type)); }
    uint32_t hardware_type() const { return event_word() >> 28; }
    uint32_t device_id() const { return (event_word() >> 20) & 0xffu; }
    uint32_t event_type() const { return event_word() & 0xfffffu; }
    const void* payload() const { return bytes() + kRecordHeaderSize + 16u * num_callchains(); }
    uint32_t size() const { return record_size(num_callchains(), payload_size()); }
    const char* bytes() const { return reinterpret_cast<const char*>(record); }

   private:
    template <typename T>
    T read(size_t offset) const {
      T value;
      std::memcpy(&value, bytes() + offset, sizeof(T));
      return value;
    }
    const ZVKRecord* record;
  };

  // `bucket` points at a whole bucket (header and stream) of at least
  // 32 + compressed_size readable bytes; `buffer` takes the inflated records and has
  // room for `bucket_size` bytes.
  ZVKBucketReader(const ZVKFileBucket* bucket, char* buffer, int32_t bucket_size);

  // Inflates the stream; must succeed before records are read.
  Status decompress();

  // END_OF_DATA after the last record; FAILURE for a record that runs past the end.
  Status get_next_record(ZVKRecordReader& reader);
  Status get_next_record(std::unique_ptr<ZVKRecordReader>* reader);

  uint64_t get_bucket_start_time() const { return tmin; }
  uint64_t get_bucket_end_time() const { return tmax; }
  uint64_t get_number_of_records_in_bucket() const { return number_of_records_in_bucket; }
  uint32_t get_compressed_size() const { return compressed_size; }
  uint32_t get_uncompressed_size() const { return uncompressed_size; }
  uint32_t get_current_offset() const { return curr_offset; }

 private:
  uint32_t m_bucket_size;
  uint32_t curr_offset = 0;
  const ZVKFileBucket* m_bucket;
  uint64_t tmin;
  uint64_t tmax;
  uint64_t number_of_records_in_bucket;
  uint32_t compressed_size;
  uint32_t uncompressed_size;
  char* m_buffer;
  bool m_inflated = false;
};

using ZVKRecordReader = ZVKBucketReader::ZVKRecordReader;

}  // namespace zorvek
