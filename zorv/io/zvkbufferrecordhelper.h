#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <mutex>

#include "zorv/format/record.h"
#include "zorv/io/zvkbuffer.h"
#include "zorv/io/zvkqueue.h"
#include "zorv/utils/status.h"

namespace zorvek {

// The one way a producer appends a record: space is reserved under a short lock,
// the record is filled outside it, and the RecordWriter's reference keeps the
// buffer from reaching the writer until the record is complete.
//
// A producer never waits for a buffer that nothing will free: when the to-fill
// queue is dry and no writer is running to refill it, the record goes to a
// per-thread scratch area instead and is counted as dropped on the to-fill queue.
// Nor does it wait for ever on a writer that runs but frees nothing (a hung disk):
// after kMaxBufferWait the record is dropped and counted as late, and so is every
// record after it until a buffer comes back, without waiting again.
class ZVKBufferRecordHelper {
 public:
  // Long enough for a writer that is merely slow to catch up; short enough that a
  // training thread or a CUPTI callback is not held up for good.
  static constexpr std::chrono::milliseconds kMaxBufferWait{5000};

  class RecordWriter {
   public:
    RecordWriter(std::shared_ptr<ZVKBuffer>&& buffer, ZVKRecord* record, uint64_t timestamp,
                 uint32_t event_type, int32_t pid, int32_t tid, uint16_t call_chain_size,
                 uint16_t payload_size)
        : current_buffer(std::move(buffer)), rec(record) {
      rec->timestamp = timestamp;
      rec->event_type = event_type;
      rec->pid = static_cast<uint32_t>(pid);
      rec->tid = static_cast<uint32_t>(tid);
      rec->call_chain_size = call_chain_size;
      rec->payload_size = payload_size;
    }
    RecordWriter(const RecordWriter&) = default;
    RecordWriter(RecordWriter&&) noexcept = default;
    RecordWriter& operator=(const RecordWriter&) = delete;

    CallChain* get_callchain_array() const { return reinterpret_cast<CallChain*>(rec->data); }
    void* get_payload_store() const { return rec->data + 16u * rec->call_chain_size; }
    const ZVKRecord* get_record() const { return rec; }

   private:
    std::shared_ptr<ZVKBuffer> current_buffer;
    ZVKRecord* rec;
  };

  // Takes a first buffer if one is free; waits for one only while a writer runs.
  ZVKBufferRecordHelper(ZVKQueue<ZVKBuffer>* to_fill, ZVKQueue<ZVKBuffer>* to_write);
  ZVKBufferRecordHelper(const ZVKBufferRecordHelper&) = delete;
  ZVKBufferRecordHelper& operator=(const ZVKBufferRecordHelper&) = delete;
  // Releasing curr_buff delivers the last, partly filled buffer to the writer.
  ~ZVKBufferRecordHelper();

  // Always inlined: a call here is a measurable share of an annotation's cost.
  __attribute__((always_inline)) RecordWriter new_record(uint64_t timestamp, uint32_t event_type,
                                                         int32_t pid, int32_t tid,
                                                         uint16_t call_chain_size,
                                                         uint16_t payload_size) {
    const uint32_t size = record_size(call_chain_size, payload_size);
    std::shared_ptr<ZVKBuffer> pinned;
    uint32_t offset;
    {
      std::unique_lock<std::mutex> lock(buff_mutex);
      // A record must leave at least one byte free. 64-bit: buffers near 4 GiB.
      if (__builtin_expect(static_cast<uint64_t>(curr_buff->num_bytes) + size >=
                               curr_buff->len_buffer,
                           0)) {
        if (!make_room(lock, size)) {
          lock.unlock();
          return dropped_record(size, timestamp, event_type, pid, tid, call_chain_size,
                                payload_size);
        }
      }
      pinned = curr_buff;
      offset = curr_buff->num_bytes;
      curr_buff->num_bytes += size;
    }
    ZVKRecord* record = reinterpret_cast<ZVKRecord*>(pinned->record_buffer + offset);
    return RecordWriter(std::move(pinned), record, timestamp, event_type, pid, tid,
                        call_chain_size, payload_size);
  }

  __attribute__((always_inline)) RecordWriter new_record(uint64_t timestamp,
                                                         ZVKRecordEventType event_type,
                                                         int32_t pid, int32_t tid,
                                                         uint16_t call_chain_size,
                                                         uint16_t payload_size) {
    return new_record(timestamp,
                      make_event_word(event_type.hw_type, event_type.device_id,
                                      event_type.event_type),
                      pid, tid, call_chain_size, payload_size);
  }

  // Sends the current buffer on and takes a fresh one if one is free; never waits.
  // An empty buffer stays.
  Status flush();

  // Flushes every live helper that delivers to `to_write` and holds records, so
  // that a quiet producer's records reach the file all the same.
  static void flush_all(const ZVKQueue<ZVKBuffer>* to_write);

  // For a forked child, before its writer starts: the inherited buffers hold the
  // parent's records, which the parent writes, or are held by threads the child
  // doesn't have. Every helper over these queues drops its current buffer, and all
  // buffers go back to `to_fill` empty; a buffer handed out before the fork goes
  // nowhere when it is let go in this process.
  static void discard_inherited(ZVKQueue<ZVKBuffer>* to_fill, ZVKQueue<ZVKBuffer>* to_write);

  // Total microseconds producers waited for a free buffer.
  uint64_t stall_time_us() {
    std::lock_guard<std::mutex> lock(buff_mutex);
    return m_stall_time;
  }

  // The same over every helper the process has had: what a capture's producers
  // lost to full buffers, which no record of the file carries otherwise.
  static std::atomic<uint64_t>& process_stall_time_us();

 private:
  // With buff_mutex held through `lock`: replaces the current buffer until the
  // record fits. Sleeps without the lock, with a linear back-off, only while a
  // writer runs to refill the to-fill queue, and for kMaxBufferWait at most.
  // False: the record is to be dropped.
  // Out of line and cold, so that new_record's common path inlines everywhere.
  __attribute__((noinline, cold)) bool make_room(std::unique_lock<std::mutex>& lock,
                                                 uint32_t size);
  // Makes `buffer` (or the empty stand-in, for null) current; the old buffer goes
  // to the writer once no RecordWriter holds it.
  void install(ZVKBuffer* buffer);
  __attribute__((noinline, cold)) RecordWriter dropped_record(
      uint32_t size, uint64_t timestamp, uint32_t event_type, int32_t pid, int32_t tid,
      uint16_t call_chain_size, uint16_t payload_size);

  ZVKQueue<ZVKBuffer>* to_fill_;
  ZVKQueue<ZVKBuffer>* to_write_;
  // Never null: between buffers it is a stand-in of capacity 0, which sends every
  // record down make_room's path.
  std::shared_ptr<ZVKBuffer> curr_buff;
  std::mutex buff_mutex;
  uint64_t m_stall_time;
  bool m_reported_oversize = false;
  // A wait timed out and no buffer has come back since: records are dropped
  // without waiting again.
  bool m_starved = false;
};

}  // namespace zorvek
