// A Kerberos bind through the Cyrus plug-in: a private KDC, slapd holding the
// service key for ldap/127.0.0.1, the client's key in a client keytab.
#include <gtest/gtest.h>

#include <string>

#include "kdc.h"
#include "sasl_plugins.h"

// Cyrus' GSSAPI mechanism acquires the client's credentials and never
// releases them; the leak is theirs, and only Kerberos code allocates here.
extern "C" const char *__lsan_default_suppressions() {
  return "leak:libgssapiv2.so\nleak:libgssapi_krb5.so\nleak:libkrb5.so\n";
}

TEST(SaslGssapi, KerberosBindIsTheRealmsUser) {
  tavtest::KerberosKdc kdc;
  std::string error;
  ASSERT_TRUE(kdc.start(&error)) << error;
  tavtest::SlapdServer slapd(tavtest::sasl_slapd_options());  // inherits the Kerberos environment
  ASSERT_TRUE(slapd.start(&error)) << error;
  tavtest::use_config(slapd.dir(), "plugin sasl GSSAPI " TAV_SASL_PLUGIN "\n");
  LDAP *ld = ldap_init("127.0.0.1", slapd.port());
  ASSERT_EQ(ldap_sasl_bind_s(ld, nullptr, "GSSAPI", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(tavtest::whoami(ld), "dn:uid=user1,ou=people,dc=example,dc=com");
  ldap_unbind(ld);
}
