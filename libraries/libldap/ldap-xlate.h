// Conversion between the local code page and UTF-8.
#ifndef TAV_LDAP_XLATE_H
#define TAV_LDAP_XLATE_H

#include <cstddef>

#include "ldap-iconv.h"
#include "tav-visibility.h"
#include "tavldap_full.h"

// Directions of the dispatcher.
enum { XLATE_LOCAL_TO_UTF8 = 0, XLATE_UTF8_TO_LOCAL = 1, XLATE_LOCAL_TO_UCS2 = 2, XLATE_UCS2_TO_LOCAL = 3 };

// Process-wide translation state: the stored local code page, the locale the
// library set, one cached converter and one re-open flag per direction.
// Changed under the translation lock or by the set-up functions.
struct ldap_xlate_state {
  char *codepage;
  char *locale;
  ldap_iconv_handle *slot[4];
  int reset[4];
};
TAV_INTERNAL extern ldap_xlate_state ldap_xlate_globals;

extern "C" {
// Replace *buffer (of *length bytes) with a newly allocated converted copy and
// *length with its length; with free_input set the old buffer is freed on
// success.  0 on success, else a result code, with *buffer and *length left
// unchanged.
TAV_INTERNAL int xlate_local_to_utf8(char **buffer, unsigned long *length, int free_input);
TAV_INTERNAL int xlate_utf8_to_local(char **buffer, unsigned long *length, int free_input);
// 1 when both conversions are byte-for-byte copies (the local code page is a
// spelling of UTF-8 and the two-step path is off): the codec then skips the
// copy, which costs an allocation per string.
TAV_INTERNAL int xlate_is_identity(void);
// Recomputes what xlate_is_identity answers after the code page changed.
TAV_INTERNAL void ldap_xlate_note_codepage(void);

TAV_INTERNAL int ldap_xlate_dispatch(const char *in, size_t in_len, char *out, size_t *out_space, const char *other,
                                     int direction, int *reset);
TAV_INTERNAL int ldap_init_iconv(ldap_iconv_handle **slot, const char *other, int to_other, int *reset);
TAV_INTERNAL int ldap_xlate_iconv(ldap_iconv_handle *h, const char *in, size_t in_len, char **out, size_t *out_space);
TAV_INTERNAL int convert_UniCodetoUTF8(const unsigned char *data, size_t length, int unit, char **out, size_t *out_len);
TAV_INTERNAL int ldap_utf8_to_unicode(const unsigned char *in, size_t length, unsigned char **units, size_t *bytes,
                                      int *width);

// The i-th name ldap_set_iconv_local_charset knows, null past the last.
TAV_INTERNAL const char *ldap_charset_name(size_t i);
TAV_INTERNAL char *ldap_get_default_locale_path(void);
TAV_INTERNAL int ldap_set_locpath(void);
TAV_INTERNAL char *ldap_get_local_codepage(void);
TAV_INTERNAL char *ldap_get_current_locale(void);
}

#endif
