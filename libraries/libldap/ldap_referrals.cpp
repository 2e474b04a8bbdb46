// Referral chasing: a referral or search reference makes the library resend
// the request to the server it names and feed that server's answers back into
// the row of the original request, as if the first server had answered.
#include <pthread.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-lock.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"

namespace {

using ldap_proto::kSearchDone;
using ldap_proto::kSearchReference;
constexpr const char kPagedResultsOid[] = "1.2.840.113556.1.4.319";

struct BerDeleter {
  void operator()(BerElement *b) const { fber_free(b); }
};
using BerPtr = std::unique_ptr<BerElement, BerDeleter>;

struct ConnRelease {
  LDAP *ld;
  void operator()(LDAPConn *conn) const { ldap_conn_release(ld, conn, 1); }
};

ldap_msg_table *table_of(const LDAPMessage *msg) {
  return msg != nullptr && msg->lm_conn != nullptr ? msg->lm_conn->lc_msgtable : nullptr;
}

// A reading element over everything an encoding element holds, with the
// session's translation settings, so the old request reads as it was written.
BerElement *read_whole(const BerElement *written) {
  BerElement view = *written;
  view.ber_end = written->ber_ptr;
  view.ber_ptr = written->ber_buf;
  return ldap_ber_dup(&view);
}

// Copies the next element of `from` into `to` byte for byte.
int copy_element(BerElement *from, BerElement *to) {
  const char *start = from->ber_ptr;
  if (fber_skip_element(from) != 0) return -1;
  return fber_write(to, start, (ber_len_t)(from->ber_ptr - start)) < 0 ? -1 : 0;
}

const char *scope_name(int scope) {
  switch (scope) {
    case -1:
      return "NONE";
    case 0:
      return "BASE";
    case 1:
      return "ONE";
    case 2:
      return "SUB";
    default:
      return "invalid scope";
  }
}

LDAPMessage *new_result(LDAPConn *conn, int msgid, int type, int code, const char *text) {
  BerElement *ber = ldap_build_result_ber(code, nullptr, text, msgid, type);
  if (ber == nullptr) return nullptr;
  LDAPMessage *msg = ldap_msg_new(conn);
  if (msg == nullptr) {
    fber_free(ber);
    return nullptr;
  }
  msg->lm_msgid = msgid;
  msg->lm_msgtype = type;
  msg->lm_ber = ber;
  return msg;
}

// URLs that found their server down at the re-bind are not tried again in the
// same chase: a server that accepts connections and fails every bind would
// otherwise be tried for ever.
LDAPConn *referral_connection(LDAP *ld, char **urls, LDAPURLDesc **lud, int *err, std::vector<bool> *down) {
  *lud = nullptr;
  for (size_t i = 0; urls != nullptr && urls[i] != nullptr; ++i) {
    if (down != nullptr && i < down->size() && (*down)[i]) continue;
    LDAP_LOG(LDAP_LOG_TRACE, "get_referral_connection: parsing %s\n", urls[i]);
    LDAPURLDesc *parsed = nullptr;
    const int prc = ldap_url_parse_internal(urls[i], &parsed);
    if (prc != 0) {
      LDAP_LOG(LDAP_LOG_ERROR, "chase_v3_referrals error parsing referral: %d - %s\n", prc, ldap_err2string(prc));
      if (prc == LDAP_URL_ERR_MEM) {
        LDAP_LOG(LDAP_LOG_ERROR, "get_referral_connection: memory error\n");
        ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
        *err = LDAP_NO_MEMORY;
        return nullptr;
      }
      continue;
    }
    int secure = 0;
    if (ldap_url_server_allowed(ld, parsed, &secure, "get_referral_connection") != 0) {
      ldap_free_urldesc(parsed);
      continue;
    }
    int rc = 0;
    LDAPConn *conn = ldap_get_connection_for_url(ld, parsed->lud_host, parsed->lud_port, secure, &rc, 0);
    if (conn != nullptr) {
      if (down != nullptr) {
        if (down->size() <= i) down->resize(i + 1, false);
        (*down)[i] = true;  // not tried again if its server turns out to be down
      }
      *lud = parsed;
      return conn;
    }
    ldap_free_urldesc(parsed);
    if (rc == LDAP_NO_MEMORY) {
      LDAP_LOG(LDAP_LOG_ERROR, "get_referral_connection: memory error 2\n");
      *err = LDAP_NO_MEMORY;
      return nullptr;
    }
    // A server whose SSL handshake failed (a certificate for another host,
    // say) is one that cannot be reached: the next URL is tried.
    const bool unreachable = rc == LDAP_SERVER_DOWN || rc == LDAP_SSL_HANDSHAKE_FAILED;
    if (rc != 0 && !unreachable) {
      LDAP_LOG(LDAP_LOG_ERROR, "get_referral_connection: unknown err %d\n", rc);
      *err = LDAP_OTHER;
      return nullptr;
    }
    ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  }
  LDAP_LOG(LDAP_LOG_ERROR, "get_referral_connection: No valid connection found\n");
  ldap_set_errno_direct(ld, LDAP_SERVER_DOWN, nullptr, nullptr);
  *err = LDAP_SERVER_DOWN;
  return nullptr;
}

}  // namespace

extern "C" {

int ldap_url_server_allowed(LDAP *ld, const LDAPURLDesc *lud, int *secure, const char *who) {
  // A server names hosts, never files here: a host that decodes to a path
  // would be a local socket of this machine.
  if (lud->lud_host != nullptr && lud->lud_host[0] == '/') {
    LDAP_LOG(LDAP_LOG_ERROR, "%s: %s names a local socket: not followed\n", who, lud->lud_host);
    return LDAP_PARAM_ERROR;
  }
  // An ldaps URL keeps its scheme: over SSL or not at all.
  *secure = lud->lud_scheme != nullptr && strcasecmp(lud->lud_scheme, "ldaps") == 0 ? 1 : 0;
  if (*secure == 1 && ldap_ssl_hold_env(ld) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "%s: an ldaps URL needs SSL, which is not initialised: not followed\n", who);
    return LDAP_SSL_NOT_AVAILABLE;
  }
  return 0;
}

int ldap_request_to_response_tag(int tag) {
  // Bind and extended requests keep their own tag here, as does anything
  // without a response.
  if (tag == ldap_proto::kBindRequest || tag == ldap_proto::kExtendedRequest) return tag;
  const int response = ldap_proto::final_response_for(tag);
  return response != 0 ? response : tag;
}

BerElement *ldap_build_result_ber(int code, const char *matched, const char *text, int msgid, int type) {
  BerPtr out(fber_alloc());
  if (!out ||
      fber_printf(out.get(), "{it{ess}}", msgid, (ber_tag_t)type, code, matched ? matched : "", text ? text : "") != 0)
    return nullptr;
  struct berval bytes = {(ber_len_t)(out->ber_ptr - out->ber_buf), out->ber_buf};
  BerElement *reading = fber_init2(&bytes);
  int id = 0;
  // Positioned after the message ID, as the reader leaves a received message.
  if (reading != nullptr && fber_scanf(reading, "{i", &id) == LBER_ERROR) {
    fber_free(reading);
    return nullptr;
  }
  return reading;
}

int get_return_error_msg(LDAPMessage *carrier, int code, const char *text, LDAPMessage **out) {
  LDAP_LOG(LDAP_LOG_TRACE, "get_return_error_msg: msg(%p), err(%d), err_msg(%p), rc_msg(%p)\n", (void *)carrier, code,
           (const void *)text, (void *)out);
  *out = nullptr;
  if (code == LDAP_NO_MEMORY) return LDAP_NO_MEMORY;
  *out = new_result(carrier->lm_conn, carrier->lm_msgid, ldap_request_to_response_tag(carrier->lm_msgtype), code, text);
  return *out == nullptr ? LDAP_NO_MEMORY : code;
}

int append_referral(char **text, const char *url) {
  LDAP_LOG(LDAP_LOG_TRACE, "append_referral: append_this(%s)\n", ldap_trace_str(url, "<NULL>"));
  const bool blank = url == nullptr || *url == '\0';
  const size_t old_len = *text != nullptr ? strlen(*text) : 0;
  const char *head = *text == nullptr ? "Referral:\n" : "";
  const size_t add = strlen(head) + (blank ? 1 : strlen(url) + 1);
  auto *grown = static_cast<char *>(olx_malloc(old_len + add + 1));
  if (grown == nullptr) return LDAP_NO_MEMORY;
  if (old_len) memcpy(grown, *text, old_len);
  char *p = grown + old_len;
  p = stpcpy(p, head);
  if (blank) {
    strcpy(p, " ");
  } else {
    p = stpcpy(p, url);
    strcpy(p, "\n");
  }
  free(*text);
  *text = grown;
  return 0;
}

void ldap_referral_find_root(ldap_msg_table **table, int *msgid) {
  if (LDAP_MUTEX_LOCK(&(*table)->table_mutex) != 0) return;
  for (;;) {
    ldap_msg_row *row = &(*table)->rows[*msgid];
    if (row->parent_link == nullptr) return;
    ldap_msg_table *up = row->parent_link->rl_table;
    const int up_id = row->parent_link->rl_msgid;
    LDAP_MUTEX_UNLOCK(&(*table)->table_mutex);
    *table = up;
    *msgid = up_id;
    if (LDAP_MUTEX_LOCK(&(*table)->table_mutex) != 0) return;
  }
}

int ldap_referral_record_failure(LDAP *, ldap_msg_table *table, int msgid, const char *url, int) {
  ldap_referral_find_root(&table, &msgid);
  const int rc = append_referral(&table->rows[msgid].ref_text, url);
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  return rc;
}

int ldap_referral_final_result(LDAP *ld, LDAPMessage *msg, LDAPMessage **out) {
  *out = msg;
  ldap_msg_table *table = table_of(msg);
  if (table == nullptr) return 0;
  if (LDAP_MUTEX_LOCK(&table->table_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  int rc = 0;
  ldap_msg_row *row = &table->rows[msg->lm_msgid];
  if (row->parent_link == nullptr && (row->ref_text != nullptr || row->held_result != nullptr)) {
    LDAPMessage *final_msg = row->held_result;
    if (row->ref_text != nullptr) {
      const int type = ldap_request_to_response_tag(row->request ? row->request->lm_msgtype : msg->lm_msgtype);
      final_msg = new_result(msg->lm_conn, msg->lm_msgid, type, 0, row->ref_text);
      free_msg(row->held_result, 1);
      if (final_msg == nullptr) {
        ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
        rc = LDAP_NO_MEMORY;
        *out = nullptr;
      }
    }
    row->held_result = nullptr;
    free(row->ref_text);
    row->ref_text = nullptr;
    if (final_msg != nullptr) {
      // The stand-in replaces the server's own final result: a chain has one.
      ldap_msg_row_link_before(row, final_msg, msg);
      ldap_msg_row_unlink(row, msg);
      free_msg(msg, 0);
      *out = final_msg;
    }
  }
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
  return rc;
}

void ldap_referral_hold_child_result(LDAPMessage **msg) {
  LDAPMessage *done = *msg;
  *msg = nullptr;
  int code = 0;
  {
    BerElement view;
    BerPtr copy(ldap_ber_dup(ldap_msg_ber(done, &view)));
    if (!copy || fber_scanf(copy.get(), "{i", &code) == LBER_ERROR) code = 0;
  }
  ldap_msg_table *table = table_of(done);
  int id = done->lm_msgid;
  if (code == 0 || table == nullptr) {
    free_msg(done, 0);
    return;
  }
  ldap_referral_find_root(&table, &id);
  ldap_msg_row *root = &table->rows[id];
  done->lm_chain = done->lm_prev = nullptr;
  if (root->held_result == nullptr)
    root->held_result = done;
  else
    free_msg(done, 0);
  LDAP_MUTEX_UNLOCK(&table->table_mutex);
}

void ldap_referral_discard_msg(LDAPMessage *msg) {
  ldap_msg_table *table = table_of(msg);
  if (table != nullptr && LDAP_MUTEX_LOCK(&table->table_mutex) == 0) {
    if (msg->lm_msgid >= 0 && (uint32_t)msg->lm_msgid < table->size)
      ldap_msg_row_unlink(&table->rows[msg->lm_msgid], msg);
    LDAP_MUTEX_UNLOCK(&table->table_mutex);
  }
  free_msg(msg, 0);
}

int ldap_referral_copy_controls(BerElement *to, BerElement *from) {
  LDAPControl **ctrls = nullptr;
  if (get_ctrls_from_ber(from, &ctrls) != 0) return LDAP_ENCODING_ERROR;
  for (size_t i = 0; ctrls != nullptr && ctrls[i] != nullptr; ++i) {
    if (strcmp(ctrls[i]->ldctl_oid, kPagedResultsOid) != 0) continue;
    // Paging state belongs to the first server's result set.
    ldap_control_free(ctrls[i]);
    for (size_t j = i; ctrls[j] != nullptr; ++j) ctrls[j] = ctrls[j + 1];
    break;
  }
  const int rc = put_ctrls_into_ber(to, ctrls) != 0 ? LDAP_ENCODING_ERROR : 0;
  ldap_controls_free(ctrls);
  return rc;
}

BerElement *re_encode_request(LDAP *ld, BerElement *ber, int newid, LDAPURLDesc *lud) {
  LDAP_LOG(LDAP_LOG_ERROR, "re_encode_request: new msgid %d, new dn <%s>, new scope <%s>, new filter <%s>\n", newid,
           lud->lud_dn ? lud->lud_dn : "NONE", scope_name(lud->lud_scope), lud->lud_filter ? lud->lud_filter : "NONE");
  BerPtr old(read_whole(ber));
  BerPtr out(ldap_alloc_ber_with_options(ld, 0));
  if (!old || !out) return nullptr;
  auto fail = [&](int code) -> BerElement * {
    ldap_set_errno_direct(ld, code, nullptr, nullptr);
    return nullptr;
  };
  int oldid = 0, tag = 0, version = 0;
  char *dn_raw = nullptr;
  ber_tag_t got;
  if (fber_scanf(old.get(), "{it", &oldid, &tag) == LBER_ERROR) return fail(LDAP_DECODING_ERROR);
  if (tag == ldap_proto::kBindRequest)
    got = fber_scanf(old.get(), "{ia", &version, &dn_raw);
  else if (tag == ldap_proto::kDeleteRequest)
    got = fber_scanf(old.get(), "a", &dn_raw);
  else
    got = fber_scanf(old.get(), "{a", &dn_raw);
  ldap_unique_str old_dn(dn_raw);
  if (got == LBER_ERROR) return fail(LDAP_DECODING_ERROR);
  if (lud->lud_dn == nullptr) lud->lud_dn = old_dn.release();
  const char *dn = lud->lud_dn != nullptr ? lud->lud_dn : "";
  BerElement *b = out.get();
  switch (tag) {
    case ldap_proto::kDeleteRequest:
      if (fber_printf(b, "{its", newid, (ber_tag_t)tag, dn) != 0) return fail(LDAP_ENCODING_ERROR);
      break;
    case ldap_proto::kSearchRequest: {
      int scope = 0, deref = 0, size = 0, time = 0, attrsonly = 0;
      if (fber_scanf(old.get(), "eiiii", &scope, &deref, &size, &time, &attrsonly) == LBER_ERROR)
        return fail(LDAP_DECODING_ERROR);
      if (fber_printf(b, "{it{seeiib", newid, (ber_tag_t)tag, dn, lud->lud_scope != -1 ? lud->lud_scope : scope, deref,
                      size, time, attrsonly) != 0)
        return fail(LDAP_ENCODING_ERROR);
      if (lud->lud_filter != nullptr) {
        if (fber_skip_element(old.get()) != 0) return fail(LDAP_DECODING_ERROR);
        if (put_filter(b, lud->lud_filter, 0) != 0) return fail(LDAP_FILTER_ERROR);
      } else if (copy_element(old.get(), b) != 0) {
        return fail(LDAP_DECODING_ERROR);
      }
      char **attrs = nullptr;
      if (fber_scanf(old.get(), "{v}", &attrs) == LBER_ERROR) return fail(LDAP_DECODING_ERROR);
      const int wrc = fber_printf(b, "{v}}", attrs);
      fber_svecfree(attrs);
      if (wrc != 0) return fail(LDAP_ENCODING_ERROR);
      break;
    }
    case ldap_proto::kModifyRequest:
    case ldap_proto::kAddRequest:
    case ldap_proto::kCompareRequest:
      if (fber_printf(b, "{it{s", newid, (ber_tag_t)tag, dn) != 0) return fail(LDAP_ENCODING_ERROR);
      if (copy_element(old.get(), b) != 0) return fail(LDAP_DECODING_ERROR);
      if (fber_printf(b, "}") != 0) return fail(LDAP_ENCODING_ERROR);
      break;
    case ldap_proto::kModDNRequest: {
      char *rdn_raw = nullptr;
      int deleteold = 0;
      got = fber_scanf(old.get(), "ai", &rdn_raw, &deleteold);
      ldap_unique_str rdn(rdn_raw);
      if (got == LBER_ERROR) return fail(LDAP_DECODING_ERROR);
      if (fber_printf(b, "{it{ssb", newid, (ber_tag_t)tag, dn, rdn.get(), deleteold) != 0)
        return fail(LDAP_ENCODING_ERROR);
      ber_len_t len = 0;
      if (old->ber_ptr < old->ber_end && fber_peek_tag(old.get(), &len) == ldap_proto::kNewSuperior) {
        int sup_tag = 0;
        char *sup_raw = nullptr;
        got = fber_scanf(old.get(), "ta", &sup_tag, &sup_raw);
        ldap_unique_str sup(sup_raw);
        if (got == LBER_ERROR) return fail(LDAP_DECODING_ERROR);
        if (fber_printf(b, "ts", (ber_tag_t)sup_tag, sup.get()) != 0) return fail(LDAP_ENCODING_ERROR);
      }
      if (fber_printf(b, "}") != 0) return fail(LDAP_ENCODING_ERROR);
      break;
    }
    default:
      LDAP_LOG(LDAP_LOG_ERROR, "re_encode_request: Uknown request to encode, tag = %d\n", tag);
      return fail(LDAP_OTHER);
  }
  // Controls follow the operation: skip to its end first.
  const int crc = ldap_referral_copy_controls(b, old.get());
  if (crc != 0) return fail(crc);
  if (fber_printf(b, "}") != 0) return fail(LDAP_ENCODING_ERROR);
  return out.release();
}

int set_parent_child_pointers(LDAPMessage *msg, ldap_msg_table *ctable, int cid) {
  LDAP_LOG(LDAP_LOG_TRACE, "set_parent_child_pointers\n");
  ldap_msg_table *ptable = table_of(msg);
  auto *child = static_cast<ldap_referral_link *>(olx_calloc(1, sizeof(ldap_referral_link)));
  auto *parent = static_cast<ldap_referral_link *>(olx_calloc(1, sizeof(ldap_referral_link)));
  if (child == nullptr || parent == nullptr || ptable == nullptr) {
    free(child);
    free(parent);
    return LDAP_NO_MEMORY;
  }
  *child = {ctable, cid, msg, 0, nullptr};
  *parent = {ptable, msg->lm_msgid, nullptr, 0, nullptr};
  if (LDAP_MUTEX_LOCK(&ptable->table_mutex) != 0) {
    free(child);
    free(parent);
    return LDAP_LOCK_ERROR;
  }
  ldap_msg_row *prow = &ptable->rows[msg->lm_msgid];
  prow->child_link = child;
  const int hops = prow->refhops;
  LDAP_MUTEX_UNLOCK(&ptable->table_mutex);
  if (LDAP_MUTEX_LOCK(&ctable->table_mutex) != 0) {
    if (LDAP_MUTEX_LOCK(&ptable->table_mutex) == 0) {
      ptable->rows[msg->lm_msgid].child_link = nullptr;
      LDAP_MUTEX_UNLOCK(&ptable->table_mutex);
    }
    free(child);
    free(parent);
    return LDAP_LOCK_ERROR;
  }
  ldap_msg_row *crow = &ctable->rows[cid];
  crow->parent_link = parent;
  crow->refhops = hops - 1;
  crow->flags |= LDAP_ROW_REF_FIXED | LDAP_ROW_CHASE;
  LDAP_MUTEX_UNLOCK(&ctable->table_mutex);
  return 0;
}

int send_referral_bind_request(LDAP *ld, ldap_msg_table *table) {
  LDAP_REBINDPROC_CALLBACK *rebind = nullptr;
  int version = 0, rc;
  if ((rc = ldap_get_option_direct(ld, LDAP_OPT_REBIND_FN, &rebind)) != 0 ||
      (rc = ldap_get_option_direct(ld, LDAP_OPT_PROTOCOL_VERSION, &version)) != 0)
    return rc;
  char *dn = nullptr, *pw = nullptr;
  int method = LDAP_AUTH_SIMPLE;
  if (rebind != nullptr) {
    if ((rc = rebind(ld, &dn, &pw, &method, 0)) != 0) {
      ldap_set_errno_direct(ld, rc, nullptr, nullptr);
      return rc;
    }
  } else if (version >= LDAP_VERSION3 && table->conn->lc_rebound == 0) {
    LDAP_LOG(LDAP_LOG_TRACE,
             "send_referral_bind_request: no rebind proc specified. Anonymous bind is implicit for LDAPV3\n");
    return 0;
  }
  // (A connection bound before, for an identity the session has since left,
  // is bound anonymously rather than left as it was.)
  rc = 0;
  // The session's SASL bind goes to a referred server only when the rebind
  // procedure asks for it; otherwise its own DN and password are used.
  const bool want_sasl = rebind != nullptr && method == LDAP_AUTH_SASL;
  const bool anonymous =
      !want_sasl && method == LDAP_AUTH_SIMPLE && (dn == nullptr || *dn == '\0') && (pw == nullptr || *pw == '\0');
  // Credentials never travel over a weaker channel than the session's own.
  LDAPConn *target = table->conn;
  const bool weaker = ld->ld_defconn->lc_sb.sb_ssl != nullptr && target->lc_sb.sb_ssl == nullptr;
  if (weaker && !anonymous) {
    LDAP_LOG(LDAP_LOG_ERROR, "send_referral_bind_request: %s is not secure: bind suppressed\n",
             target->lc_peer_name != nullptr ? target->lc_peer_name : "the referred server");
  } else if (version >= LDAP_VERSION3 && anonymous && target->lc_rebound == 0) {
    LDAP_LOG(LDAP_LOG_TRACE, "send_referral_bind_request: bind supressed, rebindproc specified anonymous bind\n");
  } else {
    LDAP_LOG(LDAP_LOG_TRACE, "send_referral_bind_request: sending bind request\n");
    int recorded = 0;
    ldap_unique_str mech;
    struct berval *cred = nullptr;
    if (LDAP_MUTEX_LOCK(&ld->ld_mutex) != 0) {
      rc = LDAP_LOCK_ERROR;
    } else {
      recorded = want_sasl ? ld->ld_bind_method : 0;
      if (want_sasl && recorded != 2) rc = LDAP_AUTH_UNKNOWN;  // nothing recorded to repeat
      if (recorded == 2 && ld->ld_bind_mech != nullptr && !(mech = ldap_unique_str(olx_strdup(ld->ld_bind_mech))))
        rc = LDAP_NO_MEMORY;
      if (rc == 0 && recorded == 2 && ld->ld_bind_cred != nullptr) {
        cred = static_cast<struct berval *>(olx_calloc(1, sizeof(struct berval)));
        if (cred == nullptr) {
          LDAP_LOG(LDAP_LOG_ERROR, "send_referral_bind_request: Failed to alloc cred\n");
          rc = LDAP_NO_MEMORY;
        } else if ((cred->bv_val = static_cast<char *>(olx_malloc(ld->ld_bind_cred->bv_len + 1))) == nullptr) {
          LDAP_LOG(LDAP_LOG_ERROR, "send_referral_bind_request: Failed to alloc cred->bv_val\n");
          rc = LDAP_NO_MEMORY;
        } else {
          cred->bv_len = ld->ld_bind_cred->bv_len;
          memcpy(cred->bv_val, ld->ld_bind_cred->bv_val, cred->bv_len);
          cred->bv_val[cred->bv_len] = '\0';
        }
      }
      LDAP_MUTEX_UNLOCK(&ld->ld_mutex);
    }
    if (rc == 0 && (rc = ldap_set_thread_connection(ld, table->conn)) == 0) {
      if (recorded != 2) {
        rc = ldap_simple_bind_s_int(ld, dn, pw);
      } else if (mech && strcasecmp(mech.get(), "EXTERNAL") != 0) {
        LDAPControl **sctrls = nullptr, **cctrls = nullptr;
        if ((rc = ldap_get_option_direct(ld, LDAP_OPT_SERVER_CONTROLS, &sctrls)) == 0 &&
            (rc = ldap_get_option_direct(ld, LDAP_OPT_CLIENT_CONTROLS, &cctrls)) == 0) {
          struct berval *servercred = nullptr;
          rc = ldap_sasl_bind_int(ld, dn, mech.get(), cred, sctrls, cctrls, &servercred, 0, nullptr);
          fber_bvfree(servercred);
        }
        ldap_controls_free(sctrls);
        ldap_controls_free(cctrls);
      } else {
        rc = ldap_sasl_bind_int(ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr, 0, nullptr);
      }
      ldap_set_thread_connection(ld, nullptr);
    }
    if (rc == LDAP_NO_MEMORY || rc == LDAP_LOCK_ERROR) ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    fber_bvfree(cred);
  }
  if (rebind != nullptr) rebind(ld, &dn, &pw, &method, 1);
  LDAP_LOG(LDAP_LOG_TRACE, "send_referral_bind_request: Bind returned rc=%d\n", rc);
  return rc;
}

int ldap_referral_rebind_once(LDAP *ld, ldap_msg_table *table) {
  LDAPConn *conn = table->conn;
  if (LDAP_MUTEX_LOCK(&ld->ld_conn_mutex) != 0) {
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    return LDAP_LOCK_ERROR;
  }
  // Other threads chasing to the same server wait here until the bind is
  // done.  The generation is read before the bind: a bind of the session's
  // own that overtakes this one makes the next chase bind again.
  const unsigned int generation = __atomic_load_n(&ld->ld_bind_generation, __ATOMIC_ACQUIRE);
  int rc = 0;
  if (conn->lc_rebound != generation + 1) {
    // Bound before, for another identity: servers drop what is in flight on a
    // connection when a bind arrives (slapd does), so one that other chasers
    // use is left to them and a new one is bound instead.
    bool busy = conn->lc_rebound != 0 && conn->lc_holders > 1;
    if (conn->lc_rebound != 0 && !busy && LDAP_MUTEX_LOCK(&table->table_mutex) == 0) {
      busy = (uint32_t)table->free_count != table->size;
      LDAP_MUTEX_UNLOCK(&table->table_mutex);
    }
    if (busy) {
      LDAP_LOG(LDAP_LOG_TRACE, "ldap_referral_rebind_once: connection in use by an older identity: retired\n");
      conn->lc_retired = 1;
      rc = LDAP_CONN_RETIRED;
    } else {
      rc = send_referral_bind_request(ld, table);
      if (rc == 0) conn->lc_rebound = generation + 1;
    }
  }
  LDAP_MUTEX_UNLOCK(&ld->ld_conn_mutex);
  return rc;
}

int reencode_and_send(LDAP *ld, ldap_msg_table *table, LDAPURLDesc *lud, LDAPMessage *msg, LDAPMessage **, int *err) {
  LDAP_LOG(LDAP_LOG_TRACE, "reencode_and_send: entered\n");
  int rc = ldap_referral_rebind_once(ld, table);
  if (rc == LDAP_SERVER_DOWN) return -2;
  if (rc == LDAP_CONN_RETIRED) return LDAP_CONN_RETIRED;
  if (rc != 0) {
    *err = rc;
    return -1;
  }
  const int newid = ldap_msg_table_get_next_msgid(table);
  if (newid < 0) {
    *err = LDAP_LOCAL_ERROR;
    return -1;
  }
  LDAPMessage *request = ldap_msg_new(table->conn);
  if (request == nullptr) {
    *err = LDAP_NO_MEMORY;
    ldap_msg_table_release_msgid(table, newid);
    return -1;
  }
  ldap_msg_table *ptable = table_of(msg);
  BerElement *old_ber = nullptr;
  int old_type = 0;
  if (LDAP_MUTEX_LOCK(&ptable->table_mutex) != 0) {
    *err = LDAP_LOCK_ERROR;
    ldap_set_errno_direct(ld, LDAP_LOCK_ERROR, nullptr, nullptr);
    free_msg(request, 0);
    ldap_msg_table_release_msgid(table, newid);
    return -1;
  }
  // The row's request stays in the row until the row is released, which
  // cannot happen while this thread serves it.
  LDAPMessage *old_request = ptable->rows[msg->lm_msgid].request;
  if (old_request != nullptr) {
    old_ber = old_request->lm_ber;
    old_type = old_request->lm_msgtype;
  }
  LDAP_MUTEX_UNLOCK(&ptable->table_mutex);
  BerElement *ber = old_ber != nullptr ? re_encode_request(ld, old_ber, newid, lud) : nullptr;
  if (ber == nullptr) {
    *err = old_ber == nullptr ? LDAP_OTHER : ldap_get_errno_direct(ld);
    if (*err == 0) *err = LDAP_NO_MEMORY;
    free_msg(request, 0);
    ldap_msg_table_release_msgid(table, newid);
    return -1;
  }
  request->lm_msgid = newid;
  request->lm_ber = ber;
  // The new row's request keeps the request's own type for the response tag.
  request->lm_msgtype = old_type;
  rc = ldap_msg_table_send_request(table, ld, request);
  if (rc != 0) {
    *err = rc;
    return -1;
  }
  return newid;
}

int ldap_msg_table_merge_referral_msg(LDAPMessage **msg, ldap_msg_table *ptable, int pid, int child_finished) {
  if (LDAP_MUTEX_LOCK(&ptable->table_mutex) != 0) return 0;
  ldap_referral_link *link = ptable->rows[pid].child_link;
  LDAPMessage *carrier = link != nullptr ? link->rl_msg : nullptr;
  LDAPMessage *m = *msg;
  m->lm_msgid = pid;
  m->lm_conn = ptable->conn;
  int deliver = 0;
  if (m->lm_msgtype != kSearchDone) {
    // Answers of the chased request stand where the referral stood.
    ldap_msg_row_link_before(&ptable->rows[pid], m, carrier);
    deliver = 1;
  } else {
    LDAP_MUTEX_UNLOCK(&ptable->table_mutex);
    ldap_referral_hold_child_result(msg);
    if (LDAP_MUTEX_LOCK(&ptable->table_mutex) != 0) return 0;
    ldap_msg_row *row = &ptable->rows[pid];
    if (carrier != nullptr && carrier->lm_msgtype == kSearchDone) {
      // The chased request answers for the parent's own final result.
      LDAPMessage *standin = nullptr;
      if (row->parent_link == nullptr && row->ref_text != nullptr) {
        get_return_error_msg(carrier, 0, row->ref_text, &standin);
        free_msg(row->held_result, 1);
        row->held_result = nullptr;
        free(row->ref_text);
        row->ref_text = nullptr;
      } else if (row->parent_link == nullptr && row->held_result != nullptr) {
        standin = row->held_result;
        row->held_result = nullptr;
      } else {
        get_return_error_msg(carrier, 0, nullptr, &standin);
      }
      if (standin != nullptr) {
        ldap_msg_row_link_before(row, standin, carrier);
        *msg = standin;
        deliver = 1;
      }
    }
  }
  ldap_msg_row *row = &ptable->rows[pid];
  if (child_finished && row->child_link == link && link != nullptr) {
    if (carrier != nullptr) {
      ldap_msg_row_unlink(row, carrier);
      free_msg(carrier, 0);
    }
    free(link);
    row->child_link = nullptr;
  }
  if (deliver && is_last_msg(*msg)) row->flags |= LDAP_ROW_COMPLETE;
  LDAP_MUTEX_UNLOCK(&ptable->table_mutex);
  return deliver;
}

LDAPConn *get_referral_connection(LDAP *ld, char **urls, LDAPURLDesc **lud, int *err) {
  return referral_connection(ld, urls, lud, err, nullptr);
}

LDAPMessage *chase_v3_referrals(LDAP *ld, char **urls, LDAPMessage *msg, struct timeval *timeout, int *err, int hops) {
  LDAP_LOG(LDAP_LOG_TRACE, "chase_v3_referrals:\n");
  std::unique_ptr<char *, void (*)(char **)> list(urls, fber_svecfree);
  const char *first = urls != nullptr ? urls[0] : nullptr;
  ldap_msg_table *ptable = table_of(msg);
  const int pid = msg->lm_msgid;
  auto give_up = [&](int code) -> LDAPMessage * {
    *err = code;
    if (code != LDAP_NO_MEMORY) {
      const int frc = ldap_referral_record_failure(ld, ptable, pid, first, code);
      if (frc != 0) *err = frc;
    }
    ldap_referral_discard_msg(msg);
    return nullptr;
  };
  if (hops < 0) return give_up(LDAP_REFERRAL_LIMIT_EXCEEDED);
  std::vector<bool> down;
  LDAPURLDesc *lud = nullptr;
  LDAPConn *conn = referral_connection(ld, urls, &lud, err, &down);
  while (conn != nullptr) {
    // Held until this chase is done with it: a failed connection is freed by
    // its last user.
    std::unique_ptr<LDAPConn, ConnRelease> held(conn, ConnRelease{ld});
    std::unique_ptr<LDAPURLDesc, void (*)(LDAPURLDesc *)> url(lud, ldap_free_urldesc);
    *err = 0;
    LDAPMessage *unused = nullptr;
    const int newid = reencode_and_send(ld, conn->lc_msgtable, lud, msg, &unused, err);
    if (newid == -2 || newid == LDAP_CONN_RETIRED) {
      held.reset();
      url.reset();
      // A retired connection's server is not down: its URL may be tried again
      // (a new connection is bound for the current identity, never retired).
      if (newid == LDAP_CONN_RETIRED) down.clear();
      conn = referral_connection(ld, urls, &lud, err, &down);
      continue;
    }
    if (newid == -1) return give_up(*err != 0 ? *err : LDAP_OTHER);
    ldap_msg_table *ctable = conn->lc_msgtable;
    const int prc = set_parent_child_pointers(msg, ctable, newid);
    if (prc != 0) {
      *err = prc;
      ldap_msg_table_release_msgid(ctable, newid);
      return nullptr;
    }
    url.reset();
    list.reset();
    LDAPMessage *got = nullptr;
    const int rc = ldap_return_one_msg(ld, newid, timeout, &got, ctable, err, 1, hops);
    if (rc < 0 && *err == 0) *err = ldap_get_errno_direct(ld) != 0 ? ldap_get_errno_direct(ld) : LDAP_SERVER_DOWN;
    // The referred server went away before answering: nothing more can come
    // for the chased row, which goes (and with it, the connection).
    if (rc < 0 && got == nullptr && ldap_get_errno_direct(ld) == LDAP_SERVER_DOWN && conn_closed(conn) == 1)
      ldap_msg_table_detach_referral(ld, ctable, newid);
    if (got == nullptr) return nullptr;
    ldap_msg_table_unlink_msg(got);
    const int finished = ldap_msg_table_release_if_done(ctable, newid);
    const int type = got->lm_msgtype;
    if (ldap_msg_table_merge_referral_msg(&got, ptable, pid, finished)) return got;
    if (type != kSearchDone) {
      LDAPMessage *next = nullptr;
      ldap_return_one_msg(ld, pid, timeout, &next, ptable, err, 1, hops + 1);
      return next;
    }
    *err = -1;
    return nullptr;
  }
  return give_up(*err);
}

LDAPMessage *chase_v2_referrals(LDAP *ld, LDAPMessage *msg, const char *text, struct timeval *timeout, int *err,
                                int hops) {
  LDAP_LOG(LDAP_LOG_TRACE, "Chase_v2_referrals: errstr(%s)\n", ldap_trace_str(text, "<NULL>"));
  if (text == nullptr || strlen(text) < 10) return msg;
  const size_t len = strlen(text);
  size_t at = len;
  for (size_t i = 0; i + 10 <= len && at == len; ++i)
    if ((text[i] == 'R' || text[i] == 'r') && strncasecmp(text + i, "Referral:\n", 10) == 0) at = i;
  if (at == len) return msg;
  ldap_unique_str copy(olx_strdup(text + at + 10));
  if (!copy) {
    *err = LDAP_NO_MEMORY;
    return nullptr;
  }
  // One list of every URL: a chase that gives up frees the carrier, so the
  // lines cannot be tried one call at a time; the connection search still
  // takes them in order and uses the first reachable one.
  size_t lines = 0;
  for (const char *p = copy.get(); *p != '\0'; ++p) lines += *p == '\n';
  auto **list = static_cast<char **>(olx_calloc(lines + 2, sizeof(char *)));
  if (list == nullptr) {
    *err = LDAP_NO_MEMORY;
    return nullptr;
  }
  size_t n = 0;
  char *save = nullptr;
  for (char *line = strtok_r(copy.get(), "\n", &save); line != nullptr; line = strtok_r(nullptr, "\n", &save)) {
    LDAP_LOG(LDAP_LOG_TRACE, "chase_v2_referrals: V2 referral has been detected ref=%s\n", line);
    if ((list[n++] = olx_strdup(line)) == nullptr) {
      fber_svecfree(list);
      *err = LDAP_NO_MEMORY;
      return nullptr;
    }
  }
  if (n == 0) {
    free(list);
    return msg;
  }
  *err = 0;
  return chase_v3_referrals(ld, list, msg, timeout, err, hops);
}

int look_for_referrals(LDAP *ld, LDAPMessage *msg, LDAPMessage **out, struct timeval *timeout, int *err, int hops) {
  *out = msg;
  *err = 0;
  // A reply that could not be decoded is a decoding error for its request,
  // and one standing for a lost connection is 81: never referrals to follow.
  if (ldap_msg_stand_in_code(msg) != 0) return msg->lm_msgtype;
  // An IntermediateResponse carries no result and no reference.
  if (msg->lm_msgtype == LDAP_RES_INTERMEDIATE) return msg->lm_msgtype;
  // Read on a copy of the element's record: the message itself stays unread.
  BerElement reader;
  if (!ldap_msg_reader(msg, &reader)) return msg->lm_msgtype;
  BerElement *copy = &reader;
  if (msg->lm_msgtype == kSearchReference) {
    LDAP_LOG(LDAP_LOG_TRACE, "look_for_referrals: Search reference detected\n");
    char **urls = nullptr;
    if (fber_scanf(copy, "{v}", &urls) != LBER_ERROR) *out = chase_v3_referrals(ld, urls, msg, timeout, err, hops - 1);
  } else {
    int code = 0, version = 0;
    char *matched = nullptr, *text = nullptr;
    if (fber_scanf(copy, "{iaa", &code, &matched, &text) != LBER_ERROR &&
        ldap_get_option_direct(ld, LDAP_OPT_PROTOCOL_VERSION, &version) == 0) {
      if (code == LDAP_REFERRAL) {
        LDAP_LOG(LDAP_LOG_TRACE, "look_for_referrals: V3 Referral detected\n");
        char **urls = nullptr;
        ber_len_t len = 0;
        if (copy->ber_ptr < copy->ber_end && fber_peek_tag(copy, &len) == ldap_proto::kReferral &&
            fber_scanf(copy, "{v}", &urls) != LBER_ERROR)
          *out = chase_v3_referrals(ld, urls, msg, timeout, err, hops - 1);
        else
          *err = ldap_referral_final_result(ld, msg, out);
      } else if (code == 0 || version != LDAP_VERSION2) {
        LDAP_LOG(LDAP_LOG_TRACE, "look_for_referrals: No Referral detected. Checking for error\n");
        *err = ldap_referral_final_result(ld, msg, out);
      } else {
        LDAP_LOG(LDAP_LOG_ERROR, "look_for_referrals: V2 Referral detected\n");
        *out = chase_v2_referrals(ld, msg, text, timeout, err, hops - 1);
      }
    }
    free(matched);
    free(text);
  }
  if (*out != nullptr) return (*out)->lm_msgtype;
  return *err != 0 ? -1 : 0;
}
}
