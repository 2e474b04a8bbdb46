/* The search benchmark's client on OpenLDAP's libldap. */
#define LDAP_DEPRECATED 1
#include <ldap.h>

static int peer_search(LDAP *ld, const char *base, int scope, const char *filter, LDAPMessage **res) {
  return ldap_search_ext_s(ld, base, scope, filter, NULL, 0, NULL, NULL, NULL, 0, res);
}
static int peer_search_t(LDAP *ld, const char *base, int scope, const char *filter, struct timeval *wait,
                         LDAPMessage **res) {
  return ldap_search_ext_s(ld, base, scope, filter, NULL, 0, NULL, NULL, wait, 0, res);
}
static int peer_search_async(LDAP *ld, const char *base, int scope, const char *filter) {
  int msgid = -1;
  return ldap_search_ext(ld, base, scope, filter, NULL, 0, NULL, NULL, NULL, 0, &msgid) == 0 ? msgid : -1;
}
static int peer_result_any(LDAP *ld, LDAPMessage **res) { return ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ALL, NULL, res); }
#define SB_SEARCH peer_search
#define SB_SEARCH_ASYNC peer_search_async
#define SB_RESULT_ANY peer_result_any
#define SB_SEARCH_T peer_search_t
#define SB_BER_FREE(c) ber_free((c), 0)
#include "search_bench_work.h"

/* Referrals are chased binding as SB_REBIND_DN / SB_REBIND_PW when set. */
static int peer_rebind(LDAP *ld, LDAP_CONST char *url, ber_tag_t request, ber_int_t msgid, void *params) {
  (void)url;
  (void)request;
  (void)msgid;
  (void)params;
  struct berval pw = {strlen(getenv("SB_REBIND_PW")), getenv("SB_REBIND_PW")};
  return ldap_sasl_bind_s(ld, getenv("SB_REBIND_DN"), LDAP_SASL_SIMPLE, &pw, NULL, NULL, NULL);
}

int main(int argc, char **argv) {
  if (argc < 4) return 2;
  char url[300];
  snprintf(url, sizeof url, "ldap://%s:%s", argv[1], argv[2]);
  LDAP *ld = NULL;
  if (ldap_initialize(&ld, url) != LDAP_SUCCESS) return 1;
  int v3 = LDAP_VERSION3;
  ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
  if (getenv("SB_REBIND_DN") && getenv("SB_REBIND_PW")) {
    ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_ON);
    ldap_set_rebind_proc(ld, peer_rebind, NULL);
  }
  /* A bound session (libldap has no reconnection to turn on). */
  if (getenv("SB_BIND_DN") && getenv("SB_BIND_PW")) {
    struct berval pw = {strlen(getenv("SB_BIND_PW")), getenv("SB_BIND_PW")};
    if (ldap_sasl_bind_s(ld, getenv("SB_BIND_DN"), LDAP_SASL_SIMPLE, &pw, NULL, NULL, NULL) != 0) return 1;
  }
  int rc = sb_main(ld, argc - 3, argv + 3);
  ldap_unbind_ext_s(ld, NULL, NULL);
  return rc;
}
