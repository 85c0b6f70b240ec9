#include "zorv/utils/identity.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace zorvek {
namespace {

std::atomic<uint64_t> g_fork_generation{1};
// initial-exec: no __tls_get_addr, also when loaded as a Python extension.
__thread ProcessIdentity t_identity __attribute__((tls_model("initial-exec"))) = {0, 0, 0};

void bump_fork_generation() { g_fork_generation.fetch_add(1, std::memory_order_relaxed); }

void refresh_identity() {
  register_identity_fork_handler();
  t_identity.pid = getpid();
  t_identity.tid = static_cast<pid_t>(syscall(SYS_gettid));
  t_identity.fork_generation = g_fork_generation.load(std::memory_order_relaxed);
}

}  // namespace

void register_identity_fork_handler() {
  static std::once_flag registered;
  std::call_once(registered, [] { pthread_atfork(nullptr, nullptr, bump_fork_generation); });
}

const ProcessIdentity& current_identity() {
  if (__builtin_expect(
          t_identity.fork_generation != g_fork_generation.load(std::memory_order_relaxed), 0)) {
    refresh_identity();
  }
  return t_identity;
}

}  // namespace zorvek
