// The attribute cursor over an entry and attribute counting.
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-search.h"
#include "ldap-utils.h"

namespace {

// The next attribute name at the cursor, or none at the end of the list
// (error record 0) or on failure (error record set).
char *next_name(LDAP *ld, BerElement *cursor) {
  ber_len_t len = 0;
  for (;;) {
    if (cursor->ber_ptr >= cursor->ber_end || fber_peek_tag(cursor, &len) == 0xA0) {
      ldap_set_errno_direct(ld, 0, nullptr, nullptr);
      return nullptr;
    }
    // An attribute whose description is longer than a name may be is passed
    // over; the attributes after it stay reachable.
    char *start = cursor->ber_ptr;
    if (fber_skip_tag(cursor, nullptr) == LBER_DEFAULT || fber_peek_tag(cursor, &len) == LBER_DEFAULT) {
      ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
      return nullptr;
    }
    cursor->ber_ptr = start;
    if (len <= LDAP_ATTR_NAME_MAX) break;
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_next_attribute: skipping a description of %lu bytes\n", (unsigned long)len);
    if (fber_skip_element(cursor) != 0) {
      ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
      return nullptr;
    }
  }
  auto *name = static_cast<char *>(olx_malloc(LDAP_ATTR_NAME_MAX + 1));
  if (name == nullptr) {
    ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
    return nullptr;
  }
  ber_len_t size = LDAP_ATTR_NAME_MAX + 1;
  const int translate = cursor->ber_noxlate == nullptr || *cursor->ber_noxlate == 0;
  // "{sx}" without the format interpreter: this runs once per attribute.
  if (fber_skip_tag(cursor, nullptr) == LBER_DEFAULT ||
      fber_get_stringb(cursor, name, &size, translate) == LBER_DEFAULT || fber_skip_element(cursor) != 0) {
    ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
    free(name);
    return nullptr;
  }
  return name;
}

}  // namespace

extern "C" {

char *ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **cursorp) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_first_attribute: ld(%p) entry(%p)\n", (void *)ld, (void *)entry);
  if (ldap_start_operation(ld) != 0) return nullptr;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  char *name = nullptr;
  if (entry == nullptr || cursorp == nullptr || entry->lm_ber == nullptr) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_first_attribute: returning (%s)\n", "NULL");
    ldap_end_operation(ld);
    return nullptr;
  }
  // The cursor is one block holding a copy of the entry's element record; it
  // reads the entry's own buffer and ldap_ber_free releases it with free().
  auto *cursor = static_cast<BerElement *>(olx_malloc(sizeof(BerElement)));
  *cursorp = cursor;
  if (cursor == nullptr) {
    ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
  } else {
    *cursor = *entry->lm_ber;
    if (fber_scanf(cursor, "{x{") == LBER_ERROR) {
      ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
    } else {
      name = next_name(ld, cursor);
    }
    if (name == nullptr && ldap_get_errno_direct(ld) != 0) {
      free(cursor);
      *cursorp = nullptr;
    }
  }
  ldap_end_operation(ld);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_first_attribute: returning (%s)\n", name ? name : "NULL");
  return name;
}

char *ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *cursor) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_next_attribute: ld(%p) entry(%p)\n", (void *)ld, (void *)entry);
  if (ldap_start_operation(ld) != 0) return nullptr;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  char *name = nullptr;
  if (entry == nullptr || cursor == nullptr)
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
  else
    name = next_name(ld, cursor);
  ldap_end_operation(ld);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_next_attribute: returning (%s)\n", name ? name : "NULL");
  return name;
}

int ldap_count_attributes(LDAP *ld, LDAPMessage *entry) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_count_attributes, ld(%p), entry(%p)\n", (void *)ld, (void *)entry);
  if (ldap_start_operation(ld) != 0) return -1;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  int n = 0;
  if (entry == nullptr || entry->lm_ber == nullptr) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
  } else {
    BerElement copy = *entry->lm_ber;
    if (fber_scanf(&copy, "{x{") == LBER_ERROR) {
      ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
    } else {
      ber_len_t len;
      while (copy.ber_ptr < copy.ber_end && fber_peek_tag(&copy, &len) != 0xA0) {
        if (fber_skip_element(&copy) != 0) break;
        ++n;
      }
    }
  }
  ldap_end_operation(ld);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_count_attributes: returning (%d)\n", n);
  return n;
}
}
