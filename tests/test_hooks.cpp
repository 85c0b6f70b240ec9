#include <gtest/gtest.h>

#include <algorithm>

#include "tests/test_support.h"
#include "zorv/zorv.h"
#include "zorv/zvkannotator.h"

// The foreign library this binary is linked with (hooked_library.cpp).
extern "C" {
void hooked_annotate(const char* msg);
bool hooked_has_defaults();
void hooked_annotate_on_restore(const char* msg);
}

namespace zorvek {
namespace {

using testing_support::read_capture;
using testing_support::run_in_child;
using testing_support::small_capture_config;
using testing_support::TempDir;
using Strings = std::vector<std::string>;

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

TEST(Hooks, LibraryAnnotatesIntoTheCaptureWhileItRuns) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_OUTPUT_FILE_NAME");
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("hooks_%t"))).ok());
    hooked_annotate("before start");  // the library's own defaults: recorded nowhere
    ASSERT_TRUE(zorv.start_profiling().ok());
    EXPECT_FALSE(hooked_has_defaults());
    hooked_annotate("from the library");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    EXPECT_TRUE(hooked_has_defaults());
    hooked_annotate("after stop");
  }));
  const Strings files = dir.list();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(begin_messages(dir.file(files[0])), Strings{"from the library"});
}

TEST(Hooks, AnnotationBetweenFlushAndHookRemovalMissesTheFile) {
  TempDir dir;
  EXPECT_EQ(0, run_in_child([&] {
    unsetenv("ZVK_OUTPUT_FILE_NAME");
    Zorv& zorv = Zorv::instance();
    ASSERT_TRUE(zorv.configure(small_capture_config(dir.file("late_%t"))).ok());
    ASSERT_TRUE(zorv.start_profiling().ok());
    hooked_annotate("in time");
    // Lands after the annotator's flush, while the hooks are being taken away.
    hooked_annotate_on_restore("late");
    ASSERT_TRUE(zorv.stop_profiling().ok());
    hooked_annotate_on_restore(nullptr);
    // The late record waits in the annotator's fresh buffer: the next capture's
    // stop is what sends it on.
    ASSERT_TRUE(zorv.start_profiling().ok());
    hooked_annotate("second capture");
    ASSERT_TRUE(zorv.stop_profiling().ok());
  }));
  const Strings files = dir.list();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(begin_messages(dir.file(files[0])), Strings{"in time"});
  EXPECT_EQ(begin_messages(dir.file(files[1])), (Strings{"late", "second capture"}));
}

}  // namespace
}  // namespace zorvek
