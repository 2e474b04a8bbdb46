// Trace facility and environment helpers: the one way the library writes its
// diagnostic trace and touches the process environment.
#ifndef TAV_LDAP_DEBUG_H
#define TAV_LDAP_DEBUG_H

#include <atomic>
#include <cstdarg>
#include <cstdint>

#include "tav-visibility.h"

// Level codes: 0xC8010000 + k * 0x10000, k = 0..18, each selecting a category
// mask from a fixed table (see ldap_log).
#define LDAP_LOG_LEVEL(k) (0xC8010000u + (unsigned)(k) * 0x10000u)
#define LDAP_LOG_TRACE LDAP_LOG_LEVEL(0)
#define LDAP_LOG_NET LDAP_LOG_LEVEL(3)
#define LDAP_LOG_XLATE LDAP_LOG_LEVEL(4)
#define LDAP_LOG_BER LDAP_LOG_LEVEL(5)
#define LDAP_LOG_MUTEX LDAP_LOG_LEVEL(10)
#define LDAP_LOG_DN LDAP_LOG_LEVEL(12)
#define LDAP_LOG_ERROR LDAP_LOG_LEVEL(16)
#define LDAP_LOG_ANY LDAP_LOG_LEVEL(18)
#define LDAP_LOG_CATEGORIES 19

// Result codes the helpers of this unit return (the full table lives with
// the error code module).
#ifndef LDAP_PARAM_ERROR
#define LDAP_PARAM_ERROR 0x59
#endif
#ifndef LDAP_NO_MEMORY
#define LDAP_NO_MEMORY 0x5a
#endif

// A string for a trace line's %s, never a null pointer.  Each trace keeps the
// text it has always printed for null: "(null)" unless the caller says
// "NULL" or "<NULL>".
inline const char *ldap_trace_str(const char *s, const char *if_null = "(null)") { return s != nullptr ? s : if_null; }

// The trace mask.  Call sites read it with one relaxed load (a plain move on
// every platform we build for) before building any trace line.
TAV_INTERNAL extern std::atomic<uint32_t> ldap_trace_mask;

// Category mask of level code k; the table is fixed data.
TAV_INTERNAL extern const uint32_t ldap_log_category_mask[LDAP_LOG_CATEGORIES];

static inline uint32_t ldap_trace_on() { return ldap_trace_mask.load(std::memory_order_relaxed); }

// True when a line at `level` would be printed; for callers of ldap_log_dump,
// which test the category themselves.
static inline bool ldap_trace_enabled(unsigned int level) {
  uint32_t mask = ldap_trace_on();
  if (mask == 0) return false;
  unsigned int k = (level - LDAP_LOG_LEVEL(0)) / 0x10000u;
  return k < LDAP_LOG_CATEGORIES && (mask & ldap_log_category_mask[k]) != 0;
}

// The trace call site: one load and one test when the trace is off.
#define LDAP_LOG(level, ...)                                   \
  do {                                                         \
    if (__builtin_expect(ldap_trace_on() != 0, 0)) ldap_log((level), __VA_ARGS__); \
  } while (0)

extern "C" {
TAV_INTERNAL void ldap_debug_init(void);
TAV_INTERNAL uint32_t ldap_debug_level(void);
TAV_INTERNAL void ldap_set_debug_level(uint32_t mask);
TAV_INTERNAL void ldap_log(unsigned int level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
// A null `args` means the format is printed as it stands.
TAV_INTERNAL void ldap_log_v(unsigned int level, const char *format, va_list *args);
TAV_INTERNAL void ldap_log_dump(const void *address, unsigned int length, const char *title);

TAV_INTERNAL char *ldap_getenv(const char *name);
TAV_INTERNAL int ldap_chkenv(const char *name);
TAV_INTERNAL int ldap_putenv(char *string);
TAV_INTERNAL int ldap_change_env_var(int mode, const char *name, char separator, const char *value);
TAV_INTERNAL int lock_syscall_mutex(void);
TAV_INTERNAL int unlock_syscall_mutex(void);

// The pieces below are exposed for tests and the fuzz target.
// Trace mask from the text of LDAP_DEBUG: a number converts with atoi,
// anything else gives 0.
TAV_INTERNAL uint32_t ldap_debug_parse_mask(const char *text);
// Fills `out` (60 bytes) with dump line `index` (0-based, counting every line of
// the box) and returns 1, or returns 0 past the last line.
TAV_INTERNAL int ldap_log_dump_line(const void *address, unsigned int length, const char *title,
                                    unsigned int index, char out[60]);
// The element test of ldap_change_env_var.
TAV_INTERNAL int ldap_env_has_element(const char *list, char separator, const char *value);
// Whether time stamps are on; for tests.
TAV_INTERNAL int ldap_debug_timestamps(void);
}

#endif
