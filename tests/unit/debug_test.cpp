// Trace facility and environment helpers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>

#include "ldap-debug.h"
#include "ldap-utils.h"
#include "process.h"

using tavtest::run_process;
using tavtest::split_lines;

namespace {

// ldap_debug_init traces its own reading of LDAP_DEBUG_TIME; drop those lines.
std::vector<std::string> without_env_lines(std::vector<std::string> lines) {
  std::erase_if(lines, [](const std::string &l) { return l.find("ldap_getenv: ") != std::string::npos; });
  return lines;
}

// Runs the probe with LDAP_DEBUG set and returns its trace lines (stderr).
std::vector<std::string> probe_lines(const std::string &mask, std::vector<std::string> actions,
                                     std::vector<std::pair<std::string, std::string>> env = {}) {
  std::vector<std::string> argv = {TAV_TRACE_PROBE, "init"};
  argv.insert(argv.end(), actions.begin(), actions.end());
  env.push_back({"LDAP_DEBUG", mask});
  env.push_back({"LDAP_DEBUG_TIME", "FALSE"});
  auto r = run_process(argv, env);
  EXPECT_EQ(r.exit_code, 0) << r.err;
  return without_env_lines(split_lines(r.err));
}

// The level numbers that printed a "level k" line.
std::vector<int> printed_levels(const std::vector<std::string> &lines) {
  std::vector<int> levels;
  std::regex re(R"(^T\d+ level (\d+)$)");
  std::smatch m;
  for (const auto &l : lines)
    if (std::regex_match(l, m, re)) levels.push_back(std::stoi(m[1]));
  return levels;
}

}  // namespace

TEST(TraceMask, TextOfLdapDebugIsANumberOrNothing) {
  struct Case {
    const char *text;
    uint32_t mask;
  } cases[] = {
      {"65535", 65535}, {"1", 1},     {"0x8000", 0},  // "0x" forms pass the check, atoi stops at 'x'
      {"0x", 0},        {"-", 0},     {"abc", 0},   {"", 0},
      {"12a", 0},       {" 1", 0},    {"0x1F", 0},  {"-1", 0xFFFFFFFFu},
      {"32768", 0x8000},
  };
  for (const auto &c : cases) EXPECT_EQ(ldap_debug_parse_mask(c.text), c.mask) << "LDAP_DEBUG=" << c.text;
  EXPECT_EQ(ldap_debug_parse_mask(nullptr), 0u);
}

TEST(TraceMask, CategoriesSelectedByMask) {
  std::vector<int> all;
  for (int k = 0; k < 19; ++k) all.push_back(k);
  EXPECT_EQ(printed_levels(probe_lines("65535", {"levels"})), all);
  // Bit 1 selects trace lines, the translation lines (mask 0x0009) and "any".
  EXPECT_EQ(printed_levels(probe_lines("1", {"levels"})), (std::vector<int>{0, 4, 18}));
  EXPECT_EQ(printed_levels(probe_lines("32768", {"levels"})), (std::vector<int>{16, 17, 18}));
  EXPECT_TRUE(probe_lines("0x8000", {"levels"}).empty());
  EXPECT_TRUE(probe_lines("abc", {"levels"}).empty());
  // Setting the mask later through the option path turns the trace on.
  EXPECT_EQ(printed_levels(probe_lines("0", {"setmask:0x200", "levels"})), (std::vector<int>{10, 18}));
}

TEST(TraceLines, TimeStampOnlyOffForExactlyFALSE) {
  std::regex stamped(R"(^\d{3}:\d{2}:\d{2}:\d{2} T\d+ long line 7$)");
  std::regex bare(R"(^T\d+ long line 7$)");
  for (auto [value, want_stamp] : {std::pair{"FALSE", false}, {"false", true}, {"", true}, {"0", true}}) {
    auto r = run_process({TAV_TRACE_PROBE, "init", "long"}, {{"LDAP_DEBUG", "1"}, {"LDAP_DEBUG_TIME", value}});
    auto lines = split_lines(r.err);
    ASSERT_FALSE(lines.empty()) << value;
    std::string line = lines.back();
    EXPECT_TRUE(std::regex_match(line, want_stamp ? stamped : bare)) << "LDAP_DEBUG_TIME=" << value << ": " << line;
  }
}

TEST(TraceLines, ShortFormatsGetNoPrefixAndMissingListPrintsFormat) {
  auto lines = probe_lines("1", {"short", "long", "nolist"});
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "x=1");
  EXPECT_TRUE(std::regex_match(lines[1], std::regex(R"(^T\d+ long line 7$)"))) << lines[1];
  EXPECT_TRUE(std::regex_match(lines[2], std::regex(R"(^T\d+ kept as is: %s$)"))) << lines[2];
}

TEST(TraceLines, DebugFileReceivesTraceAndUnopenableFileFallsBackToStderr) {
  tavtest::TempDir dir;
  std::string file = dir.file("trace.log");
  tavtest::write_file(file, "earlier\n");
  auto r = run_process({TAV_TRACE_PROBE, "init", "long"},
                       {{"LDAP_DEBUG", "1"}, {"LDAP_DEBUG_TIME", "FALSE"}, {"LDAP_DEBUG_FILE", file}});
  EXPECT_EQ(r.err, "");
  auto lines = without_env_lines(split_lines(tavtest::read_file(file)));
  ASSERT_EQ(lines.size(), 2u);  // opened for appending
  EXPECT_EQ(lines[0], "earlier");
  EXPECT_TRUE(std::regex_match(lines[1], std::regex(R"(^T\d+ long line 7$)")));

  r = run_process({TAV_TRACE_PROBE, "init", "long"}, {{"LDAP_DEBUG", "1"},
                                                      {"LDAP_DEBUG_TIME", "FALSE"},
                                                      {"LDAP_DEBUG_FILE", dir.file("missing/dir/trace.log")}});
  EXPECT_TRUE(std::regex_search(r.err, std::regex(R"(T\d+ long line 7\n)"))) << r.err;
}

class TraceDump : public ::testing::Test {
 protected:
  // Dump lines as written, with the "T<tid>:\t" frame checked and removed.
  std::vector<std::string> dump(const void *data, unsigned int length, const char *title) {
    testing::internal::CaptureStderr();
    ldap_log_dump(data, length, title);
    std::vector<std::string> lines = split_lines(testing::internal::GetCapturedStderr());
    std::string frame = "T" + std::to_string(gettid()) + ":\t";
    for (auto &l : lines) {
      EXPECT_EQ(l.compare(0, frame.size(), frame), 0) << l;
      l = l.substr(frame.size());
      EXPECT_EQ(l.size(), 59u) << l;
    }
    return lines;
  }
  static std::string header(const void *address, const char *length) {
    char buf[64];
    snprintf(buf, sizeof buf, "|OSet| Address = %08lX  Length = %s |     ASCII      |",
             (unsigned long)(uintptr_t)address & 0xFFFFFFFFul, length);
    return buf;
  }
  const std::string border = "+---------------------------------------------------------+";
};

TEST_F(TraceDump, TwentyBytesGiveOneFullAndOnePartialLine) {
  unsigned char bytes[20];
  for (int i = 0; i < 20; ++i) bytes[i] = (unsigned char)(0x40 + i);
  bytes[1] = '^';   // shown as '.'
  bytes[2] = 0x7F;  // not printable
  bytes[3] = ' ';
  auto lines = dump(bytes, 20, "Title");
  std::vector<std::string> want = {
      border,
      "|                          Title                          |",
      border,
      header(bytes, "0014"),
      border,
      "|0000|405E7F20 44454647 48494A4B 4C4D4E4F|@.. DEFGHIJKLMNO|",
      "|0010|50515253                           |PQRS            |",
      border,
  };
  EXPECT_EQ(lines, want);
}

TEST_F(TraceDump, EmptyAndOversizedLengthsGiveOnlyTheBox) {
  unsigned char bytes[16] = {0};
  std::vector<std::string> no_data = {border, header(bytes, "0000"), border, border};
  EXPECT_EQ(dump(bytes, 0, nullptr), no_data);
  EXPECT_EQ(dump(bytes, 0, ""), no_data);  // an empty title gets no title line
  // Only the low 16 bits count; 0x8000 and above print the header alone.
  EXPECT_EQ(dump(bytes, 0x8000, nullptr), (std::vector<std::string>{border, header(bytes, "8000"), border, border}));
  EXPECT_EQ(dump(bytes, 0x1FFFF, nullptr), (std::vector<std::string>{border, header(bytes, "FFFF"), border, border}));
  // 0x10010 is 16 after masking: one data line.
  EXPECT_EQ(dump(bytes, 0x10010, nullptr).size(), 5u);
  EXPECT_EQ(dump(nullptr, 8, nullptr), (std::vector<std::string>{border, header(nullptr, "0008"), border, border}));
}

TEST_F(TraceDump, LongTitlesAreCutAt57Characters) {
  std::string title(70, 'x');
  auto lines = dump("ab", 2, title.c_str());
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[1], "|" + std::string(57, 'x') + "|");
  EXPECT_EQ(dump("ab", 2, "odd")[1], "|                           odd                           |");
}

TEST(Environment, GetAndCheckCopyValuesAndRefuseBadNames) {
  setenv("TAV_TEST_VAR", "value", 1);
  char *v = ldap_getenv("TAV_TEST_VAR");
  ASSERT_NE(v, nullptr);
  EXPECT_STREQ(v, "value");
  free(v);
  EXPECT_EQ(ldap_chkenv("TAV_TEST_VAR"), 6);
  setenv("TAV_TEST_EMPTY", "", 1);
  EXPECT_EQ(ldap_chkenv("TAV_TEST_EMPTY"), 1);  // set, even if empty
  unsetenv("TAV_TEST_VAR");
  EXPECT_EQ(ldap_getenv("TAV_TEST_VAR"), nullptr);
  EXPECT_EQ(ldap_chkenv("TAV_TEST_VAR"), 0);
  EXPECT_EQ(ldap_getenv(nullptr), nullptr);
  EXPECT_EQ(ldap_getenv(""), nullptr);
  EXPECT_EQ(ldap_chkenv(nullptr), 0);
  EXPECT_EQ(ldap_chkenv(""), 0);

  setenv("TAV_TEST_VAR", "value", 1);
  olx_fail_alloc_at(1);  // the copy fails: null, not a dangling pointer
  EXPECT_EQ(ldap_getenv("TAV_TEST_VAR"), nullptr);
  olx_fail_alloc_at(0);
}

TEST(Environment, PutenvHandsTheStringToTheEnvironment) {
  static char good[] = "TAV_TEST_PUT=one";
  EXPECT_EQ(ldap_putenv(good), 0);
  EXPECT_STREQ(getenv("TAV_TEST_PUT"), "one");
  static char no_equals[] = "TAV_TEST_PUT";
  EXPECT_NE(ldap_putenv(no_equals), 0);
  EXPECT_NE(ldap_putenv(nullptr), 0);
  EXPECT_STREQ(getenv("TAV_TEST_PUT"), "one");  // refused input changed nothing
}

TEST(Environment, ChangeEnvVarAddsElementsOnce) {
  struct Case {
    const char *before;  // null: unset
    int mode;
    char sep;
    const char *value;
    const char *after;
  } cases[] = {
      {nullptr, 0, ':', "/usr/lib", "/usr/lib"},  // unset: the value alone
      {"", 1, ':', "x", "x"},
      {"a:b", 1, ':', "c", "a:b:c"},              // mode 1 appends
      {"a:b", 0, ':', "c", "c:a:b"},              // any other mode prepends
      {"a:b", 7, ';', "c", "c;a:b"},
      {"\\A\\B:/c", 0, ':', "/a/b", "\\A\\B:/c"},  // case and slash folded: already there
      {"/x/y:/c", 1, ':', "/c", "/x/y:/c"},        // element at the end
      {"abc def", 1, ':', "abc", "abc def"},       // ends at white space
      {"xabc", 1, ':', "abc", "xabc:abc"},         // inside another element
      {"abcd", 1, ':', "abc", "abcd:abc"},         // prefix of another element
      {"p;q", 1, ':', "q", "p;q:q"},               // other separator does not delimit
  };
  // One variable per case: the environment keeps each string handed to it,
  // and replacing one would orphan the previous string.
  int i = 0;
  for (const auto &c : cases) {
    std::string name = "TAV_TEST_LIST_" + std::to_string(i++);
    if (c.before) setenv(name.c_str(), c.before, 1);
    EXPECT_EQ(ldap_change_env_var(c.mode, name.c_str(), c.sep, c.value), 0);
    EXPECT_STREQ(getenv(name.c_str()), c.after) << (c.before ? c.before : "(unset)") << " + " << c.value;
  }
}

TEST(Environment, ChangeEnvVarRefusesMissingArgumentsAndReportsMemory) {
  EXPECT_EQ(ldap_change_env_var(1, nullptr, ':', "v"), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_change_env_var(1, "", ':', "v"), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_change_env_var(1, "TAV_TEST_X", ':', nullptr), LDAP_PARAM_ERROR);
  EXPECT_EQ(ldap_change_env_var(1, "TAV_TEST_X", ':', ""), LDAP_PARAM_ERROR);
  unsetenv("TAV_TEST_X");
  olx_fail_alloc_at(1);
  EXPECT_EQ(ldap_change_env_var(1, "TAV_TEST_X", ':', "v"), LDAP_NO_MEMORY);
  olx_fail_alloc_at(0);
  EXPECT_EQ(getenv("TAV_TEST_X"), nullptr);
}
