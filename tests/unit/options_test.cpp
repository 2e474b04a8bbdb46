// Session options by number and the process-wide default handle.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <thread>
#include <vector>

#include "ldap-debug.h"
#include "ldap-int.h"
#include "ldap-utils.h"

namespace {

struct Options : testing::Test {
  LDAP *ld = nullptr;
  void SetUp() override {
    ld = ldap_init("127.0.0.1", 389);
    ASSERT_NE(ld, nullptr);
  }
  void TearDown() override { ldap_unbind(ld); }
  int get_int(int option) {
    int v = -12345;
    EXPECT_EQ(ldap_get_option(ld, option, &v), 0) << option;
    return v;
  }
};

LDAPControl *make_control(const char *oid, const char *value, int critical) {
  auto *c = static_cast<LDAPControl *>(calloc(1, sizeof(LDAPControl)));
  c->ldctl_oid = strdup(oid);
  if (value != nullptr) {
    c->ldctl_value.bv_len = strlen(value);
    c->ldctl_value.bv_val = strdup(value);
  }
  c->ldctl_iscritical = critical;
  return c;
}

// The caller's list lives on the stack: free the controls, not the array.
void free_controls(LDAPControl **list) {
  for (; *list != nullptr; ++list) {
    free((*list)->ldctl_oid);
    free((*list)->ldctl_value.bv_val);
    free(*list);
  }
}

}  // namespace

TEST_F(Options, IntegerOptionsCheckTheirRangesAndKeepBadValuesOut) {
  struct {
    int option;
    int initial;
    std::vector<int> good;
    std::vector<int> bad;
  } cases[] = {
      {LDAP_OPT_SIZELIMIT, 0, {0, 1, 1000000}, {-1}},     {LDAP_OPT_TIMELIMIT, 0, {0, 60}, {-5}},
      {LDAP_OPT_DEREF, 0, {0, 1, 2, 3}, {4, -1}},         {LDAP_OPT_RESTART, 0, {1, 0}, {2, -1}},
      {LDAP_OPT_REFHOPLIMIT, 10, {0, 3, 50}, {-1}},       {LDAP_OPT_REFHOPLIMIT2, 50, {7}, {-2}},
      {LDAP_OPT_SSL_TIMEOUT, 0, {0, 86400}, {86401, -1}}, {LDAP_OPT_54, 0, {2, 3}, {0, 1, 4}},
      {LDAP_OPT_PROTOCOL_VERSION, 3, {2, 3}, {1, 4}},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(get_int(c.option), c.initial) << c.option;
    for (int v : c.good) {
      // Back to version 3 before each value: version 2 changes how values pass.
      int three = 3;
      ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &three), 0);
      EXPECT_EQ(ldap_set_option(ld, c.option, &v), 0) << c.option << "=" << v;
      EXPECT_EQ(get_int(c.option), v) << c.option;
      EXPECT_EQ(ldap_get_errno(ld), 0);
    }
    int three = 3;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &three), 0);
    int before = get_int(c.option);
    for (int v : c.bad) {
      EXPECT_EQ(ldap_set_option(ld, c.option, &v), LDAP_PARAM_ERROR) << c.option << "=" << v;
      EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
      EXPECT_EQ(get_int(c.option), before) << c.option;
    }
    EXPECT_EQ(ldap_set_option(ld, c.option, nullptr), LDAP_PARAM_ERROR) << c.option;
  }
}

TEST_F(Options, OnOffOptionsTakeTheirValueAsThePointer) {
  struct {
    int option;
    int initial;
  } cases[] = {{LDAP_OPT_REFERRALS, 1}, {LDAP_OPT_52, 0}, {LDAP_OPT_XLATE, 1}};
  for (const auto &c : cases) {
    EXPECT_EQ(get_int(c.option), c.initial);
    EXPECT_EQ(ldap_set_option(ld, c.option, LDAP_OPT_OFF), 0);
    EXPECT_EQ(get_int(c.option), 0);
    EXPECT_EQ(ldap_set_option(ld, c.option, LDAP_OPT_ON), 0);
    EXPECT_EQ(get_int(c.option), 1);
    EXPECT_EQ(ldap_set_option(ld, c.option, reinterpret_cast<void *>(2)), LDAP_PARAM_ERROR);
    EXPECT_EQ(get_int(c.option), 1);
  }
  EXPECT_EQ(ld->ld_options, 0x2u);
  int one = 1;
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_RESTART, &one), 0);
  EXPECT_EQ(ld->ld_options, 0x6u);
}

TEST_F(Options, VersionTwoSessionsPassValuesInThePointer) {
  int two = 2;
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &two), 0);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SIZELIMIT, reinterpret_cast<void *>(77)), 0);
  EXPECT_EQ(ld->ld_sizelimit, 77);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_DEREF, reinterpret_cast<void *>(4)), LDAP_PARAM_ERROR);
  EXPECT_EQ(ld->ld_deref, 0);
  // The version itself is always passed behind a pointer; back on version 3
  // the size limit is too.
  int three = 3;
  ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &three), 0);
  int limit = 5;
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &limit), 0);
  EXPECT_EQ(ld->ld_sizelimit, 5);
}

TEST_F(Options, ReadOnlyAndUnknownOptions) {
  int v = 0;
  for (int option : {10, 11, 12, 15, 16, 20, 21, 22, 48, 49, 50, 51, 55, 56, 57, 64, 65, 66, 69, 100, 223, 225, -1})
    EXPECT_EQ(ldap_set_option(ld, option, &v), LDAP_PARAM_ERROR) << option;
  for (int option : {12, 15, 16, 22, 56, 57, 64, 65, 66, 100, 225, -1})
    EXPECT_EQ(ldap_get_option(ld, option, &v), LDAP_PARAM_ERROR) << option;
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_SIZELIMIT, nullptr), LDAP_PARAM_ERROR);
  // Without an SSL session these leave the output untouched.
  for (int option : {LDAP_OPT_SSL, LDAP_OPT_NOSSL, LDAP_OPT_SSL_ACTIVE}) {
    v = -7;
    EXPECT_EQ(ldap_get_option(ld, option, &v), 0);
    EXPECT_EQ(v, -7);
  }
}

TEST_F(Options, ErrorAndHostQueries) {
  ASSERT_EQ(ldap_set_errno(ld, LDAP_NO_SUCH_OBJECT, nullptr, nullptr), 0);
  EXPECT_EQ(get_int(LDAP_OPT_ERROR_NUMBER), LDAP_NO_SUCH_OBJECT);
  ASSERT_EQ(ldap_set_ext_errno(ld, 422), 0);
  EXPECT_EQ(get_int(LDAP_OPT_EXT_ERROR), 422);
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
}

TEST_F(Options, DebugOptionSetsTheProcessMask) {
  int mask = 0x8000;
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_DEBUG, &mask), 0);
  EXPECT_EQ(ldap_debug_level(), 0x8000u);
  EXPECT_EQ(get_int(LDAP_OPT_DEBUG), 0x8000);
  for (int bad : {0x10000, -1}) EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_DEBUG, &bad), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_debug_level(), 0x8000u);
  mask = 0;
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_DEBUG, &mask), 0);
}

TEST_F(Options, CipherAndRebindProcedureAreStored) {
  char *s = nullptr;
  EXPECT_NE(ldap_get_option(ld, LDAP_OPT_SSL_CIPHER, &s), 0);                    // none set
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CIPHER, nullptr), LDAP_NO_MEMORY);  // no default to re-check
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CIPHER, "0A09"), 0);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CIPHER, nullptr), 0);
  ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_SSL_CIPHER, &s), 0);
  EXPECT_STREQ(s, "0A09");
  EXPECT_NE(s, ld->ld_ssl_cipher);
  free(s);
  olx_fail_alloc_at(1);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CIPHER, "35"), LDAP_NO_MEMORY);
  olx_fail_alloc_at(0);
  EXPECT_STREQ(ld->ld_ssl_cipher, "0A09");

  LDAP_REBINDPROC_CALLBACK *proc = [](LDAP *, char **, char **, int *, int) { return 0; };
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<const void *>(proc)), 0);
  LDAP_REBINDPROC_CALLBACK *got = nullptr;
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_REBIND_FN, &got), 0);
  EXPECT_EQ(got, proc);
}

TEST_F(Options, ControlListsAreCopiedInAndOut) {
  LDAPControl *list[] = {make_control("1.2.3", "val", 1), make_control("1.2.4", nullptr, 0), nullptr};
  LDAPControl *noncritical[] = {make_control("1.2.5", "x", 0), nullptr};
  // Server controls may be critical; client controls may not.
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, list), 0);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_CLIENT_CONTROLS, noncritical), 0);
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_CLIENT_CONTROLS, list), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
  EXPECT_EQ(ldap_get_errno(ld), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
  LDAPControl **out = nullptr;
  ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_CLIENT_CONTROLS, &out), 0);
  ASSERT_NE(out, nullptr);
  EXPECT_STREQ(out[0]->ldctl_oid, "1.2.5");  // the old list was kept
  EXPECT_EQ(out[1], nullptr);
  ldap_controls_free(out);
  ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_SERVER_CONTROLS, &out), 0);
  ASSERT_NE(out, nullptr);
  EXPECT_NE(out[0], list[0]);
  EXPECT_STREQ(out[0]->ldctl_oid, "1.2.3");
  EXPECT_EQ(out[0]->ldctl_value.bv_len, 3u);
  EXPECT_EQ(memcmp(out[0]->ldctl_value.bv_val, "val", 3), 0);
  EXPECT_EQ(out[0]->ldctl_iscritical, 1);
  EXPECT_EQ(out[1]->ldctl_value.bv_val, nullptr);
  EXPECT_EQ(out[2], nullptr);
  ldap_controls_free(out);
  // Every failed copy: the session is left without server controls.
  for (long n = 1; n <= 5; ++n) {
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
  // An empty list clears.
  LDAPControl *empty[] = {nullptr};
  EXPECT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, empty), 0);
  EXPECT_EQ(ld->ld_sctrls, nullptr);
  for (LDAPControl **l : {list, noncritical}) free_controls(l);
}

TEST_F(Options, ApiAndFeatureInformation) {
  LDAPAPIInfo info{};
  info.ldapai_info_version = 0;
  EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_API_INFO, &info), LDAP_PARAM_ERROR);
  EXPECT_EQ(info.ldapai_info_version, 1);
  ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_API_INFO, &info), 0);
  EXPECT_EQ(info.ldapai_api_version, 2004);
  EXPECT_EQ(info.ldapai_protocol_version, 3);
  ASSERT_NE(info.ldapai_extensions, nullptr);
  EXPECT_STREQ(info.ldapai_extensions[0], "VIRTUAL_LIST_VIEW");
  EXPECT_EQ(info.ldapai_extensions[1], nullptr);
  EXPECT_NE(info.ldapai_vendor_name, nullptr);
  EXPECT_EQ(info.ldapai_vendor_version, 510);
  free(info.ldapai_extensions[0]);
  free(info.ldapai_extensions);
  for (long n : {1, 2}) {
    olx_fail_alloc_at(n);
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_API_INFO, &info), LDAP_NO_MEMORY);
    olx_fail_alloc_at(0);
    EXPECT_EQ(info.ldapai_vendor_name, nullptr);
    EXPECT_EQ(info.ldapai_extensions, nullptr);
  }

  struct {
    int version;
    const char *name;
    int rc;
    int feature_version;
  } features[] = {{1, "VIRTUAL_LIST_VIEW", 0, 1000}, {1, "SORT", 0, 0}, {1, nullptr, 0, 0}, {2, "X", 89, -1}};
  for (const auto &f : features) {
    LDAPAPIFeatureInfo fi{f.version, const_cast<char *>(f.name), -1};
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_API_FEATURE_INFO, &fi), f.rc);
    EXPECT_EQ(fi.ldapaif_version, f.feature_version);
    EXPECT_EQ(fi.ldapaif_info_version, 1);
  }
}

TEST(OptionHandles, ForeignAndUnbindingHandlesAreRefused) {
  alignas(LDAP) char foreign[sizeof(LDAP)] = "LDAP HD";
  int v = 1;
  EXPECT_EQ(ldap_set_option(reinterpret_cast<LDAP *>(foreign), LDAP_OPT_SIZELIMIT, &v), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_get_option(reinterpret_cast<LDAP *>(foreign), LDAP_OPT_SIZELIMIT, &v), LDAP_PARAM_ERROR);
}

TEST(DefaultHandle, NullSessionAddressesOneDefaultHandleMadeOnce) {
  // Each test runs in its own process, so this is the first use.
  ldap_set_debug_level(0x0200);  // mutex creation lines
  testing::internal::CaptureStderr();
  std::vector<std::thread> threads;
  std::atomic<int> go{0};
  std::vector<LDAP *> seen(16);
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
  std::string trace = testing::internal::GetCapturedStderr();
  ldap_set_debug_level(0);
  for (LDAP *p : seen) EXPECT_EQ(p, seen[0]);
  std::regex options_mutex(R"(MUTEX 0x[0-9a-f]+ libraries/libldap/ldap_options\.cpp \d+\n)");
  auto begin = std::sregex_iterator(trace.begin(), trace.end(), options_mutex);
  EXPECT_EQ(std::distance(begin, std::sregex_iterator()), 2) << trace;  // its ld_mutex and ld_err_mutex

  LDAP *def = seen[0];
  int v = 0;
  EXPECT_EQ(ldap_get_option(nullptr, LDAP_OPT_REFERRALS, &v), 0);
  EXPECT_EQ(v, 1);
  EXPECT_EQ(ldap_get_option(nullptr, LDAP_OPT_XLATE, &v), 0);
  EXPECT_EQ(v, 0);  // unlike a handle from ldap_init
  EXPECT_EQ(ldap_get_option(nullptr, LDAP_OPT_REFHOPLIMIT, &v), 0);
  EXPECT_EQ(v, 10);
  v = 25;
  EXPECT_EQ(ldap_set_option(nullptr, LDAP_OPT_SIZELIMIT, &v), 0);
  EXPECT_EQ(def->ld_sizelimit, 25);
  char *host = reinterpret_cast<char *>(0x1);
  EXPECT_EQ(ldap_get_option(nullptr, LDAP_OPT_HOST_NAME, &host), 0);
  EXPECT_EQ(host, nullptr);
  // Options of the default handle do not flow into new sessions.
  LDAP *ld = ldap_init("h", 0);
  EXPECT_EQ(ld->ld_sizelimit, 0);
  ldap_unbind(ld);
}
