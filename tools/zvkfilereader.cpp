#include "tools/zvkfilereader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zorvek {
namespace {

// zlib can't shrink data by more than about 1032:1; a larger claim is damage, and
// must not turn into a huge allocation.
constexpr uint64_t kMaxInflateRatio = 1032;

}  // namespace

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
  m_first_bucket = m_cursor = header_size;
  return Status::OK();
}

Status ZVKFileReader::next_bucket(std::unique_ptr<ZVKBucketReader>* reader) {
  const uint64_t remaining = m_size - m_cursor;
  if (remaining == 0) return Status(error::END_OF_DATA, "end of file");
  const std::string where =
      "bucket " + std::to_string(m_bucket_index) + " at offset " + std::to_string(m_cursor);
  if (remaining < kZVKBucketHeaderSize) {
    m_cursor = m_size;
    m_torn = true;
    return Status(error::FAILURE, where + " is torn: " + std::to_string(remaining) +
                                      " bytes left, a bucket header needs 32");
  }
  ZVKFileBucket bucket;
  std::memcpy(&bucket, m_data + m_cursor, sizeof(bucket));
  if (remaining - kZVKBucketHeaderSize < bucket.compressed_size) {
    m_cursor = m_size;
    m_torn = true;
    return Status(error::FAILURE,
                  where + " is torn: its stream needs " + std::to_string(bucket.compressed_size) +
                      " bytes, only " + std::to_string(remaining - kZVKBucketHeaderSize) + " remain");
  }
  if (bucket.uncompressed_size > static_cast<uint64_t>(bucket.compressed_size) * kMaxInflateRatio + 64) {
    m_cursor = m_size;
    return Status(error::FAILURE, where + " is damaged: " + std::to_string(bucket.compressed_size) +
                                      " compressed bytes can't hold " +
                                      std::to_string(bucket.uncompressed_size));
  }
  m_records.resize(bucket.uncompressed_size);
  auto next = std::make_unique<ZVKBucketReader>(
      reinterpret_cast<const ZVKFileBucket*>(m_data + m_cursor), m_records.data(),
      static_cast<int32_t>(m_records.size()));
  Status inflated = next->decompress();
  if (!inflated.ok()) {
    m_cursor = m_size;
    return Status(error::FAILURE, where + " is damaged: " + inflated.msg_);
  }
  m_cursor += kZVKBucketHeaderSize + bucket.compressed_size;
  ++m_bucket_index;
  *reader = std::move(next);
  return Status::OK();
}

}  // namespace zorvek
