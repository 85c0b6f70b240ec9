#include <gtest/gtest.h>
#include <linux/perf_event.h>

#include <string>
#include <vector>

#include "zorv/cpu/perf_helpers.h"

namespace zorvek {
namespace {

using Strings = std::vector<std::string>;

// The decoders only feed log lines, but people grep those lines for the kernel's
// names, so every name is checked at its exact value.

const Strings kSampleTypeNames = {
    "PERF_SAMPLE_IP",        "PERF_SAMPLE_TID",          "PERF_SAMPLE_TIME",
    "PERF_SAMPLE_ADDR",      "PERF_SAMPLE_READ",         "PERF_SAMPLE_CALLCHAIN",
    "PERF_SAMPLE_ID",        "PERF_SAMPLE_CPU",          "PERF_SAMPLE_PERIOD",
    "PERF_SAMPLE_STREAM_ID", "PERF_SAMPLE_RAW",          "PERF_SAMPLE_BRANCH_STACK",
    "PERF_SAMPLE_REGS_USER", "PERF_SAMPLE_STACK_USER",   "PERF_SAMPLE_WEIGHT",
    "PERF_SAMPLE_DATA_SRC",  "PERF_SAMPLE_IDENTIFIER",   "PERF_SAMPLE_TRANSACTION",
    "PERF_SAMPLE_REGS_INTR", "PERF_SAMPLE_PHYS_ADDR",
};

const Strings kBranchSampleTypeNames = {
    "PERF_SAMPLE_BRANCH_USER",     "PERF_SAMPLE_BRANCH_KERNEL",
    "PERF_SAMPLE_BRANCH_HV",       "PERF_SAMPLE_BRANCH_ANY",
    "PERF_SAMPLE_BRANCH_ANY_CALL", "PERF_SAMPLE_BRANCH_ANY_RETURN",
    "PERF_SAMPLE_BRANCH_IND_CALL", "PERF_SAMPLE_BRANCH_ABORT_TX",
    "PERF_SAMPLE_BRANCH_IN_TX",    "PERF_SAMPLE_BRANCH_NO_TX",
    "PERF_SAMPLE_BRANCH_COND",     "PERF_SAMPLE_BRANCH_CALL_STACK",
    "PERF_SAMPLE_BRANCH_IND_JUMP", "PERF_SAMPLE_BRANCH_CALL",
    "PERF_SAMPLE_BRANCH_NO_FLAGS", "PERF_SAMPLE_BRANCH_NO_CYCLES",
    "PERF_SAMPLE_BRANCH_TYPE_SAVE",
};

const std::string kL1I = "PERF_COUNT_HW_CACHE_L1I";
const std::string kRead = "PERF_COUNT_HW_CACHE_OP_READ";
const std::string kAccess = "PERF_COUNT_HW_CACHE_RESULT_ACCESS";
const std::string kMiss = "PERF_COUNT_HW_CACHE_RESULT_MISS";

std::string cache_form(const std::string& cache, const std::string& op,
                       const std::string& result) {
  return cache + " | " + op + "<<8 | " + result + "<<16";
}

// --- dump_flag_vector ---

TEST(DumpFlagVector, EmptyGivesMinusOne) { EXPECT_EQ(dump_flag_vector({}), "-1"); }

TEST(DumpFlagVector, JoinsInOrderWithBars) {
  EXPECT_EQ(dump_flag_vector({"a"}), "a");
  EXPECT_EQ(dump_flag_vector({"b", "a", "c"}), "b | a | c");
  EXPECT_EQ(dump_flag_vector({"", ""}), " | ");
}

// --- decode_perf_event_type ---

TEST(DecodePerfEventType, NamesAtTheirValues) {
  EXPECT_EQ(decode_perf_event_type(0), "PERF_TYPE_HARDWARE");
  EXPECT_EQ(decode_perf_event_type(1), "PERF_TYPE_SOFTWARE");
  EXPECT_EQ(decode_perf_event_type(2), "PERF_TYPE_TRACEPOINT");
  EXPECT_EQ(decode_perf_event_type(3), "PERF_TYPE_HW_CACHE");
  EXPECT_EQ(decode_perf_event_type(4), "PERF_TYPE_RAW");
  EXPECT_EQ(decode_perf_event_type(5), "PERF_TYPE_BREAKPOINT");
}

TEST(DecodePerfEventType, OtherValuesGiveAPlainZero) {
  EXPECT_EQ(decode_perf_event_type(6), "0");
  EXPECT_EQ(decode_perf_event_type(100), "0");
  EXPECT_EQ(decode_perf_event_type(~0UL), "0");
}

// --- decode_perf_config ---

TEST(DecodePerfConfig, HardwareNamesAtTheirValues) {
  const Strings names = {
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
  for (unsigned long i = 0; i < names.size(); ++i) {
    EXPECT_EQ(decode_perf_config(0, i), names[i]) << "config " << i;
  }
}

TEST(DecodePerfConfig, HardwareOutOfRangeGivesMinusOne) {
  EXPECT_EQ(decode_perf_config(0, 10), "-1");
  EXPECT_EQ(decode_perf_config(0, ~0UL), "-1");
}

TEST(DecodePerfConfig, SoftwareNamesAtTheirValues) {
  const Strings names = {
      "PERF_COUNT_SW_CPU_CLOCK",        "PERF_COUNT_SW_TASK_CLOCK",
      "PERF_COUNT_SW_PAGE_FAULTS",      "PERF_COUNT_SW_CONTEXT_SWITCHES",
      "PERF_COUNT_SW_CPU_MIGRATIONS",   "PERF_COUNT_SW_PAGE_FAULTS_MIN",
      "PERF_COUNT_SW_PAGE_FAULTS_MAJ",  "PERF_COUNT_SW_ALIGNMENT_FAULTS",
      "PERF_COUNT_SW_EMULATION_FAULTS", "PERF_COUNT_SW_DUMMY",
      "PERF_COUNT_SW_BPF_OUTPUT",
  };
  for (unsigned long i = 0; i < names.size(); ++i) {
    EXPECT_EQ(decode_perf_config(1, i), names[i]) << "config " << i;
  }
}

TEST(DecodePerfConfig, SoftwareOutOfRangeGivesMinusOne) {
  EXPECT_EQ(decode_perf_config(1, 11), "-1");
  EXPECT_EQ(decode_perf_config(1, ~0UL), "-1");
}

TEST(DecodePerfConfig, CacheL1IReadMiss) {
  EXPECT_EQ(decode_perf_config(3, 0x10001), cache_form(kL1I, kRead, kMiss));
  EXPECT_EQ(decode_perf_config(3, 0x10001),
            "PERF_COUNT_HW_CACHE_L1I | PERF_COUNT_HW_CACHE_OP_READ<<8 | "
            "PERF_COUNT_HW_CACHE_RESULT_MISS<<16");
}

TEST(DecodePerfConfig, CacheZeroIsL1DReadAccess) {
  EXPECT_EQ(decode_perf_config(3, 0),
            cache_form("PERF_COUNT_HW_CACHE_L1D", kRead, kAccess));
}

TEST(DecodePerfConfig, CacheNamesInByteZero) {
  const Strings caches = {
      "PERF_COUNT_HW_CACHE_L1D",  "PERF_COUNT_HW_CACHE_L1I",  "PERF_COUNT_HW_CACHE_LL",
      "PERF_COUNT_HW_CACHE_DTLB", "PERF_COUNT_HW_CACHE_ITLB", "PERF_COUNT_HW_CACHE_BPU",
      "PERF_COUNT_HW_CACHE_NODE",
  };
  for (unsigned long i = 0; i < caches.size(); ++i) {
    EXPECT_EQ(decode_perf_config(3, i), cache_form(caches[i], kRead, kAccess)) << "cache " << i;
  }
}

TEST(DecodePerfConfig, CacheOperationsInByteOne) {
  const Strings ops = {
      "PERF_COUNT_HW_CACHE_OP_READ",
      "PERF_COUNT_HW_CACHE_OP_WRITE",
      "PERF_COUNT_HW_CACHE_OP_PREFETCH",
  };
  for (unsigned long i = 0; i < ops.size(); ++i) {
    EXPECT_EQ(decode_perf_config(3, 1 | (i << 8)), cache_form(kL1I, ops[i], kAccess))
        << "op " << i;
  }
}

TEST(DecodePerfConfig, CacheResultsFromBitSixteen) {
  EXPECT_EQ(decode_perf_config(3, 0x00001), cache_form(kL1I, kRead, kAccess));
  EXPECT_EQ(decode_perf_config(3, 0x10001), cache_form(kL1I, kRead, kMiss));
}

TEST(DecodePerfConfig, CacheUnknownPositions) {
  EXPECT_EQ(decode_perf_config(3, 7), cache_form("unknown", kRead, kAccess));
  EXPECT_EQ(decode_perf_config(3, 0xff), cache_form("unknown", kRead, kAccess));
  EXPECT_EQ(decode_perf_config(3, 0x301), cache_form(kL1I, "unknown", kAccess));
  EXPECT_EQ(decode_perf_config(3, 0xff01), cache_form(kL1I, "unknown", kAccess));
  EXPECT_EQ(decode_perf_config(3, 0x20001), cache_form(kL1I, kRead, "unknown"));
  EXPECT_EQ(decode_perf_config(3, 0x20301), "PERF_COUNT_HW_CACHE_L1I | unknown<<8 | unknown<<16");
  EXPECT_EQ(decode_perf_config(3, 0x30307), "unknown | unknown<<8 | unknown<<16");
}

TEST(DecodePerfConfig, CacheResultTakesAllHighBits) {
  // Bit 16 alone is a miss; any higher bit makes the result a value other than 0 or 1.
  EXPECT_EQ(decode_perf_config(3, 0x1000001), cache_form(kL1I, kRead, "unknown"));
  EXPECT_EQ(decode_perf_config(3, 0x1000010001UL), cache_form(kL1I, kRead, "unknown"));
  EXPECT_EQ(decode_perf_config(3, ~0UL), "unknown | unknown<<8 | unknown<<16");
}

TEST(DecodePerfConfig, RawIsLowerCaseHexWithoutPrefix) {
  EXPECT_EQ(decode_perf_config(4, 8401), "20d1");
  EXPECT_EQ(decode_perf_config(4, 0), "0");
  EXPECT_EQ(decode_perf_config(4, 0xabcdef), "abcdef");
  EXPECT_EQ(decode_perf_config(4, 0x10), "10");
  EXPECT_EQ(decode_perf_config(4, ~0UL), "ffffffffffffffff");
}

TEST(DecodePerfConfig, OtherTypesGiveUnknown) {
  EXPECT_EQ(decode_perf_config(2, 5), "Unknown");
  EXPECT_EQ(decode_perf_config(2, 0), "Unknown");
  EXPECT_EQ(decode_perf_config(5, 0), "Unknown");
  EXPECT_EQ(decode_perf_config(6, 1), "Unknown");
  EXPECT_EQ(decode_perf_config(~0UL, 0), "Unknown");
}

// --- decode_sample_type ---

TEST(DecodeSampleType, Value743ListsSevenNamesInBitOrder) {
  EXPECT_EQ(decode_sample_type(743),
            "PERF_SAMPLE_IP | PERF_SAMPLE_TID | PERF_SAMPLE_TIME | PERF_SAMPLE_CALLCHAIN | "
            "PERF_SAMPLE_ID | PERF_SAMPLE_CPU | PERF_SAMPLE_STREAM_ID");
}

TEST(DecodeSampleType, EachNameAtItsBit) {
  ASSERT_EQ(kSampleTypeNames.size(), 20u);
  for (unsigned bit = 0; bit < kSampleTypeNames.size(); ++bit) {
    EXPECT_EQ(decode_sample_type(1UL << bit), kSampleTypeNames[bit]) << "bit " << bit;
  }
}

TEST(DecodeSampleType, AllBitsListsAllNamesInOrder) {
  EXPECT_EQ(decode_sample_type(0xfffff), dump_flag_vector(kSampleTypeNames));
  EXPECT_EQ(decode_sample_type(~0UL), dump_flag_vector(kSampleTypeNames));
}

TEST(DecodeSampleType, ZeroGivesMinusOne) { EXPECT_EQ(decode_sample_type(0), "-1"); }

TEST(DecodeSampleType, BitsAboveNineteenIgnored) {
  EXPECT_EQ(decode_sample_type(1UL << 20), "-1");
  EXPECT_EQ(decode_sample_type(1UL << 63), "-1");
  EXPECT_EQ(decode_sample_type(~0xfffffUL), "-1");
  EXPECT_EQ(decode_sample_type((1UL << 20) | (1UL << 5) | 1), "PERF_SAMPLE_IP | PERF_SAMPLE_CALLCHAIN");
}

// --- decode_branch_sample_type ---

TEST(DecodeBranchSampleType, EachNameAtItsBit) {
  ASSERT_EQ(kBranchSampleTypeNames.size(), 17u);
  for (unsigned bit = 0; bit < kBranchSampleTypeNames.size(); ++bit) {
    EXPECT_EQ(decode_branch_sample_type(1UL << bit), kBranchSampleTypeNames[bit]) << "bit " << bit;
  }
}

TEST(DecodeBranchSampleType, AllBitsListsAllNamesInOrder) {
  EXPECT_EQ(decode_branch_sample_type(0x1ffff), dump_flag_vector(kBranchSampleTypeNames));
  EXPECT_EQ(decode_branch_sample_type(~0UL), dump_flag_vector(kBranchSampleTypeNames));
}

TEST(DecodeBranchSampleType, SeveralBitsInOrder) {
  EXPECT_EQ(decode_branch_sample_type(0x8 | 0x2 | 0x1),
            "PERF_SAMPLE_BRANCH_USER | PERF_SAMPLE_BRANCH_KERNEL | PERF_SAMPLE_BRANCH_ANY");
}

TEST(DecodeBranchSampleType, ZeroGivesMinusOne) { EXPECT_EQ(decode_branch_sample_type(0), "-1"); }

TEST(DecodeBranchSampleType, BitsAboveSixteenIgnored) {
  EXPECT_EQ(decode_branch_sample_type(1UL << 17), "-1");
  EXPECT_EQ(decode_branch_sample_type(1UL << 63), "-1");
  EXPECT_EQ(decode_branch_sample_type(~0x1ffffUL), "-1");
  EXPECT_EQ(decode_branch_sample_type((1UL << 17) | (1UL << 16)), "PERF_SAMPLE_BRANCH_TYPE_SAVE");
}

// --- agreement with the kernel's header ---

// Each name must be the spelling of the kernel constant that has the decoded value.
#define EXPECT_NAMED(call, constant) EXPECT_EQ(call(constant), #constant)
#define EXPECT_CONFIG_NAMED(type, constant) EXPECT_EQ(decode_perf_config(type, constant), #constant)

TEST(KernelHeader, EventTypesAgree) {
  EXPECT_NAMED(decode_perf_event_type, PERF_TYPE_HARDWARE);
  EXPECT_NAMED(decode_perf_event_type, PERF_TYPE_SOFTWARE);
  EXPECT_NAMED(decode_perf_event_type, PERF_TYPE_TRACEPOINT);
  EXPECT_NAMED(decode_perf_event_type, PERF_TYPE_HW_CACHE);
  EXPECT_NAMED(decode_perf_event_type, PERF_TYPE_RAW);
  EXPECT_NAMED(decode_perf_event_type, PERF_TYPE_BREAKPOINT);
}

TEST(KernelHeader, HardwareAndSoftwareConfigsAgree) {
  EXPECT_CONFIG_NAMED(PERF_TYPE_HARDWARE, PERF_COUNT_HW_CPU_CYCLES);
  EXPECT_CONFIG_NAMED(PERF_TYPE_HARDWARE, PERF_COUNT_HW_INSTRUCTIONS);
  EXPECT_CONFIG_NAMED(PERF_TYPE_HARDWARE, PERF_COUNT_HW_CACHE_REFERENCES);
  EXPECT_CONFIG_NAMED(PERF_TYPE_HARDWARE, PERF_COUNT_HW_CACHE_MISSES);
  EXPECT_CONFIG_NAMED(PERF_TYPE_HARDWARE, PERF_COUNT_HW_BRANCH_INSTRUCTIONS);
  EXPECT_CONFIG_NAMED(PERF_TYPE_HARDWARE, PERF_COUNT_HW_BRANCH_MISSES);
  EXPECT_CONFIG_NAMED(PERF_TYPE_HARDWARE, PERF_COUNT_HW_BUS_CYCLES);
  EXPECT_CONFIG_NAMED(PERF_TYPE_HARDWARE, PERF_COUNT_HW_STALLED_CYCLES_FRONTEND);
  EXPECT_CONFIG_NAMED(PERF_TYPE_HARDWARE, PERF_COUNT_HW_STALLED_CYCLES_BACKEND);
  EXPECT_CONFIG_NAMED(PERF_TYPE_HARDWARE, PERF_COUNT_HW_REF_CPU_CYCLES);

  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_CPU_CLOCK);
  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_TASK_CLOCK);
  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_PAGE_FAULTS);
  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_CONTEXT_SWITCHES);
  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_CPU_MIGRATIONS);
  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_PAGE_FAULTS_MIN);
  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_PAGE_FAULTS_MAJ);
  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_ALIGNMENT_FAULTS);
  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_EMULATION_FAULTS);
  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_DUMMY);
  EXPECT_CONFIG_NAMED(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_BPF_OUTPUT);
}

TEST(KernelHeader, CacheFieldsAgree) {
  const unsigned long config = PERF_COUNT_HW_CACHE_ITLB | (PERF_COUNT_HW_CACHE_OP_PREFETCH << 8) |
                               (PERF_COUNT_HW_CACHE_RESULT_MISS << 16);
  EXPECT_EQ(decode_perf_config(PERF_TYPE_HW_CACHE, config),
            cache_form("PERF_COUNT_HW_CACHE_ITLB", "PERF_COUNT_HW_CACHE_OP_PREFETCH", kMiss));
  EXPECT_EQ(decode_perf_config(PERF_TYPE_HW_CACHE, PERF_COUNT_HW_CACHE_NODE),
            cache_form("PERF_COUNT_HW_CACHE_NODE", kRead, kAccess));
}

TEST(KernelHeader, SampleTypesAgree) {
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_IP);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_TID);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_TIME);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_ADDR);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_READ);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_CALLCHAIN);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_ID);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_CPU);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_PERIOD);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_STREAM_ID);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_RAW);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_BRANCH_STACK);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_REGS_USER);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_STACK_USER);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_WEIGHT);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_DATA_SRC);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_IDENTIFIER);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_TRANSACTION);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_REGS_INTR);
  EXPECT_NAMED(decode_sample_type, PERF_SAMPLE_PHYS_ADDR);
}

TEST(KernelHeader, BranchSampleTypesAgree) {
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_USER);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_KERNEL);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_HV);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_ANY);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_ANY_CALL);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_ANY_RETURN);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_IND_CALL);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_ABORT_TX);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_IN_TX);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_NO_TX);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_COND);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_CALL_STACK);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_IND_JUMP);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_CALL);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_NO_FLAGS);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_NO_CYCLES);
  EXPECT_NAMED(decode_branch_sample_type, PERF_SAMPLE_BRANCH_TYPE_SAVE);
}

}  // namespace
}  // namespace zorvek
