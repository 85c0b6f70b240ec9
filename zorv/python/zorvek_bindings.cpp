// _zorv: the profiler's door to Python. Everything forwards to the controller;
// the one convenience is that a script that forgets to configure gets defaults.
// No call releases the interpreter lock: the controller relies on it to
// serialise its callers.

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <map>
#include <sstream>
#include <string>

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

  py::class_<Status>(m, "Status")
      .def(py::init<error::Code, std::string>())
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
}
