// Server location against dnsmasq and a scripted responder, inside a private
// network namespace whose /etc/resolv.conf is the test's own; and ldap_init on
// "ldap:///suffix" through the shared object, reaching the private slapd.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "alloc_sweep.h"
#include "dns_peer.h"
#include "ldap-debug.h"
#include "ldap-dns.h"
#include "ldap-engine.h"
#include "ldap-utils.h"
#include "process.h"
#include "shared_object.h"
#include "slapd_server.h"
#include "trace_watch.h"

using namespace tavtest;
using namespace tavtest::dns;

namespace {

struct Request {
  std::vector<std::string> domains = {}, servers = {};
  int source = 2, ctype = 0, timeout = 2;
  const char *filter = nullptr;
  std::string file = {};
  const char *key = nullptr, *proto = nullptr;
};

// The request's lists as the locator takes them (null when empty).
struct CRequest {
  Request q;
  ldap_server_request r{};
  std::vector<char *> d, s;
  explicit CRequest(const Request &req) : q(req) {
    for (auto &x : q.domains) d.push_back(x.data());
    for (auto &x : q.servers) s.push_back(x.data());
    d.push_back(nullptr);
    s.push_back(nullptr);
    r.search_source = q.source;
    r.conf_filename = q.file.empty() ? nullptr : q.file.data();
    r.dns_domains = q.domains.empty() ? nullptr : d.data();
    r.name_servers = q.servers.empty() ? nullptr : s.data();
    r.connection_type = q.ctype;
    r.connection_timeout = q.timeout;
    r.dn_filter = const_cast<char *>(q.filter);
    r.service_key = const_cast<char *>(q.key);
    r.protocol = const_cast<char *>(q.proto);
  }
};

// Servers grouped by priority, each group sorted: the draw's order inside a
// group is random.
std::string groups(const LDAPServerInfo *s) {
  std::map<int, std::multiset<std::string>> by;
  for (; s != nullptr; s = s->next) by[s->priority].insert(std::string(s->host) + ":" + std::to_string(s->port));
  std::string out;
  for (const auto &[prio, hosts] : by) {
    out += (out.empty() ? "" : " ") + std::to_string(prio) + "{";
    for (const auto &h : hosts) out += (out.back() == '{' ? "" : " ") + h;
    out += "}";
  }
  return out;
}

std::pair<int, std::string> locate(const Request &q) {
  CRequest c(q);
  LDAPServerInfo *list = nullptr;
  int rc = ldap_server_locate(&c.r, &list);
  std::string out = groups(list);
  ldap_server_free_list(list);
  return {rc, out};
}

class DnsLocate : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new TempDir;
    write_file(dir->file("resolv.conf"), kResolv);
    error = enter_private_network(dir->file("resolv.conf"));
    if (!error.empty()) return;
    slapd = new SlapdServer;
    if (!slapd->start(&error)) return;
    dead_port = free_port();
    // PORT is slapd's, DEAD a port nothing listens on.
    std::string config =
        "local=/example.com/\nlocal=/test/\n"
        "srv-host=_ldap._tcp.example.com,ldap1.example.com,PORT,10,60\n"
        "srv-host=_ldap._tcp.example.com,ldaps1.example.com,1636,10,40\n"
        "srv-host=_ldap._tcp.example.com,other.example.com,389,20,0\n"
        "txt-record=ldap1.example.com,\"service:ldap://ldap1.example.com:PORT/dc=example,dc=com\",\"ldaptype:master\","
        "\"ldapvendor:OpenLDAP\"\n"
        "txt-record=ldaps1.example.com,\"service:ldaps://ldaps1.example.com/dc=example,dc=com\"\n"
        "txt-record=other.example.com,\"service:ldap://other.example.com/o=other\"\n"
        "host-record=ldap1.example.com,127.0.0.1\nhost-record=ldaps1.example.com,127.0.0.1\n"
        "host-record=other.example.com,127.0.0.1\nhost-record=down.failover.test,127.0.0.1\n"
        "srv-host=_ldap._tcp.failover.test,down.failover.test,DEAD,0,0\n"
        "srv-host=_ldap._tcp.failover.test,ldap1.example.com,PORT,1,0\n"
        "txt-record=down.failover.test,\"service:ldap://down.failover.test/dc=example,dc=com\"\n"
        "cname=_ldap._tcp.cname.test,ldap1.example.com\n"
        "txt-record=_ldap._tcp.txt.test,\"10 5 PORT ldap1.example.com.\"\n";
    for (const auto &[name, value] : {std::pair{"PORT", slapd->port()}, {"DEAD", dead_port}})
      for (size_t at; (at = config.find(name)) != std::string::npos;) config.replace(at, 4, std::to_string(value));
    dnsmasq = new Dnsmasq;
    dnsmasq->start(dir->path(), config, &error);
  }
  static void TearDownTestSuite() {
    delete dnsmasq;
    delete slapd;
    delete dir;
  }
  void SetUp() override { ASSERT_EQ(error, "") << "the private DNS network did not come up"; }

  static std::string ldap1() { return "ldap1.example.com:" + std::to_string(slapd->port()); }

  static constexpr const char *kResolv = "nameserver 127.0.0.1\nsearch example.com\n";
  static inline TempDir *dir;
  static inline SlapdServer *slapd;
  static inline Dnsmasq *dnsmasq;
  static inline std::string error;
  static inline int dead_port;
};

TEST_F(DnsLocate, DnsRecordsBecomeOrderedFilteredServers) {
  const std::string l1 = ldap1(), all = "10{" + l1 + " ldaps1.example.com:1636} 20{other.example.com:389}";
  // Asking the private dnsmasq for `domains`.
  auto dns = [](std::vector<std::string> domains, const char *filter = nullptr, int ctype = 0) {
    return Request{.domains = domains, .servers = {"127.0.0.1"}, .ctype = ctype, .filter = filter};
  };
  struct Case {
    const char *name;
    Request q;
    const char *localdomain;
    int rc;
    std::string servers;
  };
  const Case cases[] = {
      {"SRV, request servers", dns({"example.com"}), nullptr, 0, all},
      {"TCP only", dns({"example.com"}, nullptr, 2), nullptr, 0, all},
      {"DN filter", dns({"example.com"}, "dc=example,dc=com"), nullptr, 0, "10{" + l1 + " ldaps1.example.com:1636}"},
      {"other suffix", dns({"example.com"}, "o=other"), nullptr, 0, "20{other.example.com:389}"},
      {"no fit", dns({"example.com"}, "o=none"), nullptr, LDAP_DNS_SERVERS_FOUND, ""},
      {"CNAME", dns({"cname.test"}), nullptr, 0, "0{" + l1 + "}"},
      {"TXT server", dns({"txt.test"}), nullptr, 0, "10{" + l1 + "}"},
      {"no records", dns({"empty.test"}), nullptr, LDAP_DNS_SERVERS_FOUND, ""},
      {"domains searched in order", dns({"empty.test", "failover.test"}), nullptr, 0,
       "0{down.failover.test:" + std::to_string(dead_port) + "} 1{" + l1 + "}"},
      {"resolv.conf", {}, nullptr, 0, all},
      {"LOCALDOMAIN", {}, "txt.test", 0, "10{" + l1 + "}"},
      {"LOCALDOMAIN, request servers", {.servers = {"127.0.0.1"}}, "cname.test", 0, "0{" + l1 + "}"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    if (c.localdomain) setenv("LOCALDOMAIN", c.localdomain, 1);
    EXPECT_EQ(locate(c.q), std::make_pair(c.rc, c.servers));
    unsetenv("LOCALDOMAIN");
  }
}

TEST_F(DnsLocate, ScriptedFaultsGiveTheirCodes) {
  using Q = ScriptedDns::Query;
  const std::string srv_rec = record(name("_ldap._tcp.s.test"), 33, srv(1, 1, 7, "h.s.test"));
  auto good = [=](const Q &q) {
    return q.type == 16 ? answer(q.id, 0x8183, q.name, 16, 0, "") : answer(q.id, 0x8180, q.name, 255, 1, srv_rec);
  };
  auto good_once = [=](const Q &q) { return std::vector<std::string>{good(q)}; };
  auto wrong_ids = [=](const Q &q) { return std::vector<std::string>(40, good({0, q.id + 1, q.name, q.type})); };
  struct Case {
    const char *name;
    int ctype;
    ScriptedDns::Script script;
    int rc;
    const char *servers;
    const char *queries;
    const char *trace;  // a line the case must trace
    // A peer's pace (ms) and a call deadline (s): the case must end within
    // the call's time (or the request's 1 s) however the peer trickles.
    int pace_ms = 0, call_s = 0;
  };
  const Case cases[] = {
      {"truncated, then TCP", 0,
       [=](const Q &q) { return std::vector<std::string>{q.tcp ? good(q) : answer(q.id, 0x8380, q.name, 255, 0, "")}; },
       0, "1{h.s.test:7}", "U255 T255 T16", "ldapdns: connecting to 127.0.0.2 using TCP\n"},
      {"truncated under UDP only", 1,
       [=](const Q &q) {
         return std::vector<std::string>{q.type == 255 ? answer(q.id, 0x8380, q.name, 255, 1, srv_rec) : good(q)};
       },
       LDAP_DNS_TRUNCATED, "1{h.s.test:7}", "U255 U16", "ldapdns: message has been truncated\n"},
      {"wrong ID first", 1,
       [=](const Q &q) {
         return std::vector<std::string>{good({0, q.id + 1, q.name, q.type}), good(q)};
       },
       0, "1{h.s.test:7}", "U255 U16", "ldapdns: Oops, wrong packet\n"},
      {"answer from another port first", 1,
       [=](const Q &q) {
         return std::vector<std::string>{ScriptedDns::kSpoofed + answer(q.id, 0x8180, q.name, 255, 0, ""), good(q)};
       },
       0, "1{h.s.test:7}", "U255 U16", "ldapdns: Oops, wrong packet\n"},
      {"TCP only", 2, [=](const Q &q) { return std::vector<std::string>{good(q)}; }, 0, "1{h.s.test:7}", "T255 T16",
       "ldapdns: SRV record found: 1 1 7 h.s.test\n"},
      {"more answers than records", 1,
       [=](const Q &q) { return std::vector<std::string>{answer(q.id, 0x8180, q.name, 255, 2, srv_rec)}; },
       LDAP_DNS_INVALID_DATA, "", "U255", "ldap_server_locate: *server_info_listpp = (nil)\n"},
      {"compression loop", 1,
       [=](const Q &q) {
         return std::vector<std::string>{answer(q.id, 0x8180, q.name, 255, 1, std::string("\xc0\x23", 2) + u16(33))};
       },
       LDAP_DNS_INVALID_DATA, "", "U255", "ldap_server_locate: *server_info_listpp = (nil)\n"},
      {"pointer past the end", 1,
       [=](const Q &q) {
         return std::vector<std::string>{answer(q.id, 0x8180, q.name, 255, 1, std::string("\xc1\x00", 2) + u16(33))};
       },
       LDAP_DNS_INVALID_DATA, "", "U255", "ldap_server_locate: *server_info_listpp = (nil)\n"},
      {"record longer than the message", 1,
       [=](const Q &q) {
         return std::vector<std::string>{answer(q.id, 0x8180, q.name, 255, 1, srv_rec.substr(0, srv_rec.size() - 3))};
       },
       LDAP_DNS_INVALID_DATA, "", "U255", "ldap_server_locate: *server_info_listpp = (nil)\n"},
      {"negative answer", 1,
       [=](const Q &q) { return std::vector<std::string>{answer(q.id, 0x8183, q.name, 255, 0, "")}; },
       LDAP_DNS_SERVERS_FOUND, "", "U255", "ldapdns: DNS response code = 3\n"},
      {"silence, then silence over TCP", 0, [](const Q &) { return std::vector<std::string>{}; }, LDAP_CONNECT_ERROR,
       "", "U255 T255", "ldapdns: connection has timed out\n"},
      {"TCP answer a byte every 0.5 s", 2, good_once, LDAP_CONNECT_ERROR, "", "T255",
       "ldapdns: connection has timed out\n", 500},
      {"TCP answer a byte every 0.5 s, call of 2 s", 2, good_once, LDAP_CONNECT_ERROR, "", "T255",
       "ldapdns: connection has timed out\n", 500, 2},
      {"wrong IDs every 0.5 s", 1, wrong_ids, LDAP_CONNECT_ERROR, "", "U255", "ldapdns: connection has timed out\n",
       500},
      {"wrong IDs every 0.5 s, call of 2 s", 1, wrong_ids, LDAP_CONNECT_ERROR, "", "U255",
       "ldapdns: connection has timed out\n", 500, 2},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedDns peer("127.0.0.2", c.script, c.pace_ms);
    ASSERT_TRUE(peer.ok());
    // Under a call deadline the request's own time-out is the default 10 s.
    Request q{.domains = {"s.test"}, .servers = {"127.0.0.2"}, .ctype = c.ctype, .timeout = c.call_s ? 10 : 1};
    q.key = "_ldap";
    q.proto = "_tcp";
    const timeval call = {c.call_s, 0};
    const int64_t start = ldap_monotonic_ns();
    const std::string trace = traced(0xffff, [&] {
      CallDeadline deadline(c.call_s ? &call : nullptr);
      EXPECT_EQ(locate(q), std::make_pair(c.rc, std::string(c.servers)));
    });
    if (c.pace_ms) {
      EXPECT_LT((ldap_monotonic_ns() - start) / 1e9, (c.call_s ? c.call_s : 1) + 1.5);
    }
    EXPECT_NE(trace.find(c.trace), std::string::npos) << trace;
    std::string seen;
    for (const Q &x : peer.queries())
      seen += (seen.empty() ? "" : " ") + std::string(x.tcp ? "T" : "U") + std::to_string(x.type);
    EXPECT_EQ(seen, c.queries);
  }
}

TEST_F(DnsLocate, FileOnlyFileThenDnsAndFailureCodes) {
  const std::string l1 = ldap1();
  write_file(dir->file("info.conf"),
             "0\nldap example.com file1 0 0 1389 0 1 \"dc=example,dc=com\"\n"
             "ldap other.test file2 3 0 389\n");
  write_file(dir->file("expired.conf"), "1000\nldap example.com file1\n");
  const std::string info = dir->file("info.conf"), expired = dir->file("expired.conf");
  struct Case {
    const char *name;
    Request q;
    int rc;
    std::string servers;
  };
  // The file alone (source 1) or first (source 0, then the private dnsmasq).
  auto from = [](const char *domain, int source, const std::string &file, const char *filter = nullptr) {
    return Request{.domains = {domain},
                   .servers = source ? std::vector<std::string>{} : std::vector<std::string>{"127.0.0.1"},
                   .source = source,
                   .filter = filter,
                   .file = file};
  };
  const Case cases[] = {
      {"file only", from("example.com", 1, info), 0, "0{file1:1389}"},
      {"file only, filter", from("example.com", 1, info, "o=x"), LDAP_DNS_SERVERS_FOUND, ""},
      {"file only, no server", from("empty.test", 1, info), LDAP_DNS_SERVERS_FOUND, ""},
      {"file only, expired", from("example.com", 1, expired), LDAP_DNS_CONF_FILE_ERROR, ""},
      {"file then DNS, in the file", from("example.com", 0, info), 0, "0{file1:1389}"},
      {"file then DNS, not in the file", from("txt.test", 0, info), 0, "10{" + l1 + "}"},
      {"file then DNS, expired file", from("txt.test", 0, expired), 0, "10{" + l1 + "}"},
      {"name server not numeric", {{"example.com"}, {"localhost"}}, LDAP_LOCAL_ERROR, ""},
      {"name server not numeric, then one that is", {{"txt.test"}, {"localhost", "127.0.0.1"}}, 0, "10{" + l1 + "}"},
      {"connection refused",
       {.domains = {"example.com"}, .servers = {"127.0.0.3"}, .ctype = 2},
       LDAP_CONNECT_ERROR,
       ""},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(locate(c.q), std::make_pair(c.rc, c.servers));
  }
  ldap_server_request r{};
  EXPECT_EQ(ldap_server_locate(&r, nullptr), LDAP_PARAM_ERROR);
  // No name servers anywhere: the system configuration is missing.
  write_file(dir->file("resolv.conf"), "search example.com\n");
  EXPECT_EQ(locate({.domains = {"example.com"}}), std::make_pair(LDAP_DNS_RESOLVE_ERROR, std::string()));
  // No domain configured: the host name's domain, if it has one (the
  // namespace has its own host name).
  write_file(dir->file("resolv.conf"), "nameserver 127.0.0.1\n");
  for (const auto &[host, rc] : {std::pair{"client.txt.test", 0}, {"client", LDAP_DNS_RESOLVE_ERROR}}) {
    ASSERT_EQ(sethostname(host, strlen(host)), 0);
    EXPECT_EQ(locate({}).first, rc) << host;
  }
  write_file(dir->file("resolv.conf"), kResolv);
  // A saved list reads back as the same servers.
  LDAPServerInfo *list = nullptr;
  CRequest c({{"example.com"}, {"127.0.0.1"}});
  ASSERT_EQ(ldap_server_locate(&c.r, &list), 0);
  ASSERT_EQ(ldap_server_cache_save(dir->file("saved/info.conf").c_str(), 60, list), 0);
  EXPECT_EQ(locate({.domains = {"example.com"}, .source = 1, .file = dir->file("saved/info.conf")}),
            std::make_pair(0, groups(list)));
  ldap_server_free_list(list);
}

TEST_F(DnsLocate, EveryAllocationFailureGivesNoMemory) {
  write_file(dir->file("sweep.conf"), "0\nldap example.com f1 0 0 1389 0 1 \"dc=example,dc=com\" \"v\" \"i\"\n");
  // DNS with host attributes; the file, then DNS for the domain it lacks.
  for (const Request &q : {Request{{"example.com"}, {"127.0.0.1"}}, Request{.domains = {"txt.test", "example.com"},
                                                                    .servers = {"127.0.0.1"},
                                                                    .source = 0,
                                                                    .file = dir->file("sweep.conf")}}) {
    CRequest c(q);
    LDAPServerInfo *list = nullptr;
    const long runs = sweep_allocations([&] { return ldap_server_locate(&c.r, &list); },
                                        [&](int rc, bool failed, long n) {
                                          ASSERT_EQ(rc, failed ? LDAP_NO_MEMORY : 0) << "allocation " << n;
                                          EXPECT_EQ(list == nullptr, failed);
                                          ldap_server_free_list(std::exchange(list, nullptr));
                                        });
    EXPECT_GT(runs, 10);  // the hook reached the locator's allocations
  }
}

TEST_F(DnsLocate, LdapInitOnAHostlessUrlReachesTheLocatedServer) {
  SharedObject so;
  ASSERT_TRUE(so.loaded());
  auto init = so.fn<LDAP *(*)(const char *, int)>("tav_ldap_init");
  auto bind = so.fn<int (*)(LDAP *, const char *, const char *)>("tav_ldap_simple_bind_s");
  auto search = so.fn<int (*)(LDAP *, const char *, int, const char *, char **, int, struct timeval *, LDAPMessage **)>(
      "tav_ldap_search_st");
  auto count = so.fn<int (*)(LDAP *, LDAPMessage *)>("tav_ldap_count_entries");
  auto msgfree = so.fn<int (*)(LDAPMessage *)>("tav_ldap_msgfree");
  auto unbind = so.fn<int (*)(LDAP *)>("tav_ldap_unbind");
  // example.com: the plain server only; failover.test: a dead server first.
  const std::pair<const char *, std::string> cases[] = {
      {"example.com", ldap1()}, {"failover.test", "down.failover.test:" + std::to_string(dead_port) + " " + ldap1()}};
  for (const auto &[domain, hosts] : cases) {
    SCOPED_TRACE(domain);
    setenv("LOCALDOMAIN", domain, 1);
    LDAP *ld = init("ldap:///dc=example,dc=com", 0);
    unsetenv("LOCALDOMAIN");
    ASSERT_NE(ld, nullptr);
    EXPECT_EQ(ld->ld_defhost, hosts);
    EXPECT_EQ(bind(ld, SlapdServer::kRootDn, SlapdServer::kRootPw), 0);
    LDAPMessage *res = nullptr;
    struct timeval tv = {10, 0};
    EXPECT_EQ(search(ld, SlapdServer::kPeopleDn, 1, "(uid=*)", nullptr, 0, &tv, &res), 0);
    EXPECT_EQ(count(ld, res), 5);
    msgfree(res);
    unbind(ld);
  }
  // ldaps:/// takes the servers published for SSL only.
  LDAP *ld = init("ldaps:///dc=example,dc=com", 0);
  ASSERT_NE(ld, nullptr);
  EXPECT_STREQ(ld->ld_defhost, "ldaps1.example.com:1636");
  unbind(ld);
}

}  // namespace
