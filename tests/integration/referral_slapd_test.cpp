// Referral chasing against three private slapds: A refers part of its tree to
// B (which refuses anonymous readers), a loop runs A -> B -> A, a referral
// list starts with a dead server and goes on to C, and names outside every
// suffix follow A's default referral to C.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "keydb.h"
#include "ldap-search.h"
#include "ldap-ssl.h"
#include "ldap-update.h"
#include "ldap-utils.h"
#include "process.h"
#include "referral_servers.h"
#include "trace_watch.h"

using tavtest::ReferralServers;

namespace {

// A's part of the tree that refers its ou=branch to B.
const std::string kT1 = "ou=t1," + ReferralServers::kSuffix;

class Referrals : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { servers = new ReferralServers(); }
  static void TearDownTestSuite() { delete std::exchange(servers, nullptr); }
  void SetUp() override { ASSERT_TRUE(servers->started()) << servers->error(); }
  static inline ReferralServers *servers = nullptr;
};

std::set<std::string> dns_of(LDAP *ld, LDAPMessage *res) {
  std::set<std::string> out;
  for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e)) {
    char *dn = ldap_get_dn(ld, e);
    out.insert(dn ? dn : "?");
    ldap_memfree(dn);
  }
  return out;
}

// The final result's code and text.
std::pair<int, std::string> final_of(LDAP *ld, LDAPMessage *res) {
  int code = -1;
  char *text = nullptr;
  EXPECT_EQ(ldap_parse_result(ld, res, &code, nullptr, &text, nullptr, nullptr, 0), 0);
  std::string t = text ? text : "";
  free(text);
  return {code, t};
}

TEST_F(Referrals, SearchesFollowReferencesAndReferralsOrHandThemBack) {
  struct Case {
    const char *name;
    std::string base;
    bool chase, rebind;
    std::set<std::string> entries;
    int code;          // of the final result in the chain
    std::string text;  // of the final result
  };
  const std::set<std::string> a_entries = {kT1, "cn=a1," + kT1, "cn=a2," + kT1};
  const std::set<std::string> b_entries = {ReferralServers::branch(), "cn=b1," + ReferralServers::branch(),
                                           "cn=b2," + ReferralServers::branch()};
  std::set<std::string> both = a_entries;
  both.insert(b_entries.begin(), b_entries.end());
  const std::string dead = ReferralServers::url(servers->dead_port(), "ou=nowhere," + ReferralServers::kSuffix);
  const std::string loop = ReferralServers::url(servers->port_b(), "ou=loop," + ReferralServers::kSuffix);
  const Case cases[] = {
      {"reference to B, re-bound", kT1, true, true, both, 0, ""},
      // B refuses anonymous readers: its refusal is the final result.
      {"reference to B, anonymous", kT1, true, false, a_entries, LDAP_NO_SUCH_OBJECT, ""},
      {"chasing off", kT1, false, true, a_entries, 0, ""},
      {"dead server first, then C",
       "ou=dead," + ReferralServers::kSuffix,
       true,
       false,
       {"ou=dead," + ReferralServers::kSuffix, "cn=c1,ou=dead," + ReferralServers::kSuffix},
       0,
       ""},
      {"no server reachable",
       "ou=nowhere," + ReferralServers::kSuffix,
       true,
       false,
       {},
       0,
       "Referral:\n" + dead + "??sub\n"},
      {"loop A -> B -> A", "ou=loop," + ReferralServers::kSuffix, true, true, {}, 0, "Referral:\n" + loop + "??sub\n"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    LDAP *ld = servers->session(c.rebind);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_REFERRALS, c.chase ? LDAP_OPT_ON : LDAP_OPT_OFF), 0);
    LDAPMessage *res = nullptr;
    const int rc = ldap_search_st(ld, c.base.c_str(), 2, "(objectClass=*)", nullptr, 0, nullptr, &res);
    EXPECT_EQ(dns_of(ld, res), c.entries);
    auto [code, text] = final_of(ld, res);
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(rc, c.code);
    if (!c.text.empty()) {
      EXPECT_EQ(text, c.text);
    }
    if (!c.chase) {
      // The reference comes back as it is, its URL readable.
      LDAPMessage *ref = ldap_first_reference(ld, res);
      ASSERT_NE(ref, nullptr);
      char **urls = nullptr;
      ASSERT_EQ(ldap_parse_reference(ld, ref, &urls, nullptr, 0), 0);
      ASSERT_NE(urls, nullptr);
      EXPECT_EQ(std::string(urls[0]), ReferralServers::url(servers->port_b(), ReferralServers::branch()) + "??sub");
      fber_svecfree(urls);
    }
    ldap_msgfree(res);
    EXPECT_EQ(servers->rows_in_use(ld), 0);
    ldap_unbind(ld);
  }
}

// With no hops left the first referral is not followed and the rebind
// procedure is never asked; with hops it is asked once and told to free once.
TEST_F(Referrals, HopLimitBoundsTheChaseAndTheRebindProcedureIsAskedAndToldToFree) {
  for (int hops : {0, 10}) {
    SCOPED_TRACE(hops);
    servers->reset_rebinds();
    LDAP *ld = servers->session(true);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_REFHOPLIMIT, &hops), 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_st(ld, kT1.c_str(), 2, "(objectClass=*)", nullptr, 0, nullptr, &res), 0);
    EXPECT_EQ(dns_of(ld, res).size(), hops ? 6u : 3u);  // A's own entries only without hops
    EXPECT_EQ(
        final_of(ld, res).second,
        hops ? "" : "Referral:\n" + ReferralServers::url(servers->port_b(), ReferralServers::branch()) + "??sub\n");
    ldap_msgfree(res);
    EXPECT_EQ(std::make_pair(servers->rebinds(), servers->rebind_frees()),
              hops ? std::make_pair(1, 1) : std::make_pair(0, 0));
    ldap_unbind(ld);
  }
}

TEST_F(Referrals, UpdatesAreRedoneWhereTheReferralPoints) {
  const std::string below = "cn=b1,ou=branch,ou=t1," + ReferralServers::kSuffix;
  static char sn[] = "sn", value[] = "changed-through-A";
  char *vals[] = {value, nullptr};
  LDAPMod mod{LDAP_MOD_REPLACE, sn, {vals}};
  LDAPMod *mods[] = {&mod, nullptr};
  // Without a rebind procedure the change goes to B anonymously, and B refuses it.
  LDAP *anonymous = servers->session(false);
  ASSERT_EQ(ldap_simple_bind_s(anonymous, tavtest::SlapdServer::kRootDn, tavtest::SlapdServer::kRootPw), 0);
  EXPECT_EQ(ldap_modify_s(anonymous, below.c_str(), mods), LDAP_STRONG_AUTH_REQUIRED);
  ldap_unbind(anonymous);
  LDAP *ld = servers->session(true);
  ASSERT_EQ(ldap_simple_bind_s(ld, tavtest::SlapdServer::kRootDn, tavtest::SlapdServer::kRootPw), 0);
  EXPECT_EQ(ldap_modify_s(ld, below.c_str(), mods), 0);
  // B holds the change.
  std::string out;
  EXPECT_EQ(servers->b().ldap_tool("ldapsearch",
                                   {"-LLL", "-D", tavtest::SlapdServer::kRootDn, "-w", tavtest::SlapdServer::kRootPw,
                                    "-b", "cn=b1," + ReferralServers::branch(), "-s", "base", "sn"},
                                   &out),
            0);
  EXPECT_NE(out.find("sn: changed-through-A"), std::string::npos) << out;

  // Outside every suffix: A's default referral sends the add to C, which knows
  // nothing of it either and is unwilling; with chasing off A's own referral
  // comes back.
  static char oc[] = "objectClass", top[] = "organization", o[] = "o", el[] = "elsewhere";
  char *oc_v[] = {top, nullptr}, *o_v[] = {el, nullptr};
  LDAPMod m1{0, oc, {oc_v}}, m2{0, o, {o_v}};
  LDAPMod *attrs[] = {&m1, &m2, nullptr};
  EXPECT_EQ(ldap_add_s(ld, "o=elsewhere", attrs), LDAP_UNWILLING_TO_PERFORM);
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF), 0);
  EXPECT_EQ(ldap_add_s(ld, "o=elsewhere", attrs), LDAP_REFERRAL);
  EXPECT_EQ(servers->rows_in_use(ld), 0);
  ldap_unbind(ld);
}

TEST_F(Referrals, UrlSearchRunsOnTheServerItNames) {
  struct Case {
    const char *name;
    std::string url;
    int rc;
    size_t entries;
  };
  const Case cases[] = {
      {"default server", ReferralServers::url(servers->port_a(), kT1) + "??sub", 0, 6},
      {"no host", "ldap:///" + kT1 + "??one", 0, 3},
      {"server B", ReferralServers::url(servers->port_b(), ReferralServers::branch()) + "?cn?sub?(cn=b*)", 0, 2},
      {"not a URL", "http://x/", LDAP_PARAM_ERROR, 0},
      // A's own ldapi socket, which would answer: a URL's host is never a path.
      {"host naming a local socket",
       "ldap://" + ReferralServers::socket_host(servers->a().ldapi_path()) + "/" + kT1 + "??sub", LDAP_PARAM_ERROR, 0},
      // A's plain port: the scheme is kept, so nothing is sent without SSL.
      {"ldaps without SSL", "ldaps://" + servers->a().host_port() + "/" + kT1 + "??sub", LDAP_SSL_NOT_AVAILABLE, 0},
      {"bad scope", "ldap:///o=x??wide", LDAP_PARAM_ERROR, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    LDAP *ld = servers->session(true);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_url_search_st(ld, c.url.c_str(), 0, nullptr, &res), c.rc);
    EXPECT_EQ(dns_of(ld, res).size(), c.entries);
    // The answer is this session's: a message ID of the default connection.
    if (res != nullptr) {
      EXPECT_EQ(res->lm_conn, ld->ld_defconn);
    }
    ldap_msgfree(res);
    EXPECT_EQ(servers->rows_in_use(ld), 0);
    ldap_unbind(ld);
  }
}

TEST_F(Referrals, VersionTwoFollowsTheReferralText) {
  // slapd answers a version-2 search with partial results whose text lists
  // the referrals ("Referral:\n" and one URL a line).
  for (bool chase : {false, true}) {
    SCOPED_TRACE(chase ? "chasing" : "not chasing");
    LDAP *ld = servers->session(true);
    int two = LDAP_VERSION2;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &two), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_REFERRALS, chase ? LDAP_OPT_ON : LDAP_OPT_OFF), 0);
    ASSERT_EQ(ldap_simple_bind_s(ld, tavtest::SlapdServer::kRootDn, tavtest::SlapdServer::kRootPw), 0);
    LDAPMessage *res = nullptr;
    const int rc = ldap_search_st(ld, kT1.c_str(), 2, "(objectClass=*)", nullptr, 0, nullptr, &res);
    auto [code, text] = final_of(ld, res);
    EXPECT_EQ(dns_of(ld, res).size(), chase ? 6u : 3u);
    EXPECT_EQ(rc, chase ? 0 : LDAP_PARTIAL_RESULTS);
    EXPECT_EQ(text.rfind("Referral:\n", 0) == 0, !chase) << text;
    ldap_msgfree(res);
    ldap_unbind(ld);
  }
}

TEST_F(Referrals, EveryFailingAllocationOfAChasedSearchEndsInADesignedCode) {
  const std::set<int> documented = {0,
                                    LDAP_SERVER_DOWN,
                                    LDAP_LOCAL_ERROR,
                                    LDAP_ENCODING_ERROR,
                                    LDAP_DECODING_ERROR,
                                    LDAP_FILTER_ERROR,
                                    LDAP_NO_MEMORY};  // the filter encoder's failures are 87
  std::set<int> codes;
  bool chased = false;
  for (long n = 1; n < 100000; ++n) {
    LDAP *ld = servers->session(true);
    ASSERT_NE(ld, nullptr);
    LDAPMessage *res = nullptr;
    olx_fail_alloc_at(n);
    const int rc = ldap_search_st(ld, kT1.c_str(), 2, "(objectClass=*)", nullptr, 0, nullptr, &res);
    const long used = olx_fail_alloc_at(0);
    EXPECT_TRUE(documented.count(rc)) << "allocation " << n << " gave " << rc;
    // A chase that ran out of memory leaves A's own entries.
    if (rc == 0) {
      const size_t found = dns_of(ld, res).size();
      EXPECT_TRUE(found == 3 || found == 6) << "allocation " << n << ": " << found;
      chased |= found == 6;
    }
    ldap_msgfree(res);
    ldap_unbind(ld);
    codes.insert(rc);
    if (used < n) break;
  }
  EXPECT_TRUE(chased);
  EXPECT_TRUE(codes.count(LDAP_NO_MEMORY));
}

// B stops and starts again, twenty times: each chase once it is back finds
// it, and the connections that failed are given back, so the session's
// descriptors stay as many as before.
TEST_F(Referrals, ConnectionsToARestartedServerAreGivenBack) {
  LDAP *ld = servers->session(true);
  auto chase = [&] {
    LDAPMessage *res = nullptr;
    ldap_search_st(ld, kT1.c_str(), 2, "(objectClass=*)", nullptr, 0, nullptr, &res);
    const size_t entries = dns_of(ld, res).size();
    ldap_msgfree(res);
    return entries;
  };
  auto descriptors = [] {
    int n = 0;
    DIR *dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) ++n;
    closedir(dir);
    return n;
  };
  ASSERT_EQ(chase(), 6u);
  const int before = descriptors();
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE(round);
    servers->b().stop();
    EXPECT_LE(chase(), 3u);  // B's entries are not there
    std::string error;
    ASSERT_TRUE(servers->b().start(&error)) << error;
    EXPECT_EQ(chase(), 6u);
    EXPECT_NEAR(descriptors(), before, 1);
  }
  ldap_unbind(ld);
}

// A's ou=secure refers to B by ldaps URLs: followed over SSL or not at all.
// SSL is set up once a process, so the chase without it comes first.
TEST(ReferralsOverSsl, LdapsReferralsAreChasedOverSslOrNotAtAll) {
  ReferralServers servers(2, true);
  ASSERT_TRUE(servers.started()) << servers.error();
  tavtest::TempDir dir;
  const std::string kdb = dir.file("b-ca.kdb"), kdb_pw = "kdb-pass";
  ASSERT_EQ(tavtest::trusting_keydb(kdb, kdb_pw, servers.b().tls_file("ca.pem")), "");
  const std::string secure = "ou=secure," + ReferralServers::kSuffix;
  const std::string portless = "ldaps://127.0.0.1/" + ReferralServers::branch() + "??sub";
  const std::string to_636 = "host(127.0.0.1) port(636)";
  const std::string to_b = "host(127.0.0.1) port(" + std::to_string(servers.b().tls_port()) + ")";
  for (bool ssl : {false, true}) {
    SCOPED_TRACE(ssl ? "SSL set up" : "no SSL");
    int code = -1;
    if (ssl) {
      ASSERT_EQ(ldap_ssl_client_init(kdb.c_str(), kdb_pw.c_str(), 0, &code), 0) << code;
    }
    LDAP *ld = servers.session(true);
    LDAPMessage *res = nullptr;
    int rc = -1;
    const std::string trace = tavtest::traced(
        0xffff, [&] { rc = ldap_search_st(ld, secure.c_str(), 2, "(objectClass=*)", nullptr, 0, nullptr, &res); });
    EXPECT_EQ(rc, 0);
    // B refuses anonymous readers: its entries show the re-bind went over SSL too.
    EXPECT_EQ(dns_of(ld, res).size(), ssl ? 3u : 0u);
    EXPECT_EQ(final_of(ld, res).second, ssl ? "" : "Referral:\n" + portless + "\n");
    // Without SSL nothing is connected; with it the port-less URL means 636.
    EXPECT_EQ(trace.find(to_636) != std::string::npos, ssl);
    EXPECT_EQ(trace.find(to_b) != std::string::npos, ssl);
    ldap_msgfree(res);
    ldap_unbind(ld);
    if (ssl) {
      EXPECT_EQ(ldap_ssl_current_env()->count, 0u) << "the session let go of the environment it took";
    }
  }
}

}  // namespace
