#pragma once

#include <sched.h>
#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "zorv/format/annotation.h"
#include "zorv/format/record.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkqueue.h"
#include "zorv/utils/status.h"
#include "zorv/utils/utils.h"

namespace zorvek {

// The process-wide correlation counter; the first token is 0. Inline, with a
// constant initialiser, so taking a token is one fetch_add and no call or guard.
inline std::atomic<uint64_t>& counter() {
  static std::atomic<uint64_t> correlation_counter{0};
  return correlation_counter;
}

// Producer of annotation records: begin, end and marker from user code and foreign
// libraries, and the one time marker that ties the capture's clocks together.
class ZVKAnnotator {
 public:
  ZVKAnnotator(const std::string& name, ZVKQueue<ZVKBuffer>* to_fill,
               ZVKQueue<ZVKBuffer>* to_write);
  ZVKAnnotator(const std::string& name, std::shared_ptr<ZVKBufferRecordHelper> helper);
  ZVKAnnotator(const ZVKAnnotator&) = delete;
  ZVKAnnotator& operator=(const ZVKAnnotator&) = delete;

  uint64_t annotate_begin(const char* msg, size_t len) {
    const Stamp stamp = take_stamp();
    const uint64_t token = counter().fetch_add(1, std::memory_order_relaxed);
    write_message(stamp, annotations::BEGIN, token, msg, len);
    return token;
  }
  uint64_t annotate_begin(const std::string& msg) { return annotate_begin(msg.data(), msg.size()); }

  void annotate_end(uint64_t token) {
    const Stamp stamp = take_stamp();
    auto writer = m_helper->new_record(stamp.timestamp, event_word(annotations::END, stamp.cpu),
                                       stamp.pid, stamp.tid, 0, sizeof(annotations::msg_end));
    std::memcpy(writer.get_payload_store(), &token, sizeof(token));
  }

  // Returns 0, the correlation a marker carries.
  uint64_t annotate_marker(const char* msg, size_t len) {
    write_message(take_stamp(), annotations::MARKER, 0, msg, len);
    return 0;
  }
  uint64_t annotate_marker(const std::string& msg) {
    return annotate_marker(msg.data(), msg.size());
  }

  // Also reports the messages cut since the last flush.
  Status flush();

  void generate_offset_record();

  const std::string& name() const { return m_name; }

 private:
  struct Stamp {
    uint64_t timestamp;
    int32_t pid;
    int32_t tid;
    int cpu;
  };

  static Stamp take_stamp() {
    const uint64_t now = now_ns();
    const ProcessIdentity& identity = current_identity();
    return Stamp{now, identity.pid, identity.tid, sched_getcpu()};
  }

  static uint32_t event_word(annotations::Types type, int cpu) {
    return make_event_word(ANNOTATION, static_cast<uint32_t>(cpu), type);
  }

  void write_message(const Stamp& stamp, annotations::Types type, uint64_t correlation,
                     const char* msg, size_t len) {
    if (__builtin_expect(len > annotations::kMaxMessageLength, 0)) {
      note_cut_message(len);
      len = annotations::kMaxMessageLength;
    }
    const uint16_t payload_size = annotations::message_payload_size(len);
    auto writer = m_helper->new_record(stamp.timestamp, event_word(type, stamp.cpu), stamp.pid,
                                       stamp.tid, 0, payload_size);
    char* payload = static_cast<char*>(writer.get_payload_store());
    // The last word first, as zeros: it holds the terminator and the padding, so
    // that no stale bytes of a reused buffer reach the file. The text goes over it.
    std::memset(payload + payload_size - 8, 0, 8);
    std::memcpy(payload, &correlation, sizeof(correlation));
    std::memcpy(payload + sizeof(correlation), msg, len);
  }

  __attribute__((noinline, cold)) void note_cut_message(size_t len);

  std::string m_name;
  ZVKQueue<ZVKBuffer>* m_to_fill = nullptr;
  ZVKQueue<ZVKBuffer>* m_to_write = nullptr;
  std::shared_ptr<ZVKBufferRecordHelper> m_helper;
  std::atomic<uint64_t> m_cut_messages{0};
};

}  // namespace zorvek
