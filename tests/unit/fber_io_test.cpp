// The BER element: construction, growth, berval conversion, password masking.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "fber_test_helpers.h"
#include "lber-int.h"
#include "ldap-debug.h"
#include "ldap-utils.h"

using namespace fbertest;

namespace {
size_t capacity(const BerElement *b) { return static_cast<size_t>(b->ber_end - b->ber_buf); }
const char *inline_start(const BerElement *b) { return reinterpret_cast<const char *>(b + 1); }
}  // namespace

TEST(FberElement, NegativeSizeGrowsToExactlyTheFirstRequest) {
  Ber b(fber_alloc_t(-5));
  ASSERT_TRUE(b);
  EXPECT_EQ(b->ber_buf, b->ber_ptr);
  EXPECT_EQ(b->ber_ptr, b->ber_end);
  ASSERT_EQ(fber_write(b.get(), "abc", 3), 3);
  EXPECT_EQ(capacity(b.get()), 3u);
  EXPECT_EQ(bytes_of(b.get()), "abc");
}

TEST(FberElement, GrowthDoublesTheUsedPartAndLeavesTheInlineBuffer) {
  Ber b(fber_alloc());
  std::string data(6140, 'q');
  ASSERT_EQ(fber_write(b.get(), data.data(), data.size()), 6140);
  EXPECT_EQ(b->ber_buf, inline_start(b.get()));
  ASSERT_EQ(fber_write(b.get(), "123456", 6), 6);
  EXPECT_NE(b->ber_buf, inline_start(b.get()));
  EXPECT_EQ(capacity(b.get()), 12280u);
  EXPECT_EQ(bytes_of(b.get()), data + "123456");
  // A request larger than the used part grows by the request instead.
  std::string big(20000, 'z');
  ASSERT_EQ(fber_write(b.get(), big.data(), big.size()), 20000);
  EXPECT_EQ(capacity(b.get()), 6146u + 20000u);
}

TEST(FberElement, WriteNeedsOneSpareByte) {
  Ber b(fber_alloc_t(4));
  ASSERT_EQ(fber_write(b.get(), "abc", 3), 3);
  EXPECT_EQ(b->ber_buf, inline_start(b.get()));  // 3 < 4: fits
  Ber c(fber_alloc_t(4));
  ASSERT_EQ(fber_write(c.get(), "abcd", 4), 4);
  EXPECT_NE(c->ber_buf, inline_start(c.get()));  // ptr + 4 >= end: grows
}

TEST(FberElement, InitCopiesTheBervalAndReadsWithoutTranslation) {
  EXPECT_EQ(fber_init2(nullptr), nullptr);
  std::string text = "\x04\x02hi";
  Ber b = reader(text);
  ASSERT_TRUE(b);
  text[2] = 'X';  // the element reads its own copy
  EXPECT_EQ(std::string(b->ber_ptr, b->ber_end), std::string("\x04\x02hi", 4));
  EXPECT_EQ(b->ber_noxlate, nullptr);
  EXPECT_EQ(b->ber_version, nullptr);
  Ber empty = reader("");
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->ber_ptr, empty->ber_end);
}

TEST(FberElement, FlattenCopiesWhatWasWritten) {
  struct berval *bv = nullptr;
  ASSERT_EQ(fber_flatten(nullptr, &bv), 0);
  ASSERT_NE(bv, nullptr);
  EXPECT_EQ(bv->bv_len, 0u);
  EXPECT_EQ(bv->bv_val, nullptr);
  fber_bvfree(bv);

  Ber b(fber_alloc());
  ASSERT_EQ(fber_flatten(b.get(), &bv), 0);
  EXPECT_EQ(bv->bv_len, 0u);
  ASSERT_NE(bv->bv_val, nullptr);
  EXPECT_EQ(bv->bv_val[0], '\0');
  fber_bvfree(bv);

  fber_write(b.get(), "a\0b", 3);
  ASSERT_EQ(fber_flatten(b.get(), &bv), 0);
  EXPECT_EQ(std::string(bv->bv_val, bv->bv_len), std::string("a\0b", 3));
  EXPECT_EQ(bv->bv_val[3], '\0');
  fber_bvfree(bv);
}

TEST(FberElement, AllocationFailuresLeaveNothingBehind) {
  // Each constructor, failing at every allocation it makes.
  for (long n = 1;; ++n) {
    olx_fail_alloc_at(n);
    BerElement *b = fber_alloc_with_options(0, 0, 3);
    long seen = olx_fail_alloc_at(0);
    if (n > seen) {
      ASSERT_NE(b, nullptr);
      EXPECT_EQ(*b->ber_version, 3);  // owned copies of the session's settings
      EXPECT_EQ(*b->ber_noxlate, 0);
      fber_free(b);
      break;
    }
    EXPECT_EQ(b, nullptr) << "allocation " << n;
  }
  std::string data(7000, 'd');
  berval bv{data.size(), data.data()};
  for (long n = 1;; ++n) {
    olx_fail_alloc_at(n);
    BerElement *b = fber_init2(&bv);
    long seen = olx_fail_alloc_at(0);
    if (n > seen) {
      ASSERT_NE(b, nullptr);
      fber_free(b);
      break;
    }
    EXPECT_EQ(b, nullptr) << "allocation " << n;
  }
  // A failed growth leaves the element as it was.
  Ber b(fber_alloc_t(2));
  fber_write(b.get(), "x", 1);
  char *before = b->ber_buf;
  olx_fail_alloc_at(1);
  EXPECT_EQ(fber_write(b.get(), "yz", 2), -1);
  olx_fail_alloc_at(0);
  EXPECT_EQ(b->ber_buf, before);
  EXPECT_EQ(bytes_of(b.get()), "x");
}

TEST(FberElement, ElementWithoutTheMarkOwnsOnlyItsBuffer) {
  auto *b = static_cast<BerElement *>(calloc(1, sizeof(BerElement)));
  b->ber_buf = static_cast<char *>(malloc(16));
  fber_free(b);  // frees the buffer and the record; ASan checks both
  fber_free(nullptr);
}

TEST(FberMask, PasswordValuesAreBlankedInEveryLayout) {
  struct Case {
    const char *what;
    std::string in, out;
  } cases[] = {
      {"short header then letters and digits", "userpassword" + unhex("31 07 04 05") + "abc12!xyz",
       "userpassword" + unhex("31 07 04 05") + "xxxxx!xyz"},
      {"long-form SET of two values, any case",
       "userPassword" + unhex("31 84 00 00 00 0C 04 04") + "p@s!" + unhex("04 84 00 00 00 02") + "#1",
       "userPassword" + unhex("31 84 00 00 00 0C 04 04") + "xxxx" + unhex("04 84 00 00 00 02") + "xx"},
      {"value cut short by the end of the data", "USERPASSWORD" + unhex("31 84 00 00 00 10 04 08") + "se",
       "USERPASSWORD" + unhex("31 84 00 00 00 10 04 08") + "xx"},
      {"simple bind credentials",
       unhex("30 84 00 00 00 16 02 01 01 60 84 00 00 00 0D 02 01 03 04 04") + "cn=a" + unhex("80 03") + "p!w",
       unhex("30 84 00 00 00 16 02 01 01 60 84 00 00 00 0D 02 01 03 04 04") + "cn=a" + unhex("80 03") + "xxx"},
      {"SASL bind credentials",
       unhex("30 1A 02 01 02 60 15 02 01 03 04 00 A3 0E 04 06") + "DIGEST" + unhex("04 04") +
           "s\x01"
           "c\xff",
       unhex("30 1A 02 01 02 60 15 02 01 03 04 00 A3 0E 04 06") + "DIGEST" + unhex("04 04") + "xxxx"},
      {"nothing to mask", unhex("30 05 02 01 01 42 00"), unhex("30 05 02 01 01 42 00")},
      {"name at the very end", "userpassword", "userpassword"},
  };
  for (auto &c : cases) {
    std::string copy = c.in;
    fber_mask_passwords(copy.data(), copy.size());
    EXPECT_EQ(hex(copy), hex(c.out)) << c.what;
  }
}

TEST(FberMask, LoggingLeavesTheCallersBytesAlone) {
  const uint32_t saved = ldap_debug_level();
  ldap_set_debug_level(0xFFFF);
  std::string data = "userpassword" + unhex("31 07 04 05") + "abc12";
  const std::string before = data;
  fber_log_contents(data.data(), data.size());
  Ber b(fber_alloc());
  fber_write(b.get(), data.data(), data.size());
  fber_dump(b.get(), 0);
  fber_reset(b.get(), 1);
  fber_dump_with_fd(b.get(), 1, 7);
  EXPECT_EQ(std::string(b->ber_ptr, b->ber_end), before);
  // The decoder traces the whole element at its start, then only offsets.
  char *s = nullptr;
  EXPECT_EQ(fber_scanf(b.get(), "a", &s), LBER_ERROR);
  fber_scanf(b.get(), "x");
  ldap_set_debug_level(saved);
  EXPECT_EQ(data, before);
}
