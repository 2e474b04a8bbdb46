// Translation entry points.  Until the code-set converter is in place these
// behave as they do for a process whose local code page is UTF-8: the output
// is a byte-for-byte copy, so callers already own and free a new buffer
// exactly as they will with real conversions.
#include <cstdlib>
#include <cstring>

#include "ldap-debug.h"
#include "ldap-utils.h"
#include "ldap-xlate.h"

namespace {
int copy_through(char **buffer, unsigned long *length, int free_input) {
  if (buffer == nullptr || length == nullptr) return LDAP_PARAM_ERROR;
  if (*buffer == nullptr && *length != 0) return LDAP_PARAM_ERROR;
  // One spare byte keeps the copy NUL-terminated even when the input was not.
  char *out = static_cast<char *>(olx_malloc(*length + 1));
  if (out == nullptr) return LDAP_NO_MEMORY;
  if (*length != 0) memcpy(out, *buffer, *length);
  out[*length] = '\0';
  if (free_input && *buffer != nullptr) free(*buffer);
  *buffer = out;
  return 0;
}
}  // namespace

extern "C" {
int xlate_local_to_utf8(char **buffer, unsigned long *length, int free_input) {
  return copy_through(buffer, length, free_input);
}

int xlate_utf8_to_local(char **buffer, unsigned long *length, int free_input) {
  return copy_through(buffer, length, free_input);
}

int xlate_is_identity(void) { return 1; }
}
