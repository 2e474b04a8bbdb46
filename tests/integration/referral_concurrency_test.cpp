// Threads searching through referrals on one shared session: no crossed
// results, every row and extra connection given back; and while the session
// is bound again and again, the referred server is bound again after each of
// its binds without losing a search in flight there.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ldap-search.h"
#include "referral_servers.h"

using tavtest::ReferralServers;

TEST(ReferralConcurrency, ThreadsChaseOnOneSession) {
  const int kThreads = 6, kEach = std::getenv("TAV_STRESS_ITERATIONS") ? 10 : 40, kBinds = 4;
  ReferralServers servers;
  ASSERT_TRUE(servers.started()) << servers.error();
  LDAP *ld = servers.session(true);
  auto bind = [&] { return ldap_simple_bind_s(ld, tavtest::SlapdServer::kRootDn, tavtest::SlapdServer::kRootPw) == 0; };
  // slapd closes anonymous sessions with more than 100 requests pending.
  ASSERT_TRUE(bind());
  const std::string t1 = "ou=t1," + ReferralServers::kSuffix;
  // Whether a chased search gave A's three entries and B's three.
  auto chase = [&] {
    struct timeval limit = {30, 0};  // a search lost in flight fails rather than hangs
    LDAPMessage *res = nullptr;
    const int rc = ldap_search_st(ld, t1.c_str(), 2, "(objectClass=*)", nullptr, 0, &limit, &res);
    int from_b = 0, count = 0;
    for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e), ++count) {
      char *dn = ldap_get_dn(ld, e);
      from_b += dn != nullptr && std::string(dn).find("ou=branch,dc=example") != std::string::npos;
      ldap_memfree(dn);
    }
    ldap_msgfree(res);
    return rc == 0 && count == 6 && from_b == 3;
  };
  // B's three entries, asked of B alone: slapd drops the requests in flight
  // when a bind arrives, so only the binding thread may use A meanwhile.
  const std::string to_b = ReferralServers::url(servers.port_b(), ReferralServers::branch()) + "??sub";
  auto search_b = [&] {
    struct timeval limit = {30, 0};
    LDAPMessage *res = nullptr;
    const int rc = ldap_url_search_st(ld, to_b.c_str(), 0, &limit, &res);
    const int n = ldap_count_entries(ld, res);
    ldap_msgfree(res);
    return rc == 0 && n == 3;
  };
  // Failures of kEach runs of `each` on each of kThreads threads and of one
  // run of `beside` on one more.
  auto failures = [&](const std::function<bool()> &each, const std::function<int()> &beside) {
    std::vector<int> wrong(kThreads + 1, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&, t] {
        for (int i = 0; i < kEach; ++i) wrong[t] += !each();
      });
    threads.emplace_back([&] { wrong[kThreads] = beside(); });
    for (auto &t : threads) t.join();
    int sum = 0;
    for (int w : wrong) sum += w;
    return sum;
  };
  EXPECT_EQ(failures(chase, [] { return 0; }), 0);

  // Each bind is followed by a chase, which binds B again unless a search
  // since the bind already has: at least one rebind per bind.
  ReferralServers::reset_rebinds();
  EXPECT_EQ(failures(search_b,
                     [&] {
                       int wrong = 0;
                       for (int i = 0; i < kBinds; ++i) wrong += !bind() || !chase();
                       return wrong;
                     }),
            0);
  EXPECT_GE(ReferralServers::rebinds(), kBinds);
  // B is bound again only after a bind of the session's own.
  const int rebinds = ReferralServers::rebinds();
  EXPECT_TRUE(chase());
  EXPECT_EQ(ReferralServers::rebinds(), rebinds);
  ASSERT_TRUE(bind());
  EXPECT_TRUE(chase());
  EXPECT_EQ(ReferralServers::rebinds(), rebinds + 1);

  EXPECT_EQ(ReferralServers::rows_in_use(ld), 0);
  int connections = 0;
  for (LDAPConn *c = ld->ld_servers; c != nullptr; c = c->lc_next) ++connections;
  EXPECT_EQ(connections, 2);  // A and B: the connection to B is shared
  ldap_unbind(ld);
}
