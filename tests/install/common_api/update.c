/* update URI BINDDN PASSWORD PARENT: adds an entry under PARENT, modifies,
 * compares, renames and deletes it, printing each result code. */
#include <stdio.h>
#include <string.h>
#include <lber.h>
#include <ldap.h>

static int compare(LDAP *ld, const char *dn, const char *attr, char *v) {
  struct berval value;
  value.bv_val = v;
  value.bv_len = strlen(v);
  return ldap_compare_ext_s(ld, dn, attr, &value, NULL, NULL);
}

int main(int argc, char **argv) {
  LDAP *ld;
  struct berval cred;
  char dn[512], newdn[512];
  char *oc[] = {"inetOrgPerson", NULL}, *cn[] = {"Porting User", NULL}, *sn[] = {"Porting", NULL};
  char *uid[] = {"porting", NULL}, *sn2[] = {"Ported", NULL}, *mail[] = {"porting@example.com", NULL};
  LDAPMod moc = {LDAP_MOD_ADD, "objectClass", {oc}}, mcn = {LDAP_MOD_ADD, "cn", {cn}};
  LDAPMod msn = {LDAP_MOD_ADD, "sn", {sn}}, muid = {LDAP_MOD_ADD, "uid", {uid}};
  LDAPMod rsn = {LDAP_MOD_REPLACE, "sn", {sn2}}, amail = {LDAP_MOD_ADD, "mail", {mail}};
  LDAPMod *add[] = {&moc, &mcn, &msn, &muid, NULL}, *mod[] = {&rsn, &amail, NULL};
  int version = LDAP_VERSION3, rc;

  if (argc != 5) {
    fprintf(stderr, "usage: update URI BINDDN PASSWORD PARENT\n");
    return 2;
  }
  snprintf(dn, sizeof dn, "uid=porting,%s", argv[4]);
  snprintf(newdn, sizeof newdn, "uid=ported,%s", argv[4]);
  if (ldap_initialize(&ld, argv[1]) != LDAP_SUCCESS) return 1;
  ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
  cred.bv_val = argv[3];
  cred.bv_len = strlen(argv[3]);
  rc = ldap_sasl_bind_s(ld, argv[2], LDAP_SASL_SIMPLE, &cred, NULL, NULL, NULL);
  if (rc != LDAP_SUCCESS) {
    fprintf(stderr, "bind: %s\n", ldap_err2string(rc));
    return 1;
  }
  /* Left over from an earlier run that stopped half-way. */
  ldap_delete_ext_s(ld, dn, NULL, NULL);
  ldap_delete_ext_s(ld, newdn, NULL, NULL);

  printf("add: %d\n", ldap_add_ext_s(ld, dn, add, NULL, NULL));
  printf("add again: %d\n", ldap_add_ext_s(ld, dn, add, NULL, NULL));
  printf("modify: %d\n", ldap_modify_ext_s(ld, dn, mod, NULL, NULL));
  printf("compare sn=Ported: %d\n", compare(ld, dn, "sn", "Ported"));
  printf("compare sn=Porting: %d\n", compare(ld, dn, "sn", "Porting"));
  printf("compare mail: %d\n", compare(ld, dn, "mail", "porting@example.com"));
  printf("rename: %d\n", ldap_rename_s(ld, dn, "uid=ported", NULL, 1, NULL, NULL));
  printf("compare old dn: %d\n", compare(ld, dn, "sn", "Ported"));
  printf("compare uid: %d\n", compare(ld, newdn, "uid", "porting"));
  printf("delete: %d\n", ldap_delete_ext_s(ld, newdn, NULL, NULL));
  printf("delete again: %d\n", ldap_delete_ext_s(ld, newdn, NULL, NULL));
  ldap_unbind_ext_s(ld, NULL, NULL);
  return 0;
}
