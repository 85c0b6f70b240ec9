#pragma once

#include <cstddef>
#include <cstdint>

namespace zorvek {

// Copies `size` bytes at address `src` of this process into `dst`, through the
// kernel (process_vm_readv on the own pid), so that memory unmapped or freed
// meanwhile makes the read fail instead of faulting. True only when every byte
// was read. Async-signal-safe; errno is left as it was.
bool safe_read(void* dst, uintptr_t src, size_t size);

// Two ranges in one system call; true only when both were read whole.
bool safe_read2(void* dst1, uintptr_t src1, size_t size1, void* dst2, uintptr_t src2, size_t size2);

// Whether the kernel lets this process read itself through process_vm_readv: a
// seccomp filter or a security module may refuse it (EPERM, ENOSYS), and then
// every safe read fails. Reads a variable of its own to find out.
bool safe_reads_allowed();

struct SafeRange {
  void* dst;
  uintptr_t src;
  size_t size;
};

// Reads the ranges in order, a system call for every kSafeRangesPerCall of them,
// and stops at the first that can't be read whole: returns how many were.
constexpr size_t kSafeRangesPerCall = 8;
size_t safe_read_ranges(const SafeRange* ranges, size_t count);

}  // namespace zorvek
