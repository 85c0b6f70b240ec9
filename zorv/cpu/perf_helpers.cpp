#include "zorv/cpu/perf_helpers.h"

#include <cstddef>
#include <cstdio>

namespace {

// Each table holds the kernel's names at their enum value or bit number, so a
// lookup is an index; the decoders below only check bounds.

const char* const kEventTypeNames[] = {
    "PERF_TYPE_HARDWARE", "PERF_TYPE_SOFTWARE", "PERF_TYPE_TRACEPOINT",
    "PERF_TYPE_HW_CACHE", "PERF_TYPE_RAW",      "PERF_TYPE_BREAKPOINT",
};

const char* const kHardwareNames[] = {
    "PERF_COUNT_HW_CPU_CYCLES",
    "PERF_COUNT_HW_INSTRUCTIONS",
    "PERF_COUNT_HW_CACHE_REFERENCES",
    "PERF_COUNT_HW_CACHE_MISSES",
    "PERF_COUNT_HW_BRANCH_INSTRUCTIONS",
    "PERF_COUNT_HW_BRANCH_MISSES",
    "PERF_COUNT_HW_BUS_CYCLES",
    "PERF_COUNT_HW_STALLED_CYCLES_FRONTEND",
    "PERF_COUNT_HW_STALLED_CYCLES_BACKEND",
    "PERF_COUNT_HW_REF_CPU_CYCLES",
};

const char* const kSoftwareNames[] = {
    "PERF_COUNT_SW_CPU_CLOCK",        "PERF_COUNT_SW_TASK_CLOCK",
    "PERF_COUNT_SW_PAGE_FAULTS",      "PERF_COUNT_SW_CONTEXT_SWITCHES",
    "PERF_COUNT_SW_CPU_MIGRATIONS",   "PERF_COUNT_SW_PAGE_FAULTS_MIN",
    "PERF_COUNT_SW_PAGE_FAULTS_MAJ",  "PERF_COUNT_SW_ALIGNMENT_FAULTS",
    "PERF_COUNT_SW_EMULATION_FAULTS", "PERF_COUNT_SW_DUMMY",
    "PERF_COUNT_SW_BPF_OUTPUT",
};

const char* const kCacheNames[] = {
    "PERF_COUNT_HW_CACHE_L1D",  "PERF_COUNT_HW_CACHE_L1I", "PERF_COUNT_HW_CACHE_LL",
    "PERF_COUNT_HW_CACHE_DTLB", "PERF_COUNT_HW_CACHE_ITLB", "PERF_COUNT_HW_CACHE_BPU",
    "PERF_COUNT_HW_CACHE_NODE",
};

const char* const kCacheOpNames[] = {
    "PERF_COUNT_HW_CACHE_OP_READ",
    "PERF_COUNT_HW_CACHE_OP_WRITE",
    "PERF_COUNT_HW_CACHE_OP_PREFETCH",
};

const char* const kCacheResultNames[] = {
    "PERF_COUNT_HW_CACHE_RESULT_ACCESS",
    "PERF_COUNT_HW_CACHE_RESULT_MISS",
};

const char* const kSampleTypeNames[] = {
    "PERF_SAMPLE_IP",           "PERF_SAMPLE_TID",         "PERF_SAMPLE_TIME",
    "PERF_SAMPLE_ADDR",         "PERF_SAMPLE_READ",        "PERF_SAMPLE_CALLCHAIN",
    "PERF_SAMPLE_ID",           "PERF_SAMPLE_CPU",         "PERF_SAMPLE_PERIOD",
    "PERF_SAMPLE_STREAM_ID",    "PERF_SAMPLE_RAW",         "PERF_SAMPLE_BRANCH_STACK",
    "PERF_SAMPLE_REGS_USER",    "PERF_SAMPLE_STACK_USER",  "PERF_SAMPLE_WEIGHT",
    "PERF_SAMPLE_DATA_SRC",     "PERF_SAMPLE_IDENTIFIER",  "PERF_SAMPLE_TRANSACTION",
    "PERF_SAMPLE_REGS_INTR",    "PERF_SAMPLE_PHYS_ADDR",
};

const char* const kBranchSampleTypeNames[] = {
    "PERF_SAMPLE_BRANCH_USER",       "PERF_SAMPLE_BRANCH_KERNEL",
    "PERF_SAMPLE_BRANCH_HV",         "PERF_SAMPLE_BRANCH_ANY",
    "PERF_SAMPLE_BRANCH_ANY_CALL",   "PERF_SAMPLE_BRANCH_ANY_RETURN",
    "PERF_SAMPLE_BRANCH_IND_CALL",   "PERF_SAMPLE_BRANCH_ABORT_TX",
    "PERF_SAMPLE_BRANCH_IN_TX",      "PERF_SAMPLE_BRANCH_NO_TX",
    "PERF_SAMPLE_BRANCH_COND",       "PERF_SAMPLE_BRANCH_CALL_STACK",
    "PERF_SAMPLE_BRANCH_IND_JUMP",   "PERF_SAMPLE_BRANCH_CALL",
    "PERF_SAMPLE_BRANCH_NO_FLAGS",   "PERF_SAMPLE_BRANCH_NO_CYCLES",
    "PERF_SAMPLE_BRANCH_TYPE_SAVE",
};

static_assert(sizeof(kSampleTypeNames) / sizeof(kSampleTypeNames[0]) == 20,
              "sample types are named for bits 0 to 19");
static_assert(sizeof(kBranchSampleTypeNames) / sizeof(kBranchSampleTypeNames[0]) == 17,
              "branch sample types are named for bits 0 to 16");

// The name at value, or fallback when the table has none there.
template <std::size_t N>
const char* name_at(const char* const (&table)[N], unsigned long value, const char* fallback) {
  return value < N ? table[value] : fallback;
}

// One name per set bit, lowest bit first; bits beyond the table have no name and
// are left out.
template <std::size_t N>
std::string decode_bits(const char* const (&table)[N], unsigned long bits) {
  std::vector<std::string> names;
  for (std::size_t bit = 0; bit < N; ++bit) {
    if (bits & (1UL << bit)) names.emplace_back(table[bit]);
  }
  return dump_flag_vector(names);
}

}  // namespace

std::string dump_flag_vector(const std::vector<std::string>& flags) {
  if (flags.empty()) return "-1";
  std::string out = flags[0];
  for (std::size_t i = 1; i < flags.size(); ++i) {
    out += " | ";
    out += flags[i];
  }
  return out;
}

std::string decode_perf_event_type(unsigned long type) {
  // An unnamed type prints as a bare zero, not as a name.
  return name_at(kEventTypeNames, type, "0");
}

std::string decode_perf_config(unsigned long type, unsigned long config) {
  switch (type) {
    case 0:  // PERF_TYPE_HARDWARE
      return name_at(kHardwareNames, config, "-1");
    case 1:  // PERF_TYPE_SOFTWARE
      return name_at(kSoftwareNames, config, "-1");
    case 3: {  // PERF_TYPE_HW_CACHE: cache | (op << 8) | (result << 16)
      // The result is everything from bit 16 up, so stray high bits make it unknown.
      std::string out = name_at(kCacheNames, config & 0xff, "unknown");
      out += " | ";
      out += name_at(kCacheOpNames, (config >> 8) & 0xff, "unknown");
      out += "<<8 | ";
      out += name_at(kCacheResultNames, config >> 16, "unknown");
      out += "<<16";
      return out;
    }
    case 4: {  // PERF_TYPE_RAW: the word as the hardware takes it
      char hex[2 * sizeof(unsigned long) + 1];
      std::snprintf(hex, sizeof(hex), "%lx", config);
      return hex;
    }
    default:
      return "Unknown";
  }
}

std::string decode_sample_type(unsigned long sample_type) {
  return decode_bits(kSampleTypeNames, sample_type);
}

std::string decode_branch_sample_type(unsigned long branch_sample_type) {
  return decode_bits(kBranchSampleTypeNames, branch_sample_type);
}
