// Eight threads share one session over ldaps and search at once: their reads
// and writes meet in the toolkit's connection, one reader and one writer at
// a time, and every thread gets exactly its own results.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "keydb.h"
#include "ldap-engine.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap-ssl.h"
#include "ldap_requests.h"
#include "process.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

class SslConcurrency : public tavtest::SlapdSuite<SslConcurrency> {
 public:
  static tavtest::SlapdOptions options() { return {.people = 20, .tls = true}; }
};

TEST_F(SslConcurrency, EightThreadsSearchOneSecureSessionAtOnce) {
  ASSERT_NE(slapd, nullptr);
  tavtest::TempDir dir;
  const std::string kdb = dir.file("client.kdb");
  ASSERT_EQ(tavtest::trusting_keydb(kdb, "pw", slapd->tls_file("ca.pem")), "");
  ASSERT_EQ(ldap_ssl_client_init(kdb.c_str(), "pw", 0, nullptr), 0);
  LDAP *ld = ldap_ssl_init("127.0.0.1", slapd->tls_port(), nullptr);
  ASSERT_NE(ld, nullptr);
  ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);

  const int rounds = getenv("TAV_STRESS_ITERATIONS") ? 10 : 40;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < rounds; ++i) {
        // Each thread asks for one person, so an answer meant for another
        // thread would show.
        int n = 1 + (t * rounds + i) % 20;
        std::string dn = SlapdServer::user_dn(n);
        int id = tavtest::send_search(ld, dn, LDAP_SCOPE_BASE, "objectClass", {"uid"});
        LDAPMessage *res = nullptr;
        if (id < 0 || ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res) != ldap_proto::kSearchDone ||
            ldap_count_entries(ld, res) != 1 || tavtest::entry_dn(ldap_first_entry(ld, res)) != dn)
          ++wrong;
        ldap_msgfree(res);
      }
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_NE(ld->ld_defconn->lc_sb.sb_ssl, nullptr);
  EXPECT_EQ(ldap_unbind(ld), 0);
}

}  // namespace
