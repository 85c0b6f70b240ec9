#pragma once

// Records gathered as columns, one table per kind of record: a sink for
// walk_fields that keeps each field in a flat array, so that a reader hands over
// a few arrays per kind instead of an object per record. Plain C++: the tables
// fill with the interpreter lock released.
//
// Variable-length fields are kept as Arrow keeps lists and strings: the values
// of all rows end to end, and int32 offsets, one more than the rows, where row i
// holds values [offsets[i], offsets[i + 1]). A row that lacks a field (a payload
// too short for its kind) holds zero there, or nothing.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/python/zvkfields.h"

namespace zorvek {
namespace columns {

// One field's values over the rows of a table.
struct Column {
  enum Type : uint8_t {
    kU64,     // u64 values
    kI64,     // i64 values
    kFlag,    // u8 values, 0 or 1
    kLabel,   // u8 values: index into labels
    kBytes,   // u8 values and offsets (text, paths and bytes alike)
    kU64s,    // u64 values and offsets
    kTriple,  // i32 values, three a row
    kFrames,  // code ids (u32 values), instructions, entry flags (u8 values2), offsets
  };

  explicit Column(Type t) : type(t) {}

  // Brings the column to `rows` rows, the missing ones zero or empty.
  void fill_to(size_t rows);
  size_t rows() const;

  Type type;
  std::vector<uint64_t> u64;
  std::vector<int64_t> i64;
  std::vector<uint8_t> u8;
  std::vector<int32_t> i32;
  std::vector<uint32_t> u32;
  std::vector<uint32_t> u32_2;
  std::vector<int32_t> offsets{0};
  std::vector<const char*> labels;  // kLabel: the names, literals, by index
};

// The records of one kind.
class Table {
 public:
  // The next record's row: every field given until the next call lands in it.
  void begin_row() { ++m_rows; }
  size_t rows() const { return m_rows; }
  // Every column brought to the table's rows.
  void finish();

  // Columns by name, in the order the fields were first given.
  const std::vector<std::pair<const char*, std::unique_ptr<Column>>>& columns() const {
    return m_columns;
  }

  // walk_fields' sink.
  void u64(const char* key, uint64_t value) { at(key, Column::kU64).u64.push_back(value); }
  void i64(const char* key, int64_t value) { at(key, Column::kI64).i64.push_back(value); }
  void flag(const char* key, bool value) { at(key, Column::kFlag).u8.push_back(value ? 1 : 0); }
  void label(const char* key, const char* literal);
  void text(const char* key, std::string_view value) { bytes(key, value); }
  void path(const char* key, std::string_view value) { bytes(key, value); }
  void bytes(const char* key, std::string_view value);
  void triple(const char* key, int32_t x, int32_t y, int32_t z);
  template <typename At>
  void u64s(const char* key, uint32_t count, At at_index) {
    Column& c = at(key, Column::kU64s);
    for (uint32_t i = 0; i < count; ++i) c.u64.push_back(at_index(i));
    c.offsets.push_back(static_cast<int32_t>(c.u64.size()));
  }
  void frames(const char* key, const DecodedRecord& decoded);

 private:
  // The column `key` of `type`, filled to the row before this one.
  Column& at(const char* key, Column::Type type);

  size_t m_rows = 0;
  std::vector<std::pair<const char*, std::unique_ptr<Column>>> m_columns;
  const char* m_last_key = nullptr;  // the column found last, and its index:
  size_t m_last_index = 0;           // records of a kind give fields in one order
};

// Tables by kind, for the records of a group of buckets.
class Group {
 public:
  // Adds the record to its kind's table. `kind` is its event name, a literal.
  void add(const ZVKRecordReader& record);
  size_t records() const { return m_records; }
  std::map<std::string, Table>& tables() { return m_tables; }

 private:
  std::map<std::string, Table> m_tables;
  const char* m_last_kind = nullptr;
  Table* m_last_table = nullptr;
  size_t m_records = 0;
};

}  // namespace columns
}  // namespace zorvek
