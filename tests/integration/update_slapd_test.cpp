// Add, modify, rename and delete against the private slapd, each change read
// back with a search built on the engine.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ldap-update.h"
#include "ldap_requests.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

using Attrs = std::map<std::string, std::vector<std::string>>;

// The entry at `dn` (base search, all user attributes), or nullopt-like
// {"", {}} with found = false when the server has no such entry.
struct ReadBack {
  bool found = false;
  Attrs attrs;
};

ReadBack read_entry(LDAP *ld, const std::string &dn) {
  ReadBack out;
  int id = tavtest::send_search(ld, dn, 0);
  if (id < 0) return out;
  LDAPMessage *res = nullptr;
  if (ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res) <= 0) return out;
  for (LDAPMessage *m = res; m != nullptr; m = m->lm_chain) {
    if (m->lm_msgtype != 0x64) continue;
    out.found = true;
    BerElement *b = m->lm_ber;
    char *entry_dn = nullptr;
    ber_len_t len;
    char *end;
    if (fber_scanf(b, "{a", &entry_dn) == LBER_ERROR || fber_first_element(b, &len, &end) == LBER_DEFAULT) {
      free(entry_dn);
      break;
    }
    free(entry_dn);
    while (b->ber_ptr < end) {
      char *type = nullptr;
      struct berval **vals = nullptr;
      if (fber_scanf(b, "{a[V]}", &type, &vals) == LBER_ERROR) {
        free(type);
        break;
      }
      auto &list = out.attrs[type];
      for (struct berval **v = vals; v && *v; ++v) list.emplace_back((*v)->bv_val, (*v)->bv_len);
      free(type);
      fber_bvecfree(vals);
    }
  }
  ldap_msgfree(res);
  return out;
}

// A modification list built from strings; values may hold zero bytes and
// are always sent as counted values when `binary` is set.
class Mods {
 public:
  Mods &add(int op, const std::string &type, std::vector<std::string> values, bool binary = false) {
    auto &m = store_.emplace_back();
    m.type = type;
    m.values = std::move(values);
    m.op = op | (binary ? LDAP_MOD_BVALUES : 0);
    m.null_values = false;
    return *this;
  }
  Mods &none(int op, const std::string &type) {
    auto &m = store_.emplace_back();
    m.type = type;
    m.op = op;
    m.null_values = true;
    return *this;
  }
  LDAPMod **get() {
    mods_.clear();
    ptrs_.clear();
    for (auto &m : store_) {
      m.strs.clear();
      m.bvs.clear();
      m.bvptrs.clear();
      for (auto &v : m.values) {
        m.strs.push_back(v.data());
        m.bvs.push_back({v.size(), v.data()});
      }
      m.strs.push_back(nullptr);
      for (auto &bv : m.bvs) m.bvptrs.push_back(&bv);
      m.bvptrs.push_back(nullptr);
      LDAPMod mod{};
      mod.mod_op = m.op;
      mod.mod_type = m.type.data();
      if (m.null_values)
        mod.mod_values = nullptr;
      else if (m.op & LDAP_MOD_BVALUES)
        mod.mod_bvalues = m.bvptrs.data();
      else
        mod.mod_values = m.strs.data();
      mods_.push_back(mod);
    }
    for (auto &m : mods_) ptrs_.push_back(&m);
    ptrs_.push_back(nullptr);
    return ptrs_.data();
  }

 private:
  struct Item {
    int op;
    bool null_values;
    std::string type;
    std::vector<std::string> values;
    std::vector<char *> strs;
    std::vector<struct berval> bvs;
    std::vector<struct berval *> bvptrs;
  };
  std::vector<Item> store_;  // deque-like stability is not needed: get() rebuilds pointers
  std::vector<LDAPMod> mods_;
  std::vector<LDAPMod *> ptrs_;
};

Mods person(const std::string &cn) {
  Mods m;
  m.add(LDAP_MOD_ADD, "objectClass", {"inetOrgPerson"}).add(LDAP_MOD_ADD, "cn", {cn}).add(LDAP_MOD_ADD, "sn", {"Test"});
  return m;
}

std::string people(const std::string &rdn) { return rdn + "," + SlapdServer::kPeopleDn; }

class Update : public tavtest::SlapdSuite<Update> {
 public:
  static tavtest::SlapdOptions options() {
    tavtest::SlapdOptions options;
    // Without it slapd refuses anonymous updates with 8 before the access
    // rules are consulted; with it they come back as 50.
    options.global_config = "allow update_anon\n";
    return options;
  }

 protected:
  void SetUp() override {
    ASSERT_NE(slapd, nullptr);
    ld = ldap_init("127.0.0.1", slapd->port());
    ASSERT_NE(ld, nullptr);
    ASSERT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), LDAP_SUCCESS);
  }
  void TearDown() override {
    if (ld) ldap_unbind(ld);
  }
  LDAP *ld = nullptr;
};

TEST_F(Update, AddedEntryReadsBack) {
  const std::string dn = people("cn=Added One");
  Mods m = person("Added One");
  m.add(LDAP_MOD_ADD, "description", {"first", "second"}).add(LDAP_MOD_ADD, "mail", {"a@example.com"});
  ASSERT_EQ(ldap_add_s(ld, dn.c_str(), m.get()), LDAP_SUCCESS);
  ReadBack r = read_entry(ld, dn);
  ASSERT_TRUE(r.found);
  EXPECT_EQ(r.attrs["cn"], (std::vector<std::string>{"Added One"}));
  EXPECT_EQ(r.attrs["description"], (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(r.attrs["mail"], (std::vector<std::string>{"a@example.com"}));
  EXPECT_EQ(ldap_delete_s(ld, dn.c_str()), LDAP_SUCCESS);
  EXPECT_FALSE(read_entry(ld, dn).found);
}

TEST_F(Update, ModifyAddsDeletesAndReplacesValues) {
  const std::string dn = people("cn=Modified");
  ASSERT_EQ(ldap_add_s(ld, dn.c_str(), person("Modified").get()), LDAP_SUCCESS);
  struct Step {
    const char *name;
    Mods mods;
    const char *attr;
    std::vector<std::string> expected;  // empty: the attribute is gone
  };
  std::vector<Step> steps;
  steps.push_back(
      {"add two values", Mods().add(LDAP_MOD_ADD, "description", {"one", "two"}), "description", {"one", "two"}});
  steps.push_back({"delete one value", Mods().add(LDAP_MOD_DELETE, "description", {"one"}), "description", {"two"}});
  steps.push_back({"replace the values",
                   Mods().add(LDAP_MOD_REPLACE, "description", {"three", "four"}),
                   "description",
                   {"three", "four"}});
  steps.push_back({"replace without values removes the attribute",
                   Mods().none(LDAP_MOD_REPLACE, "description"),
                   "description",
                   {}});
  steps.push_back({"several changes in one request",
                   Mods()
                       .add(LDAP_MOD_ADD, "telephoneNumber", {"+1 555 0100"})
                       .add(LDAP_MOD_REPLACE, "sn", {"Changed"})
                       .none(LDAP_MOD_DELETE, "telephoneNumber")
                       .add(LDAP_MOD_ADD, "telephoneNumber", {"+1 555 0199"}),
                   "telephoneNumber",
                   {"+1 555 0199"}});
  for (auto &s : steps) {
    SCOPED_TRACE(s.name);
    ASSERT_EQ(ldap_modify_s(ld, dn.c_str(), s.mods.get()), LDAP_SUCCESS);
    ReadBack r = read_entry(ld, dn);
    ASSERT_TRUE(r.found);
    if (s.expected.empty()) {
      EXPECT_EQ(r.attrs.count(s.attr), 0u);
    } else {
      EXPECT_EQ(r.attrs[s.attr], s.expected);
    }
  }
  EXPECT_EQ(read_entry(ld, dn).attrs["sn"], (std::vector<std::string>{"Changed"}));
  EXPECT_EQ(ldap_delete_s(ld, dn.c_str()), LDAP_SUCCESS);
}

TEST_F(Update, BinaryValuesWithZeroBytesSurvive) {
  const std::string dn = people("cn=Binary");
  const std::string photo("\xFF\xD8\x00\x00\x01\x7F\x80\x00\xFF\xD9", 10);
  const std::string photo2("\x00", 1);
  Mods m = person("Binary");
  m.add(LDAP_MOD_ADD, "jpegPhoto", {photo}, true);
  ASSERT_EQ(ldap_add_s(ld, dn.c_str(), m.get()), LDAP_SUCCESS);
  EXPECT_EQ(read_entry(ld, dn).attrs["jpegPhoto"], (std::vector<std::string>{photo}));
  Mods change;
  change.add(LDAP_MOD_REPLACE, "jpegPhoto", {photo2, photo + photo}, true);
  ASSERT_EQ(ldap_modify_s(ld, dn.c_str(), change.get()), LDAP_SUCCESS);
  auto got = read_entry(ld, dn).attrs["jpegPhoto"];
  std::sort(got.begin(), got.end());
  std::vector<std::string> want = {photo2, photo + photo};
  std::sort(want.begin(), want.end());
  EXPECT_EQ(got, want);
  // Deleting one value with the binary flag (operation 0x81); jpegPhoto has
  // no equality rule, userPassword compares octet strings.
  const std::string pw1("pw\0one", 6), pw2("pw\0two", 6);
  Mods pw;
  pw.add(LDAP_MOD_ADD, "userPassword", {pw1, pw2}, true);
  ASSERT_EQ(ldap_modify_s(ld, dn.c_str(), pw.get()), LDAP_SUCCESS);
  Mods del;
  del.add(LDAP_MOD_DELETE, "userPassword", {pw1}, true);
  ASSERT_EQ(ldap_modify_s(ld, dn.c_str(), del.get()), LDAP_SUCCESS);
  EXPECT_EQ(read_entry(ld, dn).attrs["userPassword"], (std::vector<std::string>{pw2}));
  EXPECT_EQ(ldap_delete_s(ld, dn.c_str()), LDAP_SUCCESS);
}

TEST_F(Update, RenameWithinAParentAndToANewSuperior) {
  const std::string dn = people("cn=Before");
  Mods m = person("Before");
  ASSERT_EQ(ldap_add_s(ld, dn.c_str(), m.get()), LDAP_SUCCESS);
  // Keeping the old RDN leaves its value in the entry.
  ASSERT_EQ(ldap_modrdn_s(ld, dn.c_str(), "cn=After", 0), LDAP_SUCCESS);
  EXPECT_FALSE(read_entry(ld, dn).found);
  ReadBack kept = read_entry(ld, people("cn=After"));
  ASSERT_TRUE(kept.found);
  std::sort(kept.attrs["cn"].begin(), kept.attrs["cn"].end());
  EXPECT_EQ(kept.attrs["cn"], (std::vector<std::string>{"After", "Before"}));
  // Deleting the old RDN removes it.
  ASSERT_EQ(ldap_modrdn_s(ld, people("cn=After").c_str(), "cn=Again", 1), LDAP_SUCCESS);
  ReadBack again = read_entry(ld, people("cn=Again"));
  ASSERT_TRUE(again.found);
  std::sort(again.attrs["cn"].begin(), again.attrs["cn"].end());
  EXPECT_EQ(again.attrs["cn"], (std::vector<std::string>{"Again", "Before"}));
  // To a new superior, asynchronously: the response arrives on its own row.
  const std::string moved = "cn=Moved,ou=Groups,dc=example,dc=com";
  int id = -1;
  ASSERT_EQ(
      ldap_rename(ld, people("cn=Again").c_str(), "cn=Moved", "ou=Groups,dc=example,dc=com", 1, nullptr, nullptr, &id),
      LDAP_SUCCESS);
  ASSERT_GT(id, 0);
  LDAPMessage *res = nullptr;
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), 0x6D);
  EXPECT_EQ(ldap_result2error(ld, res, 1), LDAP_SUCCESS);
  EXPECT_FALSE(read_entry(ld, people("cn=Again")).found);
  ReadBack r = read_entry(ld, moved);
  ASSERT_TRUE(r.found);
  // The value kept by the first rename stays; "Again" went with deleteoldrdn.
  std::sort(r.attrs["cn"].begin(), r.attrs["cn"].end());
  EXPECT_EQ(r.attrs["cn"], (std::vector<std::string>{"Before", "Moved"}));
  EXPECT_EQ(ldap_delete_s(ld, moved.c_str()), LDAP_SUCCESS);
}

TEST_F(Update, ServerRefusalsComeBackWithMatchedDnAndMessage) {
  const std::string existing = SlapdServer::user_dn(1);
  LDAP *anon = ldap_init("127.0.0.1", slapd->port());
  ASSERT_NE(anon, nullptr);
  LDAP *user = ldap_init("127.0.0.1", slapd->port());
  ASSERT_NE(user, nullptr);
  ASSERT_EQ(ldap_simple_bind_s(user, SlapdServer::user_dn(1).c_str(), SlapdServer::user_password(1).c_str()),
            LDAP_SUCCESS);
  Mods good = person("Refused");
  Mods no_sn;
  no_sn.add(LDAP_MOD_ADD, "objectClass", {"person"}).add(LDAP_MOD_ADD, "cn", {"Refused"});
  Mods bad_attr;
  bad_attr.add(LDAP_MOD_ADD, "description", {"x"});
  struct Case {
    const char *name;
    std::function<int()> run;
    LDAP *on;
    int code;
    const char *matched;  // null: not checked
    bool message;         // the server explains itself
  } cases[] = {
      {"add under a missing parent", [&] { return ldap_add_s(ld, "cn=X,ou=Nowhere,dc=example,dc=com", good.get()); },
       ld, LDAP_NO_SUCH_OBJECT, SlapdServer::kSuffix, false},
      {"modify a missing entry", [&] { return ldap_modify_s(ld, people("cn=Nobody").c_str(), bad_attr.get()); }, ld,
       LDAP_NO_SUCH_OBJECT, SlapdServer::kPeopleDn, false},
      {"delete a missing entry", [&] { return ldap_delete_s(ld, "cn=Nobody,ou=Nowhere,dc=example,dc=com"); }, ld,
       LDAP_NO_SUCH_OBJECT, SlapdServer::kSuffix, false},
      {"rename a missing entry", [&] { return ldap_modrdn_s(ld, people("cn=Nobody").c_str(), "cn=Other", 1); }, ld,
       LDAP_NO_SUCH_OBJECT, SlapdServer::kPeopleDn, false},
      {"add an existing entry", [&] { return ldap_add_s(ld, existing.c_str(), good.get()); }, ld, LDAP_ALREADY_EXISTS,
       "", false},
      {"add without a required attribute", [&] { return ldap_add_s(ld, people("cn=Refused").c_str(), no_sn.get()); },
       ld, LDAP_OBJECT_CLASS_VIOLATION, "", true},
      {"delete an entry with children", [&] { return ldap_delete_s(ld, SlapdServer::kPeopleDn); }, ld,
       LDAP_NOT_ALLOWED_ON_NONLEAF, "", true},
      {"anonymous add", [&] { return ldap_add_s(anon, people("cn=Refused").c_str(), good.get()); }, anon,
       LDAP_INSUFFICIENT_ACCESS, nullptr, true},
      {"anonymous delete", [&] { return ldap_delete_s(anon, existing.c_str()); }, anon, LDAP_INSUFFICIENT_ACCESS,
       nullptr, true},
      {"a user adds beside itself", [&] { return ldap_add_s(user, people("cn=Refused").c_str(), good.get()); }, user,
       LDAP_INSUFFICIENT_ACCESS, nullptr, true},
      {"a user renames another", [&] { return ldap_modrdn_s(user, SlapdServer::user_dn(2).c_str(), "uid=x", 1); }, user,
       LDAP_INSUFFICIENT_ACCESS, nullptr, true},
      {"missing DN", [&] { return ldap_delete_s(ld, nullptr); }, ld, LDAP_PARAM_ERROR, nullptr, false},
      {"missing modifications", [&] { return ldap_modify_s(ld, existing.c_str(), nullptr); }, ld, LDAP_PARAM_ERROR,
       nullptr, false},
      {"missing new RDN", [&] { return ldap_modrdn_s(ld, existing.c_str(), nullptr, 1); }, ld, LDAP_PARAM_ERROR,
       nullptr, false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.run(), c.code);
    char *matched = nullptr, *text = nullptr;
    EXPECT_EQ(ldap_get_error_info(c.on, &matched, &text), c.code);
    if (c.matched != nullptr) {
      EXPECT_STREQ(matched ? matched : "", c.matched);
    }
    if (c.message) {
      EXPECT_NE(std::string(text ? text : ""), "");
    }
    free(matched);
    free(text);
  }
  // The user entry is untouched by all of it.
  EXPECT_TRUE(read_entry(ld, existing).found);
  ldap_unbind(anon);
  ldap_unbind(user);
}

TEST_F(Update, CriticalClientControlIsRefusedAndNothingChanges) {
  LDAPControl crit = {const_cast<char *>("1.3.6.1.4.1.4203.1.10.1"), {0, nullptr}, 1};
  LDAPControl *cctrls[] = {&crit, nullptr};
  const std::string dn = people("cn=Critical");
  EXPECT_EQ(ldap_add_ext_s(ld, dn.c_str(), person("Critical").get(), nullptr, cctrls),
            LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
  EXPECT_EQ(ldap_delete_ext_s(ld, SlapdServer::user_dn(2).c_str(), nullptr, cctrls),
            LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
  EXPECT_FALSE(read_entry(ld, dn).found);
  EXPECT_TRUE(read_entry(ld, SlapdServer::user_dn(2)).found);
  // A non-critical client control is ignored.
  crit.ldctl_iscritical = 0;
  EXPECT_EQ(ldap_add_ext_s(ld, dn.c_str(), person("Critical").get(), nullptr, cctrls), LDAP_SUCCESS);
  EXPECT_EQ(ldap_delete_s(ld, dn.c_str()), LDAP_SUCCESS);
}

}  // namespace
