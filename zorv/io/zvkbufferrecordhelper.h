#pragma once

#include <time.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <new>

#include "zorv/io/zvkbuffer.h"
#include "zorv/io/zvkqueue.h"
#include "zorv/io/zvkrecord.h"
#include "zorv/utils/logging.h"
#include "zorv/utils/status.h"

namespace zorvek {

// The one way a producer appends a record: space is reserved under a short lock,
// the record is filled outside it, and the RecordWriter's reference keeps the
// buffer from reaching the writer until the record is complete.
class ZVKBufferRecordHelper {
 public:
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

  // Returns only with a buffer in hand: with the to-fill queue dry it stalls.
  ZVKBufferRecordHelper(ZVKQueue<ZVKBuffer>* to_fill, ZVKQueue<ZVKBuffer>* to_write)
      : to_fill_(to_fill), to_write_(to_write), m_stall_time(0) {
    get_new_buffer();
  }
  ZVKBufferRecordHelper(const ZVKBufferRecordHelper&) = delete;
  ZVKBufferRecordHelper& operator=(const ZVKBufferRecordHelper&) = delete;

  // Releasing curr_buff delivers the last, partly filled buffer to the writer.
  ~ZVKBufferRecordHelper() {
    std::cerr << "Stalled " << static_cast<double>(m_stall_time / 1000) / 1000.0
              << "s while waiting for a buffer" << std::endl;
  }

  // Always inlined: a call here is a measurable share of an annotation's cost.
  __attribute__((always_inline)) RecordWriter new_record(uint64_t timestamp, uint32_t event_type,
                                                         int32_t pid, int32_t tid,
                                                         uint16_t call_chain_size,
                                                         uint16_t payload_size) {
    const uint32_t size = record_size(call_chain_size, payload_size);
    std::shared_ptr<ZVKBuffer> pinned;
    uint32_t offset;
    {
      std::lock_guard<std::mutex> lock(buff_mutex);
      // A record must leave at least one byte free.
      if (__builtin_expect(curr_buff->num_bytes + size >= curr_buff->len_buffer, 0)) {
        get_new_buffer();
        if (size > curr_buff->len_buffer) return discarded_record(size, timestamp, event_type, pid,
                                                                  tid, call_chain_size, payload_size);
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

  // Sends the current buffer on and takes a fresh one; an empty buffer stays.
  Status flush() {
    std::lock_guard<std::mutex> lock(buff_mutex);
    if (curr_buff->num_bytes == 0) return Status(error::END_OF_DATA, "Buffer is Empty");
    get_new_buffer();
    return Status::OK();
  }

  // Total microseconds producers waited for a free buffer.
  uint64_t stall_time_us() {
    std::lock_guard<std::mutex> lock(buff_mutex);
    return m_stall_time;
  }

 private:
  // With buff_mutex held (except from the constructor). Waits with a linear
  // back-off, 100 us more each round, for as long as it takes: no record is dropped.
  // Out of line and cold, so that new_record's common path stays small enough to
  // inline into every producer.
  __attribute__((noinline, cold)) void get_new_buffer() {
    ZVKBuffer* buffer = nullptr;
    to_fill_->pop(&buffer);
    if (buffer == nullptr) {
      const auto wait_start = std::chrono::system_clock::now();
      long wait_us = 100;
      do {
        sleep_for_us(wait_us);
        to_fill_->pop(&buffer);
        wait_us += 100;
      } while (buffer == nullptr);
      const auto waited = std::chrono::system_clock::now() - wait_start;
      m_stall_time += static_cast<uint64_t>(
          std::chrono::duration_cast<std::chrono::nanoseconds>(waited).count() / 1000);
    }
    std::shared_ptr<ZVKBuffer> fresh(buffer, QueueMover<ZVKBuffer>(to_write_));
    // The old reference drops here: with no RecordWriter on it, the old buffer
    // enters the to-write queue now, on this thread.
    curr_buff.swap(fresh);
  }

  // A record larger than a whole buffer would run into the next block of the slab.
  // It is written to a block of its own that is freed, not queued: the record is
  // dropped, said once per helper. Only a misconfigured buffer size gets here.
  __attribute__((noinline, cold)) RecordWriter discarded_record(
      uint32_t size, uint64_t timestamp, uint32_t event_type, int32_t pid, int32_t tid,
      uint16_t call_chain_size, uint16_t payload_size) {
    if (!m_reported_oversize) {
      m_reported_oversize = true;
      LOG(ERROR) << "A record of " << size << " bytes doesn't fit in a buffer of "
                 << curr_buff->len_buffer << " bytes; such records are dropped";
    }
    void* block = std::malloc(sizeof(ZVKBuffer) + size);
    if (block == nullptr) throw std::bad_alloc();
    std::shared_ptr<ZVKBuffer> scratch(static_cast<ZVKBuffer*>(block),
                                       [](ZVKBuffer* b) { std::free(b); });
    scratch->len_buffer = size;
    scratch->num_bytes = size;
    ZVKRecord* record = reinterpret_cast<ZVKRecord*>(scratch->record_buffer);
    return RecordWriter(std::move(scratch), record, timestamp, event_type, pid, tid,
                        call_chain_size, payload_size);
  }

  static void sleep_for_us(long us) {
    timespec remaining = {us / 1000000, (us % 1000000) * 1000};
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
  }

  ZVKQueue<ZVKBuffer>* to_fill_;
  ZVKQueue<ZVKBuffer>* to_write_;
  std::shared_ptr<ZVKBuffer> curr_buff;
  std::mutex buff_mutex;
  uint64_t m_stall_time;
  bool m_reported_oversize = false;
};

}  // namespace zorvek
