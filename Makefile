# Front door: `make` builds, `make test` builds and runs every test,
# `make demo` shows the daemon working on a simulated platform.
BUILD_DIR  ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=
MAKEFLAGS  += --no-print-directory

.PHONY: all deps configure build test demo clean

all: build

deps:
	@scripts/ensure-deps

configure: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 300

demo: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target dwe-dv-vexprod dv-call vexprod_sim >/dev/null
	@platform/sim/demo $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
