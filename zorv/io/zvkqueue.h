#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <new>

#include "zorv/io/zvkbuffer.h"
#include "zorv/io/zvkforklocks.h"
#include "zorv/utils/status.h"

namespace zorvek {

// The clocks the record pipeline reads. Intervals (a producer's wait for a buffer,
// the writer's flush period and rotation deadline) run on the steady clock, so that
// a step of the system clock can neither stretch nor cut them; the system clock
// only places a deadline in wall time and dates log lines. Tests replace them;
// they are set before any thread that reads them starts.
struct ZVKPipelineClock {
  using SteadyNow = std::chrono::steady_clock::time_point (*)();
  using SystemNow = std::chrono::system_clock::time_point (*)();
  static SteadyNow steady_now;
  static SystemNow system_now;
};

// A locked FIFO of pointers over one slab of fixed-size elements, which it owns.
// Elements move between queues by pointer; none is allocated after construction.
//
// Besides the elements, a queue knows whether some thread is running that will
// push elements back onto it (`set_supplied`): a producer waiting for a free
// buffer waits only while that is so, since otherwise nothing would ever end the
// wait. Records dropped for that reason are counted here, for the whole pipeline,
// apart from those dropped because a supplier was too slow to free a buffer.
template <typename T>
class ZVKQueue {
 public:
  ZVKQueue() { ZVKForkLocks::add(&queue_lock, ZVKForkLocks::QUEUE); }
  // For ZVKBuffer: `count` buffers of at least `size` bytes each.
  ZVKQueue(uint32_t count, size_t size);
  // For fixed elements placed ahead of `size` bytes of their own storage.
  ZVKQueue(uint32_t count, size_t size, const T& prototype) : ZVKQueue() {
    storage_ = malloc(static_cast<size_t>(count) * (size + sizeof(T)));
    if (storage_ == nullptr) return;
    char* cursor = static_cast<char*>(storage_);
    for (uint32_t i = 0; i < count; ++i) {
      buffers_.push_back(new (cursor) T(prototype));
      cursor += size + sizeof(T);
    }
  }
  ZVKQueue(const ZVKQueue&) = delete;
  ZVKQueue& operator=(const ZVKQueue&) = delete;
  ~ZVKQueue() {
    ZVKForkLocks::remove(&queue_lock);
    free(storage_);
  }

  // Never blocks: an empty queue gives null.
  void pop(T** out) {
    std::lock_guard<std::mutex> lock(queue_lock);
    pop_locked(out);
  }

  // Waits up to `timeout` for an element. Returns early with null once `keep_waiting`
  // is false and wake_consumers() has been called. For the one consumer thread.
  template <typename Rep, typename Period>
  void pop_wait_for(T** out, std::chrono::duration<Rep, Period> timeout,
                    const std::atomic<bool>& keep_waiting) {
    std::unique_lock<std::mutex> lock(queue_lock);
    m_pushed.wait_for(lock, timeout, [&] { return !buffers_.empty() || !keep_waiting; });
    pop_locked(out);
  }

  // Notified under the lock, so that no wake-up is lost and none is under way when
  // the fork handlers hold the lock.
  Status push(T* element) {
    std::lock_guard<std::mutex> lock(queue_lock);
    buffers_.push_back(element);
    m_pushed.notify_one();
    return Status::OK();
  }

  // Ends a pop_wait_for whose `keep_waiting` was just cleared.
  void wake_consumers() {
    std::lock_guard<std::mutex> lock(queue_lock);
    m_pushed.notify_all();
  }

  size_t size() {
    std::lock_guard<std::mutex> lock(queue_lock);
    return buffers_.size();
  }

  void set_supplied(bool supplied) { m_supplied.store(supplied, std::memory_order_release); }
  bool is_supplied() const { return m_supplied.load(std::memory_order_acquire); }

  void count_dropped_record() { m_dropped_records.fetch_add(1, std::memory_order_relaxed); }
  // The records dropped since the last call.
  uint64_t take_dropped_records() { return m_dropped_records.exchange(0); }

  // Records dropped while a supplier ran but freed no buffer in time (a writer on
  // a hung disk, say).
  void count_late_record() { m_late_records.fetch_add(1, std::memory_order_relaxed); }
  // The records dropped so since the last call.
  uint64_t take_late_records() { return m_late_records.exchange(0); }

  // For a forked child, whose buffers hold its parent's records or are held by
  // threads that don't exist in it: lists every buffer of the slab again, empty.
  void refill_all();

  // Logs the buffers still queued with data in them. Teardown frees a queue without
  // a word; a tool that wants to know what would be lost asks this first.
  void report_unprocessed() const;

  const void* storage() const { return storage_; }

 private:
  void pop_locked(T** out) {
    if (buffers_.empty()) {
      *out = nullptr;
      return;
    }
    *out = buffers_.front();
    buffers_.pop_front();
  }

  std::deque<T*> buffers_;
  mutable std::mutex queue_lock;
  std::condition_variable m_pushed;
  std::atomic<bool> m_supplied{false};
  std::atomic<uint64_t> m_dropped_records{0};
  std::atomic<uint64_t> m_late_records{0};
  void* storage_ = nullptr;
  // The slab's layout, for refill_all.
  uint32_t count_ = 0;
  size_t stride_ = 0;
};

template <>
ZVKQueue<ZVKBuffer>::ZVKQueue(uint32_t count, size_t size);
template <>
void ZVKQueue<ZVKBuffer>::report_unprocessed() const;
template <>
void ZVKQueue<ZVKBuffer>::refill_all();

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
