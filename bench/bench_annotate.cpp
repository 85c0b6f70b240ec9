// The annotation hot path: one annotate_begin plus annotate_end pair through the
// annotator and record helper, beside one bare clock_gettime(CLOCK_REALTIME)
// measured in the same run. Prints the ratio; asserts nothing.

#include <benchmark/benchmark.h>
#include <sched.h>
#include <time.h>

#include <atomic>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "zorv/zvkannotator.h"

namespace zorvek {
namespace {

// Large buffers and a drain thread that hands them back, as the writer would.
struct Fixture {
  Fixture() : fill(8, 64u << 20) {
    std::cerr.setstate(std::ios::failbit);  // the helper's closing line
    prefault_buffers();
    helper = std::make_shared<ZVKBufferRecordHelper>(&fill, &to_write);
    annotator = std::make_unique<ZVKAnnotator>("SharedAnnotator", helper);
    drain = std::thread([this] {
      while (!stop.load(std::memory_order_relaxed)) {
        ZVKBuffer* buffer = nullptr;
        to_write.pop(&buffer);
        if (buffer == nullptr) {
          std::this_thread::sleep_for(std::chrono::microseconds(200));
          continue;
        }
        buffer->num_bytes = 0;
        fill.push(buffer);
      }
    });
  }
  // The slab's pages are faulted in on first touch; a long-running capture has
  // touched them all, so the measurement starts from that steady state.
  void prefault_buffers() {
    std::vector<ZVKBuffer*> buffers;
    for (ZVKBuffer* buffer = nullptr; fill.pop(&buffer), buffer != nullptr;) {
      std::memset(buffer->record_buffer, 0, buffer->len_buffer);
      buffers.push_back(buffer);
    }
    for (ZVKBuffer* buffer : buffers) fill.push(buffer);
  }

  ZVKQueue<ZVKBuffer> fill;
  ZVKQueue<ZVKBuffer> to_write;
  std::shared_ptr<ZVKBufferRecordHelper> helper;
  std::unique_ptr<ZVKAnnotator> annotator;
  std::atomic<bool> stop{false};
  std::thread drain;
};

Fixture& fixture() {
  static Fixture* shared = new Fixture();  // lives to process exit, like the controller's
  return *shared;
}

void BM_ClockGettime(benchmark::State& state) {
  timespec now;
  for (auto _ : state) {
    clock_gettime(CLOCK_REALTIME, &now);
    benchmark::DoNotOptimize(now);
  }
}

void BM_AnnotateBeginEnd(benchmark::State& state) {
  ZVKAnnotator& annotator = *fixture().annotator;
  static const char kMessage[] = "forward";
  for (auto _ : state) {
    const uint64_t token = annotator.annotate_begin(kMessage, sizeof(kMessage) - 1);
    annotator.annotate_end(token);
  }
}

// What the record path can't do without, for one pair and nothing else: two clock
// reads, two sched_getcpu, two lock/unlock pairs of a std::mutex, two copies and
// releases of a shared_ptr (the RecordWriter's pin), one fetch_add (the token), and
// the pair's 72 bytes stored into memory that streams by as the slab does.
// The pair's distance from this is what the annotator and helper themselves cost.
void BM_RecordPathFloor(benchmark::State& state) {
  std::mutex mutex;
  const auto pinned = std::make_shared<int>(0);
  std::atomic<uint64_t> tokens{0};
  constexpr size_t kStreamBytes = 64u << 20;
  std::vector<char> stream(kStreamBytes, 0);  // faulted in, like the bench's slab
  size_t offset = 0;
  timespec now;
  for (auto _ : state) {
    const uint64_t token = tokens.fetch_add(1, std::memory_order_relaxed);
    for (int record = 0; record < 2; ++record) {
      clock_gettime(CLOCK_REALTIME, &now);
      const int cpu = sched_getcpu();
      std::shared_ptr<int> pin;
      size_t at;
      {
        std::lock_guard<std::mutex> lock(mutex);
        pin = pinned;
        at = offset;
        offset = (offset + 40 - 8 * record) % (kStreamBytes - 64);
      }
      char* bytes = stream.data() + at;
      std::memcpy(bytes, &now, sizeof(now));
      std::memcpy(bytes + 16, &cpu, sizeof(cpu));
      std::memcpy(bytes + 24, &token, sizeof(token));
      benchmark::DoNotOptimize(pin.get());
    }
  }
  benchmark::DoNotOptimize(stream.data());
}

BENCHMARK(BM_ClockGettime);
BENCHMARK(BM_RecordPathFloor);
BENCHMARK(BM_AnnotateBeginEnd)->Threads(1);
BENCHMARK(BM_AnnotateBeginEnd)->Threads(2);

// Collects per-benchmark real time per iteration, then prints the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const double ns = run.GetAdjustedRealTime();
      const std::string name = run.benchmark_name();
      if (name.find("BM_ClockGettime") != std::string::npos) clock_ns = ns;
      if (name.find("BM_RecordPathFloor") != std::string::npos) floor_ns = ns;
      if (name.find("BM_AnnotateBeginEnd") != std::string::npos) pairs.emplace_back(name, ns);
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::cout << "\nclock_gettime(CLOCK_REALTIME): " << clock_ns << " ns\n"
              << "record path floor (clocks, locks, pins, token, 72 bytes of one pair): "
              << floor_ns
              << " ns\n";
    for (const auto& pair : pairs) {
      std::cout << pair.first << ": " << pair.second << " ns a pair, "
                << pair.second / clock_ns << "x one clock read, " << pair.second / floor_ns
                << "x the floor\n";
    }
  }
  double clock_ns = 1;
  double floor_ns = 1;
  std::vector<std::pair<std::string, double>> pairs;
};

}  // namespace
}  // namespace zorvek

int main(int argc, char** argv) {
  // glibc and libstdc++ take cheaper paths in a process that never started a
  // thread; no training process is one.
  std::thread([] {}).join();
  zorvek::fixture();
  benchmark::Initialize(&argc, argv);
  zorvek::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
