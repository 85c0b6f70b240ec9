#include "tools/zvkbucketreader.h"

#include <zlib.h>

#include <string>

namespace zorvek {

ZVKBucketReader::ZVKBucketReader(const ZVKFileBucket* bucket, char* buffer, int32_t bucket_size)
    : m_bucket_size(static_cast<uint32_t>(bucket_size)), m_bucket(bucket), m_buffer(buffer) {
  ZVKFileBucket header;
  std::memcpy(&header, bucket, sizeof(header));
  tmin = header.tmin;
  tmax = header.tmax;
  number_of_records_in_bucket = header.number_of_records_in_bucket;
  compressed_size = header.compressed_size;
  uncompressed_size = header.uncompressed_size;
}

Status ZVKBucketReader::decompress() {
  if (uncompressed_size > m_bucket_size) {
    return Status(error::INSUFFICIENT_RESOURCES,
                  "Bucket needs " + std::to_string(uncompressed_size) +
                      " bytes but the buffer holds " + std::to_string(m_bucket_size));
  }
  uLongf length = uncompressed_size;
  const auto* stream =
      reinterpret_cast<const Bytef*>(reinterpret_cast<const char*>(m_bucket) + kZVKBucketHeaderSize);
  const int result = uncompress(reinterpret_cast<Bytef*>(m_buffer), &length, stream, compressed_size);
  if (result != Z_OK) {
    return Status(error::FAILURE, std::string("Can't inflate the bucket: ") + zError(result));
  }
  if (length != uncompressed_size) {
    return Status(error::FAILURE, "Bucket inflated to " + std::to_string(length) +
                                      " bytes instead of " + std::to_string(uncompressed_size));
  }
  m_inflated = true;
  curr_offset = 0;
  return Status::OK();
}

Status ZVKBucketReader::get_next_record(ZVKRecordReader& reader) {
  if (!m_inflated) return Status(error::FAILED_PRECONDITION, "Bucket is not decompressed");
  if (curr_offset >= uncompressed_size) return Status(error::END_OF_DATA, "No more records");
  if (uncompressed_size - curr_offset < kRecordHeaderSize) {
    return Status(error::FAILURE,
                  "Truncated record header at offset " + std::to_string(curr_offset));
  }
  ZVKRecordReader candidate(m_buffer + curr_offset);
  if (candidate.size() > uncompressed_size - curr_offset) {
    return Status(error::FAILURE, "Record at offset " + std::to_string(curr_offset) +
                                      " runs past the end of the bucket");
  }
  reader = candidate;
  curr_offset += candidate.size();
  return Status::OK();
}

Status ZVKBucketReader::get_next_record(std::unique_ptr<ZVKRecordReader>* reader) {
  ZVKRecordReader next;
  ZVK_RETURN_NOT_OK(get_next_record(next));
  *reader = std::make_unique<ZVKRecordReader>(next);
  return Status::OK();
}

}  // namespace zorvek
