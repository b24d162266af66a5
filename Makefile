# Quick start:  make demo   (runs the demo against a simulated world, examples/worlds/)
#               make test   (builds and runs every test, also under sanitizers)
# Both install the Debian packages they need when missing (as root, with apt-get).

SHELL := /bin/bash
BUILD ?= build
JOBS ?= $(shell nproc)
PACKAGES = cmake g++ make pkg-config libusb-1.0-0-dev libumockdev-dev umockdev libglib2.0-dev \
           libgtest-dev valgrind clang libtomlplusplus-dev
CMAKE_FLAGS ?=

.PHONY: all deps build demo test test-plain test-asan test-tsan bench fuzz install clean

all: build

deps:
	@missing=""; for p in $(PACKAGES); do \
	  dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" = 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing >/dev/null; \
	fi

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j$(JOBS)

WORLD ?= examples/worlds/two_adapters.toml
demo: build
	$(BUILD)/polybus-sim --world $(WORLD) -- $(BUILD)/polybus-demo examples/worlds/powertrain.dbc

test: test-plain test-asan test-tsan

test-plain: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

test-asan: deps
	cmake -S . -B $(BUILD)-asan -DPOLYBUS_SANITIZE=address,undefined -DPOLYBUS_BENCH=OFF
	cmake --build $(BUILD)-asan -j$(JOBS)
	cd $(BUILD)-asan && ctest --output-on-failure -j$(JOBS)

# The threaded tests (label "threaded") under ThreadSanitizer; only they are built.
THREADED_TESTS = $(notdir $(basename $(wildcard tests/unit/*threaded*.cpp tests/e2e/*threaded*.cpp)))
test-tsan: deps
	cmake -S . -B $(BUILD)-tsan -DPOLYBUS_SANITIZE=thread -DPOLYBUS_BENCH=OFF
	cmake --build $(BUILD)-tsan -j$(JOBS) --target $(THREADED_TESTS)
	cd $(BUILD)-tsan && ctest --output-on-failure -L threaded

# Every benchmark runs; a figure that misses its target prints a "MISS: ..." line
# (bench/bench_report.h), and a benchmark that fails without saying what missed
# counts as one. The list comes at the end, and any entry fails the target.
bench: build
	@misses=$$(mktemp); out=$$(mktemp); \
	run() { name=$$1; shift; echo "== $$name"; \
	  "$$@" 2>&1 | tee $$out; status=$${PIPESTATUS[0]}; \
	  grep '^MISS: ' $$out | sed "s|^MISS: |$$name: |" >> $$misses; \
	  if [ $$status -ne 0 ] && ! grep -q '^MISS: ' $$out; then \
	    echo "$$name: exited with status $$status" >> $$misses; fi; }; \
	for b in $(BUILD)/bench/bench_*; do [ -x $$b ] || continue; run $${b##*/} $$b; done; \
	run exchange_instructions bench/exchange_instructions.sh $(BUILD)/bench/bench_exchange; \
	run ldf_growth_instructions bench/ldf_growth_instructions.sh $(BUILD)/bench/bench_ldf; \
	echo; if [ -s $$misses ]; then echo "== figures that missed their targets:"; cat $$misses; \
	  rm -f $$misses $$out; exit 1; fi; \
	echo "== every figure met its target"; rm -f $$misses $$out

fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(BUILD)-fuzz -DPOLYBUS_FUZZ=ON -DPOLYBUS_TESTS=OFF -DPOLYBUS_BENCH=OFF -DPOLYBUS_SIM=OFF
	cmake --build $(BUILD)-fuzz -j$(JOBS)

install: build
	cmake --install $(BUILD)

clean:
	rm -rf $(BUILD) $(BUILD)-asan $(BUILD)-tsan $(BUILD)-fuzz
