// tavldap against the private slapd: search output compared with OpenLDAP's
// ldapsearch on the same entries, change records of every kind checked with
// ldapsearch, failures as exit codes with the library's message, malformed
// LDIF refused by line before it is sent, referrals chased anonymously unless
// told otherwise.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "fake_server.h"
#include "ldap-int.h"
#include "process.h"
#include "referral_servers.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

std::string people(const std::string &rdn) { return rdn + "," + SlapdServer::kPeopleDn; }

class Cli : public tavtest::SlapdSuite<Cli> {
 protected:
  // tavldap COMMAND -H url [bound as the root DN] ARGS, LDIF on stdin.
  static tavtest::ProcessResult run(const std::string &command, std::vector<std::string> args,
                                    const std::string &input = "", bool bind = true) {
    std::vector<std::string> argv = {TAV_CLIENT, command, "-H", slapd->url()};
    if (bind) argv.insert(argv.end(), {"-D", SlapdServer::kRootDn, "-w", SlapdServer::kRootPw});
    argv.insert(argv.end(), args.begin(), args.end());
    return tavtest::run_process(argv, {{"TAVLDAP_LIBRARY", TAV_SHARED_OBJECT}, {"LDAP_DEBUG", ""}}, input);
  }
  // What ldapsearch prints (-LLL, folded at 76 columns) for the same query, "" on failure.
  static std::string ldapsearch(std::vector<std::string> args) {
    std::string out;
    args.insert(args.begin(), {"-LLL", "-o", "ldif-wrap=76", "-D", SlapdServer::kRootDn, "-w", SlapdServer::kRootPw});
    return slapd->ldap_tool("ldapsearch", args, &out) == 0 ? out : "";
  }
  static std::string entry(const std::string &dn) { return ldapsearch({"-o", "ldif-wrap=no", "-b", dn, "-s", "base"}); }
};

TEST_F(Cli, SearchPrintsWhatLdapsearchPrintsAndItReadsBackUnchanged) {
  const std::string dn = people("cn=Round Trip");
  // Binary, long and non-ASCII values, added by OpenLDAP's own ldapadd.
  const std::string ldif = "dn: " + dn + "\nobjectClass: inetOrgPerson\ncn: Round Trip\nsn: Trip\n" +
                           "jpegPhoto:: /9gAAQAAf//Z\ndescription: " + std::string(300, 'w') +
                           "\ndescription:: UsOpc3Vtw6k=\n";
  std::string out;
  ASSERT_EQ(slapd->ldap_tool("ldapadd", {"-D", SlapdServer::kRootDn, "-w", SlapdServer::kRootPw}, &out, ldif), 0)
      << out;
  const std::vector<std::vector<std::string>> queries = {
      {"-b", dn, "-s", "base"},
      {"-b", SlapdServer::kPeopleDn, "-s", "one", "(objectClass=inetOrgPerson)", "uid"},
      {"-b", SlapdServer::user_dn(2), "-s", "base", "-A", "(objectClass=*)", "cn", "sn"}};
  for (const auto &q : queries) {
    auto r = run("search", q);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.out + "\n", ldapsearch(q)) << q[1];  // no blank line after the last entry
  }
  EXPECT_EQ(run("search", queries[2]).out, "dn: " + SlapdServer::user_dn(2) + "\ncn:\nsn:\n");
  // What search printed goes back in unchanged.
  const std::string printed = run("search", queries[0]).out;
  ASSERT_EQ(run("delete", {dn}).exit_code, 0);
  ASSERT_EQ(run("add", {}, printed).exit_code, 0);
  EXPECT_EQ(run("search", queries[0]).out, printed);
  EXPECT_EQ(run("delete", {dn}).exit_code, 0);
  // A size limit ends the search with 4, after the entries that came.
  auto r = run("search", {"-b", SlapdServer::kPeopleDn, "-s", "one", "-z", "2", "(uid=*)", "dn"});
  EXPECT_EQ(r.exit_code, LDAP_SIZELIMIT_EXCEEDED);
  EXPECT_EQ(r.out.find("dn: ", r.out.find("dn: ", 1) + 1), std::string::npos) << "more than two entries";
  EXPECT_NE(r.out.find("\n\ndn: "), std::string::npos) << "fewer than two entries";
  EXPECT_NE(r.err.find(ldap_err2string(LDAP_SIZELIMIT_EXCEEDED)), std::string::npos) << r.err;
  r = run("search", {"-b", "ou=Nowhere,dc=example,dc=com"});
  EXPECT_EQ(std::make_pair(r.exit_code, r.out), std::make_pair(LDAP_NO_SUCH_OBJECT, std::string()));
}

TEST_F(Cli, ChangeRecordsOfEveryKindAreApplied) {
  const std::string a = people("cn=Cli");
  auto r =
      run("add", {},
          "dn: " + a + "\nobjectClass: inetOrgPerson\ncn: Cli\nsn: Test\njpegPhoto:: AAEAAgD/\ndescription: first\n\n" +
              "dn: " + a + "\nchangetype: modify\nadd: mail\nmail: cli@example.com\n-\ndelete: description\n-\n" +
              "replace: sn\nsn: Changed\n-\n\ndn: " + a + "\nchangetype: modrdn\nnewrdn: cn=Cli2\ndeleteoldrdn: 1\n");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "adding new entry \"" + a + "\"\nmodifying entry \"" + a + "\"\nrenaming entry \"" + a +
                       "\" to \"cn=Cli2\"\n");
  EXPECT_EQ(entry(a), "");
  EXPECT_EQ(entry(people("cn=Cli2")), "dn: " + people("cn=Cli2") +
                                          "\nobjectClass: inetOrgPerson\njpegPhoto:: AAEAAgD/\nmail: cli@example.com\n"
                                          "sn: Changed\ncn: Cli2\n\n");
  // The commands' own kinds: records without changetype, and arguments; a file.
  tavtest::TempDir dir;
  tavtest::write_file(dir.file("m.ldif"), "version: 1\n\ndn: " + people("cn=Cli2") + "\nreplace: sn\nsn: again\n");
  EXPECT_EQ(run("modify", {"-f", dir.file("m.ldif")}).exit_code, 0);
  EXPECT_NE(entry(people("cn=Cli2")).find("sn: again\n"), std::string::npos);
  EXPECT_EQ(run("modrdn", {"-r", people("cn=Cli2"), "cn=Cli3"}).exit_code, 0);
  r = run("delete", {}, "dn: " + people("cn=Cli3") + "\n");
  EXPECT_EQ(std::make_pair(r.exit_code, r.out), std::make_pair(0, "deleting entry \"" + people("cn=Cli3") + "\"\n"));
  EXPECT_EQ(entry(people("cn=Cli3")), "");
  r = run("add", {"-f", dir.file("missing.ldif")});
  EXPECT_NE(r.exit_code, 0);
  EXPECT_NE(r.err.find("missing.ldif"), std::string::npos) << r.err;
}

// The exit status is the server's code; standard error carries the library's
// text for it.  Usage errors exit with 2.
TEST_F(Cli, UrlSearchesPrintWhatLdapsearchPrintsAndReferralsAreChasedUnlessTold) {
  const std::string url = slapd->url() + "/" + SlapdServer::kPeopleDn + "?uid,cn?one?(|(uid=user1)(uid=user2))";
  auto r = run("url", {url});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out + "\n",
            ldapsearch({"-b", SlapdServer::kPeopleDn, "-s", "one", "(|(uid=user1)(uid=user2))", "uid", "cn"}));
  EXPECT_EQ(run("url", {"ldap:///o=x??wide"}).exit_code, LDAP_PARAM_ERROR);
  // A referral object pointing back into this server: followed, or with -C
  // handed back as the search's result.
  const std::string ref = "ou=ref," + std::string(SlapdServer::kSuffix);
  std::string out;
  ASSERT_EQ(slapd->ldap_tool("ldapadd", {"-M", "-D", SlapdServer::kRootDn, "-w", SlapdServer::kRootPw}, &out,
                             "dn: " + ref + "\nobjectClass: referral\nobjectClass: extensibleObject\nou: ref\nref: " +
                                 slapd->url() + "/" + SlapdServer::user_dn(3) + "\n"),
            0)
      << out;
  r = run("search", {"-b", ref, "-s", "base", "(objectClass=*)", "uid"});
  EXPECT_EQ(std::make_pair(r.exit_code, r.out), std::make_pair(0, "dn: " + SlapdServer::user_dn(3) + "\nuid: user3\n"));
  r = run("search", {"-C", "-b", ref, "-s", "base"});
  EXPECT_EQ(std::make_pair(r.exit_code, r.out), std::make_pair(LDAP_REFERRAL, std::string()));
}

TEST_F(Cli, FailuresExitWithTheResultCode) {
  const std::tuple<std::string, std::vector<std::string>, std::string, bool, int> cases[] = {
      {"add",
       {},
       std::string("dn: ") + SlapdServer::kPeopleDn + "\nobjectClass: organizationalUnit\nou: People\n",
       true,
       LDAP_ALREADY_EXISTS},
      {"delete", {people("cn=Nobody")}, "", true, LDAP_NO_SUCH_OBJECT},
      {"add", {}, "dn: " + people("cn=NoSn") + "\nobjectClass: person\ncn: NoSn\n", true, LDAP_OBJECT_CLASS_VIOLATION},
      {"delete", {SlapdServer::kPeopleDn}, "", true, LDAP_NOT_ALLOWED_ON_NONLEAF},
      {"modrdn", {SlapdServer::user_dn(1), "uid=x"}, "", false, LDAP_STRONG_AUTH_REQUIRED},
      {"delete",
       {"-D", SlapdServer::kRootDn, "-w", "wrong", SlapdServer::user_dn(1)},
       "",
       false,
       LDAP_INVALID_CREDENTIALS}};
  for (const auto &[command, args, input, bind, code] : cases) {
    auto r = run(command, args, input, bind);
    EXPECT_EQ(r.exit_code, code) << r.err;
    EXPECT_NE(r.err.find(std::string(ldap_err2string(code)) + " (" + std::to_string(code) + ")"), std::string::npos)
        << r.err;
  }
  EXPECT_NE(entry(SlapdServer::user_dn(1)), "");
  for (const auto &args : std::vector<std::vector<std::string>>{{"add", "unexpected"},
                                                                {"modrdn", "only-a-dn"},
                                                                {"search", "-s", "wide"},
                                                                {"search", "-o", "referral-credentials=maybe"},
                                                                {"search", "-o", "timeout=soon"},
                                                                {"frobnicate"}})
    EXPECT_EQ(run(args[0], std::vector<std::string>(args.begin() + 1, args.end())).exit_code, 2) << args[0];
  // -o timeout bounds the wait for a server that never answers.
  tavtest::FakeServer silent;
  silent.hold_until_closed();
  silent.start();
  auto quiet = tavtest::run_process({TAV_CLIENT, "search", "-o", "timeout=1", "-o", "nettimeout=1", "-H",
                                     "ldap://127.0.0.1:" + std::to_string(silent.port()), "-b", "o=x"},
                                    {{"TAVLDAP_LIBRARY", TAV_SHARED_OBJECT}});
  EXPECT_EQ(quiet.exit_code, LDAP_TIMEOUT) << quiet.err;
  // -d traces the run; the password never reaches the trace.
  auto r = tavtest::run_process({TAV_CLIENT, "delete", "-d", "65535", "-H", slapd->url(), "-D", SlapdServer::kRootDn,
                                 "-w", SlapdServer::kRootPw, people("cn=Nobody")},
                                {{"TAVLDAP_LIBRARY", TAV_SHARED_OBJECT}, {"LDAP_DEBUG_FILE", ""}});
  EXPECT_EQ(r.exit_code, LDAP_NO_SUCH_OBJECT);
  EXPECT_NE(r.err.find("ldap_delete_s: returning rc=32"), std::string::npos);
  EXPECT_EQ(r.err.find(SlapdServer::kRootPw), std::string::npos);
}

// A referral may name any server, so -D/-w go only to the server named unless
// -o referral-credentials=yes says otherwise.  A's ou=t1 refers to B's
// ou=branch; B shows its entries only to bound users, and to anonymous ones
// answers 32.
TEST(CliReferrals, ReferredServersGetTheCredentialsOnlyWhenAsked) {
  tavtest::ReferralServers servers;
  ASSERT_TRUE(servers.started()) << servers.error();
  const std::tuple<std::vector<std::string>, int, bool> cases[] = {
      {{}, LDAP_NO_SUCH_OBJECT, false},
      {{"-o", "referral-credentials=no"}, LDAP_NO_SUCH_OBJECT, false},
      {{"-o", "referral-credentials=yes"}, 0, true}};
  for (const auto &[option, code, bound_at_b] : cases) {
    std::vector<std::string> argv = {TAV_CLIENT, "search",
                                     "-H",       servers.a().url(),
                                     "-D",       SlapdServer::kRootDn,
                                     "-w",       SlapdServer::kRootPw,
                                     "-b",       "ou=t1," + tavtest::ReferralServers::kSuffix};
    argv.insert(argv.end(), option.begin(), option.end());
    argv.insert(argv.end(), {"(objectClass=*)", "cn"});
    auto r = tavtest::run_process(argv, {{"TAVLDAP_LIBRARY", TAV_SHARED_OBJECT}, {"LDAP_DEBUG", ""}});
    EXPECT_EQ(r.exit_code, code) << r.err;
    EXPECT_NE(r.out.find("dn: cn=a1,ou=t1,"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("dn: cn=b1," + tavtest::ReferralServers::branch()) != std::string::npos, bound_at_b) << r.out;
  }
}

// A malformed record stops the run with its line number: the records before
// it were applied, nothing of it or after it was sent.  (The reader's own
// faults, each with its message: ldif_reader_test.)
TEST_F(Cli, MalformedLdifIsRefusedByLine) {
  const std::pair<std::string, std::string> cases[] = {
      {"dn: cn=B,ou=People,dc=example,dc=com\nobjectClass: person\ncn: B\nsn:: ###\n",
       "line 9: bad base64 value for \"sn\""},
      {"dn: cn=A,ou=People,dc=example,dc=com\nchangetype: modrdn\nnewrdn: cn=B\ndeleteoldrdn: 1\n"
       "newsuperior: ou=Groups,dc=example,dc=com\n",
       "line 10: newsuperior is not supported"}};
  const std::string first = "dn: " + people("cn=A") + "\nobjectClass: person\ncn: A\nsn: A\n\n";
  const std::string third = "\ndn: " + people("cn=C") + "\nobjectClass: person\ncn: C\nsn: C\n";
  for (const auto &[bad, message] : cases) {
    auto r = run("add", {}, first + bad + third);
    EXPECT_NE(r.exit_code, 0);
    EXPECT_NE(r.err.find("(standard input): " + message), std::string::npos) << r.err;
    EXPECT_NE(entry(people("cn=A")), "");
    EXPECT_EQ(entry(people("cn=B")) + entry(people("cn=C")), "");
    ASSERT_EQ(run("delete", {people("cn=A")}).exit_code, 0);
  }
  // With -c the run goes on past the bad record and still fails in the end.
  auto r = run("add", {"-c"}, "dn: " + people("cn=A") + "\nchangetype: explode\n" + third);
  EXPECT_EQ(r.exit_code, LDAP_PARAM_ERROR);
  EXPECT_NE(entry(people("cn=C")), "");
  EXPECT_EQ(run("delete", {people("cn=C")}).exit_code, 0);
}

}  // namespace
