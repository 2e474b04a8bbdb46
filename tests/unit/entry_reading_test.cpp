// Reading entries, references, attributes and values from hand-made result
// chains: order, case-insensitive lookup, binary values, entry controls,
// malformed entries and the error record each reader leaves.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ldap-search.h"
#include "ldap-utils.h"

namespace {

std::string cons(unsigned char tag, const std::string &content) {
  std::string out(1, static_cast<char>(tag));
  out += '\x84';
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((content.size() >> shift) & 0xFF);
  return out + content;
}
std::string octets(const std::string &v) { return std::string(1, '\x04') + static_cast<char>(v.size()) + v; }

using Attr = std::pair<std::string, std::vector<std::string>>;

std::string entry_op(const std::string &dn, const std::vector<Attr> &attrs, const std::string &controls = "") {
  std::string list;
  for (const auto &[type, vals] : attrs) {
    std::string set;
    for (const auto &v : vals) set += octets(v);
    list += cons(0x30, octets(type) + cons(0x31, set));
  }
  return cons(0x64, octets(dn) + cons(0x30, list)) + controls;
}

std::string reference_op(const std::vector<std::string> &urls) {
  std::string s;
  for (const auto &u : urls) s += octets(u);
  return cons(0x73, s);
}

std::string done_op() { return cons(0x65, std::string("\x0a\x01\x00\x04\x00\x04\x00", 7)); }

std::string one_control(const std::string &oid, const std::string &value) {
  return cons(0xA0, cons(0x30, octets(oid) + octets(value)));
}

class Chain : public ::testing::Test {
 protected:
  void SetUp() override {
    ld = ldap_init("127.0.0.1", 389);
    ASSERT_NE(ld, nullptr);
  }
  void TearDown() override {
    free_msg(head, 1);
    ldap_unbind(ld);
  }
  // Appends a message whose element is positioned at the protocol operation.
  LDAPMessage *add(const std::string &op) {
    auto *m = static_cast<LDAPMessage *>(calloc(1, sizeof(LDAPMessage)));
    struct berval bv = {op.size(), const_cast<char *>(op.data())};
    m->lm_ber = fber_init2(&bv);
    m->lm_msgtype = static_cast<unsigned char>(op[0]);
    m->lm_msgid = 1;
    if (tail) {
      tail->lm_chain = m;
      m->lm_prev = tail;
    } else {
      head = m;
    }
    tail = m;
    return m;
  }
  LDAP *ld = nullptr;
  LDAPMessage *head = nullptr, *tail = nullptr;
};

TEST_F(Chain, AttributesComeInOrderThenNoneWithErrorZero) {
  LDAPMessage *e = add(entry_op("cn=a,o=x", {{"cn", {"a", "A2"}}, {"mail", {"a@x"}}}));
  BerElement *cursor = nullptr;
  std::vector<std::string> names;
  for (char *n = ldap_first_attribute(ld, e, &cursor); n; n = ldap_next_attribute(ld, e, cursor)) {
    names.push_back(n);
    ldap_memfree(n);
  }
  EXPECT_EQ(ldap_get_errno(ld), 0);
  EXPECT_EQ(names, (std::vector<std::string>{"cn", "mail"}));
  ldap_ber_free(cursor);
  EXPECT_EQ(ldap_count_attributes(ld, e), 2);

  struct berval **vals = ldap_get_values_len(ld, e, "CN");
  ASSERT_NE(vals, nullptr);
  EXPECT_EQ(ldap_count_values_len(vals), 2);
  EXPECT_EQ(std::string(vals[1]->bv_val, vals[1]->bv_len), "A2");
  ldap_value_free_len(vals);
  char **svals = ldap_get_values(ld, e, "Mail");
  ASSERT_NE(svals, nullptr);
  EXPECT_EQ(ldap_count_values(svals), 1);
  EXPECT_STREQ(svals[0], "a@x");
  ldap_value_free(svals);

  EXPECT_EQ(ldap_get_values_len(ld, e, "sn"), nullptr);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
  // The same entry read again gives the same DN.
  for (int i = 0; i < 2; ++i) {
    char *dn = ldap_get_dn(ld, e);
    ASSERT_NE(dn, nullptr);
    EXPECT_STREQ(dn, "cn=a,o=x");
    ldap_memfree(dn);
  }
}

TEST_F(Chain, BinaryValuesKeepTheirZeroBytes) {
  const std::string bin("\x00\x01\x00\xff", 4);
  LDAPMessage *e = add(entry_op("cn=b", {{"jpegPhoto", {bin, std::string()}}}));
  struct berval **vals = ldap_get_values_len(ld, e, "jpegphoto");
  ASSERT_EQ(ldap_count_values_len(vals), 2);
  EXPECT_EQ(std::string(vals[0]->bv_val, vals[0]->bv_len), bin);
  EXPECT_EQ(vals[1]->bv_len, 0u);
  ldap_value_free_len(vals);
}

TEST_F(Chain, EntryControlsStopTheAttributesAndAreReadSeparately) {
  LDAPMessage *e = add(entry_op("cn=c", {{"cn", {"c"}}}, one_control("1.2.3", "v")));
  BerElement *cursor = nullptr;
  char *n = ldap_first_attribute(ld, e, &cursor);
  ASSERT_STREQ(n, "cn");
  ldap_memfree(n);
  EXPECT_EQ(ldap_next_attribute(ld, e, cursor), nullptr);
  EXPECT_EQ(ldap_get_errno(ld), 0);
  ldap_ber_free(cursor);
  EXPECT_EQ(ldap_count_attributes(ld, e), 1);
  EXPECT_EQ(ldap_get_values(ld, e, "1.2.3"), nullptr);

  LDAPControl **ctrls = nullptr;
  ASSERT_EQ(ldap_get_entry_controls_np(ld, e, &ctrls), 0);
  ASSERT_NE(ctrls, nullptr);
  EXPECT_STREQ(ctrls[0]->ldctl_oid, "1.2.3");
  EXPECT_EQ(ctrls[1], nullptr);
  ldap_controls_free(ctrls);

  LDAPMessage *plain = add(entry_op("cn=d", {}));
  ctrls = reinterpret_cast<LDAPControl **>(1);
  EXPECT_EQ(ldap_get_entry_controls(ld, plain, &ctrls), 0);
  EXPECT_EQ(ctrls, nullptr);
  BerElement *c2 = reinterpret_cast<BerElement *>(1);
  EXPECT_EQ(ldap_first_attribute(ld, plain, &c2), nullptr);
  EXPECT_EQ(ldap_get_errno(ld), 0);
  ldap_ber_free(c2);
}

TEST_F(Chain, WalkingAndCountingEntriesAndReferences) {
  LDAPMessage *e1 = add(entry_op("cn=1", {{"cn", {"1"}}}));
  LDAPMessage *r = add(reference_op({"ldap://h1/o=x", "ldap://h2/o=x"}));
  LDAPMessage *e2 = add(entry_op("cn=2", {{"cn", {"2"}}}));
  LDAPMessage *done = add(done_op());
  EXPECT_EQ(ldap_count_entries(ld, head), 2);
  EXPECT_EQ(ldap_count_references(ld, head), 1);
  EXPECT_EQ(ldap_first_entry(ld, head), e1);
  EXPECT_EQ(ldap_next_entry(ld, e1), e2);
  EXPECT_EQ(ldap_next_entry(ld, e2), nullptr);
  EXPECT_EQ(ldap_first_reference(ld, head), r);
  EXPECT_EQ(ldap_next_reference(ld, r), nullptr);
  EXPECT_EQ(ldap_first_entry(ld, done), nullptr);

  char **urls = nullptr;
  LDAPControl **ctrls = reinterpret_cast<LDAPControl **>(1);
  ASSERT_EQ(ldap_parse_reference(ld, r, &urls, &ctrls, 0), 0);
  ASSERT_EQ(ldap_count_values(urls), 2);
  EXPECT_STREQ(urls[1], "ldap://h2/o=x");
  EXPECT_EQ(ctrls, nullptr);
  ldap_value_free(urls);
  EXPECT_EQ(ldap_parse_reference_np(ld, e1, &urls, nullptr, 0), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_get_entry_controls(ld, r, &ctrls), LDAP_PARAM_ERROR);
}

TEST_F(Chain, MissingArgumentsAndMalformedEntries) {
  LDAPMessage *bad = add(cons(0x64, octets("cn=x") + std::string("\x30\x05\x30", 3)));
  LDAPMessage *nodn = add(cons(0x64, std::string("\x04\x10"
                                                 "ab",
                                                 4)));  // DN runs past the end
  BerElement *cursor = reinterpret_cast<BerElement *>(1);
  EXPECT_EQ(ldap_first_attribute(ld, bad, &cursor), nullptr);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
  EXPECT_EQ(cursor, nullptr);
  EXPECT_EQ(ldap_get_values_len(ld, bad, "cn"), nullptr);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
  EXPECT_EQ(ldap_get_dn(ld, nodn), nullptr);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
  EXPECT_EQ(ldap_count_attributes(ld, bad), 0);

  struct {
    const char *what;
    bool null_result;
  } checks[] = {
      {"first_attribute", ldap_first_attribute(ld, nullptr, &cursor) == nullptr},
      {"next_attribute", ldap_next_attribute(ld, bad, nullptr) == nullptr},
      {"get_values", ldap_get_values(ld, bad, nullptr) == nullptr},
      {"get_values_len", ldap_get_values_len(ld, nullptr, "cn") == nullptr},
      {"get_dn", ldap_get_dn(ld, nullptr) == nullptr},
  };
  for (const auto &c : checks) EXPECT_TRUE(c.null_result) << c.what;
  EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_count_entries(nullptr, head), -1);
  EXPECT_EQ(ldap_count_references(nullptr, head), -1);
  EXPECT_EQ(ldap_count_values(nullptr), 0);
  ldap_memfree(nullptr);
  ldap_ber_free(nullptr);
  ldap_value_free(nullptr);
  ldap_value_free_len(nullptr);
}

TEST_F(Chain, AllocationFailuresLeaveNoMemoryOrDecodingErrorAndNoLeak) {
  LDAPMessage *e = add(entry_op("cn=a", {{"cn", {"a", "b"}}, {"sn", {"s"}}}));
  for (long n = 1; n < 16; ++n) {
    olx_fail_alloc_at(n);
    BerElement *cursor = nullptr;
    char *name = ldap_first_attribute(ld, e, &cursor);
    struct berval **vals = ldap_get_values_len(ld, e, "sn");
    char *dn = ldap_get_dn(ld, e);
    const long used = olx_fail_alloc_at(0);
    ldap_memfree(name);
    ldap_ber_free(cursor);
    ldap_value_free_len(vals);
    ldap_memfree(dn);
    if (used < n) break;
    EXPECT_TRUE(name == nullptr || vals == nullptr || dn == nullptr) << n;
  }
}

}  // namespace
