// The update operations: add, delete, modify and rename (modify DN), in their
// layers (public asynchronous and synchronous forms, the unbracketed _int
// form, the _direct worker that encodes and sends), and ldap_mods_free.
#ifndef TAV_LDAP_UPDATE_H
#define TAV_LDAP_UPDATE_H

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-protocol.h"

extern "C" {
TAV_INTERNAL int ldap_add_ext_int(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **sctrls, LDAPControl **cctrls,
                                  int *msgidp);
TAV_INTERNAL int ldap_add_ext_direct(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **sctrls, int *msgidp,
                                     LDAPConn *conn);

TAV_INTERNAL int ldap_delete_ext_int(LDAP *ld, const char *dn, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp);
TAV_INTERNAL int ldap_delete_ext_direct(LDAP *ld, const char *dn, LDAPControl **sctrls, int *msgidp, LDAPConn *conn);

TAV_INTERNAL int ldap_modify_ext_int(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **sctrls,
                                     LDAPControl **cctrls, int *msgidp);
TAV_INTERNAL int ldap_modify_ext_direct(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **sctrls, int *msgidp,
                                        LDAPConn *conn);
// Frees every modification (type, values, record) and, when freemods is
// non-zero, the list itself.

TAV_INTERNAL int ldap_rename_int(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior,
                                 int deleteoldrdn, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp);
TAV_INTERNAL int ldap_rename_direct(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior,
                                    int deleteoldrdn, LDAPControl **sctrls, int *msgidp, LDAPConn *conn);
}

// Waits (no time-out) for the response of msgid and turns it into the
// operation's code, recording matched DN and message; `failed_trace` is the
// trace format used when waiting fails (one %d).  Defined in ldap_modify.cpp.
extern "C" TAV_INTERNAL int ldap_update_wait(LDAP *ld, int msgid, const char *failed_trace);
// The waiting part of ldap_update_wait: 0 with the whole answer in *res, or
// the failure's code (traced with `failed_trace`, the rows given back).
extern "C" TAV_INTERNAL int ldap_wait_answer(LDAP *ld, int msgid, const char *failed_trace, LDAPMessage **res);

// What the four workers share: take the connection, a message record, a
// message ID and a BER element; let `encode` write the protocol operation
// after "{i"; append the server controls and close the LDAPMessage; send.
// Every failure releases what was taken and records its code, except that add
// leaves the error record alone for a connection without a table.
struct LdapUpdateWorker {
  const char *no_connection_trace;  // null: nothing is traced
  bool record_no_table;
  int tag;
};

template <typename Encode>
int ldap_update_send(LDAP *ld, LDAPConn *conn, const LdapUpdateWorker &how, LDAPControl **sctrls, int *msgidp,
                     Encode encode) {
  if (conn == nullptr) conn = get_default_connection(ld);
  if (conn == nullptr) {
    if (how.no_connection_trace != nullptr) LDAP_LOG(LDAP_LOG_ERROR, "%s", how.no_connection_trace);
    ldap_set_errno_direct(ld, LDAP_ENCODING_ERROR, nullptr, nullptr);
    return LDAP_ENCODING_ERROR;
  }
  ldap_msg_table *table = conn->lc_msgtable;
  if (table == nullptr) {
    if (how.record_no_table) ldap_set_errno_direct(ld, LDAP_ENCODING_ERROR, nullptr, nullptr);
    return LDAP_ENCODING_ERROR;
  }
  LDAPMessage *msg = ldap_msg_new(conn);
  if (msg == nullptr) {
    ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
    return LDAP_NO_MEMORY;
  }
  int rc = LDAP_SUCCESS;
  const int msgid = ldap_msg_table_get_next_msgid(table);
  if (msgid < 0) {
    rc = LDAP_LOCAL_ERROR;
  } else {
    msg->lm_msgid = msgid;
    msg->lm_ber = ldap_alloc_ber_with_options(ld, 0);
    if (msg->lm_ber == nullptr) {
      rc = LDAP_NO_MEMORY;
    } else if (fber_printf(msg->lm_ber, "{i", msgid) != 0 || encode(msg->lm_ber) != 0 ||
               put_ctrls_into_ber(msg->lm_ber, sctrls) != 0 || fber_printf(msg->lm_ber, "}") != 0) {
      rc = LDAP_ENCODING_ERROR;
    }
  }
  if (rc != LDAP_SUCCESS) {
    // The row holds no request yet: the record is freed here, the ID given back.
    if (msgid >= 0) ldap_msg_table_release_msgid(table, msgid);
    free_msg(msg, 0);
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return rc;
  }
  msg->lm_msgtype = how.tag;
  rc = ldap_msg_table_send_request(table, ld, msg);
  if (rc != LDAP_SUCCESS) {
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return rc;
  }
  *msgidp = msgid;
  ldap_set_errno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
  return LDAP_SUCCESS;
}

// The _int steps after the argument checks: refuse critical client controls,
// fall back to the session's default server controls, call the worker on the
// default connection, and free the substituted controls.
template <typename Direct>
int ldap_update_with_controls(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls, Direct direct) {
  int substituted = 0;
  int rc = ldap_apply_default_controls(ld, &sctrls, cctrls, &substituted);
  if (rc != LDAP_SUCCESS) {
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return rc;
  }
  rc = direct(sctrls);
  if (substituted && sctrls != nullptr) ldap_controls_free(sctrls);
  return rc;
}

#endif
