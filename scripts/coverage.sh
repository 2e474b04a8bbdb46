#!/usr/bin/env bash
# Line and branch coverage of libraries/, toolkit/, plugins/ and tools/ by the
# unit and integration suites, run against their real peers as in
# scripts/test.sh: clang's source-based coverage (llvm-profdata and llvm-cov
# from Debian's llvm package), one profile per test process.
#   bash scripts/coverage.sh              build-cov/, every unit and integration test
#   CTEST_ARGS="-R Search" bash scripts/coverage.sh   a subset (what one suite covers)
#   PER_TEST=1 bash scripts/coverage.sh   also what each suite and case covers that no other does
# Prints a table per folder and in total; the per-file summary is left in
# build-cov/coverage.json for comparisons.  With PER_TEST=1 each test runs on
# its own, its profile is exported to build-cov/per-test/<test>.lcov, and
# build-cov/per-test.txt lists, per suite and per case, the lines and
# branches of our code that only it covers: what would be lost without it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$root/build-cov}
command -v llvm-profdata >/dev/null && command -v llvm-cov >/dev/null ||
  { echo "coverage: llvm-profdata and llvm-cov are needed (Debian package llvm)"; exit 1; }

flags="-fprofile-instr-generate -fcoverage-mapping"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTAV_BENCH=OFF \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS="$flags" -DCMAKE_SHARED_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$build" >/dev/null

profiles="$build/profiles"
rm -rf "$profiles"
mkdir -p "$profiles"
# %p: one file per process (each GoogleTest case runs in its own); %m keeps
# the shared objects' counters apart from the programs'.
if [ -z "${PER_TEST:-}" ]; then
  LLVM_PROFILE_FILE="$profiles/%p-%m.profraw" ctest --test-dir "$build" -L 'unit|integration' -j2 \
    ${CTEST_ARGS:-} >"$build/coverage-ctest.log" 2>&1 || echo "coverage: some tests failed (see $build/coverage-ctest.log)"
else
  # One ctest run per test, by its number, two at a time; its profiles in a
  # folder named by that number.
  ctest --test-dir "$build" -N -L 'unit|integration' ${CTEST_ARGS:-} |
    sed -nE 's/^ *Test +#([0-9]+): (.*)/\1 \2/p' >"$build/per-test.list"
  : >"$build/coverage-ctest.log"
  # shellcheck disable=SC2016
  xargs -P2 -L1 bash -c 'mkdir -p "$0/$2" && LLVM_PROFILE_FILE="$0/$2/%p-%m.profraw" \
    ctest --test-dir "$1" -I "$2,$2" >>"$1/coverage-ctest.log" 2>&1 || echo "coverage: $3 failed"' \
    "$profiles" "$build" <"$build/per-test.list"
fi
find "$profiles" -name '*.profraw' >"$build/profiles.list"
llvm-profdata merge -sparse -f "$build/profiles.list" -o "$build/coverage.profdata"

# Every program and shared object built from our sources.
objects=()
while IFS= read -r f; do objects+=(-object "$f"); done < <(
  find "$build/bin" "$build/lib" "$build/tools" "$build/toolkit" "$build/plugins" -maxdepth 2 -type f \
    \( -perm -u+x -o -name '*.so' \) 2>/dev/null | sort -u)
llvm-cov export -summary-only -instr-profile "$build/coverage.profdata" "${objects[@]:1}" \
  -ignore-filename-regex='(^|/)(tests|build[^/]*|bench|examples)/|^/usr/' >"$build/coverage.json"

if [ -n "${PER_TEST:-}" ]; then
  rm -rf "$build/per-test"
  mkdir -p "$build/per-test"
  # shellcheck disable=SC2016
  OBJECTS="${objects[*]:1}" xargs -P2 -L1 bash -c 'ls "$0/$2"/*.profraw >/dev/null 2>&1 || exit 0
    llvm-profdata merge -sparse "$0/$2"/*.profraw -o "$0/$2.profdata" &&
    llvm-cov export -format=lcov -instr-profile "$0/$2.profdata" $OBJECTS \
      -ignore-filename-regex="(^|/)(tests|build[^/]*|bench|examples)/|^/usr/" >"$1/per-test/$2.lcov" 2>/dev/null' \
    "$profiles" "$build" <"$build/per-test.list"
  python3 "$root/scripts/coverage_unique.py" "$build" "$root" >"$build/per-test.txt"
  echo "coverage: lines and branches only one suite or case covers in $build/per-test.txt"
fi

python3 - "$build/coverage.json" "$root" <<'EOF'
import collections, json, sys
data, root = json.load(open(sys.argv[1])), sys.argv[2].rstrip("/") + "/"
totals = collections.OrderedDict((k, [0, 0, 0, 0]) for k in ("libraries", "toolkit", "plugins", "tools"))
for f in data["data"][0]["files"]:
    name = f["filename"]
    if not name.startswith(root):
        continue
    top = name[len(root):].split("/")[0]
    if top not in totals:
        continue
    s = f["summary"]
    t = totals[top]
    t[0] += s["lines"]["covered"]; t[1] += s["lines"]["count"]
    t[2] += s["branches"]["covered"]; t[3] += s["branches"]["count"]
pct = lambda a, b: 100.0 * a / b if b else 0.0
print("%-10s %14s %8s %16s %8s" % ("folder", "lines", "line %", "branches", "branch %"))
all_ = [0, 0, 0, 0]
for k, t in totals.items():
    all_ = [a + b for a, b in zip(all_, t)]
    print("%-10s %6d/%-7d %7.1f%% %7d/%-8d %7.1f%%" % (k, t[0], t[1], pct(t[0], t[1]), t[2], t[3], pct(t[2], t[3])))
print("%-10s %6d/%-7d %7.1f%% %7d/%-8d %7.1f%%" % ("total", all_[0], all_[1], pct(all_[0], all_[1]), all_[2], all_[3],
                                                  pct(all_[2], all_[3])))
EOF
