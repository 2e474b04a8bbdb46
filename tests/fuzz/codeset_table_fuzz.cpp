// Fuzzes the table loader: a minimal well-formed table of the kind the first
// byte names, cut short and patched as the input says (offsets past the end,
// rows out of range, broken kind 3 rows and kind 10 ranges), then every
// direction over the rest of the input when the loader accepts it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ldap-iconv.h"

namespace {

void put16(std::vector<unsigned char> &t, size_t at, unsigned v) {
  t[at] = static_cast<unsigned char>(v >> 8);
  t[at + 1] = static_cast<unsigned char>(v);
}

std::vector<unsigned char> skeleton(unsigned kind) {
  std::vector<unsigned char> t(LDAP_CS_HDR_MIN_SIZE, 0);
  memcpy(&t[LDAP_CS_OFF_MAGIC], "ucv", 3);
  put16(t, LDAP_CS_OFF_KIND, kind);
  put16(t, LDAP_CS_OFF_SUBST, kind == 4 || kind == 8 ? 0x3F : 0x1A);
  put16(t, LDAP_CS_OFF_SUBST_UCS, 0x1A);
  for (int b = 0; b < 256; ++b) t[LDAP_CS_OFF_CLASS + b] = b < 0x80 ? 1 : b < 0xFF ? 2 : 255;
  if (kind == 10) {
    // Range header, index (128 words), one listed range, one value.
    std::vector<unsigned char> r(32 + 256 + 8 + 2, 0);
    r[19] = 0;                // index at +0
    r[23] = 128;              // list at 256 bytes (128 units)
    r[27] = 132;              // values at 264 bytes
    r[31] = 1;                // one range
    r[32 + 256 + 2 + 1] = 1;  // listed
    t.insert(t.end(), r.begin(), r.end());
    put16(t, LDAP_CS_OFF_RANGES, LDAP_CS_HDR_MIN_SIZE);
  }
  while (t.size() % 4) t.push_back(0);
  const uint32_t rows = static_cast<uint32_t>(t.size());
  t[0] = static_cast<unsigned char>(rows >> 24);
  t[1] = static_cast<unsigned char>(rows >> 16);
  t[2] = static_cast<unsigned char>(rows >> 8);
  t[3] = static_cast<unsigned char>(rows);
  t.resize(t.size() + 1024, 0);  // row 0: long enough for any row shape
  return t;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3) return 0;
  static const unsigned kKinds[] = {1, 2, 3, 4, 8, 10, 7};
  std::vector<unsigned char> t = skeleton(kKinds[data[0] % 7]);
  const size_t cut = static_cast<size_t>(data[1] << 8 | data[2]) * 4;
  size_t i = 3;
  // Patches: 2-byte offset (within the table), 2-byte value; a zero offset ends them.
  for (; i + 4 <= size; i += 4) {
    size_t at = static_cast<size_t>(data[i] << 8 | data[i + 1]);
    if (at == 0) {
      i += 4;
      break;
    }
    at = at * 2 % (t.size() - 1);
    put16(t, at, static_cast<unsigned>(data[i + 2] << 8 | data[i + 3]));
  }
  if (cut != 0 && cut < t.size()) t.resize(cut);
  ldap_cs_converter *cv = ldap_cs_open_image(t.data(), t.size());
  if (cv == nullptr) return 0;
  const char *text = reinterpret_cast<const char *>(data + i);
  const long len = static_cast<long>(size - i);
  std::vector<char> out(4 * len + 8);
  std::vector<uint16_t> units(len + 8);
  ldap_cs_to_utf8(cv, text, len, out.data(), static_cast<long>(out.size()));
  ldap_cs_from_utf8(cv, text, len, out.data(), static_cast<long>(out.size()));
  ldap_cs_to_ucs2(cv, text, len, units.data(), static_cast<long>(units.size()));
  std::vector<uint16_t> in16(len / 2 + 1);
  if (len >= 2) memcpy(in16.data(), text, len / 2 * 2);
  ldap_cs_from_ucs2(cv, in16.data(), len / 2, out.data(), static_cast<long>(out.size()));
  ldap_cs_close(cv);
  return 0;
}
