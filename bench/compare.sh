#!/usr/bin/env bash
# One comparison of our library with OpenLDAP's libldap on this machine:
# ours loaded from the shared object as users load it, both clients running
# the same workload code against one private slapd with generated entries,
# alternately.  Runs whose entry counts differ or that failed are discarded,
# never averaged.  Prints one table of ratios (ours / libldap) with medians
# and spreads, then the codec comparison against liblber, and ends with a
# one-line summary.
#   bash bench/compare.sh           100,000 entries, 5 runs (several minutes)
#   QUICK=1 bash bench/compare.sh   a smoke run in well under a minute
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$root/build}
if [ "${QUICK:-0}" = 1 ]; then
  entries=2000 runs=2 seconds=0.2 min_time=0.02
else
  entries=100000 runs=5 seconds=2 min_time=0.5
fi
[ -f "$build/build.ninja" ] || cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C "$build" search_bench search_bench_ours ldap_peer bench_ber >/dev/null

table=$("$build/bin/search_bench" "$entries" "$runs" "$seconds")
echo "$table"

# Codec: decode of a received entry and encode of a SearchRequest, against liblber.
codec=$("$build/bin/bench_ber" --benchmark_min_time="$min_time" --benchmark_color=false 2>/dev/null)
# "Name   <time> <unit>   <cpu> <unit>   <iterations>": the CPU time in ns.
cpu() {
  awk -v n="$1" '$1 == n { v = $4; if ($5 == "us") v *= 1000; if ($5 == "ms") v *= 1000000; print v }' <<<"$codec"
}
decode=$(awk -v o="$(cpu DecodeEntry_fber/init2)" -v t="$(cpu DecodeEntry_liblber)" 'BEGIN { printf "%.2f", o / t }')
encode=$(awk -v o="$(cpu EncodeSearch_fber/noxlate)" -v t="$(cpu EncodeSearch_liblber)" 'BEGIN { printf "%.2f", o / t }')
echo "  codec: decode an entry $decode, encode a SearchRequest $encode (CPU time ratios; our lengths are"
echo "         always four octets, liblber's the shortest form)"

# A row ends "<ours> <libldap> <ratio> <spread ours> / <spread libldap>".
ratio() { awk -v w="$1" 'index($0, w) { print $(NF - 3); exit }' <<<"$table"; }
echo "summary: ours/libldap client CPU per entry $(ratio 'client CPU us/entry'), instructions $(ratio 'instructions/entry') \
system calls $(ratio 'system calls/entry'), peak memory $(ratio 'peak memory'), 8 threads ops/s \
$(ratio '8 threads: ops/s'), decode $decode, encode $encode"
