// Conversion between the local code page and UTF-8.
#ifndef TAV_LDAP_XLATE_H
#define TAV_LDAP_XLATE_H

#include "tav-visibility.h"

extern "C" {
// Replace *buffer (of *length bytes) with a newly allocated converted copy and
// *length with its length; with free_input set the old buffer is freed on
// success.  0 on success, else a result code, with *buffer and *length left
// unchanged.
TAV_INTERNAL int xlate_local_to_utf8(char **buffer, unsigned long *length, int free_input);
TAV_INTERNAL int xlate_utf8_to_local(char **buffer, unsigned long *length, int free_input);
// 1 when both conversions are byte-for-byte copies (the local code page is
// UTF-8): the codec then skips the copy, which costs an allocation per string.
TAV_INTERNAL int xlate_is_identity(void);
}

#endif
