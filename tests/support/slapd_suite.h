// A GoogleTest suite that shares one private slapd among its tests.  The
// suite says how the server is set up with a static options(); the server is
// started before the first test and stopped after the last.
//
//   class Search : public tavtest::SlapdSuite<Search> {
//    public:
//     static tavtest::SlapdOptions options() { ... }
//   };
#ifndef TAV_TEST_SLAPD_SUITE_H
#define TAV_TEST_SLAPD_SUITE_H

#include <gtest/gtest.h>

#include <string>

#include "slapd_server.h"

namespace tavtest {

template <typename Suite>
class SlapdSuite : public ::testing::Test {
 public:
  static SlapdOptions options() { return {}; }

 protected:
  static void SetUpTestSuite() {
    slapd = new SlapdServer(Suite::options());
    std::string error;
    if (!slapd->start(&error)) {
      delete slapd;
      slapd = nullptr;
      FAIL() << error;
    }
  }
  static void TearDownTestSuite() {
    delete slapd;
    slapd = nullptr;
  }
  static SlapdServer *slapd;
};

template <typename Suite>
SlapdServer *SlapdSuite<Suite>::slapd = nullptr;

}  // namespace tavtest

#endif
