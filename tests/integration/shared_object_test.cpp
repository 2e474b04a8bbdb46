// The shared object's boundary as a program that loads it sees it: exactly the
// designed names in its dynamic symbol table, all at version tav8, and every
// export forwarding to the operation behind it.
#include "shared_object.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "fake_server.h"
#include "process.h"
#include "slapd_suite.h"

using tavtest::SharedObject;
using tavtest::SlapdServer;

namespace {

// Written out here, not derived from the build: a dropped or extra export fails.
const std::set<std::string> kExports = {
    "tav_ldap_init",           "tav_ldap_simple_bind_s",  "tav_ldap_search_st",       "tav_ldap_url_parse",
    "tav_ldap_free_urldesc",   "tav_ldap_count_entries",  "tav_ldap_add_s",           "tav_ldap_delete_s",
    "tav_ldap_modify_s",       "tav_ldap_modrdn_s",       "tav_ldap_first_entry",     "tav_ldap_next_entry",
    "tav_ldap_get_dn",         "tav_ldap_memfree",        "tav_ldap_first_attribute", "tav_ldap_next_attribute",
    "tav_ldap_get_values_len", "tav_ldap_value_free_len", "tav_ldap_get_errno",       "tav_ldap_ber_free",
    "tav_ldap_msgfree",        "tav_ldap_err2string",     "tav_ldap_set_option",      "tav_ldap_unbind",
    "tavldap_loaded_from",     "tavldap_SCCSInfo",        "tavldap_Copyright"};

}  // namespace

TEST(SharedObject, DynamicSymbolsAreExactlyTheDesignedNamesAtTav8) {
  auto r = tavtest::run_process({"/usr/bin/readelf", "--dyn-syms", "--wide", TAV_SHARED_OBJECT});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::map<std::string, std::string> defined;  // name -> version suffix
  for (const auto &line : tavtest::split_lines(r.out)) {
    std::istringstream f(line);
    std::string num, value, size, type, bind, vis, ndx, name;
    if (!(f >> num >> value >> size >> type >> bind >> vis >> ndx >> name) || num == "Num:" || ndx == "UND" ||
        bind == "LOCAL")
      continue;
    size_t at = name.find('@');
    defined[name.substr(0, at)] = at == std::string::npos ? "" : name.substr(at);
  }
  // The version definition's own absolute symbol.
  ASSERT_EQ(defined.count("tav8"), 1u);
  defined.erase("tav8");
  std::set<std::string> names;
  for (const auto &[name, version] : defined) {
    names.insert(name);
    EXPECT_EQ(version, "@@tav8") << name;
  }
  EXPECT_EQ(names, kExports);
}

class Exports : public tavtest::SlapdSuite<Exports> {};

// One row per export, in an order that builds on the earlier rows: each row
// calls its export and checks that the operation's result came back.
TEST_F(Exports, EveryExportForwardsToItsOperation) {
  SharedObject so;
  ASSERT_TRUE(so.loaded()) << dlerror();
  LDAP *s = nullptr;
  LDAPMessage *res = nullptr, *entry = nullptr;
  BerElement *cursor = nullptr;
  char *attr = nullptr;
  struct berval **vals = nullptr;
  const std::string dn = std::string("cn=Shared,") + SlapdServer::kPeopleDn,
                    moved = std::string("cn=Moved,") + SlapdServer::kPeopleDn;
  std::set<std::string> attrs_seen;
  char t_oc[] = "objectClass", t_cn[] = "cn", t_sn[] = "sn", t_photo[] = "jpegPhoto", oc[] = "inetOrgPerson",
       cn[] = "Shared";
  char *ocs[] = {oc, nullptr}, *cns[] = {cn, nullptr};
  char photo_bytes[] = {'\x00', '\x01', '\x00'};
  struct berval photo = {sizeof photo_bytes, photo_bytes}, *photos[] = {&photo, nullptr};
  LDAPMod m_oc = {LDAP_MOD_ADD, t_oc, {ocs}}, m_cn = {LDAP_MOD_ADD, t_cn, {cns}}, m_sn = {LDAP_MOD_ADD, t_sn, {cns}};
  LDAPMod m_photo = {LDAP_MOD_ADD | LDAP_MOD_BVALUES, t_photo, {nullptr}};
  m_photo.mod_bvalues = photos;
  LDAPMod *add[] = {&m_oc, &m_cn, &m_sn, &m_photo, nullptr}, *replace_sn[] = {&m_sn, nullptr};

  using Row = std::pair<const char *, std::function<void(void *)>>;
  const Row rows[] = {
      {"tav_ldap_init",
       [&](void *f) {
         auto init = reinterpret_cast<LDAP *(*)(const char *, int)>(f);
         EXPECT_EQ(init("", 0), nullptr);
         EXPECT_EQ(init("h", -1), nullptr);
         ASSERT_NE(s = init("127.0.0.1", slapd->port()), nullptr);
       }},
      {"tav_ldap_set_option",
       [&](void *f) {
         auto set_option = reinterpret_cast<int (*)(LDAP *, int, const void *)>(f);
         int deref = 4, limit = 1;
         EXPECT_EQ(set_option(s, LDAP_OPT_DEREF, &deref), LDAP_PARAM_ERROR);
         EXPECT_EQ(set_option(nullptr, LDAP_OPT_SIZELIMIT, &limit), 0);
       }},
      {"tav_ldap_get_errno",
       [&](void *f) {
         auto get_errno = reinterpret_cast<int (*)(LDAP *)>(f);
         EXPECT_EQ(get_errno(s), LDAP_PARAM_ERROR);  // left by the refused option
         EXPECT_EQ(get_errno(nullptr), -1);
       }},
      {"tav_ldap_err2string",
       [&](void *f) {
         auto err2string = reinterpret_cast<char *(*)(int)>(f);
         EXPECT_STREQ(err2string(LDAP_SERVER_DOWN), "Can't contact LDAP server");
         EXPECT_STREQ(err2string(-1), "Unknown error");
       }},
      {"tav_ldap_url_parse",
       [&](void *f) {
         auto url_parse = reinterpret_cast<int (*)(const char *, LDAPURLDesc **)>(f);
         LDAPURLDesc *lud = reinterpret_cast<LDAPURLDesc *>(1);
         EXPECT_EQ(url_parse("ldapx://h", &lud), LDAP_URL_ERR_NOTLDAP);
         EXPECT_EQ(lud, nullptr);
         ASSERT_EQ(url_parse("ldaps://[::1]/o=x?cn?one", &lud), 0);
         EXPECT_STREQ(lud->lud_host, "::1");
         EXPECT_EQ(lud->lud_port, 636);
         EXPECT_EQ(lud->lud_scope, LDAP_SCOPE_ONELEVEL);
         so.fn<void (*)(LDAPURLDesc *)>("tav_ldap_free_urldesc")(lud);
       }},
      {"tav_ldap_free_urldesc", [&](void *f) { reinterpret_cast<void (*)(LDAPURLDesc *)>(f)(nullptr); }},
      {"tav_ldap_simple_bind_s",
       [&](void *f) {
         auto bind = reinterpret_cast<int (*)(LDAP *, const char *, const char *)>(f);
         EXPECT_EQ(bind(s, SlapdServer::kRootDn, "wrong"), LDAP_INVALID_CREDENTIALS);
         EXPECT_EQ(bind(s, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
       }},
      {"tav_ldap_add_s",
       [&](void *f) {
         auto add_s = reinterpret_cast<int (*)(LDAP *, const char *, LDAPMod **)>(f);
         EXPECT_EQ(add_s(s, dn.c_str(), add), 0);
         EXPECT_EQ(add_s(s, dn.c_str(), add), LDAP_ALREADY_EXISTS);
         EXPECT_EQ(add_s(s, nullptr, add), LDAP_PARAM_ERROR);
       }},
      {"tav_ldap_modify_s",
       [&](void *f) {
         auto modify_s = reinterpret_cast<int (*)(LDAP *, const char *, LDAPMod **)>(f);
         m_sn.mod_op = LDAP_MOD_REPLACE;
         EXPECT_EQ(modify_s(s, dn.c_str(), replace_sn), 0);
         EXPECT_EQ(modify_s(s, ("cn=None," + std::string(SlapdServer::kPeopleDn)).c_str(), replace_sn),
                   LDAP_NO_SUCH_OBJECT);
       }},
      {"tav_ldap_modrdn_s",
       [&](void *f) {
         auto modrdn_s = reinterpret_cast<int (*)(LDAP *, const char *, const char *, int)>(f);
         EXPECT_EQ(modrdn_s(s, dn.c_str(), nullptr, 0), LDAP_PARAM_ERROR);
         EXPECT_EQ(modrdn_s(s, dn.c_str(), "cn=Moved", 1), 0);
       }},
      {"tav_ldap_search_st",
       [&](void *f) {
         auto search_st = reinterpret_cast<int (*)(LDAP *, const char *, int, const char *, char **, int,
                                                   struct timeval *, LDAPMessage **)>(f);
         char a_cn[] = "cn", a_photo[] = "jpegPhoto", *attrs[] = {a_cn, a_photo, nullptr};
         struct timeval tv = {10, 0};
         EXPECT_EQ(search_st(s, moved.c_str(), 3, "(cn=*)", attrs, 0, &tv, &res), LDAP_PARAM_ERROR);
         ASSERT_EQ(search_st(s, SlapdServer::kPeopleDn, 1, "(cn=Moved)", attrs, 0, &tv, &res), 0);
         ASSERT_NE(res, nullptr);
         // The time-out arrives too: a server that never answers times out.
         tavtest::FakeServer silent;
         silent.hold_until_closed();
         silent.start();
         LDAP *other = so.fn<LDAP *(*)(const char *, int)>("tav_ldap_init")("127.0.0.1", silent.port());
         struct timeval short_wait = {0, 200000};
         LDAPMessage *none = reinterpret_cast<LDAPMessage *>(1);
         EXPECT_EQ(search_st(other, "o=x", 0, "(a=1)", nullptr, 0, &short_wait, &none), LDAP_TIMEOUT);
         EXPECT_EQ(none, nullptr);
         so.fn<int (*)(LDAP *)>("tav_ldap_unbind")(other);
       }},
      {"tav_ldap_count_entries",
       [&](void *f) {
         auto count = reinterpret_cast<int (*)(LDAP *, LDAPMessage *)>(f);
         EXPECT_EQ(count(s, res), 1);
         EXPECT_EQ(count(nullptr, res), -1);
       }},
      {"tav_ldap_first_entry",
       [&](void *f) {
         ASSERT_NE(entry = reinterpret_cast<LDAPMessage *(*)(LDAP *, LDAPMessage *)>(f)(s, res), nullptr);
       }},
      {"tav_ldap_next_entry",
       [&](void *f) { EXPECT_EQ(reinterpret_cast<LDAPMessage *(*)(LDAP *, LDAPMessage *)>(f)(s, entry), nullptr); }},
      {"tav_ldap_get_dn",
       [&](void *f) {
         char *got = reinterpret_cast<char *(*)(LDAP *, LDAPMessage *)>(f)(s, entry);
         EXPECT_STREQ(got, moved.c_str());
         free(got);
       }},
      {"tav_ldap_first_attribute",
       [&](void *f) {
         attr = reinterpret_cast<char *(*)(LDAP *, LDAPMessage *, BerElement **)>(f)(s, entry, &cursor);
         ASSERT_NE(attr, nullptr);
         attrs_seen.insert(attr);
       }},
      {"tav_ldap_get_values_len",
       [&](void *f) {
         vals = reinterpret_cast<struct berval **(*)(LDAP *, LDAPMessage *, const char *)>(f)(s, entry, "JPEGPHOTO");
         ASSERT_NE(vals, nullptr);
         EXPECT_EQ(std::string(vals[0]->bv_val, vals[0]->bv_len), std::string(photo_bytes, 3));
         EXPECT_EQ(vals[1], nullptr);
       }},
      {"tav_ldap_value_free_len", [&](void *f) { reinterpret_cast<void (*)(struct berval **)>(f)(vals); }},
      {"tav_ldap_next_attribute",
       [&](void *f) {
         auto next = reinterpret_cast<char *(*)(LDAP *, LDAPMessage *, BerElement *)>(f);
         free(attr);
         attr = next(s, entry, cursor);
         ASSERT_NE(attr, nullptr);
         attrs_seen.insert(attr);
         free(attr);
         EXPECT_EQ(next(s, entry, cursor), nullptr);
         EXPECT_EQ(attrs_seen, (std::set<std::string>{"cn", "jpegPhoto"}));
       }},
      {"tav_ldap_ber_free",
       [&](void *f) {
         auto ber_free = reinterpret_cast<void (*)(BerElement *)>(f);
         ber_free(cursor);
         ber_free(nullptr);
         void *block = malloc(1 << 16);
         const size_t before = tavtest::heap_in_use();
         ber_free(static_cast<BerElement *>(block));
         EXPECT_GE(before - tavtest::heap_in_use(), size_t{1} << 16) << "the block was not released";
       }},
      {"tav_ldap_memfree",
       [&](void *f) {
         auto memfree = reinterpret_cast<void (*)(void *)>(f);
         memfree(nullptr);
         void *block = malloc(1 << 16);
         const size_t before = tavtest::heap_in_use();
         memfree(block);
         EXPECT_GE(before - tavtest::heap_in_use(), size_t{1} << 16) << "the block was not released";
       }},
      {"tav_ldap_msgfree",
       [&](void *f) {
         auto msgfree = reinterpret_cast<int (*)(LDAPMessage *)>(f);
         EXPECT_EQ(msgfree(res), 0x65);
         EXPECT_EQ(msgfree(nullptr), 0);
       }},
      {"tav_ldap_delete_s",
       [&](void *f) {
         auto delete_s = reinterpret_cast<int (*)(LDAP *, const char *)>(f);
         EXPECT_EQ(delete_s(s, moved.c_str()), 0);
         EXPECT_EQ(delete_s(s, moved.c_str()), LDAP_NO_SUCH_OBJECT);
       }},
      {"tav_ldap_unbind",
       [&](void *f) {
         auto unbind = reinterpret_cast<int (*)(LDAP *)>(f);
         EXPECT_EQ(unbind(s), 0);
         EXPECT_EQ(unbind(nullptr), LDAP_PARAM_ERROR);
       }},
      {"tavldap_loaded_from",
       [&](void *f) {
         char canonical[PATH_MAX];
         ASSERT_NE(realpath(TAV_SHARED_OBJECT, canonical), nullptr);
         char *path = reinterpret_cast<char *(*)(void)>(f)();
         EXPECT_STREQ(path, canonical);
         free(path);
       }},
      {"tavldap_SCCSInfo",
       [&](void *f) {
         auto lines = tavtest::split_lines(static_cast<const char *>(f));
         EXPECT_GE(lines.size(), 6u);
         for (const auto &l : lines) EXPECT_TRUE(l.rfind("@(#)", 0) == 0 && l.find(": ") != std::string::npos) << l;
       }},
      {"tavldap_Copyright", [&](void *f) { EXPECT_GT(strlen(static_cast<const char *>(f)), 0u); }}};
  std::set<std::string> covered;
  for (const auto &[name, check] : rows) {
    SCOPED_TRACE(name);
    void *f = so.symbol(name);
    ASSERT_NE(f, nullptr);
    ASSERT_NO_FATAL_FAILURE(check(f));
    covered.insert(name);
  }
  EXPECT_EQ(covered, kExports);
}

// Through a symbolic link the canonical file is named; a path too long for the
// 1024-byte buffers gives null rather than a cut name.
TEST(SharedObject, LoadedFromNamesTheCanonicalFileOrNothing) {
  tavtest::TempDir dir;
  const std::string link = dir.file("libalias.so");
  ASSERT_EQ(symlink(TAV_SHARED_OBJECT, link.c_str()), 0);
  std::string deep = dir.path();
  while (deep.size() < 1100) {
    deep += "/" + std::string(200, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
  }
  ASSERT_EQ(tavtest::run_process({"/bin/cp", TAV_SHARED_OBJECT, deep + "/lib.so"}).exit_code, 0);
  char canonical[PATH_MAX];
  ASSERT_NE(realpath(TAV_SHARED_OBJECT, canonical), nullptr);
  for (const auto &[path, want] :
       {std::pair<std::string, const char *>{link, canonical}, {deep + "/lib.so", nullptr}}) {
    SharedObject so(path);
    ASSERT_TRUE(so.loaded()) << dlerror();
    char *got = so.fn<char *(*)(void)>("tavldap_loaded_from")();
    EXPECT_STREQ(got, want);
    free(got);
  }
}
