#pragma once

// The record: its 24-byte header, the packed event word and the call chain entry.
// The same bytes in memory and in the capture file.

#include <cstddef>
#include <cstdint>

namespace zorvek {

enum ZVKHardwareType : uint32_t {
  CPU = 0,
  GPU = 1,
  GAUDI = 2,    // reserved row, never written
  TESSERA = 3,  // reserved row, never written
  LUMENIA = 4,  // reserved row, never written
  ANNOTATION = 5,
  NUM_HW_TYPES = 6,
};
static_assert(sizeof(ZVKHardwareType) == 4, "ZVKHardwareType is a 32-bit enum");

// The packed event word, lowest bit first.
struct ZVKRecordEventType {
  uint32_t event_type : 20;
  uint32_t device_id : 8;
  uint32_t hw_type : 4;
};
static_assert(sizeof(ZVKRecordEventType) == 4, "event word is 32 bits");

constexpr uint32_t make_event_word(uint32_t hw_type, uint32_t device_id, uint32_t event_type) {
  return (hw_type << 28) | ((device_id << 20) & 0x0ff00000u) | (event_type & 0x000fffffu);
}

struct CallChain {
  uint64_t from;
  uint64_t to;
};
static_assert(sizeof(CallChain) == 16, "CallChain is 16 bytes");
static_assert(offsetof(CallChain, from) == 0, "CallChain::from at 0");
static_assert(offsetof(CallChain, to) == 8, "CallChain::to at 8");

// One observation: a 24-byte header, call_chain_size CallChain entries, then
// payload_size bytes. The same bytes in memory and in the capture file.
struct ZVKRecord {
  uint64_t timestamp;
  union {
    uint32_t event_type;
    ZVKRecordEventType enc;
  };
  uint32_t pid;
  uint32_t tid;
  uint16_t call_chain_size;
  uint16_t payload_size;
  char data[];
};
static_assert(sizeof(ZVKRecord) == 24, "record header is 24 bytes");
static_assert(offsetof(ZVKRecord, timestamp) == 0, "timestamp at 0");
static_assert(offsetof(ZVKRecord, event_type) == 8, "event word at 8");
static_assert(offsetof(ZVKRecord, pid) == 12, "pid at 12");
static_assert(offsetof(ZVKRecord, tid) == 16, "tid at 16");
static_assert(offsetof(ZVKRecord, call_chain_size) == 20, "call_chain_size at 20");
static_assert(offsetof(ZVKRecord, payload_size) == 22, "payload_size at 22");
static_assert(offsetof(ZVKRecord, data) == 24, "data at 24");

constexpr uint32_t kRecordHeaderSize = sizeof(ZVKRecord);

// Size of a record in 32-bit arithmetic: the one sum every walker uses.
constexpr uint32_t record_size(uint16_t call_chain_size, uint16_t payload_size) {
  return kRecordHeaderSize + 16u * call_chain_size + payload_size;
}

}  // namespace zorvek
