// Controls: exact bytes of the encodings and constructors, strict decoding,
// list operations and the preparation every operation applies.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "alloc_sweep.h"
#include "ber_build.h"
#include "ldap-controls.h"
#include "ldap-engine.h"
#include "ldap-protocol.h"
#include "ldap-utils.h"

using namespace tavtest;
using namespace std::string_literals;

namespace {

std::string bytes(const struct berval &b) { return std::string(b.bv_val ? b.bv_val : "", b.bv_len); }
char *s(const char *text) { return const_cast<char *>(text); }

// Decodes `ber_bytes` (what follows an operation) as response controls.
int decode(const std::string &ber_bytes, LDAPControl ***out) {
  Ber ber = reader(ber_bytes);
  *out = nullptr;
  return ber ? get_ctrls_from_ber(ber.get(), out) : LDAP_NO_MEMORY;
}

// A one-control list over static storage, for the response parsers.
LDAPControl **with(const char *oid, const std::string &value) {
  static std::string keep;
  static LDAPControl c;
  static LDAPControl *l[2];
  keep = value;
  c = {s(oid), {keep.size(), keep.data()}, 0};
  l[0] = &c;
  return l;
}

class Controls : public ::testing::Test {
 protected:
  void SetUp() override { ld = ldap_init("127.0.0.1", 9); }
  void TearDown() override { ldap_unbind(ld); }
  LDAP *ld = nullptr;
};

TEST(ControlEncoding, RequestControlsAreWrittenWithCriticalityAlways) {
  LDAPControl plain = {s("1.2.3"), {0, nullptr}, 0}, valued = {s("1.2.4"), {2, s("\x01\x00")}, 1};
  const std::pair<std::vector<LDAPControl *>, std::string> cases[] = {
      {{&plain, nullptr}, seq4(ldap_proto::kControls, seq4(ldap_proto::kSequence, str("1.2.3") + boolean(false)))},
      {{&plain, &valued, nullptr},
       seq4(ldap_proto::kControls, seq4(ldap_proto::kSequence, str("1.2.3") + boolean(false)) +
                                       seq4(ldap_proto::kSequence, str("1.2.4") + boolean(true) + str("\x01\x00"s)))},
      {{nullptr}, ""}  // an empty list writes nothing
  };
  for (auto [list, want] : cases) {
    Ber ber(fber_alloc());
    ASSERT_EQ(put_ctrls_into_ber(ber.get(), list.data()), 0);
    EXPECT_EQ(hex(written(ber.get())), hex(want));
  }
}

TEST(ControlDecoding, AcceptsTheThreeShapesAndRefusesEverythingElse) {
  LDAPControl **list = nullptr;
  ASSERT_EQ(decode(tlv(ldap_proto::kControls, tlv(ldap_proto::kSequence, str("1.1")) +
                                                  tlv(ldap_proto::kSequence, str("1.2") + boolean(true)) +
                                                  tlv(ldap_proto::kSequence, str("1.3") + boolean(false) + str("val"))),
                   &list),
            0);
  ASSERT_NE(list, nullptr);
  EXPECT_STREQ(list[0]->ldctl_oid, "1.1");
  EXPECT_EQ(std::make_pair(list[0]->ldctl_iscritical, list[0]->ldctl_value.bv_val), std::make_pair(0, (char *)nullptr));
  EXPECT_NE(list[1]->ldctl_iscritical, 0);
  EXPECT_EQ(bytes(list[2]->ldctl_value), "val");
  EXPECT_EQ(list[3], nullptr);
  ldap_controls_free(list);
  EXPECT_EQ(decode(str("x"), &list), 0);  // not [0]: success without a list
  EXPECT_EQ(list, nullptr);
  // Value before criticality, two criticalities, two values, an unknown tag,
  // no OID, a bad second control.
  for (const std::string &bad :
       {tlv(ldap_proto::kControls, tlv(ldap_proto::kSequence, str("1.1") + str("v") + boolean(true))),
        tlv(ldap_proto::kControls, tlv(ldap_proto::kSequence, str("1.1") + boolean(true) + boolean(false))),
        tlv(ldap_proto::kControls, tlv(ldap_proto::kSequence, str("1.1") + str("a") + str("b"))),
        tlv(ldap_proto::kControls, tlv(ldap_proto::kSequence, str("1.1") + integer(5))),
        tlv(ldap_proto::kControls, tlv(ldap_proto::kSequence, boolean(true))),
        tlv(ldap_proto::kControls,
            tlv(ldap_proto::kSequence, str("1.1")) + tlv(ldap_proto::kSequence, str("1.2") + str("v") + str("w")))}) {
    list = reinterpret_cast<LDAPControl **>(1);
    EXPECT_EQ(decode(bad, &list), LDAP_DECODING_ERROR) << hex(bad);
    EXPECT_EQ(list, nullptr);
  }
  // Every allocation failure: 90 (or 84 when an OID could not be copied), no list.
  const std::string three =
      tlv(ldap_proto::kControls, tlv(ldap_proto::kSequence, str("1.1")) + tlv(ldap_proto::kSequence, str("1.2")) +
                                     tlv(ldap_proto::kSequence, str("1.3") + str("v")));
  int no_memory = 0;
  tavtest::sweep_allocations([&] { return decode(three, &list); },
                             [&](int rc, bool failed, long n) {
                               EXPECT_TRUE(failed ? rc == LDAP_NO_MEMORY || rc == LDAP_DECODING_ERROR : rc == 0)
                                   << n << ": " << rc;
                               EXPECT_EQ(list == nullptr, failed);
                               ldap_controls_free(std::exchange(list, nullptr));
                               no_memory += rc == LDAP_NO_MEMORY;
                             });
  EXPECT_GT(no_memory, 0);
}

TEST(ControlLists, CopyMergeAppendRemove) {
  LDAPControl a = {s("1.1"), {0, s("")}, 1}, b = {s("1.2"), {3, s("xyz")}, 0};
  LDAPControl *src[] = {&a, &b, nullptr};
  LDAPControl **copy = nullptr;
  ASSERT_EQ(ldap_copy_controls(&copy, src), 0);
  EXPECT_EQ(copy[0]->ldctl_value.bv_val, nullptr) << "a 0-length value is copied as no value";
  EXPECT_EQ(bytes(copy[1]->ldctl_value), "xyz");
  EXPECT_EQ(copy[0]->ldctl_iscritical, 1);

  LDAPControl no_oid = {nullptr, {0, nullptr}, 0}, negative = {s("1.3"), {(ber_len_t)(uint32_t)-1, s("x")}, 0};
  LDAPControl *bad1[] = {&a, &no_oid, nullptr}, *bad2[] = {&negative, nullptr}, *empty[] = {nullptr};
  LDAPControl **out = reinterpret_cast<LDAPControl **>(1);
  EXPECT_EQ(ldap_copy_controls(&out, bad1), LDAP_PARAM_ERROR);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(ldap_copy_controls(&out, bad2), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_copy_controls(nullptr, src), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_copy_controls(&out, empty), 0);
  EXPECT_EQ(out, nullptr);

  ASSERT_EQ(ldap_add_control_to_list("1.9", 2, "hi", 1, &copy), 0);
  EXPECT_STREQ(copy[2]->ldctl_oid, "1.9");
  EXPECT_EQ(copy[3], nullptr);
  EXPECT_EQ(ldap_add_control_to_list("1.9", 2, nullptr, 1, &copy), LDAP_PARAM_ERROR);
  LDAPControl **extra = nullptr;
  ldap_add_control_to_list("2.1", 0, nullptr, 0, &extra);
  ASSERT_EQ(ldap_merge_control_lists(&copy, extra), 0);  // input first, then the destination's
  EXPECT_STREQ(copy[0]->ldctl_oid, "2.1");
  EXPECT_STREQ(copy[1]->ldctl_oid, "1.1");
  EXPECT_EQ(copy[4], nullptr);
  ASSERT_EQ(ldap_remove_control(copy[1], &copy, 1), 0);
  EXPECT_STREQ(copy[1]->ldctl_oid, "1.2");
  EXPECT_EQ(copy[3], nullptr);
  ldap_controls_free(copy);

  // Appending to an empty array replaces it without freeing it: it stays the caller's.
  auto **empty_list = static_cast<LDAPControl **>(calloc(1, sizeof(LDAPControl *)));
  LDAPControl **list = empty_list;
  LDAPControl *c = nullptr;
  ASSERT_EQ(ldap_build_control(&c, "3.1", 0, nullptr, 0), 0);
  ASSERT_EQ(ldap_append_control(c, &list), 0);
  EXPECT_NE(list, empty_list);
  EXPECT_EQ(empty_list[0], nullptr);  // still readable: not freed
  free(empty_list);
  ldap_controls_free(list);
}

TEST_F(Controls, DefaultsReplaceOnlyAMissingListAndCriticalClientControlsAreRefused) {
  LDAPControl def = {s("1.5"), {0, nullptr}, 0};
  LDAPControl *defaults[] = {&def, nullptr}, *empty[] = {nullptr};
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, defaults), 0);
  LDAPControl **sctrls = nullptr;
  int substituted = 0;
  ASSERT_EQ(ldap_apply_default_controls(ld, &sctrls, nullptr, &substituted), 0);
  ASSERT_EQ(substituted, 1);
  EXPECT_STREQ(sctrls[0]->ldctl_oid, "1.5");
  ldap_controls_free(sctrls);
  sctrls = empty;
  ASSERT_EQ(ldap_apply_default_controls(ld, &sctrls, nullptr, &substituted), 0);
  EXPECT_EQ(std::make_pair(substituted, sctrls), std::make_pair(0, (LDAPControl **)empty));

  LDAPControl soft = {s("1.6"), {0, nullptr}, 0}, hard = {s("1.7"), {0, nullptr}, 1};
  LDAPControl *cl_soft[] = {&soft, nullptr}, *cl_hard[] = {&soft, &hard, nullptr};
  EXPECT_EQ(ldap_apply_default_controls(ld, &sctrls, cl_soft, &substituted), 0);
  EXPECT_EQ(ldap_apply_default_controls(ld, &sctrls, cl_hard, &substituted), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
}

TEST_F(Controls, ConstructorsWriteExactBytes) {
  struct berval cookie = {2, s("ab")}, id = {3, s("T\x00X")}, ctx = {2, s("c1")}, assertion = {1, s("m")};
  char *groups[] = {s("cn=g1"), s("cn=g2"), nullptr};
  LDAPsortkey k1 = {s("cn"), nullptr, 0}, k2 = {s("sn"), s("2.5.13.3"), 1}, *keys[] = {&k1, &k2, nullptr};
  LDAPVLVInfo by_offset = {1, 2, 5, 100, nullptr, &ctx}, by_value = {0, 3, 0, 0, &assertion, nullptr};
  const std::string two_groups = seq4(ldap_proto::kSequence, str("cn=g1") + str("cn=g2"));
  const std::tuple<std::function<int(LDAPControl **)>, const char *, int, std::string> cases[] = {
      {[&](LDAPControl **c) { return ldap_create_proxyauth_control(ld, "cn=x", 1, c); }, LDAP_CONTROL_PROXYAUTH, 1,
       "cn=x\0"s},
      {[&](LDAPControl **c) { return ldap_create_page_control(ld, 100, nullptr, 'F', c); }, LDAP_CONTROL_PAGEDRESULTS,
       0, unhex("30 05 02 01 64 04 00")},
      {[&](LDAPControl **c) { return ldap_create_page_control(ld, 128, &cookie, 'T', c); }, LDAP_CONTROL_PAGEDRESULTS,
       1, unhex("30 08 02 02 00 80 04 02 61 62")},
      {[&](LDAPControl **c) { return ldap_create_sort_control(ld, keys, 'T', c); }, LDAP_CONTROL_SORTREQUEST, 1,
       seq4(ldap_proto::kSequence,
            seq4(ldap_proto::kSequence, str("cn")) +
                seq4(ldap_proto::kSequence, str("sn") + tlv(0x80, "2.5.13.3") + tlv(0x81, "\xff")))},
      {[&](LDAPControl **c) { return ldap_create_persistentsearch_control(ld, 15, 1, 0, 1, c); },
       LDAP_CONTROL_PERSISTENTSEARCH, 1, seq4(ldap_proto::kSequence, integer(15) + integer(1) + integer(0))},
      {[&](LDAPControl **c) { return ldap_create_chaining_audit_control(groups, "s", 0, c); },
       LDAP_CONTROL_CHAINING_AUDIT, 0, seq4(ldap_proto::kSequence, two_groups + str("s"))},
      {[&](LDAPControl **c) { return ldap_create_group_control_from_list(groups, 1, c); }, LDAP_CONTROL_GROUP, 1,
       seq4(ldap_proto::kSequence, integer(1, ldap_proto::kEnumerated) + two_groups)},
      {[&](LDAPControl **c) { return ldap_create_group_control(&cookie, c); }, LDAP_CONTROL_GROUP, 1, "ab"},
      {[&](LDAPControl **c) { return ldap_create_oid25_control(c); }, LDAP_CONTROL_OID25, 1, ""},
      {[&](LDAPControl **c) { return ldap_create_oid26_control(c); }, LDAP_CONTROL_OID26, 1, ""},
      {[&](LDAPControl **c) { return ldap_create_oid33_control(0, c); }, LDAP_CONTROL_OID33, 0, ""},
      {[&](LDAPControl **c) { return ldap_create_transaction_control(&id, c); }, LDAP_CONTROL_TRANSACTION, 1,
       "T\x00X"s},
      {[&](LDAPControl **c) { return ldap_create_limit_num_values_control(ld, 5, 50, 1, 0, c); },
       LDAP_CONTROL_LIMIT_NUM_VALUES, 0, seq4(ldap_proto::kSequence, integer(5) + integer(50) + boolean(true))},
      {[&](LDAPControl **c) { return ldap_create_assertion_control(ld, "(cn=a)", 1, c); }, LDAP_CONTROL_ASSERTION, 1,
       seq4(0xA3, str("cn") + str("a"))},
      {[&](LDAPControl **c) { return ldap_create_vlv_control(ld, &by_offset, c); }, LDAP_CONTROL_VLVREQUEST, 1,
       seq4(ldap_proto::kSequence, integer(1) + integer(2) + seq4(0xA0, integer(5) + integer(100)) + str("c1"))},
      {[&](LDAPControl **c) { return ldap_create_vlv_control(ld, &by_value, c); }, LDAP_CONTROL_VLVREQUEST, 1,
       seq4(ldap_proto::kSequence, integer(0) + integer(3) + tlv(0x81, "m"))}};
  for (const auto &[make, oid, critical, value] : cases) {
    SCOPED_TRACE(oid);
    LDAPControl *c = nullptr;
    ASSERT_EQ(make(&c), 0);
    EXPECT_STREQ(c->ldctl_oid, oid);
    EXPECT_EQ(c->ldctl_iscritical != 0, critical != 0);
    EXPECT_EQ(hex(bytes(c->ldctl_value)), hex(value));
    EXPECT_TRUE(value.empty() || c->ldctl_value.bv_val[value.size()] == '\0') << "no zero byte after the value";
    ldap_control_free(c);
  }
  // Refused arguments.
  LDAPControl *c = nullptr;
  LDAPVLVInfo zero = {0, 0, 0, 10, nullptr, nullptr};
  EXPECT_EQ(ldap_create_proxyauth_control(ld, "cn=x", 0, &c), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_create_proxyauth_control(ld, nullptr, 1, &c), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_create_vlv_control(ld, &zero, &c), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_create_assertion_control(ld, "(cn=a", 1, &c), LDAP_FILTER_ERROR);
  EXPECT_EQ(ldap_create_persistentsearch_control(ld, 3, 0, 0, 0, &c), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_create_persistentsearch_control(ld, 8, 2, 0, 0, &c), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_create_group_control_from_list(nullptr, 2, &c), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_create_limit_num_values_control(ld, -1, 5, 0, 0, &c), LDAP_PARAM_ERROR);
  EXPECT_EQ(c, nullptr);
}

TEST(ExtendedValues, RequestValuesWriteExactBytesAndThePolicyResponseReads) {
  struct berval id = {2, s("q\x01")}, *v = nullptr;
  char *groups[] = {s("cn=g"), nullptr};
  const std::pair<std::function<int(struct berval **)>, std::string> cases[] = {
      {[](struct berval **v) { return ldap_create_account_status_request("cn=u", v); },
       seq4(ldap_proto::kSequence, str("cn=u"))},
      {[&](struct berval **v) { return ldap_create_end_transaction_request(&id, 1, v); }, "\x01q\x01"s},
      {[&](struct berval **v) { return ldap_create_end_transaction_request(&id, 0, v); }, "\x00q\x01"s},
      {[&](struct berval **v) { return ldap_create_prepare_tranaction_request(&id, v); }, "q\x01"s},
      {[&](struct berval **v) { return ldap_create_group_eval_request("cn=u", groups, v); },
       seq4(ldap_proto::kSequence, str("cn=u") + seq4(ldap_proto::kSequence, str("cn=g")))},
      {[](struct berval **v) { return ldap_create_group_eval_request("cn=u", nullptr, v); },
       seq4(ldap_proto::kSequence, str("cn=u"))},
      {[](struct berval **v) { return ldap_create_effective_pwdpolicy_request("cn=u", v); },
       seq4(ldap_proto::kSequence, str("cn=u"))}};
  for (const auto &[make, want] : cases) {
    ASSERT_EQ(make(&v), 0) << hex(want);
    EXPECT_EQ(hex(bytes(*v)), hex(want));
    fber_bvfree(v);
  }
  EXPECT_EQ(ldap_create_account_status_request(nullptr, &v), LDAP_PARAM_ERROR);

  std::string value =
      tlv(ldap_proto::kSequence,
          tlv(ldap_proto::kSequence, str("pwdMaxAge") + tlv(ldap_proto::kSet, str("3600"))) +
              tlv(ldap_proto::kSequence, str("pwdMinLength") + tlv(ldap_proto::kSet, str("8") + str("9"))));
  struct berval in = {value.size(), value.data()};
  LDAPPolicyItem **items = nullptr;
  char **tail = nullptr;
  ASSERT_EQ(ldap_parse_effective_pwdpolicy_response(LDAP_EXOP_EFFECTIVE_PWDPOLICY_RESPONSE, &in, &items, &tail), 0);
  EXPECT_STREQ(items[0]->lpi_name, "pwdMaxAge");
  EXPECT_STREQ(items[0]->lpi_values[0], "3600");
  EXPECT_STREQ(items[1]->lpi_values[1], "9");
  EXPECT_EQ(items[2], nullptr);
  ldap_free_effective_pwdpolicy(items, tail);
  EXPECT_EQ(ldap_parse_effective_pwdpolicy_response("1.2.3", &in, &items, &tail), LDAP_DECODING_ERROR);
}

TEST_F(Controls, ResponseControlParsers) {
  // Paged results: what the constructor writes reads back; broken values are 84.
  LDAPControl *page = nullptr;
  struct berval cookie = {3, s("xyz")}, *got = nullptr;
  ASSERT_EQ(ldap_create_page_control(ld, 70000, &cookie, 'F', &page), 0);
  unsigned int size = 0;
  ASSERT_EQ(ldap_parse_page_control(ld, with(LDAP_CONTROL_PAGEDRESULTS, bytes(page->ldctl_value)), &size, &got), 0);
  ldap_control_free(page);
  EXPECT_EQ(std::to_string(size) + " " + bytes(*got), "70000 xyz");
  fber_bvfree(got);
  for (const std::string &broken : {""s, unhex("31 03 02 01 05"), unhex("30 00")})
    EXPECT_EQ(ldap_parse_page_control(ld, with(LDAP_CONTROL_PAGEDRESULTS, broken), &size, &got), LDAP_DECODING_ERROR);
  EXPECT_EQ(ldap_parse_page_control(ld, nullptr, &size, &got), LDAP_CONTROL_NOT_FOUND);

  unsigned long result = 99, pos = 0, count = 0;
  char *attr = nullptr, *prev = nullptr, *dn = nullptr;
  int type = 0, present = 0;
  long number = 0;
  struct berval *context = nullptr;
  LDAPLimitNumValues **attrs = nullptr;
  EXPECT_EQ(
      ldap_parse_sort_control(ld,
                              with(LDAP_CONTROL_SORTRESPONSE,
                                   tlv(ldap_proto::kSequence, integer(16, ldap_proto::kEnumerated) + tlv(0x80, "cn"))),
                              &result, &attr),
      0);
  EXPECT_EQ(std::to_string(result) + " " + attr, "16 cn");
  free(std::exchange(attr, nullptr));
  EXPECT_EQ(ldap_parse_sort_control(ld, with("1.2.3", ""), &result, &attr), LDAP_CONTROL_NOT_FOUND);
  EXPECT_EQ(ldap_parse_entrychange_control(
                ld,
                with(LDAP_CONTROL_ENTRYCHANGE,
                     tlv(ldap_proto::kSequence, integer(8, ldap_proto::kEnumerated) + str("cn=old") + integer(42))),
                &type, &prev, &present, &number),
            0);
  EXPECT_EQ(std::make_tuple(type, std::string(prev), present, number), std::make_tuple(8, "cn=old"s, 1, 42L));
  EXPECT_EQ(
      ldap_parse_vlv_control(ld,
                             with(LDAP_CONTROL_VLVRESPONSE,
                                  tlv(ldap_proto::kSequence,
                                      integer(7) + integer(300) + integer(0, ldap_proto::kEnumerated) + str("ctx"))),
                             &pos, &count, &context),
      0);
  EXPECT_EQ(std::make_tuple(pos, count, bytes(*context)), std::make_tuple(7UL, 300UL, "ctx"s));
  EXPECT_EQ(ldap_parse_limit_num_values_response(
                ld,
                with(LDAP_CONTROL_LIMIT_NUM_VALUES,
                     tlv(ldap_proto::kSequence,
                         str("cn=e") + tlv(ldap_proto::kSequence, str("mail") + integer(2) + integer(9)))),
                &dn, &attrs),
            0);
  ASSERT_TRUE(attrs && attrs[0] && !attrs[1]);
  EXPECT_EQ(std::make_tuple(std::string(dn), std::string(attrs[0]->lnv_attribute), attrs[0]->lnv_returned,
                            attrs[0]->lnv_total),
            std::make_tuple("cn=e"s, "mail"s, 2, 9));
  for (char *p : {prev, dn}) free(p);
  fber_bvfree(context);
  ldap_free_limit_num_values(attrs);
}

}  // namespace
