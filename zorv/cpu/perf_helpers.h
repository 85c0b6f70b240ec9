#pragma once

#include <string>
#include <vector>

// Text for the numbers of a perf_event_attr, for log lines only: every name is the
// kernel's own macro or enum name. None of these fails or throws for any input;
// values without a name give a fixed placeholder instead.

// PERF_TYPE_HARDWARE ... PERF_TYPE_BREAKPOINT; any other type gives "0".
std::string decode_perf_event_type(unsigned long type);

// The config word read by its type: a name for hardware and software counters
// ("-1" when out of range), the cache, operation and result of a PERF_TYPE_HW_CACHE
// word, lower-case hex without prefix for PERF_TYPE_RAW, and "Unknown" otherwise.
std::string decode_perf_config(unsigned long type, unsigned long config);

// The names of the set PERF_SAMPLE_* bits 0 to 19, joined by dump_flag_vector.
std::string decode_sample_type(unsigned long sample_type);

// The names of the set PERF_SAMPLE_BRANCH_* bits 0 to 16, joined by dump_flag_vector.
std::string decode_branch_sample_type(unsigned long branch_sample_type);

// The strings joined in order by " | "; "-1" when there are none.
std::string dump_flag_vector(const std::vector<std::string>& flags);
