// Rows of the message-ID table are given back on every road: time-outs,
// failed sends, results taken one message then all; synchronous operations
// already running finish when an unbind starts; a failed connect stays failed.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "fake_server.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap-update.h"
#include "ldap_requests.h"
#include "slapd_suite.h"
#include "trace_watch.h"

using tavtest::SlapdServer;

namespace {

class EngineRows : public tavtest::SlapdSuite<EngineRows> {
 protected:
  LDAP *open() {
    LDAP *ld = ldap_init(slapd->host_port().c_str(), 0);
    EXPECT_NE(ld, nullptr);
    return ld;
  }
};

ldap_msg_table *table_of(LDAP *ld) { return ld->ld_defconn->lc_msgtable; }

// Rows in use (row 0 is never handed out).
int rows_in_use(LDAP *ld) {
  ldap_msg_table *t = table_of(ld);
  pthread_mutex_lock(&t->table_mutex);
  const int used = (int)t->size - t->free_count;
  pthread_mutex_unlock(&t->table_mutex);
  return used;
}

bool unbind_started(LDAP *ld) {
  pthread_mutex_lock(&ld->ld_mutex);
  const bool started = ld->ld_unbind_started == 1;
  pthread_mutex_unlock(&ld->ld_mutex);
  return started;
}

// Operations count themselves without the session's lock.
unsigned active_ops(LDAP *ld) { return __atomic_load_n(&ld->ld_active_ops, __ATOMIC_SEQ_CST); }

TEST(EngineTimeouts, SeventyThousandTimedOutSearchesLeaveTheTableUsable) {
  // The server answers each search only when the next one arrives, so every
  // wait gives up and its result comes in later; with four threads the late
  // result is often read by another thread before its row is marked.
  constexpr int kThreads = 4, kEach = 17500, kSearches = kThreads * kEach;
  tavtest::FakeServer fake;
  int previous = 0;
  for (int i = 0; i <= kSearches; ++i)
    fake.on_request([&previous, last = i == kSearches](const std::string &request) {
      std::string out = previous != 0 ? tavtest::search_done(previous) : "";
      previous = tavtest::request_msgid(request);
      if (last) out += tavtest::search_done(previous);
      return out;
    });
  fake.hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  std::atomic<int> timeouts{0}, others{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        struct timeval tiny = {0, 1};
        LDAPMessage *res = nullptr;
        const int rc = ldap_search_st(ld, "cn=x", 0, "(objectClass=*)", nullptr, 0, &tiny, &res);
        if (rc == LDAP_TIMEOUT) {
          ++timeouts;
          EXPECT_EQ(res, nullptr);
        } else if (rc != LDAP_SUCCESS && others++ == 0) {
          ADD_FAILURE() << "search gave " << rc;
        }
        ldap_msgfree(res);
      }
    });
  for (auto &t : threads) t.join();
  EXPECT_EQ(others.load(), 0);
  EXPECT_GT(timeouts.load(), 0);
  // The last search waits without limit and brings in the last late result.
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_search_st(ld, "cn=x", 0, "(objectClass=*)", nullptr, 0, nullptr, &res), 0);
  ldap_msgfree(res);
  EXPECT_EQ(rows_in_use(ld), 0);
  ldap_unbind(ld);
}

TEST_F(EngineRows, AFinalResultAlreadyStoredIsReleasedWhenItsRowIsMarked) {
  LDAP *ld = open();
  ldap_msg_table *t = table_of(ld);
  for (int i = 0; i < 1000; ++i) {
    const int id = ldap_msg_table_get_next_msgid(t);
    ASSERT_GT(id, 0) << i;
    LDAPMessage *request = ldap_msg_new(ld->ld_defconn);
    LDAPMessage *done = ldap_msg_new(ld->ld_defconn);
    request->lm_msgid = done->lm_msgid = id;
    request->lm_msgtype = ldap_proto::kSearchRequest;
    done->lm_msgtype = ldap_proto::kSearchDone;
    pthread_mutex_lock(&t->table_mutex);
    t->rows[id].request = request;
    ASSERT_EQ(put_msg_in_table(t, done), 0);
    pthread_mutex_unlock(&t->table_mutex);
    ldap_msg_table_mark_rows(ld, id, LDAP_ROW_RELEASE_WHEN_DONE);
    ASSERT_EQ(rows_in_use(ld), 0) << i;
  }
  ldap_unbind(ld);
}

TEST_F(EngineRows, ARequestTheTableRefusesIsFreedAndItsIdGivenBack) {
  LDAP *ld = open();
  ldap_msg_table *t = table_of(ld);
  const int id = ldap_msg_table_get_next_msgid(t);
  LDAPMessage *request = ldap_msg_new(ld->ld_defconn);
  request->lm_ber = ldap_alloc_ber_with_options(ld, 0);
  request->lm_msgid = 70000;  // no such row: refused before any row holds it
  EXPECT_EQ(ldap_msg_table_send_request(t, ld, request), LDAP_PARAM_ERROR);
  ldap_msg_table_release_msgid(t, id);
  EXPECT_EQ(rows_in_use(ld), 0);  // LeakSanitizer checks the request itself
  ldap_unbind(ld);
}

TEST_F(EngineRows, AllAfterOneHandsBackOnlyWhatWasNotHandedOut) {
  LDAP *ld = open();
  const int id = ldap_search(ld, SlapdServer::kPeopleDn, 2, "(|(uid=user1)(uid=user2)(uid=user3))", nullptr, 0);
  ASSERT_GT(id, 0);
  LDAPMessage *one = nullptr, *rest = nullptr;
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ONE, nullptr, &one), ldap_proto::kSearchEntry);
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &rest), ldap_proto::kSearchDone);
  EXPECT_NE(rest, one);
  EXPECT_EQ(ldap_count_messages(ld, rest), 3);  // two entries and the done
  EXPECT_EQ(ldap_count_entries(ld, rest), 2);
  ldap_msgfree(rest);
  EXPECT_EQ(rows_in_use(ld), 1);  // the first entry still holds the row
  ldap_msgfree(one);
  EXPECT_EQ(rows_in_use(ld), 0);
  ldap_unbind(ld);
}

TEST_F(EngineRows, SynchronousOperationsRunningWhenUnbindStartsFinish) {
  struct Case {
    const char *name;
    std::function<int(LDAP *)> run;
    int want;
  };
  const std::string dn = "cn=unbind-race," + std::string(SlapdServer::kSuffix);
  static char oc[] = "objectClass", cn[] = "cn", sn[] = "sn", person[] = "person", name[] = "unbind-race";
  char *oc_v[] = {person, nullptr}, *cn_v[] = {name, nullptr}, *sn_v[] = {name, nullptr};
  LDAPMod m_oc{0, oc, {oc_v}}, m_cn{0, cn, {cn_v}}, m_sn{0, sn, {sn_v}};
  LDAPMod *add_mods[] = {&m_oc, &m_cn, &m_sn, nullptr};
  LDAPMod m_rep{LDAP_MOD_REPLACE, sn, {sn_v}};
  LDAPMod *mod_mods[] = {&m_rep, nullptr};
  // The result chain is left for the unbind to free: once the operation's
  // bracket ends the session is going away.
  auto search = [](LDAP *ld, bool ext) {
    LDAPMessage *res = nullptr;
    return ext ? ldap_search_ext_s(ld, SlapdServer::kSuffix, 0, "(objectClass=*)", nullptr, 0, nullptr, nullptr,
                                   nullptr, 0, &res)
               : ldap_search_st(ld, SlapdServer::kSuffix, 0, "(objectClass=*)", nullptr, 0, nullptr, &res);
  };
  const Case cases[] = {
      {"search_st", [&](LDAP *ld) { return search(ld, false); }, 0},
      {"search_ext_s", [&](LDAP *ld) { return search(ld, true); }, 0},
      {"simple_bind_s", [](LDAP *ld) { return ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw); }, 0},
      {"add_s", [&](LDAP *ld) { return ldap_add_s(ld, dn.c_str(), add_mods); }, LDAP_STRONG_AUTH_REQUIRED},
      {"modify_s", [&](LDAP *ld) { return ldap_modify_s(ld, dn.c_str(), mod_mods); }, LDAP_STRONG_AUTH_REQUIRED},
      {"delete_s", [&](LDAP *ld) { return ldap_delete_s(ld, dn.c_str()); }, LDAP_STRONG_AUTH_REQUIRED},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    LDAP *ld = open();
    ASSERT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);  // connected, anonymous
    // The operation stops at the write lock, inside its own bracket, until
    // the unbind has begun.
    pthread_mutex_t *write_lock = &ld->ld_defconn->lc_write_mutex;
    pthread_mutex_lock(write_lock);
    int got = -99;
    std::thread op([&] { got = c.run(ld); });
    while (active_ops(ld) == 0) std::this_thread::yield();
    std::thread unbind([&] { EXPECT_EQ(ldap_unbind(ld), 0); });
    while (!unbind_started(ld)) std::this_thread::yield();
    pthread_mutex_unlock(write_lock);
    op.join();
    unbind.join();
    EXPECT_EQ(got, c.want);
  }
}

TEST(EngineConnect, AConnectionThatFailedIsNotTriedAgainByAWriterThatWasWaiting) {
  const int port = tavtest::free_port();  // nothing listens there
  LDAP *ld = ldap_init(("127.0.0.1:" + std::to_string(port)).c_str(), 0);
  ASSERT_NE(ld, nullptr);
  pthread_mutex_t *write_lock = &ld->ld_defconn->lc_write_mutex;
  pthread_mutex_lock(write_lock);
  int codes[2] = {0, 0};
  const std::string trace = tavtest::traced(0xffffffffu, [&] {
    std::vector<std::thread> writers;
    for (int &code : codes) writers.emplace_back([&] { code = ldap_simple_bind_s(ld, nullptr, nullptr); });
    while (active_ops(ld) < 2) std::this_thread::yield();
    pthread_mutex_unlock(write_lock);
    for (auto &w : writers) w.join();
  });
  EXPECT_EQ(codes[0], LDAP_SERVER_DOWN);
  EXPECT_EQ(codes[1], LDAP_SERVER_DOWN);
  size_t connects = 0;
  for (size_t at = trace.find("open_ldap_connection: ld("); at != std::string::npos;
       at = trace.find("open_ldap_connection: ld(", at + 1))
    ++connects;
  EXPECT_EQ(connects, 1u) << trace;
  ldap_unbind(ld);
}

TEST(EngineArguments, NullSessionOrMessageIsRefusedNotFollowed) {
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_result_int(nullptr, 1, LDAP_MSG_ALL, nullptr, &res), -1);
  EXPECT_EQ(is_last_msg(nullptr), 0);
  EXPECT_EQ(ldap_msgfree_direct(nullptr), 0);
}

}  // namespace
