#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zorvek {

// The header of one entry of a SignalRing; the payload follows it. `size` is the
// whole entry, header included, a multiple of 8; it stays 0 until the producer
// publishes the entry, and is written last.
struct SignalRingEntry {
  uint32_t size;
  uint32_t kind;  // kSignalRingPadding, or what the payload is (the record kind it becomes)
  int32_t pid;
  int32_t tid;
  uint64_t timestamp;
};
static_assert(sizeof(SignalRingEntry) == 24, "SignalRingEntry is 24 bytes");
static_assert(offsetof(SignalRingEntry, size) == 0, "size at 0");

// Space no entry uses: the end of the ring before a wrap, or what a producer
// reserved and didn't fill. Only its first 8 bytes are written.
constexpr uint32_t kSignalRingPadding = 0;

// A fixed ring of bytes that signal handlers on any thread write and one thread
// drains. Producers are lock-free and async-signal-safe: a compare-and-swap on the
// 64-bit head reserves room, the entry is written in place, and a release store of
// its size publishes it. The consumer stops at the first entry not yet published,
// and zeroes what it consumed before giving the room back, so that a header the
// producers haven't written always reads as unpublished. When the ring is full the
// entry is dropped and counted. The memory is mapped and populated once, at
// construction, so that no handler takes a page fault on it.
class SignalRing {
 public:
  // Room reserved by a producer: `payload` has `capacity` bytes for it to fill.
  // Null `payload`: the ring was full, and the entry is counted as dropped.
  struct Slot {
    uint8_t* payload = nullptr;
    uint32_t capacity = 0;
    uint64_t position = 0;
    explicit operator bool() const { return payload != nullptr; }
  };

  // `capacity` bytes, rounded up to a power of two of at least a page.
  explicit SignalRing(size_t capacity);
  ~SignalRing();
  SignalRing(const SignalRing&) = delete;
  SignalRing& operator=(const SignalRing&) = delete;

  // False when the memory couldn't be mapped: every reserve then fails.
  bool valid() const { return m_data != nullptr; }
  size_t capacity() const { return m_capacity; }
  // The largest payload one entry may carry: a quarter of the ring.
  uint32_t max_payload() const;

  // Producer side: async-signal-safe and lock-free.
  Slot reserve(uint32_t max_payload);
  // Publishes `slot` with the first `payload_size` bytes of its payload used;
  // the unused rest becomes padding.
  void publish(const Slot& slot, uint32_t kind, int32_t pid, int32_t tid, uint64_t timestamp,
               uint32_t payload_size);
  // reserve, copy, publish.
  bool push(uint32_t kind, int32_t pid, int32_t tid, uint64_t timestamp, const void* payload,
            uint32_t payload_size);

  // Consumer side: one thread. Calls visit(entry, payload, payload_size) for each
  // published entry in order, padding left out, up to the first entry not yet
  // published; returns how many it visited.
  template <typename Visit>
  size_t drain(Visit&& visit);

  // The entries dropped for want of room since the last call.
  uint64_t take_dropped() { return m_dropped.exchange(0, std::memory_order_relaxed); }

  // Forgets everything in the ring, published or not. Only while no producer or
  // consumer runs: in a forked child, whose producers of the parent don't exist.
  void reset();

 private:
  SignalRingEntry* at(uint64_t position) const {
    return reinterpret_cast<SignalRingEntry*>(m_data + (position & m_mask));
  }
  // Writes a padding header over `size` bytes at `position` and publishes it.
  void pad(uint64_t position, uint32_t size);
  // Zeroes the consumed [from, to) and hands it back to the producers.
  void release(uint64_t from, uint64_t to);

  uint8_t* m_data = nullptr;
  size_t m_capacity = 0;
  uint64_t m_mask = 0;
  alignas(64) std::atomic<uint64_t> m_head{0};
  alignas(64) std::atomic<uint64_t> m_tail{0};
  std::atomic<uint64_t> m_dropped{0};
};

template <typename Visit>
size_t SignalRing::drain(Visit&& visit) {
  if (m_data == nullptr) return 0;
  size_t visited = 0;
  uint64_t tail = m_tail.load(std::memory_order_relaxed);
  for (;;) {
    SignalRingEntry* entry = at(tail);
    const uint32_t size = __atomic_load_n(&entry->size, __ATOMIC_ACQUIRE);
    if (size == 0) break;
    if (entry->kind != kSignalRingPadding) {
      visit(static_cast<const SignalRingEntry&>(*entry),
            reinterpret_cast<const uint8_t*>(entry) + sizeof(SignalRingEntry),
            static_cast<uint32_t>(size - sizeof(SignalRingEntry)));
      ++visited;
    }
    release(tail, tail + size);
    tail += size;
  }
  return visited;
}

}  // namespace zorvek
