// The search benchmark's client on our library (the same workload code as
// the libldap peer), run as its own process by search_bench.
#include <cstdio>
#include <cstdlib>

#include "ldap-search.h"

namespace {
int our_search(LDAP *ld, const char *base, int scope, const char *filter, LDAPMessage **res) {
  return ldap_search_s(ld, base, scope, filter, nullptr, 0, res);
}

// Referrals are chased binding as SB_REBIND_DN / SB_REBIND_PW when set.
int our_rebind(LDAP *, char **dn, char **pw, int *method, int freeit) {
  if (freeit) return 0;
  *dn = getenv("SB_REBIND_DN");
  *pw = getenv("SB_REBIND_PW");
  *method = LDAP_AUTH_SIMPLE;
  return 0;
}
}  // namespace
#define SB_SEARCH our_search
#define SB_BER_FREE(c) ldap_ber_free(c)
#include "search_bench_work.h"

int main(int argc, char **argv) {
  if (argc < 4) return 2;
  LDAP *ld = ldap_init(argv[1], atoi(argv[2]));
  if (ld == nullptr) return 1;
  if (getenv("SB_REBIND_DN") && getenv("SB_REBIND_PW"))
    ldap_set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(&our_rebind));
  int rc = sb_main(ld, argc - 3, argv + 3);
  ldap_unbind(ld);
  return rc;
}
