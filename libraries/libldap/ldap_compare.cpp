// CompareRequest: [APPLICATION 14] { entry, { attributeDesc, assertionValue } }.
// It goes the update operations' way (one message ID, the session's default
// server controls, the same wait); its answer is the server's code, so the
// synchronous forms return LDAP_COMPARE_TRUE (6) or LDAP_COMPARE_FALSE (5).
#include <cstring>

#include "ldap-update.h"

namespace {
using ldap_proto::kCompareRequest;
const LdapUpdateWorker kCompare = {"ldap_compare_ext_direct: NULL server connection\n", true, kCompareRequest};

int compare_ext_int(LDAP *ld, const char *dn, const char *attr, const struct berval *value, LDAPControl **sctrls,
                    LDAPControl **cctrls, int *msgidp) {
  if (msgidp != nullptr) *msgidp = -1;
  if (dn == nullptr || attr == nullptr || *attr == '\0' || value == nullptr ||
      (value->bv_val == nullptr && value->bv_len != 0) || msgidp == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_compare_ext_int: Error - dn(%p) attr(%p) value(%p) msgidp(%p)\n", (const void *)dn,
             (const void *)attr, (const void *)value, (void *)msgidp);
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return LDAP_PARAM_ERROR;
  }
  return ldap_update_with_controls(ld, sctrls, cctrls, [&](LDAPControl **sc) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_compare_ext_direct: dn(%s) attr(%s)\n", dn, attr);
    return ldap_update_send(ld, nullptr, kCompare, sc, msgidp, [&](BerElement *ber) {
      return fber_printf(ber, "t{s{so}}", (ber_tag_t)kCompareRequest, dn, attr, value->bv_val ? value->bv_val : "",
                         (int)value->bv_len);
    });
  });
}
}  // namespace

extern "C" {

int ldap_compare_ext(LDAP *ld, const char *dn, const char *attr, struct berval *value, LDAPControl **sctrls,
                     LDAPControl **cctrls, int *msgidp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_compare_ext: ld(%p) dn(%s) attr(%s)\n", (void *)ld, ldap_trace_str(dn),
           ldap_trace_str(attr));
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc = compare_ext_int(ld, dn, attr, value, sctrls, cctrls, msgidp);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_compare_ext: returning rc=%d\n", rc);
  return rc;
}

int ldap_compare_ext_s(LDAP *ld, const char *dn, const char *attr, struct berval *value, LDAPControl **sctrls,
                       LDAPControl **cctrls) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_compare_ext_s: ld(%p) dn(%s) attr(%s)\n", (void *)ld, ldap_trace_str(dn),
           ldap_trace_str(attr));
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int msgid = -1;
  int rc = compare_ext_int(ld, dn, attr, value, sctrls, cctrls, &msgid);
  if (rc == LDAP_SUCCESS) rc = ldap_update_wait(ld, msgid, "ldap_compare_ext_s: ldap_result failed rc=%d\n");
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_compare_ext_s: returning rc=%d\n", rc);
  return rc;
}

int ldap_compare(LDAP *ld, const char *dn, const char *attr, const char *value) {
  struct berval bv = {value != nullptr ? (ber_len_t)strlen(value) : 0, const_cast<char *>(value)};
  int msgid = -1;
  return ldap_compare_ext(ld, dn, attr, value != nullptr ? &bv : nullptr, nullptr, nullptr, &msgid) == LDAP_SUCCESS
             ? msgid
             : -1;
}

int ldap_compare_s(LDAP *ld, const char *dn, const char *attr, const char *value) {
  struct berval bv = {value != nullptr ? (ber_len_t)strlen(value) : 0, const_cast<char *>(value)};
  return ldap_compare_ext_s(ld, dn, attr, value != nullptr ? &bv : nullptr, nullptr, nullptr);
}
}
