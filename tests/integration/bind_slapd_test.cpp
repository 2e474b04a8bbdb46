// Binding to a real directory server: simple binds of every kind, version 2,
// SASL EXTERNAL over the local socket, password-policy controls; and the
// requests as a scripted server receives them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <set>
#include <string>

#include "fake_server.h"
#include "ldap-controls.h"
#include "ldap-debug.h"
#include "ldap-protocol.h"
#include "ldap-update.h"
#include "ldap-utils.h"
#include "ldap_requests.h"
#include "slapd_suite.h"
#include "trace_watch.h"

using tavtest::SlapdServer;

namespace {

std::string policy_ldif() {
  char soon[32];
  time_t t = time(nullptr) - 600;
  strftime(soon, sizeof soon, "%Y%m%d%H%M%SZ", gmtime(&t));
  std::string l = "dn: ou=Policies,dc=example,dc=com\nobjectClass: organizationalUnit\nou: Policies\n\n";
  for (const char *p :
       {"grace\npwdGraceAuthNLimit: 3", "nograce\npwdGraceAuthNLimit: 0", "warn\npwdExpireWarning: 3600"})
    l += "dn: cn=" + std::string(p, strcspn(p, "\n")) + ",ou=Policies,dc=example,dc=com\nobjectClass: device\n" +
         "objectClass: pwdPolicy\ncn: " + p + "\npwdAttribute: userPassword\npwdMaxAge: 3600\n\n";
  for (auto [uid, policy, changed] : {std::tuple{"expired", "nograce", "20000101000000Z"},
                                      {"graceful", "grace", "20000101000000Z"},
                                      {"soon", "warn", soon}})
    l += std::string("dn: uid=") + uid + ",ou=People,dc=example,dc=com\nobjectClass: inetOrgPerson\nuid: " + uid +
         "\ncn: " + uid + "\nsn: " + uid + "\nuserPassword: secret-" + uid + "\npwdPolicySubentry: cn=" + policy +
         ",ou=Policies,dc=example,dc=com\npwdChangedTime: " + changed + "\n\n";
  return l;
}

class Bind : public tavtest::SlapdSuite<Bind> {
 public:
  static tavtest::SlapdOptions options() {
    return {.modules = {"ppolicy"},
            .database_config = "overlay ppolicy\n",
            .access = "access to attrs=userPassword by self write by anonymous auth by * none\naccess to * by * read\n",
            .extra_ldif = policy_ldif()};
  }
  // Binds with the password-policy request control: the bind's code, then
  // error/warning/value of the response control.
  std::tuple<int, int, int, int> policy_bind(const std::string &uid, bool synchronous = false) {
    LDAPControl request = {const_cast<char *>(LDAP_CONTROL_PWDPOLICY), {0, nullptr}, 0},
                *sctrls[] = {&request, nullptr};
    const std::string dn = "uid=" + uid + ",ou=People,dc=example,dc=com", pw = "secret-" + uid;
    struct berval cred = {pw.size(), const_cast<char *>(pw.data())};
    int id = -1, code = -1, err = -1, warn = -1, value = -1;
    LDAPMessage *res = nullptr;
    LDAPControl **ctrls = nullptr;
    if (synchronous) {  // the synchronous form keeps the response's controls on the connection
      code = ldap_sasl_bind_s(ld, dn.c_str(), "", &cred, sctrls, nullptr, nullptr);
      EXPECT_EQ(ldap_get_bind_controls(ld, &ctrls), 0);
    } else {
      EXPECT_EQ(ldap_sasl_bind(ld, dn.c_str(), nullptr, &cred, sctrls, nullptr, &id), 0);
      EXPECT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), ldap_proto::kBindResponse);
      EXPECT_EQ(ldap_parse_result(ld, res, &code, nullptr, nullptr, nullptr, &ctrls, 1), 0);
    }
    EXPECT_GT(ldap_parse_pwdpolicy_response(ctrls, &err, &warn, &value), 0) << "no password-policy response control";
    ldap_controls_free(ctrls);
    return {code, err, warn, value};
  }
};

TEST_F(Bind, SimpleBindsOfEveryKind) {
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::user_dn(2).c_str(), SlapdServer::user_password(2).c_str()), 0);
  EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);  // anonymous
  EXPECT_EQ(ldap_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw, LDAP_AUTH_SIMPLE), 0);
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::user_dn(2).c_str(), "wrong"), LDAP_INVALID_CREDENTIALS);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_INVALID_CREDENTIALS);
  EXPECT_EQ(tavtest::traced(0, [&] { ldap_perror(ld, "bind"); }).rfind("bind: Invalid credentials\n", 0), 0u);
  int id = ldap_simple_bind(ld, SlapdServer::kRootDn, SlapdServer::kRootPw);  // the message ID, then the result
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), ldap_proto::kBindResponse);
  EXPECT_EQ(ldap_result2error(ld, res, 1), 0);
  // A mechanism the server does not offer: the server's code.
  EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "NOT-A-MECHANISM", nullptr, nullptr, nullptr, nullptr),
            LDAP_STRONG_AUTH_NOT_SUPPORTED);
  EXPECT_STREQ(ld->ld_bind_mech, "NOT-A-MECHANISM");
  // Version 2 binds only where the server allows it.
  int two = LDAP_VERSION2;
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &two), 0);
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), LDAP_PROTOCOL_ERROR);
  SlapdServer v2({.allow_v2 = true});
  ASSERT_TRUE(v2.start(&error)) << error;
  LDAP *old = ldap_init("127.0.0.1", v2.port());
  ASSERT_EQ(ldap_set_option(old, LDAP_OPT_PROTOCOL_VERSION, &two), 0);
  EXPECT_EQ(ldap_simple_bind_s(old, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
  ldap_unbind(old);
}

TEST_F(Bind, SaslExternalOverTheLocalSocketUsesThePeerCredentials) {
  LDAP *local = ldap_init(slapd->ldapi_path().c_str(), 0);
  // Without an initial response slapd asks for one; the empty one completes it.
  EXPECT_EQ(ldap_sasl_bind_s(local, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr),
            LDAP_SASL_BIND_IN_PROGRESS);
  struct berval empty = {0, const_cast<char *>("")}, cred = {1, const_cast<char *>("x")};
  ASSERT_EQ(ldap_sasl_bind_s(local, nullptr, "EXTERNAL", &empty, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(tavtest::whoami(local), "dn:gidNumber=" + std::to_string(getgid()) +
                                        "+uidNumber=" + std::to_string(getuid()) + ",cn=peercred,cn=external,cn=auth");
  EXPECT_EQ(std::make_tuple(local->ld_bind_method, std::string(local->ld_bind_mech), local->ld_sctrls),
            std::make_tuple(2, std::string("EXTERNAL"), (LDAPControl **)nullptr));
  // EXTERNAL takes neither DN nor credentials.
  EXPECT_EQ(ldap_sasl_bind_s(local, "cn=x", "EXTERNAL", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_sasl_bind_s(local, "", "EXTERNAL", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_sasl_bind_s(local, nullptr, "EXTERNAL", &cred, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
  ldap_unbind(local);
}

TEST_F(Bind, PasswordPolicyErrorAndWarningsComeBackAsControls) {
  EXPECT_EQ(policy_bind("expired"), std::make_tuple(LDAP_INVALID_CREDENTIALS, 3, 0, 0));  // password expired
  auto [code, err, warn, grace] = policy_bind("graceful");
  EXPECT_EQ(std::make_tuple(code, warn), std::make_tuple(0, 2));  // grace logins remain
  EXPECT_TRUE(grace >= 0 && grace <= 3) << grace;
  for (bool sync : {false, true}) {
    auto [code, err, warn, seconds] = policy_bind("soon", sync);
    EXPECT_EQ(std::make_tuple(code, warn), std::make_tuple(0, 1));  // time before expiration
    EXPECT_TRUE(seconds > 0 && seconds <= 3000) << seconds;
  }
}

// What goes on the wire, seen by a scripted server, and what the trace shows.
// Every allocation of a simple bind, a SASL EXTERNAL bind and a modify against
// slapd fails once in turn: a documented code each time, nothing leaked.
TEST_F(Bind, EveryFailingAllocationEndsInADocumentedCode) {
  const std::set<int> documented = {
      0, LDAP_SERVER_DOWN, LDAP_LOCAL_ERROR, LDAP_ENCODING_ERROR, LDAP_DECODING_ERROR, LDAP_NO_MEMORY};
  static char sn[] = "sn", value[] = "swept";
  static char *vals[] = {value, nullptr};
  static LDAPMod mod = {LDAP_MOD_REPLACE, sn, {vals}}, *mods[] = {&mod, nullptr};
  struct berval empty = {0, const_cast<char *>("")};
  const std::pair<const char *, std::function<int(LDAP *)>> scenarios[] = {
      {"simple bind", [](LDAP *s) { return ldap_simple_bind_s(s, SlapdServer::kRootDn, SlapdServer::kRootPw); }},
      {"EXTERNAL",
       [&](LDAP *s) { return ldap_sasl_bind_s(s, nullptr, "EXTERNAL", &empty, nullptr, nullptr, nullptr); }},
      {"bind and modify", [](LDAP *s) {
         const int rc = ldap_simple_bind_s(s, SlapdServer::kRootDn, SlapdServer::kRootPw);
         return rc != 0 ? rc : ldap_modify_s(s, SlapdServer::user_dn(1).c_str(), mods);
       }}};
  for (const auto &[name, run] : scenarios) {
    SCOPED_TRACE(name);
    std::set<int> codes;
    for (long n = 1;; ++n) {
      ASSERT_LT(n, 500);
      LDAP *s = ldap_init(slapd->ldapi_path().c_str(), 0);
      ASSERT_NE(s, nullptr);
      olx_fail_alloc_at(n);
      const int rc = run(s);
      const long used = olx_fail_alloc_at(0);
      ldap_unbind(s);
      EXPECT_TRUE(documented.count(rc)) << "allocation " << n << " gave " << rc;
      codes.insert(rc);
      if (used < n) break;
    }
    EXPECT_TRUE(codes.count(0) && codes.count(LDAP_NO_MEMORY));
  }
}

TEST(BindRequests, AnonymousAndMethodChecksAndMechanismCase) {
  tavtest::FakeServer fake;
  auto ok = [](const std::string &r) {
    return tavtest::ldap_response(tavtest::request_msgid(r), ldap_proto::kBindResponse);
  };
  fake.on_request(ok).on_request(ok).on_request(ok).hold_until_closed();
  LDAP *ld = ldap_init("127.0.0.1", fake.start());
  EXPECT_EQ(ldap_bind_s(ld, "cn=x", "pw", ldap_proto::kSaslAuth), LDAP_AUTH_UNKNOWN);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_AUTH_UNKNOWN);
  EXPECT_EQ(ldap_bind(ld, "cn=x", "pw", 0), -1);
  EXPECT_EQ(get_default_connection(ld)->lc_connected, 0) << "a refused method must send nothing";
  EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);
  EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "external", nullptr, nullptr, nullptr, nullptr), 0);
  const std::string trace = tavtest::traced(1, [&] { EXPECT_EQ(ldap_simple_bind_s(ld, "cn=x", "Zq7-Kv3"), 0); });
  EXPECT_NE(trace.find("pw(***)"), std::string::npos) << trace;
  EXPECT_EQ(trace.find("Zq7-Kv3"), std::string::npos);
  ldap_unbind(ld);
  ASSERT_TRUE(fake.wait_done());
  using tavtest::seq4, tavtest::str;
  const std::string wire = fake.received();
  // {1, [APPLICATION 0] {3, "", [0] ""}}: empty name and password.
  EXPECT_EQ(
      wire.find(seq4(ldap_proto::kSequence, tavtest::integer(1) + seq4(ldap_proto::kBindRequest,
                                                                       tavtest::integer(3) + str("") +
                                                                           tavtest::tlv(ldap_proto::kSimpleAuth, "")))),
      0u);
  // The SASL request carries the mechanism as given, and nothing else in [3].
  EXPECT_NE(wire.find(seq4(ldap_proto::kSaslAuth, str("external"))), std::string::npos);
}

}  // namespace
