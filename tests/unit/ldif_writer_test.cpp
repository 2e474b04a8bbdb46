// The LDIF writer: which values go out as base64, line folding, and the
// round trip through the reader.
#include <gtest/gtest.h>

#include <string>

#include "ldif.h"

namespace {

TEST(LdifWriter, UnsafeValuesGoOutAsBase64) {
  struct Case {
    std::string value;
    bool safe;
  } cases[] = {
      {"", true},
      {"plain text, with: colons", true},
      {" leading space", false},
      {":leading colon", false},
      {"<leading angle", false},
      {"trailing space ", false},
      {std::string("zero\0byte", 9), false},
      {"new\nline", false},
      {"carriage\rreturn", false},
      {"caf\xC3\xA9", false},
      {"inner < and : are fine", true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.value);
    EXPECT_EQ(tavldif::is_safe_string(c.value), c.safe);
    const std::string line = tavldif::attr_line("a", c.value);
    EXPECT_EQ(line, c.safe ? "a: " + c.value + "\n" : "a:: " + tavldif::base64_encode(c.value) + "\n");
  }
}

TEST(LdifWriter, Base64KnownAnswers) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
      {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {std::string("\0\xFF", 2), "AP8="}};
  for (const auto &[plain, coded] : cases) {
    EXPECT_EQ(tavldif::base64_encode(plain), coded);
    std::string back;
    ASSERT_TRUE(tavldif::base64_decode(coded, &back)) << coded;
    EXPECT_EQ(back, plain);
  }
}

TEST(LdifWriter, LongLinesFoldAt76Columns) {
  const std::string value(200, 'x');
  const std::string out = tavldif::attr_line("description", value);
  size_t start = 0;
  int lines = 0;
  while (start < out.size()) {
    size_t nl = out.find('\n', start);
    ASSERT_NE(nl, std::string::npos);
    EXPECT_LE(nl - start, 76u);
    if (lines > 0) {
      EXPECT_EQ(out[start], ' ');
    }
    start = nl + 1;
    ++lines;
  }
  EXPECT_EQ(lines, 3);
}

TEST(LdifWriter, WrittenRecordsReadBackIdentically) {
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  const std::string values[] = {"simple", all, std::string(300, 'y'), " spaced ", std::string(1, '\0')};
  std::string text = tavldif::attr_line("dn", "cn=R\xC3\xA9sum\xC3\xA9,dc=example,dc=com");
  for (const auto &v : values) text += tavldif::attr_line("description", v);
  tavldif::Reader reader(text);
  tavldif::Record r;
  std::string error;
  ASSERT_TRUE(reader.next(&r, &error)) << error;
  EXPECT_EQ(r.dn, "cn=R\xC3\xA9sum\xC3\xA9,dc=example,dc=com");
  ASSERT_EQ(r.mods.size(), 1u);
  ASSERT_EQ(r.mods[0].values.size(), 5u);
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(r.mods[0].values[i], values[i]) << i;
}

}  // namespace
