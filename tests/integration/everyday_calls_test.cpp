// The calls every LDAP programmer expects, against a private slapd: compare,
// Who am I?, password modify, ldap_initialize, and abandon (late entries never
// reach a caller; a thread waiting on the abandoned ID is told).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "fake_server.h"
#include "ldap-engine.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

class Everyday : public tavtest::SlapdSuite<Everyday> {
 public:
  // A subtree search long enough to be abandoned midway.
  static tavtest::SlapdOptions options() { return {.people = 1500}; }
};

std::string bv_text(const struct berval *bv) { return bv != nullptr ? std::string(bv->bv_val, bv->bv_len) : "(none)"; }

TEST_F(Everyday, CompareAnswersTrueFalseOrTheServersCode) {
  struct Row {
    std::string dn;
    const char *attr, *value;
    int code;
  } rows[] = {
      {SlapdServer::user_dn(1), "mail", "user1@example.com", LDAP_COMPARE_TRUE},
      {SlapdServer::user_dn(1), "mail", "user2@example.com", LDAP_COMPARE_FALSE},
      {SlapdServer::user_dn(1), "title", "x", LDAP_NO_SUCH_ATTRIBUTE},
      {"uid=nobody," + std::string(SlapdServer::kPeopleDn), "mail", "x", LDAP_NO_SUCH_OBJECT},
      {SlapdServer::user_dn(1), "", "x", LDAP_PARAM_ERROR},
  };
  for (const Row &r : rows) {
    EXPECT_EQ(ldap_compare_s(ld, r.dn.c_str(), r.attr, r.value), r.code) << r.attr << "=" << r.value;
    if (r.code == LDAP_NO_SUCH_OBJECT) {
      char *matched = nullptr;
      ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_MATCHED_DN, &matched), 0);
      EXPECT_STREQ(matched, SlapdServer::kPeopleDn) << "the server's matched DN, as the common API reads it";
      ldap_memfree(matched);
    }
    // The asynchronous form: its answer read as any other result.
    const int id = ldap_compare(ld, r.dn.c_str(), r.attr, r.value);
    if (r.code == LDAP_PARAM_ERROR) {
      EXPECT_EQ(id, -1);
      continue;
    }
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), LDAP_RES_COMPARE);
    EXPECT_EQ(ldap_result2error(ld, res, 1), r.code);
  }
}

TEST_F(Everyday, WhoAmIAndPasswordModifyChangeWhoTheSessionIs) {
  struct berval *who = nullptr;
  ASSERT_EQ(ldap_whoami_s(ld, &who, nullptr, nullptr), 0);
  EXPECT_EQ(bv_text(who), "") << "anonymous";
  fber_bvfree(who);

  const std::string dn = SlapdServer::user_dn(3);
  ASSERT_EQ(ldap_simple_bind_s(ld, dn.c_str(), SlapdServer::user_password(3).c_str()), 0);
  int id = -1;
  ASSERT_EQ(ldap_whoami(ld, nullptr, nullptr, &id), 0);
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), LDAP_RES_EXTENDED);
  ASSERT_EQ(ldap_parse_whoami(ld, res, &who), 0);
  ldap_msgfree(res);
  EXPECT_EQ(bv_text(who), "dn:" + dn);
  fber_bvfree(who);

  // Its own password, old and new given: the new one binds, the old does not.
  struct berval oldpw = {5, const_cast<char *>("pass3")}, newpw = {7, const_cast<char *>("fresh-3")};
  struct berval generated = {1, nullptr};
  EXPECT_EQ(ldap_passwd_s(ld, nullptr, &oldpw, &newpw, &generated, nullptr, nullptr), 0);
  EXPECT_EQ(generated.bv_len, 0u) << "nothing generated when a new password is given";
  EXPECT_EQ(ldap_simple_bind_s(ld, dn.c_str(), "pass3"), LDAP_INVALID_CREDENTIALS);
  ASSERT_EQ(ldap_simple_bind_s(ld, dn.c_str(), "fresh-3"), 0);
  // No new password: the server makes one up and it is handed back.
  struct berval user = {dn.size(), const_cast<char *>(dn.c_str())};
  ASSERT_EQ(ldap_passwd(ld, &user, nullptr, nullptr, nullptr, nullptr, &id), 0);
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), LDAP_RES_EXTENDED);
  ASSERT_EQ(ldap_parse_passwd(ld, res, &generated), 0);
  ldap_msgfree(res);
  ASSERT_GT(generated.bv_len, 0u);
  EXPECT_EQ(ldap_simple_bind_s(ld, dn.c_str(), generated.bv_val), 0);
  ldap_memfree(generated.bv_val);
}

TEST_F(Everyday, InitializeTakesUriListsInOrder) {
  const std::string dead = "ldap://127.0.0.1:" + std::to_string(tavtest::free_port());
  std::string ldapi = "ldapi://";
  for (char c : slapd->ldapi_path()) ldapi += c == '/' ? std::string("%2F") : std::string(1, c);
  struct Row {
    std::string uris;
    int rc;
  } rows[] = {
      {dead + " " + slapd->url(), 0},
      {dead + "," + slapd->url() + "/dc=ignored", 0},
      {ldapi + "/", 0},
      {"http://127.0.0.1", LDAP_PARAM_ERROR},
      {slapd->url() + " ldaps://127.0.0.1", LDAP_PARAM_ERROR},
      {"", LDAP_PARAM_ERROR},
  };
  for (const Row &r : rows) {
    LDAP *l = nullptr;
    ASSERT_EQ(ldap_initialize(&l, r.uris.c_str()), r.rc) << r.uris;
    if (r.rc != 0) {
      EXPECT_EQ(l, nullptr);
      continue;
    }
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_s(l, SlapdServer::kSuffix, LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &res), 0)
        << r.uris;
    ldap_msgfree(res);
    ldap_unbind_ext_s(l, nullptr, nullptr);
  }
}

TEST_F(Everyday, AnAbandonedSearchsLateEntriesReachNobody) {
  const int id = ldap_search(ld, SlapdServer::kPeopleDn, LDAP_SCOPE_SUBTREE, "(objectClass=*)", nullptr, 0);
  ASSERT_GT(id, 0);
  LDAPMessage *first = nullptr;
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ONE, nullptr, &first), LDAP_RES_SEARCH_ENTRY);
  ldap_msgfree(first);
  EXPECT_EQ(ldap_abandon(ld, id), 0);
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ONE, nullptr, &res), -1);
  // What the server still sends is dropped: another request's answers are all
  // a caller sees.
  const int other = ldap_search(ld, SlapdServer::user_dn(7).c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0);
  int seen = 0;
  for (int type = 0; type != LDAP_RES_SEARCH_RESULT;) {
    struct timeval wait = {10, 0};
    type = ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ONE, &wait, &res);
    ASSERT_GT(type, 0);
    EXPECT_EQ(ldap_msgid(res), other);
    seen += type == LDAP_RES_SEARCH_ENTRY;
    ldap_msgfree(res);
  }
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(ldap_abandon(ld, 0), -1) << "no request has ID 0";
}

// A scripted server that never answers: a thread waiting for the search is
// told when another thread abandons it, and the server hears of it.
TEST(Abandon, AThreadWaitingOnTheAbandonedIdIsTold) {
  tavtest::FakeServer server;
  server.hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", server.start());
  const int id = ldap_search(ld, "o=x", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0);
  ASSERT_GT(id, 0);
  std::atomic<int> type{0}, code{0};
  std::thread waiter([&] {
    LDAPMessage *res = nullptr;
    type = ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res);
    code = ldap_get_errno(ld);
  });
  // The waiter has taken the row once it owns it.
  ldap_msg_table *table = ld->ld_defconn->lc_msgtable;
  for (bool owned = false; !owned; std::this_thread::yield()) {
    pthread_mutex_lock(&table->table_mutex);
    owned = table->rows[id].owner_tid != 0;
    pthread_mutex_unlock(&table->table_mutex);
  }
  EXPECT_EQ(ldap_abandon_ext(ld, id, nullptr, nullptr), 0);
  waiter.join();
  EXPECT_EQ(type.load(), -1);
  EXPECT_EQ(code.load(), LDAP_USER_CANCELLED);
  ldap_unbind(ld);
  ASSERT_TRUE(server.wait_done());
  const std::string all = server.received();
  int abandoned = -1;
  for (size_t at = 0, len; (len = tavtest::ber_element_length(all.substr(at))) != 0; at += len)
    if (tavtest::FakeServer::is_abandon(all.substr(at, len))) abandoned = (unsigned char)all[at + len - 1];
  EXPECT_EQ(abandoned, id) << "an AbandonRequest naming the search";
}

}  // namespace
