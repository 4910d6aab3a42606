# Thin wrapper over CMake. `make test` sets up a fresh Debian machine, builds
# three times (plain, under AddressSanitizer + UndefinedBehaviorSanitizer, and
# under ThreadSanitizer) and runs the suite in all three builds; it also
# compiles the library with clang to check its lock annotations.
BUILD      ?= build
SAN_BUILD  ?= build-san
TSAN_BUILD ?= build-tsan
CLANG_BUILD ?= build-clang
JOBS       ?= $(shell nproc)
CMAKE_GEN  ?= -G Ninja
# The builds `make test` runs treat every warning as an error.
TEST_FLAGS ?= -DKORV_WERROR=ON
# Line tables only: enough for file and line in backtraces and sanitizer
# reports, and a fifth less compile time than full debug information.
# DEBUG_INFO=-g gives a build to step through in a debugger.
DEBUG_INFO ?= -g1

export ASAN_OPTIONS  ?= detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS ?= halt_on_error=1:print_stacktrace=1
export TSAN_OPTIONS  ?= halt_on_error=1:second_deadlock_stack=1

.PHONY: all deps build build-san build-tsan check-locks test test-plain test-san test-tsan run-plain run-san run-tsan check bench demo soak fuzz clean

all: build

deps:
	bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 $(DEBUG_INFO) -DNDEBUG" $(TEST_FLAGS)
	cmake --build $(BUILD) -j $(JOBS)

build-san: deps
	cmake -S . -B $(SAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="$(DEBUG_INFO)" \
	  -DKORV_SANITIZE=ON $(TEST_FLAGS)
	cmake --build $(SAN_BUILD) -j $(JOBS)

# The in-process test programs only: the races ThreadSanitizer finds are in
# the library and the client's drive, which these drive from many threads;
# the end-to-end programs and the (single-threaded) fuzz replays run in the
# other two builds.
TSAN_TARGETS ?= korv_tests korv_manager_tests korv_fault_tests korv_client_tests
build-tsan: deps
	cmake -S . -B $(TSAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="$(DEBUG_INFO)" \
	  -DKORV_TSAN=ON $(TEST_FLAGS)
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target $(TSAN_TARGETS)

test-plain: build
	$(MAKE) --no-print-directory run-plain

test-san: build-san
	$(MAKE) --no-print-directory run-san

run-plain:
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300

run-san:
	cd $(SAN_BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

# Everything but the `slow` label (160 MiB through a FUSE mount):
# ThreadSanitizer stretches it from 2 s to 20-80 s, the longest pole of the
# run, and the quota thread racing readers that it exercises is covered here
# by the quota manager tests and the other mount tests.
test-tsan: build-tsan
	$(MAKE) --no-print-directory run-tsan

run-tsan:
	cd $(TSAN_BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300 -L 'unit|fault' -LE fuzz

# The quick loop: the plain build's unit and fault tests.
check: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 120 -L 'unit|fault'

# clang's thread-safety analysis over the library: every member marked
# GUARDED_BY is touched only with its lock held, every REQUIRES function is
# called with it (common/thread_annotations.h). Compiles the library alone.
check-locks: deps
	cmake -S . -B $(CLANG_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Checks \
	  -DCMAKE_CXX_COMPILER=clang++ -DKORV_THREAD_SAFETY=ON $(TEST_FLAGS)
	cmake --build $(CLANG_BUILD) -j $(JOBS) --target korv_internal korvcache

# Each build's tests run while the next build compiles (scripts/alongside.sh).
test: check-locks build
	bash scripts/alongside.sh '$(MAKE) --no-print-directory run-plain' '$(MAKE) --no-print-directory build-san'
	bash scripts/alongside.sh '$(MAKE) --no-print-directory run-san' '$(MAKE) --no-print-directory build-tsan'
	$(MAKE) --no-print-directory run-tsan

# The micro-benchmarks (about 35 s), then the client benchmark (nginx, FUSE
# mounts, rclone; about 5 minutes, stopped at 13): figures and targets in
# bench/README.md.
bench: build
	bash scripts/install-deps.sh --bench
	cmake --build $(BUILD) --target korv_bench client_bench_tools -j $(JOBS)
	$(BUILD)/bench/korv_bench
	timeout --kill-after=60 4500 bash bench/client_bench.sh $(BUILD)

demo: build
	bash scripts/demo.sh $(BUILD)

# The fault sweep (many clients with injected faults on one manager) for
# minutes instead of its few rounds in `make test`, under the sanitizers.
# SOAK_SECONDS=600 make soak runs longer.
SOAK_SECONDS ?= 120
soak: deps
	cmake -S . -B $(SAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DKORV_SANITIZE=ON
	cmake --build $(SAN_BUILD) --target korv_fault_tests -j $(JOBS)
	KORV_FAULT_SWEEP_SECONDS=$(SOAK_SECONDS) $(SAN_BUILD)/tests/korv_fault_tests --gtest_filter='FaultSweep.*'

# libFuzzer on every fuzz target, FUZZ_SECONDS each, under ASan + UBSan, with
# clang; not part of `make test`, whose builds replay the corpora only.
# Findings stay in $(FUZZ_BUILD)/fuzz-runs; the summary says how to merge them.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= read_path
fuzz:
	bash scripts/install-deps.sh --fuzz
	cmake -S . -B $(FUZZ_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_CXX_COMPILER=clang++ -DKORV_FUZZ=ON
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target $(addprefix korv_fuzz_,$(FUZZ_TARGETS))
	bash fuzz/run_fuzzers.sh $(FUZZ_BUILD) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

clean:
	rm -rf $(BUILD) $(SAN_BUILD) $(TSAN_BUILD) $(CLANG_BUILD) $(FUZZ_BUILD)
