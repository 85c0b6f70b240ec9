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

uint64_t get_clock_offset() {
  constexpr int kRounds = 10;
  timespec tps[kRounds] = {};
  timespec tcs[kRounds] = {};
  for (int i = 0; i < kRounds; ++i) {
    clock_gettime(CLOCK_MONOTONIC_RAW, &tps[i]);
    clock_gettime(CLOCK_REALTIME, &tcs[i]);
  }
  uint64_t sum = 0;
  for (int i = 0; i < kRounds; ++i) sum += timespec_to_ns(tcs[i]) - timespec_to_ns(tps[i]);
  const uint64_t average_offset = sum / kRounds;

  // Five back-to-back reads measure the cost of one call.
  timespec first = {}, last = {};
  clock_gettime(CLOCK_MONOTONIC_RAW, &first);
  for (int i = 0; i < 5; ++i) clock_gettime(CLOCK_MONOTONIC_RAW, &last);
  const uint64_t bias = (timespec_to_ns(last) - timespec_to_ns(first)) / 5;
  return average_offset - bias;
}

}  // namespace zorvek
