#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <unordered_set>

#include "zorv/format/file.h"
#include "zorv/io/zvkbuffer.h"
#include "zorv/utils/status.h"

namespace zorvek {

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

}  // namespace zorvek
