// LDAP URL parsing: components, defaults, decoding and refusals.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ldap-int.h"
#include "ldap-utils.h"

namespace {

const char *const kNone = nullptr;

struct Expect {
  const char *url;
  bool defaults;  // ldap_url_parse (true) or ldap_url_parse_internal
  const char *scheme;
  const char *host;
  int port;
  const char *dn;
  std::vector<std::string> attrs;  // empty: no array
  int scope;
  const char *filter;
};

void expect_str(const char *actual, const char *expected, const char *what, const char *url) {
  if (expected == nullptr)
    EXPECT_EQ(actual, nullptr) << what << " of " << url;
  else
    EXPECT_STREQ(actual, expected) << what << " of " << url;
}

}  // namespace

TEST(UrlParse, ComponentsAndDefaults) {
  const Expect cases[] = {
      {"ldap://host/o=x", true, "ldap", "host", 389, "o=x", {}, 0, "(objectClass=*)"},
      {"LDAPS://host", true, "LDAPS", "host", 636, kNone, {}, 0, "(objectClass=*)"},
      {"<URL:ldap://host:1389/o=x?cn,mail?sub?(cn=a%20b)>",
       true,
       "ldap",
       "host",
       1389,
       "o=x",
       {"cn", "mail"},
       2,
       "(cn=a b)"},
      {"ldap://[fe80::1]:636/o=x", true, "ldap", "fe80::1", 636, "o=x", {}, 0, "(objectClass=*)"},
      {"ldap://[::1]/o=x", false, "ldap", "::1", -1, "o=x", {}, -1, kNone},
      {"ldaps://[::1]", false, "ldaps", "::1", -2, kNone, {}, -1, kNone},
      {"ldaps://h", false, "ldaps", "h", -2, kNone, {}, -1, kNone},
      {"ldap://host/o=x??\?(a=b)?ext", true, "ldap", "host", 389, "o=x", {}, 0, "(a=b)?ext"},
      {"ldap://host/o=x?cn,,sn", true, "ldap", "host", 389, "o=x", {"cn", "", "sn"}, 0, "(objectClass=*)"},
      {"ldap://host/o=x?cn,", false, "ldap", "host", -1, "o=x", {"cn", ""}, -1, kNone},
      {"ldap://host/o=x?", false, "ldap", "host", -1, "o=x", {}, -1, kNone},
      {"ldap://host/o=x??", true, "ldap", "host", 389, "o=x", {}, 0, "(objectClass=*)"},
      {"ldap://host/o=x??ONE", true, "ldap", "host", 389, "o=x", {}, 1, "(objectClass=*)"},
      {"ldap://host/o=x??Base?", true, "ldap", "host", 389, "o=x", {}, 0, "(objectClass=*)"},
      {"ldap://host/o%3Dx%3fy", true, "ldap", "host", 389, "o=x?y", {}, 0, "(objectClass=*)"},
      {"ldap:///o=x", true, "ldap", kNone, 389, "o=x", {}, 0, "(objectClass=*)"},
      {"ldap://host/", true, "ldap", "host", 389, kNone, {}, 0, "(objectClass=*)"},
      {"ldap://h:/o=x", true, "ldap", "h", 0, "o=x", {}, 0, "(objectClass=*)"},
      {"ldap://h%41st", true, "ldap", "hAst", 389, kNone, {}, 0, "(objectClass=*)"},
      {"ldap://h/%63n=a?%6dail", true, "ldap", "h", 389, "cn=a", {"mail"}, 0, "(objectClass=*)"},
      {"<ldap://h/o=x", true, "ldap", "h", 389, "o=x", {}, 0, "(objectClass=*)"},   // ">" not required
      {"ldap://h/o=x>", true, "ldap", "h", 389, "o=x>", {}, 0, "(objectClass=*)"},  // not enclosed: kept
      {"url:LdAp://h", true, "LdAp", "h", 389, kNone, {}, 0, "(objectClass=*)"},
      // Stray escapes: an incomplete one ends decoding; others decode by arithmetic.
      {"ldap://h/o=x%4", true, "ldap", "h", 389, "o=x", {}, 0, "(objectClass=*)"},
      {"ldap://h/o=x%", true, "ldap", "h", 389, "o=x", {}, 0, "(objectClass=*)"},
      {"ldap://h/o=%6g", true, "ldap", "h", 389, "o=p", {}, 0, "(objectClass=*)"},
  };
  for (const auto &c : cases) {
    LDAPURLDesc *lud = nullptr;
    int rc = c.defaults ? ldap_url_parse(c.url, &lud) : ldap_url_parse_internal(c.url, &lud);
    ASSERT_EQ(rc, 0) << c.url;
    ASSERT_NE(lud, nullptr);
    expect_str(lud->lud_scheme, c.scheme, "scheme", c.url);
    expect_str(lud->lud_host, c.host, "host", c.url);
    EXPECT_EQ(lud->lud_port, c.port) << c.url;
    expect_str(lud->lud_dn, c.dn, "dn", c.url);
    EXPECT_EQ(lud->lud_scope, c.scope) << c.url;
    expect_str(lud->lud_filter, c.filter, "filter", c.url);
    EXPECT_EQ(lud->lud_string, nullptr);
    if (c.attrs.empty()) {
      EXPECT_EQ(lud->lud_attrs, nullptr) << c.url;
    } else {
      ASSERT_NE(lud->lud_attrs, nullptr) << c.url;
      size_t i = 0;
      for (; lud->lud_attrs[i] != nullptr; ++i) {
        ASSERT_LT(i, c.attrs.size()) << c.url;
        EXPECT_EQ(lud->lud_attrs[i], c.attrs[i]) << c.url;
      }
      EXPECT_EQ(i, c.attrs.size()) << c.url;
    }
    ldap_free_urldesc(lud);
  }
}

TEST(UrlParse, RefusalsLeaveNothingBehind) {
  struct {
    const char *url;
    int rc;
  } cases[] = {
      {"ldap://host:38x/o=x", LDAP_INVALID_SYNTAX},
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
      {nullptr, LDAP_URL_ERR_NOTLDAP},
  };
  for (const auto &c : cases) {
    for (auto parse : {ldap_url_parse, ldap_url_parse_internal}) {
      LDAPURLDesc *lud = reinterpret_cast<LDAPURLDesc *>(0x1);
      EXPECT_EQ(parse(c.url, &lud), c.rc) << (c.url ? c.url : "(null)");
      EXPECT_EQ(lud, nullptr);
    }
  }
  EXPECT_EQ(ldap_url_parse("ldap://h", nullptr), LDAP_PARAM_ERROR);
  ldap_free_urldesc(nullptr);
}

TEST(UrlParse, EveryAllocationFailureGivesUrlErrMem) {
  const char *urls[] = {"<URL:ldap://h%41:1389/o%3Dx?cn,mail,,sn?sub?(a=b)>", "ldaps://h", "ldap:///"};
  for (const char *url : urls) {
    for (long n = 1;; ++n) {
      olx_fail_alloc_at(n);
      LDAPURLDesc *lud = nullptr;
      int rc = ldap_url_parse(url, &lud);
      long used = olx_fail_alloc_at(0);
      if (used < n) {
        ASSERT_EQ(rc, 0) << url;
        ldap_free_urldesc(lud);
        break;
      }
      EXPECT_EQ(rc, LDAP_URL_ERR_MEM) << url << " allocation " << n;
      EXPECT_EQ(lud, nullptr);
    }
  }
}

TEST(UrlParse, RecognisesTheSchemeOnly) {
  struct {
    const char *text;
    int is_url;
  } cases[] = {
      {"ldap://h", 1}, {"LDAPS://", 1},  {"<URL:ldap:///", 1}, {"<ldaps://x", 1}, {"URL:ldap://", 1},
      {"ldap:/", 0},   {"ldapi://x", 0}, {" ldap://h", 0},     {"", 0},           {nullptr, 0},
  };
  for (const auto &c : cases) EXPECT_EQ(ldap_url_is_ldap_url(c.text), c.is_url) << (c.text ? c.text : "(null)");
}
