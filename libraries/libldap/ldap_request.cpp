// Request transmission: one encoded request onto the wire, under the
// connection's write lock, connecting on first use.
#include <errno.h>
#include <sys/select.h>

#include <atomic>
#include <climits>
#include <cstdlib>

#include "fber-fdset.h"
#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-lock.h"

namespace {
// Seconds to wait for writability, -1 for no limit; read from the environment once.
std::atomic<int> write_timeout{-1};
std::atomic<int> write_timeout_unread{1};

// The deadline of the call running on this thread, if it took a time-out.
thread_local int64_t call_deadline = kNoDeadline;

// A failed write leaves the connection unusable for good (a request may be
// half written).  When the caller's own time-out ran out, the call says so.
int write_failed(LDAP *ld, LDAPConn *conn) {
  set_conn_closed(conn);
  const int code = call_deadline_passed() ? LDAP_TIMEOUT : LDAP_SERVER_DOWN;
  ldap_set_errno_direct(ld, code, nullptr, nullptr);
  return code;
}

constexpr int64_t kNsPerSecond = 1000000000;
}  // namespace

int64_t ldap_monotonic_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * kNsPerSecond + now.tv_nsec;
}

int64_t ldap_deadline_after(const struct timeval *timeout) {
  if (timeout == nullptr) return kNoDeadline;
  const int64_t now = ldap_monotonic_ns();
  const int64_t sec = timeout->tv_sec < 0 ? 0 : (int64_t)timeout->tv_sec;
  const int64_t usec = timeout->tv_usec < 0 ? 0 : (int64_t)timeout->tv_usec;
  // Past about 292 years from boot the sum would overflow: that is no deadline.
  const int64_t room = kNoDeadline - now;
  if (sec >= room / kNsPerSecond) return kNoDeadline;
  const int64_t ns = sec * kNsPerSecond;
  if (usec >= (room - ns) / 1000) return kNoDeadline;
  return now + ns + usec * 1000;
}

int64_t ldap_call_deadline(void) { return call_deadline; }

int ldap_deadline_left_ms(int64_t deadline) {
  if (deadline == kNoDeadline) return -1;
  const int64_t left = deadline - ldap_monotonic_ns();
  if (left <= 0) return 0;
  const int64_t ms = (left + 999999) / 1000000;
  return ms > INT_MAX ? INT_MAX : (int)ms;
}

struct timeval *ldap_deadline_left_tv(int64_t deadline, struct timeval *out) {
  if (deadline == kNoDeadline) return nullptr;
  int64_t left = deadline - ldap_monotonic_ns();
  if (left < 0) left = 0;
  out->tv_sec = (time_t)(left / kNsPerSecond);
  out->tv_usec = (suseconds_t)((left % kNsPerSecond) / 1000);
  return out;
}

int64_t ldap_deadline_within_call(const struct timeval *timeout) {
  const int64_t own = ldap_deadline_after(timeout);
  return own < call_deadline ? own : call_deadline;
}

CallDeadline::CallDeadline(const struct timeval *timeout) : outer_(call_deadline) {
  at_ = outer_;
  // A zero time-out asks for a poll of the answers, not for a write that
  // must not wait: it sets none.
  poll_ = timeout != nullptr && timeout->tv_sec == 0 && timeout->tv_usec == 0;
  if (timeout == nullptr || poll_) return;
  const int64_t own = ldap_deadline_after(timeout);
  if (own < at_) at_ = own;
  call_deadline = at_;
}

CallDeadline::~CallDeadline() { call_deadline = outer_; }

struct timeval *CallDeadline::left(struct timeval *out) const {
  if (poll_) {
    *out = {0, 0};
    return out;
  }
  return ldap_deadline_left_tv(at_, out);
}

bool call_deadline_passed(void) { return call_deadline != kNoDeadline && ldap_monotonic_ns() >= call_deadline; }

extern "C" {

int ldap_get_write_timeout(void) {
  if (write_timeout_unread.load(std::memory_order_acquire)) {
    int value = -1;
    if (char *text = ldap_getenv("LDAP_LIB_WRITE_TIMEOUT")) {
      value = atoi(text);
      if (value < 1) value = -1;
      free(text);
    }
    write_timeout.store(value, std::memory_order_relaxed);
    write_timeout_unread.store(0, std::memory_order_release);
  }
  return write_timeout.load(std::memory_order_relaxed);
}

void ldap_reset_write_timeout(void) { write_timeout_unread.store(1, std::memory_order_release); }

int waitOnSocket(int fd) {
  LDAP_LOG(LDAP_LOG_TRACE, "waitOnSocket entered for fd=%d\n", fd);
  FberFdSet writers;
  int rc;
  if (!writers.add(fd)) {
    errno = EBADF;
    rc = -1;
  } else {
    int seconds = ldap_get_write_timeout();
    struct timeval tv = {seconds, 0};
    struct timeval left;
    if (ldap_deadline_left_tv(call_deadline, &left) != nullptr && (seconds == -1 || timercmp(&left, &tv, <))) {
      tv = left;
      seconds = static_cast<int>(left.tv_sec + (left.tv_usec > 0 ? 1 : 0));
    }
    if (seconds == -1)
      LDAP_LOG(LDAP_LOG_TRACE, "waitOnSocket: using NULL timeout.\n");
    else
      LDAP_LOG(LDAP_LOG_TRACE, "waitOnSocket: using timeout sec=%d\n", seconds);
    do {
      rc = select(fd + 1, nullptr, writers.get(), nullptr, seconds == -1 ? nullptr : &tv);
    } while (rc < 0 && errno == EINTR && seconds == -1);
  }
  if (rc < 0)
    LDAP_LOG(LDAP_LOG_ERROR, "Error - waitOnSocket: select failed errno %d\n", errno);
  else if (rc == 0)
    LDAP_LOG(LDAP_LOG_NET, "waitOnSocket: select timed out\n");
  else
    LDAP_LOG(LDAP_LOG_NET, "waitOnSocket: select rc=%d\n", rc);
  LDAP_LOG(LDAP_LOG_TRACE, "waitOnSocket returning %d\n", rc);
  return rc;
}

int ldap_write_msg(LDAP *ld, LDAPMessage *request) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_write_msg entered: ld=%p, lm=%p\n", (void *)ld, (void *)request);
  if (request == nullptr || request->lm_conn == nullptr) return LDAP_PARAM_ERROR;
  LDAPConn *conn = request->lm_conn;
  // With LDAP_OPT_RECONNECT a lost default connection is reopened first; a
  // connection lost again meanwhile gets one more turn.
  const bool may_reconnect = ldap_reconnect_applies(ld, conn, request);
  for (int turn = 0;; ++turn) {
    if (may_reconnect) {
      const int grc = ldap_reconnect_gate(ld, conn, request);
      if (grc != 0) {
        ldap_set_errno_direct(ld, grc, nullptr, nullptr);
        return grc;
      }
    }
    if (conn_closed(conn) == 1) {
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_write_msg: Socket connection was closed earlier\n");
      ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, nullptr);
      return LDAP_SERVER_DOWN;
    }
    if (LDAP_MUTEX_LOCK(&conn->lc_write_mutex) != 0) {
      ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
      return LDAP_LOCK_ERROR;
    }
    // Another writer may have failed (and closed the connection) while this
    // one waited for the lock: a failed connection is never tried again.
    // A server that closed an idle connection (restarted, say) is noticed
    // here when reconnection is on, before a request is lost to it.
    bool lost = conn_closed(conn) == 1;
    if (!lost && may_reconnect && conn_connected(conn) == 1 && ldap_peer_gone(conn)) {
      set_conn_closed(conn);
      lost = true;
    }
    if (!lost) break;
    LDAP_MUTEX_UNLOCK(&conn->lc_write_mutex);
    if (may_reconnect && turn == 0) continue;
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_write_msg: Socket connection was closed earlier\n");
    ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, nullptr);
    return LDAP_SERVER_DOWN;
  }
  if (conn_connected(conn) == 0) {
    const int open_rc = open_ldap_connection(ld, conn);
    if (open_rc == LDAP_TIMEOUT) {
      // Only the time ran out: the connection is tried again by the next call.
      LDAP_MUTEX_UNLOCK(&conn->lc_write_mutex);
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_write_msg: open_ldap_connection returned error!\n");
      ldap_set_errno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
      return LDAP_TIMEOUT;
    }
    if (open_rc != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_write_msg: open_ldap_connection returned error!\n");
      // Closed before the lock is let go: a writer waiting for it must see it.
      set_conn_closed(conn);
      LDAP_MUTEX_UNLOCK(&conn->lc_write_mutex);
      ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, nullptr);
      free(conn->lc_peer_name);
      conn->lc_peer_name = nullptr;
      return LDAP_SERVER_DOWN;
    }
    set_conn_connected(conn);
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_write_msg: connected to host\n");
  int rc = 0;
  if (waitOnSocket(conn->lc_sb.sb_sd) <= 0) {
    if (call_deadline_passed()) {
      // The caller's time ran out before a byte of this request was written
      // (a connection still being made, say): the call fails, the connection
      // stays as it is.
      ldap_set_errno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
      rc = LDAP_TIMEOUT;
    } else {
      rc = write_failed(ld, conn);
    }
  } else {
    for (;;) {
      int flushed = fber_flush_nb(&conn->lc_sb, request->lm_ber);
      if (flushed == 0) break;
      if (flushed == -LDAP_WOULD_BLOCK) {
        if (waitOnSocket(conn->lc_sb.sb_sd) <= 0) {
          rc = write_failed(ld, conn);
          break;
        }
      } else if (flushed < 0) {
        rc = write_failed(ld, conn);
        break;
      }
    }
  }
  if (rc == 0) request->lm_flags |= LDAP_MSG_SENT;
  LDAP_MUTEX_UNLOCK(&conn->lc_write_mutex);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_write_msg: returning %d\n", rc);
  return rc;
}
}
