#include "zorv/cpu/pyframes.h"

#include <sys/types.h>

#include <algorithm>
#include <cstring>

#include "zorv/utils/safememory.h"

namespace zorvek {

using perfevent::kPythonFrameEntry;
using perfevent::kPythonInstructionMask;
using perfevent::ZVKPythonCode;
using perfevent::ZVKPythonFrame;

namespace {

// Walks run in signal handlers, on whatever stack the interrupted thread has left:
// the buffers here are sized to keep a walk's frames within a few kilobytes.
constexpr size_t kMaxBlock = 256;        // the most bytes read of one frame or code object
constexpr size_t kMaxWalkSteps = 512;    // frames visited per walk, shims and skipped ones included
constexpr size_t kMaxProbes = 32;        // table slots tried before a code takes another's slot
constexpr size_t kTextChunk = 32;        // characters read at a time when converting to UTF-8
constexpr size_t kMaxUnicodeHeader = 128;
constexpr size_t kMaxBytesHeader = 64;   // the most bytes read of a bytes object's header
constexpr size_t kWindowBelow = 768;     // bytes read below a frame, where its callers may lie
constexpr size_t kCodeBatch = 8;         // code objects read in one system call
constexpr size_t kCodeBytes = 1024;      // room for a batch's code objects
constexpr size_t kMaxThreadBlock = 320;  // the most bytes read of a thread state ahead of a walk
// The newest part of a frame stack copied for a walk: the frames a sample meets
// are mostly there, a few kilobytes for most programs.
constexpr size_t kChunkCopyBytes = 16384;

template <typename T>
T field(const uint8_t* block, int32_t offset) {
  T value;
  memcpy(&value, block + offset, sizeof(value));
  return value;
}

uintptr_t pointer_at(const uint8_t* block, int32_t offset) {
  return field<uintptr_t>(block, offset);
}

bool aligned(uintptr_t pointer) { return (pointer & (sizeof(void*) - 1)) == 0; }

bool read_pointer(uintptr_t address, uintptr_t* value) {
  return safe_read(value, address, sizeof(*value));
}

size_t end_of(int32_t offset, size_t size) {
  return offset < 0 ? 0 : static_cast<size_t>(offset) + size;
}

size_t hash_code(uintptr_t code) {
  return static_cast<size_t>((static_cast<uint64_t>(code) >> 4) * 0x9e3779b97f4a7c15ull >> 20);
}

// Appends the UTF-8 of `c` if it fits in `room` bytes; lone surrogates become U+FFFD.
size_t put_utf8(uint32_t c, char* out, size_t room) {
  if ((c >= 0xd800 && c <= 0xdfff) || c > 0x10ffff) c = 0xfffd;
  if (c < 0x80) {
    if (room < 1) return 0;
    out[0] = static_cast<char>(c);
    return 1;
  }
  if (c < 0x800) {
    if (room < 2) return 0;
    out[0] = static_cast<char>(0xc0 | (c >> 6));
    out[1] = static_cast<char>(0x80 | (c & 0x3f));
    return 2;
  }
  if (c < 0x10000) {
    if (room < 3) return 0;
    out[0] = static_cast<char>(0xe0 | (c >> 12));
    out[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3f));
    out[2] = static_cast<char>(0x80 | (c & 0x3f));
    return 3;
  }
  if (room < 4) return 0;
  out[0] = static_cast<char>(0xf0 | (c >> 18));
  out[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3f));
  out[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3f));
  out[3] = static_cast<char>(0x80 | (c & 0x3f));
  return 4;
}

// One frame as a walk gathers it, before its code object is read.
struct FrameFields {
  uintptr_t code;         // 0 for a shim
  uintptr_t function;     // the function the frame runs, 0 when unknown
  uintptr_t instruction;  // a pointer, or f_lasti where the layout has no bytecode offset
  uint32_t id;            // the code's id where the cache knew it without a read, else 0
  int32_t first_traceable;  // with `id`: the code's first traceable instruction
  int8_t owner;
  bool shim;
  bool is_entry;
  uint8_t code_read;  // which of the batch's code reads holds its code object
};

// The last memory read around a frame: the frame itself and up to `below` bytes
// under it, where the callers of frames pushed side by side lie.
class FrameWindow {
 public:
  FrameWindow(size_t block, size_t below) : block_(block), below_(below) {}

  // Frames that lie whole in [low, high), of which `bytes` is a copy, are served from it.
  void use_copy(const uint8_t* bytes, uintptr_t low, uintptr_t high) {
    copy_ = bytes;
    copy_low_ = low;
    copy_high_ = high;
  }

  // The frame's bytes, or nullptr when they can't be read.
  const uint8_t* frame(uintptr_t address) {
    if (within(address, copy_low_, copy_high_)) return copy_ + (address - copy_low_);
    if (within(address, low_, high_)) {
      return buffer_ + (address - base_);
    }
    const size_t below = address > below_ ? below_ : 0;
    const SafeRange ranges[2] = {{buffer_ + below_, address, block_},
                                 {buffer_ + below_ - below, address - below, below}};
    const size_t read = safe_read_ranges(ranges, below > 0 ? 2 : 1);
    if (read == 0) {
      low_ = high_ = base_ = 0;
      return nullptr;
    }
    base_ = address - below_;
    low_ = read == 2 ? address - below : address;
    high_ = address + block_;
    return buffer_ + below_;
  }

 private:
  // Whether a frame at `address` lies whole in [low, high); no sum can wrap.
  bool within(uintptr_t address, uintptr_t low, uintptr_t high) const {
    return address >= low && address < high && high - address >= block_;
  }

  const size_t block_;
  const size_t below_;
  const uint8_t* copy_ = nullptr;
  uintptr_t copy_low_ = 0;
  uintptr_t copy_high_ = 0;
  uintptr_t base_ = 0;  // the address buffer_[0] stands for
  uintptr_t low_ = 0;   // the readable bytes: [low_, high_)
  uintptr_t high_ = 0;
  uint8_t buffer_[kWindowBelow + kMaxBlock];
};

}  // namespace

// One cached code object. An empty slot's `code` is claimed once; a claimed slot
// changes, to the same code or, when a code finds no slot of its own, to another,
// only under `sequence`, odd while a writer fills it: a reader that sees it odd or
// changed doesn't wait (it may have interrupted the writer) but treats the code as
// not cached. Every field is atomic, so readers and writers never race. A
// generation of 0 marks a code whose announcement the sink refused.
struct PythonFrameWalker::CodeSlot {
  std::atomic<uintptr_t> code{0};
  std::atomic<uint32_t> sequence{0};
  std::atomic<uint32_t> id{0};
  std::atomic<uint32_t> generation{0};
  std::atomic<int32_t> first_line{0};
  std::atomic<uintptr_t> name{0};
  std::atomic<uintptr_t> filename{0};
  std::atomic<uintptr_t> linetable{0};
  std::atomic<uintptr_t> function{0};  // the last function seen running it
  std::atomic<int32_t> first_traceable{0};
};

// What tells a code object from another that later got its address: its strings
// and first line.
struct PythonFrameWalker::CodeKey {
  uintptr_t name;
  uintptr_t filename;
  uintptr_t linetable;
  int32_t first_line;
};

// What the cache keeps of a code beside its key: the function a frame ran it in,
// and its first traceable instruction, so that a frame of the same function needs
// no read of the code object.
struct PythonFrameWalker::CodeRun {
  uintptr_t function;
  int32_t first_traceable;
};

// A buffer of the walker's for one walk's copy of a frame stack, claimed for the
// walk's duration; none when every buffer is taken or the layout has no frame stack.
class PythonFrameWalker::ChunkCopy {
 public:
  explicit ChunkCopy(PythonFrameWalker& walker) : walker_(walker) {
    if (walker.chunk_buffers_ == nullptr) return;
    for (int i = 0; i < kChunkBuffers && index_ < 0; ++i) {
      bool busy = false;
      if (walker.chunk_busy_[i].compare_exchange_strong(busy, true, std::memory_order_acq_rel)) {
        index_ = i;
      }
    }
  }
  ~ChunkCopy() {
    if (index_ >= 0) walker_.chunk_busy_[index_].store(false, std::memory_order_release);
  }
  ChunkCopy(const ChunkCopy&) = delete;
  ChunkCopy& operator=(const ChunkCopy&) = delete;

  uint8_t* buffer() const {
    return index_ < 0 ? nullptr : walker_.chunk_buffers_.get() + index_ * kChunkCopyBytes;
  }

  uintptr_t low = 0;  // the addresses copied: [low, high)
  uintptr_t high = 0;

 private:
  PythonFrameWalker& walker_;
  int index_ = -1;
};

struct PythonFrameWalker::Scratch {
  char qualname[kMaxTextBytes + 1];
  char filename[kMaxTextBytes + 1];
  uint8_t linetable[kMaxCodePayload];
};

PythonFrameWalker::PythonFrameWalker(const PythonLayout& layout, PythonCodeSink* sink,
                                     size_t code_slots)
    : layout_(layout),
      sink_(sink),
      slot_mask_(code_slots - 1),
      table_(new CodeSlot[code_slots]),
      scratch_(new Scratch[kScratchBuffers]) {
  const size_t p = sizeof(uintptr_t);
  const size_t frame_block =
      std::max({end_of(layout.frame_previous, p), end_of(layout.frame_code, p),
                end_of(layout.frame_instruction, p), end_of(layout.frame_owner, 1),
                end_of(layout.frame_is_entry, 1), end_of(layout.frame_function, p)});
  const size_t code_block =
      std::max({end_of(layout.object_type, p), end_of(layout.code_qualname, p),
                end_of(layout.code_filename, p), end_of(layout.code_linetable, p),
                end_of(layout.code_first_line, 4), end_of(layout.code_first_traceable, 4)});
  const bool usable = code_slots > 0 && (code_slots & slot_mask_) == 0 &&
                      layout.frame_previous >= 0 && layout.frame_code >= 0 &&
                      layout.frame_instruction >= 0 && layout.object_type >= 0 &&
                      layout.code_qualname >= 0 &&
                      layout.code_filename >= 0 && layout.code_linetable >= 0 &&
                      layout.code_first_line >= 0 && layout.thread_frame >= 0 &&
                      frame_block <= kMaxBlock && code_block <= kMaxBlock &&
                      layout.unicode_compact_size >= 0 &&
                      static_cast<size_t>(layout.unicode_compact_size) <= kMaxUnicodeHeader;
  if (usable) {
    frame_block_ = frame_block;
    code_block_ = code_block;
    code_stride_ = (code_block + 7) & ~size_t{7};
    codes_per_batch_ = std::min(kCodeBatch, kCodeBytes / code_stride_);
    // The frame stack, where frames lie in chunks, is copied through the fields
    // that hold the current frame and the top of the stack, read together.
    const int32_t holder = layout.thread_cframe >= 0 ? layout.thread_cframe : layout.thread_frame;
    if (layout.chunk_data > 0 && layout.code_bytecode >= 0 && layout.thread_datastack_chunk >= 0 &&
        layout.thread_datastack_top >= 0) {
      const size_t start = static_cast<size_t>(
          std::min({layout.thread_datastack_chunk, layout.thread_datastack_top, holder}));
      const size_t end = std::max({end_of(layout.thread_datastack_chunk, p),
                                   end_of(layout.thread_datastack_top, p), end_of(holder, p)});
      if (end - start <= kMaxThreadBlock) {
        thread_block_start_ = start;
        thread_block_size_ = end - start;
        chunk_buffers_.reset(new uint8_t[kChunkBuffers * kChunkCopyBytes]);
      }
    }
  }
}

PythonFrameWalker::~PythonFrameWalker() = default;

uintptr_t PythonFrameWalker::current_thread_state() const {
  if (layout_.this_thread_state == nullptr) return 0;
  return reinterpret_cast<uintptr_t>(layout_.this_thread_state());
}

uintptr_t PythonFrameWalker::current_frame(uintptr_t thread_state) const {
  uintptr_t holder = thread_state;
  if (layout_.thread_cframe >= 0 &&
      (!read_pointer(thread_state + layout_.thread_cframe, &holder) || holder == 0)) {
    return 0;
  }
  uintptr_t frame = 0;
  if (!read_pointer(holder + layout_.thread_frame, &frame)) return 0;
  return frame;
}

uintptr_t PythonFrameWalker::current_frame_and_chunk(uintptr_t thread_state,
                                                    ChunkCopy* copy) const {
  uint8_t state[kMaxThreadBlock];
  if (!safe_read(state, thread_state + thread_block_start_, thread_block_size_)) return 0;
  const auto at = [&](int32_t offset) {
    return pointer_at(state, offset - static_cast<int32_t>(thread_block_start_));
  };
  uintptr_t frame = 0;
  SafeRange reads[2];
  size_t count = 0;
  const bool held = layout_.thread_cframe >= 0;
  if (held) {
    const uintptr_t holder = at(layout_.thread_cframe);
    if (holder == 0) return 0;
    reads[count++] = SafeRange{&frame, holder + layout_.thread_frame, sizeof(frame)};
  } else {
    frame = at(layout_.thread_frame);
  }
  // The used part of the chunk in use, its newest end where it is too long: a
  // list torn meanwhile (a chunk pushed or popped) gives bytes that are no frames,
  // which the walk treats as it treats any memory it reads.
  const uintptr_t chunk = at(layout_.thread_datastack_chunk);
  const uintptr_t top = at(layout_.thread_datastack_top);
  const uintptr_t data = chunk + static_cast<uintptr_t>(layout_.chunk_data);
  size_t size = 0;
  if (chunk != 0 && aligned(chunk) && aligned(top) && data > chunk && top > data) {
    size = static_cast<size_t>(std::min<uintptr_t>(top - data, kChunkCopyBytes));
    reads[count++] = SafeRange{copy->buffer(), top - size, size};
  }
  const size_t read = safe_read_ranges(reads, count);
  if (held && read == 0) return 0;
  if (size > 0 && read == count) {
    copy->low = top - size;
    copy->high = top;
  }
  return frame;
}

uint32_t PythonFrameWalker::cached_code_id(uintptr_t code, uintptr_t function,
                                           int32_t* first_traceable) const {
  if (function == 0) return 0;
  const uint32_t generation = generation_.load(std::memory_order_acquire);
  const size_t home = hash_code(code);
  for (size_t probe = 0; probe < kMaxProbes; ++probe) {
    const CodeSlot& slot = table_[(home + probe) & slot_mask_];
    const uintptr_t owner = slot.code.load(std::memory_order_acquire);
    // Codes take the first free slot from their home on: none lies past a free one.
    if (owner == 0) return 0;
    if (owner != code) continue;
    const uint32_t sequence = slot.sequence.load(std::memory_order_acquire);
    if (sequence & 1) return 0;
    const bool still_ours = slot.code.load(std::memory_order_acquire) == code;
    const uint32_t id = slot.id.load(std::memory_order_acquire);
    const bool known = slot.function.load(std::memory_order_acquire) == function &&
                       slot.generation.load(std::memory_order_acquire) == generation;
    const int32_t traceable = slot.first_traceable.load(std::memory_order_acquire);
    if (slot.sequence.load(std::memory_order_relaxed) != sequence || !still_ours || !known) {
      return 0;
    }
    *first_traceable = traceable;
    return id;
  }
  return 0;
}

size_t PythonFrameWalker::walk(uintptr_t thread_state, ZVKPythonFrame* out, size_t max, bool* cut) {
  if (cut != nullptr) *cut = false;
  if (thread_state == 0 || frame_block_ == 0) return 0;
  ChunkCopy copy(*this);
  uintptr_t frame = copy.buffer() != nullptr ? current_frame_and_chunk(thread_state, &copy)
                                             : current_frame(thread_state);
  if (frame == 0 || !aligned(frame)) return 0;
  const uintptr_t first_frame = frame;
  // Frames of one evaluation lie side by side below the newest one (3.11 on), so
  // one read of the memory below a frame often holds its callers too.
  FrameWindow window(frame_block_, layout_.code_bytecode < 0 ? 0 : kWindowBelow);
  if (copy.high > copy.low) window.use_copy(copy.buffer(), copy.low, copy.high);
  const uint8_t* block = window.frame(frame);
  if (block == nullptr) return 0;

  const bool has_owner = layout_.frame_owner >= 0;
  const bool shims = layout_.owner_cstack >= 0;
  const bool has_function = layout_.frame_function >= 0;
  uint16_t emitted_at[kMaxWalkSteps + 1];  // frames emitted before each step
  uintptr_t checkpoint = 0;  // Brent's cycle check: a frame met again ends the walk
  size_t power = 1;
  size_t since_checkpoint = 0;
  size_t steps = 0;
  size_t processed = 0;  // steps whose emitted_at is known
  bool looped = false;
  bool more = true;  // frames remain past the batch
  size_t n = 0;
  bool group_open = false;          // frames emitted since the last entry frame
  uint32_t pending_incomplete = 0;  // code id of a skipped frame that may stand for its group

  while (more) {
    // Gather a batch of frames, then read their code objects in one go.
    FrameFields batch[kCodeBatch];
    SafeRange code_reads[kCodeBatch];
    alignas(8) uint8_t codes[kCodeBytes];
    size_t gathered = 0;
    size_t code_count = 0;
    while (gathered < kCodeBatch && code_count < codes_per_batch_) {
      if (steps == kMaxWalkSteps) {
        if (cut != nullptr) *cut = true;
        more = false;
        break;
      }
      if (frame == checkpoint) {
        looped = true;
        more = false;
        break;
      }
      if (since_checkpoint == power) {
        checkpoint = frame;
        power *= 2;
        since_checkpoint = 0;
      }
      ++since_checkpoint;
      ++steps;

      FrameFields& fields = batch[gathered++];
      const uintptr_t previous = pointer_at(block, layout_.frame_previous);
      fields.owner = has_owner ? field<char>(block, layout_.frame_owner) : -1;
      fields.shim = shims && fields.owner == layout_.owner_cstack;
      fields.code = fields.shim ? 0 : pointer_at(block, layout_.frame_code);
      fields.instruction =
          layout_.code_bytecode < 0
              ? static_cast<uintptr_t>(field<int>(block, layout_.frame_instruction))
              : pointer_at(block, layout_.frame_instruction);
      fields.is_entry =
          layout_.frame_is_entry >= 0 && field<uint8_t>(block, layout_.frame_is_entry) != 0;
      fields.function = has_function && !fields.shim ? pointer_at(block, layout_.frame_function) : 0;
      fields.id = 0;
      if (!fields.shim) {
        if (fields.code == 0 || !aligned(fields.code)) {
          --gathered;
          --steps;
          more = false;
          break;
        }
        fields.id = cached_code_id(fields.code, fields.function, &fields.first_traceable);
      }
      if (!fields.shim && fields.id == 0) {
        // Recursion meets one code object many times: it is read once a batch.
        fields.code_read = 0;
        while (fields.code_read < code_count && code_reads[fields.code_read].src != fields.code) {
          ++fields.code_read;
        }
        if (fields.code_read == code_count) {
          code_reads[code_count] =
              SafeRange{codes + code_count * code_stride_, fields.code, code_block_};
          ++code_count;
        }
      }
      block = previous != 0 && aligned(previous) ? window.frame(previous) : nullptr;
      if (block == nullptr) {
        more = false;
        break;
      }
      frame = previous;
    }

    const size_t codes_read = safe_read_ranges(code_reads, code_count);
    for (size_t i = 0; i < gathered; ++i, ++processed) {
      const FrameFields& fields = batch[i];
      emitted_at[processed] = static_cast<uint16_t>(n);
      if (fields.shim) {
        // The shim an evaluation pushes: the frame before it, leaf side, was its first.
        if (group_open) {
          out[n - 1].instruction |= kPythonFrameEntry;
        } else if (pending_incomplete != 0) {
          if (n == max) {
            if (cut != nullptr) *cut = true;
            more = false;
            break;
          }
          out[n++] = ZVKPythonFrame{pending_incomplete, kPythonFrameEntry};
        }
        group_open = false;
        pending_incomplete = 0;
        continue;
      }
      const uint8_t* code_block = nullptr;
      if (fields.id == 0) {
        code_block = codes + fields.code_read * code_stride_;
        if (fields.code_read >= codes_read ||
            pointer_at(code_block, layout_.object_type) != layout_.code_type) {
          more = false;
          break;
        }
      }
      const auto id_of = [&] {
        return fields.id != 0 ? fields.id : code_id(fields.code, code_block, fields.function);
      };

      uint32_t instruction = 0;
      bool incomplete = false;
      if (layout_.code_bytecode < 0) {
        const int lasti = static_cast<int>(fields.instruction);
        instruction =
            lasti <= 0 ? 0u : std::min(2u * static_cast<uint32_t>(lasti), kPythonInstructionMask);
      } else {
        const intptr_t offset =
            static_cast<intptr_t>(fields.instruction - (fields.code + layout_.code_bytecode));
        if (layout_.code_first_traceable >= 0 && fields.owner != layout_.owner_generator) {
          const int first_traceable = fields.id != 0
                                          ? fields.first_traceable
                                          : field<int>(code_block, layout_.code_first_traceable);
          incomplete = offset < 2 * static_cast<intptr_t>(first_traceable);
        }
        instruction = offset <= 0 ? 0u
                                  : static_cast<uint32_t>(
                                        std::min<intptr_t>(offset, kPythonInstructionMask));
      }
      const bool entry = layout_.code_bytecode < 0 || fields.is_entry;

      if (incomplete) {
        // Not yet past its prologue: shown only where it alone stands for its
        // evaluation, so that every evaluation keeps a frame.
        if (entry && !group_open) {
          instruction = 0;
        } else {
          if (entry) out[n - 1].instruction |= kPythonFrameEntry;
          if (shims && !group_open) pending_incomplete = id_of();
          group_open = group_open && !entry;
          continue;
        }
      }

      if (n == max) {
        if (cut != nullptr) *cut = true;
        more = false;
        break;
      }
      const uint32_t id = id_of();
      out[n++] = ZVKPythonFrame{id, instruction | (entry ? kPythonFrameEntry : 0u)};
      group_open = !entry;
      pending_incomplete = 0;
    }
  }
  if (looped) {
    emitted_at[processed] = static_cast<uint16_t>(n);
    // The walk met its checkpoint again `since_checkpoint` steps after leaving it:
    // that is the loop's length.
    n = end_before_repeat(first_frame, since_checkpoint, steps, emitted_at, processed, n);
  }
  return n;
}

// The frames emitted before the first step that repeats an earlier one. Frames
// are read again, their links alone, with a pointer `loop` steps ahead of another:
// where both meet, the loop begins. A list that changed meanwhile keeps `count`.
size_t PythonFrameWalker::end_before_repeat(uintptr_t first_frame, size_t loop, size_t steps,
                                            const uint16_t* emitted_at, size_t processed,
                                            size_t count) const {
  uintptr_t behind = first_frame;
  uintptr_t ahead = first_frame;
  for (size_t i = 0; i < loop; ++i) {
    if (!read_pointer(ahead + layout_.frame_previous, &ahead) || ahead == 0) return count;
  }
  for (size_t first = 0; first + loop <= steps; ++first) {
    if (behind == ahead) return first + loop <= processed ? emitted_at[first + loop] : count;
    if (!safe_read2(&behind, behind + layout_.frame_previous, sizeof(behind), &ahead,
                    ahead + layout_.frame_previous, sizeof(ahead))) {
      return count;
    }
  }
  return count;
}

// One counter for the process, not one per walker: the sampler and the driver API
// tracing each walk with a walker of their own, and the ids of both name codes in
// the same capture.
namespace {
std::atomic<uint32_t> next_code_id{1};
}  // namespace

uint32_t PythonFrameWalker::fresh_id() {
  uint32_t id = next_code_id.fetch_add(1, std::memory_order_relaxed);
  while (id == 0) id = next_code_id.fetch_add(1, std::memory_order_relaxed);
  return id;
}

uint32_t PythonFrameWalker::code_id(uintptr_t code, const uint8_t* code_block,
                                    uintptr_t function) {
  const CodeKey key{pointer_at(code_block, layout_.code_qualname),
                    pointer_at(code_block, layout_.code_filename),
                    pointer_at(code_block, layout_.code_linetable),
                    field<int32_t>(code_block, layout_.code_first_line)};
  const CodeRun run{function, layout_.code_first_traceable >= 0
                                  ? field<int32_t>(code_block, layout_.code_first_traceable)
                                  : 0};
  const uint32_t generation = generation_.load(std::memory_order_acquire);
  const size_t home = hash_code(code);
  for (size_t probe = 0; probe < kMaxProbes; ++probe) {
    CodeSlot& slot = table_[(home + probe) & slot_mask_];
    uintptr_t owner = slot.code.load(std::memory_order_acquire);
    if (owner == 0 && slot.code.compare_exchange_strong(owner, code, std::memory_order_acq_rel)) {
      owner = code;
    }
    if (owner != code) continue;

    const uint32_t sequence = slot.sequence.load(std::memory_order_acquire);
    if (sequence & 1) return announce(key, 0).id;
    // Acquire loads of values the writer stored with release: a reader that sees
    // any of a writer's values sees its odd sequence on the second look.
    const bool still_ours = slot.code.load(std::memory_order_acquire) == code;
    const uint32_t id = slot.id.load(std::memory_order_acquire);
    const uint32_t cached_generation = slot.generation.load(std::memory_order_acquire);
    const bool same = slot.name.load(std::memory_order_acquire) == key.name &&
                      slot.filename.load(std::memory_order_acquire) == key.filename &&
                      slot.linetable.load(std::memory_order_acquire) == key.linetable &&
                      slot.first_line.load(std::memory_order_acquire) == key.first_line;
    if (slot.sequence.load(std::memory_order_relaxed) != sequence || !still_ours) {
      return announce(key, 0).id;
    }
    if (same && id != 0 && cached_generation == generation) {
      if (function != 0 && slot.function.load(std::memory_order_relaxed) != function) {
        remember_function(slot, sequence, function);
      }
      return id;
    }
    return fill(slot, sequence, code, key, run, same ? id : 0, generation);
  }
  // Every slot near its home holds another code: one of them gives its slot up,
  // and gets a new id when it comes back.
  CodeSlot& victim =
      table_[(home + evictions_.fetch_add(1, std::memory_order_relaxed) % kMaxProbes) & slot_mask_];
  const uint32_t sequence = victim.sequence.load(std::memory_order_acquire);
  if (sequence & 1) return announce(key, 0).id;
  return fill(victim, sequence, code, key, run, 0, generation);
}

uint32_t PythonFrameWalker::fill(CodeSlot& slot, uint32_t sequence, uintptr_t code,
                                 const CodeKey& key, const CodeRun& run, uint32_t id,
                                 uint32_t generation) {
  // Announced before it is published, so that no sample names an id whose code
  // record might come after it. A refused announcement keeps the id, unannounced,
  // for the next walk to try again.
  const Announced announced = announce(key, id);
  uint32_t expected = sequence;
  if (slot.sequence.compare_exchange_strong(expected, sequence + 1, std::memory_order_acq_rel)) {
    slot.code.store(code, std::memory_order_release);
    slot.id.store(announced.id, std::memory_order_release);
    slot.generation.store(announced.recorded ? generation : 0, std::memory_order_release);
    slot.name.store(key.name, std::memory_order_release);
    slot.filename.store(key.filename, std::memory_order_release);
    slot.linetable.store(key.linetable, std::memory_order_release);
    slot.first_line.store(key.first_line, std::memory_order_release);
    slot.function.store(run.function, std::memory_order_release);
    slot.first_traceable.store(run.first_traceable, std::memory_order_release);
    slot.sequence.store(sequence + 2, std::memory_order_release);
  }
  return announced.id;
}

void PythonFrameWalker::remember_function(CodeSlot& slot, uint32_t sequence, uintptr_t function) {
  uint32_t expected = sequence;
  if (slot.sequence.compare_exchange_strong(expected, sequence + 1, std::memory_order_acq_rel)) {
    slot.function.store(function, std::memory_order_release);
    slot.sequence.store(sequence + 2, std::memory_order_release);
  }
}

PythonFrameWalker::Announced PythonFrameWalker::announce(const CodeKey& key, uint32_t id) {
  if (id == 0) id = fresh_id();
  if (sink_ == nullptr) return Announced{id, true};
  int claimed = -1;
  for (int i = 0; i < kScratchBuffers && claimed < 0; ++i) {
    bool busy = false;
    if (scratch_busy_[i].compare_exchange_strong(busy, true, std::memory_order_acq_rel)) {
      claimed = i;
    }
  }
  // Every buffer taken by announcements under way on other threads.
  if (claimed < 0) return Announced{id, false};
  Scratch& scratch = scratch_[claimed];
  const size_t qualname_size = read_text(key.name, scratch.qualname);
  const size_t filename_size = read_text(key.filename, scratch.filename);
  const size_t room = kMaxCodePayload - sizeof(ZVKPythonCode) - qualname_size - filename_size;
  bool cut = false;
  const size_t linetable_size = read_linetable(key.linetable, room, scratch.linetable, &cut);

  ZVKPythonCode header{};
  header.code_id = id;
  header.first_line = key.first_line;
  header.python_version = layout_.python_version;
  header.qualname_size = static_cast<uint16_t>(qualname_size);
  header.filename_size = static_cast<uint16_t>(filename_size);
  header.linetable_size = static_cast<uint32_t>(linetable_size);
  header.flags = cut ? perfevent::PYTHON_CODE_LINETABLE_CUT : 0u;
  const bool recorded =
      sink_->on_new_code(header, scratch.qualname, scratch.filename, scratch.linetable);
  scratch_busy_[claimed].store(false, std::memory_order_release);
  return Announced{id, recorded};
}

size_t PythonFrameWalker::read_linetable(uintptr_t object, size_t room, uint8_t* buffer,
                                         bool* cut) const {
  uint8_t header[kMaxBytesHeader];
  const size_t header_size = end_of(std::max(layout_.object_type, layout_.varobject_size), 8);
  if (object == 0 || !aligned(object) || header_size > sizeof(header) ||
      !safe_read(header, object, header_size) ||
      (layout_.bytes_type != 0 && pointer_at(header, layout_.object_type) != layout_.bytes_type)) {
    *cut = true;
    return 0;
  }
  const ssize_t length = field<ssize_t>(header, layout_.varobject_size);
  if (length < 0) {
    *cut = true;
    return 0;
  }
  size_t size = static_cast<size_t>(length);
  if (size > room) {
    size = room;
    *cut = true;
  }
  if (!safe_read(buffer, object + layout_.bytes_data, size)) {
    *cut = true;
    return 0;
  }
  return size;
}

size_t PythonFrameWalker::read_text(uintptr_t object, char* out) const {
  out[0] = '\0';
  uint8_t header[kMaxUnicodeHeader];
  const size_t header_size = static_cast<size_t>(layout_.unicode_ascii_size);
  if (object == 0 || !aligned(object) || header_size > sizeof(header) ||
      !safe_read(header, object, header_size) ||
      (layout_.unicode_type != 0 &&
       pointer_at(header, layout_.object_type) != layout_.unicode_type)) {
    return 0;
  }
  const ssize_t length = field<ssize_t>(header, layout_.unicode_length);
  const uint32_t state = field<uint32_t>(header, layout_.unicode_state);
  // Strings whose characters live apart from the object (subclasses) go unnamed.
  if (length <= 0 || (state & layout_.unicode_compact_bit) == 0) return 0;
  const bool ascii = (state & layout_.unicode_ascii_bit) != 0;
  const uint32_t kind = (state >> layout_.unicode_kind_shift) & layout_.unicode_kind_mask;
  if (kind != 1 && kind != 2 && kind != 4) return 0;
  const uintptr_t data = object + static_cast<uintptr_t>(ascii ? layout_.unicode_ascii_size
                                                              : layout_.unicode_compact_size);
  const size_t characters = std::min(static_cast<size_t>(length), kMaxTextBytes);
  if (ascii) {
    if (!safe_read(out, data, characters)) return 0;
    out[characters] = '\0';
    return characters;
  }
  size_t size = 0;
  uint8_t chunk[kTextChunk * 4];
  for (size_t first = 0; first < characters; first += kTextChunk) {
    const size_t count = std::min(kTextChunk, characters - first);
    if (!safe_read(chunk, data + first * kind, count * kind)) break;
    for (size_t i = 0; i < count; ++i) {
      uint32_t c;
      if (kind == 1) {
        c = chunk[i];
      } else if (kind == 2) {
        uint16_t unit;
        memcpy(&unit, chunk + 2 * i, 2);
        c = unit;
      } else {
        memcpy(&c, chunk + 4 * i, 4);
      }
      const size_t put = put_utf8(c, out + size, kMaxTextBytes - size);
      if (put == 0) {
        out[size] = '\0';
        return size;
      }
      size += put;
    }
  }
  out[size] = '\0';
  return size;
}

size_t PythonFrameWalker::walk_settled(uintptr_t thread_state, ZVKPythonFrame* out, size_t max,
                                       bool* cut) {
  constexpr int kAttempts = 3;
  constexpr size_t kMaxSettled = 256;
  ZVKPythonFrame again[kMaxSettled];
  max = std::min(max, kMaxSettled);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const uintptr_t before = current_frame(thread_state);
    const size_t count = walk(thread_state, out, max, cut);
    bool cut_again = false;
    const size_t count_again = walk(thread_state, again, max, &cut_again);
    if (current_frame(thread_state) != before || count != count_again) continue;
    // Two walks alike but for the innermost frame's instruction, which moves as
    // the thread runs: a frame freed and reused meanwhile (a thread ending) would
    // have shown as a difference.
    bool alike = true;
    for (size_t i = 0; i < count && alike; ++i) {
      alike = out[i].code_id == again[i].code_id &&
              (i == 0 || out[i].instruction == again[i].instruction);
    }
    if (alike) return count;
  }
  if (cut != nullptr) *cut = false;
  return 0;
}

int32_t PythonFrameWalker::pthread_thread_id(uintptr_t state) const {
  uintptr_t descriptor = 0;
  int32_t tid = -1;
  if (!read_pointer(state + layout_.thread_pthread, &descriptor) || descriptor == 0 ||
      !safe_read(&tid, descriptor + static_cast<uintptr_t>(layout_.pthread_tid), sizeof(tid)) ||
      tid <= 0) {
    return -1;
  }
  return tid;
}

size_t PythonFrameWalker::list_threads(uintptr_t* states, int32_t* tids, size_t max) const {
  if (layout_.interpreter == 0 || layout_.interpreter_threads_head < 0 || layout_.thread_next < 0) {
    return 0;
  }
  uintptr_t state = 0;
  if (!read_pointer(layout_.interpreter + layout_.interpreter_threads_head, &state)) return 0;
  size_t n = 0;
  while (state != 0 && aligned(state) && n < max) {
    // A list torn into a loop ends where it comes back.
    if (std::find(states, states + n, state) != states + n) break;
    int32_t tid = -1;
    if (layout_.thread_native_id >= 0) {
      unsigned long native_id = 0;
      if (!safe_read(&native_id, state + layout_.thread_native_id, sizeof(native_id))) break;
      tid = static_cast<int32_t>(native_id);
    } else if (layout_.thread_pthread >= 0 && layout_.pthread_tid >= 0) {
      tid = pthread_thread_id(state);
    }
    uintptr_t next = 0;
    if (!read_pointer(state + layout_.thread_next, &next)) break;
    states[n] = state;
    tids[n] = tid;
    ++n;
    state = next;
  }
  return n;
}

void PythonFrameWalker::forget_codes() { generation_.fetch_add(1, std::memory_order_acq_rel); }

}  // namespace zorvek
