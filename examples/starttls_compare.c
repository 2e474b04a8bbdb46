/* starttls_compare: StartTLS on a plain connection, a bind, Who am I? and a
 * compare, as a program written for the common LDAP C API does them.
 *
 *   usage: starttls_compare URI KEYDB BINDDN PASSWORD DN ATTR VALUE
 *   e.g.   starttls_compare ldap://127.0.0.1:389 client.kdb \
 *              uid=user1,ou=People,dc=example,dc=com pass1 \
 *              uid=user1,ou=People,dc=example,dc=com mail user1@example.com
 *
 * The key database (made with tavkeydb: the server's CA added with add-ca,
 * the password stashed with -stash) decides which servers are trusted; the
 * server's certificate must also name the host of URI.  Nothing is sent in
 * clear after StartTLS fails: the connection is closed. */
#include <stdio.h>
#include <string.h>

#include "tavldap_full.h"

static int fail(const char *what, int rc) {
  fprintf(stderr, "starttls_compare: %s: %s (%d)\n", what, ldap_err2string(rc), rc);
  return 1;
}

int main(int argc, char **argv) {
  if (argc != 8) {
    fprintf(stderr, "usage: starttls_compare URI KEYDB BINDDN PASSWORD DN ATTR VALUE\n");
    return 2;
  }
  /* Once per process: the SSL environment StartTLS uses. */
  int rc = ldap_ssl_client_init(argv[2], NULL, 0, NULL);
  if (rc != 0) return fail("ldap_ssl_client_init", rc);
  LDAP *ld = NULL;
  rc = ldap_initialize(&ld, argv[1]);
  if (rc != 0) return fail("ldap_initialize", rc);
  rc = ldap_start_tls_s(ld, NULL, NULL);
  if (rc != 0) return fail("ldap_start_tls_s", rc);
  struct berval password = {strlen(argv[4]), argv[4]};
  rc = ldap_sasl_bind_s(ld, argv[3], LDAP_SASL_SIMPLE, &password, NULL, NULL, NULL);
  if (rc != 0) return fail("bind", rc);

  struct berval *who = NULL;
  rc = ldap_whoami_s(ld, &who, NULL, NULL);
  if (rc != 0) return fail("ldap_whoami_s", rc);
  printf("bound as %.*s\n", (int)who->bv_len, who->bv_val);
  ber_bvfree(who);

  struct berval value = {strlen(argv[7]), argv[7]};
  rc = ldap_compare_ext_s(ld, argv[5], argv[6], &value, NULL, NULL);
  if (rc != LDAP_COMPARE_TRUE && rc != LDAP_COMPARE_FALSE) return fail("ldap_compare_ext_s", rc);
  printf("%s %s %s: %s\n", argv[5], argv[6], argv[7], rc == LDAP_COMPARE_TRUE ? "true" : "false");
  ldap_unbind_ext_s(ld, NULL, NULL);
  return 0;
}
