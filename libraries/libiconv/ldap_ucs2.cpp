// UCS-2 strings: the C string functions for 16-bit characters.
#include <cstddef>
#include <cstdint>

#include "ldap-iconv.h"

extern "C" {

size_t ldap_ucs2_len(const uint16_t *s) {
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}
size_t ldap_ucs2_nlen(const uint16_t *s, size_t n) {
  size_t i = 0;
  while (i < n && s[i]) ++i;
  return i;
}
uint16_t *ldap_ucs2_cpy(uint16_t *dst, const uint16_t *src) {
  size_t i = 0;
  do dst[i] = src[i];
  while (src[i++]);
  return dst;
}
uint16_t *ldap_ucs2_ncpy(uint16_t *dst, const uint16_t *src, size_t n) {
  size_t i = 0;
  for (; i < n && src[i]; ++i) dst[i] = src[i];
  for (; i < n; ++i) dst[i] = 0;
  return dst;
}
uint16_t *ldap_ucs2_cat(uint16_t *dst, const uint16_t *src) {
  ldap_ucs2_cpy(dst + ldap_ucs2_len(dst), src);
  return dst;
}
uint16_t *ldap_ucs2_ncat(uint16_t *dst, const uint16_t *src, size_t n) {
  uint16_t *d = dst + ldap_ucs2_len(dst);
  size_t i = 0;
  for (; i < n && src[i]; ++i) d[i] = src[i];
  d[i] = 0;
  return dst;
}
int ldap_ucs2_ncmp(const uint16_t *a, const uint16_t *b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
    if (a[i] == 0) return 0;
  }
  return 0;
}
uint16_t *ldap_ucs2_chr(const uint16_t *s, uint16_t c) {
  for (;; ++s) {
    if (*s == c) return const_cast<uint16_t *>(s);
    if (*s == 0) return nullptr;
  }
}
uint16_t *ldap_ucs2_rchr(const uint16_t *s, uint16_t c) {
  const uint16_t *found = nullptr;
  for (;; ++s) {
    if (*s == c) found = s;
    if (*s == 0) return const_cast<uint16_t *>(found);
  }
}
size_t ldap_ucs2_spn(const uint16_t *s, const uint16_t *set) {
  size_t i = 0;
  while (s[i] && ldap_ucs2_chr(set, s[i]) != nullptr) ++i;
  return i;
}
size_t ldap_ucs2_cspn(const uint16_t *s, const uint16_t *set) {
  size_t i = 0;
  while (s[i] && ldap_ucs2_chr(set, s[i]) == nullptr) ++i;
  return i;
}
uint16_t *ldap_ucs2_pbrk(const uint16_t *s, const uint16_t *set) {
  s += ldap_ucs2_cspn(s, set);
  return *s ? const_cast<uint16_t *>(s) : nullptr;
}
uint16_t *ldap_ucs2_str(const uint16_t *s, const uint16_t *sub) {
  size_t n = ldap_ucs2_len(sub);
  for (; *s; ++s)
    if (ldap_ucs2_ncmp(s, sub, n) == 0) return const_cast<uint16_t *>(s);
  return n == 0 ? const_cast<uint16_t *>(s) : nullptr;
}
uint16_t *ldap_ucs2_tok(uint16_t *s, const uint16_t *delim, uint16_t **pos) {
  if (s == nullptr) s = *pos;
  if (s == nullptr) return nullptr;
  s += ldap_ucs2_spn(s, delim);
  if (*s == 0) {
    *pos = nullptr;
    return nullptr;
  }
  uint16_t *end = s + ldap_ucs2_cspn(s, delim);
  if (*end) {
    *end = 0;
    *pos = end + 1;
  } else {
    *pos = nullptr;
  }
  return s;
}

}  // extern "C"
