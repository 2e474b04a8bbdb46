// Searches from many threads on one session, and many threads reading the
// same result chain at once: each reader works on its own copy of the
// element record, so they must all see the same entries and values.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ldap-search.h"
#include "slapd_server.h"

using tavtest::SlapdServer;

namespace {

// Everything a walk of the chain reads, as one string.
std::string walk(LDAP *ld, LDAPMessage *res) {
  std::string out;
  for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
    char *dn = ldap_get_dn(ld, e);
    out += dn ? dn : "?";
    ldap_memfree(dn);
    BerElement *cursor = nullptr;
    for (char *a = ldap_first_attribute(ld, e, &cursor); a; a = ldap_next_attribute(ld, e, cursor)) {
      out += ";" + std::string(a) + "=";
      struct berval **v = ldap_get_values_len(ld, e, a);
      for (int i = 0; v && v[i]; ++i) out += std::string(v[i]->bv_val, v[i]->bv_len) + ",";
      ldap_value_free_len(v);
      ldap_memfree(a);
    }
    ldap_ber_free(cursor);
    out += "\n";
  }
  return out;
}

TEST(SearchConcurrency, ThreadsShareASessionAndReadOneChainTogether) {
  tavtest::SlapdOptions options;
  options.people = 40;
  SlapdServer slapd(options);
  std::string error;
  ASSERT_TRUE(slapd.start(&error)) << error;
  LDAP *ld = ldap_init("127.0.0.1", slapd.port());
  ASSERT_NE(ld, nullptr);

  std::atomic<int> failures{0};
  std::vector<std::thread> pool;
  for (int t = 0; t < 8; ++t)
    pool.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        const int user = (t * 5 + i) % 40 + 1;
        LDAPMessage *res = nullptr;
        struct timeval tv = {20, 0};
        const int rc =
            ldap_search_st(ld, SlapdServer::user_dn(user).c_str(), 0, "(objectClass=*)", nullptr, 0, &tv, &res);
        char **uid = rc == 0 ? ldap_get_values(ld, ldap_first_entry(ld, res), "uid") : nullptr;
        if (rc != 0 || ldap_count_entries(ld, res) != 1 || uid == nullptr ||
            std::string(uid[0]) != "user" + std::to_string(user))
          ++failures;
        ldap_value_free(uid);
        ldap_msgfree(res);
      }
    });
  for (auto &th : pool) th.join();
  EXPECT_EQ(failures.load(), 0);

  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_search_s(ld, SlapdServer::kPeopleDn, 1, "(objectClass=*)", nullptr, 0, &res), LDAP_SUCCESS);
  const std::string expected = walk(ld, res);
  EXPECT_EQ(ldap_count_entries(ld, res), 40);
  std::vector<std::string> seen(6);
  pool.clear();
  for (int t = 0; t < 6; ++t) pool.emplace_back([&, t] { seen[t] = walk(ld, res); });
  for (auto &th : pool) th.join();
  for (const auto &s : seen) EXPECT_EQ(s, expected);
  ldap_msgfree(res);
  ldap_unbind(ld);
}

}  // namespace
