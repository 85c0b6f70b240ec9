// Decoding and printing of capture files for zvkdump, and its command line.

#include "tools/zvkdumper.h"

#include <linux/perf_event.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/zvkfilereader.h"
#include "zorv/cpu/perf_helpers.h"
#include "zorv/cpu/zvkperfevents.h"
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

std::string hex_number(uint64_t value) {
  char text[19];
  std::snprintf(text, sizeof(text), "0x%" PRIx64, value);
  return text;
}

// One decoded member of a record in both printed forms, so that text and JSON
// come from one extraction.
struct Field {
  std::string text;  // name=value
  std::string json;  // "name":value, one member or more
};

Field field(const std::string& name, const std::string& text_value, const std::string& json_value) {
  return {name + '=' + text_value, json_string(name) + ':' + json_value};
}

Field number_field(const std::string& name, uint64_t value) {
  const std::string digits = std::to_string(value);
  return field(name, digits, digits);
}

// Addresses and bit fields go to JSON as hex strings: many readers hold numbers as
// doubles, which can't hold every 64-bit value.
Field hex_field(const std::string& name, uint64_t value) {
  const std::string hex = hex_number(value);
  return field(name, hex, '"' + hex + '"');
}

// Text is quoted and escaped as in JSON, so a name can't break a line apart.
Field text_field(const std::string& name, const std::string& value) {
  const std::string quoted = json_string(value);
  return field(name, quoted, quoted);
}

// A number with its decoded name: NAME(number) in text, and in JSON the number
// with the name beside it as a member of its own.
Field named_field(const std::string& name, const std::string& number_text,
                  const std::string& number_json, const std::string& decoded) {
  Field named = field(name, decoded + '(' + number_text + ')', number_json);
  named.json += ',' + json_string(name + "_name") + ':' + json_string(decoded);
  return named;
}

const char* cpu_event_name(uint32_t type) {
  static const char* const kNames[] = {"CONFIGURATION", "SAMPLE", "THROTTLE", "UNTHROTTLE", "LOST",
                                       "READ",          "MMAP",   "FORK",     "EXIT"};
  static_assert(sizeof(kNames) / sizeof(kNames[0]) == perfevent::PERF_EVENT_MAX,
                "a name for every CPU event");
  return type < perfevent::PERF_EVENT_MAX ? kNames[type] : "UNKNOWN";
}

// The kernel's call-chain context markers stay in the chain; a name says what
// follows them better than their address-like value.
std::string call_chain_slot(uint64_t address) {
  switch (address) {
    case PERF_CONTEXT_HV: return "hv";
    case PERF_CONTEXT_KERNEL: return "kernel";
    case PERF_CONTEXT_USER: return "user";
    case PERF_CONTEXT_GUEST: return "guest";
    case PERF_CONTEXT_GUEST_KERNEL: return "guest_kernel";
    case PERF_CONTEXT_GUEST_USER: return "guest_user";
    default: return hex_number(address);
  }
}

// Every slot of the chain, two addresses per entry. For an odd number of
// addresses the last slot holds whatever the buffer held before: the record
// doesn't say which case it is, so that slot is shown too.
Field call_chain_field(const ZVKRecordReader& record) {
  std::string text, json;
  for (int i = 0; i < record.num_callchains(); ++i) {
    CallChain entry;
    std::memcpy(&entry, record.callchain_at(i), sizeof(entry));
    for (uint64_t address : {entry.from, entry.to}) {
      const std::string slot = call_chain_slot(address);
      text += (text.empty() ? "" : " ") + slot;
      json += (json.empty() ? "\"" : ",\"") + slot + '"';
    }
  }
  return field("call_chain", '[' + text + ']', '[' + json + ']');
}

// A payload of at least T's size, copied out: payloads may be unaligned.
template <typename T>
bool read_payload(const ZVKRecordReader& record, T* out) {
  if (record.payload_size() < sizeof(T)) return false;
  std::memcpy(out, record.payload(), sizeof(T));
  return true;
}

// An MMAP's fixed fields and its file name, which must end inside the payload:
// strsize isn't trusted, since it could point past the record.
bool read_mmap(const ZVKRecordReader& record, perfevent::ZVKPerfMMap* fixed, std::string* name) {
  if (!read_payload(record, fixed)) return false;
  const char* text = static_cast<const char*>(record.payload()) + sizeof(*fixed);
  const void* nul = std::memchr(text, '\0', record.payload_size() - sizeof(*fixed));
  if (nul == nullptr) return false;
  name->assign(text, static_cast<const char*>(nul) - text);
  return true;
}

std::vector<Field> config_fields(const perfevent::ZVKPerfConfigData& config) {
  const std::string type = std::to_string(config.type);
  const std::string hex_config = hex_number(config.config);
  return {named_field("type", type, type, decode_perf_event_type(config.type)),
          named_field("config", hex_config, '"' + hex_config + '"',
                      decode_perf_config(config.type, config.config)),
          hex_field("config1", config.config1),
          hex_field("config2", config.config2),
          number_field("precise", config.precise),
          number_field("period", config.sample_period),
          number_field("format_id", config.format_id)};
}

bool config_record(const ZVKRecordReader& record, std::vector<Field>* fields) {
  perfevent::ZVKPerfConfigData config;
  if (!read_payload(record, &config)) return false;
  *fields = config_fields(config);
  return true;
}

bool sample_record(const ZVKRecordReader& record, std::vector<Field>* fields) {
  perfevent::ZVKPerfSample sample;
  if (!read_payload(record, &sample)) return false;
  *fields = {hex_field("ip", sample.ip), number_field("id", sample.id),
             number_field("stream_id", sample.stream_id), call_chain_field(record)};
  return true;
}

bool throttle_record(const ZVKRecordReader& record, std::vector<Field>* fields) {
  perfevent::ZVKPerfThrottle throttle;
  if (!read_payload(record, &throttle)) return false;
  *fields = {number_field("id", throttle.id), number_field("stream_id", throttle.stream_id)};
  return true;
}

bool lost_record(const ZVKRecordReader& record, std::vector<Field>* fields) {
  perfevent::ZVKPerfLost lost;
  if (!read_payload(record, &lost)) return false;
  *fields = {number_field("id", lost.id), number_field("stream_id", lost.stream_id),
             number_field("lost", lost.lost)};
  return true;
}

bool mmap_record(const ZVKRecordReader& record, std::vector<Field>* fields) {
  perfevent::ZVKPerfMMap mmap;
  std::string name;
  if (!read_mmap(record, &mmap, &name)) return false;
  *fields = {number_field("id", mmap.id), number_field("stream_id", mmap.stream_id),
             hex_field("addr", mmap.addr), hex_field("len", mmap.len),
             hex_field("pgoff", mmap.pgoff), text_field("file", name)};
  return true;
}

// FORK and EXIT: the child's pid and tid are the record's own.
bool fork_record(const ZVKRecordReader& record, std::vector<Field>* fields) {
  perfevent::ZVKPerfExitFork fork;
  if (!read_payload(record, &fork)) return false;
  *fields = {number_field("id", fork.id), number_field("stream_id", fork.stream_id),
             number_field("ppid", fork.ppid), number_field("ptid", fork.ptid)};
  return true;
}

// The decoded payload of a CPU record. False for an event without a payload
// format (READ is reserved and never written) or a payload too short for its
// format: such a record is shown as bytes.
bool cpu_fields(const ZVKRecordReader& record, std::vector<Field>* fields) {
  using Reader = bool (*)(const ZVKRecordReader&, std::vector<Field>*);
  static const Reader kReaders[] = {config_record, sample_record, throttle_record,
                                    throttle_record, lost_record, nullptr,
                                    mmap_record,   fork_record,   fork_record};
  static_assert(sizeof(kReaders) / sizeof(kReaders[0]) == perfevent::PERF_EVENT_MAX,
                "a slot for every CPU event");
  const uint32_t type = record.event_type();
  return type < perfevent::PERF_EVENT_MAX && kReaders[type] != nullptr &&
         kReaders[type](record, fields);
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

// What a file's CPU sampling records add up to: samples by thread, what the
// kernel dropped or throttled, the mappings and the event configurations.
class CpuSummary {
 public:
  void add(const ZVKRecordReader& record) {
    ++m_records;
    ++m_events[record.event_type()];
    if (!take(record)) ++m_undecoded;
  }

  bool empty() const { return m_records == 0; }

  void print_text(std::ostream& out) const {
    print_events_text(out);
    print_threads_text(out);
    out << "CPU lost: " << m_lost << " in " << m_lost_records << " LOST records\n"
        << "CPU throttles: " << m_throttles << ", unthrottles: " << m_unthrottles << '\n';
    print_mappings_text(out);
    out << "CPU configurations: " << m_configurations.size() << '\n';
    for (const std::vector<Field>& configuration : configuration_rows()) {
      out << " ";
      for (const Field& field : configuration) out << ' ' << field.text;
      out << '\n';
    }
  }

  // The object of the summary's "cpu" member.
  void print_json(std::ostream& out) const {
    out << "{\"record_count\":" << m_records << ",\"undecoded\":" << m_undecoded << ",\"events\":{";
    const char* separator = "";
    for (const auto& event : m_events) {
      out << separator << json_string(event_label(event.first)) << ':' << event.second;
      separator = ",";
    }
    out << "},\"samples_by_thread\":";
    print_json_array(out, thread_rows());
    out << ",\"lost\":" << m_lost << ",\"lost_records\":" << m_lost_records
        << ",\"throttles\":" << m_throttles << ",\"unthrottles\":" << m_unthrottles
        << ",\"mapping_count\":" << m_mappings.size() << ",\"mappings\":";
    print_json_array(out, mapping_rows());
    out << ",\"configurations\":";
    print_json_array(out, configuration_rows());
    out << '}';
  }

 private:
  struct Mapping {
    uint64_t addr;
    uint64_t len;
    uint64_t pgoff;
    std::string file;
  };

  struct ThreadSamples {
    uint32_t pid;
    uint32_t tid;
    uint64_t samples;
  };

  // Counts what the record adds; false when its payload couldn't be read.
  bool take(const ZVKRecordReader& record) {
    switch (record.event_type()) {
      case perfevent::CONFIGURATION: return take_configuration(record);
      case perfevent::SAMPLE: return take_sample(record);
      case perfevent::LOST: return take_lost(record);
      case perfevent::THROTTLE: return take_throttle(record, &m_throttles);
      case perfevent::UNTHROTTLE: return take_throttle(record, &m_unthrottles);
      case perfevent::MMAP: return take_mapping(record);
      case perfevent::FORK:
      case perfevent::EXIT: {
        perfevent::ZVKPerfExitFork fork;
        return read_payload(record, &fork);
      }
      default: return false;
    }
  }

  bool take_configuration(const ZVKRecordReader& record) {
    perfevent::ZVKPerfConfigData config;
    if (!read_payload(record, &config)) return false;
    m_configurations.push_back(config);
    return true;
  }

  bool take_sample(const ZVKRecordReader& record) {
    perfevent::ZVKPerfSample sample;
    if (!read_payload(record, &sample)) return false;
    ++m_samples_by_thread[{record.pid(), record.tid()}];
    ++m_samples_by_id[sample.id];
    return true;
  }

  bool take_lost(const ZVKRecordReader& record) {
    perfevent::ZVKPerfLost lost;
    if (!read_payload(record, &lost)) return false;
    m_lost += lost.lost;
    ++m_lost_records;
    return true;
  }

  static bool take_throttle(const ZVKRecordReader& record, uint64_t* count) {
    perfevent::ZVKPerfThrottle throttle;
    if (!read_payload(record, &throttle)) return false;
    ++*count;
    return true;
  }

  bool take_mapping(const ZVKRecordReader& record) {
    perfevent::ZVKPerfMMap mmap;
    std::string name;
    if (!read_mmap(record, &mmap, &name)) return false;
    m_mappings.push_back({mmap.addr, mmap.len, mmap.pgoff, std::move(name)});
    return true;
  }

  // Most samples first; ties by pid, then tid, so that the order is stable.
  std::vector<ThreadSamples> threads_by_samples() const {
    std::vector<ThreadSamples> threads;
    for (const auto& thread : m_samples_by_thread) {
      threads.push_back({thread.first.first, thread.first.second, thread.second});
    }
    std::stable_sort(threads.begin(), threads.end(),
                     [](const ThreadSamples& a, const ThreadSamples& b) {
                       return a.samples > b.samples;
                     });
    return threads;
  }

  // Samples whose id is a configuration's format_id: the events it fired.
  uint64_t samples_of(uint64_t format_id) const {
    const auto found = m_samples_by_id.find(format_id);
    return found == m_samples_by_id.end() ? 0 : found->second;
  }

  void print_events_text(std::ostream& out) const {
    out << "CPU records by event:\n";
    for (const auto& event : m_events) {
      out << "  " << left_cell(event_label(event.first), 24) << ' '
          << right_cell(std::to_string(event.second), 12) << '\n';
    }
    if (m_undecoded != 0) {
      out << "  (" << m_undecoded << " not decoded: payload too short or event unknown)\n";
    }
  }

  void print_threads_text(std::ostream& out) const {
    out << "CPU samples by thread:\n";
    print_thread_row(out, "pid", "tid", "samples");
    for (const ThreadSamples& thread : threads_by_samples()) {
      print_thread_row(out, std::to_string(thread.pid), std::to_string(thread.tid),
                       std::to_string(thread.samples));
    }
  }

  // Each mapping as the range it covers, in file order.
  void print_mappings_text(std::ostream& out) const {
    out << "CPU mappings: " << m_mappings.size() << '\n';
    for (const Mapping& mapping : m_mappings) {
      out << "  " << hex_number(mapping.addr) << '-' << hex_number(mapping.addr + mapping.len)
          << " pgoff=" << hex_number(mapping.pgoff) << ' ' << json_string(mapping.file) << '\n';
    }
  }

  static std::string event_label(uint32_t type) {
    return type < perfevent::PERF_EVENT_MAX ? cpu_event_name(type)
                                            : "event " + std::to_string(type);
  }

  static void print_thread_row(std::ostream& out, const std::string& pid, const std::string& tid,
                               const std::string& samples) {
    out << "  " << right_cell(pid, 10) << ' ' << right_cell(tid, 10) << ' '
        << right_cell(samples, 12) << '\n';
  }

  std::vector<std::vector<Field>> thread_rows() const {
    std::vector<std::vector<Field>> rows;
    for (const ThreadSamples& thread : threads_by_samples()) {
      rows.push_back({number_field("pid", thread.pid), number_field("tid", thread.tid),
                      number_field("samples", thread.samples)});
    }
    return rows;
  }

  std::vector<std::vector<Field>> mapping_rows() const {
    std::vector<std::vector<Field>> rows;
    for (const Mapping& mapping : m_mappings) {
      rows.push_back({hex_field("addr", mapping.addr), hex_field("len", mapping.len),
                      hex_field("pgoff", mapping.pgoff), text_field("file", mapping.file)});
    }
    return rows;
  }

  // Each configuration decoded, with the number of samples of its event.
  std::vector<std::vector<Field>> configuration_rows() const {
    std::vector<std::vector<Field>> rows;
    for (const perfevent::ZVKPerfConfigData& config : m_configurations) {
      rows.push_back(config_fields(config));
      rows.back().push_back(number_field("samples", samples_of(config.format_id)));
    }
    return rows;
  }

  static void print_json_array(std::ostream& out, const std::vector<std::vector<Field>>& rows) {
    out << '[';
    for (size_t i = 0; i < rows.size(); ++i) {
      out << (i ? ",{" : "{");
      for (size_t j = 0; j < rows[i].size(); ++j) out << (j ? "," : "") << rows[i][j].json;
      out << '}';
    }
    out << ']';
  }

  uint64_t m_records = 0;
  uint64_t m_undecoded = 0;
  std::map<uint32_t, uint64_t> m_events;  // event code -> records
  std::map<std::pair<uint32_t, uint32_t>, uint64_t> m_samples_by_thread;  // (pid, tid) -> samples
  std::unordered_map<uint64_t, uint64_t> m_samples_by_id;
  uint64_t m_lost = 0;
  uint64_t m_lost_records = 0;
  uint64_t m_throttles = 0;
  uint64_t m_unthrottles = 0;
  std::vector<Mapping> m_mappings;  // in file order
  std::vector<perfevent::ZVKPerfConfigData> m_configurations;
};

// Records by kind, and annotation ranges by name: BEGIN and END matched by token.
class Summary {
 public:
  void add(const ZVKRecordReader& record) {
    const uint32_t hw = record.hardware_type();
    std::string kind = hardware_name(hw);
    if (hw == ANNOTATION) kind += std::string(" ") + annotation_name(record.event_type());
    ++m_records_by_kind[kind];
    if (hw == CPU) m_cpu.add(record);
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
    // A capture without CPU sampling keeps its summary as it was.
    if (!m_cpu.empty()) m_cpu.print_text(out);
  }

  // The summary's members of a JSON object, without the braces.
  void print_json(std::ostream& out) const {
    out << "\"records_by_kind\":{";
    const char* separator = "";
    for (const auto& kind : m_records_by_kind) {
      out << separator << json_string(kind.first) << ':' << kind.second;
      separator = ",";
    }
    out << "},\"cpu\":";
    m_cpu.print_json(out);
    out << ",\"ranges\":[";
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
  CpuSummary m_cpu;
};

void print_annotation_text(const ZVKRecordReader& record, std::ostream& out) {
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
}

void print_cpu_text(const ZVKRecordReader& record, const std::vector<Field>& fields,
                    std::ostream& out) {
  out << ' ' << cpu_event_name(record.event_type()) << " cpu=" << record.device_id()
      << " pid=" << record.pid() << " tid=" << record.tid();
  for (const Field& field : fields) out << ' ' << field.text;
  out << '\n';
}

// A record of a source or event this dump doesn't decode, or one whose payload is
// too short for its format: the header's numbers and the payload's bytes.
void print_raw_text(const ZVKRecordReader& record, std::ostream& out) {
  out << " device=" << record.device_id() << " event=" << record.event_type()
      << " pid=" << record.pid() << " tid=" << record.tid()
      << " callchain=" << record.num_callchains() << " payload=" << record.payload_size() << " "
      << hex_bytes(record.payload(), record.payload_size()) << "\n";
}

void print_record_text(const ZVKRecordReader& record, std::ostream& out) {
  const uint32_t hw = record.hardware_type();
  out << "    " << record.timestamp() << ' ' << hardware_name(hw);
  std::vector<Field> fields;
  if (hw == ANNOTATION) {
    print_annotation_text(record, out);
  } else if (hw == CPU && cpu_fields(record, &fields)) {
    print_cpu_text(record, fields, out);
  } else {
    print_raw_text(record, out);
  }
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
  std::vector<Field> fields;
  if (hw == CPU && cpu_fields(record, &fields)) {
    out << ",\"event\":\"" << cpu_event_name(record.event_type()) << '"';
    for (const Field& field : fields) out << ',' << field.json;
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
    "  --summary      records by kind, annotation ranges and CPU sampling instead\n"
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
