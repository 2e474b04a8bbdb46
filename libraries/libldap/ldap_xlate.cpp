// Translation entry points: the codec's and the filter encoder's conversions
// between the local code page and UTF-8, the public buffer functions, and the
// dispatcher that serialises every conversion under the translation lock.
#include <strings.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-lock.h"
#include "ldap-utils.h"
#include "ldap-xlate.h"
#include "tavldap.h"

namespace {
std::atomic<int> g_identity{0};

bool two_step() {
  char *v = ldap_getenv("LDAP_USE_UNICODE");
  bool yes = v != nullptr && (v[0] == 'y' || v[0] == 'Y');
  free(v);
  return yes;
}

int map_errno(int e) {
  switch (e) {
    case ENOENT:
      return LDAP_XLATE_NO_MAPPING;
    case E2BIG:
      return LDAP_XLATE_OUTPUT_OVERFLOW;
    case EINVAL:
      return LDAP_XLATE_INPUT_TRUNCATED;
    case EILSEQ:
      return LDAP_XLATE_BAD_INPUT_CHAR;
    default:
      return LDAP_LOCAL_ERROR;
  }
}

// Local -> UTF-8 through UCS-2: the slot's converter gives big-endian UCS-2.
int xlate_codepage(ldap_iconv_handle *h, const char *in, size_t in_len, char **out, size_t *out_space) {
  size_t size = 3 * *out_space + 2;
  char *ucs = static_cast<char *>(olx_calloc(1, size));
  if (ucs == nullptr) return LDAP_NO_MEMORY;
  char *pos = ucs;
  size_t left = size;
  int rc = ldap_xlate_iconv(h, in, in_len, &pos, &left);
  if (rc == 0) {
    size_t produced = size - left;
    if (ldap_trace_enabled(LDAP_LOG_XLATE)) ldap_log_dump(ucs, produced, "ldap_xlate_codepage(): ( unicode ):");
    LDAP_LOG(LDAP_LOG_TRACE, "calling convert_UniCodetoUTF8():\n");
    LDAP_LOG(LDAP_LOG_TRACE, "\toutlen1 - outbytesleft1 = inlen1 : %d - %d = %d\n", static_cast<int>(size),
             static_cast<int>(left), static_cast<int>(produced));
    char *utf8 = nullptr;
    size_t n = 0;
    rc = convert_UniCodetoUTF8(reinterpret_cast<unsigned char *>(ucs), produced, 2, &utf8, &n);
    if (rc == 0) {
      if (n > *out_space) n = *out_space;
      memcpy(*out, utf8, n);
      *out += n;
      *out_space -= n;
      free(utf8);
    }
  }
  free(ucs);
  return rc;
}

// UTF-8 -> local through UCS-2.  Characters beyond the BMP have no UCS-2 unit
// and become "?".
int utf8_transform_then_translate(ldap_iconv_handle *h, const char *in, size_t in_len, char **out, size_t *out_space) {
  LDAP_LOG(LDAP_LOG_XLATE, "utf8_transform_then_translate()\n");
  unsigned char *units = nullptr;
  size_t bytes = 0;
  int width = 2;
  int rc = ldap_utf8_to_unicode(reinterpret_cast<const unsigned char *>(in), in_len, &units, &bytes, &width);
  if (rc != 0) return rc;
  if (width != 2) {
    size_t count = bytes / width, k = 0;
    for (size_t i = 0; i < count; ++i) {
      uint32_t v = 0;
      for (int j = 0; j < width; ++j) v = v << 8 | units[i * width + j];
      if (v > 0xFFFF) v = '?';
      units[k++] = static_cast<unsigned char>(v >> 8);
      units[k++] = static_cast<unsigned char>(v);
    }
    bytes = k;
  }
  if (ldap_trace_enabled(LDAP_LOG_XLATE)) ldap_log_dump(units, bytes, "( Unicode ):");
  rc = ldap_xlate_iconv(h, reinterpret_cast<char *>(units), bytes, out, out_space);
  free(units);
  return rc;
}

int public_form(const char *name, const char *in, size_t *in_len, char *out, size_t *out_space, int direction) {
  if (in == nullptr || in_len == nullptr || out == nullptr || out_space == nullptr) return LDAP_PARAM_ERROR;
  static const char *const kOther[] = {"UTF-8", "UTF-8", "UCS-2", "UCS-2"};
  if (ldap_trace_on()) {
    char *loc = ldap_get_current_locale();
    LDAP_LOG(LDAP_LOG_XLATE, "%s() locale: %s\tcodeset: %s\n", name, ldap_trace_str(loc, "NULL"),
             ldap_trace_str(ldap_xlate_globals.codepage, "NULL"));
    free(loc);
  }
  char title[80];
  if (ldap_trace_enabled(LDAP_LOG_XLATE)) {
    snprintf(title, sizeof title, "%s input data ( before ):", name);
    ldap_log_dump(in, *in_len, title);
  }
  const size_t space = *out_space;
  int rc = ldap_xlate_dispatch(in, *in_len, out, out_space, kOther[direction], direction,
                               &ldap_xlate_globals.reset[direction]);
  if (ldap_trace_enabled(LDAP_LOG_XLATE)) {
    snprintf(title, sizeof title, "%s input data ( after ):", name);
    ldap_log_dump(out, space - *out_space, title);
  }
  return rc;
}

int xlate_buffer(char **buffer, unsigned long *length, int free_input, int direction) {
  if (buffer == nullptr || length == nullptr || (*buffer == nullptr && *length != 0)) return LDAP_PARAM_ERROR;
  const bool to_utf8 = direction == XLATE_LOCAL_TO_UTF8;
  if (ldap_trace_on()) {
    char *loc = to_utf8 ? ldap_get_current_locale() : nullptr;
    LDAP_LOG(LDAP_LOG_XLATE,
             to_utf8 ? "ldap_xlate_local_to_utf8: codepage = %s, locale = %s\n"
                     : "xlate_utf8_to_local() : codepage = %s, locale = %s\n",
             ldap_trace_str(ldap_xlate_globals.codepage, "NULL"), ldap_trace_str(loc, "NULL"));
    free(loc);
  }
  if (ldap_trace_enabled(LDAP_LOG_XLATE))
    ldap_log_dump(*buffer, *length,
                  to_utf8 ? "xlate_local_to_utf8 input data (before):" : "xlate_utf8_to_local input data (before): ");
  // One spare byte keeps the result NUL-terminated for the filter encoder.
  const size_t size = 3 * *length;
  char *out = static_cast<char *>(olx_calloc(1, size + 1));
  if (out == nullptr) return LDAP_NO_MEMORY;
  size_t space = size;
  int rc = ldap_xlate_dispatch(*buffer, *length, out, &space, "UTF-8", direction, &ldap_xlate_globals.reset[direction]);
  if (rc != 0) {
    free(out);
    return rc;
  }
  if (free_input && *buffer != nullptr) free(*buffer);
  *buffer = out;
  *length = size - space;
  if (ldap_trace_enabled(LDAP_LOG_XLATE))
    ldap_log_dump(out, *length,
                  to_utf8 ? "xlate_local_to_utf8 input data (after):" : "xlate_utf8_to_local input data (after): ");
  return 0;
}
}  // namespace

extern "C" {

void ldap_xlate_note_codepage(void) {
  // Any spelling of UTF-8 ("UTF-8", "utf8", the locale's "UTF-8") copies.
  char norm[8] = "";
  size_t k = 0;
  for (const char *p = ldap_xlate_globals.codepage; p != nullptr && *p && k + 1 < sizeof norm; ++p)
    if (isalnum(static_cast<unsigned char>(*p))) norm[k++] = static_cast<char>(toupper(static_cast<unsigned char>(*p)));
  norm[k] = '\0';
  g_identity.store(strcmp(norm, "UTF8") == 0, std::memory_order_relaxed);
}

int xlate_is_identity(void) { return g_identity.load(std::memory_order_relaxed) && !two_step(); }

int xlate_local_to_utf8(char **buffer, unsigned long *length, int free_input) {
  return xlate_buffer(buffer, length, free_input, XLATE_LOCAL_TO_UTF8);
}

int xlate_utf8_to_local(char **buffer, unsigned long *length, int free_input) {
  return xlate_buffer(buffer, length, free_input, XLATE_UTF8_TO_LOCAL);
}

int ldap_xlate_local_to_utf8(const char *in, size_t *in_len, char *out, size_t *out_space) {
  return public_form("ldap_xlate_local_to_utf8", in, in_len, out, out_space, XLATE_LOCAL_TO_UTF8);
}
int ldap_xlate_utf8_to_local(const char *in, size_t *in_len, char *out, size_t *out_space) {
  return public_form("ldap_xlate_utf8_to_local", in, in_len, out, out_space, XLATE_UTF8_TO_LOCAL);
}
int ldap_xlate_local_to_unicode(const char *in, size_t *in_len, char *out, size_t *out_space) {
  return public_form("ldap_xlate_local_to_unicode", in, in_len, out, out_space, XLATE_LOCAL_TO_UCS2);
}
int ldap_xlate_unicode_to_local(const char *in, size_t *in_len, char *out, size_t *out_space) {
  return public_form("ldap_xlate_unicode_to_local", in, in_len, out, out_space, XLATE_UCS2_TO_LOCAL);
}

int ldap_xlate_local_to_utf8_wrp(const char *string, char **out) {
  if (out != nullptr) *out = nullptr;
  if (string == nullptr) {
    LDAP_LOG(LDAP_LOG_XLATE, "ldap_xlate_local_to_utf8_wrp: inbufp passed in as NULL!\n");
    return 1;
  }
  if (out == nullptr) return LDAP_PARAM_ERROR;
  char buf[1024] = {0};
  size_t len = strlen(string), space = sizeof buf - 1;  // the last byte stays the terminator
  int rc = ldap_xlate_local_to_utf8(string, &len, buf, &space);
  if (rc != 0) return rc;
  *out = olx_strdup(buf);
  if (*out == nullptr) {
    LDAP_LOG(LDAP_LOG_XLATE, "ldap_xlate_local_to_utf8_wrp: Memory allocation failure!\n");
    return LDAP_NO_MEMORY;
  }
  return 0;
}

int ldap_xlate_dispatch(const char *in, size_t in_len, char *out, size_t *out_space, const char *other, int direction,
                        int *reset) {
  const bool unicode = two_step();
  ldap_lock_xlate();
  char *pos = out;
  int rc = 0;
  // The two-step path's converters give and take UCS-2, which it turns into
  // UTF-8 itself; they live in the UCS-2 slots, so those slots' own flags say
  // when to re-open them.
  const char *mid = unicode ? "UCS-2" : other;
  ldap_xlate_state &g = ldap_xlate_globals;
  switch (direction) {
    case XLATE_LOCAL_TO_UTF8: {
      ldap_iconv_handle **slot = &g.slot[unicode ? XLATE_LOCAL_TO_UCS2 : XLATE_LOCAL_TO_UTF8];
      rc = ldap_init_iconv(slot, mid, 1, unicode ? &g.reset[XLATE_LOCAL_TO_UCS2] : reset);
      if (rc == 0)
        rc = unicode && *slot != nullptr ? xlate_codepage(*slot, in, in_len, &pos, out_space)
                                         : ldap_xlate_iconv(*slot, in, in_len, &pos, out_space);
      break;
    }
    case XLATE_UTF8_TO_LOCAL: {
      ldap_iconv_handle **slot = &g.slot[unicode ? XLATE_UCS2_TO_LOCAL : XLATE_UTF8_TO_LOCAL];
      rc = ldap_init_iconv(slot, mid, 0, unicode ? &g.reset[XLATE_UCS2_TO_LOCAL] : reset);
      if (rc == 0)
        rc = unicode && *slot != nullptr ? utf8_transform_then_translate(*slot, in, in_len, &pos, out_space)
                                         : ldap_xlate_iconv(*slot, in, in_len, &pos, out_space);
      break;
    }
    case XLATE_LOCAL_TO_UCS2:
    case XLATE_UCS2_TO_LOCAL:
      rc = ldap_init_iconv(&g.slot[direction], other, direction == XLATE_LOCAL_TO_UCS2, reset);
      if (rc == 0) rc = ldap_xlate_iconv(g.slot[direction], in, in_len, &pos, out_space);
      break;
    default:
      break;
  }
  ldap_unlock_xlate();
  return rc;
}

int ldap_init_iconv(ldap_iconv_handle **slot, const char *other, int to_other, int *reset) {
  ldap_xlate_state &g = ldap_xlate_globals;
  if (*slot != nullptr && *reset == 0) return 0;
  if (g.locale == nullptr) {
    if (ldap_set_locale("") != 0) return LDAP_LOCAL_ERROR;
    if (ldap_set_iconv_local_codepage(nullptr) != 0) return LDAP_LOCAL_ERROR;
    LDAP_LOG(LDAP_LOG_XLATE, "ldap_init_iconv: codepage = %s, locale = %s\n", ldap_trace_str(g.codepage, "NULL"),
             ldap_trace_str(g.locale, "NULL"));
  }
  if (*slot == nullptr) ldap_set_locpath();
  if (*reset) {
    ldap_iconv_close(*slot);
    *slot = nullptr;
  }
  if (g.codepage == nullptr && ldap_set_iconv_local_codepage(nullptr) != 0) return LDAP_LOCAL_ERROR;
  const char *local = g.codepage;
  LDAP_LOG(LDAP_LOG_XLATE, "Local code page = %s\n", local);
  *reset = 0;
  const char *target = to_other ? other : local;
  const char *source = to_other ? local : other;
  if (strcmp(target, source) == 0) return 0;  // same code set: strings are copied
  char *backslash = ldap_getenv("LDAP_BACKSLASH");
  bool path = backslash != nullptr && (strcmp(backslash, "YES") == 0 || strcmp(backslash, "yes") == 0);
  free(backslash);
  char *decorated = nullptr;
  if (path) {
    size_t n = strlen(target) + sizeof "@path=yes";
    decorated = static_cast<char *>(olx_malloc(n));
    if (decorated == nullptr) return LDAP_NO_MEMORY;
    snprintf(decorated, n, "%s@path=yes", target);
    target = decorated;
  }
  *slot = ldap_iconv_open(target, source);
  int rc = 0;
  if (*slot == nullptr) {
    LDAP_LOG(LDAP_LOG_XLATE, "ldap_iconv_open(%s, %s) failed\n", target, source);
    rc = LDAP_LOCAL_ERROR;
  } else {
    LDAP_LOG(LDAP_LOG_XLATE, "ldap_iconv_open(%s, %s) successful:             handle = %p\n", target, source,
             static_cast<void *>(*slot));
  }
  free(decorated);
  return rc;
}

int ldap_xlate_iconv(ldap_iconv_handle *h, const char *in, size_t in_len, char **out, size_t *out_space) {
  if (h == nullptr) {
    if (in_len > *out_space) return LDAP_XLATE_OUTPUT_OVERFLOW;
    if (in_len != 0) memcpy(*out, in, in_len);
    *out += in_len;
    *out_space -= in_len;
    return 0;
  }
  if (in_len == 0) return 0;
  errno = 0;
  size_t remaining = in_len;
  int tolerated = 0;
  while (remaining > 0) {
    size_t chunk = remaining < 2000 ? remaining : 2000;
    size_t left = chunk;
    int rc = ldap_iconv(h, &in, &left, out, out_space);
    size_t consumed = chunk - left;
    remaining -= consumed;
    if (rc != 0) {
      // A sequence cut by the chunk's end is taken up by the next chunk.
      if (errno == EINVAL && remaining > left && consumed > 0) continue;
      int code = map_errno(errno);
      if (code == LDAP_LOCAL_ERROR && ++tolerated < 2 && consumed > 0) continue;
      return code;
    }
    // Nothing taken from a non-empty chunk: the input is ill-formed there.
    if (consumed == 0) return LDAP_XLATE_BAD_INPUT_CHAR;
  }
  if (ldap_iconv(h, nullptr, nullptr, out, out_space) != 0) return LDAP_XLATE_OUTPUT_OVERFLOW;
  return 0;
}

int convert_UniCodetoUTF8(const unsigned char *data, size_t length, int unit, char **out, size_t *out_len) {
  if (unit <= 0 || length % unit != 0) return LDAP_ENCODING_ERROR;
  size_t count = length / unit;
  char *buf = static_cast<char *>(olx_malloc(3 * count + 1));
  if (buf == nullptr) return LDAP_NO_MEMORY;
  size_t n = 0;
  for (size_t i = 0; i < count; ++i) {
    uint32_t v = 0;
    for (int j = 0; j < unit; ++j) v = v << 8 | data[i * unit + j];
    v &= 0xFFFF;
    if (v < 0x80) {
      buf[n++] = static_cast<char>(v);
    } else if (v < 0x800) {
      buf[n++] = static_cast<char>(0xC0 | v >> 6);
      buf[n++] = static_cast<char>(0x80 | (v & 0x3F));
    } else {
      buf[n++] = static_cast<char>(0xE0 | v >> 12);
      buf[n++] = static_cast<char>(0x80 | (v >> 6 & 0x3F));
      buf[n++] = static_cast<char>(0x80 | (v & 0x3F));
    }
  }
  buf[n] = '\0';
  *out = buf;
  *out_len = n;
  return 0;
}

int ldap_utf8_to_unicode(const unsigned char *in, size_t length, unsigned char **units, size_t *bytes, int *width) {
  *units = nullptr;
  *bytes = 0;
  auto *values = static_cast<uint32_t *>(olx_malloc(4 * (length + 1)));
  if (values == nullptr) return LDAP_NO_MEMORY;
  size_t count = 0;
  int w = 2;
  for (size_t i = 0; i < length;) {
    unsigned b = in[i];
    unsigned n = b >= 0xFE ? 7 : b >= 0xFC ? 6 : b >= 0xF8 ? 5 : b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 1;
    if (b >= 0x80 && b < 0xC0) {
      free(values);
      return LDAP_DECODING_ERROR;
    }
    uint32_t v = n == 1 ? b : n == 7 ? 0 : b & (0x7F >> n);
    for (unsigned k = 1; k < n && i + k < length; ++k) v = v << 6 | (in[i + k] & 0x3F);
    if (n == 4 && w < 3) w = 3;
    if (n > 4) w = 4;
    values[count++] = v;
    i += n;
  }
  auto *out = static_cast<unsigned char *>(olx_malloc(w * count + 1));
  if (out == nullptr) {
    free(values);
    return LDAP_NO_MEMORY;
  }
  for (size_t i = 0; i < count; ++i)
    for (int j = 0; j < w; ++j) out[i * w + j] = static_cast<unsigned char>(values[i] >> (8 * (w - 1 - j)));
  free(values);
  *units = out;
  *bytes = w * count;
  *width = w;
  return 0;
}

}  // extern "C"
