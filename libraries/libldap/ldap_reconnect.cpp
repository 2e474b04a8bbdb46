// Reconnection (LDAP_OPT_RECONNECT, off by default): a request on a session
// whose default connection was lost reopens it in place, through the
// session's host list, and repeats the session's last bind before anything
// else is written.  The connection record, its table and its message IDs
// stay; what was out on the old socket is answered with 81 and never sent
// again (a server may have carried it out already).
#include <errno.h>
#include <strings.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-protocol.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"

namespace {

using ldap_proto::kAbandonRequest;
using ldap_proto::kUnbindRequest;
// Time a reader holding the read lock is given to leave before the socket
// under it is shut down (a half-open socket would keep it waiting).
constexpr long kReaderGraceNs = 100 * 1000 * 1000;


void wipe_free(char *s) {
  if (s == nullptr) return;
  explicit_bzero(s, strlen(s));
  free(s);
}

// Takes the read lock from whoever reads the old socket: a reader on a dead
// connection leaves at once; one waiting on a half-open socket is woken by
// shutting the socket down.
void take_read_lock(LDAPConn *conn) {
  // (A wall-clock step can only lengthen or shorten the grace.)
  struct timespec at;
  clock_gettime(CLOCK_REALTIME, &at);
  at.tv_nsec += kReaderGraceNs;
  if (at.tv_nsec >= 1000000000) {
    at.tv_nsec -= 1000000000;
    ++at.tv_sec;
  }
  if (pthread_mutex_timedlock(&conn->lc_read_mutex, &at) == 0) return;
  if (conn->lc_sb.sb_sd >= 0) shutdown(conn->lc_sb.sb_sd, SHUT_RDWR);
  LDAP_MUTEX_LOCK(&conn->lc_read_mutex);
}

// With the write and read locks held: the old socket goes, and with it
// whatever was read ahead or half read from it.
void let_go_of_socket(LDAP *ld, LDAPConn *conn) {
  ldap_conn_drain_read_ahead(ld, conn);
  ldap_msg_table *table = conn->lc_msgtable;
  LDAPMessage *pending = nullptr;
  ldap_msg_table_pending(table, &pending, 0);
  free_msg(pending, 0);
  LDAPMessage *none = nullptr;
  ldap_msg_table_pending(table, &none, 1);
  table->pending_state = 0;
  ssl_close_direct(&conn->lc_sb);
  close_connection(&conn->lc_sb);
  conn->lc_sb.sb_streak = 0;
  conn->lc_sb.sb_gathering = 0;
  clear_conn_connected(conn);
}

// Repeats the session's last bind on the reopened connection, within the
// network time-out when one is set (it is part of opening the connection).
int replay_bind(LDAP *ld) {
  if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) return LDAP_LOCK_ERROR;
  const int method = ld->ld_replay_method;
  char *dn = ld->ld_replay_dn != nullptr ? olx_strdup(ld->ld_replay_dn) : nullptr;
  char *pw = ld->ld_replay_pw != nullptr ? olx_strdup(ld->ld_replay_pw) : nullptr;
  char *mech = ld->ld_bind_mech != nullptr ? olx_strdup(ld->ld_bind_mech) : nullptr;
  struct berval cred = {0, nullptr};
  bool has_cred = false;
  bool copied = (dn != nullptr) == (ld->ld_replay_dn != nullptr) && (pw != nullptr) == (ld->ld_replay_pw != nullptr) &&
                (mech != nullptr) == (ld->ld_bind_mech != nullptr);
  if (copied && method == LDAP_AUTH_SASL && ld->ld_bind_cred != nullptr) {
    cred.bv_len = ld->ld_bind_cred->bv_len;
    cred.bv_val = static_cast<char *>(olx_malloc(cred.bv_len + 1));
    copied = cred.bv_val != nullptr;
    if (copied) {
      memcpy(cred.bv_val, ld->ld_bind_cred->bv_val, cred.bv_len);
      cred.bv_val[cred.bv_len] = '\0';
      has_cred = true;
    }
  }
  LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
  int rc = LDAP_SUCCESS;
  if (!copied || method < 0) {
    rc = LDAP_NO_MEMORY;
  } else if (method != 0) {
    struct timeval network;
    const bool bounded = ldap_session_timeout(ld, LDAP_OPT_NETWORK_TIMEOUT, &network);
    const CallDeadline deadline(bounded ? &network : nullptr);
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_reconnect: repeating the session's bind as %s\n", dn != nullptr ? dn : "");
    if (method == LDAP_AUTH_SIMPLE)
      rc = ldap_simple_bind_s_int(ld, dn, pw);
    else if (mech != nullptr && strcasecmp(mech, "EXTERNAL") == 0)
      rc = ldap_sasl_bind_int(ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr, 0, nullptr);
    else
      rc = ldap_sasl_bind_int(ld, dn, mech, has_cred ? &cred : nullptr, nullptr, nullptr, nullptr, 0, nullptr);
  }
  if (cred.bv_val != nullptr) explicit_bzero(cred.bv_val, cred.bv_len);
  free(cred.bv_val);
  free(dn);
  wipe_free(pw);
  free(mech);
  return rc;
}

// Waits for the attempt under way to end, by the call's deadline; with
// lc_reconnect_mutex held.  The attempt's outcome, or 85.
int share_attempt(LDAPConn *conn) {
  const uint32_t attempt = conn->lc_reconnect_tries;
  const int64_t deadline = ldap_call_deadline();
  struct timespec at = {(time_t)(deadline / 1000000000), (long)(deadline % 1000000000)};
  while (__atomic_load_n(&conn->lc_reconnector, __ATOMIC_RELAXED) != 0 && conn->lc_reconnect_tries == attempt) {
    const int rc = deadline == kNoDeadline
                       ? pthread_cond_wait(&conn->lc_reconnect_cond, &conn->lc_reconnect_mutex)
                       : pthread_cond_timedwait(&conn->lc_reconnect_cond, &conn->lc_reconnect_mutex, &at);
    if (rc == ETIMEDOUT) return LDAP_TIMEOUT;
  }
  return conn_closed(conn) != 1 ? 0 : LDAP_SERVER_DOWN;
}

int reconnect(LDAP *ld, LDAPConn *conn) {
  if (LDAP_MUTEX_LOCK(&conn->lc_reconnect_mutex) != 0) return LDAP_LOCK_ERROR;
  // A connection StartTLS secured would come back in clear: it stays lost.
  if (__atomic_load_n(&conn->lc_starttls, __ATOMIC_ACQUIRE) == 1 && conn_closed(conn) == 1) {
    LDAP_MUTEX_UNLOCK(&conn->lc_reconnect_mutex);
    return LDAP_SERVER_DOWN;
  }
  if (conn->lc_reconnector != 0 || conn_closed(conn) != 1) {
    const int shared = conn->lc_reconnector != 0 ? share_attempt(conn) : 0;
    LDAP_MUTEX_UNLOCK(&conn->lc_reconnect_mutex);
    return shared;
  }
  ++conn->lc_reconnect_tries;
  __atomic_store_n(&conn->lc_reconnector, ldap_thread_tid(), __ATOMIC_RELEASE);
  LDAP_MUTEX_UNLOCK(&conn->lc_reconnect_mutex);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_reconnect: connection to %s lost, reopening\n",
           conn->lc_host != nullptr ? conn->lc_host : "");
  int rc = LDAP_LOCK_ERROR;
  if (LDAP_MUTEX_LOCK(&conn->lc_write_mutex) == 0) {
    take_read_lock(conn);
    let_go_of_socket(ld, conn);
    LDAP_MUTEX_UNLOCK(&conn->lc_read_mutex);
    ldap_msg_table_fail_sent(conn->lc_msgtable);
    rc = open_ldap_connection(ld, conn);
    // Open again for this thread's re-bind; the others still wait at the gate.
    if (rc == 0) __atomic_store_n(&conn->lc_closed, 0, __ATOMIC_RELEASE);
    LDAP_MUTEX_UNLOCK(&conn->lc_write_mutex);
  }
  if (rc == 0) {
    rc = replay_bind(ld);
    // A bind that does not go through would leave the connection as someone
    // else (anonymous): it is lost again instead.
    if (rc != 0) set_conn_closed(conn);
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_reconnect: returning rc=%d\n", rc);
  if (LDAP_MUTEX_LOCK(&conn->lc_reconnect_mutex) == 0) {
    __atomic_store_n(&conn->lc_reconnector, 0, __ATOMIC_RELEASE);
    pthread_cond_broadcast(&conn->lc_reconnect_cond);
    LDAP_MUTEX_UNLOCK(&conn->lc_reconnect_mutex);
  }
  if (rc == 0) return 0;
  return rc == LDAP_TIMEOUT ? LDAP_TIMEOUT : LDAP_SERVER_DOWN;
}

}  // namespace

extern "C" {

bool ldap_reconnect_applies(LDAP *ld, LDAPConn *conn, const LDAPMessage *request) {
  if (conn != ld->ld_defconn || __atomic_load_n(&ld->ld_reconnect, __ATOMIC_RELAXED) == 0) return false;
  if (request->lm_msgtype == kAbandonRequest || request->lm_msgtype == kUnbindRequest) return false;
  // The reconnecting thread's own re-bind goes straight through.
  return __atomic_load_n(&conn->lc_reconnector, __ATOMIC_ACQUIRE) != ldap_thread_tid();
}

int ldap_reconnect_gate(LDAP *ld, LDAPConn *conn, const LDAPMessage *request) {
  if (!ldap_reconnect_applies(ld, conn, request)) return 0;
  if (conn_closed(conn) != 1 && __atomic_load_n(&conn->lc_reconnector, __ATOMIC_ACQUIRE) == 0) return 0;
  return reconnect(ld, conn);
}

bool ldap_peer_gone(LDAPConn *conn) {
  if (conn->lc_sb.sb_sd < 0) return false;
  char byte;
  const ssize_t n = recv(conn->lc_sb.sb_sd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

void ldap_record_replay_bind(LDAP *ld, int method, const char *dn, const char *password) {
  char *dn_copy = olx_strdup(dn != nullptr ? dn : "");
  char *pw_copy = method == LDAP_AUTH_SIMPLE ? olx_strdup(password != nullptr ? password : "") : nullptr;
  const bool copied = dn_copy != nullptr && (method != LDAP_AUTH_SIMPLE || pw_copy != nullptr);
  if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) {
    free(dn_copy);
    wipe_free(pw_copy);
    return;
  }
  free(ld->ld_replay_dn);
  wipe_free(ld->ld_replay_pw);
  ld->ld_replay_dn = copied ? dn_copy : nullptr;
  ld->ld_replay_pw = copied ? pw_copy : nullptr;
  ld->ld_replay_method = copied ? method : -1;
  LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
  if (!copied) {
    free(dn_copy);
    wipe_free(pw_copy);
  }
}

void ldap_forget_replay_bind(LDAP *ld) {
  free(ld->ld_replay_dn);
  wipe_free(ld->ld_replay_pw);
  ld->ld_replay_dn = ld->ld_replay_pw = nullptr;
  ld->ld_replay_method = 0;
}
}
