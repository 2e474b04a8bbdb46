// Searches carrying controls against the private slapd: paged results over a
// 1000-entry subtree, server-side sort and virtual list view (sssvlv
// overlay), assertions that hold and that fail, proxied authorisation.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>

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
    options.global_config = "authz-policy to\n";  // the proxy may act for the people
    options.extra_ldif = std::string("dn: ") + kProxyDn +
                         "\nobjectClass: person\ncn: Proxy\nsn: Proxy\nuserPassword: proxypw\n"
                         "authzTo: dn.regex:^uid=[^,]+,ou=People,dc=example,dc=com$\n\n";
    return options;
  }
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(SlapdSuite::SetUp());
    ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), LDAP_SUCCESS);
  }
  // Searches `base` with the controls; the uids found in order, and the
  // response controls handed to `check`.
  std::string search(const std::string &base, int scope, std::vector<LDAPControl *> ctrls, int want_rc = 0,
                     const std::function<void(LDAPControl **)> &check = nullptr, const char *attr = "uid") {
    ctrls.push_back(nullptr);
    char a[32];
    snprintf(a, sizeof a, "%s", attr);
    char *attrs[] = {a, nullptr};
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_ext_s(ld, base.c_str(), scope, "(objectClass=inetOrgPerson)", attrs, 0, ctrls.data(), nullptr,
                                nullptr, 0, &res),
              want_rc);
    std::string out;
    for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
      struct berval **v = ldap_get_values_len(ld, e, attr);
      out += (v ? std::string(v[0]->bv_val, v[0]->bv_len) : "-") + " ";
      ldap_value_free_len(v);
    }
    LDAPControl **rctrls = nullptr;
    int code = -1;
    EXPECT_EQ(ldap_parse_result(ld, res, &code, nullptr, nullptr, nullptr, &rctrls, 1), 0);
    if (check) check(rctrls);
    ldap_controls_free(rctrls);
    return out;
  }
};

TEST_F(SearchControls, PagedResultsWalkTheWholeSubtreeWithTheCookie) {
  std::set<std::string> seen;
  struct berval *cookie = nullptr;
  int pages = 0;
  do {
    LDAPControl *page = nullptr;
    ASSERT_EQ(ldap_create_page_control(ld, 128, cookie, 1, &page), 0);
    fber_bvfree(cookie);
    cookie = nullptr;
    std::string uids = search(SlapdServer::kPeopleDn, 1, {page}, 0, [&](LDAPControl **r) {
      unsigned int estimate = 0;
      ASSERT_EQ(ldap_parse_page_control(ld, r, &estimate, &cookie), 0);
    });
    ldap_control_free(page);
    for (size_t at = 0, next; (next = uids.find(' ', at)) != std::string::npos; at = next + 1)
      seen.insert(uids.substr(at, next - at));
  } while (++pages < 20 && cookie != nullptr && cookie->bv_len != 0);
  fber_bvfree(cookie);
  EXPECT_EQ(pages, 8);  // 7 full pages of 128 and one of 104
  EXPECT_EQ(seen.size(), 1000u);
}

TEST_F(SearchControls, ServerSideSortVirtualListViewAssertionAndProxy) {
  LDAPsortkey **keys = nullptr;
  LDAPControl *sort = nullptr, *vlv = nullptr, *assertion = nullptr;
  ASSERT_EQ(ldap_create_sort_keylist(&keys, "-sn:caseIgnoreOrderingMatch"), 0);
  ASSERT_EQ(ldap_create_sort_control(ld, keys, 1, &sort), 0);
  ldap_free_sort_keylist(keys);
  EXPECT_EQ(search(SlapdServer::kPeopleDn, 1, {sort}, 0,
                   [&](LDAPControl **r) {
                     unsigned long result = 99;
                     char *bad_attr = nullptr;
                     EXPECT_EQ(ldap_parse_sort_control(ld, r, &result, &bad_attr), 0);
                     EXPECT_EQ(result, 0u);
                     ldap_memfree(bad_attr);
                   })
                .substr(0, 23),
            "user999 user998 user997");
  ldap_control_free(sort);
  // Ascending by uid: user1, user10, user100, user1000, user101, ...
  ASSERT_EQ(ldap_create_sort_keylist(&keys, "uid:caseIgnoreOrderingMatch"), 0);
  ASSERT_EQ(ldap_create_sort_control(ld, keys, 1, &sort), 0);
  ldap_free_sort_keylist(keys);
  LDAPVLVInfo info = {};
  info.ldvlv_after_count = 3;
  info.ldvlv_offset = 2;
  ASSERT_EQ(ldap_create_vlv_control(ld, &info, &vlv), 0);
  EXPECT_EQ(search(SlapdServer::kPeopleDn, 1, {sort, vlv}, 0,
                   [&](LDAPControl **r) {
                     unsigned long target = 0, count = 0;
                     struct berval *context = nullptr;
                     EXPECT_EQ(ldap_parse_vlv_control(ld, r, &target, &count, &context), 0);
                     EXPECT_EQ(std::make_pair(target, count), std::make_pair(2UL, 1000UL));
                     fber_bvfree(context);
                   }),
            "user10 user100 user1000 user101 ");
  ldap_control_free(sort);
  ldap_control_free(vlv);
  for (auto [filter, rc, uids] : {std::tuple{"(uid=user1)", 0, "user1 "}, {"(uid=user2)", LDAP_ASSERTION_FAILED, ""}}) {
    ASSERT_EQ(ldap_create_assertion_control(ld, filter, 1, &assertion), 0);
    EXPECT_EQ(search(SlapdServer::user_dn(1), 0, {assertion}, rc), uids) << filter;
    ldap_control_free(assertion);
  }
  // Proxied: userPassword is readable by its owner only.
  ASSERT_EQ(ldap_simple_bind_s(ld, kProxyDn, "proxypw"), LDAP_SUCCESS);
  for (auto [user, sees] : {std::pair{1, "pass1 "}, {2, "- "}}) {
    std::string authz = "dn:" + SlapdServer::user_dn(user);
    LDAPControl proxy = {const_cast<char *>(LDAP_CONTROL_PROXYAUTH), {authz.size(), authz.data()}, 1};
    EXPECT_EQ(search(SlapdServer::user_dn(1), 0, {&proxy}, 0, nullptr, "userPassword"), sees) << user;
  }
}

}  // namespace
