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

std::vector<Record> read_all(const std::string &text, std::string *error, Change def = Change::Add) {
  Reader reader(text, def);
  std::vector<Record> out;
  Record r;
  while (reader.next(&r, error)) out.push_back(r);
  return out;
}

TEST(LdifReader, ChangeRecordsOfEveryKind) {
  const std::string text =
      "version: 1\n"
      "# an entry to add, with a folded value and a comment inside\n"
      "dn: cn=A,dc=example,dc=com\n"
      "changetype: add\n"
      "objectClass: person\n"
      "cn: A\n"
      "# comment lines may be folded too\n"
      "  like this\n"
      "description: one long\n"
      "  line\n"
      "CN: second\n"
      "jpegPhoto:: AP8A\n"
      "\n"
      "dn: cn=A,dc=example,dc=com\n"
      "changetype: modify\n"
      "add: mail\n"
      "mail: a@example.com\n"
      "mail: b@example.com\n"
      "-\n"
      "delete: description\n"
      "-\n"
      "replace: sn\n"
      "sn: S\n"
      "-\n"
      "\n\n"
      "dn:: Y249QixkYz1leGFtcGxlLGRjPWNvbQ==\r\n"
      "changetype: modrdn\r\n"
      "newrdn: cn=C\r\n"
      "deleteoldrdn: 1\r\n"
      "\r\n"
      "dn: cn=C,dc=example,dc=com\n"
      "changetype: moddn\n"
      "newrdn: cn=D\n"
      "deleteoldrdn: 0\n"
      "newsuperior: ou=x,dc=example,dc=com\n"
      "\n"
      "dn: cn=D,ou=x,dc=example,dc=com\n"
      "changetype: delete\n";
  std::string error;
  auto records = read_all(text, &error);
  EXPECT_EQ(error, "");
  ASSERT_EQ(records.size(), 5u);

  EXPECT_EQ(records[0].line, 3);
  EXPECT_EQ(records[0].change, Change::Add);
  ASSERT_EQ(records[0].mods.size(), 4u);
  EXPECT_EQ(records[0].mods[1].type, "cn");
  EXPECT_EQ(records[0].mods[1].values, (std::vector<std::string>{"A", "second"}));
  EXPECT_EQ(records[0].mods[2].values, (std::vector<std::string>{"one long line"}));
  EXPECT_EQ(records[0].mods[3].values, (std::vector<std::string>{std::string("\0\xFF\0", 3)}));

  EXPECT_EQ(records[1].change, Change::Modify);
  ASSERT_EQ(records[1].mods.size(), 3u);
  EXPECT_EQ(records[1].mods[0].op, Mod::Add);
  EXPECT_EQ(records[1].mods[0].values.size(), 2u);
  EXPECT_EQ(records[1].mods[1].op, Mod::Delete);
  EXPECT_TRUE(records[1].mods[1].values.empty());
  EXPECT_EQ(records[1].mods[2].op, Mod::Replace);
  EXPECT_EQ(records[1].mods[2].type, "sn");

  EXPECT_EQ(records[2].dn, "cn=B,dc=example,dc=com");
  EXPECT_EQ(records[2].change, Change::ModRdn);
  EXPECT_EQ(records[2].newrdn, "cn=C");
  EXPECT_TRUE(records[2].deleteoldrdn);
  EXPECT_FALSE(records[2].has_newsuperior);

  EXPECT_FALSE(records[3].deleteoldrdn);
  EXPECT_TRUE(records[3].has_newsuperior);
  EXPECT_EQ(records[3].newsuperior, "ou=x,dc=example,dc=com");
  EXPECT_EQ(records[3].newsuperior_line, 36);

  EXPECT_EQ(records[4].change, Change::Delete);
  EXPECT_EQ(records[4].line, 38);
}

TEST(LdifReader, RecordsWithoutChangetypeTakeTheDefault) {
  std::string error;
  auto del = read_all("dn: cn=a\n\ndn: cn=b\n", &error, Change::Delete);
  ASSERT_EQ(del.size(), 2u);
  EXPECT_EQ(del[1].change, Change::Delete);
  auto mod = read_all("dn: cn=a\nreplace: cn\ncn: b\n", &error, Change::Modify);
  ASSERT_EQ(mod.size(), 1u);
  EXPECT_EQ(mod[0].mods[0].op, Mod::Replace);
  auto add = read_all("dn: cn=a\ncn: a\n", &error);
  ASSERT_EQ(add.size(), 1u);
  EXPECT_EQ(add[0].change, Change::Add);
}

TEST(LdifReader, ValuesFromFiles) {
  tavtest::TempDir dir;
  tavtest::write_file(dir.file("photo"), std::string("\x01\x00\x02", 3));
  std::string error;
  auto r = read_all("dn: cn=a\njpegPhoto:< file://" + dir.file("photo") + "\n", &error);
  ASSERT_EQ(r.size(), 1u) << error;
  EXPECT_EQ(r[0].mods[0].values[0], std::string("\x01\x00\x02", 3));
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
      {"value URL not a file", "dn: cn=a\ncn:< http://example.com/x\n", "line 2: only file:// URLs can give a value"},
  };
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
