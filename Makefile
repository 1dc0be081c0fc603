# SPDX-License-Identifier: BSD-3-Clause
# Quorvel: set-up, build and test entry points. Every target installs what is missing first.
JOBS ?= $(shell nproc)
SOURCES := $(shell git ls-files '*.cpp' '*.hpp' 2>/dev/null)

.PHONY: all deps build test tidy asan-test fuzz fuzz-long bench format format-check demo clean

all: build

deps:
	@bash scripts/install-deps

build: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS)

# Configures, builds and runs every test through CTest (Release build).
test: build
	@ctest --preset release -j $(JOBS)

# clang-tidy (.clang-tidy) over every source of the release build, JOBS at a time; any finding
# fails.
tidy: deps
	@cmake --preset release >/dev/null
	@scripts/tidy $(JOBS)

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer, built with clang. The same
# build holds the fuzz targets (every library instrumented for libFuzzer), so the sanitized
# libraries are compiled once for both.
asan-test: deps
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)
	@ctest --preset asan -j $(JOBS)

# Every fuzz target (clang's libFuzzer, sanitizers on; built in the asan tree) for FUZZ_SECONDS
# each from fuzz/seeds; FUZZ_RUNS=N instead runs N inputs per target with a fixed seed (the same
# every time: CI).
FUZZ_SECONDS ?= 60
fuzz: deps
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS) --target quorvel_fuzz_targets
	@FUZZ_RUNS=$(FUZZ_RUNS) bash fuzz/run $(FUZZ_SECONDS)

# A campaign: every fuzz target for FUZZ_SECONDS each (given on the command line), one after the
# other and at the lowest priority, from the committed corpus and seeds; `fuzz/minimise` then
# folds what it found into fuzz/corpus.
fuzz-long: deps
	@if [ "$(origin FUZZ_SECONDS)" = file ]; then \
	  echo "make fuzz-long FUZZ_SECONDS=N: every target for N seconds"; exit 2; fi
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS) --target quorvel_fuzz_targets
	@FUZZ_RUNS= nice -n 19 bash fuzz/run $(FUZZ_SECONDS)

# Google Benchmark programs (Release build).
bench: build
	@build/release/bench/framework_bench

format-check: deps
	@clang-format --dry-run --Werror $(SOURCES)

format: deps
	@clang-format -i $(SOURCES)

# Transfers the classes of a thinned classified cloud onto the same area's unclassified points
# and compares the result with the true classes.
demo: build
	@mkdir -p build/demo
	@echo "== source: classified, thinned"
	@build/release/cli/quorvel info data/sample_c_thin.las | grep -E "^(points|classes):"
	@echo "== target: unclassified"
	@build/release/cli/quorvel info data/sample_nc.las | grep -E "^(points|classes):"
	@echo "== transfer within 1 m (nearest source point's class)"
	@build/release/cli/quorvel transfer data/sample_c_thin.las data/sample_nc.las \
		-o build/demo/transferred.las --bands 1 --verbose 2>&1 | tr '\r' '\n' | grep -E "^(radius|dimension|bboxes)"
	@echo "== agreement with the true classes (data/sample_c.las), overall and per true class"
	@build/release/cli/quorvel compare build/demo/transferred.las data/sample_c.las

clean:
	rm -rf build
