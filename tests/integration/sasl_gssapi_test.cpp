// A Kerberos bind through the Cyrus plug-in: a private KDC, slapd holding the
// service key for ldap/127.0.0.1, the client's key in a client keytab.
#include <gtest/gtest.h>

#include <string>

#include "kdc.h"
#include "ldap_requests.h"
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
  int id = tavtest::send_raw_op(ld, 0x77, tavtest::tlv(0x77, tavtest::tlv(0x80, "1.3.6.1.4.1.4203.1.11.3")));
  LDAPMessage *res = nullptr;
  struct berval *authzid = nullptr;
  ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res), 0x78);
  ASSERT_EQ(ldap_parse_extended_result(ld, res, nullptr, &authzid, 1), 0);
  EXPECT_EQ(std::string(authzid->bv_val, authzid->bv_len), "dn:uid=user1,ou=people,dc=example,dc=com");
  fber_bvfree(authzid);
  ldap_unbind(ld);
}
