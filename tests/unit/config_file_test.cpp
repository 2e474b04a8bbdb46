// The client configuration file: its word rules, look-ups, search order and
// the path and word helpers it shares.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ldap-plugin.h"
#include "ldap-utils.h"

namespace {

std::string str(const char *s) { return s != nullptr ? s : "(null)"; }

// Parses `text` as a whole file; each accepted line as "kind|type|name|path|init|args".
std::vector<std::string> parse(const std::string &text) {
  FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
  ldap_conf_list list = {nullptr, nullptr};
  EXPECT_EQ(ldap_process_conf_data(f, &list), 0);
  fclose(f);
  std::vector<std::string> out;
  for (ldap_conf_entry *e = list.head; e != nullptr; e = e->next) {
    const ldap_conf_fields &w = *e->fields;
    out.push_back(str(w.kind) + "|" + str(w.type) + "|" + str(w.name) + "|" + str(w.path) + "|" + str(w.init_function) +
                  "|" + str(w.args));
  }
  ldap_conf_list_free(&list);
  return out;
}

TEST(ConfigFile, WordRules) {
  struct Case {
    std::string line;
    std::string want;  // "" = ignored
  } cases[] = {
      {"plugin sasl GSSAPI /usr/lib/libgssplugin.so\n", "plugin|sasl|GSSAPI|/usr/lib/libgssplugin.so|(null)|(null)"},
      {"plugin sasl DIGEST-MD5 /lib/libdig.so my_init -a one -b two\n",
       "plugin|sasl|DIGEST-MD5|/lib/libdig.so|my_init|-a one -b two"},
      {"plugin\tsasl  X\t/lib/x.so\tinit\t-a b\tignored after the tab\n", "plugin|sasl|X|/lib/x.so|init|-a b"},
      {"plugin sasl X /lib/x.so init\n", "plugin|sasl|X|/lib/x.so|init|(null)"},
      {"plugin sasl X\n", ""},
      {"#plugin sasl X /lib/x.so\n", ""},
      {" #plugin sasl X /lib/x.so\n", "#plugin|sasl|X|/lib/x.so|(null)|(null)"},  // only column 1 comments
      {"\n", ""},
      {"plugin sasl Y /lib/y.so", "plugin|sasl|Y|/lib/y.so|(null)|(null)"},  // no final newline
  };
  for (const Case &c : cases) {
    std::vector<std::string> got = parse(c.line);
    EXPECT_EQ(got.empty() ? "" : got[0], c.want) << c.line;
    EXPECT_LE(got.size(), 1u) << c.line;
  }
  // A line longer than 511 characters is read in 511-character pieces.
  std::string longline = "plugin sasl LONG /lib/l.so init " + std::string(600, 'a') + "\n";
  std::vector<std::string> got = parse(longline);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].size(), std::string("plugin|sasl|LONG|/lib/l.so|init|").size() + 511 - 32);
  // Entries keep file order; ignored lines between them do not matter.
  EXPECT_EQ(parse("# c\na b c d\nshort\ne f g h\n"),
            (std::vector<std::string>{"a|b|c|d|(null)|(null)", "e|f|g|h|(null)|(null)"}));
}

TEST(ConfigFile, LookupIsExactAndFirstInFileOrder) {
  const std::string text = "plugin sasl gssapi /lib/a.so\nplugin sasl GSSAPI /lib/b.so\nplugin sasl GSSAPI /lib/c.so\n";
  FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
  ldap_conf_list list = {nullptr, nullptr};
  ASSERT_EQ(ldap_process_conf_data(f, &list), 0);
  fclose(f);
  char plugin[] = "plugin", sasl[] = "sasl", upper[] = "GSSAPI", other[] = "GSSAPi";
  ldap_conf_fields key = {plugin, sasl, upper, nullptr, nullptr, nullptr};
  ldap_conf_entry *e = ldap_conf_find(&list, &key);
  ASSERT_NE(e, nullptr);
  EXPECT_STREQ(e->fields->path, "/lib/b.so");
  key.name = other;
  EXPECT_EQ(ldap_conf_find(&list, &key), nullptr);
  ldap_conf_list_free(&list);
}

TEST(ConfigFile, SearchOrderStartsWithTheEnvironmentDirectory) {
  char dir[] = "/tmp/tavconf.XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  setenv("KRVLDAP_CONF", dir, 1);
  char *found = ldap_locate_conf_file();
  // Without a file there the default places follow (absent on a test machine).
  EXPECT_TRUE(found == nullptr || std::string(found).rfind("/opt/KRV/ldap/V6.2/", 0) == 0) << found;
  free(found);
  const std::string path = std::string(dir) + "/krvldap.conf";
  FILE *f = fopen(path.c_str(), "w");
  fclose(f);
  found = ldap_locate_conf_file();
  EXPECT_EQ(str(found), path);
  free(found);
  unlink(path.c_str());
  rmdir(dir);
  unsetenv("KRVLDAP_CONF");
}

TEST(PathHelpers, ExtensionsPathsAndWords) {
  struct Ext {
    const char *path;
    char sep;
    const char *want;
  } exts[] = {{"/opt/p/libx.sl", '.', "/opt/p/libx.so"},
              {"/opt/p/libx", '.', "/opt/p/libx.so"},
              {"/opt/p/libx.so", '.', "/opt/p/libx.so"},
              {"name", 0, "nameso"}};
  for (const Ext &e : exts) {
    char *got = ldap_replace_extension(e.path, e.sep, "so");
    EXPECT_EQ(str(got), e.want) << e.path;
    free(got);
  }
  const char *subdirs[] = {"a", "b", nullptr};
  char *p = ldap_make_path("/d", subdirs, "f.conf");
  EXPECT_EQ(str(p), "/d/a/b/f.conf");
  free(p);
  p = ldap_get_default_config_path('/');
  EXPECT_EQ(str(p), "/opt/KRV/ldap/V6.2/etc");
  free(p);

  struct Split {
    const char *text;
    int max;
    std::vector<std::string> want;
  } splits[] = {
      {"  -a one\t-b\ntwo ", 64, {"-a", "one", "-b", "two"}}, {"a b c", 2, {"a", "b"}}, {"", 64, {}}, {" \t", 64, {}}};
  for (const Split &s : splits) {
    char *vec[65];
    int count = -1;
    ASSERT_EQ(ldap_split_args(s.text, s.max, &count, vec), 0);
    EXPECT_EQ(std::vector<std::string>(vec, vec + count), s.want) << s.text;
    EXPECT_EQ(vec[count], nullptr);
    if (count > 0) free(vec[0]);
  }
  char *vec[2];
  int count = -1;
  EXPECT_EQ(ldap_split_args(nullptr, 1, &count, vec), 1);
  EXPECT_EQ(count, 0);
  for (int c = 0; c < 256; ++c) EXPECT_EQ(ldap_is_blank(c), c == ' ' || c == '\t' || c == '\n' || c == '\r') << c;
}

TEST(PathHelpers, AllocationFailuresGiveNoResultAndLeakNothing) {
  for (long n = 1;; ++n) {
    olx_fail_alloc_at(n);
    char *vec[65];
    int count = 0;
    int rc = ldap_split_args("a b", 64, &count, vec);
    char *p = ldap_make_path("/d", nullptr, "f");
    const std::string text = "a b c d\ne f g h\n";
    FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    ldap_conf_list list = {nullptr, nullptr};
    int prc = ldap_process_conf_data(f, &list);
    fclose(f);
    long used = olx_fail_alloc_at(0);
    EXPECT_TRUE(rc == 0 || (rc == 90 && count == 0));
    EXPECT_TRUE(prc == 0 || prc == 90);
    if (count > 0) free(vec[0]);
    free(p);
    ldap_conf_list_free(&list);
    if (used < n) break;
  }
}

TEST(ParameterBlock, SetReplacesGetFindsAndMissingIsOne) {
  LDAP_PBLOCK *pb = ldap_pblock_new();
  ASSERT_NE(pb, nullptr);
  EXPECT_EQ(tavldap_plugin_api_of(pb)->version, TAVLDAP_PLUGIN_API_VERSION);
  int a = 0, b = 0;
  void *v = nullptr;
  EXPECT_EQ(ldap_pblock_get(pb, 301, &v), 1);
  EXPECT_EQ(ldap_pblock_set(pb, 301, &a), 0);
  EXPECT_EQ(ldap_pblock_set(pb, 302, &b), 0);
  EXPECT_EQ(ldap_pblock_set(pb, 301, &b), 0);
  EXPECT_EQ(ldap_pblock_get(pb, 301, &v), 0);
  EXPECT_EQ(v, &b);
  EXPECT_EQ(ldap_pblock_set(nullptr, 1, nullptr), 82);
  olx_fail_alloc_at(1);
  EXPECT_EQ(ldap_pblock_set(pb, 303, &a), 90);
  olx_fail_alloc_at(0);
  ldap_pblock_free(pb);
}

}  // namespace
