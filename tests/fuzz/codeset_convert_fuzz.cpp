// Fuzzes every conversion direction of every kind over the generated tables:
// the first byte picks the converter, the second the direction and the output
// window; the rest is the text.  Each call stays inside its buffers, returns
// 0, 1 or 2, and a conversion resumed after a full window ends.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ldap-iconv.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

ldap_cs_converter **converters() {
  static const char *kNames[] = {"ISO88591", "1255", "037", "1047", "943", "EUCJP", "939", "GB18030", "UTF8", "OS"};
  static ldap_cs_converter *cvs[10];
  static bool opened = false;
  if (!opened) {
    setenv("TISDIR", TAV_BUILD_DIR, 1);
    for (int i = 0; i < 10; ++i) check((cvs[i] = ldap_cs_open(kNames[i])) != nullptr);
    opened = true;
  }
  return cvs;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  ldap_cs_converter *cv = converters()[data[0] % 10];
  const int direction = data[1] & 3;
  const size_t window = 1 + (data[1] >> 2);  // 1 to 64 bytes or units per call
  const unsigned char *in = data + 2, *end = data + size;
  std::vector<uint16_t> in16((size - 2) / 2);
  if (!in16.empty()) memcpy(in16.data(), in, in16.size() * 2);
  const uint16_t *in_u = in16.data(), *end_u = in_u + in16.size();
  cv->from_state = cv->to_state = 0;
  for (int calls = 0; calls < 100000; ++calls) {
    unsigned char out[70];
    uint16_t out16[70];
    unsigned char *o = out;
    uint16_t *o16 = out16;
    const unsigned char *before = in;
    const uint16_t *before_u = in_u;
    int rc;
    switch (direction) {
      case 0:
        rc = ldap_cs_step_to_utf8(cv, &in, end, &o, out + window);
        break;
      case 1:
        rc = ldap_cs_step_from_utf8(cv, &in, end, &o, out + window);
        break;
      case 2:
        rc = ldap_cs_step_to_ucs2(cv, &in, end, &o16, out16 + window);
        break;
      default:
        rc = ldap_cs_step_from_ucs2(cv, &in_u, end_u, &o, out + window);
        break;
    }
    check(rc >= 0 && rc <= 2);
    check(o <= out + window && o16 <= out16 + window && in <= end && in_u <= end_u);
    // A full window with no progress: the next character needs more room
    // than a window of this size offers.
    if (rc != 1 || (in == before && in_u == before_u && o == out && o16 == out16)) break;
  }
  return 0;
}
