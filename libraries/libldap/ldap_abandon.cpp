// The AbandonRequest: tells a server to stop working on a request whose
// caller has given up on it.  No response comes for it, so its message ID
// goes back as soon as it is written.
#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-protocol.h"
#include "ldap-utils.h"

namespace {
using ldap_proto::kAbandonRequest;
}

extern "C" {

int ldap_send_abandon(LDAP *ld, LDAPConn *conn, int abandoned) { return ldap_send_abandon_ctrls(ld, conn, abandoned, nullptr); }

int ldap_send_abandon_ctrls(LDAP *ld, LDAPConn *conn, int abandoned, LDAPControl **sctrls) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_send_abandon: msgid(%d)\n", abandoned);
  // Only an open connection is told: abandoning must not connect anywhere.
  if (conn == nullptr || conn->lc_msgtable == nullptr || conn_closed(conn) == 1 || conn_connected(conn) == 0)
    return LDAP_SERVER_DOWN;
  ldap_msg_table *table = conn->lc_msgtable;
  LDAPMessage *msg = ldap_msg_new(conn);
  if (msg == nullptr) return LDAP_NO_MEMORY;
  const int id = ldap_msg_table_get_next_msgid(table);
  if (id < 0) {
    free_msg(msg, 0);
    return LDAP_LOCAL_ERROR;
  }
  // The caller's outcome (a time-out, usually) stays what it was.
  const int before = ldap_get_errno_direct(ld);
  int rc = LDAP_SUCCESS;
  msg->lm_msgid = id;
  msg->lm_msgtype = kAbandonRequest;
  msg->lm_ber = ldap_alloc_ber_with_options(ld, 0);
  if (msg->lm_ber == nullptr)
    rc = LDAP_NO_MEMORY;
  else if (fber_printf(msg->lm_ber, "{iti", id, (ber_tag_t)kAbandonRequest, abandoned) != 0 ||
           put_ctrls_into_ber(msg->lm_ber, sctrls) != 0 || fber_printf(msg->lm_ber, "}") != 0)
    rc = LDAP_ENCODING_ERROR;
  else
    rc = ldap_write_msg(ld, msg);
  free_msg(msg, 0);
  ldap_msg_table_release_msgid(table, id);
  ldap_set_errno_direct(ld, before, nullptr, nullptr);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_send_abandon: returning rc=%d\n", rc);
  return rc;
}

int ldap_abandon_ext(LDAP *ld, int msgid, LDAPControl **sctrls, LDAPControl **cctrls) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_abandon_ext: ld(%p) msgid(%d)\n", (void *)ld, msgid);
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc;
  LDAPConn *conn = get_default_connection(ld);
  int substituted = 0;
  rc = msgid > 0 && conn != nullptr ? ldap_apply_default_controls(ld, &sctrls, cctrls, &substituted) : LDAP_PARAM_ERROR;
  if (rc == LDAP_SUCCESS) {
    // The server is told first (only about a request still going); then the
    // row goes, with what nobody has read, and late answers are dropped.
    if (ldap_msg_table_abandon_row(conn->lc_msgtable, msgid, 0) == 1) {
      const int sent = ldap_send_abandon_ctrls(ld, conn, msgid, sctrls);
      // A connection that is down has dropped the request already.
      if (sent != LDAP_SUCCESS && sent != LDAP_SERVER_DOWN) rc = sent;
    }
    ldap_msg_table_abandon_row(conn->lc_msgtable, msgid, 1);
  }
  if (substituted) ldap_controls_free(sctrls);
  ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_abandon_ext: returning rc=%d\n", rc);
  return rc;
}

int ldap_abandon(LDAP *ld, int msgid) { return ldap_abandon_ext(ld, msgid, nullptr, nullptr) == LDAP_SUCCESS ? 0 : -1; }
}
