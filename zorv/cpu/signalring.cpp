#include "zorv/cpu/signalring.h"

#include <sys/mman.h>
#include <unistd.h>

namespace zorvek {
namespace {

constexpr uint32_t align8(uint64_t size) {
  return static_cast<uint32_t>((size + 7) & ~uint64_t{7});
}

size_t ring_size_for(size_t wanted) {
  const long page = sysconf(_SC_PAGESIZE);
  size_t size = page > 0 ? static_cast<size_t>(page) : 4096;
  while (size < wanted) size <<= 1;
  return size;
}

}  // namespace

SignalRing::SignalRing(size_t capacity) {
  const size_t size = ring_size_for(capacity);
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
  if (memory == MAP_FAILED) return;
  m_data = static_cast<uint8_t*>(memory);
  m_capacity = size;
  m_mask = size - 1;
}

SignalRing::~SignalRing() {
  if (m_data != nullptr) munmap(m_data, m_capacity);
}

uint32_t SignalRing::max_payload() const {
  return m_capacity < 4 * sizeof(SignalRingEntry)
             ? 0
             : static_cast<uint32_t>(m_capacity / 4 - sizeof(SignalRingEntry));
}

SignalRing::Slot SignalRing::reserve(uint32_t max_payload) {
  Slot slot;
  if (m_data == nullptr || max_payload > this->max_payload()) {
    m_dropped.fetch_add(1, std::memory_order_relaxed);
    return slot;
  }
  const uint32_t size = align8(sizeof(SignalRingEntry) + uint64_t{max_payload});
  uint64_t head = m_head.load(std::memory_order_relaxed);
  uint64_t skipped;
  for (;;) {
    // An entry never wraps: the rest of the ring before the end becomes padding.
    const uint64_t to_end = m_capacity - (head & m_mask);
    skipped = to_end < size ? to_end : 0;
    const uint64_t next = head + skipped + size;
    // Acquire: the consumer zeroed the room before it handed it back.
    if (next - m_tail.load(std::memory_order_acquire) > m_capacity) {
      m_dropped.fetch_add(1, std::memory_order_relaxed);
      return slot;
    }
    if (m_head.compare_exchange_weak(head, next, std::memory_order_relaxed)) break;
  }
  if (skipped != 0) pad(head, static_cast<uint32_t>(skipped));
  slot.position = head + skipped;
  slot.payload = reinterpret_cast<uint8_t*>(at(slot.position)) + sizeof(SignalRingEntry);
  slot.capacity = size - static_cast<uint32_t>(sizeof(SignalRingEntry));
  return slot;
}

void SignalRing::publish(const Slot& slot, uint32_t kind, int32_t pid, int32_t tid,
                         uint64_t timestamp, uint32_t payload_size) {
  const uint32_t used = align8(sizeof(SignalRingEntry) + uint64_t{payload_size});
  const uint32_t reserved = slot.capacity + static_cast<uint32_t>(sizeof(SignalRingEntry));
  if (used < reserved) pad(slot.position + used, reserved - used);
  SignalRingEntry* entry = at(slot.position);
  entry->kind = kind;
  entry->pid = pid;
  entry->tid = tid;
  entry->timestamp = timestamp;
  __atomic_store_n(&entry->size, used, __ATOMIC_RELEASE);
}

bool SignalRing::push(uint32_t kind, int32_t pid, int32_t tid, uint64_t timestamp,
                      const void* payload, uint32_t payload_size) {
  const Slot slot = reserve(payload_size);
  if (!slot) return false;
  memcpy(slot.payload, payload, payload_size);
  publish(slot, kind, pid, tid, timestamp, payload_size);
  return true;
}

void SignalRing::pad(uint64_t position, uint32_t size) {
  SignalRingEntry* entry = at(position);
  entry->kind = kSignalRingPadding;
  __atomic_store_n(&entry->size, size, __ATOMIC_RELEASE);
}

void SignalRing::release(uint64_t from, uint64_t to) {
  // Entries never wrap, so [from, to) is one piece.
  memset(m_data + (from & m_mask), 0, static_cast<size_t>(to - from));
  m_tail.store(to, std::memory_order_release);
}

void SignalRing::reset() {
  if (m_data == nullptr) return;
  const uint64_t head = m_head.load(std::memory_order_relaxed);
  if (head != m_tail.load(std::memory_order_relaxed)) memset(m_data, 0, m_capacity);
  m_tail.store(head, std::memory_order_relaxed);
  m_dropped.store(0, std::memory_order_relaxed);
}

}  // namespace zorvek
