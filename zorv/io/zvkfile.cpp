#include "zorv/io/zvkfile.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "zorv/format/record.h"
#include "zorv/utils/logging.h"

namespace zorvek {

namespace {

uint64_t elapsed_us(std::chrono::steady_clock::time_point since) {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now() - since)
                                   .count()) /
         1000;
}

}  // namespace

size_t write_fully(int fd, const void* data, size_t size, int* error,
                   ZVKWriteFunction write_function) {
  const char* cursor = static_cast<const char*>(data);
  size_t done = 0;
  *error = 0;
  while (done < size) {
    const ssize_t wrote = write_function(fd, cursor + done, size - done);
    if (wrote > 0) {
      done += static_cast<size_t>(wrote);
    } else if (wrote < 0 && errno == EINTR) {
      continue;
    } else {
      *error = wrote < 0 ? errno : 0;
      break;
    }
  }
  return done;
}

ZVKBucketWriter::ZVKBucketWriter(int file_handle, int compression_level,
                                 ZVKWriteFunction write_function)
    : m_file_handle(file_handle), m_comp_level(compression_level), m_write(write_function) {}

ZVKBucketWriter::~ZVKBucketWriter() { free(m_compressed_bucket); }

Status ZVKBucketWriter::write_bucket(const ZVKBuffer* buffer) {
  const uint32_t num_bytes = buffer->num_bytes;
  if (num_bytes == 0) {
    LOG(WARNING) << "Received empty bucket!";
    return Status::OK();
  }
  // 64-bit: the bound of a buffer near 4 GiB passes 32 bits.
  const uint64_t bound = compressBound(num_bytes);
  if (m_buffer_size < bound) {
    free(m_compressed_bucket);
    m_buffer_size = bound;
    m_compressed_bucket = static_cast<ZVKFileBucket*>(malloc(bound + kZVKBucketHeaderSize));
    if (m_compressed_bucket == nullptr) {
      m_buffer_size = 0;
      return lost_bucket(0, Status(error::INSUFFICIENT_RESOURCES,
                                   "Couldn't allocate the compression block!"));
    }
  }
  // The 8 counts ZVKBuffer's two fields, the 32 ZVKFileBucket's header.
  m_max_bucket_size = std::max(m_max_bucket_size, num_bytes + 8);
  m_uncompressed_bytes += static_cast<uint64_t>(num_bytes) + kZVKBucketHeaderSize;

  uint64_t tmin = UINT64_MAX;
  uint64_t tmax = 0;
  uint64_t count = 0;
  for (uint64_t offset = 0; offset < num_bytes;) {
    // Copied out: records are packed and need not be aligned.
    ZVKRecord record;
    std::memcpy(&record, buffer->record_buffer + offset, kRecordHeaderSize);
    tmin = std::min(tmin, record.timestamp);
    tmax = std::max(tmax, record.timestamp);
    ++count;
    offset += record_size(record.call_chain_size, record.payload_size);
  }
  m_total_records_written += count;

  uLongf length = m_buffer_size;
  const auto compress_start = std::chrono::steady_clock::now();
  const int result =
      compress2(reinterpret_cast<Bytef*>(m_compressed_bucket->buffer), &length,
                reinterpret_cast<const Bytef*>(buffer->record_buffer), num_bytes, m_comp_level);
  m_compression_wait += static_cast<uint32_t>(elapsed_us(compress_start));
  if (result == Z_OK && length > UINT32_MAX) {
    return lost_bucket(count, Status(error::FAILURE, "Compressed bucket exceeds 4 GiB!"));
  }
  m_max_compressed_size = std::max(m_max_compressed_size, static_cast<uint32_t>(length));
  if (result != Z_OK) {
    return lost_bucket(count, Status(error::FAILURE, "Compression of the buffer failed!"));
  }

  m_compressed_bucket->tmin = tmin;
  m_compressed_bucket->tmax = tmax;
  m_compressed_bucket->number_of_records_in_bucket = count;
  m_compressed_bucket->compressed_size = static_cast<uint32_t>(length);
  m_compressed_bucket->uncompressed_size = num_bytes;

  const size_t total = length + kZVKBucketHeaderSize;
  const off_t bucket_start = lseek(m_file_handle, 0, SEEK_CUR);
  const auto write_start = std::chrono::steady_clock::now();
  int write_errno = 0;
  const size_t wrote =
      write_fully(m_file_handle, m_compressed_bucket, total, &write_errno, m_write);
  m_io_wait += static_cast<uint32_t>(elapsed_us(write_start));
  if (wrote < total) {
    // A torn bucket would make everything after it unreadable: cut the file back
    // to its last whole bucket, so that the next bucket follows that one.
    if (wrote > 0 && bucket_start >= 0) {
      if (ftruncate(m_file_handle, bucket_start) != 0 ||
          lseek(m_file_handle, bucket_start, SEEK_SET) != bucket_start) {
        LOG(ERROR) << "Can't cut the file back to its last whole bucket: " << strerror(errno);
      }
    }
    if (write_errno != 0) {
      if (m_lost_buckets == 0) LOG(ERROR) << "Failed to write to file! " << strerror(write_errno);
      return lost_bucket(count, Status(error::FAILURE, strerror(write_errno)));
    }
    if (m_lost_buckets == 0) {
      LOG(ERROR) << "Failed to write to file! only " << wrote << " of " << total << " bytes";
    }
    return lost_bucket(count, Status(error::FAILURE, "write call failed to write expected bytes!"));
  }
  m_written_bytes += wrote;
  m_max_compressed_size = std::max(m_max_compressed_size, static_cast<uint32_t>(length));
  if (m_lost_buckets != 0) {
    LOG(WARNING) << "Writing to the file works again; " << m_lost_buckets << " buckets with "
                 << m_lost_records << " records were lost";
    m_lost_buckets = 0;
    m_lost_records = 0;
  }
  if (bucket_start >= 0) release_written_pages(bucket_start, total);
  return Status::OK();
}

Status ZVKBucketWriter::lost_bucket(uint64_t records, Status why) {
  ++m_lost_buckets;
  m_lost_records += records;
  return why;
}

void ZVKBucketWriter::release_written_pages(off_t start, size_t length) {
  // Start the writeback of this bucket now, then wait for the previous one's and
  // drop its pages: written capture data would otherwise sit in the page cache,
  // competing with the training job for memory. Failures only leave pages cached.
  sync_file_range(m_file_handle, start, static_cast<off_t>(length), SYNC_FILE_RANGE_WRITE);
  if (m_unreleased_length != 0) {
    sync_file_range(m_file_handle, m_unreleased_start, static_cast<off_t>(m_unreleased_length),
                    SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE |
                        SYNC_FILE_RANGE_WAIT_AFTER);
    posix_fadvise(m_file_handle, m_unreleased_start, static_cast<off_t>(m_unreleased_length),
                  POSIX_FADV_DONTNEED);
  }
  m_unreleased_start = start;
  m_unreleased_length = length;
}

}  // namespace zorvek
