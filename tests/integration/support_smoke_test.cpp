// The test peers themselves: the private slapd and the scripted fake server.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fake_server.h"
#include "process.h"
#include "slapd_server.h"

using tavtest::FakeServer;
using tavtest::SlapdServer;

TEST(PrivateSlapd, ServesItsDataAndLeavesNothingBehind) {
  std::string dir;
  {
    SlapdServer slapd;
    std::string error;
    ASSERT_TRUE(slapd.start(&error)) << error;
    dir = slapd.dir();
    std::string out;
    ASSERT_EQ(slapd.ldap_tool("ldapsearch", {"-LLL", "-b", SlapdServer::kSuffix, "(uid=user3)", "mail"}, &out), 0)
        << out;
    EXPECT_NE(out.find("dn: uid=user3,ou=People,dc=example,dc=com"), std::string::npos) << out;
    EXPECT_NE(out.find("mail: user3@example.com"), std::string::npos);
    // The root DN binds with its password; a user with its own.
    EXPECT_EQ(slapd.ldap_tool("ldapwhoami", {"-D", SlapdServer::kRootDn, "-w", SlapdServer::kRootPw}, &out), 0) << out;
    EXPECT_EQ(slapd.ldap_tool("ldapwhoami", {"-D", SlapdServer::user_dn(2), "-w", SlapdServer::user_password(2)}, &out),
              0)
        << out;
    EXPECT_EQ(slapd.ldap_tool("ldapwhoami", {"-D", SlapdServer::user_dn(2), "-w", "wrong"}, &out), 49) << out;
    struct stat st;
    EXPECT_EQ(stat(slapd.ldapi_path().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
  }
  struct stat st;
  EXPECT_NE(stat(dir.c_str(), &st), 0) << "left behind: " << dir;
}

TEST(PrivateSlapd, TakesExtraDataAndListeners) {
  tavtest::SlapdOptions opts;
  opts.people = 0;
  opts.ipv6 = true;
  opts.extra_ldif = "dn: cn=extra,dc=example,dc=com\nobjectClass: device\ncn: extra\n\n";
  SlapdServer slapd(opts);
  std::string error;
  ASSERT_TRUE(slapd.start(&error)) << error;
  std::string out;
  ASSERT_EQ(slapd.ldap_tool("ldapsearch", {"-LLL", "-b", SlapdServer::kSuffix, "(objectClass=device)", "cn"}, &out), 0);
  EXPECT_NE(out.find("cn: extra"), std::string::npos) << out;
  EXPECT_EQ(out.find("uid=user1"), std::string::npos);
  auto r = tavtest::run_process({"/usr/bin/ldapsearch", "-x", "-LLL", "-H",
                                 "ldap://[::1]:" + std::to_string(slapd.ipv6_port()), "-b", SlapdServer::kSuffix,
                                 "-s", "base", "dn"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("dn: dc=example,dc=com"), std::string::npos);
}

TEST(FakeServerScript, SplitBytesArriveAsScriptedAndRequestsAreRecorded) {
  FakeServer fake;
  const std::string element("\x30\x05\x02\x01\x01\x42\x00", 7);
  fake.expect_bytes(4)
      .send_split("0123456789", 3, 100)
      .on_request([](const std::string &req) { return "got " + std::to_string(req.size()); })
      .close();
  fake.start();

  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(fake.port());
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  ASSERT_EQ(write(fd, "ping", 4), 4);
  std::vector<std::string> pieces;
  std::string all;
  while (all.size() < 10) {
    char buf[64];
    ssize_t n = read(fd, buf, sizeof buf);
    ASSERT_GT(n, 0);
    pieces.emplace_back(buf, n);
    all.append(buf, n);
  }
  EXPECT_EQ(pieces, (std::vector<std::string>{"012", "345", "678", "9"}));
  // The request is answered only once a whole BER element has arrived.
  ASSERT_EQ(write(fd, element.data(), 3), 3);
  usleep(50000);
  ASSERT_EQ(write(fd, element.data() + 3, element.size() - 3), (ssize_t)element.size() - 3);
  char buf[16];
  ssize_t n = read(fd, buf, sizeof buf);
  EXPECT_EQ(std::string(buf, n > 0 ? n : 0), "got 7");
  EXPECT_EQ(read(fd, buf, sizeof buf), 0);  // the script closed
  close(fd);
  EXPECT_TRUE(fake.wait_done());
  EXPECT_EQ(fake.received(), "ping" + element);
}

TEST(FakeServerScript, BerElementLengthNeedsTheWholeElement) {
  using tavtest::ber_element_length;
  EXPECT_EQ(ber_element_length(std::string("\x30\x03\x02\x01\x05", 5)), 5u);
  EXPECT_EQ(ber_element_length(std::string("\x30\x03\x02\x01", 4)), 0u);
  EXPECT_EQ(ber_element_length(std::string("\x30\x81\x02\x05\x00", 5)), 5u);  // long form
  EXPECT_EQ(ber_element_length(std::string("\x30\x82\x00", 3)), 0u);
  EXPECT_EQ(ber_element_length(std::string("\x30\x00" "extra", 7)), 2u);
}
