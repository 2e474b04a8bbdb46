// Search requests and the string filter encoder.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <strings.h>

#include "ldap-debug.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap-utils.h"
#include "ldap-xlate.h"

namespace {

inline bool is_ws(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }


// The ")" matching an already opened "(" (depth 1 at p); a backslash makes
// the next character ordinary.  Null when the string ends first.
char *find_close(char *p) {
  int depth = 1;
  for (; *p != '\0'; ++p) {
    if (*p == '\\') {
      if (p[1] == '\0') return nullptr;
      ++p;
    } else if (*p == '(') {
      ++depth;
    } else if (*p == ')' && --depth == 0) {
      return p;
    }
  }
  return nullptr;
}

// Cuts trailing whitespace that no backslash escapes.
void trim_trailing(char *begin) {
  char *end = begin + strlen(begin);
  while (end > begin && is_ws(end[-1]) && !(end - 1 > begin && end[-2] == '\\')) --end;
  *end = '\0';
}

char *skip_ws(char *p) {
  while (is_ws(*p)) ++p;
  return p;
}

// An overline (U+203E, E2 80 BE) typed for "~" in the attribute part of an
// approximate filter becomes "~" again.
void fold_overlines(char *s) {
  // One pass: a folded "~" never starts another overline, so nothing before
  // the write position needs a second look.
  const size_t op = strcspn(s, "<=>");
  size_t r = 0, w = 0;
  while (r < op) {
    if (r + 2 < op && (unsigned char)s[r] == 0xE2 && (unsigned char)s[r + 1] == 0x80 &&
        (unsigned char)s[r + 2] == 0xBE) {
      s[w++] = '~';
      r += 3;
    } else {
      s[w++] = s[r++];
    }
  }
  if (w != r) memmove(s + w, s + r, strlen(s + r) + 1);
}

int put_complex_filter(BerElement *ber, char **cursor, ber_tag_t tag) {
  char *body = *cursor + 1;  // after the operator
  char *close = find_close(body);
  if (close == nullptr) return -1;
  if (fber_printf_raw(ber, "t{", tag) != 0) return -1;
  *close = '\0';
  const int rc = put_filter_list(ber, body);
  *close = ')';
  if (rc != 0 || fber_printf_raw(ber, "}") != 0) return -1;
  *cursor = close + 1;
  return 0;
}

int walk_filter(BerElement *ber, char *p) {
  while (*p != '\0') {
    if (is_ws(*p)) {
      ++p;
    } else if (*p == '(') {
      p = skip_ws(p + 1);
      if (*p == '&' || *p == '|' || *p == '!') {
        ber_tag_t tag;
        if (*p == '&') {
          LDAP_LOG(LDAP_LOG_TRACE, "put_filter: AND\n");
          tag = 0xA0;
        } else if (*p == '|') {
          LDAP_LOG(LDAP_LOG_TRACE, "put_filter: OR\n");
          tag = 0xA1;
        } else {
          LDAP_LOG(LDAP_LOG_TRACE, "put_filter: NOT\n");
          tag = 0xA2;
        }
        if (put_complex_filter(ber, &p, tag) != 0) return -1;
      } else {
        LDAP_LOG(LDAP_LOG_TRACE, "put_filter: simple\n");
        char *close = find_close(p);
        if (close == nullptr) return -1;
        *close = '\0';
        const int rc = put_simple_filter(ber, p);
        *close = ')';
        if (rc != 0) return -1;
        p = close + 1;
      }
    } else if (*p == ')') {
      // Every matched ")" is consumed with its "(", so this one closes nothing.
      LDAP_LOG(LDAP_LOG_TRACE, "put_filter: end\n");
      return -1;
    } else {
      LDAP_LOG(LDAP_LOG_TRACE, "put_filter: default\n");
      trim_trailing(p);
      return put_simple_filter(ber, p);
    }
  }
  return 0;
}

}  // namespace

extern "C" {

int compress_hex(char *s) {
  LDAP_LOG(LDAP_LOG_TRACE, "into compress_hex \"%s\"\n", s);
  char *r = strchr(s, '\\');
  if (r == nullptr) return 0;
  char *w = r;
  while (*r != '\0') {
    if (*r != '\\') {
      *w++ = *r++;
      continue;
    }
    if (!ldap_is_hex(r[1]) || !ldap_is_hex(r[2])) return -1;
    if (r[1] == '0' && r[2] == '0') {
      // A NUL would end the C string the encoder writes, so it stays escaped.
      if (w != r) memmove(w, r, 3);
      w += 3;
    } else {
      *w++ = static_cast<char>(ldap_hex_value(r[1]) << 4 | ldap_hex_value(r[2]));
    }
    r += 3;
  }
  *w = '\0';
  LDAP_LOG(LDAP_LOG_TRACE, "Compressed put_filter \"%s\"\n", s);
  return 0;
}

int put_substring_filter(BerElement *ber, char *attr, char *value) {
  LDAP_LOG(LDAP_LOG_TRACE, "put_substring_filter \"%s=%s\"\n", attr, value);
  if (fber_printf_raw(ber, "t{s{", (ber_tag_t)0xA4, attr) != 0) return -1;
  char *piece = value;
  for (bool first = true;; first = false) {
    char *star = strchr(piece, '*');
    if (star != nullptr) *star = '\0';
    if (*piece != '\0') {
      const ber_tag_t tag = first ? 0x80 : star == nullptr ? 0x82 : 0x81;
      if (compress_hex(piece) != 0 || fber_printf_raw(ber, "ts", tag, piece) != 0) return -1;
    }
    if (star == nullptr) break;
    piece = star + 1;
  }
  return fber_printf_raw(ber, "}}") != 0 ? -1 : 0;
}

// RFC 4515: attr [":dn"] [":" rule] ":=" value, or [":dn"] ":" rule ":=" value;
// "before" is everything ahead of ":=".  A "dn" part is the dnAttributes flag,
// never a rule, whether a rule follows it or not.
int put_extensible_filter(BerElement *ber, char *before, char *value) {
  LDAP_LOG(LDAP_LOG_TRACE, "put_extensible_filter \"%s=%s\"\n", before, value);
  const char *attr = *before != '\0' && *before != ':' ? before : nullptr;
  char *rest = strchr(before, ':');
  if (rest != nullptr) *rest++ = '\0';
  int dn = 0;
  const char *rule = nullptr;
  if (rest != nullptr) {
    char *next = strchr(rest, ':');
    if (next != nullptr) *next++ = '\0';
    if (strcasecmp(rest, "dn") == 0) {
      dn = 1;
      rule = next;
    } else if (next == nullptr) {
      rule = rest;
    } else {
      return -1;
    }
    if (rule != nullptr && (*rule == '\0' || strchr(rule, ':') != nullptr)) return -1;
  }
  if (attr == nullptr && rule == nullptr) return -1;
  if (fber_printf_raw(ber, "t{", (ber_tag_t)0xA9) != 0) return -1;
  if (rule != nullptr && fber_printf_raw(ber, "ts", (ber_tag_t)0x81, rule) != 0) return -1;
  if (attr != nullptr && fber_printf_raw(ber, "ts", (ber_tag_t)0x82, attr) != 0) return -1;
  if (fber_printf_raw(ber, "to", (ber_tag_t)0x83, value, (int)strlen(value)) != 0) return -1;
  return fber_printf_raw(ber, "tb}", (ber_tag_t)0x84, dn) != 0 ? -1 : 0;
}

int put_simple_filter(BerElement *ber, const char *item) {
  ldap_unique_str copy(olx_strdup(item));
  if (copy == nullptr) return -1;
  char *attr = copy.get();
  char *eq = strchr(attr, '=');
  if (eq == nullptr) return -1;
  LDAP_LOG(LDAP_LOG_TRACE, "put_simple_filter %s\n", attr);
  char *value = skip_ws(eq + 1);
  trim_trailing(value);
  *eq = '\0';
  ber_tag_t tag = 0xA3;
  const char op = eq > attr ? eq[-1] : '\0';
  switch (op) {
    case '<':
      tag = 0xA6;
      break;
    case '>':
      tag = 0xA5;
      break;
    case '~':
      tag = 0xA8;
      break;
    case ':':
      eq[-1] = '\0';
      return put_extensible_filter(ber, attr, value);
    default:
      if (strcmp(value, "*") == 0) return fber_printf_raw(ber, "ts", (ber_tag_t)0x87, attr) != 0 ? -1 : 0;
      if (strchr(value, '*') != nullptr) return put_substring_filter(ber, attr, value);
      break;
  }
  if (tag != 0xA3) eq[-1] = '\0';
  if (compress_hex(value) != 0) return -1;
  return fber_printf_raw(ber, "t{ss}", tag, attr, value) != 0 ? -1 : 0;
}

int put_filter_list(BerElement *ber, char *list) {
  LDAP_LOG(LDAP_LOG_TRACE, "put_filter_list \"%s\"\n", list);
  char *p = list;
  for (;;) {
    p = skip_ws(p);
    if (*p == '\0') return 0;
    if (*p != '(') return -1;
    char *close = find_close(p + 1);
    if (close == nullptr) return -1;
    const char after = close[1];
    close[1] = '\0';
    const int rc = put_filter(ber, p, 1);
    close[1] = after;
    if (rc != 0) return -1;
    p = close + 1;
  }
}

int put_filter(BerElement *ber, const char *filter, int nested) {
  if (filter == nullptr) return -1;
  char *raw = olx_strdup(filter);
  if (raw == nullptr) return -1;
  if (!nested && (ber->ber_noxlate == nullptr || *ber->ber_noxlate == 0)) {
    // A UTF-8 local code page makes the conversion a copy: skip it, as the codec does.
    unsigned long len = strlen(raw);
    if (!xlate_is_identity() && xlate_local_to_utf8(&raw, &len, 1) != 0) {
      free(raw);
      return -1;
    }
    fold_overlines(raw);
  }
  ldap_unique_str copy(raw);
  return walk_filter(ber, copy.get());
}

int ldap_create_sort_keylist(LDAPsortkey ***out, const char *keys) {
  if (out != nullptr) *out = nullptr;
  if (out == nullptr || keys == nullptr) return LDAP_PARAM_ERROR;
  size_t count = 0;
  for (const char *p = keys; *p != '\0';) {
    while (*p == ' ') ++p;
    if (*p == '\0') break;
    ++count;
    while (*p != '\0' && *p != ' ') ++p;
  }
  if (count == 0) return LDAP_PARAM_ERROR;
  auto **list = static_cast<LDAPsortkey **>(olx_calloc(count + 1, sizeof(LDAPsortkey *)));
  if (list == nullptr) return LDAP_NO_MEMORY;
  bool failed = false;
  const char *p = keys;
  for (size_t n = 0; n < count && !failed; ++n) {
    while (*p == ' ') ++p;
    const char *end = p + strcspn(p, " ");
    auto *key = static_cast<LDAPsortkey *>(olx_calloc(1, sizeof(LDAPsortkey)));
    list[n] = key;
    if (key == nullptr) {
      failed = true;
      break;
    }
    if (*p == '-') {
      key->sk_reverseorder = 1;
      ++p;
    }
    const char *colon = static_cast<const char *>(memchr(p, ':', (size_t)(end - p)));
    key->sk_attrtype = olx_strndup(p, (size_t)((colon ? colon : end) - p));
    if (key->sk_attrtype == nullptr ||
        (colon != nullptr && (key->sk_matchruleoid = olx_strndup(colon + 1, (size_t)(end - colon - 1))) == nullptr))
      failed = true;
    p = end;
  }
  if (failed) {
    ldap_free_sort_keylist(list);
    return LDAP_NO_MEMORY;
  }
  *out = list;
  return 0;
}

void ldap_free_sort_keylist(LDAPsortkey **keys) {
  if (keys == nullptr) return;
  for (size_t i = 0; keys[i] != nullptr; ++i) {
    free(keys[i]->sk_attrtype);
    free(keys[i]->sk_matchruleoid);
    free(keys[i]);
  }
  free(keys);
}

int ldap_search_ext_direct(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                           LDAPControl **sctrls, int sizelimit, struct timeval *timeout, int *msgidp, LDAPConn *conn) {
  if (conn == nullptr && (conn = get_default_connection(ld)) == nullptr) {
    ldap_set_errno_direct(ld, LDAP_ENCODING_ERROR, nullptr, nullptr);
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_search_ext_direct: NULL server connection\n");
    return LDAP_ENCODING_ERROR;
  }
  ldap_msg_table *table = conn->lc_msgtable;
  if (table == nullptr) return LDAP_ENCODING_ERROR;
  LDAPMessage *msg = ldap_msg_new(conn);
  if (msg == nullptr) {
    ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
    return LDAP_NO_MEMORY;
  }
  int rc = 0;
  const int msgid = ldap_msg_table_get_next_msgid(table);
  if (msgid < 0) {
    free_msg(msg, 0);
    ldap_set_errno_direct(ld, LDAP_LOCAL_ERROR, nullptr, nullptr);
    return LDAP_LOCAL_ERROR;
  }
  msg->lm_msgid = msgid;
  // Until the send stores it in its row, the request is ours to free.
  auto fail = [&](int code) {
    ldap_set_errno_direct(ld, code, nullptr, nullptr);
    ldap_msg_release_msgid(msg);
    free_msg(msg, 0);
    return code;
  };
  if ((msg->lm_ber = ldap_alloc_ber_with_options(ld, 0)) == nullptr) return fail(LDAP_NO_MEMORY);
  BerElement *ber = msg->lm_ber;
  int deref = 0, timelimit = 0;
  if ((rc = ldap_get_option_direct(ld, LDAP_OPT_DEREF, &deref)) != 0) return fail(rc);
  if (timeout == nullptr) {
    if ((rc = ldap_get_option_direct(ld, LDAP_OPT_TIMELIMIT, &timelimit)) != 0) return fail(rc);
  } else {
    timelimit = (int)timeout->tv_sec;
    if (timelimit == 0 && timeout->tv_usec > 0) timelimit = 1;
  }
  if (fber_printf(ber, "{it{seeiib", msgid, (ber_tag_t)ldap_proto::kSearchRequest, base ? base : "", scope, deref,
                  sizelimit, timelimit, attrsonly) != 0)
    return fail(LDAP_ENCODING_ERROR);
  LDAP_LOG(LDAP_LOG_TRACE, "putting filter %s into ber\n", filter);
  if (put_filter(ber, filter, 0) != 0) return fail(LDAP_FILTER_ERROR);
  if (fber_printf(ber, "{v}}", attrs) != 0) return fail(LDAP_ENCODING_ERROR);
  if (sctrls != nullptr && sctrls[0] != nullptr && put_ctrls_into_ber(ber, sctrls) != 0)
    return fail(LDAP_ENCODING_ERROR);
  // A request whose outer SEQUENCE cannot be closed is never sent.
  if (fber_printf(ber, "}") != 0) return fail(LDAP_ENCODING_ERROR);
  msg->lm_msgtype = ldap_proto::kSearchRequest;
  rc = ldap_msg_table_send_request(table, ld, msg);
  if (rc != 0) {
    if (ldap_get_errno_direct(ld) == 0) ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return rc;
  }
  *msgidp = msgid;
  return 0;
}

int ldap_search_ext_int(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                        LDAPControl **sctrls, LDAPControl **cctrls, struct timeval *timeout, int sizelimit,
                        int *msgidp) {
  if (msgidp != nullptr) *msgidp = -1;
  if (ld == nullptr || scope < 0 || scope > 2 || filter == nullptr || msgidp == nullptr) return LDAP_PARAM_ERROR;
  int substituted = 0;
  int rc = ldap_apply_default_controls(ld, &sctrls, cctrls, &substituted);
  if (rc == 0)
    rc = ldap_search_ext_direct(ld, base, scope, filter, attrs, attrsonly, sctrls, sizelimit, timeout, msgidp, nullptr);
  if (substituted) ldap_controls_free(sctrls);
  return rc;
}

int ldap_search_ext(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                    LDAPControl **sctrls, LDAPControl **cctrls, struct timeval *timeout, int sizelimit, int *msgidp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_search_ext: ld(%p) base(%s) scope(%d) filter(%s)\n", (void *)ld, base ? base : "NULL",
           scope, filter ? filter : "NULL");
  if (msgidp != nullptr) *msgidp = -1;
  if (ld == nullptr || scope < 0 || scope > 2 || filter == nullptr || msgidp == nullptr) return LDAP_PARAM_ERROR;
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc = ldap_search_ext_int(ld, base, scope, filter, attrs, attrsonly, sctrls, cctrls, timeout, sizelimit, msgidp);
  return rc;
}

int ldap_search_int(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly) {
  if (ld == nullptr || scope < 0 || scope > 2 || filter == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR,
             "ldap_search: bad ld, base, scope or filter provided ld(%x) base(%s) scope(%d) filter(%s)\n",
             (unsigned)(uintptr_t)ld, base ? base : "NULL", scope, filter ? filter : "NULL");
    if (ld != nullptr) ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    return -1;
  }
  int sizelimit = 0;
  if (ldap_get_option_direct(ld, LDAP_OPT_SIZELIMIT, &sizelimit) != 0) return -1;
  auto *tv = static_cast<struct timeval *>(olx_calloc(1, sizeof(struct timeval)));
  if (tv == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldapsearch: Insufficient memory to alloc timeval structure\n");
    ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
    return -1;
  }
  int timelimit = 0;
  if (ldap_get_option_direct(ld, LDAP_OPT_TIMELIMIT, &timelimit) != 0) {
    free(tv);
    return -1;
  }
  tv->tv_sec = timelimit;
  int msgid = -1;
  const int rc =
      ldap_search_ext_int(ld, base, scope, filter, attrs, attrsonly, nullptr, nullptr, tv, sizelimit, &msgid);
  free(tv);
  if (rc != 0) {
    ldap_set_errno_direct(ld, rc, nullptr, nullptr);
    return -1;
  }
  return msgid;
}

int ldap_search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_search: ld(%p) base(%s) scope(%d) filter(%s)\n", (void *)ld, base ? base : "NULL",
           scope, filter ? filter : "NULL");
  OperationScope bracket(ld, ld != nullptr);
  if (bracket.refused()) return -1;
  const int msgid = ldap_search_int(ld, base, scope, filter, attrs, attrsonly);
  return msgid;
}

}  // extern "C"

namespace {
// Steps shared by the synchronous forms once the request is out.  They run
// inside their caller's operation bracket, so they wait with the unbracketed
// ldap_result_int: an unbind begun meanwhile must not cut them short.
int wait_for_search(LDAP *ld, int msgid, struct timeval *timeout, LDAPMessage **res) {
  const int got = ldap_result_int(ld, msgid, LDAP_MSG_ALL, timeout, res);
  if (got == 0) {
    ldap_set_errno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
    // The late result is released as soon as it arrives (or now, if it has).
    ldap_msg_table_mark_rows(ld, msgid, LDAP_ROW_RELEASE_WHEN_DONE);
    return LDAP_TIMEOUT;
  }
  if (got == -1) {
    const int code = ldap_get_errno_direct(ld);
    if (*res == nullptr) {
      // Nothing was handed out (a chased server went away, say): the rows go
      // back now, or as soon as their answers are complete.
      ldap_msg_table_mark_rows(ld, msgid, LDAP_ROW_RELEASE_WHEN_DONE);
      return code != 0 ? code : LDAP_LOCAL_ERROR;
    }
  }
  return ldap_result2error_direct(ld, *res, 0);
}
}  // namespace

extern "C" {

int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                      LDAPControl **sctrls, LDAPControl **cctrls, struct timeval *timeout, int sizelimit,
                      LDAPMessage **res) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_search_ext_s: ld(%p) base(%s) scope(%d) filter(%s)\n", (void *)ld,
           base ? base : "NULL", scope, filter ? filter : "NULL");
  if (res == nullptr) return LDAP_PARAM_ERROR;
  *res = nullptr;
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc;
  int msgid = -1;
  struct timeval *wait = timeout;
  if (wait != nullptr && wait->tv_sec == 0 && wait->tv_usec == 0) wait = nullptr;
  const CallDeadline deadline(wait);
  rc = ldap_search_ext_int(ld, base, scope, filter, attrs, attrsonly, sctrls, cctrls, timeout, sizelimit, &msgid);
  struct timeval left;
  if (rc == 0) rc = wait_for_search(ld, msgid, deadline.left(&left), res);
  return rc;
}

int ldap_search_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                  LDAPMessage **res) {
  const int rc = ldap_search_ext_s(ld, base, scope, filter, attrs, attrsonly, nullptr, nullptr, nullptr, 0, res);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_search_s: returning rc=%d\n", rc);
  return rc;
}

int ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                   struct timeval *timeout, LDAPMessage **res) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_search_st: ld(%p) base(%s) scope(%d) filter(%s)\n", (void *)ld, base ? base : "NULL",
           scope, filter ? filter : "NULL");
  if (res == nullptr) return LDAP_PARAM_ERROR;
  *res = nullptr;
  OperationScope bracket(ld);
  if (bracket.refused()) return bracket.code();
  int rc;
  const CallDeadline deadline(timeout);
  const int msgid = ldap_search_int(ld, base, scope, filter, attrs, attrsonly);
  rc = ldap_get_errno_direct(ld);
  if (rc == 0 && msgid < 0) rc = LDAP_LOCAL_ERROR;
  struct timeval left;
  if (rc == 0) rc = wait_for_search(ld, msgid, deadline.left(&left), res);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_search_st: returning rc=%d\n", rc);
  return rc;
}
}
