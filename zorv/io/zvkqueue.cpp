#include "zorv/io/zvkqueue.h"

#include <unistd.h>

#include "zorv/format/record.h"
#include "zorv/utils/logging.h"

namespace zorvek {

ZVKPipelineClock::SteadyNow ZVKPipelineClock::steady_now = &std::chrono::steady_clock::now;
ZVKPipelineClock::SystemNow ZVKPipelineClock::system_now = &std::chrono::system_clock::now;

template <>
ZVKQueue<ZVKBuffer>::ZVKQueue(uint32_t count, size_t size) : ZVKQueue() {
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
  // Sizes that can't be multiplied without overflow can't be allocated either.
  size_t slab_size = 0;
  if (__builtin_mul_overflow(static_cast<size_t>(count), block_size, &slab_size) ||
      capacity > UINT32_MAX) {
    LOG(ERROR) << "Failed to allocate " << count << " buffers of " << block_size << " bytes";
    return;
  }
  storage_ = malloc(slab_size);
  if (storage_ == nullptr) {
    // Left empty rather than faulting on the first store; configure reports it.
    LOG(ERROR) << "Failed to allocate " << slab_size << " bytes for " << count << " buffers";
    return;
  }
  // The stride is capacity + 8 (the two counts); the slab reserves 8 more per block,
  // which no buffer uses.
  count_ = count;
  stride_ = capacity + sizeof(ZVKBuffer);
  char* cursor = static_cast<char*>(storage_);
  for (uint32_t i = 0; i < count; ++i) {
    reinterpret_cast<ZVKBuffer*>(cursor)->len_buffer = static_cast<uint32_t>(capacity);
    cursor += stride_;
  }
  refill_all();
}

template <>
void ZVKQueue<ZVKBuffer>::refill_all() {
  std::lock_guard<std::mutex> lock(queue_lock);
  buffers_.clear();
  char* cursor = static_cast<char*>(storage_);
  for (uint32_t i = 0; i < count_; ++i) {
    ZVKBuffer* buffer = reinterpret_cast<ZVKBuffer*>(cursor);
    buffer->num_bytes = 0;
    buffers_.push_back(buffer);
    cursor += stride_;
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
