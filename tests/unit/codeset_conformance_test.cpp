// Every generated table against glibc iconv: each character glibc defines in
// the code set converts to the same UCS-2 and UTF-8 and back, and each BMP
// character glibc cannot write becomes the substitution character, counted.
#include <gtest/gtest.h>
#include <iconv.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "ldap-iconv.h"

namespace {

struct Table {
  const char *name, *glibc;
  int kind, longest;  // longest: bytes of the longest code, shifts left out
  unsigned char subst;
};
// CP1255 is read a byte at a time: glibc reads a Hebrew letter and its point
// as one presentation form, a table reads each code alone.
const Table kTables[] = {
    {"ISO88591", "ISO-8859-1", 1, 1, '?'}, {"ISO88592", "ISO-8859-2", 1, 1, '?'},
    {"ISO88595", "ISO-8859-5", 1, 1, '?'}, {"ISO88596", "ISO-8859-6", 1, 1, '?'},
    {"ISO88597", "ISO-8859-7", 1, 1, '?'}, {"ISO88598", "ISO-8859-8", 1, 1, '?'},
    {"ISO88599", "ISO-8859-9", 1, 1, '?'}, {"ISO885915", "ISO-8859-15", 1, 1, '?'},
    {"437", "IBM437", 1, 1, '?'},          {"850", "IBM850", 1, 1, '?'},
    {"852", "IBM852", 1, 1, '?'},          {"857", "IBM857", 1, 1, '?'},
    {"862", "IBM862", 1, 1, '?'},          {"866", "IBM866", 1, 1, '?'},
    {"869", "IBM869", 1, 1, '?'},          {"TIS620", "TIS-620", 1, 1, '?'},
    {"1250", "CP1250", 1, 1, '?'},         {"1251", "CP1251", 1, 1, '?'},
    {"1252", "CP1252", 1, 1, '?'},         {"1253", "CP1253", 1, 1, '?'},
    {"1254", "CP1254", 1, 1, '?'},         {"1256", "CP1256", 1, 1, '?'},
    {"037", "IBM037", 8, 1, 0x6F},         {"1047", "IBM1047", 8, 1, 0x6F},
    {"1255", "CP1255", 2, 1, '?'},         {"943", "CP932", 2, 2, '?'},
    {"SJIS", "SJIS", 2, 2, '?'},           {"GBK", "GBK", 2, 2, '?'},
    {"BIG5", "BIG5", 2, 2, '?'},           {"949", "CP949", 2, 2, '?'},
    {"EUCJP", "EUC-JP", 3, 3, '?'},        {"EUCKR", "EUC-KR", 3, 2, '?'},
    {"EUCCN", "EUC-CN", 3, 2, '?'},        {"939", "IBM939", 4, 2, 0x6F},
    {"GB18030", "GB18030", 10, 4, '?'},
};

// glibc's answer for `in` in `to`, or nothing when it refuses it.
bool glibc(iconv_t cd, const std::string &in, std::string *out) {
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  char buf[64];
  char *ip = const_cast<char *>(in.data()), *op = buf;
  size_t il = in.size(), ol = sizeof buf;
  if (iconv(cd, &ip, &il, &op, &ol) == static_cast<size_t>(-1) || il != 0) return false;
  iconv(cd, nullptr, nullptr, &op, &ol);
  out->assign(buf, op - buf);
  return true;
}

std::string utf8_of(uint32_t v) {
  std::string s;
  if (v < 0x80) {
    s += static_cast<char>(v);
  } else if (v < 0x800) {
    s += static_cast<char>(0xC0 | v >> 6);
    s += static_cast<char>(0x80 | (v & 0x3F));
  } else if (v < 0x10000) {
    s += static_cast<char>(0xE0 | v >> 12);
    s += static_cast<char>(0x80 | (v >> 6 & 0x3F));
    s += static_cast<char>(0x80 | (v & 0x3F));
  } else {
    s += static_cast<char>(0xF0 | v >> 18);
    s += static_cast<char>(0x80 | (v >> 12 & 0x3F));
    s += static_cast<char>(0x80 | (v >> 6 & 0x3F));
    s += static_cast<char>(0x80 | (v & 0x3F));
  }
  return s;
}

std::u16string utf16_of(uint32_t v) {
  if (v < 0x10000) return std::u16string(1, static_cast<char16_t>(v));
  return {static_cast<char16_t>(0xD800 + ((v - 0x10000) >> 10)), static_cast<char16_t>(0xDC00 + (v & 0x3FF))};
}

// Byte sequences of the code set to try: every one- and two-byte string, and
// the longer forms of the multi-byte kinds.
std::vector<std::string> candidates(const Table &t) {
  std::vector<std::string> out;
  for (int a = 0; a < 256; ++a) out.push_back(std::string(1, static_cast<char>(a)));
  if (t.longest == 1) return out;
  const int first = t.kind == 4 ? 0x40 : 0x80;
  for (int a = first; a < 256; ++a)
    for (int b = 0; b < 256; ++b) {
      std::string s{static_cast<char>(a), static_cast<char>(b)};
      out.push_back(t.kind == 4 ? "\x0e" + s + "\x0f" : s);
    }
  if (t.longest == 3)
    for (int b = 0xA1; b < 0xFF; ++b)
      for (int c = 0xA1; c < 0xFF; ++c) out.push_back(std::string{'\x8f', static_cast<char>(b), static_cast<char>(c)});
  if (t.kind == 10)
    for (uint32_t lin = 0; lin < 39420 + 300; ++lin) {
      // Four-byte codes from 81 30 81 30, past the BMP's end into plane 1.
      uint32_t l = lin < 39420 ? lin : 189000 + (lin - 39420) * 3331;
      out.push_back(std::string{static_cast<char>(0x81 + l / 12600), static_cast<char>(0x30 + l / 1260 % 10),
                                static_cast<char>(0x81 + l / 10 % 126), static_cast<char>(0x30 + l % 10)});
    }
  return out;
}

class Conformance : public testing::TestWithParam<Table> {
 protected:
  void SetUp() override {
    setenv("TISDIR", TAV_BUILD_DIR, 1);
    cv_ = ldap_cs_open(GetParam().name);
    ASSERT_NE(cv_, nullptr) << GetParam().name;
    ASSERT_EQ(cv_->kind, GetParam().kind);
  }
  void TearDown() override { ldap_cs_close(cv_); }
  ldap_cs_converter *cv_ = nullptr;
};

TEST_P(Conformance, EveryCodeGlibcDefinesReadsAsGlibcReadsIt) {
  const Table &t = GetParam();
  iconv_t cd = iconv_open("UTF-32BE", t.glibc);
  ASSERT_NE(cd, reinterpret_cast<iconv_t>(-1));
  long checked = 0;
  std::string text, text_utf8;  // every code in one text: the per-character loops read it in runs
  for (const std::string &in : candidates(t)) {
    std::string ref;
    if (!glibc(cd, in, &ref) || ref.size() != 4 || ref == std::string("\0\0\xff\xff", 4)) continue;
    uint32_t v = static_cast<unsigned char>(ref[0]) << 24 | static_cast<unsigned char>(ref[1]) << 16 |
                 static_cast<unsigned char>(ref[2]) << 8 | static_cast<unsigned char>(ref[3]);
    // The EBCDIC invariant map reads 0x15 as line feed, as it reads 0x25.
    if ((t.kind == 4 || t.kind == 8) && in == "\x15") v = 0x0A;
    char16_t units[8];
    char utf8[16];
    long n = ldap_cs_to_ucs2(cv_, in.data(), static_cast<long>(in.size()), reinterpret_cast<uint16_t *>(units), 8);
    ASSERT_EQ(std::u16string(units, n), utf16_of(v)) << t.name << " code " << testing::PrintToString(in);
    n = ldap_cs_to_utf8(cv_, in.data(), static_cast<long>(in.size()), utf8, sizeof utf8);
    ASSERT_EQ(std::string(utf8, n), utf8_of(v)) << t.name << " code " << testing::PrintToString(in);
    ++checked;
    text += in;
    text_utf8 += utf8_of(v);
  }
  iconv_close(cd);
  std::string whole(text_utf8.size() + 16, '\0');
  whole.resize(
      ldap_cs_to_utf8(cv_, text.data(), static_cast<long>(text.size()), whole.data(), static_cast<long>(whole.size())));
  EXPECT_TRUE(whole == text_utf8) << t.name;
  EXPECT_EQ(cv_->subst_count, 0);
  EXPECT_GT(checked, t.longest == 1 ? 200 : 7000);
  RecordProperty("compared", static_cast<int>(checked));
}

TEST_P(Conformance, EveryCharacterWritesAsGlibcWritesItOrAsTheCountedSubstitute) {
  const Table &t = GetParam();
  iconv_t cd = iconv_open(t.glibc, "UTF-32BE");
  ASSERT_NE(cd, reinterpret_cast<iconv_t>(-1));
  long defined = 0, substituted = 0;
  std::string text, text_ref;  // every character in one text, as above
  for (uint32_t v = 1; v < 0x110000; v += v < 0x10000 ? 1 : 4099) {
    if ((v >= 0xD800 && v <= 0xDFFF) || v == 0xFFFF) continue;  // U+FFFF is read as "no character"
    if (v >= 0x10000 && t.kind != 10) break;
    std::string in{static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                   static_cast<char>(v)};
    std::string ref;
    // glibc writes its SUB byte for some characters (the shift controls of a
    // stateful code set among them): they are unmappable here like any other.
    const std::string sub(1, t.kind == 4 || t.kind == 8 ? '\x3f' : '\x1a');
    // A kind 2 code holds two bytes: the two CP1255 forms glibc writes in
    // three are unmappable.
    const bool known = glibc(cd, in, &ref) && (ref != sub || v == 0x1A) && (t.kind != 2 || ref.size() <= 2);
    if (!known) ref = std::string(1, static_cast<char>(t.subst));
    std::u16string u = utf16_of(v);
    std::string s = utf8_of(v);
    char out[16];
    const uint16_t before = cv_->subst_count;
    long n = ldap_cs_from_ucs2(cv_, reinterpret_cast<const uint16_t *>(u.data()), static_cast<long>(u.size()), out,
                               sizeof out);
    ASSERT_EQ(std::string(out, n), ref) << t.name << " U+" << std::hex << v;
    n = ldap_cs_from_utf8(cv_, s.data(), static_cast<long>(s.size()), out, sizeof out);
    ASSERT_EQ(std::string(out, n), ref) << t.name << " U+" << std::hex << v;
    ASSERT_EQ(static_cast<uint16_t>(cv_->subst_count - before), known ? 0 : 2) << t.name << " U+" << std::hex << v;
    (known ? defined : substituted)++;
    text += s;
    text_ref += ref;
  }
  iconv_close(cd);
  // Kind 4 shifts once per run of double-byte characters, not per character.
  if (t.kind != 4) {
    const uint16_t before = cv_->subst_count;
    std::string whole(text_ref.size() + 16, '\0');
    whole.resize(ldap_cs_from_utf8(cv_, text.data(), static_cast<long>(text.size()), whole.data(),
                                   static_cast<long>(whole.size())));
    EXPECT_TRUE(whole == text_ref) << t.name;
    EXPECT_EQ(static_cast<uint16_t>(cv_->subst_count - before), static_cast<uint16_t>(substituted));
  }
  EXPECT_GT(defined, 0);
  EXPECT_GT(substituted + defined, 60000);
  RecordProperty("compared", static_cast<int>(substituted + defined));
}

INSTANTIATE_TEST_SUITE_P(Tables, Conformance, testing::ValuesIn(kTables),
                         [](const testing::TestParamInfo<Table> &i) { return std::string("T") + i.param.name; });

TEST(GeneratedTables, EveryTableTheBuildWritesIsCheckedAbove) {
  std::set<std::string> listed, written;
  for (const Table &t : kTables) listed.insert(t.name);
  for (const auto &e : std::filesystem::directory_iterator(std::string(TAV_BUILD_DIR) + "/codeset"))
    if (e.path().filename() != "aliases") written.insert(e.path().filename());
  EXPECT_EQ(written, listed);
}

}  // namespace
