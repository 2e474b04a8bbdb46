// Trace facility and environment helpers.
#include "ldap-debug.h"

#include <pthread.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ldap-utils.h"

std::atomic<uint32_t> ldap_trace_mask{0};

const uint32_t ldap_log_category_mask[LDAP_LOG_CATEGORIES] = {
    0x0001, 0x0002, 0x0004, 0x0008, 0x0009, 0x0010, 0x0020, 0x0040, 0x0080, 0x0100,
    0x0200, 0x0400, 0x0800, 0x1000, 0x2000, 0x4000, 0x8000, 0x9000, 0xFFFF};

namespace {

std::atomic<int> timestamps{1};
char *trace_file_name = nullptr;  // kept even when the file failed to open, for diagnosis
FILE *trace_file = nullptr;       // null: standard error
// Statically initialised so that a line traced before ldap_debug_init (the
// mask set through an option first) is still serialised.
pthread_mutex_t trace_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_once_t trace_once = PTHREAD_ONCE_INIT;

pthread_mutex_t syscall_mutex;
pthread_once_t syscall_once = PTHREAD_ONCE_INIT;
int syscall_mutex_rc = 0;

void syscall_mutex_create() {
  syscall_mutex_rc = pthread_mutex_init(&syscall_mutex, nullptr);
  if (syscall_mutex_rc == 0) LDAP_LOG(LDAP_LOG_MUTEX, "MUTEX %p %s %d\n", (void *)&syscall_mutex, __FILE__, __LINE__);
}

void trace_init_once() {
  if (char *name = ldap_getenv("LDAP_DEBUG_FILE")) {
    trace_file_name = name;
    trace_file = fopen(name, "a");
  }
  if (char *level = ldap_getenv("LDAP_DEBUG")) {
    ldap_trace_mask.store(ldap_debug_parse_mask(level), std::memory_order_relaxed);
    free(level);
  }
}

inline FILE *trace_stream() { return trace_file ? trace_file : stderr; }

// The platform's thread id: the kernel's id, which is a small decimal number
// that matches what debuggers and /proc show (pthread_t is a pointer here).
inline int trace_thread_id() { return (int)gettid(); }

void write_prefix(FILE *out) {
  if (timestamps.load(std::memory_order_relaxed)) {
    time_t now = time(nullptr);
    struct tm tm;
    gmtime_r(&now, &tm);
    fprintf(out, "%.3d:%.2d:%.2d:%.2d ", tm.tm_yday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  }
  fprintf(out, "T%d ", trace_thread_id());
}

bool category_selected(unsigned int level) {
  unsigned int k = (level - LDAP_LOG_LEVEL(0)) / 0x10000u;
  // Codes outside the table select nothing.
  if (k >= LDAP_LOG_CATEGORIES) return false;
  return (ldap_trace_mask.load(std::memory_order_relaxed) & ldap_log_category_mask[k]) != 0;
}

// Dump geometry: every line is 59 characters.
constexpr int kDumpWidth = 59;

void border_line(char *out) {
  memset(out, '-', kDumpWidth);
  out[0] = out[kDumpWidth - 1] = '+';
}

void blank_boxed(char *out, std::initializer_list<int> bars) {
  memset(out, ' ', kDumpWidth);
  for (int p : bars) out[p] = '|';
}

void put_text(char *out, int pos, const char *text) { memcpy(out + pos, text, strlen(text)); }

const char kHex[] = "0123456789ABCDEF";

void put_hex(char *out, int pos, unsigned long value, int digits) {
  for (int i = digits - 1; i >= 0; --i, value >>= 4) out[pos + i] = kHex[value & 0xF];
}

}  // namespace

extern "C" {

uint32_t ldap_debug_parse_mask(const char *text) {
  if (text == nullptr) return 0;
  const char *p = text;
  if (*p == '-')
    ++p;
  else if (p[0] == '0' && p[1] == 'x')
    p += 2;
  // A bare prefix counts as a number; otherwise every character must be a digit.
  if (p == text && *p == '\0') return 0;
  for (const char *q = p; *q; ++q)
    if (*q < '0' || *q > '9') return 0;
  return (uint32_t)atoi(text);
}

void ldap_debug_init(void) {
  pthread_once(&trace_once, trace_init_once);
  if (char *v = ldap_getenv("LDAP_DEBUG_TIME")) {
    if (strcmp(v, "FALSE") == 0) timestamps.store(0, std::memory_order_relaxed);
    free(v);
  }
}

int ldap_debug_timestamps(void) { return timestamps.load(std::memory_order_relaxed); }

uint32_t ldap_debug_level(void) { return ldap_trace_mask.load(std::memory_order_relaxed); }

void ldap_set_debug_level(uint32_t mask) {
  // Open the trace file first so that the new mask's lines go where
  // LDAP_DEBUG_FILE says.  The once-routine may set the mask from LDAP_DEBUG;
  // the explicit value wins.
  pthread_once(&trace_once, trace_init_once);
  ldap_trace_mask.store(mask, std::memory_order_relaxed);
}

void ldap_log_v(unsigned int level, const char *format, va_list *args) {
  if (format == nullptr || !category_selected(level)) return;
  bool locked = pthread_mutex_lock(&trace_mutex) == 0;  // a failed lock still traces
  FILE *out = trace_stream();
  if (strlen(format) > 5) write_prefix(out);
  if (args == nullptr) {
    fputs(format, out);
  } else {
    va_list copy;
    va_copy(copy, *args);
    vfprintf(out, format, copy);
    va_end(copy);
  }
  fflush(out);
  if (locked) pthread_mutex_unlock(&trace_mutex);
}

void ldap_log(unsigned int level, const char *format, ...) {
  if (!category_selected(level)) return;
  va_list ap;
  va_start(ap, format);
  ldap_log_v(level, format, &ap);
  va_end(ap);
}

int ldap_log_dump_line(const void *address, unsigned int length, const char *title, unsigned int index,
                       char out[60]) {
  const unsigned int used = length & 0xFFFFu;
  const bool has_title = title != nullptr && title[0] != '\0';
  const unsigned int data_lines =
      (address == nullptr || used == 0 || used >= 0x8000u) ? 0 : (used + 15) / 16;
  // Lines: [border, title], border, header, border, data..., border.
  unsigned int i = index;
  out[kDumpWidth] = '\0';
  if (has_title) {
    if (i == 0) return border_line(out), 1;
    if (i == 1) {
      blank_boxed(out, {0, kDumpWidth - 1});
      size_t n = strlen(title);
      if (n > 57) n = 57;
      memcpy(out + (57 - n) / 2 + 1, title, n);
      return 1;
    }
    i -= 2;
  }
  if (i == 0 || i == 2) return border_line(out), 1;
  if (i == 1) {
    blank_boxed(out, {0, 5, 41, 58});
    put_text(out, 1, "OSet");
    put_text(out, 7, "Address = ");
    put_hex(out, 17, (unsigned long)(uintptr_t)address & 0xFFFFFFFFul, 8);
    put_text(out, 27, "Length = ");
    put_hex(out, 36, used, 4);
    put_text(out, 47, "ASCII");
    return 1;
  }
  i -= 3;
  if (i < data_lines) {
    const unsigned char *bytes = static_cast<const unsigned char *>(address) + i * 16;
    unsigned int n = used - i * 16;
    if (n > 16) n = 16;
    blank_boxed(out, {0, 5, 41, 58});
    put_hex(out, 1, i * 16, 4);
    for (unsigned int b = 0; b < n; ++b) {
      put_hex(out, 6 + (b / 4) * 9 + (b % 4) * 2, bytes[b], 2);
      unsigned char c = bytes[b];
      out[42 + b] = (c >= 0x20 && c <= 0x7E && c != '^') ? (char)c : '.';
    }
    return 1;
  }
  if (i == data_lines) return border_line(out), 1;
  return 0;
}

void ldap_log_dump(const void *address, unsigned int length, const char *title) {
  char line[kDumpWidth + 1];
  bool locked = pthread_mutex_lock(&trace_mutex) == 0;
  FILE *out = trace_stream();
  int tid = trace_thread_id();
  for (unsigned int i = 0; ldap_log_dump_line(address, length, title, i, line); ++i) {
    fprintf(out, "T%d:\t%s\n", tid, line);
    fflush(out);
  }
  if (locked) pthread_mutex_unlock(&trace_mutex);
}

int lock_syscall_mutex(void) {
  pthread_once(&syscall_once, syscall_mutex_create);
  int rc = syscall_mutex_rc ? syscall_mutex_rc : pthread_mutex_lock(&syscall_mutex);
  if (rc != 0) LDAP_LOG(LDAP_LOG_ERROR, "lock_syscall_mutex: Failed to lock. errno=%d\n", rc);
  return rc;
}

int unlock_syscall_mutex(void) {
  int rc = syscall_mutex_rc ? syscall_mutex_rc : pthread_mutex_unlock(&syscall_mutex);
  if (rc != 0) LDAP_LOG(LDAP_LOG_ERROR, "unlock_syscall_mutex: Failed to lock. errno=%d\n", rc);
  return rc;
}

char *ldap_getenv(const char *name) {
  if (name == nullptr || name[0] == '\0') {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_getenv: varname == %s\n", "NULL");
    return nullptr;
  }
  if (lock_syscall_mutex() != 0) return nullptr;
  char *copy = nullptr;
  const char *value = getenv(name);
  if (value != nullptr) {
    copy = olx_strdup(value);
    if (copy == nullptr) LDAP_LOG(LDAP_LOG_ERROR, "Error - ldap_getenv: strdup failed for %s value\n", name);
  }
  unlock_syscall_mutex();
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_getenv: %s=%s\n", name, ldap_trace_str(copy, "NULL"));
  return copy;
}

int ldap_chkenv(const char *name) {
  if (name == nullptr || name[0] == '\0') {
    LDAP_LOG(LDAP_LOG_ERROR, "ldap_chkenv: varname == %s\n", "NULL");
    return 0;
  }
  if (lock_syscall_mutex() != 0) return 0;
  const char *value = getenv(name);
  int result = value ? (int)strlen(value) + 1 : 0;
  unlock_syscall_mutex();
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_chkenv: environment variable \"%s\" %s\n", name,
           result ? "is set" : "is NOT set");
  return result;
}

int ldap_putenv(char *string) {
  // A string without '=' would remove or corrupt a variable: refuse it.
  if (string == nullptr || strchr(string, '=') == nullptr || string[0] == '=') {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - ldap_putenv: invalid input\n");
    return -1;
  }
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_putenv: %s\n", string);
  if (lock_syscall_mutex() != 0) {
    LDAP_LOG(LDAP_LOG_ERROR, "Error - ldap_putenv: lock failed\n");
    return 0;
  }
  int rc = putenv(string);
  int err = errno;
  unlock_syscall_mutex();
  if (rc != 0) LDAP_LOG(LDAP_LOG_ERROR, "Error - ldap_putenv: putenv failed for %s, errno=%d\n", string, err);
  return rc;
}

int ldap_env_has_element(const char *list, char separator, const char *value) {
  auto fold = [](char c) -> int { return c == '\\' ? '/' : toupper((unsigned char)c); };
  size_t n = strlen(value);
  for (const char *p = list; *p; ++p) {
    if (p != list && p[-1] != separator) continue;
    size_t i = 0;
    while (i < n && p[i] && fold(p[i]) == fold(value[i])) ++i;
    if (i < n) continue;
    char end = p[n];
    if (end == '\0' || end == separator || isspace((unsigned char)end)) return 1;
  }
  return 0;
}

int ldap_change_env_var(int mode, const char *name, char separator, const char *value) {
  LDAP_LOG(LDAP_LOG_TRACE, "ldap_change_env_var: env=%s\n", ldap_trace_str(name, "NULL"));
  if (name == nullptr || name[0] == '\0' || value == nullptr || value[0] == '\0') return LDAP_PARAM_ERROR;
  char *current = ldap_getenv(name);
  // A set variable whose copy failed must not be taken for an unset one: the
  // string replacing it would drop its value (and leak the string it held).
  if (current == nullptr && ldap_chkenv(name) != 0) return LDAP_NO_MEMORY;
  if (current != nullptr && ldap_env_has_element(current, separator, value)) {
    free(current);
    return 0;
  }
  size_t cur_len = current ? strlen(current) : 0;
  size_t size = strlen(name) + cur_len + strlen(value) + 8;
  char *buf = static_cast<char *>(olx_malloc(size));
  if (buf == nullptr) {
    free(current);
    return LDAP_NO_MEMORY;
  }
  if (cur_len == 0)
    snprintf(buf, size, "%s=%s", name, value);
  else if (mode == 1)
    snprintf(buf, size, "%s=%s%c%s", name, current, separator, value);
  else
    snprintf(buf, size, "%s=%s%c%s", name, value, separator, current);
  free(current);
  // The environment keeps the string: it is not released.
  return ldap_putenv(buf) == 0 ? 0 : LDAP_PARAM_ERROR;
}
}
