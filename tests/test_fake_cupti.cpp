// The fake CUPTI on its own, without the collector: the tests of the collector
// rely on it behaving as described in fake_cupti.h, so that is checked here.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/fake_cupti/fake_cupti.h"

namespace {

using Strings = std::vector<std::string>;

// A pool of buffers handed out by the test's bufferRequested and collected by its
// bufferCompleted, in the roles the collector plays.
struct Completed {
  uint8_t* buffer;
  size_t size;
  size_t valid_size;
};

std::mutex g_pool_lock;
size_t g_buffer_size = 4096;
size_t g_max_records = 0;
std::vector<void*> g_allocations;
std::vector<Completed> g_completed;

void CUPTIAPI buffer_requested(uint8_t** buffer, size_t* size, size_t* max_records) {
  std::lock_guard<std::mutex> lock(g_pool_lock);
  // CUPTI wants 8-byte aligned buffers; aligned_alloc gives more.
  void* memory = std::aligned_alloc(16, (g_buffer_size + 15) & ~size_t{15});
  g_allocations.push_back(memory);
  *buffer = static_cast<uint8_t*>(memory);
  *size = g_buffer_size;
  *max_records = g_max_records;
}

void CUPTIAPI buffer_completed(CUcontext, uint32_t, uint8_t* buffer, size_t size,
                               size_t valid_size) {
  std::lock_guard<std::mutex> lock(g_pool_lock);
  g_completed.push_back({buffer, size, valid_size});
}

std::vector<Completed> completed() {
  std::lock_guard<std::mutex> lock(g_pool_lock);
  return g_completed;
}

// Every record of one buffer, walked as the collector walks it.
std::vector<CUpti_Activity*> walk(uint8_t* buffer, size_t valid_size) {
  std::vector<CUpti_Activity*> records;
  CUpti_Activity* record = nullptr;
  CUptiResult result;
  while ((result = cuptiActivityGetNextRecord(buffer, valid_size, &record)) == CUPTI_SUCCESS) {
    records.push_back(record);
  }
  EXPECT_EQ(result, CUPTI_ERROR_MAX_LIMIT_REACHED);
  return records;
}

class FakeCupti : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_cupti_reset();
    std::lock_guard<std::mutex> lock(g_pool_lock);
    g_buffer_size = 4096;
    g_max_records = 0;
    g_completed.clear();
  }
  void TearDown() override {
    fake_cupti_reset();
    std::lock_guard<std::mutex> lock(g_pool_lock);
    for (void* memory : g_allocations) std::free(memory);
    g_allocations.clear();
  }
  static void register_callbacks() {
    ASSERT_EQ(cuptiActivityRegisterCallbacks(buffer_requested, buffer_completed), CUPTI_SUCCESS);
  }
};

CUpti_ActivityKernel13 kernel13(uint32_t correlation_id) {
  CUpti_ActivityKernel13 k;
  std::memset(&k, 0, sizeof k);
  k.kind = CUPTI_ACTIVITY_KIND_KERNEL;
  k.start = 100;
  k.end = 200;
  k.deviceId = 1;
  k.gridX = 4;
  k.blockX = 128;
  k.correlationId = correlation_id;
  k.name = "kernel_a";
  return k;
}

TEST_F(FakeCupti, EmitFlushWalkRoundTripWithRealStructures) {
  register_callbacks();
  CUpti_ActivityKernel13 kernel = kernel13(7);
  CUpti_ActivityMemcpy7 memcpy;
  std::memset(&memcpy, 0, sizeof memcpy);
  memcpy.kind = CUPTI_ACTIVITY_KIND_MEMCPY;
  memcpy.bytes = 4096;
  memcpy.copyKind = CUPTI_ACTIVITY_MEMCPY_KIND_HTOD;
  CUpti_ActivityMemcpyPtoP4 p2p;
  std::memset(&p2p, 0, sizeof p2p);
  p2p.kind = CUPTI_ACTIVITY_KIND_MEMCPY2;
  p2p.srcDeviceId = 0;
  p2p.dstDeviceId = 1;
  CUpti_ActivityMemset5 memset;
  std::memset(&memset, 0, sizeof memset);
  memset.kind = CUPTI_ACTIVITY_KIND_MEMSET;
  memset.value = 0xab;
  CUpti_ActivityAPI api;
  std::memset(&api, 0, sizeof api);
  api.kind = CUPTI_ACTIVITY_KIND_DRIVER;
  api.correlationId = 7;
  CUpti_ActivitySynchronization2 sync;
  std::memset(&sync, 0, sizeof sync);
  sync.kind = CUPTI_ACTIVITY_KIND_SYNCHRONIZATION;
  sync.cudaEventId = 3;
  CUpti_ActivityKernel4 old_kernel;
  std::memset(&old_kernel, 0, sizeof old_kernel);
  old_kernel.kind = CUPTI_ACTIVITY_KIND_CONCURRENT_KERNEL;
  old_kernel.name = "kernel_b";
  CUpti_ActivityName name;
  std::memset(&name, 0, sizeof name);
  name.kind = CUPTI_ACTIVITY_KIND_NAME;
  // A size that is not a multiple of 8, to see the next record aligned.
  const size_t odd_size = 13;

  EXPECT_FALSE(fake_cupti_holds_buffer());
  ASSERT_TRUE(fake_cupti_emit(&kernel, sizeof kernel));
  EXPECT_TRUE(fake_cupti_holds_buffer());
  EXPECT_EQ(fake_cupti_buffers_requested(), 1u);
  ASSERT_TRUE(fake_cupti_emit(&memcpy, sizeof memcpy));
  ASSERT_TRUE(fake_cupti_emit(&p2p, sizeof p2p));
  ASSERT_TRUE(fake_cupti_emit(&memset, sizeof memset));
  ASSERT_TRUE(fake_cupti_emit(&api, odd_size));
  ASSERT_TRUE(fake_cupti_emit(&sync, sizeof sync));
  ASSERT_TRUE(fake_cupti_emit(&old_kernel, sizeof old_kernel));
  ASSERT_TRUE(fake_cupti_emit(&name, sizeof name));
  EXPECT_EQ(fake_cupti_held_records(), 8u);
  EXPECT_TRUE(completed().empty());

  ASSERT_EQ(cuptiActivityFlushAll(1), CUPTI_SUCCESS);
  EXPECT_FALSE(fake_cupti_holds_buffer());
  std::vector<Completed> done = completed();
  ASSERT_EQ(done.size(), 1u);
  EXPECT_EQ(done[0].size, 4096u);
  EXPECT_GT(done[0].valid_size, sizeof kernel);

  std::vector<CUpti_Activity*> records = walk(done[0].buffer, done[0].valid_size);
  ASSERT_EQ(records.size(), 8u);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(records[0]), done[0].buffer);
  for (CUpti_Activity* record : records) {
    EXPECT_EQ(reinterpret_cast<uintptr_t>(record) % 8, 0u);
  }
  const auto* k = reinterpret_cast<const CUpti_ActivityKernel13*>(records[0]);
  EXPECT_EQ(k->kind, CUPTI_ACTIVITY_KIND_KERNEL);
  EXPECT_EQ(k->correlationId, 7u);
  EXPECT_EQ(k->end, 200u);
  EXPECT_STREQ(k->name, "kernel_a");
  EXPECT_EQ(reinterpret_cast<const CUpti_ActivityMemcpy7*>(records[1])->bytes, 4096u);
  EXPECT_EQ(reinterpret_cast<const CUpti_ActivityMemcpyPtoP4*>(records[2])->dstDeviceId, 1u);
  EXPECT_EQ(reinterpret_cast<const CUpti_ActivityMemset5*>(records[3])->value, 0xabu);
  EXPECT_EQ(records[4]->kind, CUPTI_ACTIVITY_KIND_DRIVER);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(records[5]) - reinterpret_cast<uint8_t*>(records[4]), 16);
  EXPECT_EQ(reinterpret_cast<const CUpti_ActivitySynchronization2*>(records[5])->cudaEventId, 3u);
  EXPECT_STREQ(reinterpret_cast<const CUpti_ActivityKernel4*>(records[6])->name, "kernel_b");
  EXPECT_EQ(records[7]->kind, CUPTI_ACTIVITY_KIND_NAME);
  // The valid size ends at the last record, unpadded.
  EXPECT_EQ(done[0].valid_size,
            static_cast<size_t>(reinterpret_cast<uint8_t*>(records[7]) - done[0].buffer) +
                sizeof name);
  EXPECT_EQ(fake_cupti_next_record_calls(), 9u);

  // Walked again from the start, the same records come back.
  EXPECT_EQ(walk(done[0].buffer, done[0].valid_size), records);
}

TEST_F(FakeCupti, FullBufferIsCompletedAndANewOneRequested) {
  g_buffer_size = 3 * sizeof(CUpti_ActivityKernel13) + 8;
  register_callbacks();
  for (uint32_t i = 0; i < 7; ++i) {
    CUpti_ActivityKernel13 kernel = kernel13(i);
    ASSERT_TRUE(fake_cupti_emit(&kernel, sizeof kernel));
  }
  EXPECT_EQ(fake_cupti_buffers_requested(), 3u);
  EXPECT_EQ(completed().size(), 2u);
  EXPECT_EQ(fake_cupti_held_records(), 1u);
  EXPECT_TRUE(fake_cupti_complete_held());
  EXPECT_FALSE(fake_cupti_complete_held());

  std::vector<Completed> done = completed();
  ASSERT_EQ(done.size(), 3u);
  uint32_t next_id = 0;
  for (const Completed& c : done) {
    for (CUpti_Activity* record : walk(c.buffer, c.valid_size)) {
      EXPECT_EQ(reinterpret_cast<CUpti_ActivityKernel13*>(record)->correlationId, next_id++);
    }
  }
  EXPECT_EQ(next_id, 7u);
  // The flush through the control API is not logged.
  EXPECT_EQ(fake_cupti::calls(), Strings{"cuptiActivityRegisterCallbacks"});
}

TEST_F(FakeCupti, MaxNumRecordsFromBufferRequestedIsHonoured) {
  g_max_records = 2;
  register_callbacks();
  CUpti_ActivityKernel13 kernel = kernel13(1);
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(fake_cupti_emit(&kernel, sizeof kernel));
  EXPECT_EQ(completed().size(), 2u);
  EXPECT_EQ(fake_cupti_held_records(), 1u);
}

TEST_F(FakeCupti, EmitWithoutCallbacksOrRoomPlacesNothing) {
  CUpti_ActivityKernel13 kernel = kernel13(1);
  EXPECT_FALSE(fake_cupti_emit(&kernel, sizeof kernel));
  EXPECT_EQ(fake_cupti_buffers_requested(), 0u);

  g_buffer_size = 64;
  register_callbacks();
  EXPECT_FALSE(fake_cupti_emit(&kernel, sizeof kernel));
  EXPECT_EQ(fake_cupti_held_records(), 0u);
  EXPECT_TRUE(completed().empty());
}

TEST_F(FakeCupti, WalkStopsAtValidSizeAndOnUnknownBuffers) {
  register_callbacks();
  CUpti_ActivityKernel13 kernel = kernel13(1);
  ASSERT_TRUE(fake_cupti_emit(&kernel, sizeof kernel));
  ASSERT_TRUE(fake_cupti_emit(&kernel, sizeof kernel));
  ASSERT_TRUE(fake_cupti_complete_held());
  Completed c = completed().at(0);

  EXPECT_EQ(walk(c.buffer, c.valid_size).size(), 2u);
  EXPECT_EQ(walk(c.buffer, c.valid_size - 1).size(), 1u);
  EXPECT_EQ(walk(c.buffer, sizeof kernel).size(), 1u);
  EXPECT_EQ(walk(c.buffer, 0).size(), 0u);

  uint8_t unknown[64] = {};
  EXPECT_EQ(walk(unknown, sizeof unknown).size(), 0u);
  CUpti_Activity* record = nullptr;
  EXPECT_EQ(cuptiActivityGetNextRecord(c.buffer, c.valid_size, nullptr),
            CUPTI_ERROR_INVALID_PARAMETER);
  record = reinterpret_cast<CUpti_Activity*>(c.buffer + 8);
  EXPECT_EQ(cuptiActivityGetNextRecord(c.buffer, c.valid_size, &record),
            CUPTI_ERROR_INVALID_PARAMETER);
}

TEST_F(FakeCupti, NextRecordErrorHappensOnceAtItsPosition) {
  register_callbacks();
  for (uint32_t i = 0; i < 3; ++i) {
    CUpti_ActivityKernel13 kernel = kernel13(i);
    ASSERT_TRUE(fake_cupti_emit(&kernel, sizeof kernel));
  }
  ASSERT_TRUE(fake_cupti_complete_held());
  Completed c = completed().at(0);
  fake_cupti_next_record_error(1, CUPTI_ERROR_UNKNOWN);

  CUpti_Activity* record = nullptr;
  ASSERT_EQ(cuptiActivityGetNextRecord(c.buffer, c.valid_size, &record), CUPTI_SUCCESS);
  CUpti_Activity* first = record;
  EXPECT_EQ(cuptiActivityGetNextRecord(c.buffer, c.valid_size, &record), CUPTI_ERROR_UNKNOWN);
  EXPECT_EQ(record, first);
  ASSERT_EQ(cuptiActivityGetNextRecord(c.buffer, c.valid_size, &record), CUPTI_SUCCESS);
  EXPECT_EQ(reinterpret_cast<CUpti_ActivityKernel13*>(record)->correlationId, 1u);
  ASSERT_EQ(cuptiActivityGetNextRecord(c.buffer, c.valid_size, &record), CUPTI_SUCCESS);
  EXPECT_EQ(cuptiActivityGetNextRecord(c.buffer, c.valid_size, &record),
            CUPTI_ERROR_MAX_LIMIT_REACHED);
  EXPECT_EQ(walk(c.buffer, c.valid_size).size(), 3u);

  // The end of a buffer is a position too.
  fake_cupti_next_record_error(3, CUPTI_ERROR_NOT_READY);
  record = nullptr;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(cuptiActivityGetNextRecord(c.buffer, c.valid_size, &record), CUPTI_SUCCESS);
  }
  EXPECT_EQ(cuptiActivityGetNextRecord(c.buffer, c.valid_size, &record), CUPTI_ERROR_NOT_READY);
  EXPECT_EQ(cuptiActivityGetNextRecord(c.buffer, c.valid_size, &record),
            CUPTI_ERROR_MAX_LIMIT_REACHED);
}

TEST_F(FakeCupti, DirectDriveOfTheBufferCallbacks) {
  EXPECT_FALSE(fake_cupti_request_buffer(nullptr, nullptr));
  EXPECT_FALSE(fake_cupti_complete_buffer(nullptr, 0));
  register_callbacks();
  uint8_t* buffer = nullptr;
  size_t size = 0;
  ASSERT_TRUE(fake_cupti_request_buffer(&buffer, &size));
  EXPECT_NE(buffer, nullptr);
  EXPECT_EQ(size, 4096u);
  EXPECT_FALSE(fake_cupti_holds_buffer());
  ASSERT_TRUE(fake_cupti_complete_buffer(buffer, 0));
  std::vector<Completed> done = completed();
  ASSERT_EQ(done.size(), 1u);
  EXPECT_EQ(done[0].buffer, buffer);
  EXPECT_EQ(done[0].size, 4096u);
  EXPECT_EQ(done[0].valid_size, 0u);
  EXPECT_EQ(walk(buffer, 0).size(), 0u);
  EXPECT_EQ(fake_cupti_buffers_requested(), 1u);
  EXPECT_EQ(fake_cupti_buffers_completed(), 1u);
}

TEST_F(FakeCupti, CallsAreLoggedInOrder) {
  CUpti_SubscriberHandle subscriber = nullptr;
  const char* text = nullptr;
  uint64_t time = 0;
  CUpti_Activity* record = nullptr;
  cuptiActivityEnable(CUPTI_ACTIVITY_KIND_KERNEL);
  cuptiSubscribe(&subscriber, nullptr, nullptr);
  cuptiEnableDomain(1, subscriber, CUPTI_CB_DOMAIN_DRIVER_API);
  cuptiActivityRegisterCallbacks(buffer_requested, buffer_completed);
  cuptiGetTimestamp(&time);
  cuptiActivityGetNextRecord(nullptr, 0, &record);
  cuptiEnableDomain(0, subscriber, CUPTI_CB_DOMAIN_DRIVER_API);
  cuptiUnsubscribe(subscriber);
  cuptiActivityDisable(CUPTI_ACTIVITY_KIND_SYNCHRONIZATION);
  cuptiActivityFlushAll(1);
  cuptiGetResultString(CUPTI_ERROR_MAX_LIMIT_REACHED, &text);
  EXPECT_EQ(fake_cupti::calls(),
            (Strings{"cuptiActivityEnable(3)", "cuptiSubscribe", "cuptiEnableDomain(1,1)",
                     "cuptiActivityRegisterCallbacks", "cuptiEnableDomain(0,1)",
                     "cuptiUnsubscribe", "cuptiActivityDisable(38)", "cuptiActivityFlushAll(1)",
                     "cuptiGetResultString(12)"}));
  EXPECT_EQ(fake_cupti_call_count(), 9u);
  EXPECT_EQ(fake_cupti_next_record_calls(), 1u);
  EXPECT_EQ(fake_cupti_timestamp_calls(), 1u);

  char small[8];
  EXPECT_EQ(fake_cupti_call(0, small, sizeof small), std::strlen("cuptiActivityEnable(3)"));
  EXPECT_STREQ(small, "cuptiAc");
  EXPECT_EQ(fake_cupti_call(9, small, sizeof small), 0u);
  EXPECT_STREQ(small, "");

  fake_cupti_clear_calls();
  EXPECT_EQ(fake_cupti_call_count(), 0u);
}

TEST_F(FakeCupti, KindsAreEnabledAndDisabled) {
  EXPECT_EQ(cuptiActivityEnable(CUPTI_ACTIVITY_KIND_KERNEL), CUPTI_SUCCESS);
  EXPECT_EQ(cuptiActivityEnable(CUPTI_ACTIVITY_KIND_MEMCPY), CUPTI_SUCCESS);
  EXPECT_TRUE(fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_KERNEL));
  EXPECT_TRUE(fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_MEMCPY));
  EXPECT_FALSE(fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_CONCURRENT_KERNEL));
  EXPECT_EQ(cuptiActivityDisable(CUPTI_ACTIVITY_KIND_KERNEL), CUPTI_SUCCESS);
  EXPECT_FALSE(fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_KERNEL));
  EXPECT_EQ(cuptiActivityEnable(CUPTI_ACTIVITY_KIND_INVALID), CUPTI_ERROR_INVALID_KIND);
}

TEST_F(FakeCupti, ArmedFailuresCountDownAndHaveNoEffect) {
  EXPECT_FALSE(fake_cupti_fail("cuptiNoSuchFunction", CUPTI_ERROR_UNKNOWN, 1));
  ASSERT_TRUE(fake_cupti_fail("cuptiActivityEnable", CUPTI_ERROR_NOT_INITIALIZED, 2));
  EXPECT_EQ(cuptiActivityEnable(CUPTI_ACTIVITY_KIND_KERNEL), CUPTI_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(cuptiActivityEnable(CUPTI_ACTIVITY_KIND_KERNEL), CUPTI_ERROR_NOT_INITIALIZED);
  EXPECT_FALSE(fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_KERNEL));
  EXPECT_EQ(cuptiActivityEnable(CUPTI_ACTIVITY_KIND_KERNEL), CUPTI_SUCCESS);
  EXPECT_TRUE(fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_KERNEL));
  EXPECT_EQ(fake_cupti::calls(), Strings(3, "cuptiActivityEnable(3)"));

  ASSERT_TRUE(fake_cupti_fail("cuptiSubscribe", CUPTI_ERROR_UNKNOWN, -1));
  CUpti_SubscriberHandle subscriber = nullptr;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(cuptiSubscribe(&subscriber, nullptr, nullptr), CUPTI_ERROR_UNKNOWN);
  }
  EXPECT_EQ(subscriber, nullptr);
  EXPECT_FALSE(fake_cupti_subscribed());
  ASSERT_TRUE(fake_cupti_fail("cuptiSubscribe", CUPTI_SUCCESS, 0));
  EXPECT_EQ(cuptiSubscribe(&subscriber, nullptr, nullptr), CUPTI_SUCCESS);

  // The two only counted still fail.
  ASSERT_TRUE(fake_cupti_fail("cuptiGetTimestamp", CUPTI_ERROR_INVALID_PARAMETER, 1));
  uint64_t time = 5;
  EXPECT_EQ(cuptiGetTimestamp(&time), CUPTI_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(time, 5u);
  ASSERT_TRUE(fake_cupti_fail("cuptiActivityGetNextRecord", CUPTI_ERROR_UNKNOWN, 1));
  CUpti_Activity* record = nullptr;
  EXPECT_EQ(cuptiActivityGetNextRecord(nullptr, 0, &record), CUPTI_ERROR_UNKNOWN);
  EXPECT_EQ(cuptiActivityGetNextRecord(nullptr, 0, &record), CUPTI_ERROR_MAX_LIMIT_REACHED);

  // A failing flush completes nothing.
  register_callbacks();
  CUpti_ActivityKernel13 kernel = kernel13(1);
  ASSERT_TRUE(fake_cupti_emit(&kernel, sizeof kernel));
  ASSERT_TRUE(fake_cupti_fail("cuptiActivityFlushAll", CUPTI_ERROR_NOT_INITIALIZED, 1));
  EXPECT_EQ(cuptiActivityFlushAll(1), CUPTI_ERROR_NOT_INITIALIZED);
  EXPECT_TRUE(fake_cupti_holds_buffer());
  EXPECT_EQ(cuptiActivityFlushAll(1), CUPTI_SUCCESS);
  EXPECT_FALSE(fake_cupti_holds_buffer());
}

TEST_F(FakeCupti, ResultStringsAreTheEnumNames) {
  const std::pair<CUptiResult, const char*> known[] = {
      {CUPTI_SUCCESS, "CUPTI_SUCCESS"},
      {CUPTI_ERROR_INVALID_PARAMETER, "CUPTI_ERROR_INVALID_PARAMETER"},
      {CUPTI_ERROR_NOT_INITIALIZED, "CUPTI_ERROR_NOT_INITIALIZED"},
      {CUPTI_ERROR_MAX_LIMIT_REACHED, "CUPTI_ERROR_MAX_LIMIT_REACHED"},
      {CUPTI_ERROR_MULTIPLE_SUBSCRIBERS_NOT_SUPPORTED,
       "CUPTI_ERROR_MULTIPLE_SUBSCRIBERS_NOT_SUPPORTED"},
      {CUPTI_ERROR_UNKNOWN, "CUPTI_ERROR_UNKNOWN"},
  };
  for (const auto& [result, name] : known) {
    const char* text = nullptr;
    EXPECT_EQ(cuptiGetResultString(result, &text), CUPTI_SUCCESS);
    EXPECT_STREQ(text, name);
  }
  const char* text = nullptr;
  EXPECT_EQ(cuptiGetResultString(static_cast<CUptiResult>(500), &text),
            CUPTI_ERROR_INVALID_PARAMETER);
  EXPECT_STREQ(text, "CUPTI_ERROR_INVALID_PARAMETER");
  EXPECT_EQ(cuptiGetResultString(CUPTI_SUCCESS, nullptr), CUPTI_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(fake_cupti::calls().back(), "cuptiGetResultString(0)");
  EXPECT_EQ(fake_cupti::calls().at(6), "cuptiGetResultString(500)");
}

TEST_F(FakeCupti, SubscriptionRules) {
  int userdata = 0;
  CUpti_SubscriberHandle first = nullptr;
  EXPECT_EQ(cuptiSubscribe(nullptr, nullptr, nullptr), CUPTI_ERROR_INVALID_PARAMETER);
  ASSERT_EQ(cuptiSubscribe(&first, nullptr, &userdata), CUPTI_SUCCESS);
  EXPECT_NE(first, nullptr);
  EXPECT_TRUE(fake_cupti_subscribed());
  EXPECT_EQ(fake_cupti_userdata(), &userdata);

  CUpti_SubscriberHandle second = nullptr;
  EXPECT_EQ(cuptiSubscribe(&second, nullptr, nullptr),
            CUPTI_ERROR_MULTIPLE_SUBSCRIBERS_NOT_SUPPORTED);
  EXPECT_EQ(second, nullptr);

  EXPECT_EQ(cuptiEnableDomain(1, first, CUPTI_CB_DOMAIN_DRIVER_API), CUPTI_SUCCESS);
  EXPECT_TRUE(fake_cupti_domain_enabled(CUPTI_CB_DOMAIN_DRIVER_API));
  EXPECT_FALSE(fake_cupti_domain_enabled(CUPTI_CB_DOMAIN_RUNTIME_API));
  EXPECT_EQ(cuptiEnableDomain(1, nullptr, CUPTI_CB_DOMAIN_RUNTIME_API),
            CUPTI_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(cuptiEnableDomain(1, first, CUPTI_CB_DOMAIN_INVALID), CUPTI_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(cuptiEnableDomain(0, first, CUPTI_CB_DOMAIN_DRIVER_API), CUPTI_SUCCESS);
  EXPECT_FALSE(fake_cupti_domain_enabled(CUPTI_CB_DOMAIN_DRIVER_API));
  EXPECT_EQ(cuptiEnableDomain(1, first, CUPTI_CB_DOMAIN_DRIVER_API), CUPTI_SUCCESS);

  EXPECT_EQ(cuptiUnsubscribe(nullptr), CUPTI_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(cuptiUnsubscribe(first), CUPTI_SUCCESS);
  EXPECT_FALSE(fake_cupti_subscribed());
  EXPECT_FALSE(fake_cupti_domain_enabled(CUPTI_CB_DOMAIN_DRIVER_API));
  EXPECT_EQ(fake_cupti_userdata(), nullptr);
  // The ended handle is refused, as CUPTI refuses it.
  EXPECT_EQ(cuptiUnsubscribe(first), CUPTI_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(cuptiEnableDomain(0, first, CUPTI_CB_DOMAIN_DRIVER_API),
            CUPTI_ERROR_INVALID_PARAMETER);

  // A new subscription gets a new handle, and the old one stays refused.
  ASSERT_EQ(cuptiSubscribe(&second, nullptr, nullptr), CUPTI_SUCCESS);
  EXPECT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_FALSE(fake_cupti_domain_enabled(CUPTI_CB_DOMAIN_DRIVER_API));
  EXPECT_EQ(cuptiUnsubscribe(first), CUPTI_ERROR_INVALID_PARAMETER);
  EXPECT_TRUE(fake_cupti_subscribed());
}

// What the subscriber's callback saw, one entry a call.
struct Seen {
  void* userdata;
  CUpti_CallbackDomain domain;
  CUpti_CallbackId cbid;
  CUpti_ApiCallbackSite site;
  std::string function_name;
  std::string symbol_name;
  uint64_t* correlation_data;
  uint64_t slot_on_entry;
  uint32_t correlation_id;
  CUcontext context;
  uint32_t context_uid;
};

std::vector<Seen> g_seen;

// Stores a timestamp in the slot on the way in, as the collector does.
void CUPTIAPI record_callback(void* userdata, CUpti_CallbackDomain domain, CUpti_CallbackId cbid,
                              const void* cbdata) {
  const auto* data = static_cast<const CUpti_CallbackData*>(cbdata);
  g_seen.push_back({userdata, domain, cbid, data->callbackSite,
                    data->functionName ? data->functionName : "(null)",
                    data->symbolName ? data->symbolName : "(null)", data->correlationData,
                    *data->correlationData, data->correlationId, data->context,
                    data->contextUid});
  if (data->callbackSite == CUPTI_API_ENTER) cuptiGetTimestamp(data->correlationData);
}

TEST_F(FakeCupti, FireApiCallsEnterThenExitWithTheSlotKept) {
  g_seen.clear();
  EXPECT_FALSE(fake_cupti_fire_api(CUPTI_CB_DOMAIN_DRIVER_API, 1, nullptr, "cuInit", 1));
  int userdata = 0;
  CUpti_SubscriberHandle subscriber = nullptr;
  ASSERT_EQ(cuptiSubscribe(&subscriber, record_callback, &userdata), CUPTI_SUCCESS);
  // Subscribed but the domain not enabled: nothing fires.
  EXPECT_FALSE(fake_cupti_fire_api(CUPTI_CB_DOMAIN_DRIVER_API, 1, nullptr, "cuInit", 1));
  EXPECT_TRUE(g_seen.empty());
  ASSERT_EQ(cuptiEnableDomain(1, subscriber, CUPTI_CB_DOMAIN_DRIVER_API), CUPTI_SUCCESS);
  EXPECT_FALSE(fake_cupti_fire_api(CUPTI_CB_DOMAIN_RUNTIME_API, 1, nullptr, "cudaFree", 1));

  EXPECT_TRUE(fake_cupti_fire_api(CUPTI_CB_DOMAIN_DRIVER_API,
                                  CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel, "my_kernel",
                                  "cuLaunchKernel", 42));
  ASSERT_EQ(g_seen.size(), 2u);
  for (const Seen& seen : g_seen) {
    EXPECT_EQ(seen.userdata, &userdata);
    EXPECT_EQ(seen.domain, CUPTI_CB_DOMAIN_DRIVER_API);
    EXPECT_EQ(seen.cbid, static_cast<CUpti_CallbackId>(CUPTI_DRIVER_TRACE_CBID_cuLaunchKernel));
    EXPECT_EQ(seen.function_name, "cuLaunchKernel");
    EXPECT_EQ(seen.symbol_name, "my_kernel");
    EXPECT_EQ(seen.correlation_id, 42u);
    EXPECT_EQ(seen.context, nullptr);
    EXPECT_EQ(seen.context_uid, 0u);
  }
  EXPECT_EQ(g_seen[0].site, CUPTI_API_ENTER);
  EXPECT_EQ(g_seen[1].site, CUPTI_API_EXIT);
  EXPECT_EQ(g_seen[0].correlation_data, g_seen[1].correlation_data);
  EXPECT_EQ(g_seen[0].slot_on_entry, 0u);
  EXPECT_EQ(g_seen[1].slot_on_entry, FAKE_CUPTI_TIMESTAMP_BASE);

  // Code between enter and exit sees the slot the enter filled.
  g_seen.clear();
  struct Between {
    bool called = false;
    uint64_t slot = 0;
  } between;
  EXPECT_TRUE(fake_cupti_fire_api_between(
      CUPTI_CB_DOMAIN_DRIVER_API, CUPTI_DRIVER_TRACE_CBID_cuCtxGetDevice, nullptr,
      "cuCtxGetDevice", 43,
      [](void* arg, uint64_t* slot) {
        auto* b = static_cast<Between*>(arg);
        b->called = true;
        b->slot = *slot;
        EXPECT_EQ(g_seen.size(), 1u);
      },
      &between));
  EXPECT_TRUE(between.called);
  EXPECT_EQ(between.slot, FAKE_CUPTI_TIMESTAMP_BASE + FAKE_CUPTI_TIMESTAMP_STEP);
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[1].symbol_name, "(null)");

  ASSERT_EQ(cuptiUnsubscribe(subscriber), CUPTI_SUCCESS);
  EXPECT_FALSE(fake_cupti_fire_api(CUPTI_CB_DOMAIN_DRIVER_API, 1, nullptr, "cuInit", 1));
}

TEST_F(FakeCupti, TimestampsRiseStrictlyAcrossThreads) {
  uint64_t first = 0;
  uint64_t second = 0;
  ASSERT_EQ(cuptiGetTimestamp(&first), CUPTI_SUCCESS);
  ASSERT_EQ(cuptiGetTimestamp(&second), CUPTI_SUCCESS);
  EXPECT_EQ(first, FAKE_CUPTI_TIMESTAMP_BASE);
  EXPECT_EQ(second, FAKE_CUPTI_TIMESTAMP_BASE + FAKE_CUPTI_TIMESTAMP_STEP);
  EXPECT_EQ(cuptiGetTimestamp(nullptr), CUPTI_ERROR_INVALID_PARAMETER);

  constexpr int kThreads = 4;
  constexpr int kEach = 1000;
  std::vector<std::vector<uint64_t>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&seen, t] {
      for (int i = 0; i < kEach; ++i) {
        uint64_t time = 0;
        cuptiGetTimestamp(&time);
        seen[t].push_back(time);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<uint64_t> all;
  for (const auto& times : seen) {
    for (size_t i = 1; i < times.size(); ++i) EXPECT_LT(times[i - 1], times[i]);
    all.insert(all.end(), times.begin(), times.end());
  }
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
  EXPECT_EQ(fake_cupti_timestamp_calls(), 3u + kThreads * kEach);
}

TEST_F(FakeCupti, ConcurrentEmitsLoseNoRecord) {
  g_buffer_size = 1024;
  register_callbacks();
  constexpr int kThreads = 4;
  constexpr uint32_t kEach = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (uint32_t i = 0; i < kEach; ++i) {
        CUpti_ActivityAPI api;
        std::memset(&api, 0, sizeof api);
        api.kind = CUPTI_ACTIVITY_KIND_RUNTIME;
        api.threadId = static_cast<uint32_t>(t);
        api.correlationId = i;
        EXPECT_TRUE(fake_cupti_emit(&api, sizeof api));
      }
    });
  }
  // Meanwhile, flushes from another thread.
  std::thread flusher([] {
    for (int i = 0; i < 50; ++i) cuptiActivityFlushAll(1);
  });
  for (std::thread& thread : threads) thread.join();
  flusher.join();
  cuptiActivityFlushAll(1);

  // Two completions may reach bufferCompleted in either order, so only the sets
  // are compared.
  std::vector<std::vector<uint32_t>> ids(kThreads);
  for (const Completed& c : completed()) {
    for (CUpti_Activity* record : walk(c.buffer, c.valid_size)) {
      const auto* api = reinterpret_cast<const CUpti_ActivityAPI*>(record);
      ASSERT_LT(api->threadId, static_cast<uint32_t>(kThreads));
      ids[api->threadId].push_back(api->correlationId);
    }
  }
  std::vector<uint32_t> expected(kEach);
  for (uint32_t i = 0; i < kEach; ++i) expected[i] = i;
  for (std::vector<uint32_t>& each : ids) {
    std::sort(each.begin(), each.end());
    EXPECT_EQ(each, expected);
  }
  EXPECT_EQ(fake_cupti_buffers_completed(), completed().size());
}

// The collector dlopens the file the test linked; it must get the same copy, or
// the two would see different states.
TEST_F(FakeCupti, DlopenOfTheLibraryFindsTheLinkedCopy) {
  void* handle = dlopen(FAKE_CUPTI_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  using Enable = CUptiResult (*)(CUpti_ActivityKind);
  auto enable = reinterpret_cast<Enable>(dlsym(handle, "cuptiActivityEnable"));
  ASSERT_NE(enable, nullptr);
  EXPECT_EQ(enable, &cuptiActivityEnable);
  EXPECT_EQ(enable(CUPTI_ACTIVITY_KIND_MEMSET), CUPTI_SUCCESS);
  EXPECT_TRUE(fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_MEMSET));
  dlclose(handle);
}

TEST_F(FakeCupti, ResetReturnsToTheInitialState) {
  register_callbacks();
  CUpti_SubscriberHandle subscriber = nullptr;
  ASSERT_EQ(cuptiSubscribe(&subscriber, record_callback, nullptr), CUPTI_SUCCESS);
  ASSERT_EQ(cuptiEnableDomain(1, subscriber, CUPTI_CB_DOMAIN_DRIVER_API), CUPTI_SUCCESS);
  ASSERT_EQ(cuptiActivityEnable(CUPTI_ACTIVITY_KIND_KERNEL), CUPTI_SUCCESS);
  CUpti_ActivityKernel13 kernel = kernel13(1);
  ASSERT_TRUE(fake_cupti_emit(&kernel, sizeof kernel));
  uint64_t time;
  cuptiGetTimestamp(&time);
  ASSERT_TRUE(fake_cupti_fail("cuptiActivityDisable", CUPTI_ERROR_UNKNOWN, -1));
  fake_cupti_next_record_error(0, CUPTI_ERROR_UNKNOWN);

  fake_cupti_reset();
  EXPECT_EQ(fake_cupti_call_count(), 0u);
  EXPECT_FALSE(fake_cupti_subscribed());
  EXPECT_FALSE(fake_cupti_domain_enabled(CUPTI_CB_DOMAIN_DRIVER_API));
  EXPECT_FALSE(fake_cupti_kind_enabled(CUPTI_ACTIVITY_KIND_KERNEL));
  EXPECT_FALSE(fake_cupti_callbacks_registered());
  EXPECT_FALSE(fake_cupti_holds_buffer());
  EXPECT_EQ(fake_cupti_timestamp_calls(), 0u);
  EXPECT_EQ(fake_cupti_next_record_calls(), 0u);
  EXPECT_EQ(fake_cupti_buffers_requested(), 0u);
  EXPECT_EQ(fake_cupti_buffers_completed(), 0u);
  EXPECT_TRUE(completed().empty());  // the held buffer was dropped, not completed
  EXPECT_EQ(cuptiActivityDisable(CUPTI_ACTIVITY_KIND_KERNEL), CUPTI_SUCCESS);
  ASSERT_EQ(cuptiGetTimestamp(&time), CUPTI_SUCCESS);
  EXPECT_EQ(time, FAKE_CUPTI_TIMESTAMP_BASE);
  // The handle from before the reset is not valid after it.
  EXPECT_EQ(cuptiUnsubscribe(subscriber), CUPTI_ERROR_INVALID_PARAMETER);
}

}  // namespace
