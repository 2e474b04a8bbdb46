// Allocation helpers used by every subsystem.  They allocate with the C
// allocator (callers free what the library hands out with free) and carry a
// test hook that makes the Nth allocation from now fail, so failure paths can
// be swept one allocation at a time.
#ifndef TAV_LDAP_UTILS_H
#define TAV_LDAP_UTILS_H

#include <cstddef>

#include "tav-visibility.h"

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
}

#endif
