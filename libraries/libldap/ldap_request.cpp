// Request transmission: one encoded request onto the wire, under the
// connection's write lock, connecting on first use.
#include <errno.h>
#include <sys/select.h>

#include <atomic>
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
thread_local const struct timeval *call_deadline = nullptr;

// A failed write leaves the connection unusable for good (a request may be
// half written).  When the caller's own time-out ran out, the call says so.
int write_failed(LDAP *ld, LDAPConn *conn) {
  set_conn_closed(conn);
  const int code = call_deadline_passed() ? LDAP_TIMEOUT : LDAP_SERVER_DOWN;
  ldap_set_errno_direct(ld, code, nullptr, nullptr);
  return code;
}
}  // namespace

CallDeadline::CallDeadline(const struct timeval *timeout) : outer_(call_deadline) {
  // A zero time-out asks for a poll of the answers, not for a write that
  // must not wait: it sets no deadline.
  if (timeout == nullptr || (timeout->tv_sec == 0 && timeout->tv_usec == 0)) return;
  gettimeofday(&at_, nullptr);
  timeradd(&at_, timeout, &at_);
  if (outer_ == nullptr || timercmp(&at_, outer_, <)) call_deadline = &at_;
}

CallDeadline::~CallDeadline() { call_deadline = outer_; }

struct timeval *CallDeadline::left(const struct timeval *timeout, struct timeval *out) const {
  if (timeout == nullptr) return nullptr;
  struct timeval now;
  gettimeofday(&now, nullptr);
  *out = {0, 0};
  if (timercmp(&now, &at_, <)) timersub(&at_, &now, out);
  return out;
}

bool call_deadline_passed(void) {
  if (call_deadline == nullptr) return false;
  struct timeval now;
  gettimeofday(&now, nullptr);
  return !timercmp(&now, call_deadline, <);
}

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
    if (call_deadline != nullptr) {
      struct timeval now, left = {0, 0};
      gettimeofday(&now, nullptr);
      if (timercmp(&now, call_deadline, <)) timersub(call_deadline, &now, &left);
      if (seconds == -1 || timercmp(&left, &tv, <)) {
        tv = left;
        seconds = static_cast<int>(left.tv_sec + (left.tv_usec > 0 ? 1 : 0));
      }
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
  if (conn_closed(conn) == 1) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_write_msg: Socket connection was closed earlier\n");
    ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, nullptr);
    return LDAP_SERVER_DOWN;
  }
  if (LDAP_MUTEX_LOCK(&conn->lc_write_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  // Another writer may have failed (and closed the connection) while this one
  // waited for the lock: a failed connection is never tried again.
  if (conn_closed(conn) == 1) {
    LDAP_MUTEX_UNLOCK(&conn->lc_write_mutex);
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_write_msg: Socket connection was closed earlier\n");
    ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, nullptr);
    return LDAP_SERVER_DOWN;
  }
  if (conn_connected(conn) == 0) {
    if (open_ldap_connection(ld, conn) != 0) {
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
  LDAP_MUTEX_UNLOCK(&conn->lc_write_mutex);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_write_msg: returning %d\n", rc);
  return rc;
}
}
