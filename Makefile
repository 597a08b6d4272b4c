# Front door: `make demo` runs the main job on a fresh store, `make test`
# builds and runs every test. Both install missing Debian packages first.
BUILD ?= build
BUILD_TYPE ?= RelWithDebInfo
CMAKE_FLAGS ?=
MAKEFLAGS += --no-print-directory
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
PREFIX ?=

FUZZ_SECONDS ?= 60
FUZZ_BUILD ?= $(BUILD)-fuzz
ASAN_BUILD ?= $(BUILD)-asan
BENCH_BUILD ?= $(BUILD)-bench
COMPAT_BUILD ?= $(BUILD)-glibc238
PLATFORM_BUILD ?= $(BUILD)-platform

CROSS_ARCHES ?= arm64 armhf s390x
CROSS_ENV = BUILD=$(BUILD) JOBS=$(JOBS) BUILD_TYPE=$(BUILD_TYPE) CMAKE_FLAGS='$(CMAKE_FLAGS)'

.PHONY: all deps configure build test test-unit test-asan test-compat test-platform tidy fuzz fuzz-configure fuzz-smoke bench demo install clean
.PHONY: format format-check
.PHONY: test-cross $(CROSS_ARCHES:%=test-cross-%)

all: build

deps:
	@scripts/deps.sh

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j$(JOBS)

# Every test: the suite as built for use, the suite again under
# AddressSanitizer and UndefinedBehaviorSanitizer (leaks are failures), a
# short run of every fuzz target, the whole tree compiled as on newer C
# libraries, the suites run as on a device's own platform; before them the
# sources checked against .clang-format, after them clang-tidy's checks.
test: format-check test-unit test-asan fuzz-smoke test-compat test-platform tidy

test-unit: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DPKEY_SANITIZE=ON $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD) -j$(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 ctest --output-on-failure -j$(JOBS)

# The whole tree compiled with the C library's string.h declaring strlcpy and
# strlcat as glibc 2.38 and later do: no declaration of ours may clash.
COMPAT_FLAGS = -include $(CURDIR)/tests/compat/glibc238_string.h
test-compat: deps
	cmake -S . -B $(COMPAT_BUILD) -DCMAKE_BUILD_TYPE=Debug -DPKEY_BUILD_BENCH=OFF \
	      -DCMAKE_C_FLAGS="$(COMPAT_FLAGS)" -DCMAKE_CXX_FLAGS="$(COMPAT_FLAGS)" $(CMAKE_FLAGS)
	cmake --build $(COMPAT_BUILD) -j$(JOBS)

# pkey built as a device team builds it: the platform is a library file made
# elsewhere (here the host platform already built), the test control seam a
# source of theirs; then the conformance suite and the library's suite.
test-platform: build
	mkdir -p $(PLATFORM_BUILD)
	cp tests/platform_control_host.cpp $(PLATFORM_BUILD)/device_platform_control.cpp
	cmake -S . -B $(PLATFORM_BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DPKEY_BUILD_BENCH=OFF \
	      -DPKEY_PLATFORM=$(CURDIR)/$(BUILD)/platform/host/libpkey_host.so \
	      -DPKEY_TEST_CONTROL=$(CURDIR)/$(PLATFORM_BUILD)/device_platform_control.cpp \
	      -DCMAKE_CXX_FLAGS="-I$(CURDIR)/platform/host" $(CMAKE_FLAGS)
	cmake --build $(PLATFORM_BUILD) -j$(JOBS)
	$(PLATFORM_BUILD)/tests/platform_conformance --gtest_brief=1
	cd $(PLATFORM_BUILD) && ctest --output-on-failure -j$(JOBS)

# The checks of .clang-tidy over the library, the host platform, pkeyctl and
# the example server, from the build's compile_commands.json; any finding fails.
tidy: configure
	scripts/tidy.sh $(BUILD) $(JOBS)

# The libraries and unit tests built for other architectures with Debian's
# cross compilers, run under qemu-user, each in $(BUILD)-cross-<arch> with its
# own sysroot of target packages (scripts/cross-deps.sh, scripts/cross-test.sh).
test-cross:
	$(CROSS_ENV) scripts/cross-test.sh $(CROSS_ARCHES)

$(CROSS_ARCHES:%=test-cross-%): test-cross-%:
	$(CROSS_ENV) scripts/cross-test.sh $*

fuzz-configure: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPKEY_FUZZ=ON -DPKEY_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZ_BUILD) -j$(JOBS)

# Every fuzz target for FUZZ_SECONDS each; fails on any finding.
fuzz: fuzz-configure
	fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

fuzz-smoke: fuzz-configure
	fuzz/run.sh $(FUZZ_BUILD) 10

# Every benchmark and its references (OpenSSL, ssh-keygen, Python's
# cryptography) in one Release build; tables go to bench/results/latest.md.
bench: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DPKEY_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(BENCH_BUILD) -j$(JOBS)
	/usr/bin/python3 bench/run.py $(BENCH_BUILD) $(BENCH_FLAGS)

# The C and C++ sources in the style of .clang-format: `format` rewrites them,
# `format-check` lists the files that differ and fails when there is any.
format: deps
	scripts/format.sh --fix

format-check: deps
	scripts/format.sh --check

demo: build
	tools/demo.sh $(BUILD)

install: build
	cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

clean:
	rm -rf $(BUILD)
