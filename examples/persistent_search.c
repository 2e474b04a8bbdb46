/* persistent_search: an asynchronous search that stays open and reports
 * changes as they happen (the persistent search control).
 *
 *   usage: persistent_search URL BASE [SECONDS]
 *   e.g.   persistent_search ldap://127.0.0.1:389 dc=example,dc=com 60
 *
 * The search is sent with ldap_search_ext and read one message at a time with
 * ldap_result, so each entry is printed as soon as it arrives, with the kind
 * of change when the server attaches an entry-change control.  The program
 * stops after SECONDS (default 10) without news, or when the server ends the
 * search.  The control is sent non-critical, so a server without persistent
 * searches answers it as a plain search: the entries there are now, then the
 * end. */
#include <stdio.h>
#include <stdlib.h>

#include "tavldap_full.h"

static const char *change_name(int type) {
  switch (type) {
    case LDAP_CHANGETYPE_ADD:
      return "added";
    case LDAP_CHANGETYPE_DELETE:
      return "deleted";
    case LDAP_CHANGETYPE_MODIFY:
      return "modified";
    case LDAP_CHANGETYPE_MODDN:
      return "renamed";
    default:
      return "changed";
  }
}

int main(int argc, char **argv) {
  if (argc < 3 || argc > 4) {
    fprintf(stderr, "usage: persistent_search URL BASE [SECONDS]\n");
    return 2;
  }
  LDAP *ld = ldap_init(argv[1], 0);
  if (ld == NULL) return 1;
  /* Every kind of change, the present entries first (changesonly 0), with
   * entry-change controls. */
  LDAPControl *ps = NULL;
  int rc = ldap_create_persistentsearch_control(ld, LDAP_CHANGETYPE_ANY, 0, 1, 0, &ps);
  if (rc != 0) return rc;
  LDAPControl *sctrls[] = {ps, NULL};
  int msgid = -1;
  rc = ldap_search_ext(ld, argv[2], LDAP_SCOPE_SUBTREE, "(objectClass=*)", NULL, 0, sctrls, NULL, NULL, 0, &msgid);
  ldap_control_free(ps);
  if (rc != 0) {
    fprintf(stderr, "persistent_search: %s (%d)\n", ldap_err2string(rc), rc);
    return rc;
  }
  struct timeval quiet = {argc > 3 ? atoi(argv[3]) : 10, 0};
  for (;;) {
    LDAPMessage *msg = NULL;
    int type = ldap_result(ld, msgid, LDAP_MSG_ONE, &quiet, &msg);
    if (type == 0) {
      printf("no news for %ld seconds: done\n", (long)quiet.tv_sec);
      break;
    }
    if (type == -1) {
      rc = ldap_get_errno(ld);
      fprintf(stderr, "persistent_search: %s (%d)\n", ldap_err2string(rc), rc);
      break;
    }
    if (type == LDAP_RES_SEARCH_ENTRY) {
      char *dn = ldap_get_dn(ld, msg);
      LDAPControl **ectrls = NULL;
      int change = 0, has_number = 0;
      long number = 0;
      char *prevdn = NULL;
      if (ldap_get_entry_controls(ld, msg, &ectrls) == 0 &&
          ldap_parse_entrychange_control(ld, ectrls, &change, &prevdn, &has_number, &number) == 0)
        printf("%s: %s%s%s\n", change_name(change), dn, prevdn ? ", was " : "", prevdn ? prevdn : "");
      else
        printf("present: %s\n", dn);
      ldap_memfree(prevdn);
      ldap_controls_free(ectrls);
      ldap_memfree(dn);
      ldap_msgfree(msg);
      continue;
    }
    /* The final result: the server ended the search. */
    int code = 0;
    rc = ldap_parse_result(ld, msg, &code, NULL, NULL, NULL, NULL, 1);
    printf("the server ended the search: %s (%d)\n", ldap_err2string(code), code);
    if (rc == 0) rc = code;
    break;
  }
  ldap_unbind(ld);
  return rc;
}
