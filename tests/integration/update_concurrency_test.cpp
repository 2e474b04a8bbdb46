// Several threads add, modify, rename and delete their own entries through
// one session at once against the private slapd; every answer reaches the
// thread that asked.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ldap-update.h"
#include "slapd_server.h"

using tavtest::SlapdServer;

namespace {

std::string people(const std::string &rdn) { return rdn + "," + SlapdServer::kPeopleDn; }

TEST(UpdateConcurrency, ThreadsUpdateDifferentEntriesThroughOneSession) {
  SlapdServer slapd;
  std::string error;
  ASSERT_TRUE(slapd.start(&error)) << error;
  LDAP *ld = ldap_init("127.0.0.1", slapd.port());
  ASSERT_NE(ld, nullptr);
  ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), LDAP_SUCCESS);
  constexpr int kThreads = 6, kRounds = 10;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      char oc[] = "person", sn[] = "Thread", t_oc[] = "objectClass", t_cn[] = "cn", t_sn[] = "sn",
           t_desc[] = "description";
      for (int i = 0; i < kRounds; ++i) {
        std::string cn = "T" + std::to_string(t) + "R" + std::to_string(i);
        std::string desc = "thread " + std::to_string(t);
        char *ocs[] = {oc, nullptr}, *cns[] = {cn.data(), nullptr}, *sns[] = {sn, nullptr};
        char *descs[] = {desc.data(), nullptr};
        LDAPMod m_oc = {LDAP_MOD_ADD, t_oc, {ocs}}, m_cn = {LDAP_MOD_ADD, t_cn, {cns}},
                m_sn = {LDAP_MOD_ADD, t_sn, {sns}}, m_desc = {LDAP_MOD_REPLACE, t_desc, {descs}};
        LDAPMod *entry[] = {&m_oc, &m_cn, &m_sn, nullptr}, *change[] = {&m_desc, nullptr};
        const std::string dn = people("cn=" + cn);
        int rc;
        if ((rc = ldap_add_s(ld, dn.c_str(), entry)) != 0 || (rc = ldap_modify_s(ld, dn.c_str(), change)) != 0 ||
            (rc = ldap_modrdn_s(ld, dn.c_str(), ("cn=" + cn + "x").c_str(), 1)) != 0 ||
            (rc = ldap_delete_s(ld, people("cn=" + cn + "x").c_str())) != 0) {
          ADD_FAILURE() << cn << ": " << rc;
          ++failures;
        }
        // Each thread reads its own last outcome, whatever the others did.
        if (ldap_get_errno(ld) != LDAP_SUCCESS) ++failures;
        if (ldap_delete_s(ld, dn.c_str()) != LDAP_NO_SUCH_OBJECT) ++failures;
        if (ldap_get_errno(ld) != LDAP_NO_SUCH_OBJECT) ++failures;
      }
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(ldap_unbind(ld), LDAP_SUCCESS);
}

}  // namespace
