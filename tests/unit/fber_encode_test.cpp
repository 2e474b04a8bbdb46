// The encoder, byte for byte.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "alloc_sweep.h"
#include "ber_build.h"
#include "ldap-protocol.h"
#include "ldap-utils.h"
#include "ldap-xlate.h"

using namespace tavtest;

namespace {

// Strings are expected to pass unchanged whatever the environment's locale:
// the local code page is UTF-8.
[[maybe_unused]] const int kLocalUtf8 = ldap_set_iconv_local_codepage("UTF-8");
using Encode = std::function<int(BerElement *)>;
constexpr ber_tag_t tag(unsigned v) { return v; }
const std::string s127(127, 'a'), s128(128, 'b');
char bits[127];
const char two[] = {'\xFF', '\x80'};
const char *vec[] = {"a", "b", nullptr}, *none[] = {nullptr};
berval v1{1, const_cast<char *>("x")}, v2{2, const_cast<char *>("\0y")}, *bvec[] = {&v1, &v2, nullptr},
                                                                         *bnone[] = {nullptr};
}  // namespace

TEST(FberEncode, EveryLetterWritesItsFixedShape) {
  memset(bits, 0x5A, sizeof bits);
  const std::pair<Encode, std::string> cases[] = {
      {[](BerElement *b) { return fber_printf(b, "i", 0); }, "02 01 00"},
      {[](BerElement *b) { return fber_printf(b, "i", 127); }, "02 01 7F"},
      {[](BerElement *b) { return fber_printf(b, "i", 128); }, "02 04 00 00 00 80"},  // four bytes past 127
      {[](BerElement *b) { return fber_printf(b, "i", -1); }, "02 04 FF FF FF FF"},
      {[](BerElement *b) { return fber_printf(b, "i", -129); }, "02 04 FF FF FF 7F"},
      {[](BerElement *b) { return fber_printf(b, "i", INT32_MIN); }, "02 04 80 00 00 00"},
      {[](BerElement *b) { return fber_printf(b, "e", 2); }, "0A 01 02"},
      {[](BerElement *b) { return fber_printf(b, "bb", 5, 0); }, "01 01 FF 01 01 00"},
      {[](BerElement *b) { return fber_printf(b, "n"); }, "05 00"},
      {[](BerElement *b) { return fber_printf(b, "s", "cn=a"); }, "04 04 63 6E 3D 61"},
      {[](BerElement *b) { return fber_printf(b, "s", ""); }, "04 00"},
      {[](BerElement *b) { return fber_printf(b, "o", "a\0b", 3); }, "04 03 61 00 62"},
      {[](BerElement *b) { return fber_printf(b, "o", nullptr, 0); }, "04 00"},
      {[](BerElement *b) { return fber_printf(b, "o", s127.data(), 127); }, "04 7F " + hex(s127)},
      {[](BerElement *b) { return fber_printf(b, "o", s128.data(), 128); }, "04 84 00 00 00 80 " + hex(s128)},
      {[](BerElement *b) { return fber_printf(b, "s", s128.c_str()); }, "04 84 00 00 00 80 " + hex(s128)},
      {[](BerElement *b) { return fber_printf(b, "B", "", 0); }, "03 01 00"},
      {[](BerElement *b) { return fber_printf(b, "B", two, 9); }, "03 03 07 FF 80"},
      {[](BerElement *b) { return fber_printf(b, "B", bits, 1009); },
       "03 84 00 00 00 80 07 " + hex(std::string(bits, 127))},
      // A tag override applies to exactly the next letter, even across calls.
      {[](BerElement *b) { return fber_printf(b, "tii", tag(0x80), 5, 6); }, "80 01 05 02 01 06"},
      {[](BerElement *b) { return fber_printf(b, "tv", tag(0x80), vec); }, "80 01 61 80 01 62"},
      {[](BerElement *b) { return fber_printf(b, "tV", tag(0x81), bvec); }, "81 01 78 81 02 00 79"},
      {[](BerElement *b) { return fber_printf(b, "t{}", tag(0xA3)); }, "A3 84 00 00 00 00"},
      {[](BerElement *b) { return fber_printf(b, "tn", tag(0x1234A0)); }, "A0 00"},
      {[](BerElement *b) { return fber_printf(b, "tts", tag(1), tag(0x8A), "z"); }, "8A 01 7A"},
      {[](BerElement *b) { return fber_printf(b, "t", tag(0x87)) | fber_printf(b, "s", "q"); }, "87 01 71"},
      {[](BerElement *b) { return fber_printf(b, "vvVV", nullptr, none, nullptr, bnone); }, ""},
      // SEQUENCE and SET: four length octets reserved, patched on close.
      {[](BerElement *b) { return fber_printf(b, "{}"); }, "30 84 00 00 00 00"},
      {[](BerElement *b) { return fber_printf(b, "[}"); }, "31 84 00 00 00 00"},
      {[](BerElement *b) { return fber_printf(b, "{i]", 1); }, "30 84 00 00 00 03 02 01 01"},
      {[](BerElement *b) { return fber_printf(b, "{i{", 1) | fber_printf(b, "n}") | fber_printf(b, "}"); },
       "30 84 00 00 00 0B 02 01 01 30 84 00 00 00 02 05 00"},
      {[](BerElement *b) {
         return fber_printf(b, "{it{ists}", 1, tag(ldap_proto::kBindRequest), 3, "cn=a", tag(ldap_proto::kSimpleAuth),
                            "pw") |
                fber_printf(b, "}");
       },
       "30 84 00 00 00 16 02 01 01 60 84 00 00 00 0D 02 01 03 04 04 63 6E 3D 61 80 02 70 77"},
      {[](BerElement *b) {
         return fber_printf(b, "{its", 5, tag(ldap_proto::kDeleteRequest), "o=x") | fber_printf(b, "}");
       },
       "30 84 00 00 00 08 02 01 05 4A 03 6F 3D 78"},
      {[](BerElement *b) { return fber_printf(b, "{i", 7); }, "30 84 00 00 00 00 02 01 07"}  // open: zeros
  };
  for (const auto &[encode, want] : cases) {
    Ber b(fber_alloc());
    ASSERT_EQ(encode(b.get()), 0) << want;
    EXPECT_EQ(hex(written(b.get())), hex(unhex(want)));
    EXPECT_EQ(b->ber_len, static_cast<ber_len_t>(b->ber_ptr - b->ber_buf)) << want;
    EXPECT_EQ(b->ber_tag, LBER_DEFAULT) << want;
  }
}

TEST(FberEncode, FailuresReturnMinusOneAndKeepWhatWasWritten) {
  static berval huge{0x100000000ull, const_cast<char *>("x")}, *hvec[] = {&huge, nullptr};
  const std::pair<Encode, std::string> cases[] = {
      {[](BerElement *b) { return fber_printf(b, "n}"); }, "05 00"},  // nothing open
      {[](BerElement *b) { return fber_printf(b, "{}]"); }, "30 84 00 00 00 00"},
      {[](BerElement *b) { return fber_printf(b, "nq"); }, "05 00"},               // unknown letter
      {[](BerElement *b) { return fber_printf(b, "{ }"); }, "30 84 00 00 00 00"},  // blank is unknown
      {[](BerElement *b) { return fber_printf(b, "s", nullptr); }, ""},
      {[](BerElement *b) { return fber_printf(b, "o", nullptr, 3); }, ""},
      {[](BerElement *b) { return fber_printf(b, "o", "abc", -1); }, ""},
      {[](BerElement *b) { return fber_printf(b, "B", "abc", -1); }, ""},
      {[](BerElement *b) { return fber_printf(b, "V", hvec); }, ""}  // too long for four length octets
  };
  for (const auto &[encode, kept] : cases) {
    Ber b(fber_alloc());
    b->ber_len = 77;
    EXPECT_EQ(encode(b.get()), -1) << kept;
    EXPECT_EQ(hex(written(b.get())), hex(unhex(kept)));
    EXPECT_EQ(b->ber_len, 77u);
  }
  // Nesting stops at one hundred open SEQUENCEs.
  Ber b(fber_alloc());
  ASSERT_EQ(fber_printf(b.get(), std::string(100, '{').c_str()), 0);
  EXPECT_EQ(fber_printf(b.get(), "{"), -1);
  EXPECT_EQ(b->ber_ptr - b->ber_buf, 600);
  ASSERT_EQ(fber_printf(b.get(), std::string(100, '}').c_str()), 0);
  EXPECT_EQ(hex(written(b.get()).substr(0, 6)), "30 84 00 00 02 52");  // holds the other 99 headers
  EXPECT_EQ(fber_printf(b.get(), "}"), -1);
  // An element without the mark is left alone.
  b->ber_options = 0;
  b->ber_ptr = b->ber_buf;
  EXPECT_EQ(fber_printf(b.get(), "{is}", 1, "x"), 0);
  EXPECT_EQ(b->ber_ptr, b->ber_buf);
  b->ber_options = FBER_MARK;  // so that fber_free knows the inline buffer
}

TEST(FberEncode, TranslationSettingsAndGrowthKeepTheBytes) {
  // With the local code page UTF-8, translated, untranslated and raw output agree.
  static const char *utf8[] = {"\xC3\xA9", "\xC3\xBC", nullptr};
  const std::string want = seq4(ldap_proto::kSequence, str("cn=\xC3\xA9") + str(std::string("x\0y", 3)) +
                                                           seq4(ldap_proto::kSet, str("\xC3\xA9") + str("\xC3\xBC")));
  for (auto [noxlate, version] : {std::pair{1, 3}, std::pair{0, 3}, std::pair{0, 2}}) {
    Ber p(fber_alloc_with_options(0, noxlate, version)), r(fber_alloc_with_options(0, noxlate, version));
    ASSERT_EQ(fber_printf(p.get(), "{so[v]}", "cn=\xC3\xA9", "x\0y", 3, utf8), 0);
    ASSERT_EQ(fber_printf_raw(r.get(), "{so[v]}", "cn=\xC3\xA9", "x\0y", 3, utf8), 0);
    EXPECT_EQ(hex(written(p.get())), hex(want));
    EXPECT_EQ(hex(written(r.get())), hex(want));
  }
  // Values larger than the inline buffer move it several times while three
  // SEQUENCEs and a SET are open; every length lands in the right place.
  Ber b(fber_alloc_with_options(0, 0, 3));
  ASSERT_EQ(fber_printf(b.get(), "{it{s{{s[", 9, tag(ldap_proto::kAddRequest), "cn=big", "jpegPhoto"), 0);
  std::string values;
  for (int i = 0; i < 12; ++i) {
    std::string v(1000 + i * 300, static_cast<char>('a' + i));
    ASSERT_EQ(fber_printf(b.get(), "o", v.data(), static_cast<int>(v.size())), 0);
    values += prim4(ldap_proto::kOctetString, v);
  }
  ASSERT_EQ(fber_printf(b.get(), "]}}}}"), 0);
  EXPECT_TRUE(written(b.get()) ==
              seq4(ldap_proto::kSequence,
                   integer(9) + seq4(ldap_proto::kAddRequest,
                                     str("cn=big") + seq4(ldap_proto::kSequence,
                                                          seq4(ldap_proto::kSequence,
                                                               str("jpegPhoto") + seq4(ldap_proto::kSet, values))))));
}

TEST(FberEncode, AllocationFailureAtEveryStepOfAGrowingEncode) {
  const std::string big(5000, 'v');
  auto scenario = [&](BerElement *b) {
    if (fber_printf(b, "{it{s{", 3, tag(ldap_proto::kAddRequest), "cn=x") != 0) return -1;
    for (int i = 0; i < 4; ++i)
      if (fber_printf(b, "{s[o]}", "description", big.data(), static_cast<int>(big.size())) != 0) return -1;
    return fber_printf(b, "}}}");
  };
  Ber ref(fber_alloc_with_options(0, 0, 3));
  ASSERT_EQ(scenario(ref.get()), 0);
  Ber b;
  tavtest::sweep_allocations([&] { return b.reset(fber_alloc_with_options(0, 0, 3)), b ? scenario(b.get()) : -1; },
                             [&](int rc, bool failed, long n) {
                               ASSERT_EQ(rc, failed ? -1 : 0) << "allocation " << n;
                               EXPECT_TRUE(failed || written(b.get()) == written(ref.get()));
                             });
}
