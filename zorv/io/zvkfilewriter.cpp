#include "zorv/io/zvkfilewriter.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/utils/logging.h"
#include "zorv/utils/signals.h"
#include "zorv/utils/utils.h"

namespace zorvek {
namespace {

// Intervals; the system clock only dates log lines and places the first rotation.
using Clock = std::chrono::steady_clock;

uint64_t wall_ns(std::chrono::system_clock::time_point when) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count());
}

// Local time as "%H:%M:%S" with ".%06ld" microseconds, for the writer's log lines.
std::string local_time_text(uint64_t ns) { return zorvek::local_time_text(ns, "%H:%M:%S"); }

std::string local_time_now() { return local_time_text(wall_ns(ZVKPipelineClock::system_now())); }

uint64_t elapsed_ns(Clock::time_point from, Clock::time_point to) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(to - from).count());
}

// Bytes over microseconds as mebibytes per second, with three decimals.
double bandwidth(uint64_t bytes, uint64_t us) {
  if (us == 0) return 0.0;  // an infinite rate has no integer form
  return static_cast<double>(static_cast<uint64_t>(static_cast<double>(bytes) *
                                                   0.95367431640625 / static_cast<double>(us) *
                                                   1000.0)) /
         1000.0;
}

double ratio(uint64_t uncompressed, uint64_t written) {
  return static_cast<double>(uncompressed) / static_cast<double>(written) * 1000.0 / 1000.0;
}

}  // namespace

ZVKFileWriter::ZVKFileWriter(ZVKQueue<ZVKBuffer>* to_fill, ZVKQueue<ZVKBuffer>* to_write,
                             const JobMetadata& metadata, uint32_t compression,
                             uint32_t flush_interval_ms, bool share_files)
    : m_to_write(to_write),
      m_to_fill(to_fill),
      m_metadata(metadata),
      m_compression(static_cast<int32_t>(compression)),
      m_flush_interval_ms(flush_interval_ms),
      m_file_mode(share_files ? kSharedFileMode : kPrivateFileMode) {
  if (m_metadata.hostname.empty()) m_metadata.hostname = "Unknown_host";
  if (const char* period = getenv("ZVK_FILE_ROTATION_DURATION_SECONDS")) {
    m_rotation_duration_s = get_value_as<uint32_t>(period, kDefaultRotationSeconds);
  }
  VLOG(1) << "current host=" << m_metadata.hostname << ", inst type=" << m_metadata.instance_type
          << ", job_rid=" << m_metadata.job_rid
          << ", rotation duration=" << m_rotation_duration_s << " s.";
  m_is_kelvane = getenv("ZV_CURRENT_HOST") != nullptr;
}

ZVKFileWriter::~ZVKFileWriter() {
  stop();
  free(m_hdr);
}

int ZVKFileWriter::compression_level() const {
  return static_cast<int>(m_hdr->compression % 1000000);
}

Status ZVKFileWriter::start(const std::string& pattern) {
  ZVK_RETURN_NOT_OK(open_file(pattern, false));
  return start_internal();
}

Status ZVKFileWriter::stop() {
  ZVK_RETURN_NOT_OK(stop_internal());
  ZVK_RETURN_NOT_OK(close_file());
  if (m_is_kelvane) {
    const std::string tmp = get_tmp_filename(m_filename);
    LOG(INFO) << "Rename " << tmp << " to " << m_filename;
    if (rename(tmp.c_str(), m_filename.c_str()) != 0) {
      LOG(ERROR) << "Can't rename " << tmp << " to " << m_filename;
    }
  }
  return Status::OK();
}

Status ZVKFileWriter::suspend() {
  ZVK_RETURN_NOT_OK(stop_internal());
  return close_file();
}

Status ZVKFileWriter::resume() {
  // A forked child resuming a capture it inherited gets a file of its own: two
  // processes appending to one file would interleave their buckets.
  if (m_hdr != nullptr && m_hdr->pid != static_cast<uint32_t>(getpid())) {
    ZVK_RETURN_NOT_OK(open_file(m_filepattern, false));
    return start_internal();
  }
  // A suspended capture with no buckets had its file unlinked: begin it anew. Not
  // by reopening the name, which another process may have taken since.
  if (m_file_unlinked || !reopen_file(m_filename).ok()) {
    ZVK_RETURN_NOT_OK(open_file(m_filename, true));
  }
  return start_internal();
}

std::string ZVKFileWriter::get_tmp_filename(const std::string& name) const {
  return m_is_kelvane ? name + ".tmp" : name;
}

const std::string ZVKFileWriter::parse_file_pattern(const std::string& pattern) {
  std::string name = pattern;
  const std::pair<const char*, std::string> tokens[] = {
      {"%p", std::to_string(getpid())},
      {"%t", std::to_string(now_ns())},
      {"%h", m_metadata.hostname},
  };
  for (const auto& token : tokens) {
    const size_t at = name.find(token.first);
    if (at != std::string::npos) name.replace(at, 2, token.second);
  }
  name += "_" + std::to_string(m_rotation_count) + ".zvkraw";
  VLOG(1) << " Filename \"" << pattern << "\" converted to \"" << name << "\"";
  return name;
}

uint64_t ZVKFileWriter::first_rotation_time_ns(uint64_t now, uint32_t period_s) {
  return ((now / 60000000000ULL + 1) * 60 + period_s) * 1000000000ULL;
}

uint64_t ZVKFileWriter::next_rotation_time_ns(uint64_t now, uint32_t period_s) {
  // One timetable per process, set by the first writer to start; resume keeps it.
  static const uint64_t first_due = first_rotation_time_ns(now, period_s);
  const uint64_t period_ns = static_cast<uint64_t>(period_s) * 1000000000ULL;
  if (now <= first_due || period_ns == 0) return first_due;
  // A later writer joins the timetable at its next due time instead of rotating
  // once for every period it missed.
  return first_due + ((now - first_due) / period_ns + 1) * period_ns;
}

Status ZVKFileWriter::start_internal() {
  if (m_writer_thread != nullptr) {
    return Status(error::FAILED_PRECONDITION,
                  "Writer thread is already present! Please stop recording first!");
  }
  if (m_rotation_time == Clock::time_point{}) {
    // The timetable is in wall time (whole minutes); the deadline is kept as the
    // same distance on the steady clock.
    const Clock::time_point steady_now = ZVKPipelineClock::steady_now();
    const uint64_t now = wall_ns(ZVKPipelineClock::system_now());
    const uint64_t due = next_rotation_time_ns(now, m_rotation_duration_s);
    m_rotation_time =
        steady_now + std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(
                         static_cast<int64_t>(due) - static_cast<int64_t>(now)));
    VLOG(1) << "Rotation timer set to " << local_time_text(due);
  }
  m_run_writer_loop = true;
  // From here on a producer waiting for a buffer can count on getting one.
  m_to_fill->set_supplied(true);
  // Blocked signals also make a file size limit fail our write (EFBIG) instead of
  // ending the process.
  ScopedSignalsBlocked blocked;
  m_writer_thread =
      new std::thread(&ZVKFileWriter::writer_loop, this, m_file_handle, m_to_fill, m_to_write);
  return Status::OK();
}

Status ZVKFileWriter::stop_internal() {
  if (m_writer_thread == nullptr) {
    return Status(error::FAILED_PRECONDITION, "There is no recording ongoing to stop!");
  }
  m_run_writer_loop = false;
  m_to_write->wake_consumers();
  m_writer_thread->join();
  delete m_writer_thread;
  m_writer_thread = nullptr;
  // Producers that find no free buffer now drop their records instead of waiting.
  m_to_fill->set_supplied(false);
  return write_header();
}

Status ZVKFileWriter::open_file(const std::string& name, bool exact) {
  if (m_file_handle >= 0) close_file();
  if (!exact) {
    m_filepattern = name;
    return create_file();
  }
  m_filename = name;
  VLOG(1) << "Opening " << m_filename << " constructed from pattern " << m_filepattern;
  m_file_handle = open(get_tmp_filename(m_filename).c_str(), O_RDWR | O_CREAT | O_EXCL,
                       kPrivateFileMode);
  if (m_file_handle < 0 && errno == EEXIST) return create_file();
  if (m_file_handle < 0) return failed_open(errno);
  return begin_file();
}

Status ZVKFileWriter::create_file() {
  // Never over an earlier capture: a name that is taken moves on to the next
  // running number, as a rotation would.
  constexpr int kMaxNameAttempts = 10000;
  for (int attempt = 0;; ++attempt) {
    m_filename = parse_file_pattern(m_filepattern);
    VLOG(1) << "Opening " << m_filename << " constructed from pattern " << m_filepattern;
    const bool finished_exists = m_is_kelvane && access(m_filename.c_str(), F_OK) == 0;
    if (!finished_exists) {
      // Created owner-only, whatever the umask; begin_file widens it if asked.
      m_file_handle = open(get_tmp_filename(m_filename).c_str(), O_RDWR | O_CREAT | O_EXCL,
                           kPrivateFileMode);
      if (m_file_handle >= 0) break;
      if (errno != EEXIST || attempt == kMaxNameAttempts) return failed_open(errno);
    }
    m_rotation_count += 1;
  }
  return begin_file();
}

Status ZVKFileWriter::begin_file() {
  const std::string path = get_tmp_filename(m_filename);
  m_file_unlinked = false;
  // The umask narrowed the mode open gave; this is the mode meant.
  if (fchmod(m_file_handle, m_file_mode) != 0) {
    LOG(ERROR) << "Can't set the mode of " << path << ": " << strerror(errno);
  }
  construct_header();
  const Status written = write_header();
  if (!written.ok()) {
    close(m_file_handle);
    m_file_handle = -1;
    unlink(path.c_str());
    m_file_unlinked = true;
  }
  return written;
}

Status ZVKFileWriter::failed_open(int error_number) {
  const std::string reason = strerror(error_number);
  LOG(ERROR) << "Failed to open file " << m_filename << " error was " << reason;
  m_filename.clear();
  return Status(error::FAILURE, "Failed to open file " + reason);
}

Status ZVKFileWriter::reopen_file(const std::string& name) {
  if (m_file_handle >= 0) close_file();
  m_file_handle = open(get_tmp_filename(name).c_str(), O_RDWR, 0664);
  if (m_file_handle < 0) return Status(error::FAILURE, std::string("Failed to open file ") + strerror(errno));
  Status status = read_header();
  lseek(m_file_handle, 0, SEEK_END);
  return status;
}

Status ZVKFileWriter::close_file() {
  if (m_file_handle == -1) return Status(error::FAILED_PRECONDITION, "No file is open!");
  if (m_writer_thread != nullptr) {
    LOG(ERROR) << "[DEPRECATED][TODO] Should never be called!";
    stop_internal();
  }
  fsync(m_file_handle);
  close(m_file_handle);
  m_file_handle = -1;
  // An empty capture leaves no file behind.
  m_file_unlinked = m_hdr != nullptr && m_hdr->num_buckets == 0;
  if (m_file_unlinked) unlink(get_tmp_filename(m_filename).c_str());
  return Status::OK();
}

Status ZVKFileWriter::construct_header() {
  free(m_hdr);
  const std::string cpu_model = get_cpu_model_id();
  const std::string& job = m_metadata.job_rid;
  const std::string& host = m_metadata.hostname;
  const std::string& instance = m_metadata.instance_type;
  const size_t strings = cpu_model.size() + job.size() + host.size() + instance.size();
  m_hdr = static_cast<ZVKFileHeader*>(calloc(1, kZVKFileHeaderSize + strings));
  std::memcpy(m_hdr->key, kZVKFileKey, sizeof(kZVKFileKey));
  m_hdr->ZVKVersion = kZVKFileVersion;
  m_hdr->compression = static_cast<uint32_t>(m_compression);
  m_hdr->ZVKConfig = kZVKFileConfig;
  m_hdr->start_time = now_ns();
  m_hdr->clock_shift = get_clock_offset();
  m_hdr->pid = static_cast<uint32_t>(getpid());
  m_hdr->cpu_model = get_cpu_model();
  // The lengths are 16-bit in the format; the strings are copied whole.
  m_hdr->cpu_model_str_len = static_cast<uint16_t>(cpu_model.size());
  m_hdr->job_uid_size = static_cast<uint16_t>(job.size());
  m_hdr->hostname_str_len = static_cast<uint16_t>(host.size());
  m_hdr->instance_str_len = static_cast<uint16_t>(instance.size());
  char* cursor = m_hdr->data;
  for (const std::string* text : {&cpu_model, &job, &host, &instance}) {
    std::memcpy(cursor, text->data(), text->size());
    cursor += text->size();
  }
  return Status::OK();
}

Status ZVKFileWriter::write_header() {
  if (m_file_handle < 0) return Status(error::FAILED_PRECONDITION, "No file is Open");
  const size_t size = kZVKFileHeaderSize + get_header_payload_size(m_hdr);
  const off_t position = lseek(m_file_handle, 0, SEEK_CUR);
  lseek(m_file_handle, 0, SEEK_SET);
  int error_number = 0;
  if (write_fully(m_file_handle, m_hdr, size, &error_number, m_write) != size) {
    lseek(m_file_handle, position, SEEK_SET);
    return Status(error::FAILURE, "Couldn't write the header!");
  }
  // On the first write the position was inside the header: stay at its end.
  if (position > static_cast<off_t>(size)) lseek(m_file_handle, position, SEEK_SET);
  return Status::OK();
}

Status ZVKFileWriter::read_header() {
  if (m_file_handle < 0) return Status(error::FAILED_PRECONDITION, "No file is Open");
  const off_t position = lseek(m_file_handle, 0, SEEK_CUR);
  const off_t file_end = lseek(m_file_handle, 0, SEEK_END);
  if (position < static_cast<off_t>(kZVKFileHeaderSize) &&
      file_end < static_cast<off_t>(kZVKFileHeaderSize)) {
    lseek(m_file_handle, position, SEEK_SET);
    return Status(error::FAILURE, "Not enough bytes to read the header!");
  }
  auto seek_to_start = [this] {
    if (lseek(m_file_handle, 0, SEEK_SET) < 0) {
      LOG(ERROR) << "Failed to seek the beginning of the file " << strerror(errno);
    }
  };
  seek_to_start();
  alignas(ZVKFileHeader) char block[2048];
  if (read(m_file_handle, block, sizeof(block)) == -1) {
    return Status(error::FAILURE, "Couldn't read the header!");
  }
  const ZVKFileHeader* peek = reinterpret_cast<const ZVKFileHeader*>(block);
  if (peek->job_uid_size + kZVKFileHeaderSize >= 2048) {
    return Status(error::FAILURE,
                  "Header is greater than 2kB!?! Check file or go back to drawing board!!!");
  }
  const size_t size = kZVKFileHeaderSize + get_header_payload_size(peek);
  free(m_hdr);
  m_hdr = static_cast<ZVKFileHeader*>(calloc(1, size));
  seek_to_start();
  if (read(m_file_handle, m_hdr, size) == -1) {
    return Status(error::FAILURE, "Couldn't read the header!");
  }
  lseek(m_file_handle, position, SEEK_SET);
  return Status::OK();
}

Status ZVKFileWriter::rotate_file(ZVKBucketWriter** bucket_writer, uint32_t num_buckets) {
  ZVKBucketWriter* writer = *bucket_writer;
  VLOG(1) << "Rotating file " << m_filename << ", number of buckets= " << num_buckets
          << ", number of records= " << writer->get_total_records_written()
          << ", max uncompressed bucket size =" << writer->get_max_bucket_size()
          << ", max compressed bucket size= " << writer->get_max_compressed_size()
          << ", total written bytes= " << writer->get_written_bytes()
          << ", total uncompressed bytes= " << writer->get_uncompressed_bytes()
          << ", compression ratio= "
          << ratio(writer->get_uncompressed_bytes(), writer->get_written_bytes());
  m_hdr->max_bucket_size = std::max(m_hdr->max_bucket_size, writer->get_max_compressed_size());
  m_hdr->max_uncompressed_size =
      std::max(m_hdr->max_uncompressed_size, writer->get_max_bucket_size());
  m_hdr->num_buckets += num_buckets;
  m_hdr->end_time = now_ns();
  ZVK_RETURN_NOT_OK(write_header());

  delete writer;
  *bucket_writer = nullptr;
  fsync(m_file_handle);
  close(m_file_handle);
  const std::string tmp = get_tmp_filename(m_filename);
  const int renamed = rename(tmp.c_str(), m_filename.c_str());
  LOG(INFO) << "Rename " << tmp << " to " << m_filename;
  if (renamed != 0) LOG(ERROR) << "Can't rename " << tmp << " to " << m_filename;

  m_rotation_count += 1;
  ZVK_RETURN_NOT_OK(create_file());
  *bucket_writer = new ZVKBucketWriter(m_file_handle, compression_level(), m_write);
  return Status::OK();
}

ZVKBucketWriter* ZVKFileWriter::reopen_after_failed_rotation() {
  if (!create_file().ok()) return nullptr;
  return new ZVKBucketWriter(m_file_handle, compression_level(), m_write);
}

void ZVKFileWriter::writer_loop(int file_handle, ZVKQueue<ZVKBuffer>* to_fill,
                                ZVKQueue<ZVKBuffer>* to_write) {
  ZVKBucketWriter* bucket_writer = new ZVKBucketWriter(file_handle, compression_level(), m_write);
  uint32_t num_buckets = 0;
  uint64_t total_buckets = 0;
  uint64_t total_records = 0;
  uint64_t total_written = 0;
  uint64_t total_uncompressed = 0;
  uint64_t spin_us = 0;
  // Buffers that found no open file after a failed rotation.
  uint64_t fileless_buffers = 0;
  uint64_t fileless_bytes = 0;
  const auto rotation_period = std::chrono::seconds(m_rotation_duration_s);
  const auto flush_interval = std::chrono::milliseconds(m_flush_interval_ms);
  auto next_flush = ZVKPipelineClock::steady_now() + flush_interval;

  // Writes one buffer as a bucket and hands it back. Only a bucket that is in the
  // file whole counts; a lost one is reported by the bucket writer.
  auto handle = [&](ZVKBuffer* buffer) {
    const bool has_data = buffer->num_bytes != 0;
    if (has_data && bucket_writer == nullptr) {
      bucket_writer = reopen_after_failed_rotation();
      if (bucket_writer != nullptr && fileless_buffers != 0) {
        LOG(WARNING) << "Opened " << m_filename << " after " << fileless_buffers
                     << " buffers with " << fileless_bytes
                     << " bytes of records were dropped for want of a file";
        fileless_buffers = fileless_bytes = 0;
      }
    }
    if (bucket_writer != nullptr) {
      if (bucket_writer->write_bucket(buffer).ok() && has_data) ++num_buckets;
    } else if (has_data) {
      ++fileless_buffers;
      fileless_bytes += buffer->num_bytes;
    }
    buffer->num_bytes = 0;
    to_fill->push(buffer);
  };

  // Sleeps until a buffer is queued, the stop comes, or the next flush or rotation
  // is due; an idle capture costs a wake-up a second at most.
  auto wait_for_buffer = [&](ZVKBuffer** buffer) {
    const auto now = ZVKPipelineClock::steady_now();
    auto wake = now + std::chrono::seconds(1);
    if (m_flush_interval_ms != 0) wake = std::min(wake, next_flush);
    if (m_rotation_time > now) wake = std::min(wake, m_rotation_time);
    to_write->pop_wait_for(buffer, std::max(wake - now, Clock::duration::zero()),
                           m_run_writer_loop);
  };

  auto flush_producers = [&](Clock::time_point now) {
    if (m_flush_interval_ms == 0 || now < next_flush) return;
    ZVKBufferRecordHelper::flush_all(to_write);
    next_flush = now + flush_interval;
  };

  // The file is still empty while waiting for the first buffer: only the timer moves.
  ZVKBuffer* buffer = nullptr;
  to_write->pop(&buffer);
  while (buffer == nullptr && m_run_writer_loop) {
    wait_for_buffer(&buffer);
    const auto now = ZVKPipelineClock::steady_now();
    if (buffer == nullptr) flush_producers(now);
    if (now > m_rotation_time) {
      LOG(INFO) << local_time_now() << " - rotation is up, no buffer received";
      m_rotation_time += rotation_period;
    }
  }
  if (buffer != nullptr) handle(buffer);

  const auto t_start = ZVKPipelineClock::steady_now();
  while (m_run_writer_loop) {
    to_write->pop(&buffer);
    if (buffer == nullptr) {
      const auto t0 = ZVKPipelineClock::steady_now();
      wait_for_buffer(&buffer);
      spin_us += elapsed_ns(t0, ZVKPipelineClock::steady_now()) / 1000;
    }
    if (buffer != nullptr) handle(buffer);

    const auto now = ZVKPipelineClock::steady_now();
    flush_producers(now);
    if (now > m_rotation_time) {
      const uint64_t records =
          bucket_writer != nullptr ? bucket_writer->get_total_records_written() : 0;
      LOG(INFO) << local_time_now() << " - rotation is up" << "num_buckets=" << num_buckets
                << "num_total_records" << records;
      m_rotation_time += rotation_period;
      if (num_buckets != 0 && bucket_writer != nullptr) {
        total_buckets += num_buckets;
        total_records += bucket_writer->get_total_records_written();
        total_written += bucket_writer->get_written_bytes();
        total_uncompressed += bucket_writer->get_uncompressed_bytes();
        ZVK_LOG_NOT_OK(ERROR, rotate_file(&bucket_writer, num_buckets),
                       "Failed to do file rotation!");
        num_buckets = 0;
      }
    }
  }

  // The last buffers go to the current file, whatever the timer says. Only those
  // queued now: producers that keep refilling the buffers handed back would
  // otherwise keep the stop from ever ending.
  for (size_t queued = to_write->size(); queued != 0; --queued) {
    to_write->pop(&buffer);
    if (buffer != nullptr) handle(buffer);
  }
  if (fileless_buffers != 0) {
    LOG(ERROR) << fileless_buffers << " buffers with " << fileless_bytes
               << " bytes of records were dropped: no file could be opened";
  }
  if (bucket_writer != nullptr && bucket_writer->get_lost_buckets() != 0) {
    LOG(ERROR) << bucket_writer->get_lost_buckets() << " buckets with "
               << bucket_writer->get_lost_records()
               << " records could not be written and are not in the file";
  }

  if (const uint64_t late = to_fill->take_late_records()) {
    LOG(WARNING) << late << " records were dropped: no buffer came free within "
                 << std::chrono::duration_cast<std::chrono::seconds>(
                        ZVKBufferRecordHelper::kMaxBufferWait)
                        .count()
                 << " s while the writer was behind";
  }

  m_hdr->end_time = now_ns();
  const auto t_end = ZVKPipelineClock::steady_now();

  const uint32_t last_max_uncompressed =
      bucket_writer != nullptr ? bucket_writer->get_max_bucket_size() : 0;
  const uint32_t last_max_compressed =
      bucket_writer != nullptr ? bucket_writer->get_max_compressed_size() : 0;
  if (total_buckets + num_buckets != 0) {
    const uint64_t buckets = total_buckets + num_buckets;
    uint64_t records = total_records;
    uint64_t written = total_written;
    uint64_t uncompressed = total_uncompressed;
    if (bucket_writer != nullptr) {
      records += bucket_writer->get_total_records_written();
      written += bucket_writer->get_written_bytes();
      uncompressed += bucket_writer->get_uncompressed_bytes();
    }
    const uint64_t duration_us = elapsed_ns(t_start, t_end) / 1000;
    const uint64_t work_us = duration_us - spin_us;
    LOG(INFO) << "Writer thread spin duration= " << spin_us << "us, number of buckets= " << buckets
              << ", number of records= " << records
              << ", total time= " << static_cast<double>(duration_us / 1000) / 1000.0
              << "s, work time= " << static_cast<double>(work_us / 1000) / 1000.0
              << "s, average buckets/s=" << static_cast<double>(buckets) * 1000000.0 / duration_us
              << "s, effective buckets/s=" << static_cast<double>(buckets) * 1000000.0 / work_us
              << ", max uncompressed bucket size =" << last_max_uncompressed
              << ", max compressed bucket size= " << last_max_compressed
              << ", total written bytes= " << written
              << ", total uncompressed bytes= " << uncompressed
              << ", compression ratio= " << ratio(uncompressed, written)
              << ", average compressed bandwidth= " << bandwidth(written, duration_us)
              << " MB/s, effective compressed bandwidth= " << bandwidth(written, work_us)
              << " MB/s,  average uncompressed bandwidth= " << bandwidth(uncompressed, duration_us)
              << " MB/s. Last file rotation id= " << m_rotation_count;
  }

  m_hdr->max_bucket_size = std::max(m_hdr->max_bucket_size, last_max_compressed);
  m_hdr->max_uncompressed_size = std::max(m_hdr->max_uncompressed_size, last_max_uncompressed);
  m_hdr->num_buckets += num_buckets;
  delete bucket_writer;
}

}  // namespace zorvek
