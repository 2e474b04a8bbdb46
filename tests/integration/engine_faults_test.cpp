// What a real server will not do: stop reading, die mid-response, split a
// response across a time-out, answer unknown or special message IDs.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "fake_server.h"
#include "ldap_requests.h"

using tavtest::FakeServer;

namespace {

struct Session {
  explicit Session(const FakeServer &fake) : ld(ldap_init("127.0.0.1", fake.port())) {}
  ~Session() { ldap_unbind(ld); }
  LDAP *ld;
};

TEST(EngineTimeouts, ZeroTimeOutReturnsZeroAndRecords85) {
  FakeServer fake;
  fake.hold_until_closed();
  fake.start();
  Session s(fake);
  int id = tavtest::send_search(s.ld, "cn=x", 0);
  ASSERT_GT(id, 0);
  struct timeval zero = {0, 0};
  LDAPMessage *res = reinterpret_cast<LDAPMessage *>(1);
  EXPECT_EQ(ldap_result(s.ld, id, LDAP_MSG_ALL, &zero, &res), 0);
  EXPECT_EQ(res, nullptr);
  EXPECT_EQ(ldap_get_errno(s.ld), LDAP_TIMEOUT);
}

TEST(EngineTimeouts, TimeOutInsideAResultKeepsWhatArrived) {
  FakeServer fake;
  int id = 0;
  fake.on_request([&](const std::string &r) {
        id = tavtest::request_msgid(r);
        return tavtest::search_entry(id, "cn=one") + tavtest::search_entry(id, "cn=two");
      })
      .pause(700)
      .send_lazy([&] { return tavtest::search_done(id); })
      .hold_until_closed();
  fake.start();
  Session s(fake);
  int msgid = tavtest::send_search(s.ld, "cn=x", 2);
  struct timeval short_wait = {0, 300000}, long_wait = {5, 0};
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_result(s.ld, msgid, LDAP_MSG_ALL, &short_wait, &res), 0);
  EXPECT_EQ(ldap_get_errno(s.ld), LDAP_TIMEOUT);
  ASSERT_EQ(ldap_result(s.ld, msgid, LDAP_MSG_ALL, &long_wait, &res), 0x65);
  ASSERT_EQ(ldap_count_messages(s.ld, res), 3);
  EXPECT_EQ(tavtest::entry_dn(res), "cn=one");
  EXPECT_EQ(tavtest::entry_dn(res->lm_chain), "cn=two");
  ldap_msgfree(res);
}

TEST(EngineTimeouts, ResponseSplitAcrossATimeOutIsCompletedByTheNextCall) {
  FakeServer fake;
  int id = 0;
  std::string done;
  fake.on_request([&](const std::string &r) {
        id = tavtest::request_msgid(r);
        done = tavtest::search_done(id);
        return done.substr(0, 5);
      })
      .pause(600)
      .send_lazy([&] { return done.substr(5); })
      .hold_until_closed();
  fake.start();
  Session s(fake);
  int msgid = tavtest::send_search(s.ld, "cn=x", 0);
  struct timeval short_wait = {0, 200000}, long_wait = {5, 0};
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_result(s.ld, msgid, LDAP_MSG_ONE, &short_wait, &res), 0);
  EXPECT_EQ(ldap_get_errno(s.ld), LDAP_TIMEOUT);
  EXPECT_EQ(get_default_connection(s.ld)->lc_closed, 0) << "a time-out must not close the connection";
  ASSERT_EQ(ldap_result(s.ld, msgid, LDAP_MSG_ONE, &long_wait, &res), 0x65);
  ldap_msgfree(res);
}

TEST(EngineFaults, ServerThatStopsReadingMakesTheWriteFailAfterTheWriteTimeOut) {
  setenv("LDAP_LIB_WRITE_TIMEOUT", "2", 1);
  ldap_reset_write_timeout();
  FakeServer fake;
  fake.set_receive_buffer(4096);
  fake.stop_reading(8000).close();
  fake.start();
  {
    Session s(fake);
    std::string huge(64 << 20, 'z');  // more than the socket buffers on both ends can hold
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tavtest::send_raw_op(s.ld, 0x4a, std::string("\x4a\x00", 2), nullptr), 1);  // connects; small enough to pass
    std::string op = std::string("\x4a\x84", 2);
    for (int shift = 24; shift >= 0; shift -= 8) op += static_cast<char>((huge.size() >> shift) & 0xFF);
    EXPECT_EQ(tavtest::send_raw_op(s.ld, 0x4a, op + huge), -1);
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(ldap_get_errno(s.ld), LDAP_SERVER_DOWN);
    EXPECT_GE(waited, std::chrono::milliseconds(1900));
    // The connection is closed for good: the next request fails at once.
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(tavtest::send_raw_op(s.ld, 0x4a, std::string("\x4a\x00", 2)), -1);
    EXPECT_EQ(ldap_get_errno(s.ld), LDAP_SERVER_DOWN);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  }
  unsetenv("LDAP_LIB_WRITE_TIMEOUT");
  ldap_reset_write_timeout();
}

TEST(EngineFaults, ServerDyingMidResponseGives81ToEveryWaiter) {
  FakeServer fake;
  int seen = 0;
  std::string half;
  fake.on_request([&](const std::string &) { return std::string(); })
      .on_request([&](const std::string &r) {
        seen = tavtest::request_msgid(r);
        std::string entry = tavtest::search_entry(seen, "cn=partial");
        return entry.substr(0, entry.size() / 2);
      })
      .pause(200)
      .close();
  fake.start();
  Session s(fake);
  int a = tavtest::send_search(s.ld, "cn=a", 0), b = tavtest::send_search(s.ld, "cn=b", 0);
  int rc_a = 0, rc_b = 0, err_a = 0, err_b = 0;
  std::thread ta([&] {
    LDAPMessage *r = nullptr;
    rc_a = ldap_result(s.ld, a, LDAP_MSG_ALL, nullptr, &r);
    err_a = ldap_get_errno(s.ld);
  });
  std::thread tb([&] {
    LDAPMessage *r = nullptr;
    rc_b = ldap_result(s.ld, b, LDAP_MSG_ALL, nullptr, &r);
    err_b = ldap_get_errno(s.ld);
  });
  ta.join();
  tb.join();
  EXPECT_EQ(rc_a, -1);
  EXPECT_EQ(rc_b, -1);
  EXPECT_EQ(err_a, LDAP_SERVER_DOWN);
  EXPECT_EQ(err_b, LDAP_SERVER_DOWN);
  EXPECT_EQ(get_default_connection(s.ld)->lc_closed, 1);
}

TEST(EngineFaults, UnknownAndSpecialMessageIdsAreHandledAsDesigned) {
  FakeServer fake;
  int id = 0;
  fake.on_request([&](const std::string &r) {
        id = tavtest::request_msgid(r);
        return tavtest::search_done(id + 100) +                 // no request under that ID: dropped
               tavtest::search_done(256) +                      // the table's size: dropped
               tavtest::ldap_response(0, 0x78) +                // unsolicited notification: row 0
               tavtest::search_entry(id, "cn=real") + tavtest::search_done(id);
      })
      .hold_until_closed();
  fake.start();
  Session s(fake);
  int msgid = tavtest::send_search(s.ld, "cn=x", 0);
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(s.ld, msgid, LDAP_MSG_ALL, nullptr, &res), 0x65);
  EXPECT_EQ(ldap_count_messages(s.ld, res), 2);
  EXPECT_EQ(tavtest::entry_dn(res), "cn=real");
  ldap_msgfree(res);
  LDAPMessage *notice = nullptr;
  struct timeval wait = {2, 0};
  ASSERT_EQ(ldap_result(s.ld, 0, LDAP_MSG_ONE, &wait, &notice), 0x78);
  EXPECT_EQ(ldap_msgid(notice), 0);
  ldap_msgfree(notice);
  ldap_msg_table *table = get_default_connection(s.ld)->lc_msgtable;
  EXPECT_EQ(table->rows[0].flags & LDAP_ROW_COMPLETE, 0u);
}

}  // namespace
