// Decoding and printing of capture files for zvkdump, and its command line.

#include "tools/zvkdumper.h"

#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

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

// Length of the well-formed UTF-8 sequence that starts at `at`, or 0 if none does:
// the byte ranges of the Unicode standard's table of well-formed sequences, which
// leave out overlong forms, surrogates and code points past U+10FFFF.
size_t utf8_sequence_length(const std::string& text, size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80;  // the range of the second byte
  unsigned char high = 0xbf;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;
    if (lead == 0xed) high = 0x9f;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;
    if (lead == 0xf4) high = 0x8f;
  } else {
    return 0;
  }
  if (text.size() - at < length) return 0;
  const auto second = static_cast<unsigned char>(text[at + 1]);
  if (second < low || second > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if ((static_cast<unsigned char>(text[at + i]) & 0xc0) != 0x80) return 0;
  }
  return length;
}

// `text` as a JSON string, quotes included. Valid UTF-8 stays as it is; quotes,
// backslashes and control characters are escaped; a byte that isn't part of valid
// UTF-8 becomes U+FFFD, so that the document is valid whatever a capture holds.
std::string json_string(const std::string& text) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out = "\"";
  out.reserve(text.size() + 2);
  for (size_t at = 0; at < text.size();) {
    const auto c = static_cast<unsigned char>(text[at]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
      ++at;
    } else if (c < 0x20) {
      out += "\\u00";
      out += kDigits[c >> 4];
      out += kDigits[c & 15];
      ++at;
    } else if (const size_t length = utf8_sequence_length(text, at)) {
      out.append(text, at, length);
      at += length;
    } else {
      out += "\\ufffd";
      ++at;
    }
  }
  out += '"';
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

// Table cells: padded to at least `width`, never cut, so a long name only widens
// its own row.
std::string left_cell(const std::string& text, size_t width) {
  return text.size() < width ? text + std::string(width - text.size(), ' ') : text;
}

std::string right_cell(const std::string& text, size_t width) {
  return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string three_decimals(double value) {
  std::ostringstream text;
  text.setf(std::ios::fixed);
  text.precision(3);
  text << value;
  return text.str();
}

struct RangeStats {
  uint64_t count = 0;
  uint64_t total_ns = 0;
};

// Records by kind, and annotation ranges by name: BEGIN and END matched by token.
class Summary {
 public:
  void add(const ZVKRecordReader& record) {
    const uint32_t hw = record.hardware_type();
    std::string kind = hardware_name(hw);
    if (hw == ANNOTATION) kind += std::string(" ") + annotation_name(record.event_type());
    ++m_records_by_kind[kind];
    if (hw != ANNOTATION || record.payload_size() < 8) return;
    const uint64_t token = read_u64(record.payload());
    if (record.event_type() == annotations::BEGIN) {
      m_open_ranges[token] = {message_of(record), record.timestamp()};
    } else if (record.event_type() == annotations::END) {
      end_range(token, record.timestamp());
    }
  }

  void print_text(std::ostream& out) const {
    out << "Records by kind:\n";
    for (const auto& kind : m_records_by_kind) {
      out << "  " << left_cell(kind.first, 24) << ' ' << right_cell(std::to_string(kind.second), 12)
          << '\n';
    }
    out << "Annotation ranges:\n";
    print_range_row(out, "name", "count", "total ms", "mean us");
    for (const auto& range : m_ranges) {
      const RangeStats& s = range.second;
      print_range_row(out, range.first, std::to_string(s.count), three_decimals(s.total_ns / 1e6),
                      three_decimals(s.total_ns / 1e3 / static_cast<double>(s.count)));
    }
    if (!m_open_ranges.empty()) out << "  (" << m_open_ranges.size() << " begins without an end)\n";
    if (m_unmatched_ends != 0) out << "  (" << m_unmatched_ends << " ends without a begin)\n";
  }

  // The summary's members of a JSON object, without the braces.
  void print_json(std::ostream& out) const {
    out << "\"records_by_kind\":{";
    const char* separator = "";
    for (const auto& kind : m_records_by_kind) {
      out << separator << json_string(kind.first) << ':' << kind.second;
      separator = ",";
    }
    out << "},\"ranges\":[";
    separator = "";
    for (const auto& range : m_ranges) {
      out << separator << "{\"name\":" << json_string(range.first)
          << ",\"count\":" << range.second.count
          << ",\"total_ns\":" << range.second.total_ns << '}';
      separator = ",";
    }
    out << "],\"begins_without_end\":" << m_open_ranges.size()
        << ",\"ends_without_begin\":" << m_unmatched_ends;
  }

 private:
  void end_range(uint64_t token, uint64_t timestamp) {
    auto begin = m_open_ranges.find(token);
    if (begin == m_open_ranges.end()) {
      ++m_unmatched_ends;
      return;
    }
    RangeStats& stats = m_ranges[begin->second.first];
    ++stats.count;
    stats.total_ns += timestamp - begin->second.second;
    m_open_ranges.erase(begin);
  }

  static void print_range_row(std::ostream& out, const std::string& name, const std::string& count,
                              const std::string& total, const std::string& mean) {
    out << "  " << left_cell(name, 32) << ' ' << right_cell(count, 8) << ' '
        << right_cell(total, 14) << ' ' << right_cell(mean, 14) << '\n';
  }

  std::map<std::string, uint64_t> m_records_by_kind;
  std::unordered_map<uint64_t, std::pair<std::string, uint64_t>> m_open_ranges;  // token -> begin
  std::map<std::string, RangeStats> m_ranges;
  uint64_t m_unmatched_ends = 0;
};

void print_record_text(const ZVKRecordReader& record, std::ostream& out) {
  const uint32_t hw = record.hardware_type();
  out << "    " << record.timestamp() << ' ' << hardware_name(hw);
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
      out << ",\"msg\":" << json_string(message_of(record));
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
      << ",\"num_buckets\":" << hdr->num_buckets
      << ",\"cpu_model\":" << json_string(get_cpu_model_id(hdr))
      << ",\"job_uid\":" << json_string(get_jobuid(hdr))
      << ",\"hostname\":" << json_string(get_hostname(hdr))
      << ",\"instance_type\":" << json_string(get_instance_type(hdr)) << "}";
}

// Shows on the error stream how far the run has got: once it is older than the
// quiet time, after a bucket at most once per interval, and always a file's end
// once that file's line has been shown.
class Progress {
 public:
  Progress(const ProgressOptions& options, std::ostream& err)
      : m_options(options), m_err(err), m_next(Clock::now() + options.quiet_for) {}

  void after_bucket(const std::string& path, uint64_t offset, uint64_t size, uint64_t buckets) {
    if (!m_options.enabled) return;
    const Clock::time_point now = Clock::now();
    if (now < m_next) return;
    m_next = now + m_options.every;
    show(line(path, offset * 100 / size, buckets));
  }

  // Completes the file's line, if it has one, before anything else goes to `err`.
  void finish(const std::string& path, uint64_t buckets) {
    if (m_shown.empty()) return;
    const std::string last = line(path, 100, buckets);
    if (last != m_shown) show(last);
    if (m_options.in_place) m_err << '\n';
    m_shown.clear();
  }

 private:
  using Clock = std::chrono::steady_clock;

  static std::string line(const std::string& path, uint64_t percent, uint64_t buckets) {
    return "zvkdump: " + path + ": " + std::to_string(percent) + "% (" + std::to_string(buckets) +
           (buckets == 1 ? " bucket)" : " buckets)");
  }

  void show(const std::string& text) {
    // In place, each update is as long as the last or longer: the figures only grow.
    if (m_options.in_place) {
      m_err << '\r' << text;
    } else {
      m_err << text << '\n';
    }
    m_err.flush();
    m_shown = text;
  }

  const ProgressOptions& m_options;
  std::ostream& m_err;
  Clock::time_point m_next;
  std::string m_shown;  // the current file's last line shown; empty before the first
};

// One readable file's dump, from its header to its closing lines.
class FileDump {
 public:
  FileDump(const std::string& path, const DumpOptions& options, Progress& progress,
           std::ostream& out)
      : m_path(path), m_options(options), m_progress(progress), m_out(out) {}

  // Why the file can't be read at all, or OK.
  Status open() { return m_file.open(m_path); }

  // Prints the whole dump; returns the damage found, one message per damaged run
  // of bytes. A torn end is no damage: it is only noted.
  std::vector<std::string> run() {
    print_head();
    read_buckets();
    print_tail();
    return m_damage;
  }

 private:
  bool json() const { return m_options.format == DumpFormat::kJson; }

  void print_head() {
    const ZVKFileHeader* hdr = m_file.header();
    if (json()) {
      m_out << "{\"file\":" << json_string(m_path) << ",\"header\":";
      print_header_json(hdr, m_out);
      m_out << (m_options.summary ? "," : ",\"buckets\":[");
      return;
    }
    if (m_options.summary) return;
    m_out << "File " << m_path << " (" << m_file.file_size() << " bytes)\n";
    dump_zvkfile_header(hdr, m_out);
    m_out << "\n";
    if (hdr->num_buckets == 0) {
      m_out << "Header was never rewritten with final counts (num_buckets 0); reading buckets to "
               "the end of the file\n";
    }
  }

  void read_buckets() {
    std::unique_ptr<ZVKBucketReader> bucket;
    for (;;) {
      const uint64_t offset = m_file.next_bucket_offset();
      const Status next = m_file.next_bucket(&bucket);
      if (next.code_ == error::END_OF_DATA) break;
      if (!next.ok()) {
        m_notes.push_back(next.msg_);
        if (!m_file.torn()) m_damage.push_back(next.msg_);
        continue;
      }
      take_bucket(*bucket, offset);
      ++m_buckets;
      m_progress.after_bucket(m_path, m_file.next_bucket_offset(), m_file.file_size(), m_buckets);
    }
    m_progress.finish(m_path, m_buckets);
  }

  // The reader has walked the records already: here they are all whole.
  void take_bucket(ZVKBucketReader& bucket, uint64_t offset) {
    if (m_options.summary) {
      ZVKRecordReader record;
      while (bucket.get_next_record(record).ok()) m_summary.add(record);
    } else if (json()) {
      print_bucket_json(bucket, offset);
    } else {
      print_bucket_text(bucket, offset);
    }
  }

  void print_bucket_json(ZVKBucketReader& bucket, uint64_t offset) {
    m_out << (m_buckets ? "," : "") << "{\"offset\":" << offset
          << ",\"tmin\":" << bucket.get_bucket_start_time()
          << ",\"tmax\":" << bucket.get_bucket_end_time()
          << ",\"number_of_records\":" << bucket.get_number_of_records_in_bucket()
          << ",\"compressed_size\":" << bucket.get_compressed_size()
          << ",\"uncompressed_size\":" << bucket.get_uncompressed_size() << ",\"records\":[";
    ZVKRecordReader record;
    for (const char* separator = ""; bucket.get_next_record(record).ok(); separator = ",") {
      m_out << separator;
      print_record_json(record, m_out);
    }
    m_out << "]}";
  }

  void print_bucket_text(ZVKBucketReader& bucket, uint64_t offset) {
    m_out << "Bucket " << m_buckets << " @" << offset << ": tmin=" << bucket.get_bucket_start_time()
          << " tmax=" << bucket.get_bucket_end_time()
          << " records=" << bucket.get_number_of_records_in_bucket()
          << " compressed=" << bucket.get_compressed_size()
          << " uncompressed=" << bucket.get_uncompressed_size() << "\n";
    ZVKRecordReader record;
    while (bucket.get_next_record(record).ok()) print_record_text(record, m_out);
  }

  void print_tail() {
    if (json()) {
      print_tail_json();
      return;
    }
    if (m_options.summary) {
      m_out << "File " << m_path << ": " << m_buckets << " buckets\n";
      m_summary.print_text(m_out);
    } else {
      m_out << m_buckets << " whole buckets\n";
    }
    for (const std::string& note : m_notes) m_out << "Note: " << note << "\n";
  }

  void print_tail_json() {
    if (m_options.summary) {
      m_out << "\"whole_buckets\":" << m_buckets << ',';
      m_summary.print_json(m_out);
    } else {
      m_out << ']';
    }
    std::string problem;
    for (const std::string& note : m_notes) problem += (problem.empty() ? "" : "; ") + note;
    m_out << ",\"problem\":" << json_string(problem)
          << ",\"clean\":" << (m_damage.empty() ? "true" : "false") << '}';
  }

  const std::string& m_path;
  const DumpOptions& m_options;
  Progress& m_progress;
  std::ostream& m_out;
  ZVKFileReader m_file;
  Summary m_summary;
  uint64_t m_buckets = 0;
  std::vector<std::string> m_notes;   // the torn end and the damage, in file order
  std::vector<std::string> m_damage;  // the notes that make the file count as failed
};

// Dumps one file; returns whether it was read whole.
bool dump_file(const std::string& path, const DumpOptions& options, Progress& progress,
               std::ostream& out, std::ostream& err) {
  FileDump dump(path, options, progress, out);
  const Status opened = dump.open();
  if (!opened.ok()) {
    // In JSON the file keeps its place in the document, with the reason.
    if (options.format == DumpFormat::kJson) {
      out << "{\"file\":" << json_string(path) << ",\"problem\":" << json_string(opened.msg_)
          << ",\"clean\":false}";
    }
    err << "zvkdump: " << path << ": " << opened.msg_ << "\n";
    return false;
  }
  const std::vector<std::string> damage = dump.run();
  for (const std::string& problem : damage) err << "zvkdump: " << path << ": " << problem << "\n";
  return damage.empty();
}

const char kUsage[] =
    "usage: zvkdump [--json] [--summary] [--progress | --no-progress] [--] FILE...\n"
    "Prints capture files (.zvkraw): the header, then every bucket and record.\n"
    "  --summary      records by kind and annotation ranges instead\n"
    "  --json         as one JSON document: an object for one file, an array for several\n"
    "  --progress     progress on stderr even when it isn't a terminal\n"
    "  --no-progress  no progress, not even on a terminal\n"
    "  -h, --help     this text\n";

}  // namespace

bool dump_files(const std::vector<std::string>& paths, const DumpOptions& options,
                std::ostream& out, std::ostream& err) {
  Progress progress(options.progress, err);
  const bool json = options.format == DumpFormat::kJson;
  const bool array = json && paths.size() != 1;
  if (array) out << '[';
  bool all_whole = true;
  for (size_t i = 0; i < paths.size(); ++i) {
    if (array) out << (i ? ",\n" : "\n");
    all_whole = dump_file(paths[i], options, progress, out, err) && all_whole;
  }
  if (array) out << "\n]";
  if (json) out << '\n';
  return all_whole;
}

CommandLine parse_command_line(const std::vector<std::string>& args, Terminals terminals) {
  CommandLine line;
  enum class Choice { kDefault, kOn, kOff } progress = Choice::kDefault;
  bool options_ended = false;
  for (const std::string& arg : args) {
    // "-" alone is a name, as it is to most tools.
    if (options_ended || arg.size() < 2 || arg[0] != '-') {
      line.files.push_back(arg);
    } else if (arg == "--") {
      options_ended = true;
    } else if (arg == "--json") {
      line.options.format = DumpFormat::kJson;
    } else if (arg == "--summary") {
      line.options.summary = true;
    } else if (arg == "--progress") {
      progress = Choice::kOn;
    } else if (arg == "--no-progress") {
      progress = Choice::kOff;
    } else if (arg == "-h" || arg == "--help") {
      line.help = true;
    } else {
      line.error = "unknown option '" + arg + "'";
      return line;
    }
  }
  if (!line.help && line.files.empty()) line.error = "no capture file given";
  // By default progress goes to a terminal, but not when records stream to a
  // terminal too: the line would cut into them. A summary is printed only after
  // its file's line is complete.
  const bool records_on_terminal = terminals.out && !line.options.summary;
  line.options.progress.enabled =
      progress == Choice::kOn ||
      (progress == Choice::kDefault && terminals.err && !records_on_terminal);
  line.options.progress.in_place = terminals.err;
  return line;
}

int zvkdump_main(const std::vector<std::string>& args, Terminals terminals, std::ostream& out,
                 std::ostream& err) {
  const CommandLine line = parse_command_line(args, terminals);
  if (!line.error.empty()) {
    err << "zvkdump: " << line.error << "\n" << kUsage;
    return 2;
  }
  if (line.help) {
    out << kUsage;
    return 0;
  }
  return dump_files(line.files, line.options, out, err) ? 0 : 1;
}

}  // namespace zorvek
