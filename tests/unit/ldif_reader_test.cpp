// The LDIF reader: change records of every kind, folding, comments, base64,
// and malformed input reported with its line number.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ldif.h"
#include "process.h"

using tavldif::Change;
using tavldif::Mod;
using tavldif::Reader;
using tavldif::Record;

namespace {

// Each record read from `text` as "line:change:dn[:op type=v,v...][newrdn]".
std::string read_all(const std::string &text, Change def = Change::Add) {
  Reader reader(text, def);
  Record r;
  std::string out, error;
  while (reader.next(&r, &error)) {
    out += std::to_string(r.line) + ":" + std::to_string(static_cast<int>(r.change)) + ":" + r.dn;
    for (const auto &m : r.mods) {
      out += ":" + std::to_string(m.op) + " " + m.type + "=";
      for (const auto &v : m.values) out += v + ",";
    }
    if (r.change == Change::ModRdn)
      out += ":" + r.newrdn + (r.deleteoldrdn ? " del" : " keep") +
             (r.has_newsuperior ? " " + r.newsuperior + "@" + std::to_string(r.newsuperior_line) : "");
    out += "\n";
  }
  return out + error;
}

TEST(LdifReader, ChangeRecordsOfEveryKind) {
  const std::string text =
      "version: 1\n"
      "# an entry to add, with a folded value and a comment inside\n"
      "dn: cn=A,dc=example,dc=com\nchangetype: add\nobjectClass: person\ncn: A\n"
      "# comment lines may be folded too\n  like this\n"
      "description: one long\n  line\nCN: second\njpegPhoto:: AP8A\n\n"
      "dn: cn=A,dc=example,dc=com\nchangetype: modify\nadd: mail\nmail: a@example.com\nmail: b@example.com\n-\n"
      "delete: description\n-\nreplace: sn\nsn: S\n-\n\n\n"
      "dn:: Y249QixkYz1leGFtcGxlLGRjPWNvbQ==\r\nchangetype: modrdn\r\nnewrdn: cn=C\r\ndeleteoldrdn: 1\r\n\r\n"
      "dn: cn=C,dc=example,dc=com\nchangetype: moddn\nnewrdn: cn=D\ndeleteoldrdn: 0\nnewsuperior: "
      "ou=x,dc=example,dc=com\n\n"
      "dn: cn=D,ou=x,dc=example,dc=com\nchangetype: delete\n";
  EXPECT_EQ(read_all(text),
            "3:1:cn=A,dc=example,dc=com:0 objectClass=person,:0 cn=A,second,:0 description=one long line,"
            ":0 jpegPhoto=" +
                std::string("\0\xFF\0", 3) +
                ",\n"
                "14:3:cn=A,dc=example,dc=com:0 mail=a@example.com,b@example.com,:1 description=:2 sn=S,\n"
                "27:4:cn=B,dc=example,dc=com:cn=C del\n"
                "32:4:cn=C,dc=example,dc=com:cn=D keep ou=x,dc=example,dc=com@36\n"
                "38:2:cn=D,ou=x,dc=example,dc=com\n");
  // Records without a changetype take the command's kind.
  EXPECT_EQ(read_all("dn: cn=a\n\ndn: cn=b\n", Change::Delete), "1:2:cn=a\n3:2:cn=b\n");
  EXPECT_EQ(read_all("dn: cn=a\nreplace: cn\ncn: b\n", Change::Modify), "1:3:cn=a:2 cn=b,\n");
  EXPECT_EQ(read_all("dn: cn=a\ncn: a\n"), "1:1:cn=a:0 cn=a,\n");
  // Values from files.
  tavtest::TempDir dir;
  tavtest::write_file(dir.file("photo"), std::string("\x01\x00\x02", 3));
  EXPECT_EQ(read_all("dn: cn=a\njpegPhoto:< file://" + dir.file("photo") + "\n"),
            "1:1:cn=a:0 jpegPhoto=" + std::string("\x01\x00\x02", 3) + ",\n");
}

// Each malformed record is reported with the line where the fault is, and
// the reader goes on with the record after it.
TEST(LdifReader, MalformedInputNamesTheLine) {
  struct Case {
    const char *name;
    std::string text;
    std::string error;
  } cases[] = {
      {"bad base64", "dn: cn=a\ncn:: Zm9v!\n", "line 2: bad base64 value for \"cn\""},
      {"base64 with misplaced padding", "dn: cn=a\ncn:: Zm=v\n", "line 2: bad base64 value for \"cn\""},
      {"base64 of a wrong length", "dn:: Zm9\n", "line 1: bad base64 value for \"dn\""},
      {"missing dn", "\n\ncn: a\nsn: b\n", "line 3: missing dn: a record begins with \"dn:\", found \"cn:\""},
      {"unknown changetype", "dn: cn=a\nchangetype: rename\n", "line 2: unknown changetype \"rename\""},
      {"continuation without a line", " cn=a\n", "line 1: continuation line without a line before it"},
      {"continuation after a blank line", "dn: cn=a\ncn: a\n\n more\n",
       "line 4: continuation line without a line before it"},
      {"line without a colon", "dn: cn=a\nsomething\n", "line 2: expected \"name: value\", found \"something\""},
      {"bad attribute name", "dn: cn=a\nc n: x\n", "line 2: bad attribute name \"c n\""},
      {"add without attributes", "dn: cn=a\nchangetype: add\n", "line 1: an entry to add needs attributes"},
      {"delete with a body", "dn: cn=a\nchangetype: delete\ncn: a\n",
       "line 3: a delete record has nothing after its changetype"},
      {"unknown modify operation", "dn: cn=a\nchangetype: modify\nincrement: n\nn: 1\n",
       "line 3: unknown modify operation \"increment\" (add, delete or replace)"},
      {"missing dash between changes", "dn: cn=a\nchangetype: modify\nadd: cn\ncn: x\nreplace: sn\nsn: y\n",
       "line 5: \"replace\" inside the change of \"cn\" begun at line 3 (missing \"-\"?)"},
      {"modrdn without newrdn", "dn: cn=a\nchangetype: modrdn\ndeleteoldrdn: 1\n",
       "line 1: a modrdn record needs \"newrdn:\""},
      {"modrdn with a bad flag", "dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: yes\n",
       "line 4: deleteoldrdn must be 0 or 1"},
      {"modrdn with a stray line", "dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\ncn: c\n",
       "line 4: unexpected \"cn\" in a modrdn record"},
      {"unsupported version", "version: 2\ndn: cn=a\ncn: a\n", "line 1: unsupported LDIF version \"2\""},
      {"controls", "dn: cn=a\ncontrol: 1.2.3 true\nchangetype: delete\n", "line 2: controls are not supported"},
      {"value URL not a file", "dn: cn=a\ncn:< http://example.com/x\n", "line 2: only file:// URLs can give a value"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Reader reader(c.text + "\ndn: cn=next\ncn: next\n");
    Record r;
    std::string error;
    // Good records before the bad one are delivered first.
    while (reader.next(&r, &error)) ASSERT_NE(r.dn, "cn=next");
    EXPECT_EQ(error, c.error);
    if (std::string(c.name) == "unsupported version") continue;
    ASSERT_TRUE(reader.next(&r, &error)) << error;
    EXPECT_EQ(r.dn, "cn=next");
  }
}

}  // namespace
