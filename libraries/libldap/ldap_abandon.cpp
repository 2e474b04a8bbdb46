// The AbandonRequest: tells a server to stop working on a request whose
// caller has given up on it.  No response comes for it, so its message ID
// goes back as soon as it is written.
#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-utils.h"

namespace {
constexpr int kAbandonRequest = 0x50;  // [APPLICATION 16], primitive
}

extern "C" {

int ldap_send_abandon(LDAP *ld, LDAPConn *conn, int abandoned) {
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
  else if (fber_printf(msg->lm_ber, "{iti}", id, (ber_tag_t)kAbandonRequest, abandoned) != 0)
    rc = LDAP_ENCODING_ERROR;
  else
    rc = ldap_write_msg(ld, msg);
  free_msg(msg, 0);
  ldap_msg_table_release_msgid(table, id);
  ldap_set_errno_direct(ld, before, nullptr, nullptr);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_send_abandon: returning rc=%d\n", rc);
  return rc;
}
}
