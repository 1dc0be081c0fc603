# Quorvel: set-up, build and test entry points. Every target installs what is missing first.
JOBS ?= $(shell nproc)
SOURCES := $(shell git ls-files '*.cpp' '*.hpp' 2>/dev/null)

.PHONY: all deps build test asan-test bench format format-check demo clean

all: build

deps:
	@bash scripts/install-deps

build: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS)

# Configures, builds and runs every test through CTest (Release build).
test: build
	@ctest --preset release -j $(JOBS)

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer.
asan-test: deps
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)
	@ctest --preset asan -j $(JOBS)

# Google Benchmark programs (Release build).
bench: build
	@build/release/bench/framework_bench

format-check: deps
	@clang-format --dry-run --Werror $(SOURCES)

format: deps
	@clang-format -i $(SOURCES)

# Builds Quorvel, installs it into build/release/install and runs the example host against it.
demo: build
	@cmake --install build/release >/dev/null
	@cmake -S examples/host -B build/example -DCMAKE_PREFIX_PATH=$(CURDIR)/build/release/install \
		-DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build/example -j $(JOBS) >/dev/null
	@build/example/quorvel_example_host

clean:
	rm -rf build
