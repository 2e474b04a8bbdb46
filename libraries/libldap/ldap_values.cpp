// Values of one attribute of an entry, as strings or as binary values, and
// the functions that count and free value lists.
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-protocol.h"
#include "ldap-search.h"

namespace {

inline bool translates(const BerElement *ber) { return ber->ber_noxlate == nullptr || *ber->ber_noxlate == 0; }

// ASCII case folding of the first byte rejects most names without a call.
inline bool same_first(char a, char b) {
  const unsigned char x = static_cast<unsigned char>(a), y = static_cast<unsigned char>(b);
  return !(x < 0x80 && y < 0x80 && (x | 0x20) != (y | 0x20));
}
inline bool same_name(const char *a, const char *b) { return same_first(*a, *b) && strcasecmp(a, b) == 0; }

// The untranslated form of the lookup below, on the bytes directly:
// the same steps and the same outcome for every input, the names compared in
// place.  The copying loop compares a name only up to its first NUL, so a
// longer name whose NUL comes right after the looked-up name matches too.
bool find_attribute_in_place(BerElement *copy, const char *attr) {
  const size_t attr_len = strlen(attr);
  const char *p = copy->ber_ptr, *const end = copy->ber_end;
  unsigned tag;
  ber_len_t len;
  const char *contents;
  // Into the operation, past the DN, into the attribute list.
  if (!fber_header_at(p, end, &tag, &len, &contents)) return false;
  p = contents;
  if (!fber_header_at(p, end, &tag, &len, &contents)) return false;
  p = contents + std::min(len, static_cast<size_t>(end - contents));
  if (!fber_header_at(p, end, &tag, &len, &contents)) return false;
  p = contents;
  for (bool first = true;; first = false) {
    if (!first) {  // past the rest of the attribute
      if (!fber_header_at(p, end, &tag, &len, &contents)) return false;
      p = contents + std::min(len, static_cast<size_t>(end - contents));
    }
    if (p >= end || !fber_header_at(p, end, &tag, &len, &contents) || tag != ldap_proto::kSequence) return false;
    p = contents;
    if (!fber_header_at(p, end, &tag, &len, &contents)) return false;
    if (len > LDAP_ATTR_NAME_MAX) {  // passed over, as below
      p = contents + std::min(len, static_cast<size_t>(end - contents));
      continue;
    }
    if (len > static_cast<size_t>(end - contents)) return false;
    p = contents + len;
    if (len < attr_len || (len > attr_len && contents[attr_len] != '\0')) continue;
    if (attr_len == 0 || (same_first(*contents, *attr) && strncasecmp(contents, attr, attr_len) == 0)) {
      copy->ber_ptr = const_cast<char *>(p);
      return true;
    }
  }
}

// Positions `copy` at the value set of `attr` (compared without regard to
// case).  False when the entry is malformed or has no such attribute.  The
// element readers are called directly: this loop runs once per attribute of
// every lookup, and the format interpreter is most of its cost.
bool find_attribute(BerElement *copy, const char *attr) {
  char type[LDAP_ATTR_NAME_MAX + 1];
  const int translate = translates(copy);
  if (!translate) return find_attribute_in_place(copy, attr);
  if (fber_skip_tag(copy, nullptr) == LBER_DEFAULT || fber_skip_element(copy) != 0 ||
      fber_skip_tag(copy, nullptr) == LBER_DEFAULT)
    return false;
  for (bool first = true;; first = false) {
    ber_len_t len;
    // Past the last attribute the next tag is not a SEQUENCE (the entry's
    // controls, or nothing), which ends the search.
    if (!first && fber_skip_element(copy) != 0) return false;
    if (copy->ber_ptr >= copy->ber_end || fber_peek_tag(copy, &len) != ldap_proto::kSequence) return false;
    ber_len_t size = sizeof type;
    if (fber_skip_tag(copy, nullptr) == LBER_DEFAULT || fber_peek_tag(copy, &len) == LBER_DEFAULT) return false;
    // A description longer than any name looked up is passed over, not taken
    // for the end of the entry.
    if (len >= sizeof type) {
      if (fber_skip_element(copy) != 0) return false;
      continue;
    }
    if (fber_get_stringb(copy, type, &size, translate) == LBER_DEFAULT) return false;
    if (same_name(type, attr)) return true;
  }
}

ber_tag_t scan(BerElement *ber, struct berval ***out) { return fber_scan_values(ber, out); }
ber_tag_t scan(BerElement *ber, char ***out) { return fber_scan_strings(ber, out); }

template <typename T>
T **get_values(const char *name, LDAP *ld, LDAPMessage *entry, const char *attr) {
  LDAP_LOG(LDAP_LOG_TRACE, "%s: ld(%p) entry(%p) attr(%s)\n", name, (void *)ld, (void *)entry,
           ldap_trace_str(attr, "NULL"));
  OperationScope bracket(ld);
  if (bracket.refused()) return nullptr;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  T **vals = nullptr;
  BerElement copy;
  if (attr == nullptr || !ldap_msg_reader(entry, &copy)) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
  } else {
    if (!find_attribute(&copy, attr) || scan(&copy, &vals) == LBER_ERROR)
      ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
  }
  return vals;
}

}  // namespace

extern "C" {

char **ldap_get_values(LDAP *ld, LDAPMessage *entry, const char *attr) {
  return get_values<char>("ldap_get_values", ld, entry, attr);
}

struct berval **ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr) {
  return get_values<struct berval>("ldap_get_values_len", ld, entry, attr);
}

void ldap_value_free(char **vals) { fber_svecfree(vals); }

void ldap_value_free_len(struct berval **vals) { fber_bvecfree(vals); }

int ldap_count_values(char **vals) {
  int n = 0;
  while (vals != nullptr && vals[n] != nullptr) ++n;
  return n;
}

int ldap_count_values_len(struct berval **vals) {
  int n = 0;
  while (vals != nullptr && vals[n] != nullptr) ++n;
  return n;
}
}
