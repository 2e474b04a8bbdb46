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
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "fake_server.h"
#include "ldap-protocol.h"
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
    "tav_ldap_url_search_st",  "tavldap_loaded_from",     "tavldap_SCCSInfo",        "tavldap_Copyright"};

int rebinds = 0;
int rebind_as_root(LDAP *, char **dn, char **pw, int *method, int freeit) {
  if (freeit) return 0;  // the strings are literals
  ++rebinds;
  *dn = const_cast<char *>(SlapdServer::kRootDn);
  *pw = const_cast<char *>(SlapdServer::kRootPw);
  *method = LDAP_AUTH_SIMPLE;
  return 0;
}

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

template <typename F>
F as(void *f) {
  return reinterpret_cast<F>(f);
}

class Exports : public tavtest::SlapdSuite<Exports> {};

// One row per export, in an order that builds on the earlier rows: each calls
// its export and checks that the operation's result, failures included,
// comes back unchanged.
TEST_F(Exports, EveryExportForwardsToItsOperation) {
  SharedObject so;
  ASSERT_TRUE(so.loaded()) << dlerror();
  LDAP *s = nullptr;
  LDAPMessage *res = nullptr, *entry = nullptr;
  BerElement *cursor = nullptr;
  struct berval **vals = nullptr;
  std::string attrs_seen;
  const std::string dn = std::string("cn=Shared,") + SlapdServer::kPeopleDn, moved = "cn=Moved," + dn.substr(10);
  char t_oc[] = "objectClass", t_cn[] = "cn", t_photo[] = "jpegPhoto", oc[] = "inetOrgPerson", t_sn[] = "sn",
       cn[] = "Shared";
  char *ocs[] = {oc, nullptr}, *cns[] = {cn, nullptr}, photo_bytes[] = {'\x00', '\x01', '\x00'};
  struct berval photo = {sizeof photo_bytes, photo_bytes}, *photos[] = {&photo, nullptr};
  LDAPMod m_oc = {LDAP_MOD_ADD, t_oc, {ocs}}, m_cn = {LDAP_MOD_ADD, t_cn, {cns}}, m_sn = {LDAP_MOD_ADD, t_sn, {cns}},
          m_photo = {LDAP_MOD_ADD | LDAP_MOD_BVALUES, t_photo, {reinterpret_cast<char **>(photos)}};
  LDAPMod *add[] = {&m_oc, &m_cn, &m_sn, nullptr}, *add_photo[] = {&m_photo, nullptr};
  char a_cn[] = "cn", *attrs[] = {a_cn, t_photo, nullptr};
  struct timeval tv = {10, 0}, short_wait = {0, 200000};
  using Search = int (*)(LDAP *, const char *, int, const char *, char **, int, struct timeval *, LDAPMessage **);
  using Next = char *(*)(LDAP *, LDAPMessage *, BerElement *);
  int deref = 4;
  const std::pair<const char *, std::function<void(void *)>> rows[] = {
      {"tav_ldap_init",
       [&](void *f) {
         EXPECT_EQ(as<LDAP *(*)(const char *, int)>(f)("h", -1), nullptr);
         ASSERT_NE(s = as<LDAP *(*)(const char *, int)>(f)("127.0.0.1", slapd->port()), nullptr);
       }},
      {"tav_ldap_set_option",
       [&](void *f) { EXPECT_EQ(as<int (*)(LDAP *, int, const void *)>(f)(s, LDAP_OPT_DEREF, &deref), LDAP_PARAM_ERROR); }},
      {"tav_ldap_get_errno", [&](void *f) { EXPECT_EQ(as<int (*)(LDAP *)>(f)(s), LDAP_PARAM_ERROR); }},
      {"tav_ldap_err2string", [&](void *f) { EXPECT_STREQ(as<char *(*)(int)>(f)(81), "Can't contact LDAP server"); }},
      {"tav_ldap_url_parse",
       [&](void *f) {
         LDAPURLDesc *lud = nullptr;
         ASSERT_EQ(as<int (*)(const char *, LDAPURLDesc **)>(f)("ldaps://[::1]/o=x?cn?one", &lud), 0);
         EXPECT_EQ(std::make_tuple(std::string(lud->lud_host), lud->lud_port, lud->lud_scope),
                   std::make_tuple(std::string("::1"), 636, LDAP_SCOPE_ONELEVEL));
         so.fn<void (*)(LDAPURLDesc *)>("tav_ldap_free_urldesc")(lud);
       }},
      {"tav_ldap_free_urldesc", [&](void *f) { as<void (*)(LDAPURLDesc *)>(f)(nullptr); }},
      {"tav_ldap_simple_bind_s",
       [&](void *f) {
         auto bind = as<int (*)(LDAP *, const char *, const char *)>(f);
         EXPECT_EQ(bind(s, SlapdServer::kRootDn, "wrong"), LDAP_INVALID_CREDENTIALS);
         EXPECT_EQ(bind(s, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
       }},
      {"tav_ldap_add_s",
       [&](void *f) {
         EXPECT_EQ(as<int (*)(LDAP *, const char *, LDAPMod **)>(f)(s, dn.c_str(), add), 0);
         EXPECT_EQ(as<int (*)(LDAP *, const char *, LDAPMod **)>(f)(s, dn.c_str(), add), LDAP_ALREADY_EXISTS);
       }},
      {"tav_ldap_modify_s",
       [&](void *f) { EXPECT_EQ(as<int (*)(LDAP *, const char *, LDAPMod **)>(f)(s, dn.c_str(), add_photo), 0); }},
      {"tav_ldap_modrdn_s",
       [&](void *f) { EXPECT_EQ(as<int (*)(LDAP *, const char *, const char *, int)>(f)(s, dn.c_str(), "cn=Moved", 1), 0); }},
      {"tav_ldap_search_st",
       [&](void *f) {
         EXPECT_EQ(as<Search>(f)(s, moved.c_str(), 3, "(cn=*)", attrs, 0, &tv, &res), LDAP_PARAM_ERROR);
         ASSERT_EQ(as<Search>(f)(s, SlapdServer::kPeopleDn, 1, "(cn=Moved)", attrs, 0, &tv, &res), 0);
         // The time-out arrives too: a server that never answers times out.
         tavtest::FakeServer silent;
         silent.hold_until_closed().start();
         LDAP *other = so.fn<LDAP *(*)(const char *, int)>("tav_ldap_init")("127.0.0.1", silent.port());
         LDAPMessage *none = reinterpret_cast<LDAPMessage *>(1);
         EXPECT_EQ(as<Search>(f)(other, "o=x", 0, "(a=1)", nullptr, 0, &short_wait, &none), LDAP_TIMEOUT);
         EXPECT_EQ(none, nullptr);
         so.fn<int (*)(LDAP *)>("tav_ldap_unbind")(other);
       }},
      {"tav_ldap_url_search_st",
       [&](void *f) {
         using UrlSearch = int (*)(LDAP *, const char *, int, struct timeval *, LDAPMessage **);
         auto count = so.fn<int (*)(LDAP *, LDAPMessage *)>("tav_ldap_count_entries");
         auto msgfree = so.fn<int (*)(LDAPMessage *)>("tav_ldap_msgfree");
         LDAPMessage *r = nullptr;
         const std::string here = slapd->url() + "/" + SlapdServer::kPeopleDn + "??one?(cn=Moved)";
         ASSERT_EQ(as<UrlSearch>(f)(s, here.c_str(), 0, &tv, &r), 0);
         EXPECT_EQ(count(s, r), 1);
         msgfree(r);
         EXPECT_EQ(as<UrlSearch>(f)(s, "ldap://h/o=x??wide", 0, &tv, &r), LDAP_PARAM_ERROR);
         EXPECT_EQ(as<UrlSearch>(f)(s, nullptr, 0, &tv, &r), LDAP_PARAM_ERROR);
         // Another server: re-bound through the rebind procedure, its answers
         // come back on this session.
         SlapdServer b;
         std::string error;
         ASSERT_TRUE(b.start(&error)) << error;
         so.fn<int (*)(LDAP *, int, const void *)>("tav_ldap_set_option")(s, LDAP_OPT_REBIND_FN,
                                                                          reinterpret_cast<void *>(&rebind_as_root));
         const std::string there = b.url() + "/" + SlapdServer::kPeopleDn + "??one";
         ASSERT_EQ(as<UrlSearch>(f)(s, there.c_str(), 0, &tv, &r), 0);
         EXPECT_EQ(count(s, r), 5);
         EXPECT_EQ(rebinds, 1);
         msgfree(r);
         // A server that never answers (and so is not bound to): the time-out arrives.
         so.fn<int (*)(LDAP *, int, const void *)>("tav_ldap_set_option")(s, LDAP_OPT_REBIND_FN, nullptr);
         tavtest::FakeServer silent;
         silent.hold_until_closed().start();
         const std::string nowhere = "ldap://127.0.0.1:" + std::to_string(silent.port()) + "/o=x";
         r = reinterpret_cast<LDAPMessage *>(1);
         EXPECT_EQ(as<UrlSearch>(f)(s, nowhere.c_str(), 0, &short_wait, &r), LDAP_TIMEOUT);
         EXPECT_EQ(r, nullptr);
       }},
      {"tav_ldap_count_entries", [&](void *f) { EXPECT_EQ(as<int (*)(LDAP *, LDAPMessage *)>(f)(s, res), 1); }},
      {"tav_ldap_first_entry",
       [&](void *f) { ASSERT_NE(entry = as<LDAPMessage *(*)(LDAP *, LDAPMessage *)>(f)(s, res), nullptr); }},
      {"tav_ldap_next_entry", [&](void *f) { EXPECT_EQ(as<LDAPMessage *(*)(LDAP *, LDAPMessage *)>(f)(s, entry), nullptr); }},
      {"tav_ldap_get_dn",
       [&](void *f) {
         char *got = as<char *(*)(LDAP *, LDAPMessage *)>(f)(s, entry);
         EXPECT_STREQ(got, moved.c_str());
         free(got);
       }},
      {"tav_ldap_first_attribute",
       [&](void *f) {
         char *a = as<char *(*)(LDAP *, LDAPMessage *, BerElement **)>(f)(s, entry, &cursor);
         attrs_seen += a ? a : "(null)";
         free(a);
       }},
      {"tav_ldap_next_attribute",
       [&](void *f) {
         char *a = as<Next>(f)(s, entry, cursor);
         attrs_seen += std::string(" ") + (a ? a : "(null)");
         free(a);
         EXPECT_EQ(as<Next>(f)(s, entry, cursor), nullptr);
         EXPECT_TRUE(attrs_seen == "cn jpegPhoto" || attrs_seen == "jpegPhoto cn") << attrs_seen;
       }},
      {"tav_ldap_get_values_len",
       [&](void *f) {
         vals = as<struct berval **(*)(LDAP *, LDAPMessage *, const char *)>(f)(s, entry, "JPEGPHOTO");
         ASSERT_TRUE(vals && vals[0] && !vals[1]);
         EXPECT_EQ(std::string(vals[0]->bv_val, vals[0]->bv_len), std::string(photo_bytes, 3));
       }},
      {"tav_ldap_value_free_len", [&](void *f) { as<void (*)(struct berval **)>(f)(vals); }},
      {"tav_ldap_ber_free",
       [&](void *f) {
         as<void (*)(BerElement *)>(f)(cursor);
         void *block = malloc(1 << 16);
         const size_t before = tavtest::heap_in_use();
         as<void (*)(BerElement *)>(f)(static_cast<BerElement *>(block));
         EXPECT_GE(before - tavtest::heap_in_use(), size_t{1} << 16) << "the block was not released";
       }},
      {"tav_ldap_memfree",
       [&](void *f) {
         as<void (*)(void *)>(f)(nullptr);
         void *block = malloc(1 << 16);
         const size_t before = tavtest::heap_in_use();
         as<void (*)(void *)>(f)(block);
         EXPECT_GE(before - tavtest::heap_in_use(), size_t{1} << 16) << "the block was not released";
       }},
      {"tav_ldap_msgfree", [&](void *f) { EXPECT_EQ(as<int (*)(LDAPMessage *)>(f)(res), ldap_proto::kSearchDone); }},
      {"tav_ldap_delete_s",
       [&](void *f) {
         EXPECT_EQ(as<int (*)(LDAP *, const char *)>(f)(s, moved.c_str()), 0);
         EXPECT_EQ(as<int (*)(LDAP *, const char *)>(f)(s, moved.c_str()), LDAP_NO_SUCH_OBJECT);
       }},
      {"tav_ldap_unbind",
       [&](void *f) {
         EXPECT_EQ(as<int (*)(LDAP *)>(f)(s), 0);
         EXPECT_EQ(as<int (*)(LDAP *)>(f)(nullptr), LDAP_PARAM_ERROR);
       }},
      {"tavldap_loaded_from",
       [&](void *f) {
         char canonical[PATH_MAX], *path = as<char *(*)(void)>(f)();
         EXPECT_STREQ(path, realpath(TAV_SHARED_OBJECT, canonical));
         free(path);
       }},
      {"tavldap_SCCSInfo",
       [&](void *f) {
         EXPECT_TRUE(std::regex_match(static_cast<const char *>(f), std::regex("(@\\(#\\)[A-Za-z]+: [^\n]+\n){6,}"))) << f;
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
