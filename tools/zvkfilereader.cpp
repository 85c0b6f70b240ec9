#include "tools/zvkfilereader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

namespace zorvek {
namespace {

// zlib can't shrink data by more than about 1032:1; a larger claim is damage, and
// must not turn into a huge allocation.
constexpr uint64_t kMaxInflateRatio = 1032;
// The smallest zlib stream: a 2-byte header, the smallest deflate block and the
// 4-byte checksum.
constexpr uint32_t kMinStreamSize = 8;

// Why a bucket header can't be one the writer wrote, or nullptr when it could be.
// Allocates nothing: the scan over damaged bytes asks this at every offset, and
// only what passes is inflated.
const char* implausibility(const ZVKFileBucket& bucket, const unsigned char* stream) {
  if (bucket.compressed_size < kMinStreamSize) return "its stream is too short for a zlib stream";
  // A zlib header (RFC 1950) as compress2 writes it: deflate with at most a 32 KiB
  // window, no preset dictionary, and the two bytes a multiple of 31.
  const unsigned cmf = stream[0];
  const unsigned flg = stream[1];
  if ((cmf & 0x0fu) != 8 || (cmf >> 4) > 7 || (flg & 0x20u) != 0 || ((cmf << 8) | flg) % 31 != 0) {
    return "its stream has no zlib header";
  }
  if (bucket.uncompressed_size > bucket.compressed_size * kMaxInflateRatio + 64) {
    return "its stream can't inflate to the size it claims";
  }
  // The writer never writes an empty buffer, and every record has a whole header.
  if (bucket.number_of_records_in_bucket == 0) return "it claims no records";
  if (bucket.number_of_records_in_bucket > bucket.uncompressed_size / kRecordHeaderSize) {
    return "it claims more records than its size can hold";
  }
  if (bucket.tmin > bucket.tmax) return "its time range ends before it starts";
  return nullptr;
}

std::string describe(const ZVKFileBucket& bucket) {
  return std::to_string(bucket.number_of_records_in_bucket) + " records, " +
         std::to_string(bucket.compressed_size) + " bytes inflating to " +
         std::to_string(bucket.uncompressed_size);
}

// Inflating stops at the stream's own end, wherever that is; the stream ends where
// its header says only if its Adler-32 (most significant byte first, RFC 1950) is
// the last 4 of the bytes the header gives it.
bool checksum_ends_stream(const unsigned char* stream, uint32_t stream_size, const char* data,
                          uint32_t data_size) {
  const uLong sum = adler32(adler32(0, Z_NULL, 0), reinterpret_cast<const Bytef*>(data), data_size);
  const unsigned char* tail = stream + stream_size - 4;
  const uLong stored =
      (uLong{tail[0]} << 24) | (uLong{tail[1]} << 16) | (uLong{tail[2]} << 8) | tail[3];
  return sum == stored;
}

// The records must fill the inflated bytes exactly, and come to `expected`.
Status check_records(const char* data, uint32_t size, uint64_t expected) {
  uint64_t count = 0;
  for (uint32_t offset = 0; offset < size; ++count) {
    if (size - offset < kRecordHeaderSize) {
      return Status(error::FAILURE, "truncated record header at offset " + std::to_string(offset));
    }
    const uint32_t length = ZVKRecordReader(data + offset).size();
    if (length > size - offset) {
      return Status(error::FAILURE, "record at offset " + std::to_string(offset) +
                                        " runs past the end of the bucket");
    }
    offset += length;
  }
  if (count != expected) {
    return Status(error::FAILURE, "it holds " + std::to_string(count) +
                                      " records but its header says " + std::to_string(expected));
  }
  return Status::OK();
}

}  // namespace

std::string exit_status_help() {
  return "Notes on how a file was read go to stderr, one line each: damaged bytes\n"
         "skipped, a torn or cut end, a header that was never finished.\n"
         "Exit status: " + std::to_string(kExitReadWhole) +
         " every file read whole, an unfinished capture included (its\n"
         "process ended without stopping the capture: every bucket that reached the\n"
         "file was read); " + std::to_string(kExitNotRead) +
         " a file missing, unreadable or not a capture; " + std::to_string(kExitUsage) +
         " a usage\nerror; " + std::to_string(kExitDamaged) +
         " every file read, but one damaged or cut: bytes skipped, a torn\n"
         "last bucket, or fewer buckets than its header counts. " +
         std::to_string(kExitNotRead) + " wins over " + std::to_string(kExitDamaged) + ".\n";
}

ZVKFileReader::~ZVKFileReader() {
  if (m_data != nullptr && m_size != 0) munmap(const_cast<char*>(m_data), m_size);
}

Status ZVKFileReader::open(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) return Status(error::FAILURE, strerror(errno));
  struct stat info;
  if (fstat(fd, &info) != 0) {
    const int saved = errno;
    close(fd);
    return Status(error::FAILURE, strerror(saved));
  }
  if (!S_ISREG(info.st_mode)) {
    close(fd);
    return Status(error::INVALID_ARGUMENT, "not a regular file");
  }
  m_size = static_cast<uint64_t>(info.st_size);
  if (m_size < kZVKFileHeaderSize) {
    close(fd);
    return Status(error::INVALID_ARGUMENT, "too short to be a capture file (" +
                                               std::to_string(m_size) + " bytes, the header alone is " +
                                               std::to_string(kZVKFileHeaderSize) + ")");
  }
  void* mapped = mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, fd, 0);
  const int saved = errno;
  close(fd);
  if (mapped == MAP_FAILED) {
    m_size = 0;
    return Status(error::FAILURE, strerror(saved));
  }
  m_data = static_cast<const char*>(mapped);

  ZVKFileHeader fixed;
  std::memcpy(&fixed, m_data, sizeof(fixed));
  if (std::memcmp(fixed.key, kZVKFileKey, sizeof(kZVKFileKey)) != 0) {
    return Status(error::INVALID_ARGUMENT, "not a capture file (no ZVKRAWDF magic)");
  }
  if (fixed.ZVKVersion != kZVKFileVersion) {
    return Status(error::UNSUPPORTED,
                  "unsupported capture file version " + std::to_string(fixed.ZVKVersion));
  }
  const uint64_t header_size = kZVKFileHeaderSize + get_header_payload_size(&fixed);
  if (header_size > m_size) {
    return Status(error::INVALID_ARGUMENT, "header claims " + std::to_string(header_size) +
                                               " bytes but the file has " + std::to_string(m_size));
  }
  m_header.assign((header_size + 7) / 8, 0);
  std::memcpy(m_header.data(), m_data, header_size);
  m_cursor = header_size;
  return Status::OK();
}

Status ZVKFileReader::next_bucket(std::unique_ptr<ZVKBucketReader>* reader) {
  if (m_cursor == m_size) return Status(error::END_OF_DATA, "end of file");
  const uint64_t at = m_cursor;
  const Status whole = whole_bucket_at(at, reader);
  if (whole.ok()) {
    m_cursor = at + kZVKBucketHeaderSize + (*reader)->get_compressed_size();
    ++m_bucket_index;
    return whole;
  }
  const std::string where =
      "bucket " + std::to_string(m_bucket_index) + " at offset " + std::to_string(at);
  m_cursor = next_whole_bucket_after(at);
  // A bucket that runs past the end with nothing whole after it is the last one a
  // killed writer left; anything else is damage.
  if (whole.code_ == error::END_OF_DATA && m_cursor == m_size) {
    m_torn = true;
    return Status(error::FAILURE, where + " is torn: " + whole.msg_);
  }
  m_damaged = true;
  const std::string resumed = m_cursor == m_size
                                  ? "the end of the file"
                                  : "the next whole bucket at offset " + std::to_string(m_cursor);
  return Status(error::FAILURE, where + " is damaged (" + whole.msg_ + "): skipped " +
                                    std::to_string(m_cursor - at) + " bytes to " + resumed);
}

ZVKFileReader::HeaderCount ZVKFileReader::header_count() const {
  const ZVKFileHeader* hdr = header();
  if (hdr->num_buckets > m_bucket_index) return HeaderCount::kMore;
  if (hdr->end_time == 0 || hdr->num_buckets < m_bucket_index) return HeaderCount::kUnfinished;
  return HeaderCount::kAgrees;
}

std::string ZVKFileReader::header_count_note() const {
  const std::string counts = "its header counts " + std::to_string(header()->num_buckets) +
                             " buckets, the file holds " + std::to_string(m_bucket_index) +
                             " whole";
  switch (header_count()) {
    case HeaderCount::kAgrees: return std::string();
    case HeaderCount::kUnfinished:
      return "unfinished capture: " + counts +
             " (the header was never finished: the process ended without stopping the capture, "
             "or is still writing); read to the end of the file";
    case HeaderCount::kMore:
      // Damage and a torn end were reported as they were met, and account for
      // the buckets missing; only a cut at a bucket's end leaves no other trace.
      if (m_damaged || m_torn) return std::string();
      return "cut short: " + counts;
  }
  return std::string();
}

Status ZVKFileReader::whole_bucket_at(uint64_t offset, std::unique_ptr<ZVKBucketReader>* reader) {
  const uint64_t remaining = m_size - offset;
  if (remaining < kZVKBucketHeaderSize) {
    return Status(error::END_OF_DATA,
                  std::to_string(remaining) + " bytes left, a bucket header needs 32");
  }
  ZVKFileBucket bucket;
  std::memcpy(&bucket, m_data + offset, sizeof(bucket));
  if (remaining - kZVKBucketHeaderSize < bucket.compressed_size) {
    return Status(error::END_OF_DATA,
                  "its stream needs " + std::to_string(bucket.compressed_size) + " bytes, only " +
                      std::to_string(remaining - kZVKBucketHeaderSize) + " remain");
  }
  const auto* stream =
      reinterpret_cast<const unsigned char*>(m_data + offset + kZVKBucketHeaderSize);
  if (const char* why = implausibility(bucket, stream)) {
    return Status(error::FAILURE, std::string(why) + ": " + describe(bucket));
  }
  char* records = records_buffer(bucket.uncompressed_size);
  auto next = std::make_unique<ZVKBucketReader>(
      reinterpret_cast<const ZVKFileBucket*>(m_data + offset), records,
      static_cast<int32_t>(bucket.uncompressed_size));
  ZVK_RETURN_NOT_OK(next->decompress());
  if (!checksum_ends_stream(stream, bucket.compressed_size, records, bucket.uncompressed_size)) {
    return Status(error::FAILURE, "its stream doesn't end after the " +
                                      std::to_string(bucket.compressed_size) + " bytes it claims");
  }
  ZVK_RETURN_NOT_OK(
      check_records(records, bucket.uncompressed_size, bucket.number_of_records_in_bucket));
  *reader = std::move(next);
  return Status::OK();
}

uint64_t ZVKFileReader::next_whole_bucket_after(uint64_t offset) {
  std::unique_ptr<ZVKBucketReader> found;
  for (uint64_t at = offset + 1; m_size - at >= kZVKBucketHeaderSize + kMinStreamSize; ++at) {
    // The cheap tests first, so that the scan stays linear in the damaged bytes.
    ZVKFileBucket bucket;
    std::memcpy(&bucket, m_data + at, sizeof(bucket));
    const auto* stream = reinterpret_cast<const unsigned char*>(m_data + at + kZVKBucketHeaderSize);
    if (m_size - at - kZVKBucketHeaderSize < bucket.compressed_size ||
        implausibility(bucket, stream) != nullptr) {
      continue;
    }
    if (whole_bucket_at(at, &found).ok()) return at;
  }
  return m_size;
}

char* ZVKFileReader::records_buffer(uint32_t size) {
  if (size > m_records_capacity) {
    m_records.reset(new char[size]);
    m_records_capacity = size;
  }
  return m_records.get();
}

}  // namespace zorvek
