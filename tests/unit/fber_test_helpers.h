// Shared helpers of the fber codec tests: hex text in and out, owning
// pointers for elements and decoded outputs.
#ifndef TAV_FBER_TEST_HELPERS_H
#define TAV_FBER_TEST_HELPERS_H

#include <cstdlib>
#include <memory>
#include <string>

#include "lber-int.h"

namespace fbertest {

struct BerFree {
  void operator()(BerElement *b) const { fber_free(b); }
};
using Ber = std::unique_ptr<BerElement, BerFree>;

// "30 84 00" -> bytes; blanks are ignored.
inline std::string unhex(const std::string &text) {
  std::string out;
  int hi = -1;
  for (char c : text) {
    int v = (c >= '0' && c <= '9')   ? c - '0'
            : (c >= 'A' && c <= 'F') ? c - 'A' + 10
            : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                                     : -1;
    if (v < 0) continue;
    if (hi < 0) {
      hi = v;
    } else {
      out.push_back(static_cast<char>(hi * 16 + v));
      hi = -1;
    }
  }
  return out;
}

inline std::string hex(const char *p, size_t n) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    if (i) out.push_back(' ');
    out.push_back(digits[(static_cast<unsigned char>(p[i]) >> 4) & 15]);
    out.push_back(digits[static_cast<unsigned char>(p[i]) & 15]);
  }
  return out;
}

inline std::string hex(const std::string &s) { return hex(s.data(), s.size()); }

// What an encoding element holds so far.
inline std::string written(const BerElement *b) {
  return hex(b->ber_buf, static_cast<size_t>(b->ber_ptr - b->ber_buf));
}
inline std::string bytes_of(const BerElement *b) {
  return std::string(b->ber_buf, static_cast<size_t>(b->ber_ptr - b->ber_buf));
}

// A reading element over a private copy of `bytes`.
inline Ber reader(const std::string &bytes) {
  berval bv{bytes.size(), const_cast<char *>(bytes.data())};
  return Ber(fber_init2(&bv));
}

// Ends an encoding and turns the element into a reader of what it wrote.
inline Ber rewind(Ber b) {
  fber_reset(b.get(), 1);
  return b;
}

inline constexpr ber_tag_t tag(unsigned v) { return static_cast<ber_tag_t>(v); }

}  // namespace fbertest

#endif
