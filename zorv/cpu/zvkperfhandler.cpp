#include "zorv/cpu/zvkperfhandler.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <set>
#include <sstream>

#include "zorv/cpu/perf_helpers.h"
#include "zorv/cpu/processpages.h"
#include "zorv/cpu/procmaps.h"
#include "zorv/format/perf.h"
#include "zorv/format/record.h"
#include "zorv/utils/clock.h"
#include "zorv/utils/config_values.h"
#include "zorv/utils/logging.h"
#include "zorv/utils/signals.h"

namespace zorvek {

// ---- Capture configurations ----------------------------------------------------

CaptureConfig::CaptureConfig(const std::string& s) {
  std::istringstream in(s);
  char separator;
  in >> type_ >> separator >> config_ >> separator >> period_ >> separator >> sample_type_ >>
      separator >> precise_ip_ >> separator >> config1_ >> separator >> config2_;
}

CaptureConfig::operator std::string() const {
  std::ostringstream out;
  out << type_ << ',' << config_ << ',' << period_ << ',' << sample_type_ << ',' << precise_ip_
      << ',' << config1_ << ',' << config2_;
  return out.str();
}

bool CaptureConfig::operator==(const CaptureConfig& other) const {
  return type_ == other.type_ && config_ == other.config_ && period_ == other.period_ &&
         sample_type_ == other.sample_type_ && precise_ip_ == other.precise_ip_ &&
         config1_ == other.config1_ && config2_ == other.config2_;
}

namespace {

// PERF_SAMPLE_BRANCH_USER | KERNEL | CALL_STACK | NO_FLAGS | NO_CYCLES
constexpr uint64_t kBranchSampleType = 0xC803;

// How often a worker reads every ring, ready or not: well inside the writer's
// flush interval, so a capture that ends without a stop loses about that much.
constexpr long kSweepIntervalMs = 100;

// The smallest rings tried where the memory a user may lock is short: 32 KiB,
// about a hundred samples between two reads.
constexpr uint32_t kMinRingPages = 8;

}  // namespace

void set_event_attr(const CaptureConfig& c, perf_event_attr* attr) {
  std::memset(attr, 0, sizeof(*attr));
  attr->size = kPerfAttrSize;
  attr->type = c.type_;
  attr->config = c.config_;
  attr->sample_period = c.period_;
  attr->sample_type = c.sample_type_;
  attr->config1 = c.config1_;
  attr->config2 = c.config2_;
  attr->precise_ip = c.precise_ip_ & 3;
  attr->disabled = 1;
  attr->exclude_kernel = 1;
  attr->exclude_hv = 1;
  attr->exclude_idle = 1;
  attr->mmap = 1;
  attr->task = 1;
  attr->sample_id_all = 1;
  attr->branch_sample_type = (c.sample_type_ & PERF_SAMPLE_BRANCH_STACK) ? kBranchSampleType : 0;
  attr->read_format = PERF_FORMAT_ID;
  attr->exclude_callchain_kernel = 1;
}

bool test_config(const CaptureConfig& c, const PerfTarget& target, ZVKPerfKernel& kernel) {
  perf_event_attr attr;
  set_event_attr(c, &attr);
  attr.inherit = target.inherit;
  errno = 0;
  const int fd = kernel.perf_event_open(&attr, target.pid, target.cpu, -1, target.flags);
  if (fd >= 0) {
    kernel.close(fd);
    return true;
  }
  VLOG(1) << "Failed to open perf handle! " << strerror(errno) << "\n"
          << "Event config was type= " << decode_perf_event_type(c.type_)
          << ", config= " << decode_perf_config(c.type_, c.config_) << ", period= " << c.period_
          << ", precise= " << c.precise_ip_
          << ", sample_type_= " << decode_sample_type(c.sample_type_);
  return false;
}

namespace {

// A record the worker writes of its own, not from a ring: stamped with
// CLOCK_MONOTONIC_RAW, the worker's CPU, and the process as both pid and tid.
ZVKBufferRecordHelper::RecordWriter new_worker_record(ZVKBufferRecordHelper* rh, uint32_t event,
                                                      uint16_t payload_size) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  const uint64_t timestamp = timespec_to_ns(now);
  const int32_t pid = static_cast<int32_t>(getpid());
  const uint32_t cpu = static_cast<uint32_t>(sched_getcpu()) & 0xffu;
  return rh->new_record(timestamp, make_event_word(CPU, cpu, event), pid, pid, 0, payload_size);
}

}  // namespace

void save_perf_config(ZVKBufferRecordHelper* rh, const PerfConfFD& fd, ZVKPerfKernel& kernel) {
  if (rh == nullptr) return;
  auto writer = new_worker_record(rh, perfevent::CONFIGURATION, sizeof(perfevent::ZVKPerfConfigData));
  perfevent::ZVKPerfConfigData data = {fd.config, fd.config1, fd.config2,     fd.type,
                                       fd.precise, fd.sampling_rate, fd.id};
  // Asked again rather than trusted: the record says what the kernel says now.
  kernel.event_id(static_cast<int>(fd.fd), &data.format_id);
  std::memcpy(writer.get_payload_store(), &data, sizeof(data));
}

void save_process_mappings(ZVKBufferRecordHelper* rh, const char* maps_path) {
  if (rh == nullptr) return;
  for_each_executable_mapping(maps_path, [rh](const ExecutableMapping& mapping) {
    const size_t name_length = mapping.name.size();
    auto writer = new_worker_record(rh, perfevent::MMAP, perfevent::mmap_payload_size(name_length));
    const perfevent::ZVKPerfMMap fixed = {0, 0, mapping.start, mapping.end - mapping.start,
                                          mapping.offset, name_length};
    char* payload = static_cast<char*>(writer.get_payload_store());
    std::memcpy(payload, &fixed, sizeof(fixed));
    std::memcpy(payload + sizeof(fixed), mapping.name.data(), name_length);
    payload[sizeof(fixed) + name_length] = '\0';
  });
}

PerfCleaner::~PerfCleaner() {
  if (!m_armed) return;
  for (const PerfConfFD& fd : m_perf_fds) {
    m_kernel.disable(static_cast<int>(fd.fd));
    m_kernel.close(static_cast<int>(fd.fd));
  }
  for (perf_event_mmap_page* page : m_pages) m_kernel.unmap_ring(page, m_map_size);
}

// ---- Workers ---------------------------------------------------------------------

namespace {

// Threads lost to a fork: a std::thread can't be destroyed while it looks
// joinable, and neither joined nor detached in a process it isn't part of. Kept
// here, reachable, for the life of the process.
std::vector<std::unique_ptr<std::thread>>& threads_lost_to_fork() {
  static auto* threads = new std::vector<std::unique_ptr<std::thread>>();
  return *threads;
}

}  // namespace

ZVKPerfHandler::PerfWorker::PerfWorker(Processor processor, std::vector<PerfConfFD> fds,
                                       std::shared_ptr<ZVKBufferRecordHelper> rh,
                                       std::shared_ptr<std::atomic<bool>> sw)
    : m_processor(std::move(processor)),
      m_fds(std::move(fds)),
      m_rh(std::move(rh)),
      m_switch(std::move(sw)) {}

ZVKPerfHandler::PerfWorker::~PerfWorker() {
  if (m_thread != nullptr) end_thread();
}

void ZVKPerfHandler::PerfWorker::end_thread() {
  *m_switch = false;
  if (lost_to_fork()) {
    forget_thread();
  } else if (m_thread->joinable()) {
    m_thread->join();
  }
}

Status ZVKPerfHandler::PerfWorker::run() {
  if (m_thread != nullptr) {
    LOG(ERROR) << "Worker is already active!";
    return Status(error::FAILED_PRECONDITION, "Worker thread is already running!");
  }
  *m_switch = true;
  m_owner_pid = getpid();
  ScopedSignalsBlocked blocked;
  // The thread works on its own copy of the list, which no move of this worker
  // can pull away from under it.
  // An exception that escaped would end the job: it ends the worker instead, whose
  // cleaner has released the descriptors and rings on the way out.
  m_thread = std::make_unique<std::thread>(
      [processor = m_processor, fds = m_fds, rh = m_rh.get(), running = m_switch.get()]() mutable {
        try {
          processor(fds, rh, running);
        } catch (const std::exception& e) {
          LOG(ERROR) << "Perf worker ended by an exception: " << e.what();
        }
      });
  return Status::OK();
}

Status ZVKPerfHandler::PerfWorker::stop() {
  if (m_thread == nullptr) {
    LOG(ERROR) << "Worker is not running!";
    return Status(error::FAILED_PRECONDITION, "Worker thread is not running!");
  }
  end_thread();
  return Status::OK();
}

Status ZVKPerfHandler::PerfWorker::flush() { return m_rh->flush(); }

bool ZVKPerfHandler::PerfWorker::lost_to_fork() const {
  return m_thread != nullptr && m_owner_pid != getpid();
}

void ZVKPerfHandler::PerfWorker::forget_thread() {
  if (m_thread != nullptr && m_thread->joinable()) {
    threads_lost_to_fork().push_back(std::move(m_thread));
  }
}

// ---- Handler ---------------------------------------------------------------------

bool ZVKPerfHandler::perf_init_done = false;

ZVKPerfHandler::ZVKPerfHandler(ZVKQueue<ZVKBuffer>* to_fill, ZVKQueue<ZVKBuffer>* to_write,
                               ZVKPerfKernel& kernel)
    : m_to_fill(to_fill), m_to_write(to_write), m_kernel(kernel) {}

ZVKPerfHandler::ZVKPerfHandler(std::shared_ptr<ZVKBufferRecordHelper> helper, ZVKPerfKernel& kernel)
    : m_to_fill(nullptr), m_to_write(nullptr), m_helper(std::move(helper)), m_kernel(kernel) {}

ZVKPerfHandler::~ZVKPerfHandler() {
  release_workers_lost_to_fork();
  for (PerfWorker& worker : m_workers) {
    if (worker.has_run()) worker.stop();
  }
  close_handler_fds();
  m_workers.clear();
  if (m_cgroup_fd != -1) close(static_cast<int>(m_cgroup_fd));
}

namespace {

// Default events: raw PMU encodings, each a prefix, the adjusted sample type and
// a suffix. Both periods are prime.
const char* const kDefaultEvents[][2] = {
    {"4,8401,100007,", ",3,0,0"},
    {"4,25166530,2000003,", ",0,0,0"},
    {"4,454,100007,", ",3,20,0"},
    {"4,448,2000003,", ",3,0,0"},
};

// PERF_SAMPLE_BRANCH_STACK never, PERF_SAMPLE_CALLCHAIN always: the one layout
// the decoder reads.
constexpr uint64_t forced_sample_type(uint64_t configured) {
  return (configured & ~static_cast<uint64_t>(PERF_SAMPLE_BRANCH_STACK | PERF_SAMPLE_CALLCHAIN)) |
         PERF_SAMPLE_CALLCHAIN;
}
static_assert(forced_sample_type(2791) == perfevent::kDecodedSampleType,
              "the default sample type becomes the layout the decoder reads");

}  // namespace

Status ZVKPerfHandler::configure(const std::map<std::string, std::string>& m) {
  m_pid = key_value_as<int32_t>(m, "PID", 0);
  m_cpu = key_value_as<int32_t>(m, "CPU", -1);
  m_inherit_events = key_value_as<bool>(m, "InheritEvents", false);
  m_single_thread = key_value_as<bool>(m, "SingleWorker", true);
  m_shared_buckets = key_value_as<bool>(m, "SharedBuckets", true);
  m_record_mappings = key_value_as<bool>(m, "RecordMappings", false);
  const uint32_t log2 = key_value_as<uint32_t>(m, "Log2NumPages", 10);
  m_event_type = key_value_as<uint32_t>(m, "PerfEventType", 0);
  m_cgroup_dir = key_value_as<std::string>(m, "CgroupDir", "");
  m_sample_type = key_value_as<uint64_t>(m, "PerfSampleType", 2791);
  m_overflow_threshold = key_value_as<uint64_t>(m, "OverflowThreshold", 50);
  const std::string event_configs = key_value_as<std::string>(m, "EventConfigs", "");
  // Call chains always come from the kernel: the setting is read and changes nothing.
  key_value_as<bool>(m, "UseSoftBacktrace", false);
  m_sample_type = forced_sample_type(m_sample_type);

  // The cgroup comes first: the event list is tried on the target it names.
  if (!m_cgroup_dir.empty()) {
    if (m_cgroup_fd != -1) close(static_cast<int>(m_cgroup_fd));
    m_cgroup_fd = -1;
    m_cgroup_fd = open(m_cgroup_dir.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_cgroup_fd == -1) {
      LOG(ERROR) << "Opening cgroup directory " << m_cgroup_dir << " failed with "
                 << strerror(errno);
    }
  }

  if (event_configs.empty()) {
    for (const auto& event : kDefaultEvents) {
      m_configs.emplace_back(event[0] + std::to_string(m_sample_type) + event[1]);
    }
  } else {
    for (const std::string& piece : split(event_configs, '|')) {
      CaptureConfig config(piece);
      config.sample_type_ &= m_sample_type;
      m_configs.push_back(config);
    }
    const PerfTarget target = target_on(m_cpu != -1 ? m_cpu : 0);
    for (const CaptureConfig& config : m_configs) {
      if (!test_config(config, target, m_kernel)) {
        const std::string text = config;
        LOG(ERROR) << "Invalid perf configuration " << text;
        return Status(error::INVALID_ARGUMENT, "Perf event configuration is invalid! Event was " + text);
      }
    }
  }

  const uint64_t pages = uint64_t{1} << (log2 < 64 ? log2 : 63);
  const uint64_t bytes = static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) << (log2 < 64 ? log2 : 63);
  if (log2 > 30) {
    LOG(ERROR) << "Log2NumPages is " << log2 << " which correspond to " << pages << " pages or "
               << bytes << " bytes per handle! Reducing it to 20";
    m_num_perf_pages_per_handle = 1048576;
  } else {
    if (log2 > 20) {
      LOG(WARNING) << "Log2NumPages is " << log2 << " which correspond to " << pages
                   << " pages or " << bytes << " bytes per handle!";
    }
    m_num_perf_pages_per_handle = static_cast<uint32_t>(pages);
    if (pages < 128) {
      LOG(ERROR) << "Number of pages per perf handle is " << pages << "<128, setting it to 128";
      m_num_perf_pages_per_handle = 128;
    } else if (pages < 512) {
      LOG(WARNING) << "Number of pages per perf handle is " << pages
                   << "<512, could lead to dropped events";
    }
  }

  m_num_host_cores = static_cast<uint32_t>(get_nprocs_conf());
  m_num_active_cores = static_cast<uint32_t>(get_nprocs());
  VLOG(1) << "Host has total " << m_num_host_cores << " and " << m_num_active_cores
          << " active cores";
  LOG(INFO) << "Perf capture configuration= " << "\n"
            << "\tPID              = " << m_pid << "\n"
            << "\tCPU              = " << m_cpu << "\n"
            << "\tEvent Type       = " << decode_perf_event_type(m_event_type) << "\n"
            << "\tSample Type      = " << decode_sample_type(m_sample_type) << "\n"
            << "\tPages per handle = " << m_num_perf_pages_per_handle << "\n"
            << "\tShared buckets   = " << m_shared_buckets << "\n"
            << "\tSingle worker    = " << m_single_thread << "\n";
  return Status::OK();
}

uint32_t ZVKPerfHandler::record_helpers_for(const std::map<std::string, std::string>& m) {
  if (key_value_as<bool>(m, "SingleWorker", true) || key_value_as<bool>(m, "SharedBuckets", true)) {
    return 1;
  }
  return key_value_as<int32_t>(m, "CPU", -1) != -1 ? 1 : static_cast<uint32_t>(get_nprocs_conf());
}

Status ZVKPerfHandler::init_perf() {
  if (perf_init_done) return Status::OK();
  perf_event_attr attr;
  std::memset(&attr, 0, sizeof(attr));
  attr.type = PERF_TYPE_SOFTWARE;
  attr.config = PERF_COUNT_SW_CPU_CLOCK;
  attr.exclude_kernel = 1;
  unsigned cpu = 0;
  if (syscall(SYS_getcpu, &cpu, nullptr, nullptr) != 0) {
    VLOG(1) << "getcpu call failed, trying cpu 0" << strerror(errno);
    cpu = 0;
  }
  // The capture's own target: a CPU-wide probe would need privileges that
  // sampling one process doesn't.
  const PerfTarget target = target_on(static_cast<int>(cpu));
  const int fd = m_kernel.perf_event_open(&attr, target.pid, target.cpu, -1, target.flags);
  if (fd < 0) {
    const int err = errno;
    LOG(ERROR) << "Failed to open perf handle! " << strerror(err)
               << " size of perfstruct=" << kPerfAttrSize << " enum=" << PERF_ATTR_SIZE_VER5
               << " errno=" << err;
    LOG(ERROR) << "PID=" << target.pid << ", CPU=" << cpu << ", type=" << decode_perf_event_type(attr.type)
               << ", config=" << decode_perf_config(attr.type, attr.config)
               << ", sample_type= " << decode_sample_type(m_sample_type)
               << ", branch_sample_type= " << decode_branch_sample_type(attr.branch_sample_type);
    return Status(error::FAILURE, strerror(err));
  }
  m_kernel.close(fd);
  LOG(INFO) << "Perf init succesful with FD=" << fd;
  perf_init_done = true;
  return Status::OK();
}

PerfTarget ZVKPerfHandler::target_on(int cpu) const {
  PerfTarget target;
  target.pid = m_cgroup_fd != -1 ? static_cast<pid_t>(m_cgroup_fd) : m_pid;
  target.cpu = cpu;
  target.flags = m_cgroup_fd != -1 ? PERF_FLAG_FD_CLOEXEC | PERF_FLAG_PID_CGROUP
                                   : PERF_FLAG_FD_CLOEXEC;
  target.inherit = m_inherit_events;
  return target;
}

Status ZVKPerfHandler::open_perf_fd(pid_t pid, int cpu, std::vector<PerfConfFD>& fds) {
  return open_group(pid, cpu, fds, true, nullptr);
}

Status ZVKPerfHandler::open_group(pid_t pid, int cpu, std::vector<PerfConfFD>& fds,
                                  bool tell_failure, int* failed_errno) {
  perf_event_attr attr;
  std::memset(&attr, 0, sizeof(attr));
  errno = 0;
  const pid_t target = m_cgroup_fd != -1 ? static_cast<pid_t>(m_cgroup_fd) : pid;
  const unsigned long flags = m_cgroup_fd != -1 ? PERF_FLAG_FD_CLOEXEC | PERF_FLAG_PID_CGROUP
                                                : PERF_FLAG_FD_CLOEXEC;
  int group = -1;
  for (const CaptureConfig& config : m_configs) {
    set_event_attr(config, &attr);
    attr.inherit = m_inherit_events;
    // New threads are sampled into this process's rings; child processes sample
    // themselves when they follow the fork, and are not sampled when they don't.
    attr.inherit_thread = m_inherit_events;
    attr.disabled = group == -1;  // the leader starts disabled, the others follow it
    int fd = m_kernel.perf_event_open(&attr, target, cpu, group, flags);
    if (fd < 0 && errno == EINVAL && attr.inherit_thread) {
      // Kernels before 5.13 know only inheritance by every child.
      attr.inherit_thread = 0;
      errno = 0;
      fd = m_kernel.perf_event_open(&attr, target, cpu, group, flags);
    }
    const int err = errno;
    // The descriptor's line, with the sample type's separator of the caller's.
    auto described = [&](const char* sample_type) {
      std::ostringstream text;
      text << "PID=" << target << ", CPU=" << cpu << ", type=" << decode_perf_event_type(attr.type)
           << ", config=" << decode_perf_config(attr.type, attr.config)
           << ", precise=" << attr.precise_ip << sample_type << decode_sample_type(m_sample_type)
           << ", branch_sample_type= " << decode_branch_sample_type(attr.branch_sample_type)
           << ", group leader= " << group;
      return text.str();
    };
    if (fd < 0) {
      if (tell_failure) {
        LOG(ERROR) << "Failed to open perf handle! " << strerror(err) << " errno=" << err;
      }
      errno = 0;
      for (const PerfConfFD& opened : fds) m_kernel.close(static_cast<int>(opened.fd));
      fds.clear();
      if (tell_failure) LOG(ERROR) << described(", sample_type=");
      if (failed_errno != nullptr) *failed_errno = err;
      return Status(error::FAILURE, strerror(err));
    }
    VLOG(1) << "Opened perf_event at fd=" << fd << " with " << described(", sample_type= ");
    uint64_t id = 0;
    m_kernel.event_id(fd, &id);
    fds.push_back(PerfConfFD{attr.config, attr.sample_period, attr.config1, attr.config2, attr.type,
                             static_cast<uint32_t>(attr.precise_ip), fd, id, -1});
    if (group == -1) group = fd;
  }
  return Status::OK();
}

ZVKPerfHandler::Processor ZVKPerfHandler::make_processor() const {
  const uint32_t pages = m_num_perf_pages_per_handle;
  const uint64_t sample_type = m_sample_type;
  const bool record_mappings = m_record_mappings;
  ZVKPerfKernel* kernel = &m_kernel;
  return [pages, sample_type, record_mappings, kernel](std::vector<PerfConfFD>& fds,
                                                       ZVKBufferRecordHelper* rh,
                                                       std::atomic<bool>* running) {
    const size_t n = fds.size();
    const long page_size = sysconf(_SC_PAGESIZE);
    // The worker owns its descriptors from here: every way out disables, closes and unmaps.
    PerfCleaner pc(fds, static_cast<size_t>(page_size) * (pages + 1), *kernel);

    errno = 0;
    const int epfd = kernel->epoll_create1(EPOLL_CLOEXEC);
    if (epfd == -1) {
      LOG(ERROR) << "Failed to create epoll file descriptor for handling perf file descriptor! "
                    "Error= "
                 << strerror(errno);
      return;
    }
    struct EpollCloser {
      ZVKPerfKernel* kernel;
      int fd;
      ~EpollCloser() { kernel->close(fd); }
    } epoll_closer{kernel, epfd};

    // Room for many more events than can be ready at once, and for one when there
    // is no descriptor, as epoll_wait refuses a zero-sized array.
    const int max_events = static_cast<int>(n == 0 ? 1 : n * 64);
    std::vector<epoll_event> eb(static_cast<size_t>(max_events));
    std::vector<perf_event_mmap_page*> pe_buff(n, nullptr);

    epoll_event ev;
    std::memset(&ev, 0, sizeof(ev));
    ev.events = EPOLLIN | EPOLLPRI | EPOLLERR | EPOLLHUP | EPOLLRDHUP;
    for (size_t i = 0; i < n; ++i) {
      save_perf_config(rh, fds[i], *kernel);
      // A descriptor without a ring of its own is read through the one it writes to.
      if (fds[i].output_fd != -1) continue;
      ev.data.u64 = 0;
      ev.data.u32 = static_cast<uint32_t>(i);
      if (kernel->epoll_ctl(epfd, EPOLL_CTL_ADD, static_cast<int>(fds[i].fd), &ev) != 0) {
        LOG(ERROR) << "Registering file for cpu " << i << " to epoll failed! " << strerror(errno);
        return;
      }
    }
    // A user without CAP_IPC_LOCK may lock only so much memory in rings
    // (perf_event_mlock_kb per CPU, then RLIMIT_MEMLOCK): where the rings asked
    // for pass that, the kernel refuses with EPERM, and smaller ones are tried.
    uint32_t data_pages = pages;
    for (;;) {
      const size_t map_size = static_cast<size_t>(page_size) * (data_pages + 1);
      size_t t = 0;
      int err = 0;
      for (; t < n; ++t) {
        if (fds[t].output_fd != -1) continue;
        void* ring = kernel->map_ring(static_cast<int>(fds[t].fd), map_size);
        if (ring == MAP_FAILED) {
          err = errno;
          break;
        }
        pe_buff[t] = static_cast<perf_event_mmap_page*>(ring);
      }
      if (t == n) {
        pc.set_map_size(map_size);
        for (perf_event_mmap_page* ring : pe_buff) {
          if (ring != nullptr) pc.add_ring(ring);
        }
        break;
      }
      for (perf_event_mmap_page*& ring : pe_buff) {
        if (ring != nullptr) kernel->unmap_ring(ring, map_size);
        ring = nullptr;
      }
      if (err == EPERM && data_pages > kMinRingPages) {
        data_pages /= 2;
        continue;
      }
      LOG(ERROR) << "Memory mapping of perf pages for CPU " << t << " at fd " << fds[t].fd
                 << " failed with " << strerror(err);
      return;
    }
    if (data_pages != pages) {
      LOG(INFO) << "Perf rings have " << data_pages << " data pages instead of " << pages
                   << ": larger ones pass the memory this user may lock";
    }
    // Only once the rings are mapped can records be sent to them.
    // An event that can't be routed is left disabled: it would interrupt its
    // thread for samples that go nowhere.
    std::set<int> unrouted;
    int unrouted_error = 0;
    for (const PerfConfFD& fd : fds) {
      if (fd.output_fd == -1) continue;
      if (kernel->set_output(static_cast<int>(fd.fd), static_cast<int>(fd.output_fd)) != 0) {
        unrouted.insert(static_cast<int>(fd.fd));
        unrouted_error = errno;
      }
    }
    if (!unrouted.empty()) {
      LOG(WARNING) << "Samples of " << unrouted.size() << " perf events of threads running before "
                   << "the start have no ring to go to: " << strerror(unrouted_error);
    }

    // The wrap buffer: process_pages replaces it when a record needs more, so the
    // one to free at the end is whichever it holds then.
    size_t rb_page_wrap_store_size = static_cast<size_t>(page_size) * 5;
    void* rb_pages = malloc(rb_page_wrap_store_size);
    if (rb_pages == nullptr) rb_page_wrap_store_size = 0;
    struct WrapBufferFree {
      void** buffer;
      ~WrapBufferFree() { free(*buffer); }
    } wrap_buffer_free{&rb_pages};

    for (const PerfConfFD& fd : fds) {
      const int descriptor = static_cast<int>(fd.fd);
      if (unrouted.count(descriptor) != 0) continue;
      kernel->set_nonblocking(descriptor);
      uint64_t id = 0;
      kernel->event_id(descriptor, &id);
      VLOG(1) << "Event id for " << fd.fd << " is " << id << " 0x" << std::hex << id << std::dec;
      kernel->reset(descriptor);
      kernel->enable(descriptor);
    }
    // The kernel announces the mappings made once the events are enabled; the
    // list read after that names everything loaded before. Read the other way
    // round, a library loaded between the two (the job runs on meanwhile) would be
    // in neither, and its samples would go unnamed. One made in between is in
    // both, which readers take alike.
    if (record_mappings) save_process_mappings(rh);

    auto drain = [&](size_t i) {
      if (pe_buff[i] == nullptr) return;
      process_pages(static_cast<int>(i), pe_buff[i], sample_type, &rb_pages,
                    &rb_page_wrap_store_size, rh);
    };
    // The kernel wakes the worker only once a ring is half full, which at a modest
    // rate takes many seconds: every ring is also read at this interval, so that
    // the writer's periodic flush finds the samples in the record helper.
    const auto sweep_interval = std::chrono::milliseconds(kSweepIntervalMs);
    auto next_sweep = std::chrono::steady_clock::now() + sweep_interval;
    // Rings whose event hung up (its target ended) are taken out of epoll, where,
    // level-triggered, they would wake every wait at once and spin this thread.
    // Threads that inherited the event may still write to them: drained each round.
    std::vector<uint32_t> hung_up;
    while (*running) {
      const int r = kernel->epoll_wait(epfd, eb.data(), max_events, 100);
      if (r == -1) {
        LOG(ERROR) << "epoll failed with " << strerror(errno);
        return;
      }
      for (int k = 0; k < r; ++k) {
        const epoll_event& ready = eb[static_cast<size_t>(k)];
        const uint32_t i = ready.data.u32;
        if (i >= n) continue;
        drain(i);
        if ((ready.events & (EPOLLHUP | EPOLLERR)) != 0 &&
            kernel->epoll_ctl(epfd, EPOLL_CTL_DEL, static_cast<int>(fds[i].fd), nullptr) == 0) {
          hung_up.push_back(i);
        }
      }
      for (uint32_t i : hung_up) drain(i);
      const auto now = std::chrono::steady_clock::now();
      if (now >= next_sweep) {
        for (size_t i = 0; i < n; ++i) drain(i);
        next_sweep = now + sweep_interval;
      }
    }
    // What was written up to the disable is still recorded, ready or not.
    for (const PerfConfFD& fd : fds) kernel->disable(static_cast<int>(fd.fd));
    for (size_t i = 0; i < n; ++i) drain(i);
  };
}

namespace {

// The most descriptors the threads already running at a start may take in all,
// whatever the limit allows: on a host of a hundred CPUs a few hundred threads
// would otherwise cost tens of thousands of opens in the start.
constexpr size_t kMaxDescriptorsForRunningThreads = 4096;

// Descriptors the process may still open: its soft limit less those it has open.
size_t spare_descriptors() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return static_cast<size_t>(INT32_MAX);
  }
  size_t open_now = 0;
  DIR* fds = opendir("/proc/self/fd");
  if (fds == nullptr) return 0;
  while (const dirent* entry = readdir(fds)) {
    if (entry->d_name[0] != '.') ++open_now;
  }
  closedir(fds);
  return limit.rlim_cur > open_now ? static_cast<size_t>(limit.rlim_cur) - open_now : 0;
}

}  // namespace

Status ZVKPerfHandler::start() {
  release_workers_lost_to_fork();
  if (!perf_init_done) ZVK_LOG_NOT_OK(ERROR, init_perf(), "init_perf() call failed!");
  if (!m_workers.empty()) {
    return Status(error::FAILED_PRECONDITION, "There seems to be active workers!");
  }
  // Refused before anything is opened, so that a retry doesn't pile up descriptors.
  if (!m_single_thread && !m_shared_buckets && m_helper) {
    LOG(ERROR) << "Handler constructed with a bucket helper! needs to be constructed with queue "
                  "pointers instead!";
    return Status(error::INVALID_ARGUMENT,
                  "Configuration mismatch! Needs to be constructed with queues instead of helper!");
  }
  std::vector<int> cpus;
  if (m_cpu != -1) {
    cpus.push_back(m_cpu);
  } else {
    for (uint32_t cpu = 0; cpu < m_num_host_cores; ++cpu) cpus.push_back(static_cast<int>(cpu));
  }
  // Inherit brings in only threads created after the open: those already running
  // (a thread pool started before the capture) get groups of their own.
  std::vector<pid_t> threads =
      samples_whole_process() ? threads_besides_target() : std::vector<pid_t>();
  // Each such thread takes a descriptor per event and CPU, which the job may need
  // more: they may take a quarter of what the process has left, and no more than
  // kMaxDescriptorsForRunningThreads.
  const size_t per_thread = cpus.size() * m_configs.size();
  const size_t affordable =
      per_thread == 0
          ? threads.size()
          : std::min(spare_descriptors() / 4, kMaxDescriptorsForRunningThreads) / per_thread;
  const size_t unaffordable = threads.size() > affordable ? threads.size() - affordable : 0;
  threads.resize(threads.size() - unaffordable);
  std::set<pid_t> missed;
  int missed_error = 0;
  std::vector<std::vector<PerfConfFD>> per_cpu;
  for (int cpu : cpus) {
    std::vector<PerfConfFD> fds;
    const Status opened = open_perf_fd(m_pid, cpu, fds);
    if (!opened.ok()) {
      for (const PerfConfFD& fd : m_perf_fds) m_kernel.close(static_cast<int>(fd.fd));
      m_perf_fds.clear();
      return opened;
    }
    const std::vector<PerfConfFD> target_fds = fds;
    open_other_threads(threads, cpu, target_fds, fds, missed, missed_error);
    m_perf_fds.insert(m_perf_fds.end(), fds.begin(), fds.end());
    per_cpu.push_back(std::move(fds));
  }
  m_fds_owner_pid = getpid();
  if (unaffordable != 0) {
    LOG(WARNING) << "CPU sampling leaves out " << unaffordable
                 << " threads that were running before the start: their events would take more "
                    "than a quarter of the file descriptors the process has left, or more than "
                 << kMaxDescriptorsForRunningThreads;
  }
  if (!missed.empty()) {
    LOG(WARNING) << "CPU sampling leaves out " << missed.size()
                 << " threads that were running before the start: " << strerror(missed_error);
  }

  auto helper_for_workers = [this] {
    return m_helper ? m_helper : std::make_shared<ZVKBufferRecordHelper>(m_to_fill, m_to_write);
  };
  if (m_single_thread) {
    m_workers.emplace_back(make_processor(), m_perf_fds, helper_for_workers(),
                           std::make_shared<std::atomic<bool>>(false));
    m_workers.back().run();
    return Status::OK();
  }
  // One worker per CPU; these are built and never started, so they yield no samples.
  std::shared_ptr<ZVKBufferRecordHelper> helper;
  if (m_shared_buckets) helper = helper_for_workers();
  for (std::vector<PerfConfFD>& fds : per_cpu) {
    if (fds.empty()) continue;
    m_workers.emplace_back(
        make_processor(), std::move(fds),
        m_shared_buckets ? helper : std::make_shared<ZVKBufferRecordHelper>(m_to_fill, m_to_write),
        std::make_shared<std::atomic<bool>>(false));
  }
  return Status::OK();
}

bool ZVKPerfHandler::samples_whole_process() const {
  return m_cgroup_fd == -1 && m_inherit_events && (m_pid == 0 || m_pid == getpid());
}

std::vector<pid_t> ZVKPerfHandler::threads_besides_target() const {
  const pid_t target = m_pid == 0 ? static_cast<pid_t>(syscall(SYS_gettid)) : m_pid;
  std::vector<pid_t> threads;
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return threads;
  while (const dirent* entry = readdir(tasks)) {
    char* end = nullptr;
    const long tid = strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || tid <= 0 || tid == target) continue;
    threads.push_back(static_cast<pid_t>(tid));
  }
  closedir(tasks);
  return threads;
}

void ZVKPerfHandler::open_other_threads(const std::vector<pid_t>& threads, int cpu,
                                        const std::vector<PerfConfFD>& target_fds,
                                        std::vector<PerfConfFD>& fds, std::set<pid_t>& missed,
                                        int& last_error) {
  for (pid_t tid : threads) {
    std::vector<PerfConfFD> group;
    int err = 0;
    if (!open_group(tid, cpu, group, false, &err).ok()) {
      if (err != ESRCH) {
        missed.insert(tid);
        last_error = err;
      }
      continue;
    }
    // Event by event into the target's rings on this CPU: no ring of its own.
    for (size_t k = 0; k < group.size() && k < target_fds.size(); ++k) {
      group[k].output_fd = target_fds[k].fd;
    }
    fds.insert(fds.end(), group.begin(), group.end());
  }
}

Status ZVKPerfHandler::flush() {
  if (m_workers.empty()) return Status(error::FAILED_PRECONDITION, "There is nothing to flush!");
  if (m_shared_buckets) return m_workers.front().flush();
  for (PerfWorker& worker : m_workers) ZVK_RETURN_NOT_OK(worker.flush());
  return Status::OK();
}

Status ZVKPerfHandler::stop() {
  // In a forked child the capture's workers stayed in the parent: letting go of
  // them is all there is to stop here.
  if (release_workers_lost_to_fork()) return Status::OK();
  if (m_workers.empty()) return Status(error::FAILED_PRECONDITION, "No active workers!");
  for (PerfWorker& worker : m_workers) worker.stop();
  // The workers and descriptors are released whatever the flush answers: a helper
  // that had nothing left to flush must not keep the next capture from starting.
  const Status flushed = flush();
  close_handler_fds();
  m_workers.clear();
  return flushed;
}

Status ZVKPerfHandler::restart_after_fork() {
  if (!release_workers_lost_to_fork()) return Status::OK();
  // A named process or a cgroup is sampled by the parent still.
  if (m_pid != 0 || m_cgroup_fd != -1) return Status::OK();
  return start();
}

void ZVKPerfHandler::close_handler_fds() {
  // A worker that ran has closed its own descriptors; closing a number twice could
  // shut a file that the job has opened since.
  std::set<long> closed_by_workers;
  for (const PerfWorker& worker : m_workers) {
    if (!worker.has_run()) continue;
    for (const PerfConfFD& fd : worker.fds()) closed_by_workers.insert(fd.fd);
  }
  const bool forked = m_fds_owner_pid != 0 && m_fds_owner_pid != getpid();
  for (const PerfConfFD& fd : m_perf_fds) {
    const int descriptor = static_cast<int>(fd.fd);
    if (forked) {
      // The child's copies: close each only if the number still names our event.
      uint64_t id = 0;
      if (m_kernel.event_id(descriptor, &id) == 0 && id == fd.id) m_kernel.close(descriptor);
    } else if (closed_by_workers.count(fd.fd) == 0) {
      m_kernel.close(descriptor);
    }
  }
  m_perf_fds.clear();
}

bool ZVKPerfHandler::release_workers_lost_to_fork() {
  bool lost = false;
  for (PerfWorker& worker : m_workers) {
    if (!worker.lost_to_fork()) continue;
    worker.forget_thread();
    lost = true;
  }
  if (!lost) return false;
  close_handler_fds();
  m_workers.clear();
  return true;
}

}  // namespace zorvek
