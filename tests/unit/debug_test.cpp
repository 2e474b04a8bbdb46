// Trace facility and environment helpers.  The once-per-process start of the
// trace is run in a fresh probe process per case.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>

#include "ldap-debug.h"
#include "ldap-utils.h"
#include "process.h"

using tavtest::run_process;

namespace {

// The probe's trace (stderr) with LDAP_DEBUG=mask and no time stamps, less
// the lines of its own reading of the environment, "T<tid> " cut to "T ".
std::string probe(const std::string &mask, std::vector<std::string> actions,
                  std::vector<std::pair<std::string, std::string>> env = {}) {
  actions.insert(actions.begin(), {TAV_TRACE_PROBE, "init"});
  env.push_back({"LDAP_DEBUG", mask});
  env.push_back({"LDAP_DEBUG_TIME", "FALSE"});
  auto r = run_process(actions, env);
  EXPECT_EQ(r.exit_code, 0) << r.err;
  std::string out = std::regex_replace(r.err, std::regex("([0-9:]+ )?T\\d+ ldap_getenv: [^\n]*\n"), "");
  return std::regex_replace(out, std::regex("T\\d+ "), "T ");
}

TEST(TraceMask, LdapDebugIsANumberAndSelectsCategories) {
  const std::pair<const char *, uint32_t> texts[] = {
      {"65535", 65535}, {"1", 1},   {"0x8000", 0}, {"0x", 0},           {"-", 0},         {"abc", 0},
      {"", 0},          {"12a", 0}, {" 1", 0},     {"-1", 0xFFFFFFFFu}, {"32768", 0x8000}};
  for (const auto &[text, mask] : texts) EXPECT_EQ(ldap_debug_parse_mask(text), mask) << text;
  EXPECT_EQ(ldap_debug_parse_mask(nullptr), 0u);
  std::string all;
  for (int k = 0; k < 19; ++k) all += "T level " + std::to_string(k) + "\n";
  EXPECT_EQ(probe("65535", {"levels"}), all);
  // Bit 1 selects trace lines, the translation lines (mask 0x0009) and "any".
  EXPECT_EQ(probe("1", {"levels"}), "T level 0\nT level 4\nT level 18\n");
  EXPECT_EQ(probe("32768", {"levels"}), "T level 16\nT level 17\nT level 18\n");
  EXPECT_EQ(probe("0x8000", {"levels"}) + probe("abc", {"levels"}), "");
  // Setting the mask later through the option path turns the trace on.
  EXPECT_EQ(probe("0", {"setmask:0x200", "levels"}), "T level 10\nT level 18\n");
}

TEST(TraceLines, PrefixesTimeStampsAndTheTraceFile) {
  // Formats of five characters or less get no prefix; without an argument
  // list the format is printed as it stands.
  EXPECT_EQ(probe("1", {"short", "long", "nolist"}), "x=1\nT long line 7\nT kept as is: %s\n");
  for (auto [value, stamped] : {std::pair{"FALSE", false}, {"false", true}, {"", true}, {"0", true}}) {
    auto r = run_process({TAV_TRACE_PROBE, "init", "long"}, {{"LDAP_DEBUG", "1"}, {"LDAP_DEBUG_TIME", value}});
    EXPECT_TRUE(std::regex_search(r.err, std::regex(stamped ? R"((^|\n)\d{3}:\d{2}:\d{2}:\d{2} T\d+ long line 7\n$)"
                                                            : R"((^|\n)T\d+ long line 7\n$)")))
        << "LDAP_DEBUG_TIME=" << value << ": " << r.err;
  }
  tavtest::TempDir dir;
  tavtest::write_file(dir.file("trace.log"), "earlier\n");
  auto r = run_process({TAV_TRACE_PROBE, "init", "long"},
                       {{"LDAP_DEBUG", "1"}, {"LDAP_DEBUG_TIME", "FALSE"}, {"LDAP_DEBUG_FILE", dir.file("trace.log")}});
  EXPECT_EQ(r.err, "");
  const std::string file = tavtest::read_file(dir.file("trace.log"));  // opened for appending
  EXPECT_TRUE(std::regex_search(file, std::regex(R"(^earlier\n(.*\n)*T\d+ long line 7\n$)"))) << file;
  r = run_process(
      {TAV_TRACE_PROBE, "init", "long"},
      {{"LDAP_DEBUG", "1"}, {"LDAP_DEBUG_TIME", "FALSE"}, {"LDAP_DEBUG_FILE", dir.file("missing/dir/trace.log")}});
  EXPECT_TRUE(std::regex_search(r.err, std::regex(R"(T\d+ long line 7\n)"))) << "no fall-back to stderr: " << r.err;
}

TEST(TraceDump, BoxesOfSixteenBytesALine) {
  auto dump = [](const void *data, unsigned length, const char *title) {
    testing::internal::CaptureStderr();
    ldap_log_dump(data, length, title);
    return std::regex_replace(testing::internal::GetCapturedStderr(),
                              std::regex("T" + std::to_string(gettid()) + ":\t"), "");
  };
  auto header = [](const void *address, const char *length) {
    char buf[80];
    snprintf(buf, sizeof buf, "|OSet| Address = %08lX  Length = %s |     ASCII      |\n",
             (unsigned long)(uintptr_t)address & 0xFFFFFFFFul, length);
    return std::string(buf);
  };
  const std::string border = "+---------------------------------------------------------+\n";
  unsigned char bytes[20];
  for (int i = 0; i < 20; ++i) bytes[i] = (unsigned char)(0x40 + i);
  bytes[1] = '^';   // shown as '.'
  bytes[2] = 0x7F;  // not printable
  bytes[3] = ' ';
  EXPECT_EQ(dump(bytes, 20, "Title"), border + "|                          Title                          |\n" +
                                          border + header(bytes, "0014") + border +
                                          "|0000|405E7F20 44454647 48494A4B 4C4D4E4F|@.. DEFGHIJKLMNO|\n"
                                          "|0010|50515253                           |PQRS            |\n" +
                                          border);
  // No data: the box alone; an empty title gets no title line; only the low
  // 16 bits of the length count and 0x8000 and above print no data.
  const std::pair<unsigned, const char *> empty[] = {{0, "0000"}, {0x8000, "8000"}, {0x1FFFF, "FFFF"}};
  for (const auto &[length, shown] : empty)
    EXPECT_EQ(dump(bytes, length, ""), border + header(bytes, shown) + border + border) << length;
  EXPECT_EQ(dump(nullptr, 8, nullptr), border + header(nullptr, "0008") + border + border);
  const std::string masked = dump(bytes, 0x10010, nullptr);  // 16 after masking: one data line
  EXPECT_EQ(std::count(masked.begin(), masked.end(), '\n'), 5);
  EXPECT_EQ(dump("ab", 2, std::string(70, 'x').c_str()).substr(border.size(), 60), "|" + std::string(57, 'x') + "|\n");
  EXPECT_EQ(dump("ab", 2, "odd").substr(border.size(), 60),
            "|                           odd                           |\n");
}

TEST(Environment, GetCheckPutAndChange) {
  setenv("TAV_TEST_VAR", "value", 1);
  setenv("TAV_TEST_EMPTY", "", 1);
  char *v = ldap_getenv("TAV_TEST_VAR");
  EXPECT_STREQ(v, "value");
  free(v);
  EXPECT_EQ(std::make_pair(ldap_chkenv("TAV_TEST_VAR"), ldap_chkenv("TAV_TEST_EMPTY")), std::make_pair(6, 1));
  for (const char *name : {"TAV_TEST_UNSET", "", (const char *)nullptr}) {
    EXPECT_EQ(ldap_getenv(name), nullptr);
    EXPECT_EQ(ldap_chkenv(name), 0);
  }
  olx_fail_alloc_at(1);  // the copy fails: null, not a dangling pointer
  EXPECT_EQ(ldap_getenv("TAV_TEST_VAR"), nullptr);
  olx_fail_alloc_at(0);
  static char good[] = "TAV_TEST_PUT=one", no_equals[] = "TAV_TEST_PUT";
  EXPECT_EQ(ldap_putenv(good), 0);
  EXPECT_NE(ldap_putenv(no_equals), 0);
  EXPECT_NE(ldap_putenv(nullptr), 0);
  EXPECT_STREQ(getenv("TAV_TEST_PUT"), "one");

  // Mode 1 appends, any other prepends; an element already there (case and
  // slashes folded, ending at blanks) is not added again.
  const std::tuple<const char *, int, char, const char *, const char *> cases[] = {
      {nullptr, 0, ':', "/usr/lib", "/usr/lib"},
      {"", 1, ':', "x", "x"},
      {"a:b", 1, ':', "c", "a:b:c"},
      {"a:b", 0, ':', "c", "c:a:b"},
      {"a:b", 7, ';', "c", "c;a:b"},
      {"\\A\\B:/c", 0, ':', "/a/b", "\\A\\B:/c"},
      {"/x/y:/c", 1, ':', "/c", "/x/y:/c"},
      {"abc def", 1, ':', "abc", "abc def"},
      {"xabc", 1, ':', "abc", "xabc:abc"},
      {"abcd", 1, ':', "abc", "abcd:abc"},
      {"p;q", 1, ':', "q", "p;q:q"}};
  int i = 0;  // one variable per case: the environment keeps each string handed to it
  for (const auto &[before, mode, sep, value, after] : cases) {
    std::string name = "TAV_TEST_LIST_" + std::to_string(i++);
    if (before) setenv(name.c_str(), before, 1);
    EXPECT_EQ(ldap_change_env_var(mode, name.c_str(), sep, value), 0);
    EXPECT_STREQ(getenv(name.c_str()), after) << (before ? before : "(unset)") << " + " << value;
  }
  for (auto [name, value] :
       {std::pair{(const char *)nullptr, "v"}, {"", "v"}, {"TAV_TEST_X", nullptr}, {"TAV_TEST_X", ""}})
    EXPECT_EQ(ldap_change_env_var(1, name, ':', value), LDAP_PARAM_ERROR);
  olx_fail_alloc_at(1);
  EXPECT_EQ(ldap_change_env_var(1, "TAV_TEST_X", ':', "v"), LDAP_NO_MEMORY);
  olx_fail_alloc_at(0);
  EXPECT_EQ(getenv("TAV_TEST_X"), nullptr);
}

}  // namespace
