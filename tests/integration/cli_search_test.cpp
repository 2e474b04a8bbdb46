// tavldap search against the private slapd: entries as LDIF, binary values
// in base64 that round-trip through tavldap add, folded long lines, limits
// and errors as exit codes.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "ldap-int.h"
#include "ldif.h"
#include "process.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

class CliSearch : public tavtest::SlapdSuite<CliSearch> {
 protected:
  void SetUp() override {
    ASSERT_NE(slapd, nullptr);
    // The search functions come with the search module's exports.
    void *h = dlopen(TAV_SHARED_OBJECT, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(h, nullptr) << dlerror();
    const bool exported = dlvsym(h, "tav_ldap_search_st", "tav8") != nullptr;
    dlclose(h);
    if (!exported) GTEST_SKIP() << "the library does not export tav_ldap_search_st yet";
  }
  static tavtest::ProcessResult run(const std::string &command, std::vector<std::string> args,
                                    const std::string &input = "") {
    std::vector<std::string> argv = {TAV_CLIENT,          command, "-H", slapd->url(), "-D", SlapdServer::kRootDn, "-w",
                                     SlapdServer::kRootPw};
    argv.insert(argv.end(), args.begin(), args.end());
    return tavtest::run_process(argv, {{"TAVLDAP_LIBRARY", TAV_SHARED_OBJECT}, {"LDAP_DEBUG", ""}}, input);
  }
};

std::string people(const std::string &rdn) { return rdn + "," + SlapdServer::kPeopleDn; }

// The records of LDIF text, read back with the client's own reader.
std::vector<tavldif::Record> records(const std::string &ldif) {
  tavldif::Reader reader(ldif);
  std::vector<tavldif::Record> out;
  tavldif::Record r;
  std::string error;
  while (reader.next(&r, &error)) out.push_back(r);
  EXPECT_EQ(error, "");
  return out;
}

std::vector<std::string> values(const tavldif::Record &r, const std::string &type) {
  for (const auto &m : r.mods)
    if (m.type == type) return m.values;
  return {};
}

TEST_F(CliSearch, BinaryAndLongValuesRoundTripThroughLdif) {
  const std::string photo("\xFF\xD8\x00\x01\x00\x00\x7F\xFF\xD9", 9);
  const std::string long_text(300, 'w');
  const std::string utf8 = "R\xC3\xA9sum\xC3\xA9";
  const std::string dn = people("cn=Round Trip");
  const std::string ldif = tavldif::attr_line("dn", dn) + "objectClass: inetOrgPerson\ncn: Round Trip\nsn: Trip\n" +
                           tavldif::attr_line("jpegPhoto", photo) + tavldif::attr_line("description", long_text) +
                           tavldif::attr_line("description", utf8);
  auto r = run("add", {}, ldif);
  ASSERT_EQ(r.exit_code, 0) << r.err;

  r = run("search", {"-b", dn, "-s", "base"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  // Unsafe values are in base64; every line fits in 76 columns.
  EXPECT_NE(r.out.find("jpegPhoto:: " + tavldif::base64_encode(photo) + "\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("description:: " + tavldif::base64_encode(utf8) + "\n"), std::string::npos) << r.out;
  for (const auto &line : tavtest::split_lines(r.out)) EXPECT_LE(line.size(), 76u) << line;
  auto found = records(r.out);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].dn, dn);
  EXPECT_EQ(values(found[0], "jpegPhoto"), (std::vector<std::string>{photo}));
  auto desc = values(found[0], "description");
  std::sort(desc.begin(), desc.end());
  EXPECT_EQ(desc, (std::vector<std::string>{utf8, long_text}));

  // What search printed goes back in unchanged.
  const std::string printed = r.out;
  ASSERT_EQ(run("delete", {dn}).exit_code, 0);
  r = run("add", {}, printed);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = run("search", {"-b", dn, "-s", "base"});
  EXPECT_EQ(r.out, printed);
  EXPECT_EQ(run("delete", {dn}).exit_code, 0);
}

TEST_F(CliSearch, ScopesAttributesAndLimits) {
  auto r = run("search", {"-b", SlapdServer::kPeopleDn, "-s", "one", "(objectClass=inetOrgPerson)", "uid"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  auto found = records(r.out);
  ASSERT_EQ(found.size(), 5u);
  for (const auto &e : found) {
    ASSERT_EQ(e.mods.size(), 1u) << e.dn;
    EXPECT_EQ(e.mods[0].type, "uid");
  }
  r = run("search", {"-b", SlapdServer::user_dn(2), "-s", "base", "-A", "(objectClass=*)", "cn", "sn"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "dn: " + SlapdServer::user_dn(2) + "\ncn:\nsn:\n");
  // A size limit ends the search with 4, after the entries that came.
  r = run("search", {"-b", SlapdServer::kPeopleDn, "-s", "one", "-z", "2", "(uid=*)", "uid"});
  EXPECT_EQ(r.exit_code, LDAP_SIZELIMIT_EXCEEDED);
  EXPECT_EQ(records(r.out).size(), 2u);
  EXPECT_NE(r.err.find(ldap_err2string(LDAP_SIZELIMIT_EXCEEDED)), std::string::npos) << r.err;
  r = run("search", {"-b", "ou=Nowhere,dc=example,dc=com"});
  EXPECT_EQ(r.exit_code, LDAP_NO_SUCH_OBJECT);
  EXPECT_EQ(r.out, "");
}

}  // namespace
