// The search and entry-reading forwarders as a program sees them: loaded with
// dlopen, resolved at version tav8, walking a real search result.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "slapd_server.h"
#include "tavldap.h"

using tavtest::SlapdServer;

namespace {

template <typename F>
F sym(void *handle, const char *name) {
  void *p = dlvsym(handle, name, "tav8");
  EXPECT_NE(p, nullptr) << name << ": " << dlerror();
  return reinterpret_cast<F>(p);
}

TEST(SearchSharedObject, SearchAndWalkEntriesAttributesAndValues) {
  tavtest::SlapdOptions options;
  options.people = 3;
  SlapdServer slapd(options);
  std::string error;
  ASSERT_TRUE(slapd.start(&error)) << error;
  void *h = dlopen(TAV_SHARED_OBJECT, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(h, nullptr) << dlerror();
  auto init = sym<LDAP *(*)(const char *, int)>(h, "tav_ldap_init");
  auto unbind = sym<int (*)(LDAP *)>(h, "tav_ldap_unbind");
  auto get_errno = sym<int (*)(LDAP *)>(h, "tav_ldap_get_errno");
  auto memfree = sym<void (*)(void *)>(h, "tav_ldap_memfree");
  auto ber_free = sym<void (*)(BerElement *)>(h, "tav_ldap_ber_free");
  auto search_st =
      sym<int (*)(LDAP *, const char *, int, const char *, char **, int, struct timeval *, LDAPMessage **)>(
          h, "tav_ldap_search_st");
  auto count_entries = sym<int (*)(LDAP *, LDAPMessage *)>(h, "tav_ldap_count_entries");
  auto first_entry = sym<LDAPMessage *(*)(LDAP *, LDAPMessage *)>(h, "tav_ldap_first_entry");
  auto next_entry = sym<LDAPMessage *(*)(LDAP *, LDAPMessage *)>(h, "tav_ldap_next_entry");
  auto get_dn = sym<char *(*)(LDAP *, LDAPMessage *)>(h, "tav_ldap_get_dn");
  auto first_attr = sym<char *(*)(LDAP *, LDAPMessage *, BerElement **)>(h, "tav_ldap_first_attribute");
  auto next_attr = sym<char *(*)(LDAP *, LDAPMessage *, BerElement *)>(h, "tav_ldap_next_attribute");
  auto get_values_len = sym<struct berval **(*)(LDAP *, LDAPMessage *, const char *)>(h, "tav_ldap_get_values_len");
  auto value_free_len = sym<void (*)(struct berval **)>(h, "tav_ldap_value_free_len");
  auto msgfree = sym<int (*)(LDAPMessage *)>(h, "tav_ldap_msgfree");
  ASSERT_TRUE(init && unbind && get_errno && memfree && ber_free && search_st && count_entries && first_entry &&
              next_entry && get_dn && first_attr && next_attr && get_values_len && value_free_len && msgfree);

  LDAP *ld = init("127.0.0.1", slapd.port());
  ASSERT_NE(ld, nullptr);
  struct timeval tv = {10, 0};
  LDAPMessage *res = nullptr;
  char uid[] = "uid", mail[] = "mail";
  char *attrs[] = {uid, mail, nullptr};
  ASSERT_EQ(search_st(ld, SlapdServer::kPeopleDn, LDAP_SCOPE_ONELEVEL, "(uid=user*)", attrs, 0, &tv, &res),
            LDAP_SUCCESS);
  EXPECT_EQ(count_entries(ld, res), 3);
  int walked = 0;
  for (LDAPMessage *e = first_entry(ld, res); e; e = next_entry(ld, e), ++walked) {
    char *dn = get_dn(ld, e);
    ASSERT_NE(dn, nullptr);
    BerElement *cursor = nullptr;
    std::vector<std::string> names;
    for (char *a = first_attr(ld, e, &cursor); a; a = next_attr(ld, e, cursor)) {
      struct berval **v = get_values_len(ld, e, a);
      ASSERT_NE(v, nullptr) << a;
      const std::string first(v[0]->bv_val, v[0]->bv_len);
      if (std::string(a) == "uid") {
        EXPECT_EQ(std::string(dn), "uid=" + first + "," + SlapdServer::kPeopleDn);
      } else {
        EXPECT_NE(first.find("@example.com"), std::string::npos);
      }
      value_free_len(v);
      names.emplace_back(a);
      memfree(a);
    }
    EXPECT_EQ(get_errno(ld), 0);
    ber_free(cursor);
    memfree(dn);
    EXPECT_EQ(names, (std::vector<std::string>{"uid", "mail"}));
  }
  EXPECT_EQ(walked, 3);
  EXPECT_EQ(msgfree(res), 0x65);
  EXPECT_EQ(search_st(ld, SlapdServer::kPeopleDn, 3, "(uid=*)", nullptr, 0, &tv, &res), LDAP_PARAM_ERROR);
  EXPECT_EQ(unbind(ld), 0);
  dlclose(h);
}

}  // namespace
