/* async_search URI BASE FILTER: an anonymous search whose messages are read
 * one at a time with ldap_result, each wait bounded by a time-out. */
#include <stdio.h>
#include <sys/time.h>
#include <ldap.h>

int main(int argc, char **argv) {
  LDAP *ld;
  LDAPMessage *msg;
  struct timeval tv;
  char *attrs[] = {"cn", NULL};
  int version = LDAP_VERSION3, msgid, rc, entries = 0, done = 0, waits = 0;

  if (argc != 4) {
    fprintf(stderr, "usage: async_search URI BASE FILTER\n");
    return 2;
  }
  if (ldap_initialize(&ld, argv[1]) != LDAP_SUCCESS) return 1;
  ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
  rc = ldap_search_ext(ld, argv[2], LDAP_SCOPE_SUBTREE, argv[3], attrs, 0, NULL, NULL, NULL, LDAP_NO_LIMIT, &msgid);
  if (rc != LDAP_SUCCESS) {
    fprintf(stderr, "ldap_search_ext: %s\n", ldap_err2string(rc));
    return 1;
  }
  while (!done) {
    tv.tv_sec = 10;
    tv.tv_usec = 0;
    rc = ldap_result(ld, msgid, LDAP_MSG_ONE, &tv, &msg);
    if (rc == 0) {
      if (++waits == 3) {
        printf("timed out\n");
        ldap_abandon_ext(ld, msgid, NULL, NULL);
        break;
      }
      continue;
    }
    if (rc < 0) {
      ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &rc);
      fprintf(stderr, "ldap_result: %s\n", ldap_err2string(rc));
      break;
    }
    switch (ldap_msgtype(msg)) {
      case LDAP_RES_SEARCH_ENTRY: {
        char *dn = ldap_get_dn(ld, msg);
        struct berval **cn = ldap_get_values_len(ld, msg, "cn");
        printf("%d %s (%.*s)\n", ++entries, dn, cn ? (int)cn[0]->bv_len : 0, cn ? cn[0]->bv_val : "");
        ldap_value_free_len(cn);
        ldap_memfree(dn);
        break;
      }
      case LDAP_RES_SEARCH_REFERENCE:
        printf("reference\n");
        break;
      case LDAP_RES_SEARCH_RESULT: {
        int err = -1;
        ldap_parse_result(ld, msg, &err, NULL, NULL, NULL, NULL, 0);
        printf("result %d after %d entries\n", err, entries);
        done = 1;
        break;
      }
    }
    ldap_msgfree(msg);
  }
  ldap_unbind_ext_s(ld, NULL, NULL);
  return done ? 0 : 1;
}
