// Session options by number and the process-wide default handle.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <regex>
#include <thread>
#include <vector>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-utils.h"
#include "trace_watch.h"

namespace {

struct Options : testing::Test {
  LDAP *ld = ldap_init("127.0.0.1", 389);
  void TearDown() override { ldap_unbind(ld); }
  int get_int(int option) {
    int v = -12345;
    EXPECT_EQ(ldap_get_option(ld, option, &v), 0) << option;
    return v;
  }
  int set_int(int option, int v) { return ldap_set_option(ld, option, &v); }
};

LDAPControl control(const char *oid, const char *value, int critical) {
  return {const_cast<char *>(oid), {value ? strlen(value) : 0, const_cast<char *>(value)}, critical};
}

TEST_F(Options, IntegerOptionsCheckTheirRangesAndKeepBadValuesOut) {
  const std::tuple<int, int, std::vector<int>, std::vector<int>> cases[] = {
      {LDAP_OPT_SIZELIMIT, 0, {0, 1, 1000000}, {-1}},     {LDAP_OPT_TIMELIMIT, 0, {0, 60}, {-5}},
      {LDAP_OPT_DEREF, 0, {0, 1, 2, 3}, {4, -1}},         {LDAP_OPT_RESTART, 0, {1, 0}, {2, -1}},
      {LDAP_OPT_REFHOPLIMIT, 10, {0, 3, 50}, {-1}},       {LDAP_OPT_REFHOPLIMIT2, 50, {7}, {-2}},
      {LDAP_OPT_SSL_TIMEOUT, 0, {0, 86400}, {86401, -1}}, {LDAP_OPT_54, 0, {2, 3}, {0, 1, 4}},
      {LDAP_OPT_PROTOCOL_VERSION, 3, {2, 3}, {1, 4}}};
  for (const auto &[option, initial, good, bad] : cases) {
    SCOPED_TRACE(option);
    EXPECT_EQ(get_int(option), initial);
    for (int v : good) {
      ASSERT_EQ(set_int(LDAP_OPT_PROTOCOL_VERSION, 3), 0);  // version 2 changes how values pass
      EXPECT_EQ(set_int(option, v), 0) << v;
      EXPECT_EQ(std::make_pair(get_int(option), ldap_get_errno(ld)), std::make_pair(v, 0));
    }
    ASSERT_EQ(set_int(LDAP_OPT_PROTOCOL_VERSION, 3), 0);
    const int before = get_int(option);
    for (int v : bad) {
      EXPECT_EQ(set_int(option, v), LDAP_PARAM_ERROR) << v;
      EXPECT_EQ(std::make_pair(get_int(option), ldap_get_errno(ld)), std::make_pair(before, LDAP_PARAM_ERROR));
    }
    EXPECT_EQ(ldap_set_option(ld, option, nullptr), LDAP_PARAM_ERROR);
  }
  // On/off options take their value as the pointer.
  for (auto [option, initial] : {std::pair{LDAP_OPT_REFERRALS, 1}, {LDAP_OPT_52, 0}, {LDAP_OPT_XLATE, 1}}) {
    EXPECT_EQ(get_int(option), initial);
    EXPECT_EQ(ldap_set_option(ld, option, LDAP_OPT_OFF), 0);
    EXPECT_EQ(get_int(option), 0);
    EXPECT_EQ(ldap_set_option(ld, option, LDAP_OPT_ON), 0);
    EXPECT_EQ(ldap_set_option(ld, option, reinterpret_cast<void *>(2)), LDAP_PARAM_ERROR);
    EXPECT_EQ(get_int(option), 1);
  }
  EXPECT_EQ(ld->ld_options, 0x2u);  // referrals
  ASSERT_EQ(set_int(LDAP_OPT_RESTART, 1), 0);
  EXPECT_EQ(ld->ld_options, 0x6u);
  // A version-2 session passes values in the pointer; the version never.
  ASSERT_EQ(set_int(LDAP_OPT_PROTOCOL_VERSION, 2), 0);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SIZELIMIT, reinterpret_cast<void *>(77)), 0);
  EXPECT_EQ(ld->ld_sizelimit, 77);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_DEREF, reinterpret_cast<void *>(4)), LDAP_PARAM_ERROR);
}

TEST_F(Options, ReadOnlyUnknownAndQueryOptions) {
  int v = 0;
  for (int option : {10, 11, 12, 15, 16, 20, 21, 22, 48, 49, 50, 51, 55, 56, 57, 64, 65, 66, 69, 100, 223, 225, -1})
    EXPECT_EQ(ldap_set_option(ld, option, &v), LDAP_PARAM_ERROR) << option;
  for (int option : {12, 15, 16, 22, 56, 57, 64, 65, 66, 100, 225, -1})
    EXPECT_EQ(ldap_get_option(ld, option, &v), LDAP_PARAM_ERROR) << option;
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_SIZELIMIT, nullptr), LDAP_PARAM_ERROR);
  for (int option : {LDAP_OPT_SSL, LDAP_OPT_NOSSL, LDAP_OPT_SSL_ACTIVE}) {  // no SSL session: untouched
    v = -7;
    EXPECT_EQ(ldap_get_option(ld, option, &v), 0);
    EXPECT_EQ(v, -7);
  }
  ASSERT_EQ(ldap_set_errno(ld, LDAP_NO_SUCH_OBJECT, nullptr, nullptr) | ldap_set_ext_errno(ld, 422), 0);
  EXPECT_EQ(std::make_pair(get_int(LDAP_OPT_ERROR_NUMBER), get_int(LDAP_OPT_EXT_ERROR)), std::make_pair(32, 422));
  char *s = reinterpret_cast<char *>(0x1);
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_ERROR_STRING, &s), 0);
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_HOST_NAME, &s), 0);
  EXPECT_STREQ(s, "127.0.0.1");
  free(s);
  olx_fail_alloc_at(1);
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_HOST_NAME, &s), LDAP_NO_MEMORY);
  olx_fail_alloc_at(0);
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(get_int(LDAP_OPT_PLUGIN_STATUS), 0);
  // The debug option sets the process's trace mask.
  EXPECT_EQ(set_int(LDAP_OPT_DEBUG, 0x8000), 0);
  EXPECT_EQ(set_int(LDAP_OPT_DEBUG, 0x10000) | set_int(LDAP_OPT_DEBUG, -1), LDAP_PARAM_ERROR);
  EXPECT_EQ(std::make_pair(ldap_debug_level(), get_int(LDAP_OPT_DEBUG)), std::make_pair(0x8000u, 0x8000));
  EXPECT_EQ(set_int(LDAP_OPT_DEBUG, 0), 0);
  // Foreign handles are refused.
  alignas(LDAP) char foreign[sizeof(LDAP)] = "LDAP HD";
  EXPECT_EQ(ldap_set_option(reinterpret_cast<LDAP *>(foreign), LDAP_OPT_SIZELIMIT, &v), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_get_option(reinterpret_cast<LDAP *>(foreign), LDAP_OPT_SIZELIMIT, &v), LDAP_PARAM_ERROR);
}

TEST_F(Options, StringsProceduresAndControlListsAreCopiedInAndOut) {
  char *s = nullptr;
  EXPECT_NE(ldap_get_option(ld, LDAP_OPT_SSL_CIPHER, &s), 0);                    // none set
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CIPHER, nullptr), LDAP_NO_MEMORY);  // no default to re-check
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CIPHER, "0A09") | ldap_set_option(ld, LDAP_OPT_SSL_CIPHER, nullptr), 0);
  ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_SSL_CIPHER, &s), 0);
  EXPECT_STREQ(s, "0A09");
  EXPECT_NE(s, ld->ld_ssl_cipher);
  free(s);
  olx_fail_alloc_at(1);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CIPHER, "35"), LDAP_NO_MEMORY);
  olx_fail_alloc_at(0);
  EXPECT_STREQ(ld->ld_ssl_cipher, "0A09");
  LDAP_REBINDPROC_CALLBACK *proc = [](LDAP *, char **, char **, int *, int) { return 0; }, *got = nullptr;
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<const void *>(proc)), 0);
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_REBIND_FN, &got), 0);
  EXPECT_EQ(got, proc);

  LDAPControl c1 = control("1.2.3", "val", 1), c2 = control("1.2.4", nullptr, 0), c3 = control("1.2.5", "x", 0);
  LDAPControl *list[] = {&c1, &c2, nullptr}, *noncritical[] = {&c3, nullptr}, *empty[] = {nullptr}, **out = nullptr;
  // Server controls may be critical; client controls may not.
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, list), 0);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_CLIENT_CONTROLS, noncritical), 0);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_CLIENT_CONTROLS, list), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
  ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_CLIENT_CONTROLS, &out), 0);
  EXPECT_TRUE(out && std::string(out[0]->ldctl_oid) == "1.2.5" && !out[1]) << "the old list was kept";
  ldap_controls_free(out);
  ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_SERVER_CONTROLS, &out), 0);
  ASSERT_NE(out, nullptr);
  EXPECT_NE(out[0], list[0]);
  EXPECT_STREQ(out[0]->ldctl_oid, "1.2.3");
  EXPECT_EQ(std::string(out[0]->ldctl_value.bv_val, out[0]->ldctl_value.bv_len), "val");
  EXPECT_EQ(out[0]->ldctl_iscritical, 1);
  EXPECT_EQ(out[1]->ldctl_value.bv_val, nullptr);
  EXPECT_EQ(out[2], nullptr);
  ldap_controls_free(out);
  for (long n = 1; n <= 5; ++n) {  // a failed copy in leaves none; a failed copy out keeps the session's
    olx_fail_alloc_at(n);
    EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, list), LDAP_NO_MEMORY) << n;
    olx_fail_alloc_at(0);
    EXPECT_EQ(ld->ld_sctrls, nullptr);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, list), 0);
    out = reinterpret_cast<LDAPControl **>(0x1);
    olx_fail_alloc_at(n);
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_SERVER_CONTROLS, &out), LDAP_NO_MEMORY) << n;
    olx_fail_alloc_at(0);
    EXPECT_EQ(out, nullptr);
    EXPECT_NE(ld->ld_sctrls, nullptr);
  }
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, empty), 0);  // an empty list clears
  EXPECT_EQ(ld->ld_sctrls, nullptr);
}

TEST_F(Options, ApiAndFeatureInformation) {
  LDAPAPIInfo info{};
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_API_INFO, &info), LDAP_PARAM_ERROR);  // version 0 asked: 1 is told
  ASSERT_EQ(info.ldapai_info_version, 1);
  olx_fail_alloc_at(1);
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_API_INFO, &info), LDAP_NO_MEMORY);
  olx_fail_alloc_at(0);
  EXPECT_EQ(info.ldapai_extensions, nullptr);
  ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_API_INFO, &info), 0);
  EXPECT_EQ(std::make_tuple(info.ldapai_api_version, info.ldapai_protocol_version,
                            std::string(info.ldapai_extensions[0]), info.ldapai_extensions[1]),
            std::make_tuple(2004, 3, std::string("VIRTUAL_LIST_VIEW"), (char *)nullptr));
  free(info.ldapai_extensions[0]);
  free(info.ldapai_extensions);
  for (auto [name, rc, version] : {std::tuple{"VIRTUAL_LIST_VIEW", 0, 1000}, {"SORT", 0, 0}}) {
    LDAPAPIFeatureInfo fi{1, const_cast<char *>(name), -1};
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_API_FEATURE_INFO, &fi), rc);
    EXPECT_EQ(fi.ldapaif_version, version);
  }
}

TEST(DefaultHandle, NullSessionAddressesOneDefaultHandleMadeOnce) {
  // Each test runs in its own process, so this is the first use.
  std::vector<LDAP *> seen(16);
  const std::string trace = tavtest::traced(0x0200, [&] {  // mutex creation lines
    std::vector<std::thread> threads;
    std::atomic<int> go{0};
    for (int i = 0; i < 16; ++i)
      threads.emplace_back([&, i] {
        while (!go) std::this_thread::yield();
        int v = 0;
        EXPECT_EQ(ldap_get_option(nullptr, LDAP_OPT_PROTOCOL_VERSION, &v), 0);
        EXPECT_EQ(v, 3);
        seen[i] = ld_set_global_default();
      });
    go = 1;
    for (auto &t : threads) t.join();
  });
  for (LDAP *p : seen) EXPECT_EQ(p, seen[0]);
  std::regex options_mutex(R"(MUTEX 0x[0-9a-f]+ libraries/libldap/ldap_options\.cpp \d+\n)");
  EXPECT_EQ(std::distance(std::sregex_iterator(trace.begin(), trace.end(), options_mutex), std::sregex_iterator()), 2)
      << trace;  // its ld_mutex and ld_err_mutex
  int referrals = 0, xlate = -1, hops = 0, limit = 25;
  EXPECT_EQ(ldap_get_option(nullptr, LDAP_OPT_REFERRALS, &referrals) |
                ldap_get_option(nullptr, LDAP_OPT_XLATE, &xlate) |
                ldap_get_option(nullptr, LDAP_OPT_REFHOPLIMIT, &hops),
            0);
  EXPECT_EQ(std::make_tuple(referrals, xlate, hops), std::make_tuple(1, 0, 10));  // no translation, unlike ldap_init
  EXPECT_EQ(ldap_set_option(nullptr, LDAP_OPT_SIZELIMIT, &limit), 0);
  EXPECT_EQ(seen[0]->ld_sizelimit, 25);
  char *host = reinterpret_cast<char *>(0x1);
  EXPECT_EQ(ldap_get_option(nullptr, LDAP_OPT_HOST_NAME, &host), 0);
  EXPECT_EQ(host, nullptr);
  LDAP *ld = ldap_init("h", 0);  // options of the default handle do not flow into new sessions
  EXPECT_EQ(ld->ld_sizelimit, 0);
  ldap_unbind(ld);
}

}  // namespace
