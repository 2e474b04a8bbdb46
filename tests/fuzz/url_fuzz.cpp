// Fuzzes the LDAP URL parser with and without defaults, checking the
// invariants of every record it returns against the input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ldap-int.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string url(reinterpret_cast<const char *>(data), size);
  const char *text = url.c_str();  // stops at the first NUL, as callers' strings do
  const bool recognised = ldap_url_is_ldap_url(text) == 1;
  for (int defaults = 0; defaults < 2; ++defaults) {
    LDAPURLDesc *lud = nullptr;
    int rc = defaults ? ldap_url_parse(text, &lud) : ldap_url_parse_internal(text, &lud);
    check((rc == LDAP_URL_ERR_NOTLDAP) == !recognised);
    if (rc != 0) {
      check(lud == nullptr);
      check(rc == LDAP_INVALID_SYNTAX || rc == LDAP_URL_ERR_NOTLDAP || rc == LDAP_URL_ERR_BADSCOPE);
      continue;
    }
    check(lud != nullptr && lud->lud_scheme != nullptr && lud->lud_string == nullptr);
    check(strcasecmp(lud->lud_scheme, "ldap") == 0 || strcasecmp(lud->lud_scheme, "ldaps") == 0);
    check(lud->lud_host == nullptr || strlen(lud->lud_host) <= strlen(text));
    if (defaults) {
      check(lud->lud_port >= 0 && lud->lud_port <= 65535);
      check(lud->lud_scope >= 0 && lud->lud_scope <= 2);
      check(lud->lud_filter != nullptr);
    } else {
      check(lud->lud_port >= -2 && lud->lud_port <= 65535);
      check(lud->lud_scope >= -1 && lud->lud_scope <= 2);
    }
    if (lud->lud_attrs != nullptr)
      for (char **a = lud->lud_attrs; *a != nullptr; ++a) check(strlen(*a) <= strlen(text));
    ldap_free_urldesc(lud);
  }
  return 0;
}
