# Thin wrapper over CMake.  `make demo` builds and runs the demo; `make test`
# runs each fuzz target for a bounded number of inputs, then builds and runs
# every test in the normal and the sanitizer build.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
FUZZ_BUILD ?= build-fuzz
FUZZ_RUNS  ?= 20000
FUZZ_TARGETS = fuzz_section_reader fuzz_rewrite fuzz_convert

.PHONY: all deps build build-asan test test-normal test-asan fuzz demo bench install clean

all: build

deps:
	@sh scripts/deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)
	cmake --build $(BUILD) -j$(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DVESK_SANITIZE=ON -DVESK_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j$(JOBS)

test: fuzz test-normal test-asan

test-normal: build
	cd $(BUILD) && ctest -j$(JOBS) --output-on-failure

test-asan: build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 ctest -j$(JOBS) --output-on-failure

# The libFuzzer targets, built with clang (AddressSanitizer, UBSan), each run
# inside the sandbox for $(FUZZ_RUNS) inputs from the seeds in fuzz/corpus/;
# the inputs they find and any crash file stay in $(FUZZ_BUILD).
fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_FUZZ=ON \
	    -DVESK_BUILD_TESTS=OFF -DVESK_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(FUZZ_BUILD) -j$(JOBS) --target vbw-sandbox fuzz_targets
	@set -e; passed=0; for target in $(FUZZ_TARGETS); do \
	    echo "fuzzing $$target for $(FUZZ_RUNS) inputs"; \
	    mkdir -p $(FUZZ_BUILD)/corpus/$$target; \
	    $(FUZZ_BUILD)/vbw-sandbox $(FUZZ_BUILD)/fuzz/$$target -runs=$(FUZZ_RUNS) -dict=fuzz/section.dict \
	        -artifact_prefix=$(FUZZ_BUILD)/fuzz/$$target- $(FUZZ_BUILD)/corpus/$$target fuzz/corpus/$$target; \
	    passed=$$((passed + 1)); \
	done; echo "fuzz: $$passed passed, 0 failed"

demo: build
	$(BUILD)/veskbandwidth demo

bench: build
	$(BUILD)/bench/vbw-bench
	$(BUILD)/bench/vbw-preload-bench

install: build
	cmake --install $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
