#pragma once

#include <sys/types.h>

#include <cstdint>

namespace zorvek {

// The calling thread's pid and tid, without a system call on the hot path.
// glibc caches neither, and each costs a real system call. The values are cached
// per thread and refreshed after a fork, so a child's records carry the child's
// pid and the forking thread's new tid.
struct ProcessIdentity {
  uint64_t fork_generation;
  pid_t pid;
  pid_t tid;
};

// One TLS read and one relaxed load when nothing changed.
const ProcessIdentity& current_identity();

// Registers, once per process, the pthread_atfork child handler that makes the
// cache stale in a child. Child handlers run in the order of registration, so a
// component whose own child handler reads current_identity() calls this before
// registering that handler; otherwise the handler may still see the parent's ids.
void register_identity_fork_handler();

}  // namespace zorvek
