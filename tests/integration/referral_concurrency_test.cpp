// Threads searching through referrals on one shared session: no crossed
// results, and every row and extra connection given back.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ldap-search.h"
#include "referral_servers.h"

using tavtest::ReferralServers;

TEST(ReferralConcurrency, ThreadsChaseOnOneSession) {
  const int kThreads = 6, kEach = std::getenv("TAV_STRESS_ITERATIONS") ? 10 : 40;
  ReferralServers servers;
  ASSERT_TRUE(servers.started()) << servers.error();
  LDAP *ld = servers.session(true);
  // slapd closes anonymous sessions with more than 100 requests pending.
  ASSERT_EQ(ldap_simple_bind_s(ld, tavtest::SlapdServer::kRootDn, tavtest::SlapdServer::kRootPw), 0);
  const std::string t1 = "ou=t1," + ReferralServers::kSuffix;
  std::vector<int> wrong(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        LDAPMessage *res = nullptr;
        const int rc = ldap_search_st(ld, t1.c_str(), 2, "(objectClass=*)", nullptr, 0, nullptr, &res);
        int from_b = 0, count = 0;
        for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e), ++count) {
          char *dn = ldap_get_dn(ld, e);
          from_b += dn != nullptr && std::string(dn).find("ou=branch,dc=example") != std::string::npos;
          ldap_memfree(dn);
        }
        if (rc != 0 || count != 6 || from_b != 3) ++wrong[t];
        ldap_msgfree(res);
      }
    });
  for (auto &t : threads) t.join();
  for (int w : wrong) EXPECT_EQ(w, 0);
  EXPECT_EQ(ReferralServers::rows_in_use(ld), 0);
  int connections = 0;
  for (LDAPConn *c = ld->ld_servers; c != nullptr; c = c->lc_next) ++connections;
  EXPECT_EQ(connections, 2);  // A and B: the connection to B is shared
  ldap_unbind(ld);
}
