// Sessions, options, codes and URLs through the loaded shared object, as a
// program that loads the library sees them.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "tavldap.h"

namespace {

struct Api {
  void *handle = nullptr;
  LDAP *(*init)(const char *, int);
  int (*unbind)(LDAP *);
  int (*set_option)(LDAP *, int, const void *);
  int (*get_errno)(LDAP *);
  char *(*err2string)(int);
  int (*url_parse)(const char *, LDAPURLDesc **);
  void (*free_urldesc)(LDAPURLDesc *);

  template <typename F>
  void bind(F &f, const char *name) {
    f = reinterpret_cast<F>(dlvsym(handle, name, "tav8"));
    ASSERT_NE(f, nullptr) << name;
  }
  void load() {
    handle = dlopen(TAV_SHARED_OBJECT, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    bind(init, "tav_ldap_init");
    bind(unbind, "tav_ldap_unbind");
    bind(set_option, "tav_ldap_set_option");
    bind(get_errno, "tav_ldap_get_errno");
    bind(err2string, "tav_ldap_err2string");
    bind(url_parse, "tav_ldap_url_parse");
    bind(free_urldesc, "tav_ldap_free_urldesc");
  }
  ~Api() {
    if (handle != nullptr) dlclose(handle);
  }
};

}  // namespace

TEST(SharedObjectSession, ForwardersReturnWhatTheLibraryReturns) {
  Api api;
  ASSERT_NO_FATAL_FAILURE(api.load());

  LDAP *ld = api.init("ldap://127.0.0.1:1389/dc=example,dc=com", 0);
  ASSERT_NE(ld, nullptr);
  EXPECT_EQ(api.get_errno(ld), 0);
  int deref = 4;
  EXPECT_EQ(api.set_option(ld, LDAP_OPT_DEREF, &deref), LDAP_PARAM_ERROR);
  EXPECT_EQ(api.get_errno(ld), LDAP_PARAM_ERROR);
  deref = 2;
  EXPECT_EQ(api.set_option(ld, LDAP_OPT_DEREF, &deref), 0);
  EXPECT_EQ(api.set_option(nullptr, LDAP_OPT_SIZELIMIT, &deref), 0);
  EXPECT_EQ(api.unbind(ld), 0);
  EXPECT_EQ(api.unbind(nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(api.get_errno(nullptr), -1);
  EXPECT_EQ(api.init("", 0), nullptr);
  EXPECT_EQ(api.init("h", -1), nullptr);

  EXPECT_STREQ(api.err2string(81), "Can't contact LDAP server");
  EXPECT_STREQ(api.err2string(-1), "Unknown error");

  LDAPURLDesc *lud = nullptr;
  ASSERT_EQ(api.url_parse("ldaps://[::1]/o=x?cn?one", &lud), 0);
  EXPECT_STREQ(lud->lud_scheme, "ldaps");
  EXPECT_STREQ(lud->lud_host, "::1");
  EXPECT_EQ(lud->lud_port, 636);
  EXPECT_STREQ(lud->lud_dn, "o=x");
  EXPECT_STREQ(lud->lud_attrs[0], "cn");
  EXPECT_EQ(lud->lud_scope, LDAP_SCOPE_ONELEVEL);
  EXPECT_STREQ(lud->lud_filter, "(objectClass=*)");
  api.free_urldesc(lud);
  lud = reinterpret_cast<LDAPURLDesc *>(0x1);
  EXPECT_EQ(api.url_parse("ldapx://h", &lud), LDAP_URL_ERR_NOTLDAP);
  EXPECT_EQ(lud, nullptr);
  api.free_urldesc(nullptr);
}
