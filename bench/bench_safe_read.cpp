// What a safe read costs by its size and by the ranges one system call carries,
// beside a plain copy of the same bytes: the figures that size the frame walker's
// reads (one copy of a stack chunk against many small reads). Medians of rounds,
// all in one run, so that the ratios hold on a loaded machine.
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench/bench_support.h"
#include "zorv/utils/safememory.h"

using zorvek::SafeRange;
using zorvek::bench::Clock;
using zorvek::bench::median;
using zorvek::bench::seconds_since;

namespace {

constexpr int kRounds = 9;
constexpr int kCallsPerRound = 4000;

template <typename Body>
double nanoseconds_per_call(Body&& body) {
  std::vector<double> rounds;
  for (int r = 0; r < kRounds; ++r) {
    const auto start = Clock::now();
    for (int i = 0; i < kCallsPerRound; ++i) body();
    rounds.push_back(seconds_since(start) * 1e9 / kCallsPerRound);
  }
  return median(rounds);
}

}  // namespace

int main() {
  static uint8_t source[64 * 1024];
  static uint8_t target[64 * 1024];
  memset(source, 1, sizeof(source));
  const auto from = reinterpret_cast<uintptr_t>(source);

  printf("%-34s %10s %10s\n", "read", "ns/call", "x 64 B");
  const double base = nanoseconds_per_call([&] { zorvek::safe_read(target, from, 64); });
  for (size_t size : {size_t{64}, size_t{512}, size_t{4096}, size_t{8192}, size_t{16384},
                      size_t{32768}}) {
    const double ns = nanoseconds_per_call([&] { zorvek::safe_read(target, from, size); });
    printf("safe_read %-24zu %10.0f %10.2f\n", size, ns, ns / base);
  }
  for (size_t ranges : {size_t{1}, size_t{2}, size_t{8}, size_t{16}, size_t{32}}) {
    SafeRange list[32];
    for (size_t i = 0; i < ranges; ++i) list[i] = SafeRange{target + i * 256, from + i * 1024, 160};
    const double ns = nanoseconds_per_call([&] { zorvek::safe_read_ranges(list, ranges); });
    printf("safe_read_ranges %2zu x 160 B %12.0f %10.2f\n", ranges, ns, ns / base);
  }
  const double copy = nanoseconds_per_call([&] {
    memcpy(target, source, 16384);
    asm volatile("" : : "r"(target) : "memory");
  });
  printf("%-34s %10.0f %10.2f\n", "memcpy 16384", copy, copy / base);
  return 0;
}
