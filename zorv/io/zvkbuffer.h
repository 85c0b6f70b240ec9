#pragma once

#include <cstddef>
#include <cstdint>

namespace zorvek {

// One block of the slab: two counts, then the record area.
struct ZVKBuffer {
  uint32_t len_buffer;  // capacity of record_buffer in bytes
  uint32_t num_bytes;   // bytes of records stored so far
  char record_buffer[];
};
static_assert(offsetof(ZVKBuffer, len_buffer) == 0, "len_buffer at 0");
static_assert(offsetof(ZVKBuffer, num_bytes) == 4, "num_bytes at 4");
static_assert(offsetof(ZVKBuffer, record_buffer) == 8, "record area at 8");
static_assert(sizeof(ZVKBuffer) == 8, "the two counts are 8 bytes");

}  // namespace zorvek
