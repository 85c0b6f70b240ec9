// Sustained throughput of records through the record helper, the writer thread and
// the file, beside plain compress2 at the same level over the same buffers, in one
// run: each capture is timed right after a compress2 pass of its own over the
// pipeline's buffers, three rounds, and the median ratio is printed, since this
// VM's speed drifts between seconds. The writer is also timed alone with a full
// queue, and producers paced at 0.8 of compress2's rate show whether they stall.

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "zorv/format/annotation.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkfilewriter.h"

namespace zorvek {
namespace {

using bench::Clock;
using bench::median;
using bench::seconds_since;
constexpr uint32_t kBufferBytes = 8u << 20;
constexpr int kBuffers = 16;
constexpr int kLevel = 1;
constexpr uint64_t kTotalBytes = 384ull << 20;

// One annotation-like record, as a training step's annotations look. Every byte of
// the payload is written, padding included, so that what is compressed doesn't
// depend on what the slab held before: compress2 alone and the pipeline see the
// same input. Returns the record's size in bytes.
uint32_t write_record(ZVKBufferRecordHelper& helper, uint64_t i) {
  static const char kNames[][16] = {"forward", "backward", "optimizer.step", "allreduce"};
  const char* name = kNames[i % 4];
  const size_t len = strlen(name);
  const uint16_t payload_size = annotations::message_payload_size(len);
  auto writer = helper.new_record(1700000000000000000ull + i * 37,
                                  make_event_word(ANNOTATION, i % 8, i & 1), 4242,
                                  4242 + static_cast<int>(i % 4), 0, payload_size);
  char* payload = static_cast<char*>(writer.get_payload_store());
  std::memcpy(payload, &i, 8);
  std::memcpy(payload + 8, name, len + 1);
  std::memset(payload + 8 + len + 1, 0, payload_size - 8 - len - 1);
  return record_size(0, payload_size);
}

// The same record stream, one buffer's worth after another, into `count` buffers.
std::vector<ZVKBuffer*> filled_buffers(ZVKQueue<ZVKBuffer>* fill, int count) {
  ZVKQueue<ZVKBuffer> sink;
  std::cerr.setstate(std::ios::failbit);  // the helper's closing line
  {
    ZVKBufferRecordHelper helper(fill, &sink);
    // Stops just before the helper would reach for one buffer more than there are.
    const uint64_t per_buffer = kBufferBytes / 48;
    for (uint64_t i = 0; i < per_buffer * count - per_buffer / 2; ++i) write_record(helper, i);
  }
  std::cerr.clear();
  std::vector<ZVKBuffer*> buffers;
  for (ZVKBuffer* buffer = nullptr; sink.pop(&buffer), buffer != nullptr;) buffers.push_back(buffer);
  return buffers;
}

// Until the writer has handed every buffer back. Polled every millisecond, as the
// writer polls: on a VM each wake-up costs CPU time that the writer would miss.
void wait_for_all_buffers(ZVKQueue<ZVKBuffer>& fill, size_t count) {
  while (fill.size() != count) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Each capture's files go once it is measured. Kept, they would leave every later
// run to write into never-used memory, which on a VM costs a host fault a page,
// and the runs would no longer measure the same thing.
void remove_captures(const std::string& dir) {
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    std::filesystem::remove(entry.path());
  }
}

struct Compress2Run {
  double mb_s;
  double compressed_fraction;  // compressed bytes per record byte
};

// compress2 alone on this thread, round robin over a pipeline's worth of buffers.
Compress2Run compress2_mb_s(const std::vector<ZVKBuffer*>& buffers) {
  std::vector<Bytef> out(compressBound(kBufferBytes));
  uint64_t bytes = 0;
  uint64_t compressed = 0;
  const auto start = Clock::now();
  for (size_t i = 0; bytes < kTotalBytes / 2; ++i) {
    const ZVKBuffer* buffer = buffers[i % buffers.size()];
    uLongf length = out.size();
    compress2(out.data(), &length, reinterpret_cast<const Bytef*>(buffer->record_buffer),
              buffer->num_bytes, kLevel);
    bytes += buffer->num_bytes;
    compressed += length;
  }
  return {bytes / seconds_since(start) / 1048576.0, static_cast<double>(compressed) / bytes};
}

struct PipelineRun {
  double mb_s;
  double stall_s;
};

// One capture of kTotalBytes through `producers` threads sharing one helper and
// the writer's thread into a file; `pace_mb_s` 0 means as fast as they can. The
// clock stops when the writer has handed every buffer back: the one-off closing of
// the file (header rewrite, fsync) is not part of a sustained rate.
PipelineRun pipeline_mb_s(ZVKQueue<ZVKBuffer>* fill, ZVKQueue<ZVKBuffer>* to_write,
                          ZVKFileWriter* writer, const std::string& dir, int producers,
                          double pace_mb_s) {
  writer->start(dir + "/bench_%t");
  auto helper = std::make_shared<ZVKBufferRecordHelper>(fill, to_write);
  std::atomic<uint64_t> record_bytes{0};
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int t = 0; t < producers; ++t) {
    threads.emplace_back([&, t] {
      uint64_t mine = 0;
      for (uint64_t i = t; record_bytes.load(std::memory_order_relaxed) < kTotalBytes;
           i += producers) {
        mine += write_record(*helper, i);
        // Every 16384 records: often enough to pace, seldom enough that waking up
        // doesn't take CPU from the writer.
        if (i % 16384 == static_cast<uint64_t>(t)) {
          record_bytes.fetch_add(mine);
          mine = 0;
          if (pace_mb_s > 0) {
            const double ahead_s =
                record_bytes.load() / (pace_mb_s * 1048576.0) - seconds_since(start);
            if (ahead_s > 0) std::this_thread::sleep_for(std::chrono::duration<double>(ahead_s));
          }
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  helper->flush();
  const double stall_s = helper->stall_time_us() / 1e6;
  std::cerr.setstate(std::ios::failbit);  // the helper's and the writer's closing lines
  helper.reset();
  wait_for_all_buffers(*fill, kBuffers);
  const double elapsed = seconds_since(start);
  writer->stop();
  std::cerr.clear();
  remove_captures(dir);
  return {record_bytes.load() / elapsed / 1048576.0, stall_s};
}

// The writer thread with a full to-write queue and no producer beside it: its own
// rate, apart from the CPU that producers take on a small machine.
double writer_alone_mb_s(ZVKQueue<ZVKBuffer>* fill, ZVKQueue<ZVKBuffer>* to_write,
                         ZVKFileWriter* writer, const std::string& dir) {
  const std::vector<ZVKBuffer*> buffers = filled_buffers(fill, kBuffers);
  uint64_t bytes = 0;
  for (const ZVKBuffer* buffer : buffers) bytes += buffer->num_bytes;
  std::cerr.setstate(std::ios::failbit);
  writer->start(dir + "/bench_%t");
  const auto start = Clock::now();
  for (ZVKBuffer* buffer : buffers) to_write->push(buffer);
  wait_for_all_buffers(*fill, buffers.size());
  const double elapsed = seconds_since(start);
  writer->stop();
  std::cerr.clear();
  remove_captures(dir);
  return bytes / elapsed / 1048576.0;
}

struct Scenario {
  const char* name;
  int producers;
  double pace;  // of compress2's rate; 0: full speed
  std::vector<double> ratios{};
  std::vector<double> mb_s{};
  double stall_s = 0;
};

}  // namespace
}  // namespace zorvek

int main() {
  setenv("ZORV_MIN_LOG_LEVEL", "1", 0);  // the writer's INFO lines aren't what is measured
  char pattern[] = "/tmp/zorvek-bench-XXXXXX";
  const std::string dir = mkdtemp(pattern);
  using namespace zorvek;

  // One writer for every capture, as one profiler keeps one for all of them.
  ZVKQueue<ZVKBuffer> fill(kBuffers, kBufferBytes), to_write;
  ZVKFileWriter writer(&fill, &to_write, JobMetadata{"", "bench", ""}, 1000000 + kLevel);
  // compress2 runs over the pipeline's own buffers, filled with its record stream,
  // right before each measurement it is compared with, since this VM's speed drifts.
  auto plain_compress2 = [&fill] {
    const std::vector<ZVKBuffer*> buffers = filled_buffers(&fill, kBuffers);
    const Compress2Run run = compress2_mb_s(buffers);
    for (ZVKBuffer* buffer : buffers) {
      buffer->num_bytes = 0;
      fill.push(buffer);
    }
    return run;
  };

  std::vector<Scenario> scenarios = {{"1 producer, full speed", 1, 0, {}, {}},
                                     {"2 producers, full speed", 2, 0, {}, {}},
                                     {"2 producers paced at 0.8 x compress2", 2, 0.8, {}, {}}};
  std::vector<double> plain_rates;
  std::vector<double> alone_ratios;
  double compressed_fraction = 0;
  for (int round = 0; round < 3; ++round) {
    std::fprintf(stderr, "round %d of 3...\n", round + 1);
    for (Scenario& scenario : scenarios) {
      const double plain = plain_compress2().mb_s;
      plain_rates.push_back(plain);
      const PipelineRun run = pipeline_mb_s(&fill, &to_write, &writer, dir, scenario.producers,
                                            scenario.pace * plain);
      scenario.ratios.push_back(run.mb_s / plain);
      scenario.mb_s.push_back(run.mb_s);
      scenario.stall_s = std::max(scenario.stall_s, run.stall_s);
    }
    const Compress2Run plain_run = plain_compress2();
    compressed_fraction = plain_run.compressed_fraction;
    const double plain = plain_run.mb_s;
    alone_ratios.push_back(writer_alone_mb_s(&fill, &to_write, &writer, dir) / plain);
  }
  std::printf("plain compress2 (level %d), one thread: %7.1f MB/s of record bytes (median)\n",
              kLevel, median(plain_rates));
  std::printf("compressed to %.1f%% of the record bytes\n", 100.0 * compressed_fraction);
  std::printf("%-38s ratio %.3f (median)\n", "writer thread alone, queue full",
              median(alone_ratios));
  for (const Scenario& scenario : scenarios) {
    std::printf("%-38s %7.1f MB/s  ratio %.3f  most stall %.3f s\n", scenario.name,
                median(scenario.mb_s), median(scenario.ratios), scenario.stall_s);
  }
  std::printf("(%d cores: producers at full speed take CPU the writer's compression needs)\n",
              static_cast<int>(std::thread::hardware_concurrency()));
  std::filesystem::remove_all(dir);
  return 0;
}
