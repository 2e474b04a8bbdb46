// The decoder: item readers, fber_scanf letters, bad input.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ber_build.h"
#include "ldap-protocol.h"
#include "ldap-utils.h"
#include "ldap-xlate.h"

using namespace tavtest;
using namespace std::string_literals;

namespace {

// Strings are expected to pass unchanged whatever the environment's locale:
// the local code page is UTF-8.
[[maybe_unused]] const int kLocalUtf8 = ldap_set_iconv_local_codepage("UTF-8");

// What one reader makes of `bytes`: "value@bytes-consumed", or "fail@..."
// with the cursor where the failure left it.
std::string read(const char *bytes, char letter) {
  Ber b = reader(unhex(bytes));
  std::string got = "fail";
  if (letter == 'L') {
    int64_t v = 0;
    if (fber_get_long(b.get(), &v) != LBER_DEFAULT) got = std::to_string(v);
  } else if (letter == 'h') {
    ber_len_t len = 0;
    ber_tag_t t = fber_peek_tag(b.get(), &len);
    if (b->ber_ptr != b->ber_buf) return "peek moved the cursor";
    if (t != LBER_DEFAULT && fber_skip_tag(b.get(), nullptr) == t) got = std::to_string(t) + "/" + std::to_string(len);
  } else {
    char *s = reinterpret_cast<char *>(1);
    berval *bv = reinterpret_cast<berval *>(1), in{99, reinterpret_cast<char *>(1)};
    const char fmt[2] = {letter, 0};
    ber_tag_t t = fber_scanf(b.get(), fmt, letter == 'a' ? (void *)&s : letter == 'O' ? (void *)&bv : (void *)&in);
    if (t == LBER_ERROR) {
      const bool null = letter == 'a' ? s == nullptr : letter == 'O' ? bv == nullptr : in.bv_val == nullptr;
      got = null ? "fail" : "fail, output not null";
    } else {
      char *val = letter == 'a' ? s : letter == 'O' ? bv->bv_val : in.bv_val;
      size_t len = letter == 'a' ? strlen(s) : letter == 'O' ? bv->bv_len : in.bv_len;
      got = val[len] == '\0' ? hex(std::string(val, len)) : "not terminated";
      letter == 'O' ? fber_bvfree(bv) : free(val);
    }
  }
  return got + "@" + std::to_string(b->ber_ptr - b->ber_buf);
}

TEST(FberDecode, IntegersHeadersAndStrings) {
  const std::tuple<const char *, char, const char *> cases[] = {
      // Integers are sign-extended from up to eight contents octets.
      {"02 02 FF 38", 'L', "-200@4"},
      {"02 01 80", 'L', "-128@3"},
      {"02 04 00 00 00 C8", 'L', "200@6"},
      {"02 00", 'L', "0@2"},
      {"01 01 FF", 'L', "-1@3"},
      {"0A 03 01 00 00", 'L', "65536@5"},
      {"02 08 80 00 00 00 00 00 00 00", 'L', "-9223372036854775808@10"},
      {"02 08 7F FF FF FF FF FF FF FF", 'L', "9223372036854775807@10"},
      {"02 84 00 00 00 01 05", 'L', "5@7"},
      {"02 09 00 00 00 00 00 00 00 00 01", 'L', "fail@0"},
      {"02 02 01", 'L', "fail@0"},
      {"02", 'L', "fail@0"},
      {"1F 01 00", 'L', "fail@0"},
      // Headers: up to eight length octets, one-byte tags; the indefinite marker reads as 0.
      {"04 05", 'h', "4/5@2"},
      {"04 81 05", 'h', "4/5@3"},
      {"30 80", 'h', "48/0@2"},
      {"04 88 00 00 00 00 00 00 01 00", 'h', "4/256@10"},
      {"04 88 FF FF FF FF FF FF FF FF", 'h', "4/18446744073709551615@10"},
      {"04 89 00 00 00 00 00 00 00 00 01", 'h', "fail@0"},
      {"04 82 01", 'h', "fail@0"},
      {"1F 01", 'h', "fail@0"},
      {"3F 01", 'h', "fail@0"},
      {"04", 'h', "fail@0"},
      {"", 'h', "fail@0"},
      // Strings are copied and terminated; 'a' stops at a NUL inside.
      {"04 05 68 65 6C 6C 6F", 'a', "68 65 6C 6C 6F@7"},
      {"04 81 05 68 65 6C 6C 6F", 'O', "68 65 6C 6C 6F@8"},
      {"04 80", 'o', "@2"},
      {"04 03 61 00 62", 'a', "61@5"},
      {"04 03 61 00 62", 'O', "61 00 62@5"},
      {"04 03 61 00 62", 'o', "61 00 62@5"}};
  for (const auto &[bytes, letter, want] : cases) EXPECT_EQ(read(bytes, letter), want) << bytes << " " << letter;
  for (const char *overlong : {"04 06 68 65 6C 6C 6F", "04 84 FF FF FF FF 00"})
    for (char letter : {'a', 'O', 'o'}) EXPECT_EQ(read(overlong, letter), "fail@0") << overlong << letter;
  // 'i' keeps the low 32 bits; 'b' reads a BOOLEAN as an integer.
  Ber b = reader(unhex("02 05 01 00 00 00 07 01 01 FF 0A 01 03"));
  int i = 0, flag = 0, e = 0;
  EXPECT_EQ(fber_scanf(b.get(), "ibe", &i, &flag, &e), 0x0Au);
  EXPECT_EQ(std::make_tuple(i, flag, e), std::make_tuple(7, -1, 3));
  // 's' into the caller's buffer, which must hold the string and its NUL.
  const std::tuple<const char *, ber_len_t, const char *> into[] = {{"04 05 68 65 6C 6C 6F", 6, "hello"},
                                                                    {"04 06 68 65 6C 6C 6F 21", 6, nullptr},
                                                                    {"04 00", 1, ""},
                                                                    {"04 00", 0, nullptr}};
  for (const auto &[bytes, size, want] : into) {
    Ber s = reader(unhex(bytes));
    char buf[8] = "#######";
    ber_len_t len = size;
    EXPECT_EQ(fber_scanf(s.get(), "s", buf, &len) != LBER_ERROR, want != nullptr) << bytes;
    EXPECT_EQ(want ? std::string(buf) + "/" + std::to_string(len) : std::string(buf),
              want ? std::string(want) + "/" + std::to_string(strlen(want)) : "#######")
        << "a refused string leaves the caller's buffer alone";
    EXPECT_EQ(s->ber_ptr, want ? s->ber_end : s->ber_buf);
  }
}

TEST(FberDecode, NullBitStringTagAndUnknownLetters) {
  Ber b = reader(unhex("05 00 03 03 07 FF 80 A3 03 04 01 7A"));
  char *bits = nullptr;
  ber_len_t nbits = 0, len = 0;
  int t = 0, t2 = 0;
  EXPECT_EQ(fber_scanf(b.get(), "nBtlT", &bits, &nbits, &t, &len, &t2), 0xA3u);
  EXPECT_EQ(std::make_tuple(hex(std::string(bits, 2)), nbits, t, len, t2),
            std::make_tuple("FF 80"s, ber_len_t{9}, 0xA3, ber_len_t{3}, 0xA3));
  free(bits);
  EXPECT_EQ(hex(std::string(b->ber_ptr, 3)), "04 01 7A");  // T entered the item
  // NULL with contents; bit strings without count, with bits but no bytes,
  // with more than 7 unused bits, running past the end.
  for (const char *bad : {"05 01 00", "03 00", "03 01 01", "03 02 08 FF", "03 05 00 FF"}) {
    Ber e = reader(unhex(bad));
    char *out = nullptr;
    EXPECT_EQ(bad[1] == '5' ? fber_scanf(e.get(), "n") : fber_scanf(e.get(), "B", &out, &nbits), LBER_ERROR) << bad;
    EXPECT_EQ(out, nullptr) << bad;
  }
  Ber empty = reader("");
  EXPECT_EQ(fber_scanf(empty.get(), "t", &t), LBER_ERROR);
  EXPECT_EQ(t, -1);
  Ber c = reader(unhex("05 00 05 00"));  // an empty format succeeds; an unknown letter stops there
  EXPECT_EQ(fber_scanf(c.get(), ""), 0u);
  EXPECT_EQ(fber_scanf(c.get(), "nzn"), LBER_ERROR);
  EXPECT_EQ(c->ber_ptr, c->ber_buf + 2);
  // Items reached and failed leave their outputs null; items never reached
  // are untouched.
  const std::string result = unhex("30 11 02 01 09 61 0C 0A 01 31 04 02 6F 3D 04 03 62 61 64");
  for (size_t n = 0; n < result.size(); ++n) {
    Ber r = reader(result.substr(0, n));
    int id = -7, code = -7;
    char *matched = reinterpret_cast<char *>(1), *text = reinterpret_cast<char *>(1);
    EXPECT_EQ(fber_scanf(r.get(), "{i{eaa}}", &id, &code, &matched, &text), LBER_ERROR) << n;
    EXPECT_EQ(text, n >= 14 ? nullptr : reinterpret_cast<char *>(1)) << n;
    EXPECT_EQ(n >= 14   ? std::string(matched)
              : n >= 10 ? std::to_string(matched == nullptr)
                        : "",
              n >= 14   ? "o="
              : n >= 10 ? "1"
                        : "")
        << n;
    EXPECT_EQ(n >= 7 ? id : 9, 9) << n;
    if (n >= 14) free(matched);
  }
}

TEST(FberDecode, VectorsSkippingAndFirstElement) {
  // Three values, then an empty SET, then nothing at all.
  Ber b = reader(unhex("31 0A 04 01 61 04 00 04 03 62 00 63 31 00"));
  berval **vals = nullptr;
  ASSERT_EQ(fber_scanf(b.get(), "[V]", &vals), 0x04u);
  std::string got;
  for (int i = 0; vals[i]; ++i) got += std::string(vals[i]->bv_val, vals[i]->bv_len) + "|";
  EXPECT_EQ(got, std::string("a||b\0c|", 7));
  fber_bvecfree(vals);
  char **strs = reinterpret_cast<char **>(1);
  EXPECT_EQ(fber_scanf(b.get(), "[v]", &strs), 0u);  // empty: null without failing
  EXPECT_EQ(strs, nullptr);
  Ber c = reader(unhex("02 01 04"));
  int before = 0;
  EXPECT_EQ(fber_scanf(c.get(), "i{v}", &before, &strs), 0x02u);  // absent: the same
  EXPECT_EQ(strs, nullptr);
  // Member past the end, SET longer than the data, header cut, a non-member.
  for (const char *bad : {"31 06 04 01 61 04 05 62", "31 09 04 01 61 04 01 62", "31", "31 04 04 01 61 02"}) {
    Ber e = reader(unhex(bad));
    strs = reinterpret_cast<char **>(1);
    EXPECT_EQ(fber_scanf(e.get(), "[v]", &strs), LBER_ERROR) << bad;
    EXPECT_EQ(strs, nullptr) << bad;
  }
  std::string members;  // large vectors grow and stay terminated
  for (int i = 0; i < 1025; ++i) members += str(std::to_string(i));
  Ber big = reader(tlv(ldap_proto::kSet, members));
  ASSERT_EQ(fber_scanf(big.get(), "{v}", &strs), 0x04u);
  int n = 0;
  for (; strs[n] != nullptr; ++n) ASSERT_EQ(std::string(strs[n]), std::to_string(n));
  EXPECT_EQ(n, 1025);
  fber_svecfree(strs);

  Ber d = reader(unhex("30 08 02 01 05 04 03 61 62 63"));
  char *s = nullptr;
  EXPECT_EQ(fber_scanf(d.get(), "{xa}", &s), 0x04u);
  EXPECT_STREQ(s, "abc");
  free(s);
  Ber over = reader(unhex("04 09 61 62 02 01 01"));  // skipped to the end; later reads fail
  EXPECT_EQ(fber_scanf(over.get(), "x"), 0x04u);
  EXPECT_EQ(over->ber_ptr, over->ber_end);
  EXPECT_EQ(fber_scanf(over.get(), "i", &before), LBER_ERROR);
  EXPECT_EQ(fber_skip_element(over.get()), -1);
  Ber e = reader(unhex("30 05 04 03 61 62 63 30 00 30 05 04"));
  ber_len_t len = 0;
  char *end = nullptr;
  EXPECT_EQ(fber_first_element(e.get(), &len, &end), 0x04u);
  EXPECT_EQ(std::make_tuple(len, end - e->ber_buf, e->ber_ptr - e->ber_buf), std::make_tuple(ber_len_t{3}, 7L, 2L));
  e->ber_ptr = end;
  EXPECT_EQ(fber_first_element(e.get(), &len, &end), LBER_DEFAULT);  // empty
  EXPECT_EQ(fber_first_element(e.get(), &len, &end), LBER_DEFAULT);  // longer than the data
  EXPECT_EQ(e->ber_ptr, e->ber_buf + 9);
  char dest[4];
  Ber f = reader("xyz");
  EXPECT_EQ(fber_read(f.get(), dest, 4), 3u);
  EXPECT_EQ(std::string(dest, 3), "xyz");
  EXPECT_EQ(fber_read(f.get(), dest, 4), 0u);
}

}  // namespace
