// What a real server will not do during a chase: answer a URL search only
// after the caller gave up, or close at any byte of the answer that carries
// the referral.
#include <gtest/gtest.h>

#include <string>

#include "fake_server.h"
#include "ldap-search.h"
#include "ldap_requests.h"
#include "referral_servers.h"

using tavtest::FakeServer;
using tavtest::ReferralServers;

namespace {

TEST(ReferralFaults, TimedOutUrlSearchGivesItsRowsBackWhenTheLateResultArrives) {
  // The server answers the first search only together with the second.
  FakeServer other;
  int first = 0;
  other
      .on_request([&](const std::string &r) {
        first = tavtest::request_msgid(r);
        return std::string();
      })
      .on_request([&](const std::string &r) {
        return tavtest::search_done(first) + tavtest::search_done(tavtest::request_msgid(r));
      })
      .hold_until_closed();
  other.start();
  // The session's own server is never contacted: both searches name the other.
  LDAP *ld = ldap_init("127.0.0.1", tavtest::free_port());
  const std::string url = ReferralServers::url(other.port(), "cn=x") + "??base";
  struct timeval short_wait = {0, 200000};
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_url_search_st(ld, url.c_str(), 0, &short_wait, &res), LDAP_TIMEOUT);
  EXPECT_EQ(res, nullptr);
  EXPECT_EQ(ReferralServers::rows_in_use(ld), 2);  // a row on each connection
  ASSERT_EQ(ldap_url_search_st(ld, url.c_str(), 0, nullptr, &res), 0);
  ldap_msgfree(res);
  EXPECT_EQ(ReferralServers::rows_in_use(ld), 0);
  ldap_unbind(ld);
}

TEST(ReferralFaults, ServerClosingAtEveryByteOfAReferringAnswerGives81) {
  tavtest::SlapdServer b;
  std::string error;
  ASSERT_TRUE(b.start(&error)) << error;
  const std::string url = ReferralServers::url(b.port(), tavtest::SlapdServer::kPeopleDn) + "??sub";
  const size_t whole = (tavtest::search_reference(1, url) + tavtest::search_done(1)).size();
  for (size_t cut = 0; cut <= whole; ++cut) {
    SCOPED_TRACE(cut);
    FakeServer a;
    a.on_request([&](const std::string &r) {
       const int id = tavtest::request_msgid(r);
       return (tavtest::search_reference(id, url) + tavtest::search_done(id)).substr(0, cut);
     }).close();
    a.start();
    LDAP *ld = ldap_init("127.0.0.1", a.port());
    LDAPMessage *res = nullptr;
    const int rc = ldap_search_st(ld, "o=x", 2, "(objectClass=*)", nullptr, 0, nullptr, &res);
    if (cut == whole) {
      EXPECT_EQ(rc, 0);
      EXPECT_EQ(ldap_count_entries(ld, res), 6);  // ou=People and its five users, from B
    } else {
      EXPECT_EQ(rc, LDAP_SERVER_DOWN);
    }
    ldap_msgfree(res);
    ldap_unbind(ld);
  }
}

TEST(ReferralFaults, AReplyThatDoesNotAnswerItsRequestIsNeverChased) {
  // A BindResponse answering a search, carrying a referral: a decoding error,
  // and the server it names is never contacted.
  FakeServer elsewhere;
  elsewhere.start();
  const std::string url = ReferralServers::url(elsewhere.port(), "o=x");
  FakeServer a;
  a.on_request([&](const std::string &r) {
     using namespace tavtest;
     return message(request_msgid(r), tlv(0x61, integer(10, 0x0A) + str("") + str("") + tlv(0xA3, str(url))));
   }).hold_until_closed();
  a.start();
  LDAP *ld = ldap_init("127.0.0.1", a.port());
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_search_st(ld, "o=x", 0, "(objectClass=*)", nullptr, 0, nullptr, &res), LDAP_DECODING_ERROR);
  ldap_msgfree(res);
  ldap_unbind(ld);
  EXPECT_EQ(elsewhere.received(), "");
}

}  // namespace
