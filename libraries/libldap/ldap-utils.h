// Allocation helpers used by every subsystem.  They allocate with the C
// allocator (callers free what the library hands out with free) and carry a
// test hook that makes the Nth allocation from now fail, so failure paths can
// be swept one allocation at a time.
#ifndef TAV_LDAP_UTILS_H
#define TAV_LDAP_UTILS_H

#include <cstddef>
#include <cstdlib>
#include <memory>

#include "tav-visibility.h"

// A string (or any block) the C allocator gave, freed when it goes out of scope.
struct ldap_free_deleter {
  void operator()(void *p) const { free(p); }
};
using ldap_unique_str = std::unique_ptr<char, ldap_free_deleter>;

// Hex digits of DN and filter escapes (the caller checked ldap_is_hex; URL
// decoding has its own rule for what is not a digit).
inline bool ldap_is_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
inline int ldap_hex_value(char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; }

extern "C" {
TAV_INTERNAL void *olx_malloc(size_t size);
TAV_INTERNAL void *olx_calloc(size_t count, size_t size);
TAV_INTERNAL void *olx_realloc(void *ptr, size_t size);
TAV_INTERNAL char *olx_strdup(const char *s);
TAV_INTERNAL char *olx_strndup(const char *s, size_t n);

// Test hook: n > 0 makes the nth allocation from now fail (and only that one);
// 0 switches the hook off.  Returns how many allocations were counted since
// the last call, so a sweep knows when a scenario ran out of allocations.
TAV_INTERNAL long olx_fail_alloc_at(long n);

// Path and word helpers shared by the configuration file, the plug-in loader
// and the filter encoder.  Strings they return are the caller's to free.
TAV_INTERNAL char *ldap_get_default_config_path(char sep);
TAV_INTERNAL char *ldap_make_path(const char *dir, const char *const *subdirs, const char *file);
// The file name's extension (after the last `sep` past the last '/') becomes
// `suffix`; a versioned name ("libx.so.1" for "so") is kept as it is.
TAV_INTERNAL char *ldap_replace_extension(const char *path, char sep, const char *suffix);
TAV_INTERNAL int ldap_file_exists(const char *path);
// Splits a copy of `s` into at most `max` words (blank, tab, newline) stored
// in `vec` (max + 1 entries, null-terminated).  The copy starts at the first
// word, so free(vec[0]) releases it when *count > 0; with no word nothing is
// kept.  0, 1 for a null string, 90.
TAV_INTERNAL int ldap_split_args(const char *s, int max, int *count, char **vec);
TAV_INTERNAL int ldap_is_blank(int c);
}

#endif
