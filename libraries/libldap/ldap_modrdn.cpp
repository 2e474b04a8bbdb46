// ModifyDNRequest: [APPLICATION 12] { DN, new RDN, deleteoldrdn, [0] new superior OPTIONAL }.
#include "ldap-update.h"

namespace {
const LdapUpdateWorker kRename = {"ldap_rename_direct: NULL server connection\n", true, ldap_proto::kModDNRequest};

int encode_rename(BerElement *ber, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn) {
  if (fber_printf(ber, "t{ssb", (ber_tag_t)ldap_proto::kModDNRequest, dn, newrdn, deleteoldrdn) != 0) return -1;
  if (newsuperior != nullptr && fber_printf(ber, "ts", ldap_proto::kNewSuperior, newsuperior) != 0) return -1;
  return fber_printf(ber, "}");
}
}  // namespace

extern "C" {

int ldap_rename_direct(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                       LDAPControl **sctrls, int *msgidp, LDAPConn *conn) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_rename_direct: dn(%s) newrdn(%s) newsuperior(%s)\n", ldap_trace_str(dn),
           ldap_trace_str(newrdn), ldap_trace_str(newsuperior));
  return ldap_update_send(ld, conn, kRename, sctrls, msgidp,
                          [&](BerElement *ber) { return encode_rename(ber, dn, newrdn, newsuperior, deleteoldrdn); });
}

int ldap_rename_int(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                    LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp) {
  if (msgidp != nullptr) *msgidp = -1;
  if (dn == nullptr || newrdn == nullptr || msgidp == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_rename_int: Error - dn(%p) newrdn(%p) msgidp(%p)\n", (const void *)dn,
             (const void *)newrdn, (void *)msgidp);
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return LDAP_PARAM_ERROR;
  }
  return ldap_update_with_controls(ld, sctrls, cctrls, [&](LDAPControl **sc) {
    return ldap_rename_direct(ld, dn, newrdn, newsuperior, deleteoldrdn, sc, msgidp, nullptr);
  });
}

int ldap_rename(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_rename: dn(%s) newrdn(%s) deleteoldrdn(%d)\n", ldap_trace_str(dn),
           ldap_trace_str(newrdn), deleteoldrdn);
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc = ldap_rename_int(ld, dn, newrdn, newsuperior, deleteoldrdn, sctrls, cctrls, msgidp);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_rename: returning rc=%d\n", rc);
  return rc;
}

int ldap_rename_s(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior, int deleteoldrdn,
                  LDAPControl **sctrls, LDAPControl **cctrls) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_rename_s: dn(%s) newrdn(%s) deleteoldrdn(%d)\n", ldap_trace_str(dn),
           ldap_trace_str(newrdn), deleteoldrdn);
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int msgid = -1;
  int rc = ldap_rename_int(ld, dn, newrdn, newsuperior, deleteoldrdn, sctrls, cctrls, &msgid);
  if (rc != LDAP_SUCCESS)
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_rename_s: ldap_rename failed with rc=%d\n", rc);
  else
    rc = ldap_update_wait(ld, msgid, "ldap_rename_s: ldap_result failed rc=%d\n");
  return rc;
}

int ldap_modrdn(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn) {
  int msgid = -1;
  return ldap_rename(ld, dn, newrdn, nullptr, deleteoldrdn, nullptr, nullptr, &msgid) == LDAP_SUCCESS ? msgid : -1;
}

int ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn) {
  const int rc = ldap_rename_s(ld, dn, newrdn, nullptr, deleteoldrdn, nullptr, nullptr);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_modrdn_s: returning rc=%d\n", rc);
  return rc;
}
}
