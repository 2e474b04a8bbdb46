// The message engine end to end against the private slapd: requests built
// with the encoder, responses collected with ldap_result.
#include <gtest/gtest.h>

#include "ldap_requests.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

class Engine : public tavtest::SlapdSuite<Engine> {
 protected:
  void SetUp() override {
    ASSERT_NE(slapd, nullptr);
    ld = ldap_init("127.0.0.1", slapd->port());
    ASSERT_NE(ld, nullptr);
  }
  void TearDown() override {
    if (ld) ldap_unbind(ld);
  }
  LDAP *ld = nullptr;
};

std::vector<int> types_of(LDAPMessage *chain) {
  std::vector<int> t;
  for (LDAPMessage *m = chain; m; m = m->lm_chain) t.push_back(m->lm_msgtype);
  return t;
}

TEST_F(Engine, AllModeReturnsTheWholeSearchChain) {
  int id = tavtest::send_search(ld, SlapdServer::kPeopleDn, 1);
  ASSERT_GT(id, 0) << ldap_get_errno(ld);
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), 0x65);
  EXPECT_EQ(types_of(res), (std::vector<int>{0x64, 0x64, 0x64, 0x64, 0x64, 0x65}));
  EXPECT_EQ(ldap_count_messages(ld, res), 6);
  std::set<std::string> dns;
  for (LDAPMessage *m = res; m && m->lm_msgtype == 0x64; m = m->lm_chain) dns.insert(tavtest::entry_dn(m));
  EXPECT_EQ(dns.size(), 5u);
  EXPECT_TRUE(dns.count(SlapdServer::user_dn(3)));
  // Asking again after everything was delivered: nothing left for this ID.
  LDAPMessage *again = nullptr;
  EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &again), -1);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_LOCAL_ERROR);
  EXPECT_EQ(ldap_msgfree(res), 0x65);
  // The row was released: its ID is free again and a new request works.
  EXPECT_GT(tavtest::send_search(ld, SlapdServer::kSuffix, 0), id);
}

TEST_F(Engine, OneModeHandsOutEachMessageAlone) {
  int id = tavtest::send_search(ld, SlapdServer::kPeopleDn, 1);
  ASSERT_GT(id, 0);
  std::vector<int> types;
  std::vector<LDAPMessage *> got;
  for (;;) {
    LDAPMessage *m = nullptr;
    int rc = ldap_result(ld, id, LDAP_MSG_ONE, nullptr, &m);
    ASSERT_GT(rc, 0);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->lm_flags & LDAP_MSG_HANDED_ALONE, (uint32_t)LDAP_MSG_HANDED_ALONE);
    EXPECT_EQ(ldap_next_message(ld, m), nullptr);
    types.push_back(rc);
    got.push_back(m);
    if (rc == 0x65) break;
  }
  EXPECT_EQ(types, (std::vector<int>{0x64, 0x64, 0x64, 0x64, 0x64, 0x65}));
  for (LDAPMessage *m : got) ldap_msgfree(m);
}

TEST_F(Engine, ResponsesForAnyRequestGoToTheirOwnRows) {
  int a = tavtest::send_search(ld, SlapdServer::user_dn(1), 0);
  int b = tavtest::send_search(ld, SlapdServer::user_dn(2), 0);
  ASSERT_GT(b, a);
  // Wait on b first: a's responses that arrive meanwhile stay in a's row.
  LDAPMessage *rb = nullptr, *ra = nullptr;
  ASSERT_EQ(ldap_result(ld, b, LDAP_MSG_ALL, nullptr, &rb), 0x65);
  ASSERT_EQ(ldap_result(ld, a, LDAP_MSG_ALL, nullptr, &ra), 0x65);
  EXPECT_EQ(tavtest::entry_dn(ra), SlapdServer::user_dn(1));
  EXPECT_EQ(tavtest::entry_dn(rb), SlapdServer::user_dn(2));
  ldap_msgfree(ra);
  ldap_msgfree(rb);
}

TEST_F(Engine, ServerResultCodesArriveIntact) {
  int id = tavtest::send_search(ld, "ou=Nowhere,dc=example,dc=com", 0);
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), 0x65);
  // SearchResultDone: ENUMERATED resultCode 32 (no such object).
  int code = -1;
  char *matched = nullptr, *text = nullptr;
  ASSERT_NE(fber_scanf(res->lm_ber, "{eaa}", &code, &matched, &text), LBER_ERROR);
  EXPECT_EQ(code, 32);
  EXPECT_STREQ(matched, SlapdServer::kSuffix);
  free(matched);
  free(text);
  ldap_msgfree(res);
}

TEST(EngineConnection, NothingListeningGives81AndTheConnectionStaysClosed) {
  int port = tavtest::free_port();
  LDAP *ld = ldap_init("127.0.0.1", port);
  ASSERT_NE(ld, nullptr);
  EXPECT_EQ(tavtest::send_search(ld, "dc=example,dc=com", 0), -1);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_SERVER_DOWN);
  EXPECT_EQ(get_default_connection(ld)->lc_closed, 1);
  EXPECT_EQ(tavtest::send_search(ld, "dc=example,dc=com", 0), -1);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_SERVER_DOWN);
  ldap_unbind(ld);
}

}  // namespace
