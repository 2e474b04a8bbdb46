// Sockets of server connections and the session's set of connections.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"

namespace {

bool parse_port(const char *text, int *port) {
  if (*text == '\0') {
    *port = 0;
    return true;
  }
  long value = 0;
  for (const char *p = text; *p != '\0'; ++p) {
    if (!isdigit((unsigned char)*p)) return false;
    value = value * 10 + (*p - '0');
    if (value > 65535) return false;
  }
  *port = (int)value;
  return true;
}

bool copy_host(const char *begin, size_t len, char *host, size_t host_size) {
  if (len >= host_size) return false;
  memcpy(host, begin, len);
  host[len] = '\0';
  return true;
}

int open_local_socket(Sockbuf *sb, const char *path) {
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  // A path that does not fit sun_path would be cut or overrun: refuse it.
  size_t len = strlen(path);
  if (len >= sizeof addr.sun_path) return LDAP_PARAM_ERROR;
  int s = socket(AF_UNIX, SOCK_STREAM, 0);
  if (s < 0) return LDAP_SERVER_DOWN;
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path, len);
  if (connect(s, reinterpret_cast<struct sockaddr *>(&addr),
              (socklen_t)(offsetof(struct sockaddr_un, sun_path) + len)) != 0) {
    close(s);
    return LDAP_CONNECT_ERROR;
  }
  sb->sb_sd = s;
  return LDAP_SUCCESS;
}

// The thread-override list head is read without the lock on the fast path,
// so every access to it is atomic.
ldap_thread_conn *thread_conns(LDAP *ld) { return __atomic_load_n(&ld->ld_thread_conns, __ATOMIC_ACQUIRE); }
void set_thread_conns(LDAP *ld, ldap_thread_conn *head) {
  __atomic_store_n(&ld->ld_thread_conns, head, __ATOMIC_RELEASE);
}

// connect() that ends with the call's deadline: non-blocking, then a wait
// for the outcome.  The socket is left in blocking mode, as a plain connect
// leaves it.  0, or errno (ETIMEDOUT when the deadline came first).
int connect_by_deadline(int s, const struct sockaddr *addr, socklen_t len) {
  const int flags = fcntl(s, F_GETFL);
  if (flags == -1 || fcntl(s, F_SETFL, flags | O_NONBLOCK) == -1) return errno != 0 ? errno : EBADF;
  int err = 0;
  if (connect(s, addr, len) != 0) {
    err = errno;
    while (err == EINPROGRESS || err == EINTR) {
      struct pollfd p = {s, POLLOUT, 0};
      const int n = poll(&p, 1, ldap_deadline_left_ms(ldap_call_deadline()));
      if (n < 0 && errno == EINTR) continue;
      if (n == 0) {
        err = ETIMEDOUT;
        break;
      }
      socklen_t size = sizeof err;
      if (n < 0 || getsockopt(s, SOL_SOCKET, SO_ERROR, &err, &size) != 0) err = errno;
      break;
    }
  }
  if (err == 0 && fcntl(s, F_SETFL, flags) == -1) err = errno;
  return err;
}

void free_addrinfo(struct addrinfo *ai) {
  if (ai != nullptr) freeaddrinfo(ai);
}

bool same_first_address(const struct addrinfo *a, const struct addrinfo *b) {
  return a != nullptr && b != nullptr && a->ai_addrlen == b->ai_addrlen &&
         memcmp(a->ai_addr, b->ai_addr, a->ai_addrlen) == 0;
}

// ldap_conn_matches with the host's resolution kept across one list walk.
// *host_state: 0 not resolved yet, 1 resolved into *host_ai, -1 failed.
bool conn_matches_cached(LDAPConn *conn, const char *host, int port, struct addrinfo **host_ai, int *host_state) {
  if (conn->lc_host != nullptr && strcmp(host, conn->lc_host) == 0 && port == conn->lc_port) return true;
  struct addrinfo *conn_ai = nullptr;
  if (olx_getaddrinfo(conn->lc_host, htons((uint16_t)conn->lc_port), &conn_ai) != 0) {
    LDAP_LOG(LDAP_LOG_TRACE, "olx_getaddrinfo failed for connection\n");
    return false;
  }
  if (*host_state == 0) {
    if (olx_getaddrinfo(host, htons((uint16_t)port), host_ai) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "olx_getaddrinfo failed for host/port\n");
      *host_state = -1;
    } else {
      *host_state = 1;
    }
  }
  bool match = *host_state == 1 && same_first_address(conn_ai, *host_ai);
  free_addrinfo(conn_ai);
  return match;
}

LDAPConn *get_connection(LDAP *ld, const char *host, int port, int open, int *rc, int include_default, bool secure,
                         bool hold) {
  int dummy = 0;
  if (rc == nullptr) rc = &dummy;
  *rc = LDAP_SUCCESS;
  if (host == nullptr) return ld->ld_defconn;
  if (port == LDAP_URL_PORT_DEFAULT || port == LDAP_URL_PORT_DEFAULT_SECURE)
    port = ld->ld_defconn->lc_sb.sb_ssl != nullptr ? LDAPS_PORT : LDAP_PORT;
  if (LDAP_MUTEX_LOCK(&ld->ld_conn_mutex) != 0) {
    *rc = LDAP_LOCK_ERROR;
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return nullptr;
  }
  struct addrinfo *host_ai = nullptr;
  int state = 0;
  LDAPConn *found = nullptr;
  LDAPConn *last = nullptr;
  for (LDAPConn *c = include_default == 1 ? ld->ld_defconn : ld->ld_defconn->lc_next; c != nullptr; c = c->lc_next) {
    // A connection that failed is never used again: a new one is opened.
    if (c->lc_port == port && conn_closed(c) != 1 && c->lc_retired == 0 &&
        (!secure || ld->ld_ssl == 1 || c->lc_ssl == 1) &&
        conn_matches_cached(c, host, port, &host_ai, &state)) {
      found = c;
      break;
    }
  }
  free_addrinfo(host_ai);
  if (found == nullptr && open == 1) {
    LDAPConn *lc = ldap_lc_init(host, port, 8);
    if (lc == nullptr) {
      *rc = LDAP_NO_MEMORY;
      ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
    } else {
      lc->lc_ld = ld;
      lc->lc_ssl = secure ? 1 : 0;
      int orc = open_ldap_connection(ld, lc);
      if (orc != 0) {
        *rc = orc;
        ldap_lc_free(lc);
      } else {
        for (last = ld->ld_servers; last->lc_next != nullptr; last = last->lc_next) {
        }
        last->lc_next = lc;
        found = lc;
      }
    }
  }
  // Taken under the list's lock: a failed connection is not freed under a
  // thread that has found it but has no row in it yet.
  if (hold && found != nullptr && found != ld->ld_defconn) ++found->lc_holders;
  LDAP_MUTEX_UNLOCK(&ld->ld_conn_mutex);
  return found;
}

// Under ld_conn_mutex: takes a failed connection off the session's list when
// no thread holds it and no row of its table is in use; whether it did.  Rows
// whose waiters gave up (marked to be released when done) and rows no waiter
// can reach (those not chased for a parent: a re-bind's, once nobody holds the
// connection) are released first: their answers will never come now.
bool unlink_if_failed_and_unused(LDAP *ld, LDAPConn *conn) {
  LDAPConn *prev = ld->ld_servers;
  while (prev != nullptr && prev->lc_next != conn) prev = prev->lc_next;
  if (prev == nullptr || conn->lc_holders != 0 || (conn_closed(conn) != 1 && conn->lc_retired != 1)) return false;
  ldap_msg_table *table = conn->lc_msgtable;
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return false;
  for (uint32_t id = 1; id < table->size; ++id) {
    const ldap_msg_row *row = &table->rows[id];
    if ((row->flags & LDAP_ROW_IN_USE) && ((row->flags & LDAP_ROW_RELEASE_WHEN_DONE) || row->parent_link == nullptr))
      ldap_msg_table_release_row(table, (int)id);
  }
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  // Their parents are told before the table is looked at again.
  ldap_msg_table_detach_released(table);
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return false;
  const bool unused =
      (uint32_t)table->free_count == table->size && table->detached == nullptr && table->waiters == nullptr;
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  if (!unused) return false;
  prev->lc_next = conn->lc_next;
  conn->lc_next = nullptr;
  return true;
}

}  // namespace

extern "C" {

int open_connection(Sockbuf *sb, const char *host, int port_net) {
  LDAP_LOG(LDAP_LOG_TRACE, "open_connection: entered sb(%p) host(%s) port(%d)\n", (void *)sb,
           ldap_trace_str(host, "NULL"), ntohs((uint16_t)port_net));
  if (sb == nullptr || host == nullptr) return LDAP_SERVER_DOWN;
  if (host[0] == '/') return open_local_socket(sb, host);

  struct addrinfo *list = nullptr;
  int rc = olx_getaddrinfo(host, port_net, &list);
  if (rc != 0) return rc;
  rc = LDAP_SERVER_DOWN;
  for (struct addrinfo *ai = list; ai != nullptr; ai = ai->ai_next) {
    int s = socket(ai->ai_family, ai->ai_socktype, ai->ai_protocol);
    if (s < 0) {
      LDAP_LOG(LDAP_LOG_TRACE, "Connect_to_host:Return code from socket call s=%i, errno=%i\n", s, errno);
      continue;
    }
    int on = 1;
    if (setsockopt(s, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0) {
      LDAP_LOG(LDAP_LOG_TRACE, "connect_to_host: setsockopt failed. errno = %d\n", errno);
      errno = 0;
    }
    const int err = connect_by_deadline(s, ai->ai_addr, ai->ai_addrlen);
    if (err == 0) {
      LDAP_LOG(LDAP_LOG_TRACE, "open_connect: connect successful\n");
      sb->sb_sd = s;
      rc = LDAP_SUCCESS;
      break;
    }
    // The call's time is up: no other address is tried.
    if (err == ETIMEDOUT && call_deadline_passed()) rc = LDAP_TIMEOUT;
    LDAP_LOG(LDAP_LOG_ERROR, "open_connection: [2]connect failed %d\n", err);
    LDAP_LOG(LDAP_LOG_TRACE, "Connect_to_host: connect() API failed: sock_desc=%i, errno=%i\n", s, err);
    close(s);
    if (rc == LDAP_TIMEOUT) break;
  }
  freeaddrinfo(list);
  LDAP_LOG(LDAP_LOG_TRACE, "open_connection: returning rc=%d\n", rc);
  return rc;
}

int set_socket_nb(Sockbuf *sb) {
  if (fcntl(sb->sb_sd, F_SETFL, O_NONBLOCK) == -1) {
    int err = errno;
    LDAP_LOG(LDAP_LOG_TRACE, "set_socket_nb: failed to set socket non-blocking, errno=%d\n", err);
    return err;
  }
  return 0;
}

void close_connection(Sockbuf *sb) {
  if (sb == nullptr || sb->sb_sd < 0) return;
  shutdown(sb->sb_sd, SHUT_RDWR);
  close(sb->sb_sd);
  sb->sb_sd = -1;
  // Bytes read ahead belong to the closed socket.
  fber_sockbuf_release(sb);
}

LDAPConn *get_default_connection(LDAP *ld) {
  if (thread_conns(ld) == nullptr) return ld->ld_defconn;
  if (LDAP_MUTEX_LOCK(&ld->ld_thread_conn_mutex) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "get_default_connection: FATAL ERRRO  - Unable to get lock at File %s, Line %d\n",
             __FILE__, __LINE__);
    return nullptr;
  }
  LDAPConn *found = nullptr;
  pthread_t self = pthread_self();
  for (ldap_thread_conn *t = thread_conns(ld); t != nullptr; t = t->ltc_next) {
    if (pthread_equal(t->ltc_thread, self)) {
      found = t->ltc_conn;
      break;
    }
  }
  LDAP_MUTEX_UNLOCK(&ld->ld_thread_conn_mutex);
  return found != nullptr ? found : ld->ld_defconn;
}

int ldap_set_thread_connection(LDAP *ld, LDAPConn *conn) {
  if (LDAP_MUTEX_LOCK(&ld->ld_thread_conn_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  int rc = LDAP_SUCCESS;
  pthread_t self = pthread_self();
  ldap_thread_conn *t = thread_conns(ld);
  while (t != nullptr && !pthread_equal(t->ltc_thread, self)) t = t->ltc_next;
  if (t != nullptr && conn == nullptr) {
    if (t->ltc_prev != nullptr)
      t->ltc_prev->ltc_next = t->ltc_next;
    else
      set_thread_conns(ld, t->ltc_next);
    if (t->ltc_next != nullptr) t->ltc_next->ltc_prev = t->ltc_prev;
    free(t);
  } else if (t != nullptr) {
    t->ltc_conn = conn;
  } else if (conn != nullptr) {
    t = static_cast<ldap_thread_conn *>(olx_calloc(1, sizeof *t));
    if (t == nullptr) {
      rc = LDAP_NO_MEMORY;
    } else {
      t->ltc_thread = self;
      t->ltc_conn = conn;
      t->ltc_next = thread_conns(ld);
      if (t->ltc_next != nullptr) t->ltc_next->ltc_prev = t;
      set_thread_conns(ld, t);
    }
  }
  LDAP_MUTEX_UNLOCK(&ld->ld_thread_conn_mutex);
  return rc;
}

int ldap_conn_matches(LDAPConn *conn, const char *host, int port) {
  struct addrinfo *host_ai = nullptr;
  int state = 0;
  bool match = conn_matches_cached(conn, host, port, &host_ai, &state);
  free_addrinfo(host_ai);
  return match ? 1 : 0;
}

LDAPConn *ldap_get_connection(LDAP *ld, const char *host, int port, int open, int *rc, int include_default) {
  return get_connection(ld, host, port, open, rc, include_default, false, false);
}

LDAPConn *ldap_get_connection_for_url(LDAP *ld, const char *host, int port, int secure, int *rc, int include_default) {
  if (secure == 1 && port == LDAP_URL_PORT_DEFAULT_SECURE) port = LDAPS_PORT;
  return get_connection(ld, host, port, 1, rc, include_default, secure == 1, true);
}

void ldap_free_connection_if_idle(LDAP *ld, LDAPConn *conn) {
  if (conn == nullptr) return;
  if (LDAP_MUTEX_LOCK(&ld->ld_conn_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return;
  }
  // The default connection heads the list for the session's whole life, and
  // a record that is not in the list is not this session's to free.
  bool unlinked = false;
  for (LDAPConn *prev = ld->ld_servers; prev != nullptr && conn != ld->ld_defconn; prev = prev->lc_next) {
    if (prev->lc_next == conn) {
      prev->lc_next = conn->lc_next;
      conn->lc_next = nullptr;
      unlinked = true;
      break;
    }
  }
  LDAP_MUTEX_UNLOCK(&ld->ld_conn_mutex);
  if (!unlinked) return;
  ldap_msg_table *table = conn->lc_msgtable;
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return;
  }
  bool idle = (uint32_t)table->free_count == table->size;
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  if (idle) {
    ldap_lc_free(conn);
    return;
  }
  // Rows of it are still in use: it goes back on the list (at the tail), so
  // that the session's tear-down frees it rather than nobody.
  if (LDAP_MUTEX_LOCK(&ld->ld_conn_mutex) != 0) return;
  LDAPConn *last = ld->ld_servers;
  while (last->lc_next != nullptr) last = last->lc_next;
  last->lc_next = conn;
  LDAP_MUTEX_UNLOCK(&ld->ld_conn_mutex);
}

void ldap_conn_release(LDAP *ld, LDAPConn *conn, int held) {
  if (ld == nullptr || conn == nullptr || conn == ld->ld_defconn) return;
  if (LDAP_MUTEX_LOCK(&ld->ld_conn_mutex) != 0) return;
  // Another thread may have freed it since: only a listed record is looked at.
  bool listed = false;
  for (LDAPConn *c = ld->ld_servers; c != nullptr && !listed; c = c->lc_next) listed = c == conn;
  if (listed && held && conn->lc_holders > 0) --conn->lc_holders;
  const bool unlinked = listed && unlink_if_failed_and_unused(ld, conn);
  LDAP_MUTEX_UNLOCK(&ld->ld_conn_mutex);
  if (!unlinked) return;
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_conn_release: connection to %s:%d failed and is unused: freed\n",
           conn->lc_host != nullptr ? conn->lc_host : "", conn->lc_port);
  ldap_lc_free(conn);
}

// ---- the host-list walk ----

int ldap_split_host_entry(const char *entry, char *host, size_t host_size, int *port) {
  *port = 0;
  if (strlen(entry) >= LDAP_HOST_ENTRY_MAX) return LDAP_PARAM_ERROR;
  int colons = 0;
  for (const char *p = entry; *p != '\0'; ++p) colons += *p == ':';
  if (colons >= 2) {
    const char *begin = entry[0] == '[' ? entry + 1 : entry;
    const char *close = strchr(begin, ']');
    if (close == nullptr) return copy_host(begin, strlen(begin), host, host_size) ? 0 : LDAP_PARAM_ERROR;
    if (!copy_host(begin, (size_t)(close - begin), host, host_size)) return LDAP_PARAM_ERROR;
    if (close[1] == ':' && !parse_port(close + 2, port)) return LDAP_PARAM_ERROR;
    return 0;
  }
  const char *colon = strchr(entry, ':');
  size_t len = colon != nullptr ? (size_t)(colon - entry) : strlen(entry);
  if (!copy_host(entry, len, host, host_size)) return LDAP_PARAM_ERROR;
  if (colon != nullptr && !parse_port(colon + 1, port)) return LDAP_PARAM_ERROR;
  return 0;
}

int open_ldap_connection(LDAP *ld, LDAPConn *lc) {
  LDAP_LOG(LDAP_LOG_TRACE, "open_ldap_connection: ld(%p), lc(%p)\n", (void *)ld, (void *)lc);
  if (ld == nullptr || lc == nullptr || lc->lc_host == nullptr) return LDAP_PARAM_ERROR;
  ldap_unique_str list(olx_strdup(lc->lc_host));
  if (!list) return LDAP_NO_MEMORY;
  // Each connection (connect and SSL handshake, over the whole host list)
  // within the session's network time-out, and within the call's deadline.
  struct timeval network;
  const bool bounded = ldap_session_timeout(ld, LDAP_OPT_NETWORK_TIMEOUT, &network);
  const CallDeadline deadline(bounded ? &network : nullptr);
  // An empty list connects nothing: that is a failure, not a success.
  int rc = LDAP_SERVER_DOWN;
  char *save = nullptr;
  for (char *entry = strtok_r(list.get(), " \t", &save); entry != nullptr; entry = strtok_r(nullptr, " \t", &save)) {
    char host[LDAP_HOST_ENTRY_MAX];
    int port = 0;
    if (ldap_split_host_entry(entry, host, sizeof host, &port) != 0) {
      rc = LDAP_PARAM_ERROR;
      continue;
    }
    if (port == 0) port = lc->lc_port;
    if (port <= 0 || port > 65535) {
      rc = LDAP_PARAM_ERROR;
      continue;
    }
    ldap_unique_str peer(olx_strdup(host));
    if (!peer) return LDAP_NO_MEMORY;
    rc = open_connection(&lc->lc_sb, host, htons((uint16_t)port));
    if (rc == LDAP_TIMEOUT) return rc;  // no time for the next host either
    if (rc != 0) continue;
    if (ld->ld_ssl == 1 || lc->lc_ssl == 1) {
      LDAP_LOG(LDAP_LOG_TRACE, "open_ldap_connection: SSL In use!\n");
      // A plain session following an ldaps URL takes the current environment.
      rc = ldap_ssl_hold_env(ld);
      if (rc == 0) rc = open_ssl_connection_to(ld, &lc->lc_sb, host);
      if (rc != 0) {
        LDAP_LOG(LDAP_LOG_ERROR, "open_ldap_connection: open_ssl_connection failed with rc=%d\n", rc);
        close_connection(&lc->lc_sb);
        clear_conn_connected(lc);
        if (call_deadline_passed()) return LDAP_TIMEOUT;
        continue;
      }
    }
    if (set_socket_nb(&lc->lc_sb) == 0) {
      free(lc->lc_peer_name);
      lc->lc_peer_name = peer.release();
      set_conn_connected(lc);
      return 0;
    }
    ssl_close_direct(&lc->lc_sb);
    rc = LDAP_SERVER_DOWN;
    close_connection(&lc->lc_sb);
    clear_conn_connected(lc);
  }
  return rc;
}

int open_default_connection(LDAP *ld) {
  LDAPConn *lc = get_default_connection(ld);
  if (lc == nullptr) return LDAP_LOCK_ERROR;
  return open_ldap_connection(ld, lc);
}
}
