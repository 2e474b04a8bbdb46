// Reading LDAPResults: codes, matched DN, messages, referrals, controls, bind
// and extended responses, the password-policy control, and every truncation
// of each refused cleanly.
#include <gtest/gtest.h>

#include <string>

#include "ber_build.h"
#include "ldap-controls.h"
#include "ldap-engine.h"
#include "ldap-protocol.h"

using namespace tavtest;
using namespace std::string_literals;

namespace {

const std::string kControls = tlv(ldap_proto::kControls, tlv(ldap_proto::kSequence, str("1.2.3")));
const std::string kReferral =
    result(ldap_proto::kSearchDone, 10, "", "go away", tlv(ldap_proto::kReferral, str("ldap://a/") + str("ldap://b/")));

class Parse : public ::testing::Test {
 protected:
  void SetUp() override { ld = ldap_init("127.0.0.1", 9); }
  void TearDown() override { ldap_unbind(ld); }
  // A response as the reader leaves it: positioned at the protocol operation.
  LDAPMessage *msg(const std::string &op_and_controls) {
    LDAPMessage *m = ldap_msg_new(get_default_connection(ld));
    m->lm_msgid = 7;
    m->lm_msgtype = static_cast<unsigned char>(op_and_controls.empty() ? ldap_proto::kSearchDone : op_and_controls[0]);
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
};

TEST_F(Parse, ResultAfterEntriesIsFoundAndCanBeReadAgain) {
  LDAPMessage *res =
      chain({msg(tlv(ldap_proto::kSearchEntry, str("cn=a"))), msg(tlv(ldap_proto::kSearchReference, str("ldap://x"))),
             msg(result(ldap_proto::kSearchDone, 32, "dc=example", "no such"))});
  for (int round = 0; round < 2; ++round) {
    int code = -1;
    char *matched = nullptr, *text = nullptr;
    ASSERT_EQ(ldap_parse_result(ld, res, &code, &matched, &text, nullptr, nullptr, 0), 0);
    EXPECT_EQ(std::make_tuple(code, std::string(matched), std::string(text)),
              std::make_tuple(32, "dc=example"s, "no such"s));
    free(matched);
    free(text);
  }
  EXPECT_EQ(ldap_result2error(ld, res, 0), 32);
  char *m = nullptr, *t = nullptr;
  ldap_get_error_info(ld, &m, &t);
  EXPECT_EQ(std::make_pair(std::string(m), std::string(t)), std::make_pair("dc=example"s, "no such"s));
  free(m);
  free(t);
  EXPECT_EQ(ldap_msgfree(res), ldap_proto::kSearchDone);

  LDAPMessage *entries =
      chain({msg(tlv(ldap_proto::kSearchEntry, str("cn=a"))), msg(tlv(ldap_proto::kSearchEntry, str("cn=b")))});
  EXPECT_EQ(ldap_result2error(ld, entries, 0), LDAP_PARAM_ERROR);  // no result in the chain
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
  for (bool want_referrals : {true, false}) {
    int code = -1;
    char **refs = nullptr;
    LDAPControl **got = nullptr;
    ASSERT_EQ(ldap_parse_result(ld, msg(kReferral + kControls), &code, nullptr, nullptr,
                                want_referrals ? &refs : nullptr, &got, 1),
              0);
    EXPECT_EQ(code, LDAP_REFERRAL);
    EXPECT_TRUE(!want_referrals || (refs && refs[0] == "ldap://a/"s && refs[1] == "ldap://b/"s && !refs[2]));
    fber_svecfree(refs);
    ASSERT_NE(got, nullptr) << "controls after a skipped referral";
    EXPECT_STREQ(got[0]->ldctl_oid, "1.2.3");
    ldap_controls_free(got);
  }
  LDAPControl **ctrls = nullptr;
  const std::string bad_controls =
      tlv(ldap_proto::kControls, tlv(ldap_proto::kSequence, str("1.1") + str("v") + boolean(true)));
  EXPECT_EQ(ldap_parse_result(ld, msg(result(ldap_proto::kSearchDone, 0) + bad_controls), nullptr, nullptr, nullptr,
                              nullptr, &ctrls, 1),
            LDAP_DECODING_ERROR);
  EXPECT_EQ(ctrls, nullptr);
}

TEST_F(Parse, SaslBindAndExtendedResults) {
  struct berval *creds = nullptr;
  EXPECT_EQ(ldap_parse_sasl_bind_result(ld,
                                        msg(result(ldap_proto::kBindResponse, LDAP_SASL_BIND_IN_PROGRESS, "", "",
                                                   tlv(ldap_proto::kServerSaslCreds, "chal"))),
                                        &creds, 1),
            LDAP_SASL_BIND_IN_PROGRESS);
  ASSERT_NE(creds, nullptr);
  EXPECT_EQ(std::string(creds->bv_val, creds->bv_len), "chal");
  fber_bvfree(creds);
  creds = nullptr;
  EXPECT_EQ(ldap_parse_sasl_bind_result(ld, msg(result(ldap_proto::kBindResponse, 0)), &creds, 1), 0);
  EXPECT_EQ(creds, nullptr);
  LDAPMessage *done = msg(result(ldap_proto::kSearchDone, 0));  // the wrong type for both
  EXPECT_EQ(ldap_parse_sasl_bind_result(ld, done, &creds, 0), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_parse_extended_result(ld, done, nullptr, nullptr, 1), LDAP_PARAM_ERROR);

  char *oid = nullptr;
  struct berval *value = nullptr;
  LDAPControl **ctrls = nullptr;
  ASSERT_EQ(ldap_parse_extended_result_ext(
                ld,
                msg(result(ldap_proto::kExtendedResponse, 0, "", "",
                           tlv(ldap_proto::kResponseName, "1.2.9") + tlv(ldap_proto::kResponseValue, "dn:cn=me")) +
                    kControls),
                &oid, &value, 1, &ctrls),
            0);
  EXPECT_STREQ(oid, "1.2.9");
  EXPECT_EQ(std::string(value->bv_val, value->bv_len), "dn:cn=me");
  EXPECT_STREQ(ctrls[0]->ldctl_oid, "1.2.3");
  free(oid);
  fber_bvfree(value);
  ldap_controls_free(ctrls);
  // A failed operation: name and value are not read, the code is the result.
  oid = nullptr;
  EXPECT_EQ(
      ldap_parse_extended_result(
          ld, msg(result(ldap_proto::kExtendedResponse, 53, "", "unwilling", tlv(ldap_proto::kResponseName, "1.2.9"))),
          &oid, nullptr, 1),
      53);
  EXPECT_EQ(oid, nullptr);
  EXPECT_EQ(ldap_get_errno(ld), 53);
}

// Every proper prefix of each response is a decoding error; the sanitizer
// build shows that nothing taken before the failure is left behind.
TEST_F(Parse, EveryTruncationIsADecodingError) {
  const std::string results[] = {
      result(ldap_proto::kSearchDone, 0), kReferral + kControls,
      result(ldap_proto::kBindResponse, LDAP_SASL_BIND_IN_PROGRESS, "o=x", "more",
             tlv(ldap_proto::kServerSaslCreds, "chal")),
      result(ldap_proto::kExtendedResponse, 0, "", "",
             tlv(ldap_proto::kResponseName, "1.2.9") + tlv(ldap_proto::kResponseValue, "v"))};
  for (const std::string &full : results) {
    for (size_t cut = 1; cut < full.size() - (full == kReferral + kControls ? kControls.size() : 0); ++cut) {
      SCOPED_TRACE(hex(full.substr(0, cut)));
      int code = -1;
      char *matched = nullptr, *text = nullptr, **refs = nullptr, *oid = nullptr;
      struct berval *data = nullptr;
      LDAPControl **ctrls = nullptr;
      EXPECT_EQ(ldap_parse_result(ld, msg(full.substr(0, cut)), &code, &matched, &text, &refs, &ctrls, 1),
                LDAP_DECODING_ERROR);
      EXPECT_TRUE(!matched && !text && !refs && !ctrls);
      // The code, matched DN and message cut short (what ldap_result2error reads).
      EXPECT_EQ(
          cut < 9 || &full == &results[0] ? ldap_result2error(ld, msg(full.substr(0, cut)), 1) : LDAP_DECODING_ERROR,
          LDAP_DECODING_ERROR);
      const std::string cut_pdu = full.substr(0, cut);
      EXPECT_EQ(full[0] == ldap_proto::kBindResponse ? ldap_parse_sasl_bind_result(ld, msg(cut_pdu), &data, 1)
                : full[0] == ldap_proto::kExtendedResponse
                    ? ldap_parse_extended_result(ld, msg(cut_pdu), &oid, &data, 1)
                    : LDAP_DECODING_ERROR,
                LDAP_DECODING_ERROR);
      EXPECT_TRUE(!oid && !data);
    }
  }
}

TEST(PasswordPolicy, ErrorsAndWarningsFromTheResponseControl) {
  const std::tuple<std::string, int, int, int> cases[] = {
      {tlv(ldap_proto::kSequence, tlv(0x81, "\x00"s)), 3, 0, 0},                   // expired
      {tlv(ldap_proto::kSequence, tlv(0x81, "\x08")), 11, 0, 0},                   // in history
      {tlv(ldap_proto::kSequence, tlv(0xA0, tlv(0x80, "\x0e\x10"))), 0, 1, 3600},  // time before expiration
      {tlv(ldap_proto::kSequence, tlv(0xA0, tlv(0x81, "\x02"))), 0, 2, 2},         // grace logins
      {tlv(ldap_proto::kSequence, tlv(0xA0, tlv(0x81, "\x01")) + tlv(0x81, "\x00"s)), 3, 2, 1}  // warning and error
  };
  for (auto [value, want_err, want_warn, want_res] : cases) {
    LDAPControl ctl = {const_cast<char *>(LDAP_CONTROL_PWDPOLICY), {value.size(), value.data()}, 0};
    LDAPControl other = {const_cast<char *>("1.2.3"), {1, const_cast<char *>("x")}, 0};
    LDAPControl *list[] = {&other, &ctl, nullptr};
    int err = -1, warn = -1, res = -1;
    EXPECT_NE(ldap_parse_pwdpolicy_response(list, &err, &warn, &res), -1) << hex(value);
    EXPECT_EQ(std::make_tuple(err, warn, res), std::make_tuple(want_err, want_warn, want_res)) << hex(value);
  }
  int err = -1, warn = -1, res = -1;
  EXPECT_EQ(ldap_parse_pwdpolicy_response(nullptr, &err, &warn, &res), 0);
  EXPECT_EQ(err + warn + res, 0);
  std::string broken = unhex("30 05 81 01");  // cut short
  LDAPControl bad = {const_cast<char *>(LDAP_CONTROL_PWDPOLICY), {broken.size(), broken.data()}, 0};
  LDAPControl *list[] = {&bad, nullptr};
  EXPECT_EQ(ldap_parse_pwdpolicy_response(list, &err, &warn, &res), -1);
  EXPECT_STREQ(ldap_pwdpolicy_err2string(3), "Error, Password has expired");
}

}  // namespace
