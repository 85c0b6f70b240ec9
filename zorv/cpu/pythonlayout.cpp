#include "zorv/cpu/pythonlayout.h"

#include <atomic>

namespace zorvek {

namespace {
std::atomic<const PythonLayout*> g_layout{nullptr};
}  // namespace

void set_python_layout(const PythonLayout* layout) {
  g_layout.store(layout, std::memory_order_release);
}

const PythonLayout* python_layout() { return g_layout.load(std::memory_order_acquire); }

}  // namespace zorvek
