# The two commands a newcomer needs: `make test` and `make demo`.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: deps configure build test format check-sanitize fuzz soak

deps:
	./scripts/install-deps

configure: deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer.
SANITIZE_DIR ?= build-sanitize
check-sanitize: deps
	cmake -S . -B $(SANITIZE_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKORVANE_SANITIZE=ON $(CMAKE_FLAGS)
	cmake --build $(SANITIZE_DIR) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		LSAN_OPTIONS=suppressions=$(CURDIR)/scripts/lsan-suppressions.txt \
		ctest --test-dir $(SANITIZE_DIR) --output-on-failure -j $(JOBS)

# Every libFuzzer target for SECONDS seconds each (clang).
FUZZ_DIR ?= build-fuzz
SECONDS ?= 60
fuzz:
	./scripts/install-deps fuzz
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVANE_FUZZ=ON
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target fuzzers
	./scripts/run-fuzzers $(FUZZ_DIR) $(SECONDS)

# Load and soak: 8 jobs at once, then RUNS short jobs one after another,
# printing open descriptors and resident memory before and after.
RUNS ?= 300
soak: build
	$(BUILD_DIR)/bin/SoakBench $(RUNS) 8
