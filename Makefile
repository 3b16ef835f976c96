# Front door over CMake. Every target installs what it is missing first.
#
#   make test         build and run every test, then again under ASan+UBSan
#   make test-cross   unit tests cross-built for armhf and s390x, run under qemu,
#                     then the footprint check (armhf release text <= 24 KiB)
#   make fuzz         build the fuzzers and run each for FUZZ_SECONDS
#   make demo         the example daemon against the emulated device
#   make fuzz-long    each fuzzer for FUZZ_RUNS executions (10^8)
#   make bench        benchmarks: wall time, the instruction table, the bulk load
#   make soak         bad input at full rate against the emulated device, SOAK_SECONDS
#   make build        just build (build/)
#   make builds       a user's build: every build type with GCC and Clang,
#                     installed, and a C and a C++ program built against it
#   make clean

JOBS ?= 2
# The builds below are developer builds: warnings are errors.
DEV := -DL2VFIB_WERROR=ON
# CMake's own make runs inside ours: no "Entering directory" for each of its
# sub-makes.
MAKEFLAGS += --no-print-directory
FUZZ_SECONDS ?= 20
# The fuzz targets, fuzz/fuzz_NAME.cpp.
FUZZERS := reply notice frames event acdata decode
FUZZ_RUNS ?= 100000000
CMAKE ?= cmake
CTEST ?= ctest
CROSS_ARCHES := armhf s390x
GTEST_SOURCE ?= /usr/src/googletest

.PHONY: all build demo test test-plain test-asan test-cross fuzz deps deps-cross deps-fuzz clean
.PHONY: bench deps-bench fuzz-long footprint soak builds
SOAK_SECONDS ?= 10

all: build

deps:
	@sh scripts/install-deps.sh base

deps-cross:
	@sh scripts/install-deps.sh base cross

deps-fuzz:
	@sh scripts/install-deps.sh base fuzz

deps-bench:
	@sh scripts/install-deps.sh base bench

build: deps
	$(CMAKE) -S . -B build $(DEV)
	$(CMAKE) --build build -j$(JOBS)

demo: build
	@sh scripts/demo.sh build

test: test-plain test-asan

# pytest's own count for each ctest that runs pytest, from ctest's log.
PYTEST_COUNTS = awk '/^[0-9]+\/[0-9]+ Test: / {name = $$3} \
	/^[0-9]+ (passed|failed|skipped|error)(, [0-9]+ [a-z]+)* in [0-9.]+s/ {print "pytest " name ": " $$0}' \
	Testing/Temporary/LastTest.log

test-plain: build
	cd build && $(CTEST) --output-on-failure -j$(JOBS) && $(PYTEST_COUNTS)

test-asan: deps
	$(CMAKE) -S . -B build-asan $(DEV) -DL2VFIB_SANITIZE=ON -DL2VFIB_EXAMPLES=OFF
	$(CMAKE) --build build-asan -j$(JOBS)
	cd build-asan && $(CTEST) --output-on-failure -j$(JOBS) && $(PYTEST_COUNTS)

test-cross: deps-cross
	@set -e; for arch in $(CROSS_ARCHES); do \
	  echo "== $$arch"; \
	  $(CMAKE) -S . -B build-$$arch $(DEV) -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/$$arch.cmake \
	    -DL2VFIB_GTEST_SOURCE=$(GTEST_SOURCE) -DL2VFIB_EXAMPLES=OFF; \
	  $(CMAKE) --build build-$$arch -j$(JOBS); \
	  (cd build-$$arch && $(CTEST) --output-on-failure -j$(JOBS)); \
	done
	$(MAKE) --no-print-directory footprint

# The library as the device loads it: armhf, release, every function in.
footprint: deps-cross
	$(CMAKE) -S . -B build-armhf-release -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake \
	  -DCMAKE_BUILD_TYPE=Release -DL2VFIB_TESTS=OFF -DL2VFIB_EXAMPLES=OFF
	$(CMAKE) --build build-armhf-release -j$(JOBS) --target l2vfib_shared
	sh scripts/check-footprint.sh build-armhf-release/libl2vfib.so 24576 arm-linux-gnueabihf-size

fuzz: deps-fuzz
	CC=clang CXX=clang++ $(CMAKE) -S . -B build-fuzz $(DEV) -DL2VFIB_FUZZ=ON -DL2VFIB_TESTS=OFF -DL2VFIB_EXAMPLES=OFF \
	  -DL2VFIB_FUZZ_SECONDS=$(FUZZ_SECONDS)
	$(CMAKE) --build build-fuzz -j$(JOBS) --target $(addprefix fuzz_,$(FUZZERS))
	$(CMAKE) --build build-fuzz --target fuzz-run

# Each fuzzer for FUZZ_RUNS executions (10^8 by default: hours, not for CI).
fuzz-long: deps-fuzz
	CC=clang CXX=clang++ $(CMAKE) -S . -B build-fuzz $(DEV) -DL2VFIB_FUZZ=ON -DL2VFIB_TESTS=OFF -DL2VFIB_EXAMPLES=OFF
	$(CMAKE) --build build-fuzz -j$(JOBS) --target $(addprefix fuzz_,$(FUZZERS))
	FUZZ_RUNS=$(FUZZ_RUNS) sh fuzz/run.sh build-fuzz/fuzz 0 $(FUZZERS)

bench: deps-bench
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DL2VFIB_BENCH=ON \
	  -DL2VFIB_TESTS=OFF -DL2VFIB_EXAMPLES=OFF
	$(CMAKE) --build build-bench -j$(JOBS) --target l2vfib_bench
	build-bench/bench/l2vfib_bench --benchmark_min_time=0.05
	sh bench/callgrind.sh build-bench/bench
	$(CMAKE) --build build-bench -j$(JOBS) --target l2vfib_load
	build-bench/bench/l2vfib_load

# Random and mutated datagrams from several senders, for SOAK_SECONDS.
soak: build
	L2VFIB_SOAK_SECONDS=$(SOAK_SECONDS) build/tests/emu/l2vfib_emu_trust_tests --gtest_filter='*Flood*'

builds: deps
	@sh scripts/install-deps.sh builds
	sh scripts/check-builds.sh $(JOBS)

clean:
	rm -rf build build-asan build-fuzz build-bench build-armhf-release $(foreach a,$(CROSS_ARCHES),build-$(a))
