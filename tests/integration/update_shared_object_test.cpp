// The update forwarders as a program sees them: loaded with dlopen, resolved
// at version tav8, driven against the private slapd.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "slapd_server.h"
#include "tavldap.h"

using tavtest::SlapdServer;

namespace {

template <typename F>
F sym(void *handle, const char *name) {
  void *p = dlvsym(handle, name, "tav8");
  EXPECT_NE(p, nullptr) << name << ": " << dlerror();
  return reinterpret_cast<F>(p);
}

TEST(UpdateSharedObject, ForwardersReturnWhatTheOperationsReturn) {
  SlapdServer slapd;
  std::string error;
  ASSERT_TRUE(slapd.start(&error)) << error;
  void *h = dlopen(TAV_SHARED_OBJECT, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(h, nullptr) << dlerror();
  auto init = sym<LDAP *(*)(const char *, int)>(h, "tav_ldap_init");
  auto unbind = sym<int (*)(LDAP *)>(h, "tav_ldap_unbind");
  auto bind = sym<int (*)(LDAP *, const char *, const char *)>(h, "tav_ldap_simple_bind_s");
  auto get_errno = sym<int (*)(LDAP *)>(h, "tav_ldap_get_errno");
  auto add_s = sym<int (*)(LDAP *, const char *, LDAPMod **)>(h, "tav_ldap_add_s");
  auto delete_s = sym<int (*)(LDAP *, const char *)>(h, "tav_ldap_delete_s");
  auto modify_s = sym<int (*)(LDAP *, const char *, LDAPMod **)>(h, "tav_ldap_modify_s");
  auto modrdn_s = sym<int (*)(LDAP *, const char *, const char *, int)>(h, "tav_ldap_modrdn_s");
  ASSERT_TRUE(init && unbind && bind && get_errno && add_s && delete_s && modify_s && modrdn_s);

  LDAP *ld = init("127.0.0.1", slapd.port());
  ASSERT_NE(ld, nullptr);
  ASSERT_EQ(bind(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), LDAP_SUCCESS);
  char oc[] = "inetOrgPerson", cn[] = "Shared", sn[] = "Object";
  char *ocs[] = {oc, nullptr}, *cns[] = {cn, nullptr}, *sns[] = {sn, nullptr};
  char photo_bytes[] = {'\x00', '\x01', '\x00'};
  struct berval photo = {sizeof photo_bytes, photo_bytes};
  struct berval *photos[] = {&photo, nullptr};
  char t_oc[] = "objectClass", t_cn[] = "cn", t_sn[] = "sn", t_photo[] = "jpegPhoto", t_desc[] = "description";
  LDAPMod m_oc = {LDAP_MOD_ADD, t_oc, {ocs}}, m_cn = {LDAP_MOD_ADD, t_cn, {cns}}, m_sn = {LDAP_MOD_ADD, t_sn, {sns}};
  LDAPMod m_photo = {LDAP_MOD_BVALUES, t_photo, {nullptr}};
  m_photo.mod_bvalues = photos;
  LDAPMod *entry[] = {&m_oc, &m_cn, &m_sn, &m_photo, nullptr};
  const std::string dn = std::string("cn=Shared,") + SlapdServer::kPeopleDn;
  const std::string renamed = std::string("cn=Renamed,") + SlapdServer::kPeopleDn;

  EXPECT_EQ(add_s(ld, dn.c_str(), entry), LDAP_SUCCESS);
  EXPECT_EQ(add_s(ld, dn.c_str(), entry), LDAP_ALREADY_EXISTS);
  EXPECT_EQ(get_errno(ld), LDAP_ALREADY_EXISTS);
  LDAPMod m_desc = {LDAP_MOD_REPLACE, t_desc, {cns}};
  LDAPMod *change[] = {&m_desc, nullptr};
  EXPECT_EQ(modify_s(ld, dn.c_str(), change), LDAP_SUCCESS);
  EXPECT_EQ(modrdn_s(ld, dn.c_str(), "cn=Renamed", 1), LDAP_SUCCESS);
  EXPECT_EQ(modify_s(ld, dn.c_str(), change), LDAP_NO_SUCH_OBJECT);
  EXPECT_EQ(delete_s(ld, renamed.c_str()), LDAP_SUCCESS);
  EXPECT_EQ(delete_s(ld, renamed.c_str()), LDAP_NO_SUCH_OBJECT);
  // Refusals pass through unchanged, never as -1.
  EXPECT_EQ(add_s(ld, nullptr, entry), LDAP_PARAM_ERROR);
  EXPECT_EQ(modify_s(ld, dn.c_str(), nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(modrdn_s(ld, dn.c_str(), nullptr, 0), LDAP_PARAM_ERROR);
  EXPECT_EQ(delete_s(nullptr, dn.c_str()), LDAP_PARAM_ERROR);
  EXPECT_EQ(unbind(ld), LDAP_SUCCESS);
  dlclose(h);
}

}  // namespace
