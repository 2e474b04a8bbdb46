// ldap_result: the one place where callers wait for responses.
#include <sys/time.h>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-lock.h"
#include "ldap-protocol.h"

namespace {

void trace_one(int rc) { LDAP_LOG(LDAP_LOG_TRACE, "ldap_return_one_msg: rc=%d\n", rc); }
void trace_all(int rc) { LDAP_LOG(LDAP_LOG_TRACE, "ldap_return_all_msgs: rc=%d\n", rc); }

}  // namespace

extern "C" {

int ldap_get_result(LDAP *ld, int msgid, int, struct timeval *timeout, LDAPMessage **result, ldap_msg_table *table) {
  return ldap_msg_table_get_message(ld, table, &msgid, timeout, result);
}

int ldap_return_one_msg(LDAP *ld, int msgid, struct timeval *timeout, LDAPMessage **result, ldap_msg_table *table,
                        int *error, int chase, int hops) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_return_one_msg: entered\n");
  *result = nullptr;
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    trace_one(-1);
    return -1;
  }
  ldap_referral_link *link = msgid >= 0 && (uint32_t)msgid < table->size ? table->rows[msgid].child_link : nullptr;
  ldap_msg_table *ctable = link != nullptr ? link->rl_table : nullptr;
  const int cid = link != nullptr ? link->rl_msgid : 0;
  LDAP_MUTEX_UNLOCK(&table->table_mutex);

  int rc;
  if (ctable != nullptr) {
    // A referral of this row is being chased: its answers come from the child row.
    LDAPMessage *got = nullptr;
    rc = ldap_return_one_msg(ld, cid, timeout, &got, ctable, error, chase, hops - 1);
    if (rc == 0) {
      trace_one(0);
      return 0;
    }
    if (rc < 0 || got == nullptr) {
      bool still_linked = true;
      if (LDAP_MUTEX_LOCK(&table->table_mutex) == 0) {
        still_linked = table->rows[msgid].child_link == link;
        LDAP_MUTEX_UNLOCK(&table->table_mutex);
      }
      // A child that failed for good (its server gone) fails this row too.
      if (still_linked && rc < 0) {
        // Nothing more can come for it: the chased row goes, and the
        // connection with its last user.
        LDAPConn *const cconn = ctable->conn;
        if (ldap_get_errno_direct(ld) == LDAP_SERVER_DOWN && conn_closed(cconn) == 1) {
          ldap_msg_table_detach_referral(ld, ctable, cid);
          ldap_conn_release(ld, cconn, 0);
        }
        trace_one(-1);
        return -1;
      }
      return ldap_return_one_msg(ld, msgid, timeout, result, table, error, chase, hops);
    }
    ldap_msg_table_unlink_msg(got);
    LDAPConn *const cconn = ctable->conn;
    const int finished = ldap_msg_table_release_if_done(ctable, cid);
    // The chased row may have been the last use of a connection that failed.
    if (finished) ldap_conn_release(ld, cconn, 0);
    if (ldap_msg_table_merge_referral_msg(&got, table, msgid, finished)) {
      *result = got;
      trace_one(got->lm_msgtype);
      return got->lm_msgtype;
    }
    return ldap_return_one_msg(ld, msgid, timeout, result, table, error, chase, hops);
  }
  for (;;) {
    LDAPMessage *msg = nullptr;
    rc = ldap_get_result(ld, msgid, 0, timeout, &msg, table);
    if (rc <= 0) break;
    if (!chase || msg->lm_msgtype == ldap_proto::kSearchEntry || msg->lm_msgtype == ldap_proto::kBindResponse) {
      *result = msg;
      trace_one(rc);
      return rc;
    }
    LDAPMessage *out = nullptr;
    rc = look_for_referrals(ld, msg, &out, timeout, error, hops);
    if (rc != -1) {
      *result = out;
      trace_one(rc);
      return rc;
    }
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_return_one_msg: error at referral chasing. Continue with next referral (if any)\n");
    // Referrals that fail fast still end with the call.
    if (call_deadline_passed()) {
      rc = 0;
      break;
    }
  }
  if (rc == 0) {
    trace_one(0);
    return 0;
  }
  if (ldap_get_errno_direct(ld) == LDAP_PARAM_ERROR) ldap_msg_table_detach_referral(ld, table, msgid);
  trace_one(-1);
  return -1;
}

int ldap_return_all_msgs(LDAP *ld, int msgid, struct timeval *timeout, LDAPMessage **result, ldap_msg_table *table,
                         int *error, int chase, int hops) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_return_all_msgs: entered\n");
  LDAPMessage *first = nullptr;
  LDAPMessage *msg = nullptr;
  int rc;
  // The whole result within the one deadline: each message gets what is left.
  const int64_t deadline = ldap_deadline_after(timeout);
  for (;;) {
    struct timeval remaining;
    rc = ldap_return_one_msg(ld, msgid, ldap_deadline_left_tv(deadline, &remaining), &msg, table, error, chase, hops);
    if (rc <= 0) break;
    // IntermediateResponses are for callers taking one message at a time: a
    // whole result (and so every synchronous call) goes without them.
    if (msg != nullptr && msg->lm_msgtype == LDAP_RES_INTERMEDIATE) {
      ldap_msg_table_unlink_msg(msg);
      free_msg(msg, 0);
      msg = nullptr;
    }
    // The referral chaser may deliver nothing for a message it consumed.
    if (first == nullptr) first = msg;
    if (is_last_msg(msg)) break;
    if (deadline != kNoDeadline && ldap_monotonic_ns() >= deadline) {
      rc = 0;
      break;
    }
  }
  if (rc > 0) {
    if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
      ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
      *result = nullptr;
      trace_all(-1);
      return -1;
    }
    // Messages handed out alone before this call are the caller's already:
    // the result starts with the first one delivered here.
    ldap_msg_row *row = &table->rows[msgid];
    *result = first;
    rc = row->tail ? row->tail->lm_msgtype : rc;
    LDAP_MUTEX_UNLOCK(&table->table_mutex);
    trace_all(rc);
    return rc;
  }
  *result = nullptr;
  if (rc == 0 && first != nullptr) {
    // Hand the messages read so far out again with the whole result later.
    if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
      ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    } else {
      table->rows[msgid].next_unread = first;
      LDAP_MUTEX_UNLOCK(&table->table_mutex);
    }
  }
  trace_all(rc);
  return rc;
}

int ldap_result_int(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_result_int\n");
  if (ld != nullptr) ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
  if (msgid < -1 || ld == nullptr || result == nullptr || ld->ld_servers == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_result: Invalid parameter - msgid(%d), ld(%p), result(%p), ld->ld_servers(%p)\n",
             msgid, (void *)ld, (void *)result, ld ? (void *)ld->ld_servers : nullptr);
    return -1;
  }
  *result = nullptr;
  LDAPConn *conn = get_default_connection(ld);
  ldap_msg_table *table = conn ? conn->lc_msgtable : nullptr;
  if (table == nullptr) return -1;
  if (verify_msgid_n_acquire_row(ld, table, &msgid, all) != 0) return -1;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  int chase_option = 0, hop_limit = 0;
  if (ldap_get_option_direct(ld, LDAP_OPT_REFERRALS, &chase_option) != 0 ||
      ldap_get_option_direct(ld, LDAP_OPT_REFHOPLIMIT, &hop_limit) != 0)
    return -1;
  int chase, hops;
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return -1;
  }
  ldap_msg_row *row = &table->rows[msgid];
  if (!(row->flags & LDAP_ROW_REF_FIXED)) {
    // Fixed on the first wait: later option changes do not touch this request.
    if (chase_option) {
      row->flags |= LDAP_ROW_CHASE;
      row->refhops = hop_limit;
    } else {
      row->flags &= ~LDAP_ROW_CHASE;
    }
    row->flags |= LDAP_ROW_REF_FIXED;
  }
  chase = (row->flags & LDAP_ROW_CHASE) != 0;
  hops = row->refhops;
  LDAP_MUTEX_UNLOCK(&table->table_mutex);

  int error = 0;
  // A wait without a time-out of its own takes the session's default
  // operation time-out, when one is set.
  struct timeval session_default;
  if (timeout == nullptr && ldap_session_timeout(ld, LDAP_OPT_TIMEOUT, &session_default)) timeout = &session_default;
  // Requests sent while chasing referrals (connects, re-binds, writes) are
  // bounded by the time-out too.
  const CallDeadline deadline(timeout);
  int rc;
  if (all != 0) {
    rc = ldap_return_all_msgs(ld, msgid, timeout, result, table, &error, chase, hops);
  } else {
    rc = ldap_return_one_msg(ld, msgid, timeout, result, table, &error, chase, hops);
    if (*result != nullptr) (*result)->lm_flags |= LDAP_MSG_HANDED_ALONE;
  }
  // A wait cut short by the call's deadline says so like one cut by its own.
  if (rc == 0 && (timeout != nullptr || deadline.at() != kNoDeadline))
    ldap_set_errno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
  return rc;
}

int ldap_result(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result) {
  if (timeout != nullptr)
    LDAP_LOG(LDAP_LOG_TRACE,
             "ldap_result entered ld(%p), msgid(%d), all (%d), timeout(tv_sec=%d, tv_usec=%d), result(%p)\n",
             (void *)ld, msgid, all, (int)timeout->tv_sec, (int)timeout->tv_usec, (void *)result);
  else
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_result entered ld(%p), msgid(%d), all(%d), timeout(NULL), result(%p)\n", (void *)ld,
             msgid, all, (void *)result);
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc = ldap_result_int(ld, msgid, all, timeout, result);
  if (rc == 0) ldap_set_errno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_result returning %d\n", rc);
  return rc;
}
}
