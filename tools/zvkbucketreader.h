#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "zorv/format/file.h"
#include "zorv/format/record.h"
#include "zorv/utils/status.h"

namespace zorvek {

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
