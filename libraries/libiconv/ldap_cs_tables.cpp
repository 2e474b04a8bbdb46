// Conversion tables: finding a table by name in the table directories,
// following redirection files, reading it, and checking every row and range
// the conversions may reach before the table is used in place.
#include <fcntl.h>
#include <langinfo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "ldap-iconv.h"
#include "ldap-utils.h"
#include "ldap-cs-int.h"

using namespace ldap_cs_internal;

namespace {

constexpr int kMaxRedirections = 5;
constexpr size_t kMaxPath = 255;

// Layout facts derived from the header once, so that the loader can check
// every row the conversions may reach before the table is used in place.
struct Layout {
  uint32_t rows;
  unsigned from_entry;  // bytes per from-UCS-2 row entry
};

Layout layout_of(const unsigned char *t, uint16_t kind) {
  Layout l{be32(t + LDAP_CS_OFF_ROWS), 1};
  if (kind == 2 || kind == 4) l.from_entry = 2;
  if (kind == 3 || kind == 10) l.from_entry = 4;
  return l;
}

bool row_fits(const unsigned char *, uint32_t size, uint32_t rows, uint32_t units, uint32_t bytes) {
  uint64_t start = static_cast<uint64_t>(rows) + static_cast<uint64_t>(units) * 4;
  return start + bytes <= size;
}

uint16_t table_kind(const unsigned char *t) {
  if (be16(t + LDAP_CS_OFF_EBCDIC) == 0x1100) return 8;
  return be16(t + LDAP_CS_OFF_KIND);
}

// Kind 3 rows: count, first byte, then `count` 4-byte entries; an entry with
// the top bit set names the next row (in 4-byte units), otherwise it is the
// UCS-2 value.  Checked to a fixed depth so a loop of rows cannot recur.
bool kind3_row_ok(const unsigned char *t, uint32_t size, uint32_t rows, uint32_t units, int depth) {
  if (depth > 4 || !row_fits(t, size, rows, units, 4)) return false;
  const unsigned char *r = t + rows + units * 4;
  uint16_t count = be16(r);
  if (count > 256 || !row_fits(t, size, rows, units, 4 + 4u * count)) return false;
  for (uint16_t i = 0; i < count; ++i) {
    uint32_t e = be32(r + 4 + 4 * i);
    if ((e & 0x80000000u) && !kind3_row_ok(t, size, rows, e & 0x7FFFFFFFu, depth + 1)) return false;
  }
  return true;
}

bool ranges_of(const unsigned char *t, uint32_t size, Ranges *r) {
  uint32_t h = be16(t + LDAP_CS_OFF_RANGES);
  if (h < LDAP_CS_HDR_MIN_SIZE || static_cast<uint64_t>(h) + 32 > size) return false;
  const unsigned char *p = t + h;
  uint64_t base = h + 32;
  uint64_t oi = base + 2ull * be32(p + 16), ol = base + 2ull * be32(p + 20), ov = base + 2ull * be32(p + 24);
  r->count = be32(p + 28);
  if (r->count == 0 || r->count > 0x10000 || oi + 256 > size || ol + 8ull * r->count > size || ov > size) return false;
  r->nvalues = static_cast<uint32_t>((size - ov) / 2);
  r->index = t + oi;
  r->list = t + ol;
  r->values = t + ov;
  for (int i = 0; i < 128; ++i)
    if (be16(r->index + 2 * i) >= r->count) return false;
  for (uint32_t i = 0; i < r->count; ++i) {
    const unsigned char *e = r->list + 8 * i;
    uint32_t start = be16(e), kind = be16(e + 2), b = be16(e + 4);
    uint32_t end = i + 1 < r->count ? be16(e + 8) : 0xFFFF;
    if (end < start) return false;
    if (kind == 1 && b + (end - start) > r->nvalues) return false;
    if (kind == 3 && b >= r->nvalues) return false;
  }
  return true;
}

bool table_ok(const unsigned char *t, uint32_t size) {
  if (size < LDAP_CS_HDR_MIN_SIZE || memcmp(t + LDAP_CS_OFF_MAGIC, "ucv", 3) != 0) return false;
  uint16_t kind = table_kind(t);
  Layout l = layout_of(t, kind);
  if (l.rows < LDAP_CS_HDR_MIN_SIZE || l.rows > size) return false;
  if (kind != 1 && kind != 2 && kind != 3 && kind != 4 && kind != 8 && kind != 10) return true;  // pass-through
  for (int i = 0; i < 256; ++i)
    if (!row_fits(t, size, l.rows, be16(t + LDAP_CS_OFF_FROM_INDEX + 2 * i), 256 * l.from_entry)) return false;
  const unsigned char *cls = t + LDAP_CS_OFF_CLASS;
  for (int b = 0; b < 256; ++b) {
    uint16_t e = be16(t + LDAP_CS_OFF_TO_UCS2 + 2 * b);
    bool row = (kind == 2 && (b == 0 || cls[b] == 2)) || (kind == 4 && (b == 0 || (b >= 0x40 && b <= 0xFE))) ||
               (kind == 3 && cls[b] >= 2 && cls[b] != 255);
    if (kind == 2 && cls[b] != 1 && cls[b] != 2 && cls[b] != 255) return false;
    if (!row) continue;
    if (kind == 3) {
      if (!kind3_row_ok(t, size, l.rows, e, 0)) return false;
    } else if (!row_fits(t, size, l.rows, e, 512)) {
      return false;
    }
  }
  if (kind == 10) {
    Ranges r;
    if (!ranges_of(t, size, &r)) return false;
  }
  return true;
}

bool file_exists(const char *path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

// Loads the table `name` from `dir` ("" = current directory), following
// redirection files within the directory.
ldap_cs_converter *load_from(const char *dir, const char *name) {
  char file[kMaxPath + 1];
  char current[40];
  snprintf(current, sizeof current, "%s", name);
  for (int hop = 0; hop < kMaxRedirections; ++hop) {
    int n = *dir ? snprintf(file, sizeof file, "%s/%s", dir, current) : snprintf(file, sizeof file, "%s", current);
    if (n < 0 || static_cast<size_t>(n) >= kMaxPath) return nullptr;
    unsigned char *data;
    uint32_t size;
    if (!read_file(file, &data, &size)) return nullptr;
    if (size >= LDAP_CS_HDR_MIN_SIZE && memcmp(data + LDAP_CS_OFF_MAGIC, "ucv", 3) == 0) {
      ldap_cs_converter *cv = make_converter(data, size);
      if (cv == nullptr) free(data);
      return cv;
    }
    // A redirection names another file of the same directory.
    char text[33];
    long len = ldap_cs_from_utf8(ldap_cs_get_default(), reinterpret_cast<const char *>(data), static_cast<long>(size),
                                 text, 32);
    free(data);
    size_t k = 0;
    for (long i = 0; i < len; ++i) {
      unsigned char c = static_cast<unsigned char>(text[i]);
      if (c > ' ' && c != 0x7F && k + 1 < sizeof current) current[k++] = static_cast<char>(c);
    }
    current[k] = '\0';
    if (k == 0 || strchr(current, '/') != nullptr) return nullptr;
  }
  return nullptr;
}

}  // namespace

namespace ldap_cs_internal {

ldap_cs_converter *make_converter(unsigned char *image, uint32_t size) {
  if (!table_ok(image, size)) return nullptr;
  auto *cv = static_cast<ldap_cs_converter *>(olx_calloc(1, sizeof(ldap_cs_converter)));
  if (cv == nullptr) return nullptr;
  cv->table = image;
  cv->table_size = size;
  cv->kind = table_kind(image);
  memcpy(cv->name, image + LDAP_CS_OFF_NAME, sizeof cv->name - 1);
  cv->name[sizeof cv->name - 1] = '\0';
  cv->header_words[0] = be16(image + 56);
  cv->header_words[1] = be16(image + 62);
  memcpy(cv->header_bytes, image + 64, 16);
  if ((cv->kind == 3 || cv->kind == 10) && (cv->two_byte = two_byte_values(cv)) == nullptr) {
    free(cv);
    return nullptr;
  }
  return cv;
}

// Whole file into a new buffer; false when it cannot be read.
bool read_file(const char *path, unsigned char **data, uint32_t *size) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size < (1L << 26);
  unsigned char *buf = nullptr;
  size_t got = 0;
  if (ok) {
    buf = static_cast<unsigned char *>(olx_malloc(st.st_size > 0 ? st.st_size : 1));
    ok = buf != nullptr;
  }
  while (ok && got < static_cast<size_t>(st.st_size)) {
    ssize_t n = read(fd, buf + got, st.st_size - got);
    if (n <= 0)
      ok = false;
    else
      got += n;
  }
  close(fd);
  if (!ok) {
    free(buf);
    return false;
  }
  *data = buf;
  *size = static_cast<uint32_t>(got);
  return true;
}

ldap_cs_converter *find_table(const char *name) {
  char dir[kMaxPath + 1];
  const char *tis = getenv("TISDIR");
  const char *bin = getenv("BINDIR");
  const char *dirs[4] = {nullptr, nullptr, nullptr, ""};
  char d0[kMaxPath + 1], d2[kMaxPath + 1];
  if (tis != nullptr && *tis) {
    if (snprintf(d0, sizeof d0, "%s/codeset", tis) < static_cast<int>(kMaxPath)) dirs[0] = d0;
    if (strlen(tis) < kMaxPath) dirs[1] = tis;
  }
  if (bin != nullptr && *bin && snprintf(d2, sizeof d2, "%s/../generic/codeset", bin) < static_cast<int>(kMaxPath))
    dirs[2] = d2;
  for (const char *d : dirs) {
    if (d == nullptr) continue;
    int n = *d ? snprintf(dir, sizeof dir, "%s/%s", d, name) : snprintf(dir, sizeof dir, "%s", name);
    if (n < 0 || static_cast<size_t>(n) >= kMaxPath || !file_exists(dir)) continue;
    return load_from(d, name);  // the first file found decides
  }
  return nullptr;
}

void lookup_alias(char *name, size_t size) {
  const char *tis = getenv("TISDIR");
  char path[kMaxPath + 1];
  FILE *f = nullptr;
  for (int i = 0; i < 3 && f == nullptr; ++i) {
    if (i < 2 && (tis == nullptr || *tis == '\0')) continue;
    int n = i == 0   ? snprintf(path, sizeof path, "%s/codeset/aliases", tis)
            : i == 1 ? snprintf(path, sizeof path, "%s/aliases", tis)
                     : snprintf(path, sizeof path, "aliases");
    if (n > 0 && static_cast<size_t>(n) < kMaxPath) f = fopen(path, "re");
  }
  if (f == nullptr) return;
  char line[130];
  while (fgets(line, sizeof line, f) != nullptr) {
    if (line[0] == '#') continue;
    char *save = nullptr;
    char *alias = strtok_r(line, " \t\r\n", &save);
    char *real = alias ? strtok_r(nullptr, " \t\r\n", &save) : nullptr;
    if (real != nullptr && strcmp(alias, name) == 0) {
      snprintf(name, size, "%s", real);
      break;
    }
  }
  fclose(f);
}

}  // namespace ldap_cs_internal
