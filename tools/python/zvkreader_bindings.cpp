// zorvek._reader: the capture file reader for Python. Decoding and adding up run
// in C++, through the same decoding zvkdump uses; Python gets one list of dicts
// per bucket, NumPy columns per kind of record, or the summary's numbers. Buckets
// are inflated and walked with the interpreter lock released.

#include <fcntl.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/pylinetable.h"
#include "tools/python/zvkcolumns.h"
#include "tools/python/zvkfields.h"
#include "tools/python/zvkranges.h"
#include "tools/zvkfileheader.h"
#include "tools/zvkfilereader.h"
#include "tools/zvkrecords.h"
#include "tools/zvksummary.h"

namespace py = pybind11;

namespace zorvek {
namespace {

// ---- Python objects, made quickly --------------------------------------------

// Takes ownership of a new reference; a null one means Python has an error set.
py::object owned(PyObject* object) {
  if (object == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(object);
}

// Strings made once and shared by every record: the dict keys and the names.
class Interned {
 public:
  PyObject* get(const char* text) {
    auto found = m_strings.find(text);
    if (found != m_strings.end()) return found->second;
    PyObject* string = PyUnicode_InternFromString(text);
    if (string == nullptr) throw py::error_already_set();
    m_strings.emplace(text, string);  // kept for the life of the module
    return string;
  }

 private:
  // Keyed by address: every text given is a literal.
  std::unordered_map<const char*, PyObject*> m_strings;
};

Interned& interned() {
  static Interned* strings = new Interned();  // never freed: outlives the interpreter's use of it
  return *strings;
}

// A dict under construction; each value is a new reference that the dict takes.
class DictBuilder {
 public:
  DictBuilder() : m_dict(owned(PyDict_New())) {}

  void put(const char* key, PyObject* value) {
    if (value == nullptr) throw py::error_already_set();
    const int failed = PyDict_SetItem(m_dict.ptr(), interned().get(key), value);
    Py_DECREF(value);
    if (failed != 0) throw py::error_already_set();
  }
  void u64(const char* key, uint64_t value) { put(key, PyLong_FromUnsignedLongLong(value)); }
  void i64(const char* key, int64_t value) { put(key, PyLong_FromLongLong(value)); }
  void name(const char* key, const char* literal) {
    PyObject* value = interned().get(literal);
    Py_INCREF(value);
    put(key, value);
  }
  // Text from a capture: UTF-8 as captured, bytes that aren't show as U+FFFD.
  void text(const char* key, std::string_view value) {
    put(key, PyUnicode_DecodeUTF8(value.data(), static_cast<Py_ssize_t>(value.size()), "replace"));
  }
  // A file name keeps its bytes: os.fsencode gives back the path the process mapped.
  void path(const char* key, std::string_view value) {
    put(key, PyUnicode_DecodeFSDefaultAndSize(value.data(), static_cast<Py_ssize_t>(value.size())));
  }
  void object(const char* key, py::object value) { put(key, value.release().ptr()); }

  py::object done() { return std::move(m_dict); }
  PyObject* release() { return m_dict.release().ptr(); }

 private:
  py::object m_dict;
};

// Python frames, leaf first, as (code_id, instruction_offset, entry) tuples.
PyObject* python_list(const DecodedRecord& decoded) {
  const auto count = static_cast<Py_ssize_t>(decoded.frames.python_count);
  PyObject* list = PyList_New(count);
  if (list == nullptr) return nullptr;
  for (Py_ssize_t i = 0; i < count; ++i) {
    const perfevent::ZVKPythonFrame frame = python_frame(decoded, static_cast<uint32_t>(i));
    PyObject* tuple =
        Py_BuildValue("(kkO)", static_cast<unsigned long>(frame.code_id),
                      static_cast<unsigned long>(frame.instruction & perfevent::kPythonInstructionMask),
                      (frame.instruction & perfevent::kPythonFrameEntry) ? Py_True : Py_False);
    if (tuple == nullptr) {
      Py_DECREF(list);
      return nullptr;
    }
    PyList_SET_ITEM(list, i, tuple);
  }
  return list;
}

// One record as a dict: walk_fields' sink.
class RecordDict : public DictBuilder {
 public:
  void flag(const char* key, bool value) { put(key, PyBool_FromLong(value)); }
  void label(const char* key, const char* literal) { name(key, literal); }
  void bytes(const char* key, std::string_view value) {
    put(key, PyBytes_FromStringAndSize(value.data(), static_cast<Py_ssize_t>(value.size())));
  }
  void triple(const char* key, int32_t x, int32_t y, int32_t z) {
    put(key, Py_BuildValue("(iii)", x, y, z));
  }
  template <typename At>
  void u64s(const char* key, uint32_t count, At at) {
    PyObject* list = PyList_New(count);
    if (list == nullptr) throw py::error_already_set();
    for (uint32_t i = 0; i < count; ++i) {
      PyObject* value = PyLong_FromUnsignedLongLong(at(i));
      if (value == nullptr) {
        Py_DECREF(list);
        throw py::error_already_set();
      }
      PyList_SET_ITEM(list, i, value);
    }
    put(key, list);
  }
  void frames(const char* key, const DecodedRecord& decoded) { put(key, python_list(decoded)); }
};

PyObject* record_dict(const ZVKRecordReader& record) {
  RecordDict d;
  walk_fields(record, d);
  return d.release();
}

// ---- Opening files ------------------------------------------------------------

// A path as given (str, bytes or os.PathLike): its bytes, to open it by, and its
// text, for messages and results.
struct Path {
  std::string bytes;
  std::string text;
};

Path fspath(const py::handle& path) {
  py::object os = py::module_::import("os");
  py::object bytes = os.attr("fsencode")(path);
  py::object text = os.attr("fsdecode")(path);
  // Text that can't be UTF-8 (undecodable bytes in a name) is shown with escapes.
  py::object utf8 = text.attr("encode")("utf-8", "backslashreplace");
  return {py::cast<std::string>(bytes), py::cast<std::string>(utf8)};
}

// Opens `file` in `reader`, or raises: OSError (with errno, for Python's
// subclasses such as FileNotFoundError) when the file can't be read, ValueError
// when its bytes aren't a capture file.
void open_or_raise(const Path& file, ZVKFileReader* reader) {
  const std::string& path = file.text;
  const auto raise_errno = [&file]() {
    py::object name = owned(PyUnicode_DecodeFSDefaultAndSize(
        file.bytes.data(), static_cast<Py_ssize_t>(file.bytes.size())));
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, name.ptr());
    throw py::error_already_set();
  };
  const int fd = ::open(file.bytes.c_str(), O_RDONLY);
  if (fd < 0) raise_errno();
  struct stat info;
  const bool directory = fstat(fd, &info) == 0 && S_ISDIR(info.st_mode);
  close(fd);
  if (directory) {
    errno = EISDIR;
    raise_errno();
  }
  const Status opened = reader->open(file.bytes);
  if (opened.ok()) return;
  if (opened.code_ == error::INVALID_ARGUMENT || opened.code_ == error::UNSUPPORTED) {
    const bool magic = opened.msg_.rfind("not a capture file", 0) == 0;
    throw py::value_error(path + ": not a Zorvek capture file" +
                          (magic ? std::string() : " (" + opened.msg_ + ")"));
  }
  PyErr_SetString(PyExc_OSError, (path + ": " + opened.msg_).c_str());
  throw py::error_already_set();
}

py::dict header_dict(const ZVKFileHeader* hdr) {
  py::dict header;
  header["version"] = hdr->ZVKVersion;
  header["compression"] = hdr->compression;
  header["config"] = hdr->ZVKConfig;
  header["pid"] = hdr->pid;
  header["start_time"] = hdr->start_time;
  header["end_time"] = hdr->end_time;
  header["clock_shift"] = hdr->clock_shift;
  header["num_buckets"] = hdr->num_buckets;
  header["max_bucket_size"] = hdr->max_bucket_size;
  header["max_uncompressed_size"] = hdr->max_uncompressed_size;
  const auto text = [](const std::string& value) {
    return owned(PyUnicode_DecodeUTF8(value.data(), static_cast<Py_ssize_t>(value.size()),
                                      "replace"));
  };
  header["hostname"] = text(get_hostname(hdr));
  header["job_uid"] = text(get_jobuid(hdr));
  header["instance_type"] = text(get_instance_type(hdr));
  header["cpu_model"] = text(get_cpu_model_id(hdr));
  return header;
}

// Calls `progress(done, total)` at most every kInterval, and lets Ctrl-C through
// while a long read runs in C++. Needs the interpreter lock.
class ProgressCalls {
 public:
  explicit ProgressCalls(py::object callback) : m_callback(std::move(callback)) {}

  bool due() const { return Clock::now() >= m_next; }

  void call(uint64_t done, uint64_t total) {
    m_next = Clock::now() + kInterval;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    if (!m_callback.is_none()) m_callback(done, total);
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kInterval{200};
  py::object m_callback;
  Clock::time_point m_next = Clock::now() + kInterval;
};

// ---- CaptureFile ----------------------------------------------------------------

// Which kinds of record a caller keeps, by event name.
class KindFilter {
 public:
  KindFilter() = default;
  explicit KindFilter(const py::handle& kinds) {
    if (kinds.is_none()) return;
    m_all = false;
    for (const py::handle& kind : kinds) {
      const std::string name = py::cast<std::string>(kind);
      bool known = name == "UNKNOWN";
      if (known) m_unknown = true;
      for (uint32_t hw : {uint32_t{ANNOTATION}, uint32_t{CPU}, uint32_t{GPU}}) {
        for (uint32_t code = 0; code < kCodes; ++code) {
          if (name == code_name(hw, code)) {
            m_keep[hw][code] = true;
            known = true;
          }
        }
      }
      if (!known) throw py::value_error("unknown record kind '" + name + "'");
    }
    // Codes without a name go with "UNKNOWN", so that the test per record is one load.
    for (uint32_t hw = 0; hw < 16; ++hw) {
      for (uint32_t code = 0; code < kCodes; ++code) {
        if (std::string(code_name(hw, code)) == "UNKNOWN") m_keep[hw][code] = m_unknown;
      }
    }
  }

  // Every name a filter takes, "UNKNOWN" last.
  static py::tuple names() {
    std::vector<std::string> all;
    for (uint32_t hw : {uint32_t{ANNOTATION}, uint32_t{CPU}, uint32_t{GPU}}) {
      for (uint32_t code = 0; code < kCodes; ++code) {
        const std::string name = code_name(hw, code);
        if (name != "UNKNOWN" && std::find(all.begin(), all.end(), name) == all.end()) {
          all.push_back(name);
        }
      }
    }
    all.push_back("UNKNOWN");
    return py::cast(all);
  }

  bool keeps(const ZVKRecordReader& record) const {
    if (m_all) return true;
    const uint32_t hw = record.hardware_type();
    const uint32_t code = hw == GPU ? gpu_type(record) : record.event_type();
    return code < kCodes ? m_keep[hw][code] : m_unknown;
  }

 private:
  // Room for every named code: the stack sampler's CPU kinds come after the kernel's.
  static constexpr uint32_t kCodes = 32;

  static const char* code_name(uint32_t hw, uint32_t code) {
    switch (hw) {
      case ANNOTATION: return annotation_name(code);
      case CPU: return cpu_event_name(code);
      case GPU: return gpu_type_name(code);
      default: return "UNKNOWN";
    }
  }

  bool m_all = true;
  bool m_unknown = false;
  bool m_keep[16][kCodes] = {};
};

// Once a file is read to its end: the note on its header's bucket count, if any,
// behind `prefix`. Buckets missing are a problem; an unfinished header is only
// said.
void take_count_note(const ZVKFileReader& reader, const std::string& prefix,
                     std::vector<std::string>* problems, std::string* unfinished) {
  const std::string note = reader.header_count_note();
  if (note.empty()) return;
  if (reader.header_count() == ZVKFileReader::HeaderCount::kUnfinished) {
    *unfinished = prefix + note;
  } else {
    problems->push_back(prefix + note);
  }
}

class CaptureFile {
 public:
  explicit CaptureFile(const py::object& path) : m_path(fspath(path)) {
    ZVKFileReader reader;
    open_or_raise(m_path, &reader);
    m_size = reader.file_size();
    m_header = header_dict(reader.header());
  }

  const Path& file() const { return m_path; }
  const std::string& path() const { return m_path.text; }
  uint64_t file_size() const { return m_size; }
  py::dict header() const { return m_header; }
  py::list problems() const { return py::cast(m_problems); }
  bool torn() const { return m_torn; }
  bool damaged() const { return m_damaged; }
  const std::string& unfinished() const { return m_unfinished; }
  uint64_t buckets() const { return m_buckets; }

  // Each iteration reads the file afresh; its problems replace the last one's.
  void restart() {
    m_problems.clear();
    m_torn = false;
    m_damaged = false;
    m_unfinished.clear();
    m_buckets = 0;
  }
  void problem(const std::string& message, bool torn) {
    m_problems.push_back(message);
    m_torn = m_torn || torn;
    m_damaged = true;
  }
  void bucket_read() { ++m_buckets; }
  // At the end of an iteration: what the header's bucket count says.
  void ended(const ZVKFileReader& reader) {
    take_count_note(reader, path() + ": ", &m_problems, &m_unfinished);
    m_damaged = !reader.read_whole();
  }

 private:
  Path m_path;
  uint64_t m_size = 0;
  py::dict m_header;
  std::vector<std::string> m_problems;
  bool m_torn = false;
  bool m_damaged = false;
  std::string m_unfinished;
  uint64_t m_buckets = 0;
};

// One pass over a capture's whole buckets for an iterator: damage noted in the
// capture's problems, progress called, and one reader at a time.
class BucketCursor {
 public:
  BucketCursor(CaptureFile& capture, py::object progress)
      : m_capture(capture), m_progress(std::move(progress)) {
    open_or_raise(capture.file(), &m_reader);
    capture.restart();
  }

  // The next whole bucket, read with the interpreter lock released; false at the
  // end of the file, when the capture has its problems.
  bool next(std::unique_ptr<ZVKBucketReader>* bucket) {
    for (;;) {
      if (m_done) return false;
      Status read;
      {
        py::gil_scoped_release unlocked;
        read = m_reader.next_bucket(bucket);
      }
      if (read.code_ == error::END_OF_DATA) {
        m_done = true;
        m_capture.ended(m_reader);
        if (m_progress_shown) m_progress.call(m_reader.file_size(), m_reader.file_size());
        return false;
      }
      if (!read.ok()) {
        m_capture.problem(m_capture.path() + ": " + read.msg_, m_reader.torn());
        continue;
      }
      m_capture.bucket_read();
      if (m_progress.due()) {
        m_progress_shown = true;
        m_progress.call(m_reader.next_bucket_offset(), m_reader.file_size());
      }
      return true;
    }
  }

  // Held while an iterator's next() runs. The lock is let go while a bucket is
  // read, and the reader is one cursor over the file: a second thread (or a
  // progress callback) in next() would move it under the first. Checked and set
  // with the lock held, so one of them wins.
  class Busy {
   public:
    explicit Busy(BucketCursor& cursor) : m_busy(cursor.m_busy) {
      if (m_busy) throw std::runtime_error("this iterator is being read by another thread");
      m_busy = true;
    }
    ~Busy() { m_busy = false; }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

   private:
    bool& m_busy;
  };

 private:
  CaptureFile& m_capture;  // kept alive by the iterator's reference to it
  ProgressCalls m_progress;
  ZVKFileReader m_reader;
  bool m_done = false;
  bool m_progress_shown = false;
  bool m_busy = false;
};

// Iterates over a capture's buckets, a list of record dicts per bucket that holds
// any record the filter keeps. One bucket's records are in memory at a time.
class Batches {
 public:
  Batches(CaptureFile& capture, const py::object& kinds, py::object progress)
      : m_filter(kinds), m_cursor(capture, std::move(progress)) {}

  py::list next() {
    BucketCursor::Busy busy(m_cursor);
    std::unique_ptr<ZVKBucketReader> bucket;
    while (m_cursor.next(&bucket)) {
      py::list batch;
      ZVKRecordReader record;
      while (bucket->get_next_record(record).ok()) {
        if (!m_filter.keeps(record)) continue;
        PyObject* dict = record_dict(record);
        const int failed = PyList_Append(batch.ptr(), dict);
        Py_DECREF(dict);
        if (failed != 0) throw py::error_already_set();
      }
      if (PyList_GET_SIZE(batch.ptr()) != 0) return batch;
    }
    throw py::stop_iteration();
  }

 private:
  KindFilter m_filter;
  BucketCursor m_cursor;
};

// ---- Columns as NumPy arrays -------------------------------------------------------

// The vector's values as a NumPy array that owns them, without a copy.
template <typename T>
py::array owning_array(std::vector<T>&& values, const py::dtype& dtype, size_t width = 1) {
  auto* owner = new std::vector<T>(std::move(values));
  py::capsule free(owner, [](void* data) { delete static_cast<std::vector<T>*>(data); });
  const auto rows = static_cast<py::ssize_t>(owner->size() / width);
  if (width == 1) return py::array(dtype, {rows}, {static_cast<py::ssize_t>(sizeof(T))}, owner->data(), free);
  return py::array(dtype, {rows, static_cast<py::ssize_t>(width)},
                   {static_cast<py::ssize_t>(sizeof(T) * width), static_cast<py::ssize_t>(sizeof(T))},
                   owner->data(), free);
}

py::dict table_dict(columns::Table& table) {
  using columns::Column;
  py::dict out;
  const auto offsets = [&out](const std::string& key, Column& c) {
    out[py::str(key + "_offsets")] = owning_array(std::move(c.offsets), py::dtype::of<int32_t>());
  };
  for (auto& entry : table.columns()) {
    const std::string key = entry.first;
    Column& c = *entry.second;
    switch (c.type) {
      case Column::kU64: out[py::str(key)] = owning_array(std::move(c.u64), py::dtype::of<uint64_t>()); break;
      case Column::kI64: out[py::str(key)] = owning_array(std::move(c.i64), py::dtype::of<int64_t>()); break;
      case Column::kFlag: out[py::str(key)] = owning_array(std::move(c.u8), py::dtype::of<bool>()); break;
      case Column::kLabel: {
        out[py::str(key)] = owning_array(std::move(c.u8), py::dtype::of<uint8_t>());
        py::tuple labels(c.labels.size());
        for (size_t i = 0; i < c.labels.size(); ++i) labels[i] = py::str(c.labels[i]);
        out[py::str(key + "_labels")] = labels;
        break;
      }
      case Column::kBytes:
        out[py::str(key)] = owning_array(std::move(c.u8), py::dtype::of<uint8_t>());
        offsets(key, c);
        break;
      case Column::kU64s:
        out[py::str(key)] = owning_array(std::move(c.u64), py::dtype::of<uint64_t>());
        offsets(key, c);
        break;
      case Column::kTriple: out[py::str(key)] = owning_array(std::move(c.i32), py::dtype::of<int32_t>(), 3); break;
      case Column::kFrames:
        out[py::str(key + "_code_id")] = owning_array(std::move(c.u32), py::dtype::of<uint32_t>());
        out[py::str(key + "_instruction")] = owning_array(std::move(c.u32_2), py::dtype::of<uint32_t>());
        out[py::str(key + "_entry")] = owning_array(std::move(c.u8), py::dtype::of<bool>());
        offsets(key, c);
        break;
    }
  }
  return out;
}

// Iterates over a capture's records as columns: per group of whole buckets
// (about kGroupBytes of records), a dict of kind -> {field: array}. Decoding runs
// with the interpreter lock released.
class ColumnGroups {
 public:
  ColumnGroups(CaptureFile& capture, const py::object& kinds, py::object progress)
      : m_filter(kinds), m_cursor(capture, std::move(progress)) {}

  py::dict next() {
    BucketCursor::Busy busy(m_cursor);
    columns::Group group;
    uint64_t bytes = 0;
    std::unique_ptr<ZVKBucketReader> bucket;
    // Buckets until the group is big enough, or holds a record at all.
    while ((bytes < kGroupBytes || group.records() == 0) && m_cursor.next(&bucket)) {
      bytes += bucket->get_uncompressed_size();
      py::gil_scoped_release unlocked;
      ZVKRecordReader record;
      while (bucket->get_next_record(record).ok()) {
        if (m_filter.keeps(record)) group.add(record);
      }
    }
    if (group.records() == 0) throw py::stop_iteration();
    py::dict out;
    for (auto& entry : group.tables()) {
      entry.second.finish();
      out[py::str(entry.first)] = table_dict(entry.second);
    }
    return out;
  }

 private:
  static constexpr uint64_t kGroupBytes = 4 << 20;
  KindFilter m_filter;
  BucketCursor m_cursor;
};

// ---- summarize ------------------------------------------------------------------

struct FileRead {
  Path path;
  std::unique_ptr<ZVKFileReader> reader;
  uint64_t buckets = 0;
  uint64_t records = 0;
  std::vector<std::string> problems;
  bool torn = false;
  bool damaged = false;
  std::string unfinished;
};

py::object totals_dict(const summary::Totals& totals, bool bytes) {
  DictBuilder d;
  d.u64("count", totals.count);
  if (bytes) d.u64("bytes", totals.bytes);
  d.u64("total_ns", totals.total_ns);
  return d.done();
}

std::string kind_label(uint32_t hw, uint32_t code) {
  const char* name = "UNKNOWN";
  switch (hw) {
    case ANNOTATION: name = annotation_name(code); break;
    case CPU: name = cpu_event_name(code); break;
    case GPU: name = gpu_type_name(code); break;
    default: break;
  }
  return std::string(hardware_name(hw)) + ' ' +
         (std::string(name) == "UNKNOWN" ? "event " + std::to_string(code) : std::string(name));
}

// Groups totals by id under their names, when the run has seen them: one
// kernel's launches under several ids (a forked child, a second device) go
// together. Most time first.
py::list named_totals(const std::unordered_map<uint32_t, summary::Totals>& by_id,
                      const GpuNames& names, uint32_t kind, uint32_t pid, const char* id_key) {
  struct Row {
    const std::string* name;
    uint32_t id;
    summary::Totals totals;
  };
  std::map<std::string, Row> named;
  std::vector<Row> unnamed;
  for (const auto& entry : by_id) {
    const std::string* name = names.find(kind, pid, entry.first);
    if (name == nullptr) {
      unnamed.push_back({nullptr, entry.first, entry.second});
      continue;
    }
    auto row = named.find(*name);
    if (row == named.end()) {
      named.emplace(*name, Row{name, entry.first, entry.second});
    } else {
      row->second.totals.count += entry.second.count;
      row->second.totals.total_ns += entry.second.total_ns;
      row->second.id = std::min(row->second.id, entry.first);
    }
  }
  std::vector<Row> rows;
  for (const auto& row : named) rows.push_back(row.second);
  std::sort(unnamed.begin(), unnamed.end(), [](const Row& a, const Row& b) { return a.id < b.id; });
  rows.insert(rows.end(), unnamed.begin(), unnamed.end());
  std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
    return a.totals.total_ns > b.totals.total_ns;
  });
  py::list list;
  for (const Row& row : rows) {
    DictBuilder d;
    if (row.name != nullptr) {
      d.text("name", *row.name);
    } else {
      d.object("name", py::none());
    }
    d.u64(id_key, row.id);
    d.u64("count", row.totals.count);
    d.u64("total_ns", row.totals.total_ns);
    d.u64("mean_ns", row.totals.count ? row.totals.total_ns / row.totals.count : 0);
    list.append(d.done());
  }
  return list;
}

py::object process_dict(const summary::Process& p, const GpuNames& names,
                        const std::vector<FileRead>& files) {
  DictBuilder d;
  d.u64("pid", p.pid);
  const uint32_t parent = names.parent_of(p.pid);
  if (parent != 0) {
    d.u64("parent", parent);
  } else {
    d.object("parent", py::none());
  }
  py::list file_paths;
  for (size_t index : p.files) file_paths.append(files[index].path.text);
  d.object("files", file_paths);

  // Records by kind.
  py::dict kinds;
  uint64_t records = 0;
  for (uint32_t hw = 0; hw < 16; ++hw) {
    for (uint32_t code = 0; code < summary::Process::kCodes; ++code) {
      if (p.kinds[hw][code] == 0) continue;
      kinds[py::str(kind_label(hw, code))] = p.kinds[hw][code];
      records += p.kinds[hw][code];
    }
  }
  for (const auto& other : p.other_kinds) {
    kinds[py::str(kind_label(other.first.first, other.first.second))] = other.second;
    records += other.second;
  }
  d.u64("records", records);
  d.object("records_by_kind", kinds);
  d.u64("undecoded", p.undecoded);

  // Annotation ranges, most total time first.
  const bool annotated = p.first_ns <= p.last_ns;
  const uint64_t wall = annotated ? p.last_ns - p.first_ns : 0;
  if (annotated) {
    d.u64("first_ns", p.first_ns);
    d.u64("last_ns", p.last_ns);
  } else {
    d.object("first_ns", py::none());
    d.object("last_ns", py::none());
  }
  d.u64("wall_ns", wall);
  std::vector<uint32_t> order(p.ranges.size());
  for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
    return p.ranges[a].total() > p.ranges[b].total() ||
           (p.ranges[a].total() == p.ranges[b].total() && p.range_names[a] < p.range_names[b]);
  });
  py::list ranges;
  for (uint32_t id : order) {
    const summary::Durations& r = p.ranges[id];
    if (r.count() == 0) continue;  // only begins that never ended
    DictBuilder range;
    range.text("name", p.range_names[id]);
    range.u64("count", r.count());
    range.u64("total_ns", r.total());
    range.u64("mean_ns", r.total() / r.count());
    range.u64("min_ns", r.min());
    range.u64("p50_ns", r.percentile(0.50));
    range.u64("p99_ns", r.percentile(0.99));
    range.u64("max_ns", r.max());
    range.put("share", PyFloat_FromDouble(wall ? static_cast<double>(r.total()) / wall : 0.0));
    ranges.append(range.done());
  }
  d.object("ranges", ranges);
  d.u64("begins_without_end", p.open.size());
  d.u64("ends_without_begin", p.early_ends.size());
  d.u64("markers", p.markers);

  // CPU sampling.
  DictBuilder cpu;
  cpu.u64("samples", p.samples);
  std::vector<std::pair<uint32_t, uint64_t>> threads(p.samples_by_tid.begin(),
                                                     p.samples_by_tid.end());
  std::sort(threads.begin(), threads.end(), [](const auto& a, const auto& b) {
    return a.second > b.second || (a.second == b.second && a.first < b.first);
  });
  py::list by_thread;
  for (const auto& thread : threads) {
    DictBuilder t;
    t.u64("tid", thread.first);
    t.u64("samples", thread.second);
    by_thread.append(t.done());
  }
  cpu.object("by_thread", by_thread);
  std::vector<std::pair<uint64_t, uint64_t>> ips(p.ips.begin(), p.ips.end());
  std::sort(ips.begin(), ips.end(), [](const auto& a, const auto& b) {
    return a.second > b.second || (a.second == b.second && a.first < b.first);
  });
  py::list ip_counts(ips.size());
  for (size_t i = 0; i < ips.size(); ++i) {
    ip_counts[i] = py::make_tuple(ips[i].first, ips[i].second);
  }
  cpu.object("ips", ip_counts);
  cpu.u64("lost", p.lost);
  cpu.u64("lost_records", p.lost_records);
  cpu.u64("throttles", p.throttles);
  cpu.u64("unthrottles", p.unthrottles);
  cpu.u64("forks", p.forks);
  cpu.u64("exits", p.exits);
  py::list mappings;
  for (const summary::Mapping& m : p.mappings) {
    DictBuilder mapping;
    mapping.u64("addr", m.addr);
    mapping.u64("len", m.len);
    mapping.u64("pgoff", m.pgoff);
    mapping.path("filename", m.filename);
    mappings.append(mapping.done());
  }
  cpu.object("mappings", mappings);
  py::list configurations;
  for (const auto& entry : p.configurations) {
    const perfevent::ZVKPerfConfigData& c = entry.second;
    DictBuilder config;
    config.u64("perf_type", c.type);
    config.u64("config", c.config);
    config.u64("period", c.sample_period);
    config.u64("format_id", c.format_id);
    configurations.append(config.done());
  }
  cpu.object("configurations", configurations);
  d.object("cpu", cpu.done());

  // GPU tracing.
  DictBuilder gpu;
  gpu.object("kernels",
             named_totals(p.kernels, names, cudaevent::kKernelNameKind, p.pid, "name_id"));
  py::list copies;
  for (const auto& copy : p.copies) {
    DictBuilder c;
    c.name("kind", copy_kind_name(copy.first));
    c.u64("copy_kind", copy.first);
    c.u64("count", copy.second.count);
    c.u64("bytes", copy.second.bytes);
    c.u64("total_ns", copy.second.total_ns);
    copies.append(c.done());
  }
  gpu.object("copies", copies);
  gpu.object("memsets", totals_dict(p.memsets, true));
  py::list syncs;
  for (const auto& sync : p.syncs) {
    DictBuilder s;
    s.name("type", sync_type_name(sync.first));
    s.u64("sync_type", sync.first);
    s.u64("count", sync.second.count);
    s.u64("total_ns", sync.second.total_ns);
    syncs.append(s.done());
  }
  gpu.object("syncs", syncs);
  gpu.object("driver", totals_dict(p.driver, false));
  gpu.object("runtime", totals_dict(p.runtime, false));
  gpu.object("api_calls",
             named_totals(p.calls_by_function(), names, cudaevent::kFunctionNameKind, p.pid,
                          "func_name_id"));
  d.object("gpu", gpu.done());

  // The record helper counts the time producers waited for a free buffer, but
  // only in memory: no capture file carries it.
  d.object("producer_stall_ns", py::none());
  d.text("producer_stall", "not recorded in the file");
  return d.done();
}

py::dict summarize(const py::object& paths_argument, py::object progress) {
  std::vector<Path> paths;
  if (py::isinstance<py::str>(paths_argument) || py::isinstance<py::bytes>(paths_argument) ||
      py::hasattr(paths_argument, "__fspath__")) {
    paths.push_back(fspath(paths_argument));
  } else {
    for (const py::handle& path : paths_argument) paths.push_back(fspath(path));
  }
  // Every file is opened before any is read, so that a bad one fails at once.
  std::vector<FileRead> files;
  uint64_t total = 0;
  for (const Path& path : paths) {
    FileRead file;
    file.path = path;
    file.reader = std::make_unique<ZVKFileReader>();
    open_or_raise(path, file.reader.get());
    total += file.reader->file_size();
    files.push_back(std::move(file));
  }
  // In time order, so that a range begun in one file of a rotation and ended in
  // the next is matched whatever order the files were given in.
  std::stable_sort(files.begin(), files.end(), [](const FileRead& a, const FileRead& b) {
    return a.reader->header()->start_time < b.reader->header()->start_time;
  });

  summary::Summarizer summarizer;
  ProgressCalls calls(progress);
  bool shown = false;
  uint64_t done = 0;
  for (size_t index = 0; index < files.size(); ++index) {
    FileRead& file = files[index];
    summarizer.begin_file(index);
    for (;;) {
      bool more = true;
      {
        py::gil_scoped_release unlocked;
        // Whole buckets until the next progress call is due.
        while (more && !calls.due()) {
          std::unique_ptr<ZVKBucketReader> bucket;
          const Status read = file.reader->next_bucket(&bucket);
          if (read.code_ == error::END_OF_DATA) {
            more = false;
          } else if (!read.ok()) {
            file.problems.push_back(read.msg_);
            file.torn = file.torn || file.reader->torn();
          } else {
            ++file.buckets;
            ZVKRecordReader record;
            while (bucket->get_next_record(record).ok()) {
              summarizer.add(record);
              ++file.records;
            }
          }
        }
      }
      if (!more) break;
      shown = true;
      calls.call(done + file.reader->next_bucket_offset(), total);
    }
    take_count_note(*file.reader, "", &file.problems, &file.unfinished);
    file.damaged = !file.reader->read_whole();
    done += file.reader->file_size();
    file.reader.reset();  // unmaps it
  }
  if (shown) calls.call(total, total);

  py::list file_list, problems;
  for (const FileRead& file : files) {
    ZVKFileReader reader;  // the header again, for the record of the file
    DictBuilder d;
    d.text("path", file.path.text);
    if (reader.open(file.path.bytes).ok()) {
      d.u64("file_size", reader.file_size());
      d.object("header", header_dict(reader.header()));
    }
    d.u64("buckets", file.buckets);
    d.u64("records", file.records);
    py::list file_problems;
    for (const std::string& problem : file.problems) {
      file_problems.append(problem);
      problems.append(file.path.text + ": " + problem);
    }
    d.object("problems", file_problems);
    d.put("torn", PyBool_FromLong(file.torn));
    d.put("damaged", PyBool_FromLong(file.damaged));
    d.text("unfinished", file.unfinished);
    file_list.append(d.done());
  }
  py::list processes;
  for (const auto& entry : summarizer.processes()) {
    processes.append(process_dict(*entry.second, summarizer.names(), files));
  }
  py::dict result;
  result["files"] = file_list;
  result["bytes"] = total;
  result["processes"] = processes;
  result["problems"] = problems;
  return result;
}

// ---- Ranges over columns ------------------------------------------------------

using Int64s = py::array_t<int64_t, py::array::c_style | py::array::forcecast>;
using Flags = py::array_t<uint8_t, py::array::c_style | py::array::forcecast>;
using Int32s = py::array_t<int32_t, py::array::c_style | py::array::forcecast>;

// Keeps the arrays a Rows points into alive; all of one length.
struct RangeColumns {
  RangeColumns(Int64s h, Int64s p, Int64s t, Int64s s, Int64s e, Flags d)
      : host(std::move(h)), pid(std::move(p)), tid(std::move(t)), start(std::move(s)),
        end(std::move(e)), ended(std::move(d)) {
    rows.count = static_cast<size_t>(host.size());
    for (const py::array* column :
         {static_cast<const py::array*>(&pid), static_cast<const py::array*>(&tid),
          static_cast<const py::array*>(&start), static_cast<const py::array*>(&end),
          static_cast<const py::array*>(&ended)}) {
      if (column->ndim() != 1 || static_cast<size_t>(column->size()) != rows.count) {
        throw py::value_error("the range columns must be flat and of one length");
      }
    }
    rows.host = host.data();
    rows.pid = pid.data();
    rows.tid = tid.data();
    rows.start = start.data();
    rows.end = end.data();
    rows.ended = ended.data();
  }

  Int64s host, pid, tid, start, end;
  Flags ended;
  ranges::Rows rows;
};

using UInt64s = py::array_t<uint64_t, py::array::c_style | py::array::forcecast>;

py::tuple pair_annotations(UInt64s begin_pid, UInt64s begin_token, UInt64s end_pid,
                           UInt64s end_token) {
  const size_t begins = static_cast<size_t>(begin_pid.size());
  const size_t ends = static_cast<size_t>(end_pid.size());
  if (static_cast<size_t>(begin_token.size()) != begins ||
      static_cast<size_t>(end_token.size()) != ends || begin_pid.ndim() != 1 ||
      end_pid.ndim() != 1) {
    throw py::value_error("pids and tokens must be flat and of one length");
  }
  py::array_t<int64_t> end_of_begin(static_cast<py::ssize_t>(begins));
  py::array_t<int64_t> begin_of_end(static_cast<py::ssize_t>(ends));
  int64_t* to_end = end_of_begin.mutable_data();
  int64_t* to_begin = begin_of_end.mutable_data();
  {
    py::gil_scoped_release unlocked;
    ranges::pair(begin_pid.data(), begin_token.data(), begins, end_pid.data(), end_token.data(),
                 ends, to_end, to_begin);
  }
  return py::make_tuple(end_of_begin, begin_of_end);
}

py::tuple nest_ranges(Int64s host, Int64s pid, Int64s tid, Int64s start, Int64s end,
                      Flags ended) {
  const RangeColumns columns(std::move(host), std::move(pid), std::move(tid), std::move(start),
                             std::move(end), std::move(ended));
  py::array_t<int32_t> depth(static_cast<py::ssize_t>(columns.rows.count));
  py::array_t<int64_t> parent(static_cast<py::ssize_t>(columns.rows.count));
  int32_t* depths = depth.mutable_data();
  int64_t* parents = parent.mutable_data();
  {
    py::gil_scoped_release unlocked;
    ranges::nest(columns.rows, depths, parents);
  }
  return py::make_tuple(depth, parent);
}

py::array_t<int64_t> innermost_ranges(Int64s host, Int64s pid, Int64s tid, Int64s start,
                                      Int64s end, Flags ended, Int32s depth,
                                      Int64s query_host, Int64s query_pid, Int64s query_tid,
                                      Int64s query_time, size_t window) {
  const RangeColumns columns(std::move(host), std::move(pid), std::move(tid), std::move(start),
                             std::move(end), std::move(ended));
  const size_t queries = static_cast<size_t>(query_host.size());
  if (static_cast<size_t>(depth.size()) != columns.rows.count ||
      static_cast<size_t>(query_pid.size()) != queries ||
      static_cast<size_t>(query_tid.size()) != queries ||
      static_cast<size_t>(query_time.size()) != queries) {
    throw py::value_error("the depths and the query columns must match their rows");
  }
  py::array_t<int64_t> found(static_cast<py::ssize_t>(queries));
  int64_t* out = found.mutable_data();
  {
    py::gil_scoped_release unlocked;
    ranges::innermost(columns.rows, depth.data(), query_host.data(), query_pid.data(),
                      query_tid.data(), query_time.data(), queries, window, out);
  }
  return found;
}

}  // namespace
}  // namespace zorvek

PYBIND11_MODULE(_reader, m) {
  using zorvek::Batches;
  using zorvek::CaptureFile;
  m.doc() =
      "Zorvek's capture file reader: records decoded in C++, as one list of dicts per bucket "
      "or as NumPy columns per kind of record, and the summary's numbers added up in C++.";

  py::class_<CaptureFile>(m, "CaptureFile", R"doc(
A capture file (.zvkraw), opened and its header read.

CaptureFile(path) raises OSError when the file can't be read and ValueError
("PATH: not a Zorvek capture file") for bytes that aren't a capture.
)doc")
      .def(py::init<const py::object&>(), py::arg("path"))
      .def_property_readonly("path",
                             [](const CaptureFile& self) {
                               // The name as os.fsdecode gives it, so that it opens again.
                               const std::string& bytes = self.file().bytes;
                               return zorvek::owned(PyUnicode_DecodeFSDefaultAndSize(
                                   bytes.data(), static_cast<Py_ssize_t>(bytes.size())));
                             })
      .def_property_readonly("file_size", &CaptureFile::file_size)
      .def_property_readonly("header", &CaptureFile::header,
                             "version, compression, pid, start_time, end_time, clock_shift, "
                             "num_buckets, hostname, job_uid, instance_type, cpu_model, ...")
      .def_property_readonly("problems", &CaptureFile::problems,
                             "What the last iteration found missing: damage skipped, a torn "
                             "last bucket, buckets the header counts that the file lacks.")
      .def_property_readonly("torn", &CaptureFile::torn,
                             "Whether the last iteration ended at a torn last bucket.")
      .def_property_readonly("damaged", &CaptureFile::damaged,
                             "Whether the last iteration found the file damaged or cut: "
                             "anything in `problems`.")
      .def_property_readonly("unfinished", &CaptureFile::unfinished,
                             "After an iteration, a note when the header was never finished "
                             "(the process ended without stopping the capture): every bucket "
                             "in the file was read, but the file isn't damaged for it. Empty "
                             "otherwise.")
      .def_property_readonly("buckets", &CaptureFile::buckets,
                             "Whole buckets the last iteration read.")
      .def(
          "batches",
          [](CaptureFile& self, const py::object& kinds, py::object progress) {
            return std::make_unique<Batches>(self, kinds, std::move(progress));
          },
          py::arg("kinds") = py::none(), py::arg("progress") = py::none(), py::keep_alive<0, 1>(),
          R"doc(
Iterates over the file's whole buckets: one list of record dicts per bucket (a
bucket without a record of `kinds` yields none). `kinds`: event names to keep
("BEGIN", "SAMPLE", "MMAP", "STACK", "PYCODE", "KERNEL", ...), or None for all. `progress(done,
total)`, in bytes, is called at most five times a second. Damage is skipped and
noted in `problems`. One iterator is read by one thread at a time: next() while
another thread's next() is under way raises RuntimeError.
)doc")
      .def(
          "columns",
          [](CaptureFile& self, const py::object& kinds, py::object progress) {
            return std::make_unique<zorvek::ColumnGroups>(self, kinds, std::move(progress));
          },
          py::arg("kinds") = py::none(), py::arg("progress") = py::none(), py::keep_alive<0, 1>(),
          R"doc(
Iterates over the file's records as NumPy columns, with no Python object per
record: per group of whole buckets (about 4 MB of records, so memory stays
bounded), a dict of event name ("BEGIN", "STACK", ...) -> that kind's records as
{field: array}, rows in file order. `kinds`, `progress`, the problems noted
and the one-thread rule are those of batches().

The fields are those batches() gives each record, kept thus:
- numbers: one array a field (uint64; int64 for first_line), "decoded" (bool)
  false where the payload was too short for its kind, whose other payload
  fields then hold zero;
- flags ("waiting", "linetable_cut"): bool arrays;
- names from a fixed set ("hw", "event", "clock", "table"): uint8 codes F into
  the tuple F_labels;
- text, file names and bytes ("msg", "qualname", "filename", "name",
  "linetable", "raw"): the bytes of all rows end to end as uint8 F, and int32
  F_offsets, one more than the rows, row i being F[F_offsets[i]:F_offsets[i+1]]
  (Arrow's string layout: StringArray.from_buffers takes them as they are);
  text is UTF-8 as captured, file names their bytes as mapped;
- address lists ("chain", "ips", "monotonic_raw", "realtime"): uint64 F and
  F_offsets, as above (Arrow's list layout);
- "grid" and "block": int32 arrays of shape (rows, 3);
- Python frames ("py"), leaf first: py_code_id, py_instruction (uint32),
  py_entry (bool), and py_offsets.
)doc")
      .def("__repr__", [](const CaptureFile& self) {
        return "<CaptureFile " + self.path() + " (" + std::to_string(self.file_size()) +
               " bytes)>";
      });

  m.attr("EVENT_NAMES") = zorvek::KindFilter::names();

  // The exit statuses of the commands that read captures, the same as zvkdump's.
  m.attr("EXIT_READ_WHOLE") = zorvek::kExitReadWhole;
  m.attr("EXIT_NOT_READ") = zorvek::kExitNotRead;
  m.attr("EXIT_USAGE") = zorvek::kExitUsage;
  m.attr("EXIT_DAMAGED") = zorvek::kExitDamaged;
  m.attr("EXIT_STATUS_HELP") = zorvek::exit_status_help();

  py::class_<zorvek::ColumnGroups>(m, "ColumnGroups")
      .def("__iter__", [](zorvek::ColumnGroups& self) -> zorvek::ColumnGroups& { return self; })
      .def("__next__", &zorvek::ColumnGroups::next);

  py::class_<Batches>(m, "Batches")
      .def("__iter__", [](Batches& self) -> Batches& { return self; })
      .def("__next__", &Batches::next);

  m.def(
      "python_line",
      [](uint32_t py_version, int first_line, py::buffer linetable, uint32_t offset) {
        const py::buffer_info table = linetable.request();
        if (table.ndim != 1 || table.itemsize != 1 || table.strides[0] != 1) {
          throw py::type_error("linetable must be contiguous bytes");
        }
        return zorvek::python_line(py_version, first_line, static_cast<const uint8_t*>(table.ptr),
                                   static_cast<size_t>(table.size), offset);
      },
      py::arg("py_version"), py::arg("first_line"), py::arg("linetable"), py::arg("offset"),
      R"doc(
The source line of the instruction at byte `offset` of a code object, from its
line table (a PYCODE record's "linetable") in the format of the interpreter
`py_version` (PY_VERSION_HEX, 3.10 and later) and its `first_line`; -1 when the
instruction has no line or the table doesn't say.
)doc");

  m.def("pair_annotations", &zorvek::pair_annotations, py::arg("begin_pid"),
        py::arg("begin_token"), py::arg("end_pid"), py::arg("end_token"),
        R"doc(
BEGIN and END records paired by (pid, token), as columns in file order. Returns
(end_of_begin, begin_of_end): int64, for each begin the index of its end and for
each end that of its begin, -1 where there is none. A token pairs once: the
first end of a begun token ends it, and a second begin or end of it stays alone.
)doc");

  m.def("nest_ranges", &zorvek::nest_ranges, py::arg("host"), py::arg("pid"), py::arg("tid"),
        py::arg("start"), py::arg("end"), py::arg("ended"),
        R"doc(
Lays annotation ranges in each other per thread, in one pass. The columns, of
one length, are rows sorted by thread (host, pid, tid, as integers), then by
start, the longer range first where two start together; `ended` (bool) is false
for a range that never ended (its `end` is then ignored: it holds what follows
it on its thread). Returns (depth, parent): int32 how many ranges of the thread
hold each row's start, and int64 the row of the innermost of them, or -1.
)doc");

  m.def("innermost_ranges", &zorvek::innermost_ranges, py::arg("host"), py::arg("pid"),
        py::arg("tid"), py::arg("start"), py::arg("end"), py::arg("ended"), py::arg("depth"),
        py::arg("query_host"), py::arg("query_pid"), py::arg("query_tid"),
        py::arg("query_time"), py::arg("window") = 64,
        R"doc(
For each query (host, pid, tid, time), the row of the deepest ended range of
that thread open at that time (start <= time <= end), or -1: int64. The rows are
those given nest_ranges, with the depths it returned. Of a thread's ended ranges
that start by the time, only the last `window` are looked at; of equally deep
ones, the later row.
)doc");

  m.def("summarize", &zorvek::summarize, py::arg("paths"), py::arg("progress") = py::none(),
        R"doc(
Adds up capture files in C++, streaming: per process (files of one pid merged),
annotation ranges by name (count, total, mean, p50, p99, share of wall time),
CPU samples by thread and by instruction pointer, the mappings, lost samples and
throttles, GPU kernels by name, copies by kind, memsets, synchronizations, API
calls by function, and records by kind. Raises as CaptureFile does for a file
that can't be opened. Per file: damage, torn ends and buckets its header counts
that it lacks go to "problems" ("damaged" is then true); "unfinished" is a note
when its header was never finished, else empty.
)doc");
}
