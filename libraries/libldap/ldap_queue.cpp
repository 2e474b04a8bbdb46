// Response reception: waiters read the socket in turn under the connection's
// read lock, one BER element at a time, queue what they read, and sort the
// queue into table rows.
#include <errno.h>
#include <sys/time.h>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-lock.h"

namespace {
// The first wait for readability in each read: short, so that a waiter soon
// re-checks its row (another thread may have read its response meanwhile).
constexpr suseconds_t kPollMicros = 100;
}  // namespace

extern "C" {

int wait_for_message(LDAPConn *conn, BerElement **ber, uint32_t *state, struct timeval *timeout) {
  struct timeval poll = {0, kPollMicros};
  int rc = fber_select(&conn->lc_sb, &poll);
  if (rc < 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "wait_for_message: select failed with socket error: rc = %d, errno = %d\n", rc, errno);
    return -1;
  }
  if (rc == 0) return 0;
  for (;;) {
    ber_tag_t tag = fber_get_next_nb(&conn->lc_sb, *ber, state);
    if (tag == LBER_ERROR) return -1;
    if (tag != LDAP_WOULD_BLOCK) return 1;
    // select may change the time-out it is given; wait with a copy.
    struct timeval left;
    if (timeout) left = *timeout;
    rc = fber_select(&conn->lc_sb, timeout ? &left : nullptr);
    if (rc < 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "wait_for_message: select 2 failed with socket error: rc=%d, errno=%d\n", rc, errno);
      return -1;
    }
    if (rc == 0) return -2;
  }
}

void ldap_msg_table_pending(ldap_msg_table *table, LDAPMessage **msg, int set) {
  if (set)
    table->pending_msg = *msg;
  else
    *msg = table->pending_msg;
}

void put_msg_in_queue(ldap_msg_table *table, LDAPMessage *msg) {
  if (table == nullptr || msg == nullptr) return;
  LDAP_LOG(LDAP_LOG_TRACE, "put_msg_in_queue: storing msgid=%d in queue\n", msg->lm_msgid);
  if (LDAP_MUTEX_LOCK(&table->queue_mutex) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_queue: failed to lock queue, rc=%d\n", LDAP_LOCK_ERROR);
    return;
  }
  msg->lm_chain = nullptr;
  if (table->queue_tail != nullptr)
    table->queue_tail->lm_chain = msg;
  else
    table->queue_head = msg;
  table->queue_tail = msg;
  LDAP_MUTEX_UNLOCK(&table->queue_mutex);
}

int put_msg_in_table(ldap_msg_table *table, LDAPMessage *msg) {
  if (table == nullptr || msg == nullptr) return LDAP_PARAM_ERROR;
  LDAP_LOG(LDAP_LOG_TRACE, "put_msg_in_table: storing msgtype=0x%x, msgid=%d in table\n", msg->lm_msgtype,
           msg->lm_msgid);
  const int id = msg->lm_msgid;
  if (id < 0 || (uint32_t)id >= table->size) {
    LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_table: BAD Msg (%d), throw it.\n", id);
    return LDAP_OTHER;
  }
  ldap_msg_row *row = &table->rows[id];
  if (row->request == nullptr && id != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "put_msg_in_table: No corresponding request msg found.\n");
    return LDAP_OTHER;
  }
  if (row->head != nullptr) {
    msg->lm_prev = row->tail;
    msg->lm_chain = nullptr;
    row->tail->lm_chain = msg;
    row->tail = msg;
    if (row->next_unread == nullptr) row->next_unread = msg;
  } else {
    msg->lm_chain = msg->lm_prev = nullptr;
    row->head = row->tail = row->next_unread = msg;
  }
  if (id != 0 && is_last_msg(msg)) {
    row->flags |= LDAP_ROW_COMPLETE;
    // The waiter gave up on this request: drop it all as soon as it is done.
    if (row->flags & LDAP_ROW_RELEASE_WHEN_DONE) ldap_msg_table_release_msgid_direct(table, id);
  }
  return 0;
}

void flush_queue(ldap_msg_table *table) {
  if (LDAP_MUTEX_LOCK(&table->queue_mutex) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "flush_queue: failed to lock queue!\n");
    return;
  }
  LDAPMessage *msg = table->queue_head;
  table->queue_head = table->queue_tail = nullptr;
  while (msg != nullptr) {
    LDAPMessage *next = msg->lm_chain;
    msg->lm_chain = nullptr;
    if (put_msg_in_table(table, msg) != 0) free_msg(msg, 0);
    msg = next;
  }
  LDAP_MUTEX_UNLOCK(&table->queue_mutex);
}

int ldap_get_msg(LDAP *ld, LDAPConn *conn, struct timeval *timeout) {
  if (conn_closed(conn) == 1) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_get_msg: Socket connection was closed earlier\n");
    ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, nullptr);
    return LDAP_SERVER_DOWN;
  }
  if (conn_connected(conn) == 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_get_msg: FATAL ERROR - Socket is not yet created\n");
    ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, nullptr);
    return LDAP_SERVER_DOWN;
  }
  if (LDAP_MUTEX_LOCK(&conn->lc_read_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return -1;
  }
  ldap_msg_table *table = conn->lc_msgtable;
  LDAPMessage *msg = nullptr;
  ldap_msg_table_pending(table, &msg, 0);
  if (msg == nullptr) {
    msg = ldap_msg_new(conn);
    if (msg == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_get_msg: Failed with memory error\n");
    } else if ((msg->lm_ber = ldap_alloc_ber_with_options(ld, 1)) == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_get_msg: Failed to alloc memory\n");
      free_msg(msg, 0);
      msg = nullptr;
    }
    if (msg == nullptr) {
      ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
      LDAP_MUTEX_UNLOCK(&conn->lc_read_mutex);
      return -1;
    }
    ldap_msg_table_pending(table, &msg, 1);
    table->pending_state = 0;
  }
  int rc = wait_for_message(conn, &msg->lm_ber, &table->pending_state, timeout);
  if (rc == 1) {
    int id = 0;
    if (fber_get_int(msg->lm_ber, &id) == LBER_ERROR) id = 0;
    msg->lm_msgid = id;
    ber_len_t len;
    msg->lm_msgtype = (int32_t)fber_peek_tag(msg->lm_ber, &len);
    put_msg_in_queue(table, msg);
    LDAPMessage *none = nullptr;
    ldap_msg_table_pending(table, &none, 1);
  } else if (rc == -1) {
    free_msg(msg, 0);
    LDAPMessage *none = nullptr;
    ldap_msg_table_pending(table, &none, 1);
    table->pending_state = 0;
  }
  LDAP_MUTEX_UNLOCK(&conn->lc_read_mutex);
  if (rc == -1) {
    set_conn_closed(conn);
    ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, nullptr);
    return -1;
  }
  if (rc == -2) {
    ldap_set_errno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
    return 0;
  }
  return rc;
}

int ldap_msg_table_read(LDAP *ld, ldap_msg_table *table, struct timeval *timeout) {
  int rc = ldap_get_msg(ld, table->conn, timeout);
  return rc == 1 ? 0 : rc;
}
}
