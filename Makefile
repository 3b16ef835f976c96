# Front door over CMake. Every target installs what it is missing first.
#
#   make test         build and run every test, then again under ASan+UBSan
#   make test-cross   unit tests cross-built for armhf and s390x, run under qemu
#   make fuzz         build the fuzzers and run each for FUZZ_SECONDS
#   make demo         the example daemon against the emulated device
#   make build        just build (build/)
#   make clean

JOBS ?= 2
FUZZ_SECONDS ?= 20
CMAKE ?= cmake
CTEST ?= ctest
CROSS_ARCHES := armhf s390x
GTEST_SOURCE ?= /usr/src/googletest

.PHONY: all build demo test test-plain test-asan test-cross fuzz deps deps-cross deps-fuzz clean

all: build

deps:
	@sh scripts/install-deps.sh base

deps-cross:
	@sh scripts/install-deps.sh base cross

deps-fuzz:
	@sh scripts/install-deps.sh base fuzz

build: deps
	$(CMAKE) -S . -B build
	$(CMAKE) --build build -j$(JOBS)

demo: build
	@sh scripts/demo.sh build

test: test-plain test-asan

test-plain: build
	cd build && $(CTEST) --output-on-failure -j$(JOBS)

test-asan: deps
	$(CMAKE) -S . -B build-asan -DL2VFIB_SANITIZE=ON -DL2VFIB_EXAMPLES=OFF
	$(CMAKE) --build build-asan -j$(JOBS)
	cd build-asan && $(CTEST) --output-on-failure -j$(JOBS)

test-cross: deps-cross
	@set -e; for arch in $(CROSS_ARCHES); do \
	  echo "== $$arch"; \
	  $(CMAKE) -S . -B build-$$arch -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/$$arch.cmake \
	    -DL2VFIB_GTEST_SOURCE=$(GTEST_SOURCE) -DL2VFIB_EXAMPLES=OFF; \
	  $(CMAKE) --build build-$$arch -j$(JOBS); \
	  (cd build-$$arch && $(CTEST) --output-on-failure -j$(JOBS)); \
	done

fuzz: deps-fuzz
	CC=clang CXX=clang++ $(CMAKE) -S . -B build-fuzz -DL2VFIB_FUZZ=ON -DL2VFIB_TESTS=OFF -DL2VFIB_EXAMPLES=OFF \
	  -DL2VFIB_FUZZ_SECONDS=$(FUZZ_SECONDS)
	$(CMAKE) --build build-fuzz -j$(JOBS) --target fuzz_reply fuzz_notice fuzz_frames fuzz_event fuzz_acdata fuzz_decode
	$(CMAKE) --build build-fuzz --target fuzz-run

clean:
	rm -rf build build-asan build-fuzz $(foreach a,$(CROSS_ARCHES),build-$(a))
