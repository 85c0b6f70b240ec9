#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zorv/io/zvkfile.h"
#include "zorv/utils/status.h"

namespace zorvek {

// Reads a capture file bucket by bucket, to the end of the file: it never relies on
// num_buckets, which is 0 in a header that never got its final rewrite.
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
  uint64_t first_bucket_offset() const { return m_first_bucket; }
  uint64_t next_bucket_offset() const { return m_cursor; }

  // OK with `reader` on the next bucket, inflated; END_OF_DATA after the last
  // whole bucket; FAILURE for a torn or damaged bucket, after which reading stops.
  Status next_bucket(std::unique_ptr<ZVKBucketReader>* reader);
  // Whether reading stopped at a torn last bucket, which is what a killed writer
  // leaves, rather than at damage.
  bool torn() const { return m_torn; }

 private:
  const char* m_data = nullptr;
  uint64_t m_size = 0;
  uint64_t m_first_bucket = 0;
  uint64_t m_cursor = 0;
  uint64_t m_bucket_index = 0;
  bool m_torn = false;
  std::vector<uint64_t> m_header;  // 8-aligned copy of the header block
  std::vector<char> m_records;     // the current bucket, inflated
};

}  // namespace zorvek
