// SignalRing: many producers, one consumer that sees every published entry once,
// in order per producer; a full ring drops and counts; entries never wrap.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

#include "zorv/cpu/signalring.h"

namespace zorvek {
namespace {

constexpr uint32_t kKind = 16;

// A payload that says who wrote it and carries its own check: `words` copies of
// (producer << 40 | sequence).
struct Drained {
  std::map<int32_t, std::vector<uint64_t>> sequences;  // per producer, in drain order
  uint64_t entries = 0;
  uint64_t damaged = 0;

  void take(const SignalRingEntry& entry, const uint8_t* payload, uint32_t size) {
    ++entries;
    if (entry.kind != kKind || size % 8 != 0 || size == 0) {
      ++damaged;
      return;
    }
    uint64_t first;
    memcpy(&first, payload, 8);
    for (uint32_t at = 8; at < size; at += 8) {
      uint64_t word;
      memcpy(&word, payload + at, 8);
      if (word != first) ++damaged;
    }
    if (static_cast<int32_t>(first >> 40) != entry.tid ||
        entry.timestamp != (first & 0xffffffffff)) {
      ++damaged;
    }
    sequences[entry.tid].push_back(first & 0xffffffffff);
  }
};

bool push_numbered(SignalRing& ring, int32_t producer, uint64_t sequence, uint32_t words) {
  const SignalRing::Slot slot = ring.reserve(words * 8 + 64);
  if (!slot) return false;
  const uint64_t word = (uint64_t(producer) << 40) | sequence;
  for (uint32_t i = 0; i < words; ++i) memcpy(slot.payload + 8 * i, &word, 8);
  ring.publish(slot, kKind, 1, producer, sequence, words * 8);
  return true;
}

TEST(SignalRing, ConsumerSeesEveryEntryOnceInOrder) {
  SignalRing ring(1 << 16);
  ASSERT_TRUE(ring.valid());
  EXPECT_EQ(ring.capacity(), 1u << 16);
  constexpr int kProducers = 8;
  constexpr uint64_t kPerProducer = 20000;
  std::atomic<int> done{0};
  std::atomic<uint64_t> pushed{0};
  std::vector<std::thread> producers;
  for (int p = 1; p <= kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (uint64_t i = 0; i < kPerProducer; ++i) {
        // Sizes vary, so that entries meet the ring's end at every offset.
        if (push_numbered(ring, p, i, 1 + static_cast<uint32_t>((i * 7 + p) % 40))) {
          pushed.fetch_add(1);
        }
      }
      done.fetch_add(1);
    });
  }
  Drained drained;
  auto take = [&](const SignalRingEntry& e, const uint8_t* payload, uint32_t size) {
    drained.take(e, payload, size);
  };
  while (done.load() < kProducers) ring.drain(take);
  for (std::thread& t : producers) t.join();
  ring.drain(take);

  const uint64_t dropped = ring.take_dropped();
  EXPECT_EQ(drained.damaged, 0u);
  EXPECT_EQ(drained.entries, pushed.load());
  EXPECT_EQ(drained.entries + dropped, kProducers * kPerProducer);
  for (const auto& producer : drained.sequences) {
    const std::vector<uint64_t>& seen = producer.second;
    for (size_t i = 1; i < seen.size(); ++i) {
      ASSERT_LT(seen[i - 1], seen[i]) << "producer " << producer.first << " at " << i;
    }
  }
  // Drained to the end: a second drain finds nothing.
  EXPECT_EQ(ring.drain(take), 0u);
}

TEST(SignalRing, FullRingDropsAndCounts) {
  SignalRing ring(4096);
  uint64_t accepted = 0;
  for (uint64_t i = 0; i < 1000; ++i) accepted += push_numbered(ring, 1, i, 10) ? 1 : 0;
  EXPECT_GT(accepted, 0u);
  EXPECT_LT(accepted, 1000u);
  EXPECT_EQ(ring.take_dropped(), 1000u - accepted);
  EXPECT_EQ(ring.take_dropped(), 0u);

  Drained drained;
  ring.drain(
      [&](const SignalRingEntry& e, const uint8_t* p, uint32_t s) { drained.take(e, p, s); });
  EXPECT_EQ(drained.entries, accepted);
  EXPECT_EQ(drained.damaged, 0u);
  // The room is back: as many fit again.
  uint64_t again = 0;
  for (uint64_t i = 0; i < accepted; ++i) again += push_numbered(ring, 1, 1000 + i, 10) ? 1 : 0;
  EXPECT_EQ(again, accepted);
}

TEST(SignalRing, ConsumerStopsAtAnEntryNotYetPublished) {
  SignalRing ring(4096);
  ASSERT_TRUE(push_numbered(ring, 1, 0, 2));
  const SignalRing::Slot open = ring.reserve(16);
  ASSERT_TRUE(open);
  ASSERT_TRUE(push_numbered(ring, 2, 1, 2));
  Drained drained;
  auto take = [&](const SignalRingEntry& e, const uint8_t* p, uint32_t s) {
    drained.take(e, p, s);
  };
  EXPECT_EQ(ring.drain(take), 1u);
  uint64_t word = (uint64_t(3) << 40) | 2;
  memcpy(open.payload, &word, 8);
  ring.publish(open, kKind, 1, 3, 2, 8);
  EXPECT_EQ(ring.drain(take), 2u);
  EXPECT_EQ(drained.damaged, 0u);
  EXPECT_EQ(drained.sequences[3], std::vector<uint64_t>{2});
  EXPECT_EQ(drained.sequences[2], std::vector<uint64_t>{1});
}

TEST(SignalRing, UnusedRoomOfASlotIsSkipped) {
  SignalRing ring(4096);
  for (int round = 0; round < 200; ++round) {
    const SignalRing::Slot slot = ring.reserve(512);
    ASSERT_TRUE(slot) << round;
    const uint64_t word = (uint64_t(1) << 40) | static_cast<uint64_t>(round);
    memcpy(slot.payload, &word, 8);
    ring.publish(slot, kKind, 1, 1, static_cast<uint64_t>(round), 8);
    Drained drained;
    EXPECT_EQ(ring.drain([&](const SignalRingEntry& e, const uint8_t* p, uint32_t s) {
      drained.take(e, p, s);
    }), 1u);
    EXPECT_EQ(drained.damaged, 0u);
  }
  EXPECT_EQ(ring.take_dropped(), 0u);
}

TEST(SignalRing, OversizedEntryIsRefused) {
  SignalRing ring(4096);
  EXPECT_FALSE(ring.reserve(ring.max_payload() + 1));
  EXPECT_TRUE(ring.reserve(ring.max_payload()));
  EXPECT_EQ(ring.take_dropped(), 1u);
}

TEST(SignalRing, ResetForgetsEntriesNeverPublished) {
  SignalRing ring(4096);
  ASSERT_TRUE(ring.reserve(64));  // a producer that never publishes, as in a forked child
  ASSERT_TRUE(push_numbered(ring, 1, 0, 1));
  EXPECT_EQ(ring.drain([](const SignalRingEntry&, const uint8_t*, uint32_t) {}), 0u);
  ring.reset();
  ASSERT_TRUE(push_numbered(ring, 1, 1, 1));
  Drained drained;
  EXPECT_EQ(ring.drain([&](const SignalRingEntry& e, const uint8_t* p, uint32_t s) {
    drained.take(e, p, s);
  }), 1u);
  EXPECT_EQ(drained.sequences[1], std::vector<uint64_t>{1});
}

}  // namespace
}  // namespace zorvek
