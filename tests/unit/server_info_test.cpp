// The server information file, the suffix filter and the order of servers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "ldap-dns.h"
#include "process.h"

using namespace tavtest;

namespace {

std::string render(const LDAPServerInfo *s) {
  std::string out;
  auto str = [](const char *v) { return v ? std::string(v) : std::string("-"); };
  for (; s != nullptr; s = s->next)
    out += str(s->service) + " " + str(s->domain) + " " + str(s->host) + " " + std::to_string(s->priority) + " " +
           std::to_string(s->weight) + " " + std::to_string(s->port) + " " + std::to_string(s->replica) + " " +
           std::to_string(s->sec_flag) + " [" + str(s->suffix) + "][" + str(s->vendor) + "][" + str(s->info) + "]\n";
  return out;
}

LDAPServerInfo *server(const char *host, int prio, int weight, const char *suffix = nullptr) {
  LDAPServerInfo *s = static_cast<LDAPServerInfo *>(calloc(1, sizeof(LDAPServerInfo)));
  s->host = strdup(host);
  s->service = strdup("ldap");
  s->domain = strdup("example");
  s->priority = (unsigned short)prio;
  s->weight = (unsigned short)weight;
  s->suffix = suffix ? strdup(suffix) : nullptr;
  return s;
}

TEST(ServerInfoFile, LinesAreReadByTheirRules) {
  const std::string future = std::to_string(time(nullptr) + 3600);
  struct Case {
    const char *name;
    std::string content;
    int rc;
    std::string entries;
  };
  const Case cases[] = {
      {"full line", "0\nldap example ldap1.example 0 10 389 1 1 \"o=example\" \"\" \"\"\n", 0,
       "ldap example ldap1.example 0 10 389 1 1 [o=example][-][-]\n"},
      {"defaults, comments, blanks", "  # c\n\n" + future + "\n\tldap.x  dom  h\nldap dom h2 5\n", 0,
       "ldap.x dom h 0 0 389 0 0 [-][-][-]\nldap dom h2 5 0 389 0 0 [-][-][-]\n"},
      {"escapes", "0\nl d h 1 2 3 \"a\\\"b\" \"c\\\\d\" \"e\\f\"\n", 0, "l d h 1 2 3 0 0 [a\"b][c\\d][e\\f]\n"},
      {"empty file", "", 0, ""},
      {"expired", "1000\nl d h\n", LDAP_DNS_CONF_FILE_ERROR, ""},
      {"missing word", "0\nl d\nl d h\n", LDAP_DNS_CONF_FILE_ERROR, ""},
      {"bad number", "0\nl d h 1x\n", LDAP_DNS_CONF_FILE_ERROR, ""},
      {"port too big", "0\nl d h 1 1 65536\n", LDAP_DNS_CONF_FILE_ERROR, ""},
      {"unquoted string", "0\nl d h 1 1 1 1 1 o=x\n", LDAP_DNS_CONF_FILE_ERROR, ""},
      {"unclosed string", "0\nl d h \"o=x\n", LDAP_DNS_CONF_FILE_ERROR, ""},
      {"text after info", "0\nl d h \"\" \"\" \"\" x\n", LDAP_DNS_CONF_FILE_ERROR, ""},
      {"bad expiry", "soon\nl d h\n", LDAP_DNS_CONF_FILE_ERROR, ""},
      {"line too long", "0\nl d " + std::string(1030, 'h') + "\n", LDAP_DNS_CONF_FILE_ERROR, ""},
      {"longest line", "0\nl d " + std::string(1019, 'h') + "\n", 0,
       "l d " + std::string(1019, 'h') + " 0 0 389 0 0 [-][-][-]\n"},
  };
  TempDir dir;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    write_file(dir.file("f"), c.content);
    LDAPServerInfo *list = reinterpret_cast<LDAPServerInfo *>(1);
    EXPECT_EQ(ldap_conf_read_servers(dir.file("f").c_str(), &list), c.rc);
    EXPECT_EQ(render(list), c.entries);
    ldap_server_free_list(list);
  }
  LDAPServerInfo *list = nullptr;
  EXPECT_EQ(ldap_conf_read_servers(dir.file("none").c_str(), &list), LDAP_DNS_CONF_FILE_ERROR);
}

TEST(ServerInfoFile, SavedListReadsBackTheSame) {
  TempDir dir;
  LDAPServerInfo *list = server("h1", 1, 2, "o=\"q\",dc=x\\y");
  list->vendor = strdup("V \\ \"w\"");
  list->port = 1389;
  list->replica = 2;
  list->sec_flag = 1;
  ldap_dns_append(&list, server("h2", 0, 0));
  for (unsigned long ttl : {0ul, 3600ul}) {
    const std::string path = dir.file("a/b/c/info.conf");
    ASSERT_EQ(ldap_server_cache_save(path.c_str(), ttl, list), 0);
    struct stat st;
    ASSERT_EQ(stat(dir.file("a/b").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);
    const std::string text = read_file(path);
    const std::string header =
        "# LDAP configuration file.\n# The following line hold the files expiration time, which is\n"
        "# a UNIX time_t value (time in seconds since January 1, 1970\n"
        "# UTC). A value of 0 indicates that the file will not expire.\n";
    ASSERT_EQ(text.compare(0, header.size(), header), 0) << text;
    unsigned long expiry = strtoul(text.c_str() + header.size(), nullptr, 10);
    if (ttl == 0)
      EXPECT_EQ(expiry, 0u);
    else
      EXPECT_NEAR((double)expiry, (double)(time(nullptr) + ttl), 5.0);
    EXPECT_NE(text.find("ldap example h1 1 2 1389 2 1 \"o=\\\"q\\\",dc=x\\\\y\" \"V \\\\ \\\"w\\\"\" \"\"\n"),
              std::string::npos)
        << text;
    LDAPServerInfo *back = nullptr;
    ASSERT_EQ(ldap_conf_read_servers(path.c_str(), &back), 0);
    EXPECT_EQ(render(back), render(list));
    ldap_server_free_list(back);
  }
  write_file(dir.file("file"), "");
  EXPECT_EQ(ldap_server_cache_save(dir.file("file/x/y").c_str(), 0, list), LDAP_LOCAL_ERROR);
  ldap_server_free_list(list);
}

TEST(ServerInfoFile, WhatIsSavedReadsBack) {
  // Each row saves a good server and one changed by `spoil`; the file must
  // read back, holding the good one and the other only when `kept`.
  struct Case {
    const char *name;
    void (*spoil)(LDAPServerInfo *);
    unsigned long ttl;
    bool kept;
  };
  const Case cases[] = {
      {"plain", [](LDAPServerInfo *) {}, 3600, true},
      {"time to live 3e9", [](LDAPServerInfo *) {}, 3000000000ul, true},
      {"time to live ULONG_MAX", [](LDAPServerInfo *) {}, ULONG_MAX, true},
      {"newline in vendor", [](LDAPServerInfo *s) { s->vendor = strdup("line1\nline2"); }, 0, false},
      {"carriage return in info", [](LDAPServerInfo *s) { s->info = strdup("a\rb"); }, 0, true},
      {"newline in suffix", [](LDAPServerInfo *s) { s->suffix = strdup("o=a\n0"); }, 0, false},
      {"blank in host", [](LDAPServerInfo *s) { s->host[1] = ' '; }, 0, false},
      {"empty host", [](LDAPServerInfo *s) { s->host[0] = '\0'; }, 0, false},
      {"service like a comment", [](LDAPServerInfo *s) { s->service[0] = '#'; }, 0, false},
      {"negative replica", [](LDAPServerInfo *s) { s->replica = -1; }, 0, false},
      {"line of 1023", [](LDAPServerInfo *s) { s->info = strdup(std::string(980, 'i').c_str()); }, 0, true},
      {"line of 1024", [](LDAPServerInfo *s) { s->info = strdup(std::string(981, 'i').c_str()); }, 0, false},
      {"escapes make it long", [](LDAPServerInfo *s) { s->info = strdup(std::string(500, '"').c_str()); }, 0, false},
  };
  TempDir dir;
  const std::string path = dir.file("info.conf");
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    LDAPServerInfo *good = server("good", 1, 2, "o=x");
    LDAPServerInfo *odd = server("odd.example", 3, 4);
    c.spoil(odd);
    LDAPServerInfo *list = ldap_server_info_dup(good);
    ldap_dns_append(&list, odd);
    if (c.kept) ldap_dns_append(&good, ldap_server_info_dup(odd));
    ASSERT_EQ(ldap_server_cache_save(path.c_str(), c.ttl, list), 0);
    LDAPServerInfo *back = nullptr;
    EXPECT_EQ(ldap_conf_read_servers(path.c_str(), &back), 0) << read_file(path);
    EXPECT_EQ(render(back), render(good));
    ldap_server_free_list(back);
    ldap_server_free_list(good);
    ldap_server_free_list(list);
  }
}

TEST(ServerInfoFile, SavesReplaceTheFileWholeOrNotAtAll) {
  TempDir dir;
  LDAPServerInfo *a = server("a", 1, 1), *b = server("b", 2, 2);
  ldap_dns_append(&b, server("b2", 3, 3));
  // The temporary name (the target's and 7 more) is too long to create.
  const std::string target = dir.file(std::string(250, 'f'));
  const std::string before = "0\nldap example a 1 1\n";
  write_file(target, before);
  EXPECT_EQ(ldap_server_cache_save(target.c_str(), 0, b), LDAP_LOCAL_ERROR);
  EXPECT_EQ(read_file(target), before);
  // Two savers and a reader at once: the reader sees one list or the other.
  const std::string path = dir.file("shared.conf");
  ASSERT_EQ(ldap_server_cache_save(path.c_str(), 0, a), 0);
  const std::string ra = render(a), rb = render(b);
  std::atomic<int> failures{0};
  std::vector<std::thread> savers;
  for (LDAPServerInfo *saved : {a, b})
    savers.emplace_back([&, saved] {
      for (int i = 0; i < 300; ++i) failures += ldap_server_cache_save(path.c_str(), 0, saved) != 0;
    });
  int torn = 0;
  for (int i = 0; i < 300; ++i) {
    LDAPServerInfo *back = nullptr;
    const int rc = ldap_conf_read_servers(path.c_str(), &back);
    const std::string got = render(back);
    torn += rc != 0 || (got != ra && got != rb);
    ldap_server_free_list(back);
  }
  for (std::thread &t : savers) t.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(torn, 0);
  LDAPServerInfo *last = nullptr;
  EXPECT_EQ(ldap_conf_read_servers(path.c_str(), &last), 0);
  ldap_server_free_list(last);
  ldap_server_free_list(b);
  ldap_server_free_list(a);
}

TEST(ServerSelection, SuffixFitsTheFilterOrLiesBelowIt) {
  const struct {
    const char *suffix, *filter;
    int fits;
  } cases[] = {
      {"o=example", nullptr, 1},
      {nullptr, nullptr, 1},
      {nullptr, "o=example", 0},
      {"o=example", "o=example", 1},
      {"ou=a, O=Example ", "o=example", 1},
      {"o=other", "o=example", 0},
      {"o=example", "ou=a,o=example", 0},
      {"dc=xexample", "dc=example", 0},
      {"ou=a,o=ex", "ou=b,o=ex", 0},
  };
  for (const auto &c : cases)
    EXPECT_EQ(ldap_dns_suffix_fits(c.suffix, c.filter), c.fits) << (c.suffix ? c.suffix : "-") << " / " << c.filter;
}

TEST(ServerSelection, PriorityFirstThenWeightZeroServersKeepTheirOrder) {
  LDAPServerInfo *list = nullptr;
  const struct {
    const char *host;
    int prio, weight;
  } in[] = {{"c", 10, 0}, {"a", 5, 0}, {"d", 10, 0}, {"b", 5, 0}, {"e", 10, 7}};
  for (const auto &s : in) ldap_dns_insert_by_priority(&list, server(s.host, s.prio, s.weight));
  ldap_dns_order_servers(&list, 42);
  std::string order;
  for (LDAPServerInfo *s = list; s != nullptr; s = s->next) {
    order += s->host;
    if (s->next) {
      EXPECT_EQ(s->next->prev, s);
    }
  }
  EXPECT_EQ(order, "abecd");
  ldap_server_free_list(list);
}

TEST(ServerSelection, FirstPlaceSharesFollowTheWeights) {
  // Chi-square goodness of fit at significance 0.001; servers expected first
  // fewer than 5 times are counted with the one before them.
  const std::vector<std::vector<int>> rows = {{10, 20, 30, 40}, {40000, 40000, 1}};
  const double limit[] = {0, 10.83, 13.82, 16.27};  // by degrees of freedom
  const int draws = 4000;
  for (const auto &weights : rows) {
    const int n = (int)weights.size();
    double sum = 0;
    for (int w : weights) sum += w;
    std::vector<int> first(n);
    for (int i = 0; i < draws; ++i) {
      LDAPServerInfo *list = nullptr;
      for (int k = 0; k < n; ++k) ldap_dns_append(&list, server(std::to_string(k).c_str(), 3, weights[k]));
      ldap_dns_order_servers(&list, (unsigned)i * 2654435761u);
      first[list->host[0] - '0']++;
      int count = 0;
      for (LDAPServerInfo *s = list; s != nullptr; s = s->next) ++count;
      EXPECT_EQ(count, n);
      ldap_server_free_list(list);
    }
    std::vector<double> expected, seen;
    for (int k = 0; k < n; ++k) {
      const double e = draws * weights[k] / sum;
      if (e < 5 && !expected.empty()) {
        expected.back() += e;
        seen.back() += first[k];
      } else {
        expected.push_back(e);
        seen.push_back(first[k]);
      }
    }
    double chi2 = 0;
    for (size_t k = 0; k < expected.size(); ++k)
      chi2 += (seen[k] - expected[k]) * (seen[k] - expected[k]) / expected[k];
    std::string counts;
    for (int f : first) counts += std::to_string(f) + " ";
    EXPECT_LT(chi2, limit[expected.size() - 1]) << counts;
  }
}

}  // namespace
