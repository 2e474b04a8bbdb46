// Result-code messages, the per-thread error record and ldap_perror.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "ldap-int.h"
#include "ldap-utils.h"
#include "trace_watch.h"

namespace {

std::string perror_text(LDAP *ld, const char *prefix) {
  return tavtest::traced(0, [&] { ldap_perror(ld, prefix); });
}

TEST(ErrorCodes, EveryCodeHasItsMessageAndGapsAreUnknown) {
  const std::pair<int, const char *> cases[] = {{0, "Success"},
                                                {10, "Referral returned"},
                                                {32, "No such object"},
                                                {71, "Affects multiple DSAS"},
                                                {80, "Unknown error"},
                                                {81, "Can't contact LDAP server"},
                                                {89, "Bad parameter to an ldap routine"},
                                                {96, "URL doesn't begin with ldap://"},
                                                {122, "The assertion filter evalues to false or undefined"},
                                                {129, "Could not obtain lock"},
                                                {163, "No codeset point to map to"},
                                                {208, "gss_init_sec_context failed"}};
  for (const auto &[code, message] : cases) EXPECT_STREQ(ldap_err2string(code), message) << code;
  for (int gap : {-1, 15, 79, 111, 121, 130, 164, 197, 209, 100000})
    EXPECT_STREQ(ldap_err2string(gap), "Unknown error");
  int with_rows = 0;  // 95 rows, less code 80 whose text is "Unknown error"
  for (int code = 0; code <= 208; ++code) with_rows += std::string(ldap_err2string(code)) != "Unknown error";
  EXPECT_EQ(with_rows, 94);
  const std::pair<int, const char *> policy[] = {{1, "Warning, time before expiration is %ld"},
                                                 {11, "Error, Password in History"},
                                                 {12, "Unknown error"},
                                                 {-1, "Unknown error"}};
  for (const auto &[code, message] : policy) EXPECT_STREQ(ldap_pwdpolicy_err2string(code), message);
}

TEST(ErrorRecord, EachThreadReadsItsOwnRecordAndRefusedHandlesGiveMinusOne) {
  LDAP *ld = ldap_init("127.0.0.1", 389);
  std::thread failing([&] {
    for (int i = 0; i < 200; ++i) {
      ASSERT_EQ(ldap_set_errno(ld, LDAP_NO_SUCH_OBJECT, "dc=x", "nope"), 0);
      ASSERT_EQ(ldap_get_errno(ld), LDAP_NO_SUCH_OBJECT);
    }
  });
  std::thread other([&] {
    for (int i = 0; i < 200; ++i) {
      ASSERT_EQ(ldap_set_errno(ld, LDAP_TIMEOUT, nullptr, nullptr) | ldap_set_ext_errno(ld, i), 0);
      ASSERT_EQ(std::make_pair(ldap_get_errno(ld), ldap_get_ext_errno(ld)), std::make_pair(LDAP_TIMEOUT, i));
    }
  });
  for (int i = 0; i < 200; ++i) ASSERT_EQ(ldap_get_errno(ld), 0);  // never set here: no record
  failing.join();
  other.join();
  char foreign[sizeof(LDAP)] = "NOT HDL";
  for (LDAP *bad : {static_cast<LDAP *>(nullptr), reinterpret_cast<LDAP *>(foreign)}) {
    EXPECT_EQ(ldap_get_errno(bad), -1);
    EXPECT_EQ(ldap_set_errno(bad, 1, nullptr, nullptr), -1);
    EXPECT_EQ(ldap_get_ext_errno(bad), -1);
    EXPECT_EQ(ldap_get_error_info(bad, nullptr, nullptr), -1);
    EXPECT_EQ(perror_text(bad, "x"), "");
  }
  ldap_unbind(ld);
}

TEST(ErrorRecord, StringsAreReplacedKeptOnFailureAndPrinted) {
  LDAP *ld = ldap_init("127.0.0.1", 389);
  auto info = [&] {
    char *matched = nullptr, *msg = nullptr;
    int code = ldap_get_error_info(ld, &matched, &msg);
    std::string out = std::to_string(code) + "|" + (matched ? matched : "(null)") + "|" + (msg ? msg : "(null)");
    free(matched);
    free(msg);
    return out;
  };
  ASSERT_EQ(ldap_set_errno(ld, LDAP_BUSY, "a", "b"), 0);
  EXPECT_EQ(info(), "51|a|b");
  for (int n : {1, 2}) {  // a failed copy keeps the previous record
    olx_fail_alloc_at(n);
    EXPECT_EQ(ldap_set_errno_direct(ld, LDAP_OTHER, "new matched", "new message"), LDAP_NO_MEMORY) << n;
    olx_fail_alloc_at(0);
    EXPECT_EQ(info(), "51|a|b");
  }
  ASSERT_EQ(ldap_set_errno(ld, LDAP_BUSY, nullptr, nullptr), 0);  // no strings drop the old ones
  EXPECT_EQ(info(), "51|(null)|(null)");
  std::thread([&] {  // a thread whose new record cannot be made keeps none
    olx_fail_alloc_at(1);
    EXPECT_EQ(ldap_set_errno_direct(ld, LDAP_OTHER, nullptr, nullptr), LDAP_NO_MEMORY);
    olx_fail_alloc_at(1);
    EXPECT_EQ(ldap_set_ext_errno(ld, 7), LDAP_NO_MEMORY);
    olx_fail_alloc_at(0);
    EXPECT_EQ(ldap_get_errno(ld) + ldap_get_ext_errno(ld), 0);
    EXPECT_EQ(perror_text(ld, "t"), "t: Success\n");
  })
      .join();
  // ldap_perror: the code's text, then the matched DN and message when not empty.
  const std::tuple<int, const char *, const char *, const char *> cases[] = {
      {LDAP_NO_SUCH_OBJECT, "dc=example,dc=com", "", "pfx: No such object\npfx: matched: dc=example,dc=com\n"},
      {LDAP_INSUFFICIENT_ACCESS, nullptr, "no write", "pfx: Insufficient access\npfx: additional info: no write\n"},
      {LDAP_SERVER_DOWN, "", nullptr, "pfx: Can't contact LDAP server\n"},
      {LDAP_ALREADY_EXISTS, "o=a", "dup", "pfx: Already exists\npfx: matched: o=a\npfx: additional info: dup\n"}};
  for (const auto &[code, matched, msg, printed] : cases) {
    ASSERT_EQ(ldap_set_errno(ld, code, matched, msg), 0);
    EXPECT_EQ(perror_text(ld, "pfx"), printed);
  }
  EXPECT_EQ(ldap_unbind(ld), 0);
}

}  // namespace
