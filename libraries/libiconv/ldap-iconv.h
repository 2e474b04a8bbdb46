// The library's own code-set converter: converter objects opened by name,
// backed by a built-in algorithm or a conversion table read from the table
// directory, and the iconv-style wrapper the translation entry points use.
#ifndef TAV_LDAP_ICONV_H
#define TAV_LDAP_ICONV_H

#include <cstddef>
#include <cstdint>

#include "tav-visibility.h"

extern "C" {
struct ldap_cs_converter {
  unsigned char *table;
  uint16_t kind;
  char name[32];
  uint16_t subst_count;
  uint16_t shared;
  uint16_t header_words[3];
  unsigned char header_bytes[16];
  unsigned char from_state;
  unsigned char to_state;
  uint32_t table_size;
  uint16_t *two_byte;  // kinds 3 and 10: values of the two-byte codes, built at load time
};

// Table file layout: fixed offsets of the header and the arrays after it.
enum {
  LDAP_CS_HDR_MIN_SIZE = 1760,
  LDAP_CS_OFF_ROWS = 0,
  LDAP_CS_OFF_MAGIC = 8,
  LDAP_CS_OFF_NAME = 16,
  LDAP_CS_OFF_RANGES = 38,
  LDAP_CS_OFF_KIND = 48,
  LDAP_CS_OFF_EBCDIC = 50,
  LDAP_CS_OFF_SUBST_UCS = 58,
  LDAP_CS_OFF_SUBST = 60,
  LDAP_CS_OFF_FROM_INDEX = 224,
  LDAP_CS_OFF_TO_UCS2 = 736,
  LDAP_CS_OFF_CLASS = 1248,
};

TAV_INTERNAL ldap_cs_converter *ldap_cs_open(const char *name);
TAV_INTERNAL int ldap_cs_close(ldap_cs_converter *cv);
TAV_INTERNAL ldap_cs_converter *ldap_cs_clone(ldap_cs_converter *cv);
TAV_INTERNAL const unsigned char *ldap_cs_get_table(ldap_cs_converter *cv, uint32_t *size);
TAV_INTERNAL void ldap_cs_set_default(ldap_cs_converter *cv);
TAV_INTERNAL ldap_cs_converter *ldap_cs_get_default(void);
TAV_INTERNAL const char *ldap_cs_get_name(ldap_cs_converter *cv);
// Converters from an image in memory (the loader's checks without the file
// search); the image is copied.  For the fuzz target and tests.
TAV_INTERNAL ldap_cs_converter *ldap_cs_open_image(const unsigned char *image, size_t size);

// String conversions: a negative length means a NUL-terminated input, whose
// terminator is written after the converted text.  Result: bytes (units)
// written.
TAV_INTERNAL long ldap_cs_to_utf8(ldap_cs_converter *cv, const char *in, long len, char *out, long size);
TAV_INTERNAL long ldap_cs_from_utf8(ldap_cs_converter *cv, const char *in, long len, char *out, long size);
TAV_INTERNAL long ldap_cs_to_ucs2(ldap_cs_converter *cv, const char *in, long len, uint16_t *out, long size);
TAV_INTERNAL long ldap_cs_from_ucs2(ldap_cs_converter *cv, const uint16_t *in, long len, char *out, long size);
TAV_INTERNAL char *ldap_cs_from_utf8_alloc(ldap_cs_converter *cv, const char *in, long len, long *count);
TAV_INTERNAL char *ldap_cs_to_utf8_alloc(ldap_cs_converter *cv, const char *in, long len, long *count);

// Direction functions: 0 all input consumed (reading UTF-8 to UCS-2, 0 with
// input left means it stopped at ill-formed UTF-8), 1 output full (positions
// stay before the character that did not fit), 2 input ends inside a sequence.
TAV_INTERNAL int ldap_cs_step_to_ucs2(ldap_cs_converter *cv, const unsigned char **in, const unsigned char *in_end,
                                      uint16_t **out, uint16_t *out_end);
TAV_INTERNAL int ldap_cs_step_from_ucs2(ldap_cs_converter *cv, const uint16_t **in, const uint16_t *in_end,
                                        unsigned char **out, unsigned char *out_end);
TAV_INTERNAL int ldap_cs_step_to_utf8(ldap_cs_converter *cv, const unsigned char **in, const unsigned char *in_end,
                                      unsigned char **out, unsigned char *out_end);
TAV_INTERNAL int ldap_cs_step_from_utf8(ldap_cs_converter *cv, const unsigned char **in, const unsigned char *in_end,
                                        unsigned char **out, unsigned char *out_end);

TAV_INTERNAL int ldap_cs_normalize_name(const char *name, char *out, size_t size);
TAV_INTERNAL int ldap_cs_os_codeset_name(char *buffer, size_t size);
TAV_INTERNAL int ldap_cs_init(void);
TAV_INTERNAL int ldap_cs_term(void);
TAV_INTERNAL int ldap_cs_set_nlspath(const char *value);
TAV_INTERNAL int ldap_cs_prepend_nlspath(const char *value);
TAV_INTERNAL int ldap_cs_set_tisdir(const char *value);

// UCS-2 string functions on zero-terminated arrays of units.
TAV_INTERNAL size_t ldap_ucs2_len(const uint16_t *s);
TAV_INTERNAL size_t ldap_ucs2_nlen(const uint16_t *s, size_t n);
TAV_INTERNAL uint16_t *ldap_ucs2_cat(uint16_t *dst, const uint16_t *src);
TAV_INTERNAL uint16_t *ldap_ucs2_ncat(uint16_t *dst, const uint16_t *src, size_t n);
TAV_INTERNAL uint16_t *ldap_ucs2_cpy(uint16_t *dst, const uint16_t *src);
TAV_INTERNAL uint16_t *ldap_ucs2_ncpy(uint16_t *dst, const uint16_t *src, size_t n);
TAV_INTERNAL int ldap_ucs2_ncmp(const uint16_t *a, const uint16_t *b, size_t n);
TAV_INTERNAL uint16_t *ldap_ucs2_chr(const uint16_t *s, uint16_t c);
TAV_INTERNAL uint16_t *ldap_ucs2_rchr(const uint16_t *s, uint16_t c);
TAV_INTERNAL size_t ldap_ucs2_spn(const uint16_t *s, const uint16_t *set);
TAV_INTERNAL size_t ldap_ucs2_cspn(const uint16_t *s, const uint16_t *set);
TAV_INTERNAL uint16_t *ldap_ucs2_pbrk(const uint16_t *s, const uint16_t *set);
TAV_INTERNAL uint16_t *ldap_ucs2_str(const uint16_t *s, const uint16_t *sub);
TAV_INTERNAL uint16_t *ldap_ucs2_tok(uint16_t *s, const uint16_t *delim, uint16_t **pos);

// The iconv-style wrapper.  The engine's converter stands for the side that is
// neither "UTF-8" nor "UCS-2"; UCS-2 is carried as big-endian byte pairs.
struct ldap_iconv_handle {
  char *source;
  char *target;
  ldap_cs_converter *cv;
};
TAV_INTERNAL ldap_iconv_handle *ldap_iconv_open(const char *target, const char *source);
TAV_INTERNAL int ldap_iconv(ldap_iconv_handle *h, const char **in, size_t *in_left, char **out, size_t *out_left);
TAV_INTERNAL int ldap_iconv_close(ldap_iconv_handle *h);
TAV_INTERNAL char *ldap_nl_langinfo(void);
// The wrapper's own lock around setlocale and the system code-set query.
TAV_INTERNAL int ldap_iconv_lock(void);
TAV_INTERNAL int ldap_iconv_unlock(void);
}

#endif
