#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <thread>

#include "tests/test_support.h"
#include "zorv/zvkannotator.h"

namespace zorvek {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::DecodedRecord;
using testing_support::walk_records;

// An annotator on its own record helper, and the records it has sent on.
class AnnotatorTest : public ::testing::Test {
 protected:
  AnnotatorTest() : fill(4, 1 << 20) {
    CaptureStderr();
    annotator = std::make_unique<ZVKAnnotator>("Annotator", &fill, &to_write);
  }
  ~AnnotatorTest() override {
    annotator.reset();
    GetCapturedStderr();
  }

  std::vector<DecodedRecord> records() {
    annotator->flush();
    std::vector<DecodedRecord> all;
    ZVKBuffer* buffer = nullptr;
    while (to_write.pop(&buffer), buffer != nullptr) {
      auto some = walk_records(buffer->record_buffer, buffer->num_bytes);
      all.insert(all.end(), some.begin(), some.end());
      buffer->num_bytes = 0;
      fill.push(buffer);
    }
    return all;
  }

  static uint64_t token_of(const DecodedRecord& record) {
    uint64_t token;
    std::memcpy(&token, record.payload.data(), sizeof(token));
    return token;
  }

  ZVKQueue<ZVKBuffer> fill;
  ZVKQueue<ZVKBuffer> to_write;
  std::unique_ptr<ZVKAnnotator> annotator;
};

TEST_F(AnnotatorTest, TimeMarkerComesFirstWithItsClockPairs) {
  const auto all = records();
  ASSERT_EQ(all.size(), 1u);
  const DecodedRecord& marker = all[0];
  EXPECT_EQ(marker.hw_type, ANNOTATION);
  EXPECT_EQ(marker.event_type, annotations::TIME_MARKER);
  EXPECT_EQ(marker.payload_size, 256);
  EXPECT_EQ(marker.call_chain_size, 0);
  EXPECT_EQ(marker.pid, static_cast<uint32_t>(getpid()));
  annotations::time_marker clocks;
  std::memcpy(&clocks, marker.payload.data(), sizeof(clocks));
  timespec mono, real;
  clock_gettime(CLOCK_MONOTONIC_RAW, &mono);
  clock_gettime(CLOCK_REALTIME, &real);
  for (int i = 0; i < annotations::kClockPairs; ++i) {
    EXPECT_NE(clocks.monotic[i], 0u);
    EXPECT_LE(clocks.monotic[i], static_cast<uint64_t>(mono.tv_sec) * 1000000000ULL + mono.tv_nsec);
    EXPECT_GE(clocks.realtime[i], marker.timestamp);
    if (i > 0) {
      EXPECT_GE(clocks.monotic[i], clocks.monotic[i - 1]);
      EXPECT_GE(clocks.realtime[i], clocks.realtime[i - 1]);
    }
  }
  // Slots 11-15: the monotonic burst is taken before the system one.
  const int64_t offset_mid = static_cast<int64_t>(clocks.realtime[5] - clocks.monotic[5]);
  EXPECT_GE(static_cast<int64_t>(clocks.realtime[15] - clocks.monotic[11]), offset_mid - 1000000);
}

TEST_F(AnnotatorTest, BeginEndAndMarkerPayloads) {
  records();  // drop the time marker
  const uint64_t before = counter().load();
  const uint64_t token = annotator->annotate_begin(std::string("forward"));
  EXPECT_EQ(token, before);
  annotator->annotate_end(token);
  EXPECT_EQ(annotator->annotate_marker("checkpoint", 10), 0u);
  EXPECT_EQ(counter().load(), before + 1);  // markers don't advance the counter
  const auto all = records();
  ASSERT_EQ(all.size(), 3u);

  const DecodedRecord& begin = all[0];
  EXPECT_EQ(begin.event_type, annotations::BEGIN);
  EXPECT_EQ(begin.payload_size, 16);
  EXPECT_EQ(token_of(begin), token);
  EXPECT_STREQ(begin.payload.data() + 8, "forward");
  EXPECT_EQ(begin.pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(begin.tid, static_cast<uint32_t>(syscall(SYS_gettid)));
  EXPECT_EQ(begin.call_chain_size, 0);
  const uint32_t word = make_event_word(begin.hw_type, begin.device_id, begin.event_type);
  EXPECT_EQ(word & 0xf00fffffu, 0x50000000u);
  EXPECT_EQ(begin.device_id, static_cast<uint32_t>(sched_getcpu()) & 0xff);

  const DecodedRecord& end = all[1];
  EXPECT_EQ(end.event_type, annotations::END);
  EXPECT_EQ(end.payload_size, 8);
  EXPECT_EQ(token_of(end), token);
  EXPECT_GE(end.timestamp, begin.timestamp);

  const DecodedRecord& marker = all[2];
  EXPECT_EQ(marker.event_type, annotations::MARKER);
  EXPECT_EQ(marker.payload_size, 24);
  EXPECT_EQ(token_of(marker), 0u);
  EXPECT_STREQ(marker.payload.data() + 8, "checkpoint");
}

TEST_F(AnnotatorTest, PayloadSizesRoundToEight) {
  records();
  annotator->annotate_begin(std::string());
  annotator->annotate_begin(std::string(7, 'a'));
  annotator->annotate_begin(std::string(8, 'b'));
  annotator->annotate_begin(std::string(15, 'c'));
  annotator->annotate_begin(std::string(16, 'd'));
  const auto all = records();
  ASSERT_EQ(all.size(), 5u);
  EXPECT_EQ(all[0].payload_size, 16);  // correlation, one NUL, seven unwritten bytes
  EXPECT_EQ(all[0].payload[8], '\0');
  EXPECT_EQ(all[1].payload_size, 16);
  EXPECT_EQ(all[2].payload_size, 24);
  EXPECT_EQ(all[3].payload_size, 24);
  EXPECT_EQ(all[4].payload_size, 32);
}

TEST_F(AnnotatorTest, HugeMessageWrapsThePayloadSizeAndStaysInItsRecord) {
  records();
  const std::string huge(65520, 'h');
  annotator->annotate_begin(huge);
  annotator->annotate_marker("after", 5);
  const auto all = records();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].payload_size, 0);  // (65520 + 8) rounded + 8 wraps to 0
  EXPECT_EQ(all[1].event_type, annotations::MARKER);
  EXPECT_STREQ(all[1].payload.data() + 8, "after");  // the neighbour is intact

  const std::string wraps_to_eight(65528, 'w');
  const uint64_t token = annotator->annotate_begin(wraps_to_eight);
  const auto more = records();
  ASSERT_EQ(more.size(), 1u);
  EXPECT_EQ(more[0].payload_size, 8);
  EXPECT_EQ(token_of(more[0]), token);
}

TEST_F(AnnotatorTest, EndWithUnknownTokenIsAnOrdinaryEnd) {
  records();
  annotator->annotate_end(0xdeadbeef);
  const auto all = records();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].event_type, annotations::END);
  EXPECT_EQ(token_of(all[0]), 0xdeadbeefu);
}

TEST_F(AnnotatorTest, FlushAfterFlushIsEndOfData) {
  records();
  Status status = annotator->flush();
  EXPECT_EQ(status.code_, error::END_OF_DATA);
  EXPECT_EQ(status.msg_, "Buffer is Empty");
}

TEST_F(AnnotatorTest, TokensAreUniqueAcrossThreads) {
  records();
  constexpr int kThreads = 4;
  constexpr int kPairs = 5000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kPairs; ++i) annotator->annotate_end(annotator->annotate_begin("step", 4));
    });
  }
  for (auto& thread : threads) thread.join();
  const auto all = records();
  ASSERT_EQ(all.size(), static_cast<size_t>(2 * kThreads * kPairs));
  std::set<uint64_t> begins;
  std::set<uint32_t> tids;
  for (const auto& record : all) {
    if (record.event_type == annotations::BEGIN) begins.insert(token_of(record));
    tids.insert(record.tid);
  }
  EXPECT_EQ(begins.size(), static_cast<size_t>(kThreads * kPairs));
  EXPECT_EQ(tids.size(), static_cast<size_t>(kThreads));
}

TEST_F(AnnotatorTest, ForkedChildContinuesTheCounterWithItsOwnIds) {
  records();
  const uint64_t parent_token = annotator->annotate_begin("parent", 6);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t child = fork();
  if (child == 0) {
    struct Answer {
      uint64_t token;
      uint32_t pid, tid;
    } answer{};
    answer.token = annotator->annotate_begin("child", 5);
    annotator->flush();
    ZVKBuffer* buffer = nullptr;
    while (to_write.pop(&buffer), buffer != nullptr) {
      for (const auto& record : walk_records(buffer->record_buffer, buffer->num_bytes)) {
        if (record.payload.size() > 8 && std::string(record.payload.data() + 8) == "child") {
          answer.pid = record.pid;
          answer.tid = record.tid;
        }
      }
    }
    (void)!write(fds[1], &answer, sizeof(answer));
    _exit(0);
  }
  struct {
    uint64_t token;
    uint32_t pid, tid;
  } answer{};
  ASSERT_EQ(read(fds[0], &answer, sizeof(answer)), static_cast<ssize_t>(sizeof(answer)));
  waitpid(child, nullptr, 0);
  close(fds[0]);
  close(fds[1]);
  EXPECT_EQ(answer.token, parent_token + 1);
  EXPECT_EQ(answer.pid, static_cast<uint32_t>(child));
  EXPECT_EQ(answer.tid, static_cast<uint32_t>(child));  // the forking thread's new tid
}

TEST(Annotator, SharedHelperConstructorWritesTheMarkerThroughIt) {
  ZVKQueue<ZVKBuffer> fill(2, 4096), to_write;
  CaptureStderr();
  {
    auto helper = std::make_shared<ZVKBufferRecordHelper>(&fill, &to_write);
    ZVKAnnotator annotator("SharedAnnotator", helper);
    EXPECT_EQ(annotator.name(), "SharedAnnotator");
    EXPECT_TRUE(helper->flush().ok());  // the time marker was there
  }
  GetCapturedStderr();
}

}  // namespace
}  // namespace zorvek
