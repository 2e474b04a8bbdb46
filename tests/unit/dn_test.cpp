// DN parsing: codes and normalised forms, the exploded and user-friendly forms,
// traces, allocation failures, and a corpus run side by side with OpenLDAP's
// functions of the same names.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "alloc_sweep.h"
#include "ldap-debug.h"
#include "ldap-dn.h"
#include "ldap-utils.h"
#include "process.h"
#include "trace_watch.h"

namespace {

using V = std::vector<std::string>;
using List = std::optional<V>;
const List kNone = std::nullopt;

List take(char **v) {
  if (v == nullptr) return kNone;
  V out;
  for (char **p = v; *p != nullptr; ++p) out.emplace_back(*p), free(*p);
  free(v);
  return out;
}

// The public forms: explode_dn with types and without, explode_rdn likewise, dn2ufn.
List form(int k, const char *dn) {
  if (k < 2) return take(ldap_explode_dn(dn, k));
  if (k < 4) return take(ldap_explode_rdn(dn, k - 2));
  char *ufn = ldap_dn2ufn(dn);
  List out = ufn ? List(V{ufn}) : kNone;
  free(ufn);
  return out;
}

}  // namespace

TEST(DnParse, NormalisedForms) {
  const int sorted = LDAP_DN_MODE_SORTED, ordered = LDAP_DN_MODE_ORDERED;
  struct {
    const char *dn;
    int mode;
    const char *normalised, *upper;
    long rdns;
  } cases[] = {
      {"cn=Jo Smith, ou=People ,o=Example", ordered, "cn=Jo Smith,ou=People,o=Example",
       "CN=JO SMITH,OU=PEOPLE,O=EXAMPLE", 3},
      {"oid.2.5.4.3=Jo", ordered, "oid.2.5.4.3=Jo", "OID.2.5.4.3=JO", 1},
      {"KRV-KERBEROSNAME=x;krv-kerberosname=y", ordered, "krv-kn=x,krv-kn=y", "KRV-KN=X,KRV-KN=Y", 2},
      {"krv-kerberosnamex=x", ordered, "krv-kerberosnamex=x", "KRV-KERBEROSNAMEX=X", 1},
      {"sn=b+cn=a", sorted, "cn=a+sn=b", "CN=A+SN=B", 1},
      {"sn=b+cn=a", ordered, "sn=b+cn=a", "SN=B+CN=A", 1},
      {"cn=b+CN=a+cn=A+sn=0", sorted, "CN=a+cn=A+cn=b+sn=0", "CN=A+CN=A+CN=B+SN=0", 1},
      {"cn=#04034A6F65+sn=#04810341+l=#048800000000000000014142", ordered, "cn=Joe+sn=A+l=AB", "CN=JOE+SN=A+L=AB", 1},
      {"cn=\\41\\e4\\,\\+\\;\\<\\=\\>\\#\\\"\\\\", ordered, "cn=A\xe4\\,\\+\\;\\<\\=\\>#\\\"\\\\",
       "CN=A\xe4\\,\\+\\;\\<\\=\\>#\\\"\\\\", 1},
      {"cn=\\ ;o=\\20;l=\\ \\ ;c=\\#a#", ordered, "cn=\\ ,o=\\ ,l=\\ \\ ,c=\\#a#", "CN=\\ ,O=\\ ,L=\\ \\ ,C=\\#A#", 4},
      {"cn=\"a;b\\\"c \"  ,o=\" \"", ordered, "cn=a\\;b\\\"c\\ ,o=\\ ", "CN=A\\;B\\\"C\\ ,O=\\ ", 2},
      {"cn=\\09a\\0A", ordered, "cn=\\\ta\\\n", "CN=\\\tA\\\n", 1},
      {"cn=\"\",o=a\\00b", ordered, "cn=\"\",o=a", "CN=\"\",O=A", 2},
      {"cn=\xc3\xa4", ordered, "cn=\xc3\xa4", "CN=\xc3\xa4", 1},
      {"cn=a,", ordered, "cn=a", "CN=A", 1},
      {" cn = a + sn = b\\  ; 2.5 =x ", ordered, "cn=a+sn=b\\ ,2.5=x", "CN=A+SN=B\\ ,2.5=X", 2},
      {"", ordered, "", "", 0},
      {nullptr, ordered, "", "", 0},
  };
  for (const auto &c : cases) {
    const char *name = c.dn ? c.dn : "(null)";
    int rc = 12345;
    LDAPDN *dn = ldap_dn_parse(c.dn, c.mode, &rc);
    ASSERT_NE(dn, nullptr) << name;
    EXPECT_EQ(rc, 0) << name;
    EXPECT_STREQ(dn->dn_string, c.normalised) << name;
    EXPECT_STREQ(dn->dn_string_upper, c.upper) << name;
    EXPECT_EQ(dn->dn_rdn_count, c.rdns) << name;
    ldap_dn_free(&dn);
    EXPECT_EQ(dn, nullptr);
  }
  ldap_dn_free(nullptr);
}

TEST(DnParse, RefusalsGiveTheirCodeAndEmptyForms) {
  struct {
    int rc;
    long rdns;  // parsed before the bad one
    V dns;
  } cases[] = {
      {1,
       0,
       {"=a", "cn", " ", "cn;x=a", "1cn=x", ",cn=a", "cn=a+", "cn=a\\ b", "cn=\"a", "cn=a\\4", "cn=a\\", "cn=#",
        "cn=#0C034A6F65", "cn=#0403", "cn=#04034A6F6", "cn=#0489000000000000000001414243"}},
      {1, 1, {"cn=a,b", "cn=a,,o=b", "o=x;cn=a+sn=#0403"}},
      {7, 0, {"oid.x=a", "oid.1.=a"}},
      {-1, 0, {"cn=", "cn= "}},
      {6, 0, {"cn=,o=b", "cn=a=b", "cn=a>b"}},
      {2, 0, {"cn=a\\x"}},
      {3, 0, {"cn=a\\4g"}},
      {4, 0, {"cn=#04zz"}},
      {9, 0, {"cn=\"a\"x"}},
  };
  for (const auto &c : cases) {
    for (const std::string &text : c.dns) {
      int rc = 0;
      LDAPDN *dn = ldap_dn_parse(text.c_str(), LDAP_DN_MODE_SORTED, &rc);
      ASSERT_NE(dn, nullptr) << text;
      EXPECT_EQ(rc, c.rc) << text;
      EXPECT_STREQ(dn->dn_string, "") << text;
      EXPECT_STREQ(dn->dn_string_upper, "") << text;
      EXPECT_EQ(dn->dn_rdn_count, c.rdns) << text;
      ldap_dn_free(&dn);
    }
  }
}

TEST(DnExplode, ListsUserFriendlyFormAndDottedNames) {
  struct {
    const char *dn;
    List forms[5];
  } cases[] = {
      {"cn=Jo,o=Ex", {V{"cn=Jo", "o=Ex"}, V{"Jo", "Ex"}, V{"cn=Jo"}, V{"Jo"}, V{"Jo,Ex"}}},
      {"cn=a\\2C+sn=b\\20;o=\\#x",
       {V{"cn=a\\,+sn=b\\ ", "o=\\#x"}, V{"a\\,+b\\ ", "\\#x"}, V{"cn=a,", "sn=b "}, V{"a,", "b "},
        V{"a\\,+b\\ ,\\#x"}}},
      {"jo@example.com", {V{"jo", "example", "com"}, V{"jo", "example", "com"}, kNone, kNone, V{"jo@example.com"}}},
      {"a.b.c.d.e.f.g.h.i.j.k",
       {V{"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k"},
        V{"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k"}, kNone, kNone, V{"a.b.c.d.e.f.g.h.i.j.k"}}},
      {"@x..", {V{"", "x", "", ""}, V{"", "x", "", ""}, kNone, kNone, V{"@x.."}}},
      {"", {V{}, V{}, V{}, V{}, V{""}}},
      {"cn=a,b", {kNone, kNone, kNone, kNone, kNone}},
      {nullptr, {kNone, kNone, kNone, kNone, kNone}},
  };
  for (const auto &c : cases)
    for (int k = 0; k < 5; ++k) EXPECT_EQ(form(k, c.dn), c.forms[k]) << (c.dn ? c.dn : "(null)") << " form " << k;
  for (auto [s, dotted] : {std::pair<const char *, int>{"a.b", 1}, {"plain", 1}, {"a=b", 0}, {"a,b", 0}, {"", 0}})
    EXPECT_EQ(ldap_dn_is_dotted(s), dotted) << s;
  EXPECT_EQ(ldap_dn_is_dotted(nullptr), 0);
  EXPECT_EQ(ldap_explode_dotted(nullptr), nullptr);
}

TEST(DnTrace, TransitionsUnderTheDnCategoryAndBadInputAlways) {
  const std::string dn_trace = tavtest::traced(0x0800, [] {
    form(0, "cn =a,oid.1=b");
    form(2, "");
  });
  const std::string any_trace = tavtest::traced(0x0001, [] {
    form(4, "cn=a,oid.1.x=b");
    form(0, "cn;x=a");
    form(0, "cn=a=b");
  });

  for (const char *line :
       {"Start in state B4TYPE.\n", "\nState tx B4TYPE -> INIDENT.\n", "\nState tx INIDENT -> AFTERTYPE.\n",
        "\nState tx AFTERTYPE -> TYPEDONE.\n", "\nRead in OID prefix.", "\nState tx INOIDDIGIT -> INDIGITS.\n",
        "Start in state B4Value.\n", "\nState tx B4Value -> INVALUE.\n", "Adding RDN element with type=cn, value=a.\n",
        "New RDN element initializes RDN list.\n", "End of DN component, found ,.\n", "Parsed DN element 0.\n",
        "Parsed DN element 1.\n", "NULL DN value.\n"})
    EXPECT_NE(dn_trace.find(line), std::string::npos) << line << dn_trace;
  for (const char *line : {"ldap_dn2ufn\n", "Found bad type spec, bad oid x not digit.\n", "BAD RDN type, code=7.\n",
                           "Bad DN cn=a,oid.1.x=b.\n", "Found bad type spec, bad char ; after type.\n",
                           "BAD RDN type, code=1.\n", "BAD RDN value, code=6.\n", "Bad DN cn=a=b.\n"})
    EXPECT_NE(any_trace.find(line), std::string::npos) << line << any_trace;
  EXPECT_EQ(any_trace.find("State tx"), std::string::npos);
}

TEST(DnAllocation, EveryFailureGivesNoneAndLeaksNothing) {
  auto run = [](int k, const char *dn) {
    if (k < 5) return form(k, dn);
    int rc = 0;
    LDAPDN *rec = ldap_dn_parse(dn, LDAP_DN_MODE_SORTED, &rc);
    List r = rec ? List(V{std::to_string(rc), rec->dn_string, rec->dn_string_upper}) : kNone;
    EXPECT_TRUE(rec != nullptr || rc == LDAP_NO_MEMORY);
    ldap_dn_free(&rec);
    return r;
  };
  for (int k = 0; k < 6; ++k) {  // the public forms, then ldap_dn_parse
    for (const char *dn : {"cn=Jo Smith+sn=\\#x,ou=People;o=#04034A6F65", "cn=a,b", "", "a.b.c.d.e.f.g.h.i@j"}) {
      const List expected = run(k, dn);
      tavtest::sweep_allocations([&] { return run(k, dn); },
                                 [&](const List &r, bool failed, long n) {
                                   EXPECT_EQ(r, failed ? kNone : expected) << k << " " << dn << " allocation " << n;
                                 });
    }
  }
}

namespace {

// Outputs compared, and for each the notation OpenLDAP writes it in: how AVAs
// are joined and whether types and escapes are written.
struct Output {
  const char *name, *ava_sep;
  bool types, escaped;
};
const Output kOutputs[] = {
    {"explode_dn", "+", true, true},   {"explode_dn values", " + ", false, true},
    {"explode_rdn", "+", true, false}, {"explode_rdn values", "+", false, false},
    {"dn2ufn", " + ", false, true},
};
constexpr unsigned kDn = 1 | 2, kRdn = 4 | 8, kUfn = 16, kAll = 31;

// The differences docs/dn.md lists, with the outputs each may change.  A corpus
// line names those it shows; any other difference fails, and so does a named
// one that does not show.
const std::map<std::string, unsigned> kDifferences = {
    {"dotted", kDn | kUfn},     {"trailing-separator", kDn | kUfn},
    {"rdn-whole-string", kRdn}, {"hex-decoded", kAll},
    {"hex-refused", kAll},      {"quoted-hex", kAll},
    {"empty-value", kAll},      {"unescaped-special", kAll},
    {"space-escape", kAll},     {"nul-byte", kAll},
    {"oid-prefix", kAll},       {"type-options", kAll},
    {"krv-kn", 1 | 4},          {"ufn-dc", kUfn},
    {"openldap-aborts", kRdn},
};

int hex_value(char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; }

// OpenLDAP escapes with hex pairs only; the peer sends every string as hex.
std::string unhex(const std::string &s, bool escapes_only) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (escapes_only && (s[i] != '\\' || i + 2 >= s.size())) {
      out += s[i];
      continue;
    }
    i += escapes_only;
    out += static_cast<char>(hex_value(s[i]) * 16 + hex_value(s[i + 1]));
    ++i;
  }
  return out;
}

// Our escaping, blanks at either end and the empty value ("") included.
std::string escape(const std::string &v) {
  if (v.empty()) return "\"\"";
  std::string out;
  for (size_t i = 0; i < v.size(); ++i) {
    const bool blank = v[i] == ' ' || v[i] == '\t' || v[i] == '\n';
    if ((i == 0 && (v[i] == '#' || blank)) || (i + 1 == v.size() && blank) ||
        (v[i] != '\0' && strchr("\"+,;<=>\\", v[i]) != nullptr))
      out += '\\';
    out += v[i];
  }
  return out;
}

V split(const std::string &s, const std::string &sep) {
  V out;
  size_t from = 0;
  for (size_t at; (at = s.find(sep, from)) != std::string::npos; from = at + sep.size())
    out.push_back(s.substr(from, at - from));
  out.push_back(s.substr(from));
  return out;
}

// One RDN of OpenLDAP's in our notation.
std::string rewrite_rdn(const std::string &rdn, const Output &o) {
  std::string out;
  for (const std::string &ava : split(rdn, o.ava_sep)) {
    size_t eq = o.types ? ava.find('=') + 1 : 0;
    std::string value = unhex(ava.substr(eq), true);
    out += (out.empty() ? "" : "+") + ava.substr(0, eq) + (o.escaped ? escape(value) : value);
  }
  return out;
}

std::string show(const List &l) {
  std::string s = l ? "" : "none";
  for (const auto &e : l.value_or(V{})) s += "[" + e + "] ";
  return s;
}

}  // namespace

TEST(DnOpenLdap, CorpusAgreesExceptForDocumentedDifferences) {
  std::vector<std::pair<V, std::string>> corpus;  // differences shown, DN
  std::string input;
  for (const std::string &line : tavtest::split_lines(tavtest::read_file(TAV_SOURCE_DIR "/tests/data/dn_corpus.txt"))) {
    if (line.empty() || line[0] == '#') continue;
    size_t bar = line.find('|');
    ASSERT_NE(bar, std::string::npos) << line;
    corpus.emplace_back(line.compare(0, bar, "-") == 0 ? V{} : split(line.substr(0, bar), ","), line.substr(bar + 1));
    for (const auto &d : corpus.back().first) ASSERT_TRUE(kDifferences.count(d)) << d << " in " << line;
    input += corpus.back().second + "\n";
  }
  ASSERT_GE(corpus.size(), 200u);
  tavtest::ProcessResult peer = tavtest::run_process({TAV_DN_PEER}, {}, input);
  ASSERT_EQ(peer.exit_code, 0) << peer.err;
  const V results = tavtest::split_lines(peer.out);
  ASSERT_EQ(results.size(), corpus.size() * 5);

  size_t agreeing = 0;
  for (size_t i = 0; i < corpus.size(); ++i) {
    const char *dn = corpus[i].second.c_str();
    unsigned differing = 0, allowed = 0;
    bool no_rdns = false;  // OpenLDAP's "" UFN is then no RDNs, not one empty value
    std::string report;
    for (int k = 0; k < 5; ++k) {
      const std::string &r = results[i * 5 + k];  // "OK :hex :hex ...", "NULL" or "ABORT"
      List theirs = r == "ABORT" ? List(V{"(OpenLDAP aborted)"}) : kNone;
      if (r.compare(0, 2, "OK") == 0) {
        V items = split(r.substr(2), " :");
        theirs = V{};
        for (size_t j = 1; j < items.size(); ++j) theirs->push_back(unhex(items[j], false));
      }
      if (k == 0) no_rdns = theirs && theirs->empty();
      List expected = theirs;
      for (size_t j = 0; expected && j < expected->size(); ++j) {
        std::string &item = (*expected)[j];
        V rdns = k == 4 ? (no_rdns ? V{} : split(item, ", ")) : V{item};
        item.clear();
        for (const std::string &rdn : rdns) item += (item.empty() ? "" : ",") + rewrite_rdn(rdn, kOutputs[k]);
      }
      const List ours = form(k, dn);
      if (ours != expected) {
        differing |= 1u << k;
        report += std::string("\n  ") + kOutputs[k].name + ": ours " + show(ours) + " OpenLDAP " + show(theirs) +
                  " (as ours: " + show(expected) + ")";
      }
    }
    for (const auto &d : corpus[i].first) {
      allowed |= kDifferences.at(d);
      EXPECT_NE(differing & kDifferences.at(d), 0u) << "\"" << dn << "\" does not show " << d << report;
    }
    EXPECT_EQ(differing & ~allowed, 0u) << "\"" << dn << "\"" << report;
    agreeing += differing == 0;
  }
  EXPECT_GT(agreeing, corpus.size() / 2);  // or the comparison says little
}
