// Sustained throughput of records through the record helper, the writer thread and
// the file, beside plain compress2 at the same level over the same buffers, in one
// run. Then a paced run at 0.8 of compress2's rate, to show whether producers stall.

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkfilewriter.h"
#include "zorv/zvkannotator.h"

namespace zorvek {
namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kBufferBytes = 8u << 20;
constexpr int kBuffers = 16;
constexpr int kLevel = 1;
constexpr uint64_t kTotalBytes = 384ull << 20;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Annotation-like records: what a training step's annotations look like.
void write_record(ZVKBufferRecordHelper& helper, uint64_t i) {
  static const char kNames[][16] = {"forward", "backward", "optimizer.step", "allreduce"};
  const char* name = kNames[i % 4];
  const size_t len = strlen(name);
  auto writer = helper.new_record(1700000000000000000ull + i * 37, make_event_word(ANNOTATION, i % 8, i & 1),
                                  4242, 4242 + static_cast<int>(i % 4), 0,
                                  annotations::message_payload_size(len));
  char* payload = static_cast<char*>(writer.get_payload_store());
  std::memcpy(payload, &i, 8);
  std::memcpy(payload + 8, name, len + 1);
}

double compress2_mb_s() {
  ZVKQueue<ZVKBuffer> fill(2, kBufferBytes), sink;
  std::cerr.setstate(std::ios::failbit);
  {
    ZVKBufferRecordHelper helper(&fill, &sink);
    for (uint64_t i = 0; i < 150000; ++i) write_record(helper, i);  // fits one buffer
  }
  std::cerr.clear();
  ZVKBuffer* buffer = nullptr;
  sink.pop(&buffer);
  std::vector<Bytef> out(compressBound(buffer->num_bytes));
  uint64_t bytes = 0;
  const auto start = Clock::now();
  while (bytes < kTotalBytes / 2) {
    uLongf length = out.size();
    compress2(out.data(), &length, reinterpret_cast<const Bytef*>(buffer->record_buffer),
              buffer->num_bytes, kLevel);
    bytes += buffer->num_bytes;
  }
  return bytes / seconds_since(start) / 1048576.0;
}

struct PipelineRun {
  double mb_s;
  double stall_s;
};

// Two producers on one shared helper; `pace_mb_s` 0 means as fast as they can.
PipelineRun pipeline_mb_s(const std::string& dir, double pace_mb_s) {
  ZVKQueue<ZVKBuffer> fill(kBuffers, kBufferBytes), to_write;
  ZVKFileWriter writer(&fill, &to_write, JobMetadata{"", "bench", ""}, 1000000 + kLevel);
  writer.start(dir + "/bench_%t");
  auto helper = std::make_shared<ZVKBufferRecordHelper>(&fill, &to_write);
  std::atomic<uint64_t> record_bytes{0};
  const auto start = Clock::now();
  std::vector<std::thread> producers;
  for (int t = 0; t < 2; ++t) {
    producers.emplace_back([&, t] {
      uint64_t mine = 0;
      for (uint64_t i = t; record_bytes.load(std::memory_order_relaxed) < kTotalBytes; i += 2) {
        write_record(*helper, i);
        mine += 24 + 24;
        if ((i & 1023) == static_cast<uint64_t>(t)) {
          record_bytes.fetch_add(mine);
          mine = 0;
          if (pace_mb_s > 0) {
            const double due = record_bytes.load() / (pace_mb_s * 1048576.0);
            while (seconds_since(start) < due) std::this_thread::sleep_for(std::chrono::microseconds(50));
          }
        }
      }
    });
  }
  for (auto& producer : producers) producer.join();
  helper->flush();
  const double stall_s = helper->stall_time_us() / 1e6;
  std::cerr.setstate(std::ios::failbit);
  helper.reset();
  writer.stop();
  std::cerr.clear();
  const double elapsed = seconds_since(start);
  return {record_bytes.load() / elapsed / 1048576.0, stall_s};
}

}  // namespace
}  // namespace zorvek

int main() {
  char pattern[] = "/tmp/zorvek-bench-XXXXXX";
  const std::string dir = mkdtemp(pattern);
  const double plain = zorvek::compress2_mb_s();
  std::printf("plain compress2 (level %d):            %8.1f MB/s of record bytes\n", zorvek::kLevel, plain);
  const auto full = zorvek::pipeline_mb_s(dir, 0);
  std::printf("helper + writer thread + file:          %8.1f MB/s  ratio %.3f  producer stall %.3f s\n",
              full.mb_s, full.mb_s / plain, full.stall_s);
  const auto paced = zorvek::pipeline_mb_s(dir, 0.8 * plain);
  std::printf("paced at 0.8 x compress2 (%6.1f MB/s):  %8.1f MB/s  producer stall %.3f s\n", 0.8 * plain,
              paced.mb_s, paced.stall_s);
  const int removed = std::system(("rm -rf '" + dir + "'").c_str());
  return removed == 0 ? 0 : 1;
}
