// LDAP URL parsing: components, defaults, decoding and refusals.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "alloc_sweep.h"
#include "ldap-int.h"
#include "ldap-utils.h"

namespace {

// "scheme|host|port|dn|attr,attr|scope|filter", "-" for none.
std::string describe(const LDAPURLDesc *u) {
  auto s = [](const char *p) { return std::string(p ? p : "-"); };
  std::string attrs = u->lud_attrs ? "" : "-";
  for (char **a = u->lud_attrs; a && *a; ++a) attrs += (a == u->lud_attrs ? "" : ",") + std::string(*a);
  return s(u->lud_scheme) + "|" + s(u->lud_host) + "|" + std::to_string(u->lud_port) + "|" + s(u->lud_dn) + "|" +
         attrs + "|" + std::to_string(u->lud_scope) + "|" + s(u->lud_filter);
}

TEST(UrlParse, ComponentsAndDefaults) {
  // ldap_url_parse fills in the defaults; the internal parser leaves -1/-2.
  const std::pair<const char *, const char *> with_defaults[] = {
      {"ldap://host/o=x", "ldap|host|389|o=x|-|0|(objectClass=*)"},
      {"LDAPS://host", "LDAPS|host|636|-|-|0|(objectClass=*)"},
      {"<URL:ldap://host:1389/o=x?cn,mail?sub?(cn=a%20b)>", "ldap|host|1389|o=x|cn,mail|2|(cn=a b)"},
      {"ldap://[fe80::1]:636/o=x", "ldap|fe80::1|636|o=x|-|0|(objectClass=*)"},
      {"ldap://host/o=x??\?(a=b)?ext", "ldap|host|389|o=x|-|0|(a=b)?ext"},
      {"ldap://host/o=x?cn,,sn", "ldap|host|389|o=x|cn,,sn|0|(objectClass=*)"},
      {"ldap://host/o=x??", "ldap|host|389|o=x|-|0|(objectClass=*)"},
      {"ldap://host/o=x??ONE", "ldap|host|389|o=x|-|1|(objectClass=*)"},
      {"ldap://host/o=x??Base?", "ldap|host|389|o=x|-|0|(objectClass=*)"},
      {"ldap://host/o%3Dx%3fy", "ldap|host|389|o=x?y|-|0|(objectClass=*)"},
      {"ldap:///o=x", "ldap|-|389|o=x|-|0|(objectClass=*)"},
      {"ldap://host/", "ldap|host|389|-|-|0|(objectClass=*)"},
      {"ldap://h:/o=x", "ldap|h|0|o=x|-|0|(objectClass=*)"},
      {"ldap://h%41st", "ldap|hAst|389|-|-|0|(objectClass=*)"},
      {"ldap://h/%63n=a?%6dail", "ldap|h|389|cn=a|mail|0|(objectClass=*)"},
      {"<ldap://h/o=x", "ldap|h|389|o=x|-|0|(objectClass=*)"},   // ">" not required
      {"ldap://h/o=x>", "ldap|h|389|o=x>|-|0|(objectClass=*)"},  // not enclosed: kept
      {"url:LdAp://h", "LdAp|h|389|-|-|0|(objectClass=*)"},
      // Stray escapes: an incomplete one ends decoding; others decode by arithmetic.
      {"ldap://h/o=x%4", "ldap|h|389|o=x|-|0|(objectClass=*)"},
      {"ldap://h/o=x%", "ldap|h|389|o=x|-|0|(objectClass=*)"},
      {"ldap://h/o=%6g", "ldap|h|389|o=p|-|0|(objectClass=*)"}};
  const std::pair<const char *, const char *> without[] = {{"ldap://[::1]/o=x", "ldap|::1|-1|o=x|-|-1|-"},
                                                           {"ldaps://[::1]", "ldaps|::1|-2|-|-|-1|-"},
                                                           {"ldaps://h", "ldaps|h|-2|-|-|-1|-"},
                                                           {"ldap://host/o=x?cn,", "ldap|host|-1|o=x|cn,|-1|-"},
                                                           {"ldap://host/o=x?", "ldap|host|-1|o=x|-|-1|-"}};
  for (bool defaults : {true, false}) {
    for (const auto &[url, want] : defaults ? std::vector(std::begin(with_defaults), std::end(with_defaults))
                                            : std::vector(std::begin(without), std::end(without))) {
      LDAPURLDesc *lud = nullptr;
      ASSERT_EQ(defaults ? ldap_url_parse(url, &lud) : ldap_url_parse_internal(url, &lud), 0) << url;
      EXPECT_EQ(describe(lud), want) << url;
      EXPECT_EQ(lud->lud_string, nullptr);
      ldap_free_urldesc(lud);
    }
  }
}

TEST(UrlParse, RefusalsLeaveNothingBehind) {
  const std::pair<const char *, int> cases[] = {{"ldap://host:38x/o=x", LDAP_INVALID_SYNTAX},
                                                {"ldap://host:-1/o=x", LDAP_INVALID_SYNTAX},
                                                {"ldap://host:65536/o=x", LDAP_INVALID_SYNTAX},
                                                {"ldap://host:99999999999999999999", LDAP_INVALID_SYNTAX},
                                                {"ldap://[::1]:x/", LDAP_INVALID_SYNTAX},
                                                {"ldap://host/o=x??bogus", LDAP_URL_ERR_BADSCOPE},
                                                {"ldap://host/o=x?cn?subtree?(a=b)", LDAP_URL_ERR_BADSCOPE},
                                                {"ldapx://host", LDAP_URL_ERR_NOTLDAP},
                                                {"http://host", LDAP_URL_ERR_NOTLDAP},
                                                {"ldap:/host", LDAP_URL_ERR_NOTLDAP},
                                                {"<", LDAP_URL_ERR_NOTLDAP},
                                                {"<URL:", LDAP_URL_ERR_NOTLDAP},
                                                {"", LDAP_URL_ERR_NOTLDAP},
                                                {nullptr, LDAP_URL_ERR_NOTLDAP}};
  for (const auto &[url, rc] : cases) {
    for (auto parse : {ldap_url_parse, ldap_url_parse_internal}) {
      LDAPURLDesc *lud = reinterpret_cast<LDAPURLDesc *>(0x1);
      EXPECT_EQ(parse(url, &lud), rc) << (url ? url : "(null)");
      EXPECT_EQ(lud, nullptr);
    }
  }
  EXPECT_EQ(ldap_url_parse("ldap://h", nullptr), LDAP_PARAM_ERROR);
  ldap_free_urldesc(nullptr);
  const std::pair<const char *, int> schemes[] = {
      {"ldap://h", 1}, {"LDAPS://", 1},  {"<URL:ldap:///", 1}, {"<ldaps://x", 1}, {"URL:ldap://", 1},
      {"ldap:/", 0},   {"ldapi://x", 0}, {" ldap://h", 0},     {"", 0},           {nullptr, 0}};
  for (const auto &[text, is_url] : schemes) EXPECT_EQ(ldap_url_is_ldap_url(text), is_url) << (text ? text : "(null)");
}

TEST(UrlParse, EveryAllocationFailureGivesUrlErrMem) {
  for (const char *url : {"<URL:ldap://h%41:1389/o%3Dx?cn,mail,,sn?sub?(a=b)>", "ldaps://h", "ldap:///"}) {
    LDAPURLDesc *lud = nullptr;
    tavtest::sweep_allocations([&] { return ldap_url_parse(url, &lud); },
                               [&](int rc, bool failed, long n) {
                                 EXPECT_EQ(rc, failed ? LDAP_URL_ERR_MEM : 0) << url << " allocation " << n;
                                 EXPECT_EQ(lud == nullptr, failed);
                                 ldap_free_urldesc(std::exchange(lud, nullptr));
                               });
  }
}

}  // namespace
