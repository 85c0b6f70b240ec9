#pragma once

#include <linux/perf_event.h>

#include <cstddef>
#include <cstdint>

#include "zorv/io/zvkbufferrecordhelper.h"

namespace zorvek {

// Loads and stores of the two ring words shared with the kernel (data_head,
// data_tail). The kernel's side of the protocol: read data_head, then the records
// (acquire); finish reading the records, then write data_tail (release).
//
// On x86-64 every load is already an acquire and every store a release, so each
// of these compiles to one plain 8-byte load or store between compiler barriers,
// with no fence instruction (as objdump -d of process_pages showed when this was
// written: one mov from data_head, one mov to data_tail per record, no fence or
// lock prefix).
//
// The kernel header spells the words __u64, which is not uint64_t's type: the
// accesses go through a type that may alias any other.
typedef uint64_t __attribute__((__may_alias__)) any_u64;

template <size_t N>
struct read_once;
template <>
struct read_once<8> {
  static void apply(const volatile void* from, void* to) {
    *static_cast<any_u64*>(to) = *static_cast<const volatile any_u64*>(from);
  }
};

template <size_t N>
struct write_once;
template <>
struct write_once<8> {
  static void apply(void* from, volatile void* to) {
    *static_cast<volatile any_u64*>(to) = *static_cast<any_u64*>(from);
  }
};

template <typename T>
inline T mem_load(const T* from) {
  T value;
  read_once<sizeof(T)>::apply(from, &value);
  return value;
}

template <typename T>
inline void mem_store(T* to, T value) {
  write_once<sizeof(T)>::apply(&value, to);
}

// Read Once, Write Once: one access of the whole word that the compiler can
// neither split, merge nor repeat.
template <typename T>
inline T ROT(const T& word) {
  return mem_load(&word);
}

template <typename T>
inline void WOT(T& word, T value) {
  mem_store(&word, value);
}

inline void compiler_barrier() { asm volatile("" ::: "memory"); }

template <typename T>
inline T zvk_load_acquire(const T* word) {
#if defined(__x86_64__)
  const T value = ROT(*word);
  compiler_barrier();
  return value;
#else
  return __atomic_load_n(word, __ATOMIC_ACQUIRE);
#endif
}

// The value converts to the word's type: kernel headers spell 64 bits differently,
// so the value's own type must not take part in deducing T.
template <typename T>
struct non_deduced {
  using type = T;
};

template <typename T>
inline void zvk_store_release(T* word, typename non_deduced<T>::type value) {
#if defined(__x86_64__)
  compiler_barrier();
  WOT(*word, value);
#else
  __atomic_store_n(word, value, __ATOMIC_RELEASE);
#endif
}

// Drains one perf ring: every record between data_tail and the data_head read at
// entry becomes at most one record in `rh`, and data_tail is published after each.
// The data area is the one behind the control page. A record that straddles the
// ring's end is copied into the scratch buffer `*page_buffer` of `*page_buffer_size`
// bytes, which belongs to the caller and is replaced (free/malloc) when too small.
// A malformed header gives up what the kernel has published so far: the tail
// moves to the head and a LOST record counts the loss, so the ring goes on.
// `cpu` and `sample_mask` don't change what is written: the decoder reads the one
// sample layout every descriptor is opened with.
void process_pages(int cpu, perf_event_mmap_page* page, uint64_t sample_mask, void** page_buffer,
                   size_t* page_buffer_size, ZVKBufferRecordHelper* rh);

}  // namespace zorvek
