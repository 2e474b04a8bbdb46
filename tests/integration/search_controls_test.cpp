// Searches carrying controls against the private slapd: paged results over a
// 1000-entry subtree, server-side sort and virtual list view (sssvlv overlay),
// assertions that hold and that fail, and proxied authorisation.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "ldap-controls.h"
#include "ldap-search.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

constexpr const char *kProxyDn = "cn=Proxy,dc=example,dc=com";

class SearchControls : public tavtest::SlapdSuite<SearchControls> {
 public:
  static tavtest::SlapdOptions options() {
    tavtest::SlapdOptions options;
    options.people = 1000;
    options.modules = {"sssvlv"};
    options.database_config = "overlay sssvlv\n";
    // An identity allowed to act for the people: proxied authorisation.
    options.global_config = "authz-policy to\n";
    options.extra_ldif = std::string("dn: ") + kProxyDn +
                         "\nobjectClass: person\ncn: Proxy\nsn: Proxy\nuserPassword: proxypw\n"
                         "authzTo: dn.regex:^uid=[^,]+,ou=People,dc=example,dc=com$\n\n";
    return options;
  }

 protected:
  void SetUp() override {
    ASSERT_NE(slapd, nullptr);
    ld = ldap_init("127.0.0.1", slapd->port());
    ASSERT_NE(ld, nullptr);
    ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), LDAP_SUCCESS);
  }
  void TearDown() override {
    if (ld) ldap_unbind(ld);
  }
  // The response controls of a search result chain.
  LDAPControl **response_controls(LDAPMessage *res, int *code) {
    LDAPControl **ctrls = nullptr;
    EXPECT_EQ(ldap_parse_result(ld, res, code, nullptr, nullptr, nullptr, &ctrls, 0), 0);
    return ctrls;
  }
  std::vector<std::string> uids_in_order(LDAPMessage *res) {
    std::vector<std::string> out;
    for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
      char **v = ldap_get_values(ld, e, "uid");
      out.push_back(v && v[0] ? v[0] : "");
      ldap_value_free(v);
    }
    return out;
  }
  LDAP *ld = nullptr;
};

TEST_F(SearchControls, PagedResultsWalkTheWholeSubtreeWithTheCookie) {
  std::set<std::string> seen;
  struct berval *cookie = nullptr;
  int pages = 0;
  char uid[] = "uid";
  char *attrs[] = {uid, nullptr};
  do {
    LDAPControl *page = nullptr;
    ASSERT_EQ(ldap_create_page_control(ld, 128, cookie, 1, &page), 0);
    fber_bvfree(cookie);
    cookie = nullptr;
    LDAPControl *sctrls[] = {page, nullptr};
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_ext_s(ld, SlapdServer::kPeopleDn, 1, "(objectClass=inetOrgPerson)", attrs, 0, sctrls, nullptr,
                                nullptr, 0, &res),
              LDAP_SUCCESS);
    ldap_control_free(page);
    const int n = ldap_count_entries(ld, res);
    EXPECT_LE(n, 128);
    for (const auto &u : uids_in_order(res)) seen.insert(u);
    int code = -1;
    LDAPControl **rctrls = response_controls(res, &code);
    unsigned int estimate = 0;
    ASSERT_EQ(ldap_parse_page_control(ld, rctrls, &estimate, &cookie), 0);
    ldap_controls_free(rctrls);
    ldap_msgfree(res);
    ++pages;
  } while (cookie != nullptr && cookie->bv_len != 0 && pages < 20);
  fber_bvfree(cookie);
  EXPECT_EQ(pages, 8);  // 7 full pages of 128 and one of 104
  EXPECT_EQ(seen.size(), 1000u);
}

TEST_F(SearchControls, ServerSideSortAndVirtualListView) {
  LDAPsortkey **keys = nullptr;
  ASSERT_EQ(ldap_create_sort_keylist(&keys, "-sn:caseIgnoreOrderingMatch"), 0);
  LDAPControl *sort = nullptr;
  ASSERT_EQ(ldap_create_sort_control(ld, keys, 1, &sort), 0);
  LDAPControl *sctrls[] = {sort, nullptr, nullptr};
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_search_ext_s(ld, SlapdServer::kPeopleDn, 1, "(|(uid=user1)(uid=user3)(uid=user2))", nullptr, 0, sctrls,
                              nullptr, nullptr, 0, &res),
            LDAP_SUCCESS);
  EXPECT_EQ(uids_in_order(res), (std::vector<std::string>{"user3", "user2", "user1"}));
  int code = -1;
  LDAPControl **rctrls = response_controls(res, &code);
  unsigned long sort_result = 99;
  char *bad_attr = nullptr;
  EXPECT_EQ(ldap_parse_sort_control(ld, rctrls, &sort_result, &bad_attr), 0);
  EXPECT_EQ(sort_result, 0u);
  ldap_memfree(bad_attr);
  ldap_controls_free(rctrls);
  ldap_msgfree(res);
  ldap_free_sort_keylist(keys);

  // Ascending by uid: user1, user10, user100, user1000, user101, ...
  ASSERT_EQ(ldap_create_sort_keylist(&keys, "uid:caseIgnoreOrderingMatch"), 0);
  ldap_control_free(sort);
  ASSERT_EQ(ldap_create_sort_control(ld, keys, 1, &sort), 0);
  ldap_free_sort_keylist(keys);
  LDAPVLVInfo info = {};
  info.ldvlv_before_count = 0;
  info.ldvlv_after_count = 3;
  info.ldvlv_offset = 2;
  info.ldvlv_count = 0;
  LDAPControl *vlv = nullptr;
  ASSERT_EQ(ldap_create_vlv_control(ld, &info, &vlv), 0);
  sctrls[0] = sort;
  sctrls[1] = vlv;
  ASSERT_EQ(ldap_search_ext_s(ld, SlapdServer::kPeopleDn, 1, "(objectClass=inetOrgPerson)", nullptr, 0, sctrls, nullptr,
                              nullptr, 0, &res),
            LDAP_SUCCESS);
  EXPECT_EQ(uids_in_order(res), (std::vector<std::string>{"user10", "user100", "user1000", "user101"}));
  rctrls = response_controls(res, &code);
  unsigned long target = 0, count = 0;
  struct berval *context = nullptr;
  EXPECT_EQ(ldap_parse_vlv_control(ld, rctrls, &target, &count, &context), 0);
  EXPECT_EQ(target, 2u);
  EXPECT_EQ(count, 1000u);
  fber_bvfree(context);
  ldap_controls_free(rctrls);
  ldap_msgfree(res);
  ldap_control_free(sort);
  ldap_control_free(vlv);
}

TEST_F(SearchControls, AssertionControlTrueAndFalse) {
  struct {
    const char *assertion;
    int rc;
    int entries;
  } cases[] = {{"(uid=user1)", LDAP_SUCCESS, 1}, {"(uid=user2)", LDAP_ASSERTION_FAILED, 0}};
  for (const auto &c : cases) {
    LDAPControl *made = nullptr;
    ASSERT_EQ(ldap_create_assertion_control(ld, c.assertion, 1, &made), 0);
    LDAPControl &assertion = *made;
    LDAPControl *sctrls[] = {&assertion, nullptr};
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_ext_s(ld, SlapdServer::user_dn(1).c_str(), 0, "(objectClass=*)", nullptr, 0, sctrls, nullptr,
                                nullptr, 0, &res),
              c.rc)
        << c.assertion;
    EXPECT_EQ(ldap_count_entries(ld, res), c.entries);
    ldap_msgfree(res);
    ldap_control_free(made);
  }
}

TEST_F(SearchControls, ProxiedAuthorisationSearchesWithTheOtherIdentity) {
  // userPassword is readable by its owner only: proxied as user1 the proxy
  // identity sees user1's password, proxied as user2 it does not.
  ASSERT_EQ(ldap_simple_bind_s(ld, kProxyDn, "proxypw"), LDAP_SUCCESS);
  struct {
    int as_user;
    bool sees_password;
  } cases[] = {{1, true}, {2, false}};
  for (const auto &c : cases) {
    // The authorisation identity as the protocol defines it ("dn:" and the DN).
    std::string authz = "dn:" + SlapdServer::user_dn(c.as_user);
    LDAPControl proxy_ctrl = {const_cast<char *>(LDAP_CONTROL_PROXYAUTH), {authz.size(), authz.data()}, 1};
    LDAPControl *proxy = &proxy_ctrl;
    LDAPControl *sctrls[] = {proxy, nullptr};
    char pw[] = "userPassword";
    char *attrs[] = {pw, nullptr};
    LDAPMessage *res = nullptr;
    const int rc = ldap_search_ext_s(ld, SlapdServer::user_dn(1).c_str(), 0, "(objectClass=*)", attrs, 0, sctrls,
                                     nullptr, nullptr, 0, &res);
    ASSERT_EQ(rc, LDAP_SUCCESS) << c.as_user;
    LDAPMessage *e = ldap_first_entry(ld, res);
    ASSERT_NE(e, nullptr);
    struct berval **v = ldap_get_values_len(ld, e, "userPassword");
    EXPECT_EQ(v != nullptr, c.sees_password) << c.as_user;
    ldap_value_free_len(v);
    ldap_msgfree(res);
  }
}

}  // namespace
