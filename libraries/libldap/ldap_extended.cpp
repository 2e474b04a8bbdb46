// ExtendedRequest: [APPLICATION 23] { requestName [0], requestValue [1] }, and
// the operations built on it: Who am I? (RFC 4532), password modify (RFC
// 3062) and StartTLS (RFC 4513).  Requests go the update operations' way;
// answers are read with ldap_parse_extended_result.
#include <fcntl.h>

#include <cstdlib>
#include <cstring>

#include "ldap-ssl.h"
#include "ldap-update.h"
#include "ldap-utils.h"

namespace {
using ldap_proto::kExtendedRequest;
using ldap_proto::kRequestName;
using ldap_proto::kRequestValue;
const LdapUpdateWorker kExtended = {"ldap_extended_operation: NULL server connection\n", true, kExtendedRequest};

constexpr char kWhoAmI[] = "1.3.6.1.4.1.4203.1.11.3";
constexpr char kPasswdModify[] = "1.3.6.1.4.1.4203.1.11.1";
constexpr char kStartTls[] = "1.3.6.1.4.1.1466.20037";
// PasswdModifyRequestValue and its response's genPasswd.
constexpr ber_tag_t kUserIdentity = 0x80, kOldPasswd = 0x81, kNewPasswd = 0x82, kGenPasswd = 0x80;

int extended_int(LDAP *ld, const char *oid, const struct berval *data, LDAPControl **sctrls, LDAPControl **cctrls,
                 int *msgidp) {
  if (msgidp != nullptr) *msgidp = -1;
  if (oid == nullptr || *oid == '\0' || msgidp == nullptr || (data != nullptr && data->bv_val == nullptr && data->bv_len)) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return LDAP_PARAM_ERROR;
  }
  return ldap_update_with_controls(ld, sctrls, cctrls, [&](LDAPControl **sc) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_extended_operation: oid(%s)\n", oid);
    return ldap_update_send(ld, nullptr, kExtended, sc, msgidp, [&](BerElement *ber) {
      if (fber_printf(ber, "t{ts", (ber_tag_t)kExtendedRequest, kRequestName, oid) != 0) return -1;
      if (data != nullptr &&
          fber_printf(ber, "to", kRequestValue, data->bv_val ? data->bv_val : "", (int)data->bv_len) != 0)
        return -1;
      return fber_printf(ber, "}");
    });
  });
}

int extended_s_int(LDAP *ld, const char *oid, const struct berval *data, LDAPControl **sctrls, LDAPControl **cctrls,
                   char **retoidp, struct berval **retdatap) {
  if (retoidp != nullptr) *retoidp = nullptr;
  if (retdatap != nullptr) *retdatap = nullptr;
  int msgid = -1;
  int rc = extended_int(ld, oid, data, sctrls, cctrls, &msgid);
  LDAPMessage *res = nullptr;
  if (rc == LDAP_SUCCESS) rc = ldap_wait_answer(ld, msgid, "ldap_extended_operation_s: ldap_result failed rc=%d\n", &res);
  if (rc == LDAP_SUCCESS) rc = ldap_parse_extended_result_direct(ld, res, retoidp, retdatap, 1, nullptr);
  ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  return rc;
}

// The authorization identity a Who am I? answer carries (an empty one for an
// anonymous session).
int whoami_value(struct berval *data, struct berval **authzid) {
  if (authzid == nullptr) {
    fber_bvfree(data);
    return LDAP_SUCCESS;
  }
  if (data == nullptr) {
    data = static_cast<struct berval *>(olx_calloc(1, sizeof(struct berval)));
    if (data == nullptr) return LDAP_NO_MEMORY;
  }
  *authzid = data;
  return LDAP_SUCCESS;
}

// genPasswd of a password modify answer into *newpasswd (empty when the
// server generated none).
int passwd_value(const struct berval *data, struct berval *newpasswd) {
  if (newpasswd == nullptr) return LDAP_SUCCESS;
  newpasswd->bv_len = 0;
  newpasswd->bv_val = nullptr;
  if (data == nullptr || data->bv_len == 0) return LDAP_SUCCESS;
  BerElement *ber = fber_init2(data);
  if (ber == nullptr) return LDAP_NO_MEMORY;
  ber_len_t len = 0;
  char *value = nullptr;
  int rc = LDAP_DECODING_ERROR;
  if (fber_scanf(ber, "{") != LBER_ERROR) {
    if (ber->ber_ptr >= ber->ber_end || fber_peek_tag(ber, &len) != kGenPasswd)
      rc = LDAP_SUCCESS;
    else if (fber_scanf(ber, "a", &value) != LBER_ERROR)
      rc = LDAP_SUCCESS;
  }
  fber_free(ber);
  if (value != nullptr) {
    newpasswd->bv_val = value;
    newpasswd->bv_len = strlen(value);
  }
  return rc;
}

// The PasswdModifyRequestValue: each field only when given.
int passwd_request(LDAP *ld, const struct berval *user, const struct berval *oldpw, const struct berval *newpw,
                   struct berval **out) {
  BerElement *ber = ldap_alloc_ber_with_options(ld, 0);
  if (ber == nullptr) return LDAP_NO_MEMORY;
  int rc = fber_printf(ber, "{") != 0 ? LDAP_ENCODING_ERROR : LDAP_SUCCESS;
  const struct {
    ber_tag_t tag;
    const struct berval *value;
  } fields[] = {{kUserIdentity, user}, {kOldPasswd, oldpw}, {kNewPasswd, newpw}};
  for (const auto &f : fields)
    if (rc == LDAP_SUCCESS && f.value != nullptr && f.value->bv_val != nullptr &&
        fber_printf(ber, "to", f.tag, f.value->bv_val, (int)f.value->bv_len) != 0)
      rc = LDAP_ENCODING_ERROR;
  if (rc == LDAP_SUCCESS && (fber_printf(ber, "}") != 0 || fber_flatten(ber, out) != 0)) rc = LDAP_ENCODING_ERROR;
  fber_free(ber);
  return rc;
}

template <typename Body>
int bracketed(LDAP *ld, const char *who, Body body) {
  LDAP_LOG(LDAP_LOG_TRACE, "%s: ld(%p)\n", who, (void *)ld);
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc = body();
  LDAP_LOG(LDAP_LOG_TRACE, "%s: returning rc=%d\n", who, rc);
  return rc;
}

bool requests_outstanding(LDAPConn *conn) {
  ldap_msg_table *table = conn->lc_msgtable;
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) return true;
  const bool busy = (uint32_t)table->free_count != table->size;
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  return busy;
}

int start_tls_int(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls) {
  LDAPConn *conn = get_default_connection(ld);
  if (conn == nullptr) return LDAP_LOCAL_ERROR;
  if (ld->ld_ssl == 1 || conn->lc_sb.sb_ssl != nullptr) {
    ldap_set_errno_direct(ld, LDAP_LOCAL_ERROR, nullptr, "TLS is already in use on this connection");
    return LDAP_LOCAL_ERROR;
  }
  // The handshake needs the toolkit's environment (ldap_ssl_client_init).
  int rc = ldap_ssl_hold_env(ld);
  if (rc != LDAP_SUCCESS) {
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return rc;
  }
  // Requests of other threads on the connection would be answered in clear
  // or cut off by the handshake.
  if (conn_connected(conn) == 1 && requests_outstanding(conn)) {
    ldap_set_errno_direct(ld, LDAP_LOCAL_ERROR, nullptr, "StartTLS refused: requests are outstanding");
    return LDAP_LOCAL_ERROR;
  }
  rc = extended_s_int(ld, kStartTls, nullptr, sctrls, cctrls, nullptr, nullptr);
  // Refused by the server: the connection stays as it was, in clear, and the
  // caller has the server's code to decide on.
  if (rc != LDAP_SUCCESS) return rc;
  if (LDAP_MUTEX_LOCK(&conn->lc_write_mutex) != 0) return LDAP_LOCK_ERROR;
  LDAP_MUTEX_LOCK(&conn->lc_read_mutex);
  if (conn->lc_sb.sb_rpos < conn->lc_sb.sb_rlen) {
    // Bytes after the server's answer, before the handshake: not a server
    // that speaks StartTLS as the RFC says.
    rc = LDAP_PROTOCOL_ERROR;
  } else {
    rc = open_ssl_connection_to(ld, &conn->lc_sb, conn->lc_peer_name);
  }
  if (rc != LDAP_SUCCESS) {
    // Never left in clear after the client asked for TLS: the connection goes.
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_start_tls_s: handshake failed rc=%d, connection closed\n", rc);
    set_conn_closed(conn);
    close_connection(&conn->lc_sb);
  } else {
    __atomic_store_n(&conn->lc_starttls, 1, __ATOMIC_RELEASE);
  }
  LDAP_MUTEX_UNLOCK(&conn->lc_read_mutex);
  LDAP_MUTEX_UNLOCK(&conn->lc_write_mutex);
  ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  return rc;
}
}  // namespace

extern "C" {

int ldap_extended_operation(LDAP *ld, const char *oid, struct berval *data, LDAPControl **sctrls,
                            LDAPControl **cctrls, int *msgidp) {
  return bracketed(ld, "ldap_extended_operation",
                   [&] { return extended_int(ld, oid, data, sctrls, cctrls, msgidp); });
}

int ldap_extended_operation_s(LDAP *ld, const char *oid, struct berval *data, LDAPControl **sctrls,
                              LDAPControl **cctrls, char **retoidp, struct berval **retdatap) {
  return bracketed(ld, "ldap_extended_operation_s",
                   [&] { return extended_s_int(ld, oid, data, sctrls, cctrls, retoidp, retdatap); });
}

int ldap_whoami(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp) {
  return bracketed(ld, "ldap_whoami", [&] { return extended_int(ld, kWhoAmI, nullptr, sctrls, cctrls, msgidp); });
}

int ldap_parse_whoami(LDAP *ld, LDAPMessage *res, struct berval **authzid) {
  if (authzid != nullptr) *authzid = nullptr;
  return bracketed(ld, "ldap_parse_whoami", [&] {
    struct berval *data = nullptr;
    int rc = ldap_parse_extended_result_direct(ld, res, nullptr, &data, 0, nullptr);
    if (rc == LDAP_SUCCESS) rc = whoami_value(data, authzid);
    else fber_bvfree(data);
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return rc;
  });
}

int ldap_whoami_s(LDAP *ld, struct berval **authzid, LDAPControl **sctrls, LDAPControl **cctrls) {
  if (authzid != nullptr) *authzid = nullptr;
  return bracketed(ld, "ldap_whoami_s", [&] {
    struct berval *data = nullptr;
    int rc = extended_s_int(ld, kWhoAmI, nullptr, sctrls, cctrls, nullptr, &data);
    if (rc == LDAP_SUCCESS) rc = whoami_value(data, authzid);
    else fber_bvfree(data);
    return rc;
  });
}

int ldap_passwd(LDAP *ld, struct berval *user, struct berval *oldpw, struct berval *newpw, LDAPControl **sctrls,
                LDAPControl **cctrls, int *msgidp) {
  return bracketed(ld, "ldap_passwd", [&] {
    struct berval *value = nullptr;
    int rc = passwd_request(ld, user, oldpw, newpw, &value);
    if (rc == LDAP_SUCCESS) rc = extended_int(ld, kPasswdModify, value, sctrls, cctrls, msgidp);
    else ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    fber_bvfree(value);
    return rc;
  });
}

int ldap_parse_passwd(LDAP *ld, LDAPMessage *res, struct berval *newpasswd) {
  return bracketed(ld, "ldap_parse_passwd", [&] {
    struct berval *data = nullptr;
    int rc = ldap_parse_extended_result_direct(ld, res, nullptr, &data, 0, nullptr);
    if (rc == LDAP_SUCCESS) rc = passwd_value(data, newpasswd);
    fber_bvfree(data);
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return rc;
  });
}

int ldap_passwd_s(LDAP *ld, struct berval *user, struct berval *oldpw, struct berval *newpw, struct berval *newpasswd,
                  LDAPControl **sctrls, LDAPControl **cctrls) {
  if (newpasswd != nullptr) *newpasswd = {0, nullptr};
  return bracketed(ld, "ldap_passwd_s", [&] {
    struct berval *value = nullptr, *data = nullptr;
    int rc = passwd_request(ld, user, oldpw, newpw, &value);
    if (rc == LDAP_SUCCESS) rc = extended_s_int(ld, kPasswdModify, value, sctrls, cctrls, nullptr, &data);
    if (rc == LDAP_SUCCESS) rc = passwd_value(data, newpasswd);
    fber_bvfree(value);
    fber_bvfree(data);
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return rc;
  });
}

int ldap_start_tls_s(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls) {
  return bracketed(ld, "ldap_start_tls_s", [&] { return start_tls_int(ld, sctrls, cctrls); });
}
}
