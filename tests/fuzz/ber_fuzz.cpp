// Feeds arbitrary bytes through fber_scanf with the formats the response
// parsers use, repeating each format over the element as a parser loop
// would, and frees everything.  Values decoded by "{a[V]}" are encoded again
// and must decode to the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "lber-int.h"

namespace {

void check(bool condition) {
  if (!condition) abort();
}

// Encode type and values again and compare what comes back.
void round_trip(const char *type, struct berval **vals) {
  BerElement *w = fber_alloc_with_options(0, 0, 3);
  if (w == nullptr) return;
  check(fber_printf(w, "{s[V]}", type, vals) == 0);
  fber_reset(w, 1);
  char *type2 = nullptr;
  struct berval **vals2 = nullptr;
  check(fber_scanf(w, "{a[V]}", &type2, &vals2) != LBER_ERROR);
  check(strcmp(type, type2) == 0);
  size_t i = 0;
  for (; vals != nullptr && vals[i] != nullptr; ++i) {
    check(vals2 != nullptr && vals2[i] != nullptr && vals2[i]->bv_len == vals[i]->bv_len);
    check(memcmp(vals2[i]->bv_val, vals[i]->bv_val, vals[i]->bv_len) == 0);
  }
  check(vals2 == nullptr ? i == 0 : vals2[i] == nullptr);
  check(w->ber_ptr == w->ber_end);
  free(type2);
  fber_bvecfree(vals2);
  fber_free(w);
}

bool one(BerElement *ber, unsigned format) {
  ber_tag_t rc = LBER_ERROR;
  switch (format) {
    case 0: {
      int id = 0;
      char *a = nullptr, *b = nullptr;
      rc = fber_scanf(ber, "{iaa", &id, &a, &b);
      free(a);
      free(b);
      break;
    }
    case 1: {
      char *type = nullptr;
      struct berval **vals = nullptr;
      rc = fber_scanf(ber, "{a[V]}", &type, &vals);
      if (rc == LBER_ERROR) check(vals == nullptr);
      if (rc != LBER_ERROR && type != nullptr) round_trip(type, vals);
      free(type);
      fber_bvecfree(vals);
      break;
    }
    case 2:
      rc = fber_scanf(ber, "{x{");
      break;
    case 3: {
      char **vals = nullptr;
      rc = fber_scanf(ber, "[v]", &vals);
      if (rc == LBER_ERROR) check(vals == nullptr);
      fber_svecfree(vals);
      break;
    }
    case 4: {
      struct berval *bv = nullptr;
      rc = fber_scanf(ber, "O", &bv);
      check((rc == LBER_ERROR) == (bv == nullptr));
      if (bv != nullptr) check(bv->bv_val[bv->bv_len] == '\0');
      fber_bvfree(bv);
      break;
    }
    case 5: {
      char *bits = nullptr;
      ber_len_t nbits = 0;
      rc = fber_scanf(ber, "B", &bits, &nbits);
      check((rc == LBER_ERROR) == (bits == nullptr));
      free(bits);
      break;
    }
    case 6: {
      int tag = 0;
      rc = fber_scanf(ber, "t", &tag);
      if (rc != LBER_ERROR) fber_skip_element(ber);
      break;
    }
    default: {
      ber_len_t len = 0;
      rc = fber_scanf(ber, "l", &len);
      if (rc != LBER_ERROR) check(fber_skip_element(ber) == 0);
      break;
    }
  }
  check(ber->ber_buf <= ber->ber_ptr && ber->ber_ptr <= ber->ber_end);
  return rc != LBER_ERROR;
}

// The trace masker reads the same outside bytes: it may only turn bytes into 'x'.
void mask(const uint8_t *data, size_t size) {
  char *copy = static_cast<char *>(malloc(size + 1));
  memcpy(copy, data, size);
  fber_mask_passwords(copy, size);
  for (size_t i = 0; i < size; ++i) check(copy[i] == static_cast<char>(data[i]) || copy[i] == 'x');
  free(copy);
}

// A caller's buffer whose size comes from the input.
void caller_buffer(BerElement *ber, unsigned size) {
  char buf[64];
  ber_len_t len = size % sizeof buf;
  if (fber_scanf(ber, "s", buf, &len) != LBER_ERROR) check(len < size % sizeof buf && buf[len] == '\0');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  // First byte: format (low 3 bits), whether strings go through translation
  // (bit 3), and two extra readers of the same bytes (bits 4 and 5).
  const unsigned format = data[0] & 7;
  const bool session = (data[0] & 8) != 0;
  if (data[0] & 0x10) mask(data + 1, size - 1);
  BerElement *ber = session ? fber_alloc_with_options(0, 0, 3) : nullptr;
  if (session) {
    if (ber == nullptr || fber_write(ber, reinterpret_cast<const char *>(data + 1), size - 1) < 0) {
      fber_free(ber);
      return 0;
    }
    fber_reset(ber, 1);
  } else {
    struct berval bv = {size - 1, const_cast<char *>(reinterpret_cast<const char *>(data + 1))};
    ber = fber_init2(&bv);
    if (ber == nullptr) return 0;
  }
  if (data[0] & 0x20) caller_buffer(ber, data[0] >> 2);
  for (int i = 0; i < 64 && ber->ber_ptr < ber->ber_end; ++i) {
    const char *before = ber->ber_ptr;
    if (!one(ber, format) || ber->ber_ptr == before) break;
  }
  fber_free(ber);
  return 0;
}
