// DelRequest: [APPLICATION 10] primitive; the entry's DN is the whole operation.
#include "ldap-update.h"

namespace {
const LdapUpdateWorker kDelete = {"ldap_delete_ext_direct: NULL server connection\n", true, ldap_proto::kDeleteRequest};
}

extern "C" {

int ldap_delete_ext_direct(LDAP *ld, const char *dn, LDAPControl **sctrls, int *msgidp, LDAPConn *conn) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_delete_ext_direct: dn(%s)\n", ldap_trace_str(dn));
  return ldap_update_send(ld, conn, kDelete, sctrls, msgidp, [&](BerElement *ber) {
    return fber_printf(ber, "ts", (ber_tag_t)ldap_proto::kDeleteRequest, dn);
  });
}

int ldap_delete_ext_int(LDAP *ld, const char *dn, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp) {
  if (msgidp != nullptr) *msgidp = -1;
  if (dn == nullptr || msgidp == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_delete_ext_int: Error - dn(%p) msgidp(%p)\n", (const void *)dn, (void *)msgidp);
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return LDAP_PARAM_ERROR;
  }
  return ldap_update_with_controls(
      ld, sctrls, cctrls, [&](LDAPControl **sc) { return ldap_delete_ext_direct(ld, dn, sc, msgidp, nullptr); });
}

int ldap_delete_ext(LDAP *ld, const char *dn, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_delete_ext: ld(%p) dn(%s) serverctrls(%p) clientctrls(%p) msgidp(%p)\n", (void *)ld,
           ldap_trace_str(dn), (void *)sctrls, (void *)cctrls, (void *)msgidp);
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc = ldap_delete_ext_int(ld, dn, sctrls, cctrls, msgidp);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_delete_ext: returning rc=%d\n", rc);
  return rc;
}

int ldap_delete_ext_s(LDAP *ld, const char *dn, LDAPControl **sctrls, LDAPControl **cctrls) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_delete_ext_s: ld(%p) dn(%s)\n", (void *)ld, ldap_trace_str(dn));
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int msgid = -1;
  int rc = ldap_delete_ext_int(ld, dn, sctrls, cctrls, &msgid);
  if (rc != LDAP_SUCCESS)
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_delete_ext_s: ldap_delete_ext failed with rc=%d\n", rc);
  else
    rc = ldap_update_wait(ld, msgid, "ldap_delete_ext_s: ldap_result failed rc=%d\n");
  return rc;
}

int ldap_delete(LDAP *ld, const char *dn) {
  int msgid = -1;
  return ldap_delete_ext(ld, dn, nullptr, nullptr, &msgid) == LDAP_SUCCESS ? msgid : -1;
}

int ldap_delete_s(LDAP *ld, const char *dn) {
  const int rc = ldap_delete_ext_s(ld, dn, nullptr, nullptr);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_delete_s: returning rc=%d\n", rc);
  return rc;
}
}
