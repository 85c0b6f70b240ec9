// Drain rate of the perf ring decoder beside memcpy of the same ring bytes, in one
// run. A ring of the default size (1024 data pages) is filled once with samples
// as a training process gives them: user call chains of 16 to 64 frames, a few
// threads, a few event ids, and one record straddling the end of the data area on
// every lap. Each lap then moves the ring words on by the ring's size, so that the
// same bytes are drained again, as the kernel would present them a lap later.
//
// The decoder writes into a real record helper whose buffers are handed back after
// every lap, so that what is timed is decoding and not waiting for a writer. memcpy
// copies the same bytes per lap into the same buffers. Five rounds, each a memcpy
// pass right before a decoder pass since this VM's speed drifts, and the median
// ratio is printed. Nothing is asserted: the aim is a ratio of at least 0.25.

#include <linux/perf_event.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <vector>

#include "bench/bench_support.h"
#include "zorv/cpu/processpages.h"
#include "zorv/format/perf.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkqueue.h"

namespace zorvek {
namespace {

using bench::Clock;
using bench::median;
using bench::seconds_since;
constexpr size_t kDataPages = 1024;
constexpr uint32_t kBufferBytes = 8u << 20;
// One lap's records take about the ring's size (4 MiB); the helper holds one buffer
// and the rest must take a lap without refilling.
constexpr int kBuffers = 4;
constexpr int kLapsPerPass = 128;
constexpr int kRounds = 5;

// A control page and the data area behind it, as the kernel maps them.
struct Ring {
  size_t page_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  size_t data_size = page_size * kDataPages;
  char* memory = nullptr;
  uint64_t start = 0;  // position of the first record on the first lap
  uint64_t used = 0;   // bytes of records per lap
  uint64_t records = 0;
  uint64_t wrapped = 0;  // records per lap that straddle the end

  Ring() {
    void* allocated = nullptr;
    if (posix_memalign(&allocated, page_size, page_size + data_size) != 0) std::abort();
    memory = static_cast<char*>(allocated);
    std::memset(memory, 0, page_size + data_size);
    page()->data_offset = page_size;
    page()->data_size = data_size;
  }
  ~Ring() { free(memory); }
  perf_event_mmap_page* page() { return reinterpret_cast<perf_event_mmap_page*>(memory); }
  char* data() { return memory + page_size; }

  void put(uint64_t position, const char* bytes, size_t size) {
    const size_t at = position & (data_size - 1);
    const size_t first = std::min(size, data_size - at);
    std::memcpy(data() + at, bytes, first);
    std::memcpy(data(), bytes + first, size - first);
  }

  // Samples of sample type 743 from `start` on, until the next would overrun the
  // tail: IP, TID, TIME, ID, STREAM_ID, CPU, then the chain.
  void fill_with_samples() {
    std::mt19937_64 random(42);
    start = data_size / 3 & ~uint64_t{7};
    uint64_t position = start;
    uint64_t time = 1'700'000'000'000'000'000ull;
    std::vector<uint64_t> words;
    for (;;) {
      const uint64_t nr = 16 + random() % 49;
      const uint64_t size = 64 + 8 * nr;
      if (position + size - start > data_size) break;
      const uint64_t thread = random() % 8;
      const uint64_t id = 0x1000 + random() % 4;
      time += 250'000 + random() % 10'000;
      words.clear();
      words.push_back(PERF_RECORD_SAMPLE | uint64_t{PERF_RECORD_MISC_USER} << 32 | size << 48);
      words.push_back(0x55d000000000ull + random() % (64 << 20));            // ip
      words.push_back(uint64_t{4242 + thread} << 32 | 4242);                  // pid, tid
      words.push_back(time);                                                  // time
      words.push_back(id);                                                    // id
      words.push_back(0x1000);                                                // stream_id
      words.push_back(random() % 64);                                         // cpu, res
      words.push_back(nr);                                                    // nr
      words.push_back(PERF_CONTEXT_USER);
      for (uint64_t i = 1; i < nr; ++i) words.push_back(0x7f0000000000ull + random() % (1ull << 32));
      put(position, reinterpret_cast<const char*>(words.data()), size);
      if ((position & (data_size - 1)) + size > data_size) ++wrapped;
      position += size;
      ++records;
    }
    used = position - start;
  }

  // The ring as the kernel would leave it `lap` laps later: the same bytes, with
  // the words one ring size further on.
  void present_lap(uint64_t lap) {
    page()->data_tail = start + lap * data_size;
    page()->data_head = start + lap * data_size + used;
  }
};

struct Pipeline {
  ZVKQueue<ZVKBuffer> fill{kBuffers, kBufferBytes};
  ZVKQueue<ZVKBuffer> to_write;
  ZVKBufferRecordHelper* helper = new ZVKBufferRecordHelper(&fill, &to_write);
  void* scratch = nullptr;
  size_t scratch_size = 0;
  uint64_t record_bytes = 0;

  ~Pipeline() {
    std::cerr.setstate(std::ios::failbit);  // the helper's closing line
    delete helper;
    std::cerr.clear();
    free(scratch);
  }

  // The writer's part, played at once.
  void recycle() { record_bytes += bench::recycle_buffers(to_write, fill); }
};

double decode_mb_s(Ring& ring, Pipeline& pipeline, uint64_t& lap) {
  const auto start = Clock::now();
  for (int i = 0; i < kLapsPerPass; ++i) {
    ring.present_lap(lap++);
    process_pages(0, ring.page(), perfevent::kDecodedSampleType, &pipeline.scratch,
                  &pipeline.scratch_size, pipeline.helper);
    pipeline.recycle();
  }
  const double elapsed = seconds_since(start);
  if (ring.page()->data_tail != ring.page()->data_head) std::abort();  // didn't drain
  return ring.used * kLapsPerPass / elapsed / 1048576.0;
}

// The same ring bytes per lap, into the pipeline's free buffers in turn.
double memcpy_mb_s(Ring& ring, Pipeline& pipeline) {
  const auto start = Clock::now();
  for (int i = 0; i < kLapsPerPass; ++i) {
    bench::copy_into_free_buffer(pipeline.fill, ring.data(), ring.used);
  }
  return ring.used * kLapsPerPass / seconds_since(start) / 1048576.0;
}

}  // namespace
}  // namespace zorvek

int main() {
  using namespace zorvek;
  Ring ring;
  ring.fill_with_samples();
  Pipeline pipeline;

  // Every buffer and the scratch touched once before anything is timed.
  uint64_t lap = 0;
  decode_mb_s(ring, pipeline, lap);
  memcpy_mb_s(ring, pipeline);
  pipeline.helper->flush();
  pipeline.recycle();
  pipeline.record_bytes = 0;
  const uint64_t laps_before = lap;

  std::vector<double> decode_rates, copy_rates, ratios;
  for (int round = 0; round < kRounds; ++round) {
    const double copy = memcpy_mb_s(ring, pipeline);
    const double decode = decode_mb_s(ring, pipeline, lap);
    copy_rates.push_back(copy);
    decode_rates.push_back(decode);
    ratios.push_back(decode / copy);
  }
  pipeline.helper->flush();
  pipeline.recycle();
  const uint64_t laps = lap - laps_before;
  const double decode = median(decode_rates);

  std::printf("ring: %zu data pages, %llu samples a lap (%llu straddling the end), %.1f MiB\n",
              kDataPages, static_cast<unsigned long long>(ring.records),
              static_cast<unsigned long long>(ring.wrapped), ring.used / 1048576.0);
  std::printf("memcpy of the ring bytes:       %8.1f MB/s (median of %d)\n", median(copy_rates),
              kRounds);
  std::printf("process_pages into the helper:  %8.1f MB/s of ring bytes, %.1f ns a sample\n",
              decode, 1e9 / (decode * 1048576.0 / ring.used * ring.records));
  std::printf("ratio to memcpy:                %8.3f (median; target >= 0.25)\n", median(ratios));
  std::printf("records written: %.3f bytes per ring byte, %llu dropped\n",
              static_cast<double>(pipeline.record_bytes) / (ring.used * laps),
              static_cast<unsigned long long>(pipeline.fill.take_dropped_records()));
  return 0;
}
