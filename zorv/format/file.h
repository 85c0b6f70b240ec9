#pragma once

// The capture file: an 88-byte header with its strings after it, then buckets,
// each a 32-byte header and a zlib stream of records.

#include <cstddef>
#include <cstdint>

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

// Length of the strings that follow the header's fixed part. `reserved` is part
// of the sum on purpose, though always 0.
inline uint32_t get_header_payload_size(const ZVKFileHeader* hdr) {
  return static_cast<uint32_t>(hdr->cpu_model_str_len) + hdr->job_uid_size +
         hdr->hostname_str_len + hdr->reserved + hdr->instance_str_len;
}

}  // namespace zorvek
