// The converter engine's edges: substitution, cut sequences, full output
// buffers, kind 4 shifts, names, redirections and malformed tables.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "alloc_sweep.h"
#include "ldap-iconv.h"
#include "ldap-utils.h"

namespace fs = std::filesystem;

namespace {

class Engine : public testing::Test {
 protected:
  void SetUp() override { setenv("TISDIR", TAV_BUILD_DIR, 1); }
  static ldap_cs_converter *open(const char *name) {
    ldap_cs_converter *cv = ldap_cs_open(name);
    EXPECT_NE(cv, nullptr) << name;
    return cv;
  }
};

// One call of a direction function over `in` with `room` output units;
// returns its result and what it wrote, the input left in *rest.
int to_ucs2(ldap_cs_converter *cv, const std::string &in, std::u16string *out, size_t room, size_t *rest) {
  std::vector<uint16_t> buf(room);
  auto *ip = reinterpret_cast<const unsigned char *>(in.data());
  uint16_t *op = buf.data();
  int rc = ldap_cs_step_to_ucs2(cv, &ip, ip + in.size(), &op, op + room);
  out->assign(buf.begin(), buf.begin() + (op - buf.data()));
  *rest = in.size() - (ip - reinterpret_cast<const unsigned char *>(in.data()));
  return rc;
}

int bytes_step(int (*f)(ldap_cs_converter *, const unsigned char **, const unsigned char *, unsigned char **,
                        unsigned char *),
               ldap_cs_converter *cv, const std::string &in, std::string *out, size_t room, size_t *rest) {
  std::string buf(room, '\0');
  auto *ip = reinterpret_cast<const unsigned char *>(in.data());
  auto *op = reinterpret_cast<unsigned char *>(buf.data());
  int rc = f(cv, &ip, ip + in.size(), &op, op + room);
  out->assign(buf.data(), reinterpret_cast<char *>(op) - buf.data());
  *rest = in.size() - (ip - reinterpret_cast<const unsigned char *>(in.data()));
  return rc;
}

struct StepCase {
  const char *table;
  bool from_utf8;  // else to UTF-8
  std::string in;
  size_t room;
  int rc;
  std::string out;
  size_t rest;
  int substituted;
};

TEST_F(Engine, DirectionFunctionsSubstituteStopAtCutSequencesAndFullBuffers) {
  const StepCase cases[] = {
      {"ISO88591", true, "M\xC3\xBCller \xE2\x82\xAC", 20, 0, "M\xFCller ?", 0, 1},  // no euro in Latin-1
      {"037", true, "\xE2\x82\xAC!", 20, 0, "\x6F\x5A", 0, 1},                       // EBCDIC "?" is 0x6F
      {"ISO88591", true,
       "ab\x80"
       "c",
       20, 0, "ab?c", 0, 1},                                           // a lone continuation byte
      {"ISO88591", true, "a\xC3", 20, 2, "a", 1, 0},                   // cut two-byte sequence
      {"943", false, "a\x82", 20, 2, "a", 1, 0},                       // cut Shift-JIS pair
      {"EUCJP", false, "\x8F\xB0", 20, 2, "", 2, 0},                   // cut three-byte code
      {"GB18030", false, "\x81\x30\x81", 20, 2, "", 3, 0},             // cut four-byte code
      {"ISO88591", false, "a\xE9", 2, 1, "a", 1, 0},                   // é needs two bytes, one left
      {"943", false, "\x82\xA0\x82\xA2", 5, 1, "\xE3\x81\x82", 2, 0},  // second kana does not fit
      {"939", true,
       "A\xE3\x81\x82"
       "B",
       20, 0, "\xC1\x0E\x44\x81\x0F\xC2", 0, 0},                                // shift-out, pair, shift-in
      {"939", true, "A\xE3\x81\x82", 3, 1, "\xC1", 3, 0},                       // no room for SO and the pair
      {"GB18030", false, "\x90\x30\x81\x30", 20, 0, "\xF0\x90\x80\x80", 0, 0},  // first plane-1 code
      {"GB18030", false, "\x80", 20, 0, "?", 0, 1},
      {"UTF8", true, "a\xC0\x80", 20, 0, "a\xC0\x80", 0, 0},  // UTF-8 to UTF-8 copies
  };
  for (const StepCase &c : cases) {
    ldap_cs_converter *cv = open(c.table);
    ASSERT_NE(cv, nullptr);
    std::string out;
    size_t rest = 0;
    int rc = bytes_step(c.from_utf8 ? ldap_cs_step_from_utf8 : ldap_cs_step_to_utf8, cv, c.in, &out, c.room, &rest);
    EXPECT_EQ(rc, c.rc) << c.table << " " << testing::PrintToString(c.in);
    EXPECT_EQ(out, c.out) << c.table << " " << testing::PrintToString(c.in);
    EXPECT_EQ(rest, c.rest) << c.table << " " << testing::PrintToString(c.in);
    EXPECT_EQ(cv->subst_count, c.substituted) << c.table << " " << testing::PrintToString(c.in);
    ldap_cs_close(cv);
  }
}

TEST_F(Engine, Utf8ConverterChecksSequencesAndPairsSurrogates) {
  ldap_cs_converter *cv = open("utf-8");
  ASSERT_EQ(cv->kind, 6);
  std::u16string u;
  size_t rest;
  EXPECT_EQ(to_ucs2(cv, "a\xC0\x80z", &u, 8, &rest), 0);  // overlong: stops there
  EXPECT_EQ(u, u"a");
  EXPECT_EQ(rest, 3u);
  EXPECT_EQ(to_ucs2(cv, "\xF0\x9F\x98\x80", &u, 8, &rest), 0);
  EXPECT_EQ(u, std::u16string({0xD83D, 0xDE00}));
  EXPECT_EQ(to_ucs2(cv, "\xE0\x9F\x80", &u, 8, &rest), 0);  // E0 needs A0 or above
  EXPECT_EQ(rest, 3u);
  EXPECT_EQ(to_ucs2(cv, "\xE2\x82", &u, 8, &rest), 2);
  const struct {
    std::u16string in;
    std::string out;
    int subst;
  } from[] = {{{0xD83D, 0xDE00}, "\xF0\x9F\x98\x80", 0}, {{0xDC00, 'a'}, "?a", 1}, {{0xD800, 'a', 'b'}, "?b", 1}};
  for (const auto &f : from) {
    char out[16];
    cv->subst_count = 0;
    long n = ldap_cs_from_ucs2(cv, reinterpret_cast<const uint16_t *>(f.in.data()), static_cast<long>(f.in.size()), out,
                               sizeof out);
    EXPECT_EQ(std::string(out, n), f.out);
    EXPECT_EQ(cv->subst_count, f.subst);
  }
}

TEST_F(Engine, FullOutputResumesWhereItStopped) {
  const std::string text = "Abc \xE3\x81\x82\xE4\xBA\x9C 123 \xE6\xBC\xA2\xE5\xAD\x97";
  for (const char *table : {"943", "EUCJP", "939", "GB18030"}) {
    ldap_cs_converter *cv = open(table);
    char whole[128];
    long n = ldap_cs_from_utf8(cv, text.data(), static_cast<long>(text.size()), whole, sizeof whole);
    // Small output windows: every call writes what fits and resumes.
    std::string pieces;
    auto *ip = reinterpret_cast<const unsigned char *>(text.data());
    const auto *end = ip + text.size();
    cv->from_state = 0;
    for (int calls = 0; calls < 200; ++calls) {
      unsigned char buf[4], *op = buf;  // room for the longest code
      const bool flush = ip == end;     // the last call returns to single-byte mode
      int rc = ldap_cs_step_from_utf8(cv, flush ? nullptr : &ip, end, &op, buf + 4);
      pieces.append(reinterpret_cast<char *>(buf), op - buf);
      ASSERT_NE(rc, 2) << table;
      if (flush && rc == 0) break;
    }
    EXPECT_EQ(pieces, std::string(whole, n)) << table;
    // And back: the text round-trips whole.
    char back[256];
    long m = ldap_cs_to_utf8(cv, whole, n, back, sizeof back);
    EXPECT_EQ(std::string(back, m), text) << table;
    ldap_cs_close(cv);
  }
}

TEST_F(Engine, StringFormsTerminateAndAllocate) {
  ldap_cs_converter *cv = open("latin1");
  char out[8];
  EXPECT_EQ(ldap_cs_to_utf8(cv, "\xE9t\xE9", -1, out, sizeof out), 6);  // five bytes and the NUL
  EXPECT_STREQ(out, "\xC3\xA9t\xC3\xA9");
  EXPECT_EQ(ldap_cs_to_utf8(cv, "\xE9\xE9\xE9\xE9", -1, out, 6), 5);  // two characters fit with the NUL
  EXPECT_STREQ(out, "\xC3\xA9\xC3\xA9");
  long count = 0;
  char *a = ldap_cs_to_utf8_alloc(cv, "\xFF\xFF", 2, &count);
  EXPECT_EQ(std::string(a, count), "\xC3\xBF\xC3\xBF");
  free(a);
  a = ldap_cs_from_utf8_alloc(cv, "\xC3\xBF", -1, &count);
  EXPECT_STREQ(a, "\xFF");
  free(a);
  ldap_cs_converter *clone = ldap_cs_clone(cv);
  EXPECT_EQ(clone->table, cv->table);
  EXPECT_EQ(clone->shared, 1);
  EXPECT_EQ(ldap_cs_from_utf8(clone, "\xC3\xA9", 2, out, 8), 1);
  EXPECT_EQ(out[0], '\xE9');
  ldap_cs_close(clone);  // the table stays with its owner
  EXPECT_EQ(ldap_cs_from_utf8(cv, "\xC3\xA9", 2, out, 8), 1);
  ldap_cs_close(cv);
}

TEST_F(Engine, NamesNormaliseAndRedirectionsFollowWithinTheirDirectory) {
  fs::path dir = fs::temp_directory_path() / ("cs_" + std::to_string(getpid()));
  fs::create_directories(dir / "codeset");
  fs::copy_file(fs::path(TAV_BUILD_DIR) / "codeset" / "850", dir / "codeset" / "850");
  fs::copy_file(fs::path(TAV_BUILD_DIR) / "codeset" / "1252", dir / "codeset" / "1252");
  auto write = [&](const char *name, const char *text) { std::ofstream(dir / "codeset" / name) << text; };
  write("DOSLATIN", " 850\n");  // redirection: blanks and controls dropped
  write("LOOP1", "LOOP2");
  write("LOOP2", "LOOP1");
  write("aliases", "# table aliases\nPCLATIN DOSLATIN\n");
  setenv("TISDIR", dir.c_str(), 1);
  const struct {
    const char *name, *table;
  } names[] = {{"krv-1252", "1252"}, {"KRV-1252", "1252"}, {"1252", "1252"},    {"DOSLATIN", "850"},
               {"pc-latin", "850"},  {"LOOP1", nullptr},   {"nothere", nullptr}};
  for (const auto &n : names) {
    ldap_cs_converter *cv = ldap_cs_open(n.name);
    if (n.table == nullptr) {
      EXPECT_EQ(cv, nullptr) << n.name;
      continue;
    }
    ASSERT_NE(cv, nullptr) << n.name;
    EXPECT_STREQ(ldap_cs_get_name(cv), n.table) << n.name;
    ldap_cs_close(cv);
  }
  // The default converter named through a redirection (read with the default
  // converter while it is being set up).
  ldap_cs_term();
  setenv("TIS_CODESET", "DOSLATIN", 1);
  ldap_cs_init();
  EXPECT_STREQ(ldap_cs_get_name(nullptr), "850");
  unsetenv("TIS_CODESET");
  ldap_cs_term();
  ldap_cs_converter *by_path = ldap_cs_open((dir / "codeset" / "850").c_str());
  ASSERT_NE(by_path, nullptr);
  EXPECT_EQ(by_path->kind, 1);
  ldap_cs_close(by_path);
  fs::remove_all(dir);
}

TEST_F(Engine, MalformedTablesAreRefused) {
  std::ifstream f(fs::path(TAV_BUILD_DIR) / "codeset" / "943", std::ios::binary);
  std::string good((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  ldap_cs_converter *cv = ldap_cs_open_image(reinterpret_cast<const unsigned char *>(good.data()), good.size());
  ASSERT_NE(cv, nullptr);
  ldap_cs_close(cv);
  auto set16 = [](std::string s, size_t at, unsigned v) {
    s[at] = static_cast<char>(v >> 8);
    s[at + 1] = static_cast<char>(v);
    return s;
  };
  const std::string bad[] = {
      good.substr(0, 1759),                 // shorter than a header
      good.substr(0, good.size() - 4),      // the last row cut short
      set16(good, 224 + 2 * 0x4E, 0xFFFF),  // a from-UCS-2 row past the end
      set16(good, 736 + 2 * 0x82, 0xFFF0),  // a lead byte's row past the end
      set16(good, 0, 0xFFFF),               // row area past the end
  };
  for (const std::string &b : bad)
    EXPECT_EQ(ldap_cs_open_image(reinterpret_cast<const unsigned char *>(b.data()), b.size()), nullptr);
}

// EUC-JP and GB18030 allocate a second array when loaded.
TEST_F(Engine, EveryAllocationFailureWhileOpeningRefusesTheTable) {
  for (const char *name : {"EUCJP", "GB18030"}) {
    tavtest::sweep_allocations([&] { return ldap_cs_open(name); },
                               [&](ldap_cs_converter *cv, bool failed, long n) {
                                 EXPECT_EQ(cv == nullptr, failed) << name << " failing allocation " << n;
                                 ldap_cs_close(cv);
                               });
  }
}

TEST(Ucs2Strings, BehaveAsTheirCharCounterparts) {
  uint16_t buf[16] = {'a', 'b', 0};
  const uint16_t cd[] = {'c', ',', 'd', 0}, comma[] = {',', 0}, bd[] = {'b', 'c', 0};
  ldap_ucs2_cat(buf, cd);
  EXPECT_EQ(ldap_ucs2_len(buf), 5u);
  EXPECT_EQ(ldap_ucs2_nlen(buf, 3), 3u);
  EXPECT_EQ(ldap_ucs2_str(buf, bd), buf + 1);
  EXPECT_EQ(ldap_ucs2_chr(buf, ','), buf + 3);
  EXPECT_EQ(ldap_ucs2_rchr(buf, 'd'), buf + 4);
  EXPECT_EQ(ldap_ucs2_cspn(buf, comma), 3u);
  EXPECT_EQ(ldap_ucs2_pbrk(buf, comma), buf + 3);
  uint16_t *pos = nullptr;
  uint16_t *tok = ldap_ucs2_tok(buf, comma, &pos);
  EXPECT_EQ(ldap_ucs2_len(tok), 3u);
  tok = ldap_ucs2_tok(nullptr, comma, &pos);
  EXPECT_EQ(tok[0], 'd');
  EXPECT_EQ(ldap_ucs2_tok(nullptr, comma, &pos), nullptr);
  uint16_t pad[4] = {9, 9, 9, 9};
  ldap_ucs2_ncpy(pad, cd, 4);
  EXPECT_EQ(ldap_ucs2_ncmp(pad, cd, 4), 0);
  EXPECT_EQ(pad[3], 0);
}

}  // namespace
