// The value and memory helpers programs written for the common C API call
// (ber_bvdup, ber_str2bv, ...): plain malloc'd copies, released with
// ber_memfree / ber_bvfree like everything else the library hands out.
#include <cstdlib>
#include <cstring>

#include "lber-int.h"
#include "tavldap_full.h"

namespace {
// A copy of len bytes with a terminating zero; null without memory.
char *copy_bytes(const char *s, ber_len_t len) {
  char *out = static_cast<char *>(malloc(len + 1));
  if (out == nullptr) return nullptr;
  if (len != 0) memcpy(out, s, len);
  out[len] = '\0';
  return out;
}

// Fills *bv (or a new record when bv is null) with s: copied when dup.
struct berval *to_berval(const char *s, ber_len_t len, int dup, struct berval *bv) {
  if (s == nullptr) return nullptr;
  char *value = dup ? copy_bytes(s, len) : const_cast<char *>(s);
  if (value == nullptr) return nullptr;
  struct berval *out = bv != nullptr ? bv : static_cast<struct berval *>(malloc(sizeof(struct berval)));
  if (out == nullptr) {
    if (dup) free(value);
    return nullptr;
  }
  out->bv_len = len;
  out->bv_val = value;
  return out;
}
}  // namespace

extern "C" {

void *ber_memalloc(ber_len_t size) { return malloc(size != 0 ? size : 1); }
void *ber_memcalloc(ber_len_t count, ber_len_t size) { return calloc(count != 0 ? count : 1, size != 0 ? size : 1); }
void *ber_memrealloc(void *p, ber_len_t size) { return realloc(p, size != 0 ? size : 1); }

void ber_memvfree(void **vector) {
  if (vector == nullptr) return;
  for (void **p = vector; *p != nullptr; ++p) free(*p);
  free(vector);
}

char *ber_strdup(const char *s) { return s != nullptr ? copy_bytes(s, strlen(s)) : nullptr; }

struct berval *ber_mem2bv(const char *s, ber_len_t len, int dup, struct berval *bv) {
  return to_berval(s, len, dup, bv);
}

struct berval *ber_str2bv(const char *s, ber_len_t len, int dup, struct berval *bv) {
  return to_berval(s, s != nullptr && len == 0 ? strlen(s) : len, dup, bv);
}

struct berval *ber_dupbv(struct berval *dst, struct berval *src) {
  if (src == nullptr) return nullptr;
  if (src->bv_val == nullptr) {
    struct berval *out = dst != nullptr ? dst : static_cast<struct berval *>(malloc(sizeof(struct berval)));
    if (out != nullptr) *out = {0, nullptr};
    return out;
  }
  return to_berval(src->bv_val, src->bv_len, 1, dst);
}

struct berval *ber_bvdup(const struct berval *src) { return ber_dupbv(nullptr, const_cast<struct berval *>(src)); }

void ber_bvarray_free(struct berval *array) {
  if (array == nullptr) return;
  for (struct berval *p = array; p->bv_val != nullptr; ++p) free(p->bv_val);
  free(array);
}
}
