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
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/zvkbucketreader.h"
#include "tools/zvkfileheader.h"
#include "tools/zvkfilereader.h"
#include "tools/zvkrecords.h"
#include "tools/zvksummary.h"
#include "zorv/cpu/perf_helpers.h"
#include "zorv/format/annotation.h"
#include "zorv/format/cuda.h"
#include "zorv/format/perf.h"

namespace zorvek {
namespace {

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

// Every slot of the chain, two addresses per entry, each as `slot_text` shows it.
// For an odd number of addresses the last slot holds whatever the writer left
// there (the sampler: the buffer's old bytes; a traced call: 0): the record
// doesn't say which case it is, so that slot is shown too.
Field call_chain_field(const ZVKRecordReader& record, std::string (*slot_text)(uint64_t)) {
  std::string text, json;
  for (int i = 0; i < record.num_callchains(); ++i) {
    CallChain entry;
    std::memcpy(&entry, record.callchain_at(i), sizeof(entry));
    for (uint64_t address : {entry.from, entry.to}) {
      const std::string slot = slot_text(address);
      text += (text.empty() ? "" : " ") + slot;
      json += (json.empty() ? "\"" : ",\"") + slot + '"';
    }
  }
  return field("call_chain", '[' + text + ']', '[' + json + ']');
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

Field signed_field(const std::string& name, int64_t value) {
  const std::string digits = std::to_string(value);
  return field(name, digits, digits);
}

// A fixed word: bare in text, a string in JSON.
Field word_field(const std::string& name, const std::string& word) {
  return field(name, word, json_string(word));
}

// Bits by their names, joined by '|'; bits without a name as hex; "none" for no
// bit at all.
std::string flag_names(uint64_t flags, const std::vector<std::pair<uint64_t, const char*>>& names) {
  std::string text;
  for (const auto& name : names) {
    if (!(flags & name.first)) continue;
    text += (text.empty() ? "" : "|") + std::string(name.second);
    flags &= ~name.first;
  }
  if (flags != 0) text += (text.empty() ? "" : "|") + hex_number(flags);
  return text.empty() ? "none" : text;
}

Field flags_field(uint64_t flags, const std::vector<std::pair<uint64_t, const char*>>& names) {
  const std::string hex = hex_number(flags);
  return named_field("flags", hex, '"' + hex + '"', flag_names(flags, names));
}

// A stack sample's native frames, leaf first.
Field native_frames_field(const DecodedRecord& decoded) {
  std::string text, json;
  for (uint32_t i = 0; i < decoded.frames.native_count; ++i) {
    const std::string address = hex_number(native_frame(decoded, i));
    text += (i ? " " : "") + address;
    json += (i ? ",\"" : "\"") + address + '"';
  }
  return field("native", '[' + text + ']', '[' + json + ']');
}

// Python frames, leaf first: CODE@OFFSET in text, "(entry)" after the frame an
// evaluation call began with.
Field python_frames_field(const DecodedRecord& decoded) {
  std::string text, json;
  for (uint32_t i = 0; i < decoded.frames.python_count; ++i) {
    const perfevent::ZVKPythonFrame frame = python_frame(decoded, i);
    const std::string code = std::to_string(frame.code_id);
    const std::string offset = std::to_string(frame.instruction & perfevent::kPythonInstructionMask);
    const bool entry = (frame.instruction & perfevent::kPythonFrameEntry) != 0;
    text += (i ? " " : "") + code + '@' + offset + (entry ? "(entry)" : "");
    json += std::string(i ? "," : "") + "{\"code_id\":" + code + ",\"offset\":" + offset +
            ",\"entry\":" + (entry ? "true" : "false") + '}';
  }
  return field("python", '[' + text + ']', '[' + json + ']');
}

std::vector<Field> stack_fields(const DecodedRecord& decoded) {
  using namespace perfevent;
  const ZVKStackSample& stack = decoded.fixed.stack;
  const char* clock = sample_clock_name(stack.clock);
  return {number_field("weight_ns", stack.weight_ns),
          word_field("clock", std::strcmp(clock, "UNKNOWN") != 0 ? std::string(clock)
                                                                 : std::to_string(stack.clock)),
          flags_field(stack.flags, {{STACK_WAITING, "WAITING"},
                                    {STACK_NATIVE_CUT, "NATIVE_CUT"},
                                    {STACK_PYTHON_CUT, "PYTHON_CUT"},
                                    {STACK_NO_NATIVE, "NO_NATIVE"}}),
          native_frames_field(decoded), python_frames_field(decoded)};
}

// PY_VERSION_HEX as Python writes its version: 3.11.7, 3.13.0rc1.
std::string python_version_name(uint32_t version) {
  std::string name = std::to_string(version >> 24) + '.' + std::to_string((version >> 16) & 0xff) +
                     '.' + std::to_string((version >> 8) & 0xff);
  const uint32_t level = (version >> 4) & 0xf;
  if (level == 0xf) return name;
  const char* level_name = level == 0xa ? "a" : level == 0xb ? "b" : level == 0xc ? "rc" : "?";
  return name + level_name + std::to_string(version & 0xf);
}

std::vector<Field> python_code_fields(const DecodedRecord& decoded) {
  const perfevent::ZVKPythonCode& code = decoded.fixed.code;
  const std::string version = std::to_string(code.python_version);
  return {number_field("code_id", code.code_id),
          signed_field("first_line", code.first_line),
          named_field("py_version", hex_number(code.python_version), version,
                      python_version_name(code.python_version)),
          text_field("qualname", std::string(decoded.text)),
          text_field("filename", std::string(decoded.frames.filename)),
          flags_field(code.flags, {{perfevent::PYTHON_CODE_LINETABLE_CUT, "LINETABLE_CUT"}}),
          number_field("linetable_size", code.linetable_size),
          word_field("linetable",
                     hex_bytes(decoded.frames.linetable.data(), decoded.frames.linetable.size()))};
}

// The decoded payload of a CPU record as fields. False for a record the decoding
// left as bytes: an event without a payload format (READ is reserved and never
// written) or a payload too short for its format. FORK and EXIT: the child's pid
// and tid are the record's own.
bool cpu_fields(const ZVKRecordReader& record, const DecodedRecord& decoded,
                std::vector<Field>* fields) {
  const DecodedRecord::Fixed& p = decoded.fixed;
  switch (decoded.layout) {
    case DecodedRecord::kCpuStack: *fields = stack_fields(decoded); return true;
    case DecodedRecord::kCpuPythonCode: *fields = python_code_fields(decoded); return true;
    case DecodedRecord::kCpuApiStack:
      *fields = {number_field("correlation", p.api_stack.correlation_id),
                 python_frames_field(decoded)};
      return true;
    case DecodedRecord::kCpuConfiguration: *fields = config_fields(p.config); return true;
    case DecodedRecord::kCpuSample:
      *fields = {hex_field("ip", p.sample.ip), number_field("id", p.sample.id),
                 number_field("stream_id", p.sample.stream_id),
                 call_chain_field(record, call_chain_slot)};
      return true;
    case DecodedRecord::kCpuThrottle:
      *fields = {number_field("id", p.throttle.id),
                 number_field("stream_id", p.throttle.stream_id)};
      return true;
    case DecodedRecord::kCpuLost:
      *fields = {number_field("id", p.lost.id), number_field("stream_id", p.lost.stream_id),
                 number_field("lost", p.lost.lost)};
      return true;
    case DecodedRecord::kCpuMmap:
      *fields = {number_field("id", p.mmap.id), number_field("stream_id", p.mmap.stream_id),
                 hex_field("addr", p.mmap.addr), hex_field("len", p.mmap.len),
                 hex_field("pgoff", p.mmap.pgoff), text_field("file", std::string(decoded.text))};
      return true;
    case DecodedRecord::kCpuForkExit:
      *fields = {number_field("id", p.fork.id), number_field("stream_id", p.fork.stream_id),
                 number_field("ppid", p.fork.ppid), number_field("ptid", p.fork.ptid)};
      return true;
    default: return false;
  }
}

// A number from one of CUPTI's enumerations, with its name.
Field enum_field(const std::string& name, uint64_t value, const char* decoded) {
  const std::string digits = std::to_string(value);
  return named_field(name, digits, digits, decoded);
}

// Grid and block sizes: XxYxZ in text, [X,Y,Z] in JSON.
Field dims_field(const std::string& name, int32_t x, int32_t y, int32_t z) {
  const std::string sx = std::to_string(x), sy = std::to_string(y), sz = std::to_string(z);
  return field(name, sx + 'x' + sy + 'x' + sz, '[' + sx + ',' + sy + ',' + sz + ']');
}

void add_span(const ZVKRecordReader& record, uint64_t end, std::vector<Field>* fields) {
  fields->push_back(number_field("end", end));
  fields->push_back(number_field("duration", duration_of(record, end)));
}

// The name behind an id, when this run has seen it.
void add_name(const GpuNames& names, uint32_t kind, const ZVKRecordReader& record, uint32_t id,
              const std::string& member, std::vector<Field>* fields) {
  if (const std::string* name = names.find(kind, record.pid(), id)) {
    fields->push_back(text_field(member, *name));
  }
}

// A name record's header tid is the device for a kernel's name, and the calling
// thread for a traced call's function name.
std::vector<Field> name_fields(const ZVKRecordReader& record, const DecodedRecord::Name& fixed,
                               std::string_view name) {
  const bool kernel = gpu_kind(record) == cudaevent::kKernelNameKind;
  return {word_field("table", kernel ? "kernel" : "function"),
          number_field(kernel ? "device" : "thread", record.tid()),
          number_field("id", fixed.id), number_field("len_name", fixed.len_name),
          text_field("name", std::string(name))};
}

std::vector<Field> kernel_fields(const ZVKRecordReader& record, const cudaevent::kernel& kernel,
                                 const GpuNames& names) {
  std::vector<Field> fields = {number_field("device", record.tid())};
  add_span(record, kernel.end, &fields);
  fields.insert(fields.end(),
                {number_field("completed", kernel.completed),
                 dims_field("grid", kernel.gridX, kernel.gridY, kernel.gridZ),
                 dims_field("block", kernel.blockX, kernel.blockY, kernel.blockZ),
                 signed_field("grid_id", kernel.gridId),
                 number_field("registers", kernel.pack.registersPerThread),
                 number_field("static_shared_mem", kernel.staticSharedMem),
                 number_field("shm_config", kernel.pack.shmConfig),
                 number_field("launch_type", kernel.pack.launchType),
                 number_field("stream", kernel.streamId),
                 number_field("correlation", kernel.correlationId),
                 number_field("name_id", kernel.pack.nameId)});
  add_name(names, cudaevent::kKernelNameKind, record, kernel.pack.nameId, "name", &fields);
  return fields;
}

// The header tid of a synchronization is the CUDA event's id; akind its type.
std::vector<Field> sync_fields(const ZVKRecordReader& record, const cudaevent::sync& sync) {
  const uint32_t type = gpu_kind(record);
  std::vector<Field> fields = {number_field("event_id", record.tid()),
                               enum_field("type", type, sync_type_name(type))};
  add_span(record, sync.end, &fields);
  fields.insert(fields.end(), {number_field("stream", sync.streamId),
                               number_field("correlation", sync.correlationId)});
  return fields;
}

// What MEMCOPY and MEMCOPY_P2P share: the device, the span, the kinds and the
// size. Of the kinds' 8-byte slot only the four attr bytes are ever written, so
// only they are read.
template <typename Copy>
std::vector<Field> copy_fields(const ZVKRecordReader& record, const Copy& copy) {
  std::vector<Field> fields = {number_field("device", record.tid())};
  add_span(record, copy.end, &fields);
  const cudaevent::copy_attr& attr = copy.attr;
  fields.insert(fields.end(),
                {enum_field("kind", attr.copy_kind, copy_kind_name(attr.copy_kind)),
                 enum_field("src_kind", attr.src_kind, memory_kind_name(attr.src_kind)),
                 enum_field("dst_kind", attr.dst_kind, memory_kind_name(attr.dst_kind)),
                 hex_field("flags", attr.flags), number_field("bytes", copy.bytes)});
  return fields;
}

std::vector<Field> memcopy_fields(const ZVKRecordReader& record, const cudaevent::memcopy& copy) {
  std::vector<Field> fields = copy_fields(record, copy);
  fields.insert(fields.end(), {number_field("stream", copy.streamId),
                               number_field("correlation", copy.correlationId),
                               number_field("runtime_correlation", copy.runtimeCorrId),
                               number_field("context", copy.contextId)});
  return fields;
}

std::vector<Field> p2p_fields(const ZVKRecordReader& record, const cudaevent::memcopy_p2p& copy) {
  std::vector<Field> fields = copy_fields(record, copy);
  fields.insert(fields.end(), {number_field("src_device", copy.srcDevice),
                               number_field("dst_device", copy.dstDevice),
                               number_field("src_context", copy.srcContext),
                               number_field("dst_context", copy.dstContext),
                               number_field("stream", copy.streamId),
                               number_field("correlation", copy.correlationId)});
  return fields;
}

std::vector<Field> memset_fields(const ZVKRecordReader& record, const cudaevent::memset& set) {
  std::vector<Field> fields = {number_field("device", record.tid())};
  add_span(record, set.end, &fields);
  fields.insert(fields.end(), {number_field("bytes", set.size), number_field("value", set.value),
                               enum_field("memkind", set.memkind, memory_kind_name(set.memkind)),
                               hex_field("flags", set.flags), number_field("stream", set.streamId),
                               number_field("correlation", set.correlationId)});
  return fields;
}

// DRIVER and RUNTIME activity: the header tid is the calling thread, and the
// payload repeats CUPTI's own process and thread ids.
std::vector<Field> activity_fields(const ZVKRecordReader& record, const cudaevent::driver& call) {
  std::vector<Field> fields = {number_field("thread", record.tid())};
  add_span(record, call.end, &fields);
  fields.insert(fields.end(), {number_field("process_id", call.pid),
                               number_field("thread_id", call.tid),
                               number_field("correlation", call.correlationId),
                               number_field("return_value", call.returnValue)});
  return fields;
}

// A traced call, with the host's call chain as unwound at its exit: plain
// addresses, none of the kernel's context markers.
std::vector<Field> call_fields(const ZVKRecordReader& record, const cudaevent::callback& call,
                               const GpuNames& names) {
  std::vector<Field> fields = {number_field("thread", record.tid())};
  add_span(record, call.end, &fields);
  fields.insert(fields.end(),
                {enum_field("domain", call.domain, callback_domain_name(call.domain)),
                 number_field("cbid", call.cbid), number_field("correlation", call.correlationId),
                 number_field("function_id", call.funcNameId)});
  add_name(names, cudaevent::kFunctionNameKind, record, call.funcNameId, "function", &fields);
  fields.push_back(call_chain_field(record, hex_number));
  return fields;
}

// The decoded payload of a GPU record as fields. False for a record the decoding
// left as bytes: a type without a payload format, a name record of a kind without
// a table, or a payload too short for its format.
bool gpu_fields(const ZVKRecordReader& record, const DecodedRecord& decoded,
                const GpuNames& names, std::vector<Field>* fields) {
  const DecodedRecord::Fixed& p = decoded.fixed;
  switch (decoded.layout) {
    case DecodedRecord::kGpuName: *fields = name_fields(record, p.name, decoded.text); return true;
    case DecodedRecord::kGpuKernel: *fields = kernel_fields(record, p.kernel, names); return true;
    case DecodedRecord::kGpuSync: *fields = sync_fields(record, p.sync); return true;
    case DecodedRecord::kGpuMemcopy: *fields = memcopy_fields(record, p.memcopy); return true;
    case DecodedRecord::kGpuMemcopyP2P: *fields = p2p_fields(record, p.p2p); return true;
    case DecodedRecord::kGpuMemset: *fields = memset_fields(record, p.memset); return true;
    case DecodedRecord::kGpuActivity: *fields = activity_fields(record, p.activity); return true;
    case DecodedRecord::kGpuCall: *fields = call_fields(record, p.call, names); return true;
    default: return false;
  }
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

std::string milliseconds(uint64_t ns) { return three_decimals(ns / 1e6); }

// Rows of fields as a JSON array of objects.
void print_json_array(std::ostream& out, const std::vector<std::vector<Field>>& rows) {
  out << '[';
  for (size_t i = 0; i < rows.size(); ++i) {
    out << (i ? ",{" : "{");
    for (size_t j = 0; j < rows[i].size(); ++j) out << (j ? "," : "") << rows[i][j].json;
    out << '}';
  }
  out << ']';
}

struct RangeStats {
  uint64_t count = 0;
  uint64_t total_ns = 0;
};

// What the stack sampler's records add up to: samples by clock and by thread, the
// time they stand for, their frames, and the code objects and API call stacks.
class StackSummary {
 public:
  void merge(const summary::Process& p) {
    const summary::Process::Stacks& s = p.stacks;
    m_samples += s.samples;
    m_cpu += s.cpu;
    m_wall += s.wall;
    m_waiting += s.waiting;
    m_native_cut += s.native_cut;
    m_python_cut += s.python_cut;
    m_weight_ns += s.weight_ns;
    m_native_frames += s.native_frames;
    m_python_frames += s.python_frames;
    m_codes += s.codes;
    m_api_stacks += s.api_stacks;
    for (const auto& thread : s.by_tid) m_by_thread[{p.pid, thread.first}] += thread.second;
  }

  bool empty() const { return m_samples == 0 && m_codes == 0 && m_api_stacks == 0; }

  void print_text(std::ostream& out) const {
    out << "CPU stack samples: " << m_samples << " (" << m_cpu << " cpu, " << m_wall << " wall, "
        << m_waiting << " waiting), " << milliseconds(m_weight_ns) << " ms\n"
        << "CPU stack frames: " << m_native_frames << " native, " << m_python_frames
        << " Python; samples cut: " << m_native_cut << " native, " << m_python_cut
        << " Python\n"
        << "CPU stack samples by thread:\n";
    print_thread_row(out, "pid", "tid", "samples");
    for (const auto& thread : threads()) {
      print_thread_row(out, std::to_string(thread.first.first),
                       std::to_string(thread.first.second), std::to_string(thread.second));
    }
    out << "CPU Python code objects: " << m_codes << ", API Python stacks: " << m_api_stacks
        << '\n';
  }

  // The object of the CPU summary's "stacks" member.
  void print_json(std::ostream& out) const {
    out << "{\"samples\":" << m_samples << ",\"cpu\":" << m_cpu << ",\"wall\":" << m_wall
        << ",\"waiting\":" << m_waiting << ",\"weight_ns\":" << m_weight_ns
        << ",\"native_frames\":" << m_native_frames << ",\"python_frames\":" << m_python_frames
        << ",\"native_cut\":" << m_native_cut << ",\"python_cut\":" << m_python_cut
        << ",\"samples_by_thread\":";
    std::vector<std::vector<Field>> rows;
    for (const auto& thread : threads()) {
      rows.push_back({number_field("pid", thread.first.first),
                      number_field("tid", thread.first.second),
                      number_field("samples", thread.second)});
    }
    print_json_array(out, rows);
    out << ",\"python_codes\":" << m_codes << ",\"api_python_stacks\":" << m_api_stacks << '}';
  }

  static void print_thread_row(std::ostream& out, const std::string& pid, const std::string& tid,
                               const std::string& samples) {
    out << "  " << right_cell(pid, 10) << ' ' << right_cell(tid, 10) << ' '
        << right_cell(samples, 12) << '\n';
  }

 private:
  using Thread = std::pair<std::pair<uint32_t, uint32_t>, uint64_t>;  // ((pid, tid), samples)

  // Most samples first; ties by pid, then tid.
  std::vector<Thread> threads() const {
    std::vector<Thread> threads(m_by_thread.begin(), m_by_thread.end());
    std::stable_sort(threads.begin(), threads.end(),
                     [](const Thread& a, const Thread& b) { return a.second > b.second; });
    return threads;
  }

  uint64_t m_samples = 0;
  uint64_t m_cpu = 0;
  uint64_t m_wall = 0;
  uint64_t m_waiting = 0;
  uint64_t m_native_cut = 0;
  uint64_t m_python_cut = 0;
  uint64_t m_weight_ns = 0;
  uint64_t m_native_frames = 0;
  uint64_t m_python_frames = 0;
  uint64_t m_codes = 0;
  uint64_t m_api_stacks = 0;
  std::map<std::pair<uint32_t, uint32_t>, uint64_t> m_by_thread;  // (pid, tid) -> samples
};

// What a file's CPU sampling records add up to: samples by thread, what the
// kernel dropped or throttled, the mappings, the event configurations, and the
// stack sampler's records.
class CpuSummary {
 public:
  void merge(const summary::Process& p) {
    for (uint32_t code = 0; code < summary::Process::kCodes; ++code) {
      if (p.kinds[CPU][code] == 0) continue;
      m_records += p.kinds[CPU][code];
      m_events[code] += p.kinds[CPU][code];
    }
    for (const auto& other : p.other_kinds) {
      if (other.first.first != CPU) continue;
      m_records += other.second;
      m_events[other.first.second] += other.second;
    }
    m_undecoded += p.undecoded_by_hw[CPU];
    for (const auto& thread : p.samples_by_tid) {
      m_samples_by_thread[{p.pid, thread.first}] += thread.second;
    }
    for (const auto& id : p.samples_by_id) m_samples_by_id[id.first] += id.second;
    m_lost += p.lost;
    m_lost_records += p.lost_records;
    m_throttles += p.throttles;
    m_unthrottles += p.unthrottles;
    for (const summary::Mapping& m : p.mappings) {
      m_mappings.push_back({m.addr, m.len, m.pgoff, m.filename});
    }
    m_configurations.insert(p.configurations.begin(), p.configurations.end());
    m_stacks.merge(p);
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
    // A capture without the stack sampler keeps its summary as it was.
    if (!m_stacks.empty()) m_stacks.print_text(out);
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
    out << ",\"stacks\":";
    m_stacks.print_json(out);
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

  // Each mapping as the range it covers.
  void print_mappings_text(std::ostream& out) const {
    out << "CPU mappings: " << m_mappings.size() << '\n';
    for (const Mapping& mapping : m_mappings) {
      out << "  " << hex_number(mapping.addr) << '-' << hex_number(mapping.addr + mapping.len)
          << " pgoff=" << hex_number(mapping.pgoff) << ' ' << json_string(mapping.file) << '\n';
    }
  }

  static std::string event_label(uint32_t type) {
    const char* name = cpu_event_name(type);
    return std::strcmp(name, "UNKNOWN") != 0 ? name : "event " + std::to_string(type);
  }

  static void print_thread_row(std::ostream& out, const std::string& pid, const std::string& tid,
                               const std::string& samples) {
    StackSummary::print_thread_row(out, pid, tid, samples);
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
    for (const auto& entry : m_configurations) {
      const perfevent::ZVKPerfConfigData& config = entry.second;
      rows.push_back(config_fields(config));
      rows.back().push_back(number_field("samples", samples_of(config.format_id)));
    }
    return rows;
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
  std::vector<Mapping> m_mappings;  // each once a process, by address, processes by pid
  std::map<uint64_t, perfevent::ZVKPerfConfigData> m_configurations;  // by format_id
  StackSummary m_stacks;
};

// A summary table's row: its label left in a wide cell, then right-aligned cells,
// the first (a count) 8 wide and the rest 14.
void print_table_row(std::ostream& out, const std::string& label,
                     const std::vector<std::string>& cells) {
  out << "  " << left_cell(label, 32);
  for (size_t i = 0; i < cells.size(); ++i) out << ' ' << right_cell(cells[i], i == 0 ? 8 : 14);
  out << '\n';
}

// A summary table's row in both printed forms, like a record's fields.
struct TableRow {
  std::string label;
  std::vector<std::string> cells;
  std::vector<Field> fields;
};

void print_table_text(std::ostream& out, const std::string& title, const std::string& label,
                      const std::vector<std::string>& headings, const std::vector<TableRow>& rows) {
  out << title << '\n';
  print_table_row(out, label, headings);
  for (const TableRow& row : rows) print_table_row(out, row.label, row.cells);
}

void print_table_json(std::ostream& out, const std::vector<TableRow>& rows) {
  std::vector<std::vector<Field>> objects;
  for (const TableRow& row : rows) objects.push_back(row.fields);
  print_json_array(out, objects);
}

// What a summary groups kernels and traced calls by: the name when the run has
// seen it, so that one kernel's launches on every device and in every process go
// together; else the id, which is all the record says.
struct NameKey {
  bool known;
  std::string name;
  uint32_t id;

  // Named ones first, in name order, then ids.
  bool operator<(const NameKey& other) const {
    const bool unknown = !known, other_unknown = !other.known;
    return std::tie(unknown, name, id) < std::tie(other_unknown, other.name, other.id);
  }

  std::string label() const { return known ? name : "(name id " + std::to_string(id) + ")"; }

  // "member":"name", or "member":null with "member_id" beside it.
  Field as_field(const std::string& member) const {
    if (known) return text_field(member, name);
    Field unknown = field(member, label(), "null");
    unknown.json += ',' + number_field(member + "_id", id).json;
    return unknown;
  }
};

// What a file's GPU records add up to: kernels by name, copies by kind, memsets,
// synchronizations by type, API activity, and traced calls by function.
class GpuSummary {
 public:
  explicit GpuSummary(const GpuNames& names) : m_names(names) {}

  void merge(const summary::Process& p) {
    for (uint32_t type = 0; type < summary::Process::kCodes; ++type) {
      if (p.kinds[GPU][type] == 0) continue;
      m_records += p.kinds[GPU][type];
      m_types[type] += p.kinds[GPU][type];
    }
    for (const auto& other : p.other_kinds) {
      if (other.first.first != GPU) continue;
      m_records += other.second;
      m_types[other.first.second] += other.second;
    }
    m_undecoded += p.undecoded_by_hw[GPU];
    for (const auto& kernel : p.kernels) {
      m_kernels[key_of(cudaevent::kKernelNameKind, p.pid, kernel.first)].merge(kernel.second);
    }
    for (const auto& copy : p.copies) m_copies[copy.first].merge(copy.second);
    m_memsets.merge(p.memsets);
    for (const auto& sync : p.syncs) m_syncs[sync.first].merge(sync.second);
    m_driver.merge(p.driver);
    m_runtime.merge(p.runtime);
    for (const auto& call : p.calls) {
      m_calls[{key_of(cudaevent::kFunctionNameKind, p.pid, call.first.first), call.first.second}]
          .merge(call.second);
    }
    m_kernel_names += p.kernel_names;
    m_function_names += p.function_names;
  }

  bool empty() const { return m_records == 0; }

  void print_text(std::ostream& out) const {
    out << "GPU records by type:\n";
    for (const auto& type : m_types) {
      out << "  " << left_cell(type_label(type.first), 24) << ' '
          << right_cell(std::to_string(type.second), 12) << '\n';
    }
    if (m_undecoded != 0) {
      out << "  (" << m_undecoded << " not decoded: payload too short or type unknown)\n";
    }
    print_table_text(out, "GPU kernels:", "name", {"count", "total ms", "mean us"}, kernel_rows());
    print_table_text(out, "GPU copies by kind:", "kind", {"count", "bytes", "total ms"},
                     copy_rows());
    out << "GPU memsets: " << m_memsets.count << ", " << m_memsets.bytes << " bytes, "
        << milliseconds(m_memsets.total_ns) << " ms\n";
    print_table_text(out, "GPU synchronizations by type:", "type", {"count", "total ms"},
                     sync_rows());
    out << "GPU driver activity: " << m_driver.count << ", " << milliseconds(m_driver.total_ns)
        << " ms\nGPU runtime activity: " << m_runtime.count << ", "
        << milliseconds(m_runtime.total_ns) << " ms\n";
    print_table_text(out, "GPU traced calls by function:", "function",
                     {"count", "cbid", "total ms"}, call_rows());
    out << "GPU names: " << m_kernel_names << " kernel, " << m_function_names << " function\n";
  }

  // The object of the summary's "gpu" member.
  void print_json(std::ostream& out) const {
    out << "{\"record_count\":" << m_records << ",\"undecoded\":" << m_undecoded << ",\"types\":{";
    const char* separator = "";
    for (const auto& type : m_types) {
      out << separator << json_string(type_label(type.first)) << ':' << type.second;
      separator = ",";
    }
    out << "},\"kernels\":";
    print_table_json(out, kernel_rows());
    out << ",\"copies\":";
    print_table_json(out, copy_rows());
    out << ",\"memsets\":" << totals_json(m_memsets, true) << ",\"syncs\":";
    print_table_json(out, sync_rows());
    out << ",\"driver\":" << totals_json(m_driver, false)
        << ",\"runtime\":" << totals_json(m_runtime, false) << ",\"calls\":";
    print_table_json(out, call_rows());
    out << ",\"kernel_names\":" << m_kernel_names << ",\"function_names\":" << m_function_names
        << '}';
  }

 private:
  NameKey key_of(uint32_t kind, uint32_t pid, uint32_t id) const {
    const std::string* name = m_names.find(kind, pid, id);
    return name != nullptr ? NameKey{true, *name, 0} : NameKey{false, std::string(), id};
  }

  // Most time first; ties keep the map's order, so that the order is stable.
  std::vector<TableRow> kernel_rows() const {
    std::vector<std::pair<NameKey, GpuTotals>> kernels(m_kernels.begin(), m_kernels.end());
    std::stable_sort(kernels.begin(), kernels.end(), [](const auto& a, const auto& b) {
      return a.second.total_ns > b.second.total_ns;
    });
    std::vector<TableRow> rows;
    for (const auto& kernel : kernels) {
      const GpuTotals& t = kernel.second;
      rows.push_back({kernel.first.label(),
                      {std::to_string(t.count), milliseconds(t.total_ns),
                       three_decimals(t.total_ns / 1e3 / static_cast<double>(t.count))},
                      {kernel.first.as_field("name"), number_field("count", t.count),
                       number_field("total_ns", t.total_ns),
                       number_field("mean_ns", t.total_ns / t.count)}});
    }
    return rows;
  }

  std::vector<TableRow> copy_rows() const {
    std::vector<TableRow> rows;
    for (const auto& copy : m_copies) {
      const GpuTotals& t = copy.second;
      rows.push_back({copy_kind_name(copy.first),
                      {std::to_string(t.count), std::to_string(t.bytes), milliseconds(t.total_ns)},
                      {enum_field("kind", copy.first, copy_kind_name(copy.first)),
                       number_field("count", t.count), number_field("bytes", t.bytes),
                       number_field("total_ns", t.total_ns)}});
    }
    return rows;
  }

  std::vector<TableRow> sync_rows() const {
    std::vector<TableRow> rows;
    for (const auto& sync : m_syncs) {
      const GpuTotals& t = sync.second;
      rows.push_back({sync_type_name(sync.first),
                      {std::to_string(t.count), milliseconds(t.total_ns)},
                      {enum_field("type", sync.first, sync_type_name(sync.first)),
                       number_field("count", t.count), number_field("total_ns", t.total_ns)}});
    }
    return rows;
  }

  // Most calls first; ties keep the map's order.
  std::vector<TableRow> call_rows() const {
    std::vector<std::pair<std::pair<NameKey, uint32_t>, GpuTotals>> calls(m_calls.begin(),
                                                                         m_calls.end());
    std::stable_sort(calls.begin(), calls.end(), [](const auto& a, const auto& b) {
      return a.second.count > b.second.count;
    });
    std::vector<TableRow> rows;
    for (const auto& call : calls) {
      const GpuTotals& t = call.second;
      const uint32_t cbid = call.first.second;
      rows.push_back({call.first.first.label(),
                      {std::to_string(t.count), std::to_string(cbid), milliseconds(t.total_ns)},
                      {call.first.first.as_field("function"), number_field("cbid", cbid),
                       number_field("count", t.count), number_field("total_ns", t.total_ns)}});
    }
    return rows;
  }

  static std::string totals_json(const GpuTotals& totals, bool with_bytes) {
    return "{\"count\":" + std::to_string(totals.count) +
           (with_bytes ? ",\"bytes\":" + std::to_string(totals.bytes) : std::string()) +
           ",\"total_ns\":" + std::to_string(totals.total_ns) + '}';
  }

  static std::string type_label(uint32_t type) {
    return type < cudaevent::NUM_CUDA_RECORD_TYPES ? gpu_type_name(type)
                                                   : "type " + std::to_string(type);
  }

  const GpuNames& m_names;
  uint64_t m_records = 0;
  uint64_t m_undecoded = 0;
  std::map<uint32_t, uint64_t> m_types;  // atype -> records
  std::map<NameKey, GpuTotals> m_kernels;
  std::map<uint32_t, GpuTotals> m_copies;  // copy kind -> copies
  GpuTotals m_memsets;
  std::map<uint32_t, GpuTotals> m_syncs;  // synchronization type -> syncs
  GpuTotals m_driver;
  GpuTotals m_runtime;
  std::map<std::pair<NameKey, uint32_t>, GpuTotals> m_calls;  // (function, cbid) -> calls
  uint64_t m_kernel_names = 0;
  uint64_t m_function_names = 0;
};

// Records by kind, annotation ranges by name, CPU sampling and GPU work: added up
// by the summary engine that `zorvek summary` uses, per process, and printed here
// over all processes of the file.
class Summary {
 public:
  explicit Summary(const GpuNames& names) : m_names(names) {}

  void add(const ZVKRecordReader& record) { m_engine.add(record); }

  void print_text(std::ostream& out) const {
    const Merged all = merged();
    out << "Records by kind:\n";
    for (const auto& kind : all.records_by_kind) {
      out << "  " << left_cell(kind.first, 24) << ' ' << right_cell(std::to_string(kind.second), 12)
          << '\n';
    }
    out << "Annotation ranges:\n";
    print_range_row(out, "name", "count", "total ms", "mean us");
    for (const auto& range : all.ranges) {
      const RangeStats& s = range.second;
      print_range_row(out, range.first, std::to_string(s.count), three_decimals(s.total_ns / 1e6),
                      three_decimals(s.total_ns / 1e3 / static_cast<double>(s.count)));
    }
    if (all.open_ranges != 0) out << "  (" << all.open_ranges << " begins without an end)\n";
    if (all.unmatched_ends != 0) out << "  (" << all.unmatched_ends << " ends without a begin)\n";
    // A capture without CPU sampling or GPU tracing keeps its summary as it was.
    if (!all.cpu.empty()) all.cpu.print_text(out);
    if (!all.gpu.empty()) all.gpu.print_text(out);
  }

  // The summary's members of a JSON object, without the braces.
  void print_json(std::ostream& out) const {
    const Merged all = merged();
    out << "\"records_by_kind\":{";
    const char* separator = "";
    for (const auto& kind : all.records_by_kind) {
      out << separator << json_string(kind.first) << ':' << kind.second;
      separator = ",";
    }
    out << "},\"cpu\":";
    all.cpu.print_json(out);
    out << ",\"gpu\":";
    all.gpu.print_json(out);
    out << ",\"ranges\":[";
    separator = "";
    for (const auto& range : all.ranges) {
      out << separator << "{\"name\":" << json_string(range.first)
          << ",\"count\":" << range.second.count
          << ",\"total_ns\":" << range.second.total_ns << '}';
      separator = ",";
    }
    out << "],\"begins_without_end\":" << all.open_ranges
        << ",\"ends_without_begin\":" << all.unmatched_ends;
  }

 private:
  // The processes' numbers added together.
  struct Merged {
    explicit Merged(const GpuNames& names) : gpu(names) {}
    std::map<std::string, uint64_t> records_by_kind;
    std::map<std::string, RangeStats> ranges;  // ranges that ended, by name
    uint64_t open_ranges = 0;
    uint64_t unmatched_ends = 0;
    CpuSummary cpu;
    GpuSummary gpu;
  };

  Merged merged() const {
    Merged all(m_names);
    for (const auto& entry : m_engine.processes()) {
      const summary::Process& p = *entry.second;
      for (uint32_t hw = 0; hw < 16; ++hw) {
        for (uint32_t code = 0; code < summary::Process::kCodes; ++code) {
          const uint64_t records = p.kinds[hw][code];
          if (records != 0) all.records_by_kind[kind_label(hw, code)] += records;
        }
      }
      for (const auto& other : p.other_kinds) {
        all.records_by_kind[kind_label(other.first.first, other.first.second)] += other.second;
      }
      for (size_t id = 0; id < p.ranges.size(); ++id) {
        if (p.ranges[id].count() == 0) continue;
        RangeStats& stats = all.ranges[p.range_names[id]];
        stats.count += p.ranges[id].count();
        stats.total_ns += p.ranges[id].total();
      }
      all.open_ranges += p.open.size();
      all.unmatched_ends += p.early_ends.size();
      all.cpu.merge(p);
      all.gpu.merge(p);
    }
    return all;
  }

  // What a record of the kind is counted as: its hardware, and an annotation's event.
  static std::string kind_label(uint32_t hw, uint32_t code) {
    std::string kind = hardware_name(hw);
    if (hw == ANNOTATION) kind += std::string(" ") + annotation_name(code);
    return kind;
  }

  static void print_range_row(std::ostream& out, const std::string& name, const std::string& count,
                              const std::string& total, const std::string& mean) {
    out << "  " << left_cell(name, 32) << ' ' << right_cell(count, 8) << ' '
        << right_cell(total, 14) << ' ' << right_cell(mean, 14) << '\n';
  }

  const GpuNames& m_names;  // the run's, shared by its files
  summary::Summarizer m_engine;
};

void print_annotation_text(const ZVKRecordReader& record, const DecodedRecord& decoded,
                           std::ostream& out) {
  out << " " << annotation_name(record.event_type()) << " cpu=" << record.device_id()
      << " pid=" << record.pid() << " tid=" << record.tid();
  if (decoded.layout == DecodedRecord::kBegin) {
    out << " token=" << decoded.fixed.token << " msg=\"" << decoded.text << "\"";
  } else if (decoded.layout == DecodedRecord::kEnd) {
    out << " token=" << decoded.fixed.token;
  } else if (decoded.layout == DecodedRecord::kTimeMarker) {
    const annotations::time_marker& marker = decoded.fixed.marker;
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

// The header's tid goes out among the fields, under the name its type gives it.
void print_gpu_text(const ZVKRecordReader& record, const std::vector<Field>& fields,
                    std::ostream& out) {
  out << ' ' << gpu_type_name(gpu_type(record)) << " pid=" << record.pid();
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

void print_record_text(const ZVKRecordReader& record, const GpuNames& names, std::ostream& out) {
  const uint32_t hw = record.hardware_type();
  out << "    " << record.timestamp() << ' ' << hardware_name(hw);
  DecodedRecord decoded;
  decode_record(record, &decoded);
  std::vector<Field> fields;
  if (hw == ANNOTATION) {
    print_annotation_text(record, decoded, out);
  } else if (hw == CPU && cpu_fields(record, decoded, &fields)) {
    print_cpu_text(record, fields, out);
  } else if (hw == GPU && gpu_fields(record, decoded, names, &fields)) {
    print_gpu_text(record, fields, out);
  } else {
    print_raw_text(record, out);
  }
}

void print_record_json(const ZVKRecordReader& record, const GpuNames& names, std::ostream& out) {
  const uint32_t hw = record.hardware_type();
  out << "{\"timestamp\":" << record.timestamp() << ",\"hw_type\":" << hw
      << ",\"device_id\":" << record.device_id() << ",\"event_type\":" << record.event_type()
      << ",\"pid\":" << record.pid() << ",\"tid\":" << record.tid()
      << ",\"call_chain_size\":" << record.num_callchains()
      << ",\"payload_size\":" << record.payload_size();
  DecodedRecord decoded;
  decode_record(record, &decoded);
  if (decoded.layout == DecodedRecord::kBegin || decoded.layout == DecodedRecord::kEnd) {
    out << ",\"token\":" << decoded.fixed.token;
  }
  if (decoded.layout == DecodedRecord::kBegin) {
    out << ",\"msg\":" << json_string(std::string(decoded.text));
  }
  if (decoded.layout == DecodedRecord::kTimeMarker) {
    const annotations::time_marker& marker = decoded.fixed.marker;
    out << ",\"monotonic_raw\":[";
    for (int i = 0; i < annotations::kClockPairs; ++i) out << (i ? "," : "") << marker.monotic[i];
    out << "],\"realtime\":[";
    for (int i = 0; i < annotations::kClockPairs; ++i) out << (i ? "," : "") << marker.realtime[i];
    out << "]";
  }
  std::vector<Field> fields;
  const char* event = nullptr;
  if (hw == CPU && cpu_fields(record, decoded, &fields)) {
    event = cpu_event_name(record.event_type());
  } else if (hw == GPU && gpu_fields(record, decoded, names, &fields)) {
    event = gpu_type_name(gpu_type(record));
  }
  if (event != nullptr) {
    out << ",\"event\":\"" << event << '"';
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
  FileDump(const std::string& path, const DumpOptions& options, GpuNames& names,
           Progress& progress, std::ostream& out)
      : m_path(path), m_options(options), m_names(names), m_progress(progress), m_out(out) {}

  // Why the file can't be read at all, or OK.
  Status open() { return m_file.open(m_path); }

  // Prints the whole dump; returns the notes on how the file was read, in file
  // order: damage, a torn end, the header's count of buckets. Whether they make
  // the file damaged or cut is whole()'s answer.
  std::vector<std::string> run() {
    print_head();
    read_buckets();
    const std::string count = m_file.header_count_note();
    if (!count.empty()) m_notes.push_back(count);
    print_tail();
    return m_notes;
  }

  bool whole() const { return m_file.read_whole(); }

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
  }

  void read_buckets() {
    std::unique_ptr<ZVKBucketReader> bucket;
    for (;;) {
      const uint64_t offset = m_file.next_bucket_offset();
      const Status next = m_file.next_bucket(&bucket);
      if (next.code_ == error::END_OF_DATA) break;
      if (!next.ok()) {
        m_notes.push_back(next.msg_);
        continue;
      }
      take_bucket(*bucket, offset);
      ++m_buckets;
      m_progress.after_bucket(m_path, m_file.next_bucket_offset(), m_file.file_size(), m_buckets);
    }
    m_progress.finish(m_path, m_buckets);
  }

  // The bucket's next record, its names learnt before it is printed or counted.
  // The reader has walked the records already: here they are all whole.
  bool next_record(ZVKBucketReader& bucket, ZVKRecordReader& record) {
    if (!bucket.get_next_record(record).ok()) return false;
    m_names.learn(record);
    return true;
  }

  void take_bucket(ZVKBucketReader& bucket, uint64_t offset) {
    if (m_options.summary) {
      ZVKRecordReader record;
      while (next_record(bucket, record)) m_summary.add(record);
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
    for (const char* separator = ""; next_record(bucket, record); separator = ",") {
      m_out << separator;
      print_record_json(record, m_names, m_out);
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
    while (next_record(bucket, record)) print_record_text(record, m_names, m_out);
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
          << ",\"unfinished\":"
          << (m_file.header_count() == ZVKFileReader::HeaderCount::kUnfinished ? "true" : "false")
          << ",\"clean\":" << (whole() ? "true" : "false") << '}';
  }

  const std::string& m_path;
  const DumpOptions& m_options;
  GpuNames& m_names;  // the run's, shared by its files
  Progress& m_progress;
  std::ostream& m_out;
  ZVKFileReader m_file;
  Summary m_summary{m_names};
  uint64_t m_buckets = 0;
  std::vector<std::string> m_notes;  // how the file was read, in file order
};

// Dumps one file; returns its exit status.
int dump_file(const std::string& path, const DumpOptions& options, GpuNames& names,
              Progress& progress, std::ostream& out, std::ostream& err) {
  FileDump dump(path, options, names, progress, out);
  const Status opened = dump.open();
  if (!opened.ok()) {
    // In JSON the file keeps its place in the document, with the reason.
    if (options.format == DumpFormat::kJson) {
      out << "{\"file\":" << json_string(path) << ",\"problem\":" << json_string(opened.msg_)
          << ",\"clean\":false}";
    }
    err << "zvkdump: " << path << ": " << opened.msg_ << "\n";
    return kExitNotRead;
  }
  const std::vector<std::string> notes = dump.run();
  for (const std::string& note : notes) err << "zvkdump: " << path << ": " << note << "\n";
  return dump.whole() ? kExitReadWhole : kExitDamaged;
}

std::string usage() {
  return "usage: zvkdump [--json] [--summary] [--progress | --no-progress] [--] FILE...\n"
         "Prints capture files (.zvkraw): the header, then every bucket and record.\n"
         "  --summary      records by kind, annotation ranges, CPU sampling and GPU\n"
         "                 tracing instead\n"
         "  --json         as one JSON document: an object for one file, an array for several\n"
         "  --progress     progress on stderr even when it isn't a terminal\n"
         "  --no-progress  no progress, not even on a terminal\n"
         "  -h, --help     this text\n" +
         exit_status_help();
}

}  // namespace

int dump_files(const std::vector<std::string>& paths, const DumpOptions& options,
               std::ostream& out, std::ostream& err) {
  Progress progress(options.progress, err);
  // A process names each kernel and function once, so names given in one file
  // serve the files after it.
  GpuNames names;
  const bool json = options.format == DumpFormat::kJson;
  const bool array = json && paths.size() != 1;
  if (array) out << '[';
  int status = kExitReadWhole;
  for (size_t i = 0; i < paths.size(); ++i) {
    if (array) out << (i ? ",\n" : "\n");
    status = worse_exit(status, dump_file(paths[i], options, names, progress, out, err));
  }
  if (array) out << "\n]";
  if (json) out << '\n';
  return status;
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
    err << "zvkdump: " << line.error << "\n" << usage();
    return kExitUsage;
  }
  if (line.help) {
    out << usage();
    return kExitReadWhole;
  }
  return dump_files(line.files, line.options, out, err);
}

}  // namespace zorvek
