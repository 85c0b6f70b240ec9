#pragma once

#include <time.h>

#include <cstdint>
#include <string>

namespace zorvek {

inline uint64_t timespec_to_ns(const timespec& ts) {
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

// The system clock in nanoseconds since the epoch: the clock of record timestamps
// and of the file header's times. Inline: it is read on every annotation.
inline uint64_t now_ns() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return timespec_to_ns(now);
}

// Local time of `ns` since the epoch: `format` for strftime, then ".%06ld" microseconds.
std::string local_time_text(uint64_t ns, const char* format);

// Nanoseconds to add to a CLOCK_MONOTONIC_RAW time to get a system-clock time,
// less the cost of one clock_gettime call.
uint64_t get_clock_offset();

// The mean of `count` values, rounded down, exact at any size: summing ten system
// clock readings in 64 bits would wrap once the clock passes mid-2028.
uint64_t mean_of(const uint64_t* values, int count);

constexpr int kClockOffsetRounds = 10;

// get_clock_offset's arithmetic on its readings: ten pairs of monotonic and system
// readings, then the first and last of six back-to-back monotonic reads.
uint64_t clock_offset_from(const timespec (&monotonic)[kClockOffsetRounds],
                           const timespec (&system)[kClockOffsetRounds],
                           const timespec& cost_first, const timespec& cost_last);

}  // namespace zorvek
