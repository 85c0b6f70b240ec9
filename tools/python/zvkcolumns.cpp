#include "tools/python/zvkcolumns.h"

#include <cstring>
#include <stdexcept>

namespace zorvek {
namespace columns {

size_t Column::rows() const {
  switch (type) {
    case kU64: return u64.size();
    case kI64: return i64.size();
    case kFlag:
    case kLabel: return u8.size();
    case kTriple: return i32.size() / 3;
    case kBytes:
    case kU64s:
    case kFrames: return offsets.size() - 1;
  }
  return 0;
}

void Column::fill_to(size_t rows) {
  switch (type) {
    case kU64: u64.resize(rows); break;
    case kI64: i64.resize(rows); break;
    case kFlag:
    case kLabel: u8.resize(rows); break;
    case kTriple: i32.resize(3 * rows); break;
    case kBytes:
    case kU64s:
    case kFrames: offsets.resize(rows + 1, offsets.back()); break;
  }
}

Column& Table::at(const char* key, Column::Type type) {
  size_t index = m_last_index + 1;
  // Mostly the column after the last one found; else a search, else a new one.
  if (m_last_key == nullptr || index >= m_columns.size() || m_columns[index].first != key) {
    index = m_columns.size();
    for (size_t i = 0; i < m_columns.size(); ++i) {
      if (m_columns[i].first == key || std::strcmp(m_columns[i].first, key) == 0) {
        index = i;
        break;
      }
    }
    if (index == m_columns.size()) m_columns.emplace_back(key, std::make_unique<Column>(type));
  }
  m_last_key = key;
  m_last_index = index;
  Column& column = *m_columns[index].second;
  if (column.type != type) throw std::logic_error(std::string("field ") + key + " changed type");
  if (column.rows() + 1 < m_rows) column.fill_to(m_rows - 1);
  return column;
}

void Table::finish() {
  for (auto& column : m_columns) column.second->fill_to(m_rows);
  m_last_key = nullptr;
}

void Table::label(const char* key, const char* literal) {
  Column& c = at(key, Column::kLabel);
  size_t index = 0;
  while (index < c.labels.size() && c.labels[index] != literal &&
         std::strcmp(c.labels[index], literal) != 0) {
    ++index;
  }
  if (index == c.labels.size()) c.labels.push_back(literal);
  c.u8.push_back(static_cast<uint8_t>(index));
}

void Table::bytes(const char* key, std::string_view value) {
  Column& c = at(key, Column::kBytes);
  c.u8.insert(c.u8.end(), value.begin(), value.end());
  c.offsets.push_back(static_cast<int32_t>(c.u8.size()));
}

void Table::triple(const char* key, int32_t x, int32_t y, int32_t z) {
  Column& c = at(key, Column::kTriple);
  c.i32.push_back(x);
  c.i32.push_back(y);
  c.i32.push_back(z);
}

void Table::frames(const char* key, const DecodedRecord& decoded) {
  Column& c = at(key, Column::kFrames);
  for (uint32_t i = 0; i < decoded.frames.python_count; ++i) {
    const perfevent::ZVKPythonFrame frame = python_frame(decoded, i);
    c.u32.push_back(frame.code_id);
    c.u32_2.push_back(frame.instruction & perfevent::kPythonInstructionMask);
    c.u8.push_back((frame.instruction & perfevent::kPythonFrameEntry) ? 1 : 0);
  }
  c.offsets.push_back(static_cast<int32_t>(c.u32.size()));
}

void Group::add(const ZVKRecordReader& record) {
  const char* kind = event_name(record);
  if (kind != m_last_kind) {
    m_last_table = &m_tables[kind];
    m_last_kind = kind;
  }
  m_last_table->begin_row();
  const bool decoded = walk_fields(record, *m_last_table);
  m_last_table->flag("decoded", decoded);
  ++m_records;
}

}  // namespace columns
}  // namespace zorvek
