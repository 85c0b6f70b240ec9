#include "zorv/io/zvkbufferrecordhelper.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <vector>

#include "zorv/io/zvkforklocks.h"
#include "zorv/utils/logging.h"

namespace zorvek {
namespace {

using Clock = std::chrono::steady_clock;

// Longest single sleep while waiting for a buffer: the back-off grows by 100 us a
// round, and a wait must notice soon when the writer has gone.
constexpr long kMaxWaitStepUs = 10000;

// The current buffer between two real ones: capacity 0, so nothing fits in it, and
// an empty owner, so releasing it queues nothing.
ZVKBuffer g_no_buffer = {0, 0};

std::shared_ptr<ZVKBuffer> no_buffer() {
  return std::shared_ptr<ZVKBuffer>(std::shared_ptr<ZVKBuffer>(), &g_no_buffer);
}

void sleep_for_us(long us) {
  timespec remaining = {us / 1000000, (us % 1000000) * 1000};
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

// Advanced in a forked child when it takes back the buffers it inherited.
std::atomic<uint64_t> g_fork_generation{0};

// A current buffer's deleter: the buffer goes to the writer once its last holder
// lets go, unless it was handed out before a fork that this process came out of.
struct ReleaseToWriter {
  QueueMover<ZVKBuffer> to_writer;
  uint64_t generation;
  void operator()(ZVKBuffer* buffer) const {
    if (generation == g_fork_generation.load()) to_writer(buffer);
  }
};

// The live helpers, for flush_all. Never destroyed: helpers may outlive statics.
struct HelperList {
  std::mutex lock;
  std::vector<ZVKBufferRecordHelper*> helpers;
};

HelperList& helper_list() {
  static HelperList* list = [] {
    HelperList* made = new HelperList();
    ZVKForkLocks::add(&made->lock, ZVKForkLocks::HELPER_LIST);
    return made;
  }();
  return *list;
}

}  // namespace

std::atomic<uint64_t>& ZVKBufferRecordHelper::process_stall_time_us() {
  static std::atomic<uint64_t> total{0};
  return total;
}

ZVKBufferRecordHelper::ZVKBufferRecordHelper(ZVKQueue<ZVKBuffer>* to_fill,
                                             ZVKQueue<ZVKBuffer>* to_write)
    : to_fill_(to_fill), to_write_(to_write), curr_buff(no_buffer()), m_stall_time(0) {
  {
    std::unique_lock<std::mutex> lock(buff_mutex);
    make_room(lock, 0);
  }
  ZVKForkLocks::add(&buff_mutex, ZVKForkLocks::RECORD_HELPER);
  HelperList& list = helper_list();
  std::lock_guard<std::mutex> guard(list.lock);
  list.helpers.push_back(this);
}

ZVKBufferRecordHelper::~ZVKBufferRecordHelper() {
  {
    HelperList& list = helper_list();
    std::lock_guard<std::mutex> guard(list.lock);
    list.helpers.erase(std::remove(list.helpers.begin(), list.helpers.end(), this),
                       list.helpers.end());
  }
  ZVKForkLocks::remove(&buff_mutex);
  // A quiet run hears of a stall only when there was one.
  if (m_stall_time == 0 && LogMessage::is_quiet()) return;
  std::cerr << "Stalled " << static_cast<double>(m_stall_time / 1000) / 1000.0
            << "s while waiting for a buffer" << std::endl;
}

void ZVKBufferRecordHelper::install(ZVKBuffer* buffer) {
  std::shared_ptr<ZVKBuffer> fresh =
      buffer != nullptr
          ? std::shared_ptr<ZVKBuffer>(buffer, ReleaseToWriter{QueueMover<ZVKBuffer>(to_write_),
                                                                g_fork_generation.load()})
          : no_buffer();
  // The old reference drops here: with no RecordWriter on it, the old buffer
  // enters the to-write queue now, on this thread.
  curr_buff.swap(fresh);
}

bool ZVKBufferRecordHelper::make_room(std::unique_lock<std::mutex>& lock, uint32_t size) {
  Clock::time_point wait_start{};
  bool waited = false;
  long wait_us = 100;
  bool fits = false;
  bool oversize = false;
  bool late = false;
  while (!fits) {
    const uint32_t capacity = curr_buff->len_buffer;
    // An empty buffer takes a record of its whole capacity; a larger one never fits.
    // It is said once, and not counted with the records no writer was there for.
    if (capacity != 0 && size > capacity) {
      if (!m_reported_oversize) {
        m_reported_oversize = true;
        LOG(ERROR) << "A record of " << size << " bytes doesn't fit in a buffer of " << capacity
                   << " bytes; such records are dropped";
      }
      oversize = true;
      break;
    }
    ZVKBuffer* buffer = nullptr;
    to_fill_->pop(&buffer);
    if (buffer != nullptr) {
      install(buffer);
      m_starved = false;
      fits = size <= curr_buff->len_buffer;
      continue;
    }
    if (!to_fill_->is_supplied()) break;
    const Clock::time_point now = ZVKPipelineClock::steady_now();
    if (!waited) {
      waited = true;
      wait_start = now;
    }
    // Another producer has already waited the whole while: don't wait again.
    if (m_starved || now - wait_start >= kMaxBufferWait) {
      late = true;
      break;
    }
    // Other producers and the fork handlers may take the lock meanwhile.
    lock.unlock();
    sleep_for_us(std::min(wait_us, kMaxWaitStepUs));
    wait_us += 100;
    lock.lock();
    fits = static_cast<uint64_t>(curr_buff->num_bytes) + size < curr_buff->len_buffer;
  }
  if (waited) {
    const uint64_t stalled = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(ZVKPipelineClock::steady_now() -
                                                              wait_start)
            .count());
    m_stall_time += stalled;
    process_stall_time_us().fetch_add(stalled, std::memory_order_relaxed);
  }
  if (late && !m_starved) {
    m_starved = true;
    LOG(WARNING) << "No buffer came free in "
                 << std::chrono::duration_cast<std::chrono::seconds>(kMaxBufferWait).count()
                 << " s: the writer is stuck or far behind, records are dropped until it "
                    "frees a buffer";
  }
  if (!fits && !oversize && size != 0) {
    if (late) {
      to_fill_->count_late_record();
    } else {
      to_fill_->count_dropped_record();
    }
  }
  return fits;
}

ZVKBufferRecordHelper::RecordWriter ZVKBufferRecordHelper::dropped_record(
    uint32_t size, uint64_t timestamp, uint32_t event_type, int32_t pid, int32_t tid,
    uint16_t call_chain_size, uint16_t payload_size) {
  // The producer writes its record as usual, into memory that goes nowhere. One
  // area per thread, so that concurrent producers don't write over each other.
  thread_local std::vector<uint64_t> scratch;
  if (scratch.size() * sizeof(uint64_t) < size) scratch.resize((size + 7) / 8);
  ZVKRecord* record = reinterpret_cast<ZVKRecord*>(scratch.data());
  return RecordWriter(std::shared_ptr<ZVKBuffer>(), record, timestamp, event_type, pid, tid,
                      call_chain_size, payload_size);
}

Status ZVKBufferRecordHelper::flush() {
  std::lock_guard<std::mutex> lock(buff_mutex);
  if (curr_buff->num_bytes == 0) return Status(error::END_OF_DATA, "Buffer is Empty");
  ZVKBuffer* buffer = nullptr;
  to_fill_->pop(&buffer);
  install(buffer);
  return Status::OK();
}

void ZVKBufferRecordHelper::discard_inherited(ZVKQueue<ZVKBuffer>* to_fill,
                                              ZVKQueue<ZVKBuffer>* to_write) {
  g_fork_generation.fetch_add(1);
  {
    HelperList& list = helper_list();
    std::lock_guard<std::mutex> guard(list.lock);
    for (ZVKBufferRecordHelper* helper : list.helpers) {
      if (helper->to_write_ != to_write) continue;
      std::lock_guard<std::mutex> lock(helper->buff_mutex);
      helper->install(nullptr);
      // The parent's waits are the parent's to report.
      helper->m_stall_time = 0;
    }
  }
  for (ZVKBuffer* buffer = nullptr;;) {
    to_write->pop(&buffer);
    if (buffer == nullptr) break;
  }
  to_fill->refill_all();
}

void ZVKBufferRecordHelper::flush_all(const ZVKQueue<ZVKBuffer>* to_write) {
  HelperList& list = helper_list();
  std::lock_guard<std::mutex> guard(list.lock);
  for (ZVKBufferRecordHelper* helper : list.helpers) {
    if (helper->to_write_ == to_write) helper->flush();
  }
}

}  // namespace zorvek
