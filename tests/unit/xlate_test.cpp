// Translation entry points: where the local code page comes from, the
// one-step and two-step paths, re-opening on code-page changes, and the
// public buffer functions.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "ldap-utils.h"
#include "ldap-xlate.h"
#include "tavldap.h"

namespace {

class Xlate : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TISDIR", TAV_BUILD_DIR, 1);
    unsetenv("LDAP_CODEPAGE");
    unsetenv("LDAP_USE_UNICODE");
  }
  // The codec's form: a new buffer with the converted bytes, or the code.
  static std::string convert(int direction, const std::string &in, int *rc = nullptr) {
    char *buf = static_cast<char *>(malloc(in.size() + 1));
    memcpy(buf, in.data(), in.size());
    unsigned long len = in.size();
    int r = direction == 0 ? xlate_local_to_utf8(&buf, &len, 1) : xlate_utf8_to_local(&buf, &len, 1);
    if (rc != nullptr) *rc = r;
    std::string out = r == 0 ? std::string(buf, len) : std::string();
    free(buf);
    return out;
  }
};

TEST_F(Xlate, LocalCodePageFromCallEnvironmentAndLocale) {
  ASSERT_EQ(ldap_set_iconv_local_codepage("ISO8859-1"), 0);
  char *buf = strdup("M\xFCller");
  unsigned long len = 6;
  char *before = buf;
  ASSERT_EQ(xlate_local_to_utf8(&buf, &len, 0), 0);
  EXPECT_EQ(std::string(buf, len), "M\xC3\xBCller");  // 7 bytes from 6
  EXPECT_NE(buf, before);
  free(before);
  free(buf);
  EXPECT_EQ(convert(1, "\xCE\xA9 \xC3\xA9"), "? \xE9");  // no omega in Latin-1

  // LDAP_CODEPAGE takes over once a new locale forgets the stored code page.
  setenv("LDAP_CODEPAGE", "IBM-037", 1);
  ASSERT_EQ(ldap_set_locale("C"), 0);
  EXPECT_EQ(std::string(ldap_xlate_globals.codepage), "IBM-037");
  EXPECT_EQ(convert(0, "\xC1\x81\x5A"), "Aa!");
  EXPECT_EQ(convert(1, "Aa!"), "\xC1\x81\x5A");
  // UTF-8 from the environment: the two-step path goes through UCS-2 both ways.
  setenv("LDAP_CODEPAGE", "UTF-8", 1);
  ASSERT_EQ(ldap_set_locale("C"), 0);
  setenv("LDAP_USE_UNICODE", "yes", 1);
  EXPECT_EQ(convert(1, "\xC3\xA9\xE2\x82\xAC"), "\xC3\xA9\xE2\x82\xAC");
  EXPECT_EQ(convert(0, "\xC3\xA9\xE2\x82\xAC"), "\xC3\xA9\xE2\x82\xAC");
  unsetenv("LDAP_USE_UNICODE");

  // Without it, the locale's code set (the C locale's ASCII, aliased to Latin-1).
  unsetenv("LDAP_CODEPAGE");
  ASSERT_EQ(ldap_set_locale("C"), 0);
  EXPECT_EQ(std::string(ldap_xlate_globals.codepage), "ISO88591");  // through the aliases
  EXPECT_EQ(convert(0, "\xE9"), "\xC3\xA9");
  EXPECT_EQ(xlate_is_identity(), 0);

  ASSERT_EQ(ldap_set_locale("C.UTF-8"), 0);
  EXPECT_EQ(xlate_is_identity(), 1);
  EXPECT_EQ(convert(0, "\xE2\x82\xAC"), "\xE2\x82\xAC");
}

TEST_F(Xlate, CodePageChangesReopenTheConverters) {
  ASSERT_EQ(ldap_set_iconv_local_codepage("ISO8859-1"), 0);
  EXPECT_EQ(convert(0, "\xC1"), "\xC3\x81");
  ldap_iconv_handle *first = ldap_xlate_globals.slot[XLATE_LOCAL_TO_UTF8];
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(convert(0, "\xC1"), "\xC3\x81");
  EXPECT_EQ(ldap_xlate_globals.slot[XLATE_LOCAL_TO_UTF8], first);  // reused while the code page stays
  ASSERT_EQ(ldap_set_iconv_local_codepage("037"), 0);
  for (int &flag : ldap_xlate_globals.reset) EXPECT_EQ(flag, 1);
  EXPECT_EQ(convert(0, "\xC1"), "A");
  EXPECT_STREQ(ldap_xlate_globals.slot[XLATE_LOCAL_TO_UTF8]->cv->name, "037");
  EXPECT_EQ(ldap_xlate_globals.reset[XLATE_LOCAL_TO_UTF8], 0);

  EXPECT_EQ(ldap_set_iconv_local_codepage(""), LDAP_PARAM_ERROR);  // keeps 037
  EXPECT_STREQ(ldap_xlate_globals.codepage, "037");
  EXPECT_EQ(ldap_set_iconv_local_charset("KSC"), 0);
  EXPECT_STREQ(ldap_xlate_globals.codepage, "949");
  EXPECT_EQ(ldap_set_iconv_local_charset("ISO-8859-3"), LDAP_PARAM_ERROR);
  // Every name it takes converts (E0 E1 is one character or two in each of
  // them, none "?"), or is refused at once rather than failing every call.
  int refused = 0;
  for (size_t i = 0; const char *name = ldap_charset_name(i); ++i) {
    int rc = ldap_set_iconv_local_charset(name);
    refused += rc == LDAP_XLATE_INPUT_TRUNCATED;
    if (rc == LDAP_XLATE_INPUT_TRUNCATED) continue;
    ASSERT_EQ(rc, 0) << name;
    const std::string utf8 = convert(0, "A\xE0\xE1z", &rc);
    EXPECT_TRUE(rc == 0 && utf8.size() > 4 && utf8.find('?') == std::string::npos) << name << " " << rc;
    EXPECT_EQ(convert(1, utf8), "A\xE0\xE1z") << name;
  }
  EXPECT_EQ(refused, 2);  // KRV864 and EUC-TW: docs/codeset.md

  ASSERT_EQ(ldap_set_iconv_local_codepage("UTF-8"), 0);
  EXPECT_EQ(convert(0, "\xC3\xA9"), "\xC3\xA9");
  EXPECT_EQ(ldap_xlate_globals.slot[XLATE_LOCAL_TO_UTF8], nullptr);  // same code set: copied
  EXPECT_EQ(xlate_is_identity(), 1);
}

TEST_F(Xlate, PublicBufferFunctions) {
  const struct {
    const char *codepage;
    int (*fn)(const char *, size_t *, char *, size_t *);
    std::string in;
    size_t space;
    int rc;
    std::string out;
  } cases[] = {
      {"ISO8859-1", ldap_xlate_local_to_unicode, "A\xE9", 8, 0, std::string("\0A\0\xE9", 4)},
      {"ISO8859-1", ldap_xlate_unicode_to_local, std::string("\0A\x20\xAC", 4), 8, 0, "A?"},
      {"ISO8859-1", ldap_xlate_local_to_utf8, "\xE9\xE9", 8, 0, "\xC3\xA9\xC3\xA9"},
      {"ISO8859-1", ldap_xlate_local_to_utf8, "\xE9\xE9", 3, LDAP_XLATE_OUTPUT_OVERFLOW, "\xC3\xA9"},
      {"ISO8859-1", ldap_xlate_utf8_to_local, "a\xC3", 8, LDAP_XLATE_INPUT_TRUNCATED, "a"},
      {"ISO8859-1", ldap_xlate_utf8_to_local, "\xC3\xA9", 8, 0, "\xE9"},
      // UTF-8 as the local code page: UCS-2 both ways, copies to and from UTF-8.
      {"UTF-8", ldap_xlate_local_to_unicode, "a\xC3\xA9", 8, 0, std::string("\0a\0\xE9", 4)},
      {"UTF-8", ldap_xlate_unicode_to_local, std::string("\0a\x20\xAC", 4), 8, 0, "a\xE2\x82\xAC"},
      {"UTF-8", ldap_xlate_unicode_to_local, std::string("\0a\x20\xAC", 4), 3, LDAP_XLATE_OUTPUT_OVERFLOW, "a"},
      {"UTF-8", ldap_xlate_local_to_utf8, "\xC3\xA9", 8, 0, "\xC3\xA9"},
      {"UTF-8", ldap_xlate_utf8_to_local, "\xC3\xA9", 8, 0, "\xC3\xA9"},
      // Ill-formed UTF-8 is bad input, not a full output.
      {"UTF-8", ldap_xlate_local_to_unicode, "a\xFF", 8, LDAP_XLATE_BAD_INPUT_CHAR, std::string("\0a", 2)},
      {"UTF-8", ldap_xlate_local_to_unicode, "\xC3(b", 8, LDAP_XLATE_BAD_INPUT_CHAR, ""},
      {"UTF-8", ldap_xlate_local_to_unicode, "ab", 3, LDAP_XLATE_OUTPUT_OVERFLOW, std::string("\0a", 2)},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(ldap_set_iconv_local_codepage(c.codepage), 0);
    char out[16];
    size_t in_len = c.in.size(), space = c.space;
    EXPECT_EQ(c.fn(c.in.data(), &in_len, out, &space), c.rc) << testing::PrintToString(c.in);
    EXPECT_EQ(std::string(out, c.space - space), c.out) << testing::PrintToString(c.in);
  }
  ASSERT_EQ(ldap_set_iconv_local_codepage("ISO8859-1"), 0);
  size_t n = 1, space = 1;
  char out[4];
  EXPECT_EQ(ldap_xlate_local_to_utf8(nullptr, &n, out, &space), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_xlate_unicode_to_local("a", nullptr, out, &space), LDAP_PARAM_ERROR);
  char *wrapped = nullptr;
  EXPECT_EQ(ldap_xlate_local_to_utf8_wrp("\xE9t\xE9", &wrapped), 0);
  EXPECT_STREQ(wrapped, "\xC3\xA9t\xC3\xA9");
  free(wrapped);
  EXPECT_EQ(ldap_xlate_local_to_utf8_wrp(nullptr, &wrapped), 1);
  char *units = nullptr;
  EXPECT_EQ(convert_UniCodetoUTF8(reinterpret_cast<const unsigned char *>("\0A\0"), 3, 2, &units, &n),
            LDAP_ENCODING_ERROR);
  unsigned char *u = nullptr;
  int width = 0;
  EXPECT_EQ(ldap_utf8_to_unicode(reinterpret_cast<const unsigned char *>("a\x80"), 2, &u, &n, &width),
            LDAP_DECODING_ERROR);
  ASSERT_EQ(ldap_utf8_to_unicode(reinterpret_cast<const unsigned char *>("a\xF0\x9F\x98\x80"), 5, &u, &n, &width), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(u), n), std::string("\0\0a\x01\xF6\x00", 6));  // 3-byte units
  free(u);
}

TEST_F(Xlate, EveryAllocationFailureReturnsNoMemoryOrLocalError) {
  for (long n = 1;; ++n) {
    ASSERT_EQ(ldap_set_iconv_local_codepage(n % 2 ? "ISO8859-1" : "943"), 0);  // fresh converters each round
    olx_fail_alloc_at(n);
    int rc = 0;
    std::string out = convert(0, "\xE9", &rc);
    long counted = olx_fail_alloc_at(0);
    if (rc == 0) {
      EXPECT_FALSE(out.empty());
      if (counted < n) break;  // the nth allocation never came: all swept
      continue;
    }
    EXPECT_TRUE(rc == LDAP_NO_MEMORY || rc == LDAP_LOCAL_ERROR) << n << " " << rc;
  }
}

}  // namespace
