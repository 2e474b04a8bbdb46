// The search benchmark's client on our library (the same workload code as
// the libldap peer), run as its own process by search_bench.
#include <cstdio>
#include <cstdlib>

#include "ldap-search.h"

namespace {
int our_search(LDAP *ld, const char *base, int scope, const char *filter, LDAPMessage **res) {
  return ldap_search_s(ld, base, scope, filter, nullptr, 0, res);
}
}  // namespace
#define SB_SEARCH our_search
#define SB_BER_FREE(c) ldap_ber_free(c)
#include "search_bench_work.h"

int main(int argc, char **argv) {
  if (argc < 4) return 2;
  LDAP *ld = ldap_init(argv[1], atoi(argv[2]));
  if (ld == nullptr) return 1;
  int rc = sb_main(ld, argc - 3, argv + 3);
  ldap_unbind(ld);
  return rc;
}
