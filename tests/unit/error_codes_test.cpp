// Result-code messages, the per-thread error record and ldap_perror.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "ldap-int.h"
#include "ldap-utils.h"

namespace {

struct SessionFixture : testing::Test {
  LDAP *ld = nullptr;
  void SetUp() override {
    ld = ldap_init("127.0.0.1", 389);
    ASSERT_NE(ld, nullptr);
  }
  void TearDown() override {
    if (ld != nullptr) {
      EXPECT_EQ(ldap_unbind(ld), 0);
    }
  }
};

}  // namespace

TEST(ErrorCodes, EveryCodeHasItsMessageAndGapsAreUnknown) {
  struct {
    int code;
    const char *message;
  } cases[] = {
      {0, "Success"},
      {9, "Partial results and referral received"},
      {10, "Referral returned"},
      {14, "SASL Bind in progress"},
      {16, "No such attribute"},
      {32, "No such object"},
      {53, "DSA is unwilling to perform"},
      {71, "Affects multiple DSAS"},
      {80, "Unknown error"},
      {81, "Can't contact LDAP server"},
      {89, "Bad parameter to an ldap routine"},
      {90, "Out of memory"},
      {91, "Connection error"},
      {95, "More result to return"},
      {96, "URL doesn't begin with ldap://"},
      {99, "can't allocate memory space"},
      {112, "ldap_ssl_client_init successfully called previously in this process."},
      {114, "Call ldap_ssl_client_init before attempting to use an ssl connection"},
      {122, "The assertion filter evalues to false or undefined"},
      {129, "Could not obtain lock"},
      {136, "Can't resolve system domain or nameserver"},
      {163, "No codeset point to map to"},
      {178, "Cannot find NT Registry entry"},
      {196, "Plugin function could not bind"},
      {208, "gss_init_sec_context failed"},
  };
  for (const auto &c : cases) EXPECT_STREQ(ldap_err2string(c.code), c.message) << c.code;
  for (int gap :
       {-1, 15, 22, 31, 37, 47, 55, 62, 72, 79, 102, 111, 121, 123, 130, 138, 159, 164, 179, 197, 207, 209, 100000})
    EXPECT_STREQ(ldap_err2string(gap), "Unknown error") << gap;
  // Every code below 209 either has its own row or is one of the gaps.
  int with_rows = 0;
  for (int code = 0; code <= 208; ++code) with_rows += std::string(ldap_err2string(code)) != "Unknown error";
  EXPECT_EQ(with_rows, 94);  // 95 rows, less code 80 whose text is "Unknown error"
}

TEST(ErrorCodes, PasswordPolicyMessages) {
  EXPECT_STREQ(ldap_pwdpolicy_err2string(0), "Success");
  EXPECT_STREQ(ldap_pwdpolicy_err2string(1), "Warning, time before expiration is %ld");
  EXPECT_STREQ(ldap_pwdpolicy_err2string(2), "Warning, %ld grace logins remain");
  EXPECT_STREQ(ldap_pwdpolicy_err2string(5), "Error, Password must be changed after reset");
  EXPECT_STREQ(ldap_pwdpolicy_err2string(11), "Error, Password in History");
  EXPECT_STREQ(ldap_pwdpolicy_err2string(12), "Unknown error");
  EXPECT_STREQ(ldap_pwdpolicy_err2string(-1), "Unknown error");
}

TEST_F(SessionFixture, TwoThreadsOnOneHandleReadTheirOwnCodes) {
  std::thread failing([&] {
    for (int i = 0; i < 200; ++i) {
      ASSERT_EQ(ldap_set_errno(ld, LDAP_NO_SUCH_OBJECT, "dc=x", "nope"), 0);
      ASSERT_EQ(ldap_get_errno(ld), LDAP_NO_SUCH_OBJECT);
    }
  });
  std::thread quiet([&] {
    for (int i = 0; i < 200; ++i) ASSERT_EQ(ldap_get_errno(ld), 0);  // never touched: no record
  });
  std::thread other([&] {
    for (int i = 0; i < 200; ++i) {
      ASSERT_EQ(ldap_set_errno(ld, LDAP_TIMEOUT, nullptr, nullptr), 0);
      ASSERT_EQ(ldap_get_errno(ld), LDAP_TIMEOUT);
      ASSERT_EQ(ldap_set_ext_errno(ld, i), 0);
      ASSERT_EQ(ldap_get_ext_errno(ld), i);
    }
  });
  failing.join();
  quiet.join();
  other.join();
}

TEST_F(SessionFixture, SettingACodeWithoutStringsDropsThePreviousStrings) {
  ASSERT_EQ(ldap_set_errno(ld, LDAP_NO_SUCH_OBJECT, "ou=x", "gone"), 0);
  char *matched = nullptr, *msg = nullptr;
  EXPECT_EQ(ldap_get_error_info(ld, &matched, &msg), LDAP_NO_SUCH_OBJECT);
  EXPECT_STREQ(matched, "ou=x");
  EXPECT_STREQ(msg, "gone");
  free(matched);
  free(msg);
  ASSERT_EQ(ldap_set_errno(ld, LDAP_BUSY, nullptr, nullptr), 0);
  EXPECT_EQ(ldap_get_error_info(ld, &matched, &msg), LDAP_BUSY);
  EXPECT_EQ(matched, nullptr);
  EXPECT_EQ(msg, nullptr);
}

TEST_F(SessionFixture, FailedCopyKeepsThePreviousRecord) {
  ASSERT_EQ(ldap_set_errno(ld, LDAP_BUSY, "a", "b"), 0);
  for (int n : {1, 2}) {
    olx_fail_alloc_at(n);
    EXPECT_EQ(ldap_set_errno_direct(ld, LDAP_OTHER, "new matched", "new message"), LDAP_NO_MEMORY) << n;
    olx_fail_alloc_at(0);
    char *matched = nullptr, *msg = nullptr;
    EXPECT_EQ(ldap_get_error_info(ld, &matched, &msg), LDAP_BUSY);
    EXPECT_STREQ(matched, "a");
    EXPECT_STREQ(msg, "b");
    free(matched);
    free(msg);
  }
  // A thread without a record whose new record cannot be made keeps none.
  std::thread([&] {
    olx_fail_alloc_at(1);
    EXPECT_EQ(ldap_set_errno_direct(ld, LDAP_OTHER, nullptr, nullptr), LDAP_NO_MEMORY);
    olx_fail_alloc_at(1);
    EXPECT_EQ(ldap_set_ext_errno(ld, 7), LDAP_NO_MEMORY);
    olx_fail_alloc_at(0);
    EXPECT_EQ(ldap_get_errno(ld), 0);
    EXPECT_EQ(ldap_get_ext_errno(ld), 0);
  }).join();
}

TEST(ErrorRecord, RefusedHandlesGiveMinusOne) {
  char foreign[sizeof(LDAP)] = "NOT HDL";
  LDAP *bad = reinterpret_cast<LDAP *>(foreign);
  for (LDAP *ld : {static_cast<LDAP *>(nullptr), bad}) {
    EXPECT_EQ(ldap_get_errno(ld), -1);
    EXPECT_EQ(ldap_set_errno(ld, 1, nullptr, nullptr), -1);
    EXPECT_EQ(ldap_get_ext_errno(ld), -1);
    EXPECT_EQ(ldap_get_error_info(ld, nullptr, nullptr), -1);
    testing::internal::CaptureStderr();
    ldap_perror(ld, "x");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  }
  EXPECT_STREQ(ldap_err2string(ldap_get_errno(nullptr)), "Unknown error");
}

TEST_F(SessionFixture, PerrorPrintsCodeThenNonEmptyMatchedAndInfo) {
  struct {
    int code;
    const char *matched;
    const char *msg;
    const char *expected;
  } cases[] = {
      {LDAP_NO_SUCH_OBJECT, "dc=example,dc=com", "", "pfx: No such object\npfx: matched: dc=example,dc=com\n"},
      {LDAP_INSUFFICIENT_ACCESS, nullptr, "no write access",
       "pfx: Insufficient access\npfx: additional info: no write access\n"},
      {LDAP_SERVER_DOWN, "", nullptr, "pfx: Can't contact LDAP server\n"},
      {LDAP_ALREADY_EXISTS, "o=a", "dup", "pfx: Already exists\npfx: matched: o=a\npfx: additional info: dup\n"},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(ldap_set_errno(ld, c.code, c.matched, c.msg), 0);
    testing::internal::CaptureStderr();
    ldap_perror(ld, "pfx");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.expected);
  }
  // A thread without a record reads success.
  std::thread([&] {
    testing::internal::CaptureStderr();
    ldap_perror(ld, "t");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "t: Success\n");
  }).join();
}
