#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zorv/io/zvkfile.h"
#include "zorv/utils/status.h"

namespace zorvek {

// Reads a capture file bucket by bucket, to the end of the file: it never relies on
// num_buckets, which is 0 in a header that never got its final rewrite. Damage in
// the middle of a file costs only the damaged bytes: reading goes on at the next
// whole bucket after them.
class ZVKFileReader {
 public:
  ZVKFileReader() = default;
  ~ZVKFileReader();
  ZVKFileReader(const ZVKFileReader&) = delete;
  ZVKFileReader& operator=(const ZVKFileReader&) = delete;

  // Maps the file and checks its header. A failure's message says why, without
  // the file name.
  Status open(const std::string& path);

  const ZVKFileHeader* header() const {
    return reinterpret_cast<const ZVKFileHeader*>(m_header.data());
  }
  uint64_t file_size() const { return m_size; }
  uint64_t next_bucket_offset() const { return m_cursor; }

  // OK with `reader` on the next whole bucket: inflated, its stream ending where
  // its header says, its records walking cleanly to the count its header gives.
  // The reader is valid until the next call. END_OF_DATA after the last bucket.
  // FAILURE otherwise, in one of two ways. A torn last bucket, which is what a
  // killed writer leaves: torn() is true and reading is over. Or damaged bytes:
  // the message says where, why, and how many bytes were skipped, and the next
  // call goes on at the first whole bucket after them.
  Status next_bucket(std::unique_ptr<ZVKBucketReader>* reader);
  bool torn() const { return m_torn; }

 private:
  // OK with `reader` when a whole bucket starts at `offset`. Otherwise why not:
  // END_OF_DATA when the bucket would run past the end of the file, FAILURE for
  // anything else.
  Status whole_bucket_at(uint64_t offset, std::unique_ptr<ZVKBucketReader>* reader);
  // The first offset after `offset` where a whole bucket starts, or the file size.
  uint64_t next_whole_bucket_after(uint64_t offset);
  // Room for `size` inflated bytes; left uninitialised, since a damaged header
  // may claim far more than its stream really holds.
  char* records_buffer(uint32_t size);

  const char* m_data = nullptr;
  uint64_t m_size = 0;
  uint64_t m_cursor = 0;
  uint64_t m_bucket_index = 0;
  bool m_torn = false;
  std::vector<uint64_t> m_header;  // 8-aligned copy of the header block
  std::unique_ptr<char[]> m_records;  // the current bucket, inflated
  uint32_t m_records_capacity = 0;
};

}  // namespace zorvek
