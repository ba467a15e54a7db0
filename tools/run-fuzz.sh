#!/usr/bin/env bash
# Runs every built libFuzzer target for a short bounded time, each on a scratch copy of its seed
# corpus (the checked-in corpus stays as it is), and fails if any target finds a crash, a leak,
# undefined behaviour, a timeout or runs out of memory.
#
# Usage: tools/run-fuzz.sh BUILD_DIR [SECONDS]
#   BUILD_DIR  the folder holding the fuzz_* executables (build/fuzz/fuzz with the fuzz preset)
#   SECONDS    time per target, 20 unless given (or FUZZ_SECONDS is set)
# Whatever input made a target fail is kept in BUILD_DIR/artifacts/TARGET/, with the command that
# replays it.
set -euo pipefail

if [[ $# -lt 1 || $# -gt 2 ]]; then
  echo "usage: $0 BUILD_DIR [SECONDS]" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
seconds=${2:-${FUZZ_SECONDS:-20}}
repo=$(cd "$(dirname "$0")/.." && pwd)
corpora=$repo/fuzz/corpus
dicts=$repo/fuzz/dict

# Sanitizer reports must stop the run: UBSan only warns unless told to halt. The suppressions
# cover known faults in third-party headers only.
# Stack-use-after-return detection halves the speed of the exception-heavy parsers; a short
# run gains more from executions.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1:suppressions=$repo/fuzz/ubsan.supp}

scratch=$(mktemp -d "${TMPDIR:-/tmp}/vemo-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

targets=()
for bin in "$build_dir"/fuzz_*; do
  [[ -f $bin && -x $bin ]] && targets+=("$bin")
done
if [[ ${#targets[@]} -eq 0 ]]; then
  echo "run-fuzz: no fuzz_* executables in $build_dir" >&2
  exit 1
fi

passed=0
failed=0
for bin in "${targets[@]}"; do
  name=$(basename "$bin")
  corpus=$scratch/$name
  mkdir -p "$corpus"
  if [[ -d $corpora/$name ]]; then
    cp -R "$corpora/$name/." "$corpus/"
  else
    echo "run-fuzz: warning: no seed corpus for $name" >&2
  fi
  artifacts=$build_dir/artifacts/$name
  rm -rf "$artifacts"
  mkdir -p "$artifacts"
  args=(-max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=1
        -artifact_prefix="$artifacts/")
  [[ -f $dicts/$name.dict ]] && args+=(-dict="$dicts/$name.dict")
  log=$artifacts/fuzz.log
  echo "== $name: ${seconds}s"
  if "$bin" "${args[@]}" "$corpus" >"$log" 2>&1; then
    grep -E '^(#[0-9]+.*DONE|stat::number_of_executed_units)' "$log" || true
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    # The report of the sanitizer or of the failed round trip, then how to replay the input.
    grep -vE '^(#[0-9]+|INFO:|MS: )' "$log" | head -n 60
    for a in "$artifacts"/crash-* "$artifacts"/leak-* "$artifacts"/timeout-* "$artifacts"/oom-*; do
      [[ -e $a ]] || continue
      echo "$name: FAILED on $a"
      echo "  replay: $bin $a"
    done
    echo "$name: FAILED (full log: $log)"
  fi
done

echo "fuzz: $passed passed, $failed failed"
[[ $failed -eq 0 ]]
