// The Python frame walker over hand-built interpreter memory: frames, code objects
// and strings laid out as a synthetic layout says, in the three frame models
// (frame objects, frames that mark their entry, shim frames), whole and torn.

#include "zorv/cpu/pyframes.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zorv/cpu/signalring.h"

namespace zorvek {
namespace {

using perfevent::kPythonFrameEntry;
using perfevent::kPythonInstructionMask;
using perfevent::ZVKPythonCode;
using perfevent::ZVKPythonFrame;

// Stand-ins for the type objects: only their addresses matter.
char g_code_type;
char g_unicode_type;
char g_bytes_type;
char g_other_type;

uintptr_t address_of(const void* p) { return reinterpret_cast<uintptr_t>(p); }

struct FakeString {  // header of a compact string; characters follow
  uintptr_t refcount;
  uintptr_t type;
  intptr_t length;
  intptr_t hash;
  uint32_t state;
  uint32_t padding;
};
struct FakeCompactString {
  FakeString base;
  intptr_t utf8_length;
  uintptr_t utf8;
};
constexpr uint32_t kKindShift = 2;
constexpr uint32_t kCompactBit = 1u << 5;
constexpr uint32_t kAsciiBit = 1u << 6;

struct FakeBytes {
  uintptr_t refcount;
  uintptr_t type;
  intptr_t size;
  intptr_t hash;
  // data follows
};

struct FakeCode {
  uintptr_t refcount;
  uintptr_t type;
  uintptr_t qualname;
  uintptr_t filename;
  uintptr_t linetable;
  int32_t first_line;
  int32_t first_traceable;
  uint8_t bytecode[64];
};

struct FakeFrame {
  uintptr_t code;
  uintptr_t previous;
  uintptr_t instruction;  // a pointer into the bytecode, or an int index (frame objects)
  uintptr_t function;     // the function object the frame runs
  char owner;
  bool is_entry;
};

struct FakeThread {
  uintptr_t next;
  uintptr_t cframe;
  uintptr_t frame;
  unsigned long native_id;
  uintptr_t pthread;  // 3.10: the thread's pthread_t, a FakeDescriptor's address
  uintptr_t datastack_chunk;  // a FakeChunk, 0 for none
  uintptr_t datastack_top;    // the end of the chunk's used part
};

// A chunk of the frame stack: frames follow the header side by side.
struct FakeChunk {
  uintptr_t previous;
  size_t size;
  size_t top;
};

// The C library's thread descriptor, where only the thread id matters.
struct FakeDescriptor {
  char other[20];
  int32_t tid;
};

struct FakeCFrame {
  uintptr_t current_frame;
};

struct FakeInterpreter {
  uintptr_t threads_head;
};

constexpr char kThread = 0;
constexpr char kGenerator = 1;
constexpr char kCStack = 3;

enum class Model { kFrameObjects, kEntryFlags, kShims };

thread_local FakeThread* t_thread_state = nullptr;
void* fake_this_thread_state() { return t_thread_state; }

PythonLayout make_layout(Model model, const FakeInterpreter* interpreter) {
  PythonLayout layout{};
  layout.python_version = model == Model::kFrameObjects ? 0x030a0df0u
                          : model == Model::kEntryFlags ? 0x030b07f0u
                                                        : 0x030c01f0u;
  layout.object_type = offsetof(FakeCode, type);
  layout.varobject_size = offsetof(FakeBytes, size);
  layout.bytes_data = sizeof(FakeBytes);
  layout.code_type = address_of(&g_code_type);
  layout.unicode_type = address_of(&g_unicode_type);
  layout.bytes_type = address_of(&g_bytes_type);
  layout.thread_frame = model == Model::kFrameObjects ? offsetof(FakeThread, frame)
                                                      : offsetof(FakeCFrame, current_frame);
  layout.thread_cframe = model == Model::kFrameObjects ? -1 : offsetof(FakeThread, cframe);
  layout.thread_next = offsetof(FakeThread, next);
  layout.thread_native_id = model == Model::kFrameObjects ? -1 : offsetof(FakeThread, native_id);
  layout.thread_pthread = model == Model::kFrameObjects ? offsetof(FakeThread, pthread) : -1;
  layout.pthread_tid = model == Model::kFrameObjects ? offsetof(FakeDescriptor, tid) : -1;
  layout.interpreter = address_of(interpreter);
  layout.interpreter_threads_head = offsetof(FakeInterpreter, threads_head);
  layout.this_thread_state = fake_this_thread_state;
  layout.frame_previous = offsetof(FakeFrame, previous);
  layout.frame_code = offsetof(FakeFrame, code);
  layout.frame_instruction = offsetof(FakeFrame, instruction);
  layout.frame_owner = model == Model::kFrameObjects ? -1 : offsetof(FakeFrame, owner);
  layout.frame_is_entry = model == Model::kEntryFlags ? offsetof(FakeFrame, is_entry) : -1;
  layout.frame_function = model == Model::kFrameObjects ? -1 : offsetof(FakeFrame, function);
  layout.thread_datastack_chunk =
      model == Model::kFrameObjects ? -1 : offsetof(FakeThread, datastack_chunk);
  layout.thread_datastack_top =
      model == Model::kFrameObjects ? -1 : offsetof(FakeThread, datastack_top);
  layout.chunk_data = model == Model::kFrameObjects ? -1 : sizeof(FakeChunk);
  layout.owner_generator = model == Model::kFrameObjects ? -1 : kGenerator;
  layout.owner_cstack = model == Model::kShims ? kCStack : -1;
  layout.code_qualname = offsetof(FakeCode, qualname);
  layout.code_filename = offsetof(FakeCode, filename);
  layout.code_first_line = offsetof(FakeCode, first_line);
  layout.code_linetable = offsetof(FakeCode, linetable);
  layout.code_bytecode = model == Model::kFrameObjects ? -1 : offsetof(FakeCode, bytecode);
  layout.code_first_traceable =
      model == Model::kFrameObjects ? -1 : offsetof(FakeCode, first_traceable);
  layout.unicode_length = offsetof(FakeString, length);
  layout.unicode_state = offsetof(FakeString, state);
  layout.unicode_ascii_size = sizeof(FakeString);
  layout.unicode_compact_size = sizeof(FakeCompactString);
  layout.unicode_kind_shift = kKindShift;
  layout.unicode_kind_mask = 7;
  layout.unicode_compact_bit = kCompactBit;
  layout.unicode_ascii_bit = kAsciiBit;
  return layout;
}

// Owns the fake interpreter memory of one test. Objects never move.
class FakeMemory {
 public:
  uintptr_t ascii(const std::string& text) {
    uint64_t* block = allocate(sizeof(FakeString) + text.size() + 1);
    FakeString* header = reinterpret_cast<FakeString*>(block);
    *header = FakeString{1, address_of(&g_unicode_type), static_cast<intptr_t>(text.size()), -1,
                         kCompactBit | kAsciiBit | (1u << kKindShift), 0};
    memcpy(header + 1, text.c_str(), text.size() + 1);
    return address_of(block);
  }
  // A compact string of `kind` bytes per character.
  uintptr_t wide(const std::vector<uint32_t>& characters, uint32_t kind) {
    uint64_t* block = allocate(sizeof(FakeCompactString) + (characters.size() + 1) * kind);
    FakeCompactString* header = reinterpret_cast<FakeCompactString*>(block);
    header->base = FakeString{1, address_of(&g_unicode_type),
                              static_cast<intptr_t>(characters.size()), -1,
                              kCompactBit | (kind << kKindShift), 0};
    uint8_t* data = reinterpret_cast<uint8_t*>(header + 1);
    for (size_t i = 0; i < characters.size(); ++i) {
      if (kind == 1) data[i] = static_cast<uint8_t>(characters[i]);
      if (kind == 2) {
        const uint16_t unit = static_cast<uint16_t>(characters[i]);
        memcpy(data + 2 * i, &unit, 2);
      }
      if (kind == 4) memcpy(data + 4 * i, &characters[i], 4);
    }
    return address_of(block);
  }
  uintptr_t bytes(const std::vector<uint8_t>& content) {
    uint64_t* block = allocate(sizeof(FakeBytes) + content.size() + 1);
    FakeBytes* header = reinterpret_cast<FakeBytes*>(block);
    *header = FakeBytes{1, address_of(&g_bytes_type), static_cast<intptr_t>(content.size()), -1};
    if (!content.empty()) memcpy(header + 1, content.data(), content.size());
    return address_of(block);
  }
  FakeCode* code(const std::string& qualname, const std::string& filename, int first_line,
                 int first_traceable = 0) {
    FakeCode* code = reinterpret_cast<FakeCode*>(allocate(sizeof(FakeCode)));
    code->refcount = 1;
    code->type = address_of(&g_code_type);
    code->qualname = ascii(qualname);
    code->filename = ascii(filename);
    code->linetable = bytes({static_cast<uint8_t>(first_line), 1, 2, 3});
    code->first_line = first_line;
    code->first_traceable = first_traceable;
    functions_[code] = function();
    return code;
  }
  // A function object, to run a code: only its address matters.
  uintptr_t function() { return address_of(allocate(16)); }
  uintptr_t function_of(const FakeCode* code) {
    return functions_.count(code) ? functions_[code] : 0;
  }
  // A frame at `instruction` bytes into the code (an index in code units for frame objects).
  FakeFrame* frame(Model model, FakeCode* code, uint32_t instruction, FakeFrame* previous,
                   char owner = kThread, bool is_entry = false) {
    FakeFrame* frame = reinterpret_cast<FakeFrame*>(allocate(sizeof(FakeFrame)));
    frame->code = address_of(code);
    frame->previous = address_of(previous);
    frame->instruction = model == Model::kFrameObjects
                             ? instruction / 2
                             : address_of(code->bytecode) + instruction;
    frame->function = function_of(code);
    frame->owner = owner;
    frame->is_entry = is_entry;
    return frame;
  }
  FakeFrame* shim(FakeFrame* previous) {
    FakeFrame* frame = reinterpret_cast<FakeFrame*>(allocate(sizeof(FakeFrame)));
    frame->previous = address_of(previous);
    frame->owner = kCStack;
    return frame;
  }
  FakeThread* thread(Model model, FakeFrame* top, unsigned long native_id = 0) {
    FakeThread* thread = reinterpret_cast<FakeThread*>(allocate(sizeof(FakeThread)));
    FakeCFrame* cframe = reinterpret_cast<FakeCFrame*>(allocate(sizeof(FakeCFrame)));
    cframe->current_frame = address_of(top);
    thread->cframe = address_of(cframe);
    thread->frame = model == Model::kFrameObjects ? address_of(top) : 0;
    thread->native_id = native_id;
    return thread;
  }

 private:
  uint64_t* allocate(size_t bytes) {
    blocks_.emplace_back((bytes + 7) / 8 + 1, 0);
    return blocks_.back().data();
  }
  std::deque<std::vector<uint64_t>> blocks_;
  std::map<const FakeCode*, uintptr_t> functions_;
};

// Keeps what the walker announced. Locked: the concurrent test announces from
// several threads, none of them in a signal handler.
class RecordingSink final : public PythonCodeSink {
 public:
  struct Code {
    std::string qualname;
    std::string filename;
    int32_t first_line;
    uint32_t python_version;
    std::vector<uint8_t> linetable;
    uint32_t flags;
    int announcements;
  };
  bool on_new_code(const ZVKPythonCode& header, const char* qualname, const char* filename,
                   const uint8_t* linetable) override {
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_NE(0u, header.code_id);
    EXPECT_EQ(strlen(qualname), header.qualname_size);
    EXPECT_EQ(strlen(filename), header.filename_size);
    EXPECT_LE(perfevent::python_code_payload_size(header.qualname_size, header.filename_size,
                                                  header.linetable_size),
              PythonFrameWalker::kMaxCodePayload);
    Code& code = codes_[header.code_id];
    code = Code{qualname, filename, header.first_line, header.python_version,
                std::vector<uint8_t>(linetable, linetable + header.linetable_size), header.flags,
                code.announcements + 1};
    ++total_;
    return true;
  }
  Code code(uint32_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    return codes_.count(id) ? codes_[id] : Code{};
  }
  int total() {
    std::lock_guard<std::mutex> lock(mutex_);
    return total_;
  }

 private:
  std::mutex mutex_;
  std::map<uint32_t, Code> codes_;
  int total_ = 0;
};

struct Walked {
  std::string name;
  uint32_t offset;
  bool entry;
  uint32_t id;
  bool operator==(const Walked& other) const {
    return name == other.name && offset == other.offset && entry == other.entry;
  }
};

std::ostream& operator<<(std::ostream& out, const Walked& frame) {
  return out << frame.name << "@" << frame.offset << (frame.entry ? "(entry)" : "");
}

std::vector<Walked> walk(PythonFrameWalker& walker, RecordingSink& sink, const FakeThread* thread,
                         size_t max = 64, bool* cut_out = nullptr) {
  std::vector<ZVKPythonFrame> frames(max + 1);
  bool cut = false;
  const size_t count = walker.walk(address_of(thread), frames.data(), max, &cut);
  if (cut_out != nullptr) *cut_out = cut;
  std::vector<Walked> result;
  for (size_t i = 0; i < count; ++i) {
    result.push_back(Walked{sink.code(frames[i].code_id).qualname,
                            frames[i].instruction & kPythonInstructionMask,
                            (frames[i].instruction & kPythonFrameEntry) != 0, frames[i].code_id});
  }
  return result;
}

class PyFramesTest : public ::testing::Test {
 protected:
  FakeMemory memory_;
  FakeInterpreter interpreter_{};
  RecordingSink sink_;
};

TEST_F(PyFramesTest, ShimFramesMarkTheFrameBeforeThemAsEntry) {
  const Model model = Model::kShims;
  FakeCode* main = memory_.code("main", "/app/train.py", 1);
  FakeCode* step = memory_.code("Trainer.step", "/app/train.py", 10);
  FakeCode* alpha = memory_.code("alpha", "/app/model.py", 20);
  FakeCode* spin = memory_.code("spin", "/app/model.py", 30);
  // main | shim | step, alpha | shim | spin, leaf last.
  FakeFrame* root_shim = memory_.shim(nullptr);
  FakeFrame* f_main = memory_.frame(model, main, 12, root_shim);
  FakeFrame* mid_shim = memory_.shim(f_main);
  FakeFrame* f_step = memory_.frame(model, step, 4, mid_shim);
  FakeFrame* f_alpha = memory_.frame(model, alpha, 8, f_step);
  FakeFrame* top_shim = memory_.shim(f_alpha);
  FakeFrame* f_spin = memory_.frame(model, spin, 40, top_shim);
  FakeThread* thread = memory_.thread(model, f_spin);

  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);
  const std::vector<Walked> expected = {
      {"spin", 40, true, 0}, {"alpha", 8, false, 0}, {"Trainer.step", 4, true, 0},
      {"main", 12, true, 0}};
  EXPECT_EQ(expected, walk(walker, sink_, thread));
  const std::vector<Walked> walked = walk(walker, sink_, thread);
  const RecordingSink::Code code = sink_.code(walked[1].id);
  EXPECT_EQ("alpha", code.qualname);
  EXPECT_EQ("/app/model.py", code.filename);
  EXPECT_EQ(20, code.first_line);
  EXPECT_EQ(0x030c01f0u, code.python_version);
  EXPECT_EQ((std::vector<uint8_t>{20, 1, 2, 3}), code.linetable);
  EXPECT_EQ(0u, code.flags);
}

// Frames pushed side by side in one chunk, the oldest at the start of a mapping
// below which nothing can be read, as an interpreter's frame stack lies.
TEST_F(PyFramesTest, FramesSideBySideInAChunk) {
  const Model model = Model::kShims;
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  char* mapping = static_cast<char*>(
      mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, mapping);
  mprotect(mapping, page, PROT_NONE);
  FakeFrame* chunk = reinterpret_cast<FakeFrame*>(mapping + page);
  constexpr int kDepth = 100;  // more than one page of frames
  std::vector<FakeCode*> codes;
  FakeFrame* previous = nullptr;
  for (int i = 0; i < kDepth; ++i) {
    codes.push_back(memory_.code("f" + std::to_string(i), "chunk.py", i + 1));
    FakeFrame* frame = memory_.frame(model, codes.back(), 2 * i, previous);
    chunk[i] = *frame;
    previous = &chunk[i];
  }
  FakeThread* thread = memory_.thread(model, &chunk[kDepth - 1]);
  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);
  const std::vector<Walked> walked = walk(walker, sink_, thread, 200);
  ASSERT_EQ(static_cast<size_t>(kDepth), walked.size());
  for (int i = 0; i < kDepth; ++i) {
    EXPECT_EQ("f" + std::to_string(kDepth - 1 - i), walked[i].name);
    EXPECT_EQ(static_cast<uint32_t>(2 * (kDepth - 1 - i)), walked[i].offset);
  }
  // A torn link in the middle of the chunk ends the stack there.
  chunk[50].previous = address_of(mapping);
  EXPECT_EQ(50u, walk(walker, sink_, thread, 200).size());
  munmap(mapping, 3 * page);
}

TEST_F(PyFramesTest, ATopShimWithoutFramesAndGeneratorsBeforeTheirFirstInstruction) {
  const Model model = Model::kShims;
  FakeCode* outer = memory_.code("outer", "a.py", 1);
  FakeCode* gen = memory_.code("numbers", "a.py", 5, 4);
  FakeFrame* root_shim = memory_.shim(nullptr);
  FakeFrame* f_outer = memory_.frame(model, outer, 6, root_shim);
  // A generator frame stands before its first traceable instruction when resumed
  // at its start; it is no incomplete frame.
  FakeFrame* f_gen = memory_.frame(model, gen, 2, f_outer, kGenerator);
  FakeFrame* top_shim = memory_.shim(f_gen);
  FakeThread* thread = memory_.thread(model, top_shim);

  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);
  const std::vector<Walked> expected = {{"numbers", 2, false, 0}, {"outer", 6, true, 0}};
  EXPECT_EQ(expected, walk(walker, sink_, thread));
}

TEST_F(PyFramesTest, IncompleteFramesAreSkippedUnlessTheyAloneStandForTheirEvaluation) {
  const Model model = Model::kShims;
  FakeCode* outer = memory_.code("outer", "a.py", 1, 2);
  FakeCode* inner = memory_.code("inner", "a.py", 5, 3);
  FakeCode* leaf = memory_.code("leaf", "a.py", 9, 3);
  FakeFrame* root_shim = memory_.shim(nullptr);
  FakeFrame* f_outer = memory_.frame(model, outer, 10, root_shim);
  // inner was just called inline (prologue), leaf just entered through a new evaluation.
  FakeFrame* f_inner = memory_.frame(model, inner, 2, f_outer);
  FakeFrame* mid_shim = memory_.shim(f_inner);
  FakeFrame* f_leaf = memory_.frame(model, leaf, 0, mid_shim);
  FakeThread* thread = memory_.thread(model, f_leaf);

  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);
  const std::vector<Walked> expected = {{"leaf", 0, true, 0}, {"outer", 10, true, 0}};
  EXPECT_EQ(expected, walk(walker, sink_, thread));
}

TEST_F(PyFramesTest, FramesThatMarkTheirEntry) {
  const Model model = Model::kEntryFlags;
  FakeCode* main = memory_.code("main", "m.py", 1);
  FakeCode* work = memory_.code("work", "m.py", 3, 2);
  FakeCode* late = memory_.code("late", "m.py", 7, 2);
  FakeCode* fresh = memory_.code("fresh", "m.py", 9, 2);
  FakeFrame* f_main = memory_.frame(model, main, 14, nullptr, kThread, true);
  FakeFrame* f_work = memory_.frame(model, work, 6, f_main, kThread, true);
  // Incomplete: an inline call past the group's first frame is skipped; an entry
  // frame of an evaluation with no other frame stays.
  FakeFrame* f_late = memory_.frame(model, late, 0, f_work);
  FakeFrame* f_fresh = memory_.frame(model, fresh, 2, f_late, kThread, true);
  FakeThread* thread = memory_.thread(model, f_fresh);

  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);
  const std::vector<Walked> expected = {
      {"fresh", 0, true, 0}, {"work", 6, true, 0}, {"main", 14, true, 0}};
  EXPECT_EQ(expected, walk(walker, sink_, thread));

  // An incomplete entry frame behind frames of its own evaluation passes its mark on.
  FakeFrame* f_entry = memory_.frame(model, late, 0, f_main, kThread, true);
  FakeFrame* f_inline = memory_.frame(model, work, 8, f_entry);
  FakeThread* second = memory_.thread(model, f_inline);
  const std::vector<Walked> expected_second = {{"work", 8, true, 0}, {"main", 14, true, 0}};
  EXPECT_EQ(expected_second, walk(walker, sink_, second));
}

TEST_F(PyFramesTest, FrameObjectsAreEachAnEntryWithIndexedInstructions) {
  const Model model = Model::kFrameObjects;
  FakeCode* main = memory_.code("<module>", "s.py", 1);
  FakeCode* run = memory_.code("run", "s.py", 4);
  FakeFrame* f_main = memory_.frame(model, main, 30, nullptr);
  FakeFrame* f_run = memory_.frame(model, run, 8, f_main);
  FakeFrame* f_new = memory_.frame(model, run, 0, f_run);
  f_new->instruction = static_cast<uintptr_t>(-1);  // f_lasti before the first instruction
  FakeThread* thread = memory_.thread(model, f_new);

  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);
  const std::vector<Walked> expected = {
      {"run", 0, true, 0}, {"run", 8, true, 0}, {"<module>", 30, true, 0}};
  const std::vector<Walked> walked = walk(walker, sink_, thread);
  EXPECT_EQ(expected, walked);
  EXPECT_EQ(walked[0].id, walked[1].id);
}

TEST_F(PyFramesTest, NoThreadStateOrNoFrameGivesNoFrames) {
  PythonFrameWalker walker(make_layout(Model::kShims, &interpreter_), &sink_);
  ZVKPythonFrame frames[4];
  bool cut = true;
  EXPECT_EQ(0u, walker.walk(0, frames, 4, &cut));
  EXPECT_FALSE(cut);
  EXPECT_EQ(0u, walker.walk(address_of(memory_.thread(Model::kShims, nullptr)), frames, 4, &cut));
  EXPECT_EQ(0, sink_.total());
}

TEST_F(PyFramesTest, AFullOutputKeepsTheLeafSideAndSaysItWasCut) {
  const Model model = Model::kShims;
  FakeCode* code = memory_.code("recurse", "r.py", 1);
  FakeFrame* frame = memory_.shim(nullptr);
  for (int i = 0; i < 10; ++i) frame = memory_.frame(model, code, 2 * i, frame);
  FakeThread* thread = memory_.thread(model, frame);
  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);
  bool cut = false;
  const std::vector<Walked> walked = walk(walker, sink_, thread, 3, &cut);
  ASSERT_EQ(3u, walked.size());
  EXPECT_TRUE(cut);
  EXPECT_EQ(18u, walked[0].offset);
  EXPECT_EQ(14u, walked[2].offset);
  EXPECT_EQ(10u, walk(walker, sink_, thread, 10, &cut).size());
  EXPECT_FALSE(cut);
}

class TornListTest : public PyFramesTest {
 protected:
  void SetUp() override {
    const Model model = Model::kShims;
    a_ = memory_.code("a", "t.py", 1);
    b_ = memory_.code("b", "t.py", 2);
    c_ = memory_.code("c", "t.py", 3);
    d_ = memory_.code("d", "t.py", 4);
    f_d_ = memory_.frame(model, d_, 8, nullptr);
    f_c_ = memory_.frame(model, c_, 6, f_d_);
    f_b_ = memory_.frame(model, b_, 4, f_c_);
    f_a_ = memory_.frame(model, a_, 2, f_b_);
    thread_ = memory_.thread(model, f_a_);
    page_size_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    unreadable_ = mmap(nullptr, page_size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  }
  void TearDown() override { munmap(unreadable_, page_size_); }

  std::vector<std::string> names() {
    std::vector<std::string> result;
    for (const Walked& frame : walk(walker_, sink_, thread_)) result.push_back(frame.name);
    return result;
  }

  PythonFrameWalker walker_{make_layout(Model::kShims, &interpreter_), &sink_};
  FakeCode *a_, *b_, *c_, *d_;
  FakeFrame *f_a_, *f_b_, *f_c_, *f_d_;
  FakeThread* thread_;
  size_t page_size_;
  void* unreadable_;
};

using Names = std::vector<std::string>;

TEST_F(TornListTest, WholeList) { EXPECT_EQ((Names{"a", "b", "c", "d"}), names()); }

TEST_F(TornListTest, ALoopEndsTheStackBeforeItsFirstRepeat) {
  f_a_->previous = address_of(f_a_);
  EXPECT_EQ((Names{"a"}), names());
  f_a_->previous = address_of(f_b_);
  f_b_->previous = address_of(f_a_);
  EXPECT_EQ((Names{"a", "b"}), names());
  f_b_->previous = address_of(f_c_);
  f_d_->previous = address_of(f_b_);
  EXPECT_EQ((Names{"a", "b", "c", "d"}), names());
}

TEST_F(TornListTest, AGarbageFramePointerEndsTheStack) {
  f_b_->previous = 0x1235;  // misaligned
  EXPECT_EQ((Names{"a", "b"}), names());
  f_b_->previous = 0x10;  // never mapped
  EXPECT_EQ((Names{"a", "b"}), names());
  f_b_->previous = address_of(unreadable_);
  EXPECT_EQ((Names{"a", "b"}), names());
}

TEST_F(TornListTest, AFramePointerAtTheEndOfTheAddressSpaceEndsTheStack) {
  // Frames without owner and entry fields: read whole, they end on a word, so a
  // frame at the very end of the address space reaches exactly to its wrap.
  PythonLayout layout = make_layout(Model::kEntryFlags, &interpreter_);
  layout.frame_owner = -1;
  layout.frame_is_entry = -1;
  layout.owner_generator = -1;
  ASSERT_EQ(32u, offsetof(FakeFrame, owner));
  PythonFrameWalker walker(layout, &sink_);
  for (uintptr_t end : {uintptr_t{32}, uintptr_t{8}}) {
    f_b_->previous = ~uintptr_t{0} - end + 1;
    const std::vector<Walked> walked = walk(walker, sink_, thread_);
    ASSERT_EQ(2u, walked.size());
    EXPECT_EQ("b", walked[1].name);
  }
  // Nothing readable, no chunk copied: the first frame itself.
  FakeThread* thread = memory_.thread(Model::kEntryFlags, nullptr);
  reinterpret_cast<FakeCFrame*>(thread->cframe)->current_frame = ~uintptr_t{0} - 31;
  EXPECT_TRUE(walk(walker, sink_, thread).empty());
}

TEST_F(TornListTest, AnUnreadableOrForeignCodeEndsTheStack) {
  f_c_->code = address_of(unreadable_);
  EXPECT_EQ((Names{"a", "b"}), names());
  f_c_->code = 0;
  EXPECT_EQ((Names{"a", "b"}), names());
  f_c_->code = address_of(c_);
  c_->type = address_of(&g_other_type);
  EXPECT_EQ((Names{"a", "b"}), names());
}

TEST_F(TornListTest, AnUnreadableThreadStateOrFrameGivesNoFrames) {
  FakeThread* thread = memory_.thread(Model::kShims, nullptr);
  reinterpret_cast<FakeCFrame*>(thread->cframe)->current_frame = address_of(unreadable_);
  ZVKPythonFrame frames[4];
  EXPECT_EQ(0u, walker_.walk(address_of(thread), frames, 4, nullptr));
  thread->cframe = address_of(unreadable_);
  EXPECT_EQ(0u, walker_.walk(address_of(thread), frames, 4, nullptr));
  EXPECT_EQ(0u, walker_.walk(address_of(unreadable_), frames, 4, nullptr));
}

TEST_F(TornListTest, GarbageStringsAndTablesStillNameTheCode) {
  b_->qualname = address_of(unreadable_);
  b_->linetable = address_of(unreadable_);
  c_->filename = address_of(f_c_);  // not a string
  const std::vector<Walked> walked = walk(walker_, sink_, thread_);
  ASSERT_EQ(4u, walked.size());
  const RecordingSink::Code b = sink_.code(walked[1].id);
  EXPECT_EQ("", b.qualname);
  EXPECT_EQ("t.py", b.filename);
  EXPECT_TRUE(b.linetable.empty());
  EXPECT_EQ(perfevent::PYTHON_CODE_LINETABLE_CUT, b.flags);
  const RecordingSink::Code c = sink_.code(walked[2].id);
  EXPECT_EQ("c", c.qualname);
  EXPECT_EQ("", c.filename);
}

TEST_F(PyFramesTest, CodesAreAnnouncedOnceAndAgainAfterForgetting) {
  const Model model = Model::kShims;
  FakeCode* a = memory_.code("a", "c.py", 1);
  FakeCode* b = memory_.code("b", "c.py", 2);
  FakeFrame* f_b = memory_.frame(model, b, 0, nullptr);
  FakeFrame* f_a2 = memory_.frame(model, a, 4, f_b);
  FakeFrame* f_a = memory_.frame(model, a, 2, f_a2);
  FakeThread* thread = memory_.thread(model, f_a);
  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);

  const std::vector<Walked> first = walk(walker, sink_, thread);
  ASSERT_EQ(3u, first.size());
  EXPECT_EQ(first[0].id, first[1].id);
  EXPECT_NE(first[0].id, first[2].id);
  EXPECT_EQ(2, sink_.total());
  for (int i = 0; i < 5; ++i) {
    const std::vector<Walked> again = walk(walker, sink_, thread);
    EXPECT_EQ(first[0].id, again[0].id);
    EXPECT_EQ(first[2].id, again[2].id);
  }
  EXPECT_EQ(2, sink_.total());

  walker.forget_codes();
  const std::vector<Walked> after = walk(walker, sink_, thread);
  EXPECT_EQ(4, sink_.total());
  EXPECT_EQ(first[0].id, after[0].id);
  EXPECT_EQ(first[2].id, after[2].id);
  EXPECT_EQ(2, sink_.code(after[0].id).announcements);
  EXPECT_EQ(2, sink_.code(after[2].id).announcements);
  walk(walker, sink_, thread);
  EXPECT_EQ(4, sink_.total());
}

TEST_F(PyFramesTest, AReusedCodeAddressWithOtherStringsGetsANewId) {
  const Model model = Model::kShims;
  FakeCode* code = memory_.code("old", "x.py", 1);
  FakeFrame* frame = memory_.frame(model, code, 0, nullptr);
  FakeThread* thread = memory_.thread(model, frame);
  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);
  const uint32_t old_id = walk(walker, sink_, thread)[0].id;

  // A code object freed and another made at its address: the function that runs
  // it is another too, since a function holds its code.
  code->qualname = memory_.ascii("new");
  frame->function = memory_.function();
  const std::vector<Walked> renamed = walk(walker, sink_, thread);
  EXPECT_NE(old_id, renamed[0].id);
  EXPECT_EQ("new", renamed[0].name);
  EXPECT_EQ(renamed[0].id, walk(walker, sink_, thread)[0].id);

  code->first_line = 40;
  frame->function = memory_.function();
  const std::vector<Walked> moved = walk(walker, sink_, thread);
  EXPECT_NE(renamed[0].id, moved[0].id);
  EXPECT_EQ(40, sink_.code(moved[0].id).first_line);
  EXPECT_EQ(3, sink_.total());
}

TEST_F(PyFramesTest, ACodeRunByAKnownFunctionIsNamedWithoutReadingIt) {
  const Model model = Model::kShims;
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* mapping =
      mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, mapping);
  FakeCode* outer = memory_.code("outer", "k.py", 1);
  FakeCode* inner = static_cast<FakeCode*>(mapping);
  *inner = *memory_.code("inner", "k.py", 5, 2);
  FakeFrame* f_outer = memory_.frame(model, outer, 2, memory_.shim(nullptr));
  FakeFrame* f_inner = memory_.frame(model, inner, 6, f_outer);
  f_inner->function = memory_.function();
  FakeThread* thread = memory_.thread(model, f_inner);
  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);
  const std::vector<Walked> expected = {{"inner", 6, false, 0}, {"outer", 2, true, 0}};
  const std::vector<Walked> first = walk(walker, sink_, thread);
  EXPECT_EQ(expected, first);

  // The code object can't be read now: the function the frame runs tells which it is.
  ASSERT_EQ(0, mprotect(mapping, page, PROT_NONE));
  const std::vector<Walked> again = walk(walker, sink_, thread);
  EXPECT_EQ(expected, again);
  ASSERT_EQ(2u, again.size());
  EXPECT_EQ(first[0].id, again[0].id);
  // Its first traceable instruction is known too: a frame before it is left out.
  f_inner->instruction = address_of(inner->bytecode) + 2;
  EXPECT_EQ((std::vector<Walked>{{"outer", 2, true, 0}}), walk(walker, sink_, thread));
  f_inner->instruction = address_of(inner->bytecode) + 6;

  // Run by another function, the code must be read: unreadable, it ends the stack.
  f_inner->function = memory_.function();
  EXPECT_TRUE(walk(walker, sink_, thread).empty());
  ASSERT_EQ(0, mprotect(mapping, page, PROT_READ | PROT_WRITE));
  EXPECT_EQ(first[0].id, walk(walker, sink_, thread)[0].id);
  // Read once with it, the code is known with that function too.
  ASSERT_EQ(0, mprotect(mapping, page, PROT_NONE));
  EXPECT_EQ(expected, walk(walker, sink_, thread));
  EXPECT_EQ(2, sink_.total());
  munmap(mapping, page);
}

// A thread's frame stack: `depth` frames side by side in one chunk, running codes
// f0 to f9 in turn, the oldest an entry frame.
class FrameStackTest : public PyFramesTest {
 protected:
  static constexpr Model kModel = Model::kEntryFlags;

  void build(int depth) {
    depth_ = depth;
    memory_block_.assign((sizeof(FakeChunk) + depth * sizeof(FakeFrame)) / 8 + 1, 0);
    chunk_ = reinterpret_cast<FakeChunk*>(memory_block_.data());
    chunk_->size = memory_block_.size() * 8;
    frames_ = reinterpret_cast<FakeFrame*>(chunk_ + 1);
    for (int i = 0; i < 10; ++i) codes_.push_back(memory_.code("f" + std::to_string(i), "s.py", i));
    FakeFrame* previous = nullptr;
    for (int i = 0; i < depth; ++i) {
      frames_[i] = *memory_.frame(kModel, codes_[i % 10], 2 * (i % 50), previous, kThread, i == 0);
      previous = &frames_[i];
    }
    // The newest frame is a generator's, which lives outside the chunk.
    generator_ = memory_.code("gen", "s.py", 100);
    thread_ = memory_.thread(kModel, memory_.frame(kModel, generator_, 4, previous, kGenerator));
    thread_->datastack_chunk = address_of(chunk_);
    thread_->datastack_top = address_of(frames_ + depth);
  }

  std::vector<Walked> expected() const {
    std::vector<Walked> frames = {{"gen", 4, false, 0}};
    for (int i = depth_ - 1; i >= 0; --i) {
      frames.push_back(Walked{"f" + std::to_string(i % 10), static_cast<uint32_t>(2 * (i % 50)),
                              i == 0, 0});
    }
    return frames;
  }

  std::vector<uint64_t> memory_block_;
  FakeChunk* chunk_ = nullptr;
  FakeFrame* frames_ = nullptr;
  std::vector<FakeCode*> codes_;
  FakeCode* generator_ = nullptr;
  FakeThread* thread_ = nullptr;
  int depth_ = 0;
};

TEST_F(FrameStackTest, FramesInTheChunkAndBeyondWhatIsCopied) {
  build(480);  // more bytes than one copy takes: the oldest are read frame by frame
  PythonFrameWalker walker(make_layout(kModel, &interpreter_), &sink_);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(expected(), walk(walker, sink_, thread_, 600));
}

TEST_F(FrameStackTest, ATornStackTopStillGivesEveryFrame) {
  build(60);
  PythonFrameWalker walker(make_layout(kModel, &interpreter_), &sink_);
  const uintptr_t chunk = address_of(chunk_);
  const uintptr_t top = address_of(frames_ + depth_);
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* unreadable = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, unreadable);
  const std::vector<std::pair<uintptr_t, uintptr_t>> torn = {
      {0, top},                                     // no chunk
      {chunk, 0},                                   // no top
      {chunk, top + 4},                             // misaligned
      {chunk, address_of(frames_)},                 // nothing used
      {chunk, address_of(frames_ + 20)},            // a top below the newest frames
      {chunk, chunk - 64},                          // below the chunk
      {address_of(unreadable), top},                // a chunk gone
      {chunk, address_of(unreadable) + 64},         // a top in memory gone
      {~uintptr_t{0} - 7, top},                     // a chunk at the end of the address space
  };
  for (const auto& fields : torn) {
    thread_->datastack_chunk = fields.first;
    thread_->datastack_top = fields.second;
    EXPECT_EQ(expected(), walk(walker, sink_, thread_)) << std::hex << fields.first << " "
                                                        << fields.second;
  }
  munmap(unreadable, page);
}

// Changes a frame deep in the stack when a code is announced, in the middle of a walk.
class ChangingSink final : public PythonCodeSink {
 public:
  ChangingSink(RecordingSink* sink, FakeFrame* frame, const FakeFrame& replacement)
      : sink_(sink), frame_(frame), replacement_(replacement) {}
  bool on_new_code(const ZVKPythonCode& header, const char* qualname, const char* filename,
                   const uint8_t* linetable) override {
    *frame_ = replacement_;
    return sink_->on_new_code(header, qualname, filename, linetable);
  }

 private:
  RecordingSink* const sink_;
  FakeFrame* const frame_;
  const FakeFrame replacement_;
};

TEST_F(FrameStackTest, TheStackInUseIsReadAsItWasWhenTheWalkBegan) {
  build(100);
  FakeCode* other = memory_.code("other", "s.py", 200);
  // Far below the first frames the walk reads, and their neighbours.
  ChangingSink changing(&sink_, &frames_[10],
                        *memory_.frame(kModel, other, 20, &frames_[9]));
  PythonFrameWalker walker(make_layout(kModel, &interpreter_), &changing);
  const std::vector<Walked> walked = walk(walker, sink_, thread_, 200);
  EXPECT_EQ(expected(), walked);
  ASSERT_EQ(101u, walked.size());
  EXPECT_EQ("f0", walked[90].name);
  EXPECT_EQ("other", walk(walker, sink_, thread_, 200)[90].name);
}

TEST_F(PyFramesTest, AFullTableGivesASlotToTheNewCode) {
  const Model model = Model::kShims;
  FakeCode* a = memory_.code("a", "f.py", 1);
  FakeCode* b = memory_.code("b", "f.py", 2);
  FakeThread* in_a = memory_.thread(model, memory_.frame(model, a, 0, nullptr));
  FakeThread* in_b = memory_.thread(model, memory_.frame(model, b, 0, nullptr));
  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_, 1);

  const uint32_t a_id = walk(walker, sink_, in_a)[0].id;
  EXPECT_EQ(a_id, walk(walker, sink_, in_a)[0].id);
  EXPECT_EQ(1, sink_.total());

  // b takes the one slot from a, once: later walks find it cached.
  const uint32_t b_id = walk(walker, sink_, in_b)[0].id;
  EXPECT_EQ("b", sink_.code(b_id).qualname);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(b_id, walk(walker, sink_, in_b)[0].id);
  EXPECT_EQ(2, sink_.total());

  // a comes back under an id of its own, never one given before.
  const uint32_t a_again = walk(walker, sink_, in_a)[0].id;
  EXPECT_NE(a_id, a_again);
  EXPECT_NE(b_id, a_again);
  EXPECT_EQ("a", sink_.code(a_again).qualname);
  EXPECT_EQ(a_again, walk(walker, sink_, in_a)[0].id);
  EXPECT_EQ(3, sink_.total());

  // Both in one stack: each walk names both frames right.
  FakeThread* both = memory_.thread(
      model, memory_.frame(model, a, 0, memory_.frame(model, b, 0, nullptr)));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ((std::vector<Walked>{{"a", 0, false, 0}, {"b", 0, false, 0}}),
              walk(walker, sink_, both));
  }
}

// Writes each code into a signal ring, as the sampler's sink does, and says
// whether it found room.
class RingSink final : public PythonCodeSink {
 public:
  explicit RingSink(SignalRing* ring) : ring_(ring) {}
  bool on_new_code(const ZVKPythonCode& header, const char* qualname, const char*,
                   const uint8_t*) override {
    char payload[sizeof(ZVKPythonCode) + 64] = {};
    memcpy(payload, &header, sizeof(header));
    strncpy(payload + sizeof(header), qualname, 63);
    return ring_->push(perfevent::PYTHON_CODE, 1, 1, 0, payload, sizeof(payload));
  }

 private:
  SignalRing* const ring_;
};

// The PYTHON_CODE entries in the ring: code id and qualname.
std::vector<std::pair<uint32_t, std::string>> drain_codes(SignalRing& ring) {
  std::vector<std::pair<uint32_t, std::string>> codes;
  ring.drain([&](const SignalRingEntry& entry, const uint8_t* payload, uint32_t) {
    if (entry.kind != perfevent::PYTHON_CODE) return;
    ZVKPythonCode header;
    memcpy(&header, payload, sizeof(header));
    codes.emplace_back(header.code_id,
                       reinterpret_cast<const char*>(payload + sizeof(ZVKPythonCode)));
  });
  return codes;
}

TEST_F(PyFramesTest, ACodeWhoseAnnouncementWasLostIsAnnouncedAgain) {
  const Model model = Model::kShims;
  FakeCode* code = memory_.code("lost", "l.py", 1);
  FakeThread* thread = memory_.thread(model, memory_.frame(model, code, 0, nullptr));
  SignalRing ring(4096);
  RingSink ring_sink(&ring);
  PythonFrameWalker walker(make_layout(model, &interpreter_), &ring_sink);
  // Full to the last 8 bytes of payload.
  const uint64_t filler[16] = {};
  for (uint32_t size : {uint32_t{sizeof(filler)}, uint32_t{8}}) {
    while (ring.push(perfevent::STACK_SAMPLE, 1, 1, 0, filler, size)) {
    }
  }
  ring.take_dropped();

  ZVKPythonFrame frame{};
  ASSERT_EQ(1u, walker.walk(address_of(thread), &frame, 1, nullptr));
  const uint32_t id = frame.code_id;
  EXPECT_NE(0u, id);
  EXPECT_EQ(1u, ring.take_dropped());  // the announcement found no room
  EXPECT_TRUE(drain_codes(ring).empty());

  // With room again, the next walk announces it, under the id the sample got.
  ASSERT_EQ(1u, walker.walk(address_of(thread), &frame, 1, nullptr));
  EXPECT_EQ(id, frame.code_id);
  EXPECT_EQ((std::vector<std::pair<uint32_t, std::string>>{{id, "lost"}}), drain_codes(ring));
  // And once only.
  ASSERT_EQ(1u, walker.walk(address_of(thread), &frame, 1, nullptr));
  EXPECT_EQ(id, frame.code_id);
  EXPECT_TRUE(drain_codes(ring).empty());
}

TEST_F(PyFramesTest, StringsOfEveryWidthBecomeUtf8) {
  const Model model = Model::kShims;
  FakeCode* code = memory_.code("", "", 1);
  FakeFrame* frame = memory_.frame(model, code, 0, nullptr);
  FakeThread* thread = memory_.thread(model, frame);
  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);
  auto name_of = [&](uintptr_t string) {
    code->qualname = string;
    // Another code at the address, run by another function: announced again.
    code->first_line += 1;
    frame->function = memory_.function();
    return walk(walker, sink_, thread)[0].name;
  };
  EXPECT_EQ("caf\xc3\xa9", name_of(memory_.wide({'c', 'a', 'f', 0xe9}, 1)));
  EXPECT_EQ("\xce\xbb_x", name_of(memory_.wide({0x3bb, '_', 'x'}, 2)));
  EXPECT_EQ("f\xf0\x9f\x94\xa5", name_of(memory_.wide({'f', 0x1f525}, 4)));
  EXPECT_EQ("\xef\xbf\xbd", name_of(memory_.wide({0xd800}, 2)));  // a lone surrogate

  const std::string long_name(2000, 'n');
  EXPECT_EQ(std::string(PythonFrameWalker::kMaxTextBytes, 'n'), name_of(memory_.ascii(long_name)));
  // Cut on a character boundary: three-byte characters fill 510 of the 512 bytes.
  const std::string cut = name_of(memory_.wide(std::vector<uint32_t>(400, 0x20ac), 2));
  EXPECT_EQ(510u, cut.size());
  EXPECT_EQ("\xe2\x82\xac", cut.substr(507));

  // Characters kept apart from the object (a str subclass) are not read.
  const uintptr_t legacy = memory_.ascii("legacy");
  reinterpret_cast<FakeString*>(legacy)->state &= ~kCompactBit;
  EXPECT_EQ("", name_of(legacy));
}

TEST_F(PyFramesTest, LongLineTablesAreKeptOrCutToFitARecord) {
  const Model model = Model::kShims;
  FakeCode* code = memory_.code("module", std::string(300, 'p'), 1);
  FakeFrame* frame = memory_.frame(model, code, 0, nullptr);
  FakeThread* thread = memory_.thread(model, frame);
  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_);

  std::vector<uint8_t> long_table(20000);
  for (size_t i = 0; i < long_table.size(); ++i) long_table[i] = static_cast<uint8_t>(i * 7);
  code->linetable = memory_.bytes(long_table);
  RecordingSink::Code seen = sink_.code(walk(walker, sink_, thread)[0].id);
  EXPECT_EQ(long_table, seen.linetable);
  EXPECT_EQ(0u, seen.flags);

  std::vector<uint8_t> huge_table(100000, 0x5a);
  code->linetable = memory_.bytes(huge_table);
  frame->function = memory_.function();
  seen = sink_.code(walk(walker, sink_, thread)[0].id);
  EXPECT_EQ(perfevent::PYTHON_CODE_LINETABLE_CUT, seen.flags);
  EXPECT_EQ(PythonFrameWalker::kMaxCodePayload - sizeof(ZVKPythonCode) - 6 - 300,
            seen.linetable.size());
  EXPECT_EQ(std::vector<uint8_t>(seen.linetable.size(), 0x5a), seen.linetable);
}

TEST_F(PyFramesTest, ListsTheInterpretersThreads) {
  FakeThread* first = memory_.thread(Model::kShims, nullptr, 101);
  FakeThread* second = memory_.thread(Model::kShims, nullptr, 102);
  interpreter_.threads_head = address_of(first);
  first->next = address_of(second);
  PythonFrameWalker walker(make_layout(Model::kShims, &interpreter_), &sink_);
  uintptr_t states[8];
  int32_t tids[8];
  ASSERT_EQ(2u, walker.list_threads(states, tids, 8));
  EXPECT_EQ(address_of(first), states[0]);
  EXPECT_EQ(101, tids[0]);
  EXPECT_EQ(address_of(second), states[1]);
  EXPECT_EQ(102, tids[1]);
  EXPECT_EQ(1u, walker.list_threads(states, tids, 1));

  second->next = address_of(first);  // torn into a loop
  EXPECT_EQ(2u, walker.list_threads(states, tids, 8));
  first->next = 0x18;  // never mapped
  EXPECT_EQ(1u, walker.list_threads(states, tids, 8));

  first->next = address_of(second);
  second->next = 0;
  // 3.10 keeps the pthread_t only: the id is read from its descriptor, and a
  // descriptor that is gone gives none.
  FakeDescriptor descriptor = {};
  descriptor.tid = 201;
  first->pthread = address_of(&descriptor);
  second->pthread = 0x18;
  PythonFrameWalker old(make_layout(Model::kFrameObjects, &interpreter_), &sink_);
  ASSERT_EQ(2u, old.list_threads(states, tids, 8));
  EXPECT_EQ(201, tids[0]);
  EXPECT_EQ(-1, tids[1]);
}

TEST(PthreadTidOffset, PointsAtEachThreadsOwnId) {
  const int32_t offset = find_pthread_tid_offset();
  ASSERT_GE(offset, 0);
  for (int i = 0; i < 2; ++i) {
    std::atomic<bool> matches{false};
    std::thread check([&] {
      int32_t value = 0;
      std::memcpy(&value, reinterpret_cast<const char*>(pthread_self()) + offset, sizeof(value));
      matches = value == static_cast<int32_t>(syscall(SYS_gettid));
    });
    check.join();
    EXPECT_TRUE(matches.load());
  }
}

TEST_F(PyFramesTest, TheCurrentThreadStateComesFromTheLayout) {
  PythonFrameWalker walker(make_layout(Model::kShims, &interpreter_), &sink_);
  EXPECT_EQ(0u, walker.current_thread_state());
  FakeThread* mine = memory_.thread(Model::kShims, nullptr);
  t_thread_state = mine;
  EXPECT_EQ(address_of(mine), walker.current_thread_state());
  std::thread([&] { EXPECT_EQ(0u, walker.current_thread_state()); }).join();
  t_thread_state = nullptr;

  PythonLayout without = make_layout(Model::kShims, &interpreter_);
  without.this_thread_state = nullptr;
  EXPECT_EQ(0u, PythonFrameWalker(without, &sink_).current_thread_state());
}

// Several threads walk stacks that share codes while one more keeps forgetting
// them: every frame is named right, whatever id it got.
TEST_F(PyFramesTest, ConcurrentWalksNameEveryFrameRight) {
  const Model model = Model::kShims;
  constexpr int kCodes = 40;
  std::vector<FakeCode*> codes;
  for (int i = 0; i < kCodes; ++i) {
    codes.push_back(memory_.code("f" + std::to_string(i), "p.py", i + 1));
  }
  constexpr int kThreads = 4;
  std::vector<FakeThread*> threads;
  for (int t = 0; t < kThreads; ++t) {
    FakeFrame* frame = memory_.shim(nullptr);
    for (int depth = 0; depth < 30; ++depth) {
      frame = memory_.frame(model, codes[(t * 7 + depth * 3) % kCodes], 2 * depth, frame);
    }
    threads.push_back(memory_.thread(model, frame));
  }
  PythonFrameWalker walker(make_layout(model, &interpreter_), &sink_, 64);
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> walkers;
  for (int t = 0; t < kThreads; ++t) {
    walkers.emplace_back([&, t] {
      ZVKPythonFrame frames[64];
      for (int round = 0; round < 1000; ++round) {
        const size_t count = walker.walk(address_of(threads[t]), frames, 64, nullptr);
        if (count != 30) ++wrong;
        for (size_t i = 0; i < count; ++i) {
          const int depth = 29 - static_cast<int>(i);
          const std::string expected = "f" + std::to_string((t * 7 + depth * 3) % kCodes);
          if (frames[i].code_id == 0 || sink_.code(frames[i].code_id).qualname != expected) ++wrong;
        }
      }
    });
  }
  std::thread forgetter([&] {
    while (!stop.load()) {
      walker.forget_codes();
      std::this_thread::yield();
    }
  });
  for (std::thread& thread : walkers) thread.join();
  stop = true;
  forgetter.join();
  EXPECT_EQ(0, wrong.load());
}

}  // namespace
}  // namespace zorvek
