// The attribute cursor over an entry and attribute counting.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap-utils.h"

namespace {

// The next attribute name at the cursor, or none at the end of the list
// (error record 0) or on failure (error record set).  The headers are read in
// place ("{sx}" without the format interpreter: this runs once per
// attribute); on failure the cursor stays where the element readers would
// have left it.
char *next_name(LDAP *ld, BerElement *cursor) {
  const char *const end = cursor->ber_end;
  unsigned tag;
  ber_len_t len, name_len;
  const char *seq, *name_at, *contents;
  for (;;) {
    const char *p = cursor->ber_ptr;
    if (p >= end || (fber_header_at(p, end, &tag, &len, &contents) && tag == ldap_proto::kControls)) {
      ldap_set_errno_direct(ld, 0, nullptr, nullptr);
      return nullptr;
    }
    if (!fber_header_at(p, end, &tag, &len, &seq)) {
      ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
      return nullptr;
    }
    if (!fber_header_at(seq, end, &tag, &name_len, &name_at)) {
      cursor->ber_ptr = const_cast<char *>(seq);
      ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
      return nullptr;
    }
    // An attribute whose description is longer than a name may be is passed
    // over; the attributes after it stay reachable.
    if (name_len <= LDAP_ATTR_NAME_MAX) break;
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_next_attribute: skipping a description of %lu bytes\n", (unsigned long)name_len);
    cursor->ber_ptr = const_cast<char *>(seq) + std::min(len, static_cast<ber_len_t>(end - seq));
  }
  auto *name = static_cast<char *>(olx_malloc(LDAP_ATTR_NAME_MAX + 1));
  if (name == nullptr) {
    ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
    return nullptr;
  }
  cursor->ber_ptr = const_cast<char *>(seq);
  const int translate = cursor->ber_noxlate == nullptr || *cursor->ber_noxlate == 0;
  bool ok;
  if (translate) {
    ber_len_t size = LDAP_ATTR_NAME_MAX + 1;
    ok = fber_get_stringb(cursor, name, &size, translate) != LBER_DEFAULT;
  } else {
    ok = name_len <= static_cast<ber_len_t>(end - name_at);
    if (ok) {
      memcpy(name, name_at, name_len);
      name[name_len] = '\0';
      cursor->ber_ptr = const_cast<char *>(name_at) + name_len;
    }
  }
  // Past the value set.
  if (ok && (ok = fber_header_at(cursor->ber_ptr, end, &tag, &len, &contents)))
    cursor->ber_ptr = const_cast<char *>(contents) + std::min(len, static_cast<ber_len_t>(end - contents));
  if (!ok) {
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
  OperationScope bracket(ld);
  if (bracket.refused()) return nullptr;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  char *name = nullptr;
  BerElement view;
  const BerElement *element = entry != nullptr ? ldap_msg_ber(entry, &view) : nullptr;
  if (element == nullptr || cursorp == nullptr) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
    LDAP_LOG(LDAP_LOG_TRACE, "ldap_first_attribute: returning (%s)\n", "NULL");
    return nullptr;
  }
  // The cursor is one block holding a copy of the entry's element record; it
  // reads the entry's own buffer and ldap_ber_free releases it with free().
  auto *cursor = static_cast<BerElement *>(olx_malloc(sizeof(BerElement)));
  *cursorp = cursor;
  if (cursor == nullptr) {
    ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
  } else {
    *cursor = *element;
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
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_first_attribute: returning (%s)\n", ldap_trace_str(name, "NULL"));
  return name;
}

char *ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *cursor) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_next_attribute: ld(%p) entry(%p)\n", (void *)ld, (void *)entry);
  OperationScope bracket(ld);
  if (bracket.refused()) return nullptr;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  char *name = nullptr;
  if (entry == nullptr || cursor == nullptr)
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
  else
    name = next_name(ld, cursor);
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_next_attribute: returning (%s)\n", ldap_trace_str(name, "NULL"));
  return name;
}

int ldap_count_attributes(LDAP *ld, LDAPMessage *entry) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_count_attributes, ld(%p), entry(%p)\n", (void *)ld, (void *)entry);
  OperationScope bracket(ld);
  if (bracket.refused()) return -1;
  ldap_set_errno_direct(ld, 0, nullptr, nullptr);
  int n = 0;
  BerElement copy;
  if (!ldap_msg_reader(entry, &copy)) {
    ldap_set_errno_direct(ld, LDAP_PARAM_ERROR, nullptr, nullptr);
  } else {
    if (fber_scanf(&copy, "{x{") == LBER_ERROR) {
      ldap_set_errno_direct(ld, LDAP_DECODING_ERROR, nullptr, nullptr);
    } else {
      ber_len_t len;
      while (copy.ber_ptr < copy.ber_end && fber_peek_tag(&copy, &len) != ldap_proto::kControls) {
        if (fber_skip_element(&copy) != 0) break;
        ++n;
      }
    }
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_count_attributes: returning (%d)\n", n);
  return n;
}
}
