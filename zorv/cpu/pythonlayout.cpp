#include "zorv/cpu/pythonlayout.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <system_error>
#include <thread>

#include "zorv/utils/safememory.h"

namespace zorvek {

namespace {
std::atomic<const PythonLayout*> g_layout{nullptr};
}  // namespace

void set_python_layout(const PythonLayout* layout) {
  g_layout.store(layout, std::memory_order_release);
}

const PythonLayout* python_layout() { return g_layout.load(std::memory_order_acquire); }

namespace {

// Far beyond where a C library keeps it: the search ends at the first match.
constexpr int32_t kDescriptorSearchBytes = 4096;

// The first offset in the calling thread's descriptor that holds its thread id.
int32_t own_tid_offset() {
  const pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
  const uintptr_t self = static_cast<uintptr_t>(pthread_self());
  for (int32_t offset = 0; offset < kDescriptorSearchBytes; offset += sizeof(pid_t)) {
    pid_t value = 0;
    if (!safe_read(&value, self + static_cast<uintptr_t>(offset), sizeof(value))) return -1;
    if (value == tid) return offset;
  }
  return -1;
}

}  // namespace

int32_t find_pthread_tid_offset() {
  // Two threads of their own, never the main thread, whose thread id is also the
  // process id and may stand in other fields.
  int32_t found[2] = {-1, -1};
  for (int32_t& offset : found) {
    try {
      std::thread probe([&offset] { offset = own_tid_offset(); });
      probe.join();
    } catch (const std::system_error&) {
      return -1;
    }
  }
  return found[0] == found[1] ? found[0] : -1;
}

}  // namespace zorvek
