#!/usr/bin/env bash
# Runs every fuzz target of a KVL_FUZZ build for a bounded time each, starting from its seed
# corpus, and stops at the first target that fails, naming the input that made it fail.
#   fuzz/run.sh BUILD_DIR [SECONDS_PER_TARGET] [TARGET...]
set -uo pipefail
build=$1
seconds=${2:-60}
shift $(( $# < 2 ? $# : 2 ))
list=$build/fuzz/targets.txt
if [ ! -s "$list" ]; then
  echo "fuzz: no target list at $list (configure with -DKVL_FUZZ=ON)" >&2
  exit 1
fi
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
symbolizer=/usr/lib/llvm-14/bin/llvm-symbolizer
[ -x "$symbolizer" ] && export ASAN_SYMBOLIZER_PATH=${ASAN_SYMBOLIZER_PATH:-$symbolizer}
[ -z "${KVL_FUZZ_LENIENT:-}" ] || echo "fuzz: relaxed checks (KVL_FUZZ_LENIENT): $KVL_FUZZ_LENIENT"
ran=0
while read -r name bin seeds; do
  [ $# -eq 0 ] || [[ " $* " == *" $name "* ]] || continue
  work=$build/fuzz/corpus/$name
  crashes=$build/fuzz/crashes/$name
  mkdir -p "$work" "$crashes"
  echo "== fuzz $name for ${seconds}s"
  # New inputs go to the working corpus; the committed seeds are only read.
  "$bin" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix="$crashes/" "$work" "$seeds" < /dev/null > "$build/fuzz/$name.log" 2>&1
  rc=$?
  if [ $rc -ne 0 ]; then
    # The difference report, else the sanitizer's or libFuzzer's own first lines.
    grep -A14 '^\*\*\* ' "$build/fuzz/$name.log" | head -20
    grep -E 'ERROR: (AddressSanitizer|libFuzzer)|runtime error|^SUMMARY' "$build/fuzz/$name.log" |
      head -5
    input=$(sed -n 's/.*Test unit written to //p' "$build/fuzz/$name.log" | tail -1)
    echo "fuzz: $name FAILED (exit $rc); full log: $build/fuzz/$name.log"
    [ -n "$input" ] && echo "fuzz: failing input: $input (replay: $bin $input)"
    exit 1
  fi
  grep -E '^(Done|stat::number_of_executed_units|stat::new_units_added)' "$build/fuzz/$name.log"
  ran=$((ran + 1))
done < "$list"
[ $ran -gt 0 ] || { echo "fuzz: no target matched: $*" >&2; exit 1; }
echo "fuzz: $ran targets ran ${seconds}s each without a failure"
