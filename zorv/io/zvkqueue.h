#pragma once

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <new>

#include "zorv/io/zvkbuffer.h"
#include "zorv/utils/status.h"

namespace zorvek {

// A locked FIFO of pointers over one slab of fixed-size elements, which it owns.
// Elements move between queues by pointer; none is allocated after construction.
template <typename T>
class ZVKQueue {
 public:
  ZVKQueue() = default;
  // For ZVKBuffer: `count` buffers of at least `size` bytes each.
  ZVKQueue(int count, size_t size);
  // For fixed elements placed ahead of `size` bytes of their own storage.
  ZVKQueue(int count, size_t size, const T& prototype) {
    storage_ = malloc(static_cast<int64_t>(count) * (size + sizeof(T)));
    char* cursor = static_cast<char*>(storage_);
    for (int i = 0; i < count; ++i) {
      buffers_.push_back(new (cursor) T(prototype));
      cursor += size + sizeof(T);
    }
  }
  ZVKQueue(const ZVKQueue&) = delete;
  ZVKQueue& operator=(const ZVKQueue&) = delete;
  ~ZVKQueue() { free(storage_); }

  // Never blocks: an empty queue gives null.
  void pop(T** out) {
    std::lock_guard<std::mutex> lock(queue_lock);
    if (buffers_.empty()) {
      *out = nullptr;
      return;
    }
    *out = buffers_.front();
    buffers_.pop_front();
  }

  Status push(T* element) {
    std::lock_guard<std::mutex> lock(queue_lock);
    buffers_.push_back(element);
    return Status::OK();
  }

  size_t size() {
    std::lock_guard<std::mutex> lock(queue_lock);
    return buffers_.size();
  }

  // Logs the buffers still queued with data in them. Teardown frees a queue without
  // a word; a tool that wants to know what would be lost asks this first.
  void report_unprocessed() const;

  const void* storage() const { return storage_; }

 private:
  std::deque<T*> buffers_;
  mutable std::mutex queue_lock;
  void* storage_ = nullptr;
};

template <>
ZVKQueue<ZVKBuffer>::ZVKQueue(int count, size_t size);
template <>
void ZVKQueue<ZVKBuffer>::report_unprocessed() const;

// Shared-pointer deleter: a buffer whose last holder lets go goes to the writer.
template <typename T>
struct QueueMover;

template <>
struct QueueMover<ZVKBuffer> {
  explicit QueueMover(ZVKQueue<ZVKBuffer>* to_write) : to_write_(to_write) {}
  void operator()(ZVKBuffer* buffer) const { to_write_->push(buffer); }
  ZVKQueue<ZVKBuffer>* to_write_;
};

}  // namespace zorvek
