/* scram_bind: a SASL SCRAM-SHA-256 bind through the plug-in krvldap.conf names.
 *
 *   usage: scram_bind URL USER PASSWORD ENTRY_DN
 *   e.g.   scram_bind ldap://127.0.0.1:389 user2 pass2 uid=user2,ou=People,dc=example,dc=com
 *
 * krvldap.conf (found in $KRVLDAP_CONF, else /opt/KRV/ldap/V6.2/etc) holds a
 * line "plugin sasl SCRAM-SHA-256 /path/to/libtavsasl.so": the library hands
 * the whole exchange to that plug-in, which runs it with Cyrus SASL.  The
 * bind DN argument is the SASL user name, the credentials the password.  To
 * show whom the server took us for, the program then changes the description
 * of ENTRY_DN, which only the entry itself may write. */
#include <stdio.h>
#include <string.h>

#include "tavldap_full.h"

int main(int argc, char **argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: scram_bind URL USER PASSWORD ENTRY_DN\n");
    return 2;
  }
  LDAP *ld = ldap_init(argv[1], 0);
  if (ld == NULL) return 1;
  struct berval password = {strlen(argv[3]), argv[3]};
  int rc = ldap_sasl_bind_s(ld, argv[2], "SCRAM-SHA-256", &password, NULL, NULL, NULL);
  printf("SCRAM-SHA-256 bind as %s: %s (%d)\n", argv[2], ldap_err2string(rc), rc);
  if (rc == 0) {
    char *values[] = {"bound with SCRAM-SHA-256", NULL};
    LDAPMod mod = {LDAP_MOD_REPLACE, "description", {values}};
    LDAPMod *mods[] = {&mod, NULL};
    rc = ldap_modify_s(ld, argv[4], mods);
    printf("modify %s as that identity: %s (%d)\n", argv[4], ldap_err2string(rc), rc);
  }
  ldap_unbind(ld);
  return rc;
}
