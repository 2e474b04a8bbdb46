#!/usr/bin/env bash
# Long fuzz runs, outside CI: each target (or those named) runs RUNS inputs
# from its checked-in seeds in an optimised ASan+UBSan libFuzzer build, then
# the seeds and what it found are merged into a minimal corpus that replaces
# tests/fuzz/corpus/<name> (MERGE=0 leaves the tree alone).  Crashes stop
# nothing: they are saved beside the logs and reported in the table.
#
#   bash scripts/fuzz_long.sh                  # every target, 10^7 runs each
#   RUNS=1000000 bash scripts/fuzz_long.sh dn url
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
work=${FUZZ_WORK:-/tmp/tav-fuzz-long}
runs=${RUNS:-10000000}
merge=${MERGE:-1}
build=$work/build
mkdir -p "$work/logs"

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAV_SANITIZE=address \
  -DTAV_FUZZ=ON -DTAV_BENCH=OFF -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang >/dev/null

if [ $# -gt 0 ]; then
  names=("$@")
else
  names=()
  for src in "$here"/tests/fuzz/*_fuzz.cpp; do
    n=$(basename "$src" _fuzz.cpp)
    names+=("$n")
  done
fi
nice ninja -C "$build" $(printf 'fuzz_%s ' "${names[@]}") >/dev/null

printf '%-16s %12s %8s %8s %8s %s\n' target executions edges features corpus findings
for n in "${names[@]}"; do
  scratch=$work/corpus/$n
  rm -rf "$scratch" && mkdir -p "$scratch"
  log=$work/logs/$n.log
  # Copies of the binary: a rebuild of the tree must not replace it mid-run.
  cp "$build/bin/fuzz_$n" "$work/fuzz_$n"
  set +e
  (cd "$work/logs" && nice "$work/fuzz_$n" -runs="$runs" -print_final_stats=1 \
    -artifact_prefix="$work/logs/$n-" "$scratch" "$here/tests/fuzz/corpus/$n") >"$log" 2>&1
  status=$?
  set -e
  execs=$(sed -n 's/^stat::number_executed_units: *//p; s/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  done_line=$(grep -E '^#[0-9]+.* cov: ' "$log" | tail -1 || true)
  edges=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$done_line")
  features=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$done_line")
  findings=$(ls "$work/logs" | grep -c "^$n-" || true)
  [ "$status" -ne 0 ] && findings="$findings (exit $status, see $log)"
  size=-
  if [ "$merge" = 1 ] && [ "$status" -eq 0 ]; then
    minimal=$work/min/$n
    rm -rf "$minimal" && mkdir -p "$minimal"
    nice "$work/fuzz_$n" -merge=1 "$minimal" "$here/tests/fuzz/corpus/$n" "$scratch" >"$work/logs/$n.merge.log" 2>&1
    # Seeds with names (hand-written inputs, regression inputs) stay even when
    # the merge finds their coverage elsewhere: they say what they are for.
    for seed in "$here/tests/fuzz/corpus/$n"/*; do
      base=$(basename "$seed")
      [[ "$base" =~ ^[0-9a-f]{40}$ ]] || cp "$seed" "$minimal/$base"
    done
    rm -rf "$here/tests/fuzz/corpus/$n" && cp -r "$minimal" "$here/tests/fuzz/corpus/$n"
    size=$(ls "$minimal" | wc -l)
  fi
  printf '%-16s %12s %8s %8s %8s %s\n' "$n" "${execs:-?}" "${edges:-?}" "${features:-?}" "$size" "$findings"
done
