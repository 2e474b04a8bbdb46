// Bind: simple and SASL, synchronous and asynchronous.
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-plugin.h"
#include "ldap-protocol.h"
#include "ldap-utils.h"

namespace {

using ldap_proto::kBindRequest;
constexpr int kSaslMethod = 2;

const char *current_error_text(LDAP *ld) { return ldap_err2string(ldap_get_errno_direct(ld)); }

// The steps every bind request shares: a message record, an ID, an element
// for the session, the protocol version, the caller's encoding, the send.
// `record_all` says whether failures after the record exists are written to
// the thread's error record (the SASL sender does, the simple one leaves
// that to the engine or the caller).
template <typename Encode>
int send_bind(LDAP *ld, LDAPConn *conn, int *msgidp, const char *who, bool record_all, Encode encode) {
  ldap_msg_table *table = conn->lc_msgtable;
  LDAPMessage *msg = ldap_msg_new(conn);
  if (msg == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "%s: returning rc=%d, error=LDAP_NO_MEMORY\n", who, LDAP_NO_MEMORY);
    ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
    return LDAP_NO_MEMORY;
  }
  int rc = LDAP_SUCCESS;
  bool stored = false;
  int id = ldap_msg_table_get_next_msgid(table);
  int version = LDAP_VERSION2;
  if (id < 0) {
    rc = LDAP_LOCAL_ERROR;
  } else {
    msg->lm_msgid = id;
    msg->lm_ber = ldap_alloc_ber_with_options(ld, 0);
    if (msg->lm_ber == nullptr)
      rc = LDAP_NO_MEMORY;
    else
      rc = ldap_get_option_direct(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc == LDAP_SUCCESS && encode(msg->lm_ber, id, version) != 0) rc = LDAP_ENCODING_ERROR;
    if (rc == LDAP_SUCCESS) {
      msg->lm_msgtype = kBindRequest;
      // A bind of the session's own changes who referral connections must be
      // bound as (a referral's re-bind goes to another connection).
      if (conn == ld->ld_defconn) __atomic_add_fetch(&ld->ld_bind_generation, 1, __ATOMIC_RELEASE);
      stored = true;  // from here the send frees the request on failure
      rc = ldap_msg_table_send_request(table, ld, msg);
    }
  }
  if (rc == LDAP_SUCCESS) {
    *msgidp = id;
    ldap_set_errno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    return LDAP_SUCCESS;
  }
  if (!stored) {
    free_msg(msg, 0);
    if (id >= 0) ldap_msg_table_release_msgid(table, id);
  }
  if (record_all) ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  if (ldap_trace_on()) ldap_log(LDAP_LOG_ERROR, "%s: returning rc=%d, error=%s\n", who, rc, current_error_text(ld));
  return rc;
}

bool is_external(const char *mech) { return mech != nullptr && strcasecmp(mech, "EXTERNAL") == 0; }

// EXTERNAL takes no credentials.  An empty credentials value is not refused:
// it is how a client sends the empty initial response that servers such as
// slapd expect, and without it they answer "SASL bind in progress" (14).
bool has_credentials(const struct berval *cred) { return cred != nullptr && cred->bv_len != 0; }

// Waits for the whole response of `id` and turns it into the result code.
int wait_simple(LDAP *ld, int id) {
  LDAPMessage *res = nullptr;
  if (ldap_result_int(ld, id, LDAP_MSG_ALL, nullptr, &res) <= 0) return ldap_get_errno_direct(ld);
  return ldap_result2error_direct(ld, res, 1);
}

}  // namespace

extern "C" {

int ldap_simple_bind_direct(LDAP *ld, const char *dn, const char *passwd, LDAPControl **sctrls, int *msgidp,
                            LDAPConn *conn) {
  LDAP_LOG(LDAP_LOG_TRACE,
           "ldap_simple_bind_direct: entering with ld(%x) dn(%s) pw(***) serverctrls(%x) clientctrls(%x) msgidp(*x) "
           "connection(%x)\n",
           (unsigned)(uintptr_t)ld, ldap_trace_str(dn, "NULL"), (unsigned)(uintptr_t)sctrls, 0u,
           (unsigned)(uintptr_t)conn);
  *msgidp = -1;
  if (conn == nullptr) conn = get_default_connection(ld);
  if (conn == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_simple_bind_direct: found NULL server\n");
    ldap_set_errno_direct(ld, LDAP_ENCODING_ERROR, nullptr, nullptr);
    return LDAP_ENCODING_ERROR;
  }
  if (conn->lc_msgtable == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_simple_bind_direct: returning rc=%d, error=LDAP_ENCODING_ERROR\n",
             LDAP_ENCODING_ERROR);
    ldap_set_errno_direct(ld, LDAP_ENCODING_ERROR, nullptr, nullptr);
    return LDAP_ENCODING_ERROR;
  }
  // What a reopened default connection repeats (LDAP_OPT_RECONNECT).
  if (conn == ld->ld_defconn) ldap_record_replay_bind(ld, LDAP_AUTH_SIMPLE, dn, passwd);
  return send_bind(ld, conn, msgidp, "ldap_simple_bind_direct", false, [&](BerElement *ber, int id, int version) {
    if (fber_printf(ber, "{it{ists}", id, (ber_tag_t)kBindRequest, version, dn ? dn : "", (ber_tag_t)LDAP_AUTH_SIMPLE,
                    passwd ? passwd : "") != 0)
      return -1;
    if (put_ctrls_into_ber(ber, sctrls) != 0) return -1;
    return fber_printf(ber, "}");
  });
}

int ldap_simple_bind(LDAP *ld, const char *dn, const char *passwd) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_simple_bind: ld(%p) dn(%s) pw(***)\n", (void *)ld, ldap_trace_str(dn, "NULL"));
  OperationScope bracket(ld);
  if (bracket.refused()) return -1;
  int id = -1;
  if (ldap_simple_bind_direct(ld, dn, passwd, nullptr, &id, nullptr) != 0) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_simple_bind: returning rc=-1\n");
    id = -1;
  }
  return id;
}

int ldap_simple_bind_s_int(LDAP *ld, const char *dn, const char *passwd) {
  int id = -1;
  int rc = ldap_simple_bind_direct(ld, dn, passwd, nullptr, &id, nullptr);
  if (rc == LDAP_SUCCESS) rc = wait_simple(ld, id);
  return rc;
}

int ldap_simple_bind_s(LDAP *ld, const char *dn, const char *passwd) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_simple_bind_s: ld(%p) dn(%s) pw(***)\n", (void *)ld, ldap_trace_str(dn, "NULL"));
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  const int rc = ldap_simple_bind_s_int(ld, dn, passwd);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_simple_bind_s: returning rc=%d\n", rc);
  return rc;
}

int ldap_bind(LDAP *ld, const char *dn, const char *cred, int method) {
  if (method != LDAP_AUTH_SIMPLE) {
    {
      OperationScope bracket(ld);
      if (!bracket.refused()) ldap_set_errno_direct(ld, LDAP_AUTH_UNKNOWN, nullptr, nullptr);
    }
    return -1;
  }
  return ldap_simple_bind(ld, dn, cred);
}

int ldap_bind_s(LDAP *ld, const char *dn, const char *cred, int method) {
  if (method != LDAP_AUTH_SIMPLE) {
    {
      OperationScope bracket(ld);
      if (!bracket.refused()) ldap_set_errno_direct(ld, LDAP_AUTH_UNKNOWN, nullptr, nullptr);
    }
    return LDAP_AUTH_UNKNOWN;
  }
  return ldap_simple_bind_s(ld, dn, cred);
}

int ldap_save_bind_info(LDAP *ld, int method, const char *mech, LDAPControl **sctrls, LDAPControl **cctrls,
                        const struct berval *cred) {
  if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  int rc = LDAP_SUCCESS;
  ld->ld_bind_method = method;
  char *mech_copy = olx_strdup(mech ? mech : "");
  if (mech_copy != nullptr) {
    free(ld->ld_bind_mech);
    ld->ld_bind_mech = mech_copy;
  } else {
    rc = LDAP_NO_MEMORY;
  }
  if (cred != nullptr) {
    if (ld->ld_bind_cred == nullptr)
      ld->ld_bind_cred = static_cast<struct berval *>(olx_calloc(1, sizeof(struct berval)));
    if (ld->ld_bind_cred == nullptr) {
      rc = LDAP_NO_MEMORY;
    } else {
      free(ld->ld_bind_cred->bv_val);
      ld->ld_bind_cred->bv_val = nullptr;
      ld->ld_bind_cred->bv_len = 0;
      const size_t n = cred->bv_val ? cred->bv_len : 0;
      char *bytes = static_cast<char *>(olx_malloc(n + 1));
      if (bytes == nullptr) {
        rc = LDAP_NO_MEMORY;
      } else {
        if (n) memcpy(bytes, cred->bv_val, n);
        bytes[n] = '\0';
        ld->ld_bind_cred->bv_val = bytes;
        ld->ld_bind_cred->bv_len = n;
      }
    }
  }
  LDAPControl **copy = nullptr;
  if (ldap_copy_controls(&copy, sctrls) == LDAP_SUCCESS) {
    ldap_controls_free(ld->ld_sctrls);
    ld->ld_sctrls = copy;
  }
  copy = nullptr;
  if (ldap_copy_controls(&copy, cctrls) == LDAP_SUCCESS) {
    ldap_controls_free(ld->ld_cctrls);
    ld->ld_cctrls = copy;
  }
  LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
  return rc;
}

int ldap_sasl_bind_encode_and_send(LDAP *ld, const char *dn, const char *mech, const struct berval *cred,
                                   LDAPControl **sctrls, LDAPControl **, int *msgidp, LDAPConn *conn) {
  *msgidp = -1;
  if (conn == nullptr) conn = get_default_connection(ld);
  if (conn == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_sasl_bind_encode_and_send: NULL server connection\n");
    ldap_set_errno_direct(ld, LDAP_ENCODING_ERROR, nullptr, nullptr);
    return LDAP_ENCODING_ERROR;
  }
  if (conn->lc_msgtable == nullptr) return LDAP_ENCODING_ERROR;
  return send_bind(ld, conn, msgidp, "ldap_sasl_bind_encode_and_send", true, [&](BerElement *ber, int id, int version) {
    if (fber_printf(ber, "{it{ist{s", id, (ber_tag_t)kBindRequest, version, dn ? dn : "", ldap_proto::kSaslAuth,
                    mech ? mech : "") != 0)
      return -1;
    if (cred != nullptr &&
        fber_printf(ber, "o", cred->bv_val ? cred->bv_val : "", (int)(cred->bv_val ? cred->bv_len : 0)) != 0)
      return -1;
    if (fber_printf(ber, "}}") != 0) return -1;
    if (put_ctrls_into_ber(ber, sctrls) != 0) return -1;
    return fber_printf(ber, "}");
  });
}

int ldap_sasl_bind_direct(LDAP *ld, const char *dn, const char *mech, const struct berval *cred, LDAPControl **sctrls,
                          int *msgidp, LDAPConn *conn) {
  *msgidp = -1;
  int xlate = 0;
  int rc = ldap_get_option_direct(ld, LDAP_OPT_XLATE, &xlate);
  if (rc != LDAP_SUCCESS) return rc;
  if (mech == nullptr || *mech == '\0') {
    // A simple bind carrying the credentials' bytes (up to a zero byte) as password.
    char *password = nullptr;
    if (cred != nullptr && cred->bv_val != nullptr) {
      password = olx_strndup(cred->bv_val, cred->bv_len);
      if (password == nullptr) {
        ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
        return LDAP_NO_MEMORY;
      }
    }
    rc = ldap_simple_bind_direct(ld, dn, password, sctrls, msgidp, conn);
    free(password);
    return rc;
  }
  if (is_external(mech)) {
    if (has_credentials(cred)) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_sasl_bind_direct: credentials given for external bind\n");
      ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
      return LDAP_PARAM_ERROR;
    }
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_sasl_bind_direct: got mechanism %s\n", mech);
    return ldap_sasl_bind_encode_and_send(ld, dn, mech, cred, sctrls, nullptr, msgidp, conn);
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_sasl_bind_direct: got mechanism %s\n", mech);
  return LDAP_PARAM_ERROR;
}

int ldap_sasl_bind_call_plugin(LDAP *ld, const char *dn, const char *mech, const struct berval *cred,
                               LDAPControl **sctrls, LDAPControl **cctrls, struct berval **, int, int async,
                               int *msgidp) {
  LDAPConn *conn = get_default_connection(ld);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_sasl_bind_call_plugin \n");
  ldap_plugin_entry *plugin = nullptr;
  int rc = ldap_plugin_for_sasl(mech, &plugin);
  if (rc == LDAP_SUCCESS && plugin->bind_fn == nullptr) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_sasl_bind_call_plugin: %s bind function not defined in plugin\n",
             async ? "Asynchronous" : "Synchronous");
    rc = LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
  }
  if (rc != LDAP_SUCCESS) {
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return rc;
  }
  char *argv[LDAP_PLUGIN_MAX_ARGS + 1];
  int argc = 0;
  rc = ldap_split_args(plugin->args, LDAP_PLUGIN_MAX_ARGS, &argc, argv) == LDAP_NO_MEMORY ? LDAP_NO_MEMORY : 0;
  LDAP_PBLOCK *pb = rc == LDAP_SUCCESS ? ldap_pblock_new() : nullptr;
  if (rc == LDAP_SUCCESS && pb == nullptr) rc = LDAP_NO_MEMORY;
  // The connection is named by the session's host list again (writing only
  // when it differs, as other threads read it unlocked).
  if (rc == LDAP_SUCCESS && conn != nullptr && conn->lc_host != nullptr && ld->ld_defhost != nullptr &&
      strcmp(conn->lc_host, ld->ld_defhost) != 0) {
    char *host = olx_strdup(ld->ld_defhost);
    if (host == nullptr) {
      rc = LDAP_NO_MEMORY;
    } else {
      LDAP_LOCK_GUARD(guard, &ld->ld_conn_mutex);
      free(conn->lc_host);
      conn->lc_host = host;
    }
  }
  const bool gssapi = strcasecmp(mech, "GSSAPI") == 0;
  auto set = [&](int id, const void *value) {
    if (rc == LDAP_SUCCESS && ldap_pblock_set(pb, id, const_cast<void *>(value)) != 0) rc = 1;
  };
  set(LDAP_PLUGIN_TYPE, plugin->type);
  if (rc == LDAP_SUCCESS && gssapi && plugin->init_fn(pb) != 0) rc = LDAP_PLUGIN_NOT_INITIALIZED;
  set(LDAP_PLUGIN_LD, ld);
  set(LDAP_PLUGIN_ARGC, reinterpret_cast<void *>(static_cast<intptr_t>(argc)));
  set(LDAP_PLUGIN_ARGV, argv);
  if (!gssapi) set(LDAP_PLUGIN_SASL_BIND_DN, dn);
  set(LDAP_PLUGIN_SASL_MECH, mech);
  set(LDAP_PLUGIN_SASL_CRED, cred);
  set(LDAP_PLUGIN_SERVER_CTRLS, sctrls);
  set(LDAP_PLUGIN_CLIENT_CTRLS, cctrls);
  set(LDAP_PLUGIN_DEFHOST, ld->ld_defhost);
  // Whether the bind goes out over SSL (a session made secure opens its
  // connection so even when it is not open yet): plug-ins refuse to send
  // clear-text passwords otherwise.
  const bool secure = ld->ld_ssl == 1 || (conn != nullptr && conn->lc_sb.sb_ssl != nullptr);
  set(LDAP_PLUGIN_SSL_ACTIVE, reinterpret_cast<void *>(static_cast<intptr_t>(secure ? 1 : 0)));
  if (gssapi) {
    set(LDAP_PLUGIN_OPTION54, reinterpret_cast<void *>(static_cast<intptr_t>(ld->ld_option54)));
    set(LDAP_PLUGIN_STATUS, &ld->ld_plugin_status);
  }
  if (rc == LDAP_SUCCESS) {
    rc = plugin->bind_fn(pb);
    if (async && rc >= 0) {
      *msgidp = rc;
      rc = LDAP_SUCCESS;
    } else if (gssapi && (async || rc >= 1) && static_cast<unsigned>(ld->ld_plugin_status) > 1) {
      void *ext = nullptr;
      if (ldap_pblock_get(pb, LDAP_PLUGIN_EXT_ERROR, &ext) == 0)
        ldap_set_ext_errno(ld, static_cast<int>(reinterpret_cast<intptr_t>(ext)));
    }
  }
  // The block outlives the bind on the connection (the close function gets
  // it at tear-down); it is published only now, so a bind running at the
  // same time never loses the block it is working with.
  if (pb != nullptr) {
    // What pointed into this call is gone after it.
    for (ldap_pblock_pair *p = pb->head; p != nullptr; p = p->next)
      if (p->id == LDAP_PLUGIN_ARGV || p->id == LDAP_PLUGIN_ARGC || p->id / 100 == 2) p->value = nullptr;
    if (conn != nullptr) {
      LDAP_LOCK_GUARD(guard, &ld->ld_conn_mutex);
      void *previous = conn->lc_plugin;
      conn->lc_plugin = pb;
      pb = static_cast<LDAP_PBLOCK *>(previous);
    }
    ldap_pblock_free(pb);
  }
  if (argc > 0) free(argv[0]);
  ldap_set_errno_direct(ld, rc, nullptr, nullptr);
  return rc;
}

int ldap_sasl_bind_int(LDAP *ld, const char *dn, const char *mech, const struct berval *cred, LDAPControl **sctrls,
                       LDAPControl **cctrls, struct berval **servercredp, int async, int *msgidp) {
  if (async) {
    if (msgidp == nullptr) {
      ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
      return LDAP_PARAM_ERROR;
    }
    *msgidp = -1;
  }
  int xlate = 0;
  int rc = ldap_get_option_direct(ld, LDAP_OPT_XLATE, &xlate);
  if (rc != LDAP_SUCCESS) return rc;
  int id = -1;
  if (mech == nullptr || *mech == '\0') {
    rc = ldap_sasl_bind_direct(ld, dn, "", cred, sctrls, &id, nullptr);
  } else {
    // What a reopened default connection repeats (LDAP_OPT_RECONNECT).
    const bool on_default = get_default_connection(ld) == ld->ld_defconn;
    if (is_external(mech)) {
      if (dn != nullptr || has_credentials(cred)) {
        ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
        return LDAP_PARAM_ERROR;
      }
      ldap_save_bind_info(ld, kSaslMethod, "EXTERNAL", sctrls, cctrls, nullptr);
      if (on_default) ldap_record_replay_bind(ld, LDAP_AUTH_SASL, nullptr, nullptr);
    } else {
      ldap_save_bind_info(ld, kSaslMethod, mech, sctrls, cctrls, cred);
      if (on_default) ldap_record_replay_bind(ld, LDAP_AUTH_SASL, dn, nullptr);
      if (!async) {
        rc = ldap_sasl_bind_call_plugin(ld, dn, mech, cred, sctrls, cctrls, servercredp, xlate, 0, &id);
        if (rc != LDAP_UNAVAILABLE_CRITICAL_EXTENSION && rc != LDAP_PLUGIN_CONF_NOT_OPENED) {
          ldap_set_errno_direct(ld, rc, nullptr, nullptr);
          return rc;
        }
        LDAP_LOG(LDAP_LOG_TRACE, "ldap_sasl_bind_int: ldap_sasl_bind_call_plugin() returns rc = %d\n", rc);
        LDAP_LOG(LDAP_LOG_TRACE, "ldap_sasl_bind_int: Attempting to bind with ldap_sasl_bind_s_direct() instead\n");
      }
    }
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_sasl_bind_int: Sending %s Bind request\n", mech);
    rc = ldap_sasl_bind_encode_and_send(ld, dn, mech, cred, sctrls, cctrls, &id, nullptr);
  }
  if (rc != LDAP_SUCCESS) {
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return rc;
  }
  if (async) {
    *msgidp = id;
    return LDAP_SUCCESS;
  }
  LDAPMessage *res = nullptr;
  if (ldap_result_int(ld, id, LDAP_MSG_ALL, nullptr, &res) <= 0) return ldap_get_errno_direct(ld);
  LDAPControl **ctrls = nullptr;
  int prc = ldap_parse_result_direct(ld, res, nullptr, nullptr, nullptr, nullptr, &ctrls, 0);
  if (prc != LDAP_SUCCESS) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_sasl_bind_s_int: couldn't parse result for controls. rc = %d\n", prc);
    ctrls = nullptr;
  }
  ldap_set_bind_controls(ld, ctrls);
  ldap_controls_free(ctrls);
  return ldap_parse_sasl_bind_result_direct(ld, res, servercredp, 1);
}

int ldap_sasl_bind(LDAP *ld, const char *dn, const char *mech, const struct berval *cred, LDAPControl **sctrls,
                   LDAPControl **cctrls, int *msgidp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_sasl_bind: ld(%p) dn(%s) mechanism(%s) cred(***)\n", (void *)ld,
           ldap_trace_str(dn, "NULL"), ldap_trace_str(mech, "NULL"));
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  int rc;
  if (msgidp == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_sasl_bind: bad parameters ld(%x) msgidp(%x)\n", (unsigned)(uintptr_t)ld, 0u);
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    rc = LDAP_PARAM_ERROR;
  } else {
    *msgidp = -1;
    int substituted = 0;
    rc = ldap_apply_default_controls(ld, &sctrls, cctrls, &substituted);
    if (rc == LDAP_SUCCESS) rc = ldap_sasl_bind_int(ld, dn, mech, cred, sctrls, cctrls, nullptr, 1, msgidp);
    if (substituted) ldap_controls_free(sctrls);
  }
  return rc;
}

int ldap_sasl_bind_s(LDAP *ld, const char *dn, const char *mech, const struct berval *cred, LDAPControl **sctrls,
                     LDAPControl **cctrls, struct berval **servercredp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_sasl_bind_s: ld(%p) dn(%s) mechanism(%s) cred(***)\n", (void *)ld,
           ldap_trace_str(dn, "NULL"), ldap_trace_str(mech, "NULL"));
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  int rc = ldap_sasl_bind_int(ld, dn, mech, cred, sctrls, cctrls, servercredp, 0, nullptr);
  return rc;
}

int ldap_sasl_bind_s_direct(LDAP *ld, const char *dn, const char *mech, const struct berval *cred, LDAPControl **sctrls,
                            LDAPControl **cctrls, struct berval **servercredp) {
  int id = -1;
  int rc = ldap_sasl_bind_encode_and_send(ld, dn, mech, cred, sctrls, cctrls, &id, nullptr);
  if (rc != LDAP_SUCCESS) return rc;
  LDAPMessage *res = nullptr;
  if (ldap_result_int(ld, id, LDAP_MSG_ALL, nullptr, &res) <= 0) return ldap_get_errno_direct(ld);
  return ldap_parse_sasl_bind_result_direct(ld, res, servercredp, 1);
}
}
