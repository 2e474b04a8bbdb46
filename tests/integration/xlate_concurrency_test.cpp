// Eight threads translating at once, four on one shared session and four on
// sessions of their own, plus the public buffer functions: every thread reads
// its Latin-1 text intact (all conversions share one converter per direction).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ldap-search.h"
#include "ldap-xlate.h"
#include "slapd_suite.h"

using tavtest::SlapdServer;

namespace {

class XlateConcurrency : public tavtest::SlapdSuite<XlateConcurrency> {
 public:
  static tavtest::SlapdOptions options() {
    tavtest::SlapdOptions o;
    for (int i = 0; i < 8; ++i)
      o.extra_ldif += "dn: cn=t" + std::to_string(i) + "," + SlapdServer::kPeopleDn + "\nobjectClass: person\ncn: t" +
                      std::to_string(i) + "\nsn: M\xC3\xBCller-\xC3\xA9t\xC3\xA9-" + std::to_string(i) + "\n\n";
    return o;
  }
  void SetUp() override {
    setenv("TISDIR", TAV_BUILD_DIR, 1);  // before ldap_init, which keeps a set TISDIR
    SlapdSuite::SetUp();
  }
};

// The sn a search for the thread's own entry returns (Latin-1), or an error.
std::string sn_of(LDAP *ld, int i) {
  const std::string filter = "(sn=M\xFCller-\xE9t\xE9-" + std::to_string(i) + ")";
  char sn[] = "sn", *attrs[] = {sn, nullptr};
  LDAPMessage *res = nullptr;
  int rc = ldap_search_s(ld, SlapdServer::kPeopleDn, LDAP_SCOPE_ONELEVEL, filter.c_str(), attrs, 0, &res);
  std::string out = "rc " + std::to_string(rc);
  LDAPMessage *e = ldap_first_entry(ld, res);
  char **v = e != nullptr ? ldap_get_values(ld, e, "sn") : nullptr;
  if (v != nullptr && v[0] != nullptr) out = v[0];
  ldap_value_free(v);
  ldap_msgfree(res);
  return out;
}

TEST_F(XlateConcurrency, EightThreadsOnSharedAndOwnSessions) {
  ASSERT_EQ(ldap_set_iconv_local_codepage("ISO8859-1"), 0);
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_XLATE, nullptr), 0);  // 0: translate
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      LDAP *own = t % 2 ? ldap_init("127.0.0.1", slapd->port()) : ld;
      if (own == nullptr || (own != ld && ldap_set_option(own, LDAP_OPT_XLATE, nullptr) != 0)) {
        ++failures;
        return;
      }
      const std::string want = "M\xFCller-\xE9t\xE9-" + std::to_string(t);
      for (int i = 0; i < 25; ++i) {
        std::string got = sn_of(own, t);
        if (got != want) {
          ADD_FAILURE() << "thread " << t << ": " << got;
          ++failures;
          break;
        }
        char out[16];
        size_t in_len = 2, space = sizeof out;
        if (ldap_xlate_local_to_unicode("\xE9z", &in_len, out, &space) != 0 ||
            std::string(out, sizeof out - space) != std::string("\0\xE9\0z", 4))
          ++failures;
      }
      if (own != ld) ldap_unbind(own);
    });
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
