# Two commands for a fresh Debian 12 machine:
#   make run    installs what is needed, builds and starts Sonto
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

run: build
	./build/sonto $(ARGS)

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
