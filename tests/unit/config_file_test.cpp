// The client configuration file: its word rules, look-ups, search order and
// the path and word helpers it shares.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ldap-plugin.h"
#include "ldap-utils.h"
#include "process.h"

namespace {

std::string str(const char *s) { return s != nullptr ? s : "(null)"; }

// A configuration list read from `text`; 0, 90 or 192 (too large) in rc.
struct Conf {
  ldap_conf_list list = {nullptr, nullptr};
  int rc;
  explicit Conf(std::string text) {
    FILE *f = fmemopen(text.data(), text.size(), "r");
    rc = ldap_process_conf_data(f, &list);
    fclose(f);
  }
  ~Conf() { ldap_conf_list_free(&list); }
  // Each entry as "kind|type|name|path|init|args".
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (ldap_conf_entry *e = list.head; e != nullptr; e = e->next) {
      const ldap_conf_fields &w = *e->fields;
      out.push_back(str(w.kind) + "|" + w.type + "|" + w.name + "|" + w.path + "|" + str(w.init_function) + "|" +
                    str(w.args));
    }
    return out;
  }
};

TEST(ConfigFile, WordRules) {
  const std::string none = "|(null)|(null)";
  const std::pair<std::string, std::string> cases[] = {
      {"plugin sasl GSSAPI /usr/lib/libgssplugin.so\n", "plugin|sasl|GSSAPI|/usr/lib/libgssplugin.so" + none},
      {"plugin sasl DIGEST-MD5 /lib/libdig.so my_init -a one -b two\n",
       "plugin|sasl|DIGEST-MD5|/lib/libdig.so|my_init|-a one -b two"},
      {"plugin\tsasl  X\t/lib/x.so\tinit\t-a b\tignored after the tab\n", "plugin|sasl|X|/lib/x.so|init|-a b"},
      {"plugin sasl X /lib/x.so init\n", "plugin|sasl|X|/lib/x.so|init|(null)"},
      {"plugin sasl X\n", ""},
      {"#plugin sasl X /lib/x.so\n", ""},
      {" #plugin sasl X /lib/x.so\n", "#plugin|sasl|X|/lib/x.so" + none},  // comments start in column 1
      {"\n", ""},
      {"plugin sasl Y /lib/y.so", "plugin|sasl|Y|/lib/y.so" + none},  // no final newline
      // Up to 511 characters a line is whole; a longer one is dropped whole,
      // so its tail never becomes a line of its own.
      {"plugin sasl MAX /lib/m.so init " + std::string(511 - 31, 'a') + "\n",
       "plugin|sasl|MAX|/lib/m.so|init|" + std::string(511 - 31, 'a')},
      {"plugin sasl LONG /lib/l.so init " + std::string(600, 'a') + "\n", ""},
      {"#" + std::string(510, ' ') + "plugin sasl PLAIN /path/x.so\n", ""},
      {"#" + std::string(600, ' ') + "plugin sasl PLAIN /path/x.so", ""},
  };
  for (const auto &[line, want] : cases) {
    std::vector<std::string> got = Conf(line).lines();
    EXPECT_EQ(got, want.empty() ? std::vector<std::string>{} : std::vector<std::string>{want}) << line;
  }
  EXPECT_EQ(Conf("# c\na b c d\nshort\n" + std::string(1000, 'x') + "\ne f g h\n").lines(),
            (std::vector<std::string>{"a|b|c|d" + none, "e|f|g|h" + none}));
  // At most 1 MiB: a larger file is refused as one that cannot be opened.
  const std::string line = "plugin sasl X /lib/x.so\n";
  for (auto [size, rc] : {std::pair{size_t{1} << 20, 0}, {(size_t{1} << 20) + 1, 192}}) {
    std::string text;
    while (text.size() + line.size() <= size) text += line;
    text.resize(size, '\n');
    Conf conf(text);
    EXPECT_EQ(conf.rc, rc) << size;
    EXPECT_EQ(conf.list.head == nullptr, rc != 0) << size;
  }
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
  fclose(fopen(path.c_str(), "w"));
  found = ldap_locate_conf_file();
  EXPECT_EQ(str(found), path);
  free(found);
  unlink(path.c_str());
  rmdir(dir);
  unsetenv("KRVLDAP_CONF");
}

TEST(PathHelpers, ExtensionsPathsAndWords) {
  for (auto [path, sep, want] : {std::tuple{"/opt/p/libx.sl", '.', "/opt/p/libx.so"},
                                 {"/opt/p/libx", '.', "/opt/p/libx.so"},
                                 {"/opt/p/libx.so", '.', "/opt/p/libx.so"},
                                 {"/opt/a.dir/plug", '.', "/opt/a.dir/plug.so"},
                                 {"/opt/a.dir/plug.sl", '.', "/opt/a.dir/plug.so"},
                                 {"/opt/p/.plug", '.', "/opt/p/.plug.so"},
                                 {"/opt/p/libx.so.1", '.', "/opt/p/libx.so.1"},
                                 {"libx.so.1.2", '.', "libx.so.1.2"},
                                 {"/opt/p/libx.so.1a", '.', "/opt/p/libx.so.so"},
                                 {"name", '\0', "nameso"}}) {
    char *got = ldap_replace_extension(path, sep, "so");
    EXPECT_EQ(str(got), want) << path;
    free(got);
  }
  const char *subdirs[] = {"a", "b", nullptr};
  for (auto [got, want] : {std::pair{ldap_make_path("/d", subdirs, "f.conf"), "/d/a/b/f.conf"},
                           {ldap_get_default_config_path('/'), "/opt/KRV/ldap/V6.2/etc"}}) {
    EXPECT_EQ(str(got), want);
    free(got);
  }
  struct Split {
    const char *text;
    int max;
    std::vector<std::string> want;
  } splits[] = {{"  -a one\t-b\ntwo ", 64, {"-a", "one", "-b", "two"}}, {"a b c", 2, {"a", "b"}}, {" \t", 64, {}}};
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

// Failed loads give back the memory and the library they took: a leak here
// grew with every bind retried against a broken line.
TEST(PluginLoad, FailuresKeepNothing) {
  char sasl[] = "sasl", name[] = "LEAKCHECK", absent[] = "/nonexistent/libnothing.so", lib[] = "libbz2.so.1.0",
       init[] = "no_such_init";
  struct {
    char *path;
    int rc;
  } cases[] = {{absent, LDAP_PLUGIN_NOT_LOADED}, {lib, LDAP_PLUGIN_FUNCTION_NOT_RESOLVED}};
  for (auto c : cases) {
    ldap_plugin_info info = {sasl, name, c.path, init, nullptr};
    for (int i = 0; i < 10; ++i) ASSERT_EQ(ldap_register_plugin(&info), c.rc);  // the loader's own buffers
    const size_t in_use = tavtest::heap_in_use();
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(ldap_register_plugin(&info), c.rc);
    EXPECT_LT(tavtest::heap_in_use(), in_use + 1024) << c.path;
  }
  EXPECT_EQ(dlopen(lib, RTLD_NOW | RTLD_NOLOAD), nullptr);
}

TEST(ParameterBlock, SetReplacesGetFindsAndMissingIsOne) {
  LDAP_PBLOCK *pb = ldap_pblock_new();
  ASSERT_NE(pb, nullptr);
  EXPECT_EQ(tavldap_plugin_api_of(pb)->version, TAVLDAP_PLUGIN_API_VERSION);
  int a = 0, b = 0;
  void *v = nullptr;
  EXPECT_EQ(ldap_pblock_get(pb, 301, &v), 1);
  for (auto [id, value] : {std::pair{301, &a}, {302, &b}, {301, &b}}) EXPECT_EQ(ldap_pblock_set(pb, id, value), 0);
  EXPECT_EQ(ldap_pblock_get(pb, 301, &v), 0);
  EXPECT_EQ(v, &b);
  EXPECT_EQ(ldap_pblock_set(nullptr, 1, nullptr), 82);
  olx_fail_alloc_at(1);
  EXPECT_EQ(ldap_pblock_set(pb, 303, &a), 90);
  olx_fail_alloc_at(0);
  ldap_pblock_free(pb);
}

}  // namespace
