#include "zorv/utils/safememory.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace zorvek {

namespace {

// The pid the reads name. A forked child would otherwise read its parent's
// memory, so fork clears it and the next read asks the kernel again.
std::atomic<pid_t> g_pid{0};

void forget_pid_in_child() { g_pid.store(0, std::memory_order_relaxed); }

const int g_atfork_registered = pthread_atfork(nullptr, nullptr, forget_pid_in_child);

pid_t own_pid() {
  pid_t pid = g_pid.load(std::memory_order_relaxed);
  if (pid == 0) {
    // The raw system call: no library cache that could still hold the parent's pid.
    pid = static_cast<pid_t>(syscall(SYS_getpid));
    g_pid.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

// The bytes read: the kernel stops at the first remote range it can't read whole
// and never splits one.
ssize_t read_vector(const iovec* local, const iovec* remote, unsigned long count) {
  const int saved_errno = errno;
  const ssize_t got = process_vm_readv(own_pid(), local, count, remote, count, 0);
  errno = saved_errno;
  return got;
}

bool read_ranges(const iovec* local, const iovec* remote, unsigned long count, size_t total) {
  const ssize_t got = read_vector(local, remote, count);
  return got >= 0 && static_cast<size_t>(got) == total;
}

}  // namespace

bool safe_read(void* dst, uintptr_t src, size_t size) {
  if (size == 0) return true;
  const iovec local{dst, size};
  const iovec remote{reinterpret_cast<void*>(src), size};
  return read_ranges(&local, &remote, 1, size);
}

bool safe_read2(void* dst1, uintptr_t src1, size_t size1, void* dst2, uintptr_t src2,
                size_t size2) {
  const iovec local[2] = {{dst1, size1}, {dst2, size2}};
  const iovec remote[2] = {{reinterpret_cast<void*>(src1), size1},
                           {reinterpret_cast<void*>(src2), size2}};
  return read_ranges(local, remote, 2, size1 + size2);
}

bool safe_reads_allowed() {
  const uint64_t probe = 0x5a564b50524f4245ull;
  uint64_t copy = 0;
  return safe_read(&copy, reinterpret_cast<uintptr_t>(&probe), sizeof(copy)) && copy == probe;
}

size_t safe_read_ranges(const SafeRange* ranges, size_t count) {
  size_t done = 0;
  while (done < count) {
    iovec local[kSafeRangesPerCall];
    iovec remote[kSafeRangesPerCall];
    const size_t batch = count - done < kSafeRangesPerCall ? count - done : kSafeRangesPerCall;
    for (size_t i = 0; i < batch; ++i) {
      local[i] = iovec{ranges[done + i].dst, ranges[done + i].size};
      remote[i] = iovec{reinterpret_cast<void*>(ranges[done + i].src), ranges[done + i].size};
    }
    ssize_t got = read_vector(local, remote, batch);
    if (got < 0) return done;
    size_t whole = 0;
    while (whole < batch && static_cast<size_t>(got) >= ranges[done + whole].size) {
      got -= static_cast<ssize_t>(ranges[done + whole].size);
      ++whole;
    }
    done += whole;
    if (whole < batch) return done;
  }
  return done;
}

}  // namespace zorvek
