#include "zorv/cpu/zvkperfkernel.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zorvek {

ZVKPerfKernel& ZVKPerfKernel::real() {
  static ZVKPerfKernel* kernel = new ZVKPerfKernel();  // never destroyed: workers may outlive statics
  return *kernel;
}

int ZVKPerfKernel::perf_event_open(perf_event_attr* attr, pid_t pid, int cpu, int group_fd,
                                   unsigned long flags) {
  return static_cast<int>(syscall(SYS_perf_event_open, attr, pid, cpu, group_fd, flags));
}

int ZVKPerfKernel::enable(int fd) { return ioctl(fd, PERF_EVENT_IOC_ENABLE, 0); }

int ZVKPerfKernel::disable(int fd) { return ioctl(fd, PERF_EVENT_IOC_DISABLE, 0); }

int ZVKPerfKernel::reset(int fd) { return ioctl(fd, PERF_EVENT_IOC_RESET, 0); }

int ZVKPerfKernel::event_id(int fd, uint64_t* id) { return ioctl(fd, PERF_EVENT_IOC_ID, id); }

int ZVKPerfKernel::set_output(int fd, int output_fd) {
  return ioctl(fd, PERF_EVENT_IOC_SET_OUTPUT, output_fd);
}

int ZVKPerfKernel::set_nonblocking(int fd) { return fcntl(fd, F_SETFL, O_NONBLOCK); }

int ZVKPerfKernel::close(int fd) { return ::close(fd); }

void* ZVKPerfKernel::map_ring(int fd, size_t size) {
  // Writable, so that the kernel respects the tail we publish and never overwrites
  // records not yet read.
  void* ring = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  // A child would hold the ring, and the locked memory behind it, for as long as it
  // lives, without ever reading it.
  if (ring != MAP_FAILED) madvise(ring, size, MADV_DONTFORK);
  return ring;
}

int ZVKPerfKernel::unmap_ring(void* ring, size_t size) { return munmap(ring, size); }

int ZVKPerfKernel::epoll_create1(int flags) { return ::epoll_create1(flags); }

int ZVKPerfKernel::epoll_ctl(int epfd, int op, int fd, epoll_event* event) {
  return ::epoll_ctl(epfd, op, fd, event);
}

int ZVKPerfKernel::epoll_wait(int epfd, epoll_event* events, int max_events, int timeout_ms) {
  return ::epoll_wait(epfd, events, max_events, timeout_ms);
}

}  // namespace zorvek
