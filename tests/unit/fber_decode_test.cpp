// The decoder: item readers, fber_scanf letters, bad input.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "fber_test_helpers.h"
#include "lber-int.h"
#include "ldap-utils.h"

using namespace fbertest;

TEST(FberDecode, IntegersAreSignExtendedFromUpToEightBytes) {
  struct Case {
    const char *bytes;
    bool ok;
    int64_t value;
  } cases[] = {
      {"02 02 FF 38", true, -200},
      {"02 01 80", true, -128},
      {"02 04 00 00 00 C8", true, 200},
      {"02 02 00 80", true, 128},
      {"02 00", true, 0},
      {"01 01 FF", true, -1},
      {"0A 03 01 00 00", true, 65536},
      {"02 08 80 00 00 00 00 00 00 00", true, INT64_MIN},
      {"02 08 7F FF FF FF FF FF FF FF", true, INT64_MAX},
      {"02 09 00 00 00 00 00 00 00 00 01", false, 0},
      {"02 84 00 00 00 01 05", true, 5},
      {"02 02 01", false, 0},  // contents run past the end
      {"02", false, 0},        // no length byte
      {"1F 01 00", false, 0},  // high-tag-number form
  };
  for (const auto &c : cases) {
    Ber b = reader(unhex(c.bytes));
    int64_t v = 12345;
    const ber_tag_t t = fber_get_long(b.get(), &v);
    EXPECT_EQ(t != LBER_DEFAULT, c.ok) << c.bytes;
    if (c.ok) {
      EXPECT_EQ(v, c.value) << c.bytes;
      EXPECT_EQ(b->ber_ptr, b->ber_end) << c.bytes;
    } else {
      EXPECT_EQ(b->ber_ptr, b->ber_buf) << c.bytes << ": a failed read leaves the cursor";
    }
  }
  // 'i' keeps the low 32 bits; 'b' reads a BOOLEAN as an integer.
  Ber b = reader(unhex("02 05 01 00 00 00 07 01 01 FF 0A 01 03"));
  int i = 0, flag = 0, e = 0;
  EXPECT_EQ(fber_scanf(b.get(), "ibe", &i, &flag, &e), tag(0x0A));
  EXPECT_EQ(i, 7);
  EXPECT_EQ(flag, -1);
  EXPECT_EQ(e, 3);
}

TEST(FberDecode, HeadersAcceptUpToEightLengthOctetsAndOneByteTags) {
  struct Case {
    const char *bytes;
    ber_tag_t tag;
    ber_len_t len;
  } cases[] = {
      {"04 05", 0x04, 5},
      {"04 81 05", 0x04, 5},
      {"30 80", 0x30, 0},  // indefinite marker reads as length 0
      {"04 88 00 00 00 00 00 00 01 00", 0x04, 256},
      {"04 88 FF FF FF FF FF FF FF FF", 0x04, UINT64_MAX},
      {"04 89 00 00 00 00 00 00 00 00 01", LBER_DEFAULT, 0},  // 9 length octets
      {"04 82 01", LBER_DEFAULT, 0},                          // length octets cut short
      {"1F 01", LBER_DEFAULT, 0},
      {"3F 01", LBER_DEFAULT, 0},
      {"04", LBER_DEFAULT, 0},
      {"", LBER_DEFAULT, 0},
  };
  for (const auto &c : cases) {
    Ber b = reader(unhex(c.bytes));
    ber_len_t len = 0;
    EXPECT_EQ(fber_peek_tag(b.get(), &len), c.tag) << c.bytes;
    EXPECT_EQ(b->ber_ptr, b->ber_buf) << c.bytes;
    if (c.tag != LBER_DEFAULT) {
      EXPECT_EQ(len, c.len) << c.bytes;
    }
    EXPECT_EQ(fber_skip_tag(b.get(), nullptr), c.tag) << c.bytes;
  }
}

TEST(FberDecode, StringReadersCopyAndTerminate) {
  struct Case {
    const char *bytes;
    bool ok;
    std::string text;
  } cases[] = {
      {"04 05 68 65 6C 6C 6F", true, "hello"},
      {"04 81 05 68 65 6C 6C 6F", true, "hello"},
      {"04 80", true, ""},
      {"04 03 61 00 62", true, std::string("a\0b", 3)},
      {"04 06 68 65 6C 6C 6F", false, ""},  // overlong length
      {"04 84 FF FF FF FF 00", false, ""},
  };
  for (const auto &c : cases) {
    for (char letter : {'a', 'O', 'o'}) {
      Ber b = reader(unhex(c.bytes));
      const char fmt[2] = {letter, 0};
      char *s = reinterpret_cast<char *>(1);
      berval *bv = reinterpret_cast<berval *>(1);
      berval inl{99, reinterpret_cast<char *>(1)};
      ber_tag_t t = letter == 'a'   ? fber_scanf(b.get(), fmt, &s)
                    : letter == 'O' ? fber_scanf(b.get(), fmt, &bv)
                                    : fber_scanf(b.get(), fmt, &inl);
      EXPECT_EQ(t != LBER_ERROR, c.ok) << c.bytes << " " << letter;
      std::string got;
      char *val = letter == 'a' ? s : letter == 'O' ? (bv ? bv->bv_val : nullptr) : inl.bv_val;
      if (!c.ok) {
        EXPECT_EQ(val, nullptr) << c.bytes << " " << letter;
        if (letter == 'O') {
          EXPECT_EQ(bv, nullptr);
        }
        continue;
      }
      ASSERT_NE(val, nullptr);
      size_t len = letter == 'a' ? strlen(s) : letter == 'O' ? bv->bv_len : inl.bv_len;
      EXPECT_EQ(std::string(val, len), letter == 'a' ? std::string(c.text.c_str()) : c.text) << c.bytes;
      EXPECT_EQ(val[len], '\0');
      if (letter == 'O')
        fber_bvfree(bv);
      else
        free(val);
    }
  }
}

TEST(FberDecode, CallersBufferMustHoldTheStringAndItsNul) {
  struct Case {
    const char *bytes;
    ber_len_t size;
    bool ok;
  } cases[] = {
      {"04 05 68 65 6C 6C 6F", 6, true},
      {"04 06 68 65 6C 6C 6F 21", 6, false},
      {"04 00", 1, true},
      {"04 00", 0, false},
  };
  for (const auto &c : cases) {
    Ber b = reader(unhex(c.bytes));
    char buf[8];
    memset(buf, '#', sizeof buf);
    ber_len_t len = c.size;
    EXPECT_EQ(fber_scanf(b.get(), "s", buf, &len) != LBER_ERROR, c.ok) << c.bytes;
    if (c.ok) {
      EXPECT_EQ(len, strlen(buf));
      EXPECT_EQ(b->ber_ptr, b->ber_end);
    } else {
      EXPECT_EQ(b->ber_ptr, b->ber_buf) << "contents not consumed";
      EXPECT_EQ(buf[c.size ? c.size - 1 : 0], '#') << "caller's buffer untouched";
    }
  }
}

TEST(FberDecode, NullBitStringAndTagLetters) {
  Ber b = reader(unhex("05 00 03 03 07 FF 80 A3 03 04 01 7A"));
  char *bits = nullptr;
  ber_len_t nbits = 0, len = 0;
  int t = 0, t2 = 0;
  EXPECT_EQ(fber_scanf(b.get(), "nBtlT", &bits, &nbits, &t, &len, &t2), tag(0xA3));
  ASSERT_NE(bits, nullptr);
  EXPECT_EQ(nbits, 9u);
  EXPECT_EQ(hex(bits, 2), "FF 80");
  free(bits);
  EXPECT_EQ(t, 0xA3);
  EXPECT_EQ(len, 3u);
  EXPECT_EQ(t2, 0xA3);
  EXPECT_EQ(hex(b->ber_ptr, 3), "04 01 7A");  // T entered the item

  struct Bad {
    const char *bytes, *fmt;
  } bad[] = {
      {"05 01 00", "n"},     // NULL with contents
      {"03 00", "B"},        // no unused-bit count
      {"03 01 01", "B"},     // unused bits but no bytes
      {"03 02 08 FF", "B"},  // more than 7 unused bits
      {"03 05 00 FF", "B"},  // contents past the end
  };
  for (const auto &c : bad) {
    Ber e = reader(unhex(c.bytes));
    char *out = reinterpret_cast<char *>(1);
    EXPECT_EQ(c.fmt[0] == 'n' ? fber_scanf(e.get(), c.fmt) : fber_scanf(e.get(), c.fmt, &out, &nbits), LBER_ERROR)
        << c.bytes;
    if (c.fmt[0] == 'B') {
      EXPECT_EQ(out, nullptr);
    }
  }
  Ber empty = reader("");
  t = 0;
  EXPECT_EQ(fber_scanf(empty.get(), "t", &t), LBER_ERROR);
  EXPECT_EQ(t, -1);
}

TEST(FberDecode, VectorsOfStringsAndBervals) {
  // Three values, then an empty SET, then nothing at all.
  Ber b = reader(unhex("31 0A 04 01 61 04 00 04 03 62 00 63 31 00"));
  berval **vals = nullptr;
  ASSERT_EQ(fber_scanf(b.get(), "[V]", &vals), tag(0x04));
  ASSERT_NE(vals, nullptr);
  ASSERT_NE(vals[2], nullptr);
  EXPECT_EQ(vals[3], nullptr);
  EXPECT_EQ(std::string(vals[0]->bv_val, vals[0]->bv_len), "a");
  EXPECT_EQ(vals[1]->bv_len, 0u);
  EXPECT_EQ(std::string(vals[2]->bv_val, vals[2]->bv_len), std::string("b\0c", 3));
  fber_bvecfree(vals);
  char **strs = reinterpret_cast<char **>(1);
  int before = 0;
  // An empty SET and an absent one give null without failing; the result stays.
  EXPECT_EQ(fber_scanf(b.get(), "[v]", &strs), 0u);
  EXPECT_EQ(strs, nullptr);
  EXPECT_EQ(b->ber_ptr, b->ber_end);
  Ber c = reader(unhex("02 01 04"));
  EXPECT_EQ(fber_scanf(c.get(), "i{v}", &before, &strs), tag(0x02));
  EXPECT_EQ(strs, nullptr);

  struct Bad {
    const char *bytes;
  } bad[] = {
      {"31 06 04 01 61 04 05 62"},  // member past the end
      {"31 09 04 01 61 04 01 62"},  // SET longer than the data
      {"31"},                       // header cut short
      {"31 04 04 01 61 02"},        // a byte inside the SET that is not a member
  };
  for (const auto &x : bad) {
    Ber e = reader(unhex(x.bytes));
    strs = reinterpret_cast<char **>(1);
    EXPECT_EQ(fber_scanf(e.get(), "[v]", &strs), LBER_ERROR) << x.bytes;
    EXPECT_EQ(strs, nullptr) << x.bytes;
  }
}

TEST(FberDecode, LargeVectorsGrowAndStayTerminated) {
  Ber w(fber_alloc());
  ASSERT_EQ(fber_printf(w.get(), "["), 0);
  for (int i = 0; i < 1025; ++i) ASSERT_EQ(fber_printf(w.get(), "s", std::to_string(i).c_str()), 0);
  ASSERT_EQ(fber_printf(w.get(), "]"), 0);
  Ber r = rewind(std::move(w));
  char **vec = nullptr;
  ASSERT_EQ(fber_scanf(r.get(), "{v}", &vec), tag(0x04));
  int n = 0;
  for (; vec[n] != nullptr; ++n) ASSERT_EQ(std::string(vec[n]), std::to_string(n));
  EXPECT_EQ(n, 1025);
  fber_svecfree(vec);
}

TEST(FberDecode, SkippingAndFirstElement) {
  Ber b = reader(unhex("30 08 02 01 05 04 03 61 62 63"));
  char *s = nullptr;
  EXPECT_EQ(fber_scanf(b.get(), "{xa}", &s), tag(0x04));
  EXPECT_STREQ(s, "abc");
  free(s);

  // An item longer than the data is skipped to the end; later reads fail.
  Ber c = reader(unhex("04 09 61 62 02 01 01"));
  int i = 0;
  EXPECT_EQ(fber_scanf(c.get(), "x", &i), tag(0x04));
  EXPECT_EQ(c->ber_ptr, c->ber_end);
  EXPECT_EQ(fber_scanf(c.get(), "i", &i), LBER_ERROR);
  Ber d = reader(unhex("04 09 61"));
  EXPECT_EQ(fber_skip_element(d.get()), 0);
  EXPECT_EQ(d->ber_ptr, d->ber_end);
  EXPECT_EQ(fber_skip_element(d.get()), -1);

  Ber e = reader(unhex("30 05 04 03 61 62 63 30 00 30 05 04"));
  ber_len_t len = 0;
  char *end = nullptr;
  EXPECT_EQ(fber_first_element(e.get(), &len, &end), tag(0x04));
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

TEST(FberDecode, EmptyFormatAndUnknownLetters) {
  Ber b = reader(unhex("05 00"));
  EXPECT_EQ(fber_scanf(b.get(), ""), 0u);
  Ber c = reader(unhex("05 00 05 00"));
  EXPECT_EQ(fber_scanf(c.get(), "nzn"), LBER_ERROR);
  EXPECT_EQ(c->ber_ptr, c->ber_buf + 2) << "stops at the unknown letter";
}

TEST(FberDecode, TranslationSettingsDoNotChangeTheBytes) {
  const std::string pdu = unhex("30 0B 04 03") +
                          "\xC3\xA9"
                          "x" +
                          unhex("31 04 04 02") + "\xC3\xBC";
  for (auto [noxlate, version] : {std::pair{0, 2}, std::pair{0, 3}, std::pair{1, 3}}) {
    Ber b(fber_alloc_with_options(0, noxlate, version));
    fber_write(b.get(), pdu.data(), pdu.size());
    fber_reset(b.get(), 1);
    char *a = nullptr, **v = nullptr;
    char buf[8];
    ber_len_t size = sizeof buf;
    ASSERT_NE(fber_scanf(b.get(), "{a[v]}", &a, &v), LBER_ERROR);
    EXPECT_STREQ(a, "\xC3\xA9x");
    EXPECT_STREQ(v[0], "\xC3\xBC");
    free(a);
    fber_svecfree(v);
    b->ber_ptr = b->ber_buf + 2;
    ASSERT_NE(fber_scanf(b.get(), "s", buf, &size), LBER_ERROR);
    EXPECT_EQ(size, 3u);
    EXPECT_STREQ(buf, "\xC3\xA9x");
  }
}

TEST(FberDecode, AllocationFailureAtEveryStepOfADecode) {
  const std::string pdu =
      unhex("30 1E 02 01 02 64 19 04 03 63 6E 3D 30 12 30 10 04 02 63 6E 31 0A 04 01 61 04 01 62 04 02 63 63");
  for (long n = 1;; ++n) {
    Ber b(fber_alloc_with_options(1, 0, 3));
    b.reset(fber_alloc_with_options(0, 0, 3));
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
      EXPECT_NE(rc, LBER_ERROR);
      ASSERT_NE(vals, nullptr);
      EXPECT_STREQ(vals[2]->bv_val, "cc");
      fber_bvecfree(vals);
      break;
    }
    EXPECT_EQ(rc, LBER_ERROR) << "allocation " << n;
    EXPECT_EQ(vals, nullptr) << "allocation " << n;
  }
}
