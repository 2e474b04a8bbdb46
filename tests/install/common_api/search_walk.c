/* search_walk URI BINDDN PASSWORD BASE FILTER: every entry under BASE that
 * matches FILTER, with all its attributes and values. */
#include <stdio.h>
#include <string.h>
#include <lber.h>
#include <ldap.h>

int main(int argc, char **argv) {
  LDAP *ld;
  LDAPMessage *res, *e;
  struct berval cred;
  int version = LDAP_VERSION3, rc;

  if (argc != 6) {
    fprintf(stderr, "usage: search_walk URI BINDDN PASSWORD BASE FILTER\n");
    return 2;
  }
  if (ldap_initialize(&ld, argv[1]) != LDAP_SUCCESS) return 1;
  ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
  cred.bv_val = argv[3];
  cred.bv_len = strlen(argv[3]);
  rc = ldap_sasl_bind_s(ld, argv[2], LDAP_SASL_SIMPLE, &cred, NULL, NULL, NULL);
  printf("bind: %d\n", rc);
  if (rc != LDAP_SUCCESS) return 1;

  rc = ldap_search_ext_s(ld, argv[4], LDAP_SCOPE_SUBTREE, argv[5], NULL, 0, NULL, NULL, NULL, LDAP_NO_LIMIT, &res);
  printf("search: %d, %d entries\n", rc, ldap_count_entries(ld, res));
  for (e = ldap_first_entry(ld, res); e != NULL; e = ldap_next_entry(ld, e)) {
    BerElement *ber = NULL;
    char *a, *dn = ldap_get_dn(ld, e);
    printf("dn: %s\n", dn);
    ldap_memfree(dn);
    for (a = ldap_first_attribute(ld, e, &ber); a != NULL; a = ldap_next_attribute(ld, e, ber)) {
      struct berval **vals = ldap_get_values_len(ld, e, a);
      int i;
      for (i = 0; vals != NULL && vals[i] != NULL; i++) printf("%s: %.*s\n", a, (int)vals[i]->bv_len, vals[i]->bv_val);
      ldap_value_free_len(vals);
      ldap_memfree(a);
    }
    ber_free(ber, 0);
  }
  ldap_msgfree(res);

  /* A base that does not exist: the code and the part of it that does. */
  res = NULL;
  rc = ldap_search_ext_s(ld, "ou=Nowhere,ou=People,dc=example,dc=com", LDAP_SCOPE_BASE, "(objectClass=*)", NULL, 0,
                         NULL, NULL, NULL, LDAP_NO_LIMIT, &res);
  if (res != NULL) {
    char *matched = NULL;
    int err = 0;
    ldap_parse_result(ld, res, &err, &matched, NULL, NULL, NULL, 1);
    printf("missing base: %d %d matched '%s'\n", rc, err, matched ? matched : "");
    ldap_memfree(matched);
  }
  ldap_unbind_ext_s(ld, NULL, NULL);
  return 0;
}
