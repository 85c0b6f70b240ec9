#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/zvkbucketreader.h"
#include "zorv/format/file.h"
#include "zorv/utils/status.h"

namespace zorvek {

// Exit statuses of every command that reads captures (zvkdump, and zorvek's
// summary, timeline and flame). When several apply, the lowest nonzero one wins:
// a file not read at all weighs more than one read in part.
constexpr int kExitReadWhole = 0;  // every file read whole
constexpr int kExitNotRead = 1;    // a file missing, unreadable, or not a capture
constexpr int kExitUsage = 2;      // a usage error
constexpr int kExitDamaged = 3;    // every file read, but one was damaged or cut

// Those statuses in words, with where the notes go, for the commands' help.
std::string exit_status_help();

// The status of a run from those of its parts.
inline int worse_exit(int a, int b) {
  if (a == kExitReadWhole) return b;
  if (b == kExitReadWhole) return a;
  return a < b ? a : b;
}

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

  // Once next_bucket has answered END_OF_DATA, what the header's bucket count says
  // of the buckets read whole. kUnfinished: the header never got its final
  // rewrite (its end time is 0) or counts fewer buckets than the file holds (it
  // was last rewritten at a suspend): the process ended without stopping the
  // capture, or is still writing. Whatever reached the file was read; what the
  // process still held in memory is not in it. kMore: it counts more than were
  // read whole: the file was cut, or damage took them.
  enum class HeaderCount { kAgrees, kUnfinished, kMore };
  HeaderCount header_count() const;
  // One line on what header_count() found, beyond what next_bucket already
  // reported; empty when there is nothing more to say.
  std::string header_count_note() const;
  // Once reading is over: no damage, no torn end, and no bucket the header
  // counts missing. An unfinished header alone doesn't make a file damaged.
  bool read_whole() const {
    return !m_damaged && !m_torn && header_count() != HeaderCount::kMore;
  }

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
  bool m_damaged = false;
  std::vector<uint64_t> m_header;  // 8-aligned copy of the header block
  std::unique_ptr<char[]> m_records;  // the current bucket, inflated
  uint32_t m_records_capacity = 0;
};

}  // namespace zorvek
