# The two everyday commands: `make run` and `make test`. Each installs what is missing, builds
# from nothing if needed and runs. The others: asan, bench, fuzz, format, clean.
SHELL := /bin/bash
JOBS ?= $(shell nproc)
DEPS := cmake ninja-build g++ python3 libabsl-dev rapidjson-dev libgtest-dev libgmock-dev \
        libbenchmark-dev
FUZZ_DEPS := clang-16 libclang-rt-16-dev
SCENARIO ?=

.PHONY: all deps run test asan bench fuzz format clean

all: build

deps:
	@bash tools/install-deps.sh $(DEPS)

build: deps
	cmake --preset default >/dev/null
	cmake --build --preset default -j $(JOBS)

run: build
	./build/default/agent/vemo-agent $(SCENARIO)

test: build
	ctest --preset default -j $(JOBS)

asan: deps
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --preset asan -j $(JOBS)

bench: deps
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)
	python3 tools/run-bench.py build/release/bench build/bench/results.json

fuzz:
	@bash tools/install-deps.sh $(DEPS) $(FUZZ_DEPS)
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS)
	bash tools/run-fuzz.sh build/fuzz/fuzz

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
