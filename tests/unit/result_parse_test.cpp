// Reading LDAPResults: codes, matched DN, messages, referrals, controls, bind
// and extended responses, and the password-policy control.
#include <gtest/gtest.h>

#include <string>

#include "ldap-controls.h"
#include "ldap-engine.h"

using namespace std::string_literals;

namespace {

using Bytes = std::string;
Bytes seq(unsigned char tag, const Bytes &c) {
  Bytes out(1, static_cast<char>(tag));
  out += static_cast<char>(c.size());
  return out + c;
}
Bytes prim(unsigned char tag, const Bytes &v) { return seq(tag, v); }
Bytes str(const Bytes &s) { return prim(0x04, s); }
Bytes result_head(int code, const Bytes &matched, const Bytes &text) {
  return prim(0x0A, Bytes(1, static_cast<char>(code))) + str(matched) + str(text);
}
const Bytes kPolicyRequest = seq(0x30, str("1.3.6.1.4.1.42.2.27.8.5.1"));

class Parse : public ::testing::Test {
 protected:
  void SetUp() override {
    ld = ldap_init("127.0.0.1", 9);
    conn = get_default_connection(ld);
  }
  void TearDown() override { ldap_unbind(ld); }
  // A response as the reader leaves it: positioned at the protocol operation.
  LDAPMessage *msg(int type, const Bytes &op_and_controls) {
    LDAPMessage *m = ldap_msg_new(conn);
    m->lm_msgid = 7;
    m->lm_msgtype = type;
    struct berval bv = {op_and_controls.size(), const_cast<char *>(op_and_controls.data())};
    m->lm_ber = fber_init2(&bv);
    return m;
  }
  LDAPMessage *chain(std::vector<LDAPMessage *> msgs) {
    for (size_t i = 0; i + 1 < msgs.size(); ++i) {
      msgs[i]->lm_chain = msgs[i + 1];
      msgs[i + 1]->lm_prev = msgs[i];
    }
    return msgs[0];
  }
  LDAP *ld = nullptr;
  LDAPConn *conn = nullptr;
};

TEST_F(Parse, ResultAfterEntriesIsFoundAndCanBeReadAgain) {
  LDAPMessage *res = chain({msg(0x64, seq(0x64, str("cn=a"))), msg(0x73, seq(0x73, str("ldap://x"))),
                            msg(0x65, seq(0x65, result_head(32, "dc=example", "no such")))});
  for (int round = 0; round < 2; ++round) {
    int code = -1;
    char *matched = nullptr, *text = nullptr;
    ASSERT_EQ(ldap_parse_result(ld, res, &code, &matched, &text, nullptr, nullptr, 0), 0);
    EXPECT_EQ(code, 32);
    EXPECT_STREQ(matched, "dc=example");
    EXPECT_STREQ(text, "no such");
    free(matched);
    free(text);
  }
  EXPECT_EQ(ldap_result2error(ld, res, 0), 32);
  char *m = nullptr, *t = nullptr;
  ldap_get_error_info(ld, &m, &t);
  EXPECT_STREQ(m, "dc=example");
  EXPECT_STREQ(t, "no such");
  free(m);
  free(t);
  EXPECT_EQ(ldap_msgfree(res), 0x65);
}

TEST_F(Parse, ChainOfEntriesOnlyHasNoResult) {
  LDAPMessage *entries = chain({msg(0x64, seq(0x64, str("cn=a"))), msg(0x64, seq(0x64, str("cn=b")))});
  EXPECT_EQ(ldap_result2error(ld, entries, 0), LDAP_PARAM_ERROR);
  int code = -1;
  EXPECT_EQ(ldap_parse_result(ld, entries, &code, nullptr, nullptr, nullptr, nullptr, 1), 1);  // and freed
  ldap_set_errno(ld, 0, nullptr, nullptr);
  EXPECT_EQ(ldap_result2error(ld, nullptr, 0), LDAP_PARAM_ERROR);
  ldap_set_errno(ld, LDAP_TIMEOUT, nullptr, nullptr);
  EXPECT_EQ(ldap_result2error(ld, nullptr, 0), LDAP_TIMEOUT);
  // No response with the free-it flag: nothing to free, the designed codes.
  EXPECT_EQ(ldap_parse_result(ld, nullptr, &code, nullptr, nullptr, nullptr, nullptr, 1), 1);
  ldap_set_errno(ld, 0, nullptr, nullptr);
  EXPECT_EQ(ldap_result2error(ld, nullptr, 1), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_result2error_direct(ld, nullptr, 1), LDAP_PARAM_ERROR);
}

TEST_F(Parse, ReferralsAndControlsAfterThem) {
  Bytes op = seq(0x65, result_head(10, "", "") + seq(0xA3, str("ldap://a/") + str("ldap://b/")));
  Bytes ctrls = seq(0xA0, seq(0x30, str("1.2.3")));
  for (bool want_referrals : {true, false}) {
    LDAPMessage *res = msg(0x65, op + ctrls);
    int code = -1;
    char **refs = nullptr;
    LDAPControl **got = nullptr;
    ASSERT_EQ(ldap_parse_result(ld, res, &code, nullptr, nullptr, want_referrals ? &refs : nullptr, &got, 1), 0);
    EXPECT_EQ(code, LDAP_REFERRAL);
    if (want_referrals) {
      ASSERT_NE(refs, nullptr);
      EXPECT_STREQ(refs[0], "ldap://a/");
      EXPECT_STREQ(refs[1], "ldap://b/");
      EXPECT_EQ(refs[2], nullptr);
      fber_svecfree(refs);
    }
    ASSERT_NE(got, nullptr) << "controls after a skipped referral";
    EXPECT_STREQ(got[0]->ldctl_oid, "1.2.3");
    ldap_controls_free(got);
  }
}

TEST_F(Parse, BrokenResultsAreDecodingErrors) {
  Bytes good = seq(0x65, result_head(0, "", ""));
  for (size_t cut = 1; cut < good.size(); ++cut) {
    LDAPMessage *res = msg(0x65, good.substr(0, cut));
    int code = -1;
    EXPECT_EQ(ldap_parse_result(ld, res, &code, nullptr, nullptr, nullptr, nullptr, 0), LDAP_DECODING_ERROR) << cut;
    EXPECT_EQ(ldap_result2error(ld, res, 1), LDAP_DECODING_ERROR) << cut;
  }
  LDAPMessage *bad_controls = msg(0x65, good + seq(0xA0, seq(0x30, str("1.1") + str("v") + prim(0x01, "\xff"))));
  LDAPControl **ctrls = nullptr;
  EXPECT_EQ(ldap_parse_result(ld, bad_controls, nullptr, nullptr, nullptr, nullptr, &ctrls, 1), LDAP_DECODING_ERROR);
  EXPECT_EQ(ctrls, nullptr);
}

TEST_F(Parse, SaslBindResults) {
  struct berval *creds = nullptr;
  // In progress, with server credentials [7].
  LDAPMessage *res = msg(0x61, seq(0x61, result_head(LDAP_SASL_BIND_IN_PROGRESS, "", "") + prim(0x87, "chal")));
  EXPECT_EQ(ldap_parse_sasl_bind_result(ld, res, &creds, 1), LDAP_SASL_BIND_IN_PROGRESS);
  ASSERT_NE(creds, nullptr);
  EXPECT_EQ(std::string(creds->bv_val, creds->bv_len), "chal");
  fber_bvfree(creds);
  creds = nullptr;
  res = msg(0x61, seq(0x61, result_head(0, "", "")));
  EXPECT_EQ(ldap_parse_sasl_bind_result(ld, res, &creds, 1), 0);
  EXPECT_EQ(creds, nullptr);
  // A bind response cut short; then the wrong type.
  res = msg(0x61, seq(0x61, result_head(0, "", "")).substr(0, 4));
  EXPECT_EQ(ldap_parse_sasl_bind_result(ld, res, &creds, 1), LDAP_DECODING_ERROR);
  res = msg(0x65, seq(0x65, result_head(0, "", "")));
  EXPECT_EQ(ldap_parse_sasl_bind_result(ld, res, &creds, 0), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_parse_extended_result(ld, res, nullptr, nullptr, 1), LDAP_PARAM_ERROR);
}

TEST_F(Parse, ExtendedResults) {
  LDAPMessage *res = msg(0x78, seq(0x78, result_head(0, "", "") + prim(0x8A, "1.2.9") + prim(0x8B, "dn:cn=me")) +
                                   seq(0xA0, seq(0x30, str("1.4"))));
  char *oid = nullptr;
  struct berval *value = nullptr;
  LDAPControl **ctrls = nullptr;
  ASSERT_EQ(ldap_parse_extended_result_ext(ld, res, &oid, &value, 1, &ctrls), 0);
  EXPECT_STREQ(oid, "1.2.9");
  EXPECT_EQ(std::string(value->bv_val, value->bv_len), "dn:cn=me");
  ASSERT_NE(ctrls, nullptr);
  EXPECT_STREQ(ctrls[0]->ldctl_oid, "1.4");
  free(oid);
  fber_bvfree(value);
  ldap_controls_free(ctrls);
  // A failed operation: name and value are not read, the code is the result.
  oid = nullptr;
  res = msg(0x78, seq(0x78, result_head(53, "", "unwilling") + prim(0x8A, "1.2.9")));
  EXPECT_EQ(ldap_parse_extended_result(ld, res, &oid, nullptr, 1), 53);
  EXPECT_EQ(oid, nullptr);
  EXPECT_EQ(ldap_get_errno(ld), 53);
}

TEST(PasswordPolicy, ErrorsAndWarningsFromTheResponseControl) {
  struct Case {
    const char *what;
    Bytes value;
    int err, warn, res;
  } cases[] = {
      {"expired", seq(0x30, prim(0x81, "\x00"s)), 3, 0, 0},
      {"in history", seq(0x30, prim(0x81, "\x08")), 11, 0, 0},
      {"time before expiration", seq(0x30, seq(0xA0, prim(0x80, "\x0e\x10"))), 0, 1, 3600},
      {"grace logins", seq(0x30, seq(0xA0, prim(0x81, "\x02"))), 0, 2, 2},
      {"warning and error", seq(0x30, seq(0xA0, prim(0x81, "\x01")) + prim(0x81, "\x00"s)), 3, 2, 1},
  };
  for (auto &c : cases) {
    LDAPControl ctl = {const_cast<char *>(LDAP_CONTROL_PWDPOLICY), {c.value.size(), c.value.data()}, 0};
    LDAPControl other = {const_cast<char *>("1.2.3"), {1, const_cast<char *>("x")}, 0};
    LDAPControl *list[] = {&other, &ctl, nullptr};
    int err = -1, warn = -1, res = -1;
    EXPECT_NE(ldap_parse_pwdpolicy_response(list, &err, &warn, &res), -1) << c.what;
    EXPECT_EQ(err, c.err) << c.what;
    EXPECT_EQ(warn, c.warn) << c.what;
    EXPECT_EQ(res, c.res) << c.what;
  }
  int err = -1, warn = -1, res = -1;
  EXPECT_EQ(ldap_parse_pwdpolicy_response(nullptr, &err, &warn, &res), 0);
  EXPECT_EQ(err + warn + res, 0);
  Bytes broken("\x30\x05\x81\x01", 4);  // cut short
  LDAPControl bad = {const_cast<char *>(LDAP_CONTROL_PWDPOLICY), {broken.size(), broken.data()}, 0};
  LDAPControl *list[] = {&bad, nullptr};
  EXPECT_EQ(ldap_parse_pwdpolicy_response(list, &err, &warn, &res), -1);
  EXPECT_STREQ(ldap_pwdpolicy_err2string(3), "Error, Password has expired");
}

}  // namespace
