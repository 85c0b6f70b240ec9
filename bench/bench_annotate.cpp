// The annotation hot path: one annotate_begin plus annotate_end pair through the
// annotator and record helper, beside one bare clock_gettime(CLOCK_REALTIME)
// measured in the same run. Prints the ratio; asserts nothing.

#include <benchmark/benchmark.h>
#include <time.h>

#include <iostream>
#include <memory>
#include <thread>

#include "zorv/zvkannotator.h"

namespace zorvek {
namespace {

// Large buffers and a drain thread that hands them back, as the writer would.
struct Fixture {
  Fixture() : fill(8, 64u << 20) {
    std::cerr.setstate(std::ios::failbit);  // the helper's closing line
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

BENCHMARK(BM_ClockGettime);
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
      if (name.find("BM_AnnotateBeginEnd") != std::string::npos) pairs.emplace_back(name, ns);
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::cout << "\nclock_gettime(CLOCK_REALTIME): " << clock_ns << " ns\n";
    for (const auto& pair : pairs) {
      std::cout << pair.first << ": " << pair.second << " ns a pair, "
                << pair.second / clock_ns << "x one clock read\n";
    }
  }
  double clock_ns = 1;
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
