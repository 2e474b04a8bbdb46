// Many threads on one session: each request's responses go to the thread that
// waits for it, none lost, duplicated or crossed; large requests of different
// threads never interleave on the wire.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "fake_server.h"
#include "ldap_requests.h"
#include "slapd_server.h"

using tavtest::FakeServer;
using tavtest::SlapdServer;

namespace {

int stress_iterations() {
  const char *v = getenv("TAV_STRESS_ITERATIONS");
  return v && atoi(v) > 0 ? atoi(v) : 1000;
}

TEST(EngineConcurrency, ThirtyTwoThreadsShareOneSessionWithoutCrossedResponses) {
  tavtest::SlapdOptions opts;
  opts.people = 32;
  SlapdServer slapd(opts);
  std::string error;
  ASSERT_TRUE(slapd.start(&error)) << error;
  LDAP *ld = ldap_init("127.0.0.1", slapd.port());
  ASSERT_NE(ld, nullptr);

  const int threads = 32, per_thread = stress_iterations();
  std::atomic<int> done{0}, wrong{0}, failed{0};
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      // Each thread reads its own entry, so a crossed response shows as a wrong DN.
      const std::string dn = SlapdServer::user_dn(t + 1);
      for (int i = 0; i < per_thread; ++i) {
        int id = tavtest::send_search(ld, dn, 0);
        LDAPMessage *res = nullptr;
        if (id < 0 || ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res) != 0x65) {
          ++failed;
          continue;
        }
        if (ldap_count_messages(ld, res) != 2 || tavtest::entry_dn(res) != dn) ++wrong;
        ldap_msgfree(res);
        ++done;
      }
    });
  }
  for (auto &th : pool) th.join();
  EXPECT_EQ(failed.load(), 0);
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(done.load(), threads * per_thread);
  // Every row came back: nothing is left in use.
  ldap_msg_table *table = get_default_connection(ld)->lc_msgtable;
  EXPECT_EQ(table->free_count, (int32_t)table->size);
  ldap_unbind(ld);
}

TEST(EngineConcurrency, TwoWaitersGetTheirOwnResponsesArrivingInReverseOrder) {
  FakeServer fake;
  int first = 0, second = 0;
  fake.on_request([&](const std::string &r) { first = tavtest::request_msgid(r); return std::string(); })
      .on_request([&](const std::string &r) {
        second = tavtest::request_msgid(r);
        return tavtest::search_entry(second, "cn=second") + tavtest::search_done(second);
      })
      .pause(100)
      .send_lazy([&] { return tavtest::search_entry(first, "cn=first") + tavtest::search_done(first); })
      .hold_until_closed();
  fake.start();
  LDAP *ld = ldap_init("127.0.0.1", fake.port());
  int a = tavtest::send_search(ld, "cn=first", 0);
  int b = tavtest::send_search(ld, "cn=second", 0);
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);
  std::string got_a, got_b;
  std::thread ta([&] {
    LDAPMessage *r = nullptr;
    if (ldap_result(ld, a, LDAP_MSG_ALL, nullptr, &r) == 0x65) got_a = tavtest::entry_dn(r);
    ldap_msgfree(r);
  });
  std::thread tb([&] {
    LDAPMessage *r = nullptr;
    if (ldap_result(ld, b, LDAP_MSG_ALL, nullptr, &r) == 0x65) got_b = tavtest::entry_dn(r);
    ldap_msgfree(r);
  });
  ta.join();
  tb.join();
  EXPECT_EQ(got_a, "cn=first");
  EXPECT_EQ(got_b, "cn=second");
  ldap_unbind(ld);
}

TEST(EngineConcurrency, LargeRequestsOfTwoThreadsNeverInterleave) {
  const size_t big = 400000;
  FakeServer fake;
  fake.hold_until_closed(20000);  // the session closes once both are written
  fake.start();
  LDAP *ld = ldap_init("127.0.0.1", fake.port());
  std::string sent[2];
  std::thread writers[2];
  for (int t = 0; t < 2; ++t)
    writers[t] = std::thread([&, t] {
      // An octet string of one repeated letter per thread, so any interleaving shows.
      std::string value(big, static_cast<char>('a' + t));
      std::string op = std::string("\x4a\x84", 2);
      for (int shift = 24; shift >= 0; shift -= 8) op += static_cast<char>((big >> shift) & 0xFF);
      op += value;
      EXPECT_GT(tavtest::send_raw_op(ld, 0x4a, op, &sent[t]), 0);
    });
  for (auto &w : writers) w.join();
  ldap_unbind(ld);
  ASSERT_TRUE(fake.wait_done(20000));
  std::string wire = fake.received();
  size_t first = tavtest::ber_element_length(wire);
  ASSERT_GT(first, 0u);
  std::string one = wire.substr(0, first), two = wire.substr(first, tavtest::ber_element_length(wire.substr(first)));
  EXPECT_TRUE((one == sent[0] && two == sent[1]) || (one == sent[1] && two == sent[0]))
      << "requests interleaved on the wire";
}

}  // namespace
