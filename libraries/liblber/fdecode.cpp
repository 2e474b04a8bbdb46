// The format-driven BER decoder and the element-level readers.  It accepts
// one-byte tags and definite lengths of up to 8 length octets.  Item readers
// leave the cursor where it was when they fail, and every length is checked
// against the data left before anything is allocated for it.
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "lber-int.h"
#include "ldap-debug.h"
#include "ldap-utils.h"
#include "ldap-xlate.h"

namespace {

// Longest contents a string or integer reader accepts.
constexpr ber_len_t kMaxContents = 0x7FFFFFF0;

inline size_t left(const BerElement *ber) { return static_cast<size_t>(ber->ber_end - ber->ber_ptr); }

// Tag and length at the cursor, without moving it; *contents gets the start of
// the contents.
ber_tag_t parse_header(const BerElement *ber, ber_len_t *len, char **contents) {
  unsigned tag;
  const char *at;
  if (!fber_header_at(ber->ber_ptr, ber->ber_end, &tag, len, &at)) return LBER_DEFAULT;
  *contents = const_cast<char *>(at);
  return tag;
}

// Header of an item whose contents must lie wholly in the element; the cursor
// moves to the contents only on success.
ber_tag_t enter(BerElement *ber, ber_len_t *len) {
  char *contents;
  const ber_tag_t tag = parse_header(ber, len, &contents);
  if (tag == LBER_DEFAULT || *len > static_cast<ber_len_t>(ber->ber_end - contents)) return LBER_DEFAULT;
  ber->ber_ptr = contents;
  return tag;
}

inline bool converts(const BerElement *ber, bool translate) {
  return translate && ber->ber_version != nullptr && *ber->ber_version >= 3 && !xlate_is_identity();
}

// Contents of `len` bytes at the cursor into a new NUL-terminated buffer,
// converted when asked; *out_len gets the length without the NUL.
bool take_string(BerElement *ber, ber_len_t len, bool convert, char **out, ber_len_t *out_len) {
  char *buf = static_cast<char *>(olx_malloc(len + 1));
  if (buf == nullptr) return false;
  if (len != 0) memcpy(buf, ber->ber_ptr, len);
  buf[len] = '\0';
  if (convert && len != 0) {
    unsigned long n = len + 1;  // the NUL goes through the conversion too
    if (xlate_utf8_to_local(&buf, &n, 1) != 0) {
      free(buf);
      return false;
    }
    len = n != 0 ? n - 1 : 0;
  }
  *out = buf;
  *out_len = len;
  return true;
}

template <typename T>
T *grow_vector(T *vec, size_t *cap) {
  const size_t next = *cap == 0 ? 2 : *cap < 1024 ? *cap * 2 : *cap + 1024;
  T *grown = static_cast<T *>(olx_realloc(vec, next * sizeof(*vec)));
  if (grown != nullptr) *cap = next;
  return grown;
}

// Marker for "the vector letter found nothing and leaves the result as it was".
constexpr ber_tag_t kUnchanged = 0x100;  // never a tag: tags are one byte

// Binary values that need no conversion, read as one allocation: the
// pointers, then the records, then each value's bytes and a NUL.
// fber_bvecfree knows such a list by where its first record lies.  Null when
// an item would not read (the general loop then reads it and fails the same
// way) or there is no memory (*no_memory set).
struct berval **read_values_block(BerElement *ber, const char *end, bool *no_memory, ber_tag_t *last_tag) {
  size_t count = 0, bytes = 0;
  const char *p = ber->ber_ptr;
  while (p < end) {
    BerElement item = *ber;
    item.ber_ptr = const_cast<char *>(p);
    ber_len_t len;
    *last_tag = enter(&item, &len);
    if (*last_tag == LBER_DEFAULT || len >= kMaxContents) return nullptr;
    p = item.ber_ptr + len;
    ++count;
    bytes += len + 1;
  }
  const size_t head = (count + 1) * sizeof(struct berval *) + count * sizeof(struct berval);
  char *block = static_cast<char *>(olx_malloc(head + bytes));
  if (block == nullptr) {
    *no_memory = true;
    return nullptr;
  }
  auto **vec = reinterpret_cast<struct berval **>(block);
  auto *records = reinterpret_cast<struct berval *>(block + (count + 1) * sizeof(struct berval *));
  char *text = block + head;
  for (size_t i = 0; i < count; ++i) {
    ber_len_t len;
    enter(ber, &len);
    if (len != 0) memcpy(text, ber->ber_ptr, len);
    text[len] = '\0';
    records[i].bv_val = text;
    records[i].bv_len = len;
    vec[i] = &records[i];
    text += len + 1;
    ber->ber_ptr += len;
  }
  vec[count] = nullptr;
  return vec;
}

// SET OF / SEQUENCE OF strings ('v') or bervals ('V').
template <typename T>
ber_tag_t read_vector(BerElement *ber, T ***out, bool translate) {
  *out = nullptr;
  // No bytes at all: the optional set is absent, which is not an error.
  if (ber->ber_ptr == ber->ber_end) return kUnchanged;
  ber_len_t set_len;
  if (fber_skip_tag(ber, &set_len) == LBER_DEFAULT) return LBER_ERROR;
  if (set_len == 0) return kUnchanged;
  // A set claiming more bytes than are left is read up to the end of the data,
  // and then fails as truncated.
  const bool overrun = set_len > left(ber);
  const char *end = overrun ? ber->ber_end : ber->ber_ptr + set_len;
  if constexpr (!std::is_same_v<T, char>) {
    if (!overrun && !converts(ber, translate)) {
      bool no_memory = false;
      ber_tag_t last_tag = LBER_DEFAULT;
      *out = read_values_block(ber, end, &no_memory, &last_tag);
      if (*out != nullptr) return last_tag;
      if (no_memory) return LBER_ERROR;
    }
  }
  T **vec = nullptr;
  size_t count = 0, cap = 0;
  ber_tag_t rc = LBER_DEFAULT;
  while (ber->ber_ptr < end) {
    if (count + 1 >= cap) {
      T **grown = grow_vector(vec, &cap);
      if (grown == nullptr) {
        rc = LBER_ERROR;
        break;
      }
      vec = grown;
    }
    vec[count] = nullptr;
    if constexpr (std::is_same_v<T, char>)
      rc = fber_get_stringa(ber, &vec[count], translate);
    else
      rc = fber_get_stringal(ber, &vec[count], translate);
    if (rc == LBER_DEFAULT) break;
    vec[++count] = nullptr;
  }
  if (overrun) rc = LBER_DEFAULT;
  if (rc == LBER_DEFAULT) {
    // The vector is the item that failed: hand back nothing of it.
    for (size_t i = 0; i < count; ++i) {
      if constexpr (std::is_same_v<T, char>)
        free(vec[i]);
      else
        fber_bvfree(vec[i]);
    }
    free(vec);
    return LBER_ERROR;
  }
  *out = vec;
  return rc;
}

}  // namespace

extern "C" {

ber_tag_t fber_skip_tag(BerElement *ber, ber_len_t *len) {
  ber_len_t l;
  char *contents;
  const ber_tag_t tag = parse_header(ber, &l, &contents);
  if (tag == LBER_DEFAULT) return LBER_DEFAULT;
  ber->ber_ptr = contents;
  if (len != nullptr) *len = l;
  return tag;
}

ber_tag_t fber_peek_tag(BerElement *ber, ber_len_t *len) {
  ber_len_t l;
  char *contents;
  const ber_tag_t tag = parse_header(ber, &l, &contents);
  if (tag != LBER_DEFAULT && len != nullptr) *len = l;
  return tag;
}

int fber_skip_element(BerElement *ber) {
  ber_len_t len;
  if (fber_skip_tag(ber, &len) == LBER_DEFAULT) return -1;
  ber->ber_ptr += len > left(ber) ? left(ber) : len;
  return 0;
}

ber_tag_t fber_first_element(BerElement *ber, ber_len_t *len, char **end_of_set) {
  char *start = ber->ber_ptr;
  ber_len_t set_len;
  if (enter(ber, &set_len) == LBER_DEFAULT) return LBER_DEFAULT;
  if (set_len == 0) return LBER_DEFAULT;
  *end_of_set = ber->ber_ptr + set_len;
  const ber_tag_t tag = fber_peek_tag(ber, len);
  if (tag == LBER_DEFAULT) ber->ber_ptr = start;
  return tag;
}

ber_len_t fber_read(BerElement *ber, char *dest, ber_len_t count) {
  const size_t n = count > left(ber) ? left(ber) : count;
  if (n != 0) memcpy(dest, ber->ber_ptr, n);
  ber->ber_ptr += n;
  return n;
}

ber_tag_t fber_get_long(BerElement *ber, int64_t *value) {
  char *start = ber->ber_ptr;
  ber_len_t len;
  const ber_tag_t tag = enter(ber, &len);
  if (tag == LBER_DEFAULT) return LBER_DEFAULT;
  if (len > 8) {
    ber->ber_ptr = start;
    return LBER_DEFAULT;
  }
  const auto *p = reinterpret_cast<const unsigned char *>(ber->ber_ptr);
  uint64_t v = (len != 0 && (p[0] & 0x80)) ? ~uint64_t{0} : 0;
  for (size_t i = 0; i < len; ++i) v = (v << 8) | p[i];
  ber->ber_ptr += len;
  *value = static_cast<int64_t>(v);
  return tag;
}

ber_tag_t fber_get_int(BerElement *ber, int *value) {
  int64_t v;
  const ber_tag_t tag = fber_get_long(ber, &v);
  if (tag != LBER_DEFAULT) *value = static_cast<int>(static_cast<uint32_t>(static_cast<uint64_t>(v)));
  return tag;
}

ber_tag_t fber_get_null(BerElement *ber) {
  char *start = ber->ber_ptr;
  ber_len_t len;
  const ber_tag_t tag = enter(ber, &len);
  if (tag == LBER_DEFAULT) return LBER_DEFAULT;
  if (len != 0) {
    ber->ber_ptr = start;
    return LBER_DEFAULT;
  }
  return tag;
}

ber_tag_t fber_get_stringa(BerElement *ber, char **out, int translate) {
  *out = nullptr;
  char *start = ber->ber_ptr;
  ber_len_t len, out_len;
  const ber_tag_t tag = enter(ber, &len);
  if (tag == LBER_DEFAULT) return LBER_DEFAULT;
  if (len >= kMaxContents || !take_string(ber, len, converts(ber, translate), out, &out_len)) {
    ber->ber_ptr = start;
    return LBER_DEFAULT;
  }
  ber->ber_ptr += len;
  return tag;
}

ber_tag_t fber_get_stringa_raw(BerElement *ber, char **out, ber_len_t *len_out) {
  *out = nullptr;
  char *start = ber->ber_ptr;
  ber_len_t len, out_len;
  const ber_tag_t tag = enter(ber, &len);
  if (tag == LBER_DEFAULT) return LBER_DEFAULT;
  if (len >= kMaxContents || !take_string(ber, len, false, out, &out_len)) {
    ber->ber_ptr = start;
    return LBER_DEFAULT;
  }
  ber->ber_ptr += len;
  if (len_out != nullptr) *len_out = len;
  return tag;
}

ber_tag_t fber_get_stringal(BerElement *ber, struct berval **out, int translate) {
  *out = nullptr;
  char *start = ber->ber_ptr;
  ber_len_t len;
  const ber_tag_t tag = enter(ber, &len);
  if (tag == LBER_DEFAULT) return LBER_DEFAULT;
  auto *bv = len < kMaxContents ? static_cast<struct berval *>(olx_malloc(sizeof(struct berval))) : nullptr;
  if (bv == nullptr || !take_string(ber, len, converts(ber, translate), &bv->bv_val, &bv->bv_len)) {
    free(bv);
    ber->ber_ptr = start;
    return LBER_DEFAULT;
  }
  ber->ber_ptr += len;
  *out = bv;
  return tag;
}

ber_tag_t fber_get_stringb(BerElement *ber, char *buf, ber_len_t *size_len, int translate) {
  char *start = ber->ber_ptr;
  const ber_len_t size = *size_len;
  ber_len_t len;
  const ber_tag_t tag = enter(ber, &len);
  if (tag == LBER_DEFAULT) return LBER_DEFAULT;
  // Room is checked before anything is consumed: the contents and a NUL.
  if (size == 0 || len > size - 1) {
    ber->ber_ptr = start;
    return LBER_DEFAULT;
  }
  if (len != 0) memcpy(buf, ber->ber_ptr, len);
  buf[len] = '\0';
  if (converts(ber, translate) && len != 0) {
    char *converted = buf;
    unsigned long n = len + 1;
    if (xlate_utf8_to_local(&converted, &n, 0) != 0) {
      ber->ber_ptr = start;
      return LBER_DEFAULT;
    }
    if (n > size || n == 0) {
      free(converted);
      ber->ber_ptr = start;
      return LBER_DEFAULT;
    }
    memcpy(buf, converted, n);
    free(converted);
    ber->ber_ptr += len;
    *size_len = n - 1;
    return tag;
  }
  ber->ber_ptr += len;
  *size_len = len;
  return tag;
}

ber_tag_t fber_get_bitstringa(BerElement *ber, char **out, ber_len_t *bits) {
  *out = nullptr;
  char *start = ber->ber_ptr;
  ber_len_t len;
  const ber_tag_t tag = enter(ber, &len);
  if (tag == LBER_DEFAULT) return LBER_DEFAULT;
  // The unused-bit count must be 0..7, and 0 when there are no bits at all.
  const unsigned unused = len != 0 ? static_cast<unsigned char>(ber->ber_ptr[0]) : 0;
  char *buf = nullptr;
  if (len == 0 || len >= kMaxContents || unused > 7 || (len == 1 && unused != 0) ||
      (buf = static_cast<char *>(olx_malloc(len - 1))) == nullptr) {
    ber->ber_ptr = start;
    return LBER_DEFAULT;
  }
  if (len > 1) memcpy(buf, ber->ber_ptr + 1, len - 1);
  ber->ber_ptr += len;
  *out = buf;
  *bits = (len - 1) * 8 - unused;
  return tag;
}

// fber_scanf(ber, "[V]", out) and "[v]" without reading a format: a value
// lookup runs once per attribute read.  With the BER trace on, fber_scanf
// itself runs, so the trace shows the same lines.
ber_tag_t fber_scan_values(BerElement *ber, struct berval ***out) {
  if (ldap_trace_enabled(LDAP_LOG_BER)) return fber_scanf(ber, "[V]", out);
  const ber_tag_t t = read_vector(ber, out, ber->ber_noxlate == nullptr || *ber->ber_noxlate == 0);
  return t == kUnchanged ? 0 : t;
}

ber_tag_t fber_scan_strings(BerElement *ber, char ***out) {
  if (ldap_trace_enabled(LDAP_LOG_BER)) return fber_scanf(ber, "[v]", out);
  const ber_tag_t t = read_vector(ber, out, ber->ber_noxlate == nullptr || *ber->ber_noxlate == 0);
  return t == kUnchanged ? 0 : t;
}

ber_tag_t fber_scanf(BerElement *ber, const char *format, ...) {
  const bool translate = ber->ber_noxlate == nullptr || *ber->ber_noxlate == 0;
  if (ldap_trace_enabled(LDAP_LOG_BER)) {
    if (ber->ber_ptr == ber->ber_buf) {
      ldap_log(LDAP_LOG_BER, "fber_scanf fmt (%s) ber:\n", format);
      fber_dump(ber, 1);
    } else {
      ldap_log(LDAP_LOG_BER, "fber_scanf fmt (%s) offset=%ld length=%ld\n", format,
               static_cast<long>(ber->ber_ptr - ber->ber_buf), static_cast<long>(ber->ber_end - ber->ber_buf));
    }
  }
  va_list ap;
  va_start(ap, format);
  ber_tag_t rc = 0;
  for (const char *f = format; *f != '\0' && rc != LBER_ERROR; ++f) {
    switch (*f) {
      case 'a':
        rc = fber_get_stringa(ber, va_arg(ap, char **), translate);
        break;
      case 's': {
        char *buf = va_arg(ap, char *);
        rc = fber_get_stringb(ber, buf, va_arg(ap, ber_len_t *), translate);
        break;
      }
      case 'O':
        rc = fber_get_stringal(ber, va_arg(ap, struct berval **), translate);
        break;
      case 'o': {
        struct berval *bv = va_arg(ap, struct berval *);
        bv->bv_len = 0;
        rc = fber_get_stringa_raw(ber, &bv->bv_val, &bv->bv_len);
        break;
      }
      case 'v': {
        const ber_tag_t t = read_vector(ber, va_arg(ap, char ***), translate);
        if (t != kUnchanged) rc = t;
        break;
      }
      case 'V': {
        const ber_tag_t t = read_vector(ber, va_arg(ap, struct berval ***), translate);
        if (t != kUnchanged) rc = t;
        break;
      }
      case 'i':
      case 'e':
      case 'b':
        rc = fber_get_int(ber, va_arg(ap, int *));
        break;
      case 'B': {
        char **buf = va_arg(ap, char **);
        rc = fber_get_bitstringa(ber, buf, va_arg(ap, ber_len_t *));
        break;
      }
      case 'n':
        rc = fber_get_null(ber);
        break;
      case 't':
        rc = fber_peek_tag(ber, nullptr);
        *va_arg(ap, int *) = static_cast<int>(static_cast<uint32_t>(rc));
        break;
      case 'T':
        rc = fber_skip_tag(ber, nullptr);
        *va_arg(ap, int *) = static_cast<int>(static_cast<uint32_t>(rc));
        break;
      case 'l': {
        ber_len_t *len = va_arg(ap, ber_len_t *);
        rc = fber_peek_tag(ber, len);
        break;
      }
      case 'x': {
        ber_len_t len;
        rc = fber_skip_tag(ber, &len);
        // An item running past the end leaves the cursor at the end, so every
        // later read of the element fails.
        if (rc != LBER_DEFAULT) ber->ber_ptr += len > left(ber) ? left(ber) : len;
        break;
      }
      case '{':
      case '[': {
        // The vector letters read the set header themselves.
        if (f[1] == 'v' || f[1] == 'V') break;
        rc = fber_skip_tag(ber, nullptr);
        break;
      }
      case '}':
      case ']':
        break;
      default:
        LDAP_LOG(LDAP_LOG_BER, "unknown fmt %c\n", *f);
        rc = LBER_ERROR;
        break;
    }
  }
  va_end(ap);
  return rc;
}

void fber_bvfree(struct berval *bv) {
  if (bv == nullptr) return;
  free(bv->bv_val);
  free(bv);
}

void fber_bvecfree(struct berval **bvec) {
  if (bvec == nullptr) return;
  size_t n = 0;
  while (bvec[n] != nullptr) ++n;
  // A list read as one block has its first record right after the pointers
  // (no separate allocation can start there: it is the list's own memory).
  if (n == 0 || reinterpret_cast<char *>(bvec[0]) != reinterpret_cast<char *>(bvec + n + 1))
    for (size_t i = 0; i < n; ++i) fber_bvfree(bvec[i]);
  free(bvec);
}

void fber_svecfree(char **vec) {
  if (vec == nullptr) return;
  for (size_t i = 0; vec[i] != nullptr; ++i) free(vec[i]);
  free(vec);
}
}
