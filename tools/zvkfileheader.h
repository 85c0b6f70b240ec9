#pragma once

#include <ostream>
#include <string>

#include "zorv/format/file.h"
#include "zorv/utils/status.h"

namespace zorvek {

// The strings that follow the header's fixed part, in the order they are written.
std::string get_cpu_model_id(const ZVKFileHeader* hdr);
std::string get_jobuid(const ZVKFileHeader* hdr);
std::string get_hostname(const ZVKFileHeader* hdr);
std::string get_instance_type(const ZVKFileHeader* hdr);

// The header's fields and strings, a line each.
Status dump_zvkfile_header(const ZVKFileHeader* hdr, std::ostream& out);

}  // namespace zorvek
