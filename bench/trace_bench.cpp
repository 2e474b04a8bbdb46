// What a trace call site costs when the trace is off: one relaxed load of the
// mask and one test.  Compared with a loop of the same shape that traces
// nothing, the difference should be a fraction of a nanosecond.
#include <benchmark/benchmark.h>

#include "ldap-debug.h"

static void EmptyLoop(benchmark::State &state) {
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    ++value;
  }
}
BENCHMARK(EmptyLoop);

static void DisabledTraceCallSite(benchmark::State &state) {
  ldap_set_debug_level(0);
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_search_ext_s: base=%s scope=%d value=%d\n", "dc=example,dc=com", 2, value);
    ++value;
  }
}
BENCHMARK(DisabledTraceCallSite);

// A site whose category is off while another category is on: the mask is
// non-zero, so ldap_log is called and returns after its category test.
static void OtherCategoryOnly(benchmark::State &state) {
  ldap_set_debug_level(0x8000);
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_search_ext_s: value=%d\n", value);
    ++value;
  }
  ldap_set_debug_level(0);
}
BENCHMARK(OtherCategoryOnly);

BENCHMARK_MAIN();
