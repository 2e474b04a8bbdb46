// Allocation helpers with a failure-injection hook for tests.
#include "ldap-utils.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {
// 0: hook off.  Otherwise the countdown to the allocation that fails.
std::atomic<long> fail_countdown{0};
std::atomic<long> counted{0};

inline bool injected_failure() {
  if (__builtin_expect(fail_countdown.load(std::memory_order_relaxed) == 0, 1)) return false;
  counted.fetch_add(1, std::memory_order_relaxed);
  return fail_countdown.fetch_sub(1, std::memory_order_relaxed) == 1;
}
}  // namespace

extern "C" {

long olx_fail_alloc_at(long n) {
  long seen = counted.exchange(0);
  fail_countdown.store(n < 0 ? 0 : n);
  return seen;
}

void *olx_malloc(size_t size) { return injected_failure() ? nullptr : malloc(size ? size : 1); }

void *olx_calloc(size_t count, size_t size) {
  if (injected_failure()) return nullptr;
  return calloc(count ? count : 1, size ? size : 1);
}

void *olx_realloc(void *ptr, size_t size) {
  return injected_failure() ? nullptr : realloc(ptr, size ? size : 1);
}

char *olx_strdup(const char *s) {
  if (s == nullptr || injected_failure()) return nullptr;
  return strdup(s);
}

char *olx_strndup(const char *s, size_t n) {
  if (s == nullptr || injected_failure()) return nullptr;
  return strndup(s, n);
}
}

// The session's constructor for BER elements: copies of its translation
// settings go with every element it makes.
#include "ldap-engine.h"

extern "C" BerElement *ldap_alloc_ber_with_options(LDAP *ld, int for_reading) {
  BerElement *ber = fber_alloc_with_options(for_reading, ld->ld_xlate, ld->ld_version);
  if (ber == nullptr) ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
  return ber;
}

// A reading copy of what is left of an element, with copies of its
// translation settings, so a message can be parsed again later.
extern "C" BerElement *ldap_ber_dup(const BerElement *ber) {
  if (ber == nullptr) return nullptr;
  struct berval rest = {(ber_len_t)(ber->ber_end - ber->ber_ptr), ber->ber_ptr};
  BerElement *copy = fber_init2(&rest);
  if (copy == nullptr) return nullptr;
  for (auto [from, to] : {std::pair{ber->ber_noxlate, &copy->ber_noxlate}, {ber->ber_version, &copy->ber_version}}) {
    if (from == nullptr) continue;
    *to = static_cast<int32_t *>(olx_malloc(sizeof(int32_t)));
    if (*to == nullptr) {
      fber_free(copy);
      return nullptr;
    }
    **to = *from;
  }
  return copy;
}
