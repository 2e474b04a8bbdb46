/* latin1_xlate: an application whose strings are Latin-1, talking to a
 * directory that stores UTF-8.
 *
 *   usage: latin1_xlate URL BINDDN PASSWORD PARENT_DN
 *   e.g.   latin1_xlate ldap://127.0.0.1:389 cn=Manager,dc=example,dc=com secret ou=People,dc=example,dc=com
 *
 * With translation on, the session converts every string it sends from the
 * local code page to UTF-8 and every string it receives back.  The code-set
 * tables are looked for under TISDIR (default /opt/KRV/ldap/V6.2) in codeset/.
 * The program adds an entry whose surname is Latin-1, finds it by a Latin-1
 * filter, reads the surname back in Latin-1, and deletes the entry. */
#include <stdio.h>
#include <string.h>

#include "tavldap_full.h"

/* "Müller" and "Café" in Latin-1: one byte per letter. */
#define SURNAME "M\xfcller Caf\xe9"

int main(int argc, char **argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: latin1_xlate URL BINDDN PASSWORD PARENT_DN\n");
    return 2;
  }
  /* The first ldap_init also settles where the tables are looked for (TISDIR,
   * else the default home), so it comes before any conversion. */
  LDAP *ld = ldap_init(argv[1], 0);
  if (ld == NULL) return 1;
  /* The process's local code page, for every session. */
  int rc = ldap_set_iconv_local_codepage("ISO8859-1");
  if (rc != 0) goto done;
  /* What the directory will store: the same text in UTF-8. */
  char utf8[64];
  size_t in_len = strlen(SURNAME), space = sizeof utf8 - 1;
  rc = ldap_xlate_local_to_utf8(SURNAME, &in_len, utf8, &space);
  if (rc != 0) goto done;
  utf8[sizeof utf8 - 1 - space] = '\0';
  printf("%zu Latin-1 bytes become %zu UTF-8 bytes\n", strlen(SURNAME), strlen(utf8));

  /* LDAP_OPT_XLATE means "leave untranslated"; off, the session translates. */
  ldap_set_option(ld, LDAP_OPT_XLATE, LDAP_OPT_OFF);
  rc = ldap_simple_bind_s(ld, argv[2], argv[3]);
  if (rc != 0) goto done;

  char dn[512];
  snprintf(dn, sizeof dn, "cn=xlate example,%s", argv[4]);
  char *oc[] = {"person", NULL}, *cn[] = {"xlate example", NULL}, *sn[] = {SURNAME, NULL};
  LDAPMod m_oc = {LDAP_MOD_ADD, "objectClass", {oc}}, m_cn = {LDAP_MOD_ADD, "cn", {cn}},
          m_sn = {LDAP_MOD_ADD, "sn", {sn}};
  LDAPMod *mods[] = {&m_oc, &m_cn, &m_sn, NULL};
  rc = ldap_add_s(ld, dn, mods);
  if (rc != 0) goto done;

  LDAPMessage *res = NULL;
  char *attrs[] = {"sn", NULL};
  rc = ldap_search_s(ld, argv[4], LDAP_SCOPE_ONELEVEL, "(sn=" SURNAME ")", attrs, 0, &res);
  LDAPMessage *e = ldap_first_entry(ld, res);
  char **values = e ? ldap_get_values(ld, e, "sn") : NULL;
  int same = values != NULL && strcmp(values[0], SURNAME) == 0;
  printf("found by a Latin-1 filter: %s; surname read back in Latin-1: %s\n", e ? "yes" : "no", same ? "yes" : "no");
  ldap_value_free(values);
  ldap_msgfree(res);
  if (rc == 0 && !same) rc = LDAP_NO_RESULTS_RETURNED;
  int del = ldap_delete_s(ld, dn);
  if (rc == 0) rc = del;

done:
  if (rc != 0) fprintf(stderr, "latin1_xlate: %s (%d)\n", ldap_err2string(rc), rc);
  ldap_unbind(ld);
  return rc;
}
