// What the throughput benchmarks share: the clock they time with, the median of
// their rounds, and the two sides of a buffer pipeline they play themselves (the
// writer's hand-back, and the memcpy baseline they rate against).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "zorv/io/zvkbuffer.h"
#include "zorv/io/zvkqueue.h"

namespace zorvek {
namespace bench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The middle round: this VM's speed drifts, and one slow or fast round must not
// move what is printed.
inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// What the writer thread would do, at once: every full buffer back, emptied, so
// that what is timed is the producer and not a wait for free buffers. Returns the
// record bytes the buffers held.
inline uint64_t recycle_buffers(ZVKQueue<ZVKBuffer>& to_write, ZVKQueue<ZVKBuffer>& fill) {
  uint64_t record_bytes = 0;
  for (ZVKBuffer* buffer = nullptr; to_write.pop(&buffer), buffer != nullptr;) {
    record_bytes += buffer->num_bytes;
    buffer->num_bytes = 0;
    fill.push(buffer);
  }
  return record_bytes;
}

// The baseline: `size` bytes copied into the next free buffer, which goes back
// to the free queue at once.
inline void copy_into_free_buffer(ZVKQueue<ZVKBuffer>& fill, const void* bytes, size_t size) {
  ZVKBuffer* buffer = nullptr;
  fill.pop(&buffer);
  std::memcpy(buffer->record_buffer, bytes, size);
  asm volatile("" : : "r"(buffer->record_buffer) : "memory");  // the copy is used
  fill.push(buffer);
}

}  // namespace bench
}  // namespace zorvek
