// One NVTX push plus pop through the injection library into a running capture,
// beside the same pair with no tool attached and beside a direct
// Zorv::annotate_begin plus annotate_end, in one run. Prints ns a pair and the
// ratios; asserts nothing.
//
// Two NVTX instances live in this process: bench_nvtx_plain.so's, initialised
// before NVTX_INJECTION64_PATH is set, has no tool; the program's own loads the
// injection library, before the start so that the start hands it the table. The
// capture is real (controller, annotator, writer thread, file). Pairs are timed
// in bursts that fit in the free buffers, with a pause after each for the writer
// to catch up, so that what is timed is the producer's path and not a wait for a
// buffer. The kinds take turns within each round, as this VM's speed drifts. The
// best round of each kind is its cost undisturbed (the writer compresses on
// another core meanwhile, and a busy VM interrupts now and then); the median is
// printed beside it, and the ratios of both. The injected pair with the capture
// stopped (the library's idle table) is timed too, beside the plain one.

#include <dlfcn.h>
#include <nvtx3/nvToolsExt.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "zorv/zorv.h"

extern "C" void bench_nvtx_plain_init();
extern "C" void bench_nvtx_plain_pairs(const char* msg, int count);

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPairs = 20000;  // 1.4 MB of records a burst
constexpr int kRounds = 40;
constexpr int kWarmupRounds = 10;  // touch every buffer page once before timing
const char kMessage[] = "forward";

template <typename F>
double ns_per_pair(F pairs) {
  const auto began = Clock::now();
  pairs(kPairs);
  const auto took = std::chrono::duration<double, std::nano>(Clock::now() - began).count();
  return took / kPairs;
}

void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(5)); }

__attribute__((noinline)) void injected_pairs(int count) {
  for (int i = 0; i < count; ++i) {
    nvtxRangePushA(kMessage);
    nvtxRangePop();
  }
}

__attribute__((noinline)) void injected_domain_pairs(nvtxDomainHandle_t domain,
                                                     const nvtxEventAttributes_t* attr, int count) {
  for (int i = 0; i < count; ++i) {
    nvtxDomainRangePushEx(domain, attr);
    nvtxDomainRangePop(domain);
  }
}

__attribute__((noinline)) void direct_pairs(int count) {
  zorvek::Zorv& zorv = zorvek::Zorv::instance();
  for (int i = 0; i < count; ++i) {
    zorv.annotate_end(zorv.annotate_begin(kMessage, sizeof(kMessage) - 1));
  }
}

void plain_pairs(int count) { bench_nvtx_plain_pairs(kMessage, count); }

struct Figures {
  double best;
  double median;
};

Figures figures(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return Figures{values.front(), values[values.size() / 2]};
}

void print(const char* what, const Figures& f) {
  std::printf("%-52s %7.1f ns a pair (median %.1f)\n", what, f.best, f.median);
}

}  // namespace

int main(int argc, char** argv) {
  const char* library = argc > 1 ? argv[1] : ZORV_NVTX_LIBRARY;
  setenv("ZORV_MIN_LOG_LEVEL", "2", 1);  // the writer's statistics lines
  std::cerr.setstate(std::ios::failbit);  // the record helper's closing line
  unsetenv("ZVK_OUTPUT_FILE_NAME");

  // The plain instance first meets NVTX with no variable set: no tool, for good.
  unsetenv("NVTX_INJECTION64_PATH");
  bench_nvtx_plain_init();
  setenv("NVTX_INJECTION64_PATH", library, 1);
  nvtxInitialize(nullptr);
  if (dlopen(library, RTLD_LAZY | RTLD_NOLOAD) == nullptr) {
    std::fprintf(stderr, "bench_nvtx: NVTX did not load %s\n", library);
    return 1;
  }
  nvtxDomainHandle_t domain = nvtxDomainCreateA("bench");
  nvtxEventAttributes_t attr = {};
  attr.version = NVTX_VERSION;
  attr.size = NVTX_EVENT_ATTRIB_STRUCT_SIZE;
  attr.messageType = NVTX_MESSAGE_TYPE_REGISTERED;
  attr.message.registered = nvtxDomainRegisterStringA(domain, kMessage);

  char dir_template[] = "/tmp/bench_nvtx_XXXXXX";
  const char* dir = mkdtemp(dir_template);
  if (dir == nullptr) return 1;
  zorvek::Zorv& zorv = zorvek::Zorv::instance();
  const std::string pattern = std::string(dir) + "/bench_%p";
  if (!zorv.configure({{"ZORV", {{"BucketCount", "8"}, {"BucketSizeMB", "16"},
                                 {"RecordFile", pattern}}}}).ok() ||
      !zorv.start_profiling().ok()) {
    std::fprintf(stderr, "bench_nvtx: the capture did not start\n");
    return 1;
  }

  std::vector<double> plain, injected, domain_injected, direct;
  for (int round = 0; round < kWarmupRounds + kRounds; ++round) {
    const bool timed = round >= kWarmupRounds;
    const double p = ns_per_pair(plain_pairs);
    const double i = ns_per_pair(injected_pairs);
    settle();
    const double d = ns_per_pair(direct_pairs);
    settle();
    const double r = ns_per_pair([&](int n) { injected_domain_pairs(domain, &attr, n); });
    settle();
    if (timed) {
      plain.push_back(p);
      injected.push_back(i);
      direct.push_back(d);
      domain_injected.push_back(r);
    }
  }
  zorv.stop_profiling();

  std::vector<double> idle, idle_plain;
  for (int round = 0; round < kRounds; ++round) {
    idle_plain.push_back(ns_per_pair(plain_pairs));
    idle.push_back(ns_per_pair(injected_pairs));
  }

  const Figures plain_ns = figures(plain);
  const Figures injected_ns = figures(injected);
  const Figures domain_ns = figures(domain_injected);
  const Figures direct_ns = figures(direct);
  const Figures idle_ns = figures(idle);
  const Figures idle_plain_ns = figures(idle_plain);
  print("NVTX push+pop, no tool attached:", plain_ns);
  print("NVTX push+pop through the injection, capturing:", injected_ns);
  print("NVTX domain push+pop, registered string, capturing:", domain_ns);
  print("Zorv::annotate_begin+annotate_end, capturing:", direct_ns);
  std::printf("ratio injected / direct: %.2fx best, %.2fx median (target at most 1.5); domain "
              "form %.2fx best, %.2fx median\n",
              injected_ns.best / direct_ns.best, injected_ns.median / direct_ns.median,
              domain_ns.best / direct_ns.best, domain_ns.median / direct_ns.median);
  std::printf("injection's own share beyond the direct pair: %.1f ns best\n",
              injected_ns.best - direct_ns.best);
  print("capture stopped, through the idle table:", idle_ns);
  print("capture stopped, no tool attached:", idle_plain_ns);
  const std::string command = std::string("rm -rf ") + dir;
  if (std::system(command.c_str()) != 0) return 0;
  return 0;
}
