// ModifyRequest: [APPLICATION 6] { DN, SEQUENCE OF { operation, { type, SET OF value } } },
// the waiting step every synchronous update shares, and ldap_mods_free.
#include <cstdlib>

#include "ldap-update.h"

namespace {

const LdapUpdateWorker kModify = {nullptr, true, ldap_proto::kModifyRequest};

int encode_modify(BerElement *ber, const char *dn, LDAPMod **mods) {
  if (fber_printf(ber, "t{s{", (ber_tag_t)ldap_proto::kModifyRequest, dn) != 0) return -1;
  for (LDAPMod **m = mods; m != nullptr && *m != nullptr; ++m) {
    const LDAPMod *mod = *m;
    // The flag says how the values are held; the server sees only the operation.
    const int op = mod->mod_op & ~LDAP_MOD_BVALUES;
    if (mod->mod_op & LDAP_MOD_BVALUES) {
      if (fber_printf(ber, "{e{s", op, mod->mod_type) != 0 || fber_printf(ber, "[V]}}", mod->mod_bvalues) != 0)
        return -1;
    } else if (fber_printf(ber, "{e{s[v]}}", op, mod->mod_type, mod->mod_values) != 0) {
      return -1;
    }
  }
  return fber_printf(ber, "}}");
}

}  // namespace

extern "C" {

int ldap_wait_answer(LDAP *ld, int msgid, const char *failed_trace, LDAPMessage **res) {
  *res = nullptr;
  if (ldap_result_int(ld, msgid, LDAP_MSG_ALL, nullptr, res) > 0) return LDAP_SUCCESS;
  int rc = ldap_get_errno_direct(ld);
  LDAP_LOG(LDAP_LOG_ERROR, failed_trace, rc);
  if (*res != nullptr) {
    ldap_msgfree_direct(*res);
    *res = nullptr;
  } else {
    // Nothing handed out: the rows go back now, or once their answers are complete.
    ldap_msg_table_mark_rows(ld, msgid, LDAP_ROW_RELEASE_WHEN_DONE);
  }
  // Waiting without a time-out cannot end in 0; should a failure leave no
  // code behind, the caller must still not read it as success.
  if (rc == LDAP_SUCCESS) {
    rc = LDAP_LOCAL_ERROR;
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  }
  return rc;
}

int ldap_update_wait(LDAP *ld, int msgid, const char *failed_trace) {
  LDAPMessage *res = nullptr;
  const int rc = ldap_wait_answer(ld, msgid, failed_trace, &res);
  return rc != LDAP_SUCCESS ? rc : ldap_result2error_direct(ld, res, 1);
}

int ldap_modify_ext_direct(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **sctrls, int *msgidp,
                           LDAPConn *conn) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_modify_ext_direct: dn(%s)\n", ldap_trace_str(dn));
  return ldap_update_send(ld, conn, kModify, sctrls, msgidp,
                          [&](BerElement *ber) { return encode_modify(ber, dn, mods); });
}

int ldap_modify_ext_int(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **sctrls, LDAPControl **cctrls,
                        int *msgidp) {
  if (msgidp != nullptr) *msgidp = -1;
  if (dn == nullptr || mods == nullptr || msgidp == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_modify_ext_int: Error - dn(%p) mods(%p) msgidp(%p)\n", (const void *)dn,
             (void *)mods, (void *)msgidp);
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return LDAP_PARAM_ERROR;
  }
  return ldap_update_with_controls(
      ld, sctrls, cctrls, [&](LDAPControl **sc) { return ldap_modify_ext_direct(ld, dn, mods, sc, msgidp, nullptr); });
}

int ldap_modify_ext(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_modify_ext: ld(%p) dn(%s) mods(%p) serverctrls(%p) clientctrls(%p) msgidp(%p\n",
           (void *)ld, ldap_trace_str(dn), (void *)mods, (void *)sctrls, (void *)cctrls, (void *)msgidp);
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc = ldap_modify_ext_int(ld, dn, mods, sctrls, cctrls, msgidp);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_modify_ext: returning rc=%d\n", rc);
  return rc;
}

int ldap_modify_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **sctrls, LDAPControl **cctrls) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_modify_ext_s: ld(%p) dn(%s)\n", (void *)ld, ldap_trace_str(dn));
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int msgid = -1;
  int rc = ldap_modify_ext_int(ld, dn, mods, sctrls, cctrls, &msgid);
  if (rc != LDAP_SUCCESS)
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_modify_ext_s: ldap_modify_ext failed with rc=%d\n", rc);
  else
    rc = ldap_update_wait(ld, msgid, "ldap_modify_ext_s: ldap_result failed rc=%d\n");
  return rc;
}

int ldap_modify(LDAP *ld, const char *dn, LDAPMod **mods) {
  int msgid = -1;
  return ldap_modify_ext(ld, dn, mods, nullptr, nullptr, &msgid) == LDAP_SUCCESS ? msgid : -1;
}

int ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods) {
  const int rc = ldap_modify_ext_s(ld, dn, mods, nullptr, nullptr);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_modify_s: return rc=%d\n", rc);
  return rc;
}

void ldap_mods_free(LDAPMod **mods, int freemods) {
  if (mods == nullptr) return;
  for (LDAPMod **m = mods; *m != nullptr; ++m) {
    LDAPMod *mod = *m;
    free(mod->mod_type);
    if (mod->mod_op & LDAP_MOD_BVALUES) {
      for (struct berval **v = mod->mod_bvalues; v != nullptr && *v != nullptr; ++v) {
        free((*v)->bv_val);
        free(*v);
      }
      free(mod->mod_bvalues);
    } else {
      for (char **v = mod->mod_values; v != nullptr && *v != nullptr; ++v) free(*v);
      free(mod->mod_values);
    }
    free(mod);
  }
  if (freemods) free(mods);
}
}
