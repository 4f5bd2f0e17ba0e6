# Two commands for a fresh Debian 12 machine:
#   make run    installs what is needed, builds and starts Sonto on the demo show
#   make test   installs, builds and runs every test (plain, ThreadSanitizer, ASan+UBSan)
SHELL := /bin/bash
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
CTEST := ctest --output-on-failure --timeout 300 -j $(JOBS)

.PHONY: all deps build run test test-plain test-tsan test-asan bench format clean

all: build

deps:
	@bash scripts/install-deps.sh

build/build.ninja:
	cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: deps build/build.ninja
	cmake --build build -j $(JOBS)

# The demo show that the build makes, unless ARGS names shows of your own.
DEMO_SHOW := build/demo/Demo.sonto
run: build
	@if [ -z "$$DISPLAY" ] && [ -z "$$WAYLAND_DISPLAY" ] && [ -z "$$QT_QPA_PLATFORM" ]; then \
	  echo "make run: no display (DISPLAY and WAYLAND_DISPLAY are unset); run it in a desktop session" >&2; exit 1; fi
	./build/sonto $(if $(ARGS),$(ARGS),$(DEMO_SHOW))

test: deps
	@bash scripts/test-all.sh

test-plain: build
	cd build && $(CTEST)

bench: build
	./build/bench/sonto_bench $(BENCH_ARGS)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build build-tsan build-asan
