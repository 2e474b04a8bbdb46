// The encoder, byte for byte.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "fber_test_helpers.h"
#include "lber-int.h"
#include "ldap-utils.h"

using namespace fbertest;

namespace {
struct Case {
  const char *what;
  std::function<int(BerElement *)> encode;
  std::string bytes;  // hex
};

void expect_encodes(const std::vector<Case> &cases) {
  for (const auto &c : cases) {
    Ber b(fber_alloc());
    ASSERT_EQ(c.encode(b.get()), 0) << c.what;
    EXPECT_EQ(written(b.get()), hex(unhex(c.bytes))) << c.what;
    EXPECT_EQ(b->ber_len, static_cast<ber_len_t>(b->ber_ptr - b->ber_buf)) << c.what;
    EXPECT_EQ(b->ber_tag, LBER_DEFAULT) << c.what;
  }
}

const std::string s127(127, 'a'), s128(128, 'b');
}  // namespace

TEST(FberEncode, PrimitiveItemsUseTheFixedShapes) {
  static char bits[127];
  memset(bits, 0x5A, sizeof bits);
  const char two[] = {'\xFF', '\x80'};
  expect_encodes({
      {"i 0", [](BerElement *b) { return fber_printf(b, "i", 0); }, "02 01 00"},
      {"i 127", [](BerElement *b) { return fber_printf(b, "i", 127); }, "02 01 7F"},
      {"i 128 takes four bytes", [](BerElement *b) { return fber_printf(b, "i", 128); }, "02 04 00 00 00 80"},
      {"i 200", [](BerElement *b) { return fber_printf(b, "i", 200); }, "02 04 00 00 00 C8"},
      {"i -1", [](BerElement *b) { return fber_printf(b, "i", -1); }, "02 04 FF FF FF FF"},
      {"i -129", [](BerElement *b) { return fber_printf(b, "i", -129); }, "02 04 FF FF FF 7F"},
      {"i INT_MIN", [](BerElement *b) { return fber_printf(b, "i", INT32_MIN); }, "02 04 80 00 00 00"},
      {"e 2", [](BerElement *b) { return fber_printf(b, "e", 2); }, "0A 01 02"},
      {"b any non-zero", [](BerElement *b) { return fber_printf(b, "bb", 5, 0); }, "01 01 FF 01 01 00"},
      {"n", [](BerElement *b) { return fber_printf(b, "n"); }, "05 00"},
      {"s", [](BerElement *b) { return fber_printf(b, "s", "cn=a"); }, "04 04 63 6E 3D 61"},
      {"s empty", [](BerElement *b) { return fber_printf(b, "s", ""); }, "04 00"},
      {"o with NUL inside", [](BerElement *b) { return fber_printf(b, "o", "a\0b", 3); }, "04 03 61 00 62"},
      {"o null and empty", [](BerElement *b) { return fber_printf(b, "o", nullptr, 0); }, "04 00"},
      {"o 127 short form", [](BerElement *b) { return fber_printf(b, "o", s127.data(), 127); }, "04 7F " + hex(s127)},
      {"o 128 long form", [](BerElement *b) { return fber_printf(b, "o", s128.data(), 128); },
       "04 84 00 00 00 80 " + hex(s128)},
      {"s 128 long form", [](BerElement *b) { return fber_printf(b, "s", s128.c_str()); },
       "04 84 00 00 00 80 " + hex(s128)},
      {"B 0 bits", [](BerElement *b) { return fber_printf(b, "B", "", 0); }, "03 01 00"},
      {"B 9 bits", [&two](BerElement *b) { return fber_printf(b, "B", two, 9); }, "03 03 07 FF 80"},
      {"B 1009 bits crosses to the long form", [](BerElement *b) { return fber_printf(b, "B", bits, 1009); },
       "03 84 00 00 00 80 07 " + hex(bits, 127)},
  });
}

TEST(FberEncode, TagOverrideAppliesToExactlyTheNextLetter) {
  static const char *vec[] = {"a", "b", nullptr};
  static const char *none[] = {nullptr};
  static berval *bnone[] = {nullptr};
  static berval v1{1, const_cast<char *>("x")}, v2{2, const_cast<char *>("\0y")};
  static berval *bvec[] = {&v1, &v2, nullptr};
  expect_encodes({
      {"ti then default", [](BerElement *b) { return fber_printf(b, "tii", tag(0x80), 5, 6); }, "80 01 05 02 01 06"},
      {"tv tags every string", [](BerElement *b) { return fber_printf(b, "tv", tag(0x80), vec); }, "80 01 61 80 01 62"},
      {"tV with binary values", [](BerElement *b) { return fber_printf(b, "tV", tag(0x81), bvec); },
       "81 01 78 81 02 00 79"},
      {"t{ tags the SEQUENCE", [](BerElement *b) { return fber_printf(b, "t{}", tag(0xA3)); }, "A3 84 00 00 00 00"},
      {"only the low byte is written", [](BerElement *b) { return fber_printf(b, "tn", tag(0x1234A0)); }, "A0 00"},
      {"tt: the later override wins", [](BerElement *b) { return fber_printf(b, "tts", tag(1), tag(0x8A), "z"); },
       "8A 01 7A"},
      {"override survives into the next call",
       [](BerElement *b) { return fber_printf(b, "t", tag(0x87)) | fber_printf(b, "s", "q"); }, "87 01 71"},
      {"v and V with nothing", [](BerElement *b) { return fber_printf(b, "vvVV", nullptr, none, nullptr, bnone); }, ""},
  });
}

TEST(FberEncode, SequencesAreReservedAndPatchedOnClose) {
  expect_encodes({
      {"{}", [](BerElement *b) { return fber_printf(b, "{}"); }, "30 84 00 00 00 00"},
      {"[ closed by }", [](BerElement *b) { return fber_printf(b, "[}"); }, "31 84 00 00 00 00"},
      {"{ closed by ]", [](BerElement *b) { return fber_printf(b, "{i]", 1); }, "30 84 00 00 00 03 02 01 01"},
      {"nested, closed across calls",
       [](BerElement *b) { return fber_printf(b, "{i{", 1) | fber_printf(b, "n}") | fber_printf(b, "}"); },
       "30 84 00 00 00 0B 02 01 01 30 84 00 00 00 02 05 00"},
      {"simple bind",
       [](BerElement *b) {
         return fber_printf(b, "{it{ists}", 1, tag(0x60), 3, "cn=a", tag(0x80), "pw") | fber_printf(b, "}");
       },
       "30 84 00 00 00 16 02 01 01 60 84 00 00 00 0D 02 01 03 04 04 63 6E 3D 61 80 02 70 77"},
      {"delete, closed by a later call",
       [](BerElement *b) { return fber_printf(b, "{its", 5, tag(0x4A), "o=x") | fber_printf(b, "}"); },
       "30 84 00 00 00 08 02 01 05 4A 03 6F 3D 78"},
      {"reserved octets read as zero while open", [](BerElement *b) { return fber_printf(b, "{i", 7); },
       "30 84 00 00 00 00 02 01 07"},
  });
}

TEST(FberEncode, FailuresReturnMinusOneAndKeepWhatWasWritten) {
  struct Bad {
    const char *what;
    std::function<int(BerElement *)> encode;
    std::string kept;
  } cases[] = {
      {"closing with nothing open", [](BerElement *b) { return fber_printf(b, "n}"); }, "05 00"},
      {"closing twice", [](BerElement *b) { return fber_printf(b, "{}]"); }, "30 84 00 00 00 00"},
      {"unknown letter", [](BerElement *b) { return fber_printf(b, "nq"); }, "05 00"},
      {"blank is unknown", [](BerElement *b) { return fber_printf(b, "{ }"); }, "30 84 00 00 00 00"},
      {"null string", [](BerElement *b) { return fber_printf(b, "s", nullptr); }, ""},
      {"null bytes with a length", [](BerElement *b) { return fber_printf(b, "o", nullptr, 3); }, ""},
      {"negative length", [](BerElement *b) { return fber_printf(b, "o", "abc", -1); }, ""},
      {"negative bit count", [](BerElement *b) { return fber_printf(b, "B", "abc", -1); }, ""},
      {"value too long for 4 length octets",
       [](BerElement *b) {
         static berval huge{0x100000000ull, const_cast<char *>("x")};
         static berval *vec[] = {&huge, nullptr};
         return fber_printf(b, "V", vec);
       },
       ""},
  };
  for (auto &c : cases) {
    Ber b(fber_alloc());
    b->ber_len = 77;
    EXPECT_EQ(c.encode(b.get()), -1) << c.what;
    EXPECT_EQ(written(b.get()), hex(unhex(c.kept))) << c.what;
    EXPECT_EQ(b->ber_len, 77u) << c.what;
  }
}

TEST(FberEncode, NestingStopsAtOneHundred) {
  Ber b(fber_alloc());
  const std::string hundred(100, '{');
  ASSERT_EQ(fber_printf(b.get(), hundred.c_str()), 0);
  EXPECT_EQ(b->ber_sos[0], 100u);
  EXPECT_EQ(fber_printf(b.get(), "{"), -1);
  EXPECT_EQ(b->ber_ptr - b->ber_buf, 600);
  EXPECT_EQ(b->ber_sos[0], 100u);
  ASSERT_EQ(fber_printf(b.get(), std::string(100, '}').c_str()), 0);
  // The outermost SEQUENCE holds the other 99 headers.
  EXPECT_EQ(written(b.get()).substr(0, 17), "30 84 00 00 02 52");
  EXPECT_EQ(fber_printf(b.get(), "}"), -1);
}

TEST(FberEncode, ElementWithoutTheMarkIsLeftAlone) {
  Ber b(fber_alloc());
  b->ber_options = 0;
  EXPECT_EQ(fber_printf(b.get(), "{is}", 1, "x"), 0);
  EXPECT_EQ(b->ber_ptr, b->ber_buf);
  EXPECT_EQ(b->ber_len, 0u);
  b->ber_options = FBER_MARK;  // so that fber_free knows the inline buffer
}

TEST(FberEncode, TranslationSettingsDoNotChangeTheBytes) {
  // With the local code page UTF-8, translated, untranslated and raw output agree.
  static const char *vec[] = {"é", "ü", nullptr};
  std::string expected;
  for (auto [noxlate, version] : {std::pair{1, 3}, std::pair{0, 3}, std::pair{0, 2}}) {
    Ber p(fber_alloc_with_options(0, noxlate, version));
    Ber r(fber_alloc_with_options(0, noxlate, version));
    ASSERT_EQ(fber_printf(p.get(), "{so[v]}", "cn=é", "x\0y", 3, vec), 0);
    ASSERT_EQ(fber_printf_raw(r.get(), "{so[v]}", "cn=é", "x\0y", 3, vec), 0);
    EXPECT_EQ(written(p.get()), written(r.get()));
    if (expected.empty()) expected = written(p.get());
    EXPECT_EQ(written(p.get()), expected) << noxlate << "/" << version;
  }
}

TEST(FberEncode, GrowthWithSequencesOpenPatchesTheRightPlaces) {
  // Strings larger than the inline buffer force several moves while three
  // SEQUENCEs and a SET are open.
  Ber b(fber_alloc_with_options(0, 0, 3));
  ASSERT_EQ(fber_printf(b.get(), "{it{s{", 9, tag(0x68), "cn=big"), 0);
  const char *inline_buf = b->ber_buf;
  std::vector<std::string> values;
  for (int i = 0; i < 12; ++i) values.push_back(std::string(1000 + i * 300, static_cast<char>('a' + i)));
  ASSERT_EQ(fber_printf(b.get(), "{s[", "jpegPhoto"), 0);
  for (auto &v : values) ASSERT_EQ(fber_printf(b.get(), "o", v.data(), static_cast<int>(v.size())), 0);
  ASSERT_EQ(fber_printf(b.get(), "]}}}}"), 0);
  EXPECT_NE(b->ber_buf, inline_buf);
  EXPECT_EQ(b->ber_sos[0], 0u);

  Ber r = rewind(std::move(b));
  int msgid = 0;
  char *dn = nullptr, *type = nullptr;
  berval **vals = nullptr;
  ber_len_t outer;
  ASSERT_EQ(fber_peek_tag(r.get(), &outer), tag(0x30));
  EXPECT_EQ(outer + 6, static_cast<ber_len_t>(r->ber_end - r->ber_buf));
  ASSERT_NE(fber_scanf(r.get(), "{i{a{{a[V]}}}", &msgid, &dn, &type, &vals), LBER_ERROR);
  EXPECT_EQ(msgid, 9);
  EXPECT_STREQ(dn, "cn=big");
  EXPECT_STREQ(type, "jpegPhoto");
  ASSERT_NE(vals, nullptr);
  size_t n = 0;
  for (; vals[n] != nullptr; ++n) EXPECT_EQ(std::string(vals[n]->bv_val, vals[n]->bv_len), values[n]);
  EXPECT_EQ(n, values.size());
  EXPECT_EQ(r->ber_ptr, r->ber_end);
  free(dn);
  free(type);
  fber_bvecfree(vals);
}

TEST(FberEncode, AllocationFailureAtEveryStepOfAGrowingEncode) {
  std::string big(5000, 'v');
  auto scenario = [&](BerElement *b) {
    if (fber_printf(b, "{it{s{", 3, tag(0x68), "cn=x") != 0) return -1;
    for (int i = 0; i < 4; ++i)
      if (fber_printf(b, "{s[o]}", "description", big.data(), static_cast<int>(big.size())) != 0) return -1;
    return fber_printf(b, "}}}");
  };
  Ber ref(fber_alloc_with_options(0, 0, 3));
  ASSERT_EQ(scenario(ref.get()), 0);
  for (long n = 1;; ++n) {
    olx_fail_alloc_at(n);
    BerElement *b = fber_alloc_with_options(0, 0, 3);
    int rc = b ? scenario(b) : -1;
    long seen = olx_fail_alloc_at(0);
    if (n > seen) {
      ASSERT_EQ(rc, 0);
      EXPECT_EQ(written(b), written(ref.get()));
      fber_free(b);
      break;
    }
    EXPECT_EQ(rc, -1) << "allocation " << n;
    fber_free(b);
  }
}
