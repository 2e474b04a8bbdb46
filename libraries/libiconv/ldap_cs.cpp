// The code-set converter's entry points: opening converters by name (the
// built-in UTF-8 and OS ones, or tables: ldap_cs_tables.cpp), the default
// converter, whole-string conversions and the environment paths the table
// search reads.  The conversion kernels are in ldap_cs_convert.cpp, the
// UCS-2 string functions in ldap_ucs2.cpp.
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

using namespace ldap_cs_internal;

namespace {

ldap_cs_converter g_utf8 = {nullptr, 6, "UTF8", 0, 0, {0, 0, 0}, {0}, 0, 0, 0, nullptr};
ldap_cs_converter g_os = {nullptr, 9, "OS", 0, 0, {0, 0, 0}, {0}, 0, 0, 0, nullptr};
bool is_builtin(const ldap_cs_converter *cv) { return cv == &g_utf8 || cv == &g_os; }

// Recursive: opening the default converter may read a redirection, which
// converts its text with the default converter.
std::recursive_mutex g_init_mutex;
bool g_initialised = false;
ldap_cs_converter *g_default = nullptr;
ldap_cs_converter *g_os_cv = nullptr;
char *g_nlspath_env = nullptr;
char *g_tisdir_env = nullptr;

}  // namespace

extern "C" {

int ldap_cs_normalize_name(const char *name, char *out, size_t size) {
  if (name == nullptr || out == nullptr || size == 0) return -1;
  char up[256];
  size_t k = 0;
  for (const char *p = name; *p && k + 1 < sizeof up; ++p) up[k++] = static_cast<char>(toupper((unsigned char)*p));
  up[k] = '\0';
  if (strcmp(up, "DOS") == 0 || strcmp(up, "WIN") == 0 || strcmp(up, "OS") == 0) {
    // The current locale's code set: the translation entry points set the
    // locale before they ask, and the engine leaves the application's alone.
    ldap_iconv_lock();
    const char *cs = nl_langinfo(CODESET);
    snprintf(up, sizeof up, "%s", cs != nullptr && *cs ? cs : "ISO88591");
    ldap_iconv_unlock();
    for (char *p = up; *p; ++p) *p = static_cast<char>(toupper((unsigned char)*p));
  }
  const char *p = up;
  if (strncmp(p, "KRV", 3) == 0) p += 3;
  k = 0;
  for (; *p && k + 1 < size; ++p)
    if (isalnum((unsigned char)*p)) out[k++] = *p;
  out[k] = '\0';
  lookup_alias(out, size);
  return 0;
}

ldap_cs_converter *ldap_cs_open(const char *name) {
  if (name == nullptr) return nullptr;
  if (strchr(name, '/') != nullptr || strchr(name, '\\') != nullptr) {
    unsigned char *data;
    uint32_t size;
    if (!read_file(name, &data, &size)) return nullptr;
    ldap_cs_converter *cv = make_converter(data, size);
    if (cv == nullptr) free(data);
    return cv;
  }
  char norm[33];
  ldap_cs_normalize_name(name, norm, sizeof norm);
  if (strcmp(norm, "UTF8") == 0) return &g_utf8;
  if (strcmp(norm, "OS") == 0) return &g_os;
  if (norm[0] == '\0') return nullptr;
  return find_table(norm);
}

ldap_cs_converter *ldap_cs_open_image(const unsigned char *image, size_t size) {
  if (image == nullptr || size > 0xFFFFFFFFu) return nullptr;
  auto *copy = static_cast<unsigned char *>(olx_malloc(size ? size : 1));
  if (copy == nullptr) return nullptr;
  if (size) memcpy(copy, image, size);
  ldap_cs_converter *cv = make_converter(copy, static_cast<uint32_t>(size));
  if (cv == nullptr) free(copy);
  return cv;
}

int ldap_cs_close(ldap_cs_converter *cv) {
  if (cv == nullptr || is_builtin(cv)) return 0;
  if (cv == g_default) g_default = &g_os;
  if (cv == g_os_cv) g_os_cv = &g_os;
  if (!cv->shared) {
    free(cv->table);
    free(cv->two_byte);
  }
  free(cv);
  return 0;
}

ldap_cs_converter *ldap_cs_clone(ldap_cs_converter *cv) {
  if (cv == nullptr) cv = ldap_cs_get_default();
  if (is_builtin(cv)) return cv;
  auto *c = static_cast<ldap_cs_converter *>(olx_malloc(sizeof(ldap_cs_converter)));
  if (c == nullptr) return nullptr;
  *c = *cv;
  c->subst_count = 0;
  c->from_state = c->to_state = 0;
  c->shared = 1;
  return c;
}

const unsigned char *ldap_cs_get_table(ldap_cs_converter *cv, uint32_t *size) {
  if (cv == nullptr) cv = ldap_cs_get_default();
  if (size != nullptr) *size = cv->table_size;
  return cv->table;
}

void ldap_cs_set_default(ldap_cs_converter *cv) {
  ldap_cs_init();
  g_default = cv != nullptr ? cv : &g_os;
}

ldap_cs_converter *ldap_cs_get_default(void) {
  ldap_cs_init();
  return g_default != nullptr ? g_default : &g_os;
}

const char *ldap_cs_get_name(ldap_cs_converter *cv) {
  if (cv == nullptr) cv = ldap_cs_get_default();
  return cv->name;
}

int ldap_cs_os_codeset_name(char *buffer, size_t size) {
  if (buffer == nullptr || size == 0) return -1;
  return ldap_cs_normalize_name("OS", buffer, size);
}

int ldap_cs_init(void) {
  std::lock_guard<std::recursive_mutex> guard(g_init_mutex);
  if (g_initialised) return 0;
  g_initialised = true;  // first: opening a table may read a redirection through the default
  g_default = &g_os;
  const char *tis = getenv("TIS_CODESET");
  ldap_cs_converter *cv = ldap_cs_open(tis != nullptr && *tis ? tis : "OS");
  if (cv == nullptr) cv = ldap_cs_open("DEFAULT");
  g_default = cv != nullptr ? cv : &g_os;
  char os[33];
  ldap_cs_os_codeset_name(os, sizeof os);
  g_os_cv = ldap_cs_open(os);
  if (g_os_cv == nullptr) g_os_cv = ldap_cs_open("OSDEFAULT");
  return 0;
}

int ldap_cs_term(void) {
  std::lock_guard<std::recursive_mutex> guard(g_init_mutex);
  if (!g_initialised) return 0;
  ldap_cs_converter *d = g_default, *o = g_os_cv;
  g_default = g_os_cv = nullptr;
  if (o != d) ldap_cs_close(o);
  ldap_cs_close(d);
  g_initialised = false;
  return 0;
}

}  // extern "C"

namespace {
// The variable string stays in the environment; the one it replaces is freed.
int put_env(char **slot, char *text) {
  if (text == nullptr) return -1;
  if (putenv(text) != 0) {
    free(text);
    return -1;
  }
  free(*slot);
  *slot = text;
  return 0;
}
char *format(const char *a, const char *b, const char *c) {
  size_t n = strlen(a) + strlen(b) + strlen(c) + 1;
  char *s = static_cast<char *>(olx_malloc(n));
  if (s != nullptr) snprintf(s, n, "%s%s%s", a, b, c);
  return s;
}

template <class In, class Out>
long convert_string(ldap_cs_converter *cv, const In *in, long len, Out *out, long size,
                    int (*step)(ldap_cs_converter *, const In **, const In *, Out **, Out *), bool flush) {
  if (cv == nullptr) cv = ldap_cs_get_default();
  if (in == nullptr || out == nullptr || size < 0) return 0;
  bool terminate = len < 0;
  if (terminate) {
    len = 0;
    while (in[len] != 0) ++len;
    if (size == 0) return 0;
    --size;
  }
  cv->from_state = cv->to_state = 0;
  const In *ip = in;
  Out *op = out;
  step(cv, &ip, in + len, &op, out + size);
  if (flush) step(cv, &ip, ip, &op, out + size);
  cv->from_state = cv->to_state = 0;
  long n = op - out;
  if (terminate) out[n++] = 0;
  return n;
}

int to_ucs2_u8(ldap_cs_converter *cv, const char **i, const char *e, uint16_t **o, uint16_t *oe) {
  return ldap_cs_step_to_ucs2(cv, reinterpret_cast<const unsigned char **>(i),
                              reinterpret_cast<const unsigned char *>(e), o, oe);
}
int from_ucs2_u8(ldap_cs_converter *cv, const uint16_t **i, const uint16_t *e, char **o, char *oe) {
  return ldap_cs_step_from_ucs2(cv, i, e, reinterpret_cast<unsigned char **>(o), reinterpret_cast<unsigned char *>(oe));
}
int to_utf8_c(ldap_cs_converter *cv, const char **i, const char *e, char **o, char *oe) {
  return ldap_cs_step_to_utf8(cv, reinterpret_cast<const unsigned char **>(i),
                              reinterpret_cast<const unsigned char *>(e), reinterpret_cast<unsigned char **>(o),
                              reinterpret_cast<unsigned char *>(oe));
}
int from_utf8_c(ldap_cs_converter *cv, const char **i, const char *e, char **o, char *oe) {
  return ldap_cs_step_from_utf8(cv, reinterpret_cast<const unsigned char **>(i),
                                reinterpret_cast<const unsigned char *>(e), reinterpret_cast<unsigned char **>(o),
                                reinterpret_cast<unsigned char *>(oe));
}
}  // namespace

extern "C" {

long ldap_cs_to_utf8(ldap_cs_converter *cv, const char *in, long len, char *out, long size) {
  return convert_string<char, char>(cv, in, len, out, size, to_utf8_c, false);
}
long ldap_cs_from_utf8(ldap_cs_converter *cv, const char *in, long len, char *out, long size) {
  return convert_string<char, char>(cv, in, len, out, size, from_utf8_c, true);
}
long ldap_cs_to_ucs2(ldap_cs_converter *cv, const char *in, long len, uint16_t *out, long size) {
  return convert_string<char, uint16_t>(cv, in, len, out, size, to_ucs2_u8, false);
}
long ldap_cs_from_ucs2(ldap_cs_converter *cv, const uint16_t *in, long len, char *out, long size) {
  return convert_string<uint16_t, char>(cv, in, len, out, size, from_ucs2_u8, true);
}

char *ldap_cs_from_utf8_alloc(ldap_cs_converter *cv, const char *in, long len, long *count) {
  if (in == nullptr) return nullptr;
  if (len < 0) len = static_cast<long>(strlen(in));
  long size = 2 * len + 1;
  char *out = static_cast<char *>(olx_malloc(size));
  if (out == nullptr) return nullptr;
  long n = ldap_cs_from_utf8(cv, in, len, out, size - 1);
  out[n] = '\0';
  if (count != nullptr) *count = n;
  return out;
}

char *ldap_cs_to_utf8_alloc(ldap_cs_converter *cv, const char *in, long len, long *count) {
  if (in == nullptr) return nullptr;
  if (len < 0) len = static_cast<long>(strlen(in));
  long size = 3 * len + 1;
  char *out = static_cast<char *>(olx_malloc(size));
  if (out == nullptr) return nullptr;
  long n = ldap_cs_to_utf8(cv, in, len, out, size - 1);
  out[n] = '\0';
  if (count != nullptr) *count = n;
  return out;
}

int ldap_cs_set_nlspath(const char *value) {
  if (value == nullptr) return -1;
  return put_env(&g_nlspath_env, format("NLSPATH=", value, ""));
}

int ldap_cs_prepend_nlspath(const char *value) {
  if (value == nullptr) return -1;
  const char *old = getenv("NLSPATH");
  char *head = format("NLSPATH=", value, ":");
  if (head == nullptr) return -1;
  char *text = format(head, old != nullptr ? old : "", "");
  free(head);
  return put_env(&g_nlspath_env, text);
}

int ldap_cs_set_tisdir(const char *value) {
  if (value == nullptr) return -1;
  return put_env(&g_tisdir_env, format("TISDIR=", value, ""));
}

}  // extern "C"
