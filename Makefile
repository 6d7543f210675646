# Thin wrapper over CMake.  `make demo` builds and runs the demo; `make test`
# builds and runs every test in the normal and the sanitizer build.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

.PHONY: all deps build build-asan test test-normal test-asan demo bench install clean

all: build

deps:
	@sh scripts/deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)
	cmake --build $(BUILD) -j$(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DVESK_SANITIZE=ON -DVESK_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j$(JOBS)

test: test-normal test-asan

test-normal: build
	cd $(BUILD) && ctest -j$(JOBS) --output-on-failure

test-asan: build-asan
	cd $(ASAN_BUILD) && ctest -j$(JOBS) --output-on-failure

demo: build
	$(BUILD)/veskbandwidth demo

bench: build
	$(BUILD)/bench/vbw-bench

install: build
	cmake --install $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
