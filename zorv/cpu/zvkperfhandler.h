#pragma once

#include <linux/perf_event.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "zorv/cpu/zvkperfkernel.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/io/zvkqueue.h"
#include "zorv/utils/status.h"

namespace zorvek {

// The attribute size the kernel is told: PERF_ATTR_SIZE_VER5.
constexpr uint32_t kPerfAttrSize = 112;

// One event to sample and how, written as seven decimal fields parted by any one
// character: "type,config,period,sample_type,precise,config1,config2".
struct CaptureConfig {
  CaptureConfig() = default;
  // Never fails: a field that doesn't parse becomes 0 and the rest keep their
  // defaults, as do the fields a short string leaves out.
  explicit CaptureConfig(const std::string& s);
  // The string form, parted by commas.
  operator std::string() const;

  bool operator==(const CaptureConfig& other) const;

  uint32_t type_ = PERF_TYPE_RAW;
  unsigned long long config_ = 0;
  unsigned long long period_ = 100007;
  unsigned long long sample_type_ = 2791;
  unsigned long long precise_ip_ = 3;  // only the low 2 bits count
  unsigned long long config1_ = 0;
  unsigned long long config2_ = 0;
};

// Fills `attr` for a capture: a period (never a frequency), the kernel's default
// clock and wake-up, user call chains only. The caller then sets `disabled` and
// `inherit` per descriptor.
void set_event_attr(const CaptureConfig& c, perf_event_attr* attr);

// Whom and where a capture samples, as perf_event_open takes it: a thread (0 for
// the caller) or a cgroup's descriptor with PERF_FLAG_PID_CGROUP, on one CPU.
struct PerfTarget {
  pid_t pid = 0;
  int cpu = 0;
  unsigned long flags = PERF_FLAG_FD_CLOEXEC;
  bool inherit = false;
};

// True when the kernel opens a descriptor for `c` as the capture will open it on
// `target`: a probe that asked for more (every task of a CPU) would refuse users
// whom the capture itself serves.
bool test_config(const CaptureConfig& c, const PerfTarget& target,
                 ZVKPerfKernel& kernel = ZVKPerfKernel::real());

// One opened descriptor and what it was opened with.
struct PerfConfFD {
  uint64_t config;
  uint64_t sampling_rate;
  uint64_t config1;
  uint64_t config2;
  uint32_t type;
  uint32_t precise;
  long fd;
  // The kernel's id of the event: after a fork it tells whether the number still
  // names our descriptor.
  uint64_t id;
  // -1: the descriptor has a ring of its own. Else the descriptor whose ring its
  // records go to (an event of another thread, on the same CPU).
  long output_fd;
};

// Writes the CONFIGURATION record of `fd`, which every later record's id refers to.
void save_perf_config(ZVKBufferRecordHelper* rh, const PerfConfFD& fd,
                      ZVKPerfKernel& kernel = ZVKPerfKernel::real());

// Writes an MMAP record (id and stream_id 0) for each executable mapping that
// `maps_path` lists, in the process's own /proc/self/maps format.
void save_process_mappings(ZVKBufferRecordHelper* rh, const char* maps_path = "/proc/self/maps");

// Disables and closes a worker's descriptors and unmaps its rings when the worker
// ends, on whatever way it ends.
class PerfCleaner {
 public:
  PerfCleaner(const std::vector<PerfConfFD>& fds, size_t map_size, ZVKPerfKernel& kernel)
      : m_perf_fds(fds), m_map_size(map_size), m_kernel(kernel) {}
  ~PerfCleaner();
  PerfCleaner(const PerfCleaner&) = delete;
  PerfCleaner& operator=(const PerfCleaner&) = delete;

  void add_ring(perf_event_mmap_page* ring) { m_pages.push_back(ring); }
  void set_map_size(size_t map_size) { m_map_size = map_size; }
  void disarm() { m_armed = false; }

 private:
  std::vector<PerfConfFD> m_perf_fds;
  std::vector<perf_event_mmap_page*> m_pages;
  size_t m_map_size;
  ZVKPerfKernel& m_kernel;
  bool m_armed = true;
};

// The sampling state of a capture: reads the "PERF" settings, opens one group of
// descriptors per CPU and hands them to workers, which drain the rings into a
// record helper.
class ZVKPerfHandler {
 public:
  using Processor =
      std::function<void(std::vector<PerfConfFD>&, ZVKBufferRecordHelper*, std::atomic<bool>*)>;

  // A thread that owns a set of descriptors for the length of a capture. A worker
  // that runs closes its descriptors itself when it ends; one that never ran
  // leaves them to the handler.
  class PerfWorker {
   public:
    PerfWorker(Processor processor, std::vector<PerfConfFD> fds,
               std::shared_ptr<ZVKBufferRecordHelper> rh, std::shared_ptr<std::atomic<bool>> sw);
    PerfWorker(PerfWorker&&) = default;
    ~PerfWorker();

    Status run();
    Status stop();
    Status flush();

    bool has_run() const { return m_thread != nullptr; }
    // True in a forked child of the process that ran the thread: the thread isn't here.
    bool lost_to_fork() const;
    // Lets go of a thread lost to a fork, which can be neither joined nor detached.
    void forget_thread();
    const std::vector<PerfConfFD>& fds() const { return m_fds; }
    ZVKBufferRecordHelper* helper() const { return m_rh.get(); }

   private:
    // Tells the thread to end and joins it, or lets go of it after a fork.
    void end_thread();

    std::unique_ptr<std::thread> m_thread;
    Processor m_processor;
    std::vector<PerfConfFD> m_fds;
    std::shared_ptr<ZVKBufferRecordHelper> m_rh;
    std::shared_ptr<std::atomic<bool>> m_switch;
    pid_t m_owner_pid = 0;
  };

  ZVKPerfHandler(ZVKQueue<ZVKBuffer>* to_fill, ZVKQueue<ZVKBuffer>* to_write,
                 ZVKPerfKernel& kernel = ZVKPerfKernel::real());
  explicit ZVKPerfHandler(std::shared_ptr<ZVKBufferRecordHelper> helper,
                          ZVKPerfKernel& kernel = ZVKPerfKernel::real());
  ZVKPerfHandler(const ZVKPerfHandler&) = delete;
  ZVKPerfHandler& operator=(const ZVKPerfHandler&) = delete;
  // Ends what a stop didn't: workers, descriptors and the cgroup directory.
  ~ZVKPerfHandler();

  Status configure(const std::map<std::string, std::string>& m);
  // How many record helpers of its own a handler built on the queues makes with
  // these settings: one, or one per CPU for workers that don't share buckets.
  static uint32_t record_helpers_for(const std::map<std::string, std::string>& m);
  // Asks the kernel once per process whether perf_event can be opened at all.
  Status init_perf();
  // Opens one group, one descriptor per configuration, on `cpu`; appends to `fds`.
  Status open_perf_fd(pid_t pid, int cpu, std::vector<PerfConfFD>& fds);
  // Where the probes open: the capture's target on `cpu`.
  PerfTarget target_on(int cpu) const;
  Status start();
  Status stop();
  Status flush();
  // In a forked child whose capture goes on, lets go of the parent's workers and
  // samples this process's own threads; the parent's events, inherited by threads
  // only, don't see the child. Does nothing in the process that started sampling.
  Status restart_after_fork();

  // Read-only views for tests and the log.
  const std::vector<CaptureConfig>& configs() const { return m_configs; }
  const std::vector<PerfConfFD>& perf_fds() const { return m_perf_fds; }
  const std::vector<PerfWorker>& workers() const { return m_workers; }
  uint64_t sample_type() const { return m_sample_type; }
  uint32_t pages_per_handle() const { return m_num_perf_pages_per_handle; }
  long cgroup_fd() const { return m_cgroup_fd; }
  uint32_t host_cores() const { return m_num_host_cores; }

 private:
  friend struct ZVKPerfHandlerTestPeer;

  // The thread body of every worker of a capture.
  Processor make_processor() const;
  // open_perf_fd, with the failure told or not, and its errno handed back.
  Status open_group(pid_t pid, int cpu, std::vector<PerfConfFD>& fds, bool tell_failure,
                    int* failed_errno);
  // True when the capture is of this whole process: threads created later come in
  // through inherit, those that exist already get groups of their own.
  bool samples_whole_process() const;
  // The process's threads other than the one the target names.
  std::vector<pid_t> threads_besides_target() const;
  // For each of `threads`, a group on `cpu` whose records go to the rings of
  // `target_fds`, the target's group there; appended to `fds`. A thread that ended
  // meanwhile is passed over; the others that fail are added to `missed`, with
  // the reason in `last_error`.
  void open_other_threads(const std::vector<pid_t>& threads, int cpu,
                          const std::vector<PerfConfFD>& target_fds,
                          std::vector<PerfConfFD>& fds, std::set<pid_t>& missed,
                          int& last_error);
  // Closes what this process owns of a failed or finished capture's descriptors:
  // those of workers that never ran, and after a fork those that still are ours.
  void close_handler_fds();
  // In a forked child: the workers' threads stayed in the parent. True when there
  // were such workers, now let go of with the child's copies of their descriptors.
  bool release_workers_lost_to_fork();

  std::string m_cgroup_dir;
  std::vector<PerfWorker> m_workers;
  std::vector<PerfConfFD> m_perf_fds;
  std::vector<CaptureConfig> m_configs;
  ZVKQueue<ZVKBuffer>* m_to_fill;
  ZVKQueue<ZVKBuffer>* m_to_write;
  std::shared_ptr<ZVKBufferRecordHelper> m_helper;
  int m_pid = 0;
  int m_cpu = -1;
  uint32_t m_num_perf_pages_per_handle = 2049;
  uint32_t m_num_host_cores = 1;
  uint32_t m_num_active_cores = 1;
  uint32_t m_event_type = 0;
  uint64_t m_overflow_threshold = 50;
  uint64_t m_sample_type = 1;
  long m_cgroup_fd = -1;
  bool m_inherit_events = false;
  bool m_single_thread = true;
  bool m_shared_buckets = true;
  // "RecordMappings": an MMAP record for each executable mapping at the start.
  bool m_record_mappings = false;
  ZVKPerfKernel& m_kernel;
  // The descriptors opened in this process: the pid that opened m_perf_fds.
  pid_t m_fds_owner_pid = 0;

  static bool perf_init_done;
};

}  // namespace zorvek
