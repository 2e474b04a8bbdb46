// The shared object's boundary, seen as a program that loads it sees it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <sstream>
#include <string>

#include "process.h"
#include "tavldap.h"

namespace {

std::set<std::string> expected_exports() {
  std::set<std::string> names;
  std::istringstream in(tavtest::read_file(TAV_EXPORTED_SYMBOLS_FILE));
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) names.insert(line);
  return names;
}

// Defined dynamic symbols: name -> version suffix ("@@tav8", or "" for none).
std::map<std::string, std::string> defined_dynamic_symbols(const std::string &path) {
  auto r = tavtest::run_process({"/usr/bin/readelf", "--dyn-syms", "--wide", path});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  std::map<std::string, std::string> symbols;
  for (const auto &line : tavtest::split_lines(r.out)) {
    std::istringstream f(line);
    std::string num, value, size, type, bind, vis, ndx, name;
    if (!(f >> num >> value >> size >> type >> bind >> vis >> ndx >> name)) continue;
    if (num == "Num:" || num.back() != ':' || ndx == "UND" || bind == "LOCAL") continue;
    size_t at = name.find('@');
    symbols[name.substr(0, at)] = at == std::string::npos ? "" : name.substr(at);
  }
  return symbols;
}

template <typename F>
F sym(void *handle, const char *name) {
  void *p = dlvsym(handle, name, "tav8");
  EXPECT_NE(p, nullptr) << name << ": " << dlerror();
  return reinterpret_cast<F>(p);
}

}  // namespace

TEST(SharedObject, ExportsExactlyTheListedSymbolsAtVersionTav8) {
  auto expected = expected_exports();
  ASSERT_FALSE(expected.empty());
  auto actual = defined_dynamic_symbols(TAV_SHARED_OBJECT);
  for (const auto &[name, version] : actual) {
    if (name == "tav8") continue;  // the version definition's own absolute symbol
    EXPECT_TRUE(expected.count(name)) << "unexpected export: " << name << version;
    EXPECT_EQ(version, "@@tav8") << name;
  }
  EXPECT_TRUE(actual.count("tav8")) << "no tav8 version definition";
  for (const auto &name : expected) EXPECT_TRUE(actual.count(name)) << "missing export: " << name;
}

TEST(SharedObject, LoadedFromThroughSymbolicLinkNamesTheTarget) {
  tavtest::TempDir dir;
  std::string link = dir.file("libalias.so");
  ASSERT_EQ(symlink(TAV_SHARED_OBJECT, link.c_str()), 0);
  void *h = dlopen(link.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(h, nullptr) << dlerror();
  auto loaded_from = sym<char *(*)(void)>(h, "tavldap_loaded_from");
  auto memfree = sym<void (*)(void *)>(h, "tav_ldap_memfree");
  char canonical[PATH_MAX];
  ASSERT_NE(realpath(TAV_SHARED_OBJECT, canonical), nullptr);
  char *path = loaded_from();
  ASSERT_NE(path, nullptr);
  EXPECT_STREQ(path, canonical);
  memfree(path);
  dlclose(h);
}

TEST(SharedObject, LoadedFromRefusesNamesLongerThanItsBuffer) {
  tavtest::TempDir dir;
  std::string deep = dir.path();
  while (deep.size() < 1100) {
    deep += "/" + std::string(200, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
  }
  std::string copy = deep + "/libtav8ldap_64.so";
  ASSERT_EQ(tavtest::run_process({"/bin/cp", TAV_SHARED_OBJECT, copy}).exit_code, 0);
  void *h = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(h, nullptr) << dlerror();
  EXPECT_EQ(sym<char *(*)(void)>(h, "tavldap_loaded_from")(), nullptr);
  dlclose(h);
}

TEST(SharedObject, FreeFunctionsAcceptNullAndReleaseBlocks) {
  void *h = dlopen(TAV_SHARED_OBJECT, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(h, nullptr) << dlerror();
  auto memfree = sym<void (*)(void *)>(h, "tav_ldap_memfree");
  auto ber_free = sym<void (*)(BerElement *)>(h, "tav_ldap_ber_free");
  memfree(nullptr);
  ber_free(nullptr);
  memfree(malloc(32));  // a leak or double free here shows under the sanitizers
  ber_free(static_cast<BerElement *>(malloc(64)));
  dlclose(h);
}

TEST(SharedObject, IdentificationLinesAreWellFormed) {
  void *h = dlopen(TAV_SHARED_OBJECT, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(h, nullptr) << dlerror();
  auto info = static_cast<const char *>(dlvsym(h, "tavldap_SCCSInfo", "tav8"));
  auto banner = static_cast<const char *>(dlvsym(h, "tavldap_Copyright", "tav8"));
  ASSERT_NE(info, nullptr);
  ASSERT_NE(banner, nullptr);
  EXPECT_GT(strlen(banner), 0u);
  auto lines = tavtest::split_lines(info);
  EXPECT_GE(lines.size(), 6u);
  for (const auto &l : lines) {
    EXPECT_EQ(l.rfind("@(#)", 0), 0u) << l;
    EXPECT_NE(l.find(": "), std::string::npos) << l;
  }
  dlclose(h);
}
