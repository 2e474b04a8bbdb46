// Searches end to end against the private slapd: every filter form selects
// what the server says it selects, attribute selection, limits, time-outs,
// references, and allocation failures at every step.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "ber_build.h"
#include "fake_server.h"
#include "ldap-protocol.h"
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
         "\ngidNumber: 100\nhomeDirectory: /h\n" + extra + "\n";
}

class Search : public tavtest::SlapdSuite<Search> {
 public:
  static tavtest::SlapdOptions options() {
    tavtest::SlapdOptions options;
    options.people = 300;
    // description holds "a*b" and a backslash with two zeros; jpegPhoto 00 01 00 02.
    options.extra_ldif = std::string("dn: ") + kFilters + "\nobjectClass: organizationalUnit\nou: Filters\n\n" +
                         person("f1", "Ann Lee", "Lee", 10, "description: a*b\n") +
                         person("f2", "Bob Stone", "Stone", 20, "description: \\00\njpegPhoto:: AAEAAg==\n") +
                         person("f3", "Carl Lee", "Lee", 30, "") + "dn: " + kRefs +
                         "\nobjectClass: organizationalUnit\nou: Refs\n\ndn: ou=Away," + kRefs +
                         "\nobjectClass: referral\nobjectClass: extensibleObject\nou: Away\n"
                         "ref: ldap://elsewhere.example:389/ou=Away,dc=example,dc=com\n\n";
    return options;
  }
  // The uids a one-level search of ou=Filters selects, space-separated, and the code.
  std::string uids(const char *filter) {
    LDAPMessage *res = nullptr;
    char uid[] = "uid", *attrs[] = {uid, nullptr};
    std::string out = std::to_string(ldap_search_s(ld, kFilters, LDAP_SCOPE_ONELEVEL, filter, attrs, 0, &res)) + ":";
    std::set<std::string> found;
    for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
      char **v = ldap_get_values(ld, e, "uid");
      found.insert(v ? v[0] : "?");
      ldap_value_free(v);
    }
    ldap_msgfree(res);
    for (const auto &u : found) out += " " + u;
    return out;
  }
};

TEST_F(Search, EveryFilterFormSelectsExactlyItsEntries) {
  const std::pair<const char *, const char *> cases[] = {{"(uid=f1)", "0: f1"},
                                                         {"uid=f2 ", "0: f2"},
                                                         {"(&(sn=Lee)(uidNumber>=20))", "0: f3"},
                                                         {"(&(sn=Lee))", "0: f1 f3"},
                                                         {"(|(uid=f1)(uid=f2))", "0: f1 f2"},
                                                         {"(|(uid=f3))", "0: f3"},
                                                         {"(!(sn=Lee))", "0: f2"},
                                                         {"(&(objectClass=*)(!(|(uid=f1)(uid=f3))))", "0: f2"},
                                                         {"(cn=*Lee)", "0: f1 f3"},
                                                         {"(cn=Ann*)", "0: f1"},
                                                         {"(cn=*o*to*)", "0: f2"},
                                                         {"(cn=B*St*ne)", "0: f2"},
                                                         {"(description=*)", "0: f1 f2"},
                                                         {"(uidNumber<=10)", "0: f1"},
                                                         {"(uidNumber>=30)", "0: f3"},
                                                         {"(sn~=Lee)", "0: f1 f3"},
                                                         {"(sn:caseExactMatch:=Lee)", "0: f1 f3"},
                                                         {"(sn:caseExactMatch:=lee)", "0:"},
                                                         {"(sn:2.5.13.2:=stone)", "0: f2"},
                                                         {"(ou:dn:caseIgnoreMatch:=filters)", "0: f1 f2 f3"},
                                                         {"(:dn:caseIgnoreMatch:=filters)", "0: f1 f2 f3"},
                                                         {"(:caseIgnoreMatch:=bob stone)", "0: f2"},
                                                         {"(ou:dn:=Filters)", "0: f1 f2 f3"},
                                                         {"(sn:=Lee)", "0: f1 f3"},
                                                         {"(description=a\\2ab)", "0: f1"},
                                                         {"(description=\\00)", "0: f2"},
                                                         {"(cn=\\41nn Lee)", "0: f1"},
                                                         // Refused before anything is sent (the
                                                         // malformed forms: filter_encoder_test).
                                                         {"(uid=f1", "87:"}};
  for (const auto &[filter, want] : cases) EXPECT_EQ(uids(filter), want) << filter;
  EXPECT_EQ(ldap_search(ld, kFilters, 1, "(uid=f1", nullptr, 0), -1);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_FILTER_ERROR);
  LDAPMessage *res = reinterpret_cast<LDAPMessage *>(1);
  struct timeval tv = {5, 0};
  EXPECT_EQ(ldap_search_st(ld, kFilters, 3, "(uid=f1)", nullptr, 0, &tv, &res), LDAP_PARAM_ERROR);  // bad scope
  EXPECT_EQ(res, nullptr);
  int id = 7;
  EXPECT_EQ(ldap_search_ext(ld, kFilters, 1, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, &id), LDAP_PARAM_ERROR);
  EXPECT_EQ(id, -1);
}

// Each run fails the nth allocation from the search call on, in a fresh
// session so that a failure that closed the connection does not carry over.
// The code names the step: 87 while encoding the filter, 90 elsewhere while
// sending, 81 when reading had no memory (the wait then fails as for a broken
// socket), 84 when a result's strings could not be copied.
TEST_F(Search, EveryAllocationFailureEndsWithTheStepsCodeOrTheWholeResult) {
  char cn[] = "cn", *attrs[] = {cn, nullptr};
  std::set<int> codes;
  for (long n = 1; n < 400; ++n) {
    LDAP *s = ldap_init("127.0.0.1", slapd->port());
    struct timeval tv = {5, 0};
    LDAPMessage *res = nullptr;
    olx_fail_alloc_at(n);
    const int rc = ldap_search_st(s, kFilters, 1, "(&(uid=f*)(!(cn=x\\41*)))", attrs, 0, &tv, &res);
    const long used = olx_fail_alloc_at(0);
    codes.insert(rc);
    EXPECT_TRUE(rc == 0 || rc == 81 || rc == 84 || rc == 87 || rc == 90) << "allocation " << n << ": " << rc;
    EXPECT_EQ(rc == 0 ? ldap_count_entries(s, res) : -1, rc == 0 ? 3 : -1) << "allocation " << n;
    ldap_msgfree(res);
    ldap_unbind(s);
    if (used < n) break;
  }
  EXPECT_EQ(codes, (std::set<int>{0, 81, 84, 87, 90}));
}

// The time limit a request carries: the session's for a synchronous search
// with a time-out, the time-out itself (rounded up) for ldap_search_ext.
TEST(SearchRequest, TimeLimitSentFollowsTheForm) {
  for (int form = 0; form < 2; ++form) {
    tavtest::FakeServer server;
    std::string request;
    server.on_request([&](const std::string &r) { return request = r, std::string(); }).hold_until_closed();
    server.start();
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    int seven = 7, id = 0;
    ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &seven);
    struct timeval wait = {0, 200000}, half_ms = {0, 500};
    LDAPMessage *res = nullptr;
    EXPECT_EQ(form == 0 ? ldap_search_st(ld, "o=x", 0, "(a=1)", nullptr, 0, &wait, &res)
                        : ldap_search_ext(ld, "o=x", 0, "(a=1)", nullptr, 0, nullptr, nullptr, &half_ms, 0, &id),
              form == 0 ? LDAP_TIMEOUT : 0);
    ldap_unbind(ld);
    ASSERT_TRUE(server.wait_done());
    // {i t{ s e e i i ...: the time limit is the INTEGER after the size limit.
    const std::string head =
        tavtest::seq4(ldap_proto::kSearchRequest, tavtest::str("o=x") + tavtest::integer(0, ldap_proto::kEnumerated) +
                                                      tavtest::integer(0, ldap_proto::kEnumerated) +
                                                      tavtest::integer(0) + tavtest::integer(form == 0 ? 7 : 1));
    EXPECT_NE(request.find(head.substr(6)), std::string::npos) << tavtest::hex(request);
  }
}

}  // namespace
