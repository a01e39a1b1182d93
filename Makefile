# The two commands a newcomer needs: `make test` and `make demo`.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: deps configure build test demo format check-sanitize check-windows-syntax fuzz soak package mutate

deps:
	./scripts/install-deps

configure: deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

# A unit that links one of its own layer or above fails before the suite runs.
test: build
	./scripts/check-layers
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

# A 10 s 1080p clip and a watermark picture made with the ffmpeg program, then
# converted to 720p H.264 with a crop and the watermark through korvane-convert.
DEMO_DIR ?= $(BUILD_DIR)/demo
DEMO_FFMPEG = ffmpeg -y -hide_banner -loglevel error

demo: build
	@mkdir -p $(DEMO_DIR)
	@test -s $(DEMO_DIR)/sample-1080p.mp4 || { $(DEMO_FFMPEG) \
		-f lavfi -i testsrc2=size=1920x1080:rate=30:duration=10 \
		-f lavfi -i sine=frequency=440:duration=10 \
		-c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac -shortest \
		$(DEMO_DIR)/.sample-1080p.mp4 && mv $(DEMO_DIR)/.sample-1080p.mp4 $(DEMO_DIR)/sample-1080p.mp4; }
	@test -s $(DEMO_DIR)/watermark.png || { $(DEMO_FFMPEG) \
		-f lavfi -i "color=c=orange:size=240x96,format=rgba" -frames:v 1 \
		$(DEMO_DIR)/.watermark.png && mv $(DEMO_DIR)/.watermark.png $(DEMO_DIR)/watermark.png; }
	$(BUILD_DIR)/bin/korvane-convert $(DEMO_DIR)/sample-1080p.mp4 $(DEMO_DIR)/sample-720p.mp4 \
		--vcodec h264 --size 1280x720 --crop 0.1,0.1,0.8,0.8 \
		--watermark $(DEMO_DIR)/watermark.png@1120,640,alpha=0.8 --gpu auto
	@echo "demo: the converted clip is $(abspath $(DEMO_DIR))/sample-720p.mp4"

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

# The Windows-only sources compiled for syntax with the MinGW-w64 cross compiler.
check-windows-syntax:
	./scripts/install-deps windows
	./scripts/check-windows-syntax

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

# The Debian package of the build (CPack; library dependencies from
# dpkg-shlibdeps), checked with lintian and run from its unpacked tree. The
# build is configured for /usr so that libraries land in the multiarch folder.
package:
	./scripts/install-deps package
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DCMAKE_INSTALL_PREFIX=/usr $(CMAKE_FLAGS)
	cmake --build $(BUILD_DIR) -j $(JOBS)
	rm -rf $(BUILD_DIR)/package
	cd $(BUILD_DIR) && cpack -G DEB
	./scripts/check-package $(BUILD_DIR)/package/korvane_*.deb

# Mutation check: small faults from a seeded list, one at a time, in a scratch
# copy of the tree under MUTATE_DIR; prints killed/survived per unit and the
# score, and lists the survivors in MUTATE_DIR/mutation-report.txt.
# MUTANTS=N (default 120), SEED=S and UNIT=name[,name] pick another or a
# smaller set; UNIT alone reruns those units' share of the default set.
MUTATE_DIR ?= build-mutate
SEED ?= 1
mutate:
	./scripts/install-deps mutate
	./scripts/mutate --dir $(MUTATE_DIR) --seed $(SEED) --jobs $(JOBS) \
		$(if $(MUTANTS),--mutants $(MUTANTS)) $(if $(UNIT),--unit $(UNIT))
