# Thin wrapper over CMake. `make test` sets up a fresh Debian machine, builds
# twice (plain, and under AddressSanitizer + UndefinedBehaviorSanitizer) and
# runs the whole suite in both builds.
BUILD      ?= build
SAN_BUILD  ?= build-san
JOBS       ?= $(shell nproc)
CMAKE_GEN  ?= -G Ninja

export ASAN_OPTIONS  ?= detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS ?= halt_on_error=1:print_stacktrace=1

.PHONY: all deps build build-san test test-plain test-san bench demo clean

all: build

deps:
	bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) -j $(JOBS)

build-san: deps
	cmake -S . -B $(SAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DKORV_SANITIZE=ON
	cmake --build $(SAN_BUILD) -j $(JOBS)

test-plain: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300

test-san: build-san
	cd $(SAN_BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

test: test-plain test-san

bench: build
	cmake --build $(BUILD) --target korv_bench -j $(JOBS)
	$(BUILD)/bench/korv_bench

demo: build
	bash scripts/demo.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(SAN_BUILD)
