// The table grows while other threads send and wait on it: under
// ThreadSanitizer no access to the table's size or rows may go unlocked.
#include <gtest/gtest.h>

#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "ldap-protocol.h"
#include "ldap-search.h"
#include "slapd_server.h"

using tavtest::SlapdServer;

TEST(EngineRowsConcurrency, TableGrowsWhileThreadsSendAndWait) {
  constexpr int kThreads = 8, kEach = 40;  // 320 outstanding: past the first 256 rows
  SlapdServer slapd;
  std::string error;
  ASSERT_TRUE(slapd.start(&error)) << error;
  LDAP *ld = ldap_init(slapd.host_port().c_str(), 0);
  ASSERT_NE(ld, nullptr);
  // slapd closes anonymous sessions with more than 100 requests pending.
  ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
  std::vector<std::thread> threads;
  std::vector<int> entries(kThreads, 0);
  std::latch all_sent(kThreads);
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      std::vector<int> ids;
      for (int i = 0; i < kEach; ++i)
        ids.push_back(ldap_search(ld, SlapdServer::kPeopleDn, 1, "(objectClass=*)", nullptr, 0));
      // Every request is outstanding before any is collected.
      all_sent.arrive_and_wait();
      for (int id : ids) {
        LDAPMessage *res = nullptr;
        if (id > 0 && ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res) == ldap_proto::kSearchDone)
          entries[t] += ldap_count_entries(ld, res);
        ldap_msgfree(res);
      }
    });
  for (auto &t : threads) t.join();
  for (int n : entries) EXPECT_EQ(n, kEach * 5);  // five people each time
  ldap_msg_table *table = ld->ld_defconn->lc_msgtable;
  pthread_mutex_lock(&table->table_mutex);
  EXPECT_GE(table->size, 512u);
  EXPECT_EQ(table->free_count, (int32_t)table->size);
  pthread_mutex_unlock(&table->table_mutex);
  ldap_unbind(ld);
}
