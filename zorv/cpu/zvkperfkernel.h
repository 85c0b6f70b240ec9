#pragma once

#include <linux/perf_event.h>
#include <sys/epoll.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace zorvek {

// Every kernel call of CPU sampling: perf_event_open, the descriptor ioctls, the
// ring mappings and epoll. The handler and its workers reach the kernel only
// through this seam, so that tests can drive them against the real kernel or make
// one call fail the way the kernel won't on demand (a failing mmap, an offline CPU).
// Results and errno are the system calls' own.
class ZVKPerfKernel {
 public:
  virtual ~ZVKPerfKernel() = default;

  // The process-wide instance that makes the real calls.
  static ZVKPerfKernel& real();

  virtual int perf_event_open(perf_event_attr* attr, pid_t pid, int cpu, int group_fd,
                              unsigned long flags);
  virtual int enable(int fd);          // PERF_EVENT_IOC_ENABLE
  virtual int disable(int fd);         // PERF_EVENT_IOC_DISABLE
  virtual int reset(int fd);           // PERF_EVENT_IOC_RESET
  virtual int event_id(int fd, uint64_t* id);  // PERF_EVENT_IOC_ID
  // PERF_EVENT_IOC_SET_OUTPUT: `fd`'s records go to the mapped ring of `output_fd`.
  virtual int set_output(int fd, int output_fd);
  virtual int set_nonblocking(int fd);
  virtual int close(int fd);

  // A shared, writable mapping of a ring, which a forked child doesn't inherit.
  // MAP_FAILED on failure.
  virtual void* map_ring(int fd, size_t size);
  virtual int unmap_ring(void* ring, size_t size);

  virtual int epoll_create1(int flags);
  virtual int epoll_ctl(int epfd, int op, int fd, epoll_event* event);
  virtual int epoll_wait(int epfd, epoll_event* events, int max_events, int timeout_ms);
};

}  // namespace zorvek
