/* paged_search: a search read in pages with the simple paged results control.
 *
 *   usage: paged_search URL BASE PAGESIZE [FILTER]
 *   e.g.   paged_search ldap://127.0.0.1:389 dc=example,dc=com 2
 *
 * Each page is one search carrying the control with the page size and the
 * cookie of the page before; the server's response control brings the next
 * cookie, and an empty cookie ends the walk. */
#include <stdio.h>
#include <stdlib.h>

#include "tavldap_full.h"

int main(int argc, char **argv) {
  if (argc < 4 || argc > 5) {
    fprintf(stderr, "usage: paged_search URL BASE PAGESIZE [FILTER]\n");
    return 2;
  }
  LDAP *ld = ldap_init(argv[1], 0);
  if (ld == NULL) return 1;
  const unsigned int size = (unsigned int)atoi(argv[3]);
  struct berval *cookie = NULL;
  int rc = 0, pages = 0, total = 0;
  do {
    LDAPControl *page = NULL;
    rc = ldap_create_page_control(ld, size, cookie, 1, &page);
    fber_bvfree(cookie);
    cookie = NULL;
    if (rc != 0) break;
    LDAPControl *sctrls[] = {page, NULL};
    LDAPMessage *res = NULL;
    rc = ldap_search_ext_s(ld, argv[2], LDAP_SCOPE_SUBTREE, argc > 4 ? argv[4] : "(objectClass=*)", NULL, 0, sctrls,
                           NULL, NULL, 0, &res);
    ldap_control_free(page);
    if (rc != 0) {
      ldap_msgfree(res);
      break;
    }
    const int n = ldap_count_entries(ld, res);
    printf("page %d: %d entries\n", ++pages, n);
    for (LDAPMessage *e = ldap_first_entry(ld, res); e != NULL; e = ldap_next_entry(ld, e)) {
      char *dn = ldap_get_dn(ld, e);
      printf("  %s\n", dn);
      ldap_memfree(dn);
    }
    total += n;
    /* The response controls ride on the final result. */
    LDAPControl **rctrls = NULL;
    unsigned int estimate = 0;
    rc = ldap_parse_result(ld, res, NULL, NULL, NULL, NULL, &rctrls, 1);
    if (rc == 0) rc = ldap_parse_page_control(ld, rctrls, &estimate, &cookie);
    ldap_controls_free(rctrls);
  } while (rc == 0 && cookie != NULL && cookie->bv_len > 0);
  fber_bvfree(cookie);
  if (rc != 0) fprintf(stderr, "paged_search: %s (%d)\n", ldap_err2string(rc), rc);
  printf("%d entries in %d pages\n", total, pages);
  ldap_unbind(ld);
  return rc;
}
