// The iconv-style wrapper over the converter engine, as the translation entry
// points use it: one handle per direction, the engine's converter standing for
// the local side.
#include "ldap-iconv.h"

#include <pthread.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-utils.h"

namespace {
pthread_mutex_t g_wrapper_mutex = PTHREAD_MUTEX_INITIALIZER;

bool is_utf8(const char *name) { return strcasecmp(name, "UTF-8") == 0; }
bool is_ucs2(const char *name) { return strcasecmp(name, "UCS-2") == 0; }

// "@path=yes" asks for the table to be taken as a path; the engine takes any
// name with a slash as one, so the suffix itself is dropped.
char *without_modifier(const char *name) {
  const char *at = strchr(name, '@');
  return at != nullptr ? olx_strndup(name, at - name) : olx_strdup(name);
}
}  // namespace

extern "C" {

int ldap_iconv_lock(void) { return pthread_mutex_lock(&g_wrapper_mutex); }
int ldap_iconv_unlock(void) { return pthread_mutex_unlock(&g_wrapper_mutex); }

ldap_iconv_handle *ldap_iconv_open(const char *target, const char *source) {
  if (target == nullptr || source == nullptr) return nullptr;
  auto *h = static_cast<ldap_iconv_handle *>(olx_calloc(1, sizeof(ldap_iconv_handle)));
  if (h == nullptr) return nullptr;
  h->source = without_modifier(source);
  h->target = without_modifier(target);
  if (h->source != nullptr && h->target != nullptr) {
    // The local side is the one that is not UCS-2; between UCS-2 and UTF-8
    // it is UTF-8 itself (a UTF-8 local code page), the built-in converter.
    const char *local = is_ucs2(h->source)                         ? h->target
                        : is_utf8(h->target) || is_ucs2(h->target) ? h->source
                                                                   : h->target;
    h->cv = ldap_cs_open(local);
  }
  if (h->cv == nullptr) {
    ldap_iconv_close(h);
    return nullptr;
  }
  return h;
}

int ldap_iconv(ldap_iconv_handle *h, const char **in, size_t *in_left, char **out, size_t *out_left) {
  if (h == nullptr || out == nullptr || *out == nullptr || out_left == nullptr) {
    errno = EINVAL;
    return -1;
  }
  auto *o = reinterpret_cast<unsigned char *>(*out);
  unsigned char *o_end = o + *out_left;
  const bool to_local = !is_utf8(h->target) && !is_ucs2(h->target);
  int rc = 0;
  if (in == nullptr || *in == nullptr || in_left == nullptr) {
    // End of the text: kind 4 returns to single-byte mode, every state resets.
    if (to_local) rc = ldap_cs_step_from_utf8(h->cv, nullptr, nullptr, &o, o_end);
    h->cv->from_state = h->cv->to_state = 0;
  } else {
    const auto *i = reinterpret_cast<const unsigned char *>(*in);
    const unsigned char *i_end = i + *in_left;
    uint16_t units[2048];
    if (is_ucs2(h->target)) {
      // UCS-2 travels as big-endian byte pairs; the engine works on units.
      uint16_t *u = units;
      rc = ldap_cs_step_to_ucs2(h->cv, &i, i_end, &u, units + std::min<size_t>(2048, *out_left / 2));
      for (uint16_t *p = units; p < u; ++p) {
        *o++ = static_cast<unsigned char>(*p >> 8);
        *o++ = static_cast<unsigned char>(*p);
      }
      // A full output is rc 1; stopping with input left is ill-formed UTF-8.
      if (rc == 0 && i < i_end) rc = 3;
    } else if (is_ucs2(h->source)) {
      size_t count = std::min<size_t>(2048, *in_left / 2);
      for (size_t k = 0; k < count; ++k) units[k] = static_cast<uint16_t>(i[2 * k] << 8 | i[2 * k + 1]);
      const uint16_t *u = units;
      rc = count != 0 ? ldap_cs_step_from_ucs2(h->cv, &u, units + count, &o, o_end) : 0;
      i += 2 * (u - units);
      if (rc == 0 && i < i_end) rc = i_end - i == 1 ? 2 : 1;
    } else if (is_utf8(h->target)) {
      rc = ldap_cs_step_to_utf8(h->cv, &i, i_end, &o, o_end);
    } else {
      rc = i < i_end ? ldap_cs_step_from_utf8(h->cv, &i, i_end, &o, o_end) : 0;
    }
    *in_left -= i - reinterpret_cast<const unsigned char *>(*in);
    *in = reinterpret_cast<const char *>(i);
  }
  *out_left -= o - reinterpret_cast<unsigned char *>(*out);
  *out = reinterpret_cast<char *>(o);
  if (rc == 0) return 0;
  errno = rc == 1 ? E2BIG : rc == 3 ? EILSEQ : EINVAL;
  return -1;
}

int ldap_iconv_close(ldap_iconv_handle *h) {
  if (h == nullptr) return 0;
  free(h->source);
  free(h->target);
  ldap_cs_close(h->cv);
  free(h);
  return 0;
}

char *ldap_nl_langinfo(void) {
  char *buf = static_cast<char *>(olx_calloc(1, 33));
  if (buf == nullptr) return nullptr;
  if (ldap_cs_os_codeset_name(buf, 32) != 0) {
    free(buf);
    return nullptr;
  }
  return buf;
}

}  // extern "C"
