#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/test_support.h"
#include "zorv/io/zvkbufferrecordhelper.h"

namespace zorvek {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::in_fresh_process;
using testing_support::log_messages;
using testing_support::rerun_in_fresh_process;
using testing_support::walk_records;

using Helper = ZVKBufferRecordHelper;

// A record with `payload` bytes of payload and its size filled in.
Helper::RecordWriter append(Helper& helper, uint64_t timestamp, uint16_t payload) {
  auto writer = helper.new_record(timestamp, make_event_word(ANNOTATION, 0, 3), 1, 2, 0, payload);
  std::memset(writer.get_payload_store(), 0xab, payload);
  return writer;
}

ZVKBuffer* pop(ZVKQueue<ZVKBuffer>& queue) {
  ZVKBuffer* buffer = nullptr;
  queue.pop(&buffer);
  return buffer;
}

TEST(RecordHelper, HeaderIsStampedAndAddressesFollowTheLayout) {
  ZVKQueue<ZVKBuffer> fill(2, 1024), to_write;
  auto helper = std::make_unique<Helper>(&fill, &to_write);
  {
    auto writer = helper->new_record(42, make_event_word(CPU, 7, 1), -1, 9, 2, 8);
    const ZVKRecord* rec = writer.get_record();
    EXPECT_EQ(rec->timestamp, 42u);
    EXPECT_EQ(rec->event_type, make_event_word(CPU, 7, 1));
    EXPECT_EQ(rec->pid, 0xffffffffu);
    EXPECT_EQ(rec->tid, 9u);
    EXPECT_EQ(rec->call_chain_size, 2);
    EXPECT_EQ(rec->payload_size, 8);
    EXPECT_EQ(reinterpret_cast<const char*>(writer.get_callchain_array()),
              reinterpret_cast<const char*>(rec) + 24);
    EXPECT_EQ(static_cast<char*>(writer.get_payload_store()),
              reinterpret_cast<const char*>(rec) + 24 + 32);
    ZVKRecordEventType parts{};
    parts.hw_type = GPU;
    parts.device_id = 1;
    parts.event_type = 5;
    auto second = helper->new_record(43, parts, 1, 2, 0, 0);
    EXPECT_EQ(second.get_record()->event_type, make_event_word(GPU, 1, 5));
  }
  CaptureStderr();
  helper.reset();
  GetCapturedStderr();
}

TEST(RecordHelper, RecordMustLeaveOneByteFree) {
  ZVKQueue<ZVKBuffer> fill(3, 1024), to_write;
  CaptureStderr();
  {
    Helper helper(&fill, &to_write);
    append(helper, 1, 992 - 24);  // num_bytes 992
    append(helper, 2, 31 - 24);   // 992 + 31 < 1024: stays
    EXPECT_EQ(to_write.size(), 0u);
    append(helper, 3, 0);  // 1023 + 24 doesn't fit
    EXPECT_EQ(to_write.size(), 1u);
  }
  GetCapturedStderr();
  ZVKBuffer* full = pop(to_write);
  EXPECT_EQ(full->num_bytes, 1023u);

  ZVKQueue<ZVKBuffer> fill2(3, 1024), to_write2;
  CaptureStderr();
  {
    Helper helper(&fill2, &to_write2);
    append(helper, 1, 992 - 24);
    append(helper, 2, 32 - 24);  // 992 + 32 == 1024: next buffer
    EXPECT_EQ(to_write2.size(), 1u);
    EXPECT_EQ(pop(to_write2)->num_bytes, 992u);
  }
  GetCapturedStderr();
}

TEST(RecordHelper, FlushOnEmptyBufferIsEndOfDataAndTouchesNothing) {
  ZVKQueue<ZVKBuffer> fill(2, 256), to_write;
  CaptureStderr();
  {
    Helper helper(&fill, &to_write);
    const size_t free_before = fill.size();
    Status status = helper.flush();
    EXPECT_EQ(status.code_, error::END_OF_DATA);
    EXPECT_EQ(status.msg_, "Buffer is Empty");
    EXPECT_EQ(fill.size(), free_before);
    append(helper, 1, 8);
    EXPECT_TRUE(helper.flush().ok());
    EXPECT_EQ(to_write.size(), 1u);
    EXPECT_EQ(helper.flush().code_, error::END_OF_DATA);
  }
  GetCapturedStderr();
}

TEST(RecordHelper, BufferLeavesOnlyAfterBothWritersGoInEitherOrder) {
  for (bool first_ends_first : {true, false}) {
    ZVKQueue<ZVKBuffer> fill(2, 256), to_write;
    CaptureStderr();
    {
      Helper helper(&fill, &to_write);
      auto first = std::make_unique<Helper::RecordWriter>(append(helper, 1, 8));
      auto second = std::make_unique<Helper::RecordWriter>(append(helper, 2, 8));
      EXPECT_EQ(reinterpret_cast<const char*>(second->get_record()),
                reinterpret_cast<const char*>(first->get_record()) + 32);
      helper.flush();
      EXPECT_EQ(to_write.size(), 0u);
      (first_ends_first ? first : second).reset();
      EXPECT_EQ(to_write.size(), 0u);
      (first_ends_first ? second : first).reset();
      EXPECT_EQ(to_write.size(), 1u);
    }
    GetCapturedStderr();
  }
}

TEST(RecordHelper, ConcurrentProducersGetDisjointRecordsAndLoseNone) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 20000;
  ZVKQueue<ZVKBuffer> fill(8, 4096), to_write;
  fill.set_supplied(true);  // the drain below refills it
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> buffers_seen{0};
  std::vector<testing_support::DecodedRecord> collected;
  // Plays the writer: walks each full buffer and hands it back.
  std::thread drain([&] {
    auto take = [&] {
      ZVKBuffer* buffer = pop(to_write);
      if (buffer == nullptr) return false;
      auto records = walk_records(buffer->record_buffer, buffer->num_bytes);
      collected.insert(collected.end(), records.begin(), records.end());
      buffer->num_bytes = 0;
      fill.push(buffer);
      ++buffers_seen;
      return true;
    };
    while (!stop) {
      if (!take()) std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    while (take()) {
    }
  });
  CaptureStderr();
  {
    auto helper = std::make_shared<Helper>(&fill, &to_write);
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
      producers.emplace_back([&, t] {
        for (int i = 0; i < kPerThread; ++i) {
          auto writer = helper->new_record(static_cast<uint64_t>(i), make_event_word(ANNOTATION, 0, 0),
                                           1, t, 0, 8);
          uint64_t value = (static_cast<uint64_t>(t) << 32) | static_cast<uint32_t>(i);
          std::memcpy(writer.get_payload_store(), &value, sizeof(value));
        }
      });
    }
    for (auto& producer : producers) producer.join();
    helper->flush();
  }
  GetCapturedStderr();
  stop = true;
  drain.join();

  ASSERT_EQ(collected.size(), static_cast<size_t>(kThreads * kPerThread));
  std::set<uint64_t> values;
  for (const auto& record : collected) {
    uint64_t value;
    std::memcpy(&value, record.payload.data(), sizeof(value));
    ASSERT_EQ(value >> 32, record.tid);
    ASSERT_EQ(static_cast<uint32_t>(value), record.timestamp);
    values.insert(value);
  }
  EXPECT_EQ(values.size(), static_cast<size_t>(kThreads * kPerThread));
  EXPECT_GT(buffers_seen.load(), 1u);
  EXPECT_EQ(fill.size(), 8u);  // the population is constant
}

TEST(RecordHelper, ProducersStallWhenDryAndTheStallIsCounted) {
  ZVKQueue<ZVKBuffer> fill(2, 128), to_write;
  fill.set_supplied(true);  // the test plays the writer
  CaptureStderr();
  auto helper = std::make_unique<Helper>(&fill, &to_write);
  append(helper.operator*(), 1, 8);
  EXPECT_EQ(helper->stall_time_us(), 0u);  // a pop that succeeds at once adds nothing
  EXPECT_TRUE(helper->flush().ok());       // takes the second, last buffer
  EXPECT_EQ(helper->stall_time_us(), 0u);
  append(*helper, 2, 8);

  std::atomic<int> done{0};
  std::vector<std::thread> producers;
  for (int t = 0; t < 2; ++t) {
    producers.emplace_back([&] {
      append(*helper, 3, 100);  // doesn't fit: waits for a buffer
      ++done;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(done.load(), 0);  // stalled, not dropped
  // Play the writer: hand back the full buffers one at a time.
  while (done.load() < 2) {
    ZVKBuffer* buffer = pop(to_write);
    if (buffer != nullptr) {
      buffer->num_bytes = 0;
      fill.push(buffer);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (auto& producer : producers) producer.join();
  EXPECT_GE(helper->stall_time_us(), 25000u);
  helper.reset();
  const std::string text = GetCapturedStderr();
  EXPECT_NE(text.find("Stalled 0.0"), std::string::npos) << text;
  EXPECT_NE(text.find("s while waiting for a buffer\n"), std::string::npos);
}

TEST(RecordHelper, HelperThatNeverWaitedSaysStalled0s) {
  ZVKQueue<ZVKBuffer> fill(1, 64), to_write;
  auto helper = std::make_unique<Helper>(&fill, &to_write);
  CaptureStderr();
  helper.reset();
  EXPECT_EQ(GetCapturedStderr(), "Stalled 0s while waiting for a buffer\n");
  EXPECT_EQ(to_write.size(), 1u);  // the current buffer is delivered, empty or not
}

TEST(RecordHelper, RecordLargerThanAnyBufferIsDroppedNotOverrun) {
  ZVKQueue<ZVKBuffer> fill(3, 23), to_write;  // 24-byte buffers
  CaptureStderr();
  {
    Helper helper(&fill, &to_write);
    append(helper, 1, 16);  // 40 bytes
    append(helper, 2, 0);   // 24 bytes: fits an empty buffer exactly
  }
  const auto lines = testing_support::log_messages(GetCapturedStderr());
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "ERROR| A record of 40 bytes doesn't fit in a buffer of 24 bytes; such "
                          "records are dropped");
  EXPECT_EQ(fill.take_dropped_records(), 0u);  // not a record that lacked a writer
  size_t records = 0;
  for (ZVKBuffer* buffer = pop(to_write); buffer != nullptr; buffer = pop(to_write)) {
    records += walk_records(buffer->record_buffer, buffer->num_bytes).size();
    EXPECT_LE(buffer->num_bytes, buffer->len_buffer);
  }
  EXPECT_EQ(records, 1u);
}

// Near 4 GiB, num_bytes + size must not wrap in 32 bits, or a record that doesn't
// fit would be written past the buffer's end. The first buffer only claims its
// size: its records area is never touched.
TEST(RecordHelper, FitIsTestedWithoutWrappingNear4GiB) {
  ZVKQueue<ZVKBuffer> fill(1, 64), to_write;
  ZVKBuffer* real = pop(fill);
  ZVKBuffer claimed = {0xfffffff8u, 0xfffffff0u};
  fill.push(&claimed);
  fill.push(real);
  CaptureStderr();
  {
    Helper helper(&fill, &to_write);
    auto writer = append(helper, 7, 16);  // 40 bytes: 0xfffffff0 + 40 passes 2^32
    EXPECT_EQ(reinterpret_cast<const char*>(writer.get_record()), real->record_buffer);
  }
  GetCapturedStderr();
  EXPECT_EQ(pop(to_write), &claimed);
  EXPECT_EQ(pop(to_write), real);
}

TEST(RecordHelper, WithNoWriterADryQueueDropsAndCountsInsteadOfWaiting) {
  ZVKQueue<ZVKBuffer> fill(2, 128), to_write;  // nothing marks it supplied
  CaptureStderr();
  {
    Helper helper(&fill, &to_write);
    // 128-byte buffers hold three 40-byte records; two buffers hold six.
    for (int i = 0; i < 10; ++i) append(helper, static_cast<uint64_t>(i), 16);
    EXPECT_EQ(fill.take_dropped_records(), 4u);
    EXPECT_EQ(fill.take_dropped_records(), 0u);  // taken once
    EXPECT_EQ(helper.stall_time_us(), 0u);       // nothing waited
  }
  GetCapturedStderr();
  size_t records = 0;
  for (ZVKBuffer* buffer = pop(to_write); buffer != nullptr; buffer = pop(to_write)) {
    const auto walked = walk_records(buffer->record_buffer, buffer->num_bytes);
    for (const auto& record : walked) EXPECT_LT(record.timestamp, 6u);  // the first six kept
    records += walked.size();
  }
  EXPECT_EQ(records, 6u);
}

TEST(RecordHelper, AHelperMadeOnADryQueueWithNoWriterStillAnswers) {
  ZVKQueue<ZVKBuffer> fill(0, 128), to_write;
  CaptureStderr();
  {
    Helper helper(&fill, &to_write);
    EXPECT_EQ(helper.flush().code_, error::END_OF_DATA);
    append(helper, 1, 8);
    EXPECT_EQ(fill.take_dropped_records(), 1u);
  }
  EXPECT_EQ(GetCapturedStderr(), "Stalled 0s while waiting for a buffer\n");
  EXPECT_EQ(to_write.size(), 0u);  // the stand-in for a buffer goes nowhere
}

TEST(RecordHelper, AWaitingProducerLetsOthersTakeTheLock) {
  ZVKQueue<ZVKBuffer> fill(1, 128), to_write;
  fill.set_supplied(true);
  CaptureStderr();
  auto helper = std::make_unique<Helper>(&fill, &to_write);
  append(*helper, 1, 64);
  std::atomic<bool> done{false};
  std::thread waiter([&] {
    append(*helper, 2, 64);  // doesn't fit, and the only buffer is current: waits
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(done.load());
  // With the lock held through the wait this would block until the waiter got a
  // buffer, which only the writer below gives it.
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(helper->stall_time_us(), 0u);
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(15));
  fill.set_supplied(false);
  waiter.join();
  EXPECT_EQ(fill.take_dropped_records(), 1u);
  helper.reset();
  GetCapturedStderr();
}

TEST(RecordHelper, AWaitEndsWhenTheWriterGoes) {
  ZVKQueue<ZVKBuffer> fill(1, 128), to_write;
  fill.set_supplied(true);
  CaptureStderr();
  {
    Helper helper(&fill, &to_write);
    append(helper, 1, 64);
    std::thread waiter([&] { append(helper, 2, 64); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    fill.set_supplied(false);  // the writer stopped: nothing will free a buffer
    waiter.join();             // would hang for ever if the wait didn't notice
    EXPECT_EQ(fill.take_dropped_records(), 1u);
    EXPECT_GT(helper.stall_time_us(), 0u);  // the wait is still counted
  }
  GetCapturedStderr();
}

// The pipeline's clocks, each the real one moved by an offset the test steps.
std::atomic<int64_t> g_steady_shift_ns{0};
std::atomic<int64_t> g_system_shift_ns{0};

// Reads of the steady clock: a producer that read it has begun its wait.
std::atomic<uint64_t> g_steady_reads{0};

std::chrono::steady_clock::time_point shifted_steady() {
  g_steady_reads.fetch_add(1);
  return std::chrono::steady_clock::now() + std::chrono::nanoseconds(g_steady_shift_ns.load());
}

// Waits (a minute at most) until some thread read the steady clock after `since`.
void await_steady_read(uint64_t since) {
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (g_steady_reads.load() == since && std::chrono::steady_clock::now() < give_up) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::chrono::system_clock::time_point shifted_system() {
  return std::chrono::system_clock::now() + std::chrono::nanoseconds(g_system_shift_ns.load());
}

// Installed before the threads of a test start and taken back after they end.
class SteppedClocks {
 public:
  SteppedClocks() {
    g_steady_shift_ns = 0;
    g_system_shift_ns = 0;
    ZVKPipelineClock::steady_now = &shifted_steady;
    ZVKPipelineClock::system_now = &shifted_system;
  }
  ~SteppedClocks() {
    ZVKPipelineClock::steady_now = &std::chrono::steady_clock::now;
    ZVKPipelineClock::system_now = &std::chrono::system_clock::now;
  }
  void step_steady(std::chrono::nanoseconds by) { g_steady_shift_ns += by.count(); }
  void step_system(std::chrono::nanoseconds by) { g_system_shift_ns += by.count(); }
};

// Two buffers of 128 bytes, both full of one 88-byte record each: one on the
// to-write queue, one current. The next record of 88 bytes has to wait for the
// test, which plays a writer that may never come.
struct DryPipeline {
  DryPipeline() : fill(2, 128) {
    fill.set_supplied(true);
    helper = std::make_unique<Helper>(&fill, &to_write);
    append(*helper, 1, 64);
    EXPECT_TRUE(helper->flush().ok());
    append(*helper, 2, 64);
    EXPECT_EQ(fill.size(), 0u);
  }
  ~DryPipeline() {
    fill.set_supplied(false);
    helper.reset();
  }

  // Hands one written buffer back, as the writer does.
  void give_back() {
    ZVKBuffer* buffer = pop(to_write);
    ASSERT_NE(buffer, nullptr);
    buffer->num_bytes = 0;
    fill.push(buffer);
  }

  ZVKQueue<ZVKBuffer> fill, to_write;
  std::unique_ptr<Helper> helper;
};

// A producer on another thread; `finished` waits for it a bounded while, so that a
// producer that would wait for ever fails the test instead of hanging it.
class Producer {
 public:
  Producer(Helper& helper, uint64_t timestamp)
      : m_thread([this, &helper, timestamp] {
          append(helper, timestamp, 64);
          m_done = true;
        }) {}
  ~Producer() { m_thread.join(); }
  bool done() const { return m_done; }
  bool finished() {
    for (int i = 0; i < 30000 && !m_done; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return m_done;
  }

 private:
  std::atomic<bool> m_done{false};
  std::thread m_thread;
};

TEST(RecordHelper, AWaitForABufferEndsAfterTheLimitAndTheRecordIsCountedLate) {
  SteppedClocks clocks;
  DryPipeline pipe;
  CaptureStderr();
  {
    Producer waiter(*pipe.helper, 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(waiter.done());  // the writer may just be slow: wait
    clocks.step_steady(Helper::kMaxBufferWait);
    const bool finished = waiter.finished();
    if (!finished) pipe.fill.set_supplied(false);  // let it go, the test has failed
    ASSERT_TRUE(finished);
  }
  EXPECT_EQ(pipe.fill.take_late_records(), 1u);
  EXPECT_EQ(pipe.fill.take_dropped_records(), 0u);  // a writer was there, only stuck
  EXPECT_GE(pipe.helper->stall_time_us(), 5000000u);

  // Until a buffer comes back, records are dropped without another wait: the
  // waiting would only hold up every producer in turn.
  append(*pipe.helper, 4, 64);
  append(*pipe.helper, 5, 64);
  EXPECT_EQ(pipe.fill.take_late_records(), 2u);
  const auto lines = log_messages(GetCapturedStderr());
  EXPECT_EQ(lines, std::vector<std::string>{
                       "WARNING| No buffer came free in 5 s: the writer is stuck or far behind, "
                       "records are dropped until it frees a buffer"});

  // A buffer back ends that: the next record is kept, and a later shortage is
  // waited out again.
  pipe.give_back();
  append(*pipe.helper, 6, 64);
  EXPECT_EQ(pipe.fill.take_late_records(), 0u);
  {
    Producer waiter(*pipe.helper, 7);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(waiter.done());
    pipe.give_back();
    EXPECT_TRUE(waiter.finished());
  }
  EXPECT_EQ(pipe.fill.take_late_records(), 0u);
  CaptureStderr();
  pipe.helper.reset();
  GetCapturedStderr();
  std::vector<uint64_t> kept;
  for (ZVKBuffer* buffer = pop(pipe.to_write); buffer != nullptr; buffer = pop(pipe.to_write)) {
    for (const auto& record : walk_records(buffer->record_buffer, buffer->num_bytes)) {
      kept.push_back(record.timestamp);
    }
  }
  std::sort(kept.begin(), kept.end());
  // 1 and 2 were in the buffers the test "wrote"; 3, 4 and 5 were late.
  EXPECT_EQ(kept, (std::vector<uint64_t>{6, 7}));
}

// A step of the system clock during a wait neither ends the wait nor counts as
// time stalled: the wait runs on the steady clock.
TEST(RecordHelper, AStepOfTheSystemClockNeitherEndsNorStretchesAWait) {
  SteppedClocks clocks;
  DryPipeline pipe;
  CaptureStderr();
  {
    const uint64_t reads = g_steady_reads.load();
    Producer waiter(*pipe.helper, 3);
    await_steady_read(reads);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    clocks.step_system(std::chrono::hours(24));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(waiter.done());
    pipe.give_back();
    EXPECT_TRUE(waiter.finished());
  }
  EXPECT_EQ(pipe.fill.take_late_records(), 0u);
  EXPECT_GT(pipe.helper->stall_time_us(), 0u);
  EXPECT_LT(pipe.helper->stall_time_us(), 3600000000u);
  pipe.helper.reset();
  EXPECT_TRUE(log_messages(GetCapturedStderr()).empty());
}

// ZORV_QUIET is read once per process: each case runs in a process of its own.
TEST(RecordHelperQuiet, AQuietHelperThatNeverWaitedSaysNothing) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_QUIET=1"}));
    return;
  }
  ZVKQueue<ZVKBuffer> fill(1, 64), to_write;
  auto helper = std::make_unique<Helper>(&fill, &to_write);
  CaptureStderr();
  helper.reset();
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_EQ(to_write.size(), 1u);
}

TEST(RecordHelperQuiet, AQuietHelperStillTellsARealStall) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_QUIET=1"}));
    return;
  }
  // A wait that runs to its limit, which the stepped clock brings soon.
  SteppedClocks clocks;
  DryPipeline pipe;
  CaptureStderr();
  {
    Producer waiter(*pipe.helper, 3);
    while (!waiter.done()) {
      clocks.step_steady(std::chrono::seconds(1));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  GetCapturedStderr();
  EXPECT_GE(pipe.helper->stall_time_us(), 5000000u);
  CaptureStderr();
  pipe.helper.reset();
  const std::string text = GetCapturedStderr();
  // The wait ends at the first clock reading past its limit, which may come a
  // step or two late on a loaded machine: the stall is said, at 5 s or more.
  const std::string head = "Stalled ";
  const std::string tail = "s while waiting for a buffer\n";
  ASSERT_EQ(text.rfind(head, 0), 0u) << text;
  ASSERT_GE(text.size(), head.size() + tail.size());
  EXPECT_EQ(text.substr(text.size() - tail.size()), tail) << text;
  EXPECT_GE(std::stod(text.substr(head.size())), 5.0) << text;
}

void expect_zero_stall_said() {
  ZVKQueue<ZVKBuffer> fill(1, 64), to_write;
  auto helper = std::make_unique<Helper>(&fill, &to_write);
  CaptureStderr();
  helper.reset();
  EXPECT_EQ(GetCapturedStderr(), "Stalled 0s while waiting for a buffer\n");
}

TEST(RecordHelperQuiet, WithoutTheSwitchTheZeroStallIsSaid) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  unsetenv("ZORV_QUIET");
  expect_zero_stall_said();
}

TEST(RecordHelperQuiet, WithTheSwitchOffTheZeroStallIsSaid) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_QUIET=0"}));
    return;
  }
  expect_zero_stall_said();
}

}  // namespace
}  // namespace zorvek
