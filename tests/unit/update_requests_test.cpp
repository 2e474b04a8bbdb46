// Update requests as they reach the wire, byte for byte, and the failures the
// operations report before anything is sent.  A scripted server records each
// request and answers it.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>

#include "fake_server.h"
#include "ldap-protocol.h"
#include "ldap-update.h"
#include "ldap-utils.h"
#include "ldap_requests.h"
#include "process.h"
#include "slapd_server.h"

using namespace tavtest;

namespace {

char *s(const char *text) { return const_cast<char *>(text); }
std::string set_of(std::initializer_list<std::string> values) {
  std::string out;
  for (const auto &v : values) out += str(v);
  return seq4(ldap_proto::kSet, out);
}
std::string pdu(int msgid, const std::string &op, const std::string &controls = "") {
  return seq4(ldap_proto::kSequence, integer(msgid) + op + controls);
}

// One session against a fake server that records the first request and
// answers it with `code`, a matched DN and a message.
struct Recorded {
  explicit Recorded(int code = 0) {
    fake.on_request([=, this](const std::string &r) {
      request = r;
      msgid = request_msgid(r);
      // 30 84 LLLL 02 01 ID <tag>: the response type is the request's plus one (0x4A: 0x6B).
      const unsigned char type = static_cast<unsigned char>(r[9]);
      return message(msgid, result(type == ldap_proto::kDeleteRequest ? ldap_proto::kDeleteResponse : type + 1, code,
                                   code ? "dc=example,dc=com" : "", code ? "no such entry" : ""));
    });
    fake.hold_until_closed();
    fake.start();
  }
  ~Recorded() { ldap_unbind(ld); }
  // Written by the server's thread: declared first so they outlive its join.
  std::string request;
  int msgid = -1;
  FakeServer fake;
  LDAP *ld = ldap_init("127.0.0.1", fake.port());
};

TEST(UpdateRequests, ShapesOnTheWire) {
  static char *cn[] = {s("Jo"), s("Joe"), nullptr}, *ocs[] = {s("person"), nullptr};
  static struct berval bin = {5, s("a\0b\0c")}, *bins[] = {&bin, nullptr};
  // Add ignores the operation bits: only LDAP_MOD_BVALUES counts.
  static LDAPMod add_cn = {LDAP_MOD_REPLACE, s("cn"), {cn}}, add_oc = {LDAP_MOD_ADD, s("objectClass"), {ocs}},
                 add_bin = {LDAP_MOD_DELETE | LDAP_MOD_BVALUES, s("jpegPhoto"), {reinterpret_cast<char **>(bins)}},
                 repl_none = {LDAP_MOD_REPLACE, s("description"), {nullptr}}, add_str = {LDAP_MOD_ADD, s("cn"), {cn}};
  static LDAPMod *add_mods[] = {&add_oc, &add_cn, &add_bin, nullptr}, *no_mods[] = {nullptr},
                 *mod_mods[] = {&repl_none, &add_bin, &add_str, nullptr};
  static LDAPControl ctrl = {s("1.2.3"), {0, nullptr}, 0}, *ctrls[] = {&ctrl, nullptr}, *empty[] = {nullptr};
  const std::string dn = "cn=x,dc=example,dc=com", bin5("a\0b\0c", 5);
  const std::string with_control =
      seq4(ldap_proto::kControls, seq4(ldap_proto::kSequence, str("1.2.3") + boolean(false)));
  auto change = [](int op, const std::string &type, const std::string &set) {
    return seq4(ldap_proto::kSequence,
                integer(op, ldap_proto::kEnumerated) + seq4(ldap_proto::kSequence, str(type) + set));
  };
  const std::tuple<const char *, std::function<int(LDAP *)>, std::string, std::string> cases[] = {
      {"add: string and binary values, operation bits ignored", [&](LDAP *ld) { return ldap_add_s(ld, dn.c_str(), add_mods); },
       seq4(ldap_proto::kAddRequest, str(dn) + seq4(ldap_proto::kSequence, seq4(ldap_proto::kSequence, str("objectClass") + set_of({"person"})) +
                                           seq4(ldap_proto::kSequence, str("cn") + set_of({"Jo", "Joe"})) +
                                           seq4(ldap_proto::kSequence, str("jpegPhoto") + set_of({bin5})))),
       ""},
      {"add: an empty list sends an empty attribute list", [&](LDAP *ld) { return ldap_add_s(ld, dn.c_str(), no_mods); },
       seq4(ldap_proto::kAddRequest, str(dn) + seq4(ldap_proto::kSequence, "")), ""},
      {"modify: replace without values, delete 0x81 sent as 1, add",
       [&](LDAP *ld) { return ldap_modify_s(ld, dn.c_str(), mod_mods); },
       seq4(ldap_proto::kModifyRequest, str(dn) + seq4(ldap_proto::kSequence, change(2, "description", set_of({})) + change(1, "jpegPhoto", set_of({bin5})) +
                                           change(0, "cn", set_of({"Jo", "Joe"})))),
       ""},
      {"delete: the DN is the primitive operation 0x4A", [&](LDAP *ld) { return ldap_delete_s(ld, dn.c_str()); },
       tlv(ldap_proto::kDeleteRequest, dn), ""},
      {"rename without new superior ends after the flag", [&](LDAP *ld) { return ldap_modrdn_s(ld, dn.c_str(), "cn=y", 1); },
       seq4(ldap_proto::kModDNRequest, str(dn) + str("cn=y") + boolean(true)), ""},
      {"rename with new superior adds [0] after the flag",
       [&](LDAP *ld) { return ldap_rename_s(ld, dn.c_str(), "cn=y", "ou=new", 0, nullptr, nullptr); },
       seq4(ldap_proto::kModDNRequest, str(dn) + str("cn=y") + boolean(false) + tlv(ldap_proto::kNewSuperior, "ou=new")), ""},
      {"server controls follow the operation", [&](LDAP *ld) { return ldap_delete_ext_s(ld, "cn=x", ctrls, nullptr); },
       tlv(ldap_proto::kDeleteRequest, "cn=x"), with_control},
      {"without server controls the session's defaults go out",
       [&](LDAP *ld) { return ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, ctrls) != 0 ? -1 : ldap_modrdn_s(ld, "cn=x", "cn=y", 0); },
       seq4(ldap_proto::kModDNRequest, str("cn=x") + str("cn=y") + boolean(false)), with_control},
      {"an empty list means none at all",
       [&](LDAP *ld) {
         return ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, ctrls) != 0 ? -1 : ldap_delete_ext_s(ld, "cn=x", empty, nullptr);
       },
       tlv(ldap_proto::kDeleteRequest, "cn=x"), ""}
  };
  for (const auto &[name, run, op, controls] : cases) {
    SCOPED_TRACE(name);
    Recorded r;
    EXPECT_EQ(run(r.ld), LDAP_SUCCESS);
    EXPECT_EQ(ldap_get_errno(r.ld), LDAP_SUCCESS);
    EXPECT_EQ(hex(r.request), hex(pdu(r.msgid, op, controls)));
  }
}

// Refusals come before any connection is opened: the port has no listener,
// so a request that got as far as sending would end in 81 instead.
TEST(UpdateRequests, RefusalsBeforeSendingAndFailuresAfter) {
  LDAP *ld = ldap_init("127.0.0.1", free_port());
  static LDAPMod *mods[] = {nullptr};
  static char *v[] = {s("x"), nullptr};
  static LDAPMod untyped = {LDAP_MOD_ADD, nullptr, {v}}, *bad[] = {&untyped, nullptr};
  static LDAPControl crit = {s("1.2.3.4"), {0, nullptr}, 1}, *cctrls[] = {&crit, nullptr};
  int id = 0;
  constexpr int kCrit = LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
  const std::pair<std::function<int()>, int> cases[] = {
      {[&] { return ldap_add_s(ld, nullptr, mods); }, LDAP_PARAM_ERROR},
      {[&] { return ldap_add_s(ld, "cn=x", nullptr); }, LDAP_PARAM_ERROR},
      {[&] { return ldap_add_ext(ld, "cn=x", mods, nullptr, nullptr, nullptr); }, LDAP_PARAM_ERROR},
      {[&] { return ldap_modify_s(ld, "cn=x", nullptr); }, LDAP_PARAM_ERROR},
      {[&] { return ldap_modify_ext(ld, nullptr, mods, nullptr, nullptr, &id); }, LDAP_PARAM_ERROR},
      {[&] { return ldap_delete_s(ld, nullptr); }, LDAP_PARAM_ERROR},
      {[&] { return ldap_rename(ld, "cn=x", nullptr, nullptr, 1, nullptr, nullptr, &id); }, LDAP_PARAM_ERROR},
      {[&] { return ldap_modrdn_s(ld, "cn=x", nullptr, 1); }, LDAP_PARAM_ERROR},
      {[&] { return ldap_add_ext_s(ld, "cn=x", mods, nullptr, cctrls); }, kCrit},
      {[&] { return ldap_modify_ext(ld, "cn=x", mods, nullptr, cctrls, &id); }, kCrit},
      {[&] { return ldap_delete_ext_s(ld, "cn=x", nullptr, cctrls); }, kCrit},
      {[&] { return ldap_rename_s(ld, "cn=x", "cn=y", nullptr, 1, nullptr, cctrls); }, kCrit},
      {[&] { return ldap_add(ld, nullptr, mods) == -1 ? LDAP_PARAM_ERROR : 0; }, LDAP_PARAM_ERROR},
      {[&] { return ldap_modify(ld, "cn=x", nullptr) == -1 ? LDAP_PARAM_ERROR : 0; }, LDAP_PARAM_ERROR},
      {[&] { return ldap_delete(ld, nullptr) == -1 ? LDAP_PARAM_ERROR : 0; }, LDAP_PARAM_ERROR},
      {[&] { return ldap_modrdn(ld, "cn=x", nullptr, 0) == -1 ? LDAP_PARAM_ERROR : 0; }, LDAP_PARAM_ERROR},
      // A modification without a type cannot be encoded; nothing is sent.
      {[&] { return ldap_add_ext(ld, "cn=x", bad, nullptr, nullptr, &id); }, LDAP_ENCODING_ERROR},
      {[&] { return ldap_modify_s(ld, "cn=x", bad); }, LDAP_ENCODING_ERROR},
      // Nobody listens: the send fails with 81 and the ID goes back to the table.
      {[&] { return ldap_delete_s(ld, "cn=x"); }, LDAP_SERVER_DOWN},
      {[&] { return ldap_modrdn(ld, "cn=x", "cn=y", 1) == -1 ? LDAP_SERVER_DOWN : 0; }, LDAP_SERVER_DOWN}};
  int i = 0;
  for (const auto &[run, code] : cases) {
    ldap_set_errno(ld, LDAP_OTHER, nullptr, nullptr);
    id = 7;
    EXPECT_EQ(run(), code) << "case " << i;
    EXPECT_EQ(ldap_get_errno(ld), code) << "case " << i++;
    EXPECT_TRUE(id == 7 || id == -1);  // an out message ID given is set to -1
  }
  EXPECT_EQ(ldap_add_s(nullptr, "cn=x", mods), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_modrdn(nullptr, "cn=x", "cn=y", 1), -1);
  // A connection without a message-ID table: 83, recorded except by add.
  LDAPConn *conn = get_default_connection(ld);
  ldap_msg_table *table = conn->lc_msgtable;
  conn->lc_msgtable = nullptr;
  ldap_set_errno(ld, LDAP_OTHER, nullptr, nullptr);
  EXPECT_EQ(ldap_add_ext_direct(ld, "cn=x", bad, nullptr, &id, nullptr), LDAP_ENCODING_ERROR);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_OTHER);
  EXPECT_EQ(ldap_delete_ext_direct(ld, "cn=x", nullptr, &id, nullptr), LDAP_ENCODING_ERROR);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_ENCODING_ERROR);
  conn->lc_msgtable = table;
  ldap_unbind(ld);
}

TEST(UpdateRequests, ModsFreeReleasesStringAndBinaryModifications) {
  auto **mods = static_cast<LDAPMod **>(calloc(3, sizeof(LDAPMod *)));
  for (int i = 0; i < 2; ++i) {
    mods[i] = static_cast<LDAPMod *>(calloc(1, sizeof(LDAPMod)));
    mods[i]->mod_op = i ? LDAP_MOD_REPLACE | LDAP_MOD_BVALUES : LDAP_MOD_ADD;
    mods[i]->mod_type = strdup("cn");
    mods[i]->mod_values = static_cast<char **>(calloc(2, sizeof(char *)));
  }
  mods[0]->mod_values[0] = static_cast<char *>(malloc(1 << 16));
  mods[1]->mod_bvalues[0] = static_cast<struct berval *>(calloc(1, sizeof(struct berval)));
  mods[1]->mod_bvalues[0]->bv_val = static_cast<char *>(malloc(1 << 16));
  const size_t in_use = heap_in_use();
  ldap_mods_free(mods, 1);
  EXPECT_GE(in_use - heap_in_use(), size_t{2} << 16) << "values not released";
  ldap_mods_free(nullptr, 1);
}

// Every allocation of a synchronous add fails once in turn: 90 while sending,
// 81 when reading had no memory (the wait then fails as for a broken socket),
// 84 when the result's strings could not be copied.
TEST(UpdateRequests, AllocationFailuresGiveTheirCodesAndLeakNothing) {
  static char *v[] = {s("x"), nullptr};
  static LDAPMod m = {LDAP_MOD_ADD, s("cn"), {v}}, *mods[] = {&m, nullptr};
  std::set<int> codes;
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 200);
    Recorded r;
    olx_fail_alloc_at(n);
    const int rc = ldap_add_s(r.ld, "cn=x", mods);
    if (olx_fail_alloc_at(0) < n) {
      EXPECT_EQ(rc, LDAP_SUCCESS);
      break;
    }
    codes.insert(rc);
  }
  EXPECT_EQ(codes, (std::set<int>{0, LDAP_SERVER_DOWN, LDAP_DECODING_ERROR, LDAP_NO_MEMORY}));
}

}  // namespace
