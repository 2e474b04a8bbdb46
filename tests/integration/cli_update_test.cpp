// tavldap add/modify/delete/modrdn against the private slapd: LDIF in, the
// changes checked with OpenLDAP's ldapsearch, failures as exit codes with
// the library's message, malformed LDIF refused by line before it is sent.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ldap-int.h"
#include "process.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

class Cli : public tavtest::SlapdSuite<Cli> {
 protected:
  void SetUp() override { ASSERT_NE(slapd, nullptr); }

  // tavldap COMMAND -H url [bound as the root DN] ARGS, LDIF on stdin.
  static tavtest::ProcessResult run(const std::string &command, std::vector<std::string> args,
                                    const std::string &input = "", bool bind = true) {
    std::vector<std::string> argv = {TAV_CLIENT, command, "-H", slapd->url()};
    if (bind) argv.insert(argv.end(), {"-D", SlapdServer::kRootDn, "-w", SlapdServer::kRootPw});
    argv.insert(argv.end(), args.begin(), args.end());
    return tavtest::run_process(argv, {{"TAVLDAP_LIBRARY", TAV_SHARED_OBJECT}, {"LDAP_DEBUG", ""}}, input);
  }
  // The entry as ldapsearch prints it (-LLL), "" when there is none.
  static std::string entry(const std::string &dn, const std::string &attrs = "*") {
    std::string out;
    if (slapd->ldap_tool("ldapsearch", {"-LLL", "-o", "ldif-wrap=no", "-b", dn, "-s", "base", attrs}, &out) != 0)
      return "";
    return out;
  }
};

std::string people(const std::string &rdn) { return rdn + "," + SlapdServer::kPeopleDn; }

TEST_F(Cli, ChangeRecordsOfEveryKindAreApplied) {
  const std::string ldif = "dn: " + people("cn=Cli") +
                           "\n"
                           "objectClass: inetOrgPerson\ncn: Cli\nsn: Test\n"
                           "jpegPhoto:: AAEAAgD/\n"  // 00 01 00 02 00 FF
                           "description: first\n"
                           "\n"
                           "dn: " +
                           people("cn=Cli") +
                           "\n"
                           "changetype: modify\n"
                           "add: mail\nmail: cli@example.com\n-\n"
                           "delete: description\n-\n"
                           "replace: sn\nsn: Changed\n-\n"
                           "\n"
                           "dn: " +
                           people("cn=Cli") + "\nchangetype: modrdn\nnewrdn: cn=Cli2\ndeleteoldrdn: 1\n";
  auto r = run("add", {}, ldif);
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "adding new entry \"" + people("cn=Cli") + "\"\nmodifying entry \"" + people("cn=Cli") +
                       "\"\nrenaming entry \"" + people("cn=Cli") + "\" to \"cn=Cli2\"\n");
  EXPECT_EQ(entry(people("cn=Cli")), "");
  const std::string got = entry(people("cn=Cli2"));
  EXPECT_NE(got.find("jpegPhoto:: AAEAAgD/\n"), std::string::npos) << got;
  EXPECT_NE(got.find("mail: cli@example.com\n"), std::string::npos) << got;
  EXPECT_NE(got.find("sn: Changed\n"), std::string::npos) << got;
  EXPECT_EQ(got.find("description:"), std::string::npos) << got;
  EXPECT_EQ(got.find("cn: Cli\n"), std::string::npos) << got;

  // The commands' own kinds: records without changetype, and arguments.
  r = run("modify", {}, "dn: " + people("cn=Cli2") + "\nreplace: description\ndescription: again\n");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(entry(people("cn=Cli2")).find("description: again\n"), std::string::npos);
  r = run("modrdn", {"-r", people("cn=Cli2"), "cn=Cli3"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  r = run("delete", {people("cn=Cli3")});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "deleting entry \"" + people("cn=Cli3") + "\"\n");
  EXPECT_EQ(entry(people("cn=Cli3")), "");
}

TEST_F(Cli, InputFromAFileAndDeleteRecords) {
  tavtest::TempDir dir;
  tavtest::write_file(dir.file("add.ldif"),
                      "version: 1\n\ndn: " + people("cn=FromFile") + "\nobjectClass: person\ncn: FromFile\nsn: F\n");
  auto r = run("add", {"-f", dir.file("add.ldif")});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(entry(people("cn=FromFile")), "");
  r = run("delete", {}, "dn: " + people("cn=FromFile") + "\n");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(entry(people("cn=FromFile")), "");
  r = run("add", {"-f", dir.file("missing.ldif")});
  EXPECT_NE(r.exit_code, 0);
  EXPECT_NE(r.err.find("missing.ldif"), std::string::npos) << r.err;
}

// The exit status is the server's code; standard error carries the
// library's text for it.
TEST_F(Cli, FailuresExitWithTheResultCode) {
  struct Case {
    const char *name;
    std::string command;
    std::vector<std::string> args;
    std::string input;
    bool bind;
    int code;
  } cases[] = {
      {"entry exists",
       "add",
       {},
       std::string("dn: ") + SlapdServer::kPeopleDn + "\nobjectClass: organizationalUnit\nou: People\n",
       true,
       LDAP_ALREADY_EXISTS},
      {"no such entry", "delete", {people("cn=Nobody")}, "", true, LDAP_NO_SUCH_OBJECT},
      {"object class violation",
       "add",
       {},
       "dn: " + people("cn=NoSn") + "\nobjectClass: person\ncn: NoSn\n",
       true,
       LDAP_OBJECT_CLASS_VIOLATION},
      {"not a leaf", "delete", {SlapdServer::kPeopleDn}, "", true, LDAP_NOT_ALLOWED_ON_NONLEAF},
      {"anonymous update", "modrdn", {SlapdServer::user_dn(1), "uid=x"}, "", false, LDAP_STRONG_AUTH_REQUIRED},
      {"wrong password", "delete", {"-w", "wrong", SlapdServer::user_dn(1)}, "", false, LDAP_INVALID_CREDENTIALS},
  };
  for (auto &c : cases) {
    SCOPED_TRACE(c.name);
    if (c.name == std::string("wrong password")) c.args.insert(c.args.begin(), {"-D", SlapdServer::kRootDn});
    auto r = run(c.command, c.args, c.input, c.bind);
    EXPECT_EQ(r.exit_code, c.code) << r.err;
    EXPECT_NE(r.err.find(std::string(ldap_err2string(c.code)) + " (" + std::to_string(c.code) + ")"), std::string::npos)
        << r.err;
  }
  EXPECT_NE(entry(SlapdServer::user_dn(1)), "");
}

// A malformed record stops the run with its line number: the records before
// it were applied, nothing of it or after it was sent.
TEST_F(Cli, MalformedLdifIsRefusedByLine) {
  struct Case {
    const char *name;
    std::string bad;  // the second record
    std::string message;
  } cases[] = {
      {"bad base64", "dn: cn=B,ou=People,dc=example,dc=com\nobjectClass: person\ncn: B\nsn:: ###\n",
       "line 9: bad base64 value for \"sn\""},
      {"missing dn", "cn: B\nsn: B\n", "line 6: missing dn"},
      {"unknown changetype", "dn: cn=B,ou=People,dc=example,dc=com\nchangetype: move\n",
       "line 7: unknown changetype \"move\""},
      {"continuation without a line", " cn=B,ou=People,dc=example,dc=com\n",
       "line 6: continuation line without a line before it"},
      {"new superior",
       "dn: cn=A,ou=People,dc=example,dc=com\nchangetype: modrdn\nnewrdn: cn=B\ndeleteoldrdn: 1\n"
       "newsuperior: ou=Groups,dc=example,dc=com\n",
       "line 10: newsuperior is not supported"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string first = "dn: " + people("cn=A") + "\nobjectClass: person\ncn: A\nsn: A\n\n";
    const std::string third = "\ndn: " + people("cn=C") + "\nobjectClass: person\ncn: C\nsn: C\n";
    auto r = run("add", {}, first + c.bad + third);
    EXPECT_NE(r.exit_code, 0);
    EXPECT_NE(r.err.find("(standard input): " + c.message), std::string::npos) << r.err;
    EXPECT_NE(entry(people("cn=A")), "");
    EXPECT_EQ(entry(people("cn=B")), "");
    EXPECT_EQ(entry(people("cn=C")), "");
    ASSERT_EQ(run("delete", {people("cn=A")}).exit_code, 0);
  }
  // With -c the run goes on past the bad record and still fails in the end.
  auto r = run("add", {"-c"},
               "dn: " + people("cn=A") + "\nchangetype: explode\n\ndn: " + people("cn=C") +
                   "\nobjectClass: person\ncn: C\nsn: C\n");
  EXPECT_EQ(r.exit_code, LDAP_PARAM_ERROR);
  EXPECT_NE(entry(people("cn=C")), "");
  EXPECT_EQ(run("delete", {people("cn=C")}).exit_code, 0);
}

TEST_F(Cli, DebugLevelTracesTheRun) {
  std::vector<std::string> argv = {
      TAV_CLIENT,           "delete",           "-d", "65535", "-H", slapd->url(), "-D", SlapdServer::kRootDn, "-w",
      SlapdServer::kRootPw, people("cn=Nobody")};
  auto r = tavtest::run_process(argv, {{"TAVLDAP_LIBRARY", TAV_SHARED_OBJECT}, {"LDAP_DEBUG_FILE", ""}});
  EXPECT_EQ(r.exit_code, LDAP_NO_SUCH_OBJECT);
  EXPECT_NE(r.err.find("ldap_delete_s: returning rc=32"), std::string::npos);
  // The password never reaches the trace.
  EXPECT_EQ(r.err.find(SlapdServer::kRootPw), std::string::npos);
}

TEST_F(Cli, UsageErrors) {
  EXPECT_EQ(run("add", {"unexpected"}).exit_code, 2);
  EXPECT_EQ(run("modrdn", {"only-a-dn"}).exit_code, 2);
  EXPECT_EQ(run("search", {"-s", "wide"}).exit_code, 2);
  EXPECT_EQ(run("frobnicate", {}).exit_code, 2);
}

}  // namespace
