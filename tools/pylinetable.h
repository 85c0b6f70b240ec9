#pragma once

#include <cstddef>
#include <cstdint>

namespace zorvek {

// The source line of the instruction at `byte_offset` in a code object, from the
// code's line table (co_linetable) as the interpreter that ran it keeps it:
// `py_version` is that interpreter's PY_VERSION_HEX, which fixes the table's
// format, `first_line` the code's co_firstlineno. -1 when the instruction has no
// line, lies past the table, or the table can't be read (an older format, or
// bytes that don't follow the format: they are never read past `size`).
int python_line(uint32_t py_version, int first_line, const uint8_t* table, size_t size,
                uint32_t byte_offset);

}  // namespace zorvek
