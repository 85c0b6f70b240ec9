// The NVTX instance of bench_nvtx that no tool is attached to. A shared object has
// NVTX state of its own, read on its first NVTX call: the bench makes that call
// before it sets NVTX_INJECTION64_PATH, so this instance stays without a tool
// while the program's own one loads the injection, in the same process.

#include <nvtx3/nvToolsExt.h>

extern "C" __attribute__((visibility("default"))) void bench_nvtx_plain_init() {
  nvtxInitialize(nullptr);
}

extern "C" __attribute__((visibility("default"))) void bench_nvtx_plain_pairs(const char* msg,
                                                                           int count) {
  for (int i = 0; i < count; ++i) {
    nvtxRangePushA(msg);
    nvtxRangePop();
  }
}
