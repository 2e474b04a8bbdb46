// Sessions against the private slapd: opening, host-list fail-over, IPv6,
// the ldapi socket and name-resolution failure.  Each connection is proven
// to reach slapd by an anonymous bind exchanged over the library's socket.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "ldap-int.h"
#include "slapd_server.h"

using tavtest::SlapdServer;

namespace {

// BindRequest, message ID 1, version 3, empty DN, empty simple password.
const unsigned char kAnonymousBind[] = {0x30, 0x0c, 0x02, 0x01, 0x01, 0x60, 0x07,
                                        0x02, 0x01, 0x03, 0x04, 0x00, 0x80, 0x00};

// Sends the bind on the (non-blocking) socket and returns slapd's result code,
// or -1 when no well-formed BindResponse arrives.
int anonymous_bind(int fd) {
  if (write(fd, kAnonymousBind, sizeof kAnonymousBind) != (ssize_t)sizeof kAnonymousBind) return -1;
  unsigned char buf[64];
  size_t got = 0;
  while (got < 2 || got < (size_t)buf[1] + 2) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 5000) != 1) return -1;
    ssize_t n = read(fd, buf + got, sizeof buf - got);
    if (n <= 0) {
      if (n < 0 && errno == EAGAIN) continue;
      return -1;
    }
    got += (size_t)n;
  }
  // 30 len 02 01 01 61 len 0a 01 <code>
  if (buf[0] != 0x30 || buf[2] != 0x02 || buf[4] != 0x01 || buf[5] != 0x61 || buf[7] != 0x0a) return -1;
  return buf[9];
}

class SlapdSession : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!tavtest::slapd_available()) return;
    tavtest::SlapdOptions opts;
    opts.ipv6 = true;
    server_ = new SlapdServer(opts);
    if (!server_->start(&error_)) {
      // Without IPv6 on this machine the other cases still run.
      delete server_;
      server_ = new SlapdServer();
      std::string second;
      if (!server_->start(&second)) {
        error_ += "; " + second;
        delete server_;
        server_ = nullptr;
      }
    }
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  void SetUp() override {
    if (server_ == nullptr) GTEST_SKIP() << "no private slapd: " << error_;
  }
  static int closed_port() { return tavtest::free_port(); }
  static SlapdServer *server_;
  static std::string error_;
};

SlapdServer *SlapdSession::server_ = nullptr;
std::string SlapdSession::error_;

}  // namespace

TEST_F(SlapdSession, OpenConnectsWithVersionFromTheEnvironment) {
  struct {
    const char *ldap_version;  // null: unset
    int expected;
  } cases[] = {{nullptr, 2}, {"3", 3}, {"3 ", 2}, {"2", 2}};
  for (const auto &c : cases) {
    if (c.ldap_version != nullptr)
      setenv("LDAP_VERSION", c.ldap_version, 1);
    else
      unsetenv("LDAP_VERSION");
    LDAP *ld = ldap_open("127.0.0.1", server_->port());
    ASSERT_NE(ld, nullptr);
    EXPECT_EQ(ld->ld_version, c.expected) << (c.ldap_version ? c.ldap_version : "(unset)");
    ASSERT_EQ(ld->ld_defconn->lc_connected, 1);
    EXPECT_EQ(anonymous_bind(ld->ld_defconn->lc_sb.sb_sd), 0);
    EXPECT_EQ(ldap_unbind(ld), 0);
  }
  unsetenv("LDAP_VERSION");
}

TEST_F(SlapdSession, HostListFailsOverInWrittenOrder) {
  std::string live = "127.0.0.1:" + std::to_string(server_->port());
  const std::string lists[] = {
      "127.0.0.1:" + std::to_string(closed_port()) + " " + live,
      "no-such-host.invalid " + live,
      "127.0.0.1:" + std::to_string(closed_port()) + "   no-such-host.invalid\t" + live + " 127.0.0.1:1",
      std::string(600, 'z') + " " + live,
  };
  for (const auto &list : lists) {
    LDAP *ld = ldap_open(list.c_str(), 0);
    ASSERT_NE(ld, nullptr) << list;
    EXPECT_EQ(ld->ld_defhost, list);
    EXPECT_EQ(anonymous_bind(ld->ld_defconn->lc_sb.sb_sd), 0) << list;
    EXPECT_EQ(ldap_unbind(ld), 0);
  }
  // The same through ldap_init and a URL: nothing is opened until asked.
  std::string url = "LDAP://127.0.0.1:" + std::to_string(server_->port()) + "/" + SlapdServer::kSuffix;
  LDAP *ld = ldap_init(url.c_str(), 0);
  ASSERT_NE(ld, nullptr);
  EXPECT_EQ(ld->ld_defconn->lc_connected, 0);
  ASSERT_EQ(open_default_connection(ld), 0);
  EXPECT_EQ(anonymous_bind(ld->ld_defconn->lc_sb.sb_sd), 0);
  EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST_F(SlapdSession, Ipv6EntryReachesSlapdOnLoopback) {
  if (server_->ipv6_port() <= 0) GTEST_SKIP() << "no IPv6 loopback: " << error_;
  for (std::string host : {"[::1]:" + std::to_string(server_->ipv6_port()), std::string("::1")}) {
    LDAP *ld = ldap_open(host.c_str(), server_->ipv6_port());
    ASSERT_NE(ld, nullptr) << host;
    EXPECT_EQ(anonymous_bind(ld->ld_defconn->lc_sb.sb_sd), 0) << host;
    EXPECT_EQ(ldap_unbind(ld), 0);
  }
}

TEST_F(SlapdSession, LocalSocketPathReachesLdapi) {
  LDAP *ld = ldap_open(server_->ldapi_path().c_str(), 0);
  ASSERT_NE(ld, nullptr) << server_->ldapi_path();
  EXPECT_EQ(anonymous_bind(ld->ld_defconn->lc_sb.sb_sd), 0);
  EXPECT_EQ(ldap_unbind(ld), 0);
  // A socket path that is not there gives a connection error.
  ld = ldap_init((server_->dir() + "/no-socket").c_str(), 0);
  ASSERT_NE(ld, nullptr);
  EXPECT_EQ(open_default_connection(ld), LDAP_CONNECT_ERROR);
  EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST_F(SlapdSession, UnresolvableNameGivesServerDown) {
  LDAP *ld = ldap_init("no-such-host.invalid", server_->port());
  ASSERT_NE(ld, nullptr);
  EXPECT_EQ(open_default_connection(ld), LDAP_SERVER_DOWN);
  EXPECT_EQ(ld->ld_defconn->lc_connected, 0);
  EXPECT_EQ(ldap_unbind(ld), 0);
  EXPECT_EQ(ldap_open("no-such-host.invalid", server_->port()), nullptr);
}

TEST_F(SlapdSession, ReferralStyleConnectionsJoinTheSession) {
  LDAP *ld = ldap_open("127.0.0.1", server_->port());
  ASSERT_NE(ld, nullptr);
  int rc = -1;
  LDAPConn *ldapi = ldap_get_connection(ld, server_->ldapi_path().c_str(), LDAP_URL_PORT_DEFAULT, 1, &rc, 1);
  ASSERT_NE(ldapi, nullptr);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(ld->ld_defconn->lc_next, ldapi);
  EXPECT_EQ(anonymous_bind(ldapi->lc_sb.sb_sd), 0);
  // Another spelling of the default connection's address finds it.
  LDAPConn *same = ldap_get_connection(ld, "127.1", server_->port(), 1, &rc, 1);
  EXPECT_EQ(same, ld->ld_defconn);
  EXPECT_EQ(ldap_unbind(ld), 0);  // closes both sockets
}
