#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "zorv/cpu/pythonlayout.h"
#include "zorv/format/stack.h"

namespace zorvek {

// Receives each code object the first time a walk meets it.
class PythonCodeSink {
 public:
  // Async-signal-safe. `qualname` and `filename` are NUL-terminated UTF-8 of
  // header.qualname_size and header.filename_size bytes (the NUL not counted);
  // `linetable` holds header.linetable_size bytes. The pointers are valid during
  // the call only. False when the code could not be recorded (no room): a later
  // walk that meets it announces it again, under the same id.
  virtual bool on_new_code(const perfevent::ZVKPythonCode& header, const char* qualname,
                           const char* filename, const uint8_t* linetable) = 0;

 protected:
  ~PythonCodeSink() = default;
};

// Reads the Python frames of a thread state leaf first, through reads that cannot
// fault, and names each code object once through the sink. One walker serves every
// thread of the process, signal handlers included.
class PythonFrameWalker {
 public:
  static constexpr size_t kDefaultCodeSlots = size_t{1} << 14;
  // Code strings are cut to this many bytes of UTF-8.
  static constexpr size_t kMaxTextBytes = 512;
  // A PYTHON_CODE payload stays within this many bytes; longer line tables are cut.
  static constexpr uint32_t kMaxCodePayload = 60000;

  // The code table is allocated here: `code_slots`, a power of two, entries.
  PythonFrameWalker(const PythonLayout& layout, PythonCodeSink* sink,
                    size_t code_slots = kDefaultCodeSlots);
  ~PythonFrameWalker();
  PythonFrameWalker(const PythonFrameWalker&) = delete;
  PythonFrameWalker& operator=(const PythonFrameWalker&) = delete;

  uintptr_t current_thread_state() const;  // async-signal-safe; 0 when the thread has none
  // Async-signal-safe; every read through safe_read; a torn list gives a shorter
  // stack. `*cut` is set when frames were left at the root side for want of room.
  size_t walk(uintptr_t thread_state, perfevent::ZVKPythonFrame* out, size_t max, bool* cut);
  // The same for another thread's state, read while that thread runs: a walk is
  // kept only when the thread's current frame was the same before and after it
  // (the frames beneath a frame don't change while it runs) and a second walk
  // read the same frames, so a list that changed under the read, or frames freed
  // and reused by another thread, are walked again, then given up: a stack is
  // never mixed from two threads' calls. At most 256 frames.
  size_t walk_settled(uintptr_t thread_state, perfevent::ZVKPythonFrame* out, size_t max,
                      bool* cut);
  // Thread states of the interpreter with their native tids (wall clock), via safe
  // reads. A tid is -1 where the interpreter keeps none (3.10).
  size_t list_threads(uintptr_t* states, int32_t* tids, size_t max) const;
  void forget_codes();  // forked child: announce every code again

 private:
  struct CodeSlot;
  struct CodeKey;
  struct CodeRun;
  struct Scratch;
  struct Announced {
    uint32_t id;
    bool recorded;  // the sink took it
  };

  class ChunkCopy;

  uintptr_t current_frame(uintptr_t thread_state) const;
  // The current frame, as current_frame gives it, read with the newest part of the
  // thread's frame stack, which `copy` then holds: two system calls, where reading
  // frame after frame takes one for every few frames. 0 when unreadable.
  uintptr_t current_frame_and_chunk(uintptr_t thread_state, ChunkCopy* copy) const;
  // The id of `code` where a walk met it run by `function` before, with nothing
  // else cached at that address since, so that the code object needn't be read;
  // 0 otherwise. A function holds its code: another code made at a freed code's
  // address comes with another function, unless both addresses were reused at once.
  uint32_t cached_code_id(uintptr_t code, uintptr_t function, int32_t* first_traceable) const;
  // The kernel's id of a thread state's thread, from its pthread_t (3.10); -1 when unknown.
  int32_t pthread_thread_id(uintptr_t state) const;
  // `function`, the function the frame runs (0 when unknown), is cached with the
  // code for cached_code_id.
  uint32_t code_id(uintptr_t code, const uint8_t* code_block, uintptr_t function);
  // Announces the code and caches it in `slot`, whose sequence was `sequence`,
  // unless another writer came first.
  uint32_t fill(CodeSlot& slot, uint32_t sequence, uintptr_t code, const CodeKey& key,
                const CodeRun& run, uint32_t id, uint32_t generation);
  // Caches `function` as the one that runs the code of `slot`, unless another writer came first.
  static void remember_function(CodeSlot& slot, uint32_t sequence, uintptr_t function);
  // `id`, or a fresh one when 0.
  Announced announce(const CodeKey& key, uint32_t id);
  size_t read_text(uintptr_t object, char* out) const;
  size_t read_linetable(uintptr_t object, size_t room, uint8_t* buffer, bool* cut) const;
  uint32_t fresh_id();
  // Stops the walk where it first came back to a frame it had visited.
  size_t end_before_repeat(uintptr_t first_frame, size_t loop, size_t steps,
                           const uint16_t* emitted_at, size_t processed, size_t count) const;

  const PythonLayout layout_;
  PythonCodeSink* const sink_;
  const size_t slot_mask_;
  std::unique_ptr<CodeSlot[]> table_;
  size_t frame_block_ = 0;     // bytes read of each frame, 0 when the layout is unusable
  size_t code_block_ = 0;      // bytes read of each code object
  size_t code_stride_ = 0;     // code_block_, rounded up to keep the batch's reads aligned
  size_t codes_per_batch_ = 0; // code objects gathered before they are read
  // The part of a thread state read ahead of a walk on a frame stack: [start, start + size).
  size_t thread_block_start_ = 0;
  size_t thread_block_size_ = 0;  // 0: no frame stack to copy (3.10)
  std::atomic<uint32_t> generation_{1};
  std::atomic<uint32_t> evictions_{0};
  // An announcement's strings and line table, off the signal handler's stack;
  // each claimed by one announcement at a time.
  static constexpr int kScratchBuffers = 8;
  std::unique_ptr<Scratch[]> scratch_;
  std::atomic<bool> scratch_busy_[kScratchBuffers] = {};
  // Copies of the newest part of a frame stack, one for each walk under way; a
  // walk that finds none free reads frame by frame.
  static constexpr int kChunkBuffers = 16;
  std::unique_ptr<uint8_t[]> chunk_buffers_;
  std::atomic<bool> chunk_busy_[kChunkBuffers] = {};
};

}  // namespace zorvek
