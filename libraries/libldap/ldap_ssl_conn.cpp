// Secure connections: opening one on a connected socket (the handshake,
// the server's name), closing it, the connection queries, and the calls
// that make a session secure.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "fber-stream.h"
#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-lock.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"


extern "C" {

int checkCiphers(const char *spec) {
  // No source of valid codes is built in; a build that has one sets it here.
  const char *valid = nullptr;
  LDAP_LOG(LDAP_LOG_TRACE, "In checkCiphers: validCipherString == <%s>, userString == <%s>.\n", valid ? valid : "null",
           spec ? spec : "null");
  if (valid == nullptr || spec == nullptr) return 0;
  size_t n = strlen(spec);
  for (size_t i = 0; i < n; i += 2) {
    if (i + 1 >= n) return LDAP_SSL_PARAM_ERROR;
    bool found = false;
    for (const char *v = valid; v[0] != '\0' && v[1] != '\0' && !found; v += 2)
      found = v[0] == spec[i] && v[1] == spec[i + 1];
    if (!found) return LDAP_SSL_PARAM_ERROR;
  }
  return 0;
}

const char *getSSLKeydatabase(tav_handle conn) {
  const char *v = nullptr;
  int t = tav_fn.attribute_get_buffer(conn, TAV_KEYRING_FILE, &v, nullptr);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - getSSLKeydatabase: tav_attribute_get_buffer(...kdb...) rc=%d %s\n", t,
             tav_error_text(t));
    return nullptr;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "getSSLKeydatabase: current kdb=[ %s ]\n", v);
  return v;
}

const char *getSSLCipher(tav_handle conn) {
  const char *v = nullptr;
  int t = tav_fn.attribute_get_buffer(conn, TAV_CONNECT_CIPHER_SPEC, &v, nullptr);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - getSSLCipher: tav_attribute_get_buffer(...cipher...) rc=%d %s\n", t,
             tav_error_text(t));
    return nullptr;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "getSSLCipher: current connect cipher=[ %s ]\n", v);
  return v;
}

const char *getSSLClientLabel(tav_handle conn) {
  const char *v = nullptr;
  int t = tav_fn.attribute_get_buffer(conn, TAV_KEYRING_LABEL, &v, nullptr);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - getSSLClientLabelr: tav_attribute_get_buffer(...label...) rc=%d %s\n", t,
             tav_error_text(t));
    return nullptr;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "getSSLClientLabel: current client label=[ %s ]\n", v);
  return v;
}

char *getSSLCertAltName(tav_handle conn, int type) {
  const tav_cert_data_elem *elems = nullptr;
  int count = 0;
  int t = tav_fn.attribute_get_cert_info(conn, TAV_PARTNER_CERT_INFO, &elems, &count);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - getSSLCertAltName: tav_attribute_get_cert_info(...label...) rc=%d %s\n", t,
             tav_error_text(t));
    return nullptr;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "getSSLCertAltName: server alt data=[ %p ]\n", (const void *)elems);
  for (int i = 0; i < count; ++i) {
    if (elems[i].cert_data_id != type) continue;
    char *copy = olx_strdup(elems[i].cert_data_p != nullptr ? elems[i].cert_data_p : "");
    if (copy == nullptr) LDAP_LOG(LDAP_LOG_ERROR, "Error - getSSLCertAltName: Unable to allocate memory\n");
    return copy;
  }
  return nullptr;
}

int open_ssl_connection(LDAP *ld, Sockbuf *sb) { return open_ssl_connection_to(ld, sb, nullptr); }

int ldap_ssl_hold_env(LDAP *ld) {
  ldap_lock_ssl_env();
  if (ld->ld_ssl_env == nullptr && ldap_ssl_init_count() > 0) ld->ld_ssl_env = ldap_ssl_env_ref_direct();
  const bool held = ld->ld_ssl_env != nullptr;
  ldap_unlock_ssl_env();
  return held ? 0 : LDAP_SSL_NOT_AVAILABLE;
}

int open_ssl_connection_to(LDAP *ld, Sockbuf *sb, const char *host) {
  if (tav_library.load(std::memory_order_acquire) == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR,
             "Error - open_ssl_connection(): Could not open ssl connection because Tavlib was not loaded\n");
    return LDAP_SSL_NOT_AVAILABLE;
  }
  tav_handle *cell = static_cast<tav_handle *>(olx_calloc(1, sizeof(tav_handle)));
  if (cell == nullptr) return LDAP_NO_MEMORY;
  sb->sb_ssl = cell;
  auto fail = [&](int rc) {
    if (*cell != nullptr) tav_fn.secure_soc_close(cell);
    free(cell);
    sb->sb_ssl = nullptr;
    return rc;
  };
  // The handshake's last flight and the first request are separate writes:
  // with Nagle on, the request waits for the server's delayed ACK.
  int one = 1;
  setsockopt(sb->sb_sd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  ldap_lock_ssl_env();
  TavEnvRef *ref = static_cast<TavEnvRef *>(ld->ld_ssl_env);
  ldap_unlock_ssl_env();
  int t = tav_fn.secure_soc_open(ref != nullptr ? ref->env : nullptr, cell);
  if (t != 0) {
    *cell = nullptr;
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_secure_soc_open() rc=%d %s\n", t, tav_error_text(t));
    return fail(LDAP_SSL_INITIALIZE_FAILED);
  }
  LDAP_LOG(LDAP_LOG_TRACE, "open_ssl_connection(): set sd=%d\n", sb->sb_sd);
  if ((t = tav_fn.attribute_set_numeric_value(*cell, TAV_FD, sb->sb_sd)) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_numeric() rc=%d %s\n", t,
             tav_error_text(t));
    return fail(LDAP_SSL_PARAM_ERROR);
  }
  if (ld->ld_ssl_cert_label != nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "open_ssl_connection(): set certificate label to [%s]\n", ld->ld_ssl_cert_label);
    if ((t = tav_fn.attribute_set_buffer(*cell, TAV_KEYRING_LABEL, ld->ld_ssl_cert_label, 0)) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_buffer(...certlabel...) rc=%d.\n", t);
      return fail(t);
    }
  }
  LDAP_LOG(LDAP_LOG_TRACE, "open_ssl_connection(): ld->ld_ssl_cipher == <%s>.\n",
           ld->ld_ssl_cipher ? ld->ld_ssl_cipher : "null");
  if (ld->ld_ssl_cipher != nullptr &&
      (t = tav_fn.attribute_set_buffer(*cell, TAV_V3_CIPHER_SPECS, ld->ld_ssl_cipher, 0)) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_buffer(...ciphers...) rc=%d %s\n", t,
             tav_error_text(t));
    return fail(LDAP_SSL_PARAM_ERROR);
  }
  if ((t = tav_fn.attribute_set_enum(*cell, TAV_PROTOCOL_SSLV2, TAV_PROTOCOL_SSLV2_OFF)) != 0)
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_enum( SSLV2 OFF ) rc=%d %s\n", t,
             tav_error_text(t));
  // The server's name: sent as SNI and, unless the caller turned the check
  // off, required in its certificate.  Without a name the check fails.
  const bool check = ld->ld_ssl_no_host_check != 1;
  if (host != nullptr && *host != '\0' && (t = tav_fn.attribute_set_buffer(*cell, TAV_PEER_HOST_NAME, host, 0)) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_buffer(...host...) rc=%d %s\n", t,
             tav_error_text(t));
    return fail(LDAP_SSL_PARAM_ERROR);
  }
  if (!check) {
    LDAP_LOG(LDAP_LOG_TRACE, "open_ssl_connection(): server name check is off\n");
    if ((t = tav_fn.attribute_set_enum(*cell, TAV_PEER_NAME_CHECK, TAV_PEER_NAME_CHECK_OFF)) != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_attribute_set_enum(...name check...) rc=%d %s\n", t,
               tav_error_text(t));
      return fail(LDAP_SSL_PARAM_ERROR);
    }
  }
  t = ldap_ssl_guarded_handshake(*cell);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - open_ssl_connection(): tav_secure_soc_init() rc=%d %s\n", t, tav_error_text(t));
    int ext = LDAP_SSL_HANDSHAKE_FAILED;
    if (t == TAV_ERROR_HOST_MISMATCH) {
      // The extended error says why: the certificate is another server's.
      ext = TAV_ERROR_HOST_MISMATCH;
      if (ldap_trace_on()) {
        std::unique_ptr<char, decltype(&free)> alt(getSSLCertAltName(*cell, TAV_CERT_SUBJECT_ALT_NAMES), free);
        std::unique_ptr<char, decltype(&free)> cn(alt ? nullptr : getSSLCertAltName(*cell, TAV_CERT_COMMON_NAME), free);
        ldap_log(LDAP_LOG_ERROR,
                 "Error - open_ssl_connection(): server name mismatch: expected [%s], certificate names [%s]\n",
                 host != nullptr ? host : "",
                 alt  ? alt.get()
                 : cn ? cn.get()
                      : "");
      }
    }
    ldap_set_errno_direct(ld, LDAP_SSL_HANDSHAKE_FAILED, nullptr, nullptr);
    ldap_set_ext_errno(ld, ext);
    return fail(LDAP_SSL_HANDSHAKE_FAILED);
  }
  const char *cipher = nullptr;
  if (tav_fn.attribute_get_buffer(*cell, TAV_CONNECT_CIPHER_SPEC, &cipher, nullptr) == 0 && cipher != nullptr)
    LDAP_LOG(LDAP_LOG_TRACE, "In open_ssl_connection(): cipher used %c%c\n", cipher[0] ? cipher[0] : ' ',
             cipher[0] && cipher[1] ? cipher[1] : ' ');
  return 0;
}

void ssl_close_direct(Sockbuf *sb) {
  if (sb == nullptr || sb->sb_ssl == nullptr) return;
  tav_handle *cell = static_cast<tav_handle *>(sb->sb_ssl);
  int t = tav_fn.secure_soc_close(cell);
  if (t != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "In ssl_close_direct(): tav_secure_soc_close() rc=%d %s\n", t, tav_error_text(t));
    return;
  }
  free(cell);
  sb->sb_ssl = nullptr;
}

LDAP *ldap_ssl_init(const char *host, int port, const char *label) {
  ldap_mutex_init_once();
  ldap_lock_ssl_env();
  int count = ldap_ssl_init_count();
  ldap_unlock_ssl_env();
  if (count == 0) return nullptr;
  char *copy = nullptr;
  if (label != nullptr && (copy = olx_strdup(label)) == nullptr) return nullptr;
  LDAP *ld = ldap_init(host, port);
  if (ld == nullptr) {
    free(copy);
    return nullptr;
  }
  ld->ld_ssl_cert_label = copy;
  ld->ld_ssl = 1;
  ldap_lock_ssl_env();
  ld->ld_ssl_env = ldap_ssl_env_ref_direct();
  ldap_unlock_ssl_env();
  return ld;
}

int ldap_ssl_start_direct(LDAP *ld, const char *kdb, const char *pw, const char *label) {
  if (ld == nullptr) return -1;
  int rc = ldap_ssl_client_init(kdb, pw, ld->ld_ssl_timeout, nullptr);
  LDAP_LOG(LDAP_LOG_TRACE, "In ldap_ssl_start_direct(): ldap_ssl_client_init() rc=%d\n", rc);
  if (rc != 0 && rc != LDAP_SSL_ALREADY_INITIALIZED) return rc;
  ldap_lock_ssl_env();
  // A session started twice holds one reference, on the current environment.
  TavEnvRef *previous = static_cast<TavEnvRef *>(ld->ld_ssl_env);
  ld->ld_ssl_env = ldap_ssl_env_ref_direct();
  ldap_unlock_ssl_env();
  deleteTavEnvRef(previous);
  LDAPConn *lc = get_default_connection(ld);
  if (lc == nullptr) return LDAP_LOCK_ERROR;
  if (label != nullptr) {
    char *copy = olx_strdup(label);
    if (copy == nullptr) {
      ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
      return LDAP_NO_MEMORY;
    }
    free(ld->ld_ssl_cert_label);
    ld->ld_ssl_cert_label = copy;
  }
  ld->ld_ssl = 1;
  // A connection not opened yet is made secure when it is opened.
  if (!__atomic_load_n(&lc->lc_connected, __ATOMIC_ACQUIRE) || lc->lc_sb.sb_ssl != nullptr) return 0;
  return open_ssl_connection_to(ld, &lc->lc_sb, lc->lc_peer_name);
}

int ldap_ssl_start(LDAP *ld, const char *kdb, const char *pw, const char *label) {
  LDAP_LOG(LDAP_LOG_TRACE, "In ldap_ssl_start(): this is a deprecated function.\n");
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  int rc = ldap_ssl_start_direct(ld, kdb, pw, label);
  return rc;
}
}
