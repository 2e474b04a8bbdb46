// "ldaps:///suffix" end to end: the locator picks the server published for
// SSL in DNS, and the session searches it over SSL.  Inside a private network
// namespace with dnsmasq; the toolkit is loaded from the build.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "dns_peer.h"
#include "ldap-search.h"
#include "ldap-ssl.h"
#include "process.h"
#include "slapd_server.h"

using namespace tavtest;

TEST(SslLocate, LdapsUrlSearchesTheLocatedSslServer) {
  TempDir dir;
  write_file(dir.file("resolv.conf"), "nameserver 127.0.0.1\n");
  ASSERT_EQ(enter_private_network(dir.file("resolv.conf")), "");
  SlapdOptions options;
  options.tls = true;
  SlapdServer slapd(options);
  std::string error;
  ASSERT_TRUE(slapd.start(&error)) << error;
  // The SSL server's name is its address, which its certificate holds.
  const std::string tls = std::to_string(slapd.tls_port()), plain = std::to_string(slapd.port());
  Dnsmasq dnsmasq;
  ASSERT_TRUE(dnsmasq.start(dir.path(),
                            "local=/example.com/\nhost-record=ldap1.example.com,127.0.0.1\n"
                            "srv-host=_ldap._tcp.example.com,ldap1.example.com," +
                                plain +
                                ",0,0\n"
                                "srv-host=_ldap._tcp.example.com,127.0.0.1," +
                                tls +
                                ",1,0\n"
                                "txt-record=ldap1.example.com,\"service:ldap://ldap1.example.com/dc=example,dc=com\"\n"
                                "txt-record=127.0.0.1,\"service:ldaps://127.0.0.1/dc=example,dc=com\"\n",
                            &error))
      << error;
  const std::string pw = "kdb-pass", kdb = dir.file("client.kdb");
  for (const auto &args :
       {std::vector<std::string>{TAV_KEYDB_TOOL, "create", kdb, "-pw", pw},
        {TAV_KEYDB_TOOL, "add-ca", kdb, "-pw", pw, "-label", "ca", "-cert", slapd.tls_file("ca.pem")}})
    ASSERT_EQ(run_process(args).exit_code, 0) << args[1];
  setenv("TAVLIB_LOCAL_INSTALL_MODE", "1", 1);
  ASSERT_EQ(ldap_ssl_client_init(kdb.c_str(), pw.c_str(), 0, nullptr), 0);

  setenv("LOCALDOMAIN", "example.com", 1);
  LDAP *ld = ldap_ssl_init("ldaps:///dc=example,dc=com", 0, nullptr);
  unsetenv("LOCALDOMAIN");
  ASSERT_NE(ld, nullptr);
  EXPECT_STREQ(ld->ld_defhost, ("127.0.0.1:" + tls).c_str());
  EXPECT_EQ(ldap_simple_bind_s(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
  LDAPMessage *res = nullptr;
  EXPECT_EQ(ldap_search_s(ld, SlapdServer::kPeopleDn, 1, "(uid=*)", nullptr, 0, &res), 0);
  EXPECT_EQ(ldap_count_entries(ld, res), 5);
  ldap_msgfree(res);
  EXPECT_NE(ld->ld_defconn->lc_sb.sb_ssl, nullptr) << "the search ran over SSL";
  ldap_unbind(ld);
}
