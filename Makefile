# make test: the whole suite. make demo: train a small model under `zorvek record`
# and show what was captured: summary, timeline and flame graph. Both install what
# they need first.

SHELL := /bin/bash
PYTHON ?= python3
JOBS ?= $(shell nproc)
APT_PACKAGES := g++ cmake ninja-build zlib1g-dev googletest libgtest-dev libbenchmark-dev libunwind8 libunwind-dev binutils llvm chromium golang-go nodejs
PIP_PACKAGES := scikit-build-core pybind11 pytest nvidia-cuda-cupti nvidia-cuda-runtime nvidia-cuda-crt nvidia-nvtx nvtx pyarrow duckdb dask distributed jsonschema
CMAKE_CONFIGURE = cmake -G Ninja -S . -DZORV_BUILD_PYTHON=OFF
# The other CPython versions the tests run programs under, where pyenv has them.
OTHER_PYTHONS := $(wildcard /root/.pyenv/versions/3.10.* /root/.pyenv/versions/3.12.* /root/.pyenv/versions/3.13.*)

.PHONY: deps build test test-cpp test-asan test-tsan test-python install install-pythons torch demo bench clean

# Installs only what is missing, so a set-up machine hears nothing.
deps:
	@missing=$$(for p in $(APT_PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing Debian packages: $$missing"; \
	  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing >/dev/null; \
	fi
	@missing=$$(for p in $(PIP_PACKAGES); do $(PYTHON) -m pip show -q $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing Python packages: $$missing"; \
	  $(PYTHON) -m pip install -q --disable-pip-version-check $$missing; \
	fi

build: deps
	@$(CMAKE_CONFIGURE) -B build/dev -DZORV_BUILD_BENCH=ON >/dev/null
	@ninja -C build/dev -j $(JOBS)

test-cpp: build
	cd build/dev && ctest --output-on-failure -j $(JOBS)

test-asan: deps
	@$(CMAKE_CONFIGURE) -B build/asan -DZORV_SANITIZE=address -DZORV_BUILD_BENCH=OFF >/dev/null
	@ninja -C build/asan -j $(JOBS)
	cd build/asan && ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

# The threaded tests (tests/CMakeLists.txt); failed allocations must come back as
# null, as they do in production, for the tests of configure with too much memory.
# setarch -R keeps TSan's memory layout valid
# on kernels with high mmap randomisation.
test-tsan: deps
	@$(CMAKE_CONFIGURE) -B build/tsan -DZORV_SANITIZE=thread -DZORV_BUILD_BENCH=OFF -DZORV_BUILD_TOOLS=OFF >/dev/null
	@ninja -C build/tsan -j $(JOBS)
	cd build/tsan && TSAN_OPTIONS=halt_on_error=1:allocator_may_return_null=1 setarch $$(uname -m) -R ctest --output-on-failure -j $(JOBS)

install: deps
	$(PYTHON) -m pip install -q --disable-pip-version-check --no-build-isolation .

# The capture module alone in each other interpreter: the views run in $(PYTHON).
# pip's build isolation fetches scikit-build-core, pybind11 and NVIDIA's header
# wheels for each; each build folder (build/cpXY-...) is kept for the next run.
install-pythons: deps
	@for root in $(OTHER_PYTHONS); do \
	  echo "Installing zorvek (capture module) for $$root/bin/python"; \
	  $$root/bin/python -m pip install -q --disable-pip-version-check --root-user-action=ignore \
	    --config-settings=cmake.define.ZORV_BUILD_TOOLS=OFF . || exit 1; \
	done

test-python: install build torch install-pythons
	$(PYTHON) -m pytest -q tests/python

test: test-cpp test-asan test-tsan test-python

# torch for the demo and for the tests that run real training code under the profiler.
torch: deps
	@$(PYTHON) -c "import torch" 2>/dev/null || { echo "Installing torch 2.13.0 (CPU)"; \
	  $(PYTHON) -m pip install -q --disable-pip-version-check torch==2.13.0; }

demo: install torch
	@rm -rf build/demo
	$(PYTHON) -m zorvek record -o build/demo -- $(PYTHON) examples/train_demo.py
	$(PYTHON) -m zorvek summary build/demo
	$(PYTHON) -m zorvek timeline build/demo -o build/demo/trace.pftrace
	$(PYTHON) -m zorvek flame build/demo -o build/demo/flame.svg
	@echo "Open build/demo/trace.pftrace in https://ui.perfetto.dev and build/demo/flame.svg in a browser."

bench: build
	./build/dev/bench/bench_annotate
	./build/dev/bench/bench_writer
	./build/dev/bench/bench_perf_decode
	./build/dev/bench/bench_cuda_callback
	./build/dev/bench/bench_cuda_rotator
	PYTHONPATH=build/dev/bench $(PYTHON) bench/bench_python_annotate.py
	./build/dev/bench/bench_nvtx
	ZORV_NVTX_LIBRARY=build/dev/nvtx/libzorv_nvtx.so $(PYTHON) bench/bench_nvtx.py
	$(PYTHON) bench/bench_summary_speed.py
	$(MAKE) -s torch
	$(PYTHON) bench/bench_training_overhead.py
	@dpkg -s linux-perf >/dev/null 2>&1 || apt-get install -y -qq linux-perf >/dev/null || true; $(PYTHON) bench/bench_sampling_overhead.py
	$(PYTHON) bench/bench_python_sampling.py
	./build/dev/bench/bench_safe_read
	$(PYTHON) bench/bench_export.py

clean:
	rm -rf build
