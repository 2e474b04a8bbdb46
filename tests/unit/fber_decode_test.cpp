// The decoder: item readers, fber_scanf letters, bad input.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ber_build.h"
#include "ldap-utils.h"

using namespace tavtest;

TEST(FberDecode, IntegersAndHeaders) {
  const std::pair<const char *, int64_t> ints[] = {{"02 02 FF 38", -200},
                                                   {"02 01 80", -128},
                                                   {"02 04 00 00 00 C8", 200},
                                                   {"02 00", 0},
                                                   {"01 01 FF", -1},
                                                   {"0A 03 01 00 00", 65536},
                                                   {"02 08 80 00 00 00 00 00 00 00", INT64_MIN},
                                                   {"02 84 00 00 00 01 05", 5},
                                                   {"02 09 00 00 00 00 00 00 00 00 01", 99},
                                                   {"02 02 01", 99},
                                                   {"02", 99},
                                                   {"1F 01 00", 99}};  // 99: refused
  for (const auto &[bytes, value] : ints) {
    Ber b = reader(unhex(bytes));
    int64_t v = 12345;
    const bool ok = fber_get_long(b.get(), &v) != LBER_DEFAULT;
    EXPECT_EQ(ok, value != 99) << bytes;
    EXPECT_EQ(ok ? v : value, value) << bytes;
    EXPECT_EQ(b->ber_ptr, ok ? b->ber_end : b->ber_buf) << bytes << ": a failed read leaves the cursor";
  }
  // 'i' keeps the low 32 bits; 'b' reads a BOOLEAN as an integer.
  Ber b = reader(unhex("02 05 01 00 00 00 07 01 01 FF 0A 01 03"));
  int i = 0, flag = 0, e = 0;
  EXPECT_EQ(fber_scanf(b.get(), "ibe", &i, &flag, &e), 0x0Au);
  EXPECT_EQ(std::make_tuple(i, flag, e), std::make_tuple(7, -1, 3));

  const std::tuple<const char *, ber_tag_t, ber_len_t> headers[] = {
      {"04 05", 0x04, 5},
      {"04 81 05", 0x04, 5},
      {"30 80", 0x30, 0},  // indefinite marker reads as 0
      {"04 88 00 00 00 00 00 00 01 00", 0x04, 256},
      {"04 88 FF FF FF FF FF FF FF FF", 0x04, UINT64_MAX},
      {"04 89 00 00 00 00 00 00 00 00 01", LBER_DEFAULT, 0},
      {"04 82 01", LBER_DEFAULT, 0},
      {"1F 01", LBER_DEFAULT, 0},
      {"3F 01", LBER_DEFAULT, 0},
      {"04", LBER_DEFAULT, 0},
      {"", LBER_DEFAULT, 0}};
  for (const auto &[bytes, tag, len] : headers) {
    Ber h = reader(unhex(bytes));
    ber_len_t got = 0;
    EXPECT_EQ(fber_peek_tag(h.get(), &got), tag) << bytes;
    EXPECT_EQ(h->ber_ptr, h->ber_buf) << bytes;
    EXPECT_EQ(tag != LBER_DEFAULT ? got : len, len) << bytes;
    EXPECT_EQ(fber_skip_tag(h.get(), nullptr), tag) << bytes;
  }
}

TEST(FberDecode, StringReadersCopyAndTerminate) {
  const std::pair<const char *, const char *> cases[] = {
      {"04 05 68 65 6C 6C 6F", "hello"}, {"04 81 05 68 65 6C 6C 6F", "hello"}, {"04 80", ""},
      {"04 03 61 00 62", "a\\0b"},       {"04 06 68 65 6C 6C 6F", nullptr},    {"04 84 FF FF FF FF 00", nullptr}};
  for (const auto &[bytes, text] : cases) {
    const std::string want = text && strcmp(text, "a\\0b") == 0 ? std::string("a\0b", 3) : text ? text : "";
    for (char letter : {'a', 'O', 'o'}) {
      SCOPED_TRACE(std::string(bytes) + " " + letter);
      Ber b = reader(unhex(bytes));
      const char fmt[2] = {letter, 0};
      char *s = reinterpret_cast<char *>(1);
      berval *bv = reinterpret_cast<berval *>(1), inl{99, reinterpret_cast<char *>(1)};
      ber_tag_t t =
          letter == 'a' ? fber_scanf(b.get(), fmt, &s) : fber_scanf(b.get(), fmt, letter == 'O' ? (void *)&bv : &inl);
      char *val = letter == 'a' ? s : letter == 'O' ? (bv ? bv->bv_val : nullptr) : inl.bv_val;
      ASSERT_EQ(t != LBER_ERROR, text != nullptr);
      if (!text) {
        EXPECT_EQ(val, nullptr);
        EXPECT_TRUE(letter != 'O' || bv == nullptr);
        continue;
      }
      size_t len = letter == 'a' ? strlen(s) : letter == 'O' ? bv->bv_len : inl.bv_len;
      EXPECT_EQ(std::string(val, len), letter == 'a' ? std::string(want.c_str()) : want);
      EXPECT_EQ(val[len], '\0');
      letter == 'O' ? fber_bvfree(bv) : free(val);
    }
  }
  // 's' into the caller's buffer: it must hold the string and its NUL.
  const std::tuple<const char *, ber_len_t, bool> into[] = {{"04 05 68 65 6C 6C 6F", 6, true},
                                                            {"04 06 68 65 6C 6C 6F 21", 6, false},
                                                            {"04 00", 1, true},
                                                            {"04 00", 0, false}};
  for (const auto &[bytes, size, ok] : into) {
    Ber b = reader(unhex(bytes));
    char buf[8];
    memset(buf, '#', sizeof buf);
    ber_len_t len = size;
    EXPECT_EQ(fber_scanf(b.get(), "s", buf, &len) != LBER_ERROR, ok) << bytes;
    EXPECT_EQ(b->ber_ptr, ok ? b->ber_end : b->ber_buf) << bytes;
    EXPECT_TRUE(!ok || len == strlen(buf)) << bytes;
    EXPECT_TRUE(ok || buf[size ? size - 1 : 0] == '#') << "caller's buffer untouched";
  }
}

TEST(FberDecode, NullBitStringAndTagLetters) {
  Ber b = reader(unhex("05 00 03 03 07 FF 80 A3 03 04 01 7A"));
  char *bits = nullptr;
  ber_len_t nbits = 0, len = 0;
  int t = 0, t2 = 0;
  EXPECT_EQ(fber_scanf(b.get(), "nBtlT", &bits, &nbits, &t, &len, &t2), 0xA3u);
  ASSERT_NE(bits, nullptr);
  EXPECT_EQ(nbits, 9u);
  EXPECT_EQ(hex(std::string(bits, 2)), "FF 80");
  free(bits);
  EXPECT_EQ(std::make_tuple(t, len, t2), std::make_tuple(0xA3, ber_len_t{3}, 0xA3));
  EXPECT_EQ(hex(std::string(b->ber_ptr, 3)), "04 01 7A");  // T entered the item
  // NULL with contents; bit strings without count, with bits but no bytes,
  // with more than 7 unused bits, running past the end.
  for (const char *bad : {"05 01 00", "03 00", "03 01 01", "03 02 08 FF", "03 05 00 FF"}) {
    Ber e = reader(unhex(bad));
    char *out = reinterpret_cast<char *>(1);
    EXPECT_EQ(bad[1] == '5' ? fber_scanf(e.get(), "n") : fber_scanf(e.get(), "B", &out, &nbits), LBER_ERROR) << bad;
    EXPECT_TRUE(bad[1] != '3' || out == nullptr) << bad;
  }
  Ber empty = reader("");
  EXPECT_EQ(fber_scanf(empty.get(), "t", &t), LBER_ERROR);
  EXPECT_EQ(t, -1);
  // An empty format succeeds; an unknown letter stops there.
  Ber c = reader(unhex("05 00 05 00"));
  EXPECT_EQ(fber_scanf(c.get(), ""), 0u);
  EXPECT_EQ(fber_scanf(c.get(), "nzn"), LBER_ERROR);
  EXPECT_EQ(c->ber_ptr, c->ber_buf + 2);
}

TEST(FberDecode, VectorsOfStringsAndBervals) {
  // Three values, then an empty SET, then nothing at all.
  Ber b = reader(unhex("31 0A 04 01 61 04 00 04 03 62 00 63 31 00"));
  berval **vals = nullptr;
  ASSERT_EQ(fber_scanf(b.get(), "[V]", &vals), 0x04u);
  ASSERT_NE(vals, nullptr);
  EXPECT_EQ(std::string(vals[0]->bv_val, vals[0]->bv_len) + "|" + std::string(vals[1]->bv_val, vals[1]->bv_len) + "|" +
                std::string(vals[2]->bv_val, vals[2]->bv_len),
            std::string("a||b\0c", 6));
  EXPECT_EQ(vals[3], nullptr);
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
  // Large vectors grow and stay terminated.
  std::string members;
  for (int i = 0; i < 1025; ++i) members += str(std::to_string(i));
  Ber big = reader(tlv(0x31, members));
  ASSERT_EQ(fber_scanf(big.get(), "{v}", &strs), 0x04u);
  int n = 0;
  for (; strs[n] != nullptr; ++n) ASSERT_EQ(std::string(strs[n]), std::to_string(n));
  EXPECT_EQ(n, 1025);
  fber_svecfree(strs);
}

TEST(FberDecode, SkippingFirstElementAndRawReads) {
  Ber b = reader(unhex("30 08 02 01 05 04 03 61 62 63"));
  char *s = nullptr;
  EXPECT_EQ(fber_scanf(b.get(), "{xa}", &s), 0x04u);
  EXPECT_STREQ(s, "abc");
  free(s);
  // An item longer than the data is skipped to the end; later reads fail.
  Ber c = reader(unhex("04 09 61 62 02 01 01"));
  int i = 0;
  EXPECT_EQ(fber_scanf(c.get(), "x", &i), 0x04u);
  EXPECT_EQ(c->ber_ptr, c->ber_end);
  EXPECT_EQ(fber_scanf(c.get(), "i", &i), LBER_ERROR);
  Ber d = reader(unhex("04 09 61"));
  EXPECT_EQ(fber_skip_element(d.get()), 0);
  EXPECT_EQ(d->ber_ptr, d->ber_end);
  EXPECT_EQ(fber_skip_element(d.get()), -1);

  Ber e = reader(unhex("30 05 04 03 61 62 63 30 00 30 05 04"));
  ber_len_t len = 0;
  char *end = nullptr;
  EXPECT_EQ(fber_first_element(e.get(), &len, &end), 0x04u);
  EXPECT_EQ(len, 3u);
  EXPECT_EQ(end, e->ber_buf + 7);
  EXPECT_EQ(e->ber_ptr, e->ber_buf + 2);
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

TEST(FberDecode, TranslationSettingsDoNotChangeTheBytes) {
  const std::string pdu = tlv(0x30, str("\xC3\xA9x") + tlv(0x31, str("\xC3\xBC")));
  for (auto [noxlate, version] : {std::pair{0, 2}, std::pair{0, 3}, std::pair{1, 3}}) {
    Ber b(fber_alloc_with_options(0, noxlate, version));
    fber_write(b.get(), pdu.data(), pdu.size());
    fber_reset(b.get(), 1);
    char *a = nullptr, **v = nullptr, buf[8];
    ber_len_t size = sizeof buf;
    ASSERT_NE(fber_scanf(b.get(), "{a[v]}", &a, &v), LBER_ERROR);
    EXPECT_STREQ(a, "\xC3\xA9x");
    EXPECT_STREQ(v[0], "\xC3\xBC");
    free(a);
    fber_svecfree(v);
    b->ber_ptr = b->ber_buf + 2;
    ASSERT_NE(fber_scanf(b.get(), "s", buf, &size), LBER_ERROR);
    EXPECT_STREQ(buf, "\xC3\xA9x");
  }
}

TEST(FberDecode, AllocationFailureAtEveryStepOfADecode) {
  const std::string pdu = tlv(
      0x30, integer(2) +
                tlv(0x64, str("cn=") + tlv(0x30, tlv(0x30, str("cn") + tlv(0x31, str("a") + str("b") + str("cc"))))));
  for (long n = 1;; ++n) {
    Ber b(fber_alloc_with_options(0, 0, 3));  // with the session's translation settings
    fber_write(b.get(), pdu.data(), pdu.size());
    fber_reset(b.get(), 1);
    int msgid = 0;
    char *dn = nullptr, *type = nullptr;
    berval **vals = nullptr;
    olx_fail_alloc_at(n);
    ber_tag_t rc = fber_scanf(b.get(), "{i{a{{a[V]}}}}", &msgid, &dn, &type, &vals);
    long seen = olx_fail_alloc_at(0);
    free(dn);
    free(type);
    if (n > seen) {
      ASSERT_NE(rc, LBER_ERROR);
      EXPECT_STREQ(vals[2]->bv_val, "cc");
      fber_bvecfree(vals);
      break;
    }
    EXPECT_EQ(rc, LBER_ERROR) << "allocation " << n;
    EXPECT_EQ(vals, nullptr) << "allocation " << n;
  }
}
