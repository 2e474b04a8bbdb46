// Searches end to end against the private slapd loaded with entries made for
// these tests: every filter form, escapes, refused filters and scopes,
// attribute selection, limits, time-outs, references and binary values.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "fake_server.h"
#include "ldap-search.h"
#include "ldap-utils.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

constexpr const char *kFilters = "ou=Filters,dc=example,dc=com";
constexpr const char *kRefs = "ou=Refs,dc=example,dc=com";

std::string person(const std::string &uid, const std::string &cn, const std::string &sn, int number,
                   const std::string &extra) {
  return "dn: uid=" + uid + "," + kFilters + "\nobjectClass: inetOrgPerson\nobjectClass: posixAccount\nuid: " + uid +
         "\ncn: " + cn + "\nsn: " + sn + "\nuidNumber: " + std::to_string(number) +
         "\ngidNumber: 100\nhomeDirectory: /home/" + uid + "\n" + extra + "\n";
}

std::string test_data() {
  return std::string("dn: ") + kFilters + "\nobjectClass: organizationalUnit\nou: Filters\n\n" +
         person("f1", "Ann Lee", "Lee", 10, "description: a*b\n") +
         // description holds a backslash and two zeros; jpegPhoto 00 01 00 02.
         person("f2", "Bob Stone", "Stone", 20, "description: \\00\njpegPhoto:: AAEAAg==\n") +
         person("f3", "Carl Lee", "Lee", 30, "") + "dn: " + kRefs +
         "\nobjectClass: organizationalUnit\nou: Refs\n\n"
         "dn: ou=Away," +
         kRefs +
         "\nobjectClass: referral\nobjectClass: extensibleObject\nou: Away\n"
         "ref: ldap://elsewhere.example:389/ou=Away,dc=example,dc=com\n\n";
}

class Search : public tavtest::SlapdSuite<Search> {
 public:
  static tavtest::SlapdOptions options() {
    tavtest::SlapdOptions options;
    options.extra_ldif = test_data();
    options.people = 300;
    return options;
  }

 protected:
  void SetUp() override {
    ASSERT_NE(slapd, nullptr);
    ld = ldap_init("127.0.0.1", slapd->port());
    ASSERT_NE(ld, nullptr);
  }
  void TearDown() override {
    if (ld) ldap_unbind(ld);
  }
  // uids of the entries a one-level search of ou=Filters selects; rc gets the result.
  std::set<std::string> uids(const char *filter, int *rc) {
    LDAPMessage *res = nullptr;
    char uid[] = "uid";
    char *attrs[] = {uid, nullptr};
    *rc = ldap_search_s(ld, kFilters, LDAP_SCOPE_ONELEVEL, filter, attrs, 0, &res);
    std::set<std::string> out;
    for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
      char **v = ldap_get_values(ld, e, "uid");
      if (v && v[0]) out.insert(v[0]);
      ldap_value_free(v);
    }
    ldap_msgfree(res);
    return out;
  }
  LDAP *ld = nullptr;
};

using Set = std::set<std::string>;

TEST_F(Search, EveryFilterFormSelectsExactlyItsEntries) {
  struct {
    const char *filter;
    Set want;
  } cases[] = {
      {"(uid=f1)", {"f1"}},
      {"uid=f2 ", {"f2"}},
      {"(&(sn=Lee)(uidNumber>=20))", {"f3"}},
      {"(&(sn=Lee))", {"f1", "f3"}},
      {"(|(uid=f1)(uid=f2))", {"f1", "f2"}},
      {"(|(uid=f3))", {"f3"}},
      {"(!(sn=Lee))", {"f2"}},
      {"(&(objectClass=*)(!(|(uid=f1)(uid=f3))))", {"f2"}},
      {"(cn=*Lee)", {"f1", "f3"}},
      {"(cn=Ann*)", {"f1"}},
      {"(cn=*o*to*)", {"f2"}},
      {"(cn=B*St*ne)", {"f2"}},
      {"(description=*)", {"f1", "f2"}},
      {"(uidNumber<=10)", {"f1"}},
      {"(uidNumber>=30)", {"f3"}},
      {"(sn~=Lee)", {"f1", "f3"}},
      {"(sn:caseExactMatch:=Lee)", {"f1", "f3"}},
      {"(sn:caseExactMatch:=lee)", {}},
      {"(sn:2.5.13.2:=stone)", {"f2"}},
      {"(ou:dn:caseIgnoreMatch:=filters)", {"f1", "f2", "f3"}},
      {"(:dn:caseIgnoreMatch:=filters)", {"f1", "f2", "f3"}},
      {"(:caseIgnoreMatch:=bob stone)", {"f2"}},
      {"(description=a\\2ab)", {"f1"}},
      {"(description=\\00)", {"f2"}},
      {"(cn=\\41nn Lee)", {"f1"}},
  };
  for (const auto &c : cases) {
    int rc = -1;
    EXPECT_EQ(uids(c.filter, &rc), c.want) << c.filter;
    EXPECT_EQ(rc, LDAP_SUCCESS) << c.filter;
  }
}

TEST_F(Search, NotWithSeveralSubFiltersIsSentAsWritten) {
  // The server decides what a NOT of two filters means; the library's part is
  // to send it rather than refuse it.
  int rc = -1;
  uids("(!(uid=f1)(uid=f2))", &rc);
  EXPECT_NE(rc, LDAP_FILTER_ERROR);
  EXPECT_NE(rc, LDAP_PARAM_ERROR);
}

TEST_F(Search, BadFiltersGive87AndBadScopeGives89) {
  for (const char *f : {"(uid=f1", "(uid=f1))", "uid", "(description=\\zz)", "(cn:=x)", "(&(uid=f1)x)"}) {
    LDAPMessage *res = reinterpret_cast<LDAPMessage *>(1);
    EXPECT_EQ(ldap_search_s(ld, kFilters, 1, f, nullptr, 0, &res), LDAP_FILTER_ERROR) << f;
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_FILTER_ERROR) << f;
    EXPECT_EQ(ldap_search(ld, kFilters, 1, f, nullptr, 0), -1);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_FILTER_ERROR);
  }
  LDAPMessage *res = nullptr;
  struct timeval tv = {5, 0};
  EXPECT_EQ(ldap_search_st(ld, kFilters, 3, "(uid=f1)", nullptr, 0, &tv, &res), LDAP_PARAM_ERROR);
  EXPECT_EQ(res, nullptr);
  EXPECT_EQ(ldap_search(ld, kFilters, 3, "(uid=f1)", nullptr, 0), -1);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
  int id = 7;
  EXPECT_EQ(ldap_search_ext(ld, kFilters, 3, "(uid=f1)", nullptr, 0, nullptr, nullptr, nullptr, 0, &id),
            LDAP_PARAM_ERROR);
  EXPECT_EQ(id, -1);
  EXPECT_EQ(ldap_search_ext(ld, kFilters, 1, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, &id), LDAP_PARAM_ERROR);
}

TEST_F(Search, AttributeListsAndAttributesOnly) {
  char cn[] = "cn", photo[] = "jpegPhoto";
  char *attrs[] = {cn, photo, nullptr};
  for (int only = 0; only < 2; ++only) {
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_s(ld, kFilters, 1, "(uid=f2)", attrs, only, &res), LDAP_SUCCESS);
    LDAPMessage *e = ldap_first_entry(ld, res);
    ASSERT_NE(e, nullptr);
    BerElement *cursor = nullptr;
    std::vector<std::string> names;
    for (char *n = ldap_first_attribute(ld, e, &cursor); n; n = ldap_next_attribute(ld, e, cursor)) {
      names.push_back(n);
      ldap_memfree(n);
    }
    EXPECT_EQ(ldap_get_errno(ld), 0);
    ldap_ber_free(cursor);
    EXPECT_EQ(names, (std::vector<std::string>{"cn", "jpegPhoto"}));
    struct berval **v = ldap_get_values_len(ld, e, "JPEGPHOTO");
    if (only) {
      EXPECT_EQ(v, nullptr);
    } else {
      ASSERT_EQ(ldap_count_values_len(v), 1);
      EXPECT_EQ(std::string(v[0]->bv_val, v[0]->bv_len), std::string("\x00\x01\x00\x02", 4));
    }
    ldap_value_free_len(v);
    char *dn = ldap_get_dn(ld, e);
    EXPECT_EQ(std::string(dn), std::string("uid=f2,") + kFilters);
    ldap_memfree(dn);
    ldap_msgfree(res);
  }
}

TEST_F(Search, SizeLimitExceededKeepsTheEntriesThatArrived) {
  int two = 2;
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &two), 0);
  LDAPMessage *res = nullptr;
  struct timeval tv = {10, 0};
  EXPECT_EQ(ldap_search_st(ld, SlapdServer::kPeopleDn, 1, "(objectClass=*)", nullptr, 0, &tv, &res),
            LDAP_SIZELIMIT_EXCEEDED);
  ASSERT_NE(res, nullptr);
  EXPECT_EQ(ldap_count_entries(ld, res), 2);
  ldap_msgfree(res);
  res = nullptr;
  EXPECT_EQ(ldap_search_ext_s(ld, SlapdServer::kPeopleDn, 1, "(objectClass=*)", nullptr, 0, nullptr, nullptr, nullptr,
                              3, &res),
            LDAP_SIZELIMIT_EXCEEDED);
  EXPECT_EQ(ldap_count_entries(ld, res), 3);
  ldap_msgfree(res);
}

TEST_F(Search, TimedOutSearchMarksItsRowAndTheLateResultReleasesIt) {
  LDAPMessage *res = nullptr;
  struct timeval tiny = {0, 1};
  const int rc = ldap_search_st(ld, SlapdServer::kPeopleDn, 2, "(objectClass=*)", nullptr, 0, &tiny, &res);
  ASSERT_EQ(rc, LDAP_TIMEOUT);
  EXPECT_EQ(res, nullptr);
  ldap_msg_table *table = ld->ld_defconn->lc_msgtable;
  int marked = -1;
  for (uint32_t i = 1; i < table->size; ++i)
    if (table->rows[i].flags & LDAP_ROW_RELEASE_WHEN_DONE) marked = (int)i;
  ASSERT_GT(marked, 0);
  // Later searches read past the late answer, which frees the marked row.
  // slapd may answer them before it has finished the slow one, so keep
  // reading until the late result has come in.
  ASSERT_EQ(ldap_search_s(ld, SlapdServer::kPeopleDn, 2, "(objectClass=*)", nullptr, 0, &res), LDAP_SUCCESS);
  EXPECT_EQ(ldap_count_entries(ld, res), 301);
  ldap_msgfree(res);
  for (int i = 0; i < 500 && table->rows[marked].flags != 0; ++i) {
    ASSERT_EQ(ldap_search_s(ld, SlapdServer::user_dn(1).c_str(), 0, "(objectClass=*)", nullptr, 0, &res), LDAP_SUCCESS);
    ldap_msgfree(res);
  }
  EXPECT_EQ(table->rows[marked].flags, 0u);
  EXPECT_EQ(table->rows[marked].head, nullptr);
}

TEST_F(Search, SubtreeWithAReferralObjectGivesReferences) {
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF), 0);
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_search_s(ld, kRefs, 2, "(objectClass=*)", nullptr, 0, &res), LDAP_SUCCESS);
  EXPECT_EQ(ldap_count_entries(ld, res), 1);
  ASSERT_EQ(ldap_count_references(ld, res), 1);
  LDAPMessage *ref = ldap_first_reference(ld, res);
  EXPECT_EQ(ldap_next_reference(ld, ref), nullptr);
  char **urls = nullptr;
  ASSERT_EQ(ldap_parse_reference(ld, ref, &urls, nullptr, 0), 0);
  ASSERT_EQ(ldap_count_values(urls), 1);
  EXPECT_EQ(std::string(urls[0]).find("ldap://elsewhere.example:389/"), 0u);
  ldap_value_free(urls);
  ldap_msgfree(res);
}

TEST_F(Search, EveryAllocationFailureEndsWithADocumentedCodeAndNoLeak) {
  // Each run fails the nth allocation from the search call on, in a fresh
  // session so that a failure that closed the connection does not carry over.
  const std::set<int> documented = {LDAP_SUCCESS,      LDAP_NO_MEMORY,   LDAP_LOCAL_ERROR,   LDAP_ENCODING_ERROR,
                                    LDAP_FILTER_ERROR, LDAP_SERVER_DOWN, LDAP_DECODING_ERROR};
  char cn[] = "cn";
  char *attrs[] = {cn, nullptr};
  std::set<int> codes;
  for (long n = 1; n < 400; ++n) {
    LDAP *s = ldap_init("127.0.0.1", slapd->port());
    ASSERT_NE(s, nullptr);
    struct timeval tv = {5, 0};
    LDAPMessage *res = nullptr;
    olx_fail_alloc_at(n);
    const int rc = ldap_search_st(s, kFilters, 1, "(&(uid=f*)(!(cn=x\\41*)))", attrs, 0, &tv, &res);
    const long used = olx_fail_alloc_at(0);
    EXPECT_TRUE(documented.count(rc)) << "allocation " << n << " gave " << rc;
    if (rc == LDAP_SUCCESS) {
      EXPECT_EQ(ldap_count_entries(s, res), 3);
    }
    ldap_msgfree(res);
    ldap_unbind(s);
    codes.insert(rc);
    if (used < n) break;
  }
  // The sweep reached the end and the failures were seen as failures.
  EXPECT_TRUE(codes.count(LDAP_SUCCESS));
  EXPECT_TRUE(codes.count(LDAP_NO_MEMORY));
}

// The request as it reaches a server: the time limit a synchronous search
// sends and the one an explicit time-out sends.
TEST(SearchRequest, TimeLimitSentFollowsTheForm) {
  auto time_limit_of = [](const std::string &pdu) {
    // {i t{ s e e i i b: find the two INTEGERs after the two ENUMERATEDs.
    size_t at = pdu.find('\x0a');
    at = pdu.find('\x0a', at + 3);
    at += 3;                // past deref
    at += 2 + pdu[at + 1];  // past size limit
    int v = 0;
    for (int i = 0; i < pdu[at + 1]; ++i) v = v << 8 | (unsigned char)pdu[at + 2 + i];
    return v;
  };
  for (int form = 0; form < 2; ++form) {
    tavtest::FakeServer server;
    std::string request;
    server.on_request([&](const std::string &r) {
      request = r;
      return std::string();
    });
    server.hold_until_closed();
    server.start();
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    ASSERT_NE(ld, nullptr);
    int seven = 7;
    ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &seven);
    if (form == 0) {
      struct timeval wait = {0, 200000};
      LDAPMessage *res = nullptr;
      EXPECT_EQ(ldap_search_st(ld, "o=x", 0, "(a=1)", nullptr, 0, &wait, &res), LDAP_TIMEOUT);
    } else {
      struct timeval half_ms = {0, 500};
      int id = 0;
      EXPECT_EQ(ldap_search_ext(ld, "o=x", 0, "(a=1)", nullptr, 0, nullptr, nullptr, &half_ms, 0, &id), 0);
    }
    ldap_unbind(ld);
    ASSERT_TRUE(server.wait_done());
    EXPECT_EQ(time_limit_of(request), form == 0 ? 7 : 1);
  }
}

}  // namespace
