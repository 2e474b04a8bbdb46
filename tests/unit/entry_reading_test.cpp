// Reading entries, references, attributes and values from hand-made result
// chains: order, case-insensitive lookup, binary values, entry controls,
// malformed and truncated entries, and the error record each reader leaves.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "alloc_sweep.h"
#include "ber_build.h"
#include "ldap-protocol.h"
#include "ldap-search.h"
#include "ldap-utils.h"

using namespace tavtest;
using Attrs = std::vector<std::pair<std::string, std::vector<std::string>>>;

namespace {

std::string entry(const std::string &dn, const Attrs &attrs, const std::string &controls = "") {
  std::string list;
  for (const auto &[type, vals] : attrs) {
    std::string set;
    for (const auto &v : vals) set += str(v);
    list += tlv(ldap_proto::kSequence, str(type) + tlv(ldap_proto::kSet, set));
  }
  return tlv(ldap_proto::kSearchEntry, str(dn) + tlv(ldap_proto::kSequence, list)) + controls;
}

const std::string kBinary("\x00\x01\x00\xff", 4);
const std::string kEntry = entry("cn=a,o=x", {{"cn", {"a", "A2"}}, {"jpegPhoto", {kBinary, ""}}, {"mail", {"a@x"}}},
                                 tlv(ldap_proto::kControls, tlv(ldap_proto::kSequence, str("1.2.3") + str("v"))));

// Every case runs on elements of a session that translates (the values are
// read through the copying decoder) and of one that does not (the attribute
// lookup compares names in place): both must read the same.
class Chain : public ::testing::TestWithParam<int32_t> {
 protected:
  void SetUp() override { ld = ldap_init("127.0.0.1", 389); }
  void TearDown() override {
    free_msg(head, 1);
    ldap_unbind(ld);
  }
  // Appends a message whose element is positioned at the protocol operation.
  LDAPMessage *add(const std::string &op) {
    auto *m = static_cast<LDAPMessage *>(calloc(1, sizeof(LDAPMessage)));
    struct berval bv = {op.size(), const_cast<char *>(op.data())};
    m->lm_ber = fber_init2(&bv);
    m->lm_ber->ber_noxlate = static_cast<int32_t *>(malloc(sizeof(int32_t)));  // the element owns it
    *m->lm_ber->ber_noxlate = GetParam();
    m->lm_msgtype = static_cast<unsigned char>(op[0]);
    m->lm_msgid = 1;
    (tail ? tail->lm_chain : head) = m;
    m->lm_prev = tail;
    return tail = m;
  }
  // Everything the readers give for an entry: "dn|type=v,v;type=...;" and
  // the error record left at the end.
  std::string walk(LDAPMessage *e, int *err) {
    char *dn = ldap_get_dn(ld, e);
    std::string out = std::string(dn ? dn : "(null)") + "|";
    ldap_memfree(dn);
    BerElement *cursor = nullptr;
    for (char *a = ldap_first_attribute(ld, e, &cursor); a; a = ldap_next_attribute(ld, e, cursor)) {
      struct berval **v = ldap_get_values_len(ld, e, a);
      out += std::string(a) + "=";
      for (int i = 0; v && v[i]; ++i) out += hex(std::string(v[i]->bv_val, v[i]->bv_len)) + ",";
      ldap_value_free_len(v);
      ldap_memfree(a);
      out += ";";
    }
    *err = ldap_get_errno(ld);
    ldap_ber_free(cursor);
    return out;
  }
  LDAP *ld = nullptr;
  LDAPMessage *head = nullptr, *tail = nullptr;
};

TEST_P(Chain, AttributesInOrderValuesByAnyCaseThenControls) {
  LDAPMessage *e = add(kEntry);
  int err = -1;
  EXPECT_EQ(walk(e, &err), "cn=a,o=x|cn=61,41 32,;jpegPhoto=" + hex(kBinary) + ",,;mail=61 40 78,;");
  EXPECT_EQ(err, 0) << "the end of the attributes is not an error";
  EXPECT_EQ(ldap_count_attributes(ld, e), 3);
  struct berval **vals = ldap_get_values_len(ld, e, "JPEGPHOTO");
  ASSERT_EQ(ldap_count_values_len(vals), 2);
  ldap_value_free_len(vals);
  char **svals = ldap_get_values(ld, e, "Mail");
  ASSERT_EQ(ldap_count_values(svals), 1);
  EXPECT_STREQ(svals[0], "a@x");
  ldap_value_free(svals);
  EXPECT_EQ(ldap_get_values_len(ld, e, "sn"), nullptr);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
  EXPECT_EQ(ldap_get_values(ld, e, "1.2.3"), nullptr);  // controls are no attribute

  LDAPControl **ctrls = nullptr;
  ASSERT_EQ(ldap_get_entry_controls_np(ld, e, &ctrls), 0);
  ASSERT_NE(ctrls, nullptr);
  EXPECT_STREQ(ctrls[0]->ldctl_oid, "1.2.3");
  EXPECT_EQ(ctrls[1], nullptr);
  ldap_controls_free(ctrls);
  LDAPMessage *plain = add(entry("cn=d", {}));
  ctrls = reinterpret_cast<LDAPControl **>(1);
  EXPECT_EQ(ldap_get_entry_controls(ld, plain, &ctrls), 0);
  EXPECT_EQ(ctrls, nullptr);
  BerElement *c2 = reinterpret_cast<BerElement *>(1);
  EXPECT_EQ(ldap_first_attribute(ld, plain, &c2), nullptr);
  EXPECT_EQ(ldap_get_errno(ld), 0);
  ldap_ber_free(c2);
}

TEST_P(Chain, AnOverlongDescriptionIsPassedOverAndTheRestStaysReachable) {
  const std::string huge(401, 'x');
  LDAPMessage *e = add(entry("cn=b", {{"cn", {"b"}}, {huge, {"hidden"}}, {"sn", {"s"}}}));
  int err = -1;
  EXPECT_EQ(walk(e, &err), "cn=b|cn=62,;sn=73,;");
  EXPECT_EQ(err, 0);
  char **vals = ldap_get_values(ld, e, "sn");
  ASSERT_EQ(ldap_count_values(vals), 1);
  EXPECT_STREQ(vals[0], "s");
  ldap_value_free(vals);
  LDAPMessage *first = add(entry("cn=c", {{huge, {"hidden"}}, {"sn", {"s"}}}));
  EXPECT_EQ(walk(first, &err), "cn=c|sn=73,;");
}

TEST_P(Chain, WalkingAndCountingEntriesAndReferences) {
  LDAPMessage *e1 = add(entry("cn=1", {{"cn", {"1"}}}));
  LDAPMessage *r = add(tlv(ldap_proto::kSearchReference, str("ldap://h1/o=x") + str("ldap://h2/o=x")));
  LDAPMessage *e2 = add(entry("cn=2", {{"cn", {"2"}}}));
  LDAPMessage *done = add(result(ldap_proto::kSearchDone, 0));
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

TEST_P(Chain, MissingArgumentsMalformedAndTruncatedEntries) {
  LDAPMessage *bad = add(seq4(ldap_proto::kSearchEntry, str("cn=x") + unhex("30 05 30")));
  BerElement *cursor = reinterpret_cast<BerElement *>(1);
  EXPECT_EQ(ldap_first_attribute(ld, bad, &cursor), nullptr);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
  EXPECT_EQ(cursor, nullptr);
  EXPECT_EQ(ldap_count_attributes(ld, bad), 0);
  EXPECT_EQ(ldap_first_attribute(ld, nullptr, &cursor), nullptr);
  EXPECT_EQ(ldap_next_attribute(ld, bad, nullptr), nullptr);
  EXPECT_EQ(ldap_get_values(ld, bad, nullptr), nullptr);
  EXPECT_EQ(ldap_get_values_len(ld, nullptr, "cn"), nullptr);
  EXPECT_EQ(ldap_get_dn(ld, nullptr), nullptr);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_count_entries(nullptr, head), -1);
  EXPECT_EQ(ldap_count_references(nullptr, head), -1);
  EXPECT_EQ(ldap_count_values(nullptr), 0);
  ldap_memfree(nullptr);
  ldap_ber_free(nullptr);
  ldap_value_free(nullptr);
  ldap_value_free_len(nullptr);
  // Every proper prefix of the entry (controls aside) reads short: a cut
  // inside an element is a decoding error, one between elements reads as
  // the end of the attributes.
  int full_err = -1;
  const std::string full = walk(add(kEntry), &full_err);
  for (size_t cut = 1; cut < kEntry.size() - 14; ++cut) {
    int err = -1;
    EXPECT_NE(walk(add(kEntry.substr(0, cut)), &err), full) << cut;
    EXPECT_TRUE(err == LDAP_DECODING_ERROR || err == 0) << cut;
  }
}

TEST_P(Chain, AllocationFailuresGiveNullAndNoMemory) {
  LDAPMessage *e = add(kEntry);
  for (int reader = 0; reader < 3; ++reader) {
    BerElement *cursor = nullptr;
    auto read = [&] {
      return reader == 0   ? (void *)ldap_first_attribute(ld, e, &cursor)
             : reader == 1 ? (void *)ldap_get_values_len(ld, e, "mail")
                           : (void *)ldap_get_dn(ld, e);
    };
    tavtest::sweep_allocations(read, [&](void *got, bool failed, long n) {
      const int err = ldap_get_errno(ld);
      reader == 1 ? ldap_value_free_len(static_cast<struct berval **>(got)) : free(got);
      ldap_ber_free(std::exchange(cursor, nullptr));
      EXPECT_EQ(got == nullptr, failed) << reader << " allocation " << n;
      EXPECT_TRUE(!failed || err == LDAP_NO_MEMORY || err == LDAP_DECODING_ERROR) << reader << " " << n << ": " << err;
    });
  }
}

INSTANTIATE_TEST_SUITE_P(Translating, Chain, ::testing::Values(0, 1));

}  // namespace
