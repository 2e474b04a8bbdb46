// Fuzzes the string filter encoder: whatever it accepts must be well-formed
// BER made of filter tags only, and wrapping an accepted parenthesised filter
// in "(!...)" must be accepted too.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ldap-search.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

bool is_filter_tag(unsigned t) { return (t >= 0xA0 && t <= 0xA9 && t != 0xA7) || t == 0x87; }

// One filter element at b[*pos]; checks the lengths nest exactly.
bool walk(const unsigned char *b, size_t n, size_t *pos, bool filter_level, int depth) {
  if (depth > 200 || *pos + 2 > n) return false;
  const unsigned tag = b[(*pos)++];
  size_t len = b[(*pos)++];
  if (len & 0x80) {
    const size_t k = len & 0x7F;
    if (k != 4 || *pos + 4 > n) return false;
    len = (size_t)b[*pos] << 24 | (size_t)b[*pos + 1] << 16 | (size_t)b[*pos + 2] << 8 | b[*pos + 3];
    *pos += 4;
  }
  if (len > n - *pos) return false;
  if (filter_level && !is_filter_tag(tag)) return false;
  const size_t end = *pos + len;
  if (tag >= 0xA0 && tag <= 0xA2) {
    while (*pos < end)
      if (!walk(b, end, pos, true, depth + 1)) return false;
  } else if (tag & 0x20) {
    while (*pos < end)
      if (!walk(b, end, pos, false, depth + 1)) return false;
  }
  *pos = end;
  return true;
}

bool encode(const std::string &filter, std::string *out) {
  BerElement *ber = fber_alloc();
  const bool ok = put_filter(ber, filter.c_str(), 0) == 0;
  out->assign(ber->ber_buf, static_cast<size_t>(ber->ber_ptr - ber->ber_buf));
  fber_free(ber);
  return ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 4096) return 0;
  const std::string filter(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
  std::string bytes;
  if (!encode(filter, &bytes)) return 0;
  const auto *b = reinterpret_cast<const unsigned char *>(bytes.data());
  for (size_t pos = 0; pos < bytes.size();) check(walk(b, bytes.size(), &pos, true, 0));
  // A single parenthesised filter stays acceptable inside a NOT.
  if (!filter.empty() && filter.front() == '(' && filter.back() == ')' && filter.find(')') == filter.size() - 1) {
    std::string wrapped;
    check(encode("(!" + filter + ")", &wrapped));
  }
  return 0;
}
