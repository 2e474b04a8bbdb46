// The BER element: construction, berval conversion, failures, password masking.
// (Growth with values of every size is covered by the encoder's tests.)
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "alloc_sweep.h"
#include "ber_build.h"
#include "ldap-utils.h"
#include "process.h"

using namespace tavtest;

TEST(FberElement, InitCopiesAndFlattenCopiesBack) {
  EXPECT_EQ(fber_init2(nullptr), nullptr);
  std::string text = "\x04\x02hi";
  Ber b = reader(text);
  text[2] = 'X';  // the element reads its own copy
  EXPECT_EQ(std::string(b->ber_ptr, b->ber_end), "\x04\x02hi");
  EXPECT_EQ(b->ber_noxlate, nullptr);  // read without translation
  EXPECT_EQ(b->ber_version, nullptr);
  Ber empty = reader("");
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->ber_ptr, empty->ber_end);

  berval *bv = nullptr;
  ASSERT_EQ(fber_flatten(nullptr, &bv), 0);
  EXPECT_EQ(std::make_pair(bv->bv_len, bv->bv_val), std::make_pair(ber_len_t{0}, (char *)nullptr));
  fber_bvfree(bv);
  Ber w(fber_alloc());
  ASSERT_EQ(fber_flatten(w.get(), &bv), 0);
  EXPECT_EQ(bv->bv_len, 0u);
  EXPECT_STREQ(bv->bv_val, "");
  fber_bvfree(bv);
  fber_write(w.get(), "a\0b", 3);
  ASSERT_EQ(fber_flatten(w.get(), &bv), 0);
  EXPECT_EQ(std::string(bv->bv_val, bv->bv_len + 1), std::string("a\0b\0", 4));
  fber_bvfree(bv);
}

TEST(FberElement, AllocationFailuresLeaveNothingBehind) {
  std::string data(7000, 'd');
  berval bv{data.size(), data.data()};
  for (int ctor = 0; ctor < 2; ++ctor) {
    tavtest::sweep_allocations([&] { return ctor == 0 ? fber_alloc_with_options(0, 0, 3) : fber_init2(&bv); },
                               [&](BerElement *made, bool failed, long n) {
                                 Ber b(made);
                                 ASSERT_EQ(!b, failed) << "allocation " << n;
                                 EXPECT_TRUE(failed || ctor != 0 || (*b->ber_version == 3 && *b->ber_noxlate == 0));
                               });
  }
  // A failed growth leaves the element as it was.
  Ber b(fber_alloc_t(2));
  fber_write(b.get(), "x", 1);
  char *before = b->ber_buf;
  olx_fail_alloc_at(1);
  EXPECT_EQ(fber_write(b.get(), "yz", 2), -1);
  olx_fail_alloc_at(0);
  EXPECT_EQ(b->ber_buf, before);
  EXPECT_EQ(written(b.get()), "x");
  // An element without the mark owns only its buffer, which goes with it.
  auto *plain = static_cast<BerElement *>(calloc(1, sizeof(BerElement)));
  plain->ber_buf = static_cast<char *>(malloc(1 << 16));
  const size_t in_use = heap_in_use();
  fber_free(plain);
  EXPECT_GE(in_use - heap_in_use(), size_t{1} << 16);
  fber_free(nullptr);
}

TEST(FberMask, PasswordValuesAreBlankedInEveryLayout) {
  const std::pair<std::string, std::string> cases[] = {
      {"userpassword" + unhex("31 07 04 05") + "abc12!xyz", "userpassword" + unhex("31 07 04 05") + "xxxxx!xyz"},
      {"userPassword" + unhex("31 84 00 00 00 0C 04 04") + "p@s!" + unhex("04 84 00 00 00 02") + "#1",
       "userPassword" + unhex("31 84 00 00 00 0C 04 04") + "xxxx" + unhex("04 84 00 00 00 02") + "xx"},
      // a value cut short by the end of the data
      {"USERPASSWORD" + unhex("31 84 00 00 00 10 04 08") + "se",
       "USERPASSWORD" + unhex("31 84 00 00 00 10 04 08") + "xx"},
      // simple and SASL bind credentials
      {unhex("30 84 00 00 00 16 02 01 01 60 84 00 00 00 0D 02 01 03 04 04") + "cn=a" + unhex("80 03") + "p!w",
       unhex("30 84 00 00 00 16 02 01 01 60 84 00 00 00 0D 02 01 03 04 04") + "cn=a" + unhex("80 03") + "xxx"},
      {unhex("30 1A 02 01 02 60 15 02 01 03 04 00 A3 0E 04 06") + "DIGEST" + unhex("04 04") +
           "s\x01"
           "c\xff",
       unhex("30 1A 02 01 02 60 15 02 01 03 04 00 A3 0E 04 06") + "DIGEST" + unhex("04 04") + "xxxx"},
      {unhex("30 05 02 01 01 42 00"), unhex("30 05 02 01 01 42 00")},  // nothing to mask
      {"userpassword", "userpassword"}                                 // the name at the very end
  };
  for (const auto &[in, out] : cases) {
    std::string copy = in;
    fber_mask_passwords(copy.data(), copy.size());
    EXPECT_EQ(hex(copy), hex(out));
  }
}

// The common API's value helpers: what they copy and what they only point at.
TEST(FberValues, CommonApiHelpersCopyOnlyWhenAsked) {
  const char text[] = "value";
  struct berval *owned = ber_str2bv(text, 0, 1, nullptr);
  ASSERT_NE(owned, nullptr);
  EXPECT_EQ(owned->bv_len, 5u);
  EXPECT_NE(owned->bv_val, text);
  struct berval borrowed;
  ASSERT_EQ(ber_mem2bv(text, 3, 0, &borrowed), &borrowed);
  EXPECT_EQ(borrowed.bv_val, text);
  EXPECT_EQ(borrowed.bv_len, 3u);
  struct berval *copy = ber_bvdup(&borrowed);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(std::string(copy->bv_val), "val") << "copies end with a zero byte";
  auto *array = static_cast<struct berval *>(ber_memcalloc(2, sizeof(struct berval)));
  ASSERT_EQ(ber_dupbv(&array[0], owned), &array[0]);
  ber_bvarray_free(array);
  ber_bvfree(copy);
  ber_bvfree(owned);
  EXPECT_EQ(ber_str2bv(nullptr, 0, 1, nullptr), nullptr);
}
