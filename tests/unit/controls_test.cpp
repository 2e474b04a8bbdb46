// Controls: exact bytes of the encodings and constructors, strict decoding,
// list operations and the preparation every operation applies.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "ldap-controls.h"
#include "ldap-engine.h"
#include "ldap-utils.h"

using namespace std::string_literals;

namespace {

using Bytes = std::string;

// The encoder writes SEQUENCE/SET lengths in a fixed 4-octet long form.
Bytes seq(unsigned char tag, const Bytes &content) {
  Bytes out(1, static_cast<char>(tag));
  out += '\x84';
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((content.size() >> shift) & 0xFF);
  return out + content;
}
Bytes prim(unsigned char tag, const Bytes &v) { return Bytes(1, static_cast<char>(tag)) + static_cast<char>(v.size()) + v; }
Bytes str(const Bytes &s) { return prim(0x04, s); }
Bytes integer(int v) { return prim(0x02, Bytes(1, static_cast<char>(v))); }
Bytes value_of(const LDAPControl *c) { return Bytes(c->ldctl_value.bv_val, c->ldctl_value.bv_len); }
Bytes bv(const struct berval *b) { return Bytes(b->bv_val, b->bv_len); }

struct Control {
  LDAPControl *c = nullptr;
  ~Control() { ldap_control_free(c); }
};

class Controls : public ::testing::Test {
 protected:
  void SetUp() override { ld = ldap_init("127.0.0.1", 9); }
  void TearDown() override { ldap_unbind(ld); }
  LDAP *ld = nullptr;
};

TEST(ControlEncoding, RequestControlsAreWrittenWithCriticalityAlways) {
  LDAPControl plain = {const_cast<char *>("1.2.3"), {0, nullptr}, 0};
  LDAPControl valued = {const_cast<char *>("1.2.4"), {2, const_cast<char *>("\x01\x00")}, 1};
  struct Case {
    std::vector<LDAPControl *> list;
    Bytes want;
  } cases[] = {
      {{&plain, nullptr}, seq(0xA0, seq(0x30, str("1.2.3") + prim(0x01, "\x00"s)))},
      {{&plain, &valued, nullptr},
       seq(0xA0, seq(0x30, str("1.2.3") + prim(0x01, "\x00"s)) +
                     seq(0x30, str("1.2.4") + prim(0x01, "\xff") + str(Bytes("\x01\x00", 2))))},
      {{nullptr}, ""},  // an empty list writes nothing
  };
  for (auto &c : cases) {
    BerElement *ber = fber_alloc();
    ASSERT_EQ(put_ctrls_into_ber(ber, c.list.data()), 0);
    EXPECT_EQ(Bytes(ber->ber_buf, ber->ber_ptr - ber->ber_buf), c.want);
    fber_free(ber);
  }
}

// Decodes `bytes` (what follows an operation) as response controls.
int decode(const Bytes &bytes, LDAPControl ***out) {
  struct berval in = {bytes.size(), const_cast<char *>(bytes.data())};
  BerElement *ber = fber_init2(&in);
  if (ber == nullptr) {
    *out = nullptr;
    return LDAP_NO_MEMORY;
  }
  int rc = get_ctrls_from_ber(ber, out);
  fber_free(ber);
  return rc;
}

TEST(ControlDecoding, AcceptsTheThreeShapesAndRefusesEverythingElse) {
  LDAPControl **list = nullptr;
  ASSERT_EQ(decode(seq(0xA0, seq(0x30, str("1.1")) + seq(0x30, str("1.2") + prim(0x01, "\xff")) +
                                 seq(0x30, str("1.3") + prim(0x01, "\x00"s) + str("val"))),
                   &list),
            0);
  ASSERT_NE(list, nullptr);
  EXPECT_STREQ(list[0]->ldctl_oid, "1.1");
  EXPECT_EQ(list[0]->ldctl_iscritical, 0);
  EXPECT_EQ(list[0]->ldctl_value.bv_val, nullptr);
  EXPECT_NE(list[1]->ldctl_iscritical, 0);
  EXPECT_EQ(value_of(list[2]), "val");
  EXPECT_EQ(list[3], nullptr);
  ldap_controls_free(list);

  // Not [0]: success without a list.
  EXPECT_EQ(decode(str("x"), &list), 0);
  EXPECT_EQ(list, nullptr);

  const Bytes bad[] = {
      seq(0xA0, seq(0x30, str("1.1") + str("v") + prim(0x01, "\xff"))),               // value before criticality
      seq(0xA0, seq(0x30, str("1.1") + prim(0x01, "\xff") + prim(0x01, "\x00"s))),     // two criticality elements
      seq(0xA0, seq(0x30, str("1.1") + str("a") + str("b"))),                          // two values
      seq(0xA0, seq(0x30, str("1.1") + prim(0x02, "\x05"))),                           // unknown tag
      seq(0xA0, seq(0x30, prim(0x01, "\xff"))),                                         // no OID
      seq(0xA0, seq(0x30, str("1.1")) + seq(0x30, str("1.2") + str("v") + str("w"))),  // second control bad
  };
  for (const auto &b : bad) {
    list = reinterpret_cast<LDAPControl **>(1);
    EXPECT_EQ(decode(b, &list), LDAP_DECODING_ERROR);
    EXPECT_EQ(list, nullptr);
  }
}

TEST(ControlDecoding, AllocationFailuresFreeEverything) {
  const Bytes three = seq(0xA0, seq(0x30, str("1.1")) + seq(0x30, str("1.2")) + seq(0x30, str("1.3") + str("v")));
  for (long n = 1; n < 40; ++n) {
    LDAPControl **list = nullptr;
    olx_fail_alloc_at(n);
    int rc = decode(three, &list);
    long reached = olx_fail_alloc_at(0);
    if (rc == 0) {
      ldap_controls_free(list);
      if (reached < n) break;  // the failure point was never reached: done
      continue;
    }
    EXPECT_EQ(list, nullptr);
  }
}

TEST(ControlLists, CopyMergeAppendRemove) {
  LDAPControl a = {const_cast<char *>("1.1"), {0, const_cast<char *>("")}, 1};
  LDAPControl b = {const_cast<char *>("1.2"), {3, const_cast<char *>("xyz")}, 0};
  LDAPControl *src[] = {&a, &b, nullptr};
  LDAPControl **copy = nullptr;
  ASSERT_EQ(ldap_copy_controls(&copy, src), 0);
  EXPECT_EQ(copy[0]->ldctl_value.bv_val, nullptr) << "a 0-length value is copied as no value";
  EXPECT_EQ(value_of(copy[1]), "xyz");
  EXPECT_EQ(copy[0]->ldctl_iscritical, 1);

  LDAPControl no_oid = {nullptr, {0, nullptr}, 0};
  LDAPControl negative = {const_cast<char *>("1.3"), {(ber_len_t)(uint32_t)-1, const_cast<char *>("x")}, 0};
  LDAPControl *bad1[] = {&a, &no_oid, nullptr}, *bad2[] = {&negative, nullptr};
  LDAPControl **out = reinterpret_cast<LDAPControl **>(1);
  EXPECT_EQ(ldap_copy_controls(&out, bad1), LDAP_PARAM_ERROR);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(ldap_copy_controls(&out, bad2), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_copy_controls(nullptr, src), LDAP_PARAM_ERROR);
  LDAPControl *empty[] = {nullptr};
  EXPECT_EQ(ldap_copy_controls(&out, empty), 0);
  EXPECT_EQ(out, nullptr);

  ASSERT_EQ(ldap_add_control_to_list("1.9", 2, "hi", 1, &copy), 0);
  ASSERT_NE(copy[2], nullptr);
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
  LDAPControl def = {const_cast<char *>("1.5"), {0, nullptr}, 0};
  LDAPControl *defaults[] = {&def, nullptr};
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, defaults), 0);
  LDAPControl **sctrls = nullptr;
  int substituted = 0;
  ASSERT_EQ(ldap_apply_default_controls(ld, &sctrls, nullptr, &substituted), 0);
  ASSERT_EQ(substituted, 1);
  ASSERT_NE(sctrls, nullptr);
  EXPECT_STREQ(sctrls[0]->ldctl_oid, "1.5");
  ldap_controls_free(sctrls);

  LDAPControl *empty[] = {nullptr};
  sctrls = empty;
  ASSERT_EQ(ldap_apply_default_controls(ld, &sctrls, nullptr, &substituted), 0);
  EXPECT_EQ(substituted, 0);
  EXPECT_EQ(sctrls, empty);

  LDAPControl soft = {const_cast<char *>("1.6"), {0, nullptr}, 0}, hard = {const_cast<char *>("1.7"), {0, nullptr}, 1};
  LDAPControl *cl_soft[] = {&soft, nullptr}, *cl_hard[] = {&soft, &hard, nullptr};
  sctrls = empty;
  EXPECT_EQ(ldap_apply_default_controls(ld, &sctrls, cl_soft, &substituted), 0);
  EXPECT_EQ(ldap_apply_default_controls(ld, &sctrls, cl_hard, &substituted), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
}

TEST_F(Controls, ConstructorsWriteExactBytes) {
  struct berval cookie = {2, const_cast<char *>("ab")}, id = {3, const_cast<char *>("T\x00X")};
  char *groups[] = {const_cast<char *>("cn=g1"), const_cast<char *>("cn=g2"), nullptr};
  LDAPsortkey k1 = {const_cast<char *>("cn"), nullptr, 0}, k2 = {const_cast<char *>("sn"), const_cast<char *>("2.5.13.3"), 1};
  LDAPsortkey *keys[] = {&k1, &k2, nullptr};
  struct berval ctx = {2, const_cast<char *>("c1")}, assertion = {1, const_cast<char *>("m")};
  LDAPVLVInfo by_offset = {1, 2, 5, 100, nullptr, &ctx}, by_value = {0, 3, 0, 0, &assertion, nullptr};

  struct Case {
    const char *what;
    std::function<int(LDAPControl **)> make;
    const char *oid;
    int critical;
    Bytes value;
  } cases[] = {
      {"proxy auth", [&](LDAPControl **c) { return ldap_create_proxyauth_control(ld, "cn=x", 1, c); },
       LDAP_CONTROL_PROXYAUTH, 1, Bytes("cn=x\0", 5)},
      {"paged, no cookie", [&](LDAPControl **c) { return ldap_create_page_control(ld, 100, nullptr, 'F', c); },
       LDAP_CONTROL_PAGEDRESULTS, 0, Bytes("\x30\x05\x02\x01\x64\x04\x00", 7)},
      {"paged, size needs two bytes", [&](LDAPControl **c) { return ldap_create_page_control(ld, 128, &cookie, 'T', c); },
       LDAP_CONTROL_PAGEDRESULTS, 1, Bytes("\x30\x08\x02\x02\x00\x80\x04\x02" "ab", 10)},
      {"sort", [&](LDAPControl **c) { return ldap_create_sort_control(ld, keys, 'T', c); }, LDAP_CONTROL_SORTREQUEST, 1,
       seq(0x30, seq(0x30, str("cn")) + seq(0x30, str("sn") + prim(0x80, "2.5.13.3") + prim(0x81, "\xff")))},
      {"persistent search", [&](LDAPControl **c) { return ldap_create_persistentsearch_control(ld, 15, 1, 0, 1, c); },
       LDAP_CONTROL_PERSISTENTSEARCH, 1, seq(0x30, integer(15) + integer(1) + integer(0))},
      {"chaining audit", [&](LDAPControl **c) { return ldap_create_chaining_audit_control(groups, "s", 0, c); },
       LDAP_CONTROL_CHAINING_AUDIT, 0, seq(0x30, seq(0x30, str("cn=g1") + str("cn=g2")) + str("s"))},
      {"group from list", [&](LDAPControl **c) { return ldap_create_group_control_from_list(groups, 1, c); },
       LDAP_CONTROL_GROUP, 1, seq(0x30, prim(0x0A, "\x01") + seq(0x30, str("cn=g1") + str("cn=g2")))},
      {"group, prepared value", [&](LDAPControl **c) { return ldap_create_group_control(&cookie, c); },
       LDAP_CONTROL_GROUP, 1, "ab"},
      {"valueless 25", [&](LDAPControl **c) { return ldap_create_oid25_control(c); }, LDAP_CONTROL_OID25, 1, ""},
      {"valueless 26", [&](LDAPControl **c) { return ldap_create_oid26_control(c); }, LDAP_CONTROL_OID26, 1, ""},
      {"valueless 33", [&](LDAPControl **c) { return ldap_create_oid33_control(0, c); }, LDAP_CONTROL_OID33, 0, ""},
      {"transaction", [&](LDAPControl **c) { return ldap_create_transaction_control(&id, c); },
       LDAP_CONTROL_TRANSACTION, 1, Bytes("T\x00X", 3)},
      {"limit values", [&](LDAPControl **c) { return ldap_create_limit_num_values_control(ld, 5, 50, 1, 0, c); },
       LDAP_CONTROL_LIMIT_NUM_VALUES, 0, seq(0x30, integer(5) + integer(50) + prim(0x01, "\xff"))},
      {"assertion", [&](LDAPControl **c) { return ldap_create_assertion_control(ld, "(cn=a)", 1, c); },
       LDAP_CONTROL_ASSERTION, 1, seq(0xA3, str("cn") + str("a"))},
      {"vlv by offset", [&](LDAPControl **c) { return ldap_create_vlv_control(ld, &by_offset, c); },
       LDAP_CONTROL_VLVREQUEST, 1, seq(0x30, integer(1) + integer(2) + seq(0xA0, integer(5) + integer(100)) + str("c1"))},
      {"vlv by value", [&](LDAPControl **c) { return ldap_create_vlv_control(ld, &by_value, c); },
       LDAP_CONTROL_VLVREQUEST, 1, seq(0x30, integer(0) + integer(3) + prim(0x81, "m"))},
  };
  for (auto &c : cases) {
    Control made;
    ASSERT_EQ(c.make(&made.c), 0) << c.what;
    EXPECT_STREQ(made.c->ldctl_oid, c.oid) << c.what;
    EXPECT_EQ(made.c->ldctl_iscritical != 0, c.critical != 0) << c.what;
    EXPECT_EQ(value_of(made.c), c.value) << c.what;
    if (!c.value.empty()) {
      EXPECT_EQ(made.c->ldctl_value.bv_val[c.value.size()], '\0') << c.what << ": no zero byte after";
    }
  }
}

TEST_F(Controls, ConstructorsRefuseBadArguments) {
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
  struct berval *v = nullptr;
  EXPECT_EQ(ldap_create_account_status_request(nullptr, &v), LDAP_PARAM_ERROR);
}

TEST(ExtendedValues, RequestValuesWriteExactBytes) {
  struct berval id = {2, const_cast<char *>("q\x01")};
  char *groups[] = {const_cast<char *>("cn=g"), nullptr};
  struct Case {
    const char *what;
    std::function<int(struct berval **)> make;
    Bytes want;
  } cases[] = {
      {"account status", [](struct berval **v) { return ldap_create_account_status_request("cn=u", v); }, seq(0x30, str("cn=u"))},
      {"end transaction, commit", [&](struct berval **v) { return ldap_create_end_transaction_request(&id, 1, v); },
       Bytes("\x01q\x01", 3)},
      {"end transaction, abort", [&](struct berval **v) { return ldap_create_end_transaction_request(&id, 0, v); },
       Bytes("\x00q\x01", 3)},
      {"prepare transaction", [&](struct berval **v) { return ldap_create_prepare_tranaction_request(&id, v); }, Bytes("q\x01", 2)},
      {"group eval", [&](struct berval **v) { return ldap_create_group_eval_request("cn=u", groups, v); },
       seq(0x30, str("cn=u") + seq(0x30, str("cn=g")))},
      {"group eval, no groups", [](struct berval **v) { return ldap_create_group_eval_request("cn=u", nullptr, v); },
       seq(0x30, str("cn=u"))},
      {"effective policy", [](struct berval **v) { return ldap_create_effective_pwdpolicy_request("cn=u", v); },
       seq(0x30, str("cn=u"))},
  };
  for (auto &c : cases) {
    struct berval *v = nullptr;
    ASSERT_EQ(c.make(&v), 0) << c.what;
    EXPECT_EQ(bv(v), c.want) << c.what;
    fber_bvfree(v);
  }
}

TEST_F(Controls, ResponseControlParsers) {
  // Paged results: what the constructor writes reads back; broken values are 84.
  Control page;
  struct berval cookie = {3, const_cast<char *>("xyz")};
  ASSERT_EQ(ldap_create_page_control(ld, 70000, &cookie, 'F', &page.c), 0);
  page.c->ldctl_oid[0] = '1';
  LDAPControl *list[] = {page.c, nullptr};
  unsigned int size = 0;
  struct berval *got = nullptr;
  ASSERT_EQ(ldap_parse_page_control(ld, list, &size, &got), 0);
  EXPECT_EQ(size, 70000u);
  EXPECT_EQ(bv(got), "xyz");
  fber_bvfree(got);
  for (Bytes broken : {Bytes(), Bytes("\x31\x03\x02\x01\x05", 5), Bytes("\x30\x00", 2)}) {
    LDAPControl c = {const_cast<char *>(LDAP_CONTROL_PAGEDRESULTS), {broken.size(), broken.data()}, 0};
    LDAPControl *l[] = {&c, nullptr};
    EXPECT_EQ(ldap_parse_page_control(ld, l, &size, &got), LDAP_DECODING_ERROR);
  }
  EXPECT_EQ(ldap_parse_page_control(ld, nullptr, &size, &got), LDAP_CONTROL_NOT_FOUND);

  auto with = [](const char *oid, const Bytes &value) {
    static Bytes keep;
    static LDAPControl c;
    static LDAPControl *l[2];
    keep = value;
    c = {const_cast<char *>(oid), {keep.size(), keep.data()}, 0};
    l[0] = &c;
    l[1] = nullptr;
    return l;
  };
  unsigned long result = 99;
  char *attr = nullptr;
  EXPECT_EQ(ldap_parse_sort_control(ld, with(LDAP_CONTROL_SORTRESPONSE, seq(0x30, prim(0x0A, "\x10") + prim(0x80, "cn"))),
                                    &result, &attr),
            0);
  EXPECT_EQ(result, 16u);
  EXPECT_STREQ(attr, "cn");
  free(attr);
  EXPECT_EQ(ldap_parse_sort_control(ld, with("1.2.3", ""), &result, &attr), LDAP_CONTROL_NOT_FOUND);

  int type = 0, present = 0;
  long number = 0;
  char *prev = nullptr;
  EXPECT_EQ(ldap_parse_entrychange_control(
                ld, with(LDAP_CONTROL_ENTRYCHANGE, seq(0x30, prim(0x0A, "\x08") + str("cn=old") + integer(42))), &type,
                &prev, &present, &number),
            0);
  EXPECT_EQ(type, 8);
  EXPECT_STREQ(prev, "cn=old");
  EXPECT_EQ(present, 1);
  EXPECT_EQ(number, 42);
  free(prev);

  unsigned long pos = 0, count = 0;
  struct berval *context = nullptr;
  EXPECT_EQ(ldap_parse_vlv_control(ld, with(LDAP_CONTROL_VLVRESPONSE,
                                            seq(0x30, integer(7) + prim(0x02, "\x01\x2c") + prim(0x0A, "\x00"s) + str("ctx"))),
                                   &pos, &count, &context),
            0);
  EXPECT_EQ(pos, 7u);
  EXPECT_EQ(count, 300u);
  EXPECT_EQ(bv(context), "ctx");
  fber_bvfree(context);

  char *dn = nullptr;
  LDAPLimitNumValues **attrs = nullptr;
  EXPECT_EQ(ldap_parse_limit_num_values_response(
                ld, with(LDAP_CONTROL_LIMIT_NUM_VALUES,
                         seq(0x30, str("cn=e") + seq(0x30, str("mail") + integer(2) + integer(9)))),
                &dn, &attrs),
            0);
  EXPECT_STREQ(dn, "cn=e");
  ASSERT_NE(attrs, nullptr);
  EXPECT_STREQ(attrs[0]->lnv_attribute, "mail");
  EXPECT_EQ(attrs[0]->lnv_returned, 2);
  EXPECT_EQ(attrs[0]->lnv_total, 9);
  EXPECT_EQ(attrs[1], nullptr);
  free(dn);
  ldap_free_limit_num_values(attrs);
}

TEST(ExtendedValues, EffectivePolicyResponse) {
  Bytes value = seq(0x30, seq(0x30, str("pwdMaxAge") + seq(0x31, str("3600"))) +
                              seq(0x30, str("pwdMinLength") + seq(0x31, str("8") + str("9"))));
  struct berval v = {value.size(), value.data()};
  LDAPPolicyItem **items = nullptr;
  char **tail = nullptr;
  ASSERT_EQ(ldap_parse_effective_pwdpolicy_response(LDAP_EXOP_EFFECTIVE_PWDPOLICY_RESPONSE, &v, &items, &tail), 0);
  ASSERT_NE(items, nullptr);
  EXPECT_STREQ(items[0]->lpi_name, "pwdMaxAge");
  EXPECT_STREQ(items[0]->lpi_values[0], "3600");
  EXPECT_STREQ(items[1]->lpi_values[1], "9");
  EXPECT_EQ(items[2], nullptr);
  ldap_free_effective_pwdpolicy(items, tail);
  EXPECT_EQ(ldap_parse_effective_pwdpolicy_response("1.2.3", &v, &items, &tail), LDAP_DECODING_ERROR);
}

}  // namespace
