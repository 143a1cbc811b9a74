# Front door: `make` builds, `make test` builds and runs every test,
# `make demo` shows the daemon working on a simulated platform, `make install`
# installs (PREFIX, DESTDIR), `make package` builds the Debian package,
# `make docs` writes docs/commands.md.
BUILD_DIR  ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=
PREFIX     ?= /usr/local
DESTDIR    ?=
PKG_DIR    ?= build-deb
MAKEFLAGS  += --no-print-directory

.PHONY: all deps configure build test demo docs install package clean

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
	@sim/demo $(BUILD_DIR)

# docs/commands.md anew from the command tables.
docs: configure
	@cmake --build $(BUILD_DIR) --target docs

# The prefix is fixed at configure time: dv.pc and the service files name it.
install: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_ARGS) >/dev/null
	@cmake --build $(BUILD_DIR) -j $(JOBS)
	@DESTDIR=$(DESTDIR) cmake --install $(BUILD_DIR)

package: deps
	@cmake -S . -B $(PKG_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr -DVEXPROD_BUILD_TESTS=OFF >/dev/null
	@cmake --build $(PKG_DIR) -j $(JOBS)
	@cd $(PKG_DIR) && cpack -G DEB

clean:
	rm -rf $(BUILD_DIR) $(PKG_DIR)
