# Thin front door over CMake. The machines have two cores.

JOBS       ?= 2
CTEST_JOBS ?= 2
CMAKE      ?= cmake
CTEST      ?= ctest
BUILD_DIR  ?= build

SAN_ENV := ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
           UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

FORMAT_DIRS := src include tests tools

.PHONY: all build test test-build test-asan clean format fuzz soak bench demo memcheck

all: build

build:
	$(CMAKE) -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release
	$(CMAKE) --build $(BUILD_DIR) -j$(JOBS)

# Records demo.mp4 and demo.mov from the bundled H.264 and AAC sample streams with the tool.
DEMO_VIDEO := tests/data/sample.h264
DEMO_AUDIO := tests/data/sample.aac

demo:
	$(CMAKE) -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release
	$(CMAKE) --build $(BUILD_DIR) -j$(JOBS) --target mp4kit_tool
	$(BUILD_DIR)/mp4kit record -o demo.mp4 --h264 $(DEMO_VIDEO) --aac $(DEMO_AUDIO)
	$(BUILD_DIR)/mp4kit record -o demo.mov --h264 $(DEMO_VIDEO) --aac $(DEMO_AUDIO)

# Plain build with warnings as errors, then the same suites under ASan+UBSan.
# The sanitizer run goes last so its CTest summary closes the output.
test: test-build test-asan

test-build:
	$(CMAKE) -S . -B $(BUILD_DIR)/test -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DMP4KIT_WERROR=ON -DMP4KIT_SANITIZE=OFF -DMP4KIT_BUILD_TESTS=ON
	$(CMAKE) --build $(BUILD_DIR)/test -j$(JOBS)
	cd $(BUILD_DIR)/test && $(CTEST) --output-on-failure -j$(CTEST_JOBS)

test-asan: test-build
	$(CMAKE) -S . -B $(BUILD_DIR)/asan -DCMAKE_BUILD_TYPE=Debug \
		-DMP4KIT_WERROR=ON -DMP4KIT_SANITIZE=ON -DMP4KIT_BUILD_TESTS=ON
	$(CMAKE) --build $(BUILD_DIR)/asan -j$(JOBS)
	cd $(BUILD_DIR)/asan && $(SAN_ENV) $(CTEST) --output-on-failure -j$(CTEST_JOBS)

# Release build of the benchmark suites; BENCH_ARGS go to Google Benchmark.
BENCH_ARGS ?=

bench:
	$(CMAKE) -S . -B $(BUILD_DIR)/bench -DCMAKE_BUILD_TYPE=Release -DMP4KIT_WERROR=ON \
		-DMP4KIT_BUILD_BENCH=ON -DMP4KIT_BUILD_TESTS=OFF -DMP4KIT_BUILD_EXAMPLES=OFF
	$(CMAKE) --build $(BUILD_DIR)/bench -j$(JOBS) --target mp4kit_bench mp4kit_tool
	$(BUILD_DIR)/bench/mp4kit_bench --benchmark_counters_tabular=true $(BENCH_ARGS)

# libFuzzer targets under clang with ASan+UBSan, each run for FUZZ_SECONDS from the fixtures.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= fuzz_read fuzz_fragment_reader fuzz_defrag fuzz_refrag fuzz_parameter_data fuzz_dump fuzz_write_api fuzz_es_parse

fuzz:
	CC=clang CXX=clang++ $(CMAKE) -S . -B $(BUILD_DIR)/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DMP4KIT_FUZZ=ON -DMP4KIT_BUILD_TESTS=OFF -DMP4KIT_BUILD_EXAMPLES=OFF
	$(CMAKE) --build $(BUILD_DIR)/fuzz -j$(JOBS) --target $(FUZZ_TARGETS)
	bash fuzz/run.sh $(BUILD_DIR)/fuzz $(FUZZ_SECONDS) $(FUZZ_TARGETS)

# SOAK_CYCLES recordings, readings and remuxes in one release-built process; resident memory
# and the library's live blocks are reported at intervals, and must not grow.
SOAK_CYCLES ?= 10000

soak:
	$(CMAKE) -S . -B $(BUILD_DIR)/soak -DCMAKE_BUILD_TYPE=Release -DMP4KIT_BUILD_SOAK=ON \
		-DMP4KIT_BUILD_TESTS=OFF -DMP4KIT_BUILD_EXAMPLES=OFF
	$(CMAKE) --build $(BUILD_DIR)/soak -j$(JOBS) --target mp4kit_soak
	$(BUILD_DIR)/soak/mp4kit_soak $(SOAK_CYCLES)

# The recording, reading and remuxing suites under valgrind: no leak, no memory error.
memcheck:
	$(CMAKE) -S . -B $(BUILD_DIR)/test -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DMP4KIT_WERROR=ON -DMP4KIT_SANITIZE=OFF -DMP4KIT_BUILD_TESTS=ON
	$(CMAKE) --build $(BUILD_DIR)/test -j$(JOBS)
	bash tests/memcheck.sh $(BUILD_DIR)/test

clean:
	rm -rf $(BUILD_DIR)

format:
	@files=$$(find $(FORMAT_DIRS) -type f \( -name '*.c' -o -name '*.cpp' -o -name '*.h' -o -name '*.hpp' \) 2>/dev/null); \
	if [ -n "$$files" ]; then clang-format -i $$files; fi
