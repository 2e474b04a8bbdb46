// Constructors and parsers for particular controls and extended-operation
// values: proxied authorization, paged results, sorting, entry change,
// persistent search, VLV, password policy, value limits and the others the
// full interface offers.
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include <string_view>

#include "ldap-controls.h"
#include "ldap-debug.h"
#include "ldap-engine.h"
#include "ldap-int.h"
#include "ldap-lock.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap-utils.h"

namespace {

// Frees an encoding element on every path.
struct BerGuard {
  BerElement *ber;
  ~BerGuard() { fber_free(ber); }
};

// Encodes with the given format into a fresh element and flattens it into a
// control value.  Returns 0, LDAP_ENCODING_ERROR or LDAP_NO_MEMORY.
int flatten_into(BerElement *ber, struct berval *value) {
  struct berval *bv = nullptr;
  if (fber_flatten(ber, &bv) != 0) return LDAP_NO_MEMORY;
  *value = *bv;
  free(bv);
  return LDAP_SUCCESS;
}

// A control with `oid`, `critical` and, when `ber` is given, its flattened contents.
int control_from_ber(const char *oid, int critical, BerElement *ber, LDAPControl **out) {
  LDAPControl *c = nullptr;
  if (ldap_alloc_control(&c) != 0) return LDAP_NO_MEMORY;
  c->ldctl_iscritical = critical;
  c->ldctl_oid = olx_strdup(oid);
  int rc = c->ldctl_oid ? LDAP_SUCCESS : LDAP_NO_MEMORY;
  if (rc == LDAP_SUCCESS && ber != nullptr) rc = flatten_into(ber, &c->ldctl_value);
  if (rc != LDAP_SUCCESS) {
    ldap_control_free(c);
    return rc;
  }
  *out = c;
  return LDAP_SUCCESS;
}

// A control value made from an extended-request style flattening.
int value_from_ber(BerElement *ber, struct berval **out) {
  if (fber_flatten(ber, out) != 0) return LDAP_NO_MEMORY;
  return LDAP_SUCCESS;
}

bool char_critical(char c) { return c == 'T'; }

LDAPControl *find_control(LDAPControl **ctrls, const char *oid) {
  for (size_t i = 0; ctrls != nullptr && ctrls[i] != nullptr; ++i)
    if (ctrls[i]->ldctl_oid != nullptr && strcmp(ctrls[i]->ldctl_oid, oid) == 0) return ctrls[i];
  return nullptr;
}

// Lengths in the paged-results control's own layout: one byte below 128,
// otherwise 0x82/0x83/0x84 and two, three or four bytes (0x82 even for 128..255).
size_t paged_len_size(size_t n) { return n < 128 ? 1 : n <= 0xFFFF ? 3 : n <= 0xFFFFFF ? 4 : 5; }

char *write_paged_len(char *p, size_t n) {
  if (n < 128) {
    *p++ = (char)n;
    return p;
  }
  int bytes = n <= 0xFFFF ? 2 : n <= 0xFFFFFF ? 3 : 4;
  *p++ = (char)(0x80 | bytes);
  for (int i = bytes - 1; i >= 0; --i) *p++ = (char)((n >> (8 * i)) & 0xFF);
  return p;
}

// Reads a length in that layout; false past `end`.
bool read_paged_len(const unsigned char **p, const unsigned char *end, size_t *n) {
  if (*p >= end) return false;
  unsigned char first = *(*p)++;
  if (!(first & 0x80)) {
    *n = first;
    return true;
  }
  int bytes = first & 0x7F;
  if (bytes < 1 || bytes > 4 || end - *p < bytes) return false;
  size_t v = 0;
  for (int i = 0; i < bytes; ++i) v = (v << 8) | *(*p)++;
  *n = v;
  return true;
}

// Reads the SEQUENCEs that follow as items of a null-terminated list, one
// zeroed record each, filled by `read`; the list is left in *list on every
// path so the caller frees whatever was built.
template <typename Item, typename Read>
int read_item_list(BerElement *ber, Item ***list, Read read) {
  size_t n = 0;
  ber_len_t len;
  while (fber_peek_tag(ber, &len) == ldap_proto::kSequence) {
    auto *item = static_cast<Item *>(olx_calloc(1, sizeof(Item)));
    auto **grown = item ? static_cast<Item **>(olx_realloc(*list, (n + 2) * sizeof(Item *))) : nullptr;
    if (grown == nullptr) {
      free(item);
      return LDAP_NO_MEMORY;
    }
    *list = grown;
    grown[n++] = item;
    grown[n] = nullptr;
    if (read(item) == LBER_ERROR) return LDAP_DECODING_ERROR;
  }
  return LDAP_SUCCESS;
}

}  // namespace

extern "C" {

int ldap_create_proxyauth_control(LDAP *, const char *dn, int critical, LDAPControl **out) {
  if (dn == nullptr || out == nullptr || critical == 0) return LDAP_PARAM_ERROR;
  // The DN's bytes and its terminating zero, the zero counted in the length.
  return ldap_build_control(out, LDAP_CONTROL_PROXYAUTH, strlen(dn) + 1, dn, critical);
}

int ldap_proxy_dn_prefix(char **out, const char *dn) {
  if (out == nullptr || dn == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_proxy_dn_prefix: Bad Parameters passed proxyDN(%x) parm(%x)\n",
             (unsigned)(uintptr_t)dn, (unsigned)(uintptr_t)out);
    return LDAP_PARAM_ERROR;
  }
  const bool has = strncasecmp(dn, "dn:", 3) == 0;
  size_t n = strlen(dn) + (has ? 0 : 3) + 1;
  *out = static_cast<char *>(olx_malloc(n));
  if (*out == nullptr) return LDAP_NO_MEMORY;
  snprintf(*out, n, "%s%s", has ? "" : "dn:", dn);
  return LDAP_SUCCESS;
}

int ldap_add_proxyauth_control_to_list(LDAPControl ***list, const char *dn) {
  char *prefixed = nullptr;
  int rc = ldap_proxy_dn_prefix(&prefixed, dn);
  if (rc != LDAP_SUCCESS) return rc;
  rc = ldap_add_control_to_list(LDAP_CONTROL_PROXYAUTH, strlen(prefixed) + 1, prefixed, 0, list);
  free(prefixed);
  return rc;
}

int ldap_create_page_control(LDAP *, unsigned int pagesize, const struct berval *cookie, char critical,
                             LDAPControl **out) {
  if (out == nullptr) return LDAP_PARAM_ERROR;
  // The size as a big-endian two's-complement integer in the fewest bytes.
  unsigned char size[5];
  int k = 0;
  for (int64_t v = (int64_t)pagesize;; v >>= 8) {
    size[k++] = (unsigned char)(v & 0xFF);
    if ((v >= -128 && v <= 127) || k == 5) break;
  }
  const size_t clen = (cookie && cookie->bv_val) ? cookie->bv_len : 0;
  const size_t inner = 2 + k + 1 + paged_len_size(clen) + clen;
  const size_t total = 1 + paged_len_size(inner) + inner;
  char *buf = static_cast<char *>(olx_malloc(total + 1));
  if (buf == nullptr) return LDAP_NO_MEMORY;
  char *p = buf;
  *p++ = (char)ldap_proto::kSequence;
  p = write_paged_len(p, inner);
  *p++ = (char)ldap_proto::kInteger;
  *p++ = (char)k;
  for (int i = k - 1; i >= 0; --i) *p++ = (char)size[i];
  *p++ = (char)ldap_proto::kOctetString;
  p = write_paged_len(p, clen);
  if (clen) memcpy(p, cookie->bv_val, clen);
  int rc = ldap_build_control(out, LDAP_CONTROL_PAGEDRESULTS, total, buf, char_critical(critical));
  free(buf);
  return rc;
}

int ldap_parse_page_control(LDAP *, LDAPControl **ctrls, unsigned int *size, struct berval **cookie) {
  if (cookie) *cookie = nullptr;
  LDAPControl *c = find_control(ctrls, LDAP_CONTROL_PAGEDRESULTS);
  if (c == nullptr) return LDAP_CONTROL_NOT_FOUND;
  const auto *p = reinterpret_cast<const unsigned char *>(c->ldctl_value.bv_val);
  if (p == nullptr || c->ldctl_value.bv_len == 0) return LDAP_DECODING_ERROR;
  const unsigned char *end = p + c->ldctl_value.bv_len;
  size_t len, ilen, clen;
  if (*p++ != ldap_proto::kSequence || !read_paged_len(&p, end, &len) || len == 0 || (size_t)(end - p) < len)
    return LDAP_DECODING_ERROR;
  end = p + len;
  if (p >= end || *p++ != ldap_proto::kInteger || p >= end) return LDAP_DECODING_ERROR;
  ilen = *p++;
  if (ilen == 0 || ilen > 5 || (size_t)(end - p) < ilen) return LDAP_DECODING_ERROR;
  int64_t v = (p[0] & 0x80) ? -1 : 0;
  for (size_t i = 0; i < ilen; ++i) v = (v << 8) | p[i];
  p += ilen;
  if (p >= end || *p++ != ldap_proto::kOctetString || !read_paged_len(&p, end, &clen) || (size_t)(end - p) < clen)
    return LDAP_DECODING_ERROR;
  if (size) *size = (unsigned int)v;
  if (cookie) {
    *cookie = static_cast<struct berval *>(olx_calloc(1, sizeof(struct berval)));
    char *bytes = static_cast<char *>(olx_malloc(clen + 1));
    if (*cookie == nullptr || bytes == nullptr) {
      free(*cookie);
      free(bytes);
      *cookie = nullptr;
      return LDAP_NO_MEMORY;
    }
    memcpy(bytes, p, clen);
    bytes[clen] = '\0';
    (*cookie)->bv_val = bytes;
    (*cookie)->bv_len = clen;
  }
  return LDAP_SUCCESS;
}

int ldap_create_sort_control(LDAP *, LDAPsortkey **keys, char critical, LDAPControl **out) {
  if (keys == nullptr || out == nullptr) return LDAP_PARAM_ERROR;
  BerGuard g{fber_alloc()};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  if (fber_printf(g.ber, "{") != 0) return LDAP_ENCODING_ERROR;
  for (size_t i = 0; keys[i] != nullptr; ++i) {
    if (fber_printf(g.ber, "{s", keys[i]->sk_attrtype ? keys[i]->sk_attrtype : "") != 0) return LDAP_ENCODING_ERROR;
    if (keys[i]->sk_matchruleoid && fber_printf(g.ber, "ts", (ber_tag_t)0x80, keys[i]->sk_matchruleoid) != 0)
      return LDAP_ENCODING_ERROR;
    if (keys[i]->sk_reverseorder == 1 && fber_printf(g.ber, "tb", (ber_tag_t)0x81, 1) != 0)
      return LDAP_ENCODING_ERROR;
    if (fber_printf(g.ber, "}") != 0) return LDAP_ENCODING_ERROR;
  }
  if (fber_printf(g.ber, "}") != 0) return LDAP_ENCODING_ERROR;
  int rc = control_from_ber(LDAP_CONTROL_SORTREQUEST, char_critical(critical), g.ber, out);
  if (rc == LDAP_NO_MEMORY) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error: ber_flatten failed for sortkey (NULL)\n");
    return LDAP_ENCODING_ERROR;
  }
  return rc;
}

int ldap_parse_sort_control(LDAP *, LDAPControl **ctrls, unsigned long *result, char **attribute) {
  if (attribute) *attribute = nullptr;
  LDAPControl *c = find_control(ctrls, LDAP_CONTROL_SORTRESPONSE);
  if (c == nullptr) return LDAP_CONTROL_NOT_FOUND;
  BerGuard g{fber_init2(&c->ldctl_value)};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  int code = 0;
  if (fber_scanf(g.ber, "{e", &code) == LBER_ERROR) return LDAP_DECODING_ERROR;
  if (result) *result = (unsigned long)code;
  ber_len_t len;
  // The attribute that caused a failure, [0] after the code, when present.
  if (attribute && fber_peek_tag(g.ber, &len) == 0x80 && fber_get_stringa(g.ber, attribute, 0) == LBER_ERROR)
    return LDAP_DECODING_ERROR;
  return LDAP_SUCCESS;
}

int ldap_parse_entrychange_control(LDAP *, LDAPControl **ctrls, int *changetype, char **prevdn, int *chgnumpresent,
                                   long *chgnum) {
  if (prevdn) *prevdn = nullptr;
  if (chgnumpresent) *chgnumpresent = 0;
  LDAPControl *c = find_control(ctrls, LDAP_CONTROL_ENTRYCHANGE);
  if (c == nullptr) return LDAP_CONTROL_NOT_FOUND;
  BerGuard g{fber_init2(&c->ldctl_value)};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  int type = 0;
  if (fber_scanf(g.ber, "{i", &type) == LBER_ERROR) return LDAP_DECODING_ERROR;
  if (changetype) *changetype = type;
  ber_len_t len;
  if (fber_peek_tag(g.ber, &len) == ldap_proto::kOctetString) {
    char *dn = nullptr;
    if (fber_scanf(g.ber, "a", &dn) == LBER_ERROR) return LDAP_DECODING_ERROR;
    if (prevdn)
      *prevdn = dn;
    else
      free(dn);
  }
  if (fber_peek_tag(g.ber, &len) == ldap_proto::kInteger) {
    int64_t n = 0;
    if (fber_get_long(g.ber, &n) == LBER_ERROR) return LDAP_DECODING_ERROR;
    if (chgnum) *chgnum = (long)n;
    if (chgnumpresent) *chgnumpresent = 1;
  }
  return LDAP_SUCCESS;
}

int ldap_create_persistentsearch_control(LDAP *, int changetypes, int changesonly, int return_echg_ctls,
                                         char critical, LDAPControl **out) {
  if (out == nullptr) return LDAP_PARAM_ERROR;
  if (!(changetypes == 1 || changetypes == 2 || changetypes == 4 || changetypes == 8 || changetypes == 15) ||
      (changesonly != 0 && changesonly != 1))
    return LDAP_PARAM_ERROR;
  BerGuard g{fber_alloc()};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  if (fber_printf(g.ber, "{iii}", changetypes, changesonly, return_echg_ctls) != 0) return LDAP_ENCODING_ERROR;
  return control_from_ber(LDAP_CONTROL_PERSISTENTSEARCH, (int)critical, g.ber, out);
}

int ldap_create_account_status_request(const char *dn, struct berval **out) {
  if (dn == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "EntryDN must not be NULL.\n");
    return LDAP_PARAM_ERROR;
  }
  if (out == nullptr) return LDAP_PARAM_ERROR;
  BerGuard g{fber_alloc()};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  if (fber_printf(g.ber, "{s}", dn) != 0) return LDAP_ENCODING_ERROR;
  return value_from_ber(g.ber, out);
}

int ldap_create_chaining_audit_control(char **list, const char *value, int critical, LDAPControl **out) {
  if (out == nullptr) return LDAP_PARAM_ERROR;
  BerGuard g{fber_alloc()};
  if (g.ber == nullptr) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_create_chaining_audit_control: failed in fber_alloc.\n");
    return LDAP_NO_MEMORY;
  }
  if (fber_printf(g.ber, "{{v}s}", list, value ? value : "") != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_create_chaining_audit_control: failed in fber_printf.\n");
    return LDAP_ENCODING_ERROR;
  }
  return control_from_ber(LDAP_CONTROL_CHAINING_AUDIT, critical, g.ber, out);
}

int ldap_create_group_control_from_list(char **groups, int normalized, LDAPControl **out) {
  if (out == nullptr) return LDAP_PARAM_ERROR;
  if (normalized != 0 && normalized != 1) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_create_group_control_from_list: failed. Invalid Normalized Value:%i.\n", normalized);
    return LDAP_PARAM_ERROR;
  }
  BerGuard g{fber_alloc()};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  if (fber_printf(g.ber, "{e{v}}", normalized, groups) != 0) return LDAP_ENCODING_ERROR;
  return control_from_ber(LDAP_CONTROL_GROUP, 1, g.ber, out);
}

int ldap_create_group_control(const struct berval *value, LDAPControl **out) {
  if (value == nullptr || out == nullptr) return LDAP_PARAM_ERROR;
  return ldap_build_control(out, LDAP_CONTROL_GROUP, value->bv_val ? value->bv_len : 0, value->bv_val, 1);
}

int ldap_create_oid25_control(LDAPControl **out) {
  if (out == nullptr) return LDAP_PARAM_ERROR;
  return ldap_build_control(out, LDAP_CONTROL_OID25, 0, nullptr, 1);
}

int ldap_create_oid26_control(LDAPControl **out) {
  if (out == nullptr) return LDAP_PARAM_ERROR;
  return ldap_build_control(out, LDAP_CONTROL_OID26, 0, nullptr, 1);
}

int ldap_create_oid33_control(int critical, LDAPControl **out) {
  if (out == nullptr) return LDAP_PARAM_ERROR;
  return ldap_build_control(out, LDAP_CONTROL_OID33, 0, nullptr, critical ? 1 : 0);
}

int ldap_create_transaction_control(const struct berval *txnid, LDAPControl **out) {
  if (txnid == nullptr || out == nullptr) return LDAP_PARAM_ERROR;
  return ldap_build_control(out, LDAP_CONTROL_TRANSACTION, txnid->bv_val ? txnid->bv_len : 0, txnid->bv_val, 1);
}

int ldap_create_end_transaction_request(const struct berval *txnid, int commit, struct berval **out) {
  if (txnid == nullptr || out == nullptr) return LDAP_PARAM_ERROR;
  const size_t n = txnid->bv_val ? txnid->bv_len : 0;
  auto *bv = static_cast<struct berval *>(olx_calloc(1, sizeof(struct berval)));
  char *bytes = static_cast<char *>(olx_malloc(n + 2));
  if (bv == nullptr || bytes == nullptr) {
    free(bv);
    free(bytes);
    return LDAP_NO_MEMORY;
  }
  bytes[0] = commit ? 1 : 0;
  if (n) memcpy(bytes + 1, txnid->bv_val, n);
  bytes[n + 1] = '\0';
  bv->bv_val = bytes;
  bv->bv_len = n + 1;
  *out = bv;
  return LDAP_SUCCESS;
}

int ldap_create_prepare_tranaction_request(const struct berval *txnid, struct berval **out) {
  if (txnid == nullptr || out == nullptr) return LDAP_PARAM_ERROR;
  const size_t n = txnid->bv_val ? txnid->bv_len : 0;
  auto *bv = static_cast<struct berval *>(olx_calloc(1, sizeof(struct berval)));
  char *bytes = static_cast<char *>(olx_malloc(n + 1));
  if (bv == nullptr || bytes == nullptr) {
    free(bv);
    free(bytes);
    return LDAP_NO_MEMORY;
  }
  if (n) memcpy(bytes, txnid->bv_val, n);
  bytes[n] = '\0';
  bv->bv_val = bytes;
  bv->bv_len = n;
  *out = bv;
  return LDAP_SUCCESS;
}

int ldap_create_group_eval_request(const char *dn, char **groups, struct berval **out) {
  if (dn == nullptr || out == nullptr) return LDAP_PARAM_ERROR;
  BerGuard g{fber_alloc()};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  int rc = groups ? fber_printf(g.ber, "{s{v}}", dn, groups) : fber_printf(g.ber, "{s}", dn);
  if (rc != 0) return LDAP_ENCODING_ERROR;
  return value_from_ber(g.ber, out);
}

int ldap_create_limit_num_values_control(LDAP *, int per_attribute, int total, int flag, int critical,
                                         LDAPControl **out) {
  if (out == nullptr) return LDAP_PARAM_ERROR;
  if (per_attribute < 0 || total < 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_create_limit_num_values_control: negative value!\n");
    return LDAP_PARAM_ERROR;
  }
  BerGuard g{fber_alloc()};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  if (fber_printf(g.ber, "{iib}", per_attribute, total, flag) != 0) return LDAP_ENCODING_ERROR;
  return control_from_ber(LDAP_CONTROL_LIMIT_NUM_VALUES, critical, g.ber, out);
}

void ldap_free_limit_num_values(LDAPLimitNumValues **list) {
  for (size_t i = 0; list != nullptr && list[i] != nullptr; ++i) {
    free(list[i]->lnv_attribute);
    free(list[i]);
  }
  free(list);
}

int ldap_parse_limit_num_values_response(LDAP *, LDAPControl **ctrls, char **dn, LDAPLimitNumValues ***attributes) {
  if (dn) *dn = nullptr;
  if (attributes) *attributes = nullptr;
  LDAPControl *c = find_control(ctrls, LDAP_CONTROL_LIMIT_NUM_VALUES);
  if (c == nullptr) return LDAP_CONTROL_NOT_FOUND;
  BerGuard g{fber_init2(&c->ldctl_value)};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  char *entry = nullptr;
  if (fber_scanf(g.ber, "{a", &entry) == LBER_ERROR) return LDAP_DECODING_ERROR;
  LDAPLimitNumValues **list = nullptr;
  int rc = read_item_list(g.ber, &list, [&](LDAPLimitNumValues *item) {
    return fber_scanf(g.ber, "{aii}", &item->lnv_attribute, &item->lnv_returned, &item->lnv_total);
  });
  if (rc != LDAP_SUCCESS || dn == nullptr) free(entry);
  if (rc != LDAP_SUCCESS || attributes == nullptr) {
    ldap_free_limit_num_values(list);
  } else {
    *attributes = list;
  }
  if (rc == LDAP_SUCCESS && dn) *dn = entry;
  return rc;
}

int ldap_create_effective_pwdpolicy_request(const char *dn, struct berval **out) {
  if (dn == nullptr || out == nullptr) return LDAP_PARAM_ERROR;
  BerGuard g{fber_alloc()};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  if (fber_printf(g.ber, "{s}", dn) != 0) return LDAP_ENCODING_ERROR;
  return value_from_ber(g.ber, out);
}

void ldap_free_effective_pwdpolicy(LDAPPolicyItem **items, char **trailing) {
  for (size_t i = 0; items != nullptr && items[i] != nullptr; ++i) {
    free(items[i]->lpi_name);
    fber_svecfree(items[i]->lpi_values);
    free(items[i]);
  }
  free(items);
  fber_svecfree(trailing);
}

int ldap_parse_effective_pwdpolicy_response(const char *oid, const struct berval *value, LDAPPolicyItem ***items,
                                            char ***trailing) {
  *items = nullptr;
  *trailing = nullptr;
  if (oid == nullptr || strcmp(oid, LDAP_EXOP_EFFECTIVE_PWDPOLICY_RESPONSE) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Unexpected extended response: %s\n", ldap_trace_str(oid));
    return LDAP_DECODING_ERROR;
  }
  if (value == nullptr) return LDAP_DECODING_ERROR;
  BerGuard g{fber_init2(value)};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  if (fber_scanf(g.ber, "{") == LBER_ERROR) return LDAP_DECODING_ERROR;
  LDAPPolicyItem **list = nullptr;
  int rc = read_item_list(g.ber, &list, [&](LDAPPolicyItem *item) {
    return fber_scanf(g.ber, "{a[v]}", &item->lpi_name, &item->lpi_values);
  });
  ber_len_t len;
  char **tail = nullptr;
  if (rc == LDAP_SUCCESS && fber_peek_tag(g.ber, &len) == 0x80 && fber_scanf(g.ber, "[v]", &tail) == LBER_ERROR)
    rc = LDAP_DECODING_ERROR;
  if (rc != LDAP_SUCCESS) {
    ldap_free_effective_pwdpolicy(list, tail);
    return rc;
  }
  *items = list;
  *trailing = tail;
  return LDAP_SUCCESS;
}

// The filter is encoded as a nested filter: the caller's string as it
// stands, without code-page translation.
int ldap_create_assertion_control(LDAP *, const char *filter, int critical, LDAPControl **out) {
  if (filter == nullptr || out == nullptr) return LDAP_PARAM_ERROR;
  BerGuard g{fber_alloc()};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  if (put_filter(g.ber, filter, 1) != 0) return LDAP_FILTER_ERROR;
  return control_from_ber(LDAP_CONTROL_ASSERTION, critical, g.ber, out);
}

int ldap_create_vlv_control(LDAP *, LDAPVLVInfo *info, LDAPControl **out) {
  if (info == nullptr || out == nullptr) return LDAP_PARAM_ERROR;
  if (info->ldvlv_attrvalue == nullptr && info->ldvlv_offset == 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_create_vlv_control: offset=0 not allowed.\n");
    return LDAP_PARAM_ERROR;
  }
  BerGuard g{fber_alloc()};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  if (fber_printf(g.ber, "{ii", info->ldvlv_before_count, info->ldvlv_after_count) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_create_vlv_control: failed in fber_printf - 1\n");
    return LDAP_ENCODING_ERROR;
  }
  int rc = info->ldvlv_attrvalue == nullptr
               ? fber_printf(g.ber, "t{ii}", (ber_tag_t)0xA0, info->ldvlv_offset, info->ldvlv_count)
               : fber_printf(g.ber, "to", (ber_tag_t)0x81, info->ldvlv_attrvalue->bv_val,
                             (int)info->ldvlv_attrvalue->bv_len);
  if (rc != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_create_vlv_control: failed in fber_printf - 2\n");
    return LDAP_ENCODING_ERROR;
  }
  if (info->ldvlv_context != nullptr &&
      fber_printf(g.ber, "o", info->ldvlv_context->bv_val, (int)info->ldvlv_context->bv_len) != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_create_vlv_control: failed in fber_printf - 3\n");
    return LDAP_ENCODING_ERROR;
  }
  if (fber_printf(g.ber, "}") != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_create_vlv_control: failed in fber_printf - 4\n");
    return LDAP_ENCODING_ERROR;
  }
  return control_from_ber(LDAP_CONTROL_VLVREQUEST, 1, g.ber, out);
}

// Returns the result code the server put in the control (0 = success), or
// LDAP_CONTROL_NOT_FOUND / LDAP_DECODING_ERROR / LDAP_NO_MEMORY.
int ldap_parse_vlv_control(LDAP *, LDAPControl **ctrls, unsigned long *target_pos, unsigned long *list_count,
                           struct berval **context) {
  if (context) *context = nullptr;
  LDAPControl *c = find_control(ctrls, LDAP_CONTROL_VLVRESPONSE);
  if (c == nullptr) return LDAP_CONTROL_NOT_FOUND;
  BerGuard g{fber_init2(&c->ldctl_value)};
  if (g.ber == nullptr) return LDAP_NO_MEMORY;
  int pos = 0, count = 0, code = 0;
  if (fber_scanf(g.ber, "{iie", &pos, &count, &code) == LBER_ERROR) return LDAP_DECODING_ERROR;
  if (target_pos) *target_pos = (unsigned long)pos;
  if (list_count) *list_count = (unsigned long)count;
  ber_len_t len;
  if (context && fber_peek_tag(g.ber, &len) == ldap_proto::kOctetString) {
    struct berval *ctx = nullptr;
    if (fber_scanf(g.ber, "O}", &ctx) == LBER_ERROR) return LDAP_DECODING_ERROR;
    *context = ctx;
  }
  return code;
}

}  // extern "C"
