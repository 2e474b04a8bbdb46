// tavldap against the private slapd: one table of command lines run with
// tavldap and with the ldap-utils program it stands for, whose output and exit
// status must be the same; change records of every kind checked with
// ldapsearch; malformed LDIF refused by line before it is sent; referrals
// chased only when told, with the credentials only when told.
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <tuple>
#include <vector>

#include "fake_server.h"
#include "keydb.h"
#include "ldap-int.h"
#include "process.h"
#include "referral_servers.h"
#include "sasl_plugins.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

std::string people(const std::string &rdn) { return rdn + "," + SlapdServer::kPeopleDn; }

class Cli : public tavtest::SlapdSuite<Cli> {
 public:
  // Server-side sorting and virtual list views for -E sss= and -E vlv=; a
  // password policy that makes cn=reset change its password, for -e ppolicy;
  // SASL mechanisms checked against the entries' passwords, for -Y.
  static tavtest::SlapdOptions options() {
    // -X: user2 may act as user1.  With the default limit on sorts in progress
    // (half the server's threads) slapd now and then answered a view's next
    // window with 51, busy.  TLS for ldaps and -ZZ.
    return {.modules = {"sssvlv", "ppolicy"},
            .global_config = tavtest::sasl_slapd_options().global_config + "authz-policy to\n",
            .database_config =
                "overlay sssvlv\nsssvlv-max 32\noverlay ppolicy\nppolicy_default cn=policy,dc=example,dc=com\n",
            .extra_ldif = "dn: cn=policy,dc=example,dc=com\nobjectClass: pwdPolicy\nobjectClass: person\ncn: policy\n"
                          "sn: policy\npwdAttribute: userPassword\npwdMustChange: TRUE\n\n"
                          "dn: cn=reset,dc=example,dc=com\nobjectClass: person\ncn: reset\nsn: reset\n"
                          "userPassword: resetpw\npwdReset: TRUE\n",
            .tls = true};
  }

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

TEST_F(Cli, ChangeRecordsOfEveryKindAreApplied) {
  const std::string a = people("cn=Cli");
  auto r =
      run("add", {},
          "dn: " + a + "\nobjectClass: inetOrgPerson\ncn: Cli\nsn: Test\njpegPhoto:: AAEAAgD/\ndescription: first\n\n" +
              "dn: " + a + "\nchangetype: modify\nadd: mail\nmail: cli@example.com\n-\ndelete: description\n-\n" +
              "replace: sn\nsn: Changed\n-\n\ndn: " + a + "\nchangetype: modrdn\nnewrdn: cn=Cli2\ndeleteoldrdn: 1\n");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "adding new entry \"" + a + "\"\n\nmodifying entry \"" + a + "\"\n\nmodifying rdn of entry \"" + a +
                       "\"\n\n");
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
  EXPECT_EQ(std::make_pair(r.exit_code, r.out), std::make_pair(0, "deleting entry \"" + people("cn=Cli3") + "\"\n\n"));
  EXPECT_EQ(entry(people("cn=Cli3")), "");
  r = run("add", {"-f", dir.file("missing.ldif")});
  EXPECT_NE(r.exit_code, 0);
  EXPECT_NE(r.err.find("missing.ldif"), std::string::npos) << r.err;
}

TEST_F(Cli, UrlSearchesPrintWhatLdapsearchPrints) {
  const std::string url = slapd->url() + "/" + SlapdServer::kPeopleDn + "?uid,cn?one?(|(uid=user1)(uid=user2))";
  auto r = run("url", {url});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, ldapsearch({"-b", SlapdServer::kPeopleDn, "-s", "one", "(|(uid=user1)(uid=user2))", "uid", "cn"}));
  EXPECT_EQ(run("url", {"ldap:///o=x??wide"}).exit_code, 256 - 9);
}

// Each line run with the ldap-utils program and with tavldap against the same
// server: standard output, standard error (the program's name aside) and exit
// status must be the same.  Lines that change the directory leave it as they
// found it, so both runs see the same entries.
TEST_F(Cli, CommandLinesDoWhatLdapUtilsDo) {
  const std::string root[] = {"-D", SlapdServer::kRootDn, "-w", SlapdServer::kRootPw}, P = SlapdServer::kPeopleDn,
                    S = SlapdServer::kSuffix, ref = "ou=ref," + S, u1 = SlapdServer::user_dn(1);
  const std::string moved = "uid=user4,ou=Groups," + S, user4 = SlapdServer::user_dn(4);
  const std::string O = ":caseIgnoreOrderingMatch";  // uid and sn have no ordering rule of their own
  const tavtest::TempDir files;                        // for -t, and krvldap.conf for -Y
  tavtest::use_config(files.path(), "plugin sasl SCRAM-SHA-256 " TAV_BUILD_DIR "/lib/libtavsasl.so\n"
                                    "plugin sasl DIGEST-MD5 " TAV_BUILD_DIR "/lib/libtavsasl.so\n");
  // The server's CA: ldap-utils take it from the environment, tavldap from a
  // key database.
  const std::string kdb = files.file("ca.kdb"), ca = slapd->tls_file("ca.pem");
  ASSERT_EQ(tavtest::trusting_keydb(kdb, "kdbpw", ca), "");
  std::string out;
  ASSERT_EQ(slapd->ldap_tool("ldapadd", {"-M", root[0], root[1], root[2], root[3]}, &out,
                             "dn: " + ref + "\nobjectClass: referral\nobjectClass: extensibleObject\nou: ref\nref: " +
                                 slapd->url() + "/" + SlapdServer::user_dn(3) + "\n"),
            0)
      << out;
  ASSERT_EQ(slapd->ldap_tool("ldapmodify", {root[0], root[1], root[2], root[3]}, &out,
                             "dn: " + SlapdServer::user_dn(2) + "\nchangetype: modify\nadd: authzTo\nauthzTo: dn:" + u1 +
                                 "\n"),
            0)
      << out;
  const auto bound = [&](std::vector<std::string> args) {
    args.insert(args.begin(), root, root + 4);
    return args;
  };
  const std::tuple<std::string, std::string, std::vector<std::string>, std::string> lines[] = {
      {"ldapsearch", "search", {"-b", P, "-s", "one", "(uid=user1)", "cn"}, ""},
      {"ldapsearch", "search", {"-LL", "-b", P, "-s", "one", "(uid=user1)", "cn"}, ""},
      {"ldapsearch", "search", {"-b", S, "-s", "one", "(ou=*)", "ou"}, ""},
      {"ldapsearch", "search", {"-L", "-b", S, "-s", "one", "(ou=*)", "ou"}, ""},
      {"ldapsearch", "search", {"-LLL", "-b", S, "-s", "one", "(ou=*)", "ou"}, ""},
      {"ldapsearch", "search", {"-b", ref, "-s", "base"}, ""},
      {"ldapsearch", "search", {"-LLL", "-b", ref, "-s", "base"}, ""},
      {"ldapsearch", "search", {"-LLL", "-C", "-b", ref, "-s", "base", "(objectClass=*)", "uid"}, ""},
      {"ldapsearch", "search", {"-LLL", "-M", "-b", ref, "-s", "base", "ou"}, ""},
      {"ldapsearch", "search", {"-b", "ou=Nope," + P}, ""},
      {"ldapsearch", "search", {"-LLL", "-b", "ou=Nope," + P}, ""},
      {"ldapsearch", "search", {"-LLL", "-b", P, "-z", "2", "uid"}, ""},
      {"ldapsearch", "search", {"-LLL", "-b", P, "(uid=user1", "uid"}, ""},
      {"ldapsearch", "search", {"-LLL", "-b", P, "(ou:dn:=People)", "uid"}, ""},
      {"ldapsearch", "search", {"-LLL", "-E", "pr=2/noprompt", "-b", P, "uid"}, ""},
      {"ldapsearch", "search", {"-LLL", "-e", "assert=(ou=x)", "-b", P, "-s", "base"}, ""},
      {"ldapsearch", "search", {"-E", "!sss=-sn" + O + "/uid" + O, "-b", P, "-s", "one", "uid"}, ""},
      // A window typed on input, then the end of input.
      {"ldapsearch", "search", {"-LLL", "-E", "sss=uid" + O, "-E", "!vlv=0/1:user4", "-b", P, "-s", "one", "uid"},
       "1/0/6/5\n"},
      {"ldapsearch", "search", {"-LLL", "-tt", "-T", files.path(), "-b", u1, "-s", "base", "cn", "sn"}, ""},
      {"ldapsearch", "search", {"-LLL", "-A", "-b", u1, "-s", "base", "(objectClass=*)", "cn", "sn"}, ""},
      {"ldapsearch", "search", {"-LLL", "-a", "never", "-l", "5", "-b", u1, "-s", "base", "uid"}, ""},
      {"ldapsearch", "search", {"-LLL", "-D", SlapdServer::kRootDn, "-w", "wrong", "-b", P}, ""},
      {"ldapsearch", "search", {"-ZZ", "-LLL", "-b", u1, "-s", "base", "uid"}, ""},
      {"ldapsearch", "search", {"-H", "ldaps://" + slapd->ldaps_host_port(), "-LLL", "-b", u1, "-s", "base", "uid"}, ""},
      {"ldapcompare", "compare", {u1, "cn:User 1"}, ""},
      {"ldapcompare", "compare", {u1, "cn::VXNlciAy"}, ""},
      {"ldapcompare", "compare", {"uid=x," + P, "cn:User 1"}, ""},
      {"ldapwhoami", "whoami", bound({}), ""},
      {"ldapwhoami", "whoami", {}, ""},
      {"ldapwhoami", "whoami", bound({"-e", "!authzid=dn:" + u1}), ""},
      {"ldapwhoami", "whoami", {"-e", "ppolicy", "-D", "cn=reset," + S, "-w", "resetpw"}, ""},
      {"ldapwhoami", "whoami", {"-Y", "SCRAM-SHA-256", "-U", "user2", "-w", "pass2"}, ""},
      {"ldapwhoami", "whoami", {"-Y", "DIGEST-MD5", "-U", "user2", "-R", "example", "-O", "maxssf=0", "-w", "pass2"}, ""},
      {"ldapwhoami", "whoami", {"-Y", "DIGEST-MD5", "-U", "user2", "-X", "dn:" + u1, "-O", "maxssf=0", "-w", "pass2"}, ""},
      {"ldapexop", "exop", bound({"whoami"}), ""},
      {"ldapexop", "exop", bound({"1.3.6.1.4.1.4203.1.11.3"}), ""},
      {"ldappasswd", "passwd", bound({"-s", "pass5", SlapdServer::user_dn(5)}), ""},
      {"ldapdelete", "delete", bound({"cn=Nobody," + P}), ""},
      {"ldapmodrdn", "modrdn", bound({"-s", P, "uid=x," + P, "uid=y"}), ""},
      {"ldapmodrdn", "modrdn", {u1, "uid=x"}, ""},
      {"ldapadd", "add", bound({}), "dn: " + P + "\nobjectClass: organizationalUnit\nou: People\n"},
      {"ldapadd", "add", {"-D", u1, "-w", "pass1"}, "dn: cn=x," + P + "\nobjectClass: person\ncn: x\nsn: x\n"},
      {"ldapmodify", "modify", bound({}),
       "dn: " + user4 + "\nchangetype: modrdn\nnewrdn: uid=user4\ndeleteoldrdn: 1\nnewsuperior: ou=Groups," + S +
           "\n\ndn: " + moved + "\nchangetype: modify\nreplace: sn\nsn: moved\n\ndn: " + moved +
           "\nchangetype: modrdn\nnewrdn: uid=user4\ndeleteoldrdn: 1\nnewsuperior: " + P + "\n"},
      {"ldapmodify", "modify", bound({"-c"}),
       "dn: cn=Nobody," + S + "\nchangetype: delete\n\ndn: cn=Cli," + P +
           "\nchangetype: add\nobjectClass: person\ncn: Cli\nsn: C\n\ndn: cn=Cli," + P + "\nchangetype: delete\n"}};
  int same = 0;
  for (const auto &[tool, verb, args, input] : lines) {
    std::vector<std::string> argv = {"/usr/bin/" + tool};
    if (std::find(args.begin(), args.end(), "-H") == args.end()) argv.insert(argv.end(), {"-H", slapd->url()});
    if (std::find(args.begin(), args.end(), "-Y") == args.end()) argv.push_back("-x");
    argv.insert(argv.end(), args.begin(), args.end());
    auto want = tavtest::run_process(argv, {{"LDAPTLS_CACERT", ca}, {"LDAPTLS_REQCERT", "demand"}}, input);
    argv[0] = TAV_CLIENT;
    argv.insert(argv.begin() + 1, {verb, "-o", "keydb=" + kdb, "-o", "keydb-password=kdbpw"});
    auto got = tavtest::run_process(
        argv, {{"LDAP_DEBUG", ""}, {"TAVLIB_LOCAL_INSTALL_MODE", "1"}, {"LD_LIBRARY_PATH", TAV_BUILD_DIR "/lib"}}, input);
    for (size_t at; (at = got.err.find("tavldap")) != std::string::npos;) got.err.replace(at, 7, tool);
    // A view's context ID is the server's own for each search; the files
    // -t writes have names of their own.
    for (auto *text : {&want.out, &got.out}) {
      for (size_t at = 0; (at = text->find("context=", at)) != std::string::npos; at += 8)
        text->erase(at + 8, text->find_first_of(" \n", at) - at - 8);
      for (size_t at = 0; (at = text->find(":< file://", at)) != std::string::npos; ++at) {
        const size_t name = text->rfind('/', text->find('\n', at)) + 1;
        text->erase(name, text->find('\n', at) - name);
      }
    }
    const bool ok = std::tie(got.exit_code, got.out, got.err) == std::tie(want.exit_code, want.out, want.err);
    same += ok;
    EXPECT_TRUE(ok) << tool << " " << testing::PrintToString(args) << "\n" << want.exit_code << " " << want.out
                    << want.err << "---\n" << got.exit_code << " " << got.out << got.err;
  }
  std::cout << same << " of " << std::size(lines) << " command lines do what ldap-utils do\n";
  EXPECT_NE(entry(user4), "");
  EXPECT_EQ(entry("cn=Cli," + P), "");
  for (const auto &args : std::vector<std::vector<std::string>>{{"add", "unexpected"},
                                                                {"modrdn", "only-a-dn"},
                                                                {"search", "-s", "wide"},
                                                                {"search", "-o", "referral-credentials=maybe"},
                                                                {"search", "-o", "timeout=soon"},
                                                                {"whoami", "-Y", "DIGEST-MD5", "-O", "maxssf=56"},
                                                                {"frobnicate"}})
    EXPECT_EQ(run(args[0], std::vector<std::string>(args.begin() + 1, args.end())).exit_code, 2) << args[0];
  // -o timeout bounds the wait for a server that never answers.
  tavtest::FakeServer silent;
  silent.hold_until_closed();
  auto quiet = tavtest::run_process({TAV_CLIENT, "search", "-o", "timeout=1", "-o", "nettimeout=1", "-H",
                                     "ldap://127.0.0.1:" + std::to_string(silent.start()), "-b", "o=x"},
                                    {{"TAVLDAP_LIBRARY", TAV_SHARED_OBJECT}});
  EXPECT_EQ(quiet.exit_code, 256 - 5) << quiet.err;
  // -d traces the run; the password never reaches the trace.
  auto r = tavtest::run_process({TAV_CLIENT, "delete", "-d", "65535", "-H", slapd->url(), "-D", SlapdServer::kRootDn,
                                 "-w", SlapdServer::kRootPw, people("cn=Nobody")},
                                {{"TAVLDAP_LIBRARY", TAV_SHARED_OBJECT}, {"LDAP_DEBUG_FILE", ""}});
  EXPECT_EQ(r.exit_code, LDAP_NO_SUCH_OBJECT);
  EXPECT_NE(r.err.find("ldap_delete_ext: returning rc=0"), std::string::npos);
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
    std::vector<std::string> argv = {TAV_CLIENT, "search", "-C",
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
       "line 9: bad base64 value for \"sn\""}};
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
  EXPECT_EQ(r.exit_code, 256 - 9);
  EXPECT_NE(entry(people("cn=C")), "");
  EXPECT_EQ(run("delete", {people("cn=C")}).exit_code, 0);
}

}  // namespace
