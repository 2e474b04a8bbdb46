// What the converter's files share: the big-endian readers of table
// fields, the range list of the multi-byte tables, and the loader's entry
// points the converter objects are opened through.
#ifndef TAV_LDAP_CS_INT_H
#define TAV_LDAP_CS_INT_H

#include <cstddef>
#include <cstdint>

#include "ldap-iconv.h"

namespace ldap_cs_internal {

inline uint16_t be16(const unsigned char *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline uint32_t be32(const unsigned char *p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
         p[3];
}

// Kind 10 range header: offsets (in 2-byte units from the header plus 32) of
// the range index (128 words), the range list (start, kind, base, pad) and
// the value list at its bytes 16, 20 and 24, the number of ranges at 28.
struct Ranges {
  const unsigned char *index, *list, *values;
  uint32_t count, nvalues;
};

// Kinds 3 and 10: the table of two-byte code values built when a table is
// opened (ldap_cs_convert.cpp); null when it cannot be allocated.
uint16_t *two_byte_values(ldap_cs_converter *cv);

// The loader (ldap_cs_tables.cpp).  A converter over a checked image (null
// when the image fails a check); a whole file read into a new buffer; the
// table for a normalised name from the table directories; an alias replaced
// by the name it stands for.
ldap_cs_converter *make_converter(unsigned char *image, uint32_t size);
bool read_file(const char *path, unsigned char **data, uint32_t *size);
ldap_cs_converter *find_table(const char *name);
void lookup_alias(char *name, size_t size);

}  // namespace ldap_cs_internal

#endif
