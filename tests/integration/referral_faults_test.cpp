// What a real server will not do during a chase: answer a URL search only
// after the caller gave up, close at any byte of the answer that carries the
// referral, or refer to a local socket; and what the referred server is sent.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "fake_server.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap_requests.h"
#include "process.h"
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
  const std::string url = ReferralServers::url(other.start(), "cn=x") + "??base";
  // The session's own server is never contacted: both searches name the other.
  LDAP *ld = ldap_init("127.0.0.1", tavtest::free_port());
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
    LDAP *ld = ldap_init("127.0.0.1", a.start());
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
  const std::string url = ReferralServers::url(elsewhere.start(), "o=x");
  FakeServer a;
  a.on_request([&](const std::string &r) {
     using namespace tavtest;
     return message(request_msgid(r),
                    tlv(ldap_proto::kBindResponse, integer(10, ldap_proto::kEnumerated) + str("") + str("") +
                                                       tlv(ldap_proto::kReferral, str(url))));
   }).hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", a.start());
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_search_st(ld, "o=x", 0, "(objectClass=*)", nullptr, 0, nullptr, &res), LDAP_DECODING_ERROR);
  ldap_msgfree(res);
  ldap_unbind(ld);
  EXPECT_EQ(elsewhere.received(), "");
}

// The protocol operation tags of the requests in `wire`.
std::vector<int> op_tags(std::string wire) {
  std::vector<int> tags;
  while (size_t len = tavtest::ber_element_length(wire)) {
    const size_t id_at = 2 + (wire[1] & 0x80 ? (wire[1] & 0x7F) : 0);
    tags.push_back(static_cast<unsigned char>(wire[id_at + 2 + wire[id_at + 1]]));
    wire.erase(0, len);
  }
  return tags;
}

int simple_rebind_proc(LDAP *, char **dn, char **pw, int *method, int freeit) {
  if (!freeit) {
    *dn = const_cast<char *>("cn=rebind");
    *pw = const_cast<char *>("rebind-pw");
    *method = LDAP_AUTH_SIMPLE;
  }
  return 0;
}
int sasl_rebind_proc(LDAP *, char **, char **, int *method, int freeit) {
  if (!freeit) *method = LDAP_AUTH_SASL;
  return 0;
}

// After a SASL PLAIN bind on A, A refers a search to B: B is bound as the
// rebind procedure says, and gets the session's SASL credentials only when
// the procedure asks for them.  A reference to a local socket is not followed.
TEST(ReferralFaults, TheReferredServerGetsOnlyTheBindTheRebindProcedureAsksFor) {
  using namespace tavtest;
  const std::string plain("\0user\0secret", 12);
  TempDir dir;
  const std::string socket_path = dir.file("ldap.sock"),
                    socket_url = "ldap://" + ReferralServers::socket_host(socket_path) + "/o=x";
  struct Case {
    const char *name;
    LDAP_REBINDPROC_CALLBACK *rebind;
    bool to_socket;
    std::vector<int> ops;  // the requests B receives
    std::string bind;      // the bind among them
  } cases[] = {
      {"no rebind procedure", nullptr, false, {ldap_proto::kSearchRequest}, ""},
      {"rebind procedure gives a DN",
       simple_rebind_proc,
       false,
       {ldap_proto::kBindRequest, ldap_proto::kSearchRequest},
       seq4(ldap_proto::kBindRequest, integer(3) + str("cn=rebind") + tlv(ldap_proto::kSimpleAuth, "rebind-pw"))},
      {"rebind procedure asks for the SASL bind",
       sasl_rebind_proc,
       false,
       {ldap_proto::kBindRequest, ldap_proto::kSearchRequest},
       seq4(ldap_proto::kBindRequest, integer(3) + str("") + seq4(ldap_proto::kSaslAuth, str("PLAIN") + str(plain)))},
      {"reference to a local socket", nullptr, true, {}, ""},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    strncpy(un.sun_path, socket_path.c_str(), sizeof un.sun_path - 1);
    unlink(socket_path.c_str());
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&un), sizeof un), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    auto answer = [](const std::string &r) {
      const int id = request_msgid(r), op = op_tags(r)[0];
      return op == ldap_proto::kBindRequest     ? ldap_response(id, ldap_proto::kBindResponse)
             : op == ldap_proto::kSearchRequest ? search_entry(id, "cn=from-b") + search_done(id)
                                                : std::string();
    };
    FakeServer b;
    b.on_request(answer).on_request(answer).hold_until_closed();
    b.start();
    const std::string url = c.to_socket ? socket_url : ReferralServers::url(b.port(), "o=x");
    FakeServer a;
    a.on_request([](const std::string &r) { return ldap_response(request_msgid(r), ldap_proto::kBindResponse); })
        .on_request([&](const std::string &r) {
          const int id = request_msgid(r);
          return search_reference(id, url) + search_done(id);
        })
        .hold_until_closed();
    LDAP *ld = ldap_init("127.0.0.1", a.start());
    if (c.rebind != nullptr) {
      ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(c.rebind)), 0);
    }
    berval cred{plain.size(), const_cast<char *>(plain.data())};
    ASSERT_EQ(ldap_sasl_bind_s(ld, nullptr, "PLAIN", &cred, nullptr, nullptr, nullptr), 0);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_st(ld, "o=x", 2, "(objectClass=*)", nullptr, 0, nullptr, &res), 0);
    EXPECT_EQ(ldap_count_entries(ld, res), c.to_socket ? 0 : 1);
    char *text = nullptr;
    EXPECT_EQ(ldap_parse_result(ld, res, nullptr, nullptr, &text, nullptr, nullptr, 1), 0);
    EXPECT_EQ(std::string(text ? text : ""), c.to_socket ? "Referral:\n" + url + "\n" : "");
    free(text);
    // B has answered everything it was sent (the unbind is still to come).
    const std::string got = b.received();
    EXPECT_EQ(op_tags(got), c.ops);
    EXPECT_NE(got.find(c.bind), std::string::npos);
    EXPECT_EQ(got.find("secret") != std::string::npos, c.rebind == sasl_rebind_proc);
    pollfd p{listener, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 0), 0) << "the local socket was connected to";
    ldap_unbind(ld);
    close(listener);
  }
}

}  // namespace
