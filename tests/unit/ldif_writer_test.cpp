// The LDIF writer: which values go out as base64, and line folding.  The
// output is compared with fixed text; the client's search output as a whole
// is compared with ldapsearch's in the client test.
#include <gtest/gtest.h>

#include <string>

#include "ldif.h"

namespace {

TEST(LdifWriter, UnsafeValuesGoOutAsBase64AndLongLinesFold) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "a: \n"},
      {"plain text, with: colons", "a: plain text, with: colons\n"},
      {"inner < and : are fine", "a: inner < and : are fine\n"},
      {" leading space", "a:: IGxlYWRpbmcgc3BhY2U=\n"},
      {":leading colon", "a:: OmxlYWRpbmcgY29sb24=\n"},
      {"<leading angle", "a:: PGxlYWRpbmcgYW5nbGU=\n"},
      {"trailing space ", "a:: dHJhaWxpbmcgc3BhY2Ug\n"},
      {std::string("zero\0byte", 9), "a:: emVybwBieXRl\n"},
      {"new\nline", "a:: bmV3CmxpbmU=\n"},
      {"carriage\rreturn", "a:: Y2FycmlhZ2UNcmV0dXJu\n"},
      {"caf\xC3\xA9", "a:: Y2Fmw6k=\n"},
      {std::string(150, 'x'),
       "a: " + std::string(73, 'x') + "\n " + std::string(75, 'x') + "\n " + std::string(2, 'x') + "\n"}};
  for (const auto &[value, line] : cases) {
    EXPECT_EQ(tavldif::attr_line("a", value), line);
    EXPECT_EQ(tavldif::is_safe_string(value), line[2] == ' ') << value;
  }
  const std::pair<std::string, std::string> known[] = {
      {"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
      {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {std::string("\0\xFF", 2), "AP8="}};
  for (const auto &[plain, coded] : known) {
    EXPECT_EQ(tavldif::base64_encode(plain), coded);
    std::string back;
    ASSERT_TRUE(tavldif::base64_decode(coded, &back)) << coded;
    EXPECT_EQ(back, plain);
  }
}

}  // namespace
