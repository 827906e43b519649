#!/usr/bin/env bash
# Builds the fuzz preset and runs each fuzz target for SECONDS (default 20)
# on a scratch copy of its seed corpus, one target after the other.
#
#   fuzz/run.sh [SECONDS] [TARGET...]     e.g. fuzz/run.sh 600, fuzz/run.sh 60 scenario units
#
# TARGET is a name of fuzz/<name>_fuzz.cpp; none means all. The build goes to
# build/fuzz, or to the folder KR7_FUZZ_BUILD_DIR names. Each run keeps its
# corpus, log and any crash, leak or timeout input in <build>/runs/<name>/;
# the seed corpus in the repository is never written. Prints one line per
# target and fails when any target found something.
set -euo pipefail
source_dir="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-20}"
shift || true
build="${KR7_FUZZ_BUILD_DIR:-$source_dir/build/fuzz}"

if [ $# -gt 0 ]; then
  names=("${@%_fuzz}")
else
  names=()
  for file in "$source_dir"/fuzz/*_fuzz.cpp; do
    name="$(basename "$file" .cpp)"
    names+=("${name%_fuzz}")
  done
fi
for name in "${names[@]}"; do
  if [ ! -f "$source_dir/fuzz/${name}_fuzz.cpp" ]; then
    echo "fuzz/run.sh: no fuzz target '$name'" >&2
    exit 2
  fi
done

cmake --preset fuzz -S "$source_dir" -B "$build" >/dev/null
cmake --build "$build" -j2 --target "${names[@]/%/_fuzz}"

export ASAN_OPTIONS="${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1:strict_string_checks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"
failed=0
for name in "${names[@]}"; do
  run="$build/runs/$name"
  rm -rf "$run"
  mkdir -p "$run/corpus" "$run/tmp"
  cp "$source_dir/fuzz/corpus/$name/"* "$run/corpus/"
  options=(-max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 -print_final_stats=1
    -artifact_prefix="$run/")
  if [ -f "$source_dir/fuzz/$name.dict" ]; then
    options+=(-dict="$source_dir/fuzz/$name.dict")
  fi
  status=0
  TMPDIR="$run/tmp" "$build/fuzz/${name}_fuzz" "${options[@]}" "$run/corpus" \
    >"$run/log" 2>&1 || status=$?

  findings=$(find "$run" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' \
    -o -name 'timeout-*' -o -name 'oom-*' \) | wc -l)
  executions=$(sed -n 's/^stat::number_of_executed_units: //p' "$run/log")
  speed=$(sed -n 's/^stat::average_exec_per_sec: //p' "$run/log")
  coverage=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$run/log" | tail -n 1 || true)
  printf '%-18s %10s execs %8s/s  %-22s corpus %5s files  findings %s\n' "$name" \
    "${executions:-?}" "${speed:-?}" "${coverage:-cov: ? ft: ?}" \
    "$(find "$run/corpus" -type f | wc -l)" "$findings"
  if [ "$status" -ne 0 ] || [ "$findings" -ne 0 ]; then
    echo "  $name failed (exit status $status); see $run/log" >&2
    grep -m 1 -E '^(==[0-9]+==ERROR|SUMMARY)' "$run/log" >&2 || true
    failed=1
  fi
done
exit "$failed"
