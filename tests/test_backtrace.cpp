// capture_backtrace: the caller's frame first, at most the frames asked for, and the
// unwinder it uses kept out of the process's global symbol scope.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sched.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "zorv/utils/backtrace.h"

// A function without unwind information, as hand-written assembly kernels are:
// it keeps registers and locals on the stack, uses the frame pointer register for
// data, notes its return address, and spins until *stop is set. Its locals hold
// what earlier calls could have left: a zero, the return address of an indirect
// call whose caller's own return address would be the zero after the next word,
// the return address of a direct call to another function, a zero, and a pointer
// to its own start. Its callers have
// unwind information and no frame pointer, as a compiled BLAS driver has; one
// calls it directly, the other through a register.
extern "C" {
__attribute__((visibility("hidden"))) volatile uint64_t zvk_no_cfi_return = 0;
void zvk_spin_without_unwind_info(volatile int* stop);
void zvk_spin_without_unwind_info_end();
void zvk_call_spin(volatile int* stop);
void zvk_call_spin_indirect(volatile int* stop);
}
asm(R"(
  .text
  .p2align 4
  .globl zvk_call_spin
  .hidden zvk_call_spin
  .type zvk_call_spin, @function
zvk_call_spin:
  .cfi_startproc
  sub $8, %rsp
  .cfi_def_cfa_offset 16
  call zvk_spin_without_unwind_info
  add $8, %rsp
  .cfi_def_cfa_offset 8
  ret
  .cfi_endproc
  .size zvk_call_spin, .-zvk_call_spin

  .p2align 4
  .globl zvk_call_spin_indirect
  .hidden zvk_call_spin_indirect
  .type zvk_call_spin_indirect, @function
zvk_call_spin_indirect:
  .cfi_startproc
  sub $8, %rsp
  .cfi_def_cfa_offset 16
  lea zvk_spin_without_unwind_info(%rip), %rax
  call *%rax
zvk_stale_indirect_return:
  add $8, %rsp
  .cfi_def_cfa_offset 8
  ret
  .cfi_endproc
  .size zvk_call_spin_indirect, .-zvk_call_spin_indirect

  .p2align 4
  .type zvk_call_other, @function
zvk_call_other:
  .cfi_startproc
  sub $8, %rsp
  .cfi_def_cfa_offset 16
  call zvk_call_spin
zvk_stale_direct_return:
  add $8, %rsp
  .cfi_def_cfa_offset 8
  ret
  .cfi_endproc
  .size zvk_call_other, .-zvk_call_other

  .p2align 4
  .globl zvk_spin_without_unwind_info
  .hidden zvk_spin_without_unwind_info
  .type zvk_spin_without_unwind_info, @function
zvk_spin_without_unwind_info:
  push %rbp
  push %rbx
  push %r12
  sub $40, %rsp
  mov 64(%rsp), %rax
  mov %rax, zvk_no_cfi_return(%rip)
  movq $0, (%rsp)
  lea zvk_stale_indirect_return(%rip), %rax
  mov %rax, 8(%rsp)
  lea zvk_stale_direct_return(%rip), %rax
  mov %rax, 16(%rsp)
  movq $0, 24(%rsp)
  lea zvk_spin_without_unwind_info(%rip), %rax
  mov %rax, 32(%rsp)
  mov $16, %rbp
1:
  movl (%rdi), %eax
  test %eax, %eax
  jz 1b
  add $40, %rsp
  pop %r12
  pop %rbx
  pop %rbp
  ret
  .globl zvk_spin_without_unwind_info_end
  .hidden zvk_spin_without_unwind_info_end
zvk_spin_without_unwind_info_end:
  .size zvk_spin_without_unwind_info, .-zvk_spin_without_unwind_info
)");

namespace zorvek {
namespace {

// Returns the depth and leaves the frames in `frames`, from a known function.
__attribute__((noinline)) int unwind_here(void** frames, int max_frames) {
  const int depth = capture_backtrace(frames, max_frames);
  asm volatile("" : : "r"(frames) : "memory");  // keeps this a frame of its own
  return depth;
}

__attribute__((noinline)) int nested(int levels, void** frames, int max_frames) {
  if (levels == 0) return unwind_here(frames, max_frames);
  const int depth = nested(levels - 1, frames, max_frames);
  asm volatile("" : : "r"(levels) : "memory");
  return depth;
}

TEST(Backtrace, FirstFrameIsTheCaller) {
  void* frames[8] = {};
  const int depth = unwind_here(frames, 8);
  ASSERT_GT(depth, 1);
  const auto caller = reinterpret_cast<uintptr_t>(frames[0]);
  const auto start = reinterpret_cast<uintptr_t>(&unwind_here);
  EXPECT_GT(caller, start);
  EXPECT_LT(caller - start, 256u) << "the first frame is not inside unwind_here";
}

TEST(Backtrace, StopsAtTheFramesAskedFor) {
  void* frames[kMaxBacktraceFrames + 8] = {};
  EXPECT_EQ(nested(20, frames, 5), 5);
  EXPECT_EQ(nested(20, frames, 1), 1);
  EXPECT_EQ(nested(20, frames, 0), 0);
  EXPECT_EQ(nested(20, frames, -3), 0);
  EXPECT_LE(nested(200, frames, kMaxBacktraceFrames + 8), kMaxBacktraceFrames);
}

TEST(Backtrace, WalksTheWholeRecursion) {
  void* frames[64] = {};
  const int depth = nested(20, frames, 64);
  EXPECT_GE(depth, 22);  // unwind_here, 21 levels of nested, the test body
}

TEST(Backtrace, UnwinderStaysOutOfTheGlobalScope) {
  void* frames[4];
  ASSERT_GT(capture_backtrace(frames, 4), 0);
  // Loaded with RTLD_LOCAL: a lookup in the global scope must not find libunwind's
  // own entry points, which is what keeps other libraries from binding to them.
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "unw_backtrace"), nullptr);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "_ULx86_64_step"), nullptr);
  void* runtime_raise = dlsym(RTLD_DEFAULT, "_Unwind_RaiseException");
  ASSERT_NE(runtime_raise, nullptr);
  Dl_info provider{};
  ASSERT_NE(dladdr(runtime_raise, &provider), 0);
  EXPECT_EQ(std::string(provider.dli_fname).find("libunwind"), std::string::npos)
      << provider.dli_fname;
}

// What the handler walked of the thread it interrupted.
volatile int spin_stop = 0;
uint64_t walked_ips[64 + kContextScratchFrames];
std::atomic<int> walked_count{-2};

void walk_interrupted(int, siginfo_t*, void* context) {
  walked_count.store(capture_backtrace_from_context(context, walked_ips, 64));
  spin_stop = 1;
}

void* call_directly(void*) {
  zvk_call_spin(&spin_stop);
  return nullptr;
}

void* call_through_a_register(void*) {
  zvk_call_spin_indirect(&spin_stop);
  return nullptr;
}

// Interrupts a thread that spins in the function without unwind information,
// called by `caller`, and checks what the handler walked.
void expect_walk_past_the_function(void* (*caller)(void*)) {
  ASSERT_TRUE(prepare_context_unwinder());
  spin_stop = 0;
  zvk_no_cfi_return = 0;
  walked_count.store(-2);
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_sigaction = walk_interrupted;
  action.sa_flags = SA_SIGINFO;
  ASSERT_EQ(sigaction(SIGUSR2, &action, &previous), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, caller, nullptr), 0);
  while (zvk_no_cfi_return == 0) sched_yield();
  ASSERT_EQ(pthread_kill(thread, SIGUSR2), 0);
  pthread_join(thread, nullptr);
  sigaction(SIGUSR2, &previous, nullptr);

  const int count = walked_count.load();
  ASSERT_GE(count, 2);
  const auto start = reinterpret_cast<uint64_t>(&zvk_spin_without_unwind_info);
  const auto end = reinterpret_cast<uint64_t>(&zvk_spin_without_unwind_info_end);
  EXPECT_TRUE(walked_ips[0] >= start && walked_ips[0] < end) << std::hex << walked_ips[0];
  // Its caller, past what the earlier calls left, then the caller's caller, from
  // the caller's unwind information.
  EXPECT_EQ(walked_ips[1], zvk_no_cfi_return);
  EXPECT_GE(count, 3);
}

TEST(Backtrace, WalksPastAFunctionWithoutUnwindInfoCalledDirectly) {
  expect_walk_past_the_function(call_directly);
}

TEST(Backtrace, WalksPastAFunctionWithoutUnwindInfoCalledThroughARegister) {
  expect_walk_past_the_function(call_through_a_register);
}

}  // namespace
}  // namespace zorvek
