// The search benchmark's client on our library linked from the full archive
// (libtav8ldap_64_full.a, tavldap_full.h), as programs that need the calls
// the shared object does not export link it: here for the pipelined mode,
// whose asynchronous search and ldap_result(LDAP_RES_ANY) are such calls.
// Same workload code as the other clients (search_bench_work.h).
#include <cstdio>
#include <cstdlib>

#include "tavldap_full.h"

namespace {
int our_search(LDAP *ld, const char *base, int scope, const char *filter, LDAPMessage **res) {
  return ldap_search_ext_s(ld, base, scope, filter, nullptr, 0, nullptr, nullptr, nullptr, 0, res);
}
int our_search_async(LDAP *ld, const char *base, int scope, const char *filter) {
  int msgid = -1;
  return ldap_search_ext(ld, base, scope, filter, nullptr, 0, nullptr, nullptr, nullptr, 0, &msgid) == 0 ? msgid
                                                                                                          : -1;
}
int our_result_any(LDAP *ld, LDAPMessage **res) { return ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ALL, nullptr, res); }
}  // namespace
#define SB_SEARCH our_search
#define SB_SEARCH_ASYNC our_search_async
#define SB_RESULT_ANY our_result_any
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
