# Front door: `make demo` runs the main job on a fresh store, `make test`
# builds and runs every test. Both install missing Debian packages first.
BUILD ?= build
BUILD_TYPE ?= RelWithDebInfo
CMAKE_FLAGS ?=
MAKEFLAGS += --no-print-directory
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
PREFIX ?=

.PHONY: all deps configure build test demo install clean

all: build

deps:
	@scripts/deps.sh

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j$(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

demo: build
	tools/demo.sh $(BUILD)

install: build
	cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

clean:
	rm -rf $(BUILD)
