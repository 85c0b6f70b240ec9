#include "zorv/io/zvkqueue.h"

#include <unistd.h>

#include "zorv/io/zvkrecord.h"
#include "zorv/utils/logging.h"

namespace zorvek {

template <>
ZVKQueue<ZVKBuffer>::ZVKQueue(int count, size_t size) {
  if (count == 0) return;
  size_t capacity;
  size_t block_size;
  if (size < kRecordHeaderSize) {
    LOG(ERROR) << "WARNING queue buffer size is less than a single record size! This will not "
                  "end well!";
    capacity = kRecordHeaderSize;
    block_size = 40;
  } else {
    capacity = (size + 7) & ~static_cast<size_t>(7);
    block_size = capacity + 16;
  }
  const int64_t slab_size = static_cast<int64_t>(count) * static_cast<int64_t>(block_size);
  storage_ = malloc(slab_size);
  if (storage_ == nullptr) {
    // Left empty rather than faulting on the first store; configure reports it.
    LOG(ERROR) << "Failed to allocate " << slab_size << " bytes for " << count << " buffers";
    return;
  }
  if (count < 1) return;
  // The stride is capacity + 8 (the two counts); the slab reserves 8 more per block,
  // which no buffer uses.
  char* cursor = static_cast<char*>(storage_);
  for (int i = 0; i < count; ++i) {
    ZVKBuffer* buffer = reinterpret_cast<ZVKBuffer*>(cursor);
    buffer->len_buffer = static_cast<uint32_t>(capacity);
    buffer->num_bytes = 0;
    buffers_.push_back(buffer);
    cursor += capacity + sizeof(ZVKBuffer);
  }
}

template <>
void ZVKQueue<ZVKBuffer>::report_unprocessed() const {
  std::lock_guard<std::mutex> lock(queue_lock);
  uint64_t count = 0;
  uint64_t sum = 0;
  for (const ZVKBuffer* buffer : buffers_) {
    if (buffer->num_bytes == 0) continue;
    ++count;
    sum += buffer->num_bytes;
  }
  if (count != 0) {
    LOG(ERROR) << "PID= " << getpid() << ". Buffer Queue still had " << count
               << " unprocessed buffers with " << sum << " bytes of data";
  }
}

}  // namespace zorvek
