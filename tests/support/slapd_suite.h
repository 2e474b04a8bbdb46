// A GoogleTest suite that shares one private slapd among its tests.  The
// suite says how the server is set up with a static options(); the server is
// started before the first test and stopped after the last.  When it does not
// start, every test of the suite fails with the reason (a failure in
// SetUpTestSuite would only mark them skipped).
//
//   class Search : public tavtest::SlapdSuite<Search> {
//    public:
//     static tavtest::SlapdOptions options() { ... }
//   };
#ifndef TAV_TEST_SLAPD_SUITE_H
#define TAV_TEST_SLAPD_SUITE_H

#include <gtest/gtest.h>

#include <string>

#include "ldap-int.h"
#include "slapd_server.h"

namespace tavtest {

template <typename Suite>
class SlapdSuite : public ::testing::Test {
 public:
  static SlapdOptions options() { return {}; }

 protected:
  static void SetUpTestSuite() {
    slapd = new SlapdServer(Suite::options());
    if (!slapd->start(&error)) {
      delete slapd;
      slapd = nullptr;
    }
  }
  static void TearDownTestSuite() {
    delete slapd;
    slapd = nullptr;
  }
  // Each test gets a session on the server's TCP port (nothing is opened yet).
  void SetUp() override {
    ASSERT_NE(slapd, nullptr) << "the private slapd did not start: " << error;
    ld = ldap_init("127.0.0.1", slapd->port());
    ASSERT_NE(ld, nullptr);
  }
  void TearDown() override {
    if (ld != nullptr) ldap_unbind(ld);
  }

  static SlapdServer *slapd;
  static std::string error;
  LDAP *ld = nullptr;
};

template <typename Suite>
SlapdServer *SlapdSuite<Suite>::slapd = nullptr;
template <typename Suite>
std::string SlapdSuite<Suite>::error;

}  // namespace tavtest

#endif
