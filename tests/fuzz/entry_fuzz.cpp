// Fuzzes the readers of a received entry (DN, attribute walk, value lookup)
// and checks that the readers that work on the bytes in place (sessions that
// do not translate), on a compact message as the reader receives it, give
// exactly what the copying readers give on a message with its own element.
// Input: one byte n, n bytes of an attribute name, then the entry's bytes
// from its protocol operation on.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ldap-engine.h"
#include "ldap-search.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

LDAPMessage *message(const std::string &op, int32_t noxlate) {
  auto *m = static_cast<LDAPMessage *>(calloc(1, sizeof(LDAPMessage)));
  struct berval bv = {op.size(), const_cast<char *>(op.data())};
  m->lm_ber = fber_init2(&bv);
  if (m->lm_ber == nullptr) {
    free(m);
    return nullptr;
  }
  m->lm_ber->ber_noxlate = static_cast<int32_t *>(malloc(sizeof(int32_t)));  // the element owns it
  *m->lm_ber->ber_noxlate = noxlate;
  m->lm_msgtype = 0x64;  // a search entry
  m->lm_msgid = 1;
  return m;
}

// Every value of `name` as one string ("-" when the lookup found nothing).
std::string values(LDAP *ld, LDAPMessage *e, const char *name) {
  struct berval **v = ldap_get_values_len(ld, e, name);
  if (v == nullptr) return "-";
  std::string out;
  for (int i = 0; v[i] != nullptr; ++i)
    out += std::to_string(v[i]->bv_len) + ":" + std::string(v[i]->bv_val, v[i]->bv_len);
  ldap_value_free_len(v);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static LDAP *ld = ldap_init("127.0.0.1", 389);
  if (size < 1 || ld == nullptr) return 0;
  const size_t n = data[0] % 32;
  if (size < 1 + n) return 0;
  const std::string name(reinterpret_cast<const char *>(data + 1),
                         strnlen(reinterpret_cast<const char *>(data + 1), n));
  const std::string op(reinterpret_cast<const char *>(data + 1 + n), size - 1 - n);
  LDAPMessage *copying = message(op, 0);
  ld->ld_xlate = 1;  // the session's settings go into the compact message
  LDAPMessage *in_place = ldap_msg_new_compact(ld, nullptr, 0x30, op.data(), op.size());
  ld->ld_xlate = 0;
  if (in_place != nullptr) {
    in_place->lm_msgtype = 0x64;
    in_place->lm_msgid = 1;
  }
  if (copying != nullptr && in_place != nullptr) {
    check(values(ld, copying, name.c_str()) == values(ld, in_place, name.c_str()));
    char *dn = ldap_get_dn(ld, in_place);
    ldap_memfree(dn);
    // Both walks give the same names, the same way of ending and the same values.
    BerElement *c1 = nullptr, *c2 = nullptr;
    char *a = ldap_first_attribute(ld, copying, &c1);
    const int e1 = ldap_get_errno(ld);
    char *b = ldap_first_attribute(ld, in_place, &c2);
    check(e1 == ldap_get_errno(ld));
    while (a != nullptr || b != nullptr) {
      check(a != nullptr && b != nullptr && strcmp(a, b) == 0);
      check(values(ld, copying, a) == values(ld, in_place, b));
      ldap_memfree(a);
      ldap_memfree(b);
      a = ldap_next_attribute(ld, copying, c1);
      const int n1 = ldap_get_errno(ld);
      b = ldap_next_attribute(ld, in_place, c2);
      check(n1 == ldap_get_errno(ld));
    }
    ldap_ber_free(c1);
    ldap_ber_free(c2);
  }
  if (copying != nullptr) free_msg(copying, 0);
  if (in_place != nullptr) free_msg(in_place, 0);
  return 0;
}
