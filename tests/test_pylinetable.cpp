// python_line: the 3.10 line table and the 3.11+ location table, on tables built
// by hand byte by byte, and on damaged ones: cut anywhere, any byte changed,
// continuation bytes where an entry should start, integers that never end. The
// tables live in vectors of exactly their size, so that under AddressSanitizer a
// read past one fails the run. tests/python/test_python_linetable.py checks the
// same function against every code object of each installed interpreter.

#include "tools/pylinetable.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace zorvek {
namespace {

constexpr uint32_t kPython39 = 0x030912f0;
constexpr uint32_t kPython310 = 0x030a0df0;
constexpr uint32_t kPython311 = 0x030b07f0;
constexpr uint32_t kPython312 = 0x030c01f0;
constexpr uint32_t kPython313 = 0x030d00f0;

int line_at(uint32_t version, int first_line, const std::vector<uint8_t>& table,
            uint32_t offset) {
  // A copy of exactly the table's size: nothing after it may be read.
  const std::vector<uint8_t> exact(table.begin(), table.end());
  return python_line(version, first_line, exact.data(), exact.size(), offset);
}

uint8_t signed_byte(int value) { return static_cast<uint8_t>(static_cast<int8_t>(value)); }

// First line 10: offsets 0-5 line 11; 6-49 line 16; 50-303 line 16 (a range
// longer than one entry holds); 304-349 line 143 then a jump of 73 lines with no
// bytes; 350-359 no line; 360-375 line 217 (the jump counts after the gap);
// 376-379 line 117.
const std::vector<uint8_t> kTable310 = {
    6,   signed_byte(1),   44, signed_byte(5),    254, signed_byte(0), 46, signed_byte(127),
    0,   signed_byte(73),  10, signed_byte(-128), 16,  signed_byte(1), 4,  signed_byte(-100)};

const std::vector<std::pair<uint32_t, int>> kLines310 = {
    {0, 11},   {5, 11},   {6, 16},   {49, 16},  {50, 16},  {303, 16},  {304, 143}, {349, 143},
    {350, -1}, {359, -1}, {360, 217}, {375, 217}, {376, 117}, {379, 117}, {380, -1}, {100000, -1}};

TEST(PythonLine, Reads310Tables) {
  for (const auto& expected : kLines310) {
    EXPECT_EQ(line_at(kPython310, 10, kTable310, expected.first), expected.second)
        << "offset " << expected.first;
  }
  // An odd last byte is half an entry, and covers nothing.
  std::vector<uint8_t> odd = kTable310;
  odd.push_back(200);
  EXPECT_EQ(line_at(kPython310, 10, odd, 380), -1);
  EXPECT_EQ(line_at(kPython310, 10, odd, 379), 117);
  EXPECT_EQ(line_at(kPython310, 10, {}, 0), -1);
}

// Location table entries, written out by hand: first byte 1CCCCLLL (code, length
// in code units less one), then the code's own bytes. First line 100.
const std::vector<uint8_t> kTable311 = {
    0xea, 0x02,              // no columns, 3 units, line +1: units 0-2 line 101
    0x90, 0x35,              // short form 2, 1 unit: unit 3 line 101
    0xe1, 0x04, 0x09,        // one line form +2, 2 units: units 4-5 line 103
    0xf8,                    // no location, 1 unit: unit 6
    0xf7, 0x75, 0x02,        // long form, 8 units: units 7-14 line 13; the line -90 as
                             // svarint 181: its low six bits with bit 6 for "more", then 2
    0x00, 0x05, 0x07,        // ...end line +0, columns 4 and 6 (each stored plus one)
    0xe8, 0x58, 0x09,        // no columns, 1 unit, line +300: unit 15 line 313
    0xd8, 0x00, 0x00,        // one line form +1, 1 unit: unit 16 line 314
};

const std::vector<std::pair<uint32_t, int>> kLines311 = {
    {0, 101},  {5, 101},  {6, 101},  {7, 101},  {8, 103},  {11, 103}, {12, -1},
    {13, -1},  {14, 13},  {29, 13},  {30, 313}, {31, 313}, {32, 314}, {33, 314},
    {34, -1},  {1000, -1}};

TEST(PythonLine, Reads311AndLaterTables) {
  for (uint32_t version : {kPython311, kPython312, kPython313}) {
    for (const auto& expected : kLines311) {
      EXPECT_EQ(line_at(version, 100, kTable311, expected.first), expected.second)
          << std::hex << version << std::dec << " offset " << expected.first;
    }
  }
  EXPECT_EQ(line_at(kPython311, 100, {}, 0), -1);
}

TEST(PythonLine, OlderFormatsAndNoTableHaveNoLine) {
  EXPECT_EQ(line_at(kPython39, 10, kTable310, 0), -1);
  EXPECT_EQ(python_line(kPython311, 100, nullptr, 0, 0), -1);
  EXPECT_EQ(python_line(kPython310, 100, nullptr, 0, 0), -1);
}

TEST(PythonLine, ACutTableAnswersForTheEntriesItHolds) {
  const std::vector<uint8_t>& whole = kTable311;
  // Cut inside the long form entry (bytes 8-13): the entries before it still read.
  for (size_t size = 9; size < 14; ++size) {
    const std::vector<uint8_t> cut(whole.begin(), whole.begin() + size);
    EXPECT_EQ(line_at(kPython311, 100, cut, 11), 103) << size;
    EXPECT_EQ(line_at(kPython311, 100, cut, 14), -1) << size;
    EXPECT_EQ(line_at(kPython311, 100, cut, 32), -1) << size;
  }
}

TEST(PythonLine, AnEntryThatDoesntStartWithBitSevenEndsTheTable) {
  std::vector<uint8_t> table = kTable311;
  table[14] = 0x68;  // the entry of unit 15, its first byte without bit 7
  EXPECT_EQ(line_at(kPython311, 100, table, 29), 13);
  EXPECT_EQ(line_at(kPython311, 100, table, 30), -1);
  EXPECT_EQ(line_at(kPython311, 100, table, 32), -1);
}

TEST(PythonLine, AnIntegerThatNeverEndsIsNoLine) {
  std::vector<uint8_t> table = {0xea};
  table.insert(table.end(), 64, 0x7f);  // "more" on every byte, to the table's end
  EXPECT_EQ(line_at(kPython311, 100, table, 0), -1);
  table.push_back(0x01);  // an end, after far more bytes than any line needs
  EXPECT_EQ(line_at(kPython311, 100, table, 0), -1);
}

TEST(PythonLine, LinesThatCantBeIntsAreNoLine) {
  // A line delta of -200 from line 100, and one that takes the line past INT_MAX.
  EXPECT_EQ(line_at(kPython310, 100, {2, signed_byte(-100), 2, signed_byte(-100)}, 2), -1);
  const std::vector<uint8_t> huge = {0xe8, 0x7e, 0x7f, 0x7f, 0x7f, 0x7f, 0x03};  // +2^31 - 1
  EXPECT_EQ(line_at(kPython311, 100, huge, 0), -1);
}

// Every cut and every changed byte of both tables, at every offset: an answer,
// never a read past the table (AddressSanitizer watches the copies' ends).
TEST(PythonLine, AnyDamageGetsAnAnswer) {
  const std::vector<std::pair<uint32_t, std::vector<uint8_t>>> tables = {
      {kPython310, kTable310}, {kPython311, kTable311}};
  for (const auto& entry : tables) {
    const std::vector<uint8_t>& whole = entry.second;
    for (size_t size = 0; size <= whole.size(); ++size) {
      const std::vector<uint8_t> cut(whole.begin(), whole.begin() + size);
      for (uint32_t offset = 0; offset < 400; offset += 3) {
        EXPECT_GE(line_at(entry.first, 100, cut, offset), -1);
      }
    }
    for (size_t at = 0; at < whole.size(); ++at) {
      for (int value : {0x00, 0x3f, 0x40, 0x7f, 0x80, 0xbf, 0xc0, 0xff}) {
        std::vector<uint8_t> changed = whole;
        changed[at] = static_cast<uint8_t>(value);
        for (uint32_t offset = 0; offset < 400; offset += 3) {
          EXPECT_GE(line_at(entry.first, 100, changed, offset), -1);
        }
      }
    }
  }
}

}  // namespace
}  // namespace zorvek
