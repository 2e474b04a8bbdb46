// The BER element: construction, growth, conversion to and from bervals, and
// the trace dumps.
#include <cstdlib>
#include <cstring>

#include "lber-int.h"
#include "ldap-debug.h"
#include "ldap-protocol.h"
#include "ldap-utils.h"

namespace {
constexpr size_t kStackBytes = sizeof(uint32_t) * (FBER_MAX_SEQ + 1);

// One allocation: the record, two slots for the element's own copies of the
// translation settings, the inline buffer, and (for elements that may be
// written) the sequence stack after it, aligned for its 32-bit slots.
// Reading elements carry no stack: a received message holds its bytes and
// little else.
constexpr size_t kSettingsBytes = 2 * sizeof(int32_t);

constexpr size_t stack_offset(size_t inline_size) {
  return (sizeof(berelement) + kSettingsBytes + inline_size + alignof(uint32_t) - 1) & ~(alignof(uint32_t) - 1);
}

inline int32_t *settings_slots(const BerElement *ber) {
  return reinterpret_cast<int32_t *>(const_cast<BerElement *>(ber) + 1);
}

inline char *inline_buffer(BerElement *ber) { return reinterpret_cast<char *>(ber + 1) + kSettingsBytes; }

void init_record(BerElement *ber, size_t inline_size) {
  memset(ber, 0, sizeof(*ber));
  ber->ber_buf = ber->ber_ptr = inline_buffer(ber);
  ber->ber_end = ber->ber_buf + inline_size;
  ber->ber_tag = LBER_DEFAULT;
  ber->ber_options = FBER_MARK;
}

#if defined(__SANITIZE_ADDRESS__)
#define FBER_KEEP_SPARE 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FBER_KEEP_SPARE 0
#endif
#endif
#ifndef FBER_KEEP_SPARE
#define FBER_KEEP_SPARE 1
#endif

// One freed request element of the usual size kept per thread for its next
// request.  The block (record, 6144-byte inline buffer, stack) is above the
// size malloc caches per thread, so each malloc and free of it would take
// the allocator's slow path.  Address-sanitised builds keep none, so a use
// after free stays visible to them.
struct SpareElement {
  void *block = nullptr;
  ~SpareElement() { free(block); }
};
thread_local SpareElement spare_element;

constexpr size_t kUsualBlock = stack_offset(FBER_INLINE_SIZE) + kStackBytes;

bool is_usual_block(const BerElement *ber) {
  return ber->ber_sos == reinterpret_cast<const uint32_t *>(reinterpret_cast<const char *>(ber) +
                                                            stack_offset(FBER_INLINE_SIZE));
}

void *take_block(size_t bytes) {
  if (FBER_KEEP_SPARE && bytes == kUsualBlock && spare_element.block != nullptr) {
    void *block = spare_element.block;
    spare_element.block = nullptr;
    return block;
  }
  return olx_malloc(bytes);
}

BerElement *allocate(size_t inline_size, bool with_stack) {
  const size_t stack_at = stack_offset(inline_size);
  auto *ber = static_cast<BerElement *>(take_block(with_stack ? stack_at + kStackBytes : stack_at));
  if (ber == nullptr) return nullptr;
  init_record(ber, inline_size);
  if (with_stack) {
    ber->ber_sos = reinterpret_cast<uint32_t *>(reinterpret_cast<char *>(ber) + stack_at);
    ber->ber_sos[0] = 0;
  }
  return ber;
}

void set_settings(BerElement *ber, int noxlate, int version) {
  ber->ber_noxlate = settings_slots(ber);
  ber->ber_version = settings_slots(ber) + 1;
  *ber->ber_noxlate = noxlate;
  *ber->ber_version = version;
}

// Encoded lengths are at most 4 octets, so no element may grow past this.
constexpr uint64_t kMaxCapacity = 0xFFFFFFFFu;

bool ascii_alnum(unsigned char c) { return (c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z'); }

// Reads a BER header at bytes[*pos]; false if it does not fit in n bytes.
bool header_at(const unsigned char *b, size_t n, size_t *pos, unsigned *tag, size_t *len) {
  size_t p = *pos;
  if (p + 2 > n) return false;
  *tag = b[p++];
  size_t l = b[p++];
  if (l & 0x80) {
    size_t k = l & 0x7F;
    if (k > 8 || p + k > n) return false;
    l = 0;
    for (size_t i = 0; i < k; ++i) l = (l << 8) | b[p++];
  }
  *len = l;
  *pos = p;
  return true;
}

// Blanks the contents of an item, clipped to the data that is present.
void blank(unsigned char *b, size_t n, size_t pos, size_t len) {
  size_t end = len > n - pos ? n : pos + len;
  for (size_t i = pos; i < end; ++i) b[i] = 'x';
}

// Values of every "userpassword" attribute (any case), whatever follows it.
void mask_userpassword(unsigned char *b, size_t n) {
  static const char kName[] = "userpassword";
  const size_t m = sizeof(kName) - 1;
  for (size_t at = 0; at + m <= n; ++at) {
    size_t i = 0;
    while (i < m && (b[at + i] | 0x20) == kName[i]) ++i;
    if (i < m) continue;
    size_t after = at + m;
    // A SET OF OCTET STRINGs after the name: blank every value in full.
    size_t pos = after, len;
    unsigned tag;
    if (header_at(b, n, &pos, &tag, &len) && tag == 0x31) {
      size_t end = len > n - pos ? n : pos + len;
      size_t vlen;
      while (pos < end && header_at(b, end, &pos, &tag, &vlen)) {
        blank(b, n, pos, vlen);
        pos = vlen > end - pos ? end : pos + vlen;
      }
    }
    // Otherwise (and in addition) the short-form layout: four header bytes, then
    // the value's letters and digits.
    for (size_t p = after + 4; p < n && ascii_alnum(b[p]); ++p) b[p] = 'x';
    at = after - 1;
  }
}

// Credentials of a BindRequest: simple [0] or the SASL credentials of [3].
void mask_bind(unsigned char *b, size_t n) {
  size_t pos = 0, len;
  unsigned tag;
  if (!header_at(b, n, &pos, &tag, &len) || tag != 0x30) return;
  if (!header_at(b, n, &pos, &tag, &len) || tag != 0x02 || len > n - pos) return;
  pos += len;
  if (!header_at(b, n, &pos, &tag, &len) || tag != (unsigned)ldap_proto::kBindRequest) return;
  if (!header_at(b, n, &pos, &tag, &len) || tag != 0x02 || len > n - pos) return;  // version
  pos += len;
  if (!header_at(b, n, &pos, &tag, &len) || tag != 0x04 || len > n - pos) return;  // name
  pos += len;
  if (!header_at(b, n, &pos, &tag, &len)) return;
  if (tag == 0x80) {
    blank(b, n, pos, len);
  } else if (tag == 0xA3) {
    if (!header_at(b, n, &pos, &tag, &len) || tag != 0x04 || len > n - pos) return;  // mechanism
    pos += len;
    if (header_at(b, n, &pos, &tag, &len) && tag == 0x04) blank(b, n, pos, len);
  }
}
}  // namespace

extern "C" {

BerElement *fber_alloc_t(int size) { return allocate(size < 0 ? 0 : static_cast<size_t>(size), true); }

BerElement *fber_alloc(void) { return fber_alloc_t(FBER_INLINE_SIZE); }

BerElement *fber_alloc_with_options(int for_reading, int noxlate, int version) {
  BerElement *ber = for_reading ? allocate(0, false) : fber_alloc();
  if (ber == nullptr) return nullptr;
  set_settings(ber, noxlate, version);
  return ber;
}

size_t fber_reading_size(void) { return stack_offset(0); }

BerElement *fber_init_reading_at(void *memory, int noxlate, int version) {
  auto *ber = static_cast<BerElement *>(memory);
  init_record(ber, 0);
  set_settings(ber, noxlate, version);
  return ber;
}

void fber_copy_settings(BerElement *to, const BerElement *from) {
  if (from->ber_noxlate != nullptr) {
    to->ber_noxlate = settings_slots(to);
    *to->ber_noxlate = *from->ber_noxlate;
  }
  if (from->ber_version != nullptr) {
    to->ber_version = settings_slots(to) + 1;
    *to->ber_version = *from->ber_version;
  }
}

void fber_release(BerElement *ber) {
  if (ber == nullptr) return;
  if ((ber->ber_options & 0xFF) & FBER_MARK) {
    if (ber->ber_buf != inline_buffer(ber)) free(ber->ber_buf);
    if (ber->ber_version != settings_slots(ber) + 1) free(ber->ber_version);
    if (ber->ber_noxlate != settings_slots(ber)) free(ber->ber_noxlate);
  } else {
    free(ber->ber_buf);
  }
}

void fber_free(BerElement *ber) {
  fber_release(ber);
  if (FBER_KEEP_SPARE && ber != nullptr && spare_element.block == nullptr && is_usual_block(ber)) {
    spare_element.block = ber;
    return;
  }
  free(ber);
}

int fber_realloc(BerElement *ber, ber_len_t needed) {
  const size_t used = static_cast<size_t>(ber->ber_ptr - ber->ber_buf);
  const size_t extra = used > needed ? used : needed;
  // Refuse rather than wrap: nothing this codec writes can exceed 4-octet lengths.
  if (extra > kMaxCapacity || used + extra > kMaxCapacity) return -1;
  char *grown = static_cast<char *>(olx_malloc(used + extra));
  if (grown == nullptr) return -1;
  if (used != 0) memcpy(grown, ber->ber_buf, used);
  if (ber->ber_buf != inline_buffer(ber)) free(ber->ber_buf);
  ber->ber_buf = grown;
  ber->ber_ptr = grown + used;
  ber->ber_end = grown + used + extra;
  return 0;
}

int fber_write(BerElement *ber, const char *bytes, ber_len_t count) {
  if (count >= static_cast<ber_len_t>(ber->ber_end - ber->ber_ptr) && fber_realloc(ber, count) != 0) return -1;
  if (count != 0) memmove(ber->ber_ptr, bytes, count);
  ber->ber_ptr += count;
  return static_cast<int>(count);
}

void fber_reset(BerElement *ber, int was_writing) {
  if (was_writing) {
    ber->ber_end = ber->ber_ptr;
    ber->ber_ptr = ber->ber_buf;
  } else {
    ber->ber_ptr = ber->ber_end;
  }
  ber->ber_rwptr = nullptr;
}

BerElement *fber_init2(const struct berval *bv) {
  if (bv == nullptr || bv->bv_len >= 0x7FFFFFFFu || (bv->bv_val == nullptr && bv->bv_len != 0)) return nullptr;
  // Sized to the data (plus the spare byte writers keep), so a reading element
  // is one allocation of the right size rather than 6 KiB grown by copying.
  BerElement *ber = allocate(bv->bv_len + 1, false);
  if (ber == nullptr) return nullptr;
  if (fber_write(ber, bv->bv_val, bv->bv_len) != static_cast<int>(bv->bv_len)) {
    fber_free(ber);
    return nullptr;
  }
  fber_reset(ber, 1);
  return ber;
}

int fber_flatten(BerElement *ber, struct berval **out) {
  *out = nullptr;
  auto *bv = static_cast<struct berval *>(olx_calloc(1, sizeof(struct berval)));
  if (bv == nullptr) return -1;
  if (ber != nullptr) {
    const uint32_t n = static_cast<uint32_t>(ber->ber_ptr - ber->ber_buf);
    bv->bv_val = static_cast<char *>(olx_malloc(static_cast<size_t>(n) + 1));
    if (bv->bv_val == nullptr) {
      free(bv);
      return -1;
    }
    if (n != 0) memcpy(bv->bv_val, ber->ber_buf, n);
    bv->bv_val[n] = '\0';
    bv->bv_len = n;
  }
  *out = bv;
  return 0;
}

static void dump_body(BerElement *ber, int direction) {
  const char *from = direction == 1 ? ber->ber_ptr : ber->ber_buf;
  const char *to = direction == 1 ? ber->ber_end : ber->ber_ptr;
  ldap_log(LDAP_LOG_BER, "          current len=%ld, contents:\n", static_cast<long>(to - from));
  fber_log_contents(from, static_cast<ber_len_t>(to - from));
}

void fber_dump(BerElement *ber, int direction) {
  if (!ldap_trace_enabled(LDAP_LOG_BER)) return;
  ldap_log(LDAP_LOG_BER, "fber_dump: buf=%p ptr=%p end=%p\n", static_cast<void *>(ber->ber_buf),
           static_cast<void *>(ber->ber_ptr), static_cast<void *>(ber->ber_end));
  dump_body(ber, direction);
}

void fber_dump_with_fd(BerElement *ber, int direction, int sd) {
  if (!ldap_trace_enabled(LDAP_LOG_BER)) return;
  ldap_log(LDAP_LOG_BER, "fber_dump_with_fd: buf=%p ptr=%p end=%p sd=%d\n", static_cast<void *>(ber->ber_buf),
           static_cast<void *>(ber->ber_ptr), static_cast<void *>(ber->ber_end), sd);
  dump_body(ber, direction);
}

void fber_mask_passwords(char *bytes, size_t count) {
  auto *b = reinterpret_cast<unsigned char *>(bytes);
  mask_userpassword(b, count);
  mask_bind(b, count);
}

void fber_log_contents(const char *bytes, ber_len_t count) {
  // The copy exists only to be masked and dumped; skip it when nothing prints.
  if (!ldap_trace_enabled(LDAP_LOG_BER)) return;
  char *copy = static_cast<char *>(olx_malloc(count + 1));
  if (copy == nullptr) return;
  if (count != 0) memcpy(copy, bytes, count);
  copy[count] = '\0';
  fber_mask_passwords(copy, count);
  ldap_log_dump(copy, static_cast<unsigned int>(count), nullptr);
  free(copy);
}
}
