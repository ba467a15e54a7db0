# The two everyday commands: `make run` and `make test`. Each installs what is missing, builds
# from nothing if needed and runs. The others: asan, bench, fuzz, fuzz-long, examples-update,
# format, clean, api, tsan.
SHELL := /bin/bash
JOBS ?= $(shell nproc)
DEPS := cmake ninja-build g++ python3 libabsl-dev rapidjson-dev libgtest-dev libgmock-dev \
        libbenchmark-dev
FUZZ_DEPS := clang-16 libclang-rt-16-dev
SCENARIO ?=
# The fuzzing campaign: each target until FUZZ_LONG_RUNS executions or FUZZ_LONG_SECONDS pass,
# one target at a time, on a corpus kept in build/fuzz/corpus between campaigns.
FUZZ_LONG_RUNS ?= 10000000
FUZZ_LONG_SECONDS ?= 1800

.PHONY: all deps run test asan bench fuzz fuzz-long fuzz-build examples-update api tsan format clean

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

# The loop's cross-thread posting and descriptor watching under ThreadSanitizer (the runtime's
# tests only: nothing else in the library runs more than one thread).
tsan: deps
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan -j $(JOBS) --target test_zol
	setarch $$(uname -m) -R ./build/tsan/tests/test_zol

bench: deps
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)
	python3 tools/run-bench.py build/release/bench build/bench/results.json

fuzz-build:
	@bash tools/install-deps.sh $(DEPS) $(FUZZ_DEPS)
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS)

fuzz: fuzz-build
	bash tools/run-fuzz.sh build/fuzz/fuzz

fuzz-long: fuzz-build
	FUZZ_RUNS=$(FUZZ_LONG_RUNS) FUZZ_CORPUS_DIR=build/fuzz/corpus \
	  bash tools/run-fuzz.sh build/fuzz/fuzz $(FUZZ_LONG_SECONDS)

# Writes the expected output of every example again (NAME.json.out only where one exists); read
# the diff before committing it.
examples-update: build
	@for f in examples/*.json; do \
	  python3 tools/check-example.py build/default/agent/vemo-agent $$f --update || exit 1; \
	  if [ -f $${f%.json}.json.out ]; then \
	    python3 tools/check-example.py build/default/agent/vemo-agent $$f --json --update || exit 1; \
	  fi; \
	done

# Where the headers a platform port reads are: the hand-written ones and those generated from the
# schema (entity, value and helper-state classes), after a build.
api: build
	@echo "hand-written: include/Vemo (SMs, helper contracts, types), runtime/*/include (framework)"
	@echo "generated:    build/default/gen/include/ZolGen (one NAME.h and NAMEJson.h per schema/NAME.toml)"
	@ls build/default/gen/include/ZolGen
	@echo "generated:    build/default/gen-runtime/include/ZolGen (the runtime's runtime/tolm/schema/Tolm.toml)"
	@ls build/default/gen-runtime/include/ZolGen

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
