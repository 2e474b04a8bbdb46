// A caller's time-out is a promise: whatever the peer does (never completes
// the TCP handshake, accepts and stays silent, answers with endless
// referrals), the call returns by its deadline plus a little, with 85.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "fake_server.h"
#include "ldap-engine.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap_requests.h"
#include "slapd_server.h"

using tavtest::FakeServer;

namespace {

// A loopback port whose connects never complete: a listener that accepts
// nothing, its queue filled, so the kernel drops further SYNs.
class BlackHole {
 public:
  BlackHole() {
    listener_ = tavtest::loopback_listen(0, &port_);
    for (int i = 0; i < 4 && listener_ >= 0; ++i) fillers_.push_back(tavtest::loopback_connect(port_, true));
  }
  ~BlackHole() {
    for (int s : fillers_) close(s);
    close(listener_);
  }
  int port() const { return port_; }

 private:
  int listener_ = -1, port_ = 0;
  std::vector<int> fillers_;
};

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int search_within(LDAP *ld, long seconds) {
  struct timeval wait = {seconds, 0};
  LDAPMessage *res = nullptr;
  const int rc = ldap_search_st(ld, "o=x", LDAP_SCOPE_SUBTREE, "(objectClass=*)", nullptr, 0, &wait, &res);
  ldap_msgfree(res);
  return rc;
}

int rebind_as_someone(LDAP *, char **dn, char **pw, int *method, int) {
  *dn = const_cast<char *>("cn=someone");
  *pw = const_cast<char *>("secret");
  *method = LDAP_AUTH_SIMPLE;
  return 0;
}

// Each row: a peer, a call given `bound` seconds (by its argument or by the
// session's default time-outs), the code it must end with.
TEST(Deadline, EveryStepOfACallEndsWithItsTimeOut) {
  BlackHole hole;
  ASSERT_NE(hole.port(), 0);
  const int closed = tavtest::free_port();
  struct Row {
    const char *why;
    double bound;
    std::function<int(FakeServer &a, FakeServer &b, LDAP **ld)> run;
  } rows[] = {
      {"the server never completes the TCP handshake", 1.0,
       [&](FakeServer &, FakeServer &, LDAP **ld) {
         *ld = ldap_init("127.0.0.1", hole.port());
         return search_within(*ld, 1);
       }},
      {"the same, bounded by the session's network time-out alone", 1.0,
       [&](FakeServer &, FakeServer &, LDAP **ld) {
         *ld = ldap_init("127.0.0.1", hole.port());
         struct timeval network = {1, 0};
         EXPECT_EQ(ldap_set_option(*ld, LDAP_OPT_NETWORK_TIMEOUT, &network), 0);
         return ldap_simple_bind_s(*ld, "cn=x", "secret");
       }},
      {"a silent server and a call without a time-out: the session's default", 1.0,
       [&](FakeServer &a, FakeServer &, LDAP **ld) {
         a.hold_until_closed();
         *ld = ldap_init("127.0.0.1", a.start());
         struct timeval op = {1, 0};
         EXPECT_EQ(ldap_set_option(*ld, LDAP_OPT_TIMEOUT, &op), 0);
         return ldap_simple_bind_s(*ld, "cn=x", "secret");
       }},
      {"a referral to a server that never answers the re-bind", 2.0,
       [&](FakeServer &a, FakeServer &b, LDAP **ld) {
         b.hold_until_closed();
         const std::string url = "ldap://127.0.0.1:" + std::to_string(b.start()) + "/o=x";
         a.on_request([url](const std::string &req) {
            return tavtest::message(tavtest::request_msgid(req),
                                    tavtest::result(ldap_proto::kSearchDone, 10, "", "",
                                                    tavtest::tlv(ldap_proto::kReferral, tavtest::str(url))));
          }).hold_until_closed();
         *ld = ldap_init("127.0.0.1", a.start());
         EXPECT_EQ(ldap_set_option(*ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(&rebind_as_someone)), 0);
         return search_within(*ld, 2);
       }},
      {"endless references to a closed port", 2.0,
       [&](FakeServer &a, FakeServer &, LDAP **ld) {
         const std::string url = "ldap://127.0.0.1:" + std::to_string(closed) + "/o=y";
         a.on_request([url](const std::string &req) {
            std::string refs;
            for (int i = 0; i < 100000; ++i) refs += tavtest::search_reference(tavtest::request_msgid(req), url);
            return refs;
          }).hold_until_closed();
         *ld = ldap_init("127.0.0.1", a.start());
         return search_within(*ld, 2);
       }},
  };
  for (Row &r : rows) {
    FakeServer a, b;
    LDAP *ld = nullptr;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(r.run(a, b, &ld), LDAP_TIMEOUT) << r.why;
    const double took = seconds_since(start);
    EXPECT_LT(took, r.bound + 1.5) << r.why;
    EXPECT_GT(took, r.bound - 0.2) << r.why;
    ldap_unbind(ld);
  }
}

// The largest time-out a caller can pass is no time-out at all (no overflow,
// no immediate 85).
TEST(Deadline, TheLargestTimeOutIsAsGoodAsNone) {
  FakeServer server;
  server.on_request([](const std::string &req) { return tavtest::search_done(tavtest::request_msgid(req)); })
      .hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", server.start());
  struct timeval longest = {LONG_MAX, 999999};
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_search_st(ld, "o=x", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &longest, &res), 0);
  ldap_msgfree(res);
  ldap_unbind(ld);
}

}  // namespace
