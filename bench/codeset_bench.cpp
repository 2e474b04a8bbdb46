// Conversion throughput of the library's engine against glibc iconv on the
// same text, both directions, for ISO8859-1, Shift-JIS, EUC-JP and GB18030.
// Bytes processed are the input's; the table directory is the build's.
#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "ldap-iconv.h"

namespace {

struct CodeSet {
  const char *table, *glibc, *sample;  // sample: UTF-8 text typical for the code set
};
const CodeSet kSets[] = {
    {"ISO88591", "ISO-8859-1",
     "Jos\xC3\xA9 M\xC3\xBCller, Stra\xC3\x9F"
     "e 12, K\xC3\xB6ln; caf\xC3\xA9 cr\xC3\xA8me. "},
    {"943", "CP932",
     "\xE6\x9D\xB1\xE4\xBA\xAC\xE9\x83\xBD 1-2-3 \xE5\xB1\xB1\xE7\x94\xB0\xE5\xA4\xAA\xE9\x83\x8E "
     "\xE3\x81\x95\xE3\x82\x93 \xE3\x82\xAB\xE3\x82\xBF\xE3\x82\xAB\xE3\x83\x8A abc "},
    {"EUCJP", "EUC-JP",
     "\xE6\x9D\xB1\xE4\xBA\xAC\xE9\x83\xBD 1-2-3 \xE5\xB1\xB1\xE7\x94\xB0\xE5\xA4\xAA\xE9\x83\x8E "
     "\xE3\x81\x95\xE3\x82\x93 \xE3\x82\xAB\xE3\x82\xBF\xE3\x82\xAB\xE3\x83\x8A abc "},
    {"GB18030", "GB18030",
     "\xE5\x8C\x97\xE4\xBA\xAC\xE5\xB8\x82 \xE7\x8E\x8B\xE5\xB0\x8F\xE6\x98\x8E 42 "
     "\xE4\xBD\xA0\xE5\xA5\xBD\xE4\xB8\x96\xE7\x95\x8C \xE2\x82\xAC "},
};

std::string repeat_to(const std::string &s, size_t size) {
  std::string out;
  while (out.size() < size) out += s;
  return out;
}

std::string glibc_convert(const char *to, const char *from, const std::string &in) {
  iconv_t cd = iconv_open(to, from);
  std::string out(in.size() * 4 + 16, '\0');
  char *ip = const_cast<char *>(in.data()), *op = out.data();
  size_t il = in.size(), ol = out.size();
  iconv(cd, &ip, &il, &op, &ol);
  iconv_close(cd);
  out.resize(out.size() - ol);
  return out;
}

struct Texts {
  std::string utf8, local;
};
const Texts &texts(int i) {
  static std::vector<Texts> all;
  if (all.empty())
    for (const CodeSet &c : kSets) {
      std::string u = repeat_to(c.sample, 64 * 1024);
      all.push_back({u, glibc_convert(c.glibc, "UTF-8", u)});
    }
  return all[i];
}

// direction 0: local -> UTF-8; 1: UTF-8 -> local.
void BM_Ours(benchmark::State &state) {
  setenv("TISDIR", TAV_BUILD_DIR, 1);
  const int i = static_cast<int>(state.range(0)), dir = static_cast<int>(state.range(1));
  ldap_cs_converter *cv = ldap_cs_open(kSets[i].table);
  if (cv == nullptr) {
    state.SkipWithError("no table");
    return;
  }
  const std::string &in = dir == 0 ? texts(i).local : texts(i).utf8;
  std::string out(in.size() * 3 + 16, '\0');
  for (auto _ : state) {
    long n = dir == 0 ? ldap_cs_to_utf8(cv, in.data(), static_cast<long>(in.size()), out.data(), out.size())
                      : ldap_cs_from_utf8(cv, in.data(), static_cast<long>(in.size()), out.data(), out.size());
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
  state.SetLabel(std::string(kSets[i].table) + (dir == 0 ? " to UTF-8" : " from UTF-8"));
  ldap_cs_close(cv);
}

void BM_Glibc(benchmark::State &state) {
  const int i = static_cast<int>(state.range(0)), dir = static_cast<int>(state.range(1));
  iconv_t cd = dir == 0 ? iconv_open("UTF-8", kSets[i].glibc) : iconv_open(kSets[i].glibc, "UTF-8");
  const std::string &in = dir == 0 ? texts(i).local : texts(i).utf8;
  std::string out(in.size() * 3 + 16, '\0');
  for (auto _ : state) {
    char *ip = const_cast<char *>(in.data()), *op = out.data();
    size_t il = in.size(), ol = out.size();
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    benchmark::DoNotOptimize(iconv(cd, &ip, &il, &op, &ol));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
  state.SetLabel(std::string(kSets[i].glibc) + (dir == 0 ? " to UTF-8" : " from UTF-8"));
  iconv_close(cd);
}

BENCHMARK(BM_Ours)->ArgsProduct({{0, 1, 2, 3}, {0, 1}});
BENCHMARK(BM_Glibc)->ArgsProduct({{0, 1, 2, 3}, {0, 1}});

}  // namespace

BENCHMARK_MAIN();
