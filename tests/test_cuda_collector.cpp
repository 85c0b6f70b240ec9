// The GPU collector against the fake CUPTI: the CUPTI calls of start and stop, the
// activity buffers, the translation of every activity record it keeps, the driver
// API callback with its call chain, the capture time limit, and whole captures
// through the controller, forks included.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/fake_cupti/fake_cupti.h"
#include "tests/test_support.h"
#include "zorv/cuda/zvkcudacollector.h"
#include "zorv/cuda/zvkcupti.h"
#include "zorv/format/record.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkqueue.h"
#include "zorv/zorv.h"

namespace zorvek {
namespace {

// The collector loads CUPTI once, on first use, from ZVK_CUPTI_LIBRARY first: it
// must find the fake this binary links (the same copy, so both share its state)
// before any test touches CUPTI.
const bool g_fake_cupti_selected = [] {
  setenv("ZVK_CUPTI_LIBRARY", FAKE_CUPTI_LIBRARY, 1);
  return true;
}();

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::DecodedRecord;
using testing_support::in_fresh_process;
using testing_support::log_messages;
using testing_support::read_capture;
using testing_support::rerun_in_fresh_process;
using testing_support::run_in_child;
using testing_support::ScopedEnv;
using testing_support::small_capture_config;
using testing_support::TempDir;
using testing_support::walk_records;
using Strings = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The numbers the fake logs for the kinds and the domain.
static_assert(CUPTI_ACTIVITY_KIND_MEMCPY == 1 && CUPTI_ACTIVITY_KIND_MEMSET == 2 &&
                  CUPTI_ACTIVITY_KIND_KERNEL == 3 && CUPTI_ACTIVITY_KIND_DRIVER == 4 &&
                  CUPTI_ACTIVITY_KIND_RUNTIME == 5 && CUPTI_ACTIVITY_KIND_CONTEXT == 9 &&
                  CUPTI_ACTIVITY_KIND_NAME == 11 && CUPTI_ACTIVITY_KIND_SYNCHRONIZATION == 38,
              "kind numbers as logged");
static_assert(CUPTI_CB_DOMAIN_DRIVER_API == 1, "driver domain as logged");

const Strings kDefaultStartCalls = {
    "cuptiActivityEnable(3)",  "cuptiActivityEnable(9)",  "cuptiActivityEnable(4)",
    "cuptiActivityEnable(5)",  "cuptiActivityEnable(1)",  "cuptiActivityEnable(2)",
    "cuptiActivityEnable(11)", "cuptiActivityEnable(38)", "cuptiSubscribe",
    "cuptiEnableDomain(1,1)",  "cuptiActivityRegisterCallbacks"};
const Strings kDisableCalls = {
    "cuptiActivityDisable(3)", "cuptiActivityDisable(9)",  "cuptiActivityDisable(4)",
    "cuptiActivityDisable(5)", "cuptiActivityDisable(1)",  "cuptiActivityDisable(2)",
    "cuptiActivityDisable(11)", "cuptiActivityDisable(38)"};

Strings concat(std::initializer_list<Strings> parts) {
  Strings all;
  for (const Strings& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const Strings kDefaultStopCalls = concat(
    {{"cuptiEnableDomain(0,1)", "cuptiUnsubscribe"}, kDisableCalls, {"cuptiActivityFlushAll(1)"}});

const char* const kEmptyFlushLine =
    "ERROR| Status check failed flushing buffer helper returned not OK status= Buffer is Empty";

constexpr uint8_t kPattern = 0xA5;  // what a capture buffer holds before records
constexpr uint32_t kGpuWordBase = 1u << 28;

// ---- Small tools ----------------------------------------------------------------

template <typename Pred>
bool wait_until(Pred pred, milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (!pred()) {
    if (Clock::now() > deadline) return pred();
    std::this_thread::sleep_for(milliseconds(1));
  }
  return true;
}

size_t count_of(const Strings& items, const std::string& item) {
  return static_cast<size_t>(std::count(items.begin(), items.end(), item));
}

bool call_seen(const std::string& call, size_t times = 1) {
  return count_of(fake_cupti::calls(), call) >= times;
}

uint32_t gettid_now() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string result_number(CUptiResult result) {
  return std::to_string(static_cast<int>(result));
}

// Expected bytes, put at the offsets of the format.
class Bytes {
 public:
  explicit Bytes(size_t size, char fill = 0) : m_bytes(size, fill) {}
  template <typename T>
  Bytes& put(size_t offset, T value) {
    std::memcpy(&m_bytes[offset], &value, sizeof value);
    return *this;
  }
  Bytes& put_text(size_t offset, const std::string& text) {
    std::memcpy(&m_bytes[offset], text.c_str(), text.size() + 1);
    return *this;
  }
  const std::string& str() const { return m_bytes; }

 private:
  std::string m_bytes;
};

template <typename T>
T field(const DecodedRecord& record, size_t offset) {
  T value;
  std::memcpy(&value, record.payload.data() + offset, sizeof value);
  return value;
}

uint32_t word_of(const DecodedRecord& r) {
  return (r.hw_type << 28) | (r.device_id << 20) | r.event_type;
}

uint32_t atype_of(const DecodedRecord& r) { return r.event_type & 0xfff; }
uint32_t akind_of(const DecodedRecord& r) { return (r.event_type >> 12) & 0xff; }

bool is_gpu(const DecodedRecord& r) { return r.hw_type == GPU; }
bool is_name(const DecodedRecord& r, uint32_t akind) {
  return is_gpu(r) && atype_of(r) == 0 && akind_of(r) == akind;
}
bool is_type(const DecodedRecord& r, uint32_t atype) { return is_gpu(r) && atype_of(r) == atype; }

std::string name_text(const DecodedRecord& r) { return std::string(r.payload.c_str() + 8); }

// The correlation id of an activity or API record, by its type's layout.
uint32_t correlation_of(const DecodedRecord& r) {
  switch (atype_of(r)) {
    case 1:
    case 2:
      return field<uint32_t>(r, 64);
    case 3:
      return field<uint32_t>(r, 8);
    case 4:
      return field<uint32_t>(r, 24);
    case 5:
      return field<uint32_t>(r, 32);
    case 6:
      return field<uint32_t>(r, 20);
    case 7:
    case 8:
      return field<uint32_t>(r, 16);
    case 9:
      return field<uint32_t>(r, 16);
    default:
      return 0;
  }
}

const DecodedRecord* find_correlated(const std::vector<DecodedRecord>& records, uint32_t atype,
                                     uint32_t correlation_id) {
  for (const DecodedRecord& r : records) {
    if (is_type(r, atype) && correlation_of(r) == correlation_id) return &r;
  }
  return nullptr;
}

// ---- The capture side: queues of capture buffers and the record helper ---------

// Capture buffers that hold kPattern before records are written over it, so that
// bytes a record leaves unwritten can be told apart.
class Pipeline {
 public:
  Pipeline() : m_to_fill(8, 1 << 20) {
    std::vector<ZVKBuffer*> buffers;
    for (ZVKBuffer* b = pop(m_to_fill); b != nullptr; b = pop(m_to_fill)) buffers.push_back(b);
    for (ZVKBuffer* b : buffers) refill(b);
    helper = std::make_shared<ZVKBufferRecordHelper>(&m_to_fill, &m_to_write);
  }
  ~Pipeline() { helper.reset(); }

  // The records written since the last call, in order: what a stop flushed.
  std::vector<DecodedRecord> take_records() {
    std::vector<DecodedRecord> records;
    for (ZVKBuffer* b = pop(m_to_write); b != nullptr; b = pop(m_to_write)) {
      std::vector<DecodedRecord> some = walk_records(b->record_buffer, b->num_bytes);
      uint64_t walked = 0;
      for (const DecodedRecord& r : some) walked += record_size(r.call_chain_size, r.payload_size);
      EXPECT_EQ(walked, b->num_bytes) << "records fill the buffer exactly";
      records.insert(records.end(), some.begin(), some.end());
      refill(b);
    }
    return records;
  }

  ZVKQueue<ZVKBuffer>* to_fill() { return &m_to_fill; }
  ZVKQueue<ZVKBuffer>* to_write() { return &m_to_write; }
  std::shared_ptr<ZVKBufferRecordHelper> helper;

 private:
  static ZVKBuffer* pop(ZVKQueue<ZVKBuffer>& queue) {
    ZVKBuffer* buffer = nullptr;
    queue.pop(&buffer);
    return buffer;
  }
  void refill(ZVKBuffer* b) {
    b->num_bytes = 0;
    std::memset(b->record_buffer, kPattern, b->len_buffer);
    m_to_fill.push(b);
  }

  ZVKQueue<ZVKBuffer> m_to_fill;
  ZVKQueue<ZVKBuffer> m_to_write;
};

// Every test starts from a fresh fake and the collector's defaults.
class CudaCollector : public ::testing::Test {
 protected:
  void SetUp() override { fake_cupti_reset(); }
  void TearDown() override { fake_cupti_reset(); }

  ScopedEnv m_no_config{"ZVK_CUDA_CONFIG", nullptr};
  ScopedEnv m_no_limit{"ZVK_CAPTURE_LIMIT_SECONDS", nullptr};
};

ZVKCuptiActivityBuffer* owner_of(uint8_t* buffer) {
  return reinterpret_cast<ZVKCuptiActivityBuffer*>(buffer -
                                                   offsetof(ZVKCuptiActivityBuffer, buffer));
}

// Takes every free activity buffer, as CUPTI would. Where a rotator runs, the call
// after the last buffer first waits kBufferRequestPatience for one to come back.
std::vector<uint8_t*> take_free_buffers() {
  std::vector<uint8_t*> taken;
  for (;;) {
    uint8_t* buffer = nullptr;
    size_t size = 1;
    size_t max_records = 1;
    bufferRequested(&buffer, &size, &max_records);
    if (buffer == nullptr) {
      EXPECT_EQ(size, 0u);
      break;
    }
    taken.push_back(buffer);
  }
  return taken;
}

// Runs body(0) to body(count - 1) on as many threads at once, and waits for all of
// them. Under ThreadSanitizer the threads are left parked for good instead of
// ending: libunwind's thread-exit cleanup runs after the sanitizer's runtime has let
// go of the thread, and a thread that unwound its stack crashes as it exits.
void on_threads(int count, const std::function<void(int)>& body) {
#if defined(__SANITIZE_THREAD__)
  struct Finished {
    std::mutex lock;
    std::condition_variable cv;
    int left;
  };
  auto* finished = new Finished();  // the parked threads outlive this call
  finished->left = count;
  for (int t = 0; t < count; ++t) {
    std::thread([finished, &body, t] {
      body(t);
      {
        std::lock_guard<std::mutex> guard(finished->lock);
        --finished->left;
      }
      finished->cv.notify_all();
      for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
    }).detach();
  }
  std::unique_lock<std::mutex> guard(finished->lock);
  finished->cv.wait(guard, [finished] { return finished->left == 0; });
#else
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
#endif
}

// ---- CUPTI records as a test builds them --------------------------------------------

// A record whose every byte is 0xEE: the fields the collector doesn't keep hold
// noise, so a translation that copies one of them shows in the payload.
template <typename Record>
Record noisy() {
  Record r;
  std::memset(static_cast<void*>(&r), 0xEE, sizeof r);
  return r;
}

template <typename Kernel>
Kernel make_kernel(CUpti_ActivityKind kind, const char* name, uint32_t correlation_id,
                   uint32_t device, uint64_t start) {
  Kernel k = noisy<Kernel>();
  k.kind = kind;
  k.sharedMemoryConfig = 2;
  k.registersPerThread = 0xBEEF;
  k.start = start;
  k.end = start + 5000;
  k.completed = start + 6000;
  k.deviceId = device;
  k.contextId = 77;
  k.streamId = 13;
  k.gridX = 11;
  k.gridY = -12;
  k.gridZ = 13;
  k.blockX = 256;
  k.blockY = 2;
  k.blockZ = -1;
  k.staticSharedMemory = -48;
  k.dynamicSharedMemory = 1024;
  k.localMemoryPerThread = 4;
  k.localMemoryTotal = 8;
  k.correlationId = correlation_id;
  k.gridId = -1234567890123LL;
  k.name = name;
  k.launchType = 3;
  return k;
}

template <typename Kernel>
std::string kernel_payload(const Kernel& k, uint32_t name_id) {
  Bytes b(72);
  b.put<uint64_t>(0, k.end);
  b.put<uint64_t>(8, k.completed);
  b.put<int32_t>(16, k.gridX);
  b.put<int32_t>(20, k.gridY);
  b.put<int32_t>(24, k.gridZ);
  b.put<int32_t>(28, k.blockX);
  b.put<int32_t>(32, k.blockY);
  b.put<int32_t>(36, k.blockZ);
  b.put<int64_t>(40, k.gridId);
  b.put<uint32_t>(48, name_id);
  b.put<uint16_t>(52, k.registersPerThread);
  b.put<uint8_t>(54, k.sharedMemoryConfig);
  b.put<uint8_t>(55, k.launchType);
  b.put<uint32_t>(56, k.deviceId);
  b.put<uint32_t>(60, static_cast<uint32_t>(k.staticSharedMemory));
  b.put<uint32_t>(64, k.correlationId);
  b.put<uint32_t>(68, k.streamId);
  return b.str();
}

template <typename Copy>
Copy make_memcpy(uint32_t correlation_id, uint8_t copy_kind) {
  Copy c = noisy<Copy>();
  c.kind = CUPTI_ACTIVITY_KIND_MEMCPY;
  c.copyKind = copy_kind;
  c.srcKind = 3;
  c.dstKind = 2;
  c.flags = 1;
  c.bytes = 0x123456789aULL;
  c.start = 2000000;
  c.end = 2000900;
  c.deviceId = 4;
  c.contextId = 66;
  c.streamId = 21;
  c.correlationId = correlation_id;
  c.runtimeCorrelationId = 0xabcdef;
  return c;
}

template <typename Copy>
std::string memcpy_payload(const Copy& c) {
  // Offsets 20 to 23 are never written: the buffer's bytes stay.
  Bytes b(40, static_cast<char>(kPattern));
  b.put<uint64_t>(0, c.end);
  b.put<uint64_t>(8, c.bytes);
  b.put<uint8_t>(16, c.copyKind);
  b.put<uint8_t>(17, c.srcKind);
  b.put<uint8_t>(18, c.dstKind);
  b.put<uint8_t>(19, c.flags);
  b.put<uint32_t>(24, c.correlationId);
  b.put<uint32_t>(28, c.streamId);
  b.put<uint32_t>(32, c.runtimeCorrelationId);
  b.put<uint32_t>(36, c.contextId);
  return b.str();
}

template <typename Peer>
Peer make_peer_copy(uint32_t correlation_id) {
  Peer p = noisy<Peer>();
  p.kind = CUPTI_ACTIVITY_KIND_MEMCPY2;
  p.copyKind = 10;  // peer to peer
  p.srcKind = 3;
  p.dstKind = 3;
  p.flags = 0;
  p.bytes = 1 << 20;
  p.start = 3000000;
  p.end = 3000500;
  p.deviceId = 1;
  p.contextId = 55;
  p.streamId = 31;
  p.srcDeviceId = 1;
  p.srcContextId = 55;
  p.dstDeviceId = 2;
  p.dstContextId = 56;
  p.correlationId = correlation_id;
  return p;
}

template <typename Peer>
std::string peer_copy_payload(const Peer& p) {
  Bytes b(48, static_cast<char>(kPattern));
  b.put<uint64_t>(0, p.end);
  b.put<uint64_t>(8, p.bytes);
  b.put<uint8_t>(16, p.copyKind);
  b.put<uint8_t>(17, p.srcKind);
  b.put<uint8_t>(18, p.dstKind);
  b.put<uint8_t>(19, p.flags);
  b.put<uint32_t>(24, p.srcDeviceId);
  b.put<uint32_t>(28, p.dstDeviceId);
  b.put<uint32_t>(32, p.correlationId);
  b.put<uint32_t>(36, p.streamId);
  b.put<uint32_t>(40, p.srcContextId);
  b.put<uint32_t>(44, p.dstContextId);
  return b.str();
}

template <typename Memset>
Memset make_memset(uint32_t correlation_id) {
  Memset m = noisy<Memset>();
  m.kind = CUPTI_ACTIVITY_KIND_MEMSET;
  m.value = 0xdeadbeef;
  m.bytes = 0x7777;
  m.start = 4000000;
  m.end = 4000300;
  m.deviceId = 6;
  m.contextId = 44;
  m.streamId = 41;
  m.correlationId = correlation_id;
  m.flags = 0x8001;
  m.memoryKind = 0x0203;
  return m;
}

template <typename Memset>
std::string memset_payload(const Memset& m) {
  Bytes b(32);
  b.put<uint64_t>(0, m.end);
  b.put<uint64_t>(8, m.bytes);
  b.put<uint32_t>(16, m.value);
  b.put<uint32_t>(20, m.correlationId);
  b.put<uint32_t>(24, m.streamId);
  b.put<uint16_t>(28, m.flags);
  b.put<uint16_t>(30, m.memoryKind);
  return b.str();
}

CUpti_ActivityAPI make_api(CUpti_ActivityKind kind, uint32_t correlation_id) {
  CUpti_ActivityAPI a = noisy<CUpti_ActivityAPI>();
  a.kind = kind;
  a.cbid = CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel;
  a.start = 5000000 + correlation_id;
  a.end = 5000700 + correlation_id;
  a.processId = 424242;  // not the header's pid
  a.threadId = 171717;
  a.correlationId = correlation_id;
  a.returnValue = 700;
  return a;
}

std::string api_payload(const CUpti_ActivityAPI& a) {
  Bytes b(24);
  b.put<uint64_t>(0, a.end);
  b.put<uint32_t>(8, a.processId);
  b.put<uint32_t>(12, a.threadId);
  b.put<uint32_t>(16, a.correlationId);
  b.put<uint32_t>(20, a.returnValue);
  return b.str();
}

template <typename Sync>
Sync make_sync(uint32_t correlation_id, CUpti_ActivitySynchronizationType type) {
  Sync s = noisy<Sync>();
  s.kind = CUPTI_ACTIVITY_KIND_SYNCHRONIZATION;
  s.type = type;
  s.start = 6000000;
  s.end = 6000100;
  s.correlationId = correlation_id;
  s.contextId = 33;
  s.streamId = 51;
  s.cudaEventId = 9001;
  return s;
}

template <typename Sync>
std::string sync_payload(const Sync& s) {
  Bytes b(16);
  b.put<uint64_t>(0, s.end);
  b.put<uint32_t>(8, s.correlationId);
  b.put<uint32_t>(12, s.streamId);
  return b.str();
}

template <typename Record>
void emit(const Record& record) {
  ASSERT_TRUE(fake_cupti_emit(&record, sizeof record));
}

// The name record's payload: id, length, the name with its NUL, the buffer's bytes
// up to the aligned end.
std::string name_payload(uint32_t id, uint32_t len_name, const std::string& name) {
  const size_t area = (name.size() + 8) & ~size_t{7};
  Bytes b(8 + area, static_cast<char>(kPattern));
  b.put<uint32_t>(0, id);
  b.put<uint32_t>(4, len_name);
  b.put_text(8, name);
  return b.str();
}

void expect_header(const DecodedRecord& r, uint32_t event_value, uint64_t timestamp, uint32_t tid,
                   uint16_t payload_size, uint32_t pid = static_cast<uint32_t>(getpid())) {
  EXPECT_EQ(word_of(r), kGpuWordBase | event_value);
  EXPECT_EQ(r.hw_type, 1u);
  EXPECT_EQ(r.device_id, 0u);
  EXPECT_EQ(r.event_type, event_value);
  EXPECT_EQ(r.timestamp, timestamp);
  EXPECT_EQ(r.pid, pid);
  EXPECT_EQ(r.tid, tid);
  EXPECT_EQ(r.call_chain_size, 0);
  EXPECT_EQ(r.payload_size, payload_size);
}

// `padding_known`: the capture buffer held kPattern where the padding lies.
void expect_kernel_name(const DecodedRecord& r, const std::string& name, uint32_t id,
                        uint64_t timestamp, uint32_t device, bool padding_known = true) {
  const uint16_t payload_size = static_cast<uint16_t>(8 + ((name.size() + 8) & ~size_t{7}));
  expect_header(r, 0x0000, timestamp, device, payload_size);
  const std::string expected = name_payload(id, static_cast<uint32_t>(name.size()), name);
  if (padding_known) {
    EXPECT_EQ(r.payload, expected);
  } else {
    EXPECT_EQ(r.payload.substr(0, 8 + name.size() + 1), expected.substr(0, 8 + name.size() + 1));
  }
}

// ---- The fake is the CUPTI in use ----------------------------------------------------

TEST_F(CudaCollector, TheFakeIsTheCuptiTheCollectorLoads) {
  EXPECT_TRUE(g_fake_cupti_selected);
  EXPECT_EQ(cupti_library(), FAKE_CUPTI_LIBRARY);
  EXPECT_EQ(cupti().cuptiActivityEnable, &cuptiActivityEnable);
}

// ---- Activity record translation ----------------------------------------------------

// Every kind kept, from one collector, checked header field and payload byte.
template <typename Kernel, typename Memcpy, typename Peer, typename Memset, typename Sync>
void translate_every_kind(const std::string& prefix) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());

  const std::string kernel_a = prefix + "_kernel_a";
  const std::string kernel_b = prefix + "_concurrent_kernel_b";
  const Kernel k1 =
      make_kernel<Kernel>(CUPTI_ACTIVITY_KIND_KERNEL, kernel_a.c_str(), 101, 3, 1000000);
  const Kernel k2 =
      make_kernel<Kernel>(CUPTI_ACTIVITY_KIND_CONCURRENT_KERNEL, kernel_b.c_str(), 102, 5, 1100000);
  const Memcpy copy = make_memcpy<Memcpy>(103, 1);
  const Peer peer = make_peer_copy<Peer>(104);
  const Memset set = make_memset<Memset>(105);
  const CUpti_ActivityAPI driver = make_api(CUPTI_ACTIVITY_KIND_DRIVER, 106);
  const CUpti_ActivityAPI runtime = make_api(CUPTI_ACTIVITY_KIND_RUNTIME, 107);
  const Sync sync = make_sync<Sync>(108, CUPTI_ACTIVITY_SYNCHRONIZATION_TYPE_STREAM_SYNCHRONIZE);
  emit(k1);
  emit(k2);
  emit(copy);
  emit(peer);
  emit(set);
  emit(driver);
  emit(runtime);
  emit(sync);

  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{});
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 10u);

  const uint32_t id_a = field<uint32_t>(records[0], 0);
  expect_kernel_name(records[0], kernel_a, id_a, k1.start, 3);
  expect_header(records[1], 0x0001, k1.start, 3, 72);
  EXPECT_EQ(records[1].payload, kernel_payload(k1, id_a));

  // Ids count up in order of first sight.
  expect_kernel_name(records[2], kernel_b, id_a + 1, k2.start, 5);
  expect_header(records[3], 0x0002, k2.start, 5, 72);
  EXPECT_EQ(records[3].payload, kernel_payload(k2, id_a + 1));

  expect_header(records[4], 0x1004, copy.start, copy.deviceId, 40);
  EXPECT_EQ(records[4].payload, memcpy_payload(copy));

  expect_header(records[5], (10u << 12) | 5, peer.start, peer.deviceId, 48);
  EXPECT_EQ(records[5].payload, peer_copy_payload(peer));

  expect_header(records[6], 0x2006, set.start, set.deviceId, 32);
  EXPECT_EQ(records[6].payload, memset_payload(set));

  expect_header(records[7], 0x0007, driver.start, driver.threadId, 24);
  EXPECT_EQ(records[7].payload, api_payload(driver));
  expect_header(records[8], 0x0008, runtime.start, runtime.threadId, 24);
  EXPECT_EQ(records[8].payload, api_payload(runtime));

  // The header's tid of a synchronization is the CUDA event id.
  expect_header(records[9], 0x3003, sync.start, sync.cudaEventId, 16);
  EXPECT_EQ(records[9].payload, sync_payload(sync));
}

TEST_F(CudaCollector, NewestRecordsTranslateFieldByField) {
  translate_every_kind<CUpti_ActivityKernel13, CUpti_ActivityMemcpy7, CUpti_ActivityMemcpyPtoP4,
                       CUpti_ActivityMemset5, CUpti_ActivitySynchronization2>("newest");
}

TEST_F(CudaCollector, OldestRecordsTranslateFieldByField) {
  translate_every_kind<CUpti_ActivityKernel4, CUpti_ActivityMemcpy, CUpti_ActivityMemcpyPtoP,
                       CUpti_ActivityMemset, CUpti_ActivitySynchronization>("oldest");
}

TEST_F(CudaCollector, EventWordsCarryTheKindAboveTheType) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  emit(make_memcpy<CUpti_ActivityMemcpy7>(1, 1));
  emit(make_memcpy<CUpti_ActivityMemcpy7>(2, 8));
  emit(make_memset<CUpti_ActivityMemset5>(3));
  for (CUpti_ActivitySynchronizationType type :
       {CUPTI_ACTIVITY_SYNCHRONIZATION_TYPE_UNKNOWN,
        CUPTI_ACTIVITY_SYNCHRONIZATION_TYPE_STREAM_SYNCHRONIZE,
        CUPTI_ACTIVITY_SYNCHRONIZATION_TYPE_CONTEXT_SYNCHRONIZE}) {
    emit(make_sync<CUpti_ActivitySynchronization2>(4, type));
  }
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  Strings words;
  for (const DecodedRecord& r : records) {
    char text[16];
    snprintf(text, sizeof text, "%08x", word_of(r));
    words.push_back(text);
  }
  EXPECT_EQ(words, (Strings{"10001004", "10008004", "10002006", "10000003", "10003003",
                            "10004003"}));
}

TEST_F(CudaCollector, NameRecordsTakeTheAlignedLengthAndLeaveThePaddingUnwritten) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  const std::string seven = "k7_name";         // 7 characters
  const std::string eight = "k8_names";        // 8 characters
  const std::string long_name(100, 'L');
  for (const std::string* name : {&seven, &eight, &long_name}) {
    emit(make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_KERNEL, name->c_str(), 1, 0, 10));
  }
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 6u);
  EXPECT_EQ(records[0].payload_size, 16);
  EXPECT_EQ(record_size(records[0].call_chain_size, records[0].payload_size), 40u);
  EXPECT_EQ(records[2].payload_size, 24);
  EXPECT_EQ(records[4].payload_size, 8 + 104);
  const uint32_t id = field<uint32_t>(records[0], 0);
  expect_kernel_name(records[0], seven, id, 10, 0);
  expect_kernel_name(records[2], eight, id + 1, 10, 0);
  expect_kernel_name(records[4], long_name, id + 2, 10, 0);
  // Bytes 17 to 23 of the 8-character name's payload were never written.
  EXPECT_EQ(records[2].payload.substr(17), std::string(7, static_cast<char>(kPattern)));
}

// The ids are the process's: only a fresh process shows where they begin.
TEST_F(CudaCollector, EmptyAndNullKernelNamesShareIdZeroInAFreshProcess) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  emit(make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_KERNEL, "", 1, 2, 100));
  // A null name is taken as an empty one: the rotator goes on.
  emit(make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_KERNEL, nullptr, 2, 2, 200));
  emit(make_kernel<CUpti_ActivityKernel4>(CUPTI_ACTIVITY_KIND_CONCURRENT_KERNEL, nullptr, 3, 4,
                                          300));
  emit(make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_KERNEL, "after", 4, 2, 400));
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 6u);
  expect_kernel_name(records[0], "", 0, 100, 2);
  EXPECT_EQ(records[0].payload_size, 16);
  EXPECT_EQ(field<uint32_t>(records[0], 4), 0u);
  for (int i : {1, 2, 3}) {
    ASSERT_TRUE(is_type(records[i], 1) || is_type(records[i], 2));
    EXPECT_EQ(field<uint32_t>(records[i], 48), 0u);
  }
  expect_kernel_name(records[4], "after", 1, 400, 2);
  EXPECT_EQ(field<uint32_t>(records[5], 48), 1u);
}

TEST_F(CudaCollector, OneKernelNameOnTwoDevicesGetsOneIdStampedByItsFirstSight) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  const char* name = "two_device_kernel";
  emit(make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_KERNEL, name, 1, 3, 1000));
  emit(make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_CONCURRENT_KERNEL, name, 2, 5,
                                           2000));
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 3u);
  const uint32_t id = field<uint32_t>(records[0], 0);
  expect_kernel_name(records[0], name, id, 1000, 3);
  EXPECT_EQ(records[1].tid, 3u);
  EXPECT_EQ(field<uint32_t>(records[1], 48), id);
  EXPECT_EQ(records[2].tid, 5u);
  EXPECT_EQ(records[2].timestamp, 2000u);
  EXPECT_EQ(field<uint32_t>(records[2], 48), id);
}

// A limit of 0 lets the collector start again at once; its limiter's stop is awaited
// first, so that the restarts don't race it.
TEST_F(CudaCollector, NameIdsOutliveStopAndStart) {
  ScopedEnv limit("ZVK_CAPTURE_LIMIT_SECONDS", "0");
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  CaptureStderr();
  ASSERT_TRUE(collector.start_profiling().ok());
  ASSERT_TRUE(wait_until([] { return call_seen("cuptiActivityFlushAll(1)"); }, milliseconds(5000)));
  ASSERT_TRUE(collector.suspend_profiling().ok());  // joins the limiter
  GetCapturedStderr();
  pipeline.take_records();

  ASSERT_TRUE(collector.start_profiling().ok());
  emit(make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_KERNEL, "restart_x", 1, 0, 10));
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> first = pipeline.take_records();
  ASSERT_EQ(first.size(), 2u);
  const uint32_t id_x = field<uint32_t>(first[0], 0);
  EXPECT_EQ(field<uint32_t>(first[1], 48), id_x);

  ASSERT_TRUE(collector.start_profiling().ok());
  emit(make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_KERNEL, "restart_x", 2, 0, 20));
  emit(make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_KERNEL, "restart_y", 3, 0, 30));
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> second = pipeline.take_records();
  ASSERT_EQ(second.size(), 3u);
  ASSERT_TRUE(is_type(second[0], 1));
  EXPECT_EQ(field<uint32_t>(second[0], 48), id_x);  // no name record again
  expect_kernel_name(second[1], "restart_y", id_x + 1, 30, 0);
  EXPECT_EQ(field<uint32_t>(second[2], 48), id_x + 1);
}

TEST_F(CudaCollector, ContextNameAndUnlistedKindsGiveNoRecord) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  CUpti_ActivityContext4 context;
  std::memset(static_cast<void*>(&context), 0, sizeof context);
  context.kind = CUPTI_ACTIVITY_KIND_CONTEXT;
  CUpti_ActivityName name;
  std::memset(static_cast<void*>(&name), 0, sizeof name);
  name.kind = CUPTI_ACTIVITY_KIND_NAME;
  CUpti_ActivityAPI marker = make_api(CUPTI_ACTIVITY_KIND_MARKER, 1);
  CUpti_ActivityAPI beyond = make_api(static_cast<CUpti_ActivityKind>(39), 2);
  emit(context);
  emit(name);
  emit(marker);
  emit(beyond);
  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  // Nothing was written, so the stop's flush finds the helper's buffer empty.
  EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{kEmptyFlushLine});
  EXPECT_TRUE(pipeline.take_records().empty());
  EXPECT_EQ(fake_cupti_next_record_calls(), 5u);  // four records and the end
}

// ---- Walk failures ----------------------------------------------------------------

TEST_F(CudaCollector, AWalkErrorIsLoggedAndTheWalkGoesOn) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  for (uint32_t id = 1; id <= 3; ++id) emit(make_memset<CUpti_ActivityMemset5>(id));
  fake_cupti_next_record_error(1, CUPTI_ERROR_NOT_READY);
  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            Strings{"ERROR| Cupti call status failed with CUPTI_ERROR_NOT_READY"});
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 3u);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(correlation_of(records[i]), i + 1);
}

TEST_F(CudaCollector, ARepeatedWalkErrorGivesTheBufferUpAfterEightAndTheNextIsWalked) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  CaptureStderr();
  ASSERT_TRUE(fake_cupti_fail("cuptiActivityGetNextRecord", CUPTI_ERROR_UNKNOWN, 8));
  emit(make_memset<CUpti_ActivityMemset5>(1));
  ASSERT_TRUE(fake_cupti_complete_held());
  // The rotator gives the first buffer up and goes on.
  ASSERT_TRUE(wait_until([] { return fake_cupti_next_record_calls() >= 8; }, milliseconds(5000)));
  emit(make_memset<CUpti_ActivityMemset5>(2));
  ASSERT_TRUE(collector.stop_profiling().ok());
  const Strings lines = log_messages(GetCapturedStderr());
  EXPECT_EQ(lines, Strings(8, "ERROR| Cupti call status failed with CUPTI_ERROR_UNKNOWN"));
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(correlation_of(records[0]), 2u);
  EXPECT_EQ(fake_cupti_next_record_calls(), 10u);
  // Both buffers went back to the free list.
  EXPECT_EQ(take_free_buffers().size(), kActivityBufferCount);
}

// ---- Activity buffers ----------------------------------------------------------------

TEST_F(CudaCollector, BuffersAreWholeAlignedAndWaitedForOnlyWhileARotatorRuns) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  std::vector<uint8_t*> out;
  for (uint32_t i = 0; i < kActivityBufferCount; ++i) {
    uint8_t* buffer = nullptr;
    size_t size = 0;
    size_t max_records = 7;
    bufferRequested(&buffer, &size, &max_records);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer) % 8, 0u);
    EXPECT_EQ(size, kActivityBufferSize);
    EXPECT_EQ(max_records, 0u);
    EXPECT_EQ(owner_of(buffer)->size, kActivityBufferSize);
    EXPECT_EQ(owner_of(buffer)->valid_size, 0u);
    out.push_back(buffer);
  }
  EXPECT_EQ(std::set<uint8_t*>(out.begin(), out.end()).size(), out.size());

  // The twenty-first waits, while the rotator runs, for a buffer to come back.
  std::atomic<uint8_t*> got{nullptr};
  std::atomic<bool> returned{false};
  std::thread cupti_thread([&] {
    uint8_t* buffer = nullptr;
    size_t size = 0;
    size_t max_records = 0;
    bufferRequested(&buffer, &size, &max_records);
    got = buffer;
    returned = true;
  });
  std::this_thread::sleep_for(milliseconds(200));
  EXPECT_FALSE(returned.load());
  bufferCompleted(nullptr, 0, out[5], kActivityBufferSize, 0);
  EXPECT_TRUE(wait_until([&] { return returned.load(); }, milliseconds(5000)));
  cupti_thread.join();
  EXPECT_EQ(got.load(), out[5]);

  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{kEmptyFlushLine});
  // No rotator now: with every buffer out the answer is an immediate null.
  const auto asked = Clock::now();
  uint8_t* buffer = out[0];
  size_t size = 1;
  size_t max_records = 1;
  bufferRequested(&buffer, &size, &max_records);
  EXPECT_LT(seconds_since(asked), 0.5);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(max_records, 0u);
}

TEST_F(CudaCollector, ACollectorNeverStartedGivesNullOnceItsPoolIsOut) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  const auto asked = Clock::now();
  EXPECT_EQ(take_free_buffers().size(), kActivityBufferCount);
  EXPECT_LT(seconds_since(asked), 0.5);
}

TEST_F(CudaCollector, AnEmptyCompletedBufferComesBackUnread) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  uint8_t* buffer = nullptr;
  size_t size = 0;
  ASSERT_TRUE(fake_cupti_request_buffer(&buffer, &size));
  ASSERT_NE(buffer, nullptr);
  ASSERT_TRUE(fake_cupti_complete_buffer(buffer, 0));
  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{kEmptyFlushLine});
  EXPECT_TRUE(pipeline.take_records().empty());
  EXPECT_EQ(fake_cupti_next_record_calls(), 0u);
  const std::vector<uint8_t*> free_buffers = take_free_buffers();
  EXPECT_EQ(free_buffers.size(), kActivityBufferCount);
  EXPECT_NE(std::find(free_buffers.begin(), free_buffers.end(), buffer), free_buffers.end());
}

// Suspended, the collector lets completed buffers wait; resumed and stopped at once,
// every one of them is translated and freed before the rotator ends.
TEST_F(CudaCollector, BuffersWaitingAtTheStopAreAllTranslatedAndFreed) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  ASSERT_TRUE(collector.suspend_profiling().ok());
  for (uint32_t id = 1; id <= 3; ++id) {
    emit(make_memset<CUpti_ActivityMemset5>(id));
    ASSERT_TRUE(fake_cupti_complete_held());
  }
  EXPECT_EQ(fake_cupti_buffers_completed(), 3u);
  ASSERT_TRUE(collector.resume_profiling().ok());
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 3u);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(correlation_of(records[i]), i + 1);
  // Every buffer is back on the free list, and none of them holds a valid size.
  const std::vector<uint8_t*> free_buffers = take_free_buffers();
  EXPECT_EQ(free_buffers.size(), kActivityBufferCount);
  for (uint8_t* buffer : free_buffers) EXPECT_EQ(owner_of(buffer)->valid_size, 0u);
}

// ---- Start, stop and their CUPTI calls ---------------------------------------------------

TEST_F(CudaCollector, StartAndStopCallCuptiInOrderWithTheDefaultFlags) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  CaptureStderr();
  ASSERT_TRUE(collector.start_profiling().ok());
  EXPECT_EQ(fake_cupti::calls(), kDefaultStartCalls);
  EXPECT_EQ(collector.current_config(), static_cast<uint64_t>(DEFAULT_CUPTI_CONFIG));
  EXPECT_EQ(fake_cupti_userdata(), static_cast<void*>(&collector));
  EXPECT_TRUE(fake_cupti_domain_enabled(CUPTI_CB_DOMAIN_DRIVER_API));
  EXPECT_TRUE(fake_cupti_callbacks_registered());
  EXPECT_TRUE(collector.time_limiter_started());
  fake_cupti_clear_calls();
  const Status stopped = collector.stop_profiling();
  EXPECT_TRUE(stopped.ok());
  EXPECT_EQ(stopped.msg_, "OK");
  EXPECT_EQ(fake_cupti::calls(), kDefaultStopCalls);
  EXPECT_FALSE(fake_cupti_subscribed());
  EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{kEmptyFlushLine});
}

TEST_F(CudaCollector, ConfigOneEnablesKernelsAndStillSubscribes) {
  ScopedEnv config("ZVK_CUDA_CONFIG", "1");
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  EXPECT_EQ(collector.current_config(), 1u);
  EXPECT_EQ(fake_cupti::calls(), (Strings{"cuptiActivityEnable(3)", "cuptiSubscribe",
                                          "cuptiActivityRegisterCallbacks"}));
  EXPECT_TRUE(fake_cupti_subscribed());
  EXPECT_FALSE(fake_cupti_domain_enabled(CUPTI_CB_DOMAIN_DRIVER_API));
  EXPECT_FALSE(fake_cupti_fire_api(CUPTI_CB_DOMAIN_DRIVER_API,
                                   CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel,
                                   "config_one", "cuLaunchKernel", 1));
  fake_cupti_clear_calls();
  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  GetCapturedStderr();
  EXPECT_EQ(fake_cupti::calls(), (Strings{"cuptiUnsubscribe", "cuptiActivityDisable(3)",
                                          "cuptiActivityFlushAll(1)"}));
  EXPECT_TRUE(pipeline.take_records().empty());
}

TEST_F(CudaCollector, ConfigZeroEnablesNothingAndTheRotatorStillRuns) {
  ScopedEnv config("ZVK_CUDA_CONFIG", "0");
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  EXPECT_EQ(fake_cupti::calls(), (Strings{"cuptiSubscribe", "cuptiActivityRegisterCallbacks"}));
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(fake_cupti_buffers_requested(), 0u);
  EXPECT_FALSE(fake_cupti_holds_buffer());
  // A completed buffer is walked without a stop: the rotator is there.
  emit(make_memset<CUpti_ActivityMemset5>(1));
  ASSERT_TRUE(fake_cupti_complete_held());
  EXPECT_TRUE(wait_until([] { return fake_cupti_next_record_calls() >= 2; }, milliseconds(5000)));
  fake_cupti_clear_calls();
  ASSERT_TRUE(collector.stop_profiling().ok());
  EXPECT_EQ(fake_cupti::calls(), (Strings{"cuptiUnsubscribe", "cuptiActivityFlushAll(1)"}));
  EXPECT_EQ(pipeline.take_records().size(), 1u);
}

TEST_F(CudaCollector, AFailingEnableIsLoggedAndTheStartGoesOn) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(fake_cupti_fail("cuptiActivityEnable", CUPTI_ERROR_NOT_INITIALIZED, 1));
  CaptureStderr();
  const Status started = collector.start_profiling();
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            Strings{"ERROR| Cupti call cuptiActivityEnable(CUPTI_ACTIVITY_KIND_KERNEL) failed with "
                    "CUPTI_ERROR_NOT_INITIALIZED"});
  EXPECT_TRUE(started.ok());
  Strings expected = kDefaultStartCalls;
  expected.insert(expected.begin() + 1,
                  "cuptiGetResultString(" + result_number(CUPTI_ERROR_NOT_INITIALIZED) + ")");
  EXPECT_EQ(fake_cupti::calls(), expected);
  EXPECT_FALSE(fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_KERNEL));
  EXPECT_TRUE(fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_SYNCHRONIZATION));
  EXPECT_TRUE(fake_cupti_callbacks_registered());
  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  GetCapturedStderr();
}

TEST_F(CudaCollector, EveryFailingCallIsLoggedAsWrittenAndNothingFails) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  for (const char* function :
       {"cuptiActivityEnable", "cuptiActivityDisable", "cuptiSubscribe", "cuptiUnsubscribe",
        "cuptiEnableDomain", "cuptiActivityRegisterCallbacks", "cuptiActivityFlushAll"}) {
    ASSERT_TRUE(fake_cupti_fail(function, CUPTI_ERROR_UNKNOWN, -1));
  }
  const std::string failed = " failed with CUPTI_ERROR_UNKNOWN";
  const char* const kinds[] = {"KERNEL", "CONTEXT", "DRIVER", "RUNTIME",
                               "MEMCPY", "MEMSET",  "NAME",   "SYNCHRONIZATION"};
  CaptureStderr();
  EXPECT_TRUE(collector.start_profiling().ok());
  Strings expected;
  for (const char* kind : kinds) {
    expected.push_back("ERROR| Cupti call cuptiActivityEnable(CUPTI_ACTIVITY_KIND_" +
                       std::string(kind) + ")" + failed);
  }
  expected.push_back(
      "ERROR| Cupti call cuptiSubscribe(&m_subscriber, (CUpti_CallbackFunc)trace_callback, this)" +
      failed);
  expected.push_back("ERROR| Cupti call cuptiEnableDomain(1, m_subscriber, "
                     "CUPTI_CB_DOMAIN_DRIVER_API)" + failed);
  expected.push_back(
      "ERROR| Cupti call cuptiActivityRegisterCallbacks(bufferRequested, bufferCompleted)" +
      failed);
  EXPECT_EQ(log_messages(GetCapturedStderr()), expected);

  CaptureStderr();
  EXPECT_TRUE(collector.stop_profiling().ok());
  expected = {"ERROR| Cupti call cuptiEnableDomain(0, m_subscriber, CUPTI_CB_DOMAIN_DRIVER_API)" +
                  failed,
              "ERROR| Cupti call cuptiUnsubscribe(m_subscriber)" + failed};
  for (const char* kind : kinds) {
    expected.push_back("ERROR| Cupti call cuptiActivityDisable(CUPTI_ACTIVITY_KIND_" +
                       std::string(kind) + ")" + failed);
  }
  expected.push_back("ERROR| Cupti call cuptiActivityFlushAll(1)" + failed);
  expected.push_back(kEmptyFlushLine);
  EXPECT_EQ(log_messages(GetCapturedStderr()), expected);
}

TEST_F(CudaCollector, StoppingTwiceLogsCuptisRefusalsAndAnswersOk) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  fake_cupti_clear_calls();
  EXPECT_TRUE(collector.stop_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            (Strings{kEmptyFlushLine,
                     "ERROR| Cupti call cuptiEnableDomain(0, m_subscriber, "
                     "CUPTI_CB_DOMAIN_DRIVER_API) failed with CUPTI_ERROR_INVALID_PARAMETER",
                     "ERROR| Cupti call cuptiUnsubscribe(m_subscriber) failed with "
                     "CUPTI_ERROR_INVALID_PARAMETER",
                     kEmptyFlushLine}));
  const std::string text =
      "cuptiGetResultString(" + result_number(CUPTI_ERROR_INVALID_PARAMETER) + ")";
  EXPECT_EQ(fake_cupti::calls(), concat({{"cuptiEnableDomain(0,1)", text, "cuptiUnsubscribe", text},
                                         kDisableCalls,
                                         {"cuptiActivityFlushAll(1)"}}));
}

TEST_F(CudaCollector, StopUsesTheFlagsOfTheLastStart) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  {
    ScopedEnv config("ZVK_CUDA_CONFIG", "1");
    ASSERT_TRUE(collector.start_profiling().ok());
  }
  ScopedEnv changed("ZVK_CUDA_CONFIG", "255");
  fake_cupti_clear_calls();
  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  GetCapturedStderr();
  EXPECT_EQ(fake_cupti::calls(), (Strings{"cuptiUnsubscribe", "cuptiActivityDisable(3)",
                                          "cuptiActivityFlushAll(1)"}));
}

TEST_F(CudaCollector, AResumeWithARotatorRunningWarnsAndKeepsIt) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  CaptureStderr();
  ASSERT_TRUE(collector.resume_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            Strings{"WARNING| Buffer rotator is already active! Returning same rotator"});
  emit(make_memset<CUpti_ActivityMemset5>(7));
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(correlation_of(records[0]), 7u);
}

// Built on the two queues, the collector writes through a helper of its own.
TEST_F(CudaCollector, TheQueueFormHasItsOwnHelperAndTheDefaultFlags) {
  ZVKQueue<ZVKBuffer> to_fill(4, 1 << 20);
  ZVKQueue<ZVKBuffer> to_write;
  {
    ZVKCudaCollector collector("CUDACollector", &to_fill, &to_write);
    EXPECT_EQ(collector.name(), "CUDACollector");
    EXPECT_EQ(collector.current_config(), static_cast<uint64_t>(DEFAULT_CUPTI_CONFIG));
    EXPECT_TRUE(collector.configure({{"AnyKey", "any value"}, {"CudaConfig", "1"}}).ok());
    EXPECT_FALSE(collector.time_limiter_started());
    ASSERT_TRUE(collector.start_profiling().ok());
    EXPECT_EQ(fake_cupti::calls(), kDefaultStartCalls);
    emit(make_memset<CUpti_ActivityMemset5>(9));
    ASSERT_TRUE(collector.stop_profiling().ok());
    CaptureStderr();
  }
  GetCapturedStderr();
  ZVKBuffer* buffer = nullptr;
  to_write.pop(&buffer);
  ASSERT_NE(buffer, nullptr);
  const std::vector<DecodedRecord> records = walk_records(buffer->record_buffer, buffer->num_bytes);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(correlation_of(records[0]), 9u);
  EXPECT_EQ(records[0].pid, static_cast<uint32_t>(getpid()));
}

// ---- The capture time limit -------------------------------------------------------------

// The limit is an interval: counted on the monotonic clock, which a step of the
// system clock (an NTP correction, an administrator's date) doesn't move.
TEST(CaptureTimeLimit, IsCountedOnTheMonotonicClock) {
  static_assert(ZVKCudaCollector::LimiterClock::is_steady, "the limiter's clock never steps");
  static_assert(std::is_same<ZVKCudaCollector::LimiterClock, std::chrono::steady_clock>::value,
                "the limiter waits on the steady clock");
  const auto start = ZVKCudaCollector::LimiterClock::now();
  EXPECT_EQ(ZVKCudaCollector::limit_deadline(start, 60), start + std::chrono::seconds(60));
  EXPECT_EQ(ZVKCudaCollector::limit_deadline(start, 0), start);
}

// A limit too long for the clock is one that never comes, not one that wraps into
// the past and stops the capture at once.
TEST(CaptureTimeLimit, ALimitBeyondTheClocksRangeNeverComes) {
  const auto start = ZVKCudaCollector::LimiterClock::now();
  const auto never = ZVKCudaCollector::LimiterClock::time_point::max();
  EXPECT_EQ(ZVKCudaCollector::limit_deadline(start, UINT64_MAX), never);
  EXPECT_EQ(ZVKCudaCollector::limit_deadline(start, 10000000000000ULL), never);
  EXPECT_GT(ZVKCudaCollector::limit_deadline(start, 315360000), start);
}

TEST_F(CudaCollector, AnOverlongLimitLeavesTheCaptureRunning) {
  ScopedEnv limit("ZVK_CAPTURE_LIMIT_SECONDS", "18446744073709551615");
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  CaptureStderr();
  ASSERT_TRUE(collector.start_profiling().ok());
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_TRUE(fake_cupti_subscribed());
  EXPECT_EQ(count_of(fake_cupti::calls(), "cuptiActivityFlushAll(1)"), 0u);
  ASSERT_TRUE(collector.stop_profiling().ok());
  ASSERT_TRUE(collector.suspend_profiling().ok());  // ends the limiter's wait
  GetCapturedStderr();
}

TEST_F(CudaCollector, ARestartWithinTheDefaultLimitIsRefusedAndEnablesNothing) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  GetCapturedStderr();
  fake_cupti_clear_calls();
  const Status again = collector.start_profiling();
  EXPECT_EQ(again.code_, error::UNSUPPORTED);
  EXPECT_EQ(again.msg_, "Capture beyond time threshold of 315360000 is not possible!");
  EXPECT_EQ(fake_cupti::calls(), Strings{});
  EXPECT_FALSE(fake_cupti_subscribed());
}

TEST_F(CudaCollector, ALimitOfZeroStopsTheCaptureAtOnce) {
  ScopedEnv limit("ZVK_CAPTURE_LIMIT_SECONDS", "0");
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  CaptureStderr();
  ASSERT_TRUE(collector.start_profiling().ok());
  EXPECT_TRUE(wait_until([] { return call_seen("cuptiActivityFlushAll(1)"); }, milliseconds(5000)));
  ASSERT_TRUE(collector.suspend_profiling().ok());
  GetCapturedStderr();
  // The limiter's stop follows the whole start: the two never interleave.
  EXPECT_EQ(fake_cupti::calls(), concat({kDefaultStartCalls, kDefaultStopCalls}));
  EXPECT_FALSE(fake_cupti_subscribed());
}

TEST_F(CudaCollector, ALimitedCaptureRefusesARestartUntilItsDeadlineThenRunsUnlimited) {
  ScopedEnv limit("ZVK_CAPTURE_LIMIT_SECONDS", "1");
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  CaptureStderr();
  const auto started = Clock::now();
  ASSERT_TRUE(collector.start_profiling().ok());
  ASSERT_TRUE(collector.stop_profiling().ok());
  fake_cupti_clear_calls();
  const Status refused = collector.start_profiling();
  EXPECT_EQ(refused.code_, error::UNSUPPORTED);
  EXPECT_EQ(refused.msg_, "Capture beyond time threshold of 1 is not possible!");
  EXPECT_EQ(fake_cupti::calls(), Strings{});

  // The ordinary stop left the limiter waiting: at the deadline it stops again.
  ASSERT_TRUE(wait_until([] { return call_seen("cuptiActivityFlushAll(1)"); }, milliseconds(5000)));
  EXPECT_GE(seconds_since(started), 0.9);
  const std::string text =
      "cuptiGetResultString(" + result_number(CUPTI_ERROR_INVALID_PARAMETER) + ")";
  EXPECT_EQ(fake_cupti::calls(), concat({{"cuptiEnableDomain(0,1)", text, "cuptiUnsubscribe", text},
                                         kDisableCalls,
                                         {"cuptiActivityFlushAll(1)"}}));

  // Past the deadline a start goes through, with no limit any more.
  fake_cupti_clear_calls();
  ASSERT_TRUE(collector.start_profiling().ok());
  EXPECT_EQ(fake_cupti::calls(), kDefaultStartCalls);
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_TRUE(fake_cupti_subscribed());
  EXPECT_EQ(count_of(fake_cupti::calls(), "cuptiActivityFlushAll(1)"), 0u);
  ASSERT_TRUE(collector.stop_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            (Strings{kEmptyFlushLine,
                     "ERROR| Cupti call cuptiEnableDomain(0, m_subscriber, "
                     "CUPTI_CB_DOMAIN_DRIVER_API) failed with CUPTI_ERROR_INVALID_PARAMETER",
                     "ERROR| Cupti call cuptiUnsubscribe(m_subscriber) failed with "
                     "CUPTI_ERROR_INVALID_PARAMETER",
                     kEmptyFlushLine, kEmptyFlushLine}));
}

TEST_F(CudaCollector, ASuspendCancelsTheLimiterAndTheResumeKeepsItsDeadline) {
  ScopedEnv limit("ZVK_CAPTURE_LIMIT_SECONDS", "1");
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  const auto started = Clock::now();
  ASSERT_TRUE(collector.start_profiling().ok());
  CaptureStderr();
  ASSERT_TRUE(collector.suspend_profiling().ok());
  EXPECT_TRUE(collector.time_limiter_started());
  // Past the deadline, and nothing stopped the capture.
  std::this_thread::sleep_until(started + milliseconds(1300));
  EXPECT_EQ(count_of(fake_cupti::calls(), "cuptiActivityFlushAll(1)"), 0u);
  EXPECT_TRUE(fake_cupti_subscribed());
  EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{});

  // The new limiter counts from the first start: its deadline has passed.
  fake_cupti_clear_calls();
  CaptureStderr();
  const auto resumed = Clock::now();
  ASSERT_TRUE(collector.resume_profiling().ok());
  EXPECT_TRUE(wait_until([] { return call_seen("cuptiActivityFlushAll(1)"); }, milliseconds(5000)));
  EXPECT_LT(seconds_since(resumed), 0.9);
  ASSERT_TRUE(collector.suspend_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{kEmptyFlushLine});
  EXPECT_EQ(fake_cupti::calls(), kDefaultStopCalls);
}

TEST_F(CudaCollector, ASuspendRightAfterTheStartReturnsAtOnceAndTwiceIsHarmless) {
  Pipeline pipeline;
  auto collector = std::make_unique<ZVKCudaCollector>("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector->start_profiling().ok());
  const auto asked = Clock::now();
  ASSERT_TRUE(collector->suspend_profiling().ok());
  EXPECT_LT(seconds_since(asked), 1.0);
  ASSERT_TRUE(collector->suspend_profiling().ok());
  EXPECT_TRUE(collector->time_limiter_started());
  // Destroyed while suspended: nothing is left running on its queues.
  collector.reset();
}

TEST_F(CudaCollector, ACollectorDestroyedWithoutAStopEndsItsThreads) {
  Pipeline pipeline;
  auto collector = std::make_unique<ZVKCudaCollector>("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector->start_profiling().ok());
  emit(make_memset<CUpti_ActivityMemset5>(1));
  ASSERT_TRUE(fake_cupti_complete_held());
  const auto asked = Clock::now();
  collector.reset();
  EXPECT_LT(seconds_since(asked), 1.0);
}

// The limit's line is verbose: at level 0 the stop happens without it.
TEST_F(CudaCollector, TheLimitLineIsVerboseOnly) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_MAX_VLOG_LEVEL=0"}));
    return;
  }
  ScopedEnv limit("ZVK_CAPTURE_LIMIT_SECONDS", "0");
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  CaptureStderr();
  ASSERT_TRUE(collector.start_profiling().ok());
  EXPECT_TRUE(wait_until([] { return call_seen("cuptiActivityFlushAll(1)"); }, milliseconds(5000)));
  ASSERT_TRUE(collector.suspend_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()), Strings{kEmptyFlushLine});
  EXPECT_FALSE(fake_cupti_subscribed());
}

TEST_F(CudaCollector, TheLimitLineAtVerboseLevelOne) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({"ZORV_MAX_VLOG_LEVEL=1"}));
    return;
  }
  ScopedEnv limit("ZVK_CAPTURE_LIMIT_SECONDS", "0");
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  CaptureStderr();
  ASSERT_TRUE(collector.start_profiling().ok());
  EXPECT_TRUE(wait_until([] { return call_seen("cuptiActivityFlushAll(1)"); }, milliseconds(5000)));
  ASSERT_TRUE(collector.suspend_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            (Strings{"INFO| Cuda capture time limit reached. Stopping capture", kEmptyFlushLine}));
  EXPECT_FALSE(fake_cupti_subscribed());
}

// The limiter's stop and the caller's meet; each is whole, and both answer OK.
TEST_F(CudaCollector, TheLimitersStopAndTheCallersStopDontCollide) {
  ScopedEnv limit("ZVK_CAPTURE_LIMIT_SECONDS", "0");
  CaptureStderr();
  for (int round = 0; round < 10; ++round) {
    fake_cupti_reset();
    Pipeline pipeline;
    ZVKCudaCollector collector("CUDACollector", pipeline.helper);
    ASSERT_TRUE(collector.start_profiling().ok());
    emit(make_memset<CUpti_ActivityMemset5>(1));
    if (round % 2 == 1) std::this_thread::sleep_for(std::chrono::microseconds(200 * round));
    EXPECT_TRUE(collector.stop_profiling().ok());
    ASSERT_TRUE(wait_until([] { return call_seen("cuptiActivityFlushAll(1)", 2); },
                           milliseconds(5000)));
    // Two whole stops, one after the other. When the limiter's came first, the
    // record completed by the second stop has no rotator left to translate it.
    const Strings calls = fake_cupti::calls();
    EXPECT_EQ(count_of(calls, "cuptiUnsubscribe"), 2u);
    EXPECT_LE(pipeline.take_records().size(), 1u);
  }
  GetCapturedStderr();
}

// ---- Driver API callbacks ------------------------------------------------------------

// One traced call as the test saw it from inside: its thread and the start slot.
struct Fired {
  uint32_t correlation_id;
  uint32_t tid;
  uint64_t start;
  std::string symbol;
  uint32_t cbid;
};

void remember_start(void* arg, uint64_t* slot) {
  auto* fired = static_cast<Fired*>(arg);
  fired->start = *slot;
  fired->tid = gettid_now();
}

Fired fire(const char* symbol, uint32_t cbid, uint32_t correlation_id) {
  Fired fired{correlation_id, 0, 0, symbol != nullptr ? symbol : "Unknown", cbid};
  EXPECT_TRUE(fake_cupti_fire_api_between(CUPTI_CB_DOMAIN_DRIVER_API, cbid, symbol, "cuSomething",
                                          correlation_id, remember_start, &fired));
  return fired;
}

void expect_api_record(const DecodedRecord& r, const Fired& fired, uint32_t name_id) {
  EXPECT_EQ(word_of(r), kGpuWordBase | 9u);
  EXPECT_EQ(r.timestamp, fired.start);
  EXPECT_EQ(r.pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(r.tid, fired.tid);
  EXPECT_EQ(r.payload_size, 24);
  EXPECT_LE(r.call_chain_size, 16);
  EXPECT_GT(r.call_chain_size, 0);
  const uint64_t end = field<uint64_t>(r, 0);
  EXPECT_GT(end, fired.start);
  EXPECT_EQ((end - FAKE_CUPTI_TIMESTAMP_BASE) % FAKE_CUPTI_TIMESTAMP_STEP, 0u);
  EXPECT_EQ(field<uint32_t>(r, 8), static_cast<uint32_t>(CUPTI_CB_DOMAIN_DRIVER_API));
  EXPECT_EQ(field<uint32_t>(r, 12), fired.cbid);
  EXPECT_EQ(field<uint32_t>(r, 16), fired.correlation_id);
  EXPECT_EQ(field<uint32_t>(r, 20), name_id);
  for (size_t i = 0; i < r.callchain.size(); ++i) {
    const bool last_to = i + 1 == r.callchain.size() && i % 2 == 1;
    if (!last_to) {
      EXPECT_NE(r.callchain[i], 0u) << "frame " << i;
    }
  }
}

TEST_F(CudaCollector, FunctionNamesAreRecordedOnceAndBeforeTheirFirstUse) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  const uint32_t cbid = CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel;
  std::vector<Fired> fired;
  fired.push_back(fire("fn_sym7", cbid, 11));    // 7 characters
  fired.push_back(fire("fn_sym_8", cbid, 12));   // 8 characters
  fired.push_back(fire("fn_sym7", CUPTI_DRIVER_TRACE_CBID_cuMemcpyHtoD_v2, 13));
  fired.push_back(fire("fn_sym_8", cbid, 14));
  EXPECT_EQ(fake_cupti_timestamp_calls(), 8u);
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 6u);

  // One thread, a known clock: call k starts at tick 2k and ends at tick 2k + 1.
  for (size_t k = 0; k < fired.size(); ++k) {
    EXPECT_EQ(fired[k].start, FAKE_CUPTI_TIMESTAMP_BASE + 2 * k * FAKE_CUPTI_TIMESTAMP_STEP);
  }
  const uint32_t tid = gettid_now();
  const uint32_t id7 = field<uint32_t>(records[0], 0);
  EXPECT_EQ(word_of(records[0]), kGpuWordBase | 0x1000u);
  expect_header(records[0], 0x1000, fired[0].start, tid, 16);
  EXPECT_EQ(records[0].payload, name_payload(id7, 7, "fn_sym7"));
  expect_api_record(records[1], fired[0], id7);
  EXPECT_EQ(field<uint64_t>(records[1], 0), fired[0].start + FAKE_CUPTI_TIMESTAMP_STEP);
  expect_header(records[2], 0x1000, fired[1].start, tid, 24);
  EXPECT_EQ(records[2].payload, name_payload(id7 + 1, 8, "fn_sym_8"));
  expect_api_record(records[3], fired[1], id7 + 1);
  expect_api_record(records[4], fired[2], id7);
  expect_api_record(records[5], fired[3], id7 + 1);
  EXPECT_EQ(field<uint64_t>(records[5], 0), fired[3].start + FAKE_CUPTI_TIMESTAMP_STEP);
}

TEST_F(CudaCollector, TheThreeFilteredCallsWriteNothingButTakeTheirTimestamps) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  for (uint32_t cbid :
       {CUPTI_DRIVER_TRACE_CBID_cuCtxGetDevice, CUPTI_DRIVER_TRACE_CBID_cuFuncGetAttribute,
        CUPTI_DRIVER_TRACE_CBID_cuOccupancyMaxActiveBlocksPerMultiprocessorWithFlags}) {
    fire("filtered_symbol", cbid, 1);
  }
  EXPECT_EQ(fake_cupti_timestamp_calls(), 6u);

  // The same id in another domain is traced.
  uint64_t slot = 0;
  CUpti_CallbackData data;
  std::memset(static_cast<void*>(&data), 0, sizeof data);
  data.correlationData = &slot;
  data.symbolName = "filtered_symbol";
  data.correlationId = 5;
  data.callbackSite = CUPTI_API_ENTER;
  trace_callback(nullptr, CUPTI_CB_DOMAIN_RUNTIME_API, CUPTI_DRIVER_TRACE_CBID_cuCtxGetDevice,
                 &data);
  EXPECT_EQ(slot, FAKE_CUPTI_TIMESTAMP_BASE + 6 * FAKE_CUPTI_TIMESTAMP_STEP);
  data.callbackSite = CUPTI_API_EXIT;
  trace_callback(nullptr, CUPTI_CB_DOMAIN_RUNTIME_API, CUPTI_DRIVER_TRACE_CBID_cuCtxGetDevice,
                 &data);
  EXPECT_EQ(fake_cupti_timestamp_calls(), 8u);

  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_TRUE(is_name(records[0], 1));
  EXPECT_EQ(name_text(records[0]), "filtered_symbol");
  ASSERT_TRUE(is_type(records[1], 9));
  EXPECT_EQ(records[1].timestamp, slot);
  EXPECT_EQ(field<uint64_t>(records[1], 0), slot + FAKE_CUPTI_TIMESTAMP_STEP);
  EXPECT_EQ(field<uint32_t>(records[1], 8), static_cast<uint32_t>(CUPTI_CB_DOMAIN_RUNTIME_API));
  EXPECT_EQ(field<uint32_t>(records[1], 12),
            static_cast<uint32_t>(CUPTI_DRIVER_TRACE_CBID_cuCtxGetDevice));
  EXPECT_EQ(field<uint32_t>(records[1], 16), 5u);
}

TEST_F(CudaCollector, ANullSymbolIsUnknownWithLengthZeroAndIdZeroInAFreshProcess) {
  if (!in_fresh_process()) {
    EXPECT_EQ(0, rerun_in_fresh_process({}));
    return;
  }
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  const Fired first = fire(nullptr, CUPTI_DRIVER_TRACE_CBID_cuCtxSynchronize, 21);
  const Fired second = fire(nullptr, CUPTI_DRIVER_TRACE_CBID_cuMemAlloc_v2, 22);
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 3u);
  expect_header(records[0], 0x1000, FAKE_CUPTI_TIMESTAMP_BASE, gettid_now(), 16);
  EXPECT_EQ(records[0].payload,
            Bytes(16).put<uint32_t>(0, 0).put<uint32_t>(4, 0).put_text(8, "Unknown").str());
  expect_api_record(records[1], first, 0);
  expect_api_record(records[2], second, 0);
  EXPECT_EQ(first.start, FAKE_CUPTI_TIMESTAMP_BASE);
  EXPECT_EQ(field<uint64_t>(records[2], 0),
            FAKE_CUPTI_TIMESTAMP_BASE + 3 * FAKE_CUPTI_TIMESTAMP_STEP);
}

TEST_F(CudaCollector, WithoutTheDriverFlagNoDomainIsEnabledAndNoCallIsTraced) {
  ScopedEnv config("ZVK_CUDA_CONFIG", "255");
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  EXPECT_EQ(count_of(fake_cupti::calls(), "cuptiSubscribe"), 1u);
  EXPECT_EQ(count_of(fake_cupti::calls(), "cuptiEnableDomain(1,1)"), 0u);
  EXPECT_TRUE(fake_cupti_subscribed());
  EXPECT_FALSE(fake_cupti_domain_enabled(CUPTI_CB_DOMAIN_DRIVER_API));
  EXPECT_FALSE(fake_cupti_fire_api(CUPTI_CB_DOMAIN_DRIVER_API,
                                   CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel,
                                   "no_driver_flag", "cuLaunchKernel", 1));
  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  GetCapturedStderr();
  EXPECT_EQ(count_of(fake_cupti::calls(), "cuptiEnableDomain(0,1)"), 0u);
  EXPECT_TRUE(pipeline.take_records().empty());
}

TEST_F(CudaCollector, CallsFromManyThreadsEachGiveTheirOwnRecord) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  constexpr int kThreads = 4;
  constexpr int kCalls = 50;
  const std::string shared_name = "mt_shared_symbol";
  std::vector<std::string> own_names;
  for (int t = 0; t < kThreads; ++t) own_names.push_back("mt_thread_" + std::to_string(t));
  std::vector<std::vector<Fired>> fired(kThreads);
  on_threads(kThreads, [&](int t) {
    for (int i = 0; i < kCalls; ++i) {
      const char* symbol = i % 2 == 0 ? shared_name.c_str() : own_names[t].c_str();
      const uint32_t cbid = i % 3 == 0 ? CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel
                                       : CUPTI_DRIVER_TRACE_CBID_cuMemcpyHtoD_v2;
      fired[t].push_back(fire(symbol, cbid, static_cast<uint32_t>(1000 * (t + 1) + i)));
    }
  });
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();

  std::map<uint32_t, std::string> names;  // id to name
  std::map<std::string, int> name_records;
  std::set<uint32_t> thread_ids;
  for (const auto& each : fired) thread_ids.insert(each.front().tid);
  EXPECT_EQ(thread_ids.size(), static_cast<size_t>(kThreads));
  for (const DecodedRecord& r : records) {
    if (!is_name(r, 1)) continue;
    const std::string name = name_text(r);
    names[field<uint32_t>(r, 0)] = name;
    ++name_records[name];
    EXPECT_EQ(field<uint32_t>(r, 4), name.size());
    EXPECT_EQ(r.payload_size, 8 + ((name.size() + 8) & ~size_t{7}));
    EXPECT_EQ(thread_ids.count(r.tid), 1u);
  }
  EXPECT_EQ(name_records.size(), static_cast<size_t>(kThreads + 1));
  for (const auto& [name, count] : name_records) EXPECT_EQ(count, 1) << name;

  // Every tick of the fake clock is one call's start or end, once.
  std::vector<uint64_t> ticks;
  size_t api_records = 0;
  for (const auto& each : fired) {
    for (const Fired& f : each) {
      const DecodedRecord* r = find_correlated(records, 9, f.correlation_id);
      ASSERT_NE(r, nullptr) << f.correlation_id;
      ++api_records;
      const uint32_t name_id = field<uint32_t>(*r, 20);
      EXPECT_EQ(names[name_id], f.symbol);
      expect_api_record(*r, f, name_id);
      ticks.push_back(f.start);
      ticks.push_back(field<uint64_t>(*r, 0));
    }
  }
  EXPECT_EQ(api_records, static_cast<size_t>(kThreads * kCalls));
  EXPECT_EQ(records.size(), api_records + name_records.size());
  std::sort(ticks.begin(), ticks.end());
  ASSERT_EQ(ticks.size(), 2u * kThreads * kCalls);
  EXPECT_EQ(fake_cupti_timestamp_calls(), ticks.size());
  for (size_t k = 0; k < ticks.size(); ++k) {
    EXPECT_EQ(ticks[k], FAKE_CUPTI_TIMESTAMP_BASE + k * FAKE_CUPTI_TIMESTAMP_STEP);
  }
}

// Each level of this recursion is one more frame on the stack that the callback
// unwinds. The barrier after the call keeps the compiler from making a loop of it.
__attribute__((noinline)) int fire_at_depth(int levels, uint32_t correlation_id) {
  if (levels == 0) {
    EXPECT_TRUE(fake_cupti_fire_api(CUPTI_CB_DOMAIN_DRIVER_API,
                                    CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel,
                                    "call_chain_symbol", "cuLaunchKernel", correlation_id));
    return 0;
  }
  int result = fire_at_depth(levels - 1, correlation_id);
  asm volatile("" : "+r"(result) : : "memory");
  return result + 1;
}

// The frame count that a record's call chain stands for: two frames an entry, one
// fewer when the last `to` is 0.
int frames_of(const DecodedRecord& r) {
  if (r.call_chain_size == 0) return 0;
  return 2 * r.call_chain_size - (r.callchain.back() == 0 ? 1 : 0);
}

TEST_F(CudaCollector, TheCallChainHoldsTheUnwoundFramesTwoAnEntryUpToSixteen) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  constexpr int kDeepest = 45;
  for (int levels = 0; levels <= kDeepest; ++levels) {
    fire_at_depth(levels, static_cast<uint32_t>(levels));
  }
  ASSERT_TRUE(collector.stop_profiling().ok());
  std::vector<DecodedRecord> api;
  for (const DecodedRecord& r : pipeline.take_records()) {
    if (is_type(r, 9)) api.push_back(r);
  }
  ASSERT_EQ(api.size(), static_cast<size_t>(kDeepest + 1));
  for (int levels = 0; levels <= kDeepest; ++levels) {
    const DecodedRecord& r = api[levels];
    ASSERT_EQ(correlation_of(r), static_cast<uint32_t>(levels));
    ASSERT_LE(r.call_chain_size, 16);
    ASSERT_EQ(r.callchain.size(), 2u * r.call_chain_size);
    EXPECT_EQ(r.payload_size, 24);
    EXPECT_EQ(record_size(r.call_chain_size, r.payload_size), 24u + 16u * r.call_chain_size + 24u);
    EXPECT_EQ(field<uint32_t>(r, 16), static_cast<uint32_t>(levels));  // payload after the chain
    for (size_t i = 0; i < r.callchain.size(); ++i) {
      if (i + 1 == r.callchain.size() && r.callchain[i] == 0) continue;  // an odd count's end
      Dl_info info;
      EXPECT_NE(dladdr(reinterpret_cast<void*>(r.callchain[i]), &info), 0)
          << "frame " << i << " at level " << levels << " is no code address";
    }
    // One level deeper is one frame more, until the 32 frames of the array are full.
    if (levels > 0) {
      EXPECT_EQ(frames_of(r), std::min(frames_of(api[levels - 1]) + 1, 32)) << "level " << levels;
    }
  }
  EXPECT_LT(frames_of(api[0]), 31) << "the shallowest call must leave room to grow";
  const DecodedRecord& deepest = api[kDeepest];
  EXPECT_EQ(deepest.call_chain_size, 16);
  EXPECT_NE(deepest.callchain.back(), 0u);
  EXPECT_EQ(record_size(deepest.call_chain_size, deepest.payload_size), 24u + 256u + 24u);
}

// ---- Through the controller -------------------------------------------------------

void clear_environment() {
  for (const char* name : {"ZV_CURRENT_HOST", "ZVK_OUTPUT_FILE_NAME", "ZVK_BUCKET_COUNT",
                           "ZVK_BUCKET_SIZE_MB", "ZVK_ENABLE_FORK_FOLLOW", "ZVK_BUCKET_COMPRESSION",
                           "ZVK_FLUSH_INTERVAL_MS", "ZVK_CUDA_CONFIG",
                           "ZVK_CAPTURE_LIMIT_SECONDS"}) {
    unsetenv(name);
  }
}

std::map<std::string, ZVKConfigSection> gpu_capture_config(const std::string& pattern,
                                                           bool follow_forks) {
  auto config = small_capture_config(pattern);
  config["ZORV"]["EnableCuda"] = "1";
  config["ZORV"]["EnableForkFollow"] = follow_forks ? "1" : "0";
  return config;
}

std::vector<DecodedRecord> gpu_records_of(const std::string& path) {
  std::vector<DecodedRecord> records;
  for (const auto& bucket : read_capture(path).buckets) {
    for (const DecodedRecord& r : bucket.records) {
      if (is_gpu(r)) records.push_back(r);
    }
  }
  return records;
}

// In a process of its own, for the controller's singleton: a fresh one, since under
// ThreadSanitizer this process may have threads left, and a fork of it could start
// none.
TEST(CudaCapture, TheControllerWritesGpuRecordsToTheFile) {
  if (!in_fresh_process()) {
    TempDir dir;
    EXPECT_EQ(0, rerun_in_fresh_process({"ZVK_TEST_CAPTURE_DIR=" + dir.path()}));
    return;
  }
  const char* capture_dir = getenv("ZVK_TEST_CAPTURE_DIR");
  ASSERT_NE(capture_dir, nullptr);
  const std::string dir = capture_dir;
  alarm(60);
  fake_cupti_reset();
  clear_environment();
  Zorv& zorv = Zorv::instance();
  CaptureStderr();
  ASSERT_TRUE(zorv.configure(gpu_capture_config(dir + "/cap_%p", false)).ok());
  ASSERT_TRUE(zorv.start_profiling().ok());
  EXPECT_EQ(fake_cupti::calls(), kDefaultStartCalls);

  const auto kernel = make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_KERNEL,
                                                          "e2e_kernel", 301, 1, 7000000);
  const auto copy = make_memcpy<CUpti_ActivityMemcpy7>(302, 2);
  const auto sync = make_sync<CUpti_ActivitySynchronization2>(
      303, CUPTI_ACTIVITY_SYNCHRONIZATION_TYPE_EVENT_SYNCHRONIZE);
  emit(kernel);
  emit(copy);
  emit(sync);
  std::vector<Fired> fired(3);
  on_threads(3, [&fired](int t) {
    const std::string symbol = "e2e_symbol_" + std::to_string(t);
    fired[t] = fire(symbol.c_str(), CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel,
                    static_cast<uint32_t>(400 + t));
  });
  ASSERT_TRUE(zorv.stop_profiling().ok());
  GetCapturedStderr();

  const Strings files = TempDir::list_of(dir);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0], "cap_" + std::to_string(getpid()) + "_0.zvkraw");
  const std::vector<DecodedRecord> records = gpu_records_of(dir + "/" + files[0]);
  ASSERT_EQ(records.size(), 4u + 3u * 2u);

  // The kernel's name comes before the kernel.
  const auto kernel_at = std::find_if(records.begin(), records.end(),
                                      [](const DecodedRecord& r) { return is_type(r, 1); });
  ASSERT_NE(kernel_at, records.end());
  const auto name_at = std::find_if(records.begin(), records.end(),
                                    [](const DecodedRecord& r) { return is_name(r, 0); });
  ASSERT_LT(name_at - records.begin(), kernel_at - records.begin());
  const uint32_t kernel_name_id = field<uint32_t>(*name_at, 0);
  expect_kernel_name(*name_at, "e2e_kernel", kernel_name_id, kernel.start, kernel.deviceId,
                     false);
  expect_header(*kernel_at, 0x0001, kernel.start, kernel.deviceId, 72);
  EXPECT_EQ(kernel_at->payload, kernel_payload(kernel, kernel_name_id));

  const DecodedRecord* copied = find_correlated(records, 4, 302);
  ASSERT_NE(copied, nullptr);
  expect_header(*copied, 0x2004, copy.start, copy.deviceId, 40);
  // Through the file the unwritten bytes are whatever the capture buffer held.
  EXPECT_EQ(copied->payload.substr(0, 20), memcpy_payload(copy).substr(0, 20));
  EXPECT_EQ(copied->payload.substr(24), memcpy_payload(copy).substr(24));
  const DecodedRecord* synced = find_correlated(records, 3, 303);
  ASSERT_NE(synced, nullptr);
  expect_header(*synced, 0x1003, sync.start, sync.cudaEventId, 16);
  EXPECT_EQ(synced->payload, sync_payload(sync));

  for (const Fired& f : fired) {
    const auto api_at = std::find_if(records.begin(), records.end(), [&](const DecodedRecord& r) {
      return is_type(r, 9) && correlation_of(r) == f.correlation_id;
    });
    ASSERT_NE(api_at, records.end());
    const uint32_t id = field<uint32_t>(*api_at, 20);
    const auto function_name_at =
        std::find_if(records.begin(), records.end(), [&](const DecodedRecord& r) {
          return is_name(r, 1) && field<uint32_t>(r, 0) == id;
        });
    ASSERT_LT(function_name_at - records.begin(), api_at - records.begin());
    EXPECT_EQ(name_text(*function_name_at), f.symbol);
    EXPECT_EQ(field<uint32_t>(*function_name_at, 4), f.symbol.size());
    expect_header(*function_name_at, 0x1000, f.start, f.tid,
                  static_cast<uint16_t>(8 + ((f.symbol.size() + 8) & ~size_t{7})));
    expect_api_record(*api_at, f, id);
  }
}

#if !defined(__SANITIZE_THREAD__)
// Forks with the fake CUPTI through the controller's fork handlers. Both sides run a
// limiter again, counting from the first start: it stops their GPU capture about a
// second after it began.

// What a child reports through its exit status.
enum ChildResult { kChildOk = 0, kChildWrongState, kChildNoStop, kChildEarlyStop, kChildBlocked,
                   kChildWrongCount, kChildLimiterRan, kChildStopFailed };

pid_t fork_child(const std::function<int()>& body) {
  fflush(stdout);
  fflush(stderr);
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    _exit(body());
  }
  return child;
}

int wait_child(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The parent's side, the same with following on or off: its rotator works again
// after the fork, and so does a new limiter for the old deadline.
void parent_after_fork(Zorv& zorv, const TempDir& dir, Clock::time_point started) {
  fake_cupti_clear_calls();
  emit(make_memset<CUpti_ActivityMemset5>(3));
  ASSERT_TRUE(fake_cupti_complete_held());
  EXPECT_TRUE(wait_until([] { return call_seen("cuptiActivityFlushAll(1)"); }, milliseconds(5000)));
  EXPECT_GE(seconds_since(started), 0.9);
  ASSERT_TRUE(zorv.stop_profiling().ok());
  const std::vector<DecodedRecord> records =
      gpu_records_of(dir.file("cap_" + std::to_string(getpid()) + "_0.zvkraw"));
  const DecodedRecord* before = find_correlated(records, 1, 1);
  ASSERT_NE(before, nullptr);
  EXPECT_EQ(before->pid, static_cast<uint32_t>(getpid()));
  const DecodedRecord* after = find_correlated(records, 6, 3);
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(after->pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(find_correlated(records, 6, 2), nullptr);
}

Clock::time_point start_forking_capture(Zorv& zorv, const TempDir& dir, bool follow) {
  fake_cupti_reset();
  clear_environment();
  setenv("ZVK_CAPTURE_LIMIT_SECONDS", "1", 1);
  CaptureStderr();
  EXPECT_TRUE(zorv.configure(gpu_capture_config(dir.file("cap_%p"), follow)).ok());
  const auto started = Clock::now();
  EXPECT_TRUE(zorv.start_profiling().ok());
  emit(make_kernel<CUpti_ActivityKernel13>(CUPTI_ACTIVITY_KIND_KERNEL, "fork_kernel", 1, 0, 100));
  EXPECT_TRUE(fake_cupti_complete_held());
  return started;
}

TEST(CudaFork, FollowingOnTheChildTracesUnderItsOwnPid) {
  TempDir dir;
  const int status = run_in_child([&] {
    alarm(60);
    Zorv& zorv = Zorv::instance();
    const auto started = start_forking_capture(zorv, dir, true);
    const pid_t child = fork_child([&] {
      fake_cupti_clear_calls();
      if (!zorv.is_active()) return kChildWrongState;
      emit(make_memset<CUpti_ActivityMemset5>(2));
      if (!fake_cupti_complete_held()) return kChildWrongCount;
      // The child's own limiter stops its GPU capture at the old deadline, after the
      // child's rotator has translated what was completed.
      if (!wait_until([] { return call_seen("cuptiActivityFlushAll(1)"); }, milliseconds(5000))) {
        return kChildNoStop;
      }
      if (seconds_since(started) < 0.9) return kChildEarlyStop;
      return zorv.stop_profiling().ok() ? kChildOk : kChildStopFailed;
    });
    parent_after_fork(zorv, dir, started);
    EXPECT_EQ(wait_child(child), kChildOk);
    GetCapturedStderr();

    const std::vector<DecodedRecord> records =
        gpu_records_of(dir.file("cap_" + std::to_string(child) + "_0.zvkraw"));
    const DecodedRecord* in_child = find_correlated(records, 6, 2);
    ASSERT_NE(in_child, nullptr);
    EXPECT_EQ(in_child->pid, static_cast<uint32_t>(child));
    EXPECT_EQ(find_correlated(records, 6, 3), nullptr);
    EXPECT_EQ(dir.list().size(), 2u);
  }, true);
  EXPECT_EQ(status, 0);
}

TEST(CudaFork, AChildNeverWritesTheParentsCompletedBuffers) {
  fake_cupti_reset();
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  // As at a fork: suspended, with a buffer of the parent's completed and not walked.
  ASSERT_TRUE(collector.suspend_profiling().ok());
  emit(make_memset<CUpti_ActivityMemset5>(7));
  ASSERT_TRUE(fake_cupti_complete_held());
  const pid_t child = fork_child([&] {
    if (!collector.resume_profiling().ok()) return kChildWrongState;
    emit(make_memset<CUpti_ActivityMemset5>(8));
    if (!fake_cupti_complete_held()) return kChildWrongCount;
    if (!collector.stop_profiling().ok()) return kChildStopFailed;
    const std::vector<DecodedRecord> records = pipeline.take_records();
    if (records.size() != 1 || correlation_of(records[0]) != 8) return kChildWrongCount;
    return records[0].pid == static_cast<uint32_t>(getpid()) ? kChildOk : kChildWrongState;
  });
  EXPECT_EQ(wait_child(child), kChildOk);
  // The parent still writes its own.
  ASSERT_TRUE(collector.resume_profiling().ok());
  ASSERT_TRUE(collector.stop_profiling().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(correlation_of(records[0]), 7u);
  EXPECT_EQ(records[0].pid, static_cast<uint32_t>(getpid()));
}

TEST(CudaFork, FollowingOffLeavesTheChildsCollectorSuspended) {
  TempDir dir;
  const int status = run_in_child([&] {
    alarm(60);
    Zorv& zorv = Zorv::instance();
    const auto started = start_forking_capture(zorv, dir, false);
    const pid_t child = fork_child([&] {
      fake_cupti_clear_calls();
      if (zorv.is_active()) return kChildWrongState;
      // No rotator was left running by the fork, and none started in the child: with
      // every buffer out the answer is null, at once.
      const auto asked = Clock::now();
      const size_t taken = take_free_buffers().size();
      if (seconds_since(asked) > 0.5) return kChildBlocked;
      if (taken != kActivityBufferCount) return kChildWrongCount;
      // Nor a limiter: the deadline passes and nothing stops.
      std::this_thread::sleep_until(started + milliseconds(1400));
      if (call_seen("cuptiActivityFlushAll(1)")) return kChildLimiterRan;
      return kChildOk;
    });
    parent_after_fork(zorv, dir, started);
    EXPECT_EQ(wait_child(child), kChildOk);
    GetCapturedStderr();
    EXPECT_EQ(dir.list().size(), 1u);
  }, true);
  EXPECT_EQ(status, 0);
}

// Registered before the GPU start, this runs after the profiler's own exit
// handler, and says through a pipe what it found.
int g_exit_report = -1;
void report_cupti_at_exit() {
  const char state = fake_cupti_subscribed() ? 'S' : (fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_KERNEL) ? 'K' : 'O');
  (void)!write(g_exit_report, &state, 1);
}

// The user suspended the capture and the program ended: GPU tracing, still on
// through a suspend, is stopped at exit while CUPTI can be called, before the
// buffers it writes into go with the static destructors.
TEST(CudaExit, ASuspendedCapturesTracingStopsWhenTheProcessEnds) {
  TempDir dir;
  int report[2];
  ASSERT_EQ(pipe(report), 0);
  const int status = run_in_child(
      [&] {
        clear_environment();
        close(report[0]);
        g_exit_report = report[1];
        // The controller first: its static destructor then runs after the report,
        // which sees what the exit handler alone did.
        Zorv& zorv = Zorv::instance();
        atexit(report_cupti_at_exit);
        CaptureStderr();
        ASSERT_TRUE(zorv.configure(gpu_capture_config(dir.file("exit_%p"), false)).ok());
        ASSERT_TRUE(zorv.start_profiling().ok());
        ASSERT_TRUE(zorv.suspend_profiling().ok());
        ASSERT_TRUE(fake_cupti_subscribed());
        GetCapturedStderr();
      },
      true);
  close(report[1]);
  char state = '?';
  EXPECT_EQ(read(report[0], &state, 1), 1);
  close(report[0]);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(state, 'O') << "S: still subscribed, K: kernels still enabled";
}
#endif  // !defined(__SANITIZE_THREAD__)

// ---- Bounded loss and bounded waits ------------------------------------------------

TEST_F(CudaCollector, RecordsCuptiHoldsComeOutWithinAboutASecondWithoutAStop) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  emit(make_memset<CUpti_ActivityMemset5>(42));
  ASSERT_TRUE(fake_cupti_holds_buffer());
  // The rotator forces CUPTI's partly filled buffer out and walks it.
  EXPECT_TRUE(wait_until([] { return !fake_cupti_holds_buffer(); }, milliseconds(10000)));
  EXPECT_TRUE(call_seen("cuptiActivityFlushAll(1)"));
  EXPECT_TRUE(wait_until([] { return fake_cupti_next_record_calls() >= 2; }, milliseconds(5000)));
  ASSERT_TRUE(pipeline.helper->flush().ok());
  const std::vector<DecodedRecord> records = pipeline.take_records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(correlation_of(records[0]), 42u);
  ASSERT_TRUE(collector.stop_profiling().ok());
}

TEST_F(CudaCollector, NothingHeldByCuptiMeansNoPeriodicFlush) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  std::this_thread::sleep_for(milliseconds(2500));
  EXPECT_FALSE(call_seen("cuptiActivityFlushAll(1)"));
  ASSERT_TRUE(collector.stop_profiling().ok());
}

TEST_F(CudaCollector, ARequestGivesUpWhenTheRotatorHandsNothingBackAndTheStopSaysSo) {
  Pipeline pipeline;
  ZVKCudaCollector collector("CUDACollector", pipeline.helper);
  ASSERT_TRUE(collector.start_profiling().ok());
  // The rotator runs but nothing comes back (a writer held up by a hung disk
  // looks the same from here): the request after the last buffer answers none
  // instead of holding the thread CUPTI called on.
  const std::vector<uint8_t*> out = take_free_buffers();
  ASSERT_EQ(out.size(), kActivityBufferCount);
  for (uint8_t* b : out) bufferCompleted(nullptr, 0, b, kActivityBufferSize, 0);
  CaptureStderr();
  ASSERT_TRUE(collector.stop_profiling().ok());
  EXPECT_EQ(log_messages(GetCapturedStderr()),
            (Strings{kEmptyFlushLine,
                     "WARNING| CUDACollector refused CUPTI 1 activity buffers: all were waiting "
                     "to be written, and CUPTI dropped what it could not place"}));
}

}  // namespace
}  // namespace zorvek
