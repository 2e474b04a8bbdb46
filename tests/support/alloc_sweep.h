// Failing each allocation of a call in turn.  The nth run fails the call's
// nth allocation; the sweep ends with the first run that made fewer than n
// allocations, which is the run where nothing failed.
#ifndef TAV_TEST_ALLOC_SWEEP_H
#define TAV_TEST_ALLOC_SWEEP_H

#include "ldap-utils.h"

namespace tavtest {

// Runs `attempt` once per n and hands what it returned to `check` with the
// hook off again (checks allocate), with whether an allocation failed and n.
// Returns the n of the run where nothing failed.
template <typename Attempt, typename Check>
long sweep_allocations(Attempt attempt, Check check) {
  for (long n = 1;; ++n) {
    olx_fail_alloc_at(n);
    auto result = attempt();
    const bool failed = olx_fail_alloc_at(0) >= n;
    check(result, failed, n);
    if (!failed) return n;
  }
}

}  // namespace tavtest

#endif
