// Sessions in Latin-1, Shift-JIS and EBCDIC 037 against a slapd holding
// UTF-8: entries added in the local code page are stored as UTF-8, found by
// filters in the local code page and read back in it; characters the code
// page lacks come back as its substitution character.
#include <gtest/gtest.h>
#include <iconv.h>

#include <string>
#include <vector>

#include "ldap-search.h"
#include "ldap-update.h"
#include "ldap-xlate.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

const std::string kPolyglot =
    "Zo\xC3\xAB \xCE\xA9\xCE\xBC\xCE\xAD\xCE\xB3\xCE\xB1 \xE6\xBC\xA2\xE5\xAD\x97 \xF0\x9F\x98\x80";

// The local form of UTF-8 text as glibc writes it, character by character,
// with `subst` for what glibc cannot write (or writes as its SUB byte).
std::string local(const char *cs, const std::string &utf8, char subst = '?') {
  iconv_t cd = iconv_open(cs, "UTF-8");
  std::string out;
  for (size_t i = 0; i < utf8.size();) {
    const unsigned char b = utf8[i];
    const size_t n = b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
    char buf[16], *ip = const_cast<char *>(utf8.data() + i), *op = buf;
    size_t il = n, ol = sizeof buf;
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    const bool ok = iconv(cd, &ip, &il, &op, &ol) != static_cast<size_t>(-1) &&
                    iconv(cd, nullptr, nullptr, &op, &ol) != static_cast<size_t>(-1);
    std::string piece(buf, op - buf);
    const char sub = subst == '?' ? '\x1a' : '\x3f';
    out += ok && piece != std::string(1, sub) ? piece : std::string(1, subst);
    i += n;
  }
  iconv_close(cd);
  return out;
}

class XlateSlapd : public tavtest::SlapdSuite<XlateSlapd> {
 public:
  static tavtest::SlapdOptions options() {
    return {.extra_ldif = std::string("dn: cn=Polyglot,") + SlapdServer::kPeopleDn +
                          "\nobjectClass: person\ncn: Polyglot\nsn: " + kPolyglot + "\n\n"};
  }
  void SetUp() override {
    setenv("TISDIR", TAV_BUILD_DIR, 1);  // before ldap_init, which keeps a set TISDIR
    SlapdSuite::SetUp();
    ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
  }
  static void xlate(LDAP *ld, intptr_t value) {
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_XLATE, reinterpret_cast<void *>(value)), 0);  // 0 translates
  }
  // The sn values of the entries a subtree search under People finds.
  std::vector<std::string> sn_of(const std::string &base, const std::string &filter, const std::string &sn) {
    std::vector<std::string> out;
    LDAPMessage *res = nullptr;
    std::string attr = sn;
    char *attrs[] = {attr.data(), nullptr};
    EXPECT_EQ(ldap_search_s(ld, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), attrs, 0, &res), 0) << filter;
    for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
      char **v = ldap_get_values(ld, e, sn.c_str());
      out.push_back(v != nullptr ? v[0] : "<none>");
      ldap_value_free(v);
    }
    ldap_msgfree(res);
    return out;
  }
  // The DN ldap_get_dn gives for the one entry a subtree search finds.
  std::string dn_of(const std::string &base, const std::string &filter) {
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_s(ld, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), nullptr, 0, &res), 0) << filter;
    LDAPMessage *e = ldap_first_entry(ld, res);
    char *dn = e != nullptr ? ldap_get_dn(ld, e) : nullptr;
    std::string out = dn != nullptr ? dn : "<null>";
    ldap_memfree(dn);
    ldap_msgfree(res);
    return out;
  }
};

TEST_F(XlateSlapd, LocalCodePagesAddFindAndReadUtf8Entries) {
  const struct {
    const char *codepage, *glibc;
    std::string sn;  // UTF-8
    char subst;
    bool unicode;  // LDAP_USE_UNICODE: through UCS-2, where beyond the BMP is "?"
  } cases[] = {
      {"ISO8859-1", "ISO-8859-1", "M\xC3\xBCller Caf\xC3\xA9", '?', false},
      {"SJIS", "SJIS", "\xE6\xBC\xA2\xE5\xAD\x97\xE3\x81\x8B\xE3\x81\xAA", '?', false},
      {"IBM-037", "IBM037", "Caf\xC3\xA9 \xC3\x86gir", '\x6f', false},
      {"UTF-8", "UTF-8", "Caf\xC3\xA9 \xE6\xBC\xA2", '?', true},
  };
  int i = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.codepage);
    ASSERT_EQ(ldap_set_iconv_local_codepage(c.codepage), 0);
    setenv("LDAP_USE_UNICODE", c.unicode ? "yes" : "no", 1);
    xlate(ld, 0);
    auto L = [&](const std::string &utf8) { return local(c.glibc, utf8, c.subst); };
    const std::string cn = "xlate" + std::to_string(++i);
    const std::string dn = "cn=" + cn + "," + SlapdServer::kPeopleDn;
    std::string oc = L("objectClass"), person = L("person"), cn_attr = L("cn"), sn_attr = L("sn"), cn_l = L(cn),
                sn_l = L(c.sn);
    char *oc_v[] = {person.data(), nullptr}, *cn_v[] = {cn_l.data(), nullptr}, *sn_v[] = {sn_l.data(), nullptr};
    LDAPMod m1{LDAP_MOD_ADD, oc.data(), {oc_v}}, m2{LDAP_MOD_ADD, cn_attr.data(), {cn_v}},
        m3{LDAP_MOD_ADD, sn_attr.data(), {sn_v}};
    LDAPMod *mods[] = {&m1, &m2, &m3, nullptr};
    ASSERT_EQ(ldap_add_s(ld, L(dn).c_str(), mods), 0);

    // slapd holds the UTF-8 form: its own client finds the entry by it.
    std::string out;
    ASSERT_EQ(slapd->ldap_tool("ldapsearch", {"-LLL", "-b", SlapdServer::kPeopleDn, "(sn=" + c.sn + ")", "cn"}, &out),
              0);
    EXPECT_NE(out.find("cn: " + cn + "\n"), std::string::npos) << out;

    // A filter in the local code page finds it, and the value reads back in it.
    EXPECT_EQ(sn_of(L(SlapdServer::kPeopleDn), L("(sn=") + sn_l + L(")"), sn_attr), std::vector<std::string>{sn_l});
    EXPECT_EQ(dn_of(L(SlapdServer::kPeopleDn), L("(cn=" + cn + ")")), L(dn));
    // What the code page lacks comes back substituted.
    std::string polyglot = L(kPolyglot);
    if (c.unicode) polyglot.replace(polyglot.find("\xF0\x9F\x98\x80"), 4, "?");
    EXPECT_EQ(sn_of(L(SlapdServer::kPeopleDn), L("(cn=Polyglot)"), sn_attr), std::vector<std::string>{polyglot});

    // Untranslated, the session's bytes pass as they are.
    xlate(ld, 1);
    EXPECT_EQ(sn_of(SlapdServer::kPeopleDn, "(cn=Polyglot)", "sn"), std::vector<std::string>{kPolyglot});
  }
  unsetenv("LDAP_USE_UNICODE");
}

}  // namespace
