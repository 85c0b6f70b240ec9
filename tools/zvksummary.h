#pragma once

// What `zorvek summary` and `zvkdump --summary` show, added up record by record in
// constant memory: the state grows with the number of distinct names, threads,
// instruction pointers and mappings a capture holds, never with the number of
// records. The two differ only in how they print it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "tools/zvkrecords.h"

namespace zorvek {
namespace summary {

// Durations of one annotation range's name: count, total, extremes and
// percentiles. The first few durations are kept exactly, so that names seen only
// a handful of times (a per-epoch name, say) cost a few words each; past that a
// log-scale histogram of fixed size takes over, whose buckets are 1/32 of an
// octave wide: a percentile read from it is within about 1.6 % of the true value.
class Durations {
 public:
  void add(uint64_t ns);
  uint64_t count() const { return m_count; }
  uint64_t total() const { return m_total; }
  uint64_t min() const { return m_min; }
  uint64_t max() const { return m_max; }
  // The nearest-rank percentile, `q` in [0, 1]: exact while every duration is
  // kept, the middle of its histogram bucket (within min and max) afterwards.
  uint64_t percentile(double q) const;

  static constexpr int kSubBits = 5;
  static constexpr int kSub = 1 << kSubBits;
  // Values below kSub have a bucket each; above, 32 per power of two up to 2^64.
  static constexpr int kBuckets = kSub + (64 - kSubBits) * kSub;
  static int bucket_of(uint64_t ns);
  static uint64_t bucket_low(int bucket);
  static uint64_t bucket_high(int bucket);  // inclusive

 private:
  static constexpr int kExact = 8;
  uint64_t m_count = 0;
  uint64_t m_total = 0;
  uint64_t m_min = UINT64_MAX;
  uint64_t m_max = 0;
  uint64_t m_exact[kExact] = {};
  std::unique_ptr<std::array<uint64_t, kBuckets>> m_histogram;
};

// Added up the same way as zvkdump's summary does: the one GpuTotals of zvkrecords.h.
using Totals = GpuTotals;

struct Mapping {
  uint64_t addr;
  uint64_t len;
  uint64_t pgoff;
  std::string filename;
  bool operator<(const Mapping& other) const {
    return std::tie(addr, len, pgoff, filename) <
           std::tie(other.addr, other.len, other.pgoff, other.filename);
  }
};

// Everything one process's records add up to, over all the files given.
struct Process {
  uint32_t pid = 0;
  std::set<size_t> files;  // indices of the files its records came from
  size_t last_file = SIZE_MAX;

  // Records by kind: [hardware type][event code] for the codes that have names
  // (the 4-bit hardware type can't pass 15), and (type, code) for the rest.
  static constexpr uint32_t kCodes = 16;
  uint64_t kinds[16][kCodes] = {};
  std::map<std::pair<uint32_t, uint32_t>, uint64_t> other_kinds;
  uint64_t undecoded = 0;  // payload too short for its kind, or a kind without a format
  uint64_t undecoded_by_hw[16] = {};

  // Annotations. Wall time is first to last annotation record on the system
  // clock; the time marker is left out, since it is written at configure, which
  // may be long before the capture starts.
  uint64_t first_ns = UINT64_MAX;
  uint64_t last_ns = 0;
  std::deque<std::string> range_names;  // by name id; a deque, so that views stay valid
  std::unordered_map<std::string_view, uint32_t> range_ids;
  std::vector<Durations> ranges;  // by name id
  struct Open {
    uint32_t name;
    uint64_t start;
  };
  std::unordered_map<uint64_t, Open> open;  // token -> its BEGIN
  // An END read before its BEGIN, which buffers filled by different threads can
  // bring about: token -> end time, until the BEGIN turns up.
  std::unordered_map<uint64_t, uint64_t> early_ends;
  uint64_t markers = 0;

  // CPU sampling.
  uint64_t samples = 0;
  std::unordered_map<uint32_t, uint64_t> samples_by_tid;
  std::unordered_map<uint64_t, uint64_t> samples_by_id;  // by the event's format_id
  // Samples by instruction pointer: bounded by the distinct addresses sampled,
  // which code size bounds, not by the length of the capture.
  std::unordered_map<uint64_t, uint64_t> ips;
  uint64_t lost = 0;
  uint64_t lost_records = 0;
  uint64_t throttles = 0;
  uint64_t unthrottles = 0;
  uint64_t forks = 0;
  uint64_t exits = 0;
  std::set<Mapping> mappings;  // each once, however many workers announced it
  std::map<uint64_t, perfevent::ZVKPerfConfigData> configurations;  // by format_id

  // The stack sampler: its samples by clock and thread, the time they stand for
  // and their frames; the code objects and the API calls' Python stacks.
  struct Stacks {
    uint64_t samples = 0;
    uint64_t cpu = 0;
    uint64_t wall = 0;
    uint64_t waiting = 0;
    uint64_t native_cut = 0;
    uint64_t python_cut = 0;
    uint64_t weight_ns = 0;
    uint64_t native_frames = 0;
    uint64_t python_frames = 0;
    uint64_t codes = 0;
    uint64_t api_stacks = 0;
    std::map<uint32_t, uint64_t> by_tid;
  } stacks;

  // GPU tracing, by the ids the records give; names are looked up at the end,
  // when every file's names are known.
  std::unordered_map<uint32_t, Totals> kernels;  // kernel name id ->
  std::map<uint32_t, Totals> copies;             // copy kind ->
  Totals memsets;
  std::map<uint32_t, Totals> syncs;  // synchronization type ->
  Totals driver;
  Totals runtime;
  std::map<std::pair<uint32_t, uint32_t>, Totals> calls;  // (function name id, cbid) ->
  uint64_t kernel_names = 0;  // KERNEL_NAME records of each table
  uint64_t function_names = 0;

  // The traced calls by function name id, whatever their cbid.
  std::unordered_map<uint32_t, Totals> calls_by_function() const;
};

// Adds up records, file after file.
class Summarizer {
 public:
  void begin_file(size_t index) { m_file = index; }
  void add(const ZVKRecordReader& record);

  // Processes by pid.
  const std::map<uint32_t, std::unique_ptr<Process>>& processes() const { return m_processes; }
  const GpuNames& names() const { return m_names; }

 private:
  Process& process(uint32_t pid);
  void add_annotation(Process& p, const ZVKRecordReader& record, const DecodedRecord& decoded);
  void add_cpu(Process& p, const ZVKRecordReader& record, const DecodedRecord& decoded);
  void add_gpu(Process& p, const ZVKRecordReader& record, const DecodedRecord& decoded);

  std::map<uint32_t, std::unique_ptr<Process>> m_processes;
  Process* m_last = nullptr;  // records of one bucket mostly share a process
  size_t m_file = 0;
  GpuNames m_names;
};

}  // namespace summary
}  // namespace zorvek
