// The conversion kernels: reading and writing one character of each table
// kind, the fast runs for the common multi-byte kinds, and the four step
// functions (to and from UCS-2 and UTF-8) the rest of the converter calls.
#include <fcntl.h>
#include <langinfo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "ldap-iconv.h"
#include "ldap-utils.h"
#include "ldap-cs-int.h"

#if defined(__has_attribute) && __has_attribute(no_sanitize_coverage)
#define TAV_NO_COVERAGE __attribute__((no_sanitize_coverage))
#else
#define TAV_NO_COVERAGE
#endif

using namespace ldap_cs_internal;

namespace {

constexpr uint16_t kNoValue = 0xFFFF;
constexpr uint32_t kLoneByte = 0xFFFFFFFF;  // a continuation byte without its lead

// EBCDIC invariant characters: the bytes every EBCDIC Latin code page maps
// alike (controls, space, letters, digits, common punctuation), with 0x15 and
// 0x25 both read as line feed.
struct InvariantMaps {
  uint16_t to_ucs[256];   // kNoValue when the byte is not invariant
  uint8_t from_ucs[256];  // 0 when the value has no invariant byte (0x00 maps to 0x00 itself)
  bool from_set[256];
  InvariantMaps() {
    static const unsigned char kPairs[][2] = {
        {0x00, 0x00}, {0x01, 0x01}, {0x02, 0x02}, {0x03, 0x03}, {0x05, 0x09}, {0x07, 0x7F}, {0x0B, 0x0B}, {0x0C, 0x0C},
        {0x0D, 0x0D}, {0x0E, 0x0E}, {0x0F, 0x0F}, {0x10, 0x10}, {0x11, 0x11}, {0x12, 0x12}, {0x13, 0x13}, {0x15, 0x0A},
        {0x16, 0x08}, {0x18, 0x18}, {0x19, 0x19}, {0x1C, 0x1C}, {0x1D, 0x1D}, {0x1E, 0x1E}, {0x1F, 0x1F}, {0x25, 0x0A},
        {0x26, 0x17}, {0x27, 0x1B}, {0x2D, 0x05}, {0x2E, 0x06}, {0x2F, 0x07}, {0x32, 0x16}, {0x37, 0x04}, {0x3C, 0x14},
        {0x3D, 0x15}, {0x3F, 0x1A}, {0x40, 0x20}, {0x4B, 0x2E}, {0x4C, 0x3C}, {0x4D, 0x28}, {0x4E, 0x2B}, {0x50, 0x26},
        {0x5C, 0x2A}, {0x5D, 0x29}, {0x5E, 0x3B}, {0x60, 0x2D}, {0x61, 0x2F}, {0x6B, 0x2C}, {0x6C, 0x25}, {0x6D, 0x5F},
        {0x6E, 0x3E}, {0x6F, 0x3F}, {0x7A, 0x3A}, {0x7D, 0x27}, {0x7E, 0x3D}, {0x7F, 0x22},
    };
    for (int i = 0; i < 256; ++i) {
      to_ucs[i] = kNoValue;
      from_ucs[i] = 0;
      from_set[i] = false;
    }
    auto add = [this](unsigned b, unsigned u) {
      to_ucs[b] = static_cast<uint16_t>(u);
      // 0x25 is the line feed written back; 0x15 is read as one too.
      if (!from_set[u] || b == 0x25) {
        from_ucs[u] = static_cast<uint8_t>(b);
        from_set[u] = true;
      }
    };
    for (const auto &p : kPairs) add(p[0], p[1]);
    for (unsigned i = 0; i < 9; ++i) {
      add(0x81 + i, 'a' + i);
      add(0x91 + i, 'j' + i);
      add(0xC1 + i, 'A' + i);
      add(0xD1 + i, 'J' + i);
      add(0xF0 + i, '0' + i);
    }
    add(0xF9, '9');
    for (unsigned i = 0; i < 8; ++i) {
      add(0xA2 + i, 's' + i);
      add(0xE2 + i, 'S' + i);
    }
  }
};
const InvariantMaps &inv() {
  static const InvariantMaps maps;
  return maps;
}

const unsigned char *row_at(const ldap_cs_converter *cv, uint16_t units) {
  return cv->table + be32(cv->table + LDAP_CS_OFF_ROWS) + static_cast<uint32_t>(units) * 4;
}


bool ascii_based(uint16_t kind) { return kind == 1 || kind == 2 || kind == 3 || kind == 10; }

// The ranges of a table the loader has checked.
[[gnu::always_inline]] inline Ranges ranges_at(const unsigned char *t) {
  const unsigned char *p = t + be16(t + LDAP_CS_OFF_RANGES);
  const unsigned char *base = p + 32;
  return {base + 2 * be32(p + 16), base + 2 * be32(p + 20), base + 2 * be32(p + 24), be32(p + 28), 0};
}

// The value of a GB18030 linear index in range i of a checked table.
[[gnu::always_inline]] inline uint32_t range_at_value(const Ranges &r, uint32_t i, uint32_t index) {
  const unsigned char *e = r.list + 8 * i;
  uint32_t start = be16(e), k = be16(e + 2), base = be16(e + 4);
  // A range covers up to the next one's start; the loader checked the
  // values against that end, so nothing past it is read (a block index
  // that points at the wrong range finds no value).
  const uint32_t end = i + 1 < r.count ? be16(e + 8) : 0xFFFF;
  if (index < start || index >= end) return kNoValue;
  if (k == 1) return be16(r.values + 2 * (base + index - start));
  if (k == 2) return (index - start + base) & 0xFFFF;
  if (k == 3) return 0x20000 + be16(r.values + 2 * base);  // a two-byte code for a plane-2 character
  return kNoValue;
}

// The value of a GB18030 linear index (1 to 0xFFFE) in a checked table:
// kNoValue when no range has it, above 0xFFFF for a plane-2 character.
[[gnu::always_inline]] inline uint32_t range_value(const Ranges &r, uint32_t index) {
  // The last range starting at or before the index lies between this
  // block's first range and the next block's: a binary search there
  // finds what walking the ranges would.
  uint32_t i = be16(r.index + 2 * (index >> 9));
  uint32_t hi = (index >> 9) + 1 < 128 ? be16(r.index + 2 * ((index >> 9) + 1)) : r.count - 1;
  while (i < hi) {
    const uint32_t mid = (i + hi + 1) / 2;
    if (index >= be16(r.list + 8 * mid))
      i = mid;
    else
      hi = mid - 1;
  }
  return range_at_value(r, i, index);
}

}  // namespace

namespace {

// ---- conversion helpers -------------------------------------------------

enum Decode { kOk, kShort, kStop };

// One character of the code set at *p: value (kNoValue for none, may be
// above 0xFFFF for kinds 6 and 10), bytes consumed.
// K is the kind when the caller's loop is made for one kind (so that the
// dispatch on the kind leaves the loop), -1 when it is read from cv.
template <int K = -1>
[[gnu::always_inline]] inline Decode decode_cs(ldap_cs_converter *cv, const unsigned char *p, const unsigned char *end,
                                               uint32_t *value, unsigned *used, const Ranges *ranges = nullptr) {
  const unsigned char *t = cv->table;
  unsigned b = *p;
  *used = 1;
  switch (K >= 0 ? K : cv->kind) {
    case 1:
      *value = b < 0x80 ? b : be16(t + LDAP_CS_OFF_TO_UCS2 + 2 * b);
      return kOk;
    case 8:
      *value = inv().to_ucs[b] != kNoValue ? inv().to_ucs[b] : be16(t + LDAP_CS_OFF_TO_UCS2 + 2 * b);
      return kOk;
    case 2: {
      unsigned cls = t[LDAP_CS_OFF_CLASS + b];
      if (cls == 1) {
        *value = be16(row_at(cv, be16(t + LDAP_CS_OFF_TO_UCS2)) + 2 * b);
        return kOk;
      }
      if (cls != 2) {
        *value = kNoValue;
        return kOk;
      }
      if (end - p < 2) return kShort;
      *used = 2;
      *value = be16(row_at(cv, be16(t + LDAP_CS_OFF_TO_UCS2 + 2 * b)) + 2 * p[1]);
      return kOk;
    }
    case 3: {
      unsigned cls = t[LDAP_CS_OFF_CLASS + b];
      if (cls == 1) {
        *value = b;
        return kOk;
      }
      if (cls == 0 || cls == 255) {
        *value = kNoValue;
        return kOk;
      }
      if (static_cast<unsigned>(end - p) < cls) return kShort;
      *used = cls;
      uint32_t row = be16(t + LDAP_CS_OFF_TO_UCS2 + 2 * b);
      for (unsigned i = 1; i < cls; ++i) {
        const unsigned char *r = row_at(cv, static_cast<uint16_t>(row));
        unsigned count = be16(r), first = be16(r + 2), c = p[i];
        if (c < first || c - first >= count) {
          *value = kNoValue;
          return kOk;
        }
        uint32_t e = be32(r + 4 + 4 * (c - first));
        if (!(e & 0x80000000u)) {
          *value = i + 1 == cls ? e : kNoValue;
          return kOk;
        }
        row = e & 0x7FFFFFFFu;
        if (row > 0xFFFF) break;
      }
      *value = kNoValue;
      return kOk;
    }
    case 4: {
      if (b == 0x0E || b == 0x0F) {
        cv->to_state = b == 0x0E;
        *value = 0x110000;  // a shift: nothing to write
        return kOk;
      }
      if (cv->to_state && b >= 0x40 && b <= 0xFE) {
        if (end - p < 2) return kShort;
        *used = 2;
        *value = be16(row_at(cv, be16(t + LDAP_CS_OFF_TO_UCS2 + 2 * b)) + 2 * p[1]);
        return kOk;
      }
      if (cv->to_state || inv().to_ucs[b] != kNoValue) {
        *value = inv().to_ucs[b];
        return kOk;
      }
      *value = be16(row_at(cv, be16(t + LDAP_CS_OFF_TO_UCS2)) + 2 * b);
      return kOk;
    }
    case 10: {
      if (b < 0x80) {
        *value = b;
        return kOk;
      }
      if (b == 0x80 || b == 0xFF) {
        *value = kNoValue;
        return kOk;
      }
      if (end - p < 2) return kShort;
      long index;
      if (p[1] >= 0x30 && p[1] <= 0x39) {
        if (end - p < 4) return kShort;
        *used = 4;
        index = ((((b & 0x7FL) * 10 + p[1]) * 126 + p[2]) * 10 + p[3]) - 50351;
      } else if (p[1] < 0x40 || p[1] == 0x7F || p[1] == 0xFF) {
        *value = kNoValue;
        return kOk;
      } else {
        *used = 2;
        index = (b - 0x81L) * 191 + p[1] - 0x3F;
      }
      *value = kNoValue;
      if (index > 0 && index < 0xFFFF) {
        *value = range_value(ranges != nullptr ? *ranges : ranges_at(t), static_cast<uint32_t>(index));
      } else if (index >= 213067 && index <= 1261642) {
        *value = static_cast<uint32_t>(index - 147531);
      }
      return kOk;
    }
    case 6: {
      // Strict UTF-8: ill-formed input ends the conversion.
      if (b < 0x80) {
        *value = b;
        return kOk;
      }
      if (b < 0xC2 || b >= 0xF8) return kStop;
      unsigned n = b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
      for (unsigned i = 1; i < n; ++i) {
        if (p + i >= end) return kShort;
        if ((p[i] & 0xC0) != 0x80) return kStop;
      }
      if ((b == 0xE0 && p[1] < 0xA0) || (b == 0xF0 && p[1] < 0x90)) return kStop;
      uint32_t v = b & (0x7F >> n);
      for (unsigned i = 1; i < n; ++i) v = v << 6 | (p[i] & 0x3F);
      *value = v;
      *used = n;
      return kOk;
    }
    default:
      *value = b;
      return kOk;
  }
}

// Two-byte codes of kind 3 by (lead - 0x80) * 256 + trail; of kind 10
// (lead 81-FE, trail 40-FE but 7F) by their linear index
// (lead - 0x81) * 191 + trail - 0x3F, 1 to 126 * 191.
constexpr uint32_t kEucTwoByteCodes = 128 * 256;
constexpr uint32_t kGbTwoByteCodes = 126 * 191 + 1;

}  // namespace

namespace ldap_cs_internal {

// Kinds 3 and 10: the BMP value of every two-byte code, so that reading the
// common codes is one look-up instead of a walk through rows or a range
// search.  kNoValue marks what the general path decides: no value, one
// beyond the BMP (plane 2), a lead byte of another length.  Filled row by
// row and range by range (a table loaded in every conversion fuzzing run
// must stay cheap to open), finding what decode_cs finds for each code.
// Left out of fuzzing coverage: its tens of thousands of comparisons per
// table are a fixed transformation, and tracing them made the table
// fuzzer four times slower.
TAV_NO_COVERAGE uint16_t *two_byte_values(ldap_cs_converter *cv) {
  const unsigned char *t = cv->table;
  const uint32_t n = cv->kind == 3 ? kEucTwoByteCodes : kGbTwoByteCodes;
  auto *values = static_cast<uint16_t *>(olx_malloc(n * sizeof(uint16_t)));
  if (values == nullptr) return nullptr;
  memset(values, 0xFF, n * sizeof(uint16_t));  // kNoValue
  const auto bmp = [](uint32_t v) { return static_cast<uint16_t>(v >= kNoValue ? kNoValue : v); };
  if (cv->kind == 3) {
    for (uint32_t lead = 0x80; lead < 0x100; ++lead) {
      if (t[LDAP_CS_OFF_CLASS + lead] != 2) continue;
      // A second byte's entry is the value itself, or a further row, which
      // a two-byte code does not reach (no value).
      const unsigned char *r = row_at(cv, be16(t + LDAP_CS_OFF_TO_UCS2 + 2 * lead));
      const uint32_t count = be16(r), first = be16(r + 2);
      for (uint32_t c = 0; c < count && first + c < 0x100; ++c) {
        const uint32_t e = be32(r + 4 + 4 * c);
        if (!(e & 0x80000000u)) values[(lead - 0x80) << 8 | (first + c)] = bmp(e);
      }
    }
  } else {
    // The ranges are sorted (the loader refuses a range starting before its
    // predecessor), so the range search's answer for consecutive indexes of
    // one block only moves forward.
    const Ranges r = ranges_at(t);
    for (uint32_t block = 0; block * 512 < n; ++block) {
      uint32_t i = be16(r.index + 2 * block);
      const uint32_t hi = block + 1 < 128 ? be16(r.index + 2 * (block + 1)) : r.count - 1;
      for (uint32_t index = std::max(1u, block * 512); index < std::min(n, block * 512 + 512); ++index) {
        while (i < hi && index >= be16(r.list + 8 * (i + 1))) ++i;
        values[index] = bmp(range_at_value(r, i, index));
      }
    }
  }
  return values;
}

}  // namespace ldap_cs_internal

namespace {

// One UTF-8 character read without checking continuation bytes, as the table
// kinds take it; 0x80 to 0xBF alone becomes kLoneByte.
[[gnu::always_inline]] inline Decode decode_utf8_loose(const unsigned char *p, const unsigned char *end,
                                                       uint32_t *value, unsigned *used) {
  unsigned b = *p;
  // Four-byte sequences are read whole for every kind (a supplementary
  // character is then one substitution, not a guess and a lone byte).
  unsigned n = b < 0x80 ? 1 : b < 0xC0 ? 0 : b < 0xE0 ? 2 : (b >= 0xF0 && b < 0xF8) ? 4 : 3;
  if (n == 0) {
    *value = kLoneByte;
    *used = 1;
    return kOk;
  }
  if (static_cast<unsigned>(end - p) < n) return kShort;
  uint32_t v = n == 1 ? b : b & (0x7F >> n);
  for (unsigned i = 1; i < n; ++i) v = v << 6 | (p[i] & 0x3F);
  *value = v;
  *used = n;
  return kOk;
}

// Code of a UCS value in the code set: bytes in out[], their number.
// Unmappable values give the substitution character, counted.
template <int K = -1>
[[gnu::always_inline]] inline unsigned encode_cs(ldap_cs_converter *cv, uint32_t v, unsigned char *out) {
  const unsigned char *t = cv->table;
  const uint16_t kind = K >= 0 ? K : cv->kind;
  bool ebcdic = kind == 4 || kind == 8;
  if (ascii_based(kind) && v < 0x80) {
    out[0] = static_cast<unsigned char>(v);
    return 1;
  }
  if (kind == 4 && (v == 0x0E || v == 0x0F)) v = 0xFFFF;  // the shifts cannot be written as characters
  if (ebcdic && v < 0x100 && inv().from_set[v]) {
    out[0] = inv().from_ucs[v];
    return 1;
  }
  if (kind == 10 && v >= 0x10000 && v <= 0x10FFFF) {
    uint32_t lin = v + 147531 - 24067;
    out[3] = static_cast<unsigned char>(0x30 + lin % 10);
    lin /= 10;
    out[2] = static_cast<unsigned char>(0x81 + lin % 126);
    lin /= 126;
    out[1] = static_cast<unsigned char>(0x30 + lin % 10);
    out[0] = static_cast<unsigned char>(0x81 + lin / 10);
    return 4;
  }
  uint32_t code = be16(t + LDAP_CS_OFF_SUBST);
  if (v <= 0xFFFF) {
    const unsigned char *row = row_at(cv, be16(t + LDAP_CS_OFF_FROM_INDEX + 2 * (v >> 8)));
    unsigned lo = v & 0xFF;
    if (kind == 1 || kind == 8)
      code = row[lo];
    else if (kind == 2 || kind == 4)
      code = be16(row + 2 * lo);
    else
      code = be32(row + 4 * lo);
  }
  uint32_t subst = be16(t + LDAP_CS_OFF_SUBST);
  if (kind == 1 || kind == 8) subst &= 0xFF;
  if (code == subst && v != be16(t + LDAP_CS_OFF_SUBST_UCS)) {
    ++cv->subst_count;
    out[0] = ebcdic ? 0x6F : '?';
    return 1;
  }
  unsigned n = code > 0xFFFFFF ? 4 : code > 0xFFFF ? 3 : code > 0xFF ? 2 : 1;
  for (unsigned i = 0; i < n; ++i) out[i] = static_cast<unsigned char>(code >> (8 * (n - 1 - i)));
  return n;
}

[[gnu::always_inline]] inline unsigned put_utf8(uint32_t v, unsigned char *o) {
  if (v < 0x80) {
    o[0] = static_cast<unsigned char>(v);
    return 1;
  }
  if (v < 0x800) {
    o[0] = static_cast<unsigned char>(0xC0 | v >> 6);
    o[1] = static_cast<unsigned char>(0x80 | (v & 0x3F));
    return 2;
  }
  if (v < 0x10000) {
    o[0] = static_cast<unsigned char>(0xE0 | v >> 12);
    o[1] = static_cast<unsigned char>(0x80 | (v >> 6 & 0x3F));
    o[2] = static_cast<unsigned char>(0x80 | (v & 0x3F));
    return 3;
  }
  o[0] = static_cast<unsigned char>(0xF0 | v >> 18);
  o[1] = static_cast<unsigned char>(0x80 | (v >> 12 & 0x3F));
  o[2] = static_cast<unsigned char>(0x80 | (v >> 6 & 0x3F));
  o[3] = static_cast<unsigned char>(0x80 | (v & 0x3F));
  return 4;
}

// Decoded code-set value made writable: no value (or a non-character) is the
// counted "?"; supplementary values only come from kinds 6 and 10.
[[gnu::always_inline]] inline uint32_t checked(ldap_cs_converter *cv, uint32_t v) {
  if (v == kNoValue || (v > 0xFFFE && v < 0x10000) || v > 0x10FFFF) {
    ++cv->subst_count;
    return '?';
  }
  return v;
}

// Writes the code set's bytes for `v`, with kind 4's shifts; false when they
// do not fit (nothing written, state unchanged).
template <int K = -1>
[[gnu::always_inline]] inline bool put_cs(ldap_cs_converter *cv, uint32_t v, unsigned char **out,
                                          unsigned char *out_end) {
  unsigned char code[4];
  uint16_t before = cv->subst_count;
  const uint16_t kind = K >= 0 ? K : cv->kind;
  const bool table = kind == 1 || kind == 2 || kind == 3 || kind == 4 || kind == 8 || kind == 10;
  unsigned n = table ? encode_cs<K>(cv, v, code) : 0;
  if (n == 0) {  // pass-through
    if (v > 0xFF) {
      ++cv->subst_count;
      v = '?';
    }
    code[0] = static_cast<unsigned char>(v);
    n = 1;
  }
  unsigned shift = 0;
  if (kind == 4) shift = (n == 2) != (cv->from_state != 0);
  if (static_cast<size_t>(out_end - *out) < n + shift) {
    cv->subst_count = before;
    return false;
  }
  if (shift) {
    *(*out)++ = n == 2 ? 0x0E : 0x0F;
    cv->from_state = n == 2;
  }
  unsigned char *o = *out;
  o[0] = code[0];  // unrolled: n is at most 4, and a call per character is costly
  if (n > 1) o[1] = code[1];
  if (n > 2) o[2] = code[2];
  if (n > 3) o[3] = code[3];
  *out += n;
  return true;
}

// The table pointers the fast runs use, read once per call.
struct FastTables {
  const unsigned char *cls, *to_ucs, *rows, *from_index;
  uint32_t subst;
  const uint16_t *two_byte;
};

inline FastTables fast_tables(const ldap_cs_converter *cv) {
  const unsigned char *t = cv->table;
  return {t + LDAP_CS_OFF_CLASS,      t + LDAP_CS_OFF_TO_UCS2,     t + be32(t + LDAP_CS_OFF_ROWS),
          t + LDAP_CS_OFF_FROM_INDEX, be16(t + LDAP_CS_OFF_SUBST), cv->two_byte};
}

// UTF-8 of a value below 0xFFFF (the caller checked that 3 bytes fit).
[[gnu::always_inline]] inline unsigned char *put_utf8_bmp(uint32_t v, unsigned char *__restrict op) {
  if (v < 0x80) {
    *op = static_cast<unsigned char>(v);
    return op + 1;
  }
  if (v < 0x800) {
    op[0] = static_cast<unsigned char>(0xC0 | v >> 6);
    op[1] = static_cast<unsigned char>(0x80 | (v & 0x3F));
    return op + 2;
  }
  op[0] = static_cast<unsigned char>(0xE0 | v >> 12);
  op[1] = static_cast<unsigned char>(0x80 | (v >> 6 & 0x3F));
  op[2] = static_cast<unsigned char>(0x80 | (v & 0x3F));
  return op + 3;
}

// Writing kinds 2, 3 and 10: converts while at least 4 input bytes and 4
// bytes of room are left and every character is an ordinary mapped BMP
// character, so no check inside needs to undo anything.  Anything else (a
// lone or four-byte sequence, an overlong ASCII, an unmappable character,
// the last bytes) stops the run and goes through the general path, which
// gives the same result.
template <int K>
[[gnu::always_inline]] inline void fast_from_utf8(const FastTables &f, const unsigned char *&ip,
                                                  const unsigned char *in_end, unsigned char *&op,
                                                  unsigned char *out_end) {
  const unsigned char *p = ip;
  unsigned char *__restrict o = op;
  while (in_end - p >= 4 && out_end - o >= 4) {
    uint32_t b = p[0], v;
    unsigned used;
    if (b < 0x80) {
      *o++ = static_cast<unsigned char>(b);
      ++p;
      continue;
    }
    if (b < 0xC0 || b >= 0xF0) break;
    if (b < 0xE0) {
      v = (b & 0x1F) << 6 | (p[1] & 0x3F);
      used = 2;
    } else {
      v = (b & 0x0F) << 12 | (p[1] & 0x3F) << 6 | (p[2] & 0x3F);
      used = 3;
    }
    if (v < 0x80) break;
    const unsigned char *row = f.rows + 4 * static_cast<uint32_t>(be16(f.from_index + 2 * (v >> 8)));
    uint32_t code = K == 2 ? be16(row + 2 * (v & 0xFF)) : be32(row + 4 * (v & 0xFF));
    if (code == f.subst) break;
    if (code > 0xFF && code <= 0xFFFF) {
      o[0] = static_cast<unsigned char>(code >> 8);
      o[1] = static_cast<unsigned char>(code);
      o += 2;
    } else {
      const unsigned n = code > 0xFFFFFF ? 4 : code > 0xFFFF ? 3 : code > 0xFF ? 2 : 1;
      for (unsigned i = 0; i < n; ++i) o[i] = static_cast<unsigned char>(code >> (8 * (n - 1 - i)));
      o += n;
    }
    p += used;
  }
  ip = p;
  op = o;
}

// Reading kinds 2, 3 and 10: converts while at least 2 input bytes and 3
// bytes of room are left and every character is one byte or a two-byte code
// with a BMP value; anything else (a truncated, invalid, three- or four-byte
// or unmapped code) stops the run and goes through the general path.
template <int K>
[[gnu::always_inline]] inline void fast_to_utf8(const FastTables &f, const unsigned char *&ip,
                                                const unsigned char *in_end, unsigned char *&op,
                                                unsigned char *out_end) {
  const unsigned char *p = ip;
  unsigned char *__restrict o = op;
  const unsigned char *row0 = f.rows + 4 * static_cast<uint32_t>(be16(f.to_ucs));
  // Each kind of character advances the input by a constant in its own
  // branch: an advance loaded from the class array would chain every
  // character's loads to the previous one's.
  while (in_end - p >= 2 && out_end - o >= 3) {
    const uint32_t b = p[0];
    uint32_t v;
    if (K == 10) {
      if (b < 0x80) {
        *o++ = static_cast<unsigned char>(b);
        p += 1;
        continue;
      }
      const uint32_t trail = p[1];
      if (b == 0x80 || b == 0xFF || trail < 0x40 || trail == 0x7F || trail == 0xFF) break;
      v = f.two_byte[(b - 0x81) * 191 + trail - 0x3F];
      if (v == kNoValue) break;
      o = put_utf8_bmp(v, o);
      p += 2;
      continue;
    }
    if (K == 3) {
      if (b < 0x80) {  // copied whatever the class array says, as the general path does
        *o++ = static_cast<unsigned char>(b);
        p += 1;
        continue;
      }
      v = f.two_byte[(b - 0x80) << 8 | p[1]];
      if (v == kNoValue) break;
      o = put_utf8_bmp(v, o);
      p += 2;
      continue;
    }
    if (f.cls[b] == 1) {
      v = be16(row0 + 2 * b);
      if (v >= 0xFFFF) break;
      o = put_utf8_bmp(v, o);
      p += 1;
      continue;
    }
    if (f.cls[b] != 2) break;
    v = be16(f.rows + 4 * static_cast<uint32_t>(be16(f.to_ucs + 2 * b)) + 2 * p[1]);
    if (v >= 0xFFFF) break;
    o = put_utf8_bmp(v, o);
    p += 2;
  }
  ip = p;
  op = o;
}

template <int K>
int to_utf8_loop(ldap_cs_converter *shared_cv, const unsigned char **in, const unsigned char *in_end,
                 unsigned char **out, unsigned char *out_end) {
  // A private copy: the output stores cannot alias it, so the table pointers
  // stay in registers across the loop.
  ldap_cs_converter copy = *shared_cv;
  ldap_cs_converter *cv = &copy;
  const unsigned char *ip = *in;
  unsigned char *op = *out;
  const uint16_t kind = K >= 0 ? K : cv->kind;
  const bool ascii = kind == 1 || kind == 3 || kind == 10;
  Ranges ranges{};
  if (kind == 10) ranges = ranges_at(cv->table);  // read once, not per character
  constexpr bool fast = K == 2 || K == 3 || K == 10;
  FastTables f{};
  if (fast) f = fast_tables(cv);
  int rc = 0;
  while (ip < in_end) {
    if (fast) {
      fast_to_utf8<K>(f, ip, in_end, op, out_end);
      if (ip == in_end) break;
    }
    if (ascii && *ip < 0x80) {  // ASCII runs are copied
      if (op == out_end) {
        rc = 1;
        break;
      }
      *op++ = *ip++;
      continue;
    }
    uint32_t v = 0;
    unsigned used = 1;
    if (decode_cs<K>(cv, ip, in_end, &v, &used, kind == 10 ? &ranges : nullptr) == kShort) {
      rc = 2;
      break;
    }
    if (v == 0x110000) {
      ip += used;
      continue;
    }
    if (kind != 10 && v > 0xFFFF) v = kNoValue;
    const unsigned n = v < 0x80 ? 1 : v < 0x800 ? 2 : v <= 0xFFFE ? 3 : v <= 0x10FFFF && v > 0xFFFF ? 4 : 1;
    if (static_cast<size_t>(out_end - op) < n) {
      rc = 1;
      break;
    }
    op += put_utf8(checked(cv, v), op);
    ip += used;
  }
  *in = ip;
  *out = op;
  shared_cv->subst_count = copy.subst_count;
  shared_cv->from_state = copy.from_state;
  shared_cv->to_state = copy.to_state;
  return rc;
}

template <int K>
int from_utf8_loop(ldap_cs_converter *shared_cv, const unsigned char **in, const unsigned char *in_end,
                   unsigned char **out, unsigned char *out_end) {
  // A private copy and local positions: the output stores cannot alias them,
  // so the table pointers stay in registers across the loop.
  ldap_cs_converter copy = *shared_cv;
  ldap_cs_converter *cv = &copy;
  const bool ascii = ascii_based(K >= 0 ? K : cv->kind);
  const unsigned char *ip = *in;
  unsigned char *op = *out;
  constexpr bool fast = K == 2 || K == 3 || K == 10;
  FastTables f{};
  if (fast) f = fast_tables(cv);
  int rc = 0;
  while (ip < in_end) {
    if (fast) {
      fast_from_utf8<K>(f, ip, in_end, op, out_end);
      if (ip == in_end) break;
    }
    if (ascii && *ip < 0x80) {  // ASCII runs are copied
      if (op == out_end) {
        rc = 1;
        break;
      }
      *op++ = *ip++;
      continue;
    }
    uint32_t v = 0;
    unsigned used = 1;
    if (decode_utf8_loose(ip, in_end, &v, &used) == kShort) {
      rc = 2;
      break;
    }
    uint16_t before = cv->subst_count;
    if (v == kLoneByte) {
      ++cv->subst_count;
      v = '?';
    }
    if (!put_cs<K>(cv, v, &op, out_end)) {
      cv->subst_count = before;
      rc = 1;
      break;
    }
    ip += used;
  }
  *in = ip;
  *out = op;
  shared_cv->subst_count = copy.subst_count;
  shared_cv->from_state = copy.from_state;
  shared_cv->to_state = copy.to_state;
  return rc;
}

}  // namespace

extern "C" {

int ldap_cs_step_to_ucs2(ldap_cs_converter *cv, const unsigned char **in, const unsigned char *in_end, uint16_t **out,
                         uint16_t *out_end) {
  while (*in < in_end && *out < out_end) {
    uint32_t v = 0;
    unsigned used = 1;
    Decode d = decode_cs(cv, *in, in_end, &v, &used);
    if (d == kShort) return 2;
    if (d == kStop) return 0;
    if (v == 0x110000) {
      *in += used;
      continue;
    }
    if (cv->kind != 6 && cv->kind != 10 && v > 0xFFFF) v = kNoValue;
    uint16_t before = cv->subst_count;
    v = checked(cv, v);
    if (v > 0xFFFF) {
      if (out_end - *out < 2) {
        cv->subst_count = before;
        return 1;
      }
      *(*out)++ = static_cast<uint16_t>(0xD800 + ((v - 0x10000) >> 10));
      *(*out)++ = static_cast<uint16_t>(0xDC00 + (v & 0x3FF));
    } else {
      *(*out)++ = static_cast<uint16_t>(v);
    }
    *in += used;
  }
  return *in < in_end ? 1 : 0;
}

int ldap_cs_step_to_utf8(ldap_cs_converter *cv, const unsigned char **in, const unsigned char *in_end,
                         unsigned char **out, unsigned char *out_end) {
  if (cv->kind == 6) {
    size_t n = std::min(in_end - *in, out_end - *out);
    memcpy(*out, *in, n);
    *in += n;
    *out += n;
    return *in < in_end ? 1 : 0;
  }
  switch (cv->kind) {
    case 1:
      return to_utf8_loop<1>(cv, in, in_end, out, out_end);
    case 2:
      return to_utf8_loop<2>(cv, in, in_end, out, out_end);
    case 3:
      return to_utf8_loop<3>(cv, in, in_end, out, out_end);
    case 10:
      return to_utf8_loop<10>(cv, in, in_end, out, out_end);
    default:
      return to_utf8_loop<-1>(cv, in, in_end, out, out_end);
  }
}

int ldap_cs_step_from_ucs2(ldap_cs_converter *cv, const uint16_t **in, const uint16_t *in_end, unsigned char **out,
                           unsigned char *out_end) {
  if (in == nullptr || *in == in_end) {  // the end of a string: back to single-byte mode
    if (cv->kind == 4 && cv->from_state) {
      if (*out >= out_end) return 1;
      *(*out)++ = 0x0F;
    }
    cv->from_state = 0;
    cv->to_state = 0;
    return 0;
  }
  while (*in < in_end) {
    uint32_t v = **in;
    unsigned used = 1;
    uint16_t before = cv->subst_count;
    if (v >= 0xD800 && v <= 0xDFFF && (cv->kind == 6 || cv->kind == 10)) {
      if (v >= 0xDC00) {
        ++cv->subst_count;
        v = '?';
      } else if (in_end - *in < 2) {
        return 2;
      } else if ((*in)[1] >= 0xDC00 && (*in)[1] <= 0xDFFF) {
        v = 0x10000 + ((v - 0xD800) << 10) + ((*in)[1] - 0xDC00);
        used = 2;
      } else {
        ++cv->subst_count;
        v = '?';
        used = 2;
      }
    }
    bool fits;
    if (cv->kind == 6) {
      unsigned char buf[4];
      unsigned n = put_utf8(v, buf);
      fits = static_cast<size_t>(out_end - *out) >= n;
      if (fits) {
        memcpy(*out, buf, n);
        *out += n;
      }
    } else {
      fits = put_cs(cv, v, out, out_end);
    }
    if (!fits) {
      cv->subst_count = before;
      return 1;
    }
    *in += used;
  }
  return 0;
}

int ldap_cs_step_from_utf8(ldap_cs_converter *cv, const unsigned char **in, const unsigned char *in_end,
                           unsigned char **out, unsigned char *out_end) {
  if (in == nullptr || *in == in_end) return ldap_cs_step_from_ucs2(cv, nullptr, nullptr, out, out_end);
  if (cv->kind == 6) return ldap_cs_step_to_utf8(cv, in, in_end, out, out_end);
  switch (cv->kind) {
    case 1:
      return from_utf8_loop<1>(cv, in, in_end, out, out_end);
    case 2:
      return from_utf8_loop<2>(cv, in, in_end, out, out_end);
    case 3:
      return from_utf8_loop<3>(cv, in, in_end, out, out_end);
    case 10:
      return from_utf8_loop<10>(cv, in, in_end, out, out_end);
    default:
      return from_utf8_loop<-1>(cv, in, in_end, out, out_end);
  }
}

}  // extern "C"
