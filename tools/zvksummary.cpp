#include "tools/zvksummary.h"

#include <algorithm>
#include <cmath>

namespace zorvek {
namespace summary {

int Durations::bucket_of(uint64_t ns) {
  if (ns < kSub) return static_cast<int>(ns);
  const int exponent = 63 - __builtin_clzll(ns);  // at least kSubBits
  const int sub = static_cast<int>((ns >> (exponent - kSubBits)) & (kSub - 1));
  return kSub + (exponent - kSubBits) * kSub + sub;
}

uint64_t Durations::bucket_low(int bucket) {
  if (bucket < kSub) return static_cast<uint64_t>(bucket);
  const int exponent = (bucket - kSub) / kSub + kSubBits;
  const uint64_t sub = static_cast<uint64_t>((bucket - kSub) % kSub);
  return (uint64_t{1} << exponent) | (sub << (exponent - kSubBits));
}

uint64_t Durations::bucket_high(int bucket) {
  if (bucket < kSub) return static_cast<uint64_t>(bucket);
  const int exponent = (bucket - kSub) / kSub + kSubBits;
  return bucket_low(bucket) + ((uint64_t{1} << (exponent - kSubBits)) - 1);
}

void Durations::add(uint64_t ns) {
  if (m_count < kExact) {
    m_exact[m_count] = ns;
  } else {
    if (!m_histogram) {
      m_histogram = std::make_unique<std::array<uint64_t, kBuckets>>();
      m_histogram->fill(0);
      for (uint64_t exact : m_exact) ++(*m_histogram)[bucket_of(exact)];
    }
    ++(*m_histogram)[bucket_of(ns)];
  }
  ++m_count;
  m_total += ns;
  m_min = std::min(m_min, ns);
  m_max = std::max(m_max, ns);
}

uint64_t Durations::percentile(double q) const {
  if (m_count == 0) return 0;
  // Nearest rank: the smallest duration with at least q of all at or below it.
  uint64_t rank = static_cast<uint64_t>(std::ceil(q * static_cast<double>(m_count)));
  rank = std::min(std::max<uint64_t>(rank, 1), m_count);
  if (!m_histogram) {
    // Every duration is kept while there are no more than kExact of them.
    const size_t kept = static_cast<size_t>(std::min<uint64_t>(m_count, kExact));
    uint64_t sorted[kExact];
    // A handful: an insertion sort, whose bounds the compiler can follow.
    for (size_t i = 0; i < kept; ++i) {
      size_t at = i;
      for (; at > 0 && sorted[at - 1] > m_exact[i]; --at) sorted[at] = sorted[at - 1];
      sorted[at] = m_exact[i];
    }
    return sorted[std::min<size_t>(static_cast<size_t>(rank), kept) - 1];
  }
  uint64_t seen = 0;
  for (int bucket = 0; bucket < kBuckets; ++bucket) {
    seen += (*m_histogram)[bucket];
    if (seen >= rank) {
      const uint64_t low = bucket_low(bucket), high = bucket_high(bucket);
      const uint64_t middle = low + (high - low) / 2;
      return std::min(std::max(middle, m_min), m_max);
    }
  }
  return m_max;
}

std::unordered_map<uint32_t, Totals> Process::calls_by_function() const {
  std::unordered_map<uint32_t, Totals> by_function;
  for (const auto& call : calls) by_function[call.first.first].merge(call.second);
  return by_function;
}

Process& Summarizer::process(uint32_t pid) {
  if (m_last != nullptr && m_last->pid == pid) return *m_last;
  std::unique_ptr<Process>& slot = m_processes[pid];
  if (!slot) {
    slot = std::make_unique<Process>();
    slot->pid = pid;
  }
  m_last = slot.get();
  return *m_last;
}

void Summarizer::add(const ZVKRecordReader& record) {
  Process& p = process(record.pid());
  if (p.last_file != m_file) {
    p.files.insert(m_file);
    p.last_file = m_file;
  }
  const uint32_t hw = record.hardware_type();
  const uint32_t code = hw == GPU ? gpu_type(record) : record.event_type();
  if (code < Process::kCodes) {
    ++p.kinds[hw][code];
  } else {
    ++p.other_kinds[{hw, code}];
  }
  // Names and parents, learnt only from the two kinds that carry them.
  if ((hw == GPU && code == cudaevent::KERNEL_NAME) ||
      (hw == CPU && code == perfevent::FORK)) {
    m_names.learn(record);
  }
  DecodedRecord decoded;
  if (!decode_record(record, &decoded)) {
    ++p.undecoded;
    ++p.undecoded_by_hw[hw];
    return;
  }
  switch (hw) {
    case ANNOTATION: add_annotation(p, record, decoded); break;
    case CPU: add_cpu(p, record, decoded); break;
    case GPU: add_gpu(p, record, decoded); break;
    default: break;
  }
}

void Summarizer::add_annotation(Process& p, const ZVKRecordReader& record,
                                const DecodedRecord& decoded) {
  if (decoded.layout == DecodedRecord::kTimeMarker) return;
  const uint64_t at = record.timestamp();
  p.first_ns = std::min(p.first_ns, at);
  p.last_ns = std::max(p.last_ns, at);
  const uint64_t token = decoded.fixed.token;
  if (decoded.layout == DecodedRecord::kEnd) {
    const auto begin = p.open.find(token);
    if (begin == p.open.end()) {
      p.early_ends[token] = at;
      return;
    }
    p.ranges[begin->second.name].add(at > begin->second.start ? at - begin->second.start : 0);
    p.open.erase(begin);
    return;
  }
  if (record.event_type() == annotations::MARKER) {
    ++p.markers;
    return;
  }
  auto id = p.range_ids.find(decoded.text);
  if (id == p.range_ids.end()) {
    p.range_names.emplace_back(decoded.text);
    p.ranges.emplace_back();
    id = p.range_ids.emplace(p.range_names.back(), static_cast<uint32_t>(p.ranges.size() - 1))
             .first;
  }
  if (!p.early_ends.empty()) {
    const auto end = p.early_ends.find(token);
    if (end != p.early_ends.end()) {
      p.ranges[id->second].add(end->second > at ? end->second - at : 0);
      p.early_ends.erase(end);
      return;
    }
  }
  p.open[token] = {id->second, at};
}

void Summarizer::add_cpu(Process& p, const ZVKRecordReader& record, const DecodedRecord& decoded) {
  const DecodedRecord::Fixed& f = decoded.fixed;
  switch (decoded.layout) {
    case DecodedRecord::kCpuSample:
      ++p.samples;
      ++p.samples_by_tid[record.tid()];
      ++p.samples_by_id[f.sample.id];
      ++p.ips[f.sample.ip];
      break;
    case DecodedRecord::kCpuStack: {
      const perfevent::ZVKStackSample& stack = f.stack;
      Process::Stacks& s = p.stacks;
      ++s.samples;
      ++(stack.clock == perfevent::SAMPLE_CLOCK_WALL ? s.wall : s.cpu);
      if (stack.flags & perfevent::STACK_WAITING) ++s.waiting;
      if (stack.flags & perfevent::STACK_NATIVE_CUT) ++s.native_cut;
      if (stack.flags & perfevent::STACK_PYTHON_CUT) ++s.python_cut;
      s.weight_ns += stack.weight_ns;
      s.native_frames += stack.native_count;
      s.python_frames += stack.python_count;
      ++s.by_tid[record.tid()];
      break;
    }
    case DecodedRecord::kCpuPythonCode: ++p.stacks.codes; break;
    case DecodedRecord::kCpuApiStack: ++p.stacks.api_stacks; break;
    case DecodedRecord::kCpuLost:
      p.lost += f.lost.lost;
      ++p.lost_records;
      break;
    case DecodedRecord::kCpuThrottle:
      ++(record.event_type() == perfevent::THROTTLE ? p.throttles : p.unthrottles);
      break;
    case DecodedRecord::kCpuMmap:
      p.mappings.insert({f.mmap.addr, f.mmap.len, f.mmap.pgoff, std::string(decoded.text)});
      break;
    case DecodedRecord::kCpuForkExit:
      ++(record.event_type() == perfevent::FORK ? p.forks : p.exits);
      break;
    case DecodedRecord::kCpuConfiguration:
      p.configurations.emplace(f.config.format_id, f.config);
      break;
    default: break;
  }
}

void Summarizer::add_gpu(Process& p, const ZVKRecordReader& record, const DecodedRecord& decoded) {
  const DecodedRecord::Fixed& f = decoded.fixed;
  switch (decoded.layout) {
    case DecodedRecord::kGpuKernel:
      p.kernels[f.kernel.pack.nameId].add(duration_of(record, f.kernel.end));
      break;
    case DecodedRecord::kGpuMemcopy:
      p.copies[f.memcopy.attr.copy_kind].add(duration_of(record, f.memcopy.end), f.memcopy.bytes);
      break;
    case DecodedRecord::kGpuMemcopyP2P:
      p.copies[f.p2p.attr.copy_kind].add(duration_of(record, f.p2p.end), f.p2p.bytes);
      break;
    case DecodedRecord::kGpuMemset:
      p.memsets.add(duration_of(record, f.memset.end), f.memset.size);
      break;
    case DecodedRecord::kGpuSync:
      p.syncs[gpu_kind(record)].add(duration_of(record, f.sync.end));
      break;
    case DecodedRecord::kGpuActivity:
      (gpu_type(record) == cudaevent::DRIVER ? p.driver : p.runtime)
          .add(duration_of(record, f.activity.end));
      break;
    case DecodedRecord::kGpuCall:
      p.calls[{f.call.funcNameId, f.call.cbid}].add(duration_of(record, f.call.end));
      break;
    case DecodedRecord::kGpuName:
      ++(gpu_kind(record) == cudaevent::kKernelNameKind ? p.kernel_names : p.function_names);
      break;
    default: break;
  }
}

}  // namespace summary
}  // namespace zorvek
