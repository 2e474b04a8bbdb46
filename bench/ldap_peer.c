/* The search benchmark's client on OpenLDAP's libldap. */
#define LDAP_DEPRECATED 1
#include <ldap.h>

static int peer_search(LDAP *ld, const char *base, int scope, const char *filter, LDAPMessage **res) {
  return ldap_search_ext_s(ld, base, scope, filter, NULL, 0, NULL, NULL, NULL, 0, res);
}
#define SB_SEARCH peer_search
#define SB_BER_FREE(c) ber_free((c), 0)
#include "search_bench_work.h"

int main(int argc, char **argv) {
  if (argc < 4) return 2;
  char url[300];
  snprintf(url, sizeof url, "ldap://%s:%s", argv[1], argv[2]);
  LDAP *ld = NULL;
  if (ldap_initialize(&ld, url) != LDAP_SUCCESS) return 1;
  int v3 = LDAP_VERSION3;
  ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
  int rc = sb_main(ld, argc - 3, argv + 3);
  ldap_unbind_ext_s(ld, NULL, NULL);
  return rc;
}
