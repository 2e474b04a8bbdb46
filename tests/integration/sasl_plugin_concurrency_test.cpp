// Eight threads bind through the Cyrus plug-in at once, each on its own
// session and as its own user; the first binds also race to load the plug-in.
#include <gtest/gtest.h>

#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "sasl_plugins.h"

using tavtest::SlapdServer;

TEST(SaslPluginConcurrency, EightSessionsBindAtOnceAsTheirOwnUsers) {
  constexpr int kThreads = 8, kRounds = 3;
  tavtest::SlapdOptions opts = tavtest::sasl_slapd_options();
  opts.people = kThreads;
  SlapdServer slapd(opts);
  std::string error;
  ASSERT_TRUE(slapd.start(&error)) << error;
  tavtest::use_config(slapd.dir(),
                      "plugin sasl SCRAM-SHA-256 " TAV_SASL_PLUGIN "\nplugin sasl DIGEST-MD5 " TAV_SASL_PLUGIN "\n");
  std::latch start(kThreads);
  std::vector<std::string> who(kThreads);
  std::vector<int> failures(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      LDAP *ld = ldap_init("127.0.0.1", slapd.port());
      const std::string user = "user" + std::to_string(t + 1), pw = SlapdServer::user_password(t + 1);
      struct berval cred = {pw.size(), const_cast<char *>(pw.data())};
      start.arrive_and_wait();
      for (int r = 0; r < kRounds; ++r) {
        const char *mech = (t + r) % 2 ? "DIGEST-MD5" : "SCRAM-SHA-256";
        if (ldap_sasl_bind_s(ld, user.c_str(), mech, &cred, nullptr, nullptr, nullptr) != 0) ++failures[t];
      }
      who[t] = tavtest::whoami(ld);
      ldap_unbind(ld);
    });
  for (auto &th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(failures[t], 0) << t;
    EXPECT_EQ(who[t], "dn:uid=user" + std::to_string(t + 1) + ",ou=people,dc=example,dc=com");
  }
}
