#include "zorv/utils/clock.h"

#include <cstdio>

namespace zorvek {

std::string local_time_text(uint64_t ns, const char* format) {
  const time_t seconds = static_cast<time_t>(ns / 1000000000ULL);
  struct tm local;
  localtime_r(&seconds, &local);
  char text[64];
  size_t used = strftime(text, sizeof(text), format, &local);
  snprintf(text + used, sizeof(text) - used, ".%06ld",
           static_cast<long>((ns % 1000000000ULL) / 1000));
  return text;
}

uint64_t mean_of(const uint64_t* values, int count) {
  // Quotients and remainders summed apart: neither sum can wrap, and together
  // they give exactly what a sum without limit divided by count would.
  const uint64_t n = static_cast<uint64_t>(count);
  uint64_t quotients = 0;
  uint64_t remainders = 0;
  for (int i = 0; i < count; ++i) {
    quotients += values[i] / n;
    remainders += values[i] % n;
  }
  return quotients + remainders / n;
}

uint64_t clock_offset_from(const timespec (&monotonic)[kClockOffsetRounds],
                           const timespec (&system)[kClockOffsetRounds],
                           const timespec& cost_first, const timespec& cost_last) {
  uint64_t offsets[kClockOffsetRounds];
  for (int i = 0; i < kClockOffsetRounds; ++i) {
    offsets[i] = timespec_to_ns(system[i]) - timespec_to_ns(monotonic[i]);
  }
  const uint64_t average_offset = mean_of(offsets, kClockOffsetRounds);
  const uint64_t bias = (timespec_to_ns(cost_last) - timespec_to_ns(cost_first)) / 5;
  return average_offset - bias;
}

uint64_t get_clock_offset() {
  timespec tps[kClockOffsetRounds] = {};
  timespec tcs[kClockOffsetRounds] = {};
  for (int i = 0; i < kClockOffsetRounds; ++i) {
    clock_gettime(CLOCK_MONOTONIC_RAW, &tps[i]);
    clock_gettime(CLOCK_REALTIME, &tcs[i]);
  }
  // Five back-to-back reads measure the cost of one call.
  timespec first = {}, last = {};
  clock_gettime(CLOCK_MONOTONIC_RAW, &first);
  for (int i = 0; i < 5; ++i) clock_gettime(CLOCK_MONOTONIC_RAW, &last);
  return clock_offset_from(tps, tcs, first, last);
}

}  // namespace zorvek
