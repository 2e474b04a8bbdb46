// The fber codec side by side with OpenLDAP's liblber doing the same work:
// encoding a SearchRequest with a nested filter, and decoding a
// SearchResultEntry of 10 attributes with 20 values each.  Both libraries
// copy the received bytes into their element first, as both do when reading.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "lber-int.h"

// OpenLDAP's types share names with ours; keep them in their own namespace.
// The functions keep C linkage, and OpenLDAP's are named ber_*, ours fber_*.
#undef LBER_DEFAULT
#undef LBER_ERROR
namespace ol {
#include <lber.h>
}

namespace {

using tag_t = ::ber_tag_t;
constexpr tag_t LBER_ERROR_TAG = ~tag_t{0};
constexpr int kAttrs = 10, kValues = 20;

const char *const kAttrList[] = {"cn", "sn", "mail", "telephoneNumber", "objectClass", nullptr};

struct Entry {
  std::vector<std::string> types;
  std::vector<std::vector<std::string>> values;
};

const Entry &entry() {
  static Entry e = [] {
    Entry x;
    for (int a = 0; a < kAttrs; ++a) {
      x.types.push_back("attribute" + std::to_string(a));
      x.values.emplace_back();
      for (int v = 0; v < kValues; ++v)
        x.values.back().push_back("value " + std::to_string(v) + " of attribute " + std::to_string(a) + " xxxxxxxx");
    }
    return x;
  }();
  return e;
}

// The SearchResultEntry as it arrives, encoded by OpenLDAP with minimal lengths.
const std::string &entry_pdu() {
  static std::string pdu = [] {
    ol::BerElement *b = ol::ber_alloc_t(LBER_USE_DER);
    ol::ber_printf(b, "{it{s{", 7, static_cast<ol::ber_tag_t>(0x64), "cn=someone,ou=people,dc=example,dc=com");
    for (int a = 0; a < kAttrs; ++a) {
      ol::ber_printf(b, "{s[", entry().types[a].c_str());
      for (auto &v : entry().values[a]) ol::ber_printf(b, "o", v.data(), static_cast<ol::ber_len_t>(v.size()));
      ol::ber_printf(b, "]}");
    }
    ol::ber_printf(b, "}}}");
    ol::berval *bv = nullptr;
    ol::ber_flatten(b, &bv);
    std::string out(bv->bv_val, bv->bv_len);
    ol::ber_bvfree(bv);
    ol::ber_free(b, 1);
    return out;
  }();
  return pdu;
}

void EncodeSearch_fber(benchmark::State &state, int noxlate) {
  for (auto _ : state) {
    BerElement *b = fber_alloc_with_options(0, noxlate, 3);
    int rc = fber_printf(b, "{it{seeiib", 42, tag_t{0x63}, "ou=people,dc=example,dc=com", 2, 0, 500, 30, 0);
    rc |= fber_printf(b, "t{t{ss}t{t{s{ts}}t{ss}}}", tag_t{0xA0}, tag_t{0xA3}, "objectClass", "person", tag_t{0xA1},
                      tag_t{0xA4}, "cn", tag_t{0x80}, "smi", tag_t{0xA3}, "mail", "someone@example.com");
    rc |= fber_printf(b, "{v}}}", kAttrList);
    benchmark::DoNotOptimize(b->ber_ptr);
    if (rc != 0) state.SkipWithError("encode failed");
    fber_free(b);
  }
}

void EncodeSearch_liblber(benchmark::State &state) {
  using ol::ber_tag_t;
  for (auto _ : state) {
    ol::BerElement *b = ol::ber_alloc_t(LBER_USE_DER);
    int rc = ol::ber_printf(b, "{it{seeiib", 42, ber_tag_t{0x63}, "ou=people,dc=example,dc=com", 2, 0, 500, 30, 0);
    rc |= ol::ber_printf(b, "t{t{ss}t{t{s{ts}}t{ss}}}", ber_tag_t{0xA0}, ber_tag_t{0xA3}, "objectClass", "person",
                         ber_tag_t{0xA1}, ber_tag_t{0xA4}, "cn", ber_tag_t{0x80}, "smi", ber_tag_t{0xA3}, "mail",
                         "someone@example.com");
    rc |= ol::ber_printf(b, "{v}}}", kAttrList);
    benchmark::DoNotOptimize(b);
    if (rc < 0) state.SkipWithError("encode failed");
    ol::ber_free(b, 1);
  }
}

void DecodeEntry_fber(benchmark::State &state, bool session) {
  const std::string &pdu = entry_pdu();
  size_t values = 0;
  for (auto _ : state) {
    BerElement *b;
    if (session) {
      // A session element with translation on, as the socket reader makes.
      b = fber_alloc_with_options(1, 0, 3);
      fber_write(b, pdu.data(), pdu.size());
      fber_reset(b, 1);
    } else {
      berval bv{pdu.size(), const_cast<char *>(pdu.data())};
      b = fber_init2(&bv);
    }
    char *dn = nullptr;
    if (fber_scanf(b, "{x{a", &dn) == LBER_ERROR_TAG) state.SkipWithError("entry header");
    free(dn);
    ber_len_t len;
    char *end;
    for (ber_tag_t t = fber_first_element(b, &len, &end); t != LBER_ERROR_TAG && b->ber_ptr < end;) {
      char *type = nullptr;
      berval **vals = nullptr;
      if (fber_scanf(b, "{a[V]}", &type, &vals) == LBER_ERROR_TAG) {
        state.SkipWithError("attribute");
        break;
      }
      for (size_t i = 0; vals[i] != nullptr; ++i) ++values;
      free(type);
      fber_bvecfree(vals);
    }
    fber_free(b);
  }
  state.counters["values"] = benchmark::Counter(static_cast<double>(values), benchmark::Counter::kAvgIterations);
}

void DecodeEntry_liblber(benchmark::State &state) {
  const std::string &pdu = entry_pdu();
  size_t values = 0;
  for (auto _ : state) {
    ol::berval bv{pdu.size(), const_cast<char *>(pdu.data())};
    ol::BerElement *b = ol::ber_init(&bv);
    char *dn = nullptr;
    if (ol::ber_scanf(b, "{x{a", &dn) == LBER_ERROR_TAG) state.SkipWithError("entry header");
    ol::ber_memfree(dn);
    ol::ber_len_t len;
    char *last;
    for (ol::ber_tag_t t = ol::ber_first_element(b, &len, &last); t != LBER_ERROR_TAG;
         t = ol::ber_next_element(b, &len, last)) {
      char *type = nullptr;
      ol::berval **vals = nullptr;
      if (ol::ber_scanf(b, "{a[V]}", &type, &vals) == LBER_ERROR_TAG) {
        state.SkipWithError("attribute");
        break;
      }
      for (size_t i = 0; vals[i] != nullptr; ++i) ++values;
      ol::ber_memfree(type);
      ol::ber_bvecfree(vals);
    }
    ol::ber_free(b, 1);
  }
  state.counters["values"] = benchmark::Counter(static_cast<double>(values), benchmark::Counter::kAvgIterations);
}

}  // namespace

BENCHMARK_CAPTURE(EncodeSearch_fber, noxlate, 1);
BENCHMARK_CAPTURE(EncodeSearch_fber, translated, 0);
BENCHMARK(EncodeSearch_liblber);
BENCHMARK_CAPTURE(DecodeEntry_fber, init2, false);
BENCHMARK_CAPTURE(DecodeEntry_fber, session_translated, true);
BENCHMARK(DecodeEntry_liblber);
BENCHMARK_MAIN();
