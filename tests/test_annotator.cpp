#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <set>
#include <thread>
#include <vector>

#include "tests/test_support.h"
#include "zorv/zvkannotator.h"

namespace {

// While a script runs, the clock reads of this binary are logged and answered with
// the read's position in the log: seconds tell the clock, nanoseconds the position.
// That shows which read filled which slot of a time marker.
struct ClockScript {
  static constexpr time_t kMonotonicSeconds = 1000;
  static constexpr time_t kRealtimeSeconds = 1700000000;
  bool running = false;
  std::vector<clockid_t> reads;
};
ClockScript g_clock_script;

}  // namespace

// Replaces the C library's function for this whole binary, the capture library's
// reads included. Outside a script it asks the kernel directly.
extern "C" int clock_gettime(clockid_t clock, timespec* ts) noexcept {
  if (!g_clock_script.running) return static_cast<int>(syscall(SYS_clock_gettime, clock, ts));
  ts->tv_sec = clock == CLOCK_MONOTONIC_RAW ? ClockScript::kMonotonicSeconds
                                            : ClockScript::kRealtimeSeconds;
  ts->tv_nsec = static_cast<long>(g_clock_script.reads.size());
  g_clock_script.reads.push_back(clock);
  return 0;
}

namespace zorvek {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::DecodedRecord;
using testing_support::log_messages;
using testing_support::walk_records;

// The records of the buffers in `to_write`, which go back to `fill` emptied.
std::vector<DecodedRecord> drain(ZVKQueue<ZVKBuffer>* fill, ZVKQueue<ZVKBuffer>* to_write) {
  std::vector<DecodedRecord> all;
  ZVKBuffer* buffer = nullptr;
  while (to_write->pop(&buffer), buffer != nullptr) {
    auto some = walk_records(buffer->record_buffer, buffer->num_bytes);
    all.insert(all.end(), some.begin(), some.end());
    buffer->num_bytes = 0;
    fill->push(buffer);
  }
  return all;
}

uint64_t token_of(const DecodedRecord& record) {
  uint64_t token;
  std::memcpy(&token, record.payload.data(), sizeof(token));
  return token;
}

uint64_t mono_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return timespec_to_ns(now);
}

// Keeps the calling thread on the CPU it runs on for a scope, so that the CPU a
// test reads is the one the annotator reads.
class PinnedToCurrentCpu {
 public:
  PinnedToCurrentCpu() {
    m_pinned = sched_getaffinity(0, sizeof(m_saved), &m_saved) == 0;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    m_pinned = m_pinned && sched_setaffinity(0, sizeof(one), &one) == 0;
  }
  ~PinnedToCurrentCpu() {
    if (m_pinned) sched_setaffinity(0, sizeof(m_saved), &m_saved);
  }
  PinnedToCurrentCpu(const PinnedToCurrentCpu&) = delete;
  PinnedToCurrentCpu& operator=(const PinnedToCurrentCpu&) = delete;
  bool pinned() const { return m_pinned; }

 private:
  cpu_set_t m_saved;
  bool m_pinned;
};

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
    return drain(&fill, &to_write);
  }

  ZVKQueue<ZVKBuffer> fill;
  ZVKQueue<ZVKBuffer> to_write;
  std::unique_ptr<ZVKAnnotator> annotator;
};

TEST(AnnotatorTimeMarker, ComesFirstWithReadingsOfTheLiveClocks) {
  ZVKQueue<ZVKBuffer> fill(2, 4096), to_write;
  CaptureStderr();
  const uint64_t mono_before = mono_ns();
  const uint64_t real_before = now_ns();
  auto annotator = std::make_unique<ZVKAnnotator>("Annotator", &fill, &to_write);
  const uint64_t mono_after = mono_ns();
  const uint64_t real_after = now_ns();
  annotator->flush();
  const auto all = drain(&fill, &to_write);
  annotator.reset();
  GetCapturedStderr();

  ASSERT_EQ(all.size(), 1u);
  const DecodedRecord& marker = all[0];
  EXPECT_EQ(marker.hw_type, ANNOTATION);
  EXPECT_EQ(marker.event_type, annotations::TIME_MARKER);
  EXPECT_EQ(marker.payload_size, 256);
  EXPECT_EQ(marker.call_chain_size, 0);
  EXPECT_EQ(marker.pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(marker.tid, static_cast<uint32_t>(syscall(SYS_gettid)));
  EXPECT_GE(marker.timestamp, real_before);
  annotations::time_marker clocks;
  std::memcpy(&clocks, marker.payload.data(), sizeof(clocks));
  for (int i = 0; i < annotations::kClockPairs; ++i) {
    EXPECT_GE(clocks.monotic[i], mono_before) << i;
    EXPECT_LE(clocks.monotic[i], mono_after) << i;
    EXPECT_GE(clocks.realtime[i], marker.timestamp) << i;
    EXPECT_LE(clocks.realtime[i], real_after) << i;
    if (i > 0) {
      EXPECT_GE(clocks.monotic[i], clocks.monotic[i - 1]) << i;
      EXPECT_GE(clocks.realtime[i], clocks.realtime[i - 1]) << i;
    }
  }
  // With O the offset between the clocks, the bursts lie in the order
  // realtime[10] < monotic[11] + O <= monotic[15] + O < realtime[11]: the span of
  // real time from slot 10 to 11 holds the whole monotonic burst. Taken the other
  // way round, that span would hold one read and the burst four.
  EXPECT_GT(clocks.realtime[11] - clocks.realtime[10], clocks.monotic[15] - clocks.monotic[11]);
}

TEST(AnnotatorTimeMarker, ReadsTheClocksInItsFixedOrder) {
  ZVKQueue<ZVKBuffer> fill(2, 4096), to_write;
  CaptureStderr();
  g_clock_script.reads.clear();
  g_clock_script.running = true;
  auto annotator = std::make_unique<ZVKAnnotator>("Annotator", &fill, &to_write);
  g_clock_script.running = false;
  annotator->flush();
  const auto all = drain(&fill, &to_write);
  annotator.reset();
  GetCapturedStderr();

  constexpr clockid_t M = CLOCK_MONOTONIC_RAW;
  constexpr clockid_t R = CLOCK_REALTIME;
  // The timestamp; slot 0; slot 1 twice; slots 2-10 in pairs; then the two bursts.
  std::vector<clockid_t> expected = {R, M, R, M, R, M, R};
  for (int slot = 2; slot <= 10; ++slot) expected.insert(expected.end(), {M, R});
  expected.insert(expected.end(), {M, M, M, M, M, R, R, R, R, R});
  EXPECT_EQ(g_clock_script.reads, expected);

  // Which read, by its position, each slot holds: slot 1 keeps the second pair.
  const uint64_t monotonic_read[annotations::kClockPairs] = {1,  5,  7,  9,  11, 13, 15, 17,
                                                             19, 21, 23, 25, 26, 27, 28, 29};
  const uint64_t realtime_read[annotations::kClockPairs] = {2,  6,  8,  10, 12, 14, 16, 18,
                                                            20, 22, 24, 30, 31, 32, 33, 34};
  ASSERT_EQ(all.size(), 1u);
  const uint64_t mono_base = ClockScript::kMonotonicSeconds * 1000000000ULL;
  const uint64_t real_base = ClockScript::kRealtimeSeconds * 1000000000ULL;
  EXPECT_EQ(all[0].timestamp, real_base);
  annotations::time_marker clocks;
  std::memcpy(&clocks, all[0].payload.data(), sizeof(clocks));
  for (int i = 0; i < annotations::kClockPairs; ++i) {
    EXPECT_EQ(clocks.monotic[i], mono_base + monotonic_read[i]) << "slot " << i;
    EXPECT_EQ(clocks.realtime[i], real_base + realtime_read[i]) << "slot " << i;
  }
}

TEST_F(AnnotatorTest, BeginEndAndMarkerPayloads) {
  records();  // drop the time marker
  PinnedToCurrentCpu pin;
  ASSERT_TRUE(pin.pinned());
  const uint32_t cpu = static_cast<uint32_t>(sched_getcpu()) & 0xff;
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
  EXPECT_EQ(begin.device_id, cpu);

  const DecodedRecord& end = all[1];
  EXPECT_EQ(end.event_type, annotations::END);
  EXPECT_EQ(end.payload_size, 8);
  EXPECT_EQ(token_of(end), token);
  EXPECT_GE(end.timestamp, begin.timestamp);
  EXPECT_EQ(end.device_id, cpu);

  const DecodedRecord& marker = all[2];
  EXPECT_EQ(marker.event_type, annotations::MARKER);
  EXPECT_EQ(marker.payload_size, 24);
  EXPECT_EQ(token_of(marker), 0u);
  EXPECT_STREQ(marker.payload.data() + 8, "checkpoint");
  EXPECT_EQ(marker.device_id, cpu);
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
  EXPECT_EQ(all[0].payload_size, 16);  // correlation, one NUL, seven bytes of padding
  EXPECT_EQ(all[0].payload[8], '\0');
  EXPECT_EQ(all[1].payload_size, 16);
  EXPECT_EQ(all[2].payload_size, 24);
  EXPECT_EQ(all[3].payload_size, 24);
  EXPECT_EQ(all[4].payload_size, 32);
}

// Buffers are reused: the padding is written as zeros, so that no bytes of earlier
// records reach the file behind a message.
TEST(Annotator, PaddingIsZeroedOverStaleBytes) {
  ZVKQueue<ZVKBuffer> fill(2, 4096), to_write;
  ZVKBuffer* buffers[2];
  for (ZVKBuffer*& buffer : buffers) fill.pop(&buffer);
  for (ZVKBuffer* buffer : buffers) {
    std::memset(buffer->record_buffer, 0xab, buffer->len_buffer);
    fill.push(buffer);
  }
  CaptureStderr();
  auto annotator = std::make_unique<ZVKAnnotator>("Annotator", &fill, &to_write);
  for (size_t len = 0; len <= 17; ++len) annotator->annotate_begin(std::string(len, 'm'));
  annotator->annotate_marker("x", 1);
  annotator->flush();
  const auto all = drain(&fill, &to_write);
  annotator.reset();
  GetCapturedStderr();
  ASSERT_EQ(all.size(), 20u);  // the time marker first
  for (size_t i = 1; i < all.size(); ++i) {
    const std::string& payload = all[i].payload;
    const size_t text_end = payload.find('\0', 8);
    ASSERT_NE(text_end, std::string::npos);
    EXPECT_EQ(payload.substr(text_end), std::string(payload.size() - text_end, '\0')) << i;
  }
}

// A message too long for the 16-bit payload size is cut to the longest that fits,
// said once at the first, and counted at the flush.
TEST(Annotator, TooLongMessageIsCutToTheLongestThatFits) {
  ZVKQueue<ZVKBuffer> fill(2, 1 << 20), to_write;
  CaptureStderr();
  auto annotator = std::make_unique<ZVKAnnotator>("Annotator", &fill, &to_write);
  const uint64_t token = annotator->annotate_begin(std::string(65520, 'h'));
  annotator->annotate_marker(std::string(65528, 'w'));
  annotator->annotate_marker("after", 5);
  annotator->flush();
  const auto all = drain(&fill, &to_write);
  annotator.reset();
  const std::vector<std::string> lines = log_messages(GetCapturedStderr());

  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[1].payload_size, 65528);
  EXPECT_EQ(token_of(all[1]), token);
  EXPECT_EQ(all[1].payload.substr(8), std::string(65519, 'h') + '\0');
  EXPECT_EQ(all[2].payload_size, 65528);
  EXPECT_EQ(all[2].payload.substr(8), std::string(65519, 'w') + '\0');
  EXPECT_EQ(all[3].event_type, annotations::MARKER);
  EXPECT_STREQ(all[3].payload.data() + 8, "after");  // the neighbour is intact
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "WARNING| An annotation message of 65520 bytes was cut to 65519 bytes, "
                       "the most a record holds",
                       "WARNING| 2 annotation messages were cut to 65519 bytes to fit a record"}));
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
