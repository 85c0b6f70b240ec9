// A pybind11 function that does nothing with a str argument: the floor under
// _zorv.annotation_begin's cost. Built for the benchmark only.
#include <pybind11/pybind11.h>

PYBIND11_MODULE(_zorv_bench_noop, m) {
  m.def("noop_str", [](const pybind11::str&) { return 0; });
  m.def("noop_int", [](uint64_t) {});
}
