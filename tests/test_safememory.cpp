// Reads of the own memory that fail instead of faulting, before and after a fork.

#include "zorv/utils/safememory.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/test_support.h"

namespace zorvek {
namespace {

using testing_support::run_in_child;

uintptr_t address_of(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// A page that stays reserved for the test and can't be read.
class UnreadablePage {
 public:
  UnreadablePage() : size_(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
    page_ = mmap(nullptr, 2 * size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(static_cast<char*>(page_) + size_, size_, PROT_NONE);
  }
  ~UnreadablePage() { munmap(page_, 2 * size_); }
  char* readable() const { return static_cast<char*>(page_); }
  uintptr_t unreadable() const { return address_of(readable() + size_); }
  size_t size() const { return size_; }

 private:
  size_t size_;
  void* page_;
};

TEST(SafeMemory, ReadsTheOwnMemory) {
  const char text[] = "frames and code";
  char copy[sizeof(text)] = {};
  ASSERT_TRUE(safe_read(copy, address_of(text), sizeof(text)));
  EXPECT_STREQ(text, copy);
  EXPECT_TRUE(safe_read(copy, 0, 0));
}

TEST(SafeMemory, UnreadableMemoryFailsWithoutAFault) {
  UnreadablePage page;
  char copy[16];
  EXPECT_FALSE(safe_read(copy, page.unreadable(), sizeof(copy)));
  EXPECT_FALSE(safe_read(copy, 0, sizeof(copy)));
  EXPECT_FALSE(safe_read(copy, ~uintptr_t{0} - 64, sizeof(copy)));
  // A range whose end runs into the unreadable page is not read at all.
  EXPECT_FALSE(safe_read(copy, page.unreadable() - 8, sizeof(copy)));
}

TEST(SafeMemory, LeavesErrnoAsItWas) {
  UnreadablePage page;
  char copy[8];
  errno = ENOENT;
  EXPECT_FALSE(safe_read(copy, page.unreadable(), sizeof(copy)));
  EXPECT_EQ(ENOENT, errno);
}

TEST(SafeMemory, TwoRangesInOneRead) {
  const uint64_t first = 0x1122334455667788ull;
  const char second[] = "second";
  uint64_t first_copy = 0;
  char second_copy[sizeof(second)] = {};
  ASSERT_TRUE(safe_read2(&first_copy, address_of(&first), sizeof(first), second_copy,
                         address_of(second), sizeof(second)));
  EXPECT_EQ(first, first_copy);
  EXPECT_STREQ(second, second_copy);

  UnreadablePage page;
  EXPECT_FALSE(safe_read2(&first_copy, address_of(&first), sizeof(first), second_copy,
                          page.unreadable(), sizeof(second_copy)));
  EXPECT_FALSE(safe_read2(&first_copy, page.unreadable(), sizeof(first), second_copy,
                          address_of(second), sizeof(second)));
}

TEST(SafeMemory, RangesAreReadInOrderUpToTheFirstUnreadable) {
  UnreadablePage page;
  uint64_t values[40];
  uint64_t copies[40] = {};
  SafeRange ranges[40];
  for (int i = 0; i < 40; ++i) {
    values[i] = 1000 + i;
    ranges[i] = SafeRange{&copies[i], address_of(&values[i]), sizeof(values[i])};
  }
  // More ranges than one system call takes.
  ASSERT_EQ(40u, safe_read_ranges(ranges, 40));
  for (int i = 0; i < 40; ++i) EXPECT_EQ(1000u + i, copies[i]);
  ranges[kSafeRangesPerCall + 3].src = page.unreadable();
  EXPECT_EQ(kSafeRangesPerCall + 3, safe_read_ranges(ranges, 40));
  ranges[1].src = page.unreadable();
  EXPECT_EQ(1u, safe_read_ranges(ranges, 40));
  ranges[0].src = page.unreadable() - 4;  // runs into the unreadable page
  EXPECT_EQ(0u, safe_read_ranges(ranges, 40));
  EXPECT_EQ(0u, safe_read_ranges(ranges, 0));
}

// The child reads its own memory, not its parent's: a value the child changed
// after the fork reads as the child wrote it.
TEST(SafeMemory, AForkedChildReadsItsOwnMemory) {
  static volatile int value = 1;
  int copy = 0;
  ASSERT_TRUE(safe_read(&copy, address_of(const_cast<int*>(&value)), sizeof(copy)));
  ASSERT_EQ(1, copy);
  const int status = run_in_child([] {
    value = 2;
    int child_copy = 0;
    ASSERT_TRUE(safe_read(&child_copy, address_of(const_cast<int*>(&value)), sizeof(child_copy)));
    EXPECT_EQ(2, child_copy);
    UnreadablePage page;
    EXPECT_FALSE(safe_read(&child_copy, page.unreadable(), sizeof(child_copy)));
  });
  EXPECT_EQ(0, status);
  ASSERT_TRUE(safe_read(&copy, address_of(const_cast<int*>(&value)), sizeof(copy)));
  EXPECT_EQ(1, copy);
}

}  // namespace
}  // namespace zorvek
