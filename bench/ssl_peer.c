/* The ldaps benchmark's client on OpenLDAP's libldap, trusting the same CA.
 *   ssl_peer HOST PORT CAFILE walk BASE FILTER
 *   ssl_peer HOST PORT CAFILE handshakes N full */
#define LDAP_DEPRECATED 1
#include <ldap.h>
#include <gnutls/gnutls.h>
#include <stdio.h>

static char url[300];

static int peer_search(LDAP *ld, const char *base, int scope, const char *filter, LDAPMessage **res) {
  return ldap_search_ext_s(ld, base, scope, filter, NULL, 0, NULL, NULL, NULL, 0, res);
}
static int peer_open(LDAP **ld) {
  if (ldap_initialize(ld, url) != LDAP_SUCCESS) return -1;
  int v3 = LDAP_VERSION3;
  ldap_set_option(*ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
  return 0;
}
static int peer_connect(LDAP **ld) {
  if (peer_open(ld) != 0) return -1;
  struct berval none = {0, NULL};
  return ldap_sasl_bind_s(*ld, NULL, LDAP_SASL_SIMPLE, &none, NULL, NULL, NULL);
}
static void peer_between(void) {}
/* Debian's libldap does TLS with GnuTLS: version and cipher through its
 * options, the group and resumption from the GnuTLS session, which is the
 * first member of the record LDAP_OPT_X_TLS_SSL_CTX hands out there. */
static int peer_describe(LDAP *ld, char *protocol, char *cipher, char *group) {
  char *text = NULL;
  if (ldap_get_option(ld, LDAP_OPT_X_TLS_VERSION, &text) == LDAP_SUCCESS && text != NULL) {
    snprintf(protocol, 64, "%s", text);
    ldap_memfree(text);
  }
  text = NULL;
  if (ldap_get_option(ld, LDAP_OPT_X_TLS_CIPHER, &text) == LDAP_SUCCESS && text != NULL) {
    snprintf(cipher, 64, "%s", text);
    ldap_memfree(text);
  }
  void *record = NULL;
  if (ldap_get_option(ld, LDAP_OPT_X_TLS_SSL_CTX, &record) != LDAP_SUCCESS || record == NULL) return -1;
  gnutls_session_t session = *(gnutls_session_t *)record;
  const char *g = gnutls_group_get_name(gnutls_group_get(session));
  snprintf(group, 64, "%s", g != NULL ? g : "none");
  return gnutls_session_is_resumed(session) != 0;
}

#define SB_SEARCH peer_search
#define SB_BER_FREE(c) ber_free((c), 0)
#define SB_CONNECT peer_connect
#define SB_DISCONNECT(ld) ldap_unbind_ext_s((ld), NULL, NULL)
#define SB_BETWEEN peer_between
#define SB_DESCRIBE peer_describe
#include "ssl_bench_work.h"

int main(int argc, char **argv) {
  if (argc < 6) return 2;
  snprintf(url, sizeof url, "ldaps://%s:%s", argv[1], argv[2]);
  int demand = LDAP_OPT_X_TLS_DEMAND;
  ldap_set_option(NULL, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
  ldap_set_option(NULL, LDAP_OPT_X_TLS_CACERTFILE, argv[3]);
  /* The key exchange ours (OpenSSL's default) uses, so both run at equal
   * security: GnuTLS alone would offer P-256 first. */
  ldap_set_option(NULL, LDAP_OPT_X_TLS_CIPHER_SUITE, "NORMAL:-GROUP-ALL:+GROUP-X25519");
  if (strcmp(argv[4], "handshakes") == 0 && argc >= 6) return sb_handshakes_mode(atoi(argv[5]));
  LDAP *ld = NULL;
  if (peer_open(&ld) != 0) return 1;
  int rc = sb_main(ld, argc - 4, argv + 4);
  ldap_unbind_ext_s(ld, NULL, NULL);
  return rc;
}
