// Update requests as they reach the wire, byte for byte, and the failures the
// operations report before anything is sent.  A scripted server records each
// request and answers it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "fake_server.h"
#include "ldap-update.h"
#include "ldap-utils.h"
#include "ldap_requests.h"
#include "slapd_server.h"

using tavtest::FakeServer;

namespace {

// The encoder writes every SEQUENCE and SET with a 4-octet length.
std::string constructed(unsigned char tag, const std::string &content) {
  std::string out(1, static_cast<char>(tag));
  out += '\x84';
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((content.size() >> shift) & 0xFF);
  return out + content;
}
std::string primitive(unsigned char tag, const std::string &v) {
  return std::string(1, static_cast<char>(tag)) + static_cast<char>(v.size()) + v;
}
std::string octets(const std::string &v) { return primitive(0x04, v); }
std::string set_of(std::initializer_list<std::string> values) {
  std::string s;
  for (const auto &v : values) s += octets(v);
  return constructed(0x31, s);
}
std::string pdu(int msgid, const std::string &op, const std::string &controls = "") {
  return constructed(0x30, primitive(0x02, std::string(1, static_cast<char>(msgid))) + op + controls);
}

// A response whose LDAPResult carries a code, matched DN and message.
std::string response(int msgid, int type, int code, const std::string &matched = "", const std::string &text = "") {
  std::string result = primitive(0x0A, std::string(1, static_cast<char>(code))) + octets(matched) + octets(text);
  std::string op = std::string(1, static_cast<char>(type)) + static_cast<char>(result.size()) + result;
  std::string id = primitive(0x02, std::string(1, static_cast<char>(msgid)));
  return std::string("\x30", 1) + static_cast<char>(id.size() + op.size()) + id + op;
}

int response_type(const std::string &request) {
  // 30 84 LLLL 02 01 ID <tag>: the operation's tag follows the message ID.
  switch (static_cast<unsigned char>(request[9])) {
    case 0x66:
      return 0x67;
    case 0x68:
      return 0x69;
    case 0x4A:
      return 0x6B;
    case 0x6C:
      return 0x6D;
  }
  return 0x78;
}

// One session against a fake server that records the first request and
// answers it with `code`, matched DN and message.
struct Recorded {
  explicit Recorded(int code = 0, std::string matched = "", std::string text = "") {
    fake.on_request([=, this](const std::string &r) {
      request = r;
      msgid = tavtest::request_msgid(r);
      return response(msgid, response_type(r), code, matched, text);
    });
    fake.hold_until_closed();
    fake.start();
    ld = ldap_init("127.0.0.1", fake.port());
  }
  ~Recorded() {
    if (ld) ldap_unbind(ld);
  }
  FakeServer fake;
  LDAP *ld = nullptr;
  std::string request;
  int msgid = -1;
};

char *s(const char *text) { return const_cast<char *>(text); }

struct ShapeCase {
  const char *name;
  std::function<int(LDAP *)> run;
  std::function<std::string(int)> expected;
};

TEST(UpdateRequests, ShapesOnTheWire) {
  static char *cn[] = {s("Jo"), s("Joe"), nullptr};
  static char *ocs[] = {s("person"), nullptr};
  static struct berval bin = {5, s("a\0b\0c")};
  static struct berval *bins[] = {&bin, nullptr};
  // Add ignores the operation bits: only LDAP_MOD_BVALUES counts.
  static LDAPMod add_cn = {LDAP_MOD_REPLACE, s("cn"), {cn}};
  static LDAPMod add_oc = {LDAP_MOD_ADD, s("objectClass"), {ocs}};
  static LDAPMod add_bin = {LDAP_MOD_DELETE | LDAP_MOD_BVALUES, s("jpegPhoto"), {nullptr}};
  add_bin.mod_bvalues = bins;
  static LDAPMod *add_mods[] = {&add_oc, &add_cn, &add_bin, nullptr};
  static LDAPMod *no_mods[] = {nullptr};
  static LDAPMod repl_none = {LDAP_MOD_REPLACE, s("description"), {nullptr}};
  static LDAPMod del_bin = {LDAP_MOD_DELETE | LDAP_MOD_BVALUES, s("jpegPhoto"), {nullptr}};
  del_bin.mod_bvalues = bins;
  static LDAPMod add_str = {LDAP_MOD_ADD, s("cn"), {cn}};
  static LDAPMod *mod_mods[] = {&repl_none, &del_bin, &add_str, nullptr};
  const std::string dn = "cn=x,dc=example,dc=com";
  const ShapeCase cases[] = {
      {"add: string and binary values, operation bits ignored",
       [&](LDAP *ld) { return ldap_add_s(ld, dn.c_str(), add_mods); },
       [&](int id) {
         return pdu(
             id,
             constructed(
                 0x68, octets(dn) + constructed(0x30, constructed(0x30, octets("objectClass") + set_of({"person"})) +
                                                          constructed(0x30, octets("cn") + set_of({"Jo", "Joe"})) +
                                                          constructed(0x30, octets("jpegPhoto") +
                                                                                set_of({std::string("a\0b\0c", 5)})))));
       }},
      {"add: an empty list sends an empty attribute list",
       [&](LDAP *ld) { return ldap_add_s(ld, dn.c_str(), no_mods); },
       [&](int id) { return pdu(id, constructed(0x68, octets(dn) + constructed(0x30, ""))); }},
      {"modify: replace without values, delete 0x81 sent as 1, add",
       [&](LDAP *ld) { return ldap_modify_s(ld, dn.c_str(), mod_mods); },
       [&](int id) {
         auto change = [](int op, const std::string &type, const std::string &set) {
           return constructed(
               0x30, primitive(0x0A, std::string(1, static_cast<char>(op))) + constructed(0x30, octets(type) + set));
         };
         return pdu(id,
                    constructed(0x66, octets(dn) + constructed(0x30, change(2, "description", set_of({})) +
                                                                         change(1, "jpegPhoto",
                                                                                set_of({std::string("a\0b\0c", 5)})) +
                                                                         change(0, "cn", set_of({"Jo", "Joe"})))));
       }},
      {"delete: the DN is the primitive operation 0x4A", [&](LDAP *ld) { return ldap_delete_s(ld, dn.c_str()); },
       [&](int id) { return pdu(id, primitive(0x4A, dn)); }},
      {"rename without new superior ends after the flag",
       [&](LDAP *ld) { return ldap_modrdn_s(ld, dn.c_str(), "cn=y", 1); },
       [&](int id) {
         return pdu(id, constructed(0x6C, octets(dn) + octets("cn=y") + primitive(0x01, std::string(1, '\xFF'))));
       }},
      {"rename with new superior adds [0] after the flag",
       [&](LDAP *ld) { return ldap_rename_s(ld, dn.c_str(), "cn=y", "ou=new", 0, nullptr, nullptr); },
       [&](int id) {
         return pdu(id, constructed(0x6C, octets(dn) + octets("cn=y") + primitive(0x01, std::string(1, '\0')) +
                                              primitive(0x80, "ou=new")));
       }},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Recorded r;
    ASSERT_NE(r.ld, nullptr);
    EXPECT_EQ(c.run(r.ld), LDAP_SUCCESS);
    EXPECT_EQ(ldap_get_errno(r.ld), LDAP_SUCCESS);
    ASSERT_GT(r.msgid, 0);
    EXPECT_EQ(r.request, c.expected(r.msgid));
  }
}

TEST(UpdateRequests, ServerControlsFollowTheOperation) {
  static LDAPControl ctrl = {s("1.2.3"), {0, nullptr}, 0};
  static LDAPControl *ctrls[] = {&ctrl, nullptr};
  Recorded r;
  ASSERT_EQ(ldap_delete_ext_s(r.ld, "cn=x", ctrls, nullptr), LDAP_SUCCESS);
  EXPECT_EQ(r.request,
            pdu(r.msgid, primitive(0x4A, "cn=x"),
                constructed(0xA0, constructed(0x30, octets("1.2.3") + primitive(0x01, std::string(1, '\0'))))));
}

// Without server controls the session's defaults go out; an empty list
// means none at all.
TEST(UpdateRequests, SessionDefaultControlsStandInForAbsentOnes) {
  static LDAPControl ctrl = {s("1.2.3"), {0, nullptr}, 0};
  static LDAPControl *defaults[] = {&ctrl, nullptr};
  static LDAPControl *empty[] = {nullptr};
  const std::string with_control =
      constructed(0xA0, constructed(0x30, octets("1.2.3") + primitive(0x01, std::string(1, '\0'))));
  {
    Recorded r;
    ASSERT_EQ(ldap_set_option(r.ld, LDAP_OPT_SERVER_CONTROLS, defaults), LDAP_SUCCESS);
    ASSERT_EQ(ldap_modrdn_s(r.ld, "cn=x", "cn=y", 0), LDAP_SUCCESS);
    EXPECT_EQ(r.request,
              pdu(r.msgid, constructed(0x6C, octets("cn=x") + octets("cn=y") + primitive(0x01, std::string(1, '\0'))),
                  with_control));
  }
  {
    Recorded r;
    ASSERT_EQ(ldap_set_option(r.ld, LDAP_OPT_SERVER_CONTROLS, defaults), LDAP_SUCCESS);
    ASSERT_EQ(ldap_delete_ext_s(r.ld, "cn=x", empty, nullptr), LDAP_SUCCESS);
    EXPECT_EQ(r.request, pdu(r.msgid, primitive(0x4A, "cn=x")));
  }
}

TEST(UpdateRequests, ServerCodeMatchedDnAndMessageReachTheCaller) {
  Recorded r(LDAP_NO_SUCH_OBJECT, "dc=example,dc=com", "no such entry");
  EXPECT_EQ(ldap_delete_s(r.ld, "cn=gone,dc=example,dc=com"), LDAP_NO_SUCH_OBJECT);
  char *matched = nullptr, *text = nullptr;
  EXPECT_EQ(ldap_get_error_info(r.ld, &matched, &text), LDAP_NO_SUCH_OBJECT);
  EXPECT_STREQ(matched, "dc=example,dc=com");
  EXPECT_STREQ(text, "no such entry");
  free(matched);
  free(text);
}

TEST(UpdateRequests, AsynchronousFormsHandOutTheMessageId) {
  Recorded r(LDAP_ALREADY_EXISTS);
  static char *v[] = {s("x"), nullptr};
  static LDAPMod m = {LDAP_MOD_ADD, s("cn"), {v}};
  static LDAPMod *mods[] = {&m, nullptr};
  const int id = ldap_add(r.ld, "cn=x", mods);
  ASSERT_GT(id, 0);
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(r.ld, id, LDAP_MSG_ALL, nullptr, &res), 0x69);
  EXPECT_EQ(r.msgid, id);
  EXPECT_EQ(ldap_msgfree(res), 0x69);
}

// Refusals come before any connection is opened: the port has no listener,
// so a request that got as far as sending would end in 81 instead.
TEST(UpdateRequests, MissingArgumentsAndCriticalClientControlsAreRefused) {
  LDAP *ld = ldap_init("127.0.0.1", tavtest::free_port());
  ASSERT_NE(ld, nullptr);
  static LDAPMod *mods[] = {nullptr};
  static LDAPControl crit = {s("1.2.3.4"), {0, nullptr}, 1};
  static LDAPControl *cctrls[] = {&crit, nullptr};
  int id = 0;
  struct Case {
    const char *name;
    std::function<int()> run;
    int code;
  } cases[] = {
      {"add_s without DN", [&] { return ldap_add_s(ld, nullptr, mods); }, LDAP_PARAM_ERROR},
      {"add_s without list", [&] { return ldap_add_s(ld, "cn=x", nullptr); }, LDAP_PARAM_ERROR},
      {"add_ext without msgid pointer", [&] { return ldap_add_ext(ld, "cn=x", mods, nullptr, nullptr, nullptr); },
       LDAP_PARAM_ERROR},
      {"modify_s without list", [&] { return ldap_modify_s(ld, "cn=x", nullptr); }, LDAP_PARAM_ERROR},
      {"modify_ext without DN", [&] { return ldap_modify_ext(ld, nullptr, mods, nullptr, nullptr, &id); },
       LDAP_PARAM_ERROR},
      {"delete_s without DN", [&] { return ldap_delete_s(ld, nullptr); }, LDAP_PARAM_ERROR},
      {"rename without new RDN", [&] { return ldap_rename(ld, "cn=x", nullptr, nullptr, 1, nullptr, nullptr, &id); },
       LDAP_PARAM_ERROR},
      {"modrdn_s without new RDN", [&] { return ldap_modrdn_s(ld, "cn=x", nullptr, 1); }, LDAP_PARAM_ERROR},
      {"add_ext_s critical client control", [&] { return ldap_add_ext_s(ld, "cn=x", mods, nullptr, cctrls); },
       LDAP_UNAVAILABLE_CRITICAL_EXTENSION},
      {"modify_ext critical client control", [&] { return ldap_modify_ext(ld, "cn=x", mods, nullptr, cctrls, &id); },
       LDAP_UNAVAILABLE_CRITICAL_EXTENSION},
      {"delete_ext_s critical client control", [&] { return ldap_delete_ext_s(ld, "cn=x", nullptr, cctrls); },
       LDAP_UNAVAILABLE_CRITICAL_EXTENSION},
      {"rename_s critical client control",
       [&] { return ldap_rename_s(ld, "cn=x", "cn=y", nullptr, 1, nullptr, cctrls); },
       LDAP_UNAVAILABLE_CRITICAL_EXTENSION},
      {"classic add", [&] { return ldap_add(ld, nullptr, mods); }, -1},
      {"classic modify", [&] { return ldap_modify(ld, "cn=x", nullptr); }, -1},
      {"classic delete", [&] { return ldap_delete(ld, nullptr); }, -1},
      {"classic modrdn", [&] { return ldap_modrdn(ld, "cn=x", nullptr, 0); }, -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    ldap_set_errno(ld, LDAP_OTHER, nullptr, nullptr);
    id = 7;
    EXPECT_EQ(c.run(), c.code);
    EXPECT_EQ(ldap_get_errno(ld), c.code == -1 ? LDAP_PARAM_ERROR : c.code);
    // The out message ID is set to -1 whenever it is given.
    EXPECT_TRUE(id == 7 || id == -1);
  }
  EXPECT_EQ(ldap_add_s(nullptr, "cn=x", mods), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_modrdn(nullptr, "cn=x", "cn=y", 1), -1);
  ldap_unbind(ld);
}

// Failures after the arguments were accepted: what each returns and records.
TEST(UpdateRequests, EncodingAndConnectionFailures) {
  static char *v[] = {s("x"), nullptr};
  static LDAPMod untyped = {LDAP_MOD_ADD, nullptr, {v}};
  static LDAPMod *bad[] = {&untyped, nullptr};
  LDAP *ld = ldap_init("127.0.0.1", tavtest::free_port());
  ASSERT_NE(ld, nullptr);
  int id = 0;
  // A modification without a type cannot be encoded; nothing is sent.
  EXPECT_EQ(ldap_add_ext(ld, "cn=x", bad, nullptr, nullptr, &id), LDAP_ENCODING_ERROR);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_ENCODING_ERROR);
  EXPECT_EQ(id, -1);
  EXPECT_EQ(ldap_modify_s(ld, "cn=x", bad), LDAP_ENCODING_ERROR);
  // Nobody listens: the send fails with 81 and the ID goes back to the table.
  EXPECT_EQ(ldap_delete_s(ld, "cn=x"), LDAP_SERVER_DOWN);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_SERVER_DOWN);
  EXPECT_EQ(ldap_modrdn(ld, "cn=x", "cn=y", 1), -1);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_SERVER_DOWN);
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
  mods[0] = static_cast<LDAPMod *>(calloc(1, sizeof(LDAPMod)));
  mods[0]->mod_type = strdup("cn");
  mods[0]->mod_values = static_cast<char **>(calloc(2, sizeof(char *)));
  mods[0]->mod_values[0] = strdup("x");
  mods[1] = static_cast<LDAPMod *>(calloc(1, sizeof(LDAPMod)));
  mods[1]->mod_op = LDAP_MOD_REPLACE | LDAP_MOD_BVALUES;
  mods[1]->mod_type = strdup("jpegPhoto");
  mods[1]->mod_bvalues = static_cast<struct berval **>(calloc(2, sizeof(struct berval *)));
  mods[1]->mod_bvalues[0] = static_cast<struct berval *>(calloc(1, sizeof(struct berval)));
  mods[1]->mod_bvalues[0]->bv_val = static_cast<char *>(malloc(3));
  mods[1]->mod_bvalues[0]->bv_len = 3;
  ldap_mods_free(mods, 1);  // the sanitizer build checks nothing is left
  ldap_mods_free(nullptr, 1);
}

// Every allocation of a synchronous add fails once in turn: the documented
// code comes back and nothing leaks.
TEST(UpdateRequests, AllocationFailuresGiveTheirCodesAndLeakNothing) {
  static char *v[] = {s("x"), nullptr};
  static LDAPMod m = {LDAP_MOD_ADD, s("cn"), {v}};
  static LDAPMod *mods[] = {&m, nullptr};
  bool reached_end = false;
  int no_memory = 0;
  for (long n = 1; n < 200 && !reached_end; ++n) {
    SCOPED_TRACE(n);
    Recorded r;
    ASSERT_NE(r.ld, nullptr);
    // Open the connection first so the sweep covers the operation itself.
    ASSERT_EQ(ldap_get_errno(r.ld), LDAP_SUCCESS);
    olx_fail_alloc_at(n);
    const int rc = ldap_add_s(r.ld, "cn=x", mods);
    const long counted = olx_fail_alloc_at(0);
    reached_end = counted < n;
    no_memory += rc == LDAP_NO_MEMORY;
    // Some allocations only copy what the error record keeps; losing them
    // still leaves the operation's code intact.
    if (reached_end) {
      EXPECT_EQ(rc, LDAP_SUCCESS);
    } else {
      EXPECT_TRUE(rc == LDAP_SUCCESS || rc == LDAP_NO_MEMORY || rc == LDAP_SERVER_DOWN || rc == LDAP_LOCAL_ERROR ||
                  rc == LDAP_DECODING_ERROR)
          << rc;
    }
  }
  EXPECT_TRUE(reached_end);
  // The record, the element and the result's strings each failed in turn.
  EXPECT_GE(no_memory, 2);
}

}  // namespace
