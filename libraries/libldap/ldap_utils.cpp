// Allocation helpers with a failure-injection hook for tests.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ldap-utils.h"

namespace {
// 0: hook off.  Otherwise the countdown to the allocation that fails.
std::atomic<long> fail_countdown{0};
std::atomic<long> counted{0};

inline bool injected_failure() {
  if (__builtin_expect(fail_countdown.load(std::memory_order_relaxed) == 0, 1)) return false;
  counted.fetch_add(1, std::memory_order_relaxed);
  return fail_countdown.fetch_sub(1, std::memory_order_relaxed) == 1;
}
}  // namespace

extern "C" {

long olx_fail_alloc_at(long n) {
  long seen = counted.exchange(0);
  fail_countdown.store(n < 0 ? 0 : n);
  return seen;
}

void *olx_malloc(size_t size) { return injected_failure() ? nullptr : malloc(size ? size : 1); }

void *olx_calloc(size_t count, size_t size) {
  if (injected_failure()) return nullptr;
  return calloc(count ? count : 1, size ? size : 1);
}

void *olx_realloc(void *ptr, size_t size) { return injected_failure() ? nullptr : realloc(ptr, size ? size : 1); }

char *olx_strdup(const char *s) {
  if (s == nullptr || injected_failure()) return nullptr;
  return strdup(s);
}

char *olx_strndup(const char *s, size_t n) {
  if (s == nullptr || injected_failure()) return nullptr;
  return strndup(s, n);
}
}

// The session's constructor for BER elements: copies of its translation
// settings go with every element it makes.
#include "ldap-engine.h"

extern "C" BerElement *ldap_alloc_ber_with_options(LDAP *ld, int for_reading) {
  BerElement *ber = fber_alloc_with_options(for_reading, ld->ld_xlate, ld->ld_version);
  if (ber == nullptr) ldap_set_errno_direct(ld, LDAP_NO_MEMORY, nullptr, nullptr);
  return ber;
}

// A reading copy of what is left of an element, with copies of its
// translation settings, so a message can be parsed again later.
extern "C" BerElement *ldap_ber_dup(const BerElement *ber) {
  if (ber == nullptr) return nullptr;
  struct berval rest = {(ber_len_t)(ber->ber_end - ber->ber_ptr), ber->ber_ptr};
  BerElement *copy = fber_init2(&rest);
  if (copy != nullptr) fber_copy_settings(copy, ber);
  return copy;
}

// Path and word helpers.

#include <cstdio>

namespace {
constexpr const char *kInstallRoot = "/opt/KRV/ldap/V6.2";

bool is_word_separator(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// "libx.so.1", "libx.so.1.2": the suffix followed only by numeric parts, the
// name a versioned shared object is installed under.
bool is_versioned(const char *name, char sep, const char *suffix) {
  size_t n = strlen(suffix);
  for (const char *p = strchr(name, sep); p != nullptr; p = strchr(p + 1, sep)) {
    if (p == name || strncmp(p + 1, suffix, n) != 0 || p[1 + n] != sep) continue;
    const char *q = p + 1 + n;
    while (*q == sep && q[1] >= '0' && q[1] <= '9') {
      ++q;
      while (*q >= '0' && *q <= '9') ++q;
    }
    if (*q == '\0') return true;
  }
  return false;
}
}  // namespace

extern "C" {

char *ldap_get_default_config_path(char sep) {
  size_t size = strlen(kInstallRoot) + 5;
  char *path = static_cast<char *>(olx_malloc(size));
  if (path != nullptr) snprintf(path, size, "%s%cetc", kInstallRoot, sep);
  return path;
}

char *ldap_make_path(const char *dir, const char *const *subdirs, const char *file) {
  if (dir == nullptr) return nullptr;
  size_t size = strlen(dir) + 1;
  for (const char *const *s = subdirs; s != nullptr && *s != nullptr; ++s) size += strlen(*s) + 1;
  if (file != nullptr) size += strlen(file) + 1;
  char *path = static_cast<char *>(olx_malloc(size));
  if (path == nullptr) return nullptr;
  char *end = stpcpy(path, dir);
  for (const char *const *s = subdirs; s != nullptr && *s != nullptr; ++s) end = stpcpy(stpcpy(end, "/"), *s);
  if (file != nullptr) stpcpy(stpcpy(end, "/"), file);
  return path;
}

char *ldap_replace_extension(const char *path, char sep, const char *suffix) {
  if (path == nullptr || suffix == nullptr) return nullptr;
  size_t keep = strlen(path);
  if (sep != '\0') {
    // Only the file name's extension counts: a dot in a directory is not one,
    // and a leading dot marks a hidden file rather than an extension.
    const char *slash = strrchr(path, '/');
    const char *name = slash != nullptr ? slash + 1 : path;
    if (is_versioned(name, sep, suffix)) return olx_strdup(path);
    const char *last = strrchr(name, sep);
    if (last != nullptr && last > name) keep = last - path;
  }
  char *out = static_cast<char *>(olx_malloc(keep + 1 + strlen(suffix) + 1));
  if (out == nullptr) return nullptr;
  memcpy(out, path, keep);
  char *end = out + keep;
  if (sep != '\0') *end++ = sep;
  strcpy(end, suffix);
  return out;
}

int ldap_file_exists(const char *path) {
  if (path == nullptr) return 0;
  FILE *f = fopen(path, "r");
  if (f == nullptr) return 0;
  fclose(f);
  return 1;
}

int ldap_split_args(const char *s, int max, int *count, char **vec) {
  *count = 0;
  vec[0] = nullptr;
  if (s == nullptr) return 1;
  while (is_word_separator(*s)) ++s;
  if (*s == '\0' || max <= 0) return 0;
  char *copy = olx_strdup(s);
  if (copy == nullptr) return 90;
  int n = 0;
  for (char *p = copy; *p != '\0' && n < max;) {
    vec[n++] = p;
    while (*p != '\0' && !is_word_separator(*p)) ++p;
    if (*p == '\0') break;
    *p++ = '\0';
    while (is_word_separator(*p)) ++p;
  }
  vec[n] = nullptr;
  *count = n;
  return 0;
}

int ldap_is_blank(int c) { return c == '\t' || c == '\n' || c == '\r' || c == ' '; }
}
