// AddRequest: [APPLICATION 8] { entry DN, attributes SEQUENCE OF { type, SET OF value } }.
#include "ldap-update.h"

namespace {

const LdapUpdateWorker kAdd = {"ldap_add_ext_direct, NULL server connection\n", false, ldap_proto::kAddRequest};

// The operation bits of mod_op mean nothing to an add; only LDAP_MOD_BVALUES counts.
int encode_add(BerElement *ber, const char *dn, LDAPMod **attrs) {
  if (fber_printf(ber, "t{s{", (ber_tag_t)ldap_proto::kAddRequest, dn) != 0) return -1;
  for (LDAPMod **m = attrs; m != nullptr && *m != nullptr; ++m) {
    const LDAPMod *mod = *m;
    if (mod->mod_op & LDAP_MOD_BVALUES) {
      if (fber_printf(ber, "{s", mod->mod_type) != 0 || fber_printf(ber, "[V]}", mod->mod_bvalues) != 0) return -1;
    } else if (fber_printf(ber, "{s[v]}", mod->mod_type, mod->mod_values) != 0) {
      return -1;
    }
  }
  return fber_printf(ber, "}}");
}

}  // namespace

extern "C" {

int ldap_add_ext_direct(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **sctrls, int *msgidp, LDAPConn *conn) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_add_ext_direct: dn(%s)\n", ldap_trace_str(dn));
  return ldap_update_send(ld, conn, kAdd, sctrls, msgidp, [&](BerElement *ber) { return encode_add(ber, dn, attrs); });
}

int ldap_add_ext_int(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **sctrls, LDAPControl **cctrls,
                     int *msgidp) {
  if (msgidp != nullptr) *msgidp = -1;
  if (dn == nullptr || attrs == nullptr || msgidp == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_add_ext_int: Error - dn(%p) attrs(%p) msgidp(%p)\n", (const void *)dn, (void *)attrs,
             (void *)msgidp);
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return LDAP_PARAM_ERROR;
  }
  return ldap_update_with_controls(
      ld, sctrls, cctrls, [&](LDAPControl **sc) { return ldap_add_ext_direct(ld, dn, attrs, sc, msgidp, nullptr); });
}

int ldap_add_ext(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_add_ext: ld(%p) dn(%s) attrs(%p) serverctrls(%p) clientctrls(%p) msgidp(%p)\n",
           (void *)ld, ldap_trace_str(dn), (void *)attrs, (void *)sctrls, (void *)cctrls, (void *)msgidp);
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc = ldap_add_ext_int(ld, dn, attrs, sctrls, cctrls, msgidp);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_add_ext: returning rc=%d\n", rc);
  return rc;
}

int ldap_add_ext_s(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **sctrls, LDAPControl **cctrls) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_add_ext_s: ld(%p) dn(%s)\n", (void *)ld, ldap_trace_str(dn));
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int msgid = -1;
  int rc = ldap_add_ext_int(ld, dn, attrs, sctrls, cctrls, &msgid);
  if (rc != LDAP_SUCCESS)
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_add_ext_s: ldap_add_ext failed with rc=%d\n", rc);
  else
    rc = ldap_update_wait(ld, msgid, "ldap_add_ext_s: ldap_result failed with rc=%d\n");
  return rc;
}

int ldap_add(LDAP *ld, const char *dn, LDAPMod **attrs) {
  int msgid = -1;
  return ldap_add_ext(ld, dn, attrs, nullptr, nullptr, &msgid) == LDAP_SUCCESS ? msgid : -1;
}

int ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs) {
  const int rc = ldap_add_ext_s(ld, dn, attrs, nullptr, nullptr);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_add_s: returning rc=%d\n", rc);
  return rc;
}
}
