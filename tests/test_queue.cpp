#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "tests/test_support.h"
#include "zorv/io/zvkqueue.h"

namespace zorvek {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::log_messages;

TEST(Queue, CountZeroHasNoStorageAndPopsNull) {
  ZVKQueue<ZVKBuffer> queue(0, 1024);
  EXPECT_EQ(queue.storage(), nullptr);
  ZVKBuffer* buffer = reinterpret_cast<ZVKBuffer*>(1);
  queue.pop(&buffer);
  EXPECT_EQ(buffer, nullptr);
  queue.pop(&buffer);
  EXPECT_EQ(buffer, nullptr);
}

TEST(Queue, SizeBelowOneRecordWarnsAndTakes24) {
  CaptureStderr();
  ZVKQueue<ZVKBuffer> small(2, 23);
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            std::vector<std::string>{"ERROR| WARNING queue buffer size is less than a single "
                                     "record size! This will not end well!"});
  ZVKBuffer* a = nullptr;
  ZVKBuffer* b = nullptr;
  small.pop(&a);
  small.pop(&b);
  EXPECT_EQ(a->len_buffer, 24u);
  EXPECT_EQ(reinterpret_cast<char*>(b) - reinterpret_cast<char*>(a), 32);  // stride capacity + 8
}

TEST(Queue, Size24GivesNoWarning) {
  CaptureStderr();
  ZVKQueue<ZVKBuffer> queue(1, 24);
  EXPECT_TRUE(log_messages(GetCapturedStderr()).empty());
  ZVKBuffer* buffer = nullptr;
  queue.pop(&buffer);
  EXPECT_EQ(buffer->len_buffer, 24u);
}

TEST(Queue, Size25RoundsUpTo32) {
  ZVKQueue<ZVKBuffer> queue(3, 25);
  ZVKBuffer* first = nullptr;
  ZVKBuffer* second = nullptr;
  queue.pop(&first);
  queue.pop(&second);
  EXPECT_EQ(first->len_buffer, 32u);
  EXPECT_EQ(first->num_bytes, 0u);
  EXPECT_EQ(reinterpret_cast<char*>(second) - reinterpret_cast<char*>(first), 40);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(first->record_buffer) % 8, 0u);
}

TEST(Queue, FifoAndPopAfterLastLeavesItUsable) {
  ZVKQueue<ZVKBuffer> fill(2, 64);
  ZVKQueue<ZVKBuffer> other;
  ZVKBuffer* a = nullptr;
  ZVKBuffer* b = nullptr;
  fill.pop(&a);
  fill.pop(&b);
  other.push(a);
  other.push(b);
  EXPECT_EQ(other.size(), 2u);
  ZVKBuffer* out = nullptr;
  other.pop(&out);
  EXPECT_EQ(out, a);
  other.pop(&out);
  EXPECT_EQ(out, b);
  other.pop(&out);
  EXPECT_EQ(out, nullptr);
  other.push(a);
  other.pop(&out);
  EXPECT_EQ(out, a);
}

TEST(Queue, ToFillOwnsTheSlabTheToWriteQueuePointsInto) {
  auto to_fill = std::make_unique<ZVKQueue<ZVKBuffer>>(2, 128);
  auto to_write = std::make_unique<ZVKQueue<ZVKBuffer>>();
  ZVKBuffer* first = nullptr;
  ZVKBuffer* second = nullptr;
  to_fill->pop(&first);
  to_fill->pop(&second);
  const char* slab = static_cast<const char*>(to_fill->storage());
  EXPECT_EQ(reinterpret_cast<const char*>(first), slab);
  EXPECT_EQ(reinterpret_cast<const char*>(second), slab + 128 + 8);
  for (ZVKBuffer* buffer : {first, second}) {
    std::memset(buffer->record_buffer, 0x5a, buffer->len_buffer);
    buffer->num_bytes = 100;
    to_write->push(buffer);
  }
  EXPECT_EQ(to_write->storage(), nullptr);

  // Teardown order: the queue without storage first. It frees nothing of what it
  // points into, so the buffers it held stay whole in the owner's slab; the owner
  // takes them back and frees the slab last.
  to_write.reset();
  for (ZVKBuffer* buffer : {first, second}) {
    EXPECT_EQ(buffer->len_buffer, 128u);
    EXPECT_EQ(buffer->num_bytes, 100u);
    EXPECT_EQ(std::count(buffer->record_buffer, buffer->record_buffer + 128, '\x5a'), 128);
    to_fill->push(buffer);
  }
  EXPECT_EQ(to_fill->size(), 2u);
  to_fill.reset();
}

TEST(Queue, ReportNamesOnlyBuffersWithData) {
  ZVKQueue<ZVKBuffer> queue(4, 64);
  CaptureStderr();
  queue.report_unprocessed();
  EXPECT_TRUE(log_messages(GetCapturedStderr()).empty());

  ZVKBuffer* buffer = nullptr;
  queue.pop(&buffer);
  buffer->num_bytes = 40;
  queue.push(buffer);
  CaptureStderr();
  queue.report_unprocessed();
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            std::vector<std::string>{"ERROR| PID= " + std::to_string(getpid()) +
                                     ". Buffer Queue still had 1 unprocessed buffers with 40 bytes "
                                     "of data"});
}

TEST(QueueMover, PushesTheBufferWhenTheLastHolderLetsGo) {
  ZVKQueue<ZVKBuffer> fill(1, 64);
  ZVKQueue<ZVKBuffer> to_write;
  ZVKBuffer* buffer = nullptr;
  fill.pop(&buffer);
  buffer->num_bytes = 0;
  {
    std::shared_ptr<ZVKBuffer> held(buffer, QueueMover<ZVKBuffer>(&to_write));
    std::shared_ptr<ZVKBuffer> second = held;
    held.reset();
    EXPECT_EQ(to_write.size(), 0u);
  }
  EXPECT_EQ(to_write.size(), 1u);  // an empty buffer travels too
}

TEST(Queue, ConcurrentPushAndPopKeepThePopulation) {
  constexpr int kBuffers = 16;
  ZVKQueue<ZVKBuffer> a(kBuffers, 64);
  ZVKQueue<ZVKBuffer> b;
  auto mover = [](ZVKQueue<ZVKBuffer>* from, ZVKQueue<ZVKBuffer>* to) {
    for (int i = 0; i < 20000; ++i) {
      ZVKBuffer* buffer = nullptr;
      from->pop(&buffer);
      if (buffer != nullptr) to->push(buffer);
    }
  };
  std::thread t1(mover, &a, &b), t2(mover, &b, &a), t3(mover, &a, &b);
  t1.join();
  t2.join();
  t3.join();
  EXPECT_EQ(a.size() + b.size(), static_cast<size_t>(kBuffers));
  std::set<ZVKBuffer*> seen;
  for (auto* queue : {&a, &b}) {
    ZVKBuffer* buffer = nullptr;
    while (queue->pop(&buffer), buffer != nullptr) seen.insert(buffer);
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(kBuffers));
}

}  // namespace
}  // namespace zorvek
