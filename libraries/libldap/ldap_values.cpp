// Values of one attribute of an entry, as strings or as binary values, and
// the functions that count and free value lists.
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-search.h"

namespace {

inline bool translates(const BerElement *ber) { return ber->ber_noxlate == nullptr || *ber->ber_noxlate == 0; }

// ASCII case folding of the first byte rejects most names without a call.
inline bool same_name(const char *a, const char *b) {
  const unsigned char x = static_cast<unsigned char>(*a), y = static_cast<unsigned char>(*b);
  if (x < 0x80 && y < 0x80 && (x | 0x20) != (y | 0x20)) return false;
  return strcasecmp(a, b) == 0;
}

// Positions `copy` at the value set of `attr` (compared without regard to
// case).  False when the entry is malformed or has no such attribute.  The
// element readers are called directly: this loop runs once per attribute of
// every lookup, and the format interpreter is most of its cost.
bool find_attribute(BerElement *copy, const char *attr) {
  char type[LDAP_ATTR_NAME_MAX + 1];
  const int translate = translates(copy);
  if (fber_skip_tag(copy, nullptr) == LBER_DEFAULT || fber_skip_element(copy) != 0 ||
      fber_skip_tag(copy, nullptr) == LBER_DEFAULT)
    return false;
  for (bool first = true;; first = false) {
    ber_len_t len;
    // Past the last attribute the next tag is not a SEQUENCE (the entry's
    // controls, or nothing), which ends the search.
    if (!first && fber_skip_element(copy) != 0) return false;
    if (copy->ber_ptr >= copy->ber_end || fber_peek_tag(copy, &len) != 0x30) return false;
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

template <typename T>
T **get_values(const char *name, LDAP *ld, LDAPMessage *entry, const char *attr, const char *format) {
  LDAP_LOG(LDAP_LOG_TRACE, "%s: ld(%p) entry(%p) attr(%s)\n", name, (void *)ld, (void *)entry, attr ? attr : "NULL");
  if (ldap_start_operation(ld) != 0) return nullptr;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  T **vals = nullptr;
  if (entry == nullptr || attr == nullptr || entry->lm_ber == nullptr) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
  } else {
    BerElement copy = *entry->lm_ber;
    if (!find_attribute(&copy, attr) || fber_scanf(&copy, format, &vals) == LBER_ERROR)
      ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
  }
  ldap_end_operation(ld);
  return vals;
}

}  // namespace

extern "C" {

char **ldap_get_values(LDAP *ld, LDAPMessage *entry, const char *attr) {
  return get_values<char>("ldap_get_values", ld, entry, attr, "[v]");
}

struct berval **ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr) {
  return get_values<struct berval>("ldap_get_values_len", ld, entry, attr, "[V]");
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
