// The NVTX injection library (nvtx/zvknvtx.cpp) as NVTX-instrumented code meets
// it: this binary is one NVTX instance, built with the v3 headers, and loads the
// library only through NVTX_INJECTION64_PATH. An instance reads the variable once,
// on its first NVTX call, so every case runs in a forked child whose instance is
// still fresh; the parent never calls NVTX.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <nvtx3/nvToolsExt.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/test_support.h"
#include "zorv/format/annotation.h"
#include "zorv/format/record.h"
#include "zorv/zorv.h"

namespace zorvek {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using testing_support::contains;
using testing_support::kNoHookLibraryAtStart;
using testing_support::kNoHookLibraryAtStop;
using testing_support::log_messages;
using testing_support::read_capture;
using testing_support::run_in_child;
using testing_support::small_capture_config;
using testing_support::TempDir;
using Strings = std::vector<std::string>;

// One annotation record of a capture, the time marker left out.
struct Annotation {
  uint32_t type;
  uint64_t timestamp;
  uint32_t tid;
  uint64_t token;
  std::string msg;  // BEGIN and MARKER
};

std::vector<Annotation> annotations(const std::string& path) {
  std::vector<Annotation> out;
  for (const auto& bucket : read_capture(path).buckets) {
    for (const auto& record : bucket.records) {
      if (record.hw_type != ANNOTATION || record.event_type == annotations::TIME_MARKER) continue;
      Annotation a{record.event_type, record.timestamp, record.tid, 0, {}};
      std::memcpy(&a.token, record.payload.data(), sizeof(a.token));
      if (record.event_type != annotations::END) a.msg = record.payload.c_str() + sizeof(uint64_t);
      out.push_back(a);
    }
  }
  return out;
}

// The annotations of the one capture file in `dir`.
std::vector<Annotation> only_capture(const TempDir& dir) {
  const Strings files = dir.list();
  EXPECT_EQ(files.size(), 1u);
  return files.size() == 1 ? annotations(dir.file(files[0])) : std::vector<Annotation>();
}

std::vector<Annotation> of_type(const std::vector<Annotation>& all, uint32_t type) {
  std::vector<Annotation> out;
  std::copy_if(all.begin(), all.end(), std::back_inserter(out),
               [&](const Annotation& a) { return a.type == type; });
  return out;
}

Strings messages(const std::vector<Annotation>& records) {
  Strings out;
  for (const Annotation& a : records) out.push_back(a.msg);
  return out;
}

// The END of the range that `begin` started.
const Annotation* end_of(const std::vector<Annotation>& all, const Annotation& begin) {
  for (const Annotation& a : all) {
    if (a.type == annotations::END && a.token == begin.token) return &a;
  }
  return nullptr;
}

const Annotation* begin_named(const std::vector<Annotation>& all, const std::string& msg) {
  for (const Annotation& a : all) {
    if (a.type == annotations::BEGIN && a.msg == msg) return &a;
  }
  return nullptr;
}

bool injection_loaded() {
  void* handle = dlopen(ZORV_NVTX_LIBRARY, RTLD_LAZY | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

enum class Injection { kLoadedNow, kLoadedOnFirstUse, kNone };

// In the child: the variable that makes NVTX load the library, and a controller
// configured to write into `dir`. The table goes only to libraries loaded when a
// capture starts, so by default NVTX is initialised here, which loads the library.
void configure(const TempDir& dir, Injection injection = Injection::kLoadedNow) {
  unsetenv("ZVK_OUTPUT_FILE_NAME");
  if (injection == Injection::kNone) {
    unsetenv("NVTX_INJECTION64_PATH");
  } else {
    setenv("NVTX_INJECTION64_PATH", ZORV_NVTX_LIBRARY, 1);
  }
  if (injection == Injection::kLoadedNow) {
    nvtxInitialize(nullptr);
    EXPECT_TRUE(injection_loaded());
  }
  ASSERT_TRUE(Zorv::instance().configure(small_capture_config(dir.file("nvtx_%t"))).ok());
}

nvtxEventAttributes_t ascii_attributes(const char* msg) {
  nvtxEventAttributes_t attr = {};
  attr.version = NVTX_VERSION;
  attr.size = NVTX_EVENT_ATTRIB_STRUCT_SIZE;
  attr.messageType = NVTX_MESSAGE_TYPE_ASCII;
  attr.message.ascii = msg;
  return attr;
}

nvtxEventAttributes_t unicode_attributes(const wchar_t* msg) {
  nvtxEventAttributes_t attr = ascii_attributes(nullptr);
  attr.messageType = NVTX_MESSAGE_TYPE_UNICODE;
  attr.message.unicode = msg;
  return attr;
}

nvtxEventAttributes_t registered_attributes(nvtxStringHandle_t handle) {
  nvtxEventAttributes_t attr = ascii_attributes(nullptr);
  attr.messageType = NVTX_MESSAGE_TYPE_REGISTERED;
  attr.message.registered = handle;
  return attr;
}

TEST(NvtxInjection, PushAndPopNestOnTheCallingThread) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.start_profiling().ok());
    EXPECT_EQ(nvtxRangePushA("outer"), 0);
    EXPECT_EQ(nvtxRangePushA("inner"), 1);
    EXPECT_EQ(nvtxRangePop(), 1);
    EXPECT_EQ(nvtxRangePop(), 0);
    EXPECT_LT(nvtxRangePop(), 0);  // past the bottom: an error, and nothing recorded
    EXPECT_LT(nvtxRangePop(), 0);
    EXPECT_EQ(nvtxRangePushA("again"), 0);  // the stack is still whole after it
    EXPECT_EQ(nvtxRangePop(), 0);
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const auto all = only_capture(dir);
  ASSERT_EQ(all.size(), 6u);
  EXPECT_EQ(messages(of_type(all, annotations::BEGIN)), (Strings{"outer", "inner", "again"}));
  const Annotation* outer = begin_named(all, "outer");
  const Annotation* inner = begin_named(all, "inner");
  const Annotation* outer_end = end_of(all, *outer);
  const Annotation* inner_end = end_of(all, *inner);
  ASSERT_NE(outer_end, nullptr);
  ASSERT_NE(inner_end, nullptr);
  EXPECT_NE(outer->token, inner->token);
  EXPECT_LE(outer->timestamp, inner->timestamp);
  EXPECT_LE(inner->timestamp, inner_end->timestamp);
  EXPECT_LE(inner_end->timestamp, outer_end->timestamp);
  // Ends come in the reverse order of the begins.
  EXPECT_EQ(all[2].token, inner->token);
  EXPECT_EQ(all[3].token, outer->token);
  for (const Annotation& a : all) EXPECT_EQ(a.tid, all[0].tid);
}

TEST(NvtxInjection, WideMessagesBecomeUtf8) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.start_profiling().ok());
    EXPECT_EQ(nvtxRangePushW(L"größe \u2211 \U0001F600"), 0);
    EXPECT_EQ(nvtxRangePop(), 0);
    const wchar_t lone_surrogate[] = {L'a', static_cast<wchar_t>(0xD800), L'b', 0};
    nvtxRangeEnd(nvtxRangeStartW(lone_surrogate));
    const wchar_t beyond_unicode[] = {static_cast<wchar_t>(0x110000), 0};
    nvtxMarkW(beyond_unicode);
    nvtxMarkW(L"");
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const auto all = only_capture(dir);
  EXPECT_EQ(messages(of_type(all, annotations::BEGIN)),
            (Strings{"gr\xC3\xB6\xC3\x9F" "e \xE2\x88\x91 \xF0\x9F\x98\x80", "a\xEF\xBF\xBD" "b"}));
  EXPECT_EQ(messages(of_type(all, annotations::MARKER)), (Strings{"\xEF\xBF\xBD", ""}));
  EXPECT_EQ(of_type(all, annotations::END).size(), 2u);
}

TEST(NvtxInjection, EventAttributesCarryAsciiUnicodeAndRegisteredMessages) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.start_profiling().ok());
    nvtxStringHandle_t global = nvtxDomainRegisterStringA(nullptr, "registered");
    nvtxStringHandle_t wide = nvtxDomainRegisterStringW(nullptr, L"registered \u00e9");
    ASSERT_NE(global, nullptr);
    EXPECT_EQ(nvtxDomainRegisterStringA(nullptr, "registered"), global);  // one handle a text
    nvtxEventAttributes_t attr = ascii_attributes("ascii");
    EXPECT_EQ(nvtxRangePushEx(&attr), 0);
    attr = unicode_attributes(L"unicode \u00e9");
    EXPECT_EQ(nvtxRangePushEx(&attr), 1);
    attr = registered_attributes(global);
    EXPECT_EQ(nvtxRangePushEx(&attr), 2);
    attr = registered_attributes(wide);
    EXPECT_EQ(nvtxRangePushEx(&attr), 3);
    attr = ascii_attributes(nullptr);
    attr.messageType = NVTX_MESSAGE_UNKNOWN;  // a range without a message is still a range
    EXPECT_EQ(nvtxRangePushEx(&attr), 4);
    attr = ascii_attributes("too short to hold a message");
    attr.size = 8;
    EXPECT_EQ(nvtxRangePushEx(&attr), 5);
    for (int level = 5; level >= 0; --level) EXPECT_EQ(nvtxRangePop(), level);
    attr = registered_attributes(global);
    nvtxMarkEx(&attr);
    nvtxRangeEnd(nvtxRangeStartEx(&attr));
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const auto all = only_capture(dir);
  EXPECT_EQ(messages(of_type(all, annotations::BEGIN)),
            (Strings{"ascii", "unicode \xC3\xA9", "registered", "registered \xC3\xA9", "", "",
                     "registered"}));
  EXPECT_EQ(messages(of_type(all, annotations::MARKER)), Strings{"registered"});
  EXPECT_EQ(of_type(all, annotations::END).size(), 7u);
}

TEST(NvtxInjection, DomainsPrefixTheirMessagesAndKeepTheirOwnStacks) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.start_profiling().ok());
    nvtxDomainHandle_t alpha = nvtxDomainCreateA("alpha");
    nvtxDomainHandle_t beta = nvtxDomainCreateW(L"\u03b2eta");
    ASSERT_NE(alpha, nullptr);
    ASSERT_NE(beta, nullptr);
    EXPECT_NE(alpha, beta);
    EXPECT_EQ(nvtxDomainCreateA("alpha"), alpha);  // a name is one domain
    nvtxEventAttributes_t attr = ascii_attributes("a0");
    EXPECT_EQ(nvtxDomainRangePushEx(alpha, &attr), 0);
    attr = ascii_attributes("b0");
    EXPECT_EQ(nvtxDomainRangePushEx(beta, &attr), 0);  // levels count per domain
    EXPECT_EQ(nvtxRangePushA("global"), 0);
    attr = unicode_attributes(L"a1 \u00e9");
    EXPECT_EQ(nvtxDomainRangePushEx(alpha, &attr), 1);
    // alpha's pops end alpha's ranges, whatever was pushed in between elsewhere.
    EXPECT_EQ(nvtxDomainRangePop(alpha), 1);
    EXPECT_EQ(nvtxDomainRangePop(alpha), 0);
    EXPECT_LT(nvtxDomainRangePop(alpha), 0);
    EXPECT_EQ(nvtxRangePop(), 0);
    EXPECT_EQ(nvtxDomainRangePop(beta), 0);
    EXPECT_LT(nvtxRangePop(), 0);

    nvtxStringHandle_t in_alpha = nvtxDomainRegisterStringA(alpha, "step");
    nvtxStringHandle_t wide_in_alpha = nvtxDomainRegisterStringW(alpha, L"st\u00e9p");
    nvtxStringHandle_t global = nvtxDomainRegisterStringA(nullptr, "shared");
    EXPECT_NE(nvtxDomainRegisterStringA(beta, "step"), in_alpha);  // strings belong to a domain
    attr = registered_attributes(in_alpha);
    EXPECT_EQ(nvtxDomainRangePushEx(alpha, &attr), 0);
    EXPECT_EQ(nvtxDomainRangePop(alpha), 0);
    attr = registered_attributes(wide_in_alpha);
    nvtxDomainMarkEx(alpha, &attr);
    attr = registered_attributes(global);  // a global string used in a domain
    nvtxDomainMarkEx(beta, &attr);
    attr = ascii_attributes("started");
    const nvtxRangeId_t id = nvtxDomainRangeStartEx(alpha, &attr);
    EXPECT_NE(id, 0u);
    nvtxDomainRangeEnd(alpha, id);
    attr = ascii_attributes("null domain");
    nvtxDomainMarkEx(nullptr, &attr);  // the global domain: no prefix

    // Handles stay usable after the domain's destruction: other threads may hold them.
    nvtxDomainDestroy(beta);
    attr = ascii_attributes("after destroy");
    nvtxDomainMarkEx(beta, &attr);
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const auto all = only_capture(dir);
  const std::string beta = "\xCE\xB2" "eta";
  EXPECT_EQ(messages(of_type(all, annotations::BEGIN)),
            (Strings{"alpha/a0", beta + "/b0", "global", "alpha/a1 \xC3\xA9", "alpha/step",
                     "alpha/started"}));
  EXPECT_EQ(messages(of_type(all, annotations::MARKER)),
            (Strings{"alpha/st\xC3\xA9p", beta + "/shared", "null domain",
                     beta + "/after destroy"}));
  // The ends in the order of the pops: a1, a0, global, b0.
  const auto ends = of_type(all, annotations::END);
  ASSERT_GE(ends.size(), 4u);
  EXPECT_EQ(ends[0].token, begin_named(all, "alpha/a1 \xC3\xA9")->token);
  EXPECT_EQ(ends[1].token, begin_named(all, "alpha/a0")->token);
  EXPECT_EQ(ends[2].token, begin_named(all, "global")->token);
  EXPECT_EQ(ends[3].token, begin_named(all, beta + "/b0")->token);
  EXPECT_EQ(ends.size(), 6u);
}

TEST(NvtxInjection, StartedRangesEndByIdOnAnyThread) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.start_profiling().ok());
    nvtxRangeId_t first = 0;
    nvtxRangeId_t second = 0;
    std::thread([&] {
      first = nvtxRangeStartA("first");
      second = nvtxRangeStartA("second");
    }).join();
    EXPECT_NE(first, 0u);
    EXPECT_NE(second, 0u);
    EXPECT_NE(first, second);
    std::thread([&] {
      nvtxRangeEnd(first);  // not in the reverse order: start/end ranges overlap freely
      nvtxRangeEnd(second);
    }).join();
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const auto all = only_capture(dir);
  ASSERT_EQ(all.size(), 4u);
  const Annotation* first = begin_named(all, "first");
  const Annotation* second = begin_named(all, "second");
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(first->tid, second->tid);
  const Annotation* first_end = end_of(all, *first);
  const Annotation* second_end = end_of(all, *second);
  ASSERT_NE(first_end, nullptr);
  ASSERT_NE(second_end, nullptr);
  EXPECT_NE(first_end->tid, first->tid);
  EXPECT_EQ(first_end->tid, second_end->tid);
  EXPECT_LE(first_end->timestamp, second_end->timestamp);
  EXPECT_EQ(all[2].token, first->token);
}

TEST(NvtxInjection, MarksBecomeMarkerRecords) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.start_profiling().ok());
    nvtxMarkA("ascii mark");
    nvtxMarkW(L"wide mark");
    nvtxEventAttributes_t attr = ascii_attributes("ex mark");
    nvtxMarkEx(&attr);
    nvtxMarkA(nullptr);
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const auto all = only_capture(dir);
  EXPECT_EQ(messages(all), (Strings{"ascii mark", "wide mark", "ex mark", ""}));
  for (const Annotation& a : all) {
    EXPECT_EQ(a.type, annotations::MARKER);
    EXPECT_EQ(a.token, 0u);
  }
}

TEST(NvtxInjection, EachThreadHasItsOwnStack) {
  TempDir dir;
  constexpr int kThreads = 4;
  constexpr int kDepth = 5;
  constexpr int kRounds = 50;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.start_profiling().ok());
    std::vector<std::thread> threads;
    std::atomic<int> wrong_levels{0};
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (int round = 0; round < kRounds; ++round) {
          for (int level = 0; level < kDepth; ++level) {
            const std::string msg = "t" + std::to_string(t) + "/" + std::to_string(level);
            if (nvtxRangePushA(msg.c_str()) != level) ++wrong_levels;
          }
          for (int level = kDepth - 1; level >= 0; --level) {
            if (nvtxRangePop() != level) ++wrong_levels;
          }
        }
      });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong_levels.load(), 0);
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const auto all = only_capture(dir);
  std::map<uint32_t, std::vector<Annotation>> by_thread;
  for (const Annotation& a : all) by_thread[a.tid].push_back(a);
  ASSERT_EQ(by_thread.size(), static_cast<size_t>(kThreads));
  for (auto& entry : by_thread) {
    auto& records = entry.second;
    std::sort(records.begin(), records.end(),
              [](const Annotation& a, const Annotation& b) { return a.timestamp < b.timestamp; });
    ASSERT_EQ(records.size(), static_cast<size_t>(2 * kDepth * kRounds));
    // Replayed in time order, every END closes the innermost open BEGIN of its thread.
    std::vector<Annotation> open;
    const std::string thread_prefix = records[0].msg.substr(0, records[0].msg.find('/') + 1);
    for (const Annotation& a : records) {
      if (a.type == annotations::BEGIN) {
        EXPECT_EQ(a.msg, thread_prefix + std::to_string(open.size()));
        open.push_back(a);
      } else {
        ASSERT_FALSE(open.empty());
        EXPECT_EQ(a.token, open.back().token);
        open.pop_back();
      }
    }
    EXPECT_TRUE(open.empty());
  }
}

TEST(NvtxInjection, NothingIsRecordedBeforeTheStartOrAfterTheStop) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    EXPECT_EQ(nvtxRangePushA("before start"), 0);
    nvtxMarkA("mark before start");
    const nvtxRangeId_t early = nvtxRangeStartA("started before start");
    EXPECT_EQ(early, 0u);  // a null range id: nothing was recorded
    ASSERT_TRUE(zorv.start_profiling().ok());
    EXPECT_EQ(nvtxRangePushA("during"), 1);
    EXPECT_EQ(nvtxRangePop(), 1);
    EXPECT_EQ(nvtxRangePop(), 0);  // began before the start: no end is recorded for it
    nvtxRangeEnd(early);
    const nvtxRangeId_t open_at_stop = nvtxRangeStartA("open at stop");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    nvtxRangeEnd(open_at_stop);  // after the stop: goes nowhere
    EXPECT_EQ(nvtxRangePushA("after stop"), 0);
    EXPECT_EQ(nvtxRangePop(), 0);
    nvtxMarkA("mark after stop");
  }));
  const auto all = only_capture(dir);
  EXPECT_EQ(messages(of_type(all, annotations::BEGIN)), (Strings{"during", "open at stop"}));
  EXPECT_TRUE(of_type(all, annotations::MARKER).empty());
  const auto ends = of_type(all, annotations::END);
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].token, begin_named(all, "during")->token);
}

TEST(NvtxInjection, WithoutTheVariableNothingIsLoadedOrRecorded) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir, Injection::kNone);
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    ASSERT_TRUE(zorv.start_profiling().ok());
    EXPECT_EQ(nvtxRangePushA("untraced"), NVTX_NO_PUSH_POP_TRACKING);
    EXPECT_EQ(nvtxRangePop(), NVTX_NO_PUSH_POP_TRACKING);
    nvtxMarkA("untraced");
    EXPECT_EQ(nvtxDomainCreateA("untraced"), nullptr);
    EXPECT_FALSE(injection_loaded());
    ASSERT_TRUE(zorv.stop_profiling().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    EXPECT_TRUE(contains(lines, kNoHookLibraryAtStart));
    EXPECT_TRUE(contains(lines, kNoHookLibraryAtStop));
  }));
  EXPECT_TRUE(only_capture(dir).empty());
}

TEST(NvtxInjection, LoadedBeforeTheStartTheHookSearchFindsIt) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir, Injection::kLoadedOnFirstUse);
    Zorv& zorv = Zorv::instance();
    nvtxMarkA("loads the injection");
    EXPECT_TRUE(injection_loaded());
    CaptureStderr();
    ASSERT_TRUE(zorv.start_profiling().ok());
    nvtxMarkA("recorded");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    EXPECT_FALSE(contains(lines, kNoHookLibraryAtStart));
    EXPECT_FALSE(contains(lines, kNoHookLibraryAtStop));
  }));
  EXPECT_EQ(messages(only_capture(dir)), Strings{"recorded"});
}

// The hook table goes only to libraries loaded at the start: NVTX that loads the
// library afterwards is recorded from the next start on.
TEST(NvtxInjection, LoadedAfterTheStartIsRecordedFromTheNextStart) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir, Injection::kLoadedOnFirstUse);
    Zorv& zorv = Zorv::instance();
    CaptureStderr();
    ASSERT_TRUE(zorv.start_profiling().ok());
    EXPECT_FALSE(injection_loaded());
    EXPECT_EQ(nvtxRangePushA("first capture"), 0);  // loads the library now
    EXPECT_TRUE(injection_loaded());
    EXPECT_EQ(nvtxRangePop(), 0);
    ASSERT_TRUE(zorv.stop_profiling().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    EXPECT_TRUE(contains(lines, kNoHookLibraryAtStart));
    EXPECT_FALSE(contains(lines, kNoHookLibraryAtStop));  // found at the stop, given its defaults
    ASSERT_TRUE(zorv.start_profiling().ok());
    EXPECT_EQ(nvtxRangePushA("second capture"), 0);
    EXPECT_EQ(nvtxRangePop(), 0);
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const Strings files = dir.list();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_TRUE(annotations(dir.file(files[0])).empty());
  const auto second = annotations(dir.file(files[1]));
  EXPECT_EQ(messages(of_type(second, annotations::BEGIN)), Strings{"second capture"});
  EXPECT_EQ(of_type(second, annotations::END).size(), 1u);
}

// Starts and stops swap the table under threads that push, pop and mark all the
// while. An end is only sent for a begin that reached a capture, so every END in
// the files has its BEGIN there too, and none comes twice.
TEST(NvtxInjection, TableSwapsUnderBusyThreadsKeepEndsWithTheirBegins) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.emplace_back([&] {
        nvtxDomainHandle_t domain = nvtxDomainCreateA("busy");
        nvtxEventAttributes_t attr = ascii_attributes("inner");
        while (!done.load(std::memory_order_relaxed)) {
          nvtxRangePushA("outer");
          nvtxDomainRangePushEx(domain, &attr);
          nvtxMarkA("mark");
          const nvtxRangeId_t id = nvtxRangeStartA("started");
          nvtxDomainRangePop(domain);
          nvtxRangeEnd(id);
          nvtxRangePop();
        }
      });
    }
    for (int capture = 0; capture < 5; ++capture) {
      ASSERT_TRUE(zorv.start_profiling().ok());
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      ASSERT_TRUE(zorv.stop_profiling().ok());
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    done = true;
    for (auto& thread : threads) thread.join();
    // What was recorded after the last stop's flush goes out with one more capture.
    ASSERT_TRUE(zorv.start_profiling().ok());
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  std::set<uint64_t> begun;
  std::multiset<uint64_t> ended;
  size_t records = 0;
  for (const std::string& name : dir.list()) {
    for (const Annotation& a : annotations(dir.file(name))) {
      ++records;
      if (a.type == annotations::BEGIN) {
        EXPECT_TRUE(begun.insert(a.token).second);
      } else if (a.type == annotations::END) {
        ended.insert(a.token);
      }
    }
  }
  EXPECT_GT(records, 0u);
  for (uint64_t token : ended) {
    EXPECT_EQ(begun.count(token), 1u) << "END without its BEGIN: " << token;
    EXPECT_EQ(ended.count(token), 1u) << "END twice: " << token;
  }
}

// The hook functions as the controller calls them: with the same table again and
// again (once per object that depends on the library), and with the defaults.
TEST(NvtxInjection, HookFunctionsTakeTheSameTableRepeatedly) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    void* library = dlopen(ZORV_NVTX_LIBRARY, RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr);
    auto update = reinterpret_cast<void (*)(ZVKIFuncTable_t*)>(
        dlsym(library, "ZVKI_update_functable"));
    auto get_default = reinterpret_cast<ZVKIFuncTable_t* (*)()>(
        dlsym(library, "ZVKI_get_default_functable"));
    ASSERT_NE(update, nullptr);
    ASSERT_NE(get_default, nullptr);
    ZVKIFuncTable_t* defaults = get_default();
    ASSERT_NE(defaults, nullptr);
    EXPECT_EQ(get_default(), defaults);
    EXPECT_EQ(defaults->annotation_start_fptr("x", 1), 0u);  // does nothing
    defaults->annotation_end_fptr(0);
    defaults->annotation_marker_fptr("x", 1);
    EXPECT_EQ(defaults->ann_table[1],
              reinterpret_cast<ZVKINonCallable_fptr*>(&defaults->annotation_start_fptr));

    ASSERT_TRUE(zorv.start_profiling().ok());
    update(&instrumentation_funcs);
    update(&instrumentation_funcs);
    nvtxRangePushA("once");
    update(&instrumentation_funcs);
    nvtxRangePop();
    update(defaults);
    nvtxMarkA("with the defaults");
    update(&instrumentation_funcs);
    nvtxMarkA("given back");
    update(nullptr);  // taken as the defaults
    nvtxMarkA("with null");
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const auto all = only_capture(dir);
  EXPECT_EQ(messages(of_type(all, annotations::BEGIN)), Strings{"once"});
  EXPECT_EQ(of_type(all, annotations::END).size(), 1u);
  EXPECT_EQ(messages(of_type(all, annotations::MARKER)), Strings{"given back"});
}

// A thread may hold the registry's lock at the moment another one forks; the
// child, which has only the forking thread, can still make domains and register
// strings. Forks again and again under a thread that takes the lock all the time.
TEST(NvtxInjection, AChildForkedWhileAnotherThreadRegistersCanRegister) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer can't follow a multi-threaded process through fork";
#endif
  EXPECT_EQ(0, run_in_child([&] {
    setenv("NVTX_INJECTION64_PATH", ZORV_NVTX_LIBRARY, 1);
    nvtxInitialize(nullptr);
    ASSERT_TRUE(injection_loaded());
    std::atomic<bool> done{false};
    std::atomic<uint64_t> registered{0};
    std::thread busy([&] {
      for (unsigned n = 0; !done.load(std::memory_order_relaxed); ++n) {
        const std::string name = "busy " + std::to_string(n % 1000);
        nvtxDomainHandle_t domain = nvtxDomainCreateA(name.c_str());
        nvtxDomainRegisterStringA(domain, name.c_str());
        registered.fetch_add(1, std::memory_order_relaxed);
      }
    });
    while (registered.load() == 0) std::this_thread::yield();
    int failed_status = 0;
    for (int round = 0; round < 300 && failed_status == 0; ++round) {
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        alarm(3);  // a child stuck on the lock ends on SIGALRM
        nvtxDomainHandle_t domain = nvtxDomainCreateA("after fork");
        const bool ok = domain != nullptr &&
                        nvtxDomainRegisterStringA(domain, "string") != nullptr &&
                        nvtxDomainCreateA("after fork") == domain;
        _exit(ok ? 0 : 1);
      }
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) failed_status = status;
    }
    done = true;
    busy.join();
    EXPECT_EQ(failed_status, 0) << (WIFSIGNALED(failed_status) && WTERMSIG(failed_status) == SIGALRM
                                        ? "the child hung on the registry's lock"
                                        : "the child failed");
    EXPECT_GT(registered.load(), 0u);
  }));
}

// Every message keeps a readable NUL after its text (the annotator copies one byte
// more); long and empty ones, alone and behind a domain's prefix.
TEST(NvtxInjection, LongAndEmptyMessagesArriveWhole) {
  TempDir dir;
  const std::string long_text(5000, 'x');
  EXPECT_EQ(0, run_in_child([&] {
    configure(dir);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.start_profiling().ok());
    nvtxDomainHandle_t domain = nvtxDomainCreateA("d");
    nvtxRangePushA("");
    nvtxRangePushA(long_text.c_str());
    nvtxEventAttributes_t attr = ascii_attributes(long_text.c_str());
    nvtxDomainRangePushEx(domain, &attr);
    attr = ascii_attributes("");
    nvtxDomainRangePushEx(domain, &attr);
    nvtxDomainRangePop(domain);
    nvtxDomainRangePop(domain);
    nvtxRangePop();
    nvtxRangePop();
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const auto all = only_capture(dir);
  const Strings begins = messages(of_type(all, annotations::BEGIN));
  ASSERT_EQ(begins.size(), 4u);
  EXPECT_EQ(begins[0], "");
  EXPECT_TRUE(begins[1] == long_text) << begins[1].size();
  EXPECT_TRUE(begins[2] == "d/" + long_text) << begins[2].size();
  EXPECT_EQ(begins[3], "d/");
  EXPECT_EQ(of_type(all, annotations::END).size(), 4u);
}

}  // namespace
}  // namespace zorvek
