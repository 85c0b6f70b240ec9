// _zorv: the profiler's door to Python. Everything forwards to the controller;
// the one convenience is that a script that forgets to configure gets defaults.
// No call releases the interpreter lock: the controller relies on it to
// serialise its callers.

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <structmember.h>

#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "zorv/cpu/pyframes.h"
#include "zorv/cpu/pythonlayout.h"
#include "zorv/io/zvkbufferrecordhelper.h"
#include "zorv/utils/logging.h"
#include "zorv/utils/status.h"
#include "zorv/zorv.h"

namespace py = pybind11;

namespace zorvek {
namespace {

// Enters a section only if its map is non-empty.
Status ZorvConfigTrampoline(Zorv* self, ZVKConfig config) {
  std::map<std::string, ZVKConfigSection> sections;
  if (!config.self_config.empty()) sections["ZORV"] = std::move(config.self_config);
  if (!config.cuda_config.empty()) sections["CUDA"] = std::move(config.cuda_config);
  if (!config.perf_config.empty()) sections["PERF"] = std::move(config.perf_config);
  return self->configure(std::move(sections));
}

void configure_with_defaults(Zorv& zorv) {
  LOG(WARNING) << "Profiler is not configured. Use default settings";
  ZorvConfigTrampoline(&zorv, ZVKConfig::default_config());
}

std::string config_repr(const ZVKConfig& config) {
  std::ostringstream text;
  const std::pair<const char*, const ZVKConfigSection*> sections[] = {
      {"ZORV:", &config.self_config}, {"CUDA:", &config.cuda_config}, {"PERF:", &config.perf_config}};
  for (const auto& section : sections) {
    text << section.first << "\n";
    for (const auto& entry : *section.second) {
      text << "\t " << entry.first << " : " << entry.second << "\n";
    }
  }
  return text.str();
}

Zorv& annotating_controller() {
  static Zorv& zorv = Zorv::instance();
  if (!zorv.is_configured()) configure_with_defaults(zorv);
  return zorv;
}

// The interpreter's own buffers: a str's cached UTF-8 (no copy for the common
// compact strings) and a bytes object's data both end in a NUL. The argument is
// checked before anything runs, so a bad one leaves the profiler untouched.
uint64_t annotation_begin(const py::handle& message) {
  const char* text = nullptr;
  Py_ssize_t size = 0;
  if (PyUnicode_Check(message.ptr())) {
    text = PyUnicode_AsUTF8AndSize(message.ptr(), &size);
    if (text == nullptr) {
      PyErr_Clear();
      throw py::type_error("annotation_begin(): the message must be encodable as UTF-8");
    }
  } else if (PyBytes_Check(message.ptr())) {
    text = PyBytes_AS_STRING(message.ptr());
    size = PyBytes_GET_SIZE(message.ptr());
  } else {
    throw py::type_error(std::string("annotation_begin(): the message must be str or bytes, not ") +
                         Py_TYPE(message.ptr())->tp_name);
  }
  return annotating_controller().annotate_begin(text, static_cast<uint64_t>(size));
}

void annotation_end(uint64_t token) {
  static Zorv& zorv = Zorv::instance();
  if (!zorv.is_configured()) {
    LOG(ERROR) << "Profiler is not configured. Configure profiler first!";
    return;
  }
  zorv.annotate_end(token);
}


// ---- Private to the zorvek package ----------------------------------------------
//
// _Range is the type behind zorvek.annotate: a context manager over one annotation
// range, written against the C API, not through pybind11. `with annotate("step"):`
// has to cost about what the two bare calls cost, and pybind11's argument dispatch
// alone is about half of a bare call. Unlike annotation_begin, it never configures
// the profiler: on a profiler nobody configured, entering and leaving do nothing
// (the controller drops the range), so an annotated library costs next to nothing
// in a process that isn't profiled and can't reserve the default buffers by
// accident.
struct RangeObject {
  PyObject_HEAD
  PyObject* message;       // the str or bytes given; a str holds its UTF-8 form cached
  const char* text;        // that UTF-8 form, or the bytes' data
  Py_ssize_t size;
  // Threads are told apart by PyThreadState_GetID, never by the PyThreadState's
  // address: a thread that ended with an entry open (a generator suspended inside
  // the range, say) frees its state, the next thread may get the same address, and
  // its exit would then end the dead thread's range. The id is never reused.
  bool entered;            // whether owner and token hold an entry
  uint64_t owner;          // the id of the thread that holds `token`
  uint64_t token;
  // The same object entered again while entered: nested in one thread, or from
  // another thread. Rare, so kept apart from the fields the common case touches.
  std::vector<std::pair<uint64_t, uint64_t>>* more;
};

Zorv& range_controller() {
  static Zorv& zorv = Zorv::instance();
  return zorv;
}

PyObject* range_new(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
  PyObject* message = nullptr;
  if ((kwargs != nullptr && PyDict_GET_SIZE(kwargs) != 0) || PyTuple_GET_SIZE(args) != 1) {
    PyErr_SetString(PyExc_TypeError, "annotate() takes exactly one argument, the range's name");
    return nullptr;
  }
  message = PyTuple_GET_ITEM(args, 0);
  const char* text = nullptr;
  Py_ssize_t size = 0;
  if (PyUnicode_Check(message)) {
    text = PyUnicode_AsUTF8AndSize(message, &size);
    if (text == nullptr) {
      PyErr_Clear();
      PyErr_SetString(PyExc_TypeError, "annotate(): the name must be encodable as UTF-8");
      return nullptr;
    }
  } else if (PyBytes_Check(message)) {
    text = PyBytes_AS_STRING(message);
    size = PyBytes_GET_SIZE(message);
  } else {
    PyErr_Format(PyExc_TypeError, "annotate(): the name must be str or bytes, not %s",
                 Py_TYPE(message)->tp_name);
    return nullptr;
  }
  auto* self = reinterpret_cast<RangeObject*>(type->tp_alloc(type, 0));
  if (self == nullptr) return nullptr;
  Py_INCREF(message);
  self->message = message;
  self->text = text;
  self->size = size;
  self->entered = false;
  self->owner = 0;
  self->token = 0;
  self->more = nullptr;
  return reinterpret_cast<PyObject*>(self);
}

void range_dealloc(PyObject* object) {
  auto* self = reinterpret_cast<RangeObject*>(object);
  PyTypeObject* type = Py_TYPE(object);
  Py_XDECREF(self->message);
  delete self->more;
  type->tp_free(object);
  Py_DECREF(type);  // a heap type: each instance holds a reference to it
}

PyObject* range_enter(PyObject* object, PyObject*) {
  auto* self = reinterpret_cast<RangeObject*>(object);
  const uint64_t token = range_controller().annotate_begin(self->text, static_cast<uint64_t>(self->size));
  const uint64_t thread = PyThreadState_GetID(PyThreadState_Get());
  if (__builtin_expect(!self->entered, 1)) {
    self->entered = true;
    self->owner = thread;
    self->token = token;
  } else {
    if (self->more == nullptr) self->more = new std::vector<std::pair<uint64_t, uint64_t>>();
    self->more->emplace_back(thread, token);
  }
  Py_INCREF(object);
  return object;
}

// Ends the calling thread's innermost entry of this object. An exit with no
// matching entry does nothing. Never suppresses the exception.
PyObject* range_exit(PyObject* object, PyObject* const*, Py_ssize_t) {
  auto* self = reinterpret_cast<RangeObject*>(object);
  const uint64_t thread = PyThreadState_GetID(PyThreadState_Get());
  if (__builtin_expect(self->more != nullptr, 0)) {
    for (auto entry = self->more->rbegin(); entry != self->more->rend(); ++entry) {
      if (entry->first == thread) {
        const uint64_t token = entry->second;
        self->more->erase(std::next(entry).base());
        range_controller().annotate_end(token);
        Py_RETURN_FALSE;
      }
    }
  }
  if (self->entered && self->owner == thread) {
    self->entered = false;
    range_controller().annotate_end(self->token);
  }
  Py_RETURN_FALSE;
}

PyObject* range_repr(PyObject* object) {
  return PyUnicode_FromFormat("%s(%R)", Py_TYPE(object)->tp_name,
                              reinterpret_cast<RangeObject*>(object)->message);
}

PyMethodDef range_methods[] = {
    {"__enter__", range_enter, METH_NOARGS, "Opens the range on the calling thread."},
    {"__exit__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(range_exit)),
     METH_FASTCALL, "Closes the calling thread's innermost open entry of this range."},
    {nullptr, nullptr, 0, nullptr}};

PyMemberDef range_members[] = {
    {const_cast<char*>("name"), T_OBJECT_EX, offsetof(RangeObject, message), READONLY,
     const_cast<char*>("The range's name, as given.")},
    {nullptr, 0, 0, 0, nullptr}};

PyType_Slot range_slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(range_new)},
    {Py_tp_dealloc, reinterpret_cast<void*>(range_dealloc)},
    {Py_tp_repr, reinterpret_cast<void*>(range_repr)},
    {Py_tp_methods, range_methods},
    {Py_tp_members, range_members},
    {Py_tp_doc, const_cast<char*>("_Range(name): an annotation range as a context manager, "
                                  "for zorvek.annotate.")},
    {0, nullptr}};

PyType_Spec range_spec = {"_zorv._Range", sizeof(RangeObject), 0,
                          Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, range_slots};

// Tells the samplers where this interpreter keeps its frames. On an interpreter
// whose published offsets disagree with its headers, Python frames stay off.
void register_python_layout() {
  static PythonLayout layout;
  char mismatch[96] = "";
  if (zorv_fill_python_layout(&layout, mismatch, sizeof(mismatch))) {
    if (layout.thread_pthread >= 0) layout.pthread_tid = find_pthread_tid_offset();
    set_python_layout(&layout);
  } else {
    LOG(WARNING) << "Python frames are off: the interpreter's offset of " << mismatch
                 << " differs from the headers the module was built with";
  }
}

// The names of the codes the private stack hook met. Its walker runs only under
// the interpreter lock, outside signal handlers, so a map will do.
class CodeNames final : public PythonCodeSink {
 public:
  struct Code {
    std::string qualname;
    std::string filename;
    int32_t first_line;
  };
  bool on_new_code(const perfevent::ZVKPythonCode& header, const char* qualname,
                   const char* filename, const uint8_t*) override {
    codes_[header.code_id] = Code{qualname, filename, header.first_line};
    return true;
  }
  const Code& code(uint32_t id) { return codes_[id]; }

 private:
  std::map<uint32_t, Code> codes_;
};

py::list python_stack() {
  py::list stack;
  const PythonLayout* layout = python_layout();
  if (layout == nullptr) return stack;
  static CodeNames names;
  static PythonFrameWalker walker(*layout, &names);
  perfevent::ZVKPythonFrame frames[512];
  bool cut = false;
  const size_t count = walker.walk(walker.current_thread_state(), frames, 512, &cut);
  for (size_t i = 0; i < count; ++i) {
    const CodeNames::Code& code = names.code(frames[i].code_id);
    stack.append(py::make_tuple(code.qualname, code.filename, code.first_line,
                                frames[i].instruction & perfevent::kPythonInstructionMask,
                                (frames[i].instruction & perfevent::kPythonFrameEntry) != 0));
  }
  return stack;
}

}  // namespace
}  // namespace zorvek

PYBIND11_MODULE(_zorv, m) {
  using namespace zorvek;
  m.doc() = "This is a thin layer of python over zorv implementation";

  py::enum_<error::Code>(m, "ErrorCode", py::arithmetic())
      .value("OK", error::OK)
      .value("InvalidArgument", error::INVALID_ARGUMENT)
      .value("Unsupported", error::UNSUPPORTED)
      .value("FailedPrecondition", error::FAILED_PRECONDITION)
      .value("PermissionDenied", error::PERMISSION_DENIED)
      .value("Unimplemented", error::UNIMPLEMENTED)
      .value("InsufficientResources", error::INSUFFICIENT_RESOURCES)
      .value("Failure", error::FAILURE)
      .value("EndOfData", error::END_OF_DATA);

  // The code is what a caller branches on; the message is for people.
  py::class_<Status>(m, "Status")
      .def(py::init<error::Code, std::string>())
      .def_property_readonly("code", [](const Status& status) { return status.code_; })
      .def("__repr__", [](const Status& status) { return status.msg_; });

  py::class_<ZVKConfig>(m, "Config")
      .def(py::init<>())
      .def_readwrite("profiler", &ZVKConfig::self_config)
      .def_readwrite("cuda", &ZVKConfig::cuda_config)
      .def_readwrite("perf", &ZVKConfig::perf_config)
      .def("__repr__", &config_repr);

  // No constructor, and the Python object doesn't own the controller.
  py::class_<Zorv, std::unique_ptr<Zorv, py::nodelete>>(m, "Zorvek")
      .def_static("instance", &Zorv::instance, py::return_value_policy::reference)
      .def("start_profiling",
           [](Zorv& self) {
             if (!self.is_configured()) configure_with_defaults(self);
             self.start_profiling();
           })
      .def("stop_profiling", &Zorv::stop_profiling)
      .def("suspend_profiling", &Zorv::suspend_profiling)
      .def("resume_profiling", &Zorv::resume_profiling)
      .def("configure", &ZorvConfigTrampoline);

  // Positional arguments only, as the stub says.
  m.def("annotation_begin", &annotation_begin,
        "Opens an annotation range named `message` (str or bytes) on the calling thread and\n"
        "returns its token for annotation_end. Configures the profiler with the defaults\n"
        "if nothing configured it yet.");
  m.def("annotation_end", &annotation_end,
        "Closes the annotation range that annotation_begin returned `token` for.");

  // Private to the zorvek package, which needs to know whether a start worked and,
  // if not, why: start_profiling itself answers None. No default configuration
  // here: starting an unconfigured profiler is answered as the controller answers it.
  m.def("_start_profiling", []() { return Zorv::instance().start_profiling(); },
        "Starts a capture as Zorvek.start_profiling does, without configuring defaults,\n"
        "and returns the start's Status. Private to the zorvek package.");
  m.def("_producer_stall_us",
        []() { return ZVKBufferRecordHelper::process_stall_time_us().load(); },
        "Microseconds the process's record producers have waited for a free buffer, all\n"
        "captures together. Private to the zorvek package, which writes it into captures.");
  register_python_layout();
  m.def("_python_stack", &python_stack,
        "The calling thread's Python frames as the samplers' walker reads them, leaf first:\n"
        "(qualname, filename, first_line, instruction_offset, entry) each. Private, for tests.");
  PyObject* range_type = PyType_FromSpec(&range_spec);
  if (range_type == nullptr) throw py::error_already_set();
  m.add_object("_Range", py::reinterpret_steal<py::object>(range_type));
}
