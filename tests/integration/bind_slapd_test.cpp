// Binding to a real directory server: simple binds of every kind, SASL
// EXTERNAL over the local socket, password-policy controls, and the trace
// never showing a password.
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "fake_server.h"
#include "ldap-controls.h"
#include "ldap-debug.h"
#include "ldap_requests.h"
#include "slapd_suite.h"

using tavtest::FakeServer;
using tavtest::SlapdServer;

namespace {

constexpr const char *kUniquePassword = "Zq7-Kv3-Wp8-Hx";
constexpr const char *kWhoAmI = "1.3.6.1.4.1.4203.1.11.3";

std::string generalized_time(time_t t) {
  char buf[32];
  struct tm tm;
  gmtime_r(&t, &tm);
  strftime(buf, sizeof buf, "%Y%m%d%H%M%SZ", &tm);
  return buf;
}

// Entries for the policy tests: three policies and users governed by them.
std::string policy_ldif() {
  std::string l =
      "dn: ou=Policies,dc=example,dc=com\nobjectClass: organizationalUnit\nou: Policies\n\n"
      "dn: cn=grace,ou=Policies,dc=example,dc=com\nobjectClass: device\nobjectClass: pwdPolicy\ncn: grace\n"
      "pwdAttribute: userPassword\npwdMaxAge: 3600\npwdGraceAuthNLimit: 3\n\n"
      "dn: cn=nograce,ou=Policies,dc=example,dc=com\nobjectClass: device\nobjectClass: pwdPolicy\ncn: nograce\n"
      "pwdAttribute: userPassword\npwdMaxAge: 3600\npwdGraceAuthNLimit: 0\n\n"
      "dn: cn=warn,ou=Policies,dc=example,dc=com\nobjectClass: device\nobjectClass: pwdPolicy\ncn: warn\n"
      "pwdAttribute: userPassword\npwdMaxAge: 3600\npwdExpireWarning: 3600\n\n";
  auto user = [](const std::string &uid, const std::string &policy, const std::string &changed) {
    return "dn: uid=" + uid + ",ou=People,dc=example,dc=com\nobjectClass: inetOrgPerson\nuid: " + uid + "\ncn: " + uid +
           "\nsn: " + uid + "\nuserPassword: secret-" + uid + "\npwdPolicySubentry: cn=" + policy +
           ",ou=Policies,dc=example,dc=com\npwdChangedTime: " + changed + "\n\n";
  };
  l += user("expired", "nograce", "20000101000000Z");
  l += user("graceful", "grace", "20000101000000Z");
  l += user("soon", "warn", generalized_time(time(nullptr) - 600));
  l += "dn: uid=unique,ou=People,dc=example,dc=com\nobjectClass: inetOrgPerson\nuid: unique\ncn: unique\nsn: u\n"
       "userPassword: " +
       std::string(kUniquePassword) + "\n\n";
  return l;
}

class Bind : public tavtest::SlapdSuite<Bind> {
 public:
  static tavtest::SlapdOptions options() {
    tavtest::SlapdOptions opts;
    opts.modules = {"ppolicy"};
    opts.database_config = "overlay ppolicy\n";
    opts.extra_ldif = policy_ldif();
    opts.access = "access to attrs=userPassword by self write by anonymous auth by * none\n"
                  "access to * by * read\n";
    return opts;
  }

 protected:
  void SetUp() override {
    ASSERT_NE(slapd, nullptr);
    ld = ldap_init("127.0.0.1", slapd->port());
    ASSERT_NE(ld, nullptr);
  }
  void TearDown() override { ldap_unbind(ld); }

  // Binds with the password-policy request control; returns the bind's code
  // and the policy error/warning/value from the response control.
  int policy_bind(const std::string &dn, const std::string &pw, int *err, int *warn, int *value) {
    LDAPControl request = {const_cast<char *>(LDAP_CONTROL_PWDPOLICY), {0, nullptr}, 0};
    LDAPControl *sctrls[] = {&request, nullptr};
    struct berval cred = {pw.size(), const_cast<char *>(pw.data())};
    int id = -1;
    EXPECT_EQ(ldap_sasl_bind(ld, dn.c_str(), nullptr, &cred, sctrls, nullptr, &id), 0);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), 0x61);
    int code = -1;
    LDAPControl **ctrls = nullptr;
    EXPECT_EQ(ldap_parse_result(ld, res, &code, nullptr, nullptr, nullptr, &ctrls, 1), 0);
    EXPECT_GT(ldap_parse_pwdpolicy_response(ctrls, err, warn, value), 0) << "no password-policy response control";
    ldap_controls_free(ctrls);
    return code;
  }

  LDAP *ld = nullptr;
};

TEST_F(Bind, SimpleBindsSucceedAndAWrongPasswordIsInvalidCredentials) {
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::user_dn(2).c_str(), SlapdServer::user_password(2).c_str()), 0);
  EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);  // anonymous
  EXPECT_EQ(ldap_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw, LDAP_AUTH_SIMPLE), 0);
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::user_dn(2).c_str(), "wrong"), LDAP_INVALID_CREDENTIALS);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_INVALID_CREDENTIALS);
  testing::internal::CaptureStderr();
  ldap_perror(ld, "bind");
  std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_EQ(printed.rfind("bind: Invalid credentials\n", 0), 0u) << printed;
  // Asynchronous: the message ID, then the response through ldap_result.
  int id = ldap_simple_bind(ld, SlapdServer::kRootDn, SlapdServer::kRootPw);
  ASSERT_GT(id, 0);
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), 0x61);
  EXPECT_EQ(ldap_result2error(ld, res, 1), 0);
}

TEST_F(Bind, VersionTwoBindsOnlyWhereTheServerAllowsIt) {
  int two = LDAP_VERSION2;
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &two), 0);
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), LDAP_PROTOCOL_ERROR);

  tavtest::SlapdOptions opts;
  opts.allow_v2 = true;
  SlapdServer v2(opts);
  std::string error;
  ASSERT_TRUE(v2.start(&error)) << error;
  LDAP *old = ldap_init("127.0.0.1", v2.port());
  ASSERT_EQ(ldap_set_option(old, LDAP_OPT_PROTOCOL_VERSION, &two), 0);
  EXPECT_EQ(ldap_simple_bind_s(old, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
  ldap_unbind(old);
}

TEST_F(Bind, SaslExternalOverTheLocalSocketUsesThePeerCredentials) {
  LDAP *local = ldap_init(slapd->ldapi_path().c_str(), 0);
  ASSERT_NE(local, nullptr);
  // Without an initial response slapd asks for one ("in progress"); the empty
  // one completes the exchange.
  EXPECT_EQ(ldap_sasl_bind_s(local, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr),
            LDAP_SASL_BIND_IN_PROGRESS);
  struct berval empty = {0, const_cast<char *>("")};
  ASSERT_EQ(ldap_sasl_bind_s(local, nullptr, "EXTERNAL", &empty, nullptr, nullptr, nullptr), 0);
  // Who am I? as a raw extended request.
  std::string op = std::string("\x77") + static_cast<char>(2 + strlen(kWhoAmI)) + '\x80' +
                   static_cast<char>(strlen(kWhoAmI)) + kWhoAmI;
  int id = tavtest::send_raw_op(local, 0x77, op);
  ASSERT_GT(id, 0);
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(local, id, LDAP_MSG_ALL, nullptr, &res), 0x78);
  struct berval *authzid = nullptr;
  ASSERT_EQ(ldap_parse_extended_result(local, res, nullptr, &authzid, 1), 0);
  ASSERT_NE(authzid, nullptr);
  std::string who(authzid->bv_val, authzid->bv_len);
  EXPECT_EQ(who, "dn:gidNumber=" + std::to_string(getgid()) + "+uidNumber=" + std::to_string(getuid()) +
                     ",cn=peercred,cn=external,cn=auth");
  fber_bvfree(authzid);
  // The recorded bind: method 2, the mechanism, no controls.
  EXPECT_EQ(local->ld_bind_method, 2);
  EXPECT_STREQ(local->ld_bind_mech, "EXTERNAL");
  EXPECT_EQ(local->ld_sctrls, nullptr);
  // EXTERNAL takes neither DN nor credentials.
  struct berval cred = {1, const_cast<char *>("x")};
  EXPECT_EQ(ldap_sasl_bind_s(local, "cn=x", "EXTERNAL", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_sasl_bind_s(local, "", "EXTERNAL", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_sasl_bind_s(local, nullptr, "EXTERNAL", &cred, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
  ldap_unbind(local);
}

TEST_F(Bind, MechanismTheServerDoesNotOfferGivesTheServersCode) {
  int rc = ldap_sasl_bind_s(ld, nullptr, "NOT-A-MECHANISM", nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(rc, LDAP_STRONG_AUTH_NOT_SUPPORTED);
  EXPECT_EQ(ldap_get_errno(ld), rc);
  // No usable plug-in: the request went out from the library itself.
  EXPECT_STREQ(ld->ld_bind_mech, "NOT-A-MECHANISM");
}

TEST_F(Bind, PasswordPolicyErrorAndWarningsComeBackAsControls) {
  int err = -1, warn = -1, value = -1;
  EXPECT_EQ(policy_bind("uid=expired,ou=People,dc=example,dc=com", "secret-expired", &err, &warn, &value),
            LDAP_INVALID_CREDENTIALS);
  EXPECT_EQ(err, 3);
  EXPECT_STREQ(ldap_pwdpolicy_err2string(err), "Error, Password has expired");

  EXPECT_EQ(policy_bind("uid=graceful,ou=People,dc=example,dc=com", "secret-graceful", &err, &warn, &value), 0);
  EXPECT_EQ(warn, 2);
  EXPECT_GE(value, 0);
  EXPECT_LE(value, 3);

  EXPECT_EQ(policy_bind("uid=soon,ou=People,dc=example,dc=com", "secret-soon", &err, &warn, &value), 0);
  EXPECT_EQ(warn, 1);
  EXPECT_GT(value, 0);
  EXPECT_LE(value, 3000);
  EXPECT_STREQ(ldap_pwdpolicy_err2string(warn), "Warning, time before expiration is %ld");

  // The synchronous SASL form keeps the response's controls on the connection.
  LDAPControl request = {const_cast<char *>(LDAP_CONTROL_PWDPOLICY), {0, nullptr}, 0};
  LDAPControl *sctrls[] = {&request, nullptr};
  std::string pw = "secret-soon";
  struct berval cred = {pw.size(), pw.data()};
  ASSERT_EQ(ldap_sasl_bind_s(ld, "uid=soon,ou=People,dc=example,dc=com", "", &cred, sctrls, nullptr, nullptr), 0);
  LDAPControl **kept = nullptr;
  ASSERT_EQ(ldap_get_bind_controls(ld, &kept), 0);
  EXPECT_GT(ldap_parse_pwdpolicy_response(kept, &err, &warn, &value), 0);
  EXPECT_EQ(warn, 1);
  ldap_controls_free(kept);
}

TEST_F(Bind, PasswordsNeverReachTheTrace) {
  ldap_set_debug_level(65535);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ldap_simple_bind_s(ld, "uid=unique,ou=People,dc=example,dc=com", kUniquePassword), 0);
  std::string pw = kUniquePassword;
  struct berval cred = {pw.size(), pw.data()};
  EXPECT_EQ(ldap_sasl_bind_s(ld, "uid=unique,ou=People,dc=example,dc=com", nullptr, &cred, nullptr, nullptr, nullptr), 0);
  // The root DN reads the userPassword value back: the received entry is dumped too.
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
  int id = tavtest::send_search(ld, "uid=unique,ou=People,dc=example,dc=com", 0, "objectClass", {"userPassword"});
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), 0x65);
  ldap_msgfree(res);
  std::string trace = testing::internal::GetCapturedStderr();
  ldap_set_debug_level(0);
  ASSERT_GT(trace.size(), 1000u) << "the trace was not on";
  EXPECT_NE(trace.find("pw(***)"), std::string::npos);
  EXPECT_EQ(trace.find(kUniquePassword), std::string::npos) << "password in the trace";
  EXPECT_EQ(trace.find(SlapdServer::kRootPw), std::string::npos) << "root password in the trace";
  // Nor as hex in a dump: no four consecutive password bytes as a dump group.
  for (size_t i = 0; i + 4 <= pw.size(); ++i) {
    char hex[9];
    snprintf(hex, sizeof hex, "%02X%02X%02X%02X", (unsigned char)pw[i], (unsigned char)pw[i + 1],
             (unsigned char)pw[i + 2], (unsigned char)pw[i + 3]);
    size_t at = trace.find(hex);
    EXPECT_EQ(at, std::string::npos) << "password bytes " << hex << " dumped:\n"
                                     << trace.substr(at > 1500 ? at - 1500 : 0, 1800);
  }
}

// What goes on the wire, seen by a scripted server.
TEST(BindRequests, AnonymousAndMethodChecksAndMechanismCase) {
  FakeServer fake;
  fake.on_request([](const std::string &r) { return tavtest::ldap_response(tavtest::request_msgid(r), 0x61); })
      .on_request([](const std::string &r) { return tavtest::ldap_response(tavtest::request_msgid(r), 0x61); })
      .hold_until_closed();
  fake.start();
  LDAP *ld = ldap_init("127.0.0.1", fake.port());
  EXPECT_EQ(ldap_bind_s(ld, "cn=x", "pw", 0xA3), LDAP_AUTH_UNKNOWN);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_AUTH_UNKNOWN);
  EXPECT_EQ(ldap_bind(ld, "cn=x", "pw", 0), -1);
  EXPECT_EQ(get_default_connection(ld)->lc_connected, 0) << "a refused method must send nothing";
  EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);
  EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "external", nullptr, nullptr, nullptr, nullptr), 0);
  ldap_unbind(ld);
  ASSERT_TRUE(fake.wait_done());
  std::string wire = fake.received();
  // {1, [APPLICATION 0] {3, "", [0] ""}}: empty name and password.
  const std::string anonymous("\x30\x84\x00\x00\x00\x10\x02\x01\x01\x60\x84\x00\x00\x00\x07\x02\x01\x03\x04\x00\x80\x00", 22);
  EXPECT_EQ(wire.substr(0, anonymous.size()), anonymous);
  // The SASL request carries the mechanism as given, and nothing else in [3].
  EXPECT_NE(wire.find(std::string("\xa3\x84\x00\x00\x00\x0a\x04\x08" "external", 16)), std::string::npos);
}

}  // namespace
