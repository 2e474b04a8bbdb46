// The string filter encoder, byte for byte, and the inputs it must refuse.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "alloc_sweep.h"
#include "ber_build.h"
#include "ldap-search.h"
#include "ldap-utils.h"
#include "ldap-xlate.h"

using tavtest::seq4;
using tavtest::str;
using tavtest::tlv;

namespace {

// Strings are expected to pass unchanged whatever the environment's locale:
// the local code page is UTF-8.
[[maybe_unused]] const int kLocalUtf8 = ldap_set_iconv_local_codepage("UTF-8");

std::string ava(unsigned tag, const std::string &a, const std::string &v) { return seq4(tag, str(a) + str(v)); }
std::string eq(const std::string &a, const std::string &v) { return ava(0xA3, a, v); }
std::string subs(const std::string &a, const std::string &pieces) { return seq4(0xA4, str(a) + seq4(0x30, pieces)); }
std::string ext(const std::string &rule, const std::string &attr, const std::string &value, bool dn) {
  return seq4(0xA9, (rule.empty() ? "" : tlv(0x81, rule)) + (attr.empty() ? "" : tlv(0x82, attr)) + tlv(0x83, value) +
                        tlv(0x84, std::string(1, dn ? '\xFF' : '\0')));
}

// The bytes put_filter writes, or "refused".
std::string encode(const std::string &filter) {
  tavtest::Ber ber(fber_alloc());
  return put_filter(ber.get(), filter.c_str(), 0) == 0 ? tavtest::written(ber.get()) : "refused";
}

TEST(FilterEncoder, EveryFilterFormEncodesAsTheProtocolDefines) {
  const std::pair<const char *, std::string> cases[] = {
      {"(cn=Ann Lee)", eq("cn", "Ann Lee")},
      {"cn=Ann Lee ", eq("cn", "Ann Lee")},
      {"  (  cn=x)", eq("cn", "x")},
      {"(cn= spaced\\20)", eq("cn", "spaced ")},
      {"(cn=*)", tlv(0x87, "cn")},
      {"(cn=**)", subs("cn", "")},
      {"(cn=a*b*c)", subs("cn", tlv(0x80, "a") + tlv(0x81, "b") + tlv(0x82, "c"))},
      {"(cn=a*)", subs("cn", tlv(0x80, "a"))},
      {"(cn=*a)", subs("cn", tlv(0x82, "a"))},
      {"(cn=*a*b*)", subs("cn", tlv(0x81, "a") + tlv(0x81, "b"))},
      {"(cn=*\\2a*)", subs("cn", tlv(0x81, "*"))},
      {"(age>=30)", ava(0xA5, "age", "30")},
      {"(age<=30)", ava(0xA6, "age", "30")},
      {"(cn~=jon)", ava(0xA8, "cn", "jon")},
      {"(cn\xE2\x80\xBE=jon)", ava(0xA8, "cn", "jon")},
      // Only overlines before the operator fold; several of them in one pass.
      {"(c\xE2\x80\xBEn\xE2\x80\xBE=j\xE2\x80\xBE)", ava(0xA8, "c~n", "j\xE2\x80\xBE")},
      {"(&(a=1)(b=2))", seq4(0xA0, eq("a", "1") + eq("b", "2"))},
      {"(|(a=1))", seq4(0xA1, eq("a", "1"))},
      {"(!(a=1))", seq4(0xA2, eq("a", "1"))},
      {"(!(a=1)(b=2))", seq4(0xA2, eq("a", "1") + eq("b", "2"))},
      {"(&(a=1)(|(b=2)(c=3)))", seq4(0xA0, eq("a", "1") + seq4(0xA1, eq("b", "2") + eq("c", "3")))},
      {"( & (a=1) (b=2) )", seq4(0xA0, eq("a", "1") + eq("b", "2"))},
      {"(&)", seq4(0xA0, "")},
      {"(a=1)(b=2)", eq("a", "1") + eq("b", "2")},
      {"(cn=a\\29b)", eq("cn", "a)b")},
      {"(cn=\\2a)", eq("cn", "*")},
      {"(cn=\\00)", eq("cn", "\\00")},
      {"(cn=x\\4A\\6b)", eq("cn", "xJk")},
      {"(cn:dn:2.5.13.5:=x)", ext("2.5.13.5", "cn", "x", true)},
      {"(:2.5.13.5:=x)", ext("2.5.13.5", "", "x", false)},
      {"(cn:caseExactMatch:=A\\2a)", ext("caseExactMatch", "cn", "A\\2a", false)},
      {"(:dn:2.5.13.5:=x)", ext("2.5.13.5", "", "x", true)},
      // RFC 4515: a "dn" part is the flag even when no rule follows; no rule at all is allowed.
      {"(ou:dn:=People)", ext("", "ou", "People", true)},
      {"(ou:DN:=People)", ext("", "ou", "People", true)},
      {"(sn:=Smith)", ext("", "sn", "Smith", false)},
      {"(cn:dn:caseExactMatch:=x)", ext("caseExactMatch", "cn", "x", true)},
      {"(:caseExactMatch:=x)", ext("caseExactMatch", "", "x", false)},
      {"", ""}};
  for (const auto &[filter, bytes] : cases) EXPECT_EQ(tavtest::hex(encode(filter)), tavtest::hex(bytes)) << filter;
}

TEST(FilterEncoder, AMegabyteOfOverlinesFoldsWithoutRecursing) {
  std::string overlines;
  for (int i = 0; i < 350000; ++i) overlines += "\xE2\x80\xBE";
  // Folded to tildes in one pass (it recursed once per overline before);
  // the encoder then reads them as an approximate match.
  EXPECT_NE(encode("(cn" + overlines + "=x)"), "refused");
}

TEST(FilterEncoder, MalformedFiltersAreRefused) {
  const char *bad[] = {"(cn=a\\)b)",  // "\\)" is no hex pair
                       "(a=1))",      "(a=1",         "a",        "(a)",         "(&(a=1)",    "(&(a=1)x)",
                       ")",           "(cn=\\zz)",    "(cn=\\4)", "(cn=\\",      "(cn=x\\",    "(:=x)",
                       "(cn::r:=x)",  "(cn:dn:::=x)", "((a=1)",   "(:dn:=x)",    "(cn::=x)",   "(cn:dn::=x)",
                       "(cn:r:s:=x)", "(&(a=1)))",    "(a=\\g0)", "(cn=a*\\q*)", "(!(a=1)(b)", "(|(a=1)((b=2))"};
  for (const char *f : bad) EXPECT_EQ(encode(f), "refused") << f;
}

TEST(FilterEncoder, CompressHexDecodesPairsInPlaceAndKeepsEscapedNul) {
  struct {
    const char *in;
    int rc;
    const char *out;
  } cases[] = {{"plain", 0, "plain"}, {"a\\41b", 0, "aAb"},  {"\\00x", 0, "\\00x"}, {"\\2A\\2a", 0, "**"},
               {"\\4", -1, nullptr},  {"\\xy", -1, nullptr}, {"end\\", -1, nullptr}};
  for (const auto &c : cases) {
    char buf[32];
    strcpy(buf, c.in);
    EXPECT_EQ(compress_hex(buf), c.rc) << c.in;
    if (c.out) {
      EXPECT_STREQ(buf, c.out) << c.in;
    }
  }
}

TEST(SortKeyList, KeysSplitIntoNameRuleAndReverseFlag) {
  LDAPsortkey **keys = nullptr;
  ASSERT_EQ(ldap_create_sort_keylist(&keys, " cn  -sn:caseExactOrderingMatch uid "), 0);
  ASSERT_NE(keys, nullptr);
  EXPECT_STREQ(keys[0]->sk_attrtype, "cn");
  EXPECT_EQ(keys[0]->sk_matchruleoid, nullptr);
  EXPECT_EQ(keys[0]->sk_reverseorder, 0);
  EXPECT_STREQ(keys[1]->sk_attrtype, "sn");
  EXPECT_STREQ(keys[1]->sk_matchruleoid, "caseExactOrderingMatch");
  EXPECT_EQ(keys[1]->sk_reverseorder, 1);
  EXPECT_STREQ(keys[2]->sk_attrtype, "uid");
  EXPECT_EQ(keys[3], nullptr);
  ldap_free_sort_keylist(keys);

  keys = reinterpret_cast<LDAPsortkey **>(1);
  EXPECT_EQ(ldap_create_sort_keylist(&keys, "   "), LDAP_PARAM_ERROR);
  EXPECT_EQ(keys, nullptr);
  EXPECT_EQ(ldap_create_sort_keylist(&keys, nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_create_sort_keylist(nullptr, "cn"), LDAP_PARAM_ERROR);
}

TEST(SortKeyList, EveryAllocationFailureGivesNoMemoryAndLeaksNothing) {
  LDAPsortkey **keys = nullptr;
  tavtest::sweep_allocations([&] { return ldap_create_sort_keylist(&keys, "cn -sn:rule uid:r2"); },
                             [&](int rc, bool failed, long n) {
                               EXPECT_EQ(rc, failed ? LDAP_NO_MEMORY : 0) << n;
                               EXPECT_EQ(keys == nullptr, failed);
                               if (keys) ldap_free_sort_keylist(std::exchange(keys, nullptr));
                             });
}

TEST(FilterEncoder, AllocationFailuresRefuseTheFilter) {
  BerElement *ber = fber_alloc();
  tavtest::sweep_allocations([&] { return put_filter(ber, "(&(cn=a*b)(!(sn=x\\41))(cn:dn:r:=v))", 0); },
                             [&](int rc, bool failed, long n) {
                               EXPECT_EQ(rc, failed ? -1 : 0) << n;
                               fber_free(std::exchange(ber, fber_alloc()));
                             });
  fber_free(ber);
}

}  // namespace
