// Many threads on one session: each response reaches the thread that waits
// for it, none lost, duplicated or crossed; threads read one result chain at
// once; large requests of different threads never interleave on the wire.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "fake_server.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap-update.h"
#include "ldap_requests.h"
#include "slapd_suite.h"

using tavtest::FakeServer;
using tavtest::SlapdServer;

namespace {

class Concurrency : public tavtest::SlapdSuite<Concurrency> {
 public:
  static tavtest::SlapdOptions options() { return {.people = 40}; }
};

// Runs body(t) on `threads` threads at once and counts the failures it reports.
int run_threads(int threads, const std::function<int(int)> &body) {
  std::atomic<int> failures{0};
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) pool.emplace_back([&, t] { failures += body(t); });
  for (auto &th : pool) th.join();
  return failures;
}

// Everything a walk of the chain reads, as one string.
std::string walk(LDAP *ld, LDAPMessage *res) {
  std::string out;
  for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
    char *dn = ldap_get_dn(ld, e);
    out += dn ? dn : "?";
    ldap_memfree(dn);
    BerElement *cursor = nullptr;
    for (char *a = ldap_first_attribute(ld, e, &cursor); a; a = ldap_next_attribute(ld, e, cursor)) {
      struct berval **v = ldap_get_values_len(ld, e, a);
      out += ";" + std::string(a) + "=" + (v ? std::string(v[0]->bv_val, v[0]->bv_len) : "?");
      ldap_value_free_len(v);
      ldap_memfree(a);
    }
    ldap_ber_free(cursor);
    out += "\n";
  }
  return out;
}

TEST_F(Concurrency, ThirtyTwoThreadsShareOneSessionWithoutCrossedResponses) {
  const char *env = getenv("TAV_STRESS_ITERATIONS");
  const int per_thread = env && atoi(env) > 0 ? atoi(env) : 1000;
  EXPECT_EQ(run_threads(32,
                        [&](int t) {
                          // Each thread reads its own entry: a crossed response shows as a wrong DN.
                          const std::string dn = SlapdServer::user_dn(t + 1);
                          int wrong = 0;
                          for (int i = 0; i < per_thread; ++i) {
                            int id = tavtest::send_search(ld, dn, 0);
                            LDAPMessage *res = nullptr;
                            wrong += id < 0 ||
                                     ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res) != ldap_proto::kSearchDone ||
                                     ldap_count_messages(ld, res) != 2 || tavtest::entry_dn(res) != dn;
                            ldap_msgfree(res);
                          }
                          return wrong;
                        }),
            0);
  ldap_msg_table *table = get_default_connection(ld)->lc_msgtable;
  EXPECT_EQ(table->free_count, (int32_t)table->size) << "rows left in use";
}

TEST_F(Concurrency, SynchronousSearchesAndReadersOfOneChain) {
  EXPECT_EQ(run_threads(8,
                        [&](int t) {
                          int wrong = 0;
                          for (int i = 0; i < 25; ++i) {
                            const int user = (t * 5 + i) % 40 + 1;
                            LDAPMessage *res = nullptr;
                            struct timeval tv = {20, 0};
                            int rc = ldap_search_st(ld, SlapdServer::user_dn(user).c_str(), 0, "(objectClass=*)",
                                                    nullptr, 0, &tv, &res);
                            char **uid = rc == 0 ? ldap_get_values(ld, ldap_first_entry(ld, res), "uid") : nullptr;
                            wrong += uid == nullptr || std::string(uid[0]) != "user" + std::to_string(user);
                            ldap_value_free(uid);
                            ldap_msgfree(res);
                          }
                          return wrong;
                        }),
            0);
  // Each reader works on its own copy of the element record.
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_search_s(ld, SlapdServer::kPeopleDn, 1, "(objectClass=*)", nullptr, 0, &res), LDAP_SUCCESS);
  const std::string expected = walk(ld, res);
  EXPECT_EQ(ldap_count_entries(ld, res), 40);
  EXPECT_EQ(run_threads(6, [&](int) { return walk(ld, res) != expected; }), 0);
  ldap_msgfree(res);
}

TEST_F(Concurrency, ThreadsUpdateDifferentEntriesAndReadTheirOwnOutcomes) {
  ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), LDAP_SUCCESS);
  EXPECT_EQ(run_threads(6,
                        [&](int t) {
                          int wrong = 0;
                          char oc[] = "person", t_oc[] = "objectClass", t_cn[] = "cn", t_sn[] = "sn";
                          for (int i = 0; i < 10; ++i) {
                            std::string cn = "T" + std::to_string(t) + "R" + std::to_string(i);
                            char *ocs[] = {oc, nullptr}, *cns[] = {cn.data(), nullptr};
                            LDAPMod m_oc = {LDAP_MOD_ADD, t_oc, {ocs}}, m_cn = {LDAP_MOD_ADD, t_cn, {cns}},
                                    m_sn = {LDAP_MOD_REPLACE, t_sn, {cns}};
                            LDAPMod *entry[] = {&m_oc, &m_cn, &m_sn, nullptr}, *change[] = {&m_sn, nullptr};
                            const std::string dn = "cn=" + cn + "," + SlapdServer::kPeopleDn;
                            const std::string moved = "cn=" + cn + "x," + SlapdServer::kPeopleDn;
                            wrong += ldap_add_s(ld, dn.c_str(), entry) != 0 ||
                                     ldap_modify_s(ld, dn.c_str(), change) != 0 ||
                                     ldap_modrdn_s(ld, dn.c_str(), ("cn=" + cn + "x").c_str(), 1) != 0 ||
                                     ldap_delete_s(ld, moved.c_str()) != 0 || ldap_get_errno(ld) != 0;
                            // Each thread reads its own last outcome, whatever the others did.
                            wrong += ldap_delete_s(ld, dn.c_str()) != LDAP_NO_SUCH_OBJECT ||
                                     ldap_get_errno(ld) != LDAP_NO_SUCH_OBJECT;
                          }
                          return wrong;
                        }),
            0);
}

TEST(ConcurrencyWire, WaitersGetTheirOwnResponsesAndLargeRequestsNeverInterleave) {
  std::string first;  // written by the server thread: outlives its join
  FakeServer fake;
  fake.on_request([&](const std::string &r) { return first = r, std::string(); })
      .on_request([&](const std::string &r) {  // the second answered first
        int a = tavtest::request_msgid(first), b = tavtest::request_msgid(r);
        return tavtest::search_entry(b, "cn=second") + tavtest::search_done(b) + tavtest::search_entry(a, "cn=first") +
               tavtest::search_done(a);
      })
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  int ids[2] = {tavtest::send_search(ld, "cn=first", 0), tavtest::send_search(ld, "cn=second", 0)};
  std::string got[2], sent[2];
  std::thread threads[2];
  for (int t = 0; t < 2; ++t)
    threads[t] = std::thread([&, t] {
      LDAPMessage *r = nullptr;
      if (ldap_result(ld, ids[t], LDAP_MSG_ALL, nullptr, &r) == ldap_proto::kSearchDone) got[t] = tavtest::entry_dn(r);
      ldap_msgfree(r);
      // An octet string of one repeated letter per thread, so any interleaving shows.
      EXPECT_GT(tavtest::send_raw_op(ld, ldap_proto::kDeleteRequest,
                                     tavtest::tlv(ldap_proto::kDeleteRequest, std::string(400000, 'a' + t)), &sent[t]),
                0);
    });
  for (auto &th : threads) th.join();
  ldap_unbind(ld);
  EXPECT_EQ(got[0], "cn=first");
  EXPECT_EQ(got[1], "cn=second");
  ASSERT_TRUE(fake.wait_done());
  std::string wire = fake.received();
  for (int i = 0; i < 2; ++i) wire.erase(0, tavtest::ber_element_length(wire));  // the searches
  size_t one = tavtest::ber_element_length(wire);
  ASSERT_GT(one, 0u);
  const std::string a = wire.substr(0, one), b = wire.substr(one, tavtest::ber_element_length(wire.substr(one)));
  EXPECT_TRUE((a == sent[0] && b == sent[1]) || (a == sent[1] && b == sent[0])) << "requests interleaved on the wire";
}

}  // namespace
