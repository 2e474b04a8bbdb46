/* paged URI BASE PAGESIZE: a subtree search read in pages with the simple
 * paged results control (RFC 2696). */
#include <stdio.h>
#include <stdlib.h>
#include <lber.h>
#include <ldap.h>

int main(int argc, char **argv) {
  LDAP *ld;
  struct berval cookie = {0, NULL};
  int version = LDAP_VERSION3, rc, pages = 0, total = 0;

  if (argc != 4) {
    fprintf(stderr, "usage: paged URI BASE PAGESIZE\n");
    return 2;
  }
  if (ldap_initialize(&ld, argv[1]) != LDAP_SUCCESS) return 1;
  ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
  do {
    LDAPControl *page = NULL, *sctrls[2], **rctrls = NULL, *resp;
    LDAPMessage *res = NULL, *e;
    ber_int_t estimate = 0;
    int err = 0;

    rc = ldap_create_page_control(ld, atoi(argv[3]), &cookie, 0, &page);
    if (rc != LDAP_SUCCESS) break;
    sctrls[0] = page;
    sctrls[1] = NULL;
    rc = ldap_search_ext_s(ld, argv[2], LDAP_SCOPE_SUBTREE, "(objectClass=*)", NULL, 0, sctrls, NULL, NULL,
                           LDAP_NO_LIMIT, &res);
    ldap_control_free(page);
    if (rc != LDAP_SUCCESS) break;
    printf("page %d: %d entries\n", ++pages, ldap_count_entries(ld, res));
    for (e = ldap_first_entry(ld, res); e != NULL; e = ldap_next_entry(ld, e)) {
      char *dn = ldap_get_dn(ld, e);
      printf("  %s\n", dn);
      ldap_memfree(dn);
      total++;
    }
    rc = ldap_parse_result(ld, res, &err, NULL, NULL, NULL, &rctrls, 1);
    if (rc != LDAP_SUCCESS) break;
    ber_memfree(cookie.bv_val);
    cookie.bv_val = NULL;
    cookie.bv_len = 0;
    resp = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, rctrls, NULL);
    rc = resp ? ldap_parse_pageresponse_control(ld, resp, &estimate, &cookie) : LDAP_CONTROL_NOT_FOUND;
    ldap_controls_free(rctrls);
  } while (rc == LDAP_SUCCESS && cookie.bv_len > 0);
  ber_memfree(cookie.bv_val);
  printf("%d entries in %d pages, last code %d\n", total, pages, rc);
  ldap_unbind_ext_s(ld, NULL, NULL);
  return rc == LDAP_SUCCESS ? 0 : 1;
}
