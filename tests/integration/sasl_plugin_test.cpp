// SASL binds through plug-ins named in krvldap.conf: the Cyrus plug-in
// against a private slapd, the fall-through to a plain SASL bind, and each
// failure of loading and initialising a plug-in.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "ldap-debug.h"
#include "ldap-utils.h"
#include "sasl_plugins.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

const std::string kSasl = TAV_SASL_PLUGIN, kProbe = TAV_PROBE_PLUGIN;

class SaslPlugins : public tavtest::SlapdSuite<SaslPlugins> {
 public:
  static tavtest::SlapdOptions options() { return tavtest::sasl_slapd_options(); }

 protected:
  void SetUp() override {
    SlapdSuite::SetUp();
    // Comments, a short line, arguments ending at a tab.
    tavtest::use_config(slapd->dir(), "# SASL mechanisms\nplugin sasl SCRAM-SHA-256 " + kSasl +
                                          "\nplugin sasl DIGEST-MD5 " + kSasl +
                                          " ldap_plugin_init realm=example\tnot an argument\n"
                                          "plugin sasl\nplugin sasl NOT-IN-CYRUS " +
                                          kSasl +
                                          "\nplugin sasl NO-LIBRARY /nonexistent/libnothing.so\n"
                                          "plugin sasl NO-INIT " +
                                          kProbe +
                                          " no_such_init\n"
                                          "plugin sasl INIT-FAILS " +
                                          kProbe +
                                          " failing_init\n"
                                          "plugin sasl NO-BIND " +
                                          kProbe +
                                          " init_without_bind\n"
                                          "plugin sasl PROBE " +
                                          kProbe +
                                          " ldap_plugin_init -a one\t-b two\n"
                                          "plugin sasl GSSAPI " +
                                          kProbe + "\nplugin sasl PLAIN " + kSasl + "\nplugin sasl Plain " + kSasl +
                                          "\nplugin sasl LOGIN " + kSasl + "\nplugin sasl plain " + kSasl +
                                          " ldap_plugin_init allow-cleartext\nplugin sasl login " + kSasl +
                                          " ldap_plugin_init realm=example allow-cleartext\n");
  }

  int bind(const char *mech, const char *user, const std::string &password) {
    struct berval cred = {password.size(), const_cast<char *>(password.data())};
    return ldap_sasl_bind_s(ld, user, mech, &cred, nullptr, nullptr, nullptr);
  }
};

TEST_F(SaslPlugins, CyrusMechanismsBindAsTheMappedEntry) {
  for (const char *mech : {"SCRAM-SHA-256", "DIGEST-MD5"}) {
    EXPECT_EQ(bind(mech, "user2", SlapdServer::user_password(2)), 0) << mech;
    EXPECT_EQ(tavtest::whoami(ld), "dn:uid=user2,ou=people,dc=example,dc=com") << mech;
    EXPECT_EQ(bind(mech, "user2", "wrong"), LDAP_INVALID_CREDENTIALS) << mech;
    EXPECT_EQ(ldap_get_errno(ld), LDAP_INVALID_CREDENTIALS) << mech;
  }
  // Configured but unknown to Cyrus: the library's code, nothing sent.
  EXPECT_EQ(bind("NOT-IN-CYRUS", "user2", "x"), LDAP_AUTH_UNKNOWN);
  // Not configured: a plain SASL bind, which the server refuses.
  EXPECT_EQ(bind("NOT-CONFIGURED", nullptr, "x"), LDAP_STRONG_AUTH_NOT_SUPPORTED);
}

// PLAIN and LOGIN hand the password itself to the server: without SSL the
// plug-in refuses them before anything is sent, unless its line allows them.
// (Lines are found by exact name, Cyrus takes the mechanism in any case.)
TEST_F(SaslPlugins, CleartextMechanismsWithoutSslNeedTheLinesConsent) {
  const std::string user2 = "dn:uid=user2,ou=people,dc=example,dc=com";
  const std::tuple<const char *, int, std::string> cases[] = {{"PLAIN", LDAP_CONFIDENTIALITY_REQUIRED, ""},
                                                              {"Plain", LDAP_CONFIDENTIALITY_REQUIRED, ""},
                                                              {"LOGIN", LDAP_CONFIDENTIALITY_REQUIRED, ""},
                                                              {"plain", 0, user2},
                                                              {"login", 0, user2}};
  for (const auto &[mech, code, identity] : cases) {
    ldap_unbind(ld);
    ld = ldap_init("127.0.0.1", slapd->port());
    ASSERT_NE(ld, nullptr);
    EXPECT_EQ(bind(mech, "user2", SlapdServer::user_password(2)), code) << mech;
    EXPECT_EQ(tavtest::whoami(ld), identity) << mech;  // refused: still anonymous
  }
}

TEST_F(SaslPlugins, LoadFailuresGiveTheirCodes) {
  struct {
    const char *mech;
    int code;
  } cases[] = {{"NO-LIBRARY", LDAP_PLUGIN_NOT_LOADED},
               {"NO-INIT", LDAP_PLUGIN_FUNCTION_NOT_RESOLVED},
               {"INIT-FAILS", LDAP_PLUGIN_NOT_INITIALIZED},
               {"NO-BIND", 1}};
  for (auto c : cases) {
    EXPECT_EQ(bind(c.mech, "user1", "0"), c.code) << c.mech;
    EXPECT_EQ(ldap_get_errno(ld), c.code) << c.mech;
  }
  ldap_plugin_info **list = nullptr;
  ASSERT_EQ(ldap_get_plugin_list(&list), 0);
  for (ldap_plugin_info **p = list; p != nullptr && *p != nullptr; ++p)
    for (auto c : cases) EXPECT_STRNE((*p)->name, c.mech);  // none was registered
  ldap_free_plugin_list(&list);
  EXPECT_EQ(list, nullptr);
}

TEST_F(SaslPlugins, ThePluginGetsTheBindsArgumentsAndItsResultIsFinal) {
  int v3 = 3;
  ASSERT_EQ(ldap_set_option(ld, 54, &v3), 0);
  EXPECT_EQ(bind("PROBE", "cn=someone", "53"), 53);  // not sent: the plug-in's code stands
  auto *seen = static_cast<char *>(dlsym(RTLD_DEFAULT, "probe_seen"));
  ASSERT_NE(seen, nullptr);
  EXPECT_STREQ(seen, "PROBE|cn=someone|53|-a|one|127.0.0.1|-1");
  EXPECT_EQ(bind("PROBE", "cn=someone", "0"), 0);
  // 12 from the plug-in: the library sends the bind itself, which slapd refuses.
  EXPECT_EQ(bind("PROBE", nullptr, "12"), LDAP_STRONG_AUTH_NOT_SUPPORTED);
  // GSSAPI: initialised again before each bind, no DN, option 54 and the
  // status handed over, the extended error read back.
  auto *inits = static_cast<int *>(dlsym(RTLD_DEFAULT, "probe_inits"));
  const int before = *inits;
  EXPECT_EQ(bind("GSSAPI", "cn=ignored", ""), LDAP_INVALID_CREDENTIALS);
  EXPECT_EQ(*inits, before + 2);  // loaded (once), then again for the bind
  EXPECT_STREQ(seen, "GSSAPI|-||127.0.0.1|3");
  EXPECT_EQ(ldap_get_ext_errno(ld), 77);
  int status = 0;
  EXPECT_EQ(ldap_get_option(ld, 55, &status), 0);
  EXPECT_EQ(status, 2);
  // The close function the plug-in left in the block runs when the session ends.
  auto *closes = static_cast<int *>(dlsym(RTLD_DEFAULT, "probe_closes"));
  const int closed = *closes;
  ldap_unbind(ld);
  ld = nullptr;
  EXPECT_EQ(*closes, closed + 1);
}

TEST_F(SaslPlugins, AllocationFailuresDuringAPluginBindGiveNinetyOrOne) {
  for (long n = 1;; ++n) {
    ldap_conf_forget();  // the configuration is read again inside the sweep
    olx_fail_alloc_at(n);
    const int rc = bind("PROBE", "cn=x", "0");
    const long used = olx_fail_alloc_at(0);
    EXPECT_TRUE(rc == 0 || rc == LDAP_NO_MEMORY || rc == 1) << n << ": " << rc;
    if (used < n) break;
  }
  EXPECT_EQ(bind("PROBE", "cn=x", "0"), 0);
}

TEST_F(SaslPlugins, RegisteringTwiceKeepsTheFirst) {
  std::string path = kProbe;
  char type[] = "sasl", name[] = "TWICE", other[] = "other_init";
  ldap_plugin_info first = {type, name, path.data(), nullptr, nullptr}, second = first;
  second.init_function = other;
  EXPECT_EQ(ldap_register_plugin(&first), 0);
  EXPECT_EQ(ldap_register_plugin(&second), 0);
  EXPECT_EQ(bind("TWICE", "cn=x", "7"), 7);  // the probe's bind, not other_init's (53)
  ldap_plugin_info **list = nullptr;
  ASSERT_EQ(ldap_get_plugin_list(&list), 0);
  int found = 0;
  for (ldap_plugin_info **p = list; *p != nullptr; ++p) {
    if (std::string((*p)->name) != "TWICE") continue;
    ++found;
    EXPECT_EQ((*p)->init_function, nullptr);
  }
  EXPECT_EQ(found, 1);
  ldap_free_plugin_list(&list);
}

}  // namespace
