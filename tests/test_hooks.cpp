#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "tests/test_support.h"
#include "zorv/zorv.h"
#include "zorv/zvkannotator.h"

namespace {

int g_main_program_calls = 0;
zorvek::ZVKIFuncTable_t g_main_program_defaults = {};

}  // namespace

// The main program carries the hook functions as well, and exports them: the search
// must pass it by all the same.
extern "C" __attribute__((visibility("default"))) void ZVKI_update_functable(
    zorvek::ZVKIFuncTable_t*) {
  ++g_main_program_calls;
}

extern "C" __attribute__((visibility("default"))) zorvek::ZVKIFuncTable_t*
ZVKI_get_default_functable() {
  ++g_main_program_calls;
  return &g_main_program_defaults;
}

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

// One stand-in library (hooked_library.cpp), loaded from `path` on its own, and the
// test's handles on it. Never closed: the profiler's lookups keep it loaded anyway.
class StandIn {
 public:
  explicit StandIn(const std::string& path)
      : m_handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    EXPECT_NE(m_handle, nullptr) << dlerror();
  }
  void annotate(const char* msg) const { annotate_function()(msg); }
  void (*annotate_function() const)(const char*) {
    return function<void (*)(const char*)>("hooked_annotate");
  }
  bool has_defaults() const { return function<bool (*)()>("hooked_has_defaults")(); }
  int update_calls() const { return function<int (*)()>("hooked_update_calls")(); }
  int default_requests() const { return function<int (*)()>("hooked_default_requests")(); }
  void annotate_on_restore(const char* msg) const {
    function<void (*)(const char*)>("hooked_annotate_on_restore")(msg);
  }

 private:
  template <typename F>
  F function(const char* name) const {
    return reinterpret_cast<F>(dlsym(m_handle, name));
  }
  void* m_handle;
};

// The BEGIN messages of a capture file, in order.
Strings begin_messages(const std::string& path) {
  Strings messages;
  for (const auto& bucket : read_capture(path).buckets) {
    for (const auto& record : bucket.records) {
      if (record.event_type != annotations::BEGIN) continue;
      messages.emplace_back(record.payload.c_str() + sizeof(uint64_t));
    }
  }
  return messages;
}

int loaded_objects() {
  int count = 0;
  dl_iterate_phdr([](dl_phdr_info*, size_t, void* data) { return ++*static_cast<int*>(data), 0; },
                  &count);
  return count;
}

TEST(Hooks, LibraryAnnotatesIntoTheCaptureWhileItRuns) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_OUTPUT_FILE_NAME");
    const StandIn library(HOOKED_LIBRARY);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("hooks_%t"))).ok());
    library.annotate("before start");  // the library's own defaults: recorded nowhere
    ASSERT_TRUE(zorv.start_profiling().ok());
    EXPECT_FALSE(library.has_defaults());
    library.annotate("from the library");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    EXPECT_TRUE(library.has_defaults());
    EXPECT_EQ(library.default_requests(), 1);
    library.annotate("after stop");
  }));
  const Strings files = dir.list();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(begin_messages(dir.file(files[0])), Strings{"from the library"});
}

TEST(Hooks, AnnotationBetweenFlushAndHookRemovalMissesTheFile) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_OUTPUT_FILE_NAME");
    const StandIn library(HOOKED_LIBRARY);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("late_%t"))).ok());
    ASSERT_TRUE(zorv.start_profiling().ok());
    library.annotate("in time");
    // Lands after the annotator's flush, while the hooks are being taken away.
    library.annotate_on_restore("late");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    library.annotate_on_restore(nullptr);
    // The late record waits in the annotator's fresh buffer: the next capture's
    // stop is what sends it on.
    ASSERT_TRUE(zorv.start_profiling().ok());
    library.annotate("second capture");
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const Strings files = dir.list();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(begin_messages(dir.file(files[0])), Strings{"in time"});
  EXPECT_EQ(begin_messages(dir.file(files[1])), (Strings{"late", "second capture"}));
}

// With no default table to give back, the stop passes the library by: it keeps the
// profiler's table, and what it annotates after the stop still lands in the buffers.
TEST(Hooks, LibraryWithoutDefaultTableKeepsTheProfilersTableAfterTheStop) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_OUTPUT_FILE_NAME");
    const StandIn library(HOOKED_UPDATE_ONLY_LIBRARY);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("update_only_%t"))).ok());
    CaptureStderr();
    ASSERT_TRUE(zorv.start_profiling().ok());
    EXPECT_EQ(library.update_calls(), 1);
    EXPECT_FALSE(library.has_defaults());
    library.annotate("during the capture");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    EXPECT_FALSE(contains(lines, kNoHookLibraryAtStart));
    EXPECT_TRUE(contains(lines, kNoHookLibraryAtStop));
    EXPECT_EQ(library.update_calls(), 1);
    EXPECT_FALSE(library.has_defaults());
    library.annotate("after the stop");
    // The next capture's stop sends on the buffer that record went into.
    ASSERT_TRUE(zorv.start_profiling().ok());
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const Strings files = dir.list();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(begin_messages(dir.file(files[0])), Strings{"during the capture"});
  EXPECT_EQ(begin_messages(dir.file(files[1])), Strings{"after the stop"});
}

// A default table without an update function: the start has nothing to call, so
// the library doesn't count as found; nor does it at the stop.
TEST(Hooks, LibraryWithoutUpdateFunctionIsNotFound) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_OUTPUT_FILE_NAME");
    const StandIn library(HOOKED_DEFAULT_ONLY_LIBRARY);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("default_only_%t"))).ok());
    CaptureStderr();
    ASSERT_TRUE(zorv.start_profiling().ok());
    Strings lines = log_messages(GetCapturedStderr());
    EXPECT_EQ(lines, Strings{kNoHookLibraryAtStart});
    EXPECT_EQ(library.default_requests(), 0);
    library.annotate("through its defaults");
    CaptureStderr();
    ASSERT_TRUE(zorv.stop_profiling().ok());
    lines = log_messages(GetCapturedStderr());
    EXPECT_TRUE(contains(lines, kNoHookLibraryAtStop));
    EXPECT_TRUE(library.has_defaults());
  }));
  const Strings files = dir.list();
  ASSERT_EQ(files.size(), 1u);  // the time marker alone
  EXPECT_TRUE(begin_messages(dir.file(files[0])).empty());
}

TEST(Hooks, LibraryLoadedAfterTheStartIsNotPatchedButGetsItsDefaultsAtTheStop) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_OUTPUT_FILE_NAME");
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("loaded_late_%t"))).ok());
    CaptureStderr();
    ASSERT_TRUE(zorv.start_profiling().ok());
    const StandIn library(HOOKED_LIBRARY);
    EXPECT_EQ(library.update_calls(), 0);
    library.annotate("loaded after the start");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    EXPECT_TRUE(contains(lines, kNoHookLibraryAtStart));
    EXPECT_FALSE(contains(lines, kNoHookLibraryAtStop));
    EXPECT_EQ(library.update_calls(), 1);
    EXPECT_EQ(library.default_requests(), 1);
    EXPECT_TRUE(library.has_defaults());
  }));
  const Strings files = dir.list();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_TRUE(begin_messages(dir.file(files[0])).empty());
}

TEST(Hooks, MainProgramIsNeverAsked) {
  TempDir dir;
  ASSERT_NE(dlsym(RTLD_DEFAULT, "ZVKI_update_functable"), nullptr);  // exported, to be found
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_OUTPUT_FILE_NAME");
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("main_%t"))).ok());
    CaptureStderr();
    ASSERT_TRUE(zorv.start_profiling().ok());
    ASSERT_TRUE(zorv.stop_profiling().ok());
    const Strings lines = log_messages(GetCapturedStderr());
    EXPECT_TRUE(contains(lines, kNoHookLibraryAtStart));
    EXPECT_TRUE(contains(lines, kNoHookLibraryAtStop));
    EXPECT_EQ(g_main_program_calls, 0);
  }));
}

TEST(Hooks, MoreThan300LoadedObjectsAreAllPatched) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_OUTPUT_FILE_NAME");
    // Copies of one file, so that each is an object of its own; loaded in order, the
    // last ones come far behind the 300th.
    std::ostringstream image;
    image << std::ifstream(HOOKED_LIBRARY, std::ios::binary).rdbuf();
    std::vector<StandIn> libraries;
    for (int i = 0; i < 300; ++i) {
      const std::string path = dir.file("hooked_" + std::to_string(i) + ".so");
      std::ofstream(path, std::ios::binary) << image.str();
      libraries.emplace_back(path);
    }
    ASSERT_GT(loaded_objects(), 300);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("many_%t"))).ok());
    CaptureStderr();
    ASSERT_TRUE(zorv.start_profiling().ok());
    int patched = 0;
    for (const StandIn& library : libraries) patched += library.has_defaults() ? 0 : 1;
    EXPECT_EQ(patched, 300);
    ASSERT_TRUE(zorv.stop_profiling().ok());
    GetCapturedStderr();
    int restored = 0;
    for (const StandIn& library : libraries) restored += library.has_defaults() ? 1 : 0;
    EXPECT_EQ(restored, 300);
  }));
}

// ---- Process exit ------------------------------------------------------------------

// What the exit handlers of the cases below reach. Handlers take no arguments.
const StandIn* g_exiting_library = nullptr;
int g_exit_report_fd = -1;

void annotate_after_teardown() {
  g_exiting_library->annotate("after the teardown");
  const char defaults = g_exiting_library->has_defaults() ? 'd' : 'p';
  if (write(g_exit_report_fd, &defaults, 1) != 1) _exit(7);
}

void annotate_before_teardown() { g_exiting_library->annotate("in an exit handler"); }

// A thread of the library annotates without pause until the process is gone.
void annotate_through_exit(const StandIn* library) {
  auto annotate = library->annotate_function();
  std::thread([annotate] {
    for (;;) annotate("from a thread");
  }).detach();
}

// What a process that ended with its capture running left: whether the library
// had its default table back when the last exit handler ran, and the file's
// range messages.
struct ExitOutcome {
  char defaults = 0;  // 'd': defaults back, 'p': the profiler's table
  Strings messages;
};

// Ends a child with the capture running, while a thread of `library` annotates
// and exit handlers annotate after the controller's teardown and, where
// `handler_before_teardown`, before it.
ExitOutcome exit_with_capture_running(const char* library, bool handler_before_teardown) {
  TempDir dir;
  int report[2];
  EXPECT_EQ(pipe(report), 0);
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_OUTPUT_FILE_NAME");
    g_exiting_library = new StandIn(library);
    g_exit_report_fd = report[1];
    // Registered before the controller exists, so it runs after its destructor.
    atexit(annotate_after_teardown);
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("exit_%t"))).ok());
    ASSERT_TRUE(zorv.start_profiling().ok());
    if (handler_before_teardown) atexit(annotate_before_teardown);
    g_exiting_library->annotate("during the capture");
    annotate_through_exit(g_exiting_library);
  }, true));
  close(report[1]);
  ExitOutcome outcome;
  EXPECT_EQ(read(report[0], &outcome.defaults, 1), 1);
  close(report[0]);
  const Strings files = dir.list();
  EXPECT_EQ(files.size(), 1u);
  if (!files.empty()) outcome.messages = begin_messages(dir.file(files[0]));
  return outcome;
}

// The teardown gives the library its defaults back before the annotator goes, and
// no call reaches the deleted annotator (AddressSanitizer would report it).
TEST(HooksAtExit, TablesAreWithdrawnBeforeTheAnnotatorGoes) {
  const ExitOutcome outcome = exit_with_capture_running(HOOKED_LIBRARY, true);
  EXPECT_EQ(outcome.defaults, 'd');
  EXPECT_TRUE(contains(outcome.messages, "during the capture"));
  EXPECT_TRUE(contains(outcome.messages, "in an exit handler"));
  EXPECT_FALSE(contains(outcome.messages, "after the teardown"));
}

// A library without a default table keeps the profiler's pointers through the
// teardown: its calls after it find the annotator gone and do nothing.
TEST(HooksAtExit, ALibraryThatKeepsTheTableCallsSafelyAfterTheTeardown) {
  const ExitOutcome outcome = exit_with_capture_running(HOOKED_UPDATE_ONLY_LIBRARY, false);
  EXPECT_EQ(outcome.defaults, 'p');  // it still held the profiler's table, and called it
  EXPECT_TRUE(contains(outcome.messages, "during the capture"));
  EXPECT_FALSE(contains(outcome.messages, "after the teardown"));
}

}  // namespace
}  // namespace zorvek
