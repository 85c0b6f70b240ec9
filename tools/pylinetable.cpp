#include "tools/pylinetable.h"

#include <climits>

namespace zorvek {
namespace {

constexpr uint32_t kPython310 = 0x030a0000u;
constexpr uint32_t kPython311 = 0x030b0000u;

// Lines are added up in 64 bits from deltas that a damaged table may make huge;
// what can't be an int is no line.
int as_line(int64_t line) { return line >= 0 && line <= INT_MAX ? static_cast<int>(line) : -1; }

// 3.10: pairs of (bytes the entry covers, unsigned; line delta, signed), the first
// entry starting at offset 0 and line first_line. A delta of -128 means the
// entry's instructions have no line, and leaves the running line as it was.
int line_310(int first_line, const uint8_t* table, size_t size, uint32_t byte_offset) {
  uint64_t start = 0;
  int64_t line = first_line;
  for (size_t at = 0; at + 2 <= size; at += 2) {
    const uint64_t end = start + table[at];
    const auto delta = static_cast<int8_t>(table[at + 1]);
    const bool none = delta == -128;
    if (!none) line += delta;
    if (byte_offset >= start && byte_offset < end) return none ? -1 : as_line(line);
    start = end;
  }
  return -1;
}

// Reads the 3.11 table's variable-length integers, never past the table's end:
// 6 bits a byte, least significant first, bit 6 set on every byte but the last.
class LocationReader {
 public:
  LocationReader(const uint8_t* table, size_t size) : m_table(table), m_size(size) {}

  bool done() const { return m_at >= m_size; }
  bool byte(uint8_t* value) {
    if (m_at >= m_size) return false;
    *value = m_table[m_at++];
    return true;
  }
  bool skip(size_t count) {
    if (m_size - m_at < count) return false;
    m_at += count;
    return true;
  }
  bool varint(uint64_t* value) {
    uint8_t b;
    if (!byte(&b)) return false;
    *value = b & 63u;
    for (unsigned shift = 6; b & 64u; shift += 6) {
      // Longer than any line delta can be: damage, not a number.
      if (shift > 36 || !byte(&b)) return false;
      *value |= static_cast<uint64_t>(b & 63u) << shift;
    }
    return true;
  }
  // The low bit is the sign, the rest the magnitude.
  bool svarint(int64_t* value) {
    uint64_t raw;
    if (!varint(&raw)) return false;
    const auto magnitude = static_cast<int64_t>(raw >> 1);
    *value = raw & 1u ? -magnitude : magnitude;
    return true;
  }

 private:
  const uint8_t* m_table;
  size_t m_size;
  size_t m_at = 0;
};

// 3.11 and later: entries of a first byte (bit 7 set, bits 3-6 the entry's code,
// bits 0-2 the code units it covers less one) and the bytes its code adds. Start
// lines are deltas from the last entry's, the first from first_line; the columns
// and end lines are passed over.
int line_311(int first_line, const uint8_t* table, size_t size, uint32_t byte_offset) {
  enum : unsigned {
    kOneLine0 = 10,
    kOneLine2 = 12,
    kNoColumns = 13,
    kLong = 14,
    kNone = 15,
  };
  const uint64_t unit = byte_offset / 2;  // code units are 2 bytes
  LocationReader reader(table, size);
  uint64_t start = 0;
  int64_t line = first_line;
  while (!reader.done()) {
    uint8_t first;
    reader.byte(&first);
    if (!(first & 0x80u)) return -1;  // entries start with bit 7 set: the table is damaged
    const unsigned code = (first >> 3) & 15u;
    const uint64_t end = start + (first & 7u) + 1;
    bool read = true;
    if (code == kNone) {
      // no bytes follow, the running line stays
    } else if (code == kLong || code == kNoColumns) {
      int64_t delta = 0;
      uint64_t ignored;
      read = reader.svarint(&delta);
      if (read && code == kLong) {
        read = reader.varint(&ignored) && reader.varint(&ignored) && reader.varint(&ignored);
      }
      line += delta;
    } else if (code >= kOneLine0 && code <= kOneLine2) {
      line += code - kOneLine0;
      read = reader.skip(2);
    } else {
      read = reader.skip(1);  // the short forms: one byte of columns
    }
    if (!read) return -1;
    if (unit >= start && unit < end) return code == kNone ? -1 : as_line(line);
    start = end;
  }
  return -1;
}

}  // namespace

int python_line(uint32_t py_version, int first_line, const uint8_t* table, size_t size,
                uint32_t byte_offset) {
  if (table == nullptr) return -1;
  if (py_version >= kPython311) return line_311(first_line, table, size, byte_offset);
  if (py_version >= kPython310) return line_310(first_line, table, size, byte_offset);
  return -1;  // before 3.10 the table was co_lnotab, which no sample carries
}

}  // namespace zorvek
