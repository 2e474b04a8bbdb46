#!/usr/bin/env bash
# One comparison of our library with OpenLDAP's libldap on this machine:
# ours loaded from the shared object as users load it (linked from the full
# archive where the shared object lacks the call: the pipelined searches;
# with its toolkit for ldaps), both clients running the same workload code
# against private slapds with generated entries, alternately.  Runs whose
# entry counts differ or that failed are discarded, never averaged.  Prints
# one table of ratios (ours / libldap) with medians and spreads: the plain
# walk, the kept result, 1/2/8/32 threads, pipelined searches, instructions
# per base search, the ldaps walk, connections, the referral chase and the
# codec against liblber; what each TLS client negotiated; and ends with a
# one-line summary.
#   bash bench/compare.sh           100,000 entries, 5 runs (many minutes)
#   QUICK=1 bash bench/compare.sh   a smoke run in well under a minute or two
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$root/build}
if [ "${QUICK:-0}" = 1 ]; then
  entries=2000 runs=2 seconds=0.2 min_time=0.02 reps=2
  ssl_people=1000 ssl_runs=1 handshakes=20 chased=1000 chase_runs=1
else
  entries=100000 runs=5 seconds=2 min_time=0.5 reps=5
  ssl_people=10000 ssl_runs=5 handshakes=200 chased=10000 chase_runs=5
fi
[ -f "$build/build.ninja" ] || cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C "$build" search_bench search_bench_ours search_bench_full ldap_peer wire_client bench_ber ssl_bench ssl_bench_ours \
  ssl_peer tav7ssl_64 tavkeydb referral_bench >/dev/null

search=$("$build/bin/search_bench" "$entries" "$runs" "$seconds")
ssl=$("$build/bin/ssl_bench" "$ssl_runs" "$handshakes" "$ssl_people")
chase=$("$build/bin/referral_bench" "$chased" "$chase_runs")

# Codec: decode of a received entry and encode of a SearchRequest, against
# liblber; CPU ns per call of each repetition.
codec=$("$build/bin/bench_ber" --benchmark_min_time="$min_time" --benchmark_repetitions="$reps" \
  --benchmark_color=false 2>/dev/null)
# "Name   <time> <unit>   <cpu> <unit>   <iterations>": the CPU times in ns, one per repetition.
cpus() {
  awk -v n="$1" '$1 == n { v = $4; if ($5 == "us") v *= 1000; if ($5 == "ms") v *= 1000000; print v }' <<<"$codec"
}
# codec_row MEASURE OURS THEIRS: a row in the table's format.
codec_row() {
  paste <(cpus "$2" | sort -g) <(cpus "$3" | sort -g) | awk -v w="$1" '
    { o[NR] = $1; t[NR] = $2; r[NR] = $1 / $2 }
    END {
      n = NR; m = int((n + 1) / 2)
      # Sorted columns: the middle of each is its median, the ends its spread.
      printf "  %-34s %12.2f %12.2f %8.2f   %.2f-%.2f / %.2f-%.2f\n", w, o[m], t[m], o[m] / t[m], o[1], o[n], t[1], t[n]
    }'
}

rows() { grep -E '^  [a-z0-9]' <<<"$1" | grep -v '^  measure ' | grep -v ' negotiated ' || true; }
echo "ours against OpenLDAP's libldap (ratio = ours / libldap; medians, spreads min-max over runs)"
sed -n '1p' <<<"$search"
sed -n '1p' <<<"$ssl"
sed -n '1p' <<<"$chase"
printf "  %-34s %12s %12s %8s   %s\n" "measure" "ours" "libldap" "ratio" "spread ours / libldap"
all=$(
  rows "$search"
  rows "$ssl"
  rows "$chase"
  codec_row "codec: decode an entry, CPU ns" DecodeEntry_fber/init2 DecodeEntry_liblber
  codec_row "codec: encode SearchRequest, ns" EncodeSearch_fber/noxlate EncodeSearch_liblber
)
echo "$all"
grep ' negotiated ' <<<"$ssl" || true
echo "  (our SEQUENCE lengths are always four octets, liblber's the shortest form)"

# A row ends "<ours> <libldap> <ratio> <spread ours> / <spread libldap>".
ratio() { awk -v w="$1" 'index($0, w) { print $(NF - 3); exit }' <<<"$all"; }
echo "summary: ours/libldap walk CPU $(ratio 'walk: client CPU us/entry'), walk syscalls \
$(ratio 'walk: system calls/entry'), kept memory $(ratio 'kept result'), 8 threads ops/s \
$(ratio '8 threads: ops/s'), pipelined 16/128 ops/s $(ratio 'pipelined 16: ops/s')/$(ratio 'pipelined 128: ops/s'), \
base search instr $(ratio 'base search: instructions'), ldaps walk CPU $(ratio 'ldaps walk: client CPU'), \
connections/s $(ratio 'connections, tickets: per s'), chase $(ratio 'referral chase'), \
decode $(ratio 'codec: decode'), encode $(ratio 'codec: encode')"
