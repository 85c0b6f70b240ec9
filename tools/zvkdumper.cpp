// Decoding and printing of capture files for zvkdump.

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/zvkdumper.h"
#include "tools/zvkfilereader.h"
#include "zorv/io/zvkfile.h"
#include "zorv/zvkannotator.h"

namespace zorvek {
namespace {

const char* hardware_name(uint32_t hw) {
  static const char* const kNames[] = {"CPU", "GPU", "GAUDI", "TESSERA", "LUMENIA", "ANNOTATION"};
  return hw < NUM_HW_TYPES ? kNames[hw] : "UNKNOWN";
}

const char* annotation_name(uint32_t type) {
  static const char* const kNames[] = {"BEGIN", "END", "TIME_MARKER", "MARKER"};
  return type < annotations::NUM_ANNOTATION_TYPES ? kNames[type] : "UNKNOWN";
}

std::string json_escape(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 2);
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (c < 0x20 || c >= 0x7f) {
          char hex[8];
          snprintf(hex, sizeof(hex), "\\u%04x", c);
          out += hex;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out;
}

uint64_t read_u64(const void* at) {
  uint64_t value;
  std::memcpy(&value, at, sizeof(value));
  return value;
}

// The message of a BEGIN or MARKER: up to its terminator, within the payload.
std::string message_of(const ZVKRecordReader& record) {
  const uint16_t size = record.payload_size();
  if (size <= 8) return std::string();
  const char* text = static_cast<const char*>(record.payload()) + 8;
  const void* nul = std::memchr(text, '\0', size - 8);
  return std::string(text, nul != nullptr ? static_cast<const char*>(nul) - text : size - 8);
}

std::string hex_bytes(const void* data, size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < size; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 15];
  }
  return out;
}

struct RangeStats {
  uint64_t count = 0;
  uint64_t total_ns = 0;
};

struct Summary {
  std::map<std::string, uint64_t> records_by_kind;
  std::unordered_map<uint64_t, std::pair<std::string, uint64_t>> open_ranges;  // token -> begin
  std::map<std::string, RangeStats> ranges;
  uint64_t unmatched_ends = 0;

  void add(const ZVKRecordReader& record) {
    const uint32_t hw = record.hardware_type();
    std::string kind = hardware_name(hw);
    if (hw == ANNOTATION) kind += std::string(" ") + annotation_name(record.event_type());
    ++records_by_kind[kind];
    if (hw != ANNOTATION || record.payload_size() < 8) return;
    const uint64_t token = read_u64(record.payload());
    if (record.event_type() == annotations::BEGIN) {
      open_ranges[token] = {message_of(record), record.timestamp()};
    } else if (record.event_type() == annotations::END) {
      auto begin = open_ranges.find(token);
      if (begin == open_ranges.end()) {
        ++unmatched_ends;
        return;
      }
      RangeStats& stats = ranges[begin->second.first];
      ++stats.count;
      stats.total_ns += record.timestamp() - begin->second.second;
      open_ranges.erase(begin);
    }
  }

  void print(std::ostream& out) const {
    out << "Records by kind:\n";
    for (const auto& kind : records_by_kind) {
      char line[128];
      snprintf(line, sizeof(line), "  %-24s %12" PRIu64 "\n", kind.first.c_str(), kind.second);
      out << line;
    }
    out << "Annotation ranges:\n";
    char line[512];
    snprintf(line, sizeof(line), "  %-32s %8s %14s %14s\n", "name", "count", "total ms", "mean us");
    out << line;
    for (const auto& range : ranges) {
      const RangeStats& s = range.second;
      snprintf(line, sizeof(line), "  %-32s %8" PRIu64 " %14.3f %14.3f\n", range.first.c_str(),
               s.count, s.total_ns / 1e6, s.total_ns / 1e3 / static_cast<double>(s.count));
      out << line;
    }
    if (!open_ranges.empty()) out << "  (" << open_ranges.size() << " begins without an end)\n";
    if (unmatched_ends != 0) out << "  (" << unmatched_ends << " ends without a begin)\n";
  }
};

void print_record_text(const ZVKRecordReader& record, std::ostream& out) {
  const uint32_t hw = record.hardware_type();
  char head[160];
  snprintf(head, sizeof(head), "    %" PRIu64 " %s", record.timestamp(), hardware_name(hw));
  out << head;
  if (hw == ANNOTATION) {
    const uint32_t type = record.event_type();
    out << " " << annotation_name(type) << " cpu=" << record.device_id() << " pid=" << record.pid()
        << " tid=" << record.tid();
    if ((type == annotations::BEGIN || type == annotations::MARKER) && record.payload_size() >= 8) {
      out << " token=" << read_u64(record.payload()) << " msg=\"" << message_of(record) << "\"";
    } else if (type == annotations::END && record.payload_size() >= 8) {
      out << " token=" << read_u64(record.payload());
    } else if (type == annotations::TIME_MARKER &&
               record.payload_size() >= sizeof(annotations::time_marker)) {
      annotations::time_marker marker;
      std::memcpy(&marker, record.payload(), sizeof(marker));
      for (int i = 0; i < annotations::kClockPairs; ++i) {
        out << "\n      monotonic_raw=" << marker.monotic[i] << " realtime=" << marker.realtime[i];
      }
    } else {
      out << " payload=" << hex_bytes(record.payload(), record.payload_size());
    }
    out << "\n";
    return;
  }
  out << " device=" << record.device_id() << " event=" << record.event_type()
      << " pid=" << record.pid() << " tid=" << record.tid()
      << " callchain=" << record.num_callchains() << " payload=" << record.payload_size() << " "
      << hex_bytes(record.payload(), record.payload_size()) << "\n";
}

void print_record_json(const ZVKRecordReader& record, std::ostream& out) {
  const uint32_t hw = record.hardware_type();
  out << "{\"timestamp\":" << record.timestamp() << ",\"hw_type\":" << hw
      << ",\"device_id\":" << record.device_id() << ",\"event_type\":" << record.event_type()
      << ",\"pid\":" << record.pid() << ",\"tid\":" << record.tid()
      << ",\"call_chain_size\":" << record.num_callchains()
      << ",\"payload_size\":" << record.payload_size();
  if (hw == ANNOTATION && record.payload_size() >= 8) {
    const uint32_t type = record.event_type();
    if (type == annotations::BEGIN || type == annotations::MARKER || type == annotations::END) {
      out << ",\"token\":" << read_u64(record.payload());
    }
    if (type == annotations::BEGIN || type == annotations::MARKER) {
      out << ",\"msg\":\"" << json_escape(message_of(record)) << "\"";
    }
    if (type == annotations::TIME_MARKER && record.payload_size() >= sizeof(annotations::time_marker)) {
      annotations::time_marker marker;
      std::memcpy(&marker, record.payload(), sizeof(marker));
      out << ",\"monotonic_raw\":[";
      for (int i = 0; i < annotations::kClockPairs; ++i) out << (i ? "," : "") << marker.monotic[i];
      out << "],\"realtime\":[";
      for (int i = 0; i < annotations::kClockPairs; ++i) out << (i ? "," : "") << marker.realtime[i];
      out << "]";
    }
  }
  out << ",\"payload_hex\":\"" << hex_bytes(record.payload(), record.payload_size()) << "\"}";
}

void print_header_json(const ZVKFileHeader* hdr, std::ostream& out) {
  out << "{\"version\":" << hdr->ZVKVersion << ",\"compression\":" << hdr->compression
      << ",\"config\":" << hdr->ZVKConfig << ",\"start_time\":" << hdr->start_time
      << ",\"end_time\":" << hdr->end_time << ",\"clock_shift\":" << hdr->clock_shift
      << ",\"pid\":" << hdr->pid << ",\"max_bucket_size\":" << hdr->max_bucket_size
      << ",\"max_uncompressed_size\":" << hdr->max_uncompressed_size
      << ",\"num_buckets\":" << hdr->num_buckets << ",\"cpu_model\":\""
      << json_escape(get_cpu_model_id(hdr)) << "\",\"job_uid\":\"" << json_escape(get_jobuid(hdr))
      << "\",\"hostname\":\"" << json_escape(get_hostname(hdr)) << "\",\"instance_type\":\""
      << json_escape(get_instance_type(hdr)) << "\"}";
}

}  // namespace

bool dump_file(const std::string& path, DumpMode mode, std::ostream& out, std::ostream& err) {
  ZVKFileReader file;
  Status opened = file.open(path);
  if (!opened.ok()) {
    err << "zvkdump: " << path << ": " << opened.msg_ << std::endl;
    return false;
  }
  const ZVKFileHeader* hdr = file.header();
  const bool json = mode == DumpMode::kJson;
  if (json) {
    out << "{\"file\":\"" << json_escape(path) << "\",\"header\":";
    print_header_json(hdr, out);
    out << ",\"buckets\":[";
  } else {
    out << "File " << path << " (" << file.file_size() << " bytes)\n";
    dump_zvkfile_header(hdr, out);
    out << "\n";
    if (hdr->num_buckets == 0) {
      out << "Header was never rewritten with final counts (num_buckets 0); reading buckets to the "
             "end of the file\n";
    }
  }

  Summary summary;
  bool clean = true;
  std::string problem;
  uint64_t bucket_index = 0;
  std::unique_ptr<ZVKBucketReader> bucket;
  for (;;) {
    const uint64_t offset = file.next_bucket_offset();
    Status next = file.next_bucket(&bucket);
    if (next.code_ == error::END_OF_DATA) break;
    if (!next.ok()) {
      problem = next.msg_;
      clean = file.torn();
      break;
    }
    if (json) {
      out << (bucket_index ? "," : "") << "{\"offset\":" << offset
          << ",\"tmin\":" << bucket->get_bucket_start_time()
          << ",\"tmax\":" << bucket->get_bucket_end_time()
          << ",\"number_of_records\":" << bucket->get_number_of_records_in_bucket()
          << ",\"compressed_size\":" << bucket->get_compressed_size()
          << ",\"uncompressed_size\":" << bucket->get_uncompressed_size() << ",\"records\":[";
    } else if (mode == DumpMode::kText) {
      out << "Bucket " << bucket_index << " @" << offset << ": tmin=" << bucket->get_bucket_start_time()
          << " tmax=" << bucket->get_bucket_end_time()
          << " records=" << bucket->get_number_of_records_in_bucket()
          << " compressed=" << bucket->get_compressed_size()
          << " uncompressed=" << bucket->get_uncompressed_size() << "\n";
    }
    uint64_t count = 0;
    ZVKRecordReader record;
    Status walked;
    while ((walked = bucket->get_next_record(record)).ok()) {
      if (json) {
        out << (count ? "," : "");
        print_record_json(record, out);
      } else if (mode == DumpMode::kText) {
        print_record_text(record, out);
      }
      summary.add(record);
      ++count;
    }
    if (json) out << "]}";
    if (walked.code_ != error::END_OF_DATA) {
      problem = "bucket " + std::to_string(bucket_index) + " at offset " + std::to_string(offset) +
                " is damaged: " + walked.msg_;
      clean = false;
      break;
    }
    if (count != bucket->get_number_of_records_in_bucket()) {
      problem = "bucket " + std::to_string(bucket_index) + " at offset " + std::to_string(offset) +
                " holds " + std::to_string(count) + " records but its header says " +
                std::to_string(bucket->get_number_of_records_in_bucket());
      clean = false;
      break;
    }
    ++bucket_index;
  }

  if (json) {
    out << "],\"problem\":\"" << json_escape(problem) << "\",\"clean\":" << (clean ? "true" : "false")
        << "}\n";
  } else {
    if (mode == DumpMode::kSummary) {
      out << "File " << path << ": " << bucket_index << " buckets\n";
      summary.print(out);
    } else {
      out << bucket_index << " whole buckets\n";
    }
    if (!problem.empty()) out << "Note: " << problem << "\n";
  }
  if (!clean) err << "zvkdump: " << path << ": " << problem << std::endl;
  return clean;
}

}  // namespace zorvek

