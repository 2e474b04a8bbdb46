// Building and reading BER bytes in tests: hex text, elements as peers send
// them (shortest length form) and as the library's encoder writes them
// (SEQUENCE and SET lengths always in four octets), and owning BER elements.
#ifndef TAV_TEST_BER_BUILD_H
#define TAV_TEST_BER_BUILD_H

#include <cctype>
#include <cstdio>
#include <memory>
#include <string>

#include "lber-int.h"
#include "ldap-protocol.h"

namespace tavtest {

// "30 84 00" -> bytes; anything but hex digits is ignored.
inline std::string unhex(const std::string &text) {
  std::string out;
  int hi = -1;
  for (char c : text) {
    int v = isdigit((unsigned char)c) ? c - '0' : isxdigit((unsigned char)c) ? (tolower(c) - 'a' + 10) : -1;
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

inline std::string hex(const std::string &bytes) {
  std::string out;
  char b[4];
  for (unsigned char c : bytes) {
    snprintf(b, sizeof b, out.empty() ? "%02X" : " %02X", c);
    out += b;
  }
  return out;
}

inline std::string tlv(unsigned tag, const std::string &content) {
  std::string h(1, static_cast<char>(tag));
  size_t n = content.size();
  if (n < 0x80) return h + static_cast<char>(n) + content;
  std::string len;
  for (; n != 0; n >>= 8) len.insert(len.begin(), static_cast<char>(n & 0xFF));
  return h + static_cast<char>(0x80 | len.size()) + len + content;
}

// The encoder's SEQUENCE/SET: the length always in four octets.
inline std::string seq4(unsigned tag, const std::string &content) {
  std::string out(1, static_cast<char>(tag));
  out += '\x84';
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((content.size() >> shift) & 0xFF);
  return out + content;
}

// The encoder's primitive: the short length form below 128, else four octets.
inline std::string prim4(unsigned tag, const std::string &content) {
  return content.size() < 0x80 ? tlv(tag, content) : seq4(tag, content);
}

inline std::string str(const std::string &s) { return tlv(ldap_proto::kOctetString, s); }
// INTEGER (or, with another tag, ENUMERATED) in the fewest octets.
inline std::string integer(long v, unsigned tag = ldap_proto::kInteger) {
  std::string c;
  do {
    c.insert(c.begin(), static_cast<char>(v & 0xFF));
    v >>= 8;
  } while (!((v == 0 && !(c[0] & 0x80)) || (v == -1 && (c[0] & 0x80))));
  return tlv(tag, c);
}
inline std::string boolean(bool b) { return tlv(ldap_proto::kBoolean, std::string(1, b ? '\xFF' : '\0')); }

// An LDAPMessage and an LDAPResult as a server sends them.
inline std::string message(int msgid, const std::string &op) { return tlv(ldap_proto::kSequence, integer(msgid) + op); }
inline std::string result(unsigned type, int code, const std::string &matched = "", const std::string &text = "",
                          const std::string &more = "") {
  return tlv(type, integer(code, ldap_proto::kEnumerated) + str(matched) + str(text) + more);
}

struct BerFree {
  void operator()(BerElement *b) const { fber_free(b); }
};
using Ber = std::unique_ptr<BerElement, BerFree>;

// A reading element over a private copy of `bytes`.
inline Ber reader(const std::string &bytes) {
  berval bv{bytes.size(), const_cast<char *>(bytes.data())};
  return Ber(fber_init2(&bv));
}
// What an encoding element holds so far.
inline std::string written(const BerElement *b) {
  return std::string(b->ber_buf, static_cast<size_t>(b->ber_ptr - b->ber_buf));
}

}  // namespace tavtest

#endif
