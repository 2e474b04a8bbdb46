// The fber codec: the BER element and its buffers, the format-driven encoder
// (fber_printf) and decoder (fber_scanf), and the element-level readers.
#ifndef TAV_LBER_INT_H
#define TAV_LBER_INT_H

#include <cstddef>
#include <cstdint>

#include "tav-visibility.h"
#include "tavldap.h"
#include "tavldap_full.h"

typedef uint64_t ber_tag_t;
typedef uint64_t ber_len_t;

// All ones: "no tag" in ber_tag, and the failure result of tag readers.
#define LBER_DEFAULT ((ber_tag_t)-1)
#define LBER_ERROR ((ber_tag_t)-1)

// Low byte of ber_options on every element this codec makes.
#define FBER_MARK 0x80
// Inline buffer of an encoding element.
#define FBER_INLINE_SIZE 6144
// Deepest nesting of open SEQUENCEs/SETs.
#define FBER_MAX_SEQ 100

// struct berval (tavldap.h): every bv_val this codec makes has a NUL after bv_len bytes.

// One allocation: this record, two slots for its copies of the translation
// settings, the inline buffer, then (elements made for writing only) the
// sequence stack (count, then FBER_MAX_SEQ offsets of reserved length octets;
// ber_sos is null without one).
struct berelement {
  char *ber_buf;
  char *ber_ptr;
  char *ber_end;
  uint32_t *ber_sos;
  ber_tag_t ber_tag;
  ber_len_t ber_len;
  int32_t ber_options;
  char *ber_rwptr;
  int32_t *ber_noxlate;
  int32_t *ber_version;
  unsigned char ber_lenbuf[8];
  int32_t ber_lenread;
};

// Tag and length of the item at `p` (one-byte tags, up to eight length
// octets), without reading past `end`; false where the decoder fails.  The one
// header parser of the decoder, and of readers that walk received bytes in
// place.
inline bool fber_header_at(const char *p, const char *end, unsigned *tag, ber_len_t *len, const char **contents) {
  if (end - p < 2) return false;
  const auto *u = reinterpret_cast<const unsigned char *>(p);
  if ((u[0] & 0x1F) == 0x1F) return false;
  ber_len_t l = u[1];
  size_t used = 2;
  if (l & 0x80) {
    const size_t n = l & 0x7F;
    if (n > 8 || n > static_cast<size_t>(end - p) - 2) return false;
    l = 0;
    for (size_t i = 0; i < n; ++i) l = (l << 8) | u[2 + i];
    used += n;
  }
  *tag = u[0];
  *len = l;
  *contents = p + used;
  return true;
}

extern "C" {
// Elements and buffers.
TAV_INTERNAL BerElement *fber_alloc_t(int size);
// A reading element built in memory its caller owns (fber_reading_size()
// bytes, aligned for a BerElement), so a received message and its element
// can be one allocation; fber_release frees what such an element holds but
// not the element itself (fber_free frees both).
TAV_INTERNAL size_t fber_reading_size(void);
TAV_INTERNAL BerElement *fber_init_reading_at(void *memory, int noxlate, int version);
TAV_INTERNAL void fber_release(BerElement *ber);
// Gives `to` its own copies of the translation settings `from` has (kept
// inside `to`'s allocation).
TAV_INTERNAL void fber_copy_settings(BerElement *to, const BerElement *from);
TAV_INTERNAL BerElement *fber_alloc(void);
// The element constructor behind a session's ldap_alloc_ber_with_options:
// copies of the session's translation settings are passed in rather than the
// session itself, so the codec does not depend on the session record.
TAV_INTERNAL BerElement *fber_alloc_with_options(int for_reading, int noxlate, int version);
TAV_INTERNAL void fber_free(BerElement *ber);
TAV_INTERNAL int fber_realloc(BerElement *ber, ber_len_t needed);
TAV_INTERNAL int fber_write(BerElement *ber, const char *bytes, ber_len_t count);
TAV_INTERNAL void fber_reset(BerElement *ber, int was_writing);
TAV_INTERNAL BerElement *fber_init2(const struct berval *bv);
TAV_INTERNAL int fber_flatten(BerElement *ber, struct berval **out);
TAV_INTERNAL void fber_dump(BerElement *ber, int direction);
TAV_INTERNAL void fber_dump_with_fd(BerElement *ber, int direction, int sd);
TAV_INTERNAL void fber_log_contents(const char *bytes, ber_len_t count);
// The masking step of fber_log_contents, on a copy; exposed for tests.
TAV_INTERNAL void fber_mask_passwords(char *bytes, size_t count);

// Encoder.
TAV_INTERNAL int fber_printf(BerElement *ber, const char *format, ...);
TAV_INTERNAL int fber_printf_raw(BerElement *ber, const char *format, ...);

// Decoder.
TAV_INTERNAL ber_tag_t fber_skip_tag(BerElement *ber, ber_len_t *len);
TAV_INTERNAL ber_tag_t fber_peek_tag(BerElement *ber, ber_len_t *len);
TAV_INTERNAL int fber_skip_element(BerElement *ber);
TAV_INTERNAL ber_tag_t fber_first_element(BerElement *ber, ber_len_t *len, char **end_of_set);
TAV_INTERNAL ber_len_t fber_read(BerElement *ber, char *dest, ber_len_t count);
TAV_INTERNAL ber_tag_t fber_get_long(BerElement *ber, int64_t *value);
TAV_INTERNAL ber_tag_t fber_get_int(BerElement *ber, int *value);
TAV_INTERNAL ber_tag_t fber_get_null(BerElement *ber);
TAV_INTERNAL ber_tag_t fber_get_stringa(BerElement *ber, char **out, int translate);
TAV_INTERNAL ber_tag_t fber_get_stringb(BerElement *ber, char *buf, ber_len_t *len, int translate);
TAV_INTERNAL ber_tag_t fber_get_stringal(BerElement *ber, struct berval **out, int translate);
TAV_INTERNAL ber_tag_t fber_get_stringa_raw(BerElement *ber, char **out, ber_len_t *len);
TAV_INTERNAL ber_tag_t fber_get_bitstringa(BerElement *ber, char **out, ber_len_t *bits);
// The same as fber_scanf(ber, "[V]", out) and fber_scanf(ber, "[v]", out).
TAV_INTERNAL ber_tag_t fber_scan_values(BerElement *ber, struct berval ***out);
TAV_INTERNAL ber_tag_t fber_scan_strings(BerElement *ber, char ***out);
TAV_INTERNAL ber_tag_t fber_scanf(BerElement *ber, const char *format, ...);

// Releases what the 'V' and 'O' letters hand out.
TAV_INTERNAL void fber_svecfree(char **vec);
}

#endif
