// Fuzzes the DN parser in both modes: the record's invariants, the round trip
// (the normalised form parses again to itself), and the public forms agreeing
// with the parse on whether the DN is acceptable.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ldap-dn.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

void free_list(char **list) {
  for (char **p = list; p != nullptr && *p != nullptr; ++p) free(*p);
  free(list);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string input(reinterpret_cast<const char *>(data), size);
  const char *text = input.c_str();  // stops at the first NUL, as callers' strings do
  int ordered_rc = 0;
  for (int mode : {LDAP_DN_MODE_ORDERED, LDAP_DN_MODE_SORTED}) {
    int rc = 0;
    LDAPDN *dn = ldap_dn_parse(text, mode, &rc);
    check(dn != nullptr && dn->dn_string != nullptr && dn->dn_string_upper != nullptr);
    check(strlen(dn->dn_string) == strlen(dn->dn_string_upper));
    long rdns = 0;
    for (LDAPRDN *r = dn->dn_rdns; r != nullptr; r = r->rdn_next, ++rdns) {
      long avas = 0;
      for (LDAPAVAList *a = r->rdn_avas; a != nullptr; a = a->al_next) ++avas;
      check(avas > 0 && avas == r->rdn_ava_count);
    }
    check(rdns == dn->dn_rdn_count);
    if (rc != 0) {
      check(dn->dn_string[0] == '\0');
    } else {
      int again_rc = 0;
      LDAPDN *again = ldap_dn_parse(dn->dn_string, mode, &again_rc);
      check(again != nullptr && again_rc == 0);
      check(strcmp(again->dn_string, dn->dn_string) == 0 && again->dn_rdn_count == dn->dn_rdn_count);
      ldap_dn_free(&again);
    }
    if (mode == LDAP_DN_MODE_ORDERED) ordered_rc = rc;
    ldap_dn_free(&dn);
  }

  const bool dotted = ldap_dn_is_dotted(text);
  for (int notypes = 0; notypes < 2; ++notypes) {
    char **parts = ldap_explode_dn(text, notypes);
    check((parts != nullptr) == (dotted || ordered_rc == 0));
    free_list(parts);
    char **avas = ldap_explode_rdn(text, notypes);
    check((avas != nullptr) == (ordered_rc == 0));
    check(avas == nullptr || *text == '\0' || avas[0] != nullptr);
    free_list(avas);
  }
  char *ufn = ldap_dn2ufn(text);
  check((ufn != nullptr) == (dotted || ordered_rc == 0));
  free(ufn);
  return 0;
}
