// Session creation, the operation bracket, and the host-list walk that opens
// a connection.
#include <arpa/inet.h>
#include <pthread.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"

namespace {

const char kDefaultTisdir[] = "/opt/KRV/ldap/V6.2";

bool is_blank(char c) { return c == ' ' || c == '\t'; }

bool all_blank(const char *s) {
  for (; *s != '\0'; ++s)
    if (!is_blank(*s)) return false;
  return true;
}

void set_tisdir() {
  if (ldap_chkenv("TISDIR") != 0) return;
  ldap_unique_str home(ldap_getenv("OLX_LDAP_HOME"));
  ldap_change_env_var(0, "TISDIR", ':', home ? home.get() : kDefaultTisdir);
}

// Host from a URL argument: the URL's host (and port), or what the server
// locator finds for it.  Sets *failed when the session cannot be made.
char *host_from_url(const char *url, bool secure, int *port, bool *failed) {
  LDAPURLDesc *lud = nullptr;
  *failed = false;
  if (ldap_url_parse(url, &lud) != 0) {
    *failed = true;
    return nullptr;
  }
  char *host = nullptr;
  if (lud->lud_host != nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_init: Found host (%s) in URL\n", lud->lud_host);
    host = olx_strdup(lud->lud_host);
    if (host == nullptr) *failed = true;
    if (lud->lud_port > 0) *port = lud->lud_port;
  } else {
    // The request lives on this stack rather than in process-wide state, so
    // concurrent ldap_init calls cannot see each other's DN.
    struct ldap_server_request request;
    memset(&request, 0, sizeof request);
    request.connection_timeout = 10;
    if (lud->lud_dn != nullptr) {
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_init: Found DN (%s) in URL\n", lud->lud_dn);
      request.dn_filter = lud->lud_dn;
    }
    host = auto_server_locate(&request, secure ? 1 : 0);
    if (host == nullptr) *failed = true;
  }
  ldap_free_urldesc(lud);
  return host;
}

// Releases a handle that failed before it was complete.  ldap_unbind needs
// every lock in place, so the pieces are undone one by one here.
void discard_partial(LDAP *ld, int mutexes_made, bool cond_made) {
  if (ld->ld_defconn != nullptr) ldap_lc_free(ld->ld_defconn);
  pthread_mutex_t *order[] = {&ld->ld_mutex, &ld->ld_conn_mutex, &ld->ld_err_mutex, &ld->ld_thread_conn_mutex};
  for (int i = 0; i < mutexes_made; ++i) pthread_mutex_destroy(order[i]);
  if (cond_made) pthread_cond_destroy(&ld->ld_op_cond);
  ldap_free_thread_errors(ld);
  free(ld->ld_defhost);
  memset(ld, 0, sizeof *ld);
  free(ld);
}



// One operation fewer, never below zero.
void count_down(LDAP *ld) {
  unsigned n = __atomic_load_n(&ld->ld_active_ops, __ATOMIC_SEQ_CST);
  while (n > 0 &&
         !__atomic_compare_exchange_n(&ld->ld_active_ops, &n, n - 1, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
  }
}

}  // namespace

extern "C" {


LDAPConn *ldap_lc_init(const char *host, int port, int table_size) {
  auto *lc = static_cast<LDAPConn *>(olx_calloc(1, sizeof(LDAPConn)));
  if (lc == nullptr) return nullptr;
  lc->lc_sb.sb_sd = -1;
  lc->lc_msgtable = ldap_msg_table_init(table_size);
  if (lc->lc_msgtable == nullptr) {
    free(lc);
    return nullptr;
  }
  lc->lc_msgtable->conn = lc;
  lc->lc_host = olx_strdup(host != nullptr ? host : "localhost");
  if (lc->lc_host == nullptr) {
    ldap_msg_table_free(lc->lc_msgtable);
    free(lc);
    return nullptr;
  }
  lc->lc_port = port;
  lc->lc_closed = 0;
  int rc = LDAP_MUTEX_CREATE(&lc->lc_read_mutex);
  int made = 0;
  if (rc == 0) {
    made = 1;
    rc = LDAP_MUTEX_CREATE(&lc->lc_write_mutex);
  }
  if (rc == 0) {
    made = 2;
    rc = pthread_mutex_init(&lc->lc_bind_ctrls_mutex, nullptr);
  }
  if (rc == 0) {
    made = 3;
    rc = pthread_mutex_init(&lc->lc_reconnect_mutex, nullptr);
  }
  if (rc == 0) {
    made = 4;
    pthread_condattr_t monotonic;
    rc = pthread_condattr_init(&monotonic);
    if (rc == 0) {
      rc = pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC);
      if (rc == 0) rc = pthread_cond_init(&lc->lc_reconnect_cond, &monotonic);
      pthread_condattr_destroy(&monotonic);
    }
  }
  if (rc != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_lc_init: failed to initialize mutex rc = %d - File %s line %d\n", rc, __FILE__,
             __LINE__);
    if (made >= 4) pthread_mutex_destroy(&lc->lc_reconnect_mutex);
    if (made >= 3) pthread_mutex_destroy(&lc->lc_bind_ctrls_mutex);
    if (made >= 2) pthread_mutex_destroy(&lc->lc_write_mutex);
    if (made >= 1) pthread_mutex_destroy(&lc->lc_read_mutex);
    ldap_msg_table_free(lc->lc_msgtable);
    free(lc->lc_host);
    free(lc);
    return nullptr;
  }
  return lc;
}

LDAP *ldap_init(const char *host, int port) {
  ldap_debug_init();
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_init: defhost=%s, defport=%d\n", ldap_trace_str(host), port);
  // Ports above 65535 are refused too: they would be cut to 16 bits on connect.
  if (port < 0 || port > 65535) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_init: bad port (%d)\n", port);
    return nullptr;
  }
  if (port == 0) port = LDAP_PORT;
  set_tisdir();

  ldap_unique_str owned_host;  // what this call allocated in place of `host`
  if (host != nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_init: parsing the passing hostname\n");
    char lower[LDAP_MAX_HOSTNAME + 1];
    size_t n = strnlen(host, LDAP_MAX_HOSTNAME);
    for (size_t i = 0; i < n; ++i) lower[i] = (char)tolower((unsigned char)host[i]);
    lower[n] = '\0';
    bool secure = strstr(lower, "ldaps://") != nullptr;
    if (secure || strstr(lower, "ldap://") != nullptr) {
      bool failed = false;
      owned_host.reset(host_from_url(host, secure, &port, &failed));
      if (failed) return nullptr;
      host = owned_host.get();
    }
  } else {
    owned_host.reset(static_cast<char *>(olx_malloc(LDAP_MAX_HOSTNAME + 1)));
    if (!owned_host) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_init: allocate for hostname failed\n");
      return nullptr;
    }
    if (gethostname(owned_host.get(), LDAP_MAX_HOSTNAME) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_init: can't get hostname\n");
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_init: failed to get hostname\n");
      return nullptr;
    }
    owned_host.get()[LDAP_MAX_HOSTNAME] = '\0';
    host = owned_host.get();
  }
  // A list of nothing but blanks names no server either.
  if (*host == '\0' || all_blank(host)) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_init: invalid hostname (blank) is used\n");
    return nullptr;
  }

  auto *ld = static_cast<LDAP *>(olx_calloc(1, sizeof(LDAP)));
  if (ld == nullptr) return nullptr;
  memcpy(ld->ld_eyecatcher, LDAP_EYECATCHER, LDAP_EYECATCHER_LEN);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_init: defhost(%s) defport(%d)\n", host, port);

  ld->ld_defconn = ldap_lc_init(host, port, LDAP_MSG_TABLE_INITIAL_SIZE);
  if (ld->ld_defconn == nullptr) {
    discard_partial(ld, 0, false);
    return nullptr;
  }
  ld->ld_defconn->lc_ld = ld;
  ld->ld_servers = ld->ld_defconn;

  pthread_mutex_t *first_three[] = {&ld->ld_mutex, &ld->ld_conn_mutex, &ld->ld_err_mutex};
  int made = 0;
  for (pthread_mutex_t *m : first_three) {
    int rc = LDAP_MUTEX_CREATE(m);
    if (rc != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_init: failed to initialize mutex rc=%d - File %s line %d\n", rc, __FILE__,
               __LINE__);
      discard_partial(ld, made, false);
      return nullptr;
    }
    ++made;
  }
  int rc = pthread_cond_init(&ld->ld_op_cond, nullptr);
  if (rc != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_init: failed to initialize conditional variable, rc=%d - File %s line %d\n", rc,
             __FILE__, __LINE__);
    discard_partial(ld, made, false);
    return nullptr;
  }
  ld->ld_unbind_started = 0;
  rc = pthread_mutex_init(&ld->ld_thread_conn_mutex, nullptr);
  if (rc != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_init: failed to initialize mutex rc=%d - File %s line %d\n", rc, __FILE__, __LINE__);
    discard_partial(ld, made, true);
    return nullptr;
  }
  made = 4;

  // Version 3, no code-page translation, referrals chased with 10 hops.
  if (ldap_set_option_direct(ld, LDAP_OPT_PROTOCOL_VERSION, reinterpret_cast<void *>(3)) != 0 ||
      ldap_set_option_direct(ld, LDAP_OPT_XLATE, reinterpret_cast<void *>(1)) != 0 ||
      ldap_set_option_direct(ld, LDAP_OPT_REFERRALS, reinterpret_cast<void *>(1)) != 0 ||
      ldap_set_option_direct(ld, LDAP_OPT_REFHOPLIMIT, reinterpret_cast<void *>(10)) != 0) {
    discard_partial(ld, made, true);
    return nullptr;
  }
  ld->ld_defport = port;
  // Test set-ups without certificates for their host names turn the server
  // name check off here; LDAP_OPT_SSL_CHECK_HOSTNAME overrides it per session.
  if (char *check = ldap_getenv("LDAP_SSL_HOSTNAME_CHECK")) {
    ld->ld_ssl_no_host_check = strcasecmp(check, "FALSE") == 0 ? 1 : 0;
    free(check);
  }
  ld->ld_defhost = olx_strdup(host);
  if (ld->ld_defhost == nullptr) {
    discard_partial(ld, made, true);
    return nullptr;
  }
  return ld;
}

LDAP *ldap_open(const char *host, int port) {
  ldap_debug_init();
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_open: host=%s, port=%d\n", ldap_trace_str(host), port);
  LDAP *ld = ldap_init(host, port);
  if (ld == nullptr) return nullptr;
  ldap_unique_str version(ldap_getenv("LDAP_VERSION"));
  ld->ld_version = version && strcmp(version.get(), "3") == 0 ? LDAP_VERSION3 : LDAP_VERSION2;
  if (open_default_connection(ld) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_open: open_default_connection failed");
    ldap_unbind(ld);
    return nullptr;
  }
  return ld;
}

// The bracket counts operations without taking ld_mutex: an operation
// publishes itself in ld_active_ops and then looks at ld_unbind_started,
// unbind sets ld_unbind_started and then looks at the count (both sequentially
// consistent), so either the operation sees the unbind and backs out, or the
// unbind sees the operation and waits for it.  Whoever touches the handle
// while an unbind may be waiting does so under ld_mutex, so the unbind cannot
// free it under them.
int ldap_start_operation(LDAP *ld) {
  if (ld == nullptr || memcmp(ld->ld_eyecatcher, LDAP_EYECATCHER, LDAP_EYECATCHER_LEN) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Invalid ld in ldap_start_operation\n");
    return LDAP_PARAM_ERROR;
  }
  __atomic_add_fetch(&ld->ld_active_ops, 1, __ATOMIC_SEQ_CST);
  if (__atomic_load_n(&ld->ld_unbind_started, __ATOMIC_SEQ_CST) != 1) return 0;
  if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) {
    count_down(ld);
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  count_down(ld);
  pthread_cond_broadcast(&ld->ld_op_cond);
  LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
  LDAP_LOG(LDAP_LOG_ERROR, "ldap_start_operation: unbind started\n");
  return LDAP_PARAM_ERROR;
}

void ldap_end_operation(LDAP *ld) {
  if (ld == nullptr || memcmp(ld->ld_eyecatcher, LDAP_EYECATCHER, LDAP_EYECATCHER_LEN) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Invalid ld in ldap_start_operation\n");
    return;
  }
  if (__atomic_load_n(&ld->ld_unbind_started, __ATOMIC_SEQ_CST) != 1) {
    // No unbind yet: count down (never below zero) and leave the handle alone.
    // An unbind that begins meanwhile reads the count after this and, should
    // it have gone to sleep just before, looks again after a short wait.
    count_down(ld);
    return;
  }
  if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) return;
  count_down(ld);
  pthread_cond_broadcast(&ld->ld_op_cond);
  LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
}


}

namespace {
// One URI of an ldap_initialize list as a host-list entry: "host:port" for
// ldap and ldaps (389 and 636 when none is written), the decoded socket path
// for ldapi.  *scheme: 0 ldap, 1 ldaps, 2 ldapi; false for anything else.
bool uri_entry(const std::string &uri, int *scheme, std::string *entry) {
  static const char *const kSchemes[] = {"ldap://", "ldaps://", "ldapi://"};
  *scheme = -1;
  for (int i = 0; i < 3 && *scheme < 0; ++i)
    if (strncasecmp(uri.c_str(), kSchemes[i], strlen(kSchemes[i])) == 0) *scheme = i;
  if (*scheme < 0) return false;
  std::string rest = uri.substr(strlen(kSchemes[*scheme]));
  rest = rest.substr(0, rest.find('/'));
  if (*scheme == 2) {
    // The path is percent-encoded in the host part.
    std::string path;
    for (size_t i = 0; i < rest.size(); ++i) {
      if (rest[i] == '%' && i + 2 < rest.size() && isxdigit((unsigned char)rest[i + 1]) &&
          isxdigit((unsigned char)rest[i + 2])) {
        path += (char)strtol(rest.substr(i + 1, 2).c_str(), nullptr, 16);
        i += 2;
      } else {
        path += rest[i];
      }
    }
    if (path.empty() || path[0] != '/') return false;
    *entry = path;
    return true;
  }
  if (rest.empty()) rest = "localhost";
  const size_t close = rest.rfind(']');
  const size_t colon = rest.rfind(':');
  const bool has_port = colon != std::string::npos && (close == std::string::npos || colon > close);
  *entry = has_port ? rest : rest + (*scheme == 1 ? ":636" : ":389");
  return true;
}
}  // namespace

extern "C" int ldap_initialize(LDAP **ldp, const char *uris) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_initialize: uris(%s)\n", ldap_trace_str(uris));
  if (ldp == nullptr) return LDAP_PARAM_ERROR;
  *ldp = nullptr;
  if (uris == nullptr) return LDAP_PARAM_ERROR;
  // Blank- or comma-separated URIs, tried in order when connecting.
  std::string list;
  int secure = -1;
  const std::string text(uris);
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find_first_of(" \t,", at), text.size());
    if (end > at) {
      int scheme = -1;
      std::string entry;
      if (!uri_entry(text.substr(at, end - at), &scheme, &entry)) return LDAP_PARAM_ERROR;
      // A session is secure or not as a whole: ldaps cannot be mixed with others.
      if (secure >= 0 && secure != (scheme == 1 ? 1 : 0)) return LDAP_PARAM_ERROR;
      secure = scheme == 1 ? 1 : 0;
      list += (list.empty() ? "" : " ") + entry;
    }
    at = end + 1;
  }
  if (list.empty()) return LDAP_PARAM_ERROR;
  LDAP *ld = secure == 1 ? ldap_ssl_init(list.c_str(), LDAPS_PORT, nullptr) : ldap_init(list.c_str(), LDAP_PORT);
  if (ld == nullptr) return secure == 1 ? LDAP_SSL_NOT_AVAILABLE : LDAP_PARAM_ERROR;
  *ldp = ld;
  return LDAP_SUCCESS;
}
