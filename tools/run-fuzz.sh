#!/usr/bin/env bash
# Runs every built libFuzzer target, one after the other on one core, and fails if any target
# finds a crash, a leak, undefined behaviour, a timeout or runs out of memory.
#
# Usage: tools/run-fuzz.sh BUILD_DIR [SECONDS]
#   BUILD_DIR  the folder holding the fuzz_* executables (build/fuzz/fuzz with the fuzz preset)
#   SECONDS    time per target, 20 unless given (or FUZZ_SECONDS is set)
# Environment:
#   FUZZ_RUNS        also stop a target after this many executions (whichever comes first)
#   FUZZ_CORPUS_DIR  keep each target's corpus in FUZZ_CORPUS_DIR/TARGET, seeded from fuzz/corpus
#                    and kept between runs, so a campaign goes on where the last one stopped;
#                    without it each target works on a scratch copy of its seeds
# The checked-in corpus stays as it is either way. Whatever input made a target fail is kept in
# BUILD_DIR/artifacts/TARGET/, with the command that replays it. Each target reports its
# executions, speed, coverage and findings, and a table of all of them ends the run.
set -euo pipefail

if [[ $# -lt 1 || $# -gt 2 ]]; then
  echo "usage: $0 BUILD_DIR [SECONDS]" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
seconds=${2:-${FUZZ_SECONDS:-20}}
runs=${FUZZ_RUNS:-}
repo=$(cd "$(dirname "$0")/.." && pwd)
corpora=$repo/fuzz/corpus
dicts=$repo/fuzz/dict

# Sanitizer reports must stop the run: UBSan only warns unless told to halt. The suppressions
# cover known faults in third-party headers only.
# Stack-use-after-return detection halves the speed of the exception-heavy parsers; a run gains
# more from executions.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1:suppressions=$repo/fuzz/ubsan.supp}

scratch=$(mktemp -d "${TMPDIR:-/tmp}/vemo-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
if [[ -n ${FUZZ_CORPUS_DIR:-} ]]; then
  mkdir -p "$FUZZ_CORPUS_DIR"
  corpus_root=$(cd "$FUZZ_CORPUS_DIR" && pwd)
else
  corpus_root=$scratch
fi

targets=()
for bin in "$build_dir"/fuzz_*; do
  [[ -f $bin && -x $bin ]] && targets+=("$bin")
done
if [[ ${#targets[@]} -eq 0 ]]; then
  echo "run-fuzz: no fuzz_* executables in $build_dir" >&2
  exit 1
fi

# The value of a final statistic of libFuzzer's log, or 0.
final_stat() { grep -oP "^stat::$1:\s*\K[0-9]+" "$2" | tail -n 1 || echo 0; }

passed=0
failed=0
summary=()
for bin in "${targets[@]}"; do
  name=$(basename "$bin")
  corpus=$corpus_root/$name
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
  [[ -n $runs ]] && args+=(-runs="$runs")
  [[ -f $dicts/$name.dict ]] && args+=(-dict="$dicts/$name.dict")
  log=$artifacts/fuzz.log
  echo "== $name: ${seconds}s${runs:+ or $runs executions}"
  start=$(date +%s.%N)
  if "$bin" "${args[@]}" "$corpus" >"$log" 2>&1; then
    verdict=ok
    passed=$((passed + 1))
  else
    verdict=FAILED
    failed=$((failed + 1))
    # The report of the sanitizer or of the failed check, then how to replay the input.
    grep -vE '^(#[0-9]+|INFO:|MS: )' "$log" | head -n 60
    for a in "$artifacts"/crash-* "$artifacts"/leak-* "$artifacts"/timeout-* "$artifacts"/oom-*; do
      [[ -e $a ]] || continue
      echo "$name: found $(basename "$a")"
      echo "  replay: $bin $a"
    done
    echo "$name: FAILED (full log: $log)"
  fi
  elapsed=$(awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }')
  execs=$(final_stat number_of_executed_units "$log")
  # libFuzzer's own average is whole seconds only, so short runs get their speed from the clock.
  rate=$(awk -v n="$execs" -v t="$elapsed" 'BEGIN { printf "%d", (t > 0 ? n / t : 0) }')
  added=$(final_stat new_units_added "$log")
  cov=$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -n 1 || true)
  findings=$(find "$artifacts" -maxdepth 1 \( -name 'crash-*' -o -name 'leak-*' -o \
    -name 'timeout-*' -o -name 'oom-*' \) | wc -l)
  line=$(printf '%-16s %-6s %11s execs %6ss %7s/s  %-18s +%s inputs, corpus %s  findings %s' \
    "$name" "$verdict" "$execs" "$elapsed" "$rate" "${cov:-cov: ?}" "$added" \
    "$(find "$corpus" -type f | wc -l)" "$findings")
  echo "$line"
  summary+=("$line")
done

echo "== summary"
printf '%s\n' "${summary[@]}"
echo "fuzz: $passed passed, $failed failed"
[[ $failed -eq 0 ]]
