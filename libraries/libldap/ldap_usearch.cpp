// Searches given as LDAP URLs.  A URL naming another server is searched there
// (after a re-bind) and its answers are linked into a row of the default
// connection, so the caller waits on a default-connection message ID as for
// any search.
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-lock.h"
#include "ldap-search.h"
#include "ldap-ssl.h"
#include "ldap-utils.h"

namespace {

constexpr int kSearchRequest = 99;
constexpr int kRetiredTurns = 64;
constexpr int kSearchDone = 101;

// What ldap_url_search_direct takes before the request is out; released on
// every failure so that no row stays in use.
struct Taken {
  LDAP *ld;
  LDAPURLDesc *lud = nullptr;
  LDAPMessage *srv_req = nullptr, *def_req = nullptr, *placeholder = nullptr;
  ldap_msg_table *srv_table = nullptr, *def_table = nullptr;
  int newid = -1, defid = -1;
  ldap_referral_link *child = nullptr, *parent = nullptr;
  BerElement *second = nullptr;
  LDAPConn *srv = nullptr;  // held from ldap_get_connection_for_url

  explicit Taken(LDAP *l) : ld(l) {}
  ~Taken() {
    free(child);
    free(parent);
    free_msg(placeholder, 0);
    free_msg(def_req, 0);
    free_msg(srv_req, 0);
    fber_free(second);
    if (newid > 0) ldap_msg_table_release_msgid(srv_table, newid);
    if (defid > 0 && def_table != srv_table) ldap_msg_table_release_msgid(def_table, defid);
    ldap_free_urldesc(lud);
    // After its rows: a failed connection goes with its last user.
    ldap_conn_release(ld, srv, 1);
  }
  int fail(int code) {
    if (code != 0) ldap_set_errno_direct(ld, code, nullptr, nullptr);
    return -1;
  }
};

// Fixes the referral settings of a linked row the way the first wait would.
void link_row(ldap_msg_row *row, bool chase, int hops) {
  row->flags |= LDAP_ROW_REF_FIXED;
  if (chase)
    row->flags |= LDAP_ROW_CHASE;
  else
    row->flags &= ~LDAP_ROW_CHASE;
  row->refhops = hops;
}

}  // namespace

extern "C" {

int ldap_url_search_direct(LDAP *ld, const char *url, int attrsonly) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_search_direct: ld(%p), url(%s), attrsonly(%d)\n", (void *)ld,
           ldap_trace_str(url, "<NULL>"), attrsonly);
  Taken t(ld);
  if (ldap_url_parse(url, &t.lud) != 0) return t.fail(LDAP_PARAM_ERROR);
  LDAPConn *def = get_default_connection(ld);
  if (def == nullptr || def->lc_msgtable == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_search_direct: NULL default server or table \n");
    return t.fail(LDAP_PARAM_ERROR);
  }
  // URLs to search often come from servers (references): they get the
  // referrals' rules.
  int secure = 0;
  int rc = ldap_url_server_allowed(ld, t.lud, &secure, "ldap_url_search_direct");
  if (rc != 0) return t.fail(rc);
  LDAPConn *srv = nullptr;
  // A connection retired at its re-bind (in use by an older identity) is
  // replaced by another.  A new one is retired only when the session binds
  // again meanwhile, so a few turns are enough.
  for (int turn = 0; turn < kRetiredTurns; ++turn) {
    if (t.srv != nullptr) {
      ldap_conn_release(ld, t.srv, 1);
      t.srv = nullptr;
    }
    srv = ldap_get_connection_for_url(ld, t.lud->lud_host, t.lud->lud_port, secure, &rc, 1);
    t.srv = srv;
    if (srv == nullptr || srv->lc_msgtable == nullptr) {
      LDAP_LOG(LDAP_LOG_ERROR, "ldap_url_search_direct: NULL server or table\n");
      return t.fail(0);
    }
    rc = srv != def ? ldap_referral_rebind_once(ld, srv->lc_msgtable) : 0;
    if (rc != LDAP_CONN_RETIRED) break;
  }
  t.def_table = def->lc_msgtable;
  t.srv_table = srv->lc_msgtable;
  BerElement *ber = ldap_alloc_ber_with_options(ld, 0);
  if (ber == nullptr) return t.fail(LDAP_NO_MEMORY);
  std::unique_ptr<BerElement, void (*)(BerElement *)> first(ber, fber_free);
  const bool other = srv != def;
  if (other) {
    if (rc == LDAP_CONN_RETIRED) return t.fail(LDAP_BUSY);
    if (rc == LDAP_SERVER_DOWN || rc == LDAP_NO_MEMORY) return t.fail(rc);
    if (rc != 0) LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_search_direct: Bind failed with error = %d. Ignoring.\n", rc);
    if ((t.second = ldap_alloc_ber_with_options(ld, 0)) == nullptr || (t.srv_req = ldap_msg_new(srv)) == nullptr ||
        (t.def_req = ldap_msg_new(def)) == nullptr)
      return t.fail(LDAP_NO_MEMORY);
    t.defid = ldap_msg_table_get_next_msgid(t.def_table);
    if (t.defid < 0) return t.fail(LDAP_LOCAL_ERROR);
    t.newid = ldap_msg_table_get_next_msgid(t.srv_table);
    if (t.newid < 0) return t.fail(LDAP_LOCAL_ERROR);
  } else {
    if ((t.srv_req = ldap_msg_new(def)) == nullptr) return t.fail(LDAP_NO_MEMORY);
    t.newid = ldap_msg_table_get_next_msgid(t.def_table);
    if (t.newid < 0) return t.fail(LDAP_LOCAL_ERROR);
  }
  int deref = 0, size = 0, time = 0;
  if (ldap_get_option_direct(ld, LDAP_OPT_DEREF, &deref) != 0 ||
      ldap_get_option_direct(ld, LDAP_OPT_SIZELIMIT, &size) != 0 ||
      ldap_get_option_direct(ld, LDAP_OPT_TIMELIMIT, &time) != 0)
    return t.fail(0);
  if (fber_printf(ber, "{it{seeiib", t.newid, (ber_tag_t)kSearchRequest, t.lud->lud_dn ? t.lud->lud_dn : "",
                  t.lud->lud_scope, deref, size, time, attrsonly) != 0)
    return t.fail(LDAP_ENCODING_ERROR);
  if (put_filter(ber, t.lud->lud_filter, 0) != 0) return t.fail(LDAP_FILTER_ERROR);
  if (fber_printf(ber, "{v}}}", t.lud->lud_attrs) != 0) return t.fail(LDAP_ENCODING_ERROR);
  t.srv_req->lm_msgid = t.newid;
  t.srv_req->lm_msgtype = kSearchRequest;
  t.srv_req->lm_ber = first.release();
  if (other) {
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_search_direct: URL pointing to non-default server\n");
    t.child = static_cast<ldap_referral_link *>(olx_calloc(1, sizeof(ldap_referral_link)));
    t.parent = static_cast<ldap_referral_link *>(olx_calloc(1, sizeof(ldap_referral_link)));
    t.placeholder = ldap_msg_new(def);
    if (t.child == nullptr || t.parent == nullptr || t.placeholder == nullptr) return t.fail(LDAP_NO_MEMORY);
    const BerElement *sent = t.srv_req->lm_ber;
    if (fber_write(t.second, sent->ber_buf, (ber_len_t)(sent->ber_ptr - sent->ber_buf)) < 0)
      return t.fail(LDAP_NO_MEMORY);
    t.placeholder->lm_msgid = t.defid;
    t.placeholder->lm_msgtype = kSearchDone;
    t.def_req->lm_msgid = t.defid;
    t.def_req->lm_msgtype = kSearchRequest;
    t.def_req->lm_ber = t.second;
    t.second = nullptr;
    int chase = 0, hops = 0;
    if (ldap_get_option_direct(ld, LDAP_OPT_REFERRALS, &chase) != 0 ||
        ldap_get_option_direct(ld, LDAP_OPT_REFHOPLIMIT, &hops) != 0)
      return t.fail(0);
    *t.child = {t.srv_table, t.newid, t.placeholder, 0, nullptr};
    *t.parent = {t.def_table, t.defid, nullptr, 0, nullptr};
    if (LDAP_MUTEX_LOCK(&t.def_table->table_mutex) != 0) return t.fail(LDAP_LOCK_ERROR);
    ldap_msg_row *row = &t.def_table->rows[t.defid];
    row->request = t.def_req;
    row->head = row->tail = t.placeholder;
    row->child_link = t.child;
    // Nothing is sent on the default connection for this row: its own answer
    // is complete from the start, and the chased request supplies the rest.
    row->flags |= LDAP_ROW_COMPLETE;
    link_row(row, chase != 0, hops + 1);
    LDAP_MUTEX_UNLOCK(&t.def_table->table_mutex);
    t.def_req = t.placeholder = nullptr;
    t.child = nullptr;
    const int parent_id = t.defid;
    t.defid = -1;  // the row now releases itself with its contents
    if (LDAP_MUTEX_LOCK(&t.srv_table->table_mutex) != 0) {
      ldap_msg_table_release_msgid(t.def_table, parent_id);
      return t.fail(LDAP_LOCK_ERROR);
    }
    row = &t.srv_table->rows[t.newid];
    row->parent_link = t.parent;
    link_row(row, chase != 0, hops);
    LDAP_MUTEX_UNLOCK(&t.srv_table->table_mutex);
    t.parent = nullptr;
    t.defid = parent_id;
  }
  LDAPMessage *request = t.srv_req;
  t.srv_req = nullptr;
  const int sent_id = t.newid;
  rc = ldap_msg_table_send_message(t.srv_table, ld, request);
  if (rc != 0) {
    // The request sits in its row (or was refused before it): release both.
    bool in_row = false;
    if (LDAP_MUTEX_LOCK(&t.srv_table->table_mutex) == 0) {
      in_row = t.srv_table->rows[sent_id].request == request;
      LDAP_MUTEX_UNLOCK(&t.srv_table->table_mutex);
    }
    if (!in_row) free_msg(request, 0);
    if (ldap_get_errno_direct(ld) == 0) ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return -1;
  }
  t.newid = -1;
  const int id = other ? t.defid : sent_id;
  t.defid = -1;
  return id;
}

int ldap_url_search(LDAP *ld, const char *url, int attrsonly) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_search: ld(%p) url(%s) attrsonly(%d)\n", (void *)ld, ldap_trace_str(url, "<NULL>"),
           attrsonly);
  OperationScope bracket(ld);
  if (bracket.refused()) return -1;
  int rc;
  if (url == nullptr) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    rc = -1;
  } else {
    rc = ldap_url_search_direct(ld, url, attrsonly);
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_search: returning rc=%d\n", rc);
  return rc;
}

int ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout, LDAPMessage **res) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_search_st: ld(%p), url(%s), attrsonly(%d) timeout(%p), res(%p)\n", (void *)ld,
           ldap_trace_str(url, "<NULL>"), attrsonly, (void *)timeout, (void *)res);
  OperationScope bracket(ld);
  if (bracket.refused()) return LDAP_PARAM_ERROR;
  int rc;
  if (url == nullptr || res == nullptr) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    rc = LDAP_PARAM_ERROR;
  } else {
    *res = nullptr;
    const CallDeadline deadline(timeout);
    const int msgid = ldap_url_search_direct(ld, url, attrsonly);
    if (msgid == -1) {
      rc = ldap_get_errno_direct(ld);
    } else {
      // Inside this operation's bracket: the unbracketed wait.
      struct timeval left;
      const int got = ldap_result_int(ld, msgid, LDAP_MSG_ALL, deadline.left(&left), res);
      if (got == 0) {
        ldap_set_errno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
        ldap_msg_table_mark_rows(ld, msgid, LDAP_ROW_RELEASE_WHEN_DONE);
        rc = LDAP_TIMEOUT;
      } else if (got == -1) {
        rc = ldap_get_errno_direct(ld);
        if (*res == nullptr) ldap_msg_table_mark_rows(ld, msgid, LDAP_ROW_RELEASE_WHEN_DONE);
      } else {
        rc = 0;
      }
    }
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_search_st: returning rc=%d\n", rc);
  return rc;
}

int ldap_url_search_s(LDAP *ld, const char *url, int attrsonly, LDAPMessage **res) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_url_search_s\n");
  return ldap_url_search_st(ld, url, attrsonly, nullptr, res);
}
}
