// The message engine against a scripted server: how results are handed out,
// time-outs that leave the connection usable, and what real servers will not
// do (stop reading, die mid-response, answer unknown message IDs).  Where a
// step must happen before another, the script waits at a gate the test opens.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "fake_server.h"
#include "ldap-protocol.h"
#include "ldap_requests.h"
#include "slapd_server.h"

using tavtest::FakeServer;
using tavtest::request_msgid;
using tavtest::search_done;
using tavtest::search_entry;

namespace {

struct Session {
  explicit Session(FakeServer &fake) : ld(ldap_init("127.0.0.1", fake.start())) {}  // starts the script
  ~Session() { ldap_unbind(ld); }
  int sd() const { return get_default_connection(ld)->lc_sb.sb_sd; }
  LDAP *ld;
};

std::vector<int> types_of(LDAPMessage *chain) {
  std::vector<int> t;
  for (LDAPMessage *m = chain; m; m = m->lm_chain) t.push_back(m->lm_msgtype);
  return t;
}

std::string search_done_of(int id) { return search_done(id); }

// The script: the first request answered with first(its ID), the rest,
// rest(that ID), sent once the test opens the gate.
void gated(FakeServer &fake, std::function<std::string(int)> first, std::function<std::string(int)> rest) {
  auto id = std::make_shared<int>(0);
  fake.on_request([=](const std::string &r) { return first(*id = request_msgid(r)); })
      .gate()
      .send_lazy([=] { return rest(*id); })
      .hold_until_closed();
}

// Answers each search with `entries` entries and its SearchResultDone.
std::string answer(const std::string &request, int entries) {
  int id = request_msgid(request);
  std::string out;
  for (int i = 0; i < entries; ++i) out += search_entry(id, "cn=e" + std::to_string(i));
  return out + search_done(id);
}

TEST(Engine, AllModeHandsOutTheChainAndOneModeEachMessageAlone) {
  FakeServer fake;
  fake.on_request([](const std::string &r) { return answer(r, 3); })
      .on_request([](const std::string &r) { return answer(r, 2); })
      .hold_until_closed();
  Session s(fake);
  int id = tavtest::send_search(s.ld, "o=x", 1);
  ASSERT_GT(id, 0);
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_result(s.ld, id, LDAP_MSG_ALL, nullptr, &res), ldap_proto::kSearchDone);
  EXPECT_EQ(types_of(res), (std::vector<int>{ldap_proto::kSearchEntry, ldap_proto::kSearchEntry,
                                             ldap_proto::kSearchEntry, ldap_proto::kSearchDone}));
  EXPECT_EQ(tavtest::entry_dn(res->lm_chain), "cn=e1");
  LDAPMessage *again = nullptr;  // everything was delivered: nothing left for this ID
  EXPECT_EQ(ldap_result(s.ld, id, LDAP_MSG_ALL, nullptr, &again), -1);
  EXPECT_EQ(ldap_get_errno(s.ld), LDAP_LOCAL_ERROR);
  EXPECT_EQ(ldap_msgfree(res), ldap_proto::kSearchDone);

  int second = tavtest::send_search(s.ld, "o=x", 1);
  std::vector<int> types;
  for (int rc = 0; rc != ldap_proto::kSearchDone;) {
    LDAPMessage *m = nullptr;
    ASSERT_GT(rc = ldap_result(s.ld, second, LDAP_MSG_ONE, nullptr, &m), 0);
    EXPECT_EQ(m->lm_flags & LDAP_MSG_HANDED_ALONE, (uint32_t)LDAP_MSG_HANDED_ALONE);
    EXPECT_EQ(ldap_next_message(s.ld, m), nullptr);
    types.push_back(rc);
    ldap_msgfree(m);
  }
  EXPECT_EQ(types, (std::vector<int>{ldap_proto::kSearchEntry, ldap_proto::kSearchEntry, ldap_proto::kSearchDone}));
  ldap_msg_table *table = get_default_connection(s.ld)->lc_msgtable;
  EXPECT_EQ(table->free_count, (int32_t)table->size) << "rows left in use";
}

TEST(Engine, ResponsesGoToTheirOwnRowsAndUnknownIdsAreDropped) {
  std::string first;  // written by the server thread: outlives its join
  FakeServer fake;
  fake.on_request([&](const std::string &r) {
        first = r;
        return std::string();
      })
      .on_request([&](const std::string &r) {
        int id = request_msgid(r);
        return search_done(id + 100) +                                     // no request under that ID: dropped
               search_done(256) +                                          // the table's size: dropped
               tavtest::ldap_response(0, ldap_proto::kExtendedResponse) +  // unsolicited notification: row 0
               answer(r, 1) + answer(first, 2);                            // the second request first
      })
      .hold_until_closed();
  Session s(fake);
  int a = tavtest::send_search(s.ld, "cn=a", 0), b = tavtest::send_search(s.ld, "cn=b", 0);
  LDAPMessage *ra = nullptr, *rb = nullptr, *notice = nullptr;
  ASSERT_EQ(ldap_result(s.ld, a, LDAP_MSG_ALL, nullptr, &ra), ldap_proto::kSearchDone);  // b's answer waits in its row
  ASSERT_EQ(ldap_result(s.ld, b, LDAP_MSG_ALL, nullptr, &rb), ldap_proto::kSearchDone);
  EXPECT_EQ(ldap_count_messages(s.ld, ra), 3);
  EXPECT_EQ(ldap_count_messages(s.ld, rb), 2);
  ldap_msgfree(ra);
  ldap_msgfree(rb);
  struct timeval zero = {0, 0};
  ASSERT_EQ(ldap_result(s.ld, 0, LDAP_MSG_ONE, &zero, &notice), ldap_proto::kExtendedResponse);
  EXPECT_EQ(ldap_msgid(notice), 0);
  ldap_msgfree(notice);
  EXPECT_EQ(get_default_connection(s.ld)->lc_msgtable->rows[0].flags & LDAP_ROW_COMPLETE, 0u);
}

TEST(EngineTimeouts, TimeOutsReturnZeroRecord85AndKeepWhatArrived) {
  FakeServer fake;
  gated(
      fake, [](int id) { return search_entry(id, "cn=one") + search_entry(id, "cn=two"); }, search_done_of);
  Session s(fake);
  int id = tavtest::send_search(s.ld, "cn=x", 2);
  struct timeval zero = {0, 0}, short_wait = {0, 200000};
  for (struct timeval *wait : {&zero, &short_wait}) {
    LDAPMessage *res = reinterpret_cast<LDAPMessage *>(1);
    EXPECT_EQ(ldap_result(s.ld, id, LDAP_MSG_ALL, wait, &res), 0);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_get_errno(s.ld), LDAP_TIMEOUT);
  }
  fake.open_gate();
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(s.ld, id, LDAP_MSG_ALL, nullptr, &res), ldap_proto::kSearchDone);
  EXPECT_EQ(types_of(res),
            (std::vector<int>{ldap_proto::kSearchEntry, ldap_proto::kSearchEntry, ldap_proto::kSearchDone}));
  EXPECT_EQ(tavtest::entry_dn(res), "cn=one");
  ldap_msgfree(res);
}

TEST(EngineTimeouts, ResponseSplitAcrossATimeOutIsCompletedByTheNextCall) {
  FakeServer fake;
  gated(
      fake, [](int id) { return search_done(id).substr(0, 5); }, [](int id) { return search_done(id).substr(5); });
  Session s(fake);
  int id = tavtest::send_search(s.ld, "cn=x", 0);
  pollfd p{s.sd(), POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 20000), 1);  // the first five bytes are there
  struct timeval short_wait = {0, 200000};
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_result(s.ld, id, LDAP_MSG_ONE, &short_wait, &res), 0);
  EXPECT_EQ(ldap_get_errno(s.ld), LDAP_TIMEOUT);
  int pending = -1;
  ASSERT_EQ(ioctl(s.sd(), FIONREAD, &pending), 0);
  EXPECT_EQ(pending, 0) << "the partial element was not read";
  EXPECT_EQ(get_default_connection(s.ld)->lc_closed, 0) << "a time-out must not close the connection";
  fake.open_gate();
  ASSERT_EQ(ldap_result(s.ld, id, LDAP_MSG_ONE, nullptr, &res), ldap_proto::kSearchDone);
  ldap_msgfree(res);
}

// After a long run of entries the reader waits for a batch of bytes rather
// than for each entry; what arrives after the run pauses, less than a batch,
// must still be handed out at once, not after the caller's time-out.
TEST(EngineTimeouts, ARunOfEntriesThatStopsShortOfABatchIsHandedOutWithoutWaitingOutTheTimeOut) {
  constexpr int kEntries = 100;
  FakeServer fake;
  gated(
      fake,
      [](int id) {
        std::string run;
        for (int i = 0; i < kEntries; ++i) run += search_entry(id, "cn=e" + std::to_string(i));
        return run;
      },
      [](int id) { return search_entry(id, "cn=last") + search_done(id); });
  Session s(fake);
  int id = tavtest::send_search(s.ld, "cn=x", 2);
  struct timeval generous = {10, 0};
  for (int i = 0; i < kEntries; ++i) {
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(s.ld, id, LDAP_MSG_ONE, &generous, &res), ldap_proto::kSearchEntry) << "entry " << i;
    ldap_msgfree(res);
  }
  fake.open_gate();
  pollfd p{s.sd(), POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 20000), 1);  // the tail is waiting in the socket
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(s.ld, id, LDAP_MSG_ALL, &generous, &res), ldap_proto::kSearchDone);
  EXPECT_EQ(types_of(res), (std::vector<int>{ldap_proto::kSearchEntry, ldap_proto::kSearchDone}));
  EXPECT_EQ(tavtest::entry_dn(res), "cn=last");
  ldap_msgfree(res);
}

// A thread that finds the connection being read sleeps until the reader
// wakes it, also when that reader is a direct caller of ldap_get_msg.
TEST(Engine, AWaiterIsWokenByAReaderOutsideTheTable) {
  FakeServer fake;
  gated(
      fake, [](int) { return std::string(); }, search_done_of);
  Session s(fake);
  const int id = tavtest::send_search(s.ld, "cn=x", 0);
  LDAPConn *conn = get_default_connection(s.ld);
  ldap_msg_table *table = conn->lc_msgtable;
  auto reader = std::async(std::launch::async, [&] { return ldap_get_msg(s.ld, conn, nullptr); });
  auto until = [](const std::function<bool()> &done) {
    for (int i = 0; i < 200000 && !done(); ++i) std::this_thread::yield();
    return done();
  };
  ASSERT_TRUE(until([&] {
    if (pthread_mutex_trylock(&conn->lc_read_mutex) != 0) return true;
    pthread_mutex_unlock(&conn->lc_read_mutex);
    return false;
  })) << "the reader never took the connection";
  struct timeval generous = {10, 0};
  LDAPMessage *res = nullptr;
  auto waiter = std::async(std::launch::async, [&] { return ldap_result(s.ld, id, LDAP_MSG_ALL, &generous, &res); });
  ASSERT_TRUE(until([&] {
    pthread_mutex_lock(&table->table_mutex);
    const bool asleep = table->waiters != nullptr;
    pthread_mutex_unlock(&table->table_mutex);
    return asleep;
  })) << "the waiter never went to sleep";
  fake.open_gate();
  EXPECT_EQ(reader.get(), 1);
  pthread_mutex_lock(&table->table_mutex);
  EXPECT_EQ(table->waiters, nullptr) << "the reader left without waking the waiter";
  pthread_mutex_unlock(&table->table_mutex);
  EXPECT_EQ(waiter.get(), ldap_proto::kSearchDone);
  ldap_msgfree(res);
}

}  // namespace
