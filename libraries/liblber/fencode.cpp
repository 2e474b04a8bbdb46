// The format-driven BER encoder.  It writes a fixed subset of BER in one pass:
// one-byte tags, short lengths for short primitives, and a 4-octet long form
// (0x84 + 4 bytes) for long strings and for every SEQUENCE and SET, whose
// length octets are reserved on open and patched on close.
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "lber-int.h"
#include "ldap-debug.h"
#include "ldap-xlate.h"

namespace {

// Room for k more bytes; the >= keeps one spare byte, as every writer expects.
inline bool room(BerElement *ber, size_t k) {
  if (__builtin_expect(k >= static_cast<size_t>(ber->ber_end - ber->ber_ptr), 0)) return fber_realloc(ber, k) == 0;
  return true;
}

inline unsigned char tag_or(const BerElement *ber, unsigned char fallback) {
  return ber->ber_tag != LBER_DEFAULT ? static_cast<unsigned char>(ber->ber_tag) : fallback;
}

inline void put4(char *p, uint32_t v) {
  p[0] = static_cast<char>(v >> 24);
  p[1] = static_cast<char>(v >> 16);
  p[2] = static_cast<char>(v >> 8);
  p[3] = static_cast<char>(v);
}

inline void put_length(BerElement *ber, size_t len) {
  if (len < 128) {
    *ber->ber_ptr++ = static_cast<char>(len);
  } else {
    *ber->ber_ptr++ = static_cast<char>(0x84);
    put4(ber->ber_ptr, static_cast<uint32_t>(len));
    ber->ber_ptr += 4;
  }
}

int put_int(BerElement *ber, unsigned char tag, int value) {
  const uint64_t wide = static_cast<uint64_t>(static_cast<int64_t>(value));
  if (wide < 128) {
    if (!room(ber, 3)) return -1;
    char *p = ber->ber_ptr;
    p[0] = static_cast<char>(tag);
    p[1] = 1;
    p[2] = static_cast<char>(wide);
    ber->ber_ptr += 3;
  } else {
    if (!room(ber, 6)) return -1;
    char *p = ber->ber_ptr;
    p[0] = static_cast<char>(tag);
    p[1] = 4;
    put4(p + 2, static_cast<uint32_t>(wide));
    ber->ber_ptr += 6;
  }
  return 0;
}

// Inlined into the format walk: strings are most of what a request holds.
inline __attribute__((always_inline)) int put_string(BerElement *ber, unsigned char tag, const char *bytes, size_t n,
                                                     bool translate) {
  // A null pointer for a non-empty string is a caller error; refuse it.
  if ((bytes == nullptr && n != 0) || n > 0xFFFFFFF0u) return -1;  // a 4-octet length must hold it
  if (!room(ber, n < 128 ? n + 3 : n + 10)) return -1;
  *ber->ber_ptr++ = static_cast<char>(tag);
  char *converted = nullptr;
  // Below version 3, or with a UTF-8 local code page, the conversion is an
  // identity copy, so the bytes are written straight from the caller's buffer.
  if (translate && n > 0 && ber->ber_version != nullptr && *ber->ber_version >= 3 && !xlate_is_identity()) {
    converted = const_cast<char *>(bytes);
    unsigned long len = n;
    if (xlate_local_to_utf8(&converted, &len, 0) != 0) return -1;
    bytes = converted;
    n = len;
    if (!room(ber, n < 128 ? n + 2 : n + 9)) {
      free(converted);
      return -1;
    }
  }
  put_length(ber, n);
  if (n != 0) memcpy(ber->ber_ptr, bytes, n);
  ber->ber_ptr += n;
  if (converted != nullptr) free(converted);
  return 0;
}

int put_bits(BerElement *ber, unsigned char tag, const char *bits, int nbits) {
  if (nbits < 0 || (bits == nullptr && nbits != 0)) return -1;
  const uint32_t bytes = (static_cast<uint32_t>(nbits) + 7) / 8;
  if (!room(ber, bytes + 1 < 128 ? bytes + 3 : bytes + 7)) return -1;
  *ber->ber_ptr++ = static_cast<char>(tag);
  put_length(ber, bytes + 1);
  *ber->ber_ptr++ = static_cast<char>(bytes * 8 - static_cast<uint32_t>(nbits));
  if (bytes != 0) memcpy(ber->ber_ptr, bits, bytes);
  ber->ber_ptr += bytes;
  return 0;
}

int open_seq(BerElement *ber, unsigned char tag) {
  if (ber->ber_sos == nullptr) return -1;  // a reading element has no sequence stack
  uint32_t &open = ber->ber_sos[0];
  if (open >= FBER_MAX_SEQ) return -1;
  if (!room(ber, 6)) return -1;
  ber->ber_ptr[0] = static_cast<char>(tag);
  ber->ber_ptr[1] = static_cast<char>(0x84);
  ber->ber_ptr += 2;
  // An offset, not a pointer, so growth of the buffer cannot invalidate it.
  ber->ber_sos[++open] = static_cast<uint32_t>(ber->ber_ptr - ber->ber_buf);
  // Zeros until the close patches them, so an open element's bytes are defined.
  put4(ber->ber_ptr, 0);
  ber->ber_ptr += 4;
  return 0;
}

int close_seq(BerElement *ber) {
  if (ber->ber_sos == nullptr) return -1;
  uint32_t &open = ber->ber_sos[0];
  if (open == 0) return -1;
  char *len_at = ber->ber_buf + ber->ber_sos[open--];
  put4(len_at, static_cast<uint32_t>(ber->ber_ptr - len_at - 4));
  return 0;
}

int encode(BerElement *ber, const char *format, va_list *ap, bool translate) {
  if (!(ber->ber_options & FBER_MARK)) {
    LDAP_LOG(LDAP_LOG_BER, "BerElement %p is not an FBER!!!\n", static_cast<void *>(ber));
    ber->ber_len = static_cast<ber_len_t>(ber->ber_ptr - ber->ber_buf);
    return 0;
  }
  for (const char *f = format; *f != '\0'; ++f) {
    int rc = 0;
    switch (*f) {
      case 't':
        ber->ber_tag = va_arg(*ap, ber_tag_t);
        continue;  // the override lasts until the next letter is done
      case 'i':
        rc = put_int(ber, tag_or(ber, 0x02), va_arg(*ap, int));
        break;
      case 'e':
        rc = put_int(ber, tag_or(ber, 0x0A), va_arg(*ap, int));
        break;
      case 'b': {
        const int v = va_arg(*ap, int);
        if ((rc = room(ber, 3) ? 0 : -1) == 0) {
          ber->ber_ptr[0] = static_cast<char>(tag_or(ber, 0x01));
          ber->ber_ptr[1] = 1;
          ber->ber_ptr[2] = static_cast<char>(v ? 0xFF : 0x00);
          ber->ber_ptr += 3;
        }
        break;
      }
      case 'n':
        if ((rc = room(ber, 2) ? 0 : -1) == 0) {
          ber->ber_ptr[0] = static_cast<char>(tag_or(ber, 0x05));
          ber->ber_ptr[1] = 0;
          ber->ber_ptr += 2;
        }
        break;
      case 's': {
        const char *s = va_arg(*ap, const char *);
        rc = s == nullptr ? -1 : put_string(ber, tag_or(ber, 0x04), s, strlen(s), translate);
        break;
      }
      case 'o': {
        const char *p = va_arg(*ap, const char *);
        const int n = va_arg(*ap, int);
        rc = n < 0 ? -1 : put_string(ber, tag_or(ber, 0x04), p, static_cast<size_t>(n), translate);
        break;
      }
      case 'v': {
        char **vec = va_arg(*ap, char **);
        const unsigned char tag = tag_or(ber, 0x04);
        for (size_t i = 0; vec != nullptr && vec[i] != nullptr && rc == 0; ++i)
          rc = put_string(ber, tag, vec[i], strlen(vec[i]), translate);
        break;
      }
      case 'V': {
        struct berval **vec = va_arg(*ap, struct berval **);
        const unsigned char tag = tag_or(ber, 0x04);
        for (size_t i = 0; vec != nullptr && vec[i] != nullptr && rc == 0; ++i)
          rc = put_string(ber, tag, vec[i]->bv_val, vec[i]->bv_len, translate);
        break;
      }
      case 'B': {
        const char *p = va_arg(*ap, const char *);
        rc = put_bits(ber, tag_or(ber, 0x03), p, va_arg(*ap, int));
        break;
      }
      case '{':
        rc = open_seq(ber, tag_or(ber, 0x30));
        break;
      case '[':
        rc = open_seq(ber, tag_or(ber, 0x31));
        break;
      case '}':
      case ']':
        rc = close_seq(ber);
        break;
      default:
        LDAP_LOG(LDAP_LOG_BER, "unknown fmt %c\n", *f);
        rc = -1;
        break;
    }
    ber->ber_tag = LBER_DEFAULT;
    if (rc != 0) return -1;
  }
  ber->ber_len = static_cast<ber_len_t>(ber->ber_ptr - ber->ber_buf);
  return 0;
}

}  // namespace

extern "C" {

int fber_printf(BerElement *ber, const char *format, ...) {
  const bool translate = ber->ber_noxlate == nullptr || *ber->ber_noxlate == 0;
  va_list ap;
  va_start(ap, format);
  const int rc = encode(ber, format, &ap, translate);
  va_end(ap);
  return rc;
}

int fber_printf_raw(BerElement *ber, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  const int rc = encode(ber, format, &ap, false);
  va_end(ap);
  return rc;
}
}
