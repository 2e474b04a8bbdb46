/* ldaps_search: a search over SSL, presenting a client certificate.
 *
 *   usage: ldaps_search HOST PORT KEYDB LABEL BASE
 *   e.g.   ldaps_search 127.0.0.1 636 client.kdb mycert ou=People,dc=example,dc=com
 *
 * The key database is made with tavkeydb (the server's CA added with add-ca,
 * the client's certificate and key imported under LABEL, the password stashed
 * with -stash).  The library loads the security toolkit, libtav7ssl_64.so,
 * from /usr/lib/64/, or by its bare name through LD_LIBRARY_PATH when
 * TAVLIB_LOCAL_INSTALL_MODE is set.  The session binds with SASL EXTERNAL:
 * the server takes the identity from the certificate. */
#include <stdio.h>
#include <stdlib.h>

#include "tavldap_full.h"

static int fail(const char *what, int rc) {
  fprintf(stderr, "ldaps_search: %s: %s (%d)\n", what, ldap_err2string(rc), rc);
  return rc != 0 ? rc : 1;
}

int main(int argc, char **argv) {
  if (argc != 6) {
    fprintf(stderr, "usage: ldaps_search HOST PORT KEYDB LABEL BASE\n");
    return 2;
  }
  /* Once per process: the SSL environment every SSL session shares.  A null
   * password is read from the key database's stash file. */
  int toolkit_code = 0;
  int rc = ldap_ssl_client_init(argv[3], NULL, 0, &toolkit_code);
  if (rc != 0) {
    fprintf(stderr, "ldaps_search: toolkit code %d\n", toolkit_code);
    return fail("ldap_ssl_client_init", rc);
  }
  LDAP *ld = ldap_ssl_init(argv[1], atoi(argv[2]), argv[4]);
  if (ld == NULL) return fail("ldap_ssl_init", LDAP_PARAM_ERROR);

  /* The handshake happens with the first request. */
  struct berval none = {0, ""};
  rc = ldap_sasl_bind_s(ld, NULL, "EXTERNAL", &none, NULL, NULL, NULL);
  if (rc != 0) return fail("SASL EXTERNAL bind", rc);

  char *cipher = NULL;
  if (ldap_get_option(ld, LDAP_OPT_SSL_CURRENT_CIPHER, &cipher) == 0 && cipher != NULL) {
    printf("cipher: %s\n", cipher);
    ldap_memfree(cipher);
  }
  LDAPMessage *res = NULL;
  char *attrs[] = {"cn", NULL};
  rc = ldap_search_s(ld, argv[5], LDAP_SCOPE_ONELEVEL, "(objectClass=*)", attrs, 0, &res);
  for (LDAPMessage *e = ldap_first_entry(ld, res); e != NULL; e = ldap_next_entry(ld, e)) {
    char *dn = ldap_get_dn(ld, e);
    printf("%s\n", dn);
    ldap_memfree(dn);
  }
  printf("%d entries\n", ldap_count_entries(ld, res));
  ldap_msgfree(res);
  ldap_unbind(ld);
  return rc == 0 ? 0 : fail("search", rc);
}
