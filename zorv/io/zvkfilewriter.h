#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "zorv/io/zvkbuffer.h"
#include "zorv/io/zvkfile.h"
#include "zorv/io/zvkqueue.h"
#include "zorv/utils/status.h"
#include "zorv/utils/zvkmetadata.h"

namespace zorvek {

// Owns the capture file and the one writer thread that drains the to-write queue
// into it, rotating files by time and reporting what it did.
//
// States: idle (no thread, no file), running (thread, open file), suspended (no
// thread, file closed under its temporary name).
class ZVKFileWriter {
 public:
  enum Compression : uint32_t {
    NO_COMPRESSION = 0,
    LEVEL_1 = 1,
    LEVEL_2 = 2,
    LEVEL_3 = 3,
    LEVEL_4 = 4,
    LEVEL_5 = 5,
    LEVEL_6 = 6,
    LEVEL_7 = 7,
    LEVEL_8 = 8,
    LEVEL_9 = 9,
    ZLIB = 1000000,
    FORCE_DWORD = 2147483647,
  };
  static_assert(sizeof(Compression) == 4, "Compression is a 32-bit enum");

  static constexpr uint32_t kDefaultRotationSeconds = 31536000;  // 365 days

  static constexpr uint32_t kDefaultFlushIntervalMs = 1000;

  // A capture holds the command line, host names and the address layout: its files
  // are readable by their owner only, unless sharing is asked for.
  static constexpr mode_t kPrivateFileMode = 0600;
  static constexpr mode_t kSharedFileMode = 0644;

  // Every `flush_interval_ms` (0: never) the writer sends on the producers'
  // partly filled buffers, so that a process that ends without a stop loses
  // about that much at most. `share_files` makes the files readable by all.
  ZVKFileWriter(ZVKQueue<ZVKBuffer>* to_fill, ZVKQueue<ZVKBuffer>* to_write,
                const JobMetadata& metadata, uint32_t compression,
                uint32_t flush_interval_ms = kDefaultFlushIntervalMs, bool share_files = false);
  ~ZVKFileWriter();
  ZVKFileWriter(const ZVKFileWriter&) = delete;
  ZVKFileWriter& operator=(const ZVKFileWriter&) = delete;

  Status start(const std::string& pattern);
  Status stop();
  Status suspend();
  Status resume();

  // The final name for the current state: first %p, %t, %h replaced, then
  // "_<rotation count>.zvkraw".
  const std::string parse_file_pattern(const std::string& pattern);
  std::string get_tmp_filename(const std::string& name) const;

  // The first due time of the rotation timer: the next whole minute after `now_ns`,
  // plus the period.
  static uint64_t first_rotation_time_ns(uint64_t now_ns, uint32_t period_s);
  // The due time a writer starting at `now_ns` takes: the process's first due time,
  // or, once that has passed, the next due time of the same timetable.
  static uint64_t next_rotation_time_ns(uint64_t now_ns, uint32_t period_s);

  const std::string& current_filename() const { return m_filename; }
  uint32_t rotation_duration_s() const { return m_rotation_duration_s; }
  bool is_running() const { return m_writer_thread != nullptr; }

 private:
  friend struct ZVKFileWriterTestPeer;

  Status start_internal();
  Status stop_internal();
  Status open_file(const std::string& name, bool exact);
  // A new file from m_filepattern under the first free running number.
  Status create_file();
  Status failed_open(int error_number);
  // Gives the mode to a file just created, writes its first header, and takes the
  // file away again if that fails: a capture that could not start leaves nothing.
  Status begin_file();
  ZVKBucketWriter* reopen_after_failed_rotation();
  Status reopen_file(const std::string& name);
  Status close_file();
  uint32_t get_cpu_model() const { return 0; }
  Status read_header();
  Status construct_header();
  Status write_header();
  Status rotate_file(ZVKBucketWriter** bucket_writer, uint32_t num_buckets);
  void writer_loop(int file_handle, ZVKQueue<ZVKBuffer>* to_fill, ZVKQueue<ZVKBuffer>* to_write);
  int compression_level() const;

  ZVKFileHeader* m_hdr = nullptr;
  ZVKQueue<ZVKBuffer>* m_to_write;
  ZVKQueue<ZVKBuffer>* m_to_fill;
  std::thread* m_writer_thread = nullptr;
  std::string m_filename;
  std::string m_filepattern;
  JobMetadata m_metadata;
  // On the steady clock: a step of the system clock must not hold a rotation back.
  std::chrono::steady_clock::time_point m_rotation_time{};
  uint32_t m_rotation_duration_s = kDefaultRotationSeconds;
  uint32_t m_rotation_count = 0;
  int32_t m_compression;
  uint32_t m_flush_interval_ms;
  int m_file_handle = -1;
  mode_t m_file_mode;
  ZVKWriteFunction m_write = &::write;
  // Set and cleared by the controller's thread, polled by the writer thread.
  std::atomic<bool> m_run_writer_loop{false};
  bool m_is_kelvane = false;
  // The last file was closed empty and unlinked: its name is no longer ours.
  bool m_file_unlinked = false;
};

}  // namespace zorvek
