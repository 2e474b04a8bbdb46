// The DNS answer checks and record parsing, host attributes, and the
// resolver configuration rules, on messages and files built here.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "dns_peer.h"
#include "ldap-dns.h"
#include "process.h"

using namespace tavtest;
using namespace tavtest::dns;

namespace {

const std::string kQ = "_ldap._tcp.example.com";
const std::string kOwner = std::string("\xc0\x0c", 2);  // pointer to the question name

std::string render(const LDAPServerInfo *s) {
  std::string out;
  for (; s != nullptr; s = s->next) {
    out += std::string(out.empty() ? "" : " ") + s->host + ":" + std::to_string(s->port) + "/" +
           std::to_string(s->priority) + "/" + std::to_string(s->weight);
    if (s->suffix) out += std::string("/") + s->suffix;
    if (s->sec_flag) out += "/sec" + std::to_string(s->sec_flag);
  }
  return out;
}

struct State {
  ldap_dns_state st{};
  std::string msg;
  explicit State(const std::string &m, int ctype = 0) : msg(m) {
    st.sock = -1;
    st.connection_type = ctype;
    st.current_domain = "example.com";
    st.packet = static_cast<unsigned char *>(malloc(m.size() + 1));
    memcpy(st.packet, m.data(), m.size());
    st.packet_len = m.size();
  }
  ~State() { ldap_dns_state_free(&st); }
};

// IDs, truncation, negative answers, counts, loops and overruns are also
// driven through the scripted responder (dns_locate_test).
TEST(DnsAnswer, RecordsBecomeServersAndOverrunsAreInvalid) {
  struct Case {
    const char *name;
    std::string msg;
    int check_rc;
    int parse_rc;  // of the parse of SRV, then TXT, then CNAME
    const char *servers;
  };
  const std::string two_srv = record(kOwner, 33, srv(10, 1, 1389, "b.example.com")) +
                              record(kOwner, 33, srv(5, 2, 0, "a.example.com")) + record(kOwner, 99, "xyz");
  const std::string label = std::string(1, '\x3f') + "abc";
  const Case cases[] = {
      {"SRV by priority", answer(7, 0x8180, kQ, 255, 3, two_srv), 0, 0, "a.example.com:0/5/2 b.example.com:1389/10/1"},
      {"SRV target compressed", answer(7, 0x8180, kQ, 255, 1, record(kOwner, 33, u16(1) + u16(2) + u16(3) + kOwner)), 0,
       0, "_ldap._tcp.example.com:3/1/2"},
      {"SRV root target", answer(7, 0x8180, kQ, 255, 1, record(kOwner, 33, srv(1, 1, 1, ""))), 0, 0, ""},
      {"TXT one string", answer(7, 0x8180, kQ, 255, 1, record(kOwner, 16, txt({"10 5 1389 ldap1"}))), 0, 0,
       "ldap1.example.com:1389/10/5"},
      {"TXT four strings", answer(7, 0x8180, kQ, 255, 1, record(kOwner, 16, txt({"1", "2", "3", "h.other."}))), 0, 0,
       "h.other:3/1/2"},
      {"TXT too few words", answer(7, 0x8180, kQ, 255, 1, record(kOwner, 16, txt({"1 2 3"}))), 0, 0, ""},
      {"CNAME", answer(7, 0x8180, kQ, 255, 1, record(kOwner, 5, name("alias.example.com"))), 0, 0,
       "alias.example.com:0/0/0"},
      {"short header", std::string("\0\7\x81", 3), LDAP_DNS_INVALID_DATA, 0, ""},
      {"question past the end", header(7, 0x8180, 2, 0) + name(kQ) + u16(255), LDAP_DNS_INVALID_DATA, 0, ""},
      {"label past the end", answer(7, 0x8180, kQ, 255, 1, label), 0, LDAP_DNS_INVALID_DATA, ""},
      {"SRV name beyond its record",
       answer(7, 0x8180, kQ, 255, 2,
              record(kOwner, 33, u16(1) + u16(1) + u16(1) + name("a").substr(0, 2)) + record(name(""), 99, "")),
       0, LDAP_DNS_INVALID_DATA, ""},
      {"TXT string beyond its record", answer(7, 0x8180, kQ, 255, 1, record(kOwner, 16, std::string(1, 9) + "abc")), 0,
       LDAP_DNS_INVALID_DATA, ""},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    State s(c.msg);
    ASSERT_EQ(ldap_dns_check_answer(&s.st, 7), c.check_rc);
    if (c.check_rc != 0) continue;
    int rc = 0;
    for (int type : {33, 16, 5})
      if (rc == 0 && s.st.found == nullptr) rc = ldap_dns_parse_answers(&s.st, nullptr, type);
    EXPECT_EQ(rc, c.parse_rc);
    EXPECT_EQ(render(s.st.found), c.servers);
  }
}

TEST(DnsAnswer, HostAttributesSetUrlTypeVendorAndInfo) {
  struct Case {
    std::vector<std::string> strings;
    unsigned short port;
    const char *rendered;
    int replica;
    const char *vendor;
    const char *info;
  };
  const Case cases[] = {
      {{"service:ldaps://h.example:1636/o=x", "ldaptype:Master", "ldapvendor: V", "ldapinfo:", "junk", "x:y"},
       0,
       "h.example:1636/0/0/o=x/sec2",
       1,
       "V",
       nullptr},
      {{"service: LDAP://h2", "ldaptype:replica", "ldapinfo:free text"}, 0, "h2:389/0/0/sec1", 2, nullptr, "free text"},
      {{"service:ldap://h3:99/o=y?base"}, 7, "h3:7/0/0/o=y/sec1", 0, nullptr, nullptr},
      {{"ldaptype:REPLICA", "Service:ldaps://x"}, 7, "orig:7/0/0", 0, nullptr, nullptr},
      {{"service:http://x/"}, 7, "orig:7/0/0", 0, nullptr, nullptr},
      {{"service:ldap:///o=x"}, 7, "orig:7/0/0", 0, nullptr, nullptr},
      {{"service:ldap://h:/o=x"}, 7, "orig:7/0/0", 0, nullptr, nullptr},
      {{"service:ldap://h:12a"}, 7, "orig:7/0/0", 0, nullptr, nullptr},
      {{"service:ldap://h/"}, 7, "orig:7/0/0", 0, nullptr, nullptr},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.strings[0]);
    State s(answer(7, 0x8180, "orig", 16, 1, record(kOwner, 16, txt(c.strings))));
    ASSERT_EQ(ldap_dns_check_answer(&s.st, 7), 0);
    LDAPServerInfo *server = static_cast<LDAPServerInfo *>(calloc(1, sizeof(LDAPServerInfo)));
    server->host = strdup("orig");
    server->port = c.port;
    EXPECT_EQ(ldap_dns_parse_answers(&s.st, server, 16), 0);
    EXPECT_EQ(render(server), c.rendered);
    EXPECT_EQ(server->replica, c.replica);
    EXPECT_STREQ(server->vendor, c.vendor);
    EXPECT_STREQ(server->info, c.info);
    ldap_server_free_list(server);
  }
}

TEST(DnsConfig, ResolvConfLinesGiveServersAndDomains) {
  struct Case {
    std::string content;
    int need_servers;
    int rc;
    const char *servers;
    const char *domains;
  };
  const Case cases[] = {
      {"nameserver 127.0.0.1\nnameserver\t::1\nsearch a.example  b.example\n", 1, 0, "127.0.0.1,::1,",
       "a.example,b.example,"},
      {"search a.example\ndomain c.example\n# nameserver 1.2.3.4\n", 0, 0, "", "c.example,"},
      {"domain c.example\nsearch x y\nnameserver 10.0.0.1\n", 1, 0, "10.0.0.1,", "x,y,"},
      {" nameserver 1.1.1.1\nNameserver 2.2.2.2\n", 1, 0, "1.1.1.1,", ""},
      {"nameserver 10.0.0.1 \nnameserver 10.0.0.2\r\nnameserver 10.0.0.3 # office\nnameserver 10.0.0.4;x\n"
       "; nameserver 10.0.0.5\n# nameserver 10.0.0.6\nnameserver 10.0.0.7",
       1, 0, "10.0.0.1,10.0.0.2,10.0.0.3,10.0.0.4,10.0.0.7,", ""},
      {"nameserver ns.example\nnameserver\nnameservers 10.0.0.8\nnameserver10.0.0.9\noptions ndots:2\nx\n"
       "nameserver ::1\n",
       1, 0, "::1,", ""},
      {"search a.example b.example # old\r\ndomain c.example d.example\r\ndomain\nsearch ;\n", 0, 0, "", "c.example,"},
      {"#" + std::string(254, ' ') + "nameserver 10.0.0.1\nnameserver 10.0.0.2\n", 1, 0, "10.0.0.2,", ""},
      {"", 1, LDAP_DNS_RESOLVE_ERROR, "", ""},
      {"", 0, 0, "", ""},
  };
  TempDir dir;
  auto join = [](char **list) {
    std::string out;
    for (; list != nullptr && *list != nullptr; ++list) out += std::string(*list) + ",";
    return out;
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.content);
    write_file(dir.file("resolv.conf"), c.content);
    State s("");
    EXPECT_EQ(ldap_dns_read_resolv_conf(&s.st, dir.file("resolv.conf").c_str(), c.need_servers), c.rc);
    EXPECT_EQ(join(s.st.owned_servers), c.servers);
    EXPECT_EQ(join(s.st.dns_domains), c.domains);
  }
  State s("");
  EXPECT_EQ(ldap_dns_read_resolv_conf(&s.st, dir.file("missing").c_str(), 1), LDAP_DNS_RESOLVE_ERROR);
  EXPECT_EQ(ldap_dns_read_resolv_conf(&s.st, dir.file("missing").c_str(), 0), 0);
}

}  // namespace
